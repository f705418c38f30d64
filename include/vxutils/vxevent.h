/* SPDX-License-Identifier: MIT */
/**
 * @file
 * **Purpose.** Sends named events to the gateway's event manager, or over ZeroMQ to all programs that subscribe.
 *
 * **Example.**
 * @code
 * if (vxevent(17, 1, "wan1") != 0) puts("no event manager");  // into the event manager's FIFO
 * vxevent_record record = {17, 1, "wan1"};
 * if (dispatch_legacy_event(NULL, &record) != 0) puts("no source");  // from create_legacy_source(zmq_ctx_new())
 * @endcode
 *
 * **Receiving.** Subscribers read one message of sizeof(vxevent_record) bytes for each event from the socket that
 * register_legacy_sink() gives them, with ZeroMQ's own receiving functions.
 *
 * **Ownership.** Sockets belong to the caller, who closes them with `zmq_close()`, and so does the context. Records are
 * copied. `zmq_ctx_term()` can wait without a limit for records that a connected subscriber has not read, unless the
 * caller has set the source's option `ZMQ_LINGER`.
 *
 * **Threads, signals, fork.** Any thread, any number of processes and signal handlers may call vxevent(). A ZeroMQ
 * socket is used by one thread at a time. A child of fork() must not use its parent's ZeroMQ sockets.
 *
 * **Blocking.** vxevent() waits at most 1 s, and only while the FIFO is full. The ZeroMQ functions do not wait for
 * subscribers.
 *
 * **Errors.** A call that fails returns -1 or NULL. errno tells the reason, except for a NULL record or endpoint and
 * when ZeroMQ cannot be loaded. ZeroMQ is loaded by the first call of a function that uses it, unless the process has
 * loaded it already. If it cannot be loaded, these functions fail, and the first failure is logged. Nothing else is
 * logged.
 *
 * **Limits.** A text has at most 127 bytes. The FIFO holds some 480 records. A source keeps some 1000 records for each
 * subscriber that does not read (ZeroMQ's high-water mark) and drops further ones for it.
 *
 * **Privileges.** Read and write access to "/tmp/status/event-manager/throw". The endpoint is on the loopback
 * interface: every local user can connect to it.
 *
 * **Compatibility.** Behaviour kept on purpose (docs/compatibility.md): Q70 an event without a reader is lost with
 * success.
 */
#ifndef VXUTILS_VXEVENT_H
#define VXUTILS_VXEVENT_H

#include <devlog.h>
#include <stdint.h>
#include <vxutils/api.h>

VXUTILS_BEGIN_DECLS

/** One event as it is written and published: 136 bytes on every machine, numbers in the machine's byte order. */
typedef struct vxevent_record {
    uint32_t id;    /**< which event */
    uint32_t param; /**< its parameter */
    char text[128]; /**< NUL-terminated text, the rest zero */
} vxevent_record;

/**
 * The log level for daemons that log the contents of messages. It is made when the library is loaded, and never freed;
 * NULL when it could not be made. The library itself does not use it.
 */
extern VXUTILS_API devlog_level *DL_MQCONTENTS;

/**
 * Raise an event: write one record to the event manager's FIFO "/tmp/status/event-manager/throw". Records of different
 * callers never mix. Waits at most 1 s, and only while the FIFO is full, i.e. when some 480 records wait for an event
 * manager that does not read. When the FIFO exists and no process has it open, the record is lost, and the result is 0
 * (Quirk Q70).
 * @param id     which event
 * @param param  its parameter
 * @param text   its text, cut after 127 bytes; NULL counts as empty
 * @return 0 when the record was written; -1 with errno when not: ENOENT without a FIFO (none is made), EAGAIN when it
 *         stays full; in its place ELOOP for a link, EISDIR for a directory, ENXIO for a socket and EINVAL for a
 *         regular file. A signal handler that calls this saves errno.
 */
VXUTILS_API int vxevent(unsigned int id, unsigned int param, const char *text);

/**
 * Make the socket that publishes events.
 * @param zmq_context  a ZeroMQ context
 * @param endpoint     where to publish, e.g. "tcp://127.0.0.1:47012"; an endpoint has one source in all processes
 * @return a socket to be closed with @c zmq_close(); NULL when the endpoint is in use, NULL or not understood, and for
 *         a NULL context
 */
VXUTILS_API void *create_legacy_source_with_addr(void *zmq_context, const char *endpoint);

/**
 * Use the gateway's endpoint "tcp://127.0.0.1:47011".
 * @param zmq_context  a ZeroMQ context
 * @return as create_legacy_source_with_addr()
 */
VXUTILS_API void *create_legacy_source(void *zmq_context);

/**
 * Make a socket that receives all events of an endpoint, beginning when the connection has been made. The source may be
 * made later; ZeroMQ goes on trying to connect.
 * @param zmq_context  a ZeroMQ context
 * @param endpoint     where the source publishes
 * @return a socket to be closed with @c zmq_close(); NULL when the endpoint is NULL or not understood, and for a NULL
 *         context
 */
VXUTILS_API void *register_legacy_sink_with_addr(void *zmq_context, const char *endpoint);

/**
 * Use the gateway's endpoint "tcp://127.0.0.1:47011".
 * @param zmq_context  a ZeroMQ context
 * @return as register_legacy_sink_with_addr()
 */
VXUTILS_API void *register_legacy_sink(void *zmq_context);

/**
 * Publish one event to every subscriber connected.
 * @param socket  from create_legacy_source(); NULL gives -1
 * @param record  the event, of which all 136 bytes are copied; NULL gives -1. The caller terminates its text and zeroes
 *                the rest.
 * @return 0, also when there is no subscriber and the event is dropped; -1 when ZeroMQ did not take it
 */
VXUTILS_API int dispatch_legacy_event(void *socket, const vxevent_record *record);

VXUTILS_END_DECLS

#endif
