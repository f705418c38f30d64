// SPDX-License-Identifier: MIT
// The formatter, held against fixed texts. xprintf_model_test.cpp compares it with a model on random formats.
#include <vxutils/xprintf.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdarg>
#include <cstdint>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "support/formatted.h"
#include "support/process.h"
#include "support/resources.h"

// Formats that the compiler cannot check, and wrong ones, are what is tested here.
#pragma GCC diagnostic ignored "-Wformat"
#pragma GCC diagnostic ignored "-Wformat-extra-args"
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
#pragma GCC diagnostic ignored "-Wformat-overflow"
#pragma GCC diagnostic ignored "-Wformat-security"
#pragma GCC diagnostic ignored "-Wformat-zero-length"

namespace {

using vxtest::untouched, vxtest::whole;

// ---- The commonest use ----

TEST(XprintfExample, FetchesALongTextInPieces) {
    const auto result = vxtest::run({vxtest::built("examples/xprintf_pieces")});
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.text,
              "whole: 52 characters\n"
              " 0: eth0: state up      \n"
              "20: , address 0a1b2c3d, \n"
              "40: mtu  1500 ok\n");
}

// ---- Slices ----

TEST(Snxprintf, ShowsAWindowOfTheText) {
    char buffer[8];
    EXPECT_EQ(snxprintf(buffer, 0, sizeof buffer, "%s", "abcdefghij"), 7);
    EXPECT_STREQ(buffer, "abcdefg");
    EXPECT_EQ(snxprintf(buffer, 7, sizeof buffer, "%s", "abcdefghij"), 3);
    EXPECT_STREQ(buffer, "hij");
    EXPECT_EQ(snxprintf(buffer, 20, sizeof buffer, "%s", "abcdefghij"), 0);
    EXPECT_STREQ(buffer, "");
}

TEST(Snxprintf, SizeOneHoldsOnlyTheTerminator) {
    char buffer[2] = {untouched, untouched};
    EXPECT_EQ(snxprintf(buffer, 0, 1, "%s", "abc"), 0);
    EXPECT_EQ(buffer[0], '\0');
    EXPECT_EQ(buffer[1], untouched);
}

TEST(Snxprintf, ATextThatJustFitsIsWhole) {
    char buffer[4];
    EXPECT_EQ(snxprintf(buffer, 0, 4, "ab%c", 'c'), 3);
    EXPECT_STREQ(buffer, "abc");
    EXPECT_EQ(snxprintf(buffer, 0, 4, "abc%c", 'd'), 3);
    EXPECT_STREQ(buffer, "abc");
    EXPECT_EQ(snxprintf(buffer, 0, 4, "a%c", 'b'), 2);
    EXPECT_STREQ(buffer, "ab");
}

TEST(Snxprintf, RefusesNullZeroSizeAndNegativeSkipWithoutWriting) {
    char buffer[4] = {untouched, untouched, untouched, untouched};
    EXPECT_EQ(snxprintf(nullptr, 0, 4, "abc"), 0);
    EXPECT_EQ(snxprintf(buffer, 0, 0, "abc"), 0);
    EXPECT_EQ(snxprintf(buffer, -1, 4, "abc"), 0);
    EXPECT_EQ(snxprintf(buffer, INT_MIN, 4, "abc"), 0);
    EXPECT_EQ(buffer[0], untouched);
    int count = -7;
    EXPECT_EQ(snxprintf(buffer, -1, 4, "ab%n", &count), 0);
    EXPECT_EQ(count, -7);
}

TEST(Snxprintf, AnEmptyFormatStoresTheTerminator) {
    char buffer[2] = {untouched, untouched};
    EXPECT_EQ(snxprintf(buffer, 0, 2, ""), 0);
    EXPECT_EQ(buffer[0], '\0');
    EXPECT_EQ(buffer[1], untouched);
    buffer[0] = untouched;
    EXPECT_EQ(snxprintf(buffer, 5, 2, ""), 0);
    EXPECT_EQ(buffer[0], '\0');
    buffer[0] = untouched;
    EXPECT_EQ(snxprintf(buffer, 0, 2, nullptr), 0);
    EXPECT_EQ(buffer[0], '\0');
    EXPECT_EQ(strlenf(""), 0);
    EXPECT_EQ(strlenf(nullptr), 0);
}

