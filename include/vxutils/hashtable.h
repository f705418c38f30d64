/* SPDX-License-Identifier: MIT */
/**
 * @file
 * **Purpose.** Two small hash tables that map a key to an untyped pointer: INUInt32HashTable by a 32-bit number,
 * INStringHashTable by a text. The number of buckets is chosen at construction and never changes. With many more
 * entries than buckets a table still works, but slowly; getLongestChain() shows how slowly. New C++ code inside one
 * program is better served by std::unordered_map, which grows.
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
 * **Untrusted keys.** The hash of a key is fixed and public. An attacker who chooses the keys can choose them so that
 * all are in one bucket, and n such keys cost n * n comparisons. Limit the number of keys that come from outside, or
 * put a secret in front of each.
 *
 * **Order.** Walks go through the buckets in the order of their numbers, and through each bucket from the oldest entry
 * to the newest. Which bucket a key is in depends on the number of buckets.
 *
 * **Ownership.** A table owns its entries and its copies of text keys, never the values: removing an entry or
 * destroying the table does not free them. passAllPointers() with free() does, before that.
 *
 * **Threads, signals, fork.** Nothing is locked. Several threads may read a table at once as long as none changes it;
 * a thread that changes it must be the only one. Not for signal handlers. After fork() the child has a copy of its own.
 *
 * **Blocking.** No call blocks.
 *
 * **Errors.** The constructors and addEntry() throw std::bad_alloc when memory is short; addEntry() leaves the table
 * unchanged then. Lookups and removals return false when the key is not there. A NULL text key is never stored or
 * found; key 0 and a NULL value are ordinary. Other pointer arguments must not be NULL: to ask whether a key is there,
 * pass the address of a variable as well.
 *
 * **Limits.** The number of buckets is the smallest power of two that is not below the request, 2 at least; 0x1FFFFFFF
 * buckets or more are refused. The number of entries and the length of a text key are limited by memory alone. A key
 * may be stored more than once; the oldest entry is found and removed first. Text keys are case-sensitive.
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

/** How a number is mapped to a bucket. There is one way; the tables ignore this argument (Quirk Q11). */
enum HashFunctionType {
    HASH_LOW_BITS /**< the low bits of the key */
};

/**
 * Hash table with 32-bit unsigned keys. Where @c unsigned @c long has 64 bits, the low 32 bits of a key count. A key is
 * in the bucket of its low bits: keys that differ only above those share a bucket.
 */
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
     * @throws std::bad_alloc when memory is short
     */
    bool addEntry(unsigned long key, void *value);

    /**
     * Find the oldest value of a key. Inline, because a call into the library takes longer than the search.
     *
     * @param key   key
     * @param value receives the value; unchanged when there is none
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
     * Call a function for every value, in the order of getFirstNPointers(). It may free the value and
     * look up other keys, but not change the table.
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
     * @throws std::bad_alloc when memory is short
     */
    bool addEntry(const char *key, void *value);

    /**
     * Find the oldest value of a key.
     *
     * @param key   key; NULL is never found
     * @param value receives the value; unchanged when there is none
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
     * Call a function for every value, in the order of getFirstNPointers(). It may free the value and
     * look up other keys, but not change the table.
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
