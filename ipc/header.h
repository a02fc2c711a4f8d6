// The IPC message header: the one place where its 60 bytes are laid out, written and read.
//
// Every message starts with this header, integers big-endian. The two address triples have
// the same layout so that a reply is formed by exchanging them. Received bytes are hostile:
// the classifiers below check the length before they read anything and never read past it;
// they work on plain byte buffers so that the fuzz targets reach them without sockets.
#pragma once

#include "common/kt4_be.h"

#include <cstddef>
#include <cstdint>

namespace kt4::ipc {

// Offsets of the fields, as the wire has them.
inline constexpr size_t kOffMagic = 0;
inline constexpr size_t kOffCmdType = 4;
inline constexpr size_t kOffCmdFlags = 5;
inline constexpr size_t kOffGrtTag = 6;
inline constexpr size_t kOffLength = 8;
inline constexpr size_t kOffMsgType = 12;
inline constexpr size_t kOffApp = 16;       // four application words
inline constexpr size_t kOffAppWord20 = 20; // zeroed by anyTaskIpcSendAndWait
inline constexpr size_t kOffPktType = 24;   // "mPktType" of guaranteed IPC's texts
inline constexpr size_t kOffTransaction = 32;
inline constexpr size_t kOffSrc = 36;     // source triple: slot, address, queue id
inline constexpr size_t kOffTgt = 48;     // target triple
inline constexpr size_t kOffTgtPort = 58; // low 16 bits of the target queue id
inline constexpr size_t kHeaderLen = 60;

inline constexpr uint32_t kMagic = 0xFEEDBEAF;

// Command types (byte 4).
enum CmdType : uint8_t {
    kCmdDef = 0,
    kCmdGrtAck = 6,
    kCmdGrtSend = 7,
    kCmdGrtAckFirst = 8,
    kCmdGrtSendFirst = 9,
    kCmdAck = 10,
    kCmdGrt = 11,
    kCmdRsp = 12,
    kCmdReq = 13,
};
inline constexpr uint8_t kCmdPriorityBit = 0x80;

struct Triple {
    kt4::be32 slot;
    kt4::be32 addr;
    kt4::be32 qid;
};

struct Header {
    kt4::be32 magic;
    uint8_t cmdType;
    uint8_t cmdFlags;
    kt4::be16 grtTag;
    kt4::be32 length;
    kt4::be32 msgType;
    kt4::be32 app[4];
    kt4::be32 transaction;
    Triple src;
    Triple tgt;
};

static_assert(sizeof(Header) == kHeaderLen);
static_assert(offsetof(Header, magic) == kOffMagic && offsetof(Header, cmdType) == kOffCmdType &&
              offsetof(Header, cmdFlags) == kOffCmdFlags &&
              offsetof(Header, grtTag) == kOffGrtTag && offsetof(Header, length) == kOffLength &&
              offsetof(Header, msgType) == kOffMsgType && offsetof(Header, app) == kOffApp &&
              offsetof(Header, transaction) == kOffTransaction &&
              offsetof(Header, src) == kOffSrc && offsetof(Header, tgt) == kOffTgt);
static_assert(offsetof(Header, app) + 4 == kOffAppWord20 &&
              offsetof(Header, app) + 8 == kOffPktType &&
              offsetof(Header, tgt) + offsetof(Triple, qid) + 2 == kOffTgtPort);

// The header of a message buffer (callers own at least kHeaderLen bytes).
inline Header *hdr(void *msg) {
    return static_cast<Header *>(msg);
}
inline const Header *hdr(const void *msg) {
    return static_cast<const Header *>(msg);
}

// Fields of a queue id / key.
inline uint32_t qid_service(uint32_t qid) {
    return (qid >> 7) & 0x1FF;
}
inline uint32_t qid_instance(uint32_t qid) {
    return (qid >> 2) & 31;
}
inline uint16_t qid_port(uint32_t qid) {
    return static_cast<uint16_t>(qid & 0xFFFF);
}
// The response queue of the task a queue id belongs to (same service and instance).
inline uint32_t qid_to_rsp(uint32_t qid) {
    return (qid & ~3u) | 2u;
}

// Writes the header words every send path owns: magic, command type, flags 0.
inline void stamp(Header *h, uint8_t cmd) {
    h->magic = kMagic;
    h->cmdType = cmd;
    h->cmdFlags = 0;
}

// Exchanges the source and target triples (the reply form).
inline void swap_triples(Header *h) {
    Triple t = h->src;
    h->src = h->tgt;
    h->tgt = t;
}

// Builds in out (60 bytes) the acknowledgement of a received message: magic, the given
// command type, flags 0, the message's tag, type and transaction, source triple = the
// message's target triple, target triple = its source triple. Application words are zero.
void build_ack(const Header &msg, uint8_t ackCmd, Header *out);

// The acknowledgement command a received command type asks for: kCmdGrtAckFirst for
// kCmdGrtSendFirst, kCmdGrtAck for kCmdGrtSend, kCmdAck for a "GRT" with flags above 0,
// or 0 when none is due.
uint8_t ack_due(const Header &h);

// ---- Receive selection (kt4IpcRecv) ---------------------------------------------------
// A received datagram is described by two lengths: avail, the bytes of it in the buffer, and
// wire, its length as sent (larger than avail when the buffer cut it). The length field of a
// message's header may not claim more than wire: a caller reads its message by that field,
// and bytes past the datagram would be whatever the buffer held before.
enum class RecvVerdict {
    TooShort,  // under 60 bytes: warn and wait again
    BadMagic,  // not an IPC message: warn and wait again
    BadLength, // the header's length field exceeds the datagram: warn and wait again
    DropAck,   // a guaranteed acknowledgement while waiting for a type: drop silently
    Mismatch,  // not the wanted type and transaction: warn and wait again
    Take,      // deliver (cut when wire > avail)
};
// timeout as given to kt4IpcRecv.
RecvVerdict classify_recv(const void *buf, size_t avail, size_t wire, int timeout,
                          uint32_t wantType, uint32_t wantTrans);

// ---- Send-and-wait reply matching ---------------------------------------------------
enum class ReplyVerdict {
    NonIpc,    // short or wrong magic: warn and wait again
    BadLength, // the header's length field exceeds the datagram: warn and wait again
    IgnoreAck, // guaranteed acknowledgement: ignore silently
    TakeAny,   // caller waits for any message: take it, with the "Take it." warning
    Take,      // the wanted reply
    Other,     // another message: warn "Drop it" and wait again
};
ReplyVerdict classify_reply(const void *buf, size_t avail, size_t wire, uint32_t wantType,
                            uint32_t wantTrans);

// True when the buffer cut a taken message short: fewer bytes of it arrived (avail) than the
// message has. The message is as long as its header's length field says (a sender may send
// padding after it), or, when the field is 0 (not filled in), the whole datagram.
inline bool message_cut(const Header &h, size_t avail, size_t wire) {
    const size_t extent = h.length != 0 ? static_cast<size_t>(h.length.get()) : wire;
    return extent > avail;
}

// ---- Guaranteed acknowledgement matching -----------------------------------------------
// True when the datagram acknowledges sent: magic, the expected acknowledgement command,
// same message type and tag, its source is sent's target and its target is sent's source
// (service and instance).
bool grt_ack_matches(const void *buf, size_t len, const Header &sent, uint8_t ackCmd);
// The older form (kt4IpcGuaranteeSend): an "ACK" of the same message type and transaction.
bool grt_old_ack_matches(const void *buf, size_t len, const Header &sent);

// Magic of a datagram of len bytes, or 0 when it is too short to hold one (for the texts).
uint32_t peek_magic(const void *buf, size_t len);

} // namespace kt4::ipc
