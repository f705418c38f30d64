// SPDX-License-Identifier: MIT
// Both hash tables through their public interface. Sizes, hashes, models and the lack of memory are in
// hashtable_limits_test.cpp.
#include <vxutils/hashtable.h>

#include <cstring>
#include <string>
#include <vector>

#include "support/hashtable.h"
#include "support/process.h"

namespace {

using namespace vxtest::tables;

TEST(HashTableExample, CountsWords) {
    vxtest::Process program({vxtest::built("examples/hashtable_words"), "up", "down", "left"});
    program.send("up down up\nup right\n");
    program.closeInput();
    EXPECT_EQ(program.readAll(), "3 different words\nup: 3\ndown: 1\nleft: 0\n");
    EXPECT_EQ(program.wait(), 0);
}

// --- numbers as keys

TEST(INUInt32HashTable, FindsWhatWasAdded) {
    INUInt32HashTable table(16, HASH_LOW_BITS);
    EXPECT_TRUE(table.addEntry(1, slot(1)));
    EXPECT_TRUE(table.addEntry(0, slot(0)));
    EXPECT_TRUE(table.addEntry(0xffffffff, slot(2)));
    void *value = nullptr;
    EXPECT_TRUE(table.getValueFromKey(1, &value));
    EXPECT_EQ(value, slot(1));
    EXPECT_TRUE(table.getValueFromKey(0, &value));
    EXPECT_EQ(value, slot(0));
    EXPECT_TRUE(table.getValueFromKey(0xffffffff, &value));
    EXPECT_EQ(value, slot(2));
    value = slot(9);
    EXPECT_FALSE(table.getValueFromKey(17, &value)) << "the same bucket as 1";
    EXPECT_EQ(value, slot(9)) << "untouched";
}

TEST(INUInt32HashTable, ANullValueIsAValue) {
    INUInt32HashTable table(4, HASH_LOW_BITS);
    table.addEntry(3, nullptr);
    void *value = slot(1);
    EXPECT_TRUE(table.getValueFromKey(3, &value));
    EXPECT_EQ(value, nullptr);
    EXPECT_EQ(values(table), std::vector<void *>{nullptr});
}

TEST(INUInt32HashTable, AKeyAddedTwiceIsTwoEntriesAndTheOldestWins) {
    INUInt32HashTable table(4, HASH_LOW_BITS);
    table.addEntry(5, slot(1));
    table.addEntry(5, slot(2));
    EXPECT_EQ(table.getNumberOfKeys(), 2UL);
    void *value = nullptr;
    EXPECT_TRUE(table.getValueFromKey(5, &value));
    EXPECT_EQ(value, slot(1));
    EXPECT_TRUE(table.removeEntry(5));
    EXPECT_TRUE(table.getValueFromKey(5, &value));
    EXPECT_EQ(value, slot(2));
    EXPECT_TRUE(table.removeEntry(5));
    EXPECT_FALSE(table.removeEntry(5));
    EXPECT_EQ(table.getNumberOfKeys(), 0UL);
}

TEST(INUInt32HashTable, RemovesFromTheBeginningMiddleAndEndOfAChain) {
    for (const unsigned long victim : {1UL, 9UL, 17UL}) {
        INUInt32HashTable table(8, HASH_LOW_BITS);
        for (const unsigned long key : {1UL, 9UL, 17UL}) table.addEntry(key, slot(key));
        EXPECT_FALSE(table.removeEntry(25));
        EXPECT_TRUE(table.removeEntry(victim));
        for (const unsigned long key : {1UL, 9UL, 17UL}) {
            void *value = nullptr;
            EXPECT_EQ(table.getValueFromKey(key, &value), key != victim) << key;
        }
        table.addEntry(25, slot(25));
        EXPECT_EQ(values(table).back(), slot(25)) << "new entries are at the end";
        EXPECT_EQ(table.getLongestChain(), 3UL);
    }
}

TEST(INUInt32HashTable, TheLowBitsChooseTheBucket) {
    INUInt32HashTable table(8, HASH_LOW_BITS);
    for (const unsigned long key : {1UL, 9UL, 17UL}) table.addEntry(key, slot(key));
    EXPECT_EQ(table.getLongestChain(), 3UL);
    table.addEntry(2, slot(2));
    table.addEntry(0xfffffff8UL, slot(8));
    EXPECT_EQ(table.getLongestChain(), 3UL);
    EXPECT_EQ(values(table), (std::vector<void *>{slot(8), slot(1), slot(9), slot(17), slot(2)}))
        << "buckets upwards, each from its oldest";
    EXPECT_EQ(passedValues(table), values(table));
}

TEST(INUInt32HashTable, RemoveAllEntriesKeepsTheTableUsable) {
    INUInt32HashTable table(4, HASH_LOW_BITS);
    for (unsigned long key = 0; key < 20; ++key) table.addEntry(key, slot(key));
    table.removeAllEntries();
    EXPECT_EQ(table.getNumberOfKeys(), 0UL);
    EXPECT_EQ(table.getLongestChain(), 0UL);
    EXPECT_TRUE(values(table).empty());
    table.addEntry(3, slot(3));
    EXPECT_EQ(table.getNumberOfKeys(), 1UL);
    table.removeAllEntries();
    table.removeAllEntries();
    EXPECT_EQ(table.getNumberOfKeys(), 0UL);
}

TEST(INUInt32HashTable, GetFirstNPointersStopsAtN) {
    INUInt32HashTable table(4, HASH_LOW_BITS);
    for (unsigned long key = 0; key < 6; ++key) table.addEntry(key, slot(key));
    const std::vector<void *> all = {slot(0), slot(4), slot(1), slot(5), slot(2), slot(3)};
    for (size_t n = 0; n <= 8; ++n) {
        std::vector<void *> out(8, slot(99));
        const size_t copied = std::min<size_t>(n, 6);
        EXPECT_EQ(table.getFirstNPointers(n, out.data()), copied);
        EXPECT_TRUE(std::equal(all.begin(), all.begin() + static_cast<long>(copied), out.begin()));
        EXPECT_EQ(out[copied], slot(99)) << "nothing after the copied pointers";
    }
    EXPECT_EQ(table.getFirstNPointers(0, nullptr), 0UL);
}

TEST(INUInt32HashTable, AnEmptyTableHasNothing) {
    const INUInt32HashTable table(0, HASH_LOW_BITS);
    EXPECT_EQ(table.getNumberOfKeys(), 0UL);
    EXPECT_EQ(table.getLongestChain(), 0UL);
    EXPECT_EQ(table.getFirstNPointers(5, nullptr), 0UL);
    EXPECT_TRUE(passedValues(table).empty());
    void *value = slot(1);
    EXPECT_FALSE(table.getValueFromKey(0, &value));
    EXPECT_EQ(value, slot(1));
}

TEST(INUInt32HashTable, TheWalkMayFreeWhatItIsGiven) {
    INUInt32HashTable table(4, HASH_LOW_BITS);
    for (unsigned long key = 0; key < 50; ++key) table.addEntry(key, new int(7));
    table.passAllPointers([](void *value) { delete static_cast<int *>(value); });
    EXPECT_EQ(table.getNumberOfKeys(), 50UL) << "the entries stay";
}

// --- texts as keys

TEST(INStringHashTable, FindsWhatWasAdded) {
    INStringHashTable table(16);
    EXPECT_TRUE(table.addEntry("alpha", slot(1)));
    EXPECT_TRUE(table.addEntry("beta", slot(2)));
    EXPECT_TRUE(table.addEntry("", slot(3)));
    void *value = nullptr;
    EXPECT_TRUE(table.getValueFromKey("alpha", &value));
    EXPECT_EQ(value, slot(1));
    EXPECT_TRUE(table.getValueFromKey("", &value));
    EXPECT_EQ(value, slot(3));
    value = slot(9);
    EXPECT_FALSE(table.getValueFromKey("alph", &value));
    EXPECT_FALSE(table.getValueFromKey("Alpha", &value));
    EXPECT_FALSE(table.getValueFromKey("alphas", &value));
    EXPECT_EQ(value, slot(9));
}

TEST(INStringHashTable, ANullKeyIsNeitherStoredNorFound) {
    INStringHashTable table(4);
    EXPECT_TRUE(table.addEntry("", slot(1)));
    EXPECT_FALSE(table.addEntry(nullptr, slot(2)));
    EXPECT_EQ(table.getNumberOfKeys(), 1U);
    void *found = slot(3);
    EXPECT_FALSE(table.getValueFromKey(nullptr, &found));
    EXPECT_EQ(found, slot(3));
    EXPECT_FALSE(table.removeEntry(nullptr));
    EXPECT_EQ(table.getNumberOfKeys(), 1U);
}

TEST(INStringHashTable, AKeyAddedTwiceAndRemovedOnceIsStillThere) {
    INStringHashTable table(16);
    table.addEntry("key", slot(1));
    table.addEntry("key", slot(2));
    EXPECT_EQ(table.getNumberOfKeys(), 2UL);
    EXPECT_TRUE(table.removeEntry("key"));
    EXPECT_EQ(table.getNumberOfKeys(), 1UL);
    void *value = nullptr;
    EXPECT_TRUE(table.getValueFromKey("key", &value));
    EXPECT_EQ(value, slot(2)) << "the oldest went first";
    EXPECT_TRUE(table.removeEntry("key"));
    EXPECT_FALSE(table.removeEntry("key"));
}

TEST(INStringHashTable, KeepsItsOwnCopyOfTheKey) {
    INStringHashTable table(16);
    auto *const key = new char[6]{'a', 'l', 'p', 'h', 'a', '\0'};
    table.addEntry(key, slot(1));
    key[0] = 'X';
    void *value = nullptr;
    EXPECT_TRUE(table.getValueFromKey("alpha", &value));
    delete[] key;
    EXPECT_TRUE(table.getValueFromKey("alpha", &value));
    EXPECT_FALSE(table.getValueFromKey("Xlpha", &value));
}

TEST(INStringHashTable, RemovesFromTheBeginningMiddleAndEndOfAChain) {
    for (const char *victim : {"a", "c", "e"}) {  // even letters share one of two buckets
        INStringHashTable table(2);
        for (const char *key : {"a", "c", "e"}) table.addEntry(key, slot(static_cast<size_t>(key[0])));
        ASSERT_EQ(table.getLongestChain(), 3UL);
        EXPECT_FALSE(table.removeEntry("g"));
        EXPECT_TRUE(table.removeEntry(victim));
        EXPECT_EQ(table.getNumberOfKeys(), 2UL);
        for (const char *key : {"a", "c", "e"}) {
            void *value = nullptr;
            EXPECT_EQ(table.getValueFromKey(key, &value), std::strcmp(key, victim) != 0);
        }
    }
}

TEST(INStringHashTable, RemoveAllEntriesAndTheWalk) {
    INStringHashTable table(8);
    for (int i = 0; i < 50; ++i) table.addEntry(std::to_string(i).c_str(), new int(i));
    table.passAllPointers([](void *value) { delete static_cast<int *>(value); });
    EXPECT_EQ(table.getNumberOfKeys(), 50UL);
    table.removeAllEntries();
    EXPECT_EQ(table.getNumberOfKeys(), 0UL);
    EXPECT_EQ(table.getFirstNPointers(10, nullptr), 0UL);
    table.addEntry("again", slot(1));
    EXPECT_EQ(values(table), std::vector<void *>{slot(1)});
}

}  // namespace
