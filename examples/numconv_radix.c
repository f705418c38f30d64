/* SPDX-License-Identifier: MIT */
/* Shows each number of the command line in every base, and says whether it was written in plain decimal. */
#include <stdio.h>
#include <vxutils/numconv.h>

int main(int argc, char **argv) {
    static const int bases[] = {2, 8, 10, 16};
    char text[34];
    int i, error;
    size_t base;

    for (i = 1; i < argc; ++i) {
        const int32_t value = validValueOf32(&error, argv[i]);

        printf("%s:", argv[i]);
        for (base = 0; base < sizeof bases / sizeof bases[0]; ++base) {
            if (value < 0 && bases[base] != 10) continue;
            printf(" %s", i32toa(value, text, bases[base]));
        }
        puts(error == 0 ? " (decimal)" : " (not canonical)");
    }
    return 0;
}
