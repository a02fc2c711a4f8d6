// A red-black tree whose header, nodes and records live in shared memory, used by two
// processes: the child adds entries and the parent finds them in the same tree.
#include <kt4/containers.h>

#include "support/kt4_support.h"

#include <gtest/gtest.h>

namespace {

struct SharedRec {
    uint32_t key, owner; // owner: 1 parent, 2 child
};

using kt4test::SharedHeap;

TEST(RBTreeShm, TwoProcessesShareOneTree) {
    SharedHeap heap;
    ASSERT_TRUE(heap.ok());
    kt4RBTree *t =
        kt4RBTreeShmCreate("shared", 0, 4, SharedHeap::alloc, SharedHeap::free, _RBTCompareUL);
    ASSERT_TRUE(heap.contains(t));
    auto add = [&](uint32_t key, uint32_t owner) {
        auto *r = static_cast<SharedRec *>(SharedHeap::alloc(sizeof(SharedRec)));
        *r = SharedRec{key, owner};
        return kt4RBTreeInsert(t, r);
    };
    for (uint32_t k = 0; k < 100; k += 2)
        ASSERT_EQ(1, add(k, 1));
    const pid_t pid = kt4test::fork_child([&] {
        SharedRec probe{40, 0};
        auto *found = static_cast<SharedRec *>(kt4RBTreeGetExact(t, &probe));
        bool ok = found != nullptr && found->owner == 1;
        for (uint32_t k = 1; k < 100 && ok; k += 2)
            ok = add(k, 2) == 1;
        return ok;
    });
    ASSERT_GT(pid, 0);
    ASSERT_EQ(0, kt4test::wait_child(pid));
    uint32_t want = 0;
    for (auto *r = static_cast<SharedRec *>(kt4RBTreeGetFirst(t)); r;
         r = static_cast<SharedRec *>(kt4RBTreeGetNext(t, r)), ++want)
        ASSERT_TRUE(r->key == want && r->owner == (want % 2 ? 2u : 1u)) << want;
    EXPECT_EQ(100u, want);
    while (void *r = kt4RBTreeGetFirst(t))
        SharedHeap::free(kt4RBTreeRemove(t, r));
    EXPECT_EQ(0, kt4RBTreeShmDestroy(t));
}

} // namespace
