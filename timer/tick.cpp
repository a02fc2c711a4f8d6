// The tick source: 20 ms ticks counted from the monotonic clock.
//
// The count is the monotonic clock in ticks plus a correction that tick64Set adjusts without
// touching the clock. The correction is one 64-bit word, added modulo 2^64 (so it also
// subtracts), read atomically: readers on other threads see the old or the new count, never
// half of each.
#include <kt4/tick.h>

#include "common/kt4_clock.h"

#include <errno.h>
#include <signal.h>
#include <time.h>

#include <atomic>

namespace {

using kt4::kTicksPerSecond;
using kt4::mono_ticks;

std::atomic<uint64_t> tick_correction{0};

} // namespace

extern "C" {

int sysClkRateGet(void) {
    return kTicksPerSecond;
}

uint64_t tick64Get(void) {
    return mono_ticks() + tick_correction.load(std::memory_order_acquire);
}

uint64_t kt4TickGet(void) {
    return tick64Get();
}

uint32_t tickGet(void) {
    return static_cast<uint32_t>(tick64Get());
}

void tick64Set(uint32_t high, uint32_t low) {
    // Signals are held off around the change so that a handler reading the count in this
    // thread never sees the correction half-updated.
    sigset_t all, old;
    sigfillset(&all);
    pthread_sigmask(SIG_BLOCK, &all, &old);
    uint64_t want = (static_cast<uint64_t>(high) << 32) | low;
    tick_correction.store(want - mono_ticks(), std::memory_order_release);
    pthread_sigmask(SIG_SETMASK, &old, nullptr);
}

void tickSet(uint32_t ticks) {
    tick64Set(0, ticks);
}

STATUS kt4TimeGet(struct timeval *tv) {
    if (tv == nullptr) return ERROR;
    uint64_t t = tick64Get();
    tv->tv_sec = static_cast<time_t>(t / kTicksPerSecond);
    tv->tv_usec = static_cast<suseconds_t>((t % kTicksPerSecond) * 1000000u / kTicksPerSecond);
    return OK;
}

uint32_t kt4SecGet(void) {
    // Past 50 x 2^32 ticks (136 years of uptime, or a count set that high) the seconds
    // no longer fit: saturate rather than wrap back to a small time.
    constexpr uint64_t kLastFitting = 0x31FFFFFFFFull;
    uint64_t t = tick64Get();
    if (t > kLastFitting) return 0xFFFFFFFFu;
    return static_cast<uint32_t>(t / kTicksPerSecond);
}

uint64_t kt4tick_to_sec(uint64_t ticks) {
    return ticks / kTicksPerSecond;
}

int kt4Sleep(uint32_t seconds, uint32_t milliseconds, int restart) {
    timespec want{static_cast<time_t>(seconds), static_cast<long>(milliseconds % 1000u) * 1000000L};
    timespec left{};
    int rc;
    while ((rc = nanosleep(&want, &left)) != 0 && errno == EINTR && restart != 0)
        want = left;
    return rc;
}

} // extern "C"
