// The card's shared memory file and the start-up and exit of a control process.
//
// Lock order: the process's mapping mutex, then the flock on the shared memory file (held
// only while the area is found or laid out), then the area lock (to read the slots of the
// trace tables, after the flock is released). No numbered shared-memory lock is taken here.
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

#include <cerrno>
#include <cinttypes>
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
    std::snprintf(g_nameBase, sizeof g_nameBase, "%s/%s", root, name);
    // Each name is at most 1023 characters: a longer one is cut, like the system's.
    size_t n = std::strlen(g_nameBase);
    std::memcpy(g_nameFile, g_nameBase, n);
    std::snprintf(g_nameFile + n, sizeof g_nameFile - n, "%s", ".mem");
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
            kt4ErrorPrintf(kSysModule,
                           "shared memory file %s is not usable: %s (layout %u of %" PRIu64
                           " bytes, this process maps %zu bytes of layout %u)",
                           file, why, h->version.get(), h->areaSize.get(), mapped,
                           kt4::shm::kVersion);
            return 0;
        }
        size_t heapBytes = 0;
        auto *heap = const_cast<std::byte *>(kt4::shm::table_in(view, kt4::shm::kHeap, &heapBytes));
        if (heap == nullptr || mm_core_init(heap, heapBytes, 0) != 0) {
            kt4ErrorPrintf(kSysModule, "shared memory file %s: its shared-memory heap is damaged",
                           file);
            return 0;
        }
        return view.bytes;
    }
    // Not laid out yet (a new file, or one whose creator died half-way): lay it out.
    if (!kt4::shm::format(image, mapped)) {
        kt4ErrorPrintf(kSysModule, "shared memory size %zu is below the %zu bytes the area needs",
                       mapped, kt4::shm::min_area_size());
        return 0;
    }
    auto *hdr = static_cast<kt4::shm::HeaderRecord *>(image);
    auto *heap = static_cast<std::byte *>(image) + hdr->slots[kt4::shm::kHeap].offset.get();
    if (mm_core_init(heap, hdr->slots[kt4::shm::kHeap].size.get(), 1) != 0) {
        kt4ErrorPrintf(kSysModule,
                       "shared memory file %s: the shared-memory heap cannot be laid out", file);
        return 0;
    }
    kt4::shm::seal(image);
    return mapped;
}

