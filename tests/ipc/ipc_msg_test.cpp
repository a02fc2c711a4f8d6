// Messages between endpoints of one process: plain send and receive with selection, reply
// by exchange, send-and-wait, peek, the notifier, garbage on every receive path, history.
#include "ipc_test_util.h"
#include "support/kt4_test_env.h"

#include <kt4/ipc.h>
#include <kt4/log.h>

#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>

namespace {

using ipctest::fresh_service;
using ipctest::make_msg;
using ipctest::on_wire;
using ipctest::port_of;
using ipctest::RawSock;
using ipctest::seconds_since;
using Clock = std::chrono::steady_clock;

// Two endpoints, A (the client) and B (the server), opened by the test.
class IpcPair : public ::testing::Test {
  protected:
    void SetUp() override {
        svcA = fresh_service();
        svcB = fresh_service();
        keyA = kt4IpcOpen(svcA, 1);
        keyB = kt4IpcOpen(svcB, 2);
        ASSERT_GT(keyA, 0);
        ASSERT_GT(keyB, 0);
    }
    void TearDown() override {
        kt4IpcClose(keyA);
        kt4IpcClose(keyB);
    }
    std::vector<unsigned char> a_to_b(int len, uint32_t type, uint32_t trans) const {
        return make_msg(len, type, trans, svcA, 1, svcB, 2);
    }
    int svcA = 0, svcB = 0, keyA = -1, keyB = -1;
};

TEST_F(IpcPair, PlainSendAndSelectiveReceive) {
    auto wrong = a_to_b(100, 7, 8);
    auto right = a_to_b(120, 7, 9);
    kt4IpcSetIpcPriority(right.data(), 1); // the send path writes the byte whole
    ASSERT_EQ(100, kt4IpcNonGuaranteedSend(keyA, wrong.data(), 100));
    ASSERT_EQ(120, kt4IpcNonGuaranteedSend(keyA, right.data(), 120));
    // Bytes waiting, not a count of messages.
    EXPECT_GE(kt4IpcGetNumMsgs(keyB | 1), 100);

    std::vector<unsigned char> buf(2048);
    ASSERT_EQ(120, kt4IpcRecv(keyB | 1, buf.data(), 2048, 2, 7, 9)); // the first is dropped
    EXPECT_EQ(0u, kt4IpcHdrGet(buf.data(), KT4_IPC_HDR_CMD_TYPE));
    EXPECT_EQ(0, std::memcmp(buf.data() + 60, right.data() + 60, 60));
    EXPECT_EQ(0, kt4IpcGetNumMsgs(keyB | 1));

    // Any message when type and transaction are both 0; a time-out otherwise.
    ASSERT_EQ(100, kt4IpcNonGuaranteedSend(keyA, wrong.data(), 100));
    EXPECT_EQ(100, kt4IpcRecv(keyB | 1, buf.data(), 2048, 1, 0, 0));
    auto t0 = Clock::now();
    KT4_EXPECT_ERRNO(ETIMEDOUT, -1, kt4IpcRecv(keyB | 1, buf.data(), 2048, 1, 0, 0));
    EXPECT_GT(seconds_since(t0), 0.9);
    EXPECT_LT(seconds_since(t0), 3.0);
}

TEST_F(IpcPair, BadArgumentsAreRefusedAndCutOrLyingDatagramsReported) {
    auto m = a_to_b(80, 1, 1);
    KT4_EXPECT_ERRNO(EBADF, -1, kt4IpcSend(12 << 7, m.data(), 80));
    KT4_EXPECT_ERRNO(EFAULT, -1, kt4IpcSend(keyA, nullptr, 80));
    KT4_EXPECT_ERRNO(EBADF, -1, kt4IpcReply(364 << 7, m.data(), 80));
    KT4_EXPECT_ERRNO(EBADF, -1, kt4IpcRecv(5 << 7 | 1, m.data(), 80, 1, 0, 0));
    KT4_EXPECT_ERRNO(EBADF, -1, kt4IpcSendWait(5 << 7, m.data(), 80, 1, 1, 1));
    KT4_EXPECT_ERRNO(EINVAL, -1, kt4IpcSendWait(keyA, m.data(), 80, -1, 1, 1));
    // The timeout is judged only after the request went out.
    std::vector<unsigned char> in(2048);
    EXPECT_EQ(80, kt4IpcRecv(keyB | 1, in.data(), 512, 1, 0, 0));
    EXPECT_EQ(KT4_IPC_CMD_REQ, kt4IpcHdrGet(in.data(), KT4_IPC_HDR_CMD_TYPE));
    // A message shorter than its header is refused before anything is written.
    KT4_EXPECT_ERRNO(EINVAL, -1, kt4IpcNonGuaranteedSend(keyA, m.data(), 59));
    // A receive buffer that cannot hold a header is refused, and the queue keeps its message.
    ASSERT_EQ(80, kt4IpcNonGuaranteedSend(keyA, m.data(), 80));
    KT4_EXPECT_ERRNO(EINVAL, -1, kt4IpcRecv(keyB | 1, in.data(), 59, 1, 0, 0));
    EXPECT_EQ(80, kt4IpcRecv(keyB | 1, in.data(), 512, 1, 0, 0));

    RawSock peer(0);
    const uint16_t to = port_of(svcB, 2, 1);
    // Longer than the caller's buffer: its first bytes arrive, with EMSGSIZE to say so.
    auto big = on_wire(a_to_b(65507, 5, 5));
    ASSERT_EQ(65507, peer.send_to(to, big.data(), big.size()));
    KT4_EXPECT_ERRNO(EMSGSIZE, -1, kt4IpcRecv(keyB | 1, in.data(), 2048, 1, 0, 0));
    EXPECT_EQ(0, std::memcmp(in.data(), big.data(), 2048));
    // Padding after a message that fits is no loss: the bytes that arrived, no error.
    auto padded = on_wire(a_to_b(3000, 5, 4));
    kt4IpcHdrSet(padded.data(), KT4_IPC_HDR_LENGTH, 100);
    ASSERT_EQ(3000, peer.send_to(to, padded.data(), padded.size()));
    EXPECT_EQ(2048, kt4IpcRecv(keyB | 1, in.data(), 2048, 1, 0, 0));

    // A header that claims more bytes than its datagram carries is no message: dropped.
    auto liar = on_wire(a_to_b(100, 5, 6)), honest = on_wire(a_to_b(100, 5, 7));
    kt4IpcHdrSet(liar.data(), KT4_IPC_HDR_LENGTH, 101);
    ASSERT_EQ(100, peer.send_to(to, liar.data(), 100));
    unsigned char junk[60] = {};
    ASSERT_EQ(2, peer.send_to(to, junk, 2)); // far too short
    // An acknowledgement on the request queue is no message either.
    auto ack = on_wire(a_to_b(60, 5, 7));
    kt4IpcHdrSet(ack.data(), KT4_IPC_HDR_CMD_TYPE, KT4_IPC_CMD_GUARANTEED_ACK);
    ASSERT_EQ(60, peer.send_to(to, ack.data(), 60));
    ASSERT_EQ(100, peer.send_to(to, honest.data(), 100));
    ASSERT_EQ(100, kt4IpcRecv(keyB | 1, in.data(), 2048, 1, 5, 7));
    EXPECT_EQ(0, kt4IpcGetNumMsgs(keyB | 1));
}

// Sum of the counts in the "... N suppressed" lines of a ring text.
int suppressed_in(const std::string &text) {
    const std::string tag = "dropped datagrams suppressed: ";
    int sum = 0;
    for (size_t at = text.find(tag); at != std::string::npos; at = text.find(tag, at + 1))
        sum += std::atoi(text.c_str() + at + tag.size());
    return sum;
}

TEST_F(IpcPair, FloodOfBadDatagramsLeavesTheTraceRingItsHistory) {
    const std::string mark = "flood mark of process " + std::to_string(getpid());
    kt4WarningPrintf(5, "%s", mark.c_str());
    RawSock peer(0);
    const uint16_t to = port_of(svcB, 2, 1);
    constexpr int kJunk = 4000; // more than the ring's 3000 slots
    const auto good = on_wire(a_to_b(60, 1, 1));
    std::thread flood([&] {
        unsigned char junk[60] = {};
        for (int i = 0; i < kJunk; ++i) {
            // No two lines alike in a row, so the ring cannot fold them into one.
            size_t len = 1 + static_cast<size_t>(i % 59);
            if (i % 2 == 1) {
                len = 60;
                junk[3] = static_cast<unsigned char>(i);
                junk[2] = static_cast<unsigned char>(i >> 8);
            }
            peer.send_to(to, junk, len);
            // Let the receiver drain before the socket's buffer could overflow.
            for (int w = 0; i % 100 == 99 && w < 25000 && kt4IpcGetNumMsgs(keyB | 1) > 0; ++w)
                ::usleep(200);
        }
        peer.send_to(to, good.data(), 60);
    });
    std::vector<unsigned char> buf(256);
    EXPECT_EQ(60, kt4IpcRecv(keyB | 1, buf.data(), 256, 10, 0, 0));
    flood.join();

    // When warnings resume after a pause, the number held back is reported first.
    int extra = 0;
    std::string resumed;
    for (int i = 0; i < 25 && resumed.find("suppressed") == std::string::npos; ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(200));
        unsigned char junk[8] = {static_cast<unsigned char>(i)};
        peer.send_to(to, junk, 1 + static_cast<size_t>(i % 7));
        ++extra;
        peer.send_to(to, good.data(), 60);
        kt4TracePrintOn();
        resumed = kt4test::stdout_of(
            [&] { EXPECT_EQ(60, kt4IpcRecv(keyB | 1, buf.data(), 256, 2, 0, 0)); });
        kt4TracePrintOff();
    }
    EXPECT_NE(std::string::npos, resumed.find("suppressed")) << resumed;

