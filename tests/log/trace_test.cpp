// The trace channel on a real card: line formats byte for byte, the history rings in shared
// memory (repeat folding, wrap, the hardware gate and kinds), lines from two processes in one
// ring replayed by either and by the operator tool, and the process-local fallback.
#include "support/kt4_test_env.h"

#include <kt4/hostsim.h>
#include <kt4/log.h>
#include <kt4/platform.h>
#include <kt4/vx2bsd.h>

#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <map>
#include <regex>
#include <string>
#include <vector>

namespace {

// Modules used by one test each, so that tests sharing a card in one process do not meet.
constexpr int kFormatModule = 38;  // IFM
constexpr int kWrapModule = 49;    // OSPF
constexpr int kHwModule = 52;      // ARP
constexpr int kFlagModule = 55;    // STP
constexpr int kTwoProcModule = 60; // L2MGR
constexpr int kLocalModule = 61;   // MSTP
constexpr int kStrModule = 62;     // VRRP

class Trace : public ::testing::Test {
  protected:
    // The lines name slot 0, in this process and in the helper.
    void SetUp() override {
        ASSERT_TRUE(kt4test::Card::get().up());
        kt4CardSetSlot(0);
    }
    void TearDown() override { kt4TracePrintOff(); }

    static std::string history(int module, int kind) {
        kt4test::CaptureStdout out;
        kt4TraceDisplayByModuleId(module, kind);
        return out.text();
    }
    static std::vector<std::string> lines(const std::string &text) {
        std::vector<std::string> out;
        size_t at = 0;
        for (size_t end; (end = text.find("\r\n", at)) != std::string::npos; at = end + 2)
            out.push_back(text.substr(at, end + 2 - at));
        return out;
    }
};

// What a program printed (standard output and error); its exit code in rc.
std::string run(const std::vector<std::string> &args, int *rc) {
    std::string out;
    *rc = kt4test::run_program(args, {{"KT4_SLOT", "0"}}, &out);
    return out;
}

void msg(int kind, int module, const char *format, ...) {
    va_list ap;
    va_start(ap, format);
    kt4MsgPrintf(kind, module, format, ap);
    va_end(ap);
}

// The time stamp: month, day, hour, minute, second of local time, not zero-padded.
const std::string kStamp =
    R"(\[([1-9]|1[0-2])/([1-9]|[12][0-9]|3[01]) ([0-9]|1[0-9]|2[0-3]):([0-9]|[1-5][0-9]):([0-9]|[1-5][0-9]|60)\] )";

// A few kinds stand for the prefix table (nvram and hardware trace: the history test below).
TEST_F(Trace, LinesHaveTheirExactFormATaskIsNamedAndAnOverlongLineIsCut) {
    kt4CardSetSlot(3);
    kt4TracePrintOn();
    kt4test::CaptureStdout out;
    kt4TracePrintf(kFormatModule, "trace %d", 1);
    kt4ErrorPrintf(kFormatModule, "error %s", "two");
    kt4HwWarningPrintf(kFormatModule, "hw warning");
    msg(7, kFormatModule, "no such kind");
    msg(17, kFormatModule, "no such kind");
    kt4TracePrintf(500, "unknown module");
    // A task is named in its lines.
    ASSERT_EQ(OK, vx2bsdLibInit());
    std::atomic<bool> done{false};
    ASSERT_NE(ERROR, kt4test::spawn_task("tTracer", 100, [&] {
                  kt4TracePrintf(kFormatModule, "from a task");
                  done = true;
              }));
    ASSERT_TRUE(kt4test::eventually([&] { return done.load(); }, 10000));
    std::string text = out.text();
    kt4CardSetSlot(0);

    const char *expected[] = {
        "IFM-\\(\\(null\\)\\):CPBLOB:3: trace 1",
        "\\*\\*\\*\\*\\*\\* ERROR IFM-\\(\\(null\\)\\):CPBLOB:3: error two",
        "##### HW WARN: IFM-\\(\\(null\\)\\):CPBLOB:3: hw warning",
        "\\?\\?\\?-\\(\\(null\\)\\):CPBLOB:3: unknown module",
        "IFM-\\(tTracer\\):CPBLOB:3: from a task",
    };
    std::vector<std::string> got = lines(text);
    ASSERT_EQ(std::size(expected), got.size()) << text;
    for (size_t i = 0; i < got.size(); ++i) {
        EXPECT_TRUE(std::regex_match(got[i], std::regex(kStamp + expected[i] + "\r\n"))) << got[i];
    }

    // An overlong line is reported and cut.
    kt4test::CaptureStdout longOut;
    kt4TracePrintf(kFormatModule, "%s", std::string(1300, 'x').c_str());
    text = longOut.text();
    const std::string banner = "\r\n+++++++++++++++++++++++++++++++++++++++++++++\r\n\r\n";
    const std::string report =
        banner + "%Error: The IFM trace string is longer than 1200 !\r\n" + banner;
    ASSERT_EQ(0u, text.find(report)) << text.substr(0, 200);
    std::string line = text.substr(report.size());
    EXPECT_EQ(1199u, line.size()) << "1197 characters and \"\\r\\n\"";
    EXPECT_EQ("xx\r\n", line.substr(line.size() - 4));
}

TEST_F(Trace, TheRingFoldsRepeatsWrapsAndReplaysFromTheOldestSlot) {
    for (int i = 0; i < 3000 + 25; ++i)
        kt4TracePrintf(kWrapModule, "line %d", i);
    for (int i = 0; i < 4; ++i) // four equal lines leave two slots
        kt4TracePrintf(kWrapModule, "neighbour down");
    kt4TracePrintf(kWrapModule, "neighbour up");
    kt4TracePrintf(kWrapModule, "neighbour up");
    std::vector<std::string> got = lines(history(kWrapModule, KT4_TRACE_KIND_TRACE));
    ASSERT_EQ(3000u, got.size());
    for (size_t i = 0; i < 2996; ++i)
        ASSERT_NE(std::string::npos, got[i].find(": line " + std::to_string(29 + i) + "\r\n")) << i;
    EXPECT_TRUE(std::regex_match(
        got[2996], std::regex(kStamp + "OSPF-\\(\\(null\\)\\):CPBLOB:0: neighbour down\r\n")))
        << got[2996];
    EXPECT_EQ("\t - Repeated 3 times.\r\n", got[2997]);
    EXPECT_NE(std::string::npos, got[2998].find("neighbour up\r\n"));
    EXPECT_EQ("\t - Repeated 1 time.\r\n", got[2999]);

    // The operator tool replays the same slots from the file, in the same order.
    int rc = -1;
    std::string tool =
        run({KT4_TRACE_TOOL, "-r", kt4test::Card::get().root(), "-m", "ospf", "-k", "2"}, &rc);
    EXPECT_EQ(0, rc);
    EXPECT_EQ(history(kWrapModule, KT4_TRACE_KIND_TRACE), tool);
}

TEST_F(Trace, HardwareKindsAreGatedAndKeepTheirStoredKinds) {
    // The rings outlive a test (and a round of --gtest_repeat): compare with what they held.
    auto count = [](int kind) { return lines(history(kHwModule, kind)).size(); };
    std::map<int, size_t> before;
    for (int kind : {KT4_TRACE_KIND_ANY, KT4_TRACE_KIND_HW_TRACE, KT4_TRACE_KIND_HW_ERR,
                     KT4_TRACE_KIND_ALL_HW, KT4_TRACE_KIND_ALL_SW})
        before[kind] = count(kind);
    auto added = [&](int kind) { return count(kind) - before[kind]; };
    kt4HwTraceFlag = 0;
    kt4TracePrintOn();
    {
        kt4test::CaptureStdout out;
        kt4AllTracePrintf(kHwModule, "gated");
        kt4HwErrorPrintf(kHwModule, "gated");
        EXPECT_EQ("", out.text());
    }
    EXPECT_EQ(0u, added(KT4_TRACE_KIND_ANY));
    kt4HwTraceFlag = 1;
    kt4TracePrintOff();
    kt4AllTracePrintf(kHwModule, "all trace");
    kt4HwErrorPrintf(kHwModule, "hw error");
    kt4NvramPrintf(kHwModule, "never gated");

    // The hardware ring holds the hardware kinds as they were sent.
    EXPECT_EQ(1u, added(KT4_TRACE_KIND_HW_TRACE));
    EXPECT_EQ(1u, added(KT4_TRACE_KIND_HW_ERR));
    // The software copy (kind 14) sits in the software ring stored as kind 11: kind 8 finds it
    // there, kinds 14 and 7 do not.
    ASSERT_EQ(1u, added(KT4_TRACE_KIND_ALL_HW));
    EXPECT_NE(std::string::npos, history(kHwModule, KT4_TRACE_KIND_ALL_HW)
                                     .rfind("] HW: ARP-((null)):CPBLOB:0: all trace\r\n"));
    EXPECT_EQ(0u, count(KT4_TRACE_KIND_SW_HW_TRACE));
    ASSERT_EQ(1u, added(KT4_TRACE_KIND_ALL_SW));
    EXPECT_NE(std::string::npos,
              history(kHwModule, KT4_TRACE_KIND_ALL_SW)
                  .rfind("] **** NVRAM_MSG: ARP-((null)):CPBLOB:0: never gated"));
}

TEST_F(Trace, FlagsModuleNamesVerbatimStringsAndAssertions) {
    EXPECT_EQ(48, kt4TraceGetModuleIdFromName("Bgp")); // any case, whole names only
    EXPECT_EQ(0, kt4TraceGetModuleIdFromName("bgpx"));
    // The top bit keeps plain traces of the module out of the history, nothing else.
    const size_t errorsBefore = lines(history(kFlagModule, KT4_TRACE_KIND_ERROR)).size();
    kt4SetModuleTraceFlag(kFlagModule, KT4_TRACE_NO_HISTORY | 0x21);
    EXPECT_EQ(0x21u, wrap_modtraceflags(kFlagModule));
    kt4TracePrintf(kFlagModule, "not kept");
    kt4ErrorPrintf(kFlagModule, "kept");
    kt4SetModuleTraceFlag(kFlagModule, 0);
    EXPECT_EQ("", history(kFlagModule, KT4_TRACE_KIND_TRACE));
    EXPECT_EQ(errorsBefore + 1, lines(history(kFlagModule, KT4_TRACE_KIND_ERROR)).size());

    // A string traced as it is (the percent sign made harmless), cut to the slot.
    kt4TracePrintStr(kStrModule, "50% done, %s and %d stay");
    std::string got = history(kStrModule, KT4_TRACE_KIND_TRACE);
    EXPECT_NE(std::string::npos, got.find(":CPBLOB:0: 50! done, %s and %d stay\r\n")) << got;
    kt4TracePrintStr(kStrModule, std::string(300, 'y').c_str());
    got = history(kStrModule, KT4_TRACE_KIND_TRACE);
    EXPECT_NE(std::string::npos, got.find(std::string(199, 'y').substr(0, 150)));

    // An assertion reports and returns.
    errno = 0x3d0004;
    _kt4Assert("x == 1", "file.c", 42);
    EXPECT_EQ(0x3d0004, errno);
    got = history(1, KT4_TRACE_KIND_ERROR);
    EXPECT_NE(
        std::string::npos,
        got.find("****** ERROR SYS-((null)):CPBLOB:0: Unk: *** ASSERTION-FAILED *** Expression "
                 "'x == 1' at file.c/42 (task id 0x3d0004).\r\n"))
        << got;
}

TEST_F(Trace, DeveloperPrintsFollowTheTaskMask) {
    uint32_t before = printCnt;
    kt4test::CaptureStdout out;
    kt4EvtLogPrint(6, 0, "off\n");
    pGlbDevTskMsk[0] |= 1u << 6;
    pGlbDevTskMsk[1] |= 1u << 8;
    kt4EvtLogPrint(6, 0, "level six\n");
    kt4EvtLogPrintV2(40, 0, "NAME", "level forty\n");
    kt4EvtLogPrintV2(7, 0, "NAME", "off\n");
    kt4EvtLogPrint(100000, 0, "far off\n");
    pGlbDevTskMsk[0] = 0;
    pGlbDevTskMsk[1] = 0;
    EXPECT_EQ("level six\nNAME: level forty\n", out.text());
    EXPECT_EQ(before + 5, printCnt);
}

TEST_F(Trace, TwoProcessesShareOneRingTheToolReplaysItAndALoneProcessKeepsItsOwn) {
    // The ring outlives a round of --gtest_repeat: look at the lines this round adds.
    const size_t before = lines(history(kTwoProcModule, KT4_TRACE_KIND_TRACE)).size();
    kt4TracePrintf(kTwoProcModule, "from the first process");
    int rc = -1;
    std::string child =
        run(kt4test::helper_cmd({"shared", std::to_string(kTwoProcModule),
                                 "from the second process", std::to_string(kt4test::kAreaBytes)}),
            &rc);
    ASSERT_EQ(0, rc) << child;
    std::string mine = history(kTwoProcModule, KT4_TRACE_KIND_TRACE);
    for (const std::string *seen : {&child, &mine}) {
        std::vector<std::string> got = lines(*seen);
        ASSERT_EQ(before + 2, got.size()) << *seen;
        EXPECT_NE(std::string::npos,
                  got[before].find("L2MGR-((null)):CPBLOB:0: from the first process\r\n"));
        EXPECT_NE(std::string::npos,
                  got[before + 1].find("L2MGR-((null)):CPBLOB:0: from the second process\r\n"));
    }
    std::string tool = run(
        {KT4_TRACE_TOOL, "-f", kt4GetShmFileName(0), "-m", std::to_string(kTwoProcModule)}, &rc);
    EXPECT_EQ(0, rc);
    EXPECT_EQ(mine, tool);

    // The tool refuses a file that is not an area (1) and a module it does not know (2).
    std::string junk = kt4test::Card::get().root() + "/junk.mem";
    FILE *f = std::fopen(junk.c_str(), "w");
    ASSERT_NE(nullptr, f);
    std::fputs(std::string(10000, 'j').c_str(), f);
    std::fclose(f);
    run({KT4_TRACE_TOOL, "-f", junk}, &rc);
    EXPECT_EQ(1, rc);
    run({KT4_TRACE_TOOL, "-f", junk, "-m", "nosuchmodule"}, &rc);
    EXPECT_EQ(2, rc);
    unlink(junk.c_str());

    // A process without the shared memory keeps its own rings; the card's never sees its lines.
    child = run(kt4test::helper_cmd({"local", std::to_string(kLocalModule), "kept locally"}), &rc);
    ASSERT_EQ(0, rc) << child;
    EXPECT_EQ(1u, lines(child).size()) << child;
    EXPECT_NE(std::string::npos, child.find("MSTP-((null)):CPBLOB:0: kept locally\r\n"));
    EXPECT_EQ("", history(kLocalModule, KT4_TRACE_KIND_ANY));
}

} // namespace
