/*
 * kt4 timers: the tick source (20 ms ticks, 50 per second, on the monotonic clock), tick
 * arithmetic and the three timer libraries:
 *
 *   - the timer library (kt4Tmr*, kt4Timer*, kt4ProcTimers): one-shot and periodic timers of a
 *     head, kept ordered by expiry and fired by whoever calls kt4ProcTimers;
 *   - the cartwheel (kt4cw*): a timing wheel of one bucket per tick for many short timers
 *     embedded in the caller's records, driven by kt4cwTimerTick;
 *   - the list timer (kt4ListTimer*, kt4List*Timer): a delta list that needs one operating
 *     system timeout at a time, for event loops built on select.
 */
#ifndef KT4_TIMER_H
#define KT4_TIMER_H

#include <kt4/common.h>
#include <kt4/tick.h>

#include <sys/time.h>
#include <time.h>

KT4_BEGIN_DECLS

/* The tick source and conversions: <kt4/tick.h>, included above. */

/* ======================================================================================
 * Overflow-checked arithmetic. Tick values are 64-bit and passed as high and low halves;
 * second values are 32-bit. Each call writes the result through r and returns 0, or returns
 * -1 and writes nothing when r is null or the check fails. Subtraction gives the distance
 * between the two values whatever their order.
 * ====================================================================================== */

int kt4tick_add_tick(uint32_t aHigh, uint32_t aLow, uint32_t bHigh, uint32_t bLow, uint64_t *r);
int kt4tick_sub_tick(uint32_t aHigh, uint32_t aLow, uint32_t bHigh, uint32_t bLow, uint64_t *r);
int kt4tick_mul_tick(uint32_t aHigh, uint32_t aLow, uint32_t bHigh, uint32_t bLow, uint64_t *r);
int kt4tick_div_tick(uint32_t aHigh, uint32_t aLow, uint32_t bHigh, uint32_t bLow, uint64_t *r);
int kt4tick_add_sec(uint32_t a, uint32_t b, uint32_t *r);
int kt4tick_sub_sec(uint32_t a, uint32_t b, uint32_t *r);
int kt4tick_mul_sec(uint32_t a, uint32_t b, uint32_t *r);
int kt4tick_div_sec(uint32_t a, uint32_t b, uint32_t *r);

/*
 * Duration texts: "1w2d3h" from a week on, "01:02:03" below a day, "1d2h3m" in between.
 * The buffer needs KT4_DURATION_STR_LEN bytes; it is returned (a null buffer at once).
 */
#define KT4_DURATION_STR_LEN 32
char *kt4TickToStrFormat(uint64_t ticks, char *buf);
char *kt4SecToStrFormat(uint32_t seconds, char *buf);
/* "0x%llX" of a tick value; buf needs KT4_TICK_STR_LEN bytes. Returns buf. */
#define KT4_TICK_STR_LEN 20
char *kt4TimerTickGetStr(char *buf, uint64_t ticks);

/* ======================================================================================
 * Timer library
 *
 * A head holds the timers of one timer set in an ordered tree by expiry. Whoever owns the
 * set calls kt4ProcTimers from its loop; due timers are fired there, callbacks run with no
 * lock held. A head made with the semaphore flag may be used from several tasks at once
 * (every tree change is done under its binary semaphore); otherwise it belongs to one
 * thread. A callback may create, set, enable, disable or delete timers of its own head,
 * itself included.
 *
 * Times count in timer-library ticks: tick64Get() plus the offset that kt4TimerTickSet
 * establishes. A timer's interval is seconds x 50 + ticks, each formed in 32 bits and
 * sign-extended: a negative interval, or one whose seconds x 50 does not fit 31 bits, puts
 * the expiry that far before now (due at once; added modulo 2^64 to a count that is still
 * below it, it lands in the far future instead).
 * ====================================================================================== */

