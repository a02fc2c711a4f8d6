// A red-black tree whose header, nodes and records live in shared memory, used by two
// processes: the child adds entries and the parent finds them in the same tree.
#include <kt4/containers.h>
#include <kt4/hostsim.h>

#include <gtest/gtest.h>

#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstddef>
#include <vector>

namespace {

struct SharedRec {
    uint32_t key;
    uint32_t owner; // 1 parent, 2 child
};

void *shm_node_alloc(size_t n) {
    return kt4MC_MM_malloc("rbtree_shm_test", __LINE__, n);
}
void shm_node_free(void *p) {
    kt4MC_MM_free("rbtree_shm_test", __LINE__, p);
}

TEST(RBTreeShm, TwoProcessesShareOneTree) {
    constexpr size_t kArea = 1 << 20;
    void *area = mmap(nullptr, kArea, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    ASSERT_NE(MAP_FAILED, area);
    ASSERT_EQ(0, mm_core_init(area, kArea, 1));

    kt4RBTree *t = kt4RBTreeShmCreate("shared", offsetof(SharedRec, key), 4, shm_node_alloc,
                                      shm_node_free, _RBTCompareUL);
    ASSERT_NE(nullptr, t);
    auto *base = static_cast<char *>(area);
    ASSERT_TRUE(reinterpret_cast<char *>(t) >= base && reinterpret_cast<char *>(t) < base + kArea);
    EXPECT_EQ(&t->rbtt_nil, t->rbtt_root);
    EXPECT_EQ(KT4_RBTREE_MAGIC, kt4Be32Get(&t->rbtt_magic));

    auto new_rec = [](uint32_t key, uint32_t owner) {
        auto *r = static_cast<SharedRec *>(
            kt4MC_MM_malloc("rbtree_shm_test", __LINE__, sizeof(SharedRec)));
        r->key = key;
        r->owner = owner;
        return r;
    };
    for (uint32_t k = 0; k < 100; k += 2)
        ASSERT_EQ(1, kt4RBTreeInsert(t, new_rec(k, 1)));

    pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
        // The child sees the parent's entries and adds the odd keys.
        int rc = 0;
        SharedRec probe{40, 0};
        auto *found = static_cast<SharedRec *>(kt4RBTreeGetExact(t, &probe));
        if (found == nullptr || found->owner != 1) rc = 1;
        for (uint32_t k = 1; k < 100 && rc == 0; k += 2)
            if (kt4RBTreeInsert(t, new_rec(k, 2)) != 1) rc = 2;
        _exit(rc);
    }
    int status = 0;
    ASSERT_EQ(pid, waitpid(pid, &status, 0));
    ASSERT_TRUE(WIFEXITED(status));
    ASSERT_EQ(0, WEXITSTATUS(status));

    EXPECT_EQ(100u, kt4Be32Get(&t->rbtt_numentries));
    uint32_t want = 0;
    for (auto *r = static_cast<SharedRec *>(kt4RBTreeGetFirst(t)); r;
         r = static_cast<SharedRec *>(kt4RBTreeGetNext(t, r)), ++want) {
        ASSERT_EQ(want, r->key);
        ASSERT_EQ(want % 2 ? 2u : 1u, r->owner);
    }
    EXPECT_EQ(100u, want);
    while (void *r = kt4RBTreeGetFirst(t)) {
        kt4RBTreeRemove(t, r);
        kt4MC_MM_free("rbtree_shm_test", __LINE__, r);
    }
    EXPECT_EQ(0, kt4RBTreeShmDestroy(t));
    munmap(area, kArea);
}

} // namespace