TEST(Snxprintf, PiecesPutTogetherAreTheWholeText) {
    const std::string text = whole("%-8s|%08x|%+d|%5.3s|%p|%c|%%|%#o", "ab", 0xbeefU, 42, "abcdef", nullptr, 'z', 8U);
    EXPECT_EQ(text, "ab      |0000beef|+42|  abc|0x0|z|%|010");
    for (size_t size = 2; size <= text.size() + 2; ++size) {
        std::string together;
        std::vector<char> piece(size);
        int stored;
        while ((stored = snxprintf(piece.data(), static_cast<int>(together.size()), size,
                                   "%-8s|%08x|%+d|%5.3s|%p|%c|%%|%#o", "ab", 0xbeefU, 42, "abcdef", nullptr, 'z', 8U)) >
               0) {
            together += piece.data();
        }
        EXPECT_EQ(together, text) << size;
    }
}

TEST(Snxprintf, NeverTouchesAByteAfterTheSize) {
    for (size_t size = 1; size <= 48; ++size) {
        vxtest::GuardedBuffer buffer(size);
        for (int skip = 0; skip < 40; skip += 3) {
            snxprintf(buffer.data(), skip, size, "literal %s and %-20d and %020x%%", "a text of its own", -5, 0xfeedU);
            EXPECT_LT(::strnlen(buffer.data(), size), size);
        }
    }
}

TEST(Snxprintf, TheFormatIsReadOnlyUpToItsTerminator) {
    for (const std::string format :
         {"abc", "%", "%d", "%0", "%05", "%05d", "%-5", "%.3", "%*", "%l", "%5.2l", "a%%", "%#0 +-"}) {
        vxtest::GuardedBuffer guarded(format.size() + 1);
        std::memcpy(guarded.data(), format.c_str(), format.size() + 1);
        char buffer[32];
        EXPECT_GE(snxprintf(buffer, 0, sizeof buffer, guarded.data(), 1, 2, 3), 0);
    }
}

TEST(Snxprintf, AHugeSizeIsNoObstacle) {
    char buffer[16];
    EXPECT_EQ(snxprintf(buffer, 0, SIZE_MAX, "%s-%d", "abc", 7), 5);
    EXPECT_STREQ(buffer, "abc-7");
    EXPECT_EQ(snxprintf(buffer, INT_MAX, SIZE_MAX, "%s-%d", "abc", 7), 0);
    EXPECT_STREQ(buffer, "");
    EXPECT_EQ(snxprintf(buffer, 2, SIZE_MAX, "%s-%d", "abc", 7), 3);
    EXPECT_STREQ(buffer, "c-7");
}

TEST(Snxprintf, ASizeBeyond32BitsIsTakenInFull) {
    constexpr size_t size = std::min<uint64_t>((uint64_t{1} << 32) + 1, SIZE_MAX);
    char buffer[16];
    EXPECT_EQ(snxprintf(buffer, 0, size, "%s", "abc"), 3) << "not as if it were 1";
    EXPECT_STREQ(buffer, "abc");
}

TEST(Snxprintf, LeavesErrnoAlone) {
    char buffer[32];
    errno = ENOTTY;
    snxprintf(buffer, 0, sizeof buffer, "%s %d %x", "abc", 1, 2U);
    EXPECT_EQ(errno, ENOTTY);
}

int viaList(char *buffer, size_t size, const char *fmt, ...) {
    va_list ap;
    va_start(ap, fmt);
    const int stored = vsnxprintf(buffer, 1, size, fmt, ap);
    va_end(ap);
    return stored;
}

