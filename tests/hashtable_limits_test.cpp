// SPDX-License-Identifier: MIT
// Hash tables: layout, the rule of sizes, hashes and keys that share one, a model over random operations, the lack of
// memory, and the hash of the library's private tables.
#include <vxutils/hashtable.h>

#include <malloc.h>
#include <sys/mman.h>
#include <sys/random.h>
#include <sys/resource.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <map>
#include <new>
#include <optional>
#include <random>
#include <set>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include "support/call_hooks.h"
#include "support/emulation.h"
#include "support/hashtable.h"
#include "support/model.h"
#include "support/process.h"
#include "vxutils/internal/text_hash.h"

VXTEST_HOOK(ssize_t, getrandom, (void *buffer, size_t size, unsigned int flags), (buffer, size, flags))

// The sanitizer's allocator refuses large blocks, as a machine without memory does.
extern "C" const char *__asan_default_options() { return "allocator_may_return_null=1:max_allocation_size_mb=64"; }

// Buckets are an array: what is asked for tells their number, also where there is not enough memory.
static size_t arrayAsked;
static constexpr size_t largestArray = size_t{1} << 26;

[[gnu::noinline]] void *operator new[](size_t size) {
    arrayAsked = size;
    void *const memory = size <= largestArray ? std::malloc(size) : nullptr;
    if (memory == nullptr) throw std::bad_alloc();
    return memory;
}
[[gnu::noinline]] void operator delete[](void *memory) noexcept { std::free(memory); }
[[gnu::noinline]] void operator delete[](void *memory, size_t) noexcept { std::free(memory); }