#define KT4_TIMER_ONE_SHOT 0 /* T_type of a timer that fires once (any value but 3 does) */
#define KT4_TIMER_PERIODIC 3 /* T_type of a timer re-armed after each firing */

/* Callback parameter: as wide as a pointer, so that a record's address can be passed. */
typedef void (*KT4_TMR_CB)(uintptr_t param);
typedef void *(*KT4_TMR_ALLOC_FN)(size_t size);
typedef void (*KT4_TMR_FREE_FN)(void *record);

/*
 * The head, embedded by the owner and set up with kt4TmrHeadInit. Its integers are kept
 * big-endian like every record of the library; leave the fields to the library.
 */
typedef struct kt4TmrHead {
    void *TreeRoot;                 /* the ordered tree of linked timers */
    kt4Be32 SemID;                  /* binary semaphore guarding the tree, 0 for none */
    kt4Be32 MaxProcNum;             /* timers fired per kt4ProcTimers call, 0: no limit */
    KT4_TMR_ALLOC_FN tmrAllocFnPtr; /* allocator of timer records */
    KT4_TMR_FREE_FN tmrFreeFnPtr;   /* releaser of timer records */
} kt4TmrHead;

/* A timer record; allocated through the head's allocator, reached through its address. */
typedef struct kt4Timer kt4Timer;

/* The default allocator and releaser (checked allocator, source tag "kt4TimerLib"). */
void *kt4TimerLibMalloc(size_t size);
void kt4TimerLibFree(void *record);

int kt4TmrHeadInit(kt4TmrHead *head, KT4_TMR_ALLOC_FN allocFn, KT4_TMR_FREE_FN freeFn,
                   int useSemaphore, uint32_t maxProcNum);
/* Releases the head's semaphore and tree; the timers are not released (flush them first). */
int kt4TmrHeadDestroy(kt4TmrHead *head);
/* Deletes every linked timer. Timers that are not linked (a fired one-shot, a disabled
 * timer) are known only to their owner, who deletes them. */
int kt4TmrFlushAll(kt4TmrHead *head);

kt4Timer *kt4TimerCreate(KT4_TMR_CB cb, uintptr_t param, int32_t seconds, uint32_t type,
                         kt4TmrHead *head);
kt4Timer *kt4TickTimerCreate(KT4_TMR_CB cb, uintptr_t param, int32_t seconds, int32_t ticks,
                             uint32_t type, kt4TmrHead *head);
int kt4TimerSet(kt4Timer *timer, int32_t seconds, KT4_TMR_CB cb, kt4TmrHead *head);
int kt4TickTimerSet(kt4Timer *timer, int32_t seconds, int32_t ticks, KT4_TMR_CB cb,
                    kt4TmrHead *head);
int kt4TimerEnable(kt4Timer *timer, kt4TmrHead *head);
int kt4TimerDisable(kt4Timer *timer, kt4TmrHead *head);
int kt4TimerDelete(kt4Timer *timer, kt4TmrHead *head);
int kt4TimerLink(kt4Timer *timer, kt4TmrHead *head);
int kt4TimerUnlink(kt4Timer *timer, kt4TmrHead *head);
/* Fires the due timers; returns the number fired (-1 for a null head). */
int kt4ProcTimers(kt4TmrHead *head);
/*
 * The same for long runs inside a thread of the thread library: now is read again after
 * every timer, maxCount (0: no limit) bounds the run, and once more than yieldCount timers
 * have fired, thread is yielded (kt4ThreadYield) after each further one.
 */
int kt4ProcTimersThread(kt4TmrHead *head, uint32_t yieldCount, uint32_t maxCount, void *thread);
int kt4TmrCompare(const kt4Timer *a, const kt4Timer *b);
BOOL kt4TmrTreeEmpty(kt4TmrHead *head);

