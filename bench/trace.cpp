// Cost of one trace line into the card's shared trace ring, against its honest baseline:
// formatting the same line into a buffer with snprintf.
//
// The trace goes the whole way: time stamp, task-name look-up, formatting, repeat folding,
// and the write into the shared ring under shared-memory lock 4 (two semop calls). Local
// printing is off, as on a running switch. Each iteration traces a different line (the
// counter changes), so nothing folds; the folded case is measured separately.
#define KT4_TEST_ENV_NO_GTEST
#include "tests/support/kt4_test_env.h"

#include <kt4/log.h>
#include <kt4/platform.h>

#include <benchmark/benchmark.h>

#include <cstdio>
#include <ctime>
#include <map>
#include <string>

namespace {

constexpr int kModule = 38; // IFM

void BM_TracePrintf(benchmark::State &state) {
    kt4TracePrintOff();
    int i = 0;
    for (auto _ : state)
        kt4TracePrintf(kModule, "interface %d changed state to %s", ++i, "up");
}
BENCHMARK(BM_TracePrintf);

void BM_TracePrintfRepeated(benchmark::State &state) {
    kt4TracePrintOff();
    for (auto _ : state)
        kt4TracePrintf(kModule, "interface %d changed state to %s", 7, "up");
}
BENCHMARK(BM_TracePrintfRepeated);

void BM_Snprintf(benchmark::State &state) {
    std::time_t now = std::time(nullptr);
    std::tm lt{};
    localtime_r(&now, &lt);
    char line[1200];
    int i = 0;
    for (auto _ : state) {
        int n = std::snprintf(
            line, sizeof line,
            "[%d/%d %d:%d:%d] %s-(%s):%s:%d: interface %d changed state to %s\r\n", lt.tm_mon + 1,
            lt.tm_mday, lt.tm_hour, lt.tm_min, lt.tm_sec, "IFM", "(null)", "CPBLOB", 0, ++i, "up");
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
            if (r.run_type == Run::RT_Iteration) ns_[r.benchmark_name()] = r.GetAdjustedCPUTime();
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
    return 0;
}
