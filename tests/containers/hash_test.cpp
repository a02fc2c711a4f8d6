// The hash table: the checksum bucket id, iteration both ways (with the bucket-0 quirk of
// GetLast), removal while walking, statistics and the destroy assertions, against a model.
#include "support.h"

#include <kt4/containers.h>
#include <kt4/hostsim.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdarg>
#include <cstring>
#include <map>
#include <random>
#include <set>
#include <string>
#include <vector>

namespace {

using ctrtest::AssertCapture;
using ctrtest::StdoutCapture;

struct Entry {
    kt4DLLLink link;
    uint32_t key;
    long value;
};

Entry *entry_of(kt4DLLLink *l) {
    return l ? KT4_CONTAINER_OF(l, Entry, link) : nullptr;
}

int match_key(kt4DLLLink *e, va_list *args) {
    const uint32_t want = va_arg(*args, uint32_t);
    return entry_of(e)->key == want ? 0 : 1;
}

// The bucket id as the documented arithmetic gives it, word by word.
uint32_t reference_bucket(const unsigned char *p, uint32_t len, uint32_t size) {
    if (p == nullptr || len == 0) return 0;
    uint32_t sum = 0;
    uint32_t i = 0;
    for (; i + 1 < len; i += 2)
        sum += (uint32_t{p[i]} << 8) | p[i + 1];
    if (i < len) sum += uint32_t{p[i]} * 256;
    if (sum <= 0xFFFF) return ~sum & 0xFFFF & (size - 1);
    uint32_t r = (sum >> 16) + (sum & 0xFFFF);
    if (r >= 65536) r -= 65535;
    return ~r & 0xFFFF & (size - 1);
}

class Hash : public ::testing::Test {
  protected:
    void SetUp() override {
        MCReset();
        gKT4MCOn = 1;
    }
    void TearDown() override {
        EXPECT_EQ(0u, MCLiveCount());
        gKT4MCOn = 0;
        MCReset();
    }
};

TEST_F(Hash, BucketIdIsTheMaskedInternetChecksum) {
    kt4HashTable *h = kt4HashCreate(256, nullptr, nullptr);
    ASSERT_NE(nullptr, h);
    const unsigned char two[] = {0x00, 0x01};
    const unsigned char one[] = {0x01};
    EXPECT_EQ(254u, kt4HashGetKey(h, two, 2));
    EXPECT_EQ(255u, kt4HashGetKey(h, one, 1));
    EXPECT_EQ(0u, kt4HashGetKey(h, nullptr, 4));
    EXPECT_EQ(0u, kt4HashGetKey(h, two, 0));
    // Random keys of every length up to 64, and sums that need the fold.
    std::mt19937 rng(5);
    std::vector<unsigned char> buf(70000);
    for (auto &b : buf)
        b = static_cast<unsigned char>(rng());
    for (uint32_t len = 1; len <= 64; ++len)
        for (int k = 0; k < 20; ++k) {
            const unsigned char *p = buf.data() + rng() % 1000;
            ASSERT_EQ(reference_bucket(p, len, 256), kt4HashGetKey(h, p, len)) << len;
        }
    std::vector<unsigned char> ff(70000, 0xFF); // 35000 words of 0xFFFF: sum far above 16 bits
    EXPECT_EQ(reference_bucket(ff.data(), 70000, 256), kt4HashGetKey(h, ff.data(), 70000));
    EXPECT_EQ(reference_bucket(buf.data(), 69999, 256), kt4HashGetKey(h, buf.data(), 69999));
    kt4HashDestroy(h);
}

TEST_F(Hash, CreateChecksSizeAndLaysOutTheHeader) {
    AssertCapture cap;
    kt4HashTable *h48 = kt4HashCreate(48, nullptr, nullptr);
    std::string out = cap.take();
    EXPECT_EQ(1,
              AssertCapture::count(out, "((size) ? ((((size) & ((size) - 1)) == 0) ? 1 : 0) : 0)"));
    kt4HashDestroy(h48);

    kt4HashTable *h = kt4HashCreate(64, nullptr, nullptr);
    ASSERT_NE(nullptr, h);
    EXPECT_EQ(kt4HASH_MAGIC, kt4Be32Get(&h->hh_magic));
    EXPECT_EQ(64u, kt4Be32Get(&h->hh_size));
    EXPECT_EQ(0u, kt4Be32Get(&h->hh_curnum));
    EXPECT_EQ(kt4HashMalloc, h->hh_alloc);
    std::set<std::string> tags;
    MCForEach([](const kt4mc_block_info *b,
                 void *a) { static_cast<std::set<std::string> *>(a)->insert(b->file); },
              &tags);
    EXPECT_EQ(std::set<std::string>{"kt4Hash"}, tags);
    kt4HashDestroy(h);

    AssertCapture cap0;
    EXPECT_EQ(nullptr, kt4HashCreate(0, nullptr, nullptr));
    EXPECT_EQ(1, AssertCapture::count(cap0.take(), "size"));
}

TEST_F(Hash, CallerAllocatorAndFailedBucketArray) {
    static int allocs, frees;
    allocs = frees = 0;
    auto second_fails = [](size_t n) -> void * {
        return ++allocs == 2 ? nullptr : ::operator new(n);
    };
    auto release = [](void *p) {
        ++frees;
        ::operator delete(p);
    };
    EXPECT_EQ(nullptr, kt4HashCreate(16, second_fails, release));
    EXPECT_EQ(2, allocs);
    EXPECT_EQ(1, frees); // the header went back
    kt4HashTable *h = kt4HashCreate(16, second_fails, release);
    ASSERT_NE(nullptr, h);
    kt4HashDestroy(h);
    EXPECT_EQ(3, frees);
}

TEST_F(Hash, IterationBothWaysAndTheBucketZeroQuirk) {
    kt4HashTable *h = kt4HashCreate(8, nullptr, nullptr);
    Entry zero{{}, 0, 0};
    kt4HashInsertAtBack(h, 0, &zero.link);
    kt4HashBucket *cur = nullptr;
    EXPECT_EQ(&zero.link, kt4HashGetFirst(h, &cur));
    EXPECT_EQ(h->hh_buckets, cur);
    EXPECT_EQ(nullptr, kt4HashGetLast(h, &cur)); // bucket 0 is never looked at by GetLast
    EXPECT_EQ(nullptr, cur);

    Entry a{{}, 1, 1}, b{{}, 2, 2}, c{{}, 3, 3}, d{{}, 4, 4};
    kt4HashInsertAtBack(h, 3, &a.link);
    kt4HashInsertAtBack(h, 3, &b.link);
    kt4HashInsertAtFront(h, 3, &c.link); // bucket 3: c a b
    kt4HashInsertAtBack(h, 7, &d.link);
    std::vector<uint32_t> fwd, bwd;
    for (kt4DLLLink *e = kt4HashGetFirst(h, &cur); e; e = kt4HashGetNext(h, &cur, e))
        fwd.push_back(entry_of(e)->key);
    EXPECT_EQ((std::vector<uint32_t>{0, 3, 1, 2, 4}), fwd);
    for (kt4DLLLink *e = kt4HashGetLast(h, &cur); e; e = kt4HashGetPrev(h, &cur, e))
        bwd.push_back(entry_of(e)->key);
    EXPECT_EQ((std::vector<uint32_t>{4, 2, 1, 3, 0}), bwd); // GetPrev does reach bucket 0
    EXPECT_EQ(nullptr, cur);

    // A null cursor or entry starts over.
    cur = nullptr;
    EXPECT_EQ(&zero.link, kt4HashGetNext(h, &cur, &a.link));
    EXPECT_EQ(&d.link, kt4HashGetPrev(h, &cur, nullptr));

    cur = h->hh_buckets + 4;
    EXPECT_EQ(&d.link, kt4HashGetBucketFirst(h, &cur));
    EXPECT_EQ(h->hh_buckets + 7, cur);
    cur = h->hh_buckets + 3;
    EXPECT_EQ(&c.link, kt4HashGetBucketFirst(h, &cur));

    EXPECT_EQ(&b.link, kt4HashFind(h, &cur, 3, match_key, uint32_t{2}));
    EXPECT_EQ(h->hh_buckets + 3, cur);
    EXPECT_EQ(nullptr, kt4HashFind(h, &cur, 3, match_key, uint32_t{4}));
    EXPECT_EQ(nullptr, cur);

    uint32_t total, depth, inserts, maxd;
    EXPECT_EQ(3u, kt4HashStat(h, 3, &total, &depth, &inserts, &maxd));
    EXPECT_EQ(5u, total);
    EXPECT_EQ(3u, inserts);
    EXPECT_EQ(3u, maxd);
    cur = h->hh_buckets + 3;
    kt4HashRemove(h, &cur, &a.link);
    EXPECT_FALSE(kt4DLLIsLinked(&a.link));
    EXPECT_EQ(2u, kt4HashStat(h, 3, &total, &depth, &inserts, &maxd));
    EXPECT_EQ(4u, total);
    EXPECT_EQ(3u, maxd);

    {
        StdoutCapture out;
        kt4HashAttach(
            h, [](kt4DLLLink *e) { std::printf("Node with value %ld\n", entry_of(e)->value); });
        std::string s = out.take();
        EXPECT_NE(std::string::npos, s.find("Node with value 3\nNode with value 2\n"));
        EXPECT_NE(std::string::npos, s.find("Node with value 4\n"));
    }
    // Removal with the cursor lost still finds the entry's bucket.
    kt4HashRemove(h, nullptr, &d.link);
    EXPECT_EQ(0u, kt4HashStat(h, 7, nullptr, nullptr, nullptr, nullptr));
    for (Entry *e : {&zero, &b, &c}) {
        cur = nullptr;
        kt4HashRemove(h, &cur, &e->link);
    }
    kt4HashDestroy(h);
}

TEST_F(Hash, RemoveAndGetNextVisitsEveryEntryOnce) {
    kt4HashTable *h = kt4HashCreate(64, nullptr, nullptr);
    std::vector<Entry> entries(500);
    for (uint32_t i = 0; i < entries.size(); ++i) {
        entries[i] = Entry{{}, i, static_cast<long>(i)};
        kt4HashInsertAtBack(h, kt4HashGetKey(h, &entries[i].key, 4), &entries[i].link);
    }
    std::multiset<uint32_t> seen;
    kt4HashBucket *cur = nullptr;
    kt4DLLLink *e = kt4HashGetFirst(h, &cur);
    int n = 0;
    while (e) {
        seen.insert(entry_of(e)->key);
        // Remove every other entry while walking; the survivors are stepped over normally.
        e = (n++ % 2 == 0) ? kt4HashRemoveAndGetNext(h, &cur, e) : kt4HashGetNext(h, &cur, e);
    }
    EXPECT_EQ(500u, seen.size());
    EXPECT_EQ(500u, std::set<uint32_t>(seen.begin(), seen.end()).size());
    EXPECT_EQ(250u, kt4Be32Get(&h->hh_curnum));
    uint32_t sum_depth = 0;
    for (uint32_t b = 0; b < 64; ++b)
        sum_depth += kt4HashStat(h, b, nullptr, nullptr, nullptr, nullptr);
    EXPECT_EQ(250u, sum_depth);
    // Drain.
    e = kt4HashGetFirst(h, &cur);
    while (e)
        e = kt4HashRemoveAndGetNext(h, &cur, e);
    EXPECT_EQ(0u, kt4Be32Get(&h->hh_curnum));
    kt4HashDestroy(h);
}

TEST_F(Hash, MatchesModelOverRandomOperations) {
    std::mt19937 rng(31);
    kt4HashTable *h = kt4HashCreate(128, nullptr, nullptr);
    constexpr uint32_t kKeys = 3000;
    std::vector<Entry> entries(kKeys);
    std::map<uint32_t, std::multiset<uint32_t>> per_bucket; // bucket -> keys
    std::vector<uint32_t> inserts(128), maxd(128);
    for (int step = 0; step < 20000; ++step) {
        uint32_t k = rng() % kKeys;
        Entry &en = entries[k];
        uint32_t bid = kt4HashGetKey(h, &k, 4);
        kt4HashBucket *cur = nullptr;
        kt4DLLLink *found = kt4HashFind(h, &cur, bid, match_key, k);
        const bool present = per_bucket[bid].count(k) != 0;
        ASSERT_EQ(present, found != nullptr);
        if (present) {
            ASSERT_EQ(&en.link, found);
            ASSERT_EQ(h->hh_buckets + bid, cur);
            kt4HashRemove(h, &cur, found);
            per_bucket[bid].erase(k);
        } else {
            en.key = k;
            if (rng() % 2)
                kt4HashInsertAtFront(h, bid, &en.link);
            else
                kt4HashInsertAtBack(h, bid, &en.link);
            per_bucket[bid].insert(k);
            ++inserts[bid];
            maxd[bid] =
                std::max<uint32_t>(maxd[bid], static_cast<uint32_t>(per_bucket[bid].size()));
        }
    }
    size_t total = 0;
    for (uint32_t b = 0; b < 128; ++b) {
        uint32_t t, depth, ins, mx;
        kt4HashStat(h, b, &t, &depth, &ins, &mx);
        ASSERT_EQ(per_bucket[b].size(), depth);
        ASSERT_EQ(inserts[b], ins);
        ASSERT_EQ(maxd[b], mx);
        total += depth;
    }
    EXPECT_EQ(total, kt4Be32Get(&h->hh_curnum));
    // Forward iteration yields each bucket's keys in ascending bucket order.
    std::vector<uint32_t> order, want;
    kt4HashBucket *cur = nullptr;
    for (kt4DLLLink *e = kt4HashGetFirst(h, &cur); e; e = kt4HashGetNext(h, &cur, e)) {
        ASSERT_EQ(per_bucket[static_cast<uint32_t>(cur - h->hh_buckets)].count(entry_of(e)->key),
                  1u);
        order.push_back(static_cast<uint32_t>(cur - h->hh_buckets));
    }
    EXPECT_TRUE(std::is_sorted(order.begin(), order.end()));
    EXPECT_EQ(total, order.size());
    for (kt4DLLLink *e = kt4HashGetFirst(h, &cur); e;)
        e = kt4HashRemoveAndGetNext(h, &cur, e);
    kt4HashDestroy(h);
}

TEST_F(Hash, AssertionsOnMisuse) {
    kt4HashTable *h = kt4HashCreate(16, nullptr, nullptr);
    Entry a{{}, 1, 1};
    AssertCapture cap;
    kt4HashInsertAtBack(h, 16, &a.link); // out of range: reported, nothing done
    EXPECT_FALSE(kt4DLLIsLinked(&a.link));
    kt4HashInsertAtBack(h, 5, &a.link);
    kt4HashDestroy(h); // still holds an entry: reported, destroyed anyway
    kt4HashInit(nullptr);
    std::string out = cap.take();
    EXPECT_EQ(1, AssertCapture::count(out, "bid < hh->hh_size"));
    EXPECT_EQ(1, AssertCapture::count(out, "!hh->hh_curnum"));
    EXPECT_EQ(1, AssertCapture::count(out, "!t->h_curnum"));
    EXPECT_NE(std::string::npos, out.find("kt4Hash"));
}

} // namespace
