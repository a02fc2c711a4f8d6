// The shared-memory heap: allocations inside the card's shared area for the headers and
// records that several processes reach (tree headers, tables created on first use).
//
// The heap is one region of the area: a header, then blocks laid end to end. Every block
// starts with a header carrying a magic (in use or free), its size, the size of the block
// before it (so that a released block merges with both neighbours), and the allocating
// process, file and line. Free blocks are chained in a free list through their payload;
// allocation is first fit, splitting what is left over. All offsets are from the heap's
// start and all integers big-endian, so the heap reads the same in every process and from
// a dump.
//
// One lock serialises the heap between the processes of a card: a process-shared robust
// mutex in the heap header. A process that dies holding it leaves the mutex recoverable;
// the heap is then checked before it is used again.
//
// Every pointer handed back is checked before it is trusted: inside the heap, aligned, a
// block header with the in-use magic and boundary sizes that agree with its neighbours.
// A pointer that is not a live block of this heap is refused and reported.
#include "common/kt4_be.h"

#include <kt4/hostsim.h>

#include <pthread.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <limits>

namespace {

using kt4::be32;
using kt4::be64;

constexpr uint32_t kHeapMagic = 0x4B54484D; // "KTHM"
constexpr uint32_t kHeapVersion = 1;
constexpr uint32_t kUsedMagic = 0x4B54AB1E; // block in use
constexpr uint32_t kFreeMagic = 0x4B54F4EE; // block free
constexpr size_t kAlign = 16;
constexpr size_t kHeapHeaderBytes = 256;
constexpr size_t kMutexOffset = 128;
constexpr size_t kTagBytes = 16;

struct HeapHeader {
    be32 magic;
    be32 version;
    be64 size;      // bytes of the heap, header included (a multiple of kAlign)
    be64 freeHead;  // offset of the first free block, 0 when none
    be64 usedBytes; // payload bytes handed out
    be64 usedBlocks;
    be64 badFrees; // pointers refused so far
};
static_assert(sizeof(HeapHeader) <= kMutexOffset);
static_assert(kMutexOffset + sizeof(pthread_mutex_t) <= kHeapHeaderBytes);

struct BlockHeader {
    be32 magic;
    be32 line;
    be64 size;     // whole block, header included
    be64 prevSize; // size of the block just before, 0 for the first block
    be32 pid;
    be32 spare;
    char tag[kTagBytes]; // the tail of the allocating file's name
};
constexpr size_t kBlockHeaderBytes = 48;
static_assert(sizeof(BlockHeader) <= kBlockHeaderBytes);

struct FreeLinks {
    be64 next;
    be64 prev;
};
constexpr size_t kMinBlock =
    kBlockHeaderBytes + sizeof(FreeLinks) < 64 ? 64 : kBlockHeaderBytes + 16;

std::atomic<std::byte *> g_heap{nullptr};

HeapHeader *hdr(std::byte *heap) {
    return reinterpret_cast<HeapHeader *>(heap);
}
pthread_mutex_t *heap_mutex(std::byte *heap) {
    return reinterpret_cast<pthread_mutex_t *>(heap + kMutexOffset);
}
BlockHeader *block_at(std::byte *heap, uint64_t off) {
    return reinterpret_cast<BlockHeader *>(heap + off);
}
FreeLinks *links(std::byte *heap, uint64_t off) {
    return reinterpret_cast<FreeLinks *>(heap + off + kBlockHeaderBytes);
}

void report(const char *what, const void *ptr, const char *file, int line) {
    std::fprintf(stderr, "kt4mm: %s: %p (from %s:%d)\n", what, ptr, file != nullptr ? file : "?",
                 line);
}

class HeapLock {
  public:
    explicit HeapLock(std::byte *heap) : m_(heap_mutex(heap)) {
        int rc = pthread_mutex_lock(m_);
        if (rc == EOWNERDEAD) {
            std::fprintf(stderr, "kt4mm: a process died holding the shared heap's lock\n");
            pthread_mutex_consistent(m_);
            rc = 0;
        }
        ok_ = rc == 0;
    }
    ~HeapLock() {
        if (ok_) pthread_mutex_unlock(m_);
    }
    bool ok() const { return ok_; }
    HeapLock(const HeapLock &) = delete;
    HeapLock &operator=(const HeapLock &) = delete;

