/*
 * kt4 event log: EV keys, severity-filtered log records, numbered system errors, event-handler
 * notifications and subscriptions, audit records.
 *
 * A process opens an EV key for one of its IPC endpoints (service, instance) and reports
 * through it. The keys live in a registry in the card's shared area (200 records, keys 20000
 * to 20199), so any process of the card can look a key up. Records travel as IPC messages to
 * the card's servers: the event-log server (service 24 instance 0), the audit server (service
 * 25 instance 0) and the event handler (service 30 instance 0).
 *
 * Results: -1 on failure unless a call says otherwise.
 *
 * docs/eventlog.md says what kt4SysErrExt passes on where (its decision table), what the
 * subscription asks for, how a process adds its own facility, and what the process caches.
 *
 * The second half of this header is the wire format of every message this family sends: the
 * offsets are from the start of the message (the 60-byte IPC header is at 0), integers are
 * big-endian, strings are NUL-terminated within their field. A server parses them with these
 * names alone.
 */
#ifndef KT4_EVT_H
#define KT4_EVT_H

#include <kt4/common.h>

KT4_BEGIN_DECLS

/* ---- EV keys ---------------------------------------------------------------------------- */

#define KT4_EVT_KEY_BASE 20000
#define KT4_EVT_MAX_KEYS 200
#define KT4_EVT_DEFAULT_MASK 0x7Fu /* levels 0 to 6 */
#define KT4_EVT_ALWAYS_ON 7u       /* levels 0 to 2 cannot be switched off */

/* Servers of the card. */
#define KT4_EVT_LOG_SERVICE 24   /* event-log server, instance 0 */
#define KT4_EVT_AUDIT_SERVICE 25 /* audit server, instance 0 */
#define KT4_EVT_LOGAGT_SERVICE 26
#define KT4_EVT_HANDLER_SERVICE 30 /* event handler, instance 0 */

/* Levels. Below KT4_EVT_LEVEL_PLAIN records go guaranteed, from it on plain. */
#define KT4_EVT_LEVEL_PLAIN 7
#define KT4_EVT_LEVEL_CONSOLE 24 /* printed locally, never sent */
#define KT4_EVT_MAX_TEXT 2047
#define KT4_EVT_CHUNK 500

/* Creates the shared registry on first use (kt4SysErrExt calls it lazily). 0 or -1. */
int kt4EvtLibInit(void);

int kt4EvtOpenlog(int service, int instance); /* the new EV key */
int kt4EvtCloselog(int evKey);
int kt4EvtGetServiceKey(int evKey);
int kt4EvtGetInstanceKey(int evKey);
int kt4EvtGetIpcKey(int evKey);
int kt4EvtGetKeyFromServiceInstance(int service, int instance);
int kt4EvtGetEvKeyFromPid(int pid);
int kt4EvtGetMyEvKey(void);
int kt4EvtSetSeverityLevel(int evKey, uint32_t mask);
int kt4EvtSetSeverityLevelForService(int service, uint32_t mask);
int kt4EvtTurnOnSeverityLevel(int evKey, int level);
int kt4EvtCheckSeverityLevel(int evKey, int level);
int kt4EvtRegisterSvce(int evKey, uint32_t value);

/* ---- Records ---------------------------------------------------------------------------- */

/* One log record to the event-log server: level, facility and error number of the record,
 * a short tag of at most 250 bytes (may be null) and the text. */
int kt4EvtLogMsg(int evKey, int level, int facility, int error, const char *tag, char *text);
/* The same record built from the key's registration and the calling task's name. */
int kt4EvtSetSyslog(int evKey, int level, char *text);

/* System errors. The error table entry (facility of the key, error) gives the class, the
 * short name and a printf format; the arguments fill its conversions in order, integers
 * (d i u x X c, with flags, width, precision and h/l/ll/z) from .i, strings (s) from .s
 * (null prints "(null)"). A conversion without an argument prints as the empty string, and a
 * conversion this formatter does not know is copied as it stands: a table entry can never
 * read past the arguments given. */
typedef union kt4EvtArg {
    long long i;
    const char *s;
} kt4EvtArg;

