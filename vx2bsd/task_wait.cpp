// The task layer's wait lists (TCBs chained by pend_next, under task_list_lock) and the deletion
// rendezvous of a task that is safe from deletion (taskSafe/taskUnsafe, the deleters list),
// built on the wait core (waitq.h).
#include "vx2bsd/task_int.h"

#include <climits>

namespace kt4::vx {

void pend_append(tcb **head, tcb *t) {
    ListLock ll;
    tcb **pp = head;
    while (*pp != nullptr)
        pp = &(*pp)->pend_next;
    *pp = t;
    t->pend_next = nullptr;
    t->pend_list = head;
    t->status |= kStPended;
}

void pend_remove(tcb *t) {
    ListLock ll;
    if (t->pend_list == nullptr) return;
    for (tcb **pp = t->pend_list; *pp != nullptr; pp = &(*pp)->pend_next) {
        if (*pp == t) {
            *pp = t->pend_next;
            break;
        }
    }
    t->pend_next = nullptr;
    t->pend_list = nullptr;
    t->status = 0;
}

bool pend_empty(tcb *const *head) {
    ListLock ll;
    return *head == nullptr;
}

bool pend_is_first(tcb *const *head, const tcb *t) {
    ListLock ll;
    return *head == t;
}

void notify_task_delete(tcb *t, bool self) {
    Drain d = DeleteRelease::bcplt(t, self);
    ObjLock db = d.guard();
    db.lock();
    {
        ObjLock td(t->tdelete_lock, "!pthread_mutex_lock (&(tcb->tdelete_lock))",
                   "!pthread_mutex_unlock (&(tcb->tdelete_lock))");
        td.lock();
        KT4_VERIFY(!pthread_cond_broadcast(&(t->t_deletable)));
    }
    d.wait_while([t] { return !pend_empty(&t->deleters); });
}

} // namespace kt4::vx

using namespace kt4::vx;

extern "C" {

STATUS taskSafe(void) {
    tcb *me = my_tcb();
    if (me == nullptr) return OK;
    LockScope boost;
    ObjLock td(me->tdelete_lock, "!pthread_mutex_lock (&(current_tcb->tdelete_lock))",
               "!pthread_mutex_unlock (&(current_tcb->tdelete_lock))");
    td.lock();
    if (me->safe_count < INT_MAX) me->safe_count += 1;
    return OK;
}

STATUS taskUnsafe(void) {
    tcb *me = my_tcb();
    if (me == nullptr) return OK;
    LockScope boost;
    bool wake = false;
    {
        ObjLock td(me->tdelete_lock, "!pthread_mutex_lock (&(current_tcb->tdelete_lock))",
                   "!pthread_mutex_unlock (&(current_tcb->tdelete_lock))");
        td.lock();
        if (me->safe_count >= 1) {
            me->safe_count -= 1;
            wake = me->safe_count == 0 && !pend_empty(&me->deleters);
        }
    }
    if (wake) notify_task_delete(me, true);
    return OK;
}

} // extern "C"
