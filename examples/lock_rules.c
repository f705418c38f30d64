/* SPDX-License-Identifier: MIT */
/*
 * Two processes that both change "the rules", a file here, in two steps each. Under the packet-filter lock no step of
 * one falls between the steps of the other.
 *
 *   lock_rules [CHANGES]      how often each of them does it, 200 by default
 */
#include <stdio.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vxutils/lock.h>

static const char *const rules = "/tmp/lock_rules.txt";

static void add_step(char name, int step) {
    FILE *file = fopen(rules, "a");
    if (file == NULL) _exit(EXIT_FAILURE);
    fprintf(file, "%c%d\n", name, step);
    fclose(file);
}

static void change_rules(char name, int changes) {
    for (int i = 0; i < changes; ++i) {
        firewall_lock_handle *lock = firewall_lock();
        if (lock == NULL) _exit(EXIT_FAILURE);
        add_step(name, 1);
        add_step(name, 2);
        firewall_unlock(lock);
    }
}

/* Changes whose two steps follow each other. */
static int count_whole_changes(void) {
    FILE *file = fopen(rules, "r");
    if (file == NULL) return -1;
    char first;
    char second;
    int whole = 0;
    while (fscanf(file, "%c1\n%c2\n", &first, &second) == 2 && first == second) ++whole;
    fclose(file);
    return whole;
}

int main(int argc, char **argv) {
    const int changes = argc > 1 ? (int)strtol(argv[1], NULL, 10) : 200;
    remove(rules);
    const pid_t other = fork();
    if (other == 0) {
        change_rules('b', changes);
        _exit(EXIT_SUCCESS);
    }
    change_rules('a', changes);
    int status;
    waitpid(other, &status, 0);

    const int whole = count_whole_changes();
    printf("%d of %d changes were made in one piece\n", whole, 2 * changes);
    remove(rules);
    return status == 0 && whole == 2 * changes ? EXIT_SUCCESS : EXIT_FAILURE;
}
