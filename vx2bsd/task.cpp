// Tasks: one POSIX thread plus a task control block on the process-wide task_list.
//
// This file owns task_list_lock, task_spawn_lock, the task allocator's malloc_lock/free_lock
// and the per-TCB tdelete_lock/dbcst_lock; the order in which the layer takes its locks is
// written once in vx2bsd_int.h.
//
// "Under taskLock" keeps its kernel meaning: the caller's thread is raised to the top priority
// for the duration, so no other task of the process preempts it. On a multiprocessor host that
// is not exclusion, so every shared field is also changed under task_list_lock.
//
// Lifetime: a TCB may be freed by a deletion in another thread. Calls that use a TCB without
// holding task_list_lock pin it first; deletion and restart wait for the pins to go before they
// end the thread or free the record.
#include "vx2bsd/vx2bsd_int.h"

#include <kt4/log.h>
#include <kt4/timer.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>

namespace kt4::vx {

pthread_mutex_t task_list_lock = PTHREAD_MUTEX_INITIALIZER;
pthread_cond_t task_gone = PTHREAD_COND_INITIALIZER;

namespace {

pthread_mutex_t task_spawn_lock = PTHREAD_MUTEX_INITIALIZER;
pthread_mutex_t malloc_lock = PTHREAD_MUTEX_INITIALIZER;
pthread_mutex_t free_lock = PTHREAD_MUTEX_INITIALIZER;

pthread_key_t vx2bsdKey;
pthread_once_t key_once = PTHREAD_ONCE_INIT;
int key_result = 0;

tcb *task_list = nullptr;            // under task_list_lock
int round_robin_enabled = 0;         // under task_list_lock (atomic reads)
unsigned long taskReactivations = 0; // under task_list_lock

constexpr int kHookSlots = 64;
kt4TaskDeleteHook taskDeleteTable[kHookSlots]; // under task_list_lock
int taskDeleteNumHooks = 0;
bool taskDeleteHookinited = false;

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

// Broadcast to the task's deleters that it may now be deleted, then wait until every one has
// taken note (left the deleters list).
// A task waking its own deleters (taskUnsafe) names the lock as its own in the abort text.
void notify_task_delete(tcb *t, bool self = false) {
    ObjLock db(t->dbcst_lock,
               self ? "!pthread_mutex_lock (&(current_tcb->dbcst_lock))"
                    : "!pthread_mutex_lock (&(tcb->dbcst_lock))",
               self ? "!pthread_mutex_unlock (&(current_tcb->dbcst_lock))"
                    : "!pthread_mutex_unlock (&(tcb->dbcst_lock))");
    db.lock();
    {
        ObjLock td(t->tdelete_lock, "!pthread_mutex_lock (&(tcb->tdelete_lock))",
                   "!pthread_mutex_unlock (&(tcb->tdelete_lock))");
        td.lock();
        KT4_VERIFY(!pthread_cond_broadcast(&(t->t_deletable)));
    }
    while (!pend_empty(&t->deleters))
        KT4_VERIFY(!pthread_cond_wait(&(t->delete_bcplt), &(t->dbcst_lock)));
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

tcb *lookup_self_or(int tid) {
    return tid == 0 ? my_tcb() : tcb_for(tid);
}

// A deleter waiting on a safe task, on that task's deleters list. Leaving (normally or when the
// deleter is itself cancelled) broadcasts the end of the rendezvous when it was the last.
class DeleterWait {
  public:
    DeleterWait(tcb *target, tcb *me) : target_(target), me_(me) {
        pend_append(&target_->deleters, me_);
    }
    ~DeleterWait() {
        if (!left_) leave();
    }
    DeleterWait(const DeleterWait &) = delete;
    DeleterWait &operator=(const DeleterWait &) = delete;
    // Returns true when this was the last deleter.
    bool leave() {
        left_ = true;
        pend_remove(me_);
        if (!pend_empty(&target_->deleters)) return false;
        ObjLock db(target_->dbcst_lock, "!pthread_mutex_lock (&(tcb->dbcst_lock))",
                   "!pthread_mutex_unlock (&(tcb->dbcst_lock))");
        db.lock();
        KT4_VERIFY(!pthread_cond_broadcast(&(target_->delete_bcplt)));
        return true;
    }

  private:
    tcb *target_;
    tcb *me_;
    bool left_ = false;
};

// taskLock/taskUnlock as a scope.
struct LockScope {
    LockScope() { taskLock(); }
    ~LockScope() { taskUnlock(); }
    LockScope(const LockScope &) = delete;
    LockScope &operator=(const LockScope &) = delete;
};

} // namespace

// ---- shared with the other files of the layer ----

tcb *my_tcb() {
    ensure_key();
    return static_cast<tcb *>(pthread_getspecific(vx2bsdKey));
}

tcb *caller_tcb() {
    tcb *t = my_tcb();
    return t != nullptr ? t : &shadow_tcb.t;
}

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

void pin_locked(tcb *t) {
    t->refs = t->refs + 1;
}

void unpin(tcb *t) {
    ListLock ll;
    t->refs = t->refs - 1;
    if (t->refs == 0) KT4_VERIFY(!pthread_cond_broadcast(&task_gone));
}

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

void *ts_malloc_at(const char *file, int line, size_t size) {
    KT4_VERIFY_AS(pthread_mutex_lock(&malloc_lock) == 0, "!pthread_mutex_lock (&malloc_lock)");
    void *p = kt4MC_malloc(file, line, size);
    KT4_VERIFY_AS(pthread_mutex_unlock(&malloc_lock) == 0, "!pthread_mutex_unlock (&malloc_lock)");
    return p;
}

void ts_free_at(const char *file, int line, void *p) {
    if (p == nullptr) return;
    KT4_VERIFY_AS(pthread_mutex_lock(&free_lock) == 0, "!pthread_mutex_lock (&free_lock)");
    kt4MC_free(file, line, p);
    KT4_VERIFY_AS(pthread_mutex_unlock(&free_lock) == 0, "!pthread_mutex_unlock (&free_lock)");
}

namespace {

// Delete hooks: 64 slots, at most 63 hooks, the last slot a null terminator.
void taskDeleteHookInit() {
    if (taskDeleteHookinited) return;
    for (auto &h : taskDeleteTable)
        h = nullptr;
    taskDeleteNumHooks = 0;
    taskDeleteHookinited = true;
}

} // namespace

void taskDeleteHookRun(tcb *t, const char *name) {
    kt4TaskDeleteHook copy[kHookSlots];
    int n;
    {
        LockScope boost;
        ListLock ll;
        if (!taskDeleteHookinited) return;
        n = taskDeleteNumHooks;
        for (int i = 0; i < n; ++i)
            copy[i] = taskDeleteTable[i];
    }
    for (int i = 0; i < n; ++i)
        if (copy[i] != nullptr) copy[i](reinterpret_cast<kt4Tcb *>(t), name);
}

// Service-task priorities bypass the mapping's clamp.
void set_posix_priority(tcb *t, int prio255, const char *attr_text) {
    ListLock ll;
    t->prv_priority.sched_priority = prio255;
    KT4_VERIFY_AS(attr_apply(&t->attr, current_policy_locked(), prio255) == 0, attr_text);
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
    bool last;
    {
        DeleterWait dw(t, caller_tcb());
        {
            ObjLock td(t->tdelete_lock, "!pthread_mutex_lock (&(current_tcb->tdelete_lock))",
                       "!pthread_mutex_unlock (&(current_tcb->tdelete_lock))");
            td.lock();
            taskUnlock();
            while (t->safe_count > 0 && dying_of(t) != kDyingDelete)
                KT4_VERIFY(!pthread_cond_wait(&(t->t_deletable), &(t->tdelete_lock)));
        }
        taskLock();
        last = dw.leave();
    }
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

int taskDeleteHookAdd(kt4TaskDeleteHook hook) {
    LockScope boost;
    ListLock ll;
    taskDeleteHookInit();
    if (taskDeleteNumHooks >= kHookSlots - 1) return KT4_E_HOOK_TABLE_FULL;
    for (int i = kHookSlots - 2; i >= 1; --i)
        taskDeleteTable[i] = taskDeleteTable[i - 1];
    taskDeleteTable[0] = hook;
    ++taskDeleteNumHooks;
    return 0;
}

int taskDeleteHookDelete(kt4TaskDeleteHook hook) {
    LockScope boost;
    ListLock ll;
    taskDeleteHookInit();
    for (int i = 0; i < kHookSlots - 1; ++i) {
        if (taskDeleteTable[i] != hook) continue;
        --taskDeleteNumHooks;
        for (int j = i; j < kHookSlots - 1; ++j) {
            taskDeleteTable[j] = taskDeleteTable[j + 1];
            if (taskDeleteTable[j] == nullptr) break;
        }
        return 0;
    }
    return KT4_E_HOOK_NOT_FOUND;
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
