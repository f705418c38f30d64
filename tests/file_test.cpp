// SPDX-License-Identifier: MIT
// Content of files through the public interface. Limits, failures and files of other kinds are in file_limits_test.cpp,
// directories in directory_test.cpp.
#include <vxutils/file.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>
#include <vector>

#include "support/file_dir.h"
#include "support/files.h"
#include "support/process.h"
#include "support/syslog_capture.h"

namespace {

using namespace vxtest::filedir;
using vxtest::LogLine;
using vxtest::readFile;
using vxtest::writeFile;
using namespace std::string_literals;

using FileExample = Files;

TEST_F(FileExample, TheWatcherSeesNoMixture) {
    const auto output = vxtest::run({vxtest::built("examples/file_status"), "200", path("state")});
    EXPECT_EQ(output.status, 0);
    EXPECT_THAT(output.text,
                testing::MatchesRegex("200 updates, [0-9]+ reads meanwhile, 0 of them a mixture of two states\n"));
    EXPECT_FALSE(vxtest::exists(path("state")));
}

// ---- write_file_atomic

using WriteFileAtomic = Files;

TEST_F(WriteFileAtomic, ReplacesTheContentAndLeavesNothingElse) {
    writeFile(path("state"), "old and longer");
    vxtest::SyslogCapture log;
    EXPECT_EQ(write_file_atomic(path("state").c_str(), "new", 3, 0, 0), 0);
    EXPECT_EQ(readFile(path("state")), "new");
    EXPECT_EQ(found(dir + "/*"), std::vector{path("state")});
    EXPECT_TRUE(log.take().empty());
}

TEST_F(WriteFileAtomic, AppendsANewlineWhenAsked) {
    EXPECT_EQ(write_file_atomic(path("state").c_str(), "new", 3, 1, 0), 0);
    EXPECT_EQ(readFile(path("state")), "new\n");
    EXPECT_EQ(write_file_atomic(path("state").c_str(), "", 0, -1, 0), 0);
    EXPECT_EQ(readFile(path("state")), "\n");
    EXPECT_EQ(write_file_atomic(path("state").c_str(), nullptr, 0, 0, 0), 0);
    EXPECT_EQ(readFile(path("state")), "");
}

TEST_F(WriteFileAtomic, WritesAnyBytes) {
    std::string bytes(200000, '\0');
    for (size_t i = 0; i < bytes.size(); ++i) bytes[i] = static_cast<char>(i * 7);
    EXPECT_EQ(write_file_atomic(path("blob").c_str(), bytes.data(), bytes.size(), 0, 0), 0);
    EXPECT_EQ(readFile(path("blob")), bytes);
}

TEST_F(WriteFileAtomic, GivesTheFileTheTemporaryFilesMode) {
    writeFile(path("state"), "old");
    ::chmod(path("state").c_str(), 0644);
    EXPECT_EQ(write_file_atomic(path("state").c_str(), "new", 3, 0, 0), 0);
    EXPECT_EQ(modeOf(path("state")), 0600u);
}

TEST_F(WriteFileAtomic, ReplacesALinkAndNotItsTarget) {
    writeFile(path("target"), "kept");
    ASSERT_EQ(::symlink("target", path("link").c_str()), 0);
    EXPECT_EQ(write_file_atomic(path("link").c_str(), "new", 3, 0, 0), 0);
    EXPECT_EQ(readFile(path("target")), "kept");
    EXPECT_EQ(modeOf(path("link")), 0600u);
}

TEST_F(WriteFileAtomic, WorksOnARelativePath) {
    EXPECT_EQ(vxtest::inChild([] {
                  if (::chdir(dir.c_str()) != 0) return 1;
                  return write_file_atomic("here", "x", 1, 0, 0) == 0 ? 0 : 2;
              }),
              0);
    EXPECT_EQ(readFile(path("here")), "x");
}

TEST_F(WriteFileAtomic, RefusesANullPath) {
    EXPECT_EQ(write_file_atomic(nullptr, "x", 1, 0, 1), -1);
    EXPECT_EQ(errno, EINVAL);
}

TEST_F(WriteFileAtomic, RefusesThePrefixesWithoutFallbackAndTouchesNothing) {
    vxtest::SyslogCapture log;
    for (const std::string target : {"/proc/self/comm", "/dev/shm/x", "/sys/x", "/device/x", "/process", "/system/y"}) {
        errno = ENOTTY;
        EXPECT_EQ(write_file_atomic(target.c_str(), "x", 1, 0, 0), -1);
        EXPECT_EQ(errno, ENOTTY);
        EXPECT_EQ(log.take(), (std::vector<LogLine>{{LOG_ERR, "Unable to open tempfile (" + target +
                                                                  "_XXXXXX) for writing - errno=25(Inappropriate ioctl "
                                                                  "for device)"}}));
    }
    EXPECT_FALSE(vxtest::exists("/dev/shm/x"));
}

TEST_F(WriteFileAtomic, AnyFallbackValueAllowsThePrefixes) {
    vxtest::SyslogCapture log;
    for (const unsigned char fallback : {1, 2, 255}) {
        EXPECT_EQ(write_file_atomic("/dev/shm/direct", "value", 5, 0, fallback), 0);
        EXPECT_EQ(readFile("/dev/shm/direct"), "value");
        EXPECT_EQ(log.take(),
                  (std::vector<LogLine>{{LOG_INFO, "Non atomic fallback used for writing to file (/dev/shm/direct)"}}));
        ::unlink("/dev/shm/direct");
    }
}

// The kernel takes each write to this attribute as the whole new name: two writes would leave the name "\n".
TEST_F(WriteFileAtomic, ADirectWriteHandsDataAndNewlineOverInOneWrite) {
    EXPECT_EQ(vxtest::inChild([] {
                  if (write_file_atomic("/proc/self/comm", "gateway", 7, 1, 1) != 0) return 1;
                  char name[16] = {};
                  ::prctl(PR_GET_NAME, name);
                  return std::strcmp(name, "gateway\n") == 0 ? 0 : 2;
              }),
              0);
}

TEST_F(WriteFileAtomic, AMissingDirectoryIsReported) {
    vxtest::SyslogCapture log;
    EXPECT_EQ(write_file_atomic(path("none/x").c_str(), "x", 1, 0, 0), -1);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(log.take().at(0).priority, LOG_ERR);
    EXPECT_EQ(write_file_atomic(path("none/x").c_str(), "x", 1, 0, 1), -1);
    EXPECT_EQ(log.take(), (std::vector<LogLine>{{LOG_ERR, "Unable to open file (" + path("none/x") +
                                                              ") for writing - errno=2(No such file or directory)"}}));
}

TEST_F(WriteFileAtomic, AFailedRenameIsReportedAndRemovesTheTemporaryFile) {
    vxtest::makeDirs(path("folder"));
    vxtest::SyslogCapture log;
    EXPECT_EQ(write_file_atomic(path("folder").c_str(), "x", 1, 0, 1), -1);
    EXPECT_EQ(errno, EISDIR);
    const auto lines = log.take();
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0].priority, LOG_ERR);
    EXPECT_THAT(lines[0].text,
                testing::MatchesRegex("Unable to rename tempfile \\(" + path("folder") + "_\\w{6}\\) to " +
                                      path("folder") + " - errno=21\\(Is a directory\\)"));
    EXPECT_TRUE(temporaries(path("folder")).empty());
    ::rmdir(path("folder").c_str());
}

