// SPDX-License-Identifier: MIT
// Directories: made, emptied, removed, copied. What the system refuses is in directory_faults_test.cpp.
#include <fcntl.h>
#include <pthread.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>
#include <vxutils/file.h>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <functional>
#include <string>
#include <utility>

#include "support/directories.h"
#include "support/files.h"
#include "support/process.h"
#include "support/stranger.h"
#include "support/syslog_capture.h"

namespace {

using namespace vxtest::directories;

using vxtest::exists;
using vxtest::LogLine;
using vxtest::readFile;
using vxtest::writeFile;

#ifdef __SANITIZE_ADDRESS__
constexpr size_t smallStack = 512 * 1024;  // its frames are larger
#else
constexpr size_t smallStack = 64 * 1024;
#endif

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

using DeleteDirectory = Trees;

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

using CopyDirectory = Trees;

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
