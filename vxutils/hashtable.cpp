// SPDX-License-Identifier: MIT
#include <vxutils/hashtable.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <memory>
#include <new>

struct INUInt32HashTable::Entry {
    uint32_t key;
    void *value;
    Entry *next;
};

struct INStringHashTable::Entry {
    std::unique_ptr<char[]> key;
    void *value;
    Entry *next;
};

namespace {

constexpr uint64_t fewestBuckets = 2;
constexpr uint64_t tooManyBuckets = 0x1FFFFFFF;

// The smallest power of two that is not below the request.
unsigned int bucketCount(uint64_t requested) {
    uint64_t count = fewestBuckets;
    while (count < requested && count < tooManyBuckets) count *= 2;
    if (count >= tooManyBuckets) throw std::bad_array_new_length();
    return static_cast<unsigned int>(count);
}

// The hash takes a byte by multiplying with 1 + x^5 and adding it, as polynomials over two elements modulo x^32. The
// eighth power of that factor is 1 + x^40, which is 1: eight steps leave what was there alone. So whole blocks of eight
// bytes can be added up first, and the eight steps be done once.
uint32_t hashStep(uint32_t hash, unsigned char byte) { return hash ^ byte ^ (hash << 5); }

uint32_t hashText(const char *text, size_t length) {
    uint32_t hash = 0;
    if (length >= 8) {
        unsigned char sum[8];
        uint64_t block, blocks = 0;
        for (; length >= 8; length -= 8, text += 8) {
            std::memcpy(&block, text, sizeof block);
            blocks ^= block;
        }
        std::memcpy(sum, &blocks, sizeof sum);
        for (const unsigned char byte : sum) hash = hashStep(hash, byte);
    }
    for (; length != 0; --length, ++text) hash = hashStep(hash, static_cast<unsigned char>(*text));
    return hash;
}

// What both tables do alike, over buckets that each hold a chain in the order of insertion.
template <typename Entry>
void append(Entry **link, Entry *entry) {
    while (*link != nullptr) link = &(*link)->next;
    *link = entry;
}

template <typename Entry, typename Match>
Entry *find(Entry *entry, Match match) {
    while (entry != nullptr && !match(*entry)) entry = entry->next;
    return entry;
}

template <typename Entry, typename Match>
bool removeFirst(Entry **link, Match match) {
    while (*link != nullptr && !match(**link)) link = &(*link)->next;
    Entry *const entry = *link;
    if (entry == nullptr) return false;
    *link = entry->next;
    delete entry;
    return true;
}

template <typename Entry>
void removeAll(Entry **buckets, unsigned int count) {
    for (unsigned int i = 0; i < count; ++i) {
        Entry *next;
        for (Entry *entry = buckets[i]; entry != nullptr; entry = next) {
            next = entry->next;
            delete entry;
        }
        buckets[i] = nullptr;
    }
}

template <typename Entry>
unsigned long copyValues(Entry *const *buckets, unsigned int count, unsigned long n, void **out) {
    unsigned long copied = 0;
    for (unsigned int i = 0; i < count; ++i) {
        for (const Entry *entry = buckets[i]; entry != nullptr; entry = entry->next) {
            if (copied == n) return copied;
            out[copied++] = entry->value;
        }
    }
    return copied;
}

template <typename Entry>
void passValues(Entry *const *buckets, unsigned int count, void (*fn)(void *)) {
    for (unsigned int i = 0; i < count; ++i) {
        const Entry *next;
        for (const Entry *entry = buckets[i]; entry != nullptr; entry = next) {
            next = entry->next;
            fn(entry->value);
        }
    }
}

template <typename Entry>
unsigned long chainLength(const Entry *entry) {
    unsigned long length = 0;
    for (; entry != nullptr; entry = entry->next) ++length;
    return length;
}

template <typename Entry>
unsigned long countEntries(Entry *const *buckets, unsigned int count) {
    unsigned long entries = 0;
    for (unsigned int i = 0; i < count; ++i) entries += chainLength(buckets[i]);
    return entries;
}

template <typename Entry>
unsigned long longestChain(Entry *const *buckets, unsigned int count) {
    unsigned long longest = 0;
    for (unsigned int i = 0; i < count; ++i) longest = std::max(longest, chainLength(buckets[i]));
    return longest;
}

}  // namespace

