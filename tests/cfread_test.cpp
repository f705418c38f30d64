// SPDX-License-Identifier: MIT
// Configuration files, read into tables and handed to callbacks.
#include <fcntl.h>
#include <malloc.h>
#include <pthread.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>
#include <vxutils/cfread.h>
#include <vxutils/strutil.h>

#include <algorithm>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <map>
#include <memory>
#include <random>
#include <thread>

#include "support/emulation.h"
#include "support/files.h"
#include "support/process.h"
#include "support/resources.h"
#include "support/syslog_capture.h"

#ifdef __SANITIZE_ADDRESS__
extern "C" size_t __sanitizer_get_current_allocated_bytes();
#endif

#ifdef __SANITIZE_ADDRESS__
// Lets a test see a large allocation fail as it does without the sanitizer.
extern "C" const char *__asan_default_options();
extern "C" const char *__asan_default_options() {
    return "allocator_may_return_null=1:max_allocation_size_mb=256:detect_leaks=1";
}
#endif

// Memory runs out where a test wants it: the library's allocator of zeroed records and the C library's growing of
// blocks, this program's instead.
namespace {
bool (*refused)(size_t size) = nullptr;
bool growthRefused = false;
}  // namespace
extern "C" void *realloc(void *block, size_t size) noexcept {
    void *grown = growthRefused ? nullptr : std::malloc(size);
    if (grown == nullptr) return nullptr;
    if (block != nullptr) std::memcpy(grown, block, std::min(size, ::malloc_usable_size(block)));
    std::free(block);
    return grown;
}
void *zalloc(size_t size) { return refused != nullptr && refused(size) ? nullptr : std::calloc(size, 1); }

namespace {

using vxtest::LogLine;
using Log = std::vector<LogLine>;
using Pairs = std::vector<std::pair<std::string, std::string>>;

using Table = std::unique_ptr<cfread_table, decltype(&cfread_close)>;

constexpr const char *mainFile = "/etc/vx/main.conf";

Table openFile(const char *path = mainFile) { return Table(cfread_open(path), &cfread_close); }

Table openText(const std::string &text) {
    vxtest::writeFile(mainFile, text);
    return openFile();
}

// What the slots hold, in their order.
Pairs slots(const Table &table) {
    Pairs pairs;
    for (int i = 0; i < table->size; ++i) {
        const cfread_entry *entry = table->entries[i];
        if (entry == nullptr) continue;
        EXPECT_EQ(entry->index, i);
        pairs.emplace_back(entry->key, entry->value);
    }
    EXPECT_EQ(pairs.size(), static_cast<size_t>(table->count));
    return pairs;
}

Pairs read(const std::string &text) {
    const Table table = openText(text);
    EXPECT_NE(table, nullptr) << text;
    return table != nullptr ? slots(table) : Pairs{};
}

std::string value(const Table &table, const char *key) {
    const cfread_entry *entry = cfread_find_entry(table.get(), key);
    return entry != nullptr ? entry->value : "(none)";
}

Log error(const std::string &text) { return {{LOG_ERR, text}}; }

class Cfread : public testing::Test {
protected:
    ~Cfread() override {
        refused = nullptr;
        growthRefused = false;
    }