// ---- writefile, dropfile

using Writefile = Files;

TEST_F(Writefile, WritesTheTextAndANewline) {
    EXPECT_EQ(writefile(path("state").c_str(), "up"), 0);
    EXPECT_EQ(readFile(path("state")), "up\n");
}

TEST_F(Writefile, AnEmptyTextRemovesTheFileAndAMissingOneIsRemovedAlready) {
    writeFile(path("state"), "up");
    vxtest::SyslogCapture log;
    EXPECT_EQ(writefile(path("state").c_str(), ""), 0);
    EXPECT_FALSE(vxtest::exists(path("state")));
    EXPECT_EQ(writefile(path("state").c_str(), ""), 0);
    EXPECT_TRUE(log.take().empty());
}

TEST_F(Writefile, RefusesNull) {
    EXPECT_EQ(writefile(nullptr, "x"), -1);
    EXPECT_EQ(writefile(path("x").c_str(), nullptr), -1);
}

TEST_F(Writefile, WritesToKernelFilesDirectly) {
    ::mkdir("/sys", 0755);
    ASSERT_EQ(::mount("tmpfs", "/sys", "tmpfs", 0, nullptr), 0);
    vxtest::SyslogCapture log;
    EXPECT_EQ(writefile("/sys/value", "1"), 0);
    EXPECT_EQ(readFile("/sys/value"), "1\n");
    EXPECT_EQ(log.take(),
              (std::vector<LogLine>{{LOG_INFO, "Non atomic fallback used for writing to file (/sys/value)"}}));
    ASSERT_EQ(::umount("/sys"), 0);
}

