// Semaphores and message queues: time-outs and no-wait codes, the turn rule's order (first come
// first served against priority queuing, a timed-out waiter's turn), flush and delete releasing
// every waiter before they return (also while takers keep arriving, and with two deletes at
// once), stale ids, urgent messages and the capacity-0 hand-over.
#include "vx2bsd/vx_test.h"

#include <kt4/hostsim.h>
#include <kt4/vx2bsd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>
#include <future>

using namespace vxt;

namespace {

using Semaphores = VxTest;
using Queues = VxTest;

std::string recv_str(kt4MsgQId q, int timeout = NO_WAIT) {
    char buf[16];
    int n = msgQReceive(q, buf, sizeof buf, timeout);
    return n < 0 ? "ERROR" : std::string(buf, static_cast<size_t>(n));
}

STATUS send_str(kt4MsgQId q, const std::string &s, int timeout = NO_WAIT,
                int pri = KT4_MSG_PRI_NORMAL) {
    return msgQSend(q, s.data(), static_cast<unsigned>(s.size()), timeout, pri);
}

TEST_F(Semaphores, NoWaitTimeoutAndInvalidAndStaleIds) {
    kt4SemId b = semBCreate(KT4_SEM_Q_FIFO, KT4_SEM_EMPTY);
    ASSERT_NE(0u, b);
    KT4_EXPECT_ERRNO(KT4_E_OBJ_UNAVAILABLE, ERROR, semTake(b, NO_WAIT));
    auto t0 = Clock::now();
    KT4_EXPECT_ERRNO(KT4_E_OBJ_TIMEOUT, ERROR, semTake(b, 5));
    EXPECT_GE(ms_since(t0), 90);
    EXPECT_LT(ms_since(t0), 1000);

    // No upper bound: a binary semaphore given twice holds two tokens.
    EXPECT_EQ(OK, semGive(b));
    EXPECT_EQ(OK, semGive(b));
    for (STATUS want : {OK, OK, ERROR})
        EXPECT_EQ(want, semTake(b, NO_WAIT));

    // A give at the counter's maximum is refused and the count stays usable.
    kt4SemId c = semCCreate(KT4_SEM_Q_PRIORITY, INT_MAX);
    ASSERT_NE(0u, c);
    KT4_EXPECT_ERRNO(KT4_E_INVALID_OPERATION, ERROR, semGive(c));
    EXPECT_EQ(OK, semTake(c, NO_WAIT));
    EXPECT_EQ(OK, semGive(c));
    EXPECT_EQ(ERROR, semGive(c));

    EXPECT_EQ(OK, semDelete(b));
    EXPECT_EQ(OK, semDelete(c));
    for (kt4SemId bad : {b, c, kt4SemId{0}, kt4SemId{12345}}) {
        KT4_EXPECT_ERRNO(KT4_E_OBJ_ID, ERROR, semTake(bad, NO_WAIT));
        KT4_EXPECT_ERRNO(KT4_E_OBJ_ID, ERROR, semGive(bad));
    }

    // A stale id fails also after its entry is reused. The search for a free entry moves on from
    // the last one taken: a full round of the 2304-entry table brings it back to the old entry with
    // the next generation.
    kt4SemId reused = 0;
    for (int i = 0; i < 2304 && reused == 0; ++i) {
        kt4SemId s = semCCreate(KT4_SEM_Q_FIFO, 0);
        ASSERT_NE(0u, s);
        if (s % 2304 == b % 2304)
            reused = s;
        else
            ASSERT_EQ(OK, semDelete(s));
    }
    ASSERT_NE(0u, reused);
    EXPECT_EQ(b + 2304, reused);
    for (auto op : {semGive, semFlush, semDelete})
        KT4_EXPECT_ERRNO(KT4_E_OBJ_ID, ERROR, op(b));
    EXPECT_EQ(OK, semGive(reused)); // the new one is untouched
    EXPECT_EQ(OK, semTake(reused, NO_WAIT));
    EXPECT_EQ(OK, semDelete(reused));
}

TEST_F(Semaphores, MutexRecursionOwnershipAndDeleteSafety) {
    kt4SemId m = semMCreate(KT4_SEM_Q_FIFO | KT4_SEM_DELETE_SAFE);
    for (int i = 0; i < 3; ++i)
        ASSERT_EQ(OK, semTake(m, NO_WAIT));
    std::atomic<int> give_errno{0}, take_rc{1};
    int other = spawn_pended("tOther", 100, [&] {
        if (semGive(m) == ERROR) give_errno = errno;
        take_rc = semTake(m, WAIT_FOREVER);
        semGive(m);
    });
    EXPECT_EQ(KT4_E_INVALID_OPERATION, give_errno.load());
    EXPECT_EQ(OK, semGive(m));
    EXPECT_EQ(OK, semGive(m));
    std::this_thread::sleep_for(std::chrono::milliseconds(30));
    EXPECT_TRUE(pended(other)); // two of three gives: still ours
    EXPECT_EQ(OK, semGive(m));
    EXPECT_TRUE(eventually([&] { return gone(other); }));
    EXPECT_EQ(OK, take_rc.load());
    KT4_EXPECT_ERRNO(KT4_E_INVALID_OPERATION, ERROR, semFlush(m));

    // Delete safety: a task holding the semaphore is deleted only once it gives it.
    Steps steps;
    kt4SemId go = semBCreate(KT4_SEM_Q_FIFO, KT4_SEM_EMPTY);
    int holder = spawn_pended("tHolder", 100, [&] {
        semTake(m, WAIT_FOREVER);
        semTake(go, WAIT_FOREVER);
        steps.add("give");
        semGive(m);
        park();
    });
    int deleter = spawn_pended("tDeleter", 100, [&] {
        STATUS rc = taskDelete(holder);
        steps.add(rc == OK ? "deleted" : "failed");
    });
    semGive(go);
    ASSERT_TRUE(steps.wait_size(2));
    EXPECT_EQ((std::vector<std::string>{"give", "deleted"}), steps.get());
    EXPECT_TRUE(eventually([&] { return gone(holder) && gone(deleter); }));
    semDelete(go);
    semDelete(m);
}

TEST_F(Semaphores, AWaiterThatTimesOutGivesUpItsTurn) {
    // First come, first served: the first waiter leaves at its time-out, and the token given
    // afterwards goes to the one behind it (which would otherwise re-look for ever).
    Steps steps;
    kt4SemId s = semBCreate(KT4_SEM_Q_FIFO, KT4_SEM_EMPTY);
    int a = spawn_pended("tA", 100, [&] {
        steps.add("tA waits");
        STATUS rc = semTake(s, 10);
        steps.add(rc == ERROR && errno == KT4_E_OBJ_TIMEOUT ? "tA timed out" : "tA took");
    });
    int b = spawn_pended("tB", 100, [&] {
        steps.add("tB waits");
        STATUS rc = semTake(s, WAIT_FOREVER);
        steps.add(rc == OK ? "tB took" : "tB failed");
    });
    ASSERT_TRUE(steps.wait_size(3));
    EXPECT_EQ(OK, semGive(s));
    ASSERT_TRUE(steps.wait_size(4));
    EXPECT_EQ((std::vector<std::string>{"tA waits", "tB waits", "tA timed out", "tB took"}),
              steps.get());
    EXPECT_TRUE(eventually([&] { return gone(a) && gone(b); }));
    semDelete(s);
}

// A latch that the layer does not see: tasks stay ready at it until the test opens it.
struct Gate {
    std::promise<void> opened;
    std::shared_future<void> done = opened.get_future().share();
    void wait() const { done.wait(); }
    void open() { opened.set_value(); }
};

// Tasks that each block in op, record what it gave and then stay at the gate until the test
// lets them go.
struct Waiters : Gate {
    Steps results;
    std::vector<int> ids;

