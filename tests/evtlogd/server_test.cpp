// The event-log server: its parser, reassembly and log file on records crafted byte by byte;
// then the real evtlogd program on a test card, where records sent by the library's event-log
// calls from a task of this process, and crafted ones from a plain UDP socket, end up in its
// log file.
#include "evtlogd/records.h"

#include "services/evtlogd/logfile.h"
#include "services/evtlogd/receiver.h"
#include "support/kt4_test_env.h"

#include <kt4/evt.h>
#include <kt4/ipc.h>
#include <kt4/tme.h>
#include <kt4/vx2bsd.h>

#include <gtest/gtest.h>

#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

using kt4test::slurp;
using namespace evtlogdtest;
using kt4::evtlogd::Counters;
using kt4::evtlogd::LogFile;
using kt4::evtlogd::Receiver;
using kt4::evtlogd::Reject;

constexpr int64_t kWall = 1700000100; // 2023-11-14T22:15:00Z

struct Rx {
    std::vector<std::string> lines;
    Receiver rx{[this](std::string_view l) { lines.emplace_back(l); },
                Receiver::Options{1000, 4, 8}};
    void feed(const Bytes &m, uint64_t ms = 0) { rx.message(m.data(), m.size(), kWall, ms); }
    uint64_t rejected(Reject r) const { return rx.counters().rejected[static_cast<size_t>(r)]; }
};

// The text after the line's ": " (without the newline).
std::string text_of_line(const std::string &l) {
    size_t at = l.find(": ");
    return at == std::string::npos ? "" : l.substr(at + 2, l.size() - at - 3);
}

// Chunks in order become one line end to end (the server tests); here a record arrives last
// chunk first with chunks repeated, then a late copy of a chunk of the record already written.
TEST(EvtlogdReassembly, ChunkedTextBecomesOneLineInAnyOrder) {
    Rx r;
    const std::string text = text_of(1001); // 500, 500 and 1 bytes
    const LogFields s;
    for (unsigned index : {2u, 0u, 0u, 1u, 1u})
        r.feed(log_chunk(s, text, index));
    ASSERT_EQ(r.lines.size(), 1u);
    EXPECT_EQ(text_of_line(r.lines[0]), text);
    const Counters c = r.rx.counters();
    EXPECT_EQ(c.records, 1u);
    EXPECT_EQ(c.chunks, 3u);
    EXPECT_EQ(c.duplicates, 2u);
    EXPECT_EQ(r.rx.pending(), 0u);
}

TEST(EvtlogdReassembly, MissingChunkIsWrittenIncompleteByTimeoutNewerRecordOrStop) {
    Rx r;
    const std::string text = text_of(1001);
    LogFields s;
    r.feed(log_chunk(s, text, 0), 100);
    r.feed(log_chunk(s, text, 2), 200);
    r.rx.expire(1100); // 900 ms after the last chunk: still waiting
    EXPECT_TRUE(r.lines.empty());
    r.rx.expire(1200);
    ASSERT_EQ(r.lines.size(), 1u);
    EXPECT_NE(r.lines[0].find(" incomplete=2/3: "), std::string::npos) << r.lines[0];
    EXPECT_EQ(text_of_line(r.lines[0]), text.substr(0, 500) + "[...]" + "c");

    // The same sender three records on (window 4) keeps it waiting, four records on ends it;
    // another process's records never do.
    s.seq = 10;
    r.feed(log_chunk(s, text, 1));
    LogFields other = s;
    other.pid = 5;
    other.seq = 100;
    r.feed(log_chunk(other, text, 0));
    s.seq = 13;
    r.feed(log_chunk(s, "one chunk", 0));
    EXPECT_EQ(r.lines.size(), 2u);
    s.seq = 14;
    r.feed(log_chunk(s, "later", 0));
    ASSERT_EQ(r.lines.size(), 4u);
    // Written before the record that ended its wait.
    EXPECT_NE(r.lines[2].find("pid=4242 task=tWorker incomplete=1/3: [...]" +
                              text.substr(500, 500) + "[...]\n"),
              std::string::npos)
        << r.lines[2];
    r.rx.flush();
    ASSERT_EQ(r.lines.size(), 5u);
    EXPECT_NE(r.lines[4].find("pid=5 "), std::string::npos);
    EXPECT_EQ(r.rx.counters().incomplete, 3u);

    // More pending records than the table holds (8): the oldest goes first.
    for (uint32_t i = 0; i < 9; ++i) {
        LogFields p;
        p.pid = 1000 + i;
        r.feed(log_chunk(p, text, 0));
    }
    EXPECT_EQ(r.rx.pending(), 8u);
    ASSERT_EQ(r.lines.size(), 6u);
    EXPECT_NE(r.lines[5].find("pid=1000 "), std::string::npos);
}

