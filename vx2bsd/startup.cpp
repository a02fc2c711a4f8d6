// Start-up of the tasking layer in a control process, its three service tasks and the live core
// dump taken on request.
//
//   kt4VxToBsdInit  thread key, round robin, raised resource limits, SIGPIPE ignored, tUsrRoot,
//                   the task manager's exit hook (kt4VxSetStartDeleteHook; the process start-up
//                   wiring sets it to kt4TaskExit in every program that links the library)
//   tUsrRoot        starts tExcTask and tTimerTask, then serves live-core requests (SIGUSR2)
//   tExcTask        counts watchdogs down every tick
//   tTimerTask      counts vx2bsd timers down every second
//
// Resource limits: every limit 0..11 is raised to unlimited. Where the host refuses (an
// unprivileged process may not raise a hard limit, and not even root may lift the open-file
// limit above fs.nr_open) the limit is raised as far as the host allows: the soft limit to the
// hard one, the open-file limit to fs.nr_open. Only a failure of that last step, which never
// needs a privilege, ends the process with the system's message.
#include "vx2bsd/vx2bsd_int.h"

#include "common/kt4_clock.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

using namespace kt4::vx;

namespace {

kt4Tcb root_tcb;
kt4Tcb excp_tcb;
kt4Tcb timer_tcb;

std::atomic<bool> vx_started{false};
// The delete hook registered at start-up (the task manager's exit hook, set by the process
// start-up wiring: startup/wiring.cpp).
std::atomic<kt4TaskDeleteHook> start_delete_hook{nullptr};
std::atomic<int> livecore_requested{0};

// kt4VxToBsdInit returns once the service tasks run, so that a watchdog started right after
// start-up already counts down.
pthread_mutex_t ready_lock = PTHREAD_MUTEX_INITIALIZER;
pthread_cond_t ready_cond = PTHREAD_COND_INITIALIZER;
bool services_ready = false;

constexpr int kResourceCount = 12; // RLIMIT_CPU .. RLIMIT_SIGPENDING

tcb *as_tcb(kt4Tcb *w) {
    return reinterpret_cast<tcb *>(w);
}

rlim_t nr_open() {
    rlim_t n = 1048576;
    if (FILE *f = std::fopen("/proc/sys/fs/nr_open", "r")) {
        unsigned long v = 0;
        if (std::fscanf(f, "%lu", &v) == 1 && v > 0) n = v;
        std::fclose(f);
    }
    return n;
}

void raise_limits() {
    for (int r = 0; r < kResourceCount; ++r) {
        const auto res = static_cast<__rlimit_resource>(r);
        rlimit want{RLIM_INFINITY, RLIM_INFINITY};
        if (setrlimit(res, &want) == 0) continue;
        rlimit cur;
        if (getrlimit(res, &cur) != 0) {
            std::perror("Problem setting maximum system resources");
            std::exit(-1);
        }
        if (r == RLIMIT_NOFILE) {
            rlim_t n = nr_open();
            rlimit most{n, n};
            if (cur.rlim_max != RLIM_INFINITY && cur.rlim_max > n)
                most = {cur.rlim_max, cur.rlim_max};
            if (setrlimit(res, &most) == 0) continue;
        }
        rlimit most{cur.rlim_max, cur.rlim_max};
        if (setrlimit(res, &most) != 0) {
            std::perror("Problem setting maximum system resources");
            std::exit(-1);
        }
    }
}

void on_sigusr2(int) {
    livecore_requested.store(1, std::memory_order_relaxed);
}

void install_sigusr2() {
    struct sigaction sa;
    std::memset(&sa, 0, sizeof sa);
    sa.sa_handler = on_sigusr2;
    sa.sa_flags = SA_RESTART;
    sigemptyset(&sa.sa_mask);
    sigaction(SIGUSR2, &sa, nullptr);
}

int exception_task(kt4_arg_t, kt4_arg_t, kt4_arg_t, kt4_arg_t, kt4_arg_t, kt4_arg_t, kt4_arg_t,
                   kt4_arg_t, kt4_arg_t, kt4_arg_t) {
    for (;;) {
        process_timer_list();
        taskDelay(1);
    }
    return 0;
}

int timer_task(kt4_arg_t, kt4_arg_t, kt4_arg_t, kt4_arg_t, kt4_arg_t, kt4_arg_t, kt4_arg_t,
               kt4_arg_t, kt4_arg_t, kt4_arg_t) {
    vx2bsdTimerLibInit();
    for (;;) {
        process_vx2bsd_timer_list();
        taskDelay(kt4::kTicksPerSecond);
    }
    return 0;
}

int root_task(kt4_arg_t exc_flag, kt4_arg_t timer_flag, kt4_arg_t, kt4_arg_t, kt4_arg_t, kt4_arg_t,
              kt4_arg_t, kt4_arg_t, kt4_arg_t, kt4_arg_t) {
    vx2bsd_start(static_cast<int>(exc_flag), static_cast<int>(timer_flag), 2, 3);
    install_sigusr2();
    KT4_VERIFY(!pthread_mutex_lock(&ready_lock));
    services_ready = true;
    KT4_VERIFY(!pthread_cond_broadcast(&ready_cond));
    KT4_VERIFY(!pthread_mutex_unlock(&ready_lock));
    for (;;) {
        taskDelay(2 * kt4::kTicksPerSecond);
        if (livecore_requested.load(std::memory_order_relaxed)) {
            if (kt4livecore() == -1) std::perror("live coredump by SIGUSR2 failed");
            livecore_requested.store(0, std::memory_order_relaxed);
        }
    }
    return 0;
}

// Prepares and starts one service task at a POSIX priority outside the mapping's clamp.
void start_service(kt4Tcb *w, const char *name, int priority, int posix_priority,
                   kt4TaskEntry entry, const char *attr_text, kt4_arg_t a1 = 0, kt4_arg_t a2 = 0) {
    if (taskInit(w, name, priority, 0, nullptr, 0, entry, a1, a2, 0, 0, 0, 0, 0, 0, 0, 0) != OK)
        return;
    set_posix_priority(as_tcb(w), posix_priority, attr_text);
    taskActivate(as_tcb(w)->id);
}

} // namespace

