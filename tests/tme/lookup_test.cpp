// Peer look-ups across the processes of a card, and the retry back-off.
#include "tme/tme_env.h"

#include <gtest/gtest.h>

#include <csignal>

namespace {

using tmetest::key_of;

constexpr uint32_t kNone = 0xFFFFFFFF;

// The helper as a peer process of the card, driven through its standard input and output.
struct PeerProcess : kt4test::Process {
    PeerProcess(int service, int instance)
        : Process({kt4test::Card::get().root() + "/" + tmetest::kHelperName, "peer",
                   std::to_string(service), std::to_string(instance),
                   std::to_string(kt4test::kAreaBytes)}) {}
};

TEST(PeerLookup, FindsAnEndpointOfAnotherProcessUntilItClosesOrDies) {
    PeerProcess peer(150, 4);
    ASSERT_GT(peer.pid(), 0);
    ASSERT_EQ(peer.line(), "ready " + std::to_string(key_of(150, 4)));

    int status = -1;
    EXPECT_EQ(kt4_tmeGetPeerIpAddrByName(150, 4, &status), tmetest::card_addr());
    EXPECT_EQ(status, KT4_TME_PEER_FOUND);
    EXPECT_EQ(kt4ProcIdByKey(key_of(150, 4)), peer.pid());
    EXPECT_EQ(kt4_tmeGetPeerIpAddrByNameAndSlot(150, 4, tmetest::card_slot(), &status),
              tmetest::card_addr());
    EXPECT_EQ(kt4_tmeGetPeerIpAddrByNameAndSlot(150, 4, tmetest::card_slot() + 1, &status), kNone);
    EXPECT_EQ(status, KT4_TME_PEER_UNKNOWN);
    {
        tmetest::WaitRecorder rec;
        EXPECT_EQ(kt4_tmeGetTaskIpAddrByName(150, 4, &status), tmetest::card_addr());
        EXPECT_TRUE(rec.waits().empty());
    }
    // Another instance of the same service is a different task.
    EXPECT_EQ(kt4_tmeGetPeerIpAddrByName(150, 5, &status), kNone);

    peer.say("close\n");
    ASSERT_EQ(peer.line(), "closed");
    EXPECT_EQ(kt4_tmeGetPeerIpAddrByName(150, 4, &status), kNone);
    EXPECT_EQ(status, KT4_TME_PEER_UNKNOWN);

    // A peer killed without a chance to clean up is forgotten at once, even while it is a
    // zombie not yet collected. This thread takes the key over at the end and, not being a task,
    // keeps its record: every round of --gtest_repeat uses an instance of its own.
    static int round = 0;
    const int inst = round++ % 32;
    PeerProcess dying(151, inst);
    ASSERT_EQ(dying.line(), "ready " + std::to_string(key_of(151, inst)));
    ASSERT_EQ(kt4_tmeGetPeerIpAddrByName(151, inst, &status), tmetest::card_addr());
    ASSERT_EQ(kill(dying.pid(), SIGKILL), 0);
    EXPECT_TRUE(tmetest::eventually([&] {
        return kt4_tmeGetPeerIpAddrByName(151, inst, &status) == kNone &&
               status == KT4_TME_PEER_UNKNOWN;
    }));
    dying.finish(10);
    EXPECT_EQ(kt4ProcIdByKey(key_of(151, inst)), -1);
    // Its service and instance can be taken again at once.
    EXPECT_EQ(kt4IpcOpen(151, inst), key_of(151, inst));
    EXPECT_EQ(kt4_tmeGetPeerIpAddrByName(151, inst, &status), tmetest::card_addr());
    kt4IpcClose(key_of(151, inst));
}

TEST(PeerLookup, BackOffGrowsTenTicksEveryTenTriesUntilThePeerRegistersOrAHundredPass) {
    tmetest::WaitRecorder rec;
    int status = -1;
    EXPECT_EQ(kt4_tmeGetTaskIpAddrByName(160, 1, &status), kNone);
    EXPECT_EQ(status, KT4_TME_PEER_UNKNOWN);

    std::vector<int> want(9, 10);
    for (int ticks = 20; ticks <= 100; ticks += 10)
        want.insert(want.end(), 10, ticks);
    ASSERT_EQ(want.size(), 99u);
    EXPECT_EQ(rec.waits(), want);

    // The retries end once the peer registers: here it opens its endpoint in the fifth wait.
    tmetest::WaitRecorder found([](int n, void *) {
        if (n == 5) kt4IpcOpen(161, 2);
    });
    EXPECT_EQ(kt4_tmeGetTaskIpAddrByName(161, 2, &status), tmetest::card_addr());
    EXPECT_EQ(status, KT4_TME_PEER_FOUND);
    EXPECT_EQ(found.waits(), std::vector<int>(5, 10));
    kt4IpcClose(key_of(161, 2));
}

TEST(PeerLookup, SlotLookupWaitsForTheManagerToServe) {
    ASSERT_EQ(kt4IpcOpen(162, 0), key_of(162, 0));
    ASSERT_EQ(kt4_tmeSetState(3), 0);
    tmetest::WaitRecorder rec([](int n, void *) {
        if (n == 2) kt4_tmeSetState(KT4_TME_STATE_SERVING);
    });
    int status = -1;
    EXPECT_EQ(kt4_tmeGetPeerIpAddrByNameAndSlot(162, 0, tmetest::card_slot(), &status),
              tmetest::card_addr());
    EXPECT_EQ(status, KT4_TME_PEER_FOUND);
    EXPECT_EQ(rec.waits(), std::vector<int>(2, sysClkRateGet())); // one second each
    kt4IpcClose(key_of(162, 0));
}

TEST(PeerLookup, ProcessPerInstanceSystemResolvesMasterTasksAndWaitsEvenly) {
    setenv("KT4_PLATFORM_TYPE", "9", 1);
    setenv("KT4_VIRTUAL", "single", 1);
    kt4CardReload();
    int status = -1;
    uint32_t master = kt4_tmeGetTaskIpAddrByName2(163, 0, &status, 1);
    uint32_t want = 0, mask = 0;
    ASSERT_EQ(kt4GetCpuIpcAddrInPE(kt4SysGetRpmSlotId(), 1, &want, &mask), 0);
    EXPECT_EQ(master, want);
    EXPECT_EQ(status, KT4_TME_PEER_FOUND);
    {
        tmetest::WaitRecorder rec;
        EXPECT_EQ(kt4_tmeGetTaskIpAddrByName2(163, 0, &status, 0), kNone);
        EXPECT_EQ(rec.waits(), std::vector<int>(99, 10));
    }
    unsetenv("KT4_PLATFORM_TYPE");
    unsetenv("KT4_VIRTUAL");
    kt4CardReload();
}

} // namespace