  private:
    pthread_mutex_t *m_;
    bool ok_;
};

void free_list_remove(std::byte *heap, uint64_t off) {
    FreeLinks *l = links(heap, off);
    uint64_t next = l->next, prev = l->prev;
    if (prev != 0)
        links(heap, prev)->next = next;
    else
        hdr(heap)->freeHead = next;
    if (next != 0) links(heap, next)->prev = prev;
}

void free_list_push(std::byte *heap, uint64_t off) {
    FreeLinks *l = links(heap, off);
    uint64_t head = hdr(heap)->freeHead;
    l->next = head;
    l->prev = 0;
    if (head != 0) links(heap, head)->prev = off;
    hdr(heap)->freeHead = off;
}

// The block whose payload is ptr, checked to be a live block of the heap; 0 otherwise, with
// the reason in *why.
uint64_t checked_block(std::byte *heap, const void *ptr, const char **why) {
    const uint64_t size = hdr(heap)->size;
    auto *p = static_cast<const std::byte *>(ptr);
    if (p < heap + kHeapHeaderBytes + kBlockHeaderBytes || p >= heap + size) {
        *why = "pointer is not inside the shared heap";
        return 0;
    }
    uint64_t off = static_cast<uint64_t>(p - heap) - kBlockHeaderBytes;
    if ((off - kHeapHeaderBytes) % kAlign != 0) {
        *why = "pointer is not the start of a shared heap block";
        return 0;
    }
    BlockHeader *b = block_at(heap, off);
    if (b->magic == kFreeMagic) {
        *why = "shared heap block released twice";
        return 0;
    }
    uint64_t bsize = b->size;
    if (b->magic != kUsedMagic || bsize < kMinBlock || bsize % kAlign != 0 || bsize > size - off) {
        *why = "pointer is not a block of the shared heap";
        return 0;
    }
    uint64_t prev = b->prevSize;
    bool first = off == kHeapHeaderBytes;
    if ((first && prev != 0) || (!first && (prev < kMinBlock || prev > off - kHeapHeaderBytes ||
                                            block_at(heap, off - prev)->size != prev))) {
        *why = "shared heap block with a damaged header";
        return 0;
    }
    if (off + bsize < size && block_at(heap, off + bsize)->prevSize != bsize) {
        *why = "shared heap block with a damaged neighbour";
        return 0;
    }
    return off;
}

void *heap_alloc(const char *file, int line, size_t want, bool zero) {
    std::byte *heap = g_heap.load(std::memory_order_acquire);
    if (heap == nullptr) {
        errno = ENOMEM;
        return nullptr;
    }
    if (want > std::numeric_limits<uint64_t>::max() / 2) {
        errno = ENOMEM;
        return nullptr;
    }
    uint64_t need =
        (static_cast<uint64_t>(want) + kAlign - 1) / kAlign * kAlign + kBlockHeaderBytes;
    if (need < kMinBlock) need = kMinBlock;
    HeapLock lock(heap);
    if (!lock.ok()) return nullptr;
    const uint64_t heapSize = hdr(heap)->size;
    for (uint64_t off = hdr(heap)->freeHead; off != 0; off = links(heap, off)->next) {
        BlockHeader *b = block_at(heap, off);
        uint64_t bsize = b->size;
        if (bsize < need) continue;
        free_list_remove(heap, off);
        if (bsize - need >= kMinBlock) { // split: the rest stays free
            uint64_t rest = off + need;
            BlockHeader *r = block_at(heap, rest);
            std::memset(r, 0, kBlockHeaderBytes);
            r->magic = kFreeMagic;
            r->size = bsize - need;
            r->prevSize = need;
            if (rest + (bsize - need) < heapSize)
                block_at(heap, rest + (bsize - need))->prevSize = bsize - need;
            free_list_push(heap, rest);
            b->size = need;
            bsize = need;
        }
        b->magic = kUsedMagic;
        b->line = static_cast<uint32_t>(line);
        b->pid = static_cast<uint32_t>(getpid());
        std::memset(b->tag, 0, sizeof b->tag);
        if (file != nullptr) {
            size_t n = std::strlen(file);
            const char *tail = n >= kTagBytes ? file + n - (kTagBytes - 1) : file;
            std::memcpy(b->tag, tail, std::strlen(tail));
        }
        hdr(heap)->usedBytes += bsize - kBlockHeaderBytes;
        ++hdr(heap)->usedBlocks;
        void *user = heap + off + kBlockHeaderBytes;
        if (zero) std::memset(user, 0, bsize - kBlockHeaderBytes);
        return user;
    }
    errno = ENOMEM;
    return nullptr;
}

} // namespace

