// The block allocator's allocation and free paths and its exported entry points.
//
// A page is one heap block: a 28-byte header, then the chunk slots, then a final marker word.
// Each slot is an 8-byte chunk header and the user area; a free chunk's user area holds its
// neighbours on the page's free list. Pages of a pool are doubly linked twice: all pages, and
// the pages that still hold a free chunk (allocation always takes from the first of those).
// A free only trusts the page that a chunk header points at once the page registry knows it,
// so a foreign or corrupted address is refused without reading anything outside our pages.
//
// The other jobs of the allocator live beside this file (see pool_int.h): partitions and pools,
// the page directory, the chunk checks and the show commands.
#include "mem/pool_int.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace kt4::mem {

namespace {

// Hands out chunk head of curPage, already verified, whose successor on the page's free list
// is next.
[[gnu::always_inline]] inline void *takeChnk(Pool *pool, PageHdr *curPage, ChnkHdr *chnk,
                                             uint32_t head, uint32_t next, uint32_t slot,
                                             uint32_t kind) {
    // Everything is read before anything is written (see freeInPage).
    const uint32_t chnkSz = pool->chnkSz;
    const uint32_t nFree = curPage->freeChnks.get() - 1u;
    const uint32_t inUse = pool->chnksInUse.get() + 1;
    const uint32_t maxInUse = pool->maxChnksInUse;
    wr(curPage->headFreeChnk, next);
    if (next != CHNKLNKSNULL) wr(linksOf(chnkAt(curPage, next, slot))->prev, CHNKLNKSNULL);
    wr(curPage->freeChnks, static_cast<uint16_t>(nFree));
    wr(pool->chnksInUse, inUse);
    if (inUse > maxInUse) wr(pool->maxChnksInUse, inUse);
    wr(chnk->chnkInfo, chnkInfo(head, chnkSz, kind));
    wr(chnk->chnkMarker, Used_Magic_front);
    if (nFree == 0) {
        freeListRemove(pool, curPage);
        wr(curPage->headFreeChnk, CHNKLNKSNULL);
        if (memDebugOn()) memDebug("Deleted Page From Free List, Page: %x\r\n", lo32(curPage));
    }
    return chnk + 1;
}

// The allocation path that adds pages and copes with damaged pages: every check of the fast
// path again, this time with its report.
[[gnu::noinline]] void *allocChnkSlow(Pool *pool, uint32_t kind) {
    const uint32_t chnkSz = pool->chnkSz;
    const uint32_t slot = slotSize(chnkSz);
    for (;;) {
        if (pool->firstFreePage.get() == 0) {
            if (insertPage(pool, chnkSz) != 0) return nullptr;
            if (memDebugOn())
                memDebug("Alloc: New Page Added, Page %x\r\n", lo32(pageOf(pool, pool->headPage)));
        }
        PageHdr *curPage = pageOf(pool, pool->firstFreePage);
        if (curPage == nullptr) { // the pool's own list is broken: start it again
            memSysErr("%s: pool %s: free-page list broken", kModName, pool->name);
            wr(pool->firstFreePage, 0);
            wr(pool->lastFreePage, 0);
            wr(pool->numFreePages, 0);
            continue;
        }
        const uint32_t head = curPage->headFreeChnk;
        if (!(head != CHNKLNKSNULL) || head >= curPage->totChnks.get()) {
            _kt4Assert("(*curPage)->headFreeChnk != CHNKLNKSNULL", kSrcTag, __LINE__);
            quarantinePage(pool, curPage);
            continue;
        }
        ChnkHdr *chnk = chnkAt(curPage, head, slot);
        int rc = verifyChnkIn(kVerifyAlloc, curPage, chnk, pool);
        if (rc == ERROR) {
            memSysErr("%s: pool %s: free chunk %u of page %x corrupted", kModName, pool->name, head,
                      lo32(curPage));
            _kt4Assert("rc != ERROR", kSrcTag, __LINE__);
            quarantinePage(pool, curPage);
            continue;
        }
        uint32_t next = linksOf(chnk)->next;
        if (next != CHNKLNKSNULL && (next >= curPage->totChnks.get() || next == head)) {
            memSysErr("%s: pool %s: free list of page %x corrupted after chunk %u", kModName,
                      pool->name, lo32(curPage), head);
            next = CHNKLNKSNULL; // the rest of the list cannot be trusted
            wr(curPage->freeChnks, 1);
        }
        return takeChnk(pool, curPage, chnk, head, next, slot, kind);
    }
}

// One chunk of the pool; null when no page can be added. The common case (a page with a free
// chunk, everything in order) is handled here; anything else goes the slow way.
inline void *allocChnkFromPage(Pool *pool, uint32_t kind) {
    PageHdr *curPage = pageOf(pool, pool->firstFreePage);
    if (curPage != nullptr) [[likely]] {
        const uint32_t head = curPage->headFreeChnk;
        const uint32_t tot = curPage->totChnks.get();
        if (head < tot) { // also not CHNKLNKSNULL
            const uint32_t slot = slotSize(pool->chnkSz);
            ChnkHdr *chnk = chnkAt(curPage, head, slot);
            const uint32_t next = linksOf(chnk)->next;
            if (verifyChnkOk(kVerifyAlloc, curPage, chnk, pool) &&
                (next == CHNKLNKSNULL || (next < tot && next != head)))
                return takeChnk(pool, curPage, chnk, head, next, slot, kind);
        }
    }
    return allocChnkSlow(pool, kind);
}

// Under the partition's mutex: confirms that the page belongs to a pool of this partition and
// the chunk to the page (chnkPool), then gives the chunk back to its page. Everything is read
// before anything is written: the records are byte arrays to the compiler, and each store
// would otherwise make it read every field again.
inline BadAddr freeInPage(Partition *part, ChnkHdr *chnk, PageHdr *page, uint32_t *bytes) {
    BadAddr why;
    Pool *pool = chnkPool(part, chnk, page, false, &why);
    if (pool == nullptr) return why;
    const uint32_t chnkSz = pool->chnkSz;
    const uint32_t slot = slotSize(chnkSz);
    const uint32_t idx = chnkIndex(chnk->chnkInfo);
    const uint32_t tot = page->totChnks;
    const uint32_t head = page->headFreeChnk;
    const uint32_t nFree = page->freeChnks.get() + 1u;
    // The page's own links are only followed when the page changes lists (it regains room or
    // empties); only then must they agree with the pool's directory.
    uint32_t num = 0;
    if (nFree == 1 || nFree == tot) {
        num = pageNumber(pool, page);
        if (num == 0) return BadAddr::NotFreed;
    }
    const uint32_t inUse = pool->chnksInUse;
    // The word after the slot is the next chunk's marker or the page's final marker: anything
    // else means the caller wrote past the end of its block.
    const uint32_t trailer = load_be32(reinterpret_cast<char *>(chnk) + slot);
    const bool isTrailerGood = trailer == Unused_Magic_front || trailer == Used_Magic_front;
    if (!(isTrailerGood == TRUE)) [[unlikely]]
        reportTrailer(pool, chnk);

    FreeLinks *l = linksOf(chnk);
    wr(l->prev, CHNKLNKSNULL);
    if (head < tot) {
        wr(l->next, head);
        wr(linksOf(chnkAt(page, head, slot))->prev, idx);
    } else {
        wr(l->next, CHNKLNKSNULL);
    }
    wr(page->headFreeChnk, idx);
    wr(chnk->chnkInfo, chnkInfo(idx, chnkSz, kKindFree));
    wr(chnk->chnkMarker, Unused_Magic_front);
    wr(pool->chnksInUse, inUse - 1);
    wr(page->freeChnks, static_cast<uint16_t>(nFree));
    *bytes = chnkSz;
    if (nFree == 1) freeListAppend(pool, num, page);
    // A wholly free page goes back to the heap unless it is the pool's only page with room:
    // keeping one spare stops a pool at a page boundary from taking and dropping a page on
    // every call.
    if (nFree == tot && pool->numFreePages.get() > 1) {
        if (memDebugOn()) memDebug("Delete Page, Page %x\r\n", lo32(page));
        deletePage(pool, num, page);
    }
    return BadAddr::None;
}

inline STATUS blockFree(const char *fn, const char *file, int line, void *addr, int wantPart) {
    ChnkHdr *chnk = nullptr;
    PageHdr *page = nullptr;
    BadAddr why = locateChnk(addr, &chnk, &page);
    Partition *part = nullptr;
    if (why == BadAddr::None) {
        part = partGet(static_cast<int>(page->pool.get() >> 16));
        if (part == nullptr)
            why = BadAddr::NotFreed;
        else if (wantPart >= 0 && part != partGet(wantPart))
            why = BadAddr::WrongPart;
    }
    if (why != BadAddr::None) {
        reportBadFree(fn, why, addr, file, line);
        return ERROR;
    }
    uint32_t bytes = 0;
    why = withPart(part, [&]() { return freeInPage(part, chnk, page, &bytes); });
    if (why != BadAddr::None) {
        reportBadFree(fn, why, addr, file, line);
        return ERROR;
    }
    updateMemStats(false, bytes);
    return OK;
}

} // namespace

} // namespace kt4::mem

