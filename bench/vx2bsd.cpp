// The tasking layer against the plain POSIX calls it is built on, in one binary and one run:
//
//   sem       uncontended semTake + semGive          vs  pthread_mutex_lock + unlock
//   pingpong  binary-semaphore ping-pong, two tasks  vs  condition-variable ping-pong, two threads
//   msgq      msgQSend/msgQReceive, two tasks        vs  mutex + condition queue, same capacity
//   spawn     taskSpawn of a task that returns       vs  pthread_create of a thread that returns,
//             until its delete hook has run               until its exit destructor has run
//   wdtick    one watchdog pass (process_timer_list)  vs  the same pass over a plain list of
//             over N armed watchdogs                      N records, each locked, counted down
//                                                         and its routine called
//   tmtick    one timer pass over N periodic timers   vs  the same
//             (process_vx2bsd_timer_list)
//
// The tick passes run with 1,000 and 10,000 objects: a pass that validates each object in
// constant time grows linearly, one that walks the list to validate grows with the square.
//
// Each pair prints both results and the ratio library / baseline.
//
// Every far side counts what it served (pongs answered, messages received in order, spawned
// bodies run) and each run checks those counts against its own: a run whose far side did less
// than the loop thinks is an error, not a figure, and the program then exits non-zero. The
// baseline's threads take the scheduling that a task of the same priority gets (learned from a
// probe task, so a refused or switched-off real-time policy is followed too), and every worker
// on both sides checks what it actually runs under. Both sides wait for their workers blocked,
// never spinning, so that neither takes a core from its own workers.
#include <kt4/vx2bsd.h>

#include <benchmark/benchmark.h>

#include <pthread.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

namespace {

constexpr int kBatch = 1000;
constexpr int kTaskPriority = 100;

// Set when any run failed its checks: the program then ends non-zero.
bool g_failed = false;

void fail(benchmark::State &state, const std::string &why) {
    state.SkipWithError(why.c_str());
    g_failed = true;
}

// A thread's scheduling: policy and host priority.
struct Sched {
    int policy = -1;
    int priority = -1;
    bool operator==(const Sched &o) const { return policy == o.policy && priority == o.priority; }
    bool operator!=(const Sched &o) const { return !(*this == o); }
};

Sched sched_of_self() {
    Sched s;
    sched_param p{};
    if (pthread_getschedparam(pthread_self(), &s.policy, &p) == 0) s.priority = p.sched_priority;
    return s;
}

// What a task of kTaskPriority runs under, as the probe task found it. The baseline threads
// take exactly that, so that neither side preempts the other's competitors and not its own.
Sched g_taskSched;

int probe(kt4_arg_t arg, kt4_arg_t, kt4_arg_t, kt4_arg_t, kt4_arg_t, kt4_arg_t, kt4_arg_t,
          kt4_arg_t, kt4_arg_t, kt4_arg_t) {
    g_taskSched = sched_of_self();
    semGive(static_cast<kt4SemId>(arg));
    return 0;
}

void take_task_sched() {
    sched_param p{};
    p.sched_priority = g_taskSched.priority;
    pthread_setschedparam(pthread_self(), g_taskSched.policy, &p); // checked by the caller's run
}

// Every worker of a pair notes what it ran under; a run checks that all of them ran as a task
// of kTaskPriority does.
struct SchedSeen {
    std::atomic<int> policy{-2}, priority{-2};
    std::atomic<bool> differs{false};
    void note() {
        const Sched s = sched_of_self();
        if (s != g_taskSched) {
            policy = s.policy;
            priority = s.priority;
            differs = true;
        }
    }
    bool check(benchmark::State &state) const {
        if (!differs) return true;
        char why[128];
        std::snprintf(why, sizeof why,
                      "a worker ran under policy %d priority %d, tasks under %d/%d", policy.load(),
                      priority.load(), g_taskSched.policy, g_taskSched.priority);
        fail(state, why);
        return false;
    }
};

// Checks that the far side counted what the loop did.
bool check_count(benchmark::State &state, const char *what, long got, long expected) {
    if (got == expected) return true;
    char why[128];
    std::snprintf(why, sizeof why, "%s: %ld, the loop expected %ld", what, got, expected);
    fail(state, why);
    return false;
}

// The baseline's binary semaphore for batch start and end: a flag under a mutex and a
// condition, taken blocked as semTake takes.
class Gate {
  public:
    void give() {
        pthread_mutex_lock(&m_);
        full_ = true;
        pthread_cond_signal(&c_);
        pthread_mutex_unlock(&m_);
    }
    void take() {
        pthread_mutex_lock(&m_);
        while (!full_)
            pthread_cond_wait(&c_, &m_);
        full_ = false;
        pthread_mutex_unlock(&m_);
    }

