// SPDX-License-Identifier: MIT
// Counts the processes whose command line begins with NAME: now, and again for each line on standard input.
#include <vxutils/processcontrol.h>

#include <cstdio>

int main(int argc, char **argv) {
    if (argc != 2) {
        fprintf(stderr, "usage: %s NAME\n", argv[0]);
        return 1;
    }
    const char *name = argv[1];

    ProcessControl processes;
    do {
        processes.refresh(true);  // the first time this reads everything, later only what is new
        printf("%d of %s", processes.getNumberOfProcessesByName(name), name);
        const char *separator = ": ";
        const ProcessEntry *entry = nullptr;
        while ((entry = processes.getNextProcessEntryByName(name, entry)) != nullptr) {
            printf("%s%d", separator, entry->getPid());
            separator = " ";
        }
        printf("\n");
        fflush(stdout);
        while (getchar_unlocked() != '\n') {
            if (feof(stdin)) return 0;
        }
    } while (true);
}
