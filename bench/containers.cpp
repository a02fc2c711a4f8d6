// Containers against their standard-library baselines, on one million random 32-bit keys.
//
//   red-black tree  insert / find / erase   vs std::map<key, record*> and std::multiset<record*>
//                                           (the multiset reads the key through the record, as
//                                           the tree does)
//   AVL tree        insert / find / erase   vs std::map
//   hash table      insert / find / erase   vs std::unordered_map (bucket id from kt4HashGetKey)
//   free indexes    get / release           vs a std::set of free ids
//
// Each benchmark times one phase over all keys and reports ns per operation; the table printed
// at the end gives each container's time over its baseline's. Every phase counts what it
// achieved (entries inserted, keys found with the right record, entries removed, ids handed
// out in the expected order) and checks the count after the phase: a phase that did less than
// it claims is an error, not a figure, and the program then exits non-zero. The checks are the
// same cheap compare on both sides of a pair, and they consume every result.
#include <kt4/containers.h>

#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <map>
#include <random>
#include <set>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <vector>

namespace {

constexpr size_t kKeys = 1'000'000;

struct Rec {
    uint32_t key;
    uint32_t value;
};

struct Data {
    std::vector<uint32_t> keys;  // distinct random keys, insertion order
    std::vector<uint32_t> probe; // the same keys in another random order
    Data() {
        std::mt19937 rng(42);
        std::unordered_set<uint32_t> seen;
        keys.reserve(kKeys);
        while (keys.size() < kKeys) {
            uint32_t k = static_cast<uint32_t>(rng());
            if (seen.insert(k).second) keys.push_back(k);
        }
        probe = keys;
        std::shuffle(probe.begin(), probe.end(), rng);
    }
};

const Data &data() {
    static const Data d;
    return d;
}

std::vector<Rec> make_records() {
    std::vector<Rec> r(kKeys);
    for (size_t i = 0; i < kKeys; ++i)
        r[i] = Rec{data().keys[i], static_cast<uint32_t>(i)};
    return r;
}

bool g_failed = false;

// Checks a phase's count after the phase; false (and the run marked failed) when it is off.
bool expect(benchmark::State &state, const char *what, size_t got, size_t want) {
    if (got == want) return true;
    char why[128];
    std::snprintf(why, sizeof why, "%s: %zu, expected %zu", what, got, want);
    state.SkipWithError(why);
    g_failed = true;
    return false;
}

// Times one phase per iteration and gives ns per key. The figure is the thread's CPU time:
// the machine is shared, and wall time would charge us for other processes' turns. The wall
// time of the phase is what the iteration reports.
class Phase {
  public:
    explicit Phase(benchmark::State &state) : state_(state) {}
    template <typename Body> void time(Body &&body) {
        const double c0 = cpu_now();
        auto t0 = std::chrono::steady_clock::now();
        body();
        const double dt =
            std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
        cpu_ += cpu_now() - c0;
        state_.SetIterationTime(dt);
    }
    void finish(size_t ops) {
        if (state_.error_occurred()) return; // a failed run gives no figure
        const double n = static_cast<double>(state_.iterations()) * static_cast<double>(ops);
        state_.counters["ns/op"] = n > 0 ? cpu_ * 1e9 / n : 0;
    }

  private:
    static double cpu_now() {
        timespec ts;
        clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
        return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) * 1e-9;
    }
    benchmark::State &state_;
    double cpu_ = 0;
};

// ---- red-black tree -----------------------------------------------------------------------

// A caller node pool: nodes laid out back to back, as a protocol that sizes its table does.
struct NodePool {
    static inline std::vector<kt4RBTreeNode> nodes;
    static inline std::vector<void *> free_list;
    static void reset() {
        nodes.assign(kKeys, kt4RBTreeNode{});
        free_list.clear();
        free_list.reserve(kKeys);
        for (size_t i = kKeys; i-- > 0;)
            free_list.push_back(&nodes[i]);
    }
    static void *alloc(size_t) {
        void *p = free_list.back();
        free_list.pop_back();
        return p;
    }
    static void release(void *p) { free_list.push_back(p); }
};

