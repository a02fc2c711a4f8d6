/*
 * kt4 radix tree with versioned change lists.
 *
 * A Patricia tree of bit-string prefixes (IPv4 keys of 32 bits, IPv6 keys of 128 bits, or any
 * other length) for exact, longest-match (best) and less-specific look-ups, the prefix table of
 * the routing processes. On top of it a versioning scheme lets slow readers (other tasks, a
 * standby card being synchronised) catch up with changes without copying the table:
 *
 *   - kt4RadixSetVersion stamps a 64-bit version on an entry and on every node above it, so
 *     that kt4RadixVersionWalk visits the entries changed in a version range and skips the
 *     regions of the tree that did not change;
 *   - the change list (kt4Radical*, or kt4Car* on a list that lives outside the tree) keeps the
 *     changed entries ordered by version, each once, at the place of its latest change; each
 *     reader owns a cursor entry (a "dummy") on that list and moves it forward as it catches up.
 *
 * The caller's records begin with a kt4RadixEntry (or embed one) whose rth_addr points at the
 * key bytes, most significant bit first. The tree owns its nodes and its header, never the
 * caller's records. Nothing is locked inside: callers serialise every access, and a tree in
 * shared memory is guarded by the callers' shared-memory lock. A version walk marks the node
 * it is calling back on, so that the callback may remove the entry it is given: the removal is
 * completed by the walk, which then hands the entry to the tree's remove callback.
 *
 * Integers the tree keeps in its records are big-endian like every record of the system; read
 * them with the accessors below (kt4RadixEntryVersion, kt4RadixNodeBit, kt4RadixGetStats).
 *
 * Walk callbacks receive a pointer to the walk's further arguments (a fresh copy each call):
 *
 *     static int count(kt4RadixEntry *e, va_list *args) { ++*va_arg(*args, int *); return 0; }
 *     kt4RadixWalk(tree, 0, count, &n);
 *
 * and return 0 to go on, a positive value to stop after the entry (it counts as handled) or a
 * negative value to stop before it (a later walk offers it again).
 */
#ifndef KT4_RADIX_H
#define KT4_RADIX_H

#include <kt4/common.h>
#include <kt4/containers.h>
#include <stdarg.h>
#include <stdio.h>

KT4_BEGIN_DECLS

/* ---- Big-endian 16- and 64-bit fields (kt4Be32 comes from containers.h) ----------------- */
#ifndef KT4_BE16_DEFINED
#define KT4_BE16_DEFINED
typedef struct kt4Be16 {
    unsigned char b[2];
} kt4Be16;

static inline uint16_t kt4Be16Get(const kt4Be16 *f) {
    return (uint16_t)(((unsigned)f->b[0] << 8) | (unsigned)f->b[1]);
}
#endif

#ifndef KT4_BE64_DEFINED
#define KT4_BE64_DEFINED
typedef struct kt4Be64 {
    unsigned char b[8];
} kt4Be64;

static inline uint64_t kt4Be64Get(const kt4Be64 *f) {
    uint64_t v = 0;
    int i;
    for (i = 0; i < 8; i++)
        v = (v << 8) | f->b[i];
    return v;
}
#endif

#define KT4_RADIX_MAGIC 0xDEADBEEFu
#define KT4_RADIX_NAME_MAX 50
#define KT4_RADIX_IPV4_BITS 32
#define KT4_RADIX_IPV6_BITS 128

/* rtn_flags: the entry was removed while a walk held the node; the walk completes it. */
#define KT4_RADIX_RTN_REMOVED 2

/* rth_cl_flags: the entry is on a change list / the entry is a reader's cursor. */
#define RDCL_ONLIST 1
#define RDCL_DUMMY 2
#define RDCL_ISDUMMY(rth) ((kt4Be32Get(&(rth)->rth_cl_flags) & RDCL_DUMMY) != 0)

typedef struct kt4RadixNode kt4RadixNode;
typedef struct kt4RadixEntry kt4RadixEntry;

