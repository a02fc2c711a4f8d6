// Free-index lists: identifiers of a range handed out lowest first and taken back in any order.
//
// The free identifiers are kept as ranges rather than one entry each, so a table of a million
// interface or session ids that is mostly free or mostly used costs a handful of ranges. Get
// takes from the first range in constant time; reserve and release walk the ranges from
// whichever end of the list is nearer to the index, so their cost follows how fragmented the
// free ids are, not how many there are.
#include "containers/internal.h"

#include <cstdio>

using namespace kt4::ctr;

namespace {

constexpr char kTag[] = "kt4FreeIndex";

inline kt4FreeIndexRange *range_of(kt4DLLLink *l) {
    return KT4_CONTAINER_OF(l, kt4FreeIndexRange, fir_link);
}

// The list head is checked like every list; a null list is refused before that.
bool usable(kt4FreeIndexList *list) {
    if (list == nullptr) return false;
    if (KT4_UNLIKELY(!dll_magic_ok(&list->fil_list)))
        _kt4Assert("(head)->dll_magic == kt4DLL_MAGIC", kListTag, __LINE__);
    return true;
}

kt4FreeIndexRange *new_range(kt4FreeIndexList *list, uint32_t low, uint32_t high) {
    auto *r = static_cast<kt4FreeIndexRange *>(list->fil_alloc(sizeof(kt4FreeIndexRange)));
    if (r == nullptr) return nullptr;
    r->fir_link.next = r->fir_link.prev = nullptr;
    be(r->fir_low) = low;
    be(r->fir_high) = high;
    return r;
}

void drop_range(kt4FreeIndexList *list, kt4FreeIndexRange *r) {
    dll_unlink(&r->fir_link);
    list->fil_free(r);
}

// The last range starting below the index (or at it, when `at_too`); null when none does.
// The boundary is sought from both ends of the list at once, one step each in turn, so the
// walk is as long as the shorter side of it: releases near the top of a fragmented list cost
// as little as releases near the bottom.
kt4FreeIndexRange *last_starting_below(kt4FreeIndexList *list, uint32_t index, bool at_too) {
    kt4DLL *head = &list->fil_list;
    auto below = [&](kt4DLLLink *l) {
        const uint32_t low = be(range_of(l)->fir_low);
        return low < index || (at_too && low == index);
    };
    kt4DLLLink *front = dll_first(head), *back = dll_last(head);
    while (front != nullptr) {
        if (!below(front)) {
            kt4DLLLink *p = dll_prev(head, front);
            return p != nullptr ? range_of(p) : nullptr;
        }
        front = dll_next(head, front);
        if (below(back)) return range_of(back);
        back = dll_prev(head, back);
    }
    kt4DLLLink *last = dll_last(head);
    return last != nullptr ? range_of(last) : nullptr;
}

} // namespace