kt4RBTree *build_rb(std::vector<Rec> &recs, bool pool) {
    if (pool) NodePool::reset();
    kt4RBTree *t = kt4RBTreeCreate("bench", 0, 4, pool ? NodePool::alloc : nullptr,
                                   pool ? NodePool::release : nullptr, _RBTCompareUL);
    for (auto &r : recs)
        kt4RBTreeInsert(t, &r);
    return t;
}

void drain_rb(kt4RBTree *t) {
    while (void *r = kt4RBTreeGetFirst(t))
        kt4RBTreeRemove(t, r);
    kt4RBTreeDestroy(t);
}

void BM_RBTree_Insert(benchmark::State &state) {
    Phase ph(state);
    const bool pool = state.range(0) != 0;
    auto recs = make_records();
    for (auto _ : state) {
        if (pool) NodePool::reset();
        kt4RBTree *t = kt4RBTreeCreate("bench", 0, 4, pool ? NodePool::alloc : nullptr,
                                       pool ? NodePool::release : nullptr, _RBTCompareUL);
        size_t inserted = 0;
        ph.time([&] {
            for (auto &r : recs)
                inserted += kt4RBTreeInsert(t, &r) == 1;
        });
        drain_rb(t);
        if (!expect(state, "inserted", inserted, kKeys)) break;
    }
    ph.finish(kKeys);
}

void BM_RBTree_Find(benchmark::State &state) {
    Phase ph(state);
    const bool pool = state.range(0) != 0;
    auto recs = make_records();
    kt4RBTree *t = build_rb(recs, pool);
    for (auto _ : state) {
        size_t found = 0;
        ph.time([&] {
            Rec probe{0, 0};
            for (uint32_t k : data().probe) {
                probe.key = k;
                auto *r = static_cast<Rec *>(kt4RBTreeGetExact(t, &probe));
                found += r != nullptr && r->key == k;
            }
        });
        if (!expect(state, "found", found, kKeys)) break;
    }
    drain_rb(t);
    ph.finish(kKeys);
}

void BM_RBTree_Erase(benchmark::State &state) {
    Phase ph(state);
    const bool pool = state.range(0) != 0;
    auto recs = make_records();
    for (auto _ : state) {
        kt4RBTree *t = build_rb(recs, pool);
        size_t removed = 0;
        ph.time([&] {
            Rec probe{0, 0};
            for (uint32_t k : data().probe) {
                probe.key = k;
                auto *r = static_cast<Rec *>(kt4RBTreeRemove(t, &probe));
                removed += r != nullptr && r->key == k;
            }
        });
        const bool empty = kt4RBTreeGetFirst(t) == nullptr;
        if (!empty)
            drain_rb(t);
        else
            kt4RBTreeDestroy(t);
        if (!expect(state, "removed", removed, kKeys) || !expect(state, "left over", !empty, 0))
            break;
    }
    ph.finish(kKeys);
}

void BM_StdMap_Insert(benchmark::State &state) {
    Phase ph(state);
    auto recs = make_records();
    for (auto _ : state) {
        std::map<uint32_t, Rec *> m;
        size_t inserted = 0;
        ph.time([&] {
            for (auto &r : recs)
                inserted += m.emplace(r.key, &r).second;
        });
        if (!expect(state, "inserted", inserted, kKeys)) break;
    }
    ph.finish(kKeys);
}

void BM_StdMap_Find(benchmark::State &state) {
    Phase ph(state);
    auto recs = make_records();
    std::map<uint32_t, Rec *> m;
    for (auto &r : recs)
        m.emplace(r.key, &r);
    for (auto _ : state) {
        size_t found = 0;
        ph.time([&] {
            for (uint32_t k : data().probe) {
                auto it = m.find(k);
                found += it != m.end() && it->second->key == k;
            }
        });
        if (!expect(state, "found", found, kKeys)) break;
    }
    ph.finish(kKeys);
}

void BM_StdMap_Erase(benchmark::State &state) {
    Phase ph(state);
    auto recs = make_records();
    for (auto _ : state) {
        std::map<uint32_t, Rec *> m;
        for (auto &r : recs)
            m.emplace(r.key, &r);
        size_t removed = 0;
        ph.time([&] {
            for (uint32_t k : data().probe)
                removed += m.erase(k);
        });
        if (!expect(state, "removed", removed, kKeys) || !expect(state, "left over", m.size(), 0))
            break;
    }
    ph.finish(kKeys);
}

