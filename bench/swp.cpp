// Reliable queues between two processes, against raw one-way UDP of the same payloads.
//
//   Swp/<window>/<payload>      kt4SwpEnqueue of batches of 256 messages to a forked receiver
//                               that runs a receiving stream (kt4SwpRx*) and acknowledges;
//                               the sender keeps at most one batch unacknowledged, and holds
//                               nothing at the end of the run
//   SwpLoss/<window>/<payload>  the same through kt4relay dropping 1% each way
//   Raw/<payload>               sendto of the same payloads in windows of 64, each window
//                               answered by one credit datagram (so nothing is lost)
// Payloads are the application's bytes: an SWP message adds its 128 bytes of headers. The
// receiver counts what it delivered in order (and any message out of order) in memory shared
// across the fork; every run checks that count against what the sender sent, and a run whose
// far side saw less, or out of order, is an error, not a figure. The summary prints messages
// per second of each run and its ratio to the raw baseline of its payload.
#define KT4_TEST_ENV_NO_GTEST
#include "support/kt4_test_env.h"

#include <kt4/hostsim.h>
#include <kt4/ipc.h>
#include <kt4/swp.h>
#include <kt4/vx2bsd.h>

#include <benchmark/benchmark.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <new>
#include <string>

namespace {

constexpr int kSendSvc = 210, kRecvSvc = 211;
constexpr uint16_t kRawRecvPort = 50011, kRawSendPort = 50012;
constexpr uint32_t kBatch = 256;
constexpr int kRawWindow = 64;

struct Shared {
    std::atomic<long> delivered, bad, raw;
};
Shared *shared = nullptr;
pid_t receiver = -1;
pid_t relayPid = -1;
int relayInput = -1;
int sendKey = -1;
uint32_t handle = 0;
int rawFd = -1;
uint32_t cardAddr = 0, viaA = 0, viaB = 0;
std::map<std::string, double> rates;

void deliver(void *arg, const void *msg, int) {
    auto *next = static_cast<uint32_t *>(arg);
    const auto *m = static_cast<const unsigned char *>(msg) + KT4_SWP_MSG_MIN;
    uint32_t n = uint32_t{m[0]} << 24 | uint32_t{m[1]} << 16 | uint32_t{m[2]} << 8 | m[3];
    if (n != *next) shared->bad.fetch_add(1);
    *next = n + 1;
    shared->delivered.fetch_add(1);
}

int udp(uint32_t addr, uint16_t port) {
    int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_in sa{};
    sa.sin_family = AF_INET;
    sa.sin_addr.s_addr = htonl(addr);
    sa.sin_port = htons(port);
    if (fd < 0 || bind(fd, reinterpret_cast<sockaddr *>(&sa), sizeof sa) != 0) return -1;
    return fd;
}

void send_to(int fd, uint32_t addr, uint16_t port, const void *p, size_t n) {
    sockaddr_in to{};
    to.sin_family = AF_INET;
    to.sin_addr.s_addr = htonl(addr);
    to.sin_port = htons(port);
    sendto(fd, p, n, 0, reinterpret_cast<sockaddr *>(&to), sizeof to);
}

// The far side: delivers the stream in order and counts raw datagrams, crediting each window.
[[noreturn]] void receiver_main(int readyFd) {
    int key = kt4IpcOpen(kRecvSvc, 0);
    int raw = udp(cardAddr, kRawRecvPort);
    char c = key > 0 && raw >= 0 ? 'y' : 'n';
    if (write(readyFd, &c, 1) != 1 || c != 'y') _exit(1);
    uint32_t next = 0;
    kt4SwpRx *rx = kt4SwpRxCreate(key, 1024, deliver, &next);
    pollfd p[2] = {{Key_getSocketFd(key | KT4_IPC_QUEUE_REQ), POLLIN, 0}, {raw, POLLIN, 0}};
    unsigned char buf[4096];
    long rawCount = 0;
    for (;;) {
        if (poll(p, 2, 1) > 0) {
            if (p[0].revents & POLLIN) {
                int n = kt4IpcRecv(key | KT4_IPC_QUEUE_REQ, buf, sizeof buf, 1, 0, 0);
                if (n > 0) kt4SwpRxPut(rx, buf, n);
            }
            if (p[1].revents & POLLIN) {
                ssize_t n = recv(raw, buf, sizeof buf, 0);
                if (n > 0 && ++rawCount % kRawWindow == 0) {
                    shared->raw.store(rawCount);
                    send_to(raw, cardAddr, kRawSendPort, buf, 1);
                }
            }
        }
        kt4SwpRxPoll(rx, 5);
    }
}

// Hands acknowledgements and timer events to the queue until it holds at most limit.
void pump_until(uint32_t h, uint32_t limit) {
    pollfd p{Key_getSocketFd(sendKey | KT4_IPC_QUEUE_RSP), POLLIN, 0};
    unsigned char buf[512];
    for (uint32_t len = limit + 1; kt4SwpQueueGetLen(h, &len) == 0 && len > limit;) {
        if (poll(&p, 1, 10) <= 0) continue;
        int n = kt4IpcRecv(sendKey | KT4_IPC_QUEUE_RSP, buf, sizeof buf, 1, 0, 0);
        if (n > 0) kt4SwpProcMsg(buf, n);
    }
}

uint32_t seq_counter = 0;

void run_swp(benchmark::State &state, bool lossy) {
    const auto window = static_cast<uint32_t>(state.range(0));
    const auto payload = static_cast<uint32_t>(state.range(1));
    if (kt4SwpSetMwpQWinSize(handle, window) != KT4_SWP_SEQ_MATCH ||
        kt4SwpSetQOption(handle, KT4_SWP_OPT_RECEIVER_ADDR, lossy ? viaB : cardAddr) != 0) {
        state.SkipWithError("queue set-up failed");
        return;
    }
    const long start = shared->delivered.load();
    long sent = 0;
    kt4SwpQueueStatus before{};
    kt4SwpGetQueueStatus(handle, &before);
    const uint32_t retransBefore = before.retrans, timeoutsBefore = before.timeouts;
    for (auto _ : state) {
        for (uint32_t i = 0; i < kBatch; ++i) {
            const uint32_t len = KT4_SWP_MSG_MIN + payload;
            auto *m = static_cast<unsigned char *>(std::calloc(1, len));
            const uint32_t n = seq_counter++;
            m[KT4_SWP_MSG_MIN] = static_cast<unsigned char>(n >> 24);
            m[KT4_SWP_MSG_MIN + 1] = static_cast<unsigned char>(n >> 16);
            m[KT4_SWP_MSG_MIN + 2] = static_cast<unsigned char>(n >> 8);
            m[KT4_SWP_MSG_MIN + 3] = static_cast<unsigned char>(n);
            if (kt4SwpEnqueue(handle, m, len) != 0) {
                std::free(m);
                state.SkipWithError("enqueue failed");
                return;
            }
        }
        // Keeps a backlog of one batch: the stream never stops, as a real sender's does
        // not, so that a loss at the end of a batch does not wait for the timer.
        pump_until(handle, kBatch);
        sent += kBatch;
    }
    pump_until(handle, 0);
    for (int i = 0; i < 2000 && shared->delivered.load() - start < sent; ++i)
        usleep(1000);
    if (shared->delivered.load() - start != sent || shared->bad.load() != 0) {
        state.SkipWithError("the receiver did not deliver every message once, in order");
        return;
    }
    state.SetItemsProcessed(sent);
    kt4SwpQueueStatus st{};
    kt4SwpGetQueueStatus(handle, &st);
    state.counters["retrans"] = st.retrans - retransBefore;
    state.counters["timeouts"] = st.timeouts - timeoutsBefore;
}

void BM_Swp(benchmark::State &state) {
    run_swp(state, false);
}
void BM_SwpLoss(benchmark::State &state) {
    run_swp(state, true);
}

void BM_Raw(benchmark::State &state) {
    const auto payload = static_cast<size_t>(state.range(0));
    std::string msg(payload, 'x');
    const long start = shared->raw.load();
    long sent = 0;
    pollfd p{rawFd, POLLIN, 0};
    char credit[16];
    for (auto _ : state) {
        for (uint32_t i = 0; i < kBatch; i += kRawWindow) {
            for (int k = 0; k < kRawWindow; ++k)
                send_to(rawFd, cardAddr, kRawRecvPort, msg.data(), msg.size());
            if (poll(&p, 1, 1000) <= 0 || recv(rawFd, credit, sizeof credit, 0) <= 0) {
                state.SkipWithError("raw receiver lost a window");
                return;
            }
        }
        sent += kBatch;
    }
    if (shared->raw.load() - start != sent) {
        state.SkipWithError("the raw receiver did not count every datagram");
        return;
    }
    state.SetItemsProcessed(sent);
}

BENCHMARK(BM_Raw)->Arg(60)->Arg(512)->UseRealTime();
BENCHMARK(BM_Swp)->ArgsProduct({{1, 8, 64}, {60, 512}})->UseRealTime();
BENCHMARK(BM_SwpLoss)->ArgsProduct({{8, 64}, {60, 512}})->UseRealTime();

class Summary : public benchmark::ConsoleReporter {
  public:
    void ReportRuns(const std::vector<Run> &runs) override {
        ConsoleReporter::ReportRuns(runs);
        for (const Run &r : runs) {
            if (r.error_occurred) continue;
            auto it = r.counters.find("items_per_second");
            if (it != r.counters.end()) rates[r.benchmark_name()] = it->second;
        }
    }
};

void cleanup() {
    if (relayPid > 0) kill(relayPid, SIGTERM), waitpid(relayPid, nullptr, 0);
    if (receiver > 0) kill(receiver, SIGKILL), waitpid(receiver, nullptr, 0);
    if (relayInput >= 0) close(relayInput);
    // The card itself goes at exit (the test environment's handler), after the registry's
    // own exit handler has used its locks.
}

std::string dotted(uint32_t a) {
    in_addr in{htonl(a)};
    char buf[INET_ADDRSTRLEN];
    inet_ntop(AF_INET, &in, buf, sizeof buf);
    return buf;
}

pid_t start_relay() {
    char self[PATH_MAX];
    ssize_t n = readlink("/proc/self/exe", self, sizeof self - 1);
    if (n <= 0) return -1;
    self[n] = '\0';
    std::string relay = std::string(self).substr(0, std::string(self).rfind('/')) + "/kt4relay";
    // The relay runs until its input closes: it gets a pipe that stays open until cleanup.
    int out[2], in[2];
    if (pipe(out) != 0 || pipe(in) != 0) return -1;
    pid_t pid = fork();
    if (pid == 0) {
        dup2(out[1], 1);
        dup2(in[0], 0);
        std::string ack = std::to_string((sendKey | KT4_IPC_QUEUE_RSP) & 0xFFFF);
        std::string data = std::to_string(kt4_getQueueId(kRecvSvc, 0, KT4_IPC_QUEUE_REQ) & 0xFFFF);
        const char *loss = getenv("KT4_BENCH_SWP_LOSS"); // 0.01 unless set: a knob for study
        execl(relay.c_str(), "kt4relay", "--a", dotted(cardAddr).c_str(), "--b",
              dotted(cardAddr).c_str(), "--via-a", dotted(viaA).c_str(), "--via-b",
              dotted(viaB).c_str(), "--port", ack.c_str(), "--port", data.c_str(), "--loss",
              loss != nullptr ? loss : "0.01", "--seed", "1", static_cast<char *>(nullptr));
        _exit(127);
    }
    close(out[1]);
    close(in[0]);
    relayInput = in[1];
    char buf[256];
    std::string text;
    while (text.find("ready") == std::string::npos) {
        ssize_t r = read(out[0], buf, sizeof buf);
        if (r <= 0) return -1;
        text.append(buf, static_cast<size_t>(r));
    }
    return pid;
}

} // namespace

