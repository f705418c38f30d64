// SPDX-License-Identifier: MIT
// String: the sizes of its blocks, sharing and un-sharing, arguments inside the string, formats of every shape, and a
// model over random operations.
#include <vxutils/vxstring.h>

#include <malloc.h>
#include <vxutils/xprintf.h>

#include <cctype>
#include <climits>
#include <cstdint>
#include <cstring>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "support/files.h"
#include "support/model.h"
#include "support/resources.h"
#include "support/string_model.h"

// Formats that the compiler cannot check, and wrong ones, are tested here.
#pragma GCC diagnostic ignored "-Wformat"
#pragma GCC diagnostic ignored "-Wformat-extra-args"
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
#pragma GCC diagnostic ignored "-Wformat-overflow"
#pragma GCC diagnostic ignored "-Wformat-zero-length"

namespace {

using vxtest::blockOf, vxtest::capacityByTable, vxtest::emptyBuffer, vxtest::isEmptyBuffer;
using vxtest::count, vxtest::capacity, vxtest::text, vxtest::times, vxtest::kNull;

// --- layout and blocks

TEST(StringLayout, AStringIsOnePointerToAHeaderAndItsText) {
    EXPECT_EQ(sizeof(String), sizeof(void *));
    const String s("abc");
    int32_t header[3];
    std::memcpy(header, s.c_str() - 12, sizeof header);
    EXPECT_EQ(header[0], 1);
    EXPECT_EQ(header[1], 7);
    EXPECT_EQ(header[2], 3);
    const void *first = nullptr;
    std::memcpy(&first, &s, sizeof first);
    EXPECT_EQ(first, static_cast<const void *>(s.c_str() - 12));
}

TEST(StringLayout, ABlockIsSizedByTheRuleAndAllocatedToTheByte) {
    for (size_t n = 1; n <= 1100; ++n) {
        const String s = times(n, 'x');
        ASSERT_EQ(s.length(), static_cast<long>(n));
        ASSERT_EQ(capacity(s), capacityByTable(n)) << n;
        void *block = const_cast<String::StringBuffer *>(blockOf(s));
#ifdef __SANITIZE_ADDRESS__
        ASSERT_EQ(malloc_usable_size(block), static_cast<size_t>(capacity(s)) + 13) << n;
#else
        ASSERT_GE(malloc_usable_size(block), static_cast<size_t>(capacity(s)) + 13) << n;
#endif
    }
}

TEST(StringLayout, TheCapacitiesAreThoseOfTheTable) {
    const std::vector<std::pair<size_t, int>> rows = {{1, 7},     {7, 7},     {8, 23},    {23, 23},   {24, 39},
                                                      {119, 119}, {120, 135}, {127, 135}, {128, 191}, {191, 191},
                                                      {192, 255}, {255, 255}, {256, 319}};
    for (const auto &[length, expected] : rows) EXPECT_EQ(capacity(times(length, 'x')), expected) << length;
}

TEST(StringLayout, TheEmptyBufferIsSharedByAllEmptyTexts) {
    EXPECT_EQ(emptyBuffer()->capacity, 0);
    EXPECT_EQ(emptyBuffer()->length, 0);
    EXPECT_STREQ(emptyBuffer()->text, "");
    const int32_t before = emptyBuffer()->refCount;
    EXPECT_GE(before, 1);
    {
        const String a;
        const String b("");
        const String c(kNull);
        const String d('\0');
        const String e(a);
        for (const String *s : {&a, &b, &c, &d, &e}) EXPECT_TRUE(isEmptyBuffer(*s));
        EXPECT_EQ(emptyBuffer()->refCount, before + 5);
    }
    EXPECT_EQ(emptyBuffer()->refCount, before);
}

TEST(StringLayout, TheEmptyBufferStartsWithOneReferenceOfItsOwn) {
    const String &empty = String::EMPTY();
    EXPECT_TRUE(isEmptyBuffer(empty));
    EXPECT_EQ(&String::EMPTY(), &empty);
    EXPECT_EQ(emptyBuffer()->refCount, 2) << "the buffer's own and String::EMPTY()'s";
}

TEST(StringLayout, TheEmptyBufferIsNeverFreed) {
    auto *buffer = String::StringBuffer::EMPTY();
    const int32_t before = buffer->refCount;
    buffer->refCount = 0;
    { const String s; }  // up to 1 and down to 0
    EXPECT_EQ(buffer->refCount, 0);
    EXPECT_EQ(String("").length(), 0);
    buffer->refCount = before;
}

TEST(StringLayout, AnEmptyBufferWhoseCountIsLowIsNotWritten) {
    auto *buffer = String::StringBuffer::EMPTY();
    const int32_t before = buffer->refCount;
    buffer->refCount = 0;
    String s;  // the only one, as far as the count tells
    s = "";
    EXPECT_EQ(capacity(s), 7);
    buffer->refCount = 0;
    String t;
    t += 'x';
    t.insert(0, "yy");
    EXPECT_EQ(text(t), "yyx");
    EXPECT_EQ(buffer->capacity, 0);
    EXPECT_STREQ(buffer->text, "");
    buffer->refCount = before;
}

TEST(StringLayout, EachThreadMayHaveTextsOfItsOwn) {
    std::string result;
    std::thread other([&] {
        String s("from");
        s += " elsewhere";
        result = s.c_str();
    });
    other.join();
    EXPECT_EQ(result, "from elsewhere");
}

// --- sharing

TEST(StringSharing, EveryChangeOfACopyLeavesTheFirstAloneAndDropsItsCount) {
    using Change = void (*)(String &);
    const std::vector<Change> changes = {
        [](String &s) { s += "x"; },           [](String &s) { s += 'x'; },
        [](String &s) { s += String("x"); },   [](String &s) { s.concat("x", 1); },
        [](String &s) { s.concatf("%d", 1); }, [](String &s) { s.format("%d", 1); },
        [](String &s) { s.insert(1, "x"); },   [](String &s) { s.insert(1, 'x'); },
        [](String &s) { s.trim(); },           [](String &s) { s.toUpperCase(); },
        [](String &s) { s.toLowerCase(); },    [](String &s) { s.replace('q', 'r'); },
        [](String &s) { s.deleteRegion(1); },  [](String &s) { s.deleteRegion(1, 2); },
        [](String &s) { s = "other"; },        [](String &s) { s = 'o'; },
        [](String &s) { s = kNull; },
    };
    for (size_t i = 0; i < changes.size(); ++i) {
        const String first(" Ab ");
        String copy(first);
        EXPECT_EQ(count(first), 2);
        changes[i](copy);
        EXPECT_EQ(count(first), 1) << i;
        EXPECT_NE(copy.c_str(), first.c_str()) << i;
        EXPECT_EQ(text(first), " Ab ") << i;
    }
}

TEST(StringSharing, AChangeThatTurnsOutToChangeNothingStillTakesAPrivateBlockForCaseAndReplace) {
    const String first("ABC");
    String upper(first);
    EXPECT_EQ(&upper.toUpperCase(), &upper);
    EXPECT_NE(upper.c_str(), first.c_str());
    String replaced(first);
    replaced.replace('q', 'r');
    EXPECT_NE(replaced.c_str(), first.c_str());
}

TEST(StringSharing, TrimAndAppendWithNothingToDoKeepTheBlockShared) {
    const String first("ABC");
    String copy(first);
    copy.trim();
    copy += "";
    copy += '\0';
    copy += kNull;
    copy += String();
    copy.concat(kNull, 3);
    copy.concat("xyz", 0);
    copy.concat("xyz", -1);
    copy.concatf("%s", "");
    copy.insert(4, "x");
    copy.insert(-1, "x");
    copy.insert(1, "");
    copy.insert(1, kNull);
    copy.insert(1, String());
    copy.insert(1, '\0');
    copy.deleteRegion(3);
    copy.deleteRegion(2, 2);
    copy.replace('A', '\0');
    EXPECT_EQ(copy.c_str(), first.c_str());
    EXPECT_EQ(count(first), 2);
}

TEST(StringSharing, APrivateCopyKeepsItsCapacityAndAnAppendedOneIsSizedAnew) {
    const String roomy("abc", 100);
    EXPECT_EQ(capacity(roomy), 103);
    String upper(roomy);
    upper.toUpperCase();
    EXPECT_EQ(capacity(upper), 103);
    String longer(roomy);
    longer += "d";
    EXPECT_EQ(capacity(longer), 7);
}

// --- construction and assignment

TEST(StringConstruction, OfACharacterTakesABlockOfCapacitySeven) {
    const String s('x');
    EXPECT_EQ(text(s), "x");
    EXPECT_EQ(capacity(s), 7);
    EXPECT_TRUE(isEmptyBuffer(String('\0')));
}

TEST(StringConstruction, OfAPieceReadsNoFurtherThanThePiece) {
    vxtest::GuardedBuffer bytes(8);
    std::memcpy(bytes.data(), "abcdefgh", 8);  // no NUL before the unreadable page
    EXPECT_EQ(text(String(bytes.data(), 2, 6)), "cdefgh");
}

TEST(StringAssignment, OfACharacterAlwaysTakesANewBlock) {
    String s("a long text that is kept nowhere");
    s = 'x';
    EXPECT_EQ(text(s), "x");
    EXPECT_EQ(capacity(s), 7);
    s = '\0';
    EXPECT_TRUE(isEmptyBuffer(s));
}

TEST(StringAssignment, OfALaterPartOfItsOwnText) {
    String s("abcdef");
    s = s.c_str() + 2;
    EXPECT_EQ(text(s), "cdef");
    const String keeper(s);
    s = s.c_str() + 1;
    EXPECT_EQ(text(s), "def");
    EXPECT_EQ(text(keeper), "cdef");
}

// --- comparison and queries

TEST(StringCompare, NulsInsideCountForEqualsButEndTheTextForTheOperators) {
    String one;
    one.concat("ab\0cd", 5);
    String two;
    two.concat("ab\0ce", 5);
    EXPECT_FALSE(one.equals(two));
    EXPECT_TRUE(one == two);
    EXPECT_TRUE(one.equals("ab"));
    EXPECT_FALSE(one == String("ab")) << "the lengths differ";
    EXPECT_EQ(one.indexOf('d'), -1);
    EXPECT_EQ(one.indexOf('d', 3), 4);
    EXPECT_EQ(one.lastIndexOf('d'), 4);
    EXPECT_EQ(one.lastIndexOf('\0'), 2);
    EXPECT_TRUE(one.equalsIgnoreCase(two)) << "strnicmp ends at the NUL";
    EXPECT_TRUE(one.endsWith(String("cd")));
    EXPECT_EQ(text(one.substring(0, 5)), "ab") << "the piece is taken from the NUL-terminated text";
    EXPECT_EQ(text(one.substring(1)), std::string("b\0cd", 4));
    one.toUpperCase();
    EXPECT_EQ(text(one), std::string("AB\0CD", 5));
    one.replace('\0', '-');
    EXPECT_EQ(text(one), "AB-CD");
    EXPECT_EQ(one.c_str()[5], '\0') << "the terminator is not part of the text";
    String blanks;
    blanks.concat(" \0x ", 4);
    blanks.trim();
    EXPECT_EQ(text(blanks), std::string("\0x", 2));
}

TEST(StringCompare, OnlyLettersDifferInCaseAtEveryPlaceOfAShortAndALongText) {
    const auto folded = [](int c) { return c >= 'A' && c <= 'Z' ? c + ('a' - 'A') : c; };
    for (const size_t length : {17U, 31U, 32U, 33U, 70U}) {
        for (size_t place = 0; place < length; place += place < 9 ? 1 : 8) {
            std::string one = vxtest::repeated(length, 'g');
            std::string two = vxtest::repeated(length, 'G');
            for (int a = 1; a < 256; ++a) {
                one[place] = static_cast<char>(a);
                for (const int difference : {0x00, 0x20, 0x01, 0x21, 0x40, 0x80, 0xa0}) {
                    const int b = a ^ difference;
                    if (b == 0) continue;
                    two[place] = static_cast<char>(b);
                    ASSERT_EQ(String(one.c_str()).equalsIgnoreCase(String(two.c_str())), folded(a) == folded(b))
                        << a << " and " << b << " at " << place << " of " << length;
                }
            }
        }
    }
}

TEST(StringCompare, IgnoringCaseALongTextEndsAtItsNulToo) {
    for (const size_t length : {20U, 40U, 100U}) {
        const std::string begin = vxtest::repeated(length, 'x') + '\0';
        String one;
        String two;
        one.concat((begin + "cd").c_str(), static_cast<long>(length + 3));
        two.concat((begin + "ef").c_str(), static_cast<long>(length + 3));
        EXPECT_TRUE(one.equalsIgnoreCase(two)) << length;
        two.toUpperCase();
        EXPECT_TRUE(one.equalsIgnoreCase(two)) << length;
        two.insert(0, "x");
        one.insert(0, "y");
        EXPECT_FALSE(one.equalsIgnoreCase(two)) << length;
    }
}

TEST(StringCompare, OperatorsWithATextTakeNullForEmpty) {
    const String s("b");
    EXPECT_TRUE(s == "b" && "b" == s && s != "c" && "c" != s);
    EXPECT_FALSE(s != "b" || "b" != s || s == "c" || "c" == s);
    EXPECT_TRUE(s < "c" && "a" < s && s > "a" && "c" > s);
    EXPECT_FALSE(s < "b" || "b" < s || s > "b" || "b" > s);
    EXPECT_TRUE(s <= "b" && "b" <= s && s >= "b" && "b" >= s);
    EXPECT_FALSE(s <= "a" || "c" <= s || s >= "c" || "a" >= s);
    EXPECT_TRUE(s > kNull && kNull < s && s >= kNull && kNull <= s && s != kNull && kNull != s);
    EXPECT_FALSE(s < kNull || kNull > s || s <= kNull || kNull >= s || s == kNull || kNull == s);
    const String empty;
    EXPECT_TRUE(empty == kNull && kNull == empty && empty <= kNull && empty >= kNull && kNull <= empty &&
                kNull >= empty);
    EXPECT_FALSE(empty < kNull || empty > kNull || kNull < empty || kNull > empty || empty != kNull || kNull != empty);
}

TEST(StringQuery, RegionMatchesRefusesPiecesThatLeaveTheTexts) {
    const String s("abcDEF");
    const String t("xxCdexx");
    EXPECT_TRUE(s.regionMatches(true, 2, t, 2, 3));
    EXPECT_FALSE(s.regionMatches(false, 2, t, 2, 3));
    EXPECT_FALSE(s.regionMatches(2, t, 2, 3));
    EXPECT_TRUE(s.regionMatches(3, String("DEF"), 0, 3));
    EXPECT_TRUE(s.regionMatches(6, t, 7, 0));
    EXPECT_FALSE(s.regionMatches(7, t, 0, 0));
    EXPECT_FALSE(s.regionMatches(0, t, 8, 0));
    EXPECT_FALSE(s.regionMatches(-1, t, 0, 0));
    EXPECT_FALSE(s.regionMatches(0, t, -1, 0));
    EXPECT_FALSE(s.regionMatches(0, t, 0, -1));
    EXPECT_FALSE(s.regionMatches(0, s, 0, 7));
    EXPECT_FALSE(s.regionMatches(1, s, 1, LONG_MAX)) << "the sum does not fit a long";
    EXPECT_FALSE(s.regionMatches(LONG_MAX, s, LONG_MAX, LONG_MAX));
}

// --- search

TEST(StringSearch, BackwardsForALongerTextReturnsTheDifferenceOfTheLengths) {
    const String s("abcabc");
    EXPECT_EQ(s.lastIndexOf(String("abc")), 3);
    EXPECT_EQ(s.lastIndexOf(String("bca")), 1);
    EXPECT_EQ(s.lastIndexOf(String("x")), -1);
    EXPECT_EQ(s.lastIndexOf(String()), 6);
    EXPECT_EQ(String("ab").lastIndexOf(String("abcde")), -3);
    EXPECT_EQ(String("ab").lastIndexOf(String("abcde"), 1), -3);
    EXPECT_EQ(String("ab").lastIndexOf(String("abcde"), -1), -1);
    EXPECT_EQ(String("ab").lastIndexOf(String("abcde"), -7), -1) << "not the difference";
    EXPECT_EQ(s.lastIndexOf(String("abc"), -7), -1);
    EXPECT_EQ(s.lastIndexOf(String("abc"), 0), 0);
    EXPECT_EQ(s.lastIndexOf(String("abc"), 2), 0);
    EXPECT_EQ(s.lastIndexOf(String("abc"), 100), 3);
    EXPECT_EQ(s.lastIndexOf(String(), 2), 2);
    EXPECT_EQ(s.lastIndexOfIgnoreCase(String("ABC")), 3);
    EXPECT_EQ(s.lastIndexOfIgnoreCase(String()), 6);
    EXPECT_EQ(s.lastIndexOfIgnoreCase(String("ABC"), 2), 0);
    EXPECT_EQ(s.lastIndexOfIgnoreCase(String("ABC"), 0), 0);
    EXPECT_EQ(s.lastIndexOfIgnoreCase(String("ABC"), -1), -1);
    EXPECT_EQ(s.lastIndexOfIgnoreCase(String("ABC"), -7), -1);
    EXPECT_EQ(s.lastIndexOfIgnoreCase(String(), -7), -1);
    EXPECT_EQ(String("ab").lastIndexOfIgnoreCase(String("ABCDE")), -3);
}

TEST(StringSearch, ATextIsFoundWhereverItBeginsAndEnds) {
    for (long length = 1; length <= 12; ++length) {
        const std::string needle = std::string("Needle-At-End").substr(0, static_cast<size_t>(length));
        std::string swapped = needle;
        for (char &c : swapped) c = static_cast<char>(std::isupper(c) != 0 ? std::tolower(c) : std::toupper(c));
        for (long before = 0; before <= 20; ++before) {
            for (long after = 0; after <= 9; ++after) {
                const std::string text = std::string(static_cast<size_t>(before), 'n') +
                                         std::string(needle == "N" ? "" : "N") + needle +
                                         std::string(static_cast<size_t>(after), '.');
                const long found = before + (needle == "N" ? 0 : 1);
                const String s(text.c_str());
                ASSERT_EQ(s.indexOf(String(needle.c_str())), length == 1 ? before : found) << text;
                ASSERT_EQ(s.lastIndexOf(String(needle.c_str())), found) << text;
                if (length > 2) ASSERT_EQ(s.indexOfIgnoreCase(String(swapped.c_str())), found) << text;
                ASSERT_EQ(s.lastIndexOfIgnoreCase(String(swapped.c_str())), found) << text;
            }
        }
    }
}

TEST(StringSearch, ATextThatOftenBeginsAndNeverGoesOnIsFoundAtTheEnd) {
    const std::string begun(1000, 'a');
    const String s((begun + "ab").c_str());
    EXPECT_EQ(s.indexOf(String("ab")), 1000);
    EXPECT_EQ(s.indexOf(String("ab"), 999), 1000);
    EXPECT_EQ(s.indexOf(String("ab"), 1001), -1);
    EXPECT_EQ(s.indexOf(String("aab")), 999);
    EXPECT_EQ(s.indexOf(String("ac")), -1);
    EXPECT_EQ(s.indexOfIgnoreCase(String("AB")), 1000);
    EXPECT_EQ(String(("ba" + begun).c_str()).lastIndexOf(String("ba")), 0);
}

TEST(StringSearch, ASearchFromTheStartEndsAtTheFirstNul) {
    String s;
    s.concat("abcdefgh\0needle\0needle", 22);
    EXPECT_EQ(s.indexOf('n'), -1);
    EXPECT_EQ(s.indexOf('h'), 7);
    EXPECT_EQ(s.indexOf('n', 8), -1);
    EXPECT_EQ(s.indexOf('n', 9), 9);
    EXPECT_EQ(s.indexOf('n', 10), -1);
    EXPECT_EQ(s.indexOf(String("needle")), -1);
    EXPECT_EQ(s.indexOf(String("needle"), 9), 9);
    EXPECT_EQ(s.indexOf(String("needle"), 10), -1);
    EXPECT_EQ(s.indexOf(String("needle"), 16), 16);
    String nul;
    nul.concat("\0x", 2);
    EXPECT_EQ(s.indexOf(nul), 0) << "the text sought ends at its NUL as well";
    EXPECT_EQ(s.indexOfIgnoreCase(nul), 8) << "strnicmp sees no difference after two NULs";
    EXPECT_EQ(s.indexOfIgnoreCase(String("NEEDLE")), 9) << "the search itself goes on after a NUL";
    EXPECT_EQ(s.lastIndexOf(String("needle")), 16);
    EXPECT_EQ(s.lastIndexOf('n'), 16);
    EXPECT_EQ(s.lastIndexOfIgnoreCase(String("NEEDLE")), 16);
}

TEST(StringQuery, ASubstringWithAnEndEndsAtTheFirstNul) {
    String s;
    s.concat("ab\0cd", 5);
    EXPECT_EQ(text(s.substring(0, 5)), "ab");
    EXPECT_EQ(text(s.substring(3, 5)), "");
    EXPECT_EQ(text(s.substring(1)), std::string("b\0cd", 4)) << "without an end it holds all";
}

// --- changes

TEST(StringChange, AppendingMovesOnlyWhenTheCapacityIsReached) {
    String s = times(8, 'a');
    const char *before = s.c_str();
    while (s.length() < 23) s += 'b';
    EXPECT_EQ(s.c_str(), before);
    EXPECT_EQ(capacity(s), 23);
    EXPECT_EQ(&(s += 'c'), &s);
    EXPECT_EQ(capacity(s), 39);
    EXPECT_EQ(text(s), "aaaaaaaabbbbbbbbbbbbbbbc");
}

TEST(StringChange, AppendingByteByByteFollowsTheRuleToSixtyFourKibibytes) {
    String s;
    std::string expected;
    long held = 0;
    for (int i = 0; i < 65536; ++i) {
        s += static_cast<char>('a' + i % 26);
        expected += static_cast<char>('a' + i % 26);
        if (static_cast<long>(expected.size()) > held) held = capacityByTable(expected.size());
        ASSERT_EQ(capacity(s), held);
    }
    EXPECT_EQ(text(s), expected);
}

TEST(StringChange, AnArgumentMayLieInTheStringItself) {
    // Every length around the sizes where the block moves, each with room and without.
    for (size_t n = 1; n < 300; ++n) {
        const std::string original = std::string(n - 1, 'a') + 'z';
        for (const size_t from : {size_t{0}, n / 2, n - 1, n}) {
            const std::string rest = original.substr(from);
            String s(original.c_str());
            s += s.c_str() + from;
            ASSERT_EQ(text(s), original + rest);
            s = original.c_str();  // in the larger block
            s += s.c_str() + from;
            ASSERT_EQ(text(s), original + rest);

            for (const size_t pos : {size_t{0}, n / 3, n}) {
                String inserted(original.c_str());
                inserted.insert(static_cast<long>(pos), inserted.c_str() + from);
                std::string expected = original;
                expected.insert(pos, rest);
                ASSERT_EQ(text(inserted), expected) << n << ' ' << from << ' ' << pos;
                inserted = original.c_str();
                inserted.insert(static_cast<long>(pos), inserted.c_str() + from);
                ASSERT_EQ(text(inserted), expected) << n << ' ' << from << ' ' << pos;
            }
        }
        String self(original.c_str());
        self += self;
        ASSERT_EQ(text(self), original + original);
        self.insert(1, self);
        ASSERT_EQ(self.length(), static_cast<long>(4 * n));
    }
}

TEST(StringChange, AStringMayBeInsertedIntoItself) {
    String s("abc");
    EXPECT_EQ(&s.insert(1, s), &s);
    EXPECT_EQ(text(s), "aabcbc");
}

TEST(StringChange, FormatArgumentsMayLieInTheStringItself) {
    String s("abc", 300);
    s.format("<%s|%s>", s.c_str(), s.c_str() + 1);
    EXPECT_EQ(text(s), "<abc|bc>");
    s.concatf("-%s-%s", s.c_str(), s.c_str());
    EXPECT_EQ(text(s), "<abc|bc>-<abc|bc>-<abc|bc>");
    String longer = times(700, 'x');
    longer.concatf("-%s-%s", longer.c_str(), longer.c_str());
    const std::string long700(700, 'x');
    std::string expected = long700;
    expected.append("-").append(long700).append("-").append(long700);
    EXPECT_EQ(text(longer), expected);
    longer.format("%s", longer.c_str() + 2100);
    EXPECT_EQ(text(longer), "xx");
}

TEST(StringChange, FormatOfASharedBlockIsSizedForItsOwnText) {
    const String first("abc", 200);
    String s(first);
    s.format("%d", 12345678);
    EXPECT_EQ(capacity(s), 23);
    EXPECT_EQ(text(first), "abc");
}

TEST(StringChange, WhereTheTwoFormattersDifferTheMeasuredLengthHolds) {
    String s("old text that is long");
    s.format("%.0d", 0);  // measured 1, the system writes nothing
    EXPECT_EQ(s.length(), 1);
    EXPECT_EQ(text(s), std::string(1, '\0'));
    s.format("%p", static_cast<void *>(nullptr));  // measured as "0x0", written as "(nil)"
    EXPECT_EQ(text(s), "(ni");
    s.format("%lld", 123456789LL);  // measured as "ld" would be: two characters
    EXPECT_EQ(text(s), "12");
    s.format("%#.3o", 8U);  // measured with the prefix before three digits, of which the system makes it the first
    EXPECT_EQ(text(s), std::string("010\0", 4));
    s.format("%.0c|", 'x');  // measured without the character
    EXPECT_EQ(text(s), "x");
    s.format("a%cb", '\0');  // measured without the NUL, which the system writes
    EXPECT_EQ(text(s), std::string("a\0", 2));
    s.format("a%2cb", '\0');  // a width makes both write as many bytes
    EXPECT_EQ(text(s), std::string("a \0b", 4));
    s.format("%'d", 1234567);  // measured as the two characters after the percent sign
    EXPECT_EQ(text(s), "12");
    char address[32];
    const int length = std::snprintf(address, sizeof address, "+%p", static_cast<void *>(&s));
    s.format("%+p", static_cast<void *>(&s));  // measured without a sign
    EXPECT_EQ(text(s), std::string(address, static_cast<size_t>(length) - 1));
    String t("x");
    t.concatf("%.0d|", 0);
    EXPECT_EQ(text(t), std::string("x|\0", 3));
    EXPECT_EQ(t.c_str()[3], '\0');
}

TEST(StringChange, AFormattedTextAboveTheLimitCountsAsEmpty) {
    String s("old");
    EXPECT_EQ(text(s.concatf("%2000000000d%2000000000d", 1, 2)), "old");
    EXPECT_TRUE(isEmptyBuffer(s.format("%2000000000d%2000000000d", 1, 2)));
}

TEST(StringChange, TheMeasuredLengthHoldsForFormatsOfEveryShape) {
    static constexpr char kConversions[] = "diuxXocs";
    std::mt19937 random(1202);
    const auto oneIn = [&](unsigned int n) { return random() % n == 0; };
    for (int i = 0; i < 20000; ++i) {
        std::string fmt = "<%";
        for (const char flag : {'-', '0', '+', ' ', '#'}) {
            if (oneIn(6)) fmt += flag;
        }
        if (oneIn(2)) fmt += std::to_string(random() % (oneIn(20) ? 20000 : 300));
        if (oneIn(5)) fmt += "." + std::to_string(random() % 20);
        const char conversion = kConversions[random() % (sizeof kConversions - 1)];
        const bool isNumber = std::strchr("diuxXo", conversion) != nullptr;
        const bool isLong = isNumber && oneIn(2);
        if (isLong) fmt += 'l';
        (fmt += conversion) += '>';

        String s;
        String t("12345");
        int measured = 0;
        std::string expected;  // the system's text, cut or filled with NULs
        const auto write = [&](auto argument) {
            measured = strlenf(fmt.c_str(), argument);
            expected.assign(static_cast<size_t>(measured), '\0');
            std::snprintf(expected.data(), expected.size() + 1, fmt.c_str(), argument);
            s.format(fmt.c_str(), argument);
            t.concatf(fmt.c_str(), argument);
        };
        const auto number = static_cast<int>(random() >> random() % 32);
        if (conversion == 's') {
            const std::string argument(random() % 400, 'x');
            write(oneIn(8) ? kNull : argument.c_str());
        } else if (isLong) {
            write(oneIn(4) ? LONG_MIN : static_cast<long>(number));
        } else {
            write(number);
        }
        ASSERT_EQ(s.length(), measured) << fmt;
        ASSERT_EQ(text(s), expected) << fmt;
        ASSERT_EQ(t.length(), measured + 5) << fmt;
        ASSERT_EQ(text(t), "12345" + text(s)) << fmt;
        ASSERT_EQ(s.c_str()[s.length()], '\0') << fmt;
    }
    String s("old");
    s.format("%");
    EXPECT_EQ(s.length(), strlenf("%"));
    s.format("100%%");
    EXPECT_EQ(text(s), "100%");
    s.format(kNull);
    EXPECT_TRUE(isEmptyBuffer(s));
    EXPECT_TRUE(isEmptyBuffer(s.concatf(kNull)));
}

// --- sums

TEST(StringSum, OfATemporaryIsMadeInItsBlockButSizedAsANewOne) {
    for (size_t n = 1; n < 300; ++n) {
        for (size_t m = 1; m < 20; ++m) {
            const String left = times(n, 'a');
            const std::string right(m, 'b');
            const String added = String(left.c_str(), 400) + right.c_str();
            ASSERT_EQ(text(added), text(left) + right);
            ASSERT_EQ(capacity(added), capacityByTable(n + m)) << "as it is for " << n << " + " << m;
            ASSERT_EQ(capacity(times(n, 'a') + String(right.c_str())), capacityByTable(n + m));
            ASSERT_EQ(capacity(times(n, 'a') + 'b'), capacityByTable(n + 1));
        }
    }
    String gone("left");
    EXPECT_EQ(text(std::move(gone) + "right"), "leftright");
    String shared("left");
    const String keeper(shared);
    EXPECT_EQ(text(std::move(shared) + 'x'), "leftx");
    EXPECT_EQ(text(keeper), "left");
    String self("abcdefg");
    EXPECT_EQ(text(std::move(self) + self), "abcdefgabcdefg");
    EXPECT_EQ(text(String() + "x"), "x");
    EXPECT_TRUE(isEmptyBuffer(String() + ""));
}

// --- memory, and everything together

TEST(StringLimit, ATextWithoutMemoryAbortsTheProcess) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(String("x").concat("y", LONG_MAX), testing::KilledBySignal(SIGABRT), "");
    if constexpr (sizeof(long) > sizeof(int32_t)) {
        EXPECT_EXIT(String("x", LONG_MAX), testing::KilledBySignal(SIGABRT), "");
    }
}

TEST(StringModel, AgreesOverRandomOperations) {
    vxtest::ModelSteps steps("strings", 300000);
    vxtest::StringModelRun run([&](size_t limit) { return steps.below(limit); });
    while (steps.next()) {
        const std::string difference = run.step();
        ASSERT_EQ(difference, "") << steps.left() << " steps were left";
    }
}

}  // namespace