#define KT4_EVT_CLASS_ERROR 1    /* kt4SysErr */
#define KT4_EVT_CLASS_SECURITY 2 /* kt4SysSecErr */

int kt4SysErr(int evKey, int error, const kt4EvtArg *args, uint16_t nargs);
int kt4SysSecErr(int evKey, int error, const kt4EvtArg *args, uint16_t nargs);
int kt4SysErrExt(int evKey, int error, const kt4EvtArg *args, uint16_t nargs, int errClass);

/* The library's own system errors (an assertion, a task that cannot start, the memory
 * manager's reports): the entry named name of the facility named facility, its format given
 * arg as its one argument, sent through the calling task's EV key, or else any key of this
 * process. -1 (errno ENOENT) when there is no such entry or this process has no key: the
 * caller's own trace line is then the only report. */
int kt4EvtRaise(const char *facility, const char *name, const char *arg);
/* The same through a given EV key: for a family of the library that reports through its
 * user's key (a reliable queue's errors go through the key it was created with) under an entry
 * of its own facility. -1 (errno EINVAL) for a bad key, ENOENT for no such entry. */
int kt4EvtRaiseKey(int evKey, const char *facility, const char *name, const char *arg);

/* The error table: one row per facility, each an array of entries. */
typedef struct kt4EvtError {
    uint32_t error;     /* number within the facility */
    uint32_t errClass;  /* class/severity word: the level the record is logged at */
    const char *name;   /* short name, e.g. "INVALID_EVKEY" */
    const char *format; /* text or printf format */
} kt4EvtError;

/* Copies the entry's text and short name (strlcpy, each only when its buffer and length are
 * non-zero) and its class through classOut when non-null. 0, or -1 when there is no entry. */
int kt4GetEvtErrorInfo(int facility, int error, char *textBuf, int textLen, char *nameBuf,
                       int nameLen, uint32_t *classOut);
/* Adds a process's own facility (its name and entries, kept by the caller for the life of
 * the process) to the table; replaces the facility's earlier entries. 0 or -1. */
int kt4EvtAddFacility(int facility, const char *name, const kt4EvtError *entries, int count);

/* Event-handler notification: the event's name, two words and a 16-bit field of the caller's,
 * and an optional 256-byte block (null: none). */
int kt4EvtNotifyEvtHdlr(int evKey, const char *name, uint32_t word1, uint32_t word2, uint16_t field,
                        const void *block);
/* Asks the event handler to send (or stop sending) events of one facility and error number
 * (error 0xFFFFFFFF: all of that facility) to the key's request queue. */
int kt4EvhSubscribeEvt(int evKey, int facility, uint32_t error);
int kt4EvhUnsubscribeEvt(int evKey, int facility, uint32_t error);

/* The audit record: nothing unless all three strings are non-null and the calling task has
 * an IPC key. */
int kt4SendAuditLog(uint32_t code, const char *user, const char *source, const char *text);

/* ---- Wire format ------------------------------------------------------------------------ */

#define KT4_EVT_MSG_TYPE_LOG 2001 /* registration and log records */
#define KT4_EVT_MSG_TYPE_NOTIFY 2009
#define KT4_EVT_MSG_TYPE_SUBSCRIBE 2010
#define KT4_EVT_MSG_TYPE_UNSUBSCRIBE 2011
#define KT4_EVT_MSG_TYPE_AUDIT 2015
#define KT4_EVT_FLAG_WORD 0x80000000u /* at the header's transaction word */

/* Header words every record uses: sub-code at +24 (0 log record, 5 registration), the flag
 * word at +32, the sender's task id at +16. Source triple: the owner's slot, peer IP and
 * queue id; target triple: the server's. */
#define KT4_EVT_OFF_TASK 16
#define KT4_EVT_OFF_SUBCODE 24
#define KT4_EVT_OFF_FLAG 32
#define KT4_EVT_SUB_LOG 0
#define KT4_EVT_SUB_REGISTER 5

/* Registration (68 bytes). */
#define KT4_EVT_REG_LEN 68
#define KT4_EVT_REG_SERVICE 60  /* u32 */
#define KT4_EVT_REG_INSTANCE 64 /* u32 */