struct ByKey {
    using is_transparent = void;
    bool operator()(const Rec *a, const Rec *b) const { return a->key < b->key; }
};
using RecSet = std::multiset<Rec *, ByKey>;

void BM_StdMultiset_Insert(benchmark::State &state) {
    Phase ph(state);
    auto recs = make_records();
    for (auto _ : state) {
        RecSet s;
        ph.time([&] {
            for (auto &r : recs)
                s.insert(&r);
        });
        if (!expect(state, "inserted", s.size(), kKeys)) break;
    }
    ph.finish(kKeys);
}

void BM_StdMultiset_Find(benchmark::State &state) {
    Phase ph(state);
    auto recs = make_records();
    RecSet s;
    for (auto &r : recs)
        s.insert(&r);
    for (auto _ : state) {
        size_t found = 0;
        ph.time([&] {
            Rec probe{0, 0};
            for (uint32_t k : data().probe) {
                probe.key = k;
                auto it = s.find(&probe);
                found += it != s.end() && (*it)->key == k;
            }
        });
        if (!expect(state, "found", found, kKeys)) break;
    }
    ph.finish(kKeys);
}

void BM_StdMultiset_Erase(benchmark::State &state) {
    Phase ph(state);
    auto recs = make_records();
    for (auto _ : state) {
        RecSet s;
        for (auto &r : recs)
            s.insert(&r);
        size_t removed = 0;
        ph.time([&] {
            Rec probe{0, 0};
            for (uint32_t k : data().probe) {
                probe.key = k;
                auto it = s.find(&probe);
                if (it == s.end()) continue;
                s.erase(it);
                ++removed;
            }
        });
        if (!expect(state, "removed", removed, kKeys) || !expect(state, "left over", s.size(), 0))
            break;
    }
    ph.finish(kKeys);
}

// ---- AVL tree -------------------------------------------------------------------------------

struct AvlRec {
    kt4AvlNode node;
    unsigned char key[4]; // big-endian, so that byte order is numeric order
};

std::vector<AvlRec> make_avl_records() {
    std::vector<AvlRec> v(kKeys);
    for (size_t i = 0; i < kKeys; ++i) {
        const uint32_t be = __builtin_bswap32(data().keys[i]);
        std::memcpy(v[i].key, &be, 4);
    }
    return v;
}

void count_node(kt4AvlNode *, void *arg) {
    ++*static_cast<size_t *>(arg);
}

size_t avl_size(kt4AvlNode *root) {
    size_t n = 0;
    TREE_FORWARD_APPLY_ALL(root, count_node, &n);
    return n;
}

kt4AvlCb avl_cb() {
    kt4AvlCb cb{};
    kt4Be32Set(&cb.avl_keylen, 4);
    return cb;
}

void BM_Avl_Insert(benchmark::State &state) {
    Phase ph(state);
    auto recs = make_avl_records();
    kt4AvlCb cb = avl_cb();
    for (auto _ : state) {
        kt4AvlNode *root = nullptr;
        size_t inserted = 0;
        ph.time([&] {
            for (auto &r : recs)
                inserted += kt4AvlInsertNode(&cb, &r.node, &root) == &r.node;
        });
        // The records are inserted again next round over the links of this one: the walk
        // shows that the tree really holds every node.
        if (!expect(state, "inserted", inserted, kKeys) ||
            !expect(state, "nodes in the tree", avl_size(root), kKeys))
            break;
    }
    ph.finish(kKeys);
}

void BM_Avl_Find(benchmark::State &state) {
    Phase ph(state);
    auto recs = make_avl_records();
    kt4AvlCb cb = avl_cb();
    kt4AvlNode *root = nullptr;
    for (auto &r : recs)
        kt4AvlInsertNode(&cb, &r.node, &root);
    for (auto _ : state) {
        size_t found = 0;
        ph.time([&] {
            for (uint32_t k : data().probe) {
                const uint32_t be = __builtin_bswap32(k);
                auto *n = reinterpret_cast<AvlRec *>(kt4AvlGetExact(&cb, &be, &root));
                found += n != nullptr && std::memcmp(n->key, &be, 4) == 0;
            }
        });
        if (!expect(state, "found", found, kKeys)) break;
    }
    ph.finish(kKeys);
}

