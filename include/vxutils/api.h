/* SPDX-License-Identifier: MIT */
/**
 * @file
 * Marks that every public header uses: what is exported, C linkage, printf-like functions, and the refusal of callers
 * whose times are too narrow.
 */
#ifndef VXUTILS_API_H
#define VXUTILS_API_H

/** On a declaration: the library exports it. */
#define VXUTILS_API __attribute__((visibility("default")))

/** On a declaration: argument @p fmt (1 = first) is a printf format, its arguments start at @p args (0 = va_list). */
#define VXUTILS_PRINTF(fmt, args) __attribute__((format(printf, fmt, args)))

#ifdef __cplusplus
#define VXUTILS_BEGIN_DECLS extern "C" {
#define VXUTILS_END_DECLS }
#else
#define VXUTILS_BEGIN_DECLS
#define VXUTILS_END_DECLS
#endif

#endif
