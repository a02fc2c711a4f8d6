// Cartwheel timers: a timing wheel of one bucket per tick.
//
// Every operation on a running wheel is a handful of pointer moves: a timer lives in the
// bucket of the tick at which it is due, appended at the bucket's end, and a tick empties the
// current bucket. The caller's timer records carry the links in their first three words, so
// starting and stopping never allocate; spare records wait on a free list that grows by
// NumExtendTimers when it runs dry.
//
// A bucket has the same three words as a timer (a null "previous", the first timer, the last
// timer), so that the first timer's predecessor is the bucket itself and unlinking needs no
// special case for the front. An empty bucket has no first timer; its last word is then null
// (never used) or the bucket itself (emptied by a stop).
#include <kt4/log.h>
#include <kt4/timer.h>

#include "common/kt4_be.h"

#include <cstdio>
#include <cstring>

namespace {

constexpr const char *kTag = "kt4CartWheelTimer";
constexpr uint32_t kDefaultBuckets = 256;
constexpr int32_t kDefaultTimers = 100;
constexpr int32_t kDefaultExtendTimers = 50;

using Link = kt4cwTimerLink;

Link *link_of(void *timer) {
    return static_cast<Link *>(timer);
}

} // namespace

// Field order as the diagnostic dump shows them; integers big-endian like every record of
// the library.
struct tkt4cwTimerCB {
    kt4::bes32 TmrTicks;
    kt4::be32 TmrCurrentBucket;
    kt4::be32 NumTmrBuckets;
    kt4::bes32 NumTimers;
    kt4::bes32 NumExtendTimers;
    kt4::be32 TimerSize;
    Link *TmrBuckets;
    Link *freeList;
    kt4::be64 userData;
    KT4_CW_ALLOC_FN allocFn;
    KT4_CW_FREE_FN freeFn;
    KT4_CW_TIMER_FN tmrExpiryHandler;
    KT4_CW_TIMER_FN printFn;
};

namespace {

void push_free(tkt4cwTimerCB *cb, Link *t) {
    t->prev = nullptr;
    t->next = cb->freeList;
    t->last = nullptr;
    if (cb->freeList != nullptr) cb->freeList->prev = t;
    cb->freeList = t;
}

Link *pop_free(tkt4cwTimerCB *cb) {
    Link *t = cb->freeList;
    if (t == nullptr) return nullptr;
    cb->freeList = static_cast<Link *>(t->next);
    if (cb->freeList != nullptr) cb->freeList->prev = nullptr;
    t->prev = t->next = t->last = nullptr;
    return t;
}

void stop(Link *t) {
    auto *pred = static_cast<Link *>(t->prev);
    if (pred == nullptr) return; // not running
    auto *succ = static_cast<Link *>(t->next);
    pred->next = succ;
    if (succ != nullptr) {
        succ->prev = pred;
    } else {
        // The timer was its bucket's last: the bucket is the node without a predecessor.
        Link *bucket = pred;
        while (bucket->prev != nullptr)
            bucket = static_cast<Link *>(bucket->prev);
        bucket->last = pred;
    }
    t->prev = t->next = t->last = nullptr;
}

void start(tkt4cwTimerCB *cb, Link *t, uint16_t delay) {
    uint32_t mask = cb->NumTmrBuckets - 1;
    Link *bucket = &cb->TmrBuckets[(cb->TmrCurrentBucket + delay) & mask];
    Link *tail = bucket->next == nullptr ? bucket : static_cast<Link *>(bucket->last);
    t->prev = tail;
    t->next = nullptr;
    t->last = nullptr;
    tail->next = t;
    bucket->last = t;
}

void print_header(tkt4cwTimerCB *cb) {
    std::printf("TmrBuckets\t\t%p\r\n", static_cast<void *>(cb->TmrBuckets));
    std::printf("NumTmrBuckets\t%ld\r\n", static_cast<long>(cb->NumTmrBuckets.get()));
    std::printf("TmrCurrentBucket\t%ld\r\n", static_cast<long>(cb->TmrCurrentBucket.get()));
    std::printf("TmrTicks\t\t%ld\r\n", static_cast<long>(cb->TmrTicks.get()));
    std::printf("NumTimers\t\t%ld\r\n", static_cast<long>(cb->NumTimers.get()));
    std::printf("NumExtendTimers\t%ld\r\n", static_cast<long>(cb->NumExtendTimers.get()));
    std::printf("TimerSize\t\t%ld\r\n", static_cast<long>(cb->TimerSize.get()));
}

constexpr char kDashes[] = "---------------------------------------------------\r\n";
static_assert(sizeof kDashes - 1 == 51 + 2);

void print_wheel(tkt4cwTimerCB *cb, bool with_free_list) {
    if (cb == nullptr) {
        std::printf("tkt4cwTimerCB is NULL\r\n");
        return;
    }
    print_header(cb);
    std::printf("%s", kDashes);
    if (with_free_list) {
        std::printf("Free List:\r\n");
        for (Link *t = cb->freeList; t != nullptr; t = static_cast<Link *>(t->next))
            std::printf("%p ", static_cast<void *>(t));
        std::printf("\r\n");
        std::printf("%s", kDashes);
    }
    if (cb->printFn == nullptr) return;
    uint32_t n = cb->NumTmrBuckets;
    for (uint32_t i = 0; i < n; ++i) {
        Link *bucket = &cb->TmrBuckets[i];
        if (bucket->next == nullptr) continue;
        std::printf("BUCKET\t\t%d\r\n", static_cast<int>(i));
        for (auto *t = static_cast<Link *>(bucket->next); t != nullptr;
             t = static_cast<Link *>(t->next))
            cb->printFn(t);
    }
}

} // namespace

