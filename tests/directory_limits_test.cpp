// SPDX-License-Identifier: MIT
// Directories: deep trees on small stacks, full file systems, other users, FIFOs, and copies into the tree itself.
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
#include <functional>
#include <optional>
#include <string>
#include <utility>

#include "support/call_hooks.h"
#include "support/directories.h"
#include "support/files.h"
#include "support/process.h"
#include "support/stranger.h"
#include "support/syslog_capture.h"

VXTEST_HOOK(int, mkdirat, (int directory, const char *name, mode_t mode), (directory, name, mode))

namespace {

using namespace vxtest::directories;

namespace hooks = vxtest::hooks;

using vxtest::exists;
using vxtest::LogLine;
using vxtest::readFile;
using vxtest::writeFile;

using CreateDirectory = Directories;
using TryMkdir = Directories;
using CopyFile = Directories;
using DeleteDirectory = Trees;
using CopyDirectory = Trees;

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

// --- removing

using DeleteRegularFile = Directories;

TEST_F(DeleteRegularFile, WhatCannotBeLookedUpCountsAsRemoved) {
    if (!vxtest::hasOtherUsers()) GTEST_SKIP() << "a box made by an ordinary user has no other";
    vxtest::makeDirs(path("closed"));
    vxtest::writeFile(path("closed/file"), "x");
    ::chmod(path("closed").c_str(), 0700);
    EXPECT_EQ(vxtest::asUser(vxtest::stranger, [] { return delete_regular_file(path("closed/file").c_str()); }), 0);
    EXPECT_TRUE(vxtest::exists(path("closed/file")));
}

TEST_F(DeleteRegularFile, AFileThatCannotBeRemovedIsAFailure) {
    writeFile(path("busy"), "x");
    ASSERT_EQ(::mount(path("busy").c_str(), path("busy").c_str(), nullptr, MS_BIND, nullptr), 0);
    EXPECT_EQ(delete_regular_file(path("busy").c_str()), -1);
    EXPECT_EQ(errno, EBUSY);
    ASSERT_EQ(::umount(path("busy").c_str()), 0);
    EXPECT_TRUE(exists(path("busy")));
}

// --- making

// Otherwise a link that another process puts in its place would be followed.
TEST_F(CreateDirectory, AnUnreadableDirectoryIsContinuedByItsDescriptor) {
    if (!vxtest::hasOtherUsers()) GTEST_SKIP() << "a box made by an ordinary user has no other";
    vxtest::makeDirs(path("his"));
    vxtest::giveTo(vxtest::stranger, path("his"));
    EXPECT_EQ(vxtest::asUser(vxtest::stranger,
                             [] {
                                 ::mkdir(path("his/dark").c_str(), 0300);
                                 bool byDescriptor = false;
                                 const vxtest::Hooked watch(hooks::mkdirat,
                                                            [&](int directory, const char *name, mode_t) {
                                                                if (std::string(name) == "below")
                                                                    byDescriptor = directory != AT_FDCWD;
                                                                return std::optional<int>();
                                                            });
                                 if (createDirectory(path("his/new/../dark/below")) != 0) return 1;
                                 return byDescriptor ? 0 : 2;
                             }),
              0);
    EXPECT_TRUE(exists(path("his/dark/below")));
}

TEST_F(TryMkdir, TheUmaskMayTakeEveryRight) {
    if (!vxtest::hasOtherUsers()) GTEST_SKIP() << "a box made by an ordinary user has no other";
    vxtest::makeDirs(path("his"));
    vxtest::giveTo(vxtest::stranger, path("his"));
    EXPECT_EQ(vxtest::asUser(vxtest::stranger,
                             [] {
                                 ::umask(0777);
                                 return try_mkdir(path("his/new").c_str());
                             }),
              0);
    EXPECT_EQ(modeOf(path("his/new")), 0555u);
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

// --- deleting

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

// --- copying

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

TEST_F(CopyDirectory, AndDeletingStartInTheCurrentDirectory) {
    EXPECT_EQ(vxtest::inChild([] {
                  if (::chdir(dir.c_str()) != 0) return 100;
                  if (copy_directory("outside", "copy") != 0) return 1;
                  if (copy_directory("outside", "copy/sub/") != 0) return 2;
                  if (delete_directory_contents("outside") != 0) return 3;
                  return delete_directory("tree");
              }),
              0);
    EXPECT_EQ(readFile(path("copy/kept")), "kept");
    EXPECT_EQ(readFile(path("copy/sub/kept")), "kept");
    EXPECT_FALSE(exists(path("outside/kept")));
    EXPECT_FALSE(exists(path("tree")));
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

// By way of the mount, ".." does not lead from the destination to the source.
TEST_F(CopyDirectory, IntoItselfThroughABindMountEndsWhereItMeetsItsDestination) {
    vxtest::makeDirs(path("small/sub"));
    vxtest::makeDirs(path("mounted"));
    ASSERT_EQ(::mount(path("small/sub").c_str(), path("mounted").c_str(), nullptr, MS_BIND, nullptr), 0);
    const int result = vxtest::inChild([] {
        ::alarm(20);  // a copy without end ends then
        return copyDirectory(path("small"), path("mounted/copy")) == -1 && errno == EINVAL ? 0 : 1;
    });
    EXPECT_EQ(result, 0);
    EXPECT_EQ(::umount(path("mounted").c_str()), 0);
    EXPECT_FALSE(exists(path("small/sub/copy/sub/copy")));
    if (result != 0) vxtest::run({"rm", "-rf", path("small")});
}

TEST_F(CopyDirectory, OntoItselfThroughABindMountChangesNothing) {
    writeFile(path("small/sub/file"), "kept");
    vxtest::makeDirs(path("mounted"));
    ASSERT_EQ(::mount(path("small").c_str(), path("mounted").c_str(), nullptr, MS_BIND, nullptr), 0);
    EXPECT_EQ(copyDirectory(path("small"), path("mounted")), 0);
    EXPECT_EQ(::umount(path("mounted").c_str()), 0);
    // A part of the tree that shows the tree again is itself the place that it is copied to.
    vxtest::makeDirs(path("small/again"));
    ASSERT_EQ(::mount(path("small").c_str(), path("small/again").c_str(), nullptr, MS_BIND, nullptr), 0);
    EXPECT_EQ(copyDirectory(path("small"), path("small")), 0);
    EXPECT_EQ(::umount(path("small/again").c_str()), 0);
    EXPECT_EQ(readFile(path("small/sub/file")), "kept");
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
