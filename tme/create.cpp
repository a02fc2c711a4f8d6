// Creating tasks: as a thread of the calling process, or as a process of its own, and the
// start of a task (its endpoint and its ready message).
//
// A task exists for the system once it owns its record: the (service, instance) record of the
// endpoint table in its process, and its entry in the card's task table. Creation reserves
// the card entry first, under lock 5, so that two creators of one service and instance on a
// card cannot both succeed; a thread task owns its process record before its entry routine
// runs, so that kt4GetMyTaskKey answers from its first instruction.
#include "common/kt4_check.h"
#include "ident/localinfo.h"
#include "log/log_internal.h"
#include "platform/shm_area.h"
#include "tme/card_table.h"

#include <kt4/hostsim.h>
#include <kt4/ipc.h>
#include <kt4/log.h>
#include <kt4/platform.h>
#include <kt4/timer.h>
#include <kt4/tme.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <pthread.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

using kt4::tme::kModule;

constexpr const char *kDefaultRoot = "/kt4"; // the product directory
constexpr const char *kArgDelims = " \t\n";
constexpr int kParentTries = 3;
constexpr int kHealthPeriod = 1; // seconds between refreshes of a process task's health record
constexpr size_t kNumArgLen = 24;

bool identity_ok(int service, int instance) {
    return kt4GetTaskKeyFromServiceAndInst(service, instance) != -1;
}

const char *or_empty(const char *s) {
    return s != nullptr ? s : "";
}

// The pid of the task that holds the process record of (service, instance), or 0 when the
// record is free (or does not live in this process).
int local_holder(int service, int instance) {
    kt4::ident::TaskLocalInfo *rec = kt4::ident::localinfo_peek(service, instance);
    if (rec == nullptr) return 0;
    kt4::MutexGuard g(kt4::ident::localinfo_mutex());
    if (rec->magic != kt4::ident::kLocalInfoMagic) return 0;
    int pid = static_cast<int>(rec->pid.get());
    return pid != 0 ? pid : static_cast<int>(getpid());
}

void report_duplicate(int service, int instance, int pid) {
    kt4ErrorPrintf(kModule, "Duplicate creation request for service %d instance %d \r\n", service,
                   instance);
    kt4ErrorPrintf(kModule, "Existing pid is %d \r\n", pid);
}

void report_failure(const char *who, const char *what, const char *name, int service, int instance,
                    int err) {
    kt4ErrorPrintf(kModule, "%s: %s %s svc(%d) inst(%d) failed errno(%d): %s\r\n", who, what,
                   or_empty(name), service, instance, err, std::strerror(err));
}

// ---- Thread tasks ------------------------------------------------------------------------

// Hand-over between the creator and the new task: the task waits at the gate until the
// creator has given it its record, then runs the entry routine. Both sides hold a reference;
// the last one out frees the block, so either side may be cancelled or fail first.
struct StartGate {
    pthread_mutex_t lock;
    pthread_cond_t cond;
    int refs;
    bool open;
    bool go; // false: creation failed after the spawn, end without running the entry
    kt4TaskEntry entry;
    kt4_arg_t arg;
    int key;
};

StartGate *gate_new(kt4TaskEntry entry, kt4_arg_t arg, int key) {
    auto *g = static_cast<StartGate *>(KT4_CALLOC(1, sizeof(StartGate)));
    if (g == nullptr) return nullptr;
    KT4_VERIFY(!pthread_mutex_init(&g->lock, nullptr));
    KT4_VERIFY(!pthread_cond_init(&g->cond, nullptr));
    g->refs = 2;
    g->entry = entry;
    g->arg = arg;
    g->key = key;
    return g;
}

void gate_drop(StartGate *g) {
    int left;
    {
        kt4::MutexGuard lk(g->lock);
        left = --g->refs;
    }
    if (left > 0) return;
    KT4_VERIFY(!pthread_cond_destroy(&g->cond));
    KT4_VERIFY(!pthread_mutex_destroy(&g->lock));
    KT4_FREE(g);
}

