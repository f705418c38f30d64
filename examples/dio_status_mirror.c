/* SPDX-License-Identifier: MIT */
/* dio_status_mirror: prints all lines and sets every output as the input of the same number is. */
#include <stdio.h>
#include <vxutils/dio.h>
#include <vxutils/dio_status.h>

int main(void) {
    dio_status board;
    unsigned int line;
    const int result = dio_getStatus(&board);

    if (result != DIO_OK) {
        printf("cannot read the board: result %d\n", result);
        return result;
    }
    printf("in ");
    for (line = 1; line <= board.in.count; ++line) printf(" %d", dio_getInValueFromStatus(&board.in, line));
    printf("\nout");
    for (line = 1; line <= board.out.count; ++line) {
        if (line <= board.in.count) {
            const int value = dio_getInValueFromStatus(&board.in, line);
            dio_setOutValueInStatus(&board.out, line, (unsigned int)value);
        }
        printf(" %d", dio_getOutValueFromStatus(&board.out, line));
    }
    printf("\n");
    return dio_setStatusOut(&board.out);
}
