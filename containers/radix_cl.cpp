// Change lists of the radix tree: the list in the tree header (kt4Radical*) and outside lists
// that one or more trees attach (kt4Car*).
//
// A list holds every changed entry once, ordered by version, at the place of its latest change:
// an append moves the entry to the back with the next version. Each reader owns a cursor entry
// (a dummy) on the list; everything after its cursor is what it has not seen yet. So a reader
// that fell behind catches up by walking from its cursor, however often an entry changed
// meanwhile, and nothing is copied for it. Both families run the same code over a view of the
// list: its head, its version counter, its wrap count and its reader count.
#include "containers/radix_impl.h"

#include <kt4/hostsim.h>

#include <cstring>

namespace kt4::radix {

namespace {

struct ListView {
    kt4DLL *head;
    kt4Be64 *version;
    kt4Be32 *wraps;
    kt4Be32 *readers;
    Tree *tree; // the tree whose nodes carry the versions (the header's own list only)
    const char *tag;
};

inline void set_flags(Entry *e, uint32_t f) {
    be(e->rth_cl_flags) = f;
}
inline void set_version(Entry *e, uint64_t v) {
    be(e->rth_version) = v;
}
inline kt4DLLLink *link_of(Entry *e) {
    return &e->rdcl_cl;
}

// Raises the subtree versions from n to the root to at least v (a renumbered list must not
// leave an entry above what its ancestors promise to the version walk).
void raise_up(Node *n, uint64_t v) {
    for (; n != nullptr; n = n->rtn_prev)
        if (ver_of(n) < v) be(n->rtn_version) = v;
}

uint64_t cl_append(const ListView &lv, Entry *e) {
    if (e == nullptr) {
        _kt4Assert("rth", lv.tag, __LINE__);
        return 0;
    }
    if (e->rth_rtn == nullptr) {
        _kt4Assert("rth->rth_rtn", lv.tag, __LINE__);
        return 0;
    }
    if (on_list(e)) {
        if (!kt4DLLIsLinked(link_of(e)))
            _kt4Assert("kt4DLLIsLinked(&rth->rdcl_cl)", lv.tag, __LINE__);
        else
            kt4DLLRemove(lv.head, link_of(e));
    }
    kt4DLLInsertAtBack(lv.head, link_of(e));
    set_flags(e, (cl_flags(e) & ~static_cast<uint32_t>(RDCL_DUMMY)) | RDCL_ONLIST);
    const uint64_t v = be(*lv.version).get() + 1;
    be(*lv.version) = v;
    if (v == 0) ++be(*lv.wraps);
    set_version(e, v);
    // The header's list shares the tree's version counter with kt4RadixSetVersion; the nodes
    // above get the version too, so a version walk finds what the list recorded.
    if (lv.tree != nullptr) stamp_up(e->rth_rtn, v);
    return v;
}

// Takes a would-be cursor off wherever it is and flags it; counts a new reader.
void make_dummy(const ListView &lv, Entry *d) {
    const bool was_reader = is_dummy(d);
    if (kt4DLLIsLinked(link_of(d))) kt4DLLRemove(lv.head, link_of(d));
    set_flags(d, RDCL_DUMMY);
    if (!was_reader) ++be(*lv.readers);
}

void cl_constructor(const ListView &lv, Entry *d) {
    if (d == nullptr) {
        _kt4Assert("dummy", lv.tag, __LINE__);
        return;
    }
    make_dummy(lv, d);
    set_version(d, 0);
    kt4DLLInsertAtFront(lv.head, link_of(d));
}

void cl_constructor_after(const ListView &lv, Entry *after, Entry *d) {
    if (d == nullptr) {
        _kt4Assert("dummy", lv.tag, __LINE__);
        return;
    }
    if (after == nullptr) {
        _kt4Assert("after", lv.tag, __LINE__);
        return;
    }
    if (!RDCL_ISDUMMY(after)) {
        _kt4Assert("RDCL_ISDUMMY(after)", lv.tag, __LINE__);
        return;
    }
    if (!kt4DLLIsLinked(link_of(after))) {
        _kt4Assert("kt4DLLIsLinked(&after->rdcl_cl)", lv.tag, __LINE__);
        return;
    }
    if (d == after) return;
    make_dummy(lv, d);
    set_version(d, ver_of(after));
    kt4DLLInsertAfter(lv.head, link_of(after), link_of(d));
}

void cl_destructor(const ListView &lv, Entry *d) {
    if (d == nullptr) {
        _kt4Assert("dummy", lv.tag, __LINE__);
        return;
    }
    const bool was_reader = is_dummy(d);
    set_flags(d, cl_flags(d) & ~static_cast<uint32_t>(RDCL_DUMMY));
    if (kt4DLLIsLinked(link_of(d))) kt4DLLRemove(lv.head, link_of(d));
    if (was_reader && be(*lv.readers).get() > 0) --be(*lv.readers);
}

inline bool cursor_alive(const Entry *d) {
    return is_dummy(d) && kt4DLLIsLinked(&d->rdcl_cl);
}

// The first real entry at or after l (cursors passed over).
inline kt4DLLLink *skip_dummies(kt4DLL *head, kt4DLLLink *l) {
    while (l != nullptr && is_dummy(entry_of(l)))
        l = kt4DLLGetNext(head, l);
    return l;
}

int cl_walk(const ListView &lv, Entry *d, kt4RadixWalkFn fn, uint32_t batch, uint32_t max,
            uint64_t max_version, void *yield_arg, int *cbretval, va_list *args) {
    if (d == nullptr) {
        _kt4Assert("dummy", lv.tag, __LINE__);
        return 0;
    }
    if (cbretval == nullptr) {
        _kt4Assert("cbretval", lv.tag, __LINE__);
        return 0;
    }
    if (fn == nullptr) {
        _kt4Assert("walk_fn", lv.tag, __LINE__);
        return 0;
    }
    if (!RDCL_ISDUMMY(d)) {
        _kt4Assert("RDCL_ISDUMMY(dummy)", lv.tag, __LINE__);
        return 0;
    }
    if (!kt4DLLIsLinked(link_of(d))) {
        _kt4Assert("kt4DLLIsLinked(&dummy->rdcl_cl)", lv.tag, __LINE__);
        return 0;
    }
    *cbretval = 0;
    kt4DLLLink *dl = link_of(d);
    int offered = 0;
    uint32_t in_batch = 0;
    for (;;) {
        kt4DLLLink *l = skip_dummies(lv.head, kt4DLLGetNext(lv.head, dl));
        kt4DLLRemove(lv.head, dl);
        if (l == nullptr) {
            // Caught up: the cursor waits at the end for the next change.
            set_version(d, be(*lv.version).get());
            kt4DLLInsertAtBack(lv.head, dl);
            return offered;
        }
        Entry *e = entry_of(l);
        const uint64_t v = ver_of(e);
        if (v > max_version) {
            set_version(d, max_version);
            kt4DLLInsertBefore(lv.head, l, dl);
            return offered;
        }
        // The cursor goes past the entry before the callback, so that whatever the callback
        // appends (this entry included) lands after the cursor and is offered again later.
        kt4DLLInsertAfter(lv.head, l, dl);
        va_list ap;
        va_copy(ap, *args);
        const int r = fn(e, &ap);
        va_end(ap);
        ++offered;
        *cbretval = r;
        if (!cursor_alive(d)) return offered; // the reader went away inside its callback
        if (r >= 0) set_version(d, v);
        if (r < 0) {
            // Offered again next time, if it is still where it was: an entry that the callback
            // moved on (appended again) or took off is already past the cursor or gone.
            if (kt4DLLIsLinked(l) && on_list(e) && ver_of(e) == v) {
                kt4DLLRemove(lv.head, dl);
                kt4DLLInsertBefore(lv.head, l, dl);
            }
            return offered;
        }
        if (r > 0) return offered;
        if (max != 0 && static_cast<uint32_t>(offered) >= max) return offered;
        if (batch != 0 && ++in_batch >= batch) {
            in_batch = 0;
            if (yield_arg != nullptr) {
                kt4ThreadYield(yield_arg);
                if (!cursor_alive(d)) return offered;
            }
        }
    }
}

kt4RadixEntry *cl_first(const ListView &lv) {
    return entry_of(skip_dummies(lv.head, kt4DLLGetFirst(lv.head)));
}

kt4RadixEntry *cl_next(const ListView &lv, Entry *e) {
    if (e == nullptr || !kt4DLLIsLinked(link_of(e))) return nullptr;
    return entry_of(skip_dummies(lv.head, kt4DLLGetNext(lv.head, link_of(e))));
}

uint64_t cl_next_version(const ListView &lv, Entry *d) {
    if (d == nullptr) {
        _kt4Assert("dummy", lv.tag, __LINE__);
        return 0;
    }
    if (!RDCL_ISDUMMY(d)) {
        _kt4Assert("RDCL_ISDUMMY(dummy)", lv.tag, __LINE__);
        return 0;
    }
    if (!kt4DLLIsLinked(link_of(d))) {
        _kt4Assert("kt4DLLIsLinked(&dummy->rdcl_cl)", lv.tag, __LINE__);
        return 0;
    }
    kt4DLLLink *l = skip_dummies(lv.head, kt4DLLGetNext(lv.head, link_of(d)));
    return l != nullptr ? ver_of(entry_of(l)) : 0;
}

uint64_t cl_proc_ver_wrap(const ListView &lv) {
    uint64_t n = 0;
    for (kt4DLLLink *l = kt4DLLGetFirst(lv.head); l != nullptr; l = kt4DLLGetNext(lv.head, l)) {
        Entry *e = entry_of(l);
        if (is_dummy(e)) {
            set_version(e, n);
            continue;
        }
        set_version(e, ++n);
        if (lv.tree != nullptr && e->rth_rtn != nullptr) raise_up(e->rth_rtn, n);
    }
    return n;
}

// ---- the header's own list ----

bool tree_view(Tree *t, ListView &lv, int line) {
    if (t == nullptr) {
        _kt4Assert("rtt", kRadicalTag, line);
        return false;
    }
    if (be(t->rtt_magic).get() != KT4_RADIX_MAGIC)
        _kt4Assert("rtt->rtt_magic == 0xdeadbeef", kRadicalTag, line);
    // The list is switched on by its first use; from then on removals unlink entries from it.
    if (be(t->rtt_cl_on).get() != 1) be(t->rtt_cl_on) = 1;
    lv = {&t->rtt_cl, &t->rtt_version, &t->rtt_wraps, &t->rtt_readers, t, kRadicalTag};
    return true;
}

// ---- outside lists ----

bool car_view(kt4Car *c, ListView &lv, int line) {
    if (c == nullptr) {
        _kt4Assert("car", kCarTag, line);
        return false;
    }
    if (be(c->car_magic).get() != KT4_CAR_MAGIC)
        _kt4Assert("car->car_magic == 0xca7c4a11", kCarTag, line);
    lv = {&c->car_cl, &c->car_version, &c->car_wraps, &c->car_readers, nullptr, kCarTag};
    return true;
}

kt4Car *car_alloc(bool shm) {
    void *mem = shm ? kt4MC_MM_calloc(kCarTag, __LINE__, 1, sizeof(kt4Car))
                    : kt4MC_calloc(kCarTag, __LINE__, 1, sizeof(kt4Car));
    if (mem == nullptr) return nullptr;
    auto *c = static_cast<kt4Car *>(mem);
    be(c->car_magic) = KT4_CAR_MAGIC;
    c->car_shm = shm ? 1 : 0;
    kt4DLLInit(&c->car_cl);
    return c;
}

} // namespace

} // namespace kt4::radix

