// The records as a server receives them: registration, log chunks, notification, audit. What
// the event-log server reads of each field, subscriptions among them, the server's own test
// checks end to end (tests/evtlogd); here the chunking, the cuts and the record layouts. Then
// system errors: the error table, formatting, the decision table, the invalid key, and the
// library's own sites (assertion, task start-up, memory manager).
#include "evt/evt_env.h"
#include "evtlogd/records.h"
#include "mem/mem_report.h"

#include <atomic>
#include <cerrno>
#include <future>
#include <unistd.h>

namespace {

using evttest::be32_of;
using evttest::str_of;

TEST(EvtRecords, RegistrationConsoleLevelAndALongTextCutIntoChunksOfFiveHundred) {
    evttest::card();
    evttest::Server server(24, 0);
    ASSERT_TRUE(server.ok());
    const int k = kt4EvtOpenlog(150, 3);
    ASSERT_NE(k, -1);

    std::vector<unsigned char> reg = server.recv_type(KT4_EVT_MSG_TYPE_LOG, KT4_EVT_SUB_REGISTER);
    ASSERT_EQ(reg.size(), size_t{KT4_EVT_REG_LEN});
    EXPECT_EQ(be32_of(reg, KT4_EVT_OFF_FLAG), KT4_EVT_FLAG_WORD);
    EXPECT_EQ(be32_of(reg, 44), uint32_t{150 << 7 | 3 << 2 | 1});

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

    // A text is cut at 2047 characters, in the caller's buffer too, and goes in chunks of 500,
    // each NUL-terminated; the syslog form carries the key's facility.
    std::vector<char> longText(3000, 'z');
    longText.back() = '\0';
    ASSERT_EQ(kt4EvtSetSyslog(k, 1, longText.data()), 0);
    EXPECT_EQ(longText[KT4_EVT_MAX_TEXT], '\0');
    std::string joined;
    for (uint32_t i = 0; i < 5; ++i) {
        std::vector<unsigned char> m = server.recv_type(KT4_EVT_MSG_TYPE_LOG, KT4_EVT_SUB_LOG);
        ASSERT_EQ(m.size(), size_t{KT4_EVT_LOG_LEN});
        EXPECT_EQ(be32_of(m, KT4_EVT_LOG_CHUNKS), 5u << 16 | i);
        EXPECT_EQ(be32_of(m, KT4_EVT_LOG_TEXTLEN), 2047u);
        EXPECT_EQ(be32_of(m, KT4_EVT_LOG_FACILITY), 1u) << "service 150 stands in no row";
        EXPECT_EQ(be32_of(m, KT4_EVT_LOG_CHUNKLEN), i == 4 ? 47u : 500u);
        EXPECT_EQ(str_of(m, KT4_EVT_LOG_LABEL, KT4_EVT_LOG_LABEL_LEN),
                  "STKUNIT" + std::to_string(kt4CardSlot()) + "-A");
        // Zero after the chunk's text to the end: nothing of the chunk before it.
        for (size_t b = KT4_EVT_LOG_TEXT + be32_of(m, KT4_EVT_LOG_CHUNKLEN); b < m.size(); ++b)
            ASSERT_EQ(m[b], 0) << b;
        joined += str_of(m, KT4_EVT_LOG_TEXT, KT4_EVT_LOG_TEXT_LEN);
    }
    EXPECT_EQ(joined, std::string(KT4_EVT_MAX_TEXT, 'z'));
    EXPECT_EQ(kt4EvtCloselog(k), 0);
}

TEST(EvtRecords, NotificationAndAuditAtTheirServers) {
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
    EXPECT_EQ(n[KT4_EVT_NOTIFY_FIELD], 0xAB);
    EXPECT_EQ(n[KT4_EVT_NOTIFY_FLAGS + 1], 1);
    EXPECT_TRUE(std::equal(block, block + sizeof block, n.begin() + KT4_EVT_NOTIFY_BLOCK));
    EXPECT_TRUE(handler.recv(100).empty()) << "one send when the first succeeds";

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
    std::vector<unsigned char> want = evtlogdtest::audit(
        0x01020304, std::string(KT4_EVT_AUDIT_USER_LEN - 1, 'u'), "cli", "show running-config",
        {0, cardIp, 24 << 7 | 1}, {0, cardIp, 25 << 7 | 1});
    kt4::store_be32(&want[KT4_EVT_OFF_TASK], 0);
    EXPECT_EQ(a, want);
    EXPECT_EQ(kt4EvtCloselog(k), 0);
}

std::vector<unsigned char> next_log(evttest::Server &s) {
    return s.recv_type(KT4_EVT_MSG_TYPE_LOG, KT4_EVT_SUB_LOG);
}

std::string text_of(const std::vector<unsigned char> &m) {
    return str_of(m, KT4_EVT_LOG_TEXT, KT4_EVT_LOG_TEXT_LEN);
}

const kt4EvtError kAppErrors[] = {
    {7, 4, "DISK_FULL", "disk %s at %d%% (%#06x|%-4hhu|%5.2s) %q %s %d"},
    {8, 2, "LOGIN", "login by %s"},
};

TEST(EvtSysErr, FormatsTheEntryAndFollowsTheDecisionTable) {
    evttest::card();
    evttest::Server server(24, 0);
    const int k = kt4EvtOpenlog(140, 4); // facility 129
    ASSERT_NE(k, -1);
    ASSERT_EQ(kt4EvtAddFacility(129, "APP", kAppErrors, 2), 0);
    EXPECT_EQ(kt4EvtAddFacility(256, "X", kAppErrors, 1), -1);

    char text[80], name[5];
    uint32_t cls = 0;
    ASSERT_EQ(kt4GetEvtErrorInfo(129, 7, text, sizeof text, name, sizeof name, &cls), 0);
    EXPECT_STREQ(text, kAppErrors[0].format);
    EXPECT_STREQ(name, "DISK");
    EXPECT_EQ(cls, 4u);
    EXPECT_EQ(kt4GetEvtErrorInfo(129, 9, text, sizeof text, nullptr, 0, nullptr), -1);

    server.drain();
    kt4EvtArg args[4];
    args[0].s = "sda";
    args[1].i = -93; // %d keeps its sign
    args[2].i = 0xbeef;
    args[3].i = 0x1FF; // %hhu: 255
    ASSERT_EQ(kt4SysErr(k, 7, args, 4), 0);
    std::vector<unsigned char> m = next_log(server);
    ASSERT_EQ(m.size(), size_t{KT4_EVT_LOG_LEN});
    EXPECT_EQ(text_of(m), "disk sda at -93% (0xbeef|255 |) %q  ");
    EXPECT_EQ(be32_of(m, KT4_EVT_LOG_LEVEL), 4u);
    EXPECT_EQ(be32_of(m, KT4_EVT_LOG_FACILITY), 129u);
    EXPECT_EQ(be32_of(m, KT4_EVT_LOG_CLASS), uint32_t{KT4_EVT_CLASS_ERROR});
    EXPECT_EQ(str_of(m, KT4_EVT_LOG_TAG, KT4_EVT_LOG_TAG_LEN), "DISK_FULL");

    // A null string prints "(null)"; the console echo sits behind developer-mask bit 6.
    kt4EvtArg who;
    who.s = nullptr;
    pGlbDevTskMsk[0] |= 1u << 6;
    {
        kt4test::CaptureStdout cap;
        ASSERT_EQ(kt4SysErr(k, 8, &who, 1), 0);
        EXPECT_EQ(cap.text(), "LOGIN: login by (null)");
    }
    pGlbDevTskMsk[0] &= ~(1u << 6);
    EXPECT_EQ(text_of(next_log(server)), "login by (null)");

    // An error without an entry: the default text.
    ASSERT_EQ(kt4SysErr(k, 99, nullptr, 0), 0);
    EXPECT_EQ(text_of(next_log(server)), "default - msg not found\r\n");

    // A level the key's mask leaves out is not sent.
    ASSERT_EQ(kt4EvtSetSeverityLevel(k, 0), 0);
    EXPECT_EQ(kt4SysErr(k, 7, args, 4), 0);
    EXPECT_TRUE(server.recv(150).empty());

    // A security error also goes to the event handler and the audit log when they run.
    evttest::Server handler(30, 0);
    evttest::Server audit(25, 0);
    who.s = "bob";
    auto sent = std::async(std::launch::async, [k, &who] { return kt4SysSecErr(k, 8, &who, 1); });
    m = next_log(server);
    EXPECT_EQ(be32_of(m, KT4_EVT_LOG_CLASS), uint32_t{KT4_EVT_CLASS_SECURITY});
    std::vector<unsigned char> n = handler.recv();
    ASSERT_EQ(n.size(), size_t{KT4_EVT_NOTIFY_LEN});
    EXPECT_EQ(str_of(n, KT4_EVT_NOTIFY_NAME, KT4_EVT_NOTIFY_NAME_LEN), "LOGIN");
    EXPECT_EQ(be32_of(n, KT4_EVT_NOTIFY_WORD1), 129u);
    EXPECT_EQ(be32_of(n, KT4_EVT_NOTIFY_WORD2), 8u);
    std::vector<unsigned char> a = audit.recv();
    audit.ack(a);
    EXPECT_EQ(sent.get(), 0);
    ASSERT_EQ(a.size(), size_t{KT4_EVT_AUDIT_LEN});
    EXPECT_EQ(be32_of(a, KT4_EVT_AUDIT_CODE), 129u << 16 | 8);
    EXPECT_EQ(str_of(a, KT4_EVT_AUDIT_SOURCE, KT4_EVT_AUDIT_SOURCE_LEN), "LOGIN");
    EXPECT_EQ(str_of(a, KT4_EVT_AUDIT_TEXT, KT4_EVT_AUDIT_TEXT_LEN), "login by bob");

    EXPECT_EQ(kt4EvtAddFacility(129, "APP", nullptr, 0), 0);
    EXPECT_EQ(kt4EvtCloselog(k), 0);
}

TEST(EvtSysErr, AnInvalidKeyIsReportedRaisedAndRefused) {
    evttest::card();
    evttest::Server server(24, 0);
    const int k = kt4EvtOpenlog(150, 5);
    ASSERT_NE(k, -1);
    server.drain();
    kt4TracePrintOn();
    kt4test::CaptureStdout cap;
    static std::atomic<int> result; // outlives the test, as the task may
    result = -1;
    auto check = [] { // in a task, so that the report names it
        errno = 0;
        const int rc = kt4EvtGetServiceKey(KT4_EVT_KEY_BASE - 1);
        result = rc == -1 && errno == EINVAL ? 1 : 0;
    };
    ASSERT_NE(kt4test::spawn_task("tEvtBadKey", 100, check), ERROR);
    std::vector<unsigned char> m = next_log(server);
    const std::string output = cap.text();
    kt4TracePrintOff();
    const std::string want = "An invalid EV key is passed for kt4EvtSysErr by task \"tEvtBadKey\"";
    ASSERT_EQ(m.size(), size_t{KT4_EVT_LOG_LEN});
    EXPECT_EQ(text_of(m), want);
    EXPECT_EQ(str_of(m, KT4_EVT_LOG_TAG, KT4_EVT_LOG_TAG_LEN), "INVALID_EVKEY");
    EXPECT_EQ(be32_of(m, KT4_EVT_LOG_EVKEY), static_cast<uint32_t>(k));
    EXPECT_NE(output.find(want), std::string::npos) << output;
    EXPECT_TRUE(kt4test::eventually([] { return result.load() == 1; }));

    // Every key-taking call refuses one past the last the same way; the registry is left as
    // it was.
    const int bad = KT4_EVT_KEY_BASE + KT4_EVT_MAX_KEYS;
    char t[] = "x";
    KT4_EXPECT_ERRNO(EINVAL, -1, kt4EvtLogMsg(bad, 1, 1, 1, nullptr, t));
    EXPECT_EQ(kt4SysErr(bad, 1, nullptr, 0), -1);
    EXPECT_EQ(kt4EvtCloselog(bad), -1);
    EXPECT_EQ(kt4EvtRegisterSvce(bad, 1), -1);
    for (int i = 0; i < 4; ++i)
        EXPECT_EQ(str_of(next_log(server), KT4_EVT_LOG_TAG, KT4_EVT_LOG_TAG_LEN), "INVALID_EVKEY");
    EXPECT_EQ(kt4EvtGetEvKeyFromPid(static_cast<int>(getpid())), k);
    EXPECT_EQ(kt4EvtGetServiceKey(k), 150);
    EXPECT_EQ(kt4EvtCloselog(k), 0);
}

TEST(EvtSysErr, TheLibrarysOwnSitesRaiseThroughAKeyOfTheProcess) {
    evttest::card();
    evttest::Server server(24, 0);
    const int k = kt4EvtOpenlog(150, 6);
    ASSERT_NE(k, -1);
    server.drain();

    _kt4Assert("x == 1", "file.c", 12);
    std::vector<unsigned char> m = next_log(server);
    EXPECT_EQ(str_of(m, KT4_EVT_LOG_TAG, KT4_EVT_LOG_TAG_LEN), "ASSERTION_FAILED");
    EXPECT_NE(text_of(m).find("*** ASSERTION-FAILED *** Expression 'x == 1' at file.c/12"),
              std::string::npos);

    EXPECT_EQ(kt4TaskStartup(5, KT4_TASK_STARTUP_NO_READY), -1); // service 0
    m = next_log(server);
    EXPECT_EQ(str_of(m, KT4_EVT_LOG_TAG, KT4_EVT_LOG_TAG_LEN), "INVALID_TASK_KEY");
    EXPECT_EQ(text_of(m), "Invalid task key 0x5");

    // A task whose endpoint cannot be opened (no record for it in this process).
    std::vector<kt4IpcProcInstRow> rows(KT4_IPC_INST_ROWS);
    for (uint32_t s = 0; s < rows.size(); ++s)
        rows[s] = {s, s == 171 ? 0u : 32u, 0, 0};
    ASSERT_EQ(kt4IpcLoadMaxInstPerProcessTbl(rows.data(), KT4_IPC_INST_ROWS), 0);
    EXPECT_EQ(kt4TaskStartup(kt4GetTaskKeyFromServiceAndInst(171, 0), KT4_TASK_STARTUP_NO_READY),
              -1);
    kt4IpcResetMaxInstPerProcessTbl();
    m = next_log(server);
    EXPECT_EQ(str_of(m, KT4_EVT_LOG_TAG, KT4_EVT_LOG_TAG_LEN), "TASK_STARTUP_FAIL");

    kt4::mem::memSysErr("pool %s: free list broken", "p1");
    m = next_log(server);
    EXPECT_EQ(str_of(m, KT4_EVT_LOG_TAG, KT4_EVT_LOG_TAG_LEN), "MEM_CORRUPTED");
    EXPECT_EQ(text_of(m), "pool p1: free list broken");

    // Without a key in the process the sites keep their trace line only.
    EXPECT_EQ(kt4EvtCloselog(k), 0);
    EXPECT_EQ(kt4EvtRaise("SYS", "ASSERTION_FAILED", "x"), -1);
    _kt4Assert("y == 2", "file.c", 13);
    EXPECT_TRUE(server.recv(150).empty());
}

} // namespace
