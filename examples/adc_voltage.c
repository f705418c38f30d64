/* SPDX-License-Identifier: MIT */
/* adc_voltage INPUT: prints the supply voltage at an input, on a board whose monitor gives millivolts. */
#include <stdio.h>
#include <stdlib.h>
#include <vxutils/adc.h>

int main(int argc, char **argv) {
    const int input = argc > 1 ? atoi(argv[1]) : 1;
    const char *path = qxdelta_get_adc_vin_path(input);
    float volts = 0;

    if (path == NULL || *path == '\0' || qxgamma_adc_read(path, &volts, 0.001F) != 0) {
        printf("input %d: no converter\n", input);
        return 1;
    }
    printf("input %d: %.2f V\n", input, (double)volts);
    return 0;
}
