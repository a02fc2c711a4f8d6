// Task lifecycle: creation (taskInit, taskActivate, taskSpawn), the task thread and its end,
// deletion and restart, suspension, delays, and the calling thread's TCB.
//
// This file owns task_list (with task_list_lock) and task_spawn_lock; the order in which the
// layer takes its locks is written once in vx2bsd_int.h.
//
// "Under taskLock" keeps its kernel meaning: the caller's thread is raised to the top priority
// for the duration, so no other task of the process preempts it. On a multiprocessor host that
// is not exclusion, so every shared field is also changed under task_list_lock.
//
// Lifetime: a TCB may be freed by a deletion in another thread. Calls that use a TCB without
// holding task_list_lock pin it first; deletion and restart wait for the pins to go before they
// end the thread or free the record.
#include "vx2bsd/task_int.h"

#include <kt4/tick.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

namespace kt4::vx {

pthread_mutex_t task_list_lock = PTHREAD_MUTEX_INITIALIZER;
pthread_cond_t task_gone = PTHREAD_COND_INITIALIZER;
tcb *task_list = nullptr; // under task_list_lock

namespace {

pthread_mutex_t task_spawn_lock = PTHREAD_MUTEX_INITIALIZER;

pthread_key_t vx2bsdKey;
pthread_once_t key_once = PTHREAD_ONCE_INIT;
int key_result = 0;

unsigned long taskReactivations = 0; // under task_list_lock

constexpr int kSpawnIdLimit = 65536;

// The calling thread's work left for its exit: the TCB to tear down (self-deletion) or to
// restart (self-restart). Acted on by task_wrapper's exit guard while the thread unwinds.
thread_local tcb *t_exit_teardown = nullptr;
thread_local tcb *t_exit_restart = nullptr;

// A record standing in for a thread that is not a task, so that it can wait on semaphores and
// queues and be a semaphore's owner. Never on task_list.
struct ShadowTcb {
    tcb t;
    ShadowTcb() {
        std::memset(static_cast<void *>(&t), 0, sizeof t);
        t.shadow = 1;
        t.pthrid = pthread_self();
    }
};
thread_local ShadowTcb shadow_tcb;

void make_key() {
    key_result = pthread_key_create(&vx2bsdKey, nullptr);
}

void ensure_key() {
    pthread_once(&key_once, make_key);
}

// Caller holds task_list_lock.
void unlink_locked(tcb *t) {
    for (tcb **pp = &task_list; *pp != nullptr; pp = &(*pp)->next) {
        if (*pp == t) {
            *pp = t->next;
            t->next = nullptr;
            break;
        }
    }
}

void wait_unpinned_locked(ListLock &ll, tcb *t) {
    while (t->refs > 0)
        ll.wait_gone();
}

void destroy_sync(tcb *t) {
    KT4_VERIFY_AS(pthread_attr_destroy(&(t->attr)) == 0, "!pthread_attr_destroy(&(tcb->attr))");
    KT4_VERIFY_AS(pthread_mutex_destroy(&(t->tdelete_lock)) == 0,
                  "!pthread_mutex_destroy(&(tcb->tdelete_lock))");
    KT4_VERIFY_AS(pthread_mutex_destroy(&(t->dbcst_lock)) == 0,
                  "!pthread_mutex_destroy(&(tcb->dbcst_lock))");
    KT4_VERIFY_AS(pthread_cond_destroy(&(t->t_deletable)) == 0,
                  "!pthread_cond_destroy(&(tcb->t_deletable))");
    KT4_VERIFY_AS(pthread_cond_destroy(&(t->delete_bcplt)) == 0,
                  "!pthread_cond_destroy(&(tcb->delete_bcplt))");
}

// Teardown, in the thread that performs the deletion: hooks, wait list, task_list, name, and
// the record itself unless it belongs to a taskInit caller.
void tcb_delete(tcb *t) {
    NoCancel nc;
    char *name;
    {
        ListLock ll;
        name = t->name;
    }
    taskDeleteHookRun(t, name);
    pend_remove(t);
    bool caller_storage;
    {
        ListLock ll;
        wait_unpinned_locked(ll, t);
        caller_storage = t->static_tcb != 0;
        t->name = nullptr;
        t->pthrid = 0;
        unlink_locked(t);
        KT4_VERIFY(!pthread_cond_broadcast(&task_gone));
    }
    // Off the list, a caller's TCB is the caller's again (it may already be prepared anew).
    ts_free(name);
    if (caller_storage) return;
    destroy_sync(t);
    ts_free(t);
}

void *task_wrapper(void *arg);

// Runs at the end of a task thread whatever ends it: a self-deletion tears the TCB down here, a
// self-restart arranges the new thread. A thread ended by another task's deletion finds
// neither: its deleter tears down after the join.
struct ExitGuard {
    ~ExitGuard();
};

struct RestartRecord {
    int id;
    kt4WdogId wd;
};

void self_starter(kt4_arg_t arg);

// Arranges the new thread of a task that restarts itself: a watchdog fires at the next tick in
// tExcTask, by which time this thread has gone.
void selfRestart(tcb *t) {
    int id;
    {
        ListLock ll;
        id = t->id;
        t->pthrid = 0;
    }
    auto *rec = static_cast<RestartRecord *>(ts_malloc(sizeof(RestartRecord)));
    KT4_VERIFY(rec != nullptr);
    rec->id = id;
    rec->wd = wdCreate();
    KT4_VERIFY(rec->wd != nullptr);
    restart_wdog_set(rec->wd);
    KT4_VERIFY(wdStart(rec->wd, 1, self_starter, reinterpret_cast<kt4_arg_t>(rec)) == OK);
}

ExitGuard::~ExitGuard() {
    if (tcb *t = t_exit_teardown) {
        t_exit_teardown = nullptr;
        tcb_delete(t);
        pthread_setspecific(vx2bsdKey, nullptr);
    } else if (tcb *r = t_exit_restart) {
        t_exit_restart = nullptr;
        selfRestart(r);
    }
}

// Creates the task's thread. Caller holds task_list_lock, so the new thread (which takes it
// first) sees pthrid stored.
int start_thread_locked(tcb *t) {
    pthread_t thr;
    int rc = create_thread(&thr, t, task_wrapper, t);
    if (rc == 0) t->pthrid = thr;
    return rc;
}

void *task_wrapper(void *arg) {
    tcb *t = static_cast<tcb *>(arg);
    ExitGuard guard;
    kt4TaskEntry entry;
    kt4_arg_t a[10];
    {
        // A deletion requested this early takes effect in the entry routine, not half-way
        // through the set-up.
        NoCancel nc;
        ensure_key();
        pthread_setspecific(vx2bsdKey, t);
        char thread_name[16] = "";
        {
            ListLock ll;
            entry = t->entry;
            for (int i = 0; i < 10; ++i)
                a[i] = t->args[i];
            if (t->name != nullptr) std::snprintf(thread_name, sizeof thread_name, "%s", t->name);
        }
        if (thread_name[0] != '\0') pthread_setname_np(pthread_self(), thread_name);
    }
    errno = 0;
    if (entry != nullptr) entry(a[0], a[1], a[2], a[3], a[4], a[5], a[6], a[7], a[8], a[9]);
    // A task whose entry routine returns is deleted, hooks and all.
    taskDeleteForce(0);
    return nullptr;
}

// Waits until a deletion or restart begun by someone else is over. Returns true when the task
// is gone.
bool wait_other_deletion(ListLock &ll, tcb *t) {
    while (tcb_listed(t) && dying_of(t) != kDyingNo)
        ll.wait_gone();
    return !tcb_listed(t);
}

// Ends a thread (not the caller's) for deletion or restart: pins gone, cancelled (resumed first
// when suspended, so that it dies at its own next cancellation point) and joined.
void end_thread(tcb *t) {
    pthread_t thr;
    bool suspended;
    {
        ListLock ll;
        wait_unpinned_locked(ll, t);
        thr = t->pthrid;
        suspended = (t->status & kStSuspended) != 0;
    }
    if (thr == 0) return;
    pthread_cancel(thr);
    if (suspended) pthread_resume_np(thr);
    pthread_join(thr, nullptr);
}

// Deletes t ignoring taskSafe. Entered with ll held and t listed; returns with ll released.
STATUS force_delete(ListLock &ll, tcb *t) {
    bool self = (t == my_tcb());
    while (dying_of(t) != kDyingNo) {
        if (self) {
            // Someone else is deleting this task and will join the thread.
            ll.unlock();
            pthread_exit(nullptr);
        }
        if (wait_other_deletion(ll, t)) {
            ll.unlock();
            return OK;
        }
    }
    set_dying(t, kDyingDelete);
    bool has_deleters = t->deleters != nullptr;
    ll.unlock();
    if (has_deleters) notify_task_delete(t);
    if (self) {
        pthread_detach(pthread_self());
        t_exit_teardown = t;
        pthread_exit(nullptr);
    }
    NoCancel nc;
    end_thread(t);
    tcb_delete(t);
    return OK;
}

} // namespace

tcb *my_tcb() {
    ensure_key();
    return static_cast<tcb *>(pthread_getspecific(vx2bsdKey));
}

tcb *caller_tcb() {
    tcb *t = my_tcb();
    return t != nullptr ? t : &shadow_tcb.t;
}

void pin_locked(tcb *t) {
    t->refs = t->refs + 1;
}

void unpin(tcb *t) {
    ListLock ll;
    t->refs = t->refs - 1;
    if (t->refs == 0) KT4_VERIFY(!pthread_cond_broadcast(&task_gone));
}

namespace {

kt4WdogId restart_wdog = nullptr; // under task_list_lock

void self_starter(kt4_arg_t arg) {
    auto *rec = reinterpret_cast<RestartRecord *>(arg);
    wdDelete(rec->wd);
    {
        ListLock ll;
        if (restart_wdog == rec->wd) restart_wdog = nullptr;
        tcb *t = tcb_for(rec->id);
        if (t != nullptr && dying_of(t) == kDyingRestart) {
            t->status = 0;
            t->pthrid = 0;
            t->lock_count = 0;
            KT4_VERIFY_AS(start_thread_locked(t) == 0,
                          "!pthread_create (&(tcb->pthrid), &(tcb->attr), task_wrapper, (void *) "
                          "tcb)");
            set_dying(t, kDyingNo);
            KT4_VERIFY(!pthread_cond_broadcast(&task_gone));
        }
    }
    ts_free(rec);
}

} // namespace

void restart_wdog_set(kt4WdogId wd) {
    ListLock ll;
    restart_wdog = wd;
}

} // namespace kt4::vx