namespace {

using namespace vxtest::tables;

static_assert(!std::is_polymorphic_v<INUInt32HashTable> && !std::is_polymorphic_v<INStringHashTable>);
static_assert(!std::is_copy_constructible_v<INUInt32HashTable> && !std::is_copy_assignable_v<INStringHashTable>);

// --- numbers as keys

TEST(INUInt32HashTable, DoesNotLookAtTheHashFunctionAsked) {
    INUInt32HashTable table(8, static_cast<HashFunctionType>(1));
    table.addEntry(1, slot(1));
    table.addEntry(9, slot(9));
    EXPECT_EQ(table.getLongestChain(), 2UL);
}

TEST(INUInt32HashTable, KeysAre32BitsWideEverywhere) {
    INUInt32HashTable table(8, HASH_LOW_BITS);
    const unsigned long wide = static_cast<unsigned long>(0x100000005ULL);  // 5 where unsigned long has 32 bits
    table.addEntry(wide, slot(1));
    void *value = nullptr;
    EXPECT_TRUE(table.getValueFromKey(5, &value));
    EXPECT_TRUE(table.getValueFromKey(wide, &value));
    EXPECT_TRUE(table.getValueFromKey(ULONG_MAX - UINT32_MAX + 5, &value));
    EXPECT_FALSE(table.removeEntry(ULONG_MAX));
    EXPECT_TRUE(table.removeEntry(wide));
    EXPECT_EQ(table.getNumberOfKeys(), 0UL);
    table.addEntry(ULONG_MAX, slot(2));
    EXPECT_TRUE(table.getValueFromKey(UINT32_MAX, &value));
}

// Number of buckets, found from outside: keys 0, 1, 2, ... make the first chain of two when they wrap around.
unsigned long bucketsOf(unsigned long size) {
    INUInt32HashTable table(size, HASH_LOW_BITS);
    unsigned long keys = 0;
    while (table.getLongestChain() < 2) table.addEntry(keys++, nullptr);
    return keys - 1;
}

TEST(INUInt32HashTable, TakesTheSmallestPowerOfTwoThatIsNotBelowTheRequest) {
    EXPECT_EQ(bucketsOf(0), 2UL);
    EXPECT_EQ(bucketsOf(1), 2UL);
    EXPECT_EQ(bucketsOf(2), 2UL);
    EXPECT_EQ(bucketsOf(3), 4UL);
    EXPECT_EQ(bucketsOf(4), 4UL);
    EXPECT_EQ(bucketsOf(5), 8UL);
    EXPECT_EQ(bucketsOf(8), 8UL);
    EXPECT_EQ(bucketsOf(9), 16UL);
    EXPECT_EQ(bucketsOf(1000), 1024UL);
    EXPECT_EQ(bucketsOf(1024), 1024UL);
    EXPECT_EQ(bucketsOf(1025), 2048UL);
}

// The bytes of the bucket array that a table asks for; 0 when its size is refused.
template <typename Make>
uint64_t bucketBytes(Make make, unsigned long size) {
    arrayAsked = 0;
    try {
        make(size);
    } catch (const std::bad_array_new_length &) {
        EXPECT_EQ(arrayAsked, 0U) << "refused before any memory is asked for";
        return 0;
    } catch (const std::bad_alloc &) {
        EXPECT_GT(arrayAsked, largestArray);
    }
    return arrayAsked;
}

TEST(INUInt32HashTable, TheRuleHoldsAroundEveryPowerOfTwoUpToTheLastThatIsTaken) {
    const auto numbers = [](unsigned long size) { const INUInt32HashTable table(size, HASH_LOW_BITS); };
    const auto texts = [](unsigned long size) { const INStringHashTable table(size); };
    for (unsigned int bit = 2; bit < 32; ++bit) {
        const unsigned long power = 1UL << bit;
        const auto bytes = [](uint64_t buckets) { return buckets < 0x1fffffff ? buckets * sizeof(void *) : 0; };
        for (const auto &[size, buckets] :
             {std::pair<unsigned long, uint64_t>{power - 1, power}, {power, power}, {power + 1, uint64_t{power} * 2}}) {
            EXPECT_EQ(bucketBytes(numbers, size), bytes(buckets)) << size;
            EXPECT_EQ(bucketBytes(texts, size), bytes(buckets)) << size;
        }
    }
}

TEST(INUInt32HashTable, SizesThatCannotBeHadAreRefusedAtOnce) {
    std::vector<unsigned long> sizes = {0x10000001UL, 0x1fffffffUL, 0x20000000UL, 0x40000000UL,     0x80000000UL,
                                        0x80000001UL, 0xffffffffUL, ULONG_MAX,    ULONG_MAX / 2 + 1};
    if constexpr (sizeof(long) > 4) sizes.push_back(ULONG_MAX - UINT32_MAX);  // its low 32 bits are 0
    for (const unsigned long size : sizes) {
        EXPECT_THROW(INUInt32HashTable(size, HASH_LOW_BITS), std::bad_array_new_length) << size;
        EXPECT_THROW(INStringHashTable{size}, std::bad_array_new_length) << size;
    }
}

// Both tables do the same, with texts for the numbers. Half of the numbers have only zeros in the bits that choose the
// bucket.
TEST(INUInt32HashTableModel, AgreesOverRandomOperations) {
    vxtest::ModelSteps steps("tables", 50000);
    const auto anyKey = [&] { return static_cast<uint32_t>(steps.below(64) * (steps.oneIn(2) ? 1 : 0x01000000)); };
    INUInt32HashTable numbers(32, HASH_LOW_BITS);
    INStringHashTable texts(32);
    std::multimap<uint32_t, void *> model;  // equal keys in order of insertion
    while (steps.next()) {
        const uint32_t key = anyKey();
        if (steps.oneIn(2)) {
            void *const value = slot(steps.below(1000));
            numbers.addEntry(key, value);
            texts.addEntry(std::to_string(key).c_str(), value);
            model.emplace(key, value);
        } else {
            const auto found = model.lower_bound(key);
            const bool known = found != model.end() && found->first == key;
            ASSERT_EQ(numbers.removeEntry(key), known);
            ASSERT_EQ(texts.removeEntry(std::to_string(key).c_str()), known);
            if (known) model.erase(found);
        }
        const uint32_t asked = anyKey();
        const auto found = model.lower_bound(asked);
        const bool known = found != model.end() && found->first == asked;
        void *value = nullptr, *ofText = nullptr;
        ASSERT_EQ(numbers.getValueFromKey(asked, &value), known);
        ASSERT_EQ(value, known ? found->second : nullptr);
        ASSERT_EQ(texts.getValueFromKey(std::to_string(asked).c_str(), &ofText), known);
        ASSERT_EQ(ofText, value);
        if (steps.left() % 1000 == 0) {
            ASSERT_EQ(numbers.getNumberOfKeys(), model.size());
            ASSERT_EQ(texts.getNumberOfKeys(), model.size());
            numbers.removeAllEntries();
            texts.removeAllEntries();
            model.clear();
        }
    }
}

// --- texts as keys

TEST(INStringHashTable, SizesFollowTheSameRule) {
    for (const unsigned long size : {0UL, 1UL, 3UL, 1000UL}) {
        INStringHashTable table(size);
        for (int i = 0; i < 100; ++i) table.addEntry(std::to_string(i).c_str(), slot(static_cast<size_t>(i)));
        EXPECT_EQ(table.getNumberOfKeys(), 100UL);
        for (int i = 0; i < 100; ++i) {
            void *value = nullptr;
            EXPECT_TRUE(table.getValueFromKey(std::to_string(i).c_str(), &value));
            EXPECT_EQ(value, slot(static_cast<size_t>(i)));
        }
    }
}

// Which bucket a key is in, found from outside: marks made of the keys' own hashes are in every bucket.
TEST(INStringHashTable, TheHashChoosesTheBucket) {
    std::mt19937 random(5);
    constexpr uint32_t buckets = 256;
    for (size_t length = 0; length <= 40; ++length) {
        INStringHashTable table(buckets);
        std::vector<std::pair<uint32_t, void *>> expected;
        for (size_t i = 0; i < 200; ++i) {
            std::string key(length, '\0');
            for (char &c : key) c = static_cast<char>(1 + random() % 255);
            table.addEntry(key.c_str(), slot(i));
            expected.emplace_back(referenceHash(key) & (buckets - 1), slot(i));
        }
        std::stable_sort(expected.begin(), expected.end(),
                         [](const auto &a, const auto &b) { return a.first < b.first; });
        std::vector<void *> order;
        for (const auto &one : expected) order.push_back(one.second);
        ASSERT_EQ(values(table), order) << "keys of " << length << " bytes";
        EXPECT_EQ(passedValues(table), order);
    }
}

// The table of most buckets that this test can afford shows all bits of the hash that matter up to there.
TEST(INStringHashTable, TheHighBitsOfTheHashAreRight) {
    std::mt19937 random(6);
    constexpr uint32_t buckets = 1U << 23;
    INStringHashTable table(buckets);
    std::vector<std::pair<uint32_t, void *>> expected;
    for (size_t i = 0; i < 500; ++i) {
        std::string key(1 + random() % 64, '\0');
        for (char &c : key) c = static_cast<char>(1 + random() % 255);
        table.addEntry(key.c_str(), slot(i));
        expected.emplace_back(referenceHash(key) & (buckets - 1), slot(i));
    }
    std::stable_sort(expected.begin(), expected.end(), [](const auto &a, const auto &b) { return a.first < b.first; });
    std::vector<void *> order;
    for (const auto &one : expected) order.push_back(one.second);
    EXPECT_EQ(values(table), order);
}

void expectToldApart(const std::string &one, const std::string &other) {
    ASSERT_EQ(referenceHash(one), referenceHash(other));
    INStringHashTable table(64);
    table.addEntry(one.c_str(), slot(1));
    void *value = nullptr;
    EXPECT_FALSE(table.getValueFromKey(other.c_str(), &value)) << one << " is not " << other;
    EXPECT_FALSE(table.removeEntry(other.c_str())) << one << " is not " << other;
    table.addEntry(other.c_str(), slot(2));
    EXPECT_TRUE(table.getValueFromKey(other.c_str(), &value));
    EXPECT_EQ(value, slot(2)) << other;
    EXPECT_TRUE(table.getValueFromKey(one.c_str(), &value));
    EXPECT_EQ(value, slot(1)) << one;
    EXPECT_TRUE(table.removeEntry(other.c_str()));
    EXPECT_EQ(values(table), std::vector<void *>{slot(1)});
}

TEST(INStringHashTable, DifferentKeysOfOneHashAreToldApart) {
    std::string letters;
    for (size_t i = 0; i < 40; ++i) letters += static_cast<char>('a' + i % 26);
    for (size_t length = 2; length <= letters.size(); ++length) {
        const std::string key = letters.substr(0, length);
        for (size_t second = 1; second < length; ++second) {
            for (size_t first = 0; first < second; ++first) {
                // Eight steps leave the hash as it was, one more adds bit 5 to bit 0, one less is undone by it.
                const size_t steps = (second - first) % 8;
                if (steps > 1 && steps < 7) continue;
                std::string other = key;
                other[first] = static_cast<char>(other[first] ^ (steps == 7 ? 0x21 : 0x01));
                other[second] = static_cast<char>(other[second] ^ (steps == 1 ? 0x21 : 0x01));
                expectToldApart(key, other);
            }
        }
    }
}

TEST(INStringHashTable, LongKeysAreWhole) {
    INStringHashTable table(4);
    const std::string two(100000, 'x');
    std::string one = two;
    one.back() = '1';
    table.addEntry(one.c_str(), slot(1));
    void *value = nullptr;
    EXPECT_TRUE(table.getValueFromKey(one.c_str(), &value));
    EXPECT_FALSE(table.getValueFromKey(two.c_str(), &value));
    EXPECT_TRUE(table.removeEntry(one.c_str()));
}

// Bytes that malloc() gave out and did not get back. What it keeps for a thread counts as given out.
size_t allocatedBytes() { return ::mallinfo2().uordblks; }

TEST(INUInt32HashTable, ItsDestructionFreesItsEntries) {
    const size_t before = allocatedBytes();
    for (int round = 0; round < 200; ++round) {
        INUInt32HashTable table(4, HASH_LOW_BITS);
        for (unsigned long key = 0; key < 50; ++key) table.addEntry(key, slot(key));
    }
    EXPECT_LT(allocatedBytes(), before + 65536) << "an entry has 16 bytes at least";
}

TEST(INStringHashTable, ItsDestructionFreesItsEntries) {
    const size_t before = allocatedBytes();
    for (int round = 0; round < 200; ++round) {
        INStringHashTable table(4);
        for (int key = 0; key < 50; ++key) table.addEntry(std::to_string(key).c_str(), slot(0));
    }
    EXPECT_LT(allocatedBytes(), before + 65536) << "an entry has 16 bytes at least";
}

// A key of 80 MiB that no allocator has seen.
struct HugeKey {
    static constexpr size_t size = size_t{80} << 20;
    char *const text =
        static_cast<char *>(::mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));

