/*
 * kt4 tasking layer: the real-time-kernel task interface on POSIX threads.
 *
 * Tasks, binary/counting/mutual-exclusion semaphores, message queues, watchdogs and
 * second-granular timers, plus the start-up of the layer in a process. Results follow the
 * kernel convention: OK (0) or ERROR (-1) with the reason in errno (the codes below).
 *
 * Priorities use the kernel convention: 0 is the most urgent, 255 the least.
 * Time-outs are in ticks of 20 ms (sysClkRateGet() == 50); WAIT_FOREVER or NO_WAIT.
 *
 * Entry-routine arguments, watchdog parameters and timer arguments are kt4_arg_t: an integer
 * as wide as a pointer, so that a pointer can be passed as it could on the 32-bit original.
 *
 * On the host: task priorities map onto the real-time scheduler (round robin after start-up).
 * A process that may not use real-time scheduling (or runs with KT4_NO_RT=1) keeps every
 * priority as given but runs its tasks under the default policy; it says so once on stderr.
 * Semaphores and message queues may also be used from threads that are not tasks.
 */
#ifndef KT4_VX2BSD_H
#define KT4_VX2BSD_H

#include <kt4/common.h>
#include <kt4/tick.h>

KT4_BEGIN_DECLS

typedef uintptr_t kt4_arg_t;

/* errno codes of the layer */
#define KT4_E_OBJ_ID 0x3d0001
#define KT4_E_OBJ_UNAVAILABLE 0x3d0002
#define KT4_E_OBJ_DELETED 0x3d0003
#define KT4_E_OBJ_TIMEOUT 0x3d0004
#define KT4_E_ILLEGAL_PRIORITY 0x30065
#define KT4_E_HOOK_NOT_FOUND 0x30066
#define KT4_E_HOOK_TABLE_FULL 0x30067
#define KT4_E_NO_MEMORY 0x110001
#define KT4_E_INVALID_OPERATION 0x160068
#define KT4_E_INVALID_MSG_LENGTH 0x410001
#define KT4_E_NO_TCB_MEMORY 0x580001

/* The text of an errno value: a KT4_E_* code by name and meaning ("KT4_E_OBJ_TIMEOUT: timed
 * out"), any other value as strerror gives it. The text is the library's (per thread, valid
 * until the thread's next call); never null. */
const char *kt4ErrnoText(int code);

/* ---- Tasks ---- */

typedef int (*kt4TaskEntry)(kt4_arg_t, kt4_arg_t, kt4_arg_t, kt4_arg_t, kt4_arg_t, kt4_arg_t,
                            kt4_arg_t, kt4_arg_t, kt4_arg_t, kt4_arg_t);
typedef void (*kt4WdRoutine)(kt4_arg_t);

/*
 * Task control block storage. The layout is private to the library; a caller of taskInit
 * supplies one of these (static or its own allocation) and keeps it alive until the task
 * is deleted.
 */
typedef struct kt4Tcb {
    uint64_t opaque[128];
} kt4Tcb;

/* Delete hooks are called with the TCB and the task's name. */
typedef void (*kt4TaskDeleteHook)(kt4Tcb *tcb, const char *name);

typedef struct kt4TaskInfo {
    int ti_id;
    char *ti_name;
    int ti_priority;
    kt4TaskEntry ti_entry;
    int ti_status;
    int ti_options;
    size_t ti_stackSize;
    uint32_t ti_spare[8];
} kt4TaskInfo;

/*
 * Start-up. kt4VxToBsdInit is called once by a control process before it uses the layer (later
 * calls do nothing): it starts tUsrRoot, which starts tExcTask (watchdogs, every tick) and
 * tTimerTask (timers, every second) when the flags ask for them, and returns once they run.
 * SIGUSR2 asks tUsrRoot for a live core dump (kt4livecore) within 2 seconds.
 */
int vx2bsdLibInit(void);
int kt4VxToBsdInit(int startExcTask, int startTimerTask);
int vx2bsd_start(int excTask, int timerTask, int excPriority, int timerPriority);
/* Writes a core of the running process without stopping it ($KT4_CORE_DIR, else the working
 * directory); 0, or -1 on failure. */
int kt4livecore(void);

/*
 * taskInit gives the task the id (int)(uintptr_t)tcb, the TCB's address as the 32-bit id that
 * taskActivate and the other calls take; taskSpawn hands out small ids from 1.
 */

STATUS taskInit(kt4Tcb *tcb, const char *name, int priority, int options, char *stackBase,
                int stackSize, kt4TaskEntry entry, kt4_arg_t a1, kt4_arg_t a2, kt4_arg_t a3,
                kt4_arg_t a4, kt4_arg_t a5, kt4_arg_t a6, kt4_arg_t a7, kt4_arg_t a8, kt4_arg_t a9,
                kt4_arg_t a10);
STATUS taskActivate(int tid);
int taskSpawn(const char *name, int priority, int options, int stackSize, kt4TaskEntry entry,
              kt4_arg_t a1, kt4_arg_t a2, kt4_arg_t a3, kt4_arg_t a4, kt4_arg_t a5, kt4_arg_t a6,
              kt4_arg_t a7, kt4_arg_t a8, kt4_arg_t a9, kt4_arg_t a10);
