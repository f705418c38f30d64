/* SPDX-License-Identifier: MIT */
/* Tells what a transfer of BYTES that started at TIME ("24-02-29 12:00:00") and took 8.5 s amounts to. */
#include <stdio.h>
#include <stdlib.h>
#include <vxutils/timefmt.h>

int main(int argc, char **argv) {
    const struct timespec start = {100, 750000000};
    const struct timespec end = {109, 250000000};

    const long long bytes = argc == 3 ? strtoll(argv[1], NULL, 10) : 0;
    const time_t when = argc == 3 ? timeparse(argv[2]) : 0;
    if (bytes <= 0 || when == 0) {
        fprintf(stderr, "usage: %s BYTES \"YY-MM-DD hh:mm:ss\"\n", argv[0]);
        return 1;
    }

    const struct timespec took = diffts(start, end);
    const int64_t us = uselapsed(start, end);
    printf("started %s\n", timeformat(&when));
    printf("moved   %s in %lld.%ld s\n", format_size(bytes), (long long)took.tv_sec, took.tv_nsec / 100000000);
    printf("rate    %s\n", format_rate(bytes * 1000000 / us));
    printf("job     %08lx, %ld s after the system's start\n", (unsigned long)mkid(), jiffy());
    return 0;
}
