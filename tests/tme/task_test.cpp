// Creating tasks (threads and processes), the spawned child's wait for its parent, and what
// task exit releases.
#include "tme/tme_env.h"

#include "common/kt4_be.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <future>
#include <sys/wait.h>
#include <unistd.h>

namespace {

using tmetest::key_of;

constexpr uint32_t kNone = 0xFFFFFFFF;

// The calling thread becomes a task the system knows (the parent of what it creates).
class Parent : public ::testing::Test {
  protected:
    static void SetUpTestSuite() { ASSERT_EQ(kt4IpcOpen(170, 0), key_of(170, 0)); }
};

// A task created for a test: says what it saw, then waits (deletable) until released.
struct Worker {
    Worker() : release(semBCreate(KT4_SEM_Q_FIFO, KT4_SEM_EMPTY)) {}
    ~Worker() { semDelete(release); }
    std::promise<void> started;
    kt4SemId release;
    int keyArg = 0;
    int myKey = 0;
    int startup = 0;
};

int worker(kt4_arg_t a, kt4_arg_t key, kt4_arg_t, kt4_arg_t, kt4_arg_t, kt4_arg_t, kt4_arg_t,
           kt4_arg_t, kt4_arg_t, kt4_arg_t) {
    auto *w = reinterpret_cast<Worker *>(a);
    w->keyArg = static_cast<int>(key);
    w->myKey = kt4GetMyTaskKey(); // before anything else: the record is already the task's
    w->startup = kt4TaskStartup(w->keyArg, KT4_TASK_STARTUP_TIMER_Q | KT4_TASK_STARTUP_NO_READY);
    w->started.set_value();
    semTake(w->release, WAIT_FOREVER);
    return 0;
}

bool wait_ready(std::promise<void> &p) {
    return p.get_future().wait_for(std::chrono::seconds(10)) == std::future_status::ready;
}

TEST_F(Parent, ThreadTaskOwnsItsRecordAndIsReleasedWhenItEnds) {
    const int key = key_of(171, 2);
    Worker w;
    int tid = kt4TaskCreate("tWorker", 171, 2, KT4_TASK_AS_THREAD, 100, 0, 0, worker,
                            reinterpret_cast<kt4_arg_t>(&w), nullptr, nullptr);
    ASSERT_GT(tid, 0);
    ASSERT_TRUE(wait_ready(w.started));
    EXPECT_EQ(w.keyArg, key);
    EXPECT_EQ(w.myKey, key);
    EXPECT_EQ(w.startup, key);
    EXPECT_EQ(kt4TaskIdSelf(key), tid);
    int status = -1;
    EXPECT_EQ(kt4_tmeGetPeerIpAddrByName(171, 2, &status), tmetest::card_addr());

    // The service and instance are taken while the task lives.
    Worker dup;
    errno = 0;
    EXPECT_EQ(kt4TaskCreate("tDup", 171, 2, KT4_TASK_AS_THREAD, 100, 0, 0, worker,
                            reinterpret_cast<kt4_arg_t>(&dup), nullptr, nullptr),
              -1);
    EXPECT_EQ(errno, EEXIST);

    semGive(w.release);
    ASSERT_TRUE(tmetest::eventually([&] { return taskIdVerify(tid) == ERROR; }));
    EXPECT_EQ(kt4TaskIdSelf(key), -1);
    EXPECT_EQ(kt4_tmeGetPeerIpAddrByName(171, 2, &status), kNone);
    EXPECT_EQ(Key_getReqQueue(key), 0); // its endpoint was closed

    // ... and can be created again.
    Worker again;
    int tid2 = kt4TaskCreate("tWorker", 171, 2, KT4_TASK_AS_THREAD, 100, 0, 0, worker,
                             reinterpret_cast<kt4_arg_t>(&again), nullptr, nullptr);
    ASSERT_GT(tid2, 0);
    ASSERT_TRUE(wait_ready(again.started));
    EXPECT_EQ(again.startup, key);
    semGive(again.release);
    EXPECT_TRUE(tmetest::eventually([&] { return taskIdVerify(tid2) == ERROR; }));
}

TEST_F(Parent, DeletingATaskReleasesItsRecords) {
    // This thread takes the key over at the end and, not being a task, keeps its record: every
    // round of --gtest_repeat uses an instance of its own.
    static int round = 0;
    const int inst = round++ % 32;
    const int key = key_of(172, inst);
    Worker w;
    int tid = kt4TaskCreate("tVictim", 172, inst, KT4_TASK_AS_THREAD, 100, 0, 0, worker,
                            reinterpret_cast<kt4_arg_t>(&w), nullptr, nullptr);
    ASSERT_GT(tid, 0);
    ASSERT_TRUE(wait_ready(w.started));
    ASSERT_EQ(w.startup, key);
    ASSERT_EQ(taskDelete(tid), OK);
    EXPECT_EQ(kt4TaskIdSelf(key), -1);
    int status = -1;
    EXPECT_EQ(kt4_tmeGetPeerIpAddrByName(172, inst, &status), kNone);
    // Its ports are free: this thread can bind them.
    EXPECT_EQ(kt4IpcOpen(172, inst), key);
    kt4IpcClose(key);
}

int create_from_nowhere(kt4_arg_t a, kt4_arg_t, kt4_arg_t, kt4_arg_t, kt4_arg_t, kt4_arg_t,
                        kt4_arg_t, kt4_arg_t, kt4_arg_t, kt4_arg_t) {
    int rc = kt4TaskCreate("tOrphan", 173, 0, KT4_TASK_AS_THREAD, 100, 0, 0, worker, 0, nullptr,
                           nullptr);
    reinterpret_cast<std::promise<int> *>(a)->set_value(rc == -1 ? errno : 0);
    return 0;
}

TEST_F(Parent, RefusesWhatItCannotCreate) {
    errno = 0;
    EXPECT_EQ(
        kt4TaskCreate("tBad", 12, 0, KT4_TASK_AS_THREAD, 100, 0, 0, worker, 0, nullptr, nullptr),
        -1);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(
        kt4TaskCreate("tBad", 173, 32, KT4_TASK_AS_THREAD, 100, 0, 0, worker, 0, nullptr, nullptr),
        -1);

    // 25 words are one too many.
    std::string words;
    for (int i = 0; i < KT4_TASK_MAX_ARGS + 1; ++i)
        words += "w ";
    errno = 0;
    EXPECT_EQ(kt4TaskCreate("pBig", 173, 1, KT4_TASK_AS_PROCESS, 100, 0, 0, nullptr, 0,
                            tmetest::kHelperName, words.c_str()),
              -1);
    EXPECT_EQ(errno, E2BIG);

    // A program that is not in the product directory: the exec fails, nothing stays behind.
    errno = 0;
    EXPECT_EQ(kt4TaskCreate("pMissing", 173, 1, KT4_TASK_AS_PROCESS, 100, 0, 0, nullptr, 0,
                            "no_such_program", "x"),
              -1);
    EXPECT_EQ(errno, ENOENT);
    int status = -1;
    EXPECT_EQ(kt4_tmeGetPeerIpAddrByName(173, 1, &status), kNone);
    EXPECT_EQ(status, KT4_TME_PEER_UNKNOWN);

    // A task that is not known itself cannot be a parent.
    std::promise<int> orphan;
    ASSERT_NE(taskSpawn("tNoParent", 100, 0, 0, create_from_nowhere,
                        reinterpret_cast<kt4_arg_t>(&orphan), 0, 0, 0, 0, 0, 0, 0, 0, 0),
              ERROR);
    EXPECT_EQ(orphan.get_future().get(), ENOENT);
}

TEST_F(Parent, ProcessTaskRunsTheProgramAndAnswersThroughTheRegistry) {
    // This process's TME endpoint stands for the task manager that hears the ready message.
    const int tmeInst = static_cast<int>(kt4_sysGetInstance());
    kt4test::UdpPeer tme(kt4_sysGetIpAddr(), static_cast<uint16_t>(kt4_getQueueId(13, tmeInst, 1)));
    ASSERT_TRUE(tme.bound());

    int pid = kt4TaskCreate("pHelper", 180, 1, KT4_TASK_AS_PROCESS, 100, 0, 0, nullptr, 0,
                            tmetest::kHelperName, " task\talpha\n beta ");
    ASSERT_GT(pid, 0);

    std::vector<unsigned char> ready = tme.recv(10000);
    ASSERT_EQ(ready.size(), static_cast<size_t>(KT4_TASK_READY_MSG_LEN));
    EXPECT_EQ(kt4IpcHdrGet(ready.data(), KT4_IPC_HDR_MSG_TYPE), 1601u);
    auto word = [&](size_t off) { return kt4::load_be32(ready.data() + off); };
    EXPECT_EQ(word(64), static_cast<uint32_t>(pid));
    EXPECT_EQ(word(68), 180u);

    int status = -1;
    uint32_t addr = kt4_tmeGetTaskIpAddrByName(180, 1, &status);
    ASSERT_EQ(addr, tmetest::card_addr());
    EXPECT_EQ(kt4ProcIdByKey(key_of(180, 1)), pid);

    // A request to it, answered with its first word, its argument count and its creator.
    unsigned char msg[256] = {};
    kt4IpcHdrSet(msg, KT4_IPC_HDR_LENGTH, KT4_IPC_HDR_LEN);
    kt4IpcSetSourceHeader(msg, tmetest::card_slot(), 170, 0);
    kt4IpcSetTargetHeader(msg, addr, tmetest::card_slot(), 180, 1);
    int n = kt4IpcSendWait(key_of(170, 0), msg, sizeof msg, 10, 1700, 7);
    ASSERT_GT(n, KT4_IPC_HDR_LEN);
    std::string reply(reinterpret_cast<char *>(msg + KT4_IPC_HDR_LEN));
    // program, task, alpha, beta and the system's eight words
    EXPECT_EQ(reply, "alpha 12 " + std::to_string(getpid()));

    int wstatus = 0;
    ASSERT_EQ(waitpid(pid, &wstatus, 0), pid);
    EXPECT_TRUE(WIFEXITED(wstatus) && WEXITSTATUS(wstatus) == 0);
    EXPECT_EQ(kt4_tmeGetPeerIpAddrByName(180, 1, &status), kNone);
}

TEST_F(Parent, SpawnedChildWaitsForItsParentThenGoesOn) {
    // Our own process is registered: no wait.
    {
        tmetest::WaitRecorder rec;
        Worker w;
        int tid = kt4_taskSpawnP("tChild", 100, 0, 0, worker, 174, 0,
                                 reinterpret_cast<kt4_arg_t>(&w), getpid());
        ASSERT_GT(tid, 0);
        ASSERT_TRUE(wait_ready(w.started));
        EXPECT_EQ(w.myKey, key_of(174, 0));
        EXPECT_TRUE(rec.waits().empty());
        semGive(w.release);
        EXPECT_TRUE(tmetest::eventually([&] { return taskIdVerify(tid) == ERROR; }));
    }
    // A parent that never registers: three tries a second apart, reported, and the task is
    // started all the same.
    pid_t gone = fork();
    if (gone == 0) _exit(0);
    ASSERT_EQ(waitpid(gone, nullptr, 0), gone);
    tmetest::WaitRecorder rec;
    Worker w;
    int tid =
        kt4_taskSpawnP("tLost", 100, 0, 0, worker, 174, 1, reinterpret_cast<kt4_arg_t>(&w), gone);
    ASSERT_GT(tid, 0);
    EXPECT_EQ(rec.waits(), std::vector<int>(2, sysClkRateGet()));
    ASSERT_TRUE(wait_ready(w.started));
    EXPECT_EQ(w.myKey, key_of(174, 1));
    semGive(w.release);
    EXPECT_TRUE(tmetest::eventually([&] { return taskIdVerify(tid) == ERROR; }));
}

} // namespace
