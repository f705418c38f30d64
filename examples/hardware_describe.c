/* SPDX-License-Identifier: MIT */
/* hardware_describe: prints what board this is. */
#include <stdio.h>
#include <vxutils/hardware.h>

int main(void) {
    printf("%s, generation %d, extension variant %d\n", get_product(), qxhw(), get_extension_variant());
    printf("power over ethernet: %s\n", has_poe() ? "yes" : "no");
    printf("SIM holder: %s\n", has_sim_holder() ? "yes" : "no");
    if (in_maintenance()) printf("maintenance in progress\n");
    return 0;
}
