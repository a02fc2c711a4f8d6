// The three timer libraries against a std::multimap timer set doing the same work.
//
// One scenario for every implementation: N timers started with delays drawn uniformly from
// 1..4095 ticks (the same seeded draw for all), half of them (a seeded random half) stopped,
// and the rest fired by moving time past the last expiry. Each timer is therefore started
// once and then either stopped or fired: 2N operations per round.
//
//   Cartwheel        4096 buckets; records taken from the wheel's free list beforehand;
//                    firing ticks the wheel 4096 times
//   TimerLib         a head without semaphore; records created beforehand, started with
//                    kt4TickTimerSet, stopped with kt4TimerDisable, fired by one kt4ProcTimers
//                    after the tick count is moved on
//   TimerLibSem      the same on a head with its binary semaphore (two semaphore operations
//                    per call)
//   ListTimer        delays as milliseconds (x 20); started with kt4ListStartTimer, fired by
//                    kt4ListTimerTick until all are done. Insertion walks the list, so its
//                    sizes stop at 10k.
//   Multimap         std::multimap<expiry, id> with the iterators kept for erasure, fired by
//                    draining the front up to the new time
//
// Each benchmark reports ns per operation and per phase (thread CPU time); the summary after
// the run gives every implementation's cost relative to the multimap at the same size.
// Every round checks that exactly the timers not stopped fired (their number and the sum of
// their ids, counted in the expiry callbacks) and that no start or stop was refused; a round
// that fails is an error, not a figure, and the program then exits non-zero.
#include <kt4/timer.h>

#include <benchmark/benchmark.h>

#include <algorithm>
#include <time.h>

#include <cstdio>
#include <map>
#include <numeric>
#include <random>
#include <string>
#include <vector>

