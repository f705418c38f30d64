/* SPDX-License-Identifier: MIT */
/*
 * What starting a program costs. Linked to the libraries in question it is the program that is measured:
 *     cost PROGRAM [ROUNDS]   starts PROGRAM one time after the other and prints the least time and the median pages
 *     PROGRAM --measure FD    writes the time of its main() and its pages to the descriptor
 * Time is counted from just before exec to main(), pages at main(): private ones, which hold what no file holds, those of
 * files, which all processes share, and all that were touched. One line: microseconds, private, shared, touched.
 */
#define _GNU_SOURCE
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

enum { KINDS = 4, MOST_ROUNDS = 1000 };
struct cost {
    int64_t value[KINDS];
};

static int64_t now(void) {
    struct timespec time;
    clock_gettime(CLOCK_MONOTONIC, &time);
    return (int64_t)time.tv_sec * 1000000000 + time.tv_nsec;
}

/* Pages of this process, from the sums that the kernel keeps. Its count of private dirty pages would include those of a file
 * that was just written, or lies in memory. */
static void count_pages(struct cost *cost) {
    long kilobytes;
    char line[256];
    const long page = sysconf(_SC_PAGESIZE) / 1024;
    FILE *sums = fopen("/proc/self/smaps_rollup", "r");
    while (sums != NULL && fgets(line, sizeof line, sums) != NULL) {
        if (sscanf(line, "Anonymous: %ld", &kilobytes) == 1) cost->value[1] = kilobytes / page;
        if (sscanf(line, "Rss: %ld", &kilobytes) == 1) cost->value[3] = kilobytes / page;
    }
    if (sums != NULL) fclose(sums);
    cost->value[2] = cost->value[3] - cost->value[1];
}

static int compare(const void *one, const void *other) {
    const int64_t a = *(const int64_t *)one, b = *(const int64_t *)other;
    return (a > b) - (a < b);
}

static int start(char *program, struct cost *cost) {
    int ends[2], status;
    if (pipe(ends) != 0) return -1;
    const int64_t before = now();
    const pid_t child = vfork();
    if (child == 0) {
        char number[12];
        snprintf(number, sizeof number, "%d", ends[1]);
        execl(program, program, "--measure", number, (char *)NULL);
        _exit(127);
    }
    close(ends[1]);
    const ssize_t size = read(ends[0], cost, sizeof *cost);
    close(ends[0]);
    cost->value[0] -= before;
    return child > 0 && waitpid(child, &status, 0) == child && status == 0 && size == (ssize_t)sizeof *cost ? 0 : -1;
}

int main(int argc, char **argv) {
    if (argc == 3 && strcmp(argv[1], "--measure") == 0) {
        struct cost cost = {{now(), 0, 0, 0}};
        count_pages(&cost);
        return write(atoi(argv[2]), &cost, sizeof cost) == (ssize_t)sizeof cost ? 0 : 1;
    }
    static int64_t values[KINDS][MOST_ROUNDS];
    const int rounds = argc > 2 ? atoi(argv[2]) : 201;
    if (argc < 2 || rounds < 1 || rounds > MOST_ROUNDS) return 2;
    for (int round = 0; round < rounds; ++round) {
        struct cost cost = {{0}};
        if (start(argv[1], &cost) != 0) {
            (void)fprintf(stderr, "cost: %s does not start\n", argv[1]);
            return 1;
        }
        for (int kind = 0; kind < KINDS; ++kind) values[kind][round] = cost.value[kind];
    }
    for (int kind = 0; kind < KINDS; ++kind) qsort(values[kind], (size_t)rounds, sizeof values[kind][0], compare);
    /* The least time: a busy machine only ever adds. */
    printf("%7.0f %7lld %7lld %7lld\n", (double)values[0][0] / 1000, (long long)values[1][rounds / 2],
           (long long)values[2][rounds / 2], (long long)values[3][rounds / 2]);
    return 0;
}
