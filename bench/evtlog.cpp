// The event log into a running evtlogd, against plain UDP sockets sending as many datagrams of
// the same size, and the system-error formatter against snprintf.
//
//   LogMsg/<level>/<chars>  kt4EvtLogMsg of a text of 100 characters (one 968-byte record) or
//                        1001 (three: 500, 500 and 1) to the real evtlogd, started on the
//                        bench's own card. Level 8 goes by kt4IpcNonGuaranteedSend; level 3 by
//                        kt4IpcSend, which messaging never makes guaranteed towards the
//                        event-log server: neither waits for an acknowledgement.
//   RawOneWay/<chars>    as many 968-byte datagrams per record, sendto to a plain forked
//                        receiver that counts them
//   SysErr               kt4SysErr of an entry whose level (12) the key's mask leaves off: the
//                        key's check, the work buffer, the entry's look-up and the formatting,
//                        then the filters (mask, event handler, console echo); nothing is sent
//   Snprintf             snprintf of the same format and arguments into a buffer
//   PeerLookup           kt4_tmeGetPeerIpAddrByName of the event-log server
//
// Both senders go in windows of 30 datagrams with at most two windows in flight, so neither
// outruns its receiver and nothing is lost. The raw receiver answers each window with a credit.
// evtlogd answers nothing: the bench watches its log file (inotify) grow by the lines of the
// records sent (every line of a run has the same length: fixed-width fields, the same text).
// Every LogMsg run then asks evtlogd for its counters (SIGUSR1: a STATS line in its log) and
// checks that it took exactly the chunks sent and wrote exactly the records sent, none
// incomplete, nothing dropped, and that the file holds that many lines of the text sent; the
// raw receiver's count is checked against the sender's, and evtlogd's STOP line against
// everything sent. A run whose far side missed anything is an error, not a figure, and the
// program then ends with status 1. The raw receiver runs under the scheduling of evtlogd's
// receiving task (real-time unless KT4_NO_RT), both senders under the process's own.
// Before the runs, one record of the entry with its level switched on shows that kt4SysErr logs
// the text snprintf gives; a difference is reported, the figures are still taken, and the
// program ends with status 1.
//
// The summary (medians of the repetitions with the final iteration count) prints, per record,
// the rate (wall clock) and the sender's CPU time in its sends, each against the raw baseline;
// the sender's whole CPU time (its flow-control waits too: evtlogd wakes it with every line it
// writes, the raw receiver once a window); the CPU time of evtlogd (all its threads) and of
// the raw receiver. Then the CPU time of one kt4SysErr against one snprintf, and of the
// task-manager look-up of the event-log server that every record begins with.
#define KT4_TEST_ENV_NO_GTEST
#include <kt4/evt.h>
#include <kt4/hostsim.h>
#include <kt4/ipc.h>
#include <kt4/tme.h>
#include <kt4/vx2bsd.h>

#include "support/kt4_reserve.h"
#include "support/kt4_test_env.h"

#include <benchmark/benchmark.h>

#include <arpa/inet.h>
#include <dirent.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sched.h>
#include <signal.h>
#include <sys/inotify.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <new>
#include <string>
#include <vector>

