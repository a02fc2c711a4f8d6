// Binary, counting and mutual-exclusion semaphores named by numbers from a 2304-entry table.
//
// Locks: sema4_list_lock (the id table, the semaphores' object table), then a semaphore's
// sema4_lock (taken before the table lock is released), then its smdel_lock; wait-list links
// change under task_list_lock. Waiters are TCBs on the semaphore's pend list in arrival order;
// every give is a broadcast and the turn rule decides who takes the token (the layer's wait core,
// waitq.h).
//
// Flush and delete rendezvous. `release` is only written with both sema4_lock and smdel_lock
// held, so a waiter (under sema4_lock) and a flusher or deleter (under smdel_lock) each read it
// safely. A flush is one round: it marks the semaphore, and the last waiter out clears the flush
// mark and broadcasts smdel_cplt; the flusher waits for its mark to go, not for the pend list to
// be empty, so takers that arrive after the round (and may wait for ever, or time out without a
// broadcast) never hold it up. The delete mark stays until the record is freed: a taker that
// arrives during a delete sees it at once and leaves with 0x3d0001, so the pend list drains
// whatever the callers do, and a second semDelete is refused. Flushers still on their way out of
// smdel_cplt are counted (rdv_waiters), and the deleter frees the record only once they are out.
#include "vx2bsd/objtable.h"
#include "vx2bsd/waitq.h"

#include <cerrno>
#include <climits>
#include <cstring>

using namespace kt4::vx;

namespace {

constexpr uint32_t kTypeMask = 0xF0; // 0x00 binary
constexpr uint32_t kTypeMutex = 0x10;
constexpr uint32_t kTypeCounting = 0x20;
constexpr uint32_t kOptPriority = 0x01;
constexpr uint32_t kOptDeleteSafe = 0x04;
constexpr uint32_t kOptInversionSafe = 0x08;

constexpr uint32_t kReleaseFlush = 0x01;
constexpr uint32_t kReleaseDelete = 0x02;

constexpr uint32_t V2PT_MAX_SEMID_IDX = 2304;
constexpr uint32_t kGenerationWrap = 0x400000;

struct semaphore {
    kt4::be32 type_options; // 0x0F options, 0xF0 type
    pthread_mutex_t sema4_lock;
    pthread_cond_t sema4_send;
    pthread_mutex_t smdel_lock;
    pthread_cond_t smdel_cplt;
    kt4::bes32 count;    // tokens available
    kt4::be32 release;   // kRelease* while a flush or delete lets the waiters go
    kt4::be32 recursion; // mutual exclusion: depth of the owner's takes
    kt4::be32 bad_gives; // gives by a task that was not the owner
    tcb *bad_giver;      // the last such task
    tcb *owner;          // task that took it last
    kt4::be32 spare;     //
    tcb *pend;           // waiters, arrival order
    kt4::be32 id;
    // Host addition: flushers waiting on smdel_cplt (under smdel_lock); the record is freed only
    // when none is left.
    uint32_t rdv_waiters;
};

struct sema4_entry {
    kt4::be32 id;
    kt4::be32 generation;
    semaphore *sem; // null when free
};

constexpr const char *kSemLock =
    "!pthread_mutex_lock (&(v2pt_sema4_array[sema4%V2PT_MAX_SEMID_IDX].sem->sema4_lock))";
constexpr const char *kSemUnlock = "!pthread_mutex_unlock (&(semaphore->sema4_lock))";
constexpr const char *kDelLock = "!pthread_mutex_lock (&(semaphore->smdel_lock))";
constexpr const char *kDelUnlock = "!pthread_mutex_unlock (&(semaphore->smdel_lock))";

// The numbered index: v2pt_sema4_array. An id leads to entry id mod 2304, which must hold a
// record and the same id; the generation makes the ids of an entry's earlier records stale.
class SemIndex {
  public:
    using Handle = kt4SemId;

    semaphore *find(kt4SemId sema4) const {
        const sema4_entry &e = v2pt_sema4_array[sema4 % V2PT_MAX_SEMID_IDX];
        return (e.sem != nullptr && e.id == sema4) ? e.sem : nullptr;
    }

