// Task keys, their checks at the bounds, the calling task's own key, and service names.
#include "tme/tme_env.h"

#include <gtest/gtest.h>

#include <future>
#include <unistd.h>

namespace {

using tmetest::key_of;

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

struct OwnKeyRun {
    std::promise<void> opened;
    std::promise<void> release;
    int myKey = 0;
    int taskId = 0;
};

int own_key_task(kt4_arg_t a, kt4_arg_t, kt4_arg_t, kt4_arg_t, kt4_arg_t, kt4_arg_t, kt4_arg_t,
                 kt4_arg_t, kt4_arg_t, kt4_arg_t) {
    auto *run = reinterpret_cast<OwnKeyRun *>(a);
    run->taskId = taskIdSelf();
    // Opened highest first: the order of opening must not matter.
    kt4IpcOpen(250, 5);
    kt4IpcOpen(120, 9);
    kt4IpcOpen(120, 2);
    run->myKey = kt4GetMyTaskKey();
    run->opened.set_value();
    run->release.get_future().wait();
    kt4IpcClose(key_of(250, 5));
    kt4IpcClose(key_of(120, 9));
    kt4IpcClose(key_of(120, 2));
    return 0;
}

int no_record_task(kt4_arg_t a, kt4_arg_t, kt4_arg_t, kt4_arg_t, kt4_arg_t, kt4_arg_t, kt4_arg_t,
                   kt4_arg_t, kt4_arg_t, kt4_arg_t) {
    reinterpret_cast<std::promise<int> *>(a)->set_value(kt4GetMyTaskKey());
    return 0;
}

TEST(TaskKeys, OwnKeyIsTheLowestServiceThenInstance) {
    OwnKeyRun run;
    int tid = taskSpawn("tOwnKey", 100, 0, 0, own_key_task, reinterpret_cast<kt4_arg_t>(&run), 0, 0,
                        0, 0, 0, 0, 0, 0, 0);
    ASSERT_NE(tid, ERROR);
    ASSERT_EQ(run.opened.get_future().wait_for(std::chrono::seconds(10)),
              std::future_status::ready);
    EXPECT_EQ(run.myKey, key_of(120, 2));
    EXPECT_EQ(kt4TaskIdSelf(key_of(120, 9)), tid);
    EXPECT_EQ(kt4TaskIdSelf(key_of(250, 5)), tid);
    EXPECT_EQ(kt4ProcIdByKey(key_of(120, 2)), getpid());

    // A task that owns nothing has no key, although another task of its process has.
    std::promise<int> none;
    ASSERT_NE(taskSpawn("tNoKey", 100, 0, 0, no_record_task, reinterpret_cast<kt4_arg_t>(&none), 0,
                        0, 0, 0, 0, 0, 0, 0, 0),
              ERROR);
    EXPECT_EQ(none.get_future().get(), -1);

    run.release.set_value();
    EXPECT_TRUE(tmetest::eventually([&] { return taskIdVerify(tid) == ERROR; }));
    // The ended task's records are free again.
    EXPECT_EQ(kt4TaskIdSelf(key_of(120, 2)), -1);
    EXPECT_EQ(kt4ProcIdByKey(key_of(120, 2)), -1);
}

} // namespace
