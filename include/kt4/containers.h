/*
 * kt4 containers: the intrusive doubly linked list, free-index ranges, the red-black tree,
 * the AVL tree and the checksum-bucketed hash table.
 *
 * None of them takes a lock: the caller serialises every access (a container in shared memory
 * is guarded by the callers' shared-memory lock). Containers own their own nodes and headers,
 * never the caller's records.
 *
 * Integers the containers keep in their own records (magics, counters, key lengths, heights)
 * are stored big-endian like every record of the system, through kt4Be32 fields: read them
 * with kt4Be32Get, never directly.
 */
#ifndef KT4_CONTAINERS_H
#define KT4_CONTAINERS_H

#include <kt4/common.h>
#include <stdarg.h>

KT4_BEGIN_DECLS

/* The record that embeds `member` at the address `ptr` (a link, a node). */
#define KT4_CONTAINER_OF(ptr, type, member) ((type *)((char *)(ptr)-offsetof(type, member)))

/* ==== Intrusive doubly linked list (source tag "kt4LL") =====================================
 *
 * The head is five words: the magic, then a head sentinel link (next = first element,
 * prev = null) and a tail sentinel link (next = null, prev = last element). An empty list has
 * first = the tail sentinel and last = the head sentinel, so that linking and unlinking never
 * test for emptiness. The head keeps no count.
 *
 * An element is a kt4DLLLink embedded in the caller's record. A link that is on no list has
 * both words null. Neighbours are reached through the element's own link; the head serves the
 * magic check and the sentinels. Every operation asserts "(head)->dll_magic == kt4DLL_MAGIC".
 */
#define kt4DLL_MAGIC 0x5E7D15E7u

typedef struct kt4DLLLink {
    struct kt4DLLLink *next;
    struct kt4DLLLink *prev;
} kt4DLLLink;

typedef struct kt4DLL {
    kt4Be32 dll_magic;
    kt4DLLLink dll_head; /* sentinel before the first element */
    kt4DLLLink dll_tail; /* sentinel after the last element */
} kt4DLL;

kt4DLL *kt4DLLInit(kt4DLL *head);
kt4DLLLink *kt4DLLGetFirst(kt4DLL *head);                  /* 0 when empty */
kt4DLLLink *kt4DLLGetLast(kt4DLL *head);                   /* 0 when empty */
kt4DLLLink *kt4DLLGetNext(kt4DLL *head, kt4DLLLink *elem); /* 0 after the last */
kt4DLLLink *kt4DLLGetPrev(kt4DLL *head, kt4DLLLink *elem); /* 0 before the first */
void kt4DLLInsertAtFront(kt4DLL *head, kt4DLLLink *elem);
void kt4DLLInsertAtBack(kt4DLL *head, kt4DLLLink *elem);
void kt4DLLInsertAfter(kt4DLL *head, kt4DLLLink *after, kt4DLLLink *elem);   /* asserts "after" */
void kt4DLLInsertBefore(kt4DLL *head, kt4DLLLink *before, kt4DLLLink *elem); /* asserts "before" */
/* Unlinks the element and clears both words of its link; an unlinked element is left alone. */
void kt4DLLRemove(kt4DLL *head, kt4DLLLink *elem);
/* 1 when both words of the link are set. */
int kt4DLLIsLinked(const kt4DLLLink *elem);

/* ==== Free-index list (source tag "kt4FreeIndex") ===========================================
 *
 * Hands out and takes back integer identifiers of [lowest, highest], keeping the free ones as
 * a list of ranges in ascending order, disjoint and never adjacent. Get always returns the
 * lowest free index. The caller owns the kt4FreeIndexList record; the ranges come from its
 * allocator hooks (kt4FreeIndexMalloc/kt4FreeIndexFree are the usual ones).
 */
typedef struct kt4FreeIndexList {
    kt4DLL fil_list;                 /* the free ranges */
    void *(*fil_alloc)(size_t size); /* memory for one range */
    void (*fil_free)(void *ptr);
    kt4Be32 fil_used;    /* indexes handed out */
    kt4Be32 fil_total;   /* highest - lowest + 1 */
    kt4Be32 fil_lowest;  /* lowest valid index */
    kt4Be32 fil_highest; /* highest valid index */
} kt4FreeIndexList;

