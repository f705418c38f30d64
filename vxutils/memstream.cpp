// SPDX-License-Identifier: MIT
#include <vxutils/memstream.h>

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "vxutils/internal/assertion.h"

// Reports the condition as it is written here; the source name is the one that firmware logs have always shown.
#define MEMSTREAM_ASSERT(condition) VX_ASSERT(condition, #condition, "vxutils/memstream")

// Quirk Q10.
int mem_stream_printf(mem_stream *stream, const char *format, ...) {
    MEMSTREAM_ASSERT(stream != NULL);
    MEMSTREAM_ASSERT(stream->buf != NULL);
    MEMSTREAM_ASSERT(format != NULL);
    if (stream->buf_size == 0) return 1;

    va_list args;
    va_start(args, format);
    const int num_chars = std::vsnprintf(stream->buf, stream->buf_size, format, args);
    va_end(args);
    MEMSTREAM_ASSERT(num_chars >= 0);

    const auto length = static_cast<size_t>(num_chars);
    const bool cut = length >= stream->buf_size;
    const size_t stored = cut ? stream->buf_size - 1 : length;
    stream->buf += stored;
    stream->buf_size -= stored;
    MEMSTREAM_ASSERT(stream->buf_size >= 1);
    return cut ? 1 : 0;
}

int mem_stream_puts(mem_stream *stream, const char *str) {
    MEMSTREAM_ASSERT(stream != NULL);
    MEMSTREAM_ASSERT(stream->buf != NULL);
    MEMSTREAM_ASSERT(str != NULL);
    if (stream->buf_size == 0) return 1;

    const size_t length = std::strlen(str);
    const bool cut = stream->buf_size <= length;
    const size_t stored = std::min(length, stream->buf_size - 1);
    std::memcpy(stream->buf, str, stored);
    stream->buf += stored;
    *stream->buf = '\0';
    stream->buf_size -= stored;
    MEMSTREAM_ASSERT(stream->buf_size >= 1);
    return cut ? 1 : 0;
}

int mem_stream_free_space_left(const mem_stream *stream) {
    MEMSTREAM_ASSERT(stream != NULL);
    return stream->buf_size > 1 ? 1 : 0;
}

size_t mem_stream_get_num_chars_written(const mem_stream *stream, size_t orig_buf_size) {
    MEMSTREAM_ASSERT(stream != NULL);
    MEMSTREAM_ASSERT(orig_buf_size >= stream->buf_size);
    return orig_buf_size - stream->buf_size;
}

size_t mem_stream_get_num_bytes_written(const mem_stream *stream, size_t orig_buf_size, int flag) {
    MEMSTREAM_ASSERT(stream != NULL);
    MEMSTREAM_ASSERT(orig_buf_size >= stream->buf_size);
    if (flag == 0) return 0;
    return orig_buf_size - stream->buf_size + 1;
}
