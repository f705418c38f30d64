/* SPDX-License-Identifier: MIT */
/* board_survey: prints what a board is and has: its product name, lines, storage and supply voltages. */
#include <stdio.h>
#include <stdlib.h>
#include <vxutils/adc.h>
#include <vxutils/dio.h>
#include <vxutils/dio_status.h>
#include <vxutils/hardware.h>
#include <vxutils/storage.h>

#define VIN_INPUTS 2

static void print_lines(void) {
    dio_status board;
    unsigned int line;
    const int result = dio_getStatus(&board);

    if (result != DIO_OK) {
        printf("lines: cannot be read, result %d\n", result);
        return;
    }
    printf("inputs:");
    for (line = 1; line <= board.in.count; ++line) printf(" %d", dio_getInValueFromStatus(&board.in, line));
    printf("\noutputs:");
    for (line = 1; line <= board.out.count; ++line) printf(" %d", dio_getOutValueFromStatus(&board.out, line));
    printf("\n");
}

static void print_entry(const storage_entry *entry) {
    printf("storage: %s, ", entry->partition);
    if (entry->type == 2) printf("internal memory");
    if (entry->type == 4) printf("data partition");
    if (entry->type == 8) printf("card or disk");
    if (entry->type == 16) printf("USB disk on port %u", (unsigned int)entry->index);
    if (entry->mount_point[0] != '\0') {
        printf(", mounted on %s with %lld KiB", entry->mount_point, (long long)entry->total / 1024);
    }
    printf("\n");
}

static int print_storage(void) {
    storage_list *found = old_get_storage(0);
    struct list_link *at;

    if (found == NULL) return 1;
    for (at = found->entries.next; at != &found->entries; at = at->next) {
        print_entry((const void *)at); /* the link is the entry's first field */
    }
    old_free_storage(found);
    free(found);
    return 0;
}

static void print_voltages(void) {
    float volts = 0;
    int input;

    if (qxalpha_adc_supported() && qxalpha_adc_read("/sys/bus/iio/devices/iio:device0/in_voltage0_raw", &volts) == 0) {
        printf("converter: %.1f V\n", (double)volts);
    }
    for (input = 1; input <= VIN_INPUTS; ++input) {
        const char *path = qxdelta_get_adc_vin_path(input); /* holds millivolts; "" where there is no such chip */
        if (*path == '\0' || qxgamma_adc_read(path, &volts, 0.001F) != 0) continue;
        printf("supply %d: %.2f V\n", input, (double)volts);
    }
}

int main(void) {
    printf("board: %s\n", get_product());
    print_lines();
    if (print_storage() != 0) return 1;
    print_voltages();
    return 0;
}
