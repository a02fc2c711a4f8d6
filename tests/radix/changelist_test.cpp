// Change lists: readers catching up with writers, the callback results, a forced version wrap
// and an outside list followed across an IPv4 and an IPv6 tree.
#include <kt4/radix.h>

#include <gtest/gtest.h>

#include <atomic>
#include <cstdarg>
#include <map>
#include <mutex>
#include <random>
#include <thread>
#include <vector>

namespace {

struct Route {
    kt4RadixEntry rth;
    uint8_t addr[16];
};

// n routes 10.0.i.0/24 (IPv4) or 2000:0:i::/64 (IPv6); an entry's id is its index.
struct Table {
    explicit Table(int n, int bits = 32) : routes(size_t(n)) {
        tree = kt4RadixCreate("t", bits, nullptr, nullptr, nullptr);
        for (int i = 0; i < n; ++i) {
            routes[size_t(i)].addr[0] = bits == 32 ? 10 : 0x20;
            routes[size_t(i)].addr[2] = uint8_t(i);
            routes[size_t(i)].rth.rth_addr = routes[size_t(i)].addr;
            kt4RadixInsert(tree, e(i), bits == 32 ? 24 : 64);
        }
    }
    ~Table() { clear(); }
    void clear() {
        for (auto &r : routes)
            if (r.rth.rth_rtn != nullptr) kt4RadixRemove(tree, &r.rth);
        if (tree != nullptr) {
            EXPECT_EQ(OK, kt4RadixDestroy(tree));
        }
        tree = nullptr;
    }
    kt4RadixEntry *e(int i) { return &routes[size_t(i)].rth; }
    int id(kt4RadixEntry *x) { return int(reinterpret_cast<Route *>(x) - routes.data()); }
    kt4RadixTree *tree;
    std::vector<Route> routes;
};

// A reader: its cursor, what it was offered, and what to answer for an id (once).
struct Reader {
    explicit Reader(Table *t) : tab(t) {}
    Table *tab;
    kt4RadixEntry dummy{};
    std::vector<int> seen;
    std::map<int, int> results;
};

int record(kt4RadixEntry *e, va_list *args) {
    Reader *r = va_arg(*args, Reader *);
    const int id = r->tab->id(e);
    r->seen.push_back(id);
    const int res = r->results.count(id) ? r->results[id] : 0;
    r->results.erase(id);
    return res;
}

std::vector<int> walk(Reader &r, uint64_t max_version = UINT64_MAX, uint32_t max = 0,
                      int *ret = nullptr) {
    int cb = 0;
    r.seen.clear();
    kt4RadicalWalkChangeList(r.tab->tree, &r.dummy, record, 0, max, max_version, nullptr, &cb, &r);
    if (ret != nullptr) *ret = cb;
    return r.seen;
}

using Ids = std::vector<int>;

TEST(RadixChangeList, ReadersSeeEachChangeOnceAtThePlaceOfItsLastChange) {
    Table tab(8);
    kt4RadixTree *t = tab.tree;
    Reader a(&tab), b(&tab), c(&tab);
    kt4RadicalWalkConstructor(t, &a.dummy);
    kt4RadicalWalkConstructor(t, &b.dummy);
    const uint64_t v1 = kt4RadicalAppendToChangeList(t, tab.e(1));
    kt4RadicalAppendToChangeList(t, tab.e(2));
    EXPECT_EQ((Ids{1, 2}), walk(a));
    EXPECT_EQ(0u, kt4RadicalNextVersion(t, &a.dummy));
    EXPECT_EQ(v1, kt4RadicalNextVersion(t, &b.dummy));
    kt4RadicalAppendToChangeList(t, tab.e(3)); // after a caught up: a sees it once
    kt4RadicalAppendToChangeList(t, tab.e(1)); // changed twice before b looked: once, last
    EXPECT_EQ(tab.e(2), kt4RadicalGetFirst(t)) << "cursors are not listed";
    EXPECT_EQ((Ids{3, 1}), walk(a));
    EXPECT_EQ((Ids{2, 3, 1}), walk(b));
    EXPECT_EQ(v1 + 3, kt4RadixEntryVersion(&b.dummy)) << "caught up: the tree version";

    // A negative result stops before the entry, a positive one after it.
    kt4RadicalWalkConstructorAfter(t, &a.dummy, &c.dummy); // starts where a is
    for (int i : {4, 5, 6})
        kt4RadicalAppendToChangeList(t, tab.e(i));
    int ret = 0;
    c.results = {{5, -1}, {6, 7}};
    EXPECT_EQ((Ids{4, 5}), walk(c, UINT64_MAX, 0, &ret));
    EXPECT_EQ(-1, ret);
    EXPECT_EQ((Ids{5, 6}), walk(c, UINT64_MAX, 0, &ret));
    EXPECT_EQ(7, ret);
    kt4RadixRemove(t, tab.e(5)); // leaves the list with the tree
    EXPECT_EQ((Ids{4}), walk(a, UINT64_MAX, 1)) << "at most one";
    EXPECT_EQ(Ids{}, walk(a, kt4RadixEntryVersion(tab.e(6)) - 1)) << "nothing above the maximum";
    EXPECT_EQ((Ids{6}), walk(a));
    kt4RadixStats st;
    kt4RadixGetStats(t, &st);
    EXPECT_EQ(3u, st.readers);
    for (Reader *r : {&a, &b, &c})
        kt4RadicalWalkDestructor(t, &r->dummy);
    kt4RadixGetStats(t, &st);
    EXPECT_EQ(0u, st.readers);
}

TEST(RadixChangeList, AForcedWrapIsRenumberedAndReadersCarryOn) {
    Table tab(6);
    kt4RadixTree *t = tab.tree;
    Reader r(&tab);
    kt4RadicalWalkConstructor(t, &r.dummy);
    kt4RadicalAppendToChangeList(t, tab.e(0));
    EXPECT_EQ(Ids{0}, walk(r));
    kt4RadixTreeVersionSet(t, UINT64_MAX - 1);
    EXPECT_EQ(UINT64_MAX, kt4RadicalAppendToChangeList(t, tab.e(1)));
    EXPECT_EQ(0u, kt4RadicalAppendToChangeList(t, tab.e(2)));
    kt4RadixStats st;
    kt4RadixGetStats(t, &st);
    EXPECT_EQ(1u, st.versionWraps);
    // [0] cursor [1 2] becomes 1, cursor 1, 2 3; the caller makes 3 the tree version.
    EXPECT_EQ(3u, kt4RadicalProcVerWrap(t));
    kt4RadixTreeVersionSet(t, 3);
    EXPECT_EQ(1u, kt4RadixEntryVersion(&r.dummy));
    EXPECT_EQ(4u, kt4RadicalAppendToChangeList(t, tab.e(3)));
    EXPECT_EQ((Ids{1, 2, 3}), walk(r));
    // The version walk finds the renumbered entries below the nodes' versions.
    r.seen.clear();
    kt4RadixVersionWalk(t, nullptr, record, 0, 3, 4, nullptr, &r);
    EXPECT_EQ((Ids{2, 3}), r.seen);
    kt4RadicalWalkDestructor(t, &r.dummy);
}

// Writers and readers on one list, serialised by the callers' lock as the tree requires; the
// readers catch up in batches of 8 with a yield between them, at most 64 per turn of the lock.
struct Shared {
    Table tab{200};
    std::mutex m;
    std::map<int, std::vector<uint64_t>> history; // every version each entry got
};

struct ThreadReader {
    explicit ThreadReader(Shared *sh) : s(sh) {}
    Shared *s;
    kt4RadixEntry dummy{};
    std::map<int, uint64_t> last; // the last version seen of each entry
    uint64_t newest = 0;
};

int take(kt4RadixEntry *e, va_list *args) {
    ThreadReader *r = va_arg(*args, ThreadReader *);
    const uint64_t v = kt4RadixEntryVersion(e);
    const int id = r->s->tab.id(e);
    EXPECT_EQ(r->s->history[id].back(), v) << "only an entry's latest change is offered";
    EXPECT_LT(r->newest, v) << "in version order, each once";
    r->newest = r->last[id] = v;
    return 0;
}

TEST(RadixChangeList, ConcurrentReadersSeeEveryEntrysLastChangeExactlyOnce) {
    Shared s;
    kt4RadixTree *t = s.tab.tree;
    std::vector<ThreadReader> readers(3, ThreadReader(&s));
    kt4RadicalWalkConstructor(t, &readers[0].dummy);
    for (size_t i = 1; i < readers.size(); ++i)
        kt4RadicalWalkConstructorAfter(t, &readers[0].dummy, &readers[i].dummy);
    std::atomic<int> writing{2};
    std::vector<std::thread> threads;
    for (unsigned w = 1; w <= 2; ++w)
        threads.emplace_back([&, w] {
            std::mt19937 rng(w);
            for (int i = 0; i < 4000; ++i) {
                std::lock_guard<std::mutex> g(s.m);
                const int id = int(rng() % 200);
                s.history[id].push_back(kt4RadicalAppendToChangeList(t, s.tab.e(id)));
            }
            --writing;
        });
    for (auto &r : readers)
        threads.emplace_back([&, rp = &r] {
            for (bool done = false; !done;) {
                const bool last = writing == 0;
                std::lock_guard<std::mutex> g(s.m);
                int ret = 0;
                kt4RadicalWalkChangeList(t, &rp->dummy, take, 8, 64, UINT64_MAX, rp, &ret, rp);
                done = last && kt4RadicalNextVersion(t, &rp->dummy) == 0;
            }
        });
    for (auto &th : threads)
        th.join();
    for (auto &r : readers) {
        for (auto &[id, vs] : s.history)
            EXPECT_EQ(vs.back(), r.last[id]) << "entry " << id;
        kt4RadicalWalkDestructor(t, &r.dummy);
    }
}

TEST(RadixCar, OneReaderFollowsTwoTreesInOneOrder) {
    Table v4(4, 32), v6(4, 128);
    kt4Car *car = kt4RadixCarCreate(v4.tree, nullptr);
    ASSERT_EQ(car, kt4RadixCarCreate(v6.tree, car));
    kt4RadixEntry d{};
    kt4CarWalkConstructor(car, &d);
    for (kt4RadixEntry *x : {v4.e(0), v6.e(0), v4.e(1), v6.e(1), v4.e(0)})
        kt4CarAppendToChangeList(car, x);
    EXPECT_EQ(5u, kt4RadixEntryVersion(v4.e(0))) << "the list's own counter";
    kt4RadixRemove(v6.tree, v6.e(1)); // leaves the outside list too
    kt4CarRemoveChange(car, v4.e(1)); // leaves the list only
    EXPECT_EQ(v6.e(0), kt4CarGetFirst(car));
    EXPECT_EQ(v4.e(0), kt4CarGetNext(car, v6.e(0)));
    EXPECT_EQ(nullptr, kt4CarGetNext(car, v4.e(0)));
    EXPECT_EQ(2u, kt4CarNextVersion(car, &d));
    // A wrap of the list's own counter: [d v4.e(0) v6.e(0)] renumbers to 0, 1, 2.
    kt4CarVersionSet(car, UINT64_MAX);
    EXPECT_EQ(0u, kt4CarAppendToChangeList(car, v6.e(0)));
    EXPECT_EQ(2u, kt4CarProcVerWrap(car));
    EXPECT_EQ(0u, kt4RadixEntryVersion(&d));
    EXPECT_EQ(1u, kt4RadixEntryVersion(v4.e(0)));
    EXPECT_EQ(2u, kt4RadixEntryVersion(v6.e(0)));
    kt4CarVersionSet(car, 2);
    EXPECT_EQ(3u, kt4CarAppendToChangeList(car, v4.e(0)));
    EXPECT_EQ(ERROR, kt4CarDestroy(car)) << "trees are still attached";
    kt4CarWalkDestructor(car, &d);
    v4.clear(); // destroying the trees detaches the list
    v6.clear();
    EXPECT_EQ(OK, kt4CarDestroy(car));
}

} // namespace
