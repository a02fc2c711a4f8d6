// Shared pieces of the container family: big-endian field access and the list primitives
// that the hash table and the free-index list use without a call per step.
#pragma once

#include "common/kt4_be.h"

#include <kt4/containers.h>
#include <kt4/log.h>

namespace kt4::ctr {

// The public records declare their integers as kt4Be32 (four bytes, C-visible); here they are
// read and written through the library's byte-order field type, which has the same layout.
static_assert(sizeof(kt4Be32) == sizeof(kt4::be32) && alignof(kt4Be32) == alignof(kt4::be32));

inline kt4::be32 &be(kt4Be32 &f) {
    return *reinterpret_cast<kt4::be32 *>(&f);
}
inline const kt4::be32 &be(const kt4Be32 &f) {
    return *reinterpret_cast<const kt4::be32 *>(&f);
}
inline kt4::bes32 &bes(kt4Be32 &f) {
    return *reinterpret_cast<kt4::bes32 *>(&f);
}
inline int32_t sget(const kt4Be32 &f) {
    return reinterpret_cast<const kt4::bes32 *>(&f)->get();
}

#define KT4_LIKELY(x) __builtin_expect(!!(x), 1)
#define KT4_UNLIKELY(x) __builtin_expect(!!(x), 0)

inline constexpr char kListTag[] = "kt4LL";

// The magic as it lies in memory, so that the check costs one load and one compare.
inline bool dll_magic_ok(const kt4DLL *head) {
    return be(head->dll_magic).get() == kt4DLL_MAGIC;
}

inline void dll_init(kt4DLL *head) {
    be(head->dll_magic) = kt4DLL_MAGIC;
    head->dll_head.next = &head->dll_tail;
    head->dll_head.prev = nullptr;
    head->dll_tail.next = nullptr;
    head->dll_tail.prev = &head->dll_head;
}

inline bool dll_empty(const kt4DLL *head) {
    return head->dll_head.next == &head->dll_tail;
}

inline kt4DLLLink *dll_first(kt4DLL *head) {
    kt4DLLLink *e = head->dll_head.next;
    return e == &head->dll_tail ? nullptr : e;
}

inline kt4DLLLink *dll_last(kt4DLL *head) {
    kt4DLLLink *e = head->dll_tail.prev;
    return e == &head->dll_head ? nullptr : e;
}

inline kt4DLLLink *dll_next(kt4DLL *head, kt4DLLLink *e) {
    kt4DLLLink *n = e->next;
    return n == &head->dll_tail ? nullptr : n;
}

inline kt4DLLLink *dll_prev(kt4DLL *head, kt4DLLLink *e) {
    kt4DLLLink *p = e->prev;
    return p == &head->dll_head ? nullptr : p;
}

// Links e between two adjacent links (sentinels included): no emptiness test needed.
inline void dll_link_between(kt4DLLLink *prev, kt4DLLLink *next, kt4DLLLink *e) {
    e->prev = prev;
    e->next = next;
    prev->next = e;
    next->prev = e;
}

inline void dll_unlink(kt4DLLLink *e) {
    e->prev->next = e->next;
    e->next->prev = e->prev;
    e->next = nullptr;
    e->prev = nullptr;
}

inline constexpr char kRBTreeTag[] = "kt4RBTree";

// Fills a zero-filled red-black tree header; 0 when the compare is missing (reported).
kt4RBTree *rbtree_init_header(kt4RBTree *t, const char *name, uint32_t key_offset,
                              uint32_t key_length, kt4RBTreeAllocFn alloc, kt4RBTreeFreeFn release,
                              kt4RBTreeCompareFn compare);

} // namespace kt4::ctr

// Every red-black tree operation on a handle starts here: a null handle cannot be used, a
// damaged magic is reported and the operation carries on. The tag is the file's kTag.
#define RBT_CHECK(t, fail)                                                                         \
    do {                                                                                           \
        if (KT4_UNLIKELY((t) == nullptr)) {                                                        \
            _kt4Assert("rbtt", kTag, __LINE__);                                                    \
            fail;                                                                                  \
        }                                                                                          \
        if (KT4_UNLIKELY(::kt4::ctr::be((t)->rbtt_magic).get() != KT4_RBTREE_MAGIC))               \
            _kt4Assert("rbtt->rbtt_magic == 0xdeadbeef", kTag, __LINE__);                          \
    } while (0)
