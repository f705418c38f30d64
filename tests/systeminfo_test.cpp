// SPDX-License-Identifier: MIT
// The device's system information.
#include <malloc.h>
#include <vxutils/strutil.h>
#include <vxutils/systeminfo.h>

#include <cerrno>
#include <climits>
#include <cstring>
#include <filesystem>
#include <memory>

#include "support/call_hooks.h"
#include "support/files.h"
#include "support/process.h"
#include "support/resources.h"
#include "support/syslog_capture.h"

// The library's zeroed records and the C library's copies of texts.
VXTEST_HOOK(void *, zalloc, (size_t size), (size))
VXTEST_HOOK(char *, strdup, (const char *text), (text))

namespace {

constexpr const char *path = "/etc/default/system-info";

using Table = std::unique_ptr<systeminfo_table, decltype(&systeminfo_free)>;
using Pairs = std::vector<std::pair<std::string, std::string>>;

Table read(const std::string &text) {
    vxtest::writeFile(path, text);
    return Table(systeminfo_init(), &systeminfo_free);
}

Pairs pairs(const std::string &text) {
    const Table table = read(text);
    if (table == nullptr) return {{"no", "table"}};
    Pairs found;
    for (int i = 0; i < table->count; ++i) found.emplace_back(table->vars[i].name, table->vars[i].value);
    for (int i = table->count; i < 256; ++i) {
        EXPECT_EQ(table->vars[i].name, nullptr);
        EXPECT_EQ(table->vars[i].value, nullptr);
    }
    return found;
}

class Systeminfo : public testing::Test {
protected:
    ~Systeminfo() override { EXPECT_TRUE(log.take().empty()); }  // nothing is logged, whatever happens
    vxtest::SyslogCapture log;
    vxtest::NoLeaks leaks;
};

TEST_F(Systeminfo, QuotedValuesLoseTheirQuotesAndLineFeed) {
    EXPECT_EQ(pairs("X=\"12\"\nY=\"two words\"  \n"), (Pairs{{"X", "12"}, {"Y", "two words"}}));
    const Table table = read("X=\"12\"\n");
    EXPECT_STREQ(systeminfo_getvar(table.get(), "X"), "12");
    EXPECT_EQ(systeminfo_getint(table.get(), "X"), 12);
}

TEST_F(Systeminfo, NumbersOutOfRangeGiveTheNearestInt) {
    const Table table = read(
        "A=2147483647\nB=2147483648\nC=4294967297\nD=99999999999999999999\n"
        "E=-2147483648\nF=-2147483649\nG=-4294967295\nH=-99999999999999999999\n");
    for (const char *name : {"A", "B", "C", "D"}) EXPECT_EQ(systeminfo_getint(table.get(), name), INT_MAX) << name;
    for (const char *name : {"E", "F", "G", "H"}) EXPECT_EQ(systeminfo_getint(table.get(), name), INT_MIN) << name;
}

TEST_F(Systeminfo, OtherValuesKeepTheirLineFeedAndBlanks) {
    EXPECT_EQ(pairs("X=12\nY=  a \"b\" \nZ=last"), (Pairs{{"X", "12\n"}, {"Y", "  a \"b\" \n"}, {"Z", "last"}}));
    EXPECT_EQ(systeminfo_getint(read("X=12\n").get(), "X"), 12);
}

TEST_F(Systeminfo, AQuotedValueEndsAtTheNextQuoteOrAtTheLineFeed) {
    EXPECT_EQ(pairs("A=\"1\"2\"\nB=\"open\nC=\"\nD=\"\"\nE=\"\"x\"\n"),
              (Pairs{{"A", "1"}, {"B", "open"}, {"C", ""}, {"D", ""}, {"E", ""}}));
    EXPECT_EQ(pairs("A=\"not # a comment\"\n"), (Pairs{{"A", "not # a comment"}}));
}

TEST_F(Systeminfo, CommentsAndLinesWithoutAValueAreSkipped) {
    EXPECT_EQ(pairs("# A=1\n   # B=2\n\n   \nword\nC="), Pairs{});
    EXPECT_EQ(pairs("C=\nD"), (Pairs{{"C", "\n"}}));  // the line feed is something after the "="
    EXPECT_EQ(pairs("\t# A=1\n"), (Pairs{{"\t# A", "1\n"}}));
}

TEST_F(Systeminfo, BlanksBeforeANameAreSkippedAndThoseAfterItBelongToIt) {
    EXPECT_EQ(pairs("   A B =\"1\"\n\tC=\"2\"\n=\"3\"\n"), (Pairs{{"A B ", "1"}, {"\tC", "2"}, {"", "3"}}));
}

TEST_F(Systeminfo, OnlyTheFirstEqualsSignDivides) { EXPECT_EQ(pairs("A=\"b=c\"\n"), (Pairs{{"A", "b=c"}})); }

TEST_F(Systeminfo, LinesHave1022BytesAndTheRestIsALineOfItsOwn) {
    const std::string value(1020, 'v');
    EXPECT_EQ(pairs("A=" + value.substr(1) + "\nB=1\n"), (Pairs{{"A", value.substr(1) + "\n"}, {"B", "1\n"}}));
    EXPECT_EQ(pairs("A=" + value + "C=2\nB=1\n"), (Pairs{{"A", value}, {"C", "2\n"}, {"B", "1\n"}}));
}

TEST_F(Systeminfo, ALineThatBeginsWithANulEndsTheReading) {
    EXPECT_EQ(pairs(std::string("A=1\n\0B=2\nC=3\n", 13)), (Pairs{{"A", "1\n"}}));
    EXPECT_EQ(pairs(std::string("A=1\0\nB=2\n", 9)), (Pairs{{"A", "1"}, {"B", "2\n"}}));
}

TEST_F(Systeminfo, HoldsUpTo256Variables) {
    std::string text;
    for (int i = 0; i < 256; ++i) text += "V" + std::to_string(i) + "=\"" + std::to_string(i) + "\"\n";
    const Table table = read(text + "# not one more\n");
    ASSERT_NE(table, nullptr);
    EXPECT_EQ(table->count, 256);
    EXPECT_EQ(systeminfo_getint(table.get(), "V255"), 255);
    vxtest::writeFile(path, text + "V256=1\n");
    errno = EXDEV;
    EXPECT_EQ(systeminfo_init(), nullptr);
    EXPECT_EQ(errno, EXDEV);
}

TEST_F(Systeminfo, TheFirstOfSeveralVariablesOfANameCounts) {
    const Table table = read("A=\"1\"\nA=\"2\"\n");
    EXPECT_EQ(table->count, 2);
    EXPECT_STREQ(systeminfo_getvar(table.get(), "A"), "1");
}

TEST_F(Systeminfo, WhatIsMissingIsEmptyAndMinusOne) {
    const Table table = read("A=\"1\"\nE=\"\"\nT=\"text\"\n");
    EXPECT_STREQ(systeminfo_getvar(table.get(), "B"), "");
    EXPECT_EQ(systeminfo_getint(table.get(), "B"), -1);
    EXPECT_STREQ(systeminfo_getvar(table.get(), "a"), "");
    EXPECT_STREQ(systeminfo_getvar(table.get(), "E"), "");
    EXPECT_EQ(systeminfo_getint(table.get(), "E"), -1);
    EXPECT_EQ(systeminfo_getint(table.get(), "T"), 0);
    EXPECT_STREQ(systeminfo_getvar(nullptr, "A"), "");
    EXPECT_EQ(systeminfo_getint(nullptr, "A"), -1);
    const Table empty = read("");
    EXPECT_STREQ(systeminfo_getvar(empty.get(), "A"), "");
    EXPECT_EQ(systeminfo_getint(empty.get(), "A"), -1);
    EXPECT_STREQ(systeminfo_getvar(table.get(), nullptr), "");
    EXPECT_EQ(systeminfo_getint(table.get(), nullptr), -1);
    systeminfo_free(nullptr);
}

TEST_F(Systeminfo, NumbersAreWhatAtoiMakesOfThem) {
    const Table table = read("A=  -12x\nB=\"+3\"\nC=\"0x10\"\n");
    EXPECT_EQ(systeminfo_getint(table.get(), "A"), -12);
    EXPECT_EQ(systeminfo_getint(table.get(), "B"), 3);
    EXPECT_EQ(systeminfo_getint(table.get(), "C"), 0);
    const Table nothing = read("A=\nB=\"\"\nC=");
    EXPECT_EQ(systeminfo_getint(nothing.get(), "A"), 0) << "a line feed alone";
    EXPECT_EQ(systeminfo_getint(nothing.get(), "B"), -1);
    EXPECT_EQ(systeminfo_getint(nothing.get(), "C"), -1);
}

TEST_F(Systeminfo, AMissingFileGivesNoTable) {
    std::filesystem::remove(path);
    EXPECT_EQ(systeminfo_init(), nullptr);
    EXPECT_EQ(errno, ENOENT);
}

TEST_F(Systeminfo, WithoutMemoryThereIsNoTableAndNothingIsLeft) {
    vxtest::writeFile(path, "A=\"1\"\nB=\"2\"\n");
    {
        const vxtest::Hooked full(vxtest::hooks::zalloc, vxtest::answering<void *>(nullptr, ENOMEM));
        EXPECT_EQ(systeminfo_init(), nullptr);
    }
    const auto copies = [](int left) { return vxtest::answering<char *>(nullptr, ENOMEM, left); };
    for (const int left : {0, 1, 2, 3}) {  // the leak checker watches
        const vxtest::Hooked full(vxtest::hooks::strdup, copies(left));
        EXPECT_EQ(systeminfo_init(), nullptr);
    }
    const vxtest::Hooked full(vxtest::hooks::strdup, copies(4));
    const Table table(systeminfo_init(), &systeminfo_free);
    ASSERT_NE(table, nullptr);
    EXPECT_EQ(table->count, 2);
}

TEST_F(Systeminfo, FreeingATableFreesItsTexts) {
    vxtest::writeFile(path, "A=\"1\"\n# comment\nB=\"2\"\n");
    systeminfo_free(systeminfo_init());
    const size_t before = ::mallinfo2().uordblks;
    for (int i = 0; i < 100; ++i) systeminfo_free(systeminfo_init());
    EXPECT_LE(::mallinfo2().uordblks, before + 1000);
}

TEST_F(Systeminfo, TheExamplePrintsVariables) {
    vxtest::writeFile(path, "PRODUCT=\"gateway\"\nREVISION=\"7\"\n");
    const std::string program = vxtest::built("examples/system_info");
    EXPECT_EQ(vxtest::run({program}).text, "PRODUCT: gateway\nREVISION: 7\n");
    EXPECT_EQ(vxtest::run({program, "REVISION", "NONE"}).text,
              "REVISION: \"7\", as a number 7\nNONE: \"\", as a number -1\n");
    std::filesystem::remove(path);
    EXPECT_EQ(vxtest::run({program}).status, 1);
}

}  // namespace
