/*
 * kt4 platform services: the numbered shared-memory locks, the card's shared memory file and
 * the start-up and exit of a control process.
 *
 * Locks. 28 plain locks (0..27) and 2 reader-writer locks (0..1) live in the kernel as System V
 * semaphore sets of one semaphore each, with the keys 1028 + n and 1084 + n, plus
 * $KT4_SYSV_KEY_OFFSET (default 0) so that several simulated cards or test runs share a host.
 * A lock is never waited for inside the kernel: a taker tries with IPC_NOWAIT and sleeps two
 * ticks (taskDelay(2), 40 ms) between tries, without limit. Plain lock 25 starts taken. A
 * reader-writer lock admits three readers at once, or one writer.
 *
 * Well-known locks: 1 (reader-writer) the event-log key registry; plain 2 the SWP queue table,
 * 4 the trace-history rings, 5 the task table.
 *
 * Bringing a card up. One process creates the card: it maps the shared memory
 * (KT4_ProcShmInit) and creates the locks (KT4_InitShmSem(1)); only then are the card's control
 * processes started (KT4_NbsdpInit, which opens the locks without creating them). A joiner
 * that finds the locks missing makes them taken, as the system always did, and says "card not
 * brought up" on standard error. The creator spends the first System V id of a fresh IPC
 * namespace (id 0, which the lock table takes for a missing lock) on a private set first.
 *
 * Processes that die. Every take and give records its process beside the lock in the shared
 * area; the "sysReaper" monitor of every control process gives back, and reports, what a
 * process that died (SIGKILL included) still held (KT4_ShmLockRecover). Locks are given back
 * for dead processes only, never for a task deleted in a live one.
 *
 * Crashed cards. A process counts as attached to the card while it has the shared memory
 * mapped. A creator that finds the card's locks already there clears and remakes them when no
 * live process is attached (a card whose processes were all killed), saying what it cleared;
 * while any process is attached it clears nothing and fails as documented.
 *
 * Other users. The shared memory file is opened without following a link and must belong to
 * the calling user with no rights for group or others; a joiner refuses a lock whose set
 * belongs to another user or grants anyone else access. Both are reported and count as
 * failures.
 *
 * Shared memory. The card's processes map one file, "$KT4_ROOT/KT4ShmMMap.mem" (KT4_ROOT
 * defaults to /kt4), at the fixed address 0x60000000 with MAP_FIXED_NOREPLACE: an address
 * already in use in the process is reported and the mapping fails. The first process of a card
 * lays the area out; later ones find it laid out.
 *
 * Command line. A control process's command line ends with arguments for the system:
 * argv[argc - 8] is its process health-record number, argv[argc - 7] the period in seconds at
 * which its monitor refreshes that record, and argv[argc - 1] the size of the shared memory in
 * bytes (decimal). The arguments between them are not read here. There are 8 system words in
 * all (KT4_TASK_SYS_ARGS in <kt4/tme.h> lists them); the task manager's kt4TaskCreate appends
 * them, and on a development host "kt4card run" does (docs/getting-started.md).
 */
#ifndef KT4_PLATFORM_H
#define KT4_PLATFORM_H

#include <kt4/common.h>

KT4_BEGIN_DECLS

#define KT4_SHM_NUM_LOCKS 28
#define KT4_SHM_NUM_RW_LOCKS 2
#define KT4_SHM_LOCK_KEY_BASE 1028
#define KT4_SHM_RW_LOCK_KEY_BASE 1084

#define KT4_SHM_RW_LOCK_EVT 1 /* event-log key registry (reader-writer) */
#define KT4_SHM_LOCK_SWP 2    /* SWP queue table */
#define KT4_SHM_LOCK_TRACE 4  /* trace-history rings */
#define KT4_SHM_LOCK_TME 5    /* task table (TME_SYN_SEM) */
#define KT4_SHM_LOCK_STARTS_TAKEN 25

#define KT4_SHM_BASE_ADDRESS 0x60000000UL
#define KT4_SHM_NAME_MAX 1024

/* ---- Numbered locks ---------------------------------------------------------------------
 * Takes return OK once the lock is held (they poll for ever); ERROR only for a number out of
 * range (reported and asserted; errno EINVAL) or a lock this process never opened or whose
 * set it refused (KT4_InitShmSem; errno ENOENT). Gives return the result of the single semop
 * they issue.
 */
int KT4_ShmLock(int svc);
int KT4_ShmUnLock(int svc);
int KT4_ShmReadLock(int svc);
int KT4_ShmReadUnLock(int svc);
int KT4_ShmWriteLock(int svc);
int KT4_ShmWriteUnLock(int svc);

