// The radix tree: a Patricia tree of bit-string prefixes, the prefix table of the routing
// processes.
//
// Every node carries a prefix length (rtn_bit). An entry node holds a prefix of that length; a
// glue node holds none and only marks the bit where the keys of its two subtrees part. All keys
// of a node's subtree agree on the node's first rtn_bit bits, and a node sends keys whose bit
// rtn_bit is 1 to the right. So a prefix lies above the longer prefixes it covers, and a
// pre-order walk (node, left, right) lists the prefixes in their natural order.
//
// Entries marked removed: a version walk holds a lock count on the node it is calling back on.
// A removal of that entry only marks the node; the walk completes it when it moves on, so the
// callback may drop the entry it was given without pulling the node from under the walk.
#include "containers/radix_impl.h"

#include <algorithm>
#include <cerrno>
#include <array>
#include <cstring>

namespace kt4::radix {

namespace {

// The first set bit of a byte, most significant first (8 for 0).
constexpr std::array<uint8_t, 256> kFirstBit = [] {
    std::array<uint8_t, 256> t{};
    t[0] = 8;
    for (unsigned i = 1; i < 256; ++i) {
        uint8_t b = 0;
        while ((i & (0x80u >> b)) == 0)
            ++b;
        t[i] = b;
    }
    return t;
}();

inline uint64_t load64(const uint8_t *p) {
    uint64_t v;
    std::memcpy(&v, p, sizeof v);
    return v;
}

} // namespace

unsigned first_diff(const uint8_t *a, const uint8_t *b, unsigned limit) {
    const unsigned nbytes = limit >> 3;
    unsigned i = 0;
    // IPv6 keys are compared eight bytes at a time; the bit inside comes from the count of
    // leading zeros of the big-endian difference.
    for (; i + 8 <= nbytes; i += 8) {
        uint64_t x = load64(a + i) ^ load64(b + i);
        if (x != 0) return i * 8 + static_cast<unsigned>(__builtin_clzll(__builtin_bswap64(x)));
    }
    for (; i < nbytes; ++i)
        if (a[i] != b[i]) return i * 8 + kFirstBit[a[i] ^ b[i]];
    if ((limit & 7u) != 0) {
        unsigned x = (a[i] ^ b[i]) & (0xFF00u >> (limit & 7u)) & 0xFFu;
        if (x != 0) return i * 8 + kFirstBit[x];
    }
    return limit;
}

void unlink_change(Tree *t, Entry *e) {
    if (!on_list(e)) return;
    // An entry is on one change list at a time and is unlinked through its own link; the head
    // only serves the list's magic check.
    kt4DLL *head = nullptr;
    if (be(t->rtt_cl_on).get() == 1)
        head = &t->rtt_cl;
    else if (be(t->rtt_car_on).get() == 1 && t->rtt_car != nullptr)
        head = &t->rtt_car->car_cl;
    if (head != nullptr && kt4DLLIsLinked(&e->rdcl_cl)) kt4DLLRemove(head, &e->rdcl_cl);
    be(e->rth_cl_flags) = cl_flags(e) & ~static_cast<uint32_t>(RDCL_ONLIST);
}

namespace {

Node *alloc_node(Tree *t, unsigned bit) {
    auto *n = static_cast<Node *>(t->rtt_malloc(sizeof(Node)));
    if (n == nullptr) return nullptr;
    std::memset(static_cast<void *>(n), 0, sizeof *n);
    be(n->rtn_bit) = static_cast<uint16_t>(bit);
    n->rtn_mask = mask_of(bit);
    ++be(t->rtt_mallocs);
    ++be(t->rtt_inodes);
    return n;
}

void free_node(Tree *t, Node *n) {
    if (n->rtn_lock != 0) _kt4Assert("!((rn)->rtn_lock)", kTag, __LINE__);
    t->rtt_free(n);
    ++be(t->rtt_frees);
    --be(t->rtt_inodes);
}

// Puts nw where old hung below p (the root when p is null).
void replace_child(Tree *t, Node *p, Node *old, Node *nw) {
    if (p == nullptr)
        t->rtt_root = nw;
    else if (p->rtn_left == old)
        p->rtn_left = nw;
    else {
        if (p->rtn_right != old) _kt4Assert("rn_prev->rtn_right == rn", kTag, __LINE__);
        p->rtn_right = nw;
    }
    if (nw != nullptr) nw->rtn_prev = p;
}

// Follows the key's bits from n while the node's prefix is shorter than bitlen; returns the
// last node reached. Only the first bitlen bits of the key are read.
inline Node *descend(Node *n, const uint8_t *key, unsigned bitlen) {
    for (;;) {
        const unsigned b = bit_of(n);
        if (b >= bitlen) return n;
        Node *c = test_bit(key, b) ? n->rtn_right : n->rtn_left;
        if (c == nullptr) return n;
        n = c;
    }
}

// A key of n's subtree: all of them agree on the node's first rtn_bit bits.
inline const uint8_t *subtree_key(Node *n) {
    while (n->rtn_entry == nullptr) {
        Node *c = n->rtn_left != nullptr ? n->rtn_left : n->rtn_right;
        if (c == nullptr) return nullptr;
        n = c;
    }
    return n->rtn_entry->rth_key;
}

// Where a key of bitlen bits belongs: the highest node n whose subtree agrees with the key on
// the first d bits, d being the first bit where the key parts from that subtree (d == bitlen
// when the key covers it, d == rtn_bit of n when the key runs past n into a missing child).
struct Spot {
    Node *n;
    unsigned d;
    const uint8_t *cmp; // a key of n's subtree
};

inline Spot locate(Tree *t, const uint8_t *key, unsigned bitlen) {
    Node *f = descend(t->rtt_root, key, bitlen);
    const uint8_t *cmp = subtree_key(f);
    const unsigned d = first_diff(key, cmp, std::min(bitlen, bit_of(f)));
    Node *n = f;
    while (n->rtn_prev != nullptr && bit_of(n->rtn_prev) >= d)
        n = n->rtn_prev;
    return {n, d, cmp};
}

// The node that holds exactly (key, bitlen), entry or not, or null.
Node *exact_node(Tree *t, const uint8_t *key, unsigned bitlen) {
    Node *n = t->rtt_root;
    while (n != nullptr && bit_of(n) < bitlen)
        n = test_bit(key, bit_of(n)) ? n->rtn_right : n->rtn_left;
    if (n == nullptr || bit_of(n) != bitlen || n->rtn_entry == nullptr) return nullptr;
    return prefix_equal(key, n->rtn_entry->rth_key, bitlen) ? n : nullptr;
}

// The first node in tree order after (key, bitlen) whose entry a look-up may return.
Node *next_node(Tree *t, const uint8_t *key, unsigned bitlen) {
    if (t->rtt_root == nullptr) return nullptr;
    if (key == nullptr) return first_live_from(t->rtt_root);
    const Spot s = locate(t, key, bitlen);
    Node *n = s.n;
    const unsigned nbit = bit_of(n);
    Node *from;
    if (s.d == bitlen) {
        // The key covers n's subtree: n itself comes after it unless it is the key's own node.
        from = nbit == bitlen ? preorder_next(n, 0) : n;
    } else if (s.d == nbit) {
        // The key runs past n into a missing child: n and its left side come before it.
        if (nbit == bitlen) _kt4Assert("rtn->rtn_bit != dbit", kTag, __LINE__);
        if (test_bit(key, s.d))
            from = after_subtree(n, 0);
        else
            from = n->rtn_right != nullptr ? n->rtn_right : after_subtree(n, 0);
    } else {
        // The key parts from all of n's subtree at bit d: the subtree is wholly on one side.
        from = test_bit(key, s.d) ? after_subtree(n, 0) : n;
    }
    return first_live_from(from);
}

// The best match: descend as far as the key's length allows, then climb to the first entry
// that covers the key. A covering entry waiting for its removal ends the search: the caller
// must not be sent to a shorter prefix while the table is in the middle of a change.
Node *best_node(Tree *t, const uint8_t *key, unsigned bitlen) {
    Node *n = t->rtt_root;
    if (n == nullptr) return nullptr;
    // Without a key: the first entry on the climb from the root, the root's own.
    unsigned match = bitlen;
    if (key != nullptr) {
        n = descend(n, key, bitlen);
        // Every entry above n shares n's subtree key on its first rtn_bit bits, so one compare
        // at the bottom tells which of them cover the key: those whose prefix is no longer than
        // the bits the key has in common with that subtree key. The climb then needs no record.
        const uint8_t *sk = subtree_key(n);
        match = sk != nullptr ? first_diff(key, sk, std::min(bitlen, bit_of(n))) : 0;
    }
    for (; n != nullptr; n = n->rtn_prev) {
        if (bit_of(n) > match || n->rtn_entry == nullptr) continue;
        return removed(n) ? nullptr : n;
    }
    return nullptr;
}

inline bool length_ok(Tree *t, int bitlen) {
    if (bitlen < 0) return false;
    return !checking(t) || static_cast<unsigned>(bitlen) <= key_bits(t);
}

void init_header(Tree *t, const char *name, int key_bits_, kt4RadixAllocFn alloc,
                 kt4RadixFreeFn release, kt4RadixRmFreeFn rmfree, bool shm) {
    std::memset(static_cast<void *>(t), 0, sizeof *t);
    be(t->rtt_magic) = KT4_RADIX_MAGIC;
    if (name != nullptr) std::strncpy(t->rtt_name, name, KT4_RADIX_NAME_MAX);
    t->rtt_name[KT4_RADIX_NAME_MAX] = '\0';
    be(t->rtt_keylen) = static_cast<uint16_t>(key_bits_);
    t->rtt_check = 1;
    t->rtt_malloc = alloc != nullptr ? alloc : kt4RadixMalloc;
    t->rtt_free = release != nullptr ? release : kt4RadixFree;
    t->rtt_rmfree = rmfree;
    kt4DLLInit(&t->rtt_cl);
    t->rtt_shm = shm ? 1 : 0;
}

} // namespace

void delete_entry_node(Tree *t, Node *n) {
    n->rtn_entry = nullptr;
    n->rtn_flags = 0;
    if (n->rtn_left != nullptr && n->rtn_right != nullptr) return; // stays as their glue
    Node *child = n->rtn_left != nullptr ? n->rtn_left : n->rtn_right;
    Node *p = n->rtn_prev;
    replace_child(t, p, n, child);
    free_node(t, n);
    if (child == nullptr && p != nullptr && p->rtn_entry == nullptr) {
        // The parent was glue; with one child left it no longer separates anything.
        Node *c = p->rtn_left != nullptr ? p->rtn_left : p->rtn_right;
        replace_child(t, p->rtn_prev, p, c);
        free_node(t, p);
    }
}

void complete_removal(Tree *t, Node *n) {
    Entry *e = n->rtn_entry;
    unlink_change(t, e);
    e->rth_rtn = nullptr;
    delete_entry_node(t, n);
    if (t->rtt_rmfree != nullptr) {
        ++be(t->rtt_ufrees);
        t->rtt_rmfree(e);
    }
}

// Shared by the two create calls: the header's memory comes from the caller's heap.
Tree *radix_init(void *mem, const char *name, int key_bits_, kt4RadixAllocFn alloc,
                 kt4RadixFreeFn release, kt4RadixRmFreeFn rmfree, bool shm) {
    auto *t = static_cast<Tree *>(mem);
    init_header(t, name, key_bits_, alloc, release, rmfree, shm);
    return t;
}

bool radix_create_args_ok(const char *name, int key_bits_) {
    if (name == nullptr) _kt4Assert("rtt_name", kTag, __LINE__);
    if (key_bits_ <= 0 || key_bits_ > 0xFFFF) {
        _kt4Assert("keylen > 0 && keylen <= 0xffff", kTag, __LINE__);
        return false;
    }
    return true;
}

// Readies a header for release: it must be empty; cursors and the outside list let go of it.
bool radix_teardown(Tree *t) {
    if (t->rtt_root != nullptr) {
        // The tree keeps its nodes and its header: the caller removes the entries first.
        _kt4Assert("!rtt->rtt_root", kTag, __LINE__);
        errno = ENOTEMPTY;
        return false;
    }
    for (kt4DLLLink *l = kt4DLLGetFirst(&t->rtt_cl); l != nullptr; l = kt4DLLGetFirst(&t->rtt_cl)) {
        Entry *d = entry_of(l);
        kt4DLLRemove(&t->rtt_cl, l);
        be(d->rth_cl_flags) = 0;
    }
    if (t->rtt_car != nullptr) {
        if (be(t->rtt_car->car_trees).get() > 0) --be(t->rtt_car->car_trees);
        t->rtt_car = nullptr;
        be(t->rtt_car_on) = 0;
    }
    be(t->rtt_magic) = 0;
    return true;
}

} // namespace kt4::radix