namespace {

// Phases are timed on the thread's CPU clock: the machines these run on are shared, and time
// spent descheduled says nothing about the structures.
double cpu_ns() {
    timespec ts;
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
    return static_cast<double>(ts.tv_sec) * 1e9 + static_cast<double>(ts.tv_nsec);
}
constexpr uint16_t kSpan = 4096; // delays 1..kSpan-1 ticks

struct Scenario {
    std::vector<uint16_t> delay;
    std::vector<uint32_t> stops; // indexes of the timers stopped, in stopping order
    uint64_t firedIdSum = 0;     // sum of the ids of the timers that fire
};

const Scenario &scenario(size_t n) {
    static std::map<size_t, Scenario> cache;
    auto it = cache.find(n);
    if (it != cache.end()) return it->second;
    Scenario s;
    std::mt19937 rng(0x5EED0000u + static_cast<unsigned>(n));
    std::uniform_int_distribution<int> d(1, kSpan - 1);
    s.delay.resize(n);
    for (auto &x : s.delay)
        x = static_cast<uint16_t>(d(rng));
    std::vector<uint32_t> perm(n);
    std::iota(perm.begin(), perm.end(), 0u);
    std::shuffle(perm.begin(), perm.end(), rng);
    s.stops.assign(perm.begin(), perm.begin() + static_cast<long>(n / 2));
    for (auto it = perm.begin() + static_cast<long>(n / 2); it != perm.end(); ++it)
        s.firedIdSum += *it;
    return cache.emplace(n, std::move(s)).first->second;
}

// What the expiry callbacks saw: how many fired and the sum of their ids.
size_t fired_count;
uint64_t fired_ids;
bool g_failed = false;

struct Result {
    double op, start, stop, fire; // ns
};
std::map<std::string, std::map<size_t, Result>> results;

// Runs the scenario on an implementation: start(i, delay), stop(i), fire() -> number fired.
template <typename Impl> void run(benchmark::State &state, const char *name) {
    const size_t n = static_cast<size_t>(state.range(0));
    const Scenario &s = scenario(n);
    Impl impl(n);
    if (!impl.ok) {
        state.SkipWithError("setting up the timers failed");
        g_failed = true;
        return;
    }
    double t_start = 0, t_stop = 0, t_fire = 0;
    size_t rounds = 0;
    for (auto _ : state) {
        int refused = 0;
        double t0 = cpu_ns();
        for (size_t i = 0; i < n; ++i)
            refused += impl.start(i, s.delay[i]) != 0;
        double t1 = cpu_ns();
        for (uint32_t i : s.stops)
            refused += impl.stop(i) != 0;
        double t2 = cpu_ns();
        const size_t before = fired_count;
        const uint64_t idsBefore = fired_ids;
        impl.fire(n - s.stops.size());
        double t3 = cpu_ns();
        if (refused != 0 || fired_count - before != n - s.stops.size() ||
            fired_ids - idsBefore != s.firedIdSum) {
            char why[160];
            std::snprintf(why, sizeof why,
                          "%d starts/stops refused; %zu timers fired, %zu expected (id sums %s)",
                          refused, fired_count - before, n - s.stops.size(),
                          fired_ids - idsBefore == s.firedIdSum ? "agree" : "differ");
            state.SkipWithError(why);
            g_failed = true;
            break;
        }
        t_start += t1 - t0;
        t_stop += t2 - t1;
        t_fire += t3 - t2;
        ++rounds;
    }
    if (rounds == 0 || state.error_occurred()) return; // a failed run gives no figure
    const double half = static_cast<double>(n / 2), r = static_cast<double>(rounds);
    Result res{(t_start + t_stop + t_fire) / r / (2.0 * static_cast<double>(n)),
               t_start / r / static_cast<double>(n), t_stop / r / half, t_fire / r / half};
    results[name][n] = res;
    state.counters["ns/op"] = res.op;
    state.counters["start"] = res.start;
    state.counters["stop"] = res.stop;
    state.counters["fire"] = res.fire;
    state.SetItemsProcessed(static_cast<int64_t>(2 * n * rounds));
}

// ---- std::multimap baseline ---------------------------------------------------------------

struct Multimap {
    using Map = std::multimap<uint64_t, uint32_t>;
    explicit Multimap(size_t n) : it(n) {}
    int start(size_t i, uint16_t d) {
        it[i] = m.emplace(now + d, static_cast<uint32_t>(i));
        return 0;
    }
    int stop(size_t i) {
        m.erase(it[i]);
        return 0;
    }
    void fire(size_t) {
        now += kSpan;
        while (!m.empty() && m.begin()->first <= now) {
            uint32_t id = m.begin()->second;
            m.erase(m.begin());
            ++fired_count;
            fired_ids += id;
        }
    }
    bool ok = true;
    Map m;
    std::vector<Map::iterator> it;
    uint64_t now = 0;
};

// ---- cartwheel ------------------------------------------------------------------------------

struct CwRec {
    kt4cwTimerLink link;
    uint32_t id;
};

void cw_expired(void *timer) {
    ++fired_count;
    fired_ids += static_cast<CwRec *>(timer)->id;
}

struct Cartwheel {
    explicit Cartwheel(size_t n) : recs(n) {
        cw = kt4cwTimerInit(kSpan, static_cast<int32_t>(n), 1024, nullptr, nullptr, cw_expired,
                            nullptr, 0, sizeof(CwRec));
        ok = cw != nullptr;
        for (size_t i = 0; ok && i < n; ++i) {
            recs[i] = static_cast<CwRec *>(kt4cwGetTimer(cw));
            if (recs[i] == nullptr) {
                ok = false;
                break;
            }
            recs[i]->id = static_cast<uint32_t>(i);
        }
    }
    ~Cartwheel() {
        if (cw == nullptr) return;
        for (CwRec *r : recs)
            if (r != nullptr) kt4cwFreeTimer(cw, r);
        kt4cwTimerUnInit(cw);
    }
    int start(size_t i, uint16_t d) { return kt4cwStartTimer(cw, recs[i], d); }
    int stop(size_t i) { return kt4cwStopTimer(recs[i]); }
    void fire(size_t) {
        for (unsigned t = 0; t < kSpan; ++t)
            kt4cwTimerTick(cw);
    }
    tkt4cwTimerCB *cw;
    std::vector<CwRec *> recs;
    bool ok;
};

// ---- timer library --------------------------------------------------------------------------

void tl_fired(uintptr_t id) {
    ++fired_count;
    fired_ids += id;
}

template <int UseSem> struct TimerLib {
    explicit TimerLib(size_t n) : timers(n) {
        ok = kt4TmrHeadInit(&head, nullptr, nullptr, UseSem, 0) == 0;
        for (size_t i = 0; ok && i < n; ++i) {
            timers[i] = kt4TimerCreate(tl_fired, i, 100000, 0, &head);
            ok = timers[i] != nullptr && kt4TimerDisable(timers[i], &head) == 0;
        }
    }
    ~TimerLib() {
        for (kt4Timer *t : timers)
            if (t != nullptr) kt4TimerDelete(t, &head);
        kt4TmrHeadDestroy(&head);
    }
    int start(size_t i, uint16_t d) { return kt4TickTimerSet(timers[i], 0, d, tl_fired, &head); }
    int stop(size_t i) { return kt4TimerDisable(timers[i], &head); }
    void fire(size_t) {
        uint64_t t = tick64Get() + kSpan;
        tick64Set(static_cast<uint32_t>(t >> 32), static_cast<uint32_t>(t));
        kt4ProcTimers(&head);
    }
    kt4TmrHead head{};
    std::vector<kt4Timer *> timers;
    bool ok = false;
};

// ---- list timer -----------------------------------------------------------------------------

struct LtRec {
    kt4ListTimerNode node;
    uint32_t id;
};

void lt_expired(kt4ListTimerNode *node) {
    ++fired_count;
    fired_ids += reinterpret_cast<LtRec *>(node)->id; // the node begins the record
}

struct ListTimer {
    explicit ListTimer(size_t n) : recs(n) {
        cb = kt4ListTimerNew(nullptr, nullptr, nullptr, lt_expired);
        ok = cb != nullptr;
        for (size_t i = 0; i < n; ++i)
            recs[i].id = static_cast<uint32_t>(i);
    }
    ~ListTimer() {
        if (cb != nullptr) kt4ListTimerDestroy(cb);
    }
    int start(size_t i, uint16_t d) { return kt4ListStartTimer(cb, &recs[i].node, d * 20u); }
    int stop(size_t i) { return kt4ListStopTimer(cb, &recs[i].node); }
    void fire(size_t due) {
        // Ticks arrive "early" here (time is not waited for): each fires the head and the
        // timers within the minimum timeout behind it. Bounded: a tick that fires nothing
        // shows up as a wrong count, not as a hang.
        size_t until = fired_count + due;
        for (size_t ticks = 0; fired_count < until && ticks < due; ++ticks)
            kt4ListTimerTick(cb);
    }
    kt4ListTimerCB *cb;
    std::vector<LtRec> recs;
    bool ok;
};

void BM_Multimap(benchmark::State &s) {
    run<Multimap>(s, "Multimap");
}
void BM_Cartwheel(benchmark::State &s) {
    run<Cartwheel>(s, "Cartwheel");
}
void BM_TimerLib(benchmark::State &s) {
    run<TimerLib<0>>(s, "TimerLib");
}
void BM_TimerLibSem(benchmark::State &s) {
    run<TimerLib<1>>(s, "TimerLibSem");
}
void BM_ListTimer(benchmark::State &s) {
    run<ListTimer>(s, "ListTimer");
}

void sizes(benchmark::internal::Benchmark *b) {
    for (long n : {100L, 1000L, 10000L, 100000L, 1000000L})
        b->Arg(n);
    b->Unit(benchmark::kMillisecond)->MinTime(0.3);
}
void list_sizes(benchmark::internal::Benchmark *b) {
    for (long n : {100L, 300L, 1000L, 3000L, 10000L})
        b->Arg(n);
    b->Unit(benchmark::kMillisecond)->MinTime(0.3);
}

BENCHMARK(BM_Multimap)->Apply(sizes)->Arg(300)->Arg(3000);
BENCHMARK(BM_Cartwheel)->Apply(sizes);
BENCHMARK(BM_TimerLib)->Apply(sizes);
BENCHMARK(BM_TimerLibSem)->Apply(sizes);
BENCHMARK(BM_ListTimer)->Apply(list_sizes);

void summary() {
    const auto &base = results["Multimap"];
    std::printf(
        "\nns per operation (start, stop or fire; 2N per round) and ratio to std::multimap\n");
    std::printf("%-12s %9s %9s %9s %9s %9s %8s\n", "impl", "N", "ns/op", "start", "stop", "fire",
                "ratio");
    for (const char *name : {"Multimap", "Cartwheel", "TimerLib", "TimerLibSem", "ListTimer"}) {
        auto it = results.find(name);
        if (it == results.end()) continue;
        for (const auto &[n, r] : it->second) {
            auto b = base.find(n);
            double ratio = b != base.end() ? r.op / b->second.op : 0.0;
            std::printf("%-12s %9zu %9.1f %9.1f %9.1f %9.1f %8.2f\n", name, n, r.op, r.start,
                        r.stop, r.fire, ratio);
        }
    }
    std::printf("\ngrowth of ns/op from 10k to 1M timers:");
    for (const char *name : {"Multimap", "Cartwheel", "TimerLib", "TimerLibSem"}) {
        const auto &m = results[name];
        auto a = m.find(10000), z = m.find(1000000);
        if (a != m.end() && z != m.end())
            std::printf("  %s x%.2f", name, z->second.op / a->second.op);
    }
    std::printf("\n");
}

} // namespace

int main(int argc, char **argv) {
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    summary();
    if (g_failed) std::fprintf(stderr, "bench_timer: a round failed its checks\n");
    return g_failed ? 1 : 0;
}