    HugeKey() {
        if (text == MAP_FAILED) throw std::bad_alloc();
        std::memset(text, 'x', size - 1);
    }
    ~HugeKey() { ::munmap(text, size); }
    HugeKey(const HugeKey &) = delete;
    HugeKey &operator=(const HugeKey &) = delete;
};

// The sanitizer's allocator has its limit; the plain one needs to be told that the address space ends here.
void endAddressSpace() {
#ifndef __SANITIZE_ADDRESS__
    rlimit limit{};
    ASSERT_EQ(::getrlimit(RLIMIT_AS, &limit), 0);
    limit.rlim_cur = 0;  // a hard limit that is there already cannot be raised
    ASSERT_EQ(::setrlimit(RLIMIT_AS, &limit), 0);
#endif
}

TEST(INStringHashTable, WithoutMemoryItThrowsAndStaysAsItWas) {
    if (vxtest::emulated()) GTEST_SKIP() << "memory limits hold for the emulator, not for the program in it";
    const HugeKey key;
    EXPECT_EQ(vxtest::inChild([&] {
                  INStringHashTable table(4);
                  table.addEntry("kept", slot(1));
                  endAddressSpace();
                  try {
                      table.addEntry(key.text, slot(2));
                      return 1;
                  } catch (const std::bad_alloc &) {
                  }
                  void *value = nullptr;
                  if (table.getNumberOfKeys() != 1 || !table.getValueFromKey("kept", &value)) return 2;
                  return value == slot(1) ? 0 : 3;
              }),
              0);
}