void BM_Avl_Erase(benchmark::State &state) {
    Phase ph(state);
    auto recs = make_avl_records();
    kt4AvlCb cb = avl_cb();
    for (auto _ : state) {
        kt4AvlNode *root = nullptr;
        for (auto &r : recs)
            kt4AvlInsertNode(&cb, &r.node, &root);
        ph.time([&] {
            AvlRec probe{};
            for (uint32_t k : data().probe) {
                const uint32_t be = __builtin_bswap32(k);
                std::memcpy(probe.key, &be, 4);
                kt4AvlRemoveNode(&cb, &probe.node, &root);
            }
        });
        // Removal returns nothing: an empty tree afterwards shows every key was removed.
        if (!expect(state, "left over", avl_size(root), 0)) break;
    }
    ph.finish(kKeys);
}

// ---- hash table -----------------------------------------------------------------------------

struct HashRec {
    kt4DLLLink link;
    uint32_t key;
};

int match_key(kt4DLLLink *e, va_list *args) {
    return KT4_CONTAINER_OF(e, HashRec, link)->key == va_arg(*args, uint32_t) ? 0 : 1;
}

// The checksum gives at most 65536 distinct bucket ids, whatever the table size.
constexpr uint32_t kBuckets = 65536;

std::vector<HashRec> make_hash_records() {
    std::vector<HashRec> v(kKeys);
    for (size_t i = 0; i < kKeys; ++i)
        v[i] = HashRec{{nullptr, nullptr}, data().keys[i]};
    return v;
}

void fill_hash(kt4HashTable *h, std::vector<HashRec> &recs) {
    for (auto &r : recs)
        kt4HashInsertAtBack(h, kt4HashGetKey(h, &r.key, 4), &r.link);
}

void BM_Hash_Insert(benchmark::State &state) {
    Phase ph(state);
    auto recs = make_hash_records();
    for (auto _ : state) {
        kt4HashTable *h = kt4HashCreate(kBuckets, nullptr, nullptr);
        ph.time([&] { fill_hash(h, recs); });
        uint32_t total = 0, depth, inserts, maxDepth;
        kt4HashStat(h, 0, &total, &depth, &inserts, &maxDepth);
        kt4HashInit(h);
        kt4HashDestroy(h);
        if (!expect(state, "entries in the table", total, kKeys)) break;
    }
    ph.finish(kKeys);
}

void BM_Hash_Find(benchmark::State &state) {
    Phase ph(state);
    auto recs = make_hash_records();
    kt4HashTable *h = kt4HashCreate(kBuckets, nullptr, nullptr);
    fill_hash(h, recs);
    for (auto _ : state) {
        size_t found = 0;
        ph.time([&] {
            kt4HashBucket *cur;
            for (uint32_t k : data().probe) {
                kt4DLLLink *e = kt4HashFind(h, &cur, kt4HashGetKey(h, &k, 4), match_key, k);
                found += e != nullptr && KT4_CONTAINER_OF(e, HashRec, link)->key == k;
            }
        });
        if (!expect(state, "found", found, kKeys)) break;
    }
    kt4HashInit(h);
    kt4HashDestroy(h);
    ph.finish(kKeys);
}

void BM_Hash_Erase(benchmark::State &state) {
    Phase ph(state);
    auto recs = make_hash_records();
    for (auto _ : state) {
        kt4HashTable *h = kt4HashCreate(kBuckets, nullptr, nullptr);
        fill_hash(h, recs);
        size_t removed = 0;
        ph.time([&] {
            kt4HashBucket *cur;
            for (uint32_t k : data().probe) {
                kt4DLLLink *e = kt4HashFind(h, &cur, kt4HashGetKey(h, &k, 4), match_key, k);
                if (e == nullptr) continue;
                kt4HashRemove(h, &cur, e);
                ++removed;
            }
        });
        uint32_t total = 0, depth, inserts, maxDepth;
        kt4HashStat(h, 0, &total, &depth, &inserts, &maxDepth);
        if (total != 0) kt4HashInit(h);
        kt4HashDestroy(h);
        if (!expect(state, "removed", removed, kKeys) || !expect(state, "left over", total, 0))
            break;
    }
    ph.finish(kKeys);
}

