/* SPDX-License-Identifier: MIT */
/**
 * @file
 * **Purpose.** A printf-style formatter that can produce any slice of the text: it leaves out the first `skip`
 * characters, so that a long text can be fetched piece by piece through a small buffer. Its result does not depend on
 * the locale. Use the C library's functions for floating point.
 *
 * **Example.**
 * @code
 * char piece[8];
 * int fetched = 0, length;
 * while ((length = snxprintf(piece, fetched, sizeof piece, "%s: %08x", "register", 0x2au)) > 0) {
 *     fwrite(piece, 1, (size_t)length, stdout);
 *     fetched += length;
 * }
 * printf("\n");  // prints register: 0000002a
 * @endcode
 *
 * **Conversions.** A conversion is `%[flags][width][.precision][h|l]conversion`:
 *
 * | conversion | argument                        | output                                               |
 * |------------|---------------------------------|------------------------------------------------------|
 * | d i        | int (h: as short, l: long)      | decimal, with + or space flag a sign always          |
 * | u          | unsigned (h, l alike)           | decimal                                              |
 * | o x X      | as u                            | octal, hexadecimal; \# adds 0, 0x, 0X unless 0       |
 * | p          | pointer                         | hexadecimal with 0x, all bits; NULL is 0x0           |
 * | c          | int                             | one byte as a text; the byte 0 is an empty text      |
 * | s          | const char \*                   | text, cut to the precision; NULL is (null)           |
 * | n          | int \* (h: short \*)            | nothing; stores the number of characters so far      |
 *
 * The compiler checks the arguments as it does for printf. It does not know these differences:
 *
 * - A zero value always prints its one digit, also with precision 0. The 0 flag pads texts with zeros, too.
 * - n counts skipped characters and stops once the buffer is full.
 * - l is ignored before c, s, p and n, h before c, s and p: with ls the argument is a text of bytes, with ln an int.
 * - Any other conversion character, floating point and a second l or h included, prints itself and takes no argument
 *   (but those of its stars); what came before it is dropped. A lone percent sign at the end ends the output.
 * - A negative \* width justifies to the left but leaves the 0 flag in force: zeros then come before a number's digits.
 * - A negative \* precision counts as none. A width or precision written in digits wraps when it overflows.
 *
 * A text argument with a precision need not be terminated within it: no byte after the precision is read.
 *
 * **Ownership.** Buffers belong to the caller.
 *
 * **Threads, signals, fork.** All functions are reentrant and async-signal-safe, and leave the locale and `errno`
 * alone.
 *
 * **Blocking.** No call blocks. Padding outside the slice is passed over in one step, so the time depends on what is
 * stored, on the format and on the lengths of the texts. No text is read further than the slice and its own width
 * reach.
 *
 * **Errors.** No call fails: every format gives a text. With a NULL buffer, a size of 0 or a negative skip the result
 * is 0 and nothing is stored.
 *
 * **Limits.** Lengths are counted up to 4294967294 characters.
 *
 * **Privileges.** None.
 *
 * **Compatibility.** Behaviour kept on purpose (docs/compatibility.md): Q9 differences from the C library's printf.
 */
#ifndef VXUTILS_XPRINTF_H
#define VXUTILS_XPRINTF_H

#include <stdarg.h>
#include <stddef.h>
#include <vxutils/api.h>

VXUTILS_BEGIN_DECLS

/**
 * Format into @p buf, leaving out the first @p skip characters of the text.
 *
 * @param buf  receives at most @p size - 1 characters and a terminator; NULL stores nothing
 * @param skip number of leading characters to leave out; a negative number stores nothing
 * @param size size of @p buf in bytes
 * @param fmt  format; NULL counts as empty
 * @param ap   arguments; indeterminate afterwards
 * @return the number of characters stored, without the terminator. 0 with nothing written when @p buf is NULL, @p size
 *         is 0 or @p skip is negative. vstrlenf() tells the length of the whole text.
 */
VXUTILS_API int vsnxprintf(char *buf, int skip, size_t size, const char *fmt, va_list ap) VXUTILS_PRINTF(4, 0);

/**
 * Format as vsnxprintf(), with the arguments in place.
 * @param buf   receives the text
 * @param skip  number of leading characters to leave out
 * @param size  size of @p buf in bytes
 * @param fmt   format; NULL counts as empty
 * @return as vsnxprintf()
 */
VXUTILS_API int snxprintf(char *buf, int skip, size_t size, const char *fmt, ...) VXUTILS_PRINTF(4, 5);

/**
 * Measure the whole formatted text.
 *
 * @param fmt format; NULL counts as empty
 * @param ap  arguments; indeterminate afterwards
 * @return number of characters; counting ends at 4294967294, and what is above 2147483647 shows as a negative number
 */
VXUTILS_API int vstrlenf(const char *fmt, va_list ap) VXUTILS_PRINTF(1, 0);

/**
 * Measure as vstrlenf(), with the arguments in place.
 * @param fmt  format; NULL counts as empty
 * @return as vstrlenf()
 */
VXUTILS_API int strlenf(const char *fmt, ...) VXUTILS_PRINTF(1, 2);

VXUTILS_END_DECLS

#endif
