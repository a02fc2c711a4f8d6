// Message queues: a ring of fixed-size slots, each a 32-bit big-endian length and the message.
//
// Locks: mqueue_list_lock, then a queue's queue_lock (taken before the list lock is released),
// then its qfull_lock or qdlet_lock; wait-list links change under task_list_lock. Receivers wait
// on queue_send with queue_lock; senders wait for space on queue_space with qfull_lock, which
// they take before releasing queue_lock so that no freed slot goes unnoticed.
//
// Deletion: the deleting mark (state 0x02) is set under queue_lock and never cleared, so a
// receiver or sender that reaches the queue during a delete leaves at once with 0x3d0003 and the
// wait lists drain whatever the callers do; the deleter waits on qdlet_cmplt until both lists
// are empty. Only the call that set the mark deletes: a second msgQDelete is refused with
// 0x3d0001 rather than waiting on a condition that the first one is about to destroy.
#include "vx2bsd/vx2bsd_int.h"

#include <cerrno>
#include <cstring>
#include <limits>

using namespace kt4::vx;

struct msg_queue {
    pthread_mutex_t queue_lock;
    pthread_cond_t queue_send;
    pthread_mutex_t qdlet_lock;
    pthread_cond_t qdlet_cmplt;
    pthread_mutex_t qfull_lock;
    pthread_cond_t queue_space;
    unsigned char *head; // slot of the oldest message
    unsigned char *tail; // slot for the next normal message
    kt4::be32 state;     // kStateDeleting, kStateUrgent
    unsigned char *buffer;
    unsigned char *buffer_end; // start of the last slot
    msg_queue *next;
    tcb *receivers;
    tcb *senders;
    kt4::bes32 count;
    kt4::bes32 max_msgs;
    kt4::be32 max_length;
    kt4::be32 slot_size; // max_length + 4
    kt4::be32 q_priority;
};

