// SPDX-License-Identifier: MIT
// Locks between processes.
#include <fcntl.h>
#include <sys/file.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <syslog.h>
#include <unistd.h>
#include <vxutils/lock.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>
#include <new>
#include <optional>
#include <thread>
#include <vector>

#include "support/call_hooks.h"
#include "support/files.h"
#include "support/process.h"
#include "support/resources.h"
#include "support/syslog_capture.h"

VXTEST_HOOK(int, flock, (int fd, int operation), (fd, operation))
VXTEST_HOOK(unsigned int, sleep, (unsigned int seconds), (seconds))

// Memory runs out where a test wants it.
namespace {
bool outOfMemory = false;
}  // namespace
void *operator new(size_t size, const std::nothrow_t &) noexcept {
    if (outOfMemory) return nullptr;
    try {
        return ::operator new(size);
    } catch (const std::bad_alloc &) {
        return nullptr;
    }
}

namespace {

using vxtest::LogLine;
using Clock = std::chrono::steady_clock;

const std::string path = "/tmp/lock/held";
const std::string firewallPath = "/var/lock/iptables_flock_file";

class DirectoryLock : public testing::Test {
protected:
    void SetUp() override {
        vxtest::makeDirs("/tmp/lock");
        ::rmdir(path.c_str());
    }

    vxtest::NoLeaks noLeaks_;
};

TEST_F(DirectoryLock, IsADirectory) {
    ::umask(0);
    EXPECT_EQ(acquire_lock(path.c_str(), 1), 0);
    ::umask(022);
    struct stat status {};
    ASSERT_EQ(::stat(path.c_str(), &status), 0);
    EXPECT_TRUE(S_ISDIR(status.st_mode));
    EXPECT_EQ(status.st_mode & 01777u, 0x755u & 01777u);
    EXPECT_EQ(release_lock(path.c_str()), 0);
    EXPECT_FALSE(vxtest::exists(path));
    EXPECT_EQ(acquire_lock(path.c_str(), 1), 0);
}

TEST_F(DirectoryLock, ZeroTriesFailAndNegativeOnesPretend) {
    EXPECT_EQ(acquire_lock(path.c_str(), 0), -1);
    EXPECT_EQ(acquire_lock(path.c_str(), -1), 0);
    EXPECT_EQ(acquire_lock(nullptr, -1), 0);
    EXPECT_EQ(acquire_lock(nullptr, 1), -1);
    EXPECT_FALSE(vxtest::exists(path));
}

TEST_F(DirectoryLock, AHeldOneIsTriedOnceASecondAndTheLastTrySleepsToo) {
    ASSERT_EQ(acquire_lock(path.c_str(), 1), 0);
    std::vector<unsigned int> pauses_s;
    const vxtest::Hooked recorder(vxtest::hooks::sleep, [&](unsigned int seconds) -> std::optional<unsigned int> {
        pauses_s.push_back(seconds);
        if (pauses_s.size() == 5) release_lock(path.c_str());
        return pauses_s.size() == 2 ? 1U : 0U;  // a signal ends the second one early
    });
    EXPECT_EQ(acquire_lock(path.c_str(), 3), -1);
    EXPECT_EQ(pauses_s, std::vector(3, 1U));
    EXPECT_EQ(acquire_lock(path.c_str(), 3), 0) << "the lock was given back during the second pause";
    EXPECT_EQ(pauses_s, std::vector(5, 1U));
}

TEST_F(DirectoryLock, AnyFailureCountsAsHeld) {
    const auto start = Clock::now();
    EXPECT_EQ(acquire_lock("/tmp/none/lock", 1), -1);
    EXPECT_GE(Clock::now() - start, std::chrono::seconds(1));
}

TEST_F(DirectoryLock, IsTakenOverWhenItsHolderReleasesIt) {
    ASSERT_EQ(acquire_lock(path.c_str(), 1), 0);
    const pid_t waiter = vxtest::startChild([] { return acquire_lock(path.c_str(), 10) == 0 ? 0 : 1; });
    ::usleep(200000);
    EXPECT_EQ(release_lock(path.c_str()), 0);
    EXPECT_EQ(vxtest::waitChild(waiter), 0);
    EXPECT_TRUE(vxtest::exists(path)) << "the dead holder left it held";
}

TEST_F(DirectoryLock, ReleaseAlwaysSucceeds) {
    EXPECT_EQ(release_lock(path.c_str()), 0);
    EXPECT_EQ(release_lock(nullptr), 0);
    vxtest::writeFile("/tmp/lock/full/entry", "");
    EXPECT_EQ(release_lock("/tmp/lock/full"), 0);
    EXPECT_TRUE(vxtest::exists("/tmp/lock/full"));
    EXPECT_EQ(release_lock("/tmp/lock/full/entry"), 0);
    EXPECT_FALSE(vxtest::exists("/tmp/lock/full/entry"));
}

TEST_F(DirectoryLock, OneThatTheRealUserMayNotReadIsNotReleased) {
    if (!vxtest::hasOtherUsers()) GTEST_SKIP() << "a box made by an ordinary user has no other";
    constexpr uid_t user = 12345;
    ASSERT_EQ(::chown("/tmp/lock", user, user), 0);
    EXPECT_EQ(vxtest::inChild([] {
                  if (::setresuid(user, user, user) != 0 || acquire_lock(path.c_str(), 1) != 0) return 1;
                  if (::chmod(path.c_str(), 0300) != 0 || release_lock(path.c_str()) != 0) return 2;
                  if (!vxtest::exists(path)) return 3;
                  if (::chmod(path.c_str(), 0700) != 0 || release_lock(path.c_str()) != 0) return 4;
                  return vxtest::exists(path) ? 5 : 0;
              }),
              0);
    ASSERT_EQ(::chown("/tmp/lock", 0, 0), 0);
}

class FirewallLock : public testing::Test {
protected:
    void SetUp() override { vxtest::makeDirs("/var/lock"); }