/* A node of the tree: an entry's prefix, or a glue node (no entry) where two keys part. */
struct kt4RadixNode {
    kt4RadixNode *rtn_left;   /* keys whose bit rtn_bit is 0 */
    kt4RadixNode *rtn_right;  /* keys whose bit rtn_bit is 1 */
    kt4RadixNode *rtn_prev;   /* parent, null at the root */
    kt4Be16 rtn_bit;          /* prefix length in bits */
    uint8_t rtn_mask;         /* 0x80 >> (rtn_bit % 8): the first bit after the prefix */
    uint8_t rtn_flags;        /* KT4_RADIX_RTN_REMOVED */
    uint8_t rtn_lock;         /* walks currently inside a callback on this node */
    kt4Be64 rtn_version;      /* highest version set at or below this node */
    kt4RadixEntry *rtn_entry; /* null for a glue node */
};

/* The entry header, at the start of (or embedded in) the caller's record. */
struct kt4RadixEntry {
    kt4RadixNode *rth_rtn;   /* its node, set by insert, null outside the tree */
    const uint8_t *rth_addr; /* the key bytes, set by the caller before insert */
    kt4Be64 rth_version;     /* version of the entry's latest change */
    const uint8_t *rth_key;  /* copy of rth_addr taken by insert; used by every compare */
    kt4Be32 rth_cl_flags;    /* RDCL_ONLIST, RDCL_DUMMY */
    kt4DLLLink rdcl_cl;      /* link on the change list */
};

typedef void *(*kt4RadixAllocFn)(size_t size);
typedef void (*kt4RadixFreeFn)(void *node);
/* Receives an entry whose removal was completed by a walk, or that an insert replaced. */
typedef void (*kt4RadixRmFreeFn)(kt4RadixEntry *entry);
/* Walk callbacks: see the top of this file. */
typedef int (*kt4RadixWalkFn)(kt4RadixEntry *entry, va_list *args);

struct kt4Car;

/* The tree header. Leave the fields to the library. */
typedef struct kt4RadixTree {
    kt4Be32 rtt_magic;                     /* KT4_RADIX_MAGIC while alive, 0 after destroy */
    char rtt_name[KT4_RADIX_NAME_MAX + 1]; /* always NUL-terminated */
    kt4RadixNode *rtt_root;
    kt4Be32 rtt_inodes;  /* nodes currently allocated */
    kt4Be32 rtt_unodes;  /* entries currently in the tree */
    kt4Be32 rtt_inserts; /* inserts ever */
    kt4Be32 rtt_removes; /* removes ever */
    kt4Be32 rtt_mallocs; /* nodes taken from the allocator ever */
    kt4Be32 rtt_frees;   /* nodes given back ever (and allocations undone) */
    kt4Be32 rtt_ufrees;  /* entries handed to rtt_rmfree ever */
    kt4Be32 rtt_wraps;   /* times the tree version wrapped to 0 */
    kt4Be64 rtt_version; /* the last version handed out */
    kt4Be16 rtt_keylen;  /* maximum prefix length in bits */
    uint8_t rtt_check;   /* 1: assert record arguments, refuse lengths above rtt_keylen */
    kt4RadixAllocFn rtt_malloc;
    kt4RadixFreeFn rtt_free;
    kt4RadixRmFreeFn rtt_rmfree;
    kt4Be32 rtt_readers; /* reader cursors on the change list */
    kt4Be32 rtt_cl_on;   /* 1: the change list below is in use */
    kt4DLL rtt_cl;       /* the change list */
    kt4Be32 rtt_car_on;  /* 1: an outside change list is attached */
    struct kt4Car *rtt_car;
    uint8_t rtt_shm; /* 1: the header lies in the shared-memory heap */
} kt4RadixTree;

/* The counters of a tree, in the processor's byte order. */
typedef struct kt4RadixStats {
    uint32_t internalNodes;
    uint32_t userNodes;
    uint32_t inserts;
    uint32_t removes;
    uint32_t mallocs;
    uint32_t frees;
    uint32_t userFrees;
    uint32_t versionWraps;
    uint32_t readers;
    uint64_t version;
    uint16_t keyLength;
} kt4RadixStats;

