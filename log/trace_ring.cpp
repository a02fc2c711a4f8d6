// The trace-history ring layout and its reader (see trace_ring.h).
#include "log/trace_ring.h"

#include "common/atomic_be32.h"

#include <cstring>

namespace kt4::trace {

namespace {

const RingDirectory *directory_in(const void *table, size_t bytes, const char **why) {
    if (table == nullptr || bytes < kDirectoryBytes) {
        *why = "rings table too small for its directory";
        return nullptr;
    }
    auto *dir = static_cast<const RingDirectory *>(table);
    if (dir->magic != kDirectoryMagic) {
        *why = "rings table has no ring directory";
        return nullptr;
    }
    if (dir->entries != static_cast<uint32_t>(kRingEntries)) {
        *why = "ring directory has a wrong number of entries";
        return nullptr;
    }
    return dir;
}

} // namespace

void format_rings(void *table, size_t bytes) {
    std::memset(table, 0, bytes < kRingsTableBytes ? bytes : kRingsTableBytes);
    auto *dir = static_cast<RingDirectory *>(table);
    dir->magic = kDirectoryMagic;
    dir->entries = kRingEntries;
    dir->offset[kRingSoftware] = kDirectoryBytes;
    dir->offset[1] = 0;
    dir->offset[kRingHardware] = kDirectoryBytes + kRingStride;
}

void format_flags(void *table, size_t bytes) {
    auto *flags = static_cast<AtomicBe32 *>(table);
    for (size_t i = 0; i < bytes / sizeof(AtomicBe32); ++i)
        flags[i].store(0);
    flags[0].store(1); // the trace-initialised mark: history is kept from now on
}

const RingBlock *ring_in(const void *table, size_t bytes, int entry, const char **why) {
    const char *dummy = nullptr;
    if (why == nullptr) why = &dummy;
    const RingDirectory *dir = directory_in(table, bytes, why);
    if (dir == nullptr) return nullptr;
    if (entry < 0 || entry >= kRingEntries) {
        *why = "no such ring";
        return nullptr;
    }
    uint64_t off = dir->offset[entry];
    if (off == 0) {
        *why = "ring not present";
        return nullptr;
    }
    if (off < kDirectoryBytes || off > bytes || bytes - off < sizeof(RingBlock)) {
        *why = "ring lies outside its table";
        return nullptr;
    }
    return reinterpret_cast<const RingBlock *>(static_cast<const std::byte *>(table) + off);
}

RingBlock *ring_in(void *table, size_t bytes, int entry) {
    return const_cast<RingBlock *>(
        ring_in(static_cast<const void *>(table), bytes, entry, nullptr));
}

long replay(const RingBlock &ring, int module, int kind, Sink sink, void *arg, const char **why) {
    uint32_t next = ring.next;
    if (next >= static_cast<uint32_t>(kRingSlots)) {
        if (why != nullptr) *why = "ring's next-slot index is out of range";
        return -1;
    }
    bool wrapped = ring.wrapped != 0;
    long shown = 0;
    auto show = [&](uint32_t from, uint32_t to) {
        for (uint32_t i = from; i < to; ++i) {
            uint32_t m = ring.module[i];
            if (module != kAnyModule && m != static_cast<uint32_t>(module)) continue;
            uint32_t k = ring.kind[i];
            if (!kind_matches(kind, k)) continue;
            const char *text = ring.text[i];
            sink(text, strnlen(text, kSlotBytes), m, k, arg);
            ++shown;
        }
    };
    if (wrapped) show(next, kRingSlots);
    show(0, next);
    return shown;
}

} // namespace kt4::trace
