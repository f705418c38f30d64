/* SPDX-License-Identifier: MIT */
/**
 * @file
 * **Purpose.** Reads "/etc/default/system-info", the shell-style list of variables that describes the device.
 *
 * **Example.**
 * @code
 * systeminfo_table *info = systeminfo_init();
 * printf("%s revision %d\n", systeminfo_getvar(info, "PRODUCT"), systeminfo_getint(info, "REVISION"));
 * systeminfo_free(info);
 * @endcode
 *
 * **Syntax.** A line "NAME=VALUE" is a variable. Blanks before the name are skipped; blanks between the name and the
 * "=" belong to the name. Lines without "=" and comments ("#" as the first character that is not a blank) are skipped.
 * A value in double quotes is what is between them; without a closing quote it ends before the line feed. Any other
 * value keeps its leading blanks and its line feed (Quirk Q38), so write texts in quotes: the line "NAME=" is a
 * variable whose value is a line feed. It is skipped only where the file ends after the "=". The file is read up to the
 * first line that begins with a NUL.
 *
 * **Ownership.** systeminfo_init() makes a table, systeminfo_free() frees it with its texts.
 *
 * **Threads, signals, fork.** Several threads may read a table; any thread may call systeminfo_init(). Not for signal
 * handlers. After fork() the child has a copy of its own.
 *
 * **Blocking.** systeminfo_init() takes as long as reading the file. The other functions do not block.
 *
 * **Errors.** systeminfo_init() returns NULL with the errno of the failed call; too many variables set none. A variable
 * that is not there gives an empty text or -1. Nothing is logged.
 *
 * **Limits.** At most 256 variables, duplicates included: a file with more gives no table. The first of several
 * variables of one name counts. Lines have at most 1022 bytes; what is longer counts as another line. Numbers out of
 * range give the nearest int.
 *
 * **Privileges.** Read access to the file.
 *
 * **Compatibility.** Behaviour kept on purpose (docs/compatibility.md): Q38 unquoted values keep their line feed;
 * Q95 the rest of a long line is a line of its own.
 */
#ifndef VXUTILS_SYSTEMINFO_H
#define VXUTILS_SYSTEMINFO_H

#include <vxutils/api.h>

VXUTILS_BEGIN_DECLS

/** One variable. */
typedef struct systeminfo_var {
    char *name;  /**< NUL-terminated; NULL in an unused record */
    char *value; /**< NUL-terminated; NULL in an unused record */
} systeminfo_var;

/** All variables, in the order of the file. */
typedef struct systeminfo_table {
    int count; /**< number of used records in @c vars */
    struct systeminfo_var vars[256];
} systeminfo_table;

/**
 * Read the file.
 * @return the table, to be released with systeminfo_free(); NULL when the file cannot be opened, holds more than 256
 *         variables, or memory is short.
 */
VXUTILS_API systeminfo_table *systeminfo_init(void);

/**
 * Tell the value of a variable.
 * @param table  from systeminfo_init(), or NULL
 * @param name   name of the variable; NULL finds nothing
 * @return the value, valid as long as the table; "" when there is none, also for NULL. Never NULL.
 */
VXUTILS_API const char *systeminfo_getvar(const systeminfo_table *table, const char *name);

/**
 * Tell the value of a variable as a number.
 * @param table  from systeminfo_init(), or NULL
 * @param name   name of the variable; NULL finds nothing
 * @return the value as atoi() reads it (0 for a text that is not a number, a line feed alone included), or the nearest
 *         int when it is out of range; -1 if the value is missing or empty (NAME=""), also for NULL
 */
VXUTILS_API int systeminfo_getint(const systeminfo_table *table, const char *name);

/**
 * Free the table. NULL is accepted.
 * @param table  from systeminfo_init(), or NULL
 */
VXUTILS_API void systeminfo_free(systeminfo_table *table);

VXUTILS_END_DECLS

#endif
