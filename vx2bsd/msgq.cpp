// Message queues: a ring of fixed-size slots, each a 32-bit big-endian length and the message.
//
// Locks: mqueue_list_lock (the queues' object table), then a queue's queue_lock (taken before the
// table lock is released), then its qfull_lock or qdlet_lock; wait-list links change under
// task_list_lock. Receivers wait on queue_send with queue_lock; senders wait for space on
// queue_space with qfull_lock, which they take before releasing queue_lock so that no freed slot
// goes unnoticed. Both directions wait through the layer's wait core (waitq.h).
//
// Deletion: the deleting mark (state 0x02) is set under queue_lock and never cleared, so a
// receiver or sender that reaches the queue during a delete leaves at once with 0x3d0003 and the
// wait lists drain whatever the callers do; the deleter waits on qdlet_cmplt until both lists
// are empty. Only the call that set the mark deletes: a second msgQDelete is refused with
// 0x3d0001 rather than waiting on a condition that the first one is about to destroy.
#include "vx2bsd/objtable.h"
#include "vx2bsd/waitq.h"

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
    msg_queue *next;           // mqueue_list, creation order
    tcb *receivers;
    tcb *senders;
    kt4::bes32 count;
    kt4::bes32 max_msgs;
    kt4::be32 max_length;
    kt4::be32 slot_size; // max_length + 4
    kt4::be32 q_priority;
    // Host addition: the link back, so that a delete unlinks in constant time.
    msg_queue *prev;
};

namespace {

constexpr uint32_t kStateUrgent = 0x01;
constexpr uint32_t kStateDeleting = 0x02;
constexpr size_t kLengthWord = 4;

constexpr const char *kQLock = "!pthread_mutex_lock (&(queue->queue_lock))";
constexpr const char *kQUnlock = "!pthread_mutex_unlock (&(queue->queue_lock))";
constexpr const char *kFullLock = "!pthread_mutex_lock (&(queue->qfull_lock))";
constexpr const char *kFullUnlock = "!pthread_mutex_unlock (&(queue->qfull_lock))";
constexpr const char *kDletLock = "!pthread_mutex_lock (&(queue->qdlet_lock))";
constexpr const char *kDletUnlock = "!pthread_mutex_unlock (&(queue->qdlet_lock))";

constinit ObjTable<msg_queue, AddrIndex<msg_queue>> mqueue_list{
    "!pthread_mutex_lock (&mqueue_list_lock)", "!pthread_mutex_unlock (&mqueue_list_lock)",
    &msg_queue::queue_lock, kQLock};

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

// A deletion in progress, seen by the queue's waiters: the last one out of either list wakes the
// deleter.
class QRelease final : public Release {
  public:
    explicit QRelease(msg_queue *q) : q_(q) {}
    bool releasing() override { return (q_->state & kStateDeleting) != 0; }
    bool drained() override { return pend_empty(&q_->receivers) && pend_empty(&q_->senders); }
    Drain drain() override { return qdlet(q_); }

    static Drain qdlet(msg_queue *q) {
        return Drain{q->qdlet_lock,
                     q->qdlet_cmplt,
                     kDletLock,
                     kDletUnlock,
                     "!pthread_cond_wait (&(queue->qdlet_cmplt), &(queue->qdlet_lock))",
                     "!pthread_cond_broadcast (&(queue->qdlet_cmplt))"};
    }

  private:
    msg_queue *q_;
};

// A sender's wait for space: on queue_space with qfull_lock, taken before queue_lock goes so
// that a slot freed in between is not missed.
struct SpaceWait {
    msg_queue *q;
    ObjLock &lk;

