// Partitions, fixed and var pools, pages and chunks: the system's block allocator.
//
// A page is one heap block: a 28-byte header, then the chunk slots, then a final marker word.
// Each slot is an 8-byte chunk header and the user area; a free chunk's user area holds its
// neighbours on the page's free list. Pages of a pool are doubly linked twice: all pages, and
// the pages that still hold a free chunk (allocation always takes from the first of those).
//
// Links between pages are page numbers into the pool's page directory rather than addresses,
// so that the page header keeps its 28 bytes (and the page arithmetic its figures) with 64-bit
// pointers. Every live page is also entered in the page registry (pageregistry.cpp): a free
// only trusts the page that a chunk header points at once the registry knows it, so a foreign
// or corrupted address is refused without reading anything outside our pages.
//
// Pages and pool headers come from malloc, not from the checked allocator: this file is what
// the checked allocator's pool entry points sit on, and its pages are its own accounting.
#include "mem/mem_int.h"
#include "mem/mem_report.h"

#include "common/kt4_check.h"

#include <kt4/log.h>

#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <type_traits>

namespace kt4::mem {

namespace {

constexpr int MaxPartId = MAX_PART_ID;

// The partition table, indexed by partition id. Slots are read without a lock (allocation and
// free look their partition up on every call); creation and deletion take partTableLock.
std::atomic<Partition *> sysPartitions[MAX_PART_ID];
pthread_mutex_t partTableLock = PTHREAD_MUTEX_INITIALIZER;
// Partition that the pool id -1 found last (the caller's own); -1 = look again.
std::atomic<int> ownPartHint{-1};

inline uint32_t lo32(const void *p) {
    return static_cast<uint32_t>(reinterpret_cast<uintptr_t>(p));
}

// ---- The partition mutex ------------------------------------------------------------------

int M_Lock(pthread_mutex_t &sem, int timeout) {
    (void)timeout; // the partition mutex is only ever taken with WAIT_FOREVER
    return pthread_mutex_lock(&sem);
}

// The partition a task is working in, and whether it took the partition's mutex for it.
struct PartHold {
    Partition *part;
    bool held;
};

void partUnlockCleanup(void *arg) {
    auto *h = static_cast<PartHold *>(arg);
    if (h->held) KT4_VERIFY(!pthread_mutex_unlock(&h->part->modPartFixedSem));
}

// Runs f with the partition's mutex held when the partition is locked. The mutex is released
// by a cancellation clean-up handler, so a task cancelled inside f (a report writing to a
// blocked console, a usage hook) never leaves the partition held. f is called from one place
// so that it is inlined into the allocation and free paths.
template <typename F> auto withPart(Partition *part, F &&f) -> decltype(f()) {
    using R = decltype(f());
    PartHold hold{part, false};
    if (part->locked.get() != 0) {
        if (M_Lock(part->modPartFixedSem, WAIT_FOREVER) == 0)
            hold.held = true;
        else
            _kt4Assert("!M_Lock((*curModPart)->modPartFixedSem, WAIT_FOREVER)", kSrcTag, __LINE__);
    }
    if constexpr (std::is_void_v<R>) {
        pthread_cleanup_push(partUnlockCleanup, &hold);
        f();
        pthread_cleanup_pop(1);
    } else {
        R r{};
        pthread_cleanup_push(partUnlockCleanup, &hold);
        r = f();
        pthread_cleanup_pop(1);
        return r;
    }
}

// ---- Page directory -----------------------------------------------------------------------

inline PageHdr *pageOf(const Pool *pool, uint32_t num) {
    return (num != 0 && num < pool->dirCap) ? pool->pageDir[num] : nullptr;
}

// Enters a page in the pool's directory; its number, or 0 when the directory cannot grow.
uint32_t dirAdd(Pool *pool, PageHdr *page) {
    for (uint32_t n = pool->dirHint; n < pool->dirCap; ++n) {
        if (pool->pageDir[n] == nullptr) {
            pool->pageDir[n] = page;
            pool->dirHint = n + 1;
            return n;
        }
    }
    // Page counts are 16-bit: 65535 pages, numbers 1..65535.
    uint32_t cap = pool->dirCap == 0 ? 16 : pool->dirCap * 2;
    if (cap > 65536) cap = 65536;
    if (cap <= pool->dirCap) return 0;
    auto **dir = static_cast<PageHdr **>(std::calloc(cap, sizeof(PageHdr *)));
    if (dir == nullptr) return 0;
    if (pool->pageDir != nullptr) {
        std::memcpy(dir, pool->pageDir, pool->dirCap * sizeof(PageHdr *));
        std::free(pool->pageDir);
    }
    uint32_t n = pool->dirCap == 0 ? 1 : pool->dirCap;
    pool->pageDir = dir;
    pool->dirCap = cap;
    pool->pageDir[n] = page;
    pool->dirHint = n + 1;
    return n;
}

void dirRemove(Pool *pool, uint32_t num) {
    pool->pageDir[num] = nullptr;
    if (num < pool->dirHint) pool->dirHint = num;
}

// The number of a page of the pool, found from its neighbour's link; 0 when the page header
// does not agree with the pool (a corrupted header, or not a page of this pool).
inline uint32_t pageNumber(const Pool *pool, const PageHdr *page) {
    uint32_t prev = page->prevPage;
    uint32_t num;
    if (prev == 0) {
        num = pool->headPage;
    } else {
        const PageHdr *p = pageOf(pool, prev);
        if (p == nullptr) return 0;
        num = p->nextPage;
    }
    return pageOf(pool, num) == page ? num : 0;
}

inline ChnkHdr *chnkAt(PageHdr *page, uint32_t idx, uint32_t slot) {
    return reinterpret_cast<ChnkHdr *>(reinterpret_cast<char *>(page) + kPageHdrSize + idx * slot);
}
inline FreeLinks *linksOf(ChnkHdr *c) {
    return reinterpret_cast<FreeLinks *>(c + 1);
}

// ---- Page lists ---------------------------------------------------------------------------

inline void freeListAppend(Pool *pool, uint32_t num, PageHdr *page) {
    uint32_t last = pool->lastFreePage;
    wr(page->nextFreePage, 0);
    wr(page->prevFreePage, last);
    if (PageHdr *l = pageOf(pool, last))
        wr(l->nextFreePage, num);
    else
        wr(pool->firstFreePage, num);
    wr(pool->lastFreePage, num);
    wr(pool->numFreePages, pool->numFreePages.get() + 1);
}

inline void freeListRemove(Pool *pool, PageHdr *page) {
    uint32_t prev = page->prevFreePage, next = page->nextFreePage;
    if (PageHdr *p = pageOf(pool, prev))
        wr(p->nextFreePage, next);
    else
        wr(pool->firstFreePage, next);
    if (PageHdr *n = pageOf(pool, next))
        wr(n->prevFreePage, prev);
    else
        wr(pool->lastFreePage, prev);
    wr(page->nextFreePage, 0);
    wr(page->prevFreePage, 0);
    wr(pool->numFreePages, pool->numFreePages.get() - 1);
}

// Page memory. The layout puts the first user area 36 bytes into the page (28-byte header,
// 8-byte chunk header); the page starts 12 bytes into its heap block so that this first user
// area is 16-byte aligned, and with chunk sizes that are multiples of 8 every block is at least
// 8-byte aligned, as callers storing pointers and 64-bit counters expect.
constexpr size_t kPageAlignPad = 12;
static_assert((kPageAlignPad + kPageHdrSize + kChnkHdrSize) % 16 == 0);

PageHdr *pageMemAlloc(uint32_t memSz) {
    auto *raw = static_cast<char *>(std::malloc(memSz + kPageAlignPad));
    return raw == nullptr ? nullptr : reinterpret_cast<PageHdr *>(raw + kPageAlignPad);
}

void pageMemFree(PageHdr *page) {
    std::free(reinterpret_cast<char *>(page) - kPageAlignPad);
}

// Adds a page to the pool. 0, or -1 when the pool may not or cannot grow.
int insertPage(Pool *pool, uint32_t chnkSz) {
    if (pool->noGrowth.get() != 0) return -1;
    if (pool->maxSize.get() != KT4_MEM_NO_LIMIT &&
        (static_cast<uint64_t>(pool->numPages.get()) + 1) * PAGESIZE > pool->maxSize.get())
        return -1;
    if (pool->numPages.get() == 0xFFFF) return -1;
    const uint32_t slot = slotSize(chnkSz);
    const uint32_t nChnks = chnksPerPage(chnkSz);
    if (nChnks == 0) {
        // Chunk sizes just below a multiple of the page unit leave no room for one slot.
        memError("%s: pool %s: chunk size %u leaves no room for a chunk in a %u-byte page",
                 kModName, pool->name, chnkSz, pageMemSize(chnkSz));
        return -1;
    }
    const uint32_t memSz = pageMemSize(chnkSz);
    if (checkUsage(memSz, "ALLOC") != 0) return -1;
    PageHdr *page = pageMemAlloc(memSz);
    if (page == nullptr) return -1;

    for (uint32_t i = 0; i < nChnks; ++i) {
        ChnkHdr *c = chnkAt(page, i, slot);
        wr(c->chnkMarker, Unused_Magic_front);
        wr(c->chnkInfo, chnkInfo(i, chnkSz, kKindFree));
        FreeLinks *l = linksOf(c);
        wr(l->prev, i == 0 ? CHNKLNKSNULL : i - 1);
        wr(l->next, i + 1 == nChnks ? CHNKLNKSNULL : i + 1);
    }
    store_be32(reinterpret_cast<char *>(page) + kPageHdrSize + nChnks * slot, Unused_Magic_front);
    wr(page->headFreeChnk, 0);
    wr(page->totChnks, static_cast<uint16_t>(nChnks));
    wr(page->freeChnks, static_cast<uint16_t>(nChnks));
    wr(page->pool, pool->poolId.get());

    uint32_t num = dirAdd(pool, page);
    if (num == 0) {
        pageMemFree(page);
        return -1;
    }
    if (!pageRegister(page, memSz)) {
        dirRemove(pool, num);
        pageMemFree(page);
        return -1;
    }
    gateAccount(memSz);

    // At the head of all pages, at the tail of the pages with free chunks.
    wr(page->prevPage, 0);
    wr(page->nextPage, pool->headPage.get());
    if (PageHdr *h = pageOf(pool, pool->headPage))
        wr(h->prevPage, num);
    else
        wr(pool->tailPage, num);
    wr(pool->headPage, num);
    if (pool->numPages.get() == 0) wr(pool->pageSize, calcPageSize(chnkSz));
    freeListAppend(pool, num, page);
    wr(pool->numPages, pool->numPages.get() + 1);
    return 0;
}

void deletePage(Pool *pool, uint32_t num, PageHdr *page) {
    uint32_t prev = page->prevPage, next = page->nextPage;
    if (PageHdr *p = pageOf(pool, prev))
        wr(p->nextPage, next);
    else
        wr(pool->headPage, next);
    if (PageHdr *n = pageOf(pool, next))
        wr(n->prevPage, prev);
    else
        wr(pool->tailPage, prev);
    if (page->freeChnks.get() != 0) freeListRemove(pool, page);
    dirRemove(pool, num);
    pageUnregister(page);
    wr(pool->numPages, pool->numPages.get() - 1);
    gateAccount(-static_cast<int64_t>(pageMemSize(pool->chnkSz)));
    pageMemFree(page);
}

// Releases every page of the pool (allocated chunks included).
void releaseAllPages(Pool *pool) {
    const int64_t memSz = pageMemSize(pool->chnkSz);
    for (uint32_t n = 1; n < pool->dirCap; ++n) {
        if (PageHdr *page = pool->pageDir[n]) {
            pageUnregister(page);
            gateAccount(-memSz);
            pageMemFree(page);
        }
    }
    std::free(pool->pageDir);
    pool->pageDir = nullptr;
    pool->dirCap = 0;
    pool->dirHint = 1;
    wr(pool->headPage, 0);
    wr(pool->tailPage, 0);
    wr(pool->firstFreePage, 0);
    wr(pool->lastFreePage, 0);
    wr(pool->numFreePages, 0);
    wr(pool->numPages, 0);
    wr(pool->chnksInUse, 0);
}

// Releases the pages of the pool that hold no allocated chunk.
void flushPool(Pool *pool) {
    for (uint32_t n = 1; n < pool->dirCap; ++n) {
        PageHdr *page = pool->pageDir[n];
        if (page != nullptr && page->freeChnks.get() == page->totChnks.get())
            deletePage(pool, n, page);
    }
}

// Takes a page out of allocation after its free list was found corrupted: its remaining free
// chunks are abandoned (the page looks full) rather than handed out twice.
void quarantinePage(Pool *pool, PageHdr *page) {
    freeListRemove(pool, page);
    wr(page->freeChnks, 0);
    wr(page->headFreeChnk, CHNKLNKSNULL);
}

// The page a chunk's header says it lives in: chunk address - index x slot size - 28.
inline uintptr_t actualPage(const ChnkHdr *chnkHdr, uint32_t info) {
    return reinterpret_cast<uintptr_t>(chnkHdr) -
           static_cast<uintptr_t>(chnkIndex(info)) * slotSize(chnkLength(info)) - kPageHdrSize;
}

// The reporting half of verifyChnk, kept out of the allocation path.
[[gnu::cold, gnu::noinline]] int verifyChnkFailed(int mode, PageHdr *curPage, ChnkHdr *chnkHdr,
                                                  Pool *curPool) {
    const uint32_t marker = chnkHdr->chnkMarker;
    const uint32_t info = chnkHdr->chnkInfo;
    const uint32_t chnkLen = chnkLength(info);
    if (!((marker != 0) && (chnkLen != 0))) {
        _kt4Assert("(chnkHdr->chnkMarker != 0 ) && (chnkLen != 0)", kSrcTag, __LINE__);
        return ERROR;
    }
    if (mode == kVerifyAlloc) {
        const uintptr_t actPage = actualPage(chnkHdr, info);
        memError("Allocation: curPage: %x, actPage: %x, chnkHdr: %x\r\n", lo32(curPage),
                 static_cast<uint32_t>(actPage), lo32(chnkHdr));
        if (marker != Unused_Magic_front)
            _kt4Assert("(chnkHdr->chnkMarker) == Unused_Magic_front", kSrcTag, __LINE__);
        else
            _kt4Assert("curPage == actPage", kSrcTag, __LINE__);
        return ERROR;
    }
    memError("Free: curPage: %x, chnkHdr: %x\r\n", lo32(curPage), lo32(chnkHdr));
    if (curPool == nullptr || curPool->chnkSz.get() != chnkLen)
        _kt4Assert("(curPool->chnkSz) == chnkLen", kSrcTag, __LINE__);
    return ERROR;
}

// Checks a chunk header against the page (allocation: a free chunk whose index leads back to
// this page) or against the pool (free: the pool's chunk length).
inline bool verifyChnkOk(int mode, PageHdr *curPage, ChnkHdr *chnkHdr, Pool *curPool) {
    const uint32_t marker = chnkHdr->chnkMarker;
    const uint32_t info = chnkHdr->chnkInfo;
    const uint32_t chnkLen = chnkLength(info);
    bool ok = marker != 0 && chnkLen != 0;
    if (mode == kVerifyAlloc)
        // The page the chunk's index names is only compared, never read.
        return ok && marker == Unused_Magic_front &&
               reinterpret_cast<uintptr_t>(curPage) == actualPage(chnkHdr, info);
    return ok && curPool != nullptr && curPool->chnkSz.get() == chnkLen;
}

// verifyChnk: OK, or ERROR reported.
inline int verifyChnkIn(int mode, PageHdr *curPage, ChnkHdr *chnkHdr, Pool *curPool) {
    return verifyChnkOk(mode, curPage, chnkHdr, curPool)
               ? OK
               : verifyChnkFailed(mode, curPage, chnkHdr, curPool);
}

// Hands out chunk head of curPage, already verified, whose successor on the page's free list
// is next.
inline void *takeChnk(Pool *pool, PageHdr *curPage, ChnkHdr *chnk, uint32_t head, uint32_t next,
                      uint32_t slot, uint32_t kind) {
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

// ---- Pool look-up -------------------------------------------------------------------------

inline Pool *poolInPart(Partition *part, uint32_t index) {
    if (index & kVarPoolFlag) {
        uint32_t v = index & ~kVarPoolFlag;
        return v < part->totVarPools.get() ? part->varPools[v] : nullptr;
    }
    if (part->poolList == nullptr || index >= part->totPools.get()) return nullptr;
    return part->poolList[index];
}

Pool *poolById(uint32_t poolId) {
    Partition *part = partGet(static_cast<int>(poolId >> 16));
    return part == nullptr ? nullptr : poolInPart(part, poolId & 0xFFFFu);
}

// The smallest fixed pool whose chunks hold size bytes (the first one on a tie).
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

// ---- Partitions ---------------------------------------------------------------------------

// The pool-id paths check against the table size, the partition-id calls against the
// compile-time limit: each reports its own expression.
constexpr const char *kPartIdOfPool = "realPartId < MaxPartId";
constexpr const char *kPartIdGiven = "realPartId < MAX_PART_ID";

bool partIdOk(int partId, const char *expr = kPartIdOfPool) {
    if (!(static_cast<unsigned>(partId) < static_cast<unsigned>(MaxPartId))) {
        _kt4Assert(expr, kSrcTag, __LINE__);
        return false;
    }
    return true;
}

// The partition, created when it does not exist yet.
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

// Rebuilds the var-size look-up of a partition from its var pools.
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

Pool *findPoolForVarSize(Partition *part, uint32_t size) {
    int poolIdx = -1;
    if (size < 1) {
        poolIdx = -1;
    } else if (size < static_cast<uint32_t>(kVarTableSizes)) {
        uint8_t b = part->varByteTable[size];
        poolIdx = b == kNoPool ? -1 : b;
    } else {
        for (uint32_t i = part->firstLargePool, n = part->totVarPools; i < n; ++i) {
            if (part->varSizes[i].get() >= size) {
                poolIdx = part->varOrder[i];
                break;
            }
        }
    }
    if (memDebugOn())
        memDebug("findPool: size: %d, poolId is %d\r\n", static_cast<int>(size), poolIdx);
    return poolIdx < 0 ? nullptr : part->varPools[poolIdx];
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

// ---- Checking an address handed back ------------------------------------------------------

enum class BadAddr { None, Null, NotAllocated, NotFreed, WrongPart };

// What can be checked before the partition is known: the header and that the page it points
// at is a live page. The 8 bytes in front of addr are read only once the registry has said that
// they lie in a live page, after the page header, so a block of a pool that has been freed, or
// one from malloc, is refused without touching its memory.
inline BadAddr locateChnk(void *addr, ChnkHdr **chnkOut, PageHdr **pageOut) {
    if (addr == nullptr) return BadAddr::Null;
    ChnkHdr *chnk = static_cast<ChnkHdr *>(addr) - 1;
    const auto *holder = static_cast<const char *>(pageHolding(chnk, sizeof(ChnkHdr)));
    if (holder == nullptr || reinterpret_cast<const char *>(chnk) < holder + kPageHdrSize)
        return BadAddr::NotFreed;
    const uint32_t marker = chnk->chnkMarker;
    if (marker == Unused_Magic_front) return BadAddr::NotAllocated;
    if (marker != Used_Magic_front) return BadAddr::NotFreed;
    const uint32_t info = chnk->chnkInfo;
    const uint32_t chnkLen = chnkLength(info), chnkIndx = chnkIndex(info);
    if (!(chnkLen < MAXCHNKSIZE)) _kt4Assert("chnkLen < MAXCHNKSIZE", kSrcTag, __LINE__);
    if (!(chnkIndx <= PAGESIZE)) _kt4Assert("chnkIndx <= PAGESIZE", kSrcTag, __LINE__);
    // No page of this chunk length has such a slot: do not even compute an address from it.
    // (The slot must end within the page: (index + 1) x slot <= raw page - 32; no division.)
    const uint32_t slot = slotSize(chnkLen);
    if (chnkLen < kMinChnkSize || (chnkIndx + 1) * slot > pageRawSize(chnkLen) - kPageOverhead)
        return BadAddr::NotFreed;
    auto *page = reinterpret_cast<PageHdr *>(reinterpret_cast<char *>(chnk) - chnkIndx * slot -
                                             kPageHdrSize);
    if (reinterpret_cast<const char *>(page) != holder) return BadAddr::NotFreed;
    *chnkOut = chnk;
    *pageOut = page;
    return BadAddr::None;
}

// The rest, under the partition's mutex: the page belongs to a pool of this partition and the
// chunk to the page. The pool, or null with the reason.
inline Pool *confirmChnk(Partition *part, ChnkHdr *chnk, PageHdr *page, BadAddr *why) {
    // A racing free of the same block may have dropped the page meanwhile (only a task of a
    // locked partition can race).
    if (part->locked.get() != 0 && !pageRegistered(page)) {
        *why = BadAddr::NotFreed;
        return nullptr;
    }
    if (chnk->chnkMarker.get() != Used_Magic_front) {
        *why = chnk->chnkMarker.get() == Unused_Magic_front ? BadAddr::NotAllocated
                                                            : BadAddr::NotFreed;
        return nullptr;
    }
    Pool *pool = poolInPart(part, page->pool.get() & 0xFFFFu);
    if (pool == nullptr || pool->part != part || pool->poolId.get() != page->pool.get() ||
        pageNumber(pool, page) == 0) {
        *why = BadAddr::NotFreed;
        return nullptr;
    }
    if (verifyChnkIn(kVerifyFree, page, chnk, pool) != OK ||
        chnkIndex(chnk->chnkInfo) >= page->totChnks.get()) {
        *why = BadAddr::NotFreed;
        return nullptr;
    }
    *why = BadAddr::None;
    return pool;
}

void reportBadFree(const char *fn, BadAddr why, void *addr, const char *file, int line) {
    switch (why) {
    case BadAddr::Null:
        _kt4Assert("addr != NULL", kSrcTag, line);
        memError("%s: %s: null address (%s:%d)", kModName, fn, file ? file : "?", line);
        break;
    case BadAddr::NotAllocated:
        memError("%s: %s: Block Addr Not Allocated, addr %p (%s:%d)", kModName, fn, addr,
                 file ? file : "?", line);
        break;
    case BadAddr::NotFreed:
        memError("%s: %s: Block Addr Not Freed, addr %p (%s:%d)", kModName, fn, addr,
                 file ? file : "?", line);
        break;
    case BadAddr::WrongPart:
        memError("%s: %s: Block Addr Not Freed, addr %p is not of this partition (%s:%d)", kModName,
                 fn, addr, file ? file : "?", line);
        break;
    case BadAddr::None:
        break;
    }
}

[[gnu::cold, gnu::noinline]] void reportTrailer(const Pool *pool, const ChnkHdr *chnk) {
    memSysErr("%s: kt4_memBlockFree: Header/Trailer corrupted after block %p of pool %s", kModName,
              static_cast<const void *>(chnk + 1), pool->name);
    _kt4Assert("isTrailerGood == TRUE", kSrcTag, __LINE__);
}

// Under the partition's mutex: confirms that the page belongs to a pool of this partition and
// the chunk to the page (as confirmChnk), then gives the chunk back to its page. Everything is
// read before anything is written: the records are byte arrays to the compiler, and each store
// would otherwise make it read every field again.
inline BadAddr freeInPage(Partition *part, ChnkHdr *chnk, PageHdr *page, uint32_t *bytes) {
    // A racing free of the same block may have dropped the page meanwhile (only a task of a
    // locked partition can race).
    if (part->locked.get() != 0 && !pageRegistered(page)) return BadAddr::NotFreed;
    const uint32_t marker = chnk->chnkMarker;
    if (marker != Used_Magic_front)
        return marker == Unused_Magic_front ? BadAddr::NotAllocated : BadAddr::NotFreed;
    const uint32_t poolWord = page->pool;
    Pool *pool = poolInPart(part, poolWord & 0xFFFFu);
    if (pool == nullptr || pool->part != part || pool->poolId.get() != poolWord)
        return BadAddr::NotFreed;
    if (verifyChnkIn(kVerifyFree, page, chnk, pool) != OK) return BadAddr::NotFreed;
    const uint32_t chnkSz = pool->chnkSz;
    const uint32_t slot = slotSize(chnkSz);
    const uint32_t idx = chnkIndex(chnk->chnkInfo);
    const uint32_t tot = page->totChnks;
    if (idx >= tot) return BadAddr::NotFreed;
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

// Runs f on the pool named by poolId under its partition's mutex; ERROR when there is none.
template <typename F> STATUS onPool(const char *fn, int poolId, F &&f) {
    const unsigned realPartId = static_cast<unsigned>(poolId) >> 16;
    if (!partIdOk(static_cast<int>(realPartId))) return ERROR;
    Partition *part = partGet(static_cast<int>(realPartId));
    if (part == nullptr) {
        memError("%s: %s: Part Id: %u does not exist", kModName, fn, realPartId);
        return ERROR;
    }
    int rc = withPart(part, [&]() {
        Pool *pool = poolInPart(part, static_cast<unsigned>(poolId) & 0xFFFFu);
        if (pool == nullptr) return ERROR;
        return f(part, pool);
    });
    if (rc == ERROR) memError("%s: %s: no pool 0x%x", kModName, fn, static_cast<unsigned>(poolId));
    return rc;
}

} // namespace

// ---- Shared with the other files of the family ------------------------------------------------

Partition *partGet(int partId) {
    if (static_cast<unsigned>(partId) >= static_cast<unsigned>(MaxPartId)) return nullptr;
    return sysPartitions[partId].load(std::memory_order_acquire);
}

int verifyChnk(int mode, PageHdr *curPage, ChnkHdr *chnkHdr) {
    return verifyChnkIn(mode, curPage, chnkHdr,
                        mode == kVerifyFree ? poolById(curPage->pool) : nullptr);
}

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
        Pool *pool = confirmChnk(part, chnk, page, &why);
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
    Partition *part;
    {
        kt4::MutexGuard g(partTableLock);
        part = sysPartitions[partId].exchange(nullptr, std::memory_order_acq_rel);
        ownPartHint.store(-1, std::memory_order_relaxed);
    }
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

// ---- Diagnostics ----------------------------------------------------------------------------

void memMgrHelp(void) {
    static constexpr const char *kHelp[][2] = {
        {"showMemMgrParts", "List all system partId's"},
        {"showMemMgrPools <partId>", "List the pools of a partId"},
        {"kt4MemFragmentInfo <poolId>", "Pages and free chunks of a pool"},
        {"threadMemInfo", "Allocations and frees per task and thread"},
    };
    for (const auto &h : kHelp)
        std::printf("%-39s: %s\r\n", h[0], h[1]);
    std::fflush(stdout);
}

void showMemMgrParts(void) {
    std::printf("PartId Name                             Owner   Locked FixedPools VarPools\r\n");
    for (int i = 0; i < MaxPartId; ++i) {
        Partition *part = partGet(i);
        if (part == nullptr) continue;
        withPart(part, [&]() {
            std::printf("%6d %-32.32s %7u %6s %5u/%-5u %8u\r\n", i, part->name,
                        part->ownerPid.get(), part->locked.get() ? "yes" : "no",
                        part->curNumPools.get(), part->totPools.get(), part->totVarPools.get());
        });
    }
    std::fflush(stdout);
}

void showMemMgrPools(int partId) {
    Partition *part = partGet(partId);
    if (part == nullptr) {
        std::printf("Part Id %d does not exist\r\n", partId);
        std::fflush(stdout);
        return;
    }
    std::printf(
        "PoolId     Name                           ChnkSize  PageSize Pages  InUse MaxInUse\r\n");
    auto row = [](const Pool *p) {
        std::printf("0x%08x %-30.30s %8u %9u %5u %6u %8u\r\n", p->poolId.get(), p->name,
                    p->chnkSz.get(), calcPageSize(p->chnkSz), p->numPages.get(),
                    p->chnksInUse.get(), p->maxChnksInUse.get());
    };
    withPart(part, [&]() {
        if (part->poolList != nullptr)
            for (uint32_t i = 0, n = part->totPools; i < n; ++i)
                if (part->poolList[i] != nullptr) row(part->poolList[i]);
        for (uint32_t i = 0, n = part->totVarPools; i < n; ++i)
            row(part->varPools[i]);
    });
    std::fflush(stdout);
}

void kt4MemFragmentInfo(int poolId) {
    struct PageFree {
        uint32_t addr;
        int freeChnks;
    };
    PageFree *pages = nullptr;
    uint32_t nPages = 0, chnkSz = 0;
    unsigned long inUse = 0;
    STATUS rc = onPool("kt4MemFragmentInfo", poolId, [&](Partition *, Pool *pool) {
        nPages = pool->numPages;
        chnkSz = pool->chnkSz;
        inUse = pool->chnksInUse;
        pages = static_cast<PageFree *>(
            kt4MC_malloc(kSrcTag, __LINE__, (nPages + 1) * sizeof(PageFree)));
        uint32_t k = 0;
        for (PageHdr *pg = pageOf(pool, pool->headPage);
             pg != nullptr && pages != nullptr && k < nPages; pg = pageOf(pool, pg->nextPage))
            pages[k++] = PageFree{lo32(pg), static_cast<int>(pg->freeChnks.get())};
        nPages = pages != nullptr ? k : nPages;
        return OK;
    });
    if (rc != OK) return;
    std::printf("Total pages      : %10d\r\n", static_cast<int>(nPages));
    std::printf("ChnkSize         : %10d\r\n", static_cast<int>(chnkSz));
    std::printf("Chnks per page   : %10d\r\n", static_cast<int>(chnksPerPage(chnkSz)));
    std::printf("Tot Chnks in Use : %10lu\r\n", inUse);
    if (pages != nullptr)
        for (uint32_t i = 0; i < nPages; ++i)
            std::printf("Page: 0x%x free Chnks: %d \r\n", pages[i].addr, pages[i].freeChnks);
    std::fflush(stdout);
    kt4MC_free(kSrcTag, __LINE__, pages);
}

} // extern "C"
