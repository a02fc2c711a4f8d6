// Reading the event-log records: the one place that knows their offsets (<kt4/evt.h>).
#include "services/evtlogd/wire.h"

#include "common/kt4_be.h"

#include <kt4/evt.h>
#include <kt4/ipc.h>

#include <cstring>

namespace kt4::evtlogd {
namespace {

constexpr const char *kRejectNames[] = {
    "none",      "short",        "bad_magic",  "bad_length",
    "truncated", "unknown_type", "bad_string", "bad_chunk",
};
static_assert(sizeof kRejectNames / sizeof kRejectNames[0] == static_cast<size_t>(Reject::Count));

// The longest text a log record carries and the chunks it takes.
constexpr uint32_t kMaxText = KT4_EVT_MAX_TEXT;
constexpr uint32_t kChunk = KT4_EVT_CHUNK;
constexpr uint32_t kMaxChunks = (kMaxText + kChunk - 1) / kChunk;

// A view of one message: every read is within len (checked by the caller once per record
// kind against that kind's fixed size).
struct Msg {
    const unsigned char *p;
    size_t len;

    uint32_t u32(size_t off) const { return kt4::load_be32(p + off); }
    uint16_t u16(size_t off) const { return kt4::load_be16(p + off); }
    // A NUL-terminated string inside a field of width bytes; false when it runs to the end.
    bool str(size_t off, size_t width, std::string_view &out) const {
        const void *nul = std::memchr(p + off, '\0', width);
        if (nul == nullptr) return false;
        out = std::string_view(
            reinterpret_cast<const char *>(p + off),
            static_cast<size_t>(static_cast<const unsigned char *>(nul) - (p + off)));
        return true;
    }
    Source src() const {
        return Source{kt4IpcHdrGet(p, KT4_IPC_HDR_SRC_SLOT), kt4IpcHdrGet(p, KT4_IPC_HDR_SRC_ADDR),
                      kt4IpcHdrGet(p, KT4_IPC_HDR_SRC_QID)};
    }
};

Reject parse_registration(const Msg &m, Record &out) {
    if (m.len < KT4_EVT_REG_LEN) return Reject::Truncated;
    Registration r;
    r.src = m.src();
    r.task = m.u32(KT4_EVT_OFF_TASK);
    r.service = m.u32(KT4_EVT_REG_SERVICE);
    r.instance = m.u32(KT4_EVT_REG_INSTANCE);
    out = r;
    return Reject::None;
}

Reject parse_log(const Msg &m, Record &out) {
    if (m.len < KT4_EVT_LOG_LEN) return Reject::Truncated;
    LogChunk c;
    c.src = m.src();
    c.task = m.u32(KT4_EVT_OFF_TASK);
    const uint32_t chunks = m.u32(KT4_EVT_LOG_CHUNKS);
    c.count = static_cast<uint16_t>(chunks >> 16);
    c.index = static_cast<uint16_t>(chunks & 0xFFFF);
    c.unit = m.u32(KT4_EVT_LOG_UNIT);
    c.level = m.u32(KT4_EVT_LOG_LEVEL);
    c.facility = m.u32(KT4_EVT_LOG_FACILITY);
    c.error = m.u32(KT4_EVT_LOG_ERROR);
    c.errClass = m.u32(KT4_EVT_LOG_CLASS);
    c.evKey = m.u32(KT4_EVT_LOG_EVKEY);
    c.pid = m.u32(KT4_EVT_LOG_PID);
    c.seq = m.u32(KT4_EVT_LOG_SEQ);
    c.time = m.u32(KT4_EVT_LOG_TIME);
    c.textLen = m.u32(KT4_EVT_LOG_TEXTLEN);
    if (!m.str(KT4_EVT_LOG_TAG, KT4_EVT_LOG_TAG_LEN, c.tag) ||
        !m.str(KT4_EVT_LOG_NAME, KT4_EVT_LOG_NAME_LEN, c.name) ||
        !m.str(KT4_EVT_LOG_LABEL, KT4_EVT_LOG_LABEL_LEN, c.label) ||
        !m.str(KT4_EVT_LOG_CPU, KT4_EVT_LOG_CPU_LEN, c.cpu) ||
        !m.str(KT4_EVT_LOG_TEXT, KT4_EVT_LOG_TEXT_LEN, c.chunk))
        return Reject::BadString;
    // The chunk must be where the whole text says it is: every chunk but the last is full,
    // the last holds the rest, and the text says how many there are. A chunk that lies about
    // any of these could not be put back in its place.
    const uint32_t chunkLen = m.u32(KT4_EVT_LOG_CHUNKLEN);
    if (c.textLen == 0 || c.textLen > kMaxText) return Reject::BadChunk;
    if (c.count != (c.textLen + kChunk - 1) / kChunk || c.count > kMaxChunks || c.index >= c.count)
        return Reject::BadChunk;
    const uint32_t expect = c.index + 1u < c.count ? kChunk : c.textLen - kChunk * (c.count - 1u);
    if (chunkLen != expect || c.chunk.size() != chunkLen) return Reject::BadChunk;
    out = c;
    return Reject::None;
}

Reject parse_notify(const Msg &m, Record &out) {
    if (m.len < KT4_EVT_NOTIFY_LEN) return Reject::Truncated;
    Notify n;
    n.src = m.src();
    if (!m.str(KT4_EVT_NOTIFY_NAME, KT4_EVT_NOTIFY_NAME_LEN, n.name)) return Reject::BadString;
    n.word1 = m.u32(KT4_EVT_NOTIFY_WORD1);
    n.word2 = m.u32(KT4_EVT_NOTIFY_WORD2);
    n.field = m.u16(KT4_EVT_NOTIFY_FIELD);
    n.hasBlock = (m.u16(KT4_EVT_NOTIFY_FLAGS) & 1u) != 0;
    out = n;
    return Reject::None;
}

Reject parse_subscription(const Msg &m, bool subscribe, Record &out) {
    if (m.len < KT4_EVT_SUB_LEN) return Reject::Truncated;
    Subscription s;
    s.src = m.src();
    s.subscribe = subscribe;
    s.evKey = m.u32(KT4_EVT_SUB_EVKEY);
    s.facility = m.u32(KT4_EVT_SUB_FACILITY);
    s.error = m.u32(KT4_EVT_SUB_ERROR);
    s.qid = m.u32(KT4_EVT_SUB_QID);
    s.pid = m.u32(KT4_EVT_SUB_PID);
    out = s;
    return Reject::None;
}

Reject parse_audit(const Msg &m, Record &out) {
    if (m.len < KT4_EVT_AUDIT_LEN) return Reject::Truncated;
    Audit a;
    a.src = m.src();
    a.code = m.u32(KT4_EVT_AUDIT_CODE);
    if (!m.str(KT4_EVT_AUDIT_USER, KT4_EVT_AUDIT_USER_LEN, a.user) ||
        !m.str(KT4_EVT_AUDIT_SOURCE, KT4_EVT_AUDIT_SOURCE_LEN, a.source) ||
        !m.str(KT4_EVT_AUDIT_TEXT, KT4_EVT_AUDIT_TEXT_LEN, a.text))
        return Reject::BadString;
    out = a;
    return Reject::None;
}

} // namespace

const char *reject_name(Reject r) {
    const auto i = static_cast<size_t>(r);
    return i < static_cast<size_t>(Reject::Count) ? kRejectNames[i] : "?";
}

Reject parse(const void *msg, size_t n, Record &out) {
    if (msg == nullptr || n < KT4_IPC_HDR_LEN) return Reject::Short;
    if (kt4IpcHdrGet(msg, KT4_IPC_HDR_MAGIC) != KT4_IPC_MAGIC) return Reject::BadMagic;
    // The message is as long as its length field says (bytes after it are padding), or the
    // whole datagram when the field is 0, as the messaging layer delivers it.
    const uint32_t claimed = kt4IpcHdrGet(msg, KT4_IPC_HDR_LENGTH);
    if (claimed != 0 && (claimed < KT4_IPC_HDR_LEN || claimed > n)) return Reject::BadLength;
    const Msg m{static_cast<const unsigned char *>(msg), claimed != 0 ? claimed : n};
    switch (kt4IpcHdrGet(msg, KT4_IPC_HDR_MSG_TYPE)) {
    case KT4_EVT_MSG_TYPE_LOG:
        switch (m.u32(KT4_EVT_OFF_SUBCODE)) {
        case KT4_EVT_SUB_REGISTER:
            return parse_registration(m, out);
        case KT4_EVT_SUB_LOG:
            return parse_log(m, out);
        default:
            return Reject::UnknownType;
        }
    case KT4_EVT_MSG_TYPE_NOTIFY:
        return parse_notify(m, out);
    case KT4_EVT_MSG_TYPE_SUBSCRIBE:
        return parse_subscription(m, true, out);
    case KT4_EVT_MSG_TYPE_UNSUBSCRIBE:
        return parse_subscription(m, false, out);
    case KT4_EVT_MSG_TYPE_AUDIT:
        return parse_audit(m, out);
    default:
        return Reject::UnknownType;
    }
}

} // namespace kt4::evtlogd