/* The library's now: tick64Get() + the offset. */
uint64_t kt4TimerTickGet(void);
uint64_t kt4TimerTickGetOffset(void);
/* Makes the library's now equal to the given tick value, then prints the offsets. */
STATUS kt4TimerTickSet(uint32_t high, uint32_t low);
/* Reads a tick value (decimal, 0x hexadecimal or 0 octal) from the file and applies it with
 * kt4TimerTickSet. OK when applied; ERROR (and nothing done) without a path or file. */
STATUS kt4TimerInitTick(const char *path);

void kt4DebugTimers(kt4TmrHead *head);
void kt4DebugOneTimer(kt4Timer *timer);
void kt4TimerPrintCurrentTick(void);

/* ======================================================================================
 * Cartwheel timers
 *
 * The caller's timer records begin with a kt4cwTimerLink (three words owned by the wheel,
 * all null while the timer is stopped) and are TimerSize bytes long. One bucket per tick;
 * a timer started with delay d fires during the (d + 1)-th kt4cwTimerTick call after the
 * start. Inside an expiry handler the wheel has not yet moved on (it advances when the
 * tick's bucket is empty), so a timer started from a handler with delay d fires during the
 * d-th tick call after the current one: a periodic timer of p ticks restarts itself from its
 * handler with delay p, and a start with delay 0 fires again within the same tick call (a
 * handler that always does that never lets the tick return). There is no revolution
 * count: keep delays below the number of buckets. Nothing is locked; a wheel belongs to the
 * thread that ticks it.
 *
 * Two ways to drive a wheel:
 *   - kt4cwTimerTick, once per tick: takes every timer due in this tick off the wheel
 *     (stopped), calls the expiry handler given to kt4cwTimerInit with each, in the order
 *     they were started, and moves to the next tick;
 *   - by hand: kt4cwGetNextExpiredTimer returns the current tick's timers one at a time
 *     (each stopped; null when none is left), for a caller that handles them itself (a
 *     bounded number per pass, or outside the handler's context); when it returns null,
 *     kt4cwTimerTick moves to the next tick and, the tick's timers being taken, calls no
 *     handler.
 * ====================================================================================== */

typedef struct kt4cwTimerLink {
    void *prev; /* preceding timer, or the bucket for a bucket's first timer */
    void *next; /* following timer */
    void *last; /* used only when a bucket is viewed as a timer */
} kt4cwTimerLink;

typedef struct tkt4cwTimerCB tkt4cwTimerCB;

typedef void *(*KT4_CW_ALLOC_FN)(size_t size);
typedef void (*KT4_CW_FREE_FN)(void *timer);
typedef void (*KT4_CW_TIMER_FN)(void *timer);

/* The default hooks (checked allocator, source tag "kt4CartWheelTimer"). */
void *kt4cartWheelTimerMalloc(size_t size);
void kt4cartWheelTimerFree(void *timer);

/* Zero counts take 256 buckets, 100 timers and 50 extension timers; zero hooks the
 * defaults. The bucket count must be a power of two; the handler is required. */
tkt4cwTimerCB *kt4cwTimerInit(uint32_t numBuckets, int32_t numTimers, int32_t numExtendTimers,
                              KT4_CW_ALLOC_FN allocFn, KT4_CW_FREE_FN freeFn,
                              KT4_CW_TIMER_FN tmrExpiryHandler, KT4_CW_TIMER_FN printFn,
                              uintptr_t userData, uint32_t timerSize);
void kt4cwTimerUnInit(tkt4cwTimerCB *cb);
uintptr_t kt4cwTimerGetUserData(const tkt4cwTimerCB *cb);
void *kt4cwGetTimer(tkt4cwTimerCB *cb);
void kt4cwFreeTimer(tkt4cwTimerCB *cb, void *timer); /* a running timer is stopped first */
int kt4cwTimerAllocFreeList(tkt4cwTimerCB *cb, int32_t count);
void kt4cwRemoveFreeList(tkt4cwTimerCB *cb);
/* Starting a running timer restarts it. */
int kt4cwStartTimer(tkt4cwTimerCB *cb, void *timer, uint16_t delay);
int kt4cwStopTimer(void *timer);
int kt4cwRestartTimer(tkt4cwTimerCB *cb, void *timer, uint16_t delay);
/* One tick: fires the tick's timers through the expiry handler (see above); returns the
 * new current bucket. */