    // Issues an id for s (into s->id) from the first free entry at or after v2pt_cur_arr_index,
    // wrapping round; false when the table is full.
    bool add(semaphore *s) {
        uint32_t start = v2pt_cur_arr_index;
        uint32_t found = V2PT_MAX_SEMID_IDX;
        for (uint32_t i = start; i < V2PT_MAX_SEMID_IDX && found == V2PT_MAX_SEMID_IDX; ++i)
            if (v2pt_sema4_array[i].sem == nullptr) found = i;
        for (uint32_t i = 0; i < start && found == V2PT_MAX_SEMID_IDX; ++i)
            if (v2pt_sema4_array[i].sem == nullptr) found = i;
        if (found == V2PT_MAX_SEMID_IDX) return false;
        sema4_entry &e = v2pt_sema4_array[found];
        uint32_t generation = e.generation + 1;
        if (generation == kGenerationWrap) generation = 0;
        e.generation = generation;
        // 32-bit arithmetic on purpose: from generation 1864135 on ids wrap and fail validation.
        uint32_t id = generation * V2PT_MAX_SEMID_IDX + found;
        e.id = id;
        e.sem = s;
        s->id = id;
        v2pt_cur_arr_index = (found + 1 == V2PT_MAX_SEMID_IDX) ? 0 : found + 1;
        return true;
    }

    void remove(kt4SemId sema4) {
        sema4_entry &e = v2pt_sema4_array[sema4 % V2PT_MAX_SEMID_IDX];
        e.sem = nullptr;
        e.id = 0; // the generation stays, so the old id never validates again
    }

  private:
    sema4_entry v2pt_sema4_array[V2PT_MAX_SEMID_IDX] = {};
    uint32_t v2pt_cur_arr_index = 0;
};

constinit ObjTable<semaphore, SemIndex> sema4_list{"!pthread_mutex_lock (&sema4_list_lock)",
                                                   "!pthread_mutex_unlock (&sema4_list_lock)",
                                                   &semaphore::sema4_lock, kSemLock};

uint32_t type_of(const semaphore *s) {
    return s->type_options & kTypeMask;
}

void destroy_sem(semaphore *s) {
    KT4_VERIFY(!pthread_cond_destroy(&(s->smdel_cplt)));
    KT4_VERIFY(!pthread_mutex_destroy(&(s->smdel_lock)));
    KT4_VERIFY(!pthread_cond_destroy(&(s->sema4_send)));
    KT4_VERIFY(!pthread_mutex_destroy(&(s->sema4_lock)));
    ts_free(s);
}

kt4SemId sem_create(uint32_t type_options, int count) {
    auto *s = static_cast<semaphore *>(ts_malloc(sizeof(semaphore)));
    if (s == nullptr) return 0;
    std::memset(static_cast<void *>(s), 0, sizeof *s);
    s->type_options = type_options;
    KT4_VERIFY(!pthread_mutex_init(&(s->sema4_lock), nullptr));
    cond_init_monotonic(&(s->sema4_send));
    KT4_VERIFY(!pthread_mutex_init(&(s->smdel_lock), nullptr));
    KT4_VERIFY(!pthread_cond_init(&(s->smdel_cplt), nullptr));
    s->count = count;
    s->release = 0;
    s->recursion = 0;
    s->owner = nullptr;
    s->pend = nullptr;
    s->spare = 0;

    sema4_list.lock();
    bool added = sema4_list.index().add(s);
    kt4SemId id = s->id;
    sema4_list.unlock();
    if (!added) {
        destroy_sem(s);
        return 0;
    }
    return id;
}

// Raises the owner's thread to the waiter's priority (inversion-safe semaphores). The owner's
// stored normal priority stays; its next give restores it.
void inherit_priority(tcb *owner, tcb *me) {
    if (me->shadow || owner->shadow) return;
    taskLock();
    {
        ListLock ll;
        if (tcb_listed(owner) && dying_of(owner) == kDyingNo && owner->pthrid != 0 &&
            me->prv_priority.sched_priority > owner->prv_priority.sched_priority) {
            int policy = SCHED_OTHER;
            pthread_attr_getschedpolicy(&(owner->attr), &policy);
            if (policy == SCHED_FIFO || policy == SCHED_RR)
                thread_set_sched(owner->pthrid, policy, me->prv_priority.sched_priority);
        }
    }
    taskUnlock();
}

// A flush or delete in progress, seen by the semaphore's waiters. The last waiter out of a
// flush ends it (clears the flush mark); a delete's mark stays until the record goes, so that a
// taker arriving meanwhile is released at once instead of joining a wait that nobody would end.
class SemRelease final : public Release {
  public:
    explicit SemRelease(semaphore *s) : s_(s) {}
    bool releasing() override {
        seen_ = s_->release;
        return seen_ != 0;
    }
    bool drained() override { return pend_empty(&s_->pend); }
    void last_out() override { s_->release = seen_ & ~kReleaseFlush; }
    Drain drain() override { return smdel(s_); }
    // The release the waiter saw as it left.
    uint32_t seen() const { return seen_; }

