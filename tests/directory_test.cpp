// SPDX-License-Identifier: MIT
// Directories: made, emptied, removed, copied.
#include <fcntl.h>
#include <pthread.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/sysmacros.h>
#include <syslog.h>
#include <unistd.h>
#include <vxutils/file.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <functional>
#include <string>
#include <utility>

#include "support/files.h"
#include "support/process.h"
#include "support/resources.h"
#include "support/stranger.h"
#include "support/syslog_capture.h"

// Answers of the kernel that no file system gives at will, and a lack of memory for copies of texts: the library's
// calls of these functions come here.
namespace {
struct Broken {
    std::string chmod;                  // the path where it fails
    std::string lstat;                  // the same
    std::string list;                   // the same, after the first entries
    std::string watched;                // the path of a directory that something happens to
    std::function<void()> whenWatched;  // called when its entries are read
    bool fstat = false;
    bool strdup = false;
} broken;

int failWith(int error) {
    errno = error;
    return -1;
}

std::string pathOf(int fd) {
    char text[4096];
    const ssize_t length = ::readlink(("/proc/self/fd/" + std::to_string(fd)).c_str(), text, sizeof text);
    return {text, length > 0 ? static_cast<size_t>(length) : 0};
}

int statusOf(int directory, const char *path, struct stat *status, int flags) {
    struct statx found {};
    if (::statx(directory, path, flags, STATX_BASIC_STATS, &found) == -1) return -1;
    *status = {};
    status->st_mode = found.stx_mode;
    status->st_uid = found.stx_uid;
    status->st_gid = found.stx_gid;
    status->st_nlink = found.stx_nlink;
    status->st_ino = found.stx_ino;
    status->st_dev = ::makedev(found.stx_dev_major, found.stx_dev_minor);
    status->st_size = static_cast<off_t>(found.stx_size);
    return 0;
}
}  // namespace
extern "C" int fchmod(int fd, mode_t mode) noexcept {
    if (!broken.chmod.empty() && pathOf(fd) == broken.chmod) return failWith(EPERM);
    return ::chmod(("/proc/self/fd/" + std::to_string(fd)).c_str(), mode);
}
extern "C" int fstatat(int directory, const char *path, struct stat *status, int flags) noexcept {
    const std::string whole = directory == AT_FDCWD ? path : pathOf(directory) + "/" + path;
    return whole == broken.lstat ? failWith(EIO) : statusOf(directory, path, status, flags);
}
extern "C" int fstat(int fd, struct stat *status) noexcept {
    return broken.fstat ? failWith(EIO) : statusOf(fd, "", status, AT_EMPTY_PATH);
}
extern "C" ssize_t getdents64(int fd, void *buffer, size_t size) noexcept {
    if (broken.whenWatched && pathOf(fd) == broken.watched) std::exchange(broken.whenWatched, nullptr)();
    const bool fails = !broken.list.empty() && pathOf(fd) == broken.list;
    // A few entries at a time, and none after the first few.
    if (fails && ::lseek(fd, 0, SEEK_CUR) != 0) return failWith(EIO);
    return ::syscall(SYS_getdents64, fd, buffer, fails ? 128 : size);
}
extern "C" char *strdup(const char *text) noexcept {
    auto *copy = static_cast<char *>(broken.strdup ? nullptr : std::malloc(std::strlen(text) + 1));
    return copy != nullptr ? std::strcpy(copy, text) : nullptr;
}

namespace {

namespace fs = std::filesystem;
using vxtest::exists;
using vxtest::LogLine;
using vxtest::readFile;
using vxtest::writeFile;

const std::string dir = "/tmp/directory";

#ifdef __SANITIZE_ADDRESS__
constexpr size_t smallStack = 512 * 1024;  // its frames are larger
#else
constexpr size_t smallStack = 64 * 1024;
#endif

std::string path(const std::string &name) { return dir + "/" + name; }

mode_t modeOf(const std::string &name) {
    struct stat status {};
    return ::lstat(name.c_str(), &status) == 0 ? status.st_mode & 07777 : 0;
}

int createDirectory(std::string name) { return create_directory(name.data()); }

class Directories : public testing::Test {
protected:
    void SetUp() override {
        ::umask(022);
        fs::remove_all(dir);
        vxtest::makeDirs(dir);
    }
    void TearDown() override { broken = {}; }

