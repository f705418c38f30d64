// SPDX-License-Identifier: MIT
// The device log where the system refuses a step, and where another writer is, or was, in the middle of one.
#include <vxutils/qxlog.h>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/ipc.h>
#include <sys/mount.h>
#include <sys/sem.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fstream>
#include <functional>
#include <limits>
#include <optional>
#include <string>
#include <thread>
#include <utility>

#include "support/call_hooks.h"
#include "support/clock_hook.h"
#include "support/emulation.h"
#include "support/files.h"
#include "support/process.h"
#include "support/qxlog.h"
#include "support/syscall_filter.h"

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"  // the format is the caller's
VXTEST_HOOK(size_t, strftime, (char *text, size_t size, const char *format, const tm *local),
            (text, size, format, local))
#pragma GCC diagnostic pop
VXTEST_HOOK(int, flock, (int fd, int operation), (fd, operation))
VXTEST_HOOK(int, rename, (const char *from, const char *to), (from, to))
VXTEST_HOOK(int, usleep, (useconds_t pause), (pause))
VXTEST_HOOK(FILE *, open_memstream, (char **text, size_t *size), (text, size))

namespace {

using namespace vxtest::devicelog;

namespace hooks = vxtest::hooks;

using vxtest::Hooked;
using vxtest::readFile;
using vxtest::writeFile;

using DeviceLogFaults = DeviceLog;

// ---- the semaphore

TEST_F(DeviceLogFaults, WithoutTheKeyFileNothingWorks) {
    ::unlink("/etc/fstab");
    const Reported expected{-1, "ftok: No such file or directory\n"};
    EXPECT_EQ(reported(append), expected);
    EXPECT_EQ(reported(qxlog_clear), expected);
    EXPECT_EQ(reported(readLog), expected);
}

TEST_F(DeviceLogFaults, ASemaphoreThatCannotBeMadeIsReportedTwice) {
    const std::string limits = "/proc/sys/kernel/sem";  // of this box's own IPC namespace
    const std::string before = readFile(limits);
    std::ofstream(limits) << "32000 1024000000 500 0";
    const Reported expected{-1, "semget: No space left on device\nsemget: No such file or directory\n"};
    EXPECT_EQ(reported(append), expected);
    EXPECT_EQ(reported(qxlog_clear), expected);
    EXPECT_EQ(reported(readLog), expected);
    std::ofstream(limits) << before;
}

TEST_F(DeviceLogFaults, ASemaphoreThatOnlyOpensIsUsedAsItIs) {
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

TEST_F(DeviceLogFaults, ASemaphoreThatCannotBeSetIsReported) {
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

TEST_F(DeviceLogFaults, ASemaphoreThatCannotBeGivenBackIsReported) {
    EXPECT_EQ(whenTheSemaphoreVanishes(append, temporary), (Reported{-1, "semop: Invalid argument\n"}));
    EXPECT_EQ(readFile(logFile), "1: 2026-11-15 08:40 entry\n") << "the entry itself was added";
    EXPECT_EQ(whenTheSemaphoreVanishes(qxlog_clear, logFile), (Reported{-1, "unlock sem: Invalid argument\n"}));
    EXPECT_EQ(whenTheSemaphoreVanishes(readLog, logFile), (Reported{-1, "semop: Invalid argument\n"}));
}

// ---- the time

TEST_F(DeviceLogFaults, ATimeBeyondTheCalendarIsReportedAndLeavesTheSemaphoreTaken) {
    now_ = std::numeric_limits<time_t>::max();
    EXPECT_EQ(reported(append), (Reported{-1, "localtime: Value too large for defined data type\n"}));
    EXPECT_EQ(semaphoreValue(), 0);
}

TEST_F(DeviceLogFaults, ATimeThatCannotBeWrittenIsReportedAndLeavesTheSemaphoreTaken) {
    {
        const Hooked noText(hooks::strftime, vxtest::answering<size_t>(0, ERANGE));
        EXPECT_EQ(reported(append), (Reported{-1, "strftime: Numerical result out of range\n"}));
    }
    EXPECT_EQ(semaphoreValue(), 0);
    EXPECT_FALSE(vxtest::exists(temporary));
    EXPECT_EQ(append(), 0);
}

// ---- the files

TEST_F(DeviceLogFaults, AnOldTemporaryFileIsUsedUp) {
    writeFile(temporary, std::string(10000, 'x'));
    EXPECT_EQ(append(), 0);
    EXPECT_EQ(readFile(logFile), "1: 2026-11-15 08:40 entry\n");
    EXPECT_FALSE(vxtest::exists(temporary));
}

TEST_F(DeviceLogFaults, ATemporaryFileThatCannotBeOpenedIsReported) {
    writeFile(logFile, "old\n");
    ASSERT_EQ(::mkdir(temporary.c_str(), 0700), 0);
    EXPECT_EQ(reported(append), (Reported{-1, "open: Is a directory\n"}));
    EXPECT_EQ(readFile(logFile), "old\n");
    EXPECT_EQ(semaphoreValue(), 0);
    ::rmdir(temporary.c_str());
    EXPECT_EQ(append(), 0);
}

TEST_F(DeviceLogFaults, AFailedRenameIsReportedAndLeavesTheTemporaryFile) {
    ASSERT_EQ(::mkdir(logFile.c_str(), 0700), 0);
    EXPECT_EQ(reported(append), (Reported{-1, "rename: Is a directory\n"}));
    EXPECT_EQ(readFile(temporary), "1: 2026-11-15 08:40 entry\n");
    EXPECT_EQ(semaphoreValue(), 0);
    ::rmdir(logFile.c_str());
}

// The other writer would take a file that all users can open for a stranger's, and remove it after 0.2 s.
TEST_F(DeviceLogFaults, AWriterThatHangsBeforeTheRenameKeepsItsFile) {
    Reported other;
    {
        const Hooked hanging(hooks::rename, [&](const char *from, const char *) -> std::optional<int> {
            EXPECT_EQ(modeOf(from), 0660u);
            other = reported(append);
            return std::nullopt;
        });
        EXPECT_EQ(append(), 0);
    }
    EXPECT_EQ(other, (Reported{-1, "open: Resource temporarily unavailable\n"}));
    EXPECT_EQ(modeOf(logFile), 0664u);
}

TEST_F(DeviceLogFaults, OnAFullDiskTheOldLogStays) {
    ASSERT_EQ(::mount("tmpfs", "/var/log", "tmpfs", 0, "size=8k"), 0);
    const std::string old = std::string(900, 'o') + "\n";
    writeFile(logFile, old + old + old + old);
    EXPECT_EQ(reported([] { return qxlog(1, std::string(3000, 'm').c_str()); }),
              (Reported{-1, "rename: No space left on device\n"}));
    EXPECT_EQ(readFile(logFile), old + old + old + old);
    ASSERT_EQ(::umount("/var/log"), 0);
}

// The C library has no room for the entry, and then has it for the old lines.
TEST_F(DeviceLogFaults, ALogThatLacksAPieceDoesNotReplaceTheOldOne) {
    writeFile(logFile, "old\n");
    bool lacking = true;
    const auto write = [](void *was, const char *, size_t size) -> ssize_t {
        if (!std::exchange(*static_cast<bool *>(was), false)) return static_cast<ssize_t>(size);
        errno = ENOMEM;
        return 0;
    };
    const Hooked narrow(hooks::open_memstream, [&](char **, size_t *) -> std::optional<FILE *> {
        FILE *const stream = ::fopencookie(&lacking, "w", {nullptr, write, nullptr, nullptr});
        std::setvbuf(stream, nullptr, _IONBF, 0);
        return stream;
    });
    EXPECT_EQ(reported(append), (Reported{-1, "rename: Cannot allocate memory\n"}));
    EXPECT_EQ(readFile(logFile), "old\n");
}

TEST_F(DeviceLogFaults, AFileSystemWithoutLocksDoes) {
    const Hooked noLocks(hooks::flock, vxtest::failingWith(EOPNOTSUPP));
    EXPECT_EQ(qxlog(1, "one"), 0);
    EXPECT_EQ(qxlog(2, "two"), 0);
    EXPECT_EQ(readInto(1000), "2: 2026-11-15 08:40 two\n1: 2026-11-15 08:40 one\n");
    EXPECT_EQ(qxlog_clear(), 0);
    EXPECT_EQ(readFile(logFile), "");
}

TEST_F(DeviceLogFaults, ClearDoesNotMindAFileThatCannotBeOpened) {
    ASSERT_EQ(::mkdir(logFile.c_str(), 0700), 0);
    EXPECT_EQ(reported(qxlog_clear), (Reported{0, ""}));
    EXPECT_EQ(modeOf(logFile), 0700u);
    ::rmdir(logFile.c_str());
}

// ---- another writer

// Another writer is in the middle: it holds the temporary file, which becomes the log while this one waits.
TEST_F(DeviceLogFaults, AWriterWaitsForTheTemporaryFileAndThenTakesANewOne) {
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

// How long a call waits for a lock: each pause between two attempts takes no time, and is a millisecond by the clock.
class DeviceLogWaits : public DeviceLog {
protected:
    // Another process holds the lock of this file for ever.
    void lockForEver(const std::string &name) {
        struct stat held {};
        ASSERT_EQ(::stat(name.c_str(), &held), 0);
        hooks::flock = [inode = held.st_ino](int fd, int operation) -> std::optional<int> {
            struct stat own {};
            if (operation == LOCK_UN || ::fstat(fd, &own) == -1 || own.st_ino != inode) return std::nullopt;
            errno = EWOULDBLOCK;
            return -1;
        };
    }
    int pausesOf(const std::function<void()> &call) {
        int pauses = 0;
        const Hooked clock(hooks::clock_gettime, [&](clockid_t, timespec *now) -> std::optional<int> {
            *now = {1000 + pauses / 1000, pauses % 1000 * 1000000L};
            return 0;
        });
        const Hooked pausing(hooks::usleep, [&](useconds_t pause) -> std::optional<int> {
            EXPECT_EQ(pause, 2000U);
            ++pauses;
            return 0;
        });
        call();
        return pauses;
    }
    void TearDown() override {
        hooks::flock = nullptr;
        DeviceLog::TearDown();
    }
};

TEST_F(DeviceLogWaits, AWritersTemporaryFileIsWaitedForFor800Milliseconds) {
    writeFile(temporary, "");
    ASSERT_EQ(::chmod(temporary.c_str(), 0660), 0);
    lockForEver(temporary);
    EXPECT_EQ(pausesOf([] { EXPECT_EQ(append(), -1); }), 800);
    EXPECT_TRUE(vxtest::exists(temporary));
}

TEST_F(DeviceLogWaits, AStrangersTemporaryFileIsReplacedAfter200Milliseconds) {
    writeFile(temporary, "");
    ASSERT_EQ(::chmod(temporary.c_str(), 0666), 0);
    lockForEver(temporary);
    EXPECT_EQ(pausesOf([] { EXPECT_EQ(append(), 0); }), 200);
    EXPECT_EQ(readFile(logFile), "1: 2026-11-15 08:40 entry\n");
}

TEST_F(DeviceLogWaits, ALockedLogIsUsedAfterASecond) {
    ASSERT_EQ(append(), 0);
    lockForEver(logFile);
    std::array<char, 300> text{};
    EXPECT_EQ(pausesOf([&] { EXPECT_EQ(qxlog_read(text.data(), text.size()), 0); }), 1000);
    EXPECT_STREQ(text.data(), "1: 2026-11-15 08:40 entry\n");
    EXPECT_EQ(pausesOf([] { EXPECT_EQ(qxlog_clear(), 0); }), 1000);
    EXPECT_EQ(readFile(logFile), "");
}

TEST_F(DeviceLogFaults, AWriterKilledAtAnyMomentLeavesAWholeLogAndBlocksNoOtherWriter) {
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

// What fork() in another thread of a daemon does. The child has copies of the descriptors and lives on.
TEST_F(DeviceLogFaults, AChildForkedDuringACallKeepsNoLock) {
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
        pid_t child = -1;
        {
            const Hooked forking(hooks::flock, [&](int fd, int operation) -> std::optional<int> {
                const int result = vxtest::real::flock(fd, operation);
                if (result == 0 && child == -1) {
                    child = vxtest::startChild([] {
                        for (;;) ::pause();
                        return 0;
                    });
                }
                return result;
            });
            EXPECT_EQ(call(), 0);
        }
        EXPECT_NE(child, -1);
        const int log = ::open("/var/log/qxlog", O_RDONLY | O_CLOEXEC);
        EXPECT_EQ(::flock(log, LOCK_EX | LOCK_NB), 0) << std::strerror(errno);
        ::close(log);
        ::kill(child, SIGKILL);
        vxtest::waitChild(child);
    }
}

// exit() writes what the streams of the process still hold, and sets back the place of what they have read ahead.
TEST_F(DeviceLogFaults, AChildForkedDuringACallMayEndWithExit) {
    for (int number = 1; number <= 20; ++number) ASSERT_EQ(qxlog(number, message(number).c_str()), 0);
    const auto exitInAChild = [] {
        const pid_t child = ::fork();  // not by way of startChild(), which writes what the streams hold before
        if (child == 0) std::exit(0);
        EXPECT_EQ(vxtest::waitChild(child), 0);
    };
    {
        const Hooked forking(hooks::flock, [&](int fd, int operation) -> std::optional<int> {
            const int result = vxtest::real::flock(fd, operation);
            exitInAChild();
            return result;
        });
        EXPECT_EQ(qxlog(21, message(21).c_str()), 0);
    }
    const auto lines = logLines();
    ASSERT_EQ(lines.size(), 21u);
    for (int number = 21; number >= 1; --number) {
        EXPECT_TRUE(lines[static_cast<size_t>(21 - number)].starts_with(std::to_string(number) + ": ")) << number;
    }
    expectWholeLines(readFile(logFile));
}

}  // namespace