int lengthViaList(const char *fmt, ...) {
    va_list ap;
    va_start(ap, fmt);
    const int length = vstrlenf(fmt, ap);
    va_end(ap);
    return length;
}

TEST(Vsnxprintf, TakesAnArgumentList) {
    char buffer[16];
    EXPECT_EQ(viaList(buffer, sizeof buffer, "%d-%s", 123, "x"), 4);
    EXPECT_STREQ(buffer, "23-x");
    EXPECT_EQ(lengthViaList("%d-%s", 123, "x"), 5);
}

TEST(Strlenf, IsTheLengthOfTheWholeText) {
    EXPECT_EQ(strlenf("%5d|%-4s|", 42, "ab"), 11);
    EXPECT_EQ(strlenf("plain"), 5);
    EXPECT_EQ(strlenf("%s", static_cast<const char *>(nullptr)), 6);
    EXPECT_EQ(strlenf("%%"), 1);
}

TEST(Strlenf, StoresTheCountToo) {
    int count = 0;
    EXPECT_EQ(strlenf("abc%n%10d", &count, 5), 13);
    EXPECT_EQ(count, 3);
}

// ---- Conversions ----

TEST(Xprintf, PrintsDecimals) {
    EXPECT_EQ(whole("%d", 0), "0");
    EXPECT_EQ(whole("%i", -1), "-1");
    EXPECT_EQ(whole("%d", INT_MAX), "2147483647");
    EXPECT_EQ(whole("%d", INT_MIN), "-2147483648");
    EXPECT_EQ(whole("%u", UINT_MAX), "4294967295");
    EXPECT_EQ(whole("%+d % d %+ d %+d % d", 5, 5, 5, -5, -5), "+5  5 +5 -5 -5");
    EXPECT_EQ(whole("%+u % u", 5U, 5U), "5 5") << "unsigned numbers have no sign";
}

TEST(Xprintf, AZeroAlwaysPrintsItsDigit) {
    EXPECT_EQ(whole("%.0d", 0), "0");
    EXPECT_EQ(whole("%.d", 0), "0");
    EXPECT_EQ(whole("%.0x", 0U), "0");
    EXPECT_EQ(whole("%#x", 0U), "0");
    EXPECT_EQ(whole("%#o", 0U), "0");
    EXPECT_EQ(whole("%#X", 0U), "0");
    EXPECT_EQ(whole("%p", nullptr), "0x0");
}

TEST(Xprintf, PrintsOtherBases) {
    EXPECT_EQ(whole("%o %#o", 8U, 8U), "10 010");
    EXPECT_EQ(whole("%x %X %#x %#X", 0xbeefU, 0xbeefU, 0xbeefU, 0xbeefU), "beef BEEF 0xbeef 0XBEEF");
    EXPECT_EQ(whole("%x", 0xffffffffU), "ffffffff");
    EXPECT_EQ(whole("%#u", 5U), "5");
}

TEST(Xprintf, PrintsAllBitsOfAPointer) {
    const auto bits = static_cast<uintptr_t>(0x123456789abcdef0ULL);
    EXPECT_EQ(whole("%p", reinterpret_cast<void *>(bits)), sizeof bits == 8 ? "0x123456789abcdef0" : "0x9abcdef0");
    EXPECT_EQ(whole("%8p|%-8p|%08p|%.4p", reinterpret_cast<void *>(uintptr_t{0xab}),
                    reinterpret_cast<void *>(uintptr_t{0xab}), reinterpret_cast<void *>(uintptr_t{0xab}),
                    reinterpret_cast<void *>(uintptr_t{0xab})),
              "    0xab|0xab    |0x0000ab|0x00ab");
}

TEST(Xprintf, HNarrowsToShort) {
    EXPECT_EQ(whole("%hd", 65535), "-1");
    EXPECT_EQ(whole("%hd", 32768), "-32768");
    EXPECT_EQ(whole("%hu", 65537), "1");
    EXPECT_EQ(whole("%hx", -1), "ffff");
    EXPECT_EQ(whole("%ho", 0x1ffff), "177777");
}