/* One free range [low, high] of a free-index list. */
typedef struct kt4FreeIndexRange {
    kt4DLLLink fir_link;
    kt4Be32 fir_low;
    kt4Be32 fir_high;
} kt4FreeIndexRange;

void *kt4FreeIndexMalloc(size_t size);
void kt4FreeIndexFree(void *ptr);
/* 0, or -1 when the list or a hook is null, highest < lowest or the first range cannot be had. */
int kt4FreeIndexListInit(uint32_t lowest, uint32_t highest, void *(*alloc)(size_t),
                         void (*release)(void *), kt4FreeIndexList *list);
int kt4FreeIndexGet(kt4FreeIndexList *list, uint32_t *index);    /* 0, or -1 when none is free */
int kt4FreeIndexReserve(kt4FreeIndexList *list, uint32_t index); /* 0 when it was free */
int kt4FreeIndexRelease(kt4FreeIndexList *list, uint32_t index); /* 0, or -1 with a message */
void kt4FreeIndexListDestroy(kt4FreeIndexList *list);            /* releases every range */
void kt4FreeIndexDump(kt4FreeIndexList *list);                   /* prints to standard output */

/* ==== Red-black tree (source tag "kt4RBTree") ===============================================
 *
 * An ordered map of caller-owned records: each entry is a node holding a pointer to the
 * caller's record, and the key is read out of the record by the compare function. Equal keys
 * may coexist (a new entry goes to the right of its equals). Every public operation returns
 * the caller's record, or 0 for none; the _kt4RBTree* forms work on nodes.
 *
 * The compare function: compare(tree, a, b) returns a negative number when a sorts before b,
 * 0 when they are equal, a positive number after. a is always the probe of a look-up or the
 * record being inserted; b is always a record in the tree.
 *
 * Look-ups and removes take a probe: a record, not a bare key. The compare reads the key out
 * of the probe exactly as out of a record, so the probe must carry the key at the record's
 * key offset (the "probe" parameter of the calls below). With the key at offset 8, passing
 * the address of a bare key finds nothing:
 *
 *     struct route { uint32_t flags; uint32_t metric; uint32_t prefix; const char *name; };
 *     kt4RBTree *t = kt4RBTreeCreate("routes", offsetof(struct route, prefix), 4, NULL, NULL,
 *                                    _RBTCompareUL);
 *     kt4RBTreeInsert(t, &r);                        // r.prefix set
 *     struct route probe = { .prefix = 0x0A000000 }; // only the key matters
 *     struct route *hit = kt4RBTreeGetExact(t, &probe);
 *     kt4RBTreeRemove(t, &probe);                    // an entry equal to the probe
 *
 * The built-in compares _RBTCompareUL and _RBTCompareI read an unsigned / signed 32-bit
 * integer at the tree's key offset inside each record (and probe), in the processor's own
 * byte order (the record is the caller's); the tree recognises them by address and compares
 * directly. For any other key, pass a compare of your own; the key offset and length are then
 * only stored.
 */
#define KT4_RBTREE_MAGIC 0xDEADBEEFu
#define KT4_RBTREE_NAME_MAX 50
#define KT4_RBTREE_BLACK 0
#define KT4_RBTREE_RED 1
#define KT4_RBTREE_CMP_USER 0 /* the caller's compare function */
#define KT4_RBTREE_CMP_UL 2   /* built-in unsigned 32-bit compare */
#define KT4_RBTREE_CMP_I 4    /* built-in signed 32-bit compare */
#define KT4_RBTREE_WALK_PREORDER 0x1
#define KT4_RBTREE_PRINT_MAX 200 /* larger trees are not printed */

typedef struct kt4RBTreeNode {
    struct kt4RBTreeNode *left;
    struct kt4RBTreeNode *right;
    struct kt4RBTreeNode *parent;
    uint8_t colour; /* KT4_RBTREE_RED or KT4_RBTREE_BLACK */
    uint8_t depth;  /* filled in by the printer only */
    void *data;     /* the caller's record */
} kt4RBTreeNode;

