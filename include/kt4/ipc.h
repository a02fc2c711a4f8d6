/*
 * kt4 messaging (IPC): endpoint naming, the message header, endpoints and their sockets,
 * plain, guaranteed and send-and-wait delivery.
 *
 * A task is named by a service (13..363) and an instance (0..31). Its IPC key is
 * service << 7 | instance << 2; a queue id adds the queue kind in the low two bits
 * (1 request, 2 response, 3 timer) and its low 16 bits are the UDP port of the queue's
 * socket, bound on the card's internal CPU address (127/8).
 *
 * Every message starts with the 60-byte IPC header, all integers big-endian. Read and write
 * its fields with kt4IpcHdrGet/kt4IpcHdrSet (they convert byte order) and fill the address
 * triples with kt4IpcSetSourceHeader/kt4IpcSetTargetHeader. Addresses passed to and
 * returned by this interface are IPv4 addresses in host order (127.10.10.10 is 0x7F0A0A0A).
 *
 * Results: -1 with errno for failures unless a call says otherwise.
 *
 * A queue's port is its socket's alone. The sockets are not given SO_REUSEADDR (which the
 * system's design sets): on the system's original host that option never let a second socket
 * bind the same unicast UDP address and port, but on Linux it lets any socket of any user
 * that also sets it share the port and take the queue's datagrams. Without it no other
 * socket, of this user or another, can bind an open queue's address and port (nor the
 * wildcard address at that port). The reverse also holds: a port that something else holds
 * makes the open fail (after the bind retries) rather than share it.
 *
 * An endpoint belongs to one process of the card. kt4IpcOpen claims (service, instance) in
 * the card's task table before it makes any socket: while a live process of the card holds
 * it, the open fails with EEXIST and names that process; an endpoint whose process has died
 * is taken over.
 */
#ifndef KT4_IPC_H
#define KT4_IPC_H

#include <kt4/common.h>
#include <kt4/ident.h>

KT4_BEGIN_DECLS

/* ---- Keys and queue ids -------------------------------------------------------------- */

#define KT4_IPC_QUEUE_NONE 0
#define KT4_IPC_QUEUE_REQ 1
#define KT4_IPC_QUEUE_RSP 2
#define KT4_IPC_QUEUE_TMR 3

/* KT4_IPC_MIN_SERVICE, KT4_IPC_MAX_SERVICE and the large-instance range: <kt4/ident.h> */

int maxService(void);                   /* 366 */
int kt4IpcGetService(int key);          /* key >> 7 */
int kt4IpcGetInstance(int key);         /* (key & 0x7C) >> 2 */
int kt4IpcGetServiceFromSvce(int key);  /* (key >> 7) & 0x1FF */
int kt4IpcGetInstanceFromSvce(int key); /* (key >> 2) & 31 */
int kt4_getQueueId(int service, int instance, int kind);
int kt4_getQueueIdInPE(int service, int instance, int kind);

/* Queue ids of an open endpoint: 0 when that queue is not open. */
int Key_getReqQueue(int key);
int Key_getRspQueue(int key);
int Key_getTmrQueue(int key); /* also clears bit 0 of the endpoint's event flags */
int Key_getAllQueue(int key); /* key | 1, unconditionally */
/* Socket descriptor of a queue, or -1 when the queue is not open. */
int Key_getSocketFd(int queueId);

/* The calling task's IPC key and service (from the task registry). */
int getIpcKey(int service, int ignored, int *key);
int getSrvcId(void); /* 255 when the task has no key */

/* Nonzero in a relay process: its queue ids are never the large-instance form. */
extern int gIsRelayTask;

/* ---- Internal CPU addresses ---------------------------------------------------------- */

/* 127.<chassis+10>.10.<slot*10+10 (cpu 3: +13)>, mask 255.240.0.0; -1 for null pointers. */
int kt4GetCpuIpcAddr(int slot, int cpu, uint32_t *address, uint32_t *mask);
/* Process-per-instance systems: 127.20.20.<slot*10+cpu+10 (cpu 3: +13)>. */
int kt4GetCpuIpcAddrInPE(int slot, int cpu, uint32_t *address, uint32_t *mask);
/* The address this process binds its queues to (this card's CPU address). */
uint32_t kt4IpcGetLocalCpuIpAddr(void);
/* The secondary IPC address that large-instance endpoints (kt4IpcOpen2) bind to; all ones
 * (the default) means none. */
void kt4IpcSetSecondaryIpcAddress(uint32_t address);
uint32_t kt4IpcGetSecondaryIpcAddress(void);

