/*
 * kt4 tick source: 20 ms ticks, 50 per second, counted from the monotonic clock. The task
 * layer's time-outs and delays are in these ticks, and the timer libraries (<kt4/timer.h>,
 * which includes this header) count in them too; the source stands below both.
 */
#ifndef KT4_TICK_H
#define KT4_TICK_H

#include <kt4/common.h>

#include <sys/time.h>
#include <time.h>

KT4_BEGIN_DECLS

/* ======================================================================================
 * Tick source and conversions
 * ====================================================================================== */

int sysClkRateGet(void);                     /* 50 ticks per second */
uint64_t tick64Get(void);                    /* present tick count */
uint64_t kt4TickGet(void);                   /* the same */
uint32_t tickGet(void);                      /* low 32 bits of the tick count */
void tick64Set(uint32_t high, uint32_t low); /* the count returned from now on */
void tickSet(uint32_t ticks);                /* tick64Set(0, ticks) */

/* Fills *tv with the tick count as seconds and microseconds; ERROR for a null tv. */
STATUS kt4TimeGet(struct timeval *tv);
/* The tick count in whole seconds; 0xFFFFFFFF once it no longer fits 32 bits. */
uint32_t kt4SecGet(void);
uint64_t kt4tick_to_sec(uint64_t ticks);
/*
 * Sleeps seconds plus (milliseconds mod 1000) ms. When a signal interrupts the sleep it goes
 * on with the time that is left only if restart is non-zero. Returns 0, or -1 with errno as
 * the interrupted (or refused) sleep left it.
 */
int kt4Sleep(uint32_t seconds, uint32_t milliseconds, int restart);

KT4_END_DECLS

#endif /* KT4_TICK_H */
