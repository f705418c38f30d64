/* SPDX-License-Identifier: MIT */
/**
 * @file
 * **Purpose.** Reads the analog inputs of the boards. Each board's converter has its own factor, which the functions
 * with a board's name apply. adc_read() reads the converters of other drivers.
 *
 * **Example.**
 * @code
 * const char *path = qxdelta_get_adc_vin_path(1);
 * float volts;
 * if (path != NULL && *path != '\0' && qxgamma_adc_read(path, &volts, 0.001F) == 0) printf("%.2f V\n", (double)volts);
 * @endcode
 *
 * **Units.** The functions multiply and know no unit: a result is the driver's number times the factors named below.
 * The files that qxdelta_get_adc_vin_path() finds are in millivolts.
 *
 * **Ownership.** Nothing is allocated. qxdelta_get_adc_vin_path() returns a static buffer for each input, valid until
 * its next call for that input.
 *
 * **Threads, signals, fork.** Any thread may call the functions; two threads must not ask qxdelta_get_adc_vin_path()
 * for the same input at once. Not for signal handlers. No descriptor stays open, so a forked child may call them.
 *
 * **Blocking.** Calls take as long as the driver does to read a file, a few milliseconds.
 *
 * **Errors.** A call that fails returns -1, 0, NULL or an empty text; errno does not always tell the reason. Only
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
 * @param scale_path  file with the factor, which has a decimal point in every locale; NULL for a factor of 1
 * @param value       receives number × factor, or 0 on failure; NULL gives -1
 * @return 0; -1 when a pointer is NULL, a file is missing or empty, or the number is below 0
 */
VXUTILS_API int adc_read(const char *raw_path, const char *scale_path, float *value);

/**
 * Tell whether this is a board with the converter of the first type: whether
 * "/sys/bus/iio/devices/iio:device0/in_voltage0_raw" is readable.
 * @return 1 or 0
 */
VXUTILS_API int qxalpha_adc_supported(void);

/**
 * Read a converter of the first board type: number × scale × 30.379. The scale is always read from
 * "/sys/bus/iio/devices/iio:device0/in_voltage_scale".
 * @param path   file with the converter's number; NULL gives -1
 * @param value  receives the voltage, or 0 on failure; NULL gives -1
 * @return as adc_read()
 */
VXUTILS_API int qxalpha_adc_read(const char *path, float *value);

/**
 * Read a converter of the second board type: number × 28.561.
 * @param path   file with the converter's number; NULL gives -1
 * @param value  receives the voltage, or 0 on failure; NULL gives -1
 * @return as adc_read()
 */
VXUTILS_API int qxbeta_adc_read(const char *path, float *value);

/**
 * Read a converter of the third board type: number × @p factor.
 * @param path    file with the converter's number; NULL gives -1
 * @param value   receives the number × @p factor, or 0 × @p factor on failure; NULL gives -1
 * @param factor  factor of the input; with an infinite one the result of a failure is not a number
 * @return as adc_read()
 */
VXUTILS_API int qxgamma_adc_read(const char *path, float *value, float factor);

/**
 * Find the hardware monitor's file of an input of the fourth board type:
 * "/sys/bus/i2c/devices/0-0058/da9063-hwmon/hwmon/hwmonN/inINPUT_input", with the first N of 0 to 9 that has it.
 * Anything else in place of a regular file is logged (LOG_ERR), and so is finding none.
 * @param input  1 or 2
 * @return the path, in the input's static buffer until its next call; empty when there is none; NULL for another input
 */
VXUTILS_API const char *qxdelta_get_adc_vin_path(int input);

VXUTILS_END_DECLS

#endif
