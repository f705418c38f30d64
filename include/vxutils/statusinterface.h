/* SPDX-License-Identifier: MIT */
/**
 * @file
 * **Purpose.** Manages a daemon's directory in the status tree: small files and links by which other programs learn its
 * state, and FIFOs by which they send it short messages.
 *
 * **Example.**
 * @code
 * struct Commands : StatusFifoObserver {
 *     void fifoDataReceived(bufferevent *, char *data, unsigned long length) override {
 *         printf("%.*s\n", (int)length, data);
 *     }
 * } commands;
 *
 * StatusInterface status;
 * String state;
 * if (status.setup(BASEPATH_STATUS, "/linkmanager")) {    // /tmp/status/linkmanager
 *     status.setStatus("/state", "up");
 *     if (status.getStatus("/state", state)) puts(state.c_str());  // prints up
 *     status.setupIpcRxFifo("/command", &commands);       // after event_init(), before event_base_dispatch()
 * }
 * @endcode
 *
 * **Trees of other users.** A tree that an untrusted user may have made is not used. Every call checks the directories
 * of its path, except those in the root directory, such as "/tmp", which belong to the system. A path is unsafe
 *
 * - if a directory or link on it is in a directory that every user may write to, and belongs neither to root, nor to
 *   the process's user, nor to the owner of the directory that it is in;
 * - for every call except getStatus(), if a link on it belongs neither to root nor to the process's user, unless that
 *   link is in a directory of one of these two that not every user may write to.
 *
 * The call then fails and logs "Refused status path PATH: "NAME" belongs to user UID!" (LOG_ERR). When the value's name
 * itself is such a link, the call fails and nothing is logged.
 *
 * **Ownership.** The object owns its FIFOs and removes their files. Observers belong to the caller and must outlive
 * their FIFOs.
 *
 * **Threads, signals, fork.** An object belongs to the thread that runs libevent's current base, by which the data of
 * FIFOs arrives. End the FIFOs before that base is freed. Files are shared between processes without a lock; by
 * convention each has one writer. Not for signal handlers. A child of fork() must not use its parent's FIFOs.
 *
 * **Blocking.** Calls take as long as the file system does. No call waits for a FIFO.
 *
 * **Errors.** A call that fails returns false or 0. Refused paths, directories that cannot be made and values that are
 * too large are logged (LOG_ERR).
 *
 * **Limits.** A name is appended to the directory as it is, so it begins with "/". getStatus() reads regular files
 * of at most 1 MiB; setStatus() has no limit. FIFO data arrives in pieces of at most 99 bytes; where a message ends is
 * not kept.
 *
 * **Privileges.** Write access to the tree. A tree that root has made is safe, whatever its mode, and so is one that
 * the process's own user has made. Daemons of several users share a tree that root makes at boot, with mode 0755 and
 * their directories in it, or with mode 2775 for a group of theirs: every member of that group is trusted. With mode
 * 1777 or 0777 each uses its own directories and root's only. Directories are made with mode 0777, files with 0644,
 * FIFOs with 0666, all less the umask.
 *
 * **Compatibility.** Behaviour kept on purpose (docs/compatibility.md): Q68 values are written in place; Q69 a failed
 * FIFO leaves its file.
 */
#ifndef VXUTILS_STATUSINTERFACE_H
#define VXUTILS_STATUSINTERFACE_H

#include <vxutils/api.h>
#include <vxutils/vxstring.h>

struct bufferevent;

/** The status trees. */
enum BasePath : int {
    BASEPATH_STATUS = 0,   /**< "/tmp/status": lost at reboot */
    BASEPATH_NVSTATUS = 1, /**< "/nvstatus": survives a reboot */
    BASEPATH_PROC = 2      /**< "/proc": the kernel's */
};

/** Receives what others write into a FIFO. */
class VXUTILS_API StatusFifoObserver {
public:
    virtual ~StatusFifoObserver();

