// Task keys and the calling task's own key; the ready message, byte for byte, as the card's task
// manager receives it; creating tasks (threads and processes), the spawned child's wait for its
// parent, and what task exit releases; peer look-ups across the processes of a card, and the
// retry back-off.
#include "tme/tme_env.h"

#include "common/kt4_be.h"
#include "ipc/ipc_test_util.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <future>
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

// A thread task running worker for w; its id, or -1.
int create_worker(const char *name, int service, int instance, Worker &w) {
    return kt4TaskCreate(name, service, instance, KT4_TASK_AS_THREAD, 100, 0, 0, worker,
                         reinterpret_cast<kt4_arg_t>(&w), nullptr, nullptr);
}

TEST_F(Parent, ThreadTaskOwnsItsRecordAndIsReleasedWhenItEndsOrIsDeleted) {
    // This thread takes the key over at the end and, not being a task, keeps its record: every
    // round of --gtest_repeat uses an instance of its own.
    static int round = 0;
    const int inst = round++ % 32;
    const int key = key_of(171, inst);
    Worker w;
    int tid = create_worker("tWorker", 171, inst, w);
    ASSERT_GT(tid, 0);
    ASSERT_TRUE(wait_ready(w.started));
    EXPECT_EQ(w.keyArg, key);
    EXPECT_EQ(w.myKey, key);
    EXPECT_EQ(w.startup, key);
    EXPECT_EQ(kt4TaskIdSelf(key), tid);
    int status = -1;
    EXPECT_EQ(kt4_tmeGetPeerIpAddrByName(171, inst, &status), tmetest::card_addr());

    // The service and instance are taken while the task lives.
    Worker dup;
    KT4_EXPECT_ERRNO(EEXIST, -1, create_worker("tDup", 171, inst, dup));

    semGive(w.release);
    ASSERT_TRUE(tmetest::eventually([&] { return taskIdVerify(tid) == ERROR; }));
    EXPECT_EQ(kt4TaskIdSelf(key), -1);
    EXPECT_EQ(kt4_tmeGetPeerIpAddrByName(171, inst, &status), kNone);
    EXPECT_EQ(Key_getReqQueue(key), 0); // its endpoint was closed

    // ... and can be created again; deleted, it releases its records and its ports (this
    // thread can bind them).
    Worker again;
    int tid2 = create_worker("tWorker", 171, inst, again);
    ASSERT_GT(tid2, 0);
    ASSERT_TRUE(wait_ready(again.started));
    EXPECT_EQ(again.startup, key);
    ASSERT_EQ(taskDelete(tid2), OK);
    EXPECT_EQ(kt4TaskIdSelf(key), -1);
    EXPECT_EQ(kt4_tmeGetPeerIpAddrByName(171, inst, &status), kNone);
    EXPECT_EQ(kt4IpcOpen(171, inst), key);
    kt4IpcClose(key);
}

TEST_F(Parent, RefusesWhatItCannotCreate) {
    KT4_EXPECT_ERRNO(
        EINVAL, -1,
        kt4TaskCreate("tBad", 12, 0, KT4_TASK_AS_THREAD, 100, 0, 0, worker, 0, nullptr, nullptr));

    // 25 words are one too many.
    std::string words;
    for (int i = 0; i < KT4_TASK_MAX_ARGS + 1; ++i)
        words += "w ";
    KT4_EXPECT_ERRNO(E2BIG, -1,
                     kt4TaskCreate("pBig", 173, 1, KT4_TASK_AS_PROCESS, 100, 0, 0, nullptr, 0,
                                   tmetest::kHelperName, words.c_str()));

    // A program that is not in the product directory: the exec fails, nothing stays behind.
    KT4_EXPECT_ERRNO(ENOENT, -1,
                     kt4TaskCreate("pMissing", 173, 1, KT4_TASK_AS_PROCESS, 100, 0, 0, nullptr, 0,
                                   "no_such_program", "x"));
    int status = -1;
    EXPECT_EQ(kt4_tmeGetPeerIpAddrByName(173, 1, &status), kNone);
    EXPECT_EQ(status, KT4_TME_PEER_UNKNOWN);

    // A task that is not known itself cannot be a parent.
    std::promise<int> orphan;
    auto create = [&orphan] {
        int rc = kt4TaskCreate("tOrphan", 173, 0, KT4_TASK_AS_THREAD, 100, 0, 0, worker, 0, nullptr,
                               nullptr);
        orphan.set_value(rc == -1 ? errno : 0);
    };
    ASSERT_NE(kt4test::spawn_task("tNoParent", 100, create), ERROR);
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

    // Its ready message (byte for byte in TaskReady below) names the process.
    std::vector<unsigned char> ready = tme.recv(10000);
    ASSERT_EQ(ready.size(), static_cast<size_t>(KT4_TASK_READY_MSG_LEN));
    EXPECT_EQ(kt4::load_be32(ready.data() + 64), static_cast<uint32_t>(pid));

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

    EXPECT_EQ(kt4test::wait_child(pid), 0);
    EXPECT_EQ(kt4_tmeGetPeerIpAddrByName(180, 1, &status), kNone);
}

