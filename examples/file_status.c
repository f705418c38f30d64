/* SPDX-License-Identifier: MIT */
/*
 * A daemon that publishes its state in a status file, and a watcher that reads the file all the time: each sees the
 * other's work whole or not at all.
 *
 *   file_status [UPDATES [FILE]]      500 updates of /tmp/status/example/state
 */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vxutils/file.h>

enum { RECORD_SIZE = 3000 };

/* One state: as many bytes of one letter as the letter's place says, so that a mixture of two would show. */
static size_t make_record(char *record, int update) {
    const size_t length = RECORD_SIZE - 100 * (size_t)(update % 26);
    memset(record, 'a' + update % 26, length);
    record[length] = '\0';
    return length;
}

static int is_whole(const char *text) {
    char record[RECORD_SIZE + 1];
    if (text[0] < 'a' || text[0] > 'z') return 0;
    make_record(record, text[0] - 'a');
    return strcmp(text, record) == 0;
}

/* The daemon: its exit code tells whether all updates succeeded. */
static int publish(const char *file, int updates) {
    char record[RECORD_SIZE + 1];
    int failed = 0;
    for (int i = 0; i < updates; ++i) {
        make_record(record, i);
        if (writefile(file, record) != 0) failed = 1;
    }
    return failed;
}

int main(int argc, char **argv) {
    const int updates = argc > 1 ? (int)strtol(argv[1], NULL, 10) : 500;
    const char *file = argc > 2 ? argv[2] : "/tmp/status/example/state";
    char directory[] = "/tmp/status/example";
    if (create_directory(directory) != 0 || publish(file, 1) != 0) return EXIT_FAILURE;

    const pid_t daemon = fork();
    if (daemon == 0) _exit(publish(file, updates));

    int reads = 0;
    int mixtures = 0;
    int status = 0;
    while (waitpid(daemon, &status, WNOHANG) == 0) {
        char text[RECORD_SIZE + 2];
        ++reads;
        if (!is_whole(readfile_r(file, text, sizeof text))) ++mixtures;
    }
    printf("%d updates, %d reads meanwhile, %d of them a mixture of two states\n", updates, reads, mixtures);
    writefile(file, ""); /* gone: nothing is published any more */
    return status == 0 && mixtures == 0 ? EXIT_SUCCESS : EXIT_FAILURE;
}
