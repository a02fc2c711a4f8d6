// The host adaptation of the tasking layer: kernel-convention priorities on the host's real-time
// scheduler, the fall-back when real-time scheduling is refused, and the suspension of one
// thread.
//
// Priorities. The layer computes POSIX priorities on the kernel's 0..255 scale (254 minus the
// task priority, 255 for taskLock's boost) and keeps them so in the TCB; only at the thread
// library are they scaled onto the host's real-time range (1..99 on Linux). An unprivileged
// process is refused real-time scheduling (EPERM): the first refusal switches the layer to the
// default policy for good and says so once; stored priorities stay as they were, so every
// query answers the same and tasks behave the same apart from preemption. KT4_NO_RT=1 forces
// that path (tests of unprivileged behaviour run as root).
//
// Suspension. Stopping the process (SIGSTOP) is not what a task suspension means here, so one
// thread is suspended by a real-time signal whose handler waits in sigsuspend until the resume
// signal arrives. The suspender waits until the handler has started, so that when taskSuspend
// returns the task no longer runs.
#include "vx2bsd/vx2bsd_int.h"

#include <semaphore.h>
#include <signal.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace kt4::vx {

namespace {

// -1 not yet decided, 1 real-time scheduling in use, 0 default policy.
std::atomic<int> rt_state{-1};
std::atomic<bool> rt_announced{false};

bool no_rt_forced() {
    const char *v = std::getenv("KT4_NO_RT");
    return v != nullptr && v[0] != '\0' && std::strcmp(v, "0") != 0;
}

void announce_fallback(const char *why) {
    if (rt_announced.exchange(true)) return;
    NoCancel nc;
    std::fprintf(stderr,
                 "kt4 vx2bsd: %s: tasks run under the default scheduling policy, task priorities "
                 "are kept but do not preempt\n",
                 why);
}

// ---- one-thread suspension ----

int sig_suspend() {
    return SIGRTMIN + 6;
}
int sig_resume() {
    return SIGRTMIN + 7;
}

sigset_t suspended_mask; // what a suspended thread lets through: the resume signal only
pthread_once_t signals_once = PTHREAD_ONCE_INIT;
pthread_mutex_t suspend_lock = PTHREAD_MUTEX_INITIALIZER;
sem_t suspend_ack;
std::atomic<int> suspend_ack_seq{0};
int suspend_seq = 0; // under suspend_lock

// Per thread: a resume has arrived (consumed by the suspension it ends, so a resume that
// overtakes its suspension still ends it); locks of the layer held; a suspension deferred
// until they are released.
__attribute__((tls_model("initial-exec"))) thread_local volatile sig_atomic_t t_resumed = 0;
__attribute__((tls_model("initial-exec"))) thread_local volatile sig_atomic_t t_defer = 0;
__attribute__((tls_model("initial-exec"))) thread_local volatile sig_atomic_t t_pending = 0;

void on_resume(int) {
    t_resumed = 1;
}

void ack(const siginfo_t *si) {
    if (si != nullptr && si->si_code == SI_QUEUE && si->si_value.sival_int != 0) {
        suspend_ack_seq.store(si->si_value.sival_int, std::memory_order_release);
        sem_post(&suspend_ack);
    }
}

void on_suspend(int, siginfo_t *si, void *) {
    int saved = errno;
    if (t_defer > 0) {
        t_pending = 1;
        ack(si);
        errno = saved;
        return;
    }
    // A deleter resumes the task before it cancels it, so the task dies at its own next
    // cancellation point, never inside this handler at an arbitrary place of its code.
    int old_state;
    pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &old_state);
    ack(si);
    while (!t_resumed)
        sigsuspend(&suspended_mask);
    t_resumed = 0;
    pthread_setcancelstate(old_state, nullptr);
    errno = saved;
}

void install_signals() {
    sem_init(&suspend_ack, 0, 0);
    sigfillset(&suspended_mask);
    sigdelset(&suspended_mask, sig_resume());
    // The C library's own real-time signals (cancellation, set-id broadcast) stay deliverable.
    for (int s = 32; s < SIGRTMIN; ++s)
        sigdelset(&suspended_mask, s);

    struct sigaction sa;
    std::memset(&sa, 0, sizeof sa);
    sa.sa_sigaction = on_suspend;
    sa.sa_flags = SA_SIGINFO | SA_RESTART;
    sigemptyset(&sa.sa_mask);
    sigaddset(&sa.sa_mask, sig_resume());
    KT4_VERIFY(!sigaction(sig_suspend(), &sa, nullptr));

    std::memset(&sa, 0, sizeof sa);
    sa.sa_handler = on_resume;
    sa.sa_flags = SA_RESTART;
    sigemptyset(&sa.sa_mask);
    KT4_VERIFY(!sigaction(sig_resume(), &sa, nullptr));
}

} // namespace

void wait_resumed();

bool rt_enabled() {
    int s = rt_state.load(std::memory_order_acquire);
    if (s < 0) {
        int want = no_rt_forced() ? 0 : 1;
        if (rt_state.compare_exchange_strong(s, want)) s = want;
        if (s == 0) announce_fallback("real-time scheduling switched off (KT4_NO_RT)");
    }
    return s == 1;
}

void rt_refused() {
    rt_state.store(0, std::memory_order_release);
    announce_fallback("real-time scheduling refused (not permitted)");
}

