// Internals of the reliable queues: the control block in the card's shared area, the
// process-local side of a queue (its messages and timer) and the one reporting point.
//
// Lock order (within this family): a queue's own mutex (process-local, recursive, so that a
// user callback may call back into its queue), then shared-memory lock 2 (the table), then
// whatever the vx2bsd timer calls take (timer_list_lock). The timer handler runs holding
// timer_list_lock and therefore takes no queue mutex: it reads the atomic armed sequence
// number and posts an event to the sender's queue.
#pragma once

#include <kt4/log.h>
#include <kt4/swp.h>
#include <kt4/vx2bsd.h>

#include "common/kt4_be.h"

#include <atomic>
#include <cstdint>
#include <mutex>

namespace kt4::swp {

constexpr int kModule = 1; // "SWP" in the trace tables
constexpr int kSysErrNo = 1;

// The control block, fields in the documented order. Pointers are process-local (only the
// creating process drives a queue) and kept for the dump; the messages themselves hang off the
// process-local Local record. head/tail hold the sequence numbers of the first unacknowledged
// and the last sent message.
struct Block {
    char senderName[21];
    char receiverName[21];
    char pad0[2];
    be32 handle;
    be32 inUse;
    be64 headSeq;
    be32 maxLen;
    be32 curLen;
    be32 curMwpLen;
    be32 maxMwpWin;
    be64 tailSeq;
    be64 timer;
    be32 timeoutInt;
    be32 pendingTimeouts[2];
    be32 sendSvc, sendInst, recvSvc, recvInst;
    bes32 ipcKey;
    be32 msgType;
    be32 senderIp;
    be32 receiverIp;
    be32 receiverQid;
    be32 altSrcQ;
    be64 allocFn, allocArg, freeFn, usrCb;
    be32 evtLogKey;
    be32 retransmitting;
    be32 acks, retrans, timeouts, flushes, ipcFails, iclSendFails, queueFull;
    be32 sndRstTot, sndRstEnq, sndRstDeq, sndRstRetr;
    be32 rstTot, rstCb, rstSndRst;
    be64 msgRttSum;
    be32 msgRttCnt, msgRttMax, msgRttMin, msgRtt0;
    be64 ackRttSum;
    be32 ackRttCnt, ackRttMax, ackRttMin, ackRtt0;
    be64 memUsed, memLimit, maxMemUsed;
    be64 qlenCb, qlenCbArg;
    be32 qlenThreshold;
    be32 icl;
    be32 pid;
    uint8_t maxTrans;
    uint8_t retransLeft;
    uint8_t pad1[2];
    // Kept for the dump and the queries.
    be64 curSeq; // the last number given to a message
    be32 highWater, maxMwpLen, maxSntDeq, maxSntRetrans, maxEtcCnt, tmrqAck;
    be32 iclDownReported;
};

struct Table {
    be32 blocks;
    be32 pad;
    Block q[KT4_SWP_TABLE_BLOCKS];
};

struct Node {
    Node *next;
    void *buf;
    uint32_t len;
    uint64_t seq; // given when first sent
};

// The process-local side of one handle.
struct Local {
    std::recursive_mutex mu;
    bool live = false;
    Node *head = nullptr; // first held (unacknowledged or waiting)
    Node *last = nullptr; // last held
    Node *sent = nullptr; // last sent; null when nothing is in flight
    int64_t bornNs = 0;   // monotonic time of the queue's creation (its first stamp is later)
    VX2BSD_TIMER_ID timer = nullptr;
    kt4SwpAllocFn allocFn = nullptr;
    void *allocArg = nullptr;
    kt4SwpFreeFn freeFn = nullptr;
    kt4SwpUsrCb usrCb = nullptr;
    kt4SwpQLenCb qlenCb = nullptr;
    void *qlenArg = nullptr;
    std::atomic<uint64_t> armedSeq{0};
    std::atomic<uint32_t> eventAddr{0}; // where timer events go
    std::atomic<uint32_t> eventPort{0};
};

Table *table();
Local &local(uint32_t handle);
// The block of a valid handle in use, or null (bad handle or free block).
Block *block_of(uint32_t handle);

// The queues' debug texts: per message, so only while kt4SwpDebug is set.
#define SWP_DBG(...)                                                                               \
    do {                                                                                           \
        if (kt4SwpDebug) kt4TracePrintf(::kt4::swp::kModule, __VA_ARGS__);                         \
    } while (0)

// Every system error of a queue goes through here: the trace line and kt4SysErr on the EV key.
void sys_err(uint32_t evtLogKey, const char *format, ...) __attribute__((format(printf, 2, 3)));

inline uint64_t seq64(uint32_t hi, uint32_t lo) {
    return (uint64_t{hi} << 32) | lo;
}
inline uint32_t hi32(uint64_t v) {
    return static_cast<uint32_t>(v >> 32);
}
inline uint32_t lo32(uint64_t v) {
    return static_cast<uint32_t>(v);
}

// Offset of the SWP header in a message of a queue (IPC header, or the ICL header's length).
inline uint32_t swp_off(const void *msg, bool icl) {
    return icl ? load_be16(static_cast<const unsigned char *>(msg) + 24) : KT4_SWP_HDR_OFF;
}

// Drops the waiting (not yet sent) messages of a queue for which keep() is false, keeping
// the others in order. The number dropped, or -1 for a handle this process does not drive.
int flush_waiting_if(uint32_t handle, bool (*drop)(const void *buf, uint32_t len, void *arg),
                     void *arg);

// The ICL link of the process.
int icl_send(const void *pdu, int len); // 0 sent, -1 failed, -2 link down
bool icl_up();

} // namespace kt4::swp
