// Two processes of one card: a forked child serves requests, acknowledges guaranteed sends
// and sends to its parent; an endpoint open in one process cannot be opened by another
// until its holder is gone. Send-and-wait to a task found through the card's task table.
#include "ipc_test_util.h"
#include "support/kt4_test_env.h"

#include <kt4/ipc.h>
#include <kt4/log.h>
#include <kt4/tme.h>
#include <kt4/vx2bsd.h>

#include <gtest/gtest.h>

#include <sys/prctl.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>
#include <string>
#include <thread>

namespace {

using ipctest::fresh_service;
using ipctest::make_msg;

// The child's work with its endpoint B: serve until told to stop, then tell A; "ok" when
// nothing went wrong.
std::string serve(int svcA, int svcB, int keyB) {
    int faults = 0;
    unsigned char in[9000];
    for (;;) {
        int n = kt4IpcRecv(keyB | 1, in, sizeof in, 5, 0, 0);
        if (n < 60) return "no stop";
        uint32_t type = kt4IpcHdrGet(in, KT4_IPC_HDR_MSG_TYPE);
        if (type == 99) break; // stop
        if (type == 80) {      // request: answer with the payload's first two bytes swapped
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
    return faults == 0 ? "ok" : std::to_string(faults) + " faults";
}

// What f printed with the traces on.
template <typename F> std::string traced(F f) {
    kt4TracePrintOn();
    std::string out = kt4test::stdout_of(f);
    kt4TracePrintOff();
    return out;
}

TEST(IpcProcesses, ParentAndForkedChildExchange) {
    const int svcA = fresh_service(), svcB = fresh_service();
    const int keyA = kt4IpcOpen(svcA, 0);
    ASSERT_GT(keyA, 0);
    ipctest::Child child(svcB, [&](int keyB) {
        kt4IpcProcessCleanup(keyA); // the parent's endpoint is not the child's
        return serve(svcA, svcB, keyB);
    });
    ASSERT_TRUE(child.ready());

    for (int len : {60, 512, 8192}) {
        auto req = make_msg(len, 80, static_cast<uint32_t>(len), svcA, 0, svcB, 0);
        auto want = req;
        if (len > 61) std::swap(want[60], want[61]);
        ASSERT_EQ(len, kt4IpcSendWait(keyA, req.data(), len, 3, 80, static_cast<uint32_t>(len)));
        EXPECT_TRUE(std::equal(req.begin() + 60, req.end(), want.begin() + 60)) << len;
    }
    auto g = make_msg(100, 81, 0, svcA, 0, svcB, 0);
    EXPECT_EQ(1, kt4ShdIpcBeGuaranteed(g.data(), keyA));
    EXPECT_EQ(100, kt4IpcSend(keyA, g.data(), 100));
    auto stop = make_msg(60, 99, 0, svcA, 0, svcB, 0);
    EXPECT_EQ(60, kt4IpcSend(keyA, stop.data(), 60));

    unsigned char in[128];
    EXPECT_EQ(64, kt4IpcRecv(keyA | 1, in, sizeof in, 5, 83, 2));
    EXPECT_EQ("ok\n", child.result());
    kt4IpcClose(keyA);
}

TEST(IpcProcesses, SecondProcessCannotTakeAnOpenEndpoint) {
    ASSERT_TRUE(kt4test::Card::get().up());
    const int svc = fresh_service();
    // The first holder keeps the endpoint until it is killed (or the test process goes).
    ipctest::Child first(svc, [](int) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        for (;;)
            pause();
        return std::string();
    });
    ASSERT_TRUE(first.ready());

    // Another process of the card asks for the same endpoint: refused at once, with the
    // holder named, and nothing of it is left open here.
    auto t0 = std::chrono::steady_clock::now();
    std::string out = traced([&] { KT4_EXPECT_ERRNO(EEXIST, -1, kt4IpcOpen(svc, 0)); });
    EXPECT_LT(ipctest::seconds_since(t0), 0.5); // decided by the card's table, not by waiting
    const std::string holder = std::to_string(first.pid());
    EXPECT_NE(std::string::npos, out.find("held by process " + holder)) << out;
    EXPECT_EQ(0, kt4IpcIsOpen(svc, 0));

    // The holder dies without closing anything: the next opener takes over cleanly.
    ASSERT_EQ(0, kill(first.pid(), SIGKILL));
    first.result();
    int key = -1;
    out = traced([&] { key = kt4IpcOpen(svc, 0); });
    ASSERT_EQ(svc << 7, key);
    EXPECT_NE(std::string::npos, out.find("holder pid " + holder + " is gone")) << out;
    int found = -1;
    EXPECT_EQ(kt4IpcGetLocalCpuIpAddr(), kt4_tmeGetPeerIpAddrByName(svc, 0, &found));
    EXPECT_EQ(0, kt4IpcClose(key));
}

// Runs a client task (with an endpoint of its own when openFirst) asking svcB; its result (99
// when it did not finish), the reply in reply.
int ask(int svcB, bool openFirst, bool second = false, unsigned char *reply = nullptr) {
    const int svcA = fresh_service();
    std::atomic<int> result{99};
    std::atomic<bool> done{false};
    unsigned char got[256] = {};
    auto client = [&] {
        int key = openFirst ? kt4IpcOpen(svcA, 2) : -1;
        auto m = make_msg(100, 90, 0, svcA, 2, 0, 0);
        // anyTaskIpcSendAndWait2 finds the peer by its request queue.
        result = (second ? anyTaskIpcSendAndWait2 : anyTaskIpcSendAndWait)(90, m.data(), 100, svcB,
                                                                           0, got, sizeof got);
        if (key > 0) kt4IpcClose(key);
        done = true;
    };
    if (kt4test::spawn_task("tAnyCli", 100, client, 64 * 1024) <= 0) return 99;
    kt4test::eventually([&] { return done.load(); });
    if (reply != nullptr) std::memcpy(reply, got, sizeof got);
    return done ? result.load() : 99;
}

TEST(IpcAnyTask, FindsThePeerThroughTheCardTable) {
    ASSERT_TRUE(kt4test::Card::get().up());
    // As the start-up of a control process does: a task's records go when it ends, so a later
    // client task that is handed the same task id finds only its own.
    static const int hooked = taskDeleteHookAdd(kt4TaskExit);
    ASSERT_EQ(0, hooked);
    const int svcB = fresh_service();
    const int keyB = kt4IpcOpen(svcB, 0);
    ASSERT_GT(keyB, 0);
    int status = -1;
    EXPECT_EQ(kt4IpcGetLocalCpuIpAddr(), kt4_tmeGetPeerIpAddrByName(svcB, 0, &status));
    for (bool second : {false, true}) {
        std::thread server([&] {
            unsigned char in[256];
            int n = kt4IpcRecv(keyB | 1, in, sizeof in, 5, 90, 0);
            if (n < 60 || kt4IpcHdrGet(in, KT4_IPC_HDR_APP1) != 0) return;
            in[60] = 'k';
            kt4IpcReply(keyB, in, n);
        });
        unsigned char reply[256] = {};
        EXPECT_EQ(0, ask(svcB, true, second, reply)) << second;
        server.join();
        EXPECT_EQ('k', reply[60]) << second;
    }
    // A task without an endpoint has no service: refused at once. A peer that never
    // registered: one look-up, then -1.
    EXPECT_EQ(-1, ask(svcB, false));
    EXPECT_EQ(-1, ask(fresh_service(), true));

    EXPECT_EQ(0, kt4IpcClose(keyB));
    EXPECT_EQ(0xFFFFFFFFu, kt4_tmeGetPeerIpAddrByName(svcB, 0, &status)); // unregistered
}

} // namespace
