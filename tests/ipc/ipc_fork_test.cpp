// Two processes of one card: a forked child serves requests, acknowledges guaranteed sends
// and sends to its parent; an endpoint open in one process cannot be opened by another
// until its holder is gone.
#include "ipc_test_util.h"
#include "support/kt4_test_env.h"

#include <kt4/ipc.h>
#include <kt4/log.h>
#include <kt4/tme.h>

#include <gtest/gtest.h>

#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <string>

namespace {

using ipctest::fresh_service;
using ipctest::make_msg;

// The child's work: open B, say so, then serve until told to stop. Its exit status counts
// what went wrong.
int child_main(int svcA, int svcB, int readyFd) {
    const int keyB = kt4IpcOpen(svcB, 0);
    char c = keyB > 0 ? 'y' : 'n';
    if (write(readyFd, &c, 1) != 1 || keyB <= 0) return 10;
    int faults = 0;
    unsigned char in[9000];
    for (;;) {
        int n = kt4IpcRecv(keyB | 1, in, sizeof in, 5, 0, 0);
        if (n < 60) return 20 + faults;
        uint32_t type = kt4IpcHdrGet(in, KT4_IPC_HDR_MSG_TYPE);
        if (type == 99) break; // stop
        if (type == 80) {      // request: answer with the payload reversed at its start
            std::swap(in[60], in[61]);
            if (kt4IpcReply(keyB, in, n) != n) ++faults;
        } else if (type == 81) { // guaranteed: must arrive as the first of its stream
            if (kt4IpcHdrGet(in, KT4_IPC_HDR_CMD_TYPE) != KT4_IPC_CMD_GUARANTEED_SEND_FIRST)
                ++faults;
        }
    }
    // Tell the parent, with one unwanted message first that its selective receive drops.
    auto noise = make_msg(64, 82, 1, svcB, 0, svcA, 0);
    auto note = make_msg(64, 83, 2, svcB, 0, svcA, 0);
    if (kt4IpcNonGuaranteedSend(keyB, noise.data(), 64) != 64) ++faults;
    if (kt4IpcNonGuaranteedSend(keyB, note.data(), 64) != 64) ++faults;
    kt4IpcClose(keyB);
    return faults;
}

TEST(IpcProcesses, ParentAndForkedChildExchange) {
    const int svcA = fresh_service(), svcB = fresh_service();
    const int keyA = kt4IpcOpen(svcA, 0);
    ASSERT_GT(keyA, 0);
    int ready[2];
    ASSERT_EQ(0, pipe(ready));
    fflush(nullptr);
    pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
        close(ready[0]);
        // The parent's endpoint is not the child's: forget its descriptors.
        kt4IpcProcessCleanup(keyA);
        _exit(child_main(svcA, svcB, ready[1]));
    }
    close(ready[1]);
    char c = 0;
    ASSERT_EQ(1, read(ready[0], &c, 1));
    close(ready[0]);
    ASSERT_EQ('y', c);

    for (int len : {60, 512, 8192}) {
        auto req = make_msg(len, 80, static_cast<uint32_t>(len), svcA, 0, svcB, 0);
        if (len > 61) {
            req[60] = 'a';
            req[61] = 'b';
        }
        ASSERT_EQ(len, kt4IpcSendWait(keyA, req.data(), len, 3, 80, static_cast<uint32_t>(len)));
        if (len > 61) {
            EXPECT_EQ('b', req[60]);
            EXPECT_EQ('a', req[61]);
        }
    }
    auto g = make_msg(100, 81, 0, svcA, 0, svcB, 0);
    EXPECT_EQ(1, kt4ShdIpcBeGuaranteed(g.data(), keyA));
    EXPECT_EQ(100, kt4IpcSend(keyA, g.data(), 100));
    auto stop = make_msg(60, 99, 0, svcA, 0, svcB, 0);
    EXPECT_EQ(60, kt4IpcSend(keyA, stop.data(), 60));

    unsigned char in[128];
    EXPECT_EQ(64, kt4IpcRecv(keyA | 1, in, sizeof in, 5, 83, 2));
    int status = 0;
    ASSERT_EQ(pid, waitpid(pid, &status, 0));
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(0, WEXITSTATUS(status));
    kt4IpcClose(keyA);
}

TEST(IpcProcesses, SecondProcessCannotTakeAnOpenEndpoint) {
    ASSERT_TRUE(kt4test::Card::get().up());
    const int svc = fresh_service();
    int ready[2], hold[2];
    ASSERT_EQ(0, pipe(ready));
    ASSERT_EQ(0, pipe(hold));
    fflush(nullptr);
    pid_t first = fork();
    ASSERT_GE(first, 0);
    if (first == 0) {
        // The first holder: opens the endpoint and keeps it until it is killed (or the test
        // process goes away and the hold pipe reads end-of-file).
        close(ready[0]);
        close(hold[1]);
        char c = kt4IpcOpen(svc, 0) == (svc << 7) ? 'y' : 'n';
        if (write(ready[1], &c, 1) != 1) _exit(1);
        while (read(hold[0], &c, 1) != 0) {
        }
        _exit(0);
    }
    close(ready[1]);
    close(hold[0]);
    char c = 0;
    ASSERT_EQ(1, read(ready[0], &c, 1));
    close(ready[0]);
    ASSERT_EQ('y', c);

    // Another process of the card asks for the same endpoint: refused at once, with the
    // holder named, and nothing of it is left open here.
    kt4TracePrintOn();
    testing::internal::CaptureStdout();
    auto t0 = std::chrono::steady_clock::now();
    errno = 0;
    const int refused = kt4IpcOpen(svc, 0);
    const int err = errno;
    const double took = ipctest::seconds_since(t0);
    std::string out = testing::internal::GetCapturedStdout();
    kt4TracePrintOff();
    EXPECT_EQ(-1, refused);
    EXPECT_EQ(EEXIST, err);
    EXPECT_LT(took, 0.5); // decided by the card's table, not by waiting for the port
    EXPECT_NE(std::string::npos, out.find("held by process " + std::to_string(first))) << out;
    EXPECT_EQ(0, kt4IpcIsOpen(svc, 0));

    // The holder dies without closing anything: the next opener takes over cleanly and gets
    // the traffic.
    ASSERT_EQ(0, kill(first, SIGKILL));
    int status = 0;
    ASSERT_EQ(first, waitpid(first, &status, 0));
    close(hold[1]);
    kt4TracePrintOn();
    testing::internal::CaptureStdout();
    const int key = kt4IpcOpen(svc, 0);
    out = testing::internal::GetCapturedStdout();
    kt4TracePrintOff();
    ASSERT_EQ(svc << 7, key);
    EXPECT_NE(std::string::npos, out.find("holder pid " + std::to_string(first) + " is gone"))
        << out;
    int found = -1;
    EXPECT_EQ(kt4IpcGetLocalCpuIpAddr(), kt4_tmeGetPeerIpAddrByName(svc, 0, &found));
    ipctest::RawSock peer(0);
    auto m = make_msg(64, 5, 5, svc, 1, svc, 0);
    kt4IpcHdrSet(m.data(), KT4_IPC_HDR_MAGIC, KT4_IPC_MAGIC);
    ASSERT_EQ(64, peer.send_to(ipctest::port_of(svc, 0, 1), m.data(), m.size()));
    unsigned char in[128];
    EXPECT_EQ(64, kt4IpcRecv(key | 1, in, sizeof in, 2, 5, 5));
    EXPECT_EQ(0, kt4IpcClose(key));
}

} // namespace