INUInt32HashTable::INUInt32HashTable(unsigned long size, HashFunctionType)
    : buckets_(nullptr), count_(bucketCount(size)), mask_(count_ - 1) {
    buckets_ = new Entry *[count_]();
}

INUInt32HashTable::~INUInt32HashTable() {
    removeAllEntries();
    delete[] buckets_;
}

bool INUInt32HashTable::addEntry(unsigned long key, void *value) {
    const auto number = static_cast<uint32_t>(key);
    append(&buckets_[number & mask_], new Entry{number, value, nullptr});
    return true;
}

bool INUInt32HashTable::getValueFromKey(unsigned long key, void **value) const {
    const auto number = static_cast<uint32_t>(key);
    const Entry *const entry = find(buckets_[number & mask_], [number](const Entry &e) { return e.key == number; });
    if (entry == nullptr) return false;
    *value = entry->value;
    return true;
}

bool INUInt32HashTable::removeEntry(unsigned long key) {
    const auto number = static_cast<uint32_t>(key);
    return removeFirst(&buckets_[number & mask_], [number](const Entry &e) { return e.key == number; });
}

void INUInt32HashTable::removeAllEntries() { removeAll(buckets_, count_); }

unsigned long INUInt32HashTable::getFirstNPointers(unsigned long n, void **out) const {
    return copyValues(buckets_, count_, n, out);
}

void INUInt32HashTable::passAllPointers(void (*fn)(void *)) const { passValues(buckets_, count_, fn); }

unsigned long INUInt32HashTable::getNumberOfKeys() const { return countEntries(buckets_, count_); }

unsigned long INUInt32HashTable::getLongestChain() const { return longestChain(buckets_, count_); }

INStringHashTable::INStringHashTable(unsigned long size)
    : buckets_(nullptr), count_(bucketCount(size)), mask_(count_ - 1) {
    buckets_ = new Entry *[count_]();
}

INStringHashTable::~INStringHashTable() {
    removeAllEntries();
    delete[] buckets_;
}

bool INStringHashTable::addEntry(const char *key, void *value) {
    const size_t length = std::strlen(key);
    std::unique_ptr<char[]> copy(new char[length + 1]);
    std::memcpy(copy.get(), key, length + 1);
    append(&buckets_[hashText(key, length) & mask_], new Entry{std::move(copy), value, nullptr});
    return true;
}

bool INStringHashTable::getValueFromKey(const char *key, void **value) const {
    const Entry *const entry = find(buckets_[hashText(key, std::strlen(key)) & mask_],
                                    [key](const Entry &e) { return std::strcmp(e.key.get(), key) == 0; });
    if (entry == nullptr) return false;
    *value = entry->value;
    return true;
}

bool INStringHashTable::removeEntry(const char *key) {
    return removeFirst(&buckets_[hashText(key, std::strlen(key)) & mask_],
                       [key](const Entry &e) { return std::strcmp(e.key.get(), key) == 0; });
}

void INStringHashTable::removeAllEntries() { removeAll(buckets_, count_); }

unsigned long INStringHashTable::getFirstNPointers(unsigned long n, void **out) const {
    return copyValues(buckets_, count_, n, out);
}

void INStringHashTable::passAllPointers(void (*fn)(void *)) const { passValues(buckets_, count_, fn); }

unsigned long INStringHashTable::getNumberOfKeys() const { return countEntries(buckets_, count_); }

unsigned long INStringHashTable::getLongestChain() const { return longestChain(buckets_, count_); }
