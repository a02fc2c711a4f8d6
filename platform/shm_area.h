// The layout of a card's shared area, the memory behind 0x60000000 that every process maps.
//
// The area begins with one header page: a magic, a layout version, the area's size and a
// directory of table slots, each the offset (from the area's start) and size of one table the
// system keeps there. Every integer in it is big-endian. The slots are named below; a table
// is found through its slot, never through a fixed offset, so tables can be added without
// moving the others:
//
//   header page | trace flags | trace rings | health records | lock holders | heap (the rest)
//
// Tables laid out with the area (fixed size) sit between the header and the heap. Tables
// that a family creates later, on first use (the event-log key registry, for instance), are
// allocated from the shared heap and published in their slot with claim() or publish().
//
// The header page also holds a process-shared robust mutex (the area lock) that serialises
// publishing slots and the health records between processes. It sits outside the parsed
// header record so that readers of a foreign image never touch it.
#pragma once

#include "common/kt4_be.h"

#include <cstddef>
#include <cstdint>

namespace kt4::shm {

constexpr uintptr_t kBaseAddress = 0x60000000;
constexpr uint32_t kMagic = 0x4B543441; // "KT4A"
constexpr uint32_t kVersion = 1;
constexpr uint32_t kStateReady = 1;
constexpr size_t kHeaderBytes = 4096;
constexpr size_t kAreaMutexOffset = 2048;
constexpr size_t kTableAlign = 64;

// Table slots. Numbers are part of the layout: never renumber, only add.
enum Table : uint32_t {
    kTraceFlags = 0,     // moduleTraceFlags: 142 big-endian words
    kTraceRings = 1,     // trace-history ring directory and rings (log/trace_ring.h)
    kHealth = 2,         // process health records
    kHeap = 3,           // the shared-memory heap: the rest of the area
    kTaskTable = 4,      // the task manager's task table (lock 5)
    kSwpQueueTable = 5,  // the SWP queue table (lock 2)
    kEvtKeyRegistry = 6, // the event-log key registry (reader-writer lock 1)
    kLockHolders = 7,    // who holds the numbered locks (platform/lock_holders.h)
    kTableCount = 16     // slots in the header; the unnamed ones are spare
};

struct SlotRecord {
    be64 offset; // from the area's start; 0 while the table does not exist
    be64 size;   // bytes
};

struct HeaderRecord {
    be32 magic;       // kMagic, written last when the area is laid out
    be32 version;     // kVersion
    be32 headerBytes; // kHeaderBytes
    be32 state;       // kStateReady once laid out
    be64 areaSize;    // bytes laid out
    be32 creatorPid;  // the process that laid it out
    be32 slotCount;   // kTableCount
    be64 createdAt;   // seconds since the epoch
    SlotRecord slots[kTableCount];
};
static_assert(sizeof(HeaderRecord) <= kAreaMutexOffset);

// ---- The area of this process (after KT4_ProcShmInit) ----

bool mapped();
std::byte *base();
size_t size();
// The table in slot t, or null when the area is not mapped or the table does not exist.
void *table(Table t, size_t *bytes = nullptr);
// Publishes a table (an address inside the area, normally from the shared heap) in slot t;
// null removes it. false when the area is not mapped or the table is not inside it.
bool publish(Table t, void *addr, size_t bytes);
// Finds the table in slot t, or creates it: allocates bytes from the shared heap, runs init
// on it and publishes it, all under the area lock so that racing processes create it once.
// Null when the area is not mapped, the heap is exhausted, or an existing table is smaller.
void *claim(Table t, size_t bytes, void (*init)(void *table, size_t bytes));
// Removes the table in slot t and returns its memory to the shared heap. 0 or -1.
int release(Table t);

// The area lock: a robust process-shared mutex in the header page, for short sections that
// several processes must not interleave (publishing slots, health records). Works only
// while mapped(); does nothing otherwise.
class AreaLock {
  public:
    AreaLock();
    ~AreaLock();
    AreaLock(const AreaLock &) = delete;
    AreaLock &operator=(const AreaLock &) = delete;

  private:
    bool held_;
};

// ---- Layout, shared by the library and the tools ----

// The smallest area that holds the header, the fixed tables and a minimal heap.
size_t min_area_size();
// Lays a fresh area out over [image, image + bytes): header, fixed tables, their initial
// contents and the area lock. The heap slot is recorded but the heap itself is laid by
// mm_core_init. The header is not yet valid: seal() makes it so once the heap is laid too.
// false when bytes is below min_area_size().
bool format(void *image, size_t bytes);
void seal(void *image);

// A validated view of an area image that may come from anywhere (a file a tool maps
// read-only, a fuzzer's bytes): every offset and size is checked against the image.
struct View {
    const std::byte *image = nullptr;
    size_t bytes = 0;
};
// true and the view when image holds a laid-out area of this version; otherwise false and
// the reason in *why. Inline, so that the tools read a dump with nothing of the platform
// family linked in.
inline bool validate(const void *image, size_t bytes, View &view, const char **why) {
    const char *dummy = nullptr;
    if (why == nullptr) why = &dummy;
    if (image == nullptr || bytes < kHeaderBytes) {
        *why = "too small for the area header";
        return false;
    }
    auto *h = static_cast<const HeaderRecord *>(image);
    if (h->magic != kMagic) {
        *why = "no shared area header (bad magic)";
        return false;
    }
    if (h->version != kVersion) {
        *why = "shared area of another layout version";
        return false;
    }
    if (h->headerBytes != kHeaderBytes || h->slotCount != kTableCount) {
        *why = "shared area header of a wrong size";
        return false;
    }
    if (h->state != kStateReady) {
        *why = "shared area not completely laid out";
        return false;
    }
    uint64_t area = h->areaSize;
    if (area < kHeaderBytes || area > bytes) {
        *why = "shared area larger than the image (truncated file?)";
        return false;
    }
    view.image = static_cast<const std::byte *>(image);
    view.bytes = static_cast<size_t>(area);
    return true;
}

// The table in slot t of a validated view, checked to lie inside the image; null otherwise.
inline const std::byte *table_in(const View &view, Table t, size_t *bytes) {
    if (view.image == nullptr || t >= kTableCount) return nullptr;
    auto *h = reinterpret_cast<const HeaderRecord *>(view.image);
    uint64_t off = h->slots[t].offset;
    uint64_t n = h->slots[t].size;
    if (off < kHeaderBytes || off > view.bytes || n > view.bytes - off) return nullptr;
    if (bytes != nullptr) *bytes = static_cast<size_t>(n);
    return view.image + off;
}

// Makes the process-shared mutexes of a laid-out area usable again. Only for an area that no
// other process has mapped: a mutex left locked by a process of an earlier boot would
// otherwise never be released (robust mutexes are given back only when their owner dies
// while the system that knew it runs).
void renew_mutexes(void *image);

// Called by KT4_ProcShmInit once the area is mapped and laid out or found.
void attach(void *image, size_t bytes);

} // namespace kt4::shm
