/* SPDX-License-Identifier: MIT */
/*
 * What many daemons at once cost:
 *     start COUNT NAME PROGRAM   starts PROGRAM COUNT times and waits until each has written a byte to descriptor 3
 * Prints one line: name, milliseconds until the last one was ready, KiB of memory that are no longer available, KiB of it
 * for each daemon. Then it ends them all.
 */
#define _GNU_SOURCE
#include <signal.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

enum { MOST = 2000, READY_FD = 3 };

static int64_t now_ms(void) {
    struct timespec time;
    clock_gettime(CLOCK_MONOTONIC, &time);
    return (int64_t)time.tv_sec * 1000 + time.tv_nsec / 1000000;
}

static long available_kb(void) {
    long kilobytes = -1;
    char line[256];
    FILE *memory = fopen("/proc/meminfo", "r");
    while (memory != NULL && fgets(line, sizeof line, memory) != NULL) {
        if (sscanf(line, "MemAvailable: %ld", &kilobytes) == 1) break;
    }
    if (memory != NULL) fclose(memory);
    return kilobytes;
}

static pid_t start(char *program, int ready) {
    const pid_t child = fork();
    if (child != 0) return child;
    if (dup2(ready, READY_FD) == READY_FD) execl(program, program, (char *)NULL);
    _exit(127);
}

int main(int argc, char **argv) {
    static pid_t children[MOST];
    const int count = argc == 4 ? atoi(argv[1]) : 0;
    int ends[2];
    int ready = 0;
    if (count < 1 || count > MOST || pipe(ends) != 0) return 2;
    /* One beforehand: libraries that are used for the first time are read from the disk, which is not counted. */
    children[0] = start(argv[3], ends[1]);
    char byte;
    if (children[0] == -1 || read(ends[0], &byte, 1) != 1) return 1;
    kill(children[0], SIGKILL);
    waitpid(children[0], NULL, 0);

    const long before = available_kb();
    const int64_t begin = now_ms();
    for (int i = 0; i < count; ++i) children[i] = start(argv[3], ends[1]);
    close(ends[1]);
    while (ready < count && read(ends[0], &byte, 1) == 1) ++ready;
    const int64_t end = now_ms();
    const long used = before - available_kb();
    for (int i = 0; i < count; ++i) {
        if (children[i] > 0) kill(children[i], SIGKILL);
    }
    while (wait(NULL) > 0) continue;
    if (ready < count) {
        (void)fprintf(stderr, "start: only %d of %d are ready\n", ready, count);
        return 1;
    }
    printf("%-10s %7lld ms %8ld KiB %6ld KiB each\n", argv[2], (long long)(end - begin), used, used / count);
    return 0;
}
