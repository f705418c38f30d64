// SPDX-License-Identifier: MIT
// Numbers to text and back through the public interface. Extreme numbers, long texts and comparisons with slow models
// are in numconv_limits_test.cpp.
#include <vxutils/numconv.h>

#include <climits>
#include <cstring>
#include <string>

#include "support/numconv.h"
#include "support/process.h"
#include "support/resources.h"

namespace {

using namespace vxtest::numbers;

TEST(NumconvExample, ShowsNumbersInEveryBase) {
    const auto result = vxtest::run({vxtest::built("examples/numconv_radix"), "255", "17o", "007", "-42"});
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.text,
              "255: 11111111b 377o 255 FFh (decimal)\n"
              "17o: 1111b 17o 15 Fh (not canonical)\n"
              "007: 111b 7o 7 7h (not canonical)\n"
              "-42: -42 (decimal)\n");
}

// --- printing

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

// --- reading

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

// --- checking

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

// --- dumps

TEST(BinToHexLut, HoldsTwoLowerCaseDigitsAndATerminatorForEachByte) {
    static_assert(sizeof binToHexLut == 768);
    for (unsigned int byte = 0; byte < 256; ++byte) {
        char expected[3];
        std::snprintf(expected, sizeof expected, "%02x", byte);
        EXPECT_EQ(std::memcmp(binToHexLut[byte], expected, 3), 0) << byte;
    }
}

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

TEST(NbrOfChars, FollowsItsFormula) {
    EXPECT_EQ(nbrOfChars_forDataChunk2String(10, 8), 49U);
    EXPECT_EQ(nbrOfChars_forDataChunk2String(8, 8), 25U);
    EXPECT_EQ(nbrOfChars_forDataChunk2String(9, 8), 49U);
    EXPECT_EQ(nbrOfChars_forDataChunk2String(1, 4), 14U);
    EXPECT_EQ(nbrOfChars_forDataChunk2String(1, 16), 47U);
    EXPECT_EQ(nbrOfChars_forDataChunk2String(1, 6), 14U) << "whole words of a line only";
}

// --- the rest

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

TEST(ConvIPStr2IPUl, NullIsNoAddress) {
    uint32_t value = 7;
    EXPECT_EQ(convIPStr2IPUl(nullptr, &value), -1);
    EXPECT_EQ(value, 7U);
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

}  // namespace
