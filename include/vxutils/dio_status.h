/* SPDX-License-Identifier: MIT */
/**
 * @file
 * **Purpose.** Reads or sets all digital inputs and outputs of the board by one record of bits, whose fixed layout
 * daemons can share. The family is built on dio.h and returns its result codes.
 *
 * **Example.**
 * @code
 * #include <vxutils/dio.h>
 * dio_status board;
 * if (dio_getStatus(&board) == DIO_OK && board.in.count > 0 && board.out.count > 1) {
 *     dio_setOutValueInStatus(&board.out, 2, (unsigned int)dio_getInValueFromStatus(&board.in, 1));
 *     dio_setStatusOut(&board.out);
 * }
 * @endcode
 *
 * **Ownership.** Records belong to the caller.
 *
 * **Threads, signals, fork.** A record is used by one thread at a time. Functions that count lines share dio.h's rule
 * on threads. Not for signal handlers.
 *
 * **Blocking.** Calls take as long as the driver does for all lines.
 *
 * **Errors.** Functions return the result codes of dio.h. A NULL record, or a line that the record does not have, is a
 * mistake of the calling program: an assertion that names the source vxutils/dio_status aborts the process, in every
 * build. So does a board on which dio_roCount() or dio_rwCount() finds more than 99 lines.
 *
 * **Limits.** Numbers go up to 99, but a half holds 96 bits and its 16 bytes are shared with other programs. Lines 97
 * to 99 read as 0 from a record and are not stored in it; they never touch the neighbouring half. Their single-line
 * functions work.
 *
 * **Privileges.** The same as for dio.h.
 *
 * **Compatibility.** Behaviour kept on purpose (docs/compatibility.md): Q10 mistakes of the caller abort the process in
 * every build; Q87 lines 97 to 99 have no bit.
 */
#ifndef VXUTILS_DIO_STATUS_H
#define VXUTILS_DIO_STATUS_H

#include <stdint.h>
#include <vxutils/api.h>

VXUTILS_BEGIN_DECLS

#define DIORONUMBER_MIN 1    /**< first input */
#define DIORONUMBER_MAX 99   /**< last possible input */
#define DIORWNUMBER_MIN 1    /**< first output */
#define DIORWNUMBER_MAX 99   /**< last possible output */
#define MAX_DIO_IN_COUNT 99  /**< most inputs of a record */
#define MAX_DIO_OUT_COUNT 99 /**< most outputs of a record */

/** The inputs or the outputs. */
struct dio_status_half {
    uint32_t count;   /**< number of lines */
    uint8_t mask[12]; /**< line n is bit (n - 1) % 8 of byte (n - 1) / 8 */
};
typedef struct dio_status_half dio_status_half; /**< the record's short name */

/** Inputs and outputs; the outputs begin 16 bytes after the start. */
struct dio_status {
    struct dio_status_half in;  /**< inputs */
    struct dio_status_half out; /**< outputs */
};
typedef struct dio_status dio_status; /**< the record's short name */

/**
 * Read all inputs, then all outputs.
 * @param status  the record; must not be NULL
 * @return DIO_OK, or the first other result; the outputs are not read when reading the inputs failed
 */
VXUTILS_API int dio_getStatus(dio_status *status);

/**
 * Count and read the inputs. Bits of lines that the board does not have are left unchanged.
 * @param status  a record's half for inputs; must not be NULL
 * @return DIO_OK, or the result of the first line that cannot be read; the lines before it are in the record then
 */
VXUTILS_API int dio_getStatusIn(dio_status_half *status);

/**
 * Count and read back the outputs, as dio_getStatusIn() does.
 * @param status  a record's half for outputs; must not be NULL
 * @return as dio_getStatusIn()
 */
VXUTILS_API int dio_getStatusOut(dio_status_half *status);

/**
 * Set the outputs 1 to count as the record says. Outputs 97 to 99, which have no bit, are set to 0.
 * @param status  a record's half for outputs, count at most 99; must not be NULL
 * @return DIO_OK, also for a count of 0; or the result of the first output that cannot be set, after which none is
 */
VXUTILS_API int dio_setStatusOut(dio_status_half *status);

/**
 * @param status  half for inputs; must not be NULL
 * @param dio     number of the input, 1 to count and at most 99
 * @return its bit, 0 or 1
 */
VXUTILS_API int dio_getInValueFromStatus(const dio_status_half *status, unsigned int dio);

/**
 * @param status  half for outputs; must not be NULL
 * @param dio     number of the output, 1 to count and at most 99
 * @return its bit, 0 or 1
 */
VXUTILS_API int dio_getOutValueFromStatus(const dio_status_half *status, unsigned int dio);

/**
 * Change an input's bit in the record.
 * @param status  half for inputs; must not be NULL
 * @param dio     number of the input, 1 to count and at most 99
 * @param value   0 clears, anything else sets
 */
VXUTILS_API void dio_setInValueInStatus(dio_status_half *status, unsigned int dio, unsigned int value);

/**
 * Change an output's bit in the record; dio_setStatusOut() applies it.
 * @param status  half for outputs; must not be NULL
 * @param dio     number of the output, 1 to count and at most 99
 * @param value   0 clears, anything else sets
 */
VXUTILS_API void dio_setOutValueInStatus(dio_status_half *status, unsigned int dio, unsigned int value);

VXUTILS_END_DECLS

#endif
