// Helpers shared by the timer tests.
#pragma once

#include <kt4/timer.h>

#include <gtest/gtest.h>

#include <time.h>

#include <string>

namespace kt4test {

// Puts the tick count back on the monotonic clock when a test that moved it ends, so that
// the tests after it see ordinary time.
struct TickRestore {
    TickRestore() = default;
    TickRestore(const TickRestore &) = delete;
    TickRestore &operator=(const TickRestore &) = delete;
    ~TickRestore() {
        timespec ts;
        clock_gettime(CLOCK_MONOTONIC, &ts);
        uint64_t raw =
            (static_cast<uint64_t>(ts.tv_sec) * 1000000000ull + static_cast<uint64_t>(ts.tv_nsec)) /
            20000000ull;
        tick64Set(static_cast<uint32_t>(raw >> 32), static_cast<uint32_t>(raw));
    }
};

// What a call printed on standard output.
template <typename F> std::string stdout_of(F &&f) {
    testing::internal::CaptureStdout();
    f();
    return testing::internal::GetCapturedStdout();
}

} // namespace kt4test
