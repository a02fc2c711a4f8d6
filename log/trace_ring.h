// The trace-history rings: their layout in shared memory, and the one reader of it that the
// library's display calls, the operator tool and the fuzzer share.
//
// The rings table (slot kTraceRings of the shared area) starts with a directory, a table of
// three ring offsets counted from the table's start (entry 0 the software ring, entry 2 the
// hardware ring, entry 1 unused), followed by the rings. A ring is one block of big-endian
// words and text slots:
//
//   word 0 spare | word 1 wrapped flag | word 2 next slot (0..2999)
//   words 3..3002 module id of each slot | words 3003..6002 stored kind of each slot
//   from byte 24012: 3000 text slots of 200 bytes
//
// The reader treats every byte as hostile: offsets, sizes and the next-slot index are checked
// against the table, and a text slot is read up to its NUL or its 200th byte, never further.
#pragma once

#include "common/kt4_be.h"

#include <cstddef>
#include <cstdint>

namespace kt4::trace {

constexpr int kModules = 142;
constexpr int kRingSlots = 3000;
constexpr int kSlotBytes = 200;
constexpr int kRingSoftware = 0;
constexpr int kRingHardware = 2;
constexpr int kRingEntries = 3;
constexpr uint32_t kDirectoryMagic = 0x4B545452; // "KTTR"

struct RingBlock {
    be32 spare;
    be32 wrapped;
    be32 next;
    be32 module[kRingSlots];
    be32 kind[kRingSlots];
    char text[kRingSlots][kSlotBytes];
};
static_assert(offsetof(RingBlock, module) == 12);
static_assert(offsetof(RingBlock, kind) == 12 + 4 * kRingSlots);
static_assert(offsetof(RingBlock, text) == 24012);
static_assert(sizeof(RingBlock) == 24012 + kRingSlots * kSlotBytes);

struct RingDirectory {
    be32 magic;
    be32 entries;              // kRingEntries
    be64 offset[kRingEntries]; // from the table's start; 0: no ring
};

constexpr size_t kDirectoryBytes = 64;
static_assert(sizeof(RingDirectory) <= kDirectoryBytes);
constexpr size_t kRingStride = (sizeof(RingBlock) + 63) / 64 * 64;
// The rings table: directory, software ring, hardware ring.
constexpr size_t kRingsTableBytes = kDirectoryBytes + 2 * kRingStride;
// The flags table: one AtomicBe32 word per module (common/atomic_be32.h).
constexpr size_t kFlagsTableBytes = kModules * 4;

// Lays out a fresh rings table (directory and two empty rings).
void format_rings(void *table, size_t bytes);
// Lays out a fresh flags table: every module 0, word 0 (the trace-initialised mark) set.
void format_flags(void *table, size_t bytes);

// The tables the trace channel keeps in the card's shared area, in the order the area lays
// them out (its first slots: the flags table, then the rings table). The platform family lays
// out whatever this list declares; it names none of them itself.
struct SharedTable {
    size_t bytes;
    void (*init)(void *table, size_t bytes);
};
inline constexpr SharedTable kSharedTables[] = {
    {kFlagsTableBytes, format_flags},
    {kRingsTableBytes, format_rings},
};

// The ring of directory entry (kRingSoftware or kRingHardware) in a rings table of the given
// size, or null with the reason in *why.
const RingBlock *ring_in(const void *table, size_t bytes, int entry, const char **why);
RingBlock *ring_in(void *table, size_t bytes, int entry);

// The ring a kind is written to and replayed from: hardware for 9 to 12, software otherwise.
constexpr int ring_for_kind(int kind) {
    return kind >= 9 && kind <= 12 ? kRingHardware : kRingSoftware;
}
// The kind word stored for a written kind: the software copies 13..16 keep the hardware kind
// they copy (13 -> 9, 14 -> 11, 15 -> 12, 16 -> 10); the others are stored as they are.
constexpr uint32_t stored_kind(int kind) {
    switch (kind) {
    case 13:
        return 9;
    case 14:
        return 11;
    case 15:
        return 12;
    case 16:
        return 10;
    default:
        return static_cast<uint32_t>(kind);
    }
}
// Does a slot's stored kind match the kind asked for in a replay?
constexpr bool kind_matches(int want, uint32_t stored) {
    switch (want) {
    case 7:
        return stored >= 2 && stored <= 6;
    case 8:
        return stored >= 9 && stored <= 12;
    case 17:
        return true;
    default:
        return want >= 0 && stored == static_cast<uint32_t>(want);
    }
}

// Receives one replayed slot: its text (not NUL-terminated), length, module and stored kind.
using Sink = void (*)(const char *text, size_t len, uint32_t module, uint32_t kind, void *arg);

constexpr int kAnyModule = -1;

// Replays ring's slots oldest first (when wrapped, from the next slot to the end, then from 0
// up to the next slot; otherwise from 0 up to the next slot), passing those whose module is
// module (or any module for kAnyModule) and whose stored kind matches kind. Returns the number
// passed, or -1 with the reason in *why when the ring's index is corrupt.
long replay(const RingBlock &ring, int module, int kind, Sink sink, void *arg, const char **why);

} // namespace kt4::trace
