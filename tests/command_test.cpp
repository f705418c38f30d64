// SPDX-License-Identifier: MIT
// Running programs, in the foreground and detached; their output; command lines; restart and power-off.
#include <dlfcn.h>
#include <fcntl.h>
#include <linux/capability.h>
#include <sys/ipc.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/reboot.h>
#include <sys/resource.h>
#include <sys/shm.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>
#include <vxutils/command.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <random>
#include <sstream>
#include <thread>

#include "support/emulation.h"
#include "support/files.h"
#include "support/interruptions.h"
#include "support/process.h"
#include "support/resources.h"
#include "support/syscall_filter.h"
#include "support/syslog_capture.h"

// The kernel's restart is out of a test's reach: the box has no capability for it, and this program has this function
// in the place of the C library's. It records what it was asked for.
namespace {
std::vector<int> rebootCommands;
}
extern "C" const char *__asan_default_options();
extern "C" const char *__asan_default_options() { return "allocator_may_return_null=1"; }
extern "C" int reboot(int command) noexcept {
    rebootCommands.push_back(command);
    return 0;
}

// The segments that are asked for, on their way to the kernel.
namespace {
struct SegmentRequest {
    key_t key;
    size_t size;
    int flags;
    bool operator==(const SegmentRequest &) const = default;
};
std::vector<SegmentRequest> segmentRequests;
// Added to the wall-clock time that the library sees.
std::atomic<time_t> clockStep_s = 0;
#ifdef SYS_clock_gettime64
constexpr long clockCall = SYS_clock_gettime64;  // this tree's time_t has 64 bits on 32-bit machines, too
#else
constexpr long clockCall = SYS_clock_gettime;
#endif
}  // namespace
extern "C" int clock_gettime(clockid_t clock, timespec *time) noexcept {
    const auto result = static_cast<int>(::syscall(clockCall, clock, time));
    if (clock == CLOCK_REALTIME) time->tv_sec += clockStep_s;
    return result;
}
extern "C" int shmget(key_t key, size_t size, int flags) noexcept {
    segmentRequests.push_back({key, size, flags});
    return static_cast<int>(::syscall(SYS_shmget, key, size, flags));
}

namespace {

using vxtest::LogLine;
using vxtest::readFile;
using vxtest::writeFile;

const char *const noMore = nullptr;

const std::string dir = "/tmp/command";

std::string path(const std::string &name) { return dir + "/" + name; }

// Segments of this IPC namespace; a detached start must not leave one.
int segments() {
    std::ifstream table("/proc/sysvipc/shm");
    int lines = -1;
    for (std::string line; std::getline(table, line);) ++lines;
    return lines;
}

class Commands : public testing::Test {
protected:
    void SetUp() override {
        vxtest::run({"rm", "-rf", dir});
        vxtest::makeDirs(dir);
        ASSERT_EQ(::chdir(dir.c_str()), 0);
        ASSERT_EQ(segments(), 0);
    }
    // One that is removed lives on until the detached program, still attached, has been started.
    void TearDown() override {
        EXPECT_TRUE(vxtest::eventually([] { return segments() == 0; }));
    }

