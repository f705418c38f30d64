/* SPDX-License-Identifier: MIT */
/**
 * @file
 * **Purpose.** The device log: a short persistent list of events in /var/log/qxlog, newest first, apart from the system
 * log.
 *
 * **Example.**
 * @code
 * char text[4096];
 * qxlog(3, "modem restarted");
 * if (qxlog_read(text, sizeof text) == 0) fputs(text, stdout);  // 3: 2026-11-15 08:40 modem restarted
 * @endcode
 *
 * **Ownership.** Buffers are the caller's.
 *
 * **Threads, signals, fork.** Any number of threads and processes may call. Not for signal handlers.
 *
 * **Blocking.** Calls of all processes wait for each other by a System V semaphore, whose value every call sets to free
 * first: what a process left that died in the middle never blocks the log. Two writers that meet in that moment
 * pass together; they then wait for each other at the temporary file, /var/log/qxlog.tmp. No call waits for these
 * longer than 1 s in all: after that it goes on without. A writer that holds the temporary file for 0.8 s makes qxlog()
 * fail.
 *
 * **Errors.** Results of -1, reported with perror() on standard error unless an argument was wrong. errno afterwards
 * does not tell the reason. Nothing goes to the system log.
 *
 * **Power failures.** An entry is in the file when qxlog() returns, but not necessarily on the disk: the library does
 * not flush it, and a power failure can lose the latest entries.
 *
 * **Limits.** The file keeps the new entry and 32 older lines. Lines have at most 1023 characters. qxlog_read() needs a
 * buffer of more than 256 bytes.
 *
 * **Privileges.** Write access to the directory /var/log for qxlog(), to the file for qxlog_clear(), read access to the
 * file for qxlog_read(). The file has mode 0664 and is only ever replaced as a whole, so that readers of the file need
 * no lock. Every user of the system may operate on the semaphore and lock the log. Links in the place of either file
 * are not followed, and what is not a regular file is not read or written.
 *
 * **Compatibility.** Behaviour kept on purpose (docs/compatibility.md): Q91 every call sets the semaphore free first;
 * Q92 a failure leaves semaphore and temporary file; Q93 qxlog_clear() succeeds without a file.
 */
#ifndef VXUTILS_QXLOG_H
#define VXUTILS_QXLOG_H

#include <stddef.h>
#include <vxutils/api.h>

VXUTILS_BEGIN_DECLS

/**
 * Add an entry as the first line, "NUMBER: YYYY-MM-DD HH:MM MESSAGE", in local time.
 *
 * An old log that exists but cannot be opened or read is left as it is: the call fails with the report "open".
 * A failure after the semaphore was taken leaves it taken, and the temporary file in place, for the next call to put
 * right.
 *
 * @param number  level or event code
 * @param message text of the entry; control bytes, newlines among them, are written as \xNN, and a backslash that would
 *                read as such an escape as \x5C; lines of more than 1023 characters are split when the next entry is
 *                added
 * @return 0; -1 on failure (reported), and for NULL and "", which touch nothing
 */
VXUTILS_API int qxlog(int number, const char *message);

/**
 * Empty the log, or make an empty one.
 *
 * Readers that hold the log for long are not waited for.
 *
 * @return 0, also when the file cannot be opened; -1 when the semaphore fails (reported)
 */
VXUTILS_API int qxlog_clear(void);

/**
 * Read the log.
 *
 * @param buf  receives the log, newest entry first, cut after @p size - 2 characters (if need be within a line; the
 *             result does not tell), the rest of its @p size bytes zero; empty without a log
 * @param size size of @p buf in bytes, more than 256
 * @return 0; -1 for a NULL or too small @p buf and when the semaphore fails (reported)
 */
VXUTILS_API int qxlog_read(char *buf, size_t size);

VXUTILS_END_DECLS

#endif