namespace {

constexpr int kService = 140;  // the bench's endpoint: reports as facility 129
constexpr int kFacility = 129; // the facility the bench adds its entry to
constexpr int kWindow = 30;    // datagrams per window, both sides
constexpr int kDatagram = KT4_EVT_LOG_LEN;
constexpr uint16_t kRawServerPort = 50011, kRawClientPort = 50012;
constexpr int kStallMs = 5000; // a far side silent this long has lost something

// The system error both formatters produce.
#define SYSERR_FORMAT "peer %s went down (%d) after %u flaps, state 0x%08x, area %-6s|"
const kt4EvtError kEntries[] = {{1, 12, "PEER_DOWN", SYSERR_FORMAT}};

int evKey = -1;
pid_t evtlogdPid = -1, rawPid = -1;
std::string logPath;
bool farSideMismatch = false;
long sentRecords = 0, sentChunks = 0; // by kt4EvtLogMsg and kt4SysErr, over the whole program

std::atomic<long> *rawServed = nullptr; // counted by the raw receiver, in shared memory

std::string text_of(size_t n) {
    std::string s(n, ' ');
    for (size_t i = 0; i < n; ++i)
        s[i] = static_cast<char>('a' + i % 26);
    return s;
}

long count_of(const std::string &hay, const std::string &needle) {
    long n = 0;
    for (size_t at = hay.find(needle); at != std::string::npos; at = hay.find(needle, at + 1))
        ++n;
    return n;
}

// ---- evtlogd's log file -------------------------------------------------------------------

// The log file as the bench sees it: its size, woken by inotify when evtlogd writes.
class LogWatch {
  public:
    bool open(const std::string &path) {
        fd_ = ::open(path.c_str(), O_RDWR | O_CLOEXEC);
        ifd_ = inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
        return fd_ >= 0 && ifd_ >= 0 && inotify_add_watch(ifd_, path.c_str(), IN_MODIFY) >= 0;
    }
    void close() {
        if (fd_ >= 0) ::close(fd_);
        if (ifd_ >= 0) ::close(ifd_);
        fd_ = ifd_ = -1;
    }
    off_t size() const {
        struct stat st {};
        return fstat(fd_, &st) == 0 ? st.st_size : -1;
    }
    // Empties the file (evtlogd appends, so its next line starts it again) and the events.
    bool truncate() {
        if (ftruncate(fd_, 0) != 0) return false;
        drain();
        return true;
    }
    // Waits until the file holds at least bytes; false when it did not grow for kStallMs.
    bool wait_size(off_t bytes) {
        off_t last = size();
        auto quiet = std::chrono::steady_clock::now();
        while (last < bytes) {
            wait_event(100);
            const off_t now = size();
            if (now != last) {
                last = now;
                quiet = std::chrono::steady_clock::now();
            } else if (std::chrono::steady_clock::now() - quiet >
                       std::chrono::milliseconds(kStallMs)) {
                return false;
            }
        }
        return true;
    }
    std::string read_from(off_t from) const {
        std::string out;
        char buf[1 << 16];
        for (off_t at = from;;) {
            const ssize_t n = pread(fd_, buf, sizeof buf, at);
            if (n <= 0) break;
            out.append(buf, static_cast<size_t>(n));
            at += n;
        }
        return out;
    }

    // Waits at most ms for the file to change.
    void wait_event(int ms) {
        pollfd p{ifd_, POLLIN, 0};
        poll(&p, 1, ms);
        drain();
    }

  private:
    void drain() {
        alignas(inotify_event) char ev[4096];
        while (read(ifd_, ev, sizeof ev) > 0) {
        }
    }
    int fd_ = -1, ifd_ = -1;
};
LogWatch watch;

// evtlogd's counters, from one of its STATS or STOP lines.
struct Counts {
    long chunks = -1, records = -1, incomplete = -1, dropped = -1;
};

bool parse_counts(const std::string &line, Counts &c) {
    auto num = [&line](const char *name) {
        const size_t at = line.find(name);
        return at == std::string::npos ? -1L : std::atol(line.c_str() + at + std::strlen(name));
    };
    c = {num(" chunks="), num(" records="), num(" incomplete="), num(" dropped=")};
    return c.chunks >= 0 && c.records >= 0 && c.incomplete >= 0 && c.dropped >= 0;
}

// The line of kind what ("STATS", "STOP") at or after from, complete.
bool line_of_kind(const std::string &text, const char *what, Counts &c) {
    const size_t at = text.find(std::string(" ") + what + " evtlogd ");
    if (at == std::string::npos) return false;
    const size_t end = text.find('\n', at);
    return end != std::string::npos && parse_counts(text.substr(at, end - at), c);
}

// Asks evtlogd for its counters (SIGUSR1) and reads them from the STATS line it writes.
bool stats(Counts &c) {
    const off_t from = watch.size();
    if (kill(evtlogdPid, SIGUSR1) != 0) return false;
    const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(kStallMs);
    while (!line_of_kind(watch.read_from(from), "STATS", c)) {
        if (std::chrono::steady_clock::now() > end) return false;
        watch.wait_event(100);
    }
    return true;
}

void mismatch(benchmark::State &state, const std::string &why) {
    state.SkipWithError(why.c_str());
    std::fprintf(stderr, "bench_evtlog: %s\n", why.c_str());
    farSideMismatch = true;
}

// ---- the raw baseline ---------------------------------------------------------------------

sockaddr_in local(uint16_t port) {
    sockaddr_in sa{};
    sa.sin_family = AF_INET;
    sa.sin_port = htons(port);
    sa.sin_addr.s_addr = htonl(kt4IpcGetLocalCpuIpAddr());
    return sa;
}

int raw_socket(uint16_t port) {
    int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    int buf = 129024; // what the messaging layer asks for its queue sockets
    setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &buf, sizeof buf);
    timeval tv{kStallMs / 1000, 0};
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
    sockaddr_in sa = local(port);
    if (bind(fd, reinterpret_cast<sockaddr *>(&sa), sizeof sa) != 0) {
        std::perror("bench_evtlog: bind");
        _exit(2);
    }
    return fd;
}

