// SPDX-License-Identifier: MIT
// String: sharing and un-sharing, the sizes of its blocks, and what each operation does at its edges.
#include <malloc.h>
#include <vxutils/vxstring.h>
#include <vxutils/xprintf.h>

#include <cctype>
#include <climits>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "support/model.h"
#include "support/process.h"
#include "support/resources.h"
#include "support/string_model.h"

// Formats that the compiler cannot check, and wrong ones, are what is tested here.
#pragma GCC diagnostic ignored "-Wformat"
#pragma GCC diagnostic ignored "-Wformat-extra-args"
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
#pragma GCC diagnostic ignored "-Wformat-overflow"
#pragma GCC diagnostic ignored "-Wformat-zero-length"

namespace {

using vxtest::blockOf;
using vxtest::capacityByTable;

const String::StringBuffer *emptyBuffer() { return String::StringBuffer::EMPTY(); }
bool isEmptyBuffer(const String &s) { return blockOf(s) == emptyBuffer(); }
int32_t count(const String &s) { return blockOf(s)->refCount; }
int32_t capacity(const String &s) { return blockOf(s)->capacity; }
std::string text(const String &s) { return {s.c_str(), static_cast<size_t>(s.length())}; }
String times(size_t n, char c) { return {std::string(n, c).c_str()}; }
constexpr const char *kNull = nullptr;

// Layout and blocks

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

// Sharing

TEST(StringSharing, CopyingIsOneIncrementAndDestroyingOneDecrement) {
    const String a("shared");
    EXPECT_EQ(count(a), 1);
    {
        const String b(a);
        String c;
        c = b;
        EXPECT_EQ(count(a), 3);
        EXPECT_EQ(c.c_str(), a.c_str());
    }
    EXPECT_EQ(count(a), 1);
}

TEST(StringSharing, AssigningAnObjectToItselfDoesNothing) {
    String a("self");
    const String &same = a;
    const char *before = a.c_str();
    a = same;
    EXPECT_EQ(a.c_str(), before);
    EXPECT_EQ(count(a), 1);
    const String copy(a);
    a = copy;
    EXPECT_EQ(count(a), 2);
}

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

// Construction and assignment

TEST(StringConstruction, OfACharacterTakesABlockOfCapacitySeven) {
    const String s('x');
    EXPECT_EQ(text(s), "x");
    EXPECT_EQ(capacity(s), 7);
    EXPECT_TRUE(isEmptyBuffer(String('\0')));
}

TEST(StringConstruction, WithAHintAlwaysOwnsABlock) {
    EXPECT_TRUE(isEmptyBuffer(String(kNull, 50)));
    EXPECT_EQ(capacity(String("", 0)), 7);
    EXPECT_EQ(capacity(String("", -5)), 7);
    EXPECT_EQ(capacity(String("", 8)), 23);
    EXPECT_EQ(capacity(String("abcdefghij", 3)), 23);
    EXPECT_EQ(capacity(String("abc", 200)), 255);
    const String s("", 20);
    EXPECT_EQ(count(s), 1);
    EXPECT_EQ(text(s), "");
}

TEST(StringConstruction, OfAPieceClampsItsNumbers) {
    const char *source = "abcdefgh";
    EXPECT_EQ(text(String(source, 2, 3)), "cde");
    EXPECT_EQ(text(String(source, 2, 100)), "cdefgh");
    EXPECT_EQ(text(String(source, -7, 3)), "abc");
    EXPECT_EQ(text(String(source, LONG_MIN, LONG_MAX)), source);
    EXPECT_EQ(text(String(source, 7, LONG_MAX)), "h");
    EXPECT_TRUE(isEmptyBuffer(String(source, 8, 1)));
    EXPECT_TRUE(isEmptyBuffer(String(source, LONG_MAX, LONG_MAX)));
    EXPECT_TRUE(isEmptyBuffer(String(source, 0, 0)));
    EXPECT_TRUE(isEmptyBuffer(String(source, 0, -1)));
    EXPECT_TRUE(isEmptyBuffer(String(kNull, 0, 5)));
    EXPECT_TRUE(isEmptyBuffer(String("", 0, 5)));
}

TEST(StringConstruction, OfAPieceReadsNoFurtherThanThePiece) {
    vxtest::GuardedBuffer bytes(8);
    std::memcpy(bytes.data(), "abcdefgh", 8);  // no NUL before the unreadable page
    EXPECT_EQ(text(String(bytes.data(), 2, 6)), "cdefgh");
}

TEST(StringAssignment, OfATextStaysInPlaceWhereItFits) {
    String s("abcdefgh");
    const char *before = s.c_str();
    s = "abcdefghijklmnopqrstuvw";  // 23
    EXPECT_EQ(s.c_str(), before);
    s = "abcdefghijklmnopqrstuvwx";  // 24
    EXPECT_EQ(capacity(s), 39);
    s = "x";
    EXPECT_EQ(capacity(s), 39);
    s = "";
    EXPECT_EQ(capacity(s), 39) << "an empty text does not give the block away";
    EXPECT_EQ(text(s), "");
    s = kNull;
    EXPECT_TRUE(isEmptyBuffer(s));
    s = "";
    EXPECT_EQ(capacity(s), 7);
    EXPECT_EQ(count(s), 1);
}

TEST(StringAssignment, OfACharacterAlwaysTakesANewBlock) {
    String s("a long text that is kept nowhere");
    s = 'x';
    EXPECT_EQ(text(s), "x");
    EXPECT_EQ(capacity(s), 7);
    s = '\0';
    EXPECT_TRUE(isEmptyBuffer(s));
}

TEST(StringAssignment, OfItsOwnTextFurtherOn) {
    String s("abcdef");
    s = s.c_str() + 2;
    EXPECT_EQ(text(s), "cdef");
    const String keeper(s);
    s = s.c_str() + 1;
    EXPECT_EQ(text(s), "def");
    EXPECT_EQ(text(keeper), "cdef");
}

TEST(StringOf, PrintsWhatItIsGiven) {
    EXPECT_EQ(text(String::stringOf('c')), "c");
    EXPECT_TRUE(isEmptyBuffer(String::stringOf('\0')));
    EXPECT_EQ(text(String::stringOf("text")), "text");
    EXPECT_TRUE(isEmptyBuffer(String::stringOf(kNull)));
    EXPECT_EQ(text(String::stringOf("abcdef", 1, 2)), "bc");
    EXPECT_EQ(text(String::stringOf(true)), "true");
    EXPECT_EQ(text(String::stringOf(false)), "false");
    EXPECT_EQ(text(String::stringOf(0L)), "0");
    for (const long number : {LONG_MIN, -1L, 42L, LONG_MAX}) {
        EXPECT_EQ(text(String::stringOf(number)), std::to_string(number));
    }
    EXPECT_EQ(text(String::stringOf(ULONG_MAX)), std::to_string(ULONG_MAX));
    int target = 0;
    char expected[32];
    std::snprintf(expected, sizeof expected, "%p", static_cast<void *>(&target));
    EXPECT_EQ(text(String::stringOf(static_cast<void *>(&target))), expected);
    std::snprintf(expected, sizeof expected, "%p", static_cast<void *>(nullptr));
    EXPECT_EQ(text(String::stringOf(static_cast<void *>(nullptr))), expected);
}

// Queries

TEST(StringCompare, CompareToIsSeenFromTheArgument) {
    const String ab("ab");
    const String ac("ac");
    EXPECT_GT(ab.compareTo(ac), 0);
    EXPECT_LT(ac.compareTo(ab), 0);
    EXPECT_EQ(ab.compareTo(String("ab")), 0);
    EXPECT_EQ(ab.compareTo(ab), 0);
    EXPECT_LT(ab.compareTo(String()), 0);
    EXPECT_GT(String("AB").compareToIgnoreCase(ac), 0);
    EXPECT_LT(ac.compareToIgnoreCase(String("AB")), 0);
    EXPECT_EQ(ab.compareToIgnoreCase(String("AB")), 0);
    EXPECT_GT(String("a").compareTo(String("\xe4")), 0) << "bytes are unsigned";
}

TEST(StringCompare, EqualsKnowsNullAndLengths) {
    const String s("Text");
    EXPECT_TRUE(s.equals(String("Text")));
    EXPECT_FALSE(s.equals(String("text")));
    EXPECT_FALSE(s.equals(String("Text2")));
    EXPECT_TRUE(s.equals("Text"));
    EXPECT_FALSE(s.equals(kNull));
    EXPECT_TRUE(String().equals(kNull));
    EXPECT_TRUE(String("", 9).equals(kNull));
    EXPECT_TRUE(s.equalsIgnoreCase(String("tEXT")));
    EXPECT_FALSE(s.equalsIgnoreCase(String("tEXT2")));
    EXPECT_TRUE(s.equalsIgnoreCase("tEXT"));
    EXPECT_FALSE(s.equalsIgnoreCase(kNull));
    EXPECT_TRUE(String().equalsIgnoreCase(kNull));
    EXPECT_FALSE(String("\xc4").equalsIgnoreCase("\xe4")) << "only ASCII letters are folded";
}

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

TEST(StringCompare, OnlyLettersDifferInCaseAtEveryPlaceOfAWord) {
    const auto folded = [](int c) { return c >= 'A' && c <= 'Z' ? c + ('a' - 'A') : c; };
    for (size_t place = 0; place < 9; ++place) {
        std::string one = "0123456789abcdefg";
        std::string two = "0123456789ABCDEFG";
        for (int a = 1; a < 256; ++a) {
            one[place] = static_cast<char>(a);
            for (const int difference : {0x00, 0x20, 0x01, 0x21, 0x40, 0x80, 0xa0}) {
                const int b = a ^ difference;
                if (b == 0) continue;
                two[place] = static_cast<char>(b);
                ASSERT_EQ(String(one.c_str()).equalsIgnoreCase(String(two.c_str())), folded(a) == folded(b))
                    << a << " and " << b << " at " << place;
            }
        }
    }
}

TEST(StringCompare, OperatorsBetweenStrings) {
    const String ab("ab");
    const String ac("ac");
    const String same(ab);
    EXPECT_TRUE(ab < ac && ab <= ac && ac > ab && ac >= ab && ab != ac);
    EXPECT_FALSE(ab == ac || ab > ac || ab >= ac || ac < ab || ac <= ab);
    EXPECT_TRUE(ab == same && ab <= same && ab >= same);
    EXPECT_FALSE(ab != same || ab < same || ab > same);
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

TEST(StringCompare, OperatorsWithACharacter) {
    const String x("x");
    EXPECT_TRUE(x == 'x' && 'x' == x && x != 'y' && 'y' != x && x != '\0' && '\0' != x);
    EXPECT_FALSE(x != 'x' || 'x' != x || x == 'y' || 'y' == x || x == '\0' || '\0' == x);
    EXPECT_FALSE(String("xx") == 'x');
    EXPECT_TRUE(String() == '\0');
    EXPECT_FALSE(String() == 'x');
    String nul;
    nul.concat("\0", 1);
    EXPECT_FALSE(nul == '\0') << "one character that is NUL is not the empty text";
}

TEST(StringQuery, StartsAndEnds) {
    const String s("abcabc");
    EXPECT_TRUE(s.startsWith(String()));
    EXPECT_TRUE(s.startsWith(s));
    EXPECT_FALSE(s.startsWith(String("abcabcd")));
    EXPECT_TRUE(s.startsWith(String("abc"), 3));
    EXPECT_FALSE(s.startsWith(String("abc"), 4));
    EXPECT_FALSE(s.startsWith(String("abc"), -1));
    EXPECT_TRUE(s.startsWith(String(), 6));
    EXPECT_FALSE(s.startsWith(String(), 7));
    EXPECT_FALSE(s.startsWith(String(), LONG_MAX));
    EXPECT_TRUE(s.endsWith(String("bc")));
    EXPECT_TRUE(s.endsWith(String()));
    EXPECT_FALSE(s.endsWith(String("xabcabc")));
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

TEST(StringQuery, GetCharsCopiesTheClampedPieceWithoutTerminator) {
    const String s("abcdef");
    char out[8];
    std::memset(out, '#', sizeof out);
    EXPECT_EQ(s.getChars(1, 3, out), 2);
    EXPECT_EQ(std::string(out, 8), "bc######");
    EXPECT_EQ(s.getChars(-4, 2, out), 2);
    EXPECT_EQ(std::string(out, 8), "ab######");
    EXPECT_EQ(s.getChars(4, LONG_MAX, out), 2);
    EXPECT_EQ(s.getChars(4, 2, out), 0);
    EXPECT_EQ(s.getChars(9, 12, out), 0);
    EXPECT_EQ(s.getChars(LONG_MIN, LONG_MIN, out), 0);
    EXPECT_EQ(s.getChars(0, 6, nullptr), 0);
}

TEST(StringQuery, CharactersOutsideAreNul) {
    const String s("ab\xff");
    EXPECT_EQ(s[0], 'a');
    EXPECT_EQ(s[2], '\xff');
    EXPECT_EQ(s[3], '\0');
    EXPECT_EQ(s[-1], '\0');
    EXPECT_EQ(s[LONG_MAX], '\0');
    EXPECT_EQ(&*s, &s);
}

TEST(StringQuery, ToIntegerReadsTheBaseFromThePrefix) {
    EXPECT_EQ(String("12").toInteger(), 12);
    EXPECT_EQ(String("012").toInteger(), 10);
    EXPECT_EQ(String("0x1f").toInteger(), 31);
    EXPECT_EQ(String(" -7 apples").toInteger(), -7);
    EXPECT_EQ(String("abc").toInteger(), -1);
    EXPECT_EQ(String("").toInteger(), -1);
    EXPECT_EQ(String("0").toInteger(), 0);
    EXPECT_EQ(String("-2147483648").toInteger(), INT_MIN);
    for (const char *large : {"2147483648", "4294967297", "0xFFFFFFFF", "99999999999999999999"}) {
        EXPECT_EQ(String(large).toInteger(), INT_MAX) << large;
    }
    for (const char *small : {"-2147483649", "-4294967295", "-99999999999999999999"}) {
        EXPECT_EQ(String(small).toInteger(), INT_MIN) << small;
    }
}

TEST(StringQuery, SubstringStartsAtTheBeginningForANegativePosition) {
    const String s("abcdefgh");
    EXPECT_EQ(text(s.substring(3)), "defgh");
    EXPECT_EQ(text(s.substring(0)), "abcdefgh");
    EXPECT_TRUE(isEmptyBuffer(s.substring(8)));
    EXPECT_TRUE(isEmptyBuffer(s.substring(-1)));
    EXPECT_EQ(text(s.substring(-2, 3)), "abcde");
    EXPECT_EQ(text(s.substring(-20, 3)), "abcdefgh");
    EXPECT_EQ(text(s.substring(LONG_MIN, LONG_MAX)), "abcdefgh");
    EXPECT_EQ(text(s.substring(-1, LONG_MAX)), "abcdefgh");
    EXPECT_EQ(text(s.substring(-5, -3)), "ab");
    EXPECT_EQ(text(s.substring(2, 4)), "cd");
    EXPECT_EQ(text(s.substring(6, 100)), "gh");
    EXPECT_TRUE(isEmptyBuffer(s.substring(4, 4)));
    EXPECT_TRUE(isEmptyBuffer(s.substring(5, 4)));
    EXPECT_TRUE(isEmptyBuffer(s.substring(8, 12)));
}

// Search

TEST(StringSearch, ForACharacter) {
    const String s("abcabc");
    EXPECT_EQ(s.indexOf('b'), 1);
    EXPECT_EQ(s.indexOf('x'), -1);
    EXPECT_EQ(s.indexOf('\0'), -1);
    EXPECT_EQ(s.indexOf('b', 2), 4);
    EXPECT_EQ(s.indexOf('b', -3), 1);
    EXPECT_EQ(s.indexOf('c', 5), 5);
    EXPECT_EQ(s.indexOf('c', 6), -1);
    EXPECT_EQ(s.indexOf('c', LONG_MAX), -1);
    EXPECT_EQ(s.indexOf('\0', 0), -1);
    EXPECT_EQ(String().indexOf('a', -1), -1);
    EXPECT_EQ(s.lastIndexOf('b'), 4);
    EXPECT_EQ(s.lastIndexOf('x'), -1);
    EXPECT_EQ(s.lastIndexOf('b', 3), 1);
    EXPECT_EQ(s.lastIndexOf('b', 4), 4);
    EXPECT_EQ(s.lastIndexOf('c', 100), 5);
    EXPECT_EQ(s.lastIndexOf('a', 0), 0);
    EXPECT_EQ(s.lastIndexOf('a', -1), -1);
    EXPECT_EQ(s.lastIndexOf('\0'), -1);
    EXPECT_EQ(String().lastIndexOf('a'), -1);
    EXPECT_EQ(String().lastIndexOf('a', 5), -1);
}

TEST(StringSearch, ForAText) {
    const String s("abcabc");
    EXPECT_EQ(s.indexOf(String("ca")), 2);
    EXPECT_EQ(s.indexOf(String()), 0);
    EXPECT_EQ(s.indexOf(String("cab"), 3), -1);
    EXPECT_EQ(s.indexOf(String("abc"), 1), 3);
    EXPECT_EQ(s.indexOf(String("abc"), 3), 3);
    EXPECT_EQ(s.indexOf(String("abc"), 4), -1);
    EXPECT_EQ(s.indexOf(String("abc"), LONG_MIN), 0);
    EXPECT_EQ(s.indexOf(String(), 6), 6);
    EXPECT_EQ(s.indexOf(String(), 7), -1);
    EXPECT_EQ(String("ab").indexOf(String("abcde"), -10), -1);
    EXPECT_EQ(s.indexOfIgnoreCase(String("CA")), 2);
    EXPECT_EQ(s.indexOfIgnoreCase(String()), 0);
    EXPECT_EQ(s.indexOfIgnoreCase(String("abcabcd")), -1);
    EXPECT_EQ(s.indexOfIgnoreCase(String("ABC"), 1), 3);
    EXPECT_EQ(s.indexOfIgnoreCase(String("ABC"), -5), 0);
    EXPECT_EQ(s.indexOfIgnoreCase(String("ABC"), 4), -1);
    EXPECT_EQ(s.indexOfIgnoreCase(String("abcabcd"), -9), -1);
    EXPECT_EQ(s.indexOfIgnoreCase(String(), 6), 6);
}

TEST(StringSearch, BackwardsForATextMayAnswerANegativeStart) {
    const String s("abcabc");
    EXPECT_EQ(s.lastIndexOf(String("abc")), 3);
    EXPECT_EQ(s.lastIndexOf(String("bca")), 1);
    EXPECT_EQ(s.lastIndexOf(String("x")), -1);
    EXPECT_EQ(s.lastIndexOf(String()), 6);
    EXPECT_EQ(String("ab").lastIndexOf(String("abcde")), -3);
    EXPECT_EQ(String("ab").lastIndexOf(String("abcde"), 1), -3);
    EXPECT_EQ(String("ab").lastIndexOf(String("abcde"), -1), -1);
    EXPECT_EQ(s.lastIndexOf(String("abc"), 2), 0);
    EXPECT_EQ(s.lastIndexOf(String("abc"), 100), 3);
    EXPECT_EQ(s.lastIndexOf(String(), 2), 2);
    EXPECT_EQ(s.lastIndexOfIgnoreCase(String("ABC")), 3);
    EXPECT_EQ(s.lastIndexOfIgnoreCase(String()), 6);
    EXPECT_EQ(s.lastIndexOfIgnoreCase(String("ABC"), 2), 0);
    EXPECT_EQ(s.lastIndexOfIgnoreCase(String("ABC"), -1), -1);
    EXPECT_EQ(String("ab").lastIndexOfIgnoreCase(String("ABCDE")), -3);
}

// Changes

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
}

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

TEST(StringChange, ConcatTakesBytesAsTheyAre) {
    String s("ab");
    EXPECT_EQ(&s.concat("c\0d", 3), &s);
    EXPECT_EQ(text(s), std::string("abc\0d", 5));
    EXPECT_EQ(&s.concat(String("e")), &s);
    EXPECT_EQ(s.length(), 6);
    vxtest::GuardedBuffer bytes(3);
    std::memcpy(bytes.data(), "xyz", 3);
    EXPECT_EQ(text(String("w").concat(bytes.data(), 3)), "wxyz");
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

TEST(StringChange, InsertSelf) {
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

TEST(StringChange, FormatReplacesTheTextByTheRule) {
    String s;
    EXPECT_EQ(&s.format("%s-%05d-%x-%c", "if", 42, 255U, '!'), &s);
    EXPECT_EQ(text(s), "if-00042-ff-!");
    EXPECT_EQ(capacity(s), 23);
    const char *before = s.c_str();
    s.format("%d", 7);
    EXPECT_EQ(s.c_str(), before);
    s.format("%s", "");
    EXPECT_TRUE(isEmptyBuffer(s));
    for (const int width : {1, 7, 8, 23, 24, 127, 128, 254, 255, 256, 257, 511, 512, 513, 5000}) {
        String wide;
        wide.format("%*d", width, 5);
        EXPECT_EQ(text(wide), std::string(static_cast<size_t>(width) - 1, ' ') + '5');
        EXPECT_EQ(capacity(wide), capacityByTable(static_cast<size_t>(width)));
        String plain;
        plain.format("%s", wide.c_str());
        EXPECT_EQ(text(plain), text(wide));
        EXPECT_EQ(capacity(plain), capacity(wide));
        plain.format(("%" + std::to_string(width) + "d").c_str(), 5);
        EXPECT_EQ(text(plain), text(wide));
    }
}

TEST(StringChange, FormatOfASharedBlockIsSizedForItsOwnText) {
    const String first("abc", 200);
    String s(first);
    s.format("%d", 12345678);
    EXPECT_EQ(capacity(s), 23);
    EXPECT_EQ(text(first), "abc");
}

TEST(StringChange, ConcatfAppends) {
    String s("n=");
    EXPECT_EQ(&s.concatf("%d", 5), &s);
    EXPECT_EQ(text(s), "n=5");
    s.concatf("%s", "");
    EXPECT_EQ(text(s), "n=5");
    String empty;
    empty.concatf("%s", "");
    EXPECT_TRUE(isEmptyBuffer(empty));
    empty.concatf("%s", "0123456");
    EXPECT_EQ(capacity(empty), 7);
    empty.concatf("%c", '7');
    EXPECT_EQ(capacity(empty), 23);
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
    String t("x");
    t.concatf("%.0d|", 0);
    EXPECT_EQ(text(t), std::string("x|\0", 3));
    EXPECT_EQ(t.c_str()[3], '\0');
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

TEST(StringChange, DeleteRegionCutsTheEndOrAPiece) {
    String s("abcdef");
    EXPECT_EQ(&s.deleteRegion(2, 100), &s);
    EXPECT_EQ(text(s), "ab");
    s = "abcdef";
    EXPECT_EQ(text(s.deleteRegion(1, 3)), "adef");
    EXPECT_EQ(text(s.deleteRegion(-5, 1)), "def");
    EXPECT_EQ(text(s.deleteRegion(2, 1)), "def");
    EXPECT_EQ(text(s.deleteRegion(3, 9)), "def");
    EXPECT_EQ(text(s.deleteRegion(LONG_MAX, LONG_MIN)), "def");
    EXPECT_EQ(text(s.deleteRegion(3)), "def");
    EXPECT_EQ(text(s.deleteRegion(2)), "de");
    s.deleteRegion(0);
    EXPECT_EQ(text(s), "");
    EXPECT_FALSE(isEmptyBuffer(s)) << "the block is kept";
    const String first("abcdefghij", 100);
    String copy(first);
    copy.deleteRegion(-1);
    EXPECT_EQ(capacity(copy), 7);
    EXPECT_FALSE(isEmptyBuffer(copy));
    String second(first);
    second.deleteRegion(1, 4);
    EXPECT_EQ(text(second), "aefghij");
    EXPECT_EQ(capacity(second), 7);
}

TEST(StringChange, CaseIsAsciiOnly) {
    String s("aZ@[`{\xe4\xc4z");
    EXPECT_EQ(text(s.toUpperCase()), "AZ@[`{\xe4\xc4Z");
    EXPECT_EQ(text(s.toLowerCase()), "az@[`{\xe4\xc4z");
    String empty("", 20);
    EXPECT_EQ(&empty.toUpperCase(), &empty);
    EXPECT_TRUE(isEmptyBuffer(String().toLowerCase()));
}

TEST(StringChange, ReplaceChangesEveryByte) {
    String s("a.b.c");
    s.replace('.', '/');
    EXPECT_EQ(text(s), "a/b/c");
    s.replace('/', '\0');
    EXPECT_EQ(text(s), "a/b/c");
    s.replace('\0', 'x');
    EXPECT_EQ(text(s), "a/b/c");
    EXPECT_EQ(s.c_str()[5], '\0');
}

TEST(StringChange, TrimCutsTheSixBlanks) {
    String s(" \t\n\v\f\rx y\r\f\v\n\t ");
    s.trim();
    EXPECT_EQ(text(s), "x y");
    String blanks("   ");
    blanks.trim();
    EXPECT_TRUE(isEmptyBuffer(blanks));
    String roomy("", 50);
    roomy.trim();
    EXPECT_TRUE(isEmptyBuffer(roomy));
    String letter("x");
    const char *before = letter.c_str();
    letter.trim();
    EXPECT_EQ(letter.c_str(), before);
    String notBlank("\x08\x0e\x1f\xa0");
    notBlank.trim();
    EXPECT_EQ(notBlank.length(), 4);
    const String first("  abc", 90);
    String copy(first);
    copy.trim();
    EXPECT_EQ(text(copy), "abc");
    EXPECT_EQ(capacity(copy), 7);
}

TEST(StringChange, InsertPutsTextBeforeAPosition) {
    String s("bd");
    EXPECT_EQ(text(s.insert(0, "a")), "abd");
    EXPECT_EQ(text(s.insert(2, String("c"))), "abcd");
    EXPECT_EQ(text(s.insert(4, 'e')), "abcde");
    EXPECT_EQ(text(s.insert(6, 'x')), "abcde");
    EXPECT_EQ(text(s.insert(LONG_MAX, "x")), "abcde");
    EXPECT_EQ(text(s.insert(-1, "x")), "abcde");
    EXPECT_EQ(capacity(s), 7);
    s.insert(1, "1234");
    EXPECT_EQ(text(s), "a1234bcde");
    EXPECT_EQ(capacity(s), 23);
}

TEST(StringSum, IsTheLeftOperandThenTheRight) {
    const String a("a");
    EXPECT_EQ(text(a + String("b")), "ab");
    EXPECT_EQ(text(a + "b"), "ab");
    EXPECT_EQ(text(a + 'b'), "ab");
    EXPECT_EQ(text("b" + a), "ba");
    EXPECT_EQ(text('b' + a), "ba");
    EXPECT_EQ(text(a + kNull), "a");
    EXPECT_EQ(text(kNull + a), "a");
    EXPECT_EQ(text(a + '\0'), "a");
    EXPECT_EQ(text('\0' + a), "a");
    EXPECT_EQ((a + "").c_str(), a.c_str()) << "nothing appended, nothing copied";
    EXPECT_EQ(text(a + "b" + String("c") + 'd'), "abcd");
}

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

TEST(StringLimit, ATextThatCannotBeHadEndsTheProcess) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(String("x").concat("y", LONG_MAX), testing::KilledBySignal(SIGABRT), "");
    if constexpr (sizeof(long) > sizeof(int32_t)) {
        EXPECT_EXIT(String("x", LONG_MAX), testing::KilledBySignal(SIGABRT), "");
    }
}

// Everything together

TEST(StringModel, AgreesOverRandomOperations) {
    vxtest::ModelSteps steps("strings", 300000);
    vxtest::StringModelRun run([&](size_t limit) { return steps.below(limit); });
    while (steps.next()) {
        const std::string difference = run.step();
        ASSERT_EQ(difference, "") << steps.left() << " steps were left";
    }
}

TEST(StringExample, PrintsATableOfSettings) {
    const auto output = vxtest::run({vxtest::built("examples/vxstring_settings")});
    EXPECT_EQ(output.status, 0);
    EXPECT_EQ(output.text,
              "HOSTNAME   gateway\n"
              "WAN.MTU    1500\n"
              "WAN.APN    internet.example (length 16)\n"
              "3 settings, MTU in hexadecimal 0x5dc\n");
}

}  // namespace
