// Free-index lists: identifiers of a range handed out lowest first and taken back in any order.
//
// The free identifiers are kept as ranges rather than one entry each, so a table of a million
// interface or session ids that is mostly free or mostly used costs a handful of ranges. Get
// takes from the first range in constant time; reserve and release walk the ranges, which stay
// few while ids are used and returned in roughly the same neighbourhoods.
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
    for (kt4DLLLink *l = dll_first(&list->fil_list); l != nullptr;
         l = dll_next(&list->fil_list, l)) {
        kt4FreeIndexRange *r = range_of(l);
        uint32_t low = be(r->fir_low), high = be(r->fir_high);
        if (index < low) break; // ranges ascend: no later one holds it
        if (index > high) continue;
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
    return -1;
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
    // next: the first range starting at or above the index; before: the range ahead of it.
    kt4DLL *head = &list->fil_list;
    kt4FreeIndexRange *next = nullptr;
    for (kt4DLLLink *l = dll_first(head); l != nullptr; l = dll_next(head, l)) {
        if (be(range_of(l)->fir_low).get() >= index) {
            next = range_of(l);
            break;
        }
    }
    kt4DLLLink *bl = next != nullptr ? dll_prev(head, &next->fir_link) : dll_last(head);
    kt4FreeIndexRange *before = bl != nullptr ? range_of(bl) : nullptr;

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
