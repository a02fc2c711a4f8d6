// The tick source, conversions, checked arithmetic, duration texts and kt4Sleep.
#include "timer_test_util.h"

#include <gtest/gtest.h>

#include <pthread.h>
#include <signal.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <thread>

namespace {

using ms = std::chrono::milliseconds;
using Clock = std::chrono::steady_clock;

TEST(TickSource, FiftyPerSecondSetCountAndConversions) {
    kt4test::TickRestore restore;
    EXPECT_EQ(50, sysClkRateGet());
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
    EXPECT_EQ(0, tv.tv_usec % 20000);
    EXPECT_EQ(ERROR, kt4TimeGet(nullptr));
    EXPECT_EQ(7u, kt4SecGet());
    tick64Set(0x32, 0); // 50 x 2^32 ticks: seconds no longer fit and saturate
    EXPECT_EQ(0xFFFFFFFFu, kt4SecGet());
    EXPECT_EQ(2u, kt4tick_to_sec(125));
}

TEST(TickArithmetic, CheckedAndNothingWrittenOnFailure) {
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
}

TEST(DurationText, ClockDaysAndWeeks) {
    char buf[KT4_DURATION_STR_LEN], tick[KT4_TICK_STR_LEN];
    EXPECT_STREQ("00:00:02", kt4TickToStrFormat(100, buf));
    EXPECT_STREQ("00:30:00", kt4TickToStrFormat(90000, buf));
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
    auto t0 = Clock::now();
    EXPECT_EQ(0, kt4Sleep(0, 1100, 0)); // 100 ms: whole seconds come from the first argument
    EXPECT_GE(Clock::now() - t0, ms(90));
    EXPECT_LT(Clock::now() - t0, ms(1000));

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
    t0 = Clock::now();
    KT4_EXPECT_ERRNO(EINTR, -1,
                     kt4Sleep(0, 400, 0)); // cut short by the first signal, however late it came
    t0 = Clock::now();
    EXPECT_EQ(0, kt4Sleep(0, 300, 1));
    EXPECT_GE(Clock::now() - t0, ms(290));
    stop = true;
    irq.join();
    sigaction(SIGUSR1, &old, nullptr);
    EXPECT_GE(usr1_seen.load(), 2);
}

} // namespace
