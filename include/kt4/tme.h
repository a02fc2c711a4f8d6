/*
 * kt4 task registry: the per-process side of the task manager (TME).
 *
 * Every task of every control process is known by a service number (13..363) and an instance
 * (0..31). Its task key is service << 7 | instance << 2, the IPC key with the queue-kind bits
 * zero. This family turns identities into keys, says which task and process stand behind a key,
 * finds the card address of a peer task, announces a task to the task manager when it is ready,
 * and creates tasks, as threads of the caller or as processes of their own.
 *
 * The processes of one card find each other through the card's task table in the shared area
 * (mapped by KT4_NbsdpInit / KT4_ProcShmInit): opening an IPC endpoint registers it there,
 * closing it, task exit and process exit remove it, and a look-up never answers with a
 * process that has died. Without the shared area a process still has its own keys, but finds
 * no peer.
 */
#ifndef KT4_TME_H
#define KT4_TME_H

#include <kt4/common.h>
#include <kt4/ident.h>
#include <kt4/ipc.h>
#include <kt4/vx2bsd.h>

KT4_BEGIN_DECLS

/* ---- Keys ---- */

#define KT4_TME_SERVICE 13       /* the task manager itself */
#define KT4_TASK_MIN_SERVICE 13  /* smallest service a task key may carry */
#define KT4_TASK_MAX_SERVICE 363 /* largest */
#define KT4_TASK_MAX_INSTANCE 31 /* largest instance of a 5-bit key field */

/* key unchanged; reports "Invalid service / inst" first when its service is outside 13..363 */
int kt4TaskGetIpcKey(int key);
/* key >> 7, or -1 (reported) when the service is outside 13..363 */
int kt4TaskGetServiceByKey(int key);
/* (key & 0x7C) >> 2, or -1 (reported) when the service is outside 13..363 */
int kt4TaskGetInstanceByKey(int key);
/* service << 7 | instance << 2, or -1 for a service outside 13..363 or an instance above 31 */
int kt4GetTaskKeyFromServiceAndInst(int service, int instance);

/* Owning task id of the key's record in this process (all ones, i.e. -1, when unclaimed). */
int kt4TaskIdSelf(int key);
/* Process id of the key's record; for a task of another process of the card, the process the
 * card's task table names. -1 for an invalid key or a task that no process runs. */
int kt4ProcIdByKey(int key);
/* kt4GetMyTaskKey: <kt4/ident.h> */

/* ---- Readiness ---- */

#define KT4_TASK_READY_MSG_TYPE 1601 /* 0x641 */
#define KT4_TASK_READY_MSG_LEN 72
#define KT4_TASK_READY_PKT_TYPE 15 /* application word at header offset 24 */

/* Sends the 72-byte ready message for the key's task to this card's task manager (service 13,
 * this card's TME instance) from the task's request queue. 0, or -1 when the send fails. */
int kt4TaskReady(int key);

/* ---- Card globals (the task manager's shared globals; all ones when unset) ---- */

#define KT4_TME_STATE_SERVING 18 /* the task manager's state once it answers look-ups */

uint32_t kt4_sysGetInstance(void);         /* this card's TME instance */
uint32_t kt4_sysGetIpAddr(void);           /* this card's internal IP address, host order */
int kt4_sysSetInstance(uint32_t instance); /* 0, or -1 without the shared area */
int kt4_sysSetIpAddr(uint32_t ipAddr);     /* 0, or -1 without the shared area */
int kt4_tmeGetState(void);                 /* the task manager's state, -1 when unset */
int kt4_tmeSetState(int state);            /* 0, or -1 without the shared area */

/* ---- Peer look-ups ---- */

/* Status of a look-up (the last argument of the calls below) */
#define KT4_TME_PEER_FOUND 0   /* the peer's endpoint is registered: the address is valid */
#define KT4_TME_PEER_PENDING 1 /* the peer is being created and has not opened its endpoint */
#define KT4_TME_PEER_UNKNOWN 2 /* no such peer on this card (yet) */
#define KT4_TME_PEER_INVALID 3 /* service or instance out of range */

/* One look-up, no waiting: the card address (host order) of the task (service, instance),
 * preferring an entry of this card's slot; all ones when not found. status may be null. */
