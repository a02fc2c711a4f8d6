// The tasking layer against the plain POSIX calls it is built on, in one binary and one run:
//
//   sem       uncontended semTake + semGive          vs  pthread_mutex_lock + unlock
//   pingpong  binary-semaphore ping-pong, two tasks  vs  condition-variable ping-pong, two threads
//   msgq      msgQSend/msgQReceive, two tasks        vs  mutex + condition queue, same capacity
//   spawn     taskSpawn of a task that returns       vs  pthread_create + pthread_join
//
// Each pair prints both results and the ratio library / baseline.
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
#include <string>
#include <thread>
#include <vector>

namespace {

constexpr int kBatch = 1000;
constexpr int kTaskPriority = 100;

// Baseline threads run under the scheduling the tasks get (round robin at the mapped priority of
// kernel priority 100) so that neither side preempts the other's competitors and not its own.
void match_task_scheduling() {
    const char *no_rt = std::getenv("KT4_NO_RT");
    if (no_rt != nullptr && *no_rt != '\0' && *no_rt != '0') return;
    int lo = sched_get_priority_min(SCHED_RR), hi = sched_get_priority_max(SCHED_RR);
    sched_param p{};
    p.sched_priority = lo + (254 - kTaskPriority) * (hi - lo) / 255;
    pthread_setschedparam(pthread_self(), SCHED_RR, &p); // refused when unprivileged: fine
}
constexpr int kQueueCapacity = 16;
constexpr int kMsgBytes = 16;

// ---- uncontended take/give ----

void lib_sem(benchmark::State &state) {
    kt4SemId s = semBCreate(KT4_SEM_Q_FIFO, KT4_SEM_FULL);
    for (auto _ : state) {
        semTake(s, WAIT_FOREVER);
        semGive(s);
    }
    semDelete(s);
}

void base_sem(benchmark::State &state) {
    pthread_mutex_t m = PTHREAD_MUTEX_INITIALIZER;
    for (auto _ : state) {
        pthread_mutex_lock(&m);
        benchmark::DoNotOptimize(&m);
        pthread_mutex_unlock(&m);
    }
}

// ---- ping-pong between two tasks ----

struct PingPong {
    kt4SemId ping = semBCreate(KT4_SEM_Q_FIFO, KT4_SEM_EMPTY);
    kt4SemId pong = semBCreate(KT4_SEM_Q_FIFO, KT4_SEM_EMPTY);
    kt4SemId start = semBCreate(KT4_SEM_Q_FIFO, KT4_SEM_EMPTY);
    kt4SemId done = semBCreate(KT4_SEM_Q_FIFO, KT4_SEM_EMPTY);
    std::atomic<int> rounds{0};
    std::atomic<bool> stop{false};
};

int pinger(kt4_arg_t arg, kt4_arg_t, kt4_arg_t, kt4_arg_t, kt4_arg_t, kt4_arg_t, kt4_arg_t,
           kt4_arg_t, kt4_arg_t, kt4_arg_t) {
    auto *pp = reinterpret_cast<PingPong *>(arg);
    for (;;) {
        semTake(pp->start, WAIT_FOREVER);
        if (pp->stop) break;
        for (int i = pp->rounds; i > 0; --i) {
            semGive(pp->ping);
            semTake(pp->pong, WAIT_FOREVER);
        }
        semGive(pp->done);
    }
    semGive(pp->ping); // lets the ponger see stop
    return 0;
}

int ponger(kt4_arg_t arg, kt4_arg_t, kt4_arg_t, kt4_arg_t, kt4_arg_t, kt4_arg_t, kt4_arg_t,
           kt4_arg_t, kt4_arg_t, kt4_arg_t) {
    auto *pp = reinterpret_cast<PingPong *>(arg);
    for (;;) {
        semTake(pp->ping, WAIT_FOREVER);
        if (pp->stop) break;
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
    auto arg = reinterpret_cast<kt4_arg_t>(&pp);
    int b = taskSpawn("tPong", kTaskPriority, 0, 0, ponger, arg, 0, 0, 0, 0, 0, 0, 0, 0, 0);
    int a = taskSpawn("tPing", kTaskPriority, 0, 0, pinger, arg, 0, 0, 0, 0, 0, 0, 0, 0, 0);
    while (state.KeepRunningBatch(kBatch)) {
        pp.rounds = kBatch;
        semGive(pp.start);
        semTake(pp.done, WAIT_FOREVER);
    }
    pp.stop = true;
    semGive(pp.start);
    wait_gone(a);
    wait_gone(b);
    for (kt4SemId s : {pp.ping, pp.pong, pp.start, pp.done})
        semDelete(s);
}

struct CondPingPong {
    pthread_mutex_t m = PTHREAD_MUTEX_INITIALIZER;
    pthread_cond_t c = PTHREAD_COND_INITIALIZER;
    int turn = 0; // 0 ping's, 1 pong's
    bool stop = false;
};

void base_pingpong(benchmark::State &state) {
    CondPingPong cp;
    std::thread pong([&] {
        match_task_scheduling();
        pthread_mutex_lock(&cp.m);
        for (;;) {
            while (cp.turn != 1 && !cp.stop)
                pthread_cond_wait(&cp.c, &cp.m);
            if (cp.stop) break;
            cp.turn = 0;
            pthread_cond_broadcast(&cp.c);
        }
        pthread_mutex_unlock(&cp.m);
    });
    std::atomic<int> rounds{0};
    std::atomic<int> phase{0}; // batches started
    std::atomic<int> finished{0};
    std::atomic<bool> quit{false};
    std::thread ping([&] {
        match_task_scheduling();
        int seen = 0;
        for (;;) {
            while (phase.load() == seen && !quit)
                std::this_thread::yield();
            if (quit) break;
            ++seen;
            pthread_mutex_lock(&cp.m);
            for (int i = rounds; i > 0; --i) {
                cp.turn = 1;
                pthread_cond_broadcast(&cp.c);
                while (cp.turn != 0)
                    pthread_cond_wait(&cp.c, &cp.m);
            }
            pthread_mutex_unlock(&cp.m);
            finished++;
        }
    });
    int batches = 0;
    while (state.KeepRunningBatch(kBatch)) {
        rounds = kBatch;
        phase++;
        ++batches;
        while (finished.load() != batches)
            std::this_thread::yield();
    }
    quit = true;
    pthread_mutex_lock(&cp.m);
    cp.stop = true;
    pthread_cond_broadcast(&cp.c);
    pthread_mutex_unlock(&cp.m);
    ping.join();
    pong.join();
}

// ---- queue between two tasks ----

struct QueuePair {
    kt4MsgQId q = msgQCreate(kQueueCapacity, kMsgBytes, KT4_MSGQ_FIFO);
    kt4SemId start = semBCreate(KT4_SEM_Q_FIFO, KT4_SEM_EMPTY);
    kt4SemId done = semBCreate(KT4_SEM_Q_FIFO, KT4_SEM_EMPTY);
    std::atomic<int> count{0};
    std::atomic<bool> stop{false};
};

int producer(kt4_arg_t arg, kt4_arg_t, kt4_arg_t, kt4_arg_t, kt4_arg_t, kt4_arg_t, kt4_arg_t,
             kt4_arg_t, kt4_arg_t, kt4_arg_t) {
    auto *qp = reinterpret_cast<QueuePair *>(arg);
    char msg[kMsgBytes] = "payload";
    for (;;) {
        semTake(qp->start, WAIT_FOREVER);
        if (qp->stop) break;
        for (int i = qp->count; i > 0; --i)
            msgQSend(qp->q, msg, sizeof msg, WAIT_FOREVER, KT4_MSG_PRI_NORMAL);
    }
    msgQSend(qp->q, msg, 0, WAIT_FOREVER, KT4_MSG_PRI_NORMAL); // empty message: consumer ends
    return 0;
}

int consumer(kt4_arg_t arg, kt4_arg_t, kt4_arg_t, kt4_arg_t, kt4_arg_t, kt4_arg_t, kt4_arg_t,
             kt4_arg_t, kt4_arg_t, kt4_arg_t) {
    auto *qp = reinterpret_cast<QueuePair *>(arg);
    char msg[kMsgBytes];
    int got = 0;
    for (;;) {
        int n = msgQReceive(qp->q, msg, sizeof msg, WAIT_FOREVER);
        if (n <= 0) break;
        if (++got == qp->count) {
            got = 0;
            semGive(qp->done);
        }
    }
    return 0;
}

void lib_msgq(benchmark::State &state) {
    QueuePair qp;
    auto arg = reinterpret_cast<kt4_arg_t>(&qp);
    qp.count = kBatch;
    int c = taskSpawn("tConsumer", kTaskPriority, 0, 0, consumer, arg, 0, 0, 0, 0, 0, 0, 0, 0, 0);
    int p = taskSpawn("tProducer", kTaskPriority, 0, 0, producer, arg, 0, 0, 0, 0, 0, 0, 0, 0, 0);
    while (state.KeepRunningBatch(kBatch)) {
        semGive(qp.start);
        semTake(qp.done, WAIT_FOREVER);
    }
    qp.stop = true;
    semGive(qp.start);
    wait_gone(p);
    wait_gone(c);
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
    std::atomic<int> batches_done{0}, batches_started{0};
    std::atomic<bool> quit{false};
    std::thread cons([&] {
        match_task_scheduling();
        char msg[kMsgBytes];
        int got = 0;
        for (;;) {
            if (cq.receive(msg) <= 0) break;
            if (++got == kBatch) {
                got = 0;
                batches_done++;
            }
        }
    });
    std::thread prod([&] {
        match_task_scheduling();
        char msg[kMsgBytes] = "payload";
        int seen = 0;
        for (;;) {
            while (batches_started.load() == seen && !quit)
                std::this_thread::yield();
            if (quit) break;
            ++seen;
            for (int i = 0; i < kBatch; ++i)
                cq.send(msg, sizeof msg);
        }
        cq.send(msg, 0);
    });
    int batches = 0;
    while (state.KeepRunningBatch(kBatch)) {
        batches_started++;
        ++batches;
        while (batches_done.load() != batches)
            std::this_thread::yield();
    }
    quit = true;
    prod.join();
    cons.join();
}

// ---- spawning a task that returns ----

kt4SemId spawn_gone = 0;
void on_delete(kt4Tcb *, const char *name) {
    if (name != nullptr && std::strcmp(name, "tBench") == 0) semGive(spawn_gone);
}

int returns(kt4_arg_t, kt4_arg_t, kt4_arg_t, kt4_arg_t, kt4_arg_t, kt4_arg_t, kt4_arg_t, kt4_arg_t,
            kt4_arg_t, kt4_arg_t) {
    return 0;
}

void lib_spawn(benchmark::State &state) {
    spawn_gone = semBCreate(KT4_SEM_Q_FIFO, KT4_SEM_EMPTY);
    taskDeleteHookAdd(on_delete);
    for (auto _ : state) {
        int id = taskSpawn("tBench", kTaskPriority, 0, 0, returns, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0);
        benchmark::DoNotOptimize(id);
        semTake(spawn_gone, WAIT_FOREVER); // its delete hooks have run
    }
    taskDeleteHookDelete(on_delete);
    semDelete(spawn_gone);
}

void *thread_returns(void *) {
    return nullptr;
}

void base_spawn(benchmark::State &state) {
    // The same scheduling attributes a task's thread is created with.
    pthread_attr_t attr;
    pthread_attr_init(&attr);
    const char *no_rt = std::getenv("KT4_NO_RT");
    if (!(no_rt != nullptr && *no_rt != '\0' && *no_rt != '0')) {
        sched_param p{};
        int lo = sched_get_priority_min(SCHED_RR), hi = sched_get_priority_max(SCHED_RR);
        p.sched_priority = lo + (254 - kTaskPriority) * (hi - lo) / 255;
        pthread_attr_setinheritsched(&attr, PTHREAD_EXPLICIT_SCHED);
        pthread_attr_setschedpolicy(&attr, SCHED_RR);
        pthread_attr_setschedparam(&attr, &p);
    }
    for (auto _ : state) {
        pthread_t t;
        if (pthread_create(&t, &attr, thread_returns, nullptr) != 0) {
            pthread_attr_setinheritsched(&attr, PTHREAD_INHERIT_SCHED);
            pthread_create(&t, &attr, thread_returns, nullptr);
        }
        pthread_join(t, nullptr);
    }
    pthread_attr_destroy(&attr);
}

// Collects each run's time per iteration so that the pairs can be compared at the end.
class PairReporter : public benchmark::ConsoleReporter {
  public:
    void ReportRuns(const std::vector<Run> &runs) override {
        ConsoleReporter::ReportRuns(runs);
        for (const Run &r : runs) {
            if (r.run_type != Run::RT_Iteration) continue;
            std::string name = r.benchmark_name();
            name = name.substr(0, name.find('/'));
            real_[name] = r.GetAdjustedRealTime();
            cpu_[name] = r.GetAdjustedCPUTime();
        }
    }
    // Single-threaded pairs compare CPU time (the wall clock of a shared machine adds other
    // processes' time); pairs of several threads compare wall-clock time per operation.
    void print_pairs() const {
        std::printf("\n%-10s %14s %14s %8s  %s\n", "pair", "library ns", "baseline ns", "ratio",
                    "measure");
        struct Pair {
            const char *name;
            bool cpu;
        };
        for (Pair p : {Pair{"sem", true}, Pair{"pingpong", false}, Pair{"msgq", false},
                       Pair{"spawn", false}}) {
            const auto &m = p.cpu ? cpu_ : real_;
            auto lib = m.find(std::string("lib_") + p.name);
            auto base = m.find(std::string("base_") + p.name);
            if (lib == m.end() || base == m.end()) continue;
            std::printf("%-10s %14.1f %14.1f %8.2f  %s\n", p.name, lib->second, base->second,
                        lib->second / base->second, p.cpu ? "cpu" : "wall");
        }
    }

  private:
    std::map<std::string, double> real_, cpu_;
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

int main(int argc, char **argv) {
    kt4VxToBsdInit(1, 1);
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    PairReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    reporter.print_pairs();
    benchmark::Shutdown();
    return 0;
}
