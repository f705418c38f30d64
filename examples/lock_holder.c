/* SPDX-License-Identifier: MIT */
/* lock_holder NAME: takes a lock and keeps it until it is killed. */
#include <errno.h>
#include <stdio.h>
#include <unistd.h>
#include <vxutils/sem.h>

int main(int argc, char **argv) {
    if (argc != 2) {
        fprintf(stderr, "usage: lock_holder NAME\n");
        return 2;
    }
    sem_handle *lock = sem_create(argv[1]);
    int result = sem_lock(lock);
    if (result != 0 && result != EOWNERDEAD) return 1;
    printf("holder %d: has %s\n", (int)getpid(), argv[1]);
    fflush(stdout);
    for (;;) pause();
}
