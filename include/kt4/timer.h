/*
 * kt4 timers: the tick source (20 ms ticks, 50 per second, on the monotonic clock), tick
 * arithmetic and the timer libraries.
 */
#ifndef KT4_TIMER_H
#define KT4_TIMER_H

#include <kt4/common.h>

KT4_BEGIN_DECLS

/* ---- Tick source ---- */
int sysClkRateGet(void);                         /* 50 ticks per second */
uint64_t tick64Get(void);                        /* present tick count */
uint64_t kt4TickGet(void);                       /* the same */
uint32_t tickGet(void);                          /* low 32 bits of the tick count */
void tick64Set(uint32_t high, uint32_t low);     /* the count returned from now on */
void tickSet(uint32_t ticks);                    /* tick64Set(0, ticks) */

KT4_END_DECLS

#endif /* KT4_TIMER_H */
