// The tree's documented behaviours one by one: duplicates, a best match stopping at a pending
// removal and its replacement, resumable walks, and a table shared by two processes.
#include "radix/radix_model.h"

#include "support/kt4_support.h"

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <new>
#include <numeric>

#include <cerrno>
#include <cstdarg>

namespace {

struct Route {
    kt4RadixEntry rth;
    uint8_t addr[16];
};

std::vector<kt4RadixEntry *> g_freed;
void rmfree(kt4RadixEntry *e) {
    g_freed.push_back(e);
}

class RadixTree : public ::testing::Test {
  protected:
    void SetUp() override {
        g_freed.clear();
        t = kt4RadixCreate("routes", 32, nullptr, nullptr, rmfree);
    }
    void TearDown() override {
        while (kt4RadixEntry *e = kt4RadixGetNext(t, nullptr, 0))
            kt4RadixRemove(t, e);
        EXPECT_EQ(OK, kt4RadixDestroy(t));
    }
    kt4RadixEntry *add(int i, const char *text, int len) {
        inet_pton(AF_INET, text, r[i].addr);
        r[i].rth.rth_addr = r[i].addr;
        return kt4RadixInsert(t, &r[i].rth, len);
    }
    kt4RadixEntry *best(const char *text) {
        uint8_t k[4];
        inet_pton(AF_INET, text, k);
        return kt4RadixGetBest(t, k, 32);
    }
    kt4RadixStats stats() {
        kt4RadixStats s;
        kt4RadixGetStats(t, &s);
        return s;
    }
    kt4RadixEntry *e(int i) { return &r[i].rth; }
    kt4RadixTree *t = nullptr;
    Route r[6]{}; // outlive the test body: TearDown empties the tree
};

TEST_F(RadixTree, APrefixIsHeldOnceAndLengthsAboveTheKeyAreRefused) {
    EXPECT_EQ(e(0), add(0, "10.0.0.0", 8));
    EXPECT_EQ(e(0), add(1, "10.9.9.9", 8)) << "the same first 8 bits: the same prefix";
    EXPECT_EQ(nullptr, e(1)->rth_rtn);
    EXPECT_EQ(1u, stats().userNodes);
    KT4_EXPECT_ERRNO(EINVAL, nullptr, add(2, "10.0.0.0", 33)); // a /33 in an IPv4 tree
    EXPECT_EQ(nullptr, kt4RadixGetExact(t, r[0].addr, 33));
    r[3].rth.rth_addr = nullptr;
    KT4_EXPECT_ERRNO(EINVAL, nullptr, kt4RadixInsert(t, &r[3].rth, 16)); // no key bytes
    EXPECT_EQ(2u, stats().inserts) << "refused inserts are not counted";
    KT4_EXPECT_ERRNO(ENOTEMPTY, ERROR, kt4RadixDestroy(t)); // reported and kept
    EXPECT_EQ(e(0), kt4RadixGetNext(t, nullptr, 0)) << "the kept tree is whole";
    // Checking off: the same operations on fresh records, without the argument checks.
    EXPECT_EQ(1, kt4RadixDebug(t, 0));
    EXPECT_EQ(0, t->rtt_check);
    EXPECT_EQ(e(4), add(4, "192.168.1.0", 24));
    EXPECT_EQ(e(4), kt4RadixGetExact(t, r[4].addr, 24));
    kt4RadixRemove(t, e(4));
    EXPECT_EQ(nullptr, kt4RadixGetExact(t, r[4].addr, 24));
    EXPECT_EQ(1, kt4RadixDebug(t, 1));
    EXPECT_EQ(1, t->rtt_check);
}

TEST_F(RadixTree, HostBitsAreIgnored) {
    EXPECT_EQ(e(0), add(0, "10.9.9.9", 8));
    const uint8_t net[4] = {10, 0, 0, 0};
    EXPECT_EQ(e(0), kt4RadixGetExact(t, net, 8));
    EXPECT_EQ(e(0), best("10.1.2.3"));
    EXPECT_EQ(e(1), add(1, "10.1.255.255", 16));
    EXPECT_EQ(e(1), best("10.1.2.3"));
    EXPECT_EQ(e(0), best("10.2.0.1"));
}

// Removes the target from inside a version walk (the node is locked), probes the best match
// of 10.1.2.3 meanwhile and optionally inserts a replacement at the same prefix.
struct Locked {
    kt4RadixTree *t;
    kt4RadixEntry *target, *replacement, *best_during;
};

int remove_while_locked(kt4RadixEntry *e, va_list *args) {
    Locked *l = va_arg(*args, Locked *);
    if (e != l->target) return 0;
    kt4RadixRemove(l->t, e);
    EXPECT_TRUE(g_freed.empty()) << "nothing goes back while the walk holds the node";
    const uint8_t k[4] = {10, 1, 2, 3};
    l->best_during = kt4RadixGetBest(l->t, k, 32);
    if (l->replacement != nullptr) {
        EXPECT_EQ(l->replacement, kt4RadixInsert(l->t, l->replacement, 16));
    }
    return 0;
}

TEST_F(RadixTree, BestMatchStopsAtAPendingRemovalAndInsertReplacesIt) {
    add(0, "10.0.0.0", 8);
    add(1, "10.1.0.0", 16);
    EXPECT_EQ(e(1), best("10.1.2.3"));
    kt4RadixSetVersion(t, e(1));
    Locked l{t, e(1), nullptr, e(0)};
    kt4RadixVersionWalk(t, nullptr, remove_while_locked, 0, 1, UINT64_MAX, nullptr, &l);
    EXPECT_EQ(nullptr, l.best_during) << "not the /8: the /16 is on its way out";
    EXPECT_EQ(std::vector<kt4RadixEntry *>{e(1)}, g_freed) << "completed by the walk";
    EXPECT_EQ(e(0), best("10.1.2.3"));

    // Again, and a new entry for 10.1/16 takes the pending one's place inside the callback.
    add(1, "10.1.0.0", 16);
    r[2].rth.rth_addr = r[1].addr; // 10.1.0.0 too
    kt4RadixSetVersion(t, e(1));
    g_freed.clear();
    l = Locked{t, e(1), e(2), nullptr};
    kt4RadixVersionWalk(t, nullptr, remove_while_locked, 0, 1, UINT64_MAX, nullptr, &l);
    EXPECT_EQ(std::vector<kt4RadixEntry *>{e(1)}, g_freed) << "the replaced entry";
    EXPECT_EQ(e(2), best("10.1.2.3"));
    EXPECT_EQ(2u, stats().userFrees);
    EXPECT_EQ("", rdxmodel::check_structure(t));
}

// Records the entry, removes it when asked, and returns the given result at the given entry.
int stop_at(kt4RadixEntry *x, va_list *args) {
    auto *seen = va_arg(*args, std::vector<kt4RadixEntry *> *);
    kt4RadixEntry *at = va_arg(*args, kt4RadixEntry *);
    const int result = va_arg(*args, int);
    kt4RadixTree *remove_from = va_arg(*args, kt4RadixTree *);
    seen->push_back(x);
    if (remove_from != nullptr) kt4RadixRemove(remove_from, x);
    return x == at ? result : 0;
}

TEST_F(RadixTree, WalksResumeAtTheEntryAfterANegativeResultAndPastAPositiveOne) {
    const char *p[] = {"10.0.0.0", "10.1.0.0", "10.2.0.0", "10.3.0.0"};
    for (int i = 0; i < 4; ++i)
        kt4RadixSetVersion(t, add(i, p[i], 16));
    std::vector<kt4RadixEntry *> seen;
    kt4RadixTree *keep = nullptr;
    EXPECT_EQ(e(2), kt4RadixWalk(t, nullptr, stop_at, &seen, e(2), -1, keep));
    EXPECT_EQ(e(3), kt4RadixWalk(t, e(2), stop_at, &seen, e(2), 1, keep));
    int self = 0; // versions 2..4 in batches of 1, yielding between them
    EXPECT_EQ(e(3), kt4RadixVersionWalk(t, e(1), stop_at, 1, 2, 4, &self, &seen, e(2), 1, keep));
    EXPECT_EQ((std::vector<kt4RadixEntry *>{e(0), e(1), e(2), e(2), e(1), e(2)}), seen);
    seen.clear(); // a callback removing every entry it is given still sees them all
    EXPECT_EQ(nullptr, kt4RadixWalk(t, nullptr, stop_at, &seen, nullptr, 0, t));
    EXPECT_EQ(4u, seen.size());
    EXPECT_EQ(nullptr, t->rtt_root);
}

// A table in shared memory (header, nodes, records, outside list and cursor alike): a child
// process fills it, the parent looks routes up and catches up on the changes.
using kt4test::SharedHeap;

int key_byte_1(kt4RadixEntry *x, va_list *args) {
    va_arg(*args, std::vector<int> *)->push_back(x->rth_key[1]);
    return 0;
}

TEST(RadixTreeShared, AChildProcessChangesTheTableAndTheParentCatchesUp) {
    SharedHeap heap;
    ASSERT_TRUE(heap.ok());
    kt4RadixTree *t = kt4RadixCreateP("shared", 32, SharedHeap::alloc, SharedHeap::free, nullptr);
    kt4Car *car = kt4RadixCarCreate(t, nullptr);
    ASSERT_TRUE(t != nullptr && car != nullptr && car->car_shm == 1);
    auto *reader = static_cast<kt4RadixEntry *>(SharedHeap::alloc(sizeof(kt4RadixEntry)));
    *reader = kt4RadixEntry{};
    kt4CarWalkConstructor(car, reader);
    const pid_t pid = kt4test::fork_child([&] {
        for (int i = 0; i < 100; ++i) {
            auto *r = new (SharedHeap::alloc(sizeof(Route))) Route{};
            r->addr[0] = 10;
            r->addr[1] = uint8_t(i);
            r->rth.rth_addr = r->addr;
            if (kt4RadixInsert(t, &r->rth, 16) != &r->rth) return false;
            kt4CarAppendToChangeList(car, &r->rth);
        }
        return true;
    });
    ASSERT_GT(pid, 0);
    ASSERT_EQ(0, kt4test::wait_child(pid));
    const uint8_t k[4] = {10, 42, 1, 1};
    kt4RadixEntry *x = kt4RadixGetBest(t, k, 32);
    ASSERT_NE(nullptr, x);
    EXPECT_EQ(42, x->rth_key[1]);
    std::vector<int> seen, want(100);
    std::iota(want.begin(), want.end(), 0);
    int ret = 0;
    EXPECT_EQ(100,
              kt4CarWalkChangeList(car, reader, key_byte_1, 16, 0, UINT64_MAX, &ret, &ret, &seen));
    EXPECT_EQ(want, seen);
    kt4CarWalkDestructor(car, reader);
    SharedHeap::free(reader);
    while ((x = kt4RadixGetNext(t, nullptr, 0)) != nullptr) {
        kt4RadixRemove(t, x);
        SharedHeap::free(x);
    }
    EXPECT_EQ(OK, kt4RadixDestroyP(t));
    EXPECT_EQ(OK, kt4CarDestroy(car));
}

} // namespace
