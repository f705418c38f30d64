/* SPDX-License-Identifier: MIT */
/**
 * @file
 * **Purpose.** Client of the configuration daemon `configd`: reads and writes configuration values over Unix-domain
 * datagrams, one request and one answer at a time. configdaemonclient.h has single values as a class.
 *
 * **Example.**
 * Many values, fetched together when the first of them is asked for and then served from the handle:
 * @code
 * configd_handle *config = configd_open();  // NULL without the directory of the daemon
 * int i;
 * for (i = 0; i < 4; i++) configd_add_query(config, "port.%d.speed", i);
 * if (configd_get(config, NULL) == 0)  // no answer: configd_fetch() would give empty texts
 *     for (i = 0; i < 4; i++) printf("%s\n", configd_fetch(config, "port.%d.speed", i));
 * configd_clear(config);  // before reading again
 * configd_close(config);
 * @endcode
 *
 * A fixed set of values, in an array that ends with a record whose key is empty:
 * @code
 * #include <vxutils/strutil.h>
 * configd_handle *config = configd_open();
 * configd_entry change[2];
 * memset(change, 0, sizeof change);
 * strlcpy(change[0].key, "hostname", sizeof change[0].key);
 * strlcpy(change[0].value, "gw-7", sizeof change[0].value);
 * if (configd_set(config, change) == 0)
 *     while (configd_done(config) == 1) sleep(1);  // the daemon is busy: the change is pending
 * configd_close(config);
 * @endcode
 *
 * **Connection.** A handle is either connected (`fd` is a descriptor, both paths are set, the client's socket file
 * exists) or closed (`fd` is -1, both paths empty). A failed exchange ends with a fresh connection and the same paths.
 * A closed handle can be used: configd_get(), configd_fetch(), configd_set() and configd_done() fail and try to connect
 * again. configd_send(), configd_recv() and configd_prepare_get() fail and leave it closed.
 *
 * **Late answers.** When configd_get(), configd_fetch(), configd_set(), configd_done() or configd_prepare_get() has
 * given up a request, an answer that still comes is lost. No later call of the process takes it for the answer to
 * another request: not through this handle, not through one that is opened later, however late and however often the
 * daemon answers. The same holds for a second answer to a request that was answered after more than 1 s.
 *
 * How it works: the daemon answers to the path that the asking socket is bound to, usually `client_path`. After a
 * request without a prompt and proper answer, every new socket of the handle is bound to a path that no socket had
 * before: "client.PID.0xNUMBER" in the same directory. The number is odd, unlike the address of a handle. `client_path`
 * is then the path of a closed socket, so that late answers are refused. configd_open() does not return the address of
 * such a handle again; after 128 of them, all new sockets of the process have such paths.
 *
 * What is not guaranteed:
 * - A second answer to a request that was answered within 1 s is taken for the answer to the next request if it arrives
 *   while that one waits. Once the process has found a superfluous answer in a socket, every further request has a path
 *   of its own, which excludes this and costs about one more exchange for each request.
 * - A late answer reaches another process if that process has got the process id of the one that asked, its handle has
 *   the same address, and it was opened before the answer came.
 * - configd_send() and configd_recv() do not match answers with requests: their caller does.
 *
 * **Whose answers count.** Only answers from the socket that the request was sent to count: the one that is bound to
 * "/var/run/configd/daemon.sock" at that time. While the client waits, the kernel refuses datagrams from any other
 * socket (their sender gets EPERM); what arrived before the request is thrown away. A daemon must therefore answer
 * through the socket that it receives with. The next request finds a restarted daemon. A request whose daemon ends
 * without answering fails after 10 s.
 *
 * **Ownership.** configd_open() makes a handle, configd_close() frees it and its query list. Values that
 * configd_fetch() returns belong to the handle and are valid until configd_clear() or configd_close(). A configd_handle
 * that the caller has allocated must not be passed to configd_close(), which would free it: call configd_clear() and
 * __configd_close() instead.
 *
 * **Threads, signals, fork.** A handle is used by one thread at a time. Any number of handles may exist, in one process
 * and in many. Waiting for an answer changes the disposition of SIGPIPE for the whole process: ignored while waiting,
 * the default action afterwards. Signals do not end the waits. Not for signal handlers. After fork() only one of the
 * two processes may use a handle and close it: the process that closes it removes the socket's file.
 *
 * **Blocking.** Every call that talks to the daemon waits up to 10 s until the daemon takes the request and up to 10 s
 * until it answers. configd_get() and the first configd_fetch() do so once for each key. A program with an event loop
 * calls them in another thread and passes the results to the loop with messagequeue.h.
 *
 * **Errors.** A call that fails returns -1 to -4, NULL or an empty text. A failed exchange or connection is logged
 * (LOG_ERR), wrong arguments are not; configd_fetch() adds "configd_get failed". Without the daemon configd_get(),
 * configd_set() and configd_done() fail at once ("unable to send query to configd") and configd_fetch() returns empty
 * texts; the same handle works as soon as the daemon runs. configd_fetch() also returns an empty text for
 * an empty value. To tell the two apart, call configd_get() with NULL first: it returns 0 only when the daemon has
 * answered for every key. When configd_set() or configd_done() has failed with -3 or -4, the daemon may have done what
 * it was told all the same.
 *
 * **Limits.** Keys have at most 255 characters, values 1023, a query list 512 keys, a request 16381 characters. Keys
 * and values are texts without line feeds; keys hold no "=". The client does not check this.
 *
 * **Privileges.** The directory /var/run/configd must exist and the caller must be able to create files in it; the
 * client's socket file is accessible to everyone. A process that can replace files in the directory can act as the
 * daemon: it must belong to root and be writable only by users that are trusted with the configuration.
 *
 * **Compatibility.** Behaviour kept on purpose (docs/compatibility.md): Q40 a descriptor numbered 1 is not closed; Q41
 * SIGPIPE has its default action afterwards; Q42 the last two bytes of an answer are cut off; Q43 a key added after the
 * fetch stays empty.
 */