int main(int argc, char **argv) {
    benchmark::Initialize(&argc, argv);
    kt4test::Card &card = kt4test::Card::get();
    const kt4test::CardIdentity id = kt4test::card_identity();
    setenv("KT4_CHASSIS_ID", std::to_string(id.chassis).c_str(), 1);
    setenv("KT4_SLOT", std::to_string(id.slot).c_str(), 1);
    kt4CardReload();
    if (!card.up() || kt4VxToBsdInit(1, 1) != OK) {
        std::fprintf(stderr, "bench_swp: card set-up failed\n");
        return 1;
    }
    cardAddr = kt4IpcGetLocalCpuIpAddr();
    viaA = (127u << 24) | ((100u + id.chassis) << 16) | (id.slot << 8) | 1;
    viaB = viaA + 1;
    shared = static_cast<Shared *>(
        mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
    new (shared) Shared{};
    sendKey = kt4IpcOpen(kSendSvc, 0);
    rawFd = udp(cardAddr, kRawSendPort);
    int ready[2];
    if (sendKey <= 0 || rawFd < 0 || pipe(ready) != 0) return 1;
    std::fflush(nullptr);
    receiver = fork();
    if (receiver == 0) {
        kt4IpcProcessCleanup(sendKey);
        receiver_main(ready[1]);
    }
    char c = 0;
    if (read(ready[0], &c, 1) != 1 || c != 'y') {
        std::fprintf(stderr, "bench_swp: receiver failed\n");
        cleanup();
        return 1;
    }
    relayPid = start_relay();
    if (relayPid <= 0 ||
        kt4MwpQueueCreate_p(
            0, 0, 50, 255, kSendSvc, 0, sendKey, kRecvSvc, 0, 7000, nullptr, nullptr,
            [](void *p) { std::free(p); }, [](void *, uint32_t) {}, 1, &handle) != 0) {
        std::fprintf(stderr, "bench_swp: relay or queue set-up failed\n");
        cleanup();
        return 1;
    }
    Summary reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    std::printf("\nmessages per second, and relative to raw one-way UDP of the payload:\n");
    for (const auto &[name, rate] : rates) {
        std::string base = name.substr(0, name.find("/real_time"));
        std::string payload = base.substr(base.rfind('/') + 1);
        const std::string rawName = "BM_Raw/" + payload + "/real_time";
        double raw = rates.count(rawName) ? rates[rawName] : 0;
        std::printf("  %-28s %12.0f/s  %5.2fx raw\n", name.c_str(), rate, raw > 0 ? rate / raw : 0);
    }
    kt4SwpQueueRemove(handle);
    cleanup();
    return 0;
}
