/*
 * Sibling services of the switch image that this library imports: the memory-check service,
 * the card identity and the platform queries. On a switch these come from other libraries;
 * here they are provided by hostsim/, one seam that a switch image replaces.
 */
#ifndef KT4_HOSTSIM_H
#define KT4_HOSTSIM_H

#include <kt4/common.h>
#include <stdio.h>

KT4_BEGIN_DECLS

/* ---- Memory-check service ------------------------------------------------------------------
 * Guard kinds: 1 plain heap (kt4MC_malloc), 2 system memory, 3 pool blocks, 4 var-pool blocks.
 * A guarded block is the caller's bytes with KT4MC_GUARD_SIZE bytes around them: a header in
 * front (magic, kind, size) and a fill pattern behind. kt4mc_guard_alloc lays the guard into a
 * raw block of size + KT4MC_GUARD_SIZE bytes and returns the caller's address;
 * kt4mc_guard_free checks it and returns the raw block (or null when the guard is broken:
 * the block is then reported and must not be released).
 */
#define KT4MC_GUARD_SIZE 64
#define KT4MC_GUARD_HEAD 32

void *kt4mc_guard_alloc(int kind, void *raw, size_t size);
void *kt4mc_guard_free(int kind, void *user);

int MCLock(void);   /* 0 when the service's lock is taken */
int MCUnlock(void); /* 0 */
int MCAlloc(const char *file, int line, int kind, void *addr, size_t size);
int MCFree(const char *file, int line, void *addr);

/* What the service knows: live registered blocks, their total, and guard breaches seen. */
typedef struct kt4mc_block_info {
    const char *file; /* the caller's file or source tag, as given */
    int line;
    int kind;
    void *addr;
    size_t size;
} kt4mc_block_info;

size_t MCLiveCount(void);
size_t MCLiveBytes(void);
/* Calls fn for every live block, oldest first; returns the number visited. */
size_t MCForEach(void (*fn)(const kt4mc_block_info *blk, void *arg), void *arg);
/* Prints the leak report: one line per live block, "file:line kind size addr". */
void MCReport(FILE *out);
/* Forgets every registration (used between test cases). */
void MCReset(void);
unsigned long MCGuardErrors(void);
unsigned long MCUnknownFrees(void);

/* ---- Shared-memory heap -------------------------------------------------------------------
 * Allocations inside the card's shared memory area (mapped at the same address in every
 * process), for headers and records that several processes reach. mm_core_init lays the heap
 * over [base, base + size) when the area is new and finds it when it is already laid out.
 * Until a heap exists the calls fail (null / -1).
 */
int mm_core_init(void *base, size_t size, int create);
void *kt4MC_MM_malloc(const char *file, int line, size_t size);
void *kt4MC_MM_calloc(const char *file, int line, size_t nmemb, size_t size);
int kt4MC_MM_free(const char *file, int line, void *ptr);

/* ---- Card identity and platform queries ----------------------------------------------------
 * Read once from KT4_SLOT, KT4_CHASSIS_ID, KT4_CPU, KT4_PLATFORM_TYPE, KT4_RPM_ROLE
 * ("primary" or "standby") and KT4_TME_INSTANCE; the setters override them (tests).
 * Defaults: slot 0, chassis 0, CPU 1, platform type 0, primary, TME instance 0.
 */
int kt4CardSlot(void);
int kt4CardChassisId(void);
int kt4CardCpu(void);
int kt4CardIsPrimaryRpm(void);
int kt4CardTmeInstance(void);
void kt4CardSetSlot(int slot);
void kt4CardSetChassisId(int chassis);
void kt4CardSetCpu(int cpu);
void kt4CardSetPlatformType(int type);
void kt4CardSetPrimaryRpm(int primary);
void kt4CardSetTmeInstance(int instance);
void kt4CardReload(void); /* re-reads the environment and drops the setters' values */

int getPlatformType(void);
int KT4IsVirtualEnv(void);
int KT4IsVirtualSingle(void);
int kt4SysGetRpmSlotId(void);

KT4_END_DECLS

#endif /* KT4_HOSTSIM_H */
