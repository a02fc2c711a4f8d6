// Fixed and var pools: page arithmetic, chunk reuse, and frees that must be refused; the checked
// pools of the memory check; pools shared by tasks: one locked partition used by two tasks at
// once, statistics per task, and a task cancelled while it holds the partition's mutex. The
// memory-pressure gate: water marks, the critical-task prefix rule, once-only messages.
#include <kt4/hostsim.h>
#include <kt4/log.h>
#include <kt4/mem.h>
#include <kt4/vx2bsd.h>

#include "support/kt4_support.h"

#include <gtest/gtest.h>

#include <pthread.h>
#include <sched.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <set>
#include <string>
#include <vector>

namespace {

M_MEM_POOL_INFO info(int poolId) {
    M_MEM_POOL_INFO i{};
    EXPECT_EQ(OK, M_memPoolInfoGet(poolId, &i));
    return i;
}

// Each test works in its own partition and drops it afterwards.
class Pools : public ::testing::Test {
  protected:
    static constexpr int kPart = 11;
    void SetUp() override {
        kt4MemSetUsageHook([](uint32_t) { return 10; }); // the gate stays out of the way
        ASSERT_EQ(0, kt4_memPartFixedInit(kPart, 8));
    }
    void TearDown() override {
        kt4_memPartDelete(kPart);
        kt4MemSetUsageHook(nullptr);
    }
    static int pool(int idx) { return KT4_MEM_POOL_ID(kPart, idx); }
};

TEST_F(Pools, PageArithmeticChunkReuseAndAlignment) {
    // 100-byte chunks: slots of 108 bytes, (16562 - 32) / 108 = 153 per page.
    ASSERT_EQ(0, M_memPoolCreate("hundred", pool(0), 100));
    std::vector<void *> blocks;
    for (int i = 0; i < 153; ++i) {
        blocks.push_back(M_memBlockAlloc("t", __LINE__, 100, pool(0)));
        ASSERT_NE(nullptr, blocks.back());
    }
    M_MEM_POOL_INFO in = info(pool(0));
    EXPECT_EQ(153u, in.chnksPerPage);
    EXPECT_EQ(16564u, in.pageSize);
    EXPECT_EQ(1u, in.numPages);
    EXPECT_EQ(0u, in.numFreePages);
    // Slots follow each other 108 bytes apart inside the one page.
    EXPECT_EQ(108, static_cast<char *>(blocks[1]) - static_cast<char *>(blocks[0]));
    // A freed chunk is no longer the pool's, and is the next one handed out.
    EXPECT_EQ(pool(0), M_memBlockPoolId(blocks[7]));
    EXPECT_EQ(OK, M_memBlockFree("t", __LINE__, blocks[7]));
    EXPECT_EQ(-1, M_memBlockPoolId(blocks[7]));
    EXPECT_EQ(blocks[7], M_memBlockAlloc("t", __LINE__, 50, pool(0)));
    blocks.push_back(M_memBlockAlloc("t", __LINE__, 100, pool(0)));
    ASSERT_NE(nullptr, blocks.back());
    in = info(pool(0));
    EXPECT_EQ(2u, in.numPages);
    EXPECT_EQ(154u, in.chnksInUse);
    for (void *b : blocks)
        EXPECT_EQ(OK, M_memBlockFree("t", __LINE__, b));
    in = info(pool(0));
    EXPECT_EQ(0u, in.chnksInUse);
    EXPECT_EQ(154u, in.maxChnksInUse);
    EXPECT_EQ(1u, in.numPages); // the emptied second page went back; one spare stays

    // A pool capped at 16562 bytes never holds more than one page. Chunk sizes that are
    // multiples of 8 give 8-byte aligned blocks (16 for the first).
    ASSERT_EQ(0, M_memPoolCreate("capped", pool(2), 64));
    ASSERT_EQ(OK, M_memPoolSetSize(pool(2), 16562));
    blocks.clear();
    for (uint32_t i = 0; i < info(pool(2)).chnksPerPage; ++i) {
        blocks.push_back(M_memBlockAlloc("t", __LINE__, 64, pool(2)));
        ASSERT_NE(nullptr, blocks.back());
        ASSERT_EQ(0u, reinterpret_cast<uintptr_t>(blocks.back()) % 8) << i;
    }
    EXPECT_EQ(0u, reinterpret_cast<uintptr_t>(blocks[0]) % 16);
    EXPECT_EQ(nullptr, M_memBlockAlloc("t", __LINE__, 64, pool(2)));
    EXPECT_EQ(1u, info(pool(2)).numPages);
    ASSERT_EQ(OK, M_memPoolSetSize(pool(2), KT4_MEM_NO_LIMIT));
    blocks.push_back(M_memBlockAlloc("t", __LINE__, 64, pool(2)));
    EXPECT_NE(nullptr, blocks.back());
    for (void *p : blocks)
        EXPECT_EQ(OK, M_memBlockFree("t", __LINE__, p));
}

TEST_F(Pools, CreationRules) {
    EXPECT_EQ(-1, M_memPoolCreate("seven", pool(0), 7));
    EXPECT_EQ(-1, M_memPoolCreate("huge", pool(0), 65536)); // asserts and refuses
    EXPECT_EQ(0, M_memPoolCreate("eight", pool(0), 8));
    EXPECT_EQ(-1, M_memPoolCreate("again", pool(0), 8));   // slot taken
    EXPECT_EQ(-1, M_memPoolCreate("outside", pool(8), 8)); // table has 8 slots
    EXPECT_EQ(-1, M_memPoolCreate("nopart", KT4_MEM_POOL_ID(200, 0), 8));
    EXPECT_EQ(-1, kt4_memPartFixedInit(kPart, 4)); // the table exists already
    EXPECT_EQ(0, M_memPoolCreate("a-name-longer-than-twenty-nine-characters", pool(1), 16));
    EXPECT_STREQ("a-name-longer-than-twenty-nin", info(pool(1)).name);
    // Freed pools leave their slot for a new one.
    EXPECT_EQ(OK, M_memPoolFree(pool(0)));
    EXPECT_EQ(0, M_memPoolCreate("eight-again", pool(0), 8));
    // 8-byte chunks still hold the free-list links: the page is cut into 16-byte slots.
    EXPECT_EQ((16562u - 32u) / 16u, info(pool(0)).chnksPerPage);
}

// Memory that is no longer (or never was) the allocator's is refused from its own records (the
// ASan build proves that nothing in it is read), and the pool stays whole.
TEST_F(Pools, BadFreesAreRefusedWithoutReadingTheMemoryAndThePoolStaysWhole) {
    ASSERT_EQ(0, M_memPoolCreate("victim", pool(0), 64));
    std::vector<void *> held;
    for (int i = 0; i < 10; ++i)
        held.push_back(M_memBlockAlloc("t", __LINE__, 64, pool(0)));
    void *x = held[3];

    EXPECT_EQ(OK, M_memBlockFree("t", __LINE__, x));
    EXPECT_EQ(ERROR, M_memBlockFree("t", __LINE__, x)); // double free
    EXPECT_EQ(ERROR, M_memBlockFree("t", __LINE__, nullptr));
    EXPECT_EQ(ERROR, M_memBlockFree("t", __LINE__, static_cast<char *>(held[5]) + 16)); // interior
    // An overrun into the next chunk is reported when the block is freed; the next chunk's free
    // is refused while its header is broken.
    auto *o = static_cast<unsigned char *>(held[8]), *n = static_cast<unsigned char *>(held[9]);
    ASSERT_EQ(72, n - o);
    unsigned char saved[4];
    std::memcpy(saved, n - 8, 4);
    std::memset(o, 'x', 68); // four bytes into n's marker
    kt4TracePrintOn();
    std::string out = kt4test::stdout_of([&] { EXPECT_EQ(OK, M_memBlockFree("t", __LINE__, o)); });
    kt4TracePrintOff();
    EXPECT_NE(std::string::npos, out.find("Header/Trailer")) << out;
    EXPECT_EQ(ERROR, M_memBlockFree("t", __LINE__, n));
    std::memcpy(n - 8, saved, 4);

    // A foreign block dressed as an allocated chunk: header right, but no page of ours.
    alignas(16) unsigned char fake[256] = {};
    const unsigned char hdr[8] = {0, 0, 0x0C, 0xEF, 0x00, 0x10, 0x04, 0x01}; // idx 1, len 64
    std::memcpy(fake + 120, hdr, 8);
    EXPECT_EQ(ERROR, M_memBlockFree("t", __LINE__, fake + 128));
    // A header that no page could hold (index far beyond a page) is refused without reading.
    const unsigned char far[8] = {0, 0, 0x0C, 0xEF, 0xFF, 0xF0, 0x04, 0x01};
    std::memcpy(fake + 120, far, 8);
    EXPECT_EQ(ERROR, M_memBlockFree("t", __LINE__, fake + 128));
    void *m = std::malloc(64);
    EXPECT_EQ(ERROR, M_memBlockFree("t", __LINE__, m)); // in front of it: the C library's header
    std::free(m);
    // A block whose page went with its pool; blocks far into a page of several granules.
    ASSERT_EQ(0, M_memPoolCreate("doomed", pool(1), 64));
    ASSERT_EQ(0, M_memPoolCreate("wide", pool(2), 40000)); // three page units per page
    void *a = M_memBlockAlloc("t", __LINE__, 64, pool(1));
    void *w1 = M_memBlockAlloc("t", __LINE__, 40000, pool(2));
    void *w2 = M_memBlockAlloc("t", __LINE__, 40000, pool(2));
    ASSERT_TRUE(a && w1 && w2);
    EXPECT_EQ(OK, M_memPoolFree(pool(1)));
    EXPECT_EQ(ERROR, M_memBlockFree("t", __LINE__, a));
    EXPECT_EQ(-1, M_memBlockPoolId(a));
    EXPECT_EQ(pool(2), M_memBlockPoolId(w2));
    EXPECT_EQ(OK, M_memBlockFree("t", __LINE__, w2));
    EXPECT_EQ(OK, M_memBlockFree("t", __LINE__, w1));

    M_MEM_POOL_INFO in = info(pool(0));
    EXPECT_EQ(8u, in.chnksInUse);
    // Every chunk handed out now is distinct from the ones held: nothing was freed twice.
    std::set<void *> live(held.begin(), held.end());
    live.erase(x);
    live.erase(o);
    for (int i = 0; i < 300; ++i) {
        void *p = M_memBlockAlloc("t", __LINE__, 64, pool(0));
        ASSERT_NE(nullptr, p);
        ASSERT_TRUE(live.insert(p).second) << "chunk handed out twice";
    }
    for (void *p : live)
        EXPECT_EQ(OK, M_memBlockFree("t", __LINE__, p));
    EXPECT_EQ(0u, info(pool(0)).chnksInUse);
}

TEST_F(Pools, SystemMemoryFreeKnowsItsOwnBlocks) {
    auto *s = static_cast<char *>(M_sysMalloc("t", __LINE__, 48));
    void *m = std::malloc(48);
    ASSERT_TRUE(s && m);
    KT4_EXPECT_ERRNO(EINVAL, ERROR, M_sysMemfree("t", __LINE__, m)); // the C library's block
    EXPECT_EQ(ERROR, M_sysMemfree("t", __LINE__, s + 8));            // inside one of ours
    EXPECT_EQ(OK, M_sysMemfree("t", __LINE__, s));
    EXPECT_EQ(ERROR, M_sysMemfree("t", __LINE__, s)); // twice
    std::free(m);
}

TEST_F(Pools, BestFitFromTheCallersOwnPartition) {
    ASSERT_EQ(0, M_memPoolCreate("p256", pool(0), 256));
    ASSERT_EQ(0, M_memPoolCreate("p64", pool(1), 64));
    ASSERT_EQ(0, M_memPoolCreate("p64b", pool(2), 64));
    ASSERT_EQ(0, M_memPoolCreate("p1024", pool(3), 1024));
    // Another partition of this process must not come first.
    struct Case {
        uint32_t size;
        int want;
    } cases[] = {{1, 1}, {64, 1}, {65, 0}, {256, 0}, {257, 3}, {1024, 3}};
    // The same with the partition's mutex off (a partition that one thread owns).
    for (BOOL locked : {TRUE, FALSE}) {
        ASSERT_EQ(0, kt4_memPartSetLocking(kPart, locked));
        for (const Case &c : cases) {
            void *p = M_memBlockAlloc("t", __LINE__, c.size, -1);
            ASSERT_NE(nullptr, p) << c.size;
            EXPECT_EQ(pool(c.want), M_memBlockPoolId(p)) << c.size;
            EXPECT_EQ(OK, M_memBlockFree("t", __LINE__, p));
        }
    }
    EXPECT_EQ(-1, kt4_memPartSetLocking(-1, FALSE)) << "no such partition";
    EXPECT_EQ(nullptr, M_memBlockAlloc("t", __LINE__, 1025, -1));
    EXPECT_EQ(nullptr, M_memBlockAlloc("t", __LINE__, 65, pool(1))); // named pool too small
}

TEST_F(Pools, FlushNoGrowthAndForcedFree) {
    ASSERT_EQ(0, M_memPoolCreate("flush", pool(0), 1000));
    const uint32_t perPage = info(pool(0)).chnksPerPage; // 16
    std::vector<void *> v;
    for (uint32_t i = 0; i < perPage * 3; ++i)
        v.push_back(M_memBlockAlloc("t", __LINE__, 1000, pool(0)));
    EXPECT_EQ(3u, info(pool(0)).numPages);
    // Empty the first two pages: one goes back at once, the other stays as the spare.
    for (uint32_t i = 0; i < perPage * 2; ++i)
        EXPECT_EQ(OK, M_memBlockFree("t", __LINE__, v[i]));
    EXPECT_EQ(2u, info(pool(0)).numPages);
    EXPECT_EQ(OK, M_memPoolFlush(pool(0)));
    EXPECT_EQ(1u, info(pool(0)).numPages);

    ASSERT_EQ(OK, M_memPoolSetNoGrowth(pool(0), TRUE));
    EXPECT_EQ(nullptr, M_memBlockAlloc("t", __LINE__, 1000, pool(0)));
    ASSERT_EQ(OK, M_memPoolSetNoGrowth(pool(0), FALSE));
    void *p = M_memBlockAlloc("t", __LINE__, 1000, pool(0));
    EXPECT_NE(nullptr, p);

    EXPECT_EQ(OK, M_sysForceMemBlockFree(kPart));
    M_MEM_POOL_INFO gone{};
    EXPECT_EQ(ERROR, M_memPoolInfoGet(pool(0), &gone));
    EXPECT_EQ(0, M_memPoolCreate("after", pool(0), 1000)); // the table is still there
}

TEST(VarPools, SizeClassesAndTheirLimits) {
    constexpr int kPart = 12;
    kt4MemSetUsageHook([](uint32_t) { return 10; });
    const uint32_t sizes[] = {8192, 64, 4096, 512, 64};
    ASSERT_EQ(0, kt4_memPartVarInit(kPart, "vp", sizes, 5));
    struct Case {
        uint32_t size;
        uint32_t chnk; // 0: refused
    } cases[] = {{0, 0},       {1, 64},      {64, 64},     {65, 512}, {4095, 4096},
                 {4096, 4096}, {4097, 8192}, {8192, 8192}, {8193, 0}};
    for (const Case &c : cases) {
        void *p = M_memBlockVarAlloc("t", __LINE__, c.size, kPart);
        if (c.chnk == 0) {
            EXPECT_EQ(nullptr, p) << c.size;
            continue;
        }
        ASSERT_NE(nullptr, p) << c.size;
        M_MEM_POOL_INFO in{};
        ASSERT_EQ(OK, M_memPoolInfoGet(M_memBlockPoolId(p), &in));
        EXPECT_EQ(c.chnk, in.chnkSz) << c.size;
        EXPECT_EQ(ERROR, M_memBlockVarFree("t", __LINE__, p, kPart + 1)); // not that partition
        EXPECT_EQ(OK, M_memBlockVarFree("t", __LINE__, p, kPart));
    }
    // More classes later: a 128-byte request now finds the new pool.
    const uint32_t more[] = {128};
    ASSERT_EQ(0, kt4_memPartVarInit(kPart, nullptr, more, 1));
    void *p = M_memBlockVarAlloc("t", __LINE__, 100, kPart);
    M_MEM_POOL_INFO in{};
    ASSERT_EQ(OK, M_memPoolInfoGet(M_memBlockPoolId(p), &in));
    EXPECT_EQ(128u, in.chnkSz);
    EXPECT_STREQ("vp_128", in.name);
    EXPECT_EQ(OK,
              M_memBlockFree("t", __LINE__, p)); // any pool's block frees through the plain call

    std::vector<uint32_t> tooMany(MAX_VAR_POOLS, 0);
    for (int i = 0; i < MAX_VAR_POOLS; ++i)
        tooMany[i] = 16u + 16u * static_cast<uint32_t>(i);
    EXPECT_EQ(-1, kt4_memPartVarInit(kPart, nullptr, tooMany.data(), MAX_VAR_POOLS));
    EXPECT_EQ(-1, kt4_memPartVarInit(kPart, nullptr, more, 0));
    const uint32_t bad[] = {65536};
    EXPECT_EQ(-1, kt4_memPartVarInit(kPart, nullptr, bad, 1));

    EXPECT_EQ(OK, M_memPartVarFlush(kPart));
    EXPECT_EQ(OK, kt4_memPartVarDelete(kPart)); // no fixed table: the partition goes too
    EXPECT_EQ(nullptr, M_memBlockVarAlloc("t", __LINE__, 64, kPart));
    EXPECT_EQ(ERROR, kt4_memPartDelete(kPart));
    kt4MemSetUsageHook(nullptr);
}

// The memory check is switched on for the whole binary before the first test starts a thread:
// switching it while tasks of other tests are still ending would race with their frees.
class MemoryCheckOn : public ::testing::Environment {
  public:
    void SetUp() override { gKT4MCOn = 1; }
};
const bool mcOn = ::testing::AddGlobalTestEnvironment(new MemoryCheckOn) != nullptr;

// The registered blocks that this test took (other tests' tasks register theirs too).
std::vector<kt4mc_block_info> mine() {
    std::vector<kt4mc_block_info> out;
    MCForEach(
        [](const kt4mc_block_info *b, void *arg) {
            if (b->file != nullptr && std::strncmp(b->file, "mcfile", 6) == 0)
                static_cast<std::vector<kt4mc_block_info> *>(arg)->push_back(*b);
        },
        &out);
    return out;
}

TEST(MemoryCheck, PoolBlocksAreGuardedAndRegistered) {
    ASSERT_TRUE(mcOn);
    constexpr int kPart = 13;
    kt4MemSetUsageHook([](uint32_t) { return 10; });
    ASSERT_EQ(0, kt4_memPartFixedInit(kPart, 1));
    ASSERT_EQ(0, kt4MC_M_memPoolCreate("mc", __LINE__, "mc", KT4_MEM_POOL_ID(kPart, 0), 96));
    M_MEM_POOL_INFO in{};
    ASSERT_EQ(OK, M_memPoolInfoGet(KT4_MEM_POOL_ID(kPart, 0), &in));
    EXPECT_EQ(160u, in.chnkSz); // 64 added for the guard
    const uint32_t sizes[] = {200};
    ASSERT_EQ(0, kt4MC_kt4_memPartVarInit("mc", __LINE__, kPart, "mcv", sizes, 1));

    const unsigned long guardErrors = MCGuardErrors();
    auto *a =
        static_cast<char *>(kt4MC_M_memBlockAlloc("mcfileA", 7, 96, KT4_MEM_POOL_ID(kPart, 0)));
    auto *v = static_cast<char *>(kt4MC_M_memBlockVarAlloc("mcfileV", 9, 200, kPart));
    void *s = kt4MC_M_sysMalloc("mcfileS", 11, 40);
    ASSERT_TRUE(a && v && s);
    EXPECT_EQ(nullptr, kt4MC_M_memBlockAlloc("mcfileA", 8, 97, KT4_MEM_POOL_ID(kPart, 0)));
    std::vector<kt4mc_block_info> seen = mine();
    ASSERT_EQ(3u, seen.size());
    EXPECT_EQ(96u, seen[0].size);
    EXPECT_EQ(200u, seen[1].size);

    a[96] = 'x'; // into the guard
    EXPECT_EQ(OK, kt4MC_M_memBlockFree("mcfileA", 8, a));
    EXPECT_EQ(guardErrors + 1, MCGuardErrors());
    EXPECT_EQ(ERROR, kt4MC_M_memBlockFree("mcfileA", 9, a)); // the guard knows it is gone
    EXPECT_EQ(guardErrors + 2, MCGuardErrors());
    EXPECT_EQ(OK, kt4MC_M_memBlockVarFree("mcfileV", 10, v, kPart));
    EXPECT_EQ(0, kt4MC_M_sysMemfree("mcfileS", 12, s));
    EXPECT_EQ(-1, kt4MC_M_sysMemfree("mcfileS", 13, s));
    EXPECT_EQ(guardErrors + 3, MCGuardErrors());
    // Released twice, and released after its pool: refused without reading the freed memory.
    void *h = kt4MC_malloc("mcfileH", 14, 24);
    kt4MC_free("mcfileH", 15, h);
    kt4MC_free("mcfileH", 16, h);
    EXPECT_EQ(guardErrors + 4, MCGuardErrors());
    void *late = kt4MC_M_memBlockAlloc("mcfileL", 17, 96, KT4_MEM_POOL_ID(kPart, 0));
    ASSERT_NE(nullptr, late);
    EXPECT_EQ(OK, M_memPoolFree(KT4_MEM_POOL_ID(kPart, 0)));
    EXPECT_EQ(ERROR, kt4MC_M_memBlockFree("mcfileL", 18, late));
    ASSERT_EQ(0, MCLock());
    MCFree("mcfileL", 18, late); // its registration went stale with the pool
    MCUnlock();
    EXPECT_TRUE(mine().empty());
    EXPECT_EQ(OK, kt4_memPartDelete(kPart));
    kt4MemSetUsageHook(nullptr);
}

constexpr int kSharedPart = 31;
constexpr int kRounds = 20000;

struct Worker {
    std::atomic<bool> done{false};
    std::atomic<int> errors{0};
    unsigned char tag = 0;
};

// Allocates and frees with up to 32 blocks held, each filled with the worker's tag and checked
// before it goes back: a block handed to both tasks at once shows as a foreign tag.
void churn(Worker *w) {
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
        void *p = (i & 1)
                      ? M_memBlockVarAlloc("churn", __LINE__, size, kSharedPart)
                      : M_memBlockAlloc("churn", __LINE__, size, KT4_MEM_POOL_ID(kSharedPart, 0));
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
}

TEST(SharedPartition, TwoTasksAllocateAndFreeAtOnce) {
    kt4MemSetUsageHook([](uint32_t) { return 10; });
    ASSERT_EQ(0, kt4_memPartFixedInit(kSharedPart, 1));
    ASSERT_EQ(0, M_memPoolCreate("shared", KT4_MEM_POOL_ID(kSharedPart, 0), 1016));
    const uint32_t sizes[] = {64, 256, 1024};
    ASSERT_EQ(0, kt4_memPartVarInit(kSharedPart, "shr", sizes, 3));

    // A task's account is kept by name for the life of the process: count from what it held.
    kt4MemTaskStats a0{}, b0{};
    kt4MemTaskStatsGet("tMemChurnA", &a0);
    kt4MemTaskStatsGet("tMemChurnB", &b0);

    Worker a, b;
    a.tag = 0xA1;
    b.tag = 0xB2;
    for (auto [name, w] : {std::pair{"tMemChurnA", &a}, {"tMemChurnB", &b}})
        ASSERT_GT(kt4test::spawn_task(name, 100, [w] { churn(w); }), 0);
    ASSERT_TRUE(kt4test::eventually([&] { return a.done && b.done; }, 120000));
    EXPECT_EQ(0, a.errors.load());
    EXPECT_EQ(0, b.errors.load());

    M_MEM_POOL_INFO in{};
    ASSERT_EQ(OK, M_memPoolInfoGet(KT4_MEM_POOL_ID(kSharedPart, 0), &in));
    EXPECT_EQ(0u, in.chnksInUse);
    EXPECT_GE(in.maxChnksInUse, 16u);
    EXPECT_LE(in.maxChnksInUse, 32u);
    for (int v = 0; v < 3; ++v) {
        ASSERT_EQ(OK, M_memPoolInfoGet(KT4_MEM_VAR_POOL_ID(kSharedPart, v), &in));
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

    EXPECT_EQ(OK, kt4_memPartDelete(kSharedPart));
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
    M_memBlockAlloc("cancel", __LINE__, 64, KT4_MEM_POOL_ID(kSharedPart + 1, 0));
    return nullptr;
}

struct AllocProbe {
    std::atomic<bool> done{false};
    void *block = nullptr;
};

void *probe(void *arg) {
    auto *p = static_cast<AllocProbe *>(arg);
    p->block = M_memBlockAlloc("cancel", __LINE__, 64, KT4_MEM_POOL_ID(kSharedPart + 1, 0));
    p->done = true;
    return nullptr;
}

TEST(SharedPartition, CancelledHolderDoesNotKeepTheMutex) {
    ASSERT_EQ(0, kt4_memPartFixedInit(kSharedPart + 1, 1));
    ASSERT_EQ(0, M_memPoolCreate("cancel", KT4_MEM_POOL_ID(kSharedPart + 1, 0), 64));
    inHook = false;
    releaseHook = false;
    kt4MemSetUsageHook(blockingHook);
    pthread_t holder;
    ASSERT_EQ(0, pthread_create(&holder, nullptr, growPool, nullptr));
    ASSERT_TRUE(kt4test::eventually([] { return inHook.load(); }));
    ASSERT_EQ(0, pthread_cancel(holder));
    void *res = nullptr;
    ASSERT_EQ(0, pthread_join(holder, &res));
    EXPECT_EQ(PTHREAD_CANCELED, res);

    releaseHook = true;
    auto *p = new AllocProbe;
    pthread_t prober;
    ASSERT_EQ(0, pthread_create(&prober, nullptr, probe, p));
    if (!kt4test::eventually([p] { return p->done.load(); })) {
        pthread_detach(prober); // stuck on the mutex: leave it, the test has failed
        FAIL() << "the partition's mutex stayed held by the cancelled task";
    }
    pthread_join(prober, nullptr);
    EXPECT_NE(nullptr, p->block);
    EXPECT_EQ(OK, M_memBlockFree("cancel", __LINE__, p->block));
    delete p;
    EXPECT_EQ(OK, kt4_memPartDelete(kSharedPart + 1));
    kt4MemSetUsageHook(nullptr);
}

std::atomic<int> gUsage{10};
int usageHook(uint32_t) {
    return gUsage.load();
}

// checkUsage as seen by a task of the given name.
int checkAsTask(const char *name) {
    std::atomic<int> rc{99};
    std::atomic<bool> done{false};
    const int tid = kt4test::spawn_task(name, 100, [&] {
        rc = checkUsage(100, "test");
        done = true;
    });
    EXPECT_GT(tid, 0) << name;
    if (tid <= 0) return 98;
    EXPECT_TRUE(kt4test::eventually([&] { return done.load(); })) << name;
    return rc;
}

kt4MemStatCB stat() {
    kt4MemStatCB s{};
    kt4MemStatGet(&s);
    return s;
}

using kt4test::count_of;

class Gate : public ::testing::Test {
  protected:
    void SetUp() override {
        kt4MemSetUsageHook(usageHook);
        gUsage = 10;
        checkUsage(0, "reset"); // below 80: states and latches clear
        kt4TracePrintOn();
        testing::internal::CaptureStdout();
    }
    void TearDown() override {
        kt4TracePrintOff();
        (void)testing::internal::GetCapturedStdout();
        kt4MemSetUsageHook(nullptr);
    }
};

TEST_F(Gate, WaterMarksPrefixRuleOnceOnlyMessagesAndDebugSwitches) {
    const kt4MemStatCB s0 = stat();
    gUsage = 85;
    EXPECT_EQ(0, checkUsage(100, "test"));
    EXPECT_EQ(0, checkUsage(100, "test"));
    EXPECT_EQ(1, stat().warning);

    gUsage = 93;
    EXPECT_EQ(-1, checkUsage(100, "test")); // this thread is no critical task
    EXPECT_EQ(0, checkAsTask("tNetTask"));
    EXPECT_EQ(0, checkAsTask("tNeighbour")); // 3 characters decide: "tNe"
    EXPECT_EQ(-1, checkAsTask("worker"));
    EXPECT_EQ(-1, checkAsTask("tnetTask")); // case counts
    EXPECT_EQ(-1, checkAsTask("tN"));       // shorter than the prefix
    EXPECT_EQ(1, stat().lowWater);
    EXPECT_EQ(0, stat().warning);

    gUsage = 97;
    EXPECT_EQ(-1, checkAsTask("tNetTask"));
    EXPECT_EQ(-1, checkUsage(100, "test"));

    // Down to the low-water range again, then the warning range: their latches still hold,
    // nothing new is logged.
    gUsage = 93;
    EXPECT_EQ(-1, checkUsage(100, "test"));
    gUsage = 85;
    EXPECT_EQ(0, checkUsage(100, "test"));

    // Below 80 everything clears; the next crossing logs again.
    gUsage = 79;
    EXPECT_EQ(0, checkUsage(100, "test"));
    kt4MemStatCB s = stat();
    EXPECT_EQ(0, s.warning + s.lowWater + s.highHighWater);
    EXPECT_EQ(0, s.warningLatch + s.lowWaterLatch + s.highHighWaterLatch);
    gUsage = 93;
    EXPECT_EQ(-1, checkUsage(100, "test"));
    s = stat();
    EXPECT_EQ(s0.warningMsgs + 1, s.warningMsgs);
    EXPECT_EQ(s0.lowWaterMsgs + 2, s.lowWaterMsgs);
    EXPECT_EQ(s0.highHighWaterMsgs + 1, s.highHighWaterMsgs);

    // With the debug switches on, who asked and what they got is told as well.
    kt4MemWhoIsAllocatingDebug = 1;
    kt4MemLowToHighUsageDebug = 1;
    EXPECT_EQ(-1, checkAsTask("worker"));
    EXPECT_EQ(0, checkAsTask("tExcHelper"));
    gUsage = 10;
    EXPECT_EQ(0, checkAsTask("worker"));
    kt4MemWhoIsAllocatingDebug = 0;
    kt4MemLowToHighUsageDebug = 0;
    std::string out = testing::internal::GetCapturedStdout();
    testing::internal::CaptureStdout();
    EXPECT_EQ(1, count_of(out, "kt4MemMgmt - test - Warning! current memory usage is at 85"))
        << out;
    EXPECT_EQ(2, count_of(out, "kt4MemMgmt - size: 100, Memory requested exceeded low water mark, "
                               "Current Usage: 93"))
        << out;
    EXPECT_EQ(1, count_of(out, "kt4MemMgmt - size: 100, Memory requested exceeded high water mark, "
                               "Current Usage: 97"))
        << out;
    EXPECT_NE(std::string::npos, out.find("LowToHighRange: Task worker is DENIED Memory\r\n"))
        << out;
    EXPECT_NE(std::string::npos, out.find("LowToHighRange: Task tExcHelper GOT Memory\r\n")) << out;
    EXPECT_NE(std::string::npos,
              out.find("Mem req by task: worker, size: 100 retStatus: DENIED \r\n"));
    EXPECT_NE(std::string::npos, out.find("Mem req by task: worker, size: 100 retStatus: OK \r\n"));
}

TEST_F(Gate, RefusalReachesSystemMemoryAndPoolGrowth) {
    ASSERT_EQ(0, kt4_memPartFixedInit(21, 1));
    ASSERT_EQ(0, M_memPoolCreate("gated", KT4_MEM_POOL_ID(21, 0), 64));
    gUsage = 97;
    KT4_EXPECT_ERRNO(ENOMEM, nullptr, M_sysMalloc("gate_test", __LINE__, 32));
    EXPECT_EQ(nullptr, M_sysCalloc("gate_test", __LINE__, 4, 8));
    EXPECT_EQ(nullptr, kt4MC_M_sysMalloc("gate_test", __LINE__, 32));
    EXPECT_EQ(nullptr,
              M_memBlockAlloc("gate_test", __LINE__, 64, KT4_MEM_POOL_ID(21, 0))); // needs a page

    gUsage = 50;
    void *page = M_memBlockAlloc("gate_test", __LINE__, 64, KT4_MEM_POOL_ID(21, 0));
    ASSERT_NE(nullptr, page);
    // A pool with room serves without asking the gate.
    gUsage = 97;
    void *more = M_memBlockAlloc("gate_test", __LINE__, 64, KT4_MEM_POOL_ID(21, 0));
    EXPECT_NE(nullptr, more);
    gUsage = 50;
    auto *z = static_cast<unsigned char *>(M_sysCalloc("gate_test", __LINE__, 4, 8));
    ASSERT_NE(nullptr, z);
    EXPECT_EQ(std::string(32, '\0'), std::string(reinterpret_cast<char *>(z), 32));
    EXPECT_EQ(OK, M_sysMemfree("gate_test", __LINE__, z));
    EXPECT_EQ(OK, M_sysMemfree("gate_test", __LINE__, nullptr));
    EXPECT_EQ(OK, M_memBlockFree("gate_test", __LINE__, page));
    EXPECT_EQ(OK, M_memBlockFree("gate_test", __LINE__, more));
    EXPECT_EQ(OK, kt4_memPartDelete(21));
}

TEST(GateMachine, UsageComesFromTheMachinesCounters) {
    kt4MemSetUsageHook(nullptr);
    int u = sysMUsage(0);
    EXPECT_GT(u, 0);
    EXPECT_LE(u, 100);
    // Asking for a lot more shows in the figure.
    EXPECT_GE(sysMUsage(UINT32_MAX), u);
}

} // namespace
