// SPDX-License-Identifier: MIT
// Directories: made, emptied, removed, copied.
#include <fcntl.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>
#include <vxutils/file.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>

#include "support/files.h"
#include "support/process.h"
#include "support/resources.h"
#include "support/syslog_capture.h"

// Answers of the kernel that no file system gives at will, and a lack of memory for copies of texts: the library's
// calls of these functions come here.
namespace {
struct Broken {
    std::string chmod;  // the path where it fails
    std::string lstat;  // the same
    bool fstat = false;
    bool strdup = false;
} broken;

int failWith(int error) {
    errno = error;
    return -1;
}
}  // namespace
extern "C" int chmod(const char *path, mode_t mode) noexcept {
    return path == broken.chmod ? failWith(EPERM) : ::fchmodat(AT_FDCWD, path, mode, 0);
}
extern "C" int lstat(const char *path, struct stat *status) noexcept {
    return path == broken.lstat ? failWith(EIO) : ::fstatat(AT_FDCWD, path, status, AT_SYMLINK_NOFOLLOW);
}
extern "C" int fstat(int fd, struct stat *status) noexcept {
    return broken.fstat ? failWith(EIO) : ::fstatat(fd, "", status, AT_EMPTY_PATH);
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

// ---- try_mkdir, create_directory ----

using TryMkdir = Directories;

TEST_F(TryMkdir, MakesADirectoryThatNobodyMayWrite) {
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

TEST_F(DeleteDirectory, FollowsALinkGivenAsThePath) {
    EXPECT_EQ(delete_directory(path("tree/link").c_str()), 0);
    EXPECT_FALSE(exists(path("tree/link")));
    EXPECT_TRUE(exists(path("outside")));
    EXPECT_FALSE(exists(path("outside/kept")));
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

TEST_F(DeleteDirectory, GoesDownAsFarAsPathsFit) {
    makeChain(path("tree"), 4095, 250);
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

TEST_F(DeleteDirectory, APathThatDoesNotFitIsRefusedAndNeverCut) {
    const std::string innermost = makeChain(path("tree"), 4095, 250);
    // Room for a slash and a name up to byte 4095; the entry's name is one byte longer.
    const size_t room = 4095 - innermost.size() - 1;
    const int fd = ::open(innermost.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC);
    ASSERT_GE(fd, 0);
    const std::string name(room + 1, 'f');
    const int file = ::openat(fd, name.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
    ASSERT_GE(file, 0) << std::strerror(errno);
    ::close(file);
    EXPECT_EQ(delete_directory_contents(innermost.c_str()), -1);
    EXPECT_EQ(errno, ENAMETOOLONG);
    EXPECT_EQ(delete_directory(path("tree").c_str()), 0);
    EXPECT_TRUE(exists(innermost));
    ASSERT_EQ(::unlinkat(fd, name.c_str(), 0), 0);
    const std::string fitting(room, 'f');
    const int other = ::openat(fd, fitting.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
    ASSERT_GE(other, 0);
    ::close(other);
    ::close(fd);
    EXPECT_EQ(delete_directory(path("tree").c_str()), 0);
    EXPECT_FALSE(exists(path("tree")));
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

TEST_F(CopyDirectory, IntoItselfEndsWhereThePathDoes) {
    fs::remove_all(path("tree"));
    vxtest::makeDirs(path("tree"));
    EXPECT_EQ(copyDirectory(path("tree"), path("tree") + "/" + std::string(200, 'c')), -1);
    EXPECT_EQ(delete_directory(path("tree").c_str()), 0);
    EXPECT_FALSE(exists(path("tree")));
}

TEST_F(CopyDirectory, RefusesAPathThatDoesNotFit) {
    writeFile(path("small/file"), "x");
    const std::string innermost = makeChain(path("tree"), 4090, 250);
    std::string target = innermost + "/" + std::string(4091 - innermost.size() - 1, 't');
    ASSERT_EQ(target.size(), 4091u);
    EXPECT_EQ(copyDirectory(path("small"), target), -1);
    EXPECT_EQ(errno, ENAMETOOLONG);
    target.pop_back();
    EXPECT_EQ(copyDirectory(path("small"), target), 0);
    EXPECT_EQ(readFile(target + "/file"), "x");
}

}  // namespace
