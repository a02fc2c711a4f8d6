// Peer look-ups across the processes of a card, and the retry back-off.
#include "tme/tme_env.h"

#include <gtest/gtest.h>

#include <csignal>
#include <cstdio>
#include <cstring>
#include <sys/wait.h>
#include <unistd.h>

namespace {

constexpr uint32_t kNone = 0xFFFFFFFF;

int key_of(int service, int instance) {
    return service << 7 | instance << 2;
}

// The helper as a peer process: started with fork and exec, driven through pipes.
class PeerProcess {
  public:
    PeerProcess(int service, int instance) {
        int in[2], out[2];
        if (pipe(in) != 0 || pipe(out) != 0) return;
        std::string path = tmetest::root_dir() + "/" + tmetest::kHelperName;
        std::string svc = std::to_string(service), inst = std::to_string(instance);
        std::string bytes = std::to_string(tmetest::kAreaBytes);
        pid_ = fork();
        if (pid_ == 0) {
            dup2(in[0], 0);
            dup2(out[1], 1);
            close(in[1]);
            close(out[0]);
            execl(path.c_str(), path.c_str(), "peer", svc.c_str(), inst.c_str(), bytes.c_str(),
                  static_cast<char *>(nullptr));
            _exit(127);
        }
        close(in[0]);
        close(out[1]);
        to_ = fdopen(in[1], "w");
        from_ = fdopen(out[0], "r");
    }
    ~PeerProcess() {
        if (to_ != nullptr) fclose(to_);
        if (from_ != nullptr) fclose(from_);
        reap();
    }
    pid_t pid() const { return pid_; }
    std::string line() {
        char buf[128] = {};
        if (from_ == nullptr || fgets(buf, sizeof buf, from_) == nullptr) return "";
        return buf;
    }
    void say(const char *text) {
        fputs(text, to_);
        fflush(to_);
    }
    void reap() {
        if (pid_ > 0) waitpid(pid_, nullptr, 0);
        pid_ = -1;
    }

  private:
    pid_t pid_ = -1;
    FILE *to_ = nullptr;
    FILE *from_ = nullptr;
};

TEST(PeerLookup, FindsAnEndpointOfAnotherProcessUntilItCloses) {
    PeerProcess peer(150, 4);
    ASSERT_GT(peer.pid(), 0);
    ASSERT_EQ(peer.line(), "ready " + std::to_string(key_of(150, 4)) + "\n");

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
    ASSERT_EQ(peer.line(), "closed\n");
    EXPECT_EQ(kt4_tmeGetPeerIpAddrByName(150, 4, &status), kNone);
    EXPECT_EQ(status, KT4_TME_PEER_UNKNOWN);
}

TEST(PeerLookup, ForgetsAPeerThatDied) {
    // This thread takes the key over at the end and, not being a task, keeps its record: every
    // round of --gtest_repeat uses an instance of its own.
    static int round = 0;
    const int inst = round++ % 32;
    PeerProcess peer(151, inst);
    ASSERT_EQ(peer.line(), "ready " + std::to_string(key_of(151, inst)) + "\n");
    int status = -1;
    ASSERT_EQ(kt4_tmeGetPeerIpAddrByName(151, inst, &status), tmetest::card_addr());

    // Killed: no chance to clean up. Not yet collected, it is a zombie, and gone all the same.
    ASSERT_EQ(kill(peer.pid(), SIGKILL), 0);
    EXPECT_TRUE(tmetest::eventually([&] {
        return kt4_tmeGetPeerIpAddrByName(151, inst, &status) == kNone &&
               status == KT4_TME_PEER_UNKNOWN;
    }));
    peer.reap();
    EXPECT_EQ(kt4ProcIdByKey(key_of(151, inst)), -1);
    // Its service and instance can be taken again at once.
    EXPECT_EQ(kt4IpcOpen(151, inst), key_of(151, inst));
    EXPECT_EQ(kt4_tmeGetPeerIpAddrByName(151, inst, &status), tmetest::card_addr());
    kt4IpcClose(key_of(151, inst));
}

TEST(PeerLookup, BackOffGrowsTenTicksEveryTenTriesAndGivesUpAfterAHundred) {
    tmetest::WaitRecorder rec;
    int status = -1;
    EXPECT_EQ(kt4_tmeGetTaskIpAddrByName(160, 1, &status), kNone);
    EXPECT_EQ(status, KT4_TME_PEER_UNKNOWN);

    std::vector<int> want(9, 10);
    for (int ticks = 20; ticks <= 100; ticks += 10)
        want.insert(want.end(), 10, ticks);
    ASSERT_EQ(want.size(), 99u);
    EXPECT_EQ(rec.waits(), want);
}

TEST(PeerLookup, RetriesEndOnceThePeerRegisters) {
    // The peer opens its endpoint during the fifth wait.
    tmetest::WaitRecorder rec([](int n, void *) {
        if (n == 5) kt4IpcOpen(161, 2);
    });
    int status = -1;
    EXPECT_EQ(kt4_tmeGetTaskIpAddrByName(161, 2, &status), tmetest::card_addr());
    EXPECT_EQ(status, KT4_TME_PEER_FOUND);
    EXPECT_EQ(rec.waits(), std::vector<int>(5, 10));
    kt4IpcClose(key_of(161, 2));
}

TEST(PeerLookup, SlotLookupWaitsForTheManagerToServe) {
    ASSERT_EQ(kt4IpcOpen(162, 0), key_of(162, 0));
    ASSERT_EQ(kt4_tmeSetState(3), 0);
    tmetest::WaitRecorder rec([](int n, void *) {
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
