// Block allocation: fixed pools and var pools against glibc malloc/free.
//
// Each iteration is one allocate/free pair with 32 blocks held: the block allocated now, the
// one allocated 32 iterations ago freed, so neither allocator works on a single hot block.
// Sizes 16 to 4096 bytes. Variants:
//   FixedLocked    a fixed pool of the size in a locked partition (shared by all tasks)
//   FixedUnlocked  a fixed pool in a partition of the task's own, lock switched off
//   Var            the var pools of a locked partition (size classes 16..4096)
//   Malloc         glibc malloc/free
// Each runs in one task and in two tasks at once (the locked ones share the partition; the
// unlocked one gives each task its own). The summary prints ns per pair (wall time, as each
// task sees it, and CPU time of each task) and malloc's time divided by each pool's.
//
// Each block carries the number of the iteration that allocated it, checked when it is freed
// 32 iterations later: two live blocks that overlap, or a refused free, fail the run (an
// error, not a figure; the program then exits non-zero). Both sides pay the same store, load
// and compare.
#include <kt4/mem.h>

#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <string>
#include <vector>

namespace {

constexpr int kSizes[] = {16, 64, 256, 1024, 4096};
constexpr int kHeld = 32;
constexpr int kPartLocked = 1;
constexpr int kPartOwn0 = 2; // unlocked, one per benchmark thread
constexpr int kPartVar = 4;

int sizeIndex(int size) {
    for (int i = 0; i < 5; ++i)
        if (kSizes[i] == size) return i;
    return 0;
}

bool g_failed = false;

// false (with the failing call on the console) when a partition or pool could not be set up:
// an unlocked partition left locked would measure the locked one under the other's name.
bool setUpPools() {
    bool ok = true;
    auto check = [&](int rc, const char *what, int id) {
        if (rc != 0) {
            std::fprintf(stderr, "bench_mem: %s %d failed (%d)\n", what, id, rc);
            ok = false;
        }
    };
    check(kt4_memPartFixedInit(kPartLocked, 5), "kt4_memPartFixedInit", kPartLocked);
    for (int t = 0; t < 2; ++t) {
        check(kt4_memPartFixedInit(kPartOwn0 + t, 5), "kt4_memPartFixedInit", kPartOwn0 + t);
        check(kt4_memPartSetLocking(kPartOwn0 + t, FALSE), "kt4_memPartSetLocking", kPartOwn0 + t);
    }
    for (int i = 0; i < 5; ++i) {
        const uint32_t sz = static_cast<uint32_t>(kSizes[i]);
        const int locked = KT4_MEM_POOL_ID(kPartLocked, i);
        check(M_memPoolCreate("bench", locked, sz) < 0 ? -1 : 0, "M_memPoolCreate", locked);
        for (int t = 0; t < 2; ++t) {
            const int own = KT4_MEM_POOL_ID(kPartOwn0 + t, i);
            check(M_memPoolCreate("bench", own, sz) < 0 ? -1 : 0, "M_memPoolCreate", own);
        }
    }
    const uint32_t classes[] = {16, 64, 256, 1024, 4096};
    check(kt4_memPartVarInit(kPartVar, "bench", classes, 5), "kt4_memPartVarInit", kPartVar);
    return ok;
}

template <typename Alloc, typename Free>
void run(benchmark::State &state, Alloc alloc, Free release) {
    void *held[kHeld] = {};
    unsigned i = 0;
    size_t bad = 0; // blocks found overwritten, frees refused
    for (auto _ : state) {
        void *&slot = held[i % kHeld];
        if (slot != nullptr) {
            unsigned tag;
            std::memcpy(&tag, slot, sizeof tag);
            bad += tag != i - kHeld;
            bad += release(slot) != OK;
        }
        slot = alloc();
        if (slot == nullptr) {
            state.SkipWithError("allocation failed");
            g_failed = true;
            break;
        }
        benchmark::DoNotOptimize(slot);
        std::memcpy(slot, &i, sizeof i);
        ++i;
    }
    for (void *p : held)
        if (p != nullptr) release(p);
    if (bad != 0 && !state.error_occurred()) {
        char why[96];
        std::snprintf(why, sizeof why, "%zu blocks overwritten while held or frees refused", bad);
        state.SkipWithError(why);
        g_failed = true;
    }
}

void FixedLocked(benchmark::State &state) {
    const uint32_t size = static_cast<uint32_t>(state.range(0));
    const int pool = KT4_MEM_POOL_ID(kPartLocked, sizeIndex(static_cast<int>(size)));
    run(
        state, [&] { return M_memBlockAlloc(__FILE__, __LINE__, size, pool); },
        [](void *p) { return M_memBlockFree(__FILE__, __LINE__, p); });
}

void FixedUnlocked(benchmark::State &state) {
    const uint32_t size = static_cast<uint32_t>(state.range(0));
    const int pool =
        KT4_MEM_POOL_ID(kPartOwn0 + state.thread_index(), sizeIndex(static_cast<int>(size)));
    run(
        state, [&] { return M_memBlockAlloc(__FILE__, __LINE__, size, pool); },
        [](void *p) { return M_memBlockFree(__FILE__, __LINE__, p); });
}

void Var(benchmark::State &state) {
    const uint32_t size = static_cast<uint32_t>(state.range(0));
    run(
        state, [&] { return M_memBlockVarAlloc(__FILE__, __LINE__, size, kPartVar); },
        [](void *p) { return M_memBlockVarFree(__FILE__, __LINE__, p, kPartVar); });
}

void Malloc(benchmark::State &state) {
    const size_t size = static_cast<size_t>(state.range(0));
    run(
        state, [&] { return std::malloc(size); },
        [](void *p) {
            std::free(p);
            return OK;
        });
}

void sizes(benchmark::internal::Benchmark *b) {
    for (int s : kSizes)
        b->Arg(s);
    b->UseRealTime();
}

BENCHMARK(FixedLocked)->Apply(sizes)->Threads(1)->Threads(2);
BENCHMARK(FixedUnlocked)->Apply(sizes)->Threads(1)->Threads(2);
BENCHMARK(Var)->Apply(sizes)->Threads(1)->Threads(2);
BENCHMARK(Malloc)->Apply(sizes)->Threads(1)->Threads(2);

// Keeps every run's times for the summary.
class Collect : public benchmark::ConsoleReporter {
  public:
    std::map<std::string, std::pair<double, double>> ns; // name -> (wall, cpu) ns per pair
    void ReportRuns(const std::vector<Run> &runs) override {
        for (const Run &r : runs)
            if (r.run_type == Run::RT_Iteration && !r.error_occurred)
                ns[r.benchmark_name()] = {r.GetAdjustedRealTime(), r.GetAdjustedCPUTime()};
        ConsoleReporter::ReportRuns(runs);
    }
};

void table(const Collect &c, bool cpu) {
    std::printf("\nns per allocate/free pair, %s; ratio = malloc / pool (above 1: pool faster)\n",
                cpu ? "CPU time of each task" : "wall time as each task sees it");
    std::printf("%5s %5s | %11s %11s %11s %11s | %7s %7s %7s\n", "size", "tasks", "FixedLocked",
                "FixedUnlock", "Var", "Malloc", "xLocked", "xUnlock", "xVar");
    for (int threads : {1, 2}) {
        for (int s : kSizes) {
            auto get = [&](const char *v) {
                std::string key = std::string(v) + "/" + std::to_string(s) +
                                  "/real_time/threads:" + std::to_string(threads);
                auto it = c.ns.find(key);
                if (it == c.ns.end()) return 0.0;
                return cpu ? it->second.second : it->second.first;
            };
            double fl = get("FixedLocked"), fu = get("FixedUnlocked"), va = get("Var"),
                   ma = get("Malloc");
            auto ratio = [&](double x) { return x > 0 ? ma / x : 0.0; };
            std::printf("%5d %5d | %11.1f %11.1f %11.1f %11.1f | %7.2f %7.2f %7.2f\n", s, threads,
                        fl, fu, va, ma, ratio(fl), ratio(fu), ratio(va));
        }
    }
}

} // namespace

int main(int argc, char **argv) {
    if (!setUpPools()) return 1;
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    Collect reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    table(reporter, false);
    table(reporter, true);
    benchmark::Shutdown();
    if (g_failed) std::fprintf(stderr, "bench_mem: a run failed its checks\n");
    return g_failed ? 1 : 0;
}
