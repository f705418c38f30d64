// SPDX-License-Identifier: MIT
// The device log while an ordinary user holds what can be held, and where its files are not what they should be.
#include <fcntl.h>
#include <sys/file.h>
#include <sys/ipc.h>
#include <sys/mount.h>
#include <sys/sem.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vxutils/qxlog.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "support/descriptor_limit.h"
#include "support/files.h"
#include "support/process.h"
#include "support/qxlog.h"
#include "support/resources.h"

namespace {

using vxtest::readFile;
using vxtest::writeFile;
using vxtest::devicelog::logFile, vxtest::devicelog::temporary, vxtest::devicelog::semaphore;
using vxtest::devicelog::Reported, vxtest::devicelog::reported;

const std::string precious = "/etc/precious";
constexpr uid_t user = 12345;

// Type and mode of what has this name, links not followed.
mode_t kindOf(const std::string &name) {
    struct stat status {};
    return ::lstat(name.c_str(), &status) == 0 ? status.st_mode : 0;
}

const Reported fine{0, ""};

// A process of an ordinary user that has done `prepare` and then does `act` until it is killed.
class Stranger {
public:
    explicit Stranger(
        const std::function<bool()> &prepare, const std::function<void()> &act = [] { ::pause(); }) {
        std::array<int, 2> ready{};
        if (::pipe2(ready.data(), O_CLOEXEC) != 0) throw std::runtime_error("pipe");
        pid_ = vxtest::startChild([&] {
            const bool good = ::setresgid(user, user, user) == 0 && ::setresuid(user, user, user) == 0 && prepare();
            if (::write(ready[1], good ? "y" : "n", 1) != 1) return 1;
            for (;;) act();
        });
        char answer = 'n';
        const bool answered = ::read(ready[0], &answer, 1) == 1;
        ::close(ready[0]);
        ::close(ready[1]);
        if (!answered || answer != 'y') throw std::runtime_error("the stranger could not prepare");
    }
    Stranger(Stranger &&other) noexcept : pid_(std::exchange(other.pid_, -1)) {}
    ~Stranger() {
        if (pid_ == -1) return;
        ::kill(pid_, SIGKILL);
        vxtest::waitChild(pid_);
    }
    Stranger(const Stranger &) = delete;
    Stranger &operator=(const Stranger &) = delete;

private:
    pid_t pid_;
};

Stranger holdingTheLockOf(const std::string &file) {
    return Stranger([&] {
        const int fd = ::open(file.c_str(), O_RDONLY | O_CLOEXEC);
        return ::flock(fd, LOCK_EX) == 0;
    });
}

Stranger settingTheSemaphoreToZero() {
    const int id = semaphore();
    return Stranger([id] { return id != -1; }, [id] { ::semctl(id, 0, SETVAL, 0); });
}

int appendSeen() { return qxlog(7, "seen"); }
int readSeen() {
    char buffer[1000];
    return qxlog_read(buffer, sizeof buffer) == 0 && std::strstr(buffer, "seen\n") != nullptr ? 0 : 1;
}

class HostileLog : public testing::Test {
protected:
    void SetUp() override {
        if (!vxtest::hasOtherUsers()) GTEST_SKIP() << "a box made by an ordinary user has no other";
        vxtest::makeDirs("/var/log");
        if (!vxtest::exists("/etc/fstab")) writeFile("/etc/fstab", "");
        for (const std::string &name : {logFile, temporary}) ::unlink(name.c_str());
        if (semaphore() != -1) ::semctl(semaphore(), 0, IPC_RMID);
        writeFile(precious, "precious\n");
        ::chmod(precious.c_str(), 0600);
    }
    static void expectAllCallsWork() {
        EXPECT_EQ(reported(appendSeen), fine);
        EXPECT_NE(readFile(logFile).find("seen\n"), std::string::npos);
        EXPECT_EQ(reported(readSeen), fine);
        EXPECT_EQ(reported(qxlog_clear), fine);
        EXPECT_EQ(readFile(logFile), "");
        EXPECT_EQ(kindOf(logFile), S_IFREG | 0664U);
        EXPECT_FALSE(vxtest::exists(temporary));
    }
    static void expectPreciousUntouched() {
        EXPECT_EQ(readFile(precious), "precious\n");
        EXPECT_EQ(kindOf(precious), S_IFREG | 0600U);
    }
};

// --- what others hold

TEST_F(HostileLog, AStrangersLockOfTheLogDoesNotStopIt) {
    ASSERT_EQ(qxlog(1, "first"), 0);
    const Stranger stranger = holdingTheLockOf(logFile);
    EXPECT_EQ(reported(readSeen), (Reported{1, ""})) << "not written yet";
    expectAllCallsWork();
}

TEST_F(HostileLog, ClearingDoesNotWaitForAStrangersLock) {
    ASSERT_EQ(qxlog(1, "first"), 0);
    const Stranger stranger = holdingTheLockOf(logFile);
    EXPECT_EQ(reported(qxlog_clear), fine);
    EXPECT_EQ(readFile(logFile), "");
}

TEST_F(HostileLog, ASemaphoreThatIsSetToZeroAgainAndAgainDoesNotStopIt) {
    ASSERT_EQ(qxlog(1, "first"), 0);
    const Stranger one = settingTheSemaphoreToZero();
    const Stranger two = settingTheSemaphoreToZero();
    expectAllCallsWork();
}

TEST_F(HostileLog, AQueueOfStrangersForTheSemaphoreDoesNotStopIt) {
    ASSERT_EQ(qxlog(1, "first"), 0);
    const auto take = [] {
        sembuf operation{0, -1, 0};
        ::semop(semaphore(), &operation, 1);
    };
    std::vector<Stranger> queue;
    for (int i = 0; i < 40; ++i) queue.push_back(Stranger([] { return true; }, take));
    expectAllCallsWork();
}

TEST_F(HostileLog, EverythingHeldAtOnceDoesNotStopIt) {
    ASSERT_EQ(qxlog(1, "first"), 0);
    writeFile(temporary, "of a writer that was killed");
    ::chmod(temporary.c_str(), 0644);
    const Stranger log = holdingTheLockOf(logFile);
    const Stranger file = holdingTheLockOf(temporary);
    const Stranger semaphores = settingTheSemaphoreToZero();
    expectAllCallsWork();
}

TEST_F(HostileLog, TheTemporaryFileCannotBeOpenedByAStranger) {
    ASSERT_EQ(::mkdir(logFile.c_str(), 0700), 0);
    const mode_t mask = ::umask(0);
    EXPECT_EQ(reported(appendSeen), (Reported{-1, "rename: Is a directory\n"}));
    ::umask(mask);
    EXPECT_EQ(kindOf(temporary), S_IFREG | 0660U);
    ::chmod(temporary.c_str(), 0666);
    EXPECT_EQ(reported(appendSeen), (Reported{-1, "rename: Is a directory\n"}));
    EXPECT_EQ(kindOf(temporary), S_IFREG | 0660U);
    ::rmdir(logFile.c_str());
}

// The holder of the lock of a file that strangers cannot open writes a log.
TEST_F(HostileLog, AnHonestWriterThatHangsIsReportedAndLeftAlone) {
    writeFile(logFile, "old\n");
    const int fd = ::open(temporary.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    ASSERT_EQ(::flock(fd, LOCK_EX), 0);
    ASSERT_EQ(::write(fd, "half", 4), 4);
    EXPECT_EQ(reported([fd] {
                  ::close(fd);
                  return appendSeen();
              }),
              (Reported{-1, "open: Resource temporarily unavailable\n"}));
    EXPECT_EQ(readFile(temporary), "half");
    EXPECT_EQ(readFile(logFile), "old\n");
    ::close(fd);
    EXPECT_EQ(reported(appendSeen), fine);
}

TEST_F(HostileLog, ASetThatAStrangerMadeIsReplaced) {
    const Stranger stranger([] { return ::semget(::ftok("/etc/fstab", 69), 1, IPC_CREAT | IPC_EXCL | 0600) != -1; });
    const int strangers = semaphore();
    EXPECT_EQ(reported(appendSeen), fine);
    EXPECT_NE(semaphore(), strangers);
    EXPECT_EQ(vxtest::inChild([] {
                  return ::setresuid(user, user, user) == 0 && ::semctl(semaphore(), 0, IPC_RMID) == -1 ? 0 : 1;
              }),
              0);
    EXPECT_EQ(vxtest::inChild([] {  // but every user may still lock
                  return ::setresuid(user, user, user) == 0 && qxlog_read(std::string(300, ' ').data(), 300) == 0 ? 0
                                                                                                                  : 1;
              }),
              0);
}

// Daemons of two users, whose common group may write to the directory. One of them was killed in the middle of a call.
TEST_F(HostileLog, ATemporaryFileThatAnotherUserLeftIsReplaced) {
    constexpr gid_t common = 23456;
    writeFile(logFile, "old\n");
    ASSERT_EQ(::chown("/var/log", 0, common), 0);
    ASSERT_EQ(::chmod("/var/log", 0775), 0);
    for (const mode_t mode : {0600, 0660, 0664}) {
        writeFile(temporary, "half");
        ASSERT_EQ(::chown(temporary.c_str(), user + 1, common), 0);
        ASSERT_EQ(::chmod(temporary.c_str(), mode), 0);
        EXPECT_EQ(reported([] {
                      return ::setresgid(common, common, common) == 0 && ::setresuid(user, user, user) == 0
                                 ? appendSeen()
                                 : 100;
                  }),
                  mode == 0600 ? (Reported{-1, "open: Permission denied\n"}) : fine);
        EXPECT_EQ(kindOf(logFile), S_IFREG | (mode == 0600 ? 0644U : 0664U));
    }
    EXPECT_NE(readFile(logFile).find("seen\n"), std::string::npos);
    EXPECT_FALSE(vxtest::exists(temporary));
    ASSERT_EQ(::chown("/var/log", 0, 0), 0);
    ASSERT_EQ(::chmod("/var/log", 0755), 0);
}

// --- files of other kinds

TEST_F(HostileLog, ALinkInTheLogsPlaceIsNotFollowed) {
    ASSERT_EQ(::symlink(precious.c_str(), logFile.c_str()), 0);
    EXPECT_EQ(reported(appendSeen), (Reported{-1, "open: Too many levels of symbolic links\n"}));
    EXPECT_EQ(reported(readSeen), (Reported{1, ""})) << "reads as empty";
    EXPECT_EQ(reported(qxlog_clear), fine);
    EXPECT_EQ(kindOf(logFile) & S_IFMT, static_cast<mode_t>(S_IFLNK));
    expectPreciousUntouched();
}

TEST_F(HostileLog, ALinkInTheTemporaryFilesPlaceIsNotFollowed) {
    ASSERT_EQ(::symlink(precious.c_str(), temporary.c_str()), 0);
    EXPECT_EQ(reported(appendSeen), (Reported{-1, "open: Too many levels of symbolic links\n"}));
    expectPreciousUntouched();
    ASSERT_EQ(::unlink(temporary.c_str()), 0);
    ASSERT_EQ(::symlink("/etc/made-by-link", temporary.c_str()), 0);
    EXPECT_EQ(reported(appendSeen), (Reported{-1, "open: Too many levels of symbolic links\n"}));
    EXPECT_FALSE(vxtest::exists("/etc/made-by-link"));
}

TEST_F(HostileLog, AFifoNeitherHangsItNorIsWritten) {
    ASSERT_EQ(::mkfifo(logFile.c_str(), 0666), 0);
    EXPECT_EQ(reported(readSeen), (Reported{1, ""}));
    EXPECT_EQ(reported(qxlog_clear), fine);
    EXPECT_EQ(kindOf(logFile) & S_IFMT, static_cast<mode_t>(S_IFIFO));
    EXPECT_EQ(reported(appendSeen), fine) << "a log takes its place";
    EXPECT_EQ(reported(readSeen), fine);
    ASSERT_EQ(::mkfifo(temporary.c_str(), 0666), 0);
    EXPECT_EQ(reported(appendSeen), (Reported{-1, "open: Invalid argument\n"}));
}

// --- an old log that cannot be read

TEST_F(HostileLog, AnOldLogThatMayNotBeReadIsNotReplaced) {
    ASSERT_EQ(::mount("tmpfs", "/var/log", "tmpfs", 0, "mode=0777"), 0);
    writeFile(logFile, "old\n");
    ::chmod(logFile.c_str(), 0600);
    EXPECT_EQ(reported([] { return ::setresuid(user, user, user) == 0 ? appendSeen() : 100; }),
              (Reported{-1, "open: Permission denied\n"}));
    EXPECT_EQ(readFile(logFile), "old\n");
    EXPECT_EQ(kindOf(logFile), S_IFREG | 0600U);
    ASSERT_EQ(::umount("/var/log"), 0);
}

TEST_F(HostileLog, AnOldLogIsNotReplacedWhereDescriptorsRunOut) {
    writeFile(logFile, "old\n");
    ASSERT_EQ(qxlog(1, "the zone's file has been read"), 0);
    const std::string before = readFile(logFile);
    EXPECT_EQ(reported([] {
                  const vxtest::DescriptorLimit one(1);
                  return appendSeen();
              }),
              (Reported{-1, "open: Too many open files\n"}));
    EXPECT_EQ(readFile(logFile), before);
    EXPECT_EQ(reported(appendSeen), fine);
}

// A file whose first byte cannot be read.
TEST_F(HostileLog, AnOldLogThatFailsToBeReadIsNotReplaced) {
    writeFile(logFile, "");
    ASSERT_EQ(::mount("/proc/self/mem", logFile.c_str(), nullptr, MS_BIND, nullptr), 0);
    EXPECT_EQ(reported(appendSeen), (Reported{-1, "open: Input/output error\n"}));
    ASSERT_EQ(::umount(logFile.c_str()), 0);
    EXPECT_EQ(reported(appendSeen), fine);
}

}  // namespace