    vxtest::NoLeaks noLeaks_;
};

// A chain of directories below `top` whose innermost path is as near to `length` bytes as names of `step` bytes go, not
// longer. Made step by step, because a whole path would be too long for the kernel.
std::string makeChain(const std::string &top, size_t length, size_t step) {
    std::string innermost = top;
    const std::string name(step, 'd');
    const int here = ::open(".", O_PATH | O_DIRECTORY | O_CLOEXEC);
    EXPECT_EQ(::chdir(top.c_str()), 0);
    while (innermost.size() + 1 + step <= length) {
        EXPECT_EQ(::mkdir(name.c_str(), 0755), 0);
        EXPECT_EQ(::chdir(name.c_str()), 0);
        innermost += "/" + name;
    }
    EXPECT_EQ(::fchdir(here), 0);
    ::close(here);
    return innermost;
}

// Runs a function in a thread of 64 KiB of stack, as daemons with many threads have them.
void onASmallStack(std::function<void()> function) {
    pthread_attr_t attributes;
    ASSERT_EQ(::pthread_attr_init(&attributes), 0);
    ASSERT_EQ(::pthread_attr_setstacksize(&attributes, smallStack), 0);
    pthread_t thread;
    const auto run = [](void *argument) -> void * {
        (*static_cast<std::function<void()> *>(argument))();
        return nullptr;
    };
    ASSERT_EQ(::pthread_create(&thread, &attributes, run, &function), 0);
    ASSERT_EQ(::pthread_join(thread, nullptr), 0);
    ::pthread_attr_destroy(&attributes);
}

// ---- try_mkdir, create_directory ----

using TryMkdir = Directories;

TEST_F(TryMkdir, MakesADirectoryThatNoUserMayWrite) {
    vxtest::SyslogCapture log;
    EXPECT_EQ(try_mkdir(path("new").c_str()), 0);
    EXPECT_EQ(modeOf(path("new")), 0555u);
    EXPECT_TRUE(log.take().empty());
}

TEST_F(TryMkdir, LeavesAnExistingDirectoryAsItIs) {
    ASSERT_EQ(::mkdir(path("old").c_str(), 0700), 0);
    EXPECT_EQ(try_mkdir(path("old").c_str()), 0);
    EXPECT_EQ(modeOf(path("old")), 0700u);
}

TEST_F(TryMkdir, AnyLinkCountsAsADirectory) {
    ASSERT_EQ(::symlink("nowhere", path("link").c_str()), 0);
    EXPECT_EQ(try_mkdir(path("link").c_str()), 0);
    EXPECT_FALSE(exists(path("nowhere")));
}

TEST_F(TryMkdir, AFileInThePlaceIsReported) {
    writeFile(path("file"), "x");
    vxtest::SyslogCapture log;
    EXPECT_EQ(try_mkdir(path("file").c_str()), -1);
    EXPECT_EQ(log.take(),
              (std::vector<LogLine>{{LOG_ERR, "Cannot create directory. " + path("file") +
                                                  " exists and it is neither a directory nor a symbolic link"}}));
}

TEST_F(TryMkdir, AFailureOfTheKernelIsReported) {
    vxtest::SyslogCapture log;
    EXPECT_EQ(try_mkdir(path("none/new").c_str()), -1);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(log.take(), (std::vector<LogLine>{{LOG_ERR, "Cannot create directory. mkdir " + path("none/new") +
                                                              " throw errno=2, No such file or directory"}}));
    EXPECT_EQ(try_mkdir(""), -1);
    EXPECT_EQ(
        log.take(),
        (std::vector<LogLine>{{LOG_ERR, "Cannot create directory. mkdir  throw errno=2, No such file or directory"}}));
    EXPECT_EQ(try_mkdir(nullptr), -1);
    EXPECT_EQ(errno, EINVAL);
}

TEST_F(TryMkdir, AModeThatCannotBeSetIsReportedAndTheDirectoryStaysAsItWasMade) {
    ::umask(0);
    broken.chmod = path("new");
    vxtest::SyslogCapture log;
    EXPECT_EQ(try_mkdir(path("new").c_str()), -1);
    ::umask(022);
    EXPECT_EQ(errno, EPERM);
    EXPECT_EQ(log.take(), (std::vector<LogLine>{{LOG_DEBUG, "Cannot create directory. chmod " + path("new") +
                                                                " throw errno=1, Operation not permitted"}}));
    EXPECT_EQ(modeOf(path("new")), 0x755u & 01777u) << "mkdir() ignores the set-user-id and set-group-id bits";
}

TEST_F(TryMkdir, AnExistingEntryThatCannotBeExaminedIsReported) {
    broken.lstat = dir;
    vxtest::SyslogCapture log;
    EXPECT_EQ(try_mkdir(dir.c_str()), -1);
    EXPECT_EQ(errno, EIO);
    EXPECT_EQ(log.take(), (std::vector<LogLine>{{LOG_ERR, "Unknown errno using lstat in create_directory for " + dir +
                                                              ". errno=5, Input/output error"}}));
}

using CreateDirectory = Directories;

TEST_F(CreateDirectory, MakesAllMissingOnes) {
    EXPECT_EQ(createDirectory(path("a/b/c")), 0);
    for (const char *name : {"a", "a/b", "a/b/c"}) EXPECT_EQ(modeOf(path(name)), 0555u) << name;
    EXPECT_EQ(createDirectory(path("a/b/c/d/")), 0);
    EXPECT_TRUE(exists(path("a/b/c/d")));
    EXPECT_EQ(createDirectory(path("a//b")), 0);
}

TEST_F(CreateDirectory, DoesNotChangeItsArgument) {
    char name[] = "/tmp/directory/x/y/";
    EXPECT_EQ(create_directory(name), 0);
    EXPECT_STREQ(name, "/tmp/directory/x/y/");
}

TEST_F(CreateDirectory, TakesRelativePaths) {
    EXPECT_EQ(vxtest::inChild([] {
                  if (::chdir(dir.c_str()) != 0) return 1;
                  return createDirectory("r/s/t/");
              }),
              0);
    EXPECT_EQ(modeOf(path("r/s/t")), 0555u);
}

TEST_F(CreateDirectory, TheRootAndTheCurrentDirectoryAreThere) {
    vxtest::SyslogCapture log;
    EXPECT_EQ(createDirectory("/"), 0);
    EXPECT_EQ(createDirectory("."), 0);
    EXPECT_EQ(createDirectory("//"), 0);
    EXPECT_EQ(createDirectory("./"), 0);
    EXPECT_TRUE(log.take().empty());
}

TEST_F(CreateDirectory, StopsAtTheFirstFailure) {
    writeFile(path("file"), "x");
    vxtest::SyslogCapture log;
    EXPECT_EQ(createDirectory(path("file/sub/deep")), -1);
    EXPECT_EQ(log.take(),
              (std::vector<LogLine>{{LOG_ERR, "Cannot create directory. " + path("file") +
                                                  " exists and it is neither a directory nor a symbolic link"}}));
}

TEST_F(CreateDirectory, WithoutMemoryNothingIsMade) {
    vxtest::SyslogCapture log;
    broken.strdup = true;
    EXPECT_EQ(createDirectory(path("new")), -1);
    EXPECT_FALSE(exists(path("new")));
    EXPECT_TRUE(log.take().empty());
}

TEST_F(CreateDirectory, WrongUseIsReported) {
    vxtest::SyslogCapture log;
    EXPECT_EQ(create_directory(nullptr), -1);
    EXPECT_EQ(createDirectory(""), -1);
    EXPECT_EQ(log.take(), (std::vector<LogLine>{{LOG_ERR, "Wrong use of create_directory. the parameter is NULL"},
                                                {LOG_ERR, "Wrong use of create_directory. the parameter is empty"}}));
}

// ---- delete_regular_file ----

using DeleteRegularFile = Directories;

TEST_F(DeleteRegularFile, RemovesARegularFileAndNothingElse) {
    writeFile(path("file"), "x");
    ASSERT_EQ(::symlink("file", path("link").c_str()), 0);
    EXPECT_EQ(delete_regular_file(path("link").c_str()), -1);
    EXPECT_EQ(delete_regular_file(dir.c_str()), -1);
    EXPECT_EQ(delete_regular_file(path("file").c_str()), 0);
    EXPECT_FALSE(exists(path("file")));
    EXPECT_TRUE(exists(path("link")));
}

TEST_F(DeleteRegularFile, NothingToDeleteIsSuccess) {
    EXPECT_EQ(delete_regular_file(path("none").c_str()), 0);
    EXPECT_EQ(delete_regular_file(path("none/none").c_str()), 0);
    EXPECT_EQ(delete_regular_file(""), 0);
    EXPECT_EQ(delete_regular_file(nullptr), 0);
}

// ---- delete_directory, delete_directory_contents ----

class DeleteDirectory : public Directories {
protected:
    // A tree with every kind of entry, and beside it a directory that only a link points to.
    void SetUp() override {
        Directories::SetUp();
        writeFile(path("tree/one"), "1");
        writeFile(path("tree/sub/deep/two"), "2");
        vxtest::makeDirs(path("tree/empty"));
        ASSERT_EQ(::mkfifo(path("tree/sub/fifo").c_str(), 0600), 0);
        writeFile(path("outside/kept"), "kept");
        ASSERT_EQ(::symlink("../outside", path("tree/link").c_str()), 0);
        ASSERT_EQ(::symlink("nowhere", path("tree/dangling").c_str()), 0);
    }
};

TEST_F(DeleteDirectory, RemovesTheWholeTreeAndFollowsNoLinkInIt) {
    EXPECT_EQ(delete_directory(path("tree").c_str()), 0);
    EXPECT_FALSE(exists(path("tree")));
    EXPECT_EQ(readFile(path("outside/kept")), "kept");
}

TEST_F(DeleteDirectory, ContentsKeepsTheDirectory) {
    EXPECT_EQ(delete_directory_contents(path("tree").c_str()), 0);
    EXPECT_EQ(empty_directory(path("tree").c_str()), 1);
    EXPECT_TRUE(exists(path("tree")));
    EXPECT_EQ(readFile(path("outside/kept")), "kept");
}

TEST_F(DeleteDirectory, ALinkGivenAsThePathIsRemovedAndNotFollowed) {
    for (const char *slashes : {"", "/", "//"}) {
        ::unlink(path("tree/link").c_str());
        ASSERT_EQ(::symlink("../outside", path("tree/link").c_str()), 0);
        EXPECT_EQ(delete_directory((path("tree/link") + slashes).c_str()), 0);
        EXPECT_FALSE(exists(path("tree/link")));
        EXPECT_EQ(readFile(path("outside/kept")), "kept");
    }
}

TEST_F(DeleteDirectory, SlashesAfterThePathDoNotMatter) {
    EXPECT_EQ(delete_directory((path("tree") + "//").c_str()), 0);
    EXPECT_FALSE(exists(path("tree")));
}

TEST_F(DeleteDirectory, ContentsFollowsALinkThatWasPlacedByTheOwnUser) {
    ASSERT_EQ(::symlink("link", path("tree/chain").c_str()), 0);
    EXPECT_EQ(delete_directory_contents(path("tree/chain").c_str()), 0);
    EXPECT_TRUE(exists(path("tree/chain")));
    EXPECT_TRUE(exists(path("tree/link")));
    EXPECT_TRUE(exists(path("outside")));
    EXPECT_FALSE(exists(path("outside/kept")));
    EXPECT_EQ(delete_directory_contents(path("tree/dangling").c_str()), 0);
    ASSERT_EQ(::symlink("loop", path("tree/loop").c_str()), 0);
    EXPECT_EQ(delete_directory_contents(path("tree/loop").c_str()), 0);
}

TEST_F(DeleteDirectory, RemovesAFile) {
    EXPECT_EQ(delete_directory(path("tree/one").c_str()), 0);
    EXPECT_FALSE(exists(path("tree/one")));
    EXPECT_EQ(delete_directory(path("none").c_str()), 0);
}

TEST_F(DeleteDirectory, ContentsLeavesAFileAlone) {
    EXPECT_EQ(delete_directory_contents(path("tree/one").c_str()), 0);
    EXPECT_TRUE(exists(path("tree/one")));
    EXPECT_EQ(delete_directory_contents(path("none").c_str()), 0);
    EXPECT_EQ(delete_directory_contents(""), 0);
    EXPECT_EQ(delete_directory_contents(nullptr), 0);
}

TEST_F(DeleteDirectory, RefusesNullAndEmpty) {
    EXPECT_EQ(delete_directory(nullptr), -1);
    EXPECT_EQ(delete_directory(""), -1);
}

TEST_F(DeleteDirectory, PassesOverWhatCannotBeRemoved) {
    const std::string busy = path("tree/sub/deep");
    ASSERT_EQ(::mount("tmpfs", busy.c_str(), "tmpfs", 0, nullptr), 0);
    EXPECT_EQ(delete_directory(path("tree").c_str()), 0);
    EXPECT_TRUE(exists(busy));
    EXPECT_FALSE(exists(path("tree/one")));
    EXPECT_FALSE(exists(path("tree/sub/fifo")));
    ASSERT_EQ(::umount(busy.c_str()), 0);
    EXPECT_EQ(delete_directory(path("tree").c_str()), 0);
    EXPECT_FALSE(exists(path("tree")));
}

TEST_F(DeleteDirectory, StopsAtAnEntryThatCannotBeExamined) {
    fs::remove_all(path("tree"));
    vxtest::makeDirs(path("tree"));
    writeFile(path("tree/entry"), "x");
    broken.lstat = path("tree/entry");
    EXPECT_EQ(delete_directory(path("tree").c_str()), -1);
    EXPECT_EQ(delete_directory_contents(path("tree").c_str()), -1);
    EXPECT_EQ(errno, EIO);
    EXPECT_EQ(readFile(path("tree/entry")), "x");
    // One level down it counts as an entry that cannot be removed.
    EXPECT_EQ(delete_directory(dir.c_str()), 0);
    EXPECT_EQ(readFile(path("tree/entry")), "x");
    EXPECT_FALSE(exists(path("outside")));
}

TEST_F(DeleteDirectory, GoesDeeperThanThereAreDescriptors) {
    makeChain(path("tree"), 3000, 1);
    EXPECT_EQ(vxtest::inChild([] {
                  const rlimit few{64, 64};
                  if (::setrlimit(RLIMIT_NOFILE, &few) != 0) return 100;
                  return delete_directory(path("tree").c_str());
              }),
              0);
    EXPECT_FALSE(exists(path("tree")));
}

TEST_F(DeleteDirectory, GoesDeeperThanAPathIsLong) {
    for (const size_t length : {4095, 4096, 4097, 9000}) {
        const std::string innermost = makeChain(path("tree"), length, 250);
        EXPECT_EQ(delete_directory(path("tree").c_str()), 0);
        EXPECT_FALSE(exists(path("tree"))) << length;
        vxtest::makeDirs(path("tree"));
    }
}

TEST_F(DeleteDirectory, NeedsNoStackForDeepTrees) {
    makeChain(path("tree"), 4000, 1);
    int result = -1;
    onASmallStack([&] { result = delete_directory_contents(path("tree").c_str()); });
    EXPECT_EQ(result, 0);
    EXPECT_EQ(empty_directory(path("tree").c_str()), 1);
}

TEST_F(DeleteDirectory, RemovesManyEntries) {
    for (int i = 0; i < 2000; ++i) writeFile(path("many/" + std::string(200, 'n') + std::to_string(i)), "");
    EXPECT_EQ(delete_directory(path("many").c_str()), 0);
    EXPECT_FALSE(exists(path("many")));
}

TEST_F(DeleteDirectory, WhatCannotBeListedToItsEndStays) {
    for (int i = 0; i < 40; ++i) writeFile(path("tree/sub/file" + std::to_string(i)), "");
    broken.list = path("tree/sub");
    EXPECT_EQ(delete_directory(path("tree").c_str()), 0);
    EXPECT_EQ(empty_directory(path("tree/sub").c_str()), 0);
    EXPECT_FALSE(exists(path("tree/one")));
}

TEST_F(DeleteDirectory, AnUnsearchableDirectoryDoesNotKeepItsNeighbours) {
    if (!vxtest::hasOtherUsers()) GTEST_SKIP() << "a box made by an ordinary user has no other";
    for (const char *name : {"a", "b", "c"}) writeFile(path("tree/") + name + "/file", "");
    vxtest::giveTo(vxtest::stranger, dir);
    ASSERT_EQ(::chmod(path("tree/b").c_str(), 0400), 0);
    EXPECT_EQ(vxtest::asUser(vxtest::stranger, [] { return delete_directory(path("tree").c_str()); }), 0);
    EXPECT_TRUE(exists(path("tree/b/file")));
    EXPECT_FALSE(exists(path("tree/a")));
    EXPECT_FALSE(exists(path("tree/c")));
    EXPECT_FALSE(exists(path("tree/sub")));
}

// The way back up is "..", which leads elsewhere once a directory has been moved.
TEST_F(DeleteDirectory, DoesNotGoOnWhereADirectoryWasMovedTo) {
    vxtest::makeDirs(path("tree/a"));
    broken.watched = makeChain(path("tree/a"), path("tree/a").size() + 40, 1);
    broken.whenWatched = [] { EXPECT_EQ(::rename(path("tree/a").c_str(), path("outside/a").c_str()), 0); };
    for (char name = 'b'; name <= 'z'; ++name) {
        for (const char *where : {"tree/", "outside/"}) writeFile(path(where) + name, "");
    }
    EXPECT_EQ(delete_directory(path("tree").c_str()), -1);
    EXPECT_EQ(errno, ESTALE);
    for (char name = 'b'; name <= 'z'; ++name) EXPECT_TRUE(exists(path("outside/") + name)) << name;
}

// ---- empty_directory ----

using EmptyDirectory = Directories;

TEST_F(EmptyDirectory, TellsEmptyFromFull) {
    EXPECT_EQ(empty_directory(dir.c_str()), 1);
    writeFile(path(".hidden"), "");
    EXPECT_EQ(empty_directory(dir.c_str()), 0);
    EXPECT_EQ(empty_directory(path("none").c_str()), 1);
    EXPECT_EQ(empty_directory(path(".hidden").c_str()), 1);
    EXPECT_EQ(empty_directory(""), -1);
    EXPECT_EQ(empty_directory(nullptr), -1);
}

// ---- copy_file ----

using CopyFile = Directories;

int copyFile(const std::string &src, const std::string &dst) { return copy_file(src.c_str(), dst.c_str()); }

TEST_F(CopyFile, CopiesContentAndMode) {
    const std::string content(300000, 'c');
    writeFile(path("src"), content);
    ::chmod(path("src").c_str(), 01751);
    vxtest::SyslogCapture log;
    EXPECT_EQ(copyFile(path("src"), path("dst")), 0);
    EXPECT_EQ(readFile(path("dst")), content);
    EXPECT_EQ(modeOf(path("dst")), 01751u);
    EXPECT_TRUE(log.take().empty());
}

TEST_F(CopyFile, ReplacesTheContentOfAnExistingFileAndKeepsItsMode) {
    writeFile(path("src"), "new");
    writeFile(path("dst"), "old and longer");
    ::chmod(path("dst").c_str(), 0640);
    EXPECT_EQ(copyFile(path("src"), path("dst")), 0);
    EXPECT_EQ(readFile(path("dst")), "new");
    EXPECT_EQ(modeOf(path("dst")), 0640u);
}

TEST_F(CopyFile, CopiesAnEmptyFile) {
    writeFile(path("src"), "");
    EXPECT_EQ(copyFile(path("src"), path("dst")), 0);
    EXPECT_TRUE(exists(path("dst")));
    EXPECT_EQ(copyFile("/proc/self/status", path("sizeless")), 0);
    EXPECT_EQ(readFile(path("sizeless")), "");
}

TEST_F(CopyFile, MakesTheFolderOfTheDestination) {
    writeFile(path("src"), "x");
    EXPECT_EQ(copyFile(path("src"), path("a/b/dst")), 0);
    EXPECT_EQ(readFile(path("a/b/dst")), "x");
    EXPECT_EQ(modeOf(path("a/b")), 0555u);
}

TEST_F(CopyFile, CopiesIntoTheCurrentDirectory) {
    writeFile(path("src"), "x");
    EXPECT_EQ(vxtest::inChild([] { return ::chdir(dir.c_str()) == 0 ? copyFile("src", "plain") : 1; }), 0);
    EXPECT_EQ(readFile(path("plain")), "x");
}

TEST_F(CopyFile, MissingNamesAreReported) {
    vxtest::SyslogCapture log;
    EXPECT_EQ(copy_file(nullptr, "x"), -1);
    EXPECT_EQ(copy_file("", nullptr), -1);
    EXPECT_EQ(copy_file("x", nullptr), -1);
    EXPECT_EQ(copy_file("x", ""), -1);
    EXPECT_EQ(log.take(), (std::vector<LogLine>{{LOG_ERR, "Invalid source file name"},
                                                {LOG_ERR, "Invalid source file name"},
                                                {LOG_ERR, "Invalid destination file name"},
                                                {LOG_ERR, "Invalid destination file name"}}));
}

TEST_F(CopyFile, EachFailureIsReported) {
    writeFile(path("src"), "x");
    writeFile(path("file"), "y");
    ASSERT_EQ(::symlink(".", path("link").c_str()), 0);
    vxtest::SyslogCapture log;
    EXPECT_EQ(copyFile(path("none"), path("dst")), -1);
    EXPECT_EQ(copyFile(path("src"), path("file/dst")), -1);
    EXPECT_EQ(copyFile(path("src"), path("link/dst")), -1);
    EXPECT_EQ(copyFile(path("src"), path("file/sub/dst")), -1);
    EXPECT_EQ(copyFile(path("src"), dir), -1);
    EXPECT_EQ(copyFile(dir, path("copied")), -1);
    EXPECT_EQ(log.take(),
              (std::vector<LogLine>{
                  {LOG_ERR, "Source file " + path("none") + " could not be opened: No such file or directory (2)"},
                  {LOG_ERR, path("file") + " is not a folder"},
                  {LOG_ERR, path("link") + " is not a folder"},
                  {LOG_ERR, "Can't read folder " + path("file/sub") + " stats: Not a directory (20)"},
                  {LOG_ERR, "Destination file " + dir + " could not be opened: Is a directory (21)"},
                  {LOG_ERR, "Sendfile error: Invalid argument (22)"}}));
}

TEST_F(CopyFile, ASourceThatCannotBeExaminedIsReported) {
    writeFile(path("src"), "x");
    broken.fstat = true;
    vxtest::SyslogCapture log;
    EXPECT_EQ(copyFile(path("src"), path("dst")), -1);
    broken.fstat = false;
    EXPECT_EQ(errno, EIO);
    EXPECT_EQ(log.take(), (std::vector<LogLine>{{LOG_ERR, "Can't read file stats: Input/output error (5)"}}));
    EXPECT_FALSE(exists(path("dst")));
}

TEST_F(CopyFile, WithoutMemoryForTheFoldersNameItFails) {
    writeFile(path("src"), "x");
    broken.strdup = true;
    EXPECT_EQ(copyFile(path("src"), path("dst")), -1);
    EXPECT_FALSE(exists(path("dst")));
}

TEST_F(CopyFile, AFolderThatCannotBeMadeIsReported) {
    writeFile(path("src"), "x");
    const std::string disk = path("disk");
    vxtest::makeDirs(disk);
    ASSERT_EQ(::mount("tmpfs", disk.c_str(), "tmpfs", MS_RDONLY, nullptr), 0);
    vxtest::SyslogCapture log;
    EXPECT_EQ(copyFile(path("src"), disk + "/a/dst"), -1);
    EXPECT_EQ(log.take(),
              (std::vector<LogLine>{
                  {LOG_ERR, "Cannot create directory. mkdir " + disk + "/a throw errno=30, Read-only file system"},
                  {LOG_ERR, "Can't create folder " + disk + "/a: Read-only file system (30)"}}));
    ASSERT_EQ(::umount(disk.c_str()), 0);
}

TEST_F(CopyFile, AFullFileSystemIsReported) {
    const std::string disk = path("disk");
    vxtest::makeDirs(disk);
    ASSERT_EQ(::mount("tmpfs", disk.c_str(), "tmpfs", 0, "size=4k"), 0);
    writeFile(disk + "/filler", std::string(4096, 'f'));
    writeFile(path("src"), "x");
    vxtest::SyslogCapture log;
    EXPECT_EQ(copyFile(path("src"), disk + "/dst"), -1);
    EXPECT_EQ(errno, ENOSPC);
    EXPECT_EQ(log.take(), (std::vector<LogLine>{{LOG_ERR, "Sendfile error: No space left on device (28)"}}));
    ASSERT_EQ(::umount(disk.c_str()), 0);
}

TEST_F(CopyFile, APartialTransferCountsAsCopied) {
    writeFile(path("src"), "longer");
    EXPECT_EQ(vxtest::inChild([] {
                  std::signal(SIGXFSZ, SIG_IGN);
                  const rlimit size{4, 4};
                  if (::setrlimit(RLIMIT_FSIZE, &size) != 0) return 100;
                  return copyFile(path("src"), path("dst"));
              }),
              0);
    EXPECT_EQ(readFile(path("dst")), "long");
}

TEST_F(CopyFile, OntoItselfChangesNothing) {
    writeFile(path("file"), "content");
    ASSERT_EQ(::symlink("file", path("symbolic").c_str()), 0);
    ASSERT_EQ(::link(path("file").c_str(), path("hard").c_str()), 0);
    vxtest::SyslogCapture log;
    for (const char *src : {"file", "symbolic", "hard", "../directory/file"}) {
        for (const char *dst : {"file", "symbolic", "hard", "../directory/file"}) {
            EXPECT_EQ(copyFile(path(src), path(dst)), 0) << src << " " << dst;
            EXPECT_EQ(readFile(path("file")), "content");
        }
    }
    EXPECT_TRUE(log.take().empty());
}

TEST_F(CopyFile, AFifoIsNotWaitedFor) {
    ASSERT_EQ(::mkfifo(path("fifo").c_str(), 0600), 0);
    writeFile(path("src"), "x");
    vxtest::SyslogCapture log;
    EXPECT_EQ(vxtest::inChild([] {
                  ::alarm(20);
                  if (copyFile(path("fifo"), path("dst")) != -1 || errno != EINVAL) return 1;
                  return copyFile(path("src"), path("fifo")) == -1 && errno == ENXIO ? 0 : 2;
              }),
              0);
    EXPECT_FALSE(exists(path("dst")));
    EXPECT_EQ(log.take(), (std::vector<LogLine>{{LOG_ERR, "Sendfile error: Invalid argument (22)"},
                                                {LOG_ERR, "Destination file " + path("fifo") +
                                                              " could not be opened: No such device or address (6)"}}));
    const int reader = ::open(path("fifo").c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    EXPECT_EQ(copyFile(path("src"), path("fifo")), 0);
    char got = 0;
    EXPECT_EQ(::read(reader, &got, 1), 1);
    EXPECT_EQ(got, 'x');
    ::close(reader);
}

TEST_F(CopyFile, AnotherUsersSetIdBitsAreNotCopied) {
    if (!vxtest::hasOtherUsers()) GTEST_SKIP() << "a box made by an ordinary user has no other";
    writeFile(path("src"), "#!/bin/sh\n");
    ASSERT_EQ(::chmod(path("src").c_str(), 06755), 0);
    EXPECT_EQ(copyFile(path("src"), path("own")), 0);
    EXPECT_EQ(modeOf(path("own")), 06755u);
    ASSERT_EQ(::chown(path("src").c_str(), 12345, 0), 0);
    ASSERT_EQ(::chmod(path("src").c_str(), 06755), 0);
    EXPECT_EQ(copyFile(path("src"), path("users")), 0);
    EXPECT_EQ(modeOf(path("users")), 02755u);
    ASSERT_EQ(::chown(path("src").c_str(), 12345, 12345), 0);
    ASSERT_EQ(::chmod(path("src").c_str(), 06755), 0);
    EXPECT_EQ(copyFile(path("src"), path("groups")), 0);
    EXPECT_EQ(modeOf(path("groups")), 0755u);
}

TEST_F(CopyFile, WritesThroughLinksOfItsOwnUser) {
    writeFile(path("src"), "new");
    writeFile(path("kept/file"), "old");
    ASSERT_EQ(::symlink("kept/again", path("link").c_str()), 0);
    ASSERT_EQ(::symlink("file", path("kept/again").c_str()), 0);
    EXPECT_EQ(copyFile(path("src"), path("link")), 0);
    EXPECT_EQ(readFile(path("kept/file")), "new");
    ASSERT_EQ(::symlink((path("kept") + "/missing").c_str(), path("dangling").c_str()), 0);
    EXPECT_EQ(copyFile(path("src"), path("dangling")), 0);
    EXPECT_EQ(readFile(path("kept/missing")), "new");
    ASSERT_EQ(::symlink("loop", path("loop").c_str()), 0);
    EXPECT_EQ(copyFile(path("src"), path("loop")), -1);
    EXPECT_EQ(errno, ELOOP);
}

// ---- copy_directory ----

using CopyDirectory = DeleteDirectory;

int copyDirectory(const std::string &src, const std::string &dst) { return copy_directory(src.c_str(), dst.c_str()); }

TEST_F(CopyDirectory, CopiesTheTreeAndTheFilesBehindItsLinks) {
    fs::remove(path("tree/link"));
    fs::remove(path("tree/dangling"));
    fs::remove(path("tree/sub/fifo"));
    ASSERT_EQ(::symlink("../outside/kept", path("tree/linked").c_str()), 0);
    vxtest::SyslogCapture log;
    EXPECT_EQ(copyDirectory(path("tree"), path("copy")), 0);
    EXPECT_EQ(readFile(path("copy/one")), "1");
    EXPECT_EQ(readFile(path("copy/sub/deep/two")), "2");
    EXPECT_TRUE(fs::is_regular_file(fs::symlink_status(path("copy/linked"))));
    EXPECT_EQ(readFile(path("copy/linked")), "kept");
    for (const char *name : {"copy", "copy/sub", "copy/sub/deep", "copy/empty"}) {
        EXPECT_EQ(modeOf(path(name)), 0755u) << name;
    }
    EXPECT_TRUE(log.take().empty());
}

TEST_F(CopyDirectory, FillsAnExistingDirectory) {
    writeFile(path("small/x"), "x");
    writeFile(path("copy/old"), "old");
    ::chmod(path("copy").c_str(), 0700);
    EXPECT_EQ(copyDirectory(path("small"), path("copy")), 0);
    EXPECT_EQ(readFile(path("copy/x")), "x");
    EXPECT_EQ(readFile(path("copy/old")), "old");
    EXPECT_EQ(modeOf(path("copy")), 0700u);
}

TEST_F(CopyDirectory, StopsAtTheFirstFailure) {
    ASSERT_EQ(::symlink("nowhere", path("empty").c_str()), 0);
    vxtest::makeDirs(path("bad"));
    ASSERT_EQ(::symlink("nowhere", path("bad/dangling").c_str()), 0);
    EXPECT_EQ(copyDirectory(path("bad"), path("copy")), -1);
    EXPECT_EQ(copyDirectory(path("none"), path("copy2")), -1);
    EXPECT_EQ(modeOf(path("copy2")), 0755u);
    EXPECT_EQ(copyDirectory(path("outside"), path("tree/one")), -1);
    EXPECT_EQ(copyDirectory(path("outside"), path("tree/link")), -1);
    EXPECT_EQ(copyDirectory(path("outside"), path("none/copy")), -1);
    EXPECT_EQ(copy_directory(nullptr, "x"), -1);
    EXPECT_EQ(copy_directory("x", nullptr), -1);
}

TEST_F(CopyDirectory, ADestinationWhoseModeCannotBeSetIsAFailure) {
    broken.chmod = path("copy");
    vxtest::SyslogCapture log;
    EXPECT_EQ(copyDirectory(path("outside"), path("copy")), -1);
    EXPECT_TRUE(fs::is_empty(path("copy")));
    EXPECT_EQ(modeOf(path("copy")), 0x755u & 01777u & ~022u);
    EXPECT_TRUE(log.take().empty());
}

TEST_F(CopyDirectory, StopsAtAnEntryThatCannotBeExamined) {
    broken.lstat = path("outside/kept");
    EXPECT_EQ(copyDirectory(path("outside"), path("copy")), -1);
    EXPECT_EQ(errno, EIO);
    EXPECT_TRUE(fs::is_empty(path("copy")));
}

TEST_F(CopyDirectory, IntoItselfIsRefusedBeforeAnythingIsMade) {
    ASSERT_EQ(::symlink("tree/sub", path("way").c_str()), 0);
    for (const char *copy :
         {"tree/in", "tree/sub/deep/in", "tree/sub/in/", "tree/sub/deep", "way/in", "tree/../tree/in"}) {
        const bool there = exists(path(copy));
        EXPECT_EQ(copyDirectory(path("tree"), path(copy)), -1) << copy;
        EXPECT_EQ(errno, EINVAL);
        EXPECT_EQ(exists(path(copy)), there) << copy;
    }
    EXPECT_EQ(vxtest::inChild([] {
                  if (::chdir(path("tree/sub").c_str()) != 0) return 100;
                  return copyDirectory(path("tree"), "in") == -1 && copyDirectory("..", "in") == -1 ? 0 : 1;
              }),
              0);
    EXPECT_FALSE(exists(path("tree/sub/in")));
}

TEST_F(CopyDirectory, OntoItselfChangesNothing) {
    ASSERT_EQ(::unlink(path("tree/sub/fifo").c_str()), 0);
    for (const char *name : {"tree/link", "tree/dangling"}) ::unlink(path(name).c_str());
    EXPECT_EQ(copyDirectory(path("tree"), path("tree")), 0);
    EXPECT_EQ(readFile(path("tree/sub/deep/two")), "2");
    EXPECT_EQ(readFile(path("tree/one")), "1");
}

TEST_F(CopyDirectory, BesideOrAboveItselfSucceeds) {
    fs::remove_all(path("tree"));
    writeFile(path("tree/one"), "1");
    EXPECT_EQ(copyDirectory(path("tree"), path("tree2")), 0);
    EXPECT_EQ(readFile(path("tree2/one")), "1");
    EXPECT_EQ(copyDirectory(path("tree"), path("tree/..")), 0);
    EXPECT_EQ(readFile(path("one")), "1");
}

TEST_F(CopyDirectory, AFifoInTheSourceIsAFailureAndNeverWaitedFor) {
    vxtest::makeDirs(path("status"));
    ASSERT_EQ(::mkfifo(path("status/command").c_str(), 0666), 0);
    vxtest::SyslogCapture log;
    EXPECT_EQ(vxtest::inChild([] {
                  ::alarm(20);
                  return copyDirectory(path("status"), path("copy")) == -1 && errno == EINVAL ? 0 : 1;
              }),
              0);
    EXPECT_TRUE(fs::is_empty(path("copy")));
    EXPECT_EQ(log.take(), (std::vector<LogLine>{{LOG_ERR, "Sendfile error: Invalid argument (22)"}}));
}

TEST_F(CopyDirectory, ASourceThatCannotBeListedToItsEndIsAFailure) {
    for (int i = 0; i < 40; ++i) writeFile(path("small/file" + std::to_string(i)), "");
    broken.list = path("small");
    EXPECT_EQ(copyDirectory(path("small"), path("copy")), -1);
    EXPECT_EQ(errno, EIO);
    vxtest::makeDirs(path("around"));
    fs::rename(path("small"), path("around/small"));
    broken.list = path("around/small");
    EXPECT_EQ(copyDirectory(path("around"), path("copy")), -1);
    broken.list.clear();
    EXPECT_EQ(copyDirectory(path("around"), path("copy")), 0);
    EXPECT_TRUE(exists(path("copy/small/file39")));
}

TEST_F(CopyDirectory, StopsWhenADirectoryOfTheSourceWasMovedElsewhere) {
    writeFile(path("small/a/file"), "");
    broken.watched = makeChain(path("small/a"), path("small/a").size() + 40, 1);
    broken.whenWatched = [] { EXPECT_EQ(::rename(path("small/a").c_str(), path("outside/moved").c_str()), 0); };
    EXPECT_EQ(copyDirectory(path("small"), path("copy")), -1);
    EXPECT_EQ(errno, ESTALE);
}

TEST_F(CopyDirectory, GoesDeeperThanAPathIsLong) {
    for (const size_t length : {4090, 9000}) {
        const std::string innermost = makeChain(path("tree/empty"), length, 250);
        EXPECT_EQ(copyDirectory(path("tree/empty"), path("copy")), 0) << length;
        int levels = 0;
        int fd = ::open(path("copy").c_str(), O_PATH | O_CLOEXEC);
        while (fd != -1) {
            const int next = ::openat(fd, std::string(250, 'd').c_str(), O_PATH | O_CLOEXEC);
            ::close(std::exchange(fd, next));
            ++levels;
        }
        EXPECT_EQ(levels, static_cast<int>((length - path("tree/empty").size()) / 251 + 1));
        EXPECT_EQ(delete_directory(path("copy").c_str()), 0);
        EXPECT_EQ(delete_directory_contents(path("tree/empty").c_str()), 0);
    }
    makeChain(path("tree/empty"), 2000, 1);
    int result = -1;
    onASmallStack([&] { result = copyDirectory(path("tree/empty"), path("copy")); });
    EXPECT_EQ(result, 0);
    EXPECT_EQ(delete_directory(path("copy").c_str()), 0);
    EXPECT_EQ(delete_directory(path("tree").c_str()), 0);
}

}  // namespace