STATUS taskDelete(int tid);
STATUS taskDeleteForce(int tid);
STATUS taskRestart(int tid);
STATUS taskSuspend(int tid);
STATUS taskResume(int tid);
STATUS taskDelay(int ticks);
STATUS taskLock(void);
STATUS taskUnlock(void);
STATUS taskSafe(void);
STATUS taskUnsafe(void);
STATUS taskPrioritySet(int tid, int priority);
STATUS taskPriorityGet(int tid, int *priority);
char *taskName(int tid);
int taskNameToId(const char *name);
int taskIdSelf(void);
STATUS taskIdVerify(int tid);
int taskIdListGet(int idList[], int maxTasks);
BOOL taskIsReady(int tid);
BOOL taskIsSuspended(int tid);
kt4Tcb *taskTcb(int tid);
STATUS taskInfoGet(int tid, kt4TaskInfo *desc);
int taskDeleteHookAdd(kt4TaskDeleteHook hook);
int taskDeleteHookDelete(kt4TaskDeleteHook hook);
STATUS kernelTimeSlice(int ticks);
void enableRoundRobin(void);
void disableRoundRobin(void);
int roundRobinIsEnabled(void);

/* ---- Semaphores ---- */

typedef uint32_t kt4SemId; /* a number: entry index + generation x 2304; 0 is no semaphore */

#define KT4_SEM_Q_FIFO 0x00
#define KT4_SEM_Q_PRIORITY 0x01
#define KT4_SEM_DELETE_SAFE 0x04
#define KT4_SEM_INVERSION_SAFE 0x08
#define KT4_SEM_EMPTY 0
#define KT4_SEM_FULL 1

kt4SemId semBCreate(int options, int initialState);
kt4SemId semCCreate(int options, int initialCount);
kt4SemId semMCreate(int options);
STATUS semTake(kt4SemId semId, int timeout);
STATUS semGive(kt4SemId semId);
STATUS semFlush(kt4SemId semId);
STATUS semDelete(kt4SemId semId);

/* ---- Message queues ---- */

typedef struct msg_queue *kt4MsgQId;

#define KT4_MSGQ_FIFO 0x00
#define KT4_MSGQ_PRIORITY 0x01
#define KT4_MSG_PRI_NORMAL 0
#define KT4_MSG_PRI_URGENT 1

kt4MsgQId msgQCreate(int maxMsgs, int maxMsgLength, int options);
STATUS msgQSend(kt4MsgQId msgQId, const char *buffer, unsigned nBytes, int timeout, int priority);
int msgQReceive(kt4MsgQId msgQId, char *buffer, unsigned maxNBytes, int timeout);
int msgQNumMsgs(kt4MsgQId msgQId);
STATUS msgQDelete(kt4MsgQId msgQId);

/* ---- Watchdogs (counted down every tick by tExcTask) ---- */

typedef struct wdog *kt4WdogId;

kt4WdogId wdCreate(void);
STATUS wdStart(kt4WdogId wdId, int delay, kt4WdRoutine routine, kt4_arg_t parameter);
STATUS wdCancel(kt4WdogId wdId);
STATUS wdDelete(kt4WdogId wdId);
void process_timer_list(void);

/* ---- Second-granular timers (counted down every second by tTimerTask) ---- */

typedef struct vx2bsd_timer *VX2BSD_TIMER_ID;
typedef void (*VX2BSD_TIMER_HANDLER)(VX2BSD_TIMER_ID timer, kt4_arg_t argument);

#define VX2BSD_TIMER_PERIODIC 0x01

int vx2bsdTimerLibInit(void);
VX2BSD_TIMER_ID vx2bsdTimerCreate(void);
void vx2bsdTimerConnect(VX2BSD_TIMER_ID timer, VX2BSD_TIMER_HANDLER handler, kt4_arg_t argument);
STATUS vx2bsdTimerStart(VX2BSD_TIMER_ID timer, int count, VX2BSD_TIMER_HANDLER handler,
                        kt4_arg_t argument, unsigned options);
STATUS vx2bsdTimerSetTime(VX2BSD_TIMER_ID timer, int count, unsigned options);
STATUS vx2bsdTimerCancel(VX2BSD_TIMER_ID timer);
STATUS vx2bsdTimerDelete(VX2BSD_TIMER_ID timer);
void process_vx2bsd_timer_list(void);

/* ---- What the families above the task layer use ---- */

/* Id of the task whose control block tcb is (the block a delete hook is given); the calling
 * task's id for a null tcb. */
int kt4TaskIdOfTcb(const kt4Tcb *tcb);
/* The delete hook that kt4VxToBsdInit registers when it starts the process: the task manager's
 * exit hook (kt4TaskExit in <kt4/tme.h>), set by the process start-up wiring before main runs.
 * Null: none. Set it before kt4VxToBsdInit. */
void kt4VxSetStartDeleteHook(kt4TaskDeleteHook hook);

KT4_END_DECLS

#endif /* KT4_VX2BSD_H */