    vxtest::NoLeaks noLeaks_;
};

// ---- _exec_command: waiting ----

using ExecCommand = Commands;

TEST_F(ExecCommand, ReturnsTheExitCode) {
    vxtest::SyslogCapture log;
    EXPECT_EQ(_exec_command(0, "/bin/sh", "sh", "-c", "exit 0", noMore), 0);
    EXPECT_EQ(_exec_command(2, "/bin/sh", "sh", "-c", "exit 3", noMore), 3);
    EXPECT_EQ(_exec_command(0, "/bin/sh", "sh", "-c", "exit 255", noMore), 255);
    EXPECT_TRUE(log.take().empty());
}

TEST_F(ExecCommand, AProgramThatCannotBeStartedExitsWithTheErrorNumber) {
    EXPECT_EQ(_exec_command(0, "/none", "none", noMore), ENOENT);
    EXPECT_EQ(_exec_command(0, "/", "none", noMore), EACCES);
    EXPECT_EQ(_exec_command(0, "sh", "sh", noMore), ENOENT) << "a path is not a name to search for";
}

TEST_F(ExecCommand, APathIsNeeded) {
    EXPECT_EQ(_exec_command(0, nullptr, "x", noMore), -1);
    EXPECT_EQ(_exec_command(0, "", "x", noMore), -1);
    EXPECT_EQ(_exec_command(1, "", "x", noMore), -1);
}

TEST_F(ExecCommand, TakesFifteenArgumentsAfterArgumentZero) {
    const std::string list = "printf '%s ' \"$0\" \"$@\" >" + path("words");
    EXPECT_EQ(_exec_command(0, "/bin/sh", "sh", "-c", list.c_str(), "3", "4", "5", "6", "7", "8", "9", "10", "11", "12",
                            "13", "14", "15", noMore),
              0);
    EXPECT_EQ(readFile(path("words")), "3 4 5 6 7 8 9 10 11 12 13 14 15 ");
}

TEST_F(ExecCommand, RefusesSixteen) {
    vxtest::SyslogCapture log;
    for (const int mode : {0, 1}) {
        EXPECT_EQ(_exec_command(mode, "/bin/sh", "sh", "1", "2", "3", "4", "5", "6", "7", "8", "9", "10", "11", "12",
                                "13", "14", "15", "16", noMore),
                  -1);
        EXPECT_EQ(log.take(), (std::vector<LogLine>{{LOG_ERR, "Too many arguments"}}));
    }
    // They are counted before the path is looked at.
    EXPECT_EQ(_exec_command(0, nullptr, "x", "1", "2", "3", "4", "5", "6", "7", "8", "9", "10", "11", "12", "13", "14",
                            "15", "16", noMore),
              -1);
    EXPECT_EQ(log.take(), (std::vector<LogLine>{{LOG_ERR, "Too many arguments"}}));
}

TEST_F(ExecCommand, WithoutArgumentZeroNoWordIsRead) {
    // The kernel puts an empty argument 0 in place, or refuses; either way nothing else is taken.
    writeFile(path("count"), "#!/bin/sh\necho $# >" + path("number") + "\n");
    ::chmod(path("count").c_str(), 0755);
    _exec_command(0, path("count").c_str(), nullptr, "a", "b", noMore);
    const std::string counted = readFile(path("number"));
    EXPECT_TRUE(counted.empty() || counted == "0\n") << counted;
}

TEST_F(ExecCommand, AKilledProgramIsReported) {
    vxtest::SyslogCapture log;
    errno = ENOTTY;
    EXPECT_EQ(_exec_command(0, "/bin/sh", "sh", "-c", "kill -9 $$", noMore), -1);
    EXPECT_EQ(log.take(), (std::vector<LogLine>{{LOG_ERR, "child didn't exit. error: Inappropriate ioctl for device"},
                                                {LOG_DEBUG, "child terminated by signal: 9 "}}));
}

TEST_F(ExecCommand, AWaitThatFailsIsReportedAndCountsAsSuccess) {
    vxtest::SyslogCapture log;
    std::signal(SIGCHLD, SIG_IGN);
    EXPECT_EQ(_exec_command(0, "/bin/sh", "sh", "-c", "exit 3", noMore), 0);
    std::signal(SIGCHLD, SIG_DFL);
    EXPECT_EQ(log.take(),
              (std::vector<LogLine>{{LOG_ERR, "Waiting for child process failed: No child processes (10)"}}));
}

TEST_F(ExecCommand, SignalsDoNotEndTheWait) {
    vxtest::SyslogCapture log;
    const vxtest::Interruptions interruptions(5000);
    EXPECT_EQ(_exec_command(0, "/bin/sh", "sh", "-c", "sleep 0.1; exit 7", noMore), 7);
    EXPECT_GT(_exec_command(1, "/bin/true", "true", noMore), 1);
    EXPECT_GT(vxtest::Interruptions::count, 2);
    EXPECT_TRUE(log.take().empty());
    EXPECT_EQ(::waitpid(-1, nullptr, 0), -1) << "no child is left";
    EXPECT_EQ(errno, ECHILD);
}

TEST_F(ExecCommand, ChangesDirectoryAndMaskOfTheChildOnly) {
    const mode_t before = ::umask(077);
    EXPECT_EQ(run_command(("pwd >" + path("where") + "; umask >>" + path("where")).c_str(), 0), 0);
    EXPECT_EQ(::umask(before), 077u);
    EXPECT_EQ(readFile(path("where")), "/\n0022\n");
    char here[256];
    EXPECT_STREQ(::getcwd(here, sizeof here), dir.c_str());
}

// Descriptors that a program started in this mode finds open; its standard output becomes a file.
std::string openIn(int mode) {
    ::unlink(path("open").c_str());
    const std::string list = "exec >" + path("open.tmp") +
                             "; for f in /proc/self/fd/*; do [ -e $f ] && echo -n \"${f##*/} \"; done; exec mv " +
                             path("open.tmp") + " " + path("open");
    EXPECT_GE(_exec_command(mode, "/bin/sh", "sh", "-c", list.c_str(), noMore), 0);
    EXPECT_TRUE(vxtest::eventually([] { return vxtest::exists(path("open")); }));
    return readFile(path("open"));
}

TEST_F(ExecCommand, ClosesTheDescriptors) {
    // No close-on-exec: the call itself has to close them. One is above what most programs ever open.
    const int low = ::open("/dev/null", O_RDONLY);  // NOLINT(android-cloexec-open): inheritance is what is tested
    const int high = ::fcntl(low, F_DUPFD, 900);
    ASSERT_GE(high, 900);
    EXPECT_EQ(openIn(0), "0 1 2 ");
    EXPECT_EQ(openIn(2), "0 1 2 ");
    EXPECT_EQ(openIn(1), "0 1 2 ");
    EXPECT_EQ(openIn(3), "1 ") << "nothing but the file";
    EXPECT_EQ(openIn(-1), "1 ");
    ::close(low);
    ::close(high);
}

TEST_F(ExecCommand, ClosesTheDescriptorsOneByOneWhereTheKernelIsOld) {
    if (vxtest::emulated()) GTEST_SKIP() << "the emulator has no system call filters";
    EXPECT_EQ(vxtest::inChild([] {
                  const rlimit descriptors{1024, 1024};
                  if (::setrlimit(RLIMIT_NOFILE, &descriptors) != 0) return 100;
                  if (!vxtest::failSystemCall(SYS_close_range, ENOSYS) || ::close_range(1000, 1001, 0) != -1)
                      return 101;
                  if (::dup2(0, 3) != 3 || ::dup2(0, 1023) != 1023) return 102;
                  return openIn(0) == "0 1 2 " && openIn(3) == "1 " ? 0 : 1;
              }),
              0);
}

// ---- _exec_command: detached ----

std::vector<std::string> words(const std::string &text) {
    std::istringstream stream(text);
    std::vector<std::string> all;
    for (std::string word; stream >> word;) all.push_back(word);
    return all;
}

// Field of /proc/PID/stat, counted as in its manual page.
std::string statField(int pid, size_t number) {
    const std::string stat = readFile("/proc/" + std::to_string(pid) + "/stat");
    const size_t close = stat.rfind(')');
    return close == std::string::npos ? "" : words(stat.substr(close + 1)).at(number - 3);
}

TEST_F(ExecCommand, DetachedReturnsTheProgramsOwnProcessId) {
    const int pid = _exec_command(1, "/bin/sleep", "sleep", "30", noMore);
    ASSERT_GT(pid, 1);
    EXPECT_TRUE(vxtest::eventually([&] { return readFile("/proc/" + std::to_string(pid) + "/comm") == "sleep\n"; }));
    EXPECT_EQ(statField(pid, 4), "1") << "its parent is the first process";
    EXPECT_NE(statField(pid, 6), std::to_string(::getsid(0))) << "its session";
    EXPECT_EQ(vxtest::zombieChildren(), 0);
    std::error_code error;
    EXPECT_EQ(std::filesystem::read_symlink("/proc/" + std::to_string(pid) + "/cwd", error), "/") << error.message();
    EXPECT_THAT(readFile("/proc/" + std::to_string(pid) + "/status"), testing::HasSubstr("\nUmask:\t0022\n"));
    struct stat nullDevice {};
    ASSERT_EQ(::stat("/dev/null", &nullDevice), 0);
    for (const std::string stream : {"0", "1", "2"}) {
        struct stat status {};
        ASSERT_EQ(::stat(("/proc/" + std::to_string(pid) + "/fd/" + stream).c_str(), &status), 0);
        EXPECT_EQ(status.st_rdev, nullDevice.st_rdev) << stream;
    }
    ::kill(pid, SIGKILL);
}

TEST_F(ExecCommand, DetachedWorksWithoutStandardStreams) {
    EXPECT_EQ(vxtest::inChild([] {
                  for (const int fd : {0, 1, 2}) ::close(fd);
                  return run_command(("echo x >" + path("done")).c_str(), 1) > 0 ? 0 : 1;
              }),
              0);
    EXPECT_TRUE(vxtest::eventually([] { return readFile(path("done")) == "x\n"; }));
}

TEST_F(ExecCommand, ADetachedProgramThatCannotBeStartedStillHasAnId) {
    EXPECT_GT(_exec_command(1, "/none", "none", noMore), 1);
}

TEST_F(ExecCommand, DetachedStartsAreSerialisedByTheirDirectory) {
    const key_t key = ::ftok(".", 52);
    const int id = ::shmget(key, 4, IPC_CREAT | IPC_EXCL | 0600);
    ASSERT_NE(id, -1);
    vxtest::SyslogCapture log;
    // From elsewhere it starts at once.
    ASSERT_EQ(::chdir("/"), 0);
    EXPECT_GT(_exec_command(1, "/bin/true", "true", noMore), 1);
    ASSERT_EQ(::chdir(dir.c_str()), 0);
    EXPECT_TRUE(log.take().empty());
    // Here it tries ten times and gives up.
    segmentRequests.clear();
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(_exec_command(1, "/bin/true", "true", noMore), -1);
    EXPECT_EQ(errno, EEXIST);
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::seconds(1));
    EXPECT_EQ(segmentRequests, std::vector(10, SegmentRequest{key, 4, IPC_CREAT | IPC_EXCL | 0600}));
    std::vector<LogLine> expected;
    for (int attempt = 1; attempt <= 10; ++attempt) {
        expected.push_back(
            {LOG_INFO, "Shared memory temporary not available (try " + std::to_string(attempt) + "/10)"});
    }
    EXPECT_EQ(log.take(), expected);
    // A token that goes in time is taken over.
    std::thread owner([id] {
        ::usleep(250000);
        ::shmctl(id, IPC_RMID, nullptr);
    });
    EXPECT_GT(_exec_command(1, "/bin/true", "true", noMore), 1);
    owner.join();
    const auto lines = log.take();
    EXPECT_GE(lines.size(), 2u);
    EXPECT_LE(lines.size(), 4u);
}