int host_priority(int prio255, int policy) {
    if (policy != SCHED_FIFO && policy != SCHED_RR) return 0;
    int lo = sched_get_priority_min(policy);
    int hi = sched_get_priority_max(policy);
    if (prio255 < 0) prio255 = 0;
    if (prio255 > kMaxPriority) prio255 = kMaxPriority;
    return lo + prio255 * (hi - lo) / kMaxPriority;
}

int attr_apply(pthread_attr_t *attr, int policy, int prio255) {
    int rc = pthread_attr_setinheritsched(attr, PTHREAD_EXPLICIT_SCHED);
    if (rc != 0) return rc;
    sched_param p{};
    if (rt_enabled()) {
        p.sched_priority = host_priority(prio255, policy);
    } else {
        policy = SCHED_OTHER;
    }
    rc = pthread_attr_setschedpolicy(attr, policy);
    if (rc != 0) return rc;
    return pthread_attr_setschedparam(attr, &p);
}

int create_thread(pthread_t *thr, tcb *t, void *(*fn)(void *), void *arg) {
    int rc = pthread_create(thr, &t->attr, fn, arg);
    if (rc == EPERM && rt_enabled()) {
        rt_refused();
        int policy = SCHED_OTHER;
        pthread_attr_getschedpolicy(&t->attr, &policy);
        rc = attr_apply(&t->attr, policy, t->prv_priority.sched_priority);
        if (rc == 0) rc = pthread_create(thr, &t->attr, fn, arg);
    }
    return rc;
}

int thread_set_sched(pthread_t thr, int policy, int prio255) {
    if (!rt_enabled()) return 0;
    sched_param p{};
    p.sched_priority = host_priority(prio255, policy);
    int rc = pthread_setschedparam(thr, policy, &p);
    if (rc == EPERM) {
        rt_refused();
        return 0;
    }
    return rc;
}

int pthread_tmp_priority_change(pthread_t thr, int prio255) {
    if (!rt_enabled()) return 0;
    int policy = SCHED_OTHER;
    sched_param cur{};
    int rc = pthread_getschedparam(thr, &policy, &cur);
    if (rc != 0) return rc;
    // A thread that never got a real-time policy (a task created before a refusal was noticed
    // elsewhere cannot be one; a plain thread can) has no priority to change.
    if (policy != SCHED_FIFO && policy != SCHED_RR) return 0;
    rc = pthread_setschedprio(thr, host_priority(prio255, policy));
    if (rc == EPERM) {
        rt_refused();
        return 0;
    }
    return rc;
}

// A thread stopping itself waits here, outside any signal handler, until resumed (a resume that
// came first is consumed at once).
void wait_resumed() {
    suspend_signals_init();
    while (!t_resumed)
        sigsuspend(&suspended_mask);
    t_resumed = 0;
}

void sig_defer() {
    t_defer = t_defer + 1;
    std::atomic_signal_fence(std::memory_order_seq_cst);
}

void sig_undefer() {
    std::atomic_signal_fence(std::memory_order_seq_cst);
    t_defer = t_defer - 1;
    std::atomic_signal_fence(std::memory_order_seq_cst);
    if (t_defer == 0 && t_pending) {
        t_pending = 0;
        wait_resumed();
    }
}

void suspend_signals_init() {
    pthread_once(&signals_once, install_signals);
}

int pthread_suspend_np(pthread_t thr) {
    suspend_signals_init();
    if (pthread_equal(thr, pthread_self())) {
        // Suspending oneself needs no signal: wait for the resume right here.
        wait_resumed();
        return 0;
    }
    NoCancel nc;
    KT4_VERIFY(!pthread_mutex_lock(&suspend_lock));
    int seq = ++suspend_seq;
    if (seq <= 0) seq = suspend_seq = 1;
    sigval v;
    v.sival_int = seq;
    int rc = pthread_sigqueue(thr, sig_suspend(), v);
    if (rc == 0) {
        // Wait until the thread has entered the handler. The bound only matters for a thread
        // that ends before the signal is delivered, or keeps it blocked: the suspension then
        // takes effect whenever the signal is taken.
        timespec limit;
        clock_gettime(CLOCK_REALTIME, &limit);
        limit.tv_sec += 2;
        while (suspend_ack_seq.load(std::memory_order_acquire) != seq) {
            if (sem_timedwait(&suspend_ack, &limit) != 0 && errno == ETIMEDOUT) break;
        }
    }
    KT4_VERIFY(!pthread_mutex_unlock(&suspend_lock));
    return rc;
}

int pthread_resume_np(pthread_t thr) {
    suspend_signals_init();
    sigval v;
    v.sival_int = 0;
    return pthread_sigqueue(thr, sig_resume(), v);
}

// ---- waiting helpers ----

timespec deadline_after(int ticks) {
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    long long usec = static_cast<long long>(ticks) * kUsecPerTick;
    ts.tv_sec += static_cast<time_t>(usec / 1000000);
    ts.tv_nsec += static_cast<long>((usec % 1000000) * 1000);
    if (ts.tv_nsec >= 1000000000L) {
        ts.tv_sec += 1;
        ts.tv_nsec -= 1000000000L;
    }
    return ts;
}

void cond_init_monotonic(pthread_cond_t *c) {
    pthread_condattr_t ca;
    KT4_VERIFY(!pthread_condattr_init(&ca));
    KT4_VERIFY(!pthread_condattr_setclock(&ca, CLOCK_MONOTONIC));
    KT4_VERIFY(!pthread_cond_init(c, &ca));
    KT4_VERIFY(!pthread_condattr_destroy(&ca));
}

} // namespace kt4::vx
