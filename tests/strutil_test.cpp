// SPDX-License-Identifier: MIT
// The string helpers. This file pretends to be compiled with a C library that declares strlcpy itself: the other tests
// include the header without that.
#include <features.h>
#include <string.h>
#pragma push_macro("__GLIBC_MINOR__")
#undef __GLIBC_MINOR__
#define __GLIBC_MINOR__ 38
extern "C" size_t strlcpy(char *__restrict dest, const char *__restrict src, size_t n) noexcept(true)
    __attribute__((__nonnull__(1, 2)));
#include <vxutils/strutil.h>
#pragma pop_macro("__GLIBC_MINOR__")

#include <cerrno>
#include <climits>
#include <clocale>
#include <cstdint>
#include <cstdlib>
#include <random>
#include <string>
#include <vector>

#include "support/process.h"
#include "support/resources.h"

// The sanitizer's allocator is to fail as the real one does.
extern "C" const char *__asan_default_options() { return "allocator_may_return_null=1"; }

// The program's own functions are found before the C library's, by the library too: a locale in which 0xe4 and 0xc4 are
// a letter in both cases, which a machine need not have.
int tolower(int c) noexcept { return (c >= 'A' && c <= 'Z') || c == 0xc4 ? c + 0x20 : c; }
int toupper(int c) noexcept { return (c >= 'a' && c <= 'z') || c == 0xe4 ? c - 0x20 : c; }

