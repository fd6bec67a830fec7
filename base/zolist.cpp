#include "zolist.h"

#include <new>

// --- doubly linked -------------------------------------------------------------------------------

ZoLinkedListItem::~ZoLinkedListItem() = default;

ZoLinkedList::~ZoLinkedList() {
    // Each item is out of the list before its destructor runs.
    while (ZoLinkedListItem* const item = RemoveFirst()) delete item;
}

void ZoLinkedList::InsertFirst(ZoLinkedListItem* item) {
    item->prev = nullptr;
    item->next = first;
    (first != nullptr ? first->prev : last) = item;
    first = item;
}

void ZoLinkedList::InsertLast(ZoLinkedListItem* item) {
    item->next = nullptr;
    item->prev = last;
    (last != nullptr ? last->next : first) = item;
    last = item;
}

void ZoLinkedList::RemoveItem(ZoLinkedListItem* item) {
    (item->prev != nullptr ? item->prev->next : first) = item->next;
    (item->next != nullptr ? item->next->prev : last) = item->prev;
    item->next = nullptr;
    item->prev = nullptr;
}

ZoLinkedListItem* ZoLinkedList::RemoveFirst() {
    ZoLinkedListItem* const item = first;
    if (item != nullptr) RemoveItem(item);
    return item;
}

void ZoLinkedList::DeleteItem(ZoLinkedListItem* item) {
    RemoveItem(item);
    delete item;
}

// --- singly linked -------------------------------------------------------------------------------

ZoSimpleLinkedList::~ZoSimpleLinkedList() {
    while (ZoSimpleLinkedListItem* const item = first) {
        first = item->next;
        ::operator delete(item);
    }
}

void ZoSimpleLinkedList::InsertFirst(ZoSimpleLinkedListItem* item) {
    item->next = first;
    first = item;
}

void ZoSimpleLinkedList::RemoveItem(ZoSimpleLinkedListItem* item) {
    for (ZoSimpleLinkedListItem** link = &first; *link != nullptr; link = &(*link)->next) {
        if (*link != item) continue;
        *link = item->next;
        item->next = nullptr;
        return;
    }
}
