/* SPDX-License-Identifier: MIT */
/* Sends a status line through a small buffer, piece by piece: no allocation, no limit on the line. */
#include <stdio.h>
#include <vxutils/xprintf.h>

#define STATUS_FORMAT "%s: state %-8s, address %08x, mtu %5u %s"
#define STATUS_ARGUMENTS "eth0", "up", 0x0a1b2c3du, 1500u, "ok"

int main(void) {
    char piece[21];
    int fetched = 0;
    int length;

    printf("whole: %d characters\n", strlenf(STATUS_FORMAT, STATUS_ARGUMENTS));
    while ((length = snxprintf(piece, fetched, sizeof piece, STATUS_FORMAT, STATUS_ARGUMENTS)) > 0) {
        printf("%2d: %s\n", fetched, piece);
        fetched += length;
    }
    return 0;
}
