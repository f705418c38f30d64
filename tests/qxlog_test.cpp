// SPDX-License-Identifier: MIT
// The device log.
#include <fcntl.h>
#include <sys/file.h>
#include <sys/ipc.h>
#include <sys/mount.h>
#include <sys/sem.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>
#include <vxutils/qxlog.h>

#include <atomic>
#include <cerrno>
#include <climits>
#include <clocale>
#include <csignal>
#include <cstring>
#include <fstream>
#include <functional>
#include <sstream>
#include <thread>
#include <utility>

#include "support/emulation.h"
#include "support/files.h"
#include "support/process.h"
#include "support/resources.h"
#include "support/syscall_filter.h"

// The clock as the library reads it, stopped where a test wants it; the writer of its text and the locks of files,
// which then fail.
namespace {
std::atomic<time_t> stoppedClock{0};
bool noTimeText = false;
bool noLocks = false;
void (*afterLocking)() = nullptr;  // called once, when the next lock of a file has been taken
}  // namespace
extern "C" time_t time(time_t *result) noexcept {
    timespec now{};
    ::clock_gettime(CLOCK_REALTIME, &now);
    const time_t seconds = stoppedClock != 0 ? stoppedClock.load() : now.tv_sec;
    if (result != nullptr) *result = seconds;
    return seconds;
}
extern "C" size_t strftime(char *text, size_t size, const char *format, const tm *local) noexcept {
    static const locale_t c = ::newlocale(LC_ALL_MASK, "C", nullptr);
    if (!noTimeText) return ::strftime_l(text, size, format, local, c);
    errno = ERANGE;
    return 0;
}
extern "C" int flock(int fd, int operation) noexcept {
    if (!noLocks) {
        const auto result = static_cast<int>(::syscall(SYS_flock, fd, operation));
        if (result == 0 && afterLocking != nullptr) std::exchange(afterLocking, nullptr)();
        return result;
    }
    errno = EOPNOTSUPP;
    return -1;
}

namespace {

using vxtest::readFile;
using vxtest::writeFile;

const std::string logFile = "/var/log/qxlog";
const std::string temporary = "/var/log/qxlog.tmp";

std::vector<std::string> linesOf(const std::string &text) {
    std::istringstream stream(text);
    std::vector<std::string> lines;
    for (std::string line; std::getline(stream, line);) lines.push_back(line);
    return lines;
}

std::vector<std::string> logLines() { return linesOf(readFile(logFile)); }

mode_t modeOf(const std::string &name) {
    struct stat status {};
    return ::stat(name.c_str(), &status) == 0 ? status.st_mode & 07777 : 0;
}

key_t key() { return ::ftok("/etc/fstab", 69); }
int semaphore() { return ::semget(key(), 1, 0); }
int semaphoreValue() { return ::semctl(semaphore(), 0, GETVAL); }

class DeviceLog : public testing::Test {
protected:
    void SetUp() override {
        vxtest::makeDirs("/var/log");
        if (key() == -1) vxtest::run({"touch", "/etc/fstab"});
        for (const std::string &name : {logFile, temporary}) ::unlink(name.c_str());
        if (semaphore() != -1) ::semctl(semaphore(), 0, IPC_RMID);
        ::setenv("TZ", "UTC", 1);
        stoppedClock = 1794732000;  // 2026-11-15 08:40 UTC
    }
    void TearDown() override { stoppedClock = 0; }