TEST(Xprintf, LFetchesAWholeLong) {
    EXPECT_EQ(whole("%ld", LONG_MIN), std::to_string(LONG_MIN));
    EXPECT_EQ(whole("%ld|%d", LONG_MAX, 7), std::to_string(LONG_MAX) + "|7");
    EXPECT_EQ(whole("%lu", ULONG_MAX), std::to_string(ULONG_MAX));
    EXPECT_EQ(whole("%lx", ULONG_MAX), std::string(2 * sizeof(long), 'f'));
}

TEST(Xprintf, LOnTextsAndCharactersIsIgnored) {
    EXPECT_EQ(whole("%ls|%lc|%hs|%hc", "ab", 'c', "de", 'f'), "ab|c|de|f");
}

TEST(Xprintf, LaysOutIntegers) {
    EXPECT_EQ(whole("[%5d]", 42), "[   42]");
    EXPECT_EQ(whole("[%-5d]", 42), "[42   ]");
    EXPECT_EQ(whole("[%05d]", 42), "[00042]");
    EXPECT_EQ(whole("[%05d]", -42), "[-0042]");
    EXPECT_EQ(whole("[%+05d]", 42), "[+0042]");
    EXPECT_EQ(whole("[%#06x]", 0xabU), "[0x00ab]");
    EXPECT_EQ(whole("[%.4d]", -42), "[-0042]");
    EXPECT_EQ(whole("[%7.4d]", -42), "[  -0042]");
    EXPECT_EQ(whole("[%-7.4d]", -42), "[-0042  ]");
    EXPECT_EQ(whole("[%7.1d]", 42), "[     42]");
    EXPECT_EQ(whole("[%#.4o]", 8U), "[00010]") << "the prefix is not a digit";
    EXPECT_EQ(whole("[%2d]", 12345), "[12345]");
    EXPECT_EQ(whole("[%02d]", 12345), "[12345]");
    EXPECT_EQ(whole("%-05d", 7), "7    ");
    EXPECT_EQ(whole("%0-5d|", 7), "7    |");
}

TEST(Xprintf, APrecisionDropsTheZeroFlagOfIntegers) {
    EXPECT_EQ(whole("[%05.1d]", 42), "[   42]");
    EXPECT_EQ(whole("[%05.0d]", 42), "[   42]");
    EXPECT_EQ(whole("[%05.3d]", 4), "[  004]");
    EXPECT_EQ(whole("[%08.3p]", nullptr), "[   0x000]");
}

TEST(Xprintf, LaysOutTexts) {
    EXPECT_EQ(whole("[%5s]", "ab"), "[   ab]");
    EXPECT_EQ(whole("[%-5s]", "ab"), "[ab   ]");
    EXPECT_EQ(whole("%05s", "ab"), "000ab") << "texts are padded with zeros, too";
    EXPECT_EQ(whole("%05.1s", "ab"), "0000a");
    EXPECT_EQ(whole("%-05s|", "ab"), "ab   |");
    EXPECT_EQ(whole("[%.0s]", "ab"), "[]");
    EXPECT_EQ(whole("[%.s]", "ab"), "[]");
    EXPECT_EQ(whole("[%.9s]", "ab"), "[ab]");
    EXPECT_EQ(whole("[%1s]", "ab"), "[ab]");
    EXPECT_EQ(whole("[%s]", ""), "[]");
}

TEST(Xprintf, ANullTextIsNamed) {
    const char *const none = nullptr;
    EXPECT_EQ(whole("%s", none), "(null)");
    EXPECT_EQ(whole("%8s|%.3s|%-8s|", none, none, none), "  (null)|(nu|(null)  |");
}

