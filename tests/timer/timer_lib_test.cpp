// The tick source, its arithmetic and texts, kt4Sleep; then the timer library on one thread,
// with the tick count moved by the test rather than waited for: ordering, limits, periodic
// re-arming, callbacks that change their own head, the expiry arithmetic, the tick offset. Then
// a head with its semaphore processed by two tasks at once, while callbacks create, re-arm and
// delete timers of the same head and the test's thread deletes timers that may be firing at
// that very moment: every one-shot must fire exactly once, every record be released.
#include <kt4/timer.h>
#include <kt4/vx2bsd.h>

#include "common/kt4_clock.h"
#include "support/kt4_support.h"

#include <gtest/gtest.h>

#include <pthread.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <string>
#include <thread>
#include <vector>

namespace {

// Puts the tick count back on the monotonic clock when a test that moved it ends, so that
// the tests after it see ordinary time.
struct TickRestore {
    ~TickRestore() {
        const uint64_t raw = kt4::mono_ticks();
        tick64Set(static_cast<uint32_t>(raw >> 32), static_cast<uint32_t>(raw));
    }
};

using ms = std::chrono::milliseconds;
using Clock = std::chrono::steady_clock;

TEST(TickSource, FiftyPerSecondSetCountAndConversions) {
    TickRestore restore;
    const auto before = Clock::now();
    tick64Set(0, 1000);
    std::this_thread::sleep_for(ms(100));
    uint64_t t = tick64Get(); // 1000 plus the ticks elapsed since
    const auto took = std::chrono::duration_cast<ms>(Clock::now() - before).count();
    EXPECT_GE(t, 1000u + 4);
    EXPECT_LE(t, 1000u + static_cast<uint64_t>(took) / 20 + 1); // however long the sleep took
    tick64Set(0x12, 0x34);                                      // backwards and forwards alike
    EXPECT_EQ(0x12u, kt4TickGet() >> 32);

    tickSet(50 * 7 + 25);
    timeval tv{};
    ASSERT_EQ(OK, kt4TimeGet(&tv));
    EXPECT_EQ(7, tv.tv_sec);
    EXPECT_GE(tv.tv_usec, 500000);
    EXPECT_EQ(ERROR, kt4TimeGet(nullptr));
    EXPECT_EQ(7u, kt4SecGet());
    tick64Set(0x32, 0); // 50 x 2^32 ticks: seconds no longer fit and saturate
    EXPECT_EQ(0xFFFFFFFFu, kt4SecGet());
    EXPECT_EQ(2u, kt4tick_to_sec(125));
}

TEST(TickMath, CheckedArithmeticWritesNothingOnFailureAndDurationTexts) {
    uint64_t r = 77;
    EXPECT_EQ(-1, kt4tick_add_tick(0xFFFFFFFF, 0xFFFFFFFF, 0, 1, &r));
    EXPECT_EQ(-1, kt4tick_mul_tick(0, 0, 0, 5, &r)); // smaller than a factor
    EXPECT_EQ(-1, kt4tick_div_tick(1, 0, 0, 0, &r));
    EXPECT_EQ(77u, r);
    EXPECT_EQ(0, kt4tick_sub_tick(0, 5, 0, 8, &r)); // the distance, in either order
    EXPECT_EQ(3u, r);
    EXPECT_EQ(0, kt4tick_sub_tick(0, 8, 0, 5, &r));
    EXPECT_EQ(3u, r);
    EXPECT_EQ(0, kt4tick_mul_tick(0, 0x10000, 0, 0x10000, &r));
    EXPECT_EQ(0x100000000ull, r);
    EXPECT_EQ(0, kt4tick_mul_tick(0x80000000, 0, 0, 3, &r)); // low 64 bits: the rule passes it
    EXPECT_EQ(0x8000000000000000ull, r);
    uint32_t s = 77;
    EXPECT_EQ(-1, kt4tick_add_sec(0xFFFFFFFF, 1, &s));
    EXPECT_EQ(-1, kt4tick_mul_sec(0x10000, 0x10000, &s));
    EXPECT_EQ(77u, s);
    EXPECT_EQ(0, kt4tick_mul_sec(0xFFFF, 0x10001, &s));
    EXPECT_EQ(0xFFFFFFFFu, s);
    for (auto f : {kt4tick_add_sec, kt4tick_sub_sec, kt4tick_mul_sec, kt4tick_div_sec})
        EXPECT_EQ(-1, f(6, 3, nullptr));

    char buf[KT4_DURATION_STR_LEN], tick[KT4_TICK_STR_LEN];
    EXPECT_STREQ("00:00:02", kt4TickToStrFormat(100, buf));
    EXPECT_STREQ("1d0h0m", kt4TickToStrFormat(4320000, buf));
    EXPECT_STREQ("1w0d0h", kt4TickToStrFormat(30240000, buf));
    EXPECT_STREQ("6d23h59m", kt4SecToStrFormat(7 * 86400 - 1, buf));
    EXPECT_STREQ("7101w3d6h", kt4SecToStrFormat(0xFFFFFFFF, buf));
    EXPECT_EQ(nullptr, kt4TickToStrFormat(100, nullptr));
    EXPECT_STREQ("0xFFFFFFFFFFFFFFFF", kt4TimerTickGetStr(tick, ~0ull));
}

std::atomic<int> usr1_seen{0};
void on_usr1(int) {
    usr1_seen.fetch_add(1);
}

TEST(Sleep, MillisecondsModuloASecondAndRestartAfterSignals) {
    struct sigaction sa {
    }, old{};
    sa.sa_handler = on_usr1; // no SA_RESTART: the sleep sees EINTR
    sigaction(SIGUSR1, &sa, &old);
    std::atomic<bool> stop{false};
    pthread_t me = pthread_self();
    std::thread irq([&] { // signals the sleeper every 30 ms until it is done
        while (!stop) {
            std::this_thread::sleep_for(ms(30));
            if (!stop) pthread_kill(me, SIGUSR1);
        }
    });
    KT4_EXPECT_ERRNO(EINTR, -1, kt4Sleep(0, 400, 0)); // cut short by the first signal
    const auto t0 = Clock::now();
    EXPECT_EQ(0, kt4Sleep(0, 1300, 1)); // 300 ms: whole seconds come from the first argument
    EXPECT_GE(Clock::now() - t0, ms(290));
    EXPECT_LT(Clock::now() - t0, ms(1000));
    stop = true;
    irq.join();
    sigaction(SIGUSR1, &old, nullptr);
    EXPECT_GE(usr1_seen.load(), 2);
}

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
    TickRestore restore_;
    kt4TmrHead head_{};
    std::vector<kt4Timer *> mine_;
};

