// SPDX-License-Identifier: MIT
// Numbers to text and back: extreme numbers, texts that are too long or no numbers, sizes that would wrap around, and
// comparisons with slow models.
#include <vxutils/numconv.h>

#include <climits>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "support/numconv.h"
#include "support/resources.h"

namespace {

using namespace vxtest::numbers;

// --- printing and reading

// Digits by repeated division.
std::string digitsOf(uint64_t value, unsigned int base) {
    std::string text;
    do {
        text.insert(text.begin(), "0123456789ABCDEF"[value % base]);
        value /= base;
    } while (value != 0);
    return text + (base == 2 ? "b" : base == 8 ? "o" : base == 16 ? "h" : "");
}

TEST(I32toa, WritesTheExtremes) {
    EXPECT_EQ(printed(i32toa, INT32_MIN, 10), "-2147483648");
    EXPECT_EQ(printed(i32toa, INT32_MAX, 10), "2147483647");
    EXPECT_EQ(printed(i32toa, INT32_MAX, 16), "7FFFFFFFh");
    EXPECT_EQ(printed(i32toa, INT32_MAX, 8), "17777777777o");
    EXPECT_EQ(printed(i32toa, INT32_MAX, 2), repeated(31, '1', "b"));
}

TEST(UI32toa, AgreesWithRepeatedDivision) {
    std::mt19937 random(1);
    for (int i = 0; i < 20000; ++i) {
        const uint32_t value = random() >> (random() % 32);
        for (const int base : bases) {
            char text[34];
            u_i32toa(value, text, base);
            ASSERT_EQ(std::string(text), digitsOf(value, base));
        }
    }
}

TEST(ValueOf32, TakesEveryCharacterAsADigit) {
    EXPECT_EQ(valueOf32("1 2"), (10 + (' ' - '0')) * 10 + 2);
    EXPECT_EQ(valueOf32("+5"), ('+' - '0') * 10 + 5);
    EXPECT_EQ(valueOf32("1.5"), (10 + ('.' - '0')) * 10 + 5);
    EXPECT_EQ(valueOf32("--5"), -(('-' - '0') * 10 + 5));
    EXPECT_EQ(valueOf32("9b"), 9) << "also one that the base does not have";
    EXPECT_EQ(valueOf32("29b"), 2 * 2 + 9);
    EXPECT_EQ(valueOf32("9o"), 9);
    EXPECT_EQ(valueOf32("Gh"), 16);
    EXPECT_EQ(valueOf32("gh"), 16);
}

TEST(ValueOf32, WrapsAround) {
    EXPECT_EQ(valueOf32("4294967296"), 0);
    EXPECT_EQ(valueOf32("4294967297"), 1);
    EXPECT_EQ(valueOf32("2147483648"), INT32_MIN);
    EXPECT_EQ(valueOf32("-2147483649"), INT32_MAX);
    EXPECT_EQ(valueOf32("FFFFFFFFh"), -1);
    EXPECT_EQ(valueOf32("-FFFFFFFFh"), 1);
    EXPECT_EQ(valueOf32("123456789ABCDEFh"), static_cast<int32_t>(0x89abcdef));
    EXPECT_EQ(valueOf32(repeated(32, '1', "b").c_str()), -1);
}

TEST(ValueOf32, UsesAtMost33Characters) {
    EXPECT_EQ(valueOf32(repeated(30, '0', "123").c_str()), 123);
    EXPECT_EQ(valueOf32(repeated(30, '0', "1234").c_str()), 123);
    EXPECT_EQ(valueOf32(repeated(30, '0', "12h").c_str()), 0x12) << "the marker is the 33rd character";
    EXPECT_EQ(valueOf32(repeated(30, '0', "123h").c_str()), 123) << "a marker after the limit is cut off";
    EXPECT_EQ(valueOf32(repeated(30, '0', "1bh").c_str()), 0x1b);
    EXPECT_EQ(valueOf32(repeated(30, '0', "10bh").c_str()), 2) << "what is left may end in a marker";
    EXPECT_EQ(valueOf32(("-" + repeated(30, '0', "123")).c_str()), -12) << "the sign is one of the 33";
}

TEST(ValueOf32, ReadsNoByteAfterThe33rd) {
    vxtest::GuardedBuffer guarded(33);
    std::memset(guarded.data(), '1', guarded.size());
    const auto signedValue = valueOf32(guarded.data());
    EXPECT_EQ(static_cast<uint32_t>(signedValue), u_valueOf32(guarded.data()));
    guarded.data()[32] = 'b';
    EXPECT_EQ(u_valueOf32(guarded.data()), UINT32_MAX);
}

TEST(Values, ArePrintedAndReadBackInEveryBase) {
    std::mt19937 random(2);
    for (int i = 0; i < 20000; ++i) {
        const uint32_t value = random() >> (random() % 32);
        char text[34];
        for (const int base : bases) {
            ASSERT_EQ(u_valueOf32(u_i32toa(value, text, base)), value) << text;
            ASSERT_EQ(u_valueOf16(u_i16toa(value & 0xffff, text, base)), value & 0xffff) << text;
        }
        const auto number = static_cast<int32_t>(value);
        ASSERT_EQ(valueOf32(i32toa(number, text, 10)), number) << text;
        ASSERT_EQ(valueOf16(i16toa(static_cast<int16_t>(number), text, 10)), static_cast<int16_t>(number)) << text;
    }
}

// --- checking

TEST(ValidValueOf32, AcceptsTheCanonicalFormOnly) {
    for (const char *text : {"0", "1", "9", "10", "-1", "-10", "2147483647", "-2147483648", "1000000000"}) {
        EXPECT_EQ(verdict(validValueOf32, text), 0) << text;
    }
    for (const char *text : {"",
                             "-",
                             "-0",
                             "00",
                             "007",
                             "-01",
                             "+1",
                             " 1",
                             "1 ",
                             "1\n",
                             "1.0",
                             "0x1F",
                             "10h",
                             "101b",
                             "12d",
                             "2147483648",
                             "-2147483649",
                             "4294967296",
                             "42949672961",
                             "99999999999999999999",
                             "18446744073709551617",
                             "abc",
                             "1a2",
                             "--1",
                             "1-",
                             "\xff",
                             "1\x80"}) {
        EXPECT_EQ(verdict(validValueOf32, text), -1) << text;
    }
    EXPECT_EQ(verdict(validValueOf32, nullptr), -1);
}

// The promise itself: the text is what printing the number gives.
TEST(Validators, AgreeWithPrintingBack) {
    std::mt19937 random(3);
    constexpr char alphabet[] = "0123456789-+ abhox";
    for (int i = 0; i < 200000; ++i) {
        std::string text;
        if (random() % 2 == 0) {
            text = std::to_string(static_cast<int64_t>(random() >> random() % 32) - (random() % 2 == 0 ? 0 : 70000));
            if (random() % 8 == 0) text.insert(random() % (text.size() + 1), 1, alphabet[random() % 18]);
        } else {
            for (auto left = random() % 13; left > 0; --left) text += alphabet[random() % 18];
        }
        int error = 77;
        const int32_t value = validValueOf32(&error, text.c_str());
        ASSERT_EQ(value, valueOf32(text.c_str()));
        ASSERT_EQ(error, std::to_string(value) == text ? 0 : -1) << text;
        const uint32_t size = u_validValueOf32(&error, text.c_str());
        ASSERT_EQ(error, std::to_string(size) == text ? 0 : -1) << text;
        const int16_t narrow = validValueOf16(&error, text.c_str());
        ASSERT_EQ(error, std::to_string(narrow) == text ? 0 : -1) << text;
        const uint16_t narrowSize = u_validValueOf16(&error, text.c_str());
        ASSERT_EQ(error, std::to_string(narrowSize) == text ? 0 : -1) << text;
    }
}

// --- ranges

TEST(RangeValidators, WithoutAnErrorWordReadNothingAtAll) {
    vxtest::GuardedBuffer guarded(1);
    const char *const unreadable = guarded.data() + 1;
    validRangeValueOf32(nullptr, unreadable, 1, 10);
    validRangeValueOf16(nullptr, unreadable, 1, 10);
    u_validRangeValueOf32(nullptr, unreadable, 1, 10);
    u_validRangeValueOf16(nullptr, unreadable, 1, 10);
}

// --- dumps

TEST(DataChunk2String, NeverOverrunsTheAnnouncedRoom) {
    const std::vector<uint32_t> words(64, 0xdeadbeef);
    for (unsigned int byteCount = 0; byteCount <= 100; ++byteCount) {
        for (unsigned int lineBytes = 4; lineBytes <= 120; lineBytes += 4) {
            const std::string text = dumped(words, byteCount, lineBytes);  // the guard page watches
            const unsigned int count = (byteCount + 3) / 4;
            const unsigned int breaks = count * 4 / lineBytes;
            EXPECT_EQ(text.size(), count * 11 + breaks + (count != 0 ? 1 : 0)) << byteCount << " " << lineBytes;
        }
    }
}

TEST(NbrOfChars, OfNoBytesToALineIsTheRoomForOneLine) {
    EXPECT_EQ(nbrOfChars_forDataChunk2String(0, 0), 2U);
    EXPECT_EQ(nbrOfChars_forDataChunk2String(UINT_MAX, 0), UINT_MAX);
    for (unsigned int byteCount = 1; byteCount <= 100; ++byteCount) {
        const std::string text = dumped(std::vector<uint32_t>(25, 0xdeadbeef), byteCount, 0);  // the guard page watches
        EXPECT_EQ(text.size() + 1, nbrOfChars_forDataChunk2String(byteCount, 0)) << byteCount;
        EXPECT_EQ(text.find('\n'), text.size() - 1) << byteCount;
    }
}

TEST(DataChunk2String, ALineThatIsNoWholeNumberOfWordsIsNeverBroken) {
    const std::vector<uint32_t> words(25, 0xdeadbeef);
    for (const unsigned int lineBytes : {1U, 2U, 3U, 5U, 6U, 7U, 10U, 99U, UINT_MAX}) {
        vxtest::GuardedBuffer guarded(nbrOfChars_forDataChunk2String(100, 0));
        dataChunk2String(words.data(), guarded.data(), 100, lineBytes);
        EXPECT_EQ(std::string(guarded.data()), dumped(words, 100, 0)) << lineBytes;
    }
}

TEST(NbrOfChars, DoesNotWrapAround) {
    EXPECT_EQ(nbrOfChars_forDataChunk2String(UINT_MAX, 4), UINT_MAX);
    EXPECT_EQ(nbrOfChars_forDataChunk2String(UINT_MAX, 0x80000000U), UINT_MAX);
    EXPECT_EQ(nbrOfChars_forDataChunk2String(0x40000000U, 4), 0x10000000U * 13 + 1);
}

// --- addresses

TEST(ConvIPStr2IPUl, PartsSpillIntoTheirNeighbours) {
    uint32_t value = 0;
    EXPECT_EQ(convIPStr2IPUl("1.256.0.0", &value), 0);
    EXPECT_EQ(value, 0x02000000U);
    EXPECT_EQ(convIPStr2IPUl("256.0.0.1", &value), 0);
    EXPECT_EQ(value, 1U) << "and out of the word";
    EXPECT_EQ(convIPStr2IPUl("0.0.0.65536", &value), 0);
    EXPECT_EQ(value, 0x00010000U);
}

TEST(ConvIPStr2IPUl, PartsBeyond32BitsCountAsTheLargestNumberOnEveryMachine) {
    const struct {
        const char *text;
        uint32_t value;
    } cases[] = {
        {"4294967295.0.0.0", 0xFF000000U},
        {"4294967296.0.0.0", 0xFF000000U},
        {"99999999999999999999999.0.0.0", 0xFF000000U},
        {"0.0.0.4294967296", 0xFFFFFFFFU},
        {"0.0.0.18446744073709551611", 0xFFFFFFFFU},
        {"0.0.0.-1", 0xFFFFFFFFU},
        {"0.0.0.-5", 0xFFFFFFFBU},
        {"0.0.0.-4294967295", 1U},
        {"0.0.0.-4294967296", 0xFFFFFFFFU},
        {"0.0.0.+7", 7U},
    };
    for (const auto &item : cases) {
        uint32_t value = 0;
        EXPECT_EQ(convIPStr2IPUl(item.text, &value), 0) << item.text;
        EXPECT_EQ(value, item.value) << item.text;
    }
}

TEST(ConvIPStr2IPUl, LeavesTheNumberAloneOnFailure) {
    uint32_t value[2] = {7, 8};
    for (const char *text : {"1.2.3.-", "1.2.3.+", "1 .2.3.4", "1.2.3 .4", "- 1.2.3.4"}) {
        EXPECT_EQ(convIPStr2IPUl(text, &value[0]), -1) << text;
    }
    for (const char *text : {"", "1", "1.2.3", "1.2.3.", "a.b.c.d", "1,2,3,4", "1..2.3"}) {
        EXPECT_EQ(convIPStr2IPUl(text, &value[0]), -1) << text;
    }
    EXPECT_EQ(value[0], 7U);
    EXPECT_EQ(convIPStr2IPUl("1.2.3.4", &value[0]), 0);
    EXPECT_EQ(value[1], 8U) << "32 bits are stored, no more";
}

}  // namespace
