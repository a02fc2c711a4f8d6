// The configuration client against endpoints of this process standing for the two daemons
// (service 15 and service 324): the bytes each call puts on the wire, the mirror and its
// result rule, and the calls that must send nothing.
#include <kt4/cfg.h>
#include <kt4/hostsim.h>
#include <kt4/ipc.h>
#include <kt4/log.h>

#include "common/kt4_be.h"
#include "support/kt4_test_env.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <string>
#include <vector>

namespace {

using Bytes = std::vector<unsigned char>;
constexpr int kClient = 200;

uint32_t u32(const Bytes &m, size_t at) {
    return kt4::load_be32(&m.at(at + 3) - 3);
}
std::string text_at(const Bytes &m, size_t at) {
    return std::string(reinterpret_cast<const char *>(m.data() + at));
}

kt4CfgRecord record(uint32_t context, const std::string &key, const std::string &line) {
    kt4CfgRecord r{};
    r.context = context;
    std::memcpy(r.keyData, key.data(), key.size());
    r.keyLen = static_cast<uint32_t>(key.size());
    std::snprintf(r.cmdLine, sizeof r.cmdLine, "%s", line.c_str());
    return r;
}

class CfgClient : public ::testing::Test {
  protected:
    static void SetUpTestSuite() {
        ASSERT_TRUE(kt4test::Card::get().up());
        // Plain sends: this thread reads the daemons' queues itself, after the call returns,
        // so nobody would acknowledge a guaranteed send in time.
        kt4IpcGuaranteedEnDis(0);
        client = kt4IpcOpen(kClient, 0);
        daemon = kt4IpcOpen(KT4_CFG_SERVICE, 0);
        sync = kt4IpcOpen(KT4_CFG_SYNC_SERVICE, 0);
        ASSERT_GT(client, 0);
        ASSERT_GT(daemon, 0);
        ASSERT_GT(sync, 0);
    }
    void TearDown() override {
        kt4CardSetPrimaryRpm(1);
        while (!take(daemon).empty() || !take(sync).empty()) {
        }
    }

    // The next message waiting at an endpoint's request queue, or empty. Loopback delivers
    // within the sender's call, so what is not there after a call was never sent.
    static Bytes take(int key) {
        if (kt4IpcGetNumMsgs(Key_getReqQueue(key)) <= 0) return {};
        Bytes b(KT4_CFG_8K_MSG);
        const int n =
            kt4IpcRecv(Key_getReqQueue(key), b.data(), static_cast<int>(b.size()), 1, 0, 0);
        if (n < 0) return {};
        b.resize(static_cast<size_t>(n));
        return b;
    }
    static bool idle(int key) { return kt4IpcGetNumMsgs(Key_getReqQueue(key)) == 0; }

