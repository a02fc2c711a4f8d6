// The hash table: the checksum bucket id, iteration both ways (with the bucket-0 quirk of
// GetLast), removal while walking, statistics and assertions, against a model.
#include "support.h"

#include <kt4/containers.h>

#include <map>
#include <random>
#include <set>
#include <vector>

namespace {

using ctrtest::Capture;
using ctrtest::LeakChecked;

struct Entry {
    kt4DLLLink link;
    uint32_t key;
};

Entry *entry_of(kt4DLLLink *l) {
    return KT4_CONTAINER_OF(l, Entry, link);
}

int match_key(kt4DLLLink *e, va_list *args) {
    return entry_of(e)->key == va_arg(*args, uint32_t) ? 0 : 1;
}

// The documented arithmetic, word by word.
uint32_t reference_bucket(const unsigned char *p, uint32_t len, uint32_t size) {
    uint32_t sum = 0, i = 0;
    for (; i + 1 < len; i += 2)
        sum += (uint32_t{p[i]} << 8) | p[i + 1];
    if (i < len) sum += uint32_t{p[i]} * 256;
    if (sum <= 0xFFFF) return ~sum & 0xFFFF & (size - 1);
    uint32_t r = (sum >> 16) + (sum & 0xFFFF);
    if (r >= 65536) r -= 65535;
    return ~r & 0xFFFF & (size - 1);
}

TEST_F(LeakChecked, HashCreateAndBucketId) {
    Capture cap(true);
    kt4HashDestroy(kt4HashCreate(48, nullptr, nullptr)); // reported, still usable
    EXPECT_EQ(nullptr, kt4HashCreate(0, nullptr, nullptr));
    const std::string out = cap.take();
    EXPECT_EQ(2, Capture::count(out, "((size) ? ((((size) & ((size) - 1)) == 0) ? 1 : 0) : 0)"));
    EXPECT_EQ(1, Capture::count(out, "size"));

    kt4HashTable *h = kt4HashCreate(256, nullptr, nullptr);
    EXPECT_EQ(kt4HASH_MAGIC, kt4Be32Get(&h->hh_magic));
    EXPECT_EQ(std::set<std::string>{"kt4Hash"}, live_tags());
    EXPECT_EQ(254u, kt4HashGetKey(h, "\x00\x01", 2));
    EXPECT_EQ(255u, kt4HashGetKey(h, "\x01", 1));
    EXPECT_EQ(0u, kt4HashGetKey(h, nullptr, 4));
    std::mt19937 rng(5);
    std::vector<unsigned char> buf(70000);
    for (auto &b : buf)
        b = static_cast<unsigned char>(rng());
    for (uint32_t len = 1; len <= 64; ++len) {
        const unsigned char *p = buf.data() + rng() % 1000;
        ASSERT_EQ(reference_bucket(p, len, 256), kt4HashGetKey(h, p, len)) << len;
    }
    std::vector<unsigned char> ff(70000, 0xFF); // long keys: the 32-bit sum needs the fold
    EXPECT_EQ(reference_bucket(ff.data(), 70000, 256), kt4HashGetKey(h, ff.data(), 70000));
    kt4HashDestroy(h);
}

TEST_F(LeakChecked, HashIterationStatisticsAndTheBucketZeroQuirk) {
    kt4HashTable *h = kt4HashCreate(8, nullptr, nullptr);
    Entry zero{{}, 0}, a{{}, 1}, b{{}, 2}, c{{}, 3}, d{{}, 4};
    kt4HashInsertAtBack(h, 0, &zero.link);
    kt4HashBucket *cur = nullptr;
    EXPECT_EQ(&zero.link, kt4HashGetFirst(h, &cur));
    EXPECT_EQ(nullptr, kt4HashGetLast(h, &cur)); // GetLast never looks at bucket 0
    EXPECT_EQ(nullptr, cur);
    kt4HashInsertAtBack(h, 3, &a.link);
    kt4HashInsertAtBack(h, 3, &b.link);
    kt4HashInsertAtFront(h, 3, &c.link); // bucket 3: c a b
    kt4HashInsertAtBack(h, 7, &d.link);
    std::vector<uint32_t> fwd, bwd;
    for (kt4DLLLink *e = kt4HashGetFirst(h, &cur); e; e = kt4HashGetNext(h, &cur, e))
        fwd.push_back(entry_of(e)->key);
    for (kt4DLLLink *e = kt4HashGetLast(h, &cur); e; e = kt4HashGetPrev(h, &cur, e))
        bwd.push_back(entry_of(e)->key);
    EXPECT_EQ((std::vector<uint32_t>{0, 3, 1, 2, 4}), fwd);
    EXPECT_EQ((std::vector<uint32_t>{4, 2, 1, 3, 0}), bwd); // GetPrev does reach bucket 0
    cur = h->hh_buckets + 4;
    EXPECT_EQ(&d.link, kt4HashGetBucketFirst(h, &cur));
    EXPECT_EQ(h->hh_buckets + 7, cur);
    EXPECT_EQ(&b.link, kt4HashFind(h, &cur, 3, match_key, uint32_t{2}));
    EXPECT_EQ(h->hh_buckets + 3, cur);
    EXPECT_EQ(nullptr, kt4HashFind(h, &cur, 3, match_key, uint32_t{4}));
    EXPECT_EQ(nullptr, cur);
    cur = h->hh_buckets + 3;
    kt4HashRemove(h, &cur, &a.link);
    uint32_t total, depth, inserts, maxd;
    EXPECT_EQ(2u, kt4HashStat(h, 3, &total, &depth, &inserts, &maxd));
    EXPECT_EQ((std::vector<uint32_t>{4, 2, 3, 3}),
              (std::vector<uint32_t>{total, depth, inserts, maxd}));
    Capture out;
    kt4HashAttach(
        h, [](kt4DLLLink *e) { std::printf("Node with value %ld\n", long{entry_of(e)->key}); });
    EXPECT_NE(std::string::npos, out.take().find("Node with value 3\nNode with value 2\n"));
    kt4HashRemove(h, nullptr, &d.link); // a lost cursor: the entry's bucket is found
    EXPECT_EQ(0u, kt4HashStat(h, 7, nullptr, nullptr, nullptr, nullptr));

    Capture cap(true);
    kt4HashInsertAtBack(h, 8, &a.link); // out of range: reported, nothing done
    EXPECT_FALSE(kt4DLLIsLinked(&a.link));
    kt4HashDestroy(h); // three entries left: reported, destroyed anyway
    const std::string asserts = cap.take();
    EXPECT_EQ(1, Capture::count(asserts, "bid < hh->hh_size"));
    EXPECT_EQ(1, Capture::count(asserts, "!hh->hh_curnum"));
    EXPECT_EQ(2, Capture::count(asserts, "!t->h_curnum"));
}

// Random inserts, finds and removes against per-bucket sets, then statistics, a forward walk
// in bucket order and a drain by remove-and-get-next.
TEST_F(LeakChecked, HashMatchesModel) {
    std::mt19937 rng(31);
    constexpr uint32_t kBuckets = 128;
    kt4HashTable *h = kt4HashCreate(kBuckets, nullptr, nullptr);
    std::vector<Entry> entries(3000);
    std::map<uint32_t, std::set<uint32_t>> model;
    std::vector<uint32_t> inserts(kBuckets), maxd(kBuckets);
    for (int step = 0; step < 20000; ++step) {
        uint32_t k = static_cast<uint32_t>(rng() % entries.size());
        const uint32_t bid = kt4HashGetKey(h, &k, 4);
        kt4HashBucket *cur = nullptr;
        kt4DLLLink *found = kt4HashFind(h, &cur, bid, match_key, k);
        ASSERT_EQ(model[bid].count(k) ? &entries[k].link : nullptr, found);
        if (found) {
            ASSERT_EQ(h->hh_buckets + bid, cur);
            kt4HashRemove(h, &cur, found);
            model[bid].erase(k);
        } else {
            entries[k].key = k;
            if (rng() % 2)
                kt4HashInsertAtFront(h, bid, &entries[k].link);
            else
                kt4HashInsertAtBack(h, bid, &entries[k].link);
            model[bid].insert(k);
            ++inserts[bid];
            maxd[bid] = std::max(maxd[bid], static_cast<uint32_t>(model[bid].size()));
        }
    }
    uint32_t total = 0;
    for (uint32_t b = 0; b < kBuckets; ++b) {
        uint32_t t, depth, ins, mx;
        kt4HashStat(h, b, &t, &depth, &ins, &mx);
        ASSERT_EQ(model[b].size(), depth);
        ASSERT_EQ(inserts[b], ins);
        ASSERT_EQ(maxd[b], mx);
        total += depth;
    }
    EXPECT_EQ(total, kt4Be32Get(&h->hh_curnum));
    // Walk removing every other entry: each entry is seen exactly once, in bucket order.
    std::set<uint32_t> seen;
    kt4HashBucket *cur = nullptr;
    ptrdiff_t last_bucket = 0;
    int n = 0;
    for (kt4DLLLink *e = kt4HashGetFirst(h, &cur); e; ++n) {
        ASSERT_TRUE(seen.insert(entry_of(e)->key).second);
        ASSERT_GE(cur - h->hh_buckets, last_bucket);
        last_bucket = cur - h->hh_buckets;
        ASSERT_EQ(1u, model[static_cast<uint32_t>(last_bucket)].count(entry_of(e)->key));
        e = n % 2 ? kt4HashGetNext(h, &cur, e) : kt4HashRemoveAndGetNext(h, &cur, e);
    }
    EXPECT_EQ(total, seen.size());
    EXPECT_EQ(total / 2, kt4Be32Get(&h->hh_curnum));
    for (kt4DLLLink *e = kt4HashGetFirst(h, &cur); e;)
        e = kt4HashRemoveAndGetNext(h, &cur, e);
    EXPECT_EQ(0u, kt4Be32Get(&h->hh_curnum));
    kt4HashDestroy(h);
}

} // namespace
