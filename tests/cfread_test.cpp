// SPDX-License-Identifier: MIT
// Configuration files, read into tables and handed to callbacks.
#include <vxutils/cfread.h>

#include <syslog.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <utility>
#include <vector>

#include "support/cfread.h"
#include "support/process.h"

namespace {

using namespace vxtest::cfread;

using CfreadSyntax = Cfread;
using CfreadInclude = Cfread;
using CfreadEntry = Cfread;
using CfreadCallback = Cfread;

TEST_F(Cfread, TheExamplePrintsWhatItFinds) {
    vxtest::writeFile("/etc/vx/wan.conf", "wan.mtu = 1492\n");
    vxtest::writeFile(mainFile, "host = gw\ninclude wan.conf\n");
    const std::string program = vxtest::built("examples/config_query");
    EXPECT_EQ(vxtest::run({program, mainFile}).text, "host = gw\nwan.mtu = 1492 (number 1492)\n");
    EXPECT_EQ(vxtest::run({program, mainFile, "wan.mtu", "none"}).text,
              "wan.mtu = 1492 (number 1492)\nnone: not set\n");
    EXPECT_EQ(vxtest::run({program, "/none"}).status, 1);
}

TEST_F(Cfread, TheTableShowsTheCallersNameAndNoCallback) {
    vxtest::writeFile(mainFile, "a=1\n");
    const Table table = openFile();
    EXPECT_EQ(table->file, mainFile);
    EXPECT_EQ(table->reserved, 0u);
    EXPECT_EQ(table->callback, nullptr);
    EXPECT_EQ(table->cb_arg, nullptr);
    EXPECT_EQ(table->cb_empty, 0);
    EXPECT_EQ(table->size, 64);
    cfread_close(nullptr);
}

TEST_F(Cfread, NoFileIsGiven) {
    EXPECT_EQ(cfread_open(nullptr), nullptr);
    EXPECT_EQ(cfread_open(""), nullptr);
    EXPECT_EQ(log.take(), (Log{{LOG_ERR, "cfread: no config file given"}, {LOG_ERR, "cfread: no config file given"}}));
}

TEST_F(Cfread, AFileThatCannotBeOpenedIsNamed) {
    EXPECT_EQ(cfread_open("/no/such.conf"), nullptr);
    EXPECT_EQ(log.take(), error("cfread: unable to open /no/such.conf"));
}

// ---- the syntax of a file

TEST_F(CfreadSyntax, BlanksVanishFromKeysAndLeadValuesOnly) {
    EXPECT_EQ(read("a b = c d \n"), (Pairs{{"ab", "c d "}}));
    EXPECT_EQ(read("  a  =  c  d  \n"), (Pairs{{"a", "c  d  "}}));
    EXPECT_EQ(read("a=b\n"), (Pairs{{"a", "b"}}));
    EXPECT_EQ(log.take(), Log{});
}

TEST_F(CfreadSyntax, ATabIsAnOrdinaryCharacter) { EXPECT_EQ(read("\ta\t=\tb\t\n"), (Pairs{{"\ta\t", "\tb\t"}})); }

TEST_F(CfreadSyntax, OnlyTheFirstEqualsSignDivides) {
    EXPECT_EQ(read("k==v\n"), (Pairs{{"k", "=v"}}));
    EXPECT_EQ(read("k= =v=\n"), (Pairs{{"k", "=v="}}));
}

TEST_F(CfreadSyntax, BytesAbove127AreDroppedEverywhere) {
    EXPECT_EQ(read("k\xC3\xA4y=v\xC3\xBClue\n"), (Pairs{{"ky", "vlue"}}));
    EXPECT_EQ(read("\x80k=\xFF v\n"), (Pairs{{"k", "v"}}));
    EXPECT_EQ(read("k=12345678\x80\n"), (Pairs{{"k", "12345678"}}));
    EXPECT_EQ(read("k=\x7F\n"), (Pairs{{"k", "\x7F"}}));
    EXPECT_EQ(read("\xC3=v\nk=\xC3\n"), Pairs{});
}

TEST_F(CfreadSyntax, LinesWithoutKeyOrValueAddNothing) {
    EXPECT_EQ(read("\n   \n=v\nk=\nk=   \nword\n = \n"), Pairs{});
    EXPECT_EQ(log.take(), Log{});
}

TEST_F(CfreadSyntax, CommentsBeginInTheFirstColumn) {
    EXPECT_EQ(read("#a=1\n #b=2\nc=#3\n"), (Pairs{{"#b", "2"}, {"c", "#3"}}));
}

TEST_F(CfreadSyntax, ACarriageReturnEndsTheEntryAndTheRestOfItsLineIsIgnored) {
    EXPECT_EQ(read("a=1\r\nb=2\rc=3\nd=4\r\n"), (Pairs{{"a", "1"}, {"b", "2"}, {"d", "4"}}));
    EXPECT_EQ(read("a=1\r"), (Pairs{{"a", "1"}}));
    EXPECT_EQ(read("a\r=1\n"), Pairs{});
}

TEST_F(CfreadSyntax, TheLastEntryNeedsItsLineEnd) {
    EXPECT_EQ(openText("a=1\nb=2"), nullptr);
    EXPECT_EQ(log.take(), error("cfread: non-terminated entry in /etc/vx/main.conf at line 2"));
    EXPECT_EQ(openText(" "), nullptr);
    EXPECT_EQ(log.take(), error("cfread: non-terminated entry in /etc/vx/main.conf at line 1"));
}

TEST_F(CfreadSyntax, TheLastCommentNeedsNone) {
    EXPECT_EQ(read("a=1\n# the end"), (Pairs{{"a", "1"}}));
    EXPECT_EQ(read("#"), Pairs{});
    EXPECT_EQ(read(""), Pairs{});
}

TEST_F(CfreadSyntax, ANulBeforeTheLineEndIsAnUnterminatedEntry) {
    for (const std::string &text : {std::string("k\0=v\n", 5), std::string("k=v\0\n", 5), std::string("\0\n", 2)}) {
        EXPECT_EQ(openText(text), nullptr);
        EXPECT_EQ(log.take(), error("cfread: non-terminated entry in /etc/vx/main.conf at line 1"));
    }
    EXPECT_EQ(read(std::string("#\0\nk=v\r\0\n", 9)), (Pairs{{"k", "v"}}));
}

TEST_F(CfreadSyntax, KeysAndValuesHold255Characters) {
    const std::string most(255, 'x');
    EXPECT_EQ(read(most + "=" + most + "\n"), (Pairs{{most, most}}));
    EXPECT_EQ(read(most + " \x80 =  " + most + "\x80\n"), (Pairs{{most, most}}));  // what is dropped does not count
    EXPECT_EQ(openText("\n# comment\n" + most + "x=v\n"), nullptr);
    EXPECT_EQ(log.take(), error("cfread: max. key length exceeded in /etc/vx/main.conf at line 3"));
    EXPECT_EQ(openText("k=" + most + "x\n"), nullptr);
    EXPECT_EQ(log.take(), error("cfread: max. value length exceeded in /etc/vx/main.conf at line 1"));
    EXPECT_EQ(openText("k=" + most + " \n"), nullptr);
    EXPECT_EQ(log.take(), error("cfread: max. value length exceeded in /etc/vx/main.conf at line 1"));
    EXPECT_EQ(openText(most + "x"), nullptr);  // found before the missing line end
    EXPECT_EQ(log.take(), error("cfread: max. key length exceeded in /etc/vx/main.conf at line 1"));
}

TEST_F(CfreadSyntax, ALineHolds1023BytesWithItsLineEnd) {
    const auto padded = [](size_t length) { return "k=" + std::string(length - 4, ' ') + "v\n"; };
    for (const size_t length : {8u, 1022u, 1023u}) EXPECT_EQ(read(padded(length)), (Pairs{{"k", "v"}})) << length;
    for (const size_t length : {1024u, 1025u, 5000u, 40000u}) {
        EXPECT_EQ(openText(padded(length)), nullptr) << length;
        EXPECT_EQ(log.take(), error("cfread: non-terminated entry in /etc/vx/main.conf at line 1"));
    }
}

// ---- include

TEST_F(CfreadInclude, ReadsTheFileInPlace) {
    vxtest::writeFile("/etc/vx/more.conf", "b=2\nc=from more\n");
    EXPECT_EQ(read("a=1\ninclude more.conf\nc=3\n"), (Pairs{{"a", "1"}, {"b", "2"}, {"c", "3"}}));
    EXPECT_EQ(read("include more.conf"), (Pairs{{"b", "2"}, {"c", "from more"}}));
    EXPECT_EQ(read("include  \t/etc/vx/more.conf \t\r\n"), (Pairs{{"b", "2"}, {"c", "from more"}}));
    EXPECT_EQ(log.take(), Log{});
}

TEST_F(CfreadInclude, TheTableShowsTheIncludingFileAgainAfterwards) {
    vxtest::writeFile("/etc/vx/sub/inner.conf", "c=3\n");
    vxtest::writeFile("/etc/vx/more.conf", "b=2\ninclude sub/inner.conf\n");
    for (const char *text : {"a=1\ninclude more.conf\n", "include more.conf\na=1\n"}) {
        const Table table = openText(text);
        ASSERT_NE(table, nullptr);
        EXPECT_EQ(static_cast<const void *>(table->file), mainFile);
    }
}

TEST_F(CfreadInclude, NeedsItsWordAndBlankInTheFirstColumn) {
    EXPECT_EQ(read(" include x\ninclude\tx\ninclude=y\nInclude x\ninclude\n"), (Pairs{{"include", "y"}}));
}

TEST_F(CfreadInclude, RelativeNamesStartAtTheIncludingFile) {
    vxtest::writeFile("/etc/vx/sub/one.conf", "include two.conf\ninclude ../three.conf\n");
    vxtest::writeFile("/etc/vx/sub/two.conf", "two=2\n");
    vxtest::writeFile("/etc/vx/three.conf", "three=3\n");
    EXPECT_EQ(read("include sub/one.conf\n"), (Pairs{{"two", "2"}, {"three", "3"}}));
    std::filesystem::current_path("/etc/vx/sub");
    const Table here = openFile("one.conf");
    std::filesystem::current_path("/");
    ASSERT_NE(here, nullptr);
    EXPECT_EQ(slots(here), (Pairs{{"two", "2"}, {"three", "3"}}));
}

TEST_F(CfreadInclude, AMissingFileFailsAllAndIsNamedWithItsDirectory) {
    EXPECT_EQ(openText("a=1\ninclude gone.conf\n"), nullptr);
    EXPECT_EQ(log.take(), error("cfread: unable to open /etc/vx/gone.conf"));
    vxtest::writeFile("/vx.conf", "include gone.conf\n");
    EXPECT_EQ(cfread_open("/vx.conf"), nullptr);
    EXPECT_EQ(log.take(), error("cfread: unable to open //gone.conf"));
}

TEST_F(CfreadInclude, WithoutANameIsAnError) {
    for (const char *text : {"include \n", "include    \r\n", "include "}) {
        EXPECT_EQ(openText(text), nullptr);
        EXPECT_EQ(log.take(), error("cfread: no include file given in /etc/vx/main.conf"));
    }
}

TEST_F(CfreadInclude, LinesAreCountedPerFileAndIncludeLinesAreNot) {
    vxtest::writeFile("/etc/vx/bad.conf", "#\n\nbad");
    EXPECT_EQ(openText("#\n\n\ninclude bad.conf\n"), nullptr);
    EXPECT_EQ(log.take(), error("cfread: non-terminated entry in /etc/vx/bad.conf at line 3"));
    vxtest::writeFile("/etc/vx/good.conf", "#\n#\n#\n#\n");
    EXPECT_EQ(openText("a=1\ninclude good.conf\ninclude good.conf\nb"), nullptr);
    EXPECT_EQ(log.take(), error("cfread: non-terminated entry in /etc/vx/main.conf at line 2"));
}

// ---- cfread_find_entry(), cfread_set_entry()

TEST_F(CfreadEntry, ALaterEntryReplacesTheEarlierAndTakesTheLowestFreeSlot) {
    const Table table = openText("k=1\nl=x\nk=2\n");
    ASSERT_NE(table, nullptr);
    EXPECT_EQ(slots(table), (Pairs{{"k", "2"}, {"l", "x"}}));
    EXPECT_EQ(cfread_find_entry(table.get(), "k")->ival, 2);
    EXPECT_EQ(cfread_find_entry(table.get(), "k")->index, 0);
}

TEST_F(CfreadEntry, KeysAreComparedLetterByLetter) {
    const Table table = openText("Key=1\nkey=2\nkey.=3\n");
    EXPECT_EQ(value(table, "Key"), "1");
    EXPECT_EQ(value(table, "key"), "2");
    EXPECT_EQ(value(table, "ke"), "(none)");
    EXPECT_EQ(value(table, "key.."), "(none)");
}

TEST_F(CfreadEntry, NumbersAreThoseOfA32BitLong) {
    const std::pair<const char *, long> numbers[] = {
        {"0", 0},
        {"2", 2},
        {"-5", -5},
        {"+7", 7},
        {"007", 7},
        {"+", 0},
        {"-", 0},
        {"true", 1},
        {"false", 0},
        {"True", -1},
        {"true ", -1},
        {"yes", -1},
        {"", -1},
        {"1x", -1},
        {"x1", -1},
        {" 1", -1},
        {"1 ", -1},
        {"+-1", -1},
        {"--1", -1},
        {"1.5", -1},
        {"0x10", -1},
        {"2147483646", 2147483646},
        {"2147483647", -1},
        {"2147483648", -1},
        {"-2147483647", -2147483647},
        {"-2147483648", -1},
        {"-2147483649", -1},
        {"4294967296", -1},
        {"4294967301", -1},
        {"-1", -1},
        {"99999999999999999999999999", -1},
        {"-99999999999999999999999999", -1},
        {"00000000000000000000000000000042", 42},
    };
    const Table table = openText("");
    for (const auto &[text, number] : numbers) {
        const cfread_entry *entry = cfread_set_entry(table.get(), "n", text);
        ASSERT_NE(entry, nullptr);
        EXPECT_EQ(entry->ival, number) << text;
        EXPECT_STREQ(entry->value, text);
    }
}

TEST_F(CfreadEntry, SlotsGrowBy64AndKeepTheirEntries) {
    const Table table = openText("");
    EXPECT_EQ(table->size, 0);
    EXPECT_EQ(table->entries, nullptr);
    for (int i = 0; i < 1000; ++i) {
        const std::string key = std::to_string(i);
        const cfread_entry *entry = cfread_set_entry(table.get(), key.c_str(), nullptr);
        ASSERT_NE(entry, nullptr);
        ASSERT_EQ(entry->index, i);
        ASSERT_STREQ(entry->value, "");
        ASSERT_EQ(table->count, i + 1);
        ASSERT_EQ(table->size, (i / 64 + 1) * 64);
        for (int free = i + 1; free < table->size; ++free) ASSERT_EQ(table->entries[free], nullptr);
    }
    for (int i = 0; i < 1000; ++i) {
        const cfread_entry *entry = cfread_find_entry(table.get(), std::to_string(i).c_str());
        ASSERT_NE(entry, nullptr);
        ASSERT_EQ(entry, table->entries[i]);
    }
    EXPECT_EQ(cfread_find_entry(table.get(), "1000"), nullptr);
}

TEST_F(CfreadEntry, AnEntryMayBeReplacedByItsOwnTexts) {
    const Table table = openText("a=from a file\n");
    for (int round = 0; round < 2; ++round) {  // memory of the file's reading first, then of its own
        cfread_entry *entry = cfread_find_entry(table.get(), "a");
        entry = cfread_set_entry(table.get(), entry->key, entry->value);
        ASSERT_NE(entry, nullptr);
        EXPECT_EQ(slots(table), (Pairs{{"a", "from a file"}}));
        entry = cfread_set_entry(table.get(), "a", entry->value + 5);
        EXPECT_STREQ(entry->value, "a file");
        cfread_set_entry(table.get(), "a", "from a file");
    }
}

TEST_F(CfreadEntry, NullAndEmptyKeysAreRefused) {
    const Table table = openText("a=1\n");
    EXPECT_EQ(cfread_find_entry(table.get(), nullptr), nullptr);
    EXPECT_EQ(cfread_find_entry(table.get(), ""), nullptr);
    EXPECT_EQ(cfread_find_entry(nullptr, "a"), nullptr);
    EXPECT_EQ(cfread_set_entry(table.get(), nullptr, "x"), nullptr);
    EXPECT_EQ(cfread_set_entry(table.get(), "", "x"), nullptr);
    EXPECT_EQ(cfread_set_entry(nullptr, "a", "x"), nullptr);
    EXPECT_EQ(table->count, 1);
    EXPECT_EQ(log.take(), Log{});
}

TEST_F(CfreadEntry, TextsSetByProgramsHaveNoLimit) {
    const Table table = openText("");
    const std::string key(100000, 'k');
    const std::string text(1000000, 'v');
    ASSERT_NE(cfread_set_entry(table.get(), key.c_str(), text.c_str()), nullptr);
    EXPECT_EQ(value(table, key.c_str()), text);
}

TEST_F(CfreadEntry, ATableThatACallerMadeWorks) {
    auto *made = static_cast<cfread_table *>(std::calloc(1, sizeof(cfread_table)));
    const Table table(made, &cfread_close);
    EXPECT_EQ(cfread_find_entry(made, "a"), nullptr);
    EXPECT_NE(cfread_set_entry(made, "a", "1"), nullptr);
    EXPECT_EQ(value(table, "a"), "1");
}

TEST_F(CfreadEntry, SlotsThatACallerFilledAreSearchedInOrder) {
    auto *made = static_cast<cfread_table *>(std::calloc(1, sizeof(cfread_table)));
    const Table table(made, &cfread_close);
    made->size = 8;
    made->count = 2;
    made->entries = static_cast<cfread_entry **>(std::calloc(8, sizeof(cfread_entry *)));
    for (const int slot : {2, 5}) {
        made->entries[slot] = static_cast<cfread_entry *>(std::calloc(1, sizeof(cfread_entry)));
        *made->entries[slot] = {slot, ::strdup(slot == 2 ? "two" : "five"), ::strdup("x"), -1};
    }
    EXPECT_EQ(cfread_find_entry(made, "five"), made->entries[5]);
    EXPECT_EQ(cfread_set_entry(made, "new", "1")->index, 0);
    EXPECT_EQ(cfread_set_entry(made, "five", "5")->index, 1);
    EXPECT_EQ(cfread_find_entry(made, "two"), made->entries[2]);
    EXPECT_EQ(slots(table), (Pairs{{"new", "1"}, {"five", "5"}, {"two", "x"}}));
    EXPECT_EQ(made->size, 8);
    for (int i = 0; i < 6; ++i) ASSERT_NE(cfread_set_entry(made, std::to_string(i).c_str(), "x"), nullptr);
    EXPECT_EQ(made->size, 72);
    EXPECT_EQ(value(table, "five"), "5");
}

// ---- cfread_parse_with_callback()

// What a callback has seen: "key=value/empty".
struct Seen {
    std::vector<std::string> calls;
    std::string stopAt = "(nowhere)";
    static int take(const char *key, const char *value, void *arg, int empty) {
        auto *seen = static_cast<Seen *>(arg);
        seen->calls.push_back(std::string(key) + "=" + value + "/" + std::to_string(empty));
        return key == seen->stopAt ? 7 : 0;
    }
};
using Calls = std::vector<std::string>;

TEST_F(CfreadCallback, SeesEachEntryAndNothingElse) {
    vxtest::writeFile("/etc/vx/more.conf", "b = 2\n");
    vxtest::writeFile(mainFile, "#\n\na=1\nword\ninclude more.conf\na=3\n");
    Seen seen;
    EXPECT_EQ(cfread_parse_with_callback(mainFile, Seen::take, &seen, 0), 0);
    EXPECT_EQ(seen.calls, (Calls{"a=1/0", "b=2/0", "a=3/0"}));
    EXPECT_EQ(log.take(), Log{});
}

TEST_F(CfreadCallback, SeesLinesWithoutKeyOrValueWhenAsked) {
    vxtest::writeFile(mainFile, "a=1\n\n   \nword\n=v\nk=\n#\n");
    Seen seen;
    EXPECT_EQ(cfread_parse_with_callback(mainFile, Seen::take, &seen, 1), 0);
    EXPECT_EQ(seen.calls, (Calls{"a=1/0", "=/1", "=/1", "word=/1", "=v/1", "k=/1"}));
    seen.calls.clear();
    EXPECT_EQ(cfread_parse_with_callback(mainFile, Seen::take, &seen, 0x1F5), 0);  // its low byte counts
    EXPECT_EQ(seen.calls[1], "=/245");
    seen.calls.clear();
    EXPECT_EQ(cfread_parse_with_callback(mainFile, Seen::take, &seen, 0x100), 0);
    EXPECT_EQ(seen.calls, (Calls{"a=1/0"}));
}

TEST_F(CfreadCallback, EndsTheCurrentFileOnlyAndThatIsSuccess) {
    vxtest::writeFile("/etc/vx/more.conf", "b=2\nstop=x\nc=3\nbad");
    vxtest::writeFile(mainFile, "a=1\ninclude more.conf\nd=4\n");
    Seen seen;
    seen.stopAt = "stop";
    EXPECT_EQ(cfread_parse_with_callback(mainFile, Seen::take, &seen, 0), 0);
    EXPECT_EQ(seen.calls, (Calls{"a=1/0", "b=2/0", "stop=x/0", "d=4/0"}));
    seen = {{}, "a"};
    EXPECT_EQ(cfread_parse_with_callback(mainFile, Seen::take, &seen, 0), 0);
    EXPECT_EQ(seen.calls, (Calls{"a=1/0"}));
    EXPECT_EQ(log.take(), Log{});
}

TEST_F(CfreadCallback, HasSeenTheEntriesBeforeAFailure) {
    vxtest::writeFile(mainFile, "a=1\ninclude gone\n");
    Seen seen;
    EXPECT_EQ(cfread_parse_with_callback(mainFile, Seen::take, &seen, 0), -1);
    EXPECT_EQ(seen.calls, (Calls{"a=1/0"}));
    EXPECT_EQ(log.take(), error("cfread: unable to open /etc/vx/gone"));
    EXPECT_EQ(cfread_parse_with_callback(nullptr, Seen::take, &seen, 0), -1);
    EXPECT_EQ(log.take(), error("cfread: no config file given"));
    EXPECT_EQ(cfread_parse_with_callback(mainFile, nullptr, &seen, 0), -1);
    EXPECT_EQ(log.take(), Log{});
}

TEST_F(CfreadCallback, MayReadAnotherFileItself) {
    vxtest::writeFile("/etc/vx/other.conf", "o=1\n");
    vxtest::writeFile(mainFile, "a=1\nb=2\n");
    const auto nested = [](const char *, const char *, void *arg, int) {
        return cfread_parse_with_callback("/etc/vx/other.conf", Seen::take, arg, 0);
    };
    Seen seen;
    EXPECT_EQ(cfread_parse_with_callback(mainFile, nested, &seen, 0), 0);
    EXPECT_EQ(seen.calls, (Calls{"o=1/0", "o=1/0"}));
}

}  // namespace