TEST(EvtlogdParser, MalformedRecordsAreCountedAndDropped) {
    const std::string text = text_of(1001);
    const LogFields s;
    const Bytes reg = registration(200, 0), first = log_chunk(s, text, 0);
    const Bytes mid = log_chunk(s, text, 1), last = log_chunk(s, text, 2);
    const Bytes aud = audit(1, "u", "s", "t");
    auto u32 = [](size_t off, uint32_t v) {
        return [=](Bytes &m) { kt4::store_be32(&m[off], v); };
    };
    auto fill = [](size_t off, size_t n) {
        return [=](Bytes &m) { std::memset(&m[off], 'x', n); };
    };
    auto cut = [](size_t n, uint32_t field) {
        return [=](Bytes &m) { m.resize(n), kt4::store_be32(&m[8], field); };
    };
    struct Case {
        const char *what;
        const Bytes &base;
        std::function<void(Bytes &)> change;
        Reject why;
    };
    const Case cases[] = {
        {"59 bytes", reg, cut(59, 59), Reject::Short},
        {"no magic", reg, u32(0, 0xFEEDBEED), Reject::BadMagic},
        {"length beyond the datagram", reg, u32(8, 69), Reject::BadLength},
        {"length under a header", reg, u32(8, 40), Reject::BadLength},
        {"log record cut short", first, cut(KT4_EVT_LOG_TEXT + 10, 0), Reject::Truncated},
        {"audit of 903 bytes", aud, cut(903, 903), Reject::Truncated},
        {"unknown type", reg, u32(12, 2002), Reject::UnknownType},
        {"unknown sub-code", reg, u32(KT4_EVT_OFF_SUBCODE, 3), Reject::UnknownType},
        {"task name without NUL", first, fill(KT4_EVT_LOG_NAME, KT4_EVT_LOG_NAME_LEN),
         Reject::BadString},
        {"audit user without NUL", aud, fill(KT4_EVT_AUDIT_USER, KT4_EVT_AUDIT_USER_LEN),
         Reject::BadString},
        {"count the text length denies", first, u32(KT4_EVT_LOG_CHUNKS, 2u << 16),
         Reject::BadChunk},
        {"index beyond the count", last, u32(KT4_EVT_LOG_CHUNKS, 3u << 16 | 3u), Reject::BadChunk},
        {"short middle chunk", mid,
         [](Bytes &m) {
             kt4::store_be32(&m[KT4_EVT_LOG_CHUNKLEN], 499), m[KT4_EVT_LOG_TEXT + 499] = 0;
         },
         Reject::BadChunk},
        {"chunk shorter than its length", last, [](Bytes &m) { m[KT4_EVT_LOG_TEXT] = 0; },
         Reject::BadChunk},
        {"text length 2048", first, u32(KT4_EVT_LOG_TEXTLEN, 2048), Reject::BadChunk},
    };

    for (const Case &c : cases) {
        Rx r;
        Bytes m = c.base;
        c.change(m);
        r.feed(m);
        EXPECT_EQ(r.rejected(c.why), 1u) << c.what;
        EXPECT_EQ(r.rx.counters().dropped(), 1u) << c.what;
        EXPECT_TRUE(r.lines.empty()) << c.what;
    }

    // A chunk that contradicts the chunks already held for its record is not taken into it.
    Rx r;
    r.feed(log_chunk(s, text, 0));
    r.feed(log_chunk(s, text_of(1500), 1));
    EXPECT_EQ(r.rejected(Reject::BadChunk), 1u);
    r.feed(log_chunk(s, text, 1));
    r.feed(log_chunk(s, text, 2));
    ASSERT_EQ(r.lines.size(), 1u);
    EXPECT_EQ(text_of_line(r.lines[0]), text);
    // Padding after the length field's end is no error; the length field 0 means the datagram.
    Bytes padded = registration(200, 1);
    padded.resize(100, 0xEE);
    r.feed(padded);
    Bytes zero = registration(200, 2);
    kt4::store_be32(&zero[8], 0);
    r.feed(zero);
    EXPECT_EQ(r.rx.counters().registrations, 2u);
}

