// The configuration client against a running cfgd holding 100,000 records, and in the same
// binary the raw IPC send-and-wait of the same sizes against a forked echo server.
//
//   GetExact             kt4CfgGetExact of a random stored key (632-byte request and reply);
//                        every answer is checked against the key asked
//   IpcSendWait/632      kt4IpcSendWait of 632 bytes to a server that answers at once: the
//                        messaging under the same request, without the daemon's work
//   Insert               kt4CfgInsert: guaranteed one-way to cfgd, then its mirror to a
//                        second cfgd serving as the synchronisation daemon
//   InsertCommitted      an insert sent and waited for (cfgIpcSendWait, code 100): answered
//                        after its transaction committed
// The far sides count what they served: the echo server in shared memory, each cfgd in the
// counters it prints when stopped; both are checked against the client's counts, and the
// daemon's number of lines against the inserts. The summary prints each rate and the ratio of
// GetExact to the raw send-and-wait.
#define KT4_TEST_ENV_NO_GTEST
#include <kt4/cfg.h>
#include <kt4/hostsim.h>
#include <kt4/ipc.h>
#include <kt4/tme.h>

#include "support/kt4_test_env.h"

#include <benchmark/benchmark.h>

#include <fcntl.h>
#include <time.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <map>
#include <new>
#include <random>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

