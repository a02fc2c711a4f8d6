// The intrusive list and the free-index ranges against standard-library models.
#include "support.h"

#include <kt4/containers.h>

#include <algorithm>
#include <random>
#include <set>
#include <vector>

namespace {

using ctrtest::LeakChecked;

struct Item {
    int value;
    kt4DLLLink link;
};

// Forward, and checked against the backward walk.
std::vector<int> contents(kt4DLL *h) {
    std::vector<int> fwd, bwd;
    for (kt4DLLLink *l = kt4DLLGetFirst(h); l; l = kt4DLLGetNext(h, l))
        fwd.push_back(KT4_CONTAINER_OF(l, Item, link)->value);
    for (kt4DLLLink *l = kt4DLLGetLast(h); l; l = kt4DLLGetPrev(h, l))
        bwd.insert(bwd.begin(), KT4_CONTAINER_OF(l, Item, link)->value);
    EXPECT_EQ(fwd, bwd);
    return fwd;
}

TEST(List, SentinelHeadAndAssertions) {
    kt4DLL h;
    ASSERT_EQ(&h, kt4DLLInit(&h));
    Item a{1, {}}, b{2, {}};
    kt4DLLInsertAtBack(&h, &a.link);
    kt4DLLInsertAtFront(&h, &b.link);
    EXPECT_EQ((std::vector<int>{2, 1}), contents(&h));
    kt4DLLRemove(&h, &b.link);
    kt4DLLRemove(&h, &b.link); // cleared by the first: harmless
    kt4DLLInsertAfter(&h, nullptr, &b.link);
    kt4DLLInsertBefore(&h, nullptr, &b.link);
    kt4Be32Set(&h.dll_magic, 0x12345678);
    kt4DLLInsertAtBack(&h, &b.link); // reported, and still done
    EXPECT_EQ(&b.link, h.dll_tail.prev);
}

TEST(List, MatchesModel) {
    std::mt19937 rng(20240611);
    std::vector<Item> items(300);
    for (size_t i = 0; i < items.size(); ++i)
        items[i].value = static_cast<int>(i);
    kt4DLL h;
    kt4DLLInit(&h);
    std::vector<int> model;
    for (int step = 0; step < 20000; ++step) {
        Item &it = items[rng() % items.size()];
        const size_t pos = model.empty() ? 0 : rng() % model.size();
        if (kt4DLLIsLinked(&it.link)) {
            kt4DLLRemove(&h, &it.link);
            model.erase(std::find(model.begin(), model.end(), it.value));
        } else if (model.empty()) {
            kt4DLLInsertAtFront(&h, &it.link);
            model.push_back(it.value);
        } else {
            const bool after = rng() % 2;
            kt4DLLLink *anchor = &items[static_cast<size_t>(model[pos])].link;
            if (after)
                kt4DLLInsertAfter(&h, anchor, &it.link);
            else
                kt4DLLInsertBefore(&h, anchor, &it.link);
            model.insert(model.begin() + static_cast<long>(pos + after), it.value);
        }
        if (step % 97 == 0) {
            ASSERT_EQ(model, contents(&h)) << "step " << step;
        }
    }
}

using Ranges = std::vector<std::pair<uint32_t, uint32_t>>;

Ranges ranges(kt4FreeIndexList *l) {
    Ranges v;
    for (kt4DLLLink *x = kt4DLLGetFirst(&l->fil_list); x; x = kt4DLLGetNext(&l->fil_list, x)) {
        auto *r = KT4_CONTAINER_OF(x, kt4FreeIndexRange, fir_link);
        v.emplace_back(kt4Be32Get(&r->fir_low), kt4Be32Get(&r->fir_high));
    }
    return v;
}

TEST_F(LeakChecked, FreeIndexRefusalsAndDump) {
    kt4FreeIndexList l;
    EXPECT_EQ(-1, kt4FreeIndexListInit(41, 40, kt4FreeIndexMalloc, kt4FreeIndexFree, &l));
    ASSERT_EQ(0, kt4FreeIndexListInit(1, 40, kt4FreeIndexMalloc, kt4FreeIndexFree, &l));
    for (uint32_t i = 1; i <= 40; ++i)
        ASSERT_EQ(0, kt4FreeIndexReserve(&l, i));
    const std::string out = kt4test::stdout_of([&] {
        EXPECT_EQ(-1, kt4FreeIndexRelease(&l, 45));
        for (uint32_t i : {5u, 7u, 6u})
            EXPECT_EQ(0, kt4FreeIndexRelease(&l, i));
        EXPECT_EQ(-1, kt4FreeIndexRelease(&l, 6));
        kt4FreeIndexDump(&l);
    });
    EXPECT_EQ("Trying to free Index 0x2d which is not in range 0x1..0x28\r\n"
              "Trying to free Index 0x6 which is not allocated\r\n"
              "Index Free List: (Valid range 0x1..0x28)\r\n\t0x5..0x7\r\nTot: 40, Used: 37\r\n",
              out);
    kt4FreeIndexListDestroy(&l);
}

// Random get/reserve/release against a std::set of free ids, over a range that ends at the
// top of the 32-bit space: the ranges are always the canonical ones (ascending, disjoint,
// never adjacent) describing exactly that set.
TEST_F(LeakChecked, FreeIndexMatchesModel) {
    std::mt19937 rng(7);
    constexpr uint32_t lo = 0xFFFFFFFFu - 999;
    kt4FreeIndexList l;
    ASSERT_EQ(0, kt4FreeIndexListInit(lo, 0xFFFFFFFFu, kt4FreeIndexMalloc, kt4FreeIndexFree, &l));
    std::set<uint32_t> free_ids;
    for (uint32_t i = 0; i < 1000; ++i)
        free_ids.insert(lo + i);
    kt4test::CaptureStdout quiet; // refused releases print their message
    for (int step = 0; step < 30000; ++step) {
        const uint32_t op = rng() % 3, id = lo - 5 + static_cast<uint32_t>(rng() % 1005);
        uint32_t got = 0;
        if (op == 0) {
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
        if (step % 50 != 0) continue;
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
    kt4FreeIndexListDestroy(&l);
}

} // namespace