  private:
    pthread_mutex_t m_ = PTHREAD_MUTEX_INITIALIZER;
    pthread_cond_t c_ = PTHREAD_COND_INITIALIZER;
    bool full_ = false;
};

constexpr int kQueueCapacity = 16;
constexpr int kMsgBytes = 16;

// ---- uncontended take/give ----

void lib_sem(benchmark::State &state) {
    kt4SemId s = semBCreate(KT4_SEM_Q_FIFO, KT4_SEM_FULL);
    if (s == 0) {
        fail(state, "semBCreate failed");
        return;
    }
    // A refused take or give would be an error path, not the measured one.
    int refused = 0;
    for (auto _ : state) {
        refused += semTake(s, WAIT_FOREVER) != OK;
        refused += semGive(s) != OK;
    }
    check_count(state, "refused takes and gives", refused, 0);
    semDelete(s);
}

void base_sem(benchmark::State &state) {
    pthread_mutex_t m = PTHREAD_MUTEX_INITIALIZER;
    int refused = 0;
    for (auto _ : state) {
        refused += pthread_mutex_lock(&m) != 0;
        benchmark::DoNotOptimize(&m);
        refused += pthread_mutex_unlock(&m) != 0;
    }
    check_count(state, "refused locks and unlocks", refused, 0);
}

// ---- ping-pong between two tasks ----
//
// The pinger gives ping and waits for pong, `rounds` times per batch; the ponger answers each
// ping. The ponger counts the pings it answered, the pinger the pongs it got.

struct PingPong {
    kt4SemId ping = semBCreate(KT4_SEM_Q_FIFO, KT4_SEM_EMPTY);
    kt4SemId pong = semBCreate(KT4_SEM_Q_FIFO, KT4_SEM_EMPTY);
    kt4SemId start = semBCreate(KT4_SEM_Q_FIFO, KT4_SEM_EMPTY);
    kt4SemId done = semBCreate(KT4_SEM_Q_FIFO, KT4_SEM_EMPTY);
    std::atomic<int> rounds{0};
    std::atomic<bool> stop{false};
    std::atomic<long> answered{0}, received{0};
    SchedSeen sched;
};

int pinger(kt4_arg_t arg, kt4_arg_t, kt4_arg_t, kt4_arg_t, kt4_arg_t, kt4_arg_t, kt4_arg_t,
           kt4_arg_t, kt4_arg_t, kt4_arg_t) {
    auto *pp = reinterpret_cast<PingPong *>(arg);
    pp->sched.note();
    for (;;) {
        semTake(pp->start, WAIT_FOREVER);
        if (pp->stop) break;
        for (int i = pp->rounds; i > 0; --i) {
            semGive(pp->ping);
            if (semTake(pp->pong, WAIT_FOREVER) == OK) pp->received++;
        }
        semGive(pp->done);
    }
    semGive(pp->ping); // lets the ponger see stop
    return 0;
}

int ponger(kt4_arg_t arg, kt4_arg_t, kt4_arg_t, kt4_arg_t, kt4_arg_t, kt4_arg_t, kt4_arg_t,
           kt4_arg_t, kt4_arg_t, kt4_arg_t) {
    auto *pp = reinterpret_cast<PingPong *>(arg);
    pp->sched.note();
    for (;;) {
        if (semTake(pp->ping, WAIT_FOREVER) != OK) continue;
        if (pp->stop) break;
        pp->answered++; // counted before the pong can reach the pinger
        semGive(pp->pong);
    }
    return 0;
}

void wait_gone(int tid) {
    while (taskIdVerify(tid) == OK)
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
}

void lib_pingpong(benchmark::State &state) {
    PingPong pp;
    if (pp.ping == 0 || pp.pong == 0 || pp.start == 0 || pp.done == 0) {
        fail(state, "semBCreate failed");
        return;
    }
    auto arg = reinterpret_cast<kt4_arg_t>(&pp);
    int b = taskSpawn("tPong", kTaskPriority, 0, 0, ponger, arg, 0, 0, 0, 0, 0, 0, 0, 0, 0);
    int a = taskSpawn("tPing", kTaskPriority, 0, 0, pinger, arg, 0, 0, 0, 0, 0, 0, 0, 0, 0);
    if (a == ERROR || b == ERROR) {
        fail(state, "taskSpawn failed");
        if (b != ERROR) taskDelete(b);
        if (a != ERROR) taskDelete(a);
        return;
    }
    while (state.KeepRunningBatch(kBatch)) {
        pp.rounds = kBatch;
        semGive(pp.start);
        semTake(pp.done, WAIT_FOREVER);
    }
    pp.stop = true;
    semGive(pp.start);
    wait_gone(a);
    wait_gone(b);
    if (pp.sched.check(state) &&
        check_count(state, "pings the ponger answered", pp.answered, state.iterations()))
        check_count(state, "pongs the pinger got", pp.received, state.iterations());
    for (kt4SemId s : {pp.ping, pp.pong, pp.start, pp.done})
        semDelete(s);
}

struct CondPingPong {
    pthread_mutex_t m = PTHREAD_MUTEX_INITIALIZER;
    pthread_cond_t c = PTHREAD_COND_INITIALIZER;
    int turn = 0; // 0 ping's, 1 pong's
    bool stop = false;
    long answered = 0, received = 0; // under m
};

void base_pingpong(benchmark::State &state) {
    CondPingPong cp;
    SchedSeen sched;
    Gate start, done;
    std::atomic<int> rounds{0};
    std::atomic<bool> quit{false};
    std::thread pong([&] {
        take_task_sched();
        sched.note();
        pthread_mutex_lock(&cp.m);
        for (;;) {
            while (cp.turn != 1 && !cp.stop)
                pthread_cond_wait(&cp.c, &cp.m);
            if (cp.stop) break;
            ++cp.answered;
            cp.turn = 0;
            pthread_cond_broadcast(&cp.c);
        }
        pthread_mutex_unlock(&cp.m);
    });
    std::thread ping([&] {
        take_task_sched();
        sched.note();
        for (;;) {
            start.take();
            if (quit) break;
            pthread_mutex_lock(&cp.m);
            for (int i = rounds; i > 0; --i) {
                cp.turn = 1;
                pthread_cond_broadcast(&cp.c);
                while (cp.turn != 0)
                    pthread_cond_wait(&cp.c, &cp.m);
                ++cp.received;
            }
            pthread_mutex_unlock(&cp.m);
            done.give();
        }
    });
    while (state.KeepRunningBatch(kBatch)) {
        rounds = kBatch;
        start.give();
        done.take();
    }
    quit = true;
    start.give();
    ping.join();
    pthread_mutex_lock(&cp.m);
    cp.stop = true;
    pthread_cond_broadcast(&cp.c);
    pthread_mutex_unlock(&cp.m);
    pong.join();
    if (sched.check(state) &&
        check_count(state, "pings the ponger answered", cp.answered, state.iterations()))
        check_count(state, "pongs the pinger got", cp.received, state.iterations());
}

// ---- queue between two tasks ----
//
// The producer sends `count` numbered messages per batch; the consumer counts those it got in
// order, with the number it expected next.

struct QueuePair {
    kt4MsgQId q = msgQCreate(kQueueCapacity, kMsgBytes, KT4_MSGQ_FIFO);
    kt4SemId start = semBCreate(KT4_SEM_Q_FIFO, KT4_SEM_EMPTY);
    kt4SemId done = semBCreate(KT4_SEM_Q_FIFO, KT4_SEM_EMPTY);
    std::atomic<int> count{0};
    std::atomic<bool> stop{false};
    std::atomic<long> sent{0}, inOrder{0};
    SchedSeen sched;
};

int producer(kt4_arg_t arg, kt4_arg_t, kt4_arg_t, kt4_arg_t, kt4_arg_t, kt4_arg_t, kt4_arg_t,
             kt4_arg_t, kt4_arg_t, kt4_arg_t) {
    auto *qp = reinterpret_cast<QueuePair *>(arg);
    qp->sched.note();
    char msg[kMsgBytes] = "payload";
    uint32_t seq = 0;
    for (;;) {
        semTake(qp->start, WAIT_FOREVER);
        if (qp->stop) break;
        for (int i = qp->count; i > 0; --i) {
            ++seq;
            std::memcpy(msg, &seq, sizeof seq);
            if (msgQSend(qp->q, msg, sizeof msg, WAIT_FOREVER, KT4_MSG_PRI_NORMAL) == OK)
                qp->sent++;
        }
    }
    msgQSend(qp->q, msg, 0, WAIT_FOREVER, KT4_MSG_PRI_NORMAL); // empty message: consumer ends
    return 0;
}

int consumer(kt4_arg_t arg, kt4_arg_t, kt4_arg_t, kt4_arg_t, kt4_arg_t, kt4_arg_t, kt4_arg_t,
             kt4_arg_t, kt4_arg_t, kt4_arg_t) {
    auto *qp = reinterpret_cast<QueuePair *>(arg);
    qp->sched.note();
    char msg[kMsgBytes];
    int got = 0;
    uint32_t expect = 1;
    for (;;) {
        int n = msgQReceive(qp->q, msg, sizeof msg, WAIT_FOREVER);
        if (n <= 0) break;
        uint32_t seq;
        std::memcpy(&seq, msg, sizeof seq);
        if (n == kMsgBytes && seq == expect) qp->inOrder++;
        expect = seq + 1;
        if (++got == qp->count) {
            got = 0;
            semGive(qp->done);
        }
    }
    return 0;
}

void lib_msgq(benchmark::State &state) {
    QueuePair qp;
    if (qp.q == 0 || qp.start == 0 || qp.done == 0) {
        fail(state, "msgQCreate or semBCreate failed");
        return;
    }
    auto arg = reinterpret_cast<kt4_arg_t>(&qp);
    qp.count = kBatch;
    int c = taskSpawn("tConsumer", kTaskPriority, 0, 0, consumer, arg, 0, 0, 0, 0, 0, 0, 0, 0, 0);
    int p = taskSpawn("tProducer", kTaskPriority, 0, 0, producer, arg, 0, 0, 0, 0, 0, 0, 0, 0, 0);
    if (c == ERROR || p == ERROR) {
        fail(state, "taskSpawn failed");
        if (p != ERROR) taskDelete(p);
        if (c != ERROR) taskDelete(c);
        return;
    }
    while (state.KeepRunningBatch(kBatch)) {
        semGive(qp.start);
        semTake(qp.done, WAIT_FOREVER);
    }
    qp.stop = true;
    semGive(qp.start);
    wait_gone(p);
    wait_gone(c);
    if (qp.sched.check(state) &&
        check_count(state, "messages the producer sent", qp.sent, state.iterations()))
        check_count(state, "messages the consumer got in order", qp.inOrder, state.iterations());
    msgQDelete(qp.q);
    semDelete(qp.start);
    semDelete(qp.done);
}

// A bounded queue of fixed-size messages on one mutex and two conditions, the same capacity.
struct CondQueue {
    pthread_mutex_t m = PTHREAD_MUTEX_INITIALIZER;
    pthread_cond_t not_empty = PTHREAD_COND_INITIALIZER;
    pthread_cond_t not_full = PTHREAD_COND_INITIALIZER;
    char ring[kQueueCapacity][kMsgBytes + 4];
    int head = 0, count = 0;

