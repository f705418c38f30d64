/* SPDX-License-Identifier: MIT */
/**
 * @file
 * Logging levels of the platform: opaque objects that map to system-log priorities.  Stand-in for machines that lack
 * the firmware's own library; same names, same mapping.  All functions may be called from any thread.
 */
#ifndef DEVLOG_H
#define DEVLOG_H

#define DEVLOG_STANDIN 1 /**< tells this header from the firmware's own */

#ifdef __cplusplus
extern "C" {
#endif

typedef struct devlog_level devlog_level; /**< one level; opaque */

extern devlog_level *const DL_ERR;   /**< maps to LOG_ERR */
extern devlog_level *const DL_ERROR; /**< maps to LOG_ERR */
extern devlog_level *const DL_INFO;  /**< maps to LOG_INFO */

/**
 * Makes a level of its own.
 * @param number  the caller's number for it
 * @return the level, which maps to LOG_DEBUG and lives as long as the process; NULL when memory is short
 */
devlog_level *devlog_level_create(int number);

/**
 * @param level  a level; NULL counts as a created one
 * @return the system-log priority (0 to 7) that messages of @p level carry
 */
int devlog_level_to_prio(const devlog_level *level);

#ifdef __cplusplus
}
#endif

#endif