using namespace kt4::mem;

extern "C" {

uint32_t calcPageSize(uint32_t chnkSz) {
    if (chnkSz <= kSmallChnkMax) return PAGESIZE + 2;
    uint32_t sz = chnkSz / PAGESIZE * PAGESIZE;
    if (chnkSz % PAGESIZE != 0) sz += PAGESIZE;
    return (sz + 3u) & ~3u;
}

int kt4_memPartFixedInit(int partId, int numPools) {
    if (!partIdOk(partId, kPartIdGiven)) return -1;
    if (numPools < 1 || numPools > MAX_FIXED_POOLS) {
        memError("%s: kt4_memPartFixedInit: Part Id: %d, bad number of pools %d", kModName, partId,
                 numPools);
        return -1;
    }
    Partition *curModPart = partCreate(partId);
    if (curModPart == nullptr) return -1;
    auto **list = static_cast<Pool **>(std::calloc(static_cast<size_t>(numPools), sizeof(Pool *)));
    int rc = withPart(curModPart, [&]() {
        if (!(curModPart->curNumPools.get() == 0) || curModPart->poolList != nullptr) {
            _kt4Assert("curModPart->curNumPools == 0", kSrcTag, __LINE__);
            return -1;
        }
        curModPart->poolList = list;
        if (!(curModPart->poolList != NULL)) {
            _kt4Assert("curModPart->poolList != NULL", kSrcTag, __LINE__);
            return -1;
        }
        wr(curModPart->totPools, static_cast<uint32_t>(numPools));
        list = nullptr;
        return 0;
    });
    std::free(list); // not taken: the table already existed or the allocation failed
    return rc;
}

int kt4_memPartVarInit(int partId, const char *name, const uint32_t *sizes, int numSizes) {
    if (!partIdOk(partId, kPartIdGiven)) return -1;
    const int maxPools = numSizes;
    if (!(maxPools >= MIN_VAR_POOLS)) {
        _kt4Assert("maxPools >= MIN_VAR_POOLS", kSrcTag, __LINE__);
        return -1;
    }
    if (!(maxPools <= MAX_VAR_POOLS)) {
        _kt4Assert("maxPools <= MAX_VAR_POOLS", kSrcTag, __LINE__);
        return -1;
    }
    if (sizes == nullptr) return -1;
    for (int cnt = 0; cnt < numSizes; ++cnt) {
        if (!(sizes[cnt] < MAXCHNKSIZE)) {
            _kt4Assert("sizes[cnt] < MAXCHNKSIZE", kSrcTag, __LINE__);
            return -1;
        }
        if (sizes[cnt] < kMinChnkSize) {
            memError("%s: kt4_memPartVarInit: Part Id: %d, size %u below %u", kModName, partId,
                     sizes[cnt], kMinChnkSize);
            return -1;
        }
    }
    Partition *part = partCreate(partId);
    if (part == nullptr) return -1;
    if (checkUsage(static_cast<uint32_t>(sizeof(Pool)) * static_cast<uint32_t>(numSizes),
                   "malloc") != 0)
        return -1;
    Pool *fresh[MAX_VAR_POOLS] = {};
    for (int i = 0; i < numSizes; ++i) {
        fresh[i] = static_cast<Pool *>(std::calloc(1, sizeof(Pool)));
        if (fresh[i] == nullptr) {
            for (int j = 0; j < i; ++j)
                std::free(fresh[j]);
            return -1;
        }
    }
    int rc = withPart(part, [&]() {
        // Sizes the partition does not have yet, each once.
        uint32_t add[MAX_VAR_POOLS];
        int nAdd = 0;
        for (int i = 0; i < numSizes; ++i) {
            bool dup = false;
            for (uint32_t j = 0, n = part->totVarPools; j < n && !dup; ++j)
                dup = part->varPools[j]->chnkSz.get() == sizes[i];
            for (int j = 0; j < nAdd && !dup; ++j)
                dup = add[j] == sizes[i];
            if (!dup) add[nAdd++] = sizes[i];
        }
        const uint32_t totVarPools = part->totVarPools.get() + static_cast<uint32_t>(nAdd);
        if (!(totVarPools <= MAX_VAR_POOLS)) {
            _kt4Assert("totVarPools <= MAX_VAR_POOLS", kSrcTag, __LINE__);
            return -1;
        }
        if (name != nullptr && *name != '\0') {
            copyName(part->name, sizeof part->name, name);
        }
        for (int i = 0; i < nAdd; ++i) {
            const uint32_t idx = part->totVarPools;
            Pool *pool = fresh[i];
            fresh[i] = nullptr;
            std::memset(pool, 0, sizeof *pool);
            std::snprintf(pool->name, sizeof pool->name, "%.20s_%u", part->name, add[i]);
            wr(pool->maxSize, KT4_MEM_NO_LIMIT);
            wr(pool->chnkSz, add[i]);
            wr(pool->partId, part->partId.get());
            wr(pool->poolId, (part->partId.get() << 16) | kVarPoolFlag | idx);
            pool->part = part;
            pool->dirHint = 1;
            part->varPools[idx] = pool;
            wr(part->totVarPools, idx + 1);
        }
        rebuildVarTables(part);
        return 0;
    });
    for (Pool *p : fresh)
        std::free(p); // headers not needed (duplicates, or refused)
    return rc;
}

int kt4_memPartSetLocking(int partId, BOOL locked) {
    Partition *part = partGet(partId);
    if (part == nullptr) return -1;
    wr(part->locked, locked ? 1u : 0u);
    return 0;
}

int M_memPoolCreate(const char *name, int poolId, uint32_t chnkSz) {
    if (chnkSz < kMinChnkSize) {
        memSysErr("Pool Creation chnkSz: %u below %u", chnkSz, kMinChnkSize);
        return -1;
    }
    const unsigned realPartId = static_cast<unsigned>(poolId) >> 16;
    const unsigned realPoolId = static_cast<unsigned>(poolId) & 0xFFFFu;
    if (!(realPartId < static_cast<unsigned>(MaxPartId))) {
        _kt4Assert("realPartId < MaxPartId", kSrcTag, __LINE__);
        return -1;
    }
    if (!(chnkSz < MAXCHNKSIZE)) {
        _kt4Assert("chnkSz < MAXCHNKSIZE", kSrcTag, __LINE__);
        return -1;
    }
    if (memDebugOn())
        memDebug("BlockCreate: Part Id: %d, Pool Id: %d, chnkSz: %u\r\n",
                 static_cast<int>(realPartId), static_cast<int>(realPoolId), chnkSz);
    Partition *curModPart = partGet(static_cast<int>(realPartId));
    if (curModPart == nullptr) {
        memError("%s: %s: Part Id: %u does not exist", kModName, "kt4_sysMemBlockCreate",
                 realPartId);
        return -1;
    }
    if (checkUsage(static_cast<uint32_t>(sizeof(Pool)), "malloc") != 0) return -1;
    Pool *pool = poolNew(curModPart, name, static_cast<uint32_t>(poolId), chnkSz);
    if (pool == nullptr) return -1;
    enum { Created, NoTable, BadIndex, Occupied };
    int rc = withPart(curModPart, [&]() {
        if (curModPart->poolList == nullptr) return NoTable;
        if (!(realPoolId < curModPart->totPools.get())) return BadIndex;
        if (curModPart->poolList[realPoolId] != nullptr) return Occupied;
        curModPart->poolList[realPoolId] = pool;
        wr(curModPart->curNumPools, curModPart->curNumPools.get() + 1);
        return Created;
    });
    if (rc == Created) return 0;
    std::free(pool);
    if (rc == BadIndex)
        _kt4Assert("realPoolId < (*curModPart)->totPools", kSrcTag, __LINE__);
    else
        memError("%s: %s: Part Id: %u, Pool Id: %u %s", kModName, "kt4_sysMemBlockCreate",
                 realPartId, realPoolId, rc == Occupied ? "already exists" : "has no pool table");
    return -1;
}

void *M_memBlockAlloc(const char *file, int line, uint32_t size, int poolId) {
    Partition *part;
    if (poolId == -1) {
        part = ownPartition();
    } else {
        const unsigned realPartId = static_cast<unsigned>(poolId) >> 16;
        if (!partIdOk(static_cast<int>(realPartId))) return nullptr;
        part = partGet(static_cast<int>(realPartId));
    }
    uint32_t chnkSz = 0;
    bool tooSmall = false;
    void *p = nullptr;
    if (part != nullptr) {
        p = withPart(part, [&]() -> void * {
            Pool *curPool = poolId == -1
                                ? bestFitPool(part, size)
                                : poolInPart(part, static_cast<unsigned>(poolId) & 0xFFFFu);
            if (curPool == nullptr) return nullptr;
            if (!(size <= (curPool->chnkSz))) {
                tooSmall = true;
                return nullptr;
            }
            chnkSz = curPool->chnkSz;
            return allocChnkFromPage(curPool, kKindFixed);
        });
    }
    if (p == nullptr) {
        if (tooSmall) _kt4Assert("size <= (curPool->chnkSz)", kSrcTag, __LINE__);
        memError("%s: kt4_memBlockAlloc: no block of %u bytes from pool 0x%x (%s:%d)", kModName,
                 size, static_cast<unsigned>(poolId), file ? file : "?", line);
        return nullptr;
    }
    updateMemStats(true, chnkSz);
    return p;
}

STATUS M_memBlockFree(const char *file, int line, void *addr) {
    return blockFree("kt4_memBlockFree", file, line, addr, -1);
}

void *M_memBlockVarAlloc(const char *file, int line, uint32_t size, int partId) {
    if (!partIdOk(partId, kPartIdGiven)) return nullptr;
    Partition *part = partGet(partId);
    if (part == nullptr) {
        memError("%s: kt4_memBlockVarAlloc: Part Id: %d does not exist (%s:%d)", kModName, partId,
                 file ? file : "?", line);
        return nullptr;
    }
    uint32_t chnkSz = 0;
    void *p = withPart(part, [&]() -> void * {
        Pool *pool = findPoolForVarSize(part, size);
        if (pool == nullptr) return nullptr;
        chnkSz = pool->chnkSz;
        void *r = allocChnkFromPage(pool, kKindVar);
        if (r != nullptr && memDebugOn())
            memDebug("Var Alloc: PartId: %d, PoolId: %d, Size: %u, Chnks: %d, Pages: %d\r\n",
                     partId, static_cast<int>(pool->poolId.get() & ~kVarPoolFlag & 0xFFFFu), size,
                     static_cast<int>(pool->chnksInUse.get()),
                     static_cast<int>(pool->numPages.get()));
        return r;
    });
    if (p == nullptr) {
        memError("%s: kt4_memBlockVarAlloc: no block of %u bytes in Part Id: %d (%s:%d)", kModName,
                 size, partId, file ? file : "?", line);
        return nullptr;
    }
    updateMemStats(true, chnkSz);
    return p;
}

STATUS M_memBlockVarFree(const char *file, int line, void *addr, int partId) {
    if (!partIdOk(partId, kPartIdGiven)) return ERROR;
    return blockFree("kt4_memBlockVarFree", file, line, addr, partId);
}

int M_memBlockPoolId(const void *addr) {
    ChnkHdr *chnk = nullptr;
    PageHdr *page = nullptr;
    if (locateChnk(const_cast<void *>(addr), &chnk, &page) != BadAddr::None) return -1;
    Partition *part = partGet(static_cast<int>(page->pool.get() >> 16));
    if (part == nullptr) return -1;
    return withPart(part, [&]() {
        BadAddr why;
        Pool *pool = chnkPool(part, chnk, page, true, &why);
        return pool == nullptr ? -1 : static_cast<int>(pool->poolId.get());
    });
}

STATUS M_memPoolFree(int poolId) {
    if (static_cast<unsigned>(poolId) & kVarPoolFlag) {
        memError("%s: M_memPoolFree: pool 0x%x is a var pool (kt4_memPartVarDelete drops those)",
                 kModName, static_cast<unsigned>(poolId));
        return ERROR;
    }
    return onPool("M_memPoolFree", poolId, [](Partition *part, Pool *pool) {
        part->poolList[pool->poolId.get() & 0xFFFFu] = nullptr;
        wr(part->curNumPools, part->curNumPools.get() - 1);
        poolDestroy(pool);
        return OK;
    });
}

STATUS M_memPoolFlush(int poolId) {
    return onPool("M_memPoolFlush", poolId, [](Partition *, Pool *pool) {
        flushPool(pool);
        return OK;
    });
}

STATUS M_memPoolSetSize(int poolId, uint32_t maxSize) {
    return onPool("M_memPoolSetSize", poolId, [maxSize](Partition *, Pool *pool) {
        wr(pool->maxSize, maxSize);
        return OK;
    });
}

STATUS M_memPoolSetNoGrowth(int poolId, BOOL noGrowth) {
    return onPool("M_memPoolSetNoGrowth", poolId, [noGrowth](Partition *, Pool *pool) {
        wr(pool->noGrowth, noGrowth ? 1u : 0u);
        return OK;
    });
}

STATUS M_memPoolInfoGet(int poolId, M_MEM_POOL_INFO *info) {
    if (info == nullptr) return ERROR;
    return onPool("M_memPoolInfoGet", poolId, [info](Partition *, Pool *pool) {
        std::memset(info, 0, sizeof *info);
        std::memcpy(info->name, pool->name, sizeof info->name);
        info->chnkSz = pool->chnkSz;
        info->pageSize = calcPageSize(pool->chnkSz);
        info->chnksPerPage = chnksPerPage(pool->chnkSz);
        info->numPages = pool->numPages;
        info->numFreePages = pool->numFreePages;
        info->chnksInUse = pool->chnksInUse;
        info->maxChnksInUse = pool->maxChnksInUse;
        info->maxSize = pool->maxSize;
        info->noGrowth = pool->noGrowth;
        return OK;
    });
}

STATUS M_memPartVarFlush(int partId) {
    if (!partIdOk(partId, kPartIdGiven)) return ERROR;
    Partition *part = partGet(partId);
    if (part == nullptr) return ERROR;
    withPart(part, [&]() {
        for (uint32_t i = 0, n = part->totVarPools; i < n; ++i)
            flushPool(part->varPools[i]);
    });
    return OK;
}

STATUS kt4_memPartVarDelete(int partId) {
    if (!partIdOk(partId, kPartIdGiven)) return ERROR;
    Partition *part = partGet(partId);
    if (part == nullptr) return ERROR;
    bool dropPart = false;
    withPart(part, [&]() {
        for (uint32_t i = 0, n = part->totVarPools; i < n; ++i) {
            poolDestroy(part->varPools[i]);
            part->varPools[i] = nullptr;
        }
        wr(part->totVarPools, 0);
        rebuildVarTables(part);
        dropPart = part->poolList == nullptr;
    });
    return dropPart ? kt4_memPartDelete(partId) : OK;
}

STATUS kt4_memPartDelete(int partId) {
    if (!partIdOk(partId, kPartIdGiven)) return ERROR;
    Partition *part = partDetach(partId);
    if (part == nullptr) return ERROR;
    partFree(part);
    return OK;
}

STATUS M_sysForceMemBlockFree(int partId) {
    if (!partIdOk(partId, kPartIdGiven)) return ERROR;
    Partition *part = partGet(partId);
    if (part == nullptr) return ERROR;
    char name[sizeof part->name];
    withPart(part, [&]() {
        std::memcpy(name, part->name, sizeof name);
        if (part->poolList != nullptr) {
            for (uint32_t i = 0, n = part->totPools; i < n; ++i) {
                if (part->poolList[i] != nullptr) poolDestroy(part->poolList[i]);
                part->poolList[i] = nullptr;
            }
        }
        wr(part->curNumPools, 0);
        for (uint32_t i = 0, n = part->totVarPools; i < n; ++i)
            releaseAllPages(part->varPools[i]);
    });
    memTrace("sysForceMemBlockFree: All Pools Of %s are                    cleaned Up \r\n", name);
    return OK;
}

} // extern "C"
