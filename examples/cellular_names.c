/* SPDX-License-Identifier: MIT */
/* cellular_names MODULE NETWORK TECHNOLOGY: what the names of the mobile world mean. */
#include <stdio.h>
#include <vxutils/cellular.h>

int main(int argc, char **argv) {
    const char *provider;

    if (argc != 4) {
        fprintf(stderr, "usage: cellular_names MODULE NETWORK TECHNOLOGY\n");
        return 2;
    }
    printf("%s: family %#x\n", argv[1], (unsigned int)card2family(argv[1]));
    provider = pdb_find_provider(argv[2]);
    printf("%s: %s\n", argv[2], provider != NULL && *provider != '\0' ? provider : "unknown provider");
    printf("%s: generation %d\n", argv[3], get_generation(argv[3]));
    return 0;
}