// ---- the hash of the library's private tables, vxutils/internal/text_hash.h

TEST(TextHash, ATextHasOneHashWhereverItStands) {
    char buffer[600];
    for (size_t length = 0; length < 560; ++length) {
        std::string text;
        for (size_t i = 0; i < length; ++i) text += static_cast<char>('a' + i * 7 % 53);
        const uint32_t hash = vx::textHash(text.data(), length);
        for (const size_t offset : {1U, 2U, 5U, 8U}) {
            std::memcpy(buffer + offset, text.data(), length);
            buffer[offset + length] = static_cast<char>(offset);
            EXPECT_EQ(vx::textHash(buffer + offset, length), hash) << length;
        }
    }
}

TEST(TextHash, HasASecretBeforeTheKernelHasRandomBits) {
    const vxtest::Hooked early(vxtest::hooks::getrandom, [](void *, size_t, unsigned int) -> std::optional<ssize_t> {
        errno = EAGAIN;
        return -1;
    });
    errno = EDOM;
    const vx::TextHashSecret one, other;
    EXPECT_EQ(errno, EDOM);
    std::set<uint32_t> words(one.words.begin(), one.words.end());
    words.insert(other.words.begin(), other.words.end());
    EXPECT_GT(words.size(), one.words.size()) << "of " << 2 * one.words.size() << ", of which few may be alike";
    EXPECT_EQ(words.count(0), 0U);
    EXPECT_NE(vx::textHash("a key", 5, one), vx::textHash("a key", 5, other));
}