TEST(Xprintf, PrintsCharacters) {
    EXPECT_EQ(whole("%c%c", 'a', 'b'), "ab");
    EXPECT_EQ(whole("[%3c|%-3c|%03c]", 'a', 'b', 'c'), "[  a|b  |00c]");
    EXPECT_EQ(whole("[%c]", 0), "[]") << "the byte 0 is an empty text";
    EXPECT_EQ(whole("[%3c]", 0), "[   ]");
    EXPECT_EQ(whole("[%.0c]", 'a'), "[]");
    EXPECT_EQ(whole("%c", 0x141), "A") << "one byte of the argument";
    EXPECT_EQ(whole("%c", 0xe4), "\xe4");
}

TEST(Xprintf, StarsComeFromTheArguments) {
    EXPECT_EQ(whole("[%*d]", 5, 42), "[   42]");
    EXPECT_EQ(whole("[%*d]", -5, 42), "[42   ]");
    EXPECT_EQ(whole("[%0*d]", 5, 42), "[00042]");
    EXPECT_EQ(whole("[%0*d]", -5, 42), "[00042]") << "only the flag - drops the zero flag";
    EXPECT_EQ(whole("[%0*d|%#0*x]", -5, -42, -7, 0xabU), "[-0042|0x000ab]");
    EXPECT_EQ(whole("[%-0*d|%0-*d]", -5, 42, 5, 42), "[42   |42   ]");
    EXPECT_EQ(whole("[%0*.3d|%0*s|%0*c]", -5, 4, -5, "ab", -3, 'c'), "[004  |ab   |c  ]");
    EXPECT_EQ(whole("[%.*s]", 2, "abc"), "[ab]");
    EXPECT_EQ(whole("[%.*s]", -2, "abc"), "[abc]");
    EXPECT_EQ(whole("[%05.*d]", -1, 42), "[00042]") << "a negative precision is none and leaves the zero flag in force";
    EXPECT_EQ(whole("[%*.*s]", 4, 1, "abc"), "[   a]");
    EXPECT_EQ(whole("[%-*.*d]", 6, 3, 7), "[007   ]");
    EXPECT_EQ(whole("[%*d]", 0, 7), "[7]");
}

TEST(Xprintf, UnknownConversionsPrintThemselves) {
    EXPECT_EQ(whole("%lld"), "ld");
    EXPECT_EQ(whole("%hhd"), "hd");
    EXPECT_EQ(whole("%f|%d", 7), "f|7") << "no argument is consumed";
    EXPECT_EQ(whole("%8.3f|%e|%g|%d", 7), "f|e|g|7");
    EXPECT_EQ(whole("%zu %ju %td %Lf"), "zu ju td Lf");
    EXPECT_EQ(whole("%*f|%d", 5, 7), "f|7") << "a star's argument is";
    EXPECT_EQ(whole("%.*f|%d", 5, 7), "f|7");
    EXPECT_EQ(whole("%5%|%-05l%"), "%|%");
    EXPECT_EQ(whole("%!|%\x80|%'d"), "!|\x80|'d");
    EXPECT_EQ(whole("%.-5d"), "-5d") << "the precision ends at the sign, which is not a conversion";
    EXPECT_EQ(whole("%/5d"), "/5d");
}

TEST(Xprintf, ALonePercentEndsTheOutput) {
    EXPECT_EQ(whole("abc%"), "abc");
    EXPECT_EQ(whole("abc%-"), "abc");
    EXPECT_EQ(whole("abc%05"), "abc");
    EXPECT_EQ(whole("abc%.3"), "abc");
    EXPECT_EQ(whole("abc%l"), "abc");
    EXPECT_EQ(whole("abc%*", 5), "abc");
}

TEST(Xprintf, PercentsAndLiteralsAreCopied) {
    EXPECT_EQ(whole("%%"), "%");
    EXPECT_EQ(whole("100%% of %d%%", 5), "100% of 5%");
    EXPECT_EQ(whole("\x01\xff\n"), "\x01\xff\n");
    const std::string literal(3000, 'x');
    EXPECT_EQ(whole((literal + "%d" + literal).c_str(), 5), literal + "5" + literal);
}