TEST_F(TimerLib, FiresInExpiryOrderRearmsOnRequestAndFlushReleases) {
    kt4Timer *c = make(3, 3), *a = make(1, 1);
    make(2, 1, 30);
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
    advance(90);
    EXPECT_EQ(0, kt4ProcTimers(&head_));
    advance(10);
    EXPECT_EQ(1, kt4ProcTimers(&head_));
    EXPECT_EQ((std::vector<uintptr_t>{3}), fired2);

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
    stdout_of([] { kt4TimerTickSet(0x5, 0x10); });
    EXPECT_LT(kt4TimerTickGet() - 0x500000010ull, 50u);
    EXPECT_EQ(1, kt4ProcTimers(&head_));

    char path[] = "/tmp/kt4_timer_tickXXXXXX";
    int fd = mkstemp(path);
    ASSERT_EQ(5, write(fd, "0x2A\n", 5));
    close(fd);
    std::string out = stdout_of([&] { EXPECT_EQ(OK, kt4TimerInitTick(path)); });
    char off[KT4_TICK_STR_LEN];
    EXPECT_EQ(
        0u,
        out.find(std::string("offsetStr is 0x2A offset is 0x2A\r\n") + "kt4TimerTickGetOffset is " +
                 kt4TimerTickGetStr(off, kt4TimerTickGetOffset()) + ", kt4TimerTickGet() is 0x"))
        << out;
    EXPECT_LT(kt4TimerTickGet() - 42, 50u);
    FILE *f = std::fopen(path, "w");
    std::fputs("010 and more", f); // octal, and what follows the number is ignored
    std::fclose(f);
    stdout_of([&] { EXPECT_EQ(OK, kt4TimerInitTick(path)); });
    EXPECT_LT(kt4TimerTickGet() - 8, 50u);
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
    kRearmer, // re-arms itself once with the other callback, which counts as kRearmed
    kKiller,  // deletes its victim
    kVictim,  // never fires
    kChild,   // fires once
    kDoomed,  // periodic, deleted by the test's thread while it fires
    kRearmed,
    kKinds
};

