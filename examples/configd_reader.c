/* SPDX-License-Identifier: MIT */
/*
 * configd_reader KEY...            prints values of the configuration daemon, read one by one
 * configd_reader --list KEY...     the same, read as one list
 * configd_reader --set KEY=VALUE...  writes values and commits them, waiting while the daemon is busy
 */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>
#include <vxutils/configd.h>
#include <vxutils/strutil.h>

static void wait_ms(long ms) {
    struct timespec time;
    time.tv_sec = ms / 1000;
    time.tv_nsec = ms % 1000 * 1000000;
    nanosleep(&time, NULL);
}

static int read_singly(configd_handle *config, char **keys) {
    for (; *keys != NULL; keys++) {
        configd_entry entry[2];
        memset(entry, 0, sizeof entry);
        strlcpy(entry[0].key, *keys, sizeof entry[0].key);
        if (configd_get(config, entry) != 0) {
            printf("%s: no answer\n", *keys);
            return 1;
        }
        printf("%s = %s\n", entry[0].key, entry[0].value);
    }
    return 0;
}

static int read_list(configd_handle *config, char **keys) {
    char **key;
    for (key = keys; *key != NULL; key++) configd_add_query(config, "%s", *key);
    for (key = keys; *key != NULL; key++) printf("%s = %s\n", *key, configd_fetch(config, "%s", *key));
    return 0;
}

static int write_values(configd_handle *config, char **pairs, size_t count) {
    configd_entry *change = calloc(count + 1, sizeof *change);
    size_t i;
    int result;
    if (change == NULL) return 1;
    for (i = 0; i < count; i++) {
        char *equals = strchr(pairs[i], '=');
        if (equals == NULL) continue;
        *equals = '\0';
        strlcpy(change[i].key, pairs[i], sizeof change[i].key);
        strlcpy(change[i].value, equals + 1, sizeof change[i].value);
    }
    result = configd_set(config, change);
    free(change);
    printf("write: %s\n", result == 0 ? "echoed" : "failed");
    while (result == 0 && (result = configd_done(config)) == 1) {
        printf("commit: busy, asking again\n");
        wait_ms(200);
        result = 0;
    }
    if (result == 0) printf("commit: ready\n");
    return result == 0 ? 0 : 1;
}

int main(int argc, char **argv) {
    configd_handle *config;
    int status;
    if (argc < 2) {
        fprintf(stderr, "usage: configd_reader KEY... | --list KEY... | --set KEY=VALUE...\n");
        return 2;
    }
    config = configd_open();
    if (config == NULL) return 1;
    if (strcmp(argv[1], "--list") == 0) {
        status = read_list(config, argv + 2);
    } else if (strcmp(argv[1], "--set") == 0) {
        status = write_values(config, argv + 2, (size_t)argc - 2);
    } else {
        status = read_singly(config, argv + 1);
    }
    configd_close(config);
    return status;
}