    const std::string ring = kt4test::stdout_of(kt4TraceDisplaySoftware);
    const size_t from = ring.rfind(mark); // this round's mark under --gtest_repeat
    ASSERT_NE(std::string::npos, from) << "the flood overwrote the ring";
    const std::string after = ring.substr(from);
    const int warned =
        kt4test::count_of(after, ": too short") + kt4test::count_of(after, "magic no match");
    EXPECT_LT(warned, 100);
    // Every bad datagram is accounted for: warned about, or counted as suppressed.
    EXPECT_EQ(kJunk + extra, warned + suppressed_in(after));
}

TEST_F(IpcPair, ReplyByExchangeAndSendWait) {
    RawSock peer(0);
    std::atomic<bool> ok{false};
    std::thread server([&] {
        std::vector<unsigned char> in(512);
        int n = kt4IpcRecv(keyB | 1, in.data(), 512, 3, 0, 0);
        if (n < 60 || kt4IpcHdrGet(in.data(), KT4_IPC_HDR_CMD_TYPE) != KT4_IPC_CMD_REQ) return;
        // Garbage first, which the waiter must drop: cut, without magic, an acknowledgement,
        // a reply of another type, a reply of another transaction.
        const uint16_t back = static_cast<uint16_t>(kt4IpcHdrGet(in.data(), KT4_IPC_HDR_SRC_QID));
        unsigned char junk[60] = {};
        peer.send_to(back, junk, 30);
        peer.send_to(back, junk, 60);
        std::vector<unsigned char> other(in.begin(), in.begin() + n);
        kt4IpcHdrSet(other.data(), KT4_IPC_HDR_CMD_TYPE, KT4_IPC_CMD_GUARANTEED_ACK_FIRST);
        peer.send_to(back, other.data(), other.size());
        kt4IpcHdrSet(other.data(), KT4_IPC_HDR_CMD_TYPE, KT4_IPC_CMD_RSP);
        kt4IpcHdrSet(other.data(), KT4_IPC_HDR_MSG_TYPE, 99);
        peer.send_to(back, other.data(), other.size());
        kt4IpcHdrSet(other.data(), KT4_IPC_HDR_MSG_TYPE, 31);
        kt4IpcHdrSet(other.data(), KT4_IPC_HDR_TRANSACTION, 4242);
        if (kt4IpcReply(keyB, other.data(), n) != n) return;
        in[60] = 'R';
        ok = kt4IpcReply(keyB, in.data(), n) == n;
        // Then a reply longer than the waiter's buffer.
        if (kt4IpcRecv(keyB | 1, in.data(), 512, 3, 0, 0) < 60) return;
        kt4IpcHdrSet(in.data(), KT4_IPC_HDR_LENGTH, 400);
        kt4IpcReply(keyB, in.data(), 400);
    });
    auto req = a_to_b(200, 31, 5);
    req[60] = 'Q';
    int n = kt4IpcSendWait(keyA, req.data(), 200, 3, 31, 5);
    // Longer than the buffer: its first bytes arrive, with EMSGSIZE to say so.
    auto small = a_to_b(100, 8, 8);
    KT4_EXPECT_ERRNO(EMSGSIZE, -1, kt4IpcSendWait(keyA, small.data(), 100, 3, 8, 8));
    server.join();
    EXPECT_EQ(400u, kt4IpcHdrGet(small.data(), KT4_IPC_HDR_LENGTH));
    ASSERT_TRUE(ok);
    ASSERT_EQ(200, n);
    EXPECT_EQ('R', req[60]);
    // The reply's triples are the request's, exchanged.
    EXPECT_EQ(static_cast<uint32_t>(keyB | 1), kt4IpcHdrGet(req.data(), KT4_IPC_HDR_SRC_QID));
    EXPECT_EQ(static_cast<uint32_t>(keyA | 2), kt4IpcHdrGet(req.data(), KT4_IPC_HDR_TGT_QID));
}

