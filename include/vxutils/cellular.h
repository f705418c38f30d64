/* SPDX-License-Identifier: MIT */
/**
 * @file
 * **Purpose.** Names radio generations, families of modem modules and network providers.
 *
 * **Example.**
 * @code
 * if (get_generation("LTE") >= 4 && card2family("mc7455") == 0x20002) puts("fast");  // prints fast
 * @endcode
 *
 * **Ownership.** pdb_find_provider() returns a static buffer, valid until its next call. Nothing is freed by the
 * caller.
 *
 * **Threads, signals, fork.** get_generation() and card2family() may be called by any thread; pdb_find_provider() by
 * one thread at a time. Not for signal handlers.
 *
 * **Blocking.** pdb_find_provider() runs a tool in a shell and waits until it has ended, without a limit: do not call
 * it in an event loop. The others do not block.
 *
 * **Errors.** A name or number that is not known gives -1, 0 or an empty text. Nothing is logged.
 *
 * **Limits.** A provider's name is cut to 63 characters. What follows the 1024th character of a line of the tool counts
 * as another line.
 *
 * **Privileges.** pdb_find_provider() needs /bin/sh and the provider data base's tool /usr/bin/pdb, executable for the
 * caller.
 *
 * **Compatibility.** Behaviour kept on purpose (docs/compatibility.md): Q89 mc509 is never its own family; Q90 the
 * provider begins two characters after the colon.
 */
#ifndef VXUTILS_CELLULAR_H
#define VXUTILS_CELLULAR_H

#include <vxutils/api.h>

VXUTILS_BEGIN_DECLS

/**
 * Tell the radio generation of an access technology: 2 for CSD, GPRS and EDGE, 3 for UMTS, HSDPA, HSUPA, HSPA, HSPA+
 * and CDMA, 4 for LTE, 5 for ENDC and 5G.
 *
 * @param technology  the whole name, in upper or lower case; or NULL
 * @return 2 to 5; -1 for other names and NULL
 */
VXUTILS_API int get_generation(const char *technology);

/**
 * Tell the family of a modem module from the start of its name, which is case-sensitive (the table is in lower case).
 * The first match in the order of the modem daemon's table counts, so "mc509..." is of the family of "mc..." (Quirk
 * Q89):
 *
 * | name begins with | code      |
 * |------------------|-----------|
 * | gtm              | 0x10001   |
 * | mc               | 0x20002   |
 * | em               | 0x40004   |
 * | me, mu           | 0x80004   |
 * | mpn, mpl         | 0x200008  |
 * | trm              | 0x400010  |
 * | sim              | 0x800020  |
 * | tobyl2           | 0x1000040 |
 * | laral6           | 0x4000040 |
 * | fn, le, lm, ln   | 0x2000080 |
 *
 * @param module  name of the module, or NULL
 * @return the modem daemon's code of the family; 0 for other names and NULL
 */
VXUTILS_API int card2family(const char *module);

/**
 * Ask the provider data base ("/usr/bin/pdb") for the provider of a network. Blocks until that tool has ended.
 *
 * The text becomes part of a command: it may hold letters, digits, blanks, dots, dashes, underscores and plus signs,
 * and no word of it may begin with a dash, which would make it an option of the tool. Any other text is not passed on
 * and counts as a network without a known provider.
 *
 * @param network  the network, as the tool's option "-n" takes it; may be the text that the last call returned
 * @return the provider's name, at most 63 characters in a static buffer, valid until the next call; empty when none is
 *         known or the tool cannot be run; NULL for NULL and the empty text
 */
VXUTILS_API const char *pdb_find_provider(const char *network);

VXUTILS_END_DECLS

#endif