// ---- _exec_command: tokens of processes that have ended ----

constexpr uid_t stranger = 12345;

int makeToken() { return ::shmget(::ftok(".", 52), 4, IPC_CREAT | IPC_EXCL | 0600); }

LogLine removedTokenOf(pid_t pid, uid_t maker) {
    return {LOG_INFO,
            "Shared memory of process " + std::to_string(pid) + ", user " + std::to_string(maker) + " removed"};
}

TEST_F(ExecCommand, TheTokenOfAnEndedProcessIsRemoved) {
    const pid_t maker = vxtest::startChild([] { return makeToken() == -1 ? 1 : 0; });
    ASSERT_EQ(vxtest::waitChild(maker), 0);
    ASSERT_EQ(segments(), 1);
    vxtest::SyslogCapture log;
    EXPECT_GT(_exec_command(1, "/bin/true", "true", noMore), 1);
    EXPECT_EQ(log.take(), std::vector{removedTokenOf(maker, 0)});
}

TEST_F(ExecCommand, TheTokenOfAKilledProcessIsRemovedThoughItsParentDoesNotWait) {
    const pid_t maker = vxtest::startChild([] {
        makeToken();
        ::raise(SIGKILL);
        return 0;
    });
    siginfo_t ended{};
    ASSERT_EQ(::waitid(P_PID, static_cast<id_t>(maker), &ended, WEXITED | WNOWAIT), 0);
    ASSERT_EQ(segments(), 1);
    vxtest::SyslogCapture log;
    EXPECT_GT(_exec_command(1, "/bin/true", "true", noMore), 1);
    EXPECT_EQ(log.take(), std::vector{removedTokenOf(maker, 0)});
    vxtest::waitChild(maker);
}

