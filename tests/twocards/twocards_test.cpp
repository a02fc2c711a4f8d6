// Two simulated cards on one host, slots 0 and 1 of one chassis, each with its own product
// directory and System V keys, brought up with kt4card and each running tmed. This process
// is a task of card 0; card 1's tasks are other processes started with kt4card run.
#include "common/kt4_be.h"
#include "support/kt4_reserve.h"
#include "support/kt4_support.h"

#include <kt4/hostsim.h>
#include <kt4/ipc.h>
#include <kt4/platform.h>
#include <kt4/tme.h>

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace {

using kt4test::Process;
using kt4test::Reservation;

constexpr uint32_t kNone = 0xFFFFFFFF;
constexpr uint32_t kEchoType = 1700; // the helper's task answers one request of this type
constexpr size_t kCardBytes = 8u << 20;

struct CardSetup {
    int slot = 0;
    std::string root;
    std::unique_ptr<Reservation> keys;
    std::unique_ptr<Process> tmed;
    int tmedPid = -1;
};

std::unique_ptr<Reservation> g_chassis;
CardSetup g_card[2];

int chassis() {
    return g_chassis->index();
}

int key_offset(int i) {
    return kt4test::key_band_offset(g_card[i].keys->index());
}

// kt4card with card i's identity, then words.
std::vector<std::string> card_cmd(int i, const std::vector<std::string> &words) {
    std::vector<std::string> cmd = {KT4_CARD_TOOL, "--root", g_card[i].root};
    for (auto [flag, n] : {std::pair{"--key-offset", key_offset(i)},
                           {"--slot", g_card[i].slot},
                           {"--chassis", chassis()}})
        cmd.insert(cmd.end(), {flag, std::to_string(n)});
    cmd.insert(cmd.end(), words.begin(), words.end());
    return cmd;
}

uint32_t card_addr(int slot) {
    uint32_t addr = kNone, mask = 0;
    kt4GetCpuIpcAddr(slot, 1, &addr, &mask);
    return addr;
}

bool start_tmed(int i) {
    auto &c = g_card[i];
    // A port still held by a process of an earlier run (a server on its way out) is waited
    // for a few seconds, naming its holder, rather than failing the test at once.
    for (int attempt = 0;; ++attempt) {
        c.tmed = std::make_unique<Process>(card_cmd(i, {"run", "--service", "13", "--", KT4_TMED}));
        if (c.tmed->wait_for("serving look-ups", 20)) break;
        c.tmed->finish(5);
        if (attempt == 4 || c.tmed->text().find("Address already in use") == std::string::npos)
            return false;
        std::fprintf(stderr, "tmed's port is taken; its holders:\n");
        std::fflush(stderr);
        if (std::system("ss -uanp 'sport = :1665' >&2") != 0) {
        }
        sleep(1);
    }
    const std::string &t = c.tmed->text();
    const size_t at = t.find("(pid ", t.find("serving look-ups"));
    c.tmedPid = at != std::string::npos ? std::atoi(t.c_str() + at + 5) : -1;
    return c.tmedPid > 0;
}

// Stops card i's tmed (kt4card passes SIGTERM on): what it printed.
std::string stop_tmed(int i) {
    auto &c = g_card[i];
    if (!c.tmed) return "";
    kill(c.tmedPid, SIGCONT);
    kill(c.tmed->pid(), SIGTERM);
    c.tmed->finish(20);
    std::string text = c.tmed->text();
    c.tmed.reset();
    return text;
}

// One look-up through the public call: its address, with the status in *status.
uint32_t look_up(int service, int instance, int slot, int *status) {
    *status = -1;
    return kt4_tmeGetPeerIpAddrByNameAndSlot(service, instance, slot, status);
}

// Runs body as a task of card 0: in a child process that joins the card as a control process
// does and is gone before the card is taken down (a process must never outlive its card's
// locks). Its failures are the test's.
void on_card0(const std::function<void()> &body) {
    const pid_t pid = kt4test::fork_child([&] {
        std::string size = std::to_string(kCardBytes);
        char prog[] = "test_twocards";
        char *av[] = {prog, size.data(), nullptr};
        if (KT4_ProcShmInit(2, av) != 0 || KT4_InitShmSem(0) != 0) return false;
        body();
        return !::testing::Test::HasFailure();
    });
    ASSERT_GT(pid, 0);
    EXPECT_EQ(kt4test::wait_child(pid), 0);
}

class TwoCards : public ::testing::Test {
  protected:
    static void SetUpTestSuite() {
        // Identity c of the "card" pool is chassis c, slot 1; holding it gives this process
        // slots 0 and 1 of chassis c, since no other test process ever uses slot 0. Chassis 0
        // slot 0 is the card of programs started without an identity: not that one.
        // Kept for the whole process: a card's address, once formed, stays (--gtest_repeat).
        if (!g_chassis) g_chassis = std::make_unique<Reservation>("card", 16, 1 + getpid() % 15);
        if (g_chassis->index() == 0) g_chassis = std::make_unique<Reservation>("card", 16, 1);
        for (int i = 0; i < 2; ++i) {
            auto &c = g_card[i];
            c.slot = i;
            if (!c.keys)
                c.keys =
                    std::make_unique<Reservation>("keys", kt4test::kKeyBands, getpid() + 7 * i);
            char dir[] = "/tmp/kt4twocards.XXXXXX";
            ASSERT_NE(mkdtemp(dir), nullptr);
            c.root = dir;
            std::string out;
            ASSERT_EQ(kt4test::run_program(card_cmd(i, {"down", "--force"}), {}, &out), 0) << out;
            ASSERT_EQ(kt4test::run_program(card_cmd(i, {"up"}), {}, &out), 0) << out;
        }
        // This process runs with card 0's identity; its children join the card (on_card0).
        setenv("KT4_ROOT", g_card[0].root.c_str(), 1);
        setenv("KT4_SYSV_KEY_OFFSET", std::to_string(key_offset(0)).c_str(), 1);
        setenv("KT4_CHASSIS_ID", std::to_string(chassis()).c_str(), 1);
        setenv("KT4_SLOT", "0", 1);
        kt4CardReload();
    }

    static void TearDownTestSuite() {
        for (int i = 0; i < 2; ++i) {
            stop_tmed(i);
            std::string out;
            kt4test::run_program(card_cmd(i, {"down", "--force"}), {}, &out);
            rmdir(g_card[i].root.c_str());
        }
    }

    // Every test starts with both services up.
    void SetUp() override {
        for (int i = 0; i < 2; ++i)
            if (!g_card[i].tmed) {
                ASSERT_TRUE(start_tmed(i)) << g_card[i].tmed->text();
            }
    }
};

TEST_F(TwoCards, TaskOnCardZeroFindsAndMessagesATaskOnCardOne) {
    // The helper's task (201, 2) on card 1 answers one echo request.
    Process task(card_cmd(1, {"run", "--service", "201", "--instance", "2", "--",
                              kt4test::helper_path(), "task", "hello"}));
    on_card0([&] {
        int st = -1;
        uint32_t addr = kNone;
        ASSERT_TRUE(kt4test::eventually(
            [&] {
                addr = look_up(201, 2, 1, &st);
                return st == KT4_TME_PEER_FOUND;
            },
            20000));
        EXPECT_EQ(addr, card_addr(1));
        // Card 0's own table answers for slot 0 (and for any slot) without asking anyone:
        // the task is not there.
        EXPECT_EQ(look_up(201, 2, 0, &st), kNone);
        EXPECT_EQ(st, KT4_TME_PEER_UNKNOWN);
        EXPECT_EQ(look_up(201, 2, -1, &st), kNone);

        const int key = kt4IpcOpen(200, 1);
        ASSERT_EQ(key, 200 << 7 | 1 << 2);
        EXPECT_EQ(look_up(200, 1, 0, &st), card_addr(0));
        EXPECT_EQ(st, KT4_TME_PEER_FOUND);

        unsigned char buf[256] = {};
        kt4IpcSetSourceHeader(buf, 0, 200, 1);
        kt4IpcSetTargetHeader(buf, addr, 1, 201, 2);
        kt4IpcHdrSet(buf, KT4_IPC_HDR_LENGTH, KT4_IPC_HDR_LEN);
        const int n = kt4IpcSendWait(key, buf, sizeof buf, 10, kEchoType, 7);
        EXPECT_GT(n, KT4_IPC_HDR_LEN);
        EXPECT_EQ(std::string(reinterpret_cast<char *>(buf) + KT4_IPC_HDR_LEN).rfind("hello ", 0),
                  0u);
        EXPECT_EQ(kt4IpcHdrGet(buf, KT4_IPC_HDR_SRC_ADDR), card_addr(1));
        kt4IpcClose(key);
    });
    EXPECT_EQ(task.finish(), 0) << task.text();
}

TEST_F(TwoCards, LookUpOnACardWhoseManagerIsHungOrDownEndsNotFound) {
    on_card0([] {
        // tmed is itself a task of its card; an unknown task, a bad service and a slot without
        // a card address are answered as such.
        const struct {
            int service, slot, status;
            uint32_t addr;
        } cases[] = {{KT4_TME_SERVICE, 1, KT4_TME_PEER_FOUND, card_addr(1)},
                     {250, 1, KT4_TME_PEER_UNKNOWN, kNone},
                     {12, 1, KT4_TME_PEER_INVALID, kNone},
                     {KT4_TME_SERVICE, KT4_TME_MAX_SLOT + 1, KT4_TME_PEER_INVALID, kNone}};
        for (const auto &c : cases) {
            int st = -1;
            EXPECT_EQ(look_up(c.service, 0, c.slot, &st), c.addr) << c.service << "/" << c.slot;
            EXPECT_EQ(st, c.status) << c.service << "/" << c.slot;
        }
    });

    // The look-up of tmed on card 1, as card 0 sees it: how long it took.
    auto timed_miss = [] {
        on_card0([] {
            using Clock = std::chrono::steady_clock;
            const auto t0 = Clock::now();
            int st = -1;
            EXPECT_EQ(look_up(KT4_TME_SERVICE, 0, 1, &st), kNone);
            EXPECT_EQ(st, KT4_TME_PEER_UNKNOWN);
            const auto ms =
                std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - t0).count();
            EXPECT_LT(ms, 5000);
        });
    };
    // A service that does not answer: the look-up gives up after its bounded wait.
    ASSERT_EQ(kill(g_card[1].tmedPid, SIGSTOP), 0);
    timed_miss();
    kill(g_card[1].tmedPid, SIGCONT);
    // No service at all: the card refuses the request.
    EXPECT_NE(stop_tmed(1).find("tmed: stopped:"), std::string::npos);
    timed_miss();

    ASSERT_TRUE(start_tmed(1));
    on_card0([] {
        int st = -1;
        EXPECT_EQ(look_up(KT4_TME_SERVICE, 0, 1, &st), card_addr(1));
    });
}