static inline uint64_t kt4RadixEntryVersion(const kt4RadixEntry *rth) {
    return kt4Be64Get(&rth->rth_version);
}
static inline int kt4RadixNodeBit(const kt4RadixNode *rtn) {
    return kt4Be16Get(&rtn->rtn_bit);
}
/* The prefix length of an entry in the tree, or -1 for an entry outside the tree. */
static inline int kt4RadixEntryLength(const kt4RadixEntry *rth) {
    return rth->rth_rtn ? kt4Be16Get(&rth->rth_rtn->rtn_bit) : -1;
}

/* ---- Tree ------------------------------------------------------------------------------ */

/* The default node hooks: the checked allocator with the source tag "kt4Radix". */
void *kt4RadixMalloc(size_t size);
void kt4RadixFree(void *node);

/* keyBits: 32 for IPv4, 128 for IPv6 (1 to 65535). Zero hooks take the defaults. The remove
 * callback is needed for trees whose version walks may remove entries. 0 when no header. */
kt4RadixTree *kt4RadixCreate(const char *name, int keyBits, kt4RadixAllocFn alloc,
                             kt4RadixFreeFn release, kt4RadixRmFreeFn rmfree);
/* The same with the header in the shared-memory heap; nodes still come from the hooks. */
kt4RadixTree *kt4RadixCreateP(const char *name, int keyBits, kt4RadixAllocFn alloc,
                              kt4RadixFreeFn release, kt4RadixRmFreeFn rmfree);
/* Releases the header of an empty tree (and detaches its outside change list). A tree that
 * still holds entries is reported (assertion "!rtt->rtt_root") and kept whole: ERROR with
 * errno ENOTEMPTY. Remove every entry first (kt4RadixGetNext(tree, 0, 0) then
 * kt4RadixRemove, until none is left); the entries are the caller's to release. */
STATUS kt4RadixDestroy(kt4RadixTree *tree);
STATUS kt4RadixDestroyP(kt4RadixTree *tree);
/* 1 (the default): record arguments are asserted and lengths above the key length refused.
 * 0 saves those tests on hot paths of callers that guarantee them. Returns 1. */
int kt4RadixDebug(kt4RadixTree *tree, int on);
void kt4RadixGetStats(const kt4RadixTree *tree, kt4RadixStats *stats);

/* Inserts the prefix of bitlen bits read from entry->rth_addr, which the caller sets first.
 * The entry on success; the entry already holding that prefix when there is one (the new one
 * is then not inserted); 0 on failure, with errno EINVAL for a null entry or rth_addr (also
 * asserted) or a bitlen below 0 or, while checking is on, above the tree's key length (33 in
 * an IPv4 tree), and ENOMEM when no node could be had.
 * Host bits need not be zero: only the first bitlen bits of a key are ever compared, so
 * 10.9.9.9/8 is the prefix 10.0.0.0/8. The tree keeps pointing at the caller's key bytes
 * (rth_key), so keep them unchanged while the entry is in the tree. */
kt4RadixEntry *kt4RadixInsert(kt4RadixTree *tree, kt4RadixEntry *entry, int bitlen);
void kt4RadixRemove(kt4RadixTree *tree, kt4RadixEntry *entry);

/* Look-ups take a key of (bitlen + 7) / 8 bytes or more, most significant bit first. */
kt4RadixEntry *kt4RadixGetExact(kt4RadixTree *tree, const void *key, int bitlen);
/* The longest prefix covering key that is not longer than bitlen. When that prefix's entry was
 * removed during a walk and the removal is pending, the result is 0: the look-up does not fall
 * back to a shorter prefix. */
kt4RadixEntry *kt4RadixGetBest(kt4RadixTree *tree, const void *key, int bitlen);
/* The longest covering prefix strictly shorter than bitlen (the one after the best). */
kt4RadixEntry *kt4RadixGetNextBest(kt4RadixTree *tree, const void *key, int bitlen);
/* The best match, and in *prev the covering prefix next to it (0 when none). */
kt4RadixEntry *kt4RadixGetBestAndPrev(kt4RadixTree *tree, const void *key, int bitlen,
                                      kt4RadixEntry **prev);