// The notification and subscription lines: the server's test, from the library's calls.
TEST(EvtlogdLines, EveryKindIsOneEscapedLine) {
    Rx r;
    Triple src{3, 0x7F0D0A50, 0x0C81};
    r.feed(registration(200, 4, src));
    r.feed(audit(17, "admin", "ssh", "login\r\nok", src));
    LogFields s;
    s.name = "t Two";
    s.label = "";
    s.tag = "TAG";
    r.feed(log_chunk(s, "tab\there \\ and\x01", 0));
    const char *from = " from=3/127.13.10.80/0xc81";
    const std::string t = "2023-11-14T22:15:00Z";
    std::vector<std::string> want = {
        t + " REG svc=200 inst=4 task=7" + from + "\n",
        t + " AUDIT code=17 user=admin source=ssh" + from + ": login\\r\\nok\n",
        "2023-11-14T22:13:20Z LOG - RP1 sev=3 fac=17 err=5 key=20000 pid=4242 task=t\\x20Two "
        "tag=TAG: tab\\there \\\\ and\\x01\n",
    };
    EXPECT_EQ(r.lines, want);
    const Counters c = r.rx.counters();
    EXPECT_EQ(c.registrations + c.audits + c.records, 3u);
    EXPECT_EQ(c.messages, 3u);
}

TEST(EvtlogdLogFile, RotatesBySizeAndKeepsTheNewestFiles) {
    char tmpl[] = "/tmp/evtlogd.XXXXXX";
    ASSERT_NE(mkdtemp(tmpl), nullptr);
    const std::string dir = tmpl;
    const std::string path = dir + "/sub/evt.log"; // the directory is made
    {
        LogFile log({path, 100, 2});
        std::string why;
        ASSERT_TRUE(log.open(&why)) << why;
        for (int i = 0; i < 10; ++i) {
            char line[64];
            std::snprintf(line, sizeof line, "line %02d ......................................\n",
                          i);
            ASSERT_TRUE(log.write(line));
        }
        EXPECT_EQ(log.rotations(), 4u); // two 48-byte lines per file
        // Moved away by someone else: reopened at the path.
        ASSERT_EQ(rename(path.c_str(), (dir + "/moved").c_str()), 0);
        log.reopen();
        ASSERT_TRUE(log.write("after\n"));
    }
    EXPECT_EQ(slurp(path), "after\n");
    const std::string moved = slurp(dir + "/moved");
    EXPECT_EQ(moved.substr(0, 7), "line 08");
    EXPECT_NE(moved.find("line 09"), std::string::npos);
    EXPECT_EQ(slurp(path + ".1").substr(0, 7), "line 06");
    EXPECT_EQ(slurp(path + ".2").substr(0, 7), "line 04");
    struct stat st {};
    EXPECT_NE(stat((path + ".3").c_str(), &st), 0);
    for (const char *f : {"/sub/evt.log", "/sub/evt.log.1", "/sub/evt.log.2", "/moved"})
        unlink((dir + f).c_str());
    rmdir((dir + "/sub").c_str());
    EXPECT_EQ(rmdir(dir.c_str()), 0);
}

// This process's card (its own directory, keys and addresses) as CPU 4, whose processes
// register their EV keys with the event-log server itself.
void card_up() {
    static bool up = [] {
        setenv("KT4_CPU", "4", 1);
        unsetenv("KT4_PLATFORM_TYPE");
        kt4CardReload();
        return kt4test::Card::get().up() && kt4VxToBsdInit(1, 1) == OK;
    }();
    ASSERT_TRUE(up);
}

