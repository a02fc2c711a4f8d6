// Building and reading the IPC header: acknowledgements and the selection rules of the
// receive, send-and-wait and guaranteed paths, on plain byte buffers.
#include "ipc/header.h"

#include <cstring>

namespace kt4::ipc {

void build_ack(const Header &msg, uint8_t ackCmd, Header *out) {
    std::memset(static_cast<void *>(out), 0, sizeof *out);
    stamp(out, ackCmd);
    out->grtTag = msg.grtTag.get();
    out->length = static_cast<uint32_t>(kHeaderLen);
    out->msgType = msg.msgType.get();
    out->transaction = msg.transaction.get();
    out->src = msg.tgt;
    out->tgt = msg.src;
}

uint8_t ack_due(const Header &h) {
    switch (h.cmdType) {
    case kCmdGrtSendFirst:
        return kCmdGrtAckFirst;
    case kCmdGrtSend:
        return kCmdGrtAck;
    case kCmdGrt:
        return h.cmdFlags > 0 ? kCmdAck : 0;
    default:
        return 0;
    }
}

uint32_t peek_magic(const void *buf, size_t len) {
    return len >= sizeof(uint32_t) ? load_be32(buf) : 0;
}

RecvVerdict classify_recv(const void *buf, size_t len, int timeout, uint32_t wantType,
                          uint32_t wantTrans) {
    if (len < kHeaderLen) return RecvVerdict::TooShort;
    const Header &h = *hdr(buf);
    if (h.magic != kMagic) return RecvVerdict::BadMagic;
    if ((h.cmdType == kCmdGrtAck || h.cmdType == kCmdGrtAckFirst) && wantType != 0 && timeout != 0)
        return RecvVerdict::DropAck;
    if (wantType == 0 && wantTrans == 0) return RecvVerdict::Take;
    if (h.msgType == wantType && h.transaction == wantTrans) return RecvVerdict::Take;
    return RecvVerdict::Mismatch;
}

ReplyVerdict classify_reply(const void *buf, size_t len, uint32_t wantType, uint32_t wantTrans) {
    if (len < kHeaderLen) return ReplyVerdict::NonIpc;
    const Header &h = *hdr(buf);
    if (h.magic != kMagic) return ReplyVerdict::NonIpc;
    if (h.cmdType == kCmdGrtAck || h.cmdType == kCmdGrtAckFirst) return ReplyVerdict::IgnoreAck;
    if (wantType == 0 && wantTrans == 0) return ReplyVerdict::TakeAny;
    if (h.msgType == wantType && h.transaction == wantTrans) return ReplyVerdict::Take;
    return ReplyVerdict::Other;
}

namespace {
bool same_task(const Triple &a, const Triple &b) {
    return qid_service(a.qid) == qid_service(b.qid) && qid_instance(a.qid) == qid_instance(b.qid);
}
} // namespace

bool grt_ack_matches(const void *buf, size_t len, const Header &sent, uint8_t ackCmd) {
    if (len < kHeaderLen) return false;
    const Header &a = *hdr(buf);
    return a.magic == kMagic && a.cmdType == ackCmd && a.msgType == sent.msgType.get() &&
           a.grtTag == sent.grtTag.get() && same_task(a.src, sent.tgt) &&
           same_task(a.tgt, sent.src);
}

bool grt_old_ack_matches(const void *buf, size_t len, const Header &sent) {
    if (len < kHeaderLen) return false;
    const Header &a = *hdr(buf);
    return a.magic == kMagic && a.cmdType == kCmdAck && a.msgType == sent.msgType.get() &&
           a.transaction == sent.transaction.get();
}

} // namespace kt4::ipc
