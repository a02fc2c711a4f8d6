// A head with its semaphore processed by two tasks at once, while callbacks create, re-arm and
// delete timers of the same head and the test's thread deletes timers that may be firing at
// that very moment. Every one-shot must fire exactly once, every record be released.
#include <kt4/timer.h>
#include <kt4/vx2bsd.h>

#include "support/kt4_support.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <thread>

namespace {

using kt4test::Counting;

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

template <typename Pred> bool wait_for(Pred done) {
    auto until = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (!done() && std::chrono::steady_clock::now() < until)
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    return done();
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

    EXPECT_TRUE(wait_for([] {
        int rearmed = 0;
        for (auto &f : rearmed_fires)
            rearmed += f.load();
        return total(kSpawner) == kN && total(kChild) == kN && total(kCounted) == 3 * kN &&
               rearmed == kN && total(kKiller) == kN && total(kDoomed) >= 2 * kN;
    }));
    for (auto &t : timer[kDoomed])
        EXPECT_EQ(0, kt4TimerDelete(t, &head));
    int doomed = total(kDoomed);
    std::this_thread::sleep_for(std::chrono::milliseconds(60));
    EXPECT_LE(total(kDoomed), doomed + 2); // only callbacks already running
    stop = true;
    ASSERT_TRUE(wait_for([] { return done.load() == 2; }));
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

} // namespace