uint32_t kt4_tmeGetPeerIpAddrByName(int service, int instance, int *status);
/* Waits, one second at a time, until the task manager's state is 18, then looks up the task
 * (service, instance) registered by a card in the given slot: this card's table for this
 * card's slot (or a negative slot: any, this card's first); for another slot, the task
 * manager service of that card (below), which answers from its own table. A card whose
 * manager service does not answer within KT4_TME_REMOTE_WAIT_MS gives
 * KT4_TME_PEER_UNKNOWN, as does a card that has none; a slot that has no card address
 * (above 24) gives KT4_TME_PEER_INVALID. Both with all ones. */
uint32_t kt4_tmeGetPeerIpAddrByNameAndSlot(int service, int instance, int slot, int *status);
/* Retries kt4_tmeGetPeerIpAddrByName until it finds the peer, waiting 10 ticks after each of
 * the first nine failures, 20 after the next ten, and so on; all ones (-1) after 100 tries. */
uint32_t kt4_tmeGetTaskIpAddrByName(int service, int instance, int *status);
/* The same; on a process-per-instance system (platform type 9, single virtual system) a task of
 * kind 1 is served by a master control processor (flag 0x400 of its instance-table row selects
 * the second one) and the retries wait 10 ticks each. */
uint32_t kt4_tmeGetTaskIpAddrByName2(int service, int instance, int *status, int kind);

/* ---- The task manager service: look-ups for another card ----
 *
 * Each card runs a task manager service (the program tmed: service 13, instance 0) bound on
 * its card address, kt4GetCpuIpcAddr(slot, 1, ...), which a card of another slot reaches by
 * the slot alone. A look-up is one send-and-wait exchange of two messages, both of message
 * type KT4_TME_PEER_MSG_TYPE and matched by the header's transaction; every integer is
 * big-endian:
 *   request, command type REQ, KT4_TME_PEER_REQ_LEN (72) bytes: the IPC header, then
 *     u32 service at 60, u32 instance at 64, u32 slot at 68 (the slot the asker means);
 *   reply, command type RSP, KT4_TME_PEER_RSP_LEN (68) bytes: the request's header with the
 *     source and target triples exchanged, then
 *     u32 status at 60 (KT4_TME_PEER_*), u32 address at 64 (host order once read; all ones
 *     unless the status is KT4_TME_PEER_FOUND).
 * The service answers only requests for its own slot (another slot: KT4_TME_PEER_UNKNOWN) and
 * from a source address in 127/8; a request of another length, type or command type is
 * counted and dropped without a reply. The asker sends from a socket of its own on its card
 * address, so that a look-up never takes a reply meant for the calling task's endpoint; it
 * sends at most twice, waiting KT4_TME_REMOTE_WAIT_MS / 2 each time, and gives up at once
 * when the card refuses the datagram (no service bound there). */
#define KT4_TME_PEER_INSTANCE 0
#define KT4_TME_PEER_MSG_TYPE 1602 /* 0x642, the task manager's module (4) */
#define KT4_TME_PEER_REQ_LEN 72
#define KT4_TME_PEER_REQ_SERVICE 60
#define KT4_TME_PEER_REQ_INSTANCE 64
#define KT4_TME_PEER_REQ_SLOT 68
#define KT4_TME_PEER_RSP_LEN 68
#define KT4_TME_PEER_RSP_STATUS 60
#define KT4_TME_PEER_RSP_ADDR 64
#define KT4_TME_REMOTE_WAIT_MS 1000
#define KT4_TME_MAX_SLOT 24 /* the highest slot with a card address (slot * 10 + 13 <= 255) */

/* The wait between look-up tries: by default taskDelay(ticks). A test or a simulator may put
 * its own in place (null restores the default); it is process-wide. */
typedef void (*kt4TmeRetryWaitFn)(int ticks, void *arg);
void kt4_tmeSetRetryWait(kt4TmeRetryWaitFn fn, void *arg);

/* ---- Creating tasks ---- */

