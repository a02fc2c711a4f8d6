// List timers: a delta list on the monotonic clock for event-loop processes.
//
// Each timer holds only its distance from the one before it, so the owner keeps a single
// operating-system timeout (for the head) whatever the number of timers, and firing the head
// touches only its successor. The head's delta counts from the head start, the moment the
// head last changed. Ticks arrive early or late; the error is carried onto the next timer so
// that it still fires at its own wanted time, and timers due within the minimum timeout of
// an expiry are fired in the same tick rather than arming a timeout of a few microseconds.
//
// Handlers and the start and stop routines are called with the list consistent: a handler
// may start or stop timers of the same list, its own included.
#include <kt4/log.h>
#include <kt4/timer.h>

#include "common/kt4_be.h"
#include "common/kt4_clock.h"

#include <cstdio>
#include <cstring>

namespace {

constexpr const char *kTag = "kt4ListTimer";
constexpr uint32_t kMagic = 0xFEFEBABA;
constexpr timespec kDefaultMinTimeout{0, 20000000L};

using Node = kt4ListTimerNode;

using kt4::ts_add;
using kt4::ts_cmp;
using kt4::ts_sub;

// The debug line of a start: where the timer went, what it wants and when it was asked.
void trace_start(const char *fn, const char *where, const Node *t, const timespec &now) {
    if (listTimerDbg)
        std::printf("%s: %s - wanted(%ld.%09ld) reqAt(%ld.%09ld)\r\n", fn, where,
                    static_cast<long>(t->wanted.tv_sec), t->wanted.tv_nsec,
                    static_cast<long>(now.tv_sec), now.tv_nsec);
}

} // namespace

struct kt4ListTimerCB {
    kt4::be32 magic;
    Node *head;
    timespec headStart;
    timespec minTimeout;
    KT4_LIST_TIMER_FN startFn;
    KT4_LIST_TIMER_FN stopFn;
    KT4_LIST_TIMER_FN tmrExpiryHandler;
    KT4_LIST_TIMER_CLOCK_FN clock; // null: the monotonic clock
};

namespace {

// The list's reading of the time: its own clock when one is set.
timespec now_of(const kt4ListTimerCB *cb) {
    if (cb->clock == nullptr) return kt4::mono_now();
    timespec ts{0, 0};
    cb->clock(&ts);
    return ts;
}

bool running(const kt4ListTimerCB *cb, const Node *t) {
    // Every timer but the head has a predecessor; the head is known to the control block.
    return t->prev != nullptr || cb->head == t;
}

void clear_links(Node *t) {
    t->prev = t->next = nullptr;
}

// Takes the head off the list; its successor becomes head, its delta already counting from
// the present head start.
Node *pop_head(kt4ListTimerCB *cb) {
    Node *t = cb->head;
    Node *n = t->next;
    if (n != nullptr) n->prev = nullptr;
    cb->head = n;
    clear_links(t);
    return t;
}

void stop_timer(kt4ListTimerCB *cb, Node *t, const char *fn) {
    if (t == cb->head) {
        if (listTimerDbg) std::printf("%s: Stopping head timer.\r\n", fn);
        Node *n = t->next;
        if (n == nullptr) {
            cb->head = nullptr;
            clear_links(t);
            if (cb->stopFn != nullptr) cb->stopFn(t);
            return;
        }
        // Whatever the head had left passes to its successor, now counted from this moment.
        timespec now = now_of(cb);
        timespec remaining = ts_sub(t->delta, ts_sub(now, cb->headStart));
        n->delta = ts_add(n->delta, remaining);
        cb->headStart = now;
        pop_head(cb);
        if (cb->startFn != nullptr) cb->startFn(n);
        return;
    }
    if (listTimerDbg) std::printf("%s: Stopping timer %p.\r\n", fn, static_cast<void *>(t));
    Node *p = t->prev;
    Node *n = t->next;
    p->next = n;
    if (n != nullptr) {
        n->prev = p;
        n->delta = ts_add(n->delta, t->delta);
    }
    clear_links(t);
}

} // namespace

