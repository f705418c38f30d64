/* SPDX-License-Identifier: MIT */
/**
 * @file
 * Client of the modem daemon.
 *
 * Each WWAN modem card is driven by a modem daemon of its own, which takes one line of text per command and gives one
 * answer. This family is the daemon's client: it connects and introduces itself ("init" and the application's name),
 * paces commands, throws stale answers away, waits for the answer, waits out "BUSY", and reconnects when the daemon
 * stalls.
 *
 * @code
 * wwanmd_handle *modem = wwanmd_init(0, "wansup");
 * static wwanmd_msg message;                       // 8 KiB: better not on a small stack
 * message.len = snprintf(message.data, sizeof message.data, "signal");
 * if (modem != NULL && wwanmd_command(modem, &message) == 0) printf("signal%s\n", message.data);
 * wwanmd_free(modem);
 * @endcode
 *
 * **Cards.** 0 to 5 and 10 to 15. Any other number is refused everywhere: logged ("invalid wwan card %d", LOG_ERR),
 * result -1 (NULL from wwanmd_init()).
 *
 * **Answers.** One answer is what one receive yields, at most 8191 bytes; it may hold any bytes. It begins with "OK"
 * (result 0), "ERROR" or "BUSY" (result -1); the text behind that word is handed back in the message in every one of
 * these cases. An answer that the daemon sends in pieces is cut at its first piece; the rest is stale and thrown away
 * before the next command.
 *
 * **Late answers.** An answer does not tell which command it belongs to. When the time-out of a command ends without
 * its final answer, the next wwanmd_send() or wwanmd_command() therefore connects again before it sends, whatever has
 * come until then: what the daemon still sends on the old connection is lost. No command gets the answer to an earlier
 * one that timed out, however late it comes, however often it is sent and in whatever order. wwanmd_recv() alone may be
 * called again to go on waiting. Not guaranteed, because the connection is kept: a daemon that sends more than one
 * answer to a command in time, or its final one after 21 times "BUSY", is believed when that answer comes after the
 * next command was sent.
 *
 * **Whose answers count.** Those of the process that listens at "/var/run/wwanmdN/server" when the connection is made;
 * no other process can send on it. The directory must be writable by trusted users only. The
 * markers in "/tmp/status/wwanmd", which keep a card from being used, do not count when a user who is neither root nor
 * the process's user may have put them there, or a directory above them.
 *
 * **Waiting.** All calls block their thread. With T the message's time-out (5 to 300 s), the longest times are
 * - wwanmd_in_reset(): 5 s, and only while the reset marker is there;
 * - wwanmd_open(), hence wwanmd_init(): 15.3 s (5 s to be accepted, 0.3 s of pacing, 5 s to send the handshake, 5 s for
 *   its answer), plus up to three times 5 s when the reset marker comes and goes meanwhile: 30.3 s in all;
 * - wwanmd_send(): 0.3 s + T, plus one wwanmd_open() when the connection is closed or the last command timed out, and
 *   one when sending fails for the fourth time,
 *   plus 5 s for the reset marker;
 * - wwanmd_recv(): T, with the same additions; T is one budget for all waits of the call, "BUSY" answers included;
 * - wwanmd_command(): wwanmd_send() and T together, plus 5 s for the reset marker, plus one wwanmd_open() when the
 *   failed receive reconnects.
 *
 * The handshake never reconnects from inside itself: whatever the daemon does to it - no answer, "ERROR", accepting and
 * closing at once - ends wwanmd_open() with -1, and the next call tries again. The deepest nesting is one handshake
 * inside one call, with about 48 KiB of stack.
 *
 * **Failures.** A send or receive that fails adds one to `failures`; the fourth reconnects, and a broken pipe counts as
 * the fourth at once. A complete send sets `failures` back to 0, an "OK" also `busy_count`; "ERROR" answers alone
 * therefore never reconnect. The 17th command in a row that ends in "BUSY" reconnects.
 *
 * **Signals.** SIGPIPE is ignored while a call sends or receives and has its default action afterwards, whatever
 * handler stood there before; wwanmd_recv() leaves it ignored when it returns early because the card is in reset or no
 * connection could be made. Signals with handlers do not shorten or lengthen the waits.
 *
 * **Threads.** A handle belongs to one thread at a time; nothing is locked. **fork.** A child must not use its parent's
 * handle. Descriptors are closed on exec.
 *
 * All messages are LOG_DEBUG but the one on invalid card numbers.
 */
#ifndef VXUTILS_WWANMD_H
#define VXUTILS_WWANMD_H

#include <sched.h> /* struct timespec, also where strict C99 keeps it out of time.h */
#include <vxutils/api.h>
#include <vxutils/time64.h>

