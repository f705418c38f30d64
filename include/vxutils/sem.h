/* SPDX-License-Identifier: MIT */
/**
 * @file
 * The named recursive lock between processes (csemaphore.h) as plain functions.
 *
 * @code
 * sem_handle *modem = sem_create("/modem0");
 * int result = sem_lock(modem);
 * if (result == 0 || result == EOWNERDEAD) {
 *     ...
 *     sem_unlock(modem);
 * }
 * sem_release(modem);
 * @endcode
 *
 * The lock itself stays in the system until the next boot. Several handles of one name are the same lock. What another
 * ordinary user has made under the name is not used (see csemaphore.h). A handle may be shared between threads; the
 * lock belongs to the thread that took it. A child of fork() does not own what its parent has locked.
 *
 * Files: a lock needs the file /usr/lib/libvxutils.so.1.0.0, whatever the prefix that the library is installed in (see
 * csemaphore.h). Without it sem_create() writes to the system log and returns a handle on which everything returns -1
 * at once.
 */
#ifndef VXUTILS_SEM_H
#define VXUTILS_SEM_H

#include <vxutils/api.h>

VXUTILS_BEGIN_DECLS

/** One lock in use. */
typedef struct sem_handle sem_handle;

/** How a lock is to behave. */
typedef struct sem_options sem_options;

/**
 * Makes options, set to automatic repair.
 * @return options to be freed by semopts_release(), or null when memory is short
 */
VXUTILS_API sem_options *sem_options_create(void);

/** A lock whose owner died is repaired by the next one that takes it. Null is ignored. */
VXUTILS_API void semopt_set_consistent_mode_automatic(sem_options *options);

/**
 * A lock whose owner died is lost for good once the next owner unlocks it: later attempts return @c ENOTRECOVERABLE.
 * Null is ignored.
 */
VXUTILS_API void semopt_set_consistent_mode_manual(sem_options *options);

/** Frees options. Handles made with them are not affected. Null is ignored. */
VXUTILS_API void semopts_release(sem_options *options);

/**
 * Opens or creates the lock of this name.
 * @param name as for @c shm_open(): "/" and up to 255 further characters, none of them "/". Not null: the C++ standard
 *        library's @c std::logic_error would come out of the call
 * @param options copied; null means default options
 * @return a handle to be freed by sem_release(), or null when memory is short. A lock that could not be set up (the
 *         reason is in the system log) gives a handle too, on which everything returns -1
 *
 * Waits while another process creates a lock of any name, for 15 s at most.
 */
VXUTILS_API sem_handle *sem_create_with_options(const char *name, const sem_options *options);

/** The same with default options, a null @p name included. */
VXUTILS_API sem_handle *sem_create(const char *name);

/**
 * Takes the lock, waiting without limit. The owner may lock again and must unlock as often.
 * @retval 0 locked
 * @retval EOWNERDEAD locked too; the owner before died while holding it
 * @retval -1 @p handle is null or its lock could not be set up
 * @return otherwise an error number of @c pthread_mutex_lock()
 */
VXUTILS_API int sem_lock(sem_handle *handle);

/** Gives back one sem_lock(): 0, -1 as there, or an error number (@c EPERM: not the owner). */
VXUTILS_API int sem_unlock(sem_handle *handle);

/** sem_lock() without waiting: @c EBUSY when another thread has it. */
VXUTILS_API int sem_trylock(sem_handle *handle);

/** Frees a handle. The lock stays as it is, locked when it was locked; another handle can unlock it. Null is ignored.
 */
VXUTILS_API void sem_release(sem_handle *handle);

VXUTILS_END_DECLS

#endif