uint32_t kt4cwTimerTick(tkt4cwTimerCB *cb);
/* The next timer due in the current tick, stopped, or null: for driving the wheel by hand. */
void *kt4cwGetNextExpiredTimer(tkt4cwTimerCB *cb);
/* Tick calls until the next timer fires, -1 when none runs (one lower for a timer in a
 * bucket behind the current one: kept as callers have always had it). */
int kt4cwTimerRetNext(tkt4cwTimerCB *cb);
void kt4cwPrintTimerInfo(tkt4cwTimerCB *cb);
void kt4cwPrintOnlyTimerInfo(tkt4cwTimerCB *cb);

/* ======================================================================================
 * List timers
 *
 * One delta list ordered by expiry on the monotonic clock; the owner keeps a single real
 * timeout for the head: the start routine is called with the new head whenever it changes
 * (arm the timeout for its delta), the stop routine when the last timer is stopped, and the
 * owner calls kt4ListTimerTick when the timeout fires. The caller's timer records begin
 * with a kt4ListTimerNode. Nothing is locked; a list belongs to one thread.
 * ====================================================================================== */

typedef struct kt4ListTimerNode {
    struct kt4ListTimerNode *prev; /* null for the head */
    struct kt4ListTimerNode *next;
    struct timespec delta;  /* after the previous timer's expiry (the head: the head start) */
    struct timespec wanted; /* the requested timeout */
    struct timespec reqAt;  /* when it was started */
} kt4ListTimerNode;

typedef struct kt4ListTimerCB kt4ListTimerCB;
typedef void (*KT4_LIST_TIMER_FN)(kt4ListTimerNode *timer);

/* Non-zero: the list timers print their progress messages. */
extern int listTimerDbg;

/* minTimeout null: 20 ms. Timers due within it after an expiry fire in the same tick. */
kt4ListTimerCB *kt4ListTimerNew(const struct timespec *minTimeout, KT4_LIST_TIMER_FN startFn,
                                KT4_LIST_TIMER_FN stopFn, KT4_LIST_TIMER_FN tmrExpiryHandler);
/* Releases the control block; the timers are the caller's. */
void kt4ListTimerDestroy(kt4ListTimerCB *cb);
/* The list reads the time from clock (which fills *now) instead of the monotonic clock; null
 * goes back to the monotonic clock. Set it before the first timer starts: for simulations and
 * tests that move the time themselves. 0, or -1 for a null list. */
typedef void (*KT4_LIST_TIMER_CLOCK_FN)(struct timespec *now);
int kt4ListTimerSetClock(kt4ListTimerCB *cb, KT4_LIST_TIMER_CLOCK_FN clock);
/* Starting a running timer restarts it. */
int kt4ListStartTimer(kt4ListTimerCB *cb, kt4ListTimerNode *timer, uint32_t ms);
/* Stopping a timer that is not running changes nothing. */
int kt4ListStopTimer(kt4ListTimerCB *cb, kt4ListTimerNode *timer);
int kt4ListTimerTick(kt4ListTimerCB *cb);
/* *tv is filled with the time left to the head, or set to null when no timer runs. */
int kt4ListTimerGetTimevalTimeout(kt4ListTimerCB *cb, struct timeval **tv);
int kt4ListPrintTimers(kt4ListTimerCB *cb);

int kt4GetTimespecTimeSum(const struct timespec *a, const struct timespec *b,
                          struct timespec *r); /* a + b */
int kt4GetTimespecTimeDiff(const struct timespec *a, const struct timespec *b,
                           struct timespec *r); /* b - a */
int kt4TimespecTimeCmp(const struct timespec *a, const struct timespec *b);

KT4_END_DECLS

#endif /* KT4_TIMER_H */
