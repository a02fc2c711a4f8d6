// Reporting of the IPC family: every text goes to the trace channel under module 5 ("IPC").
#include "ipc/ipc_int.h"

#include <kt4/log.h>
#include <kt4/vx2bsd.h>

#include "common/kt4_check.h"

#include <cstdarg>
#include <ctime>

namespace kt4::ipc {

namespace {

// Guards every endpoint's WarnBudget. Taken alone, only on the path that reports a bad
// datagram, never across a socket call or a report.
pthread_mutex_t budget_mutex = PTHREAD_MUTEX_INITIALIZER;

uint64_t monotonic_usec() {
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<uint64_t>(ts.tv_sec) * 1000000u + static_cast<uint64_t>(ts.tv_nsec) / 1000u;
}

// Takes one token from the budget: true when the warning may be reported, with the number
// held back before it in *heldBack (then cleared); false when it is counted instead.
bool budget_admit(WarnBudget &b, uint32_t *heldBack) {
    MutexGuard g(budget_mutex);
    const uint64_t now = monotonic_usec();
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
    kt4MsgPrintf(KT4_TRACE_KIND_WARNING, kModIpc, fmt, ap);
    va_end(ap);
}

void report_error(const char *fmt, ...) {
    va_list ap;
    va_start(ap, fmt);
    kt4MsgPrintf(KT4_TRACE_KIND_ERROR, kModIpc, fmt, ap);
    va_end(ap);
}

void report_warning(const char *fmt, ...) {
    va_list ap;
    va_start(ap, fmt);
    kt4MsgPrintf(KT4_TRACE_KIND_WARNING, kModIpc, fmt, ap);
    va_end(ap);
}

void report_trace(const char *fmt, ...) {
    va_list ap;
    va_start(ap, fmt);
    kt4MsgPrintf(KT4_TRACE_KIND_TRACE, kModIpc, fmt, ap);
    va_end(ap);
}

bool trace_on(uint32_t flag) {
    return (wrap_modtraceflags(kModIpc) & flag) != 0;
}

void report_bad_key(const char *where, int line) {
    // The development assertion: compiled out of a release image, a break point on a
    // developer's.
    _kt4DevAssert("invalid IPC key", where, line);
}

const char *self_name() {
    const char *n = taskName(0);
    return n != nullptr ? n : "";
}

uint32_t self_task_id() {
    return static_cast<uint32_t>(taskIdSelf());
}

} // namespace kt4::ipc
