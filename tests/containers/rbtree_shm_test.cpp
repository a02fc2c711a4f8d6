// A red-black tree whose header, nodes and records live in shared memory, used by two
// processes: the child adds entries and the parent finds them in the same tree.
#include <kt4/containers.h>
#include <kt4/hostsim.h>

#include <gtest/gtest.h>

#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

struct SharedRec {
    uint32_t key, owner; // owner: 1 parent, 2 child
};

void *shm_alloc(size_t n) {
    return kt4MC_MM_malloc("test", __LINE__, n);
}
void shm_free(void *p) {
    kt4MC_MM_free("test", __LINE__, p);
}

TEST(RBTreeShm, TwoProcessesShareOneTree) {
    constexpr size_t kArea = 1 << 20;
    void *area = mmap(nullptr, kArea, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    ASSERT_NE(MAP_FAILED, area);
    ASSERT_EQ(0, mm_core_init(area, kArea, 1));
    kt4RBTree *t = kt4RBTreeShmCreate("shared", 0, 4, shm_alloc, shm_free, _RBTCompareUL);
    auto *base = static_cast<char *>(area), *hdr = reinterpret_cast<char *>(t);
    ASSERT_TRUE(hdr >= base && hdr < base + kArea);
    auto add = [&](uint32_t key, uint32_t owner) {
        auto *r = static_cast<SharedRec *>(shm_alloc(sizeof(SharedRec)));
        *r = SharedRec{key, owner};
        return kt4RBTreeInsert(t, r);
    };
    for (uint32_t k = 0; k < 100; k += 2)
        ASSERT_EQ(1, add(k, 1));
    const pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
        SharedRec probe{40, 0};
        auto *found = static_cast<SharedRec *>(kt4RBTreeGetExact(t, &probe));
        int rc = found == nullptr || found->owner != 1;
        for (uint32_t k = 1; k < 100 && rc == 0; k += 2)
            rc = add(k, 2) != 1;
        _exit(rc);
    }
    int status = 0;
    ASSERT_EQ(pid, waitpid(pid, &status, 0));
    ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    uint32_t want = 0;
    for (auto *r = static_cast<SharedRec *>(kt4RBTreeGetFirst(t)); r;
         r = static_cast<SharedRec *>(kt4RBTreeGetNext(t, r)), ++want)
        ASSERT_TRUE(r->key == want && r->owner == (want % 2 ? 2u : 1u)) << want;
    EXPECT_EQ(100u, want);
    while (void *r = kt4RBTreeGetFirst(t))
        shm_free(kt4RBTreeRemove(t, r));
    EXPECT_EQ(0, kt4RBTreeShmDestroy(t));
    munmap(area, kArea);
}

} // namespace
