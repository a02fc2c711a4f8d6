// What the block allocator's files share: the partition lock, the page directory and page
// lists, the chunk checks and the pool look-ups. Everything that the allocation and free paths
// call is inline here so that those paths stay one function each; what they reach only when a
// pool grows, shrinks or breaks lives in the files named below.
//
//   partition.cpp  the partition table, partitions and pools, the var-size look-up tables
//   pagedir.cpp    page memory, the pool's page directory, adding and releasing pages
//   chunk.cpp      the chunk checks' reports and the checks of an address handed back
//   pool.cpp       allocation, free and the exported entry points
//   pool_show.cpp  the show commands
#pragma once

#include "mem/mem_int.h"
#include "mem/mem_report.h"

#include "common/kt4_check.h"

#include <kt4/log.h>

#include <type_traits>

namespace kt4::mem {

constexpr int MaxPartId = MAX_PART_ID;

inline uint32_t lo32(const void *p) {
    return static_cast<uint32_t>(reinterpret_cast<uintptr_t>(p));
}

// ---- The partition mutex ------------------------------------------------------------------

inline int M_Lock(pthread_mutex_t &sem, int timeout) {
    (void)timeout; // the partition mutex is only ever taken with WAIT_FOREVER
    return pthread_mutex_lock(&sem);
}

// The partition a task is working in, and whether it took the partition's mutex for it.
struct PartHold {
    Partition *part;
    bool held;
};

inline void partUnlockCleanup(void *arg) {
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

// ---- Page directory and page lists (pagedir.cpp) -----------------------------------------

inline PageHdr *pageOf(const Pool *pool, uint32_t num) {
    return (num != 0 && num < pool->dirCap) ? pool->pageDir[num] : nullptr;
}

// Enters a page in the pool's directory; its number, or 0 when the directory cannot grow.
uint32_t dirAdd(Pool *pool, PageHdr *page);
void dirRemove(Pool *pool, uint32_t num);

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

// Takes a page out of one of the pool's two page lists (all pages; pages with a free chunk),
// named by its links in the page and its ends in the pool.
template <be32 PageHdr::*Next, be32 PageHdr::*Prev, be32 Pool::*First, be32 Pool::*Last>
inline void pageListUnlink(Pool *pool, PageHdr *page) {
    const uint32_t prev = page->*Prev, next = page->*Next;
    if (PageHdr *p = pageOf(pool, prev))
        wr(p->*Next, next);
    else
        wr(pool->*First, next);
    if (PageHdr *n = pageOf(pool, next))
        wr(n->*Prev, prev);
    else
        wr(pool->*Last, prev);
}

inline void freeListRemove(Pool *pool, PageHdr *page) {
    pageListUnlink<&PageHdr::nextFreePage, &PageHdr::prevFreePage, &Pool::firstFreePage,
                   &Pool::lastFreePage>(pool, page);
    wr(page->nextFreePage, 0);
    wr(page->prevFreePage, 0);
    wr(pool->numFreePages, pool->numFreePages.get() - 1);
}

// Adds a page to the pool. 0, or -1 when the pool may not or cannot grow.
int insertPage(Pool *pool, uint32_t chnkSz);
// Unlinks a page from both lists and gives it back to the heap.
void deletePage(Pool *pool, uint32_t num, PageHdr *page);
// Releases every page of the pool (allocated chunks included).
void releaseAllPages(Pool *pool);
// Releases the pages of the pool that hold no allocated chunk.
void flushPool(Pool *pool);
// Takes a page out of allocation after its free list was found corrupted: its remaining free
// chunks are abandoned (the page looks full) rather than handed out twice.
void quarantinePage(Pool *pool, PageHdr *page);

// ---- Chunk checks (chunk.cpp) -------------------------------------------------------------

// The page a chunk's header says it lives in: chunk address - index x slot size - 28.
inline uintptr_t actualPage(const ChnkHdr *chnkHdr, uint32_t info) {
    return reinterpret_cast<uintptr_t>(chnkHdr) -
           static_cast<uintptr_t>(chnkIndex(info)) * slotSize(chnkLength(info)) - kPageHdrSize;
}

// The reporting half of verifyChnk, kept out of the allocation path.
[[gnu::cold, gnu::noinline]] int verifyChnkFailed(int mode, PageHdr *curPage, ChnkHdr *chnkHdr,
                                                  Pool *curPool);

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

// ---- Partitions and pool look-up (partition.cpp) -----------------------------------------

// The partition table, indexed by partition id. Slots are read without a lock (allocation and
// free look their partition up on every call); creation and deletion take the table's lock.
extern std::atomic<Partition *> sysPartitions[MAX_PART_ID];

inline Partition *partGet(int partId) {
    if (static_cast<unsigned>(partId) >= static_cast<unsigned>(MaxPartId)) return nullptr;
    return sysPartitions[partId].load(std::memory_order_acquire);
}

inline Pool *poolInPart(Partition *part, uint32_t index) {
    if (index & kVarPoolFlag) {
        uint32_t v = index & ~kVarPoolFlag;
        return v < part->totVarPools.get() ? part->varPools[v] : nullptr;
    }
    if (part->poolList == nullptr || index >= part->totPools.get()) return nullptr;
    return part->poolList[index];
}

Pool *poolById(uint32_t poolId);
// The smallest fixed pool whose chunks hold size bytes (the first one on a tie).
Pool *bestFitPool(Partition *part, uint32_t size);
// The partition owned by the calling process, or null.
Partition *ownPartition();

// The pool-id paths check against the table size, the partition-id calls against the
// compile-time limit: each reports its own expression.
constexpr const char *kPartIdOfPool = "realPartId < MaxPartId";
constexpr const char *kPartIdGiven = "realPartId < MAX_PART_ID";

inline bool partIdOk(int partId, const char *expr = kPartIdOfPool) {
    if (!(static_cast<unsigned>(partId) < static_cast<unsigned>(MaxPartId))) {
        _kt4Assert(expr, kSrcTag, __LINE__);
        return false;
    }
    return true;
}

// The partition, created when it does not exist yet.
Partition *partCreate(int partId);
// Takes the partition out of the table; it, or null when there was none.
Partition *partDetach(int partId);
// Releases a detached partition with all its pools.
void partFree(Partition *part);
Pool *poolNew(Partition *part, const char *name, uint32_t poolId, uint32_t chnkSz);
void poolDestroy(Pool *pool);
// Rebuilds the var-size look-up of a partition from its var pools.
void rebuildVarTables(Partition *part);

// The var pool that serves a request of size bytes, or null.
inline Pool *findPoolForVarSize(Partition *part, uint32_t size) {
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

// ---- Checking an address handed back (chunk.cpp) ------------------------------------------

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
// chunk to the page. The pool, or null with the reason. wholePage: also check that the page's
// own links agree with the pool's directory (the free path checks that only when the page
// changes lists, since it reads a neighbour's header). Always inlined: on the free path
// wholePage is false and the checks fold into the free itself.
[[gnu::always_inline]] inline Pool *chnkPool(Partition *part, ChnkHdr *chnk, PageHdr *page,
                                             bool wholePage, BadAddr *why) {
    *why = BadAddr::NotFreed;
    // A racing free of the same block may have dropped the page meanwhile (only a task of a
    // locked partition can race).
    if (part->locked.get() != 0 && !pageRegistered(page)) return nullptr;
    const uint32_t marker = chnk->chnkMarker;
    if (marker != Used_Magic_front) {
        if (marker == Unused_Magic_front) *why = BadAddr::NotAllocated;
        return nullptr;
    }
    const uint32_t poolWord = page->pool;
    Pool *pool = poolInPart(part, poolWord & 0xFFFFu);
    if (pool == nullptr || pool->part != part || pool->poolId.get() != poolWord ||
        (wholePage && pageNumber(pool, page) == 0))
        return nullptr;
    if (verifyChnkIn(kVerifyFree, page, chnk, pool) != OK ||
        chnkIndex(chnk->chnkInfo) >= page->totChnks.get())
        return nullptr;
    *why = BadAddr::None;
    return pool;
}

void reportBadFree(const char *fn, BadAddr why, void *addr, const char *file, int line);
[[gnu::cold, gnu::noinline]] void reportTrailer(const Pool *pool, const ChnkHdr *chnk);

// ---- Pool operations --------------------------------------------------------------------------

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

} // namespace kt4::mem