VXUTILS_BEGIN_DECLS

/** One connection to one card's daemon. Made by wwanmd_init(), owned by the caller until wwanmd_free(). */
struct wwanmd_handle {
    int card;                /**< card number */
    char app[16];            /**< name of the calling application, at most 15 characters */
    int fd;                  /**< the stream socket; -1 while closed */
    int flags;               /**< bit 0: a handshake has succeeded once; never cleared. Bit 1: an answer is missing */
    int failures;            /**< consecutive failed sends and receives */
    int busy_count;          /**< consecutive commands that ended in "BUSY" */
    struct timespec last_io; /**< CLOCK_MONOTONIC time of the last send attempt or (re)connection */
};
typedef struct wwanmd_handle wwanmd_handle; /**< the record's short name */

/** One command and, after the exchange, its answer. The caller's. */
struct wwanmd_msg {
    char data[8192]; /**< the command; then the answer behind its first word, with a NUL behind it */
    int len;         /**< bytes in data, 0 or below for none; then the answer's length, -1 when there was none */
    int timeout;  /**< seconds to wait for the daemon to take the command, and for its answer: 5 to 300, cut to that */
    int reserved; /**< 0 */
};
typedef struct wwanmd_msg wwanmd_msg; /**< the record's short name */

/**
 * Connects to a card's daemon and introduces the caller.
 *
 * Opens the system log under the application's name (LOG_PID | LOG_NDELAY, LOG_USER): the library keeps a copy of the
 * name for that, so @p app may be temporary.
 *
 * @param card  card number
 * @param app   application name, 1 to 15 characters; NULL and others are refused
 * @return the handle, for wwanmd_free(); NULL when an argument is refused, memory is short or wwanmd_open() fails
 */
VXUTILS_API wwanmd_handle *wwanmd_init(int card, const char *app);

/**
 * Closes a connection and frees its handle.
 * @param handle  from wwanmd_init(), or NULL
 */
VXUTILS_API void wwanmd_free(wwanmd_handle *handle);

/**
 * Sends a command and waits for its answer; opens the connection first when it is closed. The card's reset is looked
 * for before sending and again before receiving.
 *
 * @param handle   the connection; NULL gives -1
 * @param message  the command, replaced by the answer; NULL gives -1
 * @return 0 when the daemon answered "OK", else -1 (also while the card is in reset)
 */
VXUTILS_API int wwanmd_command(wwanmd_handle *handle, wwanmd_msg *message);

/**
 * Connects anew and introduces the application. An existing connection is closed first.
 *
 * @param handle  the connection; NULL gives -1
 * @return 0; -1 when the daemon cannot be reached or refuses the handshake; -11 while the card is in reset. The
 *         connection is closed unless the result is 0.
 */
VXUTILS_API int wwanmd_open(wwanmd_handle *handle);

/**
 * Closes the connection; the handle stays, and the next command connects anew.
 * @param handle  the connection, open or closed, or NULL
 */
VXUTILS_API void wwanmd_close(wwanmd_handle *handle);

/**
 * Sends a command. A newline is appended where the text does not end in one; a length of 0 or below sends the newline
 * alone. Commands start at least 300 ms after the connection's last send or (re)connection.
 *
 * @param handle   the connection; NULL gives -1
 * @param message  the command, at most 8190 bytes; NULL gives -1
 * @return 0 when all of it was sent; -1 on failure; -11 while the card is in reset (the connection is closed then)
 */
VXUTILS_API int wwanmd_send(wwanmd_handle *handle, wwanmd_msg *message);

/**
 * Waits for the answer to the command sent last, through at most 21 answers of which all but the last are "BUSY".
 *
 * @param handle   the connection; NULL gives -1
 * @param message  receives the answer; its time-out counts. NULL gives -1
 * @return 0 for "OK"; -1 for any other answer and for none; -11 while the card is in reset (the connection is closed
 *         then)
 */
VXUTILS_API int wwanmd_recv(wwanmd_handle *handle, wwanmd_msg *message);

/**
 * Tells whether a card is being reset: whether its marker stays for 5 s. A marker that goes away meanwhile gives the
 * card one more second.
 *
 * @param card  card number
 * @return 1 in reset, 0 not, -1 for an invalid number; errno is left alone
 */
VXUTILS_API int wwanmd_in_reset(int card);

/**
 * Tells whether a card is suspended. Does not block.
 *
 * @param card  card number
 * @return 1 suspended, 0 not, -1 for an invalid number; errno is left alone
 */
VXUTILS_API int wwanmd_is_suspended(int card);

VXUTILS_END_DECLS

#endif