TEST_F(Parent, SpawnedChildWaitsForItsParentThenGoesOn) {
    // The waits of a child of parent (with its own instance), which is started all the same.
    auto waits_of_child = [](int instance, pid_t parent) {
        tmetest::WaitRecorder rec;
        Worker w;
        int tid = kt4_taskSpawnP("tChild", 100, 0, 0, worker, 174, instance,
                                 reinterpret_cast<kt4_arg_t>(&w), parent);
        EXPECT_GT(tid, 0);
        EXPECT_TRUE(wait_ready(w.started));
        EXPECT_EQ(w.myKey, key_of(174, instance));
        semGive(w.release);
        EXPECT_TRUE(tmetest::eventually([&] { return taskIdVerify(tid) == ERROR; }));
        return rec.waits();
    };
    // Our own process is registered: no wait.
    EXPECT_TRUE(waits_of_child(0, getpid()).empty());
    // A parent that never registers: three tries a second apart, then reported.
    pid_t gone = kt4test::fork_child([] { return true; });
    ASSERT_EQ(kt4test::wait_child(gone), 0);
    EXPECT_EQ(waits_of_child(1, gone), std::vector<int>(2, sysClkRateGet()));
}

TEST(TaskKeys, ChecksHoldAtTheBounds) {
    // Services 13..363 and instances 0..31 only; a key outside is reported and given back.
    for (auto [svc, inst] : {std::pair{12, 0}, {364, 0}, {13, 32}, {13, -1}})
        EXPECT_EQ(kt4GetTaskKeyFromServiceAndInst(svc, inst), -1) << svc << "/" << inst;
    EXPECT_EQ(kt4GetTaskKeyFromServiceAndInst(363, 31), 363 << 7 | 31 << 2);
    EXPECT_EQ(kt4TaskGetServiceByKey(key_of(363, 31) | 3), 363);
    EXPECT_EQ(kt4TaskGetInstanceByKey(key_of(363, 31) | 3), 31);
    EXPECT_EQ(kt4TaskGetServiceByKey(key_of(12, 31)), -1);
    EXPECT_EQ(kt4TaskGetInstanceByKey(key_of(364, 5)), -1);
    EXPECT_EQ(kt4TaskGetIpcKey(key_of(12, 4) | 1), key_of(12, 4) | 1);
    EXPECT_EQ(kt4ProcIdByKey(key_of(364, 0)), -1);
}

