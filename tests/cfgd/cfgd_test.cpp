// cfgd as a card runs it: the configuration daemon and the synchronisation daemon as processes
// of the test's card, reached through the client over real sockets.
#include <kt4/cfg.h>
#include <kt4/ifm.h>
#include <kt4/ipc.h>
#include <kt4/tme.h>

#include "common/kt4_be.h"
#include "support/kt4_test_env.h"

#include <gtest/gtest.h>

#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <map>
#include <cstring>
#include <memory>
#include <set>
#include <string>
#include <vector>

namespace {

using Bytes = std::vector<unsigned char>;
using kt4test::Card;
using kt4test::Process;
constexpr int kClient = 200;

std::string be(uint32_t v) {
    unsigned char b[4];
    kt4::store_be32(b, v);
    return std::string(reinterpret_cast<char *>(b), 4);
}

kt4CfgRecord record(uint32_t context, const std::string &key, const std::string &line) {
    kt4CfgRecord r{};
    r.context = context;
    std::memcpy(r.keyData, key.data(), key.size());
    r.keyLen = static_cast<uint32_t>(key.size());
    std::snprintf(r.cmdLine, sizeof r.cmdLine, "%s", line.c_str());
    return r;
}

std::string key_of(const kt4CfgRecord &r) {
    return std::string(reinterpret_cast<const char *>(r.keyData), r.keyLen);
}

// A change body as the daemon reads it, for requests made by hand.
Bytes change_body(uint32_t context, const std::string &key, const std::string &line) {
    Bytes b(16 + key.size() + line.size() + 1 + 4);
    kt4::store_be32(&b[0], context);
    kt4::store_be32(&b[8], static_cast<uint32_t>(key.size()));
    kt4::store_be32(&b[12], static_cast<uint32_t>(line.size()));
    std::memcpy(&b[16], key.data(), key.size());
    std::memcpy(&b[16 + key.size()], line.c_str(), line.size() + 1);
    return b;
}

class Cfgd : public ::testing::Test {
  protected:
    static void SetUpTestSuite() {
        ASSERT_TRUE(Card::get().up());
        client = kt4IpcOpen(kClient, 0);
        ASSERT_GT(client, 0);
    }
    void SetUp() override {
        // Every test starts from empty databases, also when one process runs them all.
        for (const char *f : {"cfgd.db", "cfgsync.db", "fresh.db", "other.db", "bad.db",
                              "cfgd-config.txt", "cfgd-sync-config.txt"})
            for (const char *tail : {"", "-wal", "-shm", "-journal"}) // a log left beside a
                unlink((db(f) + tail).c_str());                       // database replays into it
        daemon_ = start({"--db", db("cfgd.db")});
        sync_ = start({"--sync"});
    }
    void TearDown() override {
        stop(daemon_);
        stop(sync_);
    }

    static std::string db(const std::string &name) { return Card::get().root() + "/" + name; }

    // A daemon that has opened its endpoint (and so is registered on the card).
    static std::unique_ptr<Process> start(std::vector<std::string> args) {
        args.insert(args.begin(), KT4_CFGD);
        auto p = std::make_unique<Process>(args);
        EXPECT_TRUE(p->wait_for("instance 0, database")) << p->text();
        return p;
    }
    // Stops a daemon with SIGTERM: its last words.
    static std::string stop(std::unique_ptr<Process> &p) {
        if (!p) return "";
        kill(p->pid(), SIGTERM);
        EXPECT_TRUE(p->wait_for("cfgd: stopped")) << p->text();
        EXPECT_EQ(p->finish(), 0);
        std::string text = p->text();
        p.reset();
        return text;
    }
    static std::string dump(const std::string &path) {
        std::string out;
        kt4test::run_program({KT4_CFGD, "--dump", "--db", path}, {}, &out);
        return out;
    }
    // Sends a hand-made request and waits: the reply's status, or -1.
    static int ask(Bytes msg, uint32_t command, uint32_t msgType = KT4_CFG_MSG_TYPE) {
        const uint32_t reply = kClient + 2801;
        kt4IpcHdrSet(msg.data(), KT4_IPC_HDR_TRANSACTION, reply);
        kt4IpcHdrSet(msg.data(), KT4_IPC_HDR_TGT_ADDR, kt4IpcGetLocalCpuIpAddr());
        kt4IpcHdrSet(msg.data(), KT4_IPC_HDR_TGT_QID, kt4_getQueueId(KT4_CFG_SERVICE, 0, 1));
        kt4::store_be32(&msg[60], command);
        const int n =
            kt4IpcSendWait(client, msg.data(), static_cast<int>(msg.size()), 10, msgType, reply);
        return n < 68 ? -1 : static_cast<int>(kt4::load_be32(&msg[64]));
    }

