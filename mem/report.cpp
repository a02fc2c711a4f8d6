// The allocator's reports, through the trace channel of the logging family.
//
// Event-log messages (facility "MEMMGR", severity 2) travel on the trace channel as error lines
// of module MEMMGR that carry their entry tag, until this process has an event-log key to send
// them with; memEvent is the one place that changes when it does.
#include "mem/mem_report.h"

#include <kt4/log.h>

#include <cstdarg>
#include <cstdio>

namespace kt4::mem {

void memTrace(const char *fmt, ...) {
    va_list ap;
    va_start(ap, fmt);
    kt4MsgPrintf(KT4_TRACE_KIND_TRACE, kMemMgrModule, fmt, ap);
    va_end(ap);
}

void memError(const char *fmt, ...) {
    va_list ap;
    va_start(ap, fmt);
    kt4MsgPrintf(KT4_TRACE_KIND_ERROR, kMemMgrModule, fmt, ap);
    va_end(ap);
}

// The allocator's system errors: the single place where the event log's numbered system error
// (kt4SysErr) takes over once this family has its event-log key.
void memSysErr(const char *fmt, ...) {
    va_list ap;
    va_start(ap, fmt);
    kt4MsgPrintf(KT4_TRACE_KIND_ERROR, kMemMgrModule, fmt, ap);
    va_end(ap);
}

void memEvent(const char *tag, const char *fmt, ...) {
    char text[400];
    va_list ap;
    va_start(ap, fmt);
    std::vsnprintf(text, sizeof text, fmt, ap);
    va_end(ap);
    kt4ErrorPrintf(kMemMgrModule, "%s: %s", tag, text);
}

void memDebug(const char *fmt, ...) {
    char text[400];
    va_list ap;
    va_start(ap, fmt);
    std::vsnprintf(text, sizeof text, fmt, ap);
    va_end(ap);
    kt4EvtLogPrint(kMemDebugLevel, 0, text);
}

} // namespace kt4::mem