struct kt4RBTree;
typedef int (*kt4RBTreeCompareFn)(struct kt4RBTree *tree, const void *a, const void *b);
typedef void *(*kt4RBTreeAllocFn)(size_t size);
typedef void (*kt4RBTreeFreeFn)(void *node);
/* Called per visited record with a pointer to the walk's further arguments (fresh each call);
 * a non-zero result stops the walk. */
typedef int (*kt4RBTreeVisitFn)(struct kt4RBTree *tree, void *record, va_list *args);
/* Returns the text printed for one record. */
typedef const char *(*kt4RBTreePrintFn)(void *record);

typedef struct kt4RBTree {
    kt4Be32 rbtt_magic;                      /* KT4_RBTREE_MAGIC while alive, 0 after destroy */
    char rbtt_name[KT4_RBTREE_NAME_MAX + 1]; /* the creator's name, always NUL-terminated */
    kt4Be32 rbtt_keyoff;                     /* key offset (built-in compares only) */
    kt4Be32 rbtt_keylen;                     /* 4 for the built-in compares */
    kt4RBTreeNode *rbtt_root;                /* &rbtt_nil while empty */
    kt4Be32 rbtt_debug;                      /* 1: assert non-null records and print function */
    kt4RBTreeCompareFn rbtt_compare;
    kt4RBTreeAllocFn rbtt_alloc; /* node allocator */
    kt4RBTreeFreeFn rbtt_free;   /* node releaser */
    kt4Be32 rbtt_numentries;     /* current entries */
    kt4Be32 rbtt_inserts;        /* successful inserts ever */
    kt4Be32 rbtt_removes;        /* removes ever */
    kt4Be32 rbtt_nodeallocs;     /* nodes taken from the allocator */
    kt4Be32 rbtt_nodefrees;      /* nodes given back */
    kt4RBTreeNode rbtt_nil;      /* every absent child, and the root's parent */
    kt4Be32 rbtt_cmpmode;        /* KT4_RBTREE_CMP_* */
} kt4RBTree;

/* keyOffset: where the key sits in each record (read by the built-in compares only). Zero
 * hooks take the defaults. 0 when the header cannot be had or compare is null or
 * _RBTCompare. */
kt4RBTree *kt4RBTreeCreate(const char *name, uint32_t keyOffset, uint32_t keyLength,
                           kt4RBTreeAllocFn alloc, kt4RBTreeFreeFn release,
                           kt4RBTreeCompareFn compare);
/* The header in the shared-memory heap; nodes still come from the allocator hooks. */
kt4RBTree *kt4RBTreeShmCreate(const char *name, uint32_t keyOffset, uint32_t keyLength,
                              kt4RBTreeAllocFn alloc, kt4RBTreeFreeFn release,
                              kt4RBTreeCompareFn compare);
/* Release the header only; entries still in the tree keep their nodes. */
int kt4RBTreeDestroy(kt4RBTree *tree);
int kt4RBTreeShmDestroy(kt4RBTree *tree);

int kt4RBTreeInsert(kt4RBTree *tree, void *record); /* 1, or 0 when no node could be had */
/* probe: a record carrying the key looked for (see above). Remove takes out an entry equal to
 * the probe and returns its record. */
void *kt4RBTreeRemove(kt4RBTree *tree, const void *probe);
void *kt4RBTreeGetFirst(kt4RBTree *tree);
void *kt4RBTreeGetExact(kt4RBTree *tree, const void *probe);
void *kt4RBTreeGetNext(kt4RBTree *tree, const void *probe);        /* first entry after */
void *kt4RBTreeGetExactOrNext(kt4RBTree *tree, const void *probe); /* equal, else next */
void *kt4RBTreeGetExactOrPrev(kt4RBTree *tree, const void *probe); /* equal, else previous */
/* start: a probe, 0 for the first entry; maxVisits 0: no limit; flags
 * KT4_RBTREE_WALK_PREORDER. */
