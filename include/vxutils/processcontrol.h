/* SPDX-License-Identifier: MIT */
/**
 * @file
 * **Purpose.** A snapshot of all processes of the system, for programs such as watchdogs that find or count processes
 * by name. The functions for single processes are in process.h.
 *
 * **Example.**
 * @code
 * ProcessControl processes;
 * processes.refresh(false);  // reads all processes
 * const ProcessEntry *entry = nullptr;
 * int found = 0;
 * while ((entry = processes.getNextProcessEntryByName(nullptr, entry)) != nullptr) found++;
 * if (found == processes.getNumberOfProcessesByName(nullptr)) puts("all");  // prints all
 * processes.refresh(true);  // later: drops ended processes, appends new ones
 * @endcode
 *
 * **Ownership.** The object owns its entries. Only refresh() and cleanup() change the list: a pointer to an entry is
 * valid until the next refresh() that does not find its process, the next full refresh(), or cleanup().
 *
 * **Threads, signals, fork.** An object and its entries belong to one thread at a time. Not for signal handlers. After
 * fork() the child has a copy of its own.
 *
 * **Blocking.** refresh() reads the directory /proc and one file for each new process. No other call blocks.
 *
 * **Errors.** Nothing is logged. When /proc cannot be read, a full refresh leaves an empty list, and an incremental one
 * marks all entries as not valid. A process for which memory is short is left out, or has an empty name when only
 * that did not fit; so has a ProcessEntry that a program makes. An incremental refresh in which many processes have
 * come and gone may throw std::bad_alloc; the list can still be used then.
 *
 * **Subclasses.** Both classes use the virtual operations of each other, so a subclass may name, link or find entries
 * in another way.
 *
 * **Limits.** An entry's name is cut after 255 bytes.
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
     * @param pid   process id
     * @param name  name, which is copied; NULL counts as empty
     */
    ProcessEntry(int pid, const char *name);
    virtual ~ProcessEntry();

    ProcessEntry(const ProcessEntry &) = delete;
    ProcessEntry &operator=(const ProcessEntry &) = delete;

    /** @return the process id. */
    virtual int getPid() const;

    /** @return the name, which belongs to the entry; never NULL. */
    virtual const char *getName() const;

    /** @return the entry that follows in the list, or null. */
    virtual ProcessEntry *getNext() const;

    /**
     * Set the entry that follows. The pointer is stored; the entry does not own it.
     * @param next  the entry that follows, or NULL
     */
    virtual void setNext(ProcessEntry *next);

    /**
     * Say whether the last refresh found the process.
     * @param valid  whether it was found
     */
    virtual void setValid(bool valid);

    /** @return what setValid() was told last; true before its first call. */
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
 * command line (a kernel thread, a zombie, a process whose first thread has ended while others still run) is named
 * after its number, "[2]"; it is in the list, but getNumberOfProcesses() does not count it (Quirk Q53).
 */
class VXUTILS_API ProcessControl {
public:
    /** Make an empty list. */
    ProcessControl();

    /** Delete all entries. */
    virtual ~ProcessControl();

    ProcessControl(const ProcessControl &) = delete;
    ProcessControl &operator=(const ProcessControl &) = delete;

    /**
     * Read the process table.
     *
     * A full refresh makes the list again. An incremental one keeps the entries of processes that still run, without
     * reading their names again, deletes those of ended processes and appends new ones. It finds a process by its
     * number: when the kernel has given the number to another process since, the old name stays. Each deleted entry
     * reduces getNumberOfProcesses() by 1, even if it was not counted (Quirk Q53).
     *
     * When /proc cannot be read, a full refresh leaves an empty list, and an incremental one leaves all entries in
     * place, marked as not valid.
     * @param incremental  true to update the list, false to make it again
     */
    virtual void refresh(bool incremental);

    /**
     * Find entries by the beginning of their names, one after the other.
     * @param prefix  what the name begins with; NULL for any name
     * @param after   the entry after which to continue; NULL to start with the first one
     * @return the next such entry; NULL when there is none or @p after is not in the list
     */
    virtual ProcessEntry *getNextProcessEntryByName(const char *prefix, const ProcessEntry *after) const;

    /**
     * Count the entries whose names begin with @p prefix, including those without a command line.
     * @param prefix  what the name begins with; NULL for any name
     * @return their number
     */
    virtual int getNumberOfProcessesByName(const char *prefix) const;

    /**
     * Find a process by its number.
     * @param pid  process id
     * @return the first entry with this number, or NULL
     */
    virtual ProcessEntry *getProcessEntryByPid(int pid);

    /** @return the number of processes with a command line that were found, less that of entries deleted since. */
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