TEST_F(ExecCommand, AProcessThatIsYoungerThanTheTokenDidNotMakeIt) {
    const int id = makeToken();
    ASSERT_NE(id, -1);
    // This process has the maker's number; started after the token was made, it would be another process.
    clockStep_s = 1000000000;
    vxtest::SyslogCapture log;
    EXPECT_GT(_exec_command(1, "/bin/true", "true", noMore), 1);
    clockStep_s = 0;
    EXPECT_EQ(log.take(), std::vector{removedTokenOf(::getpid(), 0)});
}

TEST_F(ExecCommand, TheTokenOfAStrangerIsRemovedWhileItsMakerLives) {
    if (!vxtest::hasOtherUsers()) GTEST_SKIP() << "a box made by an ordinary user has no other";
    const pid_t maker = vxtest::startChild([] {
        if (::setresuid(stranger, stranger, stranger) != 0 || makeToken() == -1) return 1;
        ::pause();
        return 0;
    });
    ASSERT_TRUE(vxtest::eventually([] { return segments() == 1; }));
    vxtest::SyslogCapture log;
    EXPECT_GT(_exec_command(1, "/bin/true", "true", noMore), 1);
    EXPECT_EQ(log.take(), std::vector{removedTokenOf(maker, stranger)});
    ::kill(maker, SIGKILL);
    vxtest::waitChild(maker);
}

TEST_F(ExecCommand, AStrangerWhoMakesTokensWithoutEndHoldsNoStartUp) {
    if (!vxtest::hasOtherUsers()) GTEST_SKIP() << "a box made by an ordinary user has no other";
    const key_t key = ::ftok(".", 52);
    std::vector<pid_t> makers;
    for (int i = 0; i < 4; ++i) {
        makers.push_back(vxtest::startChild([key] {
            if (::setresuid(stranger, stranger, stranger) != 0) return 1;
            for (;;) ::syscall(SYS_shmget, key, 4, IPC_CREAT | 0600);
        }));
    }
    ASSERT_TRUE(vxtest::eventually([] { return segments() == 1; }));
    for (int i = 0; i < 20; ++i) EXPECT_GT(_exec_command(1, "/bin/true", "true", noMore), 1) << i;
    for (const pid_t maker : makers) ::kill(maker, SIGKILL);
    for (const pid_t maker : makers) vxtest::waitChild(maker);
    EXPECT_GT(_exec_command(1, "/bin/true", "true", noMore), 1) << "the last of them is removed, too";
}

TEST_F(ExecCommand, AnOrdinaryUserCannotRemoveAStrangersToken) {
    if (!vxtest::hasOtherUsers()) GTEST_SKIP() << "a box made by an ordinary user has no other";
    ASSERT_EQ(
        vxtest::inChild([] { return ::setresuid(stranger, stranger, stranger) != 0 || makeToken() == -1 ? 1 : 0; }), 0);
    EXPECT_EQ(vxtest::inChild([] {
                  if (::setresuid(stranger + 1, stranger + 1, stranger + 1) != 0) return 100;
                  return _exec_command(1, "/bin/true", "true", noMore) == -1 && errno == EEXIST ? 0 : 1;
              }),
              0);
    EXPECT_EQ(segments(), 1);
    EXPECT_GT(_exec_command(1, "/bin/true", "true", noMore), 1);
}

TEST_F(ExecCommand, ManyDetachedStartsAtOnceAllSucceed) {
    std::vector<pid_t> starters;
    for (int i = 0; i < 4; ++i) {
        starters.push_back(vxtest::startChild(
            [i] { return run_command(("echo x >" + path("done" + std::to_string(i))).c_str(), 1) > 1 ? 0 : 1; }));
    }
    for (const pid_t starter : starters) EXPECT_EQ(vxtest::waitChild(starter), 0);
    for (int i = 0; i < 4; ++i) {
        EXPECT_TRUE(vxtest::eventually([i] { return vxtest::exists(path("done" + std::to_string(i))); }));
    }
}