#define KT4_TASK_AS_THREAD 0  /* a task (thread) of the calling process, through taskSpawn */
#define KT4_TASK_AS_PROCESS 1 /* a process of its own: fork, then exec of $KT4_ROOT/<program> */
#define KT4_TASK_MAX_ARGS 24  /* words a process task's argument string may hold */
/* A process task's command line ends with KT4_TASK_SYS_ARGS words for the system, after the
 * words of its argument string (KT4_NbsdpInit reads the first two and the last):
 *   argv[argc-8] its process health record (one no live process uses), argv[argc-7] the
 *   record's refresh period in seconds, argv[argc-6] its service, argv[argc-5] its instance,
 *   argv[argc-4] the creating process's pid, argv[argc-3] the creating task's id,
 *   argv[argc-2] the card's slot, argv[argc-1] the size of the card's shared area.
 * A process's own words are argv[1] .. argv[argc-9]. To start a process by hand on a card,
 * use "kt4card run --service N [--instance N] -- PROGRAM WORD...": it passes a free health
 * record, period 1, its own pid and task id (0: its main thread) as the creator's, and stays
 * the process's registered parent, so that kt4_taskSpawn finds the parent at once. */
#define KT4_TASK_SYS_ARGS 8

/*
 * Creates the task (service, instance) named name. The calling task must own a record (have
 * opened an endpoint): it becomes the new task's parent.
 *   KT4_TASK_AS_THREAD:  spawns entry(arg, key, 0, ...) with priority, options and stackSize as
 *                        taskSpawn takes them; returns the new task id. The task owns its record
 *                        before entry runs.
 *   KT4_TASK_AS_PROCESS: forks and executes $KT4_ROOT/program (or program itself when it is an
 *                        absolute path) with the words of args (split on " \t\n") and the
 *                        system words above; returns the child's pid once the exec succeeded.
 * -1 with errno: EEXIST when the service and instance are already in use, EINVAL for a bad
 * service, instance or mode, ENOENT when the caller has no record, E2BIG for too many words,
 * or the errno of the failed spawn, fork or exec.
 */
int kt4TaskCreate(const char *name, int service, int instance, int how, int priority, int options,
                  int stackSize, kt4TaskEntry entry, kt4_arg_t arg, const char *program,
                  const char *args);

/*
 * In a process created by kt4TaskCreate (or any process that joins the card): spawns the task
 * (service, instance) as a thread of this process, as kt4TaskCreate does, after waiting for the
 * parent process (getppid()) to be registered: up to 3 tries, one second apart. A parent never
 * found is reported and asserted; the task is spawned all the same. Returns the task id, or -1
 * (errno EEXIST) when the service and instance are in use by another task.
 * A process started from a shell has no registered parent and would wait the 3 seconds: start
 * it with "kt4card run", or spawn with kt4_taskSpawnP(..., 0). The task's priority, options
 * and stack size are taskSpawn's: ordinary tasks use priority 100, options 0 and stack size 0
 * (the host's default stack).
 */
int kt4_taskSpawn(const char *name, int priority, int options, int stackSize, kt4TaskEntry entry,
                  int service, int instance, kt4_arg_t arg);
/* The same with the parent process named: parentPid 0 spawns without waiting for a parent. */
int kt4_taskSpawnP(const char *name, int priority, int options, int stackSize, kt4TaskEntry entry,
                   int service, int instance, kt4_arg_t arg, int parentPid);

/* Options of kt4TaskStartup */
#define KT4_TASK_STARTUP_TIMER_Q 0x1  /* open the timer queue too */
#define KT4_TASK_STARTUP_NO_READY 0x2 /* do not send the ready message */

/* Opens the calling task's IPC endpoint for key (request and response queues, and the timer
 * queue on request), registers it on the card and announces the task with kt4TaskReady.
 * Returns the key, or -1 when the sockets cannot be opened. */
int kt4TaskStartup(int key, int options);

/* The task manager's exit hook, which kt4VxToBsdInit registers as a delete hook: it is called
 * for every task that ends and releases the task's records, here and on the card. */
void kt4TaskExit(kt4Tcb *tcb, const char *name);

/* ---- Send-and-wait by name ---- */

/* Send-and-wait from the calling task to (service, instance) wherever it runs: 0 or -1. */
int anyTaskIpcSendAndWait(uint32_t msgType, void *msg, int len, int service, int instance,
                          void *reply, int replySize);
/* The same, but the target's address comes from the task manager's retrying look-up for a
 * request queue (kt4_tmeGetTaskIpAddrByName2): it waits for a peer that is still starting,
 * and on a process-per-instance system reaches the master control card that serves the
 * service. anyTaskIpcSendAndWait looks once and fails at once when the peer is unknown. */
int anyTaskIpcSendAndWait2(uint32_t msgType, void *msg, int len, int service, int instance,
                           void *reply, int replySize);

KT4_END_DECLS

#endif /* KT4_TME_H */