namespace {

constexpr uint32_t kStateUrgent = 0x01;
constexpr uint32_t kStateDeleting = 0x02;
constexpr size_t kLengthWord = 4;

pthread_mutex_t mqueue_list_lock = PTHREAD_MUTEX_INITIALIZER;
msg_queue *mqueue_list = nullptr;

constexpr const char *kQLock = "!pthread_mutex_lock (&(queue->queue_lock))";
constexpr const char *kQUnlock = "!pthread_mutex_unlock (&(queue->queue_lock))";
constexpr const char *kFullLock = "!pthread_mutex_lock (&(queue->qfull_lock))";
constexpr const char *kFullUnlock = "!pthread_mutex_unlock (&(queue->qfull_lock))";
constexpr const char *kDletLock = "!pthread_mutex_lock (&(queue->qdlet_lock))";
constexpr const char *kDletUnlock = "!pthread_mutex_unlock (&(queue->qdlet_lock))";

void list_lock() {
    sig_defer();
    KT4_VERIFY_AS(pthread_mutex_lock(&mqueue_list_lock) == 0,
                  "!pthread_mutex_lock (&mqueue_list_lock)");
}

void list_unlock() {
    KT4_VERIFY_AS(pthread_mutex_unlock(&mqueue_list_lock) == 0,
                  "!pthread_mutex_unlock (&mqueue_list_lock)");
    sig_undefer();
}

bool listed(const msg_queue *q) {
    for (msg_queue *p = mqueue_list; p != nullptr; p = p->next)
        if (p == q) return true;
    return false;
}

// Finds the queue on mqueue_list and returns with its queue_lock held (lk adopted), or false.
bool q_validate(msg_queue *q, ObjLock &lk) {
    if (q == nullptr) return false;
    list_lock();
    bool found = listed(q);
    if (found) lk.lock();
    list_unlock();
    return found;
}

unsigned char *next_slot(const msg_queue *q, unsigned char *slot) {
    return slot == q->buffer_end ? q->buffer : slot + q->slot_size.get();
}

unsigned char *prev_slot(const msg_queue *q, unsigned char *slot) {
    return slot == q->buffer ? q->buffer_end : slot - q->slot_size.get();
}

void broadcast_space(msg_queue *q) {
    ObjLock fl(q->qfull_lock, kFullLock, kFullUnlock);
    fl.lock();
    KT4_VERIFY_AS(pthread_cond_broadcast(&(q->queue_space)) == 0,
                  "!pthread_cond_broadcast (&(queue->queue_space))");
}

// Stores a message. Caller holds queue_lock and has checked for room.
void put(msg_queue *q, const char *buffer, unsigned length, int priority) {
    unsigned char *slot;
    if (priority == KT4_MSG_PRI_URGENT) {
        q->head = prev_slot(q, q->head);
        slot = q->head;
        q->state |= kStateUrgent;
    } else {
        slot = q->tail;
        q->tail = next_slot(q, q->tail);
        q->state = 0;
    }
    kt4::store_be32(slot, length);
    if (buffer != nullptr && length != 0) std::memcpy(slot + kLengthWord, buffer, length);
    q->count += 1;
    KT4_VERIFY_AS(pthread_cond_broadcast(&(q->queue_send)) == 0,
                  "!pthread_cond_broadcast (&(queue->queue_send))");
}

// Takes the oldest message. Caller holds queue_lock and has checked count > 0.
int take(msg_queue *q, char *buffer) {
    unsigned char *slot = q->head;
    uint32_t length = kt4::load_be32(slot);
    if (length > q->max_length) length = q->max_length; // never trust a slot beyond its size
    if (buffer != nullptr) std::memcpy(buffer, slot + kLengthWord, length);
    size_t clear = kLengthWord + (q->max_length.get() < 4 ? q->max_length.get() : 4);
    std::memset(slot, 0, clear);
    q->head = next_slot(q, q->head);
    q->count -= 1;
    if (!pend_empty(&q->senders) && q->count <= q->max_msgs - 1) broadcast_space(q);
    return buffer != nullptr ? static_cast<int>(length) : 0;
}

// Sending would have to wait for room. A capacity-0 queue takes one message into its spare slot
// while a receiver waits for it.
bool no_room(const msg_queue *q) {
    int count = q->count, max = q->max_msgs;
    return count > max || (count == max && (max != 0 || pend_empty(&q->receivers)));
}

bool my_turn(msg_queue *q, tcb *const *list, tcb *me) {
    return q->q_priority != 0 || pend_is_first(list, me);
}

// Membership of a queue's receivers or senders list; leaving lets a deletion finish when the
// waiter was the last one.
class QWaiter {
  public:
    QWaiter(msg_queue *q, tcb **list, ObjLock &lk, tcb *me) : q_(q), lk_(lk), me_(me) {
        pend_append(list, me_);
    }
    ~QWaiter() {
        if (!left_) leave();
    }
    QWaiter(const QWaiter &) = delete;
    QWaiter &operator=(const QWaiter &) = delete;
    void leave() {
        left_ = true;
        if (!lk_.held()) lk_.lock();
        pend_remove(me_);
        if ((q_->state & kStateDeleting) && pend_empty(&q_->receivers) &&
            pend_empty(&q_->senders)) {
            ObjLock dl(q_->qdlet_lock, kDletLock, kDletUnlock);
            dl.lock();
            KT4_VERIFY_AS(pthread_cond_broadcast(&(q_->qdlet_cmplt)) == 0,
                          "!pthread_cond_broadcast (&(queue->qdlet_cmplt))");
        }
    }

  private:
    msg_queue *q_;
    ObjLock &lk_;
    tcb *me_;
    bool left_ = false;
};

enum class Outcome { Done, TimedOut, Deleted };

int fail(Outcome o, int timeout) {
    errno =
        o == Outcome::Deleted ? kErrDeleted : (timeout == NO_WAIT ? kErrUnavailable : kErrTimeout);
    return ERROR;
}

void destroy_queue(msg_queue *q) {
    KT4_VERIFY(!pthread_cond_destroy(&(q->queue_space)));
    KT4_VERIFY(!pthread_mutex_destroy(&(q->qfull_lock)));
    KT4_VERIFY(!pthread_cond_destroy(&(q->qdlet_cmplt)));
    KT4_VERIFY(!pthread_mutex_destroy(&(q->qdlet_lock)));
    KT4_VERIFY(!pthread_cond_destroy(&(q->queue_send)));
    KT4_VERIFY(!pthread_mutex_destroy(&(q->queue_lock)));
    ts_free(q->buffer);
    ts_free(q);
}

} // namespace