/* Log record (968 bytes): one chunk of a text. */
#define KT4_EVT_LOG_LEN 968
#define KT4_EVT_LOG_CHUNKS 60   /* u32: chunk count << 16 | this chunk's index (0-based) */
#define KT4_EVT_LOG_UNIT 64     /* u32: stack unit id */
#define KT4_EVT_LOG_LEVEL 68    /* u32 */
#define KT4_EVT_LOG_FACILITY 72 /* u32 */
#define KT4_EVT_LOG_ERROR 76    /* u32 */
#define KT4_EVT_LOG_CLASS 80    /* u32 */
#define KT4_EVT_LOG_EVKEY 84    /* u32 */
#define KT4_EVT_LOG_PID 88      /* u32 */
#define KT4_EVT_LOG_SEQ 92      /* u32: per-process record number, the same in every chunk */
#define KT4_EVT_LOG_TIME 96     /* u32: seconds since the epoch */
#define KT4_EVT_LOG_TEXTLEN 100 /* u32: length of the whole text */
#define KT4_EVT_LOG_TAG 104     /* char[250] */
#define KT4_EVT_LOG_TAG_LEN 250
#define KT4_EVT_LOG_NAME 354 /* char[50]: task name */
#define KT4_EVT_LOG_NAME_LEN 50
#define KT4_EVT_LOG_LABEL 404 /* char[20]: unit label */
#define KT4_EVT_LOG_LABEL_LEN 20
#define KT4_EVT_LOG_CPU 424 /* char[8]: CPU tag */
#define KT4_EVT_LOG_CPU_LEN 8
#define KT4_EVT_LOG_CHUNKLEN 432 /* u32: bytes of text in this chunk (0..500) */
#define KT4_EVT_LOG_TEXT 436     /* char[501]: the chunk, NUL-terminated */
#define KT4_EVT_LOG_TEXT_LEN 501
/* 937..967: zero */

/* Event-handler notification (592 bytes). Source slot: this card's slot; source address and
 * queue id: this card's IP and the owner's queue id; target slot: the master slot; target
 * address and queue id: the event handler's. */
#define KT4_EVT_NOTIFY_LEN 592
#define KT4_EVT_NOTIFY_NAME 60 /* char[256] */
#define KT4_EVT_NOTIFY_NAME_LEN 256
#define KT4_EVT_NOTIFY_WORD1 316 /* u32 */
#define KT4_EVT_NOTIFY_WORD2 320 /* u32 */
#define KT4_EVT_NOTIFY_FIELD 324 /* u16 */
#define KT4_EVT_NOTIFY_FLAGS 326 /* u16: bit 0 set when the block is present */
#define KT4_EVT_NOTIFY_BLOCK 328 /* 256 bytes */
#define KT4_EVT_NOTIFY_BLOCK_LEN 256
/* 584..591: zero */

/* Subscription and its withdrawal (80 bytes), to the event handler. */
#define KT4_EVT_SUB_LEN 80
#define KT4_EVT_SUB_EVKEY 60    /* u32 */
#define KT4_EVT_SUB_FACILITY 64 /* u32 */
#define KT4_EVT_SUB_ERROR 68    /* u32: 0xFFFFFFFF for every error of the facility */
#define KT4_EVT_SUB_QID 72      /* u32: the queue that receives the events */
#define KT4_EVT_SUB_PID 76      /* u32 */

/* Audit record (904 bytes). */
#define KT4_EVT_AUDIT_LEN 904
#define KT4_EVT_AUDIT_CODE 60 /* u32 */
#define KT4_EVT_AUDIT_USER 64 /* char[21] */
#define KT4_EVT_AUDIT_USER_LEN 21
#define KT4_EVT_AUDIT_SOURCE 85 /* char[51] */
#define KT4_EVT_AUDIT_SOURCE_LEN 51
#define KT4_EVT_AUDIT_TEXT 136 /* char[768] */
#define KT4_EVT_AUDIT_TEXT_LEN 768

KT4_END_DECLS

#endif /* KT4_EVT_H */
