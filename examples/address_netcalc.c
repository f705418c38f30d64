/* SPDX-License-Identifier: MIT */
/* Prints the netmask and the network of ADDRESS/PREFIX, IPv4 or IPv6. */
#include <netinet/in.h>
#include <stdio.h>
#include <stdlib.h>
#include <vxutils/address.h>

int main(int argc, char **argv) {
    struct sockaddr_in6 room_for_address, room_for_mask; /* large enough for either family */
    struct sockaddr *address = (struct sockaddr *)&room_for_address;
    struct sockaddr *mask = (struct sockaddr *)&room_for_mask;
    char text[93];

    if (argc != 3) {
        fprintf(stderr, "usage: %s ADDRESS PREFIX\n", argv[0]);
        return 1;
    }
    if (str2addr(argv[1], address) == -1) {
        fprintf(stderr, "%s: no address\n", argv[1]);
        return 1;
    }
    char *end = argv[2];
    const long prefix = strtol(argv[2], &end, 10);
    if (*end != '\0' || prefix > 128 || cidr2netmask((int)prefix, mask, address->sa_family) == -1) {
        fprintf(stderr, "%s: no prefix length of this family\n", argv[2]);
        return 1;
    }
    printf("address %s\n", addr2str(text, address));
    printf("netmask %s\n", addr2str(text, mask));
    printf("network %s\n", net2cidr(text, address, mask));
    if (address->sa_family == AF_INET6 && is_link_local_address(address)) printf("link-local\n");
    return 0;
}