    void send(const char *buf, int len) {
        pthread_mutex_lock(&m);
        while (count == kQueueCapacity)
            pthread_cond_wait(&not_full, &m);
        char *slot = ring[(head + count) % kQueueCapacity];
        std::memcpy(slot, &len, 4);
        std::memcpy(slot + 4, buf, static_cast<size_t>(len));
        ++count;
        pthread_cond_broadcast(&not_empty);
        pthread_mutex_unlock(&m);
    }
    int receive(char *buf) {
        pthread_mutex_lock(&m);
        while (count == 0)
            pthread_cond_wait(&not_empty, &m);
        int len;
        std::memcpy(&len, ring[head], 4);
        std::memcpy(buf, ring[head] + 4, static_cast<size_t>(len));
        head = (head + 1) % kQueueCapacity;
        --count;
        pthread_cond_broadcast(&not_full);
        pthread_mutex_unlock(&m);
        return len;
    }
};

void base_msgq(benchmark::State &state) {
    CondQueue cq;
    SchedSeen sched;
    Gate start, done;
    std::atomic<long> sent{0}, inOrder{0};
    std::atomic<bool> quit{false};
    std::thread cons([&] {
        take_task_sched();
        sched.note();
        char msg[kMsgBytes];
        int got = 0;
        uint32_t expect = 1;
        for (;;) {
            int n = cq.receive(msg);
            if (n <= 0) break;
            uint32_t seq;
            std::memcpy(&seq, msg, sizeof seq);
            if (n == kMsgBytes && seq == expect) inOrder++;
            expect = seq + 1;
            if (++got == kBatch) {
                got = 0;
                done.give();
            }
        }
    });
    std::thread prod([&] {
        take_task_sched();
        sched.note();
        char msg[kMsgBytes] = "payload";
        uint32_t seq = 0;
        for (;;) {
            start.take();
            if (quit) break;
            for (int i = 0; i < kBatch; ++i) {
                ++seq;
                std::memcpy(msg, &seq, sizeof seq);
                cq.send(msg, sizeof msg);
                sent++;
            }
        }
        cq.send(msg, 0);
    });
    while (state.KeepRunningBatch(kBatch)) {
        start.give();
        done.take();
    }
    quit = true;
    start.give();
    prod.join();
    cons.join();
    if (sched.check(state) &&
        check_count(state, "messages the producer sent", sent, state.iterations()))
        check_count(state, "messages the consumer got in order", inOrder, state.iterations());
}

// ---- spawning a task that returns ----
//
// Each spawned body counts that it ran (and notes its scheduling); the run checks the count.
// Both sides wait for the same event: the library's delete hook, which runs in the ending task's
// thread before its teardown finishes, and for the baseline a thread-specific-data destructor,
// which runs in the ending (detached) thread after its body returned. The rest of either
// thread's exit overlaps the next iteration alike. (Joining the baseline's thread would make it
// wait for a full thread exit that the library side never waits for.)

kt4SemId spawn_gone = 0;
std::atomic<long> bodies_run{0};
SchedSeen *spawn_sched = nullptr;

void on_delete(kt4Tcb *, const char *name) {
    if (name != nullptr && std::strcmp(name, "tBench") == 0) semGive(spawn_gone);
}

int returns(kt4_arg_t, kt4_arg_t, kt4_arg_t, kt4_arg_t, kt4_arg_t, kt4_arg_t, kt4_arg_t, kt4_arg_t,
            kt4_arg_t, kt4_arg_t) {
    spawn_sched->note();
    bodies_run++;
    return 0;
}

void lib_spawn(benchmark::State &state) {
    SchedSeen sched;
    spawn_sched = &sched;
    bodies_run = 0;
    spawn_gone = semBCreate(KT4_SEM_Q_FIFO, KT4_SEM_EMPTY);
    taskDeleteHookAdd(on_delete);
    for (auto _ : state) {
        int id = taskSpawn("tBench", kTaskPriority, 0, 0, returns, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0);
        if (id == ERROR) {
            fail(state, "taskSpawn failed");
            break;
        }
        semTake(spawn_gone, WAIT_FOREVER); // its delete hooks have run
    }
    taskDeleteHookDelete(on_delete);
    semDelete(spawn_gone);
    if (!state.error_occurred() && sched.check(state))
        check_count(state, "spawned bodies that ran", bodies_run, state.iterations());
}

Gate thread_gone;
pthread_key_t exit_key;
pthread_once_t exit_key_once = PTHREAD_ONCE_INIT;

void on_thread_exit(void *) {
    thread_gone.give();
}

void make_exit_key() {
    pthread_key_create(&exit_key, on_thread_exit);
}

void *thread_returns(void *) {
    spawn_sched->note();
    bodies_run++;
    pthread_setspecific(exit_key, &exit_key); // any non-null value: the destructor runs at exit
    return nullptr;
}

void base_spawn(benchmark::State &state) {
    SchedSeen sched;
    spawn_sched = &sched;
    bodies_run = 0;
    // The scheduling attributes a task's thread is created with.
    pthread_once(&exit_key_once, make_exit_key);
    pthread_attr_t attr;
    pthread_attr_init(&attr);
    pthread_attr_setdetachstate(&attr, PTHREAD_CREATE_DETACHED);
    sched_param p{};
    p.sched_priority = g_taskSched.priority;
    pthread_attr_setinheritsched(&attr, PTHREAD_EXPLICIT_SCHED);
    pthread_attr_setschedpolicy(&attr, g_taskSched.policy);
    pthread_attr_setschedparam(&attr, &p);
    for (auto _ : state) {
        pthread_t t;
        if (pthread_create(&t, &attr, thread_returns, nullptr) != 0) {
            fail(state, "pthread_create failed");
            break;
        }
        thread_gone.take(); // its exit destructor has run
    }
    pthread_attr_destroy(&attr);
    if (!state.error_occurred() && sched.check(state))
        check_count(state, "spawned bodies that ran", bodies_run, state.iterations());
}

// ---- one tick pass over many armed watchdogs and timers ----
//
// N watchdogs armed (re-armed outside the timed region before every pass), or N periodic timers
// of one second (which reload at every expiry); one pass is timed. Every routine and handler
// counts its calls, and the run checks that each pass fired all N. tExcTask and tTimerTask are
// suspended for the run, so the timed pass is the only one.

std::atomic<long> fired{0};

void wd_routine(kt4_arg_t) {
    fired++;
}

void tm_handler(VX2BSD_TIMER_ID, kt4_arg_t) {
    fired++;
}

// Holds the process's service tasks still for a scope.
class ServiceTasksHeld {
  public:
    ServiceTasksHeld() {
        for (const char *name : {"tExcTask", "tTimerTask"}) {
            int id = taskNameToId(name);
            if (id == ERROR) continue;
            taskSuspend(id); // reports ERROR when it worked, as the system always has
            if (taskIsSuspended(id))
                ids_.push_back(id);
            else
                ok_ = false;
        }
    }
    ~ServiceTasksHeld() {
        for (int id : ids_)
            taskResume(id);
    }
    bool ok() const { return ok_; }

