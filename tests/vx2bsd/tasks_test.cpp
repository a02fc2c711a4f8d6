// Tasks: ids and names, deletion with hooks and the safe-delete rendezvous, suspension,
// restart, the taskLock priority boost, delays and the host's scheduling. Watchdogs and second
// timers driven by the service tasks, and the process start-up: limits, signals, the live core.
#include "vx2bsd/vx_test.h"

#include <kt4/vx2bsd.h>

#include <dirent.h>
#include <signal.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <vector>

using namespace vxt;

namespace {

using Tasks = VxTest;
using Watchdogs = VxTest;
using Timers = VxTest;
using Startup = VxTest;

TEST_F(Tasks, IdsNamesAndQueries) {
    kt4SemId hold = semBCreate(KT4_SEM_Q_FIFO, KT4_SEM_EMPTY);
    auto wait_hold = [hold] { semTake(hold, WAIT_FOREVER); };
    int a = spawn("tA", 100, wait_hold);
    int b = spawn("tB", 120, wait_hold);
    int c = spawn(nullptr, 130, wait_hold);
    ASSERT_EQ((std::vector<int>{1, 2, 3}), (std::vector<int>{a, b, c}));
    EXPECT_STREQ("t3", taskName(c));
    EXPECT_EQ(b, taskNameToId("tB"));
    EXPECT_EQ(ERROR, taskNameToId("nobody"));
    EXPECT_EQ(ERROR, taskNameToId(nullptr));

    // An id freed at the top is handed out again.
    ASSERT_EQ(OK, taskDelete(c));
    int d = spawn("tD", 140, wait_hold);
    EXPECT_EQ(3, d);

    int prio = -1;
    EXPECT_EQ(OK, taskPriorityGet(b, &prio));
    EXPECT_EQ(120, prio);
    KT4_EXPECT_ERRNO(KT4_E_OBJ_ID, ERROR, taskPriorityGet(0, &prio)); // 0 is not the caller here
    // Outside 0..255: stored all the same, and reported.
    KT4_EXPECT_ERRNO(KT4_E_ILLEGAL_PRIORITY, ERROR, taskPrioritySet(b, 300));
    EXPECT_EQ(OK, taskPriorityGet(b, &prio));
    EXPECT_EQ(300, prio);

    kt4TaskInfo desc;
    ASSERT_EQ(OK, taskInfoGet(a, &desc));
    EXPECT_EQ(kt4test::task_lambda_entry, reinterpret_cast<const void *>(desc.ti_entry));

    int before = task_count();
    KT4_EXPECT_ERRNO(KT4_E_ILLEGAL_PRIORITY, ERROR, spawn("tBad", 300, [] {}));
    EXPECT_EQ(before, task_count());

    EXPECT_EQ(ERROR, taskIdVerify(0)); // the test thread is not a task
    EXPECT_EQ(0, taskIdSelf());
    EXPECT_EQ(nullptr, taskTcb(4711));
    EXPECT_EQ(0, taskIdListGet(nullptr, 10));

    for (int id : {a, b, d})
        EXPECT_EQ(OK, taskDelete(id));
    KT4_EXPECT_ERRNO(KT4_E_OBJ_DELETED, ERROR, taskDelete(a));
    EXPECT_EQ(OK, semDelete(hold));
}

TEST_F(Tasks, TaskInitAndActivateWithCallerStorage) {
    static kt4Tcb tcb;
    static std::atomic<int> runs{0};
    runs = 0;
    auto entry = [](kt4_arg_t x, kt4_arg_t, kt4_arg_t, kt4_arg_t, kt4_arg_t, kt4_arg_t, kt4_arg_t,
                    kt4_arg_t, kt4_arg_t, kt4_arg_t y) -> int {
        runs += static_cast<int>(x + y);
        return 0;
    };
    KT4_EXPECT_ERRNO(KT4_E_OBJ_ID, ERROR,
                     taskInit(nullptr, "x", 1, 0, nullptr, 0, entry, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0));
    ASSERT_EQ(OK,
              taskInit(&tcb, "tStatic", 100, 0, nullptr, 0, entry, 1, 0, 0, 0, 0, 0, 0, 0, 0, 2));
    int id = static_cast<int>(reinterpret_cast<uintptr_t>(&tcb));
    EXPECT_EQ(id, taskNameToId("tStatic"));
    EXPECT_FALSE(taskIsReady(id)); // created, not activated
    ASSERT_EQ(OK, taskActivate(id));
    EXPECT_TRUE(eventually([&] { return gone(id); }));
    EXPECT_EQ(3, runs.load());
    // The caller's storage can be used again once the task has gone.
    KT4_EXPECT_ERRNO(
        KT4_E_ILLEGAL_PRIORITY, ERROR,
        taskInit(&tcb, "tStatic", 256, 0, nullptr, 0, entry, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0));
    EXPECT_TRUE(gone(id));
    KT4_EXPECT_ERRNO(KT4_E_OBJ_ID, ERROR, taskActivate(id));
}

Steps hook_steps;
void hook_a(kt4Tcb *, const char *name) {
    hook_steps.add(std::string("A:") + name);
}
void hook_b(kt4Tcb *tcb, const char *name) {
    // Runs in the thread that tears the task down: the dying task itself when it ended itself.
    bool own = taskTcb(0) == tcb;
    hook_steps.add(std::string("B:") + name + (own ? ":own-thread" : ":other-thread"));
}

TEST_F(Tasks, DeleteHooksRunNewestFirstAndTheTableHoldsSixtyThree) {
    hook_steps.clear();
    ASSERT_EQ(0, taskDeleteHookAdd(hook_a));
    ASSERT_EQ(0, taskDeleteHookAdd(hook_b));
    int t = spawn("tReturns", 100, [] { hook_steps.add("entry"); });
    ASSERT_TRUE(eventually([&] { return gone(t) && hook_steps.size() == 3; }));
    EXPECT_EQ((std::vector<std::string>{"entry", "B:tReturns:own-thread", "A:tReturns"}),
              hook_steps.get());

    // Deleted by another thread: the hooks run in the deleter.
    int p = spawn("tParked", 100, park);
    ASSERT_EQ(OK, taskDelete(p));
    EXPECT_EQ("B:tParked:other-thread", hook_steps.get()[3]);

    EXPECT_EQ(0, taskDeleteHookDelete(hook_b));
    EXPECT_EQ(KT4_E_HOOK_NOT_FOUND, taskDeleteHookDelete(hook_b));

    // The table holds 63 hooks (the task manager's exit hook takes one slot), and still works
    // after filling and emptying.
    int added = 0;
    while (taskDeleteHookAdd(hook_b) == 0)
        ++added;
    EXPECT_EQ(KT4_E_HOOK_TABLE_FULL, taskDeleteHookAdd(hook_b));
    EXPECT_EQ(61, added);
    int removed = 0;
    while (taskDeleteHookDelete(hook_b) == 0)
        ++removed;
    EXPECT_EQ(added, removed);
    hook_steps.clear();
    int t2 = spawn("tAfterFull", 100, [] {});
    ASSERT_TRUE(eventually([&] { return gone(t2) && hook_steps.size() == 1; }));
    EXPECT_EQ("A:tAfterFull", hook_steps.get().back());
    EXPECT_EQ(0, taskDeleteHookDelete(hook_a));
}

TEST_F(Tasks, DeletionWaitsForSafeTaskAndLastDeleterDeletes) {
    Steps steps;
    kt4SemId go = semBCreate(KT4_SEM_Q_FIFO, KT4_SEM_EMPTY);
    std::atomic<bool> safe{false};
    int target = spawn("tSafe", 100, [&] {
        taskSafe();
        taskSafe(); // nests
        safe = true;
        semTake(go, WAIT_FOREVER);
        steps.add("unsafe");
        taskUnsafe();
        taskUnsafe();
        park();
    });
    ASSERT_TRUE(eventually([&] { return safe.load(); }));
    std::atomic<int> results{0};
    auto deleter = [&](const char *tag) {
        return [&, tag] {
            STATUS rc = taskDelete(target);
            steps.add(std::string(tag) + (rc == OK ? " OK" : " ERROR"));
            results++;
        };
    };
    spawn_pended("tDel1", 100, deleter("d1"));
    spawn_pended("tDel2", 100, deleter("d2"));
    // A deleter of its own safe self is refused at once.
    std::atomic<int> self_errno{0};
    int selfish = spawn("tSelfish", 100, [&] {
        taskSafe();
        if (taskDelete(0) == ERROR) self_errno = errno;
        taskUnsafe();
    });
    ASSERT_TRUE(eventually([&] { return gone(selfish); }));
    EXPECT_EQ(KT4_E_OBJ_UNAVAILABLE, self_errno.load());

    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_EQ(0u, steps.size());
    EXPECT_EQ(OK, taskIdVerify(target));
    ASSERT_EQ(OK, semGive(go));
    ASSERT_TRUE(eventually([&] { return results == 2 && gone(target); }));
    auto s = steps.get(); // the two deleters in either order
    std::sort(s.begin() + 1, s.end());
    EXPECT_EQ((std::vector<std::string>{"unsafe", "d1 OK", "d2 OK"}), s);
    semDelete(go);
}

TEST_F(Tasks, DeletingABlockedTaskLeavesNoStaleWaiter) {
    // A FIFO semaphore admits only its first waiter: a deleted waiter left on the list would
    // block everyone behind it.
    kt4SemId s = semBCreate(KT4_SEM_Q_FIFO, KT4_SEM_EMPTY);
    kt4MsgQId q = msgQCreate(1, 8, KT4_MSGQ_FIFO);
    kt4SemId m = semMCreate(KT4_SEM_Q_FIFO);
    ASSERT_EQ(OK, semTake(m, NO_WAIT));
    int t1 = spawn_pended("tOnSem", 100, [&] { semTake(s, WAIT_FOREVER); });
    int t2 = spawn_pended("tOnQueue", 100, [&] {
        char buf[8];
        msgQReceive(q, buf, sizeof buf, WAIT_FOREVER);
    });
    int t3 = spawn_pended("tOnMutex", 100, [&] { semTake(m, 100); });
    EXPECT_EQ(OK, taskDeleteForce(t1));
    EXPECT_EQ(OK, taskDelete(t2));
    EXPECT_EQ(OK, taskDelete(t3));
    EXPECT_EQ(OK, semGive(s));
    EXPECT_EQ(OK, semTake(s, NO_WAIT));
    EXPECT_EQ(OK, msgQSend(q, "x", 1, NO_WAIT, KT4_MSG_PRI_NORMAL));
    char buf[8];
    EXPECT_EQ(1, msgQReceive(q, buf, sizeof buf, NO_WAIT));
    EXPECT_EQ(OK, semGive(m));
    EXPECT_EQ(OK, semDelete(s));
    EXPECT_EQ(OK, msgQDelete(q));
    EXPECT_EQ(OK, semDelete(m));
}

TEST_F(Tasks, SuspendAndResumeWithInvertedResultsAndSelfSuspension) {
    std::atomic<long> count{0};
    // The counter sleeps outside taskDelay: the end of a taskDelay sets the status to 0 (every
    // bit, as documented), so a suspension marked while it was finishing would read as gone.
    int t = spawn("tCounter", 100, [&] {
        for (;;) {
            ++count;
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
    });
    ASSERT_TRUE(eventually([&] { return count > 3; }));
    KT4_EXPECT_ERRNO(KT4_E_OBJ_ID, ERROR, taskSuspend(t)); // suspended all the same
    EXPECT_TRUE(taskIsSuspended(t));
    EXPECT_FALSE(taskIsReady(t));
    EXPECT_EQ(OK, taskSuspend(t)); // already suspended
    long frozen = count;
    std::this_thread::sleep_for(std::chrono::milliseconds(100)); // the process keeps running
    EXPECT_EQ(frozen, count.load());
    KT4_EXPECT_ERRNO(KT4_E_OBJ_DELETED, ERROR, taskResume(t)); // running again all the same
    EXPECT_FALSE(taskIsSuspended(t));
    EXPECT_TRUE(eventually([&] { return count > frozen + 3; }));
    EXPECT_EQ(OK, taskResume(t)); // not suspended
    KT4_EXPECT_ERRNO(KT4_E_OBJ_ID, ERROR, taskSuspend(4711));

    // A suspended task can be deleted.
    EXPECT_EQ(ERROR, taskSuspend(t));
    EXPECT_EQ(OK, taskDelete(t));

    // A task that suspends itself stops there until resumed.
    Steps steps;
    int self = spawn("tSelfStop", 100, [&] {
        steps.add("before");
        taskSuspend(0);
        steps.add("after");
    });
    ASSERT_TRUE(eventually([&] { return taskIsSuspended(self); }));
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_EQ(std::vector<std::string>{"before"}, steps.get());
    taskResume(self);
    ASSERT_TRUE(steps.wait_size(2));
    EXPECT_TRUE(eventually([&] { return gone(self); }));
}

struct RestartState {
    std::atomic<int> starts{0};
    int restart_self_until = 0;
    kt4SemId never = 0;
};

// A restarted task runs its entry again with the same arguments, so its state lives there.
int restart_entry(kt4_arg_t arg, kt4_arg_t, kt4_arg_t, kt4_arg_t, kt4_arg_t, kt4_arg_t, kt4_arg_t,
                  kt4_arg_t, kt4_arg_t, kt4_arg_t) {
    auto *st = reinterpret_cast<RestartState *>(arg);
    int n = ++st->starts;
    if (n < st->restart_self_until) taskRestart(0); // through a watchdog in tExcTask
    if (st->never != 0) semTake(st->never, WAIT_FOREVER);
    return 0;
}

TEST_F(Tasks, RestartAnotherTaskAndItself) {
    RestartState other;
    other.never = semBCreate(KT4_SEM_Q_FIFO, KT4_SEM_EMPTY);
    int t = taskSpawn("tRestarted", 100, 0, 0, restart_entry, reinterpret_cast<kt4_arg_t>(&other),
                      0, 0, 0, 0, 0, 0, 0, 0, 0);
    ASSERT_TRUE(eventually([&] { return other.starts == 1 && pended(t); }));
    EXPECT_EQ(OK, taskRestart(t));
    EXPECT_TRUE(eventually([&] { return other.starts == 2 && pended(t); }));
    EXPECT_EQ(t, taskNameToId("tRestarted"));
    KT4_EXPECT_ERRNO(KT4_E_OBJ_ID, ERROR, taskRestart(4711));
    EXPECT_EQ(OK, taskDelete(t));
    EXPECT_EQ(OK, semDelete(other.never));

    RestartState self;
    self.restart_self_until = 3;
    int s = taskSpawn("tSelfRestart", 100, 0, 0, restart_entry, reinterpret_cast<kt4_arg_t>(&self),
                      0, 0, 0, 0, 0, 0, 0, 0, 0);
    ASSERT_NE(ERROR, s);
    EXPECT_TRUE(eventually([&] { return self.starts == 3 && gone(s); }));
}

int sched_priority_of_self(int *policy) {
    sched_param p{};
    pthread_getschedparam(pthread_self(), policy, &p);
    return p.sched_priority;
}

TEST_F(Tasks, TaskLockIsANestedPriorityBoostAndRoundRobinSwitches) {
    struct Seen {
        int policy, normal, locked, nested, unlocked;
    } seen{};
    int t = spawn("tLocker", 150, [&] {
        int pol;
        seen.normal = sched_priority_of_self(&seen.policy);
        taskLock();
        seen.locked = sched_priority_of_self(&pol);
        taskLock();
        taskUnlock();
        seen.nested = sched_priority_of_self(&pol); // still boosted
        taskUnlock();
        seen.unlocked = sched_priority_of_self(&pol);
    });
    ASSERT_TRUE(eventually([&] { return gone(t); }));
    if (no_rt()) {
        EXPECT_EQ(SCHED_OTHER, seen.policy);
        EXPECT_EQ(0, seen.locked);
    } else {
        int max = sched_get_priority_max(SCHED_RR);
        EXPECT_EQ(SCHED_RR, seen.policy); // round robin is on after start-up
        EXPECT_LT(seen.normal, max);
        EXPECT_EQ(max, seen.locked);
        EXPECT_EQ(max, seen.nested);
        EXPECT_EQ(seen.normal, seen.unlocked);
    }
    // Round robin is on after start-up; a time slice of 0 turns it off for new tasks.
    EXPECT_EQ(1, roundRobinIsEnabled());
    EXPECT_EQ(OK, kernelTimeSlice(0));
    int policy = -1;
    int t3 = spawn("tFifo", 100, [&] { sched_priority_of_self(&policy); });
    ASSERT_TRUE(eventually([&] { return gone(t3); }));
    EXPECT_EQ(no_rt() ? SCHED_OTHER : SCHED_FIFO, policy);
    EXPECT_EQ(OK, kernelTimeSlice(1));
    EXPECT_EQ(1, roundRobinIsEnabled());
}

TEST_F(Tasks, DelaysSleepTicksAndZeroOnlyYields) {
    std::atomic<long> slept{-1}, yielded{-1};
    int t = spawn("tDelay", 100, [&] {
        auto t0 = Clock::now();
        taskDelay(0);
        taskDelay(-5);
        yielded = ms_since(t0);
        t0 = Clock::now();
        taskDelay(5);
        slept = ms_since(t0);
    });
    ASSERT_TRUE(eventually([&] { return gone(t); }));
    EXPECT_GE(slept.load(), 90);
    EXPECT_LT(yielded.load(), slept.load()); // the yields wait for no tick
    EXPECT_LT(slept.load(), 1000);
}

TEST_F(Tasks, PriorityInheritanceRaisesTheOwner) {
    if (no_rt()) GTEST_SKIP() << "priorities do not preempt under the default policy";
    kt4SemId m = semMCreate(KT4_SEM_Q_PRIORITY | KT4_SEM_INVERSION_SAFE);
    kt4SemId go = semBCreate(KT4_SEM_Q_FIFO, KT4_SEM_EMPTY);
    std::atomic<int> before{-1}, during{-1}, after{-1};
    int low = spawn("tLow", 200, [&] {
        int pol;
        semTake(m, WAIT_FOREVER);
        before = sched_priority_of_self(&pol);
        semTake(go, WAIT_FOREVER); // the high task is waiting for m now
        during = sched_priority_of_self(&pol);
        semGive(m);
        after = sched_priority_of_self(&pol);
    });
    ASSERT_TRUE(eventually([&] { return before >= 0; }));
    int high = spawn_pended("tHigh", 20, [&] {
        semTake(m, WAIT_FOREVER);
        semGive(m);
    });
    semGive(go);
    ASSERT_TRUE(eventually([&] { return gone(low) && gone(high); }));
    EXPECT_EQ(1 + 54 * 98 / 255, before.load());  // 254 - 200
    EXPECT_EQ(1 + 234 * 98 / 255, during.load()); // 254 - 20, the waiter's
    EXPECT_EQ(before.load(), after.load());
    semDelete(m);
    semDelete(go);
}

Steps wd_steps;
void wd_record(kt4_arg_t p) {
    wd_steps.add("fired " + std::to_string(p));
}

kt4WdogId inner_wd, control_wd;
// Runs in tExcTask, so no tick can come between the start and the cancel of inner_wd.
void start_and_cancel(kt4_arg_t) {
    wdStart(inner_wd, 1, wd_record, 1);
    wdCancel(inner_wd);
    wdStart(control_wd, 1, wd_record, 2);
    wd_steps.add("outer");
}

TEST_F(Watchdogs, FireAtTheNextTickWhateverTheDelayUnlessCancelled) {
    wd_steps.clear();
    kt4WdogId wd = wdCreate();
    ASSERT_NE(nullptr, wd);
    auto t0 = Clock::now();
    ASSERT_EQ(OK, wdStart(wd, 500, wd_record, 1)); // 500 ticks would be 10 s
    ASSERT_TRUE(wd_steps.wait_size(1, 1000));
    EXPECT_LT(ms_since(t0), 1000);
    // Started again while running: routine and parameter change, the count does not.
    ASSERT_EQ(OK, wdStart(wd, 500, wd_record, 2));
    ASSERT_EQ(OK, wdStart(wd, 1, wd_record, 3));
    ASSERT_TRUE(wd_steps.wait_size(2, 1000));
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    EXPECT_EQ((std::vector<std::string>{"fired 1", "fired 3"}), wd_steps.get());
    EXPECT_EQ(OK, wdCancel(wd)); // stopped already: still fine

    // Cancelled before the next tick: never called.
    wd_steps.clear();
    inner_wd = wdCreate();
    control_wd = wdCreate();
    ASSERT_EQ(OK, wdStart(wd, 1, start_and_cancel, 0));
    ASSERT_TRUE(wd_steps.wait_size(2, 1000));
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    EXPECT_EQ((std::vector<std::string>{"outer", "fired 2"}), wd_steps.get());
    for (kt4WdogId w : {wd, inner_wd, control_wd})
        EXPECT_EQ(OK, wdDelete(w));
}

std::atomic<int> many_fired{0};
void count_fire(kt4_arg_t) {
    many_fired++;
}

TEST_F(Watchdogs, ManyObjectsStaleAndForeignHandlesAreRefused) {
    // Many watchdogs and timers at once, half of them deleted: the live ones keep working, the
    // deleted ones and handles of another kind are refused (never read: ASan would see it).
    constexpr size_t kMany = 3000;
    many_fired = 0;
    std::vector<kt4WdogId> wds(kMany);
    std::vector<VX2BSD_TIMER_ID> tms(kMany);
    for (size_t i = 0; i < kMany; ++i) {
        wds[i] = wdCreate();
        tms[i] = vx2bsdTimerCreate();
        ASSERT_TRUE(wds[i] != nullptr && tms[i] != nullptr);
    }
    for (size_t i = 1; i < kMany; i += 2) {
        ASSERT_EQ(OK, wdDelete(wds[i]));
        ASSERT_EQ(OK, vx2bsdTimerDelete(tms[i]));
        KT4_EXPECT_ERRNO(KT4_E_OBJ_ID, ERROR, wdCancel(wds[i]));
        KT4_EXPECT_ERRNO(KT4_E_OBJ_ID, ERROR, vx2bsdTimerCancel(tms[i]));
    }
    long on_stack = 0;
    void *stack = &on_stack;
    KT4_EXPECT_ERRNO(KT4_E_OBJ_ID, ERROR, wdStart(static_cast<kt4WdogId>(stack), 1, count_fire, 0));
    KT4_EXPECT_ERRNO(KT4_E_OBJ_ID, ERROR, vx2bsdTimerCancel(static_cast<VX2BSD_TIMER_ID>(stack)));
    KT4_EXPECT_ERRNO(KT4_E_OBJ_ID, ERROR,
                     wdStart(reinterpret_cast<kt4WdogId>(tms[0]), 1, count_fire, 0));
    KT4_EXPECT_ERRNO(KT4_E_OBJ_ID, ERROR, msgQNumMsgs(reinterpret_cast<kt4MsgQId>(wds[0])));
    // Every live watchdog armed fires once at the next pass.
    for (size_t i = 0; i < kMany; i += 2)
        ASSERT_EQ(OK, wdStart(wds[i], 1, count_fire, 0));
    EXPECT_TRUE(eventually([] { return many_fired == kMany / 2; }, 3000)) << many_fired;
    for (size_t i = 0; i < kMany; i += 2) {
        EXPECT_EQ(OK, wdDelete(wds[i]));
        EXPECT_EQ(OK, vx2bsdTimerDelete(tms[i]));
    }
}

struct TimerLog {
    Steps fires;
    Clock::time_point t0 = Clock::now();
};

void timer_record(VX2BSD_TIMER_ID, kt4_arg_t arg) {
    auto *log = reinterpret_cast<TimerLog *>(arg);
    log->fires.add(std::to_string(ms_since(log->t0)));
}

void timer_deletes_itself(VX2BSD_TIMER_ID tm, kt4_arg_t arg) {
    timer_record(tm, arg);
    vx2bsdTimerDelete(tm); // the handler runs under the recursive list lock
}

TEST_F(Timers, PeriodicAndOneShotAtSecondGranularity) {
    TimerLog periodic, once, self_delete;
    VX2BSD_TIMER_ID p = vx2bsdTimerCreate();
    VX2BSD_TIMER_ID o = vx2bsdTimerCreate();
    VX2BSD_TIMER_ID d = vx2bsdTimerCreate();
    ASSERT_TRUE(p && o && d);
    ASSERT_EQ(OK, vx2bsdTimerStart(p, 1, timer_record, reinterpret_cast<kt4_arg_t>(&periodic),
                                   VX2BSD_TIMER_PERIODIC));
    ASSERT_EQ(OK, vx2bsdTimerStart(o, 0, timer_record, reinterpret_cast<kt4_arg_t>(&once), 0));
    vx2bsdTimerConnect(d, timer_deletes_itself, reinterpret_cast<kt4_arg_t>(&self_delete));
    ASSERT_EQ(OK, vx2bsdTimerSetTime(d, 1, VX2BSD_TIMER_PERIODIC));
    ASSERT_TRUE(periodic.fires.wait_size(2, 4000));
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    EXPECT_EQ(1u, once.fires.size());        // one-shot: stopped after firing
    EXPECT_EQ(1u, self_delete.fires.size()); // deleted in its own handler
    EXPECT_LE(std::stol(once.fires.get()[0]), 1500);
    auto f = periodic.fires.get();
    long gap = std::stol(f[1]) - std::stol(f[0]);
    EXPECT_GE(gap, 900);
    EXPECT_LT(gap, 1900); // one second, not two, with room for a loaded machine
    EXPECT_EQ(OK, vx2bsdTimerCancel(p));
    size_t n = periodic.fires.size();
    std::this_thread::sleep_for(std::chrono::milliseconds(1200));
    EXPECT_EQ(n, periodic.fires.size());
    EXPECT_EQ(OK, vx2bsdTimerDelete(p));
    EXPECT_EQ(OK, vx2bsdTimerDelete(o));
    for (VX2BSD_TIMER_ID gone_timer : {p, d})
        KT4_EXPECT_ERRNO(KT4_E_OBJ_ID, ERROR, vx2bsdTimerStart(gone_timer, 1, timer_record, 0, 0));
}

TEST_F(Startup, ServiceTasksLimitsAndSignals) {
    EXPECT_NE(ERROR, taskNameToId("tExcTask"));
    EXPECT_EQ(0, kt4VxToBsdInit(1, 1)); // once per process: no second set of service tasks

    rlimit core{};
    ASSERT_EQ(0, getrlimit(RLIMIT_CORE, &core));
    EXPECT_EQ(geteuid() == 0 ? RLIM_INFINITY : core.rlim_max, core.rlim_cur);
    rlimit files{};
    ASSERT_EQ(0, getrlimit(RLIMIT_NOFILE, &files));
    EXPECT_EQ(files.rlim_max, files.rlim_cur);

    struct sigaction sa;
    ASSERT_EQ(0, sigaction(SIGPIPE, nullptr, &sa));
    EXPECT_EQ(SIG_IGN, sa.sa_handler);
    ASSERT_EQ(0, sigaction(SIGUSR2, nullptr, &sa));
    EXPECT_NE(SIG_DFL, sa.sa_handler);
}

// The core files in dir, removed when remove is set.
int cores_in(const std::string &dir, bool remove = false) {
    int n = 0;
    if (DIR *d = opendir(dir.c_str())) {
        for (dirent *e; (e = readdir(d)) != nullptr;)
            if (std::strncmp(e->d_name, "core", 4) == 0 && ++n > 0 && remove)
                unlink((dir + "/" + e->d_name).c_str());
        closedir(d);
    }
    return n;
}

TEST_F(Startup, LiveCoreOnRequestWhileTheProcessRuns) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "a sanitizer's reserved address space makes a core impractically large";
#endif
    const std::string core_pattern = kt4test::slurp("/proc/sys/kernel/core_pattern");
    if (core_pattern.rfind("core", 0) != 0)
        GTEST_SKIP() << "cores do not go to the working directory here: " << core_pattern;
    char tmpl[] = "/tmp/kt4coreXXXXXX";
    ASSERT_NE(nullptr, mkdtemp(tmpl));
    std::string dir = tmpl;
    setenv("KT4_CORE_DIR", dir.c_str(), 1);

    std::atomic<long> ticks{0};
    int t = spawn("tBusy", 100, [&] {
        for (;;) {
            ++ticks;
            taskDelay(1);
        }
    });
    EXPECT_EQ(0, kt4livecore());
    EXPECT_EQ(1, cores_in(dir));
    // Asked by signal: tUsrRoot takes it within its 2-second round.
    ASSERT_EQ(0, raise(SIGUSR2));
    EXPECT_TRUE(eventually([&] { return cores_in(dir) == 2; }, 6000));
    long before = ticks;
    EXPECT_TRUE(eventually([&] { return ticks > before + 2; })); // still running
    EXPECT_EQ(OK, taskDelete(t));
    unsetenv("KT4_CORE_DIR");
    cores_in(dir, true);
    rmdir(dir.c_str());
}

} // namespace
