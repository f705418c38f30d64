/* SPDX-License-Identifier: MIT */
/**
 * @file
 * **Purpose.** A circular, doubly linked list whose links are members of the caller's records: adding a record never
 * allocates, and removing one needs no search.
 *
 * **Example.**
 * @code
 * struct job {
 *     list_link link;
 *     int number;
 * } first = {{NULL, NULL}, 1}, second = {{NULL, NULL}, 2};
 * list_link jobs = {&jobs, &jobs};  // the head of an empty list points at itself
 * list_link *at;
 * list_add_tail(&first.link, &jobs);
 * list_add_tail(&second.link, &jobs);
 * for (at = jobs.next; at != &jobs; at = at->next) printf("%d", ((struct job *)at)->number);
 * printf("\n");  // prints 12
 * @endcode
 *
 * **Ownership.** The list owns nothing. The head is a link that belongs to no record. A record must stay where it is
 * while it is in a list.
 *
 * **Threads, signals, fork.** A list is used by one thread at a time. The functions are async-signal-safe on a list
 * that only the handler uses.
 *
 * **Blocking.** No call blocks.
 *
 * **Errors.** No call fails. No function checks its arguments: NULL, and an entry that is not in the stated list, are
 * undefined behaviour.
 *
 * **Limits.** Memory alone limits the length.
 *
 * **Privileges.** None.
 *
 * **Compatibility.** None.
 */
#ifndef VXUTILS_LIST_H
#define VXUTILS_LIST_H

#include <vxutils/api.h>

VXUTILS_BEGIN_DECLS

/** A link of a record, or the head of a list. */
struct list_link {
    struct list_link *next; /**< following link; in a head the first member */
    struct list_link *prev; /**< preceding link; in a head the last member */
};
typedef struct list_link list_link;

/**
 * Link an entry between two neighbours.
 *
 * @param entry entry that is in no list
 * @param prev  link that will precede it
 * @param next  link that follows @p prev now
 */
VXUTILS_API void __list_add(list_link *entry, list_link *prev, list_link *next);

/**
 * Insert an entry right after @p head, so that a walk meets the latest entry first.
 *
 * @param entry entry that is in no list
 * @param head  head of the list, or the member to insert after
 */
VXUTILS_API void list_add(list_link *entry, list_link *head);

/**
 * Insert an entry right before @p head, so that a walk meets the entries in the order in which they were added.
 *
 * @param entry entry that is in no list
 * @param head  head of the list, or the member to insert before
 */
VXUTILS_API void list_add_tail(list_link *entry, list_link *head);

/**
 * Make two links neighbours, which unlinks the entries between them. The pointers of these entries are unchanged.
 *
 * @param prev link that will precede @p next
 * @param next link that will follow @p prev
 */
VXUTILS_API void __list_del(list_link *prev, list_link *next);

/**
 * Take an entry out of its list. Its own pointers are unchanged and must not be followed.
 *
 * @param entry member of a list
 */
VXUTILS_API void list_del(list_link *entry);

/**
 * Take an entry out of its list and make it an empty list of its own.
 *
 * @param entry member of a list
 */
VXUTILS_API void list_del_init(list_link *entry);

/**
 * Tell whether a list has no members.
 *
 * @param head head of the list
 * @return 1 when the list is empty, 0 when it has members
 */
VXUTILS_API int list_empty(const list_link *head);

/**
 * Move all members of a list, in order, right after the head of another. An empty @p list has no effect.
 *
 * @param list head of the list to take the members from. It is unchanged and still points at them: set both its
 *             pointers to itself before using it again.
 * @param head head of the list to insert into, or the member to insert after
 */
VXUTILS_API void list_splice(list_link *list, list_link *head);

VXUTILS_END_DECLS

#endif
