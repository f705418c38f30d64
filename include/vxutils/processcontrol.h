/* SPDX-License-Identifier: MIT */
/**
 * @file
 * A snapshot of all processes of the system, for watchdogs and others that find or count processes by name. The plain
 * functions for single processes are in process.h.
 *
 * @code
 * ProcessControl processes;
 * processes.refresh(false);                                     // everything anew
 * int servers = processes.getNumberOfProcessesByName("/usr/sbin/httpd");
 * processes.refresh(true);                                      // what came and went since
 * const ProcessEntry *entry = nullptr;
 * while ((entry = processes.getNextProcessEntryByName("/usr/sbin/", entry)) != nullptr)
 *     printf("%d %s\n", entry->getPid(), entry->getName());
 * @endcode
 *
 * The list changes only in refresh() and cleanup(); entries that were handed out are valid until then. An object and
 * its entries belong to one thread at a time. Nothing is logged, no descriptor stays open. The objects call one another
 * through their virtual operations only, so that a subclass may name, link or find entries its own way.
 */
#ifndef VXUTILS_PROCESSCONTROL_H
#define VXUTILS_PROCESSCONTROL_H

#include <vxutils/api.h>

/** One process of the list. */
class VXUTILS_API ProcessEntry {
public:
    /**
     * A valid entry without successor.
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

    /** Sets the entry that follows, which stays another's property; null for none. */
    virtual void setNext(ProcessEntry *next);

    /** Says whether the process was there at the last refresh. */
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
    /** An empty list. */
    ProcessControl();

    /** Calls cleanup(). */
    virtual ~ProcessControl();

    ProcessControl(const ProcessControl &) = delete;
    ProcessControl &operator=(const ProcessControl &) = delete;

    /**
     * Reads the process table.
     *
     * Without @p incremental the list is made anew. With it, entries of processes that are still there stay as they are
     * (their names are not read again), those of ended ones are deleted and new ones are appended. Each deleted entry
     * takes 1 off the count, whether it had been counted or not.
     *
     * When /proc cannot be read, a full refresh leaves an empty list, an incremental one leaves all entries in place,
     * each marked as not valid.
     * @param incremental true to update the list, false to make it anew.
     */
    virtual void refresh(bool incremental);

    /**
     * Finds entries by the beginning of their names, one after the other.
     * @param prefix what the name begins with; null for any name.
     * @param after the entry to go on behind; null to start with the first one.
     * @return the next such entry; null when there is none or @p after is not in the list.
     */
    virtual ProcessEntry *getNextProcessEntryByName(const char *prefix, const ProcessEntry *after) const;

    /**
     * Counts the entries whose names begin with @p prefix, those that do not count otherwise included.
     * @param prefix what the name begins with; null for any name.
     * @return their number.
     */
    virtual int getNumberOfProcessesByName(const char *prefix) const;

    /**
     * Finds a process by its number.
     * @return the first entry with this number, or null.
     */
    virtual ProcessEntry *getProcessEntryByPid(int pid);

    /** @return the count: processes with a command line that were found, less the entries deleted since. */
    virtual int getNumberOfProcesses() const;

    /** Deletes all entries and sets the count to 0. */
    virtual void cleanup();

    /** @return true when every character of @p s is a decimal digit, also for the empty text; false for null. */
    bool isNumeric(const char *s) const;

private:
    ProcessEntry *head_;
    int count_;
};

#endif