using Dropfile = Files;

TEST_F(Dropfile, RemovesAFileThatIsThere) {
    writeFile(path("flag"), "");
    EXPECT_EQ(dropfile(path("flag").c_str()), 0);
    EXPECT_FALSE(vxtest::exists(path("flag")));
    EXPECT_EQ(dropfile(path("flag").c_str()), -1);
    EXPECT_EQ(dropfile(nullptr), -1);
}

TEST_F(Dropfile, LeavesAFileThatTheRealUserMayNotRead) {
    if (!vxtest::hasOtherUsers()) GTEST_SKIP() << "a box made by an ordinary user has no other";
    writeFile(path("flag"), "");
    ::chmod(path("flag").c_str(), 0600);
    EXPECT_EQ(vxtest::inChild([] {
                  if (::setresuid(12345, 0, 0) != 0) return 100;
                  return dropfile(path("flag").c_str()) == -1 ? 0 : 1;
              }),
              0);
    EXPECT_TRUE(vxtest::exists(path("flag")));
}

TEST_F(Dropfile, DoesNotMindAnEntryThatCannotBeUnlinked) { EXPECT_EQ(dropfile(dir.c_str()), 0); }

// ---- readfile, readfile_r, readaddress

using Readfile = Files;

TEST_F(Readfile, CutsWhiteSpaceOffBothEnds) {
    writeFile(path("value"), "  42\n");
    EXPECT_STREQ(readfile(path("value").c_str()), "42");
    EXPECT_EQ(errno, 0);
    EXPECT_EQ(read("  42\n"), "42");
    EXPECT_EQ(read("42"), "42");
    EXPECT_EQ(read("\t 4 2 \r\n"), "4 2");
    EXPECT_EQ(read(""), "");
    EXPECT_EQ(read("\n"), "");
    EXPECT_EQ(read(" \n \n"), "");
}

TEST_F(Readfile, KeepsTheNewlinesBetweenLines) { EXPECT_EQ(read("one\ntwo\n"), "one\ntwo"); }

TEST_F(Readfile, StopsWhereTheBufferEnds) {
    EXPECT_EQ(read("abcdef", 3), "ab");
    EXPECT_EQ(read("abcdef", 1), "");
    EXPECT_EQ(read("abcdef", 6), "abcde");
    EXPECT_EQ(read("abcdef", 7), "abcdef");
    EXPECT_EQ(read("a\nb\nc\n", 4), "a\nb");
    EXPECT_EQ(read("\n\nabc", 4), "a");
    for (const size_t length : {1022, 1023, 1024, 1025, 9000}) {
        writeFile(path("value"), std::string(length, 'v'));
        EXPECT_EQ(std::strlen(readfile(path("value").c_str())), std::min<size_t>(length, 1023));
    }
}

TEST_F(Readfile, WhatCannotBeReadIsEmpty) {
    EXPECT_STREQ(readfile(path("none").c_str()), "");
    EXPECT_EQ(errno, ENOENT);
    EXPECT_STREQ(readfile(nullptr), "");
    EXPECT_STREQ(readfile(dir.c_str()), "");
    char buffer[4] = "abc";
    EXPECT_EQ(readfile_r(nullptr, buffer, sizeof buffer), buffer);
    EXPECT_STREQ(buffer, "");
    std::strcpy(buffer, "abc");
    EXPECT_EQ(readfile_r(path("none").c_str(), buffer, sizeof buffer), buffer);
    EXPECT_STREQ(buffer, "");
}