namespace {

constexpr int kClientSvc = 200, kEchoSvc = 201;
constexpr uint32_t kRecords = 100000;
constexpr uint32_t kEchoType = 7;
constexpr int kGetLen = KT4_CFG_REQ_HDR_LEN + KT4_CFG_RECORD_LEN;

int clientKey = -1;
pid_t cfgdPid = -1, echoPid = -1;
std::atomic<long> *echoServed = nullptr;
long waitedRequests = 0, oneWayInserts = 0, committedInserts = 0, bundles = 0;
uint32_t nextInsert = 0; // keys of the insert benchmarks, beyond the stored ones
bool failed = false;
std::map<std::string, double> rate;

std::string be(uint32_t v) {
    const unsigned char b[4] = {static_cast<unsigned char>(v >> 24),
                                static_cast<unsigned char>(v >> 16),
                                static_cast<unsigned char>(v >> 8), static_cast<unsigned char>(v)};
    return std::string(reinterpret_cast<const char *>(b), 4);
}

kt4CfgRecord record(uint32_t context, uint32_t key, const std::string &line) {
    kt4CfgRecord r{};
    r.context = context;
    const std::string k = be(key);
    std::memcpy(r.keyData, k.data(), 4);
    r.keyLen = 4;
    std::snprintf(r.cmdLine, sizeof r.cmdLine, "%s", line.c_str());
    return r;
}

std::string line_of(uint32_t i) {
    return "interface tengig 1/" + std::to_string(i) + " description bench";
}

struct Daemon {
    pid_t pid = -1;
    std::string log;
};

Daemon start_cfgd(const std::vector<std::string> &args, const std::string &log, int service) {
    Daemon d;
    d.log = log;
    std::fflush(nullptr);
    d.pid = fork();
    if (d.pid == 0) {
        const int fd = open(log.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        dup2(fd, 1);
        dup2(fd, 2);
        std::vector<char *> argv;
        for (const auto &a : args)
            argv.push_back(const_cast<char *>(a.c_str()));
        argv.push_back(nullptr);
        execv(argv[0], argv.data());
        _exit(127);
    }
    for (int i = 0; i < 5000 && kt4_tmeGetPeerIpAddrByName(service, 0, nullptr) == 0xFFFFFFFF; ++i)
        usleep(1000);
    return d;
}

// Stops a daemon and reads the requests it served from its last words.
long stop_cfgd(const Daemon &d) {
    kill(d.pid, SIGTERM);
    waitpid(d.pid, nullptr, 0);
    std::ifstream in(d.log);
    std::stringstream text;
    text << in.rdbuf();
    const std::string s = text.str();
    const size_t at = s.find("stopped: ");
    return at == std::string::npos ? -1 : std::atol(s.c_str() + at + 9);
}

[[noreturn]] void echo_server(int readyFd) {
    const int key = kt4IpcOpen(kEchoSvc, 0);
    char ok = key > 0 ? 'y' : 'n';
    if (write(readyFd, &ok, 1) != 1 || key <= 0) _exit(1);
    std::vector<unsigned char> in(KT4_CFG_8K_MSG);
    for (;;) {
        const int n = kt4IpcRecv(key | 1, in.data(), static_cast<int>(in.size()), 0, 0, 0);
        if (n < KT4_IPC_HDR_LEN) continue;
        if (kt4IpcHdrGet(in.data(), KT4_IPC_HDR_MSG_TYPE) != kEchoType) _exit(0);
        echoServed->fetch_add(1); // before the answer can reach the client
        kt4IpcReply(key, in.data(), n);
    }
}

// CPU seconds (user and system) a process has used, from /proc (clock-tick resolution).
double cpu_seconds(pid_t pid) {
    std::ifstream in("/proc/" + std::to_string(pid) + "/stat");
    std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    const size_t close = text.rfind(')');
    if (close == std::string::npos) return 0;
    std::istringstream fields(text.substr(close + 2));
    std::string f;
    unsigned long long utime = 0, stime = 0;
    for (int i = 3; i <= 15 && fields >> f; ++i) {
        if (i == 14) utime = std::stoull(f);
        if (i == 15) stime = std::stoull(f);
    }
    return static_cast<double>(utime + stime) / static_cast<double>(sysconf(_SC_CLK_TCK));
}
double thread_cpu_seconds() {
    timespec ts;
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
    return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) * 1e-9;
}

std::map<std::string, std::pair<double, double>> cpuPerOp; // client, server microseconds

struct Timer {
    std::chrono::steady_clock::time_point t0 = std::chrono::steady_clock::now();
    double cpu0 = thread_cpu_seconds();
    double far0;
    explicit Timer(pid_t far) : far0(cpu_seconds(far)), far_(far) {}
    void done(benchmark::State &state, const char *name) const {
        if (state.error_occurred()) return;
        const double s =
            std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
        const double n = static_cast<double>(state.iterations());
        const double ops = n / s;
        state.counters["ops_per_s"] = ops;
        // The last run has the most iterations: it is the one kept.
        rate[name] = ops;
        cpuPerOp[name] = {(thread_cpu_seconds() - cpu0) * 1e6 / n,
                          (cpu_seconds(far_) - far0) * 1e6 / n};
    }
    pid_t far_;
};

void GetExact(benchmark::State &state) {
    std::mt19937 rng(9);
    Timer t(cfgdPid);
    for (auto _ : state) {
        const uint32_t k = rng() % kRecords;
        kt4CfgRecord r = record(1, k, "");
        ++waitedRequests;
        if (kt4CfgGetExact(clientKey, &r) != KT4_CFG_ST_OK || line_of(k) != r.cmdLine) {
            state.SkipWithError("wrong answer");
            failed = true;
            break;
        }
    }
    t.done(state, "GetExact");
}

void IpcSendWait(benchmark::State &state) {
    const int len = static_cast<int>(state.range(0));
    std::vector<unsigned char> request(static_cast<size_t>(len), 0x5A);
    kt4IpcHdrSet(request.data(), KT4_IPC_HDR_LENGTH, static_cast<uint32_t>(len));
    kt4IpcHdrSet(request.data(), KT4_IPC_HDR_MSG_TYPE, kEchoType);
    kt4IpcHdrSet(request.data(), KT4_IPC_HDR_TRANSACTION, 1);
    kt4IpcSetSourceHeader(request.data(), 0, kClientSvc, 0);
    kt4IpcSetTargetHeader(request.data(), kt4IpcGetLocalCpuIpAddr(), 0, kEchoSvc, 0);
    auto m = request;
    const long start = echoServed->load();
    Timer t(echoPid);
    for (auto _ : state) {
        std::memcpy(m.data(), request.data(), KT4_IPC_HDR_LEN);
        if (kt4IpcSendWait(clientKey, m.data(), len, 2, kEchoType, 1) != len) {
            state.SkipWithError("no reply");
            failed = true;
            break;
        }
    }
    if (echoServed->load() - start != static_cast<long>(state.iterations())) {
        state.SkipWithError("the echo server counted otherwise");
        failed = true;
    }
    t.done(state, "IpcSendWait");
}

void Insert(benchmark::State &state) {
    Timer t(cfgdPid);
    for (auto _ : state) {
        kt4CfgRecord r = record(2, nextInsert++, "vlan bench");
        ++oneWayInserts;
        if (kt4CfgInsert(clientKey, &r) != 0) {
            state.SkipWithError("insert failed");
            failed = true;
            break;
        }
    }
    t.done(state, "Insert");
}

void InsertCommitted(benchmark::State &state) {
    Timer t(cfgdPid);
    for (auto _ : state) {
        // A change body by hand: context 2, key, line, the extra word.
        const std::string key = be(nextInsert++);
        const char line[] = "vlan bench";
        unsigned char body[16 + 4 + sizeof line + 4] = {};
        body[3] = 2;
        body[11] = 4;
        body[15] = sizeof line - 1;
        std::memcpy(body + 16, key.data(), 4);
        std::memcpy(body + 20, line, sizeof line);
        int status = -1;
        ++committedInserts;
        ++waitedRequests;
        if (cfgIpcSendWait(clientKey, KT4_CFG_CMD_INSERT, body, sizeof body, &status) < 0 ||
            status != KT4_CFG_ST_OK) {
            state.SkipWithError("insert not committed");
            failed = true;
            break;
        }
    }
    t.done(state, "InsertCommitted");
}

BENCHMARK(GetExact)->UseRealTime();
BENCHMARK(IpcSendWait)->Arg(kGetLen)->UseRealTime();
BENCHMARK(Insert)->UseRealTime();
BENCHMARK(InsertCommitted)->UseRealTime();

// 100,000 records in 8K bundles, then checked by count.
bool fill() {
    kt4CfgBndl b;
    kt4CfgBndlInit(&b);
    for (uint32_t i = 0; i < kRecords; ++i) {
        kt4CfgRecord r = record(1, i, line_of(i));
        if (kt4CfgBndlAdd(&b, KT4_CFG_CMD_INSERT, &r) != 0) {
            if (kt4CfgInsertBndl(clientKey, &b) != 0) return false;
            ++bundles;
            kt4CfgBndlInit(&b);
            if (kt4CfgBndlAdd(&b, KT4_CFG_CMD_INSERT, &r) != 0) return false;
        }
    }
    if (kt4CfgInsertBndl(clientKey, &b) != 0) return false;
    ++bundles;
    uint32_t lines = 0;
    ++waitedRequests;
    return kt4CfgGetDBNumberOfLines(clientKey, &lines) == KT4_CFG_ST_OK && lines == kRecords;
}

} // namespace

