// The records the event-log server receives, read from their wire form (<kt4/evt.h>).
//
// One parser for every record kind: registration and log record (type 2001), event-handler
// notification (2009), subscription and its withdrawal (2010, 2011) and audit record (2015).
// Every byte is hostile: lengths are checked before anything is read, every string must end
// within its field, and a log chunk must agree with itself (its count, index, chunk length and
// text length). A record that fails is rejected with the reason, never partly used.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>
#include <variant>

namespace kt4::evtlogd {

// Sender's triple of the IPC header.
struct Source {
    uint32_t slot = 0;
    uint32_t addr = 0; // host order
    uint32_t qid = 0;
};

struct Registration {
    Source src;
    uint32_t task = 0;
    uint32_t service = 0;
    uint32_t instance = 0;
};

// One chunk of a log record. The string views point into the message that was parsed.
struct LogChunk {
    Source src;
    uint32_t task = 0;
    uint16_t count = 0; // chunks of the whole text, 1..5
    uint16_t index = 0; // this chunk, 0..count-1
    uint32_t unit = 0, level = 0, facility = 0, error = 0, errClass = 0, evKey = 0;
    uint32_t pid = 0, seq = 0, time = 0;
    uint32_t textLen = 0; // the whole text, 1..2047
    std::string_view tag, name, label, cpu, chunk;
};

struct Audit {
    Source src;
    uint32_t code = 0;
    std::string_view user, source, text;
};

struct Notify {
    Source src;
    std::string_view name;
    uint32_t word1 = 0, word2 = 0;
    uint16_t field = 0;
    bool hasBlock = false;
};

struct Subscription {
    Source src;
    bool subscribe = true; // false: withdrawal
    uint32_t evKey = 0, facility = 0, error = 0, qid = 0, pid = 0;
};

using Record = std::variant<Registration, LogChunk, Audit, Notify, Subscription>;

// Why a message was rejected; each has its own counter.
enum class Reject {
    None,
    Short,       // under the 60-byte header
    BadMagic,    // not an IPC message
    BadLength,   // the header's length field names fewer than 60 or more bytes than arrived
    Truncated,   // shorter than its record kind
    UnknownType, // a message type (or registration/log sub-code) no server here takes
    BadString,   // a string without its NUL inside its field
    BadChunk,    // a log chunk whose count, index or lengths contradict each other
    Count
};

const char *reject_name(Reject r);

// Parses one message of n bytes (n: what arrived). Returns Reject::None and fills out, whose
// views point into msg, or the reason it was rejected.
Reject parse(const void *msg, size_t n, Record &out);

} // namespace kt4::evtlogd