TEST_F(IpcPair, SendWaitTimesOutPollsOnceOrRetries) {
    auto req = a_to_b(64, 3, 3);
    auto t0 = Clock::now();
    KT4_EXPECT_ERRNO(ETIMEDOUT, -1, kt4IpcSendWait(keyA, req.data(), 64, 1, 3, 3));
    EXPECT_GT(seconds_since(t0), 0.9);
    EXPECT_LT(seconds_since(t0), 3.0);

    t0 = Clock::now();
    KT4_EXPECT_ERRNO(ETIMEDOUT, -1,
                     kt4IpcSendWait(keyA, req.data(), 64, 0, 3, 3)); // "Caller no wait"
    EXPECT_LT(seconds_since(t0), 0.9); // short of the one-second wait above, even under load
    // The requests did reach the server's queue.
    std::vector<unsigned char> buf(128);
    EXPECT_EQ(64, kt4IpcRecv(keyB | 1, buf.data(), 128, 1, 3, 3));
    EXPECT_EQ(64, kt4IpcRecv(keyB | 1, buf.data(), 128, 1, 3, 3));

    // A reply already waiting is taken by the poll.
    auto rsp = a_to_b(64, 3, 3);
    kt4IpcSetTargetHeaderToRspQ(rsp.data(), kt4IpcGetLocalCpuIpAddr(), 0, svcA, 1);
    ASSERT_EQ(64, kt4IpcNonGuaranteedSend(keyB, rsp.data(), 64));
    EXPECT_EQ(64, kt4IpcSendWait(keyA, req.data(), 64, 0, 3, 3));

    // With retries: sent up to retries more times; negative retries send nothing.
    const int svcX = fresh_service();
    RawSock target(port_of(svcX, 0, 1));
    ASSERT_TRUE(target.bound());
    req = make_msg(64, 9, 1, svcA, 1, svcX, 0);
    std::vector<unsigned char> reply(64);
    EXPECT_EQ(-1, kt4IpcSendWaitWithRetry(keyA, req.data(), reply.data(), 64, 64, 0, 9, 1, -1));
    EXPECT_TRUE(target.recv(50).empty()); // negative retries: nothing sent
    EXPECT_EQ(-1, kt4IpcSendWaitWithRetry(keyA, req.data(), reply.data(), 64, 64, 0, 9, 1, 2));
    int seen = 0;
    while (!target.recv(100).empty())
        ++seen;
    EXPECT_EQ(3, seen);
}