int main(int argc, char **argv) {
    kt4test::Card &card = kt4test::Card::get();
    if (!card.up()) return 1;
    echoServed = static_cast<std::atomic<long> *>(mmap(nullptr, sizeof(std::atomic<long>),
                                                       PROT_READ | PROT_WRITE,
                                                       MAP_SHARED | MAP_ANONYMOUS, -1, 0));
    if (echoServed == MAP_FAILED) return 1;
    new (echoServed) std::atomic<long>(0);

    int ready[2];
    if (pipe(ready) != 0) return 1;
    std::fflush(nullptr);
    const pid_t echo = fork();
    if (echo == 0) {
        close(ready[0]);
        echo_server(ready[1]);
    }
    close(ready[1]);
    char c = 0;
    if (read(ready[0], &c, 1) != 1 || c != 'y') return 1;
    close(ready[0]);
    echoPid = echo;

    // cfgd is built beside this program (build/<dir>/services/cfgd/cfgd); $KT4_CFGD overrides.
    std::string exe = argv[0];
    exe = exe.substr(0, exe.find_last_of('/') + 1) + "services/cfgd/cfgd";
    if (const char *e = std::getenv("KT4_CFGD")) exe = e;
    const std::string root = card.root();
    const Daemon cfgd =
        start_cfgd({exe, "--db", root + "/bench.db"}, root + "/cfgd.log", KT4_CFG_SERVICE);
    const Daemon syncd = start_cfgd({exe, "--sync", "--db", root + "/bench-sync.db"},
                                    root + "/cfgsync.log", KT4_CFG_SYNC_SERVICE);
    cfgdPid = cfgd.pid;
    clientKey = kt4IpcOpen(kClientSvc, 0);
    if (clientKey <= 0) return 1;
    const auto t0 = std::chrono::steady_clock::now();
    if (!fill()) {
        std::fprintf(stderr, "bench_cfg: could not store %u records\n", kRecords);
        failed = true;
    }
    std::printf("stored %u records in %.1f s\n", kRecords,
                std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count());
    nextInsert = kRecords;

    if (!failed) {
        benchmark::Initialize(&argc, argv);
        benchmark::RunSpecifiedBenchmarks();
        benchmark::Shutdown();
    }

    // The far sides' counts.
    uint32_t lines = 0;
    ++waitedRequests;
    const bool counted = kt4CfgGetDBNumberOfLines(clientKey, &lines) == KT4_CFG_ST_OK &&
                         lines == kRecords + oneWayInserts + committedInserts;
    std::vector<unsigned char> stop(KT4_IPC_HDR_LEN, 0);
    kt4IpcHdrSet(stop.data(), KT4_IPC_HDR_LENGTH, KT4_IPC_HDR_LEN);
    kt4IpcHdrSet(stop.data(), KT4_IPC_HDR_MSG_TYPE, kEchoType + 1);
    kt4IpcSetSourceHeader(stop.data(), 0, kClientSvc, 0);
    kt4IpcSetTargetHeader(stop.data(), kt4IpcGetLocalCpuIpAddr(), 0, kEchoSvc, 0);
    kt4IpcNonGuaranteedSend(clientKey, stop.data(), KT4_IPC_HDR_LEN);
    waitpid(echo, nullptr, 0);
    const long served = stop_cfgd(cfgd);
    const long mirrored = stop_cfgd(syncd);
    kt4IpcClose(clientKey); // the card itself goes at exit, after the library's own exit work

    // cfgd served every waited request, every one-way insert and the bundles of the fill;
    // the synchronisation daemon every one-way insert.
    std::printf("\ncfgd served %ld requests (client: %ld waited for, %ld inserts one-way, %ld "
                "bundles); the synchronisation daemon %ld (client: %ld mirrors); lines %u "
                "(expected %ld)\n",
                served, waitedRequests, oneWayInserts, bundles, mirrored, oneWayInserts, lines,
                static_cast<long>(kRecords) + oneWayInserts + committedInserts);
    const bool farOk =
        counted && mirrored == oneWayInserts && served == waitedRequests + oneWayInserts + bundles;
    if (!farOk) {
        std::printf("FAR SIDE MISMATCH\n");
        failed = true;
    }
    std::printf("\n%-16s %12s %14s %14s\n", "benchmark", "ops/s", "client CPU us", "server CPU us");
    for (const auto &[name, ops] : rate)
        std::printf("%-16s %12.0f %14.1f %14.1f\n", name.c_str(), ops, cpuPerOp[name].first,
                    cpuPerOp[name].second);
    if (rate.count("GetExact") != 0 && rate.count("IpcSendWait") != 0)
        std::printf("GetExact / IpcSendWait of %d bytes: %.2f\n", kGetLen,
                    rate["GetExact"] / rate["IpcSendWait"]);
    return failed ? 1 : 0;
}