extern "C" {

int mm_core_init(void *base, size_t size, int create) {
    auto *heap = static_cast<std::byte *>(base);
    if (heap == nullptr || reinterpret_cast<uintptr_t>(heap) % kAlign != 0) return -1;
    size = size / kAlign * kAlign;
    if (size < kHeapHeaderBytes + kMinBlock) return -1;
    HeapHeader *h = hdr(heap);
    if (!create) {
        if (h->magic != kHeapMagic || h->version != kHeapVersion || h->size != size) return -1;
        g_heap.store(heap, std::memory_order_release);
        return 0;
    }
    std::memset(heap, 0, kHeapHeaderBytes);
    h->version = kHeapVersion;
    h->size = size;
    pthread_mutexattr_t attr;
    if (pthread_mutexattr_init(&attr) != 0) return -1;
    pthread_mutexattr_setpshared(&attr, PTHREAD_PROCESS_SHARED);
    pthread_mutexattr_setrobust(&attr, PTHREAD_MUTEX_ROBUST);
    int rc = pthread_mutex_init(heap_mutex(heap), &attr);
    pthread_mutexattr_destroy(&attr);
    if (rc != 0) return -1;
    BlockHeader *b = block_at(heap, kHeapHeaderBytes);
    std::memset(b, 0, kBlockHeaderBytes);
    b->magic = kFreeMagic;
    b->size = size - kHeapHeaderBytes;
    b->prevSize = 0;
    links(heap, kHeapHeaderBytes)->next = 0;
    links(heap, kHeapHeaderBytes)->prev = 0;
    h->freeHead = kHeapHeaderBytes;
    h->magic = kHeapMagic; // last: a heap is found only once it is complete
    g_heap.store(heap, std::memory_order_release);
    return 0;
}

void *kt4MC_MM_malloc(const char *file, int line, size_t size) {
    return heap_alloc(file, line, size, false);
}

void *kt4MC_MM_calloc(const char *file, int line, size_t nmemb, size_t size) {
    if (size != 0 && nmemb > std::numeric_limits<size_t>::max() / size) {
        errno = ENOMEM;
        return nullptr;
    }
    return heap_alloc(file, line, nmemb * size, true);
}

int kt4MC_MM_free(const char *file, int line, void *ptr) {
    if (ptr == nullptr) return 0;
    std::byte *heap = g_heap.load(std::memory_order_acquire);
    if (heap == nullptr) {
        report("kt4MC_MM_free: no shared heap in this process", ptr, file, line);
        return -1;
    }
    HeapLock lock(heap);
    if (!lock.ok()) return -1;
    const char *why = nullptr;
    uint64_t off = checked_block(heap, ptr, &why);
    if (off == 0) {
        ++hdr(heap)->badFrees;
        report(why, ptr, file, line);
        return -1;
    }
    const uint64_t heapSize = hdr(heap)->size;
    BlockHeader *b = block_at(heap, off);
    uint64_t bsize = b->size;
    hdr(heap)->usedBytes -= bsize - kBlockHeaderBytes;
    --hdr(heap)->usedBlocks;
    b->magic = kFreeMagic;
    // Merge with the following block, then with the preceding one.
    if (off + bsize < heapSize) {
        uint64_t next = off + bsize;
        BlockHeader *n = block_at(heap, next);
        if (n->magic == kFreeMagic) {
            free_list_remove(heap, next);
            bsize += n->size;
            n->magic = 0;
        }
    }
    if (off != kHeapHeaderBytes) {
        uint64_t prev = off - b->prevSize;
        BlockHeader *p = block_at(heap, prev);
        if (p->magic == kFreeMagic) {
            free_list_remove(heap, prev);
            bsize += p->size;
            b->magic = 0;
            off = prev;
            b = p;
        }
    }
    b->size = bsize;
    if (off + bsize < heapSize) block_at(heap, off + bsize)->prevSize = bsize;
    free_list_push(heap, off);
    return 0;
}

} // extern "C"