std::atomic<int> notified_key{0};
std::atomic<int> notified_calls{0};
void note(void *arg, int key) {
    notified_key = key;
    notified_calls += *static_cast<int *>(arg);
}

TEST_F(IpcPair, PeekLooksWithoutTakingAndTheNotifierPrecedesEveryWait) {
    std::vector<unsigned char> buf(256);
    KT4_EXPECT_ERRNO(EAGAIN, -1, kt4IpcPeekMsg(keyB | 1, buf.data(), 256));
    auto other = a_to_b(60, 1, 1), m = a_to_b(77, 1, 2);
    ASSERT_EQ(60, kt4IpcNonGuaranteedSend(keyA, other.data(), 60));
    ASSERT_EQ(77, kt4IpcNonGuaranteedSend(keyA, m.data(), 77));
    ASSERT_TRUE(kt4test::eventually([&] { return kt4IpcGetNumMsgs(keyB | 1) > 0; }));
    EXPECT_EQ(60, kt4IpcPeekMsg(keyB | 1, buf.data(), 256));
    int weight = 1;
    notified_calls = 0;
    kt4IpcInstallRecvNotifier(note, &weight);
    EXPECT_EQ(77, kt4IpcRecv(keyB | 1, buf.data(), 256, 1, 1, 2));
    kt4IpcInstallRecvNotifier(nullptr, nullptr);
    EXPECT_EQ(keyB, notified_key.load());
    EXPECT_EQ(2, notified_calls.load()); // one wait per datagram taken

    RawSock peer(0);
    unsigned char junk[70] = {};
    peer.send_to(port_of(svcB, 2, 1), junk, sizeof junk);
    ASSERT_TRUE(kt4test::eventually([&] { return kt4IpcGetNumMsgs(keyB | 1) > 0; }));
    KT4_EXPECT_ERRNO(EBADMSG, -1, kt4IpcPeekMsg(keyB | 1, buf.data(), 256));
}