void gate_open(StartGate *g, bool go) {
    {
        kt4::MutexGuard lk(g->lock);
        g->go = go;
        g->open = true;
        KT4_VERIFY(!pthread_cond_broadcast(&g->cond));
    }
    gate_drop(g);
}

// The new task's first routine. The gate reference is dropped on every way out, also when
// the task is deleted while it waits (a forced unwind runs the guard's destructor).
int task_start(kt4_arg_t a1, kt4_arg_t, kt4_arg_t, kt4_arg_t, kt4_arg_t, kt4_arg_t, kt4_arg_t,
               kt4_arg_t, kt4_arg_t, kt4_arg_t) {
    auto *g = reinterpret_cast<StartGate *>(a1);
    struct Ref {
        StartGate *g;
        ~Ref() { gate_drop(g); }
    } ref{g};
    bool go;
    kt4TaskEntry entry;
    kt4_arg_t arg;
    int key;
    {
        kt4::MutexGuard lk(g->lock);
        while (!g->open)
            pthread_cond_wait(&g->cond, &g->lock);
        go = g->go;
        entry = g->entry;
        arg = g->arg;
        key = g->key;
    }
    if (!go) return 0;
    return entry(arg, static_cast<kt4_arg_t>(key), 0, 0, 0, 0, 0, 0, 0, 0);
}

// Spawns the thread task (service, instance) with its card entry already reserved by the
// caller; claims its process record for it. The task id, or -1 (reservation left to the
// caller to cancel).
int spawn_thread(const char *who, const char *name, int priority, int options, int stackSize,
                 kt4TaskEntry entry, kt4_arg_t arg, int service, int instance, int parentTaskId) {
    const int key = service << 7 | instance << 2;
    kt4::ident::TaskLocalInfo *rec = kt4::ident::localinfo_record(service, instance);
    if (rec == nullptr) {
        kt4ErrorPrintf(kModule,
                       "Error in kt4MaxInstPerProcessTbl, Task creation failed for service %d "
                       "instance %d \r\n",
                       service, instance);
        errno = EINVAL;
        return -1;
    }
    StartGate *g = gate_new(entry, arg, key);
    if (g == nullptr) {
        report_failure(who, "spawn", name, service, instance, ENOMEM);
        errno = ENOMEM;
        return -1;
    }
    int tid = taskSpawn(name, priority, options, stackSize, task_start,
                        reinterpret_cast<kt4_arg_t>(g), 0, 0, 0, 0, 0, 0, 0, 0, 0);
    if (tid == ERROR) {
        int err = errno;
        report_failure(who, "spawn", name, service, instance, err);
        gate_drop(g); // the task's reference: it never ran
        gate_drop(g);
        errno = err;
        return -1;
    }
    const char *taskNameNow = name != nullptr ? name : taskName(tid);
    if (!kt4::ident::localinfo_claim(rec, static_cast<uint32_t>(tid),
                                     static_cast<uint32_t>(parentTaskId),
                                     static_cast<uint32_t>(getpid()), static_cast<uint64_t>(arg),
                                     service, instance, taskNameNow)) {
        // Another task of this process took the record between our check and now.
        report_duplicate(service, instance, static_cast<int>(getpid()));
        gate_open(g, false);
        errno = EEXIST;
        return -1;
    }
    (void)kt4::tme::set_owner(service, instance, static_cast<int>(getpid()), tid);
    gate_open(g, true);
    return tid;
}

