// Yielding a task or thread of this library between batches of long walks.
//
// Each task of the library is one POSIX thread scheduled by the kernel, so the thread named is
// the caller and yielding it means giving up the processor, as taskDelay(0) does: the caller
// goes to the back of its priority's run queue and the other tasks get to run. A null thread
// names no one and changes nothing, which lets callers pass their argument through unchecked.
#include <kt4/radix.h>

#include <sched.h>

extern "C" void kt4ThreadYield(void *thread) {
    if (thread == nullptr) return;
    sched_yield();
}
