// The wait core of the tasking layer: wait queues of TCBs, the turn rule with its
// 100-microsecond re-look, and the release rendezvous (flush, delete, deletion of a safe task)
// that ends when the last waiter is out. Semaphores, both directions of a message queue and the
// deleters of a task are all built on these pieces.
//
// A wait queue is a TCB list head kept in the object's record (a semaphore's pend, a queue's
// receivers and senders, a task's deleters), in arrival order; membership changes under
// task_list_lock (pend_append, pend_remove). A Waiter is one task's stay on one queue, owned by
// a guard whose destructor leaves the queue also when the waiter is cancelled in a wait. Every
// wake-up is a broadcast; the turn rule decides who acts.
#pragma once

#include "vx2bsd/vx2bsd_int.h"

#include <cerrno>

// The wait loop and the blocking waits are inlined into their callers even unoptimised: a waiter
// cancelled in a condition wait unwinds through them, and with AddressSanitizer an unwound
// instrumented frame of its own would leave its stack poisoning behind for the caller's clean-up.
#define KT4_WAIT_INLINE __attribute__((always_inline)) inline

namespace kt4::vx {

// The end of a release: the releaser waits on `cond` with `lock` until the last waiter has
// left, and the last waiter broadcasts it (under `lock`). The texts are the report texts.
struct Drain {
    pthread_mutex_t &lock;
    pthread_cond_t &cond;
    const char *lock_text;
    const char *unlock_text;
    const char *wait_text;
    const char *broadcast_text;

    ObjLock guard() { return ObjLock(lock, lock_text, unlock_text); }
    // Caller holds `lock`.
    void broadcast() { KT4_VERIFY_AS(pthread_cond_broadcast(&cond) == 0, broadcast_text); }
    KT4_WAIT_INLINE void wait() { KT4_VERIFY_AS(pthread_cond_wait(&cond, &lock) == 0, wait_text); }
    // Waits (caller holds `lock`) while pred() holds.
    template <typename Pred> KT4_WAIT_INLINE void wait_while(Pred pred) {
        while (pred())
            wait();
    }
};

// What a kind of object tells its waiters about a release in progress. Each call is made with
// the object's lock held (when the object has one).
class Release {
  public:
    virtual ~Release() = default;
    // A release (flush or delete) is in progress, so the last waiter out must end it.
    virtual bool releasing() = 0;
    // Every wait queue of the object is empty.
    virtual bool drained() = 0;
    // Done by the last waiter out of a release, under the drain lock, before the broadcast.
    virtual void last_out() {}
    virtual Drain drain() = 0;
};

// One task's stay on one wait queue. Leaving, normally or when the waiter is cancelled, relocks
// the object's lock (when there is one), takes the task off the queue and, when a release is in
// progress and the object's queues are now empty, ends the release.
class Waiter {
  public:
    Waiter(tcb **queue, tcb *me, Release &rel, ObjLock *obj) : rel_(rel), obj_(obj), me_(me) {
        pend_append(queue, me_);
    }
    ~Waiter() {
        if (!left_) leave();
    }
    Waiter(const Waiter &) = delete;
    Waiter &operator=(const Waiter &) = delete;
    // Returns true when this waiter was the last one out of a release.
    bool leave() {
        left_ = true;
        if (obj_ != nullptr && !obj_->held()) obj_->lock();
        pend_remove(me_);
        if (!rel_.releasing() || !rel_.drained()) return false;
        Drain d = rel_.drain();
        ObjLock g = d.guard();
        g.lock();
        rel_.last_out();
        d.broadcast();
        return true;
    }

  private:
    Release &rel_;
    ObjLock *obj_;
    tcb *me_;
    bool left_ = false;
};

// The turn rule: with first-come-first-served queuing only the first task on the queue may act;
// with priority queuing every waiter may (the highest-priority waiter would be looked up, but
// the rule admits every waiter: code written for this layer expects that).
inline bool my_turn(tcb *const *queue, const tcb *me, bool any_order) {
    return any_order || pend_is_first(queue, me);
}

// How a wait ended.
enum class WaitEnd { Done, TimedOut, Released };

// A blocking wait on a condition for a waiter whose object lock is `obj`. Returns false when
// the deadline (null: none) passed.
struct CondWait {
    pthread_cond_t &cond;
    pthread_mutex_t &mutex;
    const char *wait_text;
    const char *timedwait_text;

    KT4_WAIT_INLINE bool operator()(const timespec *deadline) {
        if (deadline == nullptr) {
            KT4_VERIFY_AS(pthread_cond_wait(&cond, &mutex) == 0, wait_text);
            return true;
        }
        int rc = pthread_cond_timedwait(&cond, &mutex, deadline);
        if (rc == ETIMEDOUT) return false;
        KT4_VERIFY_AS(rc == 0, timedwait_text);
        return true;
    }
};

// The wait loop shared by every waiter: while the object can serve (`ready`) and no release is
// in progress, the waiter whose turn it is acts (`act`, which ends the wait); a waiter that sees
// work but whose turn it is not releases the object lock, sleeps 100 microseconds, relocks and
// looks again. Otherwise it blocks (`block`, entered and left with the object lock held) until
// the next broadcast: for ever with a negative timeout, until the deadline timeout ticks from
// now with a positive one; with no-wait it only looks once. A release in progress ends the wait
// before and after every look.
template <typename Ready, typename Act, typename Releasing, typename Block>
KT4_WAIT_INLINE WaitEnd wait_turn(ObjLock &obj, tcb *const *queue, tcb *me, bool any_order,
                                  int timeout, Ready ready, Act act, Releasing releasing,
                                  Block block) {
    timespec deadline{};
    if (timeout > 0) deadline = deadline_after(timeout);
    for (;;) {
        if (releasing()) return WaitEnd::Released;
        while (ready() && !releasing()) {
            if (my_turn(queue, me, any_order)) {
                act();
                return WaitEnd::Done;
            }
            obj.unlock();
            turn_retry_sleep();
            obj.lock();
        }
        if (releasing()) return WaitEnd::Released;
        if (timeout == NO_WAIT) return WaitEnd::TimedOut;
        if (!block(timeout < 0 ? nullptr : &deadline)) return WaitEnd::TimedOut;
    }
}

} // namespace kt4::vx