TEST_F(ExecCommand, ASegmentThatCannotBeMadeIsReported) {
    const std::string limit = "/proc/sys/kernel/shmmni";  // of this box's own IPC namespace
    const std::string before = readFile(limit);
    std::ofstream(limit) << "0";
    vxtest::SyslogCapture log;
    EXPECT_EQ(_exec_command(1, "/bin/true", "true", noMore), -1);
    EXPECT_EQ(log.take(),
              (std::vector<LogLine>{{LOG_ERR, "Shared memory allocation failed: No space left on device (28)"}}));
    std::ofstream(limit) << before;
}

TEST_F(ExecCommand, ASegmentThatCannotBeAttachedIsRemoved) {
    if (vxtest::emulated()) GTEST_SKIP() << "the emulator itself would not live with the limit";
    EXPECT_EQ(vxtest::inChild([] {
                  const rlimit none{0, 0};
                  if (::setrlimit(RLIMIT_AS, &none) != 0) return 100;
                  return _exec_command(1, "/bin/true", "true", noMore) == -1 ? 0 : 1;
              }),
              0);
    EXPECT_EQ(segments(), 0);
}

// ---- _exec_command when no process can be forked ----

// Runs `body` as a user who may have `processes` processes, the one that runs it counted.
int withProcessLimit(rlim_t processes, const std::function<int()> &body) {
    ::chmod("/dev/log", 0666);
    ::chmod(dir.c_str(), 0777);
    static uid_t nextUser = 20000;  // one for each call: what lingers of an earlier one does not count
    const uid_t user = nextUser++;
    return vxtest::inChild([&] {
        const rlimit limit{processes, processes};
        if (::setresuid(user, user, user) != 0 || ::setrlimit(RLIMIT_NPROC, &limit) != 0) return 100;
        return body();
    });
}

class ForkFailure : public Commands {
protected:
    void SetUp() override {
        Commands::SetUp();
        if (vxtest::emulated()) GTEST_SKIP() << "the emulator's own threads count as processes";
        if (!vxtest::hasOtherUsers()) GTEST_SKIP() << "a box made by an ordinary user has no other";
        ASSERT_EQ(withProcessLimit(1, [] { return ::fork() == -1 ? 0 : 101; }), 0);
    }
};

TEST_F(ForkFailure, TheCallerItselfBecomesTheProgram) {
    vxtest::SyslogCapture log;
    EXPECT_EQ(withProcessLimit(1,
                               [] {
                                   _exec_command(0, "/bin/sh", "sh", "-c", "exit 42", noMore);
                                   return 1;
                               }),
              42);
    EXPECT_EQ(log.take(), (std::vector<LogLine>{{LOG_ERR, "fork failed"}}));
}

TEST_F(ForkFailure, DetachedTooAndTheTokenIsRemoved) {
    vxtest::SyslogCapture log;
    EXPECT_EQ(withProcessLimit(1,
                               [] {
                                   _exec_command(1, "/bin/sh", "sh", "-c",
                                                 ("echo $$ >" + path("pid") + "; exit 42").c_str(), noMore);
                                   return 1;
                               }),
              42);
    EXPECT_NE(readFile(path("pid")), "");
    EXPECT_EQ(log.take(), (std::vector<LogLine>{{LOG_ERR, "fork failed"}, {LOG_ERR, "second fork failed"}}));
}

TEST_F(ForkFailure, WithoutAGrandchildTheProgramRunsInTheChildAndTheResultIsZero) {
    vxtest::SyslogCapture log;
    EXPECT_EQ(withProcessLimit(2,
                               [] {
                                   const int result = _exec_command(1, "/bin/sh", "sh", "-c",
                                                                    ("echo x >" + path("ran")).c_str(), noMore);
                                   return result == 0 && readFile(path("ran")) == "x\n" ? 0 : 1;
                               }),
              0);
    EXPECT_EQ(log.take(), (std::vector<LogLine>{{LOG_ERR, "second fork failed"}}));
}

TEST_F(ForkFailure, AProgramThatTheCallerCannotBecomeEndsItWithTheErrorNumber) {
    EXPECT_EQ(withProcessLimit(1,
                               [] {
                                   _exec_command(0, "/none", "none", noMore);
                                   return 1;
                               }),
              ENOENT);
}

// Threads hold the locks of the C library at any moment; a child that needed one would hang.
TEST_F(ExecCommand, StartsWhileOtherThreadsLogAndAllocate) {
    vxtest::SyslogCapture log;
    std::atomic<bool> stop{false};
    std::thread logger([&] {
        while (!stop) ::syslog(LOG_DEBUG, "busy");
    });
    std::thread allocator([&] {
        while (!stop) std::string(1000, 'x').shrink_to_fit();
    });
    for (int i = 0; i < 30; ++i) {
        EXPECT_EQ(run_command("exit 5", 0), 5);
        EXPECT_GT(run_command("exit 5", 1), 1);
    }
    stop = true;
    logger.join();
    allocator.join();
}

// ---- run_command ----