using namespace kt4::radix;

#define TREE_VIEW(t, fail)                                                                         \
    ListView lv;                                                                                   \
    if (!tree_view((t), lv, __LINE__)) fail
#define CAR_VIEW(c, fail)                                                                          \
    ListView lv;                                                                                   \
    if (!car_view((c), lv, __LINE__)) fail

extern "C" {

uint64_t kt4RadicalAppendToChangeList(kt4RadixTree *tree, kt4RadixEntry *entry) {
    TREE_VIEW(tree, return 0);
    return cl_append(lv, entry);
}

void kt4RadicalWalkConstructor(kt4RadixTree *tree, kt4RadixEntry *dummy) {
    TREE_VIEW(tree, return (void)0);
    cl_constructor(lv, dummy);
}

void kt4RadicalWalkConstructorAfter(kt4RadixTree *tree, kt4RadixEntry *after,
                                    kt4RadixEntry *dummy) {
    TREE_VIEW(tree, return (void)0);
    cl_constructor_after(lv, after, dummy);
}

void kt4RadicalWalkDestructor(kt4RadixTree *tree, kt4RadixEntry *dummy) {
    TREE_VIEW(tree, return (void)0);
    cl_destructor(lv, dummy);
}

int kt4RadicalWalkChangeList(kt4RadixTree *tree, kt4RadixEntry *dummy, kt4RadixWalkFn walk_fn,
                             uint32_t batch, uint32_t max, uint64_t maxVersion, void *yieldArg,
                             int *cbretval, ...) {
    TREE_VIEW(tree, return 0);
    va_list args;
    va_start(args, cbretval);
    const int n = cl_walk(lv, dummy, walk_fn, batch, max, maxVersion, yieldArg, cbretval, &args);
    va_end(args);
    return n;
}

kt4RadixEntry *kt4RadicalGetFirst(kt4RadixTree *tree) {
    TREE_VIEW(tree, return nullptr);
    return cl_first(lv);
}

kt4RadixEntry *kt4RadicalGetNext(kt4RadixTree *tree, kt4RadixEntry *entry) {
    TREE_VIEW(tree, return nullptr);
    return cl_next(lv, entry);
}

uint64_t kt4RadicalNextVersion(kt4RadixTree *tree, kt4RadixEntry *dummy) {
    TREE_VIEW(tree, return 0);
    return cl_next_version(lv, dummy);
}

uint64_t kt4RadicalProcVerWrap(kt4RadixTree *tree) {
    TREE_VIEW(tree, return 0);
    return cl_proc_ver_wrap(lv);
}

kt4Car *kt4RadixCarCreate(kt4RadixTree *tree, kt4Car *car) {
    RDX_CHECK(tree, kCarTag, return nullptr);
    if (tree->rtt_car != nullptr) {
        if (tree->rtt_car == car) return car;
        _kt4Assert("!rtt->rtt_car", kCarTag, __LINE__);
        return nullptr;
    }
    if (car == nullptr) {
        car = car_alloc(tree->rtt_shm != 0);
        if (car == nullptr) return nullptr;
    } else if (be(car->car_magic).get() != KT4_CAR_MAGIC) {
        _kt4Assert("car->car_magic == 0xca7c4a11", kCarTag, __LINE__);
        return nullptr;
    }
    ++be(car->car_trees);
    tree->rtt_car = car;
    be(tree->rtt_car_on) = 1;
    return car;
}

STATUS kt4CarDestroy(kt4Car *car) {
    CAR_VIEW(car, return ERROR);
    if (be(car->car_trees).get() != 0) {
        _kt4Assert("!car->car_trees", kCarTag, __LINE__);
        return ERROR;
    }
    // Entries and cursors still on the list are let go, so none points into released memory.
    for (kt4DLLLink *l = kt4DLLGetFirst(lv.head); l != nullptr; l = kt4DLLGetFirst(lv.head)) {
        kt4DLLRemove(lv.head, l);
        be(entry_of(l)->rth_cl_flags) = 0;
    }
    be(car->car_magic) = 0;
    if (car->car_shm != 0) return kt4MC_MM_free(kCarTag, __LINE__, car) == 0 ? OK : ERROR;
    kt4MC_free(kCarTag, __LINE__, car);
    return OK;
}

uint64_t kt4CarAppendToChangeList(kt4Car *car, kt4RadixEntry *entry) {
    CAR_VIEW(car, return 0);
    return cl_append(lv, entry);
}

void kt4CarRemoveChange(kt4Car *car, kt4RadixEntry *entry) {
    CAR_VIEW(car, return (void)0);
    if (entry == nullptr) {
        _kt4Assert("rth", kCarTag, __LINE__);
        return;
    }
    if (is_dummy(entry) || !on_list(entry)) return;
    if (kt4DLLIsLinked(&entry->rdcl_cl)) kt4DLLRemove(lv.head, &entry->rdcl_cl);
    be(entry->rth_cl_flags) = cl_flags(entry) & ~static_cast<uint32_t>(RDCL_ONLIST);
}

void kt4CarWalkConstructor(kt4Car *car, kt4RadixEntry *dummy) {
    CAR_VIEW(car, return (void)0);
    cl_constructor(lv, dummy);
}

void kt4CarWalkConstructorAfter(kt4Car *car, kt4RadixEntry *after, kt4RadixEntry *dummy) {
    CAR_VIEW(car, return (void)0);
    cl_constructor_after(lv, after, dummy);
}

void kt4CarWalkDestructor(kt4Car *car, kt4RadixEntry *dummy) {
    CAR_VIEW(car, return (void)0);
    cl_destructor(lv, dummy);
}

int kt4CarWalkChangeList(kt4Car *car, kt4RadixEntry *dummy, kt4RadixWalkFn walk_fn, uint32_t batch,
                         uint32_t max, uint64_t maxVersion, void *yieldArg, int *cbretval, ...) {
    CAR_VIEW(car, return 0);
    va_list args;
    va_start(args, cbretval);
    const int n = cl_walk(lv, dummy, walk_fn, batch, max, maxVersion, yieldArg, cbretval, &args);
    va_end(args);
    return n;
}

kt4RadixEntry *kt4CarGetFirst(kt4Car *car) {
    CAR_VIEW(car, return nullptr);
    return cl_first(lv);
}

kt4RadixEntry *kt4CarGetNext(kt4Car *car, kt4RadixEntry *entry) {
    CAR_VIEW(car, return nullptr);
    return cl_next(lv, entry);
}

uint64_t kt4CarNextVersion(kt4Car *car, kt4RadixEntry *dummy) {
    CAR_VIEW(car, return 0);
    return cl_next_version(lv, dummy);
}

uint64_t kt4CarProcVerWrap(kt4Car *car) {
    CAR_VIEW(car, return 0);
    return cl_proc_ver_wrap(lv);
}

void kt4CarVersionSet(kt4Car *car, uint64_t version) {
    CAR_VIEW(car, return (void)0);
    be(car->car_version) = version;
}

} // extern "C"
