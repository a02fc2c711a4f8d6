// Bringing a card up, as a new user or a crash leaves the machine: a fresh System V namespace,
// a card whose processes were all killed, a product directory that cannot hold the file, and
// another user who got to the card's file or keys first. The start-up of a control process:
// KT4_NbsdpInit's steps seen from outside (signal masks, the health record, the sysReaper
// monitor collecting a dead child) and KT4_NbsdpExit.
#include "support/kt4_test_env.h"

#include <kt4/platform.h>

#include <gtest/gtest.h>

#include <sched.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <cerrno>
#include <fstream>
#include <thread>

namespace {

using kt4test::run_helper;
using kt4test::slurp;

const std::string kBytes = std::to_string(kt4test::kAreaBytes);

TEST(CardBringUp, ACreatorInAFreshIpcNamespaceNeverGetsLockIdZero) {
    // A fresh namespace hands out id 0 first; the lock table takes an id below 1 for missing.
    pid_t child = kt4test::fork_child([] {
        if (unshare(CLONE_NEWIPC) != 0) _exit(77);
        if (KT4_InitShmSem(1) != 0) return false;
        bool ok = KT4_InitShmSem(0) == 0 && KT4_ShmLock(5) == OK && KT4_ShmUnLock(5) == 0;
        KT4_ShmSemRem();
        return ok;
    });
    int rc = kt4test::wait_child(child);
    if (rc == 77) GTEST_SKIP() << "no private IPC namespace for this user";
    EXPECT_EQ(0, rc) << "the creator's KT4_InitShmSem(1) failed in a fresh IPC namespace";
}

TEST(CardBringUp, AProcessOnACardNotBroughtUpSaysWhyOnStandardError) {
    kt4test::Card card;
    std::string out;
    // Locks never created: a control process makes them taken and says the card is not up,
    // and goes on with its start-up (its trace would wait for the lock 4 it just made).
    kt4test::Process serve(
        kt4test::helper_cmd(kt4test::control_args("serve", 21, kt4test::kAreaBytes)), card.env());
    EXPECT_TRUE(serve.wait_for("serving", 20)) << serve.text();
    EXPECT_NE(std::string::npos,
              serve.text().find("card not brought up: 30 of the card's 30 locks"))
        << serve.text();
    EXPECT_EQ(0, card.value(KT4_SHM_LOCK_KEY_BASE, 5)) << "made at value 0, as documented";
    serve.kill_now();
    card.remove_sets();

    // A product directory that does not exist: every failed start-up step is on stderr.
    kt4test::Env env = card.env();
    env[0].second = card.root() + "/missing";
    EXPECT_EQ(0, run_helper(kt4test::control_args("serve", 21, kt4test::kAreaBytes), env, &out))
        << out;
    EXPECT_NE(std::string::npos, out.find("KT4_ProcShmInit: " + card.root() +
                                          "/missing/KT4ShmMMap.mem: No such file or directory"))
        << out;
    EXPECT_NE(std::string::npos,
              out.find("KT4_NbsdpInit: the shared memory of the card is not mapped"))
        << out;
}

// The system personality with bits 8 and 4 both set names the card's file "KT4ShmMMapLp".
TEST(CardBringUp, PersonalityBits8And4NameTheLpFile) {
    for (const char *bits : {"8", "12"}) {
        kt4test::Card card;
        kt4test::Env env = card.env();
        env.push_back({"KT4_PERSONALITY", bits});
        std::string out;
        EXPECT_EQ(0, run_helper({"map", kBytes}, env, &out)) << out;
        const std::string lp = card.root() + "/KT4ShmMMapLp.mem";
        const bool both = std::strcmp(bits, "12") == 0;
        EXPECT_EQ(both, access(lp.c_str(), F_OK) == 0) << bits;
        EXPECT_EQ(!both, access(card.file().c_str(), F_OK) == 0) << bits;
    }
}

TEST(CardBringUp, AProductDirectoryThatCannotHoldTheFileIsNamed) {
    kt4test::Card card;
    std::string out;
    // Not writable for the user of the process.
    ASSERT_EQ(0, chmod(card.root().c_str(), 0755));
    int rc = run_helper({"map", kBytes}, card.env(), &out, 20, true);
    if (rc != 126) { // 126: the helper is out of that user's reach in this build tree
        EXPECT_EQ(1, rc) << out;
        EXPECT_NE(std::string::npos, out.find(card.file() + ": Permission denied")) << out;
    }

    // Too long for the file's name: refused, not cut (the cut name would be another file).
    std::string root = card.root();
    while (root.size() + std::strlen("/KT4ShmMMap") < 1020) {
        root += "/" + std::string(std::min<size_t>(200, 1020 - root.size() - 12), 'd');
        ASSERT_EQ(0, mkdir(root.c_str(), 0700)) << root.size();
    }
    kt4test::Env env = card.env();
    env[0].second = root;
    EXPECT_EQ(1, run_helper({"map", kBytes}, env, &out)) << out;
    EXPECT_NE(std::string::npos, out.find("KT4_ROOT is too long")) << out;
    for (std::string dir = root; dir.size() > card.root().size();
         dir = dir.substr(0, dir.rfind('/')))
        rmdir(dir.c_str());
}

TEST(CardBringUp, TheSharedMemoryFileIsTheUsersOwnAndNeverALink) {
    kt4test::Card card;
    std::string out;
    const std::string target = card.root() + "/precious";
    std::ofstream(target) << "precious";
    ASSERT_EQ(0, symlink(target.c_str(), card.file().c_str()));
    EXPECT_EQ(1, run_helper({"map", kBytes}, card.env(), &out)) << out;
    EXPECT_NE(std::string::npos, out.find("it is a symbolic link (refused)")) << out;
    EXPECT_EQ("precious", slurp(target)) << "the link's target was written";
    unlink(card.file().c_str());
    unlink(target.c_str());

    // Made by another user before the card: refused, whatever its mode.
    int fd = open(card.file().c_str(), O_CREAT | O_WRONLY, 0600);
    ASSERT_GE(fd, 0);
    close(fd);
    ASSERT_EQ(0, chown(card.file().c_str(), 65534, 65534));
    EXPECT_EQ(1, run_helper({"map", kBytes}, card.env(), &out)) << out;
    EXPECT_NE(std::string::npos, out.find("it belongs to another user (owner uid 65534")) << out;

    // The card's user's own, but open to others.
    ASSERT_EQ(0, chown(card.file().c_str(), geteuid(), getegid()));
    ASSERT_EQ(0, chmod(card.file().c_str(), 0666));
    EXPECT_EQ(1, run_helper({"map", kBytes}, card.env(), &out)) << out;
    EXPECT_NE(std::string::npos, out.find("other users may read or write it")) << out;

    ASSERT_EQ(0, chmod(card.file().c_str(), 0600));
    EXPECT_EQ(0, run_helper({"map", kBytes}, card.env(), &out)) << out;
}

TEST(CardBringUp, LocksMadeByAnotherUserAreRefused) {
    kt4test::Card card;
    // Another user makes every set with the card's keys, open to all and taken.
    pid_t child = kt4test::fork_child([&] {
        if (setgid(65534) != 0 || setuid(65534) != 0) return false;
        for (auto [base, count] : {std::pair{KT4_SHM_LOCK_KEY_BASE, KT4_SHM_NUM_LOCKS},
                                   {KT4_SHM_RW_LOCK_KEY_BASE, KT4_SHM_NUM_RW_LOCKS}})
            for (int n = 0; n < count; ++n)
                if (semget(card.offset() + base + n, 1, IPC_CREAT | IPC_EXCL | 0666) < 0)
                    return false;
        return true;
    });
    ASSERT_EQ(0, kt4test::wait_child(child));
    const int foreign5 = card.id(KT4_SHM_LOCK_KEY_BASE, 5);

    std::string out;
    EXPECT_EQ(1, run_helper({"join", kBytes}, card.env(), &out)) << out;
    EXPECT_NE(std::string::npos,
              out.find("plain lock 5 (key " + std::to_string(card.offset() + 1033) +
                       ", semaphore id " + std::to_string(foreign5) +
                       ") is not this card's: it belongs to uid 65534"))
        << out;

    // Nor does a creator clear them: they are not its user's.
    EXPECT_EQ(1, run_helper({"create", kBytes}, card.env(), &out)) << out;
    EXPECT_NE(std::string::npos, out.find("create=-1")) << out;
    EXPECT_NE(std::string::npos, out.find("belongs to uid 65534, not to this user")) << out;
    EXPECT_EQ(foreign5, card.id(KT4_SHM_LOCK_KEY_BASE, 5));
}

TEST(CardBringUp, ACardComesUpAgainAfterItsProcessesWereKilled) {
    kt4test::Card card;
    kt4test::Process first(kt4test::helper_cmd({"create", kBytes}), card.env());
    ASSERT_TRUE(first.wait_for("holding", 20)) << first.text();
    const int firstLock4 = card.id(KT4_SHM_LOCK_KEY_BASE, 4);
    first.kill_now(); // dies holding locks 4 and 5 and a write hold of reader-writer lock 1

    // A control process started on the dead card gets lock 5 and the reader-writer lock: its
    // monitor gives back what the dead process held.
    std::string out;
    EXPECT_EQ(
        0, run_helper(kt4test::control_args("take", 22, kt4test::kAreaBytes), card.env(), &out, 30))
        << out;
    EXPECT_NE(std::string::npos, out.find("plain lock 5 given back (taken): process " +
                                          std::to_string(first.pid()) + " died holding it"))
        << out;
    EXPECT_NE(std::string::npos, out.find("reader-writer lock 1 given back (write hold)")) << out;

    // Creating the card again clears the stale sets and says so.
    kt4test::Process second(kt4test::helper_cmd({"create", kBytes}), card.env());
    ASSERT_TRUE(second.wait_for("holding", 20)) << second.text();
    EXPECT_NE(std::string::npos,
              second.text().find("cleared 30 stale locks of a card that no live process is "
                                 "attached to"))
        << second.text();
    const int secondLock4 = card.id(KT4_SHM_LOCK_KEY_BASE, 4);
    EXPECT_NE(firstLock4, secondLock4);

    // A creator racing a live card fails and leaves it alone.
    EXPECT_EQ(1, run_helper({"create", kBytes}, card.env(), &out)) << out;
    EXPECT_NE(std::string::npos, out.find("create=-1")) << out;
    EXPECT_NE(std::string::npos, out.find("the card is in use (a live process has")) << out;
    EXPECT_EQ(secondLock4, card.id(KT4_SHM_LOCK_KEY_BASE, 4));
    EXPECT_EQ(0, card.value(KT4_SHM_LOCK_KEY_BASE, 4)) << "the live holder's lock was touched";
    second.kill_now();
}

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
