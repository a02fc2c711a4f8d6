// What the families above the task layer read from a task control block, through the public
// interface: the task's id. Reads the one field; the rest of the block stays private.
#include "vx2bsd/vx2bsd_int.h"

#include <kt4/vx2bsd.h>

extern "C" int kt4TaskIdOfTcb(const kt4Tcb *tcb) {
    if (tcb == nullptr) return taskIdSelf();
    return static_cast<int>(reinterpret_cast<const kt4::vx::tcb *>(tcb)->id);
}