// Counts the datagrams ('O') and credits every window; 'S' ends it.
[[noreturn]] void raw_server(int readyFd) {
    int fd = raw_socket(kRawServerPort);
    char ok = 'y';
    if (write(readyFd, &ok, 1) != 1) _exit(1);
    std::vector<unsigned char> in(4096);
    for (long n = 0;;) {
        sockaddr_in from{};
        socklen_t fl = sizeof from;
        const long got =
            recvfrom(fd, in.data(), in.size(), 0, reinterpret_cast<sockaddr *>(&from), &fl);
        if (got <= 0) continue;
        if (in[0] == 'S') _exit(0);
        if (in[0] != 'O') continue;
        rawServed->fetch_add(1);
        if (++n % kWindow == 0) sendto(fd, "C", 1, 0, reinterpret_cast<sockaddr *>(&from), fl);
    }
}

// ---- timing -------------------------------------------------------------------------------

double thread_cpu_seconds() {
    timespec ts;
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
    return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) * 1e-9;
}

// CPU time of every thread of process pid so far, in seconds (the kernel's run-time account).
double process_cpu_seconds(pid_t pid) {
    const std::string dir = "/proc/" + std::to_string(pid) + "/task";
    double sum = 0;
    if (DIR *d = opendir(dir.c_str())) {
        while (dirent *e = readdir(d)) {
            if (e->d_name[0] == '.') continue;
            if (FILE *f = std::fopen((dir + "/" + e->d_name + "/schedstat").c_str(), "r")) {
                unsigned long long ns = 0;
                if (std::fscanf(f, "%llu", &ns) == 1) sum += static_cast<double>(ns) * 1e-9;
                std::fclose(f);
            }
        }
        closedir(d);
    }
    return sum;
}

struct Run {
    int64_t iterations;
    double opsPerSecond;
    double cpuUsecPerOp;
    double sendUsecPerOp; // the sending alone, without the waits of the flow control
    double serverUsecPerOp;
};
std::map<std::string, std::vector<Run>> runs;

struct Timer {
    pid_t server = -1; // whose CPU time is counted too (none: -1)
    double server0 = server > 0 ? process_cpu_seconds(server) : 0;
    std::chrono::steady_clock::time_point t0 = std::chrono::steady_clock::now();
    double cpu0 = thread_cpu_seconds();
    // Records the run under name, with per operations in each iteration.
    // sendCpu: the sender's CPU seconds in its sends alone (negative: not measured).
    void done(benchmark::State &state, const std::string &name, int per,
              double sendCpu = -1) const {
        if (state.error_occurred()) return;
        const double s =
            std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
        const double cpu = thread_cpu_seconds() - cpu0;
        const double n = static_cast<double>(state.iterations()) * per;
        const double srv = server > 0 ? process_cpu_seconds(server) - server0 : 0;
        const double send = sendCpu < 0 ? cpu : sendCpu;
        runs[name].push_back({static_cast<int64_t>(state.iterations()), n / s, cpu * 1e6 / n,
                              send * 1e6 / n, srv * 1e6 / n});
        state.counters["ops_per_s"] = n / s;
        state.counters["cpu_us_per_op"] = cpu * 1e6 / n;
        state.counters["send_us_per_op"] = send * 1e6 / n;
        if (server > 0) state.counters["server_us_per_op"] = srv * 1e6 / n;
    }
};

