// Guaranteed IPC: the decision, acknowledged sends, retries against a silent receiver,
// sequence tags, the older "GRT" form, and the counters.
#include "ipc_test_util.h"

#include <kt4/ipc.h>

#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <string>
#include <thread>

namespace {

using ipctest::fresh_service;
using ipctest::make_msg;
using ipctest::port_of;
using ipctest::RawSock;
using ipctest::seconds_since;

class Grt : public ::testing::Test {
  protected:
    void SetUp() override {
        kt4IpcGuaranteedEnDis(1);
        svcA = fresh_service();
        svcB = fresh_service();
        keyA = kt4IpcOpen(svcA, 1);
        ASSERT_GT(keyA, 0);
    }
    void TearDown() override {
        kt4IpcClose(keyA);
        if (keyB > 0) kt4IpcClose(keyB);
    }
    kt4IpcGTargetStats stats_to(int svc, int inst) const {
        kt4IpcGTargetStats s{};
        EXPECT_EQ(0, kt4GuaranteedIpcGetTargetStats(
                         kt4GuaranteedIpcGetTargetDBPtr(keyA, kt4_getQueueId(svc, inst, 1)), &s));
        return s;
    }
    // An acknowledgement of msg as its receiver would send it to A's response queue.
    static void ack(const RawSock &s, const std::vector<unsigned char> &msg, uint32_t cmd) {
        auto a = ipctest::ack_of(msg, cmd);
        s.send_to(static_cast<uint16_t>(kt4IpcHdrGet(msg.data(), KT4_IPC_HDR_SRC_QID)), a.data(),
                  a.size());
    }
    int svcA = 0, svcB = 0, keyA = -1, keyB = -1;
};

TEST_F(Grt, DecisionRulesInTheirOrderAndBadInputs) {
    auto yes = make_msg(80, 1, 1, svcA, 1, svcB, 0);
    EXPECT_EQ(1, kt4ShdIpcBeGuaranteed(yes.data(), keyA));
    EXPECT_EQ(1, kt4IsIpcGDbUpdPossible(yes.data()));

    auto to_self = make_msg(80, 1, 1, svcA, 1, svcA, 1);
    EXPECT_EQ(1, kt4IpcGChkSameSvcId(to_self.data()));
    EXPECT_EQ(0, kt4ShdIpcBeGuaranteed(to_self.data(), keyA));
    for (int svc : {253, 334, 254, 24, 26, 102, 106, 37}) {
        auto m = make_msg(80, 1, 1, svcA, 1, svc, 0);
        EXPECT_EQ(0, kt4ShdIpcBeGuaranteed(m.data(), keyA)) << "target " << svc;
    }
    auto far = yes;
    kt4IpcHdrSet(far.data(), KT4_IPC_HDR_TGT_ADDR, 0x0A000001); // 10.0.0.1
    EXPECT_EQ(0, kt4ShdIpcBeGuaranteed(far.data(), keyA));
    EXPECT_EQ(1, kt4IsIpcGDbUpdPossible(far.data()));
    kt4IpcHdrSet(far.data(), KT4_IPC_HDR_TGT_ADDR, 0xFFFFFFFF);
    EXPECT_EQ(0, kt4IsIpcGDbUpdPossible(far.data()));
    auto low = make_msg(80, 1, 1, svcA, 1, 12, 0);
    EXPECT_EQ(0, kt4IsIpcGDbUpdPossible(low.data()));
    // The source must be the key's own endpoint.
    auto foreign = make_msg(80, 1, 1, svcB, 3, svcA + 100, 0);
    EXPECT_EQ(0, kt4IpcSourceUsedIsCorrect(foreign.data(), keyA));
    EXPECT_EQ(0, kt4ShdIpcBeGuaranteed(foreign.data(), keyA));
    EXPECT_EQ(0, kt4ShdIpcBeGuaranteed(yes.data(), (svcB << 7) | (9 << 2))); // not open here
    kt4IpcGuaranteedEnDis(0);
    EXPECT_EQ(0u, kt4IsIpcGuaranteedEnabled());
    EXPECT_EQ(0, kt4ShdIpcBeGuaranteed(yes.data(), keyA));
    kt4IpcGuaranteedEnDis(1);

    // 334 is refused as a target only. Its queue ids fall on the large-instance ports, so
    // this process must own the endpoint (334, 0) for the check of the source to pass.
    const int key334 = kt4IpcOpen(334, 0);
    ASSERT_EQ(334 << 7, key334);
    auto from334 = make_msg(80, 1, 1, 334, 0, svcB, 0);
    EXPECT_EQ(1, kt4ShdIpcBeGuaranteed(from334.data(), key334));
    kt4IpcClose(key334);

    EXPECT_EQ(-1, kt4IpcGuaranteedSend(keyA, nullptr, 80, 1));
    EXPECT_EQ(-1, kt4IpcGuaranteedSend(12 << 7, yes.data(), 80, 1));
    EXPECT_EQ(nullptr, kt4GuaranteedIpcGetTargetDBPtr((svcB << 7) | (20 << 2), 0x1234));
    EXPECT_EQ(-1, kt4GuaranteedIpcGetTargetStats(nullptr, nullptr));
    // The records of an endpoint go with its close.
    ASSERT_NE(nullptr, kt4GuaranteedIpcGetTargetDBPtrExtended(keyA, 0x0A000001, 0x1234));
    uint32_t used = kt4GetIpcGrnteedSendDBMemUsed();
    kt4IpcClose(keyA);
    EXPECT_LT(kt4GetIpcGrnteedSendDBMemUsed(), used);
    keyA = kt4IpcOpen(svcA, 1);
}

TEST_F(Grt, AcknowledgedByTheReceiverWithAdvancingTags) {
    keyB = kt4IpcOpen(svcB, 0);
    ASSERT_GT(keyB, 0);
    std::vector<uint32_t> cmds, tags;
    std::atomic<int> replied{0};
    std::thread server([&] {
        unsigned char in[256];
        for (int i = 0; i < 5; ++i) {
            const int n = kt4IpcRecv(keyB | 1, in, sizeof in, 3, 0, 0);
            if (n < 60) return;
            if (i < 4) {
                cmds.push_back(kt4IpcHdrGet(in, KT4_IPC_HDR_CMD_TYPE));
                tags.push_back(kt4IpcHdrGet(in, KT4_IPC_HDR_GRT_TAG));
            }
            if (i == 3) replied = kt4IpcReply(keyB, in, n);
        }
    });
    for (uint32_t i = 0; i < 3; ++i) {
        auto m = make_msg(100, 70, i, svcA, 1, svcB, 0);
        EXPECT_EQ(100, kt4IpcSend(keyA, m.data(), 100));
    }
    kt4IpcGTargetStats s = stats_to(svcB, 0);
    EXPECT_EQ(3u, s.successes);
    EXPECT_EQ(0u, s.retriesTry1 + s.retriesTry2 + s.failures);

    // A guaranteed reply (the first of its own stream) is acknowledged on the response queue.
    auto m = make_msg(100, 73, 1, svcA, 1, svcB, 0);
    ASSERT_EQ(100, kt4IpcSend(keyA, m.data(), 100));
    unsigned char in[256];
    ASSERT_EQ(100, kt4IpcRecvOnRspQ(keyA, in, sizeof in, 3, 73, 1));
    EXPECT_EQ(static_cast<uint32_t>(KT4_IPC_CMD_GUARANTEED_SEND_FIRST),
              kt4IpcHdrGet(in, KT4_IPC_HDR_CMD_TYPE));
    // The older "GRT" form matches the answer by type and transaction.
    auto o = make_msg(80, 74, 6, svcA, 1, svcB, 0);
    EXPECT_EQ(80, kt4IpcGuaranteeSend(keyA, o.data(), 80, 74, 6));
    EXPECT_EQ(static_cast<uint32_t>(KT4_IPC_CMD_GRT), kt4IpcHdrGet(o.data(), KT4_IPC_HDR_CMD_TYPE));
    server.join();
    EXPECT_EQ(100, replied.load()); // acknowledged, not given up
    EXPECT_EQ((std::vector<uint32_t>{KT4_IPC_CMD_GUARANTEED_SEND_FIRST, KT4_IPC_CMD_GUARANTEED_SEND,
                                     KT4_IPC_CMD_GUARANTEED_SEND, KT4_IPC_CMD_GUARANTEED_SEND}),
              cmds);
    EXPECT_EQ((std::vector<uint32_t>{0, 1, 2, 3}), tags);

    // A plain send to the same target is counted in the same record.
    auto p = make_msg(100, 70, 9, svcA, 1, svcB, 0);
    EXPECT_EQ(100, kt4IpcNonGuaranteedSend(keyA, p.data(), 100));
    EXPECT_EQ(1u, stats_to(svcB, 0).plainSends);
    std::string out = kt4test::stdout_of(getProcessIPCGStats);
    EXPECT_NE(std::string::npos, out.find(std::to_string(keyA)));
}

TEST_F(Grt, RetriedThreeTimesWhenTheReceiverStaysSilent) {
    RawSock silent(port_of(svcB, 0, 1));
    ASSERT_TRUE(silent.bound());
    auto m = make_msg(90, 71, 1, svcA, 1, svcB, 0);
    kt4IpcHdrSet(m.data(), KT4_IPC_HDR_APP2, 5);
    auto t0 = std::chrono::steady_clock::now();
    EXPECT_EQ(-1, kt4IpcSend(keyA, m.data(), 90));
    EXPECT_GT(seconds_since(t0), 2.7); // three one-second waits
    EXPECT_LT(seconds_since(t0), 6.0);
    int seen = 0;
    for (auto d = silent.recv(50); !d.empty(); d = silent.recv(50)) {
        ++seen;
        EXPECT_EQ(static_cast<uint32_t>(KT4_IPC_CMD_GUARANTEED_SEND_FIRST),
                  kt4IpcHdrGet(d.data(), KT4_IPC_HDR_CMD_TYPE));
        EXPECT_EQ(0u, kt4IpcHdrGet(d.data(), KT4_IPC_HDR_GRT_TAG));
    }
    EXPECT_EQ(3, seen);
    kt4IpcGTargetStats s = stats_to(svcB, 0);
    EXPECT_EQ(1u, s.retriesTry1);
    EXPECT_EQ(1u, s.retriesTry2);
    EXPECT_EQ(1u, s.failures);
    EXPECT_EQ(1, s.sequence); // a failure uses up its tag too

    // Now the receiver answers only the second try; tricky datagrams arrive first.
    std::thread peer([&] {
        auto first = silent.recv(3000);
        auto second = silent.recv(3000);
        if (second.size() < 60) return;
        unsigned char junk[60] = {};
        const uint16_t back =
            static_cast<uint16_t>(kt4IpcHdrGet(second.data(), KT4_IPC_HDR_SRC_QID));
        silent.send_to(back, junk, 30);          // truncated
        silent.send_to(back, second.data(), 59); // truncated acknowledgement
        auto wrong = second;
        kt4IpcHdrSet(wrong.data(), KT4_IPC_HDR_GRT_TAG, 0); // last stream's tag
        ack(silent, wrong, KT4_IPC_CMD_GUARANTEED_ACK_FIRST);
        ack(silent, second, KT4_IPC_CMD_GUARANTEED_ACK); // wrong kind for a first message
        ack(silent, second, KT4_IPC_CMD_GUARANTEED_ACK_FIRST);
    });
    auto m2 = make_msg(90, 71, 2, svcA, 1, svcB, 0);
    EXPECT_EQ(90, kt4IpcSend(keyA, m2.data(), 90));
    peer.join();
    s = stats_to(svcB, 0);
    EXPECT_EQ(1u, s.successes);
    EXPECT_EQ(2u, s.retriesTry1);
    EXPECT_EQ(2, s.sequence);
    EXPECT_EQ(0, s.flags & KT4_IPCG_FLAG_FIRST);

    // The older "GRT" form unanswered: three tries numbered in the flags, then -1.
    auto q = make_msg(80, 75, 7, svcA, 1, svcB, 0);
    EXPECT_EQ(-1, kt4IpcGuaranteeSend(keyA, q.data(), 80, 75, 7));
    for (uint32_t flag = 1; flag <= 3; ++flag) {
        auto d = silent.recv(100);
        ASSERT_EQ(80u, d.size());
        EXPECT_EQ(flag, kt4IpcHdrGet(d.data(), KT4_IPC_HDR_CMD_FLAGS));
    }
}

TEST_F(Grt, JunkOnTheResponseQueueUsesUpNoTries) {
    RawSock peer(port_of(svcB, 0, 1));
    ASSERT_TRUE(peer.bound());
    const uint16_t back = port_of(svcA, 1, 2);
    auto junk = [&](int n) {
        unsigned char j[16] = {};
        for (int i = 0; i < n; ++i) {
            j[0] = static_cast<unsigned char>(i);
            peer.send_to(back, j, 1 + static_cast<size_t>(i % 16));
        }
    };
    // Junk left over from before the send, and more arriving during the wait before the
    // acknowledgement: one copy is sent and acknowledged.
    junk(120);
    std::atomic<int> copies{0};
    std::thread acker([&] {
        auto d = peer.recv(3000);
        if (d.size() < 60) return;
        ++copies;
        junk(120);
        ack(peer, d, KT4_IPC_CMD_GUARANTEED_ACK_FIRST);
        while (!peer.recv(300).empty())
            ++copies;
    });
    auto m = make_msg(80, 76, 1, svcA, 1, svcB, 0);
    EXPECT_EQ(80, kt4IpcSend(keyA, m.data(), 80));
    acker.join();
    EXPECT_EQ(1, copies.load());

    // A receiver that never answers but floods the response queue: the tries still end by
    // their one-second waits.
    std::thread flooder([&] {
        for (int i = 0; i < 3; ++i) {
            if (peer.recv(3000).size() < 60) return;
            ++copies;
            junk(120);
        }
    });
    auto t0 = std::chrono::steady_clock::now();
    KT4_EXPECT_ERRNO(ETIMEDOUT, -1, kt4IpcSend(keyA, m.data(), 80));
    EXPECT_GT(seconds_since(t0), 2.7);
    flooder.join();
    EXPECT_EQ(4, copies.load());
}

TEST_F(Grt, SequenceTagsWrapAtSixteenBits) {
    RawSock responder(port_of(svcB, 0, 1));
    ASSERT_TRUE(responder.bound());
    constexpr int kSends = 65536 + 3;
    std::atomic<int> badTags{0};
    std::thread peer([&] {
        for (int i = 0; i < kSends; ++i) {
            auto d = responder.recv(3000);
            if (d.size() < 60) return;
            if (kt4IpcHdrGet(d.data(), KT4_IPC_HDR_GRT_TAG) != static_cast<uint32_t>(i & 0xFFFF))
                ++badTags;
            ack(responder, d,
                kt4IpcHdrGet(d.data(), KT4_IPC_HDR_CMD_TYPE) == KT4_IPC_CMD_GUARANTEED_SEND_FIRST
                    ? KT4_IPC_CMD_GUARANTEED_ACK_FIRST
                    : KT4_IPC_CMD_GUARANTEED_ACK);
        }
    });
    auto m = make_msg(60, 72, 0, svcA, 1, svcB, 0);
    int ok = 0;
    for (int i = 0; i < kSends; ++i)
        ok += kt4IpcSend(keyA, m.data(), 60) == 60;
    peer.join();
    EXPECT_EQ(kSends, ok);
    EXPECT_EQ(0, badTags.load());
    kt4IpcGTargetStats s = stats_to(svcB, 0);
    EXPECT_EQ(3, s.sequence);
    EXPECT_EQ(static_cast<uint32_t>(kSends), s.successes);
}

} // namespace
