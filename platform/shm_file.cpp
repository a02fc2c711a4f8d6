// The card's shared memory file: its name, this process's mapping and presence on it, the
// hand-over of the area's trace tables to the trace channel, and the signal mask call. The
// start-up and exit of a control process that use them are the wiring's (startup/process.cpp).
//
// Lock order: the process's mapping mutex, then the flock on the shared memory file (held
// only while the area is found or laid out), then the presence lock (below), then the area
// lock (to read the slots of the trace tables, after the flock is released). No numbered
// shared-memory lock is taken here.
//
// Presence. Every process that maps the card's file keeps an open-file-description lock,
// shared, on its first byte for as long as it lives (a child made by fork takes its own). The
// kernel drops it when the process dies, so "no process holds it" means "no live process is
// attached to the card": what a creator must know before it clears the locks that a card
// whose processes were all killed left behind. OFD locks do not mix with the flock that
// serialises the layout, and unlike POSIX record locks they are not lost when the process
// happens to close another descriptor of the same file.
#include "platform/platform_int.h"
#include "platform/shm_area.h"
#include "platform/shm_locks.h"

#include "common/kt4_check.h"
#include "log/log_internal.h"

#include <kt4/hostsim.h>
#include <kt4/log.h>
#include <kt4/platform.h>
#include <kt4/vx2bsd.h>

#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cinttypes>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#ifndef MAP_FIXED_NOREPLACE
#define MAP_FIXED_NOREPLACE 0x100000
#endif