// ---- the benchmarks -----------------------------------------------------------------------

void LogMsg(benchmark::State &state) {
    const int level = static_cast<int>(state.range(0));
    const size_t chars = static_cast<size_t>(state.range(1));
    const std::string name = "LogMsg/" + std::to_string(level) + "/" + std::to_string(chars);
    const std::string text = text_of(chars);
    std::string buf = text;
    const long chunks = static_cast<long>((chars + KT4_EVT_CHUNK - 1) / KT4_EVT_CHUNK);
    const long window = kWindow / chunks;

    Counts before;
    if (!stats(before) || !watch.truncate()) {
        mismatch(state, name + ": no counters from evtlogd");
        return;
    }
    // One record first: its line's length is the length of every line of the run.
    long sent = 0;
    bool ok = kt4EvtLogMsg(evKey, level, kFacility, 1, nullptr, buf.data()) == 0;
    sent += ok ? 1 : 0;
    ok = ok && watch.wait_size(1);
    const off_t line = watch.size();
    ok = ok && line > static_cast<off_t>(chars) && watch.read_from(line - 1) == "\n";
    if (!ok) {
        mismatch(state, name + ": the first record was not logged");
        sentRecords += sent, sentChunks += sent * chunks;
        return;
    }
    double sendCpu = 0;
    Timer t{evtlogdPid};
    for (auto _ : state) {
        const double c0 = thread_cpu_seconds();
        for (long i = 0; i < window && ok; ++i) {
            ok = kt4EvtLogMsg(evKey, level, kFacility, 1, nullptr, buf.data()) == 0;
            sent += ok ? 1 : 0;
        }
        sendCpu += thread_cpu_seconds() - c0;
        // At most two windows in flight: the one before this one must be written.
        ok = ok && watch.wait_size(line * (sent - window));
        if (!ok) {
            mismatch(state, name + ": a send failed or evtlogd fell silent");
            break;
        }
    }
    if (ok && !watch.wait_size(line * sent)) {
        ok = false;
        mismatch(state, name + ": evtlogd fell silent");
    }
    t.done(state, name, static_cast<int>(window), sendCpu);
    sentRecords += sent, sentChunks += sent * chunks;
    if (!ok) return;

    // The far side's account of the run.
    Counts after;
    const std::string all = watch.read_from(0);
    const long lines = count_of(all, " LOG ");
    const long whole = count_of(all, ": " + text + "\n");
    if (!stats(after)) {
        mismatch(state, name + ": no counters from evtlogd");
        return;
    }
    char why[256];
    std::snprintf(why, sizeof why,
                  "%s: sent %ld records, %ld chunks; evtlogd took %ld chunks, wrote %ld records "
                  "(%ld incomplete, %ld dropped); the file has %ld LOG lines, %ld of the text",
                  name.c_str(), sent, sent * chunks, after.chunks - before.chunks,
                  after.records - before.records, after.incomplete - before.incomplete,
                  after.dropped - before.dropped, lines, whole);
    if (after.chunks - before.chunks != sent * chunks || after.records - before.records != sent ||
        after.incomplete != before.incomplete || after.dropped != before.dropped || lines != sent ||
        whole != sent)
        mismatch(state, why);
    state.SetItemsProcessed(sent);
}

