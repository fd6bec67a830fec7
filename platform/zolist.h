// The base library's intrusive lists, as far as the library uses them.
//
// An item is linked by fields of its own, so linking allocates nothing. A list owns what is in it:
// its destructor disposes of the items that are left. Neither kind locks; the owner of a list
// guards it.
//
//     struct Entry : ZoLinkedListItem { int number = 0; };
//     ZoLinkedList list;
//     list.InsertLast(new Entry);
//     for (ZoLinkedListItem* i = list.GetFirst(); i != nullptr; i = i->GetNext()) …

#ifndef KELVARA_PLATFORM_ZOLIST_H_
#define KELVARA_PLATFORM_ZOLIST_H_

#include "zobase.h"

// An item of a doubly linked list. Allocated with `new` and deleted through its virtual destructor.
class ZO_BASE_API ZoLinkedListItem {
public:
    ZoLinkedListItem() = default;
    ZoLinkedListItem(ZoLinkedListItem const&) = delete;
    ZoLinkedListItem& operator=(ZoLinkedListItem const&) = delete;
    virtual ~ZoLinkedListItem();

    // The neighbours in its list; null at the ends.
    ZoLinkedListItem* GetNext() const { return next; }
    ZoLinkedListItem* GetPrev() const { return prev; }

private:
    friend class ZoLinkedList;
    ZoLinkedListItem* next = nullptr;
    ZoLinkedListItem* prev = nullptr;
};

// Owns its items.
class ZO_BASE_API ZoLinkedList {
public:
    ZoLinkedList() = default;
    ZoLinkedList(ZoLinkedList const&) = delete;
    ZoLinkedList& operator=(ZoLinkedList const&) = delete;
    // Deletes the items that are left, first to last.
    virtual ~ZoLinkedList();

    // The ends; null when the list is empty.
    ZoLinkedListItem* GetFirst() const { return first; }
    ZoLinkedListItem* GetLast() const { return last; }

    // `item` is in no list; the list owns it from here on.
    void InsertFirst(ZoLinkedListItem* item);
    void InsertLast(ZoLinkedListItem* item);
    // Takes `item`, which is in this list, out; the caller owns it again.
    void RemoveItem(ZoLinkedListItem* item);
    // Takes the first item out; null when the list is empty.
    ZoLinkedListItem* RemoveFirst();
    // Takes `item` out and deletes it.
    void DeleteItem(ZoLinkedListItem* item);

private:
    ZoLinkedListItem* first = nullptr;
    ZoLinkedListItem* last = nullptr;
};

// An item of a singly linked list. It starts with its link and has no virtual functions, so an item
// type must be trivially destructible and come from `operator new`: the list gives the memory of
// what is left in it back with `operator delete` and runs no destructor.
class ZO_BASE_API ZoSimpleLinkedListItem {
public:
    // The item behind it; null at the end.
    ZoSimpleLinkedListItem* GetNext() const { return next; }

private:
    friend class ZoSimpleLinkedList;
    ZoSimpleLinkedListItem* next = nullptr;
};

// One word wide.
class ZO_BASE_API ZoSimpleLinkedList {
public:
    ZoSimpleLinkedList() = default;
    ZoSimpleLinkedList(ZoSimpleLinkedList const&) = delete;
    ZoSimpleLinkedList& operator=(ZoSimpleLinkedList const&) = delete;
    // Frees the items that are left.
    ~ZoSimpleLinkedList();

    // Null when the list is empty.
    ZoSimpleLinkedListItem* GetFirst() const { return first; }

    // `item` is in no list; the list owns it from here on.
    void InsertFirst(ZoSimpleLinkedListItem* item);
    // Takes `item` out; the caller owns it again. An item that is not in the list is left alone.
    void RemoveItem(ZoSimpleLinkedListItem* item);

private:
    ZoSimpleLinkedListItem* first = nullptr;
};

#endif  // KELVARA_PLATFORM_ZOLIST_H_
