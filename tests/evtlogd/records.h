// Event-log records built byte by byte from the offsets of <kt4/evt.h>, as a sender puts
// them on the wire, for the server's tests.
#pragma once

#include "common/kt4_be.h"

#include <kt4/evt.h>
#include <kt4/ipc.h>

#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

namespace evtlogdtest {

using Bytes = std::vector<unsigned char>;

struct Triple {
    uint32_t slot = 0, addr = 0x7F0A0A0A, qid = 0x6402;
};

inline Bytes header(uint32_t type, size_t len, uint32_t sub, Triple src = {}, Triple dst = {}) {
    Bytes m(len, 0);
    kt4::store_be32(&m[0], KT4_IPC_MAGIC);
    kt4::store_be32(&m[8], static_cast<uint32_t>(len));
    kt4::store_be32(&m[12], type);
    kt4::store_be32(&m[KT4_EVT_OFF_TASK], 7);
    kt4::store_be32(&m[KT4_EVT_OFF_SUBCODE], sub);
    kt4::store_be32(&m[KT4_EVT_OFF_FLAG], KT4_EVT_FLAG_WORD);
    kt4::store_be32(&m[36], src.slot);
    kt4::store_be32(&m[40], src.addr);
    kt4::store_be32(&m[44], src.qid);
    kt4::store_be32(&m[48], dst.slot);
    kt4::store_be32(&m[52], dst.addr);
    kt4::store_be32(&m[56], dst.qid);
    return m;
}

inline void put_str(Bytes &m, size_t off, const std::string &s) {
    std::memcpy(&m[off], s.data(), s.size());
}

inline Bytes registration(uint32_t service, uint32_t instance, Triple src = {}, Triple dst = {}) {
    Bytes m = header(KT4_EVT_MSG_TYPE_LOG, KT4_EVT_REG_LEN, KT4_EVT_SUB_REGISTER, src, dst);
    kt4::store_be32(&m[KT4_EVT_REG_SERVICE], service);
    kt4::store_be32(&m[KT4_EVT_REG_INSTANCE], instance);
    return m;
}

struct LogFields {
    uint32_t pid = 4242, seq = 1, level = 3, facility = 17, error = 5, evKey = 20000;
    uint32_t time = 1700000000; // 2023-11-14T22:13:20Z
    std::string tag, name = "tWorker", label = "STKUNIT0-P", cpu = "RP1";
    Triple src, dst;
};

// Chunk index of text, cut as the sender cuts it (500 bytes each).
inline Bytes log_chunk(const LogFields &s, const std::string &text, unsigned index) {
    const unsigned count = static_cast<unsigned>((text.size() + KT4_EVT_CHUNK - 1) / KT4_EVT_CHUNK);
    Bytes m = header(KT4_EVT_MSG_TYPE_LOG, KT4_EVT_LOG_LEN, KT4_EVT_SUB_LOG, s.src, s.dst);
    kt4::store_be32(&m[KT4_EVT_LOG_CHUNKS], count << 16 | index);
    kt4::store_be32(&m[KT4_EVT_LOG_LEVEL], s.level);
    kt4::store_be32(&m[KT4_EVT_LOG_FACILITY], s.facility);
    kt4::store_be32(&m[KT4_EVT_LOG_ERROR], s.error);
    kt4::store_be32(&m[KT4_EVT_LOG_EVKEY], s.evKey);
    kt4::store_be32(&m[KT4_EVT_LOG_PID], s.pid);
    kt4::store_be32(&m[KT4_EVT_LOG_SEQ], s.seq);
    kt4::store_be32(&m[KT4_EVT_LOG_TIME], s.time);
    kt4::store_be32(&m[KT4_EVT_LOG_TEXTLEN], static_cast<uint32_t>(text.size()));
    put_str(m, KT4_EVT_LOG_TAG, s.tag);
    put_str(m, KT4_EVT_LOG_NAME, s.name);
    put_str(m, KT4_EVT_LOG_LABEL, s.label);
    put_str(m, KT4_EVT_LOG_CPU, s.cpu);
    const std::string part = text.substr(index * KT4_EVT_CHUNK, KT4_EVT_CHUNK);
    kt4::store_be32(&m[KT4_EVT_LOG_CHUNKLEN], static_cast<uint32_t>(part.size()));
    put_str(m, KT4_EVT_LOG_TEXT, part);
    return m;
}

inline Bytes audit(uint32_t code, const std::string &user, const std::string &source,
                   const std::string &text, Triple src = {}, Triple dst = {}) {
    Bytes m = header(KT4_EVT_MSG_TYPE_AUDIT, KT4_EVT_AUDIT_LEN, 1, src, dst);
    kt4::store_be32(&m[KT4_EVT_OFF_FLAG], 12);
    kt4::store_be32(&m[KT4_EVT_AUDIT_CODE], code);
    put_str(m, KT4_EVT_AUDIT_USER, user);
    put_str(m, KT4_EVT_AUDIT_SOURCE, source);
    put_str(m, KT4_EVT_AUDIT_TEXT, text);
    return m;
}

// A text of n characters that shows where each chunk begins.
inline std::string text_of(size_t n) {
    std::string t;
    for (size_t i = 0; i < n; ++i)
        t += static_cast<char>('a' + (i / KT4_EVT_CHUNK) % 26);
    if (n > 0) t[0] = 'A';
    return t;
}

} // namespace evtlogdtest
