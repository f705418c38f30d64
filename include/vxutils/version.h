/* SPDX-License-Identifier: MIT */
/**
 * @file
 * **Purpose.** The version of the library, at compile time and at run time. Use the macros where a program needs what a
 * later version has added, and vxutils_version() where it reports what it runs with. This header is the only place of
 * the source tree where the version is written; CMake, pkg-config and the packages take it from here.
 *
 * **Example.**
 * @code
 * #include <stdio.h>
 * #include <vxutils/version.h>
 * #if !VXUTILS_VERSION_AT_LEAST(1, 0, 0)
 * #error "this program needs vxutils 1.0.0 or later"
 * #endif
 * int main(void) {
 *     printf("compiled with %s, running with %s\n", VXUTILS_VERSION_STRING, vxutils_version());
 *     return 0;
 * }
 * @endcode
 *
 * **Ownership.** The returned text belongs to the library and is never freed.
 *
 * **Threads, signals, fork.** May be called from any thread, from a signal handler and in a forked child.
 *
 * **Blocking.** No call blocks.
 *
 * **Errors.** No call fails.
 *
 * **Limits.** Each number is between 0 and 999.
 *
 * **Privileges.** None.
 *
 * **Compatibility.** Versions follow semantic versioning. The file name libvxutils.so.1.0.0 does not: named locks
 * depend on it (csemaphore.h, sem.h), so it stays as it is while the version counts up.
 */
#ifndef VXUTILS_VERSION_H
#define VXUTILS_VERSION_H

#include <vxutils/api.h>

#define VXUTILS_VERSION_MAJOR 1 /**< counts up when programs have to be changed or compiled again */
#define VXUTILS_VERSION_MINOR 0 /**< counts up when something was added */
#define VXUTILS_VERSION_PATCH 0 /**< counts up when something was put right */

/** The version as a text, e.g. "1.0.0". */
#define VXUTILS_VERSION_STRING \
    VXUTILS_VERSION_TEXT_(VXUTILS_VERSION_MAJOR, VXUTILS_VERSION_MINOR, VXUTILS_VERSION_PATCH)

/**
 * 1 if the headers are of this version or a later one, otherwise 0. Can be used in #if.
 * @param major, minor, patch  numbers between 0 and 999
 */
#define VXUTILS_VERSION_AT_LEAST(major, minor, patch)                                                \
    (VXUTILS_VERSION_NUMBER_(VXUTILS_VERSION_MAJOR, VXUTILS_VERSION_MINOR, VXUTILS_VERSION_PATCH) >= \
     VXUTILS_VERSION_NUMBER_(major, minor, patch))

/* Building blocks of the macros above. */
#define VXUTILS_VERSION_QUOTE_(major, minor, patch) #major "." #minor "." #patch
#define VXUTILS_VERSION_TEXT_(major, minor, patch) VXUTILS_VERSION_QUOTE_(major, minor, patch)
#define VXUTILS_VERSION_NUMBER_(major, minor, patch) ((major)*1000000 + (minor)*1000 + (patch))

VXUTILS_BEGIN_DECLS

/**
 * Return the version of the library that the program runs with, which may be later than that of the headers.
 * @return a text like VXUTILS_VERSION_STRING
 */
VXUTILS_API const char *vxutils_version(void);

VXUTILS_END_DECLS

#endif
