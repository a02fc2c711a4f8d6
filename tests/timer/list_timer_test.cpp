// List timers: delta bookkeeping, early and late ticks, batching, stops, the select timeout
// in a real select loop, and the time arithmetic.
#include <kt4/timer.h>

#include <gtest/gtest.h>

#include <sys/select.h>

#include <chrono>
#include <string>
#include <vector>

namespace {

using std::chrono::milliseconds;
using Clock = std::chrono::steady_clock;

struct Rec {
    kt4ListTimerNode node; // the list's fields come first
    int id;
    int fires;
};
Rec *rec(kt4ListTimerNode *n) {
    return reinterpret_cast<Rec *>(n);
}
long ms_of(const timespec &ts) {
    return static_cast<long>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

std::vector<int> fired, armed;
int stops;
kt4ListTimerCB *the_cb;

// The time the lists of these tests read: moved by the tests alone.
timespec fake_now;
void read_fake(timespec *now) {
    *now = fake_now;
}
void advance(long ms) {
    fake_now.tv_nsec += (ms % 1000) * 1000000;
    fake_now.tv_sec += ms / 1000 + fake_now.tv_nsec / 1000000000;
    fake_now.tv_nsec %= 1000000000;
}
void on_expiry(kt4ListTimerNode *n) {
    fired.push_back(rec(n)->id);
    if (++rec(n)->fires < 3 && rec(n)->id == 100) kt4ListStartTimer(the_cb, n, 30); // periodic
}
void on_start(kt4ListTimerNode *n) {
    armed.push_back(rec(n)->id);
}
void on_stop(kt4ListTimerNode *) {
    ++stops;
}

class ListTimer : public testing::Test {
  protected:
    void SetUp() override {
        fired.clear();
        armed.clear();
        stops = 0;
        the_cb = cb_ = kt4ListTimerNew(nullptr, on_start, on_stop, on_expiry);
        ASSERT_NE(nullptr, cb_);
        fake_now = timespec{5000, 999000000}; // a second's carry comes with the first move
        ASSERT_EQ(0, kt4ListTimerSetClock(cb_, read_fake));
        for (int i = 0; i < 8; ++i)
            r_[i] = Rec{{}, i, 0};
    }
    void TearDown() override { kt4ListTimerDestroy(cb_); }
    std::vector<int> ids(int head) {
        std::vector<int> out;
        for (kt4ListTimerNode *n = &r_[head].node; n != nullptr; n = n->next)
            out.push_back(rec(n)->id);
        return out;
    }
    kt4ListTimerCB *cb_ = nullptr;
    Rec r_[8];
};

TEST_F(ListTimer, DeltasChainInExpiryOrderAndAStoppedHeadPassesItsRest) {
    kt4ListStartTimer(cb_, &r_[1].node, 100);
    kt4ListStartTimer(cb_, &r_[3].node, 300);
    kt4ListStartTimer(cb_, &r_[2].node, 200);
    EXPECT_EQ((std::vector<int>{1, 2, 3}), ids(1));
    for (int i : {1, 2, 3})
        EXPECT_EQ(100, ms_of(r_[i].node.delta)) << i;

    // A shorter one replaces the head, whose delta shrinks by the distance; an equal expiry
    // goes after the timers already due then.
    kt4ListStartTimer(cb_, &r_[4].node, 40);
    kt4ListStartTimer(cb_, &r_[5].node, 40);
    EXPECT_EQ((std::vector<int>{4, 5, 1, 2, 3}), ids(4));
    EXPECT_EQ(40, ms_of(r_[4].node.delta));
    EXPECT_EQ(60, ms_of(r_[1].node.delta));
    EXPECT_EQ((std::vector<int>{1, 4}), armed);

    // Stopping inside the list hands the delta on; restarting a running timer moves it.
    kt4ListStopTimer(cb_, &r_[2].node);
    kt4ListStopTimer(cb_, &r_[2].node); // not running: nothing happens
    EXPECT_EQ(nullptr, r_[2].node.prev);
    EXPECT_EQ(200, ms_of(r_[3].node.delta));
    kt4ListStartTimer(cb_, &r_[3].node, 10);
    EXPECT_EQ((std::vector<int>{3, 4, 5, 1}), ids(3));

    // Stopping the head passes what it had left on, from now, and arms the list for the next;
    // the stop callback runs when the list empties.
    advance(6);
    armed.clear();
    kt4ListStopTimer(cb_, &r_[3].node);
    EXPECT_EQ(34, ms_of(r_[4].node.delta)); // its own 30 plus the 4 left
    EXPECT_EQ((std::vector<int>{4}), armed);
    for (int i : {4, 5, 1})
        kt4ListStopTimer(cb_, &r_[i].node);
    EXPECT_EQ(1, stops);
}

TEST_F(ListTimer, EarlyLateAndBatchedTicksKeepEachExpiry) {
    // Early: the head fires; the next delta grows by what was left.
    kt4ListStartTimer(cb_, &r_[1].node, 100);
    kt4ListStartTimer(cb_, &r_[2].node, 200);
    kt4ListTimerTick(cb_);
    EXPECT_EQ(200, ms_of(r_[2].node.delta));
    kt4ListStopTimer(cb_, &r_[2].node);

    // Late: the lateness comes off the next delta.
    kt4ListStartTimer(cb_, &r_[3].node, 50);
    kt4ListStartTimer(cb_, &r_[4].node, 300);
    advance(100);
    kt4ListTimerTick(cb_);
    EXPECT_EQ(200, ms_of(r_[4].node.delta)); // 250 after the head, 50 of them gone already
    kt4ListStopTimer(cb_, &r_[4].node);

    // Within the minimum timeout (20 ms) of an expiry: fired in the same tick.
    kt4ListStartTimer(cb_, &r_[5].node, 30);
    kt4ListStartTimer(cb_, &r_[6].node, 40);
    kt4ListStartTimer(cb_, &r_[7].node, 400);
    advance(30);
    armed.clear();
    kt4ListTimerTick(cb_);
    EXPECT_EQ((std::vector<int>{1, 3, 5, 6}), fired);
    EXPECT_EQ((std::vector<int>{7}), armed);
    EXPECT_EQ(370, ms_of(r_[7].node.delta)); // still due 400 after it started
    kt4ListStopTimer(cb_, &r_[7].node);
    EXPECT_EQ(-1, kt4ListTimerTick(nullptr));
    EXPECT_EQ(-1, kt4ListTimerSetClock(nullptr, read_fake));
    EXPECT_EQ(nullptr, kt4ListTimerNew(nullptr, nullptr, nullptr, nullptr));
}

// The way an event loop uses the list: select with the list's timeout, tick on expiry.
TEST_F(ListTimer, SelectLoopFiresEachTimerOnTime) {
    ASSERT_EQ(0, kt4ListTimerSetClock(cb_, nullptr)); // the monotonic clock, as in a process
    Rec periodic{{}, 100, 0};
    auto t0 = Clock::now();
    kt4ListStartTimer(cb_, &r_[1].node, 150);
    kt4ListStartTimer(cb_, &r_[2].node, 60);
    kt4ListStartTimer(cb_, &periodic.node, 30); // re-armed twice from its handler
    kt4ListStartTimer(cb_, &r_[3].node, 250);
    kt4ListStartTimer(cb_, &r_[4].node, 500);
    kt4ListStopTimer(cb_, &r_[4].node);
    std::vector<long> at;
    for (;;) {
        timeval tv{}, *tvp = &tv;
        kt4ListTimerGetTimevalTimeout(cb_, &tvp);
        if (tvp == nullptr) break;
        ASSERT_EQ(0, select(0, nullptr, nullptr, nullptr, tvp));
        kt4ListTimerTick(cb_);
        while (at.size() < fired.size())
            at.push_back(std::chrono::duration_cast<milliseconds>(Clock::now() - t0).count());
    }
    ASSERT_EQ((std::vector<int>{100, 2, 100, 100, 1, 3}), fired);
    const long due[] = {30, 60, 60, 90, 150, 250};
    for (size_t i = 0; i < at.size(); ++i) { // never before due less the minimum; never far after
        EXPECT_GE(at[i], due[i] - 20) << i;
        EXPECT_LT(at[i], due[i] + 1000) << i;
    }
}

TEST(Timespec, SumCarriesAtExactlyOneSecondAndDiffBorrows) {
    const timespec a{1, 999999999}, b{0, 1}, c{2, 500000000};
    timespec r{};
    ASSERT_EQ(0, kt4GetTimespecTimeSum(&a, &b, &r));
    EXPECT_EQ(2, r.tv_sec);
    EXPECT_EQ(0, r.tv_nsec);
    ASSERT_EQ(0, kt4GetTimespecTimeDiff(&a, &c, &r)); // c - a
    EXPECT_EQ(0, r.tv_sec);
    EXPECT_EQ(500000001, r.tv_nsec);
    EXPECT_EQ(-1, kt4GetTimespecTimeSum(&a, nullptr, &r));
    EXPECT_EQ(-1, kt4GetTimespecTimeDiff(&a, &b, nullptr));
}

} // namespace
