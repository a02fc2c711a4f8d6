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

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <thread>

namespace {

using kt4test::slurp;
using namespace evtlogdtest;

template <typename Pred> bool eventually(Pred pred, int ms = 10000) {
    return kt4test::eventually(pred, ms);
}

// This process's card: its own directory, keys, chassis and slot (so its own addresses), and
// CPU 4, whose processes register their EV keys with the event-log server itself.
void card_up() {
    static bool up = [] {
        kt4test::Card &card = kt4test::Card::get();
        const kt4test::CardIdentity id = kt4test::card_identity();
        setenv("KT4_CHASSIS_ID", std::to_string(id.chassis).c_str(), 1);
        setenv("KT4_SLOT", std::to_string(id.slot).c_str(), 1);
        setenv("KT4_CPU", "4", 1);
        unsetenv("KT4_PLATFORM_TYPE");
        kt4CardReload();
        return card.up() && kt4VxToBsdInit(1, 1) == OK;
    }();
    ASSERT_TRUE(up);
}

class Server {
  public:
    explicit Server(const std::string &log) : log_(log) {
        err_ = kt4test::Card::get().root() + "/evtlogd.err";
        std::fflush(nullptr);
        pid_ = fork();
        if (pid_ == 0) {
            int fd = open(err_.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
            dup2(fd, 2);
            execl(EVTLOGD_BIN, "evtlogd", "--foreground", "--log", log.c_str(), "--chunk-timeout",
                  "300", static_cast<char *>(nullptr));
            _exit(127);
        }
    }
    ~Server() {
        if (pid_ > 0) {
            kill(pid_, SIGKILL);
            waitpid(pid_, nullptr, 0);
        }
    }
    pid_t pid() const { return pid_; }
    std::string log() const { return slurp(log_); }
    std::string err() const { return slurp(err_); }
    bool has(const std::string &needle, int ms = 10000) const {
        return eventually([&] { return log().find(needle) != std::string::npos; }, ms);
    }
    // Exit status after SIGTERM, -1 when it did not end in 10 s.
    int stop() {
        kill(pid_, SIGTERM);
        int status = 0;
        bool ended = eventually([&] { return waitpid(pid_, &status, WNOHANG) == pid_; });
        if (!ended) return -1;
        pid_ = -1;
        return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    }

  private:
    std::string log_, err_;
    pid_t pid_ = -1;
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

int udp_to(uint32_t addr, uint16_t port, const Bytes &m) {
    int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_in sa{};
    sa.sin_family = AF_INET;
    sa.sin_addr.s_addr = htonl(addr);
    sa.sin_port = htons(port);
    ssize_t n = sendto(fd, m.data(), m.size(), 0, reinterpret_cast<sockaddr *>(&sa), sizeof sa);
    close(fd);
    return static_cast<int>(n);
}

TEST(EvtlogdServer, LogsWhatTheLibrarySendsAndSurvivesBadRecords) {
    card_up();
    const std::string log = kt4test::Card::get().root() + "/log/evtlog.log";
    Server server(log);
    ASSERT_TRUE(server.has(" START evtlogd")) << server.err();

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

    // Crafted records at the server's request queue: a record cut short, a chunk that lies
    // about its text, a message larger than any record, bytes that are no message; then a
    // record with its middle chunk lost, written incomplete after the chunk time-out.
    const uint32_t addr = kt4IpcGetLocalCpuIpAddr();
    const auto port = static_cast<uint16_t>(kt4_getQueueId(KT4_EVT_LOG_SERVICE, 0, 1));
    LogFields fields;
    fields.pid = 31337;
    Bytes cut = log_chunk(fields, "cut", 0);
    cut.resize(KT4_EVT_LOG_TEXT);
    kt4::store_be32(&cut[8], 0);
    Bytes liar = log_chunk(fields, kLongText, 1);
    kt4::store_be32(&liar[KT4_EVT_LOG_CHUNKLEN], 1);
    Bytes huge = registration(1, 2);
    huge.resize(3000);
    kt4::store_be32(&huge[8], 3000);
    for (const Bytes &m : {cut, liar, huge, Bytes(40, 0xAB)})
        ASSERT_GT(udp_to(addr, port, m), 0);
    fields.seq = 2;
    ASSERT_GT(udp_to(addr, port, log_chunk(fields, kLongText, 0)), 0);
    ASSERT_GT(udp_to(addr, port, log_chunk(fields, kLongText, 2)), 0);
    EXPECT_TRUE(server.has(" pid=31337 task=tWorker incomplete=2/3: " + kLongText.substr(0, 500) +
                           "[...]c\n"));
    ASSERT_EQ(kill(server.pid(), SIGUSR1), 0);
    EXPECT_TRUE(server.has(" STATS evtlogd"));
    EXPECT_TRUE(eventually([&] { return server.err().find(" oversize=1 ") != std::string::npos; }))
        << server.err();
    const std::string err = server.err();
    EXPECT_NE(err.find(" truncated=1 "), std::string::npos) << err;
    EXPECT_NE(err.find(" bad_chunk=1 "), std::string::npos) << err;
    EXPECT_NE(err.find(" dropped=3 "), std::string::npos) << err;

    EXPECT_EQ(server.stop(), 0) << server.err();
    const std::string all = server.log();
    EXPECT_NE(all.find(" STOP evtlogd"), std::string::npos);
    EXPECT_EQ(kt4test::count_of(all, "\n"), kt4test::count_of(all, "Z ")) << all;
    // Its endpoints are gone from the card with it.
    EXPECT_EQ(kt4_tmeGetPeerIpAddrByName(KT4_EVT_LOG_SERVICE, 0, nullptr), 0xFFFFFFFFu);
}

// Without a card it says so and ends, rather than wait for locks that nobody will make; from
// the background too (the parent reports the child's failure).
TEST(EvtlogdServer, RefusesToStartWithoutACard) {
    const std::string root = kt4test::Card::get().root() + "/nocard", out = root + ".out";
    for (const char *mode : {"--foreground", "--keep=1"}) {
        std::fflush(nullptr);
        pid_t pid = fork();
        if (pid == 0) {
            int fd = open(out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
            dup2(fd, 1), dup2(fd, 2);
            setenv("KT4_ROOT", root.c_str(), 1);
            execl(EVTLOGD_BIN, "evtlogd", mode, "--log", out.c_str(), static_cast<char *>(nullptr));
            _exit(127);
        }
        int status = 0;
        waitpid(pid, &status, 0);
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 1) << mode;
        EXPECT_NE(slurp(out).find("evtlogd: no card is up here"), std::string::npos) << slurp(out);
    }
    unlink(out.c_str());
}

} // namespace