int map_area(size_t size) {
    const char *file = kt4GetShmFileName(0);
    int fd = open(file, O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    if (fd < 0) {
        int err = errno;
        kt4ErrorPrintf(kSysModule, "failed to open memory file");
        kt4ErrorPrintf(kSysModule, "%s: %s", file, std::strerror(err));
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
        kt4ErrorPrintf(kSysModule, "%s: cannot size it to %zu bytes: %s", file, size,
                       std::strerror(err));
        close(fd);
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
            kt4ErrorPrintf(kSysModule, "%s: address 0x%lx is already in use in this process", file,
                           static_cast<unsigned long>(kt4::shm::kBaseAddress));
        else
            kt4ErrorPrintf(kSysModule, "%s: %s", file, std::strerror(err));
        close(fd);
        return -1;
    }
    size_t area = find_or_lay_out(p, size, file);
    flock(fd, LOCK_UN);
    close(fd);
    if (area == 0) {
        munmap(p, size);
        return -1;
    }
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
constexpr int kSigChld = 20;
constexpr int kSigUsr1 = 30;

// ---- the sysReaper monitor ----

constexpr int kReaperPriority = 200;
constexpr int kReaperOptions = 12;
constexpr int kReaperStack = 16000;
constexpr int kReaperPollTicks = 10;

int arg_int(int argc, char **argv, int back, int dflt) {
    if (argv == nullptr || argc < back || argv[argc - back] == nullptr) return dflt;
    char *end = nullptr;
    long n = std::strtol(argv[argc - back], &end, 10);
    return (end != nullptr && *end == '\0' && end != argv[argc - back]) ? static_cast<int>(n)
                                                                        : dflt;
}

} // namespace

// Health-record helpers (health.cpp).
namespace kt4::health {
int period_of_open_record();
void child_reaped(int pid, int status);
void close_record();
const char *service_name();
} // namespace kt4::health

namespace {

void reap_children() {
    int status = 0;
    pid_t pid;
    while ((pid = waitpid(-1, &status, WNOHANG)) > 0) {
        kt4::health::child_reaped(static_cast<int>(pid), status);
        if (WIFEXITED(status) && WEXITSTATUS(status) == 0)
            kt4TracePrintf(kSysModule, "sysReaper: child %d of %s exited", static_cast<int>(pid),
                           kt4::health::service_name());
        else if (WIFEXITED(status))
            kt4WarningPrintf(kSysModule, "sysReaper: child %d of %s exited with status %d",
                             static_cast<int>(pid), kt4::health::service_name(),
                             WEXITSTATUS(status));
        else if (WIFSIGNALED(status))
            kt4WarningPrintf(kSysModule, "sysReaper: child %d of %s killed by signal %d",
                             static_cast<int>(pid), kt4::health::service_name(), WTERMSIG(status));
    }
}

// The process monitor: collects the process's dead children as they end and refreshes the
// health record once per period, so that a health monitor can tell a live process from a
// hung one.
int sys_reaper(kt4_arg_t argcArg, kt4_arg_t argvArg, kt4_arg_t, kt4_arg_t, kt4_arg_t, kt4_arg_t,
               kt4_arg_t, kt4_arg_t, kt4_arg_t, kt4_arg_t) {
    int argc = static_cast<int>(argcArg);
    char **argv = reinterpret_cast<char **>(argvArg);
    int period = kt4::health::period_of_open_record();
    if (period < 1) period = arg_int(argc, argv, 7, 1);
    if (period < 1) period = 1;
    const uint64_t every = static_cast<uint64_t>(period) * static_cast<uint64_t>(sysClkRateGet());
    uint64_t due = tick64Get() + every;
    for (;;) {
        reap_children();
        if (tick64Get() >= due) {
            KT4_HealthUpdate();
            due += every;
        }
        taskDelay(kReaperPollTicks);
    }
    return 0;
}

} // namespace

extern "C" {

const char *kt4GetShmFileName(int flag) {
    pthread_once(&g_namesOnce, form_names);
    return flag != 0 ? g_nameBase : g_nameFile;
}

int KT4_ProcShmInit(int argc, char **argv) {
    kt4::MutexGuard guard(g_mapLock);
    if (kt4::shm::mapped()) return 0;
    size_t size = 0;
    if (!parse_size(argc, argv, &size)) {
        kt4ErrorPrintf(
            kSysModule,
            "KT4_ProcShmInit: the last argument must be the shared memory size in bytes");
        return -1;
    }
    long page = sysconf(_SC_PAGESIZE);
    size_t pg = page > 0 ? static_cast<size_t>(page) : 4096;
    if (size > SIZE_MAX - pg) return -1;
    size = (size + pg - 1) / pg * pg;
    if (size < kt4::shm::min_area_size()) {
        kt4ErrorPrintf(kSysModule, "shared memory size %zu is below the %zu bytes the area needs",
                       size, kt4::shm::min_area_size());
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

int KT4_NbsdpInit(int argc, char **argv) {
    // Step 1: user signal 1 and child signals are held in every task: children are collected
    // by the monitor, not by handlers.
    KT4SigSetMask(kSigUsr1);
    KT4SigSetMask(kSigChld);
    // Step 2.
    start_serv_process(argc > 0 && argv != nullptr ? argv[0] : nullptr);
    // Steps 3 and 4.
    if (KT4_ProcShmInit(argc, argv) != 0)
        kt4ErrorPrintf(kSysModule, "KT4_NbsdpInit: the shared memory of the card is not mapped");
    if (KT4_InitShmSem(0) != 0)
        kt4ErrorPrintf(kSysModule, "KT4_NbsdpInit: shared-memory locks missing");
    // Step 5.
    kt4VxToBsdInit(1, 1);
    // Step 6.
    if (argc >= 8) {
        int index = arg_int(argc, argv, 8, -1);
        int period = arg_int(argc, argv, 7, -1);
        if (KT4_HealthOpen(index, period) != 0 || KT4_HealthUpdate() != 0)
            kt4ErrorPrintf(kSysModule, "KT4_NbsdpInit: cannot open health record %d (period %d)",
                           index, period);
    } else {
        kt4WarningPrintf(kSysModule, "KT4_NbsdpInit: no health-record numbers on the command line");
    }
    // Step 7.
    if (taskSpawn("sysReaper", kReaperPriority, kReaperOptions, kReaperStack, sys_reaper,
                  static_cast<kt4_arg_t>(argc), reinterpret_cast<kt4_arg_t>(argv), 0, 0, 0, 0, 0, 0,
                  0, 0) == ERROR)
        kt4ErrorPrintf(kSysModule, "KT4_NbsdpInit: cannot spawn sysReaper (errno 0x%x)",
                       static_cast<unsigned>(errno));
    return 0;
}

void KT4_NbsdpExit(void) {
    kt4::health::close_record();
    // The memory statistics and CPU-use records of the switch image are kept by its own
    // services; this library keeps none on the host, so there is nothing more to clean up.
    kt4TaskExit(taskTcb(0), taskName(0));
    std::exit(0);
}

} // extern "C"