extern "C" {

void *kt4FreeIndexMalloc(size_t size) {
    return kt4MC_malloc(kTag, __LINE__, size);
}

void kt4FreeIndexFree(void *ptr) {
    kt4MC_free(kTag, __LINE__, ptr);
}

int kt4FreeIndexListInit(uint32_t lowest, uint32_t highest, void *(*alloc)(size_t),
                         void (*release)(void *), kt4FreeIndexList *list) {
    if (list == nullptr || alloc == nullptr || release == nullptr || highest < lowest) return -1;
    dll_init(&list->fil_list);
    list->fil_alloc = alloc;
    list->fil_free = release;
    be(list->fil_used) = 0;
    be(list->fil_total) = highest - lowest + 1; // the whole 32-bit range wraps to 0
    be(list->fil_lowest) = lowest;
    be(list->fil_highest) = highest;
    kt4FreeIndexRange *r = new_range(list, lowest, highest);
    if (r == nullptr) return -1;
    dll_link_between(&list->fil_list.dll_head, list->fil_list.dll_head.next, &r->fir_link);
    return 0;
}

int kt4FreeIndexGet(kt4FreeIndexList *list, uint32_t *index) {
    if (!usable(list)) return -1;
    kt4DLLLink *first = dll_first(&list->fil_list);
    if (first == nullptr) return -1;
    kt4FreeIndexRange *r = range_of(first);
    uint32_t low = be(r->fir_low);
    if (index != nullptr) *index = low;
    if (low == be(r->fir_high).get())
        drop_range(list, r);
    else
        be(r->fir_low) = low + 1;
    ++be(list->fil_used);
    return 0;
}

int kt4FreeIndexReserve(kt4FreeIndexList *list, uint32_t index) {
    if (!usable(list)) return -1;
    // The only range that can hold the index is the last one starting at or below it.
    kt4FreeIndexRange *r = last_starting_below(list, index, true);
    if (r == nullptr) return -1;
    const uint32_t low = be(r->fir_low), high = be(r->fir_high);
    if (index > high) return -1;
    if (index == low) {
        if (low == high)
            drop_range(list, r);
        else
            be(r->fir_low) = low + 1;
    } else if (index == high) {
        be(r->fir_high) = high - 1;
    } else {
        kt4FreeIndexRange *lower = new_range(list, low, index - 1);
        if (lower == nullptr) return -1;
        dll_link_between(r->fir_link.prev, &r->fir_link, &lower->fir_link);
        be(r->fir_low) = index + 1;
    }
    ++be(list->fil_used);
    return 0;
}

int kt4FreeIndexRelease(kt4FreeIndexList *list, uint32_t index) {
    if (!usable(list)) return -1;
    uint32_t lowest = be(list->fil_lowest), highest = be(list->fil_highest);
    if (index < lowest || index > highest) {
        std::printf("Trying to free Index 0x%lx which is not in range 0x%lx..0x%lx\r\n",
                    static_cast<unsigned long>(index), static_cast<unsigned long>(lowest),
                    static_cast<unsigned long>(highest));
        return -1;
    }
    // before: the last range starting below the index; next: the first starting at or above.
    kt4DLL *head = &list->fil_list;
    kt4FreeIndexRange *before = last_starting_below(list, index, false);
    kt4DLLLink *nl = before != nullptr ? dll_next(head, &before->fir_link) : dll_first(head);
    kt4FreeIndexRange *next = nl != nullptr ? range_of(nl) : nullptr;

    // 64-bit neighbours so that the ends of the 32-bit range need no special case.
    const uint64_t i = index;
    const bool joins_before = before != nullptr && uint64_t{be(before->fir_high)} + 1 == i;
    const bool joins_next = next != nullptr && uint64_t{be(next->fir_low)} == i + 1;
    if (joins_before && joins_next) {
        be(before->fir_high) = be(next->fir_high).get();
        drop_range(list, next);
    } else if (joins_before) {
        be(before->fir_high) = index;
    } else if (joins_next) {
        be(next->fir_low) = index;
    } else if ((next != nullptr && be(next->fir_low).get() == index) ||
               (before != nullptr && be(before->fir_high).get() >= index)) {
        std::printf("Trying to free Index 0x%lx which is not allocated\r\n",
                    static_cast<unsigned long>(index));
        return -1;
    } else {
        kt4FreeIndexRange *r = new_range(list, index, index);
        if (r == nullptr) return -1;
        if (next != nullptr)
            dll_link_between(next->fir_link.prev, &next->fir_link, &r->fir_link);
        else
            dll_link_between(head->dll_tail.prev, &head->dll_tail, &r->fir_link);
    }
    --be(list->fil_used);
    return 0;
}

void kt4FreeIndexListDestroy(kt4FreeIndexList *list) {
    if (!usable(list)) return;
    kt4DLL *head = &list->fil_list;
    while (kt4DLLLink *l = dll_first(head))
        drop_range(list, range_of(l));
}

void kt4FreeIndexDump(kt4FreeIndexList *list) {
    if (!usable(list)) return;
    std::printf("Index Free List: (Valid range 0x%lx..0x%lx)\r\n",
                static_cast<unsigned long>(be(list->fil_lowest).get()),
                static_cast<unsigned long>(be(list->fil_highest).get()));
    kt4DLL *head = &list->fil_list;
    for (kt4DLLLink *l = dll_first(head); l != nullptr; l = dll_next(head, l))
        std::printf("\t0x%lx..0x%lx\r\n",
                    static_cast<unsigned long>(be(range_of(l)->fir_low).get()),
                    static_cast<unsigned long>(be(range_of(l)->fir_high).get()));
    std::printf("Tot: %ld, Used: %ld\r\n", static_cast<long>(be(list->fil_total).get()),
                static_cast<long>(be(list->fil_used).get()));
}

} // extern "C"