    vxtest::SyslogCapture log;
    vxtest::NoLeaks leaks;
};
using CfreadSyntax = Cfread;
using CfreadInclude = Cfread;
using CfreadEntry = Cfread;
using CfreadCallback = Cfread;

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

TEST_F(CfreadSyntax, ALongCommentGoesOnAsANewLine) {
    const std::string full = "#" + std::string(1022, 'c');
    EXPECT_EQ(read(full + "a=1\n"), (Pairs{{"a", "1"}}));
    EXPECT_EQ(read(full + "\n"), Pairs{});
    EXPECT_EQ(openText(full + "x\nb"), nullptr);
    EXPECT_EQ(log.take(), error("cfread: non-terminated entry in /etc/vx/main.conf at line 3"));
}

TEST_F(CfreadSyntax, EntriesMayLieAnywhereInAFileLargerThanAnyBuffer) {
    for (const size_t shift : {0u, 1u, 7u, 500u}) {
        std::string text = "#" + std::string(shift, '-') + "\n";
        Pairs expected;
        for (int i = 0; i < 5000; ++i) {
            expected.emplace_back("key." + std::to_string(i), std::string(static_cast<size_t>(i % 250 + 1), 'v'));
            text += expected.back().first + " = " + expected.back().second + "\n";
        }
        EXPECT_EQ(read(text), expected);
    }
}

TEST_F(CfreadSyntax, AFifoIsReadAsItComes) {
    vxtest::makeDirs("/etc/vx");
    ASSERT_EQ(::mkfifo("/etc/vx/fifo", 0600), 0);
    vxtest::writeFile("/etc/vx/part.conf", "p=1\n");
    std::thread writer([] {
        const int fd = ::open("/etc/vx/fifo", O_WRONLY | O_CLOEXEC);
        for (const char *piece : {"a=", "1\nb=2", "\ninclude part.conf\nc=", "3\n"}) {
            EXPECT_EQ(::write(fd, piece, std::strlen(piece)), static_cast<ssize_t>(std::strlen(piece)));
            ::usleep(20000);
        }
        ::close(fd);
    });
    const Table table = openFile("/etc/vx/fifo");
    writer.join();
    ASSERT_NE(table, nullptr);
    EXPECT_EQ(slots(table), (Pairs{{"a", "1"}, {"b", "2"}, {"p", "1"}, {"c", "3"}}));
}

TEST_F(CfreadSyntax, WhatWasReadOfAFifoBeforeAnIncludeIsKept) {
    vxtest::makeDirs("/etc/vx");
    ASSERT_EQ(::mkfifo("/etc/vx/fifo2", 0600), 0);
    vxtest::writeFile("/etc/vx/part.conf", "p=1\n");
    std::thread writer(
        [] { vxtest::writeFile("/etc/vx/fifo2", "a=1\ninclude part.conf\nb=2\ninclude part.conf\nc=3\n"); });
    const Table table = openFile("/etc/vx/fifo2");
    writer.join();
    ASSERT_NE(table, nullptr);
    EXPECT_EQ(slots(table), (Pairs{{"a", "1"}, {"p", "1"}, {"b", "2"}, {"c", "3"}}));
}

TEST_F(Cfread, AnIncludedFifoIsNotWaitedFor) {
    vxtest::makeDirs("/etc/vx");
    ASSERT_EQ(::mkfifo("/etc/vx/fifo3", 0600), 0);
    vxtest::writeFile("/etc/vx/main.conf", "a=1\ninclude fifo3\nb=2\n");
    EXPECT_EQ(vxtest::inChild([] {
                  ::alarm(20);
                  const Table table = openFile("/etc/vx/main.conf");
                  return table != nullptr && slots(table) == Pairs{{"a", "1"}, {"b", "2"}} ? 0 : 1;
              }),
              0);
    EXPECT_EQ(log.take(), Log{});
}

TEST_F(Cfread, AReadErrorEndsTheFileWithSuccess) {
    vxtest::makeDirs("/etc/vx");
    const Table table = openFile("/etc/vx");  // a directory opens, and cannot be read
    ASSERT_NE(table, nullptr);
    EXPECT_EQ(table->count, 0);
    EXPECT_EQ(log.take(), Log{});
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

TEST_F(CfreadInclude, ReadsTheFileInPlace) {
    vxtest::writeFile("/etc/vx/more.conf", "b=2\nc=from more\n");
    EXPECT_EQ(read("a=1\ninclude more.conf\nc=3\n"), (Pairs{{"a", "1"}, {"b", "2"}, {"c", "3"}}));
    EXPECT_EQ(read("include more.conf"), (Pairs{{"b", "2"}, {"c", "from more"}}));
    EXPECT_EQ(read("include  \t/etc/vx/more.conf \t\r\n"), (Pairs{{"b", "2"}, {"c", "from more"}}));
    EXPECT_EQ(log.take(), Log{});
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

TEST_F(CfreadInclude, NamesHaveTheirLimitsAndAreNeverCut) {
    const auto pathOf = [](size_t length) {
        std::string path = "/etc/vx";
        while (path.size() + 101 < length) path += "/" + std::string(100, 'd');
        return path + "/" + std::string(length - path.size() - 1, 'f');
    };
    vxtest::writeFile(pathOf(511), "a=1\n");
    vxtest::writeFile(pathOf(512), "a=1\n");
    EXPECT_EQ(read("include " + pathOf(511) + "\n"), (Pairs{{"a", "1"}}));
    EXPECT_EQ(openText("include " + pathOf(512) + "\n"), nullptr);
    EXPECT_EQ(log.take(), error("cfread: unable to open " + pathOf(512)));

    const auto relative = [&](size_t length) { return pathOf(length + 8).substr(8); };
    vxtest::writeFile("/etc/vx/" + relative(510), "a=2\n");
    vxtest::writeFile("/etc/vx/" + relative(511), "a=2\n");
    EXPECT_EQ(read("include " + relative(510) + "\n"), (Pairs{{"a", "2"}}));
    EXPECT_EQ(openText("include " + relative(511) + "\n"), nullptr);
    EXPECT_EQ(log.take(), error("cfread: unable to open " + relative(511)));

    // The including file's own name, whose directory is needed.
    vxtest::writeFile(pathOf(511), "include beside.conf\n");
    vxtest::writeFile(pathOf(512), "include beside.conf\n");
    vxtest::writeFile(std::filesystem::path(pathOf(511)).parent_path() / "beside.conf", "b=3\n");
    const Table table = openFile(pathOf(511).c_str());
    ASSERT_NE(table, nullptr);
    EXPECT_EQ(value(table, "b"), "3");
    EXPECT_EQ(cfread_open(pathOf(512).c_str()), nullptr);
    EXPECT_EQ(log.take(), error("cfread: unable to open beside.conf"));
}

TEST_F(CfreadInclude, ManyIncludesOfOneFileGoOnWhereTheyWere) {
    vxtest::writeFile("/etc/vx/more.conf", "x=1\n");
    std::string text;
    for (int i = 0; i < 3000; ++i) text += "k" + std::to_string(i) + "=1\ninclude more.conf\n";
    const Table table = openText(text);
    ASSERT_NE(table, nullptr);
    EXPECT_EQ(table->count, 3001);
}

// Runs on a stack that a recursion would soon have used up.
void onSmallStack(void *(*body)(void *)) {
    pthread_attr_t attributes;
    ::pthread_attr_init(&attributes);
    ASSERT_EQ(::pthread_attr_setstacksize(&attributes, 256 * 1024), 0);
    pthread_t thread{};
    ASSERT_EQ(::pthread_create(&thread, &attributes, body, nullptr), 0);
    ::pthread_join(thread, nullptr);
    ::pthread_attr_destroy(&attributes);
}

TEST_F(CfreadInclude, AFileThatIncludesItselfEndsWhenDescriptorsRunOutWhateverTheirLimit) {
    vxtest::writeFile(mainFile, "a=1\ninclude main.conf\nb=2\n");
    rlimit limit{};
    ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &limit), 0);
    for (const rlim_t descriptors : {rlim_t{32}, rlim_t{1024}, std::min<rlim_t>(limit.rlim_max, 20000)}) {
        const rlimit lower{descriptors, limit.rlim_max};
        ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &lower), 0);
        onSmallStack([](void *) -> void * {
            EXPECT_EQ(cfread_open(mainFile), nullptr);
            return nullptr;
        });
        ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &limit), 0);
        EXPECT_EQ(log.take(), error("cfread: unable to open /etc/vx/main.conf"));
    }
}

