/* SPDX-License-Identifier: MIT */
/**
 * @file
 * **Purpose.** Tells which board this is (generation, product name, fitted extensions) and whether it is being
 * maintained. The answers come from the kernel's board data below "/proc/sysinfo", an optional rebranding file
 * "/etc/oem/oem.conf", and marker files.
 *
 * **Example.**
 * @code
 * if (!in_maintenance()) printf("%s, generation %d\n", get_product(), qxhw());
 * @endcode
 *
 * **Ownership.** oem() and get_product() return static buffers, valid until the next call of either.
 *
 * **Threads, signals, fork.** oem() and get_product() share static buffers, and qxhw() and has_poe() store the
 * generation in a static variable: only one thread at a time may call these four, and copies results at once. Not for
 * signal handlers. Nothing is kept open; a forked child may call all functions.
 *
 * **Blocking.** Calls take as long as reading a small file.
 *
 * **Errors.** When a file is missing, a function returns what it says for that; nothing is logged. Numbers are read as
 * by atoi(): a text that is not a number gives 0, and a number that does not fit in 32 bits the nearest one that does.
 *
 * **Limits.** Of a board data file the first 1023 characters are read. Lines of the rebranding file end after 1024
 * characters at the latest. A value has at most 1023 characters, a product name 127.
 *
 * **Privileges.** Read access to the files; a file that the caller may not read counts as missing. So does a progress
 * marker that an untrusted user may have made: that is when the marker, or a directory or link on its path, lies in a
 * directory that every user may write to, and its owner is neither root, nor the process's user, nor the owner of that
 * directory.
 *
 * **Compatibility.** Behaviour kept on purpose (docs/compatibility.md): Q88 the key of a product's name is cut.
 */
#ifndef VXUTILS_HARDWARE_H
#define VXUTILS_HARDWARE_H

#include <vxutils/api.h>

VXUTILS_BEGIN_DECLS

/**
 * @return the hardware generation, from "/proc/sysinfo/qxhw". Once read it is remembered; -1 as long as the file is
 *         missing or empty.
 */
VXUTILS_API int qxhw(void);

/**
 * Look up a value in "/etc/oem/oem.conf". The first line that begins with the key and a '=' counts; blanks after the
 * '=' are skipped. What follows the 1024th character of a line counts as another line.
 *
 * @param key  the key; NULL finds nothing. May be the text that the last call returned.
 * @return the value, or an empty text; at most 1023 characters in a static buffer, valid until the next call (also of
 *         get_product())
 */
VXUTILS_API const char *oem(const char *key);

/**
 * Name the product. The board's product name is in "/proc/sysinfo/bd/0/prod_name". Without a readable
 * "/etc/oem/oem.conf" the result is "QX" and that name. With the file it is the file's value of "ProductType.QX" and
 * that name (this key is cut to 30 characters, Quirk Q88), or, if that is empty, its value of "ProductType".
 *
 * @return the name, possibly empty; at most 127 characters in a static buffer, valid until the next call
 */
VXUTILS_API const char *get_product(void);

/** @return the extension board's variant, from "/proc/sysinfo/bd/1/prod_variant"; -1 if that is missing or empty */
VXUTILS_API int get_extension_variant(void);

/** @return 1 when the board can be powered through its network cable (generation 18, extension variant 0), else 0 */
VXUTILS_API int has_poe(void);

/** @return 1 when there is a SIM holder ("/dev/sim" is readable), else 0 */
VXUTILS_API int has_sim_holder(void);

/**
 * @return 1 while an update or configuration is in progress, else 0: whether one of the markers "swupdate", "bdupdate",
 *         "fwupdate", "config", "switch-software", "switch-config" and "sshkeys" in "/tmp/progress" is readable. A
 *         marker of an untrusted user does not count (see Privileges).
 */
VXUTILS_API int in_maintenance(void);

VXUTILS_END_DECLS

#endif