TEST_F(Readfile, ABufferWithoutRoomIsLeftAlone) {
    char buffer[4] = "abc";
    EXPECT_EQ(readfile_r(path("none").c_str(), buffer, 0), buffer);
    EXPECT_STREQ(buffer, "abc");
    EXPECT_EQ(readfile_r(path("none").c_str(), nullptr, 10), nullptr);
}

TEST_F(Readfile, ForgetsThePreviousValue) {
    writeFile(path("value"), "previous");
    const char *text = readfile(path("value").c_str());
    EXPECT_STREQ(text, "previous");
    EXPECT_STREQ(readfile(path("none").c_str()), "");
    EXPECT_EQ(std::string(text, 8), std::string(8, '\0')) << "none of it is left in the buffer";
}

TEST_F(Readfile, ANameInTheBufferIsTheEmptyName) {
    writeFile(path("value"), path("other"));
    writeFile(path("other"), "value of the other");
    EXPECT_STREQ(readfile(readfile(path("value").c_str())), "");
    std::string buffer = path("value");
    EXPECT_STREQ(readfile_r(buffer.data(), buffer.data(), buffer.size()), "");
    // Only the first byte of the caller's buffer is emptied: a name further on is whole when the file is opened.
    std::string later = "//" + path("value");
    EXPECT_EQ(readfile_r(later.data() + 2, later.data(), later.size()), path("other"));
}

TEST_F(Readfile, ReadsKernelAttributes) {
    EXPECT_STREQ(readfile("/proc/sys/kernel/ostype"), "Linux");
    EXPECT_NE(*readfile("/proc/self/status"), '\0');
}

TEST_F(Readfile, FollowsLinksToFiles) {
    writeFile(path("value"), "42\n");
    ASSERT_EQ(::symlink("value", path("link").c_str()), 0);
    ASSERT_EQ(::symlink("link", path("chain").c_str()), 0);
    errno = EDOM;
    EXPECT_STREQ(readfile(path("chain").c_str()), "42");
    EXPECT_EQ(errno, 0);
    // In a bare chroot there is no /proc.
    EXPECT_EQ(vxtest::inChild([] {
                  if (::chroot(dir.c_str()) != 0 || ::chdir("/") != 0) return 100;
                  return std::strcmp(readfile("/chain"), "42") == 0 ? 0 : 1;
              }),
              0);
}

using Readaddress = Files;

union AddressRecord {
    sockaddr any;
    sockaddr_in v4;
    sockaddr_in6 v6;
    char bytes[sizeof(sockaddr_in6)];
};

TEST_F(Readaddress, ReadsBothFamilies) {
    AddressRecord record{};
    writeFile(path("address"), "192.0.2.7\n");
    EXPECT_EQ(readaddress(path("address").c_str(), &record.any), 0);
    EXPECT_EQ(record.v4.sin_family, AF_INET);
    EXPECT_EQ(record.v4.sin_addr.s_addr, ::inet_addr("192.0.2.7"));
    writeFile(path("address"), "fe80::1\n");
    EXPECT_EQ(readaddress(path("address").c_str(), &record.any), 0);
    EXPECT_EQ(record.v6.sin6_family, AF_INET6);
    EXPECT_EQ(record.v6.sin6_addr.s6_addr[15], 1);
}

TEST_F(Readaddress, ClearsSixteenBytesFirst) {
    AddressRecord record;
    std::memset(&record, '?', sizeof record);
    EXPECT_EQ(readaddress(path("none").c_str(), &record.any), -1);
    EXPECT_EQ(std::string(record.bytes, 20), std::string(16, '\0') + "????");
}

