// Priorities and round robin: the kernel-convention priority mapping, taskLock's priority boost,
// taskPrioritySet/Get, and the scheduling policy of every task (kernelTimeSlice and the
// round-robin switch).
#include "vx2bsd/task_int.h"

#include <cerrno>

namespace kt4::vx {

namespace {

int round_robin_enabled = 0; // under task_list_lock (atomic reads)

} // namespace

int posix_priority_of(int priority) {
    int p = 254 - priority;
    if (p < 0) p = 0;
    if (p > 254) p = 254;
    return p;
}

int current_policy_locked() {
    return round_robin_enabled ? SCHED_RR : SCHED_FIFO;
}

bool priority_legal(int priority) {
    return priority >= 0 && priority <= 255;
}

// Service-task priorities bypass the mapping's clamp.
void set_posix_priority(tcb *t, int prio255, const char *attr_text) {
    ListLock ll;
    t->prv_priority.sched_priority = prio255;
    KT4_VERIFY_AS(attr_apply(&t->attr, current_policy_locked(), prio255) == 0, attr_text);
}

} // namespace kt4::vx

using namespace kt4::vx;

extern "C" {

STATUS taskLock(void) {
    tcb *me = my_tcb();
    ListLock ll;
    if (me != nullptr) {
        me->lock_count += 1;
        if (me->lock_count == 1)
            KT4_VERIFY_AS(pthread_tmp_priority_change(pthread_self(), kMaxPriority) == 0,
                          "!pthread_tmp_priority_change (tcb->pthrid, max_priority)");
    }
    return OK;
}

STATUS taskUnlock(void) {
    tcb *me = my_tcb();
    ListLock ll;
    if (me != nullptr) {
        uint32_t old = me->lock_count;
        if (old > 0) {
            me->lock_count = old - 1;
            if (old != 1) return OK;
        }
        KT4_VERIFY_AS(
            pthread_tmp_priority_change(pthread_self(), me->prv_priority.sched_priority) == 0,
            "!pthread_tmp_priority_change(tcb->pthrid, tcb->prv_priority.sched_priority)");
    }
    return OK;
}

STATUS taskPrioritySet(int tid, int priority) {
    LockScope boost;
    ListLock ll;
    tcb *t = lookup_self_or(tid);
    if (t == nullptr) {
        errno = kErrIdError;
        return ERROR;
    }
    t->priority = priority;
    t->prv_priority.sched_priority = posix_priority_of(priority);
    if (tid != 0 && t != my_tcb()) {
        int sched_policy = SCHED_OTHER;
        KT4_VERIFY(!pthread_attr_getschedpolicy(&(t->attr), &sched_policy));
        KT4_VERIFY_AS(attr_apply(&(t->attr), sched_policy, t->prv_priority.sched_priority) == 0,
                      "!pthread_attr_setschedparam (&(tcb->attr), &(tcb->prv_priority))");
        if (t->pthrid != 0 && rt_enabled()) {
            int cur_sched_policy;
            sched_param cur_param;
            KT4_VERIFY_AS(pthread_getschedparam(t->pthrid, &cur_sched_policy, &cur_param) == 0,
                          "!pthread_getschedparam (tcb->pthrid, &cur_sched_policy, &cur_param)");
            if (sched_policy == SCHED_FIFO || sched_policy == SCHED_RR)
                KT4_VERIFY_AS(
                    thread_set_sched(t->pthrid, sched_policy, t->prv_priority.sched_priority) == 0,
                    "!pthread_setschedparam (tcb->pthrid, sched_policy, &cur_param)");
        }
    }
    if (!priority_legal(priority)) {
        errno = kErrIllegalPriority;
        return ERROR;
    }
    return OK;
}

STATUS taskPriorityGet(int tid, int *priority) {
    LockScope boost;
    ListLock ll;
    tcb *t = tcb_for(tid); // id 0 is not the caller here
    if (t == nullptr) {
        errno = kErrIdError;
        return ERROR;
    }
    if (priority != nullptr) *priority = t->priority;
    return OK;
}

STATUS kernelTimeSlice(int ticks) {
    LockScope boost;
    ListLock ll;
    round_robin_enabled = ticks != 0 ? 1 : 0;
    int sched_policy = current_policy_locked();
    for (tcb *t = task_list; t != nullptr; t = t->next) {
        KT4_VERIFY_AS(attr_apply(&(t->attr), sched_policy, t->prv_priority.sched_priority) == 0,
                      "!pthread_attr_setschedpolicy (&(tcb->attr), sched_policy)");
        if (t->pthrid == 0 || !rt_enabled()) continue;
        int cur_sched_policy;
        sched_param cur_param;
        KT4_VERIFY_AS(pthread_getschedparam(t->pthrid, &cur_sched_policy, &cur_param) == 0,
                      "!pthread_getschedparam (tcb->pthrid, &cur_sched_policy, &cur_param)");
        if (cur_sched_policy != SCHED_FIFO && cur_sched_policy != SCHED_RR)
            cur_param.sched_priority = host_priority(t->prv_priority.sched_priority, sched_policy);
        int rc = pthread_setschedparam(t->pthrid, sched_policy, &cur_param);
        if (rc == EPERM)
            rt_refused();
        else
            KT4_VERIFY_AS(rc == 0,
                          "!pthread_setschedparam (tcb->pthrid, sched_policy, &cur_param)");
    }
    return OK;
}

void enableRoundRobin(void) {
    ListLock ll;
    round_robin_enabled = 1;
}

void disableRoundRobin(void) {
    ListLock ll;
    round_robin_enabled = 0;
}

int roundRobinIsEnabled(void) {
    ListLock ll;
    return round_robin_enabled;
}

} // extern "C"