// Reserves (service, instance) on the card for a thread task of this process created by
// (parentPid, parentTaskId), spawns it, and on failure takes the reservation back while it is
// still one: a task of this process that opened the endpoint in the meantime keeps its entry.
// Without the card's table the task still lives in this process; it is only not found by the
// other processes of the card. The task id, or -1 with errno.
int reserve_and_spawn(const char *who, const char *name, int priority, int options, int stackSize,
                      kt4TaskEntry entry, kt4_arg_t arg, int service, int instance, int parentPid,
                      int parentTaskId, bool acceptOwn) {
    const int self = static_cast<int>(getpid());
    int holder = 0;
    bool reserved = true;
    if (kt4::tme::reserve(service, instance, self, parentPid, parentTaskId, name, acceptOwn,
                          nullptr, &holder) != 0) {
        if (errno == EEXIST) {
            report_duplicate(service, instance, holder);
            errno = EEXIST;
            return -1;
        }
        reserved = false;
    }
    int tid = spawn_thread(who, name, priority, options, stackSize, entry, arg, service, instance,
                           parentTaskId);
    if (tid == -1) {
        int err = errno;
        if (reserved) (void)kt4::tme::cancel_reservation(service, instance, self);
        errno = err;
        return -1;
    }
    kt4TracePrintf(kModule, "%s: spawned %s svc(%d) inst(%d) p_cpid(%d)", who,
                   name != nullptr ? name : taskName(tid), service, instance, tid);
    return tid;
}

// ---- Process tasks -----------------------------------------------------------------------

// The program's path: absolute as given, else under the product directory.
void program_path(const char *program, char *out, size_t len) {
    if (program[0] == '/') {
        std::snprintf(out, len, "%s", program);
        return;
    }
    const char *root = std::getenv("KT4_ROOT");
    if (root == nullptr || *root == '\0') root = kDefaultRoot;
    std::snprintf(out, len, "%s/%s", root, program);
}

// The words of an argument string, split on blanks, tabs and newlines, in a block the caller
// frees: count words into argv[first..]. -1 when there are more than max.
int split_args(const char *args, char *copy, char **argv, int first, int max) {
    int n = 0;
    if (args == nullptr) return 0;
    std::strcpy(copy, args);
    char *save = nullptr;
    for (char *w = strtok_r(copy, kArgDelims, &save); w != nullptr;
         w = strtok_r(nullptr, kArgDelims, &save)) {
        if (n == max) return -1;
        argv[first + n++] = w;
    }
    return n;
}

int count_words(const char *args) {
    int n = 0;
    bool in = false;
    for (const char *p = args; p != nullptr && *p != '\0'; ++p) {
        bool delim = std::strchr(kArgDelims, *p) != nullptr;
        if (!delim && !in) ++n;
        in = !delim;
    }
    return n;
}