namespace {

constexpr int kSysModule = 1;
constexpr const char *kShmBaseName = "KT4ShmMMap";
constexpr const char *kShmBaseNameLp = "KT4ShmMMapLp";
constexpr const char *kProductDir = "/kt4";
// Personality flags that together select the "Lp" file.
constexpr long kPersonalityLpBits = 0x8 | 0x4;

// ---- the file names, formed once per process ----

pthread_once_t g_namesOnce = PTHREAD_ONCE_INIT;
char g_nameBase[KT4_SHM_NAME_MAX];
char g_nameFile[KT4_SHM_NAME_MAX];
size_t g_nameWanted = 0; // length of the file name that was wanted, when it did not fit

long env_long(const char *name, long dflt) {
    const char *v = std::getenv(name);
    if (v == nullptr || *v == '\0') return dflt;
    char *end = nullptr;
    long n = std::strtol(v, &end, 0);
    return (end != nullptr && *end == '\0') ? n : dflt;
}

void form_names() {
    long personality = env_long("KT4_PERSONALITY", 0);
    const char *name =
        (personality & kPersonalityLpBits) == kPersonalityLpBits ? kShmBaseNameLp : kShmBaseName;
    const char *root = std::getenv("KT4_ROOT");
    // "/kt4" is the product directory of a switch; a simulated card keeps it in $KT4_ROOT.
    if (root == nullptr || *root == '\0') root = kProductDir;
    // Each name is at most 1023 characters. A cut name would be another file (the card's
    // file without ".mem", or in another directory): a root too long for the names leaves
    // both empty, and mapping the area then fails and says why.
    int base = std::snprintf(g_nameBase, sizeof g_nameBase, "%s/%s", root, name);
    int file = std::snprintf(g_nameFile, sizeof g_nameFile, "%s/%s.mem", root, name);
    if (base < 0 || file < 0 || static_cast<size_t>(file) >= sizeof g_nameFile) {
        g_nameWanted = file < 0 ? SIZE_MAX : static_cast<size_t>(file);
        g_nameBase[0] = '\0';
        g_nameFile[0] = '\0';
    }
}

// ---- presence ----

constexpr off_t kPresenceByte = 0;
std::atomic<int> g_presenceFd{-1}; // this process's attachment (-1: not attached)

int ofd_lock(int fd, short type, bool wait) {
    struct flock fl {};
    fl.l_type = type;
    fl.l_whence = SEEK_SET;
    fl.l_start = kPresenceByte;
    fl.l_len = 1;
    int rc;
    while ((rc = fcntl(fd, wait ? F_OFD_SETLKW : F_OFD_SETLK, &fl)) != 0 && errno == EINTR) {
    }
    return rc;
}

// A child made by fork shares its parent's open file description and with it the lock: it
// takes a description and a lock of its own, so that it is counted as long as it lives,
// whatever the parent does. Only async-signal-safe calls here.
void presence_after_fork() {
    if (g_presenceFd.load() < 0 || g_nameFile[0] == '\0') return;
    int fd = open(g_nameFile, O_RDWR | O_NOFOLLOW | O_CLOEXEC);
    if (fd < 0) return; // keeps the inherited one, shared with the parent
    if (ofd_lock(fd, F_RDLCK, false) != 0) {
        close(fd);
        return;
    }
    close(g_presenceFd.exchange(fd));
}

// ---- mapping ----

// Hands the area's trace tables and the ring lock (4) to the trace channel.
bool ring_lock_open() {
    return kt4::shmlock::is_open(KT4_SHM_LOCK_TRACE);
}
bool ring_lock_take() {
    return kt4::shmlock::take(KT4_SHM_LOCK_TRACE);
}
void ring_lock_give() {
    kt4::shmlock::give(KT4_SHM_LOCK_TRACE);
}
void *reload_rings(size_t *bytes) {
    return kt4::shm::table(kt4::shm::kTraceRings, bytes);
}

void attach_trace() {
    kt4::log::SharedTrace t;
    t.flags = kt4::shm::table(kt4::shm::kTraceFlags, &t.flagsBytes);
    t.rings = kt4::shm::table(kt4::shm::kTraceRings, &t.ringsBytes);
    t.ringLockOpen = ring_lock_open;
    t.ringLockTake = ring_lock_take;
    t.ringLockGive = ring_lock_give;
    t.reloadRings = reload_rings;
    kt4::log::attach_shared_trace(t);
}

pthread_mutex_t g_mapLock = PTHREAD_MUTEX_INITIALIZER;

bool parse_size(int argc, char **argv, size_t *size) {
    if (argc < 1 || argv == nullptr || argv[argc - 1] == nullptr) return false;
    const char *arg = argv[argc - 1];
    if (*arg < '0' || *arg > '9') return false;
    errno = 0;
    char *end = nullptr;
    unsigned long long n = std::strtoull(arg, &end, 10);
    if (errno != 0 || end == nullptr || *end != '\0' || n == 0) return false;
    *size = static_cast<size_t>(n);
    return true;
}

// Finds the area in the freshly mapped file, or lays it out when the file holds none.
// Returns the laid-out size, or 0 after reporting why the area cannot be used.
size_t find_or_lay_out(void *image, size_t mapped, const char *file) {
    auto *h = static_cast<const kt4::shm::HeaderRecord *>(image);
    kt4::shm::View view;
    const char *why = nullptr;
    if (h->magic == kt4::shm::kMagic) {
        if (!kt4::shm::validate(image, mapped, view, &why)) {
            kt4::platform::say_error(
                kSysModule,
                "KT4_ProcShmInit: shared memory file %s is not usable: %s "
                "(layout %u of %" PRIu64 " bytes, this process maps %zu bytes of layout %u)",
                file, why, h->version.get(), h->areaSize.get(), mapped, kt4::shm::kVersion);
            return 0;
        }
        size_t heapBytes = 0;
        auto *heap = const_cast<std::byte *>(kt4::shm::table_in(view, kt4::shm::kHeap, &heapBytes));
        if (heap == nullptr || mm_core_init(heap, heapBytes, 0) != 0) {
            kt4::platform::say_error(
                kSysModule,
                "KT4_ProcShmInit: shared memory file %s: its shared-memory heap is damaged", file);
            return 0;
        }
        return view.bytes;
    }
    // Not laid out yet (a new file, or one whose creator died half-way): lay it out.
    if (!kt4::shm::format(image, mapped)) {
        kt4::platform::say_error(
            kSysModule,
            "KT4_ProcShmInit: shared memory size %zu is below the %zu bytes the area needs", mapped,
            kt4::shm::min_area_size());
        return 0;
    }
    auto *hdr = static_cast<kt4::shm::HeaderRecord *>(image);
    auto *heap = static_cast<std::byte *>(image) + hdr->slots[kt4::shm::kHeap].offset.get();
    if (mm_core_init(heap, hdr->slots[kt4::shm::kHeap].size.get(), 1) != 0) {
        kt4::platform::say_error(
            kSysModule,
            "KT4_ProcShmInit: shared memory file %s: the shared-memory heap cannot be laid out",
            file);
        return 0;
    }
    kt4::shm::seal(image);
    return mapped;
}

// Refuses a file that is not the card's own: another user's, or one that other users may
// read or write (they would read the card's tables or change them under it).
bool file_is_ours(int fd, const char *file) {
    struct stat st {};
    if (fstat(fd, &st) != 0) {
        int err = errno;
        kt4ErrorPrintf(kSysModule, "failed to open memory file");
        kt4::platform::say_error(kSysModule, "KT4_ProcShmInit: %s: %s", file, std::strerror(err));
        errno = err;
        return false;
    }
    const char *why = nullptr;
    if (!S_ISREG(st.st_mode))
        why = "it is not a regular file";
    else if (st.st_uid != geteuid())
        why = "it belongs to another user";
    else if ((st.st_mode & 077) != 0)
        why = "other users may read or write it";
    if (why == nullptr) return true;
    kt4ErrorPrintf(kSysModule, "failed to open memory file");
    kt4::platform::say_error(kSysModule,
                             "KT4_ProcShmInit: refusing %s: %s (owner uid %u, mode 0%03o; the "
                             "card's file is this user's (uid %u) with mode 0600)",
                             file, why, static_cast<unsigned>(st.st_uid),
                             static_cast<unsigned>(st.st_mode & 07777),
                             static_cast<unsigned>(geteuid()));
    errno = EACCES;
    return false;
}

int map_area(size_t size) {
    const char *file = kt4GetShmFileName(0);
    if (*file == '\0') {
        kt4ErrorPrintf(kSysModule, "failed to open memory file");
        kt4::platform::say_error(
            kSysModule,
            "KT4_ProcShmInit: KT4_ROOT is too long: the shared memory file's name would have %zu "
            "characters, at most %d are possible",
            g_nameWanted, KT4_SHM_NAME_MAX - 1);
        errno = ENAMETOOLONG;
        return -1;
    }
    // Never through a link: a link at the file's name would have the card write wherever it
    // points.
    int fd = open(file, O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0600);
    if (fd < 0) {
        int err = errno;
        kt4ErrorPrintf(kSysModule, "failed to open memory file");
        kt4::platform::say_error(kSysModule, "KT4_ProcShmInit: %s: %s", file,
                                 err == ELOOP ? "it is a symbolic link (refused)"
                                              : std::strerror(err));
        errno = err;
        return -1;
    }
    if (!file_is_ours(fd, file)) {
        int err = errno;
        close(fd);
        errno = err;
        return -1;
    }
    // The first process of the card lays the area out; the flock keeps the others out until
    // it is complete, and is released by the kernel if the process dies meanwhile.
    while (flock(fd, LOCK_EX) != 0 && errno == EINTR) {
    }
    struct stat st {};
    if (fstat(fd, &st) != 0 || (static_cast<uint64_t>(st.st_size) < size &&
                                ftruncate(fd, static_cast<off_t>(size)) != 0)) {
        int err = errno;
        kt4ErrorPrintf(kSysModule, "failed to open memory file");
        kt4::platform::say_error(kSysModule, "KT4_ProcShmInit: %s: cannot size it to %zu bytes: %s",
                                 file, size, std::strerror(err));
        close(fd);
        errno = err;
        return -1;
    }
    void *want = reinterpret_cast<void *>(kt4::shm::kBaseAddress);
    void *p = mmap(want, size, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_FIXED_NOREPLACE, fd, 0);
    if (p != want) {
        int err = p == MAP_FAILED ? errno : EEXIST;
        // A kernel without MAP_FIXED_NOREPLACE takes the address as a hint: same error.
        if (p != MAP_FAILED) munmap(p, size);
        kt4ErrorPrintf(kSysModule, "failed to memory map memory file");
        if (err == EEXIST)
            kt4::platform::say_error(
                kSysModule, "KT4_ProcShmInit: %s: address 0x%lx is already in use in this process",
                file, static_cast<unsigned long>(kt4::shm::kBaseAddress));
        else
            kt4::platform::say_error(kSysModule, "KT4_ProcShmInit: %s: %s", file,
                                     std::strerror(err));
        close(fd);
        errno = err;
        return -1;
    }
    // Alone on the card (no other process attached, and the flock keeps newcomers out)?
    // Then no mutex in an area found laid out can be held by a live process.
    const bool alone = ofd_lock(fd, F_WRLCK, false) == 0;
    const bool existed = static_cast<const kt4::shm::HeaderRecord *>(p)->magic == kt4::shm::kMagic;
    size_t area = find_or_lay_out(p, size, file);
    if (area != 0 && alone && existed) kt4::shm::renew_mutexes(p);
    // Attached from here on: shared, like every other process of the card (waits only while
    // a creator clears what a dead card left, see CardExclusive).
    if (area != 0 && ofd_lock(fd, F_RDLCK, !alone) != 0) {
        int err = errno;
        kt4::platform::say_error(kSysModule, "KT4_ProcShmInit: %s: cannot lock it: %s", file,
                                 std::strerror(err));
        area = 0;
    }
    flock(fd, LOCK_UN);
    if (area == 0) {
        munmap(p, size);
        close(fd);
        errno = EINVAL;
        return -1;
    }
    g_presenceFd = fd;
    static pthread_once_t atforkOnce = PTHREAD_ONCE_INIT;
    pthread_once(&atforkOnce, [] { pthread_atfork(nullptr, nullptr, presence_after_fork); });
    kt4::shm::attach(p, area);
    attach_trace();
    return 0;
}

// Signal numbers of the switch's kernel (the numbering its control processes are written
// with), mapped onto this host's; 0 where the host has no such signal.
constexpr int kSwitchSignals[] = {
    0,       SIGHUP,  SIGINT,    SIGQUIT, SIGILL,   SIGTRAP,      SIGABRT, 0 /* EMT */,
    SIGFPE,  SIGKILL, SIGBUS,    SIGSEGV, SIGSYS,   SIGPIPE,      SIGALRM, SIGTERM,
    SIGURG,  SIGSTOP, SIGTSTP,   SIGCONT, SIGCHLD,  SIGTTIN,      SIGTTOU, SIGIO,
    SIGXCPU, SIGXFSZ, SIGVTALRM, SIGPROF, SIGWINCH, 0 /* INFO */, SIGUSR1, SIGUSR2,
};

} // namespace