using RunCommand = Commands;

TEST_F(RunCommand, RunsTheShell) {
    EXPECT_EQ(run_command("exit 3", 0), 3);
    EXPECT_EQ(run_command("true && exit $((3 + 4))", 0), 7);
    EXPECT_EQ(run_command("/none 2>/dev/null", 0), 127);
    EXPECT_EQ(run_command("", 0), 0);
    EXPECT_GT(run_command(nullptr, 0), 0) << "the shell misses its argument";
}

TEST_F(RunCommand, DoesNotWaitInTheBackground) {
    ASSERT_EQ(::mkfifo(path("go").c_str(), 0600), 0);
    const int pid = run_command(("read line <" + path("go") + "; echo $$ >" + path("pid")).c_str(), -1);
    ASSERT_GT(pid, 1);
    EXPECT_FALSE(vxtest::exists(path("pid")));
    writeFile(path("go"), "go\n");
    EXPECT_TRUE(vxtest::eventually([&] { return readFile(path("pid")) == std::to_string(pid) + "\n"; }));
}

// ---- eval_command ----

using EvalCommand = Commands;

struct Evaluated {
    int result;
    std::string text;
    bool operator==(const Evaluated &) const = default;
};
std::ostream &operator<<(std::ostream &out, const Evaluated &e) { return out << e.result << " \"" << e.text << '"'; }

Evaluated eval(const std::string &command, size_t size) {
    vxtest::GuardedBuffer out(size);
    std::memset(out.data(), '?', size);
    const int result = eval_command(command.c_str(), out.data(), size);
    return {result, out.data()};
}

TEST_F(EvalCommand, CollectsTheOutput) {
    EXPECT_EQ(eval("echo one; echo two", 100), (Evaluated{8, "one\ntwo\n"}));
    EXPECT_EQ(eval("printf 'no end'", 100), (Evaluated{6, "no end"}));
    EXPECT_EQ(eval("true", 100), (Evaluated{0, ""}));
}

TEST_F(EvalCommand, TrustsOnlyExitCodeZero) {
    EXPECT_EQ(eval("echo text; exit 1", 100), (Evaluated{-1, "text\n"}));
    EXPECT_EQ(eval("/none 2>/dev/null", 100).result, -1);
    EXPECT_EQ(eval("echo text; kill -9 $$", 100), (Evaluated{5, "text\n"}));
}

TEST_F(EvalCommand, StopsTwoShortOfTheBuffer) {
    EXPECT_EQ(eval("printf 12345678", 10), (Evaluated{8, "12345678"}));
    EXPECT_EQ(eval("printf 123456789", 10), (Evaluated{9, "12345678"})) << "a piece that is cut counts whole";
    EXPECT_EQ(eval("echo 1234; echo 5678; echo 9", 10), (Evaluated{10, "1234\n567"}));
    EXPECT_EQ(eval("echo 1234567; echo 8; echo 9", 10), (Evaluated{10, "1234567\n"}));
    EXPECT_EQ(eval("printf 123", 2), (Evaluated{3, ""}));
    EXPECT_EQ(eval("printf 123", 1), (Evaluated{0, ""}));
}

TEST_F(EvalCommand, ReadsDroppedOutputToItsEnd) {
    EXPECT_EQ(eval("i=0; while [ $i -lt 3000 ]; do echo line $i; i=$((i+1)); done; echo done >" + path("done"), 20),
              (Evaluated{21, "line 0\nline 1\nline"}));
    EXPECT_EQ(readFile(path("done")), "done\n");
}

TEST_F(EvalCommand, TakesLongLinesInPieces) {
    const std::string line = "head -c 3000 /dev/zero | tr '\\0' x; echo";
    EXPECT_EQ(eval(line, 4000), (Evaluated{3001, std::string(3000, 'x') + "\n"}));
    EXPECT_EQ(eval(line, 1500), (Evaluated{2044, std::string(1498, 'x')}));
}

TEST_F(EvalCommand, SignalsDoNotCutTheOutput) {
    const vxtest::Interruptions interruptions(5000);
    EXPECT_EQ(eval("printf on; sleep 0.05; echo e; sleep 0.05; echo two", 100), (Evaluated{8, "one\ntwo\n"}));
    EXPECT_EQ(eval("echo one; sleep 0.05; exit 7", 100), (Evaluated{-1, "one\n"}));
    EXPECT_GT(vxtest::Interruptions::count, 2);
}

TEST_F(EvalCommand, FailsWithoutADescriptorForTheOutput) {
    EXPECT_EQ(vxtest::inChild([] {
                  const rlimit none{0, 0};
                  if (::setrlimit(RLIMIT_NOFILE, &none) != 0) return 100;
                  char out[8] = "old";
                  return eval_command("echo x", out, sizeof out) == -1 && *out == '\0' ? 0 : 1;
              }),
              0);
}

TEST_F(EvalCommand, RefusesMissingArguments) {
    char out[4] = "abc";
    EXPECT_EQ(eval_command(nullptr, out, sizeof out), -1);
    EXPECT_EQ(eval_command("", out, sizeof out), -1);
    EXPECT_EQ(eval_command("true", out, 0), -1);
    EXPECT_EQ(eval_command("true", nullptr, 4), -1);
    EXPECT_STREQ(out, "abc");
}

