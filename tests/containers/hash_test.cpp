// The hash table: the checksum bucket id, iteration both ways (with the bucket-0 quirk of
// GetLast), removal while walking, statistics. Its model check is the fuzz target's
// (containers_ops, replayed under CTest).
#include "support.h"

#include <kt4/containers.h>

#include <vector>

namespace {

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

TEST_F(LeakChecked, HashBucketIdIterationStatisticsAndTheBucketZeroQuirk) {
    kt4HashDestroy(kt4HashCreate(48, nullptr, nullptr)); // reported, still usable
    EXPECT_EQ(nullptr, kt4HashCreate(0, nullptr, nullptr));

    kt4HashTable *h = kt4HashCreate(256, nullptr, nullptr);
    EXPECT_EQ(255u, kt4HashGetKey(h, "\x01", 1));
    EXPECT_EQ(0u, kt4HashGetKey(h, nullptr, 4));
    EXPECT_EQ(0x53u, kt4HashGetKey(h, "\x12\x34\x56\x78", 4)); // ~(0x1234 + 0x5678), low byte
    std::vector<unsigned char> ff(70000, 0xFF); // long keys: the 32-bit sum needs the fold
    EXPECT_EQ(0u, kt4HashGetKey(h, ff.data(), 70000));
    kt4HashDestroy(h);

    h = kt4HashCreate(8, nullptr, nullptr);
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
    const std::string out = kt4test::stdout_of([&] {
        kt4HashAttach(
            h, [](kt4DLLLink *e) { std::printf("Node with value %ld\n", long{entry_of(e)->key}); });
    });
    EXPECT_NE(std::string::npos, out.find("Node with value 3\nNode with value 2\n"));
    kt4HashRemove(h, nullptr, &d.link); // a lost cursor: the entry's bucket is found
    EXPECT_EQ(0u, kt4HashStat(h, 7, nullptr, nullptr, nullptr, nullptr));

    kt4HashInsertAtBack(h, 8, &a.link); // out of range: reported, nothing done
    EXPECT_FALSE(kt4DLLIsLinked(&a.link));
    kt4HashDestroy(h); // three entries left: reported, destroyed anyway
}

} // namespace
