// SPDX-License-Identifier: MIT
// Directories where the system refuses a step, or another process changes them during the call.
#include <vxutils/file.h>

#include <dirent.h>
#include <fcntl.h>
#include <linux/magic.h>
#include <sys/stat.h>
#include <sys/vfs.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "support/call_hooks.h"
#include "support/directories.h"
#include "support/files.h"
#include "support/syslog_capture.h"

VXTEST_HOOK(int, fchmod, (int fd, mode_t mode), (fd, mode))
VXTEST_HOOK_AS(int, fstat, "__fstat64_time64", (int fd, struct stat *status), (fd, status))
VXTEST_HOOK_AS(int, fstatat, "__fstatat64_time64", (int directory, const char *path, struct stat *status, int flags),
               (directory, path, status, flags))
VXTEST_HOOK_AS(int, fstatfs, "fstatfs64", (int fd, struct statfs *system), (fd, system))
VXTEST_HOOK(ssize_t, getdents64, (int fd, void *buffer, size_t size), (fd, buffer, size))
VXTEST_HOOK(char *, strdup, (const char *text), (text))

namespace {

using namespace vxtest::directories;

namespace hooks = vxtest::hooks;

using vxtest::exists;
using vxtest::Hooked;
using vxtest::LogLine;
using vxtest::readFile;
using vxtest::writeFile;

std::string pathOf(int fd) {
    char text[4096];
    const ssize_t length = ::readlink(("/proc/self/fd/" + std::to_string(fd)).c_str(), text, sizeof text);
    return {text, length > 0 ? static_cast<size_t>(length) : 0};
}

// Hooks that answer for one path alone.

auto modeRefusedAt(const std::string &which) {
    return [which](int fd, mode_t) -> std::optional<int> {
        if (pathOf(fd) != which) return std::nullopt;
        errno = EPERM;
        return -1;
    };
}

auto statusRefusedAt(const std::string &which) {
    return [which](int directory, const char *name, struct stat *, int) -> std::optional<int> {
        if ((directory == AT_FDCWD ? name : pathOf(directory) + "/" + name) != which) return std::nullopt;
        errno = EIO;
        return -1;
    };
}

// A few entries at a time, and none after the first few.
auto listCutAt(const std::string &which) {
    return [which](int fd, void *buffer, size_t) -> std::optional<ssize_t> {
        if (pathOf(fd) != which) return std::nullopt;
        if (::lseek(fd, 0, SEEK_CUR) == 0) return vxtest::real::getdents64(fd, buffer, 128);
        errno = EIO;
        return -1;
    };
}

// Calls `change` once, when the entries are read.
auto changeWhenListed(const std::string &which, std::function<void()> change) {
    return [which, change](int fd, void *, size_t) mutable -> std::optional<ssize_t> {
        if (change && pathOf(fd) == which) std::exchange(change, nullptr)();
        return std::nullopt;
    };
}

const auto noMemory = vxtest::answering<char *>(nullptr, ENOMEM);

using TryMkdirFaults = Directories;
using CreateDirectoryFaults = Directories;
using DeleteDirectoryFaults = Trees;
using CopyFileFaults = Directories;
using CopyDirectoryFaults = Trees;

TEST_F(TryMkdirFaults, AModeThatCannotBeSetIsReportedAndTheDirectoryStaysAsItWasMade) {
    ::umask(0);
    const Hooked refused(hooks::fchmod, modeRefusedAt(path("new")));
    vxtest::SyslogCapture log;
    EXPECT_EQ(try_mkdir(path("new").c_str()), -1);
    ::umask(022);
    EXPECT_EQ(errno, EPERM);
    EXPECT_EQ(log.take(), (std::vector<LogLine>{{LOG_DEBUG, "Cannot create directory. chmod " + path("new") +
                                                                " throw errno=1, Operation not permitted"}}));
    EXPECT_EQ(modeOf(path("new")), 0x755u & 01777u) << "mkdir() ignores the set-user-id and set-group-id bits";
}

TEST_F(TryMkdirFaults, AnExistingEntryThatCannotBeExaminedIsReported) {
    const Hooked refused(hooks::fstatat, statusRefusedAt(dir));
    vxtest::SyslogCapture log;
    EXPECT_EQ(try_mkdir(dir.c_str()), -1);
    EXPECT_EQ(errno, EIO);
    EXPECT_EQ(log.take(), (std::vector<LogLine>{{LOG_ERR, "Unknown errno using lstat in create_directory for " + dir +
                                                              ". errno=5, Input/output error"}}));
}

// A memory stick that every user may write to: all its directories have the owner and the mode of the mount, and fchmod()
// changes nothing.
class MemoryStick : public Directories {
protected:
    void SetUp() override {
        Directories::SetUp();
        vxtest::makeDirs(path("stick"));
        ::chmod(path("stick").c_str(), 0777);
        hooks::fstat = [this](int fd, struct stat *status) -> std::optional<int> {
            if (vxtest::real::fstat(fd, status) == -1) return -1;
            if (pathOf(fd).starts_with(path("stick/")) && S_ISDIR(status->st_mode)) {
                status->st_uid = owner_;
                status->st_mode = S_IFDIR | 0777;
                if (otherDevice_) ++status->st_dev;
            }
            return 0;
        };
        hooks::fstatfs = [this](int fd, struct statfs *system) -> std::optional<int> {
            if (vxtest::real::fstatfs(fd, system) == -1) return -1;
            if (type_ != 0) system->f_type = type_;
            return 0;
        };
    }
    void TearDown() override {
        hooks::fstat = nullptr;
        hooks::fstatfs = nullptr;
    }

