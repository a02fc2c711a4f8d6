/*
 * kt4 event logging, tracing and assertions.
 *
 * The trace channel. Every trace, error, warning, NVRAM and hardware message is formatted on
 * one line, "[month/day hour:min:sec] <kind marker> <MODULE>-(<task>):CPBLOB:<slot>: <text>\r\n",
 * echoed to standard output while local printing is on, and kept in a trace-history ring of
 * 3000 slots in the card's shared memory (software ring, hardware ring) that the display calls
 * replay per module. A process that never mapped the shared memory (KT4_ProcShmInit) keeps its
 * own process-local trace flags and rings instead, so tracing works in any program; those are
 * lost when it exits and are not seen by other processes.
 *
 * Module ids run from 0 to 141 (pModuleName); other ids are traced as module 0 ("???").
 */
#ifndef KT4_LOG_H
#define KT4_LOG_H

#include <kt4/common.h>
#include <stdarg.h>

KT4_BEGIN_DECLS

#define KT4_NUM_MODULES 142

/* Message kinds: the line's marker and the ring it goes to. */
#define KT4_TRACE_KIND_TRACE 2
#define KT4_TRACE_KIND_ERROR 3
#define KT4_TRACE_KIND_WARNING 4
#define KT4_TRACE_KIND_NVRAM 5
#define KT4_TRACE_KIND_EVT 6
#define KT4_TRACE_KIND_ALL_SW 7 /* replay only: kinds 2 to 6 */
#define KT4_TRACE_KIND_ALL_HW 8 /* replay only: kinds 9 to 12 */
#define KT4_TRACE_KIND_HW_EVT 9
#define KT4_TRACE_KIND_HW_WARN 10
#define KT4_TRACE_KIND_HW_TRACE 11
#define KT4_TRACE_KIND_HW_ERR 12
#define KT4_TRACE_KIND_SW_HW_EVT 13   /* software copy of 9 (stored as 9) */
#define KT4_TRACE_KIND_SW_HW_TRACE 14 /* software copy of 11 (stored as 11) */
#define KT4_TRACE_KIND_SW_HW_ERR 15   /* software copy of 12 (stored as 12) */
#define KT4_TRACE_KIND_SW_HW_WARN 16  /* software copy of 10 (stored as 10) */
#define KT4_TRACE_KIND_ANY 17         /* replay only: every kind */

/* Top bit of a module's flag word: plain traces (kind 2) of the module are not recorded. */
#define KT4_TRACE_NO_HISTORY 0x80000000u

/* ---- Modules and trace flags ---- */

/* The module's upper-case name; ids outside 0..141 give module 0's "???". */
const char *pModuleName(int id);
/* The id whose name equals name ignoring case, or 0 when there is none. */
int kt4TraceGetModuleIdFromName(const char *name);
/* Module id's flag word without the top bit (0 for an id outside 0..141). */
uint32_t wrap_modtraceflags(int id);
/* Stores the whole flag word of module id (1 <= id < 142); otherwise prints
 * "Invalid module id %d \r\n" and stores nothing. */
void kt4SetModuleTraceFlag(int id, uint32_t value);

/* One byte: 1 echoes every trace line to standard output. Default 0. */
extern unsigned char g_EnableLocalPrinting;
void kt4TracePrintOn(void);
void kt4TracePrintOff(void);
/* Gates every kt4All*Printf and kt4Hw*Printf: while 0 they do nothing. Default 1. */
extern uint32_t kt4HwTraceFlag;

/* ---- The trace family ---- */

#if defined(__GNUC__)
#define KT4_PRINTF_LIKE(f, a) __attribute__((format(printf, f, a)))
#else
#define KT4_PRINTF_LIKE(f, a)
#endif

/* The formatter behind every call below: formats one line of the given kind (2 to 6, 9 to 16;
 * any other kind produces nothing), prints it when local printing is on, and records it. */
void kt4MsgPrintf(int kind, int module, const char *format, va_list args);

void kt4TracePrintf(int module, const char *format, ...) KT4_PRINTF_LIKE(2, 3);
void kt4ErrorPrintf(int module, const char *format, ...) KT4_PRINTF_LIKE(2, 3);
void kt4WarningPrintf(int module, const char *format, ...) KT4_PRINTF_LIKE(2, 3);
void kt4NvramPrintf(int module, const char *format, ...) KT4_PRINTF_LIKE(2, 3);
/* Hardware kinds, hardware ring only. */
void kt4HwEventPrintf(int module, const char *format, ...) KT4_PRINTF_LIKE(2, 3);
void kt4HwWarningPrintf(int module, const char *format, ...) KT4_PRINTF_LIKE(2, 3);
void kt4HwTracePrintf(int module, const char *format, ...) KT4_PRINTF_LIKE(2, 3);
void kt4HwErrorPrintf(int module, const char *format, ...) KT4_PRINTF_LIKE(2, 3);
/* Hardware kinds into the hardware ring and, as a software copy, into the software ring. */
void kt4AllEventPrintf(int module, const char *format, ...) KT4_PRINTF_LIKE(2, 3);
void kt4AllWarningPrintf(int module, const char *format, ...) KT4_PRINTF_LIKE(2, 3);
void kt4AllTracePrintf(int module, const char *format, ...) KT4_PRINTF_LIKE(2, 3);
void kt4AllErrorPrintf(int module, const char *format, ...) KT4_PRINTF_LIKE(2, 3);
/* Traces text verbatim (at most 199 characters); its first '%' becomes '!'. */
void kt4TracePrintStr(int module, const char *text);

/* Records one formatted line in the ring of its kind. count is the number of times the same
 * line was seen just before (0: a new line; 1: "Repeated 1 time."; 2 or more: the previous
 * slot's repeat line is rewritten). */
void WriteStringToHistory(const char *line, int module, int kind, int count);

/* ---- Replay of the rings, oldest first, to standard output ---- */

/* Slots of module id (1..142) whose stored kind matches kind: 7 any of 2..6, 8 any of 9..12,
 * 17 any, other kinds exactly. Kinds 9 to 12 read the hardware ring, all others the
 * software ring. Returns 0. */
int kt4TraceDisplayByModuleId(int id, int kind);
int kt4TraceDisplayByModule(const char *name, int kind);
int kt4TraceDisplaySoftware(void); /* the whole software ring */
int kt4TraceDisplayHardware(void); /* the whole hardware ring */
int kt4TraceDisplay(void);         /* both */

/* ---- Assertions and developer prints ---- */

/* Reports a failed library assertion on module 1 and returns: an assertion never ends the
 * process. */
void _kt4Assert(const char *expression, const char *file, int line);
/* The compiled-out development assertion: does nothing. */
void _kt4DevAssert(const char *expression, const char *file, int line);

/* Developer prints, enabled per level by the developer task mask: level's bit (level & 31) in
 * word (level >> 5) of pGlbDevTskMsk (8 words: levels 0 to 255). Each call counts in printCnt
 * first. */
extern uint32_t *pGlbDevTskMsk;
extern uint32_t printCnt;
void kt4EvtLogPrint(int level, int ignored, const char *text);
void kt4EvtLogPrintV2(int level, int ignored, const char *name, const char *text);

/* Checks expr and reports it through _kt4Assert under the given source tag when it is false. */
#define KT4_ASSERT_TAG(expr, tag) ((expr) ? (void)0 : _kt4Assert(#expr, (tag), __LINE__))
#define KT4_ASSERT(expr) KT4_ASSERT_TAG(expr, __FILE__)

KT4_END_DECLS

#endif /* KT4_LOG_H */
