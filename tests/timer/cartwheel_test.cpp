// Cartwheel timers: bucket placement, firing order, the next-expiry count, free lists.
#include <kt4/timer.h>

#include "support/kt4_support.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <functional>
#include <vector>

namespace {

struct Rec {
    kt4cwTimerLink link; // the wheel's three words come first
    int id;
    int fires;
};

std::vector<int> fired;
std::function<void(Rec *)> on_expiry;
void expiry(void *t) {
    auto *r = static_cast<Rec *>(t);
    ++r->fires;
    fired.push_back(r->id);
    if (on_expiry) on_expiry(r);
}

using namespace kt4test; // the counting allocation hooks

class Cartwheel : public testing::Test {
  protected:
    void SetUp() override {
        fired.clear();
        on_expiry = nullptr;
        Counting::reset();
    }
    void TearDown() override {
        kt4cwTimerUnInit(cw_); // releases running and free records alike
        EXPECT_EQ(Counting::allocs.load(), Counting::frees.load());
    }
    void make(uint32_t buckets, int32_t timers = 0, int32_t extend = 0) {
        cw_ = kt4cwTimerInit(buckets, timers, extend, Counting::alloc, Counting::free, expiry,
                             nullptr, 0x1234, sizeof(Rec));
        ASSERT_NE(nullptr, cw_);
    }
    Rec *get(int id) {
        auto *r = static_cast<Rec *>(kt4cwGetTimer(cw_));
        r->id = id;
        return r;
    }
    int ticks_until_fired() { // tick calls until something fires
        for (size_t n = 1, before = fired.size(); n <= 64; ++n) {
            kt4cwTimerTick(cw_);
            if (fired.size() > before) return static_cast<int>(n);
        }
        return -1;
    }
    tkt4cwTimerCB *cw_ = nullptr;
};

TEST_F(Cartwheel, DelaysBucketsAndTheAsymmetricNextExpiry) {
    make(8);
    EXPECT_EQ(-1, kt4cwTimerRetNext(cw_));
    for (int i = 0; i < 5; ++i)
        kt4cwTimerTick(cw_);
    Rec *a = get(1);
    kt4cwStartTimer(cw_, a, 2); // current bucket 5: bucket 7
    EXPECT_EQ(3, kt4cwTimerRetNext(cw_));
    EXPECT_EQ(3, ticks_until_fired());

    for (int i = 0; i < 5; ++i) // back to bucket 5
        kt4cwTimerTick(cw_);
    kt4cwStartTimer(cw_, a, 4); // wraps to bucket 1: counted 4, fires on the fifth tick
    EXPECT_EQ(4, kt4cwTimerRetNext(cw_));
    EXPECT_EQ(5, ticks_until_fired());
    kt4cwStartTimer(cw_, a, 10); // no revolution count: 10 on eight buckets is 2
    EXPECT_EQ(3, ticks_until_fired());
    EXPECT_EQ(3, a->fires);

    // One bucket, started in order; stops at the front, middle and end relink it.
    std::vector<Rec *> r;
    for (int i = 0; i < 6; ++i)
        kt4cwStartTimer(cw_, r.emplace_back(get(10 + i)), 3);
    for (int i : {0, 3, 5, 5}) // a stopped timer stops again harmlessly
        kt4cwStopTimer(r[i]);
    EXPECT_EQ(nullptr, r[5]->link.prev);
    kt4cwStartTimer(cw_, a, 3); // appended after the new last
    kt4cwRestartTimer(cw_, r[0], 2);
    kt4cwStartTimer(cw_, r[3], 6);
    kt4cwStartTimer(cw_, r[3], 1); // starting a running timer moves it
    fired.clear();
    for (int i = 0; i < 4; ++i)
        kt4cwTimerTick(cw_);
    EXPECT_EQ((std::vector<int>{13, 10, 11, 12, 14, 1}), fired);

    // The only timer of a bucket stopped, another started there.
    kt4cwStartTimer(cw_, a, 1);
    kt4cwStopTimer(a);
    EXPECT_EQ(-1, kt4cwTimerRetNext(cw_));
    kt4cwStartTimer(cw_, r[5], 1);
    EXPECT_EQ(2, ticks_until_fired());
    for (Rec *x : r)
        kt4cwFreeTimer(cw_, x);
    kt4cwFreeTimer(cw_, a);
}

TEST_F(Cartwheel, HandlersRearmIntoTheSameTickStopOthersAndKeepAPeriod) {
    make(8);
    Rec *a = get(1), *b = get(2), *c = get(3);
    for (Rec *x : {a, b, c})
        kt4cwStartTimer(cw_, x, 0);
    on_expiry = [&](Rec *x) {
        if (x == a && x->fires == 1) kt4cwStartTimer(cw_, x, 0); // fires again now
        if (x == b) kt4cwStopTimer(c);
    };
    EXPECT_EQ(1u, kt4cwTimerTick(cw_));
    EXPECT_EQ((std::vector<int>{1, 2, 1}), fired);

    // Driving by hand: the current bucket's timers one at a time, stopped as they come.
    kt4cwStartTimer(cw_, a, 0);
    kt4cwStartTimer(cw_, b, 0);
    EXPECT_EQ(a, kt4cwGetNextExpiredTimer(cw_));
    EXPECT_EQ(nullptr, a->link.prev);
    EXPECT_EQ(b, kt4cwGetNextExpiredTimer(cw_));
    EXPECT_EQ(nullptr, kt4cwGetNextExpiredTimer(cw_));

    // A period of p ticks: started between ticks with delay p - 1 (fires during the p-th
    // tick), restarted from its handler with delay p (the wheel moves on only after the
    // handlers), away from bucket 0 and across the wheel's wrap.
    std::vector<int> at;
    int tick = 0;
    on_expiry = [&](Rec *x) {
        at.push_back(tick);
        kt4cwRestartTimer(cw_, x, 5);
    };
    kt4cwStartTimer(cw_, a, 4);
    for (tick = 1; tick <= 20; ++tick)
        kt4cwTimerTick(cw_);
    EXPECT_EQ((std::vector<int>{5, 10, 15, 20}), at);
    kt4cwStopTimer(a);
    kt4cwStartTimer(cw_, c, 5); // left running: UnInit releases it
    kt4cwFreeTimer(cw_, a);
    kt4cwFreeTimer(cw_, b);
}

TEST_F(Cartwheel, FreeListGrowsByTheExtension) {
    make(8); // defaults: 100 records, extension 50
    EXPECT_EQ(100, Counting::allocs.load());
    std::vector<Rec *> taken;
    for (int i = 0; i < 101; ++i) // the 101st allocates 50 more
        taken.push_back(get(i));
    EXPECT_EQ(150, Counting::allocs.load());
    EXPECT_EQ(nullptr, taken.back()->link.next); // handed out with clear links
    for (int i = 0; i < 101; ++i)
        if (i % 2)
            kt4cwStartTimer(cw_, taken[i], static_cast<uint16_t>(i % 8));
        else
            kt4cwFreeTimer(cw_, taken[i]);
    kt4cwRemoveFreeList(cw_);
    EXPECT_EQ(49 + 51, Counting::frees.load());
    EXPECT_EQ(nullptr, kt4cwTimerInit(100, 1, 1, nullptr, nullptr, expiry, nullptr, 0, 64));
    EXPECT_EQ(nullptr, kt4cwTimerInit(8, 1, 1, nullptr, nullptr, nullptr, nullptr, 0, 64));
    EXPECT_EQ(nullptr, kt4cwTimerInit(8, 1, 1, nullptr, nullptr, expiry, nullptr, 0, 0));
}

} // namespace