int fork_process(const char *who, const char *name, int service, int instance, const char *program,
                 const char *args, int parentTaskId) {
    // Everything the child needs is made before the fork: between fork and exec a child of a
    // threaded process may only make async-signal-safe calls.
    char path[1024];
    program_path(program, path, sizeof path);

    int health = -1, holder = 0;
    if (kt4::tme::reserve(service, instance, 0, static_cast<int>(getpid()), parentTaskId, name,
                          false, &health, &holder) != 0) {
        int err = errno;
        if (err == EEXIST)
            report_duplicate(service, instance, holder);
        else
            report_failure(who, "reserve", name, service, instance, err);
        errno = err;
        return -1;
    }

    char sys[KT4_TASK_SYS_ARGS][kNumArgLen];
    std::snprintf(sys[0], kNumArgLen, "%d", health);
    std::snprintf(sys[1], kNumArgLen, "%d", kHealthPeriod);
    std::snprintf(sys[2], kNumArgLen, "%d", service);
    std::snprintf(sys[3], kNumArgLen, "%d", instance);
    std::snprintf(sys[4], kNumArgLen, "%d", static_cast<int>(getpid()));
    std::snprintf(sys[5], kNumArgLen, "%d", parentTaskId);
    std::snprintf(sys[6], kNumArgLen, "%d", kt4CardSlot());
    std::snprintf(sys[7], kNumArgLen, "%zu", kt4::shm::size());

    const size_t argsLen = args != nullptr ? std::strlen(args) + 1 : 1;
    char *copy = static_cast<char *>(KT4_MALLOC(argsLen));
    auto **argv = static_cast<char **>(
        KT4_CALLOC(1 + KT4_TASK_MAX_ARGS + KT4_TASK_SYS_ARGS + 1, sizeof(char *)));
    if (copy == nullptr || argv == nullptr) {
        KT4_FREE(copy);
        KT4_FREE(argv);
        (void)kt4::tme::cancel_reservation(service, instance, static_cast<int>(getpid()));
        report_failure(who, "fork", path, service, instance, ENOMEM);
        errno = ENOMEM;
        return -1;
    }
    argv[0] = path;
    int argc = 1 + std::max(0, split_args(args, copy, argv, 1, KT4_TASK_MAX_ARGS));
    for (auto &word : sys)
        argv[argc++] = word;
    argv[argc] = nullptr;

    // The exec's outcome comes back through a pipe that the exec closes: end of file means
    // the program runs, four bytes are the errno of a failed exec.
    int pipefd[2];
    if (pipe2(pipefd, O_CLOEXEC) != 0) {
        int err = errno;
        KT4_FREE(copy);
        KT4_FREE(argv);
        (void)kt4::tme::cancel_reservation(service, instance, static_cast<int>(getpid()));
        report_failure(who, "fork", path, service, instance, err);
        errno = err;
        return -1;
    }
    pid_t child = fork();
    if (child == 0) {
        close(pipefd[0]);
        execv(path, argv);
        int err = errno;
        ssize_t w = write(pipefd[1], &err, sizeof err);
        (void)w;
        _exit(127);
    }
    int err = child < 0 ? errno : 0;
    close(pipefd[1]);
    if (child > 0) {
        int execErr = 0;
        ssize_t n;
        do {
            n = read(pipefd[0], &execErr, sizeof execErr);
        } while (n < 0 && errno == EINTR);
        if (n == static_cast<ssize_t>(sizeof execErr)) {
            err = execErr;
            while (waitpid(child, nullptr, 0) < 0 && errno == EINTR) {
            }
        }
    }
    close(pipefd[0]);
    KT4_FREE(copy);
    KT4_FREE(argv);
    if (err != 0) {
        (void)kt4::tme::cancel_reservation(service, instance, static_cast<int>(getpid()));
        report_failure(who, child < 0 ? "fork" : "exec", path, service, instance, err);
        errno = err;
        return -1;
    }
    (void)kt4::tme::set_owner(service, instance, static_cast<int>(child), -1);
    kt4TracePrintf(kModule, "%s: forked %s svc(%d) inst(%d) p_procId(%d)", who, path, service,
                   instance, static_cast<int>(child));
    return static_cast<int>(child);
}

// kt4_taskSpawn's wait for the process that created this one.
void wait_for_parent(const char *name, int parentPid) {
    for (int attempt = 1; attempt <= kParentTries; ++attempt) {
        if (kt4::tme::process_registered(parentPid)) return;
        if (attempt == kParentTries) break;
        kt4TracePrintf(kModule, "Child sleeping %s, pid - 0x%x", or_empty(name),
                       static_cast<unsigned>(getpid()));
        kt4::tme::retry_wait(sysClkRateGet());
    }
    kt4ErrorPrintf(kModule, "Parent does not exist pid 0x%x \r\n",
                   static_cast<unsigned>(parentPid));
    kt4ErrorPrintf(kModule, "Failed to find parent in the database %d for task %s \r\n", parentPid,
                   or_empty(name));
    _kt4Assert("parent registered in the task table", "kt4TmeLib", __LINE__);
}

} // namespace