TEST(TaskKeys, OwnKeyIsTheLowestServiceThenInstance) {
    std::promise<int> opened;
    std::promise<void> release;
    std::future<void> released = release.get_future();
    int tid = kt4test::spawn_task("tOwnKey", 100, [&] {
        // Opened highest first: the order of opening must not matter.
        for (auto [svc, inst] : {std::pair{250, 5}, {120, 9}, {120, 2}})
            kt4IpcOpen(svc, inst);
        opened.set_value(kt4GetMyTaskKey());
        released.wait();
        for (int key : {key_of(250, 5), key_of(120, 9), key_of(120, 2)})
            kt4IpcClose(key);
    });
    ASSERT_NE(tid, ERROR);
    std::future<int> myKey = opened.get_future();
    ASSERT_EQ(myKey.wait_for(std::chrono::seconds(10)), std::future_status::ready);
    EXPECT_EQ(myKey.get(), key_of(120, 2));
    EXPECT_EQ(kt4TaskIdSelf(key_of(120, 9)), tid);
    EXPECT_EQ(kt4TaskIdSelf(key_of(250, 5)), tid);
    EXPECT_EQ(kt4ProcIdByKey(key_of(120, 2)), getpid());

    // A task that owns nothing has no key, although another task of its process has.
    std::promise<int> none;
    ASSERT_NE(kt4test::spawn_task("tNoKey", 100, [&] { none.set_value(kt4GetMyTaskKey()); }),
              ERROR);
    EXPECT_EQ(none.get_future().get(), -1);

    release.set_value();
    EXPECT_TRUE(tmetest::eventually([&] { return taskIdVerify(tid) == ERROR; }));
    // The ended task's records are free again.
    EXPECT_EQ(kt4TaskIdSelf(key_of(120, 2)), -1);
    EXPECT_EQ(kt4ProcIdByKey(key_of(120, 2)), -1);
}

void be32_at(std::vector<unsigned char> &v, size_t off, uint32_t x) {
    kt4::store_be32(v.data() + off, x);
}

// The announcement goes through kt4IpcSend: with guaranteed delivery on, the first message to the
// manager is a guaranteed first send (command type 9) that completes when the manager acknowledges
// it with command type 8.
TEST(TaskReady, SendsTheSeventyTwoByteMessageAndWaitsForTheManagersAcknowledgement) {
    kt4IpcGuaranteedEnDis(1);
    const uint32_t tmeAddr = kt4_sysGetIpAddr();
    const uint32_t tmeInst = kt4_sysGetInstance();
    ASSERT_EQ(tmeAddr, tmetest::card_addr());
    ASSERT_EQ(uint32_t{tmetest::kTmeInstance}, tmeInst) << "taken from KT4_TME_INSTANCE";
    const auto tmePort = static_cast<uint16_t>(kt4_getQueueId(13, static_cast<int>(tmeInst), 1));
    kt4test::UdpPeer tme(tmeAddr, tmePort);
    ASSERT_TRUE(tme.bound());

    const int service = 140, instance = 3;
    const int key = kt4GetTaskKeyFromServiceAndInst(service, instance);
    // Start-up opens the endpoint and announces the task; it waits for the acknowledgement.
    auto startup = std::async(std::launch::async, [key] { return kt4TaskStartup(key, 0); });

    uint32_t from = 0;
    uint16_t fromPort = 0;
    std::vector<unsigned char> got = tme.recv(2000, &from, &fromPort);
    ASSERT_EQ(got.size(), 72u);
    EXPECT_EQ(from, tmetest::card_addr());
    EXPECT_EQ(fromPort, key | 1); // sent from the task's request queue

    std::vector<unsigned char> want(72, 0);
    be32_at(want, 0, 0xFEEDBEAF);
    want[4] = 9; // first guaranteed message to this target, sequence 0
    be32_at(want, 8, 72);
    be32_at(want, 12, 1601);
    be32_at(want, 24, 15);
    be32_at(want, 36, static_cast<uint32_t>(tmetest::card_slot()));
    be32_at(want, 40, tmetest::card_addr());
    be32_at(want, 44, static_cast<uint32_t>(key | 2));
    be32_at(want, 48, static_cast<uint32_t>(tmetest::card_slot()));
    be32_at(want, 52, tmeAddr);
    be32_at(want, 56, static_cast<uint32_t>(13 << 7 | tmeInst << 2 | 1));
    be32_at(want, 60, static_cast<uint32_t>(taskIdSelf()));
    be32_at(want, 64, static_cast<uint32_t>(getpid()));
    be32_at(want, 68, static_cast<uint32_t>(service));
    EXPECT_EQ(got, want);

    // The manager's acknowledgement (command type 8 of a first message, 6 of the others), to
    // the sender's response queue.
    auto ack_of = [](const std::vector<unsigned char> &m) {
        return ipctest::ack_of(m, m[4] == 9 ? 8 : 6);
    };
    ASSERT_GT(tme.send(tmetest::card_addr(), static_cast<uint16_t>(key | 2), ack_of(got)), 0);
    EXPECT_EQ(startup.get(), key);
    // Acknowledged once: no second try reaches the manager.
    EXPECT_TRUE(tme.recv(1200).empty());

    // The next announcement is a plain guaranteed send with the next sequence number.
    auto again = std::async(std::launch::async, [key] { return kt4TaskReady(key); });
    got = tme.recv(2000);
    ASSERT_EQ(got.size(), 72u);
    EXPECT_EQ(got[4], 7);
    EXPECT_EQ(got[7], 1);
    EXPECT_TRUE(std::equal(got.begin() + 8, got.end(), want.begin() + 8));
    ASSERT_GT(tme.send(tmetest::card_addr(), static_cast<uint16_t>(key | 2), ack_of(got)), 0);
    EXPECT_EQ(again.get(), 0);

    kt4IpcClose(key);
    // Without an open request queue there is nothing to send from.
    EXPECT_EQ(kt4TaskReady(key), -1);
    EXPECT_TRUE(tme.recv(50).empty());
}

