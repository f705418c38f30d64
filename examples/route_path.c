/* SPDX-License-Identifier: MIT */
/*
 * route_path: by which interface would packets to these hosts leave?
 *
 *   route_path HOST...
 *
 * Ends with 1 when there is a host without a way to it.
 */
#define _POSIX_C_SOURCE 200112L
#include <net/if.h>
#include <netdb.h>
#include <stdio.h>
#include <sys/socket.h>
#include <sys/types.h>
#include <vxutils/interface.h>
#include <vxutils/route.h>

#ifndef IF_NAMESIZE
#define IF_NAMESIZE 16
#endif

int main(int argc, char **argv) {
    int i, missing = 0;
    for (i = 1; i < argc; i++) {
        struct addrinfo *target = NULL;
        char name[IF_NAMESIZE];
        if (getaddrinfo(argv[i], NULL, NULL, &target) != 0) {
            printf("%s: unknown host\n", argv[i]);
            missing = 1;
            continue;
        }
        if (route_get_interface(target, name) == 0) {
            printf("%s: by %s (%s)\n", argv[i], interfaceize(name), name);
        } else {
            printf("%s: no route\n", argv[i]);
            missing = 1;
        }
        freeaddrinfo(target);
    }
    return missing;
}
