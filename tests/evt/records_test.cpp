// The records as a server receives them: registration, log chunks, notification,
// subscription, audit.
#include "evt/evt_env.h"

#include <future>
#include <unistd.h>

namespace {

using evttest::be32_of;
using evttest::str_of;

std::vector<unsigned char> be(uint32_t v) {
    return {static_cast<unsigned char>(v >> 24), static_cast<unsigned char>(v >> 16),
            static_cast<unsigned char>(v >> 8), static_cast<unsigned char>(v)};
}

TEST(EvtRecords, RegistrationAndALongTextInChunksOfFiveHundred) {
    evttest::card();
    evttest::Server server(24, 0);
    ASSERT_TRUE(server.ok());
    const int k = kt4EvtOpenlog(150, 3);
    ASSERT_NE(k, -1);

    std::vector<unsigned char> reg = server.recv_type(KT4_EVT_MSG_TYPE_LOG, KT4_EVT_SUB_REGISTER);
    ASSERT_EQ(reg.size(), size_t{KT4_EVT_REG_LEN});
    EXPECT_EQ(be32_of(reg, KT4_EVT_OFF_FLAG), KT4_EVT_FLAG_WORD);
    EXPECT_EQ(be32_of(reg, 44), uint32_t{150 << 7 | 3 << 2 | 1});
    EXPECT_EQ(be32_of(reg, KT4_EVT_REG_SERVICE), 150u);
    EXPECT_EQ(be32_of(reg, KT4_EVT_REG_INSTANCE), 3u);

    std::string text;
    for (int i = 0; i < 1001; ++i)
        text += static_cast<char>('a' + i % 26);
    std::vector<char> buf(text.begin(), text.end());
    buf.push_back('\0');
    ASSERT_EQ(kt4EvtLogMsg(k, 5, 42, 77, "TAG", buf.data()), 0);
    std::string joined;
    uint32_t seq = 0;
    const size_t lens[] = {500, 500, 1};
    for (uint32_t i = 0; i < 3; ++i) {
        std::vector<unsigned char> m = server.recv_type(KT4_EVT_MSG_TYPE_LOG, KT4_EVT_SUB_LOG);
        ASSERT_EQ(m.size(), size_t{KT4_EVT_LOG_LEN}) << i;
        EXPECT_EQ(be32_of(m, KT4_EVT_LOG_CHUNKS), 3u << 16 | i);
        EXPECT_EQ(be32_of(m, KT4_EVT_LOG_CHUNKLEN), lens[i]);
        EXPECT_EQ(be32_of(m, KT4_EVT_LOG_LEVEL), 5u);
        EXPECT_EQ(be32_of(m, KT4_EVT_LOG_FACILITY), 42u);
        EXPECT_EQ(be32_of(m, KT4_EVT_LOG_ERROR), 77u);
        EXPECT_EQ(be32_of(m, KT4_EVT_LOG_EVKEY), static_cast<uint32_t>(k));
        EXPECT_EQ(be32_of(m, KT4_EVT_LOG_PID), static_cast<uint32_t>(getpid()));
        EXPECT_EQ(be32_of(m, KT4_EVT_LOG_TEXTLEN), 1001u);
        if (i == 0) seq = be32_of(m, KT4_EVT_LOG_SEQ);
        EXPECT_EQ(be32_of(m, KT4_EVT_LOG_SEQ), seq);
        EXPECT_EQ(str_of(m, KT4_EVT_LOG_TAG, KT4_EVT_LOG_TAG_LEN), "TAG");
        EXPECT_EQ(str_of(m, KT4_EVT_LOG_LABEL, KT4_EVT_LOG_LABEL_LEN),
                  "STKUNIT" + std::to_string(kt4CardSlot()) + "-A");
        EXPECT_EQ(str_of(m, KT4_EVT_LOG_CPU, KT4_EVT_LOG_CPU_LEN), "CP");
        EXPECT_EQ(m[KT4_EVT_LOG_TEXT + lens[i]], 0);
        for (size_t b = KT4_EVT_LOG_TEXT + KT4_EVT_LOG_TEXT_LEN; b < KT4_EVT_LOG_LEN; ++b)
            ASSERT_EQ(m[b], 0) << b;
        joined += str_of(m, KT4_EVT_LOG_TEXT, KT4_EVT_LOG_TEXT_LEN);
    }
    EXPECT_EQ(joined, text);
    EXPECT_TRUE(server.recv(100).empty());

    // An empty text sends nothing.
    char empty[] = "";
    EXPECT_EQ(kt4EvtLogMsg(k, 5, 42, 77, nullptr, empty), 0);
    // Level 24 prints on this card only, once its bit is on.
    char local[] = "console only\n";
    EXPECT_EQ(kt4EvtLogMsg(k, KT4_EVT_LEVEL_CONSOLE, 1, 1, nullptr, local), -1);
    ASSERT_EQ(kt4EvtTurnOnSeverityLevel(k, KT4_EVT_LEVEL_CONSOLE), 0);
    {
        kt4test::CaptureStdout cap;
        EXPECT_EQ(kt4EvtLogMsg(k, KT4_EVT_LEVEL_CONSOLE, 1, 1, nullptr, local), 0);
        EXPECT_EQ(cap.text(), "console only\n");
    }
    EXPECT_TRUE(server.recv(100).empty());

    // A text is cut at 2047 characters, in the caller's buffer too; the syslog form carries
    // the key's facility and the task's name.
    std::vector<char> longText(3000, 'z');
    longText.back() = '\0';
    ASSERT_EQ(kt4EvtSetSyslog(k, 1, longText.data()), 0);
    EXPECT_EQ(longText[KT4_EVT_MAX_TEXT], '\0');
    for (uint32_t i = 0; i < 5; ++i) {
        std::vector<unsigned char> m = server.recv_type(KT4_EVT_MSG_TYPE_LOG, KT4_EVT_SUB_LOG);
        ASSERT_EQ(m.size(), size_t{KT4_EVT_LOG_LEN});
        EXPECT_EQ(be32_of(m, KT4_EVT_LOG_CHUNKS), 5u << 16 | i);
        EXPECT_EQ(be32_of(m, KT4_EVT_LOG_TEXTLEN), 2047u);
        EXPECT_EQ(be32_of(m, KT4_EVT_LOG_FACILITY), 1u) << "service 150 stands in no row";
        EXPECT_EQ(be32_of(m, KT4_EVT_LOG_CHUNKLEN), i == 4 ? 47u : 500u);
    }
    EXPECT_EQ(kt4EvtCloselog(k), 0);
}

TEST(EvtRecords, NotificationSubscriptionAndAuditAtTheirServers) {
    evttest::card();
    evttest::Server logServer(24, 0);
    evttest::Server handler(30, 0);
    evttest::Server audit(25, 0);
    ASSERT_TRUE(handler.ok() && audit.ok());
    const uint32_t cardIp = kt4IpcGetLocalCpuIpAddr();
    const int k = kt4EvtOpenlog(150, 7);
    ASSERT_NE(k, -1);

    unsigned char block[KT4_EVT_NOTIFY_BLOCK_LEN];
    for (size_t i = 0; i < sizeof block; ++i)
        block[i] = static_cast<unsigned char>(i);
    ASSERT_EQ(kt4EvtNotifyEvtHdlr(k, "LINK_DOWN", 11, 22, 0xABCD, block), 0);
    std::vector<unsigned char> n = handler.recv();
    ASSERT_EQ(n.size(), size_t{KT4_EVT_NOTIFY_LEN});
    EXPECT_EQ(be32_of(n, 12), uint32_t{KT4_EVT_MSG_TYPE_NOTIFY});
    EXPECT_EQ(be32_of(n, 48), static_cast<uint32_t>(kt4SysGetRpmSlotId()));
    EXPECT_EQ(str_of(n, KT4_EVT_NOTIFY_NAME, KT4_EVT_NOTIFY_NAME_LEN), "LINK_DOWN");
    EXPECT_EQ(be32_of(n, KT4_EVT_NOTIFY_WORD1), 11u);
    EXPECT_EQ(be32_of(n, KT4_EVT_NOTIFY_WORD2), 22u);
    EXPECT_EQ(n[KT4_EVT_NOTIFY_FIELD], 0xAB);
    EXPECT_EQ(n[KT4_EVT_NOTIFY_FIELD + 1], 0xCD);
    EXPECT_EQ(n[KT4_EVT_NOTIFY_FLAGS + 1], 1);
    EXPECT_TRUE(std::equal(block, block + sizeof block, n.begin() + KT4_EVT_NOTIFY_BLOCK));
    EXPECT_TRUE(handler.recv(100).empty()) << "one send when the first succeeds";

    // Subscriptions go as guaranteed messages where messaging makes them so: the handler
    // acknowledges them.
    for (uint32_t type : {KT4_EVT_MSG_TYPE_SUBSCRIBE, KT4_EVT_MSG_TYPE_UNSUBSCRIBE}) {
        auto sent = std::async(std::launch::async, [k, type] {
            return type == KT4_EVT_MSG_TYPE_SUBSCRIBE ? kt4EvhSubscribeEvt(k, 139, 0xFFFFFFFFu)
                                                      : kt4EvhUnsubscribeEvt(k, 139, 5);
        });
        std::vector<unsigned char> s = handler.recv();
        handler.ack(s);
        EXPECT_EQ(sent.get(), 0);
        ASSERT_EQ(s.size(), size_t{KT4_EVT_SUB_LEN});
        EXPECT_EQ(be32_of(s, 12), type);
        EXPECT_EQ(be32_of(s, KT4_EVT_SUB_EVKEY), static_cast<uint32_t>(k));
        EXPECT_EQ(be32_of(s, KT4_EVT_SUB_FACILITY), 139u);
        EXPECT_EQ(be32_of(s, KT4_EVT_SUB_ERROR),
                  type == KT4_EVT_MSG_TYPE_SUBSCRIBE ? 0xFFFFFFFFu : 5u);
        EXPECT_EQ(be32_of(s, KT4_EVT_SUB_QID), uint32_t{150 << 7 | 7 << 2 | 1});
        EXPECT_EQ(be32_of(s, KT4_EVT_SUB_PID), static_cast<uint32_t>(getpid()));
    }

    // The audit record, byte for byte. It leaves from the calling task's request queue (its
    // lowest service: 24 here); messaging stamps its header's magic and command byte.
    EXPECT_EQ(kt4SendAuditLog(9, nullptr, "src", "text"), -1);
    const std::string longUser(40, 'u');
    auto sent = std::async(std::launch::async, [&longUser] {
        return kt4SendAuditLog(0x01020304, longUser.c_str(), "cli", "show running-config");
    });
    std::vector<unsigned char> a = audit.recv();
    audit.ack(a);
    EXPECT_EQ(sent.get(), 0);
    ASSERT_EQ(a.size(), size_t{KT4_EVT_AUDIT_LEN});
    // Messaging's own bytes: its command byte and the guaranteed-delivery tag.
    std::fill(a.begin() + 4, a.begin() + 8, 0);
    std::vector<unsigned char> want(KT4_EVT_AUDIT_LEN, 0);
    auto put = [&](size_t off, uint32_t v) {
        auto b = be(v);
        std::copy(b.begin(), b.end(), want.begin() + static_cast<long>(off));
    };
    put(0, KT4_IPC_MAGIC);
    put(8, KT4_EVT_AUDIT_LEN);
    put(12, KT4_EVT_MSG_TYPE_AUDIT);
    put(24, 1);
    put(32, 12);
    put(40, cardIp);
    put(44, 24 << 7 | 1);
    put(52, cardIp);
    put(56, 25 << 7 | 1);
    put(KT4_EVT_AUDIT_CODE, 0x01020304);
    std::fill_n(want.begin() + KT4_EVT_AUDIT_USER, KT4_EVT_AUDIT_USER_LEN - 1, 'u');
    const std::string src = "cli", txt = "show running-config";
    std::copy(src.begin(), src.end(), want.begin() + KT4_EVT_AUDIT_SOURCE);
    std::copy(txt.begin(), txt.end(), want.begin() + KT4_EVT_AUDIT_TEXT);
    EXPECT_EQ(a, want);
    EXPECT_EQ(kt4EvtCloselog(k), 0);
}

} // namespace