void *kt4RBTreeWalk(kt4RBTree *tree, const void *start, kt4RBTreeVisitFn visit, uint32_t maxVisits,
                    uint32_t flags, ...);
int kt4RBTreeDebug(kt4RBTree *tree, int on);
void kt4RBTreePrint(kt4RBTree *tree, kt4RBTreePrintFn print);

void *kt4RBTreeMalloc(size_t size);
void kt4RBTreeFree(void *node);

/* The built-in compares, to pass at creation. */
int _RBTCompareUL(struct kt4RBTree *tree, const void *a, const void *b);
int _RBTCompareI(struct kt4RBTree *tree, const void *a, const void *b);
/* The tree's own dispatcher: compares two records of the tree as its look-ups do (built-in
 * compare or the tree's compare function). Not a compare function to create a tree with:
 * creation refuses it (assertion "rbtt_compare", 0, errno EINVAL). */
int _RBTCompare(struct kt4RBTree *tree, const void *a, const void *b);

/* Node-level forms. Insert links a node the caller allocated (its data set) and always
 * succeeds; remove unlinks the given node (links reset to the nil node) and hands it back to
 * the caller. Neither touches the allocation counters. Successor and predecessor step from a
 * node the caller holds, which is the way to visit entries with equal keys one by one. */
kt4RBTreeNode *_kt4RBTreeGetFirst(kt4RBTree *tree);
kt4RBTreeNode *_kt4RBTreeGetExact(kt4RBTree *tree, const void *probe);
kt4RBTreeNode *_kt4RBTreeGetNext(kt4RBTree *tree, const void *probe);
kt4RBTreeNode *_kt4RBTreeGetExactOrNext(kt4RBTree *tree, const void *probe);
kt4RBTreeNode *_kt4RBTreeGetExactOrPrev(kt4RBTree *tree, const void *probe);
int _kt4RBTreeInsert(kt4RBTree *tree, kt4RBTreeNode *node);
kt4RBTreeNode *_kt4RBTreeRemove(kt4RBTree *tree, kt4RBTreeNode *node);
kt4RBTreeNode *_kt4RBTreeWalk(kt4RBTree *tree, const void *start, kt4RBTreeVisitFn visit,
                              uint32_t maxVisits, uint32_t flags, va_list *args);
kt4RBTreeNode *_kt4RBTreeSuccessor(kt4RBTree *tree, kt4RBTreeNode *node);
kt4RBTreeNode *_kt4RBTreePredecessor(kt4RBTree *tree, kt4RBTreeNode *node);

/* ==== AVL tree (source tag "kt4Avl") ========================================================
 *
 * A height-balanced tree of caller-allocated nodes keyed by a fixed-length byte string that
 * follows the node header inside the caller's record:
 *
 *     struct route { kt4AvlNode node; unsigned char key[8]; ...the rest of the record... };
 *
 * There is no tree object: the caller keeps a control block and a root pointer and passes
 * both to every call. Keys are unique: inserting a present key returns the node already there.
 */
typedef struct kt4AvlNode {
    struct kt4AvlNode *left;
    struct kt4AvlNode *right;
    kt4Be32 height; /* signed; 1 for a leaf, an absent child counts 0 */
    kt4Be32 keylen; /* copied from the control block on insert and remove */
    /* the key bytes follow */
} kt4AvlNode;

#define KT4_AVL_KEY(node) ((unsigned char *)((kt4AvlNode *)(node) + 1))

typedef struct kt4AvlCb {
    kt4Be32 avl_keylen;                 /* key length in bytes */
    void (*avl_free)(kt4AvlNode *node); /* 0: the checked allocator's free */
} kt4AvlCb;

typedef void (*kt4AvlApplyFn)(kt4AvlNode *node, void *arg);

