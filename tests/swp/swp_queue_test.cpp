// Reliable queues between two processes of one card (the sender here, the receiver a forked
// child), and the rules a queue keeps on its own.
#include "swp_test_util.h"

#include <kt4/log.h>

#include <csignal>
#include <sys/wait.h>

#include <set>
#include <sstream>

namespace {

using namespace swptest;

class Swp : public ::testing::Test {
  protected:
    void SetUp() override {
        card_up();
        g_freed = 0;
        g_cb_status = -1;
        g_cb_buffer = nullptr;
        sendSvc_ = fresh_service();
        recvSvc_ = fresh_service();
        key_ = kt4IpcOpen(sendSvc_, 0);
        ASSERT_GT(key_, 0);
    }
    void TearDown() override {
        if (h_ != 0) kt4SwpQueueRemove(h_);
        if (recvKey_ > 0) kt4IpcClose(recvKey_);
        kt4IpcClose(key_);
    }
    uint32_t create(uint32_t window, uint32_t maxLen = 0, uint32_t timeout = 500,
                    uint32_t maxTrans = 5) {
        uint32_t rc =
            kt4MwpQueueCreate_p(0, maxLen, timeout, maxTrans, sendSvc_, 0, key_, recvSvc_, 0, 7000,
                                nullptr, nullptr, count_free, record_cb, window, &h_);
        return rc;
    }
    kt4SwpQueueStatus status() {
        kt4SwpQueueStatus s{};
        EXPECT_EQ(0u, kt4SwpGetQueueStatus(h_, &s));
        return s;
    }
    int ackQid() const { return key_ | KT4_IPC_QUEUE_RSP; }
    // The receiver as an endpoint of this process.
    void local_receiver() {
        recvKey_ = kt4IpcOpen(recvSvc_, 0);
        ASSERT_GT(recvKey_, 0);
    }