    void start(int n, const std::function<std::string()> &op) {
        for (int i = 0; i < n; ++i)
            ids.push_back(spawn_pended(nullptr, 100, [this, op] {
                results.add(op());
                wait();
            }));
    }
    // What they got, sorted, once every one of them was ready again when the call that released
    // them returned.
    std::vector<std::string> released() {
        for (int id : ids)
            EXPECT_TRUE(taskIsReady(id)) << id;
        EXPECT_TRUE(results.wait_size(ids.size()));
        auto r = results.get();
        std::sort(r.begin(), r.end());
        return r;
    }
};

std::string result_of(STATUS rc) {
    return rc == OK ? "OK" : std::to_string(errno);
}

TEST_F(Semaphores, FlushAndDeleteOfSemaphoresAndQueuesReleaseEveryWaiterBeforeTheyReturn) {
    kt4SemId s = semCCreate(KT4_SEM_Q_PRIORITY, 0);
    auto take = [s] { return result_of(semTake(s, WAIT_FOREVER)); };
    Waiters w, d, q;
    w.start(3, take);
    ASSERT_EQ(OK, semFlush(s));
    EXPECT_EQ(std::vector<std::string>(3, "OK"), w.released());
    KT4_EXPECT_ERRNO(KT4_E_OBJ_UNAVAILABLE, ERROR, semTake(s, NO_WAIT)); // the count stayed 0
    EXPECT_EQ(OK, semFlush(s));                                          // nobody waiting
    d.start(3, take);
    ASSERT_EQ(OK, semDelete(s));
    EXPECT_EQ(std::vector<std::string>(3, std::to_string(KT4_E_OBJ_ID)), d.released());

    // The same for the receivers and senders of message queues: released with the queue's
    // deleted code, a receiver's buffer cleared.
    kt4MsgQId empty = msgQCreate(2, 8, KT4_MSGQ_PRIORITY);
    kt4MsgQId full = msgQCreate(1, 8, KT4_MSGQ_FIFO);
    ASSERT_EQ(OK, send_str(full, "x"));
    q.start(2, [empty] {
        char buf[8] = {'?'};
        STATUS rc = msgQReceive(empty, buf, sizeof buf, WAIT_FOREVER) == ERROR ? ERROR : OK;
        return result_of(rc) + (rc == ERROR && buf[0] == 0 ? " cleared" : "");
    });
    q.start(2, [full] { return result_of(send_str(full, "y", WAIT_FOREVER)); });
    ASSERT_EQ(OK, msgQDelete(empty));
    ASSERT_EQ(OK, msgQDelete(full));
    std::string del = std::to_string(KT4_E_OBJ_DELETED);
    EXPECT_EQ((std::vector<std::string>{del, del, del + " cleared", del + " cleared"}),
              q.released());
    w.open();
    d.open();
    q.open();
    EXPECT_TRUE(eventually([&] { return task_count() == kServiceTasks; }));
}

// Users that call again at once whatever they get until their object is gone, then deleters
// started together at the gate. Every call must return.
struct Churn : Gate {
    std::atomic<bool> stop{false};
    std::atomic<int> ok{0}, refused{0}, other{0};
    std::vector<int> ids;

