// The IPC header codec: the accessors of the public interface, building acknowledgements, and
// the selection rules of the receive, send-and-wait and guaranteed paths, on plain byte
// buffers.
#include "ipc/header.h"
#include "ipc/ipc_int.h"

#include <kt4/ipc.h>

#include <cerrno>
#include <cstdio>
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

using namespace kt4::ipc;

namespace {

// The header calls take the caller's message as it is: a null one is refused with EINVAL
// (and nothing is read or written) rather than followed.
bool null_msg(const void *msg) {
    if (msg != nullptr) return false;
    errno = EINVAL;
    return true;
}

} // namespace

extern "C" {

// ---- Header accessors -------------------------------------------------------------------

uint32_t kt4IpcHdrGet(const void *msg, kt4IpcHdrField field) {
    if (null_msg(msg)) return 0;
    const Header *h = hdr(msg);
    switch (field) {
    case KT4_IPC_HDR_MAGIC:
        return h->magic;
    case KT4_IPC_HDR_CMD_TYPE:
        return h->cmdType;
    case KT4_IPC_HDR_CMD_FLAGS:
        return h->cmdFlags;
    case KT4_IPC_HDR_GRT_TAG:
        return h->grtTag;
    case KT4_IPC_HDR_LENGTH:
        return h->length;
    case KT4_IPC_HDR_MSG_TYPE:
        return h->msgType;
    case KT4_IPC_HDR_APP0:
        return h->app[0];
    case KT4_IPC_HDR_APP1:
        return h->app[1];
    case KT4_IPC_HDR_APP2:
        return h->app[2];
    case KT4_IPC_HDR_APP3:
        return h->app[3];
    case KT4_IPC_HDR_TRANSACTION:
        return h->transaction;
    case KT4_IPC_HDR_SRC_SLOT:
        return h->src.slot;
    case KT4_IPC_HDR_SRC_ADDR:
        return h->src.addr;
    case KT4_IPC_HDR_SRC_QID:
        return h->src.qid;
    case KT4_IPC_HDR_TGT_SLOT:
        return h->tgt.slot;
    case KT4_IPC_HDR_TGT_ADDR:
        return h->tgt.addr;
    case KT4_IPC_HDR_TGT_QID:
        return h->tgt.qid;
    }
    return 0;
}

void kt4IpcHdrSet(void *msg, kt4IpcHdrField field, uint32_t v) {
    if (null_msg(msg)) return;
    Header *h = hdr(msg);
    switch (field) {
    case KT4_IPC_HDR_MAGIC:
        h->magic = v;
        break;
    case KT4_IPC_HDR_CMD_TYPE:
        h->cmdType = static_cast<uint8_t>(v);
        break;
    case KT4_IPC_HDR_CMD_FLAGS:
        h->cmdFlags = static_cast<uint8_t>(v);
        break;
    case KT4_IPC_HDR_GRT_TAG:
        h->grtTag = static_cast<uint16_t>(v);
        break;
    case KT4_IPC_HDR_LENGTH:
        h->length = v;
        break;
    case KT4_IPC_HDR_MSG_TYPE:
        h->msgType = v;
        break;
    case KT4_IPC_HDR_APP0:
        h->app[0] = v;
        break;
    case KT4_IPC_HDR_APP1:
        h->app[1] = v;
        break;
    case KT4_IPC_HDR_APP2:
        h->app[2] = v;
        break;
    case KT4_IPC_HDR_APP3:
        h->app[3] = v;
        break;
    case KT4_IPC_HDR_TRANSACTION:
        h->transaction = v;
        break;
    case KT4_IPC_HDR_SRC_SLOT:
        h->src.slot = v;
        break;
    case KT4_IPC_HDR_SRC_ADDR:
        h->src.addr = v;
        break;
    case KT4_IPC_HDR_SRC_QID:
        h->src.qid = v;
        break;
    case KT4_IPC_HDR_TGT_SLOT:
        h->tgt.slot = v;
        break;
    case KT4_IPC_HDR_TGT_ADDR:
        h->tgt.addr = v;
        break;
    case KT4_IPC_HDR_TGT_QID:
        h->tgt.qid = v;
        break;
    }
}

void kt4IpcSetSourceHeader(void *msg, int slot, int service, int instance) {
    if (null_msg(msg)) return;
    Header *h = hdr(msg);
    h->src.slot = static_cast<uint32_t>(slot);
    h->src.addr = local_addr();
    h->src.qid = static_cast<uint32_t>(kt4_getQueueId(service, instance, KT4_IPC_QUEUE_RSP));
}

void kt4IpcSetTargetHeader(void *msg, uint32_t address, int slot, int service, int instance) {
    if (null_msg(msg)) return;
    Header *h = hdr(msg);
    h->tgt.slot = static_cast<uint32_t>(slot);
    h->tgt.addr = address;
    h->tgt.qid = static_cast<uint32_t>(kt4_getQueueId(service, instance, KT4_IPC_QUEUE_REQ));
}

void kt4IpcSetTargetHeaderToRspQ(void *msg, uint32_t address, int slot, int service, int instance) {
    if (null_msg(msg)) return;
    Header *h = hdr(msg);
    h->tgt.slot = static_cast<uint32_t>(slot);
    h->tgt.addr = address;
    h->tgt.qid = static_cast<uint32_t>(kt4_getQueueId(service, instance, KT4_IPC_QUEUE_RSP));
}

int kt4IpcGetSourceHeader(const void *msg, uint32_t *slot, uint32_t *queueId) {
    if (null_msg(msg)) return -1;
    const Header *h = hdr(msg);
    if (h->magic != kMagic) {
        std::printf("\n\nkt4IpcGetSourceHeader - MAGIC ERROR\n");
        return -1;
    }
    if (slot != nullptr) *slot = h->src.slot;
    if (queueId != nullptr) *queueId = h->src.qid;
    return 0;
}

void kt4IpcSetOrigSourceHeader(void *, int, uint32_t, int) {}
void kt4IpcSetOrigDestHeader(void *, int, uint32_t, int) {}

void kt4IpcSetIpcPriority(void *msg, int priority) {
    if (null_msg(msg)) return;
    Header *h = hdr(msg);
    if (priority == 0)
        h->cmdType = static_cast<uint8_t>(h->cmdType & ~kCmdPriorityBit);
    else if (priority == 1)
        h->cmdType = static_cast<uint8_t>(h->cmdType | kCmdPriorityBit);
}

} // extern "C"
