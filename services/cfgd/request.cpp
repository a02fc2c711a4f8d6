// Parsers of the configuration request and its bodies.
#include "request.h"

#include <kt4/cfg.h>
#include <kt4/ipc.h>

#include "common/kt4_be.h"

#include <algorithm>
#include <cstring>

namespace cfgd {
namespace {

using kt4::load_be32;

// A NUL-terminated line of n characters at p within the body, all of them valid text.
bool text_at(const unsigned char *p, uint32_t n, std::string *out) {
    if (p[n] != '\0' || std::memchr(p, '\0', n) != nullptr) return false;
    out->assign(reinterpret_cast<const char *>(p), n);
    return kt4isValidTextString(out->c_str()) != 0;
}

} // namespace

bool answerable(const unsigned char *msg, size_t n) {
    return n >= KT4_CFG_OFF_STATUS + 4 && load_be32(msg) == KT4_IPC_MAGIC &&
           msg[4] == KT4_IPC_CMD_REQ;
}

Parse parse_request(const unsigned char *msg, size_t n, Request *out) {
    if (n < KT4_IPC_HDR_LEN || load_be32(msg) != KT4_IPC_MAGIC) return Parse::Unanswerable;
    if (n < KT4_CFG_REQ_HDR_LEN) return answerable(msg, n) ? Parse::Malformed : Parse::Unanswerable;
    out->cmdType = msg[4];
    out->msgType = load_be32(msg + 12);
    out->command = load_be32(msg + KT4_CFG_OFF_COMMAND);
    out->bodyLen = load_be32(msg + KT4_CFG_OFF_BODY_LEN);
    const uint32_t total = load_be32(msg + 8);
    // The three lengths must tell one story: message, header field and body field.
    if (total != n || out->bodyLen != n - KT4_CFG_REQ_HDR_LEN) return Parse::Malformed;
    out->body = msg + KT4_CFG_REQ_HDR_LEN;
    return Parse::Ok;
}

bool parse_change(const unsigned char *b, size_t n, Line *out) {
    if (n < KT4_CFG_CHANGE_FIXED + 1 + KT4_CFG_CHANGE_EXTRA) return false;
    const uint64_t k = load_be32(b + 8), n1 = load_be32(b + 12);
    out->context = load_be32(b);
    out->common = load_be32(b + 4);
    out->line2.reset();
    if (k > KT4_CFG_KEY_LEN || n1 > KT4_CFG_LINE_MAX) return false;
    size_t at;
    if (KT4_CFG_CHANGE_FIXED + k + n1 + 1 + KT4_CFG_CHANGE_EXTRA == n) {
        at = KT4_CFG_CHANGE_FIXED;
    } else {
        // Both lines: a fifth word, and the second line after the first.
        if (n < KT4_CFG_CHANGE_BOTH_FIXED) return false;
        const uint64_t n2 = load_be32(b + 16);
        if (n2 > KT4_CFG_LINE_MAX ||
            KT4_CFG_CHANGE_BOTH_FIXED + k + n1 + 1 + n2 + 1 + KT4_CFG_CHANGE_EXTRA != n)
            return false;
        at = KT4_CFG_CHANGE_BOTH_FIXED;
        std::string second;
        if (!text_at(b + at + k + n1 + 1, static_cast<uint32_t>(n2), &second)) return false;
        out->line2 = std::move(second);
    }
    out->key.assign(reinterpret_cast<const char *>(b + at), k);
    if (!text_at(b + at + k, static_cast<uint32_t>(n1), &out->line)) return false;
    out->owner = load_be32(b + n - KT4_CFG_CHANGE_EXTRA);
    return true;
}

bool parse_record(const unsigned char *b, size_t n, Line *out) {
    if (n != KT4_CFG_RECORD_LEN) return false;
    const uint32_t k = load_be32(b + KT4_CFG_REC_OFF_KEYLEN);
    if (k > KT4_CFG_KEY_LEN) return false;
    out->context = load_be32(b + KT4_CFG_REC_OFF_CONTEXT);
    out->common = load_be32(b + KT4_CFG_REC_OFF_COMMON);
    out->key.assign(reinterpret_cast<const char *>(b), k);
    const char *line = reinterpret_cast<const char *>(b + KT4_CFG_REC_OFF_LINE);
    out->line.assign(line, strnlen(line, KT4_CFG_LINE_FIELD - 1));
    out->line2.reset();
    out->owner = 0;
    return true;
}

void encode_record(const Line &l, unsigned char *out) {
    std::memset(out, 0, KT4_CFG_RECORD_LEN);
    std::memcpy(out, l.key.data(), std::min<size_t>(l.key.size(), KT4_CFG_KEY_LEN));
    kt4::store_be32(out + KT4_CFG_REC_OFF_CONTEXT, l.context);
    kt4::store_be32(out + KT4_CFG_REC_OFF_COMMON, l.common);
    kt4::store_be32(out + KT4_CFG_REC_OFF_KEYLEN, static_cast<uint32_t>(l.key.size()));
    std::memcpy(out + KT4_CFG_REC_OFF_LINE, l.line.data(),
                std::min<size_t>(l.line.size(), KT4_CFG_LINE_FIELD - 1));
}

bool parse_password(const unsigned char *b, size_t n, Password *out) {
    if (n != KT4_CFG_PW_BODY_LEN) return false;
    const uint32_t k = load_be32(b + KT4_CFG_PW_OFF_KEYLEN);
    if (k > KT4_CFG_PASSWORD_KEY_MAX) return false;
    out->b = load_be32(b);
    out->key.assign(reinterpret_cast<const char *>(b + KT4_CFG_PW_OFF_KEY), k);
    out->context = load_be32(b + KT4_CFG_PW_OFF_CONTEXT);
    out->a = load_be32(b + KT4_CFG_PW_OFF_A);
    out->c = load_be32(b + KT4_CFG_PW_OFF_C);
    return true;
}

bool parse_sync(const unsigned char *b, size_t n, SyncEntry *out) {
    if (n < KT4_CFG_SYNC_FIXED + 1) return false;
    out->op = b[0];
    out->flags = b[1];
    out->context = load_be32(b + 2);
    out->slot = load_be32(b + 6);
    out->sequence = load_be32(b + 10);
    const uint64_t sub = load_be32(b + 14), cmd = load_be32(b + 18), extra = load_be32(b + 22);
    if (sub > KT4_CFG_SYNC_SUBSYS_MAX || cmd > KT4_CFG_LINE_MAX ||
        KT4_CFG_SYNC_FIXED + sub + cmd + extra + 1 != n)
        return false;
    const unsigned char *p = b + KT4_CFG_SYNC_FIXED;
    out->subsys.assign(reinterpret_cast<const char *>(p), sub);
    out->line.assign(reinterpret_cast<const char *>(p + sub), cmd);
    // Only the last string carries a NUL; none may hide one inside.
    if (out->subsys.find('\0') != std::string::npos || out->line.find('\0') != std::string::npos)
        return false;
    return text_at(p + sub + cmd, static_cast<uint32_t>(extra), &out->extra) &&
           kt4isValidTextString(out->subsys.c_str()) && kt4isValidTextString(out->line.c_str());
}

bool parse_bundle(const unsigned char *b, size_t n, std::vector<Change> *out) {
    if (n < 4) return false;
    const uint32_t count = load_be32(b);
    size_t at = 4;
    out->clear();
    for (uint32_t i = 0; i < count; ++i) {
        if (n - at < 8) return false;
        const uint32_t command = load_be32(b + at);
        const uint32_t len = load_be32(b + at + 4);
        at += 8;
        if (len > n - at) return false;
        Change c;
        if (command == KT4_CFG_CMD_INSERT)
            c.kind = Change::Insert;
        else if (command == KT4_CFG_CMD_REMOVE_EXACT)
            c.kind = Change::RemoveExact;
        else if (command == KT4_CFG_CMD_REMOVE_NODE)
            c.kind = Change::RemoveNode;
        else
            return false;
        if (!parse_change(b + at, len, &c.rec)) return false;
        out->push_back(std::move(c));
        at += len;
    }
    return at == n;
}

} // namespace cfgd
