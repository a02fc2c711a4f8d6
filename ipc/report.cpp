// Reporting of the IPC family: every text goes to the trace channel under module 5 ("IPC").
#include "ipc/ipc_int.h"

#include <kt4/log.h>
#include <kt4/vx2bsd.h>

#include <cstdarg>

namespace kt4::ipc {

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
