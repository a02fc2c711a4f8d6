// Reliable queues between two processes of one card (the sender here, the receiver a forked
// child), and the rules a queue keeps on its own.
#include "swp_test_util.h"

#include <kt4/log.h>

#include <set>
#include <sstream>

namespace {

using namespace swptest;

class Swp : public SwpFixture {
  protected:
    uint32_t create(uint32_t window, uint32_t maxLen = 0, uint32_t timeout = 500,
                    uint32_t maxTrans = 5) {
        return kt4MwpQueueCreate_p(0, maxLen, timeout, maxTrans, sendSvc_, 0, key_, recvSvc_, 0,
                                   7000, nullptr, nullptr, count_free, record_cb, window, &h_);
    }
    kt4SwpQueueStatus status() {
        kt4SwpQueueStatus s{};
        EXPECT_EQ(0u, kt4SwpGetQueueStatus(h_, &s));
        return s;
    }
    int ackQid() const { return key_ | KT4_IPC_QUEUE_RSP; }
};

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

TEST_F(Swp, HandlesAreOneToNineHundredAndADeadCreatorsBlockIsReclaimed) {
    local_receiver();
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
    for (uint32_t q : made)
        EXPECT_EQ(0u, kt4SwpQueueRemove(q));
    uint32_t len = 0;
    EXPECT_EQ(KT4_SWP_FAILURE, kt4SwpQueueGetLen(900, &len)); // released

    // A block whose creator died is reclaimed; until then it is the creator's alone.
    Child child(fresh_service(), [this](int) {
        uint32_t h = 0;
        kt4SwpQueueCreate(0, 0, 50, 3, sendSvc_, 0, key_, recvSvc_, 0, 1, record_cb, &h);
        return std::to_string(h); // and dies holding it
    });
    ASSERT_TRUE(child.ready());
    const auto theirs = static_cast<uint32_t>(std::stoul("0" + child.result()));
    ASSERT_NE(0u, theirs);
    EXPECT_EQ(0u, kt4SwpQueueGetLen(theirs, &len));
    void *m = make_msg(128, 0);
    EXPECT_EQ(KT4_SWP_FAILURE, kt4SwpEnqueue(theirs, m, 128)); // not its creator
    std::free(m);
    EXPECT_GE(kt4SwpReclaimDead(), 1);
    EXPECT_EQ(KT4_SWP_FAILURE, kt4SwpQueueGetLen(theirs, &len));
}

} // namespace