TEST_F(Readaddress, FailsOnWhatIsNoAddress) {
    sockaddr addr{};
    writeFile(path("address"), "nonsense");
    EXPECT_EQ(readaddress(path("address").c_str(), &addr), -1);
    writeFile(path("address"), "");
    EXPECT_EQ(readaddress(path("address").c_str(), &addr), -1);
    EXPECT_EQ(readaddress(nullptr, &addr), -1);
    EXPECT_EQ(readaddress(path("address").c_str(), nullptr), -1);
}

// ---- read_file_lines

TEST_F(ReadFileLines, AppendsEachLineWithoutItsEnd) {
    EXPECT_EQ(readLines("one\ntwo\r\n\nfour"), 4);
    EXPECT_EQ(texts(), (std::vector<std::string>{"one", "two", "", "four"}));
    EXPECT_EQ(readLines("five\n"), 1);
    EXPECT_EQ(texts().back(), "five");
    EXPECT_EQ(texts().size(), 5u);
}

TEST_F(ReadFileLines, CutsALineAtItsFirstCarriageReturnOrNul) {
    EXPECT_EQ(readLines("ab\rcd\nef\0gh\n"s), 2);
    EXPECT_EQ(texts(), (std::vector<std::string>{"ab", "ef"}));
}

TEST_F(ReadFileLines, SplitsLongLines) {
    const std::string full(1023, 'f');
    EXPECT_EQ(readLines(std::string(1022, 'e') + "\n" + full + "\n" + full + "gg\nlast"), 6);
    EXPECT_EQ(texts(), (std::vector<std::string>{std::string(1022, 'e'), full, "", full, "gg", "last"}));
}

TEST_F(ReadFileLines, AnEmptyFileHasNoLines) {
    EXPECT_EQ(readLines(""), 0);
    EXPECT_EQ(list_empty(&lines_), 1);
    EXPECT_EQ(read_file_lines(dir.c_str(), &lines_), 0);
}

TEST_F(ReadFileLines, AMissingFileIsToldApart) {
    EXPECT_EQ(READFILE_OPEN_FAILED, -1);
    EXPECT_EQ(READFILE_OUT_OF_MEMORY, -10);
    EXPECT_EQ(read_file_lines(path("none").c_str(), &lines_), READFILE_OPEN_FAILED);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(read_file_lines(nullptr, &lines_), READFILE_OPEN_FAILED);
    EXPECT_EQ(read_file_lines(path("none").c_str(), nullptr), READFILE_OPEN_FAILED);
}

// ---- create_tmpfile

using CreateTmpfile = Files;

TEST_F(CreateTmpfile, MakesAnEmptyFileWithANewName) {
    const std::string first = create_tmpfile(path("work_XXXXXX").c_str());
    const std::string second = create_tmpfile(path("work_XXXXXX").c_str());
    EXPECT_NE(first, second);
    for (const std::string &name : {first, second}) {
        EXPECT_THAT(name, testing::MatchesRegex(path("work_\\w{6}")));
        EXPECT_EQ(modeOf(name), 0600u);
        EXPECT_EQ(readFile(name), "");
    }
}

TEST_F(CreateTmpfile, ReturnsTheSameBufferEachTime) {
    char *first = create_tmpfile(path("work_XXXXXX").c_str());
    EXPECT_EQ(create_tmpfile(path("work_XXXXXX").c_str()), first);
}

TEST_F(CreateTmpfile, FailsWithoutAPattern) {
    EXPECT_EQ(create_tmpfile(nullptr), nullptr);
    EXPECT_EQ(create_tmpfile(""), nullptr);
    EXPECT_EQ(create_tmpfile(path("none/XXXXXX").c_str()), nullptr);
    EXPECT_EQ(errno, ENOENT);
}

TEST_F(CreateTmpfile, AFailureRemovesWhatHasTheName) {
    writeFile(path("plain"), "x");
    EXPECT_EQ(create_tmpfile(path("plain").c_str()), nullptr);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_FALSE(vxtest::exists(path("plain")));
    EXPECT_EQ(create_tmpfile(path("plain").c_str()), nullptr);
    EXPECT_EQ(errno, EINVAL) << "not that of the removal";
}

}  // namespace
