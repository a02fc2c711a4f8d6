// Helpers of the IPC tests: a per-process card identity (so that parallel test processes
// bind different 127/8 addresses), UDP sockets and forked processes that play the other end
// of a conversation, and message builders.
#pragma once

#include <kt4/hostsim.h>
#include <kt4/ipc.h>

#include <gtest/gtest.h>

#include "support/kt4_reserve.h"
#include "support/kt4_support.h"

#include <arpa/inet.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <functional>
#include <string>
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
// of another test; 102 and 106 (never guaranteed) are skipped.
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

// A message of len bytes: header with type, transaction and the two triples, a patterned payload.
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

// An address (host order) in dotted form.
inline std::string dotted(uint32_t a) {
    in_addr in{htonl(a)};
    char buf[INET_ADDRSTRLEN];
    return inet_ntop(AF_INET, &in, buf, sizeof buf);
}

inline uint16_t port_of(int service, int instance, int kind) {
    return static_cast<uint16_t>(kt4_getQueueId(service, instance, kind) & 0xFFFF);
}

// A forked process of the card: opens (svc, 0), says so on a pipe, runs body(key), and reports
// a line of text back through the pipe when it ends. Killed when the object goes.
class Child {
  public:
    Child(int svc, std::function<std::string(int key)> body) {
        int p[2];
        if (pipe(p) != 0) return;
        pid_ = kt4test::fork_child([&] {
            close(p[0]);
            int key = kt4IpcOpen(svc, 0);
            char c = key > 0 ? 'y' : 'n';
            if (write(p[1], &c, 1) != 1 || key <= 0) return false;
            std::string out = body(key) + "\n";
            kt4IpcClose(key);
            return write(p[1], out.data(), out.size()) == static_cast<ssize_t>(out.size());
        });
        close(p[1]);
        fd_ = p[0];
        char c = 0;
        ready_ = read(fd_, &c, 1) == 1 && c == 'y';
    }
    ~Child() {
        close(fd_);
        if (pid_ > 0) {
            kill(pid_, SIGKILL);
            waitpid(pid_, nullptr, 0);
        }
    }
    bool ready() const { return ready_; }
    pid_t pid() const { return pid_; }
    // What the child reported (waiting at most seconds between reads), and collects it.
    std::string result(int seconds = 60) {
        std::string out;
        char buf[4096];
        pollfd p{fd_, POLLIN, 0};
        for (ssize_t n = 1; n > 0 && (out.empty() || out.back() != '\n');) {
            n = poll(&p, 1, seconds * 1000) > 0 ? read(fd_, buf, sizeof buf) : 0;
            if (n > 0) out.append(buf, static_cast<size_t>(n));
        }
        if (waitpid(pid_, nullptr, 0) == pid_) pid_ = -1;
        return out;
    }

  private:
    pid_t pid_ = -1;
    int fd_ = -1;
    bool ready_ = false;
};

} // namespace ipctest
