// cfgd's reading of configuration requests (the layouts of <kt4/cfg.h>). Every byte comes
// from outside: each parser checks lengths before it reads and refuses what does not add up.
#pragma once

#include "store.h"

#include <cstddef>
#include <cstdint>
#include <string_view>
#include <vector>

namespace cfgd {

// What the request header says.
struct Request {
    uint32_t cmdType = 0; // IPC command type: KT4_IPC_CMD_REQ asks for a reply
    uint32_t msgType = 0;
    uint32_t command = 0;
    uint32_t bodyLen = 0;
    const unsigned char *body = nullptr;
};

enum class Parse {
    Ok,
    Unanswerable, // too short to hold a status word, or no IPC message: counted and dropped
    Malformed,    // a header whose lengths do not agree with the bytes
};

// The header of a message of n bytes.
Parse parse_request(const unsigned char *msg, size_t n, Request *out);
// A reply can be sent to this message (an IPC "REQ" with room for the status word).
bool answerable(const unsigned char *msg, size_t n);

// Change body (plain or both-line: the lengths tell which). owner is the extra word.
bool parse_change(const unsigned char *body, size_t n, Line *out);
// The 552-byte record: context, common flag, key bytes and the line.
bool parse_record(const unsigned char *body, size_t n, Line *out);
void encode_record(const Line &l, unsigned char *out); // 552 bytes
struct Password {
    uint32_t a = 0, b = 0, c = 0, context = 0;
    std::string key;
};
bool parse_password(const unsigned char *body, size_t n, Password *out);
bool parse_sync(const unsigned char *body, size_t n, SyncEntry *out);
// A bundle: every change, or false when any part is malformed.
bool parse_bundle(const unsigned char *body, size_t n, std::vector<Change> *out);

} // namespace cfgd