kt4TmrHead head;
std::atomic<kt4Timer *> timer[kKinds][kN];
std::atomic<int> fires[kKinds][kN];

uintptr_t param(Kind k, int i) {
    return k << 16 | static_cast<uintptr_t>(i);
}
void rearmed_cb(uintptr_t p) {
    fires[kRearmed][p & 0xFFFF].fetch_add(1);
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
std::atomic<int> done{0};
void process() {
    while (!stop.load()) {
        kt4ProcTimers(&head);
        // A short sleep, not a spin: real-time tasks spinning on both processors would
        // starve the test's own thread.
        std::this_thread::sleep_for(std::chrono::microseconds(100));
    }
    done.fetch_add(1);
}

TEST(TimerLibConcurrent, TwoTasksProcessOneHeadWhileCallbacksChangeIt) {
    for (auto &kind : fires)
        for (auto &f : kind)
            f = 0;
    Counting::reset();
    done = 0;
    stop = false;
    ASSERT_EQ(0, kt4TmrHeadInit(&head, Counting::alloc, Counting::free, TRUE, 0));
    // Created far ahead first, so that each callback finds its timer and victim published.
    for (Kind k : {kSpawner, kCounted, kRearmer, kKiller, kVictim, kDoomed})
        for (int i = 0; i < kN; ++i)
            ASSERT_NE(nullptr,
                      timer[k][i] = kt4TimerCreate(cb, param(k, i), 1000,
                                                   k == kCounted || k == kDoomed ? 3 : 0, &head));
    for (const char *name : {"tTmrProc1", "tTmrProc2"})
        ASSERT_NE(ERROR, spawn_task(name, 100, process));
    // Due now; the periodic ones every tick.
    for (Kind k : {kSpawner, kCounted, kRearmer, kKiller, kDoomed})
        for (int i = 0; i < kN; ++i)
            kt4TickTimerSet(timer[k][i], 0, k == kCounted || k == kDoomed, cb, &head);

    EXPECT_TRUE(kt4test::eventually(
        [] {
            return total(kSpawner) == kN && total(kChild) == kN && total(kCounted) == 3 * kN &&
                   total(kRearmed) == kN && total(kKiller) == kN && total(kDoomed) >= 2 * kN;
        },
        10000));
    for (auto &t : timer[kDoomed])
        EXPECT_EQ(0, kt4TimerDelete(t, &head));
    int doomed = total(kDoomed);
    std::this_thread::sleep_for(std::chrono::milliseconds(60));
    EXPECT_LE(total(kDoomed), doomed + 2); // only callbacks already running
    stop = true;
    ASSERT_TRUE(kt4test::eventually([] { return done.load() == 2; }, 10000));

    for (int i = 0; i < kN; ++i) {
        for (Kind k : {kSpawner, kChild, kRearmer, kKiller, kRearmed})
            EXPECT_EQ(1, fires[k][i].load()) << k << " " << i;
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
