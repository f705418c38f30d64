/* SPDX-License-Identifier: MIT */
/**
 * @file
 * **Purpose.** Formats and parses time stamps, computes elapsed time, formats sizes and bit rates, makes short unique
 * ids, and reads the text of one element of a simple XML document.
 *
 * **Example.**
 * @code
 * #include <time.h>
 * struct timespec start, end;
 * clock_gettime(CLOCK_MONOTONIC, &start);
 * clock_gettime(CLOCK_MONOTONIC, &end);
 * if (uselapsed(start, end) >= 0) puts(format_size(104857600));  // prints 100 MB
 * @endcode
 *
 * **Ownership.** timeformat(), format_size(), format_rate() and xml_readattr() each return a static buffer of their
 * own, valid until the next call of the same function.
 *
 * **Threads, signals, fork.** Only one thread at a time may use a function with a static buffer; timeformat() also uses
 * that of the C library's localtime(). Any number of threads may call the others at once. diffts() and uselapsed() are
 * async-signal-safe. A forked child may call all functions; if its parent had several threads, it must not call
 * timeformat(), timeparse() and mkid() before exec, because another thread may have held a lock of the C library at the
 * time of the fork.
 *
 * **Blocking.** No call blocks, except that the C library reads the time zone's file at first use.
 *
 * **Errors.** Failures are results only; nothing is logged.
 *
 * **Limits.** timeformat() and timeparse() work in the local time zone; a change of TZ shows at the next call.
 *
 * **Privileges.** None.
 *
 * **Compatibility.** Behaviour kept on purpose (docs/compatibility.md): Q54 timeparse() applies the zone twice.
 */
#ifndef VXUTILS_TIMEFMT_H
#define VXUTILS_TIMEFMT_H

#include <stdint.h>
#include <vxutils/api.h>
#include <vxutils/time64.h>

VXUTILS_BEGIN_DECLS

/**
 * Tell the system's uptime.
 * @return whole seconds since the system was started.
 */
VXUTILS_API long jiffy(void);

/**
 * Write a time stamp in local time, as in "2024-02-29 23:59:59".
 * @param t seconds since 1970 (UTC); NULL means now.
 * @return static text, valid until the next call; "1970-01-01 00:00:00" for a time that localtime() refuses, because
 *         its year less 1900 does not fit into an int.
 */
VXUTILS_API const char *timeformat(const time_t *t);

/**
 * Read a time stamp with a two-digit year ("24-02-29 23:59:59": 69 to 99 mean 1969 to 1999, 00 to 68 mean 2000 to 2068)
 * or, failing that, a four-digit one. Leading zeros may be missing, and blanks may come before each number. A day that
 * its month does not have is carried into the next month. What follows the seconds is ignored. Daylight saving time is
 * taken to be off.
 *
 * The text is read as local time, and the universal time of that is read as local time once more. In the zone UTC the
 * result is the time itself; elsewhere it is shifted by the zone's offset a second time (Quirk Q54).
 * @param text time stamp; NULL or empty is not a time stamp.
 * @return seconds since 1970, negative before that; 0 when the text is not a time stamp, and for a time stamp whose
 *         result that is ("1970-01-01 00:00:00" in the zone UTC).
 */
VXUTILS_API time_t timeparse(const char *text);

/**
 * Compute the difference of two times with tv_nsec between 0 and 999999999.
 * @param start  earlier time
 * @param end    later time
 * @return @p end minus @p start; tv_nsec of the result is never negative: a difference of minus half a
 *         second is -1 s and 500000000 ns.
 */
VXUTILS_API struct timespec diffts(struct timespec start, struct timespec end);

/**
 * Compute the microseconds from @p start to @p end. The difference of the nanoseconds is cut toward zero to
 * microseconds before it is added to that of the seconds. So the result may be one more than the whole microseconds
 * that have passed: 1000000 from 0 s and 1 ns to 1 s.
 * @param start  earlier time
 * @param end    later time
 * @return the difference, negative when @p end is the earlier one by a microsecond or more.
 */
VXUTILS_API int64_t uselapsed(struct timespec start, struct timespec end);

/**
 * Make a short id: the time in its high half, random() in its low half. Neither half is ever 0xFFFF. The
 * program seeds random(); without a seed the low halves are the same after every start. Two calls within a second can
 * return the same id.
 * @return the id.
 */
VXUTILS_API uint32_t mkid(void);

/**
 * Write a size with its unit, "B", "KB", "MB", "GB" or "TB", each 1024 of the one before: at most four digits before a
 * unit below "TB". Each step to the next unit rounds to the nearest whole number.
 * @param bytes number of bytes; a negative number is printed in bytes
 * @return static text, valid until the next call, as "9999 B" or "100 MB".
 */
VXUTILS_API const char *format_size(int64_t bytes);

/**
 * Write a transfer rate in "Kbit/s", "Mbit/s", "Gbit/s" or "Tbit/s" (each 1024 of the one before) with one decimal.
 * @param bytes_per_second a rate in bytes per second. A negative one is printed in "Kbit/s", with a sign before each of
 *        the two numbers that is not zero ("-7.-7 Kbit/s").
 * @return static text, valid until the next call, as "7.8 Kbit/s".
 */
VXUTILS_API const char *format_rate(int64_t bytes_per_second);

/**
 * Find the raw text between the first "<tag>" of a document and the first "</tag>" after it. An element with attributes
 * is not found, nested elements and entities are not interpreted, and white space is kept.
 * @param document NUL-terminated text. It must not be this function's own previous result, which is cleared first.
 * @param tag name of the element, without brackets. It may be this function's own previous result.
 * @return static text, valid until the next call, which the caller may change until then. It and the closing tag have
 *         at most 1023 characters together. NULL when a pointer is NULL, a text is empty, a tag is missing, or the
 *         closing one does not end within the 1023 characters that follow the opening one.
 */
VXUTILS_API char *xml_readattr(const char *document, const char *tag);

VXUTILS_END_DECLS

#endif
