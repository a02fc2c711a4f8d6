// The red-black tree against a std::multimap model (invariants checked after every change), the
// pre-order walk, printer and assertions, caller-held nodes, and a tree shared by two processes.
#include "support.h"

#include <kt4/containers.h>
#include <kt4/log.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <map>
#include <random>
#include <vector>

namespace {

using ctrtest::LeakChecked;
using kt4test::SharedHeap;

struct Rec { // key at offset 4, so that the key offset is honoured
    uint32_t pad;
    uint32_t key;
    int id;
};

const auto be = [](const kt4Be32 &f) { return kt4Be32Get(&f); };

// Test-only verifier: black height of the subtree, or -1 once a fault is recorded.
int check(kt4RBTree *t, kt4RBTreeNode *n, kt4RBTreeNode *parent, size_t &count, std::string &err) {
    kt4RBTreeNode *nil = &t->rbtt_nil;
    if (n == nil) return 1;
    ++count;
    if (n->parent != parent) err = "parent link";
    if (n->colour == KT4_RBTREE_RED &&
        (n->left->colour == KT4_RBTREE_RED || n->right->colour == KT4_RBTREE_RED))
        err = "red node with a red child";
    if ((n->left != nil && _RBTCompare(t, n->left->data, n->data) > 0) ||
        (n->right != nil && _RBTCompare(t, n->right->data, n->data) < 0))
        err = "order";
    const int l = check(t, n->left, n, count, err), r = check(t, n->right, n, count, err);
    if (l != r) err = "black heights differ";
    return err.empty() ? l + (n->colour == KT4_RBTREE_BLACK) : -1;
}

::testing::AssertionResult valid(kt4RBTree *t) {
    kt4RBTreeNode *nil = &t->rbtt_nil;
    if (nil->colour != KT4_RBTREE_BLACK || nil->left != nil || nil->right != nil ||
        nil->parent != nil || t->rbtt_root->colour != KT4_RBTREE_BLACK)
        return ::testing::AssertionFailure() << "nil node disturbed or red root";
    size_t count = 0;
    std::string err;
    check(t, t->rbtt_root, nil, count, err);
    if (!err.empty()) return ::testing::AssertionFailure() << err;
    if (count != be(t->rbtt_numentries)) return ::testing::AssertionFailure() << "entry count";
    return ::testing::AssertionSuccess();
}

std::vector<const Rec *> in_order(kt4RBTree *t) {
    std::vector<const Rec *> v;
    for (kt4RBTreeNode *n = _kt4RBTreeGetFirst(t); n; n = _kt4RBTreeSuccessor(t, n))
        v.push_back(static_cast<const Rec *>(n->data));
    return v;
}

// Visit: records each record; stops at the id given as the second further argument.
int record_visit(kt4RBTree *, void *record, va_list *args) {
    auto *seen = va_arg(*args, std::vector<const Rec *> *);
    const int stop_id = va_arg(*args, int);
    seen->push_back(static_cast<const Rec *>(record));
    return static_cast<const Rec *>(record)->id == stop_id;
}

int user_compare(kt4RBTree *, const void *a, const void *b) {
    const uint32_t x = static_cast<const Rec *>(a)->key, y = static_cast<const Rec *>(b)->key;
    return x < y ? -100 : x > y ? 7 : 0; // any sign, not just -1/0/1
}

// Random inserts (many duplicates), removes and look-ups against a multimap that keeps equal
// keys in insertion order, as the tree does; the model orders signed keys as signed.
void run_model(kt4RBTreeCompareFn cmp, uint32_t key_range, bool is_signed, uint32_t seed) {
    std::mt19937 rng(seed);
    kt4RBTree *t = kt4RBTreeCreate("model", offsetof(Rec, key), 4, nullptr, nullptr, cmp);
    ASSERT_NE(nullptr, t);
    std::vector<Rec> recs(4000);
    auto mkey = [&](uint32_t k) { return is_signed ? k ^ 0x80000000u : k; };
    std::multimap<uint32_t, int> model;
    int next = 0;
    Rec probe{};
    for (int step = 0; step < 9000; ++step) {
        const uint32_t op = rng() % 10;
        probe.key = static_cast<uint32_t>(rng() % key_range) - (is_signed ? key_range / 2 : 0);
        const uint32_t mk = mkey(probe.key);
        if (op < 5 && next < static_cast<int>(recs.size())) {
            Rec &r = recs[static_cast<size_t>(next)];
            r = Rec{0, probe.key, next++};
            ASSERT_EQ(1, kt4RBTreeInsert(t, &r));
            model.emplace(mk, r.id);
            ASSERT_TRUE(valid(t)) << "after insert, step " << step;
        } else if (op < 8) {
            auto *got = static_cast<Rec *>(kt4RBTreeRemove(t, &probe));
            auto [first, last] = model.equal_range(mk);
            ASSERT_EQ(first == last, got == nullptr);
            if (got) {
                auto it = std::find_if(first, last, [&](auto &kv) { return kv.second == got->id; });
                ASSERT_NE(last, it) << "removed a record that was not there";
                model.erase(it);
            }
            ASSERT_TRUE(valid(t)) << "after remove, step " << step;
        } else {
            auto *exact = static_cast<Rec *>(kt4RBTreeGetExact(t, &probe));
            const bool present = model.count(mk) != 0;
            ASSERT_EQ(present, exact != nullptr);
            ASSERT_TRUE(!exact || exact->key == probe.key);
            auto lb = model.lower_bound(mk), ub = model.upper_bound(mk);
            auto *eon = static_cast<Rec *>(kt4RBTreeGetExactOrNext(t, &probe));
            ASSERT_TRUE(lb == model.end() ? !eon : eon && mkey(eon->key) == lb->first);
            auto *eop = static_cast<Rec *>(kt4RBTreeGetExactOrPrev(t, &probe));
            ASSERT_TRUE(present               ? eop && eop->key == probe.key
                        : ub == model.begin() ? !eop
                                              : eop && mkey(eop->key) == std::prev(ub)->first);
            // GetNext: the successor of the entry exact search finds, else the next greater.
            const auto order = in_order(t);
            auto *nxt = static_cast<const Rec *>(kt4RBTreeGetNext(t, &probe));
            if (exact) {
                auto pos = std::find(order.begin(), order.end(), exact) + 1;
                ASSERT_EQ(pos == order.end() ? nullptr : *pos, nxt);
            } else {
                ASSERT_TRUE(ub == model.end() ? !nxt : nxt && mkey(nxt->key) == ub->first);
            }
            // A walk from the probe: resumes after exact-or-next, stops at an id or the maximum.
            const uint32_t max = rng() % 20;
            const int stop_id = static_cast<int>(rng() % recs.size());
            std::vector<const Rec *> seen, want;
            auto *stopped = static_cast<const Rec *>(
                kt4RBTreeWalk(t, &probe, record_visit, max, 0, &seen, stop_id));
            const Rec *want_stop = nullptr;
            auto from = eon ? std::find(order.begin(), order.end(), eon) + 1 : order.begin();
            for (auto it = from; it != order.end() && !want_stop; ++it) {
                want.push_back(*it);
                if ((*it)->id == stop_id || want.size() == max) want_stop = *it;
            }
            ASSERT_EQ(want, seen) << "walk, step " << step;
            ASSERT_EQ(want_stop, stopped);
        }
    }
    using Flat = std::vector<std::pair<uint32_t, int>>;
    Flat got;
    for (const Rec *r : in_order(t))
        got.emplace_back(mkey(r->key), r->id);
    EXPECT_EQ(Flat(model.begin(), model.end()), got);
    EXPECT_EQ(static_cast<uint32_t>(next), be(t->rbtt_inserts));
    EXPECT_EQ(static_cast<uint32_t>(next), be(t->rbtt_nodeallocs));
    const uint32_t removes = static_cast<uint32_t>(next) - static_cast<uint32_t>(model.size());
    EXPECT_EQ(removes, be(t->rbtt_removes));
    EXPECT_EQ(removes, be(t->rbtt_nodefrees));
    while (void *first = kt4RBTreeGetFirst(t))
        ASSERT_NE(nullptr, kt4RBTreeRemove(t, first));
    EXPECT_EQ(0, kt4RBTreeDestroy(t));
}

TEST_F(LeakChecked, RBTreeMatchesModel) {
    run_model(_RBTCompareUL, 1500, false, 1);
    run_model(_RBTCompareI, 1500, true, 2);
    run_model(_RBTCompareUL, 0xFFFFFFFFu, false, 3); // next to no duplicates
    run_model(user_compare, 800, false, 4);
}

const char *print_rec(void *r) {
    static thread_local char buf[16];
    std::snprintf(buf, sizeof buf, "%u", static_cast<Rec *>(r)->key);
    return buf;
}

std::string printed(kt4RBTree *t) {
    return kt4test::stdout_of([&] { kt4RBTreePrint(t, print_rec); });
}

TEST_F(LeakChecked, RBTreePrintFormatAndPreOrderWalk) {
    kt4RBTree *t = kt4RBTreeCreate("prt", offsetof(Rec, key), 4, nullptr, nullptr, _RBTCompareUL);
    EXPECT_EQ("\tRed-Black tree prt: 0 numinodes. (empty)\n\n\n", printed(t));
    std::vector<Rec> r(201);
    for (uint32_t i = 0; i < 4; ++i)
        kt4RBTreeInsert(t, &(r[i] = Rec{0, i + 1, 0}));
    // 2 black at the root; 1 black; 3 black with 4 red on its right.
    EXPECT_EQ("\tRed-Black tree prt: 4 numinodes.\n\n"
              "\t\t+---0-B+--[2\n"
              "\t\t|  +---1-B+--[3\n"
              "\t\t|     +---2-R+--[4\n"
              "\t\t   +---1-B+--[1\n"
              "\n",
              printed(t));
    // Pre-order visits 2 1 3 4; a stop at 2, which has a left child, reports that child.
    const uint32_t last[] = {2, 1, 3, 4}, stop[] = {1, 1, 3, 4};
    for (uint32_t max = 1; max <= 4; ++max) {
        std::vector<const Rec *> seen;
        auto *at = static_cast<Rec *>(
            kt4RBTreeWalk(t, nullptr, record_visit, max, KT4_RBTREE_WALK_PREORDER, &seen, -1));
        ASSERT_EQ(max, seen.size());
        EXPECT_EQ(last[max - 1], seen.back()->key);
        EXPECT_EQ(stop[max - 1], at->key) << "max " << max;
    }
    EXPECT_EQ(&r[3], kt4RBTreeWalk(t, nullptr, nullptr, 4, 0)); // no visit: counts only
    for (uint32_t i = 4; i < r.size(); ++i)
        kt4RBTreeInsert(t, &(r[i] = Rec{0, i + 1, 0}));
    EXPECT_EQ("\tRed-Black tree prt: 201 numinodes. (too large to print)\n\n\n", printed(t));
    for (auto &x : r)
        kt4RBTreeRemove(t, &x);
    kt4RBTreeDestroy(t);
}

// With assertion reports echoed to standard output, counts the reports naming each expression.
TEST_F(LeakChecked, RBTreeCreationAssertionsAndDebugFlag) {
    static const char long_name[] = "a-name-that-is-longer-than-fifty-characters-0123456789";
    kt4RBTree *t = kt4RBTreeCreate(long_name, 4, 99, nullptr, nullptr, _RBTCompareUL);
    ASSERT_NE(nullptr, t);
    EXPECT_EQ(std::string(long_name, 50), t->rbtt_name);
    EXPECT_EQ(4u, be(t->rbtt_keylen)); // forced for a built-in compare
    Rec a{0, 1, 0};
    kt4RBTreeInsert(t, &a);
    kt4TracePrintOn();
    const std::string out = kt4test::stdout_of([&] {
        EXPECT_EQ(nullptr, kt4RBTreeCreate("x", 0, 4, nullptr, nullptr, nullptr));
        // The dispatcher as the tree's compare would call itself for ever on the second insert.
        KT4_EXPECT_ERRNO(EINVAL, nullptr,
                         kt4RBTreeCreate("x", 0, 4, nullptr, nullptr, _RBTCompare));
        kt4RBTreeDestroy(kt4RBTreeCreate(nullptr, 0, 4, nullptr, nullptr, _RBTCompareI));
        EXPECT_EQ(nullptr, kt4RBTreeGetExact(nullptr, &a));
        EXPECT_EQ(nullptr, kt4RBTreeGetExact(t, nullptr)); // "data", then the compare's "one"
        kt4RBTreePrint(t, nullptr);
        EXPECT_EQ(1, kt4RBTreeDebug(t, 7));                // anything but 1 is off
        EXPECT_EQ(nullptr, kt4RBTreeGetExact(t, nullptr)); // only the compare's "one" now
        kt4RBTreeDebug(t, 1);
        kt4Be32Set(&t->rbtt_magic, 0x1234);
        EXPECT_EQ(&a, kt4RBTreeGetExact(t, &a)); // reported, and the look-up still works
        kt4Be32Set(&t->rbtt_magic, KT4_RBTREE_MAGIC);
        EXPECT_EQ(-1, _RBTCompareI(t, nullptr, &a)); // reported; a null record sorts first
        EXPECT_EQ(1, _RBTCompareUL(t, &a, nullptr));
    });
    kt4TracePrintOff();
    std::string counts;
    for (const char *e : {"rbtt_compare", "rbtt_name", "rbtt", "data", "print_fn", "one", "two",
                          "rbtt->rbtt_magic == 0xdeadbeef"})
        counts += std::to_string(kt4test::count_of(out, "'" + std::string(e) + "'"));
    EXPECT_EQ("21111311", counts);
    kt4RBTreeRemove(t, &a);
    kt4RBTreeDestroy(t);
}

std::vector<void *> g_nodes;
bool g_fail_alloc = false;
void *pool_alloc(size_t n) {
    return g_fail_alloc ? nullptr : g_nodes.emplace_back(::operator new(n));
}
void pool_free(void *p) {
    g_nodes.erase(std::find(g_nodes.begin(), g_nodes.end(), p));
    ::operator delete(p);
}

TEST_F(LeakChecked, RBTreeHooksDuplicatesAndCallerNodes) {
    kt4RBTree *t =
        kt4RBTreeCreate("hooks", offsetof(Rec, key), 4, pool_alloc, pool_free, _RBTCompareUL);
    Rec a{0, 5, 1}, b{0, 5, 2}, c{0, 9, 3};
    EXPECT_EQ(1, kt4RBTreeInsert(t, &a));
    EXPECT_EQ(1, kt4RBTreeInsert(t, &b)); // equal keys coexist
    g_fail_alloc = true;
    EXPECT_EQ(0, kt4RBTreeInsert(t, &c)); // no node: refused, nothing counted
    g_fail_alloc = false;
    EXPECT_EQ(2u, be(t->rbtt_nodeallocs));
    kt4RBTreeRemove(t, &a);
    EXPECT_EQ(1u, g_nodes.size());
    // Nodes the caller holds: inserted and removed exactly, without the allocator.
    constexpr size_t kN = 500;
    std::vector<Rec> recs(kN);
    std::vector<kt4RBTreeNode> nodes(kN);
    for (size_t i = 0; i < kN; ++i) {
        recs[i] = Rec{0, static_cast<uint32_t>(i * 37 % 50), static_cast<int>(i)};
        nodes[i].data = &recs[i];
        ASSERT_EQ(1, _kt4RBTreeInsert(t, &nodes[i]));
    }
    for (size_t k = 0, i = 0; k < kN; ++k, i = (i + 173) % kN) { // every node, scattered
        ASSERT_EQ(&nodes[i], _kt4RBTreeRemove(t, &nodes[i]));
        EXPECT_EQ(&t->rbtt_nil, nodes[i].parent);
        ASSERT_EQ(nullptr, _kt4RBTreeRemove(t, &nodes[i])); // detached: refused
        ASSERT_TRUE(valid(t));
    }
    EXPECT_EQ(1u, be(t->rbtt_numentries));
    // Destroy releases the header only: the remaining node stays with the allocator.
    EXPECT_EQ(0, kt4RBTreeDestroy(t));
    EXPECT_EQ(1u, g_nodes.size());
    pool_free(g_nodes.back());
}

// Header, nodes and records in shared memory: the child adds entries and the parent finds them
// in the same tree.
struct SharedRec {
    uint32_t key, owner; // owner: 1 parent, 2 child
};

TEST(RBTreeShm, TwoProcessesShareOneTree) {
    SharedHeap heap;
    ASSERT_TRUE(heap.ok());
    kt4RBTree *t =
        kt4RBTreeShmCreate("shared", 0, 4, SharedHeap::alloc, SharedHeap::free, _RBTCompareUL);
    ASSERT_TRUE(heap.contains(t));
    auto add = [&](uint32_t key, uint32_t owner) {
        auto *r = static_cast<SharedRec *>(SharedHeap::alloc(sizeof(SharedRec)));
        *r = SharedRec{key, owner};
        return kt4RBTreeInsert(t, r);
    };
    for (uint32_t k = 0; k < 100; k += 2)
        ASSERT_EQ(1, add(k, 1));
    const pid_t pid = kt4test::fork_child([&] {
        SharedRec probe{40, 0};
        auto *found = static_cast<SharedRec *>(kt4RBTreeGetExact(t, &probe));
        bool ok = found != nullptr && found->owner == 1;
        for (uint32_t k = 1; k < 100 && ok; k += 2)
            ok = add(k, 2) == 1;
        return ok;
    });
    ASSERT_GT(pid, 0);
    ASSERT_EQ(0, kt4test::wait_child(pid));
    uint32_t want = 0;
    for (auto *r = static_cast<SharedRec *>(kt4RBTreeGetFirst(t)); r;
         r = static_cast<SharedRec *>(kt4RBTreeGetNext(t, r)), ++want)
        ASSERT_TRUE(r->key == want && r->owner == (want % 2 ? 2u : 1u)) << want;
    EXPECT_EQ(100u, want);
    while (void *r = kt4RBTreeGetFirst(t))
        SharedHeap::free(kt4RBTreeRemove(t, r));
    EXPECT_EQ(0, kt4RBTreeShmDestroy(t));
}

} // namespace