void RawOneWay(benchmark::State &state) {
    const size_t chars = static_cast<size_t>(state.range(0));
    const long chunks = static_cast<long>((chars + KT4_EVT_CHUNK - 1) / KT4_EVT_CHUNK);
    const long window = kWindow / chunks;
    int fd = raw_socket(kRawClientPort);
    std::vector<unsigned char> m(kDatagram, 0x5A);
    m[0] = 'O';
    const sockaddr_in to = local(kRawServerPort);
    const long start = rawServed->load();
    long windows = 0, credits = 0;
    bool ok = true;
    auto credit = [&] {
        char c = 0;
        ok = recvfrom(fd, &c, 1, 0, nullptr, nullptr) == 1 && c == 'C';
        credits += ok ? 1 : 0;
    };
    double sendCpu = 0;
    Timer t{rawPid};
    for (auto _ : state) {
        const double c0 = thread_cpu_seconds();
        for (long i = 0; i < window * chunks; ++i)
            sendto(fd, m.data(), m.size(), 0, reinterpret_cast<const sockaddr *>(&to), sizeof to);
        sendCpu += thread_cpu_seconds() - c0;
        ++windows;
        while (ok && windows - credits > 1)
            credit();
        if (!ok) {
            state.SkipWithError("no credit");
            break;
        }
    }
    while (ok && credits < windows)
        credit();
    t.done(state, "RawOneWay/" + std::to_string(chars), static_cast<int>(window), sendCpu);
    close(fd);
    const long got = rawServed->load() - start;
    if (!ok || got != windows * kWindow) {
        char why[128];
        std::snprintf(why, sizeof why,
                      "RawOneWay/%zu: sent %ld datagrams, the receiver counted %ld", chars,
                      windows * kWindow, got);
        mismatch(state, why);
    }
}

// The arguments of both formatters, kept from the compiler's view.
const char *argPeer = "10.0.0.1", *argArea = "core";
int argCode = -4;
unsigned argFlaps = 17, argState = 0xbeefu;

void SysErr(benchmark::State &state) {
    kt4EvtArg a[5];
    a[0].s = argPeer;
    a[1].i = argCode;
    a[2].i = argFlaps;
    a[3].i = argState;
    a[4].s = argArea;
    Timer t;
    for (auto _ : state) {
        if (kt4SysErr(evKey, 1, a, 5) != 0) {
            state.SkipWithError("kt4SysErr failed");
            break;
        }
    }
    t.done(state, "SysErr", 1);
}

// What every record asks the task manager's table first: the event-log server's address.
void PeerLookup(benchmark::State &state) {
    Timer t;
    for (auto _ : state) {
        if (kt4_tmeGetPeerIpAddrByName(KT4_EVT_LOG_SERVICE, 0, nullptr) == 0xFFFFFFFFu) {
            state.SkipWithError("no event-log server");
            break;
        }
    }
    t.done(state, "PeerLookup", 1);
}

void Snprintf(benchmark::State &state) {
    char buf[2048];
    Timer t;
    for (auto _ : state) {
        const char *peer = argPeer, *area = argArea;
        int code = argCode;
        unsigned flaps = argFlaps, st = argState;
        benchmark::DoNotOptimize(peer);
        benchmark::DoNotOptimize(code);
        benchmark::DoNotOptimize(flaps);
        benchmark::DoNotOptimize(st);
        benchmark::DoNotOptimize(area);
        int n = std::snprintf(buf, sizeof buf, SYSERR_FORMAT, peer, code, flaps, st, area);
        benchmark::DoNotOptimize(n);
        benchmark::DoNotOptimize(buf);
    }
    t.done(state, "Snprintf", 1);
}

BENCHMARK(LogMsg)->Args({8, 100})->Args({3, 100})->Args({8, 1001})->Args({3, 1001})->UseRealTime();
BENCHMARK(RawOneWay)->Arg(100)->Arg(1001)->UseRealTime();
BENCHMARK(SysErr);
BENCHMARK(Snprintf);
BENCHMARK(PeerLookup);

// ---- set-up and summary -------------------------------------------------------------------

