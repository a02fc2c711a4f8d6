// The red-black tree against a std::multimap model, with its invariants checked after every
// change, and the system's exact quirks (walk start and pre-order stop, printer, assertions).
#include "support.h"

#include <kt4/containers.h>
#include <kt4/hostsim.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdarg>
#include <cstring>
#include <map>
#include <random>
#include <string>
#include <vector>

namespace {

using ctrtest::AssertCapture;
using ctrtest::StdoutCapture;

// Key at offset 4 so that the built-in compares' key offset is exercised.
struct Rec {
    uint32_t pad;
    uint32_t key;
    int id;
};

uint32_t key_of(const void *r) {
    return static_cast<const Rec *>(r)->key;
}
uint32_t be(const kt4Be32 &f) {
    return kt4Be32Get(&f);
}

// ---- test-only verifier ----
struct Verify {
    kt4RBTree *t;
    kt4RBTreeNode *nil;
    size_t count = 0;
    std::string error;

    // Returns the black height of the subtree, or -1 after recording the first fault.
    int check(kt4RBTreeNode *n, kt4RBTreeNode *parent) {
        if (n == nil) return 1;
        ++count;
        if (n->parent != parent) return fail("parent link broken");
        if (n->colour != KT4_RBTREE_RED && n->colour != KT4_RBTREE_BLACK) return fail("colour");
        if (n->colour == KT4_RBTREE_RED &&
            (n->left->colour == KT4_RBTREE_RED || n->right->colour == KT4_RBTREE_RED))
            return fail("red node with a red child");
        if (n->left != nil && _RBTCompare(t, n->left->data, n->data) > 0)
            return fail("left child greater");
        if (n->right != nil && _RBTCompare(t, n->right->data, n->data) < 0)
            return fail("right child smaller");
        int l = check(n->left, n), r = check(n->right, n);
        if (l < 0 || r < 0) return -1;
        if (l != r) return fail("black heights differ");
        return l + (n->colour == KT4_RBTREE_BLACK ? 1 : 0);
    }
    int fail(const char *what) {
        if (error.empty()) error = what;
        return -1;
    }
};

::testing::AssertionResult valid(kt4RBTree *t) {
    Verify v{t, &t->rbtt_nil, 0, {}};
    if (t->rbtt_nil.colour != KT4_RBTREE_BLACK || t->rbtt_nil.left != &t->rbtt_nil ||
        t->rbtt_nil.right != &t->rbtt_nil || t->rbtt_nil.parent != &t->rbtt_nil)
        return ::testing::AssertionFailure() << "nil node disturbed";
    if (t->rbtt_root->colour != KT4_RBTREE_BLACK)
        return ::testing::AssertionFailure() << "red root";
    v.check(t->rbtt_root, &t->rbtt_nil);
    if (!v.error.empty()) return ::testing::AssertionFailure() << v.error;
    if (v.count != be(t->rbtt_numentries))
        return ::testing::AssertionFailure()
               << "count " << v.count << " vs entries " << be(t->rbtt_numentries);
    return ::testing::AssertionSuccess();
}

std::vector<const Rec *> in_order(kt4RBTree *t) {
    std::vector<const Rec *> v;
    for (kt4RBTreeNode *n = _kt4RBTreeGetFirst(t); n; n = _kt4RBTreeSuccessor(t, n))
        v.push_back(static_cast<const Rec *>(n->data));
    return v;
}

// Model: keys with their ids; equal keys keep insertion order, as the tree keeps them.
using Model = std::multimap<uint32_t, int>;

std::vector<std::pair<uint32_t, int>> flat(const Model &m) {
    return {m.begin(), m.end()};
}

int record_visit(kt4RBTree *, void *record, va_list *args) {
    auto *seen = va_arg(*args, std::vector<const Rec *> *);
    const int stop_id = va_arg(*args, int);
    seen->push_back(static_cast<const Rec *>(record));
    return static_cast<const Rec *>(record)->id == stop_id;
}

class RBTree : public ::testing::Test {
  protected:
    void SetUp() override {
        MCReset();
        gKT4MCOn = 1;
    }
    void TearDown() override {
        EXPECT_EQ(0u, MCLiveCount()) << "a node or header was not given back";
        gKT4MCOn = 0;
        MCReset();
    }
};

TEST_F(RBTree, HeaderLayoutAndCreation) {
    static const char long_name[] = "a-name-that-is-longer-than-fifty-characters-0123456789";
    kt4RBTree *t = kt4RBTreeCreate(long_name, 4, 99, nullptr, nullptr, _RBTCompareUL);
    ASSERT_NE(nullptr, t);
    EXPECT_EQ(0xDEADBEEFu, be(t->rbtt_magic));
    EXPECT_EQ(std::string(long_name, 50), t->rbtt_name);
    EXPECT_EQ(4u, be(t->rbtt_keyoff));
    EXPECT_EQ(4u, be(t->rbtt_keylen)); // forced for a built-in compare
    EXPECT_EQ(uint32_t{KT4_RBTREE_CMP_UL}, be(t->rbtt_cmpmode));
    EXPECT_EQ(1u, be(t->rbtt_debug));
    EXPECT_EQ(&t->rbtt_nil, t->rbtt_root);
    EXPECT_EQ(kt4RBTreeMalloc, t->rbtt_alloc);
    EXPECT_EQ(kt4RBTreeFree, t->rbtt_free);
    // The header comes from the system allocator under the tree's tag.
    std::string tag;
    MCForEach([](const kt4mc_block_info *b, void *a) { *static_cast<std::string *>(a) = b->file; },
              &tag);
    EXPECT_EQ("kt4RBTree", tag);
    EXPECT_EQ(0, kt4RBTreeDestroy(t));

    auto user = [](kt4RBTree *, const void *, const void *) { return 0; };
    t = kt4RBTreeCreate("u", 0, 12, nullptr, nullptr, user);
    EXPECT_EQ(uint32_t{KT4_RBTREE_CMP_USER}, be(t->rbtt_cmpmode));
    EXPECT_EQ(12u, be(t->rbtt_keylen));
    kt4RBTreeDestroy(t);
    t = kt4RBTreeCreate("i", 0, 12, nullptr, nullptr, _RBTCompareI);
    EXPECT_EQ(uint32_t{KT4_RBTREE_CMP_I}, be(t->rbtt_cmpmode));
    kt4RBTreeDestroy(t);

    AssertCapture cap;
    EXPECT_EQ(nullptr, kt4RBTreeCreate("x", 0, 4, nullptr, nullptr, nullptr));
    t = kt4RBTreeCreate(nullptr, 0, 4, nullptr, nullptr, _RBTCompareUL);
    ASSERT_NE(nullptr, t);
    EXPECT_STREQ("", t->rbtt_name);
    kt4RBTreeDestroy(t);
    std::string out = cap.take();
    EXPECT_EQ(1, AssertCapture::count(out, "rbtt_compare"));
    EXPECT_EQ(1, AssertCapture::count(out, "rbtt_name"));
}

// The main property test: thousands of random inserts (many duplicates), removes and look-ups
// for each compare mode, invariants checked after every change.
void run_model(kt4RBTreeCompareFn cmp, uint32_t key_range, bool signed_keys, uint32_t seed) {
    std::mt19937 rng(seed);
    kt4RBTree *t = kt4RBTreeCreate("model", offsetof(Rec, key), 4, nullptr, nullptr, cmp);
    ASSERT_NE(nullptr, t);
    constexpr int kRecords = 4000;
    std::vector<Rec> recs(kRecords);
    auto key_value = [&](uint32_t raw) {
        return signed_keys ? static_cast<uint32_t>(static_cast<int32_t>(raw) -
                                                   static_cast<int32_t>(key_range / 2))
                           : raw;
    };
    // For the signed mode the model orders the keys as signed integers.
    auto mkey = [&](uint32_t k) { return signed_keys ? k ^ 0x80000000u : k; };
    Model model;
    int next = 0;
    uint32_t inserts = 0, removes = 0;
    Rec probe{};
    for (int step = 0; step < 9000; ++step) {
        const uint32_t op = rng() % 10;
        probe.key = key_value(rng() % key_range);
        if (op < 5 && next < kRecords) {
            Rec &r = recs[static_cast<size_t>(next)];
            r = Rec{0, probe.key, next++};
            ASSERT_EQ(1, kt4RBTreeInsert(t, &r));
            model.emplace(mkey(r.key), r.id);
            ++inserts;
            ASSERT_TRUE(valid(t)) << "after insert, step " << step;
        } else if (op < 8) {
            auto *got = static_cast<Rec *>(kt4RBTreeRemove(t, &probe));
            auto range = model.equal_range(mkey(probe.key));
            if (range.first == range.second) {
                ASSERT_EQ(nullptr, got);
            } else {
                ASSERT_NE(nullptr, got);
                ASSERT_EQ(probe.key, got->key);
                auto it = std::find_if(range.first, range.second,
                                       [&](auto &kv) { return kv.second == got->id; });
                ASSERT_NE(range.second, it) << "removed a record that was not there";
                model.erase(it);
                ++removes;
            }
            ASSERT_TRUE(valid(t)) << "after remove, step " << step;
        } else {
            // Look-ups.
            const uint32_t mk = mkey(probe.key);
            auto *exact = static_cast<Rec *>(kt4RBTreeGetExact(t, &probe));
            ASSERT_EQ(model.count(mk) != 0, exact != nullptr);
            if (exact) {
                ASSERT_EQ(probe.key, exact->key);
            }

            auto *eon = static_cast<Rec *>(kt4RBTreeGetExactOrNext(t, &probe));
            auto lb = model.lower_bound(mk);
            if (lb == model.end()) {
                ASSERT_EQ(nullptr, eon);
            } else {
                ASSERT_TRUE(eon && mkey(eon->key) == lb->first);
            }

            auto *eop = static_cast<Rec *>(kt4RBTreeGetExactOrPrev(t, &probe));
            auto ub = model.upper_bound(mk);
            if (model.count(mk)) {
                ASSERT_TRUE(eop && eop->key == probe.key);
            } else if (ub == model.begin()) {
                ASSERT_EQ(nullptr, eop);
            } else {
                ASSERT_TRUE(eop && mkey(eop->key) == std::prev(ub)->first);
            }

            // GetNext: the successor of the entry exact search finds, else the next greater.
            auto *nxt = static_cast<Rec *>(kt4RBTreeGetNext(t, &probe));
            auto order = in_order(t);
            if (exact) {
                auto pos = std::find(order.begin(), order.end(), exact);
                ASSERT_NE(order.end(), pos);
                ++pos;
                ASSERT_EQ(pos == order.end() ? nullptr : *pos, nxt);
            } else if (ub == model.end()) {
                ASSERT_EQ(nullptr, nxt);
            } else {
                ASSERT_TRUE(nxt && mkey(nxt->key) == ub->first);
            }

            // A bounded walk from the probe, stopping at a random id or at the maximum.
            const uint32_t max = rng() % 20;
            const int stop_id = static_cast<int>(rng() % kRecords);
            std::vector<const Rec *> seen;
            auto *stopped = static_cast<const Rec *>(
                kt4RBTreeWalk(t, &probe, record_visit, max, 0, &seen, stop_id));
            std::vector<const Rec *> want;
            auto from = order.begin();
            if (eon) from = std::find(order.begin(), order.end(), eon) + 1;
            const Rec *want_stop = nullptr;
            for (auto it = from; it != order.end(); ++it) {
                want.push_back(*it);
                if ((*it)->id == stop_id || (max != 0 && want.size() == max)) {
                    want_stop = *it;
                    break;
                }
            }
            ASSERT_EQ(want, seen) << "walk, step " << step;
            ASSERT_EQ(want_stop, stopped);
        }
        if (step % 500 == 0) {
            std::vector<std::pair<uint32_t, int>> got;
            for (const Rec *r : in_order(t))
                got.emplace_back(mkey(r->key), r->id);
            ASSERT_EQ(flat(model), got) << "step " << step;
        }
    }
    // In-order sequence equals the model exactly, equal keys in insertion order.
    auto order = in_order(t);
    std::vector<std::pair<uint32_t, int>> got;
    for (const Rec *r : order)
        got.emplace_back(mkey(r->key), r->id);
    EXPECT_EQ(flat(model), got);
    EXPECT_EQ(model.size(), be(t->rbtt_numentries));
    EXPECT_EQ(inserts, be(t->rbtt_inserts));
    EXPECT_EQ(removes, be(t->rbtt_removes));
    EXPECT_EQ(inserts, be(t->rbtt_nodeallocs));
    EXPECT_EQ(removes, be(t->rbtt_nodefrees));
    // Drain through the first entry so that every node goes back.
    while (void *first = kt4RBTreeGetFirst(t)) {
        void *got = kt4RBTreeRemove(t, first);
        ASSERT_NE(nullptr, got);
        ASSERT_EQ(key_of(first), key_of(got));
    }
    EXPECT_EQ(0u, be(t->rbtt_numentries));
    EXPECT_EQ(be(t->rbtt_nodeallocs), be(t->rbtt_nodefrees));
    kt4RBTreeDestroy(t);
}

TEST_F(RBTree, UnsignedCompareMatchesModel) {
    run_model(_RBTCompareUL, 1500, false, 1);
}
TEST_F(RBTree, SignedCompareMatchesModel) {
    run_model(_RBTCompareI, 1500, true, 2);
}
TEST_F(RBTree, UnsignedFullRangeKeys) {
    run_model(_RBTCompareUL, 0xFFFFFFFFu, false, 3);
}

int user_compare(kt4RBTree *, const void *a, const void *b) {
    uint32_t x = key_of(a), y = key_of(b);
    return x < y ? -100 : x > y ? 7 : 0; // any sign, not just -1/0/1
}
TEST_F(RBTree, CallerCompareMatchesModel) {
    run_model(user_compare, 800, false, 4);
}

TEST_F(RBTree, DuplicatesAreKeptAndRemovedOneByOne) {
    kt4RBTree *t = kt4RBTreeCreate("dup", offsetof(Rec, key), 4, nullptr, nullptr, _RBTCompareUL);
    Rec a{0, 5, 1}, b{0, 5, 2};
    EXPECT_EQ(1, kt4RBTreeInsert(t, &a));
    EXPECT_EQ(1, kt4RBTreeInsert(t, &b));
    EXPECT_EQ(2u, be(t->rbtt_numentries));
    void *found = kt4RBTreeGetExact(t, &a);
    EXPECT_TRUE(found == &a || found == &b);
    // The later equal entry follows the earlier one.
    EXPECT_EQ(&b, _kt4RBTreeSuccessor(t, _kt4RBTreeGetFirst(t))->data);
    void *r1 = kt4RBTreeRemove(t, &a);
    void *r2 = kt4RBTreeRemove(t, &a);
    EXPECT_TRUE((r1 == &a && r2 == &b) || (r1 == &b && r2 == &a));
    EXPECT_EQ(nullptr, kt4RBTreeRemove(t, &a));
    EXPECT_EQ(0, kt4RBTreeDestroy(t));
}

// ---- walks: the documented start and pre-order behaviour ----

class Walk : public RBTree {
  protected:
    void SetUp() override {
        RBTree::SetUp();
        t = kt4RBTreeCreate("walk", offsetof(Rec, key), 4, nullptr, nullptr, _RBTCompareUL);
        for (int i = 0; i < 10; ++i) {
            recs[i] = Rec{0, static_cast<uint32_t>(10 * (i + 1)), i};
            kt4RBTreeInsert(t, &recs[i]);
        }
    }
    void TearDown() override {
        for (auto &r : recs)
            kt4RBTreeRemove(t, &r);
        kt4RBTreeDestroy(t);
        RBTree::TearDown();
    }
    std::vector<uint32_t> keys() const {
        std::vector<uint32_t> k;
        for (auto *r : seen)
            k.push_back(r->key);
        return k;
    }
    kt4RBTree *t = nullptr;
    Rec recs[10];
    std::vector<const Rec *> seen;
};

TEST_F(Walk, StartKeyAndMaximum) {
    Rec probe{0, 1000, -1};
    // Greater than every entry: the whole tree from the first.
    EXPECT_EQ(nullptr, kt4RBTreeWalk(t, &probe, record_visit, 0, 0, &seen, -1));
    EXPECT_EQ((std::vector<uint32_t>{10, 20, 30, 40, 50, 60, 70, 80, 90, 100}), keys());
    // Equal to an entry: begins with the next one.
    seen.clear();
    probe.key = 40;
    EXPECT_EQ(nullptr, kt4RBTreeWalk(t, &probe, record_visit, 0, 0, &seen, -1));
    EXPECT_EQ((std::vector<uint32_t>{50, 60, 70, 80, 90, 100}), keys());
    // Between entries: exact-or-next (50) is the start and is not visited.
    seen.clear();
    probe.key = 45;
    kt4RBTreeWalk(t, &probe, record_visit, 0, 0, &seen, -1);
    EXPECT_EQ((std::vector<uint32_t>{60, 70, 80, 90, 100}), keys());
    // Maximum 3 over ten: three visits, the third's record comes back.
    seen.clear();
    EXPECT_EQ(&recs[2], kt4RBTreeWalk(t, nullptr, record_visit, 3, 0, &seen, -1));
    EXPECT_EQ((std::vector<uint32_t>{10, 20, 30}), keys());
    // A visit that says stop.
    seen.clear();
    EXPECT_EQ(&recs[6], kt4RBTreeWalk(t, nullptr, record_visit, 0, 0, &seen, 6));
    EXPECT_EQ(7u, seen.size());
}

// Pre-order reference computed from the node links, and the stop rule: a stop at a node that
// has a left child reports that child.
void pre_order(kt4RBTree *t, kt4RBTreeNode *n, std::vector<kt4RBTreeNode *> &out) {
    if (n == &t->rbtt_nil) return;
    out.push_back(n);
    pre_order(t, n->left, out);
    pre_order(t, n->right, out);
}

TEST_F(Walk, PreOrderAndItsStopQuirk) {
    std::vector<kt4RBTreeNode *> want;
    pre_order(t, t->rbtt_root, want);
    EXPECT_EQ(nullptr,
              kt4RBTreeWalk(t, nullptr, record_visit, 0, KT4_RBTREE_WALK_PREORDER, &seen, -1));
    ASSERT_EQ(want.size(), seen.size());
    for (size_t i = 0; i < want.size(); ++i)
        EXPECT_EQ(want[i]->data, seen[i]);
    for (uint32_t max = 1; max <= want.size(); ++max) {
        seen.clear();
        void *stop =
            kt4RBTreeWalk(t, nullptr, record_visit, max, KT4_RBTREE_WALK_PREORDER, &seen, -1);
        kt4RBTreeNode *at = want[max - 1];
        void *expect = at->left != &t->rbtt_nil ? at->left->data : at->data;
        EXPECT_EQ(expect, stop) << "max " << max;
        EXPECT_EQ(max, seen.size());
    }
}

TEST_F(Walk, NullVisitCountsAndNodeLevelWalk) {
    // Without a visit function the walk just counts: the fourth entry.
    EXPECT_EQ(&recs[3], kt4RBTreeWalk(t, nullptr, nullptr, 4, 0));
    kt4RBTreeNode *n = _kt4RBTreeWalk(t, nullptr, nullptr, 10, 0, nullptr);
    ASSERT_NE(nullptr, n);
    EXPECT_EQ(&recs[9], n->data);
    EXPECT_EQ(nullptr, _kt4RBTreeWalk(t, nullptr, nullptr, 11, 0, nullptr));
}

// ---- print ----

const char *print_rec(void *r) {
    static thread_local char buf[16];
    std::snprintf(buf, sizeof buf, "%u", key_of(r));
    return buf;
}

TEST_F(RBTree, PrintFormat) {
    kt4RBTree *t = kt4RBTreeCreate("prt", offsetof(Rec, key), 4, nullptr, nullptr, _RBTCompareUL);
    {
        StdoutCapture out;
        kt4RBTreePrint(t, print_rec);
        EXPECT_EQ("\tRed-Black tree prt: 0 numinodes. (empty)\n\n\n", out.take());
    }
    Rec r[4] = {{0, 1, 0}, {0, 2, 1}, {0, 3, 2}, {0, 4, 3}};
    for (auto &x : r)
        kt4RBTreeInsert(t, &x);
    // 2 black at the root; 1 black; 3 black with 4 red to its right.
    {
        StdoutCapture out;
        kt4RBTreePrint(t, print_rec);
        EXPECT_EQ("\tRed-Black tree prt: 4 numinodes.\n\n"
                  "\t\t+---0-B+--[2\n"
                  "\t\t|  +---1-B+--[3\n"
                  "\t\t|     +---2-R+--[4\n"
                  "\t\t   +---1-B+--[1\n"
                  "\n",
                  out.take());
    }
    for (auto &x : r)
        kt4RBTreeRemove(t, &x);
    std::vector<Rec> many(201);
    for (size_t i = 0; i < many.size(); ++i) {
        many[i] = Rec{0, static_cast<uint32_t>(i), static_cast<int>(i)};
        kt4RBTreeInsert(t, &many[i]);
    }
    {
        StdoutCapture out;
        kt4RBTreePrint(t, print_rec);
        EXPECT_EQ("\tRed-Black tree prt: 201 numinodes. (too large to print)\n\n\n", out.take());
    }
    // Depths are numbered, and a deep line keeps the documented column rule (no extra "-"
    // after a two-digit depth).
    kt4RBTreeRemove(t, &many[200]);
    {
        StdoutCapture out;
        kt4RBTreePrint(t, print_rec);
        std::string s = out.take();
        EXPECT_NE(std::string::npos, s.find("+---0-B+--["));
        EXPECT_NE(std::string::npos, s.find("+---7-")) << s;
    }
    for (auto &x : many)
        kt4RBTreeRemove(t, &x);
    kt4RBTreeDestroy(t);
}

// ---- assertions, debug flag, allocation failure, destroy ----

TEST_F(RBTree, AssertionsAndDebugFlag) {
    kt4RBTree *t = kt4RBTreeCreate("dbg", offsetof(Rec, key), 4, nullptr, nullptr, _RBTCompareUL);
    Rec a{0, 1, 0};
    kt4RBTreeInsert(t, &a);
    AssertCapture cap;
    EXPECT_EQ(nullptr, kt4RBTreeGetExact(nullptr, &a));
    EXPECT_EQ(nullptr, kt4RBTreeGetExact(t, nullptr)); // "data" and then the compare's "one"
    kt4RBTreePrint(t, nullptr);
    EXPECT_EQ(1, kt4RBTreeDebug(t, 0));
    EXPECT_EQ(0u, be(t->rbtt_debug));
    EXPECT_EQ(nullptr, kt4RBTreeGetExact(t, nullptr)); // only the compare's "one" now
    EXPECT_EQ(nullptr, kt4RBTreeGetNext(t, nullptr));
    EXPECT_EQ(1, kt4RBTreeDebug(t, 7)); // anything but 1 is off
    EXPECT_EQ(0u, be(t->rbtt_debug));
    kt4RBTreeDebug(t, 1);
    kt4Be32Set(&t->rbtt_magic, 0x1234);
    EXPECT_EQ(&a, kt4RBTreeGetExact(t, &a)); // reported, and the look-up still works
    kt4Be32Set(&t->rbtt_magic, KT4_RBTREE_MAGIC);
    // A null record is reported and sorts first, so that nothing is read through it.
    EXPECT_EQ(1, _RBTCompareUL(t, &a, nullptr));
    EXPECT_EQ(-1, _RBTCompareI(t, nullptr, &a));
    std::string out = cap.take();
    EXPECT_EQ(1, AssertCapture::count(out, "rbtt"));
    EXPECT_EQ(1, AssertCapture::count(out, "data"));
    EXPECT_EQ(1, AssertCapture::count(out, "print_fn"));
    EXPECT_EQ(3, AssertCapture::count(out, "one"));
    EXPECT_EQ(1, AssertCapture::count(out, "two"));
    EXPECT_EQ(1, AssertCapture::count(out, "rbtt->rbtt_magic == 0xdeadbeef"));
    EXPECT_NE(std::string::npos, out.find("kt4RBTree"));
    kt4RBTreeRemove(t, &a);
    kt4RBTreeDestroy(t);
}

struct CountingAlloc {
    static inline int allocs = 0, frees = 0;
    static inline bool fail = false;
    static inline std::vector<void *> live;
    static void *alloc(size_t n) {
        if (fail) return nullptr;
        ++allocs;
        void *p = ::operator new(n);
        live.push_back(p);
        return p;
    }
    static void release(void *p) {
        ++frees;
        live.erase(std::find(live.begin(), live.end(), p));
        ::operator delete(p);
    }
};

TEST_F(RBTree, AllocationHooksFailureAndDestroyWithEntries) {
    CountingAlloc::allocs = CountingAlloc::frees = 0;
    kt4RBTree *t = kt4RBTreeCreate("hooks", offsetof(Rec, key), 4, CountingAlloc::alloc,
                                   CountingAlloc::release, _RBTCompareUL);
    Rec r[3] = {{0, 3, 0}, {0, 1, 1}, {0, 2, 2}};
    for (auto &x : r)
        EXPECT_EQ(1, kt4RBTreeInsert(t, &x));
    CountingAlloc::fail = true;
    Rec extra{0, 9, 9};
    EXPECT_EQ(0, kt4RBTreeInsert(t, &extra));
    CountingAlloc::fail = false;
    EXPECT_EQ(3u, be(t->rbtt_numentries));
    EXPECT_EQ(3u, be(t->rbtt_nodeallocs));
    EXPECT_EQ(3u, be(t->rbtt_inserts));
    EXPECT_EQ(nullptr, kt4RBTreeGetExact(t, &extra));
    EXPECT_EQ(&r[1], kt4RBTreeRemove(t, &r[1]));
    EXPECT_EQ(1, CountingAlloc::frees);
    // Destroy releases the header only: the two nodes stay with the allocator.
    EXPECT_EQ(0, kt4RBTreeDestroy(t));
    EXPECT_EQ(1, CountingAlloc::frees);
    EXPECT_EQ(2u, CountingAlloc::live.size());
    while (!CountingAlloc::live.empty())
        CountingAlloc::release(CountingAlloc::live.back());
}

// Node-level insert and remove on caller-held nodes: how the timer library keeps its own.
TEST_F(RBTree, NodeLevelFormsOnCallerNodes) {
    kt4RBTree *t = kt4RBTreeCreate("nodes", offsetof(Rec, key), 4, nullptr, nullptr, _RBTCompareUL);
    constexpr int kN = 500;
    std::vector<Rec> recs(kN);
    std::vector<kt4RBTreeNode> nodes(kN);
    std::mt19937 rng(11);
    for (int i = 0; i < kN; ++i) {
        recs[i] = Rec{0, static_cast<uint32_t>(rng() % 50), i};
        nodes[i].data = &recs[i];
        ASSERT_EQ(1, _kt4RBTreeInsert(t, &nodes[i]));
    }
    ASSERT_TRUE(valid(t));
    EXPECT_EQ(0u, be(t->rbtt_nodeallocs));
    // Remove exactly the nodes held, duplicates included, in random order.
    std::vector<int> order(kN);
    for (int i = 0; i < kN; ++i)
        order[i] = i;
    std::shuffle(order.begin(), order.end(), rng);
    for (int i : order) {
        ASSERT_EQ(&nodes[i], _kt4RBTreeRemove(t, &nodes[i]));
        EXPECT_EQ(&t->rbtt_nil, nodes[i].left);
        EXPECT_EQ(&t->rbtt_nil, nodes[i].parent);
        ASSERT_TRUE(valid(t));
        // A detached node is refused instead of being taken for the root.
        ASSERT_EQ(nullptr, _kt4RBTreeRemove(t, &nodes[i]));
    }
    EXPECT_EQ(nullptr, _kt4RBTreeGetFirst(t));
    EXPECT_EQ(uint32_t{kN}, be(t->rbtt_removes));
    EXPECT_EQ(0u, be(t->rbtt_nodefrees));
    kt4RBTreeDestroy(t);
}

} // namespace
