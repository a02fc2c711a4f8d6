// Send-and-wait to a task found through the card's task table: the endpoint registers itself
// when it opens, and the caller's own key comes from the table of its process.
#include "ipc_test_util.h"
#include "support/kt4_test_env.h"

#include <kt4/ipc.h>
#include <kt4/tme.h>
#include <kt4/vx2bsd.h>

#include <gtest/gtest.h>

#include <atomic>
#include <thread>

namespace {

using ipctest::fresh_service;
using ipctest::make_msg;

struct Client {
    int svcA;
    int svcB;
    bool openFirst;
    bool second = false; // anyTaskIpcSendAndWait2: the peer found by its request queue
    std::atomic<int> result{99};
    std::atomic<bool> done{false};
    unsigned char reply[256];
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

bool run_client(Client &c) {
    if (taskSpawn("tAnyCli", 100, 0, 64 * 1024, client_task, reinterpret_cast<kt4_arg_t>(&c), 0, 0,
                  0, 0, 0, 0, 0, 0, 0) <= 0)
        return false;
    for (int i = 0; i < 500 && !c.done; ++i)
        taskDelay(1);
    return c.done;
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
        Client c;
        c.svcA = fresh_service();
        c.svcB = svcB;
        c.openFirst = true;
        c.second = second;
        const bool ran = run_client(c);
        server.join();
        ASSERT_TRUE(ran);
        EXPECT_EQ(0, c.result.load()) << second;
        EXPECT_EQ('k', c.reply[60]) << second;
    }

    // A task without an endpoint has no service: refused at once.
    Client none;
    none.svcA = fresh_service();
    none.svcB = svcB;
    none.openFirst = false;
    ASSERT_TRUE(run_client(none));
    EXPECT_EQ(-1, none.result.load());

    // A peer that never registered: one look-up, then -1.
    Client lost;
    lost.svcA = fresh_service();
    lost.svcB = fresh_service();
    lost.openFirst = true;
    ASSERT_TRUE(run_client(lost));
    EXPECT_EQ(-1, lost.result.load());

    EXPECT_EQ(0, kt4IpcClose(keyB));
    EXPECT_EQ(0xFFFFFFFFu, kt4_tmeGetPeerIpAddrByName(svcB, 0, &status)); // unregistered
}

} // namespace