// The helper as a peer process of the card, driven through its standard input and output.
struct PeerProcess : kt4test::Process {
    PeerProcess(int service, int instance)
        : Process({kt4test::Card::get().root() + "/" + tmetest::kHelperName, "peer",
                   std::to_string(service), std::to_string(instance),
                   std::to_string(kt4test::kAreaBytes)}) {}
};

TEST(PeerLookup, FindsAnEndpointOfAnotherProcessUntilItClosesOrDies) {
    PeerProcess peer(150, 4);
    ASSERT_GT(peer.pid(), 0);
    ASSERT_EQ(peer.line(), "ready " + std::to_string(key_of(150, 4)));

    int status = -1;
    EXPECT_EQ(kt4_tmeGetPeerIpAddrByName(150, 4, &status), tmetest::card_addr());
    EXPECT_EQ(status, KT4_TME_PEER_FOUND);
    EXPECT_EQ(kt4ProcIdByKey(key_of(150, 4)), peer.pid());
    EXPECT_EQ(kt4_tmeGetPeerIpAddrByNameAndSlot(150, 4, tmetest::card_slot(), &status),
              tmetest::card_addr());
    EXPECT_EQ(kt4_tmeGetPeerIpAddrByNameAndSlot(150, 4, tmetest::card_slot() + 1, &status), kNone);
    EXPECT_EQ(status, KT4_TME_PEER_UNKNOWN);
    {
        tmetest::WaitRecorder rec;
        EXPECT_EQ(kt4_tmeGetTaskIpAddrByName(150, 4, &status), tmetest::card_addr());
        EXPECT_TRUE(rec.waits().empty());
    }
    // Another instance of the same service is a different task.
    EXPECT_EQ(kt4_tmeGetPeerIpAddrByName(150, 5, &status), kNone);

    peer.say("close\n");
    ASSERT_EQ(peer.line(), "closed");
    EXPECT_EQ(kt4_tmeGetPeerIpAddrByName(150, 4, &status), kNone);
    EXPECT_EQ(status, KT4_TME_PEER_UNKNOWN);

    // A peer killed without a chance to clean up is forgotten at once, even while it is a
    // zombie not yet collected. This thread takes the key over at the end and, not being a task,
    // keeps its record: every round of --gtest_repeat uses an instance of its own.
    static int round = 0;
    const int inst = round++ % 32;
    PeerProcess dying(151, inst);
    ASSERT_EQ(dying.line(), "ready " + std::to_string(key_of(151, inst)));
    ASSERT_EQ(kt4_tmeGetPeerIpAddrByName(151, inst, &status), tmetest::card_addr());
    ASSERT_EQ(kill(dying.pid(), SIGKILL), 0);
    EXPECT_TRUE(tmetest::eventually([&] {
        return kt4_tmeGetPeerIpAddrByName(151, inst, &status) == kNone &&
               status == KT4_TME_PEER_UNKNOWN;
    }));
    dying.finish(10);
    EXPECT_EQ(kt4ProcIdByKey(key_of(151, inst)), -1);
    // Its service and instance can be taken again at once.
    EXPECT_EQ(kt4IpcOpen(151, inst), key_of(151, inst));
    EXPECT_EQ(kt4_tmeGetPeerIpAddrByName(151, inst, &status), tmetest::card_addr());
    kt4IpcClose(key_of(151, inst));
}

