// The records of the block allocator and the helpers its files share.
//
// Lock order (never taken the other way round):
//   partition mutex (modPartFixedSem)  ->  page registry mutex
//                                      ->  gate mutex (pMemStatCB)
//                                      ->  statistics mutex
// The memory-check service's MCLock is never held while any of these is taken. Reports
// (trace, error, event) are written with none of the gate or statistics mutexes held, because
// the reporting family may allocate system memory, which passes the gate again.
#pragma once

#include "common/kt4_be.h"

#include <kt4/mem.h>

#include <pthread.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <type_traits>

namespace kt4::mem {

// ---- Layout constants ----------------------------------------------------------------------
constexpr uint32_t Unused_Magic_front = 0x00000DCA; // free chunk, and the word after the last slot
constexpr uint32_t Used_Magic_front = 0x00000CEF;   // allocated chunk
constexpr uint32_t PAGESIZE = 16562;                // the page unit
constexpr uint32_t kSmallChnkMax = 16384;           // chunks up to this use one page unit
constexpr uint32_t kPageHdrSize = 28;
constexpr uint32_t kChnkHdrSize = 8;
constexpr uint32_t kPageOverhead = 32; // page header plus the final marker
constexpr uint32_t CHNKLNKSNULL = 0xFFFFFFFFu;
constexpr uint32_t kMinChnkSize = 8;      // a free chunk keeps its two links in the user area
constexpr uint32_t kVarPoolFlag = 0x8000; // in the low half of a pool id: a var pool
constexpr int kVarTableSizes = 4096;      // requests below this use the byte table
constexpr uint8_t kNoPool = 255;

// Kinds stored in the low 4 bits of a chunk's info word.
constexpr uint32_t kKindFree = 0;
constexpr uint32_t kKindFixed = 1;
constexpr uint32_t kKindVar = 2;

// verifyChnk modes
constexpr int kVerifyAlloc = 1;
constexpr int kVerifyFree = 2;

// The source tag and the names the allocator reports under.
constexpr const char *kSrcTag = "kt4MemLib";
constexpr const char *kModName = "kt4MemMgmt";

inline constexpr uint32_t slotSize(uint32_t chnkSz) {
    return (chnkSz + 11u) & ~3u;
}
inline constexpr uint32_t pageRawSize(uint32_t chnkSz) {
    return chnkSz <= kSmallChnkMax ? PAGESIZE : (chnkSz + PAGESIZE - 1) / PAGESIZE * PAGESIZE;
}
inline constexpr uint32_t pageMemSize(uint32_t chnkSz) {
    return (pageRawSize(chnkSz) + 3u) & ~3u;
}
inline constexpr uint32_t chnksPerPage(uint32_t chnkSz) {
    return (pageRawSize(chnkSz) - kPageOverhead) / slotSize(chnkSz);
}

// ---- Records (integers big-endian, documented field order) ----------------------------------

// Chunk header: marker, then index (12 bits) | length (16 bits) | kind (4 bits).
struct ChnkHdr {
    be32 chnkMarker;
    be32 chnkInfo;
};
static_assert(sizeof(ChnkHdr) == kChnkHdrSize);

inline uint32_t chnkIndex(uint32_t info) {
    return info >> 20;
}
inline uint32_t chnkLength(uint32_t info) {
    return (info >> 4) & 0xFFFFu;
}
inline uint32_t chnkKind(uint32_t info) {
    return info & 0xFu;
}
inline uint32_t chnkInfo(uint32_t idx, uint32_t len, uint32_t kind) {
    return (idx << 20) | ((len & 0xFFFFu) << 4) | (kind & 0xFu);
}

// A free chunk's user area: its neighbours on the page's free list (chunk indexes).
struct FreeLinks {
    be32 prev;
    be32 next;
};

// Page header. Pages are named by 32-bit numbers (1-based indexes into the owning pool's page
// directory, 0 = none) so that the header keeps its 28 bytes with 64-bit pointers.
struct PageHdr {
    be32 nextPage;
    be32 prevPage;
    be32 nextFreePage;
    be32 prevFreePage;
    be32 headFreeChnk; // chunk index, CHNKLNKSNULL when the page is full
    be16 totChnks;
    be16 freeChnks;
    be32 pool; // the owning pool's id
};
static_assert(sizeof(PageHdr) == kPageHdrSize);

struct Partition;

struct Pool {
    char name[30];
    be32 headPage, tailPage;          // every page of the pool
    be32 firstFreePage, lastFreePage; // pages holding a free chunk
    be16 numFreePages;
    be16 numPages;
    be32 chnksInUse;
    be32 maxChnksInUse;
    be32 maxSize;  // bytes; KT4_MEM_NO_LIMIT = none
    be32 noGrowth; // non-zero: never add a page
    be32 chnkSz;
    be32 pageSize;
    be32 partId;
    be32 poolId;
    Partition *part;
    // Page directory: page number n lives in pageDir[n]; slot 0 is never used.
    PageHdr **pageDir;
    uint32_t dirCap;
    uint32_t dirHint; // lowest slot that may be free
};

struct Partition {
    Pool **poolList; // fixed pools
    be32 totPools;
    be32 curNumPools;
    be32 ownerPid;
    pthread_mutex_t modPartFixedSem;
    be32 locked;
    be32 partId;
    char name[32];
    // Var pools, in ascending chunk size.
    Pool *varPools[MAX_VAR_POOLS];
    be32 totVarPools;
    be32 firstLargePool;                  // first var pool whose chunk size is 4096 or more
    be16 varSizes[MAX_VAR_POOLS];         // chunk sizes, ascending
    uint8_t varOrder[MAX_VAR_POOLS];      // pool index of each position of varSizes
    uint8_t varByteTable[kVarTableSizes]; // request size -> var pool index, kNoPool = none
};

// ---- Shared helpers ------------------------------------------------------------------------

// Stores a big-endian field as one machine store. The allocator reads back right away what it
// has just written (the head of a free list, a page's counters): a field written byte by byte
// cannot be forwarded to that load, which then waits for the stores to reach the cache.
template <typename T> inline void wr(be<T> &field, std::type_identity_t<T> v) {
    using U = std::make_unsigned_t<T>;
    U raw = static_cast<U>(v);
    if constexpr (__BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__) {
        if constexpr (sizeof(U) == 2)
            raw = static_cast<U>(__builtin_bswap16(raw));
        else if constexpr (sizeof(U) == 4)
            raw = static_cast<U>(__builtin_bswap32(raw));
        else if constexpr (sizeof(U) == 8)
            raw = static_cast<U>(__builtin_bswap64(raw));
    }
    static_assert(sizeof(be<T>) == sizeof raw);
    std::memcpy(static_cast<void *>(&field), &raw, sizeof raw);
}

// Copies a name into a fixed field, cut to cap - 1 characters and always terminated.
inline void copyName(char *dst, size_t cap, const char *src) {
    size_t n = src == nullptr ? 0 : strnlen(src, cap - 1);
    if (n != 0) std::memcpy(dst, src, n);
    dst[n] = '\0';
}

// Chunk verification, the allocator's only reader of headers that callers can overwrite.
// Returns OK or ERROR (reported).
int verifyChnk(int mode, PageHdr *curPage, ChnkHdr *chnkHdr);

// Page registry (pageregistry.cpp): the start address and length of every live page of the
// process. Look-ups take no lock: three dependent loads through tables whose nodes are never
// freed.
namespace registry {
constexpr unsigned kGranuleShift = 14; // 16 KiB, less than the smallest page (16564 bytes)
constexpr unsigned kLeafBits = 11;
constexpr unsigned kMidBits = 11;
constexpr unsigned kTopBits = 48 - kGranuleShift - kLeafBits - kMidBits;
// The largest page (chunk size 65535: four page units) reaches this many granules back.
constexpr unsigned kMaxGranulesBack = (4 * PAGESIZE + (1u << kGranuleShift) - 1) >> kGranuleShift;
struct Leaf {
    std::atomic<uintptr_t> page[1u << kLeafBits];
    std::atomic<uint32_t> bytes[1u << kLeafBits]; // the page's length, set before page
};
struct Mid {
    std::atomic<Leaf *> leaf[1u << kMidBits];
};
extern std::atomic<Mid *> top[1u << kTopBits];

// The registry slot of a 16 KiB granule, or null when no page ever started in its range.
inline Leaf *leafOf(uintptr_t g, unsigned *slot) {
    const uintptr_t t = g >> (kLeafBits + kMidBits);
    if (t >= (1u << kTopBits)) return nullptr;
    Mid *mid = top[t].load(std::memory_order_acquire);
    if (mid == nullptr) return nullptr;
    *slot = static_cast<unsigned>(g & ((1u << kLeafBits) - 1));
    return mid->leaf[(g >> kLeafBits) & ((1u << kMidBits) - 1)].load(std::memory_order_acquire);
}
} // namespace registry

bool pageRegister(const void *page, uint32_t bytes); // false when the address cannot be entered
void pageUnregister(const void *page);
inline bool pageRegistered(const void *page) {
    using namespace registry;
    unsigned slot = 0;
    Leaf *leaf = leafOf(reinterpret_cast<uintptr_t>(page) >> kGranuleShift, &slot);
    return leaf != nullptr &&
           leaf->page[slot].load(std::memory_order_acquire) == reinterpret_cast<uintptr_t>(page);
}

// The live page that holds [addr, addr + len) entirely, or null, found from the registry alone:
// nothing at addr is read. Pages never overlap, so the nearest page start at or below addr is
// the only candidate; it is looked for at most kMaxGranulesBack granules back.
inline const void *pageHolding(const void *addr, size_t len) {
    using namespace registry;
    const uintptr_t a = reinterpret_cast<uintptr_t>(addr);
    const uintptr_t g0 = a >> kGranuleShift;
    for (uintptr_t back = 0; back <= kMaxGranulesBack && back <= g0; ++back) {
        unsigned slot = 0;
        Leaf *leaf = leafOf(g0 - back, &slot);
        if (leaf == nullptr) continue;
        const uintptr_t page = leaf->page[slot].load(std::memory_order_acquire);
        if (page == 0 || page > a) continue;
        const uintptr_t bytes = leaf->bytes[slot].load(std::memory_order_relaxed);
        return a - page <= bytes && len <= bytes - (a - page) ? reinterpret_cast<void *>(page)
                                                              : nullptr;
    }
    return nullptr;
}

// Gate accounting: bytes taken (>0) or returned (<0) since the last sample of the machine's
// counters, so that a burst between two samples is still seen.
void gateAccount(int64_t bytes);

// Statistics of the calling thread: one allocation or free of bytes. The counters belong to
// the thread (only it writes them), so counting is two plain stores on the allocation path.
struct MemCounters {
    std::atomic<uint64_t> allocs{0}, frees{0}, allocBytes{0}, freeBytes{0};
};
extern __thread MemCounters *tlsMemCounters; // null until the thread's first allocation
void updateMemStatsSlow(bool alloc, uint64_t bytes);
inline void bumpCounter(std::atomic<uint64_t> &a, uint64_t v) {
    a.store(a.load(std::memory_order_relaxed) + v, std::memory_order_relaxed);
}
inline void thrdMemStatsUpdate(MemCounters *c, bool alloc, uint64_t bytes) {
    if (alloc) {
        bumpCounter(c->allocs, 1);
        bumpCounter(c->allocBytes, bytes);
    } else {
        bumpCounter(c->frees, 1);
        bumpCounter(c->freeBytes, bytes);
    }
}
inline void updateMemStats(bool alloc, uint64_t bytes) {
    if (MemCounters *c = tlsMemCounters)
        thrdMemStatsUpdate(c, alloc, bytes);
    else
        updateMemStatsSlow(alloc, bytes);
}

// The calling task's name: the task layer's name, or the thread's name for other threads.
const char *currentTaskName(char *buf, size_t len);

// The calling process id (cached; refreshed in a forked child).
int cachedPid();

} // namespace kt4::mem