namespace kt4::platform {

namespace {

void say(int kind, int module, const char *format, va_list args) {
    char text[768];
    std::vsnprintf(text, sizeof text, format, args);
    if (kind == KT4_TRACE_KIND_ERROR)
        kt4ErrorPrintf(module, "%s", text);
    else
        kt4WarningPrintf(module, "%s", text);
    std::fprintf(stderr, "%s\n", text);
}

} // namespace

void say_error(int module, const char *format, ...) {
    va_list args;
    va_start(args, format);
    say(KT4_TRACE_KIND_ERROR, module, format, args);
    va_end(args);
}

void say_warning(int module, const char *format, ...) {
    va_list args;
    va_start(args, format);
    say(KT4_TRACE_KIND_WARNING, module, format, args);
    va_end(args);
}

CardExclusive::CardExclusive() {
    const char *file = kt4GetShmFileName(0);
    if (*file == '\0') {
        std::snprintf(why_, sizeof why_, "the shared memory file's name is too long");
        return;
    }
    int own = g_presenceFd.load();
    if (own >= 0) {
        // This process is attached itself: its own lock, made exclusive, tells about others.
        own_ = true;
        fd_ = own;
        exclusive_ = ofd_lock(own, F_WRLCK, false) == 0;
    } else {
        fd_ = open(file, O_RDWR | O_NOFOLLOW | O_CLOEXEC);
        if (fd_ < 0) {
            int err = errno;
            // No file: no process has the card's area mapped.
            exclusive_ = err == ENOENT;
            if (!exclusive_)
                std::snprintf(why_, sizeof why_, "%s cannot be checked: %s", file,
                              std::strerror(err));
            return;
        }
        exclusive_ = ofd_lock(fd_, F_WRLCK, false) == 0;
    }
    if (!exclusive_ && why_[0] == '\0')
        std::snprintf(why_, sizeof why_, "a live process has %s mapped", file);
}

CardExclusive::~CardExclusive() {
    if (own_) {
        if (exclusive_) ofd_lock(fd_, F_RDLCK, false); // back to an ordinary attachment
    } else if (fd_ >= 0) {
        close(fd_);
    }
}

} // namespace kt4::platform