extern "C" {

int listTimerDbg = 0;

int kt4GetTimespecTimeSum(const struct timespec *a, const struct timespec *b, struct timespec *r) {
    if (a == nullptr || b == nullptr || r == nullptr) return -1;
    *r = ts_add(*a, *b);
    return 0;
}

int kt4GetTimespecTimeDiff(const struct timespec *a, const struct timespec *b, struct timespec *r) {
    if (a == nullptr || b == nullptr || r == nullptr) return -1;
    *r = ts_sub(*b, *a);
    return 0;
}

int kt4TimespecTimeCmp(const struct timespec *a, const struct timespec *b) {
    if (a == nullptr || b == nullptr) return a == b ? 0 : (a == nullptr ? -1 : 1);
    return ts_cmp(*a, *b);
}

kt4ListTimerCB *kt4ListTimerNew(const struct timespec *minTimeout, KT4_LIST_TIMER_FN startFn,
                                KT4_LIST_TIMER_FN stopFn, KT4_LIST_TIMER_FN tmrExpiryHandler) {
    if (!tmrExpiryHandler) {
        _kt4Assert("tmrExpiryHandler", kTag, __LINE__);
        return nullptr;
    }
    auto *cb = static_cast<kt4ListTimerCB *>(kt4MC_malloc(kTag, __LINE__, sizeof(kt4ListTimerCB)));
    if (cb == nullptr) return nullptr;
    cb->magic = kMagic;
    cb->head = nullptr;
    cb->headStart = timespec{0, 0};
    cb->minTimeout = minTimeout != nullptr ? *minTimeout : kDefaultMinTimeout;
    cb->startFn = startFn;
    cb->stopFn = stopFn;
    cb->tmrExpiryHandler = tmrExpiryHandler;
    cb->clock = nullptr;
    return cb;
}

int kt4ListTimerSetClock(kt4ListTimerCB *cb, KT4_LIST_TIMER_CLOCK_FN clock) {
    if (cb == nullptr) return -1;
    cb->clock = clock;
    return 0;
}

void kt4ListTimerDestroy(kt4ListTimerCB *cb) {
    if (cb == nullptr) return;
    cb->magic = 0; // a dump through a stale pointer then says so
    kt4MC_free(kTag, __LINE__, cb);
}

int kt4ListStartTimer(kt4ListTimerCB *cb, kt4ListTimerNode *timer, uint32_t ms) {
    if (cb == nullptr || timer == nullptr) return -1;
    if (running(cb, timer)) stop_timer(cb, timer, __func__);

    timespec now = now_of(cb);
    timer->wanted = kt4::ts_from_ns(static_cast<int64_t>(ms) * kt4::kNsPerMsec);
    timer->reqAt = now;
    clear_links(timer);

    Node *head = cb->head;
    if (head == nullptr) {
        cb->headStart = now;
        timer->delta = timer->wanted;
        cb->head = timer;
        trace_start(__func__, "Adding timer as head", timer, now);
        if (cb->startFn != nullptr) cb->startFn(timer);
        return 0;
    }

    // The target measured from the head start, like the head's own delta.
    timespec target = ts_add(timer->wanted, ts_sub(now, cb->headStart));
    if (ts_cmp(head->delta, target) <= 0) {
        target = ts_sub(target, head->delta);
        Node *prev = head;
        Node *cur = head->next;
        // Strictly greater: a timer due at the same moment as others goes after them.
        while (cur != nullptr && ts_cmp(cur->delta, target) <= 0) {
            target = ts_sub(target, cur->delta);
            prev = cur;
            cur = cur->next;
        }
        if (cur != nullptr) {
            cur->delta = ts_sub(cur->delta, target);
            cur->prev = timer;
        }
        timer->delta = target;
        timer->prev = prev;
        timer->next = cur;
        prev->next = timer;
        trace_start(__func__, "New timer added to the list", timer, now);
        return 0;
    }

    head->delta = ts_sub(head->delta, target);
    head->prev = timer;
    timer->next = head;
    timer->delta = timer->wanted;
    cb->head = timer;
    cb->headStart = now;
    trace_start(__func__, "Existing head timer replaced", timer, now);
    if (cb->startFn != nullptr) cb->startFn(timer);
    return 0;
}

int kt4ListStopTimer(kt4ListTimerCB *cb, kt4ListTimerNode *timer) {
    if (cb == nullptr || timer == nullptr) return -1;
    if (running(cb, timer)) stop_timer(cb, timer, __func__);
    return 0;
}

int kt4ListTimerTick(kt4ListTimerCB *cb) {
    if (cb == nullptr) return -1;
    Node *head = cb->head;
    if (head == nullptr) return 0;

    timespec now = now_of(cb);
    timespec due = ts_add(cb->headStart, head->delta);
    if (Node *n = head->next; n != nullptr) {
        if (ts_cmp(now, due) < 0) {
            n->delta = ts_add(n->delta, ts_sub(due, now));
        } else {
            timespec late = ts_sub(now, due);
            if (ts_cmp(n->delta, late) >= 0) n->delta = ts_sub(n->delta, late);
        }
    }
    cb->headStart = now;
    Node *t = pop_head(cb);
    if (listTimerDbg) std::printf("%s: Calling tmrExpiryHandler..\r\n", __func__);
    cb->tmrExpiryHandler(t);

    while ((head = cb->head) != nullptr && ts_cmp(head->delta, cb->minTimeout) <= 0) {
        // Fired a little early: its successor keeps its own expiry.
        if (head->next != nullptr) head->next->delta = ts_add(head->next->delta, head->delta);
        t = pop_head(cb);
        if (listTimerDbg)
            std::printf("%s: Calling tmrExpiryHandler..next timer within min timeout\r\n",
                        __func__);
        cb->tmrExpiryHandler(t);
    }

    if (cb->head != nullptr) {
        if (listTimerDbg) std::printf("%s: Calling startTimerFunc..\r\n", __func__);
        if (cb->startFn != nullptr) cb->startFn(cb->head);
    } else if (listTimerDbg) {
        std::printf("%s: No more timers..\r\n", __func__);
    }
    return 0;
}

int kt4ListTimerGetTimevalTimeout(kt4ListTimerCB *cb, struct timeval **tv) {
    if (cb == nullptr || tv == nullptr || *tv == nullptr) return -1;
    if (cb->head == nullptr) {
        *tv = nullptr; // no timer: select waits without a timeout
        return 0;
    }
    timespec remaining = ts_sub(cb->head->delta, ts_sub(now_of(cb), cb->headStart));
    if (remaining.tv_sec < 0) remaining = timespec{0, 0};
    (*tv)->tv_sec = remaining.tv_sec;
    (*tv)->tv_usec = static_cast<suseconds_t>(remaining.tv_nsec / 1000);
    if (listTimerDbg)
        std::printf("%s: Timeout:(%ld.%06ld)\r\n", __func__, static_cast<long>((*tv)->tv_sec),
                    static_cast<long>((*tv)->tv_usec));
    return 0;
}

int kt4ListPrintTimers(kt4ListTimerCB *cb) {
    if (cb == nullptr) return -1;
    if (cb->magic != kMagic) std::printf("The timer CB is corrupted!!!\r\n");
    timespec now = now_of(cb);
    std::printf("Now: %ld sec %ld nanosec\r\n", static_cast<long>(now.tv_sec), now.tv_nsec);
    Node *t = cb->head;
    if (t == nullptr) {
        std::printf("No timers left.\r\n");
        return 0;
    }
    timespec elapsed = ts_sub(now, cb->headStart);
    std::printf("Wanted: %ld sec %ld nsec, Elapsed:%ld sec %ld nsec, addr=%p next=%p\r\n",
                static_cast<long>(t->wanted.tv_sec), t->wanted.tv_nsec,
                static_cast<long>(elapsed.tv_sec), elapsed.tv_nsec, static_cast<void *>(t),
                static_cast<void *>(t->next));
    for (t = t->next; t != nullptr; t = t->next)
        std::printf("Wanted: %ld sec %ld nsec, Timeout:%ld sec %ld nsec, prev=%p next=%p\r\n",
                    static_cast<long>(t->wanted.tv_sec), t->wanted.tv_nsec,
                    static_cast<long>(t->delta.tv_sec), t->delta.tv_nsec,
                    static_cast<void *>(t->prev), static_cast<void *>(t->next));
    return 0;
}

} // extern "C"