/* The nearest entry with a strictly shorter prefix covering the entry's, or 0. */
kt4RadixEntry *kt4RadixGetLessSpecific(kt4RadixTree *tree, kt4RadixEntry *entry);
/* The entry after (key, bitlen) in tree order: a prefix before the longer ones it covers, a
 * 0 bit before a 1 bit. key 0: the first entry. 0 past the last. */
kt4RadixEntry *kt4RadixGetNext(kt4RadixTree *tree, const void *key, int bitlen);
/* The node heading the part of the tree covered by the prefix, or 0. */
kt4RadixNode *_kt4RadixGetSubTree(kt4RadixTree *tree, const void *key, int bitlen);
kt4RadixNode *kt4RadixGetParent(kt4RadixTree *tree, kt4RadixNode *node);
BOOL kt4RadixNodeIsLeaf(kt4RadixTree *tree, kt4RadixNode *node);

/* Visits every entry in tree order from start (included; 0 = the first entry). The callback
 * may insert and remove entries, the one it is given included. Returns the entry from which a
 * later walk resumes (see the top of this file), 0 when the walk reached the end. */
kt4RadixEntry *kt4RadixWalk(kt4RadixTree *tree, kt4RadixEntry *start, kt4RadixWalkFn fn, ...);

/* Stamps the next tree version on the entry and on its node and every node above it. Returns
 * that version (0 when the version wrapped; the wrap is counted). */
uint64_t kt4RadixSetVersion(kt4RadixTree *tree, kt4RadixEntry *entry);
/* Makes version the last version handed out (after renumbering a wrapped change list). */
void kt4RadixTreeVersionSet(kt4RadixTree *tree, uint64_t version);

/* Visits in tree order, from start (included; 0 = the first entry), the entries whose version
 * lies in [minVersion, maxVersion], descending only where something changed at or after
 * minVersion. After every batch visits (0 = no limit) kt4ThreadYield(yieldArg) is called when
 * yieldArg is given. The callback may remove the entry it is given (the tree then needs a
 * remove callback). Returns the resume entry as kt4RadixWalk does. */
kt4RadixEntry *kt4RadixVersionWalk(kt4RadixTree *tree, kt4RadixEntry *start, kt4RadixWalkFn fn,
                                   uint32_t batch, uint64_t minVersion, uint64_t maxVersion,
                                   void *yieldArg, ...);

/* Writes the nodes (one line each, tree order) and the statistics block; out 0 = stdout. */
void kt4RadixPrint(kt4RadixTree *tree, FILE *out);

/* Yields the processor on behalf of the given task or thread of this library (the caller). */
void kt4ThreadYield(void *thread);

/* ---- The change list of the tree (source tag "kt4Radical") ------------------------------
 *
 * Every entry on the list once, ordered by version, at the place of its latest change. A
 * reader owns a dummy kt4RadixEntry (never inserted in the tree) as its cursor. */

/* Moves the entry (which must be in the tree) to the back of the list with the next tree
 * version, stamped on its node and the nodes above too. Returns it; 0 when it wrapped. */
uint64_t kt4RadicalAppendToChangeList(kt4RadixTree *tree, kt4RadixEntry *entry);
/* Places a reader's cursor at the front (version 0). */
void kt4RadicalWalkConstructor(kt4RadixTree *tree, kt4RadixEntry *dummy);
/* Places a reader's cursor just after another reader's, at its version. */
void kt4RadicalWalkConstructorAfter(kt4RadixTree *tree, kt4RadixEntry *after, kt4RadixEntry *dummy);
void kt4RadicalWalkDestructor(kt4RadixTree *tree, kt4RadixEntry *dummy);
/* Offers the entries after the cursor to walk_fn in order, moving the cursor past each one
 * taken: up to max entries (0 = no limit), not beyond maxVersion, yielding after every batch
 * (0 = never) when yieldArg is given; stops at the first non-zero result, which is left in
 * *cbretval (0 otherwise). Returns the number of entries offered. */