TEST(TextHash, EveryByteAndTheLengthCount) {
    for (const size_t length : {0U, 1U, 2U, 3U, 4U, 5U, 7U, 8U, 9U, 15U, 16U, 17U, 247U, 248U, 249U, 256U, 500U}) {
        std::string text(length, 'k');
        std::set<uint32_t> hashes{vx::textHash(text.data(), length), vx::textHash((text + 'k').data(), length + 1)};
        for (size_t i = 0; i < length; ++i) {
            text[i] ^= static_cast<char>(0x80);
            hashes.insert(vx::textHash(text.data(), length));
            text[i] ^= static_cast<char>(0x80);
        }
        const size_t chance = length > 17 ? 1 : 0;  // two of many may meet, once in 30,000 runs
        EXPECT_GE(hashes.size() + chance, length + 2) << length;
    }
}

TEST(TextHash, ShortTextsAreDifferentNumbers) {
    for (size_t length = 1; length <= 8; ++length) {
        std::string text(length, 'k');
        std::set<uint64_t> numbers{vx::shortBlock(text.data(), length)};
        for (size_t i = 0; i < length; ++i) {
            for (int byte = 0; byte < 256; ++byte) {
                text[i] = static_cast<char>(byte);
                numbers.insert(vx::shortBlock(text.data(), length));
            }
            text[i] = 'k';
        }
        EXPECT_EQ(numbers.size(), 255 * length + 1) << length;
    }
}

// What collides differs from process to process.
TEST(TextHash, TheHashDependsOnASecret) {
    const auto hashOf = [](const vx::TextHashSecret &secret, const std::string &text) {
        return vx::textHash(text.data(), text.size(), secret);
    };
    const vx::TextHashSecret one;
    const vx::TextHashSecret other;
    EXPECT_NE(one.words, other.words);
    EXPECT_NE(one.factor, other.factor);
    int same = 0;
    for (int i = 0; i < 1000; ++i) {
        const std::string text = "interface." + std::to_string(i) + ".address";
        if (hashOf(one, text) == hashOf(other, text)) ++same;
    }
    EXPECT_LT(same, 3);
}

// Keys that collide whatever the secret when a hash only multiplies and adds, and those that programs use.
TEST(TextHash, FamiliesOfKeysAreSpread) {
    constexpr size_t count = 16384;
    const auto number = [](size_t i) { return std::to_string(10000000 + i); };
    const auto flipped = [](size_t i) {
        std::string text(15 * 16, 'k');
        for (size_t bit = 0; bit < 15; ++bit) {
            if ((i >> bit & 1) != 0) text[16 * bit + 7] = text[16 * bit + 11] = text[16 * bit + 15] = '\xEB';
        }
        return text;
    };
    const std::vector<std::function<std::string(size_t)>> families{
        number,
        [&](size_t i) { return number(i) + number(i); },
        [&](size_t i) { return "interface." + std::to_string(i) + ".address"; },
        [&](size_t i) { return std::string(300, 'x') + number(i); },
        [&](size_t i) { return number(i) + std::string(300, 'x'); },
        flipped,
    };
    for (size_t family = 0; family < families.size(); ++family) {
        std::vector<int> cells(2 * count);
        for (size_t i = 0; i < count; ++i) {
            const std::string key = families[family](i);
            ++cells[vx::textHash(key.data(), key.size()) % cells.size()];
        }
        EXPECT_LT(*std::max_element(cells.begin(), cells.end()), 16) << family;
    }
}

}  // namespace