// Work that a few short files may cause.
constexpr int mostIncludes = 16384;

TEST_F(CfreadInclude, AsManyFilesAsOneReadMayIncludeAreRead) {
    vxtest::writeFile("/etc/vx/one.conf", "one=1\n");
    std::string text;
    for (int i = 0; i < mostIncludes; ++i) text += "include one.conf\n";
    EXPECT_EQ(value(openText(text + "end=1\n"), "end"), "1");
    EXPECT_EQ(openText(text + "include one.conf\nend=1\n"), nullptr);
    EXPECT_EQ(log.take(), error("cfread: unable to open /etc/vx/one.conf"));
}

TEST_F(CfreadInclude, FilesThatIncludeTheNextOneTwiceEndAtTheLimit) {
    for (int i = 0; i < 30; ++i) {
        const std::string next = "include " + std::to_string(i + 1) + ".conf\n";
        vxtest::writeFile("/etc/vx/" + std::to_string(i) + ".conf", next + next);
    }
    vxtest::writeFile("/etc/vx/30.conf", "k=v\n");
    int seen = 0;
    const auto count = [](const char *, const char *, void *arg, int) { return ++*static_cast<int *>(arg) * 0; };
    EXPECT_EQ(cfread_parse_with_callback("/etc/vx/0.conf", count, &seen, 0), -1);
    EXPECT_LT(seen, mostIncludes);
    EXPECT_EQ(log.take().size(), 1U);
}

