/* SPDX-License-Identifier: MIT */
/*
 * ping_wan: is a WAN link alive?  Pings a target on one interface, at link level through a gateway where one is given
 * and needed, and says how long it took.
 *
 *   ping_wan INTERFACE TARGET [GATEWAY]
 *
 * Ends with 0 when the reply came, 1 when it did not, 2 when it was not asked properly.
 */
#include <stdio.h>
#include <vxutils/interface.h>
#include <vxutils/ping.h>

#define TIMEOUT_MS 1000

int main(int argc, char **argv) {
    struct timespec round_trip;
    const char *interface, *target, *gateway;
    if (argc < 3 || argc > 4) {
        fprintf(stderr, "usage: %s INTERFACE TARGET [GATEWAY]\n", argv[0]);
        return 2;
    }
    interface = argv[1];
    target = argv[2];
    gateway = argc == 4 ? argv[3] : NULL;
    if (__rawping(interface, target, gateway, NULL, NULL, TIMEOUT_MS, -1, &round_trip, NULL) != 0) {
        printf("%s: no reply from %s\n", interfaceize(interface), target);
        return 1;
    }
    printf("%s: reply from %s%s%s in %ld.%03ld ms\n", interfaceize(interface), target, gateway ? " through " : "",
           gateway ? gateway : "", (long)round_trip.tv_sec * 1000 + (long)(round_trip.tv_nsec / 1000000),
           (long)(round_trip.tv_nsec / 1000 % 1000));
    return 0;
}
