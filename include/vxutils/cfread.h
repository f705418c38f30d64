/* SPDX-License-Identifier: MIT */
/**
 * @file
 * **Purpose.** Reads configuration files of "key=value" lines that may include each other. configreader.h reads one
 * file without includes into a class; configd.h asks the configuration daemon.
 *
 * **Example.**
 * @code
 * cfread_table *config = cfread_open("/etc/gateway/main.conf");  // NULL without the file
 * const cfread_entry *mtu = config != NULL ? cfread_find_entry(config, "wan.mtu") : NULL;
 * if (mtu != NULL && mtu->ival > 0) printf("mtu %ld\n", mtu->ival);
 * cfread_close(config);
 * @endcode
 *
 * **Syntax.** A line is one of
 *
 * - "include NAME", beginning in the first column: the file is read in place. White space around the name is dropped. A
 *   name that begins with "/" may have 511 characters; any other is taken in the directory of the file that holds the
 *   line and may have 510. A longer name fails as a file that cannot be opened.
 * - a comment, beginning with "#" in the first column.
 * - an entry. Blanks before the first "=" vanish wherever they are (tabs do not), and what is left is the key. Blanks
 *   right after that "=" are skipped, and all that follows is the value, further "=" and blanks included. A line
 *   without key or without value adds nothing. The entry ends at a line feed or a carriage return, which the file's
 *   last entry needs too; what follows a carriage return up to the line feed is ignored. A later entry replaces an
 *   earlier one of the same key.
 *
 * **Ownership.** cfread_open() makes a table, cfread_close() frees it with all its entries. Entries belong to the
 * table; a pointer to one is valid until its key is set again or the table is closed. The file's name is the caller's
 * own text, not a copy.
 *
 * **Threads, signals, fork.** A table is used by one thread at a time; different tables are independent. Not for signal
 * handlers. A forked child has a copy of its own.
 *
 * **Blocking.** Reading takes as long as the file system does. A FIFO that the caller names is read until its writers
 * close it. An included FIFO is not waited for: it ends where there is nothing to read. An included device is not
 * opened, except /dev/null, because opening it makes its driver act: it fails as a file that cannot be opened.
 *
 * **Errors.** A file or line that fails ends the reading and is logged at LOG_ERR: a file with its name, a line with
 * its number as well. Line numbers count each file's lines from 1 and leave out include lines. A read error counts as
 * the end of the file. Of wrong arguments only a missing file name is logged.
 *
 * **Limits.** A line has at most 1023 bytes with its line end. Of a longer one the rest is read as a line of its own,
 * whether it is a comment, an include or an entry with a carriage return; any other entry of that length fails. Key and
 * value have at most 255 characters each. A file whose directory, the slash after it included, has more than 510
 * characters cannot include one whose name does not begin with "/". Files nest as deep as there are descriptors; a file
 * that includes itself fails when they run out. One read opens at most 16384 included files, and no more after it has
 * read 16 MiB from them: the next one then fails as a file that cannot be opened.
 *
 * **Privileges.** Read access to the files.
 *
 * **Compatibility.** Behaviour kept on purpose (docs/compatibility.md): Q33 the process exits when the slots are
 * exhausted; Q34 out of memory clears slot 0; Q35 the last entry needs its line end; Q36 bytes above 127 are dropped;
 * Q37 a callback ends one file with success.
 */
#ifndef VXUTILS_CFREAD_H
#define VXUTILS_CFREAD_H

#include <vxutils/api.h>

VXUTILS_BEGIN_DECLS

/**
 * Called for each entry of a file as it is read.
 * @param key   valid during the call; empty only when @p empty is not 0
 * @param value valid during the call; empty only when @p empty is not 0
 * @param arg   what the caller of cfread_parse_with_callback() gave
 * @param empty 0 for an entry; the caller's flag for a line without key or without value
 * @return 0 to go on; anything else ends the current file, with success: a file that includes it goes on
 */
typedef int (*cfread_callback)(const char *key, const char *value, void *arg, int empty);

/** One entry of a table. */
typedef struct cfread_entry {
    int index;   /**< the slot that holds it */
    char *key;   /**< never empty */
    char *value; /**< may be empty when set by cfread_set_entry() */
    long ival;   /**< the value as a number: decimal digits with at most one sign before them give their number, -1 from
                      2147483647 up and from -2147483648 down; a sign alone gives 0; "true" 1, "false" 0; all else -1 */
} cfread_entry;

/** A table; its fields are for reading. */
typedef struct cfread_table {
    int count;                     /**< entries in the table */
    int size;                      /**< slots */
    struct cfread_entry **entries; /**< the slots; NULL in a free one, of which there may be any between others */
    const char *file;              /**< name of the file being read: the caller's own text, not a copy */
    unsigned int reserved;         /**< 0 */
    cfread_callback callback;      /**< NULL in a table made by cfread_open() */
    void *cb_arg;                  /**< for the callback */
    unsigned char cb_empty;        /**< not 0: lines without key or value go to the callback too */
    struct cfread_index *index;    /**< private */
} cfread_table;

/**
 * Read a file and what it includes into a new table.
 * @param file name of the file; kept in the table and shown in messages of cfread_set_entry(), so it should live as
 *         long.
 * @return the table, to be released with cfread_close(); NULL on any failure (logged), with everything released.
 */
VXUTILS_API cfread_table *cfread_open(const char *file);

/**
 * Free the table with all its entries.
 * @param table  the table; NULL is ignored
 */
VXUTILS_API void cfread_close(cfread_table *table);

/**
 * Find the entry of a key, which is case-sensitive. Takes the same time in small and large tables.
 * @param table table to search
 * @param key   key to look for
 * @return its entry, valid until the key is set again or the table closed; NULL when there is none, for NULL and for
 *   "".
 */
VXUTILS_API cfread_entry *cfread_find_entry(const cfread_table *table, const char *key);

/**
 * Put an entry into the table, in place of the one with the same key if there is one. The new entry takes the lowest
 * free slot; when there is none, the table grows by 64 slots. Both texts are copied; they may be those of the entry
 * that is replaced.
 * @param table table to change
 * @param key   key of the entry, of any length
 * @param value its value, of any length; NULL counts as "".
 * @return the new entry; NULL for a NULL table, a NULL or empty key, or no memory (logged, LOG_ERR). Out of memory for
 *         the copies of key or value, slot 0 is cleared and the count lowered as well. The process ends with status 1
 *         when the number of slots is exhausted (logged, LOG_EMERG).
 */
VXUTILS_API cfread_entry *cfread_set_entry(cfread_table *table, const char *key, const char *value);

/**
 * Read a file and what it includes and hand each entry to a callback; nothing is stored.
 * @param file     name of the file
 * @param callback called for each entry, in order
 * @param arg      handed to the callback
 * @param cb_empty not 0 (in its low 8 bits): also call for lines without key or without value, with these 8 bits as the
 *                 callback's last argument
 * @return 0, also when the callback ended the reading; -1 for a NULL callback or on any failure. The callback has then
 *         been called for the entries before the failure.
 */
VXUTILS_API int cfread_parse_with_callback(const char *file, cfread_callback callback, void *arg, int cb_empty);

VXUTILS_END_DECLS

#endif
