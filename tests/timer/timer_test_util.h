// Helpers shared by the timer tests.
#pragma once

#include <kt4/timer.h>

#include "common/kt4_clock.h"
#include "support/kt4_support.h"

#include <gtest/gtest.h>

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

} // namespace kt4test