// The text kt4SysErr formats is the text snprintf gives: checked once through a record of the
// entry's level, switched on for the moment.
bool same_text() {
    char expect[512];
    std::snprintf(expect, sizeof expect, SYSERR_FORMAT, argPeer, argCode, argFlaps, argState,
                  argArea);
    const off_t from = watch.size();
    kt4EvtArg a[5];
    a[0].s = argPeer, a[1].i = argCode, a[2].i = argFlaps, a[3].i = argState, a[4].s = argArea;
    const uint32_t mask = KT4_EVT_DEFAULT_MASK | 1u << 8;
    bool ok = kt4EvtSetSeverityLevel(evKey, mask | 1u << 12) == 0 && kt4SysErr(evKey, 1, a, 5) == 0;
    if (ok) ++sentRecords, ++sentChunks;
    ok = kt4EvtSetSeverityLevel(evKey, mask) == 0 && ok && watch.wait_size(from + 1);
    const std::string got = watch.read_from(from);
    const std::string want = " sev=12 fac=129 err=1 ";
    if (!ok || got.find(want) == std::string::npos ||
        got.find(" tag=PEER_DOWN: " + std::string(expect) + "\n") == std::string::npos) {
        std::fprintf(stderr, "bench_evtlog: kt4SysErr's record is not the snprintf text '%s': %s\n",
                     expect, got.c_str());
        return false;
    }
    return true;
}

void summary() {
    std::map<std::string, Run> med;
    for (auto &[name, rs] : runs) {
        int64_t most = 0;
        for (const Run &r : rs)
            most = std::max(most, r.iterations);
        std::vector<Run> v;
        for (const Run &r : rs)
            if (r.iterations == most) v.push_back(r);
        std::sort(v.begin(), v.end(),
                  [](const Run &a, const Run &b) { return a.opsPerSecond < b.opsPerSecond; });
        Run m = v[v.size() / 2];
        std::sort(v.begin(), v.end(),
                  [](const Run &a, const Run &b) { return a.cpuUsecPerOp < b.cpuUsecPerOp; });
        m.cpuUsecPerOp = v[v.size() / 2].cpuUsecPerOp;
        std::sort(v.begin(), v.end(),
                  [](const Run &a, const Run &b) { return a.sendUsecPerOp < b.sendUsecPerOp; });
        m.sendUsecPerOp = v[v.size() / 2].sendUsecPerOp;
        std::sort(v.begin(), v.end(),
                  [](const Run &a, const Run &b) { return a.serverUsecPerOp < b.serverUsecPerOp; });
        m.serverUsecPerOp = v[v.size() / 2].serverUsecPerOp;
        med[name] = m;
    }
    std::printf("\n%-14s %-15s %8s %8s %6s %8s %8s %6s %8s %8s %8s %8s\n", "library", "baseline",
                "rec/s", "base/s", "ratio", "send us", "base us", "ratio", "lib cpu", "base cpu",
                "srv us", "recv us");
    auto row = [&med](const std::string &lib, const std::string &base) {
        auto l = med.find(lib), b = med.find(base);
        if (l == med.end() || b == med.end()) return;
        const Run &x = l->second, &y = b->second;
        std::printf("%-14s %-15s %8.0f %8.0f %6.2f %8.2f %8.2f %6.2f %8.2f %8.2f %8.2f %8.2f\n",
                    lib.c_str(), base.c_str(), x.opsPerSecond, y.opsPerSecond,
                    x.opsPerSecond / y.opsPerSecond, x.sendUsecPerOp, y.sendUsecPerOp,
                    x.sendUsecPerOp / y.sendUsecPerOp, x.cpuUsecPerOp, y.cpuUsecPerOp,
                    x.serverUsecPerOp, y.serverUsecPerOp);
    };
    for (const char *chars : {"100", "1001"})
        for (const char *level : {"8", "3"})
            row(std::string("LogMsg/") + level + "/" + chars, std::string("RawOneWay/") + chars);
    std::printf("(per record. rec/s: wall clock, above 1 the library is faster. send us: the "
                "sender's CPU in its sends, above 1 the library costs more. lib/base cpu: the "
                "sender's whole CPU, its flow-control waits too. srv/recv us: CPU of evtlogd, "
                "all its threads, and of the raw receiver)\n");
    auto s = med.find("SysErr"), p = med.find("Snprintf");
    if (s != med.end() && p != med.end())
        std::printf("\nkt4SysErr, level filtered out: %.0f ns CPU; snprintf of the same: %.0f ns; "
                    "ratio %.2f\n",
                    s->second.cpuUsecPerOp * 1e3, p->second.cpuUsecPerOp * 1e3,
                    s->second.cpuUsecPerOp / p->second.cpuUsecPerOp);
    if (auto l = med.find("PeerLookup"); l != med.end())
        std::printf("the event-log server's address from the task manager's table (every "
                    "record's first step): %.0f ns CPU\n",
                    l->second.cpuUsecPerOp * 1e3);
}

