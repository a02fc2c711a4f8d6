// The checked allocator: the entry points through which every allocation of the library goes.
//
// Each block is asked for 64 bytes larger than the caller wants; the memory-check service lays
// its guard in those bytes. While gKT4MCOn is set (and the service's lock can be taken) the
// block is registered with the caller's file and line, so that a running process can list its
// live memory by the place that took it. A block allocated while the check was off is still
// guarded, and its release simply finds no registration.
//
// System memory (kt4MC_M_sys*) is taken through the pool family's M_sysMalloc/M_sysMemfree, so
// that it passes the memory-pressure gate and is counted per task. The pool family stands
// above this one: the process start-up wiring hands its calls over (set_sys_memory) before
// main runs in every program that links the library. A program built from some families
// without the wiring (a family's own tests) takes system memory from the heap.
#include "common/kt4_mc.h"

#include <kt4/common.h>
#include <kt4/hostsim.h>

#include <atomic>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <limits>

namespace {

// Guard kinds and the memory-check kinds recorded with MCAlloc for each entry point.
constexpr int kGuardHeap = 1;
constexpr int kGuardSys = 2;
constexpr int kMcKindHeap = 0;
constexpr int kMcKindSys = 1;

int initial_mc_on() {
    const char *v = std::getenv("KT4_MC_ON");
    return v != nullptr && v[0] != '\0' && v[0] != '0';
}

// The system-memory calls in force (null: the heap). Written once at start-up.
std::atomic<const kt4::mc::SysMemory *> g_sys{nullptr};

// The raw block of a checked allocation: heap memory, or system memory through the gate.
void *raw_alloc(const char *file, int line, size_t size, bool zero, bool sys) {
    const kt4::mc::SysMemory *m = sys ? g_sys.load(std::memory_order_acquire) : nullptr;
    if (m != nullptr) return zero ? m->calloc(file, line, 1, size) : m->malloc(file, line, size);
    return zero ? std::calloc(1, size) : std::malloc(size);
}

void raw_free(const char *file, int line, void *raw, bool sys) {
    const kt4::mc::SysMemory *m = sys ? g_sys.load(std::memory_order_acquire) : nullptr;
    if (m != nullptr) {
        m->free(file, line, raw);
        return;
    }
    std::free(raw);
}

void *checked_alloc(const char *file, int line, size_t size, bool zero, int guard_kind,
                    int mc_kind) {
    if (size > std::numeric_limits<size_t>::max() - KT4MC_GUARD_SIZE) {
        errno = ENOMEM;
        return nullptr;
    }
    void *raw = raw_alloc(file, line, size + KT4MC_GUARD_SIZE, zero, guard_kind == kGuardSys);
    if (raw == nullptr) return nullptr;
    void *user = kt4mc_guard_alloc(guard_kind, raw, size);
    if (gKT4MCOn && MCLock() == 0) {
        MCAlloc(file, line, mc_kind, user, size);
        MCUnlock();
    }
    return user;
}

int checked_free(const char *file, int line, void *ptr, int guard_kind) {
    if (ptr == nullptr) return 0;
    if (gKT4MCOn && MCLock() == 0) {
        MCFree(file, line, ptr);
        MCUnlock();
    }
    void *raw = kt4mc_guard_free(guard_kind, ptr);
    if (raw == nullptr) return -1; // broken guard: reported by the service, block kept
    raw_free(file, line, raw, guard_kind == kGuardSys);
    return 0;
}

} // namespace

void kt4::mc::set_sys_memory(const SysMemory *calls) {
    g_sys.store(calls, std::memory_order_release);
}

extern "C" {

int gKT4MCOn = initial_mc_on();

void *kt4MC_malloc(const char *file, int line, size_t size) {
    return checked_alloc(file, line, size, false, kGuardHeap, kMcKindHeap);
}

void *kt4MC_calloc(const char *file, int line, size_t nmemb, size_t size) {
    if (size != 0 && nmemb > std::numeric_limits<size_t>::max() / size) {
        errno = ENOMEM;
        return nullptr;
    }
    return checked_alloc(file, line, nmemb * size, true, kGuardHeap, kMcKindHeap);
}

void kt4MC_free(const char *file, int line, void *ptr) {
    checked_free(file, line, ptr, kGuardHeap);
}

void *kt4MC_M_sysMalloc(const char *file, int line, size_t size) {
    return checked_alloc(file, line, size, false, kGuardSys, kMcKindSys);
}

void *kt4MC_M_sysCalloc(const char *file, int line, size_t nmemb, size_t size) {
    if (size != 0 && nmemb > std::numeric_limits<size_t>::max() / size) {
        errno = ENOMEM;
        return nullptr;
    }
    return checked_alloc(file, line, nmemb * size, true, kGuardSys, kMcKindSys);
}

int kt4MC_M_sysMemfree(const char *file, int line, void *ptr) {
    return checked_free(file, line, ptr, kGuardSys);
}

} // extern "C"
