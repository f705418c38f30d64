// SPDX-License-Identifier: MIT
// Directories where the system refuses a step, or another process changes them during the call.
#include <vxutils/file.h>

#include <dirent.h>
#include <fcntl.h>
#include <linux/magic.h>
#include <sys/resource.h>
#include <sys/sendfile.h>
#include <sys/stat.h>
#include <sys/vfs.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "support/call_hooks.h"
#include "support/close_on_exec.h"
#include "support/directories.h"
#include "support/emulation.h"
#include "support/files.h"
#include "support/process.h"
#include "support/short_objects.h"
#include "support/syslog_capture.h"

VXTEST_HOOK(int, fchmod, (int fd, mode_t mode), (fd, mode))
VXTEST_HOOK_AS(int, fstat, "__fstat64_time64", (int fd, struct stat *status), (fd, status))
VXTEST_HOOK_AS(int, fstatat, "__fstatat64_time64", (int directory, const char *path, struct stat *status, int flags),
               (directory, path, status, flags))
VXTEST_HOOK_AS(int, fstatfs, "fstatfs64", (int fd, struct statfs *system), (fd, system))
VXTEST_HOOK(ssize_t, getdents64, (int fd, void *buffer, size_t size), (fd, buffer, size))
VXTEST_HOOK_AS(ssize_t, sendfile, "sendfile64", (int out, int in, off_t *offset, size_t count),
               (out, in, offset, count))
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

