/* SPDX-License-Identifier: MIT */
/**
 * @file
 * **Purpose.** Reads the analog inputs of the boards in volts. Each board's converter has its own factor, which the
 * functions with a board's name apply. adc_read() reads the converters of other drivers.
 *
 * **Example.**
 * @code
 * const char *path = qxdelta_get_adc_vin_path(1);
 * float volts;
 * if (path != NULL && *path != '\0' && adc_read(path, NULL, &volts) == 0) printf("%.2f\n", (double)volts);
 * @endcode
 *
 * **Ownership.** Nothing is allocated. qxdelta_get_adc_vin_path() returns a static buffer for each input, valid until
 * its next call for that input.
 *
 * **Threads, signals, fork.** Any thread may call the functions; two threads must not ask qxdelta_get_adc_vin_path()
 * for the same input at once. Not for signal handlers. No descriptor stays open, so a forked child may call them.
 *
 * **Blocking.** Calls take as long as the driver does to read a file, a few milliseconds.
 *
 * **Errors.** A call that fails returns -1, 0 or an empty text; errno is that of the failed system call. Only
 * qxdelta_get_adc_vin_path() logs (LOG_ERR). Converter files hold a whole number of 0 or more; a text that is not a
 * number reads as 0.
 *
 * **Limits.** A converter's text has at most 127 characters. Of the hardware monitors, hwmon0 to hwmon9 are searched.
 *
 * **Privileges.** Read access to the driver's files below /sys.
 *
 * **Compatibility.** None.
 */
#ifndef VXUTILS_ADC_H
#define VXUTILS_ADC_H

#include <vxutils/api.h>

VXUTILS_BEGIN_DECLS

/**
 * Read a converter.
 * @param raw_path    file with the converter's number; NULL gives -1
 * @param scale_path  file with the factor; NULL for a factor of 1
 * @param value       receives number × factor, or 0 on failure; NULL gives -1
 * @return 0; -1 when a file is missing or empty, or the number is below 0
 */
VXUTILS_API int adc_read(const char *raw_path, const char *scale_path, float *value);

/** @return 1 when the board's first converter channel can be read, else 0 */
VXUTILS_API int qxalpha_adc_supported(void);

/**
 * Read a converter of the first board type: factor 30.379 and the converter's own scale file.
 * @param path   file with the converter's number; NULL gives -1
 * @param value  receives the voltage, or 0 on failure; NULL gives -1
 * @return as adc_read()
 */
VXUTILS_API int qxalpha_adc_read(const char *path, float *value);

/**
 * Read a converter of the second board type: factor 28.561.
 * @param path   file with the converter's number; NULL gives -1
 * @param value  receives the voltage, or 0 on failure; NULL gives -1
 * @return as adc_read()
 */
VXUTILS_API int qxbeta_adc_read(const char *path, float *value);

/**
 * Read a converter of the third board type.
 * @param path    file with the converter's number; NULL gives -1
 * @param value   receives the number × @p factor, or 0 on failure; NULL gives -1
 * @param factor  factor of the input
 * @return as adc_read()
 */
VXUTILS_API int qxgamma_adc_read(const char *path, float *value, float factor);

/**
 * Find the hardware monitor's file of an input of the fourth board type, among hwmon0 to hwmon9. What is in its place
 * and is not a regular file is logged (LOG_ERR), as is finding nothing.
 * @param input  1 or 2
 * @return the path, in the input's static buffer until its next call; empty when there is none; NULL for another input
 */
VXUTILS_API const char *qxdelta_get_adc_vin_path(int input);

VXUTILS_END_DECLS

#endif
