/* SPDX-License-Identifier: MIT */
/**
 * @file
 * **Purpose.** A snapshot of all processes of the system, for watchdogs and others that find or count processes by
 * name. The plain functions for single processes are in process.h.
 *
 * **Example.**
 * @code
 * ProcessControl processes;
 * processes.refresh(false);  // reads all processes
 * const ProcessEntry *entry = nullptr;
 * int found = 0;
 * while ((entry = processes.getNextProcessEntryByName(nullptr, entry)) != nullptr) found++;
 * if (found == processes.getNumberOfProcessesByName(nullptr)) puts("all");  // prints all
 * processes.refresh(true);  // what came and went since
 * @endcode
 *
 * **Ownership.** The object owns its entries. The list changes only in refresh() and cleanup(); entries that were
 * handed out are valid until then.
 *
 * **Threads, signals, fork.** An object and its entries belong to one thread at a time. Not for signal handlers. A
 * forked child has a copy of its own.
 *
 * **Blocking.** refresh() reads the directory /proc and one file for each new process.
 *
 * **Errors.** Nothing is logged. When /proc cannot be read, a full refresh leaves an empty list.
 *
 * **Limits.** An entry's name is its command line with blanks between the arguments, cut after 255 bytes. The objects
 * call one another through their virtual operations only, so that a subclass may name, link or find entries its own
 * way.
 *
 * **Privileges.** /proc must be mounted. Where it is mounted with hidepid, an ordinary user lists only its own
 * processes.
 *
 * **Compatibility.** Behaviour kept on purpose (docs/compatibility.md): Q53 entries without command line are listed and
 * not counted.
 */
#ifndef VXUTILS_PROCESSCONTROL_H
#define VXUTILS_PROCESSCONTROL_H

#include <vxutils/api.h>

/** One process of the list. */
class VXUTILS_API ProcessEntry {
public:
    /**
     * Make a valid entry without successor.
     * @param pid process id.
     * @param name NUL-terminated name, copied; NULL counts as empty.
     */
    ProcessEntry(int pid, const char *name);
    virtual ~ProcessEntry();

    ProcessEntry(const ProcessEntry &) = delete;
    ProcessEntry &operator=(const ProcessEntry &) = delete;

    /** @return the process id. */
    virtual int getPid() const;

    /** @return the name; it belongs to the entry. */
    virtual const char *getName() const;

    /** @return the entry that follows in the list, or null. */
    virtual ProcessEntry *getNext() const;

    /**
     * Set the entry that follows, which stays another's property; null for none.
     * @param next  the entry that follows, or null
     */
    virtual void setNext(ProcessEntry *next);

    /**
     * Say whether the process was there at the last refresh.
     * @param valid  whether the process was there
     */
    virtual void setValid(bool valid);

    /** @return what setValid() was told last, true at first. */
    virtual bool isValid();

private:
    int pid_;
    char *name_;
    ProcessEntry *next_;
    bool valid_;
};

/**
 * The list of all processes, in the order of the directory /proc.
 *
 * An entry's name is its command line with blanks between the arguments, cut after 255 bytes. A process without a
 * command line (a thread of the kernel, a zombie) is named after its number, "[2]"; it is in the list but does not
 * count.
 */
class VXUTILS_API ProcessControl {
public:
    /** Make an empty list. */
    ProcessControl();

    /** Call cleanup(). */
    virtual ~ProcessControl();

    ProcessControl(const ProcessControl &) = delete;
    ProcessControl &operator=(const ProcessControl &) = delete;

    /**
     * Read the process table.
     *
     * Without @p incremental the list is made again. With it, entries of processes that are still there stay as they
     * are (their names are not read again), those of ended ones are deleted and new ones are appended. Each deleted
     * entry takes 1 off the count, whether it had been counted or not.
     *
     * When /proc cannot be read, a full refresh leaves an empty list, an incremental one leaves all entries in place,
     * each marked as not valid.
     * @param incremental true to update the list, false to make it again.
     */
    virtual void refresh(bool incremental);

    /**
     * Find entries by the beginning of their names, one after the other.
     * @param prefix what the name begins with; null for any name.
     * @param after the entry after which to go on; null to start with the first one.
     * @return the next such entry; null when there is none or @p after is not in the list.
     */
    virtual ProcessEntry *getNextProcessEntryByName(const char *prefix, const ProcessEntry *after) const;

    /**
     * Count the entries whose names begin with @p prefix, those that do not count otherwise included.
     * @param prefix what the name begins with; null for any name.
     * @return their number.
     */
    virtual int getNumberOfProcessesByName(const char *prefix) const;

    /**
     * Find a process by its number.
     * @param pid  process id
     * @return the first entry with this number, or null.
     */
    virtual ProcessEntry *getProcessEntryByPid(int pid);

    /** @return the count: processes with a command line that were found, less the entries deleted since. */
    virtual int getNumberOfProcesses() const;

    /** Delete all entries and set the count to 0. */
    virtual void cleanup();

    /**
     * @param s  text, or null
     * @return true when every character of @p s is a decimal digit, also for the empty text; false for null.
     */
    bool isNumeric(const char *s) const;

private:
    ProcessEntry *head_;
    int count_;
};

#endif