TEST_F(CfreadInclude, AfterSixteenMebibytesOfIncludedTextNoFileIsOpened) {
    const std::string comment = "#" + std::string(1022, 'c') + "\n";
    std::string mebibyte;
    for (int i = 0; i < 1024; ++i) mebibyte += comment;
    vxtest::writeFile("/etc/vx/large.conf", mebibyte);
    std::string includes;
    for (int i = 0; i < 17; ++i) includes += "include large.conf\n";  // the last one begins with just 16 MiB read
    EXPECT_EQ(value(openText(mebibyte + includes + mebibyte + "end=1\n"), "end"), "1");
    EXPECT_EQ(openText(includes + "include large.conf\nend=1\n"), nullptr);
    EXPECT_EQ(log.take(), error("cfread: unable to open /etc/vx/large.conf"));
}

TEST_F(CfreadEntry, AnEntryThatFilesReplaceOftenKeepsNoMemory) {
#ifdef __SANITIZE_ADDRESS__
    const auto allocated = [] { return __sanitizer_get_current_allocated_bytes(); };
#else
    const auto allocated = [] { return ::mallinfo2().uordblks; };
#endif
    const std::string filler(250, 'v');
    std::string text;
    for (int i = 0; i < 8000; ++i) text += "k=" + filler + std::to_string(i % 10) + "\n";
    const size_t before = allocated();
    const Table table = openText(text);
    const size_t taken = allocated() - before;
    EXPECT_EQ(value(table, "k"), filler + "9");
    EXPECT_EQ(table->count, 1);
    EXPECT_LT(taken, 100000U);
}

TEST_F(CfreadInclude, ANameThatGrowsWithEachIncludeEndsAtItsLimit) {
    EXPECT_EQ(openText("include ./main.conf\n"), nullptr);
    const Log lines = log.take();
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0].text, "cfread: unable to open ./main.conf");
}

