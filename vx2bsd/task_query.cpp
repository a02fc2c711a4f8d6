// Task queries: lookups by id and name, and what a task's state and record say.
#include "vx2bsd/task_int.h"

#include <cerrno>
#include <cstring>

namespace kt4::vx {

bool tcb_listed(const tcb *t) {
    for (tcb *p = task_list; p != nullptr; p = p->next)
        if (p == t) return true;
    return false;
}

tcb *tcb_for(int id) {
    for (tcb *p = task_list; p != nullptr; p = p->next)
        if (p->id == id) return p;
    return nullptr;
}

tcb *lookup_self_or(int tid) {
    return tid == 0 ? my_tcb() : tcb_for(tid);
}

} // namespace kt4::vx

using namespace kt4::vx;

extern "C" {

char *taskName(int tid) {
    ListLock ll;
    tcb *t = lookup_self_or(tid);
    return t != nullptr ? t->name : nullptr;
}

int taskNameToId(const char *name) {
    if (name == nullptr) return ERROR;
    ListLock ll;
    for (tcb *p = task_list; p != nullptr; p = p->next)
        if (p->name != nullptr && std::strcmp(p->name, name) == 0) return p->id;
    return ERROR;
}

int taskIdSelf(void) {
    tcb *me = my_tcb();
    if (me == nullptr) return 0;
    ListLock ll;
    return me->id;
}

STATUS taskIdVerify(int tid) {
    ListLock ll;
    tcb *t = lookup_self_or(tid);
    if (t == nullptr || !tcb_listed(t)) {
        errno = kErrIdError;
        return ERROR;
    }
    return OK;
}

int taskIdListGet(int idList[], int maxTasks) {
    if (idList == nullptr) return 0;
    LockScope boost;
    ListLock ll;
    int n = 0;
    for (tcb *p = task_list; p != nullptr && n < maxTasks; p = p->next)
        idList[n++] = p->id;
    return n;
}

BOOL taskIsReady(int tid) {
    ListLock ll;
    tcb *t = lookup_self_or(tid);
    return (t != nullptr && tcb_listed(t) && (t->status & kStNotReady) == 0) ? TRUE : FALSE;
}

BOOL taskIsSuspended(int tid) {
    ListLock ll;
    tcb *t = lookup_self_or(tid);
    return (t != nullptr && tcb_listed(t) && (t->status & kStSuspended) != 0) ? TRUE : FALSE;
}

kt4Tcb *taskTcb(int tid) {
    ListLock ll;
    tcb *t = lookup_self_or(tid);
    if (t == nullptr || !tcb_listed(t)) return nullptr;
    return reinterpret_cast<kt4Tcb *>(t);
}

STATUS taskInfoGet(int tid, kt4TaskInfo *desc) {
    ListLock ll;
    tcb *t = lookup_self_or(tid);
    if (t == nullptr || !tcb_listed(t) || desc == nullptr) {
        errno = kErrIdError;
        return ERROR;
    }
    std::memset(desc, 0, sizeof *desc);
    desc->ti_id = t->id;
    desc->ti_name = t->name;
    desc->ti_priority = t->priority;
    desc->ti_entry = t->entry;
    return OK;
}

} // extern "C"