/* ---- Message header ------------------------------------------------------------------ */

#define KT4_IPC_HDR_LEN 60
#define KT4_IPC_MAGIC 0xFEEDBEAFu

/* Header fields for kt4IpcHdrGet/kt4IpcHdrSet. */
typedef enum kt4IpcHdrField {
    KT4_IPC_HDR_MAGIC,       /* u32 at 0 */
    KT4_IPC_HDR_CMD_TYPE,    /* u8 at 4 */
    KT4_IPC_HDR_CMD_FLAGS,   /* u8 at 5 */
    KT4_IPC_HDR_GRT_TAG,     /* u16 at 6 */
    KT4_IPC_HDR_LENGTH,      /* u32 at 8 */
    KT4_IPC_HDR_MSG_TYPE,    /* u32 at 12 */
    KT4_IPC_HDR_APP0,        /* u32 at 16: application words, not read by IPC */
    KT4_IPC_HDR_APP1,        /* u32 at 20 */
    KT4_IPC_HDR_APP2,        /* u32 at 24 (the packet type of guaranteed IPC's texts) */
    KT4_IPC_HDR_APP3,        /* u32 at 28 */
    KT4_IPC_HDR_TRANSACTION, /* u32 at 32 */
    KT4_IPC_HDR_SRC_SLOT,    /* u32 at 36 */
    KT4_IPC_HDR_SRC_ADDR,    /* u32 at 40 */
    KT4_IPC_HDR_SRC_QID,     /* u32 at 44 */
    KT4_IPC_HDR_TGT_SLOT,    /* u32 at 48 */
    KT4_IPC_HDR_TGT_ADDR,    /* u32 at 52 */
    KT4_IPC_HDR_TGT_QID      /* u32 at 56 */
} kt4IpcHdrField;

/* Reads or writes one header field in host order (the message holds it big-endian). A null
 * message is refused with errno EINVAL: kt4IpcHdrGet then returns 0 and the setters below
 * change nothing. */
uint32_t kt4IpcHdrGet(const void *msg, kt4IpcHdrField field);
void kt4IpcHdrSet(void *msg, kt4IpcHdrField field, uint32_t value);

/* Command types (header byte 4). */
#define KT4_IPC_CMD_DEF 0
#define KT4_IPC_CMD_GUARANTEED_ACK 6
#define KT4_IPC_CMD_GUARANTEED_SEND 7
#define KT4_IPC_CMD_GUARANTEED_ACK_FIRST 8
#define KT4_IPC_CMD_GUARANTEED_SEND_FIRST 9
#define KT4_IPC_CMD_ACK 10
#define KT4_IPC_CMD_GRT 11
#define KT4_IPC_CMD_RSP 12
#define KT4_IPC_CMD_REQ 13

const char *kt4IpcGetCmdTypeName(int type);

/* The two calls order their arguments differently, and both orders are the system's:
 *   kt4IpcSetSourceHeader(msg, slot, service, instance)           -- no address: this card's
 *   kt4IpcSetTargetHeader(msg, address, slot, service, instance)  -- the address comes first
 * Source triple: slot, this card's CPU address, response queue of (service, instance). */
void kt4IpcSetSourceHeader(void *msg, int slot, int service, int instance);
/* Target triple: slot, address, request queue (ToRspQ: response queue) of (service, inst). */
void kt4IpcSetTargetHeader(void *msg, uint32_t address, int slot, int service, int instance);
void kt4IpcSetTargetHeaderToRspQ(void *msg, uint32_t address, int slot, int service, int instance);
/* Source slot and queue id of a message; -1 (and a message) when the magic is wrong, -1 with
 * errno EINVAL for a null message. */
int kt4IpcGetSourceHeader(const void *msg, uint32_t *slot, uint32_t *queueId);
/* Kept for callers of the original-address interface: they change nothing. */
void kt4IpcSetOrigSourceHeader(void *msg, int slot, uint32_t address, int queueId);
void kt4IpcSetOrigDestHeader(void *msg, int slot, uint32_t address, int queueId);
/* Sets (1) or clears (0) bit 0x80 of the command-type byte. Every send path writes that
 * byte whole, so the bit does not survive a send. */
void kt4IpcSetIpcPriority(void *msg, int priority);

/* Message types come in blocks of 400 per module: module = (type - 1) / 400. */
void ipcGetModuleByMT(uint32_t msgType);
int ipcGetModuleIdAndOffsetByMT(uint32_t msgType, int *module, int *offset);
const char *ipcGetModuleNameById(int id);