TEST(Xprintf, ATextWithAPrecisionNeedsNoTerminator) {
    vxtest::GuardedBuffer guarded(5);
    std::memcpy(guarded.data(), "abcde", 5);
    EXPECT_EQ(whole("%.5s", guarded.data()), "abcde");
    EXPECT_EQ(whole("%10.5s|%-10.5s|%.*s", guarded.data(), guarded.data(), 3, guarded.data()),
              "     abcde|abcde     |abc");
    EXPECT_EQ(strlenf("%.5s", guarded.data()), 5);
    char buffer[4];
    EXPECT_EQ(snxprintf(buffer, 4, sizeof buffer, "%.5s", guarded.data()), 1);
    EXPECT_STREQ(buffer, "e");
}

// ---- %n ----

TEST(XprintfCount, CountsWhatWasProduced) {
    int count = -1, again = -1;
    EXPECT_EQ(whole("ab%n%5d%n", &count, 7, &again), "ab    7");
    EXPECT_EQ(count, 2);
    EXPECT_EQ(again, 7);
}

TEST(XprintfCount, CountsSkippedCharacters) {
    char buffer[16];
    int count = -1;
    EXPECT_EQ(snxprintf(buffer, 4, sizeof buffer, "abcdef%n", &count), 2);
    EXPECT_EQ(count, 6);
    EXPECT_EQ(snxprintf(buffer, 10, sizeof buffer, "abcdef%n", &count), 0);
    EXPECT_EQ(count, 6);
}

TEST(XprintfCount, StandsStillOnceTheBufferIsFull) {
    char buffer[4];
    int early = -1, late = -1;
    EXPECT_EQ(snxprintf(buffer, 2, sizeof buffer, "ab%nxyzXYZ%n", &early, &late), 3);
    EXPECT_STREQ(buffer, "xyz");
    EXPECT_EQ(early, 2);
    EXPECT_EQ(late, 5);
    EXPECT_EQ(snxprintf(buffer, 2, 1, "abcdef%n", &late), 0);
    EXPECT_EQ(late, 0) << "a buffer for the terminator alone is full from the start";
}

TEST(XprintfCount, StoresAShortWithHAndAnIntWithL) {
    struct {
        short count = -1;
        short guard = 0x5a5a;
    } narrow;
    EXPECT_EQ(whole("abc%hn", &narrow.count), "abc");
    EXPECT_EQ(narrow.count, 3);
    EXPECT_EQ(narrow.guard, 0x5a5a);
    struct {
        int count = -1;
        int guard = 0x5a5a5a5a;
    } wide;
    EXPECT_EQ(whole("abcd%ln", &wide.count), "abcd");
    EXPECT_EQ(wide.count, 4);
    EXPECT_EQ(wide.guard, 0x5a5a5a5a);
}

// ---- Extremes: none of these could end in time if padding were produced character by character. ----

constexpr int manyTimes = 20000;

TEST(XprintfExtremes, HugeWidthsAreCountedInOneStep) {
    for (int i = 0; i < manyTimes; ++i) {
        ASSERT_EQ(strlenf("%2147483647d", 5), INT_MAX);
        ASSERT_EQ(strlenf("%-*s", INT_MAX, "ab"), INT_MAX);
        ASSERT_EQ(strlenf("%.*d", INT_MAX, 5), INT_MAX);
        ASSERT_EQ(strlenf("%0*d", INT_MAX, -5), INT_MAX);
    }
}

TEST(XprintfExtremes, TheMostNegativeWidthIsTwoToThe31) {
    const auto length = static_cast<unsigned int>(strlenf("%*d", INT_MIN, 5));
    EXPECT_EQ(length, 2147483648U);
    EXPECT_EQ(static_cast<unsigned int>(strlenf("%*s", INT_MIN, "ab")), 2147483648U);
    char buffer[8];
    EXPECT_EQ(snxprintf(buffer, 0, sizeof buffer, "%*d", INT_MIN, 5), 7);
    EXPECT_STREQ(buffer, "5      ");
}

