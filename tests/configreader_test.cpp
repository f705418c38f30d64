// SPDX-License-Identifier: MIT
// ConfigReader: the file's syntax, the questions, the helpers. Long lines, odd keys, threads and the order of the
// virtual operations are in configreader_limits_test.cpp.
#include <vxutils/configreader.h>
#include <vxutils/numconv.h>

#include <climits>
#include <cstring>
#include <string>

#include "support/configreader.h"

namespace {

using namespace vxtest::configreader;

using ConfigReaderSyntax = ConfigReaderTest;
using ConfigReaderLookup = ConfigReaderTest;
using ConfigReaderHelpers = ConfigReaderTest;

TEST_F(ConfigReaderSyntax, BlanksAroundKeyAndValueAreRemoved) {
    EXPECT_EQ(reading("Name = my value\n"), "");
    EXPECT_TRUE(read);
    EXPECT_EQ(value("Name"), "my value");
    EXPECT_EQ(lineGives("k=\t\x01 v \x1F w \r\n", "k"), "v \x1F w");
    EXPECT_EQ(lineGives("k=v", "k"), "v");
    EXPECT_EQ(lineGives("k=\n", "k"), "");
    EXPECT_EQ(lineGives("k=   \t\n", "k"), "");
    EXPECT_EQ(lineGives("k", "k"), "(default)");
}

TEST_F(ConfigReaderSyntax, BlanksAndControlCharactersVanishFromKeysWhereverTheyStand) {
    EXPECT_EQ(lineGives("a b\tc\x01 d =v\n", "abcd"), "v");
    EXPECT_EQ(lineGives(" abc=v\n", "abc"), "v");
    EXPECT_EQ(lineGives("long.key with.a.blank in.it=v\n", "long.keywith.a.blankin.it"), "v");
    EXPECT_EQ(lineGives("=v\n", ""), "v");
    EXPECT_EQ(lineGives(" =v\n", ""), "v");
    EXPECT_EQ(lineGives("a =v\n", "a"), "v");
}

TEST_F(ConfigReaderSyntax, BytesAbove127AreOrdinary) {
    EXPECT_EQ(lineGives("k\xC3\xA4=\xA0v\xA0\n", "k\xC3\xA4"), "\xA0v\xA0");
}

TEST_F(ConfigReaderSyntax, CommentsBeginInTheFirstColumn) {
    EXPECT_EQ(lineGives("#k=v\n", "k"), "(default)");
    EXPECT_EQ(value("#k"), "(default)");
    EXPECT_EQ(lineGives(" #k=v\n", "#k"), "v");
}

TEST_F(ConfigReaderSyntax, OnlyTheFirstEqualsSignDivides) { EXPECT_EQ(lineGives("k==v = w\n", "k"), "=v = w"); }

TEST_F(ConfigReaderSyntax, TheFirstOfSeveralEntriesCountsAndEachLaterOneIsNamed) {
    EXPECT_EQ(reading("k = 1\nl=x\nk= second one \n k=3"),
              "cfg: Ignoring duplicate tag:k=second one\ncfg: Ignoring duplicate tag:k=3\n");
    EXPECT_TRUE(read);
    EXPECT_EQ(value("k"), "1");
    EXPECT_EQ(value("l"), "x");
}

TEST_F(ConfigReaderTest, AMissingFileIsToldOnStandardOutputAndLeavesTheReaderEmpty) {
    reading("k=v\n");
    testing::internal::CaptureStdout();
    EXPECT_FALSE(reader.initialize("/no/such.conf", 16));
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "cfg: Error in config file /no/such.conf, line 0:\ncfg:   \n");
    EXPECT_EQ(value("k"), "(default)");
    EXPECT_TRUE(reader.add("k", "added"));  // the empty table stays
    EXPECT_EQ(value("k"), "added");
}

TEST_F(ConfigReaderTest, InitializingAgainForgetsWhatWasRead) {
    reading("a=1\n");
    reading("b=2\n");
    EXPECT_EQ(value("a"), "(default)");
    EXPECT_EQ(value("b"), "2");
    reader.cleanup();
    EXPECT_EQ(value("b"), "(default)");
    reader.cleanup();
}

