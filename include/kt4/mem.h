/*
 * kt4 memory pools and the block allocator.
 *
 * A partition (one per module or process, ids 0 to MAX_PART_ID - 1) holds fixed pools, each a
 * set of pages cut into equal chunks, and optionally a set of variable-size pools chosen by size
 * class. Pools grow by pages taken from the C library heap, and every page growth and every
 * system-memory request (M_sysMalloc) passes the memory-pressure gate, which refuses memory when
 * the machine runs short and keeps the last of it for the critical tasks.
 *
 * Pool ids carry the partition in the high 16 bits and the pool index in the low 16 bits
 * (KT4_MEM_POOL_ID). A partition is locked by default: its mutex guards every pool of it, so any
 * number of tasks may share it. A partition owned by a single thread may switch the lock off.
 *
 * Each chunk begins with an 8-byte header (big-endian): the marker 0x00000DCA while the chunk is
 * free or 0x00000CEF while it is allocated, then a word holding the chunk's index in its page
 * (12 bits), its length (16 bits) and the kind of allocation (4 bits). The caller's address is
 * the header's address plus 8. Frees check the header, so double frees, foreign addresses and
 * overruns into the next chunk are reported instead of corrupting the pool.
 *
 * The kt4MC_* forms take the caller's file (or source tag) and line, lay a 64-byte guard around
 * each block and register it with the memory-check service while gKT4MCOn is set.
 */
#ifndef KT4_MEM_H
#define KT4_MEM_H

#include <kt4/common.h>

KT4_BEGIN_DECLS

#define MAX_PART_ID 256       /* partition ids are 0 .. MAX_PART_ID - 1 */
#define MAXCHNKSIZE 65536     /* chunk sizes are below this (8 at least) */
#define MIN_VAR_POOLS 1       /* size classes given to one kt4_memPartVarInit call */
#define MAX_VAR_POOLS 32      /* size classes of one partition in all */
#define MAX_FIXED_POOLS 32767 /* pool indexes of a partition's fixed pool table */

#define KT4_MEM_POOL_ID(partId, poolIndex)                                                         \
    ((int)(((unsigned)(partId) << 16) | (unsigned)(poolIndex)))
#define KT4_MEM_PART_OF(poolId) ((int)(((unsigned)(poolId) >> 16) & 0xFFFFu))
#define KT4_MEM_NO_LIMIT 0xFFFFFFFFu /* pool maximum size: no limit */

/* ---- Partitions ---- */

/* Creates the partition (when new) and its fixed-pool table of numPools slots (1 to
 * MAX_FIXED_POOLS). The partition is owned by the calling process and locked. 0 or -1. */
int kt4_memPartFixedInit(int partId, int numPools);
/* Creates the partition (when new) and adds one var pool per size (sizes below MAXCHNKSIZE, 8 at
 * least; MIN_VAR_POOLS to MAX_VAR_POOLS of them, MAX_VAR_POOLS per partition in all). Sizes may be
 * given in any order; a size that the partition already has is skipped. name, when not null,
 * names the partition (and prefixes the names of its var pools). 0 or -1. */
int kt4_memPartVarInit(int partId, const char *name, const uint32_t *sizes, int numSizes);
/* Switches the partition's mutex on or off. Off only for a partition that one thread uses;
 * change it before the partition is shared. 0 or -1. */
int kt4_memPartSetLocking(int partId, BOOL locked);
/* Releases the pages of every var pool of the partition that hold no allocated chunk. */
STATUS M_memPartVarFlush(int partId);
/* Drops the var pools of the partition with all their pages; the partition itself goes too when
 * it has no fixed-pool table. Blocks still held by callers become invalid. */
STATUS kt4_memPartVarDelete(int partId);
/* Drops the whole partition: every pool, every page and the partition record. */
STATUS kt4_memPartDelete(int partId);
/* Frees all pools of the partition: the fixed pools are deleted, the var pools lose all their
 * pages (their size classes stay). Blocks still held by callers become invalid. */
STATUS M_sysForceMemBlockFree(int partId);

/* ---- Pools and blocks ---- */

/* Creates a fixed pool of chunks of chnkSz bytes (8 to MAXCHNKSIZE - 1) in the slot named by
 * poolId; name is cut to 29 characters. 0, or -1. */
int M_memPoolCreate(const char *name, int poolId, uint32_t chnkSz);
/* A chunk of at least size bytes from the pool poolId, or with poolId -1 from the best-fitting
 * fixed pool (smallest chunk size not below size) of the caller's own partition (the first
 * partition that the calling process owns). Null on failure. */
void *M_memBlockAlloc(const char *file, int line, uint32_t size, int poolId);
/* Returns a block of any pool (fixed or var) to its page. OK, or ERROR when the address is not an
 * allocated chunk (nothing is changed then). */
STATUS M_memBlockFree(const char *file, int line, void *addr);
/* A block of at least size bytes from the smallest var pool of the partition that fits. */
void *M_memBlockVarAlloc(const char *file, int line, uint32_t size, int partId);
/* Returns a var block; ERROR also when the block is not of that partition's var pools. */
STATUS M_memBlockVarFree(const char *file, int line, void *addr, int partId);
/* Deletes a fixed pool with all its pages; its slot can be created again. */
STATUS M_memPoolFree(int poolId);
/* Releases the pool's pages that hold no allocated chunk. */
STATUS M_memPoolFlush(int poolId);
/* Caps the pool: no page is added once (pages + 1) x 16562 would exceed maxSize bytes.
 * KT4_MEM_NO_LIMIT lifts the cap. Works on fixed and var pool ids. */
