// Status texts and the dumps of the queue table.
#include "swp/swp_int.h"

#include <cstdio>

using namespace kt4;
using namespace kt4::swp;

namespace {

constexpr const char *kStatusText[] = {
    "SWP success",
    "Sequence number matched",
    "Sequence number is one less than expected",
    "Sequence number error",
    "SWP failure",
    "SWP failure - acknowledgement",
    "SWP failure - sequence number",
    "SWP failure - queue is full",
    "SWP failure - timer expiration",
    "SWP failure - no more retransmissions",
    "SWP failure - kt4SwpIpcSend failed at sender",
    "SWP failure - kt4SwpIpcSend failed at receiver",
    "SWP failure - timer reset",
    "SWP failure - timer cancellation",
    "SWP failure - queue insertion",
    "SWP failure - queue deletion",
    "SWP failure - no more timeouts",
};
static_assert(sizeof kStatusText / sizeof kStatusText[0] == 17);

void line_u(const char *label, unsigned long v) {
    std::printf("%-18s= %lu\n", label, v);
}
void line_x(const char *label, unsigned long v) {
    std::printf("%-18s= %#lx\n", label, v);
}
void line_s(const char *label, const char *v) {
    std::printf("%-18s= %s\n", label, v);
}

void print_block(const Block &b) {
    std::printf("+----- Queue control parameters and statistics -------+\n");
    line_s("Sender", b.senderName);
    line_s("Receiver", b.receiverName);
    line_u("qHandle", b.handle);
    line_u("status", b.inUse);
    line_u("maxLen", b.maxLen);
    line_u("curLen", b.curLen);
    line_u("high water mark", b.highWater);
    line_x("retrans timer", static_cast<unsigned long>(b.timer.get()));
    line_u("timeout int", b.timeoutInt);
    line_u("maxTrans", b.maxTrans);
    line_u("retrans left", b.retransLeft);
    line_u("No. of retrans", b.retrans);
    line_u("No. of timeout", b.timeouts);
    uint64_t cur = b.curSeq;
    std::printf("%-18s= %lu.%lu\n", "cur seq no", static_cast<unsigned long>(hi32(cur)),
                static_cast<unsigned long>(lo32(cur)));
    line_u("cur mwp len", b.curMwpLen);
    line_u("max mwp win size", b.maxMwpWin);
    line_u("cur mwp tail", static_cast<unsigned long>(b.tailSeq.get()));
    line_u("max mwp len", b.maxMwpLen);
    line_u("max snt deq", b.maxSntDeq);
    line_u("max snt retrans", b.maxSntRetrans);
    line_u("max etc cnt", b.maxEtcCnt);
    line_u("use Tmrq for ack", b.tmrqAck);
    line_u("No of flushes", b.flushes);
    line_u("SndRstTmrCntTot", b.sndRstTot);
    line_u("SndRstTmrCntEnq", b.sndRstEnq);
    line_u("SndRstTmrCntDeq", b.sndRstDeq);
    line_u("SndRstTmrCntRetr", b.sndRstRetr);
    line_u("RstTmrCntTot", b.rstTot);
    line_u("RstTmrCntSndRst", b.rstSndRst);
    line_u("RstTmrCntCb", b.rstCb);
    line_u("No of Ipcfail", b.ipcFails);
    line_u("ipc: send serv", b.sendSvc);
    line_u("ipc: send inst", b.sendInst);
    line_u("ipc: recv serv", b.recvSvc);
    line_u("ipc: recv inst", b.recvInst);
    line_x("ipc: sender IP", b.senderIp);
    line_x("ipc: recver IP", b.receiverIp);
    line_u("ipc: mtype", b.msgType);
    line_x("memory tag", static_cast<unsigned long>(b.allocArg.get()));
    line_u("evtLogKey", b.evtLogKey);
    line_u("Msg Half RTT", static_cast<unsigned long>(b.msgRttSum.get()));
    line_u("Num Msgs", b.msgRttCnt);
    line_u("Msg Max Half RTT", b.msgRttMax);
    line_u("Msg Min Half RTT", b.msgRttMin);
    line_u("Num of send 0s", b.msgRtt0);
    line_u("Ack Half RTT", static_cast<unsigned long>(b.ackRttSum.get()));
    line_u("Num Acks", b.ackRttCnt);
    line_u("Ack Max Half RTT", b.ackRttMax);
    line_u("Ack Min Half RTT", b.ackRttMin);
    line_u("Num of recv 0s", b.ackRtt0);
    line_u("Task ID", b.pid);
    line_u("Memory used", static_cast<unsigned long>(b.memUsed.get()));
    line_u("Memory Limit", static_cast<unsigned long>(b.memLimit.get()));
    line_u("Max Memory used", static_cast<unsigned long>(b.maxMemUsed.get()));
    line_u("Queue full", b.queueFull);
    line_s("ICL Enabled", b.icl != 0 ? "TRUE" : "FALSE");
    line_u("ICL Send Fail Num", b.iclSendFails);
}

} // namespace

extern "C" {

int kt4SwpDebug = 0;

const char *kt4SwpGetErr(uint32_t code) {
    return code < 17 ? kStatusText[code] : nullptr;
}

uint32_t kt4SwpPrintq(uint32_t handle) {
    Block *b = block_of(handle);
    if (b == nullptr) return KT4_SWP_FAILURE;
    {
        std::lock_guard<std::recursive_mutex> g(local(handle).mu);
        print_block(*b);
    }
    std::fflush(stdout);
    return KT4_SWP_SUCCESS;
}

void kt4SwpPrintAllq(void) {
    for (uint32_t h = 1; h <= KT4_SWP_MAX_QUEUES; ++h)
        if (block_of(h) != nullptr) kt4SwpPrintq(h);
}

} // extern "C"
