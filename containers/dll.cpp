// The intrusive doubly linked list every other container and most modules build on.
//
// Both ends of a list are real links inside the head (the sentinels), so linking and unlinking
// are four pointer stores with no test for an empty list. A damaged head is reported and the
// operation carries on, as every assertion of the system does; a null head has nothing to
// carry on with and makes the operation do nothing.
#include "containers/internal.h"

using namespace kt4::ctr;

namespace {

#define DLL_CHECK(head, fail)                                                                      \
    do {                                                                                           \
        if (KT4_UNLIKELY((head) == nullptr || !dll_magic_ok(head))) {                              \
            _kt4Assert("(head)->dll_magic == kt4DLL_MAGIC", kListTag, __LINE__);                   \
            if ((head) == nullptr) fail;                                                           \
        }                                                                                          \
    } while (0)

} // namespace

extern "C" {

kt4DLL *kt4DLLInit(kt4DLL *head) {
    if (head == nullptr) return nullptr;
    dll_init(head);
    return head;
}

kt4DLLLink *kt4DLLGetFirst(kt4DLL *head) {
    DLL_CHECK(head, return nullptr);
    return dll_first(head);
}

kt4DLLLink *kt4DLLGetLast(kt4DLL *head) {
    DLL_CHECK(head, return nullptr);
    return dll_last(head);
}

kt4DLLLink *kt4DLLGetNext(kt4DLL *head, kt4DLLLink *elem) {
    DLL_CHECK(head, return nullptr);
    if (elem == nullptr || elem->next == nullptr) return nullptr;
    return dll_next(head, elem);
}

kt4DLLLink *kt4DLLGetPrev(kt4DLL *head, kt4DLLLink *elem) {
    DLL_CHECK(head, return nullptr);
    if (elem == nullptr || elem->prev == nullptr) return nullptr;
    return dll_prev(head, elem);
}

void kt4DLLInsertAtFront(kt4DLL *head, kt4DLLLink *elem) {
    DLL_CHECK(head, return );
    if (elem == nullptr) return;
    dll_link_between(&head->dll_head, head->dll_head.next, elem);
}

void kt4DLLInsertAtBack(kt4DLL *head, kt4DLLLink *elem) {
    DLL_CHECK(head, return );
    if (elem == nullptr) return;
    dll_link_between(head->dll_tail.prev, &head->dll_tail, elem);
}

void kt4DLLInsertAfter(kt4DLL *head, kt4DLLLink *after, kt4DLLLink *elem) {
    DLL_CHECK(head, return );
    if (after == nullptr) {
        _kt4Assert("after", kListTag, __LINE__);
        return;
    }
    if (elem == nullptr) return;
    dll_link_between(after, after->next, elem);
}

void kt4DLLInsertBefore(kt4DLL *head, kt4DLLLink *before, kt4DLLLink *elem) {
    DLL_CHECK(head, return );
    if (before == nullptr) {
        _kt4Assert("before", kListTag, __LINE__);
        return;
    }
    if (elem == nullptr) return;
    dll_link_between(before->prev, before, elem);
}

void kt4DLLRemove(kt4DLL *head, kt4DLLLink *elem) {
    DLL_CHECK(head, return );
    // Removing twice is a common slip in teardown paths; the cleared link makes it harmless.
    if (elem == nullptr || elem->next == nullptr || elem->prev == nullptr) return;
    dll_unlink(elem);
}

int kt4DLLIsLinked(const kt4DLLLink *elem) {
    return elem != nullptr && elem->next != nullptr && elem->prev != nullptr;
}

} // extern "C"
