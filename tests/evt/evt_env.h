// The card the event-log tests run on, and a socket standing for one of its servers.
//
// Every test process gets a card of its own (kt4_test_env.h) with a chassis and slot of its
// own, so that test processes run side by side bind different addresses. CPU 0: the
// registration of a key goes to the event-log server (service 24 instance 0) itself.
#pragma once

#include "support/kt4_test_env.h"

#include <kt4/kt4.h>

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>

#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

namespace evttest {

inline void card() {
    static bool up = [] {
        kt4test::Card::get(); // its own chassis and slot
        setenv("KT4_CPU", "0", 1);
        unsetenv("KT4_PLATFORM_TYPE");
        unsetenv("KT4_RPM_ROLE");
        kt4CardReload();
        return kt4test::Card::get().up();
    }();
    ASSERT_TRUE(up);
}

inline uint32_t be32_of(const std::vector<unsigned char> &m, size_t off) {
    return uint32_t{m.at(off)} << 24 | uint32_t{m.at(off + 1)} << 16 |
           uint32_t{m.at(off + 2)} << 8 | m.at(off + 3);
}

inline std::string str_of(const std::vector<unsigned char> &m, size_t off, size_t width) {
    std::string s(reinterpret_cast<const char *>(m.data() + off), width);
    return s.substr(0, s.find('\0'));
}

// A server's endpoint opened in this process and registered on the card, whose request
// socket the test reads directly.
class Server {
  public:
    Server(int service, int instance) : key_(kt4IpcOpen(service, instance)) {}
    ~Server() {
        if (key_ != -1) kt4IpcClose(key_);
    }
    Server(const Server &) = delete;
    Server &operator=(const Server &) = delete;
    bool ok() const { return key_ != -1; }

    // The next datagram within timeout_ms, or empty.
    std::vector<unsigned char> recv(int timeout_ms = 2000) {
        pollfd p{Key_getSocketFd(Key_getReqQueue(key_)), POLLIN, 0};
        if (poll(&p, 1, timeout_ms) != 1) return {};
        std::vector<unsigned char> buf(4096);
        ssize_t n = ::recv(p.fd, buf.data(), buf.size(), 0);
        buf.resize(n > 0 ? static_cast<size_t>(n) : 0);
        return buf;
    }
    // The next datagram whose message type and word at +24 match, skipping others.
    std::vector<unsigned char> recv_type(uint32_t type, uint32_t sub, int timeout_ms = 2000) {
        for (;;) {
            std::vector<unsigned char> m = recv(timeout_ms);
            if (m.empty() || (m.size() >= 60 && be32_of(m, 12) == type && be32_of(m, 24) == sub))
                return m;
        }
    }
    // Acknowledges a guaranteed message (command byte 9 or 7) as its receiver would: the
    // header alone, command byte 8 or 6, the triples exchanged, to the sender's response queue.
    void ack(const std::vector<unsigned char> &m) {
        if (m.size() < 60 || (m[4] != 9 && m[4] != 7)) return;
        std::vector<unsigned char> a(m.begin(), m.begin() + 60);
        a[4] = m[4] == 9 ? 8 : 6;
        a[5] = 0;
        a[8] = a[9] = a[10] = 0;
        a[11] = 60;
        std::copy(m.begin() + 48, m.begin() + 60, a.begin() + 36);
        std::copy(m.begin() + 36, m.begin() + 48, a.begin() + 48);
        sockaddr_in to{};
        to.sin_family = AF_INET;
        to.sin_addr.s_addr = htonl(be32_of(m, 40));
        to.sin_port = htons(static_cast<uint16_t>((be32_of(m, 44) & ~3u) | 2));
        sendto(Key_getSocketFd(Key_getReqQueue(key_)), a.data(), a.size(), 0,
               reinterpret_cast<const sockaddr *>(&to), sizeof to);
    }
    void drain() {
        while (!recv(50).empty()) {
        }
    }

  private:
    int key_;
};

} // namespace evttest
