// Partitions and their pools: the partition table, creating and dropping partitions and
// pools, the pool look-ups and the var-size tables.
//
// Pool headers and partitions come from malloc, not from the checked allocator, for the same
// reason as the pages (pagedir.cpp).
#include "mem/pool_int.h"

#include <cstdlib>
#include <cstring>

namespace kt4::mem {

std::atomic<Partition *> sysPartitions[MAX_PART_ID];

namespace {

// Taken by partition creation and deletion (the table's readers take no lock).
pthread_mutex_t partTableLock = PTHREAD_MUTEX_INITIALIZER;
// Partition that the pool id -1 found last (the caller's own); -1 = look again.
std::atomic<int> ownPartHint{-1};

} // namespace

Pool *poolById(uint32_t poolId) {
    Partition *part = partGet(static_cast<int>(poolId >> 16));
    return part == nullptr ? nullptr : poolInPart(part, poolId & 0xFFFFu);
}

Pool *bestFitPool(Partition *part, uint32_t size) {
    Pool *best = nullptr;
    if (part->poolList == nullptr) return nullptr;
    for (uint32_t i = 0, n = part->totPools; i < n; ++i) {
        Pool *p = part->poolList[i];
        if (p != nullptr && p->chnkSz.get() >= size &&
            (best == nullptr || p->chnkSz.get() < best->chnkSz.get()))
            best = p;
    }
    return best;
}

Partition *ownPartition() {
    const int pid = cachedPid();
    int h = ownPartHint.load(std::memory_order_relaxed);
    if (h >= 0) {
        Partition *p = partGet(h);
        if (p != nullptr && static_cast<int>(p->ownerPid.get()) == pid) return p;
    }
    for (int i = 0; i < MaxPartId; ++i) {
        Partition *p = partGet(i);
        if (p != nullptr && static_cast<int>(p->ownerPid.get()) == pid) {
            ownPartHint.store(i, std::memory_order_relaxed);
            return p;
        }
    }
    return nullptr;
}

Partition *partCreate(int partId) {
    kt4::MutexGuard g(partTableLock);
    Partition *part = sysPartitions[partId].load(std::memory_order_acquire);
    if (part != nullptr) return part;
    part = static_cast<Partition *>(std::calloc(1, sizeof(Partition)));
    if (part == nullptr) return nullptr;
    KT4_VERIFY(!pthread_mutex_init(&part->modPartFixedSem, nullptr));
    wr(part->ownerPid, static_cast<uint32_t>(cachedPid()));
    wr(part->locked, 1);
    wr(part->partId, static_cast<uint32_t>(partId));
    currentTaskName(part->name, sizeof part->name);
    std::memset(part->varByteTable, kNoPool, sizeof part->varByteTable);
    sysPartitions[partId].store(part, std::memory_order_release);
    ownPartHint.store(-1, std::memory_order_relaxed);
    return part;
}

void poolDestroy(Pool *pool) {
    releaseAllPages(pool);
    std::free(pool);
}

Pool *poolNew(Partition *part, const char *name, uint32_t poolId, uint32_t chnkSz) {
    auto *pool = static_cast<Pool *>(std::calloc(1, sizeof(Pool)));
    if (pool == nullptr) return nullptr;
    copyName(pool->name, sizeof pool->name, name);
    wr(pool->maxSize, KT4_MEM_NO_LIMIT);
    wr(pool->chnkSz, chnkSz);
    wr(pool->partId, part->partId.get());
    wr(pool->poolId, poolId);
    pool->part = part;
    pool->dirHint = 1;
    return pool;
}

void rebuildVarTables(Partition *part) {
    const uint32_t n = part->totVarPools;
    // Pool indexes in ascending chunk size (indexes stay fixed: pages name their pool by it).
    uint8_t order[MAX_VAR_POOLS];
    for (uint32_t i = 0; i < n; ++i)
        order[i] = static_cast<uint8_t>(i);
    for (uint32_t i = 1; i < n; ++i)
        for (uint32_t j = i; j > 0 && part->varPools[order[j - 1]]->chnkSz.get() >
                                          part->varPools[order[j]]->chnkSz.get();
             --j) {
            uint8_t t = order[j];
            order[j] = order[j - 1];
            order[j - 1] = t;
        }
    uint32_t firstLarge = n;
    for (uint32_t i = 0; i < n; ++i) {
        uint32_t sz = part->varPools[order[i]]->chnkSz;
        part->varSizes[i] = static_cast<uint16_t>(sz);
        if (firstLarge == n && sz >= static_cast<uint32_t>(kVarTableSizes)) firstLarge = i;
    }
    wr(part->firstLargePool, firstLarge);
    // varSizes is sorted; the byte table maps each small request to the pool index.
    uint32_t pos = 0;
    part->varByteTable[0] = kNoPool;
    for (uint32_t s = 1; s < static_cast<uint32_t>(kVarTableSizes); ++s) {
        while (pos < n && part->varSizes[pos].get() < s)
            ++pos;
        part->varByteTable[s] = pos < n ? order[pos] : kNoPool;
    }
    // The size table is searched by position; keep the pool index of each position.
    for (uint32_t i = 0; i < n; ++i)
        part->varOrder[i] = order[i];
}

Partition *partDetach(int partId) {
    kt4::MutexGuard g(partTableLock);
    Partition *part = sysPartitions[partId].exchange(nullptr, std::memory_order_acq_rel);
    ownPartHint.store(-1, std::memory_order_relaxed);
    return part;
}

void partFree(Partition *part) {
    if (part->poolList != nullptr) {
        for (uint32_t i = 0, n = part->totPools; i < n; ++i)
            if (part->poolList[i] != nullptr) poolDestroy(part->poolList[i]);
        std::free(part->poolList);
    }
    for (uint32_t i = 0, n = part->totVarPools; i < n; ++i)
        poolDestroy(part->varPools[i]);
    KT4_VERIFY(!pthread_mutex_destroy(&part->modPartFixedSem));
    std::free(part);
}

} // namespace kt4::mem