// The program in the foreground: its log file, and what it says on standard error.
class Server : public kt4test::Process {
  public:
    explicit Server(const std::string &log)
        : Process({EVTLOGD_BIN, "--foreground", "--log", log, "--chunk-timeout", "300"}),
          log_(log) {}
    std::string log() const { return slurp(log_); }
    bool has(const std::string &needle) const {
        return kt4test::eventually([&] { return log().find(needle) != std::string::npos; }, 10000);
    }
    // Exit status after SIGTERM, -1 when it did not end in 10 s.
    int stop() {
        kill(pid(), SIGTERM);
        return finish(10);
    }

  private:
    std::string log_;
};

// What the task of this process sends through the library.
struct Sender {
    kt4SemId done = 0;
    bool ok = false;
    std::string failed;
};

const std::string kLongText = text_of(1001);

int sender_task(kt4_arg_t arg, kt4_arg_t keyArg, kt4_arg_t, kt4_arg_t, kt4_arg_t, kt4_arg_t,
                kt4_arg_t, kt4_arg_t, kt4_arg_t, kt4_arg_t) {
    auto *s = reinterpret_cast<Sender *>(arg);
    const int key = static_cast<int>(keyArg);
    auto step = [s](bool ok, const char *what) {
        if (!ok && s->failed.empty()) s->failed = what + std::string(": ") + kt4ErrnoText(errno);
        return ok;
    };
    if (step(kt4TaskStartup(key, KT4_TASK_STARTUP_NO_READY) == key, "kt4TaskStartup")) {
        const int ev = kt4EvtOpenlog(kt4IpcGetService(key), kt4IpcGetInstance(key));
        if (step(ev >= KT4_EVT_KEY_BASE, "kt4EvtOpenlog")) {
            std::string text = kLongText;
            step(kt4EvtLogMsg(ev, 3, 17, 5, "TAG", text.data()) == 0, "kt4EvtLogMsg level 3");
            char plain[] = "plain line\nsecond";
            step(kt4EvtLogMsg(ev, 8, 17, 6, nullptr, plain) == -1, "level 8 is masked off");
            step(kt4EvtTurnOnSeverityLevel(ev, 8) == 0, "kt4EvtTurnOnSeverityLevel");
            step(kt4EvtLogMsg(ev, 8, 17, 6, nullptr, plain) == 0, "kt4EvtLogMsg level 8");
            step(kt4SendAuditLog(77, "admin", "console", "config saved") == 0, "kt4SendAuditLog");
            unsigned char block[KT4_EVT_NOTIFY_BLOCK_LEN] = {};
            step(kt4EvtNotifyEvtHdlr(ev, "LINK_DOWN", 1, 2, 3, block) == 0, "kt4EvtNotifyEvtHdlr");
            step(kt4EvhSubscribeEvt(ev, 17, 0xFFFFFFFF) == 0, "kt4EvhSubscribeEvt");
            step(kt4EvhUnsubscribeEvt(ev, 17, 6) == 0, "kt4EvhUnsubscribeEvt");
            step(kt4EvtCloselog(ev) == 0, "kt4EvtCloselog");
        }
    }
    s->ok = s->failed.empty();
    semGive(s->done);
    return 0;
}

