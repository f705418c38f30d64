/* SPDX-License-Identifier: MIT */
/* vxevent ID PARAM [TEXT]: raises one event. */
#include <stdio.h>
#include <stdlib.h>
#include <vxutils/vxevent.h>

int main(int argc, char **argv) {
    if (argc < 3 || argc > 4) {
        fprintf(stderr, "usage: vxevent ID PARAM [TEXT]\n");
        return 2;
    }
    unsigned int id = (unsigned int)strtoul(argv[1], NULL, 0);
    unsigned int param = (unsigned int)strtoul(argv[2], NULL, 0);
    if (vxevent(id, param, argc == 4 ? argv[3] : NULL) != 0) {
        perror("vxevent");
        return 1;
    }
    return 0;
}