void BM_StdUnorderedMap_Insert(benchmark::State &state) {
    Phase ph(state);
    auto recs = make_hash_records();
    for (auto _ : state) {
        std::unordered_map<uint32_t, HashRec *> m;
        size_t inserted = 0;
        ph.time([&] {
            for (auto &r : recs)
                inserted += m.emplace(r.key, &r).second;
        });
        if (!expect(state, "inserted", inserted, kKeys)) break;
    }
    ph.finish(kKeys);
}

void BM_StdUnorderedMap_Find(benchmark::State &state) {
    Phase ph(state);
    auto recs = make_hash_records();
    std::unordered_map<uint32_t, HashRec *> m;
    for (auto &r : recs)
        m.emplace(r.key, &r);
    for (auto _ : state) {
        size_t found = 0;
        ph.time([&] {
            for (uint32_t k : data().probe) {
                auto it = m.find(k);
                found += it != m.end() && it->second->key == k;
            }
        });
        if (!expect(state, "found", found, kKeys)) break;
    }
    ph.finish(kKeys);
}

void BM_StdUnorderedMap_Erase(benchmark::State &state) {
    Phase ph(state);
    auto recs = make_hash_records();
    for (auto _ : state) {
        std::unordered_map<uint32_t, HashRec *> m;
        for (auto &r : recs)
            m.emplace(r.key, &r);
        size_t removed = 0;
        ph.time([&] {
            for (uint32_t k : data().probe)
                removed += m.erase(k);
        });
        if (!expect(state, "removed", removed, kKeys) || !expect(state, "left over", m.size(), 0))
            break;
    }
    ph.finish(kKeys);
}

// ---- free indexes ---------------------------------------------------------------------------
//
// Get: hand out all ids of [1, 1M]. Release: give them back in ascending order. Churn: with
// `range(0)` ids free and scattered, release a random used id and get the lowest free one;
// release walks the free ranges, so its cost follows how fragmented the free ids are.

void BM_FreeIndex_Get(benchmark::State &state) {
    Phase ph(state);
    for (auto _ : state) {
        kt4FreeIndexList l;
        kt4FreeIndexListInit(1, kKeys, kt4FreeIndexMalloc, kt4FreeIndexFree, &l);
        size_t inOrder = 0; // ids handed out lowest first: 1, 2, 3, ...
        ph.time([&] {
            uint32_t id;
            for (size_t i = 0; i < kKeys; ++i)
                inOrder += kt4FreeIndexGet(&l, &id) == 0 && id == i + 1;
        });
        kt4FreeIndexListDestroy(&l);
        if (!expect(state, "ids handed out in order", inOrder, kKeys)) break;
    }
    ph.finish(kKeys);
}

void BM_FreeIndex_Release(benchmark::State &state) {
    Phase ph(state);
    for (auto _ : state) {
        kt4FreeIndexList l;
        kt4FreeIndexListInit(1, kKeys, kt4FreeIndexMalloc, kt4FreeIndexFree, &l);
        uint32_t id;
        for (size_t i = 0; i < kKeys; ++i)
            kt4FreeIndexGet(&l, &id);
        size_t released = 0;
        ph.time([&] {
            for (uint32_t i = 1; i <= kKeys; ++i)
                released += kt4FreeIndexRelease(&l, i) == 0;
        });
        kt4FreeIndexListDestroy(&l);
        if (!expect(state, "released", released, kKeys)) break;
    }
    ph.finish(kKeys);
}

constexpr size_t kChurnOps = 100'000;

