// The checked allocator's source of system memory (kt4MC_M_sys*): the heap, until the family
// that owns system memory (mem/: M_sysMalloc, M_sysCalloc, M_sysMemfree, which pass the
// memory-pressure gate) hands its calls over. The process start-up wiring does that before
// main runs (startup/wiring.cpp), so that this family names no family above it.
#pragma once

#include <cstddef>

namespace kt4::mc {

struct SysMemory {
    void *(*malloc)(const char *file, int line, size_t size);
    void *(*calloc)(const char *file, int line, size_t nmemb, size_t size);
    int (*free)(const char *file, int line, void *addr);
};

// Installs the calls (kept by address: pass a static object; null: back to the heap). Set it
// before the first system-memory allocation: a block is freed through the calls in force.
void set_sys_memory(const SysMemory *calls);

} // namespace kt4::mc
