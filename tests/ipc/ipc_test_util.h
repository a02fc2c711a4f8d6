// Helpers of the IPC tests: a per-process card identity (so that parallel test processes
// bind different 127/8 addresses), UDP sockets that play the other end of a conversation,
// and message builders.
#pragma once

#include <kt4/hostsim.h>
#include <kt4/ipc.h>

#include <gtest/gtest.h>

#include "support/kt4_reserve.h"
#include "support/kt4_support.h"

#include <arpa/inet.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <vector>

namespace ipctest {

// Each test process reserves its own chassis and slot before the first IPC call forms the
// card's address, so concurrently running test processes never share a port.
inline void pick_card_identity() {
    static bool done = false;
    if (done) return;
    done = true;
    kt4test::CardIdentity id = kt4test::card_identity();
    kt4CardSetChassisId(id.chassis);
    kt4CardSetSlot(id.slot);
}

// Services handed out one per use within a process, so that a test never meets an endpoint
// (or a port) of another test of the same process.
// Services with rules of their own (never guaranteed: 102, 106, 253, 254; 334 not as a
// target) are skipped, so that a test meets them only where it names them.
inline int fresh_service() {
    static std::atomic<int> next{40};
    for (;;) {
        int s = next.fetch_add(1);
        if (s > 330) s = 40 + (s % 290); // keeps services valid over many rounds of a test
        if (s != 102 && s != 106) return s;
    }
}

inline double seconds_since(std::chrono::steady_clock::time_point t0) {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
}

// A message of len bytes: header with type, transaction and the two triples, payload filled
// with a pattern.
inline std::vector<unsigned char> make_msg(int len, uint32_t type, uint32_t trans, int srcSvc,
                                           int srcInst, int tgtSvc, int tgtInst) {
    std::vector<unsigned char> m(static_cast<size_t>(len), 0);
    for (int i = KT4_IPC_HDR_LEN; i < len; ++i)
        m[static_cast<size_t>(i)] = static_cast<unsigned char>(i * 7);
    kt4IpcHdrSet(m.data(), KT4_IPC_HDR_LENGTH, static_cast<uint32_t>(len));
    kt4IpcHdrSet(m.data(), KT4_IPC_HDR_MSG_TYPE, type);
    kt4IpcHdrSet(m.data(), KT4_IPC_HDR_TRANSACTION, trans);
    kt4IpcSetSourceHeader(m.data(), kt4CardSlot(), srcSvc, srcInst);
    kt4IpcSetTargetHeader(m.data(), kt4IpcGetLocalCpuIpAddr(), kt4CardSlot(), tgtSvc, tgtInst);
    return m;
}

// The same message as it travels on the wire (the send path sets the magic): for raw sockets.
inline std::vector<unsigned char> on_wire(std::vector<unsigned char> m) {
    kt4IpcHdrSet(m.data(), KT4_IPC_HDR_MAGIC, KT4_IPC_MAGIC);
    return m;
}

// The acknowledgement (command cmd) of msg as its receiver sends it: the header alone, with the
// message's tag, type and transaction, and the two triples exchanged.
inline std::vector<unsigned char> ack_of(const std::vector<unsigned char> &msg, uint32_t cmd) {
    std::vector<unsigned char> a(KT4_IPC_HDR_LEN, 0);
    kt4IpcHdrSet(a.data(), KT4_IPC_HDR_MAGIC, KT4_IPC_MAGIC);
    kt4IpcHdrSet(a.data(), KT4_IPC_HDR_CMD_TYPE, cmd);
    kt4IpcHdrSet(a.data(), KT4_IPC_HDR_LENGTH, KT4_IPC_HDR_LEN);
    for (auto f : {KT4_IPC_HDR_GRT_TAG, KT4_IPC_HDR_MSG_TYPE, KT4_IPC_HDR_TRANSACTION})
        kt4IpcHdrSet(a.data(), f, kt4IpcHdrGet(msg.data(), f));
    std::memcpy(a.data() + 36, msg.data() + 48, 12);
    std::memcpy(a.data() + 48, msg.data() + 36, 12);
    return a;
}

// A plain UDP socket bound on the card's address at a port (the other end of a test).
struct RawSock : kt4test::UdpPeer {
    explicit RawSock(uint16_t port, bool reuse = true)
        : UdpPeer(kt4IpcGetLocalCpuIpAddr(), port, reuse) {}
    // Sends to the card's address at port.
    long send_to(uint16_t port, const void *buf, size_t len) const {
        return send(kt4IpcGetLocalCpuIpAddr(), port, buf, len);
    }
};

inline uint16_t port_of(int service, int instance, int kind) {
    return static_cast<uint16_t>(kt4_getQueueId(service, instance, kind) & 0xFFFF);
}

} // namespace ipctest