using namespace kt4::radix;

extern "C" {

void *kt4RadixMalloc(size_t size) {
    return kt4MC_malloc(kTag, __LINE__, size);
}

void kt4RadixFree(void *node) {
    kt4MC_free(kTag, __LINE__, node);
}

kt4RadixTree *kt4RadixCreate(const char *name, int keyBits, kt4RadixAllocFn alloc,
                             kt4RadixFreeFn release, kt4RadixRmFreeFn rmfree) {
    if (!radix_create_args_ok(name, keyBits)) return nullptr;
    void *mem = kt4MC_malloc(kTag, __LINE__, sizeof(Tree));
    if (mem == nullptr) return nullptr;
    return radix_init(mem, name, keyBits, alloc, release, rmfree, false);
}

STATUS kt4RadixDestroy(kt4RadixTree *tree) {
    RDX_CHECK(tree, kTag, return ERROR);
    if (!radix_teardown(tree)) return ERROR;
    kt4MC_free(kTag, __LINE__, tree);
    return OK;
}

int kt4RadixDebug(kt4RadixTree *tree, int on) {
    RDX_CHECK(tree, kTag, return 0);
    tree->rtt_check = on == 1 ? 1 : 0;
    return 1;
}

void kt4RadixGetStats(const kt4RadixTree *tree, kt4RadixStats *s) {
    RDX_CHECK(tree, kTag, return (void)0);
    if (s == nullptr) return;
    s->internalNodes = be(tree->rtt_inodes);
    s->userNodes = be(tree->rtt_unodes);
    s->inserts = be(tree->rtt_inserts);
    s->removes = be(tree->rtt_removes);
    s->mallocs = be(tree->rtt_mallocs);
    s->frees = be(tree->rtt_frees);
    s->userFrees = be(tree->rtt_ufrees);
    s->versionWraps = be(tree->rtt_wraps);
    s->readers = be(tree->rtt_readers);
    s->version = be(tree->rtt_version);
    s->keyLength = be(tree->rtt_keylen);
}

kt4RadixEntry *kt4RadixInsert(kt4RadixTree *t, kt4RadixEntry *rth, int bitlen) {
    RDX_CHECK(t, kTag, return nullptr);
    if (rth == nullptr) {
        _kt4Assert("rth", kTag, __LINE__);
        errno = EINVAL;
        return nullptr;
    }
    if (rth->rth_addr == nullptr) {
        _kt4Assert("rth->rth_addr", kTag, __LINE__);
        errno = EINVAL;
        return nullptr;
    }
    rth->rth_key = rth->rth_addr;
    if (checking(t)) {
        // Callers recycle records: whatever an earlier life left in the header is dropped.
        rth->rth_rtn = nullptr;
        be(rth->rth_version) = 0;
        if (be(t->rtt_cl_on).get() == 1 || be(t->rtt_car_on).get() == 1) {
            be(rth->rth_cl_flags) = 0;
            rth->rdcl_cl.next = rth->rdcl_cl.prev = nullptr;
        }
    }
    if (!length_ok(t, bitlen)) {
        errno = EINVAL;
        return nullptr;
    }
    const auto L = static_cast<unsigned>(bitlen);
    const uint8_t *key = rth->rth_key;
    ++be(t->rtt_inserts);

    if (t->rtt_root == nullptr) {
        Node *n = alloc_node(t, L);
        if (n == nullptr) {
            errno = ENOMEM;
            return nullptr;
        }
        n->rtn_entry = rth;
        rth->rth_rtn = n;
        t->rtt_root = n;
        ++be(t->rtt_unodes);
        return rth;
    }

    const Spot s = locate(t, key, L);
    Node *n = s.n;
    const unsigned d = s.d;
    const unsigned nbit = bit_of(n);

    if (d == L && nbit == L) {
        Entry *old = n->rtn_entry;
        if (old != nullptr && !removed(n)) return old;
        if (old != nullptr) {
            // The prefix's old entry was waiting for a walk to complete its removal: it leaves
            // now, and the new one takes its node (and the walk's lock with it).
            old->rth_key = nullptr;
            old->rth_rtn = nullptr;
            unlink_change(t, old);
            if (t->rtt_rmfree != nullptr) {
                ++be(t->rtt_ufrees);
                t->rtt_rmfree(old);
            }
        }
        n->rtn_entry = rth;
        n->rtn_flags = static_cast<uint8_t>(n->rtn_flags & ~KT4_RADIX_RTN_REMOVED);
        rth->rth_rtn = n;
        ++be(t->rtt_unodes);
        return rth;
    }

    Node *x = alloc_node(t, L);
    if (x == nullptr) {
        errno = ENOMEM;
        return nullptr;
    }
    x->rtn_entry = rth;

    if (d != nbit) {
        Node *top;
        if (d != L) {
            // The key parts from n's subtree at bit d: a glue node at d holds both.
            Node *g = alloc_node(t, d);
            if (g == nullptr) {
                t->rtt_free(x);
                ++be(t->rtt_frees);
                --be(t->rtt_inodes);
                errno = ENOMEM;
                return nullptr;
            }
            if (test_bit(key, d)) {
                g->rtn_right = x;
                g->rtn_left = n;
            } else {
                g->rtn_left = x;
                g->rtn_right = n;
            }
            x->rtn_prev = g;
            top = g;
        } else {
            // The new prefix covers n's subtree: it takes the subtree below itself.
            if (test_bit(s.cmp, L))
                x->rtn_right = n;
            else
                x->rtn_left = n;
            top = x;
        }
        // What changed below n is still below the node that takes n's place.
        top->rtn_version = n->rtn_version;
        Node *p = n->rtn_prev;
        top->rtn_prev = p;
        if (p == nullptr)
            t->rtt_root = top;
        else if (p->rtn_right == n)
            p->rtn_right = top;
        else {
            if (p->rtn_left != n) _kt4Assert("rtn_prev->rtn_left == rtn", kTag, __LINE__);
            p->rtn_left = top;
        }
        n->rtn_prev = top;
    } else {
        // The key runs past n into a missing child: the new node becomes that child.
        if (!(d < L)) _kt4Assert("dbit < bitlen", kTag, __LINE__);
        if (test_bit(key, d)) {
            if (n->rtn_right != nullptr) _kt4Assert("!(rtn->rtn_right)", kTag, __LINE__);
            n->rtn_right = x;
        } else {
            if (n->rtn_left != nullptr) _kt4Assert("!(rtn->rtn_left)", kTag, __LINE__);
            n->rtn_left = x;
        }
        x->rtn_prev = n;
    }
    rth->rth_rtn = x;
    ++be(t->rtt_unodes);
    return rth;
}

void kt4RadixRemove(kt4RadixTree *t, kt4RadixEntry *rth) {
    RDX_CHECK(t, kTag, return (void)0);
    if (rth == nullptr) {
        _kt4Assert("rth", kTag, __LINE__);
        return;
    }
    Node *n = rth->rth_rtn;
    if (n == nullptr || n->rtn_entry != rth) {
        _kt4Assert("rtn", kTag, __LINE__);
        return;
    }
    if (removed(n)) return; // already removed, a walk is to complete it
    ++be(t->rtt_removes);
    --be(t->rtt_unodes);
    if (n->rtn_lock != 0) {
        if (t->rtt_rmfree == nullptr) _kt4Assert("rtt->rtt_rmfree", kTag, __LINE__);
        n->rtn_flags = static_cast<uint8_t>(n->rtn_flags | KT4_RADIX_RTN_REMOVED);
        return;
    }
    unlink_change(t, rth);
    rth->rth_rtn = nullptr;
    delete_entry_node(t, n);
}

kt4RadixEntry *kt4RadixGetExact(kt4RadixTree *t, const void *key, int bitlen) {
    RDX_CHECK(t, kTag, return nullptr);
    if (key == nullptr || !length_ok(t, bitlen)) return nullptr;
    Node *n = exact_node(t, static_cast<const uint8_t *>(key), static_cast<unsigned>(bitlen));
    return n != nullptr && !removed(n) ? n->rtn_entry : nullptr;
}

kt4RadixEntry *kt4RadixGetBest(kt4RadixTree *t, const void *key, int bitlen) {
    RDX_CHECK(t, kTag, return nullptr);
    if (!length_ok(t, bitlen)) return nullptr;
    Node *n = best_node(t, static_cast<const uint8_t *>(key), static_cast<unsigned>(bitlen));
    return n != nullptr ? n->rtn_entry : nullptr;
}

kt4RadixEntry *kt4RadixGetNextBest(kt4RadixTree *t, const void *key, int bitlen) {
    RDX_CHECK(t, kTag, return nullptr);
    if (bitlen <= 0 || !length_ok(t, bitlen)) return nullptr;
    Node *n = best_node(t, static_cast<const uint8_t *>(key), static_cast<unsigned>(bitlen - 1));
    return n != nullptr ? n->rtn_entry : nullptr;
}

kt4RadixEntry *kt4RadixGetBestAndPrev(kt4RadixTree *t, const void *key, int bitlen,
                                      kt4RadixEntry **prev) {
    RDX_CHECK(t, kTag, return nullptr);
    if (prev != nullptr) *prev = nullptr;
    if (!length_ok(t, bitlen)) return nullptr;
    Node *n = best_node(t, static_cast<const uint8_t *>(key), static_cast<unsigned>(bitlen));
    if (n == nullptr) return nullptr;
    if (prev != nullptr)
        for (Node *p = n->rtn_prev; p != nullptr; p = p->rtn_prev)
            if (live(p)) {
                *prev = p->rtn_entry;
                break;
            }
    return n->rtn_entry;
}

kt4RadixEntry *kt4RadixGetLessSpecific(kt4RadixTree *t, kt4RadixEntry *rth) {
    RDX_CHECK(t, kTag, return nullptr);
    if (rth == nullptr) {
        if (checking(t)) _kt4Assert("rth", kTag, __LINE__);
        return nullptr;
    }
    Node *n = rth->rth_rtn;
    if (n == nullptr) {
        _kt4Assert("rtn", kTag, __LINE__);
        return nullptr;
    }
    for (Node *p = n->rtn_prev; p != nullptr; p = p->rtn_prev)
        if (live(p)) return p->rtn_entry;
    return nullptr;
}

kt4RadixEntry *kt4RadixGetNext(kt4RadixTree *t, const void *key, int bitlen) {
    RDX_CHECK(t, kTag, return nullptr);
    if (key != nullptr && !length_ok(t, bitlen)) return nullptr;
    Node *n = next_node(t, static_cast<const uint8_t *>(key), static_cast<unsigned>(bitlen));
    return n != nullptr ? n->rtn_entry : nullptr;
}

kt4RadixNode *_kt4RadixGetSubTree(kt4RadixTree *t, const void *key, int bitlen) {
    RDX_CHECK(t, kTag, return nullptr);
    if (key == nullptr || !length_ok(t, bitlen)) return nullptr;
    const auto *k = static_cast<const uint8_t *>(key);
    const auto L = static_cast<unsigned>(bitlen);
    if (Node *n = exact_node(t, k, L)) return n;
    Node *n = next_node(t, k, L);
    if (n == nullptr || bit_of(n) < L || !prefix_equal(k, n->rtn_entry->rth_key, L)) return nullptr;
    while (n->rtn_prev != nullptr && bit_of(n->rtn_prev) >= L)
        n = n->rtn_prev;
    return n;
}

kt4RadixNode *kt4RadixGetParent(kt4RadixTree *t, kt4RadixNode *node) {
    RDX_CHECK(t, kTag, return nullptr);
    if (node == nullptr) {
        if (checking(t)) _kt4Assert("rtn", kTag, __LINE__);
        return nullptr;
    }
    return node->rtn_prev;
}

BOOL kt4RadixNodeIsLeaf(kt4RadixTree *t, kt4RadixNode *node) {
    RDX_CHECK(t, kTag, return FALSE);
    if (node == nullptr) {
        if (checking(t)) _kt4Assert("rtn", kTag, __LINE__);
        return FALSE;
    }
    return node->rtn_left == nullptr && node->rtn_right == nullptr ? TRUE : FALSE;
}

kt4RadixEntry *kt4RadixWalk(kt4RadixTree *t, kt4RadixEntry *start, kt4RadixWalkFn fn, ...) {
    RDX_CHECK(t, kTag, return nullptr);
    if (fn == nullptr) {
        _kt4Assert("fn", kTag, __LINE__);
        return nullptr;
    }
    Node *n;
    if (start != nullptr) {
        if (start->rth_rtn == nullptr || start->rth_rtn->rtn_entry != start) {
            _kt4Assert("rtn", kTag, __LINE__);
            return nullptr;
        }
        n = first_live_from(start->rth_rtn);
    } else {
        n = t->rtt_root != nullptr ? first_live_from(t->rtt_root) : nullptr;
    }
    if (n == nullptr) return nullptr;

    // The callback may change the tree in any way. While no entry left it, every node is where
    // it was and the walk steps on from the node; otherwise it finds its place again by the
    // key, which is copied beforehand because the record may be gone.
    const unsigned key_bytes = (key_bits(t) + 7) / 8;
    uint8_t small[32];
    uint8_t *saved = small;
    if (key_bytes > sizeof small) {
        saved = static_cast<uint8_t *>(kt4MC_malloc(kTag, __LINE__, key_bytes));
        if (saved == nullptr) return nullptr;
    }
    va_list args;
    va_start(args, fn);
    Entry *resume = nullptr;
    while (n != nullptr) {
        Entry *e = n->rtn_entry;
        const unsigned len = bit_of(n);
        std::memcpy(saved, e->rth_key, (len + 7) / 8);
        const uint32_t removes = be(t->rtt_removes);
        va_list ap;
        va_copy(ap, args);
        const int r = fn(e, &ap);
        va_end(ap);
        const bool intact = be(t->rtt_removes).get() == removes;
        if (r < 0) {
            Node *same = intact ? n : exact_node(t, saved, len);
            if (same != nullptr && live(same)) {
                resume = same->rtn_entry;
                break;
            }
        }
        n = intact ? first_live_from(preorder_next(n, 0)) : next_node(t, saved, len);
        if (r != 0) {
            resume = n != nullptr ? n->rtn_entry : nullptr;
            break;
        }
    }
    va_end(args);
    if (saved != small) kt4MC_free(kTag, __LINE__, saved);
    return resume;
}

uint64_t kt4RadixSetVersion(kt4RadixTree *t, kt4RadixEntry *rth) {
    RDX_CHECK(t, kTag, return 0);
    if (rth == nullptr) {
        if (checking(t)) _kt4Assert("rth", kTag, __LINE__);
        return 0;
    }
    Node *n = rth->rth_rtn;
    if (n == nullptr) {
        _kt4Assert("rtn", kTag, __LINE__);
        return 0;
    }
    const uint64_t v = be(t->rtt_version).get() + 1;
    be(t->rtt_version) = v;
    if (v == 0) ++be(t->rtt_wraps);
    be(rth->rth_version) = v;
    stamp_up(n, v);
    return v;
}

void kt4RadixTreeVersionSet(kt4RadixTree *t, uint64_t version) {
    RDX_CHECK(t, kTag, return (void)0);
    be(t->rtt_version) = version;
}

kt4RadixEntry *kt4RadixVersionWalk(kt4RadixTree *t, kt4RadixEntry *start, kt4RadixWalkFn fn,
                                   uint32_t batch, uint64_t minVersion, uint64_t maxVersion,
                                   void *yieldArg, ...) {
    RDX_CHECK(t, kTag, return nullptr);
    if (fn == nullptr) {
        _kt4Assert("fn", kTag, __LINE__);
        return nullptr;
    }
    Node *n;
    if (start != nullptr) {
        n = start->rth_rtn;
        if (n == nullptr || n->rtn_entry != start) {
            _kt4Assert("rtn", kTag, __LINE__);
            return nullptr;
        }
    } else {
        n = t->rtt_root;
        if (n != nullptr && ver_of(n) < minVersion) return nullptr; // nothing changed since
    }
    auto wanted = [&](const Node *m) {
        if (!live(m)) return false;
        const uint64_t v = ver_of(m->rtn_entry);
        return v >= minVersion && v <= maxVersion;
    };

    va_list args;
    va_start(args, yieldArg);
    uint32_t in_batch = 0;
    Entry *resume = nullptr;
    while (n != nullptr) {
        int r = 0;
        Entry *e = n->rtn_entry;
        if (wanted(n)) {
            // The lock keeps the node in place across the callback and the yield: a removal of
            // its entry meanwhile only marks it, and is completed below.
            ++n->rtn_lock;
            va_list ap;
            va_copy(ap, args);
            r = fn(e, &ap);
            va_end(ap);
            if (batch != 0 && ++in_batch >= batch) {
                in_batch = 0;
                if (yieldArg != nullptr) kt4ThreadYield(yieldArg);
            }
            --n->rtn_lock;
            if (r < 0 && n->rtn_entry == e && !removed(n)) {
                resume = e;
                break;
            }
        }
        Node *next = preorder_next(n, minVersion);
        if (n->rtn_lock == 0 && removed(n)) complete_removal(t, n);
        if (r != 0) {
            while (next != nullptr && !wanted(next))
                next = preorder_next(next, minVersion);
            resume = next != nullptr ? next->rtn_entry : nullptr;
            break;
        }
        n = next;
    }
    va_end(args);
    return resume;
}

} // extern "C"
