// The budget of warnings about dropped datagrams: a token bucket per endpoint (WarnBudget,
// ident/localinfo.h), so that a flood of bad datagrams cannot fill the card's trace ring.
#include "ipc/ipc_int.h"

#include "common/kt4_check.h"
#include "common/kt4_clock.h"

#include <kt4/log.h>

#include <cstdarg>

namespace kt4::ipc {

namespace {

// Guards every endpoint's WarnBudget. Taken alone, only on the path that reports a bad
// datagram, never across a socket call or a report.
pthread_mutex_t budget_mutex = PTHREAD_MUTEX_INITIALIZER;

// Takes one token from the budget: true when the warning may be reported, with the number
// held back before it in *heldBack (then cleared); false when it is counted instead.
bool budget_admit(WarnBudget &b, uint32_t *heldBack) {
    MutexGuard g(budget_mutex);
    const uint64_t now = kt4::mono_usec();
    if (b.tokens >= kDropWarnBurst) {
        b.lastRefillUsec = now;
    } else {
        const uint64_t earned = (now - b.lastRefillUsec) / kDropWarnRefillUsec;
        if (earned >= kDropWarnBurst - b.tokens) {
            b.tokens = kDropWarnBurst;
            b.lastRefillUsec = now;
        } else if (earned > 0) {
            b.tokens += static_cast<uint32_t>(earned);
            b.lastRefillUsec += earned * kDropWarnRefillUsec;
        }
    }
    if (b.tokens == 0) {
        ++b.suppressed;
        return false;
    }
    --b.tokens;
    *heldBack = b.suppressed;
    b.suppressed = 0;
    return true;
}

} // namespace

void report_dropped(TaskLocalInfo *rec, const char *who, int key, const char *fmt, ...) {
    uint32_t heldBack = 0;
    if (rec != nullptr && !budget_admit(rec->dropWarnings, &heldBack)) return;
    if (heldBack != 0)
        report_warning("%s: key %d: warnings about dropped datagrams suppressed: %u", who, key,
                       heldBack);
    va_list ap;
    va_start(ap, fmt);
    report(KT4_TRACE_KIND_WARNING, fmt, ap);
    va_end(ap);
}

} // namespace kt4::ipc
