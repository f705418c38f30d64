/* SPDX-License-Identifier: MIT */
/* Several processes count in one page of memory, one at a time. */
#include <errno.h>
#include <stdio.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vxutils/sem.h>

enum { processes = 4, rounds = 1000 };

static int count(int *counter) {
    sem_handle *lock = sem_create("/example-count");
    int failed = 0;
    for (int i = 0; i < rounds; ++i) {
        int result = sem_lock(lock);
        if (result != 0 && result != EOWNERDEAD) {
            failed = 1;
            break;
        }
        ++*counter;
        sem_unlock(lock);
    }
    sem_release(lock);
    return failed;
}

int main(void) {
    int *counter = mmap(NULL, sizeof *counter, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (counter == MAP_FAILED) return 1;
    for (int i = 0; i < processes; ++i) {
        pid_t child = fork();
        if (child == -1) return 1;
        if (child == 0) _exit(count(counter));
    }
    int failed = 0;
    int status;
    while (wait(&status) != -1) failed |= status;
    printf("%d processes counted to %d\n", processes, *counter);
    return failed != 0;
}
