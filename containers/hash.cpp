// The hash table: a power-of-two array of list buckets that the caller addresses by bucket id.
//
// The table never hashes by itself: callers compute the bucket (usually kt4HashGetKey, the
// Internet checksum of the key masked to the table size) and pass a match function, so that
// one table can hold records whose keys only the caller knows how to compare. Per-bucket depth
// statistics are kept on every insert and remove for tuning the table size in the field.
#include "containers/internal.h"

#include <cstdio>
#include <cstring>

using namespace kt4::ctr;

namespace {

constexpr char kTag[] = "kt4Hash";

using Table = kt4HashTable;
using Bucket = kt4HashBucket;

// A table that cannot be used is reported; a null one stops the call.
#define HASH_CHECK(t, fail)                                                                        \
    do {                                                                                           \
        if (KT4_UNLIKELY((t) == nullptr || be((t)->hh_magic).get() != kt4HASH_MAGIC)) {            \
            _kt4Assert("hh->hh_magic == kt4HASH_MAGIC", kTag, __LINE__);                           \
            if ((t) == nullptr) fail;                                                              \
        }                                                                                          \
    } while (0)

// An id beyond the array would write outside it: reported, and the call does nothing.
#define HASH_BID(t, bid, fail)                                                                     \
    do {                                                                                           \
        if (KT4_UNLIKELY((bid) >= be((t)->hh_size).get())) {                                       \
            _kt4Assert("bid < hh->hh_size", kTag, __LINE__);                                       \
            fail;                                                                                  \
        }                                                                                          \
    } while (0)

inline Bucket *bucket_end(Table *t) {
    return t->hh_buckets + be(t->hh_size).get();
}

void init_buckets(Table *t) {
    for (Bucket *b = t->hh_buckets, *e = bucket_end(t); b != e; ++b) {
        dll_init(&b->h_list);
        be(b->h_inserts) = 0;
        be(b->h_maxnum) = 0;
        be(b->h_curnum) = 0;
    }
    be(t->hh_curnum) = 0;
}

inline void count_insert(Table *t, Bucket *b) {
    ++be(b->h_inserts);
    const uint32_t depth = be(b->h_curnum) + 1;
    be(b->h_curnum) = depth;
    if (depth > be(b->h_maxnum).get()) be(b->h_maxnum) = depth;
    ++be(t->hh_curnum);
}

inline void unlink_counted(Table *t, Bucket *b, kt4DLLLink *entry) {
    dll_unlink(entry);
    --be(b->h_curnum);
    --be(t->hh_curnum);
}

// The bucket an entry sits in, found through its list's tail sentinel.
Bucket *bucket_of(kt4DLLLink *entry) {
    kt4DLLLink *l = entry;
    while (l->next != nullptr)
        l = l->next;
    kt4DLL *list = KT4_CONTAINER_OF(l, kt4DLL, dll_tail);
    return KT4_CONTAINER_OF(list, Bucket, h_list);
}

// The first entry from bucket b upward (b included), moving the cursor there; or 0 / cursor 0.
kt4DLLLink *first_from(Table *t, Bucket **cursor, Bucket *b) {
    for (Bucket *e = bucket_end(t); b < e; ++b) {
        if (!dll_empty(&b->h_list)) {
            if (cursor != nullptr) *cursor = b;
            return b->h_list.dll_head.next;
        }
    }
    if (cursor != nullptr) *cursor = nullptr;
    return nullptr;
}

// The last entry from bucket b downward to bucket `stop` (both included); or 0 / cursor 0.
kt4DLLLink *last_from(Table *t, Bucket **cursor, Bucket *b, Bucket *stop) {
    for (; b >= stop && b >= t->hh_buckets; --b) {
        if (!dll_empty(&b->h_list)) {
            if (cursor != nullptr) *cursor = b;
            return b->h_list.dll_tail.prev;
        }
    }
    if (cursor != nullptr) *cursor = nullptr;
    return nullptr;
}

// The Internet checksum's running sum: the key as big-endian 16-bit words, an odd last byte
// counting as its value times 256, summed modulo 2^32.
uint32_t checksum_sum(const unsigned char *p, uint32_t len) {
    uint64_t sum = 0;
    while (len >= 8) {
        uint64_t w;
        std::memcpy(&w, p, 8);
        w = __builtin_bswap64(w);
        sum += (w >> 48) + ((w >> 32) & 0xFFFF) + ((w >> 16) & 0xFFFF) + (w & 0xFFFF);
        p += 8;
        len -= 8;
    }
    while (len >= 2) {
        sum += (uint32_t{p[0]} << 8) | p[1];
        p += 2;
        len -= 2;
    }
    if (len != 0) sum += uint32_t{p[0]} << 8;
    return static_cast<uint32_t>(sum);
}

} // namespace

