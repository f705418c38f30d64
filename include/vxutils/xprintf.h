/* SPDX-License-Identifier: MIT */
/**
 * @file
 * The library's own printf-style formatter. It can produce any slice of a formatted text: the first @c skip characters
 * are left out, so that a long text is fetched piece by piece through a small buffer.
 *
 * @code
 * char piece[64];
 * int fetched = 0, length;
 * while ((length = snxprintf(piece, fetched, sizeof piece, "%s: %08x\n", name, value)) > 0) {
 *     fwrite(piece, 1, (size_t)length, stdout);
 *     fetched += length;
 * }
 * @endcode
 *
 * A conversion is @c %[flags][width][.precision][h|l]conversion:
 *
 * | conversion      | argument                              | output                                             |
 * |-----------------|---------------------------------------|----------------------------------------------------|
 * | @c d @c i       | @c int (@c h: as short, @c l: long)   | decimal, with @c + or space flag a sign always      |
 * | @c u            | @c unsigned (@c h, @c l alike)        | decimal                                            |
 * | @c o @c x @c X  | as @c u                               | octal, hexadecimal; @c # adds 0, 0x, 0X unless 0    |
 * | @c p            | pointer                               | hexadecimal with 0x, all bits; NULL is 0x0          |
 * | @c c            | @c int                                | one byte as a text; the byte 0 is an empty text      |
 * | @c s            | @c const @c char @c *                 | text, cut to the precision; NULL is (null)          |
 * | @c n            | @c int @c * (@c h: @c short @c *)     | nothing; stores the number of characters so far     |
 *
 * The compiler checks the arguments as it does for printf; it does not know the differences. A `size_t` is passed as
 * `%lu` with a cast to `unsigned long`; a `long long` or a `double` is made a text first and passed as `%s`.
 *
 * Differences from the C library's printf:
 * - A zero value always prints its one digit, also with precision 0. The @c 0 flag pads texts with zeros, too.
 * - @c %n counts skipped characters and stands still once the buffer is full.
 * - Any other conversion character, floating point and a second @c l or @c h included, prints itself and takes no
 * argument (but those of its stars); what stood before it is dropped. A lone @c % at the end ends the output.
 * - A negative @c * precision means none. A width written in digits is not checked for overflow.
 *
 * A text argument with a precision need not be terminated within it: no byte behind the precision is read.
 *
 * All functions are reentrant, neither allocate nor block, and leave the locale and @c errno alone. The work grows with
 * what is stored: padding and texts outside the slice are passed over in one step.
 */
#ifndef VXUTILS_XPRINTF_H
#define VXUTILS_XPRINTF_H

#include <stdarg.h>
#include <stddef.h>
#include <vxutils/api.h>

VXUTILS_BEGIN_DECLS

/**
 * Formats into @p buf, leaving out the first @p skip characters of the text.
 *
 * @param buf  receives at most @p size - 1 characters and a terminator; no byte behind @p size is touched
 * @param skip number of leading characters to leave out
 * @param size size of @p buf in bytes
 * @param fmt  format; NULL counts as empty
 * @param ap   arguments; indeterminate afterwards
 * @return the number of characters stored, without the terminator. 0 with nothing written when @p buf is NULL, @p size
 * is 0 or @p skip is negative. vstrlenf() tells the length of the whole text.
 */
VXUTILS_API int vsnxprintf(char *buf, int skip, size_t size, const char *fmt, va_list ap) VXUTILS_PRINTF(4, 0);

/** vsnxprintf() with the arguments in place. */
VXUTILS_API int snxprintf(char *buf, int skip, size_t size, const char *fmt, ...) VXUTILS_PRINTF(4, 5);

/**
 * Length of the whole formatted text.
 *
 * @param fmt format; NULL counts as empty
 * @param ap  arguments; indeterminate afterwards
 * @return number of characters; counting ends at 4294967294, and what is above 2147483647 shows as a negative number
 */
VXUTILS_API int vstrlenf(const char *fmt, va_list ap) VXUTILS_PRINTF(1, 0);

/** vstrlenf() with the arguments in place. */
VXUTILS_API int strlenf(const char *fmt, ...) VXUTILS_PRINTF(1, 2);

VXUTILS_END_DECLS

#endif