/* Creates (create != 0, exclusively) or opens every lock and fills this process's lock table.
 * 0, or -1 when any lock is missing (an id of 0 counts as missing), or, when opening, a set is
 * not this user's alone (refused and reported). The other locks are still created or opened.
 * Creating clears stale sets of a card with no live process attached first (see above). */
int KT4_InitShmSem(int create);
/* One set: semget(key, 1, ...) (key: a System V key_t) and, when creating, SETVAL to value. The id
 * (or -1) is stored through id. 0 or -1. */
int CreateSemWithValue(int index, int key, int *id, int create, int value);
/* Removes every set of the locks and the two sets keyed by ftok on the shared memory file
 * (project ids 0 and 1). 0, or -1 when a set could not be removed. */
int KT4_ShmSemRem(void);
/* Gives back every lock unit that a process which has died still holds, as recorded in the
 * card's shared area, and reports each ("KT4_ShmLockRecover: plain lock 4 given back (taken):
 * process 1234 died holding it"). The number given back, or -1 (errno ENOENT) when this
 * process has not mapped the shared memory. Run by every control process's "sysReaper". */
int KT4_ShmLockRecover(void);
/* Prints this process's lock table; level >= 1 adds the kernel's values and last users. */
void KT4_ShmLockDebug(int level);

/* ---- Shared memory file and process start-up -------------------------------------------- */

/* The shared memory file's name: without the extension when flag != 0, with ".mem" when 0.
 * Formed once per process (personality flags 8 and 4 both set in $KT4_PERSONALITY select the
 * "KT4ShmMMapLp" name). The string belongs to the library. Names are at most 1023 characters:
 * when $KT4_ROOT is too long for them, both are empty (errno ENAMETOOLONG) and mapping fails. */
const char *kt4GetShmFileName(int flag);
/* Maps the shared memory file (size from argv[argc - 1]) once per process. 0 or -1, with the
 * reason (the file's path and the system's error) on standard error and in the trace. */
int KT4_ProcShmInit(int argc, char **argv);
/* The start-up call of a control process: signal masks, service name, shared memory, locks,
 * the tasking layer, the health record and the "sysReaper" monitor task. Failed steps are
 * reported on standard error and in the trace, and the next steps still run; the call
 * returns 0. */
int KT4_NbsdpInit(int argc, char **argv);
/* Closes the health record, runs the task manager's exit for the calling task and ends the
 * process. */
void KT4_NbsdpExit(void);

/* Blocks signal sig, given in the switch kernel's numbering (20 SIGCHLD, 30 SIGUSR1, ...),
 * in the calling thread and so in every task it creates afterwards. 0 or -1. */
int KT4SigSetMask(int sig);
/* Records the process's service name (the base name of argv[0]) for its health record and
 * names the calling thread after it. 0 or -1. */
int start_serv_process(const char *name);

/* ---- Process health records --------------------------------------------------------------
 * One record per control process in the shared area, refreshed by the process's "sysReaper"
 * monitor every period; a health monitor reads them to find processes that stopped
 * refreshing and children that died.
 */
#define KT4_HEALTH_RECORDS 64
#define KT4_HEALTH_FREE 0
#define KT4_HEALTH_STARTING 1
#define KT4_HEALTH_RUNNING 2
#define KT4_HEALTH_EXITED 3

typedef struct KT4_HEALTH_INFO {
    int state;               /* KT4_HEALTH_* */
    int pid;                 /* the process owning the record */
    int period;              /* refresh period in seconds */
    uint64_t startTick;      /* tick64Get() when the record was opened */
    uint64_t lastTick;       /* tick64Get() at the last refresh */
    uint64_t refreshes;      /* number of refreshes */
    unsigned childrenReaped; /* children collected by the monitor */
    int lastChildPid;        /* the last child collected, 0 when none */
    int lastChildStatus;     /* its wait status */
    char name[64];           /* the service name */
} KT4_HEALTH_INFO;

/* Opens record index for this process with the given refresh period (seconds, >= 1). 0/-1. */
int KT4_HealthOpen(int index, int period);
/* Refreshes this process's record. 0, or -1 when none is open. */
int KT4_HealthUpdate(void);
/* Copies record index. 0, or -1 for a bad index or no shared memory. */
int KT4_HealthGet(int index, KT4_HEALTH_INFO *info);

KT4_END_DECLS

#endif /* KT4_PLATFORM_H */