namespace {

constexpr char untouched = '\x5a';

// A text in its own block: the address sanitizer sees every byte too far.
std::vector<char> copyOf(const std::string &text) {
    std::vector<char> copy(text.begin(), text.end());
    copy.push_back('\0');
    return copy;
}

TEST(Zalloc, GivesZeroedMemory) {
    auto *const block = static_cast<unsigned char *>(zalloc(1000));
    ASSERT_NE(block, nullptr);
    for (size_t i = 0; i < 1000; ++i) EXPECT_EQ(block[i], 0);
    std::free(block);
}

TEST(Zalloc, GivesNullWhenThereIsNoMemory) {
    volatile size_t tooMuch = SIZE_MAX - 65536;
    EXPECT_EQ(zalloc(tooMuch), nullptr);
}

TEST(Strlcpy, CopiesWhatFitsAndReturnsTheLength) {
    struct {
        size_t size, result;
        const char *copied;
    } const rows[] = {{1, 6, ""}, {2, 6, "a"}, {6, 6, "abcde"}, {7, 6, "abcdef"}, {8, 6, "abcdef"}};
    for (const auto &row : rows) {
        std::vector<char> dst(row.size + 1, untouched);
        EXPECT_EQ(strlcpy(dst.data(), "abcdef", row.size), row.result) << row.size;
        EXPECT_STREQ(dst.data(), row.copied);
        EXPECT_EQ(dst[row.size], untouched);
    }
}

TEST(Strlcpy, SizeZeroWritesNothing) {
    char dst = untouched;
    EXPECT_EQ(strlcpy(&dst, "abc", 0), 3U);
    EXPECT_EQ(dst, untouched);
}

TEST(Strlcpy, AnEmptyTextIsTheTerminatorAlone) {
    char dst[2] = {untouched, untouched};
    EXPECT_EQ(strlcpy(dst, "", sizeof dst), 0U);
    EXPECT_EQ(dst[0], '\0');
    EXPECT_EQ(dst[1], untouched);
}

TEST(Strtolower, ChangesInPlaceAndReturnsItsArgument) {
    auto text = copyOf("MiXed 123 \xc5");
    EXPECT_EQ(strtolower(text.data()), text.data());
    EXPECT_STREQ(text.data(), "mixed 123 \xc5");
    char empty[1] = "";
    EXPECT_EQ(strtolower(empty), empty);
    EXPECT_EQ(strtolower(nullptr), nullptr);
}

TEST(Strtoupper, ChangesInPlaceAndReturnsItsArgument) {
    auto text = copyOf("MiXed 123 \xe5");
    EXPECT_EQ(strtoupper(text.data()), text.data());
    EXPECT_STREQ(text.data(), "MIXED 123 \xe5");
    char empty[1] = "";
    EXPECT_EQ(strtoupper(empty), empty);
    EXPECT_EQ(strtoupper(nullptr), nullptr);
}

TEST(Strtoupper, ItAndStrtolowerTakeEveryByteThroughTheCLibrarysFunctions) {
    for (int byte = 1; byte < 256; ++byte) {
        char text[2] = {static_cast<char>(byte), '\0'};
        strtoupper(text);
        EXPECT_EQ(text[0], static_cast<char>(toupper(byte))) << byte;
        text[0] = static_cast<char>(byte);
        strtolower(text);
        EXPECT_EQ(text[0], static_cast<char>(tolower(byte))) << byte;
    }
    char letter[] = "\xc4";
    EXPECT_STREQ(strtolower(letter), "\xe4");
    EXPECT_STREQ(strtoupper(letter), "\xc4");
}

TEST(IsNumber, AcceptsDigitsAndSignsAnywhere) {
    for (const char *text : {"", "0", "0123456789", "+-1-", "-", "+1", "1-2", "99999999999999999999999"}) {
        EXPECT_EQ(is_number(text), 1) << text;
    }
}

TEST(IsNumber, RefusesEveryOtherByte) {
    for (int byte = 1; byte < 256; ++byte) {
        const std::string text = "12" + std::string(1, static_cast<char>(byte));
        const bool allowed = (byte >= '0' && byte <= '9') || byte == '+' || byte == '-';
        EXPECT_EQ(is_number(text.c_str()), allowed ? 1 : 0) << byte;
    }
    for (const char *text : {" 1", "1 ", "1.5", "0x1", "a", "1\n"}) EXPECT_EQ(is_number(text), 0) << text;
    EXPECT_EQ(is_number(nullptr), 0);
}

TEST(Skipchars, PassesOverTheSet) {
    const char *const text = "  \tab ";
    EXPECT_EQ(skipchars(text, " \t"), text + 3);
    EXPECT_EQ(skipchars(text, "\t"), text);
    EXPECT_EQ(skipchars(text, ""), text);
    EXPECT_EQ(skipchars(text, nullptr), text);
    EXPECT_EQ(skipchars(nullptr, " "), nullptr);
    EXPECT_EQ(skipchars(nullptr, nullptr), nullptr);
    const char *const blank = "   ";
    EXPECT_EQ(skipchars(blank, " "), blank + 3);
}

TEST(Stripchars, CutsBothEnds) {
    auto text = copyOf("xx ab x cd xyx");
    EXPECT_STREQ(stripchars(text.data(), "xy "), "ab x cd");
    EXPECT_EQ(text[10], '\0') << "over the first byte of the trailing run";
    EXPECT_EQ(text[11], 'x') << "and over nothing else";
}

TEST(Stripchars, OfNothingButTheSetIsTheEmptyEnd) {
    auto blanks = copyOf("  ");
    EXPECT_EQ(stripchars(blanks.data(), " \t\r\n"), blanks.data() + 2);
    EXPECT_EQ(blanks[0], ' ') << "nothing is written";
    auto empty = copyOf("");
    EXPECT_EQ(stripchars(empty.data(), " "), empty.data());
}

TEST(Stripchars, NullsGiveNull) {
    char text[] = " a ";
    EXPECT_EQ(stripchars(nullptr, " "), nullptr);
    EXPECT_EQ(stripchars(text, nullptr), nullptr);
    EXPECT_EQ(stripchars(nullptr, nullptr), nullptr);
    EXPECT_STREQ(text, " a ");
}

TEST(Stripchars, AnEmptySetLeavesTheText) {
    char text[] = " a ";
    EXPECT_EQ(stripchars(text, ""), text);
    EXPECT_STREQ(text, " a ");
}

TEST(Stripchars, WritesNothingWhenThereIsNoTrailingRun) {
    static constexpr char constant[] = "  constant";  // in read-only memory
    EXPECT_EQ(stripchars(const_cast<char *>(constant), " "), constant + 2);
}

TEST(Stripwhite, KnowsFourBlanks) {
    char text[] = " x \n";
    EXPECT_EQ(stripwhite(text), text + 1);
    EXPECT_STREQ(text + 1, "x");
    char all[] = " \t\r\na b\t \r\n";
    EXPECT_STREQ(stripwhite(all), "a b");
    char other[] = "\v\fa\v";
    EXPECT_STREQ(stripwhite(other), "\v\fa\v");
    EXPECT_EQ(stripwhite(nullptr), nullptr);
}

TEST(Strformat, FormatsIntoOneBuffer) {
    const char *const first = strformat("%s=%d", "a", 1);
    EXPECT_STREQ(first, "a=1");
    EXPECT_EQ(strformat("%.1f", 2.5), first) << "the same buffer, with the C library's conversions";
    EXPECT_STREQ(first, "2.5");
}

TEST(Strformat, AnArgumentMayBeTheResultOfAnEarlierCall) {
    EXPECT_STREQ(strformat("%s/%s", strformat("/sys/%s", "class"), "net"), "/sys/class/net");
    EXPECT_STREQ(strformat("%d: %s", 7, strformat("%s", "text")), "7: text");
    EXPECT_EQ(::strlen(strformat("%s%s", strformat("%2046d", 1), "more")), 2046U);
}

TEST(Strformat, KeepsWhatFollowsANulCharacter) {
    const std::string longest(2044, 'x');
    EXPECT_EQ(std::string(strformat("a%cb", '\0'), 4), std::string("a\0b\0", 4));
    EXPECT_EQ(std::string(strformat("%c%s%c", '\0', longest.c_str(), 'y'), 2047), '\0' + longest + "y" + '\0');
    EXPECT_EQ(std::string(strformat("%c%s%s", '\0', longest.c_str(), "yz") + 2045, 2), std::string("y\0", 2));
}

TEST(Strformat, ANullFormatEmptiesTheBuffer) {
    const char *const buffer = strformat("abc");
    const char *volatile none = nullptr;
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
#pragma GCC diagnostic ignored "-Wformat-security"
    EXPECT_EQ(strformat(none), buffer);
#pragma GCC diagnostic pop
    EXPECT_STREQ(buffer, "");
}

TEST(Strformat, CutsAt2046Characters) {
    EXPECT_EQ(::strlen(strformat("%2045d", 1)), 2045U);
    EXPECT_EQ(::strlen(strformat("%2046d", 1)), 2046U);
    EXPECT_EQ(::strlen(strformat("%2047d", 1)), 2046U);
    EXPECT_EQ(::strlen(strformat("%100000d", 1)), 2046U);
}

TEST(Strformat, LeavesErrnoAlone) {
    errno = ENOTTY;
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat"  // %m
    EXPECT_STREQ(strformat("%m"), ::strerror(ENOTTY));
#pragma GCC diagnostic pop
    strformat("%lc", static_cast<wint_t>(0xd800));  // not a character: vsnprintf() fails
    EXPECT_EQ(errno, ENOTTY);
}

std::string escaped(const std::string &src, size_t n, size_t size) {
    std::vector<char> dst(size < 1 ? 1 : size, untouched);
    const auto copy = copyOf(src);
    EXPECT_EQ(escape(copy.data(), n, dst.data(), size), dst.data());
    EXPECT_LT(::strnlen(dst.data(), dst.size()), dst.size()) << "terminated";
    return dst.data();
}

TEST(Escape, MakesControlCharactersVisible) {
    EXPECT_EQ(escaped("a\tb\x01", 10, 16), "a\\tb^A");
    EXPECT_EQ(escaped("\n\r\t", 10, 16), "\\n\\r\\t");
    EXPECT_EQ(escaped("\x1b[1m", 10, 16), "^[[1m");
    EXPECT_EQ(escaped("\x1f", 1, 16), "^_");
    EXPECT_EQ(escaped("\x7f\x80\xff ~", 10, 16), "\x7f\x80\xff ~");
    EXPECT_EQ(escaped("back\\slash^", 20, 20), "back\\slash^") << "marks themselves are copied as they are";
}

TEST(Escape, EveryByteHasItsForm) {
    for (int byte = 1; byte < 256; ++byte) {
        const std::string one(1, static_cast<char>(byte));
        std::string expected = one;
        if (byte < 0x20) expected = std::string("^") + static_cast<char>(byte + 0x40);
        if (byte == '\t') expected = "\\t";
        if (byte == '\n') expected = "\\n";
        if (byte == '\r') expected = "\\r";
        EXPECT_EQ(escaped(one, 1, 8), expected) << byte;
    }
}

TEST(Escape, TakesAtMostNBytesAndStopsAtTheTerminator) {
    EXPECT_EQ(escaped("abcdef", 3, 16), "abc");
    EXPECT_EQ(escaped("ab", 3, 16), "ab");
    EXPECT_EQ(escaped("abc", 0, 16), "");
    EXPECT_EQ(escaped("", 5, 16), "");
}

TEST(Escape, NeverReadsTheByteAfterTheNth) {
    vxtest::GuardedBuffer guarded(4);
    ::memcpy(guarded.data(), "ab\ncd", 4);
    char dst[16];
    EXPECT_STREQ(escape(guarded.data(), 4, dst, sizeof dst), "ab\\nc");
    EXPECT_STREQ(escape(guarded.data() + 4, 0, dst, sizeof dst), "");
}

TEST(Escape, StopsWhereTheIndexHasReachedSizeMinusTwo) {
    EXPECT_EQ(escaped("abcdef", 6, 3), "a");
    EXPECT_EQ(escaped("abcdef", 6, 4), "ab");
    EXPECT_EQ(escaped("abcdef", 6, 7), "abcde");
    EXPECT_EQ(escaped("abcdef", 6, 8), "abcdef");
    EXPECT_EQ(escaped("\n\n\n", 3, 3), "\\n") << "a two-byte form may end at index size - 2";
    EXPECT_EQ(escaped("a\n\n", 3, 4), "a\\n");
    EXPECT_EQ(escaped("a\n\n", 3, 5), "a\\n") << "index 3 is size - 2";
    EXPECT_EQ(escaped("a\n\n", 3, 6), "a\\n\\n");
}

TEST(Escape, NeverWritesAfterTheSize) {
    for (size_t size = 2; size < 20; ++size) {
        vxtest::GuardedBuffer dst(size);
        for (const char *text :
             {"aaaaaaaaaaaaaaaaaaaaaaaa", "\n\n\n\n\n\n\n\n\n\n\n\n\n\n", "a\n\x01z\n\x02z\n\x03zzzz\n\n\n"}) {
            escape(text, 100, dst.data(), size);
            EXPECT_LT(::strnlen(dst.data(), size), size);
        }
    }
}

TEST(Escape, SizeTwoGivesTheEmptyText) {
    char dst[2] = {untouched, untouched};
    escape("abc", 3, dst, 2);
    EXPECT_EQ(dst[0], '\0');
    EXPECT_EQ(dst[1], untouched);
}

TEST(Escape, SizesZeroAndOneAreNoLimit) {
    for (const size_t size : {size_t{0}, size_t{1}}) {
        char dst[16];
        EXPECT_STREQ(escape("ab\ncd", 5, dst, size), "ab\\ncd");
    }
}

TEST(Reverse, TurnsTheBytesRound) {
    for (const std::string text : {"", "a", "ab", "abc", "abcd", "\xff\x01x"}) {
        auto copy = copyOf(text);
        reverse(copy.data());
        EXPECT_EQ(std::string(copy.data()), std::string(text.rbegin(), text.rend()));
    }
    reverse(nullptr);
}

TEST(E164Number, AcceptsWhatCanBeDialled) {
    for (const char *text : {"", "0123456789", "*#?", "ABCXYZ", "0049*1#A"}) EXPECT_EQ(e164Number(text), 0) << text;
}

TEST(E164Number, RefusesEveryOtherByte) {
    for (int byte = 1; byte < 256; ++byte) {
        const std::string text = "1" + std::string(1, static_cast<char>(byte));
        const bool allowed =
            (byte >= '0' && byte <= '9') || (byte >= 'A' && byte <= 'Z') || byte == '*' || byte == '#' || byte == '?';
        EXPECT_EQ(e164Number(text.c_str()), allowed ? 0 : -1) << byte;
    }
    EXPECT_EQ(e164Number("+4930"), -1);
    EXPECT_EQ(e164Number(nullptr), -1);
}

TEST(ValidateDate, HasItsRanges) {
    for (const char *text : {"1999-01-01", "2035-12-31", "2020-02-31", "2020-1-1", "2020-01-01 and more", " 2020-01-01",
                             "2020- 1- 1", "+2020-01-01"}) {
        EXPECT_EQ(validateDate(text), 0) << text;
    }
    for (const char *text : {"2036-01-01", "1998-12-31", "2020-00-01", "2020-13-01", "2020-01-00", "2020-01-32",
                             "2020-01", "2020/01/01", "", "x", "-2020-01-01", "2020--1-01", "2020-01--1"}) {
        EXPECT_EQ(validateDate(text), -1) << text;
    }
    EXPECT_EQ(validateDate(nullptr), -1);
    for (const char *text : {"4294969316-01-01", "2020-4294967297-01", "2020-01-18446744073709551617"}) {
        EXPECT_EQ(validateDate(text), -1) << text;  // 2^32 and 2^64 more than what passes
    }
}

TEST(ValidateTime, HasUpperBoundsOnly) {
    for (const char *text :
         {"0:0:0", "23:59:59", "-1:00:00", "00:-5:00", "00:00:-59", "-100:-100:-100", "1:2:3 more"}) {
        EXPECT_EQ(validateTime(text), 0) << text;
    }
    for (const char *text : {"24:00:00", "00:60:00", "00:00:60", "12:30", "", "x", "12-30-00"}) {
        EXPECT_EQ(validateTime(text), -1) << text;
    }
    EXPECT_EQ(validateTime(nullptr), -1);
    for (const char *text : {"4294967297:00:00", "00:4294967297:00", "00:00:18446744073709551617"}) {
        EXPECT_EQ(validateTime(text), -1) << text;
    }
    EXPECT_EQ(validateTime("-4294967295:00:00"), 0);
}

TEST(ValidateTimeString, NeedsAllSixFieldsInRange) {
    for (const char *text : {"2020-02-31T10:00:00", "1999-01-01T00:00:00", "2035-12-31T23:59:59", "2020-01-01T-1:-1:-1",
                             "2020-01-01T10:00:00Z"}) {
        EXPECT_EQ(validateTimeString(text), 0) << text;
    }
    for (const char *text : {"2036-01-01T10:00:00", "1998-01-01T10:00:00", "2020-13-01T10:00:00", "2020-01-32T10:00:00",
                             "2020-00-01T10:00:00", "2020-01-00T10:00:00", "2020-01-01T24:00:00", "2020-01-01T10:60:00",
                             "2020-01-01T10:00:60", "2020-01-01T10:00", "2020-01-01 10:00:00", "2020-01-01", ""}) {
        EXPECT_EQ(validateTimeString(text), -1) << text;
    }
    EXPECT_EQ(validateTimeString(nullptr), -1);
    EXPECT_EQ(validateTimeString("2020-01-01T4294967297:00:00"), -1);
    EXPECT_EQ(validateTimeString("4294969316-01-01T00:00:00"), -1);
}

TEST(Validators, LeaveErrnoAlone) {
    const std::string large(30, '9');
    errno = ENOTTY;
    EXPECT_EQ(validateDate((large + "-01-01").c_str()), -1);
    EXPECT_EQ(errno, ENOTTY);
    EXPECT_EQ(validateTime((large + ":00:00").c_str()), -1);
    EXPECT_EQ(errno, ENOTTY);
    EXPECT_EQ(validateTime(("-" + large + ":00:00").c_str()), 0);
    EXPECT_EQ(errno, ENOTTY);
    EXPECT_EQ(validateTimeString((large + "-01-01T00:00:00").c_str()), -1);
    EXPECT_EQ(errno, ENOTTY);
}

TEST(Stricmp, FoldsAsciiLettersOnly) {
    EXPECT_EQ(stricmp("", ""), 0);
    EXPECT_EQ(stricmp("AbC", "aBc"), 0);
    EXPECT_EQ(stricmp("ab", "abc"), -1);
    EXPECT_EQ(stricmp("abc", "ab"), 1);
    EXPECT_EQ(stricmp("a", "B"), -1);
    EXPECT_EQ(stricmp("B", "a"), 1);
    EXPECT_EQ(stricmp("Z", "_"), 1) << "letters are compared as lower case";
    EXPECT_EQ(stricmp("a", "\x80"), -1) << "bytes are unsigned";
    EXPECT_EQ(stricmp("\xc4", "\xe4"), -1) << "no folding beyond ASCII";
    EXPECT_EQ(stricmp("@", "`"), -1);
    EXPECT_EQ(stricmp("[", "{"), -1);
}

TEST(Stricmp, EveryPairOfBytesIsInOrder) {
    const auto fold = [](int c) { return c >= 'A' && c <= 'Z' ? c + 32 : c; };
    for (int a = 0; a < 256; ++a) {
        for (int b = 0; b < 256; ++b) {
            const char left[2] = {static_cast<char>(a), '\0'};
            const char right[2] = {static_cast<char>(b), '\0'};
            const int expected = fold(a) < fold(b) ? -1 : fold(a) > fold(b) ? 1 : 0;
            ASSERT_EQ(stricmp(left, right), expected) << a << " " << b;
            ASSERT_EQ(strnicmp(left, right, 1), expected) << a << " " << b;
        }
    }
}

TEST(Stricmp, DoesNotFollowTheLocale) {
    for (const char *name : {"C", "C.UTF-8", "tr_TR.UTF-8"}) {
        std::setlocale(LC_ALL, name);
        EXPECT_EQ(stricmp("TITLE", "title"), 0);
    }
    std::setlocale(LC_ALL, "C");
}

TEST(Strnicmp, ComparesNBytes) {
    EXPECT_EQ(strnicmp("abc", "ABD", 2), 0);
    EXPECT_EQ(strnicmp("abc", "ABD", 3), -1);
    EXPECT_EQ(strnicmp("x", "y", 0), 0);
    EXPECT_EQ(strnicmp("ab", "abc", 2), 0);
    EXPECT_EQ(strnicmp("ab", "abc", 3), -1);
    EXPECT_EQ(strnicmp("ab", "ab", SIZE_MAX), 0);
}

TEST(Strnicmp, ItAndStricmpEndAtTheTerminator) {
    EXPECT_EQ(strnicmp("ab\0x", "AB\0y", 4), 0);
    EXPECT_EQ(strnicmp("ab\0y", "AB\0x", SIZE_MAX), 0);
    EXPECT_EQ(stricmp("ab\0x", "AB\0y"), 0);
    EXPECT_EQ(stricmp("ab\0y", "AB\0x"), 0);
}

TEST(Strnicmp, NeverReadsTheByteAfterTheNth) {
    vxtest::GuardedBuffer left(3), right(3);
    ::memcpy(left.data(), "abc", 3);
    ::memcpy(right.data(), "ABC", 3);
    EXPECT_EQ(strnicmp(left.data(), right.data(), 3), 0);
    EXPECT_EQ(strnicmp(left.data() + 3, right.data() + 3, 0), 0);
}

TEST(StrutilExample, RunsInC) {
    vxtest::Process program({vxtest::built("examples/strutil_keys")});
    program.send("  HOST  =  gateway-7 \r\nno equals sign\nPort=+8080\nesc = a\tb\x1b[0m\n");
    program.closeInput();
    EXPECT_EQ(program.readAll(),
              "host is text \"gateway-7\"\n"
              "port is number \"+8080\"\n"
              "esc is text \"a\\tb^[[0m\"\n"
              "keys: host port esc\n");
    EXPECT_EQ(program.wait(), 0);
}

}  // namespace