TEST(PeerLookup, BackOffGrowsTenTicksEveryTenTriesUntilThePeerRegistersOrAHundredPass) {
    tmetest::WaitRecorder rec;
    int status = -1;
    EXPECT_EQ(kt4_tmeGetTaskIpAddrByName(160, 1, &status), kNone);
    EXPECT_EQ(status, KT4_TME_PEER_UNKNOWN);

    std::vector<int> want(9, 10);
    for (int ticks = 20; ticks <= 100; ticks += 10)
        want.insert(want.end(), 10, ticks);
    ASSERT_EQ(want.size(), 99u);
    EXPECT_EQ(rec.waits(), want);

    // The retries end once the peer registers: here it opens its endpoint in the fifth wait.
    tmetest::WaitRecorder found([](int n) {
        if (n == 5) kt4IpcOpen(161, 2);
    });
    EXPECT_EQ(kt4_tmeGetTaskIpAddrByName(161, 2, &status), tmetest::card_addr());
    EXPECT_EQ(status, KT4_TME_PEER_FOUND);
    EXPECT_EQ(found.waits(), std::vector<int>(5, 10));
    kt4IpcClose(key_of(161, 2));
}

TEST(PeerLookup, SlotLookupWaitsForTheManagerToServe) {
    ASSERT_EQ(kt4IpcOpen(162, 0), key_of(162, 0));
    ASSERT_EQ(kt4_tmeSetState(3), 0);
    tmetest::WaitRecorder rec([](int n) {
        if (n == 2) kt4_tmeSetState(KT4_TME_STATE_SERVING);
    });
    int status = -1;
    EXPECT_EQ(kt4_tmeGetPeerIpAddrByNameAndSlot(162, 0, tmetest::card_slot(), &status),
              tmetest::card_addr());
    EXPECT_EQ(status, KT4_TME_PEER_FOUND);
    EXPECT_EQ(rec.waits(), std::vector<int>(2, sysClkRateGet())); // one second each
    kt4IpcClose(key_of(162, 0));
}

TEST(PeerLookup, ProcessPerInstanceSystemResolvesMasterTasksAndWaitsEvenly) {
    setenv("KT4_PLATFORM_TYPE", "9", 1);
    setenv("KT4_VIRTUAL", "single", 1);
    kt4CardReload();
    int status = -1;
    uint32_t master = kt4_tmeGetTaskIpAddrByName2(163, 0, &status, 1);
    uint32_t want = 0, mask = 0;
    ASSERT_EQ(kt4GetCpuIpcAddrInPE(kt4SysGetRpmSlotId(), 1, &want, &mask), 0);
    EXPECT_EQ(master, want);
    EXPECT_EQ(status, KT4_TME_PEER_FOUND);
    {
        tmetest::WaitRecorder rec;
        EXPECT_EQ(kt4_tmeGetTaskIpAddrByName2(163, 0, &status, 0), kNone);
        EXPECT_EQ(rec.waits(), std::vector<int>(99, 10));
    }
    unsetenv("KT4_PLATFORM_TYPE");
    unsetenv("KT4_VIRTUAL");
    kt4CardReload();
}

} // namespace
