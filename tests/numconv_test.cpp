// SPDX-License-Identifier: MIT
#include <vxutils/numconv.h>

#include <climits>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "support/process.h"
#include "support/resources.h"

namespace {

constexpr char untouched = '\x5a';
constexpr int bases[] = {2, 8, 10, 16};

// What a printing function writes, into a block of exactly 34 bytes, as the header says; "<null>" when it refuses.
template <typename Print, typename Value>
std::string printed(Print print, Value value, int base) {
    vxtest::GuardedBuffer guarded(34);
    std::memset(guarded.data(), untouched, guarded.size());
    const char *const result = print(value, guarded.data(), base);
    if (result == nullptr) {
        EXPECT_EQ(guarded.data()[0], untouched) << "a refused number is not written";
        return "<null>";
    }
    EXPECT_EQ(result, guarded.data());
    return result;
}

// `count` times a character, and a tail.
std::string repeated(size_t count, char c, const char *tail) {
    std::string text;
    while (text.size() < count) text += c;
    return text.append(tail);
}

// Digits by repeated division.
std::string digitsOf(uint64_t value, unsigned int base) {
    std::string text;
    do {
        text.insert(text.begin(), "0123456789ABCDEF"[value % base]);
        value /= base;
    } while (value != 0);
    return text + (base == 2 ? "b" : base == 8 ? "o" : base == 16 ? "h" : "");
}

TEST(BinToHexLut, HoldsTwoLowerCaseDigitsAndATerminatorForEachByte) {
    static_assert(sizeof binToHexLut == 768);
    for (unsigned int byte = 0; byte < 256; ++byte) {
        char expected[3];
        std::snprintf(expected, sizeof expected, "%02x", byte);
        EXPECT_EQ(std::memcmp(binToHexLut[byte], expected, 3), 0) << byte;
    }
}

// ---- Printing ----

TEST(I32toa, WritesEachBase) {
    EXPECT_EQ(printed(i32toa, 5, 2), "101b");
    EXPECT_EQ(printed(i32toa, 15, 8), "17o");
    EXPECT_EQ(printed(i32toa, 255, 16), "FFh");
    EXPECT_EQ(printed(i32toa, 42, 10), "42");
    EXPECT_EQ(printed(i32toa, -42, 10), "-42");
}

TEST(I32toa, WritesZeroAsOneDigit) {
    EXPECT_EQ(printed(i32toa, 0, 10), "0");
    EXPECT_EQ(printed(i32toa, 0, 2), "0b");
    EXPECT_EQ(printed(i32toa, 0, 8), "0o");
    EXPECT_EQ(printed(i32toa, 0, 16), "0h");
}

TEST(I32toa, WritesTheExtremes) {
    EXPECT_EQ(printed(i32toa, INT32_MIN, 10), "-2147483648");
    EXPECT_EQ(printed(i32toa, INT32_MAX, 10), "2147483647");
    EXPECT_EQ(printed(i32toa, INT32_MAX, 16), "7FFFFFFFh");
    EXPECT_EQ(printed(i32toa, INT32_MAX, 8), "17777777777o");
    EXPECT_EQ(printed(i32toa, INT32_MAX, 2), repeated(31, '1', "b"));
}

TEST(I32toa, RefusesNegativeNumbersInBases8And16) {
    for (const int value : {-1, -255, INT32_MIN}) {
        EXPECT_EQ(printed(i32toa, value, 8), "<null>");
        EXPECT_EQ(printed(i32toa, value, 16), "<null>");
        EXPECT_NE(printed(i32toa, value, 2), "<null>") << "of any content, but within 34 bytes";
    }
}

template <typename Print>
void expectBasesAndNullRefused(Print print) {
    for (const int base : {3, 0, 1, -1, 7, 9, 11, 15, 17, 64, -10, INT_MAX, INT_MIN}) {
        EXPECT_EQ(printed(print, 10, base), "<null>") << base;
    }
    for (const int base : bases) EXPECT_EQ(print(10, nullptr, base), nullptr);
    EXPECT_EQ(print(10, nullptr, 3), nullptr);
}

TEST(PrintingFunctions, RefuseOtherBasesAndANullBuffer) {
    expectBasesAndNullRefused(i32toa);
    expectBasesAndNullRefused(u_i32toa);
    expectBasesAndNullRefused(i16toa);
    expectBasesAndNullRefused(u_i16toa);
    EXPECT_EQ(printed(i32toa, -10, 3), "<null>");
    EXPECT_EQ(i32toa(-10, nullptr, 10), nullptr);
    EXPECT_EQ(i16toa(-10, nullptr, 10), nullptr);
}

TEST(UI32toa, WritesTheLargestNumberInEachBase) {
    EXPECT_EQ(printed(u_i32toa, UINT32_MAX, 10), "4294967295");
    EXPECT_EQ(printed(u_i32toa, UINT32_MAX, 16), "FFFFFFFFh");
    EXPECT_EQ(printed(u_i32toa, UINT32_MAX, 8), "37777777777o");
    EXPECT_EQ(printed(u_i32toa, UINT32_MAX, 2), repeated(32, '1', "b"));
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

TEST(I16toa, IsTheSameOver16Bits) {
    EXPECT_EQ(printed(i16toa, INT16_MIN, 10), "-32768");
    EXPECT_EQ(printed(i16toa, INT16_MAX, 10), "32767");
    EXPECT_EQ(printed(i16toa, 0x7abc, 16), "7ABCh");
    EXPECT_EQ(printed(i16toa, 0, 8), "0o");
}

TEST(I16toa, DoesNotRefuseNegativeNumbers) {
    for (const int base : bases) EXPECT_NE(printed(i16toa, -1, base), "<null>") << base;
    for (const int base : bases) EXPECT_NE(printed(i16toa, INT16_MIN, base), "<null>") << base;
}

TEST(UI16toa, IsTheSameOver16Bits) {
    EXPECT_EQ(printed(u_i16toa, UINT16_MAX, 10), "65535");
    EXPECT_EQ(printed(u_i16toa, UINT16_MAX, 16), "FFFFh");
    EXPECT_EQ(printed(u_i16toa, UINT16_MAX, 8), "177777o");
    EXPECT_EQ(printed(u_i16toa, UINT16_MAX, 2), repeated(16, '1', "b"));
}

// ---- Reading ----

TEST(ValueOf32, ReadsDecimals) {
    EXPECT_EQ(valueOf32("0"), 0);
    EXPECT_EQ(valueOf32("42"), 42);
    EXPECT_EQ(valueOf32("-42"), -42);
    EXPECT_EQ(valueOf32("007"), 7);
    EXPECT_EQ(valueOf32("2147483647"), INT32_MAX);
    EXPECT_EQ(valueOf32("-2147483648"), INT32_MIN);
}

TEST(ValueOf32, OfNothingIsZero) {
    EXPECT_EQ(valueOf32(nullptr), 0);
    EXPECT_EQ(valueOf32(""), 0);
    EXPECT_EQ(valueOf32("-"), 0);
    EXPECT_EQ(valueOf32("h"), 0);
    EXPECT_EQ(valueOf32("-h"), 0);
    EXPECT_EQ(valueOf32("b"), 0);
    EXPECT_EQ(valueOf32("z"), 0);
}

TEST(ValueOf32, TheMarkerNamesTheBase) {
    EXPECT_EQ(valueOf32("1010b"), 10);
    EXPECT_EQ(valueOf32("17o"), 15);
    EXPECT_EQ(valueOf32("FFh"), 255);
    EXPECT_EQ(valueOf32("-FFh"), -255);
    EXPECT_EQ(valueOf32("ffx"), 255);
    EXPECT_EQ(valueOf32("aBcDeFh"), 0xabcdef);
    EXPECT_EQ(valueOf32("-101b"), -5);
}

TEST(ValueOf32, AnyOtherLetterIsDroppedAndTheRestIsDecimal) {
    EXPECT_EQ(valueOf32("12d"), 12);
    for (char letter = 'a'; letter <= 'z'; ++letter) {
        if (std::strchr("bohx", letter) != nullptr) continue;
        EXPECT_EQ(valueOf32((std::string("12") + letter).c_str()), 12) << letter;
    }
    EXPECT_EQ(valueOf32("12{"), 12);
    EXPECT_EQ(valueOf32("12~"), 12);
    EXPECT_EQ(valueOf32("12\x7f"), 12);
    EXPECT_EQ(valueOf32("12\x80"), 12) << "bytes are unsigned";
    EXPECT_EQ(valueOf32("12\xff"), 12);
}

TEST(ValueOf32, UpperCaseLettersAreNoMarkers) {
    EXPECT_EQ(valueOf32("12H"), 12 * 10 + ('H' - '0'));
    EXPECT_EQ(valueOf32("1`"), 10 + ('`' - '0')) << "the last byte before a";
}

TEST(ValueOf32, RecognisesNoMarkerAtTheFront) {
    EXPECT_EQ(valueOf32("0x1F"), (('x' - '0') * 10 + 1) * 10 + ('F' - '0'));
    EXPECT_NE(valueOf32("0x1F"), 31);
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

TEST(UValueOf32, ReadsWithoutASign) {
    EXPECT_EQ(u_valueOf32("4294967295"), UINT32_MAX);
    EXPECT_EQ(u_valueOf32("FFFFFFFFh"), UINT32_MAX);
    EXPECT_EQ(u_valueOf32("37777777777o"), UINT32_MAX);
    EXPECT_EQ(u_valueOf32("42"), 42U);
    EXPECT_EQ(u_valueOf32(nullptr), 0U);
    EXPECT_EQ(u_valueOf32(""), 0U);
    EXPECT_EQ(u_valueOf32("-5"), static_cast<uint32_t>(('-' - '0') * 10 + 5))
        << "a minus sign is an ordinary character";
    EXPECT_EQ(u_valueOf32("-"), static_cast<uint32_t>('-' - '0'));
}

TEST(ValueOf16, KeepsTheLow16Bits) {
    EXPECT_EQ(valueOf16("32767"), 32767);
    EXPECT_EQ(valueOf16("32768"), -32768);
    EXPECT_EQ(valueOf16("-32768"), -32768);
    EXPECT_EQ(valueOf16("70000"), 70000 - 65536);
    EXPECT_EQ(valueOf16("FFFFh"), -1);
    EXPECT_EQ(valueOf16(nullptr), 0);
    EXPECT_EQ(u_valueOf16("65535"), 65535);
    EXPECT_EQ(u_valueOf16("65536"), 0);
    EXPECT_EQ(u_valueOf16("70000"), 70000 - 65536);
    EXPECT_EQ(u_valueOf16(""), 0);
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

// ---- Checking ----

template <typename Validate>
int verdict(Validate validate, const char *text) {
    int error = 77;
    const auto value = validate(&error, text);
    EXPECT_EQ(validate(nullptr, text), value) << "the same without an error word";
    return error;
}

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

TEST(ValidValueOf32, ReturnsTheNumberEitherWay) {
    int error = 0;
    EXPECT_EQ(validValueOf32(&error, "007"), 7);
    EXPECT_EQ(error, -1);
    EXPECT_EQ(validValueOf32(&error, "10h"), 16);
    EXPECT_EQ(error, -1);
    EXPECT_EQ(validValueOf32(&error, "-12"), -12);
    EXPECT_EQ(error, 0);
    EXPECT_EQ(validValueOf32(&error, nullptr), 0);
}

TEST(ValidValueOf16, HasTheRangeOf16Bits) {
    for (const char *text : {"0", "32767", "-32768", "-1"}) EXPECT_EQ(verdict(validValueOf16, text), 0) << text;
    for (const char *text : {"32768", "-32769", "70000", "65536", "-0", "", "01"}) {
        EXPECT_EQ(verdict(validValueOf16, text), -1) << text;
    }
    int error = 0;
    EXPECT_EQ(validValueOf16(&error, "70000"), 4464);
    EXPECT_EQ(error, -1);
}

TEST(UValidValueOf32, HasNoSign) {
    for (const char *text : {"0", "4294967295", "2147483648"}) EXPECT_EQ(verdict(u_validValueOf32, text), 0) << text;
    for (const char *text : {"-1", "-0", "4294967296", "", "00", "+1", "1h"}) {
        EXPECT_EQ(verdict(u_validValueOf32, text), -1) << text;
    }
}

TEST(UValidValueOf16, HasTheRangeOf16Bits) {
    for (const char *text : {"0", "65535"}) EXPECT_EQ(verdict(u_validValueOf16, text), 0) << text;
    for (const char *text : {"-1", "65536", "70000", "", "00065"})
        EXPECT_EQ(verdict(u_validValueOf16, text), -1) << text;
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

template <typename Validate, typename Value>
int rangeVerdict(Validate validate, const char *text, Value min, Value max) {
    int error = 77;
    validate(&error, text, min, max);
    return error;
}

TEST(ValidRangeValueOf32, ChecksBothEnds) {
    for (const char *text : {"1", "5", "10"}) EXPECT_EQ(rangeVerdict(validRangeValueOf32, text, 1, 10), 0) << text;
    for (const char *text : {"0", "11", "50", "-5", "05", "", "5h"}) {
        EXPECT_EQ(rangeVerdict(validRangeValueOf32, text, 1, 10), -1) << text;
    }
    EXPECT_EQ(rangeVerdict(validRangeValueOf32, nullptr, -10, 10), -1);
    EXPECT_EQ(rangeVerdict(validRangeValueOf32, "-5", -10, -1), 0) << "compared as signed numbers";
    EXPECT_EQ(rangeVerdict(validRangeValueOf32, "-11", -10, -1), -1);
    EXPECT_EQ(rangeVerdict(validRangeValueOf32, "5", 10, 1), -1);
    EXPECT_EQ(rangeVerdict(validRangeValueOf32, "-2147483648", INT32_MIN, INT32_MAX), 0);
}

TEST(ValidRangeValueOf16, ChecksBothEnds) {
    EXPECT_EQ(rangeVerdict(validRangeValueOf16, "-5", -5, 5), 0);
    EXPECT_EQ(rangeVerdict(validRangeValueOf16, "5", -5, 5), 0);
    EXPECT_EQ(rangeVerdict(validRangeValueOf16, "6", -5, 5), -1);
    EXPECT_EQ(rangeVerdict(validRangeValueOf16, "-6", -5, 5), -1);
    EXPECT_EQ(rangeVerdict(validRangeValueOf16, "65537", 1, 1), -1);
}

TEST(UValidRangeValueOf32, ComparesUnsigned) {
    EXPECT_EQ(rangeVerdict(u_validRangeValueOf32, "3000000000", 1U, 4000000000U), 0);
    EXPECT_EQ(rangeVerdict(u_validRangeValueOf32, "4000000001", 1U, 4000000000U), -1);
    EXPECT_EQ(rangeVerdict(u_validRangeValueOf32, "0", 1U, 4000000000U), -1);
    EXPECT_EQ(rangeVerdict(u_validRangeValueOf32, "-1", 0U, UINT32_MAX), -1);
}

TEST(UValidRangeValueOf16, ComparesUnsigned) {
    EXPECT_EQ(rangeVerdict(u_validRangeValueOf16, "40000", 40000, 60000), 0);
    EXPECT_EQ(rangeVerdict(u_validRangeValueOf16, "60000", 40000, 60000), 0);
    EXPECT_EQ(rangeVerdict(u_validRangeValueOf16, "39999", 40000, 60000), -1);
    EXPECT_EQ(rangeVerdict(u_validRangeValueOf16, "60001", 40000, 60000), -1);
}

TEST(RangeValidators, WithoutAnErrorWordReadNothingAtAll) {
    vxtest::GuardedBuffer guarded(1);
    const char *const unreadable = guarded.data() + 1;
    validRangeValueOf32(nullptr, unreadable, 1, 10);
    validRangeValueOf16(nullptr, unreadable, 1, 10);
    u_validRangeValueOf32(nullptr, unreadable, 1, 10);
    u_validRangeValueOf16(nullptr, unreadable, 1, 10);
}

// ---- Dumps ----

TEST(ConvBinToHex, WritesTheLeastSignificantByteFirst) {
    vxtest::GuardedBuffer guarded(11);
    std::memset(guarded.data(), untouched, guarded.size());
    const char *const result = convBinToHex(0x12345678, guarded.data());
    EXPECT_STREQ(guarded.data(), "0x78563412");
    EXPECT_GE(result, guarded.data());
    EXPECT_LE(result, guarded.data() + 10);
    convBinToHex(0, guarded.data());
    EXPECT_STREQ(guarded.data(), "0x00000000");
    convBinToHex(0xabcdefff, guarded.data());
    EXPECT_STREQ(guarded.data(), "0xffefcdab");
}

// The dump, in a block of exactly the announced size.
std::string dumped(const std::vector<uint32_t> &words, unsigned int byteCount, unsigned int lineBytes) {
    vxtest::GuardedBuffer guarded(nbrOfChars_forDataChunk2String(byteCount, lineBytes));
    std::memset(guarded.data(), untouched, guarded.size());
    dataChunk2String(words.data(), guarded.data(), byteCount, lineBytes);
    return guarded.data();
}

TEST(DataChunk2String, BreaksLines) {
    const std::vector<uint32_t> words = {0x04030201, 0x08070605, 0x0c0b0a09};
    EXPECT_EQ(dumped(words, 10, 8), "0x01020304 0x05060708 \n0x090a0b0c \n");
    EXPECT_EQ(dumped(words, 12, 4), "0x01020304 \n0x05060708 \n0x090a0b0c \n\n");
    EXPECT_EQ(dumped(words, 12, 16), "0x01020304 0x05060708 0x090a0b0c \n");
    EXPECT_EQ(dumped(words, 1, 8), "0x01020304 \n") << "a started word is dumped whole";
}

TEST(DataChunk2String, AFullLastLineIsFollowedByItsLineFeedAndTheFinalOne) {
    EXPECT_EQ(dumped({1, 2}, 8, 8), "0x01000000 0x02000000 \n\n");
    EXPECT_EQ(dumped({1, 2}, 5, 8), "0x01000000 0x02000000 \n\n");
}

TEST(DataChunk2String, OfNothingIsTheEmptyText) {
    char out[2] = {untouched, untouched};
    dataChunk2String(nullptr, out, 0, 8);
    EXPECT_EQ(out[0], '\0');
    EXPECT_EQ(out[1], untouched);
    EXPECT_EQ(nbrOfChars_forDataChunk2String(0, 8), 1U);
}

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

TEST(NbrOfChars, FollowsItsFormula) {
    EXPECT_EQ(nbrOfChars_forDataChunk2String(10, 8), 49U);
    EXPECT_EQ(nbrOfChars_forDataChunk2String(8, 8), 25U);
    EXPECT_EQ(nbrOfChars_forDataChunk2String(9, 8), 49U);
    EXPECT_EQ(nbrOfChars_forDataChunk2String(1, 4), 14U);
    EXPECT_EQ(nbrOfChars_forDataChunk2String(1, 16), 47U);
    EXPECT_EQ(nbrOfChars_forDataChunk2String(1, 6), 14U) << "whole words of a line only";
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

TEST(NbrOfChars, DoesNotWrapAround) {
    EXPECT_EQ(nbrOfChars_forDataChunk2String(UINT_MAX, 4), UINT_MAX);
    EXPECT_EQ(nbrOfChars_forDataChunk2String(UINT_MAX, 0x80000000U), UINT_MAX);
    EXPECT_EQ(nbrOfChars_forDataChunk2String(0x40000000U, 4), 0x10000000U * 13 + 1);
}

// ---- The rest ----

TEST(NextHigherPowerOf2, RoundsUp) {
    EXPECT_EQ(nextHigherPowerOf2(0), 1U);
    EXPECT_EQ(nextHigherPowerOf2(1), 1U);
    EXPECT_EQ(nextHigherPowerOf2(5), 8U);
    EXPECT_EQ(nextHigherPowerOf2(8), 8U);
    for (unsigned int bit = 1; bit < 32; ++bit) {
        const uint32_t power = uint32_t{1} << bit;
        EXPECT_EQ(nextHigherPowerOf2(power), power);
        EXPECT_EQ(nextHigherPowerOf2(power + 1), bit == 31 ? 0 : power * 2);
        if (bit > 1) {
            EXPECT_EQ(nextHigherPowerOf2(power - 1), power);
        }
    }
    EXPECT_EQ(nextHigherPowerOf2(UINT32_MAX), 0U);
}

TEST(ConvIPStr2IPUl, ReadsFourParts) {
    uint32_t value = 0;
    EXPECT_EQ(convIPStr2IPUl("192.168.1.1", &value), 0);
    EXPECT_EQ(value, 0xC0A80101U);
    EXPECT_EQ(convIPStr2IPUl("0.0.0.0", &value), 0);
    EXPECT_EQ(value, 0U);
    EXPECT_EQ(convIPStr2IPUl("255.255.255.255 and more", &value), 0);
    EXPECT_EQ(value, UINT32_MAX);
    EXPECT_EQ(convIPStr2IPUl(" 1. 2. 3. 4", &value), 0);
    EXPECT_EQ(value, 0x01020304U);
}

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

TEST(ConvIPStr2IPUl, NullIsNoAddress) {
    uint32_t value = 7;
    EXPECT_EQ(convIPStr2IPUl(nullptr, &value), -1);
    EXPECT_EQ(value, 7U);
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

TEST(ConvIPUL2IPStr, WritesTheMostSignificantByteFirst) {
    vxtest::GuardedBuffer guarded(16);
    EXPECT_EQ(convIPUL2IPStr(0xC0A80101, guarded.data()), 0);
    EXPECT_STREQ(guarded.data(), "192.168.1.1");
    EXPECT_EQ(convIPUL2IPStr(0x01020304, guarded.data()), 0);
    EXPECT_STREQ(guarded.data(), "1.2.3.4");
    EXPECT_EQ(convIPUL2IPStr(UINT32_MAX, guarded.data()), 0);
    EXPECT_STREQ(guarded.data(), "255.255.255.255");
    EXPECT_EQ(convIPUL2IPStr(0, guarded.data()), 0);
    EXPECT_STREQ(guarded.data(), "0.0.0.0");
}

TEST(NumconvExample, ShowsNumbersInEveryBase) {
    const auto result = vxtest::run({vxtest::built("examples/numconv_radix"), "255", "17o", "007", "-42"});
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.text,
              "255: 11111111b 377o 255 FFh (decimal)\n"
              "17o: 1111b 17o 15 Fh (not canonical)\n"
              "007: 111b 7o 7 7h (not canonical)\n"
              "-42: -42 (decimal)\n");
}

}  // namespace