  private:
    std::vector<int> ids_;
    bool ok_ = true;
};

void lib_wdtick(benchmark::State &state) {
    const int n = static_cast<int>(state.range(0));
    ServiceTasksHeld held;
    if (!held.ok()) {
        fail(state, "cannot suspend the service tasks");
        return;
    }
    std::vector<kt4WdogId> wds;
    for (int i = 0; i < n; ++i) {
        kt4WdogId wd = wdCreate();
        if (wd == nullptr) break;
        wds.push_back(wd);
    }
    fired = 0;
    long refused = 0;
    if (static_cast<int>(wds.size()) != n) {
        fail(state, "wdCreate failed");
    } else {
        for (auto _ : state) {
            state.PauseTiming();
            for (kt4WdogId wd : wds)
                refused += wdStart(wd, 1, wd_routine, 0) != OK;
            state.ResumeTiming();
            process_timer_list();
        }
        if (check_count(state, "refused starts", refused, 0))
            check_count(state, "watchdog routines called", fired, state.iterations() * n);
    }
    for (kt4WdogId wd : wds)
        wdDelete(wd);
}

void lib_tmtick(benchmark::State &state) {
    const int n = static_cast<int>(state.range(0));
    ServiceTasksHeld held;
    if (!held.ok()) {
        fail(state, "cannot suspend the service tasks");
        return;
    }
    std::vector<VX2BSD_TIMER_ID> tms;
    long refused = 0;
    for (int i = 0; i < n; ++i) {
        VX2BSD_TIMER_ID tm = vx2bsdTimerCreate();
        if (tm == nullptr) break;
        tms.push_back(tm);
        refused += vx2bsdTimerStart(tm, 1, tm_handler, 0, VX2BSD_TIMER_PERIODIC) != OK;
    }
    fired = 0;
    if (static_cast<int>(tms.size()) != n) {
        fail(state, "vx2bsdTimerCreate failed");
    } else {
        for (auto _ : state)
            process_vx2bsd_timer_list();
        if (check_count(state, "refused starts", refused, 0))
            check_count(state, "timer handlers called", fired, state.iterations() * n);
    }
    for (VX2BSD_TIMER_ID tm : tms)
        vx2bsdTimerDelete(tm);
}

// The least a pass can cost: a walk over a plain list of records under one lock, each record
// locked, counted down and, at zero, its routine called with no lock held.
struct PlainCountdown {
    pthread_mutex_t lock = PTHREAD_MUTEX_INITIALIZER;
    int remaining = 0;
    void (*routine)(kt4_arg_t) = nullptr;
    kt4_arg_t parameter = 0;
    PlainCountdown *next = nullptr;
};

void base_tick(benchmark::State &state) {
    const int n = static_cast<int>(state.range(0));
    std::deque<PlainCountdown> recs(static_cast<size_t>(n));
    pthread_mutex_t list_lock = PTHREAD_MUTEX_INITIALIZER;
    for (int i = 0; i + 1 < n; ++i)
        recs[static_cast<size_t>(i)].next = &recs[static_cast<size_t>(i) + 1];
    fired = 0;
    for (auto _ : state) {
        state.PauseTiming();
        for (PlainCountdown &r : recs) {
            r.remaining = 1;
            r.routine = wd_routine;
        }
        state.ResumeTiming();
        pthread_mutex_lock(&list_lock);
        PlainCountdown *r = &recs[0];
        pthread_mutex_unlock(&list_lock);
        while (r != nullptr) {
            pthread_mutex_lock(&list_lock);
            pthread_mutex_lock(&r->lock);
            PlainCountdown *next = r->next;
            pthread_mutex_unlock(&list_lock);
            if (r->remaining >= 1 && --r->remaining == 0 && r->routine != nullptr) {
                auto routine = r->routine;
                kt4_arg_t parameter = r->parameter;
                pthread_mutex_unlock(&r->lock);
                routine(parameter);
            } else {
                pthread_mutex_unlock(&r->lock);
            }
            r = next;
        }
    }
    check_count(state, "routines called", fired, state.iterations() * n);
}

// Collects each run's time per iteration (the median when repetitions were asked for) so that
// the pairs can be compared at the end.
class PairReporter : public benchmark::ConsoleReporter {
  public:
    void ReportRuns(const std::vector<Run> &runs) override {
        ConsoleReporter::ReportRuns(runs);
        for (const Run &r : runs) {
            if (r.error_occurred) continue;
            bool median = r.run_type == Run::RT_Aggregate && r.aggregate_name == "median";
            if (r.run_type != Run::RT_Iteration && !median) continue;
            std::string name = r.run_name.function_name;
            if (!r.run_name.args.empty()) name += "/" + r.run_name.args;
            if (!median && medians_.count(name) != 0) continue;
            if (median) medians_.insert(name);
            real_[name] = r.GetAdjustedRealTime();
            cpu_[name] = r.GetAdjustedCPUTime();
        }
    }
    // Single-threaded pairs compare CPU time (the wall clock of a shared machine adds other
    // processes' time); pairs of several threads compare wall-clock time per operation.
    void print_pairs() const {
        std::printf("\n%-12s %14s %14s %8s  %s\n", "pair", "library ns", "baseline ns", "ratio",
                    "measure");
        struct Pair {
            const char *label, *lib, *base;
            bool cpu;
        };
        for (Pair p : {Pair{"sem", "lib_sem", "base_sem", true},
                       Pair{"pingpong", "lib_pingpong", "base_pingpong", false},
                       Pair{"msgq", "lib_msgq", "base_msgq", false},
                       Pair{"spawn", "lib_spawn", "base_spawn", false},
                       Pair{"wdtick/1k", "lib_wdtick/1000", "base_tick/1000", true},
                       Pair{"wdtick/10k", "lib_wdtick/10000", "base_tick/10000", true},
                       Pair{"tmtick/1k", "lib_tmtick/1000", "base_tick/1000", true},
                       Pair{"tmtick/10k", "lib_tmtick/10000", "base_tick/10000", true}}) {
            const auto &m = p.cpu ? cpu_ : real_;
            auto lib = m.find(p.lib);
            auto base = m.find(p.base);
            if (lib == m.end() || base == m.end()) continue;
            std::printf("%-12s %14.1f %14.1f %8.2f  %s\n", p.label, lib->second, base->second,
                        lib->second / base->second, p.cpu ? "cpu" : "wall");
        }
    }