TEST_F(IpcPair, HistoryRingKeepsTheNewestAndDumps) {
    ASSERT_EQ(0, kt4InitIpcHistoryTable(4, 80, 1));
    kt4EnableIpcHistoryLogging(0xFFFFFFFF, -1, -1); // no filter
    std::vector<unsigned char> buf(256);
    for (uint32_t i = 0; i < 6; ++i) {
        auto m = a_to_b(100, 60 + i, i);
        ASSERT_EQ(100, kt4IpcNonGuaranteedSend(keyA, m.data(), 100));
        ASSERT_EQ(100, kt4IpcRecv(keyB | 1, buf.data(), 256, 1, 0, 0));
    }
    std::string out = kt4test::stdout_of([] {
        printIpcHistoryLogging();
        dumpIpcHistoryLogging(0, 3);
        dumpIpcHistoryLogging(0, 4);
    });
    EXPECT_NE(std::string::npos, out.find("Max log entries: 4, Max entry len: 80\r\n"));
    EXPECT_NE(std::string::npos, out.find("Total entries captured: 12\r\n\n"));
    char want[128];
    std::snprintf(want, sizeof want, "Src: %d/0x%x/%d Dst: %d/0x%x/%d Len 100\r\n", kt4CardSlot(),
                  kt4IpcGetLocalCpuIpAddr(), keyA | 2, kt4CardSlot(), kt4IpcGetLocalCpuIpAddr(),
                  keyB | 1);
    EXPECT_NE(std::string::npos, out.find(want));
    EXPECT_NE(std::string::npos, out.find("Invalid value for start or end. Range 0 - 3\r\n"));

    // A type filter keeps only that type.
    ASSERT_EQ(0, kt4InitIpcHistoryTable(8, 80, 0));
    kt4EnableIpcHistoryLogging(61, -1, -1);
    for (uint32_t i = 0; i < 3; ++i) {
        auto m = a_to_b(100, 60 + i, i);
        ASSERT_EQ(100, kt4IpcNonGuaranteedSend(keyA, m.data(), 100));
        ASSERT_EQ(100, kt4IpcRecv(keyB | 1, buf.data(), 256, 1, 0, 0));
    }
    out = kt4test::stdout_of([] { dumpIpcHistoryLogging(0, 7); });
    EXPECT_NE(std::string::npos, out.find("Total entries captured: 2\r\n\n"));
    EXPECT_NE(std::string::npos, out.find("Got invalid ptr in record 2\r\n"));
    kt4DisableIpcHistoryLogging();
    kt4DeInitIpcHistoryTable();
}

} // namespace
