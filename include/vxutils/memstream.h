/* SPDX-License-Identifier: MIT */
/**
 * @file
 * Appends text to a fixed buffer of the caller, keeps it terminated and tells when it did not fit.
 *
 * @code
 * char buffer[128];
 * mem_stream stream = {buffer, sizeof buffer};
 * mem_stream_puts(&stream, "interfaces:");
 * for (int i = 0; i < count; ++i) mem_stream_printf(&stream, " %s", names[i]);
 * if (!mem_stream_free_space_left(&stream)) ...   // perhaps cut
 * send(fd, buffer, mem_stream_get_num_chars_written(&stream, sizeof buffer), 0);
 * @endcode
 *
 * A NULL stream, buffer, format or text and a total size that cannot be the stream's are programming errors: they end
 * the process through the C library's assertion handler, in every kind of build. A stream is used by one thread at a
 * time; nothing blocks, allocates or needs to be released.
 */
#ifndef VXUTILS_MEMSTREAM_H
#define VXUTILS_MEMSTREAM_H

#include <stddef.h>
#include <vxutils/api.h>

VXUTILS_BEGIN_DECLS

/** A stream: the caller sets both fields to its buffer and the buffer's total size, and keeps the latter. */
struct mem_stream {
    char *buf;       /**< next free byte; once something was written, the terminator */
    size_t buf_size; /**< bytes from @c buf to the end of the buffer, terminator included */
};
typedef struct mem_stream mem_stream;

/**
 * Appends formatted text, as the C library's vsnprintf() writes it.
 *
 * @param stream stream
 * @param format printf format
 * @return 0 when all of it fitted; 1 when it was cut (the stream is full then) or the stream has no byte left
 */
VXUTILS_API int mem_stream_printf(mem_stream *stream, const char *format, ...) VXUTILS_PRINTF(2, 3);

/**
 * Appends a text.
 *
 * @param stream stream
 * @param str    text, not inside the free part of the buffer
 * @return 0 when all of it fitted; 1 when it was cut (the stream is full then) or the stream has no byte left
 */
VXUTILS_API int mem_stream_puts(mem_stream *stream, const char *str);

/**
 * Tells whether another character fits.
 *
 * @param stream stream
 * @return 1 or 0
 */
VXUTILS_API int mem_stream_free_space_left(const mem_stream *stream);

/**
 * Number of characters written, without the terminator.
 *
 * @param stream        stream
 * @param orig_buf_size total size of the buffer in bytes, as the caller set it up
 */
VXUTILS_API size_t mem_stream_get_num_chars_written(const mem_stream *stream, size_t orig_buf_size);

/**
 * Number of bytes written, terminator included.
 *
 * @param stream        stream
 * @param orig_buf_size total size of the buffer in bytes, as the caller set it up
 * @param flag          0 makes the result 0
 * @return characters written + 1, or 0
 */
VXUTILS_API size_t mem_stream_get_num_bytes_written(const mem_stream *stream, size_t orig_buf_size, int flag);

VXUTILS_END_DECLS

#endif