extern "C" {

void kt4VxSetStartDeleteHook(kt4TaskDeleteHook hook) {
    start_delete_hook.store(hook, std::memory_order_release);
}

int kt4VxToBsdInit(int startExcTask, int startTimerTask) {
    if (vx_started.exchange(true)) return 0; // the process is started once
    vx2bsdLibInit();
    kernelTimeSlice(1);
    raise_limits();
    signal(SIGPIPE, SIG_IGN);
    start_service(&root_tcb, "tUsrRoot", 0, kRootPriority, root_task,
                  "!pthread_attr_setschedparam (&(root_tcb.attr), &(root_tcb.prv_priority))",
                  static_cast<kt4_arg_t>(startExcTask), static_cast<kt4_arg_t>(startTimerTask));
    if (kt4TaskDeleteHook hook = start_delete_hook.load(std::memory_order_acquire))
        taskDeleteHookAdd(hook);
    KT4_VERIFY(!pthread_mutex_lock(&ready_lock));
    while (!services_ready)
        KT4_VERIFY(!pthread_cond_wait(&ready_cond, &ready_lock));
    KT4_VERIFY(!pthread_mutex_unlock(&ready_lock));
    return 0;
}

int vx2bsd_start(int excTask, int timerTask, int excPriority, int timerPriority) {
    if (excTask)
        start_service(&excp_tcb, "tExcTask", excPriority,
                      excPriority != 0 ? 255 - excPriority : 254, exception_task,
                      "!pthread_attr_setschedparam (&(excp_tcb.attr), &(excp_tcb.prv_priority))");
    if (timerTask)
        start_service(&timer_tcb, "tTimerTask", timerPriority,
                      timerPriority != 0 ? 255 - timerPriority : 253, timer_task,
                      "!pthread_attr_setschedparam (&(timer_tcb.attr), &(timer_tcb.prv_priority))");
    return 0;
}

int kt4livecore(void) {
    // A child of this process is an exact copy of its memory: the child aborts and the kernel
    // writes its core, while this process goes on. Cores go to $KT4_CORE_DIR when set, else to
    // the process's working directory, as a crash core would.
    const char *dir = std::getenv("KT4_CORE_DIR");
    char dir_copy[512] = "";
    if (dir != nullptr && *dir != '\0') std::snprintf(dir_copy, sizeof dir_copy, "%s", dir);
    pid_t pid = fork();
    if (pid < 0) return -1;
    if (pid == 0) {
        rlimit unlimited{RLIM_INFINITY, RLIM_INFINITY};
        if (setrlimit(RLIMIT_CORE, &unlimited) != 0) {
            rlimit cur;
            if (getrlimit(RLIMIT_CORE, &cur) == 0) {
                cur.rlim_cur = cur.rlim_max;
                setrlimit(RLIMIT_CORE, &cur);
            }
        }
        prctl(PR_SET_DUMPABLE, 1, 0, 0, 0);
        if (dir_copy[0] != '\0' && chdir(dir_copy) != 0) _exit(2);
        signal(SIGABRT, SIG_DFL);
        sigset_t abrt;
        sigemptyset(&abrt);
        sigaddset(&abrt, SIGABRT);
        sigprocmask(SIG_UNBLOCK, &abrt, nullptr);
        kill(getpid(), SIGABRT);
        _exit(3);
    }
    int st = 0;
    while (waitpid(pid, &st, 0) < 0) {
        if (errno != EINTR) return -1;
    }
    if (!(WIFSIGNALED(st) && WCOREDUMP(st))) {
        errno = EIO;
        return -1;
    }
    // With the kernel's plain "core" pattern, give the file the child's pid so that the next
    // dump does not overwrite it.
    char from[600], to[640];
    const char *base = dir_copy[0] != '\0' ? dir_copy : ".";
    std::snprintf(from, sizeof from, "%s/core", base);
    std::snprintf(to, sizeof to, "%s/core.%d", base, static_cast<int>(pid));
    struct stat sb;
    if (stat(from, &sb) == 0 && stat(to, &sb) != 0) rename(from, to);
    return 0;
}

} // extern "C"