    vxtest::NoLeaks noLeaks_;
};

// Whether another process could take the lock right now.
bool isFree() {
    return vxtest::inChild([] {
               const int fd = ::open(firewallPath.c_str(), O_RDONLY | O_CLOEXEC);
               return ::flock(fd, LOCK_EX | LOCK_NB) == 0 ? 0 : 1;
           }) == 0;
}

TEST_F(FirewallLock, ExcludesOtherProcessesUntilItIsGivenBack) {
    vxtest::SyslogCapture log;
    ::unlink(firewallPath.c_str());
    firewall_lock_handle *handle = firewall_lock();
    ASSERT_NE(handle, nullptr);
    struct stat status {};
    ASSERT_EQ(::stat(firewallPath.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode, S_IFREG | 0600u);
    EXPECT_FALSE(isFree());
    EXPECT_EQ(firewall_unlock(handle), 0);
    EXPECT_TRUE(isFree());
    EXPECT_EQ(log.take(), std::vector<LogLine>{});
}

TEST_F(FirewallLock, WaitsForItsHolderAndEndsWithIt) {
    const pid_t holder = vxtest::startChild([] {
        firewall_lock();
        vxtest::writeFile("/tmp/held", "");
        ::pause();
        return 0;
    });
    ASSERT_TRUE(vxtest::eventually([] { return vxtest::exists("/tmp/held"); }));
    std::thread end([holder] {
        ::usleep(150000);
        ::kill(holder, SIGKILL);
    });
    const auto start = Clock::now();
    firewall_lock_handle *handle = firewall_lock();
    EXPECT_GE(Clock::now() - start, std::chrono::milliseconds(100));
    ASSERT_NE(handle, nullptr);
    end.join();
    vxtest::waitChild(holder);
    EXPECT_EQ(firewall_unlock(handle), 0);
}

TEST_F(FirewallLock, GoesOnWaitingThroughSignals) {
    const pid_t holder = vxtest::startChild([] {
        firewall_lock();
        vxtest::writeFile("/tmp/held2", "");
        ::usleep(300000);
        return 0;
    });
    ASSERT_TRUE(vxtest::eventually([] { return vxtest::exists("/tmp/held2"); }));
    static volatile sig_atomic_t ticks = 0;
    struct sigaction tick {};
    tick.sa_handler = [](int) { ticks = ticks + 1; };  // no SA_RESTART: the wait is interrupted
    ::sigaction(SIGALRM, &tick, nullptr);
    const itimerval often{{0, 10000}, {0, 10000}};
    ::setitimer(ITIMER_REAL, &often, nullptr);
    vxtest::SyslogCapture log;
    firewall_lock_handle *handle = firewall_lock();
    const itimerval never{};
    ::setitimer(ITIMER_REAL, &never, nullptr);
    EXPECT_GT(ticks, 0);
    EXPECT_NE(handle, nullptr);
    EXPECT_TRUE(log.take().empty());
    EXPECT_EQ(firewall_unlock(handle), 0);
    while (vxtest::waitChild(holder) == -1) {
    }
}

TEST_F(FirewallLock, ASecondOneInTheSameProcessWaits) {
    EXPECT_EQ(vxtest::inChild([] {
                  ::signal(SIGALRM, SIG_DFL);
                  if (firewall_lock() == nullptr) return 1;
                  ::ualarm(100000, 0);
                  (void)firewall_lock();
                  return 2;
              }),
              128 + SIGALRM);
}

TEST_F(FirewallLock, IsSharedWithAForkedChild) {
    vxtest::SyslogCapture log;
    firewall_lock_handle *handle = firewall_lock();
    ASSERT_NE(handle, nullptr);
    const pid_t child = vxtest::startChild([] { return ::pause(); });
    EXPECT_EQ(firewall_unlock(handle), 0);
    EXPECT_TRUE(isFree()) << "given back by the parent for both";
    ::kill(child, SIGKILL);
    vxtest::waitChild(child);
    handle = firewall_lock();
    EXPECT_EQ(vxtest::inChild([&] { return firewall_unlock(handle); }), 0);
    EXPECT_TRUE(isFree()) << "given back by the child for both";
    EXPECT_EQ(firewall_unlock(handle), 0);
    const pid_t holder = vxtest::startChild([] {
        (void)firewall_lock();
        const pid_t heir = ::fork();
        if (heir == 0) {
            ::pause();
            ::_exit(0);
        }
        vxtest::writeFile("/tmp/heir", std::to_string(heir));
        return 0;
    });
    EXPECT_EQ(vxtest::waitChild(holder), 0);
    EXPECT_FALSE(isFree()) << "the child of a process that has ended holds it";
    ::kill(std::stoi(vxtest::readFile("/tmp/heir")), SIGKILL);
    EXPECT_TRUE(vxtest::eventually([] { return isFree(); }));
    EXPECT_THAT(log.take(), testing::IsEmpty());
}

TEST_F(FirewallLock, IsNotInheritedByPrograms) {
    firewall_lock_handle *handle = firewall_lock();
    ASSERT_NE(handle, nullptr);
    const auto output = vxtest::run({"sh", "-c", "ls -l /proc/self/fd"});
    EXPECT_EQ(output.text.find("iptables"), std::string::npos) << output.text;
    firewall_unlock(handle);
}

TEST_F(FirewallLock, AFileThatCannotBeOpenedIsReported) {
    ::unlink(firewallPath.c_str());
    ASSERT_EQ(::mount("tmpfs", "/var/lock", "tmpfs", MS_RDONLY, nullptr), 0);
    vxtest::SyslogCapture log;
    EXPECT_EQ(firewall_lock(), nullptr);
    EXPECT_EQ(log.take(), (std::vector<LogLine>{{LOG_ERR,
                                                 "firewall_lock: unable to open lockfile "
                                                 "\"/var/lock/iptables_flock_file\" - errno=Read-only file system"}}));
    ASSERT_EQ(::umount("/var/lock"), 0);
}

LogLine cannotOpen(const char *reason) {
    return {LOG_ERR, "firewall_lock: unable to open lockfile \"" + firewallPath + "\" - errno=" + reason};
}

// What firewall_lock() logs in a child, which must not wait; empty when it got the lock.
std::vector<LogLine> refusal() {
    vxtest::SyslogCapture log;
    const int got = vxtest::inChild([] {
        ::signal(SIGALRM, SIG_DFL);
        ::alarm(10);
        return firewall_unlock(firewall_lock());
    });
    EXPECT_EQ(got, 0);
    return log.take();
}

TEST_F(FirewallLock, ALinkIsNotFollowedAndCreatesNoFile) {
    const std::string veto = "/nvstatus/skip-reboot";
    vxtest::makeDirs("/nvstatus");
    ::unlink(firewallPath.c_str());
    ASSERT_EQ(::symlink(veto.c_str(), firewallPath.c_str()), 0);
    EXPECT_EQ(refusal(), std::vector<LogLine>{cannotOpen("Too many levels of symbolic links")});
    EXPECT_FALSE(vxtest::exists(veto));
    vxtest::writeFile(veto, "");
    EXPECT_EQ(refusal(), std::vector<LogLine>{cannotOpen("Too many levels of symbolic links")});
    ::unlink(veto.c_str());
    ::unlink(firewallPath.c_str());
}

TEST_F(FirewallLock, WhatIsNotARegularFileIsRefusedWithoutWaiting) {
    ::unlink(firewallPath.c_str());
    ASSERT_EQ(::mkfifo(firewallPath.c_str(), 0666), 0);
    EXPECT_EQ(refusal(), std::vector<LogLine>{cannotOpen("Invalid argument")});
    ::unlink(firewallPath.c_str());
    ASSERT_EQ(::mkdir(firewallPath.c_str(), 0777), 0);
    EXPECT_EQ(refusal(), std::vector<LogLine>{cannotOpen("Is a directory")});
    ::rmdir(firewallPath.c_str());
}

TEST_F(FirewallLock, AStrangersFileIsRefused) {
    if (!vxtest::hasOtherUsers()) GTEST_SKIP() << "a box made by an ordinary user has no other";
    ::unlink(firewallPath.c_str());
    vxtest::writeFile(firewallPath, "");
    ASSERT_EQ(::chown(firewallPath.c_str(), 12345, 12345), 0);
    const int held = ::open(firewallPath.c_str(), O_RDONLY | O_CLOEXEC);
    ASSERT_EQ(::flock(held, LOCK_EX), 0);
    EXPECT_EQ(refusal(), std::vector<LogLine>{cannotOpen("Operation not permitted")});
    ::close(held);
    ::unlink(firewallPath.c_str());
}

// The maker of a file can delay a process that opens it.
TEST_F(FirewallLock, AStrangersLeaseDoesNotDelay) {
    if (!vxtest::hasOtherUsers()) GTEST_SKIP() << "a box made by an ordinary user has no other";
    ::unlink(firewallPath.c_str());
    vxtest::writeFile(firewallPath, "");
    ASSERT_EQ(::chown(firewallPath.c_str(), 12345, 12345), 0);
    int ready[2];
    ASSERT_EQ(::pipe2(ready, O_CLOEXEC), 0);
    const pid_t stranger = vxtest::startChild([&ready] {
        if (::setresuid(12345, 12345, 12345) != 0) return 1;
        ::signal(SIGIO, SIG_IGN);
        const int fd = ::open(firewallPath.c_str(), O_RDWR | O_CLOEXEC);
        const char leased = ::fcntl(fd, F_SETLEASE, F_WRLCK) == 0 ? 'y' : 'n';
        if (::write(ready[1], &leased, 1) != 1) return 2;
        for (;;) ::pause();
    });
    char leased = 'n';
    ASSERT_EQ(::read(ready[0], &leased, 1), 1);
    ASSERT_EQ(leased, 'y');
    EXPECT_EQ(refusal(), std::vector<LogLine>{cannotOpen("Resource temporarily unavailable")});
    ::kill(stranger, SIGKILL);
    vxtest::waitChild(stranger);
    ::close(ready[0]);
    ::close(ready[1]);
    ::unlink(firewallPath.c_str());
}

// A shell script that locks the file makes it with the mode of its mask.
TEST_F(FirewallLock, AFileThatOthersCanOpenIsClosedToThem) {
    if (!vxtest::hasOtherUsers()) GTEST_SKIP() << "a box made by an ordinary user has no other";
    vxtest::writeFile(firewallPath, "");
    for (const mode_t mode : {0644U, 0666U, 0660U, 0604U, 0601U}) {
        ASSERT_EQ(::chmod(firewallPath.c_str(), mode), 0);
        firewall_lock_handle *handle = firewall_lock();
        ASSERT_NE(handle, nullptr);
        EXPECT_EQ(firewall_unlock(handle), 0);
        struct stat status {};
        ASSERT_EQ(::stat(firewallPath.c_str(), &status), 0);
        EXPECT_EQ(status.st_mode & 07777u, 0600u);
        EXPECT_EQ(vxtest::inChild([] {
                      if (::setresuid(12345, 12345, 12345) != 0) return 1;
                      return ::open(firewallPath.c_str(), O_RDONLY | O_CLOEXEC) == -1 && errno == EACCES ? 0 : 2;
                  }),
                  0);
    }
}

// What a stranger does with a link where fs.protected_hardlinks is 0.
TEST_F(FirewallLock, AnotherProgramsFileUnderItsNameKeepsItsMode) {
    constexpr const char *other = "/var/lock/users";
    ::unlink(firewallPath.c_str());
    vxtest::writeFile(other, "r");
    ASSERT_EQ(::chmod(other, 0644), 0);
    ASSERT_EQ(::link(other, firewallPath.c_str()), 0);
    EXPECT_EQ(refusal(), std::vector<LogLine>{cannotOpen("Operation not permitted")});
    struct stat status {};
    ASSERT_EQ(::stat(other, &status), 0);
    EXPECT_EQ(status.st_mode & 07777u, 0644u);
    ::unlink(other);
    ::unlink(firewallPath.c_str());
}

TEST_F(FirewallLock, ASecondNameOfItsFileDoesNotMatter) {
    vxtest::writeFile(firewallPath, "");
    ASSERT_EQ(::link(firewallPath.c_str(), "/var/lock/second"), 0);
    firewall_lock_handle *handle = firewall_lock();
    EXPECT_NE(handle, nullptr);
    EXPECT_EQ(firewall_unlock(handle), 0);
    ::unlink("/var/lock/second");
}

// A shell script may write its process id into the file.
TEST_F(FirewallLock, TheContentOfItsFileDoesNotMatter) {
    vxtest::writeFile(firewallPath, "1234");
    firewall_lock_handle *handle = firewall_lock();
    EXPECT_NE(handle, nullptr);
    EXPECT_EQ(firewall_unlock(handle), 0);
    EXPECT_EQ(vxtest::readFile(firewallPath), "1234");
    ::unlink(firewallPath.c_str());
}

TEST_F(FirewallLock, ALockThatTheKernelRefusesIsReported) {
    vxtest::SyslogCapture log;
    {
        const vxtest::Hooked full(vxtest::hooks::flock, vxtest::failingWith(ENOLCK));
        EXPECT_EQ(firewall_lock(), nullptr);
    }
    EXPECT_EQ(log.take(),
              (std::vector<LogLine>{{LOG_ERR, "firewall_lock: unable to acquire lock, errno=No locks available"}}));
}

TEST_F(FirewallLock, WithoutMemoryTheLockIsGivenBack) {
    vxtest::SyslogCapture log;
    outOfMemory = true;
    EXPECT_EQ(firewall_lock(), nullptr);
    outOfMemory = false;
    EXPECT_EQ(log.take(), (std::vector<LogLine>{{LOG_ERR, "firewall_lock: context allocation failed"}}));
    EXPECT_TRUE(isFree());
}

TEST_F(FirewallLock, UnlockingNullIsFine) { EXPECT_EQ(firewall_unlock(nullptr), 0); }

TEST_F(FirewallLock, UnlockingAClosedDescriptorIsReported) {
    vxtest::SyslogCapture log;
    EXPECT_EQ(vxtest::inChild([] {
                  firewall_lock_handle *handle = firewall_lock();
                  for (int fd = 3; fd < 64; ++fd) ::close(fd);
                  return firewall_unlock(handle);
              }),
              0);
    EXPECT_EQ(log.take(),
              (std::vector<LogLine>{{LOG_ERR, "firewall_unlock: flock(LOCK_UN) failed - errno=Bad file descriptor"}}));
}

TEST_F(FirewallLock, TheExamplesChangesStayWhole) {
    const auto output = vxtest::run({vxtest::built("examples/lock_rules"), "100"});
    EXPECT_EQ(output.text, "200 of 200 changes were made in one piece\n");
    EXPECT_EQ(output.status, 0);
}

}  // namespace