// A request as an asker on card 0 sends it to card 1's service, from (addr, port).
std::vector<unsigned char> request(uint32_t transaction, int service, int instance, int slot,
                                   uint32_t from, uint16_t port) {
    std::vector<unsigned char> m(KT4_TME_PEER_REQ_LEN, 0);
    kt4IpcHdrSet(m.data(), KT4_IPC_HDR_MAGIC, KT4_IPC_MAGIC);
    kt4IpcHdrSet(m.data(), KT4_IPC_HDR_CMD_TYPE, KT4_IPC_CMD_REQ);
    kt4IpcHdrSet(m.data(), KT4_IPC_HDR_LENGTH, KT4_TME_PEER_REQ_LEN);
    kt4IpcHdrSet(m.data(), KT4_IPC_HDR_MSG_TYPE, KT4_TME_PEER_MSG_TYPE);
    kt4IpcHdrSet(m.data(), KT4_IPC_HDR_TRANSACTION, transaction);
    kt4IpcHdrSet(m.data(), KT4_IPC_HDR_SRC_ADDR, from);
    kt4IpcHdrSet(m.data(), KT4_IPC_HDR_SRC_QID, port);
    kt4IpcHdrSet(m.data(), KT4_IPC_HDR_TGT_SLOT, 1);
    kt4IpcHdrSet(m.data(), KT4_IPC_HDR_TGT_ADDR, card_addr(1));
    kt4::store_be32(&m[KT4_TME_PEER_REQ_SERVICE], static_cast<uint32_t>(service));
    kt4::store_be32(&m[KT4_TME_PEER_REQ_SERVICE + 4], static_cast<uint32_t>(instance));
    kt4::store_be32(&m[KT4_TME_PEER_REQ_SERVICE + 8], static_cast<uint32_t>(slot));
    return m;
}

