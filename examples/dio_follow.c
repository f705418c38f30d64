/* SPDX-License-Identifier: MIT */
/* dio_follow INPUT OUTPUT: sets an output as an input is. */
#include <stdio.h>
#include <stdlib.h>
#include <vxutils/dio.h>

int main(int argc, char **argv) {
    unsigned int inputs = 0;
    unsigned int outputs = 0;
    unsigned char on = 0;
    int result;

    if (argc != 3) {
        fprintf(stderr, "usage: dio_follow INPUT OUTPUT\n");
        return 64;
    }
    dio_roCount(&inputs);
    dio_rwCount(&outputs);
    printf("board: %u inputs, %u outputs\n", inputs, outputs);
    result = dio_roValue((unsigned int)atoi(argv[1]), &on);
    if (result == DIO_OK) result = dio_setValue(atoi(argv[2]), on);
    if (result == DIO_OK) printf("input %s is %s, output %s set\n", argv[1], on ? "on" : "off", argv[2]);
    return result;
}
