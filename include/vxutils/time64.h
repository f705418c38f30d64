/* SPDX-License-Identifier: MIT */
/**
 * @file
 * Included by every public header whose records or arguments hold a time: refuses a caller whose @c time_t is 32 bits
 * wide, because its records would not match the library's.
 */
#ifndef VXUTILS_TIME64_H
#define VXUTILS_TIME64_H

#include <sched.h> /* struct timespec, also where strict C99 keeps <time.h> from declaring it */
#include <time.h>

#ifdef __cplusplus
static_assert(
    sizeof(time_t) == 8,
    "libvxutils needs 64-bit times: compile with -D_TIME_BITS=64 -D_FILE_OFFSET_BITS=64 (pkg-config gives both)");
#else
/** Negative size, which is an error, where time_t is narrow: compile with -D_TIME_BITS=64 -D_FILE_OFFSET_BITS=64. */
typedef char vxutils_needs_64_bit_time_t_set_D_TIME_BITS_64_and_D_FILE_OFFSET_BITS_64[sizeof(time_t) == 8 ? 1 : -1];
#endif

#endif
