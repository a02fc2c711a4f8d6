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

namespace {
// An IPC message: a whole header with the magic, whose length field stays within the datagram.
enum class Shape { Short, NoMagic, BadLength, Ok };
Shape shape_of(const void *buf, size_t avail, size_t wire) {
    if (avail < kHeaderLen || wire < kHeaderLen) return Shape::Short;
    const Header &h = *hdr(buf);
    if (h.magic != kMagic) return Shape::NoMagic;
    if (h.length > wire) return Shape::BadLength;
    return Shape::Ok;
}
} // namespace

RecvVerdict classify_recv(const void *buf, size_t avail, size_t wire, int timeout,
                          uint32_t wantType, uint32_t wantTrans) {
    switch (shape_of(buf, avail, wire)) {
    case Shape::Short:
        return RecvVerdict::TooShort;
    case Shape::NoMagic:
        return RecvVerdict::BadMagic;
    case Shape::BadLength:
        return RecvVerdict::BadLength;
    case Shape::Ok:
        break;
    }
    const Header &h = *hdr(buf);
    if ((h.cmdType == kCmdGrtAck || h.cmdType == kCmdGrtAckFirst) && wantType != 0 && timeout != 0)
        return RecvVerdict::DropAck;
    if (wantType == 0 && wantTrans == 0) return RecvVerdict::Take;
    if (h.msgType == wantType && h.transaction == wantTrans) return RecvVerdict::Take;
    return RecvVerdict::Mismatch;
}

ReplyVerdict classify_reply(const void *buf, size_t avail, size_t wire, uint32_t wantType,
                            uint32_t wantTrans) {
    switch (shape_of(buf, avail, wire)) {
    case Shape::Short:
    case Shape::NoMagic:
        return ReplyVerdict::NonIpc;
    case Shape::BadLength:
        return ReplyVerdict::BadLength;
    case Shape::Ok:
        break;
    }
    const Header &h = *hdr(buf);
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