kt4AvlNode *kt4AvlInsertNode(kt4AvlCb *cb, kt4AvlNode *node, kt4AvlNode **root);
void kt4AvlRemoveNode(kt4AvlCb *cb, kt4AvlNode *node, kt4AvlNode **root);
kt4AvlNode *kt4AvlGetExact(kt4AvlCb *cb, const void *key, kt4AvlNode **root);
/* current 0: the smallest node. */
kt4AvlNode *kt4AvlGetNext(kt4AvlCb *cb, kt4AvlNode *current, kt4AvlNode *root);
void kt4AvlDeleteTree(kt4AvlCb *cb, kt4AvlNode **root);
/* Apply fn to every node in ascending / descending key order; fn may release the node. */
void TREE_FORWARD_APPLY_ALL(kt4AvlNode *root, kt4AvlApplyFn fn, void *arg);
void TREE_REVERSE_APPLY_ALL(kt4AvlNode *root, kt4AvlApplyFn fn, void *arg);

/* ==== Hash table (source tag "kt4Hash") =====================================================
 *
 * A power-of-two number of buckets, each a kt4DLL of caller records that embed a kt4DLLLink.
 * The caller chooses the bucket (usually with kt4HashGetKey, the Internet checksum of the key
 * masked to the table size) and decides equality with a match function. A bucket cursor is the
 * address of a bucket; the iteration calls move it.
 */
#define kt4HASH_MAGIC 0xABABBABAu

typedef struct kt4HashBucket {
    kt4DLL h_list;
    kt4Be32 h_inserts; /* inserts ever */
    kt4Be32 h_maxnum;  /* highest depth ever */
    kt4Be32 h_curnum;  /* current depth */
} kt4HashBucket;

typedef struct kt4HashTable {
    kt4Be32 hh_magic;
    kt4HashBucket *hh_buckets;
    kt4Be32 hh_size;   /* number of buckets */
    kt4Be32 hh_curnum; /* entries in the whole table */
    void *(*hh_alloc)(size_t size);
    void (*hh_free)(void *ptr);
} kt4HashTable;

/* 0 for the entry sought; args points at the find's further arguments (fresh each call). */
typedef int (*kt4HashMatchFn)(kt4DLLLink *entry, va_list *args);
typedef void (*kt4HashPrintFn)(kt4DLLLink *entry);

void *kt4HashMalloc(size_t size);
void kt4HashFree(void *ptr);
kt4HashTable *kt4HashCreate(uint32_t size, void *(*alloc)(size_t), void (*release)(void *));
void kt4HashInit(kt4HashTable *table);
void kt4HashDestroy(kt4HashTable *table);
uint32_t kt4HashGetKey(kt4HashTable *table, const void *key, uint32_t length);
void kt4HashInsertAtFront(kt4HashTable *table, uint32_t bid, kt4DLLLink *entry);
void kt4HashInsertAtBack(kt4HashTable *table, uint32_t bid, kt4DLLLink *entry);
kt4DLLLink *kt4HashFind(kt4HashTable *table, kt4HashBucket **cursor, uint32_t bid,
                        kt4HashMatchFn match, ...);
void kt4HashRemove(kt4HashTable *table, kt4HashBucket **cursor, kt4DLLLink *entry);
kt4DLLLink *kt4HashRemoveAndGetNext(kt4HashTable *table, kt4HashBucket **cursor, kt4DLLLink *entry);
kt4DLLLink *kt4HashGetFirst(kt4HashTable *table, kt4HashBucket **cursor);
kt4DLLLink *kt4HashGetNext(kt4HashTable *table, kt4HashBucket **cursor, kt4DLLLink *entry);
/* Backwards; GetLast never looks at bucket 0. */
kt4DLLLink *kt4HashGetLast(kt4HashTable *table, kt4HashBucket **cursor);
kt4DLLLink *kt4HashGetPrev(kt4HashTable *table, kt4HashBucket **cursor, kt4DLLLink *entry);
kt4DLLLink *kt4HashGetBucketFirst(kt4HashTable *table, kt4HashBucket **cursor);
uint32_t kt4HashStat(kt4HashTable *table, uint32_t bid, uint32_t *total, uint32_t *curDepth,
                     uint32_t *inserts, uint32_t *maxDepth);
void kt4HashAttach(kt4HashTable *table, kt4HashPrintFn print);

KT4_END_DECLS

/* The radix tree builds on the list types above. */
#include <kt4/radix.h>

#endif /* KT4_CONTAINERS_H */