    int sendSvc_ = 0, recvSvc_ = 0, key_ = -1, recvKey_ = -1;
    uint32_t h_ = 0;
};

TEST_F(Swp, StreamArrivesOnceInOrderThroughAFullWindowAndTheQueueDrains) {
    constexpr uint32_t kN = 300;
    Child child(recvSvc_, [](int rkey) {
        kt4SwpSeqNo exp{0, 0};
        uint32_t next = 0, bad = 0;
        unsigned char buf[2048];
        while (next < kN) {
            int n = recv_within(rkey | KT4_IPC_QUEUE_REQ, buf, sizeof buf, 5000);
            if (n == 0) break;
            if (kt4SwpCkSeqAndAck(rkey, buf, n, &exp, 1) != KT4_SWP_SEQ_MATCH) continue;
            if (payload_of(buf) != next) ++bad;
            ++next;
        }
        return std::to_string(next) + " " + std::to_string(bad);
    });
    ASSERT_TRUE(child.ready());
    ASSERT_EQ(0u, create(8));
    for (uint32_t i = 0; i < kN; ++i)
        ASSERT_EQ(0u, kt4SwpEnqueue(h_, make_msg(200, i), 200));
    kt4SwpQueueStatus s = status();
    EXPECT_EQ(kN, s.curLen);
    EXPECT_EQ(8u, s.inFlight); // the window is full, the rest waits
    EXPECT_TRUE(pump(
        ackQid(), [&] { return status().curLen == 0; }, 20000));
    EXPECT_EQ("300 0\n", child.result());
    s = status();
    EXPECT_EQ(kN, s.acks);
    EXPECT_EQ(0u, s.retrans);
    EXPECT_EQ(0u, s.inFlight);
    EXPECT_EQ(0u, s.memUsed);
    EXPECT_EQ(200u * kN, s.maxMemUsed);
    EXPECT_EQ(kN, s.nextSeq.lo);
    EXPECT_EQ(static_cast<int>(kN), g_freed.load());
    EXPECT_EQ(-1, g_cb_status.load());
}

TEST_F(Swp, ExpiryRetransmitsTheWindowWhileAcknowledgementsAreWithheld) {
    Child child(recvSvc_, [](int rkey) {
        kt4SwpSeqNo exp{0, 0};
        unsigned char buf[2048];
        std::ostringstream seen;
        bool acking = false;
        std::set<uint64_t> got;
        for (int quiet = 0; quiet < 3;) {
            int n = recv_within(rkey | KT4_IPC_QUEUE_REQ, buf, sizeof buf, 1500);
            if (n == 0) {
                ++quiet;
                continue;
            }
            kt4SwpCkSeqNo(buf, n, &exp);
            seen << seq_of(buf) << ' ';
            if (!got.insert(seq_of(buf)).second) acking = true; // the sender went back
            if (acking) kt4SwpReceiverAck(rkey, buf, n, &exp, 0);
            if (acking && exp.lo == 4) break;
        }
        return seen.str();
    });
    ASSERT_TRUE(child.ready());
    ASSERT_EQ(0u, create(4, 0, 50)); // one second
    for (uint32_t i = 0; i < 4; ++i)
        ASSERT_EQ(0u, kt4SwpEnqueue(h_, make_msg(160, i), 160));
    EXPECT_TRUE(pump(
        ackQid(), [&] { return status().curLen == 0; }, 15000));
    std::string seen = child.result();
    EXPECT_EQ(0u, seen.rfind("0 1 2 3 0 ", 0)) << seen; // the whole window again, head first
    kt4SwpQueueStatus s = status();
    EXPECT_GE(s.timeouts, 1u);
    EXPECT_GE(s.retrans, 4u);
    EXPECT_EQ(4u, s.acks);
    EXPECT_EQ(5u, s.retransLeft); // back to maxTrans once the head went
}

TEST_F(Swp, NegativeAcknowledgementResendsTheHeadOnly) {
    Child child(recvSvc_, [](int rkey) {
        kt4SwpSeqNo exp{0, 0};
        unsigned char buf[2048];
        std::ostringstream seen;
        bool lost = false;
        for (;;) {
            int n = recv_within(rkey | KT4_IPC_QUEUE_REQ, buf, sizeof buf, 1500);
            if (n == 0) break;
            seen << seq_of(buf) << ' ';
            if (seq_of(buf) == 1 && !lost) { // the first copy of 0.1 is "lost"
                lost = true;
                continue;
            }
            kt4SwpCkSeqAndAck(rkey, buf, n, &exp, 1); // 0.2 and 0.3 are early: negative acks
        }
        return seen.str();
    });
    ASSERT_TRUE(child.ready());
    ASSERT_EQ(0u, create(4)); // ten seconds: no expiry during the test
    for (uint32_t i = 0; i < 4; ++i)
        ASSERT_EQ(0u, kt4SwpEnqueue(h_, make_msg(140, i), 140));
    pump(
        ackQid(), [] { return false; }, 2500);
    std::istringstream in(child.result());
    std::multiset<uint64_t> seen;
    for (uint64_t v; in >> v;)
        seen.insert(v);
    for (uint64_t s : {0, 2, 3})
        EXPECT_EQ(1u, seen.count(s)) << "message " << s << " was resent";
    ASSERT_GE(seen.count(1), 2u);
    kt4SwpQueueStatus s = status();
    EXPECT_EQ(seen.count(1) - 1, s.retrans);
    EXPECT_EQ(2u, s.acks);
    EXPECT_EQ(2u, s.curLen);
    EXPECT_EQ(0u, s.timeouts);
}

TEST_F(Swp, CallbackGetsNineAndTheQueueDiesAfterMaxTrans) {
    Child child(recvSvc_, [](int rkey) {
        unsigned char buf[2048];
        int got = 0;
        while (recv_within(rkey | KT4_IPC_QUEUE_REQ, buf, sizeof buf, 4000) > 0)
            ++got; // never acknowledged
        return std::to_string(got);
    });
    ASSERT_TRUE(child.ready());
    ASSERT_EQ(0u, create(1, 0, 50, 2));
    void *head = make_msg(128, 0);
    ASSERT_EQ(0u, kt4SwpEnqueue(h_, head, 128));
    ASSERT_EQ(0u, kt4SwpEnqueue(h_, make_msg(128, 1), 128));
    EXPECT_EQ(1, kt4SwpIsQueueAlive(h_));
    EXPECT_TRUE(pump(
        ackQid(), [] { return g_cb_status.load() == KT4_SWP_FAILURE_NO_RETRANS; }, 15000));
    EXPECT_EQ(head, g_cb_buffer.load());
    EXPECT_EQ(0, kt4SwpIsQueueAlive(h_));
    kt4SwpQueueStatus s = status();
    EXPECT_EQ(2u, s.retrans);
    EXPECT_EQ(2u, s.curLen); // kept: removing the queue frees them
    EXPECT_EQ("3\n", child.result());
    EXPECT_EQ(0u, kt4SwpQueueRemove(h_));
    h_ = 0;
    EXPECT_EQ(2, g_freed.load());
}

TEST_F(Swp, WindowShrinksOnlyWhenEmptyAndAFullQueueStoresNothing) {
    local_receiver();
    ASSERT_EQ(0u, create(4, 3));
    uint32_t w = 0;
    void *m[4];
    for (uint32_t i = 0; i < 4; ++i)
        m[i] = make_msg(128, i);
    for (int i = 0; i < 3; ++i)
        ASSERT_EQ(0u, kt4SwpEnqueue(h_, m[i], 128));
    EXPECT_EQ(KT4_SWP_FAILURE_QFULL, kt4SwpEnqueue(h_, m[3], 128));
    EXPECT_EQ(3u, status().curLen);
    EXPECT_EQ(1u, status().queueFull);
    EXPECT_EQ(KT4_SWP_FAILURE, kt4SwpSetMwpQWinSize(h_, 2));
    ASSERT_EQ(0u, kt4SwpGetMwpQWinSize(h_, &w));
    EXPECT_EQ(4u, w);
    EXPECT_EQ(KT4_SWP_SEQ_MATCH, kt4SwpSetMwpQWinSize(h_, 6));
    // The length callback is told each time the length falls below 2.
    static std::vector<uint32_t> lengths;
    lengths.clear();
    ASSERT_EQ(0u, kt4SwpSetQLenCallBack(
                      [](void *arg, uint32_t n) {
                          static_cast<std::vector<uint32_t> *>(arg)->push_back(n);
                      },
                      &lengths, h_, 2));
    // Acknowledge all three at once (the receiver's next expected is 0.3).
    unsigned char buf[2048];
    kt4SwpSeqNo exp{0, 0};
    for (int i = 0; i < 3; ++i) {
        int n = recv_within(recvKey_ | KT4_IPC_QUEUE_REQ, buf, sizeof buf, 2000);
        ASSERT_GT(n, 0);
        ASSERT_EQ(KT4_SWP_SEQ_MATCH, kt4SwpCkSeqNo(buf, n, &exp));
        if (i == 2) kt4SwpReceiverAck(recvKey_, buf, n, &exp, 0);
    }
    EXPECT_TRUE(pump(ackQid(), [&] { return status().curLen == 0; }));
    EXPECT_EQ((std::vector<uint32_t>{1, 0}), lengths);
    EXPECT_EQ(KT4_SWP_SEQ_MATCH, kt4SwpSetMwpQWinSize(h_, 1));
    // The memory limit counts like the length limit.
    EXPECT_EQ(0u, kt4SwpSetMaxMemoryAllowed(h_, 100));
    ASSERT_EQ(0u, kt4SwpEnqueue(h_, m[3], 128));
    void *extra = make_msg(128, 9);
    EXPECT_EQ(KT4_SWP_FAILURE_QFULL, kt4SwpEnqueue(h_, extra, 128));
    std::free(extra);
    EXPECT_EQ(2u, status().queueFull);
    // A duplicate acknowledgement and one from the future change nothing.
    EXPECT_EQ(KT4_SWP_SEQ_ONE_LESS, kt4SwpDequeue(h_, 0, 1));
    EXPECT_EQ(KT4_SWP_FAILURE_ACK, kt4SwpDequeue(h_, 0, 9));
    EXPECT_EQ(1u, status().curLen);
    EXPECT_EQ(0u, kt4SwpDequeue(h_, 0, 3));
    EXPECT_EQ(4, g_freed.load());
}

TEST_F(Swp, HandlesAreOneToNineHundredAndBadCallsAreRefused) {
    local_receiver();
    EXPECT_STREQ("SWP failure - no more timeouts", kt4SwpGetErr(16));
    EXPECT_EQ(nullptr, kt4SwpGetErr(17));
    for (uint32_t bad : {0u, 901u}) {
        uint32_t v = 0;
        EXPECT_EQ(KT4_SWP_FAILURE, kt4SwpEnqueue(bad, &v, 128));
        EXPECT_EQ(KT4_SWP_FAILURE, kt4SwpQueueGetLen(bad, &v));
        EXPECT_EQ(KT4_SWP_FAILURE, kt4SwpQueueRemove(bad));
        EXPECT_EQ(0, kt4SwpIsQueueAlive(bad));
    }
    // No callback, no timeout or no maxTrans: refused. An unreachable receiver too.
    uint32_t h = 0;
    EXPECT_EQ(KT4_SWP_FAILURE,
              kt4SwpQueueCreate(0, 0, 50, 3, sendSvc_, 0, key_, recvSvc_, 0, 1, nullptr, &h));
    EXPECT_EQ(KT4_SWP_FAILURE,
              kt4SwpQueueCreate(0, 0, 0, 3, sendSvc_, 0, key_, recvSvc_, 0, 1, record_cb, &h));
    EXPECT_EQ(KT4_SWP_FAILURE, kt4SwpQueueCreate(0, 0, 50, 3, sendSvc_, 0, key_, fresh_service(), 0,
                                                 1, record_cb, &h));
    std::vector<uint32_t> made;
    for (;;) {
        if (kt4SwpQueueCreate(0, 0, 50, 3, sendSvc_, 0, key_, recvSvc_, 0, 1, record_cb, &h) != 0)
            break;
        made.push_back(h);
        ASSERT_LE(made.size(), 900u);
    }
    EXPECT_EQ(900u, made.size());
    EXPECT_EQ(900u, made.back());
    uint32_t len = 7;
    EXPECT_EQ(0u, kt4SwpQueueGetLen(900, &len));
    EXPECT_EQ(0u, len);
    for (uint32_t q : made)
        EXPECT_EQ(0u, kt4SwpQueueRemove(q));
    EXPECT_EQ(KT4_SWP_FAILURE, kt4SwpQueueGetLen(900, &len)); // released
}

TEST_F(Swp, ABlockOfADeadCreatorIsReclaimed) {
    local_receiver();
    int p[2];
    ASSERT_EQ(0, pipe(p));
    std::fflush(nullptr);
    pid_t pid = fork();
    if (pid == 0) {
        uint32_t h = 0;
        kt4SwpQueueCreate(0, 0, 50, 3, sendSvc_, 0, key_, recvSvc_, 0, 1, record_cb, &h);
        _exit(write(p[1], &h, sizeof h) == sizeof h ? 0 : 1); // dies holding it
    }
    close(p[1]);
    uint32_t theirs = 0;
    ASSERT_EQ(static_cast<ssize_t>(sizeof theirs), read(p[0], &theirs, sizeof theirs));
    close(p[0]);
    waitpid(pid, nullptr, 0);
    ASSERT_NE(0u, theirs);
    uint32_t len = 0;
    EXPECT_EQ(0u, kt4SwpQueueGetLen(theirs, &len));
    void *m = make_msg(128, 0);
    EXPECT_EQ(KT4_SWP_FAILURE, kt4SwpEnqueue(theirs, m, 128)); // not its creator
    std::free(m);
    EXPECT_GE(kt4SwpReclaimDead(), 1);
    EXPECT_EQ(KT4_SWP_FAILURE, kt4SwpQueueGetLen(theirs, &len));
}

} // namespace
