/* SPDX-License-Identifier: MIT */
/*
 * interface_names: the kernel's interface names given, with the names that users see, the members of those that are
 * bridges, and the state of the WAN links.
 *
 *   interface_names NAME...
 */
#include <stdio.h>
#include <vxutils/interface.h>

int main(int argc, char **argv) {
    int i;
    for (i = 1; i < argc; i++) {
        char members[256];
        printf("%-12s is shown as %s", argv[i], interfaceize(argv[i]));
        if (bridge_members(argv[i], members, sizeof members) > 0) printf(", bridging %s", members);
        printf("\n");
    }
    printf("WAN links: %d enabled, %s\n", wanlink_count(), wanlink_is_up() ? "one is up" : "none is up");
    return 0;
}
