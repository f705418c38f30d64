/* SPDX-License-Identifier: MIT */
/**
 * @file
 * **Purpose.** Numbers to text and back in bases 2, 8, 10 and 16, checks of decimal texts, dumps in hexadecimal, and
 * IPv4 addresses as plain numbers. address.h checks addresses, which this family does not.
 *
 * **Example.**
 * @code
 * char text[34];
 * int error;
 * puts(u_i32toa(255, text, 16));  // prints FFh
 * validValueOf32(&error, "80x");
 * printf("%d\n", error);  // prints -1
 * @endcode
 *
 * **Radix texts.** In a radix text the digits are followed by a letter that names the base: `b` for 2, `o` for 8, `h`
 * for 16, and no letter for 10. So 5 is `101b`, 15 is `17o`, 255 is `FFh` and -42 is `-42`. Hexadecimal digits are
 * written in upper case.
 *
 * **Ownership.** All buffers belong to the caller.
 *
 * **Threads, signals, fork.** All functions may be called from any thread and in a forked child; they keep no state and
 * are async-signal-safe.
 *
 * **Blocking.** No call blocks.
 *
 * **Errors.** NULL, or an error word. Nothing is logged, errno is unchanged. A pointer argument must not be NULL
 * unless the function says what NULL means.
 *
 * **Limits.** 34 bytes hold any number. valueOf32() and its relatives read the first 33 characters of a text.
 *
 * **Privileges.** None.
 *
 * **Compatibility.** Behaviour kept on purpose (docs/compatibility.md): Q13 convBinToHex() writes the least significant
 * byte first; Q14 valueOf32() and its relatives check nothing; Q15 i16toa() does not refuse negative numbers; Q16
 * convIPStr2IPUl() does not check the parts.
 */
#ifndef VXUTILS_NUMCONV_H
#define VXUTILS_NUMCONV_H

#include <stdint.h>
#include <vxutils/api.h>

VXUTILS_BEGIN_DECLS

/** Two lower-case hexadecimal digits and a terminator for every byte: "00", "01", ... "ff". */
VXUTILS_API extern const char binToHexLut[256][3];

/**
 * Write a signed number as radix text.
 *
 * @param value number; a negative one is refused in bases 8 and 16, and its text in base 2 is unspecified
 * @param buf   receives the text; 34 bytes hold any
 * @param base  2, 8, 10 or 16
 * @return @p buf; NULL when @p buf is NULL or @p base or @p value is refused
 */
VXUTILS_API char *i32toa(int32_t value, char *buf, int base);

/**
 * Write an unsigned number as radix text.
 *
 * @param value number
 * @param buf   receives the text; 34 bytes hold any
 * @param base  2, 8, 10 or 16
 * @return @p buf; NULL when @p buf is NULL or @p base is another one
 */
VXUTILS_API char *u_i32toa(uint32_t value, char *buf, int base);

/**
 * Write a signed number of 16 bits, as i32toa(). Nothing but the base is refused: the text of a negative number in
 * bases 2, 8 and 16 is unspecified.
 * @param value  number
 * @param buf    receives the text; 34 bytes hold any
 * @param base   2, 8, 10 or 16
 * @return as i32toa()
 */
VXUTILS_API char *i16toa(int16_t value, char *buf, int base);

/**
 * Write an unsigned number of 16 bits, as u_i32toa().
 * @param value  number
 * @param buf    receives the text; 34 bytes hold any
 * @param base   2, 8, 10 or 16
 * @return as u_i32toa()
 */
VXUTILS_API char *u_i16toa(uint16_t value, char *buf, int base);

/**
 * Read a radix text, without any check.
 *
 * At most 33 characters are used. A leading minus sign makes the number negative. A last byte from @c a upward is a
 * marker and dropped: @c b reads the rest as base 2, @c o as base 8, @c h and @c x as base 16, any other one as base
 * 10, as without a marker. Every remaining character counts as a digit, and what is too large wraps around: use the
 * valid... functions for texts from outside.
 *
 * @param text text; NULL and the empty text read as 0
 * @return the number
 */
VXUTILS_API int32_t valueOf32(const char *text);

/**
 * Read an unsigned number, as valueOf32(): a minus sign has no meaning and is read as if it were a digit.
 * @param text  text; NULL reads as 0
 * @return the number
 */
VXUTILS_API uint32_t u_valueOf32(const char *text);

/**
 * Read a number as valueOf32() and narrow it to its low 16 bits.
 * @param text  text; NULL reads as 0
 * @return the number
 */
VXUTILS_API int16_t valueOf16(const char *text);

/**
 * Read a number as u_valueOf32() and narrow it to its low 16 bits.
 * @param text  text; NULL reads as 0
 * @return the number
 */
VXUTILS_API uint16_t u_valueOf16(const char *text);

/**
 * Read a number and check that the text is its canonical decimal form: no plus sign, blank, leading zero or marker,
 * and within the range of the type. "-0" is not canonical.
 *
 * @param err  set to 0 when the text is canonical, to -1 otherwise; may be NULL
 * @param text text; NULL is not canonical
 * @return what valueOf32() reads, whether the text is canonical or not
 */