extern "C" {

const char *kt4GetShmFileName(int flag) {
    pthread_once(&g_namesOnce, form_names);
    if (g_nameFile[0] == '\0') errno = ENAMETOOLONG;
    return flag != 0 ? g_nameBase : g_nameFile;
}

int KT4_ProcShmInit(int argc, char **argv) {
    kt4::MutexGuard guard(g_mapLock);
    if (kt4::shm::mapped()) return 0;
    size_t size = 0;
    if (!parse_size(argc, argv, &size)) {
        kt4::platform::say_error(
            kSysModule,
            "KT4_ProcShmInit: the last argument must be the shared memory size in bytes");
        errno = EINVAL;
        return -1;
    }
    long page = sysconf(_SC_PAGESIZE);
    size_t pg = page > 0 ? static_cast<size_t>(page) : 4096;
    if (size > SIZE_MAX - pg) {
        kt4::platform::say_error(kSysModule, "KT4_ProcShmInit: shared memory size %zu is too large",
                                 size);
        errno = EINVAL;
        return -1;
    }
    size = (size + pg - 1) / pg * pg;
    if (size < kt4::shm::min_area_size()) {
        kt4::platform::say_error(
            kSysModule,
            "KT4_ProcShmInit: shared memory size %zu is below the %zu bytes the area needs", size,
            kt4::shm::min_area_size());
        errno = EINVAL;
        return -1;
    }
    return map_area(size);
}

int KT4SigSetMask(int sig) {
    constexpr int count = static_cast<int>(sizeof kSwitchSignals / sizeof kSwitchSignals[0]);
    if (sig <= 0 || sig >= count || kSwitchSignals[sig] == 0 || kSwitchSignals[sig] == SIGKILL ||
        kSwitchSignals[sig] == SIGSTOP) {
        errno = EINVAL;
        return -1;
    }
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, kSwitchSignals[sig]);
    int rc = pthread_sigmask(SIG_BLOCK, &set, nullptr);
    if (rc != 0) {
        errno = rc;
        return -1;
    }
    return 0;
}

} // extern "C"