// ---- makeargv ----

// "2: [a] [b c]", or "error"
std::string split(const std::string &line) {
    char **argv = nullptr;
    int argc = -7;
    if (makeargv(line.c_str(), &argv, &argc) != 0) {
        EXPECT_EQ(argv, nullptr);
        EXPECT_EQ(argc, -7);
        return "error";
    }
    std::string text = std::to_string(argc) + ":";
    for (int i = 0; i < argc; ++i) text += " [" + std::string(argv[i]) + "]";
    for (int i = argc; i < 255; ++i) EXPECT_EQ(argv[i], nullptr);
    freeargv(argv);
    return text;
}

TEST(Makeargv, SplitsAtBlanks) {
    EXPECT_EQ(split("a b c"), "3: [a] [b] [c]");
    EXPECT_EQ(split(" \t\na\t\n b  "), "2: [a] [b]");
    EXPECT_EQ(split(""), "0:");
    EXPECT_EQ(split(" \n\t "), "0:");
    EXPECT_EQ(split("a\rb\vc"), "1: [a\rb\vc]");
}

TEST(Makeargv, QuotesAtTheStartKeepTogether) {
    EXPECT_EQ(split("a \"b c\" 'd'"), "3: [a] [b c] [d]");
    EXPECT_EQ(split("\"it's\" 'say \"no\"'"), "2: [it's] [say \"no\"]");
    EXPECT_EQ(split("'a\n\tb'"), "1: [a\n\tb]");
    EXPECT_EQ(split("\"\" ''"), "2: [] []");
}

TEST(Makeargv, AClosingQuoteEndsTheArgument) {
    EXPECT_EQ(split("\"a\"b"), "2: [a] [b]");
    EXPECT_EQ(split("'a''b'"), "2: [a] [b]");
    EXPECT_EQ(split("'a'\"b c\"d"), "3: [a] [b c] [d]");
    EXPECT_EQ(split("\"\"\"\""), "2: [] []");
}

TEST(Makeargv, ElsewhereQuotesAndBackslashesAreText) {
    EXPECT_EQ(split("a\"b c\"d"), "2: [a\"b] [c\"d]");
    EXPECT_EQ(split("it's"), "1: [it's]");
    EXPECT_EQ(split("a\\ b \\\"c"), "3: [a\\] [b] [\\\"c]");
    EXPECT_EQ(split("\"a\\\" b"), "2: [a\\] [b]");
    EXPECT_EQ(split("a\\\" b"), "2: [a\\\"] [b]");
}

TEST(Makeargv, AnOpenQuoteIsAnError) {
    EXPECT_EQ(split("\"a"), "error");
    EXPECT_EQ(split("'"), "error");
    EXPECT_EQ(split("a 'b\""), "error");
    EXPECT_EQ(split("\"a\" b \"c"), "error");
}

std::string repeated(const std::string &word, int count) {
    std::string line;
    for (int i = 0; i < count; ++i) line += word;
    return line;
}

TEST(Makeargv, HoldsTwoHundredFiftyFiveArguments) {
    char **argv = nullptr;
    int argc = 0;
    ASSERT_EQ(makeargv(repeated("w ", 255).c_str(), &argv, &argc), 0);
    EXPECT_EQ(argc, 255);
    EXPECT_STREQ(argv[254], "w");
    freeargv(argv);
    EXPECT_EQ(split(repeated("w ", 254)).substr(0, 4), "254:");
    EXPECT_EQ(split(repeated("w ", 256)), "error");
    EXPECT_EQ(split(repeated("w ", 255) + "\"\""), "error");
    EXPECT_EQ(split(repeated("w ", 255) + "x"), "error");
    EXPECT_EQ(split(repeated("w ", 255) + "   ").substr(0, 4), "255:");
}

TEST(Makeargv, GivesEachArgumentRoomForTheWholeLine) {
    const char *line = "ab cd";
    char **argv = nullptr;
    int argc = 0;
    ASSERT_EQ(makeargv(line, &argv, &argc), 0);
    for (int i = 0; i < argc; ++i) {
        EXPECT_EQ(argv[i][5], '\0');
        std::strcpy(argv[i], line);  // the address sanitizer watches
    }
    freeargv(argv);
}

TEST(Makeargv, TakesALineOfAnyLength) {
    const std::string word(1000000, 'w');
    EXPECT_EQ(split(word + " x"), "2: [" + word + "] [x]");
}

TEST(Makeargv, FailsWithoutMemory) {
    if (vxtest::emulated()) GTEST_SKIP() << "the emulator does not pass the limit on";
    vxtest::HugeText line;
    EXPECT_EQ(vxtest::inChild([&] {
                  const rlimit none{0, 0};
                  if (::setrlimit(RLIMIT_AS, &none) != 0) return 100;
                  char **argv = nullptr;
                  int argc = -7;
                  return makeargv(line.c_str(), &argv, &argc) == -1 && argv == nullptr && argc == -7 ? 0 : 1;
              }),
              0);
}

