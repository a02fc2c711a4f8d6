// Helpers of the tasking layer's tests: a recorder of the steps several tasks take, and a
// fixture that starts the layer and checks every test's tasks end.
#pragma once

#include <kt4/vx2bsd.h>

#include "support/kt4_support.h"

#include <gtest/gtest.h>

#include <pthread.h>
#include <sched.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace vxt {

using Clock = std::chrono::steady_clock;

inline bool no_rt() {
    const char *v = std::getenv("KT4_NO_RT");
    return v != nullptr && *v != '\0' && std::string(v) != "0";
}

using kt4test::eventually;

inline long ms_since(Clock::time_point t0) {
    return static_cast<long>(
        std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - t0).count());
}

// The sequence of steps the tasks of a test take, in the order they took them.
class Steps {
  public:
    void add(const std::string &s) {
        std::lock_guard<std::mutex> g(m_);
        v_.push_back(s);
    }
    std::vector<std::string> get() const {
        std::lock_guard<std::mutex> g(m_);
        return v_;
    }
    void clear() {
        std::lock_guard<std::mutex> g(m_);
        v_.clear();
    }
    size_t size() const { return get().size(); }
    bool wait_size(size_t n, int ms = 3000) const {
        return eventually([&] { return size() >= n; }, ms);
    }

  private:
    mutable std::mutex m_;
    std::vector<std::string> v_;
};

// Spawns a task running f; the id, or ERROR.
inline int spawn(const char *name, int priority, std::function<void()> f) {
    return kt4test::spawn_task(name, priority, std::move(f));
}

// A task that never returns by itself (deleted by the test).
inline void park() {
    for (;;)
        taskDelay(50);
}

inline bool gone(int tid) {
    return taskIdVerify(tid) == ERROR;
}
inline bool pended(int tid) {
    return taskIdVerify(tid) == OK && !taskIsReady(tid);
}

// Spawns a task running f and waits until it blocks (a failure of the test when it does not).
inline int spawn_pended(const char *name, int priority, std::function<void()> f) {
    int id = spawn(name, priority, std::move(f));
    if (!eventually([id] { return pended(id); }))
        ADD_FAILURE() << "task " << id << " never blocked";
    return id;
}

inline int task_count() {
    int ids[256];
    return taskIdListGet(ids, 256);
}

// The process's service tasks: tUsrRoot, tExcTask, tTimerTask.
constexpr int kServiceTasks = 3;

// Every test process starts the tasking layer once, as a control process does.
class VxTest : public ::testing::Test {
  protected:
    static void SetUpTestSuite() { ASSERT_EQ(0, kt4VxToBsdInit(1, 1)); }
    void TearDown() override {
        // A test leaves no task behind: the next one counts ids from 1 again.
        bool clean = eventually([] { return task_count() == kServiceTasks; }, 3000);
        EXPECT_TRUE(clean) << "tasks left: " << task_count();
        if (!clean) {
            int ids[256];
            int n = taskIdListGet(ids, 256);
            for (int i = 0; i < n; ++i)
                if (ids[i] > 0 && ids[i] < 65536) taskDeleteForce(ids[i]);
        }
    }
};

} // namespace vxt