extern "C" {

int kt4TaskCreate(const char *name, int service, int instance, int how, int priority, int options,
                  int stackSize, kt4TaskEntry entry, kt4_arg_t arg, const char *program,
                  const char *args) {
    static const char *const who = "kt4TaskCreate";
    if (!identity_ok(service, instance) || (how == KT4_TASK_AS_THREAD && entry == nullptr) ||
        (how == KT4_TASK_AS_PROCESS && (program == nullptr || *program == '\0')) ||
        (how != KT4_TASK_AS_THREAD && how != KT4_TASK_AS_PROCESS)) {
        report_failure(who, how == KT4_TASK_AS_PROCESS ? "fork" : "spawn", name, service, instance,
                       EINVAL);
        errno = EINVAL;
        return -1;
    }
    if (int pid = local_holder(service, instance); pid != 0) {
        report_duplicate(service, instance, pid);
        errno = EEXIST;
        return -1;
    }
    if (kt4IpcTblChkProcInstLimit(service, instance) != 0) {
        kt4ErrorPrintf(kModule,
                       "Error in kt4MaxInstPerProcessTbl, Task creation failed for service %d "
                       "instance %d \r\n",
                       service, instance);
        errno = EINVAL;
        return -1;
    }
    // The creating task is the new task's parent: it must be a task the system knows.
    if (kt4GetMyTaskKey() == -1) {
        kt4ErrorPrintf(kModule, "No parent found, %s - error:%d - %s", or_empty(name), ENOENT,
                       std::strerror(ENOENT));
        errno = ENOENT;
        return -1;
    }
    const int parentTaskId = taskIdSelf();

    if (how == KT4_TASK_AS_PROCESS) {
        int words = count_words(args);
        if (words > KT4_TASK_MAX_ARGS) {
            kt4ErrorPrintf(kModule,
                           "argc greater than allowed args, %s - error:%d - %s passed args: %d",
                           or_empty(name), E2BIG, std::strerror(E2BIG), words);
            errno = E2BIG;
            return -1;
        }
        if (!kt4::shm::mapped()) {
            // A process task joins its creator's card; a creator outside a card has none to
            // give it.
            report_failure(who, "fork", program, service, instance, ENXIO);
            errno = ENXIO;
            return -1;
        }
        return fork_process(who, name, service, instance, program, args, parentTaskId);
    }

    return reserve_and_spawn(who, name, priority, options, stackSize, entry, arg, service, instance,
                             static_cast<int>(getpid()), parentTaskId, false);
}

int kt4_taskSpawnP(const char *name, int priority, int options, int stackSize, kt4TaskEntry entry,
                   int service, int instance, kt4_arg_t arg, int parentPid) {
    static const char *const who = "kt4_taskSpawn";
    if (!identity_ok(service, instance) || entry == nullptr) {
        report_failure(who, "spawn", name, service, instance, EINVAL);
        errno = EINVAL;
        return -1;
    }
    if (int pid = local_holder(service, instance); pid != 0) {
        report_duplicate(service, instance, pid);
        errno = EEXIST;
        return -1;
    }
    if (parentPid > 0) wait_for_parent(name, parentPid);

    const int self = static_cast<int>(getpid());
    return reserve_and_spawn(who, name, priority, options, stackSize, entry, arg, service, instance,
                             parentPid > 0 ? parentPid : self, taskIdSelf(), true);
}

int kt4_taskSpawn(const char *name, int priority, int options, int stackSize, kt4TaskEntry entry,
                  int service, int instance, kt4_arg_t arg) {
    return kt4_taskSpawnP(name, priority, options, stackSize, entry, service, instance, arg,
                          static_cast<int>(getppid()));
}

int kt4TaskStartup(int key, int options) {
    const int service = kt4TaskGetServiceByKey(key);
    const int instance = kt4TaskGetInstanceByKey(key);
    if (service == -1 || instance == -1) {
        char text[16];
        std::snprintf(text, sizeof text, "0x%x", static_cast<unsigned>(key));
        kt4::log::raise_syserr("TME", "INVALID_TASK_KEY", text);
        return -1;
    }
    bool opened = kt4IpcOpen(service, instance) != -1;
    if (opened && (options & KT4_TASK_STARTUP_TIMER_Q))
        opened = kt4IpcTmrOpen(service, instance) != -1;
    if (!opened) {
        const char *name = or_empty(taskName(0));
        kt4ErrorPrintf(kModule, "Failed to open sockets for %s on task startup", name);
        // The event "TME" / "TASK_STARTUP_FAIL" carries the same text to the event log.
        kt4::log::raise_syserr("TME", "TASK_STARTUP_FAIL", name);
        return -1;
    }
    if (!(options & KT4_TASK_STARTUP_NO_READY) && kt4TaskReady(key) != 0)
        kt4WarningPrintf(kModule, "kt4TaskStartup: ready message of %s (key %d) not sent",
                         or_empty(taskName(0)), key);
    return key;
}

} // extern "C"
