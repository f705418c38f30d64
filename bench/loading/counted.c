/* SPDX-License-Identifier: MIT */
/* Linked to the libraries in question: what an emulated process executes from exec to main() is counted, the loader's work
 * above all. */
#include <sys/syscall.h>
#include <unistd.h>

#include "bench/counting/marks.h"

int main(void) {
    /* No begin mark: counted from the start of the process. */
    syscall(SYS_getppid, VXCOUNT_MAGIC, VXCOUNT_END);
    return 0;
}
