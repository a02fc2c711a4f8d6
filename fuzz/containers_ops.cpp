// Byte streams of operations on a red-black tree and a hash table, checked against standard
// library models after every step. Each input byte pair is one operation and its key.
#include <kt4/containers.h>

#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <map>
#include <set>
#include <vector>

namespace {

constexpr size_t kMaxRecords = 512;
constexpr uint32_t kBuckets = 16;

struct Rec {
    uint32_t key;
    int id;
    kt4DLLLink link; // for the hash table
    bool in_hash;
};

#define CHECK(cond)                                                                                \
    do {                                                                                           \
        if (!(cond)) __builtin_trap();                                                             \
    } while (0)

int match_key(kt4DLLLink *e, va_list *args) {
    return KT4_CONTAINER_OF(e, Rec, link)->key == va_arg(*args, uint32_t) ? 0 : 1;
}

int count_visit(kt4RBTree *, void *, va_list *args) {
    ++*va_arg(*args, int *);
    return 0;
}

void check_tree(kt4RBTree *t, const std::multimap<uint32_t, int> &model) {
    // In-order through node successors equals the model, equal keys in insertion order.
    auto it = model.begin();
    for (kt4RBTreeNode *n = _kt4RBTreeGetFirst(t); n; n = _kt4RBTreeSuccessor(t, n), ++it) {
        CHECK(it != model.end());
        const Rec *r = static_cast<const Rec *>(n->data);
        CHECK(r->key == it->first && r->id == it->second);
        CHECK(n->colour == KT4_RBTREE_BLACK ||
              (n->left->colour == KT4_RBTREE_BLACK && n->right->colour == KT4_RBTREE_BLACK));
    }
    CHECK(it == model.end());
    CHECK(kt4Be32Get(&t->rbtt_numentries) == model.size());
    CHECK(t->rbtt_root->colour == KT4_RBTREE_BLACK);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    std::vector<Rec> recs(kMaxRecords);
    size_t used = 0;
    kt4RBTree *t = kt4RBTreeCreate("fuzz", offsetof(Rec, key), 4, nullptr, nullptr, _RBTCompareUL);
    kt4HashTable *h = kt4HashCreate(kBuckets, nullptr, nullptr);
    std::multimap<uint32_t, int> model;
    std::map<uint32_t, std::multiset<uint32_t>> buckets;

    for (size_t i = 0; i + 1 < size; i += 2) {
        const uint8_t op = data[i] % 10;
        const uint32_t key = data[i + 1] % 64;
        Rec probe{key, -1, {nullptr, nullptr}, false};
        switch (op) {
        case 0:
        case 1: { // insert into the tree (and the hash table when the key is new there)
            if (used == kMaxRecords) break;
            Rec &r = recs[used];
            r = Rec{key, static_cast<int>(used), {nullptr, nullptr}, false};
            ++used;
            CHECK(kt4RBTreeInsert(t, &r) == 1);
            model.emplace(key, r.id);
            const uint32_t bid = kt4HashGetKey(h, &key, 4);
            CHECK(bid < kBuckets);
            if (!buckets[bid].count(key)) {
                if (op == 0)
                    kt4HashInsertAtFront(h, bid, &r.link);
                else
                    kt4HashInsertAtBack(h, bid, &r.link);
                r.in_hash = true;
                buckets[bid].insert(key);
            }
            break;
        }
        case 2: { // remove from the tree
            auto *got = static_cast<Rec *>(kt4RBTreeRemove(t, &probe));
            auto range = model.equal_range(key);
            CHECK((got == nullptr) == (range.first == range.second));
            if (got) {
                bool found = false;
                for (auto it = range.first; it != range.second; ++it)
                    if (it->second == got->id) {
                        model.erase(it);
                        found = true;
                        break;
                    }
                CHECK(found);
            }
            break;
        }
        case 3: { // look-ups
            auto *ex = static_cast<Rec *>(kt4RBTreeGetExact(t, &probe));
            CHECK((ex != nullptr) == (model.count(key) != 0));
            auto *eon = static_cast<Rec *>(kt4RBTreeGetExactOrNext(t, &probe));
            auto lb = model.lower_bound(key);
            CHECK(lb == model.end() ? eon == nullptr : (eon && eon->key == lb->first));
            auto *eop = static_cast<Rec *>(kt4RBTreeGetExactOrPrev(t, &probe));
            auto ub = model.upper_bound(key);
            if (model.count(key))
                CHECK(eop && eop->key == key);
            else
                CHECK(ub == model.begin() ? eop == nullptr
                                          : (eop && eop->key == std::prev(ub)->first));
            auto *nx = static_cast<Rec *>(kt4RBTreeGetNext(t, &probe));
            if (!model.count(key))
                CHECK(ub == model.end() ? nx == nullptr : (nx && nx->key == ub->first));
            else
                CHECK(nx == nullptr || nx->key >= key);
            break;
        }
        case 4: { // walk from the key: it resumes after the entry exact-or-next finds
            int visits = 0;
            kt4RBTreeWalk(t, &probe, count_visit, 0, 0, &visits);
            kt4RBTreeNode *start = _kt4RBTreeGetExactOrNext(t, &probe);
            auto lb = model.lower_bound(key);
            CHECK((start == nullptr) == (lb == model.end()));
            size_t want = model.size();
            if (start != nullptr) {
                CHECK(static_cast<const Rec *>(start->data)->key == lb->first);
                want = 0;
                for (kt4RBTreeNode *n = _kt4RBTreeSuccessor(t, start); n;
                     n = _kt4RBTreeSuccessor(t, n))
                    ++want;
                // Among equal keys the walk may resume after any of them.
                const size_t greater =
                    static_cast<size_t>(std::distance(model.upper_bound(lb->first), model.end()));
                CHECK(want >= greater && want <= greater + model.count(lb->first) - 1);
            }
            CHECK(static_cast<size_t>(visits) == want);
            break;
        }
        case 5:
        case 6: { // hash find, and remove when op is 6
            const uint32_t bid = kt4HashGetKey(h, &key, 4);
            kt4HashBucket *cur = nullptr;
            kt4DLLLink *e = kt4HashFind(h, &cur, bid, match_key, key);
            CHECK((e != nullptr) == (buckets[bid].count(key) != 0));
            if (e && op == 6) {
                kt4HashRemove(h, &cur, e);
                KT4_CONTAINER_OF(e, Rec, link)->in_hash = false;
                buckets[bid].erase(key);
            }
            break;
        }
        case 7: { // hash iteration both ways
            size_t fwd = 0, bwd = 0, in_zero = buckets[0].size(), total = 0;
            kt4HashBucket *cur = nullptr;
            for (kt4DLLLink *e = kt4HashGetFirst(h, &cur); e; e = kt4HashGetNext(h, &cur, e))
                ++fwd;
            for (kt4DLLLink *e = kt4HashGetLast(h, &cur); e; e = kt4HashGetPrev(h, &cur, e))
                ++bwd;
            for (auto &b : buckets)
                total += b.second.size();
            CHECK(fwd == total);
            // GetLast never looks at bucket 0: with only bucket 0 filled it finds nothing.
            CHECK(bwd == (total == in_zero ? 0 : total));
            break;
        }
        case 8: { // remove-and-get-next sweep of one bucket's neighbourhood
            kt4HashBucket *cur = nullptr;
            kt4DLLLink *e = kt4HashGetFirst(h, &cur);
            if (e) {
                Rec *r = KT4_CONTAINER_OF(e, Rec, link);
                const uint32_t bid = static_cast<uint32_t>(cur - h->hh_buckets);
                kt4HashRemoveAndGetNext(h, &cur, e);
                r->in_hash = false;
                buckets[bid].erase(r->key);
            }
            break;
        }
        default:
            check_tree(t, model);
            break;
        }
    }
    check_tree(t, model);
    while (void *r = kt4RBTreeGetFirst(t))
        kt4RBTreeRemove(t, r);
    kt4RBTreeDestroy(t);
    for (auto &r : recs)
        if (r.in_hash) {
            kt4HashBucket *cur = nullptr;
            kt4HashRemove(h, &cur, &r.link);
        }
    kt4HashDestroy(h);
    return 0;
}
