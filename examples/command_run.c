/* SPDX-License-Identifier: MIT */
/*
 * Runs command lines the three ways a daemon does.
 *
 *   command_run wait 'COMMAND'      waits for it and shows its exit code
 *   command_run detach 'COMMAND'    lets it go on by itself and shows its process id
 *   command_run read 'COMMAND'      shows what it printed, if it succeeded
 *   command_run split 'LINE'        shows the arguments that a line is made of
 */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <vxutils/command.h>

static int wait_for(const char *command) {
    printf("exit code %d\n", run_command(command, 0));
    return EXIT_SUCCESS;
}

static int detach(const char *command) {
    const int pid = run_command(command, 1);
    if (pid <= 0) return EXIT_FAILURE;
    printf("process %d\n", pid);
    return EXIT_SUCCESS;
}

static int read_from(const char *command) {
    char output[4096];
    const int length = eval_command(command, output, sizeof output);
    if (length < 0) {
        puts("failed, its output is not trusted");
        return EXIT_FAILURE;
    }
    printf("%d characters: %s\n", length, output);
    return EXIT_SUCCESS;
}

static int split(const char *line) {
    char **words;
    int count;
    if (makeargv(line, &words, &count) != 0) {
        puts("not a command line");
        return EXIT_FAILURE;
    }
    for (int i = 0; i < count; ++i) printf("%d: %s\n", i, words[i]);
    freeargv(words);
    return EXIT_SUCCESS;
}

int main(int argc, char **argv) {
    if (argc == 3 && strcmp(argv[1], "wait") == 0) return wait_for(argv[2]);
    if (argc == 3 && strcmp(argv[1], "detach") == 0) return detach(argv[2]);
    if (argc == 3 && strcmp(argv[1], "read") == 0) return read_from(argv[2]);
    if (argc == 3 && strcmp(argv[1], "split") == 0) return split(argv[2]);
    fputs("usage: command_run wait|detach|read|split TEXT\n", stderr);
    return 2;
}