TEST(Makeargv, RefusesNullAndFreesNull) {
    char **argv = nullptr;
    int argc = 0;
    EXPECT_EQ(makeargv(nullptr, &argv, &argc), -1);
    EXPECT_EQ(makeargv("a", nullptr, &argc), -1);
    EXPECT_EQ(makeargv("a", &argv, nullptr), -1);
    freeargv(nullptr);
}

// ---- system_reboot, system_poweroff ----

struct Action {
    void (*call)(int, int);
    std::string script;
    std::string marker;
    std::string vetoed;
    int kernelCommand;
};

void PrintTo(const Action &action, std::ostream *out) { *out << action.script; }

class Power : public Commands, public testing::WithParamInterface<Action> {
protected:
    void SetUp() override {
        Commands::SetUp();
        // Neither the library nor a script of the machine below the box gets through to a real restart.
        ASSERT_EQ(::dlsym(RTLD_DEFAULT, "reboot"), reinterpret_cast<void *>(&::reboot));
        ASSERT_EQ(::prctl(PR_CAPBSET_READ, CAP_SYS_BOOT), 0);
        rebootCommands.clear();
        for (const std::string &file : {GetParam().script, GetParam().marker}) ::unlink(file.c_str());
        vxtest::makeDirs("/nvstatus");
    }
    void TearDown() override {
        for (const std::string &file : {GetParam().script, GetParam().marker}) ::unlink(file.c_str());
        Commands::TearDown();
    }

    void installRecorder() {
        writeFile(GetParam().script, "#!/bin/sh\necho \"$0 $*\" >" + path("recorded.tmp") + "\nmv " +
                                         path("recorded.tmp") + " " + path("recorded") + "\n");
        ::chmod(GetParam().script.c_str(), 0755);
    }
};

TEST_P(Power, StartsTheScriptWithBothNumbers) {
    installRecorder();
    vxtest::SyslogCapture log;
    const auto start = std::chrono::steady_clock::now();
    GetParam().call(1, -2147483647 - 1);
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(100)) << "the script gets a moment";
    EXPECT_TRUE(vxtest::eventually([] { return vxtest::exists(path("recorded")); }));
    EXPECT_EQ(readFile(path("recorded")), GetParam().script + " 1 -2147483648\n");
    EXPECT_TRUE(rebootCommands.empty());
    EXPECT_TRUE(log.take().empty());
}

TEST_P(Power, AnAbandonedTokenIsNotInItsWay) {
    installRecorder();
    ASSERT_EQ(vxtest::inChild([] { return makeToken() == -1 ? 1 : 0; }), 0);
    GetParam().call(1, 2);
    EXPECT_TRUE(vxtest::eventually([] { return vxtest::exists(path("recorded")); }));
}

TEST_P(Power, TheMarkerIsAVeto) {
    installRecorder();
    writeFile(GetParam().marker, "");
    vxtest::SyslogCapture log;
    GetParam().call(0, 0);
    EXPECT_EQ(log.take(), (std::vector<LogLine>{{LOG_ERR, GetParam().vetoed}}));
    ::usleep(100000);
    EXPECT_FALSE(vxtest::exists(path("recorded")));
    ::unlink(GetParam().script.c_str());
    GetParam().call(0, 0);
    EXPECT_TRUE(rebootCommands.empty());
}

TEST_P(Power, WithoutTheScriptTheKernelIsAsked) {
    vxtest::SyslogCapture log;
    GetParam().call(1, 2);
    EXPECT_EQ(rebootCommands, std::vector{GetParam().kernelCommand});
    writeFile(GetParam().script, "not executable");
    GetParam().call(1, 2);
    EXPECT_EQ(rebootCommands.size(), 2u);
    EXPECT_TRUE(log.take().empty());
}

INSTANTIATE_TEST_SUITE_P(, Power,
                         testing::Values(Action{system_reboot, "/usr/local/sbin/system-reboot", "/nvstatus/skip-reboot",
                                                "skipping reboot", 0x01234567},
                                         Action{system_poweroff, "/usr/local/sbin/system-poweroff",
                                                "/nvstatus/skip-poweroff", "skipping poweroff", 0x4321FEDC}),
                         [](const auto &param) { return param.param.call == system_reboot ? "Reboot" : "Poweroff"; });

// ---- the example ----

using CommandExample = Commands;

TEST_F(CommandExample, RunsCommandsEachWay) {
    const auto example = [](const std::string &how, const std::string &text) {
        return vxtest::run({vxtest::built("examples/command_run"), how, text});
    };
    EXPECT_EQ(example("wait", "exit 3").text, "exit code 3\n");
    EXPECT_EQ(example("read", "echo text").text, "5 characters: text\n\n");
    EXPECT_EQ(example("read", "echo text; exit 1").text, "failed, its output is not trusted\n");
    EXPECT_EQ(example("split", "set key 'a value'").text, "0: set\n1: key\n2: a value\n");
    EXPECT_EQ(example("split", "'").text, "not a command line\n");
    EXPECT_EQ(example("none", "x").status, 2);
    const auto detached = example("detach", "echo $$ >" + path("pid"));
    EXPECT_TRUE(vxtest::eventually(
        [&] { return vxtest::exists(path("pid")) && detached.text == "process " + readFile(path("pid")); }));
}

}  // namespace
