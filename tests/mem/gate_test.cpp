// The memory-pressure gate: water marks, the critical-task prefix rule, once-only messages.
#include <kt4/log.h>
#include <kt4/mem.h>
#include <kt4/vx2bsd.h>

#include "support/kt4_support.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <string>
#include <thread>

namespace {

std::atomic<int> gUsage{10};
int usageHook(uint32_t) {
    return gUsage.load();
}

// checkUsage as seen by a task of the given name.
int checkAsTask(const char *name) {
    std::atomic<int> rc{99};
    std::atomic<bool> done{false};
    const int tid = kt4test::spawn_task(name, 100, [&] {
        rc = checkUsage(100, "test");
        done = true;
    });
    EXPECT_GT(tid, 0) << name;
    if (tid <= 0) return 98;
    EXPECT_TRUE(kt4test::eventually([&] { return done.load(); })) << name;
    return rc;
}

kt4MemStatCB stat() {
    kt4MemStatCB s{};
    kt4MemStatGet(&s);
    return s;
}

using kt4test::count_of;

class Gate : public ::testing::Test {
  protected:
    void SetUp() override {
        kt4MemSetUsageHook(usageHook);
        gUsage = 10;
        checkUsage(0, "reset"); // below 80: states and latches clear
        kt4TracePrintOn();
        testing::internal::CaptureStdout();
    }
    void TearDown() override {
        kt4TracePrintOff();
        (void)testing::internal::GetCapturedStdout();
        kt4MemSetUsageHook(nullptr);
    }
};

TEST_F(Gate, WaterMarksPrefixRuleAndOnceOnlyMessages) {
    const unsigned long warn0 = stat().warningMsgs, low0 = stat().lowWaterMsgs,
                        high0 = stat().highHighWaterMsgs;
    gUsage = 85;
    EXPECT_EQ(0, checkUsage(100, "test"));
    EXPECT_EQ(0, checkUsage(100, "test"));
    EXPECT_EQ(1, stat().warning);
    EXPECT_EQ(warn0 + 1, stat().warningMsgs);

    gUsage = 93;
    EXPECT_EQ(-1, checkUsage(100, "test")); // this thread is no critical task
    EXPECT_EQ(0, checkAsTask("tNetTask"));
    EXPECT_EQ(0, checkAsTask("tNeighbour")); // 3 characters decide: "tNe"
    EXPECT_EQ(-1, checkAsTask("worker"));
    EXPECT_EQ(-1, checkAsTask("tnetTask")); // case counts
    EXPECT_EQ(-1, checkAsTask("tN"));       // shorter than the prefix
    kt4MemStatCB s = stat();
    EXPECT_EQ(1, s.lowWater);
    EXPECT_EQ(0, s.warning);
    EXPECT_EQ(low0 + 1, s.lowWaterMsgs);

    gUsage = 97;
    EXPECT_EQ(-1, checkAsTask("tNetTask"));
    EXPECT_EQ(-1, checkUsage(100, "test"));
    EXPECT_EQ(high0 + 1, stat().highHighWaterMsgs);

    // Down to the low-water range again: its latch still holds, nothing new is logged.
    gUsage = 93;
    EXPECT_EQ(-1, checkUsage(100, "test"));
    EXPECT_EQ(low0 + 1, stat().lowWaterMsgs);
    gUsage = 85; // the warning latch too
    EXPECT_EQ(0, checkUsage(100, "test"));
    EXPECT_EQ(warn0 + 1, stat().warningMsgs);

    // Below 80 everything clears; the next crossing logs again.
    gUsage = 79;
    EXPECT_EQ(0, checkUsage(100, "test"));
    s = stat();
    EXPECT_EQ(0, s.warning + s.lowWater + s.highHighWater);
    EXPECT_EQ(0, s.warningLatch + s.lowWaterLatch + s.highHighWaterLatch);
    gUsage = 93;
    EXPECT_EQ(-1, checkUsage(100, "test"));
    EXPECT_EQ(low0 + 2, stat().lowWaterMsgs);

    std::string out = testing::internal::GetCapturedStdout();
    testing::internal::CaptureStdout();
    EXPECT_EQ(1, count_of(out, "kt4MemMgmt - test - Warning! current memory usage is at 85"))
        << out;
    EXPECT_EQ(2, count_of(out, "kt4MemMgmt - size: 100, Memory requested exceeded low water mark, "
                               "Current Usage: 93"))
        << out;
    EXPECT_EQ(1, count_of(out, "kt4MemMgmt - size: 100, Memory requested exceeded high water mark, "
                               "Current Usage: 97"))
        << out;
}

TEST_F(Gate, RefusalReachesSystemMemoryAndPoolGrowth) {
    ASSERT_EQ(0, kt4_memPartFixedInit(21, 1));
    ASSERT_EQ(0, M_memPoolCreate("gated", KT4_MEM_POOL_ID(21, 0), 64));
    gUsage = 97;
    KT4_EXPECT_ERRNO(ENOMEM, nullptr, M_sysMalloc("gate_test", __LINE__, 32));
    EXPECT_EQ(nullptr, M_sysCalloc("gate_test", __LINE__, 4, 8));
    EXPECT_EQ(nullptr, kt4MC_M_sysMalloc("gate_test", __LINE__, 32));
    EXPECT_EQ(nullptr,
              M_memBlockAlloc("gate_test", __LINE__, 64, KT4_MEM_POOL_ID(21, 0))); // needs a page

    gUsage = 50;
    void *page = M_memBlockAlloc("gate_test", __LINE__, 64, KT4_MEM_POOL_ID(21, 0));
    ASSERT_NE(nullptr, page);
    // A pool with room serves without asking the gate.
    gUsage = 97;
    void *more = M_memBlockAlloc("gate_test", __LINE__, 64, KT4_MEM_POOL_ID(21, 0));
    EXPECT_NE(nullptr, more);
    gUsage = 50;
    auto *z = static_cast<unsigned char *>(M_sysCalloc("gate_test", __LINE__, 4, 8));
    ASSERT_NE(nullptr, z);
    for (int i = 0; i < 32; ++i)
        EXPECT_EQ(0, z[i]);
    EXPECT_EQ(OK, M_sysMemfree("gate_test", __LINE__, z));
    EXPECT_EQ(OK, M_sysMemfree("gate_test", __LINE__, nullptr));
    EXPECT_EQ(OK, M_memBlockFree("gate_test", __LINE__, page));
    EXPECT_EQ(OK, M_memBlockFree("gate_test", __LINE__, more));
    EXPECT_EQ(OK, kt4_memPartDelete(21));
}

TEST_F(Gate, DebugSwitchesTellWhoAskedAndWhatTheyGot) {
    kt4MemWhoIsAllocatingDebug = 1;
    kt4MemLowToHighUsageDebug = 1;
    gUsage = 93;
    EXPECT_EQ(-1, checkAsTask("worker"));
    EXPECT_EQ(0, checkAsTask("tExcHelper"));
    gUsage = 10;
    EXPECT_EQ(0, checkAsTask("worker"));
    kt4MemWhoIsAllocatingDebug = 0;
    kt4MemLowToHighUsageDebug = 0;
    std::string out = testing::internal::GetCapturedStdout();
    testing::internal::CaptureStdout();
    EXPECT_NE(std::string::npos, out.find("LowToHighRange: Task worker is DENIED Memory\r\n"))
        << out;
    EXPECT_NE(std::string::npos, out.find("LowToHighRange: Task tExcHelper GOT Memory\r\n")) << out;
    EXPECT_EQ(2, count_of(out, "Mem req by task: worker, size: 100 retStatus: "));
    EXPECT_NE(std::string::npos,
              out.find("Mem req by task: worker, size: 100 retStatus: DENIED \r\n"));
    EXPECT_NE(std::string::npos, out.find("Mem req by task: worker, size: 100 retStatus: OK \r\n"));
}

TEST(GateMachine, UsageComesFromTheMachinesCounters) {
    kt4MemSetUsageHook(nullptr);
    int u = sysMUsage(0);
    EXPECT_GT(u, 0);
    EXPECT_LE(u, 100);
    // Asking for a lot more shows in the figure.
    EXPECT_GE(sysMUsage(UINT32_MAX), u);
}

} // namespace