TEST_F(CfreadEntry, ALaterEntryReplacesTheEarlierAndTakesTheLowestFreeSlot) {
    const Table table = openText("k=1\nl=x\nk=2\n");
    ASSERT_NE(table, nullptr);
    EXPECT_EQ(slots(table), (Pairs{{"k", "2"}, {"l", "x"}}));
    EXPECT_EQ(cfread_find_entry(table.get(), "k")->ival, 2);
    EXPECT_EQ(cfread_find_entry(table.get(), "k")->index, 0);
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

TEST_F(CfreadEntry, KeysAreComparedLetterByLetter) {
    const Table table = openText("Key=1\nkey=2\nkey.=3\n");
    EXPECT_EQ(value(table, "Key"), "1");
    EXPECT_EQ(value(table, "key"), "2");
    EXPECT_EQ(value(table, "ke"), "(none)");
    EXPECT_EQ(value(table, "key.."), "(none)");
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

TEST_F(CfreadEntry, ManySetsAndReplacementsAgreeWithAMap) {
    const Table table = openText("7=file\n8=file\n900=file\n");
    std::map<std::string, std::string> model{{"7", "file"}, {"8", "file"}, {"900", "file"}};
    std::mt19937 random(1);
    for (int round = 0; round < 20000; ++round) {
        const std::string key = std::to_string(random() % 1000);
        const std::string text = std::to_string(round);
        const cfread_entry *entry = cfread_set_entry(table.get(), key.c_str(), text.c_str());
        ASSERT_NE(entry, nullptr);
        ASSERT_EQ(table->entries[entry->index], entry);
        model[key] = text;
    }
    ASSERT_EQ(static_cast<size_t>(table->count), model.size());
    for (const auto &[key, text] : model) ASSERT_EQ(value(table, key.c_str()), text);
    EXPECT_EQ(slots(table).size(), model.size());
}

TEST_F(CfreadEntry, TheProcessEndsWhenNoSlotNumberIsLeft) {
    EXPECT_EQ(vxtest::inChild([] {
                  cfread_table table{};
                  table.size = -64;
                  table.file = "none.conf";
                  cfread_set_entry(&table, "a", "1");
                  return 0;
              }),
              1);
    EXPECT_EQ(log.take(), (Log{{LOG_EMERG, "cfread: unable to get a free index"}}));
}

// `size` bytes of 'v' and a NUL, without taking that much memory.
char *hugeText(size_t size) {
    constexpr size_t piece = 1 << 20;
    const int fd = ::memfd_create("v", MFD_CLOEXEC);
    const std::string filler(piece, 'v');
    if (::write(fd, filler.data(), piece) != static_cast<ssize_t>(piece)) return nullptr;
    auto *map = static_cast<char *>(
        ::mmap(nullptr, size + piece, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0));
    for (size_t at = 0; at < size; at += piece) {
        ::mmap(map + at, piece, PROT_READ, MAP_PRIVATE | MAP_FIXED, fd, 0);
    }
    ::close(fd);
    return map;
}

// After this a large allocation fails; the sanitizer has been told so from the start.
void limitMemory() {
#ifndef __SANITIZE_ADDRESS__
    const rlimit memory{256u << 20, 256u << 20};
    EXPECT_EQ(::setrlimit(RLIMIT_DATA, &memory), 0);
#endif
}

TEST_F(CfreadEntry, OutOfMemoryForTheCopiesAlsoClearsSlotZero) {
    if (vxtest::emulated()) GTEST_SKIP() << "user-mode emulation does not pass memory limits through";
    EXPECT_EQ(vxtest::inChild([] {
                  const Table table = openText("first=1\nsecond=2\nthird=3\n");
                  const char *huge = hugeText(512u << 20);
                  if (huge == nullptr) return 10;
                  limitMemory();
                  if (cfread_set_entry(table.get(), "second", huge) != nullptr) return 1;
                  if (table->count != 1) return 2;  // the replaced one and the one of slot 0
                  if (table->entries[0] != nullptr || table->entries[1] != nullptr) return 3;
                  if (cfread_find_entry(table.get(), "first") != nullptr) return 4;
                  if (value(table, "third") != "3") return 5;
                  if (cfread_set_entry(table.get(), "next", "4")->index != 0) return 6;
                  if (cfread_set_entry(table.get(), "after", "5")->index != 1) return 7;
                  if (cfread_set_entry(table.get(), "last", "6")->index != 3) return 8;
                  return table->count == 4 ? 0 : 9;
              }),
              0);
    EXPECT_EQ(log.take(), error("cfread: unable to add entry 'second' in /etc/vx/main.conf"));
}

TEST_F(Cfread, WithoutMemoryThereIsNoTable) {
    vxtest::writeFile(mainFile, "a=1\n");
    refused = [](size_t) { return true; };
    EXPECT_EQ(cfread_open(mainFile), nullptr);
    EXPECT_EQ(log.take(), error("cfread: no mem to alloc config table"));
}

TEST_F(CfreadEntry, WithoutMemoryForAnEntryTheFileFailsAtItsLine) {
    vxtest::writeFile("/etc/vx/more.conf", "#\nk=1\n");
    vxtest::writeFile(mainFile, "\ninclude more.conf\n");
    refused = [](size_t size) { return size != sizeof(cfread_table); };
    EXPECT_EQ(cfread_open(mainFile), nullptr);
    EXPECT_EQ(log.take(), (Log{{LOG_ERR, "cfread: unable to add entry 'k' in /etc/vx/more.conf"},
                               {LOG_ERR, "cfread: unable to add entry in /etc/vx/more.conf at line 2"}}));
}

TEST_F(CfreadEntry, WithoutMemoryForANewEntryTheOldOneIsGoneAndItsSlotFree) {
    const Table table = openText("a=1\nb=2\n");
    refused = [](size_t size) { return size == sizeof(cfread_entry); };
    EXPECT_EQ(cfread_set_entry(table.get(), "a", "3"), nullptr);
    refused = nullptr;
    EXPECT_EQ(log.take(), error("cfread: unable to add entry 'a' in /etc/vx/main.conf"));
    EXPECT_EQ(slots(table), (Pairs{{"b", "2"}}));
    EXPECT_EQ(cfread_set_entry(table.get(), "c", "4")->index, 0);
}

TEST_F(CfreadEntry, WithoutMemoryForMoreSlotsTheTableStaysAsItIs) {
    const Table table = openText("");
    growthRefused = true;
    EXPECT_EQ(cfread_set_entry(table.get(), "first", "1"), nullptr);
    EXPECT_EQ(log.take(), error("cfread: unable to add entry 'first' in /etc/vx/main.conf"));
    EXPECT_EQ(table->size, 0);
    EXPECT_EQ(table->count, 0);
    growthRefused = false;
    int keys = 0;
    const auto add = [&] { return cfread_set_entry(table.get(), std::to_string(keys).c_str(), "x"); };
    for (; keys < 64; ++keys) ASSERT_NE(add(), nullptr);
    growthRefused = true;
    while (add() != nullptr) ++keys;  // the room after the slots may be larger than what the table shows
    EXPECT_EQ(log.take(), error("cfread: unable to add entry '" + std::to_string(keys) + "' in /etc/vx/main.conf"));
    EXPECT_EQ(keys % 64, 0);
    EXPECT_EQ(table->size, keys);
    EXPECT_EQ(table->count, keys);
    EXPECT_EQ(cfread_set_entry(table.get(), "7", "again")->index, 7) << "a replacement needs no more slots";
    growthRefused = false;
    EXPECT_EQ(add()->index, keys);
    EXPECT_EQ(table->size, keys + 64);
    EXPECT_EQ(value(table, "7"), "again");
}

TEST_F(CfreadEntry, ATableWithoutMemoryForItsPrivatePartIsOnlySlower) {
    refused = [](size_t size) { return size != sizeof(cfread_table) && size != sizeof(cfread_entry); };
    std::string text;
    Pairs expected;
    for (int i = 0; i < 150; ++i) {
        expected.emplace_back("k" + std::to_string(i), std::to_string(i));
        text += expected.back().first + "=" + expected.back().second + "\n";
    }
    const Table table = openText(text + "k7=again\n");
    ASSERT_NE(table, nullptr);
    expected[7].second = "again";
    EXPECT_EQ(slots(table), expected);
    EXPECT_EQ(table->size, 192);
    EXPECT_EQ(value(table, "k149"), "149");
    EXPECT_EQ(value(table, "k150"), "(none)");
    refused = nullptr;  // now there is one
    EXPECT_EQ(cfread_set_entry(table.get(), "k8", "again")->index, 8);
    expected[8].second = "again";
    EXPECT_EQ(slots(table), expected);
    for (const auto &[key, wanted] : expected) EXPECT_EQ(value(table, key.c_str()), wanted);
    EXPECT_EQ(log.take(), Log{});
}

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

TEST_F(Cfread, TheExamplePrintsWhatItFinds) {
    vxtest::writeFile("/etc/vx/wan.conf", "wan.mtu = 1492\n");
    vxtest::writeFile(mainFile, "host = gw\ninclude wan.conf\n");
    const std::string program = vxtest::built("examples/config_query");
    EXPECT_EQ(vxtest::run({program, mainFile}).text, "host = gw\nwan.mtu = 1492 (number 1492)\n");
    EXPECT_EQ(vxtest::run({program, mainFile, "wan.mtu", "none"}).text,
              "wan.mtu = 1492 (number 1492)\nnone: not set\n");
    EXPECT_EQ(vxtest::run({program, "/none"}).status, 1);
}

}  // namespace
