// Helpers shared by the timer tests.
#pragma once

#include <kt4/timer.h>

#include "common/kt4_clock.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

namespace kt4test {

// Puts the tick count back on the monotonic clock when a test that moved it ends, so that
// the tests after it see ordinary time.
struct TickRestore {
    TickRestore() = default;
    TickRestore(const TickRestore &) = delete;
    TickRestore &operator=(const TickRestore &) = delete;
    ~TickRestore() {
        const uint64_t raw = kt4::mono_ticks();
        tick64Set(static_cast<uint32_t>(raw >> 32), static_cast<uint32_t>(raw));
    }
};

// Allocation hooks for the timer families that count what a test's timers took and gave back
// (one test at a time: the fixture clears them).
inline int allocs, frees;
inline void *count_alloc(size_t n) {
    ++allocs;
    return std::malloc(n);
}
inline void count_free(void *p) {
    ++frees;
    std::free(p);
}

// What a call printed on standard output.
template <typename F> std::string stdout_of(F &&f) {
    testing::internal::CaptureStdout();
    f();
    return testing::internal::GetCapturedStdout();
}

} // namespace kt4test