  private:
    std::map<std::string, double> real_, cpu_;
    std::set<std::string> medians_;
};

} // namespace

BENCHMARK(lib_sem);
BENCHMARK(base_sem);
BENCHMARK(lib_pingpong)->UseRealTime();
BENCHMARK(base_pingpong)->UseRealTime();
BENCHMARK(lib_msgq)->UseRealTime();
BENCHMARK(base_msgq)->UseRealTime();
BENCHMARK(lib_spawn)->UseRealTime();
BENCHMARK(base_spawn)->UseRealTime();
BENCHMARK(lib_wdtick)->Arg(1000)->Arg(10000);
BENCHMARK(lib_tmtick)->Arg(1000)->Arg(10000);
BENCHMARK(base_tick)->Arg(1000)->Arg(10000);

int main(int argc, char **argv) {
    kt4VxToBsdInit(1, 1);
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    // Learn what a task of the benchmark's priority runs under.
    kt4SemId probed = semBCreate(KT4_SEM_Q_FIFO, KT4_SEM_EMPTY);
    if (probed == 0 ||
        taskSpawn("tProbe", kTaskPriority, 0, 0, probe, static_cast<kt4_arg_t>(probed), 0, 0, 0, 0,
                  0, 0, 0, 0, 0) == ERROR) {
        std::fprintf(stderr, "bench_vx2bsd: cannot spawn the probe task\n");
        return 1;
    }
    semTake(probed, WAIT_FOREVER);
    semDelete(probed);
    std::printf("tasks and baseline threads under scheduling policy %d, priority %d\n",
                g_taskSched.policy, g_taskSched.priority);
    PairReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    reporter.print_pairs();
    benchmark::Shutdown();
    if (g_failed) std::fprintf(stderr, "bench_vx2bsd: a run failed its checks\n");
    return g_failed ? 1 : 0;
}