TEST(EvtlogdServer, LogsWhatTheLibrarySendsAndSurvivesBadRecords) {
    card_up();
    const std::string log = kt4test::Card::get().root() + "/log/evtlog.log";
    Server server(log);
    ASSERT_TRUE(server.has(" START evtlogd")) << server.text();

    // Records through the library, from a task of this process.
    Sender s;
    s.done = semBCreate(KT4_SEM_Q_FIFO, KT4_SEM_EMPTY);
    ASSERT_NE(kt4_taskSpawnP("tEvtSender", 100, 0, 0, sender_task, 201, 0,
                             reinterpret_cast<kt4_arg_t>(&s), 0),
              -1);
    ASSERT_EQ(semTake(s.done, 30 * 50), OK);
    semDelete(s.done);
    EXPECT_TRUE(s.ok) << s.failed;
    const std::string pid = std::to_string(getpid());
    char queue[32];
    std::snprintf(queue, sizeof queue, " qid=0x%x pid=", kt4_getQueueId(201, 0, KT4_IPC_QUEUE_REQ));
    EXPECT_TRUE(server.has(" REG svc=201 inst=0 "));
    // The 1001 characters went as 500, 500 and 1 and come back as one line.
    EXPECT_TRUE(server.has(" CP sev=3 fac=17 err=5 key=20000 pid=" + pid +
                           " task=tEvtSender tag=TAG: " + kLongText + "\n"))
        << server.log();
    EXPECT_TRUE(server.has(" sev=8 fac=17 err=6 key=20000 pid=" + pid +
                           " task=tEvtSender: plain line\\nsecond\n"));
    EXPECT_TRUE(server.has(" AUDIT code=77 user=admin source=console from="));
    EXPECT_TRUE(server.has(": config saved\n"));
    EXPECT_TRUE(server.has(" NOTIFY word1=0x1 word2=0x2 field=0x3 block=yes from="));
    EXPECT_TRUE(server.has(": LINK_DOWN\n"));
    EXPECT_TRUE(server.has(" SUBSCRIBE key=20000 fac=17 err=all" + (queue + pid)));
    EXPECT_TRUE(server.has(" UNSUBSCRIBE key=20000 fac=17 err=6" + (queue + pid)));

    // Crafted records at the server's request queue (each fault of a record is the receiver
    // tests'): a message larger than any record, bytes that are no message; then a record with
    // its middle chunk lost, written incomplete after the chunk time-out.
    const uint32_t addr = kt4IpcGetLocalCpuIpAddr();
    const auto port = static_cast<uint16_t>(kt4_getQueueId(KT4_EVT_LOG_SERVICE, 0, 1));
    kt4test::UdpPeer sender(addr, 0);
    ASSERT_TRUE(sender.bound());
    LogFields fields;
    fields.pid = 31337;
    Bytes huge = registration(1, 2);
    huge.resize(3000);
    kt4::store_be32(&huge[8], 3000);
    for (const Bytes &m : {huge, Bytes(40, 0xAB)})
        ASSERT_GT(sender.send(addr, port, m), 0);
    fields.seq = 2;
    ASSERT_GT(sender.send(addr, port, log_chunk(fields, kLongText, 0)), 0);
    ASSERT_GT(sender.send(addr, port, log_chunk(fields, kLongText, 2)), 0);
    EXPECT_TRUE(server.has(" pid=31337 task=tWorker incomplete=2/3: " + kLongText.substr(0, 500) +
                           "[...]c\n"));
    ASSERT_EQ(kill(server.pid(), SIGUSR1), 0);
    EXPECT_TRUE(server.has(" STATS evtlogd"));
    EXPECT_TRUE(server.wait_for(" oversize=1 ")) << server.text();
    EXPECT_NE(server.text().find(" dropped=1 "), std::string::npos) << server.text();

    EXPECT_EQ(server.stop(), 0) << server.text();
    const std::string all = server.log();
    EXPECT_NE(all.find(" STOP evtlogd"), std::string::npos);
    EXPECT_EQ(kt4test::count_of(all, "\n"), kt4test::count_of(all, "Z ")) << all;
    // Its endpoints are gone from the card with it.
    EXPECT_EQ(kt4_tmeGetPeerIpAddrByName(KT4_EVT_LOG_SERVICE, 0, nullptr), 0xFFFFFFFFu);
}

// Without a card it says so and ends, rather than wait for locks that nobody will make; from
// the background too (the parent reports the child's failure).
TEST(EvtlogdServer, RefusesToStartWithoutACard) {
    const std::string root = kt4test::Card::get().root() + "/nocard";
    for (const char *mode : {"--foreground", "--keep=1"}) {
        std::string out;
        EXPECT_EQ(1, kt4test::run_program({EVTLOGD_BIN, mode, "--log", root + ".log"},
                                          {{"KT4_ROOT", root}}, &out))
            << mode;
        EXPECT_NE(out.find("evtlogd: no card is up here"), std::string::npos) << out;
    }
}

} // namespace
