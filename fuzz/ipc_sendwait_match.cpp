// Fuzzes send-and-wait's reading of what arrives on the response queue: which datagram is
// taken as the reply, ignored or dropped.
//
// Input: 10 bytes of the wanted type and transaction and the reply buffer's size, then the
// datagram.
#include "ipc/header.h"

#include <cstddef>
#include <cstdint>
#include <cstring>

using namespace kt4::ipc;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size < 10) return 0;
    const uint32_t wantType = kt4::load_be32(data);
    const uint32_t wantTrans = kt4::load_be32(data + 4);
    const size_t bufSize = static_cast<size_t>(data[8]) << 8 | data[9];
    data += 10;
    size -= 10;
    const size_t wire = size;
    size = wire < bufSize ? wire : bufSize;
    auto *buf = new uint8_t[size == 0 ? 1 : size];
    if (size != 0) std::memcpy(buf, data, size);
    ReplyVerdict v = classify_reply(buf, size, wire, wantType, wantTrans);
    // A reply is only ever taken from a whole header that carries the magic and whose length
    // field stays within the datagram.
    if ((v == ReplyVerdict::Take || v == ReplyVerdict::TakeAny) &&
        (size < kHeaderLen || hdr(buf)->magic != kMagic || hdr(buf)->length > wire))
        __builtin_trap();
    if (v == ReplyVerdict::Take &&
        (hdr(buf)->msgType != wantType || hdr(buf)->transaction != wantTrans))
        __builtin_trap();
    (void)peek_magic(buf, size);
    delete[] buf;
    return 0;
}
