// Cost of one trace line into the card's shared trace ring, against its honest baseline:
// stamping and formatting the same line into a buffer with snprintf.
//
// The trace goes the whole way: time stamp, task-name look-up, formatting, repeat folding,
// and the write into the shared ring under shared-memory lock 4 (two semop calls). Local
// printing is off, as on a running switch. Each iteration traces a different line (the
// counter changes), so nothing folds; the folded case is measured separately. The baseline
// reads the clock and breaks it down into local time for every line, as the trace does.
//
// After each run the ring is replayed and checked: the run's last lines must be in it, in
// order, with nothing lost (a trace that returned early, say before trace init or with the
// module's history switched off, would otherwise be timed as a fast trace); the folded run's
// repeat count must cover its iterations; and the library's line must read exactly as the
// baseline's. A run that fails is an error, not a figure; the program then exits non-zero.
#define KT4_TEST_ENV_NO_GTEST
#include "tests/support/kt4_test_env.h"

#include <kt4/hostsim.h>
#include <kt4/log.h>
#include <kt4/platform.h>

#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdio>
#include <ctime>
#include <map>
#include <string>
#include <vector>

namespace {

constexpr int kModule = 38; // IFM
constexpr int kRingSlots = 3000;

bool g_failed = false;
// Numbers every traced line across all runs, so that a run's lines are told from older ones.
int g_line = 0;

void fail(benchmark::State &state, const std::string &why) {
    state.SkipWithError(why.c_str());
    g_failed = true;
}

// The module's plain traces in the software ring, oldest first, one line each.
std::vector<std::string> replay() {
    kt4test::CaptureStdout out;
    kt4TraceDisplayByModuleId(kModule, KT4_TRACE_KIND_TRACE);
    const std::string text = out.text();
    std::vector<std::string> lines;
    for (size_t at = 0; at < text.size();) {
        size_t end = text.find('\n', at);
        if (end == std::string::npos) end = text.size();
        lines.push_back(text.substr(at, end - at));
        at = end + 1;
    }
    return lines;
}

// The line without its time stamp ("[m/d h:m:s] ").
std::string unstamped(const std::string &line) {
    const size_t at = line.find("] ");
    return at == std::string::npos ? line : line.substr(at + 2);
}

// The line number a traced line carries, or -1.
long number_of(const std::string &line) {
    const size_t at = line.find(" interface ");
    long n = -1;
    if (at != std::string::npos &&
        std::sscanf(line.c_str() + at, " interface %ld changed", &n) != 1)
        n = -1;
    return n;
}

// The baseline's line for number n (what the trace must have written, apart from the stamp).
int format_line(char *line, size_t size, const std::tm &lt, int n) {
    return std::snprintf(line, size,
                         "[%d/%d %d:%d:%d] %s-(%s):%s:%d: interface %d changed state to %s\r\n",
                         lt.tm_mon + 1, lt.tm_mday, lt.tm_hour, lt.tm_min, lt.tm_sec, "IFM",
                         "(null)", "CPBLOB", kt4SysGetRpmSlotId(), n, "up");
}

void BM_TracePrintf(benchmark::State &state) {
    kt4TracePrintOff();
    const int first = g_line + 1;
    for (auto _ : state)
        kt4TracePrintf(kModule, "interface %d changed state to %s", ++g_line, "up");
    // The run's last lines, up to a ring's worth, must be the ring's newest, in order.
    const std::vector<std::string> lines = replay();
    const long want = std::min<long>(g_line - first + 1, kRingSlots - 1);
    long n = g_line, seen = 0;
    for (auto it = lines.rbegin(); it != lines.rend() && seen < want; ++it) {
        if (it->empty()) continue;
        if (number_of(*it) != n) break;
        --n;
        ++seen;
    }
    if (seen != want) {
        fail(state, "the ring holds " + std::to_string(seen) + " of the run's last " +
                        std::to_string(want) + " lines");
        return;
    }
    std::tm lt{};
    char line[1200];
    format_line(line, sizeof line, lt, g_line);
    std::string last;
    for (auto it = lines.rbegin(); it != lines.rend() && last.empty(); ++it)
        last = *it;
    if (unstamped(last + "\n") != unstamped(line))
        fail(state, "the baseline formats another line than the trace: \"" + unstamped(line) +
                        "\" against \"" + unstamped(last) + "\"");
}
BENCHMARK(BM_TracePrintf);

void BM_TracePrintfRepeated(benchmark::State &state) {
    kt4TracePrintOff();
    for (auto _ : state)
        kt4TracePrintf(kModule, "interface %d changed state to %s", 7, "up");
    // Folded into one repeat line whose count covers at least this run's repeats.
    const std::vector<std::string> lines = replay();
    // The newest line is the repeat line, or the line itself when it has not repeated yet.
    long count = -1;
    for (auto it = lines.rbegin(); it != lines.rend(); ++it) {
        if (it->empty()) continue;
        if (std::sscanf(it->c_str(), "\t - Repeated %ld time", &count) != 1)
            count = number_of(*it) == 7 ? 0 : -1;
        break;
    }
    if (count < static_cast<long>(state.iterations()) - 1)
        fail(state, "the ring's repeat count is " + std::to_string(count) + " after " +
                        std::to_string(state.iterations()) + " repeats");
}
BENCHMARK(BM_TracePrintfRepeated);

void BM_Snprintf(benchmark::State &state) {
    char line[1200];
    int i = 0;
    for (auto _ : state) {
        std::time_t now = std::time(nullptr);
        std::tm lt{};
        localtime_r(&now, &lt);
        int n = format_line(line, sizeof line, lt, ++i);
        benchmark::DoNotOptimize(n);
        benchmark::ClobberMemory();
    }
}
BENCHMARK(BM_Snprintf);

// Keeps each benchmark's CPU time per iteration for the ratio printed at the end (CPU time:
// the machine running the benchmarks is rarely idle, and wall time then measures the others).
class Reporter : public benchmark::ConsoleReporter {
  public:
    void ReportRuns(const std::vector<Run> &runs) override {
        ConsoleReporter::ReportRuns(runs);
        for (const Run &r : runs)
            if (r.run_type == Run::RT_Iteration && !r.error_occurred)
                ns_[r.benchmark_name()] = r.GetAdjustedCPUTime();
    }
    double ns(const std::string &name) const {
        auto it = ns_.find(name);
        return it == ns_.end() ? 0.0 : it->second;
    }

  private:
    std::map<std::string, double> ns_;
};

} // namespace

int main(int argc, char **argv) {
    kt4test::Card &card = kt4test::Card::get();
    if (!card.up()) {
        std::fprintf(stderr, "bench_trace: cannot bring the test card up\n");
        card.cleanup();
        return 1;
    }
    benchmark::Initialize(&argc, argv);
    Reporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    double trace = reporter.ns("BM_TracePrintf");
    double repeated = reporter.ns("BM_TracePrintfRepeated");
    double base = reporter.ns("BM_Snprintf");
    if (trace > 0 && base > 0) {
        std::printf("\nCPU time per line\n");
        std::printf("kt4TracePrintf into the shared ring: %.0f ns (repeated line %.0f ns)\n", trace,
                    repeated);
        std::printf("snprintf of the same line:           %.0f ns\n", base);
        std::printf("ratio:                               %.1fx\n", trace / base);
    }
    benchmark::Shutdown();
    card.cleanup();
    if (g_failed) std::fprintf(stderr, "bench_trace: a run failed its checks\n");
    return g_failed ? 1 : 0;
}
