/* SPDX-License-Identifier: MIT */
/**
 * @file
 * **Purpose.** Works on NUL-terminated byte strings: copies with a bound, changes case and cuts blanks in place, checks
 * numbers, dates and times, makes control characters visible, and formats a text for immediate use. In C++ use
 * vxstring.h for texts that grow.
 *
 * **Example.**
 * @code
 * char line[] = "  eth0 = up\r\n";
 * char shown[64];
 * puts(escape(stripwhite(line), sizeof line, shown, sizeof shown));  // prints eth0 = up
 * @endcode
 *
 * **Ownership.** Memory from zalloc() is released with free(). strformat() returns a static buffer, valid until its
 * next call. All other buffers belong to the caller.
 *
 * **Threads, signals, fork.** Any thread may call the functions, and a forked child, too; only one thread at a time may
 * use strformat() and its buffer. All except zalloc(), strformat(), the validators and the two functions that follow
 * the locale are async-signal-safe.
 *
 * **Blocking.** No call blocks.
 *
 * **Errors.** Failures are results only; nothing is logged, and only zalloc() changes errno. A pointer argument must
 * not be NULL unless the function says what NULL means.
 *
 * **Limits.** A character is a byte. Comparison without regard to case folds only the letters A to Z, whatever the
 * locale; strtolower() and strtoupper() follow the locale of the program.
 *
 * **Privileges.** None.
 *
 * **Compatibility.** Behaviour kept on purpose (docs/compatibility.md): Q5 escape() with a size of 0 or 1; Q6 the
 * validators accept negative hours, minutes and seconds; Q7 is_number() looks at characters only; Q8 e164Number()
 * refuses a leading plus.
 */
#ifndef VXUTILS_STRUTIL_H
#define VXUTILS_STRUTIL_H

#include <stddef.h>
#include <string.h>
#include <vxutils/api.h>

/* C libraries that bring a strlcpy of their own declare it as never throwing, and may define an inline form of it: the
 * declaration here says the same and no more. */
#if defined(__GLIBC__) && defined(__GLIBC_PREREQ)
#if __GLIBC_PREREQ(2, 38)
#define VXUTILS_STRLCPY_API
#define VXUTILS_STRLCPY_NOTHROW __THROW
#endif
#endif
#ifndef VXUTILS_STRLCPY_API
#define VXUTILS_STRLCPY_API VXUTILS_API
#define VXUTILS_STRLCPY_NOTHROW
#endif

VXUTILS_BEGIN_DECLS

/**
 * Allocate zero-filled memory.
 *
 * @param size size in bytes; 0 gives a block that must not be read or written
 * @return a block of @p size zero bytes, to be released with free(); NULL with ENOMEM when there is no memory
 */
VXUTILS_API void *zalloc(size_t size);

/**
 * Copy a text into a buffer: at most @p size - 1 characters and always a terminator.
 *
 * @param dst  receives the text, @p size bytes; must not overlap @p src
 * @param src  text to copy
 * @param size size of @p dst in bytes; 0 writes nothing
 * @return the length of @p src; the copy is complete exactly when that is below @p size
 */
VXUTILS_STRLCPY_API size_t strlcpy(char *__restrict dst, const char *__restrict src,
                                   size_t size) VXUTILS_STRLCPY_NOTHROW;

/**
 * Turn a text into lower case in place, by the program's locale.
 *
 * @param s text to change, or NULL
 * @return @p s
 */
VXUTILS_API char *strtolower(char *s);

/**
 * Turn a text into upper case in place, by the program's locale.
 *
 * @param s text to change, or NULL
 * @return @p s
 */
VXUTILS_API char *strtoupper(char *s);

/**
 * Tell whether a text is made of decimal digits and signs only.
 *
 * Signs may be anywhere and repeat, and the empty text counts as a number: this is a test of the characters used,
 * not of a number's form (numconv.h has that).
 *
 * @param s text, or NULL
 * @return 1 or 0; 0 for NULL
 */
VXUTILS_API int is_number(const char *s);

/**
 * Pass over leading characters of a set.
 *
 * @param s   text, or NULL
 * @param set characters to pass over; NULL or empty passes over none
 * @return the first character of @p s that is not in @p set (its terminator when all are); @p s when nothing is skipped
 */
VXUTILS_API char *skipchars(const char *s, const char *set);