int kt4RadicalWalkChangeList(kt4RadixTree *tree, kt4RadixEntry *dummy, kt4RadixWalkFn walk_fn,
                             uint32_t batch, uint32_t max, uint64_t maxVersion, void *yieldArg,
                             int *cbretval, ...);
kt4RadixEntry *kt4RadicalGetFirst(kt4RadixTree *tree);
kt4RadixEntry *kt4RadicalGetNext(kt4RadixTree *tree, kt4RadixEntry *entry);
/* Version of the first entry after the cursor, or 0 when the reader has caught up. */
uint64_t kt4RadicalNextVersion(kt4RadixTree *tree, kt4RadixEntry *dummy);
/* After a wrap: renumbers the list from 1 (a cursor takes the number before it) and returns
 * the last number, which the caller makes the tree version (kt4RadixTreeVersionSet). */
uint64_t kt4RadicalProcVerWrap(kt4RadixTree *tree);

/* ---- Outside change lists (source tag "kt4Car") -----------------------------------------
 *
 * The same change list in an object of its own, with its own version counter, that one or
 * more trees attach: a reader then follows the changes of all of them in one order (a standby
 * card synchronising the IPv4 and the IPv6 table). An entry is on one change list at a time.
 * The object lies in the heap of the first tree's header (the shared-memory heap for a tree
 * made by kt4RadixCreateP), so readers in other processes can reach it. The list links its
 * entries and cursors to each other: for a list shared between processes they (and the
 * tree's nodes, through the allocator hooks) must lie in shared memory too. */
#define KT4_CAR_MAGIC 0xCA7C4A11u

typedef struct kt4Car {
    kt4Be32 car_magic;   /* KT4_CAR_MAGIC while alive */
    kt4Be64 car_version; /* the last version handed out */
    kt4Be32 car_wraps;   /* times the version wrapped to 0 */
    kt4Be32 car_readers; /* reader cursors on the list */
    kt4Be32 car_trees;   /* trees attached */
    uint8_t car_shm;     /* 1: the object lies in the shared-memory heap */
    kt4DLL car_cl;       /* the change list */
} kt4Car;

/* car 0: makes a new outside change list and attaches it to the tree; otherwise attaches the
 * given one. Returns the list, or 0 (no memory, or another list already attached). */
kt4Car *kt4RadixCarCreate(kt4RadixTree *tree, kt4Car *car);
/* Releases the list once no tree is attached any more (ERROR before); entries and cursors
 * still on it are unlinked. */
STATUS kt4CarDestroy(kt4Car *car);
uint64_t kt4CarAppendToChangeList(kt4Car *car, kt4RadixEntry *entry);
/* Takes an entry off the list without touching the tree. */
void kt4CarRemoveChange(kt4Car *car, kt4RadixEntry *entry);
void kt4CarWalkConstructor(kt4Car *car, kt4RadixEntry *dummy);
void kt4CarWalkConstructorAfter(kt4Car *car, kt4RadixEntry *after, kt4RadixEntry *dummy);
void kt4CarWalkDestructor(kt4Car *car, kt4RadixEntry *dummy);
int kt4CarWalkChangeList(kt4Car *car, kt4RadixEntry *dummy, kt4RadixWalkFn walk_fn, uint32_t batch,
                         uint32_t max, uint64_t maxVersion, void *yieldArg, int *cbretval, ...);
kt4RadixEntry *kt4CarGetFirst(kt4Car *car);
kt4RadixEntry *kt4CarGetNext(kt4Car *car, kt4RadixEntry *entry);
uint64_t kt4CarNextVersion(kt4Car *car, kt4RadixEntry *dummy);
/* As kt4RadicalProcVerWrap; the caller makes the result the list's version. */
uint64_t kt4CarProcVerWrap(kt4Car *car);
void kt4CarVersionSet(kt4Car *car, uint64_t version);

KT4_END_DECLS

#endif /* KT4_RADIX_H */