/* ---- Endpoints ----------------------------------------------------------------------- */

/* The key, or -1 with errno: EINVAL for a service outside 13..363 or an instance this process
 * keeps no record for (nothing is made), EEXIST when a live process of the card has the
 * endpoint open (reported with its pid), or the socket's error when a queue port cannot be
 * bound. Opening an endpoint this process has open returns its key again. */
int kt4IpcOpen(int service, int instance);
int kt4IpcOpen2(int service, int instance);   /* large instance 48..4144, secondary links */
int kt4IpcTmrOpen(int service, int instance); /* timer queue */
int kt4IpcTmrOpen2(int service, int instance);
int kt4IpcClose(int key);
int kt4IpcIsOpen(int service, int instance);
/* Forgets the endpoint's descriptors without closing them (a child after fork). */
void kt4IpcProcessCleanup(int key);

/* Link and socket of one queue. The numbers after the name (2, 0, 1, 1024 from the open
 * calls) are carried for the callers' sake and do not change the socket. */
int kt4_ipcCreateLink(int queueId, const char *linkName, int mode, int flags, int count, int size);
int kt4_ipcSOpen(int queueId, int protocol, int flags, int count, int size, int secondary);
int kt4_ipcDeleteLink(int queueId);

/* Socket buffers of a queue; the size read back is kept in the link record. */
int kt4IpcSetRecvBufferLimit(int queueId, int bytes, int *err);
int kt4IpcSetSendBufferLimit(int queueId, int bytes, int *err);
int kt4IpcSetRecvBufferLimitOfRspQ(int key, int bytes, int *err);
int kt4IpcGetRecvBufferLimit(int queueId, int *err);
int kt4IpcGetSendBufferLimit(int queueId, int *err);
int kt4IpcEnableBroadcast(int queueId, int *err);
int kt4IpcDisableBroadcast(int queueId, int *err);
/* Bytes waiting in the queue's socket as FIONREAD reports them (not a count of messages; on
 * Linux, the bytes of the next datagram), or -1. */
int kt4IpcGetNumMsgs(int queueId);
int kt4IpcGetNumMsgsOnRspQ(int key);

/* ---- Sending and receiving ----------------------------------------------------------- */

int kt4IpcSend(int key, void *msg, int len);
int kt4IpcNonGuaranteedSend(int key, void *msg, int len);
int kt4IpcReply(int key, void *msg, int len);
/* Waits at most timeout seconds per wait (<= 0: without limit); takes a message whose type
 * and transaction equal the wanted ones (both 0: any message), dropping others. The result
 * is the number of bytes placed in buf. What the caller learns of a message:
 * - size must hold at least a header (60 bytes): a smaller one is refused with EINVAL before
 *   anything is taken from the queue;
 * - a datagram shorter than a header, without the magic, or whose header's length field
 *   claims more bytes than the datagram carries is not a message: dropped with a warning;
 *   so a delivered message's length field never exceeds the bytes that arrived;
 * - a message longer than size is cut: its first size bytes are in buf and the result is -1
 *   with errno EMSGSIZE (the header's length field tells how long it was); it is gone from
 *   the queue. A message is as long as its length field says (bytes a sender adds after it
 *   are padding, and losing them is no error), or the whole datagram when the field is 0;
 *   so on success the length field never exceeds the result;
 * - the warnings about dropped or cut datagrams are limited per endpoint (a burst of 10, then
 *   one a second); the number held back is reported with the next warning, so a flood of bad
 *   datagrams cannot replace the card's trace history. Every
 * message that asks for it is acknowledged before the selection, whether taken or not: a
 * guaranteed send (GUARANTEED_SEND_FIRST / GUARANTEED_SEND) with GUARANTEED_ACK_FIRST /
 * GUARANTEED_ACK to the sender's response queue, a "GRT" with flags above 0 with "ACK" to its
 * source queue. */
int kt4IpcRecv(int queueId, void *buf, int size, int timeout, uint32_t msgType,
               uint32_t transaction);
int kt4IpcRecvOnRspQ(int key, void *buf, int size, int timeout, uint32_t msgType,
                     uint32_t transaction);
/* Copies the next datagram without taking it; its length, or -1 (EBADMSG for a datagram
 * that is not an IPC message, EAGAIN when none is waiting). */