auto statusOfOpenRefusedAt(const std::string &which) {
    return [which](int fd, struct stat *) -> std::optional<int> {
        if (pathOf(fd) != which) return std::nullopt;
        errno = EIO;
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

// Runs `change` right after the library has looked at this path, so that what it saw is out of date.
auto changeAfterStatusOf(const std::string &which, std::function<void()> change) {
    return
        [which, change](int directory, const char *name, struct stat *status, int flags) mutable -> std::optional<int> {
            if (!change || (directory == AT_FDCWD ? name : pathOf(directory) + "/" + name) != which)
                return std::nullopt;
            const int result = vxtest::real::fstatat(directory, name, status, flags);
            std::exchange(change, nullptr)();
            return result;
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
using DirectoryDescriptors = Trees;

// Among them those that are opened again on the way up from a deep directory.
TEST_F(DirectoryDescriptors, NoneIsInheritedAcrossExec) {
    writeFile(path("source/file"), "x");
    ASSERT_EQ(::symlink("file", path("source/link").c_str()), 0);
    ASSERT_EQ(::symlink("source", path("top").c_str()), 0);
    (void)makeChain(path("source"), path("source").size() + 40, 1);
    const vxtest::ClosesOnExec closesOnExec;
    EXPECT_EQ(createDirectory(path("new/../new/below")), 0);
    EXPECT_EQ(copyDirectory(path("source"), path("copy")), 0);
    EXPECT_EQ(copyDirectory(path("top"), path("copy")), 0);
    EXPECT_EQ(delete_directory_contents(path("top").c_str()), 0);
    EXPECT_EQ(delete_directory(path("copy").c_str()), 0);
    EXPECT_EQ(delete_directory(path("tree").c_str()), 0);
}

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

// It is not known then whether the new directory is the one just made.
TEST_F(TryMkdirFaults, ANewDirectoryWhoseParentCannotBeExaminedIsReported) {
    const Hooked refused(hooks::fstatat, statusRefusedAt(dir + "/"));
    vxtest::SyslogCapture log;
    EXPECT_EQ(try_mkdir(path("new").c_str()), -1);
    EXPECT_EQ(errno, EIO);
    EXPECT_EQ(log.take(), (std::vector<LogLine>{{LOG_DEBUG, "Cannot create directory. chmod " + path("new") +
                                                                " throw errno=5, Input/output error"}}));
}

TEST_F(TryMkdirFaults, AnExistingEntryThatCannotBeExaminedIsReported) {
    const Hooked refused(hooks::fstatat, statusRefusedAt(dir));
    vxtest::SyslogCapture log;
    EXPECT_EQ(try_mkdir(dir.c_str()), -1);
    EXPECT_EQ(errno, EIO);
    EXPECT_EQ(log.take(), (std::vector<LogLine>{{LOG_ERR, "Unknown errno using lstat in create_directory for " + dir +
                                                              ". errno=5, Input/output error"}}));
}

using WithoutMemory = Trees;

// Makes the first allocation of a call fail, then the second one, and so on until the call succeeds.
void failsWithEnomemAtEachAllocation(const char *what, const std::function<int()> &call) {
    for (int allocations = 0;; ++allocations) {
        errno = 0;
        vxtest::objectsLeft = allocations;
        vxtest::objectsRunOut = true;
        const int result = call();
        const int error = errno;
        vxtest::objectsRunOut = false;
        if (result == 0) {
            EXPECT_GT(allocations, 0) << what;
            return;
        }
        ASSERT_EQ(result, -1) << what << ", allocation " << allocations;
        ASSERT_EQ(error, ENOMEM) << what << ", allocation " << allocations;
    }
}

TEST_F(WithoutMemory, EachCallFailsWithEnomem) {
    const std::string longName = path(std::string(200, 'n'));  // no string holds it without an allocation
    fs::rename(path("outside"), longName);
    const std::string link = path("link");
    fs::create_symlink(longName, link);
    const std::string linkToFile = path("file");
    fs::create_symlink(longName + "/kept", linkToFile);
    const std::string copy = path(std::string(200, 'c'));
    const std::string file = copy + "/again";
    failsWithEnomemAtEachAllocation("copy_directory", [&] { return copy_directory(longName.c_str(), copy.c_str()); });
    failsWithEnomemAtEachAllocation("copy_file from a link",
                                    [&] { return copy_file(linkToFile.c_str(), file.c_str()); });
    failsWithEnomemAtEachAllocation("copy_file to a link", [&] { return copy_file(file.c_str(), linkToFile.c_str()); });
    failsWithEnomemAtEachAllocation("delete_directory_contents", [&] {
        const int result = delete_directory_contents(link.c_str());
        return result == 0 && errno == ENOMEM ? -1 : result;  // a directory that cannot be opened is left as it is
    });
    EXPECT_EQ(readFile(file), "kept");
    EXPECT_TRUE(fs::is_empty(longName));
    failsWithEnomemAtEachAllocation("delete_directory", [&] { return delete_directory(copy.c_str()); });
    EXPECT_FALSE(exists(copy));
}

TEST_F(WithoutMemory, ADirectoryWhoseModeCannotBeSetIsReported) {
    const std::string name = path(std::string(200, 'n'));
    vxtest::SyslogCapture log;
    vxtest::objectsLeft = 0;
    vxtest::objectsRunOut = true;
    const int result = try_mkdir(name.c_str());
    vxtest::objectsRunOut = false;
    EXPECT_EQ(result, -1);
    EXPECT_EQ(errno, ENOMEM);
    EXPECT_EQ(log.take(), (std::vector<LogLine>{{LOG_DEBUG, "Cannot create directory. chmod " + name +
                                                                " throw errno=12, Cannot allocate memory"}}));
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

TEST_F(DeleteDirectoryFaults, NothingIsEmptiedThroughALinkThatCannotBeExamined) {
    fs::create_symlink("outside", path("link"));
    for (const std::string &which : {path("link"), dir}) {
        const Hooked refused(hooks::fstat, statusOfOpenRefusedAt(which));
        EXPECT_EQ(delete_directory_contents(path("link").c_str()), 0) << which;
        EXPECT_EQ(readFile(path("outside/kept")), "kept") << which;
    }
}

TEST_F(DeleteDirectoryFaults, WhatCannotBeListedToItsEndStays) {
    for (int i = 0; i < 40; ++i) writeFile(path("tree/sub/file" + std::to_string(i)), "");
    const Hooked cut(hooks::getdents64, listCutAt(path("tree/sub")));
    EXPECT_EQ(delete_directory(path("tree").c_str()), 0);
    EXPECT_EQ(empty_directory(path("tree/sub").c_str()), 0);
    EXPECT_FALSE(exists(path("tree/one")));
}

// What another process may put in a directory's place once it has been seen.
struct Replacement {
    const char *what;
    std::function<void()> put;
};

std::vector<Replacement> replacementsOf(const std::string &directory) {
    const auto away = [directory] { fs::rename(directory, dir + "/away"); };
    return {{"a link",
             [=] {
                 away();
                 fs::create_symlink(path("outside"), directory);
             }},
            {"a FIFO", [=] {
                 away();
                 EXPECT_EQ(::mkfifo(directory.c_str(), 0600), 0);
             }}};
}

TEST_F(DeleteDirectoryFaults, WhatHasTakenADirectorysPlaceIsRemovedAndNotEntered) {
    for (const auto &[what, put] : replacementsOf(path("tree/sub"))) {
        EXPECT_EQ(vxtest::inChild([&, put = put] {
                      ::alarm(20);
                      const Hooked changed(hooks::fstatat, changeAfterStatusOf(path("tree/sub"), put));
                      return delete_directory(path("tree").c_str());
                  }),
                  0)
            << what;
        EXPECT_FALSE(exists(path("tree"))) << what;
        EXPECT_EQ(readFile(path("outside/kept")), "kept") << what;
        EXPECT_EQ(readFile(path("away/deep/two")), "2") << what;
        fs::remove_all(path("away"));
        Trees::SetUp();
    }
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

// From now on the process cannot open anything.
void allowNoDescriptors() {
    const rlimit none{};
    EXPECT_EQ(::setrlimit(RLIMIT_NOFILE, &none), 0);
}

TEST_F(DeleteDirectoryFaults, ADirectoryThatCannotBeReachedAgainIsAFailure) {
    const std::string innermost = makeChain(path("tree"), path("tree").size() + 40, 1);
    EXPECT_EQ(vxtest::inChild([&] {
                  const Hooked last(hooks::getdents64, changeWhenListed(innermost, allowNoDescriptors));
                  return delete_directory(path("tree").c_str()) == -1 && errno == EMFILE ? 0 : 1;
              }),
              0);
    EXPECT_FALSE(exists(innermost));
    EXPECT_TRUE(exists(path("tree/d")));
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

// Copies into a FIFO whose reader leaves before the first byte, and returns whether SIGPIPE is pending or blocked then.
std::string signalsAfterTheReaderLeft() {
    const int reader = ::open(path("fifo").c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    const Hooked leaves(hooks::sendfile, [reader](const auto &...) -> std::optional<ssize_t> {
        ::close(reader);
        return std::nullopt;
    });
    if (copyFile(path("src"), path("fifo")) != -1 || errno != EPIPE) return "copied";
    sigset_t pending;
    sigset_t blocked;
    ::sigpending(&pending);
    ::pthread_sigmask(SIG_BLOCK, nullptr, &blocked);
    return std::string(sigismember(&pending, SIGPIPE) == 1 ? "pending " : "") +
           (sigismember(&blocked, SIGPIPE) == 1 ? "blocked" : "");
}

TEST_F(CopyFileFaults, AReaderThatLeavesDuringTheCopyIsAFailureWithoutASignal) {
    writeFile(path("src"), "x");
    ASSERT_EQ(::mkfifo(path("fifo").c_str(), 0600), 0);
    vxtest::SyslogCapture log;
    EXPECT_EQ(vxtest::inChild([] { return signalsAfterTheReaderLeft().empty() ? 0 : 1; }), 0);
    EXPECT_EQ(log.take(), (std::vector<LogLine>{{LOG_ERR, "Sendfile error: Broken pipe (32)"}}));
    // A thread that has blocked the signal waits for it itself.
    EXPECT_EQ(vxtest::inChild([] {
                  sigset_t pipe;
                  sigemptyset(&pipe);
                  sigaddset(&pipe, SIGPIPE);
                  ::pthread_sigmask(SIG_BLOCK, &pipe, nullptr);
                  return signalsAfterTheReaderLeft() == "pending blocked" ? 0 : 1;
              }),
              0);
}

// What cannot be looked at might be a stranger's: a link, the directory it is in, and what it leads to.
TEST_F(CopyFileFaults, NothingIsReadOrWrittenThroughWhatCannotBeExamined) {
    writeFile(path("src"), "new");
    writeFile(path("dst"), "old");
    fs::create_symlink("dst", path("link"));
    vxtest::SyslogCapture log;
    for (const std::string &which : {path("link"), dir, path("dst")}) {
        const Hooked refused(hooks::fstat, statusOfOpenRefusedAt(which));
        errno = 0;
        EXPECT_STREQ(readfile(path("link").c_str()), "") << which;
        EXPECT_EQ(errno, EIO) << which;
        errno = 0;
        EXPECT_EQ(copyFile(path("src"), path("link")), -1) << which;
        EXPECT_EQ(errno, EIO) << which;
        EXPECT_EQ(readFile(path("dst")), "old") << which;
    }
    const Hooked refused(hooks::fstat, statusOfOpenRefusedAt(path("dst")));
    EXPECT_STREQ(readfile(path("dst").c_str()), "");
    EXPECT_EQ(copyFile(path("src"), path("dst")), -1);
    EXPECT_EQ(readFile(path("dst")), "old");
    EXPECT_EQ(log.take().size(), 4u);
}

TEST_F(CopyFileFaults, WhatWasLookedAtBehindALinkIsReadThoughItsNameLeadsElsewhereByThen) {
    writeFile(path("value"), "seen");
    writeFile(path("other"), "not seen");
    fs::create_symlink("value", path("link"));
    bool swapped = false;
    const Hooked swap(hooks::fstat, [&](int fd, struct stat *status) -> std::optional<int> {
        if (swapped || pathOf(fd) != path("value")) return std::nullopt;
        swapped = true;
        const int result = vxtest::real::fstat(fd, status);
        fs::rename(path("other"), path("value"));
        return result;
    });
    EXPECT_STREQ(readfile(path("link").c_str()), "seen");
    EXPECT_TRUE(swapped);
}

// The kernel gives up what /proc/self shows of descriptors when the first thread ends.
TEST_F(CopyFileFaults, WhatWasLookedAtBehindALinkIsReadAlsoAfterTheFirstThreadHasEnded) {
    if (vxtest::emulated()) GTEST_SKIP() << "the emulator has no threads in children of processes with threads";
    writeFile(path("value"), "seen");
    writeFile(path("other"), "not seen");
    fs::create_symlink("value", path("link"));
    struct stat value {};
    ASSERT_EQ(::stat(path("value").c_str(), &value), 0);
    const auto read = [&] {
        bool swapped = false;
        const Hooked swap(hooks::fstat, [&](int fd, struct stat *status) -> std::optional<int> {
            const int result = vxtest::real::fstat(fd, status);
            if (swapped || result != 0 || status->st_ino != value.st_ino) return result;
            swapped = true;
            fs::rename(path("other"), path("value"));
            return result;
        });
        return readfile(path("link").c_str()) == std::string("seen") && swapped ? 0 : 1;
    };
    EXPECT_EQ(vxtest::inLaterThread(read), 0);
}

TEST_F(CopyFileFaults, AFileWithTwoNamesIsNotWrittenInADirectoryThatCannotBeExamined) {
    writeFile(path("src"), "new");
    writeFile(path("dst"), "old");
    fs::create_hard_link(path("dst"), path("name"));
    vxtest::SyslogCapture log;
    const Hooked refused(hooks::fstatat, statusRefusedAt(dir + "/"));
    EXPECT_EQ(copyFile(path("src"), path("dst")), -1);
    EXPECT_EQ(errno, EIO);
    EXPECT_EQ(readFile(path("dst")), "old");
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

// Whose directory it is decides whether it may be filled.
TEST_F(CopyDirectoryFaults, AnExistingDestinationThatCannotBeExaminedIsNotFilled) {
    vxtest::makeDirs(path("copy"));
    {
        const Hooked refused(hooks::fstat, statusOfOpenRefusedAt(path("copy")));
        EXPECT_EQ(copyDirectory(path("outside"), path("copy")), -1);
        EXPECT_EQ(errno, EIO);
    }
    const Hooked refused(hooks::fstatat, statusRefusedAt(path(".")));
    errno = 0;
    EXPECT_EQ(copyDirectory(path("outside"), path("copy")), -1);
    EXPECT_EQ(errno, EIO);
    EXPECT_TRUE(fs::is_empty(path("copy")));
}

TEST_F(CopyDirectoryFaults, EachLookAtTheDestinationCounts) {
    for (const bool existing : {false, true}) {
        bool refused = true;
        for (int passing = 0; refused; ++passing) {
            ASSERT_LT(passing, 10);
            fs::remove_all(path("copy"));
            if (existing) vxtest::makeDirs(path("copy"));
            int left = passing;
            refused = false;
            const Hooked hooked(hooks::fstat, [&](int fd, struct stat *) -> std::optional<int> {
                if (refused || pathOf(fd) != path("copy") || left-- > 0) return std::nullopt;
                refused = true;
                errno = EIO;
                return -1;
            });
            const int result = copyDirectory(path("outside"), path("copy"));
            if (!refused) continue;
            EXPECT_EQ(errno, EIO) << passing;
            EXPECT_EQ(result, -1) << passing;
            EXPECT_TRUE(fs::is_empty(path("copy"))) << passing;
        }
        EXPECT_EQ(readFile(path("copy/kept")), "kept");
    }
}

// Whether it is inside the source is not known then.
TEST_F(CopyDirectoryFaults, WhereTheDestinationCannotBeExaminedNothingIsMade) {
    for (const char *copy : {"tree/sub/in", "tree/sub/deep"}) {
        const std::string examined = path(exists(path(copy)) ? copy : "tree/sub");
        const Hooked refused(hooks::fstat, statusOfOpenRefusedAt(examined));
        EXPECT_EQ(copyDirectory(path("tree"), path(copy)), -1) << copy;
        EXPECT_EQ(errno, EIO) << copy;
    }
    EXPECT_FALSE(exists(path("tree/sub/in")));
    EXPECT_FALSE(exists(path("tree/sub/deep/one")));
    const Hooked refused(hooks::fstat, statusOfOpenRefusedAt(path("tree")));
    EXPECT_EQ(copyDirectory(path("tree"), path("copy")), -1);
    EXPECT_EQ(errno, EIO);
    EXPECT_FALSE(exists(path("copy")));
}

TEST_F(CopyDirectoryFaults, StopsAtAnEntryThatCannotBeExamined) {
    const Hooked refused(hooks::fstatat, statusRefusedAt(path("outside/kept")));
    EXPECT_EQ(copyDirectory(path("outside"), path("copy")), -1);
    EXPECT_EQ(errno, EIO);
    EXPECT_TRUE(fs::is_empty(path("copy")));
}

TEST_F(CopyDirectoryFaults, WhatHasTakenADirectorysPlaceIsNotCopied) {
    for (const auto &[what, put] : replacementsOf(path("small/sub"))) {
        fs::remove_all(path("small"));
        fs::remove_all(path("copy"));
        fs::remove_all(path("away"));
        writeFile(path("small/sub/file"), "x");
        EXPECT_EQ(vxtest::inChild([&, put = put] {
                      ::alarm(20);
                      const Hooked changed(hooks::fstatat, changeAfterStatusOf(path("small/sub"), put));
                      return copyDirectory(path("small"), path("copy")) == -1 && errno == ENOTDIR ? 0 : 1;
                  }),
                  0)
            << what;
        EXPECT_TRUE(fs::is_empty(path("copy/sub"))) << what;
    }
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

TEST_F(CopyDirectoryFaults, ADirectoryThatCannotBeReachedAgainIsAFailure) {
    vxtest::makeDirs(path("small"));
    const std::string innermost = makeChain(path("small"), path("small").size() + 40, 1);
    EXPECT_EQ(vxtest::inChild([&] {
                  const Hooked last(hooks::getdents64, changeWhenListed(innermost, allowNoDescriptors));
                  return copyDirectory(path("small"), path("copy")) == -1 && errno == EMFILE ? 0 : 1;
              }),
              0);
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
