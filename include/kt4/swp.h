/*
 * kt4 reliable sequenced queues (SWP/MWP): one-way message streams from a sender task to a
 * receiver task (service, instance) over messaging, with 64-bit sequence numbers, a window of
 * messages in flight, retransmission on a timer or a negative acknowledgement, and a user
 * callback that names the message given up and why. Queue lists spread message groups over
 * several such queues.
 *
 * Every call returns one of the status codes below (kt4SwpGetErr gives the text).
 *
 * ---- The queue table ----------------------------------------------------------------------
 * 901 control blocks in the card's shared area (handles 1..900; block 0 is never used),
 * claimed and released under shared-memory lock 2. A block is driven by the process that
 * created it: its messages, timer and callbacks live in that process. A block whose creating
 * process has died would otherwise be held for ever: create reclaims such blocks (in use, pid
 * no longer alive) under lock 2 before it looks for a free one, and kt4SwpReclaimDead does the
 * same on demand; each reclaim is reported.
 *
 * ---- Messages ----------------------------------------------------------------------------
 * A message given to kt4SwpEnqueue is at least KT4_SWP_MSG_MIN (128) bytes: the 60-byte IPC
 * header, the 68-byte SWP header (17 big-endian words, KT4_SWP_W_* below), then the
 * application's bytes. The queue fills both headers when it sends. On an ICL queue the
 * message starts with an ICL header whose length is the 16-bit word at offset 24 of the
 * message; the SWP header follows it. The buffer belongs to the queue from a successful
 * enqueue (status 0) on, and goes to the queue's free function when it is acknowledged,
 * flushed or removed. On status 7 or 4 the caller keeps it.
 *
 * Data messages go to the receiver's request queue. Their source triple names the sender's
 * response queue, or its timer queue when the queue was created with the alternate-source
 * flag ("use Tmrq for ack", kt4SwpQueueCreateTmrQAck_p): that is where the acknowledgements,
 * the negative acknowledgements and the queue's own timer events arrive. The sender task
 * receives on that queue and hands every message of type KT4_SWP_MT_* to kt4SwpProcMsg
 * (or to kt4SwpProcAck, kt4SwpResend and kt4SwpTimeout itself).
 *
 * ---- Acknowledgements (receiver -> sender), KT4_SWP_ACK_LEN bytes ---------------------------
 * IPC header (message type KT4_SWP_MT_ACK or KT4_SWP_MT_NACK, target = the data message's
 * source triple), then big-endian words at these offsets:
 *   60 queue handle (word 0 of the data message's SWP header)
 *   64, 68 sequence number: acknowledged (ACK) or expected (NACK), high then low
 *   72, 76 the receiver's next expected sequence number: every message below it has been
 *          accepted (the sender dequeues up to it, so a lost acknowledgement is made good by
 *          the next one)
 *   80, 84 receiver service and instance
 *   88, 92 the data message's send time stamp (seconds, nanoseconds), echoed
 *   96, 100 when the receiver took the data message (monotonic clock)
 *   104, 108 when the acknowledgement was sent
 * The sender measures the message half round trip as (96,100) - (88,92) and the
 * acknowledgement half round trip as its own receipt - (104,108), in microseconds. Both
 * sides read the same monotonic clock only on one card; over the ICL, the stamps are still
 * carried but the figures mean only the differences of the two clocks.
 * A negative acknowledgement is sent by the receiver for a sequence number above the
 * expected one: the sender takes its "next expected" as an acknowledgement of what lies below
 * it and resends the head message.
 * An acknowledgement or negative acknowledgement that is not the queue's own is dropped with
 * status 5: one echoing a send time stamp (non-zero) from before the queue was created, or
 * naming as next expected a number the queue has not sent. Such are the late acknowledgements
 * of an earlier queue that had the same handle (removed, or its process died and the block was
 * taken back); taken, they would dequeue messages the receiver never had.
 *
 * Timer events (sender -> itself), KT4_SWP_TMR_LEN bytes: IPC header (type KT4_SWP_MT_TIMER)
 * then 60 handle, 64/68 the head sequence number when the timer was started. The vx2bsd
 * timer's handler only posts the event; the queue is served in the sender's task.
 *
 * ---- Status 16 ---------------------------------------------------------------------------
 * kt4SwpTimeout returns 16 ("no more timeouts") for a timer event that finds no message to
 * retransmit and no timeout pending: an event that the queue no longer expects.
 *
 * ---- ICL -------------------------------------------------------------------------------------
 * The inter-chassis link of an MCLAG pair belongs to the MCLAG side of the system. It offers
 * the queues a kt4SwpIclOps (send one PDU, tell whether the link is up) registered with
 * kt4SwpIclRegister, and reports link changes with kt4SwpIclLinkChanged. kt4SwpIclUdp* below
 * is a UDP implementation of it (for tests and development cards).
 */
