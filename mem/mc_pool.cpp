// The memory-check forms of the pool calls.
//
// Each block is asked for 64 bytes larger than the caller wants and the memory-check service
// lays its guard in them (kind 3 around fixed-pool blocks, 4 around var-pool blocks); while the
// check is on the block is registered with the caller's file and line (memory-check kinds 2 and
// 3), so that a leak report names who took it. Frees unregister first, then strip and check the
// guard, and release the block only when the guard was intact. The guard lies in the pool's
// page: a block whose page has gone (its pool was freed or flushed with the block in it) is
// handed straight to the pool's free, which refuses it from the page registry alone, before the
// guard is looked at.
#include "mem/mem_int.h"

#include <kt4/hostsim.h>

namespace {

constexpr int kGuardPool = 3;
constexpr int kGuardVar = 4;
constexpr int kMcPool = 2;
constexpr int kMcVar = 3;

void *guard(const char *file, int line, void *raw, uint32_t size, int guardKind, int mcKind) {
    if (raw == nullptr) return nullptr;
    void *user = kt4mc_guard_alloc(guardKind, raw, size);
    if (gKT4MCOn && MCLock() == 0) {
        MCAlloc(file, line, mcKind, user, size);
        MCUnlock();
    }
    return user;
}

// The raw block of a guarded pool block, whose guard lies in a live page, or null.
void *rawInLivePage(void *addr) {
    auto *raw = static_cast<char *>(addr) - KT4MC_GUARD_HEAD;
    return kt4::mem::pageHolding(raw - kt4::mem::kChnkHdrSize,
                                 kt4::mem::kChnkHdrSize + KT4MC_GUARD_HEAD) != nullptr
               ? raw
               : nullptr;
}

// The raw block to release, or null when the guard was broken (reported by the service).
void *unguard(const char *file, int line, void *addr, int guardKind) {
    if (gKT4MCOn && MCLock() == 0) {
        MCFree(file, line, addr);
        MCUnlock();
    }
    return kt4mc_guard_free(guardKind, addr);
}

constexpr uint32_t kMaxGuarded = UINT32_MAX - KT4MC_GUARD_SIZE;

} // namespace

extern "C" {

int kt4MC_M_memPoolCreate(const char *file, int line, const char *name, int poolId,
                          uint32_t chnkSz) {
    (void)file;
    (void)line;
    if (chnkSz > kMaxGuarded) return -1;
    return M_memPoolCreate(name, poolId, chnkSz + KT4MC_GUARD_SIZE);
}

void *kt4MC_M_memBlockAlloc(const char *file, int line, uint32_t size, int poolId) {
    if (size > kMaxGuarded) return nullptr;
    return guard(file, line, M_memBlockAlloc(file, line, size + KT4MC_GUARD_SIZE, poolId), size,
                 kGuardPool, kMcPool);
}

STATUS kt4MC_M_memBlockFree(const char *file, int line, void *addr) {
    if (addr == nullptr) return M_memBlockFree(file, line, addr); // reported there
    if (rawInLivePage(addr) == nullptr)
        return M_memBlockFree(file, line, static_cast<char *>(addr) - KT4MC_GUARD_HEAD);
    void *raw = unguard(file, line, addr, kGuardPool);
    return raw == nullptr ? ERROR : M_memBlockFree(file, line, raw);
}

void *kt4MC_M_memBlockVarAlloc(const char *file, int line, uint32_t size, int partId) {
    if (size > kMaxGuarded) return nullptr;
    return guard(file, line, M_memBlockVarAlloc(file, line, size + KT4MC_GUARD_SIZE, partId), size,
                 kGuardVar, kMcVar);
}

STATUS kt4MC_M_memBlockVarFree(const char *file, int line, void *addr, int partId) {
    if (addr == nullptr) return M_memBlockVarFree(file, line, addr, partId);
    if (rawInLivePage(addr) == nullptr)
        return M_memBlockVarFree(file, line, static_cast<char *>(addr) - KT4MC_GUARD_HEAD, partId);
    void *raw = unguard(file, line, addr, kGuardVar);
    return raw == nullptr ? ERROR : M_memBlockVarFree(file, line, raw, partId);
}

int kt4MC_kt4_memPartVarInit(const char *file, int line, int partId, const char *name,
                             const uint32_t *sizes, int numSizes) {
    (void)file;
    (void)line;
    if (sizes == nullptr || numSizes < 0 || numSizes > MAX_VAR_POOLS)
        return kt4_memPartVarInit(partId, name, sizes, numSizes); // refused and reported there
    uint32_t guarded[MAX_VAR_POOLS];
    for (int i = 0; i < numSizes; ++i)
        guarded[i] = sizes[i] > kMaxGuarded ? UINT32_MAX : sizes[i] + KT4MC_GUARD_SIZE;
    return kt4_memPartVarInit(partId, name, guarded, numSizes);
}

} // extern "C"
