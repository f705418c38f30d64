/* SPDX-License-Identifier: MIT */
/*
 * Notes in the device log.
 *
 *   qxlog_note                  shows the log, newest entry first
 *   qxlog_note NUMBER TEXT      adds an entry
 *   qxlog_note clear            empties the log
 */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <vxutils/qxlog.h>

int main(int argc, char **argv) {
    if (argc == 3) return qxlog((int)strtol(argv[1], NULL, 10), argv[2]) == 0 ? EXIT_SUCCESS : EXIT_FAILURE;
    if (argc == 2 && strcmp(argv[1], "clear") == 0) return qxlog_clear() == 0 ? EXIT_SUCCESS : EXIT_FAILURE;
    if (argc != 1) {
        fputs("usage: qxlog_note [clear | NUMBER TEXT]\n", stderr);
        return 2;
    }
    char text[40000]; /* 33 lines of 1023 characters at most */
    if (qxlog_read(text, sizeof text) != 0) return EXIT_FAILURE;
    fputs(text, stdout);
    return EXIT_SUCCESS;
}