#ifndef KT4_SWP_H
#define KT4_SWP_H

#include <kt4/common.h>

KT4_BEGIN_DECLS

/* ---- Status codes ---- */
#define KT4_SWP_SUCCESS 0
#define KT4_SWP_SEQ_MATCH 1
#define KT4_SWP_SEQ_ONE_LESS 2
#define KT4_SWP_SEQ_ERROR 3
#define KT4_SWP_FAILURE 4
#define KT4_SWP_FAILURE_ACK 5
#define KT4_SWP_FAILURE_SEQ 6
#define KT4_SWP_FAILURE_QFULL 7
#define KT4_SWP_FAILURE_TIMER_EXP 8
#define KT4_SWP_FAILURE_NO_RETRANS 9
#define KT4_SWP_FAILURE_SEND_SENDER 10
#define KT4_SWP_FAILURE_SEND_RECEIVER 11
#define KT4_SWP_FAILURE_TIMER_RESET 12
#define KT4_SWP_FAILURE_TIMER_CANCEL 13
#define KT4_SWP_FAILURE_FIFO_INSERT 14
#define KT4_SWP_FAILURE_FIFO_DELETE 15
#define KT4_SWP_FAILURE_NO_TIMEOUTS 16

/* Nonzero: the per-message debug texts (sequence checks, dequeues, acknowledgements sent,
 * resends) go to the trace. Default 0. */
extern int kt4SwpDebug;

/* The text of a status code; null for 17 or more. */
const char *kt4SwpGetErr(uint32_t code);

#define KT4_SWP_MAX_QUEUES 900
#define KT4_SWP_TABLE_BLOCKS 901
#define KT4_SWP_UNLIMITED 0xFFFFFFFFu
#define KT4_SWP_DEFAULT_MEM_LIMIT 52428800u

/* ---- Wire layout ---- */
#define KT4_SWP_HDR_OFF 60 /* SWP header after the IPC header */
#define KT4_SWP_HDR_LEN 68
#define KT4_SWP_MSG_MIN 128 /* IPC + SWP headers */
/* SWP header words (index of the big-endian u32 after the IPC or ICL header) */
#define KT4_SWP_W_HANDLE 0
#define KT4_SWP_W_SEQ_HI 1
#define KT4_SWP_W_SEQ_LO 2
#define KT4_SWP_W_WINDOW 3
#define KT4_SWP_W_SEND_SVC 4
#define KT4_SWP_W_SEND_INST 5
#define KT4_SWP_W_RECV_SVC 6
#define KT4_SWP_W_RECV_INST 7
#define KT4_SWP_W_LENGTH 11
#define KT4_SWP_W_TIME_SEC 13
#define KT4_SWP_W_TIME_NSEC 14
#define KT4_SWP_W_QLEN 16

/* Control messages: message types of module 1 (SWP). */
#define KT4_SWP_MT_ACK 401
#define KT4_SWP_MT_NACK 402
#define KT4_SWP_MT_TIMER 403
#define KT4_SWP_ACK_LEN 112
#define KT4_SWP_ACK_HANDLE 60
#define KT4_SWP_ACK_SEQ 64
#define KT4_SWP_ACK_NEXT 72
#define KT4_SWP_ACK_RECV_SVC 80
#define KT4_SWP_ACK_RECV_INST 84
#define KT4_SWP_ACK_DATA_SENT 88
#define KT4_SWP_ACK_DATA_RECV 96
#define KT4_SWP_ACK_SENT 104
#define KT4_SWP_TMR_LEN 72
#define KT4_SWP_TMR_HANDLE 60
#define KT4_SWP_TMR_SEQ 64

