/* SPDX-License-Identifier: MIT */
/* storage_list: lists the board's storage devices. */
#include <stdio.h>
#include <stdlib.h>
#include <vxutils/storage.h>

int main(void) {
    struct storage_list *found = old_get_storage(0);
    struct list_link *at;

    if (found == NULL) return 1;
    for (at = found->entries.next; at != &found->entries; at = at->next) {
        const struct storage_entry *entry = (const void *)at;
        printf("%s  type %u/%u  ", entry->partition, (unsigned int)entry->type, (unsigned int)entry->index);
        if (entry->mount_point[0] == '\0') {
            printf("not mounted\n");
        } else {
            printf("on %s, %lld of %lld KiB free\n", entry->mount_point, (long long)entry->available / 1024,
                   (long long)entry->total / 1024);
        }
    }
    old_free_storage(found);
    free(found);
    return 0;
}
