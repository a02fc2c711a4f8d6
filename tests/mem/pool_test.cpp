// Fixed and var pools: page arithmetic, chunk reuse, and frees that must be refused.
#include "common/kt4_be.h"

#include <kt4/hostsim.h>
#include <kt4/log.h>
#include <kt4/mem.h>

#include "support/kt4_support.h"

#include <gtest/gtest.h>

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

TEST_F(Pools, PageArithmetic) {
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

    // A pool capped at 16562 bytes never holds more than one page.
    ASSERT_EQ(0, M_memPoolCreate("capped", pool(2), 100));
    ASSERT_EQ(OK, M_memPoolSetSize(pool(2), 16562));
    blocks.clear();
    for (int i = 0; i < 153; ++i)
        blocks.push_back(M_memBlockAlloc("t", __LINE__, 64, pool(2)));
    for (void *p : blocks)
        ASSERT_NE(nullptr, p);
    EXPECT_EQ(nullptr, M_memBlockAlloc("t", __LINE__, 64, pool(2)));
    EXPECT_EQ(1u, info(pool(2)).numPages);
    ASSERT_EQ(OK, M_memPoolSetSize(pool(2), KT4_MEM_NO_LIMIT));
    void *more = M_memBlockAlloc("t", __LINE__, 64, pool(2));
    EXPECT_NE(nullptr, more);
    EXPECT_EQ(OK, M_memBlockFree("t", __LINE__, more));
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
    M_MEM_POOL_INFO gone{};
    EXPECT_EQ(ERROR, M_memPoolInfoGet(pool(0), &gone));
    EXPECT_EQ(0, M_memPoolCreate("eight-again", pool(0), 8));
    // 8-byte chunks still hold the free-list links: the page is cut into 16-byte slots.
    EXPECT_EQ((16562u - 32u) / 16u, info(pool(0)).chnksPerPage);
}

TEST_F(Pools, FreedChunkComesBackFirstAndBlocksAreAligned) {
    ASSERT_EQ(0, M_memPoolCreate("hdr", pool(0), 100));
    auto *a = static_cast<unsigned char *>(M_memBlockAlloc("t", __LINE__, 50, pool(0)));
    auto *b = static_cast<unsigned char *>(M_memBlockAlloc("t", __LINE__, 50, pool(0)));
    ASSERT_TRUE(a && b);
    EXPECT_EQ(KT4_MEM_POOL_ID(kPart, 0), M_memBlockPoolId(a));
    EXPECT_EQ(OK, M_memBlockFree("t", __LINE__, a));
    EXPECT_EQ(-1, M_memBlockPoolId(a));
    // The freed chunk is the next one handed out.
    EXPECT_EQ(a, M_memBlockAlloc("t", __LINE__, 100, pool(0)));
    EXPECT_EQ(OK, M_memBlockFree("t", __LINE__, a));
    EXPECT_EQ(OK, M_memBlockFree("t", __LINE__, b));

    // Chunk sizes that are multiples of 8 give 8-byte aligned blocks (16 for the first).
    ASSERT_EQ(0, M_memPoolCreate("aligned", pool(1), 64));
    std::vector<void *> v;
    for (int i = 0; i < 5; ++i) {
        v.push_back(M_memBlockAlloc("t", __LINE__, 64, pool(1)));
        EXPECT_EQ(0u, reinterpret_cast<uintptr_t>(v.back()) % 8) << i;
    }
    EXPECT_EQ(0u, reinterpret_cast<uintptr_t>(v[0]) % 16);
    for (void *p : v)
        EXPECT_EQ(OK, M_memBlockFree("t", __LINE__, p));
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
    EXPECT_EQ(9u, in.chnksInUse);
    // Every chunk handed out now is distinct from the ones held: nothing was freed twice.
    std::set<void *> live(held.begin(), held.end());
    live.erase(x);
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

TEST_F(Pools, OverrunIntoTheNextChunkIsReportedAtFree) {
    ASSERT_EQ(0, M_memPoolCreate("overrun", pool(0), 32));
    auto *a = static_cast<unsigned char *>(M_memBlockAlloc("t", __LINE__, 32, pool(0)));
    auto *b = static_cast<unsigned char *>(M_memBlockAlloc("t", __LINE__, 32, pool(0)));
    ASSERT_EQ(40, b - a);
    unsigned char saved[4];
    std::memcpy(saved, a + 32, 4);
    std::memset(a, 'x', 36); // four bytes into b's marker
    testing::internal::CaptureStdout();
    kt4TracePrintOn();
    EXPECT_EQ(OK, M_memBlockFree("t", __LINE__, a)); // a itself is fine: freed, overrun reported
    kt4TracePrintOff();
    std::string out = testing::internal::GetCapturedStdout();
    EXPECT_NE(std::string::npos, out.find("Header/Trailer")) << out;
    // b's header is broken: its free is refused rather than trusted.
    EXPECT_EQ(ERROR, M_memBlockFree("t", __LINE__, b));
    std::memcpy(b - 8, saved, 4);
    EXPECT_EQ(OK, M_memBlockFree("t", __LINE__, b));
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
const bool mcOn = [] {
    ::testing::AddGlobalTestEnvironment(new MemoryCheckOn);
    return true;
}();

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

} // namespace
