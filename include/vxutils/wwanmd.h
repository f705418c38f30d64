/* SPDX-License-Identifier: MIT */
/**
 * @file
 * **Purpose.** Client of the modem daemon. Each WWAN modem card has a daemon of its own, which takes one line of text
 * for each command and gives one answer. The client connects and introduces itself ("init" and the application's name),
 * keeps a pause between commands, throws stale answers away, waits for the answer, goes on waiting after "BUSY", and
 * reconnects when the daemon stalls.
 *
 * **Example.**
 * @code
 * static wwanmd_msg message;  // 8 KiB: too large for a small stack
 * wwanmd_handle *modem = wwanmd_init(0, "wansup");
 * message.len = snprintf(message.data, sizeof message.data, "signal");
 * if (modem != NULL && wwanmd_command(modem, &message) == 0) printf("signal%s\n", message.data);
 * wwanmd_free(modem);
 * @endcode
 *
 * **Answers.** An answer is what one recv() yields; it may hold any bytes. It begins with "OK" (result 0), "ERROR" or
 * "BUSY" (result -1). In all three cases the message holds the text after that word. An answer that the daemon sends in
 * pieces ends at its first piece; the rest is stale and is thrown away before the next command. That is done by one
 * recv() of at most 8191 bytes: what is left of a longer rest is taken for the answer to that command.
 *
 * A message without an answer may still hold the command: when wwanmd_send(), or the part of wwanmd_command() that
 * sends, fails; and when receiving does not begin, because the card is in reset or no connection could be made. The
 * newline that was appended stays, and the message can be sent again. To tell the command from an answer, call
 * wwanmd_send() and wwanmd_recv() in place of wwanmd_command(), and set `len` to -1 in between.
 *
 * **Late answers.** An answer does not tell which command it belongs to. After a command that timed out, the next
 * wwanmd_send() or wwanmd_command() therefore connects again before it sends, and what the daemon still sends on the
 * old connection is lost. No command gets the answer to an earlier one that timed out, however late and however often
 * it is sent. To go on waiting for it, call wwanmd_recv() again.
 *
 * What is not guaranteed, because the connection is kept: when the daemon sends two answers to a command in time, or
 * the final one after "BUSY" 21 times, and the surplus answer comes after the next command was sent, it is taken for
 * the answer to that command.
 *
 * **Whose answers count.** Only answers from the process that listens at "/var/run/wwanmdN/server" when the connection
 * is made count; no other process can send on it.
 *
 * **Ownership.** wwanmd_init() makes a handle, wwanmd_free() closes and frees it. Messages belong to the caller.
 *
 * **Threads, signals, fork.** A handle belongs to one thread at a time; nothing is locked. SIGPIPE is ignored while a
 * call sends or receives and has its default action afterwards, whatever handler was set before. It stays ignored when
 * wwanmd_recv(), or the receiving part of wwanmd_command() or a handshake, returns early because the card is in reset
 * or no connection could be made. Signals with handlers do not shorten or lengthen the waits. Not for signal handlers.
 * A child of fork() must not use its parent's handle. Descriptors are close-on-exec.
 *
 * **Blocking.** Most calls block. A program with an event loop calls them in another thread and passes the results to
 * the loop with messagequeue.h. T is the message's time-out (5 to 300 s); "opening" means one wwanmd_open(). The
 * longest times are:
 *
 * | call              | waits at most | in addition                                                            |
 * |-------------------|---------------|------------------------------------------------------------------------|
 * | wwanmd_in_reset() | 5 s           | waits only while the reset marker is there                             |
 * | wwanmd_open()     | 15.3 s        | 15 s in all while the reset marker comes and goes                      |
 * | wwanmd_init()     | one opening   |                                                                        |
 * | wwanmd_send()     | 0.3 s + T     | 5 s for the marker; an opening if closed or late, another if it fails  |
 * | wwanmd_recv()     | T             | 5 s for the marker; an opening if closed or if it fails                |
 * | wwanmd_command()  | 0.3 s + 2 T   | 10 s for the marker; an opening if closed or late, another if it fails |
 * | others            | 0 s           |                                                                        |
 *
 * An opening waits 5 s to be accepted, 0.3 s of pacing, 5 s to send the handshake and 5 s for its answer. A handle is
 * late after a command that timed out, also after "BUSY", or that was sent only in part. For receiving, T is one budget
 * for all waits, "BUSY" included.
 *
 * **Reconnecting.** The connection is made again
 *
 * - by the fourth failure in a row of sending or receiving, and by a broken pipe at once; a complete send sets
 *   `failures` back to 0;
 * - before the next command, when the handle is late;
 * - by the 17th command in a row that ends in "BUSY"; an "OK" sets `busy_count` back to 0;
 * - before a command on a closed handle.
 *
 * An "ERROR" answer does not reconnect by itself; it counts as a failure. Nothing reconnects from inside a handshake:
 * when the handshake gets no answer, "ERROR", or a closed connection, wwanmd_open() returns -1, and the next call tries
 * again. A call needs at most about 48 KiB of stack, the handshake included.
 *
 * **Errors.** A call that fails returns -1, -11 (the card is in reset) or NULL. The reason is logged at LOG_DEBUG; an
 * invalid card number is logged at LOG_ERR.
 *
 * **Limits.** Cards are 0 to 5 and 10 to 15. Every function refuses any other number: it logs "invalid wwan card %d"
 * and returns -1 (wwanmd_init() returns NULL). A command has at most 8190 bytes, an answer 8191.
 *
 * **Privileges.** Write access to the socket "/var/run/wwanmdN/server". Its directory must be writable by trusted users
 * only. A marker in "/tmp/status/wwanmd", which keeps a card from being used, is ignored when the caller cannot read
 * it, and when an untrusted user may have made it: that is when the marker, or a directory or link on its path, lies in
 * a directory that every user may write to, and its owner is neither root, nor the process's user, nor the owner of
 * that directory.
 *
 * **Compatibility.** Behaviour kept on purpose (docs/compatibility.md): Q41 SIGPIPE has its default action afterwards;
 * Q82 an answer in pieces is cut at its first piece; Q83 ERROR answers never reconnect; Q84 wwanmd_init() opens the
 * system log.
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
    int flags;               /**< bit 0: a handshake has succeeded once; never cleared. Bit 1: reconnect first */
    int failures;            /**< consecutive failed sends and receives */
    int busy_count;          /**< consecutive commands that ended in "BUSY" */
    struct timespec last_io; /**< CLOCK_MONOTONIC time of the last send attempt or (re)connection */
};
typedef struct wwanmd_handle wwanmd_handle; /**< the record's short name */

