// The numbered shared-memory locks on real System V semaphores: readers and writers, plain
// locks across threads and processes, the double give, the lock that starts taken, the
// out-of-range numbers.
#include "support/kt4_test_env.h"

#include <kt4/log.h>
#include <kt4/platform.h>

#include <gtest/gtest.h>

#include <poll.h>
#include <sys/ipc.h>
#include <sys/sem.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <random>
#include <thread>
#include <vector>

namespace {

using namespace std::chrono_literals;

// Long enough for a poller (40 ms period) to have tried a few times.
constexpr auto kStillBlocked = 150ms;

using kt4test::eventually;

class ShmLocks : public ::testing::Test {
  protected:
    void SetUp() override { ASSERT_TRUE(kt4test::Card::get().up()); }

    // The kernel's value of a lock, read through System V directly.
    static int plain_value(int n) { return kt4test::Card::get().value(KT4_SHM_LOCK_KEY_BASE, n); }
    static int rw_value(int n) { return kt4test::Card::get().value(KT4_SHM_RW_LOCK_KEY_BASE, n); }
    static std::string module_history(int module, int kind) {
        kt4test::CaptureStdout out;
        kt4TraceDisplayByModuleId(module, kind);
        return out.text();
    }
};

// A thread that takes a lock and holds it until told to let go.
class Holder {
  public:
    Holder(int (*take)(int), int (*give)(int), int n) {
        thread_ = std::thread([=, this] {
            take(n);
            held_ = true;
            while (!release_)
                std::this_thread::sleep_for(1ms);
            give(n);
            done_ = true;
        });
    }
    ~Holder() {
        release_ = true;
        thread_.join();
    }
    bool held() const { return held_; }
    bool done() const { return done_; }
    void release() { release_ = true; }

