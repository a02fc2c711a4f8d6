// The radix tree against the usual alternative for longest-prefix match: one hash table per
// prefix length, searched from the longest length down (std::unordered_map per length, empty
// lengths skipped).
//
// Tables: 1M IPv4 prefixes with the length mix of a full routing table (mostly /24, then
// /16../23, few shorter) and 100k IPv6 prefixes (mostly /48, then /32../47, some /29../31 and
// /56../64). Measured: insert rate, best-match look-ups over random addresses (most inside the
// table, a fifth anywhere), and version walks: all entries, and the 0.1% changed since a given
// version, where the tree skips the unchanged regions and the baseline must scan everything.
// The nodes come from the tree's default hooks (the checked allocator), as callers get them.
//
// What is timed is checked: every insert must take its own entry; the tree and the baseline
// must give the same best match for every address the look-up loops use (checked before
// anything is timed); and both walks must visit exactly the entries whose version is in range,
// counted from the baseline's copy of the stamps. The changes that the second walk looks for
// are made once, before either side's run, so both sides look for the same ones. A run that
// fails is an error, not a figure; the program then exits non-zero.
#include <kt4/radix.h>

#include <benchmark/benchmark.h>

#include <algorithm>
#include <array>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <vector>

namespace {

constexpr size_t kV4Prefixes = 1000000;
constexpr size_t kV6Prefixes = 100000;
constexpr size_t kLookups = 1 << 20; // addresses per look-up set (a power of two)

struct Route {
    kt4RadixEntry rth;
    uint8_t addr[16];
    int len;
    uint64_t version; // the baseline's copy of the change stamp
};

// ---- table generation ----

int v4_length(std::mt19937_64 &rng) {
    const unsigned p = static_cast<unsigned>(rng() % 1000);
    if (p < 590) return 24;
    if (p < 790) return 22 + static_cast<int>(rng() % 2);
    if (p < 970) return 16 + static_cast<int>(rng() % 6);
    return 8 + static_cast<int>(rng() % 8);
}

int v6_length(std::mt19937_64 &rng) {
    const unsigned p = static_cast<unsigned>(rng() % 1000);
    if (p < 480) return 48;
    if (p < 800) return 32 + static_cast<int>(rng() % 16);
    if (p < 860) return 29 + static_cast<int>(rng() % 3);
    return 56 + static_cast<int>(rng() % 9);
}

void mask_to(uint8_t *a, int len, int bytes) {
    for (int i = 0; i < bytes; ++i) {
        const int keep = std::clamp(len - 8 * i, 0, 8);
        a[i] = static_cast<uint8_t>(a[i] & (0xFF00u >> keep));
    }
}

std::vector<Route> make_routes(size_t n, int bits, uint64_t seed) {
    std::mt19937_64 rng(seed);
    std::vector<Route> v;
    v.reserve(n);
    std::unordered_set<std::string> seen;
    const int bytes = bits / 8;
    while (v.size() < n) {
        Route r{};
        for (int i = 0; i < bytes; i += 8) {
            const uint64_t x = rng();
            std::memcpy(r.addr + i, &x, static_cast<size_t>(std::min(8, bytes - i)));
        }
        if (bits == 128)
            r.addr[0] = static_cast<uint8_t>(0x20 | (r.addr[0] & 0x1F)); // 2000::/3
        else if (r.addr[0] == 0 || r.addr[0] >= 224)
            continue;
        r.len = bits == 32 ? v4_length(rng) : v6_length(rng);
        mask_to(r.addr, r.len, bytes);
        std::string id(reinterpret_cast<char *>(r.addr), static_cast<size_t>(bytes));
        id += static_cast<char>(r.len);
        if (!seen.insert(id).second) continue;
        v.push_back(r);
    }
    for (auto &r : v)
        r.rth.rth_addr = r.addr;
    return v;
}

// Four out of five inside a prefix of the table (random host bits), the rest anywhere.
std::vector<std::array<uint8_t, 16>> make_addresses(const std::vector<Route> &routes, int bits,
                                                    uint64_t seed) {
    std::mt19937_64 rng(seed);
    std::vector<std::array<uint8_t, 16>> v(kLookups);
    const int bytes = bits / 8;
    for (auto &a : v) {
        uint64_t x[2] = {rng(), rng()};
        std::memcpy(a.data(), x, 16);
        if (rng() % 5 != 0) {
            const Route &r = routes[rng() % routes.size()];
            for (int i = 0; i < bytes; ++i) {
                const int keep = std::clamp(r.len - 8 * i, 0, 8);
                const auto m = static_cast<uint8_t>(0xFF00u >> keep);
                a[static_cast<size_t>(i)] =
                    static_cast<uint8_t>((r.addr[i] & m) | (a[static_cast<size_t>(i)] & ~m));
            }
        }
    }
    return v;
}

// ---- the baseline: a hash table per length, longest length first ----

struct Key128 {
    uint64_t hi, lo;
    bool operator==(const Key128 &o) const { return hi == o.hi && lo == o.lo; }
};
struct Hash128 {
    size_t operator()(const Key128 &k) const {
        return std::hash<uint64_t>()(k.hi * 0x9E3779B97F4A7C15ull ^ k.lo);
    }
};

uint32_t v4_word(const uint8_t *a) {
    return static_cast<uint32_t>(a[0]) << 24 | static_cast<uint32_t>(a[1]) << 16 |
           static_cast<uint32_t>(a[2]) << 8 | a[3];
}
Key128 v6_key(const uint8_t *a) {
    Key128 k{0, 0};
    for (int i = 0; i < 8; ++i)
        k.hi = k.hi << 8 | a[i];
    for (int i = 8; i < 16; ++i)
        k.lo = k.lo << 8 | a[i];
    return k;
}
uint32_t v4_mask(int len) {
    return len == 0 ? 0 : ~0u << (32 - len);
}
Key128 v6_mask(const Key128 &k, int len) {
    if (len == 0) return {0, 0};
    if (len <= 64) return {k.hi & (len == 64 ? ~0ull : ~(~0ull >> len)), 0};
    return {k.hi, k.lo & (len == 128 ? ~0ull : ~(~0ull >> (len - 64)))};
}

struct HashV4 {
    std::array<std::unordered_map<uint32_t, Route *>, 33> byLen;
    std::vector<int> lengths; // non-empty, longest first
    bool insert(Route &r) {
        return byLen[static_cast<size_t>(r.len)].try_emplace(v4_word(r.addr), &r).second;
    }
    void finish() {
        lengths.clear();
        for (int l = 32; l >= 0; --l)
            if (!byLen[static_cast<size_t>(l)].empty()) lengths.push_back(l);
    }
    Route *best(const uint8_t *a) const {
        const uint32_t w = v4_word(a);
        for (int l : lengths) {
            const auto &m = byLen[static_cast<size_t>(l)];
            auto it = m.find(w & v4_mask(l));
            if (it != m.end()) return it->second;
        }
        return nullptr;
    }
};

struct HashV6 {
    std::array<std::unordered_map<Key128, Route *, Hash128>, 129> byLen;
    std::vector<int> lengths;
    bool insert(Route &r) {
        return byLen[static_cast<size_t>(r.len)].try_emplace(v6_key(r.addr), &r).second;
    }
    void finish() {
        lengths.clear();
        for (int l = 128; l >= 0; --l)
            if (!byLen[static_cast<size_t>(l)].empty()) lengths.push_back(l);
    }
    Route *best(const uint8_t *a) const {
        const Key128 k = v6_key(a);
        for (int l : lengths) {
            const auto &m = byLen[static_cast<size_t>(l)];
            auto it = m.find(v6_mask(k, l));
            if (it != m.end()) return it->second;
        }
        return nullptr;
    }
};

// ---- node hooks from a bump arena: what a caller with a large table would plug in ----

struct Arena {
    std::vector<std::unique_ptr<char[]>> chunks;
    size_t used = kChunk;
    static constexpr size_t kChunk = 1 << 20;
    void *take(size_t n) {
        n = (n + 15) & ~size_t{15};
        if (used + n > kChunk) {
            chunks.emplace_back(new char[kChunk]);
            used = 0;
        }
        void *p = chunks.back().get() + used;
        used += n;
        return p;
    }
};
Arena g_arena;
void *arena_alloc(size_t n) {
    return g_arena.take(n);
}
void arena_free(void *) {} // the arena goes as a whole

// ---- shared tables, built once ----

struct Data {
    std::vector<Route> v4 = make_routes(kV4Prefixes, 32, 1);
    std::vector<Route> v6 = make_routes(kV6Prefixes, 128, 2);
    std::vector<std::array<uint8_t, 16>> a4 = make_addresses(v4, 32, 3);
    std::vector<std::array<uint8_t, 16>> a6 = make_addresses(v6, 128, 4);
    kt4RadixTree *t4 = nullptr, *t6 = nullptr;
    kt4RadixTree *t4arena = nullptr; // the same IPv4 table with arena nodes (own records)
    std::vector<Route> v4arena;
    HashV4 h4;
    HashV6 h6;
    Data() {
        t4 = kt4RadixCreate("bench-v4", 32, nullptr, nullptr, nullptr);
        t6 = kt4RadixCreate("bench-v6", 128, nullptr, nullptr, nullptr);
        for (auto &r : v4) {
            kt4RadixInsert(t4, &r.rth, r.len);
            h4.insert(r);
        }
        for (auto &r : v6) {
            kt4RadixInsert(t6, &r.rth, r.len);
            h6.insert(r);
        }
        h4.finish();
        h6.finish();
        v4arena = v4;
        t4arena = kt4RadixCreate("bench-v4-arena", 32, arena_alloc, arena_free, nullptr);
        for (auto &r : v4arena) {
            r.rth = kt4RadixEntry{};
            r.rth.rth_addr = r.addr;
            kt4RadixInsert(t4arena, &r.rth, r.len);
        }
        // Every entry changed once (version i + 1): the state after a full download.
        for (auto &r : v4)
            r.version = kt4RadixSetVersion(t4, &r.rth);
        // The answers agree, for every address the look-up loops use, before anything is
        // timed. The arena tree holds copies of the records: its answer is the copy of the
        // baseline's.
        auto arena_copy = [&](const Route *r) -> const void * {
            return r == nullptr ? nullptr : &v4arena[static_cast<size_t>(r - v4.data())];
        };
        for (size_t i = 0; i < kLookups; ++i) {
            const Route *b4 = h4.best(a4[i].data());
            if (static_cast<void *>(kt4RadixGetBest(t4, a4[i].data(), 32)) != b4 ||
                static_cast<const void *>(kt4RadixGetBest(t4arena, a4[i].data(), 32)) !=
                    arena_copy(b4) ||
                static_cast<void *>(kt4RadixGetBest(t6, a6[i].data(), 128)) !=
                    static_cast<void *>(h6.best(a6[i].data()))) {
                std::fprintf(stderr, "radix and hash baseline disagree at %zu\n", i);
                std::abort();
            }
        }
    }
};

Data &data() {
    static Data d;
    return d;
}

// ---- insert ----

// A private copy of the records, keyed on their own bytes.
std::vector<Route> copy_routes(const std::vector<Route> &from) {
    std::vector<Route> v = from;
    for (auto &r : v) {
        r.rth = kt4RadixEntry{};
        r.rth.rth_addr = r.addr;
    }
    return v;
}

bool g_failed = false;

void fail(benchmark::State &state, const std::string &why) {
    state.SkipWithError(why.c_str());
    g_failed = true;
}

bool expect(benchmark::State &state, const char *what, size_t got, size_t want) {
    if (got == want) return true;
    fail(state,
         std::string(what) + ": " + std::to_string(got) + ", expected " + std::to_string(want));
    return false;
}

template <int Bits> void BM_RadixInsert(benchmark::State &state) {
    std::vector<Route> routes = copy_routes(Bits == 32 ? data().v4 : data().v6);
    for (auto _ : state) {
        state.PauseTiming();
        kt4RadixTree *t = kt4RadixCreate("insert", Bits, nullptr, nullptr, nullptr);
        state.ResumeTiming();
        size_t inserted = 0;
        for (auto &r : routes)
            inserted += kt4RadixInsert(t, &r.rth, r.len) == &r.rth;
        state.PauseTiming();
        for (auto &r : routes)
            kt4RadixRemove(t, &r.rth);
        kt4RadixDestroy(t);
        state.ResumeTiming();
        if (!expect(state, "inserted", inserted, routes.size())) break;
    }
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * routes.size()));
}

