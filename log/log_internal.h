// Internal interface of the log family for the rest of the library.
//
// The trace channel links with nothing but the common layer: the card's shared area and its
// numbered locks belong to the platform family, which hands the trace tables and the ring
// lock to the channel once the area is mapped (attach_shared_trace), and the task layer's
// names are looked up only when the program contains the task layer.
#pragma once

#include <cstddef>
#include <cstdint>

namespace kt4::log {

// What the platform family hands over once the card's shared area is mapped.
struct SharedTrace {
    void *flags = nullptr; // moduleTraceFlags (kFlagsTableBytes)
    size_t flagsBytes = 0;
    void *rings = nullptr; // the rings table (kRingsTableBytes)
    size_t ringsBytes = 0;
    bool (*ringLockOpen)() = nullptr; // lock 4 opened in this process?
    bool (*ringLockTake)() = nullptr; // take lock 4 without reporting; false: it is gone
    void (*ringLockGive)() = nullptr; // give lock 4 without reporting
    // Looks the rings table up again in the shared area (null when it has none).
    void *(*reloadRings)(size_t *bytes) = nullptr;
};
// Switches the trace channel from the process-local tables to the shared ones; called once
// per process. Lines traced before stay in the process-local rings.
void attach_shared_trace(const SharedTrace &shared);

// The whole flag word of module id (top bit included); 0 for an id outside 0..141.
uint32_t module_flags(int id);

// The library's own numbered system errors (an assertion, a task that cannot start, the
// memory manager's corruption reports) are sent by the event-log family, which stands above
// every family that raises them. The process wiring (startup/wiring.cpp) installs its raise
// here; the sites call raise_syserr with the entry's facility and short name and the one
// argument of its text. Without it (a program built from some families only, or before the
// wiring ran) raise_syserr does nothing and returns -1: each site prints its trace line anyway.
using SysErrFn = int (*)(const char *facility, const char *name, const char *arg);
void set_syserr(SysErrFn fn);
int raise_syserr(const char *facility, const char *name, const char *arg);

} // namespace kt4::log

// The task layer's look-ups, weak: a program without the task layer has no tasks, and its
// threads are traced as threads that are not tasks.
extern "C" {
char *taskName(int tid) __attribute__((weak, visibility("default")));
int taskIdSelf(void) __attribute__((weak, visibility("default")));
}
