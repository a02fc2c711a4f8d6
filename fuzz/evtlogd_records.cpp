// Fuzzes the event-log server's reading of records and its reassembly of chunked texts.
//
// Input: a sequence of messages, each as [op u8][length u16 big-endian][bytes]. The low
// seven bits of op advance the clock by that many 50 ms steps before the message; with the top
// bit set the chunk time-out is run first. After the last message everything pending is
// written. Every line the server writes must be one line: ending in its only newline, with no
// other control character.
#include "services/evtlogd/receiver.h"

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string_view>

namespace {

void check_line(std::string_view line) {
    if (line.empty() || line.back() != '\n') __builtin_trap();
    for (size_t i = 0; i + 1 < line.size(); ++i) {
        const auto c = static_cast<unsigned char>(line[i]);
        if (c < 0x20 || c == 0x7F) __builtin_trap();
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    kt4::evtlogd::Receiver rx(check_line, kt4::evtlogd::Receiver::Options{500, 4, 16});
    uint64_t now = 0;
    while (size >= 3) {
        const uint8_t op = data[0];
        size_t len = static_cast<size_t>(data[1]) << 8 | data[2];
        data += 3;
        size -= 3;
        if (len > size) len = size;
        now += static_cast<uint64_t>(op & 0x7F) * 50;
        if (op & 0x80) rx.expire(now);
        // The message in an allocation of exactly its size, so that any read past it is caught.
        auto *msg = new uint8_t[len == 0 ? 1 : len];
        if (len != 0) std::memcpy(msg, data, len);
        rx.message(msg, len, 1700000000, now);
        delete[] msg;
        data += len;
        size -= len;
    }
    rx.flush();
    if (rx.pending() != 0) __builtin_trap();
    const kt4::evtlogd::Counters c = rx.counters();
    // Every message is either taken (as one kind of record or a chunk) or counted as dropped.
    uint64_t rejected = 0;
    for (uint64_t r : c.rejected)
        rejected += r;
    if (c.registrations + c.chunks + c.duplicates + c.audits + c.notifications + c.subscriptions +
            rejected !=
        c.messages)
        __builtin_trap();
    return 0;
}