extern "C" {

void *kt4cartWheelTimerMalloc(size_t size) {
    return kt4MC_malloc(kTag, __LINE__, size);
}

void kt4cartWheelTimerFree(void *timer) {
    kt4MC_free(kTag, __LINE__, timer);
}

tkt4cwTimerCB *kt4cwTimerInit(uint32_t tmrNumBuckets, int32_t numTimers, int32_t numExtendTimers,
                              KT4_CW_ALLOC_FN allocFn, KT4_CW_FREE_FN freeFn,
                              KT4_CW_TIMER_FN tmrExpiryHandler, KT4_CW_TIMER_FN printFn,
                              uintptr_t userData, uint32_t tmrSize) {
    if (!tmrExpiryHandler) {
        _kt4Assert("tmrExpiryHandler", kTag, __LINE__);
        return nullptr;
    }
    if (!((((tmrNumBuckets) & ((tmrNumBuckets)-1)) ? 0 : 1))) {
        _kt4Assert("((((tmrNumBuckets)&((tmrNumBuckets)-1))?0:1))", kTag, __LINE__);
        return nullptr;
    }
    if (!(tmrSize != 0)) {
        _kt4Assert("(tmrSize != 0)", kTag, __LINE__);
        return nullptr;
    }
    // The bucket array is sized by the timer size (see below), and a record must hold the
    // wheel's three words anyway: a smaller size cannot work.
    if (!(tmrSize >= sizeof(kt4cwTimerLink))) {
        _kt4Assert("(tmrSize >= sizeof (kt4cwTimerLink))", kTag, __LINE__);
        return nullptr;
    }
    if (tmrNumBuckets == 0) tmrNumBuckets = kDefaultBuckets;
    if (numTimers == 0) numTimers = kDefaultTimers;
    if (numExtendTimers == 0) numExtendTimers = kDefaultExtendTimers;

    auto *cb =
        static_cast<tkt4cwTimerCB *>(kt4MC_M_sysMalloc(kTag, __LINE__, sizeof(tkt4cwTimerCB)));
    if (cb == nullptr) return nullptr;
    std::memset(static_cast<void *>(cb), 0, sizeof *cb);
    cb->TmrTicks = 0;
    cb->TmrCurrentBucket = 0;
    cb->NumTmrBuckets = tmrNumBuckets;
    cb->NumTimers = numTimers;
    cb->NumExtendTimers = numExtendTimers;
    cb->TimerSize = tmrSize;
    cb->userData = userData;
    cb->allocFn = allocFn != nullptr ? allocFn : kt4cartWheelTimerMalloc;
    cb->freeFn = freeFn != nullptr ? freeFn : kt4cartWheelTimerFree;
    cb->tmrExpiryHandler = tmrExpiryHandler;
    cb->printFn = printFn;

    // The array is sized as timer size x bucket count, the way the wheel has always sized
    // it; with the size checked above it is at least as large as the buckets need.
    cb->TmrBuckets = static_cast<Link *>(
        kt4MC_M_sysMalloc(kTag, __LINE__, static_cast<size_t>(tmrSize) * tmrNumBuckets));
    if (cb->TmrBuckets == nullptr) {
        kt4MC_M_sysMemfree(kTag, __LINE__, cb);
        return nullptr;
    }
    for (uint32_t i = 0; i < tmrNumBuckets; ++i)
        cb->TmrBuckets[i] = Link{nullptr, nullptr, nullptr};
    // A short free list is not fatal: kt4cwGetTimer extends it on demand.
    kt4cwTimerAllocFreeList(cb, numTimers);
    return cb;
}

void kt4cwTimerUnInit(tkt4cwTimerCB *cb) {
    if (cb == nullptr) return;
    uint32_t n = cb->NumTmrBuckets;
    for (uint32_t i = 0; i < n; ++i) {
        Link *bucket = &cb->TmrBuckets[i];
        while (bucket->next != nullptr) {
            auto *t = static_cast<Link *>(bucket->next);
            stop(t);
            cb->freeFn(t);
        }
    }
    kt4cwRemoveFreeList(cb);
    kt4MC_M_sysMemfree(kTag, __LINE__, cb->TmrBuckets);
    kt4MC_M_sysMemfree(kTag, __LINE__, cb);
}

uintptr_t kt4cwTimerGetUserData(const tkt4cwTimerCB *cb) {
    return cb != nullptr ? static_cast<uintptr_t>(cb->userData.get()) : 0;
}

int kt4cwTimerAllocFreeList(tkt4cwTimerCB *cb, int32_t count) {
    if (cb == nullptr) return -1;
    uint32_t size = cb->TimerSize;
    for (int32_t i = 0; i < count; ++i) {
        void *t = cb->allocFn(size);
        if (t == nullptr) return -1;
        std::memset(t, 0, size);
        push_free(cb, link_of(t));
    }
    return 0;
}

void kt4cwRemoveFreeList(tkt4cwTimerCB *cb) {
    if (cb == nullptr) return;
    while (Link *t = pop_free(cb))
        cb->freeFn(t);
}

void *kt4cwGetTimer(tkt4cwTimerCB *cb) {
    if (cb == nullptr) return nullptr;
    if (cb->freeList == nullptr &&
        (kt4cwTimerAllocFreeList(cb, cb->NumExtendTimers) != 0 || cb->freeList == nullptr))
        return nullptr;
    return pop_free(cb);
}

void kt4cwFreeTimer(tkt4cwTimerCB *cb, void *timer) {
    if (cb == nullptr || timer == nullptr) return;
    // A record still in a bucket would take the bucket's links onto the free list with it.
    stop(link_of(timer));
    push_free(cb, link_of(timer));
}

int kt4cwStartTimer(tkt4cwTimerCB *cb, void *timer, uint16_t delay) {
    if (cb == nullptr || timer == nullptr) return -1;
    Link *t = link_of(timer);
    // A running timer is moved rather than linked twice, which would corrupt its bucket.
    if (t->prev != nullptr) stop(t);
    start(cb, t, delay);
    return 0;
}

int kt4cwStopTimer(void *timer) {
    if (timer == nullptr) return -1;
    stop(link_of(timer));
    return 0;
}

int kt4cwRestartTimer(tkt4cwTimerCB *cb, void *timer, uint16_t delay) {
    if (cb == nullptr || timer == nullptr) return -1;
    stop(link_of(timer));
    start(cb, link_of(timer), delay);
    return 0;
}

uint32_t kt4cwTimerTick(tkt4cwTimerCB *cb) {
    if (cb == nullptr) return 0;
    // A count of tick calls: it wraps (after some 500 days of 20 ms ticks) rather than overflow.
    cb->TmrTicks = static_cast<int32_t>(static_cast<uint32_t>(cb->TmrTicks.get()) + 1u);
    uint32_t cur = cb->TmrCurrentBucket;
    Link *bucket = &cb->TmrBuckets[cur];
    // The handler may start timers into this bucket (delay 0): they fire in this same tick.
    while (bucket->next != nullptr) {
        auto *t = static_cast<Link *>(bucket->next);
        stop(t);
        cb->tmrExpiryHandler(t);
    }
    cur = (cur + 1) & (cb->NumTmrBuckets - 1);
    cb->TmrCurrentBucket = cur;
    return cur;
}

void *kt4cwGetNextExpiredTimer(tkt4cwTimerCB *cb) {
    if (cb == nullptr) return nullptr;
    Link *bucket = &cb->TmrBuckets[cb->TmrCurrentBucket];
    auto *t = static_cast<Link *>(bucket->next);
    if (t != nullptr) stop(t);
    return t;
}

int kt4cwTimerRetNext(tkt4cwTimerCB *cb) {
    if (cb == nullptr) return -1;
    uint32_t n = cb->NumTmrBuckets;
    uint32_t cur = cb->TmrCurrentBucket;
    for (uint32_t i = cur; i < n; ++i)
        if (cb->TmrBuckets[i].next != nullptr) return static_cast<int>(i - cur + 1);
    // Behind the current bucket the count comes out one lower than the distance the rule
    // above would give; callers have always received it so.
    for (uint32_t j = 0; j < cur; ++j)
        if (cb->TmrBuckets[j].next != nullptr) return static_cast<int>(j + (n - 1 - cur) + 1);
    return -1;
}

void kt4cwPrintTimerInfo(tkt4cwTimerCB *cb) {
    print_wheel(cb, true);
}

void kt4cwPrintOnlyTimerInfo(tkt4cwTimerCB *cb) {
    print_wheel(cb, false);
}

} // extern "C"
