// Queue lists (group assignment, the group stamp, group flush), queues over the ICL, the
// receiving stream and the operator's switches, all with the receiver as an endpoint of this
// process.
#include "swp_test_util.h"

#include <kt4/log.h>

#include <vector>

namespace {

using namespace swptest;

class SwpLocal : public SwpFixture {
  protected:
    void SetUp() override {
        SwpFixture::SetUp();
        local_receiver();
    }
    uint32_t make_list(uint32_t queues, uint32_t groups, kt4SwpQList **l) {
        return kt4SwpQListCreate(0, 0, 500, 5, sendSvc_, 0, key_, recvSvc_, 0, 7000, nullptr,
                                 nullptr, count_free, record_cb, 1, l, queues, groups);
    }
};

TEST_F(SwpLocal, ListAssignsLeastLoadedQueuesAndGroupFlushKeepsTheOtherGroupsInOrder) {
    kt4SwpQList *l = nullptr;
    EXPECT_EQ(KT4_SWP_FAILURE, make_list(3, 2, &l));
    EXPECT_EQ(KT4_SWP_FAILURE, make_list(0, 2, &l));
    swp_qlist_info_dbg = 1; // the operator's switch: progress texts named by their function
    std::string said = kt4test::stdout_of([&] {
        ASSERT_EQ(0u, make_list(2, 4, &l));
        for (uint32_t g = 0; g < 4; ++g)
            ASSERT_EQ(0u, kt4SWPQListAddMsgGroup(l, g));
    });
    swp_qlist_info_dbg = 0;
    EXPECT_NE(said.find("kt4SwpQListCreate:Num Qs= 2 and num Grps= 4\r\n"), std::string::npos)
        << said;
    EXPECT_NE(said.find(": Group 3 is Assigned to Queue 1 \r\n"), std::string::npos) << said;
    EXPECT_EQ(KT4_SWP_FAILURE, kt4SWPQListAddMsgGroup(l, 4));
    uint32_t h[4];
    for (uint32_t g = 0; g < 4; ++g)
        ASSERT_EQ(0u, kt4SWPQListGetQHandle(l, g, &h[g]));

    // 135 bytes are too few for the stamp; the refusal is told with the err switch on.
    // Payloads of list messages sit behind the group stamp.
    auto list_msg = [](uint32_t n) {
        auto *m = static_cast<unsigned char *>(make_msg(140, 0));
        store_be32(m + KT4_SWP_QLIST_MSG_MIN, n);
        return m;
    };
    void *m = list_msg(99);
    swp_qlist_err_dbg = 1;
    said =
        kt4test::stdout_of([&] { EXPECT_EQ(KT4_SWP_FAILURE, kt4SWPQListEnqueue(l, 0, m, 135)); });
    swp_qlist_err_dbg = 0;
    EXPECT_EQ("kt4SWPQListEnqueue: Buffer len < minimal required length\n", said);

    // Window 1: the first message of queue 0 goes, the rest waits; then group 2 is flushed.
    ASSERT_EQ(0u, kt4SWPQListEnqueue(l, 0, m, 136)); // 136 is enough
    const uint32_t groups[] = {2, 0, 2, 0};
    for (uint32_t i = 0; i < 4; ++i)
        ASSERT_EQ(0u, kt4SWPQListEnqueue(l, groups[i], list_msg(100 + i), 140));
    ASSERT_EQ(0u, kt4SWPQListEnqueue(l, 1, list_msg(200), 140));
    EXPECT_EQ(0u, kt4SwpQListFlushGroup(l, 2, 0));
    uint32_t len = 0;
    ASSERT_EQ(0u, kt4SwpQListGetQLen(l, 0, &len));
    EXPECT_EQ(3u, len);
    EXPECT_EQ(2, g_freed.load());
    EXPECT_EQ(KT4_SWP_FAILURE, kt4SwpQListFlushGroup(l, 4, 0));

    // The receiver sees 99, 101, 103 on queue 0 and 200 on queue 1 (groups 0 and 2 share queue
    // 0), each with its stamp.
    kt4SwpExpSeqList *exp = nullptr;
    ASSERT_EQ(0u, kt4SwpQListCreateExpSeqList(&exp, 2));
    std::vector<uint32_t> got[2];
    unsigned char buf[2048];
    kt4test::eventually(
        [&] {
            int n = recv_within(recvKey_ | KT4_IPC_QUEUE_REQ, buf, sizeof buf, 5);
            if (n > 0 && kt4SwpQListCkSeqAndAck(recvKey_, buf, n, exp, 1) == KT4_SWP_SEQ_MATCH) {
                uint32_t q = load_be32(buf + KT4_SWP_QLIST_QIDX_OFF);
                uint32_t g = load_be32(buf + KT4_SWP_QLIST_GRP_OFF);
                EXPECT_EQ(h[g], l->queues[q].handle);
                // The 136-byte message carries no payload: its length names it.
                got[q & 1].push_back(n == 136 ? 99 : load_be32(buf + KT4_SWP_QLIST_MSG_MIN));
            }
            int a = recv_within(key_ | KT4_IPC_QUEUE_RSP, buf, sizeof buf, 0);
            if (a > 0) kt4SwpProcMsg(buf, a);
            return kt4SwpQListGetLen(l) == 0;
        },
        5000);
    EXPECT_EQ((std::vector<uint32_t>{99, 101, 103}), got[0]);
    EXPECT_EQ((std::vector<uint32_t>{200}), got[1]);

    // Adding a group again moves it without taking it off its old queue's count.
    ASSERT_EQ(0u, kt4SWPQListRemoveMsgGroup(l, 3)); // queue 1: 1 group
    said = kt4test::stdout_of([&] { ASSERT_EQ(0u, kt4SWPQListAddMsgGroup(l, 0)); });
    EXPECT_EQ("", said); // the switch is off again
    EXPECT_EQ(1u, l->groupMap[0]);
    EXPECT_EQ(2u, l->queues[0].groups);
    EXPECT_EQ(2u, l->queues[1].groups);
    EXPECT_EQ(0u, kt4SwpQListFlush(l));
    EXPECT_EQ(0u, kt4SwpQListRemoveExpSeqList(exp));
    EXPECT_EQ(0u, kt4SwpQListRemove(l));
}

TEST_F(SwpLocal, ReceivingStreamRestoresOrderAndRepeatsALostAcknowledgement) {
    uint32_t h = 0;
    ASSERT_EQ(0u, kt4MwpQueueCreate_p(0, 0, 500, 5, sendSvc_, 0, key_, recvSvc_, 0, 7000, nullptr,
                                      nullptr, count_free, record_cb, 4, &h));
    std::vector<uint32_t> delivered;
    kt4SwpRx *rx = kt4SwpRxCreate(
        recvKey_, 16,
        [](void *arg, const void *msg, int) {
            static_cast<std::vector<uint32_t> *>(arg)->push_back(payload_of(msg));
        },
        &delivered);
    ASSERT_NE(nullptr, rx);
    for (uint32_t i = 0; i < 4; ++i)
        ASSERT_EQ(0u, kt4SwpEnqueue(h, make_msg(140, i), 140));
    unsigned char buf[512], first[512];
    const int data = recvKey_ | KT4_IPC_QUEUE_REQ, acks = key_ | KT4_IPC_QUEUE_RSP;
    int firstLen = recv_within(data, first, sizeof first, 2000); // 0.0: "lost" for now
    ASSERT_EQ(140, firstLen);
    for (int i = 1; i < 4; ++i) {
        int n = recv_within(data, buf, sizeof buf, 2000);
        ASSERT_EQ(KT4_SWP_FAILURE, kt4SwpRxPut(rx, buf, n)); // early: held
    }
    EXPECT_TRUE(delivered.empty());
    int n = recv_within(acks, buf, sizeof buf, 2000); // one negative acknowledgement
    ASSERT_EQ(KT4_SWP_MT_NACK, kt4IpcHdrGet(buf, KT4_IPC_HDR_MSG_TYPE));
    EXPECT_EQ(0, recv_within(acks, buf, sizeof buf, 20));
    kt4SwpProcMsg(buf, n);
    n = recv_within(data, buf, sizeof buf, 2000); // the head, resent
    ASSERT_EQ(KT4_SWP_SEQ_MATCH, kt4SwpRxPut(rx, buf, n));
    EXPECT_EQ((std::vector<uint32_t>{0, 1, 2, 3}), delivered);
    EXPECT_EQ(0, recv_within(data, buf, sizeof buf, 20)) << "only the head is resent";
    EXPECT_EQ(KT4_SWP_SEQ_ONE_LESS, kt4SwpRxPut(rx, first, firstLen)); // a copy, not a restart
    EXPECT_EQ(4u, delivered.size());
    // Both acknowledgements for the run are lost; the stream says it again once quiet.
    ASSERT_GT(recv_within(acks, buf, sizeof buf, 2000), 0);
    ASSERT_GT(recv_within(acks, buf, sizeof buf, 2000), 0);
    EXPECT_TRUE(kt4test::eventually([&] { return kt4SwpRxPoll(rx, 1) == 1; }, 1000));
    n = recv_within(acks, buf, sizeof buf, 2000);
    ASSERT_EQ(KT4_SWP_MT_ACK, kt4IpcHdrGet(buf, KT4_IPC_HDR_MSG_TYPE));
    EXPECT_EQ(0u, kt4SwpProcMsg(buf, n));
    kt4SwpQueueStatus s{};
    ASSERT_EQ(0u, kt4SwpGetQueueStatus(h, &s));
    EXPECT_EQ(0u, s.curLen);
    EXPECT_EQ(1u, s.retrans);
    EXPECT_EQ(0u, s.timeouts);
    kt4SwpRxDestroy(rx);
    EXPECT_EQ(0u, kt4SwpQueueRemove(h));
}

TEST_F(SwpLocal, TimerQueueVariantTakesItsAcknowledgementsOnTheTimerQueue) {
    ASSERT_GT(kt4IpcTmrOpen(sendSvc_, 0), 0);
    uint32_t h = 0;
    ASSERT_EQ(0u, kt4SwpQueueCreateTmrQAck_p(0, 0, 500, 3, sendSvc_, 0, key_, recvSvc_, 0, 7000,
                                             nullptr, nullptr, count_free, record_cb, &h));
    EXPECT_EQ(KT4_SWP_SUCCESS, kt4SwpReprogramTimeout(h, 750));
    EXPECT_EQ(KT4_SWP_FAILURE, kt4SwpReprogramTimeout(h, 0));
    EXPECT_EQ(KT4_SWP_FAILURE, kt4SwpReprogramTimeout(0, 750));
    const std::string dump = kt4test::stdout_of([&] { kt4SwpPrintq(h); });
    EXPECT_NE(dump.find("timeout int       = 750\n"), std::string::npos) << dump;
    ASSERT_EQ(0u, kt4SwpEnqueue(h, make_msg(130, 1), 130));
    unsigned char buf[512];
    int n = recv_within(recvKey_ | KT4_IPC_QUEUE_REQ, buf, sizeof buf, 2000);
    ASSERT_EQ(130, n);
    EXPECT_EQ(static_cast<uint32_t>(key_ | KT4_IPC_QUEUE_TMR),
              kt4IpcHdrGet(buf, KT4_IPC_HDR_SRC_QID));
    kt4SwpSeqNo exp{0, 0};
    EXPECT_EQ(KT4_SWP_SEQ_MATCH, kt4SwpCkSeqAndAck(recvKey_, buf, n, &exp, 1));
    int a = recv_within(key_ | KT4_IPC_QUEUE_TMR, buf, sizeof buf, 2000);
    ASSERT_EQ(KT4_SWP_ACK_LEN, a);
    unsigned char stale[KT4_SWP_ACK_LEN];
    std::memcpy(stale, buf, sizeof stale);
    EXPECT_EQ(0u, kt4SwpProcMsg(buf, a));
    EXPECT_EQ(1, g_freed.load());
    EXPECT_EQ(0u, kt4SwpQueueRemove(h));

    // The removed queue's acknowledgement reaching a new queue under its handle (a process
    // started again, the block reused) is not the new queue's: dropped, nothing dequeued.
    // Neither is one naming as next expected a number the queue has not sent.
    ASSERT_EQ(0u, kt4SwpQueueCreateTmrQAck_p(0, 0, 500, 3, sendSvc_, 0, key_, recvSvc_, 0, 7000,
                                             nullptr, nullptr, count_free, record_cb, &h));
    store_be32(stale + KT4_SWP_ACK_HANDLE, h);
    ASSERT_EQ(0u, kt4SwpEnqueue(h, make_msg(130, 2), 130));
    n = recv_within(recvKey_ | KT4_IPC_QUEUE_REQ, buf, sizeof buf, 2000);
    ASSERT_EQ(130, n);
    EXPECT_EQ(KT4_SWP_FAILURE_ACK, kt4SwpProcMsg(stale, sizeof stale));
    std::memcpy(stale + KT4_SWP_ACK_DATA_SENT, buf + KT4_SWP_HDR_OFF + 4 * KT4_SWP_W_TIME_SEC, 8);
    store_be32(stale + KT4_SWP_ACK_NEXT + 4, 5);
    EXPECT_EQ(KT4_SWP_FAILURE_ACK, kt4SwpProcMsg(stale, sizeof stale));
    kt4SwpQueueStatus s{};
    ASSERT_EQ(0u, kt4SwpGetQueueStatus(h, &s));
    EXPECT_EQ(1u, s.curLen);
    exp = {0, 0};
    EXPECT_EQ(KT4_SWP_SEQ_MATCH, kt4SwpCkSeqAndAck(recvKey_, buf, n, &exp, 1));
    a = recv_within(key_ | KT4_IPC_QUEUE_TMR, buf, sizeof buf, 2000);
    EXPECT_EQ(0u, kt4SwpProcMsg(buf, a)) << "its own acknowledgement is taken";
    EXPECT_EQ(2, g_freed.load());
    EXPECT_EQ(0u, kt4SwpQueueRemove(h));
}

TEST_F(SwpLocal, IclQueueTravelsTheLinkCountsItDownAndTakesItsAcknowledgementsBack) {
    const uint32_t addr = kt4IpcGetLocalCpuIpAddr();
    const uint16_t portA = static_cast<uint16_t>(40000 + (getpid() % 10000)), portB = portA + 1;
    kt4SwpIclUdp *near = kt4SwpIclUdpOpen(addr, portA, addr, portB);
    kt4SwpIclUdp *far = kt4SwpIclUdpOpen(addr, portB, addr, portA);
    ASSERT_NE(nullptr, near);
    ASSERT_NE(nullptr, far);
    kt4SwpIclRegister(kt4SwpIclUdpOps(), near);
    static std::atomic<int> downs;
    downs = 0;
    kt4SwpIclSetLinkCallback([](void *, int up) { downs += up == 0; }, nullptr);

    uint32_t h = 0;
    ASSERT_EQ(0u, kt4MwpIclQueueCreate(0, 0, 500, 5, sendSvc_, 0, key_, recvSvc_, 0, 7000, nullptr,
                                       nullptr, count_free, record_cb, 2, &h));
    auto icl_msg = [](uint32_t n) {
        auto *m = static_cast<unsigned char *>(make_msg(140, n));
        m[24] = 0;
        m[25] = 28; // ICL header length; the SWP header follows it
        return m;
    };
    ASSERT_EQ(0u, kt4SwpEnqueue(h, icl_msg(7), 140));
    unsigned char pdu[2048];
    int n = kt4SwpIclUdpRecv(far, pdu, sizeof pdu, 2000);
    ASSERT_EQ(140, n);
    kt4SwpSeqNo exp{0, 0};
    ASSERT_EQ(KT4_SWP_SEQ_MATCH, kt4SwpCkSeqNo(pdu, n, &exp));
    // The acknowledgement goes out over the (only) registered link and is handed back here.
    ASSERT_EQ(0u, kt4SwpReceiverAck(-1, pdu, n, &exp, 0));
    unsigned char ack[256];
    int a = kt4SwpIclUdpRecv(far, ack, sizeof ack, 2000);
    ASSERT_EQ(KT4_SWP_ACK_LEN, a);
    EXPECT_EQ(0u, kt4SwpProcAck(ack, a));
    EXPECT_EQ(1, g_freed.load());

    // Link down: the message is held, the failure counted; acknowledging fails with 11.
    kt4SwpIclUdpSetLink(near, 0);
    EXPECT_EQ(1, downs.load());
    ASSERT_EQ(0u, kt4SwpEnqueue(h, icl_msg(8), 140));
    kt4SwpQueueStatus s{};
    ASSERT_EQ(0u, kt4SwpGetQueueStatus(h, &s));
    EXPECT_EQ(1u, s.iclSendFails);
    EXPECT_EQ(1u, s.curLen);
    EXPECT_EQ(KT4_SWP_FAILURE_SEND_RECEIVER, kt4SwpReceiverAck(-1, pdu, n, &exp, 0));
    // Back up: the timer's event (made here rather than waited for) resends it.
    kt4SwpIclUdpSetLink(near, 1);
    unsigned char ev[KT4_SWP_TMR_LEN] = {};
    store_be32(ev + KT4_SWP_TMR_HANDLE, h);
    store_be32(ev + KT4_SWP_TMR_SEQ + 4, 1); // head 0.1
    EXPECT_EQ(0u, kt4SwpTimeout(ev, sizeof ev));
    n = kt4SwpIclUdpRecv(far, pdu, sizeof pdu, 2000);
    ASSERT_EQ(140, n);
    ASSERT_EQ(0u, kt4SwpGetQueueStatus(h, &s));
    EXPECT_EQ(1u, s.retrans);
    EXPECT_EQ(1u, s.timeouts);
    // An event the queue no longer expects (the head went, nothing is pending).
    ASSERT_EQ(KT4_SWP_SEQ_MATCH, kt4SwpCkSeqNo(pdu, n, &exp));
    ASSERT_EQ(0u, kt4SwpReceiverAck(-1, pdu, n, &exp, 0));
    a = kt4SwpIclUdpRecv(far, ack, sizeof ack, 2000);
    EXPECT_EQ(0u, kt4SwpProcAck(ack, a));
    EXPECT_EQ(KT4_SWP_FAILURE_NO_TIMEOUTS, kt4SwpTimeout(ev, sizeof ev));

    EXPECT_EQ(0u, kt4SwpQueueRemove(h));
    EXPECT_EQ(KT4_SWP_FAILURE, kt4SwpProcAck(ack, a)); // for a removed queue: dropped
    kt4SwpIclUdpClose(far);
    kt4SwpIclUdpClose(near);
    kt4SwpIclSetLinkCallback(nullptr, nullptr);
}

} // namespace