template <int Bits> void BM_HashInsert(benchmark::State &state) {
    std::vector<Route> routes = copy_routes(Bits == 32 ? data().v4 : data().v6);
    for (auto _ : state) {
        size_t inserted = 0;
        if constexpr (Bits == 32) {
            state.PauseTiming();
            auto h = std::make_unique<HashV4>();
            state.ResumeTiming();
            for (auto &r : routes)
                inserted += h->insert(r);
            h->finish();
            state.PauseTiming();
            h.reset();
            state.ResumeTiming();
        } else {
            state.PauseTiming();
            auto h = std::make_unique<HashV6>();
            state.ResumeTiming();
            for (auto &r : routes)
                inserted += h->insert(r);
            h->finish();
            state.PauseTiming();
            h.reset();
            state.ResumeTiming();
        }
        if (!expect(state, "inserted", inserted, routes.size())) break;
    }
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * routes.size()));
}

// ---- best match ----

template <int Bits> void BM_RadixBest(benchmark::State &state) {
    Data &d = data();
    kt4RadixTree *t = Bits == 32 ? d.t4 : d.t6;
    const auto &addrs = Bits == 32 ? d.a4 : d.a6;
    size_t i = 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(kt4RadixGetBest(t, addrs[i].data(), Bits));
        i = (i + 1) & (kLookups - 1);
    }
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations()));
}

