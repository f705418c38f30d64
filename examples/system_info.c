/* SPDX-License-Identifier: MIT */
/* system_info [NAME...]: prints variables of the device's system information; without names all of them. */
#include <stdio.h>
#include <vxutils/systeminfo.h>

int main(int argc, char **argv) {
    systeminfo_table *info = systeminfo_init();
    int i;
    if (info == NULL) {
        fprintf(stderr, "system_info: no system information\n");
        return 1;
    }
    for (i = 0; argc == 1 && i < info->count; i++) printf("%s: %s\n", info->vars[i].name, info->vars[i].value);
    for (i = 1; i < argc; i++) {
        printf("%s: \"%s\", as a number %d\n", argv[i], systeminfo_getvar(info, argv[i]),
               systeminfo_getint(info, argv[i]));
    }
    systeminfo_free(info);
    return 0;
}
