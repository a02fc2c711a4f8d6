// kt4card: brings a simulated card up, starts control processes on it, shows it and takes it
// down again.
//
//   kt4card [IDENTITY] up [--size BYTES]
//   kt4card [IDENTITY] run --service N [--instance N] [--name NAME] [-q] -- PROGRAM [WORD...]
//   kt4card [IDENTITY] status
//   kt4card [IDENTITY] down [--force]
//
// A card is the shared memory file "$KT4_ROOT/KT4ShmMMap.mem" and the 30 System V semaphore
// sets of the numbered locks (keys 1028..1055 and 1084..1085, plus $KT4_SYSV_KEY_OFFSET).
// Control processes never create either: their start-up call (KT4_NbsdpInit) maps the file
// and opens the locks without creating them, so a process started on a card that is not up
// would create the missing locks at value 0 and wait on its first lock for ever. This tool
// is the one that creates them (KT4_ProcShmInit, then KT4_InitShmSem(1)), and it refuses to
// start a process on a card that is not completely up.
//
// "run" starts the process the way the task manager creates a process task: through
// kt4TaskCreate, which reserves the task's entry in the card's task table and a free process
// health record, and appends the 8 system words to the command line. kt4card stays the
// process's parent (so that kt4_taskSpawn in the process finds its parent registered at
// once), forwards SIGINT, SIGTERM and SIGHUP to it, and ends with its exit status.
//
// Nothing here reads the card through anything but the library's start-up calls, except
// status, which reads the file read-only and the semaphores with semctl, so that looking
// never changes the card.
#include "platform/health.h"
#include "platform/shm_area.h"
#include "tools/card_view.h"
#include "tools/json_out.h"

#include <kt4/hostsim.h>
#include <kt4/ipc.h>
#include <kt4/platform.h>
#include <kt4/tme.h>
#include <kt4/vx2bsd.h>

#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <sys/ipc.h>
#include <sys/mman.h>
#include <sys/sem.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cinttypes>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

