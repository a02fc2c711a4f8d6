// Where the allocator's reports go: one place, so that every message of the family takes the
// same route (module "MEMMGR" of the trace channel, facility "MEMMGR" of the event log).
#pragma once

#include <kt4/log.h>

namespace kt4::mem {

// Module id of "MEMMGR" in the trace tables.
constexpr int kMemMgrModule = 31;
// Severity of the allocator's event-log messages.
constexpr int kMemMgrSeverity = 2;

// A trace line (diagnostics the operator asked for, debug output).
void memTrace(const char *fmt, ...) __attribute__((format(printf, 1, 2)));
// An error line: a failed request or a refused operation.
void memError(const char *fmt, ...) __attribute__((format(printf, 1, 2)));
// A system error: corruption found in the allocator's own records.
void memSysErr(const char *fmt, ...) __attribute__((format(printf, 1, 2)));
// An event-log message of facility "MEMMGR", severity 2, under the entry tag.
void memEvent(const char *tag, const char *fmt, ...) __attribute__((format(printf, 2, 3)));
// Level of the developer task mask that switches the allocator's debug output on.
constexpr int kMemDebugLevel = 16;
// The memory-debug bit (16) of the developer task mask. Inline: the allocation path asks.
inline bool memDebugOn() {
    const uint32_t *mask = __atomic_load_n(&pGlbDevTskMsk, __ATOMIC_ACQUIRE);
    return mask != nullptr && (__atomic_load_n(&mask[kMemDebugLevel >> 5], __ATOMIC_RELAXED) &
                               (1u << (kMemDebugLevel & 31))) != 0;
}
// A debug line, written only while memDebugOn().
void memDebug(const char *fmt, ...) __attribute__((format(printf, 1, 2)));

} // namespace kt4::mem
