// Model-based tests: random IPv4 and IPv6 prefixes inserted and removed, every look-up checked
// after every step against a brute-force model; version walks compared with the entries the
// model says changed, removing entries from inside their callback.
#include "radix/radix_model.h"

#include <gtest/gtest.h>

#include <cstdarg>
#include <deque>
#include <random>

namespace {

struct Route {
    kt4RadixEntry rth;
    uint8_t addr[rdxmodel::kMaxKeyBytes];
    int len;
};

std::vector<kt4RadixEntry *> g_handed_back;
void rmfree(kt4RadixEntry *e) {
    g_handed_back.push_back(e);
}

class RadixModel : public ::testing::TestWithParam<int> {
  protected:
    void SetUp() override {
        tree = kt4RadixCreate("model", bits, nullptr, nullptr, rmfree);
        ASSERT_NE(nullptr, tree);
        for (auto &b : bases)
            for (auto &x : b)
                x = static_cast<uint8_t>(rng());
        g_handed_back.clear();
    }
    void TearDown() override {
        while (kt4RadixEntry *e = kt4RadixGetNext(tree, nullptr, 0))
            kt4RadixRemove(tree, e);
        EXPECT_EQ(OK, kt4RadixDestroy(tree));
    }

    // Keys cluster around a few bases so that prefixes nest and part at every depth. Bits
    // beyond a prefix's length stay random: the tree must never look at them.
    void key(uint8_t *out) {
        std::memcpy(out, bases[rng() % bases.size()].data(), rdxmodel::kMaxKeyBytes);
        for (int i = static_cast<int>(rng() % (bits + 1)); i < bits; ++i)
            if (rng() & 1) out[i >> 3] ^= static_cast<uint8_t>(0x80 >> (i & 7));
    }
    int len() {
        const unsigned p = rng() % 8;
        return p == 0 ? int(rng() % 9) : p == 1 ? bits : bits / 2 + int(rng() % (bits / 2 + 1));
    }
    kt4RadixEntry *any() {
        auto it = model.m.begin();
        std::advance(it, long(rng() % model.m.size()));
        return it->second;
    }
    void insert() {
        Route &r = routes.emplace_back();
        key(r.addr);
        r.len = len();
        r.rth.rth_addr = r.addr;
        kt4RadixEntry *had = model.exact(r.addr, r.len);
        ASSERT_EQ(had != nullptr ? had : &r.rth, kt4RadixInsert(tree, &r.rth, r.len));
        if (had == nullptr) model.m[rdxmodel::make_prefix(r.addr, r.len)] = &r.rth;
    }
    void forget(kt4RadixEntry *e) {
        EXPECT_EQ(nullptr, e->rth_rtn);
        auto *r = reinterpret_cast<Route *>(e);
        model.m.erase(rdxmodel::make_prefix(r->addr, r->len));
    }

    void check_all() {
        ASSERT_EQ("", rdxmodel::check_structure(tree));
        std::vector<kt4RadixEntry *> got;
        for (kt4RadixEntry *e = kt4RadixGetNext(tree, nullptr, 0);
             e != nullptr && got.size() <= model.m.size();
             e = kt4RadixGetNext(tree, e->rth_key, kt4RadixEntryLength(e)))
            got.push_back(e);
        ASSERT_EQ(model.in_order(), got);
        for (int i = 0; i < 6; ++i) {
            uint8_t k[rdxmodel::kMaxKeyBytes];
            key(k);
            const int l = len();
            ASSERT_EQ(model.exact(k, l), kt4RadixGetExact(tree, k, l));
            ASSERT_EQ(model.best(k, bits), kt4RadixGetBest(tree, k, bits));
            kt4RadixEntry *best = model.best(k, l), *prev = &routes.front().rth;
            ASSERT_EQ(best, kt4RadixGetBestAndPrev(tree, k, l, &prev));
            const int bl = best != nullptr ? kt4RadixEntryLength(best) : 0;
            ASSERT_EQ(bl > 0 ? model.best(k, bl - 1) : nullptr, prev);
            ASSERT_EQ(l > 0 ? model.best(k, l - 1) : nullptr, kt4RadixGetNextBest(tree, k, l));
            ASSERT_EQ(model.next(k, l), kt4RadixGetNext(tree, k, l));
            ASSERT_EQ(model.covered_by(k, l),
                      rdxmodel::subtree_entries(_kt4RadixGetSubTree(tree, k, l)));
        }
        if (!model.m.empty()) {
            kt4RadixEntry *e = any();
            const int l = kt4RadixEntryLength(e);
            ASSERT_EQ(l > 0 ? model.best(e->rth_key, l - 1) : nullptr,
                      kt4RadixGetLessSpecific(tree, e));
        }
    }

