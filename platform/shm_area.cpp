// The card's shared area: its layout, its validation and this process's view of it.
//
// Lock order: the area lock (a robust process-shared mutex in the header page) is taken
// before the shared-memory heap's own lock (claim and release allocate under it) and never
// while a numbered shared-memory lock is awaited.
#include "platform/shm_area.h"

#include "common/kt4_check.h"
#include "log/trace_ring.h"
#include "platform/health.h"
#include "platform/lock_holders.h"

#include <kt4/hostsim.h>
#include <kt4/log.h>

#include <pthread.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <iterator>
#include <ctime>

namespace kt4::shm {

namespace {

constexpr size_t kMinHeapBytes = 64 * 1024;
constexpr size_t kHeapAlign = 4096;

constexpr size_t align_up(size_t v, size_t a) {
    return (v + a - 1) / a * a;
}

void zero_table(void *table, size_t bytes) {
    std::memset(table, 0, bytes);
}

// The tables laid out with the area, in this order after the header page: first the trace
// channel's, as the trace family declares them (log/trace_ring.h), in slots kTraceFlags and
// kTraceRings; then the platform's own. A family whose table has a fixed size and must exist
// from the start adds its row here; tables created on first use go through claim() instead.
struct FixedTable {
    Table slot;
    size_t bytes;
    void (*init)(void *table, size_t bytes);
};
constexpr size_t kTraceTableCount = std::size(trace::kSharedTables);
static_assert(kTraceTableCount == 2 && kTraceRings == kTraceFlags + 1,
              "the trace tables occupy slots kTraceFlags and kTraceRings");
constexpr auto kFixedTables = [] {
    std::array<FixedTable, kTraceTableCount + 2> t{};
    size_t n = 0;
    for (const trace::SharedTable &d : trace::kSharedTables) {
        t[n] = {static_cast<Table>(kTraceFlags + n), d.bytes, d.init};
        ++n;
    }
    t[n++] = {kHealth, health::kTableBytes, zero_table};
    t[n++] = {kLockHolders, holders::kTableBytes, holders::format};
    return t;
}();

constexpr size_t fixed_end() {
    size_t off = kHeaderBytes;
    for (const FixedTable &t : kFixedTables)
        off = align_up(off, kTableAlign) + t.bytes;
    return align_up(off, kHeapAlign);
}

std::atomic<std::byte *> g_base{nullptr};
std::atomic<size_t> g_size{0};

pthread_mutex_t *area_mutex(std::byte *image) {
    return reinterpret_cast<pthread_mutex_t *>(image + kAreaMutexOffset);
}

void init_area_mutex(std::byte *image) {
    pthread_mutexattr_t attr;
    KT4_VERIFY(!pthread_mutexattr_init(&attr));
    KT4_VERIFY(!pthread_mutexattr_setpshared(&attr, PTHREAD_PROCESS_SHARED));
    KT4_VERIFY(!pthread_mutexattr_setrobust(&attr, PTHREAD_MUTEX_ROBUST));
    KT4_VERIFY(!pthread_mutex_init(area_mutex(image), &attr));
    KT4_VERIFY(!pthread_mutexattr_destroy(&attr));
}

HeaderRecord *header() {
    return reinterpret_cast<HeaderRecord *>(g_base.load(std::memory_order_acquire));
}

// Reads slot t of this process's area, checked against the area (the slots are written by
// other processes too). Call with the area lock held.
void *slot_table(Table t, size_t *bytes) {
    std::byte *b = g_base.load(std::memory_order_acquire);
    View v{b, g_size.load(std::memory_order_relaxed)};
    size_t n = 0;
    const std::byte *p = table_in(v, t, &n);
    if (bytes != nullptr) *bytes = p != nullptr ? n : 0;
    return const_cast<std::byte *>(p);
}

} // namespace

bool mapped() {
    return g_base.load(std::memory_order_acquire) != nullptr;
}
std::byte *base() {
    return g_base.load(std::memory_order_acquire);
}
size_t size() {
    return mapped() ? g_size.load(std::memory_order_relaxed) : 0;
}

AreaLock::AreaLock() : held_(false) {
    std::byte *b = g_base.load(std::memory_order_acquire);
    if (b == nullptr) return;
    int rc = pthread_mutex_lock(area_mutex(b));
    if (rc == EOWNERDEAD) {
        // A process died inside a short section; what it guarded is at worst half-published
        // slot or health data, which readers validate anyway.
        kt4ErrorPrintf(1, "shared area lock recovered from a process that died holding it");
        pthread_mutex_consistent(area_mutex(b));
        rc = 0;
    }
    KT4_VERIFY(rc == 0);
    held_ = true;
}

AreaLock::~AreaLock() {
    if (held_)
        KT4_VERIFY(!pthread_mutex_unlock(area_mutex(g_base.load(std::memory_order_acquire))));
}

void *table(Table t, size_t *bytes) {
    if (!mapped()) {
        if (bytes != nullptr) *bytes = 0;
        return nullptr;
    }
    AreaLock lock;
    return slot_table(t, bytes);
}

bool publish(Table t, void *addr, size_t bytes) {
    if (!mapped() || t >= kTableCount) return false;
    std::byte *b = base();
    auto *p = static_cast<std::byte *>(addr);
    if (p != nullptr && (p < b + kHeaderBytes || p > b + size() || bytes > size_t(b + size() - p)))
        return false;
    AreaLock lock;
    SlotRecord &s = header()->slots[t];
    s.offset = p != nullptr ? static_cast<uint64_t>(p - b) : 0;
    s.size = p != nullptr ? bytes : 0;
    return true;
}

void *claim(Table t, size_t bytes, void (*init)(void *table, size_t bytes)) {
    if (!mapped() || t >= kTableCount) return nullptr;
    AreaLock lock;
    size_t have = 0;
    if (void *existing = slot_table(t, &have)) {
        if (have >= bytes) return existing;
        kt4ErrorPrintf(1, "shared table %u holds %zu bytes, %zu wanted", static_cast<unsigned>(t),
                       have, bytes);
        return nullptr;
    }
    void *p = kt4MC_MM_calloc(__FILE__, __LINE__, 1, bytes);
    if (p == nullptr) return nullptr;
    if (init != nullptr) init(p, bytes);
    SlotRecord &s = header()->slots[t];
    s.size = bytes;
    s.offset = static_cast<uint64_t>(static_cast<std::byte *>(p) - base());
    return p;
}

int release(Table t) {
    if (!mapped() || t >= kTableCount) return -1;
    for (const FixedTable &f : kFixedTables)
        if (f.slot == t) return -1; // laid out with the area, not from the heap
    if (t == kHeap) return -1;
    AreaLock lock;
    void *p = slot_table(t, nullptr);
    if (p == nullptr) return -1;
    SlotRecord &s = header()->slots[t];
    s.offset = 0;
    s.size = 0;
    return kt4MC_MM_free(__FILE__, __LINE__, p);
}

size_t min_area_size() {
    return fixed_end() + kMinHeapBytes;
}

bool format(void *image, size_t bytes) {
    if (image == nullptr || bytes < min_area_size()) return false;
    auto *b = static_cast<std::byte *>(image);
    auto *h = reinterpret_cast<HeaderRecord *>(b);
    // The magic goes last (seal): a process that dies half-way leaves an area that the next
    // one lays out again instead of trusting.
    std::memset(b, 0, kHeaderBytes);
    h->version = kVersion;
    h->headerBytes = static_cast<uint32_t>(kHeaderBytes);
    h->areaSize = bytes;
    h->creatorPid = static_cast<uint32_t>(getpid());
    h->slotCount = kTableCount;
    h->createdAt = static_cast<uint64_t>(std::time(nullptr));
    size_t off = kHeaderBytes;
    for (const FixedTable &t : kFixedTables) {
        off = align_up(off, kTableAlign);
        h->slots[t.slot].offset = off;
        h->slots[t.slot].size = t.bytes;
        t.init(b + off, t.bytes);
        off += t.bytes;
    }
    off = align_up(off, kHeapAlign);
    h->slots[kHeap].offset = off;
    h->slots[kHeap].size = bytes - off;

    init_area_mutex(b);
    h->state = kStateReady;
    return true;
}

void renew_mutexes(void *image) {
    auto *b = static_cast<std::byte *>(image);
    init_area_mutex(b);
    View v{b, static_cast<size_t>(reinterpret_cast<HeaderRecord *>(b)->areaSize.get())};
    size_t bytes = 0;
    if (const std::byte *t = table_in(v, kLockHolders, &bytes))
        holders::reset_mutexes(const_cast<std::byte *>(t), bytes);
}

void seal(void *image) {
    // Processes read the header only under the file's flock, which the layer-out holds until
    // after this store: no further ordering is needed.
    reinterpret_cast<HeaderRecord *>(image)->magic = kMagic;
}

void attach(void *image, size_t bytes) {
    g_size.store(bytes, std::memory_order_relaxed);
    g_base.store(static_cast<std::byte *>(image), std::memory_order_release);
}

} // namespace kt4::shm
