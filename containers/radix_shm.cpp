// Radix trees whose header lies in the shared-memory heap, so that the processes of a card
// reach one table (its nodes come from the allocator hooks the creator gives). Kept apart from
// the process-heap forms so that a program that never shares a tree does not pull in the heap.
#include "containers/radix_impl.h"

#include <kt4/hostsim.h>

using namespace kt4::radix;

extern "C" {

kt4RadixTree *kt4RadixCreateP(const char *name, int keyBits, kt4RadixAllocFn alloc,
                              kt4RadixFreeFn release, kt4RadixRmFreeFn rmfree) {
    if (!radix_create_args_ok(name, keyBits)) return nullptr;
    void *mem = kt4MC_MM_malloc(kTag, __LINE__, sizeof(Tree));
    if (mem == nullptr) return nullptr;
    return radix_init(mem, name, keyBits, alloc, release, rmfree, true);
}

STATUS kt4RadixDestroyP(kt4RadixTree *tree) {
    RDX_CHECK(tree, kTag, return ERROR);
    if (!radix_teardown(tree)) return ERROR;
    return kt4MC_MM_free(kTag, __LINE__, tree) == 0 ? OK : ERROR;
}

} // extern "C"
