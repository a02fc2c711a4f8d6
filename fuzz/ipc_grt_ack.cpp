// Fuzzes guaranteed IPC's matching of acknowledgements against the message it sent, in both
// forms (tagged guaranteed sends and the older "GRT").
//
// Input: the 60-byte header that was sent, then the datagram that arrived.
#include "ipc/header.h"

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <initializer_list>

using namespace kt4::ipc;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size < kHeaderLen) return 0;
    Header sent;
    std::memcpy(&sent, data, kHeaderLen);
    data += kHeaderLen;
    size -= kHeaderLen;
    auto *buf = new uint8_t[size == 0 ? 1 : size];
    if (size != 0) std::memcpy(buf, data, size);
    for (uint8_t ack : {kCmdGrtAck, kCmdGrtAckFirst}) {
        if (grt_ack_matches(buf, size, sent, ack)) {
            const Header &a = *hdr(buf);
            if (size < kHeaderLen || a.magic != kMagic || a.cmdType != ack ||
                a.grtTag != sent.grtTag.get())
                __builtin_trap();
        }
    }
    if (grt_old_ack_matches(buf, size, sent) && (size < kHeaderLen || hdr(buf)->cmdType != kCmdAck))
        __builtin_trap();
    // The acknowledgement a receiver builds always matches.
    Header ack;
    build_ack(sent, kCmdGrtAckFirst, &ack);
    if (!grt_ack_matches(&ack, sizeof ack, sent, kCmdGrtAckFirst)) __builtin_trap();
    delete[] buf;
    return 0;
}
