// Where the allocator's reports go: one place, so that every message of the family takes the
// same route (module "MEMMGR" of the trace channel, facility "MEMMGR" of the event log).
//
// Each report is the logging family's kt4MsgPrintf bound to the module; nothing of the
// allocator's own is added on the way, so the routes are written here rather than in a file of
// their own. Event-log messages (facility "MEMMGR", severity 2) travel on the trace channel as
// error lines of module MEMMGR that carry their entry tag, until this process has an event-log
// key to send them with; memEvent is the one place that changes when it does.
#pragma once

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

// A system error: corruption found in the allocator's own records. The single place where the
// event log's numbered system error (kt4SysErr) takes over once this family has its event-log
// key; until then an error line.
inline __attribute__((format(printf, 1, 2))) void memSysErr(const char *fmt, ...) {
    va_list ap;
    va_start(ap, fmt);
    memReport(KT4_TRACE_KIND_ERROR, fmt, ap);
    va_end(ap);
}

// An event-log message of facility "MEMMGR", severity 2, under the entry tag.
inline __attribute__((format(printf, 2, 3))) void memEvent(const char *tag, const char *fmt, ...) {
    char text[400];
    va_list ap;
    va_start(ap, fmt);
    std::vsnprintf(text, sizeof text, fmt, ap);
    va_end(ap);
    kt4ErrorPrintf(kMemMgrModule, "%s: %s", tag, text);
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