    static inline int client = 0;
    std::unique_ptr<Process> daemon_, sync_;
};

TEST_F(Cfgd, ChangesReadsShowAndTheMirror) {
    const kt4CfgRecord recs[] = {record(5, "a", "hostname a"), record(5, "ab", "ip route x"),
                                 record(5, "b", "username u password 7 0822455D"),
                                 record(6, "a", "other context")};
    for (kt4CfgRecord r : recs)
        ASSERT_EQ(kt4CfgInsert(client, &r), 0);
    kt4CfgBothLineRecord both{};
    both.context = 5;
    both.keyData[0] = 'c';
    both.keyLen = 1;
    std::strcpy(both.cmdLine, "interface gi 0/1");
    std::strcpy(both.cmdLine2, " no shutdown");
    ASSERT_EQ(kt4CfgInsertBothLine(client, &both), 0);

    kt4CfgRecord r = record(5, "b", "");
    ASSERT_EQ(kt4CfgGetExact(client, &r), KT4_CFG_ST_OK);
    EXPECT_STREQ(r.cmdLine, "username u password 7 0822455D"); // stored as it came
    r = record(5, "zz", "unchanged");
    EXPECT_EQ(kt4CfgGetExact(client, &r), KT4_CFG_ST_NOT_FOUND);
    EXPECT_STREQ(r.cmdLine, "unchanged");

    std::vector<std::string> walk;
    r = record(5, "", "");
    while (kt4CfgGetNext(client, &r) == KT4_CFG_ST_OK)
        walk.push_back(key_of(r) + "=" + r.cmdLine);
    EXPECT_EQ(walk,
              (std::vector<std::string>{"a=hostname a", "ab=ip route x",
                                        "b=username u password 7 0822455D", "c=interface gi 0/1"}));

    ASSERT_EQ(kt4CfgShowContx(client, &r), 0);
    ASSERT_TRUE(daemon_->wait_for("! 4 lines"));
    const std::string shown = daemon_->text();
    EXPECT_NE(shown.find("! context 5\nhostname a\nip route x\nusername u password 7 ********\n"
                         "interface gi 0/1\n no shutdown\n! 4 lines"),
              std::string::npos)
        << shown;

    r = record(5, "a", "");
    ASSERT_EQ(kt4CfgRemoveNode(client, &r), 0); // a and ab
    r = record(5, "c", "");
    ASSERT_EQ(kt4CfgRemoveExact(client, &r), 0);
    uint32_t lines = 0;
    EXPECT_EQ(kt4CfgGetDBNumberOfLines(client, &lines), KT4_CFG_ST_OK);
    EXPECT_EQ(lines, 2u);

    // The synchronisation daemon took every change as well.
    EXPECT_TRUE(kt4test::eventually([] {
        const std::string d = dump(db("cfgsync.db"));
        return d.find(": 2 lines") != std::string::npos &&
               d.find("context 5 key 62 common 0 owner 25600: username u password 7 ********") !=
                   std::string::npos;
    })) << dump(db("cfgsync.db"));
}

TEST_F(Cfgd, SavesAndLoadsBack) {
    // Lines may hold tabs, CR and LF, and keys any byte: the file keeps them all.
    const kt4CfgRecord recs[] = {record(1, std::string("\t\n\0\\", 4), "a\tb\r\nc\\d"),
                                 record(2, "", "empty key"), record(3, "k", "")};
    for (kt4CfgRecord r : recs)
        ASSERT_EQ(kt4CfgInsert(client, &r), 0);
    kt4CfgRecord name = record(0, "", "saved.txt");
    ASSERT_EQ(kt4CfgSave(client, &name), 0);
    name = record(0, "", ""); // the default file, which a new database loads by itself
    ASSERT_EQ(kt4CfgSave(client, &name), 0);
    Bytes bad(80 + 552);
    std::strcpy(reinterpret_cast<char *>(&bad[80 + 268]), "../escape");
    kt4::store_be32(&bad[76], 552);
    kt4IpcHdrSet(bad.data(), KT4_IPC_HDR_LENGTH, 80 + 552);
    EXPECT_EQ(ask(bad, 106), KT4_CFG_ST_REFUSED);

    auto check = [&recs] {
        uint32_t lines = 0;
        EXPECT_EQ(kt4CfgGetDBNumberOfLines(client, &lines), KT4_CFG_ST_OK);
        EXPECT_EQ(lines, 3u);
        for (const kt4CfgRecord &want : recs) {
            kt4CfgRecord got = record(want.context, key_of(want), "");
            EXPECT_EQ(kt4CfgGetExact(client, &got), KT4_CFG_ST_OK);
            EXPECT_STREQ(got.cmdLine, want.cmdLine);
        }
    };
    stop(daemon_);
    daemon_ = start({"--db", db("fresh.db")});
    check();
    stop(daemon_);
    daemon_ = start({"--db", db("other.db"), "--load", "saved.txt"});
    check();

    // A file with a bad record loads nothing, and says where.
    FILE *f = std::fopen(db("bad.txt").c_str(), "w");
    ASSERT_NE(f, nullptr);
    std::fputs("# saved\n1\t0\t0\t6b\tgood\n1\t0\t0\tzz\tbad key\n", f);
    std::fclose(f);
    std::string out;
    EXPECT_EQ(kt4test::run_program({KT4_CFGD, "--db", db("bad.db"), "--load", "bad.txt"}, {}, &out),
              1);
    EXPECT_NE(out.find("bad.txt:3: not a saved record"), std::string::npos) << out;
    EXPECT_NE(dump(db("bad.db")).find(": 0 lines"), std::string::npos);
}

TEST_F(Cfgd, MalformedRequestsGetAnErrorStatusOrAreCountedAndDropped) {
    auto request = [](const Bytes &body) {
        Bytes m(80 + body.size());
        std::copy(body.begin(), body.end(), m.begin() + 80);
        kt4IpcHdrSet(m.data(), KT4_IPC_HDR_LENGTH, static_cast<uint32_t>(m.size()));
        kt4::store_be32(&m[76], static_cast<uint32_t>(body.size()));
        return m;
    };
    Bytes m = request(Bytes(552));
    kt4::store_be32(&m[76], 551); // the body length and the message disagree
    EXPECT_EQ(ask(m, 105), KT4_CFG_ST_MALFORMED);
    EXPECT_EQ(ask(request(Bytes(552)), 999), KT4_CFG_ST_UNKNOWN_CMD);
    EXPECT_EQ(ask(request(Bytes(100)), 105), KT4_CFG_ST_MALFORMED); // a record is 552 bytes
    m = request(Bytes(552));
    kt4::store_be32(&m[80 + 264], 0x7FFFFFFF); // key length
    EXPECT_EQ(ask(m, 124), KT4_CFG_ST_MALFORMED);
    Bytes body = change_body(1, "k", "line");
    kt4::store_be32(&body[12], 5000); // a line longer than the body
    EXPECT_EQ(ask(request(body), 100), KT4_CFG_ST_MALFORMED);
    EXPECT_EQ(ask(request(change_body(1, "k", "bad\x01")), 100), KT4_CFG_ST_MALFORMED);
    EXPECT_EQ(ask(request(Bytes(4)), 130, 2802), KT4_CFG_ST_MALFORMED); // not a configuration type
    EXPECT_EQ(ask(request(Bytes(9000)), 100), KT4_CFG_ST_MALFORMED);    // more than it takes
    m = request({});
    m.resize(70); // no room for the body-length word
    kt4IpcHdrSet(m.data(), KT4_IPC_HDR_LENGTH, 70);
    EXPECT_EQ(ask(m, 100), KT4_CFG_ST_MALFORMED);

    // A bundle with one bad change applies nothing.
    kt4CfgBndl b;
    kt4CfgBndlInit(&b);
    kt4CfgRecord good = record(4, "g", "good");
    ASSERT_EQ(kt4CfgBndlAdd(&b, 100, &good), 0);
    const uint32_t second = b.len;
    ASSERT_EQ(kt4CfgBndlAdd(&b, 100, &good), 0);
    kt4::store_be32(&b.data[second], 105);
    int status = -1;
    ASSERT_GT(cfgIpcSendWait(client, 132, b.data, static_cast<int>(b.len), &status), 0);
    EXPECT_EQ(status, KT4_CFG_ST_MALFORMED);
    kt4::store_be32(&b.data[second], 102);
    ASSERT_GT(cfgIpcSendWait(client, 132, b.data, static_cast<int>(b.len), &status), 0);
    EXPECT_EQ(status, KT4_CFG_ST_OK);
    EXPECT_EQ(kt4CfgGetExact(client, &good), KT4_CFG_ST_NOT_FOUND); // inserted, then removed

    // One-way garbage is counted and dropped; the daemon goes on serving.
    m = request(Bytes(3));
    kt4IpcHdrSet(m.data(), KT4_IPC_HDR_TGT_ADDR, kt4IpcGetLocalCpuIpAddr());
    kt4IpcHdrSet(m.data(), KT4_IPC_HDR_TGT_QID, kt4_getQueueId(KT4_CFG_SERVICE, 0, 1));
    kt4IpcHdrSet(m.data(), KT4_IPC_HDR_MSG_TYPE, KT4_CFG_MSG_TYPE);
    kt4::store_be32(&m[76], 99);
    ASSERT_GT(kt4IpcSend(Key_getReqQueue(client), m.data(), static_cast<int>(m.size())), 0);
    uint32_t lines = 7;
    EXPECT_EQ(kt4CfgGetDBNumberOfLines(client, &lines), KT4_CFG_ST_OK);
    EXPECT_EQ(lines, 0u);
    const std::string last = stop(daemon_);
    EXPECT_NE(last.find("10 malformed, 1 dropped"), std::string::npos) << last;
}

// Keys of the stream: a scrambled order of insertion (an odd factor is a bijection of 32-bit
// words), so that the walk afterwards proves the key order too.
std::string stream_key(uint32_t i) {
    return be(i * 2654435761u);
}

TEST_F(Cfgd, KilledDuringInsertsKeepsEveryAcknowledgedOneAndWalksThemInKeyOrder) {
    int acks[2];
    ASSERT_EQ(pipe(acks), 0);
    // The writer: a process of the card that inserts and waits for each answer, and reports
    // every insert the daemon answered for.
    const pid_t writer = kt4test::fork_child([&] {
        close(acks[0]);
        kt4IpcProcessCleanup(client);
        const int key = kt4IpcOpen(kClient + 1, 0);
        for (uint32_t i = 0; key > 0; ++i) {
            Bytes body = change_body(8, stream_key(i), "stream " + std::to_string(i));
            int status = -1;
            if (cfgIpcSendWait(key, KT4_CFG_CMD_INSERT, body.data(), static_cast<int>(body.size()),
                               &status) < 0 ||
                status != KT4_CFG_ST_OK)
                return false;
            if (write(acks[1], &i, sizeof i) != sizeof i) return false;
        }
        return false;
    });
    close(acks[1]);
    std::set<uint32_t> acked;
    uint32_t i;
    while (acked.size() < 2000 && read(acks[0], &i, sizeof i) == sizeof i)
        acked.insert(i);
    kill(daemon_->pid(), SIGKILL); // in the middle of the stream
    daemon_->finish();
    kill(writer, SIGKILL);
    while (read(acks[0], &i, sizeof i) == sizeof i)
        acked.insert(i);
    close(acks[0]);
    kt4test::wait_child(writer);
    ASSERT_GE(acked.size(), 2000u);

    daemon_ = start({"--db", db("cfgd.db")});
    std::map<std::string, std::string> walked;
    kt4CfgRecord r = record(8, "", "");
    while (kt4CfgGetNext(client, &r) == KT4_CFG_ST_OK) {
        ASSERT_TRUE(walked.empty() || walked.rbegin()->first < key_of(r)) << "out of key order";
        walked[key_of(r)] = r.cmdLine;
    }
    EXPECT_GE(walked.size(), acked.size());
    for (uint32_t n : acked)
        ASSERT_EQ(walked[stream_key(n)], "stream " + std::to_string(n)) << n;
}

TEST_F(Cfgd, InterfaceStatusSizesPasswordsAndSyncs) {
    const uint32_t a = ifmCreatePhysicalIfIndex(KT4_IFT_TENGIGE, 3, 1, 0);
    const uint32_t b = ifmCreatePhysicalIfIndex(KT4_IFT_TENGIGE, 3, 2, 0);
    const uint32_t c = ifmCreatePeIfIndex(KT4_IFT_PE_GIGE, 3, 5, 4);
    const kt4CfgRecord recs[] = {record(KT4_CFG_CONTEXT_INTERFACE, be(a) + "1", "mtu 9000"),
                                 record(KT4_CFG_CONTEXT_INTERFACE, be(a) + "2", " no shutdown"),
                                 record(KT4_CFG_CONTEXT_INTERFACE, be(b), "shutdown"),
                                 record(KT4_CFG_CONTEXT_INTERFACE, be(c), "description pe port"),
                                 record(7, be(a), "not an interface line")};
    for (kt4CfgRecord r : recs)
        ASSERT_EQ(kt4CfgInsert(client, &r), 0);

    kt4CfgIntfStatus st{};
    for (auto [ifIndex, lines, admin] :
         {std::tuple{a, 2u, KT4_CFG_ADMIN_UP},
          {b, 1u, KT4_CFG_ADMIN_DOWN},
          {ifmCreatePhysicalIfIndex(KT4_IFT_TENGIGE, 4, 1, 0), 0u, KT4_CFG_ADMIN_UNKNOWN}}) {
        st = kt4CfgIntfStatus{};
        st.ifIndex = ifIndex;
        ASSERT_EQ(kt4CfgGetConfInterfaceStatus(client, &st), KT4_CFG_ST_OK);
        EXPECT_EQ(st.lines, lines);
        EXPECT_EQ(st.adminState, static_cast<uint32_t>(admin));
    }
    kt4CfgSlotStatus slot{3, 0, 0, 0};
    ASSERT_EQ(kt4CfgGetConfIntfStatusOfSlot(client, &slot), KT4_CFG_ST_OK);
    EXPECT_EQ(slot.interfaces, 2u);
    EXPECT_EQ(slot.lines, 3u);
    kt4CfgPexStatus pex{4, 0};
    ASSERT_EQ(kt4CfgGetConfIntfStatusOfPex(client, &pex), KT4_CFG_ST_OK);
    EXPECT_EQ(pex.interfaces, 1u);

    kt4CfgRecord pw = record(2, "admin", "");
    ASSERT_EQ(kt4RegisterPassword(client, &pw, 1, 2, 3), 0);
    ASSERT_EQ(kt4EnablePasswordService(client), 0);
    kt4CfgMemSize size{};
    ASSERT_EQ(kt4CfgGetRemoteMemSize(client, &size), KT4_CFG_ST_OK);
    EXPECT_EQ(size.lines, 5u);
    EXPECT_EQ(size.contexts, 2u);
    EXPECT_EQ(size.passwords, 1u);
    EXPECT_EQ(size.keyBytes, 4u * 5 + 2);
    unsigned char word[4];
    kt4::store_be32(word, KT4_CFG_PASSWORD_SERVICE_ID);
    int status = -1;
    ASSERT_GT(cfgIpcSendWait(client, KT4_CFG_CMD_CHECK_PASSWORD, word, 4, &status), 0);
    EXPECT_EQ(status, KT4_CFG_ST_OK);
    ASSERT_EQ(kt4UnRegisterPassword(client, &pw, 2), 0);
    ASSERT_EQ(kt4DisablePasswordService(client), 0);
    ASSERT_GT(cfgIpcSendWait(client, KT4_CFG_CMD_CHECK_PASSWORD, word, 4, &status), 0);
    EXPECT_EQ(status, KT4_CFG_ST_NOT_FOUND);

    kt4CfgSyncRecord s{1, 0, 5, 3, 42, "ifm", "interface gi 3/1", nullptr};
    ASSERT_EQ(kt4CfgSync(client, &s), 0);
    ASSERT_EQ(kt4CfgGetRemoteMemSize(client, &size), KT4_CFG_ST_OK); // after the sync
    EXPECT_EQ(size.passwords, 0u);
    EXPECT_NE(dump(db("cfgd.db"))
                  .find("sync op 1 flags 0 context 5 slot 3 sequence 42 ifm: "
                        "interface gi 3/1 []"),
              std::string::npos);
}

TEST(CfgdCommandLine, HelpDumpAndRefusals) {
    std::string out;
    EXPECT_EQ(kt4test::run_program({KT4_CFGD, "--help"}, {}, &out), 0);
    EXPECT_EQ(kt4test::run_program({KT4_CFGD, "--bogus"}, {}, &out), 2);
    EXPECT_EQ(kt4test::run_program({KT4_CFGD, "1", "2", "3"}, {}, &out), 2);
    // System words of another service.
    EXPECT_EQ(
        kt4test::run_program({KT4_CFGD, "0", "1", "16", "0", "1", "0", "0", "8388608"}, {}, &out),
        2);
    EXPECT_NE(out.find("not 16"), std::string::npos) << out;
    EXPECT_EQ(kt4test::run_program({KT4_CFGD, "--dump", "--db", "/nonexistent/x.db"}, {}, &out), 1);
    // Without a card that is up there is nothing to join.
    EXPECT_EQ(
        kt4test::run_program({KT4_CFGD, "--db", "/tmp/x.db"}, {{"KT4_ROOT", "/nonexistent"}}, &out),
        1);
    EXPECT_NE(out.find("cfgd: no card is up here"), std::string::npos) << out;
}

} // namespace
