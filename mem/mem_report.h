// Where the allocator's reports go: one place, so that every message of the family takes the
// same route (module "MEMMGR" of the trace channel, facility "MEMMGR" of the event log).
//
// Each report is the logging family's kt4MsgPrintf bound to the module; nothing of the
// allocator's own is added on the way, so the routes are written here rather than in a file of
// their own. System errors and event-log messages (facility "MEMMGR", severity 2) are error
// lines of module MEMMGR on the trace channel and, through the trace family's hook, records of
// the event log sent with an EV key of this process when it has one.
#pragma once

#include "log/log_internal.h"

#include <kt4/log.h>

#include <cstdarg>
#include <cstdio>

namespace kt4::mem {

// Module id of "MEMMGR" in the trace tables.
constexpr int kMemMgrModule = 31;
// Severity of the allocator's event-log messages.
constexpr int kMemMgrSeverity = 2;
// Level of the developer task mask that switches the allocator's debug output on.
constexpr int kMemDebugLevel = 16;

// A line of the given kind (KT4_TRACE_KIND_*) on the trace channel under module MEMMGR.
inline void memReport(int kind, const char *fmt, va_list ap) {
    kt4MsgPrintf(kind, kMemMgrModule, fmt, ap);
}

// A trace line (diagnostics the operator asked for, debug output).
inline __attribute__((format(printf, 1, 2))) void memTrace(const char *fmt, ...) {
    va_list ap;
    va_start(ap, fmt);
    memReport(KT4_TRACE_KIND_TRACE, fmt, ap);
    va_end(ap);
}

// An error line: a failed request or a refused operation.
inline __attribute__((format(printf, 1, 2))) void memError(const char *fmt, ...) {
    va_list ap;
    va_start(ap, fmt);
    memReport(KT4_TRACE_KIND_ERROR, fmt, ap);
    va_end(ap);
}

// A system error: corruption found in the allocator's own records, or a request the
// allocator refuses. An error line on the trace channel, and the numbered system error
// "MEMMGR" / "MEM_CORRUPTED" with the same text through the event log (once wired; it is sent
// through an EV key of this process when it has one).
inline __attribute__((format(printf, 1, 2))) void memSysErr(const char *fmt, ...) {
    char text[400];
    va_list ap;
    va_start(ap, fmt);
    std::vsnprintf(text, sizeof text, fmt, ap);
    va_end(ap);
    kt4ErrorPrintf(kMemMgrModule, "%s", text);
    kt4::log::raise_syserr("MEMMGR", "MEM_CORRUPTED", text);
}

// An event-log message of facility "MEMMGR", severity 2, under the entry tag: an error line
// that carries the tag, and the entry of that name through the event log.
inline __attribute__((format(printf, 2, 3))) void memEvent(const char *tag, const char *fmt, ...) {
    char text[400];
    va_list ap;
    va_start(ap, fmt);
    std::vsnprintf(text, sizeof text, fmt, ap);
    va_end(ap);
    kt4ErrorPrintf(kMemMgrModule, "%s: %s", tag, text);
    kt4::log::raise_syserr("MEMMGR", tag, text);
}

// The memory-debug bit (16) of the developer task mask. The allocation path asks.
inline bool memDebugOn() {
    const uint32_t *mask = __atomic_load_n(&pGlbDevTskMsk, __ATOMIC_ACQUIRE);
    return mask != nullptr && (__atomic_load_n(&mask[kMemDebugLevel >> 5], __ATOMIC_RELAXED) &
                               (1u << (kMemDebugLevel & 31))) != 0;
}

// A debug line, written only while memDebugOn(): the event log's debug print at level 16.
inline __attribute__((format(printf, 1, 2))) void memDebug(const char *fmt, ...) {
    char text[400];
    va_list ap;
    va_start(ap, fmt);
    std::vsnprintf(text, sizeof text, fmt, ap);
    va_end(ap);
    kt4EvtLogPrint(kMemDebugLevel, 0, text);
}

} // namespace kt4::mem