    static inline int client = 0, daemon = 0, sync = 0;
};

TEST_F(CfgClient, ChangesGoToTheDaemonAndTheirMirror) {
    const std::string key("ab\0c", 4);
    const std::string line = "ip address 10.0.0.1/24\tsecondary";
    kt4CfgRecord r = record(7, key, line);
    EXPECT_EQ(kt4CfgSetCommCfgData(&r, 0), -1);
    EXPECT_EQ(r.commCfgData, 0u);
    ASSERT_EQ(kt4CfgSetCommCfgData(&r, 2), 0);
    EXPECT_EQ(r.commCfgData, 1u);

    ASSERT_EQ(kt4CfgInsert(client, &r), 0);
    const Bytes m = take(daemon);
    const uint32_t body = 4 + static_cast<uint32_t>(line.size()) + 21;
    ASSERT_EQ(m.size(), 80 + body);
    EXPECT_EQ(u32(m, 8), 80 + body);
    EXPECT_EQ(u32(m, 12), 2801u);
    EXPECT_EQ(u32(m, 44), static_cast<uint32_t>(kt4_getQueueId(kClient, 0, 1)));
    EXPECT_EQ(u32(m, 56), 15u << 7 | 1);
    EXPECT_EQ(u32(m, 60), 100u);
    EXPECT_EQ(u32(m, 76), body);
    EXPECT_EQ(u32(m, 80), 7u);
    EXPECT_EQ(u32(m, 84), 1u);
    EXPECT_EQ(u32(m, 88), 4u);
    EXPECT_EQ(u32(m, 92), line.size());
    EXPECT_EQ(std::string(reinterpret_cast<const char *>(&m[96]), 4), key);
    EXPECT_EQ(text_at(m, 100), line);
    EXPECT_EQ(u32(m, 101 + line.size()), static_cast<uint32_t>(client)); // the extra word

    const Bytes s = take(sync);
    ASSERT_EQ(s.size(), m.size());
    EXPECT_EQ(u32(s, 12), 42403u);
    EXPECT_EQ(u32(s, 56), 324u << 7 | 1);
    EXPECT_EQ(u32(s, 60), 100u);
    EXPECT_TRUE(std::equal(m.begin() + 76, m.end(), s.begin() + 76));

    // Both lines: code 119 to the daemon, mirrored as an insert with the same body.
    kt4CfgBothLineRecord b{};
    b.context = 1;
    b.keyLen = 2;
    std::strcpy(b.cmdLine, "interface gi 0/1");
    std::strcpy(b.cmdLine2, "no shutdown");
    ASSERT_EQ(kt4CfgInsertBothLine(client, &b), 0);
    const Bytes d = take(daemon), ds = take(sync);
    EXPECT_EQ(u32(d, 60), 119u);
    EXPECT_EQ(u32(ds, 60), 100u);
    EXPECT_TRUE(std::equal(d.begin() + 76, d.end(), ds.begin() + 76));
}

TEST_F(CfgClient, InsertSucceedsOnlyWithTheDaemonAndTakesTheMirrorsResult) {
    kt4CfgRecord r = record(2, "k", "hostname a");
    ASSERT_EQ(kt4IpcClose(sync), 0);
    EXPECT_EQ(kt4CfgInsert(client, &r), -1); // the daemon has it; the mirror failed
    EXPECT_FALSE(take(daemon).empty());
    sync = kt4IpcOpen(KT4_CFG_SYNC_SERVICE, 0);
    ASSERT_GT(sync, 0);

    ASSERT_EQ(kt4IpcClose(daemon), 0);
    EXPECT_EQ(kt4CfgInsert(client, &r), -1);
    EXPECT_TRUE(idle(sync)); // no mirror of a change the daemon never got
    daemon = kt4IpcOpen(KT4_CFG_SERVICE, 0);
    ASSERT_GT(daemon, 0);
    EXPECT_EQ(kt4CfgInsert(client, &r), 0);
}

TEST_F(CfgClient, RefusedLinesKeysAndPasswordKeysSendNothing) {
    for (const char *ok : {"", "a\tb\r\n"})
        EXPECT_TRUE(kt4isValidTextString(ok)) << ok;
    for (const char *bad : {"bell\a", "del\x7f", "caf\xc3\xa9"})
        EXPECT_FALSE(kt4isValidTextString(bad)) << bad;
    EXPECT_FALSE(kt4isValidTextString(nullptr));

    kt4TracePrintOn();
    kt4SetModuleTraceFlag(6, 1);
    std::string out = kt4test::stdout_of([&] {
        kt4CfgRecord bad = record(1, "k", "no\x01pe");
        EXPECT_EQ(kt4CfgInsert(client, &bad), -1);
        kt4CfgRecord longLine = record(1, "k", std::string(281, 'x'));
        EXPECT_EQ(kt4CfgInsert(client, &longLine), -1);
        kt4CfgRecord unterminated = record(1, "k", "");
        std::memset(unterminated.cmdLine, 'x', sizeof unterminated.cmdLine);
        EXPECT_EQ(kt4CfgRemoveExact(client, &unterminated), -1);
        kt4CfgRecord longKey = record(1, "k", "ok");
        longKey.keyLen = 257;
        EXPECT_EQ(kt4CfgInsert(client, &longKey), -1);
        EXPECT_EQ(kt4CfgGetExact(client, &longKey), -1);

        kt4CfgRecord pw = record(9, std::string(51, 'p'), "");
        EXPECT_EQ(kt4RegisterPassword(client, &pw, 1, 2, 3), -1);
        EXPECT_EQ(kt4UnRegisterPassword(client, &pw, 2), -1);
    });
    kt4SetModuleTraceFlag(6, 0);
    kt4TracePrintOff();
    EXPECT_NE(out.find("In kt4CfgInsert :Invalid characters in the cmdStr [no\x01pe]."),
              std::string::npos)
        << out;
    EXPECT_TRUE(idle(daemon));
    EXPECT_TRUE(idle(sync));

    // 50 bytes go, in the 72-byte body; unregistering carries zeros for A and C.
    kt4CfgRecord pw = record(9, std::string(50, 'p'), "");
    ASSERT_EQ(kt4RegisterPassword(client, &pw, 0xA, 0xB, 0xC), 0);
    Bytes m = take(daemon);
    ASSERT_EQ(m.size(), 80u + 72);
    EXPECT_EQ(u32(m, 80 + 56), 50u);
    EXPECT_EQ(u32(m, 80 + 64), 0xAu);
    ASSERT_EQ(kt4UnRegisterPassword(client, &pw, 0xB), 0);
    EXPECT_EQ(u32(take(daemon), 80 + 64), 0u);
    ASSERT_EQ(kt4CheckEnablePasswordService(client), 0);
    EXPECT_EQ(u32(take(daemon), 60), 205u);
    EXPECT_TRUE(idle(sync)); // passwords are not mirrored
}

TEST_F(CfgClient, SyncGoesFromThePrimaryOnlyWithinItsLimits) {
    kt4CfgSyncRecord s{1, 2, 60, 3, 77, "ifm", "interface gi 0/1", "x"};
    kt4CfgBndl bundle;
    kt4CfgBndlInit(&bundle);
    kt4CardSetPrimaryRpm(0);
    EXPECT_EQ(kt4CfgSync(client, &s), 0);
    EXPECT_EQ(kt4CfgSyncBndl(client, &bundle), 0);
    EXPECT_TRUE(idle(daemon));

    kt4CardSetPrimaryRpm(1);
    ASSERT_EQ(kt4CfgSync(client, &s), 0);
    EXPECT_EQ(u32(take(daemon), 60), 118u);
    EXPECT_TRUE(idle(sync));

    const std::string tooLong(281, 'c'), longName(256, 's');
    kt4CfgSyncRecord bad = s;
    bad.cmdLine = tooLong.c_str();
    EXPECT_EQ(kt4CfgSync(client, &bad), -1);
    bad = s;
    bad.subSysName = longName.c_str();
    EXPECT_EQ(kt4CfgSync(client, &bad), -1);
    EXPECT_TRUE(idle(daemon));
}

TEST_F(CfgClient, BundlesTakeTheLargePathAndStopWhenFullAndOversizedBodiesAreRefused) {
    Bytes big(8113);
    EXPECT_EQ(cfgIpcSendWait(client, 105, big.data(), 8113, nullptr), -1);
    EXPECT_EQ(cfgIpcSend(client, 103, big.data(), 945), -1);
    EXPECT_TRUE(idle(daemon));

    kt4CfgBndl b;
    kt4CfgBndlInit(&b);
    kt4CfgRecord r = record(5, "key", "vlan 10");
    ASSERT_EQ(kt4CfgBndlAdd(&b, 100, &r), 0);
    ASSERT_EQ(kt4CfgBndlAdd(&b, 102, &r), 0);
    EXPECT_EQ(kt4CfgBndlAdd(&b, 105, &r), -1);
    ASSERT_EQ(kt4CfgInsertBndl(client, &b), 0); // its body is read by cfgd's tests
    Bytes m = take(daemon);
    ASSERT_EQ(m.size(), 80 + b.len);
    EXPECT_EQ(u32(m, 60), 132u);

    int added = 2;
    while (kt4CfgBndlAdd(&b, 100, &r) == 0)
        ++added;
    EXPECT_EQ(errno, ENOSPC);
    EXPECT_LE(b.len, uint32_t{KT4_CFG_BNDL_MAX});
    ASSERT_EQ(kt4CfgSyncBndl(client, &b), 0);
    m = take(daemon);
    ASSERT_GT(m.size(), size_t{KT4_CFG_ONEWAY_MSG});
    EXPECT_EQ(u32(m, 60), 133u);
    EXPECT_EQ(u32(m, 80), static_cast<uint32_t>(added));
    EXPECT_TRUE(idle(sync));
}

TEST_F(CfgClient, DescriptionAndConfigurationSyncLines) {
    // A module that is not synchronised, and a description line as configuration: not sent.
    EXPECT_EQ(kt4CfgSendConfSyncForModuleDesc(client, 99, 5, "x"), 0);
    kt4CfgRecord desc = record(KT4_CFG_CONTEXT_DESC, "k", "description x");
    EXPECT_EQ(kt4CfgSendConfSyncForCfg(client, &desc), -1);
    EXPECT_TRUE(idle(sync));
    ASSERT_EQ(kt4CfgSendConfSyncForModuleDesc(client, 220, 5, "to core"), 0);
    Bytes m = take(sync);
    EXPECT_EQ(u32(m, 60), 100u);
    EXPECT_EQ(u32(m, 80), 60u);
    EXPECT_EQ(text_at(m, 104), "description to core");

    kt4CfgRecord r = record(4, "k", "mtu 9000");
    ASSERT_EQ(kt4CfgSendConfSyncForCfg(client, &r), 0);
    m = take(sync);
    EXPECT_EQ(u32(m, 84), 1u); // common data
    EXPECT_TRUE(idle(daemon));
}

TEST(CfgObfuscate, MasksEncryptedSecretsAndLeavesTheRestAlone) {
    struct Case {
        const char *in, *out;
        int masked;
    } cases[] = {
        {"username admin password 7 0822455D0A16", "username admin password 7 ************", 1},
        {"enable secret 5 $1$abc$xyz", "enable secret 5 **********", 1},
        {"key 7 abc\r\n", "key 7 ***\r\n", 1},
        {"ip ospf authentication-key 7 ab secret 5 cd",
         "ip ospf authentication-key 7 ** secret 5 **", 2},
        {"username admin password 0 plain", "username admin password 0 plain", 0},
        {"keychain 7 abc", "keychain 7 abc", 0},
        {"monkey 7 abc", "monkey 7 abc", 0},
        {"password 7", "password 7", 0},
        {"password 7 ", "password 7 ", 0},
        {"password 70 abc", "password 70 abc", 0},
        {"description no password here", "description no password here", 0},
    };
    for (const Case &c : cases) {
        char line[128];
        std::strcpy(line, c.in);
        EXPECT_EQ(kt4CfgObfuscateEncryptedPasswords(line), c.masked) << c.in;
        EXPECT_STREQ(line, c.out);
    }
    EXPECT_EQ(kt4CfgObfuscateEncryptedPasswords(nullptr), 0);
}

} // namespace
