/* SPDX-License-Identifier: MIT */
/**
 * @file
 * **Purpose.** Appends text to a fixed buffer of the caller, keeps it terminated and tells when it did not fit.
 *
 * **Example.**
 * @code
 * char buffer[32];
 * mem_stream stream = {buffer, sizeof buffer};
 * int i;
 * mem_stream_puts(&stream, "interfaces:");
 * for (i = 0; i < 2; ++i) mem_stream_printf(&stream, " eth%d", i);
 * if (!mem_stream_free_space_left(&stream)) return 1;  // full, perhaps cut
 * puts(buffer);  // prints interfaces: eth0 eth1
 * @endcode
 *
 * **Ownership.** The buffer belongs to the caller; nothing needs to be released.
 *
 * **Threads, signals, fork.** A stream is used by one thread at a time. mem_stream_puts() is async-signal-safe on a
 * stream of the handler's own, mem_stream_printf() is as safe as the C library's vsnprintf().
 *
 * **Blocking.** No call blocks.
 *
 * **Errors.** A text that does not fit gives the result 1. The C library's assertion handler ends the process
 * (SIGABRT), in every build, after a NULL stream, buffer, format or text, a total size below what is left, or a format
 * that vsnprintf() refuses. The condition is printed on standard error.
 *
 * **Limits.** A text fits if the buffer has room for it and its terminator.
 *
 * **Privileges.** None.
 *
 * **Compatibility.** Behaviour kept on purpose (docs/compatibility.md): Q10 mistakes of the caller abort the process in
 * every build.
 */
#ifndef VXUTILS_MEMSTREAM_H
#define VXUTILS_MEMSTREAM_H

#include <stddef.h>
#include <vxutils/api.h>

VXUTILS_BEGIN_DECLS

/**
 * A stream. The caller sets both fields, to its buffer and the buffer's total size, and keeps that size for
 * mem_stream_get_num_chars_written(). The buffer is not terminated before the first text is appended.
 */
struct mem_stream {
    char *buf;       /**< next free byte; once something was written, the terminator */
    size_t buf_size; /**< bytes left from @c buf to the end of the buffer, terminator included */
};
typedef struct mem_stream mem_stream;

/**
 * Append formatted text, as the C library's vsnprintf() writes it.
 *
 * @param stream stream
 * @param format printf format; neither it nor a text among its arguments may be in the stream's buffer
 * @return 0 when all of it fitted; 1 when it was cut (the stream is full then), or @c buf_size is 0 (nothing is
 *         written)
 */
VXUTILS_API int mem_stream_printf(mem_stream *stream, const char *format, ...) VXUTILS_PRINTF(2, 3);

/**
 * Append a text.
 *
 * @param stream stream
 * @param str    text, not inside the free part of the buffer
 * @return 0 when all of it fitted; 1 when it was cut (the stream is full then), or @c buf_size is 0 (nothing is
 *         written)
 */
VXUTILS_API int mem_stream_puts(mem_stream *stream, const char *str);

/**
 * Tell whether another character fits.
 *
 * @param stream stream
 * @return 1 when at least one more character fits, 0 when the stream is full
 */
VXUTILS_API int mem_stream_free_space_left(const mem_stream *stream);

/**
 * Tell the number of characters written, without the terminator.
 *
 * @param stream        stream
 * @param orig_buf_size total size of the buffer in bytes, as the caller set it up
 * @return number of characters
 */
VXUTILS_API size_t mem_stream_get_num_chars_written(const mem_stream *stream, size_t orig_buf_size);

/**
 * Tell the number of bytes written, terminator included.
 *
 * @param stream        stream
 * @param orig_buf_size total size of the buffer in bytes, as the caller set it up
 * @param flag          0 makes the result 0
 * @return characters written + 1, also when nothing was written; 0 when @p flag is 0
 */
VXUTILS_API size_t mem_stream_get_num_bytes_written(const mem_stream *stream, size_t orig_buf_size, int flag);

VXUTILS_END_DECLS

#endif
