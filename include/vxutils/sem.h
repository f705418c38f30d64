/* SPDX-License-Identifier: MIT */
/**
 * @file
 * **Purpose.** Gives C programs the named recursive lock between processes (CRecursiveSemaphore in csemaphore.h).
 *
 * **Example.**
 * @code
 * #include <errno.h>
 * sem_handle *modem = sem_create("/modem0");
 * int result = sem_lock(modem);
 * if (result == 0 || result == EOWNERDEAD) {
 *     puts("locked");
 *     sem_unlock(modem);
 * }
 * sem_release(modem);
 * @endcode
 *
 * **Ownership.** sem_create() makes a handle, sem_release() frees it; the same with sem_options_create() and
 * semopts_release(). The lock itself stays in the system until the next boot. Several handles of one name are the same
 * lock.
 *
 * **Threads, signals, fork.** A handle may be shared between threads; the lock belongs to the thread that took it. Not
 * for signal handlers. A child of fork() does not own what its parent has locked.
 *
 * **Blocking.** sem_lock() waits without a limit. sem_create() waits while another process makes a lock of any name,
 * for 15 s at most. In an event loop use sem_trylock().
 *
 * **Errors.** Calls return an error number of pthread_mutex_lock(), or -1 for a handle whose lock could not be set up;
 * the reason for the latter is in the system log.
 *
 * **Limits.** A name is "/" and up to 255 further characters, none of them "/". All users of a lock must be in one PID
 * namespace (see csemaphore.h).
 *
 * **Privileges.** A lock serves the processes of one user: it is made with mode 0600, and only its owner may use it. An
 * object of that name which another ordinary user has made is not used (see csemaphore.h). A lock needs /dev/shm and
 * the file /usr/lib/libvxutils.so.1.0.0, whatever prefix the library is installed in. Without it sem_create() writes to
 * the system log and returns a handle on which every call returns -1 at once.
 *
 * **Compatibility.** Behaviour kept on purpose (docs/compatibility.md): Q55 named locks depend on one file name; Q56 a
 * NULL name raises std::logic_error.
 */
#ifndef VXUTILS_SEM_H
#define VXUTILS_SEM_H

#include <vxutils/api.h>

VXUTILS_BEGIN_DECLS

/** One lock in use. */
typedef struct sem_handle sem_handle;

/** How a lock behaves after the death of its owner. */
typedef struct sem_options sem_options;

/**
 * Make options, set to automatic repair.
 * @return options to be freed by semopts_release(); NULL when memory is short
 */
VXUTILS_API sem_options *sem_options_create(void);

/**
 * Choose that a lock whose owner died is repaired by the next thread that takes it.
 * @param options  the options; NULL is ignored
 */
VXUTILS_API void semopt_set_consistent_mode_automatic(sem_options *options);

/**
 * Choose that a lock whose owner died is lost for good once the next owner unlocks it: later attempts return @c
 * ENOTRECOVERABLE. Only CRecursiveSemaphore::makeConsistent() (csemaphore.h) can repair it before that.
 * @param options  the options; NULL is ignored
 */
VXUTILS_API void semopt_set_consistent_mode_manual(sem_options *options);

/**
 * Free options. Handles made with them are not affected.
 * @param options  the options; NULL is ignored
 */
VXUTILS_API void semopts_release(sem_options *options);

/**
 * Open or create the lock of this name. Waits while another process creates a lock of any name, for 15 s at most.
 * @param name as for @c shm_open(): "/" and up to 255 further characters, none of them "/". NULL throws @c
 *        std::logic_error, which ends a C program (Quirk Q56).
 * @param options copied; NULL means default options
 * @return a handle to be freed by sem_release(); NULL when memory is short. A lock that could not be set up (the reason
 *         is in the system log) gives a handle too, on which every call returns -1.
 */
VXUTILS_API sem_handle *sem_create_with_options(const char *name, const sem_options *options);

/**
 * Open or create the lock of this name with default options.
 * @param name  as for sem_create_with_options()
 * @return as sem_create_with_options()
 */
VXUTILS_API sem_handle *sem_create(const char *name);

/**
 * Take the lock, waiting without limit. The owner may lock again and must unlock as often.
 * @param handle  from sem_create(); NULL gives -1
 * @retval 0 locked
 * @retval EOWNERDEAD locked too; the previous owner died while holding it, so what the lock protects may be half
 *         changed
 * @retval ENOTRECOVERABLE not locked; the lock is lost for good (manual mode only)
 * @retval -1 @p handle is NULL or its lock could not be set up
 * @return otherwise an error number of @c pthread_mutex_lock()
 */
VXUTILS_API int sem_lock(sem_handle *handle);

/**
 * Give back one sem_lock().
 * @param handle  from sem_create(); NULL gives -1
 * @return 0; -1 as sem_lock(); @c EPERM when another thread, or none, has the lock
 */
VXUTILS_API int sem_unlock(sem_handle *handle);

/**
 * Take the lock if it can be had without waiting.
 * @param handle  from sem_create(); NULL gives -1
 * @return as sem_lock(), 0 and @c EOWNERDEAD meaning locked; @c EBUSY when another thread has it
 */
VXUTILS_API int sem_trylock(sem_handle *handle);

/**
 * Free a handle. A locked lock stays locked; the same thread can unlock it through another handle.
 * @param handle  from sem_create(); NULL is ignored
 */
VXUTILS_API void sem_release(sem_handle *handle);

VXUTILS_END_DECLS

#endif
