// Internals shared by the files of the tasking layer: the task control block, the wait lists
// made of TCBs, the task allocator, the host adaptation (priorities, one-thread suspension) and
// the small lock helpers. The wait core is in waitq.h, the object tables and the countdown pass
// in objtable.h.
//
// Files: task_life (creation, deletion, restart, suspension, delays), task_wait (wait lists and
// the deletion rendezvous), task_rr (priorities, taskLock, round robin), task_query, task_hooks,
// task_alloc; sem, msgq, wdog, vtimer; host (the host adaptation).
//
// Lock order of the whole layer (a lock is only ever taken while holding locks listed above it):
//
//   task_spawn_lock
//   sema4_list_lock, mqueue_list_lock, wdog_list_lock, timer_list_lock   (object tables)
//   semaphore->sema4_lock, queue->queue_lock, wdog_lock, timer_lock      (one object)
//   semaphore->smdel_lock, queue->qfull_lock, queue->qdlet_lock          (end of a flush or a
//                                                                         delete; room to send)
//   tcb->dbcst_lock                       (a task's deletion broadcast)
//   tcb->tdelete_lock                     (a task's safe count; a delete-safe semTake takes it
//                                          under sema4_lock)
//   task_list_lock                        (task list, every status and wait-list link)
//   malloc_lock, free_lock, suspend_lock  (leaves)
//
// No lock of the layer is held across a call of user code (entry routines, delete hooks,
// watchdog routines) except the recursive timer_list_lock, which timer handlers run under by
// design: tTimerTask takes it first and a handler may call anything of the layer, so no other
// thread may wait, holding a lock, for a timer call to return. task_list_lock is never held
// across a blocking wait.
//
// Cancellation: taskDelete of another task cancels its thread. Cancellation on this host is a
// forced unwind that runs C++ destructors, so every lock and every wait-list membership held
// across a cancellation point (condition waits, the 100-microsecond turn retry) is owned by a
// guard object whose destructor undoes it: a cancelled waiter never leaves a lock held or a
// stale TCB on an object's wait list.
#pragma once

#include "common/kt4_be.h"
#include "common/kt4_check.h"

#include <kt4/vx2bsd.h>

#include <pthread.h>
#include <sched.h>
#include <time.h>

// A must-not-fail call whose report text differs from the C++ expression that performs it
// (the text names the object as the system reports it).
#define KT4_VERIFY_AS(cond, text)                                                                  \
    ((cond) ? static_cast<void>(0) : ::kt4::verify_failed((text), __FILE__, __LINE__, __func__))

