// The red-black tree: an ordered map of caller-owned records, one node per entry.
//
// Searches are the hot path of every protocol table built on this tree, so each one reads the
// compare mode once and runs a loop specialised for it: the built-in integer compares load the
// search key once and compare in registers instead of calling through a pointer per level. The
// function pointer is still honoured for records the fast loop cannot read (a null record while
// debugging is off), so the built-in compares' own assertions fire exactly as they would.
//
// While descending, both children of the current node are prefetched: the record's key is a
// second dependent load per level (node, then record), and fetching the next node while the
// record is on its way halves the memory stalls of a search in a table larger than the cache.
#include "containers/internal.h"

#include <cerrno>
#include <cstdio>
#include <cstring>

using namespace kt4::ctr;

namespace {

constexpr const char *kTag = kRBTreeTag;
constexpr uint32_t kMaxVisitsUnlimited = 0xFFFFFFFFu;

using Node = kt4RBTreeNode;
using Tree = kt4RBTree;

#define RBT_DATA(t, d)                                                                             \
    do {                                                                                           \
        if (KT4_UNLIKELY((d) == nullptr) && be((t)->rbtt_debug).get() == 1)                        \
            _kt4Assert("data", kTag, __LINE__);                                                    \
    } while (0)

inline Node *nil_of(Tree *t) {
    return &t->rbtt_nil;
}

template <typename K> inline K key_at(const void *rec, uint32_t off) {
    K v;
    std::memcpy(&v, static_cast<const char *>(rec) + off, sizeof v);
    return v;
}

// compare(tree, key, record) as a callable over the record, one kind per compare mode.
template <typename K, int (*Checked)(Tree *, const void *, const void *)> struct BuiltinCmp {
    Tree *t;
    const void *key;
    K k;
    uint32_t off;
    int operator()(const void *rec) const {
        if (KT4_UNLIKELY(rec == nullptr)) return Checked(t, key, rec);
        const K v = key_at<K>(rec, off);
        return k < v ? -1 : k != v;
    }
};

struct FnCmp {
    Tree *t;
    const void *key;
    kt4RBTreeCompareFn fn;
    int operator()(const void *rec) const { return fn(t, key, rec); }
};

// Runs body(cmp) with the compare specialised for the tree's mode.
template <typename Body> inline auto with_cmp(Tree *t, const void *key, Body &&body) {
    const uint32_t mode = be(t->rbtt_cmpmode);
    if (KT4_LIKELY(key != nullptr) && (mode & (KT4_RBTREE_CMP_UL | KT4_RBTREE_CMP_I))) {
        const uint32_t off = be(t->rbtt_keyoff);
        if (mode & KT4_RBTREE_CMP_UL)
            return body(
                BuiltinCmp<uint32_t, _RBTCompareUL>{t, key, key_at<uint32_t>(key, off), off});
        return body(BuiltinCmp<int32_t, _RBTCompareI>{t, key, key_at<int32_t>(key, off), off});
    }
    kt4RBTreeCompareFn fn = (mode & KT4_RBTREE_CMP_UL)  ? _RBTCompareUL
                            : (mode & KT4_RBTREE_CMP_I) ? _RBTCompareI
                                                        : t->rbtt_compare;
    return body(FnCmp{t, key, fn});
}

inline void prefetch_children(const Node *n) {
    __builtin_prefetch(n->left);
    __builtin_prefetch(n->right);
}

inline Node *minimum(Node *n, Node *nil) {
    while (n->left != nil)
        n = n->left;
    return n;
}

inline Node *maximum(Node *n, Node *nil) {
    while (n->right != nil)
        n = n->right;
    return n;
}

inline Node *successor(Node *n, Node *nil) {
    if (n->right != nil) return minimum(n->right, nil);
    Node *p = n->parent;
    while (p != nil && n == p->right) {
        n = p;
        p = p->parent;
    }
    return p;
}

inline Node *predecessor(Node *n, Node *nil) {
    if (n->left != nil) return maximum(n->left, nil);
    Node *p = n->parent;
    while (p != nil && n == p->left) {
        n = p;
        p = p->parent;
    }
    return p;
}

inline Node *or_null(Node *n, Node *nil) {
    return n == nil ? nullptr : n;
}

Node *find_exact(Tree *t, const void *key) {
    Node *nil = nil_of(t);
    return with_cmp(t, key, [&](auto cmp) -> Node * {
        Node *n = t->rbtt_root;
        while (n != nil) {
            prefetch_children(n);
            int c = cmp(n->data);
            if (c == 0) return n;
            n = c < 0 ? n->left : n->right;
        }
        return nullptr;
    });
}

Node *find_exact_or_next(Tree *t, const void *key) {
    Node *nil = nil_of(t);
    return with_cmp(t, key, [&](auto cmp) -> Node * {
        Node *n = t->rbtt_root;
        if (n == nil) return nullptr;
        for (;;) {
            prefetch_children(n);
            int c = cmp(n->data);
            if (c == 0) return n;
            if (c < 0) {
                if (n->left == nil) return n;
                n = n->left;
            } else {
                if (n->right == nil) return or_null(successor(n, nil), nil);
                n = n->right;
            }
        }
    });
}

Node *find_exact_or_prev(Tree *t, const void *key) {
    Node *nil = nil_of(t);
    return with_cmp(t, key, [&](auto cmp) -> Node * {
        Node *n = t->rbtt_root;
        if (n == nil) return nullptr;
        for (;;) {
            prefetch_children(n);
            int c = cmp(n->data);
            if (c == 0) return n;
            if (c > 0) {
                if (n->right == nil) return n;
                n = n->right;
            } else {
                if (n->left == nil) return or_null(predecessor(n, nil), nil);
                n = n->left;
            }
        }
    });
}

// ---- rotations and repairs (the nil node is never written except its parent in delete) ----

inline void rotate_left(Tree *t, Node *x) {
    Node *nil = nil_of(t);
    Node *y = x->right;
    x->right = y->left;
    if (y->left != nil) y->left->parent = x;
    y->parent = x->parent;
    if (x->parent == nil)
        t->rbtt_root = y;
    else if (x == x->parent->left)
        x->parent->left = y;
    else
        x->parent->right = y;
    y->left = x;
    x->parent = y;
}

inline void rotate_right(Tree *t, Node *x) {
    Node *nil = nil_of(t);
    Node *y = x->left;
    x->left = y->right;
    if (y->right != nil) y->right->parent = x;
    y->parent = x->parent;
    if (x->parent == nil)
        t->rbtt_root = y;
    else if (x == x->parent->right)
        x->parent->right = y;
    else
        x->parent->left = y;
    y->right = x;
    x->parent = y;
}

void insert_repair(Tree *t, Node *z) {
    while (z->parent->colour == KT4_RBTREE_RED) {
        Node *p = z->parent;
        Node *g = p->parent;
        if (p == g->left) {
            Node *u = g->right;
            if (u->colour == KT4_RBTREE_RED) {
                p->colour = KT4_RBTREE_BLACK;
                u->colour = KT4_RBTREE_BLACK;
                g->colour = KT4_RBTREE_RED;
                z = g;
                continue;
            }
            if (z == p->right) {
                z = p;
                rotate_left(t, z);
                p = z->parent;
            }
            p->colour = KT4_RBTREE_BLACK;
            g->colour = KT4_RBTREE_RED;
            rotate_right(t, g);
        } else {
            Node *u = g->left;
            if (u->colour == KT4_RBTREE_RED) {
                p->colour = KT4_RBTREE_BLACK;
                u->colour = KT4_RBTREE_BLACK;
                g->colour = KT4_RBTREE_RED;
                z = g;
                continue;
            }
            if (z == p->left) {
                z = p;
                rotate_right(t, z);
                p = z->parent;
            }
            p->colour = KT4_RBTREE_BLACK;
            g->colour = KT4_RBTREE_RED;
            rotate_left(t, g);
        }
    }
    t->rbtt_root->colour = KT4_RBTREE_BLACK;
}

void remove_repair(Tree *t, Node *x) {
    while (x != t->rbtt_root && x->colour == KT4_RBTREE_BLACK) {
        Node *p = x->parent;
        if (x == p->left) {
            Node *w = p->right;
            if (w->colour == KT4_RBTREE_RED) {
                w->colour = KT4_RBTREE_BLACK;
                p->colour = KT4_RBTREE_RED;
                rotate_left(t, p);
                w = p->right;
            }
            if (w->left->colour == KT4_RBTREE_BLACK && w->right->colour == KT4_RBTREE_BLACK) {
                w->colour = KT4_RBTREE_RED;
                x = p;
                continue;
            }
            if (w->right->colour == KT4_RBTREE_BLACK) {
                w->left->colour = KT4_RBTREE_BLACK;
                w->colour = KT4_RBTREE_RED;
                rotate_right(t, w);
                w = p->right;
            }
            w->colour = p->colour;
            p->colour = KT4_RBTREE_BLACK;
            w->right->colour = KT4_RBTREE_BLACK;
            rotate_left(t, p);
        } else {
            Node *w = p->left;
            if (w->colour == KT4_RBTREE_RED) {
                w->colour = KT4_RBTREE_BLACK;
                p->colour = KT4_RBTREE_RED;
                rotate_right(t, p);
                w = p->left;
            }
            if (w->right->colour == KT4_RBTREE_BLACK && w->left->colour == KT4_RBTREE_BLACK) {
                w->colour = KT4_RBTREE_RED;
                x = p;
                continue;
            }
            if (w->left->colour == KT4_RBTREE_BLACK) {
                w->right->colour = KT4_RBTREE_BLACK;
                w->colour = KT4_RBTREE_RED;
                rotate_left(t, w);
                w = p->left;
            }
            w->colour = p->colour;
            p->colour = KT4_RBTREE_BLACK;
            w->left->colour = KT4_RBTREE_BLACK;
            rotate_right(t, p);
        }
        x = t->rbtt_root;
    }
    x->colour = KT4_RBTREE_BLACK;
}

// Puts v where u hangs (v may be nil: its parent is then set for the repair's sake).
inline void transplant(Tree *t, Node *u, Node *v) {
    if (u->parent == nil_of(t))
        t->rbtt_root = v;
    else if (u == u->parent->left)
        u->parent->left = v;
    else
        u->parent->right = v;
    v->parent = u->parent;
}

void splice_out(Tree *t, Node *z) {
    Node *nil = nil_of(t);
    Node *x;
    uint8_t spliced_colour = z->colour;
    if (z->left == nil) {
        x = z->right;
        transplant(t, z, z->right);
    } else if (z->right == nil) {
        x = z->left;
        transplant(t, z, z->left);
    } else {
        // Two children: the successor leaves its own place and takes z's, links and colour;
        // records never move between nodes, so every other entry keeps its node.
        Node *y = minimum(z->right, nil);
        spliced_colour = y->colour;
        x = y->right;
        if (y->parent == z) {
            x->parent = y;
        } else {
            transplant(t, y, y->right);
            y->right = z->right;
            y->right->parent = y;
        }
        transplant(t, z, y);
        y->left = z->left;
        y->left->parent = y;
        y->colour = z->colour;
    }
    if (spliced_colour == KT4_RBTREE_BLACK) remove_repair(t, x);
    nil->parent = nil;
    nil->colour = KT4_RBTREE_BLACK;
}

// ---- walk ----

enum class WalkState { Descending, Climbing };

Node *walk(Tree *t, const void *start, kt4RBTreeVisitFn visit, uint32_t max_visits, uint32_t flags,
           va_list *args) {
    Node *nil = nil_of(t);
    uint32_t left = max_visits == 0 ? kMaxVisitsUnlimited : max_visits;
    const bool pre = (flags & KT4_RBTREE_WALK_PREORDER) != 0;
    if (t->rbtt_root == nil) return nullptr;

    // True when the walk stops at n: visit said so or the maximum is used up.
    auto visit_stops = [&](Node *n) {
        int rc = 0;
        if (visit != nullptr) {
            if (args != nullptr) {
                va_list ap;
                va_copy(ap, *args);
                rc = visit(t, n->data, &ap);
                va_end(ap);
            } else {
                rc = visit(t, n->data, nullptr);
            }
        }
        return rc != 0 || --left == 0;
    };

    Node *n = t->rbtt_root;
    WalkState state = WalkState::Descending;
    // A start key positions the walk just after exact-or-next of the key, as if that entry
    // had been visited; without such an entry the whole tree is walked.
    Node *s = start != nullptr ? find_exact_or_next(t, start) : nullptr;
    if (s != nullptr) {
        if (s->right != nil) {
            n = s->right;
        } else {
            n = s;
            state = WalkState::Climbing;
        }
    }

    for (;;) {
        switch (state) {
        case WalkState::Descending:
            if (pre) {
                bool stop = visit_stops(n);
                if (n->left != nil) {
                    // The stop is reported at the left child already stepped into.
                    n = n->left;
                    if (stop) return n;
                    continue;
                }
                if (stop) return n;
            } else if (n->left != nil) {
                n = n->left;
                continue;
            } else if (visit_stops(n)) {
                return n;
            }
            if (n->right != nil)
                n = n->right;
            else
                state = WalkState::Climbing;
            continue;
        case WalkState::Climbing:
            while (n->parent != nil && n == n->parent->right)
                n = n->parent;
            n = n->parent;
            if (n == nil) return nullptr;
            // Back from the left subtree: in order, this is the node's turn.
            if (!pre && visit_stops(n)) return n;
            if (n->right != nil) {
                n = n->right;
                state = WalkState::Descending;
            }
            continue;
        default:
            _kt4Assert("0", kTag, __LINE__);
            return nullptr;
        }
    }
}

// ---- print ----

void number_depths(Node *n, Node *nil, unsigned depth) {
    while (n != nil) {
        n->depth = static_cast<uint8_t>(depth);
        number_depths(n->left, nil, depth + 1);
        n = n->right;
        ++depth;
    }
}

constexpr int kIndentChars = 32;
constexpr int kIndentPerLevel = 3;

void print_node(Node *n, Node *nil, kt4RBTreePrintFn print_fn, char *indent) {
    const int depth = n->depth;
    char depth_text[8];
    std::snprintf(depth_text, sizeof depth_text, "%3d", depth);
    for (char *c = depth_text; *c == ' '; ++c)
        *c = '-';
    std::printf("\t\t%.*s+-%s%s%s+", kIndentPerLevel * depth, indent, depth_text,
                depth <= 9 ? "-" : "", n->colour == KT4_RBTREE_RED ? "R" : "B");
    if (n->data != nullptr && print_fn != nullptr)
        std::printf("--[%s\n", print_fn(n->data));
    else
        std::printf("\n");

    // The column of this level carries a bar down to the left child while the right subtree
    // (printed first) is listed.
    const int col = kIndentPerLevel * depth;
    const bool in_buffer = col + kIndentPerLevel <= kIndentChars;
    if (n->right != nil) {
        if (in_buffer) std::memcpy(indent + col, n->left != nil ? "|  " : "   ", kIndentPerLevel);
        print_node(n->right, nil, print_fn, indent);
    }
    if (n->left != nil) {
        if (in_buffer) std::memcpy(indent + col, "   ", kIndentPerLevel);
        print_node(n->left, nil, print_fn, indent);
    }
}

template <typename K> int builtin_compare(Tree *t, const void *a, const void *b) {
    if (a == nullptr) _kt4Assert("one", kTag, __LINE__);
    if (b == nullptr) _kt4Assert("two", kTag, __LINE__);
    // Reported above; a null record then sorts before every other so that nothing is read.
    if (a == nullptr || b == nullptr) return (a != nullptr) - (b != nullptr);
    const uint32_t off = t != nullptr ? be(t->rbtt_keyoff).get() : 0;
    K x = key_at<K>(a, off), y = key_at<K>(b, off);
    return (x > y) - (x < y);
}

} // namespace