/* ---- Callbacks ---- */
typedef void *(*kt4SwpAllocFn)(uint32_t size, void *arg);
typedef void (*kt4SwpFreeFn)(void *buffer);
/* Called with the message concerned (null when none) and the status that says why. */
typedef void (*kt4SwpUsrCb)(void *buffer, uint32_t status);
/* Called with the argument and the queue's length when it falls below the threshold. */
typedef void (*kt4SwpQLenCb)(void *arg, uint32_t length);

/* ---- Creation ----
 * Arguments: EV key; maximum length (0: unlimited); timeout interval in ticks (the vx2bsd
 * timer, which counts whole seconds, runs ceil(interval / 50) + 1 of them, so that it never
 * fires before the interval has passed); maxTrans (1..255); sender service and
 * instance; the sender's IPC key (its endpoint must be open); receiver service and instance
 * (its endpoint must be registered on the card); the IPC message type of the data messages;
 * allocation function and argument for the queue's own records (null: zeroed system memory;
 * given, it needs its free function), free function for the records and the messages (null:
 * KT4_FREE, so the messages must then come from KT4_MALLOC); the user callback (required);
 * alternate-source flag; MWP window (0 counts as 1); ICL flag. The handle is stored through handle.
 */
uint32_t kt4SwpQueueCreate(uint32_t evtLogKey, uint32_t maxLen, uint32_t timeoutInt,
                           uint32_t maxTrans, uint32_t sendSvc, uint32_t sendInst, int ipcKey,
                           uint32_t recvSvc, uint32_t recvInst, uint32_t msgType, kt4SwpUsrCb usrCb,
                           uint32_t *handle);
uint32_t kt4SwpQueueCreateQs(uint32_t evtLogKey, uint32_t maxLen, uint32_t timeoutInt,
                             uint32_t maxTrans, uint32_t sendSvc, uint32_t sendInst, int ipcKey,
                             uint32_t recvSvc, uint32_t recvInst, uint32_t msgType,
                             kt4SwpUsrCb usrCb, uint32_t altSrcQ, uint32_t *handle);
uint32_t kt4SwpQueueCreate_p(uint32_t evtLogKey, uint32_t maxLen, uint32_t timeoutInt,
                             uint32_t maxTrans, uint32_t sendSvc, uint32_t sendInst, int ipcKey,
                             uint32_t recvSvc, uint32_t recvInst, uint32_t msgType,
                             kt4SwpAllocFn allocFn, void *allocArg, kt4SwpFreeFn freeFn,
                             kt4SwpUsrCb usrCb, uint32_t *handle);
uint32_t kt4MwpQueueCreate_p(uint32_t evtLogKey, uint32_t maxLen, uint32_t timeoutInt,
                             uint32_t maxTrans, uint32_t sendSvc, uint32_t sendInst, int ipcKey,
                             uint32_t recvSvc, uint32_t recvInst, uint32_t msgType,
                             kt4SwpAllocFn allocFn, void *allocArg, kt4SwpFreeFn freeFn,
                             kt4SwpUsrCb usrCb, uint32_t window, uint32_t *handle);
uint32_t kt4MwpQueueCreateQs_p(uint32_t evtLogKey, uint32_t maxLen, uint32_t timeoutInt,
                               uint32_t maxTrans, uint32_t sendSvc, uint32_t sendInst, int ipcKey,
                               uint32_t recvSvc, uint32_t recvInst, uint32_t msgType,
                               kt4SwpAllocFn allocFn, void *allocArg, kt4SwpFreeFn freeFn,
                               kt4SwpUsrCb usrCb, uint32_t altSrcQ, uint32_t window,
                               uint32_t *handle);
/* Acknowledgements arrive on the sender's timer queue. */
uint32_t kt4SwpQueueCreateTmrQAck_p(uint32_t evtLogKey, uint32_t maxLen, uint32_t timeoutInt,
                                    uint32_t maxTrans, uint32_t sendSvc, uint32_t sendInst,
                                    int ipcKey, uint32_t recvSvc, uint32_t recvInst,
                                    uint32_t msgType, kt4SwpAllocFn allocFn, void *allocArg,
                                    kt4SwpFreeFn freeFn, kt4SwpUsrCb usrCb, uint32_t *handle);