TEST_F(ConfigReaderTest, AValueOfTheReaderMayNameTheNextFile) {
    const std::string other = "/etc/vx/a longer name than others have, of a second file.conf";
    vxtest::writeFile(other, "k=2\n");
    reading("k=1\nnext=" + other + "\n");
    EXPECT_TRUE(reader.initialize(reader.getValue("next", ""), 16));
    EXPECT_EQ(value("k"), "2");
    reading("missing=/no/such file, whose name is longer than the names of others.conf\n");
    testing::internal::CaptureStdout();
    EXPECT_FALSE(reader.initialize(reader.getValue("missing", ""), 16));
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "cfg: Error in config file /no/such file, whose name is longer than the names of others.conf, line 0:\n"
              "cfg:   \n");
}

TEST_F(ConfigReaderTest, BeforeInitializationEveryQuestionGivesItsDefault) {
    const String text("d");
    EXPECT_EQ(&reader.getValue("k", text), &text);
    EXPECT_EQ(reader.getValueAsInt("k", 7), 7);
    EXPECT_EQ(&reader.getIndexedValue("k%lu", 1, text), &text);
    EXPECT_EQ(reader.getIndexedValueAsInt("k%lu", 1, 7), 7);
    EXPECT_FALSE(reader.add("k", "v"));
}

TEST_F(ConfigReaderLookup, ADefaultIsReturnedItself) {
    reading("k=v\n");
    const String text("d");
    EXPECT_EQ(&reader.getValue("none", text), &text);
    EXPECT_EQ(&reader.getIndexedValue("k%lu", 1, text), &text);
    EXPECT_NE(&reader.getValue("k", text), &text);
    EXPECT_EQ(&reader.getValue("k", text), &reader.getValue("k", text));
    EXPECT_EQ(value("K"), "(default)");
}

TEST_F(ConfigReaderLookup, OnAndOffAreNumbersInAnyCase) {
    reading("a=ON\nb=Off\nc=12\nd=x\ne=on\nf=oFF\ng=onn\nh=-5\ni=\nj=1010b\nk=0ffh\n");
    EXPECT_EQ(reader.getValueAsInt("a", 9), 1);
    EXPECT_EQ(reader.getValueAsInt("b", 9), 0);
    EXPECT_EQ(reader.getValueAsInt("c", 9), 12);
    EXPECT_EQ(reader.getValueAsInt("d", 9), valueOf32("x"));
    EXPECT_EQ(reader.getValueAsInt("e", 9), 1);
    EXPECT_EQ(reader.getValueAsInt("f", 9), 0);
    EXPECT_EQ(reader.getValueAsInt("g", 9), valueOf32("onn"));
    EXPECT_EQ(reader.getValueAsInt("h", 9), -5);
    EXPECT_EQ(reader.getValueAsInt("i", 9), 0);
    EXPECT_EQ(reader.getValueAsInt("j", 9), 10);
    EXPECT_EQ(reader.getValueAsInt("k", 9), 255);
    EXPECT_EQ(reader.getValueAsInt("none", 9), 9);
    EXPECT_EQ(reader.getValueAsInt("none", LONG_MIN), LONG_MIN);
}

TEST_F(ConfigReaderLookup, IndexedKeysComeFromTheirPattern) {
    reading("led.0.color=red\nled.17.color=green\nport4294967295=max\nn.1=12\nn.2=on\nn.3=OFF\nn.4=0\nn.5=text\n");
    EXPECT_STREQ(reader.getIndexedValue("led.%lu.color", 0, "none").c_str(), "red");
    EXPECT_STREQ(reader.getIndexedValue("led.%lu.color", 17, "none").c_str(), "green");
    EXPECT_STREQ(reader.getIndexedValue("led.%lu.color", 1, "none").c_str(), "none");
    EXPECT_STREQ(reader.getIndexedValue("port%lu", 4294967295UL, "none").c_str(), "max");
    EXPECT_EQ(reader.getIndexedValueAsInt("n.%lu", 1, 9), 12);
    EXPECT_EQ(reader.getIndexedValueAsInt("n.%lu", 2, 9), 1);
    EXPECT_EQ(reader.getIndexedValueAsInt("n.%lu", 3, 9), 0);
    EXPECT_EQ(reader.getIndexedValueAsInt("n.%lu", 4, 9), 0);
    EXPECT_EQ(reader.getIndexedValueAsInt("n.%lu", 5, 9), valueOf32("text"));
    EXPECT_EQ(reader.getIndexedValueAsInt("n.%lu", 6, 9), 9);
}

