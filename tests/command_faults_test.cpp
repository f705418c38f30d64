// SPDX-License-Identifier: MIT
// Commands where the system refuses a step, where signals and other threads come in between, and where the token of a
// detached start is held by another process.
#include <vxutils/command.h>

#include <sched.h>
#include <sys/ipc.h>
#include <sys/resource.h>
#include <sys/shm.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cmath>
#include <csignal>
#include <cstdlib>
#include <ctime>
#include <fstream>
#include <functional>
#include <optional>
#include <sstream>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

#include "support/call_hooks.h"
#include "support/command.h"
#include "support/emulation.h"
#include "support/files.h"
#include "support/interruptions.h"
#include "support/open_hook.h"
#include "support/process.h"
#include "support/resources.h"
#include "support/short_records.h"
#include "support/stranger.h"
#include "support/syscall_filter.h"
#include "support/syslog_capture.h"

extern "C" const char *__asan_default_options();
extern "C" const char *__asan_default_options() { return "allocator_may_return_null=1"; }

VXTEST_HOOK(int, shmget, (key_t key, size_t size, int flags), (key, size, flags))
VXTEST_HOOK(void *, shmat, (int id, const void *at, int flags), (id, at, flags))
VXTEST_HOOK_AS(int, shmctl, "__shmctl64", (int id, int command, shmid_ds *status), (id, command, status))
VXTEST_HOOK(pid_t, fork, (), ())
VXTEST_HOOK(ssize_t, read, (int fd, void *data, size_t size), (fd, data, size))
VXTEST_HOOK(int, socket, (int domain, int type, int protocol), (domain, type, protocol))
VXTEST_HOOK_AS(time_t, time, "__time64", (time_t * result), (result))
VXTEST_HOOK_AS(int, clock_gettime, "__clock_gettime64", (clockid_t clock, timespec *time), (clock, time))

