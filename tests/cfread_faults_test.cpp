// SPDX-License-Identifier: MIT
// Configuration files that are FIFOs or directories, files that include without end, and memory that runs out.
#include <vxutils/cfread.h>

#include <fcntl.h>
#include <malloc.h>
#include <pthread.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>
#include <vxutils/strutil.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <functional>
#include <map>
#include <optional>
#include <random>
#include <string>
#include <thread>

#include "support/call_hooks.h"
#include "support/cfread.h"
#include "support/close_on_exec.h"
#include "support/descriptor_limit.h"
#include "support/emulation.h"
#include "support/process.h"

#ifdef __SANITIZE_ADDRESS__
extern "C" size_t __sanitizer_get_current_allocated_bytes();

// Lets a test see a large allocation fail as it does without the sanitizer.
extern "C" const char *__asan_default_options();
extern "C" const char *__asan_default_options() {
    return "allocator_may_return_null=1:max_allocation_size_mb=48:detect_leaks=1";
}
#endif

VXTEST_HOOK(void *, zalloc, (size_t size), (size))
VXTEST_HOOK(void *, realloc, (void *block, size_t size), (block, size))

namespace {

using namespace vxtest::cfread;

namespace hooks = vxtest::hooks;

using vxtest::Hooked;

using CfreadFiles = Cfread;
using CfreadIncludeLimits = Cfread;
using CfreadMemory = Cfread;

// ---- files that are not read in one piece

TEST_F(CfreadFiles, EntriesMayLieAnywhereInAFileLargerThanAnyBuffer) {
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

TEST_F(CfreadFiles, ALongCommentGoesOnAsANewLine) {
    const std::string full = "#" + std::string(1022, 'c');
    EXPECT_EQ(read(full + "a=1\n"), (Pairs{{"a", "1"}}));
    EXPECT_EQ(read(full + "\n"), Pairs{});
    EXPECT_EQ(openText(full + "x\nb"), nullptr);
    EXPECT_EQ(log.take(), error("cfread: non-terminated entry in /etc/vx/main.conf at line 3"));
}

TEST_F(CfreadFiles, ALongIncludeOrACarriageReturnGoesOnAsANewLine) {
    vxtest::writeFile("/etc/vx/more.conf", "m=1\n");
    const std::string include = "include more.conf";
    EXPECT_EQ(read(include + std::string(1023 - include.size(), ' ') + "a=1\n"), (Pairs{{"m", "1"}, {"a", "1"}}));
    const std::string entry = "k=1\r";
    EXPECT_EQ(read(entry + std::string(1023 - entry.size(), 'c') + "a=1\n"), (Pairs{{"k", "1"}, {"a", "1"}}));
}

TEST_F(CfreadFiles, AFifoIsReadAsItComes) {
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

TEST_F(CfreadFiles, WhatWasReadOfAFifoBeforeAnIncludeIsKept) {
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

TEST_F(CfreadFiles, AnIncludedFifoIsNotWaitedFor) {
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

// Opening a device makes its driver act: a watchdog starts. /dev/zero would fail as well if it were read, but otherwise.
TEST_F(CfreadFiles, AnIncludedDeviceIsNotOpened) {
    vxtest::makeDirs("/etc/vx");
    ASSERT_EQ(::symlink("/dev/zero", "/etc/vx/link.conf"), 0);
    for (const char *name : {"/dev/zero", "link.conf"}) {
        vxtest::writeFile("/etc/vx/main.conf", std::string("a=1\ninclude ") + name + "\nb=2\n");
        EXPECT_EQ(openFile("/etc/vx/main.conf"), nullptr);
        const std::string path = *name == '/' ? name : std::string("/etc/vx/") + name;
        EXPECT_EQ(log.take(), (Log{{LOG_ERR, "cfread: unable to open " + path}}));
    }
    vxtest::writeFile("/etc/vx/main.conf", "a=1\ninclude /dev/null\nb=2\n");
    const Table table = openFile("/etc/vx/main.conf");
    ASSERT_NE(table, nullptr);
    EXPECT_EQ(slots(table), (Pairs{{"a", "1"}, {"b", "2"}}));
}

TEST_F(CfreadFiles, AReadErrorEndsTheFileWithSuccess) {
    vxtest::makeDirs("/etc/vx");
    const Table table = openFile("/etc/vx");  // a directory opens, and cannot be read
    ASSERT_NE(table, nullptr);
    EXPECT_EQ(table->count, 0);
    EXPECT_EQ(log.take(), Log{});
}

// The system log may need a descriptor when there is none left.
TEST_F(CfreadFiles, AFailureIsLoggedWhenTheFileHadTakenTheLastDescriptor) {
    const std::pair<const char *, const char *> failures[] = {
        {"k", "cfread: non-terminated entry in /etc/vx/main.conf at line 1"},
        {"include \n", "cfread: no include file given in /etc/vx/main.conf"},
        {"include other.conf\n", "cfread: unable to open /etc/vx/other.conf"}};
    for (const auto &[text, message] : failures) {
        vxtest::writeFile(mainFile, text);
        ::closelog();
        {
            const vxtest::DescriptorLimit one(1);
            EXPECT_EQ(cfread_open(mainFile), nullptr);
        }
        EXPECT_EQ(log.take(), error(message));
    }
}

TEST_F(CfreadFiles, NoDescriptorIsInheritedAcrossExec) {
    vxtest::writeFile("/etc/vx/part.conf", "p=1\n");
    vxtest::writeFile(mainFile, "a=1\ninclude part.conf\nb=2\n");
    const vxtest::ClosesOnExec closesOnExec;
    EXPECT_NE(openFile(), nullptr);
}

// ---- the limits of include

TEST_F(CfreadIncludeLimits, NamesHaveTheirLimitsAndAreNeverCut) {
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

    // The directory of the including file, with its slash. What comes after it may be of any length.
    for (const size_t length : {510u, 511u}) {
        const std::string directory = pathOf(length - 1) + "/";
        vxtest::writeFile(directory + "beside.conf", "b=3\n");
        for (const size_t rest : {1u, 2u, 255u}) {
            const std::string file = directory + std::string(rest, 'm');
            vxtest::writeFile(file, "include beside.conf\n");
            const Table table = openFile(file.c_str());
            ASSERT_EQ(table != nullptr, length == 510) << rest;
            if (table != nullptr) {
                EXPECT_EQ(value(table, "b"), "3");
            }
            EXPECT_EQ(log.take(), length == 510 ? Log{} : error("cfread: unable to open beside.conf"));
        }
    }
}

TEST_F(CfreadIncludeLimits, ANameThatGrowsWithEachIncludeEndsAtItsLimit) {
    EXPECT_EQ(openText("include ./main.conf\n"), nullptr);
    const Log lines = log.take();
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0].text, "cfread: unable to open ./main.conf");
}

TEST_F(CfreadIncludeLimits, ManyIncludesOfOneFileGoOnWhereTheyWere) {
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

TEST_F(CfreadIncludeLimits, AFileThatIncludesItselfEndsWhenDescriptorsRunOutWhateverTheirLimit) {
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

TEST_F(CfreadIncludeLimits, AsManyFilesAsOneReadMayIncludeAreRead) {
    vxtest::writeFile("/etc/vx/one.conf", "one=1\n");
    std::string text;
    for (int i = 0; i < mostIncludes; ++i) text += "include one.conf\n";
    EXPECT_EQ(value(openText(text + "end=1\n"), "end"), "1");
    EXPECT_EQ(openText(text + "include one.conf\nend=1\n"), nullptr);
    EXPECT_EQ(log.take(), error("cfread: unable to open /etc/vx/one.conf"));
}

TEST_F(CfreadIncludeLimits, FilesThatIncludeTheNextOneTwiceEndAtTheLimit) {
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

TEST_F(CfreadIncludeLimits, AfterSixteenMebibytesOfIncludedTextNoFileIsOpened) {
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

// ---- memory

// Refuses the records whose size the function names.
template <typename Refused>
auto refusing(Refused refused) {
    return [refused](size_t size) -> std::optional<void *> {
        if (refused(size)) return nullptr;
        return std::nullopt;
    };
}

TEST_F(CfreadMemory, WithoutMemoryThereIsNoTable) {
    vxtest::writeFile(mainFile, "a=1\n");
    const Hooked noMemory(hooks::zalloc, refusing([](size_t) { return true; }));
    EXPECT_EQ(cfread_open(mainFile), nullptr);
    EXPECT_EQ(log.take(), error("cfread: no mem to alloc config table"));
}

TEST_F(CfreadMemory, WithoutMemoryForAnEntryTheFileFailsAtItsLine) {
    vxtest::writeFile("/etc/vx/more.conf", "#\nk=1\n");
    vxtest::writeFile(mainFile, "\ninclude more.conf\n");
    const Hooked tableOnly(hooks::zalloc, refusing([](size_t size) { return size != sizeof(cfread_table); }));
    EXPECT_EQ(cfread_open(mainFile), nullptr);
    EXPECT_EQ(log.take(), (Log{{LOG_ERR, "cfread: unable to add entry 'k' in /etc/vx/more.conf"},
                               {LOG_ERR, "cfread: unable to add entry in /etc/vx/more.conf at line 2"}}));
}

TEST_F(CfreadMemory, WithoutMemoryForANewEntryTheOldOneIsGoneAndItsSlotFree) {
    const Table table = openText("a=1\nb=2\n");
    {
        const Hooked noEntry(hooks::zalloc, refusing([](size_t size) { return size == sizeof(cfread_entry); }));
        EXPECT_EQ(cfread_set_entry(table.get(), "a", "3"), nullptr);
    }
    EXPECT_EQ(log.take(), error("cfread: unable to add entry 'a' in /etc/vx/main.conf"));
    EXPECT_EQ(slots(table), (Pairs{{"b", "2"}}));
    EXPECT_EQ(cfread_set_entry(table.get(), "c", "4")->index, 0);
}

TEST_F(CfreadMemory, WithoutMemoryForMoreSlotsTheTableStaysAsItIs) {
    const auto noMemory = vxtest::answering<void *>(nullptr, ENOMEM);
    const Table table = openText("");
    {
        const Hooked noGrowth(hooks::realloc, noMemory);
        EXPECT_EQ(cfread_set_entry(table.get(), "first", "1"), nullptr);
        EXPECT_EQ(log.take(), error("cfread: unable to add entry 'first' in /etc/vx/main.conf"));
        EXPECT_EQ(table->size, 0);
        EXPECT_EQ(table->count, 0);
    }
    int keys = 0;
    const auto add = [&] { return cfread_set_entry(table.get(), std::to_string(keys).c_str(), "x"); };
    for (; keys < 64; ++keys) ASSERT_NE(add(), nullptr);
    {
        const Hooked noGrowth(hooks::realloc, noMemory);
        while (add() != nullptr) ++keys;  // the room after the slots may be larger than what the table shows
        EXPECT_EQ(log.take(), error("cfread: unable to add entry '" + std::to_string(keys) + "' in /etc/vx/main.conf"));
        EXPECT_EQ(keys % 64, 0);
        EXPECT_EQ(table->size, keys);
        EXPECT_EQ(table->count, keys);
        EXPECT_EQ(cfread_set_entry(table.get(), "7", "again")->index, 7) << "a replacement needs no more slots";
    }
    EXPECT_EQ(add()->index, keys);
    EXPECT_EQ(table->size, keys + 64);
    EXPECT_EQ(value(table, "7"), "again");
}

TEST_F(CfreadMemory, ATableWithoutMemoryForItsPrivatePartIsOnlySlower) {
    std::string text;
    Pairs expected;
    for (int i = 0; i < 150; ++i) {
        expected.emplace_back("k" + std::to_string(i), std::to_string(i));
        text += expected.back().first + "=" + expected.back().second + "\n";
    }
    Table table(nullptr, &cfread_close);
    {
        const Hooked noPrivatePart(hooks::zalloc, refusing([](size_t size) {
                                       return size != sizeof(cfread_table) && size != sizeof(cfread_entry);
                                   }));
        table = openText(text + "k7=again\n");
        ASSERT_NE(table, nullptr);
        expected[7].second = "again";
        EXPECT_EQ(slots(table), expected);
        EXPECT_EQ(table->size, 192);
        EXPECT_EQ(value(table, "k149"), "149");
        EXPECT_EQ(value(table, "k150"), "(none)");
    }
    // From now on there is memory for one.
    EXPECT_EQ(cfread_set_entry(table.get(), "k8", "again")->index, 8);
    expected[8].second = "again";
    EXPECT_EQ(slots(table), expected);
    for (const auto &[key, wanted] : expected) EXPECT_EQ(value(table, key.c_str()), wanted);
    EXPECT_EQ(log.take(), Log{});
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

// Small enough for an emulated board to read a text of that size many times.
constexpr size_t mostMemory = 48 << 20;
constexpr size_t tooMuch = mostMemory + (1 << 20);

// After this a large allocation fails; the sanitizer has been told so from the start.
void limitMemory() {
#ifndef __SANITIZE_ADDRESS__
    const rlimit memory{mostMemory, mostMemory};
    EXPECT_EQ(::setrlimit(RLIMIT_DATA, &memory), 0);
#endif
}

TEST_F(CfreadMemory, OutOfMemoryForTheCopiesAlsoClearsSlotZero) {
    if (vxtest::emulated()) GTEST_SKIP() << "user-mode emulation does not pass memory limits through";
    EXPECT_EQ(vxtest::inChild([] {
                  const Table table = openText("first=1\nsecond=2\nthird=3\n");
                  const char *huge = hugeText(tooMuch);
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

// Each such failure lowers the count by one, so it no longer tells how many entries the search has to hold.
TEST_F(CfreadMemory, EntriesAreFoundAlsoWhenTheCountIsTooLow) {
    if (vxtest::emulated()) GTEST_SKIP() << "user-mode emulation does not pass memory limits through";
    constexpr int failures = 160;
    EXPECT_EQ(vxtest::inChild([] {
                  constexpr unsigned int enough = 20;  // seconds, in place of a search without end
                  constexpr int entries = 400;
                  const Table table = openText("");
                  const char *huge = hugeText(tooMuch);
                  if (huge == nullptr) return 10;
                  limitMemory();
                  for (int i = 0; i < failures; ++i) {
                      if (cfread_set_entry(table.get(), "k", huge) != nullptr) return 1;
                  }
                  if (table->count != -failures) return 2;
                  ::alarm(enough);
                  for (int i = 0; i < entries; ++i) {
                      const std::string text = std::to_string(i);
                      if (cfread_set_entry(table.get(), text.c_str(), text.c_str()) == nullptr) return 3;
                  }
                  for (int i = 0; i < entries; ++i) {
                      const std::string text = std::to_string(i);
                      if (value(table, text.c_str()) != text) return 4;
                  }
                  return value(table, "none") == "(none)" ? 0 : 5;
              }),
              0);
    EXPECT_EQ(log.take().size(), static_cast<size_t>(failures));
}

TEST_F(CfreadMemory, TheProcessEndsWhenNoSlotNumberIsLeft) {
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

// Bytes of this process's memory that are in use.
size_t allocated() {
#ifdef __SANITIZE_ADDRESS__
    return __sanitizer_get_current_allocated_bytes();
#else
    return ::mallinfo2().uordblks;
#endif
}

// What a program may do with a table: entries of the file that it leaves alone, replaces, and replaces again, and entries
// of its own, the first of which has the first slot of a table without entries.
void useTable(const char *file) {
    const Table table = openFile(file);
    ASSERT_NE(table, nullptr);
    for (const int step : {2, 4}) {
        for (int i = 0; i < 40; i += step) {
            ASSERT_NE(cfread_set_entry(table.get(), std::to_string(i).c_str(), "set by the program"), nullptr);
        }
    }
}

// Expects that `use` gives all its memory back. The allocator keeps some blocks for later, 6 KiB of these sizes at most, which
// count as allocated; so there are rounds enough for the smallest block to be more than that.
void expectNothingKept(const std::function<void()> &use) {
    use();
    const size_t before = allocated();
    for (int round = 0; round < 600; ++round) use();
    EXPECT_LT(allocated(), before + 8192);
}

TEST_F(CfreadMemory, ATableGivesAllItsMemoryBack) {
    std::string text;
    for (int i = 0; i < 30; ++i) text += std::to_string(i) + "=" + std::string(200, 'v') + "\n";
    vxtest::writeFile("/etc/vx/empty.conf", "");
    vxtest::writeFile("/etc/vx/full.conf", text);
    expectNothingKept([] { useTable("/etc/vx/empty.conf"); });
    expectNothingKept([] { useTable("/etc/vx/full.conf"); });
}

TEST_F(CfreadMemory, ATableWithoutAPrivatePartGivesAllItsMemoryBack) {
    vxtest::writeFile(mainFile, "a=1\nb=2\na=3\n");
    const Hooked noPrivatePart(hooks::zalloc, refusing([](size_t size) {
                                   return size != sizeof(cfread_table) && size != sizeof(cfread_entry);
                               }));
    expectNothingKept([] { ASSERT_NE(openFile(), nullptr); });
}

TEST_F(CfreadMemory, TheCostOfAnEntryDoesNotDependOnTheirNumber) {
    const Table table = openText("");
    int moves = 0;
    const Hooked counted(hooks::realloc, [&](void *, size_t) -> std::optional<void *> {
        ++moves;
        return std::nullopt;
    });
    for (int i = 0; i < 10000; ++i) ASSERT_NE(cfread_set_entry(table.get(), std::to_string(i).c_str(), "x"), nullptr);
    EXPECT_LT(moves, 20) << "the slots grow by half";
    EXPECT_GT(moves, 5) << "but are not allocated in advance";
}

TEST_F(CfreadMemory, AnEntryThatFilesReplaceOftenKeepsNoMemory) {
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

TEST_F(CfreadMemory, ManySetsAndReplacementsAgreeWithAMap) {
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

}  // namespace
