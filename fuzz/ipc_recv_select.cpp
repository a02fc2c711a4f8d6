// Fuzzes the receive path's reading of a datagram: the selection rules of kt4IpcRecv, the
// acknowledgement a message asks for, and the history ring's copy of it.
//
// Input: 11 bytes of parameters (timeout, wanted type, wanted transaction, the size of the
// receive buffer), then the datagram. A buffer smaller than the datagram holds its first bytes,
// as recvfrom leaves them.
#include "ipc/header.h"
#include "ipc/ipc_int.h"

#include <kt4/ipc.h>

#include <cstddef>
#include <cstdint>
#include <cstring>

using namespace kt4::ipc;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    static bool ring = [] {
        kt4InitIpcHistoryTable(8, 256, 1);
        kt4EnableIpcHistoryLogging(0xFFFFFFFF, -1, -1);
        return true;
    }();
    (void)ring;
    if (size < 11) return 0;
    const int timeout = static_cast<int8_t>(data[0]);
    const uint32_t wantType = kt4::load_be32(data + 1);
    const uint32_t wantTrans = kt4::load_be32(data + 5);
    const size_t bufSize = static_cast<size_t>(data[9]) << 8 | data[10];
    data += 11;
    size -= 11;
    const size_t wire = size;
    // The bytes that reached the buffer, in an allocation of exactly that size, so that any
    // read past them is caught.
    size = wire < bufSize ? wire : bufSize;
    auto *buf = new uint8_t[size == 0 ? 1 : size];
    if (size != 0) std::memcpy(buf, data, size);
    RecvVerdict v = classify_recv(buf, size, wire, timeout, wantType, wantTrans);
    (void)peek_magic(buf, size);
    if (v != RecvVerdict::TooShort && v != RecvVerdict::BadMagic) {
        const Header &h = *hdr(buf);
        if (size < kHeaderLen) __builtin_trap();
        if (uint8_t ack = ack_due(h); ack != 0) {
            Header out;
            build_ack(h, ack, &out);
            // An acknowledgement must itself be taken by the sender's matcher.
            if (ack != kCmdAck && !grt_ack_matches(&out, sizeof out, h, ack)) __builtin_trap();
        }
        // A message handed to the caller never claims more bytes than its datagram had, and
        // unless it is reported cut, never more than its buffer holds.
        if (v != RecvVerdict::BadLength && h.length > wire) __builtin_trap();
        if (v == RecvVerdict::Take && !message_cut(h, size, wire) && h.length > size)
            __builtin_trap();
    }
    hist_record(buf, size);
    delete[] buf;
    return 0;
}
