/* SPDX-License-Identifier: MIT */
/**
 * @file
 * **Purpose.** ConfigReader reads a "key=value" file once and answers questions about it. cfread.h reads files that
 * include each other.
 *
 * **Example.**
 * @code
 * ConfigReader config;
 * config.initialize("/etc/gateway/leds.conf", 64);
 * long count = config.getValueAsInt("led.count", 0);
 * for (long i = 0; i < count; i++) puts(config.getIndexedValue("led.%lu.color", i, "off").c_str());
 * @endcode
 *
 * **Syntax.** Lines that begin with "#" or hold no "=" are skipped. The key is before the first "="; blanks and control
 * characters (codes up to 32) are removed from it wherever they are. The value is after it, loses them at both ends and
 * may be empty. The first of several entries of one key counts; a message on standard output names each later one.
 * Control bytes in what messages show are escaped as \\xNN.
 *
 * **Ownership.** The reader owns its values; references are valid until cleanup(), initialize() or the end of the
 * reader. Copies outlive it.
 *
 * **Threads, signals, fork.** Several threads may call the const functions at once after initialize() has returned, as
 * long as none calls another function. Each thread gets a String of its own, which it may copy: as with any String,
 * copies belong to that thread. Not for signal handlers. A forked child has a copy of its own.
 *
 * **Blocking.** initialize() takes as long as the file system does. The other functions do not block.
 *
 * **Errors.** When initialize() fails it returns false and prints two lines on standard output. std::bad_alloc is
 * thrown when memory is short.
 *
 * **Limits.** Lines have at most 1022 bytes; what is longer counts as another line, and a NUL ends a line early.
 *
 * **Privileges.** Read access to the file.
 *
 * **Compatibility.** Behaviour kept on purpose (docs/compatibility.md): Q39 the second of two leading blanks stays in
 * the key; Q95 the rest of a long line is a line of its own.
 */
#ifndef VXUTILS_CONFIGREADER_H
#define VXUTILS_CONFIGREADER_H

#include <vxutils/api.h>
#include <vxutils/vxstring.h>

class INStringHashTable;

/** Reader of a configuration file; see the page for the syntax. */
class VXUTILS_API ConfigReader {
public:
    /** Make an empty reader: every function returns its default value. */
    ConfigReader();
    /** Free all values. */
    virtual ~ConfigReader();

    /**
     * Call cleanup() and read a file.
     *
     * @param fileName  name of the file; may be a value of this reader
     * @param tableSize number of buckets to begin with, about the number of keys
     * @return true; false when the file cannot be opened. Two lines on standard output then say so, and the reader is
     *         empty.
     * @throws std::bad_array_new_length when @p tableSize is beyond what a table can have (hashtable.h)
     */
    virtual bool initialize(String const &fileName, unsigned long tableSize);

    /** Free all values. References to them become invalid; copies do not. */
    virtual void cleanup();

    /**
     * Tell the value of a key.
     * @param key           key, case-sensitive
     * @param defaultValue  result when there is no value
     * @return the value, valid until cleanup(); a reference to @p defaultValue itself when there is none, so do not
     *         keep the result when that is a temporary. Another thread may read the text of the result. To copy the
     *         String, it calls getValue() itself.
     */
    virtual String const &getValue(String const &key, String const &defaultValue) const;

    /**
     * Tell the value of a key as a number.
     * @param key           key
     * @param defaultValue  result when there is no value
     * @return 1 for "on" and 0 for "off" in any case of letters, otherwise what valueOf32() (numconv.h) makes of the
     *         value; @p defaultValue when there is none
     */
    virtual long getValueAsInt(String const &key, long defaultValue) const;

    /**
     * Tell a value as getValue() does, of one of several keys.
     *
     * @param key   pattern with one conversion for an unsigned long, "%lu"; it is not checked, so it must not come from
     *              outside
     * @param index the number that goes there
     * @param defaultValue  result when there is no value
     * @return as getValue()
     */
    virtual String const &getIndexedValue(String const &key, unsigned long index, String const &defaultValue) const;

    /**
     * Tell a value as getValueAsInt() does, of one of several keys, as in getIndexedValue().
     * @param key           pattern with one "%lu", as in getIndexedValue()
     * @param index         number for the pattern
     * @param defaultValue  result when there is no value
     * @return as getValueAsInt()
     */
    virtual long getIndexedValueAsInt(String const &key, unsigned long index, long defaultValue) const;

    /**
     * Add a copy of a value. initialize() must have been called, with success or without.
     * @param key    key, taken as it is
     * @param value  its value
     * @return true; false when the key has a value already (a line on standard output says so), or before initialize()
     *         and after cleanup()
     */
    bool add(String const &key, String const &value);

    /**
     * Copy a part of a text without the blanks around it.
     *
     * @param dst     receives the text and its NUL
     * @param dstSize bytes of @p dst
     * @param src     text; its leading blanks are skipped first
     * @param n       characters to take from there; blanks at their end are not copied
     * @return false, and nothing is written, when @p src has fewer than @p n characters after its blanks, when @p n is
     *         negative or not below @p dstSize, or for NULL
     */
    bool strcpystrip(char *dst, int dstSize, char *src, int n);

    /**
     * Find a character in a text.
     * @param str  NUL-terminated text
     * @param c    character to look for; NUL is not found
     * @return index of the first @p c, -1 when there is none
     */
    int indexof(char *str, char c);

    ConfigReader(const ConfigReader &) = delete;
    ConfigReader &operator=(const ConfigReader &) = delete;

private:
    INStringHashTable *table_; /* NULL before initialize() and after cleanup() */
};

#endif
