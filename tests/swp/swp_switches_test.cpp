// What an operator changes on a live queue or list: the timeout, and the queue-list info
// switch with its progress texts (each begins with the function's own name).
#include "swp_test_util.h"

namespace {

using namespace swptest;

TEST(SwpSwitches, ReprogrammedTimeoutAndTheListInfoTexts) {
    card_up();
    const int sendSvc = fresh_service(), recvSvc = fresh_service();
    const int key = kt4IpcOpen(sendSvc, 0), recvKey = kt4IpcOpen(recvSvc, 0);
    ASSERT_GT(key, 0);
    ASSERT_GT(recvKey, 0);

    uint32_t h = 0;
    ASSERT_EQ(0u, kt4SwpQueueCreate(0, 8, 500, 5, sendSvc, 0, key, recvSvc, 0, 7000, record_cb, &h));
    EXPECT_EQ(KT4_SWP_SUCCESS, kt4SwpReprogramTimeout(h, 750));
    EXPECT_EQ(KT4_SWP_FAILURE, kt4SwpReprogramTimeout(h, 0));
    EXPECT_EQ(KT4_SWP_FAILURE, kt4SwpReprogramTimeout(0, 750));
    const std::string dump = kt4test::stdout_of([&] { kt4SwpPrintq(h); });
    EXPECT_NE(dump.find("timeout int       = 750\n"), std::string::npos) << dump;
    EXPECT_EQ(KT4_SWP_SUCCESS, kt4SwpQueueRemove(h));

    kt4SwpQList *l = nullptr;
    auto create = [&] {
        return kt4SwpQListCreate(0, 0, 500, 5, sendSvc, 0, key, recvSvc, 0, 7000, nullptr, nullptr,
                                 count_free, record_cb, 1, &l, 2, 4);
    };
    swp_qlist_info_dbg = 1;
    std::string said = kt4test::stdout_of([&] {
        ASSERT_EQ(0u, create());
        ASSERT_EQ(0u, kt4SWPQListAddMsgGroup(l, 3));
    });
    swp_qlist_info_dbg = 0;
    EXPECT_NE(said.find("kt4SwpQListCreate:Num Qs= 2 and num Grps= 4\r\n"), std::string::npos)
        << said;
    EXPECT_NE(said.find(": Group 3 is Assigned to Queue 0 \r\n"), std::string::npos) << said;
    // Switched off, the same calls say nothing.
    said = kt4test::stdout_of([&] { EXPECT_EQ(0u, kt4SWPQListAddMsgGroup(l, 2)); });
    EXPECT_EQ(said, "");
    EXPECT_EQ(KT4_SWP_SUCCESS, kt4SwpQListRemove(l));
    kt4IpcClose(recvKey);
    kt4IpcClose(key);
}

} // namespace
