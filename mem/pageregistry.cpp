// The page registry: which addresses are the start of a live page of this process, and how long
// each page is.
//
// A free computes the page of a chunk from the chunk's own header, which the caller may have
// overwritten or which may not be a chunk at all, and the header itself may lie in memory that
// is no longer ours (a block of a pool that has been freed, a block from malloc). Before the
// allocator reads anything, it asks here: first whether the header lies in a live page at all,
// then whether the page that the header names is that page. The registry maps the 16 KiB
// granule of an address to the page that starts in it: every page is more than 16 KiB long, so
// no two live pages start in one granule. It is a three-level table over 48-bit addresses whose
// nodes are never freed, so a look-up needs no lock: three dependent loads. Entries change under
// one mutex when pages are added or dropped, which is rare next to allocations.
#include "mem/mem_int.h"

#include "common/kt4_check.h"

#include <cstdlib>
#include <new>

namespace kt4::mem {

namespace registry {
std::atomic<Mid *> top[1u << kTopBits];
} // namespace registry

using namespace registry;

namespace {

pthread_mutex_t registryLock = PTHREAD_MUTEX_INITIALIZER;

struct Index {
    unsigned t, m, l;
};

bool indexOf(const void *addr, Index *ix) {
    const uintptr_t g = reinterpret_cast<uintptr_t>(addr) >> kGranuleShift;
    if ((g >> (kLeafBits + kMidBits)) >= (1u << kTopBits)) return false; // beyond 48 bits
    ix->l = static_cast<unsigned>(g & ((1u << kLeafBits) - 1));
    ix->m = static_cast<unsigned>((g >> kLeafBits) & ((1u << kMidBits) - 1));
    ix->t = static_cast<unsigned>(g >> (kLeafBits + kMidBits));
    return true;
}

// Nodes come from the C heap and stay for the life of the process: a reader may be looking at
// any of them at any time.
template <typename T> T *newNode() {
    void *raw = std::calloc(1, sizeof(T));
    return raw == nullptr ? nullptr : new (raw) T();
}

} // namespace

bool pageRegister(const void *page, uint32_t bytes) {
    Index ix;
    if (!indexOf(page, &ix)) return false;
    kt4::MutexGuard g(registryLock);
    Mid *mid = top[ix.t].load(std::memory_order_acquire);
    if (mid == nullptr) {
        mid = newNode<Mid>();
        if (mid == nullptr) return false;
        top[ix.t].store(mid, std::memory_order_release);
    }
    Leaf *leaf = mid->leaf[ix.m].load(std::memory_order_acquire);
    if (leaf == nullptr) {
        leaf = newNode<Leaf>();
        if (leaf == nullptr) return false;
        mid->leaf[ix.m].store(leaf, std::memory_order_release);
    }
    leaf->bytes[ix.l].store(bytes, std::memory_order_relaxed);
    leaf->page[ix.l].store(reinterpret_cast<uintptr_t>(page), std::memory_order_release);
    return true;
}

void pageUnregister(const void *page) {
    Index ix;
    if (!indexOf(page, &ix)) return;
    kt4::MutexGuard g(registryLock);
    Mid *mid = top[ix.t].load(std::memory_order_acquire);
    Leaf *leaf = mid == nullptr ? nullptr : mid->leaf[ix.m].load(std::memory_order_acquire);
    if (leaf != nullptr &&
        leaf->page[ix.l].load(std::memory_order_relaxed) == reinterpret_cast<uintptr_t>(page))
        leaf->page[ix.l].store(0, std::memory_order_release);
}

} // namespace kt4::mem
