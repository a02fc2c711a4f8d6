// The EV key registry across processes and tasks: keys, look-ups, masks, tear-down.
#include "evt/evt_env.h"

#include "platform/shm_area.h"

#include <csignal>
#include <set>
#include <thread>
#include <unistd.h>

namespace {

bool registry_exists() {
    return kt4::shm::table(kt4::shm::kEvtKeyRegistry) != nullptr;
}

TEST(EvtRegistry, TwoProcessesShareTheTwoHundredKeysAndOnlyTheCreatorTearsItDown) {
    evttest::card();
    evttest::Server server(24, 0);
    ASSERT_TRUE(server.ok());
    EXPECT_EQ(kt4EvtOpenlog(150, -1), -1);
    EXPECT_FALSE(registry_exists()) << "instance -1 is refused before the registry is touched";

    for (int i = 0; i < 100; ++i)
        ASSERT_EQ(kt4EvtOpenlog(150, 0), KT4_EVT_KEY_BASE + i);
    const pid_t parent = getpid();
    const pid_t child = kt4test::fork_child([parent] {
        bool ok = true;
        for (int i = 0; i < 100; ++i)
            ok &= kt4EvtOpenlog(151, 1) == 20100 + i;
        kt4TracePrintOn();
        kt4test::CaptureStdout cap;
        ok &= kt4EvtOpenlog(151, 2) == -1;
        ok &= cap.text().find("kt4EvtOpenLog: No Ev Key Left for                        "
                              "service: 151, instance 2") != std::string::npos;
        // Look-ups see both processes' keys.
        ok &= kt4EvtGetKeyFromServiceInstance(150, 0) == 20000;
        ok &= kt4EvtGetEvKeyFromPid(static_cast<int>(parent)) == 20000;
        ok &= kt4EvtGetEvKeyFromPid(static_cast<int>(getpid())) == 20100;
        ok &= kt4EvtGetMyEvKey() == 20100;
        ok &= kt4EvtGetServiceKey(20199) == 151 && kt4EvtGetInstanceKey(20199) == 1;
        ok &= kt4EvtGetIpcKey(20150) == (151 << 7 | 1 << 2);
        ok &= kt4EvtGetServiceKey(20000) == 150;
        // Every key closed, the parent's last: empty, but this process did not create it.
        for (int k = 20100; k < 20300; ++k)
            ok &= kt4EvtCloselog(k < 20200 ? k : k - 200) == 0;
        return ok && registry_exists();
    });
    ASSERT_EQ(kt4test::wait_child(child), 0);
    EXPECT_EQ(kt4EvtGetEvKeyFromPid(static_cast<int>(child)), -1);
    EXPECT_EQ(kt4EvtCloselog(20150), -1) << "closed already";
    // Closed records go to the free queue's tail, in the order they were closed.
    EXPECT_EQ(kt4EvtOpenlog(152, 0), 20100);
    EXPECT_EQ(kt4EvtOpenlog(152, 0), 20101);
    EXPECT_EQ(kt4EvtGetKeyFromServiceInstance(152, 0), 20100);
    ASSERT_EQ(kt4EvtCloselog(20100), 0);
    ASSERT_EQ(kt4EvtCloselog(20101), 0);
    EXPECT_FALSE(registry_exists());
    EXPECT_EQ(kt4EvtCloselog(20100), -1);
    EXPECT_EQ(kt4EvtGetMyEvKey(), -1);
    // The next open makes it again.
    const int d = kt4EvtOpenlog(153, 0);
    EXPECT_EQ(d, KT4_EVT_KEY_BASE);
    EXPECT_EQ(kt4EvtCloselog(d), 0);
}

// A process killed with its key open: the next open gives the key back, so that a process
// started in its place is the one found by service and instance.
TEST(EvtRegistry, AKilledProcesssKeyIsGivenBackAtTheNextOpen) {
    evttest::card();
    evttest::Server server(24, 0);
    const int own = kt4EvtOpenlog(156, 0);
    ASSERT_NE(own, -1);
    const pid_t child = kt4test::fork_child([] {
        kt4EvtOpenlog(155, 0);
        raise(SIGKILL);
        return false;
    });
    ASSERT_EQ(kt4test::wait_child(child), -1) << "killed";
    const int dead = kt4EvtGetEvKeyFromPid(static_cast<int>(child));
    ASSERT_NE(dead, -1) << "held until the next open";
    const int again = kt4EvtOpenlog(155, 0);
    ASSERT_NE(again, -1);
    EXPECT_EQ(kt4EvtGetEvKeyFromPid(static_cast<int>(child)), -1);
    EXPECT_EQ(kt4EvtGetKeyFromServiceInstance(155, 0), again);
    EXPECT_EQ(kt4EvtGetServiceKey(own), 156) << "a live process's key stays";
    EXPECT_EQ(kt4EvtCloselog(again), 0);
    EXPECT_EQ(kt4EvtCloselog(own), 0);
    EXPECT_FALSE(registry_exists());
}

TEST(EvtRegistry, SeverityMasksKeepLevelsZeroToTwoOn) {
    evttest::card();
    evttest::Server server(24, 0);
    const int k = kt4EvtOpenlog(155, 0);
    const int other = kt4EvtOpenlog(155, 1);
    ASSERT_NE(k, -1);
    EXPECT_EQ(kt4EvtCheckSeverityLevel(k, 6), 1);
    EXPECT_EQ(kt4EvtCheckSeverityLevel(k, 7), 0);

    EXPECT_EQ(kt4EvtSetSeverityLevel(k, 0), 0);
    for (int level = 0; level < 32; ++level)
        EXPECT_EQ(kt4EvtCheckSeverityLevel(k, level), level <= 2 ? 1 : 0) << level;
    EXPECT_EQ(kt4EvtTurnOnSeverityLevel(k, 35), 0); // bit 35 & 31
    EXPECT_EQ(kt4EvtCheckSeverityLevel(k, 3), 1);
    EXPECT_EQ(kt4EvtSetSeverityLevelForService(155, 0x100), 0); // every key of the service
    for (int key : {k, other}) {
        EXPECT_EQ(kt4EvtCheckSeverityLevel(key, 8), 1);
        EXPECT_EQ(kt4EvtCheckSeverityLevel(key, 3), 0);
        EXPECT_EQ(kt4EvtCheckSeverityLevel(key, 2), 1);
    }
    EXPECT_EQ(kt4EvtCloselog(other), 0);
    EXPECT_EQ(kt4EvtSetSeverityLevel(other, 0x7F), -1) << "closed key";
    EXPECT_EQ(kt4EvtCloselog(k), 0);
}

// Tasks of one process open and close keys at once: every key handed out once, the lists
// whole afterwards.
TEST(EvtRegistry, ConcurrentOpensAndClosesHandOutEachKeyOnce) {
    evttest::card();
    evttest::Server server(24, 0);
    constexpr int kThreads = 4, kEach = 25;
    std::vector<int> keys[kThreads];
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t)
        threads.emplace_back([t, &keys] {
            for (int i = 0; i < kEach; ++i) {
                keys[t].push_back(kt4EvtOpenlog(160 + t, 0));
                if (i % 5 == 4) { // close one now and then, open the next
                    kt4EvtCloselog(keys[t].back());
                    keys[t].pop_back();
                }
            }
        });
    for (std::thread &th : threads)
        th.join();
    std::set<int> all;
    for (auto &v : keys)
        for (int k : v) {
            EXPECT_TRUE(k >= KT4_EVT_KEY_BASE && k < KT4_EVT_KEY_BASE + KT4_EVT_MAX_KEYS) << k;
            all.insert(k);
        }
    EXPECT_EQ(all.size(), size_t{kThreads * (kEach - kEach / 5)});
    for (int t = 0; t < kThreads; ++t)
        EXPECT_EQ(kt4EvtGetKeyFromServiceInstance(160 + t, 0), keys[t].front());
    threads.clear();
    for (int t = 0; t < kThreads; ++t)
        threads.emplace_back([t, &keys] {
            for (int k : keys[t])
                kt4EvtCloselog(k);
        });
    for (std::thread &th : threads)
        th.join();
    EXPECT_EQ(kt4EvtGetEvKeyFromPid(static_cast<int>(getpid())), -1);
    EXPECT_FALSE(registry_exists());
}

} // namespace
