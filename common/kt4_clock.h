// Monotonic-clock helpers: the readings, the timespec sums that carry and borrow, and the
// deadlines of timed condition waits. One copy for every family, header-only because the
// readings sit on the tick and allocation paths.
//
// Timed waits in this library are on CLOCK_MONOTONIC, so that setting the date never
// shortens or stretches a timeout: a condition that a deadline from here is used with must be
// made by cond_init_monotonic().
#pragma once

#include "common/kt4_check.h"

#include <pthread.h>
#include <time.h>

#include <cstdint>

namespace kt4 {

constexpr long kNsPerSec = 1000000000L;
constexpr int64_t kNsPerUsec = 1000;
constexpr int64_t kNsPerMsec = 1000000;
// The system tick: 50 a second.
constexpr int kTicksPerSecond = 50;
constexpr int64_t kNsPerTick = kNsPerSec / kTicksPerSecond;
constexpr int64_t kUsecPerTick = kNsPerTick / kNsPerUsec;

// The monotonic clock (or another clock given) as a timespec.
inline timespec mono_now(clockid_t clk = CLOCK_MONOTONIC) {
    timespec ts;
    clock_gettime(clk, &ts);
    return ts;
}

// A timespec in nanoseconds.
inline constexpr int64_t ts_ns(const timespec &ts) {
    return static_cast<int64_t>(ts.tv_sec) * kNsPerSec + ts.tv_nsec;
}

// Nanoseconds on the monotonic clock. CLOCK_MONOTONIC_COARSE is the cheap reading for
// callers that only need a few milliseconds' resolution.
inline int64_t mono_ns(clockid_t clk = CLOCK_MONOTONIC) {
    return ts_ns(mono_now(clk));
}

// Microseconds on the monotonic clock.
inline uint64_t mono_usec() {
    const timespec ts = mono_now();
    return static_cast<uint64_t>(ts.tv_sec) * 1000000u + static_cast<uint64_t>(ts.tv_nsec) / 1000u;
}

// Whole system ticks on the monotonic clock (before any correction of the tick count).
inline uint64_t mono_ticks() {
    return static_cast<uint64_t>(mono_ns()) / static_cast<uint64_t>(kNsPerTick);
}

// a + b, nanoseconds carried once: exact for normalised operands.
inline constexpr timespec ts_add(const timespec &a, const timespec &b) {
    timespec s{a.tv_sec + b.tv_sec, a.tv_nsec + b.tv_nsec};
    if (s.tv_nsec >= kNsPerSec) {
        s.tv_nsec -= kNsPerSec;
        ++s.tv_sec;
    }
    return s;
}

// a - b, nanoseconds borrowed once: exact for normalised operands (negative differences keep
// tv_nsec in 0..999999999 and a negative tv_sec).
inline constexpr timespec ts_sub(const timespec &a, const timespec &b) {
    timespec d{a.tv_sec - b.tv_sec, a.tv_nsec - b.tv_nsec};
    if (d.tv_nsec < 0) {
        d.tv_nsec += kNsPerSec;
        --d.tv_sec;
    }
    return d;
}

// -1, 0 or 1 as a is before, at or after b.
inline constexpr int ts_cmp(const timespec &a, const timespec &b) {
    if (a.tv_sec != b.tv_sec) return a.tv_sec < b.tv_sec ? -1 : 1;
    if (a.tv_nsec != b.tv_nsec) return a.tv_nsec < b.tv_nsec ? -1 : 1;
    return 0;
}

// A duration of ns nanoseconds (ns >= 0) as a normalised timespec.
inline constexpr timespec ts_from_ns(int64_t ns) {
    return timespec{static_cast<time_t>(ns / kNsPerSec), static_cast<long>(ns % kNsPerSec)};
}

// Deadlines for pthread_cond_timedwait on a condition made by cond_init_monotonic():
// now on the monotonic clock plus the given non-negative duration.
inline timespec mono_deadline_ns(int64_t ns) {
    return ts_add(mono_now(), ts_from_ns(ns));
}
inline timespec mono_deadline_ms(int64_t ms) {
    return mono_deadline_ns(ms * kNsPerMsec);
}
inline timespec mono_deadline_ticks(int64_t ticks) {
    return mono_deadline_ns(ticks * kNsPerTick);
}

// A condition whose timed waits measure their deadline on the monotonic clock.
inline void cond_init_monotonic(pthread_cond_t *c) {
    pthread_condattr_t ca;
    KT4_VERIFY(!pthread_condattr_init(&ca));
    KT4_VERIFY(!pthread_condattr_setclock(&ca, CLOCK_MONOTONIC));
    KT4_VERIFY(!pthread_cond_init(c, &ca));
    KT4_VERIFY(!pthread_condattr_destroy(&ca));
}

} // namespace kt4