/* A queue to the MCLAG peer over the ICL: no look-up of the receiver on this card. */
uint32_t kt4MwpIclQueueCreate(uint32_t evtLogKey, uint32_t maxLen, uint32_t timeoutInt,
                              uint32_t maxTrans, uint32_t sendSvc, uint32_t sendInst, int ipcKey,
                              uint32_t recvSvc, uint32_t recvInst, uint32_t msgType,
                              kt4SwpAllocFn allocFn, void *allocArg, kt4SwpFreeFn freeFn,
                              kt4SwpUsrCb usrCb, uint32_t window, uint32_t *handle);

/* ---- Sender ---- */
uint32_t kt4SwpEnqueue(uint32_t handle, void *buffer, uint32_t length);
/* Acknowledges sequence number (hi, lo) of the queue: 0 when the head went, 2 for a
 * duplicate (below the head), 5 for one above the head. */
uint32_t kt4SwpDequeue(uint32_t handle, uint32_t seqHi, uint32_t seqLo);
/* An acknowledgement message as laid out above. */
uint32_t kt4SwpProcAck(const void *msg, int len);
/* A negative acknowledgement message. */
uint32_t kt4SwpResend(const void *msg, int len);
/* A timer event message. */
uint32_t kt4SwpTimeout(const void *msg, int len);
/* Any of the three, by message type; 4 for anything else. */
uint32_t kt4SwpProcMsg(const void *msg, int len);
/* Drops the messages still waiting to be sent (to the free function). Messages in flight
 * stay: they carry numbers the receiver expects, and the stream goes on without a gap. */
uint32_t kt4SwpQueueFlush(uint32_t handle);
/* Cancels and deletes the timer, frees every held message through the free function and
 * releases the block under lock 2. */
uint32_t kt4SwpQueueRemove(uint32_t handle);
/* Releases the blocks of processes that have died; the number released. */
int kt4SwpReclaimDead(void);

/* ---- Receiver ---- */
typedef struct kt4SwpSeqNo {
    uint32_t hi;
    uint32_t lo;
} kt4SwpSeqNo;
/* 1 accepted (expected advanced; 0.0 restarts at 0.1), 2 below expected, 4 above expected;
 * 3 for a message too short to hold the headers. */
uint32_t kt4SwpCkSeqNo(const void *msg, int len, kt4SwpSeqNo *expected);
/* Sends the acknowledgement (nack = 0) or negative acknowledgement (nack = 1) for a data
 * message from the receiver's endpoint key: 0, or 11 when the send failed. */
uint32_t kt4SwpReceiverAck(int key, const void *msg, int len, const kt4SwpSeqNo *expected,
                           int nack);
/* Check, then (flag != 0) acknowledge: 1 and 2 are acknowledged, 4 negatively. */
uint32_t kt4SwpCkSeqAndAck(int key, const void *msg, int len, kt4SwpSeqNo *expected, int flag);
/* Counters of kt4SwpCkSeqNo, process-wide. */
uint32_t kt4SwpRecvBelowExpected(void);
uint32_t kt4SwpRecvAboveExpected(void);

/* A receiving stream: keeps messages that arrive above the expected number (up to capacity)
 * and hands them to deliver in order once the gap is filled, acknowledges and negatively
 * acknowledges as kt4SwpCkSeqAndAck does, and (kt4SwpRxPoll) repeats the negative
 * acknowledgement while a gap stays open, so that a lost one does not wait for the sender's
 * timer. Every message reaches deliver exactly once, in order. One stream per queue: after
 * its first message (0.0), a 0.0 of the same handle is a copy, not a new start (a queue that
 * is created again needs a new stream). */
