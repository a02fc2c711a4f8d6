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

#include <sys/wait.h>
#include <unistd.h>

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

// The child's work: open B, say so, then serve until told to stop; true when nothing went
// wrong.
bool child_main(int svcA, int svcB, int readyFd) {
    const int keyB = kt4IpcOpen(svcB, 0);
    char c = keyB > 0 ? 'y' : 'n';
    if (write(readyFd, &c, 1) != 1 || keyB <= 0) return false;
    int faults = 0;
    unsigned char in[9000];
    for (;;) {
        int n = kt4IpcRecv(keyB | 1, in, sizeof in, 5, 0, 0);
        if (n < 60) return false;
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
    return faults == 0;
}

// Reads the one byte a child writes when it is ready: 'y' when all went well.
char ready_byte(int fds[2]) {
    close(fds[1]);
    char c = 0;
    if (read(fds[0], &c, 1) != 1) c = 0;
    close(fds[0]);
    return c;
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
    int ready[2];
    ASSERT_EQ(0, pipe(ready));
    pid_t pid = kt4test::fork_child([&] {
        close(ready[0]);
        // The parent's endpoint is not the child's: forget its descriptors.
        kt4IpcProcessCleanup(keyA);
        return child_main(svcA, svcB, ready[1]);
    });
    ASSERT_GE(pid, 0);
    ASSERT_EQ('y', ready_byte(ready));

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
    EXPECT_EQ(0, kt4test::wait_child(pid));
    kt4IpcClose(keyA);
}

TEST(IpcProcesses, SecondProcessCannotTakeAnOpenEndpoint) {
    ASSERT_TRUE(kt4test::Card::get().up());
    const int svc = fresh_service();
    int ready[2], hold[2];
    ASSERT_EQ(0, pipe(ready));
    ASSERT_EQ(0, pipe(hold));
    pid_t first = kt4test::fork_child([&] {
        // The first holder: opens the endpoint and keeps it until it is killed (or the test
        // process goes away and the hold pipe reads end-of-file).
        close(ready[0]);
        close(hold[1]);
        char c = kt4IpcOpen(svc, 0) == (svc << 7) ? 'y' : 'n';
        if (write(ready[1], &c, 1) != 1) return false;
        while (read(hold[0], &c, 1) != 0) {
        }
        return true;
    });
    ASSERT_GE(first, 0);
    close(hold[0]);
    ASSERT_EQ('y', ready_byte(ready));

    // Another process of the card asks for the same endpoint: refused at once, with the
    // holder named, and nothing of it is left open here.
    auto t0 = std::chrono::steady_clock::now();
    std::string out = traced([&] { KT4_EXPECT_ERRNO(EEXIST, -1, kt4IpcOpen(svc, 0)); });
    EXPECT_LT(ipctest::seconds_since(t0), 0.5); // decided by the card's table, not by waiting
    EXPECT_NE(std::string::npos, out.find("held by process " + std::to_string(first))) << out;
    EXPECT_EQ(0, kt4IpcIsOpen(svc, 0));

    // The holder dies without closing anything: the next opener takes over cleanly and gets
    // the traffic.
    ASSERT_EQ(0, kill(first, SIGKILL));
    kt4test::wait_child(first);
    close(hold[1]);
    int key = -1;
    out = traced([&] { key = kt4IpcOpen(svc, 0); });
    ASSERT_EQ(svc << 7, key);
    EXPECT_NE(std::string::npos, out.find("holder pid " + std::to_string(first) + " is gone"))
        << out;
    int found = -1;
    EXPECT_EQ(kt4IpcGetLocalCpuIpAddr(), kt4_tmeGetPeerIpAddrByName(svc, 0, &found));
    ipctest::RawSock peer(0);
    auto m = ipctest::on_wire(make_msg(64, 5, 5, svc, 1, svc, 0));
    ASSERT_EQ(64, peer.send_to(ipctest::port_of(svc, 0, 1), m.data(), m.size()));
    unsigned char in[128];
    EXPECT_EQ(64, kt4IpcRecv(key | 1, in, sizeof in, 2, 5, 5));
    EXPECT_EQ(0, kt4IpcClose(key));
}

struct Client {
    int svcA, svcB;
    bool openFirst;
    bool second; // anyTaskIpcSendAndWait2: the peer found by its request queue
    std::atomic<int> result{99};
    std::atomic<bool> done{false};
    unsigned char reply[256] = {};
};

int client_task(kt4_arg_t a, kt4_arg_t, kt4_arg_t, kt4_arg_t, kt4_arg_t, kt4_arg_t, kt4_arg_t,
                kt4_arg_t, kt4_arg_t, kt4_arg_t) {
    auto *c = reinterpret_cast<Client *>(a);
    int key = c->openFirst ? kt4IpcOpen(c->svcA, 2) : -1;
    auto m = make_msg(100, 90, 0, c->svcA, 2, 0, 0);
    c->result = (c->second ? anyTaskIpcSendAndWait2 : anyTaskIpcSendAndWait)(
        90, m.data(), 100, c->svcB, 0, c->reply, sizeof c->reply);
    if (key > 0) kt4IpcClose(key);
    c->done = true;
    return 0;
}

// Runs a client task asking svcB; its result (99 when it did not finish), the reply in reply.
int ask(int svcB, bool openFirst, bool second = false, unsigned char *reply = nullptr) {
    Client c{fresh_service(), svcB, openFirst, second};
    if (taskSpawn("tAnyCli", 100, 0, 64 * 1024, client_task, reinterpret_cast<kt4_arg_t>(&c), 0, 0,
                  0, 0, 0, 0, 0, 0, 0) <= 0)
        return 99;
    for (int i = 0; i < 500 && !c.done; ++i)
        taskDelay(1);
    if (reply != nullptr) std::memcpy(reply, c.reply, sizeof c.reply);
    return c.done ? c.result.load() : 99;
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
