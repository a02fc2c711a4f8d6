// The ready message, byte for byte, as the card's task manager receives it.
#include "tme/tme_env.h"

#include "common/kt4_be.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <future>
#include <unistd.h>

namespace {

void be32_at(std::vector<unsigned char> &v, size_t off, uint32_t x) {
    kt4::store_be32(v.data() + off, x);
}

// The announcement goes through kt4IpcSend: with guaranteed delivery on, the first message to the
// manager is a guaranteed first send (command type 9) that completes when the manager acknowledges
// it with command type 8.
TEST(TaskReady, SendsTheSeventyTwoByteMessageAndWaitsForTheManagersAcknowledgement) {
    kt4IpcGuaranteedEnDis(1);
    const uint32_t tmeAddr = kt4_sysGetIpAddr();
    const uint32_t tmeInst = kt4_sysGetInstance();
    ASSERT_EQ(tmeAddr, tmetest::card_addr());
    ASSERT_EQ(uint32_t{tmetest::kTmeInstance}, tmeInst) << "taken from KT4_TME_INSTANCE";
    const auto tmePort = static_cast<uint16_t>(kt4_getQueueId(13, static_cast<int>(tmeInst), 1));
    kt4test::UdpPeer tme(tmeAddr, tmePort);
    ASSERT_TRUE(tme.bound());

    const int service = 140, instance = 3;
    const int key = kt4GetTaskKeyFromServiceAndInst(service, instance);
    // Start-up opens the endpoint and announces the task; it waits for the acknowledgement.
    auto startup = std::async(std::launch::async, [key] { return kt4TaskStartup(key, 0); });

    uint32_t from = 0;
    uint16_t fromPort = 0;
    std::vector<unsigned char> got = tme.recv(2000, &from, &fromPort);
    ASSERT_EQ(got.size(), 72u);
    EXPECT_EQ(from, tmetest::card_addr());
    EXPECT_EQ(fromPort, key | 1); // sent from the task's request queue

    std::vector<unsigned char> want(72, 0);
    be32_at(want, 0, 0xFEEDBEAF);
    want[4] = 9; // first guaranteed message to this target, sequence 0
    be32_at(want, 8, 72);
    be32_at(want, 12, 1601);
    be32_at(want, 24, 15);
    be32_at(want, 36, static_cast<uint32_t>(tmetest::card_slot()));
    be32_at(want, 40, tmetest::card_addr());
    be32_at(want, 44, static_cast<uint32_t>(key | 2));
    be32_at(want, 48, static_cast<uint32_t>(tmetest::card_slot()));
    be32_at(want, 52, tmeAddr);
    be32_at(want, 56, static_cast<uint32_t>(13 << 7 | tmeInst << 2 | 1));
    be32_at(want, 60, static_cast<uint32_t>(taskIdSelf()));
    be32_at(want, 64, static_cast<uint32_t>(getpid()));
    be32_at(want, 68, static_cast<uint32_t>(service));
    EXPECT_EQ(got, want);

    // The manager's acknowledgement: the header alone, command type 8, the message's type,
    // tag and transaction, the triples exchanged, to the sender's response queue.
    auto ack_of = [](const std::vector<unsigned char> &m) {
        std::vector<unsigned char> ack(m.begin(), m.begin() + 60);
        ack[4] = m[4] == 9 ? 8 : 6;
        ack[5] = 0;
        be32_at(ack, 8, 60);
        std::copy(m.begin() + 48, m.begin() + 60, ack.begin() + 36);
        std::copy(m.begin() + 36, m.begin() + 48, ack.begin() + 48);
        return ack;
    };
    ASSERT_GT(tme.send(tmetest::card_addr(), static_cast<uint16_t>(key | 2), ack_of(got)), 0);
    EXPECT_EQ(startup.get(), key);
    // Acknowledged once: no second try reaches the manager.
    EXPECT_TRUE(tme.recv(1200).empty());

    // The next announcement is a plain guaranteed send with the next sequence number.
    auto again = std::async(std::launch::async, [key] { return kt4TaskReady(key); });
    got = tme.recv(2000);
    ASSERT_EQ(got.size(), 72u);
    EXPECT_EQ(got[4], 7);
    EXPECT_EQ(got[7], 1);
    EXPECT_TRUE(std::equal(got.begin() + 8, got.end(), want.begin() + 8));
    ASSERT_GT(tme.send(tmetest::card_addr(), static_cast<uint16_t>(key | 2), ack_of(got)), 0);
    EXPECT_EQ(again.get(), 0);

    kt4IpcClose(key);
    // Without an open request queue there is nothing to send from.
    EXPECT_EQ(kt4TaskReady(key), -1);
    EXPECT_TRUE(tme.recv(50).empty());
}

} // namespace