    vxtest::NoLeaks noLeaks_;
};

// Result of the call and what it printed on standard error, in a child.
struct Reported {
    int result;
    std::string text;
    bool operator==(const Reported &) const = default;
};
std::ostream &operator<<(std::ostream &out, const Reported &r) { return out << r.result << " \"" << r.text << '"'; }

Reported reported(const std::function<int()> &call) {
    const std::string file = "/tmp/stderr";
    const int result = vxtest::inChild([&] {
        const int fd = ::open(file.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
        ::dup2(fd, 2);
        return call();
    });
    Reported all{result == 255 ? -1 : result, readFile(file)};
    ::unlink(file.c_str());
    return all;
}

int append() { return qxlog(1, "entry"); }
int readLog() {
    char buffer[300];
    return qxlog_read(buffer, sizeof buffer);
}

// ---- qxlog ----

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

TEST_F(DeviceLog, TheModeDoesNotDependOnTheMask) {
    const mode_t before = ::umask(077);
    EXPECT_EQ(append(), 0);
    EXPECT_EQ(modeOf(logFile), 0664u);
    EXPECT_EQ(qxlog_clear(), 0);
    ::umask(before);
    EXPECT_EQ(modeOf(logFile), 0664u);
}

TEST_F(DeviceLog, KeepsTheNewEntryAndThirtyTwoOlderLinesNewestFirst) {
    for (int i = 1; i <= 35; ++i) ASSERT_EQ(qxlog(i, "entry"), 0);
    const auto lines = logLines();
    ASSERT_EQ(lines.size(), 33u);
    for (size_t i = 0; i < lines.size(); ++i) {
        EXPECT_EQ(lines[i], std::to_string(35 - i) + ": 2026-11-15 08:40 entry");
    }
}

TEST_F(DeviceLog, WithoutAMessageNothingIsTouched) {
    EXPECT_EQ(qxlog(1, nullptr), -1);
    EXPECT_EQ(qxlog(1, ""), -1);
    EXPECT_FALSE(vxtest::exists(logFile));
    EXPECT_EQ(semaphore(), -1);
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

TEST_F(DeviceLog, AnOldTemporaryFileIsUsedUp) {
    writeFile(temporary, std::string(10000, 'x'));
    EXPECT_EQ(append(), 0);
    EXPECT_EQ(readFile(logFile), "1: 2026-11-15 08:40 entry\n");
    EXPECT_FALSE(vxtest::exists(temporary));
}

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

// ---- qxlog_clear, qxlog_read ----

TEST_F(DeviceLog, ClearLeavesAnEmptyFile) {
    EXPECT_EQ(qxlog_clear(), 0);
    EXPECT_TRUE(vxtest::exists(logFile));
    EXPECT_EQ(append(), 0);
    ::chmod(logFile.c_str(), 0600);
    EXPECT_EQ(qxlog_clear(), 0);
    EXPECT_EQ(readFile(logFile), "");
    EXPECT_EQ(modeOf(logFile), 0664u);
}

TEST_F(DeviceLog, ClearDoesNotMindAFileThatCannotBeOpened) {
    ASSERT_EQ(::mkdir(logFile.c_str(), 0700), 0);
    EXPECT_EQ(reported(qxlog_clear), (Reported{0, ""}));
    EXPECT_EQ(modeOf(logFile), 0700u);
    ::rmdir(logFile.c_str());
}

std::string readInto(size_t size, int *result = nullptr) {
    vxtest::GuardedBuffer buffer(size);
    std::memset(buffer.data(), '?', size);
    const int got = qxlog_read(buffer.data(), size);
    if (result != nullptr) *result = got;
    const std::string all(buffer.data(), size);
    const std::string text = all.c_str();
    if (got == 0) EXPECT_EQ(all.find_first_not_of('\0', text.size()), std::string::npos) << "the rest is zero";
    return text;
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

TEST_F(DeviceLog, ReadGivesTheLog) {
    qxlog(1, "one");
    qxlog(2, "two");
    EXPECT_EQ(readInto(1000), "2: 2026-11-15 08:40 two\n1: 2026-11-15 08:40 one\n");
    writeFile(logFile, "a\n\nb");
    EXPECT_EQ(readInto(1000), "a\n\nb\n");
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

// ---- failures ----

TEST_F(DeviceLog, WithoutTheKeyFileNothingWorks) {
    ::unlink("/etc/fstab");
    const Reported expected{-1, "ftok: No such file or directory\n"};
    EXPECT_EQ(reported(append), expected);
    EXPECT_EQ(reported(qxlog_clear), expected);
    EXPECT_EQ(reported(readLog), expected);
}

TEST_F(DeviceLog, ASemaphoreThatCannotBeMadeIsReportedTwice) {
    const std::string limits = "/proc/sys/kernel/sem";  // of this box's own IPC namespace
    const std::string before = readFile(limits);
    std::ofstream(limits) << "32000 1024000000 500 0";
    const Reported expected{-1, "semget: No space left on device\nsemget: No such file or directory\n"};
    EXPECT_EQ(reported(append), expected);
    EXPECT_EQ(reported(qxlog_clear), expected);
    EXPECT_EQ(reported(readLog), expected);
    std::ofstream(limits) << before;
}

TEST_F(DeviceLog, ASemaphoreThatOnlyOpensIsUsedAsItIs) {
    if (!vxtest::hasOtherUsers()) GTEST_SKIP() << "a box made by an ordinary user has no other";
    ASSERT_NE(::semget(key(), 1, IPC_CREAT | 0600), -1);
    const auto asOther = [](int (*call)()) {
        return reported([call] { return ::setresuid(12345, 12345, 12345) == 0 ? call() : 100; });
    };
    const std::string denied = ": Permission denied\n";
    EXPECT_EQ(asOther(append), (Reported{-1, "semget" + denied + "lock sem" + denied}));
    EXPECT_EQ(asOther(qxlog_clear), (Reported{-1, "semget" + denied + "semop" + denied}));
    EXPECT_EQ(asOther(readLog), (Reported{-1, "semget" + denied + "semop" + denied}));
    EXPECT_EQ(semaphoreValue(), 0) << "it was not set";
}

TEST_F(DeviceLog, ASemaphoreThatCannotBeSetIsReported) {
    if (vxtest::emulated()) GTEST_SKIP() << "the emulator has no system call filters";
    const auto refused = [](int (*call)()) {
        return reported([call] { return vxtest::failSystemCall(SYS_semctl, EPERM) ? call() : 100; });
    };
    const Reported expected{-1, "semctl: Operation not permitted\n"};
    EXPECT_EQ(refused(append), expected);
    EXPECT_EQ(refused(qxlog_clear), expected);
    EXPECT_EQ(refused(readLog), expected);
    EXPECT_FALSE(vxtest::exists(logFile));
}

// What the call reports whose semaphore is removed while it waits for the lock of this file.
Reported whenTheSemaphoreVanishes(int (*call)(), const std::string &file) {
    EXPECT_EQ(readLog(), 0);  // a new semaphore is not taken for a moment, as it would be before its first value is set
    writeFile(file, "");
    const int fd = ::open(file.c_str(), O_RDWR | O_CLOEXEC);
    EXPECT_EQ(::flock(fd, LOCK_EX), 0);
    std::thread remover([fd] {
        EXPECT_TRUE(vxtest::eventually([] { return semaphore() != -1 && semaphoreValue() == 0; }));
        EXPECT_EQ(::semctl(semaphore(), 0, IPC_RMID), 0);
        EXPECT_EQ(::flock(fd, LOCK_UN), 0);
    });
    const Reported result = reported([call, fd] {
        ::close(fd);  // the lock is the parent's alone
        return call();
    });
    remover.join();
    ::close(fd);
    return result;
}

TEST_F(DeviceLog, ASemaphoreThatCannotBeGivenBackIsReported) {
    EXPECT_EQ(whenTheSemaphoreVanishes(append, temporary), (Reported{-1, "semop: Invalid argument\n"}));
    EXPECT_EQ(readFile(logFile), "1: 2026-11-15 08:40 entry\n") << "the entry itself was added";
    EXPECT_EQ(whenTheSemaphoreVanishes(qxlog_clear, logFile), (Reported{-1, "unlock sem: Invalid argument\n"}));
    EXPECT_EQ(whenTheSemaphoreVanishes(readLog, logFile), (Reported{-1, "semop: Invalid argument\n"}));
}

TEST_F(DeviceLog, ATimeBeyondTheCalendarIsReportedAndLeavesTheSemaphoreTaken) {
    stoppedClock = std::numeric_limits<time_t>::max();
    EXPECT_EQ(reported(append), (Reported{-1, "localtime: Value too large for defined data type\n"}));
    EXPECT_EQ(semaphoreValue(), 0);
}

TEST_F(DeviceLog, ATimeThatCannotBeWrittenIsReportedAndLeavesTheSemaphoreTaken) {
    noTimeText = true;
    EXPECT_EQ(reported(append), (Reported{-1, "strftime: Numerical result out of range\n"}));
    noTimeText = false;
    EXPECT_EQ(semaphoreValue(), 0);
    EXPECT_FALSE(vxtest::exists(temporary));
    EXPECT_EQ(append(), 0);
}

TEST_F(DeviceLog, ATemporaryFileThatCannotBeOpenedIsReported) {
    writeFile(logFile, "old\n");
    ASSERT_EQ(::mkdir(temporary.c_str(), 0700), 0);
    EXPECT_EQ(reported(append), (Reported{-1, "open: Is a directory\n"}));
    EXPECT_EQ(readFile(logFile), "old\n");
    EXPECT_EQ(semaphoreValue(), 0);
    ::rmdir(temporary.c_str());
    EXPECT_EQ(append(), 0);
}

TEST_F(DeviceLog, AFailedRenameIsReportedAndLeavesTheTemporaryFile) {
    ASSERT_EQ(::mkdir(logFile.c_str(), 0700), 0);
    EXPECT_EQ(reported(append), (Reported{-1, "rename: Is a directory\n"}));
    EXPECT_EQ(readFile(temporary), "1: 2026-11-15 08:40 entry\n");
    EXPECT_EQ(semaphoreValue(), 0);
    ::rmdir(logFile.c_str());
}

TEST_F(DeviceLog, OnAFullDiskTheOldLogStays) {
    ASSERT_EQ(::mount("tmpfs", "/var/log", "tmpfs", 0, "size=8k"), 0);
    const std::string old = std::string(900, 'o') + "\n";
    writeFile(logFile, old + old + old + old);
    EXPECT_EQ(reported([] { return qxlog(1, std::string(3000, 'm').c_str()); }),
              (Reported{-1, "rename: No space left on device\n"}));
    EXPECT_EQ(readFile(logFile), old + old + old + old);
    ASSERT_EQ(::umount("/var/log"), 0);
}

TEST_F(DeviceLog, AFileSystemWithoutLocksDoes) {
    noLocks = true;
    EXPECT_EQ(qxlog(1, "one"), 0);
    EXPECT_EQ(qxlog(2, "two"), 0);
    EXPECT_EQ(readInto(1000), "2: 2026-11-15 08:40 two\n1: 2026-11-15 08:40 one\n");
    EXPECT_EQ(qxlog_clear(), 0);
    EXPECT_EQ(readFile(logFile), "");
    noLocks = false;
}

// ---- several at once ----

// "NUMBER: TIME NUMBER-xxxx...": the text repeats the number, and its length follows from it.
std::string message(int number) {
    return std::to_string(number) + "-" + std::string(static_cast<size_t>(number * 37 % 900), 'x');
}

bool isWhole(const std::string &line) {
    const int number = std::atoi(line.c_str());
    return line == std::to_string(number) + ": 2026-11-15 08:40 " + message(number);
}

void expectWholeLines(const std::string &text) {
    if (!text.empty()) EXPECT_EQ(text.back(), '\n');
    for (const std::string &line : linesOf(text)) EXPECT_TRUE(isWhole(line)) << line;
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
                if (qxlog(number, message(number).c_str()) != 0) ++failures;
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
            if (qxlog(number, message(number).c_str()) != 0) return 1;
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
                EXPECT_EQ(qxlog(number, message(number).c_str()), 0);
            }
        });
    }
    for (std::thread &thread : threads) thread.join();
    expectWholeLines(readFile(logFile));
}

// Another writer is in the middle: it holds the temporary file, which becomes the log while this one waits.
TEST_F(DeviceLog, AWriterWaitsForTheTemporaryFileAndThenTakesANewOne) {
    const int fd = ::open(temporary.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0666);
    ASSERT_EQ(::flock(fd, LOCK_EX), 0);
    const pid_t writer = vxtest::startChild([fd] {
        ::close(fd);  // the lock is the parent's alone
        return qxlog(2, "second");
    });
    ::usleep(100000);
    const std::string first = "1: 2026-11-15 08:40 first\n";
    ASSERT_EQ(::write(fd, first.data(), first.size()), static_cast<ssize_t>(first.size()));
    EXPECT_FALSE(vxtest::exists(logFile));
    ASSERT_EQ(::rename(temporary.c_str(), logFile.c_str()), 0);
    ::close(fd);
    EXPECT_EQ(vxtest::waitChild(writer), 0);
    EXPECT_EQ(readFile(logFile), "2: 2026-11-15 08:40 second\n" + first);
}

TEST_F(DeviceLog, AWriterKilledAtAnyMomentLeavesAWholeLogAndBlocksNoOtherWriter) {
    for (int round = 0; round < 60; ++round) {
        const pid_t writer = vxtest::startChild([] {
            for (int number = 1;; ++number) {
                if (qxlog(number, message(number).c_str()) != 0) return 1;
            }
        });
        ::usleep(static_cast<useconds_t>(round * 50));
        ::kill(writer, SIGKILL);
        EXPECT_EQ(vxtest::waitChild(writer), 128 + SIGKILL);
        expectWholeLines(readFile(logFile));
    }
    EXPECT_EQ(qxlog(8, message(8).c_str()), 0);
    expectWholeLines(readFile(logFile));
}

// ---- the example ----

// What fork() in another thread of a daemon does. The child has copies of the descriptors and lives on.
TEST_F(DeviceLog, AChildForkedDuringACallKeepsNoLock) {
    static pid_t child = -1;
    const auto forkChild = [] {
        child = vxtest::startChild([] {
            for (;;) ::pause();
            return 0;
        });
    };
    const std::function<int()> calls[] = {
        [] { return qxlog(1, "written"); },
        [] { return qxlog_clear(); },
        [] {
            std::array<char, 2048> text;
            return qxlog_read(text.data(), text.size()) >= 0 ? 0 : -1;
        },
    };
    ASSERT_EQ(qxlog(1, "there is a log"), 0);
    for (const auto &call : calls) {
        child = -1;
        afterLocking = forkChild;
        EXPECT_EQ(call(), 0);
        EXPECT_NE(child, -1);
        const int log = ::open("/var/log/qxlog", O_RDONLY | O_CLOEXEC);
        EXPECT_EQ(::flock(log, LOCK_EX | LOCK_NB), 0) << std::strerror(errno);
        ::close(log);
        ::kill(child, SIGKILL);
        vxtest::waitChild(child);
    }
}

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

}  // namespace
