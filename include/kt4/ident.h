/*
 * kt4 identities: what names a task of a control process, below both messaging and the task
 * registry. A task is named by a service (13..363) and an instance (0..31); its key is
 * service << 7 | instance << 2. This process keeps one endpoint record per (service,
 * instance) that lives in it, sized by the instances-per-process table below; the service
 * names give a service number its text.
 *
 * <kt4/ipc.h> and <kt4/tme.h> include this header.
 */
#ifndef KT4_IDENT_H
#define KT4_IDENT_H

#include <kt4/common.h>

KT4_BEGIN_DECLS

/* ---- Services and instances ---------------------------------------------------------- */

#define KT4_IPC_MIN_SERVICE 13  /* lowest service the keyed calls accept */
#define KT4_IPC_MAX_SERVICE 363 /* highest */
#define KT4_IPC_LARGE_INST_MIN 48
#define KT4_IPC_LARGE_INST_MAX 4144
#define KT4_IPC_LARGE_INST_QID 0xA700 /* queue id of a large instance, OR the kind */

/* Key of the calling task: its record of the lowest service, then the lowest instance; -1
 * when the calling task owns no record. */
int kt4GetMyTaskKey(void);

/* ---- Instances per process ----------------------------------------------------------- */

/*
 * One row per service (0..363): the service column, the number of ordinary instance records
 * the process keeps (instances 0..n-1), flags, and the number of large-instance records kept
 * after them. The default gives every service its 32 instances in the calling process.
 */
typedef struct kt4IpcProcInstRow {
    uint32_t service;        /* must equal the row's index for the row to be used */
    uint32_t instances;      /* ordinary records; also the offset of the large-instance record */
    uint32_t flags;          /* KT4_IPC_INST_* */
    uint32_t largeInstances; /* records for a large-instance endpoint (0 or 1) */
} kt4IpcProcInstRow;

#define KT4_IPC_INST_ROWS 364
#define KT4_IPC_INST_LARGE_QID 0x10000 /* process-per-instance: large-instance queue ids */
#define KT4_IPC_INST_MASTER_CP 0x400   /* process-per-instance: served by the master card */

/*
 * Loads another table (rows 0..count-1; services from count on do not live in this
 * process). Load it before any endpoint is opened: a service whose records already exist
 * keeps its record count. 0, or -1 (EINVAL) for a null table or a count outside 1..364.
 */
int kt4IpcLoadMaxInstPerProcessTbl(const kt4IpcProcInstRow *rows, int count);
/* Back to the default table (same restriction). */
void kt4IpcResetMaxInstPerProcessTbl(void);
int kt4IpcGetMaxProcTblEntries(void);                 /* 364 */
int kt4IpcGetMaxProcInstEntriesVal(int service);      /* instances + largeInstances, or 0 */
int kt4GetMaxInstPerProcessTblProcessId(int service); /* the service column, or -1 */
int kt4IpcGetMaxProcInstFlagsVal(int service);        /* flags, or 0 */
/* Offsets of a large-instance endpoint's records: instances and largeInstances; -1 for a
 * service outside the table. */
int kt4IpcGGetProcessInstOffsetsVal(int service, uint32_t *firstOffset, uint32_t *secondOffset);
/* 0 when (service, instance) may live in this process, else -1. */
int kt4IpcTblChkProcInstLimit(int service, int instance);

/* ---- Service names ---- */

typedef struct kt4CodeText {
    int code;
    const char *text;
} kt4CodeText;

/* Service number to service name; the table ends with the entry { -1, NULL }. */
extern const kt4CodeText kt4ServiceToNameTbl[];
/* The text of code in a table ending with a null text, or "UNKNOWN". */
const char *kt4CodeToText(const kt4CodeText *table, int code);

KT4_END_DECLS

#endif /* KT4_IDENT_H */