// A random sequence of ids to release, set up so that each is in use when released.
struct Churn {
    std::vector<uint32_t> initially_free;
    std::vector<uint32_t> releases;
    uint64_t gotSum = 0; // sum of the ids the gets return
    explicit Churn(size_t free_count) {
        std::mt19937 rng(9);
        std::vector<uint32_t> ids(kKeys);
        for (uint32_t i = 0; i < kKeys; ++i)
            ids[i] = i + 1;
        std::shuffle(ids.begin(), ids.end(), rng);
        initially_free.assign(ids.begin(), ids.begin() + static_cast<long>(free_count));
        // Simulate: each step releases a random used id, then the lowest free id is taken.
        std::set<uint32_t> free_set(initially_free.begin(), initially_free.end());
        releases.reserve(kChurnOps);
        while (releases.size() < kChurnOps) {
            uint32_t id = static_cast<uint32_t>(rng() % kKeys) + 1;
            if (free_set.count(id)) continue;
            releases.push_back(id);
            free_set.insert(id);
            gotSum += *free_set.begin();
            free_set.erase(free_set.begin());
        }
    }
};

void BM_FreeIndex_Churn(benchmark::State &state) {
    Phase ph(state);
    Churn churn(static_cast<size_t>(state.range(0)));
    for (auto _ : state) {
        kt4FreeIndexList l;
        kt4FreeIndexListInit(1, kKeys, kt4FreeIndexMalloc, kt4FreeIndexFree, &l);
        uint32_t id;
        for (size_t i = 0; i < kKeys; ++i)
            kt4FreeIndexGet(&l, &id);
        for (uint32_t f : churn.initially_free)
            kt4FreeIndexRelease(&l, f);
        size_t done = 0;
        uint64_t gotSum = 0;
        ph.time([&] {
            for (uint32_t r : churn.releases) {
                done += kt4FreeIndexRelease(&l, r) == 0 && kt4FreeIndexGet(&l, &id) == 0;
                gotSum += id;
            }
        });
        kt4FreeIndexListDestroy(&l);
        if (!expect(state, "release/get pairs", done, kChurnOps) ||
            !expect(state, "sum of the ids got", gotSum, churn.gotSum))
            break;
    }
    ph.finish(kChurnOps);
}

void BM_StdSet_Get(benchmark::State &state) {
    Phase ph(state);
    for (auto _ : state) {
        std::set<uint32_t> s;
        for (uint32_t i = 1; i <= kKeys; ++i)
            s.insert(s.end(), i);
        size_t inOrder = 0;
        ph.time([&] {
            for (size_t i = 0; i < kKeys; ++i) {
                inOrder += *s.begin() == i + 1;
                s.erase(s.begin());
            }
        });
        if (!expect(state, "ids handed out in order", inOrder, kKeys)) break;
    }
    ph.finish(kKeys);
}

void BM_StdSet_Release(benchmark::State &state) {
    Phase ph(state);
    for (auto _ : state) {
        std::set<uint32_t> s;
        size_t released = 0;
        ph.time([&] {
            for (uint32_t i = 1; i <= kKeys; ++i)
                released += s.insert(i).second;
        });
        if (!expect(state, "released", released, kKeys)) break;
    }
    ph.finish(kKeys);
}

void BM_StdSet_Churn(benchmark::State &state) {
    Phase ph(state);
    Churn churn(static_cast<size_t>(state.range(0)));
    for (auto _ : state) {
        std::set<uint32_t> s(churn.initially_free.begin(), churn.initially_free.end());
        size_t done = 0;
        uint64_t gotSum = 0;
        ph.time([&] {
            for (uint32_t r : churn.releases) {
                done += s.insert(r).second;
                gotSum += *s.begin();
                s.erase(s.begin());
            }
        });
        if (!expect(state, "release/get pairs", done, kChurnOps) ||
            !expect(state, "sum of the ids got", gotSum, churn.gotSum))
            break;
    }
    ph.finish(kChurnOps);
}