namespace {

constexpr int kExitOk = 0;
constexpr int kExitFail = 1;
constexpr int kExitUsage = 2;
// run: kt4card's own failures, like env(1) and timeout(1), so that they are not taken for
// the program's exit status.
constexpr int kExitRunFail = 125;
constexpr int kExitNotExecutable = 126;
constexpr int kExitNotFound = 127;

constexpr size_t kDefaultCardBytes = 8u << 20;
constexpr int kRunPriority = 100;           // an ordinary control-process task
constexpr const char *kArgDelims = " \t\n"; // kt4TaskCreate splits its argument string on these

const char *const kUsage =
    "usage: kt4card [IDENTITY] COMMAND [OPTIONS]\n"
    "\n"
    "Commands:\n"
    "  up [--size BYTES]     create the card: its shared memory file (default 8388608 bytes)\n"
    "                        and its 30 locks; fails when any part of a card is already there\n"
    "  run --service N [--instance N] [--name NAME] [-q] -- PROGRAM [WORD...]\n"
    "                        start PROGRAM as the control process of task (N, instance) on\n"
    "                        the card, with the 8 system words appended to its command line;\n"
    "                        waits for it and exits with its status (125: kt4card failed,\n"
    "                        126: PROGRAM not executable, 127: PROGRAM not found)\n"
    "  status                show the card: the file, each lock with its value, the processes;\n"
    "                        exit 0 when the card is up, 1 when not (or only partly)\n"
    "  down [--force]        remove the card's locks and its shared memory file; refuses while\n"
    "                        processes of the card run, unless --force\n"
    "\n"
    "Identity (each overrides the environment variable named; run passes them on):\n"
    "  --root DIR            KT4_ROOT, the product directory (default /kt4)\n"
    "  --key-offset N        KT4_SYSV_KEY_OFFSET, added to every System V key (default 0)\n"
    "  --slot N              KT4_SLOT (default 0)\n"
    "  --chassis N           KT4_CHASSIS_ID (default 0)\n"
    "  --cpu N               KT4_CPU (default 1)\n"
    "\n"
    "The system words run appends (argv[argc-8] .. argv[argc-1]): a free process health\n"
    "record, its refresh period in seconds (1), the service, the instance, kt4card's pid (the\n"
    "creating process), kt4card's task id (the creating task), the card's slot and the size of\n"
    "the shared memory in bytes. The process calls KT4_NbsdpInit(argc, argv) first.\n";

void usage_error(const char *fmt, const char *what) {
    std::fprintf(stderr, "kt4card: ");
    std::fprintf(stderr, fmt, what);
    std::fprintf(stderr, "\n(kt4card --help shows the usage)\n");
}

using kt4::tools::parse_long;

struct Options {
    std::string command;
    size_t size = kDefaultCardBytes;
    long service = -1;
    long instance = 0;
    std::string name;
    bool quiet = false;
    bool force = false;
    std::vector<std::string> program; // PROGRAM WORD...
};

// The identity options: option name, environment variable, lowest and highest value (the
// root takes any non-empty text).
struct IdentityOption {
    const char *option;
    const char *variable;
    long lo, hi;
};
constexpr IdentityOption kIdentity[] = {
    {"--root", "KT4_ROOT", 0, 0},
    {"--key-offset", "KT4_SYSV_KEY_OFFSET", INT_MIN, INT_MAX - 2048},
    {"--slot", "KT4_SLOT", 0, 255},
    {"--chassis", "KT4_CHASSIS_ID", 0, 239},
    {"--cpu", "KT4_CPU", 0, 255},
};

// Parses the whole command line; false after reporting a usage error. Options may come
// before or after the command; "--" ends them (run: the program follows).
bool parse(int argc, char **argv, Options &o) {
    for (int i = 1; i < argc; ++i) {
        std::string arg = argv[i];
        if (arg == "--") {
            for (++i; i < argc; ++i)
                o.program.emplace_back(argv[i]);
            break;
        }
        if (arg.size() < 2 || arg[0] != '-') {
            if (o.command.empty()) {
                o.command = arg;
                continue;
            }
            if (o.command == "run") { // the program without "--"
                for (; i < argc; ++i)
                    o.program.emplace_back(argv[i]);
                break;
            }
            usage_error("unexpected argument '%s'", arg.c_str());
            return false;
        }
        std::string value;
        bool hasValue = false;
        if (size_t eq = arg.find('='); eq != std::string::npos && arg.compare(0, 2, "--") == 0) {
            value = arg.substr(eq + 1);
            arg.resize(eq);
            hasValue = true;
        }
        auto need = [&](std::string &out) {
            if (hasValue) {
                out = value;
                return true;
            }
            if (i + 1 >= argc) {
                usage_error("option %s needs a value", arg.c_str());
                return false;
            }
            out = argv[++i];
            return true;
        };
        if (arg == "-h" || arg == "--help") {
            std::fputs(kUsage, stdout);
            std::exit(kExitOk);
        }
        if (arg == "-q" || arg == "--quiet") {
            o.quiet = true;
            continue;
        }
        if (arg == "--force") {
            o.force = true;
            continue;
        }
        bool identity = false;
        for (const IdentityOption &id : kIdentity) {
            if (arg != id.option) continue;
            identity = true;
            std::string v;
            if (!need(v)) return false;
            long n = 0;
            if (id.lo == 0 && id.hi == 0) {
                if (v.empty()) {
                    usage_error("%s needs a directory", id.option);
                    return false;
                }
            } else if (!parse_long(v.c_str(), id.lo, id.hi, &n)) {
                usage_error("bad value for %s", id.option);
                return false;
            }
            setenv(id.variable, v.c_str(), 1);
        }
        if (identity) continue;
        std::string v;
        long n = 0;
        if (arg == "--size") {
            if (!need(v)) return false;
            if (!parse_long(v.c_str(), 1, LONG_MAX, &n)) {
                usage_error("bad size '%s' (bytes, decimal)", v.c_str());
                return false;
            }
            o.size = static_cast<size_t>(n);
        } else if (arg == "--service") {
            if (!need(v)) return false;
            if (!parse_long(v.c_str(), KT4_TASK_MIN_SERVICE, KT4_TASK_MAX_SERVICE, &n)) {
                usage_error("bad service '%s' (13..363)", v.c_str());
                return false;
            }
            o.service = n;
        } else if (arg == "--instance") {
            if (!need(v)) return false;
            if (!parse_long(v.c_str(), 0, KT4_TASK_MAX_INSTANCE, &n)) {
                usage_error("bad instance '%s' (0..31)", v.c_str());
                return false;
            }
            o.instance = n;
        } else if (arg == "--name") {
            if (!need(o.name)) return false;
        } else {
            usage_error("unknown option '%s'", arg.c_str());
            return false;
        }
    }
    if (o.command.empty()) {
        std::fputs(kUsage, stderr);
        return false;
    }
    return true;
}

// ---- what is there of a card -------------------------------------------------------------

using kt4::tools::key_offset;

std::string root_dir() {
    const char *r = std::getenv("KT4_ROOT");
    return r != nullptr && *r != '\0' ? r : "/kt4";
}

using kt4::tools::kLockCount;
using LockState = kt4::tools::LockSet;
using FileLook = kt4::tools::CardView;

std::vector<LockState> locks() {
    return kt4::tools::lock_sets();
}

int present(const std::vector<LockState> &ls) {
    return kt4::tools::lock_sets_present(ls);
}

struct Proc {
    int record;
    uint32_t pid;
    std::string name;
};

// The processes whose health records say they run, and that do.
std::vector<Proc> live_processes(const FileLook &f) {
    std::vector<Proc> out;
    std::vector<std::byte> copy;
    const char *why = nullptr;
    if (f.copy_table(kt4::shm::kHealth, copy, &why) <= 0 || copy.size() < kt4::health::kTableBytes)
        return out;
    auto *table = reinterpret_cast<const kt4::health::Record *>(copy.data());
    for (int i = 0; i < KT4_HEALTH_RECORDS; ++i) {
        const kt4::health::Record &r = table[i];
        const uint32_t state = r.state;
        if (state != KT4_HEALTH_STARTING && state != KT4_HEALTH_RUNNING) continue;
        if (!kt4::tools::pid_alive(r.pid)) continue;
        out.push_back({i, r.pid, kt4::tools::field_text(r.name, sizeof r.name)});
    }
    return out;
}

std::string addr_text(uint32_t a) {
    char b[32];
    std::snprintf(b, sizeof b, "%u.%u.%u.%u", a >> 24, (a >> 16) & 255, (a >> 8) & 255, a & 255);
    return b;
}

std::string card_words() {
    uint32_t addr = 0, mask = 0;
    kt4GetCpuIpcAddr(kt4CardSlot(), kt4CardCpu(), &addr, &mask);
    char b[200];
    std::snprintf(b, sizeof b, "slot %d, chassis %d, cpu %d, address %s, System V key offset %d",
                  kt4CardSlot(), kt4CardChassisId(), kt4CardCpu(), addr_text(addr).c_str(),
                  key_offset());
    return b;
}

// ---- up ----------------------------------------------------------------------------------

bool make_dirs(const std::string &dir) {
    if (dir.empty()) return true;
    struct stat st {};
    if (stat(dir.c_str(), &st) == 0) return S_ISDIR(st.st_mode) || (errno = ENOTDIR, false);
    size_t slash = dir.find_last_of('/');
    if (slash != std::string::npos && slash > 0 && !make_dirs(dir.substr(0, slash))) return false;
    return mkdir(dir.c_str(), 0755) == 0 || errno == EEXIST;
}

int cmd_up(const Options &o) {
    const std::string root = root_dir();
    const char *file = kt4GetShmFileName(0);
    FileLook f;
    f.open(file);
    std::vector<LockState> ls = locks();
    const int have = present(ls);
    if (f.exists() || have > 0) {
        if (f.valid() && have == kLockCount)
            std::fprintf(stderr, "kt4card: a card is already up at %s (key offset %d)\n",
                         root.c_str(), key_offset());
        else
            std::fprintf(stderr,
                         "kt4card: leftovers of a card at %s (key offset %d): shared memory file "
                         "%s, %d of %d locks\n",
                         root.c_str(), key_offset(), f.exists() ? "present" : "missing", have,
                         kLockCount);
        std::fprintf(stderr, "kt4card: 'kt4card down' removes it first\n");
        return kExitFail;
    }
    if (o.size < kt4::shm::min_area_size()) {
        std::fprintf(stderr, "kt4card: --size %zu is below the %zu bytes a card's area needs\n",
                     o.size, kt4::shm::min_area_size());
        return kExitFail;
    }
    if (!make_dirs(root)) {
        std::fprintf(stderr, "kt4card: cannot create the product directory %s: %s\n", root.c_str(),
                     std::strerror(errno));
        return kExitFail;
    }
    // The last word of a start-up command line is the size of the shared memory.
    std::string size = std::to_string(o.size);
    char arg0[] = "kt4card";
    char *argv[] = {arg0, size.data(), nullptr};
    if (KT4_ProcShmInit(2, argv) != 0) {
        int err = errno;
        std::fprintf(stderr, "kt4card: cannot create the shared memory file %s (%zu bytes): %s\n",
                     file, o.size, std::strerror(err));
        unlink(file);
        return kExitFail;
    }
    if (KT4_InitShmSem(1) != 0) {
        std::vector<LockState> after = locks();
        std::fprintf(stderr,
                     "kt4card: cannot create the card's locks (System V keys %d..%d and "
                     "%d..%d):",
                     after[0].key, after[KT4_SHM_NUM_LOCKS - 1].key, after[KT4_SHM_NUM_LOCKS].key,
                     after.back().key);
        if (present(after) == kLockCount)
            std::fprintf(stderr, " the kernel handed out semaphore id 0, which the locks take "
                                 "for a failure\n");
        else
            std::fprintf(stderr, " %d of %d created (semget: %s)\n", present(after), kLockCount,
                         std::strerror(errno));
        KT4_ShmSemRem();
        unlink(file);
        return kExitFail;
    }
    std::printf("kt4card: card up at %s: %s\n", root.c_str(), card_words().c_str());
    std::printf("kt4card: shared memory %s (%zu bytes), %d locks\n", file, o.size, kLockCount);
    return kExitOk;
}

// ---- status ------------------------------------------------------------------------------

int cmd_status(const Options &) {
    const std::string root = root_dir();
    const char *file = kt4GetShmFileName(0);
    FileLook f;
    f.open(file);
    std::vector<LockState> ls = locks();
    const int have = present(ls);
    const bool up = f.valid() && have == kLockCount;
    std::printf("card at %s: %s\n", root.c_str(),
                up                       ? "up"
                : f.exists() || have > 0 ? "partly there (not up)"
                                         : "not up");
    std::printf("identity: %s\n", card_words().c_str());
    if (!f.exists())
        std::printf("shared memory file %s: missing\n", file);
    else
        std::printf("shared memory file %s: %jd bytes, %s\n", file,
                    static_cast<intmax_t>(f.file_bytes()), f.valid() ? "laid out" : f.why());
    std::printf("locks: %d of %d present (value 1: free, 0: taken; reader-writer: 3 free, "
                "1..2 read, 0 written)\n",
                have, kLockCount);
    if (have > 0) {
        std::printf("  kind  lock    key        semid  value  last-pid  waiting\n");
        for (const LockState &l : ls) {
            if (l.id < 0) {
                std::printf("  %-5s %4d %6d  missing\n", l.kind, l.number, l.key);
                continue;
            }
            std::printf("  %-5s %4d %6d %12d %6d %9d %8d\n", l.kind, l.number, l.key, l.id,
                        semctl(l.id, 0, GETVAL), semctl(l.id, 0, GETPID), semctl(l.id, 0, GETNCNT));
        }
    }
    std::vector<Proc> procs = live_processes(f);
    std::printf("processes: %zu running\n", procs.size());
    for (const Proc &p : procs)
        std::printf("  pid %u  %s  (health record %d)\n", p.pid, p.name.c_str(), p.record);
    return up ? kExitOk : kExitFail;
}

// ---- down --------------------------------------------------------------------------------

int cmd_down(const Options &o) {
    const std::string root = root_dir();
    const char *file = kt4GetShmFileName(0);
    FileLook f;
    f.open(file);
    const int have = present(locks());
    if (!f.exists() && have == 0) {
        std::printf("kt4card: no card at %s (key offset %d): nothing to remove\n", root.c_str(),
                    key_offset());
        return kExitOk;
    }
    std::vector<Proc> procs = live_processes(f);
    if (!procs.empty() && !o.force) {
        std::fprintf(stderr, "kt4card: %zu process(es) still run on the card:", procs.size());
        for (const Proc &p : procs)
            std::fprintf(stderr, " %u (%s)", p.pid, p.name.c_str());
        std::fprintf(stderr, "\nkt4card: stop them first, or 'kt4card down --force'\n");
        return kExitFail;
    }
    // The library's own removal: the lock sets and the two ftok-keyed sets of the file (which
    // ftok can only form while the file exists).
    int rc = KT4_ShmSemRem();
    const int left = present(locks());
    if (rc != 0 || left != 0) {
        std::fprintf(stderr, "kt4card: %d lock(s) could not be removed: %s\n", left,
                     std::strerror(errno));
        return kExitFail;
    }
    if (f.exists() && unlink(file) != 0 && errno != ENOENT) {
        std::fprintf(stderr, "kt4card: cannot remove %s: %s\n", file, std::strerror(errno));
        return kExitFail;
    }
    std::printf("kt4card: card at %s down: %d lock(s) and %s removed\n", root.c_str(), have,
                f.exists() ? file : "no shared memory file");
    return kExitOk;
}

// ---- run ---------------------------------------------------------------------------------

// Signals for the program: SIGINT, SIGTERM and SIGHUP are passed on; SIGCHLD says it ended.
// All four stay blocked in kt4card's threads and are taken synchronously (sigtimedwait) by
// the main thread while it waits, except while the program is being created: the program
// inherits the creating thread's mask, so they are unblocked then, and one that arrives in
// that moment is remembered and passed on once the program runs.
std::atomic<int> g_early{0};

void remember_signal(int sig) {
    g_early.store(sig);
}

void run_signals(sigset_t *set) {
    sigemptyset(set);
    for (int sig : {SIGINT, SIGTERM, SIGHUP, SIGCHLD})
        sigaddset(set, sig);
}

// Waits for the program, passing signals on. Its wait status.
int wait_for(int pid) {
    sigset_t set;
    run_signals(&set);
    if (int sig = g_early.exchange(0); sig != 0) kill(pid, sig);
    for (;;) {
        int status = 0;
        pid_t r = waitpid(pid, &status, WNOHANG);
        if (r == pid) return status;
        if (r < 0 && errno != EINTR) return -1;
        // SIGCHLD ends the wait at once; the time limit only guards against a lost one.
        timespec limit{1, 0};
        int sig = sigtimedwait(&set, nullptr, &limit);
        if (sig == SIGINT || sig == SIGTERM || sig == SIGHUP) kill(pid, sig);
    }
}

// PROGRAM as a path kt4TaskCreate can execute: absolute (it takes a relative name as a name
// under $KT4_ROOT). A name without '/' is looked for on PATH, then in the product directory.
// Empty, with errno, when there is nothing to run.
std::string resolve_program(const std::string &program) {
    auto absolute = [](const std::string &p) {
        if (p[0] == '/') return p;
        char cwd[PATH_MAX];
        if (getcwd(cwd, sizeof cwd) == nullptr) return std::string();
        return std::string(cwd) + "/" + p;
    };
    auto runnable = [](const std::string &p) {
        struct stat st {};
        if (stat(p.c_str(), &st) != 0) return false;
        if (!S_ISREG(st.st_mode)) {
            errno = EACCES;
            return false;
        }
        return access(p.c_str(), X_OK) == 0;
    };
    if (program.find('/') != std::string::npos) {
        std::string p = absolute(program);
        return !p.empty() && runnable(p) ? p : std::string();
    }
    int firstErr = ENOENT;
    std::vector<std::string> dirs;
    const char *path = std::getenv("PATH");
    std::string all = path != nullptr ? path : "/usr/local/bin:/usr/bin:/bin";
    for (size_t start = 0;;) {
        size_t colon = all.find(':', start);
        dirs.push_back(all.substr(start, colon - start));
        if (colon == std::string::npos) break;
        start = colon + 1;
    }
    dirs.push_back(root_dir());
    for (const std::string &d : dirs) {
        std::string p = absolute((d.empty() ? "." : d) + "/" + program);
        if (p.empty()) continue;
        if (runnable(p)) return p;
        if (errno != ENOENT && firstErr == ENOENT) firstErr = errno;
    }
    errno = firstErr;
    return std::string();
}

// The launcher's own endpoint: kt4TaskCreate makes the calling task the new task's parent,
// so kt4card holds an endpoint of the task manager's service at an instance that is neither
// the card's task-manager instance (whose queue the new task's ready message goes to) nor
// the task being started. The first free one is taken: several runs may be under way.
int open_launcher(int service, int instance) {
    const int tme = static_cast<int>(kt4_sysGetInstance());
    for (int i = 0; i <= KT4_TASK_MAX_INSTANCE; ++i) {
        if (i == tme || (service == KT4_TME_SERVICE && i == instance)) continue;
        if (kt4IpcIsOpen(KT4_TME_SERVICE, i)) continue;
        if (kt4ProcIdByKey(kt4GetTaskKeyFromServiceAndInst(KT4_TME_SERVICE, i)) > 0) continue;
        int key = kt4IpcOpen(KT4_TME_SERVICE, i);
        if (key != -1) return key;
    }
    return -1;
}

// The system words the process was given: the last 8 words of /proc/PID/cmdline.
std::string system_words(int pid) {
    std::string path = "/proc/" + std::to_string(pid) + "/cmdline";
    FILE *f = std::fopen(path.c_str(), "re");
    if (f == nullptr) return "?";
    std::vector<std::string> words(1);
    int c;
    while ((c = std::fgetc(f)) != EOF) {
        if (c == '\0')
            words.emplace_back();
        else
            words.back().push_back(static_cast<char>(c));
    }
    std::fclose(f);
    if (!words.empty() && words.back().empty()) words.pop_back();
    if (words.size() < KT4_TASK_SYS_ARGS + 1u) return "?";
    std::string out;
    for (size_t i = words.size() - KT4_TASK_SYS_ARGS; i < words.size(); ++i)
        out += (out.empty() ? "" : " ") + words[i];
    return out;
}

int cmd_run(const Options &o) {
    if (o.program.empty()) {
        usage_error("%s", "run needs a program: kt4card run --service N -- PROGRAM [WORD...]");
        return kExitUsage;
    }
    if (o.service < 0) {
        usage_error("%s", "run needs --service N (13..363): the service of the process's task");
        return kExitUsage;
    }
    // kt4TaskCreate passes the words through a blank-separated argument string.
    std::string args;
    for (size_t i = 1; i < o.program.size(); ++i) {
        const std::string &w = o.program[i];
        if (w.empty() || w.find_first_of(kArgDelims) != std::string::npos) {
            usage_error("argument '%s' is empty or holds a blank: a control process's "
                        "arguments are single words",
                        w.c_str());
            return kExitUsage;
        }
        args += (args.empty() ? "" : " ") + w;
    }
    if (o.program.size() - 1 > KT4_TASK_MAX_ARGS) {
        usage_error("too many words for the program (at most %s)", "24");
        return kExitUsage;
    }
    const std::string program = resolve_program(o.program[0]);
    if (program.empty()) {
        int err = errno;
        std::fprintf(stderr, "kt4card: %s: %s\n", o.program[0].c_str(), std::strerror(err));
        return err == ENOENT ? kExitNotFound : kExitNotExecutable;
    }

    const std::string root = root_dir();
    const char *file = kt4GetShmFileName(0);
    FileLook f;
    f.open(file);
    const int have = present(locks());
    if (!f.valid() || have != kLockCount) {
        std::fprintf(stderr,
                     "kt4card: no card is up at %s (key offset %d): shared memory file %s, %d of "
                     "%d locks\n",
                     root.c_str(), key_offset(),
                     f.valid() ? "present" : (f.exists() ? f.why() : "missing"), have, kLockCount);
        std::fprintf(stderr, "kt4card: bring it up first with 'kt4card up'\n");
        return kExitRunFail;
    }
    const size_t bytes = f.area_bytes();
    std::string size = std::to_string(bytes);
    char arg0[] = "kt4card";
    char *argv[] = {arg0, size.data(), nullptr};
    if (KT4_ProcShmInit(2, argv) != 0) {
        std::fprintf(stderr, "kt4card: cannot map the card's shared memory file %s\n", file);
        return kExitRunFail;
    }
    // Every lock is there (checked above): this opens them, it creates none.
    if (KT4_InitShmSem(0) != 0) {
        std::fprintf(stderr, "kt4card: cannot open the card's locks\n");
        return kExitRunFail;
    }
    sigset_t runSignals, before;
    run_signals(&runSignals);
    pthread_sigmask(SIG_BLOCK, &runSignals, &before); // every task inherits the block
    struct sigaction sa {};
    sa.sa_handler = remember_signal;
    sigemptyset(&sa.sa_mask);
    sa.sa_flags = SA_RESTART;
    for (int sig : {SIGINT, SIGTERM, SIGHUP})
        sigaction(sig, &sa, nullptr);
    kt4VxToBsdInit(1, 1);

    const int launcher = open_launcher(static_cast<int>(o.service), static_cast<int>(o.instance));
    if (launcher == -1) {
        std::fprintf(stderr,
                     "kt4card: no free instance of service %d for kt4card itself on the card\n",
                     KT4_TME_SERVICE);
        return kExitRunFail;
    }
    std::string name = o.name;
    if (name.empty()) {
        size_t slash = o.program[0].find_last_of('/');
        name = slash == std::string::npos ? o.program[0] : o.program[0].substr(slash + 1);
    }

    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    const int pid = kt4TaskCreate(name.c_str(), static_cast<int>(o.service),
                                  static_cast<int>(o.instance), KT4_TASK_AS_PROCESS, kRunPriority,
                                  0, 0, nullptr, 0, program.c_str(), args.c_str());
    if (pid == -1) {
        int err = errno;
        if (err == EEXIST)
            std::fprintf(stderr,
                         "kt4card: service %ld instance %ld already runs on the card (pid "
                         "%d)\n",
                         o.service, o.instance,
                         kt4ProcIdByKey(kt4GetTaskKeyFromServiceAndInst(
                             static_cast<int>(o.service), static_cast<int>(o.instance))));
        else
            std::fprintf(stderr, "kt4card: cannot start %s: %s\n", program.c_str(),
                         std::strerror(err));
        kt4IpcClose(launcher);
        return err == ENOENT                     ? kExitNotFound
               : err == EACCES || err == ENOEXEC ? kExitNotExecutable
                                                 : kExitRunFail;
    }
    pthread_sigmask(SIG_BLOCK, &runSignals, nullptr);
    if (!o.quiet)
        std::fprintf(stderr,
                     "kt4card: pid %d runs %s as service %ld instance %ld; system words: %s\n", pid,
                     program.c_str(), o.service, o.instance, system_words(pid).c_str());
    const int status = wait_for(pid);
    kt4IpcClose(launcher);
    if (status == -1) {
        std::fprintf(stderr, "kt4card: cannot wait for pid %d: %s\n", pid, std::strerror(errno));
        return kExitRunFail;
    }
    if (WIFSIGNALED(status)) {
        if (!o.quiet)
            std::fprintf(stderr, "kt4card: pid %d (%s) killed by signal %d\n", pid, name.c_str(),
                         WTERMSIG(status));
        return 128 + WTERMSIG(status);
    }
    const int code = WIFEXITED(status) ? WEXITSTATUS(status) : kExitRunFail;
    if (!o.quiet && code != 0)
        std::fprintf(stderr, "kt4card: pid %d (%s) exited with status %d\n", pid, name.c_str(),
                     code);
    return code;
}

} // namespace

int main(int argc, char **argv) {
    Options o;
    if (!parse(argc, argv, o)) return kExitUsage;
    kt4CardReload(); // the identity options are in the environment now
    if (o.command != "run" && !o.program.empty()) {
        usage_error("only run takes a program ('%s')", o.program[0].c_str());
        return kExitUsage;
    }
    if (o.command == "up") return cmd_up(o);
    if (o.command == "run") return cmd_run(o);
    if (o.command == "status") return cmd_status(o);
    if (o.command == "down") return cmd_down(o);
    usage_error("unknown command '%s' (up, run, status or down)", o.command.c_str());
    return kExitUsage;
}