    void deleter(std::function<STATUS()> del, std::atomic<bool> &over) {
        ids.push_back(spawn("tDel", 110, [this, del, &over] {
            wait();
            STATUS rc = del();
            int e = errno;
            if (rc == OK) over = true;
            (rc == OK ? ok : e == KT4_E_OBJ_ID ? refused : other) += 1;
        }));
    }
    bool returned(int n) {
        bool all = eventually([&] { return ok + refused + other == n; }, 5000);
        stop = true; // lets the users go also when a delete hangs
        return all;
    }
    bool finished() {
        return eventually(
            [&] { return std::all_of(ids.begin(), ids.end(), [](int id) { return gone(id); }); },
            5000);
    }
};

TEST_F(Semaphores, FlushAndDeleteOfSemaphoresAndQueuesEndWhileUsersKeepArriving) {
    for (int round = 0; round < 8; ++round) {
        kt4SemId s = semBCreate(KT4_SEM_Q_FIFO, KT4_SEM_EMPTY);
        kt4MsgQId q[2] = {msgQCreate(1, 8, KT4_MSGQ_FIFO), msgQCreate(1, 8, KT4_MSGQ_FIFO)};
        ASSERT_EQ(OK, msgQSend(q[1], "x", 1, NO_WAIT, KT4_MSG_PRI_NORMAL)); // senders wait
        Churn c;
        std::atomic<bool> over[3] = {false, false, false}; // s, q[0], q[1]
        std::atomic<int> flushes{0};
        for (int i = 0; i < 9; ++i) // takers, receivers and senders
            c.ids.push_back(spawn("tUser", 110, [&c, &over, &q, s, i] {
                char buf[8];
                while (!c.stop && !over[i % 3])
                    if (i % 3 == 0)
                        semTake(s, 1);
                    else if (i % 3 == 1)
                        msgQReceive(q[0], buf, sizeof buf, 1);
                    else
                        msgQSend(q[1], "y", 1, 1, KT4_MSG_PRI_NORMAL);
            }));
        ASSERT_TRUE(eventually([&] { return pended(c.ids[0]) && pended(c.ids[1]); }));
        if (round % 2 == 1) { // flushes before and during the deletes
            c.ids.push_back(spawn("tFlush", 100, [&] {
                while (!c.stop && semFlush(s) == OK)
                    if (++flushes % 4 == 0) taskDelay(1);
            }));
            bool flushing = eventually([&] { return flushes >= 20; }, 5000);
            if (!flushing) c.stop = true;
            ASSERT_TRUE(flushing) << "round " << round << ": a flush hangs";
        }
        for (int i : {0, 0, 1, 1, 2, 2}) // two deletes of each at once
            c.deleter([&q, s, i] { return i == 0 ? semDelete(s) : msgQDelete(q[i - 1]); }, over[i]);
        c.open();
        EXPECT_TRUE(c.returned(6)) << "round " << round << ": a delete hangs";
        ASSERT_TRUE(c.finished()) << "round " << round;
        EXPECT_EQ(3, c.ok.load());
        EXPECT_EQ(3, c.refused.load());
        KT4_EXPECT_ERRNO(KT4_E_OBJ_ID, ERROR, semTake(s, NO_WAIT));
    }
}

TEST_F(Queues, UrgentMessagesGoInFrontOfAllOthersAlsoFromWaitingSenders) {
    kt4MsgQId q = msgQCreate(5, 16, KT4_MSGQ_FIFO);
    ASSERT_NE(nullptr, q);
    for (const char *m : {"n1", "n2", "n3"})
        ASSERT_EQ(OK, send_str(q, m));
    ASSERT_EQ(OK, send_str(q, "u1", NO_WAIT, KT4_MSG_PRI_URGENT));
    ASSERT_EQ(OK, send_str(q, "u2", NO_WAIT, KT4_MSG_PRI_URGENT));
    EXPECT_EQ(5, msgQNumMsgs(q));
    KT4_EXPECT_ERRNO(KT4_E_OBJ_UNAVAILABLE, ERROR, send_str(q, "full"));
    // Senders wait for space in arrival order; the urgent one, last, still goes in front.
    for (auto [m, pri] : {std::pair{"m1", KT4_MSG_PRI_NORMAL}, std::pair{"m2", KT4_MSG_PRI_NORMAL},
                          std::pair{"u", KT4_MSG_PRI_URGENT}})
        spawn_pended(nullptr, 100, [q, m, pri] { send_str(q, m, WAIT_FOREVER, pri); });
    std::vector<std::string> got;
    for (int i = 0; i < 3; ++i)
        got.push_back(recv_str(q, 100));
    EXPECT_TRUE(eventually([&] { return task_count() == kServiceTasks; })); // all sends went in
    while (msgQNumMsgs(q) > 0)
        got.push_back(recv_str(q));
    EXPECT_EQ((std::vector<std::string>{"u2", "u1", "n1", "u", "n2", "n3", "m1", "m2"}), got);
    // The ring wraps in both directions.
    for (int round = 0; round < 7; ++round) {
        ASSERT_EQ(OK, send_str(q, "a" + std::to_string(round)));
        ASSERT_EQ(OK, send_str(q, "b" + std::to_string(round), NO_WAIT, KT4_MSG_PRI_URGENT));
        EXPECT_EQ("b" + std::to_string(round), recv_str(q));
        EXPECT_EQ("a" + std::to_string(round), recv_str(q));
    }
    EXPECT_EQ(OK, msgQDelete(q));
}

TEST_F(Queues, LengthChecksTimeoutsAndInvalidIds) {
    kt4MsgQId q = msgQCreate(2, 8, KT4_MSGQ_FIFO);
    char buf[8];
    KT4_EXPECT_ERRNO(KT4_E_INVALID_MSG_LENGTH, ERROR,
                     msgQSend(q, "123456789", 9, NO_WAIT, KT4_MSG_PRI_NORMAL));
    // A length with no buffer behind it is refused; an empty message without one is fine.
    KT4_EXPECT_ERRNO(KT4_E_INVALID_MSG_LENGTH, ERROR,
                     msgQSend(q, nullptr, 8, NO_WAIT, KT4_MSG_PRI_NORMAL));
    ASSERT_EQ(OK, msgQSend(q, nullptr, 0, NO_WAIT, KT4_MSG_PRI_NORMAL));
    EXPECT_EQ(0, msgQReceive(q, buf, sizeof buf, NO_WAIT));
    ASSERT_EQ(OK, send_str(q, "hi"));
    KT4_EXPECT_ERRNO(KT4_E_INVALID_MSG_LENGTH, ERROR,
                     msgQReceive(q, buf, 7, NO_WAIT)); // one byte short of the largest message
    EXPECT_EQ(0, msgQReceive(q, nullptr, 8, NO_WAIT)); // discarded
    buf[0] = 'x';
    KT4_EXPECT_ERRNO(KT4_E_OBJ_UNAVAILABLE, ERROR, msgQReceive(q, buf, sizeof buf, NO_WAIT));
    EXPECT_EQ(0, buf[0]);
    auto t0 = Clock::now();
    KT4_EXPECT_ERRNO(KT4_E_OBJ_TIMEOUT, ERROR, msgQReceive(q, buf, sizeof buf, 5));
    ASSERT_EQ(OK, send_str(q, "a"));
    ASSERT_EQ(OK, send_str(q, "b"));
    KT4_EXPECT_ERRNO(KT4_E_OBJ_TIMEOUT, ERROR, send_str(q, "c", 5));
    EXPECT_GE(ms_since(t0), 180); // both waited their five ticks
    EXPECT_EQ(OK, msgQDelete(q));
    KT4_EXPECT_ERRNO(KT4_E_OBJ_ID, ERROR, msgQNumMsgs(q));
    KT4_EXPECT_ERRNO(KT4_E_OBJ_ID, ERROR, send_str(q, "x"));
}

TEST_F(Queues, CapacityZeroHandsOverOnlyToAWaitingReceiver) {
    kt4MsgQId q = msgQCreate(0, 16, KT4_MSGQ_FIFO);
    ASSERT_NE(nullptr, q);
    KT4_EXPECT_ERRNO(KT4_E_OBJ_UNAVAILABLE, ERROR, send_str(q, "nobody"));

    // Receiver first: the send is taken into the spare slot at once.
    Steps steps;
    int r = spawn_pended("tRecv", 100, [&] { steps.add("got " + recv_str(q, WAIT_FOREVER)); });
    EXPECT_EQ(OK, send_str(q, "first"));
    ASSERT_TRUE(steps.wait_size(1));

    // Sender first: it waits until a receiver comes for the message.
    int s = spawn_pended("tSend", 100, [&] {
        steps.add("sending");
        STATUS rc = send_str(q, "second", WAIT_FOREVER);
        steps.add(rc == OK ? "sent" : "send failed");
    });
    EXPECT_EQ(0, msgQNumMsgs(q));
    std::string got = recv_str(q, 50);
    ASSERT_TRUE(steps.wait_size(3));
    EXPECT_EQ("second", got);
    EXPECT_EQ((std::vector<std::string>{"got first", "sending", "sent"}), steps.get());
    EXPECT_TRUE(eventually([&] { return gone(r) && gone(s); }));
    EXPECT_EQ(OK, msgQDelete(q));
}

// Receivers of different priorities wait (the least urgent first); three messages arrive at
// once. First come, first served hands them out in arrival order whatever the priorities; with
// priority queuing every waiter may take, so each gets one, in no fixed order.
std::vector<std::string> receive_burst(int options) {
    kt4MsgQId q = msgQCreate(3, 16, options);
    Steps steps;
    std::vector<int> ids;
    for (auto [name, pri] : {std::pair{"tR1", 120}, std::pair{"tR2", 100}, std::pair{"tR3", 80}}) {
        std::string who = name;
        ids.push_back(
            spawn_pended(name, pri, [&steps, q, who] { steps.add(who + " " + recv_str(q, 500)); }));
    }
    for (const char *m : {"m1", "m2", "m3"})
        EXPECT_EQ(OK, send_str(q, m));
    EXPECT_TRUE(steps.wait_size(3));
    EXPECT_TRUE(eventually([&] { return gone(ids[0]) && gone(ids[1]) && gone(ids[2]); }));
    EXPECT_EQ(OK, msgQDelete(q));
    auto got = steps.get();
    std::sort(got.begin(), got.end());
    return got;
}

TEST_F(Queues, ReceiversTakeTheirTurnFifoOrAnyWithPriorityQueuing) {
    EXPECT_EQ((std::vector<std::string>{"tR1 m1", "tR2 m2", "tR3 m3"}),
              receive_burst(KT4_MSGQ_FIFO));
    auto any = receive_burst(KT4_MSGQ_PRIORITY);
    ASSERT_EQ(3u, any.size());
    for (size_t i = 0; i < any.size(); ++i)
        EXPECT_EQ("tR" + std::to_string(i + 1) + " m", any[i].substr(0, 5)) << any[i];
}

TEST_F(Queues, NothingLeaksOverManyObjects) {
    // The memory-check registration is switched on for the whole process (KT4_MC_ON=1, as the
    // test runs set it): switching it here would race with the last test's dying threads.
    if (!gKT4MCOn) GTEST_SKIP() << "needs KT4_MC_ON=1";
    size_t base = MCLiveCount();
    for (int round = 0; round < 20; ++round) {
        kt4MsgQId q = msgQCreate(4, 16, KT4_MSGQ_FIFO);
        kt4SemId s = semMCreate(KT4_SEM_Q_PRIORITY);
        kt4WdogId wd = wdCreate();
        VX2BSD_TIMER_ID tm = vx2bsdTimerCreate();
        int t = spawn("tCycle", 100, [q] { send_str(q, "done", WAIT_FOREVER); });
        EXPECT_EQ("done", recv_str(q, 100));
        EXPECT_TRUE(eventually([&] { return gone(t); }));
        EXPECT_EQ(OK, msgQDelete(q));
        EXPECT_EQ(OK, semDelete(s));
        EXPECT_EQ(OK, wdDelete(wd));
        EXPECT_EQ(OK, vx2bsdTimerDelete(tm));
    }
    // The last task's TCB is freed by its own thread just after it leaves the list.
    EXPECT_TRUE(eventually([&] { return MCLiveCount() == base; })) << MCLiveCount() - base;
}

} // namespace
