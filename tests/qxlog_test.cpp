// SPDX-License-Identifier: MIT
// The device log.
#include <vxutils/qxlog.h>

#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "support/device_log.h"
#include "support/files.h"
#include "support/process.h"
#include "support/qxlog.h"

namespace {

using namespace vxtest::devicelog;

using vxtest::readFile;
using vxtest::writeFile;

TEST_F(DeviceLog, TheExampleTakesNotes) {
    const std::string note = vxtest::built("examples/qxlog_note");
    for (int i = 1; i <= 35; ++i) EXPECT_EQ(vxtest::run({note, std::to_string(i), "event"}).status, 0);
    const auto lines = linesOf(vxtest::run({note}).text);
    ASSERT_EQ(lines.size(), 33u);
    EXPECT_THAT(lines.front(), testing::MatchesRegex("35: [0-9]{4}-[0-9]{2}-[0-9]{2} [0-9]{2}:[0-9]{2} event"));
    EXPECT_EQ(lines.back().substr(0, 3), "3: ");
    EXPECT_EQ(vxtest::run({note, "clear"}).status, 0);
    EXPECT_EQ(vxtest::run({note}).text, "");
    EXPECT_EQ(vxtest::run({note, "a", "b", "c"}).status, 2);
}

// ---- qxlog()

TEST_F(DeviceLog, AnEntryIsNumberLocalTimeAndText) {
    EXPECT_EQ(qxlog(3, "boot"), 0);
    EXPECT_EQ(readFile(logFile), "3: 2026-11-15 08:40 boot\n");
    EXPECT_EQ(modeOf(logFile), 0664u);
    EXPECT_FALSE(vxtest::exists(temporary));
}

TEST_F(DeviceLog, TheTimeFollowsTheZone) {
    ::setenv("TZ", "NST3:30", 1);
    EXPECT_EQ(qxlog(INT_MIN, "a"), 0);
    ::setenv("TZ", "CET-1CEST,M3.5.0,M10.5.0/3", 1);
    EXPECT_EQ(qxlog(INT_MAX, "b"), 0);
    EXPECT_EQ(readFile(logFile), "2147483647: 2026-11-15 09:40 b\n-2147483648: 2026-11-15 05:10 a\n");
    ::setenv("TZ", "UTC", 1);
}

TEST_F(DeviceLog, KeepsTheNewEntryAndThirtyTwoOlderLinesNewestFirst) {
    for (int i = 1; i <= 35; ++i) ASSERT_EQ(qxlog(i, "entry"), 0);
    const auto lines = logLines();
    ASSERT_EQ(lines.size(), 33u);
    for (size_t i = 0; i < lines.size(); ++i) {
        EXPECT_EQ(lines[i], std::to_string(35 - i) + ": 2026-11-15 08:40 entry");
    }
}

TEST_F(DeviceLog, AMessageIsTakenAsItIs) {
    EXPECT_EQ(qxlog(0, "100%s %n \\ caf\xC3\xA9 \xE4"), 0);
    EXPECT_EQ(readFile(logFile), "0: 2026-11-15 08:40 100%s %n \\ caf\xC3\xA9 \xE4\n");
}

TEST_F(DeviceLog, AMessageForgesNoEntryAndSteersNoTerminal) {
    EXPECT_EQ(qxlog(1, "down\n2: 2026-11-15 08:41 up\r\x1B[2J"), 0);
    EXPECT_EQ(readFile(logFile), "1: 2026-11-15 08:40 down\\x0A2: 2026-11-15 08:41 up\\x0D\\x1B[2J\n");
    EXPECT_EQ(qxlog(2, "a backslash \\x0A of the message's own"), 0);
    EXPECT_THAT(readFile(logFile),
                testing::StartsWith("2: 2026-11-15 08:40 a backslash \\x5Cx0A of the message's own\n"));
}

TEST_F(DeviceLog, BytesThatAreNoCharacterAreEscapedAndCharactersStay) {
    const std::vector<std::pair<std::string, std::string>> messages{
        {"caf\xC3\xA9", "caf\xC3\xA9"},
        {"\xE0\xA0\x80\xE2\x82\xAC\xF0\x90\x80\x80\xF4\x8F\xBF\xBF",
         "\xE0\xA0\x80\xE2\x82\xAC\xF0\x90\x80\x80\xF4\x8F\xBF\xBF"},
        {"\xC2\xA0", "\xC2\xA0"},
        {"\xC2\x85", "\xC2\\x85"},                      // a control character
        {"\xE0\x80\x81", "\xE0\\x80\\x81"},             // longer than necessary
        {"\xF0\x80\x80\x81", "\xF0\\x80\\x80\\x81"},    // the same with four bytes
        {"\xC1\x81\xF5\x82", "\xC1\\x81\xF5\\x82"},     // begin no character
        {"\xC3(\xE2\x82(\xE2", "\xC3(\xE2\\x82(\xE2"},  // a byte is missing
        {"\x01\x1F\x7F", "\\x01\\x1F\\x7F"},
        {"a\\b \\x4 \\xG1 \\x1G \\x:1 \\x1/ \\x@1 \\x1` \\xg1 \\y41",
         "a\\b \\x4 \\xG1 \\x1G \\x:1 \\x1/ \\x@1 \\x1` \\xg1 \\y41"},
        {"\\x4a \\xfF \\x09", "\\x5Cx4a \\x5CxfF \\x5Cx09"},  // would read as an escape
    };
    for (const auto &[message, shown] : messages) {
        ASSERT_EQ(qxlog(1, message.c_str()), 0);
        EXPECT_EQ(logLines().front(), "1: 2026-11-15 08:40 " + shown);
    }
}

TEST_F(DeviceLog, WithoutAMessageNothingIsTouched) {
    EXPECT_EQ(qxlog(1, nullptr), -1);
    EXPECT_EQ(qxlog(1, ""), -1);
    EXPECT_FALSE(vxtest::exists(logFile));
    EXPECT_EQ(semaphore(), -1);
}

TEST_F(DeviceLog, TheModeDoesNotDependOnTheMask) {
    const mode_t before = ::umask(077);
    EXPECT_EQ(append(), 0);
    EXPECT_EQ(modeOf(logFile), 0664u);
    EXPECT_EQ(qxlog_clear(), 0);
    ::umask(before);
    EXPECT_EQ(modeOf(logFile), 0664u);
}

TEST_F(DeviceLog, BlankLinesStayAndCount) {
    std::string old;
    for (int i = 0; i < 40; ++i) old += i % 2 == 0 ? "\n" : std::to_string(i) + "\n";
    writeFile(logFile, old);
    EXPECT_EQ(append(), 0);
    const auto lines = logLines();
    ASSERT_EQ(lines.size(), 33u);
    EXPECT_EQ(lines[1], "");
    EXPECT_EQ(lines[32], "31");
}

TEST_F(DeviceLog, ALastLineWithoutNewlineGetsOne) {
    writeFile(logFile, "old\nlast");
    EXPECT_EQ(append(), 0);
    EXPECT_EQ(readFile(logFile), "1: 2026-11-15 08:40 entry\nold\nlast\n");
}

TEST_F(DeviceLog, LongLinesAreSplitByTheNextEntry) {
    const std::string full(1023, 'f');
    writeFile(logFile, std::string(1022, 's') + "\n" + full + "\n" + full + "g\n");
    EXPECT_EQ(append(), 0);
    EXPECT_EQ(logLines(),
              (std::vector<std::string>{"1: 2026-11-15 08:40 entry", std::string(1022, 's'), full, "", full, "g"}));
    const std::string message(5000, 'm');
    EXPECT_EQ(qxlog(2, message.c_str()), 0);
    EXPECT_EQ(logLines()[0], "2: 2026-11-15 08:40 " + message);
    EXPECT_EQ(append(), 0);
    EXPECT_EQ(logLines()[1], "2: 2026-11-15 08:40 " + message.substr(0, 1003));
}

// ---- qxlog_clear()

TEST_F(DeviceLog, ClearLeavesAnEmptyFile) {
    EXPECT_EQ(qxlog_clear(), 0);
    EXPECT_TRUE(vxtest::exists(logFile));
    EXPECT_EQ(append(), 0);
    ::chmod(logFile.c_str(), 0600);
    EXPECT_EQ(qxlog_clear(), 0);
    EXPECT_EQ(readFile(logFile), "");
    EXPECT_EQ(modeOf(logFile), 0664u);
}

// ---- qxlog_read()

TEST_F(DeviceLog, ReadGivesTheLog) {
    qxlog(1, "one");
    qxlog(2, "two");
    EXPECT_EQ(readInto(1000), "2: 2026-11-15 08:40 two\n1: 2026-11-15 08:40 one\n");
    writeFile(logFile, "a\n\nb");
    EXPECT_EQ(readInto(1000), "a\n\nb\n");
}

TEST_F(DeviceLog, ReadNeedsMoreThanTwoHundredFiftySixBytes) {
    int result = 0;
    EXPECT_EQ(readInto(256, &result).front(), '?');
    EXPECT_EQ(result, -1);
    EXPECT_EQ(qxlog_read(nullptr, 1000), -1);
    EXPECT_EQ(semaphore(), -1);
    EXPECT_EQ(readInto(257, &result), "");
    EXPECT_EQ(result, 0);
    EXPECT_FALSE(vxtest::exists(logFile));
}

TEST_F(DeviceLog, ReadStopsTwoShortOfTheBuffer) {
    std::string text;
    for (int i = 0; i < 100; ++i) text += std::to_string(1000 + i) + "\n";
    writeFile(logFile, text);
    EXPECT_EQ(readInto(300), text.substr(0, 298));
    EXPECT_EQ(readInto(302), text.substr(0, 300));
    EXPECT_EQ(readInto(501), text.substr(0, 499));
    EXPECT_EQ(readInto(502), text);
    writeFile(logFile, std::string(3000, 'x'));
    EXPECT_EQ(readInto(300), std::string(298, 'x'));
    EXPECT_EQ(readInto(2000), std::string(1023, 'x') + "\n" + std::string(974, 'x'));
}

// ---- several at once

TEST_F(DeviceLog, GivesTheSemaphoreBack) {
    EXPECT_EQ(append(), 0);
    EXPECT_EQ(semaphoreValue(), 1);
    EXPECT_EQ(qxlog_clear(), 0);
    EXPECT_EQ(semaphoreValue(), 1);
    EXPECT_EQ(readLog(), 0);
    EXPECT_EQ(semaphoreValue(), 1);
    semid_ds set{};
    ASSERT_EQ(::semctl(semaphore(), 0, IPC_STAT, &set), 0);
    EXPECT_EQ(set.sem_nsems, 1u);
    EXPECT_EQ(set.sem_perm.mode & 0777, 0666u);
}

TEST_F(DeviceLog, ASemaphoreLeftTakenDoesNotBlock) {
    ASSERT_EQ(append(), 0);
    ASSERT_EQ(::semctl(semaphore(), 0, SETVAL, 0), 0);
    EXPECT_EQ(append(), 0);
    ASSERT_EQ(::semctl(semaphore(), 0, SETVAL, 0), 0);
    EXPECT_EQ(readLog(), 0);
    ASSERT_EQ(::semctl(semaphore(), 0, SETVAL, 0), 0);
    EXPECT_EQ(qxlog_clear(), 0);
    EXPECT_EQ(semaphoreValue(), 1);
}

TEST_F(DeviceLog, ConcurrentWritersLeaveNoBrokenLine) {
    constexpr int writers = 4;
    constexpr int entries = 60;
    std::vector<pid_t> children;
    for (int writer = 0; writer < writers; ++writer) {
        children.push_back(vxtest::startChild([writer] {
            int failures = 0;
            for (int i = 1; i <= entries; ++i) {
                const int number = writer * 1000 + i;
                if (!vxtest::appendsInTurn(number, message(number))) ++failures;
            }
            return failures == 0 ? 0 : 1;
        }));
    }
    std::atomic<bool> stop{false};
    std::thread reader([&] {
        while (!stop) {
            expectWholeLines(readFile(logFile));
            ::usleep(500);
        }
    });
    for (const pid_t child : children) EXPECT_EQ(vxtest::waitChild(child), 0);
    stop = true;
    reader.join();
    EXPECT_EQ(logLines().size(), 33u);
    EXPECT_FALSE(vxtest::exists(temporary));
}

TEST_F(DeviceLog, ConcurrentClearsLeaveNoBrokenLine) {
    std::atomic<bool> stop{false};
    const pid_t writer = vxtest::startChild([] {
        for (int number = 1; number <= 150; ++number) {
            if (!vxtest::appendsInTurn(number, message(number))) return 1;
        }
        return 0;
    });
    std::thread clearer([&] {
        while (!stop) {
            EXPECT_EQ(qxlog_clear(), 0);
            ::usleep(1500);
        }
    });
    std::vector<char> buffer(40000);
    for (int i = 0; i < 50; ++i) {
        EXPECT_EQ(qxlog_read(buffer.data(), buffer.size()), 0);
        expectWholeLines(buffer.data());
        ::usleep(1000);
    }
    EXPECT_EQ(vxtest::waitChild(writer), 0);
    stop = true;
    clearer.join();
    EXPECT_EQ(qxlog(7, message(7).c_str()), 0);
    expectWholeLines(readFile(logFile));
}

TEST_F(DeviceLog, ThreadsOfOneProcessMayWriteTogether) {
    std::vector<std::thread> threads;
    for (int thread = 0; thread < 4; ++thread) {
        threads.emplace_back([thread] {
            for (int i = 1; i <= 15; ++i) {
                const int number = thread * 100 + i;
                EXPECT_TRUE(vxtest::appendsInTurn(number, message(number)));
            }
        });
    }
    for (std::thread &thread : threads) thread.join();
    expectWholeLines(readFile(logFile));
}

}  // namespace
