// The real evtlogd program on a test card: records sent by the library's event-log calls from
// a task of this process, and crafted ones from a plain UDP socket, end up in its log file.
#include "evtlogd/records.h"

#include "support/kt4_reserve.h"
#include "support/kt4_test_env.h"

#include <kt4/evt.h>
#include <kt4/hostsim.h>
#include <kt4/ident.h>
#include <kt4/ipc.h>
#include <kt4/tme.h>
#include <kt4/vx2bsd.h>

#include <gtest/gtest.h>

#include <signal.h>
#include <unistd.h>

namespace {

using kt4test::slurp;
using namespace evtlogdtest;

template <typename Pred> bool eventually(Pred pred, int ms = 10000) {
    return kt4test::eventually(pred, ms);
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
    bool has(const std::string &needle, int ms = 10000) const {
        return eventually([&] { return log().find(needle) != std::string::npos; }, ms);
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
            step(kt4EvtNotifyEvtHdlr(ev, "LINK_DOWN", 1, 2, 3, nullptr) == 0,
                 "kt4EvtNotifyEvtHdlr");
            step(kt4EvhSubscribeEvt(ev, 17, 0xFFFFFFFF) == 0, "kt4EvhSubscribeEvt");
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
    const std::string from = "/0x" + [] {
        char b[16];
        std::snprintf(b, sizeof b, "%x", kt4_getQueueId(201, 0, KT4_IPC_QUEUE_REQ));
        return std::string(b);
    }();
    EXPECT_TRUE(server.has(" REG svc=201 inst=0 "));
    // The 1001 characters went as 500, 500 and 1 and come back as one line.
    EXPECT_TRUE(server.has(" CP sev=3 fac=17 err=5 key=20000 pid=" + std::to_string(getpid()) +
                           " task=tEvtSender tag=TAG: " + kLongText + "\n"))
        << server.log();
    EXPECT_TRUE(server.has(" sev=8 fac=17 err=6 key=20000 pid=" + std::to_string(getpid()) +
                           " task=tEvtSender: plain line\\nsecond\n"));
    EXPECT_TRUE(server.has(" AUDIT code=77 user=admin source=console from="));
    EXPECT_TRUE(server.has(": config saved\n"));
    EXPECT_TRUE(server.has(" NOTIFY word1=0x1 word2=0x2 field=0x3 block=no from="));
    EXPECT_TRUE(server.has(" SUBSCRIBE key=20000 fac=17 err=all qid=0x" + from.substr(3)));

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
