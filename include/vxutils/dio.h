/* SPDX-License-Identifier: MIT */
/**
 * @file
 * **Purpose.** Reads and sets the board's digital inputs and outputs, one line at a time, through the board driver's
 * files below "/sys/devices/vantorix/": inputs "din1", "din2", ... are read, outputs "dout1", ... are written and read
 * back, and inputs can count pulses ("frequency"). dio_status.h reads all lines at once.
 *
 * **Example.**
 * @code
 * unsigned char on;
 * if (dio_roValue(1, &on) == DIO_OK && on) dio_setValue(2, 1);  // input 1 drives output 2
 * @endcode
 *
 * **Ownership.** The functions write into the caller's variables and allocate nothing that outlives a call.
 *
 * **Threads, signals, fork.** Any thread may use the functions for a single line. The two line counters belong to the
 * process: counts that run at the same time write the same values. Not for signal handlers. Nothing is kept open, so a
 * forked child may call the functions.
 *
 * **Blocking.** Calls take as long as the driver does to read or write a file. A program cannot wait for a change of an
 * input: it reads it again.
 *
 * **Errors.** The functions return one of the codes below, 0 for success. Errors of the system are logged (LOG_ERR)
 * with their strerror() text. A function writes its output on DIO_OK only. A failed close is logged and does not change
 * the result.
 *
 * **Limits.** Lines are numbered from 1 to 99; other numbers are logged ("DIO number out of range (%u > %u)",
 * LOG_WARNING) and give DIO_RANGE.
 *
 * **Privileges.** Read access to the driver's files, and write access to "value" of an output and "frequency" of an
 * input; the firmware chooses their modes. A line whose directory the caller may not read and search is not counted.
 *
 * **Compatibility.** Behaviour kept on purpose (docs/compatibility.md): Q85 a probe is logged as an error; Q86 an
 * unreadable tree keeps the last count.
 */
#ifndef VXUTILS_DIO_H
#define VXUTILS_DIO_H

#include <stdint.h>
#include <vxutils/api.h>

VXUTILS_BEGIN_DECLS

/** Results of the digital I/O functions. */
enum {
    DIO_OK = 0,       /**< success */
    DIO_RANGE = 1,    /**< line number outside 1 to 99 */
    DIO_MISSING = 2,  /**< the line has no such file */
    DIO_LEXICAL = 3,  /**< the file's content is not as expected */
    DIO_INACTIVE = 4, /**< pulse counting is not running, or was not when it was to be stopped */
    DIO_ACTIVE = 5,   /**< pulse counting was already running when it was to be started */
    DIO_SYSTEM = 6    /**< any other error of the system; also a null output, with errno EINVAL */
};

/** Content of an input's "frequency" file. The board driver defines what the numbers mean. */
struct dio_frequency_record {
    uint32_t number; /**< third number of the file */
    int64_t first;   /**< first number */
    int64_t second;  /**< second number; this and the first are 0 while no measurement runs */
};
typedef struct dio_frequency_record dio_frequency_record; /**< the record's short name */

/**
 * Count all lines: readable directories "din" and "dout" followed by one or two digits.
 *
 * A missing tree counts as 0. When the tree cannot be read, that is logged ("Can't scandir(/sys/devices/vantorix/) -
 * (%s)"), errno is unchanged, and the result is the number of the last count (Quirk Q86).
 *
 * @param n  receives inputs + outputs; NULL gives DIO_SYSTEM
 * @return DIO_OK or DIO_SYSTEM
 */
VXUTILS_API int dio_count(unsigned int *n);

/**
 * Count the inputs, as dio_count() does.
 * @param n  receives their number; NULL gives DIO_SYSTEM
 * @return DIO_OK or DIO_SYSTEM
 */
VXUTILS_API int dio_roCount(unsigned int *n);

/**
 * Count the outputs, as dio_count() does.
 * @param n  receives their number; NULL gives DIO_SYSTEM
 * @return DIO_OK or DIO_SYSTEM
 */
VXUTILS_API int dio_rwCount(unsigned int *n);

/**
 * Read an input.
 * @param dio  number of the input
 * @param on   receives 0 or 1; NULL gives DIO_SYSTEM
 * @return DIO_OK, DIO_RANGE, DIO_MISSING, DIO_LEXICAL (neither '0' nor '1') or DIO_SYSTEM (also for an empty file)
 */
VXUTILS_API int dio_roValue(unsigned int dio, unsigned char *on);

/**
 * Read an output back.
 * @param dio  number of the output
 * @param on   receives 0 or 1; NULL gives DIO_SYSTEM
 * @return as dio_roValue()
 */
VXUTILS_API int dio_rwValue(int dio, unsigned char *on);

/**
 * Set an output: write the one character '0' + @p value.
 * @param dio    number of the output
 * @param value  0 or 1; for a value above 9 a character that is not a digit is written
 * @return DIO_OK, DIO_RANGE, DIO_MISSING or DIO_SYSTEM
 */
VXUTILS_API int dio_setValue(int dio, unsigned int value);

/**
 * Read an input's pulse counter.
 * @param dio     number of the input
 * @param record  receives the numbers on DIO_OK; NULL gives DIO_SYSTEM
 * @return DIO_OK; DIO_INACTIVE when the first two numbers are 0; DIO_LEXICAL for fewer than three numbers; DIO_RANGE,
 *         DIO_MISSING; DIO_SYSTEM, also for a file without any number and no other text
 */
VXUTILS_API int dio_frequency(int dio, dio_frequency_record *record);

/**
 * Tell whether an input counts pulses, by a probe ("-1" is written) that the driver refuses with EEXIST while it does.
 * The refusal is logged like an error (Quirk Q85).
 * @param dio     number of the input
 * @param active  receives 0 or 1 on DIO_OK; NULL gives DIO_SYSTEM
 * @return DIO_OK; DIO_INACTIVE when the driver refuses the probe for another reason; DIO_RANGE, DIO_MISSING, DIO_SYSTEM
 */
VXUTILS_API int dio_frequencyActive(int dio, unsigned char *active);

/**
 * Start or stop an input's pulse counting: write "1" or "0", which the driver refuses with EEXIST ("1") or ENOENT ("0")
 * when there is nothing to change.
 * @param dio  number of the input
 * @param on   0 stops, anything else starts
 * @return DIO_OK; DIO_ACTIVE when it was to be started and ran; DIO_INACTIVE when it was to be stopped and did not run;
 *         DIO_RANGE, DIO_MISSING, DIO_SYSTEM
 */
VXUTILS_API int dio_setFrequencyActive(int dio, unsigned int on);

VXUTILS_END_DECLS

#endif