namespace kt4::vx {

// Task status bits.
constexpr uint32_t kStPended = 0x01;
constexpr uint32_t kStDelayed = 0x02;
constexpr uint32_t kStSuspended = 0x04;
constexpr uint32_t kStCreated = 0x80;
constexpr uint32_t kStNotReady = 0x8F; // 0x08 counts as not ready though nothing sets it

// errno codes.
constexpr int kErrIdError = KT4_E_OBJ_ID;
constexpr int kErrUnavailable = KT4_E_OBJ_UNAVAILABLE;
constexpr int kErrDeleted = KT4_E_OBJ_DELETED;
constexpr int kErrTimeout = KT4_E_OBJ_TIMEOUT;
constexpr int kErrIllegalPriority = KT4_E_ILLEGAL_PRIORITY;
constexpr int kErrNoMemory = KT4_E_NO_MEMORY;
constexpr int kErrSemInvalid = KT4_E_INVALID_OPERATION;
constexpr int kErrMsgLength = KT4_E_INVALID_MSG_LENGTH;
constexpr int kErrNoTcbMemory = KT4_E_NO_TCB_MEMORY;

// Kernel-convention POSIX priorities (0..255 before scaling onto the host's range).
constexpr int kMaxPriority = 255; // taskLock's boost
constexpr int kRootPriority = 254;

// The task control block. Integers the layer keeps are big-endian; what is handed to the
// thread library (thread handle, attributes, scheduling parameter) is in host order.
struct tcb {
    bes32 id;                 // small integer from taskSpawn, or the TCB's address (taskInit)
    char *name;               // owned copy, or null
    pthread_t pthrid;         // 0 before activation and while a restart is pending
    pthread_attr_t attr;      // policy and priority of every creation of the thread
    sched_param prv_priority; // normal priority, kernel-convention POSIX scale 0..255
    kt4TaskEntry entry;       //
    be<uintptr_t> args[10];   // entry arguments as given
    be32 static_tcb;          // 1: storage belongs to the taskInit caller
    be32 options;             // stored only
    be32 status;              // kSt* bits, 0 = ready
    bes32 priority;           // kernel-convention priority as last given
    tcb **pend_list;          // head of the wait list this task is on, or null
    tcb *pend_next;           // next TCB on that list
    bes32 safe_count;         // taskSafe nesting, under tdelete_lock
    pthread_mutex_t tdelete_lock;
    pthread_cond_t t_deletable;
    pthread_mutex_t dbcst_lock;
    pthread_cond_t delete_bcplt;
    tcb *deleters;   // tasks waiting to delete this one, arrival order
    tcb *next;       // task_list link
    be32 lock_count; // taskLock nesting
    // Host additions.
    uint32_t dying; // kDying*: a deletion or restart has begun (atomic access, see dying_of)
    int32_t refs;   // pins by calls working on the task outside task_list_lock
    be32 shadow;    // 1: stands in for a thread that is not a task (wait lists only)
};

constexpr uint32_t kDyingNo = 0;
constexpr uint32_t kDyingDelete = 1;  // being deleted: deleters stop waiting, the TCB goes
constexpr uint32_t kDyingRestart = 2; // being restarted: deletions wait until the new thread runs

inline uint32_t dying_of(const tcb *t) {
    return __atomic_load_n(&t->dying, __ATOMIC_ACQUIRE);
}
inline void set_dying(tcb *t, uint32_t v) {
    __atomic_store_n(&t->dying, v, __ATOMIC_RELEASE);
}

static_assert(sizeof(tcb) <= sizeof(kt4Tcb), "kt4Tcb must hold a task control block");
static_assert(alignof(tcb) <= alignof(kt4Tcb), "kt4Tcb must be aligned for a TCB");

extern pthread_mutex_t task_list_lock;
// Broadcast (with task_list_lock) when a TCB leaves task_list, a pin is dropped or a restart ends.
extern pthread_cond_t task_gone;

// Signal deferral: a suspension requested while the thread holds a lock of the layer waits until
// the last such lock is released, so a suspended task never stops while holding task_list_lock
// or an object's lock (which would stop every other task with it).
void sig_defer();
void sig_undefer();

// task_list_lock held by a scope (with signal deferral).
class ListLock {
  public:
    ListLock() { lock(); }
    ~ListLock() {
        if (held_) unlock();
    }
    ListLock(const ListLock &) = delete;
    ListLock &operator=(const ListLock &) = delete;
    void lock() {
        sig_defer();
        KT4_VERIFY_AS(pthread_mutex_lock(&task_list_lock) == 0,
                      "!pthread_mutex_lock (&task_list_lock)");
        held_ = true;
    }
    void unlock() {
        held_ = false;
        KT4_VERIFY_AS(pthread_mutex_unlock(&task_list_lock) == 0,
                      "!pthread_mutex_unlock (&task_list_lock)");
        sig_undefer();
    }
    // Waits on task_gone (the lock is released during the wait).
    void wait_gone() { KT4_VERIFY(!pthread_cond_wait(&task_gone, &task_list_lock)); }

  private:
    bool held_ = false;
};

// Lookup by id (first in list order), or null. Caller holds task_list_lock.
tcb *tcb_for(int id);
// Pins a TCB (caller holds task_list_lock): a deletion or restart waits for the pins to go
// before it ends the thread or frees the TCB, so the pinning call may use the TCB and its
// thread handle without the lock.
void pin_locked(tcb *t);
void unpin(tcb *t); // takes task_list_lock

// A pin held by a scope (constructed under task_list_lock; released by the destructor, also
// when the pinning thread is cancelled).
class Pin {
  public:
    explicit Pin(tcb *t) : t_(t) { pin_locked(t); }
    ~Pin() { release(); }
    Pin(const Pin &) = delete;
    Pin &operator=(const Pin &) = delete;
    void release() {
        if (t_ != nullptr) unpin(t_);
        t_ = nullptr;
    }