typedef struct kt4SwpRx kt4SwpRx;
typedef void (*kt4SwpRxDeliver)(void *arg, const void *msg, int len);
kt4SwpRx *kt4SwpRxCreate(int key, uint32_t capacity, kt4SwpRxDeliver deliver, void *arg);
/* One received data message: the status of its check (1, 2, 4 or 3). */
uint32_t kt4SwpRxPut(kt4SwpRx *rx, const void *msg, int len);
/* Repeats the negative acknowledgement when a gap has been open for nackMs; with no gap,
 * repeats the last acknowledgement when nothing arrived for nackMs (then 2x, 4x that; three
 * times at most per quiet spell). 1 when something was sent. */
int kt4SwpRxPoll(kt4SwpRx *rx, uint32_t nackMs);
kt4SwpSeqNo kt4SwpRxExpected(const kt4SwpRx *rx);
void kt4SwpRxDestroy(kt4SwpRx *rx);

/* ---- Settings and queries ---- */
uint32_t kt4SwpSetMwpQWinSize(uint32_t handle, uint32_t size);
uint32_t kt4SwpGetMwpQWinSize(uint32_t handle, uint32_t *size);
uint32_t kt4SwpSetMaxMemoryAllowed(uint32_t handle, uint32_t bytes);
uint32_t kt4SwpSetQLenCallBack(kt4SwpQLenCb fn, void *arg, uint32_t handle, uint32_t threshold);
/* Options of a queue. */
#define KT4_SWP_OPT_RECEIVER_ADDR 1 /* value: receiver IPv4 address, host order (a relay) */
#define KT4_SWP_OPT_MAX_TRANS 2     /* value: 1..255 */
#define KT4_SWP_OPT_ALT_SRC_Q 3     /* value: 0 or 1 */
uint32_t kt4SwpSetQOption(uint32_t handle, uint32_t option, uint32_t value);
/* A new timeout interval (ticks, nonzero); takes effect at the next timer start. */
uint32_t kt4SwpReprogramTimeout(uint32_t handle, uint32_t timeoutInt);

typedef struct kt4SwpQueueStatus {
    uint32_t curLen, maxLen, inFlight, window;
    uint32_t acks, retrans, timeouts, flushes, ipcFails, iclSendFails, queueFull;
    uint32_t timerRestarts;
    uint32_t retransLeft, maxTrans;
    uint64_t memUsed, memLimit, maxMemUsed;
    kt4SwpSeqNo nextSeq; /* the number the next enqueued message gets */
    kt4SwpSeqNo headSeq; /* the first unacknowledged (valid while curLen > 0) */
} kt4SwpQueueStatus;
uint32_t kt4SwpGetQueueStatus(uint32_t handle, kt4SwpQueueStatus *status);
uint32_t kt4SwpQueueGetLen(uint32_t handle, uint32_t *length);
/* The sequence number the next message sent will carry (0.0 for a new queue: numbers are
 * given when a message is first sent, so a flush of waiting messages leaves no gap). */
uint32_t kt4SwpGetSeqNo(uint32_t handle, uint32_t *seqHi, uint32_t *seqLo);
/* 1 while retransmissions are left, 0 otherwise (and for a bad handle). */
int kt4SwpIsQueueAlive(uint32_t handle);
uint32_t kt4SwpPrintq(uint32_t handle);
void kt4SwpPrintAllq(void);

/* 64-bit sequence helpers: 1 when A < B, 2 when A > B, 0 when equal. */
int swp64BitCmp(uint32_t hiA, uint32_t loA, uint32_t hiB, uint32_t loB);
void swp64BitIncr(uint32_t *hi, uint32_t *lo);

/* ---- ICL transport ---- */
typedef struct kt4SwpIclOps {
    int (*send)(void *ctx, const void *pdu, int len); /* 0, or -1 */
    int (*linkUp)(void *ctx);                         /* nonzero while the link is up */
} kt4SwpIclOps;
/* The process's ICL link (null ops: none). */
void kt4SwpIclRegister(const kt4SwpIclOps *ops, void *ctx);
typedef void (*kt4SwpIclLinkCb)(void *arg, int up);
void kt4SwpIclSetLinkCallback(kt4SwpIclLinkCb cb, void *arg);
/* The transport reports a change of the link. */
void kt4SwpIclLinkChanged(int up);
/* The ICL header of acknowledgement PDUs: length 28 at offset 24 (u16), PDU type at 26. */
#define KT4_SWP_ICL_HDR_LEN 28
#define KT4_SWP_ICL_PDU_DATA 1
#define KT4_SWP_ICL_PDU_SWP_ACK 2 /* MCLAGCTRL_PDU_SWP_ACK */

