// Shared pieces of the radix tree and its change lists: big-endian field access, bit tests,
// the header check and the node primitives the tree, the walks and the change lists share.
#pragma once

#include "common/kt4_be.h"
#include "containers/internal.h"

#include <kt4/log.h>
#include <kt4/radix.h>

namespace kt4::radix {

static_assert(sizeof(kt4Be16) == sizeof(kt4::be16) && sizeof(kt4Be64) == sizeof(kt4::be64));

// The public records declare their integers as byte arrays (C-visible); here they are read
// and written through the library's byte-order field types, which have the same layout.
inline kt4::be16 &be(kt4Be16 &f) {
    return *reinterpret_cast<kt4::be16 *>(&f);
}
inline const kt4::be16 &be(const kt4Be16 &f) {
    return *reinterpret_cast<const kt4::be16 *>(&f);
}
using kt4::ctr::be; // the 32-bit views, shared with the rest of the family
inline kt4::be64 &be(kt4Be64 &f) {
    return *reinterpret_cast<kt4::be64 *>(&f);
}
inline const kt4::be64 &be(const kt4Be64 &f) {
    return *reinterpret_cast<const kt4::be64 *>(&f);
}

inline constexpr char kTag[] = "kt4Radix";
inline constexpr char kRadicalTag[] = "kt4Radical";
inline constexpr char kCarTag[] = "kt4Car";

using Node = kt4RadixNode;
using Entry = kt4RadixEntry;
using Tree = kt4RadixTree;

// Every tree operation starts here: a null handle cannot be used, a damaged magic is reported
// and the operation carries on, as every assertion of the system does.
#define RDX_CHECK(t, tag, fail)                                                                    \
    do {                                                                                           \
        if (KT4_UNLIKELY((t) == nullptr)) {                                                        \
            _kt4Assert("rtt", (tag), __LINE__);                                                    \
            fail;                                                                                  \
        }                                                                                          \
        if (KT4_UNLIKELY(::kt4::radix::be((t)->rtt_magic).get() != KT4_RADIX_MAGIC))               \
            _kt4Assert("rtt->rtt_magic == 0xdeadbeef", (tag), __LINE__);                           \
    } while (0)

inline unsigned bit_of(const Node *n) {
    return be(n->rtn_bit).get();
}
inline uint64_t ver_of(const Node *n) {
    return be(n->rtn_version).get();
}
inline uint64_t ver_of(const Entry *e) {
    return be(e->rth_version).get();
}
inline bool checking(const Tree *t) {
    return t->rtt_check != 0;
}
inline unsigned key_bits(const Tree *t) {
    return be(t->rtt_keylen).get();
}

// Bit i of a key: byte i / 8, mask 0x80 >> (i mod 8).
inline bool test_bit(const uint8_t *key, unsigned i) {
    return (key[i >> 3] & (0x80u >> (i & 7u))) != 0;
}
inline uint8_t mask_of(unsigned bit) {
    return static_cast<uint8_t>(0x80u >> (bit & 7u));
}

inline bool removed(const Node *n) {
    return (n->rtn_flags & KT4_RADIX_RTN_REMOVED) != 0;
}
// An entry a look-up may return: present and not waiting for a walk to complete its removal.
inline bool live(const Node *n) {
    return n->rtn_entry != nullptr && !removed(n);
}

inline uint32_t cl_flags(const Entry *e) {
    return be(e->rth_cl_flags).get();
}
inline bool is_dummy(const Entry *e) {
    return (cl_flags(e) & RDCL_DUMMY) != 0;
}
inline bool on_list(const Entry *e) {
    return (cl_flags(e) & RDCL_ONLIST) != 0;
}

inline Entry *entry_of(kt4DLLLink *l) {
    return l ? KT4_CONTAINER_OF(l, kt4RadixEntry, rdcl_cl) : nullptr;
}

// First bit in [0, limit) where a and b differ; limit when they agree on all of them.
unsigned first_diff(const uint8_t *a, const uint8_t *b, unsigned limit);
inline bool prefix_equal(const uint8_t *a, const uint8_t *b, unsigned bits) {
    return first_diff(a, b, bits) == bits;
}

// Pre-order steps: a node before its left subtree, the left subtree before the right.
inline Node *after_subtree(Node *n, uint64_t min_version) {
    for (Node *p = n->rtn_prev; p != nullptr; n = p, p = p->rtn_prev)
        if (n == p->rtn_left && p->rtn_right != nullptr && ver_of(p->rtn_right) >= min_version)
            return p->rtn_right;
    return nullptr;
}
// The next node, passing over subtrees with nothing changed at or after min_version.
inline Node *preorder_next(Node *n, uint64_t min_version) {
    if (n->rtn_left != nullptr && ver_of(n->rtn_left) >= min_version) return n->rtn_left;
    if (n->rtn_right != nullptr && ver_of(n->rtn_right) >= min_version) return n->rtn_right;
    return after_subtree(n, min_version);
}
inline Node *first_live_from(Node *n) {
    while (n != nullptr && !live(n))
        n = preorder_next(n, 0);
    return n;
}

// Stamps version on the node and every node above it.
inline void stamp_up(Node *n, uint64_t version) {
    for (; n != nullptr; n = n->rtn_prev)
        be(n->rtn_version) = version;
}

// Takes the entry off whichever change list it is on (tree's or outside), clearing the flag.
void unlink_change(Tree *t, Entry *e);
// Takes the entry's node out of the tree (the entry is no longer in it) and hands nothing back.
void delete_entry_node(Tree *t, Node *n);
// Completes a removal that a walk deferred: unlinks, frees the node, hands the entry back.
void complete_removal(Tree *t, Node *n);

// Creation and release, shared by the process-heap and the shared-memory-heap forms.
bool radix_create_args_ok(const char *name, int key_bits);
Tree *radix_init(void *mem, const char *name, int key_bits, kt4RadixAllocFn alloc,
                 kt4RadixFreeFn release, kt4RadixRmFreeFn rmfree, bool shm);
// Readies an empty tree's header for release (false, reported, when it is not empty).
bool radix_teardown(Tree *t);

} // namespace kt4::radix
