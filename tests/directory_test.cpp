// SPDX-License-Identifier: MIT
// Making, emptying, removing and copying directories through the public interface. Deep trees, full file systems and
// files of other kinds are in directory_limits_test.cpp, what the system refuses is in directory_faults_test.cpp.
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>
#include <vxutils/file.h>

#include <cerrno>
#include <cstring>
#include <string>

#include "support/directories.h"
#include "support/files.h"
#include "support/process.h"
#include "support/syslog_capture.h"

namespace {

using namespace vxtest::directories;

using vxtest::exists;
using vxtest::LogLine;
using vxtest::readFile;
using vxtest::writeFile;

// --- try_mkdir, create_directory

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

// Otherwise the kernel would follow a link.
TEST_F(CreateDirectory, OneTrailingSlashIsIgnored) {
    ASSERT_EQ(::symlink("nowhere", path("dangling").c_str()), 0);
    vxtest::SyslogCapture log;
    EXPECT_EQ(createDirectory(path("dangling/")), 0);
    EXPECT_TRUE(log.take().empty());
    EXPECT_EQ(createDirectory(path("dangling//")), -1);
    EXPECT_FALSE(exists(path("nowhere")));
}

TEST_F(CreateDirectory, FollowsLinksAlsoAfterADirectoryThatItMade) {
    vxtest::makeDirs(path("real"));
    ASSERT_EQ(::symlink("real", path("link").c_str()), 0);
    ASSERT_EQ(::symlink("nowhere", path("dangling").c_str()), 0);
    vxtest::SyslogCapture log;
    EXPECT_EQ(createDirectory(path("new1/../link")), 0);
    EXPECT_EQ(createDirectory(path("new2/../link/a/b")), 0);
    EXPECT_TRUE(exists(path("real/a/b")));
    EXPECT_EQ(createDirectory(path("new3/../dangling")), 0);
    EXPECT_TRUE(log.take().empty());
    EXPECT_EQ(createDirectory(path("new4/../dangling/a")), -1);
    EXPECT_EQ(log.take(),
              (std::vector<LogLine>{{LOG_ERR, "Cannot create directory. mkdir " + path("new4/../dangling/a") +
                                                  " throw errno=2, No such file or directory"}}));
}

TEST_F(CreateDirectory, StopsAtTheFirstFailure) {
    writeFile(path("file"), "x");
    vxtest::SyslogCapture log;
    EXPECT_EQ(createDirectory(path("file/sub/deep")), -1);
    const std::vector<LogLine> reported{{LOG_ERR, "Cannot create directory. " + path("file") +
                                                      " exists and it is neither a directory nor a symbolic link"}};
    EXPECT_EQ(log.take(), reported);
    for (const char *slashes : {"", "/", "//", "///"}) {
        EXPECT_EQ(createDirectory(path("file") + slashes), -1);
        EXPECT_EQ(log.take(), reported) << slashes;
    }
}

TEST_F(CreateDirectory, WrongUseIsReported) {
    vxtest::SyslogCapture log;
    EXPECT_EQ(create_directory(nullptr), -1);
    EXPECT_EQ(createDirectory(""), -1);
    EXPECT_EQ(log.take(), (std::vector<LogLine>{{LOG_ERR, "Wrong use of create_directory. the parameter is NULL"},
                                                {LOG_ERR, "Wrong use of create_directory. the parameter is empty"}}));
}

// --- delete_regular_file

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

// --- delete_directory, delete_directory_contents

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

// As for remove(): the slash says that a directory is meant.
TEST_F(DeleteDirectory, AFileWithASlashAfterItsNameStays) {
    ASSERT_EQ(::symlink("one", path("tree/linked").c_str()), 0);
    for (const char *name : {"tree/one/", "tree/one//", "tree/linked/"}) {
        EXPECT_EQ(delete_directory(path(name).c_str()), 0) << name;
        EXPECT_EQ(readFile(path("tree/linked")), "1") << name;
    }
    ASSERT_EQ(::symlink("one/none", path("tree/nowhere").c_str()), 0);
    EXPECT_EQ(delete_directory(path("tree/nowhere").c_str()), 0);
    EXPECT_FALSE(exists(path("tree/nowhere")));
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

// --- empty_directory

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

// --- copy_file

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

TEST_F(CopyFile, WithoutASourceNoFolderIsMade) {
    vxtest::SyslogCapture log;
    EXPECT_EQ(copyFile(path("none"), path("folder/dst")), -1);
    EXPECT_FALSE(exists(path("folder")));
    EXPECT_EQ(log.take(), (std::vector<LogLine>{{LOG_ERR, "Source file " + path("none") +
                                                              " could not be opened: No such file or directory (2)"}}));
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

// --- copy_directory

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
    EXPECT_EQ(copyDirectory(path("none"), path("copy2")), -1);
    EXPECT_EQ(modeOf(path("copy2")), 0755u);
    EXPECT_EQ(copyDirectory(path("outside"), path("tree/one")), -1);
    EXPECT_EQ(copyDirectory(path("outside"), path("tree/link")), -1);
    EXPECT_EQ(copyDirectory(path("outside"), path("none/copy")), -1);
    EXPECT_EQ(copy_directory(nullptr, "x"), -1);
    EXPECT_EQ(copy_directory("x", nullptr), -1);
}

TEST_F(CopyDirectory, OnlyTheCopiesOfFilesLog) {
    ASSERT_EQ(::symlink("nowhere", path("tree/sub/dangling").c_str()), 0);
    ASSERT_EQ(::unlink(path("tree/sub/fifo").c_str()), 0);
    fs::remove_all(path("tree/sub/deep"));
    vxtest::SyslogCapture log;
    EXPECT_EQ(copyDirectory(path("none"), path("copy")), -1);
    EXPECT_EQ(copyDirectory(path("outside"), path("tree/one")), -1);
    EXPECT_EQ(copyDirectory(path("outside"), path("none/copy")), -1);
    EXPECT_TRUE(log.take().empty());
    EXPECT_EQ(copyDirectory(path("tree/sub"), path("copy")), -1);
    EXPECT_EQ(log.take(), (std::vector<LogLine>{{LOG_ERR, "Source file " + path("tree/sub/dangling") +
                                                              " could not be opened: No such file or directory (2)"}}));
}

TEST_F(CopyDirectory, MessagesNameTheDestinationOfTheFile) {
    writeFile(path("small/sub/file"), "");
    vxtest::makeDirs(path("copy/sub/file"));
    vxtest::SyslogCapture log;
    const auto refused = [](const std::string &name) {
        return std::vector<LogLine>{
            {LOG_ERR, "Destination file " + name + " could not be opened: Is a directory (21)"}};
    };
    EXPECT_EQ(copyDirectory(path("small"), path("copy")), -1);
    EXPECT_EQ(log.take(), refused(path("copy/sub/file")));
    ASSERT_EQ(::rmdir(path("copy/sub/file").c_str()), 0);
    vxtest::makeDirs(path("copy/top"));
    for (int round = 0; round < 2; ++round) {  // whichever of "sub" and "top" the directory lists first
        writeFile(path("small/top"), "");
        EXPECT_EQ(copyDirectory(path("small"), path("copy")), -1);
        EXPECT_EQ(log.take(), refused(path("copy/top")));
        fs::remove_all(path("small"));
        writeFile(path("small/top"), "");
        writeFile(path("small/sub/file"), "");
    }
}

TEST_F(CopyDirectory, ALinkToADirectoryIsAFileThatCannotBeCopied) {
    vxtest::makeDirs(path("links"));
    ASSERT_EQ(::symlink("../outside", path("links/way").c_str()), 0);
    vxtest::SyslogCapture log;
    EXPECT_EQ(copyDirectory(path("links"), path("copy")), -1);
    EXPECT_EQ(log.take(), (std::vector<LogLine>{{LOG_ERR, "Sendfile error: Invalid argument (22)"}}));
    EXPECT_TRUE(fs::is_empty(path("copy")));
}

TEST_F(CopyDirectory, OntoItselfChangesNothing) {
    ASSERT_EQ(::unlink(path("tree/sub/fifo").c_str()), 0);
    for (const char *name : {"tree/link", "tree/dangling"}) ::unlink(path(name).c_str());
    EXPECT_EQ(copyDirectory(path("tree"), path("tree")), 0);
    EXPECT_EQ(readFile(path("tree/sub/deep/two")), "2");
    EXPECT_EQ(readFile(path("tree/one")), "1");
}

// The destination is made before the source is looked for.
TEST_F(CopyDirectory, TheSourceMayBeTheDirectoryThatIsMade) {
    EXPECT_EQ(copyDirectory(path("new"), path("new")), 0);
    EXPECT_TRUE(fs::is_empty(path("new")));
    EXPECT_EQ(copyDirectory(path("copy/../outside"), path("copy")), 0);
    EXPECT_EQ(readFile(path("copy/kept")), "kept");
    vxtest::makeDirs(path("small/sub"));
    EXPECT_EQ(vxtest::inChild([] {
                  ::alarm(20);  // a copy without end ends then
                  const int result = copyDirectory(path("small/sub/in/../.."), path("small/sub/in"));
                  return result == -1 && errno == EINVAL ? 0 : 1;
              }),
              0);
    EXPECT_FALSE(exists(path("small/sub/in/sub/in")));
}

TEST_F(CopyDirectory, BesideOrAboveItselfSucceeds) {
    fs::remove_all(path("tree"));
    writeFile(path("tree/one"), "1");
    EXPECT_EQ(copyDirectory(path("tree"), path("tree2")), 0);
    EXPECT_EQ(readFile(path("tree2/one")), "1");
    EXPECT_EQ(copyDirectory(path("tree"), path("tree/..")), 0);
    EXPECT_EQ(readFile(path("one")), "1");
}

}  // namespace