/**
 * Cut the characters of a set off both ends, in place.
 *
 * @param s   text; a terminator is written over the first byte of a trailing run, if there is one
 * @param set characters to cut off
 * @return the first character kept, inside @p s; NULL when @p s or @p set is NULL
 */
VXUTILS_API char *stripchars(char *s, const char *set);

/**
 * Cut spaces, tabs, carriage returns and line feeds off both ends, in place.
 *
 * @param s text
 * @return the first character kept, inside @p s: to release allocated memory, free @p s and not this pointer. NULL when
 *         @p s is NULL.
 */
VXUTILS_API char *stripwhite(char *s);

/**
 * Format into a static buffer with the C library's vsnprintf(): for a log line or a path that is used at once.
 *
 * All callers of the process share one buffer, so only one thread at a time may use it. An argument may be the result
 * of an earlier call.
 *
 * @param fmt printf format; NULL empties the buffer
 * @return the buffer, valid until the next call; a text of more than 2046 characters is cut
 */
VXUTILS_API const char *strformat(const char *fmt, ...) VXUTILS_PRINTF(1, 2);

/**
 * Copy a text with its control characters made visible.
 *
 * TAB, LF and CR become @c \\t, @c \\n and @c \\r (two characters each), every other byte below 0x20 becomes a caret
 * and the byte + 0x40 (0x1B is @c ^[). All other bytes, 0x7F and those from 0x80 on included, stay as they are.
 *
 * @param src  text; at most @p n bytes are read, fewer when its terminator comes first
 * @param n    most bytes to take from @p src; 0 gives the empty text
 * @param dst  receives the text, always terminated; must not overlap @p src
 * @param size size of @p dst in bytes, 3 or more. The text ends before the first character that would begin at index
 *             @p size - 2 or later. A size of 2 gives the empty text; with 0 or 1 there is no limit (Quirk Q5).
 * @return @p dst
 */
VXUTILS_API char *escape(const char *src, size_t n, char *dst, size_t size);

/**
 * Reverse the bytes of a text in place.
 *
 * @param s text, or NULL
 */
VXUTILS_API void reverse(char *s);

/**
 * Check the characters of a telephone number as it is dialled: digits, @c *, @c #, @c ? and upper-case letters.
 *
 * @param s text; the empty one passes
 * @return 0 when all characters are allowed, -1 otherwise (also for a leading plus sign) or when @p s is NULL
 */
VXUTILS_API int e164Number(const char *s);

/**
 * Check a text of the form "2020-12-31T23:59:59".
 *
 * Years run from 1999 to 2035, months from 1 to 12, days from 1 to 31 in every month. Hour, minute and second have
 * upper bounds only (23, 59, 59): a negative one passes. The numbers are read as the C library's sscanf() reads a "%d":
 * blanks and a sign may come before each, leading zeros may be missing. A number beyond every range fails like any
 * other (as a negative time it passes). What follows the sixth number is ignored.
 *
 * @param s text
 * @return 0 when it passes, -1 when it does not or is NULL
 */
VXUTILS_API int validateTimeString(const char *s);

/**
 * Check a time "23:59:59" as validateTimeString() does: with upper bounds only, ignoring what follows the third number.
 *
 * @param s text
 * @return 0 when it passes, -1 when it does not or is NULL
 */
VXUTILS_API int validateTime(const char *s);

/**
 * Check a date "2020-12-31" with the ranges of validateTimeString(), ignoring what follows the third number.
 *
 * @param s text
 * @return 0 when it passes, -1 when it does not or is NULL
 */
VXUTILS_API int validateDate(const char *s);

/**
 * Compare two texts as unsigned bytes, with A to Z taken as a to z.
 *
 * @param a text
 * @param b text
 * @return -1 when @p a sorts first (also when it is the beginning of @p b), 0 when they are alike, 1 otherwise
 */
VXUTILS_API int stricmp(const char *a, const char *b);

/**
 * Compare at most @p n bytes of two texts as stricmp() does; no byte after the n-th is read.
 *
 * @param a text
 * @param b text
 * @param n most bytes to compare; 0 makes any two texts alike
 * @return -1, 0 or 1
 */
VXUTILS_API int strnicmp(const char *a, const char *b, size_t n);

VXUTILS_END_DECLS

#endif
