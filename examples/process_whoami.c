/* SPDX-License-Identifier: MIT */
/* Tells who called this program, seen through shells, and what runs as the process PID. */
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>
#include <vxutils/process.h>

int main(int argc, char **argv) {
    char caller[64];

    if (get_caller(caller, sizeof caller) == 0) {
        printf("called by %s\n", caller);
    } else {
        printf("the caller is not known\n");
    }

    const int pid = argc > 1 ? (int)strtol(argv[1], NULL, 10) : (int)getpid();
    if (!pid_alive(pid)) {
        printf("process %d does not exist\n", pid);
        return 1;
    }
    printf("process %d is %s, its parent is %d\n", pid, procname(pid), get_parent_pid(pid));
    return 0;
}