void BM_RadixBestArenaNodes(benchmark::State &state) {
    Data &d = data();
    size_t i = 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(kt4RadixGetBest(d.t4arena, d.a4[i].data(), 32));
        i = (i + 1) & (kLookups - 1);
    }
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations()));
}

template <int Bits> void BM_HashBest(benchmark::State &state) {
    Data &d = data();
    const auto &addrs = Bits == 32 ? d.a4 : d.a6;
    size_t i = 0;
    for (auto _ : state) {
        if constexpr (Bits == 32)
            benchmark::DoNotOptimize(d.h4.best(addrs[i].data()));
        else
            benchmark::DoNotOptimize(d.h6.best(addrs[i].data()));
        i = (i + 1) & (kLookups - 1);
    }
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations()));
}

// ---- version walks over the IPv4 table ----

int count_visit(kt4RadixEntry *, va_list *args) {
    ++*va_arg(*args, size_t *);
    return 0;
}

// The version range a walk asks for and how many entries lie in it. Arg 0: every entry
// (versions from 1); else that many random changes (duplicates folded), made once and shared
// by both sides, whichever runs first.
struct Changes {
    uint64_t min;
    size_t expected;
};

const Changes &changes(size_t changed) {
    static std::map<size_t, Changes> made;
    auto it = made.find(changed);
    if (it != made.end()) return it->second;
    Data &d = data();
    uint64_t min = 1;
    if (changed != 0) {
        std::mt19937_64 rng(5);
        kt4RadixStats st;
        kt4RadixGetStats(d.t4, &st);
        min = st.version + 1;
        for (size_t i = 0; i < changed; ++i) {
            Route &r = d.v4[rng() % d.v4.size()];
            r.version = kt4RadixSetVersion(d.t4, &r.rth);
        }
    }
    size_t expected = 0;
    for (const Route &r : d.v4)
        expected += r.version >= min;
    return made.emplace(changed, Changes{min, expected}).first->second;
}

