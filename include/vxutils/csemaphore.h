/* SPDX-License-Identifier: MIT */
/**
 * @file
 * **Purpose.** Locks between processes: CRecursiveSemaphore, a named recursive mutex that survives the death of its
 * owner, and CSemaphore, a plain binary lock found by a file's path. Use the former unless an existing program uses the
 * latter. sem.h has the former as plain functions. lock.h has locks that shell scripts use as well.
 *
 * **Example.**
 * @code
 * CRecursiveSemaphore modem("/modem0");
 * const int result = modem.lock();
 * if (result == 0 || result == EOWNERDEAD) {  // EOWNERDEAD: locked too, the previous owner died
 *     puts("locked");
 *     modem.unlock();
 * }
 * @endcode
 *
 * **Ownership.** The objects belong to their caller. Any number of objects of one name may exist in a process; they
 * share one mapping of the mutex and are the same lock: what one of them has locked, another may unlock. Both kinds of
 * lock are made by their first user and stay in the system until the next boot.
 *
 * **A maker that is killed.** When the process that makes a CRecursiveSemaphore is killed before it has finished, the
 * next user finishes it. When the maker of a CSemaphore is killed, or stopped for more than 1 s, after making the
 * semaphore and before setting it free, the next init() waits for 1 s and replaces the semaphore.
 *
 * **The guard.** A CRecursiveSemaphore is found and made under a guard, the CSemaphore of the library's own file with
 * project 1. Do not use that pair for another lock. The key of a CSemaphore follows the file (its inode), not its path:
 * after the library's file has been replaced, processes started before and after the change have different guards until
 * the next boot, which do not exclude each other while a lock is being made. Locks that exist already are not affected.
 *
 * **Threads, signals, fork.** A CRecursiveSemaphore may be shared between threads, and belongs to the thread that
 * locked it. A CSemaphore belongs to the process; two threads of one process exclude each other with it, but either may
 * unlock. Nothing here may be called from a signal handler. A child of fork() does not own what its parent has locked;
 * it may use the objects that it inherited.
 *
 * **Blocking.** lock() waits without limit. CSemaphore::init() waits at most 5 s, usually not at all; constructing a
 * CRecursiveSemaphore waits at most 15 s. In an event loop use trylock().
 *
 * **Errors.** Failures are written to the system log and reported by results. Nothing is thrown except std::bad_alloc
 * from constructors.
 *
 * **Limits.** All users of a CRecursiveSemaphore must be in one PID namespace: it knows its owner by the thread's
 * number, and a thread of another namespace that has the same number counts as the owner, too. Across PID namespaces
 * use a CSemaphore. A name is "/" and up to 255 further characters. The kernel's limit on System V semaphores holds for
 * CSemaphore (32000 sets on Linux).
 *
 * **Privileges.** A lock serves the processes of one user: both kinds are made with mode 0600. Other users cannot open
 * it (EACCES in the log), and root does not use the locks of ordinary users. An object under a lock's name that another
 * ordinary user has made is not used. A semaphore of that kind is removed and made again if this process has the right
 * to (root has); otherwise init() fails. A shared-memory object of that kind makes the lock unusable, and so does one
 * that its group or others may write: a process that can write a mutex can make its users write anywhere in their
 * memory. An object that has a second name (a hard link) is used only if it is the finished mutex of a lock.
 *
 * A CRecursiveSemaphore needs /dev/shm and the file /usr/lib/libvxutils.so.1.0.0, whatever prefix the library is
 * installed in. The content of the file does not matter, but all users of a lock must see the same file. Without it the
 * constructor writes to the system log, and every call on the object returns -1 at once.
 *
 * **Compatibility.** Behaviour kept on purpose (docs/compatibility.md): Q55 named locks depend on one file name; Q57
 * two failures share one message; Q58 destructors do not unlock.
 */
#ifndef VXUTILS_CSEMAPHORE_H
#define VXUTILS_CSEMAPHORE_H

#include <pthread.h>
#include <sys/types.h>
#include <vxutils/api.h>

#include <cerrno>
#include <memory>
#include <string>

class CRecursiveSemaphore;

/**
 * A binary lock on a System V semaphore. Not recursive: locking it twice never returns. The kernel gives it back when
 * the process that holds it ends, in whatever way.
 */
class VXUTILS_API CSemaphore {
public:
    /**
     * Store which semaphore is meant; nothing is opened.
     * @param pathname an existing file; it is looked at, never opened
     * @param projectID tells several locks of one file apart; its low 8 bits count and must not all be 0
     *
     * An empty path and a project of 0 are logged.
     */
    CSemaphore(const std::string &pathname, int projectID);

    /** Free the object's memory. The semaphore stays in the system, locked if it was locked. */
    virtual ~CSemaphore();

    /**
     * Find the semaphore, or make it, free and for this user only.
     *
     * A semaphore that has never been operated on is not used: its maker gets a second to make it free, then it is
     * replaced. No two processes are let in by that at once. A semaphore that another ordinary user made is replaced at
     * once, or refused where this process may not remove it. Waits at most 5 s.
     * @return 0, or -1 with the reason in the system log
     */
    int init();