    KT4_WAIT_INLINE bool operator()(const timespec *deadline) {
        bool woken;
        {
            ObjLock fl(q->qfull_lock, kFullLock, kFullUnlock);
            fl.lock();
            lk.unlock();
            woken = CondWait{q->queue_space, q->qfull_lock,
                             "!pthread_cond_wait (&(queue->queue_space), &(queue->qfull_lock))",
                             "!pthread_cond_timedwait (&(queue->queue_space), "
                             "&(queue->qfull_lock), &timeout)"}(deadline);
        }
        lk.lock();
        return woken;
    }
};

int fail(WaitEnd end, int timeout) {
    errno = end == WaitEnd::Released ? kErrDeleted
                                     : (timeout == NO_WAIT ? kErrUnavailable : kErrTimeout);
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
    mqueue_list.lock();
    bool added = mqueue_list.index().add(q);
    mqueue_list.unlock();
    if (!added) {
        destroy_queue(q);
        errno = kErrNoMemory;
        return nullptr;
    }
    return q;
}

STATUS msgQSend(kt4MsgQId q, const char *buffer, unsigned nBytes, int timeout, int priority) {
    if (mqueue_list.validate(q) == nullptr) {
        errno = kErrIdError;
        return ERROR;
    }
    ObjLock lk(q->queue_lock, kQLock, kQUnlock);
    lk.adopt();
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
    WaitEnd end;
    {
        QRelease rel(q);
        Waiter w(&q->senders, me, rel, &lk);
        end = wait_turn(
            lk, &q->senders, me, q->q_priority != 0, timeout, [q] { return !no_room(q); },
            [&] { put(q, buffer, nBytes, priority); }, [&rel] { return rel.releasing(); },
            SpaceWait{q, lk});
        w.leave();
    }
    return end == WaitEnd::Done ? OK : fail(end, timeout);
}

int msgQReceive(kt4MsgQId q, char *buffer, unsigned maxNBytes, int timeout) {
    if (mqueue_list.validate(q) == nullptr) {
        errno = kErrIdError;
        return ERROR;
    }
    ObjLock lk(q->queue_lock, kQLock, kQUnlock);
    lk.adopt();
    // The buffer must hold the largest message the queue accepts, whatever is queued now.
    if (maxNBytes < q->max_length) {
        errno = kErrMsgLength;
        return ERROR;
    }
    tcb *me = caller_tcb();
    WaitEnd end;
    int received = 0;
    {
        QRelease rel(q);
        Waiter w(&q->receivers, me, rel, &lk);
        if (q->max_msgs == 0 && !pend_empty(&q->senders)) broadcast_space(q);
        end = wait_turn(
            lk, &q->receivers, me, q->q_priority != 0, timeout, [q] { return q->count > 0; },
            [&] { received = take(q, buffer); }, [&rel] { return rel.releasing(); },
            CondWait{q->queue_send, q->queue_lock,
                     "!pthread_cond_wait (&(queue->queue_send), &(queue->queue_lock))",
                     "!pthread_cond_timedwait (&(queue->queue_send), &(queue->queue_lock), "
                     "&timeout)"});
        w.leave();
    }
    if (end == WaitEnd::Done) return received;
    if (buffer != nullptr && maxNBytes > 0) buffer[0] = 0;
    return fail(end, timeout);
}

int msgQNumMsgs(kt4MsgQId q) {
    if (mqueue_list.validate(q) == nullptr) {
        errno = kErrIdError;
        return ERROR;
    }
    ObjLock lk(q->queue_lock, kQLock, kQUnlock);
    lk.adopt();
    return q->count;
}

STATUS msgQDelete(kt4MsgQId q) {
    if (mqueue_list.validate(q) == nullptr) {
        errno = kErrIdError;
        return ERROR;
    }
    ObjLock lk(q->queue_lock, kQLock, kQUnlock);
    lk.adopt();
    if (q->state & kStateDeleting) { // another delete is under way
        errno = kErrIdError;
        return ERROR;
    }
    q->state = kStateDeleting;
    QRelease rel(q);
    for (;;) {
        if (!rel.drained()) {
            KT4_VERIFY_AS(pthread_cond_broadcast(&(q->queue_send)) == 0,
                          "!pthread_cond_broadcast (&(queue->queue_send))");
            broadcast_space(q);
            Drain d = rel.drain();
            ObjLock dl = d.guard();
            dl.lock();
            lk.unlock();
            d.wait_while([&rel] { return !rel.drained(); });
        } else {
            lk.unlock();
        }
        // Table lock, then the queue lock: with both held and the queue still listed nobody
        // holds or waits for the record any more.
        mqueue_list.lock();
        if (mqueue_list.index().find(q) == nullptr) { // a concurrent delete finished first
            mqueue_list.unlock();
            errno = kErrIdError;
            return ERROR;
        }
        lk.lock();
        if (!rel.drained()) {
            mqueue_list.unlock();
            continue;
        }
        mqueue_list.index().remove(q);
        mqueue_list.unlock();
        lk.unlock();
        destroy_queue(q);
        return OK;
    }
}

} // extern "C"