namespace {

using namespace vxtest::command;

namespace hooks = vxtest::hooks;

using vxtest::Hooked;
using vxtest::LogLine;
using vxtest::readFile;
using vxtest::stranger;
using vxtest::writeFile;

using ExecCommandFaults = Commands;
using EvalCommandFaults = Commands;

// ---- programs that are waited for

TEST_F(ExecCommandFaults, WithoutArgumentZeroNoWordIsRead) {
    // The kernel puts an empty argument 0 in place, or refuses; either way nothing else is taken.
    writeFile(path("count"), "#!/bin/sh\necho $# >" + path("number") + "\n");
    ::chmod(path("count").c_str(), 0755);
    _exec_command(0, path("count").c_str(), nullptr, "a", "b", noMore);
    const std::string counted = readFile(path("number"));
    EXPECT_TRUE(counted.empty() || counted == "0\n") << counted;
}

TEST_F(ExecCommandFaults, AWaitThatFailsIsReportedAndCountsAsSuccess) {
    vxtest::SyslogCapture log;
    std::signal(SIGCHLD, SIG_IGN);
    EXPECT_EQ(_exec_command(0, "/bin/sh", "sh", "-c", "exit 3", noMore), 0);
    std::signal(SIGCHLD, SIG_DFL);
    EXPECT_EQ(log.take(),
              (std::vector<LogLine>{{LOG_ERR, "Waiting for child process failed: No child processes (10)"}}));
}

TEST_F(ExecCommandFaults, SignalsDoNotEndTheWait) {
    vxtest::SyslogCapture log;
    const vxtest::Interruptions interruptions(5000);
    EXPECT_EQ(_exec_command(0, "/bin/sh", "sh", "-c", "sleep 0.1; exit 7", noMore), 7);
    EXPECT_GT(_exec_command(1, "/bin/true", "true", noMore), 1);
    EXPECT_GT(vxtest::Interruptions::count, 2);
    EXPECT_TRUE(log.take().empty());
    EXPECT_EQ(::waitpid(-1, nullptr, 0), -1) << "no child is left";
    EXPECT_EQ(errno, ECHILD);
}

// Threads hold the locks of the C library at any moment; a child that needed one would hang.
TEST_F(ExecCommandFaults, StartsWhileOtherThreadsLogAndAllocate) {
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

TEST_F(ExecCommandFaults, ClosesTheDescriptorsOneByOneWhereTheKernelIsOld) {
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

// ---- detached programs

TEST_F(ExecCommandFaults, DetachedWorksWithoutStandardStreams) {
    EXPECT_EQ(vxtest::inChild([] {
                  for (const int fd : {0, 1, 2}) ::close(fd);
                  return run_command(("echo x >" + path("done")).c_str(), 1) > 0 ? 0 : 1;
              }),
              0);
    EXPECT_TRUE(vxtest::eventually([] { return readFile(path("done")) == "x\n"; }));
}

// What was asked of the kernel.
struct SegmentRequest {
    key_t key;
    size_t size;
    int flags;
    bool operator==(const SegmentRequest &) const = default;
};

TEST_F(ExecCommandFaults, DetachedStartsAreSerialisedByTheirDirectory) {
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
    std::vector<SegmentRequest> segmentRequests;
    const auto record = [&](key_t asked, size_t size, int flags) -> std::optional<int> {
        segmentRequests.push_back({asked, size, flags});
        return std::nullopt;
    };
    {
        const Hooked recorder(hooks::shmget, record);
        WithoutPauses pauses;
        EXPECT_EQ(_exec_command(1, "/bin/true", "true", noMore), -1);
        EXPECT_EQ(errno, EEXIST);
        EXPECT_EQ(pauses.lengths_ns, std::vector<long>(10, 100000000));
    }
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

TEST_F(ExecCommandFaults, ASegmentThatCannotBeMadeIsReported) {
    const std::string limit = "/proc/sys/kernel/shmmni";  // of this box's own IPC namespace
    const std::string before = readFile(limit);
    std::ofstream(limit) << "0";
    vxtest::SyslogCapture log;
    EXPECT_EQ(_exec_command(1, "/bin/true", "true", noMore), -1);
    EXPECT_EQ(log.take(),
              (std::vector<LogLine>{{LOG_ERR, "Shared memory allocation failed: No space left on device (28)"}}));
    std::ofstream(limit) << before;
}

TEST_F(ExecCommandFaults, ASegmentThatCannotBeAttachedIsRemoved) {
    if (vxtest::emulated()) GTEST_SKIP() << "the emulator itself would not live with the limit";
    EXPECT_EQ(vxtest::inChild([] {
                  const rlimit none{0, 0};
                  if (::setrlimit(RLIMIT_AS, &none) != 0) return 100;
                  return _exec_command(1, "/bin/true", "true", noMore) == -1 ? 0 : 1;
              }),
              0);
    EXPECT_EQ(segments(), 0);
}

TEST_F(ExecCommandFaults, AFailedStartLeavesItsErrnoWhenTheSegmentIsAlreadyGone) {
    const Hooked noAttachment(hooks::shmat, vxtest::answering(reinterpret_cast<void *>(intptr_t{-1}), ENOMEM));
    const Hooked removedByAnother(hooks::shmctl, [](int id, int command, shmid_ds *status) -> std::optional<int> {
        vxtest::real::shmctl(id, command, status);
        return vxtest::real::shmctl(id, command, status);
    });
    errno = 0;
    EXPECT_EQ(_exec_command(1, "/bin/true", "true", noMore), -1);
    EXPECT_EQ(errno, ENOMEM);
    EXPECT_EQ(segments(), 0);
}

// ---- tokens of processes that have ended, and of strangers

LogLine removedTokenOf(pid_t pid, uid_t maker) {
    return {LOG_INFO,
            "Shared memory of process " + std::to_string(pid) + ", user " + std::to_string(maker) + " removed"};
}

TEST_F(ExecCommandFaults, TheTokenOfAnEndedProcessIsRemoved) {
    const pid_t maker = vxtest::startChild([] { return makeToken() == -1 ? 1 : 0; });
    ASSERT_EQ(vxtest::waitChild(maker), 0);
    ASSERT_EQ(segments(), 1);
    vxtest::SyslogCapture log;
    EXPECT_GT(_exec_command(1, "/bin/true", "true", noMore), 1);
    EXPECT_EQ(log.take(), std::vector{removedTokenOf(maker, 0)});
}

TEST_F(ExecCommandFaults, OtherSegmentsOfEndedProcessesAreLeftAlone) {
    const auto make = [](const char *path) {
        return vxtest::inChild([path] { return ::shmget(::ftok(path, 52), 4, IPC_CREAT | IPC_EXCL | 0600) == -1; });
    };
    for (const char *path : {"/", ".", "/tmp"}) ASSERT_EQ(make(path), 0) << path;
    EXPECT_GT(_exec_command(1, "/bin/true", "true", noMore), 1);
    for (const char *path : {"/", "/tmp"}) {
        const int id = ::shmget(::ftok(path, 52), 4, 0);
        EXPECT_NE(id, -1) << path;
        ::shmctl(id, IPC_RMID, nullptr);
    }
}

TEST_F(ExecCommandFaults, TheTokenOfAKilledProcessIsRemovedThoughItsParentDoesNotWait) {
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

TEST_F(ExecCommandFaults, TheTokenOfAProcessWhoseFirstThreadHasEndedIsKept) {
    if (vxtest::emulated()) GTEST_SKIP() << "the emulator has no threads in children of processes with threads";
    const pid_t maker = vxtest::startChild([] {
        std::thread([] {
            makeToken();
            ::pause();
        }).detach();
        return static_cast<int>(::syscall(SYS_exit, 0));
    });
    const std::string status = "/proc/" + std::to_string(maker) + "/stat";
    ASSERT_TRUE(
        vxtest::eventually([&] { return segments() == 1 && readFile(status).find(") Z ") != std::string::npos; }));
    {
        WithoutPauses pauses;
        EXPECT_EQ(_exec_command(1, "/bin/true", "true", noMore), -1);
        EXPECT_EQ(errno, EEXIST);
    }
    ::kill(maker, SIGKILL);
    vxtest::waitChild(maker);
    EXPECT_GT(_exec_command(1, "/bin/true", "true", noMore), 1);
}

TEST_F(ExecCommandFaults, AProcessThatIsYoungerThanTheTokenDidNotMakeIt) {
    const int id = makeToken();
    ASSERT_NE(id, -1);
    vxtest::SyslogCapture log;
    {
        // This process has the maker's number; started after the token was made, it would be another process.
        const Hooked later(hooks::clock_gettime, [](clockid_t clock, timespec *time) -> std::optional<int> {
            const int result = vxtest::real::clock_gettime(clock, time);
            if (clock == CLOCK_REALTIME) time->tv_sec += 1000000000;
            return result;
        });
        EXPECT_GT(_exec_command(1, "/bin/true", "true", noMore), 1);
    }
    EXPECT_EQ(log.take(), std::vector{removedTokenOf(::getpid(), 0)});
}

TEST_F(ExecCommandFaults, ATokenInUseIsKeptWhenTheClockIsSet) {
    const int id = makeToken();
    void *const attached = ::shmat(id, nullptr, 0);
    {
        const Hooked later(hooks::clock_gettime, [](clockid_t clock, timespec *time) -> std::optional<int> {
            const int result = vxtest::real::clock_gettime(clock, time);
            if (clock == CLOCK_REALTIME) time->tv_sec += 1000000000;
            return result;
        });
        WithoutPauses pauses;
        EXPECT_EQ(_exec_command(1, "/bin/true", "true", noMore), -1);
        EXPECT_EQ(errno, EEXIST);
    }
    EXPECT_EQ(segments(), 1);
    ::shmdt(attached);
    ::shmctl(id, IPC_RMID, nullptr);
}

TEST_F(ExecCommandFaults, TheTokenOfAProcessInAnotherPidNamespaceIsKept) {
    const int id = makeToken();
    ASSERT_NE(id, -1);
    EXPECT_EQ(vxtest::inChild([] {
                  if (::unshare(CLONE_NEWPID) != 0) return 100;
                  return vxtest::inChild([] {
                      WithoutPauses pauses;
                      return _exec_command(1, "/bin/true", "true", noMore) == -1 && errno == EEXIST ? 0 : 1;
                  });
              }),
              0);
    EXPECT_EQ(segments(), 1);
    ::shmctl(id, IPC_RMID, nullptr);
}

// The kernel keeps a token's time in whole seconds, so its maker may seem younger than it is.
TEST_F(ExecCommandFaults, AProcessMustBeTwoSecondsYoungerThanTheTokenNotToBeItsMaker) {
    const int id = makeToken();
    shmid_ds token{};
    ASSERT_EQ(::shmctl(id, IPC_STAT, &token), 0);
    const std::string status = readFile("/proc/self/stat");
    std::istringstream fields(status.substr(status.rfind(')') + 2));
    std::string field;
    for (int number = 3; number <= 22; ++number) fields >> field;
    const double started_s = std::stod(field) / static_cast<double>(::sysconf(_SC_CLK_TCK));
    const auto start = [&](double processAge_s, double tokenAge_s) {
        const Hooked clocks(hooks::clock_gettime, [&](clockid_t clock, timespec *time) -> std::optional<int> {
            const double now_s =
                clock == CLOCK_BOOTTIME ? started_s + processAge_s : static_cast<double>(token.shm_ctime) + tokenAge_s;
            time->tv_sec = static_cast<time_t>(now_s);
            time->tv_nsec = static_cast<long>((now_s - std::floor(now_s)) * 1e9);
            return 0;
        });
        WithoutPauses pauses;
        return _exec_command(1, "/bin/true", "true", noMore);
    };
    for (const double age_s : {0.0, 10.25, 10.75, 1000.5}) {
        EXPECT_EQ(start(age_s, age_s), -1) << age_s;
        EXPECT_EQ(start(age_s, age_s + 1.9), -1) << age_s;
        EXPECT_EQ(segments(), 1);
    }
    EXPECT_GT(start(10.75, 12.85), 1);
}

// Makes the status of every process what this file holds; without a name none can be opened.
auto statusFrom(const std::string &file) {
    return [file](const char *path, int flags) -> std::optional<int> {
        if (!std::string_view(path).ends_with("/stat")) return std::nullopt;
        if (!file.empty()) return ::open(file.c_str(), flags);
        errno = EMFILE;
        return -1;
    };
}

TEST_F(ExecCommandFaults, AMakerHasEndedWhenItsStatusSaysSo) {
    std::string sinceTheMachineStarted;
    for (int number = 4; number <= 22; ++number) sinceTheMachineStarted += " 0";
    const auto start = [&](char state) {
        writeFile(path("status"), std::string("1 (a) Z) ") + state + sinceTheMachineStarted);
        const Hooked status(hooks::open, statusFrom(path("status")));
        WithoutPauses pauses;
        return _exec_command(1, "/bin/true", "true", noMore);
    };
    for (const char dead : {'Z', 'X'}) {
        ASSERT_NE(makeToken(), -1);
        EXPECT_GT(start(dead), 1) << dead;
        ASSERT_TRUE(vxtest::eventually([] { return segments() == 0; }));
    }
    const int id = makeToken();
    for (const char alive : {'R', 'S', 'D', 'T', 't', 'I'}) EXPECT_EQ(start(alive), -1) << alive;
    ::shmctl(id, IPC_RMID, nullptr);
}

// What is known about the maker without its status: whether it exists.
TEST_F(ExecCommandFaults, AMakerWhoseStatusCannotBeReadKeepsItsTokenAndGetsNoSignal) {
    writeFile(path("no name"), "1 sh S 1");
    writeFile(path("cut"), "1 (sh) S 1");
    const int id = makeToken();
    ASSERT_NE(id, -1);
    for (const std::string &file : {std::string(), std::string("/dev/null"), path("no name"), path("cut")}) {
        const Hooked status(hooks::open, statusFrom(file));
        WithoutPauses pauses;
        EXPECT_EQ(_exec_command(1, "/bin/true", "true", noMore), -1) << file;  // SIGHUP would end this program
    }
    {
        const Hooked ending(hooks::read, vxtest::failingWith(ESRCH, 1));  // the first read is of the table of segments
        WithoutPauses pauses;
        EXPECT_EQ(_exec_command(1, "/bin/true", "true", noMore), -1);
    }
    EXPECT_EQ(segments(), 1);
    ::shmctl(id, IPC_RMID, nullptr);
    ASSERT_EQ(vxtest::inChild([] { return makeToken() == -1 ? 1 : 0; }), 0);
    const Hooked status(hooks::open, statusFrom(""));
    EXPECT_GT(_exec_command(1, "/bin/true", "true", noMore), 1) << "this maker does not exist";
}

TEST_F(ExecCommandFaults, ATokenStaysAsLongAsTheTableOfSegmentsCannotBeRead) {
    ASSERT_EQ(vxtest::inChild([] { return makeToken() == -1 ? 1 : 0; }), 0);
    {
        const Hooked noTable(hooks::open, [](const char *path, int) -> std::optional<int> {
            if (std::string_view(path) != "/proc/sysvipc/shm") return std::nullopt;
            errno = EMFILE;
            return -1;
        });
        WithoutPauses pauses;
        EXPECT_EQ(_exec_command(1, "/bin/true", "true", noMore), -1);
    }
    EXPECT_EQ(segments(), 1);
    EXPECT_GT(_exec_command(1, "/bin/true", "true", noMore), 1) << "this maker does not exist";
}

TEST_F(ExecCommandFaults, WhatIsReadAboutATokenIsClosedOnExec) {
    ASSERT_EQ(vxtest::inChild([] { return makeToken() == -1 ? 1 : 0; }), 0);
    const vxtest::OpenedFiles files;
    EXPECT_GT(_exec_command(1, "/bin/true", "true", noMore), 1);
    EXPECT_EQ(files.withoutCloseOnExec(), std::vector<std::string>{});
    EXPECT_EQ(files.flagsOf("/proc/sysvipc/shm"), O_RDONLY);
}

TEST_F(ExecCommandFaults, TheTokenOfAStrangerIsRemovedWhileItsMakerLives) {
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

TEST_F(ExecCommandFaults, AStrangerWhoMakesTokensWithoutEndHoldsNoStartUp) {
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

TEST_F(ExecCommandFaults, AfterThreeRemovalsATokenWithoutKeyIsUsed) {
    if (!vxtest::hasOtherUsers()) GTEST_SKIP() << "a box made by an ordinary user has no other";
    std::vector<LogLine> removals;
    std::vector<key_t> asked;
    const auto makeAnotherFirst = [&](key_t key, size_t, int) -> std::optional<int> {
        asked.push_back(key);
        if (key == IPC_PRIVATE) return std::nullopt;
        const pid_t maker = vxtest::startChild([key] {
            if (::setresuid(stranger, stranger, stranger) != 0) return 1;
            return ::syscall(SYS_shmget, key, 4, IPC_CREAT | IPC_EXCL | 0600) == -1 ? 2 : 0;
        });
        EXPECT_EQ(vxtest::waitChild(maker), 0);
        removals.push_back(removedTokenOf(maker, stranger));
        return std::nullopt;
    };
    vxtest::SyslogCapture log;
    {
        const Hooked maker(hooks::shmget, makeAnotherFirst);
        EXPECT_GT(_exec_command(1, "/bin/true", "true", noMore), 1);
    }
    const key_t key = ::ftok(".", 52);
    EXPECT_EQ(asked, (std::vector<key_t>{key, key, key, IPC_PRIVATE}));
    EXPECT_EQ(log.take(), removals);
    EXPECT_TRUE(vxtest::eventually([] { return segments() == 0; }));
}

TEST_F(ExecCommandFaults, AnOrdinaryUserCannotRemoveAStrangersToken) {
    if (!vxtest::hasOtherUsers()) GTEST_SKIP() << "a box made by an ordinary user has no other";
    ASSERT_EQ(
        vxtest::inChild([] { return ::setresuid(stranger, stranger, stranger) != 0 || makeToken() == -1 ? 1 : 0; }), 0);
    EXPECT_EQ(vxtest::inChild([] {
                  WithoutPauses pauses;
                  if (::setresuid(stranger + 1, stranger + 1, stranger + 1) != 0) return 100;
                  return _exec_command(1, "/bin/true", "true", noMore) == -1 && errno == EEXIST ? 0 : 1;
              }),
              0);
    EXPECT_EQ(segments(), 1);
    EXPECT_GT(_exec_command(1, "/bin/true", "true", noMore), 1);
}

// ---- no process can be forked

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

// ---- the message of a child that cannot fork

class SecondForkFailure : public Commands {
protected:
    void SetUp() override {
        Commands::SetUp();
        ::setenv("TZ", "UTC0", 1);
        ::tzset();
    }
    void TearDown() override {
        program_invocation_short_name = name_;
        ::setlogmask(LOG_UPTO(LOG_DEBUG));
        ::unsetenv("TZ");
        ::tzset();
        Commands::TearDown();
    }

    // What the child sends to the system log. The fork in the caller succeeds, the one in the child fails.
    std::vector<std::string> logged() {
        const Hooked failing(hooks::fork, vxtest::failingWith(EAGAIN, 1));
        EXPECT_EQ(_exec_command(1, "/bin/true", "true", noMore), 0);
        return log_.takeRaw();
    }

    std::vector<std::string> loggedAt(time_t now) {
        const Hooked clock(hooks::time, [now](time_t *) -> std::optional<time_t> { return now; });
        return logged();
    }

private:
    char *const name_ = program_invocation_short_name;
    vxtest::SyslogCapture log_;
};

TEST_F(SecondForkFailure, ItsLineHasTheFormOfTheSystemLog) {
    program_invocation_short_name = const_cast<char *>("netd");
    constexpr time_t newYear = 1767225600;  // of 2026
    constexpr time_t day = 86400;
    const std::vector<std::pair<time_t, std::string>> times{{newYear, "Jan  1 00:00:00"},
                                                            {newYear + 40 * day + 3661, "Feb 10 01:01:01"},
                                                            {newYear + 59 * day, "Mar  1 00:00:00"},
                                                            {newYear + 90 * day, "Apr  1 00:00:00"},
                                                            {newYear + 120 * day, "May  1 00:00:00"},
                                                            {newYear + 151 * day, "Jun  1 00:00:00"},
                                                            {newYear + 181 * day, "Jul  1 00:00:00"},
                                                            {newYear + 212 * day, "Aug  1 00:00:00"},
                                                            {newYear + 243 * day, "Sep  1 00:00:00"},
                                                            {newYear + 273 * day, "Oct  1 00:00:00"},
                                                            {newYear + 304 * day, "Nov  1 00:00:00"},
                                                            {newYear + 365 * day - 1, "Dec 31 23:59:59"}};
    for (const auto &[now, text] : times) {
        EXPECT_EQ(loggedAt(now), std::vector<std::string>{"<11>" + text + " netd: second fork failed"});
    }
}

TEST_F(SecondForkFailure, ItsTimeIsLocal) {
    program_invocation_short_name = const_cast<char *>("netd");
    ::setenv("TZ", "XYZ-5:30", 1);
    ::tzset();
    EXPECT_EQ(loggedAt(1767225600), std::vector<std::string>{"<11>Jan  1 05:30:00 netd: second fork failed"});
}

TEST_F(SecondForkFailure, AProgramsNameCannotBeginALineOfItsOwn) {
    program_invocation_short_name = const_cast<char *>("a\n<0>b");
    EXPECT_EQ(loggedAt(1767225600), std::vector<std::string>{"<11>Jan  1 00:00:00 a\\x0A<0>b: second fork failed"});
}

TEST_F(SecondForkFailure, ALongLineIsCut) {
    std::string name(1000, 'n');
    program_invocation_short_name = name.data();
    EXPECT_EQ(loggedAt(1767225600), std::vector{"<11>Jan  1 00:00:00 " + name.substr(0, 235)});
}

TEST_F(SecondForkFailure, TheMaskOfPrioritiesIsRespected) {
    ::setlogmask(LOG_UPTO(LOG_CRIT));
    EXPECT_EQ(logged(), std::vector<std::string>{});
    ::setlogmask(LOG_MASK(LOG_ERR));
    EXPECT_EQ(logged().size(), 1u);
}

TEST_F(SecondForkFailure, ItsSocketIsClosedOnExec) {
    const Hooked check(hooks::socket, [](int, int type, int) -> std::optional<int> {
        if ((type & SOCK_CLOEXEC) == 0) ::_exit(99);  // in the child: the line is missing then
        return std::nullopt;
    });
    EXPECT_EQ(logged().size(), 1u);
}

// ---- output and command lines

TEST_F(EvalCommandFaults, SignalsDoNotCutTheOutput) {
    const vxtest::Interruptions interruptions(5000);
    EXPECT_EQ(eval("printf on; sleep 0.05; echo e; sleep 0.05; echo two", 100), (Evaluated{8, "one\ntwo\n"}));
    EXPECT_EQ(eval("echo one; sleep 0.05; exit 7", 100), (Evaluated{-1, "one\n"}));
    EXPECT_GT(vxtest::Interruptions::count, 2);
}

TEST_F(EvalCommandFaults, FailsWithoutADescriptorForTheOutput) {
    EXPECT_EQ(vxtest::inChild([] {
                  const rlimit none{0, 0};
                  if (::setrlimit(RLIMIT_NOFILE, &none) != 0) return 100;
                  char out[8] = "old";
                  return eval_command("echo x", out, sizeof out) == -1 && *out == '\0' ? 0 : 1;
              }),
              0);
}

TEST(MakeargvFaults, FailsWithoutMemoryForTheArray) {
    char **argv = nullptr;
    int argc = -7;
    vxtest::scarceRecord = 255 * sizeof *argv;
    EXPECT_EQ(makeargv("one two", &argv, &argc), -1);
    vxtest::scarceRecord = 0;
    EXPECT_EQ(argv, nullptr);
    EXPECT_EQ(argc, -7);
}

TEST(MakeargvFaults, FailsWithoutMemory) {
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

}  // namespace