TEST_F(TwoCards, ManagerDropsMalformedRequestsAndKeepsAnswering) {
    stop_tmed(1); // counters from zero
    ASSERT_TRUE(start_tmed(1));
    kt4test::UdpPeer asker(card_addr(0), 0);
    ASSERT_TRUE(asker.bound());
    sockaddr_in me{};
    socklen_t len = sizeof me;
    ASSERT_EQ(getsockname(asker.fd(), reinterpret_cast<sockaddr *>(&me), &len), 0);
    const uint16_t port = ntohs(me.sin_port);
    const uint16_t tmedPort =
        static_cast<uint16_t>(kt4_getQueueId(KT4_TME_SERVICE, 0, KT4_IPC_QUEUE_REQ));
    const uint32_t from = card_addr(0);
    auto send = [&](const std::vector<unsigned char> &m) {
        ASSERT_EQ(asker.send(card_addr(1), tmedPort, m), static_cast<long>(m.size()));
    };

    // Requests with one thing wrong reach the service, and none is answered: a field set to a
    // bad value, or the size changed (the length field agreeing, as the receive wants).
    struct Fault {
        kt4IpcHdrField field;
        uint32_t value;
    };
    const Fault faults[] = {
        {KT4_IPC_HDR_LENGTH, KT4_TME_PEER_REQ_LEN - 6}, // the body cut short
        {KT4_IPC_HDR_LENGTH, KT4_TME_PEER_REQ_LEN + 1}, // a byte too many
        {KT4_IPC_HDR_LENGTH, 4000},                     // more than the service's buffer
        {KT4_IPC_HDR_MSG_TYPE, KT4_TME_PEER_MSG_TYPE + 1},
        {KT4_IPC_HDR_CMD_TYPE, KT4_IPC_CMD_DEF}, // a plain send
        {KT4_IPC_HDR_SRC_ADDR, 0x08080808},      // the reply would leave the host
        {KT4_IPC_HDR_SRC_QID, 0},
    };
    for (const Fault &f : faults) {
        auto m = request(1, 13, 0, 1, from, port);
        if (f.field == KT4_IPC_HDR_LENGTH) m.resize(f.value, 0xA5);
        kt4IpcHdrSet(m.data(), f.field, f.value);
        send(m);
    }
    // Datagrams that are no IPC message at all never reach it (the receive drops them).
    send(std::vector<unsigned char>(KT4_IPC_HDR_LEN - 1, 0));
    send(std::vector<unsigned char>(100, 0x5A));

    // Still answering, in order, and only the requests.
    send(request(100, 13, 0, 1, from, port));
    send(request(101, 13, 0, 0, from, port)); // another card's slot: not its to answer
    send(request(102, 999, 0, 1, from, port));
    struct Want {
        uint32_t transaction, status, address;
    };
    for (const Want &w :
         {Want{100, KT4_TME_PEER_FOUND, card_addr(1)}, Want{101, KT4_TME_PEER_UNKNOWN, kNone},
          Want{102, KT4_TME_PEER_INVALID, kNone}}) {
        auto r = asker.recv(5000);
        ASSERT_EQ(r.size(), static_cast<size_t>(KT4_TME_PEER_RSP_LEN)) << w.transaction;
        EXPECT_EQ(kt4IpcHdrGet(r.data(), KT4_IPC_HDR_CMD_TYPE), KT4_IPC_CMD_RSP);
        EXPECT_EQ(kt4IpcHdrGet(r.data(), KT4_IPC_HDR_LENGTH), KT4_TME_PEER_RSP_LEN);
        EXPECT_EQ(kt4IpcHdrGet(r.data(), KT4_IPC_HDR_TRANSACTION), w.transaction);
        EXPECT_EQ(kt4IpcHdrGet(r.data(), KT4_IPC_HDR_TGT_QID), port);
        EXPECT_EQ(kt4::load_be32(&r[KT4_TME_PEER_RSP_STATUS]), w.status) << w.transaction;
        EXPECT_EQ(kt4::load_be32(&r[KT4_TME_PEER_RSP_ADDR]), w.address) << w.transaction;
    }
    EXPECT_TRUE(asker.recv(200).empty());

    const std::string text = stop_tmed(1);
    const size_t bad = std::size(faults);
    const std::string counts = "tmed: stopped: " + std::to_string(bad + 3) +
                               " requests, 3 answered, 1 found, " + std::to_string(bad) +
                               " malformed, 0 ready";
    EXPECT_NE(text.find(counts), std::string::npos) << text;
}

} // namespace
