// The intrusive list and the free-index ranges against standard-library models.
#include "support.h"

#include <kt4/containers.h>
#include <kt4/hostsim.h>

#include <algorithm>
#include <cstring>
#include <random>
#include <set>
#include <vector>

namespace {

using ctrtest::AssertCapture;
using ctrtest::LeakChecked;
using ctrtest::StdoutCapture;

struct Item {
    int value;
    kt4DLLLink link;
};

std::vector<int> forward(kt4DLL *h) {
    std::vector<int> v;
    for (kt4DLLLink *l = kt4DLLGetFirst(h); l; l = kt4DLLGetNext(h, l))
        v.push_back(KT4_CONTAINER_OF(l, Item, link)->value);
    return v;
}

std::vector<int> backward(kt4DLL *h) {
    std::vector<int> v;
    for (kt4DLLLink *l = kt4DLLGetLast(h); l; l = kt4DLLGetPrev(h, l))
        v.insert(v.begin(), KT4_CONTAINER_OF(l, Item, link)->value);
    return v;
}

TEST(List, SentinelHeadAndDocumentedCases) {
    kt4DLL h;
    ASSERT_EQ(&h, kt4DLLInit(&h));
    const unsigned char be_magic[] = {0x5E, 0x7D, 0x15, 0xE7};
    EXPECT_EQ(0, std::memcmp(&h.dll_magic, be_magic, 4));
    EXPECT_EQ(&h.dll_tail, h.dll_head.next); // empty: first is the tail sentinel
    EXPECT_EQ(&h.dll_head, h.dll_tail.prev);
    EXPECT_EQ(nullptr, kt4DLLGetFirst(&h));
    EXPECT_EQ(nullptr, kt4DLLGetLast(&h));
    Item a{1, {}}, b{2, {}};
    kt4DLLInsertAtBack(&h, &a.link);
    kt4DLLInsertAtFront(&h, &b.link);
    EXPECT_EQ((std::vector<int>{2, 1}), forward(&h));
    EXPECT_EQ(nullptr, kt4DLLGetNext(&h, &a.link));
    kt4DLLRemove(&h, &b.link);
    EXPECT_FALSE(kt4DLLIsLinked(&b.link));
    EXPECT_EQ(nullptr, b.link.next);
    kt4DLLRemove(&h, &b.link); // a second remove is harmless
    kt4DLLInsertAtBack(&h, &b.link);
    EXPECT_EQ((std::vector<int>{1, 2}), forward(&h));

    AssertCapture cap;
    Item c{3, {}};
    kt4DLLInsertAfter(&h, nullptr, &c.link);
    kt4DLLInsertBefore(&h, nullptr, &c.link);
    kt4Be32Set(&h.dll_magic, 0x12345678);
    kt4DLLInsertAtBack(&h, &c.link); // reported, and still done
    const std::string out = cap.take();
    EXPECT_EQ(1, AssertCapture::count(out, "after"));
    EXPECT_EQ(1, AssertCapture::count(out, "before"));
    EXPECT_EQ(1, AssertCapture::count(out, "(head)->dll_magic == kt4DLL_MAGIC"));
    EXPECT_NE(std::string::npos, out.find("kt4LL"));
    EXPECT_EQ(&c.link, h.dll_tail.prev);
}

TEST(List, MatchesModelOverRandomOperations) {
    std::mt19937 rng(20240611);
    std::vector<Item> items(300);
    for (size_t i = 0; i < items.size(); ++i)
        items[i].value = static_cast<int>(i);
    kt4DLL h;
    kt4DLLInit(&h);
    std::vector<int> model;
    for (int step = 0; step < 20000; ++step) {
        Item &it = items[rng() % items.size()];
        if (kt4DLLIsLinked(&it.link)) {
            kt4DLLRemove(&h, &it.link);
            model.erase(std::find(model.begin(), model.end(), it.value));
        } else if (model.empty() || rng() % 4 == 0) {
            kt4DLLInsertAtFront(&h, &it.link);
            model.insert(model.begin(), it.value);
        } else {
            const size_t pos = rng() % model.size();
            kt4DLLLink *anchor = &items[static_cast<size_t>(model[pos])].link;
            const bool after = rng() % 2;
            if (after)
                kt4DLLInsertAfter(&h, anchor, &it.link);
            else
                kt4DLLInsertBefore(&h, anchor, &it.link);
            model.insert(model.begin() + static_cast<long>(pos + after), it.value);
        }
        if (step % 97 == 0) {
            ASSERT_EQ(model, forward(&h)) << "step " << step;
            ASSERT_EQ(model, backward(&h)) << "step " << step;
        }
    }
}

// ---- free-index lists ----

using Ranges = std::vector<std::pair<uint32_t, uint32_t>>;

Ranges ranges(kt4FreeIndexList *l) {
    Ranges v;
    for (kt4DLLLink *x = kt4DLLGetFirst(&l->fil_list); x; x = kt4DLLGetNext(&l->fil_list, x)) {
        auto *r = KT4_CONTAINER_OF(x, kt4FreeIndexRange, fir_link);
        v.emplace_back(kt4Be32Get(&r->fir_low), kt4Be32Get(&r->fir_high));
    }
    return v;
}

TEST_F(LeakChecked, FreeIndexDocumentedCases) {
    kt4FreeIndexList l;
    EXPECT_EQ(-1, kt4FreeIndexListInit(1, 40, nullptr, kt4FreeIndexFree, &l));
    EXPECT_EQ(-1, kt4FreeIndexListInit(41, 40, kt4FreeIndexMalloc, kt4FreeIndexFree, &l));
    ASSERT_EQ(0, kt4FreeIndexListInit(1, 40, kt4FreeIndexMalloc, kt4FreeIndexFree, &l));
    EXPECT_EQ(std::set<std::string>{"kt4FreeIndex"}, live_tags());
    EXPECT_EQ(0, kt4FreeIndexReserve(&l, 10));
    EXPECT_EQ((Ranges{{1, 9}, {11, 40}}), ranges(&l));
    EXPECT_EQ(0, kt4FreeIndexRelease(&l, 10));
    uint32_t got = 0;
    for (uint32_t want = 1; want <= 40; ++want) {
        ASSERT_EQ(0, kt4FreeIndexGet(&l, &got));
        EXPECT_EQ(want, got);
    }
    EXPECT_EQ(-1, kt4FreeIndexGet(&l, &got));
    StdoutCapture out;
    EXPECT_EQ(-1, kt4FreeIndexRelease(&l, 45));
    for (uint32_t i : {5u, 7u, 6u})
        EXPECT_EQ(0, kt4FreeIndexRelease(&l, i));
    EXPECT_EQ(-1, kt4FreeIndexRelease(&l, 6));
    kt4FreeIndexDump(&l);
    EXPECT_EQ("Trying to free Index 0x2d which is not in range 0x1..0x28\r\n"
              "Trying to free Index 0x6 which is not allocated\r\n"
              "Index Free List: (Valid range 0x1..0x28)\r\n"
              "\t0x5..0x7\r\n"
              "Tot: 40, Used: 37\r\n",
              out.take());
    // A release that needs a new range fails without one, and nothing changes.
    l.fil_alloc = [](size_t) -> void * { return nullptr; };
    EXPECT_EQ(-1, kt4FreeIndexRelease(&l, 20));
    EXPECT_EQ((Ranges{{5, 7}}), ranges(&l));
    kt4FreeIndexListDestroy(&l);
    EXPECT_TRUE(ranges(&l).empty());
}

// Random get/reserve/release against a std::set of free ids, over a range that ends at the
// top of the 32-bit space: the ranges must always be the canonical ones (ascending, disjoint,
// never adjacent) describing exactly that set.
TEST_F(LeakChecked, FreeIndexMatchesSetModel) {
    std::mt19937 rng(7);
    constexpr uint32_t lo = 0xFFFFFFFFu - 999, hi = 0xFFFFFFFFu;
    kt4FreeIndexList l;
    ASSERT_EQ(0, kt4FreeIndexListInit(lo, hi, kt4FreeIndexMalloc, kt4FreeIndexFree, &l));
    std::set<uint32_t> free_ids;
    for (uint64_t i = lo; i <= hi; ++i)
        free_ids.insert(static_cast<uint32_t>(i));
    StdoutCapture quiet; // refused releases print their message
    for (int step = 0; step < 30000; ++step) {
        const uint32_t op = rng() % 3, id = lo - 5 + static_cast<uint32_t>(rng() % 1005);
        if (op == 0) {
            uint32_t got = 0;
            const int rc = kt4FreeIndexGet(&l, &got);
            ASSERT_EQ(free_ids.empty() ? -1 : 0, rc);
            if (rc == 0) {
                ASSERT_EQ(*free_ids.begin(), got);
                free_ids.erase(free_ids.begin());
            }
        } else if (op == 1) {
            ASSERT_EQ(free_ids.erase(id) == 1 ? 0 : -1, kt4FreeIndexReserve(&l, id));
        } else {
            const bool can = id >= lo && !free_ids.count(id);
            ASSERT_EQ(can ? 0 : -1, kt4FreeIndexRelease(&l, id));
            if (can) free_ids.insert(id);
        }
        if (step % 50 == 0) {
            Ranges want;
            for (uint32_t f : free_ids) {
                if (!want.empty() && want.back().second + 1 == f)
                    want.back().second = f;
                else
                    want.emplace_back(f, f);
            }
            ASSERT_EQ(want, ranges(&l)) << "step " << step;
            ASSERT_EQ(1000 - free_ids.size(), kt4Be32Get(&l.fil_used));
        }
    }
    quiet.take();
    kt4FreeIndexListDestroy(&l);
}

} // namespace