#ifndef VXUTILS_CONFIGD_H
#define VXUTILS_CONFIGD_H

#include <vxutils/api.h>
#include <vxutils/list.h>

VXUTILS_BEGIN_DECLS

/** Bytes of a record's key, its NUL included. */
#define CONFIGD_KEY_LEN 256
/** Bytes of a record's value, its NUL included. */
#define CONFIGD_VALUE_LEN 1024
/** Most keys in one handle's query list. */
#define CONFIGD_MAX_QUERIES 512
/** Bytes of the buffers that requests are built in and answers received in. */
#define CONFIGD_MSG_LEN 16384

/** One key and its value: element of the callers' arrays and of a handle's query list. */
typedef struct configd_entry {
    struct list_link list;         /**< Link of the query list; unused in a caller's array. */
    char key[CONFIGD_KEY_LEN];     /**< NUL-terminated; empty in the record that ends a caller's array. */
    char value[CONFIGD_VALUE_LEN]; /**< NUL-terminated. */
} configd_entry;

/**
 * One connection. Fields are for reading; the records of `queries` are the library's, their values may be changed.
 * A caller that brings its own record zeroes it and sets `fd` to -1 before the first call: 0 would be closed as a
 * descriptor.
 */
typedef struct configd_handle {
    int fd;                   /**< The socket, -1 when closed. */
    char client_path[256];    /**< Path of the client's socket file; empty when none. See "Late answers". */
    char server_path[256];    /**< Path of the daemon's socket; empty when closed. */
    int count;                /**< Entries in `queries`. */
    struct list_link queries; /**< Entries of the query list, in the order they were added. */
    int fetched;              /**< 1 when the values of `queries` have been fetched, else 0. */
} configd_handle;

/**
 * Make a handle and connect it. The daemon need not run yet; the directory /var/run/configd must exist.
 * @return the handle, to be released with configd_close(); NULL when memory, socket or bind failed (logged).
 */
VXUTILS_API configd_handle *configd_open(void);

/**
 * Disconnect, empty the query list and free the handle. NULL is accepted.
 * @param handle  from configd_open(), or NULL
 */
VXUTILS_API void configd_close(configd_handle *handle);

/**
 * Add a key to the query list; a key that is already there is left as it is. Its value is empty until the list is
 * fetched; a key added after the fetch stays empty until it is added again after configd_clear() (Quirk Q43). Does not
 * contact the daemon.
 * @param handle  the connection
 * @param format  printf format of the key, which is cut to 254 characters
 * @return 0 when the key is in the list; -1 for NULL arguments, a key that cannot be printed, a full list or when
 *         memory is short
 */
VXUTILS_API int configd_add_query(configd_handle *handle, const char *format, ...) VXUTILS_PRINTF(2, 3);

/**
 * Return the value of a key of the query list. The first call fetches the whole list from the daemon, in the order the
 * keys were added; if that fails, the next call tries again. Later calls do not contact the daemon.
 * @param handle  the connection
 * @param format  printf format of the key, which is cut to 254 characters
 * @return the value, valid until configd_clear() or configd_close(); an empty text for NULL arguments, a failed fetch
 *         or a key that was never added (logged at LOG_DEBUG). Never NULL.
 */