// Lays out a zero-filled header: shared by the private and the shared-memory trees.
kt4RBTree *kt4::ctr::rbtree_init_header(kt4RBTree *t, const char *name, uint32_t key_offset,
                                        uint32_t key_length, kt4RBTreeAllocFn alloc,
                                        kt4RBTreeFreeFn release, kt4RBTreeCompareFn compare) {
    be(t->rbtt_magic) = KT4_RBTREE_MAGIC;
    be(t->rbtt_debug) = 1;
    if (name == nullptr)
        _kt4Assert("rbtt_name", kRBTreeTag, __LINE__);
    else
        std::strncpy(t->rbtt_name, name, KT4_RBTREE_NAME_MAX);
    t->rbtt_name[KT4_RBTREE_NAME_MAX] = '\0';
    // _RBTCompare is the dispatcher that calls the tree's compare: as the tree's compare it
    // would call itself for ever.
    if (compare == nullptr || compare == _RBTCompare) {
        _kt4Assert("rbtt_compare", kRBTreeTag, __LINE__);
        errno = EINVAL;
        return nullptr;
    }
    kt4RBTreeNode *nil = &t->rbtt_nil;
    nil->left = nil->right = nil->parent = nil;
    nil->colour = KT4_RBTREE_BLACK;
    nil->depth = 0;
    nil->data = nullptr;
    t->rbtt_root = nil;
    be(t->rbtt_keyoff) = key_offset;
    uint32_t mode = KT4_RBTREE_CMP_USER;
    if (compare == _RBTCompareUL)
        mode = KT4_RBTREE_CMP_UL;
    else if (compare == _RBTCompareI)
        mode = KT4_RBTREE_CMP_I;
    be(t->rbtt_cmpmode) = mode;
    be(t->rbtt_keylen) = mode == KT4_RBTREE_CMP_USER ? key_length : 4;
    t->rbtt_compare = compare;
    t->rbtt_alloc = alloc != nullptr ? alloc : kt4RBTreeMalloc;
    t->rbtt_free = release != nullptr ? release : kt4RBTreeFree;
    be(t->rbtt_numentries) = 0;
    be(t->rbtt_inserts) = 0;
    be(t->rbtt_removes) = 0;
    be(t->rbtt_nodeallocs) = 0;
    be(t->rbtt_nodefrees) = 0;
    return t;
}