    static Drain smdel(semaphore *s) {
        return Drain{s->smdel_lock,
                     s->smdel_cplt,
                     kDelLock,
                     kDelUnlock,
                     "!pthread_cond_wait (&(semaphore->smdel_cplt), &(semaphore->smdel_lock))",
                     "!pthread_cond_broadcast (&(semaphore->smdel_cplt))"};
    }

  private:
    semaphore *s_;
    uint32_t seen_ = 0;
};

// A flusher's stay on smdel_cplt (constructed and destroyed with smdel_lock held, also when the
// flusher is cancelled in the wait): the last one out wakes a deleter waiting to free the record.
class RdvWaiter {
  public:
    explicit RdvWaiter(semaphore *s) : s_(s) { s_->rdv_waiters += 1; }
    ~RdvWaiter() {
        s_->rdv_waiters -= 1;
        if (s_->rdv_waiters == 0) SemRelease::smdel(s_).broadcast();
    }
    RdvWaiter(const RdvWaiter &) = delete;
    RdvWaiter &operator=(const RdvWaiter &) = delete;

  private:
    semaphore *s_;
};

// The token is the caller's: it becomes the owner, and of a mutual-exclusion semaphore takes the
// first level of recursion (and, delete-safe, becomes safe from deletion).
void took(semaphore *s, tcb *me) {
    s->owner = me;
    if (type_of(s) == kTypeMutex) {
        s->recursion += 1;
        if (s->type_options & kOptDeleteSafe) taskSafe();
    }
}

STATUS wait_token(semaphore *s, ObjLock &lk, tcb *me, int timeout) {
    WaitEnd end;
    uint32_t rel;
    {
        SemRelease release(s);
        Waiter w(&s->pend, me, release, &lk);
        if (timeout != NO_WAIT && type_of(s) == kTypeMutex &&
            (s->type_options & kOptInversionSafe) && s->owner != nullptr)
            inherit_priority(s->owner, me);
        end = wait_turn(
            lk, &s->pend, me, (s->type_options & kOptPriority) != 0, timeout,
            [s] { return s->count > 0; }, [s] { s->count -= 1; }, [s] { return s->release != 0; },
            CondWait{s->sema4_send, s->sema4_lock,
                     "!pthread_cond_wait (&(semaphore->sema4_send), &(semaphore->sema4_lock))",
                     "!pthread_cond_timedwait (&(semaphore->sema4_send), "
                     "&(semaphore->sema4_lock), &timeout)"});
        w.leave();
        rel = release.seen();
    }
    switch (end) {
    case WaitEnd::Released:
        if (rel & kReleaseDelete) {
            errno = kErrIdError;
            return ERROR;
        }
        return OK;
    case WaitEnd::TimedOut:
        errno = timeout == NO_WAIT ? kErrUnavailable : kErrTimeout;
        return ERROR;
    case WaitEnd::Done:
        break;
    }
    took(s, me);
    return OK;
}

} // namespace