STATUS M_memPoolSetSize(int poolId, uint32_t maxSize);
/* Non-zero: the pool never adds a page again (it lives on the pages it has). */
STATUS M_memPoolSetNoGrowth(int poolId, BOOL noGrowth);
/* The page size that pools of chunks of chnkSz bytes use. */
uint32_t calcPageSize(uint32_t chnkSz);

/* What a pool holds (a snapshot). */
typedef struct M_MEM_POOL_INFO {
    char name[30];
    uint32_t chnkSz;        /* chunk size */
    uint32_t pageSize;      /* bytes taken per page */
    uint32_t chnksPerPage;  /* chunks in each page */
    uint32_t numPages;      /* pages */
    uint32_t numFreePages;  /* pages with at least one free chunk */
    uint32_t chnksInUse;    /* chunks allocated */
    uint32_t maxChnksInUse; /* highest number of chunks ever allocated at once */
    uint32_t maxSize;       /* cap in bytes (KT4_MEM_NO_LIMIT: none) */
    uint32_t noGrowth;
} M_MEM_POOL_INFO;

/* Fills info for a fixed or var pool id (var pools: KT4_MEM_VAR_POOL_ID). OK or ERROR. */
STATUS M_memPoolInfoGet(int poolId, M_MEM_POOL_INFO *info);
#define KT4_MEM_VAR_POOL_ID(partId, varIndex)                                                      \
    KT4_MEM_POOL_ID((partId), 0x8000u | (unsigned)(varIndex))
/* The pool id that holds an allocated block, or -1. */
int M_memBlockPoolId(const void *addr);

/* ---- System memory through the gate ---- */

void *M_sysMalloc(const char *file, int line, size_t size);
void *M_sysCalloc(const char *file, int line, size_t nmemb, size_t size);
/* OK (also for NULL). An address that is not a live block of M_sysMalloc/M_sysCalloc (from
 * malloc, inside a block, or released already) is refused untouched: ERROR, errno EINVAL, and a
 * report naming file and line. */
STATUS M_sysMemfree(const char *file, int line, void *addr);

/* ---- Memory-pressure gate ----
 * checkUsage: 0 when the request of size bytes may be served, -1 when it is refused. With usage u
 * (sysMUsage, percent of the machine's memory in use counting the request): below 80 all states
 * and latches clear; 80 to 91 warning; 92 to 95 low water: only critical tasks are served; 96 and
 * above high-high water: refused. Each state's message is logged once until usage falls below 80.
 */
int checkUsage(uint32_t size, const char *requester);
/* Percent of the machine's memory in use if size more bytes were taken (from /proc/meminfo,
 * sampled at most every 100 ms, plus what passed the gate since the sample). */
int sysMUsage(uint32_t size);
/* Replaces the measurement behind sysMUsage (tests; platforms with other counters); null
 * restores the machine's counters. The hook may be called from any task, also while a
 * partition's mutex is held: it must not allocate from the pools. */
typedef int (*kt4MemUsageFn)(uint32_t size);
void kt4MemSetUsageHook(kt4MemUsageFn fn);
/* 0 when the calling task is critical (its name begins with the first 3 characters of an entry
 * of kt4CriticalTasks), -1 otherwise. */
int kt4MemCheckIfTaskIsCritical(void);
extern const char *const kt4CriticalTasks[];
extern const int numOfKT4CriticalTasks;
/* Debug switches: print each gate decision in the low-water range / every gated request. */
extern int kt4MemLowToHighUsageDebug;
extern int kt4MemWhoIsAllocatingDebug;

/* The gate's state (pMemStatCB): present states, latches (message already logged) and the
 * number of messages each state has logged. */
typedef struct kt4MemStatCB {
    int warning, lowWater, highHighWater;
    int warningLatch, lowWaterLatch, highHighWaterLatch;
    unsigned long warningMsgs, lowWaterMsgs, highHighWaterMsgs;
} kt4MemStatCB;
void kt4MemStatGet(kt4MemStatCB *out);

/* ---- Statistics ----
 * Allocations and frees (count and bytes) are kept per thread and per task name. */
typedef struct kt4MemTaskStats {
    char name[32];
    uint64_t allocs, frees;
    uint64_t allocBytes, freeBytes;
} kt4MemTaskStats;
/* Statistics of the tasks whose name is name (the calling task's when null); OK or ERROR. */
STATUS kt4MemTaskStatsGet(const char *name, kt4MemTaskStats *out);

/* ---- Diagnostics (print on standard output) ---- */
void memMgrHelp(void);
void showMemMgrParts(void);
void showMemMgrPools(int partId);
void kt4MemFragmentInfo(int poolId);
void threadMemInfo(void);

/* ---- Memory-check forms ---- */
int kt4MC_M_memPoolCreate(const char *file, int line, const char *name, int poolId,
                          uint32_t chnkSz);
void *kt4MC_M_memBlockAlloc(const char *file, int line, uint32_t size, int poolId);
STATUS kt4MC_M_memBlockFree(const char *file, int line, void *addr);
void *kt4MC_M_memBlockVarAlloc(const char *file, int line, uint32_t size, int partId);
STATUS kt4MC_M_memBlockVarFree(const char *file, int line, void *addr, int partId);
int kt4MC_kt4_memPartVarInit(const char *file, int line, int partId, const char *name,
                             const uint32_t *sizes, int numSizes);

KT4_END_DECLS

#endif /* KT4_MEM_H */