/** One command and, after the exchange, its answer. It belongs to the caller. */
struct wwanmd_msg {
    char data[8192]; /**< the command; then the answer after its first word, with a NUL after it */
    int len;         /**< bytes in data, 0 or below for none; then the answer's length, -1 when none was received */
    int timeout;     /**< seconds to wait for the daemon to take the command, and for its answer: 5 to 300, clamped */
    int reserved;    /**< 0 */
};
typedef struct wwanmd_msg wwanmd_msg; /**< the record's short name */

/**
 * Connect to a card's daemon and introduce the caller.
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
 * Close a connection and free its handle.
 * @param handle  from wwanmd_init(), or NULL
 */
VXUTILS_API void wwanmd_free(wwanmd_handle *handle);

/**
 * Send a command and wait for its answer; open the connection first when it is closed. Checks whether the card is in
 * reset before sending and again before receiving.
 *
 * @param handle   the connection; NULL gives -1
 * @param message  the command, replaced by the answer if one is received; NULL gives -1
 * @return 0 when the daemon answered "OK", else -1 (also while the card is in reset)
 */
VXUTILS_API int wwanmd_command(wwanmd_handle *handle, wwanmd_msg *message);

/**
 * Connect again and introduce the application. An existing connection is closed first.
 *
 * @param handle  the connection; NULL gives -1
 * @return 0; -1 when the daemon cannot be reached or refuses the handshake; -11 while the card is in reset. The
 *         connection is closed unless the result is 0.
 */
VXUTILS_API int wwanmd_open(wwanmd_handle *handle);

/**
 * Close the connection; the handle stays, and the next command connects again.
 * @param handle  the connection, open or closed, or NULL
 */
VXUTILS_API void wwanmd_close(wwanmd_handle *handle);

/**
 * Send a command. A newline is appended to the message if its text does not end in one; a length of 0 or below sends
 * the newline alone. Waits until 300 ms have passed since the connection was made or last sent something.
 *
 * @param handle   the connection; NULL gives -1
 * @param message  the command, at most 8190 bytes, of which `len` then counts the newline; NULL gives -1
 * @return 0 when all of it was sent; -1 on failure; -11 while the card is in reset (the connection is closed then). On
 *         a closed handle a card in reset gives -1: it cannot be connected to.
 */
VXUTILS_API int wwanmd_send(wwanmd_handle *handle, wwanmd_msg *message);

/**
 * Wait for the answer to the command sent last. After a "BUSY" it waits for the next answer, up to 21 answers in all.
 *
 * @param handle   the connection; NULL gives -1
 * @param message  receives the answer; its time-out counts. NULL gives -1
 * @return 0 for "OK"; -1 for any other answer and for none; -11 while the card is in reset (the connection is closed
 *         then). On a closed handle a card in reset gives -1, as for wwanmd_send().
 */
VXUTILS_API int wwanmd_recv(wwanmd_handle *handle, wwanmd_msg *message);

/**
 * Tell whether a card is being reset: whether its marker is there and stays for 5 s. When the marker goes away in that
 * time, waits one more second for the card.
 *
 * @param card  card number
 * @return 1 in reset, 0 not, -1 for an invalid number; errno is unchanged
 */
VXUTILS_API int wwanmd_in_reset(int card);

/**
 * Tell whether a card is suspended. Does not block.
 *
 * @param card  card number
 * @return 1 suspended, 0 not, -1 for an invalid number; errno is unchanged
 */
VXUTILS_API int wwanmd_is_suspended(int card);

VXUTILS_END_DECLS

#endif