    decltype(statfs::f_type) type_ = MSDOS_SUPER_MAGIC;
    uid_t owner_ = ::geteuid();
    bool otherDevice_ = false;
};

TEST_F(MemoryStick, TakesDirectoriesWhoseOwnerAndModeAreThoseOfTheMount) {
    writeFile(path("source/sub/file"), "copied");
    for (const auto type : {MSDOS_SUPER_MAGIC, EXFAT_SUPER_MAGIC}) {
        for (const uid_t owner : {::geteuid(), uid_t{12345}}) {
            type_ = type;
            owner_ = owner;
            EXPECT_EQ(createDirectory(path("stick/a/b")), 0);
            EXPECT_EQ(copyDirectory(path("source"), path("stick/copy")), 0);
            EXPECT_EQ(readFile(path("stick/copy/sub/file")), "copied");
            fs::remove_all(path("stick/a"));
            fs::remove_all(path("stick/copy"));
        }
    }
}

TEST_F(MemoryStick, AnotherDirectoryIsStillRefusedOnOtherFileSystems) {
    type_ = 0;
    EXPECT_EQ(try_mkdir(path("stick/a").c_str()), -1);
    EXPECT_EQ(errno, EACCES);
    type_ = MSDOS_SUPER_MAGIC;
    otherDevice_ = true;
    EXPECT_EQ(try_mkdir(path("stick/b").c_str()), -1);
    EXPECT_EQ(errno, EACCES);
}

TEST_F(CreateDirectoryFaults, WithoutMemoryNothingIsMade) {
    vxtest::SyslogCapture log;
    const Hooked full(hooks::strdup, noMemory);
    EXPECT_EQ(createDirectory(path("new")), -1);
    EXPECT_FALSE(exists(path("new")));
    EXPECT_TRUE(log.take().empty());
}

TEST_F(DeleteDirectoryFaults, StopsAtAnEntryThatCannotBeExamined) {
    fs::remove_all(path("tree"));
    vxtest::makeDirs(path("tree"));
    writeFile(path("tree/entry"), "x");
    const Hooked refused(hooks::fstatat, statusRefusedAt(path("tree/entry")));
    EXPECT_EQ(delete_directory(path("tree").c_str()), -1);
    EXPECT_EQ(delete_directory_contents(path("tree").c_str()), -1);
    EXPECT_EQ(errno, EIO);
    EXPECT_EQ(readFile(path("tree/entry")), "x");
    // One level down it counts as an entry that cannot be removed.
    EXPECT_EQ(delete_directory(dir.c_str()), 0);
    EXPECT_EQ(readFile(path("tree/entry")), "x");
    EXPECT_FALSE(exists(path("outside")));
}

TEST_F(DeleteDirectoryFaults, WhatCannotBeListedToItsEndStays) {
    for (int i = 0; i < 40; ++i) writeFile(path("tree/sub/file" + std::to_string(i)), "");
    const Hooked cut(hooks::getdents64, listCutAt(path("tree/sub")));
    EXPECT_EQ(delete_directory(path("tree").c_str()), 0);
    EXPECT_EQ(empty_directory(path("tree/sub").c_str()), 0);
    EXPECT_FALSE(exists(path("tree/one")));
}

// The way back up is "..", which leads elsewhere once a directory has been moved.
TEST_F(DeleteDirectoryFaults, DoesNotGoOnWhereADirectoryWasMovedTo) {
    vxtest::makeDirs(path("tree/a"));
    const std::string innermost = makeChain(path("tree/a"), path("tree/a").size() + 40, 1);
    const Hooked moved(hooks::getdents64, changeWhenListed(innermost, [] {
                           EXPECT_EQ(::rename(path("tree/a").c_str(), path("outside/a").c_str()), 0);
                       }));
    for (char name = 'b'; name <= 'z'; ++name) {
        for (const char *where : {"tree/", "outside/"}) writeFile(path(where) + name, "");
    }
    EXPECT_EQ(delete_directory(path("tree").c_str()), -1);
    EXPECT_EQ(errno, ESTALE);
    for (char name = 'b'; name <= 'z'; ++name) EXPECT_TRUE(exists(path("outside/") + name)) << name;
}

TEST_F(CopyFileFaults, ASourceThatCannotBeExaminedIsReported) {
    writeFile(path("src"), "x");
    vxtest::SyslogCapture log;
    {
        const Hooked refused(hooks::fstat, vxtest::failingWith(EIO));
        EXPECT_EQ(copyFile(path("src"), path("dst")), -1);
        EXPECT_EQ(errno, EIO);
    }
    EXPECT_EQ(log.take(), (std::vector<LogLine>{{LOG_ERR, "Can't read file stats: Input/output error (5)"}}));
    EXPECT_FALSE(exists(path("dst")));
}

TEST_F(CopyFileFaults, WithoutMemoryForTheFoldersNameItFails) {
    writeFile(path("src"), "x");
    const Hooked full(hooks::strdup, noMemory);
    EXPECT_EQ(copyFile(path("src"), path("dst")), -1);
    EXPECT_FALSE(exists(path("dst")));
}

TEST_F(CopyDirectoryFaults, ADestinationWhoseModeCannotBeSetIsAFailure) {
    const Hooked refused(hooks::fchmod, modeRefusedAt(path("copy")));
    vxtest::SyslogCapture log;
    EXPECT_EQ(copyDirectory(path("outside"), path("copy")), -1);
    EXPECT_TRUE(fs::is_empty(path("copy")));
    EXPECT_EQ(modeOf(path("copy")), 0x755u & 01777u & ~022u);
    EXPECT_TRUE(log.take().empty());
}

TEST_F(CopyDirectoryFaults, StopsAtAnEntryThatCannotBeExamined) {
    const Hooked refused(hooks::fstatat, statusRefusedAt(path("outside/kept")));
    EXPECT_EQ(copyDirectory(path("outside"), path("copy")), -1);
    EXPECT_EQ(errno, EIO);
    EXPECT_TRUE(fs::is_empty(path("copy")));
}

TEST_F(CopyDirectoryFaults, ASourceThatCannotBeListedToItsEndIsAFailure) {
    for (int i = 0; i < 40; ++i) writeFile(path("small/file" + std::to_string(i)), "");
    {
        const Hooked cut(hooks::getdents64, listCutAt(path("small")));
        EXPECT_EQ(copyDirectory(path("small"), path("copy")), -1);
        EXPECT_EQ(errno, EIO);
    }
    vxtest::makeDirs(path("around"));
    fs::rename(path("small"), path("around/small"));
    {
        const Hooked cut(hooks::getdents64, listCutAt(path("around/small")));
        EXPECT_EQ(copyDirectory(path("around"), path("copy")), -1);
    }
    EXPECT_EQ(copyDirectory(path("around"), path("copy")), 0);
    EXPECT_TRUE(exists(path("copy/small/file39")));
}

TEST_F(CopyDirectoryFaults, StopsWhenADirectoryOfTheSourceWasMovedElsewhere) {
    writeFile(path("small/a/file"), "");
    const std::string innermost = makeChain(path("small/a"), path("small/a").size() + 40, 1);
    const Hooked moved(hooks::getdents64, changeWhenListed(innermost, [] {
                           EXPECT_EQ(::rename(path("small/a").c_str(), path("outside/moved").c_str()), 0);
                       }));
    EXPECT_EQ(copyDirectory(path("small"), path("copy")), -1);
    EXPECT_EQ(errno, ESTALE);
}

}  // namespace
