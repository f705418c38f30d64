/* SPDX-License-Identifier: MIT */
/**
 * @file
 * **Purpose.** Locks between processes: a directory used as a mutex, and the lock that every program takes before it
 * changes packet-filter rules. Programs that need a lock of their own use csemaphore.h or sem.h, which notice the death
 * of an owner.
 *
 * **Example.**
 * @code
 * firewall_lock_handle *lock = firewall_lock();
 * if (lock != NULL) puts("no other program changes rules now");
 * firewall_unlock(lock);
 * @endcode
 *
 * **The packet-filter lock.** It is a lock of flock(2) on "/var/lock/iptables_flock_file", for writing. A shell script
 * shares it with `flock /var/lock/iptables_flock_file COMMAND`. Locks of fcntl(2) and lockf(3) on the same file are of
 * another kind and exclude no one.
 *
 * **Ownership.** firewall_lock() makes a handle, firewall_unlock() frees it. A directory lock has no handle.
 *
 * **Threads, signals, fork.** Any thread may call the functions. The directory lock has no owner: it stays until
 * release_lock(), even when the process that took it dies. The firewall lock ends with the process that holds it. It is
 * not inherited across exec, but a forked child shares it: firewall_unlock() in either process gives it back for both,
 * and without that it lasts until both have ended. A process that takes it twice waits for itself without end. Signals
 * do not end the waits, except that they shorten one sleep of acquire_lock(). Not for signal handlers.
 *
 * **Blocking.** acquire_lock() sleeps for 1 s after each failure. firewall_lock() waits until the lock is free, without
 * a limit: do not call it in an event loop.
 *
 * **Errors.** acquire_lock() returns -1, firewall_lock() NULL with a message (LOG_ERR).
 *
 * **Limits.** A path has at most 4095 characters, as in the kernel.
 *
 * **Privileges.** acquire_lock() needs write access to the parent directory. Everyone who may write there can release
 * the lock; in a directory with the sticky bit only its maker and root can. The file of the packet-filter lock is
 * made with mode 0600 in "/var/lock", which must exist: programs that take the lock run as one user, normally root.
 *
 * **Compatibility.** Behaviour kept on purpose (docs/compatibility.md): Q21 directories are made with the mode 0x755;
 * Q48 a negative number of tries locks nothing and succeeds; Q49 every failure counts as held and costs a second; Q50
 * release_lock() always succeeds.
 */
#ifndef VXUTILS_LOCK_H
#define VXUTILS_LOCK_H

#include <vxutils/api.h>

VXUTILS_BEGIN_DECLS

/** The packet-filter lock while it is held. */
struct firewall_lock_handle;
typedef struct firewall_lock_handle firewall_lock_handle;

/**
 * Take a directory lock: make the directory, which only one process can.
 *
 * Each failure, whatever its reason, is followed by one second of sleep, the last one too.
 *
 * @param path  directory of the lock
 * @param tries how often to try; 0 fails at once, a negative number succeeds at once and locks nothing
 * @return 0 when the lock is taken, -1 when it is not; -1 for a NULL path, unless @p tries is negative
 */
VXUTILS_API int acquire_lock(const char *path, int tries);

/**
 * Give a directory lock back, no matter which process took it: remove what has that name, if it is readable and,
 * when a directory, empty.
 *
 * @param path directory of the lock; NULL is ignored
 * @return 0
 */
VXUTILS_API int release_lock(const char *path);

/**
 * Take the packet-filter lock, an advisory lock on /var/lock/iptables_flock_file, and wait until it is free.
 *
 * The file is made with mode 0600, and an existing one gets that mode: a process that can open the file can hold its
 * lock. A process that opened the file before can still hold it, and is waited for: a firmware makes the file at boot
 * with that mode. A link is not followed; what is not a regular file, or belongs neither to root nor to the effective
 * user, is refused, and so is a file with content that has a second name (a hard link): it is another program's.
 *
 * @return the handle, released with firewall_unlock(); NULL when the lock cannot be taken (logged, LOG_ERR)
 */
VXUTILS_API firewall_lock_handle *firewall_lock(void);

/**
 * Give the packet-filter lock back and release its handle.
 *
 * @param handle what firewall_lock() returned; NULL is ignored
 * @return 0
 */
VXUTILS_API int firewall_unlock(firewall_lock_handle *handle);

VXUTILS_END_DECLS

#endif