extern "C" {

kt4SemId semBCreate(int options, int initialState) {
    return sem_create(static_cast<uint32_t>(options) & kOptPriority, initialState != 0 ? 1 : 0);
}

kt4SemId semCCreate(int options, int initialCount) {
    return sem_create((static_cast<uint32_t>(options) & kOptPriority) | kTypeCounting,
                      initialCount);
}

kt4SemId semMCreate(int options) {
    return sem_create((static_cast<uint32_t>(options) & 0x0F) | kTypeMutex, 1);
}

STATUS semTake(kt4SemId semId, int timeout) {
    semaphore *s = sema4_list.validate(semId);
    if (s == nullptr) {
        errno = kErrIdError;
        return ERROR;
    }
    ObjLock lk(s->sema4_lock, kSemLock, kSemUnlock);
    lk.adopt();
    tcb *me = caller_tcb();
    if (type_of(s) == kTypeMutex && s->owner == me) {
        s->recursion += 1;
        return OK;
    }
    // A token and nobody waiting: joining the pend list would make the caller first in turn and
    // take the token at once, so take it directly.
    if (s->count > 0 && s->release == 0 && pend_empty(&s->pend)) {
        s->count -= 1;
        took(s, me);
        return OK;
    }
    return wait_token(s, lk, me, timeout);
}

STATUS semGive(kt4SemId semId) {
    semaphore *s = sema4_list.validate(semId);
    if (s == nullptr) {
        errno = kErrIdError;
        return ERROR;
    }
    ObjLock lk(s->sema4_lock, kSemLock, kSemUnlock);
    lk.adopt();
    tcb *me = caller_tcb();
    if (type_of(s) == kTypeMutex && s->owner != me) {
        s->bad_gives += 1;
        s->bad_giver = me;
        errno = kErrSemInvalid;
        return ERROR;
    }
    // No upper bound below the counter's range: a binary semaphore given twice holds two tokens.
    // A give that would carry the count past INT_MAX is refused and leaves it as it is.
    if (s->count == INT_MAX) {
        errno = kErrSemInvalid;
        return ERROR;
    }
    bool unsafe = false;
    bool restore = false;
    if (s->recursion >= 1) {
        s->recursion -= 1;
        if (s->recursion == 0) {
            s->count += 1;
            s->owner = nullptr;
            unsafe = (s->type_options & kOptDeleteSafe) != 0;
            restore = (s->type_options & kOptInversionSafe) != 0;
        }
    } else {
        s->count += 1;
    }
    if (!pend_empty(&s->pend))
        KT4_VERIFY_AS(pthread_cond_broadcast(&(s->sema4_send)) == 0,
                      "!pthread_cond_broadcast (&(semaphore->sema4_send))");
    lk.unlock();
    // After the object lock goes: becoming deletable may wait for this task's deleters.
    if (unsafe) taskUnsafe();
    if (restore) { // back to the normal priority after an inheritance
        taskLock();
        taskUnlock();
    }
    return OK;
}

STATUS semFlush(kt4SemId semId) {
    semaphore *s = sema4_list.validate(semId);
    if (s == nullptr) {
        errno = kErrIdError;
        return ERROR;
    }
    ObjLock lk(s->sema4_lock, kSemLock, kSemUnlock);
    lk.adopt();
    if (type_of(s) == kTypeMutex) {
        errno = kErrSemInvalid;
        return ERROR;
    }
    taskLock();
    if (!pend_empty(&s->pend)) {
        Drain d = SemRelease::smdel(s);
        ObjLock del = d.guard();
        del.lock();
        s->release |= kReleaseFlush;
        KT4_VERIFY_AS(pthread_cond_broadcast(&(s->sema4_send)) == 0,
                      "!pthread_cond_broadcast (&(semaphore->sema4_send))");
        lk.unlock();
        // Until the last of the waiters released ends the round: takers arriving after it are
        // not part of this flush.
        RdvWaiter rdv(s);
        d.wait_while([s] { return (s->release & kReleaseFlush) != 0; });
    }
    taskUnlock();
    return OK;
}

STATUS semDelete(kt4SemId semId) {
    semaphore *s = sema4_list.validate(semId);
    if (s == nullptr) {
        errno = kErrIdError;
        return ERROR;
    }
    ObjLock lk(s->sema4_lock, kSemLock, kSemUnlock);
    lk.adopt();
    bool marked = false; // this call set the delete mark
    for (;;) {
        if (!marked && (s->release & kReleaseDelete)) { // another delete is under way
            errno = kErrIdError;
            return ERROR;
        }
        if (!pend_empty(&s->pend)) {
            Drain d = SemRelease::smdel(s);
            ObjLock del = d.guard();
            del.lock();
            s->release |= kReleaseDelete;
            marked = true;
            KT4_VERIFY_AS(pthread_cond_broadcast(&(s->sema4_send)) == 0,
                          "!pthread_cond_broadcast (&(semaphore->sema4_send))");
            lk.unlock();
            // The mark stays set, so every taker leaves at once and the list drains.
            d.wait_while([s] { return !pend_empty(&s->pend); });
        } else {
            lk.unlock();
        }
        // Table lock first, then the object lock: once both are held with the entry still ours,
        // no new caller can reach the record.
        sema4_list.lock();
        if (sema4_list.index().find(semId) != s) { // a concurrent delete finished first
            sema4_list.unlock();
            errno = kErrIdError;
            return ERROR;
        }
        lk.lock();
        if (!pend_empty(&s->pend) || (!marked && (s->release & kReleaseDelete))) {
            sema4_list.unlock(); // waiters to release, or another deleter's mark (refused above)
            continue;
        }
        {
            // Flushers whose round has ended may still be waking on smdel_cplt.
            Drain d = SemRelease::smdel(s);
            ObjLock del = d.guard();
            del.lock();
            d.wait_while([s] { return s->rdv_waiters != 0; });
        }
        sema4_list.index().remove(semId);
        sema4_list.unlock();
        lk.unlock();
        destroy_sem(s);
        return OK;
    }
}

} // extern "C"
