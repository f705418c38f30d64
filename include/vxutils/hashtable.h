/* SPDX-License-Identifier: MIT */
/**
 * @file
 * **Purpose.** Two small hash tables that map a key to an untyped pointer: by 32-bit number and by text. The number of
 * buckets is chosen at construction and never changes: a table that is too small still works, slowly (getLongestChain()
 * shows it).
 *
 * **Example.**
 * @code
 * struct User {
 *     int logins;
 * };
 * User user = {0};
 * INStringHashTable users(64);
 * users.addEntry("alice", &user);
 * void *found;
 * if (users.getValueFromKey("alice", &found)) static_cast<User *>(found)->logins++;
 * printf("%d\n", user.logins);  // prints 1
 * @endcode
 *
 * **Keys of strangers.** The hash of a key is fixed and public: an attacker who chooses the keys can choose
 * them so that all share a bucket, and n such keys cost n * n comparisons. Do not store keys of strangers as they come:
 * limit their number, or put something in front of each that strangers cannot know.
 *
 * **Order.** Walks go through the buckets in the order of their numbers, and through each bucket from the oldest entry
 * to the newest. Which bucket a key is in depends on the number of buckets.
 *
 * **Ownership.** The table owns its entries and key copies, never the values.
 *
 * **Threads, signals, fork.** A table is used by one thread at a time; several threads may read one that none changes.
 * (ConfigReader in configreader.h may be asked by several threads because it gives each of them Strings of its own.)
 * Not for signal handlers. A forked child has a copy of its own.
 *
 * **Blocking.** Never.
 *
 * **Errors.** Running out of memory throws std::bad_alloc out of the constructors and addEntry(), with the table
 * unchanged. Lookups and removals report by their results. A NULL text key is never stored or found; key 0 and a NULL
 * value are ordinary.
 *
 * **Limits.** The number of buckets is the smallest power of two that is not below the request, 2 at least; 0x1FFFFFFF
 * buckets or more are refused. A key may be stored more than once; the oldest entry is found and removed first.
 *
 * **Privileges.** None.
 *
 * **Compatibility.** Behaviour kept on purpose (docs/compatibility.md): Q11 the hash function asked for is ignored; Q12
 * a key can be stored more than once.
 */
#ifndef VXUTILS_HASHTABLE_H
#define VXUTILS_HASHTABLE_H

#include <stdint.h>
#include <vxutils/api.h>

namespace vx {
struct TextTableFiller; /* the library's own */
}

/** How a number becomes a bucket. There is one way, and the tables do not look at the choice. */
enum HashFunctionType {
    HASH_LOW_BITS /**< the low bits of the key */
};

/** Hash table with 32-bit unsigned keys. Where @c unsigned @c long is wider, every key is cut to 32 bits. */
class VXUTILS_API INUInt32HashTable {
public:
    /**
     * Make an empty table.
     *
     * @param size number of buckets wanted; the smallest power of two that is not below it is taken, 2 at least
     * @throws std::bad_array_new_length when that would be 0x1FFFFFFF buckets or more
     */
    INUInt32HashTable(unsigned long size, HashFunctionType);
    ~INUInt32HashTable();
    INUInt32HashTable(const INUInt32HashTable &) = delete;
    INUInt32HashTable &operator=(const INUInt32HashTable &) = delete;

    /**
     * Store a value under a key, after those already stored under it.
     * @param key    key
     * @param value  any pointer, NULL included
     * @return true
     */
    bool addEntry(unsigned long key, void *value);

    /**
     * Find the oldest value of a key. Compiled into the caller, since a call takes longer than the search.
     *
     * @param key   key
     * @param value receives the value; left unchanged when there is none
     * @return whether there is one
     */
    VXUTILS_API bool getValueFromKey(unsigned long key, void **value) const {
        const uint32_t number = static_cast<uint32_t>(key);
        const Entry *entry = buckets_[number & mask_];
        while (entry != nullptr && entry->key != number) entry = entry->next;
        if (entry == nullptr) return false;
        *value = entry->value;
        return true;
    }

    /**
     * Remove the oldest entry of a key.
     * @param key  key
     * @return whether there was one
     */
    bool removeEntry(unsigned long key);

    /** Remove all entries. */
    void removeAllEntries();

    /**
     * Copy values, bucket after bucket and oldest first within one.
     *
     * @param n   most values to copy
     * @param out receives them; room for @p n pointers
     * @return number of values copied
     */
    unsigned long getFirstNPointers(unsigned long n, void **out) const;

    /**
     * Call a function for every value, in the order of getFirstNPointers(). It may free the value, not change the
     * table.
     * @param fn  called with each value
     */
    void passAllPointers(void (*fn)(void *)) const;

    /**
     * Count the entries, one by one.
     * @return the number of entries
     */
    unsigned long getNumberOfKeys() const;

    /**
     * Count the entries in the fullest bucket.
     * @return the number of entries
     */
    unsigned long getLongestChain() const;

private:
    struct Entry {
        uint32_t key;
        void *value;
        Entry *next;
    };

    Entry **buckets_;
    unsigned int count_;
    unsigned int mask_;
};

/** Hash table with texts as keys, which it copies. Otherwise like INUInt32HashTable. */
class VXUTILS_API INStringHashTable {
public:
    /**
     * Make an empty table.
     *
     * @param size number of buckets wanted; the smallest power of two that is not below it is taken, 2 at least
     * @throws std::bad_array_new_length when that would be 0x1FFFFFFF buckets or more
     */
    explicit INStringHashTable(unsigned long size);
    ~INStringHashTable();
    INStringHashTable(const INStringHashTable &) = delete;
    INStringHashTable &operator=(const INStringHashTable &) = delete;

    /**
     * Store a value under a copy of a key, after those already stored under it.
     * @param key    key
     * @param value  any pointer, NULL included
     * @return true; false for a NULL key
     */
    bool addEntry(const char *key, void *value);

    /**
     * Find the oldest value of a key.
     *
     * @param key   key; NULL is never found
     * @param value receives the value; left unchanged when there is none
     * @return whether there is one
     */
    bool getValueFromKey(const char *key, void **value) const;

    /**
     * Remove the oldest entry of a key.
     * @param key  key
     * @return whether there was one; false for a NULL key
     */
    bool removeEntry(const char *key);

    /** Remove all entries. */
    void removeAllEntries();

    /**
     * Copy values, bucket after bucket and oldest first within one.
     *
     * @param n   most values to copy
     * @param out receives them; room for @p n pointers
     * @return number of values copied
     */
    unsigned long getFirstNPointers(unsigned long n, void **out) const;

    /**
     * Call a function for every value, in the order of getFirstNPointers(). It may free the value, not change the
     * table.
     * @param fn  called with each value
     */
    void passAllPointers(void (*fn)(void *)) const;

    /**
     * Count the entries, one by one.
     * @return the number of entries
     */
    unsigned long getNumberOfKeys() const;

    /**
     * Count the entries in the fullest bucket.
     * @return the number of entries
     */
    unsigned long getLongestChain() const;

private:
    friend struct vx::TextTableFiller;
    struct Entry;

    Entry **buckets_;
    unsigned int count_;
    unsigned int mask_;
};

#endif