void BM_RadixVersionWalk(benchmark::State &state) {
    Data &d = data();
    const Changes &c = changes(static_cast<size_t>(state.range(0)));
    size_t visited = 0;
    for (auto _ : state) {
        visited = 0;
        kt4RadixVersionWalk(d.t4, nullptr, count_visit, 0, c.min, UINT64_MAX, nullptr, &visited);
        if (!expect(state, "entries visited", visited, c.expected)) break;
    }
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * visited));
    state.counters["walks/s"] =
        benchmark::Counter(static_cast<double>(state.iterations()), benchmark::Counter::kIsRate);
}

// The baseline has no summary of what changed where: it scans every entry of every length.
void BM_HashVersionScan(benchmark::State &state) {
    Data &d = data();
    const Changes &c = changes(static_cast<size_t>(state.range(0)));
    size_t visited = 0;
    for (auto _ : state) {
        visited = 0;
        for (int l : d.h4.lengths)
            for (auto &kv : d.h4.byLen[static_cast<size_t>(l)])
                if (kv.second->version >= c.min) benchmark::DoNotOptimize(++visited);
        if (!expect(state, "entries visited", visited, c.expected)) break;
    }
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * visited));
    state.counters["walks/s"] =
        benchmark::Counter(static_cast<double>(state.iterations()), benchmark::Counter::kIsRate);
}

