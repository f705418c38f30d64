/* SPDX-License-Identifier: MIT */
/**
 * @file
 * Locks between processes: a directory used as a mutex, and the one lock that everything takes which changes
 * packet-filter rules.
 *
 * @code
 * firewall_lock_handle *lock = firewall_lock();
 * run_command("iptables -A INPUT -i wan0 -j DROP", 0);
 * firewall_unlock(lock);
 * @endcode
 *
 * The directory lock stays until release_lock(), also when its holder dies: nobody is recorded as its owner. The
 * firewall lock ends with the process that holds it; it is not inherited across exec, but a forked child shares it
 * until the child ends too. It must not be taken twice by one process, which would wait for itself for ever.
 */
#ifndef VXUTILS_LOCK_H
#define VXUTILS_LOCK_H

#include <vxutils/api.h>

VXUTILS_BEGIN_DECLS

/** The packet-filter lock while it is held. */
struct firewall_lock_handle;
typedef struct firewall_lock_handle firewall_lock_handle;

/**
 * Takes a directory lock: makes the directory, which only one process can.
 *
 * Each failure, whatever its reason, is followed by one second of sleep, the last one too.
 *
 * @param path  directory that stands for the lock
 * @param tries how often to try; 0 fails at once, a negative number succeeds at once and locks nothing
 * @return 0 when the lock is taken, -1 when it is not; -1 for a NULL path
 */
VXUTILS_API int acquire_lock(const char *path, int tries);

/**
 * Gives a directory lock back, whoever took it: removes what has that name, if it is readable and, when a directory,
 * empty.
 *
 * @param path directory that stands for the lock; NULL is ignored
 * @return 0
 */
VXUTILS_API int release_lock(const char *path);

/**
 * Takes the packet-filter lock, an advisory lock on /var/lock/iptables_flock_file, and waits until it is free.
 *
 * The file is made with mode 0600, and an existing one gets that mode: whoever can open the file can hold its lock. A
 * link is not followed; what is not a regular file, or belongs neither to root nor to the effective user, is refused.
 *
 * @return the handle, released with firewall_unlock(); NULL when the lock cannot be taken (logged, LOG_ERR)
 */
VXUTILS_API firewall_lock_handle *firewall_lock(void);

/**
 * Gives the packet-filter lock back and releases its handle.
 *
 * @param handle what firewall_lock() returned; NULL is ignored
 * @return 0
 */
VXUTILS_API int firewall_unlock(firewall_lock_handle *handle);

VXUTILS_END_DECLS

#endif