VXUTILS_API const char *configd_fetch(configd_handle *handle, const char *format, ...) VXUTILS_PRINTF(2, 3);

/**
 * Read values from the daemon, one exchange per key, in order.
 * @param handle   the connection
 * @param entries  array that ends with a record whose key is empty; its values are filled in. NULL reads the query list
 *        and leaves `fetched` alone.
 * @return 0, also when there is nothing to read; -1 for a NULL handle or at the first failure, after which the handle
 *         has reconnected. Values read before the failure stay.
 */
VXUTILS_API int configd_get(configd_handle *handle, configd_entry *entries);

/**
 * Write values in one request, which the daemon confirms by echoing it. All together, key, "=", value and line feed of
 * every record must not exceed 16381 characters.
 * @param handle   the connection
 * @param entries  array that ends with a record whose key is empty; at least one key
 * @return 0 when the daemon echoed the request; -1 for NULL arguments, nothing to write or more than fits, all without
 *         contacting the daemon; -2 when the request could not be sent, -3 when no answer came in time or its length
 *         differs, -4 when the answer differs. After -2, -3 and -4 the handle has reconnected.
 */
VXUTILS_API int configd_set(configd_handle *handle, const configd_entry *entries);

/**
 * End a change: ask the daemon to put into effect what was written. Does not retry.
 * @param handle  the connection
 * @return 0 when the daemon is "Ready", 1 when it is "Busy" (ask again later); -1 for a NULL handle, -2 when the
 *         request could not be sent, -3 for an empty answer, -4 for any other answer or none in time. After -2, -3 and
 *         -4 the handle has reconnected.
 */
VXUTILS_API int configd_done(configd_handle *handle);

/**
 * Empty the query list, so that keys can be added and fetched again. NULL is accepted.
 * @param handle  the connection, or NULL
 */
VXUTILS_API void configd_clear(configd_handle *handle);

/**
 * @name Building blocks
 * What the functions above are made of; for programs that speak the protocol themselves.
 * @{
 */

/**
 * Send one datagram to the daemon. Waits up to 10 s while the daemon's queue is full. From then on only the daemon's
 * socket can send to the handle's; answers that an earlier daemon left unread in the socket are lost.
 * @param handle  the connection
 * @param data    bytes to send
 * @param length  number of bytes, 1 or more
 * @return bytes sent; -1 for a NULL argument, a closed handle, a length below 1, or when sending failed (errno).
 */
VXUTILS_API int configd_send(configd_handle *handle, const char *data, int length);

/**
 * Receive one datagram, waiting up to 10 s for it. When one came, the whole buffer was zeroed first and the text is
 * NUL-terminated; when none came, the buffer is left as it is.
 * @param handle  the connection
 * @param data    buffer for the answer
 * @param size    bytes of the buffer; at most size - 1 are received, and the rest of a longer datagram is lost
 * @return bytes received, 0 for an empty datagram; -1 for a NULL argument, a closed handle, a size below 1, or when
 *         none came or receiving failed. When none came, the caller may wait again. But a socket that another function
 *         has given up, because an answer to its request may still come, receives nothing: -1 at once; the next request
 *         connects again.
 */
VXUTILS_API int configd_recv(configd_handle *handle, char *data, int size);

/**
 * Read the value of one record's key. On failure the record is unchanged and the handle is not reconnected. When the
 * failure was that no proper answer came, the socket receives nothing any more, and the next request connects again.
 * @param handle  the connection
 * @param entry   record with a key, which may be empty; receives the value
 * @return 0, or -1 for NULL arguments or a failed exchange (logged).
 */
VXUTILS_API int configd_prepare_get(configd_handle *handle, configd_entry *entry);

/**
 * Connect: make the socket file "/var/run/configd/client.PID.ADDRESS_OF_HANDLE", accessible to everyone. A connected
 * handle is disconnected first, and a file that an earlier process with the same id has left is replaced, if it is
 * readable.
 * @param handle  the connection, or a caller's own record (see configd_handle)
 * @return 0, or -1 for NULL or when socket or bind failed (logged); the handle is closed then.
 */
VXUTILS_API int __configd_open(configd_handle *handle);

/**
 * Disconnect: close the socket, except that a descriptor numbered 1 is left open, remove its file, if it is readable,
 * and empty both paths. NULL is accepted.
 * @param handle  the connection, or NULL
 */
VXUTILS_API void __configd_close(configd_handle *handle);

/** @} */

VXUTILS_END_DECLS

#endif