    /**
     * Handle the next piece of the data. Where a message ends is not kept: one may come in several pieces, several may
     * come in one. Deleting the FIFO from here is allowed, and making it again: nothing more of the old one arrives
     * then, and its event has left the base when deleteIpcRxFifo() returns, so that a descriptor which is opened next
     * and gets the same number can be watched at once.
     * @param bev the FIFO's identifier, as a pointer.
     * @param data @p length bytes and a NUL, valid during the call and free to be changed.
     * @param length 1 to 99.
     */
    virtual void fifoDataReceived(struct bufferevent *bev, char *data, unsigned long length) = 0;
};

/** One daemon's directory in a status tree. */
class VXUTILS_API StatusInterface {
public:
    /** Choose no directory yet: names are paths until setup(). */
    StatusInterface();

    /** Call cleanup(). */
    virtual ~StatusInterface();

    StatusInterface(const StatusInterface &) = delete;
    StatusInterface &operator=(const StatusInterface &) = delete;

    /**
     * Choose the directory and make it and its missing parents, mode 0777 less the process's umask.
     * @param basePath tree.
     * @param name daemon's name, beginning with "/"; may name a directory further down.
     * @return true, also when the last component exists and is not a directory: the other calls fail then; false, with
     *         the reason in the system log, when @p basePath is not one of the three (names are paths then, as before
     *         setup()), or a directory cannot be made or is unsafe (it stays chosen).
     */
    bool setup(BasePath basePath, const String &name);

    /**
     * Write a status file, mode 0644 less the umask when it is new. The file is emptied and written in place: a program
     * that reads it at that moment may find it empty. What an untrusted user may have put in its place is refused, by
     * the rules of the functions of file.h that write a file in place. A FIFO that has a reader takes the value as a
     * message, if there is room; a reader that leaves before that makes the call fail (EPIPE) and raises no SIGPIPE.
     * @param name file name.
     * @param value contents, with NULs if there are any; no newline is added.
     * @return true when the file was opened and took every byte.
     */
    bool setStatus(const String &name, const String &value);

    /**
     * Read a status file.
     * @param name file name.
     * @param value set to the contents as they are, NULs and newlines included; empty when the result is false.
     * @return true when the file was opened; a read error counts as its end. False for a FIFO or a device, and for more
     *         than 1 MiB: "Status file PATH holds more than 1048576 bytes!" is then logged (LOG_ERR).
     */
    bool getStatus(const String &name, String &value) const;

    /**
     * Replace a link, or whatever file has its name.
     * @param name name of the link.
     * @param target what it points to; empty to have no link any more.
     * @return true when the link was made, and for an empty @p target, also when there was no link; false on an unsafe
     *         path in any case, and when the link cannot be made (the old one is gone then).
     */
    bool setLink(const String &name, const String &target);

    /**
     * Make a FIFO, mode 0666 less the umask, in place of whatever file has its name, and have its data delivered. Users
     * who may write to it can send anything, and users who may read from it can take messages away: set the umask so.
     * @param name name of the FIFO.
     * @param observer receives the data; it must outlive the FIFO. With NULL the data is discarded.
     *         Libevent is not loaded before the first call, and is that of the caller where the process has one. The
     *         first failure to load it is written to the system log.
     * @return the FIFO's identifier; 0 when a step failed, in particular when libevent has no current base or cannot be
     *         loaded. The file is left in place then.
     */
    unsigned long setupIpcRxFifo(const String &name, StatusFifoObserver *observer);

    /**
     * End a FIFO and remove its file.
     * @param id identifier from setupIpcRxFifo(); one of another object, or unknown, is ignored.
     */
    void deleteIpcRxFifo(unsigned long id);

    /** End every FIFO and remove their files, the newest first. */
    void cleanup();

    /**
     * Hand what a FIFO has received to the observer, called by libevent, in pieces of at most 99 bytes.
     * @param bev the FIFO's buffered event.
     * @param observer its StatusFifoObserver.
     */
    static void STATUS_FIFO_READ_EVENT(struct bufferevent *bev, void *observer);

private:
    struct Fifo;

    String path_;
    Fifo *fifos_;
};

#endif