/* UDP implementation: a socket bound to (localAddr, localPort) exchanging PDUs with
 * (peerAddr, peerPort); addresses in host order. The link is up until set down. */
typedef struct kt4SwpIclUdp kt4SwpIclUdp;
kt4SwpIclUdp *kt4SwpIclUdpOpen(uint32_t localAddr, uint16_t localPort, uint32_t peerAddr,
                               uint16_t peerPort);
const kt4SwpIclOps *kt4SwpIclUdpOps(void);
int kt4SwpIclUdpFd(const kt4SwpIclUdp *icl);
/* Waits up to timeoutMs for a PDU; its length, 0 on timeout, -1 on error. */
int kt4SwpIclUdpRecv(kt4SwpIclUdp *icl, void *buf, int size, int timeoutMs);
void kt4SwpIclUdpSetLink(kt4SwpIclUdp *icl, int up);
void kt4SwpIclUdpClose(kt4SwpIclUdp *icl);

/* ---- Queue lists ---- */
#define KT4_SWP_QLIST_QIDX_OFF 128
#define KT4_SWP_QLIST_GRP_OFF 132
#define KT4_SWP_QLIST_MSG_MIN 136
extern int swp_qlist_info_dbg;
extern int swp_qlist_err_dbg;

typedef struct kt4SwpQListEntry {
    uint32_t handle;
    uint32_t groups;
} kt4SwpQListEntry;
typedef struct kt4SwpQList {
    kt4SwpQListEntry *queues;
    uint32_t numQueues;
    uint32_t numGroups;
    uint32_t *groupMap; /* queue index per group, all ones when unassigned */
    uint32_t evtLogKey;
} kt4SwpQList;
typedef struct kt4SwpExpSeqList {
    kt4SwpSeqNo *expected;
    uint32_t numQueues;
} kt4SwpExpSeqList;

uint32_t kt4SwpQListCreate(uint32_t evtLogKey, uint32_t maxLen, uint32_t timeoutInt,
                           uint32_t maxTrans, uint32_t sendSvc, uint32_t sendInst, int ipcKey,
                           uint32_t recvSvc, uint32_t recvInst, uint32_t msgType,
                           kt4SwpAllocFn allocFn, void *allocArg, kt4SwpFreeFn freeFn,
                           kt4SwpUsrCb usrCb, uint32_t window, kt4SwpQList **list,
                           uint32_t numQueues, uint32_t numGroups);
uint32_t kt4SwpQListRemove(kt4SwpQList *list);
uint32_t kt4SWPQListAddMsgGroup(kt4SwpQList *list, uint32_t group);
uint32_t kt4SWPQListRemoveMsgGroup(kt4SwpQList *list, uint32_t group);
uint32_t kt4SWPQListEnqueue(kt4SwpQList *list, uint32_t group, void *buffer, uint32_t length);
uint32_t kt4SWPQListGetQHandle(kt4SwpQList *list, uint32_t group, uint32_t *handle);
uint32_t kt4SwpQListGetLen(kt4SwpQList *list);
uint32_t kt4SwpQListGetQLen(kt4SwpQList *list, uint32_t queueIndex, uint32_t *length);
uint32_t kt4SwpQListCreateExpSeqList(kt4SwpExpSeqList **list, uint32_t numQueues);
uint32_t kt4SwpQListRemoveExpSeqList(kt4SwpExpSeqList *list);
uint32_t kt4SwpQListCkSeqAndAck(int key, const void *msg, int len, kt4SwpExpSeqList *list,
                                int flag);
uint32_t kt4SwpQListFlushGroup(kt4SwpQList *list, uint32_t group, int flag);
uint32_t kt4SwpQListFlush(kt4SwpQList *list);
void kt4SwpQListPrint(const kt4SwpQList *list);
void kt4SwpQListExpSeqListPrint(const kt4SwpExpSeqList *list);

KT4_END_DECLS

#endif /* KT4_SWP_H */
