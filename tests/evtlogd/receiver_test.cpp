// The event-log server's parser, reassembly and log file, on records crafted byte by byte.
#include "evtlogd/records.h"
#include "support/kt4_support.h"

#include "services/evtlogd/logfile.h"
#include "services/evtlogd/receiver.h"

#include <gtest/gtest.h>

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
        {"log record cut by its length", first, u32(8, KT4_EVT_LOG_LEN - 1), Reject::Truncated},
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
        {"text length 0", first, u32(KT4_EVT_LOG_TEXTLEN, 0), Reject::BadChunk},
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

TEST(EvtlogdLines, EveryKindIsOneEscapedLine) {
    Rx r;
    Triple src{3, 0x7F0D0A50, 0x0C81};
    r.feed(registration(200, 4, src));
    r.feed(audit(17, "admin", "ssh", "login\r\nok", src));
    r.feed(notify("LINK_DOWN", 0xA, 0xB, 0xC, true, src));
    r.feed(subscription(true, 20001, 33, 0xFFFFFFFF, src));
    r.feed(subscription(false, 20001, 33, 7, src));
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
        t + " NOTIFY word1=0xa word2=0xb field=0xc block=yes" + from + ": LINK_DOWN\n",
        t + " SUBSCRIBE key=20001 fac=33 err=all qid=0x6401 pid=99" + from + "\n",
        t + " UNSUBSCRIBE key=20001 fac=33 err=7 qid=0x6401 pid=99" + from + "\n",
        "2023-11-14T22:13:20Z LOG - RP1 sev=3 fac=17 err=5 key=20000 pid=4242 task=t\\x20Two "
        "tag=TAG: tab\\there \\\\ and\\x01\n",
    };
    EXPECT_EQ(r.lines, want);
    const Counters c = r.rx.counters();
    EXPECT_EQ(c.registrations + c.audits + c.notifications + c.subscriptions + c.records, 6u);
    EXPECT_EQ(c.messages, 6u);
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

} // namespace
