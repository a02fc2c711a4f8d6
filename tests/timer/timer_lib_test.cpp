// The timer library on one thread, with the tick count moved by the test rather than waited
// for: ordering, limits, periodic re-arming, callbacks that change their own head, the expiry
// arithmetic, the tick offset and the dumps. Then a head with its semaphore processed by two
// tasks at once, while callbacks create, re-arm and delete timers of the same head and the
// test's thread deletes timers that may be firing at that very moment: every one-shot must fire
// exactly once, every record be released.
#include "timer_test_util.h"

#include <kt4/vx2bsd.h>

#include <gtest/gtest.h>

#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <string>
#include <thread>
#include <vector>

namespace {

using namespace kt4test; // stdout_of and the counting allocation hooks

std::vector<uintptr_t> fired, fired2;
std::function<void(uintptr_t)> hook;
void cb(uintptr_t p) {
    fired.push_back(p);
    if (hook) hook(p);
}
void cb2(uintptr_t p) {
    fired2.push_back(p);
}

void advance(uint64_t n) {
    uint64_t t = tick64Get() + n;
    tick64Set(static_cast<uint32_t>(t >> 32), static_cast<uint32_t>(t));
}

// One field of a timer as the diagnostic print shows it.
std::string field(kt4Timer *t, const std::string &name) {
    std::string out = stdout_of([&] { kt4DebugOneTimer(t); });
    size_t at = out.find(name + ": ") + name.size() + 2;
    return out.substr(at, out.find('\r', at) - at);
}

class TimerLib : public testing::Test {
  protected:
    void SetUp() override {
        Counting::reset();
        fired.clear();
        fired2.clear();
        hook = nullptr;
        tick64Set(0, 1000000);
        ASSERT_EQ(0, kt4TmrHeadInit(&head_, Counting::alloc, Counting::free, FALSE, 0));
    }
    void TearDown() override {
        hook = nullptr;
        for (kt4Timer *t : mine_) // fired one-shots are their owner's to delete
            kt4TimerDelete(t, &head_);
        kt4TmrFlushAll(&head_);
        kt4TmrHeadDestroy(&head_);
        EXPECT_EQ(Counting::allocs.load(), Counting::frees.load()) << "timer records leaked";
    }
    kt4Timer *make(uintptr_t param, int32_t secs, int32_t ticks = 0,
                   uint32_t type = KT4_TIMER_ONE_SHOT) {
        kt4Timer *t = kt4TickTimerCreate(cb, param, secs, ticks, type, &head_);
        if (t != nullptr) mine_.push_back(t);
        return t;
    }
    kt4test::TickRestore restore_;
    kt4TmrHead head_{};
    std::vector<kt4Timer *> mine_;
};

TEST_F(TimerLib, FiresInExpiryOrderRearmsOnRequestAndFlushReleases) {
    kt4Timer *c = make(3, 3), *a = make(1, 1), *b = make(2, 1, 30);
    EXPECT_EQ(0, kt4ProcTimers(&head_));
    advance(50);
    EXPECT_EQ(1, kt4ProcTimers(&head_));
    EXPECT_EQ("0", field(a, "T_nodeActive")); // fired: out of the tree, still enabled
    EXPECT_EQ("1", field(a, "T_nodeEnabled"));
    advance(100);
    EXPECT_EQ(2, kt4ProcTimers(&head_));
    EXPECT_EQ((std::vector<uintptr_t>{1, 2, 3}), fired);
    EXPECT_TRUE(kt4TmrTreeEmpty(&head_));

    kt4TimerEnable(a, &head_); // re-armed from now; a second enable changes nothing
    std::string exp = field(a, "ExpTime");
    advance(10);
    kt4TimerEnable(a, &head_);
    EXPECT_EQ(exp, field(a, "ExpTime"));
    EXPECT_EQ(-1, kt4TimerLink(a, &head_));
    kt4TimerDisable(a, &head_);
    EXPECT_TRUE(kt4TmrTreeEmpty(&head_));
    kt4TimerSet(c, 2, cb2, &head_); // new interval (no extra ticks) and callback
    EXPECT_EQ("0", field(c, "T-ticks"));
    advance(90);
    EXPECT_EQ(0, kt4ProcTimers(&head_));
    advance(10);
    EXPECT_EQ(1, kt4ProcTimers(&head_));
    EXPECT_EQ((std::vector<uintptr_t>{3}), fired2);
    (void)b;

    // A flush releases the linked timers, also those without an owner here.
    for (uintptr_t i = 0; i < 20; ++i)
        kt4TimerCreate(cb, i, static_cast<int32_t>(i % 4), 0, &head_);
    const int before = Counting::frees.load();
    EXPECT_EQ(0, kt4TmrFlushAll(&head_));
    EXPECT_EQ(before + 20, Counting::frees.load());
    EXPECT_TRUE(kt4TmrTreeEmpty(&head_));
    EXPECT_EQ(-1, kt4TmrHeadInit(nullptr, nullptr, nullptr, 0, 0));
}

TEST_F(TimerLib, EqualExpiriesByRecordAddressAndTheProcessingLimit) {
    kt4TmrHeadDestroy(&head_);
    ASSERT_EQ(0, kt4TmrHeadInit(&head_, Counting::alloc, Counting::free, FALSE, 2));
    std::vector<kt4Timer *> ts;
    for (uint64_t t0 = 0; t0 != tick64Get();) { // all in one tick, so one expiry
        for (kt4Timer *t : ts) {
            kt4TimerDelete(t, &head_);
            mine_.pop_back();
        }
        ts.clear();
        t0 = tick64Get();
        for (uintptr_t i = 0; i < 5; ++i)
            ts.push_back(make(i, 1));
    }
    std::vector<kt4Timer *> sorted = ts;
    std::sort(sorted.begin(), sorted.end(), std::less<kt4Timer *>());
    std::vector<uintptr_t> want;
    for (kt4Timer *t : sorted)
        want.push_back(static_cast<uintptr_t>(std::find(ts.begin(), ts.end(), t) - ts.begin()));
    EXPECT_EQ(-1, kt4TmrCompare(sorted[0], sorted[1]));
    EXPECT_EQ(0, kt4TmrCompare(ts[0], ts[0]));
    EXPECT_EQ(1, kt4TmrCompare(ts[0], nullptr));

    advance(50);
    EXPECT_EQ(3, kt4ProcTimers(&head_)); // MaxProcNum 2 lets three through
    EXPECT_EQ(2, kt4ProcTimers(&head_));
    EXPECT_EQ(want, fired);

    // The thread form: its own maximum after each timer, and the yields past the yield count.
    for (kt4Timer *t : ts)
        kt4TimerEnable(t, &head_);
    advance(50);
    int thread = 0;
    EXPECT_EQ(2, kt4ProcTimersThread(&head_, 0, 1, nullptr));
    EXPECT_EQ(3, kt4ProcTimersThread(&head_, 1, 0, &thread));
}

TEST_F(TimerLib, PeriodicTimersRearmFromTheMomentTheyFire) {
    kt4Timer *p = make(7, 1, 0, KT4_TIMER_PERIODIC);
    advance(75); // 25 ticks late: the next period counts from now
    EXPECT_EQ(1, kt4ProcTimers(&head_));
    EXPECT_EQ("1", field(p, "T_nodeActive"));
    advance(40);
    EXPECT_EQ(0, kt4ProcTimers(&head_));
    advance(10);
    EXPECT_EQ(1, kt4ProcTimers(&head_));
    advance(500); // many periods behind: still once per call
    EXPECT_EQ(1, kt4ProcTimers(&head_));
    kt4TimerDisable(p, &head_);
    advance(100);
    EXPECT_EQ(0, kt4ProcTimers(&head_));
}

TEST_F(TimerLib, CallbacksChangeTheirOwnHead) {
    kt4Timer *self_del = make(1, 0, 1, KT4_TIMER_PERIODIC);
    kt4Timer *rearm = make(2, 0, 2, KT4_TIMER_PERIODIC);
    kt4Timer *killer = make(4, 0, 3);
    kt4Timer *victim = make(3, 0, 6);
    mine_ = {rearm, killer};
    hook = [&](uintptr_t p) {
        if (p == 1) kt4TimerDelete(self_del, &head_);          // released once the callback returns
        if (p == 2) kt4TickTimerSet(rearm, 0, 3, cb2, &head_); // keeps what it set
        if (p == 4) {
            kt4TimerDelete(victim, &head_);
            make(5, 0, -1); // due already: fired within this same call
        }
    };
    advance(3);
    EXPECT_EQ(4, kt4ProcTimers(&head_));
    EXPECT_EQ((std::vector<uintptr_t>{1, 2, 4, 5}), fired);
    EXPECT_EQ(2, Counting::frees.load());
    advance(10);
    kt4ProcTimers(&head_);
    EXPECT_EQ((std::vector<uintptr_t>{2}), fired2);
    EXPECT_EQ("1", field(rearm, "T_nodeActive")); // periodic with its new callback
}

TEST_F(TimerLib, IntervalIsFormedIn32BitsSignExtendedAndCallbackless) {
    tick64Set(1, 0);   // far from 0, so a negative interval lies in the past
    make(1, 42949673); // 2 147 483 650 ticks: negative in 32 bits
    make(2, -1);
    make(3, 1, -60);
    kt4Timer *big = make(4, 42949672); // the largest that lies ahead
    EXPECT_EQ(3, kt4ProcTimers(&head_));
    EXPECT_EQ((std::vector<uintptr_t>{1, 2, 3}), fired);
    uint64_t ahead = std::strtoull(field(big, "ExpTime").c_str(), nullptr, 16) - kt4TimerTickGet();
    EXPECT_LE(ahead, 2147483600ull);
    EXPECT_GE(ahead, 2147483600ull - 2);

    // Without a callback a record is never unlinked; when due it is taken out unfired so
    // that it cannot hold up the timers behind it.
    kt4Timer *t = kt4TickTimerCreate(nullptr, 9, 0, 1, 0, &head_);
    mine_.push_back(t);
    EXPECT_EQ(-1, kt4TimerUnlink(t, &head_));
    kt4TimerDisable(t, &head_);
    EXPECT_EQ("1", field(t, "T_nodeActive"));
    make(6, 0, 2);
    advance(5);
    EXPECT_EQ(1, kt4ProcTimers(&head_));
    EXPECT_EQ(6u, fired.back());
    EXPECT_EQ("0", field(t, "T_nodeActive"));
}

TEST_F(TimerLib, TickOffsetAndInitFile) {
    make(1, 1); // the library's clock moves its timers, not the tick source
    std::string out = stdout_of([] { kt4TimerTickSet(0x5, 0x10); });
    EXPECT_LT(kt4TimerTickGet() - 0x500000010ull, 50u);
    EXPECT_EQ(1, kt4ProcTimers(&head_));
    char off[KT4_TICK_STR_LEN];
    EXPECT_EQ(0u, out.find(std::string("kt4TimerTickGetOffset is ") +
                           kt4TimerTickGetStr(off, kt4TimerTickGetOffset()) +
                           ", kt4TimerTickGet() is 0x5000000"))
        << out;

    char path[] = "/tmp/kt4_timer_tickXXXXXX";
    int fd = mkstemp(path);
    ASSERT_EQ(5, write(fd, "0x2A\n", 5));
    close(fd);
    out = stdout_of([&] { EXPECT_EQ(OK, kt4TimerInitTick(path)); });
    EXPECT_EQ(0u, out.find("offsetStr is 0x2A offset is 0x2A\r\nkt4TimerTickGetOffset is ")) << out;
    EXPECT_LT(kt4TimerTickGet() - 42, 50u);
    FILE *f = std::fopen(path, "w");
    std::fputs("010 and more", f);
    std::fclose(f);
    out = stdout_of([&] { kt4TimerInitTick(path); });
    EXPECT_EQ(0u, out.find("offsetStr is 010 offset is 0x8\r\n")) << out;
    unlink(path);
    EXPECT_EQ(ERROR, kt4TimerInitTick(path));
    stdout_of([] { // back to no offset
        uint64_t raw = tick64Get();
        kt4TimerTickSet(static_cast<uint32_t>(raw >> 32), static_cast<uint32_t>(raw));
    });
}

namespace concurrent {

constexpr int kN = 60; // timers per kind
enum Kind : uintptr_t {
    kSpawner, // creates a child timer
    kCounted, // periodic, deletes itself on its third firing
    kRearmer, // re-arms itself once with the other callback
    kKiller,  // deletes its victim
    kVictim,  // never fires
    kChild,   // fires once
    kDoomed,  // periodic, deleted by the test's thread while it fires
    kKinds
};

kt4TmrHead head;

std::atomic<kt4Timer *> timer[kKinds][kN];
std::atomic<int> fires[kKinds][kN], rearmed_fires[kN];

uintptr_t param(Kind k, int i) {
    return k << 16 | static_cast<uintptr_t>(i);
}
void rearmed_cb(uintptr_t p) {
    rearmed_fires[p & 0xFFFF].fetch_add(1);
}

void cb(uintptr_t p) {
    auto k = static_cast<Kind>(p >> 16);
    int i = static_cast<int>(p & 0xFFFF);
    int n = fires[k][i].fetch_add(1) + 1;
    if (k == kSpawner) timer[kChild][i] = kt4TickTimerCreate(cb, param(kChild, i), 0, 0, 0, &head);
    if (k == kCounted && n == 3) kt4TimerDelete(timer[k][i], &head);
    if (k == kRearmer) kt4TickTimerSet(timer[k][i], 0, 0, rearmed_cb, &head);
    if (k == kKiller) kt4TimerDelete(timer[kVictim][i], &head);
    if (k == kDoomed) // stay a while, so that deletes from outside meet the callback running
        for (auto until = std::chrono::steady_clock::now() + std::chrono::microseconds(50);
             std::chrono::steady_clock::now() < until;) {
        }
}

int total(Kind k) {
    int sum = 0;
    for (auto &f : fires[k])
        sum += f.load();
    return sum;
}

std::atomic<bool> stop{false};
std::atomic<int> calls{0}, done{0};
int proc_task(kt4_arg_t, kt4_arg_t, kt4_arg_t, kt4_arg_t, kt4_arg_t, kt4_arg_t, kt4_arg_t,
              kt4_arg_t, kt4_arg_t, kt4_arg_t) {
    while (!stop.load()) {
        if (kt4ProcTimers(&head) >= 0) calls.fetch_add(1);
        // A short sleep, not a spin: real-time tasks spinning on both processors would
        // starve the test's own thread.
        std::this_thread::sleep_for(std::chrono::microseconds(100));
    }
    done.fetch_add(1);
    return 0;
}

TEST(TimerLibConcurrent, TwoTasksProcessOneHeadWhileCallbacksChangeIt) {
    for (auto &kind : fires)
        for (auto &f : kind)
            f = 0;
    for (auto &f : rearmed_fires)
        f = 0;
    Counting::reset();
    calls = done = 0;
    stop = false;
    ASSERT_EQ(0, kt4TmrHeadInit(&head, Counting::alloc, Counting::free, TRUE, 0));
    // Created far ahead first, so that each callback finds its timer and victim published.
    for (Kind k : {kSpawner, kCounted, kRearmer, kKiller, kVictim, kDoomed})
        for (int i = 0; i < kN; ++i)
            ASSERT_NE(nullptr,
                      timer[k][i] = kt4TimerCreate(cb, param(k, i), 1000,
                                                   k == kCounted || k == kDoomed ? 3 : 0, &head));
    for (const char *name : {"tTmrProc1", "tTmrProc2"})
        ASSERT_NE(ERROR, taskSpawn(name, 100, 0, 0, proc_task, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0));
    // Due now; the periodic ones every tick.
    for (Kind k : {kSpawner, kCounted, kRearmer, kKiller, kDoomed})
        for (int i = 0; i < kN; ++i)
            kt4TickTimerSet(timer[k][i], 0, k == kCounted || k == kDoomed, cb, &head);

    EXPECT_TRUE(kt4test::eventually(
        [] {
            int rearmed = 0;
            for (auto &f : rearmed_fires)
                rearmed += f.load();
            return total(kSpawner) == kN && total(kChild) == kN && total(kCounted) == 3 * kN &&
                   rearmed == kN && total(kKiller) == kN && total(kDoomed) >= 2 * kN;
        },
        10000));
    for (auto &t : timer[kDoomed])
        EXPECT_EQ(0, kt4TimerDelete(t, &head));
    int doomed = total(kDoomed);
    std::this_thread::sleep_for(std::chrono::milliseconds(60));
    EXPECT_LE(total(kDoomed), doomed + 2); // only callbacks already running
    stop = true;
    ASSERT_TRUE(kt4test::eventually([] { return done.load() == 2; }, 10000));
    EXPECT_GT(calls.load(), 2);

    for (int i = 0; i < kN; ++i) {
        for (Kind k : {kSpawner, kChild, kRearmer, kKiller})
            EXPECT_EQ(1, fires[k][i].load()) << k << " " << i;
        EXPECT_EQ(1, rearmed_fires[i].load());
        EXPECT_EQ(3, fires[kCounted][i].load());
        EXPECT_EQ(0, fires[kVictim][i].load());
    }
    EXPECT_TRUE(kt4TmrTreeEmpty(&head));
    for (Kind k : {kSpawner, kChild, kRearmer, kKiller}) // fired one-shots: the owner's
        for (auto &t : timer[k])
            kt4TimerDelete(t, &head);
    EXPECT_EQ(0, kt4TmrHeadDestroy(&head));
    EXPECT_EQ(Counting::allocs.load(), Counting::frees.load());
}

} // namespace concurrent

} // namespace
