// Red-black trees whose header lives in the card's shared-memory heap, so that several
// processes can reach one table at the same address. Kept apart from the rest of the tree so
// that a program using only private trees does not pull in the shared heap.
#include "containers/internal.h"

#include <kt4/hostsim.h>

using namespace kt4::ctr;

namespace {
constexpr const char *kTag = kRBTreeTag;
}

extern "C" {

kt4RBTree *kt4RBTreeShmCreate(const char *name, uint32_t keyOffset, uint32_t keyLength,
                              kt4RBTreeAllocFn alloc, kt4RBTreeFreeFn release,
                              kt4RBTreeCompareFn compare) {
    auto *t = static_cast<kt4RBTree *>(kt4MC_MM_calloc(kTag, __LINE__, 1, sizeof(kt4RBTree)));
    if (t == nullptr) return nullptr;
    if (rbtree_init_header(t, name, keyOffset, keyLength, alloc, release, compare) == nullptr) {
        kt4MC_MM_free(kTag, __LINE__, t);
        return nullptr;
    }
    return t;
}

int kt4RBTreeShmDestroy(kt4RBTree *tree) {
    RBT_CHECK(tree, return -1);
    be(tree->rbtt_magic) = 0;
    return kt4MC_MM_free(kTag, __LINE__, tree);
}

} // extern "C"