VXUTILS_API int32_t validValueOf32(int *err, const char *text);

/**
 * Read a number as valueOf16() and check, as validValueOf32(), that the text is its canonical form.
 * @param err   set to 0 or -1; may be NULL
 * @param text  text; NULL is not canonical and reads as 0
 * @return the number, whether the text is canonical or not
 */
VXUTILS_API int16_t validValueOf16(int *err, const char *text);

/**
 * Read a number as u_valueOf32() and check, as validValueOf32(), that the text is its canonical form.
 * @param err   set to 0 or -1; may be NULL
 * @param text  text; NULL is not canonical and reads as 0
 * @return the number, whether the text is canonical or not
 */
VXUTILS_API uint32_t u_validValueOf32(int *err, const char *text);

/**
 * Read a number as u_valueOf16() and check, as validValueOf32(), that the text is its canonical form.
 * @param err   set to 0 or -1; may be NULL
 * @param text  text; NULL is not canonical and reads as 0
 * @return the number, whether the text is canonical or not
 */
VXUTILS_API uint16_t u_validValueOf16(int *err, const char *text);

/**
 * Check that a text is the canonical decimal form of a number within a range.
 *
 * @param err  set to 0 when it is, to -1 when it is not; with NULL the call has no effect
 * @param text text; NULL is not canonical
 * @param min  smallest number accepted
 * @param max  largest number accepted
 */
VXUTILS_API void validRangeValueOf32(int *err, const char *text, int32_t min, int32_t max);

/**
 * Check a text as validRangeValueOf32(), for numbers of 16 bits.
 * @param err   set to 0 or -1; with NULL the call has no effect
 * @param text  text; NULL is not canonical
 * @param min   smallest number accepted
 * @param max   largest number accepted
 */
VXUTILS_API void validRangeValueOf16(int *err, const char *text, int16_t min, int16_t max);

/**
 * Check a text as validRangeValueOf32(), for unsigned numbers.
 * @param err   set to 0 or -1; with NULL the call has no effect
 * @param text  text; NULL is not canonical
 * @param min   smallest number accepted
 * @param max   largest number accepted
 */
VXUTILS_API void u_validRangeValueOf32(int *err, const char *text, uint32_t min, uint32_t max);

/**
 * Check a text as validRangeValueOf32(), for unsigned numbers of 16 bits.
 * @param err   set to 0 or -1; with NULL the call has no effect
 * @param text  text; NULL is not canonical
 * @param min   smallest number accepted
 * @param max   largest number accepted
 */
VXUTILS_API void u_validRangeValueOf16(int *err, const char *text, uint16_t min, uint16_t max);

/**
 * Write the four bytes of a word, least significant first on every machine, as @c 0x and eight lower-case digits:
 * 0x12345678 becomes "0x78563412".
 *
 * @param value word
 * @param buf   receives 10 characters and a terminator: 11 bytes
 * @return the address of the terminator, @p buf + 10
 */
VXUTILS_API char *convBinToHex(uint32_t value, char *buf);

/**
 * Dump words as lines of hexadecimal: each word as convBinToHex() writes it and a space, a line feed after every
 * @p lineBytes bytes and another one at the end.
 *
 * @param words     words to dump; all bytes of the last one are read
 * @param out       receives the text; nbrOfChars_forDataChunk2String() bytes
 * @param byteCount number of bytes, rounded up to whole words; 0 gives the empty text
 * @param lineBytes bytes to a line: a multiple of 4; 0 and any other number give a single line
 */
VXUTILS_API void dataChunk2String(const uint32_t *words, char *out, unsigned int byteCount, unsigned int lineBytes);

/**
 * Tell the room in bytes, terminator included, that dataChunk2String() needs at most.
 *
 * @param byteCount number of bytes to dump
 * @param lineBytes bytes to a line: a multiple of 4, or 0 for a single line. The result may be too small for any other
 *                  number.
 * @return the number of bytes; UINT_MAX when it does not fit in an unsigned int
 */
VXUTILS_API unsigned int nbrOfChars_forDataChunk2String(unsigned int byteCount, unsigned int lineBytes);

/**
 * Find the smallest power of two that is not below a number.
 *
 * @param v number
 * @return 1 for 0; 0 when @p v is above 2^31
 */
VXUTILS_API uint32_t nextHigherPowerOf2(uint32_t v);

/**
 * Read a dotted IPv4 address into a number, most significant part first ("192.168.1.1" is 0xC0A80101). The parts are
 * not checked: one above 255 spills over into its neighbour, one beyond 32 bits counts as the largest number of 32
 * bits. Blanks and a sign may come before each part. What follows the fourth part is not looked at.
 *
 * @param text text, or NULL
 * @param out  receives the number; unchanged on failure
 * @return 0, or -1 when there are fewer than four parts or @p text is NULL
 */
VXUTILS_API int convIPStr2IPUl(const char *text, uint32_t *out);

/**
 * Write a number as a dotted IPv4 address.
 *
 * @param value number, most significant byte first in the text
 * @param out   receives the text: 16 bytes
 * @return 0
 */
VXUTILS_API int convIPUL2IPStr(uint32_t value, char *out);

VXUTILS_END_DECLS

#endif