    /**
     * Take the lock, waiting without limit; signals do not end the wait. Call init() first.
     * @return 0, or -1 with the reason in the system log
     */
    int lock();

    /**
     * Give the lock back. Only its holder may call this: nothing checks it, and after unlocking a free semaphore two
     * processes can lock it at once.
     * @return 0, or -1 with the reason in the system log
     */
    int unlock();

private:
    friend class CRecursiveSemaphore;

    std::string pathname_;
    int projectId_;
    key_t key_;
    int semId_;
};

/**
 * A named mutex in shared memory: recursive, shared by all processes that use its name, robust. An object whose
 * construction failed is unusable for good: its functions return -1.
 */
class VXUTILS_API CRecursiveSemaphore {
public:
    /** How a lock behaves after the death of its owner. */
    class VXUTILS_API CSemaphoreOptions {
    public:
        /** Who repairs a mutex whose owner has died. */
        enum eConsistentMode : int {
            eConsistentAutomatic = 0, /**< lock() and trylock() do */
            eConsistentManual = 1,    /**< the caller does, by makeConsistent() */
        };

        /** Choose the automatic mode. */
        CSemaphoreOptions();

        /**
         * Choose the mode; any value but eConsistentAutomatic means manual.
         * @param mode  the mode
         */
        void SetConsistentMode(eConsistentMode mode);
        /**
         * Tell the mode.
         * @return eConsistentAutomatic or eConsistentManual
         */
        eConsistentMode GetConsistentMode() const;

    private:
        bool automatic_;
    };

    /**
     * Open or create the lock of this name, with default options.
     * @param name as for @c shm_open(): "/" and up to 255 further characters, none of them "/"
     *
     * Waits while another process creates a lock of any name, for 15 s at most. A failure is logged and leaves the
     * object unusable; so does a shared-memory object of this name that belongs to another ordinary user, or that
     * others may write.
     */
    explicit CRecursiveSemaphore(const std::string &name);

    /**
     * Find or make the lock with @p options, of which a copy is kept.
     * @param name     as above
     * @param options  how the lock behaves; copied
     */
    CRecursiveSemaphore(const std::string &name, const CSemaphoreOptions &options);

    /**
     * Free the object's memory; a locked lock stays locked (Quirk Q58). The same thread can unlock it through another
     * object of the same name. When the thread ends without that, the next lock() returns EOWNERDEAD.
     */
    virtual ~CRecursiveSemaphore();

    CRecursiveSemaphore(const CRecursiveSemaphore &) = delete;
    CRecursiveSemaphore &operator=(const CRecursiveSemaphore &) = delete;

    /**
     * Take the lock, waiting without limit. The owner may lock again and must unlock as often.
     * @retval 0 locked
     * @retval EOWNERDEAD locked too; the previous owner died while holding it. In manual mode makeConsistent() must be
     *         called before unlock(), or the lock is lost for all processes for good
     * @retval ENOTRECOVERABLE not locked: the lock was lost that way. All threads that wait for it get this result.
     * @retval -1 the object is unusable
     * @return otherwise the error number of @c pthread_mutex_lock()
     */
    int lock();

    /**
     * Take the lock if it can be had without waiting.
     * @return as lock(); @c EBUSY when another thread has it
     */
    int trylock();

    /**
     * Give back one lock() of this name by this thread.
     * @return 0; -1 for an unusable object; @c EPERM when another thread, or none, has the lock
     */
    int unlock();

    /**
     * Declare what the lock protects to be in order again, after EOWNERDEAD.
     * @return 0; -1 for an unusable object; @c EINVAL when there is nothing to repair
     */
    int makeConsistent();

private:
    class private_impl;

    int ownerDied();
    void lockLost();

    std::unique_ptr<private_impl> impl_;
};

/**
 * Implementation detail, not API. Defined here only so that lock() and unlock() can be inlined: on the board a pair of
 * them takes 159 instructions instead of 174.
 */
class __attribute__((visibility("hidden"))) CRecursiveSemaphore::private_impl {
public:
    private_impl(const std::string &name, const CSemaphoreOptions &options);
    ~private_impl() { unmap(); }
    private_impl(const private_impl &) = delete;
    private_impl &operator=(const private_impl &) = delete;

private:
    friend class CRecursiveSemaphore;

    bool lockGuard();
    void createOrOpen(const std::string &name);
    void unmap();

    static const std::string SEM_PATHNAME;

    void *address_;
    pthread_mutex_t *mutex_;  // null: unusable
    CSemaphore guard_;
    CSemaphoreOptions options_;
};

inline int CRecursiveSemaphore::lock() {
    pthread_mutex_t *const mutex = impl_->mutex_;
    if (mutex == nullptr) return -1;
    const int result = pthread_mutex_lock(mutex);
    if (result == 0) return 0;
    if (result == EOWNERDEAD) return ownerDied();
    if (result == ENOTRECOVERABLE) lockLost();
    return result;
}

inline int CRecursiveSemaphore::unlock() {
    pthread_mutex_t *const mutex = impl_->mutex_;
    return mutex == nullptr ? -1 : pthread_mutex_unlock(mutex);
}

#endif
