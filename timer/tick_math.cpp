// Overflow-checked arithmetic on tick and second values, and their text forms.
//
// Callers of the timers compute deadlines from values that come from configuration and from
// the wire, so every operation either gives its result or fails without writing. The
// multiplication checks keep the system's rule (the product, kept to the width of the values,
// must not be smaller than either factor): multiplying by zero therefore fails unless both
// factors are zero, and a wrap that this rule does not catch gives the low bits.
#include <kt4/timer.h>

#include "common/kt4_clock.h"

#include <climits>
#include <cstdio>

namespace {

constexpr uint64_t join(uint32_t high, uint32_t low) {
    return (static_cast<uint64_t>(high) << 32) | low;
}

constexpr uint64_t kTicksPerSecond = kt4::kTicksPerSecond;

char *format_duration(uint64_t seconds, char *buf) {
    uint64_t w = seconds / (7 * 86400);
    int d = static_cast<int>(seconds / 86400 % 7);
    int h = static_cast<int>(seconds / 3600 % 24);
    int m = static_cast<int>(seconds / 60 % 60);
    int s = static_cast<int>(seconds % 60);
    if (w > 0) {
        // Only a tick count of some forty million years has more weeks than an int holds.
        if (w <= static_cast<uint64_t>(INT_MAX))
            std::snprintf(buf, KT4_DURATION_STR_LEN, "%dw%dd%dh", static_cast<int>(w), d, h);
        else
            std::snprintf(buf, KT4_DURATION_STR_LEN, "%lluw%dd%dh",
                          static_cast<unsigned long long>(w), d, h);
    } else if (d == 0) {
        std::snprintf(buf, KT4_DURATION_STR_LEN, "%02d:%02d:%02d", h, m, s);
    } else {
        std::snprintf(buf, KT4_DURATION_STR_LEN, "%dd%dh%dm", d, h, m);
    }
    return buf;
}

} // namespace

extern "C" {

int kt4tick_add_tick(uint32_t aHigh, uint32_t aLow, uint32_t bHigh, uint32_t bLow, uint64_t *r) {
    uint64_t sum;
    if (r == nullptr || __builtin_add_overflow(join(aHigh, aLow), join(bHigh, bLow), &sum))
        return -1;
    *r = sum;
    return 0;
}

int kt4tick_sub_tick(uint32_t aHigh, uint32_t aLow, uint32_t bHigh, uint32_t bLow, uint64_t *r) {
    if (r == nullptr) return -1;
    uint64_t a = join(aHigh, aLow), b = join(bHigh, bLow);
    *r = a > b ? a - b : b - a;
    return 0;
}

int kt4tick_mul_tick(uint32_t aHigh, uint32_t aLow, uint32_t bHigh, uint32_t bLow, uint64_t *r) {
    if (r == nullptr) return -1;
    uint64_t a = join(aHigh, aLow), b = join(bHigh, bLow);
    uint64_t p = a * b;
    if (p < a || p < b) return -1;
    *r = p;
    return 0;
}

int kt4tick_div_tick(uint32_t aHigh, uint32_t aLow, uint32_t bHigh, uint32_t bLow, uint64_t *r) {
    uint64_t b = join(bHigh, bLow);
    if (r == nullptr || b == 0) return -1;
    *r = join(aHigh, aLow) / b;
    return 0;
}

int kt4tick_add_sec(uint32_t a, uint32_t b, uint32_t *r) {
    uint32_t sum;
    if (r == nullptr || __builtin_add_overflow(a, b, &sum)) return -1;
    *r = sum;
    return 0;
}

int kt4tick_sub_sec(uint32_t a, uint32_t b, uint32_t *r) {
    if (r == nullptr) return -1;
    *r = a > b ? a - b : b - a;
    return 0;
}

int kt4tick_mul_sec(uint32_t a, uint32_t b, uint32_t *r) {
    if (r == nullptr) return -1;
    uint32_t p = a * b;
    if (p < a || p < b) return -1;
    *r = p;
    return 0;
}

int kt4tick_div_sec(uint32_t a, uint32_t b, uint32_t *r) {
    if (r == nullptr || b == 0) return -1;
    *r = a / b;
    return 0;
}

char *kt4TickToStrFormat(uint64_t ticks, char *buf) {
    if (buf == nullptr) return buf;
    return format_duration(ticks / kTicksPerSecond, buf);
}

char *kt4SecToStrFormat(uint32_t seconds, char *buf) {
    if (buf == nullptr) return buf;
    return format_duration(seconds, buf);
}

char *kt4TimerTickGetStr(char *buf, uint64_t ticks) {
    if (buf == nullptr) return buf;
    std::snprintf(buf, KT4_TICK_STR_LEN, "0x%llX", static_cast<unsigned long long>(ticks));
    return buf;
}

} // extern "C"