void print_load(const char *when) {
    double l[3] = {};
    if (getloadavg(l, 3) == 3)
        std::printf("load average %s: %.2f %.2f %.2f\n", when, l[0], l[1], l[2]);
}

pid_t start_raw_server() {
    int p[2];
    if (pipe(p) != 0) return -1;
    std::fflush(nullptr);
    const pid_t pid = fork();
    if (pid == 0) {
        close(p[0]);
        raw_server(p[1]);
    }
    close(p[1]);
    char c = 0;
    const bool ok = read(p[0], &c, 1) == 1 && c == 'y';
    close(p[0]);
    return ok ? pid : -1;
}

// The thread of process pid named comm, -1 when there is none.
pid_t thread_named(pid_t pid, const char *comm) {
    const std::string dir = "/proc/" + std::to_string(pid) + "/task";
    pid_t found = -1;
    if (DIR *d = opendir(dir.c_str())) {
        while (dirent *e = readdir(d)) {
            if (e->d_name[0] == '.') continue;
            char name[32] = "";
            if (FILE *f = std::fopen((dir + "/" + e->d_name + "/comm").c_str(), "r")) {
                if (std::fgets(name, sizeof name, f) == nullptr) name[0] = '\0';
                std::fclose(f);
            }
            name[std::strcspn(name, "\n")] = '\0';
            if (std::strcmp(name, comm) == 0) found = static_cast<pid_t>(std::atoi(e->d_name));
        }
        closedir(d);
    }
    return found;
}

// Puts the raw receiver under the scheduling of evtlogd's receiving task (a task gets real-time
// scheduling unless KT4_NO_RT says otherwise), so both receivers are woken alike.
bool same_scheduling() {
    const pid_t task = thread_named(evtlogdPid, "tEvtLog");
    sched_param sp{};
    const int policy = task > 0 ? sched_getscheduler(task) : -1;
    if (policy < 0 || sched_getparam(task, &sp) != 0 ||
        sched_setscheduler(rawPid, policy, &sp) != 0) {
        std::perror("bench_evtlog: the raw receiver cannot take evtlogd's scheduling");
        return false;
    }
    std::printf("evtlogd's receiving task and the raw receiver under policy %d, priority %d; the "
                "senders under policy %d\n",
                policy, sp.sched_priority, sched_getscheduler(0));
    return true;
}

pid_t start_evtlogd(const std::string &exe, const std::string &root) {
    std::fflush(nullptr);
    const pid_t pid = fork();
    if (pid == 0) {
        const int fd = open((root + "/evtlogd.err").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        dup2(fd, 1);
        dup2(fd, 2);
        execl(exe.c_str(), "evtlogd", "--foreground", "--log", logPath.c_str(), "--rotate-bytes",
              "1099511627776", static_cast<char *>(nullptr));
        _exit(127);
    }
    return pid;
}

} // namespace

