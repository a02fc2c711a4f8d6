// The task manager's exit handler, registered as a delete hook when the tasking layer starts.
//
// It is called for every task that ends, in the dying thread or in the thread that deletes it,
// with the TCB and the task's name and no lock of the tasking layer held. It closes the
// endpoints that the task still has open, gives its records in the endpoint table back, and
// takes its entries out of the card's task table, so that no peer finds a task that is gone
// and its service and instance can be created again.
#include "ident/localinfo.h"
#include "tme/card_table.h"

#include <kt4/ipc.h>
#include <kt4/log.h>
#include <kt4/tme.h>
#include <kt4/vx2bsd.h>

#include <unistd.h>

namespace {

struct Owned {
    uint32_t taskId;
    uint32_t pid;
    int service;
    int index;
    kt4::ident::TaskLocalInfo *rec;
    bool open;
};

// The task's first record in table order, or false when it holds none.
bool next_owned(Owned &o) {
    return kt4::ident::localinfo_for_each(
               [](int service, int index, kt4::ident::TaskLocalInfo *rec, void *arg) -> int {
                   auto *q = static_cast<Owned *>(arg);
                   if (rec->magic != kt4::ident::kLocalInfoMagic || rec->taskId != q->taskId ||
                       rec->pid != q->pid)
                       return 0;
                   q->service = service;
                   q->index = index;
                   q->rec = rec;
                   q->open = rec->openQueues != 0;
                   return 1;
               },
               &o) != 0;
}

} // namespace

extern "C" void kt4TaskExit(kt4Tcb *tcb, const char *name) {
    // The hook may run in another task's thread: the dying task is named by its TCB.
    const int tid = kt4TaskIdOfTcb(tcb);
    Owned o{};
    o.taskId = static_cast<uint32_t>(tid);
    o.pid = static_cast<uint32_t>(getpid());
    int released = 0;
    while (next_owned(o)) {
        // Records past the 32 of a key's instance field hold large-instance links; they are
        // closed with the endpoint they belong to.
        if (o.open && o.index <= KT4_TASK_MAX_INSTANCE)
            (void)kt4IpcClose(o.service << 7 | o.index << 2);
        kt4::ident::localinfo_release(o.rec);
        ++released;
    }
    if (kt4::tme::own_entries_possible())
        released += kt4::tme::remove_task(static_cast<int>(o.pid), tid);
    if (released > 0)
        kt4TracePrintf(kt4::tme::kModule, "kt4TaskExit: task %s (%d) released %d records",
                       name != nullptr ? name : "", tid, released);
}
