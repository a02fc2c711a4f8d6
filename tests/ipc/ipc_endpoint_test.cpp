// Endpoints: opening, closing, queues and their sockets' options.
#include "ipc_test_util.h"

#include <kt4/ipc.h>

#include <gtest/gtest.h>

#include <dirent.h>
#include <fcntl.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <thread>

namespace {

using ipctest::fresh_service;
using ipctest::port_of;
using ipctest::RawSock;

int open_descriptors() {
    int n = 0;
    if (DIR *d = opendir("/proc/self/fd")) {
        while (readdir(d) != nullptr)
            ++n;
        closedir(d);
    }
    return n;
}

// Binds a UDP socket at addr:port asking to share it (SO_REUSEADDR, and SO_REUSEPORT when
// reusePort); true when the bind succeeded.
bool bind_shared(uint32_t addr, uint16_t port, bool reusePort) {
    int fd = ::socket(AF_INET, SOCK_DGRAM, 0);
    if (fd < 0) return false;
    int one = 1;
    ::setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
    if (reusePort) ::setsockopt(fd, SOL_SOCKET, SO_REUSEPORT, &one, sizeof one);
    sockaddr_in sa{};
    sa.sin_family = AF_INET;
    sa.sin_port = htons(port);
    sa.sin_addr.s_addr = htonl(addr);
    bool ok = ::bind(fd, reinterpret_cast<sockaddr *>(&sa), sizeof sa) == 0;
    ::close(fd);
    return ok;
}

TEST(IpcEndpoint, OpenIsIdempotentKeepsSocketOptionsAndCloseFreesThePorts) {
    const int svc = fresh_service();
    const int key = kt4IpcOpen(svc, 3);
    ASSERT_EQ((svc << 7) | (3 << 2), key);
    const int reqFd = Key_getSocketFd(key | 1);
    ASSERT_GE(reqFd, 0);
    EXPECT_EQ(key, kt4IpcOpen(svc, 3)); // nothing new is created
    EXPECT_EQ(reqFd, Key_getSocketFd(key | 1));
    EXPECT_EQ(1, kt4IpcIsOpen(svc, 3));
    EXPECT_EQ(0, kt4IpcIsOpen(svc, 4));
    EXPECT_EQ(0, kt4IpcIsOpen(12, 3));
    EXPECT_EQ(0, kt4IpcIsOpen(svc, 32));
    EXPECT_EQ(0, Key_getTmrQueue(key));

    // The sockets are bound where the queue ids say, and alone: no other socket takes the
    // ports, whether or not it asks to share them.
    EXPECT_FALSE(RawSock(port_of(svc, 3, 1), false).bound());
    EXPECT_FALSE(RawSock(port_of(svc, 3, 2), true).bound());

    // What the socket reports back is kept (the host may round or double it).
    int err = -1;
    EXPECT_GE(kt4IpcGetRecvBufferLimit(key | 1, &err), 129024);
    EXPECT_EQ(0, err);
    EXPECT_GE(kt4IpcGetSendBufferLimit(key | 1, &err), 32768);
    ASSERT_EQ(0, kt4IpcSetRecvBufferLimit(key | 1, 65536, &err));
    EXPECT_GE(kt4IpcGetRecvBufferLimit(key | 1, &err), 65536);
    EXPECT_LT(kt4IpcGetRecvBufferLimit(key | 1, &err), 129024 * 2);
    ASSERT_EQ(0, kt4IpcSetSendBufferLimit(key | 1, 16384, &err));
    EXPECT_LT(kt4IpcGetSendBufferLimit(key | 1, &err), 32768 * 2);
    ASSERT_EQ(0, kt4IpcSetRecvBufferLimitOfRspQ(key, 70000, &err));
    EXPECT_GE(kt4IpcGetRecvBufferLimit(key | 2, &err), 70000);
    for (int on : {1, 0}) {
        ASSERT_EQ(0, (on ? kt4IpcEnableBroadcast : kt4IpcDisableBroadcast)(key | 1, &err));
        int got = -1;
        socklen_t len = sizeof got;
        getsockopt(Key_getSocketFd(key | 1), SOL_SOCKET, SO_BROADCAST, &got, &len);
        EXPECT_EQ(on, got);
    }
    EXPECT_EQ(-1, kt4IpcGetRecvBufferLimit(key | 3, &err)); // no timer queue yet
    EXPECT_EQ(EBADF, err);
    EXPECT_EQ(-1, kt4IpcEnableBroadcast(key | 3, &err));
    EXPECT_EQ(key, kt4IpcTmrOpen(svc, 3));
    EXPECT_GE(Key_getSocketFd(key | 3), 0);

    EXPECT_EQ(0, kt4IpcClose(key));
    EXPECT_EQ(0, kt4IpcIsOpen(svc, 3));
    EXPECT_EQ(-1, Key_getSocketFd(key | 1));
    for (int kind = 1; kind <= 3; ++kind)
        EXPECT_TRUE(RawSock(port_of(svc, 3, kind), false).bound()) << "kind " << kind;
    EXPECT_EQ(-1, kt4IpcClose(key)); // never opened again
    EXPECT_EQ(-1, kt4IpcSetRecvBufferLimit(key | 1, 65536, &err));
    EXPECT_EQ(-1, kt4IpcClose(12 << 7));
    EXPECT_EQ(-1, kt4IpcClose(364 << 7));
    // An endpoint can be opened again after its close. A process's clean-up forgets it but
    // leaves its sockets open (they may be another process's after a fork).
    EXPECT_EQ(key, kt4IpcOpen(svc, 3));
    const int fd = Key_getSocketFd(key | 1), rspFd = Key_getSocketFd(key | 2);
    kt4IpcProcessCleanup(key);
    EXPECT_EQ(0, kt4IpcIsOpen(svc, 3));
    EXPECT_EQ(-1, Key_getSocketFd(key | 1));
    EXPECT_NE(-1, fcntl(fd, F_GETFD)); // still open
    ::close(fd);
    ::close(rspFd);
}

TEST(IpcEndpoint, OpenRefusalsAndLargeInstancesOnTheSecondaryAddress) {
    EXPECT_EQ(-1, kt4IpcOpen(fresh_service(), 32));
    // Services below 13 have no key that the other calls accept: refused before any socket
    // or semaphore is made.
    const int fds = open_descriptors();
    for (int svc : {-1, 0, KT4_IPC_MIN_SERVICE - 1}) {
        KT4_EXPECT_ERRNO(EINVAL, -1, kt4IpcOpen(svc, 0));
        KT4_EXPECT_ERRNO(EINVAL, -1, kt4IpcTmrOpen(svc, 1));
    }
    EXPECT_EQ(-1, kt4IpcOpen(KT4_IPC_MAX_SERVICE + 1, 0));
    EXPECT_EQ(fds, open_descriptors());
    // Large instances need the secondary address and a large-instance record.
    EXPECT_EQ(-1, kt4IpcOpen2(fresh_service(), 47));
    EXPECT_EQ(-1, kt4IpcOpen2(fresh_service(), 48));

    const int svc = fresh_service();
    std::vector<kt4IpcProcInstRow> rows(364);
    for (uint32_t s = 0; s < 364; ++s)
        rows[s] = {s, 32, 0, 0};
    rows[static_cast<size_t>(svc)].largeInstances = 1; // one large-instance record
    ASSERT_EQ(0, kt4IpcLoadMaxInstPerProcessTbl(rows.data(), 364));
    kt4IpcSetSecondaryIpcAddress(0xFFFFFFFF);
    EXPECT_EQ(-1, kt4IpcOpen2(svc, 100));                         // no secondary address yet
    const uint32_t secondary = kt4IpcGetLocalCpuIpAddr() + 0x100; // the next /24 of the card
    kt4IpcSetSecondaryIpcAddress(secondary);
    const int key = kt4IpcOpen2(svc, 100);
    ASSERT_EQ((svc << 7) | (100 << 2), key);
    EXPECT_EQ(key, kt4IpcOpen2(svc, 100));
    sockaddr_in sa{};
    socklen_t len = sizeof sa;
    ASSERT_EQ(0, getsockname(Key_getSocketFd(key | 2), reinterpret_cast<sockaddr *>(&sa), &len));
    EXPECT_EQ(secondary, ntohl(sa.sin_addr.s_addr));
    EXPECT_EQ(0xA702, ntohs(sa.sin_port));
    EXPECT_EQ(0, kt4IpcClose(key));
    EXPECT_EQ(-1, Key_getSocketFd(key | 1));
    kt4IpcSetSecondaryIpcAddress(0xFFFFFFFF);
    kt4IpcResetMaxInstPerProcessTbl();
}

TEST(IpcEndpoint, AnotherUserCannotBindAnOpenQueue) {
    const int svc = fresh_service();
    const int key = kt4IpcOpen(svc, 4);
    ASSERT_GT(key, 0);
    ASSERT_EQ(key, kt4IpcTmrOpen(svc, 4));
    const uint32_t addr = kt4IpcGetLocalCpuIpAddr();
    pid_t pid = kt4test::fork_child([&] {
        // Any user of the host: nobody (an unprivileged run is already another user's
        // process). Every way of asking to share the port must fail.
        if (geteuid() == 0 && (setgid(65534) != 0 || setuid(65534) != 0)) return false;
        for (int kind = 1; kind <= 3; ++kind)
            for (uint32_t a : {addr, uint32_t{INADDR_ANY}})
                if (bind_shared(a, port_of(svc, 4, kind), false) ||
                    bind_shared(a, port_of(svc, 4, kind), true))
                    return false;
        return true;
    });
    ASSERT_GE(pid, 0);
    EXPECT_EQ(0, kt4test::wait_child(pid)) << "a bind succeeded";
    EXPECT_EQ(0, kt4IpcClose(key));
}

TEST(IpcEndpoint, BindRetriesWhileThePortIsHeld) {
    const int svc = fresh_service();
    // Held for good: five retries of ten ticks each, then the open fails.
    {
        RawSock holder(port_of(svc, 1, 1), false);
        ASSERT_TRUE(holder.bound());
        auto t0 = std::chrono::steady_clock::now();
        EXPECT_EQ(-1, kt4IpcOpen(svc, 1));
        double took = ipctest::seconds_since(t0);
        EXPECT_GT(took, 0.9);
        EXPECT_LT(took, 5.0);
    }
    // Released during the retries: the open succeeds.
    auto holder = std::make_unique<RawSock>(port_of(svc, 2, 1), false);
    ASSERT_TRUE(holder->bound());
    std::thread release([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(300));
        holder->close();
    });
    const int key = kt4IpcOpen(svc, 2);
    release.join();
    EXPECT_EQ((svc << 7) | (2 << 2), key);
    EXPECT_EQ(0, kt4IpcClose(key));
}

} // namespace