TEST_F(ConfigReaderLookup, ValuesOutliveTheReaderInCopies) {
    reading("k=kept\n");
    const String copy(reader.getValue("k", ""));
    reader.cleanup();
    EXPECT_STREQ(copy.c_str(), "kept");
}

TEST_F(ConfigReaderTest, AddKeepsTheFirstValueAndPrintsTheDuplicate) {
    reading("k=file\n");
    EXPECT_TRUE(reader.add("new", "1"));
    testing::internal::CaptureStdout();
    EXPECT_FALSE(reader.add("new", "2"));
    EXPECT_FALSE(reader.add("k", ""));
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "cfg: Ignoring duplicate tag:new=2\ncfg: Ignoring duplicate tag:k=\n");
    EXPECT_EQ(value("new"), "1");
    EXPECT_TRUE(reader.add(" odd key ", "  not stripped  "));
    EXPECT_EQ(value(" odd key "), "  not stripped  ");
    String binary("a");
    binary.concat("\0b", 2);
    EXPECT_TRUE(reader.add("binary", binary));
    EXPECT_TRUE(reader.getValue("binary", "").equals(binary)) << "a copy of the whole value";
}

TEST_F(ConfigReaderHelpers, StrcpystripCopiesAPartWithoutItsBlanks) {
    char dst[8];
    const auto strip = [&](const char *text, int n, int size = sizeof dst) {
        std::strcpy(dst, "before");
        std::string copy(text);
        return reader.strcpystrip(dst, size, copy.data(), n) ? std::string(dst) : "(false)" + std::string(dst);
    };
    EXPECT_EQ(strip("  abc", 3), "abc");
    EXPECT_EQ(strip("  abc", 2), "ab");
    EXPECT_EQ(strip("  abc", 4), "(false)before");
    EXPECT_EQ(strip("a b  c", 5), "a b");
    EXPECT_EQ(strip("a    ", 5), "a");
    EXPECT_EQ(strip("     ", 0), "");
    EXPECT_EQ(strip("     ", 1), "(false)before");
    EXPECT_EQ(strip("\ta", 2), "\ta");  // a tab is not a blank
    EXPECT_EQ(strip("a\t", 2), "a\t");
    EXPECT_EQ(strip("abcdefg", 7), "abcdefg");
    EXPECT_EQ(strip("abcdefgh", 8), "(false)before");
    EXPECT_EQ(strip("abc", 3, 3), "(false)before");
    EXPECT_EQ(strip("abc", 3, 4), "abc");
    EXPECT_EQ(strip("abc", -1), "(false)before");
    EXPECT_EQ(strip("", 0, 0), "(false)before");
    char text[] = "x";
    EXPECT_FALSE(reader.strcpystrip(nullptr, 8, text, 1));
    EXPECT_FALSE(reader.strcpystrip(dst, 8, nullptr, 0));
}

TEST_F(ConfigReaderHelpers, IndexofFindsTheFirst) {
    char text[] = "key=v=w";
    EXPECT_EQ(reader.indexof(text, '='), 3);
    EXPECT_EQ(reader.indexof(text, 'k'), 0);
    EXPECT_EQ(reader.indexof(text, '#'), -1);
    EXPECT_EQ(reader.indexof(text, '\0'), -1);
    EXPECT_EQ(reader.indexof(nullptr, 'k'), -1);
}

}  // namespace