  private:
    tcb *t_;
};

// Sets a service task's POSIX priority (0..255 scale, outside the mapping's clamp) in its TCB
// and attributes; attr_text is the report text of the attribute call.
void set_posix_priority(tcb *t, int prio255, const char *attr_text);
// Remembers the watchdog of the latest self-restart.
void restart_wdog_set(kt4WdogId wd);

// The calling thread's TCB, or null in a thread that is not a task.
tcb *my_tcb();
// The calling thread's TCB, or the thread's shadow TCB when it is not a task: wait lists need
// a record for every waiter, and semaphores and queues are used from plain threads too.
tcb *caller_tcb();
// True when t is on task_list. Caller holds task_list_lock.
bool tcb_listed(const tcb *t);

// Wait lists (semaphore pend, queue receivers/senders, task deleters). Each call takes
// task_list_lock itself.
void pend_append(tcb **head, tcb *t);
void pend_remove(tcb *t); // leaves whatever list t is on; status becomes 0
bool pend_empty(tcb *const *head);
bool pend_is_first(tcb *const *head, const tcb *t);

// The task allocator: the checked allocator with the caller's file and line, serialised.
void *ts_malloc_at(const char *file, int line, size_t size);
void ts_free_at(const char *file, int line, void *p);
#define ts_malloc(size) ::kt4::vx::ts_malloc_at(__FILE__, __LINE__, (size))
#define ts_free(p) ::kt4::vx::ts_free_at(__FILE__, __LINE__, (p))

// Delete hooks run by the deletion path.
void taskDeleteHookRun(tcb *t, const char *name);

// ---- Host adaptation (host.cpp) ----

// False once real-time scheduling has been refused (or KT4_NO_RT forced the fallback).
bool rt_enabled();
// Records a refusal (EPERM) of real-time scheduling: from then on threads use the default
// policy. Says so once on stderr.
void rt_refused();
// Scales a kernel-convention POSIX priority (0..255) onto the host's real-time range.
int host_priority(int prio255, int policy);
// Writes policy and priority into attributes for a thread creation (or the default policy
// when real-time scheduling is refused). Returns 0 or the failing call's error.
int attr_apply(pthread_attr_t *attr, int policy, int prio255);
// Creates a task thread; on EPERM switches to the default policy once and retries.
int create_thread(pthread_t *thr, tcb *t, void *(*fn)(void *), void *arg);
// Applies policy and priority to a running thread. 0 or the error.
int thread_set_sched(pthread_t thr, int policy, int prio255);
// Temporary priority change of one thread (priority on the 0..255 scale). 0 or the error.
int pthread_tmp_priority_change(pthread_t thr, int prio255);
// Suspends one thread until pthread_resume_np; the caller returns once the thread has stopped.
int pthread_suspend_np(pthread_t thr);
int pthread_resume_np(pthread_t thr);
// Installs the suspend/resume signal handlers (idempotent).
void suspend_signals_init();

// ---- Waiting helpers ----

constexpr long kUsecPerTick = 20000;

// Absolute monotonic deadline timeout ticks from now (20 ms per tick, carried into seconds).
timespec deadline_after(int ticks);
// The turn retry: a waiter that sees a token but whose turn it is not sleeps this long. Inlined
// into the wait loops: a waiter cancelled in the sleep unwinds through no frame of its own.
__attribute__((always_inline)) inline void turn_retry_sleep() {
    timespec ts{0, 100000};
    nanosleep(&ts, nullptr);
}
// Initialises a condition whose timed waits use the monotonic clock.
void cond_init_monotonic(pthread_cond_t *c);

// A mutex held by a scope, released by the destructor when still held (also when the thread
// is cancelled in a wait inside the scope). The texts are the system's report texts.
class ObjLock {
  public:
    ObjLock(pthread_mutex_t &m, const char *lock_text, const char *unlock_text)
        : m_(m), lock_text_(lock_text), unlock_text_(unlock_text) {}
    ~ObjLock() {
        if (held_) unlock();
    }
    ObjLock(const ObjLock &) = delete;
    ObjLock &operator=(const ObjLock &) = delete;
    void lock() {
        sig_defer();
        KT4_VERIFY_AS(pthread_mutex_lock(&m_) == 0, lock_text_);
        held_ = true;
    }
    void unlock() {
        held_ = false;
        KT4_VERIFY_AS(pthread_mutex_unlock(&m_) == 0, unlock_text_);
        sig_undefer();
    }
    // Takes over a lock that a validating table walk took (with signal deferral) for us.
    void adopt() { held_ = true; }
    bool held() const { return held_; }
    pthread_mutex_t &mutex() { return m_; }

  private:
    pthread_mutex_t &m_;
    const char *lock_text_;
    const char *unlock_text_;
    bool held_ = false;
};

// Cancellation held off for a scope (teardown, joins, suspension hand-shakes: work that must
// finish once begun).
class NoCancel {
  public:
    NoCancel() { pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &old_); }
    ~NoCancel() { pthread_setcancelstate(old_, nullptr); }
    NoCancel(const NoCancel &) = delete;
    NoCancel &operator=(const NoCancel &) = delete;

  private:
    int old_ = PTHREAD_CANCEL_ENABLE;
};

} // namespace kt4::vx
