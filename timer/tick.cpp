// The tick source: 20 ms ticks counted from the monotonic clock.
//
// The count is the monotonic clock in ticks plus a correction that tick64Set adjusts without
// touching the clock. The correction is one 64-bit word, added modulo 2^64 (so it also
// subtracts), read atomically: readers on other threads see the old or the new count, never
// half of each.
#include <kt4/timer.h>

#include <signal.h>
#include <time.h>

#include <atomic>

namespace {

constexpr int kTicksPerSecond = 50;
constexpr uint64_t kNsPerTick = 1000000000ull / kTicksPerSecond;

uint64_t raw_ticks() {
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return (static_cast<uint64_t>(ts.tv_sec) * 1000000000ull + static_cast<uint64_t>(ts.tv_nsec)) /
           kNsPerTick;
}

std::atomic<uint64_t> tick_correction{0};

} // namespace

extern "C" {


int sysClkRateGet(void) { return kTicksPerSecond; }

uint64_t tick64Get(void) {
    return raw_ticks() + tick_correction.load(std::memory_order_acquire);
}

uint64_t kt4TickGet(void) { return tick64Get(); }

uint32_t tickGet(void) { return static_cast<uint32_t>(tick64Get()); }

void tick64Set(uint32_t high, uint32_t low) {
    // Signals are held off around the change so that a handler reading the count in this
    // thread never sees the correction half-updated.
    sigset_t all, old;
    sigfillset(&all);
    pthread_sigmask(SIG_BLOCK, &all, &old);
    uint64_t want = (static_cast<uint64_t>(high) << 32) | low;
    tick_correction.store(want - raw_ticks(), std::memory_order_release);
    pthread_sigmask(SIG_SETMASK, &old, nullptr);
}

void tickSet(uint32_t ticks) { tick64Set(0, ticks); }

} // extern "C"