int kt4IpcPeekMsg(int queueId, void *buf, int size);
/* Sends a request and waits for the reply of that type and transaction, in 500 ms slices
 * (timeout 0: one poll). The reply overwrites buf (at most len bytes). Datagrams on the
 * response queue are judged as kt4IpcRecv judges them; a reply longer than the buffer leaves
 * its first bytes there and gives -1 with EMSGSIZE (kt4IpcSendWaitWithRetry does not send
 * again after that: the reply would be cut again). A reply buffer under 60 bytes is EINVAL. */
int kt4IpcSendWait(int key, void *buf, int len, int timeout, uint32_t msgType,
                   uint32_t transaction);
int kt4IpcSendWaitWithRetry(int key, void *sendBuf, void *replyBuf, int sendLen, int replySize,
                            int timeout, uint32_t msgType, uint32_t transaction, int retries);
/* anyTaskIpcSendAndWait, anyTaskIpcSendAndWait2: <kt4/tme.h> (they find the target through
 * the task registry). */

/* Called as fn(arg, key) before every wait of kt4IpcRecv; null removes it. */
typedef void (*kt4IpcRecvNotifier)(void *arg, int key);
void kt4IpcInstallRecvNotifier(kt4IpcRecvNotifier fn, void *arg);

/* ---- Guaranteed IPC ------------------------------------------------------------------ */

void kt4IpcGuaranteedEnDis(uint32_t value);
uint32_t kt4IsIpcGuaranteedEnabled(void);
void kt4IpcGIncSendDBMemUsed(uint32_t bytes);
void kt4IpcGDecSendDBMemUsed(uint32_t bytes);
uint32_t kt4GetIpcGrnteedSendDBMemUsed(void);

/* The decision and its parts (1 yes, 0 no). */
int kt4ShdIpcBeGuaranteed(const void *msg, int key);
int kt4IpcKeyUsedIsCorrect(int key);
int kt4IpcSourceUsedIsCorrect(const void *msg, int key);
int kt4IsIpcGDbUpdPossible(const void *msg);
int kt4IpcGChkSameSvcId(const void *msg);
/* 1 when the two queue ids name the same service and instance. */
int kt4IpcGCompTaskNInst(uint32_t queueIdA, uint32_t queueIdB);

/* Up to three tries, each a send and a wait of one second for the acknowledgement. Other
 * datagrams arriving on the response queue meanwhile (or left there before) are drained
 * without ending the try: only the waits count, so junk cannot use up the tries. */
int kt4IpcGuaranteedSend(int key, void *msg, int len, int firstSend);
int kt4IpcGuaranteeSend(int key, void *msg, int len, uint32_t msgType, uint32_t transaction);

/* Per-(endpoint, target queue) record. */
typedef struct kt4IpcGTarget kt4IpcGTarget;
kt4IpcGTarget *kt4GuaranteedIpcGetTargetDBPtr(int key, uint32_t targetQueueId);
kt4IpcGTarget *kt4GuaranteedIpcGetTargetDBPtrExtended(int key, uint32_t targetAddress,
                                                      uint32_t targetQueueId);
void kt4GuaranteedIpcSendSuccess(kt4IpcGTarget *target, int ackCmdType, uint64_t measure);
void kt4GuaranteedIpcSendFailed(kt4IpcGTarget *target);

typedef struct kt4IpcGTargetStats {
    uint32_t successes;
    uint32_t retriesTry1;
    uint32_t retriesTry2;
    uint32_t failures;
    uint32_t runningMean; /* mean round trip of the acknowledged sends, microseconds */
    uint32_t plainSends;
    uint32_t plainSendFailures;
    uint16_t sequence; /* tag of the next guaranteed message */
    uint16_t flags;    /* 0x40: first message still to be acknowledged */
} kt4IpcGTargetStats;
#define KT4_IPCG_FLAG_FIRST 0x40
/* Copies a target record's counters: 0, or -1 for a null record. */
int kt4GuaranteedIpcGetTargetStats(const kt4IpcGTarget *target, kt4IpcGTargetStats *stats);
/* Prints every target record of the process with its counters. */
void getProcessIPCGStats(void);

/* ---- History ring -------------------------------------------------------------------- */

extern int gKT4IpcHistEnable;
int kt4InitIpcHistoryTable(int entries, int bytesPerEntry, int wrap);
void kt4DeInitIpcHistoryTable(void);
void kt4EnableIpcHistoryLogging(uint32_t msgType, int service, int srcOrDst);
void kt4DisableIpcHistoryLogging(void);
void printIpcHistoryLogging(void);
void dumpIpcHistoryLogging(int start, int end);

KT4_END_DECLS

#endif /* KT4_IPC_H */
