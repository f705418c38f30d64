/* SPDX-License-Identifier: MIT */
/* wwanmd_signal CARD [COMMAND]: asks a card's modem daemon one question and prints the answer. */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <vxutils/wwanmd.h>

int main(int argc, char **argv) {
    static wwanmd_msg message; /* 8 KiB: not on the stack */
    const char *command = argc > 2 ? argv[2] : "signal";
    wwanmd_handle *modem;
    int result;

    if (argc < 2) {
        fprintf(stderr, "usage: wwanmd_signal CARD [COMMAND]\n");
        return 2;
    }
    if (wwanmd_is_suspended(atoi(argv[1])) == 1) {
        printf("card %s is suspended\n", argv[1]);
        return 1;
    }
    modem = wwanmd_init(atoi(argv[1]), "signal");
    if (modem == NULL) {
        printf("card %s: no modem daemon\n", argv[1]);
        return 1;
    }
    message.len = snprintf(message.data, sizeof message.data, "%s", command);
    message.timeout = 10;
    result = wwanmd_send(modem, &message);
    message.len = -1; /* if it stays -1, no answer came and the message still holds the command */
    if (result == 0) result = wwanmd_recv(modem, &message);
    message.data[strcspn(message.data, "\n")] = '\0';
    if (message.len < 0) {
        printf("card %s: %s: no answer\n", argv[1], command);
    } else {
        printf("card %s: %s:%s%s\n", argv[1], command, result == 0 ? "" : " refused:", message.data);
    }
    wwanmd_free(modem);
    return result == 0 ? 0 : 1;
}
