// The start-up of a control process: KT4_NbsdpInit's steps seen from outside (signal masks,
// the health record, the sysReaper monitor collecting a dead child) and KT4_NbsdpExit.
#include "support/kt4_test_env.h"

#include <kt4/platform.h>

#include <gtest/gtest.h>

#include <signal.h>
#include <sys/wait.h>

#include <cerrno>
#include <string>
#include <thread>

namespace {

TEST(Startup, AControlProcessStartsReportsItsHealthAndExits) {
    ASSERT_TRUE(kt4test::Card::get().up());
    constexpr int kIndex = 5;
    kt4test::Process helper(
        kt4test::helper_cmd(kt4test::control_args("nbsdp", kIndex, kt4test::kAreaBytes)));
    const pid_t pid = helper.pid();
    EXPECT_EQ(0, helper.finish(20)) << helper.text();

    KT4_HEALTH_INFO info;
    ASSERT_EQ(0, KT4_HealthGet(kIndex, &info));
    EXPECT_EQ(KT4_HEALTH_EXITED, info.state);
    EXPECT_EQ(pid, info.pid);
    EXPECT_EQ(1, info.period);
    EXPECT_STREQ("kt4_test_helper", info.name);
    EXPECT_GE(info.refreshes, 2u);
    EXPECT_GE(info.lastTick, info.startTick + 40) << "refreshed about a period after start";
    EXPECT_EQ(1u, info.childrenReaped);
    EXPECT_TRUE(WIFEXITED(info.lastChildStatus) && WEXITSTATUS(info.lastChildStatus) == 7);

    EXPECT_EQ(-1, KT4_HealthGet(KT4_HEALTH_RECORDS, &info));
    EXPECT_EQ(-1, KT4_HealthGet(0, nullptr));
}

TEST(Startup, HealthRecordsBelongToOneLiveProcess) {
    ASSERT_TRUE(kt4test::Card::get().up());
    ASSERT_EQ(0, KT4_HealthOpen(9, 2));
    ASSERT_EQ(0, KT4_HealthUpdate());
    KT4_HEALTH_INFO info;
    ASSERT_EQ(0, KT4_HealthGet(9, &info));
    EXPECT_EQ(KT4_HEALTH_RUNNING, info.state);
    EXPECT_EQ(getpid(), info.pid);
    EXPECT_EQ(1u, info.refreshes);
    pid_t child = kt4test::fork_child([] { return KT4_HealthOpen(9, 1) == -1 && errno == EBUSY; });
    EXPECT_EQ(0, kt4test::wait_child(child)) << "another live process took the record";
    EXPECT_EQ(-1, KT4_HealthOpen(KT4_HEALTH_RECORDS, 1));
    EXPECT_EQ(-1, KT4_HealthOpen(3, 0));
}

TEST(Startup, SignalMasksUseTheSwitchNumbering) {
    // In a thread of its own, so that the test's main thread keeps its mask.
    std::thread([] {
        sigset_t mask;
        EXPECT_EQ(0, KT4SigSetMask(20)); // SIGCHLD on the switch
        EXPECT_EQ(0, KT4SigSetMask(31)); // SIGUSR2
        pthread_sigmask(SIG_BLOCK, nullptr, &mask);
        EXPECT_EQ(1, sigismember(&mask, SIGCHLD));
        EXPECT_EQ(1, sigismember(&mask, SIGUSR2));
        EXPECT_EQ(0, sigismember(&mask, SIGTSTP)) << "host number 20 is not the switch's";
        EXPECT_EQ(-1, KT4SigSetMask(7)); // EMT: no such signal here
        EXPECT_EQ(-1, KT4SigSetMask(9)); // KILL cannot be held
        EXPECT_EQ(-1, KT4SigSetMask(32));
        EXPECT_EQ(-1, KT4SigSetMask(0));
    }).join();
    EXPECT_EQ(-1, start_serv_process(nullptr));
}

} // namespace
