// SPDX-License-Identifier: MIT
// String through its public interface. Blocks, sharing, every odd argument and the model are in
// vxstring_limits_test.cpp.
#include <vxutils/vxstring.h>

#include <climits>
#include <cstring>
#include <string>

#include "support/process.h"
#include "support/resources.h"
#include "support/string_model.h"

// Formats that the compiler cannot check, and wrong ones, are tested here.
#pragma GCC diagnostic ignored "-Wformat"
#pragma GCC diagnostic ignored "-Wformat-extra-args"
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
#pragma GCC diagnostic ignored "-Wformat-overflow"
#pragma GCC diagnostic ignored "-Wformat-zero-length"

namespace {

using vxtest::capacityByTable, vxtest::isEmptyBuffer, vxtest::count, vxtest::capacity, vxtest::text, vxtest::kNull;

TEST(StringExample, PrintsATableOfSettings) {
    const auto output = vxtest::run({vxtest::built("examples/vxstring_settings")});
    EXPECT_EQ(output.status, 0);
    EXPECT_EQ(output.text,
              "HOSTNAME   gateway\n"
              "WAN.MTU    1500\n"
              "WAN.APN    internet.example (length 16)\n"
              "3 settings, MTU in hexadecimal 0x5dc\n");
}

// --- construction and assignment

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

TEST(StringOf, WritesNumbersAddressesAndTruthValues) {
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

// --- queries

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

TEST(StringQuery, TellsWhetherATextStartsOrEndsWithAnother) {
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
    EXPECT_TRUE(isEmptyBuffer(s.substring(5, LONG_MIN)));
    EXPECT_TRUE(isEmptyBuffer(s.substring(8, 12)));
}

// --- search

TEST(StringSearch, FindsTheFirstAndTheLastOfACharacter) {
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
    EXPECT_EQ(s.lastIndexOf('a', -7), -1);
    EXPECT_EQ(s.lastIndexOf('\0'), -1);
    EXPECT_EQ(String().lastIndexOf('a'), -1);
    EXPECT_EQ(String().lastIndexOf('a', 5), -1);
}

TEST(StringSearch, FindsTheFirstAndTheLastOccurrenceOfAText) {
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

// --- changes

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

// --- concatenation and comparison

TEST(StringSum, IsTheLeftOperandFollowedByTheRight) {
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

TEST(StringCompare, OperatorsBetweenStrings) {
    const String ab("ab");
    const String ac("ac");
    const String same(ab);
    EXPECT_TRUE(ab < ac && ab <= ac && ac > ab && ac >= ab && ab != ac);
    EXPECT_FALSE(ab == ac || ab > ac || ab >= ac || ac < ab || ac <= ab);
    EXPECT_TRUE(ab == same && ab <= same && ab >= same);
    EXPECT_FALSE(ab != same || ab < same || ab > same);
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

}  // namespace