    const int bits = GetParam();
    std::mt19937 rng{0xC0FFEEu + static_cast<unsigned>(GetParam())};
    std::array<std::array<uint8_t, rdxmodel::kMaxKeyBytes>, 6> bases{};
    kt4RadixTree *tree = nullptr;
    rdxmodel::Model model;
    std::deque<Route> routes;
};

TEST_P(RadixModel, RandomInsertsAndRemovesMatchTheModelAfterEveryStep) {
    for (int step = 0; step < 2000; ++step) {
        SCOPED_TRACE(step);
        // Grow, then hover around a few hundred entries.
        if (model.m.size() < 40 || rng() % 100 < (model.m.size() < 300 ? 65u : 45u)) {
            insert();
        } else {
            kt4RadixEntry *e = any();
            kt4RadixRemove(tree, e);
            forget(e);
        }
        check_all();
        if (HasFatalFailure()) return;
    }
    EXPECT_TRUE(g_handed_back.empty()) << "plain removals hand nothing back";
}

struct Visit {
    kt4RadixTree *tree;
    bool remove_odd;
    std::vector<kt4RadixEntry *> seen;
};

int visit(kt4RadixEntry *e, va_list *args) {
    Visit *v = va_arg(*args, Visit *);
    EXPECT_EQ(0x5eed, va_arg(*args, int));
    EXPECT_EQ(1, e->rth_rtn->rtn_lock);
    v->seen.push_back(e);
    if (v->remove_odd && v->seen.size() % 2 == 0) {
        kt4RadixRemove(v->tree, e);
        // Pending: not found any more, and a best match stops at it.
        EXPECT_EQ(nullptr, kt4RadixGetExact(v->tree, e->rth_key, kt4RadixEntryLength(e)));
        EXPECT_EQ(nullptr, kt4RadixGetBest(v->tree, e->rth_key, kt4RadixEntryLength(e)));
    }
    return 0;
}

TEST_P(RadixModel, VersionWalkVisitsTheChangedEntriesAndCompletesRemovalsInItsCallback) {
    for (int i = 0; i < 600; ++i)
        insert();
    for (int round = 0; round < 8; ++round) {
        SCOPED_TRACE(round);
        const uint64_t first = kt4RadixSetVersion(tree, any());
        for (int i = 0; i < 40; ++i)
            kt4RadixSetVersion(tree, any());
        const uint64_t lo = first + rng() % 20, hi = lo + rng() % 30;
        std::vector<kt4RadixEntry *> want;
        for (auto &kv : model.m)
            if (kt4RadixEntryVersion(kv.second) >= lo && kt4RadixEntryVersion(kv.second) <= hi)
                want.push_back(kv.second);
        Visit v{tree, round % 2 == 1, {}};
        g_handed_back.clear();
        EXPECT_EQ(nullptr, kt4RadixVersionWalk(tree, nullptr, visit, 3, lo, hi, &v, &v, 0x5eed));
        ASSERT_EQ(want, v.seen);
        // The walk completed each removal on moving on, and handed the entries back in order.
        std::vector<kt4RadixEntry *> removed;
        for (size_t i = 1; v.remove_odd && i < v.seen.size(); i += 2)
            removed.push_back(v.seen[i]);
        ASSERT_EQ(removed, g_handed_back);
        for (kt4RadixEntry *e : g_handed_back)
            forget(e);
        check_all();
        if (HasFatalFailure()) return;
    }
}

INSTANTIATE_TEST_SUITE_P(Keys, RadixModel, ::testing::Values(32, 128),
                         [](const auto &info) { return info.param == 32 ? "IPv4" : "IPv6"; });

} // namespace
