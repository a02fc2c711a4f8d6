// The allocator's show commands: the help, the partitions, the pools of a partition and the
// pages of a pool.
#include "mem/pool_int.h"

#include <cstdio>
#include <cstring>

using namespace kt4::mem;

extern "C" {

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