extern "C" {

kt4MsgQId msgQCreate(int maxMsgs, int maxMsgLength, int options) {
    if (maxMsgs < 0 || maxMsgLength < 0 ||
        static_cast<uint64_t>(maxMsgs) + 1 >
            std::numeric_limits<uint32_t>::max() /
                (static_cast<uint64_t>(maxMsgLength) + kLengthWord)) {
        errno = kErrNoMemory;
        return nullptr;
    }
    auto *q = static_cast<msg_queue *>(ts_malloc(sizeof(msg_queue)));
    if (q == nullptr) {
        errno = kErrNoMemory;
        return nullptr;
    }
    std::memset(static_cast<void *>(q), 0, sizeof *q);
    uint32_t slot_size = static_cast<uint32_t>(maxMsgLength) + kLengthWord;
    size_t ring = (static_cast<size_t>(maxMsgs) + 1) * slot_size;
    q->buffer = static_cast<unsigned char *>(ts_malloc(ring));
    if (q->buffer == nullptr) {
        ts_free(q);
        errno = kErrNoMemory;
        return nullptr;
    }
    std::memset(q->buffer, 0, ring);
    q->max_msgs = maxMsgs;
    q->max_length = static_cast<uint32_t>(maxMsgLength);
    q->slot_size = slot_size;
    q->buffer_end = q->buffer + static_cast<size_t>(maxMsgs) * slot_size;
    q->head = q->tail = q->buffer;
    q->state = 0;
    q->count = 0;
    q->receivers = q->senders = nullptr;
    q->q_priority = (options & KT4_MSGQ_PRIORITY) ? 1 : 0;
    KT4_VERIFY(!pthread_mutex_init(&(q->queue_lock), nullptr));
    cond_init_monotonic(&(q->queue_send));
    KT4_VERIFY(!pthread_mutex_init(&(q->qdlet_lock), nullptr));
    KT4_VERIFY(!pthread_cond_init(&(q->qdlet_cmplt), nullptr));
    KT4_VERIFY(!pthread_mutex_init(&(q->qfull_lock), nullptr));
    cond_init_monotonic(&(q->queue_space));
    list_lock();
    msg_queue **pp = &mqueue_list;
    while (*pp != nullptr)
        pp = &(*pp)->next;
    *pp = q;
    list_unlock();
    return q;
}

STATUS msgQSend(kt4MsgQId q, const char *buffer, unsigned nBytes, int timeout, int priority) {
    if (q == nullptr) {
        errno = kErrIdError;
        return ERROR;
    }
    ObjLock lk(q->queue_lock, kQLock, kQUnlock);
    if (!q_validate(q, lk)) {
        errno = kErrIdError;
        return ERROR;
    }
    if (nBytes > q->max_length) {
        errno = kErrMsgLength;
        return ERROR;
    }
    // A length with no bytes behind it would hand the receiver whatever the slot held before.
    if (buffer == nullptr && nBytes != 0) {
        errno = kErrMsgLength;
        return ERROR;
    }
    if (q->state & kStateDeleting) {
        errno = kErrDeleted;
        return ERROR;
    }
    if (!no_room(q)) {
        put(q, buffer, nBytes, priority);
        return OK;
    }
    tcb *me = caller_tcb();
    Outcome outcome = Outcome::TimedOut;
    {
        QWaiter w(q, &q->senders, lk, me);
        timespec deadline{};
        if (timeout > 0) deadline = deadline_after(timeout);
        for (;;) {
            if (q->state & kStateDeleting) {
                outcome = Outcome::Deleted;
                break;
            }
            while (!no_room(q) && !(q->state & kStateDeleting)) {
                if (my_turn(q, &q->senders, me)) {
                    put(q, buffer, nBytes, priority);
                    outcome = Outcome::Done;
                    break;
                }
                lk.unlock();
                turn_retry_sleep();
                lk.lock();
            }
            if (outcome == Outcome::Done) break;
            if (q->state & kStateDeleting) {
                outcome = Outcome::Deleted;
                break;
            }
            if (timeout == NO_WAIT) break;
            int rc = 0;
            {
                ObjLock fl(q->qfull_lock, kFullLock, kFullUnlock);
                fl.lock();
                lk.unlock();
                if (timeout < 0) {
                    KT4_VERIFY_AS(
                        pthread_cond_wait(&(q->queue_space), &(q->qfull_lock)) == 0,
                        "!pthread_cond_wait (&(queue->queue_space), &(queue->qfull_lock))");
                } else {
                    rc = pthread_cond_timedwait(&(q->queue_space), &(q->qfull_lock), &deadline);
                    KT4_VERIFY_AS(rc == 0 || rc == ETIMEDOUT,
                                  "!pthread_cond_timedwait (&(queue->queue_space), "
                                  "&(queue->qfull_lock), &timeout)");
                }
            }
            lk.lock();
            if (rc == ETIMEDOUT) break;
        }
        w.leave();
    }
    return outcome == Outcome::Done ? OK : fail(outcome, timeout);
}

int msgQReceive(kt4MsgQId q, char *buffer, unsigned maxNBytes, int timeout) {
    if (q == nullptr) {
        errno = kErrIdError;
        return ERROR;
    }
    ObjLock lk(q->queue_lock, kQLock, kQUnlock);
    if (!q_validate(q, lk)) {
        errno = kErrIdError;
        return ERROR;
    }
    // The buffer must hold the largest message the queue accepts, whatever is queued now.
    if (maxNBytes < q->max_length) {
        errno = kErrMsgLength;
        return ERROR;
    }
    tcb *me = caller_tcb();
    Outcome outcome = Outcome::TimedOut;
    int received = 0;
    {
        QWaiter w(q, &q->receivers, lk, me);
        if (q->max_msgs == 0 && !pend_empty(&q->senders)) broadcast_space(q);
        timespec deadline{};
        if (timeout > 0) deadline = deadline_after(timeout);
        for (;;) {
            if (q->state & kStateDeleting) {
                outcome = Outcome::Deleted;
                break;
            }
            while (q->count > 0 && !(q->state & kStateDeleting)) {
                if (my_turn(q, &q->receivers, me)) {
                    received = take(q, buffer);
                    outcome = Outcome::Done;
                    break;
                }
                lk.unlock();
                turn_retry_sleep();
                lk.lock();
            }
            if (outcome == Outcome::Done) break;
            if (q->state & kStateDeleting) {
                outcome = Outcome::Deleted;
                break;
            }
            if (timeout == NO_WAIT) break;
            if (timeout < 0) {
                KT4_VERIFY_AS(pthread_cond_wait(&(q->queue_send), &(q->queue_lock)) == 0,
                              "!pthread_cond_wait (&(queue->queue_send), &(queue->queue_lock))");
            } else {
                int rc = pthread_cond_timedwait(&(q->queue_send), &(q->queue_lock), &deadline);
                if (rc == ETIMEDOUT) break;
                KT4_VERIFY_AS(rc == 0, "!pthread_cond_timedwait (&(queue->queue_send), "
                                       "&(queue->queue_lock), &timeout)");
            }
        }
        w.leave();
    }
    if (outcome == Outcome::Done) return received;
    if (buffer != nullptr && maxNBytes > 0) buffer[0] = 0;
    return fail(outcome, timeout);
}

int msgQNumMsgs(kt4MsgQId q) {
    if (q == nullptr) {
        errno = kErrIdError;
        return ERROR;
    }
    ObjLock lk(q->queue_lock, kQLock, kQUnlock);
    if (!q_validate(q, lk)) {
        errno = kErrIdError;
        return ERROR;
    }
    return q->count;
}

STATUS msgQDelete(kt4MsgQId q) {
    if (q == nullptr) {
        errno = kErrIdError;
        return ERROR;
    }
    ObjLock lk(q->queue_lock, kQLock, kQUnlock);
    if (!q_validate(q, lk)) {
        errno = kErrIdError;
        return ERROR;
    }
    if (q->state & kStateDeleting) { // another delete is under way
        errno = kErrIdError;
        return ERROR;
    }
    q->state = kStateDeleting;
    for (;;) {
        if (!pend_empty(&q->receivers) || !pend_empty(&q->senders)) {
            KT4_VERIFY_AS(pthread_cond_broadcast(&(q->queue_send)) == 0,
                          "!pthread_cond_broadcast (&(queue->queue_send))");
            broadcast_space(q);
            ObjLock dl(q->qdlet_lock, kDletLock, kDletUnlock);
            dl.lock();
            lk.unlock();
            while (!pend_empty(&q->receivers) || !pend_empty(&q->senders))
                KT4_VERIFY_AS(pthread_cond_wait(&(q->qdlet_cmplt), &(q->qdlet_lock)) == 0,
                              "!pthread_cond_wait (&(queue->qdlet_cmplt), &(queue->qdlet_lock))");
        } else {
            lk.unlock();
        }
        // List lock, then the queue lock: with both held and the queue still listed nobody
        // holds or waits for the record any more.
        list_lock();
        if (!listed(q)) { // a concurrent delete finished first
            list_unlock();
            errno = kErrIdError;
            return ERROR;
        }
        lk.lock();
        if (!pend_empty(&q->receivers) || !pend_empty(&q->senders)) {
            list_unlock();
            continue;
        }
        for (msg_queue **pp = &mqueue_list; *pp != nullptr; pp = &(*pp)->next) {
            if (*pp == q) {
                *pp = q->next;
                break;
            }
        }
        list_unlock();
        lk.unlock();
        destroy_queue(q);
        return OK;
    }
}

} // extern "C"
