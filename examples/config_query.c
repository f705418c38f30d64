/* SPDX-License-Identifier: MIT */
/* config_query FILE [KEY...]: prints entries of a configuration file and of what it includes; without keys all of them.
 */
#include <stdio.h>
#include <vxutils/cfread.h>

static void print_entry(const cfread_entry *entry) {
    printf("%s = %s", entry->key, entry->value);
    if (entry->ival != -1) printf(" (number %ld)", entry->ival);
    printf("\n");
}

int main(int argc, char **argv) {
    cfread_table *config;
    int i;
    if (argc < 2) {
        fprintf(stderr, "usage: config_query FILE [KEY...]\n");
        return 2;
    }
    config = cfread_open(argv[1]);
    if (config == NULL) return 1; /* the system log says why */
    for (i = 0; argc == 2 && i < config->size; i++) {
        if (config->entries[i] != NULL) print_entry(config->entries[i]);
    }
    for (i = 2; i < argc; i++) {
        const cfread_entry *entry = cfread_find_entry(config, argv[i]);
        if (entry != NULL) {
            print_entry(entry);
        } else {
            printf("%s: not set\n", argv[i]);
        }
    }
    cfread_close(config);
    return 0;
}
