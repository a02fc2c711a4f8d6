// What the task files of the layer share among themselves (task_life, task_wait, task_rr,
// task_query, task_hooks): the task list, the priority mapping, lookups, the deletion
// rendezvous. The rest of the layer uses vx2bsd_int.h.
#pragma once

#include "vx2bsd/waitq.h"

namespace kt4::vx {

// All TCBs in order of taskInit, new ones at the tail (task_life.cpp). Under task_list_lock.
extern tcb *task_list;

// The POSIX priority of a kernel-convention priority: 254 - priority, clamped to 0..254.
int posix_priority_of(int priority);
// SCHED_RR while round robin is on, else SCHED_FIFO. Caller holds task_list_lock.
int current_policy_locked();
bool priority_legal(int priority);

// Id 0 is the caller, any other id is looked up. Caller holds task_list_lock.
tcb *lookup_self_or(int tid);

// The deletion rendezvous of a safe task, seen by its deleters: every deleter is released when
// the task becomes deletable, and the last one out broadcasts delete_bcplt (the task's
// notify_task_delete waits for it) and performs the deletion.
class DeleteRelease final : public Release {
  public:
    explicit DeleteRelease(tcb *target) : target_(target) {}
    bool releasing() override { return true; }
    bool drained() override { return pend_empty(&target_->deleters); }
    Drain drain() override { return bcplt(target_, false); }

    // A task waking its own deleters (taskUnsafe) names the lock as its own in the texts.
    static Drain bcplt(tcb *t, bool self) {
        return Drain{t->dbcst_lock,
                     t->delete_bcplt,
                     self ? "!pthread_mutex_lock (&(current_tcb->dbcst_lock))"
                          : "!pthread_mutex_lock (&(tcb->dbcst_lock))",
                     self ? "!pthread_mutex_unlock (&(current_tcb->dbcst_lock))"
                          : "!pthread_mutex_unlock (&(tcb->dbcst_lock))",
                     "!pthread_cond_wait (&(tcb->delete_bcplt), &(tcb->dbcst_lock))",
                     "!pthread_cond_broadcast (&(tcb->delete_bcplt))"};
    }

  private:
    tcb *target_;
};

// Tells a safe task's deleters that it may now be deleted, then waits until every one has taken
// note (left the deleters list). A task waking its own deleters (taskUnsafe) passes self, which
// names the lock as its own in the abort texts.
void notify_task_delete(tcb *t, bool self = false);
// Waits on t's deleters list (the caller holds taskLock, which is released meanwhile) until t
// may be deleted. True when the caller was the last deleter to leave: it performs the deletion.
KT4_WAIT_INLINE bool wait_deletable(tcb *t) {
    DeleteRelease release(t);
    Waiter dw(&t->deleters, caller_tcb(), release, nullptr);
    {
        ObjLock td(t->tdelete_lock, "!pthread_mutex_lock (&(current_tcb->tdelete_lock))",
                   "!pthread_mutex_unlock (&(current_tcb->tdelete_lock))");
        td.lock();
        taskUnlock();
        while (t->safe_count > 0 && dying_of(t) != kDyingDelete)
            KT4_VERIFY(!pthread_cond_wait(&(t->t_deletable), &(t->tdelete_lock)));
    }
    taskLock();
    return dw.leave();
}

// taskLock/taskUnlock as a scope.
struct LockScope {
    LockScope() { taskLock(); }
    ~LockScope() { taskUnlock(); }
    LockScope(const LockScope &) = delete;
    LockScope &operator=(const LockScope &) = delete;
};

} // namespace kt4::vx