#define KT4_BENCH(fn) BENCHMARK(fn)->UseManualTime()->Unit(benchmark::kMillisecond)->Iterations(3)
KT4_BENCH(BM_RBTree_Insert)->Arg(0)->Arg(1);
KT4_BENCH(BM_RBTree_Find)->Arg(0)->Arg(1);
KT4_BENCH(BM_RBTree_Erase)->Arg(0)->Arg(1);
KT4_BENCH(BM_StdMap_Insert);
KT4_BENCH(BM_StdMap_Find);
KT4_BENCH(BM_StdMap_Erase);
KT4_BENCH(BM_StdMultiset_Insert);
KT4_BENCH(BM_StdMultiset_Find);
KT4_BENCH(BM_StdMultiset_Erase);
KT4_BENCH(BM_Avl_Insert);
KT4_BENCH(BM_Avl_Find);
KT4_BENCH(BM_Avl_Erase);
KT4_BENCH(BM_Hash_Insert);
KT4_BENCH(BM_Hash_Find);
KT4_BENCH(BM_Hash_Erase);
KT4_BENCH(BM_StdUnorderedMap_Insert);
KT4_BENCH(BM_StdUnorderedMap_Find);
KT4_BENCH(BM_StdUnorderedMap_Erase);
KT4_BENCH(BM_FreeIndex_Get);
KT4_BENCH(BM_FreeIndex_Release);
KT4_BENCH(BM_FreeIndex_Churn)->Arg(100)->Arg(10000);
KT4_BENCH(BM_StdSet_Get);
KT4_BENCH(BM_StdSet_Release);
KT4_BENCH(BM_StdSet_Churn)->Arg(100)->Arg(10000);

// Collects ns/op per benchmark name for the ratio table.
class RatioReporter : public benchmark::ConsoleReporter {
  public:
    void ReportRuns(const std::vector<Run> &runs) override {
        for (const Run &r : runs) {
            if (r.error_occurred) continue;
            auto it = r.counters.find("ns/op");
            if (it == r.counters.end()) continue;
            std::string name = r.run_name.function_name;
            if (!r.run_name.args.empty()) name += "/" + r.run_name.args;
            ns_[name] = it->second.value;
        }
        ConsoleReporter::ReportRuns(runs);
    }
    void Finalize() override {
        ConsoleReporter::Finalize();
        const char *pairs[][2] = {
            {"BM_RBTree_Insert/0", "BM_StdMap_Insert"},
            {"BM_RBTree_Insert/0", "BM_StdMultiset_Insert"},
            {"BM_RBTree_Insert/1", "BM_StdMap_Insert"},
            {"BM_RBTree_Find/0", "BM_StdMap_Find"},
            {"BM_RBTree_Find/0", "BM_StdMultiset_Find"},
            {"BM_RBTree_Find/1", "BM_StdMap_Find"},
            {"BM_RBTree_Find/1", "BM_StdMultiset_Find"},
            {"BM_RBTree_Erase/0", "BM_StdMap_Erase"},
            {"BM_RBTree_Erase/0", "BM_StdMultiset_Erase"},
            {"BM_RBTree_Erase/1", "BM_StdMap_Erase"},
            {"BM_Avl_Insert", "BM_StdMap_Insert"},
            {"BM_Avl_Find", "BM_StdMap_Find"},
            {"BM_Avl_Erase", "BM_StdMap_Erase"},
            {"BM_Hash_Insert", "BM_StdUnorderedMap_Insert"},
            {"BM_Hash_Find", "BM_StdUnorderedMap_Find"},
            {"BM_Hash_Erase", "BM_StdUnorderedMap_Erase"},
            {"BM_FreeIndex_Get", "BM_StdSet_Get"},
            {"BM_FreeIndex_Release", "BM_StdSet_Release"},
            {"BM_FreeIndex_Churn/100", "BM_StdSet_Churn/100"},
            {"BM_FreeIndex_Churn/10000", "BM_StdSet_Churn/10000"},
        };
        std::printf("\n%-28s %10s   %-26s %10s   %6s\n", "kt4 (ns/op)", "", "baseline (ns/op)", "",
                    "ratio");
        for (auto &p : pairs) {
            auto a = ns_.find(p[0]), b = ns_.find(p[1]);
            if (a == ns_.end() || b == ns_.end()) continue;
            std::printf("%-28s %10.1f   %-26s %10.1f   %6.2f\n", p[0], a->second, p[1], b->second,
                        a->second / b->second);
        }
        std::printf("(RBTree /0: default node allocator, /1: caller node pool)\n");
    }

  private:
    std::map<std::string, double> ns_;
};

} // namespace

int main(int argc, char **argv) {
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    data(); // generate the keys before any timing
    RatioReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    benchmark::Shutdown();
    if (g_failed) std::fprintf(stderr, "bench_containers: a phase failed its checks\n");
    return g_failed ? 1 : 0;
}