using namespace kt4::vx;

extern "C" {

int vx2bsdLibInit(void) {
    ensure_key();
    suspend_signals_init();
    return key_result;
}

STATUS taskInit(kt4Tcb *wtcb, const char *name, int priority, int options, char *stackBase,
                int stackSize, kt4TaskEntry entry, kt4_arg_t a1, kt4_arg_t a2, kt4_arg_t a3,
                kt4_arg_t a4, kt4_arg_t a5, kt4_arg_t a6, kt4_arg_t a7, kt4_arg_t a8, kt4_arg_t a9,
                kt4_arg_t a10) {
    (void)stackBase; // threads get the host's default stack
    (void)stackSize;
    tcb *t = reinterpret_cast<tcb *>(wtcb);
    if (t == nullptr) {
        errno = kErrIdError;
        return ERROR;
    }
    ListLock ll;
    // Preparing a TCB that is still on the list would corrupt the list and the locks of a
    // running task.
    if (tcb_listed(t)) {
        errno = kErrIdError;
        return ERROR;
    }
    std::memset(static_cast<void *>(t), 0, sizeof *t);
    t->pthrid = 0;
    t->lock_count = 0;
    t->id = static_cast<int32_t>(reinterpret_cast<uintptr_t>(t));
    if (name != nullptr) {
        size_t len = std::strlen(name) + 1;
        t->name = static_cast<char *>(ts_malloc(len));
        if (t->name != nullptr) std::memcpy(t->name, name, len);
    } else {
        t->name = nullptr;
    }
    t->priority = priority;
    KT4_VERIFY(!pthread_attr_init(&(t->attr)));
    KT4_VERIFY(!pthread_attr_getschedparam(&(t->attr), &(t->prv_priority)));
    int sched_policy = current_policy_locked();
    t->prv_priority.sched_priority = posix_priority_of(priority);
    KT4_VERIFY_AS(attr_apply(&(t->attr), sched_policy, t->prv_priority.sched_priority) == 0,
                  "!pthread_attr_setschedpolicy (&(tcb->attr), sched_policy)");
    t->entry = entry;
    t->static_tcb = 1;
    t->options = static_cast<uint32_t>(options);
    t->status = kStCreated;
    t->pend_list = nullptr;
    t->pend_next = nullptr;
    t->next = nullptr;
    t->safe_count = 0;
    t->deleters = nullptr;
    KT4_VERIFY(!pthread_mutex_init(&(t->tdelete_lock), nullptr));
    KT4_VERIFY(!pthread_cond_init(&(t->t_deletable), nullptr));
    KT4_VERIFY(!pthread_mutex_init(&(t->dbcst_lock), nullptr));
    KT4_VERIFY(!pthread_cond_init(&(t->delete_bcplt), nullptr));
    const kt4_arg_t args[10] = {a1, a2, a3, a4, a5, a6, a7, a8, a9, a10};
    for (int i = 0; i < 10; ++i)
        t->args[i] = args[i];
    if (!priority_legal(priority)) {
        // Left prepared but unlinked; the name copy stays with the TCB.
        errno = kErrIllegalPriority;
        return ERROR;
    }
    tcb **pp = &task_list;
    while (*pp != nullptr)
        pp = &(*pp)->next;
    *pp = t;
    return OK;
}

STATUS taskActivate(int tid) {
    LockScope boost;
    ListLock ll;
    tcb *t = tcb_for(tid);
    if (t == nullptr) {
        errno = kErrIdError;
        return ERROR;
    }
    if (t->status != kStCreated) {
        ++taskReactivations;
        return OK;
    }
    t->status = 0;
    if (start_thread_locked(t) == 0) return OK;
    // Undo the task as a deletion would, then report the failed creation.
    ll.unlock();
    tcb_delete(t);
    errno = kErrNoMemory;
    return ERROR;
}

int taskSpawn(const char *name, int priority, int options, int stackSize, kt4TaskEntry entry,
              kt4_arg_t a1, kt4_arg_t a2, kt4_arg_t a3, kt4_arg_t a4, kt4_arg_t a5, kt4_arg_t a6,
              kt4_arg_t a7, kt4_arg_t a8, kt4_arg_t a9, kt4_arg_t a10) {
    auto *t = static_cast<tcb *>(ts_malloc(sizeof(tcb)));
    if (t == nullptr) {
        errno = kErrNoTcbMemory;
        return ERROR;
    }
    std::memset(static_cast<void *>(t), 0, sizeof *t);
    NoCancel nc;
    KT4_VERIFY_AS(pthread_mutex_lock(&task_spawn_lock) == 0,
                  "!pthread_mutex_lock (&task_spawn_lock)");
    int new_id = 1;
    {
        ListLock ll;
        int top = 0;
        for (tcb *p = task_list; p != nullptr; p = p->next) {
            uint32_t id = static_cast<uint32_t>(static_cast<int32_t>(p->id));
            if (id<kSpawnIdLimit &&static_cast<int>(id)> top) top = static_cast<int>(id);
        }
        new_id = top + 1;
    }
    char auto_name[16];
    if (name == nullptr) {
        std::snprintf(auto_name, sizeof auto_name, "t%d", new_id);
        name = auto_name;
    }
    if (taskInit(reinterpret_cast<kt4Tcb *>(t), name, priority, options, nullptr, stackSize, entry,
                 a1, a2, a3, a4, a5, a6, a7, a8, a9, a10) != OK) {
        int saved = errno;
        // The TCB never reached the list: what it owns goes with it.
        ts_free(t->name);
        destroy_sync(t);
        ts_free(t);
        KT4_VERIFY_AS(pthread_mutex_unlock(&task_spawn_lock) == 0,
                      "!pthread_mutex_unlock (&task_spawn_lock)");
        errno = saved;
        return ERROR;
    }
    {
        ListLock ll;
        t->id = new_id;
        t->static_tcb = 0;
    }
    STATUS rc = taskActivate(new_id);
    KT4_VERIFY_AS(pthread_mutex_unlock(&task_spawn_lock) == 0,
                  "!pthread_mutex_unlock (&task_spawn_lock)");
    return rc == OK ? new_id : ERROR;
}

STATUS taskDeleteForce(int tid) {
    LockScope boost;
    ListLock ll;
    tcb *t = lookup_self_or(tid);
    if (t == nullptr || !tcb_listed(t)) {
        errno = kErrDeleted;
        return ERROR;
    }
    return force_delete(ll, t);
}

STATUS taskDelete(int tid) {
    LockScope boost;
    ListLock ll;
    tcb *t = lookup_self_or(tid);
    if (t == nullptr || !tcb_listed(t)) {
        errno = kErrDeleted;
        return ERROR;
    }
    tcb *me = my_tcb();
    bool self = (t == me);
    Pin pin(t);
    ll.unlock();
    int safe;
    {
        ObjLock td(t->tdelete_lock, "!pthread_mutex_lock (&(tcb->tdelete_lock))",
                   "!pthread_mutex_unlock (&(tcb->tdelete_lock))");
        td.lock();
        safe = t->safe_count;
    }
    if (safe == 0 || dying_of(t) == kDyingDelete) {
        pin.release();
        ll.lock();
        if (!tcb_listed(t)) return OK;
        return force_delete(ll, t);
    }
    if (self) {
        pin.release();
        errno = kErrUnavailable;
        return ERROR;
    }
    bool last = wait_deletable(t);
    pin.release();
    if (!last) return OK;
    ll.lock();
    if (!tcb_listed(t)) return OK;
    return force_delete(ll, t);
}

STATUS taskRestart(int tid) {
    LockScope boost;
    ListLock ll;
    tcb *t = lookup_self_or(tid);
    if (t == nullptr || !tcb_listed(t) || dying_of(t) == kDyingDelete) {
        errno = kErrIdError;
        return ERROR;
    }
    if (t == my_tcb()) {
        set_dying(t, kDyingRestart);
        ll.unlock();
        pend_remove(t);
        pthread_detach(pthread_self());
        t_exit_restart = t;
        pthread_exit(nullptr);
    }
    while (dying_of(t) != kDyingNo) {
        if (wait_other_deletion(ll, t) || dying_of(t) == kDyingDelete) {
            errno = kErrIdError;
            return ERROR;
        }
    }
    set_dying(t, kDyingRestart);
    ll.unlock();
    NoCancel nc;
    end_thread(t); // the thread leaves any wait list as it unwinds
    pend_remove(t);
    ll.lock();
    t->pthrid = 0;
    t->status = 0;
    t->lock_count = 0;
    int rc = start_thread_locked(t);
    set_dying(t, kDyingNo);
    KT4_VERIFY(!pthread_cond_broadcast(&task_gone));
    if (rc != 0) {
        errno = kErrNoMemory;
        return ERROR;
    }
    return OK;
}

STATUS taskSuspend(int tid) {
    if (tid == 0) {
        if (tcb *me = my_tcb()) {
            ListLock ll;
            me->status |= kStSuspended;
        }
        pthread_suspend_np(pthread_self());
        return OK;
    }
    tcb *t;
    {
        ListLock ll;
        t = tcb_for(tid);
        if (t == nullptr || dying_of(t) == kDyingDelete) {
            errno = kErrIdError;
            return ERROR;
        }
        if (t->status & kStSuspended) return OK;
    }
    LockScope boost;
    ListLock ll;
    t = tcb_for(tid);
    if (t == nullptr || dying_of(t) == kDyingDelete) {
        errno = kErrIdError;
        return ERROR;
    }
    if (t == my_tcb()) {
        t->status |= kStSuspended;
        ll.unlock();
        taskUnlock();
        pthread_suspend_np(pthread_self());
        taskLock();
        return OK;
    }
    t->status |= kStSuspended;
    pthread_t thr = t->pthrid;
    Pin pin(t);
    ll.unlock();
    int rc = thr != 0 ? pthread_suspend_np(thr) : ESRCH;
    pin.release();
    // The platform call's result is tested the other way round, as the system always has:
    // a successful suspension reports ERROR.
    if (rc == 0) {
        errno = kErrIdError;
        return ERROR;
    }
    return OK;
}

STATUS taskResume(int tid) {
    LockScope boost;
    ListLock ll;
    tcb *t = tcb_for(tid);
    if (t == nullptr || dying_of(t) == kDyingDelete) {
        errno = kErrIdError;
        return ERROR;
    }
    if (!(t->status & kStSuspended)) return OK;
    t->status = 0;
    pthread_t thr = t->pthrid;
    Pin pin(t);
    ll.unlock();
    int rc = thr != 0 ? pthread_resume_np(thr) : ESRCH;
    pin.release();
    // Inverted like taskSuspend: a successful resumption reports ERROR.
    if (rc == 0) {
        errno = kErrDeleted;
        return ERROR;
    }
    return OK;
}

STATUS taskDelay(int ticks) {
    tcb *me = my_tcb();
    if (me != nullptr) {
        ListLock ll;
        me->status |= kStDelayed;
    }
    if (ticks > 0) {
        int rate = sysClkRateGet();
        timespec req;
        req.tv_sec = ticks / rate;
        req.tv_nsec = static_cast<long>(ticks % rate) * 20000000L;
        KT4_VERIFY(req.tv_nsec < 1000000000L);
        timespec rem;
        while (nanosleep(&req, &rem) != 0) {
            if (errno == EINTR) {
                req = rem;
                continue;
            }
            KT4_VERIFY(errno != EINVAL);
            break;
        }
    } else {
        sched_yield();
    }
    if (me != nullptr) {
        ListLock ll;
        me->status = 0;
    }
    return OK;
}

} // extern "C"
