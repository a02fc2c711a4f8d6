// The intrusive list and the free-index ranges, through the public interface.
#include "support.h"

#include <kt4/containers.h>
#include <kt4/hostsim.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <iterator>
#include <random>
#include <set>
#include <string>
#include <vector>

namespace {

using ctrtest::AssertCapture;
using ctrtest::StdoutCapture;

struct Item {
    int value;
    kt4DLLLink link;
};

Item *item_of(kt4DLLLink *l) {
    return l ? KT4_CONTAINER_OF(l, Item, link) : nullptr;
}

std::vector<int> forward(kt4DLL *h) {
    std::vector<int> v;
    for (kt4DLLLink *l = kt4DLLGetFirst(h); l; l = kt4DLLGetNext(h, l))
        v.push_back(item_of(l)->value);
    return v;
}

std::vector<int> backward(kt4DLL *h) {
    std::vector<int> v;
    for (kt4DLLLink *l = kt4DLLGetLast(h); l; l = kt4DLLGetPrev(h, l))
        v.insert(v.begin(), item_of(l)->value);
    return v;
}

TEST(List, HeadLayoutIsMagicThenTwoSentinels) {
    kt4DLL h;
    ASSERT_EQ(&h, kt4DLLInit(&h));
    EXPECT_EQ(kt4DLL_MAGIC, kt4Be32Get(&h.dll_magic));
    const unsigned char be_magic[] = {0x5E, 0x7D, 0x15, 0xE7};
    EXPECT_EQ(0, std::memcmp(&h.dll_magic, be_magic, 4));
    // Empty: first is the tail sentinel, last the head sentinel, the two middle words null.
    EXPECT_EQ(&h.dll_tail, h.dll_head.next);
    EXPECT_EQ(nullptr, h.dll_head.prev);
    EXPECT_EQ(nullptr, h.dll_tail.next);
    EXPECT_EQ(&h.dll_head, h.dll_tail.prev);
    EXPECT_EQ(5 * sizeof(void *), sizeof(kt4DLL));
}

TEST(List, InsertNavigateRemoveAndReinsert) {
    kt4DLL h;
    kt4DLLInit(&h);
    Item a{1, {}}, b{2, {}}, c{3, {}}, d{4, {}};
    EXPECT_EQ(nullptr, kt4DLLGetFirst(&h));
    EXPECT_EQ(nullptr, kt4DLLGetLast(&h));
    EXPECT_FALSE(kt4DLLIsLinked(&a.link));

    kt4DLLInsertAtBack(&h, &a.link);
    kt4DLLInsertAtFront(&h, &b.link);
    EXPECT_EQ(&b.link, kt4DLLGetFirst(&h));
    EXPECT_EQ(&a.link, kt4DLLGetNext(&h, &b.link));
    EXPECT_EQ(nullptr, kt4DLLGetNext(&h, &a.link));
    EXPECT_EQ(nullptr, kt4DLLGetPrev(&h, &b.link));

    kt4DLLInsertAfter(&h, &b.link, &c.link);  // b c a
    kt4DLLInsertBefore(&h, &b.link, &d.link); // d b c a
    EXPECT_EQ((std::vector<int>{4, 2, 3, 1}), forward(&h));
    EXPECT_EQ(forward(&h), backward(&h));

    kt4DLLRemove(&h, &b.link);
    EXPECT_FALSE(kt4DLLIsLinked(&b.link));
    EXPECT_EQ(nullptr, b.link.next);
    EXPECT_EQ(nullptr, b.link.prev);
    kt4DLLRemove(&h, &b.link); // a second remove changes nothing
    EXPECT_EQ((std::vector<int>{4, 3, 1}), forward(&h));
    kt4DLLInsertAtBack(&h, &b.link);
    EXPECT_TRUE(kt4DLLIsLinked(&b.link));
    EXPECT_EQ((std::vector<int>{4, 3, 1, 2}), forward(&h));

    for (Item *i : {&a, &b, &c, &d})
        kt4DLLRemove(&h, &i->link);
    EXPECT_EQ(nullptr, kt4DLLGetFirst(&h));
    EXPECT_EQ(nullptr, kt4DLLGetLast(&h));
}

TEST(List, AssertionsNameTheBrokenArgument) {
    kt4DLL h;
    kt4DLLInit(&h);
    Item a{1, {}};
    AssertCapture cap;
    kt4DLLInsertAfter(&h, nullptr, &a.link);
    kt4DLLInsertBefore(&h, nullptr, &a.link);
    EXPECT_EQ(nullptr, kt4DLLGetFirst(nullptr));
    kt4DLL bad{};
    kt4DLLInit(&bad);
    kt4Be32Set(&bad.dll_magic, 0x12345678);
    kt4DLLInsertAtBack(&bad, &a.link); // reported, and still done
    std::string out = cap.take();
    EXPECT_EQ(1, AssertCapture::count(out, "after"));
    EXPECT_EQ(1, AssertCapture::count(out, "before"));
    EXPECT_EQ(2, AssertCapture::count(out, "(head)->dll_magic == kt4DLL_MAGIC"));
    EXPECT_NE(std::string::npos, out.find("kt4LL"));
    EXPECT_EQ(&a.link, bad.dll_head.next);
}

// Random operations against a std::list-like model (a vector of values).
TEST(List, MatchesModelOverRandomOperations) {
    std::mt19937 rng(20240611);
    constexpr int kItems = 300;
    std::vector<Item> items(kItems);
    for (int i = 0; i < kItems; ++i)
        items[static_cast<size_t>(i)] = Item{i, {}};
    kt4DLL h;
    kt4DLLInit(&h);
    std::vector<int> model;
    for (int step = 0; step < 20000; ++step) {
        Item &it = items[rng() % kItems];
        const bool linked = kt4DLLIsLinked(&it.link);
        if (linked) {
            kt4DLLRemove(&h, &it.link);
            model.erase(std::find(model.begin(), model.end(), it.value));
        } else if (model.empty() || rng() % 4 == 0) {
            kt4DLLInsertAtFront(&h, &it.link);
            model.insert(model.begin(), it.value);
        } else {
            // Next to a random linked element.
            size_t pos = rng() % model.size();
            Item &anchor = items[static_cast<size_t>(model[pos])];
            if (rng() % 2) {
                kt4DLLInsertAfter(&h, &anchor.link, &it.link);
                model.insert(model.begin() + static_cast<long>(pos) + 1, it.value);
            } else {
                kt4DLLInsertBefore(&h, &anchor.link, &it.link);
                model.insert(model.begin() + static_cast<long>(pos), it.value);
            }
        }
        if (step % 97 == 0) {
            ASSERT_EQ(model, forward(&h)) << "step " << step;
            ASSERT_EQ(model, backward(&h)) << "step " << step;
        }
    }
}

// ---- free-index lists ----

std::vector<std::pair<uint32_t, uint32_t>> ranges(kt4FreeIndexList *l) {
    std::vector<std::pair<uint32_t, uint32_t>> v;
    for (kt4DLLLink *x = kt4DLLGetFirst(&l->fil_list); x; x = kt4DLLGetNext(&l->fil_list, x)) {
        auto *r = KT4_CONTAINER_OF(x, kt4FreeIndexRange, fir_link);
        v.emplace_back(kt4Be32Get(&r->fir_low), kt4Be32Get(&r->fir_high));
    }
    return v;
}

class FreeIndex : public ::testing::Test {
  protected:
    void SetUp() override {
        MCReset();
        gKT4MCOn = 1;
    }
    void TearDown() override {
        // Every range goes back through the hooks: nothing tagged by the list is left.
        EXPECT_EQ(0u, MCLiveCount());
        gKT4MCOn = 0;
        MCReset();
    }
};

TEST_F(FreeIndex, InitRefusesBadArguments) {
    kt4FreeIndexList l;
    EXPECT_EQ(-1, kt4FreeIndexListInit(1, 40, nullptr, kt4FreeIndexFree, &l));
    EXPECT_EQ(-1, kt4FreeIndexListInit(1, 40, kt4FreeIndexMalloc, nullptr, &l));
    EXPECT_EQ(-1, kt4FreeIndexListInit(1, 40, kt4FreeIndexMalloc, kt4FreeIndexFree, nullptr));
    EXPECT_EQ(-1, kt4FreeIndexListInit(41, 40, kt4FreeIndexMalloc, kt4FreeIndexFree, &l));
    auto failing = [](size_t) -> void * { return nullptr; };
    EXPECT_EQ(-1, kt4FreeIndexListInit(1, 40, failing, kt4FreeIndexFree, &l));
}

TEST_F(FreeIndex, GetsInOrderReleasesMergeAndMessages) {
    kt4FreeIndexList l;
    ASSERT_EQ(0, kt4FreeIndexListInit(1, 40, kt4FreeIndexMalloc, kt4FreeIndexFree, &l));
    // The range record is tagged with the list's source tag.
    std::string tag;
    MCForEach(
        [](const kt4mc_block_info *b, void *arg) { *static_cast<std::string *>(arg) = b->file; },
        &tag);
    EXPECT_EQ("kt4FreeIndex", tag);
    EXPECT_EQ(40u, kt4Be32Get(&l.fil_total));
    for (uint32_t want = 1; want <= 40; ++want) {
        uint32_t got = 0;
        ASSERT_EQ(0, kt4FreeIndexGet(&l, &got));
        EXPECT_EQ(want, got);
    }
    uint32_t got = 0;
    EXPECT_EQ(-1, kt4FreeIndexGet(&l, &got));
    EXPECT_EQ(40u, kt4Be32Get(&l.fil_used));
    EXPECT_TRUE(ranges(&l).empty());

    StdoutCapture out;
    EXPECT_EQ(-1, kt4FreeIndexRelease(&l, 45));
    EXPECT_EQ(0, kt4FreeIndexRelease(&l, 5));
    EXPECT_EQ(0, kt4FreeIndexRelease(&l, 7));
    EXPECT_EQ(0, kt4FreeIndexRelease(&l, 6)); // joins 5 and 7
    EXPECT_EQ(-1, kt4FreeIndexRelease(&l, 6));
    EXPECT_EQ(-1, kt4FreeIndexRelease(&l, 5));
    kt4FreeIndexDump(&l);
    EXPECT_EQ("Trying to free Index 0x2d which is not in range 0x1..0x28\r\n"
              "Trying to free Index 0x6 which is not allocated\r\n"
              "Trying to free Index 0x5 which is not allocated\r\n"
              "Index Free List: (Valid range 0x1..0x28)\r\n"
              "\t0x5..0x7\r\n"
              "Tot: 40, Used: 37\r\n",
              out.take());
    kt4FreeIndexListDestroy(&l);
    EXPECT_TRUE(ranges(&l).empty());
}

TEST_F(FreeIndex, ReserveSplitsAndTrims) {
    kt4FreeIndexList l;
    ASSERT_EQ(0, kt4FreeIndexListInit(1, 40, kt4FreeIndexMalloc, kt4FreeIndexFree, &l));
    EXPECT_EQ(0, kt4FreeIndexReserve(&l, 10));
    using R = std::vector<std::pair<uint32_t, uint32_t>>;
    EXPECT_EQ((R{{1, 9}, {11, 40}}), ranges(&l));
    EXPECT_EQ(-1, kt4FreeIndexReserve(&l, 10));
    EXPECT_EQ(-1, kt4FreeIndexReserve(&l, 41));
    EXPECT_EQ(0, kt4FreeIndexReserve(&l, 1));
    EXPECT_EQ(0, kt4FreeIndexReserve(&l, 40));
    EXPECT_EQ((R{{2, 9}, {11, 39}}), ranges(&l));
    EXPECT_EQ(3u, kt4Be32Get(&l.fil_used));
    // A split needs a range record: without one the reserve fails and nothing changes.
    l.fil_alloc = [](size_t) -> void * { return nullptr; };
    EXPECT_EQ(-1, kt4FreeIndexReserve(&l, 20));
    EXPECT_EQ((R{{2, 9}, {11, 39}}), ranges(&l));
    l.fil_alloc = kt4FreeIndexMalloc;
    kt4FreeIndexListDestroy(&l);
}

TEST_F(FreeIndex, EndsOfTheThirtyTwoBitRange) {
    kt4FreeIndexList l;
    ASSERT_EQ(0, kt4FreeIndexListInit(0xFFFFFFF0u, 0xFFFFFFFFu, kt4FreeIndexMalloc,
                                      kt4FreeIndexFree, &l));
    for (uint32_t i = 0; i < 16; ++i) {
        uint32_t got;
        ASSERT_EQ(0, kt4FreeIndexGet(&l, &got));
    }
    EXPECT_EQ(0, kt4FreeIndexRelease(&l, 0xFFFFFFFFu));
    EXPECT_EQ(0, kt4FreeIndexRelease(&l, 0xFFFFFFF0u));
    EXPECT_EQ(0, kt4FreeIndexRelease(&l, 0xFFFFFFFEu));
    using R = std::vector<std::pair<uint32_t, uint32_t>>;
    EXPECT_EQ((R{{0xFFFFFFF0u, 0xFFFFFFF0u}, {0xFFFFFFFEu, 0xFFFFFFFFu}}), ranges(&l));
    kt4FreeIndexListDestroy(&l);

    ASSERT_EQ(0, kt4FreeIndexListInit(0, 3, kt4FreeIndexMalloc, kt4FreeIndexFree, &l));
    EXPECT_EQ(0, kt4FreeIndexReserve(&l, 0));
    EXPECT_EQ(0, kt4FreeIndexRelease(&l, 0));
    EXPECT_EQ((R{{0, 3}}), ranges(&l));
    kt4FreeIndexListDestroy(&l);
}

// Random get/reserve/release against a std::set of free ids; the ranges must always be the
// canonical ones (ascending, disjoint, never adjacent) describing exactly that set.
TEST_F(FreeIndex, MatchesSetModelOverRandomOperations) {
    std::mt19937 rng(7);
    constexpr uint32_t lo = 100, hi = 1099;
    kt4FreeIndexList l;
    ASSERT_EQ(0, kt4FreeIndexListInit(lo, hi, kt4FreeIndexMalloc, kt4FreeIndexFree, &l));
    std::set<uint32_t> free_ids;
    for (uint32_t i = lo; i <= hi; ++i)
        free_ids.insert(i);
    StdoutCapture quiet; // refused releases print their message
    for (int step = 0; step < 30000; ++step) {
        const uint32_t op = rng() % 3;
        const uint32_t id = lo - 5 + rng() % (hi - lo + 11);
        if (op == 0) {
            uint32_t got = 0;
            int rc = kt4FreeIndexGet(&l, &got);
            if (free_ids.empty()) {
                ASSERT_EQ(-1, rc);
            } else {
                ASSERT_EQ(0, rc);
                ASSERT_EQ(*free_ids.begin(), got);
                free_ids.erase(free_ids.begin());
            }
        } else if (op == 1) {
            const bool was_free = free_ids.erase(id) == 1;
            ASSERT_EQ(was_free ? 0 : -1, kt4FreeIndexReserve(&l, id));
        } else {
            const bool can = id >= lo && id <= hi && !free_ids.count(id);
            ASSERT_EQ(can ? 0 : -1, kt4FreeIndexRelease(&l, id));
            if (can) free_ids.insert(id);
        }
        if (step % 50 == 0) {
            std::vector<std::pair<uint32_t, uint32_t>> want;
            for (uint32_t f : free_ids) {
                if (!want.empty() && want.back().second + 1 == f)
                    want.back().second = f;
                else
                    want.emplace_back(f, f);
            }
            ASSERT_EQ(want, ranges(&l)) << "step " << step;
            ASSERT_EQ(hi - lo + 1 - free_ids.size(), kt4Be32Get(&l.fil_used));
        }
    }
    quiet.take();
    kt4FreeIndexListDestroy(&l);
}

} // namespace