int main(int argc, char **argv) {
    // The bench's own card, as a CPU whose processes register with the event-log server itself.
    kt4test::Card &card = kt4test::Card::get();
    const kt4test::CardIdentity id = kt4test::card_identity();
    setenv("KT4_CHASSIS_ID", std::to_string(id.chassis).c_str(), 1);
    setenv("KT4_SLOT", std::to_string(id.slot).c_str(), 1);
    setenv("KT4_CPU", "4", 1);
    unsetenv("KT4_PLATFORM_TYPE");
    kt4CardReload();
    if (!card.up()) return 1;

    rawServed = static_cast<std::atomic<long> *>(mmap(nullptr, sizeof(std::atomic<long>),
                                                      PROT_READ | PROT_WRITE,
                                                      MAP_SHARED | MAP_ANONYMOUS, -1, 0));
    if (rawServed == MAP_FAILED) return 1;
    new (rawServed) std::atomic<long>(0);
    rawPid = start_raw_server(); // before the tasking layer starts its threads
    if (rawPid < 0 || kt4VxToBsdInit(1, 1) != OK) {
        std::fprintf(stderr, "bench_evtlog: the raw receiver or the tasking layer did not start\n");
        return 1;
    }

    // evtlogd is built beside this program (build/<dir>/services/evtlogd/evtlogd);
    // $KT4_EVTLOGD overrides.
    std::string exe = argv[0];
    exe = exe.substr(0, exe.find_last_of('/') + 1) + "services/evtlogd/evtlogd";
    if (const char *e = std::getenv("KT4_EVTLOGD")) exe = e;
    if (access(exe.c_str(), X_OK) != 0) {
        std::fprintf(stderr, "bench_evtlog: no evtlogd at %s (build it, or set KT4_EVTLOGD)\n",
                     exe.c_str());
        return 1;
    }
    logPath = card.root() + "/evtlog.log";
    evtlogdPid = start_evtlogd(exe, card.root());
    bool up = false;
    for (int i = 0; i < 10000 && !up; ++i) {
        up = kt4_tmeGetPeerIpAddrByName(KT4_EVT_LOG_SERVICE, 0, nullptr) != 0xFFFFFFFFu &&
             watch.open(logPath);
        if (!up) {
            watch.close();
            usleep(1000);
        }
    }
    if (!up) {
        std::fprintf(stderr, "bench_evtlog: evtlogd did not start (see %s/evtlogd.err)\n",
                     card.root().c_str());
        kill(evtlogdPid, SIGKILL);
        return 1;
    }
    evKey = kt4EvtOpenlog(kService, 0);
    bool ready = evKey >= KT4_EVT_KEY_BASE &&
                 kt4EvtSetSeverityLevel(evKey, KT4_EVT_DEFAULT_MASK | 1u << 8) == 0 &&
                 kt4EvtAddFacility(kFacility, "BGP", kEntries, 1) == 0 && same_scheduling();
    if (!ready)
        std::fprintf(stderr, "bench_evtlog: the EV key, its facility or the scheduling could not "
                             "be had\n");
    // A formatter that prints something else is reported, and the figures are still taken.
    const bool sameText = ready && same_text();

    if (ready) {
        print_load("before");
        benchmark::Initialize(&argc, argv);
        benchmark::RunSpecifiedBenchmarks();
        print_load("after");
        summary();
        benchmark::Shutdown();
    }

    // evtlogd's last words count everything this program sent.
    if (evKey >= KT4_EVT_KEY_BASE) kt4EvtCloselog(evKey);
    const off_t from = watch.size();
    kill(evtlogdPid, SIGTERM);
    int status = 0;
    waitpid(evtlogdPid, &status, 0);
    Counts stop;
    const bool stopped = WIFEXITED(status) && WEXITSTATUS(status) == 0 &&
                         line_of_kind(watch.read_from(from), "STOP", stop);
    std::printf("\nsent %ld records in %ld chunks through the event log; evtlogd took %ld chunks "
                "and wrote %ld records, %ld incomplete, %ld dropped\n",
                sentRecords, sentChunks, stop.chunks, stop.records, stop.incomplete, stop.dropped);
    if (!stopped || stop.records != sentRecords || stop.chunks != sentChunks ||
        stop.incomplete != 0 || stop.dropped != 0) {
        std::printf("FAR SIDE MISMATCH\n");
        farSideMismatch = true;
    }
    watch.close();
    const int fd = raw_socket(kRawClientPort);
    const sockaddr_in to = local(kRawServerPort);
    sendto(fd, "S", 1, 0, reinterpret_cast<const sockaddr *>(&to), sizeof to);
    close(fd);
    waitpid(rawPid, nullptr, 0);
    return farSideMismatch || !ready || !sameText ? 1 : 0;
}