BENCHMARK_TEMPLATE(BM_RadixInsert, 32)->Unit(benchmark::kMillisecond)->Iterations(3);
BENCHMARK_TEMPLATE(BM_HashInsert, 32)->Unit(benchmark::kMillisecond)->Iterations(3);
BENCHMARK_TEMPLATE(BM_RadixInsert, 128)->Unit(benchmark::kMillisecond)->Iterations(5);
BENCHMARK_TEMPLATE(BM_HashInsert, 128)->Unit(benchmark::kMillisecond)->Iterations(5);
BENCHMARK_TEMPLATE(BM_RadixBest, 32);
BENCHMARK_TEMPLATE(BM_HashBest, 32);
BENCHMARK(BM_RadixBestArenaNodes);
BENCHMARK_TEMPLATE(BM_RadixBest, 128);
BENCHMARK_TEMPLATE(BM_HashBest, 128);
BENCHMARK(BM_RadixVersionWalk)->Arg(0)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_HashVersionScan)->Arg(0)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_RadixVersionWalk)->Arg(1000)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_HashVersionScan)->Arg(1000)->Unit(benchmark::kMicrosecond);

// Keeps items/s (and walks/s) per benchmark to print the ratios at the end.
class RatioReporter : public benchmark::ConsoleReporter {
  public:
    void ReportRuns(const std::vector<Run> &runs) override {
        ConsoleReporter::ReportRuns(runs);
        for (const Run &r : runs) {
            if (r.error_occurred) continue;
            auto it = r.counters.find("items_per_second");
            if (it != r.counters.end()) rate[r.benchmark_name()] = it->second.value;
            auto w = r.counters.find("walks/s");
            if (w != r.counters.end()) walks[r.benchmark_name()] = w->second.value;
        }
    }
    std::map<std::string, double> rate, walks;
};

void ratio(const RatioReporter &rep, const char *what, const std::string &mine,
           const std::string &base, bool by_walks = false) {
    const auto &m = by_walks ? rep.walks : rep.rate;
    auto a = m.find(mine), b = m.find(base);
    if (a == m.end() || b == m.end() || b->second == 0) return;
    std::printf("  %-40s radix %12.0f/s  hash %12.0f/s  ratio %6.2f\n", what, a->second, b->second,
                a->second / b->second);
}

} // namespace

int main(int argc, char **argv) {
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    data(); // built before any timing
    RatioReporter rep;
    benchmark::RunSpecifiedBenchmarks(&rep);
    std::printf("\nradix tree / per-length hash tables (higher is better for the tree):\n");
    ratio(rep, "insert, 1M IPv4 prefixes", "BM_RadixInsert<32>/iterations:3",
          "BM_HashInsert<32>/iterations:3");
    ratio(rep, "insert, 100k IPv6 prefixes", "BM_RadixInsert<128>/iterations:5",
          "BM_HashInsert<128>/iterations:5");
    ratio(rep, "best match, IPv4 (1M table)", "BM_RadixBest<32>", "BM_HashBest<32>");
    ratio(rep, "best match, IPv4, arena node hooks", "BM_RadixBestArenaNodes", "BM_HashBest<32>");
    ratio(rep, "best match, IPv6 (100k table)", "BM_RadixBest<128>", "BM_HashBest<128>");
    ratio(rep, "version walk, all 1M entries (walks)", "BM_RadixVersionWalk/0",
          "BM_HashVersionScan/0", true);
    ratio(rep, "version walk, 1000 changed of 1M (walks)", "BM_RadixVersionWalk/1000",
          "BM_HashVersionScan/1000", true);
    benchmark::Shutdown();
    if (g_failed) std::fprintf(stderr, "bench_radix: a run failed its checks\n");
    return g_failed ? 1 : 0;
}