  private:
    std::atomic<bool> held_{false}, release_{false}, done_{false};
    std::thread thread_;
};

TEST_F(ShmLocks, ThreeReadersThenAWriterThenAFourthReader) {
    ASSERT_EQ(3, rw_value(0));
    std::vector<std::unique_ptr<Holder>> readers;
    for (int i = 0; i < 3; ++i)
        readers.push_back(std::make_unique<Holder>(KT4_ShmReadLock, KT4_ShmReadUnLock, 0));
    ASSERT_TRUE(
        eventually([&] { return readers[0]->held() && readers[1]->held() && readers[2]->held(); }));
    EXPECT_EQ(0, rw_value(0));

    Holder writer(KT4_ShmWriteLock, KT4_ShmWriteUnLock, 0);
    std::this_thread::sleep_for(kStillBlocked);
    EXPECT_FALSE(writer.held()) << "a writer got in beside three readers";

    readers[0]->release();
    readers[1]->release();
    ASSERT_TRUE(eventually([&] { return readers[0]->done() && readers[1]->done(); }));
    std::this_thread::sleep_for(kStillBlocked);
    EXPECT_FALSE(writer.held()) << "a writer got in beside one reader";

    readers[2]->release();
    ASSERT_TRUE(eventually([&] { return writer.held(); }));
    EXPECT_EQ(0, rw_value(0));

    Holder fourth(KT4_ShmReadLock, KT4_ShmReadUnLock, 0);
    std::this_thread::sleep_for(kStillBlocked);
    EXPECT_FALSE(fourth.held()) << "a reader got in beside the writer";
    writer.release();
    ASSERT_TRUE(eventually([&] { return fourth.held(); }));
    fourth.release();
    ASSERT_TRUE(eventually([&] { return fourth.done(); }));
    readers.clear();
    EXPECT_EQ(3, rw_value(0));
}

TEST_F(ShmLocks, AHolderInOneProcessBlocksAnotherUntilItGives) {
    // A writer here keeps a reader of another process out; so does a plain lock.
    struct Case {
        int (*take)(int), (*give)(int), (*otherTake)(int), (*otherGive)(int);
        int n;
    } cases[] = {{KT4_ShmWriteLock, KT4_ShmWriteUnLock, KT4_ShmReadLock, KT4_ShmReadUnLock, 1},
                 {KT4_ShmLock, KT4_ShmUnLock, KT4_ShmLock, KT4_ShmUnLock, 7}};
    for (const Case &c : cases) {
        ASSERT_EQ(OK, c.take(c.n));
        int fds[2];
        ASSERT_EQ(0, pipe(fds));
        pid_t child = kt4test::fork_child([&] {
            c.otherTake(c.n);
            char x = 'x';
            bool ok = write(fds[1], &x, 1) == 1;
            return c.otherGive(c.n) == 0 && ok;
        });
        pollfd pfd{fds[0], POLLIN, 0};
        EXPECT_EQ(0, poll(&pfd, 1, static_cast<int>(kStillBlocked.count())))
            << "lock " << c.n << " was taken by the other process while held here";
        EXPECT_EQ(0, c.give(c.n));
        EXPECT_EQ(1, poll(&pfd, 1, 2000));
        EXPECT_EQ(0, kt4test::wait_child(child));
        close(fds[0]);
        close(fds[1]);
    }
    EXPECT_EQ(3, rw_value(1));
    EXPECT_EQ(1, plain_value(7));
}

TEST_F(ShmLocks, AnUnmatchedGiveIsReportedAndStillCounts) {
    // The trace ring outlives a test: count only the lines this test adds.
    const char *const plainGive = "KT4_ShmUnLock unlock for svc 3 failed as semval is 1\r\n";
    const char *const tmeGive =
        "KT4_ShmUnLock unlock for svc 5 (TME_SYN_SEM) failed as semval is 1\r\n";
    std::string history = module_history(4, KT4_TRACE_KIND_TRACE);
    const int plainBefore = kt4test::count_of(history, plainGive);
    const int tmeBefore = kt4test::count_of(history, tmeGive);
    kt4SetModuleTraceFlag(4, 0x10);
    ASSERT_EQ(OK, KT4_ShmLock(3));
    EXPECT_EQ(0, KT4_ShmUnLock(3));
    EXPECT_EQ(0, KT4_ShmUnLock(3));
    ASSERT_EQ(2, plain_value(3)) << "the kernel value is not clamped";
    ASSERT_EQ(OK, KT4_ShmLock(3)); // back to 1 for the next user
    history = module_history(4, KT4_TRACE_KIND_TRACE);
    EXPECT_EQ(plainBefore + 1, kt4test::count_of(history, plainGive)) << history;

    // The task manager's lock is checked against the kernel's value instead of the shadow.
    ASSERT_EQ(1, plain_value(KT4_SHM_LOCK_TME));
    ASSERT_EQ(OK, KT4_ShmLock(KT4_SHM_LOCK_TME));
    EXPECT_EQ(0, KT4_ShmUnLock(KT4_SHM_LOCK_TME));
    EXPECT_EQ(0, KT4_ShmUnLock(KT4_SHM_LOCK_TME));
    EXPECT_EQ(2, plain_value(KT4_SHM_LOCK_TME));
    ASSERT_EQ(OK, KT4_ShmLock(KT4_SHM_LOCK_TME));
    history = module_history(4, KT4_TRACE_KIND_TRACE);
    EXPECT_EQ(tmeBefore + 1, kt4test::count_of(history, tmeGive)) << history;

    // A reader-writer give without a take is reported with this process's id.
    EXPECT_EQ(0, KT4_ShmWriteUnLock(0)); // not held: reported, and given all the same
    EXPECT_EQ(6, rw_value(0));
    EXPECT_EQ(OK, KT4_ShmWriteLock(0)); // takes the three extra back
    kt4SetModuleTraceFlag(4, 0);
    history = module_history(4, KT4_TRACE_KIND_TRACE);
    EXPECT_NE(std::string::npos,
              history.find("KT4_ShmWriteUnLock unlock for svc  0 found as semval is 0 in pid " +
                           std::to_string(getpid()) + "\r\n"))
        << history;
    EXPECT_EQ(3, rw_value(0));
}

TEST_F(ShmLocks, NumbersOutOfRangeAreReportedAndTakeNothing) {
    std::vector<int> before;
    for (int n = 0; n < KT4_SHM_NUM_LOCKS; ++n)
        before.push_back(plain_value(n));
    int rw0 = rw_value(0), rw1 = rw_value(1);
    for (auto [call, n] : {std::pair{&KT4_ShmLock, 28},
                           {&KT4_ShmUnLock, -1},
                           {&KT4_ShmReadLock, 2},
                           {&KT4_ShmReadUnLock, 2},
                           {&KT4_ShmWriteLock, -3},
                           {&KT4_ShmWriteUnLock, 5}})
        KT4_EXPECT_ERRNO(EINVAL, ERROR, call(n));
    for (int n = 0; n < KT4_SHM_NUM_LOCKS; ++n)
        EXPECT_EQ(before[n], plain_value(n)) << "lock " << n;
    EXPECT_EQ(rw0, rw_value(0));
    EXPECT_EQ(rw1, rw_value(1));
}

TEST_F(ShmLocks, CreatingAndOpeningSetsAndLock25StartsTaken) {
    const int key = kt4test::Card::get().key_offset() + 1100;
    int id = -1;
    ASSERT_EQ(0, CreateSemWithValue(40, key, &id, 1, 2));
    EXPECT_GE(id, 0);
    EXPECT_EQ(2, semctl(id, 0, GETVAL));
    int again = -1;
    EXPECT_EQ(-1, CreateSemWithValue(40, key, &again, 1, 2)) << "creation is exclusive";
    EXPECT_EQ(-1, again);
    int opened = -1;
    EXPECT_EQ(0, CreateSemWithValue(40, key, &opened, 0, 5));
    EXPECT_EQ(id, opened);
    EXPECT_EQ(2, semctl(id, 0, GETVAL)) << "opening leaves the value alone";
    semctl(id, 0, IPC_RMID);

    // Opening the card's locks again finds the same sets: lock 25, made taken, still is.
    EXPECT_EQ(0, KT4_InitShmSem(0));
    ASSERT_EQ(0, plain_value(25));
    Holder taker(
        KT4_ShmLock, [](int) { return 0; }, 25);
    std::this_thread::sleep_for(kStillBlocked);
    EXPECT_FALSE(taker.held());
    EXPECT_EQ(0, KT4_ShmUnLock(25));
    EXPECT_TRUE(eventually([&] { return taker.held(); }));
    EXPECT_EQ(0, plain_value(25));
    kt4test::CaptureStdout out;
    KT4_ShmLockDebug(1);
    std::string table = out.text();
    EXPECT_NE(std::string::npos, table.find("semval  lastpid")) << table;
    EXPECT_EQ(KT4_SHM_NUM_LOCKS + KT4_SHM_NUM_RW_LOCKS + 2, kt4test::count_of(table, "\r\n"));
}

TEST_F(ShmLocks, LocksOfProcessesKilledAtRandomPointsAreGivenBack) {
    // Processes take and give locks 4 and 9 and both reader-writer locks in a loop and are
    // killed (SIGKILL) at random points, inside a take or a give or while holding; a control
    // process of the card (its sysReaper) runs meanwhile. Afterwards every lock is free.
    const size_t bytes = kt4test::kAreaBytes;
    kt4test::Process monitor(kt4test::helper_cmd(kt4test::control_args("serve", 20, bytes)));
    ASSERT_TRUE(monitor.wait_for("serving", 20)) << monitor.text();
    const unsigned seed = std::random_device{}();
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937 rng(seed);
    std::vector<std::unique_ptr<kt4test::Process>> hammers;
    auto start_one = [&] {
        hammers.push_back(std::make_unique<kt4test::Process>(
            kt4test::helper_cmd({"hammer", std::to_string(rng()), std::to_string(bytes)})));
        hammers.back()->close_input();
    };
    for (int i = 0; i < 3; ++i)
        start_one();
    for (int kill = 0; kill < 40; ++kill) {
        std::this_thread::sleep_for(std::chrono::microseconds(2000 + rng() % 20000));
        size_t victim = rng() % hammers.size();
        hammers[victim]->kill_now();
        hammers.erase(hammers.begin() + static_cast<long>(victim));
        start_one();
    }
    for (auto &h : hammers)
        h->kill_now();
    bool free = eventually(
        [] {
            return plain_value(4) == 1 && plain_value(9) == 1 && rw_value(0) == 3 &&
                   rw_value(1) == 3;
        },
        10000);
    EXPECT_EQ(0, monitor.finish(20)) << monitor.text();
    ASSERT_TRUE(free) << "lock 4 " << plain_value(4) << ", lock 9 " << plain_value(9) << ", rw 0 "
                      << rw_value(0) << ", rw 1 " << rw_value(1);
    EXPECT_EQ(0, KT4_ShmLockRecover()) << "nothing left to give back";
}

} // namespace
