// SPDX-License-Identifier: MIT
#include <vxutils/list.h>

void __list_add(list_link *entry, list_link *prev, list_link *next) {
    next->prev = entry;
    entry->next = next;
    entry->prev = prev;
    prev->next = entry;
}

void list_add(list_link *entry, list_link *head) { __list_add(entry, head, head->next); }

void list_add_tail(list_link *entry, list_link *head) { __list_add(entry, head->prev, head); }

void __list_del(list_link *prev, list_link *next) {
    next->prev = prev;
    prev->next = next;
}

void list_del(list_link *entry) { __list_del(entry->prev, entry->next); }

void list_del_init(list_link *entry) {
    list_del(entry);
    entry->next = entry;
    entry->prev = entry;
}

int list_empty(const list_link *head) { return head->next == head ? 1 : 0; }

void list_splice(list_link *list, list_link *head) {
    if (list_empty(list) != 0) return;
    list_link *const first = list->next;
    list_link *const last = list->prev;
    list_link *const after = head->next;
    __list_del(head, first);
    __list_del(last, after);
}
