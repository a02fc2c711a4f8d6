// Pools shared by tasks: one locked partition used by two tasks at once, statistics per task,
// and a task cancelled while it holds the partition's mutex.
#include <kt4/mem.h>
#include <kt4/vx2bsd.h>

#include "support/kt4_support.h"

#include <gtest/gtest.h>

#include <pthread.h>
#include <sched.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <string>
#include <thread>

namespace {

constexpr int kPart = 31;
constexpr int kRounds = 20000;

struct Worker {
    std::atomic<bool> done{false};
    std::atomic<int> errors{0};
    unsigned char tag = 0;
};

// Allocates and frees with up to 32 blocks held, each filled with the worker's tag and checked
// before it goes back: a block handed to both tasks at once shows as a foreign tag.
int churn(kt4_arg_t a1, kt4_arg_t, kt4_arg_t, kt4_arg_t, kt4_arg_t, kt4_arg_t, kt4_arg_t, kt4_arg_t,
          kt4_arg_t, kt4_arg_t) {
    auto *w = reinterpret_cast<Worker *>(a1);
    void *held[32] = {};
    uint32_t sizes[32] = {};
    for (int i = 0; i < kRounds; ++i) {
        const int slot = i % 32;
        if (held[slot] != nullptr) {
            const auto *p = static_cast<const unsigned char *>(held[slot]);
            for (uint32_t k = 0; k < sizes[slot]; ++k)
                if (p[k] != w->tag) {
                    ++w->errors;
                    break;
                }
            if (M_memBlockFree("churn", __LINE__, held[slot]) != OK) ++w->errors;
        }
        const uint32_t size = 16u + static_cast<uint32_t>((i * 37) % 1000);
        void *p = (i & 1) ? M_memBlockVarAlloc("churn", __LINE__, size, kPart)
                          : M_memBlockAlloc("churn", __LINE__, size, KT4_MEM_POOL_ID(kPart, 0));
        if (p == nullptr) {
            ++w->errors;
            held[slot] = nullptr;
            continue;
        }
        std::memset(p, w->tag, size);
        held[slot] = p;
        sizes[slot] = size;
    }
    for (void *p : held)
        if (p != nullptr && M_memBlockFree("churn", __LINE__, p) != OK) ++w->errors;
    w->done = true;
    return 0;
}

bool waitFor(const std::atomic<bool> &flag, int ms) {
    return kt4test::eventually([&] { return flag.load(); }, ms);
}

TEST(SharedPartition, TwoTasksAllocateAndFreeAtOnce) {
    kt4MemSetUsageHook([](uint32_t) { return 10; });
    ASSERT_EQ(0, kt4_memPartFixedInit(kPart, 1));
    ASSERT_EQ(0, M_memPoolCreate("shared", KT4_MEM_POOL_ID(kPart, 0), 1016));
    const uint32_t sizes[] = {64, 256, 1024};
    ASSERT_EQ(0, kt4_memPartVarInit(kPart, "shr", sizes, 3));

    // A task's account is kept by name for the life of the process: count from what it held.
    kt4MemTaskStats a0{}, b0{};
    kt4MemTaskStatsGet("tMemChurnA", &a0);
    kt4MemTaskStatsGet("tMemChurnB", &b0);

    Worker a, b;
    a.tag = 0xA1;
    b.tag = 0xB2;
    for (auto [name, w] : {std::pair{"tMemChurnA", &a}, {"tMemChurnB", &b}})
        ASSERT_GT(taskSpawn(name, 100, 0, 0, churn, reinterpret_cast<kt4_arg_t>(w), 0, 0, 0, 0, 0,
                            0, 0, 0, 0),
                  0);
    ASSERT_TRUE(waitFor(a.done, 60000));
    ASSERT_TRUE(waitFor(b.done, 60000));
    EXPECT_EQ(0, a.errors.load());
    EXPECT_EQ(0, b.errors.load());

    M_MEM_POOL_INFO in{};
    ASSERT_EQ(OK, M_memPoolInfoGet(KT4_MEM_POOL_ID(kPart, 0), &in));
    EXPECT_EQ(0u, in.chnksInUse);
    EXPECT_GE(in.maxChnksInUse, 16u);
    EXPECT_LE(in.maxChnksInUse, 32u);
    for (int v = 0; v < 3; ++v) {
        ASSERT_EQ(OK, M_memPoolInfoGet(KT4_MEM_VAR_POOL_ID(kPart, v), &in));
        EXPECT_EQ(0u, in.chnksInUse) << v;
    }

    // Each task's account: every block it took, it gave back (whether its thread has ended and
    // been folded into the task's record yet or not).
    kt4MemTaskStats s{};
    ASSERT_EQ(OK, kt4MemTaskStatsGet("tMemChurnA", &s));
    EXPECT_EQ(static_cast<uint64_t>(kRounds), s.allocs - a0.allocs);
    EXPECT_EQ(s.allocs, s.frees);
    EXPECT_EQ(s.allocBytes, s.freeBytes);
    EXPECT_GE(s.allocBytes - a0.allocBytes, static_cast<uint64_t>(kRounds) * 64u);
    ASSERT_EQ(OK, kt4MemTaskStatsGet("tMemChurnB", &s));
    EXPECT_EQ(static_cast<uint64_t>(kRounds), s.frees - b0.frees);

    testing::internal::CaptureStdout();
    threadMemInfo();
    std::string out = testing::internal::GetCapturedStdout();
    EXPECT_NE(std::string::npos, out.find("tMemChurnA")) << out;

    EXPECT_EQ(OK, kt4_memPartDelete(kPart));
    kt4MemSetUsageHook(nullptr);
}

std::atomic<bool> inHook{false};
std::atomic<bool> releaseHook{false};

// A usage measurement that waits in a cancellation point: it runs while the task that grows a
// pool holds the partition's mutex. (pthread_testcancel rather than a sleeping call: the thread
// sanitizer loses track of a mutex released by a clean-up handler that runs from inside one of
// its intercepted blocking calls.)
int blockingHook(uint32_t) {
    if (releaseHook) return 10;
    inHook = true;
    for (;;) {
        pthread_testcancel();
        sched_yield();
    }
}

void *growPool(void *) {
    M_memBlockAlloc("cancel", __LINE__, 64, KT4_MEM_POOL_ID(kPart + 1, 0));
    return nullptr;
}

struct AllocProbe {
    std::atomic<bool> done{false};
    void *block = nullptr;
};

void *probe(void *arg) {
    auto *p = static_cast<AllocProbe *>(arg);
    p->block = M_memBlockAlloc("cancel", __LINE__, 64, KT4_MEM_POOL_ID(kPart + 1, 0));
    p->done = true;
    return nullptr;
}

TEST(SharedPartition, CancelledHolderDoesNotKeepTheMutex) {
    ASSERT_EQ(0, kt4_memPartFixedInit(kPart + 1, 1));
    ASSERT_EQ(0, M_memPoolCreate("cancel", KT4_MEM_POOL_ID(kPart + 1, 0), 64));
    inHook = false;
    releaseHook = false;
    kt4MemSetUsageHook(blockingHook);
    pthread_t holder;
    ASSERT_EQ(0, pthread_create(&holder, nullptr, growPool, nullptr));
    ASSERT_TRUE(waitFor(inHook, 5000));
    ASSERT_EQ(0, pthread_cancel(holder));
    void *res = nullptr;
    ASSERT_EQ(0, pthread_join(holder, &res));
    EXPECT_EQ(PTHREAD_CANCELED, res);

    releaseHook = true;
    auto *p = new AllocProbe;
    pthread_t prober;
    ASSERT_EQ(0, pthread_create(&prober, nullptr, probe, p));
    if (!waitFor(p->done, 5000)) {
        pthread_detach(prober); // stuck on the mutex: leave it, the test has failed
        FAIL() << "the partition's mutex stayed held by the cancelled task";
    }
    pthread_join(prober, nullptr);
    EXPECT_NE(nullptr, p->block);
    EXPECT_EQ(OK, M_memBlockFree("cancel", __LINE__, p->block));
    delete p;
    EXPECT_EQ(OK, kt4_memPartDelete(kPart + 1));
    kt4MemSetUsageHook(nullptr);
}

} // namespace
