/* SPDX-License-Identifier: MIT */
/**
 * @file
 * **Purpose.** Writes and reads the device log: a short persistent list of events in /var/log/qxlog, newest first. Use
 * it for the few events that must survive a restart; messages for developers belong in the system log.
 *
 * **Example.**
 * @code
 * char text[4096];
 * qxlog(3, "modem restarted");
 * if (qxlog_read(text, sizeof text) == 0) fputs(text, stdout);  // 3: 2026-11-15 08:40 modem restarted
 * @endcode
 *
 * **Ownership.** Buffers belong to the caller.
 *
 * **Threads, signals, fork.** Any number of threads and processes may call the functions at once. A child that is
 * forked while another thread is inside a call keeps no lock of that call, and changes nothing in the log when it ends
 * with exit(). If its parent has threads, it should call the functions after exec() only: another thread may have held
 * a lock of the C library. Not for signal handlers.
 *
 * **Blocking.** The calls of all processes take turns by a System V semaphore. Every call first sets it to free (Quirk
 * Q91), so a process that died in the middle never blocks the log. If two writers get their turn together, they wait
 * for each other at the lock of the temporary file, /var/log/qxlog.tmp. A call waits at most 1 s in all and then goes
 * on without its turn; qxlog() fails if another writer holds the temporary file for 0.8 s.
 *
 * **Errors.** A call that fails returns -1 and reports the reason with perror() on standard error, except for a wrong
 * argument. errno does not tell the reason. Nothing goes to the system log.
 *
 * **Power failures.** An entry is in the file when qxlog() returns, but not necessarily on the disk: the library does
 * not flush it, and a power failure can lose the latest entries.
 *
 * **Limits.** The file keeps the new entry and 32 older lines. Older lines have at most 1023 characters, the newline
 * included: longer ones are split. qxlog_read() needs a buffer of more than 256 bytes.
 *
 * **Privileges.** The file /etc/fstab must exist, whatever it holds: it identifies the semaphore. qxlog() needs write
 * access to the directory /var/log, qxlog_clear() to the file, and qxlog_read() read access to the file. The file has
 * mode 0664 and is always replaced as a whole, so that other readers of the file need no lock. Every user of the system
 * may operate on the semaphore and lock the log; that can delay a call, but not prevent it. The two paths must name
 * regular files: links are not followed.
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
 * When the log exists but cannot be opened or read, it is left as it is and the call fails with the report "open". A
 * failure after the semaphore was taken leaves it taken and the temporary file in place; the next call corrects that
 * (Quirk Q92).
 *
 * @param number  level or event code
 * @param message text of the entry. Control bytes, newlines included, are written as \xNN, and a backslash that would
 *                look like such an escape as \x5C. A line of more than 1023 characters is split when the next entry is
 *                added.
 * @return 0; -1 on failure (reported), and for NULL and "", which touch nothing
 */
VXUTILS_API int qxlog(int number, const char *message);

/**
 * Empty the log, or make an empty one. Waits at most 1 s for processes that hold the log, and then empties it
 * nevertheless.
 *
 * @return 0, also when the file cannot be opened (Quirk Q93); -1 when the semaphore fails (reported)
 */
VXUTILS_API int qxlog_clear(void);

/**
 * Read the log.
 *
 * @param buf  receives the log, newest entry first, and zeros up to @p size bytes. A longer log is cut after @p size -
 *             2 characters, even within a line, and the result does not tell. Without a log the text is empty.
 * @param size size of @p buf in bytes, more than 256
 * @return 0; -1 for a NULL or too small @p buf and when the semaphore fails (reported)
 */
VXUTILS_API int qxlog_read(char *buf, size_t size);

VXUTILS_END_DECLS

#endif
