// The wiring of the families in a process: what a family above installs in a family below it,
// so that the lower one needs no reference to the upper one.
//
//   messaging's endpoint announcements  -> the task registry's claim, register, unregister
//   kt4VxToBsdInit's start-up delete hook -> the task manager's exit hook, kt4TaskExit
//   the checked allocator's system memory -> the pool family's gate (M_sysMalloc, ...)
//   the library's own system errors        -> the event log's raise (kt4EvtRaise)
//
// It is done by a static constructor, before main, in every program that links the library:
// the shared library runs it when it is loaded; a static link takes this object in through
// the symbol kt4StartupWiring, which the static library's users link with -u (its CMake
// target carries the option, and so does the pkg-config file's Libs.private). A program that
// opens endpoints without any start-up call thus behaves as one that did.
#include "common/kt4_mc.h"
#include "log/log_internal.h"
#include "tme/registry.h"

#include <kt4/evt.h>
#include <kt4/mem.h>

#include <kt4/tme.h>
#include <kt4/vx2bsd.h>

// Forces this object into a static link (-u kt4StartupWiring).
extern "C" __attribute__((visibility("default"), used)) const int kt4StartupWiring = 1;

namespace {

const kt4::mc::SysMemory kSysMemory{M_sysMalloc, M_sysCalloc, M_sysMemfree};

// Runs before any other constructor of the library's users (priority 101: the first that
// programs may use), so that no system memory is taken from the heap before the gate is in.
__attribute__((constructor(101))) void wire_families() {
    kt4::mc::set_sys_memory(&kSysMemory);
    kt4::tmeInstallEndpointHooks();
    kt4VxSetStartDeleteHook(kt4TaskExit);
    kt4::log::set_syserr(kt4EvtRaise);
}

} // namespace