extern "C" {

void *kt4RBTreeMalloc(size_t size) {
    return kt4MC_malloc(kTag, __LINE__, size);
}

void kt4RBTreeFree(void *node) {
    kt4MC_free(kTag, __LINE__, node);
}

int _RBTCompareUL(kt4RBTree *tree, const void *a, const void *b) {
    return builtin_compare<uint32_t>(tree, a, b);
}

int _RBTCompareI(kt4RBTree *tree, const void *a, const void *b) {
    return builtin_compare<int32_t>(tree, a, b);
}

int _RBTCompare(kt4RBTree *tree, const void *a, const void *b) {
    const uint32_t mode = be(tree->rbtt_cmpmode);
    if (mode & KT4_RBTREE_CMP_UL) return _RBTCompareUL(tree, a, b);
    if (mode & KT4_RBTREE_CMP_I) return _RBTCompareI(tree, a, b);
    if (KT4_UNLIKELY(tree->rbtt_compare == _RBTCompare || tree->rbtt_compare == nullptr)) {
        // A header written by hand: creation never stores either.
        _kt4Assert("rbtt_compare", kRBTreeTag, __LINE__);
        return 0;
    }
    return tree->rbtt_compare(tree, a, b);
}

kt4RBTree *kt4RBTreeCreate(const char *name, uint32_t keyOffset, uint32_t keyLength,
                           kt4RBTreeAllocFn alloc, kt4RBTreeFreeFn release,
                           kt4RBTreeCompareFn compare) {
    auto *t = static_cast<Tree *>(kt4MC_M_sysCalloc(kTag, __LINE__, 1, sizeof(Tree)));
    if (t == nullptr) return nullptr;
    if (rbtree_init_header(t, name, keyOffset, keyLength, alloc, release, compare) == nullptr) {
        kt4MC_M_sysMemfree(kTag, __LINE__, t);
        return nullptr;
    }
    return t;
}

int kt4RBTreeDestroy(kt4RBTree *tree) {
    RBT_CHECK(tree, return -1);
    be(tree->rbtt_magic) = 0;
    return kt4MC_M_sysMemfree(kTag, __LINE__, tree);
}

int kt4RBTreeDebug(kt4RBTree *tree, int on) {
    RBT_CHECK(tree, return 1);
    be(tree->rbtt_debug) = on == 1 ? 1 : 0;
    return 1;
}

// ---- node level ----

kt4RBTreeNode *_kt4RBTreeGetFirst(kt4RBTree *tree) {
    RBT_CHECK(tree, return nullptr);
    Node *nil = nil_of(tree);
    return or_null(minimum(tree->rbtt_root, nil), nil);
}

kt4RBTreeNode *_kt4RBTreeGetExact(kt4RBTree *tree, const void *key) {
    RBT_CHECK(tree, return nullptr);
    RBT_DATA(tree, key);
    return find_exact(tree, key);
}

kt4RBTreeNode *_kt4RBTreeGetNext(kt4RBTree *tree, const void *key) {
    RBT_CHECK(tree, return nullptr);
    RBT_DATA(tree, key);
    if (key == nullptr) return nullptr;
    if (Node *n = find_exact(tree, key)) return or_null(successor(n, nil_of(tree)), nil_of(tree));
    return find_exact_or_next(tree, key);
}

kt4RBTreeNode *_kt4RBTreeGetExactOrNext(kt4RBTree *tree, const void *key) {
    RBT_CHECK(tree, return nullptr);
    RBT_DATA(tree, key);
    return find_exact_or_next(tree, key);
}

kt4RBTreeNode *_kt4RBTreeGetExactOrPrev(kt4RBTree *tree, const void *key) {
    RBT_CHECK(tree, return nullptr);
    RBT_DATA(tree, key);
    return find_exact_or_prev(tree, key);
}

kt4RBTreeNode *_kt4RBTreeSuccessor(kt4RBTree *tree, kt4RBTreeNode *node) {
    RBT_CHECK(tree, return nullptr);
    Node *nil = nil_of(tree);
    if (node == nullptr || node == nil) return nullptr;
    return or_null(successor(node, nil), nil);
}

kt4RBTreeNode *_kt4RBTreePredecessor(kt4RBTree *tree, kt4RBTreeNode *node) {
    RBT_CHECK(tree, return nullptr);
    Node *nil = nil_of(tree);
    if (node == nullptr || node == nil) return nullptr;
    return or_null(predecessor(node, nil), nil);
}

int _kt4RBTreeInsert(kt4RBTree *tree, kt4RBTreeNode *z) {
    RBT_CHECK(tree, return 0);
    if (z == nullptr) return 0;
    RBT_DATA(tree, z->data);
    Node *nil = nil_of(tree);
    Node *parent = nil;
    bool go_left = false;
    with_cmp(tree, z->data, [&](auto cmp) {
        Node *x = tree->rbtt_root;
        while (x != nil) {
            prefetch_children(x);
            parent = x;
            // Equal keys go right, after the entries already there.
            go_left = cmp(x->data) < 0;
            x = go_left ? x->left : x->right;
        }
        return 0;
    });
    z->parent = parent;
    z->left = z->right = nil;
    z->colour = KT4_RBTREE_RED;
    if (parent == nil)
        tree->rbtt_root = z;
    else if (go_left)
        parent->left = z;
    else
        parent->right = z;
    insert_repair(tree, z);
    ++be(tree->rbtt_inserts);
    ++be(tree->rbtt_numentries);
    return 1;
}

kt4RBTreeNode *_kt4RBTreeRemove(kt4RBTree *tree, kt4RBTreeNode *z) {
    RBT_CHECK(tree, return nullptr);
    Node *nil = nil_of(tree);
    // A detached node would be taken for the root's only child: refuse it.
    if (z == nullptr || z == nil || (z->parent == nil && tree->rbtt_root != z)) return nullptr;
    splice_out(tree, z);
    z->left = z->right = z->parent = nil;
    ++be(tree->rbtt_removes);
    --be(tree->rbtt_numentries);
    return z;
}

kt4RBTreeNode *_kt4RBTreeWalk(kt4RBTree *tree, const void *start, kt4RBTreeVisitFn visit,
                              uint32_t maxVisits, uint32_t flags, va_list *args) {
    RBT_CHECK(tree, return nullptr);
    return walk(tree, start, visit, maxVisits, flags, args);
}

// ---- record level ----

int kt4RBTreeInsert(kt4RBTree *tree, void *record) {
    RBT_CHECK(tree, return 0);
    auto *n = static_cast<Node *>(tree->rbtt_alloc(sizeof(Node)));
    if (n == nullptr) return 0;
    ++be(tree->rbtt_nodeallocs);
    n->data = record;
    n->depth = 0;
    if (_kt4RBTreeInsert(tree, n) != 1) {
        tree->rbtt_free(n);
        ++be(tree->rbtt_nodefrees);
        return 0;
    }
    return 1;
}

void *kt4RBTreeRemove(kt4RBTree *tree, const void *key) {
    RBT_CHECK(tree, return nullptr);
    RBT_DATA(tree, key);
    Node *n = find_exact(tree, key);
    if (n == nullptr) return nullptr;
    _kt4RBTreeRemove(tree, n);
    void *record = n->data;
    tree->rbtt_free(n);
    ++be(tree->rbtt_nodefrees);
    return record;
}

void *kt4RBTreeGetFirst(kt4RBTree *tree) {
    Node *n = _kt4RBTreeGetFirst(tree);
    return n != nullptr ? n->data : nullptr;
}

void *kt4RBTreeGetExact(kt4RBTree *tree, const void *key) {
    RBT_CHECK(tree, return nullptr);
    RBT_DATA(tree, key);
    Node *n = find_exact(tree, key);
    return n != nullptr ? n->data : nullptr;
}

void *kt4RBTreeGetNext(kt4RBTree *tree, const void *key) {
    Node *n = _kt4RBTreeGetNext(tree, key);
    return n != nullptr ? n->data : nullptr;
}

void *kt4RBTreeGetExactOrNext(kt4RBTree *tree, const void *key) {
    Node *n = _kt4RBTreeGetExactOrNext(tree, key);
    return n != nullptr ? n->data : nullptr;
}

void *kt4RBTreeGetExactOrPrev(kt4RBTree *tree, const void *key) {
    Node *n = _kt4RBTreeGetExactOrPrev(tree, key);
    return n != nullptr ? n->data : nullptr;
}

void *kt4RBTreeWalk(kt4RBTree *tree, const void *start, kt4RBTreeVisitFn visit, uint32_t maxVisits,
                    uint32_t flags, ...) {
    va_list ap;
    va_start(ap, flags);
    Node *n = _kt4RBTreeWalk(tree, start, visit, maxVisits, flags, &ap);
    va_end(ap);
    return n != nullptr ? n->data : nullptr;
}

void kt4RBTreePrint(kt4RBTree *tree, kt4RBTreePrintFn print) {
    RBT_CHECK(tree, return );
    if (print == nullptr && be(tree->rbtt_debug).get() == 1) _kt4Assert("print_fn", kTag, __LINE__);
    Node *nil = nil_of(tree);
    number_depths(tree->rbtt_root, nil, 0);
    const uint32_t count = be(tree->rbtt_numentries);
    std::printf("\tRed-Black tree %s: %lu numinodes.", tree->rbtt_name,
                static_cast<unsigned long>(count));
    if (count == 0) {
        std::printf(" (empty)\n\n");
    } else if (count > KT4_RBTREE_PRINT_MAX) {
        std::printf(" (too large to print)\n\n");
    } else {
        std::printf("\n\n");
        char indent[kIndentChars + 1];
        std::memset(indent, ' ', kIndentChars);
        indent[kIndentChars] = '\0';
        if (tree->rbtt_root != nil) print_node(tree->rbtt_root, nil, print, indent);
    }
    std::printf("\n");
}

} // extern "C"