TEST(XprintfExtremes, TheMostNegativePrecisionIsNone) {
    EXPECT_EQ(whole("[%5.*d]", INT_MIN, 42), "[   42]");
    EXPECT_EQ(whole("[%.*s]", INT_MIN, "abc"), "[abc]");
}

TEST(XprintfExtremes, HugePrecisionsAndPrefixesAddUpWithoutOverflow) {
    EXPECT_EQ(static_cast<unsigned int>(strlenf("%.*d", INT_MAX, -5)), 2147483648U);
    EXPECT_EQ(static_cast<unsigned int>(strlenf("%#.*x", INT_MAX, 5U)), 2147483649U);
    EXPECT_EQ(static_cast<unsigned int>(strlenf("%*.*d", INT_MIN, INT_MAX, 5)), 2147483648U);
}

TEST(XprintfExtremes, CountingEndsJustBelowTwoToThe32) {
    EXPECT_EQ(static_cast<unsigned int>(strlenf("%*d%*d", INT_MAX, 1, INT_MAX, 1)), 4294967294U);
    EXPECT_EQ(static_cast<unsigned int>(strlenf("%*d%*d%s", INT_MAX, 1, INT_MAX, 1, "abc")), 4294967294U);
    EXPECT_EQ(static_cast<unsigned int>(strlenf("%*d%*d%*d", INT_MIN, 1, INT_MIN, 1, INT_MIN, 1)), 4294967294U);
}

TEST(XprintfExtremes, HugeFieldsAreSkippedAndCutInOneStep) {
    char buffer[16];
    for (int i = 0; i < manyTimes; ++i) {
        ASSERT_EQ(snxprintf(buffer, 2147483640, sizeof buffer, "%2147483647d", 7), 7);
        ASSERT_STREQ(buffer, "      7");
        ASSERT_EQ(snxprintf(buffer, 0, sizeof buffer, "%2147483647d", 7), 15);
        ASSERT_STREQ(buffer, "               ");
        ASSERT_EQ(snxprintf(buffer, 2147483646, sizeof buffer, "%-*d|%s", INT_MAX, 7, "end"), 5);
        ASSERT_STREQ(buffer, " |end");
        ASSERT_EQ(snxprintf(buffer, INT_MAX, sizeof buffer, "%.*d|%s", INT_MAX, 7, "end"), 4);
        ASSERT_STREQ(buffer, "|end");
    }
    int count = 0;
    EXPECT_EQ(snxprintf(buffer, INT_MAX, sizeof buffer, "%*s%n|", INT_MAX, "", &count), 1);
    EXPECT_EQ(count, INT_MAX);
}

TEST(XprintfExtremes, AWidthInDigitsWrapsHarmlessly) {
    EXPECT_EQ(whole("[%4294967298d]", 7), "[ 7]");
    EXPECT_EQ(whole("[%4294967295d]", 7), "[7]") << "read as -1: neither padding nor justification";
    EXPECT_EQ(whole("[%.4294967295d]", 7), "[7]") << "read as -1: no precision";
    EXPECT_EQ(whole("[%99999999999999999999999.99999999999999999999999s]", "ab"), "[ab]")
        << "read as a negative number";
}

TEST(XprintfExtremes, ALongTextIsReadOnlyAsFarAsTheWindowReaches) {
    vxtest::GuardedBuffer guarded(4096);
    std::memset(guarded.data(), 'x', 4096);  // without a terminator: reading on would hit the unreadable page
    char buffer[16];
    EXPECT_EQ(snxprintf(buffer, 4000, sizeof buffer, "%s", guarded.data()), 15);
    EXPECT_STREQ(buffer, "xxxxxxxxxxxxxxx");
}

}  // namespace
