// A stream through the lossy relay (tools/kt4relay): a real UDP hop in both directions that
// drops, duplicates, delays and reorders from a seeded generator. Every message must reach the
// receiving application exactly once and in order, the sender's window must stay full until
// the queue drains, and its retransmissions must account for what the relay took away.
#include "swp_test_util.h"

#include <cstdio>
#include <ctime>
#include <sstream>

namespace {

using namespace swptest;

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr uint32_t kDefaultMessages = 10000;
#else
constexpr uint32_t kDefaultMessages = 100000;
#endif

uint32_t env_u32(const char *name, uint32_t def) {
    const char *v = std::getenv(name);
    return v != nullptr && *v != '\0' ? static_cast<uint32_t>(std::strtoul(v, nullptr, 0)) : def;
}

using ipctest::dotted;

// The relay's closing counts of one direction.
struct DirStats {
    unsigned long received = 0, forwarded = 0, dropped = 0, duplicated = 0;
};
DirStats parse_dir(const std::string &text, const char *dir) {
    DirStats d;
    std::string key = std::string("kt4relay: ") + dir + " ";
    if (size_t at = text.find(key); at != std::string::npos)
        std::sscanf(text.c_str() + at + key.size(),
                    "received %lu forwarded %lu dropped %lu duplicated %lu", &d.received,
                    &d.forwarded, &d.dropped, &d.duplicated);
    return d;
}

struct Delivery {
    uint32_t next = 0;
    uint32_t bad = 0;
};

void deliver(void *arg, const void *msg, int) {
    auto *d = static_cast<Delivery *>(arg);
    if (payload_of(msg) != d->next) ++d->bad;
    ++d->next;
}

using SwpRelay = SwpFixture;

TEST_F(SwpRelay, LossDuplicationAndReorderingLoseNothingAndRetransmissionsAccountForIt) {
    const uint32_t n = env_u32("KT4_SWP_RELAY_MESSAGES", kDefaultMessages);
    const uint64_t seed = env_u32("KT4_SWP_RELAY_SEED", static_cast<uint32_t>(time(nullptr)));
    Child child(recvSvc_, [n](int rkey) {
        Delivery d;
        kt4SwpRx *rx = kt4SwpRxCreate(rkey, 256, deliver, &d);
        unsigned char buf[2048];
        // Serve until everything arrived and the sender has gone quiet (its last
        // acknowledgements may need answering again).
        auto lastMsg = std::chrono::steady_clock::now();
        for (;;) {
            int len = recv_within(rkey | KT4_IPC_QUEUE_REQ, buf, sizeof buf, 1);
            auto now = std::chrono::steady_clock::now();
            if (len > 0) {
                kt4SwpRxPut(rx, buf, len);
                lastMsg = now;
            }
            kt4SwpRxPoll(rx, 1);
            if (d.next >= n && now - lastMsg > std::chrono::seconds(3)) break;
            if (now - lastMsg > std::chrono::seconds(30)) break;
        }
        kt4SwpRxDestroy(rx);
        return std::to_string(d.next) + " " + std::to_string(d.bad);
    });
    ASSERT_TRUE(child.ready());

    // The relay's two addresses are this test process's own (its card identity is reserved).
    const kt4test::CardIdentity id = kt4test::card_identity();
    const uint32_t card = kt4IpcGetLocalCpuIpAddr();
    const uint32_t viaA = (127u << 24) | ((100u + id.chassis) << 16) | (id.slot << 8) | 1;
    const uint32_t viaB = viaA + 1;
    const int ackPort = (key_ | KT4_IPC_QUEUE_RSP) & 0xFFFF;
    const int dataPort = kt4_getQueueId(recvSvc_, 0, KT4_IPC_QUEUE_REQ) & 0xFFFF;
    // The relay's command line, as one would type it.
    std::istringstream words(
        "--a " + dotted(card) + " --b " + dotted(card) + " --via-a " + dotted(viaA) + " --via-b " +
        dotted(viaB) + " --port " + std::to_string(ackPort) + " --port " +
        std::to_string(dataPort) +
        " --loss 0.2 --dup 0.05 --reorder 0.05 --delay 0.01 --delay-ms 2 --seed " +
        std::to_string(seed));
    std::vector<std::string> args{KT4_RELAY_BIN};
    for (std::string w; words >> w;)
        args.push_back(w);
    kt4test::Process relay(args);
    ASSERT_TRUE(relay.wait_for("kt4relay: ready")) << relay.text();
    SCOPED_TRACE("relay " + relay.text().substr(0, relay.text().find('\n')));

    ASSERT_EQ(0u, kt4MwpQueueCreate_p(0, 0, 50, 255, sendSvc_, 0, key_, recvSvc_, 0, 7000, nullptr,
                                      nullptr, count_free, record_cb, 64, &h_));
    ASSERT_EQ(0u, kt4SwpSetQOption(h_, KT4_SWP_OPT_RECEIVER_ADDR, viaB));
    for (uint32_t i = 0; i < n; ++i)
        ASSERT_EQ(0u, kt4SwpEnqueue(h_, make_msg(160, i), 160));
    kt4SwpQueueStatus s{};
    kt4SwpGetQueueStatus(h_, &s);
    EXPECT_EQ(n, s.curLen);
    EXPECT_EQ(64u, s.inFlight); // the window is full, the rest waits
    EXPECT_TRUE(pump(
        key_ | KT4_IPC_QUEUE_RSP,
        [&] {
            kt4SwpGetQueueStatus(h_, &s);
            return s.curLen == 0;
        },
        240000));
    std::string got = child.result(60);
    relay.close_input();
    relay.finish(10);
    const DirStats ab = parse_dir(relay.text(), "a->b");
    const DirStats ba = parse_dir(relay.text(), "b->a");

    EXPECT_EQ(std::to_string(n) + " 0\n", got);
    EXPECT_EQ(-1, g_cb_status.load());
    kt4SwpGetQueueStatus(h_, &s);
    EXPECT_EQ(n, s.acks);
    EXPECT_EQ(160u * n, s.maxMemUsed);
    EXPECT_EQ(static_cast<int>(n), g_freed.load());
    // Every datagram the sender sent went through the relay; what the relay let through
    // covered each message at least once.
    EXPECT_EQ(uint64_t{n} + s.retrans - s.ipcFails, ab.received) << relay.text();
    EXPECT_GE(ab.received - ab.dropped + ab.duplicated, n);
    EXPECT_GT(ab.dropped, ab.received / 10);
    EXPECT_GT(ba.dropped, ba.received / 10);
    EXPECT_GT(s.retrans, ab.dropped / 2);
}

} // namespace
