// The card's shared memory file and the shared-memory heap inside it: mapped once per
// process at the fixed address, found laid out by later processes, a taken address refused,
// and a heap that several processes allocate from and that refuses foreign pointers.
#include "support/kt4_test_env.h"

// The accessor through which the other families find and create their tables in the area.
#include "platform/shm_area.h"

#include <kt4/hostsim.h>
#include <kt4/log.h>
#include <kt4/platform.h>

#include <gtest/gtest.h>

#include <sys/stat.h>

#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

namespace {

class SharedMemory : public ::testing::Test {
  protected:
    void SetUp() override { ASSERT_TRUE(kt4test::Card::get().up()); }
};

TEST_F(SharedMemory, TheFileFollowsTheCardsRootAndIsMappedOncePerProcess) {
    EXPECT_EQ(kt4test::Card::get().file(), kt4GetShmFileName(0));
    struct stat st {};
    ASSERT_EQ(0, stat(kt4GetShmFileName(0), &st));
    EXPECT_GE(static_cast<size_t>(st.st_size), kt4test::kAreaBytes);
    EXPECT_EQ(0600u, st.st_mode & 0777u);

    void *block = kt4MC_MM_malloc(__FILE__, __LINE__, 64);
    ASSERT_NE(nullptr, block);
    EXPECT_EQ(KT4_SHM_BASE_ADDRESS, reinterpret_cast<uintptr_t>(block) & ~0xFFFFFFUL);
    char small[] = "4096";
    char prog[] = "again";
    char *argv[] = {prog, small, nullptr};
    EXPECT_EQ(0, KT4_ProcShmInit(2, argv)) << "a second call maps nothing and succeeds";
    EXPECT_EQ(0, kt4MC_MM_free(__FILE__, __LINE__, block)) << "the heap is still the same";
}

TEST_F(SharedMemory, ATakenAddressIsAClearError) {
    std::string out;
    EXPECT_EQ(0, kt4test::run_helper({"taken", std::to_string(kt4test::kAreaBytes)}, {}, &out))
        << out;
    EXPECT_NE(std::string::npos, out.find("failed to memory map memory file\r\n")) << out;
    EXPECT_NE(std::string::npos, out.find("address 0x60000000 is already in use")) << out;
}

TEST_F(SharedMemory, TheHeapServesSeveralProcesses) {
    auto *parent = static_cast<char *>(kt4MC_MM_calloc(__FILE__, __LINE__, 1, 100));
    ASSERT_NE(nullptr, parent);
    std::strcpy(parent, "from the parent");
    // The child sees the parent's block at the same address, frees it and leaves a block of
    // its own that the parent then reads and frees.
    int fds[2];
    ASSERT_EQ(0, pipe(fds));
    pid_t child = kt4test::fork_child([&] {
        if (std::strcmp(parent, "from the parent") != 0) return false;
        if (kt4MC_MM_free(__FILE__, __LINE__, parent) != 0) return false;
        auto *mine = static_cast<char *>(kt4MC_MM_malloc(__FILE__, __LINE__, 200));
        if (mine == nullptr) return false;
        std::strcpy(mine, "from the child");
        return write(fds[1], &mine, sizeof mine) == static_cast<ssize_t>(sizeof mine);
    });
    char *fromChild = nullptr;
    ASSERT_EQ(static_cast<ssize_t>(sizeof fromChild), read(fds[0], &fromChild, sizeof fromChild));
    ASSERT_EQ(0, kt4test::wait_child(child));
    close(fds[0]);
    close(fds[1]);
    EXPECT_STREQ("from the child", fromChild);
    EXPECT_EQ(0, kt4MC_MM_free(__FILE__, __LINE__, fromChild));
    EXPECT_EQ(-1, kt4MC_MM_free(__FILE__, __LINE__, parent)) << "the child released it already";
}

TEST_F(SharedMemory, TheHeapRefusesPointersItDidNotHandOutAndMergesReleasedBlocks) {
    int local = 0;
    EXPECT_EQ(-1, kt4MC_MM_free(__FILE__, __LINE__, &local));
    auto *block = static_cast<char *>(kt4MC_MM_malloc(__FILE__, __LINE__, 256));
    ASSERT_NE(nullptr, block);
    EXPECT_EQ(-1, kt4MC_MM_free(__FILE__, __LINE__, block + 16)) << "inside a block";
    EXPECT_EQ(0, kt4MC_MM_free(__FILE__, __LINE__, block));
    EXPECT_EQ(-1, kt4MC_MM_free(__FILE__, __LINE__, block)) << "released twice";
    EXPECT_EQ(0, kt4MC_MM_free(__FILE__, __LINE__, nullptr));
    EXPECT_EQ(nullptr, kt4MC_MM_calloc(__FILE__, __LINE__, SIZE_MAX / 2, 4));
    EXPECT_EQ(nullptr, kt4MC_MM_malloc(__FILE__, __LINE__, kt4test::kAreaBytes));

    // Fill most of the heap with small blocks, release them in an order that leaves holes
    // between live blocks for a while, then ask for one block nearly as large as the heap.
    std::vector<void *> blocks;
    for (void *p; (p = kt4MC_MM_malloc(__FILE__, __LINE__, 64 * 1024)) != nullptr;)
        blocks.push_back(p);
    ASSERT_GT(blocks.size(), 40u);
    for (size_t i = 0; i < blocks.size(); i += 2)
        ASSERT_EQ(0, kt4MC_MM_free(__FILE__, __LINE__, blocks[i]));
    EXPECT_EQ(nullptr, kt4MC_MM_malloc(__FILE__, __LINE__, 256 * 1024)) << "only 64 KB holes";
    for (size_t i = 1; i < blocks.size(); i += 2)
        ASSERT_EQ(0, kt4MC_MM_free(__FILE__, __LINE__, blocks[i]));
    void *big = kt4MC_MM_calloc(__FILE__, __LINE__, 1, (blocks.size() - 1) * 64 * 1024);
    ASSERT_NE(nullptr, big) << "the released blocks did not merge";
    EXPECT_EQ(0, static_cast<unsigned char *>(big)[12345]);
    EXPECT_EQ(0, kt4MC_MM_free(__FILE__, __LINE__, big));
}

TEST_F(SharedMemory, ATableIsCreatedOnceForTheWholeCard) {
    using kt4::shm::kSwpQueueTable;
    static int inits;
    inits = 0;
    auto init = [](void *table, size_t bytes) {
        ++inits;
        std::memset(table, 0x5A, bytes);
    };
    ASSERT_EQ(nullptr, kt4::shm::table(kSwpQueueTable));
    auto *mine = static_cast<unsigned char *>(kt4::shm::claim(kSwpQueueTable, 1000, init));
    ASSERT_NE(nullptr, mine);
    EXPECT_EQ(1, inits);
    pid_t child = kt4test::fork_child([&] {
        // Another process finds the same table, initialised once.
        auto *theirs = static_cast<unsigned char *>(kt4::shm::claim(kSwpQueueTable, 500, init));
        size_t bytes = 0;
        return theirs == mine && inits == 1 && theirs[999] == 0x5A &&
               kt4::shm::table(kSwpQueueTable, &bytes) == mine && bytes == 1000;
    });
    EXPECT_EQ(0, kt4test::wait_child(child));
    EXPECT_EQ(nullptr, kt4::shm::claim(kSwpQueueTable, 2000, init)) << "larger than the table";
    EXPECT_EQ(0, kt4::shm::release(kSwpQueueTable));
    EXPECT_EQ(nullptr, kt4::shm::table(kSwpQueueTable));
    EXPECT_EQ(-1, kt4::shm::release(kSwpQueueTable));
    EXPECT_EQ(-1, kt4::shm::release(kt4::shm::kTraceRings)) << "laid out with the area";
    EXPECT_EQ(-1, kt4MC_MM_free(__FILE__, __LINE__, mine)) << "went back to the heap";
}

} // namespace