extern "C" {

void *kt4HashMalloc(size_t size) {
    return kt4MC_malloc(kTag, __LINE__, size);
}

void kt4HashFree(void *ptr) {
    kt4MC_free(kTag, __LINE__, ptr);
}

kt4HashTable *kt4HashCreate(uint32_t size, void *(*alloc)(size_t), void (*release)(void *)) {
    // Both checks are made, so a size of 0 is reported by each of them.
    if (size == 0) _kt4Assert("size", kTag, __LINE__);
    if (size == 0 || (size & (size - 1)) != 0)
        _kt4Assert("((size) ? ((((size) & ((size) - 1)) == 0) ? 1 : 0) : 0)", kTag, __LINE__);
    if (size == 0) return nullptr;
    if (alloc == nullptr) alloc = kt4HashMalloc;
    if (release == nullptr) release = kt4HashFree;
    auto *t = static_cast<Table *>(alloc(sizeof(Table)));
    if (t == nullptr) return nullptr;
    size_t bytes;
    if (__builtin_mul_overflow(size_t{size}, sizeof(Bucket), &bytes)) {
        release(t);
        return nullptr;
    }
    auto *buckets = static_cast<Bucket *>(alloc(bytes));
    if (buckets == nullptr) {
        release(t);
        return nullptr;
    }
    std::memset(static_cast<void *>(t), 0, sizeof *t);
    std::memset(static_cast<void *>(buckets), 0, bytes);
    be(t->hh_magic) = kt4HASH_MAGIC;
    t->hh_buckets = buckets;
    be(t->hh_size) = size;
    t->hh_alloc = alloc;
    t->hh_free = release;
    init_buckets(t);
    return t;
}

void kt4HashInit(kt4HashTable *table) {
    if (table == nullptr) return;
    HASH_CHECK(table, return );
    init_buckets(table);
}

void kt4HashDestroy(kt4HashTable *table) {
    HASH_CHECK(table, return );
    if (be(table->hh_curnum).get() != 0) _kt4Assert("!hh->hh_curnum", kTag, __LINE__);
    for (Bucket *t = table->hh_buckets, *e = bucket_end(table); t != e; ++t)
        if (be(t->h_curnum).get() != 0) _kt4Assert("!t->h_curnum", kTag, __LINE__);
    be(table->hh_magic) = 0;
    void (*release)(void *) = table->hh_free;
    release(table->hh_buckets);
    release(table);
}

uint32_t kt4HashGetKey(kt4HashTable *table, const void *key, uint32_t length) {
    HASH_CHECK(table, return 0);
    if (key == nullptr || length == 0) return 0;
    uint32_t sum = checksum_sum(static_cast<const unsigned char *>(key), length);
    const uint32_t mask = be(table->hh_size).get() - 1;
    if (sum <= 0xFFFF) return ~sum & 0xFFFF & mask;
    uint32_t folded = (sum >> 16) + (sum & 0xFFFF);
    if (folded >= 65536) folded -= 65535;
    return ~folded & 0xFFFF & mask;
}

void kt4HashInsertAtFront(kt4HashTable *table, uint32_t bid, kt4DLLLink *entry) {
    HASH_CHECK(table, return );
    HASH_BID(table, bid, return );
    if (entry == nullptr) return;
    Bucket *b = table->hh_buckets + bid;
    dll_link_between(&b->h_list.dll_head, b->h_list.dll_head.next, entry);
    count_insert(table, b);
}

void kt4HashInsertAtBack(kt4HashTable *table, uint32_t bid, kt4DLLLink *entry) {
    HASH_CHECK(table, return );
    HASH_BID(table, bid, return );
    if (entry == nullptr) return;
    Bucket *b = table->hh_buckets + bid;
    dll_link_between(b->h_list.dll_tail.prev, &b->h_list.dll_tail, entry);
    count_insert(table, b);
}

kt4DLLLink *kt4HashFind(kt4HashTable *table, kt4HashBucket **cursor, uint32_t bid,
                        kt4HashMatchFn match, ...) {
    if (cursor != nullptr) *cursor = nullptr;
    HASH_CHECK(table, return nullptr);
    HASH_BID(table, bid, return nullptr);
    if (match == nullptr) return nullptr;
    Bucket *b = table->hh_buckets + bid;
    va_list args;
    va_start(args, match);
    kt4DLLLink *found = nullptr;
    for (kt4DLLLink *e = b->h_list.dll_head.next; e != &b->h_list.dll_tail; e = e->next) {
        va_list ap;
        va_copy(ap, args);
        const int rc = match(e, &ap);
        va_end(ap);
        if (rc == 0) {
            found = e;
            if (cursor != nullptr) *cursor = b;
            break;
        }
    }
    va_end(args);
    return found;
}

void kt4HashRemove(kt4HashTable *table, kt4HashBucket **cursor, kt4DLLLink *entry) {
    HASH_CHECK(table, return );
    if (!kt4DLLIsLinked(entry)) return;
    Bucket *b = cursor != nullptr && *cursor != nullptr ? *cursor : bucket_of(entry);
    unlink_counted(table, b, entry);
}

kt4DLLLink *kt4HashRemoveAndGetNext(kt4HashTable *table, kt4HashBucket **cursor,
                                    kt4DLLLink *entry) {
    HASH_CHECK(table, return nullptr);
    if (!kt4DLLIsLinked(entry)) return nullptr;
    Bucket *b = cursor != nullptr && *cursor != nullptr ? *cursor : bucket_of(entry);
    kt4DLLLink *next = dll_next(&b->h_list, entry);
    if (next != nullptr) {
        if (cursor != nullptr) *cursor = b;
    } else {
        next = first_from(table, cursor, b + 1);
    }
    unlink_counted(table, b, entry);
    return next;
}

kt4DLLLink *kt4HashGetFirst(kt4HashTable *table, kt4HashBucket **cursor) {
    HASH_CHECK(table, return nullptr);
    return first_from(table, cursor, table->hh_buckets);
}

kt4DLLLink *kt4HashGetNext(kt4HashTable *table, kt4HashBucket **cursor, kt4DLLLink *entry) {
    HASH_CHECK(table, return nullptr);
    if (cursor == nullptr || *cursor == nullptr || entry == nullptr)
        return first_from(table, cursor, table->hh_buckets);
    Bucket *b = *cursor;
    if (kt4DLLLink *n = dll_next(&b->h_list, entry)) return n;
    return first_from(table, cursor, b + 1);
}

kt4DLLLink *kt4HashGetLast(kt4HashTable *table, kt4HashBucket **cursor) {
    HASH_CHECK(table, return nullptr);
    // Bucket 0 is never looked at here; GetPrev does reach it.
    return last_from(table, cursor, bucket_end(table) - 1, table->hh_buckets + 1);
}

kt4DLLLink *kt4HashGetPrev(kt4HashTable *table, kt4HashBucket **cursor, kt4DLLLink *entry) {
    HASH_CHECK(table, return nullptr);
    if (cursor == nullptr || *cursor == nullptr || entry == nullptr)
        return last_from(table, cursor, bucket_end(table) - 1, table->hh_buckets + 1);
    Bucket *b = *cursor;
    if (kt4DLLLink *p = dll_prev(&b->h_list, entry)) return p;
    return last_from(table, cursor, b - 1, table->hh_buckets);
}

kt4DLLLink *kt4HashGetBucketFirst(kt4HashTable *table, kt4HashBucket **cursor) {
    HASH_CHECK(table, return nullptr);
    Bucket *from = cursor != nullptr && *cursor != nullptr ? *cursor : table->hh_buckets;
    return first_from(table, cursor, from);
}

uint32_t kt4HashStat(kt4HashTable *table, uint32_t bid, uint32_t *total, uint32_t *curDepth,
                     uint32_t *inserts, uint32_t *maxDepth) {
    HASH_CHECK(table, return 0);
    HASH_BID(table, bid, return 0);
    const Bucket *b = table->hh_buckets + bid;
    const uint32_t depth = be(b->h_curnum);
    if (total != nullptr) *total = be(table->hh_curnum);
    if (curDepth != nullptr) *curDepth = depth;
    if (inserts != nullptr) *inserts = be(b->h_inserts);
    if (maxDepth != nullptr) *maxDepth = be(b->h_maxnum);
    return depth;
}

void kt4HashAttach(kt4HashTable *table, kt4HashPrintFn print) {
    HASH_CHECK(table, return );
    const uint32_t size = be(table->hh_size);
    std::printf("Hash table %p: %lu buckets, %lu entries\n", static_cast<void *>(table),
                static_cast<unsigned long>(size),
                static_cast<unsigned long>(be(table->hh_curnum).get()));
    for (uint32_t i = 0; i < size; ++i) {
        Bucket *b = table->hh_buckets + i;
        if (dll_empty(&b->h_list)) continue;
        std::printf("Bucket %lu: depth %lu, highest %lu, inserts %lu\n",
                    static_cast<unsigned long>(i),
                    static_cast<unsigned long>(be(b->h_curnum).get()),
                    static_cast<unsigned long>(be(b->h_maxnum).get()),
                    static_cast<unsigned long>(be(b->h_inserts).get()));
        if (print == nullptr) continue;
        for (kt4DLLLink *e = b->h_list.dll_head.next; e != &b->h_list.dll_tail;) {
            kt4DLLLink *next = e->next;
            print(e);
            e = next;
        }
    }
}

} // extern "C"
