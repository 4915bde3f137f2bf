// Intrusive circular doubly linked lists. A head points to itself when the list is empty; an entry
// begins with a list_link (or has one as its first member) and is in one list at most.
#ifndef TAVHTTPCLIENT_LIST_H
#define TAVHTTPCLIENT_LIST_H

#include <stddef.h>

struct list_link {
    list_link* next;
    list_link* prev;
};

// Lists are walked by casting a link to its entry: the link must stay the entry's first member.
#define LIST_ENTRY_CHECK(type)                                                                     \
    static_assert(offsetof(type, link) == 0, #type " begins with its link")

// Makes `link` an empty list, or an entry that is in no list.
inline void list_init(list_link* link) {
    link->next = link;
    link->prev = link;
}

inline bool list_empty(const list_link* head) {
    return head->next == head;
}

// Puts `entry` before the head, at the tail.
inline void list_append(list_link* head, list_link* entry) {
    entry->next = head;
    entry->prev = head->prev;
    head->prev->next = entry;
    head->prev = entry;
}

// Puts `entry` behind the head, at the front.
inline void list_insert_front(list_link* head, list_link* entry) {
    entry->prev = head;
    entry->next = head->next;
    head->next->prev = entry;
    head->next = entry;
}

// Takes `entry` out of its list and leaves it pointing to itself; harmless on such an entry.
inline void list_unlink(list_link* entry) {
    entry->prev->next = entry->next;
    entry->next->prev = entry->prev;
    list_init(entry);
}

// First entry, taken out of the list; null when the list is empty.
inline list_link* list_take_first(list_link* head) {
    if (list_empty(head)) {
        return nullptr;
    }
    list_link* entry = head->next;
    head->next = entry->next;
    entry->next->prev = head;
    list_init(entry);
    return entry;
}

// Makes `to`, which holds nothing, the list of all entries of `from` in their order.
inline void list_move_all(list_link* from, list_link* to) {
    list_init(to);
    if (!list_empty(from)) {
        *to = *from;
        to->next->prev = to;
        to->prev->next = to;
        list_init(from);
    }
}

#endif
