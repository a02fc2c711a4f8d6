// Pages of a pool: their memory, the pool's page directory, adding and releasing pages.
//
// Links between pages are page numbers into the pool's page directory rather than addresses,
// so that the page header keeps its 28 bytes (and the page arithmetic its figures) with 64-bit
// pointers. Every live page is also entered in the page registry (pageregistry.cpp), which is
// what a free trusts before it reads a chunk header.
//
// Pages come from malloc, not from the checked allocator: they are what the checked
// allocator's pool entry points sit on, and the gate accounts for them itself.
#include "mem/pool_int.h"

#include <cstdlib>
#include <cstring>

namespace kt4::mem {

namespace {

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

} // namespace

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
    pageListUnlink<&PageHdr::nextPage, &PageHdr::prevPage, &Pool::headPage, &Pool::tailPage>(pool,
                                                                                             page);
    if (page->freeChnks.get() != 0) freeListRemove(pool, page);
    dirRemove(pool, num);
    pageUnregister(page);
    wr(pool->numPages, pool->numPages.get() - 1);
    gateAccount(-static_cast<int64_t>(pageMemSize(pool->chnkSz)));
    pageMemFree(page);
}

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

void flushPool(Pool *pool) {
    for (uint32_t n = 1; n < pool->dirCap; ++n) {
        PageHdr *page = pool->pageDir[n];
        if (page != nullptr && page->freeChnks.get() == page->totChnks.get())
            deletePage(pool, n, page);
    }
}

void quarantinePage(Pool *pool, PageHdr *page) {
    freeListRemove(pool, page);
    wr(page->freeChnks, 0);
    wr(page->headFreeChnk, CHNKLNKSNULL);
}

} // namespace kt4::mem
