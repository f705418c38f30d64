// SPDX-License-Identifier: MIT
// Content of files: what does not fit, what the system refuses, what is not a regular file, and writers that are killed.
#include <vxutils/file.h>

#include <fcntl.h>
#include <sys/inotify.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <syslog.h>
#include <termios.h>
#include <unistd.h>
#include <vxutils/strutil.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <limits>
#include <optional>
#include <random>
#include <thread>

#include "support/call_hooks.h"
#include "support/close_on_exec.h"
#include "support/emulation.h"
#include "support/file_dir.h"
#include "support/files.h"
#include "support/large_files.h"
#include "support/process.h"
#include "support/syslog_capture.h"

// The library's allocator of zeroed records, and the C library's copies of texts.
VXTEST_HOOK(void *, zalloc, (size_t size), (size))
VXTEST_HOOK(char *, strndup, (const char *text, size_t most), (text, most))
VXTEST_HOOK(ssize_t, write, (int fd, const void *data, size_t size), (fd, data, size))

// A huge request is to fail as it does without the sanitizer.
extern "C" const char *__asan_default_options();
extern "C" const char *__asan_default_options() { return "allocator_may_return_null=1"; }

namespace {

using namespace vxtest::filedir;
using vxtest::LogLine;
using vxtest::readFile;
using vxtest::writeFile;
using namespace std::string_literals;

using WriteFileAtomic = Files;
using Writefile = Files;
using Readfile = Files;
using CreateTmpfile = Files;

// ---- write_file_atomic

TEST_F(WriteFileAtomic, PrefixesAreComparedByTheirOwnLength) {
    vxtest::SyslogCapture log;
    vxtest::makeDirs("/device");
    vxtest::makeDirs("/de");
    EXPECT_EQ(write_file_atomic("/device/x", "1", 1, 0, 1), 0);
    EXPECT_EQ(log.take(),
              (std::vector<LogLine>{{LOG_INFO, "Non atomic fallback used for writing to file (/device/x)"}}));
    EXPECT_EQ(write_file_atomic("/de/x", "1", 1, 0, 0), 0);
    EXPECT_EQ(write_file_atomic("/tmp/../tmp/file/x", "1", 1, 0, 0), 0);
    EXPECT_TRUE(log.take().empty());
}

TEST_F(WriteFileAtomic, ADirectWriteTruncatesAndKeepsTheMode) {
    writeFile("/dev/shm/direct", "old and longer");
    ::chmod("/dev/shm/direct", 0640);
    EXPECT_EQ(write_file_atomic("/dev/shm/direct", "new", 3, 1, 1), 0);
    EXPECT_EQ(readFile("/dev/shm/direct"), "new\n");
    EXPECT_EQ(modeOf("/dev/shm/direct"), 0640u);
    ::unlink("/dev/shm/direct");
    const mode_t before = ::umask(0007);
    EXPECT_EQ(write_file_atomic("/dev/shm/direct", nullptr, 0, 1, 1), 0);
    ::umask(before);
    EXPECT_EQ(readFile("/dev/shm/direct"), "\n");
    EXPECT_EQ(modeOf("/dev/shm/direct"), 0660u);
    ::unlink("/dev/shm/direct");
}

TEST_F(WriteFileAtomic, ADirectWriteThatFailsIsReported) {
    vxtest::SyslogCapture log;
    for (const int newline : {0, 1}) {
        errno = 0;
        EXPECT_EQ(write_file_atomic("/dev/full", "x", 1, newline, 1), -1);
        EXPECT_EQ(errno, ENOSPC);
        EXPECT_EQ(log.take(),
                  (std::vector<LogLine>{
                      {LOG_ERR, "Unable to write to file (/dev/full) - errno=28(No space left on device)"}}));
    }
}

TEST_F(WriteFileAtomic, ADirectWriteThatCannotOpenIsReported) {
    vxtest::SyslogCapture log;
    EXPECT_EQ(write_file_atomic("/dev/none/x", "x", 1, 1, 1), -1);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(log.take(),
              (std::vector<LogLine>{
                  {LOG_ERR, "Unable to open file (/dev/none/x) for writing - errno=2(No such file or directory)"}}));
    for (const std::string target : {"/dev/null/", "/dev/none/"}) {
        EXPECT_EQ(write_file_atomic(target.c_str(), "x", 1, 1, 1), -1);
        EXPECT_EQ(errno, EISDIR);
        EXPECT_EQ(log.take(), (std::vector<LogLine>{{LOG_ERR, "Unable to open file (" + target +
                                                                  ") for writing - errno=21(Is a directory)"}}));
    }
    EXPECT_EQ(write_file_atomic("/dev/null/x", "x", 1, 1, 1), -1);
    EXPECT_EQ(errno, ENOTDIR);
    EXPECT_EQ(
        log.take(),
        (std::vector<LogLine>{{LOG_ERR, "Unable to open file (/dev/null/x) for writing - errno=20(Not a directory)"}}));
}

TEST_F(WriteFileAtomic, ASizeThatLeavesNoRoomForTheNewlineIsNoMemory) {
    vxtest::SyslogCapture log;
    EXPECT_EQ(write_file_atomic("/dev/shm/direct", "x", SIZE_MAX, 1, 1), -1);
    EXPECT_EQ(errno, ENOMEM);
    EXPECT_EQ(log.take(), (std::vector<LogLine>{{LOG_ERR,
                                                 "Unable to write to file (/dev/shm/direct) - errno=12(Cannot allocate "
                                                 "memory)"}}));
    ::unlink("/dev/shm/direct");
}

TEST_F(WriteFileAtomic, ANameThatMemoryDoesNotHoldTwiceIsReported) {
    if (vxtest::emulated()) GTEST_SKIP() << "the emulator does not pass the limit on";
    vxtest::HugeText name;
    vxtest::SyslogCapture log;
    EXPECT_EQ(vxtest::inChild([&] {
                  const rlimit none{0, 0};
                  if (::setrlimit(RLIMIT_AS, &none) != 0) return 100;
                  return write_file_atomic(name.c_str(), "x", 1, 0, 1) == -1 && errno == ENOMEM ? 0 : 1;
              }),
              0);
    EXPECT_EQ(log.take(), (std::vector<LogLine>{{LOG_ERR, "Unable to allocate temporary filename (out of memory?)"}}));
}

// A name so long that only the temporary file's is too long for a directory entry.
const std::string longName(250, 'n');

TEST_F(WriteFileAtomic, WithoutATemporaryFileBitZeroOfTheFallbackWritesDirectly) {
    const std::string target = path(longName);
    vxtest::SyslogCapture log;
    EXPECT_EQ(write_file_atomic(target.c_str(), "x", 1, 1, 1), 0);
    EXPECT_EQ(readFile(target), "x\n");
    EXPECT_EQ(log.take(),
              (std::vector<LogLine>{{LOG_INFO, "Non atomic fallback used for writing to file (" + target + ")"}}));
    EXPECT_EQ(write_file_atomic(target.c_str(), "y", 1, 0, 3), 0);
    EXPECT_EQ(readFile(target), "y");
}

TEST_F(WriteFileAtomic, WithoutATemporaryFileOtherFallbackValuesFail) {
    const std::string target = path(longName);
    for (const unsigned char fallback : {0, 2, 254}) {
        vxtest::SyslogCapture log;
        EXPECT_EQ(write_file_atomic(target.c_str(), "x", 1, 1, fallback), -1);
        EXPECT_EQ(errno, ENAMETOOLONG);
        const auto lines = log.take();
        ASSERT_EQ(lines.size(), 1u);
        EXPECT_EQ(lines[0].priority, LOG_ERR);
        EXPECT_THAT(lines[0].text, testing::MatchesRegex("Unable to open tempfile \\(" + target +
                                                         "_.{6}\\) for writing - errno=36\\(File name too long\\)"));
        EXPECT_FALSE(vxtest::exists(target));
    }
}

// Runs `body` in a child whose files may not grow beyond `limit` bytes.
int withFileSizeLimit(rlim_t limit, const std::function<int()> &body) {
    return vxtest::inChild([&] {
        std::signal(SIGXFSZ, SIG_IGN);
        const rlimit size{limit, limit};
        if (::setrlimit(RLIMIT_FSIZE, &size) != 0) return 100;
        return body();
    });
}

TEST_F(WriteFileAtomic, AShortWriteFailsShowsErrnoAsItStandsAndLeavesTheTemporaryFile) {
    writeFile(path("state"), "old");
    vxtest::SyslogCapture log;
    EXPECT_EQ(withFileSizeLimit(4,
                                [] {
                                    errno = ENOTTY;
                                    const int result = write_file_atomic(path("state").c_str(), "longer", 6, 1, 1);
                                    return result == -1 && errno == ENOTTY ? 0 : 1;
                                }),
              0);
    EXPECT_EQ(readFile(path("state")), "old");
    const auto left = temporaries(path("state"));
    ASSERT_EQ(left.size(), 1u);
    EXPECT_EQ(readFile(left[0]), "long");
    EXPECT_EQ(log.take(), (std::vector<LogLine>{{LOG_ERR, "Unable to write to tempfile (" + left[0] +
                                                              ") - errno=25(Inappropriate ioctl for device)"}}));
}

TEST_F(WriteFileAtomic, ANewlineThatDoesNotFitFailsAndLeavesTheTemporaryFile) {
    writeFile(path("state"), "old");
    vxtest::SyslogCapture log;
    EXPECT_EQ(withFileSizeLimit(6,
                                [] {
                                    const int result = write_file_atomic(path("state").c_str(), "longer", 6, 1, 1);
                                    return result == -1 && errno == EFBIG ? 0 : 1;
                                }),
              0);
    EXPECT_EQ(readFile(path("state")), "old");
    const auto left = temporaries(path("state"));
    ASSERT_EQ(left.size(), 1u);
    EXPECT_EQ(readFile(left[0]), "longer");
    EXPECT_EQ(
        log.take(),
        (std::vector<LogLine>{{LOG_ERR, "Unable to write to tempfile (" + left[0] + ") - errno=27(File too large)"}}));
}

TEST_F(WriteFileAtomic, ContentThatJustFitsIsWritten) {
    EXPECT_EQ(
        withFileSizeLimit(7, [] { return write_file_atomic(path("state").c_str(), "longer", 6, 1, 1) == 0 ? 0 : 1; }),
        0);
    EXPECT_EQ(readFile(path("state")), "longer\n");
}

TEST_F(WriteFileAtomic, AShortDirectWriteFails) {
    vxtest::SyslogCapture log;
    EXPECT_EQ(withFileSizeLimit(6,
                                [] {
                                    errno = 0;
                                    return write_file_atomic("/dev/shm/direct", "longer", 6, 1, 1) == -1 ? 0 : 1;
                                }),
              0);
    EXPECT_EQ(readFile("/dev/shm/direct"), "longer");
    EXPECT_EQ(log.take(),
              (std::vector<LogLine>{{LOG_ERR, "Unable to write to file (/dev/shm/direct) - errno=0(Success)"}}));
    ::unlink("/dev/shm/direct");
}

TEST_F(WriteFileAtomic, ADirectWriteIntoAFifoNeitherWaitsNorRaisesSigpipe) {
    const std::string fifo = "/dev/shm/fifo";
    ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
    vxtest::SyslogCapture log;
    EXPECT_EQ(vxtest::inChild([&] {
                  ::alarm(20);
                  const int reader = ::open(fifo.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
                  const std::string piece(4095, 'x');
                  int taken = 0;
                  while (taken < 1000 && writefile(fifo.c_str(), piece.c_str()) == 0) ++taken;
                  if (taken == 0 || errno != EAGAIN) return 1;
                  const vxtest::Hooked leaves(vxtest::hooks::write, [&](const auto &...) -> std::optional<ssize_t> {
                      ::close(reader);
                      return std::nullopt;
                  });
                  return writefile(fifo.c_str(), "x") == -1 && errno == EPIPE ? 0 : 2;
              }),
              0);
    std::vector<LogLine> failures;
    for (const LogLine &line : log.take()) {
        if (line.priority == LOG_ERR) failures.push_back(line);
    }
    const std::string start = "Unable to write to file (" + fifo + ") - errno=";
    EXPECT_EQ(failures, (std::vector<LogLine>{{LOG_ERR, start + "11(Resource temporarily unavailable)"},
                                              {LOG_ERR, start + "32(Broken pipe)"}}));
    ::unlink(fifo.c_str());
}

// A terminal takes a few KiB; the rest has to wait until they are read.
TEST_F(WriteFileAtomic, ADirectWriteWaitsUntilADeviceHasTakenIt) {
    const int master = ::posix_openpt(O_RDWR | O_NOCTTY);
    ASSERT_NE(master, -1);
    ASSERT_EQ(::grantpt(master), 0);
    ASSERT_EQ(::unlockpt(master), 0);
    const std::string name = ::ptsname(master);
    const int slave = ::open(name.c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC);
    termios settings{};
    ASSERT_EQ(::tcgetattr(slave, &settings), 0);
    ::cfmakeraw(&settings);
    ASSERT_EQ(::tcsetattr(slave, TCSANOW, &settings), 0);

    const std::string data(100000, 'x');
    std::string taken;
    std::thread reader([&] {
        ::usleep(50000);
        char piece[4096];
        for (ssize_t got = 1; got > 0 && taken.size() < data.size();) {
            got = ::read(master, piece, sizeof piece);
            if (got > 0) taken.append(piece, static_cast<size_t>(got));
        }
    });
    const int result = write_file_atomic(name.c_str(), data.data(), data.size(), 0, 1);
    if (result != 0) ::close(slave);  // ends the reader
    EXPECT_EQ(result, 0) << std::strerror(errno);
    reader.join();
    EXPECT_EQ(taken.size(), data.size());
    if (result == 0) ::close(slave);
    ::close(master);
}

// Watchers of a directory see a file whose writer has closed it, under each of its names.
TEST_F(WriteFileAtomic, TheTemporaryFileIsClosedBeforeItGetsTheName) {
    const int watch = ::inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
    ASSERT_NE(::inotify_add_watch(watch, dir.c_str(), IN_CREATE | IN_CLOSE_WRITE | IN_MOVED_TO), -1);
    EXPECT_EQ(write_file_atomic(path("state").c_str(), "new", 3, 1, 0), 0);
    alignas(inotify_event) char events[4096];
    const ssize_t size = ::read(watch, events, sizeof events);
    ::close(watch);
    std::vector<uint32_t> seen;
    for (ssize_t at = 0; at < size;) {
        const auto *event = static_cast<const inotify_event *>(static_cast<const void *>(events + at));
        seen.push_back(event->mask);
        at += static_cast<ssize_t>(sizeof *event + event->len);
    }
    EXPECT_EQ(seen, (std::vector<uint32_t>{IN_CREATE, IN_CLOSE_WRITE, IN_MOVED_TO}));
}

TEST_F(WriteFileAtomic, AFullFileSystemKeepsTheOldContent) {
    const std::string disk = "/tmp/full";
    vxtest::makeDirs(disk);
    ASSERT_EQ(::mount("tmpfs", disk.c_str(), "tmpfs", 0, "size=64k"), 0);
    ASSERT_EQ(write_file_atomic((disk + "/state").c_str(), "old", 3, 0, 0), 0);
    const std::string big(50000, 'b');
    ASSERT_EQ(write_file_atomic((disk + "/filler").c_str(), big.data(), big.size(), 0, 0), 0);
    vxtest::SyslogCapture log;
    EXPECT_EQ(write_file_atomic((disk + "/state").c_str(), big.data(), big.size(), 1, 1), -1);
    EXPECT_EQ(readFile(disk + "/state"), "old");
    const auto left = temporaries(disk + "/state");
    ASSERT_EQ(left.size(), 1u);
    EXPECT_EQ(log.take().at(0).text.rfind("Unable to write to tempfile (" + left[0] + ") - errno=", 0), 0u);
    ASSERT_EQ(::umount(disk.c_str()), 0);
}

TEST_F(WriteFileAtomic, ReadersSeeTheOldOrTheNewContentNeverAMixture) {
    const std::string old(20000, 'o');
    const std::string fresh(31000, 'n');
    const std::string target = path("state");
    writeFile(target, old);
    std::atomic<bool> stop{false};
    std::thread writer([&] {
        for (int i = 0; i < 500; ++i) {
            const std::string &content = i % 2 == 0 ? fresh : old;
            EXPECT_EQ(write_file_atomic(target.c_str(), content.data(), content.size(), 0, 0), 0);
        }
        stop = true;
    });
    int reads = 0;
    std::vector<char> buffer(40000);
    while (!stop || reads == 0) {
        const std::string seen = readfile_r(target.c_str(), buffer.data(), buffer.size());
        ASSERT_TRUE(seen == old || seen == fresh) << seen.size();
        ++reads;
    }
    writer.join();
}

// Whatever the moment of its death, a writer leaves the target whole.
TEST_F(WriteFileAtomic, AKilledWriterLeavesTheOldOrTheNewContent) {
    const std::string target = path("state");
    const std::vector<std::string> contents{std::string(30000, 'a'), std::string(17000, 'b')};
    writeFile(target, contents[0]);
    std::mt19937 random(4711);
    int replaced = 0;
    int interrupted = 0;
    for (int round = 0; round < 400; ++round) {
        const pid_t writer = vxtest::startChild([&] {
            for (size_t i = static_cast<size_t>(round);; ++i) {
                const std::string &content = contents[i % 2];
                if (write_file_atomic(target.c_str(), content.data(), content.size(), 0, 0) != 0) return 1;
            }
        });
        ::usleep(random() % 3000);
        ::kill(writer, SIGKILL);
        ASSERT_EQ(vxtest::waitChild(writer), 128 + SIGKILL);
        const std::string seen = readFile(target);
        ASSERT_TRUE(seen == contents[0] || seen == contents[1]) << "round " << round << ", " << seen.size() << " bytes";
        if (modeOf(target) == 0600) ++replaced;
        for (const std::string &name : temporaries(target)) {
            ++interrupted;
            ::unlink(name.c_str());
        }
    }
    EXPECT_GT(replaced, 0);
    EXPECT_GT(interrupted, 0) << "no writer was killed between its first and its last step";
}

// ---- writefile

TEST_F(Writefile, AFileThatCannotBeRemovedIsReported) {
    vxtest::makeDirs(path("folder"));
    vxtest::SyslogCapture log;
    EXPECT_EQ(writefile(path("folder").c_str(), ""), -1);
    EXPECT_EQ(errno, EISDIR);
    EXPECT_EQ(log.take(), (std::vector<LogLine>{{LOG_ERR, "Unable to unlink status file - errno=21(Is a directory)"}}));
    ::rmdir(path("folder").c_str());
}

// ---- readfile

TEST_F(Readfile, ReadsFilesLargerThanOnePiece) {
    std::string text;
    for (int i = 0; i < 5000; ++i) text += std::to_string(i) + "\n";
    EXPECT_EQ(read(text, 100000), text.substr(0, text.size() - 1));
    EXPECT_EQ(read(text, 10000), text.substr(0, 9999));
    const std::string line(20000, 'x');
    EXPECT_EQ(read(line, 10000), line.substr(0, 9999));
    EXPECT_EQ(read(line, 30000), line);
}

TEST_F(Readfile, WhatIsNotARegularFileIsEmptyAndNeverWaitedFor) {
    ASSERT_EQ(::mkfifo(path("fifo").c_str(), 0600), 0);
    ASSERT_EQ(::symlink("fifo", path("link").c_str()), 0);
    ASSERT_EQ(::symlink("/dev/zero", path("zeros").c_str()), 0);
    ASSERT_EQ(vxtest::inChild([] {
                  ::alarm(20);
                  for (const std::string name : {path("fifo"), path("link"), path("zeros"), "/dev/zero"s}) {
                      if (*readfile(name.c_str()) != '\0' || errno != ENXIO) return 1;
                      list_link lines{&lines, &lines};
                      if (read_file_lines(name.c_str(), &lines) != READFILE_OPEN_FAILED) return 2;
                  }
                  return 0;
              }),
              0);
    // Its bytes are its reader's.
    const int fifo = ::open(path("fifo").c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC);
    EXPECT_EQ(::write(fifo, "one\n", 4), 4);
    EXPECT_STREQ(readfile(path("fifo").c_str()), "");
    char bytes[8];
    EXPECT_EQ(::read(fifo, bytes, sizeof bytes), 4);
    ::close(fifo);
}

// A driver may act when its device is opened: a watchdog starts, a line is raised.
TEST_F(Readfile, ALinkToADeviceDoesNotOpenIt) {
    ASSERT_EQ(::symlink("/dev/null", path("link").c_str()), 0);
    const int watch = ::inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
    ASSERT_NE(::inotify_add_watch(watch, "/dev/null", IN_OPEN), -1);
    EXPECT_STREQ(readfile(path("link").c_str()), "");
    char event[256];
    EXPECT_EQ(::read(watch, event, sizeof event), -1);
    EXPECT_STREQ(readfile("/dev/null"), "");
    EXPECT_GT(::read(watch, event, sizeof event), 0) << "a device whose own name is given is opened";
    ::close(watch);
}

// As many as the kernel follows in one path.
TEST_F(Readfile, FortyLinksAreFollowedAndNoMore) {
    writeFile(path("link0"), "42");
    for (int i = 1; i <= 41; ++i) {
        ASSERT_EQ(::symlink(("link" + std::to_string(i - 1)).c_str(), path("link" + std::to_string(i)).c_str()), 0);
    }
    EXPECT_STREQ(readfile(path("link40").c_str()), "42");
    EXPECT_STREQ(readfile(path("link41").c_str()), "");
    EXPECT_EQ(errno, ELOOP);
    EXPECT_EQ(copy_file(path("link40").c_str(), path("copy").c_str()), 0);
    writeFile(path("new"), "43");
    EXPECT_EQ(copy_file(path("new").c_str(), path("link41").c_str()), -1);
    EXPECT_EQ(errno, ELOOP);
    EXPECT_EQ(readFile(path("link0")), "42");
    EXPECT_EQ(copy_file(path("new").c_str(), path("link40").c_str()), 0);
    EXPECT_EQ(readFile(path("link0")), "43");
    for (int i = 41; i >= 0; --i) ::unlink(path("link" + std::to_string(i)).c_str());

    writeFile(path("folder/file"), "");
    ASSERT_EQ(::symlink("folder", path("link1").c_str()), 0);
    for (int i = 2; i <= 41; ++i) {
        ASSERT_EQ(::symlink(("link" + std::to_string(i - 1)).c_str(), path("link" + std::to_string(i)).c_str()), 0);
    }
    EXPECT_EQ(delete_directory_contents(path("link41").c_str()), 0);
    EXPECT_TRUE(vxtest::exists(path("folder/file")));
    EXPECT_EQ(delete_directory_contents(path("link40").c_str()), 0);
    EXPECT_FALSE(vxtest::exists(path("folder/file")));
    ::rmdir(path("folder").c_str());
}

// Only the kernel can follow its links in /proc: their texts need not be paths.
TEST_F(Readfile, TheKernelsLinksLeadToFilesWithoutAName) {
    writeFile(path("value"), "42");
    const int file = ::open(path("value").c_str(), O_RDWR | O_CLOEXEC);
    ::unlink(path("value").c_str());
    const std::string link = "/proc/self/fd/" + std::to_string(file);
    EXPECT_STREQ(readfile(link.c_str()), "42");
    ASSERT_EQ(::symlink(link.c_str(), path("own").c_str()), 0);
    EXPECT_STREQ(readfile(path("own").c_str()), "42");
    EXPECT_EQ(write_file_atomic(link.c_str(), "43", 2, 0, 1), 0);
    EXPECT_STREQ(readfile(link.c_str()), "43");
    writeFile(path("new"), "44");
    EXPECT_EQ(copy_file(path("new").c_str(), path("own").c_str()), 0);
    EXPECT_STREQ(readfile(link.c_str()), "44");
    ::close(file);

    writeFile(path("folder/file"), "");
    const int folder = ::open(path("folder").c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    EXPECT_EQ(delete_directory_contents(("/proc/self/fd/" + std::to_string(folder)).c_str()), 0);
    EXPECT_FALSE(vxtest::exists(path("folder/file")));
    ::close(folder);
    ::rmdir(path("folder").c_str());
}

TEST_F(Readfile, ASparseFileIsNotReadForEver) {
    const vxtest::LargeFiles largeFiles;
    writeFile(path("value"), "");
    off_t size = std::numeric_limits<off_t>::max() & ~off_t{0xffff};
    while (::truncate(path("value").c_str(), size) == -1) size /= 2;
    ASSERT_GT(size, off_t{1} << 40);
    vxtest::SyslogCapture log;
    EXPECT_EQ(vxtest::inChild([] {
                  ::alarm(60);
                  return *readfile(path("value").c_str()) == '\0' ? 0 : 1;
              }),
              0);
    EXPECT_EQ(vxtest::inChild([] {
                  ::alarm(60);
                  list_link lines{&lines, &lines};
                  return read_file_lines(path("value").c_str(), &lines) == READFILE_OUT_OF_MEMORY ? 0 : 1;
              }),
              0);
    EXPECT_EQ(log.take(), (std::vector<LogLine>{{LOG_ERR, "Zalloc failed, errno: File too large"}}));
}

// 1 MiB of a file may be hidden by NUL bytes, and not more.
TEST_F(Readfile, WhatFollowsAMebibyteOfNulBytesIsFound) {
    constexpr size_t most = 1024 * 1024;
    EXPECT_EQ(read(std::string(most, '\0') + "\n42\n", 10), "42");
    EXPECT_EQ(read(std::string(most + 8192, '\0') + "\n42\n", 10), "");
}

// The real user decides, as it does for access().
TEST_F(Readfile, AFileThatTheRealUserMayNotReadIsEmpty) {
    if (!vxtest::hasOtherUsers()) GTEST_SKIP() << "a box made by an ordinary user has no other";
    writeFile(path("secret"), "42");
    ::chmod(path("secret").c_str(), 0600);
    EXPECT_EQ(vxtest::inChild([] {
                  if (::setresuid(12345, 0, 0) != 0) return 100;
                  return *readfile(path("secret").c_str()) == '\0' ? 0 : 1;
              }),
              0);
    ::chmod(path("secret").c_str(), 0644);
    EXPECT_EQ(vxtest::inChild([] {
                  if (::setresuid(12345, 12345, 12345) != 0) return 100;
                  return std::strcmp(readfile(path("secret").c_str()), "42") == 0 ? 0 : 1;
              }),
              0);
}

// What the whole buffer shows, and the result in it.
struct ReadText {
    std::string buffer;
    std::string result;
    bool operator==(const ReadText &) const = default;
};

ReadText readWhole(const std::string &name, size_t size) {
    vxtest::GuardedBuffer buffer(size);
    const char *result = readfile_r(name.c_str(), buffer.data(), size);
    return {buffer.data(), result};
}

// The definition, written with the C library's line reader.
ReadText readLineWise(const std::string &name, size_t size) {
    std::string buf(size, '\0');
    FILE *file = std::fopen(name.c_str(), "r");
    size_t used = 0;
    int lines = 0;
    while (std::feof(file) == 0 && used < size - 1) {
        if (std::fgets(buf.data() + used, static_cast<int>(size - used), file) == nullptr) break;
        const size_t now = std::strlen(buf.c_str());
        if (now > used) ++lines;
        used = now;
    }
    std::fclose(file);
    if (lines == 1 && buf[used - 1] == '\n') buf[used - 1] = '\0';
    const char *result = stripwhite(buf.data());
    return {buf.c_str(), result};
}

TEST_F(Readfile, ReadsAnyBytesAsALineReaderDoes) {
    std::mt19937 random(42);
    const std::string bytes = "\n\n\0\0 ab\r"s;
    for (int round = 0; round < 3000; ++round) {
        std::string content(random() % 40, '\0');
        if (round % 50 == 0) content.resize(4090 + random() % 20);
        for (char &c : content) c = bytes[random() % bytes.size()];
        const size_t size = round % 50 == 0 ? 5000 : 2 + random() % 40;
        writeFile(path("value"), content);
        ASSERT_EQ(readWhole(path("value"), size), readLineWise(path("value"), size)) << testing::PrintToString(content);
    }
}

// Callers that look at their buffer instead of the result see no newline either.
TEST_F(Readfile, TheNewlineOfASingleLineIsNotInTheBuffer) {
    const auto bufferFor = [](const std::string &content) {
        writeFile(path("value"), content);
        return readWhole(path("value"), 16).buffer;
    };
    EXPECT_EQ(bufferFor("\n"), "");
    EXPECT_EQ(bufferFor(" \n"), " ");
    EXPECT_EQ(bufferFor("\0hidden\n\n"s), "") << "a line without text does not count";
    EXPECT_EQ(bufferFor("\n\n"), "\n\n");
}

// ---- read_file_lines

TEST_F(ReadFileLines, WithoutMemoryTheLinesReadSoFarStay) {
    vxtest::SyslogCapture log;
    {
        const vxtest::Hooked twoLeft(vxtest::hooks::zalloc, vxtest::answering<void *>(nullptr, ENOMEM, 2));
        EXPECT_EQ(readLines("one\ntwo\nthree\n"), READFILE_OUT_OF_MEMORY);
    }
    EXPECT_EQ(texts(), (std::vector<std::string>{"one", "two"}));
    EXPECT_EQ(log.take(), (std::vector<LogLine>{{LOG_ERR, "Zalloc failed, errno: Cannot allocate memory"}}));
}

TEST_F(ReadFileLines, ALineThatThereIsNoMemoryForIsAnEntryWithoutText) {
    vxtest::SyslogCapture log;
    {
        const vxtest::Hooked full(vxtest::hooks::strndup, vxtest::answering<char *>(nullptr, ENOMEM));
        EXPECT_EQ(readLines("one\ntwo\n"), 2);
    }
    for (const list_link *at = lines_.next; at != &lines_; at = at->next) {
        EXPECT_EQ(reinterpret_cast<const file_line *>(at)->data, nullptr);
    }
    EXPECT_TRUE(log.take().empty());
}

// 32 MiB, of which each line takes its bytes and its records.
TEST_F(ReadFileLines, AFileOfTooManyLinesCountsAsOutOfMemory) {
    const std::string line = std::string(1000, 'x') + "\n";
    constexpr int most = 32 * 1024 * 1024 / (1001 + static_cast<int>(sizeof(file_line) + 4 * sizeof(void *)));
    std::string text;
    for (int i = 0; i < most; ++i) text += line;
    EXPECT_EQ(readLines(text), most);
    vxtest::SyslogCapture log;
    EXPECT_EQ(readLines(text + line), READFILE_OUT_OF_MEMORY);
    EXPECT_EQ(errno, EFBIG);
    EXPECT_EQ(log.take(), (std::vector<LogLine>{{LOG_ERR, "Zalloc failed, errno: File too large"}}));
}

// ---- all of them

using FileDescriptors = ReadFileLines;

TEST_F(FileDescriptors, NoneIsInheritedAcrossExec) {
    ASSERT_EQ(::symlink("value", path("link").c_str()), 0);
    ASSERT_EQ(::symlink("link", path("chain").c_str()), 0);
    ASSERT_EQ(::symlink(path("value").c_str(), "/dev/shm/direct"), 0);
    const std::string target = path(longName);
    const vxtest::ClosesOnExec closesOnExec;
    EXPECT_EQ(writefile(path("value").c_str(), "192.0.2.7"), 0);
    EXPECT_EQ(writefile("/dev/shm/direct", "192.0.2.7"), 0);
    for (int i = 0; i < 2; ++i) EXPECT_EQ(writefile(target.c_str(), "made, then written again"), 0);
    EXPECT_STREQ(readfile(path("value").c_str()), "192.0.2.7");
    EXPECT_STREQ(readfile(path("chain").c_str()), "192.0.2.7");
    EXPECT_EQ(read_file_lines(path("value").c_str(), &lines_), 1);
    EXPECT_NE(create_tmpfile(path("work_XXXXXX").c_str()), nullptr);
    ::unlink("/dev/shm/direct");
}

// ---- create_tmpfile

TEST_F(CreateTmpfile, APatternIsCutAtTheBuffersEnd) {
    std::string pattern = dir;
    while (pattern.size() < 1017) pattern += "/.";
    pattern.resize(1016);
    pattern += "/XXXXXX";
    ASSERT_EQ(pattern.size(), 1023u);
    const char *name = create_tmpfile(pattern.c_str());
    ASSERT_NE(name, nullptr);
    EXPECT_EQ(std::strlen(name), 1023u);
    EXPECT_EQ(create_tmpfile(("/" + pattern).c_str()), nullptr);
}

}  // namespace
