// SPDX-License-Identifier: MIT
// Locks whose objects were made first by others: by a stranger, or by a process that died or stopped half-way.
#include <vxutils/csemaphore.h>

#include <fcntl.h>
#include <pthread.h>
#include <sys/ipc.h>
#include <sys/mman.h>
#include <sys/sem.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <syslog.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <functional>
#include <optional>
#include <random>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "support/call_hooks.h"
#include "support/csemaphore.h"
#include "support/files.h"
#include "support/large_files.h"
#include "support/process.h"
#include "support/resources.h"
#include "support/semctl_hook.h"
#include "support/syslog_capture.h"
#include "support/text.h"

VXTEST_HOOK(int, semop, (int id, sembuf *operations, size_t count), (id, operations, count))

namespace {

using vxtest::libraryFile;
using vxtest::textf;

using Clock = std::chrono::steady_clock;
using Lines = std::vector<vxtest::LogLine>;

constexpr uid_t user = 12345;
constexpr unsigned int hangs_s = 60;
constexpr size_t mutexSize = sizeof(pthread_mutex_t);

// Kills its process, and waits for it, in the end.
class Child {
public:
    explicit Child(const std::function<int()> &body) : pid_(vxtest::startChild(body)) {}
    Child(Child &&other) noexcept : pid_(std::exchange(other.pid_, -1)) {}
    ~Child() {
        if (pid_ == -1) return;
        ::kill(pid_, SIGKILL);
        vxtest::waitChild(pid_);
    }
    Child(const Child &) = delete;
    Child &operator=(const Child &) = delete;
    int wait() { return vxtest::waitChild(std::exchange(pid_, -1)); }

private:
    pid_t pid_;
};

bool becomeStranger(uid_t uid = user) { return ::setresgid(uid, uid, uid) == 0 && ::setresuid(uid, uid, uid) == 0; }

// Runs `body` as an ordinary user.
int asStranger(const std::function<int()> &body) {
    return vxtest::inChild([&] { return becomeStranger() ? body() : 100; });
}

// Ends the test program when a call that must end does not.
class EndsInTime {
public:
    EndsInTime() { ::alarm(hangs_s); }
    ~EndsInTime() { ::alarm(0); }
    EndsInTime(const EndsInTime &) = delete;
    EndsInTime &operator=(const EndsInTime &) = delete;
};

class Hostile : public vxtest::SemaphoreTest {
protected:
    Hostile() { removeSet(libraryFile, 1); }
    void SetUp() override {
        if (!vxtest::hasOtherUsers()) GTEST_SKIP() << "a box made by an ordinary user has no other";
    }
    static int setOf(const std::string &path, int project) { return ::semget(::ftok(path.c_str(), project), 1, 0); }
    static int guardSet() { return setOf(libraryFile, 1); }
    static void removeSet(const std::string &path, int project) {
        const int id = setOf(path, project);
        if (id != -1) ::semctl(id, 0, IPC_RMID);
    }
    static vxtest::LogLine refused(const std::string &name, uid_t owner, unsigned int mode) {
        return {LOG_ERR, textf("recursive-semaphore: refusing shared memory \"%s\" - owner=%u, mode=%o", name.c_str(),
                               owner, mode)};
    }
    static vxtest::LogLine cannotOpen(const char *reason) {
        return {LOG_ERR, std::string("recursive-semaphore: unable to open shared memory - errno=") + reason};
    }
    void expectUnusable(const std::string &name, const Lines &lines) {
        const EndsInTime watch;
        const vxtest::NoLeaks leaks;
        CRecursiveSemaphore lock(name);
        EXPECT_EQ(log.take(), lines);
        EXPECT_EQ(lock.lock(), -1);
        EXPECT_EQ(lock.trylock(), -1);
        EXPECT_EQ(lock.unlock(), -1);
        EXPECT_EQ(lock.makeConsistent(), -1);
        EXPECT_EQ(vxtest::readFile("/proc/self/maps").find(object(name)), std::string::npos);
    }
    void expectUsable(const std::string &name, const Lines &lines) {
        const EndsInTime watch;
        CRecursiveSemaphore lock(name);
        EXPECT_EQ(log.take(), lines);
        EXPECT_EQ(lock.lock(), 0);
        EXPECT_EQ(lock.unlock(), 0);
    }
};

semid_ds statusOf(int id) {
    union {
        int value;
        semid_ds *buffer;
    } argument{};
    semid_ds status{};
    argument.buffer = &status;
    EXPECT_EQ(::semctl(id, 0, IPC_STAT, argument), 0);
    return status;
}

// --- shared objects

using StrangersObject = Hostile;

// A whole mutex as the library makes it, locked by the thread that is said to hold it.
std::string mutexBytes(int owner = 0) {
    pthread_mutexattr_t attributes;
    pthread_mutexattr_init(&attributes);
    pthread_mutexattr_setrobust(&attributes, PTHREAD_MUTEX_ROBUST);
    pthread_mutexattr_setpshared(&attributes, PTHREAD_PROCESS_SHARED);
    pthread_mutexattr_settype(&attributes, PTHREAD_MUTEX_RECURSIVE);
    pthread_mutex_t mutex;
    pthread_mutex_init(&mutex, &attributes);
    if (owner != 0) mutex.__data.__lock = owner;
    return {reinterpret_cast<const char *>(&mutex), sizeof mutex};
}

TEST_F(StrangersObject, IsRefusedWhateverItHoldsAndStaysAsItIs) {
    const std::vector<std::string> contents{"",
                                            "x",
                                            std::string(mutexSize - 1, '\0'),
                                            std::string(mutexSize, '\0'),
                                            std::string(mutexSize, '\xff'),
                                            mutexBytes(),
                                            mutexBytes(1),
                                            mutexBytes() + std::string(100000, 'x')};
    for (const unsigned int mode : {0600U, 0644U, 0666U}) {
        for (const std::string &content : contents) {
            const std::string name = fresh();
            ASSERT_EQ(asStranger([&] {
                          vxtest::writeFile(object(name), content);
                          return ::chmod(object(name).c_str(), mode);
                      }),
                      0);
            expectUnusable(name, {refused(name, user, S_IFREG | mode)});
            EXPECT_EQ(vxtest::readFile(object(name)), content);
        }
    }
}

TEST_F(StrangersObject, WithoutEndIsRefused) {
    const std::string name = fresh();
    ASSERT_EQ(asStranger([&] {
                  const vxtest::LargeFiles large;
                  vxtest::writeFile(object(name), "");
                  return ::truncate(object(name).c_str(), off_t{1} << 40);
              }),
              0);
    const mode_t mask = ::umask(0);
    ::umask(mask);
    expectUnusable(name, {refused(name, user, S_IFREG | (0666U & ~mask))});
}

TEST_F(StrangersObject, OfAnotherKindIsRefused) {
    const std::string target = fresh();
    const std::string link = fresh();
    const std::string dangling = fresh();
    const std::string fifo = fresh();
    const std::string directory = fresh();
    const std::string socket = fresh();
    vxtest::writeFile("/etc/precious", std::string(mutexSize, '\0'));
    ASSERT_EQ(asStranger([&] {
                  sockaddr_un address{};
                  address.sun_family = AF_UNIX;
                  ::strcpy(address.sun_path, object(socket).c_str());
                  const int fd = ::socket(AF_UNIX, SOCK_STREAM, 0);
                  ::umask(0);
                  const bool made = ::symlink("/etc/precious", object(link).c_str()) == 0 &&
                                    ::symlink("/etc/made-by-link", object(dangling).c_str()) == 0 &&
                                    ::mkfifo(object(fifo).c_str(), 0666) == 0 &&
                                    ::mkdir(object(directory).c_str(), 0777) == 0 &&
                                    ::bind(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0;
                  return made ? 0 : 1;
              }),
              0);
    expectUnusable(link, {cannotOpen("Too many levels of symbolic links")});
    EXPECT_EQ(vxtest::readFile("/etc/precious"), std::string(mutexSize, '\0'));
    expectUnusable(dangling, {cannotOpen("Too many levels of symbolic links")});
    EXPECT_FALSE(vxtest::exists("/etc/made-by-link"));
    expectUnusable(fifo, {refused(fifo, user, S_IFIFO | 0666)});
    expectUnusable(directory, {cannotOpen("Invalid argument")});
    expectUnusable(socket, {cannotOpen("No such device or address")});
}

TEST_F(StrangersObject, UnderALeaseDoesNotDelay) {
    const std::string name = fresh();
    int ready[2];
    ASSERT_EQ(::pipe2(ready, O_CLOEXEC), 0);
    const Child stranger([&] {
        if (!becomeStranger()) return 1;
        ::signal(SIGIO, SIG_IGN);
        const int fd = ::open(object(name).c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0666);
        const char leased = ::fcntl(fd, F_SETLEASE, F_WRLCK) == 0 ? 'y' : 'n';
        if (::write(ready[1], &leased, 1) != 1) return 2;
        for (;;) ::pause();
    });
    char leased = 'n';
    ASSERT_EQ(::read(ready[0], &leased, 1), 1);
    ASSERT_EQ(leased, 'y');
    const auto start = Clock::now();
    expectUnusable(name, {cannotOpen("Resource temporarily unavailable")});
    EXPECT_LT(Clock::now() - start, std::chrono::seconds(20)) << "a lease is broken after 45 s";
    for (const int fd : ready) ::close(fd);
}

// What a stranger does with a link where fs.protected_hardlinks is 0. He may choose among all objects of root.
TEST_F(Hostile, AnotherProgramsObjectUnderASecondNameIsRefusedAndStaysAsItIs) {
    std::string otherKind = mutexBytes();
    otherKind[offsetof(pthread_mutex_t, __data.__kind)] ^= 1;
    for (const std::string &content :
         {std::string("settings"), std::string(mutexSize, '\0'), std::string(mutexSize, 'x'), std::string(4096, 'x'),
          mutexBytes() + "x", otherKind, std::string()}) {
        const std::string program = fresh();
        const std::string name = fresh();
        vxtest::writeFile(object(program), content);
        ASSERT_EQ(::chmod(object(program).c_str(), 0600), 0);
        ASSERT_EQ(::link(object(program).c_str(), object(name).c_str()), 0);
        expectUnusable(name, {refused(name, 0, S_IFREG | 0600)});
        EXPECT_EQ(vxtest::readFile(object(program)), content);
    }
}

TEST_F(Hostile, ALockStaysUsableWhenItsObjectGetsASecondName) {
    const std::string name = fresh();
    expectUsable(name, {{LOG_DEBUG, "created recursive semaphore \"" + name + "\""}});
    ASSERT_EQ(::link(object(name).c_str(), object(fresh()).c_str()), 0);
    expectUsable(name, {});
}

TEST_F(Hostile, AnObjectThatOthersMayWriteIsRefused) {
    for (const unsigned int mode : {0666U, 0660U, 0620U, 0602U}) {
        const std::string name = fresh();
        vxtest::writeFile(object(name), mutexBytes());
        ASSERT_EQ(::chmod(object(name).c_str(), mode), 0);
        expectUnusable(name, {refused(name, 0, S_IFREG | mode)});
    }
    for (const unsigned int mode : {0644U, 0640U, 0604U, 0600U}) {
        const std::string name = fresh();
        vxtest::writeFile(object(name), mutexBytes());
        ASSERT_EQ(::chmod(object(name).c_str(), mode), 0);
        expectUsable(name, {});
    }
}

// What can be made under the name while it is constructed: the object that was looked at is the one that is used.
TEST_F(StrangersObject, SwappedInAndOutIsNeverUsed) {
    const EndsInTime watch;
    const std::string name = fresh();
    const Child stranger([&] {
        if (!becomeStranger()) return 1;
        for (;;) {
            const int fd = ::open(object(name).c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
            if (fd == -1) continue;
            if (::ftruncate(fd, mutexSize) == -1) return 2;
            ::close(fd);
            ::unlink(object(name).c_str());
        }
    });
    int usable = 0;
    for (int i = 0; i < 300; ++i) {
        CRecursiveSemaphore lock(name);
        if (lock.trylock() == -1) continue;
        ++usable;
        struct stat status {};
        ASSERT_EQ(::stat(object(name).c_str(), &status), 0);
        EXPECT_EQ(status.st_uid, 0U);
        EXPECT_EQ(status.st_mode & 0777, 0600U);
        EXPECT_EQ(status.st_size, static_cast<off_t>(mutexSize));
        EXPECT_EQ(lock.unlock(), 0);
        ASSERT_EQ(::unlink(object(name).c_str()), 0);
    }
    EXPECT_GT(usable, 0);
    log.take();
}

TEST_F(Hostile, AnOrdinaryUsersOwnLocksServeThatUserOnly) {
    const std::string name = fresh();
    EXPECT_EQ(asStranger([&] {
                  CRecursiveSemaphore first(name);
                  CRecursiveSemaphore second(name);
                  return first.lock() == 0 && second.lock() == 0 && first.unlock() == 0 && second.unlock() == 0 ? 0 : 1;
              }),
              0);
    EXPECT_EQ(log.take(), Lines{created(name)});
    expectUnusable(name, {refused(name, user, S_IFREG | 0600)});
    const std::string own = fresh();
    expectUsable(own, {created(own)});
}

// --- the guard, and other semaphores, of a stranger

// Makes the set of this key as an ordinary user would.
int makeStrangersSet(const std::string &path, int project, int mode, int value) {
    return asStranger([&] {
        const int id = ::semget(::ftok(path.c_str(), project), 1, IPC_CREAT | IPC_EXCL | mode);
        return id != -1 && (value < 0 || ::semctl(id, 0, SETVAL, value) == 0) ? 0 : 1;
    });
}

TEST_F(Hostile, AGuardThatAStrangerMadeFirstIsReplaced) {
    for (const int mode : {0600, 0666, 0777}) {
        for (const int value : {-1, 0, 1, 2, 32767}) {
            removeSet(libraryFile, 1);
            ASSERT_EQ(makeStrangersSet(libraryFile, 1, mode, value), 0);
            const int strangers = guardSet();
            const std::string name = fresh();
            expectUsable(name, {created(name)});
            const int id = guardSet();
            EXPECT_NE(id, strangers);
            EXPECT_EQ(statusOf(id).sem_perm.cuid, 0U);
            EXPECT_EQ(statusOf(id).sem_perm.mode & 0777, 0600);
            EXPECT_EQ(::semctl(id, 0, GETVAL), 1);
        }
    }
}

TEST_F(Hostile, ASetThatAStrangerGaveAwayIsReplaced) {
    removeSet(libraryFile, 1);
    ASSERT_EQ(asStranger([] {
                  const int id = ::semget(::ftok(libraryFile.c_str(), 1), 1, IPC_CREAT | IPC_EXCL | 0666);
                  semid_ds status = statusOf(id);
                  status.sem_perm.uid = 0;
                  status.sem_perm.gid = 0;
                  union {
                      int value;
                      semid_ds *buffer;
                  } argument{};
                  argument.buffer = &status;
                  return ::semctl(id, 0, SETVAL, 1) == 0 && ::semctl(id, 0, IPC_SET, argument) == 0 ? 0 : 1;
              }),
              0);
    ASSERT_EQ(statusOf(guardSet()).sem_perm.uid, 0U);
    const std::string name = fresh();
    expectUsable(name, {created(name)});
    EXPECT_EQ(statusOf(guardSet()).sem_perm.cuid, 0U);
}

TEST_F(Hostile, AStrangerWhoMakesTheGuardAgainAndAgainDoesNotHangConstruction) {
    const EndsInTime watch;
    const Child stranger([] {
        if (!becomeStranger()) return 1;
        const key_t key = ::ftok(libraryFile.c_str(), 1);
        for (;;) ::semget(key, 1, IPC_CREAT | 0666);
    });
    int usable = 0;
    for (int i = 0; i < 50; ++i) {
        const int id = guardSet();
        if (id != -1) ::semctl(id, 0, IPC_RMID);
        CRecursiveSemaphore lock("/hostile-guard");
        if (lock.lock() == 0) ++usable;
        (void)lock.unlock();
    }
    EXPECT_EQ(usable, 50);
    log.take();
}

TEST_F(Hostile, ASetOfAnotherUserIsRefusedWhereItCannotBeRemoved) {
    vxtest::writeFile("/tmp/of-a-set", "");
    removeSet("/tmp/of-a-set", 3);
    ASSERT_EQ(makeStrangersSet("/tmp/of-a-set", 3, 0666, 1), 0);
    EXPECT_EQ(vxtest::inChild([] {
                  if (!becomeStranger(user + 1)) return 1;
                  CSemaphore lock("/tmp/of-a-set", 3);
                  return lock.init() == -1 && lock.lock() == -1 ? 0 : 2;
              }),
              0);
    EXPECT_EQ(
        log.take(),
        (Lines{{LOG_ERR, textf("CSemaphore::init() - refusing the semaphore-set of another user - errno=%i", EPERM)},
               {LOG_ERR, "CSemaphore::lock() - invalid semId!"}}));
    EXPECT_EQ(asStranger([] {
                  CSemaphore lock("/tmp/of-a-set", 3);
                  return lock.init() == 0 && lock.lock() == 0 && lock.unlock() == 0 ? 0 : 1;
              }),
              0)
        << "its maker may use it";
}

TEST_F(Hostile, ASetOfRootServesThoseWhomRootLetsIn) {
    removeSet(libraryFile, 1);
    const int id = ::semget(::ftok(libraryFile.c_str(), 1), 1, IPC_CREAT | IPC_EXCL | 0666);
    ASSERT_EQ(::semctl(id, 0, SETVAL, 1), 0);
    const std::string name = fresh();
    expectUsable(name, {created(name)});
    const std::string own = fresh();
    EXPECT_EQ(asStranger([&] {
                  CRecursiveSemaphore lock(own);
                  return lock.lock() == 0 && lock.unlock() == 0 ? 0 : 1;
              }),
              0);
    EXPECT_EQ(log.take(), Lines{created(own)});
    EXPECT_EQ(guardSet(), id);
}

// A guard that others hold for good: construction ends, the object is unusable.
TEST_F(Hostile, AGuardThatIsNeverGivenBackDoesNotHangConstruction) {
    const EndsInTime watch;
    CSemaphore guard(libraryFile, 1);
    ASSERT_EQ(guard.init(), 0);
    int ready[2];
    ASSERT_EQ(::pipe2(ready, O_CLOEXEC), 0);
    const Child holder([&] {
        if (guard.lock() != 0 || ::write(ready[1], "x", 1) != 1) return 1;
        for (;;) ::pause();
    });
    char byte = 0;
    ASSERT_EQ(::read(ready[0], &byte, 1), 1);
    for (const int fd : ready) ::close(fd);
    const auto start = Clock::now();
    expectUnusable(fresh(), {{LOG_ERR, textf("CSemaphore::lock() - semop failed, errno=%i", EAGAIN)},
                             {LOG_ERR, "recursive-semaphore: unable to lock guarding semaphore"}});
    EXPECT_GE(Clock::now() - start, std::chrono::seconds(9)) << "honest holders get their time";
}

// --- semaphores whose maker died, stopped or was slow

class UnfinishedSet : public Hostile {
protected:
    void SetUp() override {}
    static int make(int project) {
        removeSet("/etc/hostname", project);
        return ::semget(::ftok("/etc/hostname", project), 1, IPC_CREAT | IPC_EXCL | 0600);
    }
};

TEST_F(UnfinishedSet, OfADeadMakerIsReplacedAfterASecond) {
    const EndsInTime watch;
    const int left = make(20);
    ASSERT_NE(left, -1);
    const auto start = Clock::now();
    CSemaphore lock("/etc/hostname", 20);
    EXPECT_EQ(lock.init(), 0);
    EXPECT_GE(Clock::now() - start, std::chrono::milliseconds(950));
    const int id = setOf("/etc/hostname", 20);
    EXPECT_NE(id, left);
    EXPECT_EQ(::semctl(id, 0, GETVAL), 1);
    EXPECT_EQ(statusOf(id).sem_perm.mode & 0777, 0600);
    EXPECT_EQ(lock.lock(), 0);
    EXPECT_EQ(::semctl(id, 0, GETVAL), 0);
    sembuf free{0, 1, 0};
    EXPECT_EQ(::semop(left, &free, 1), -1) << "the maker comes too late";
    EXPECT_EQ(::semctl(id, 0, GETVAL), 0);
    EXPECT_EQ(lock.unlock(), 0);
}

TEST_F(UnfinishedSet, ThatIsTheGuardIsReplacedByTheConstructionOfANamedLock) {
    removeSet(libraryFile, 1);
    ASSERT_NE(::semget(::ftok(libraryFile.c_str(), 1), 1, IPC_CREAT | IPC_EXCL | 0600), -1);
    const std::string name = fresh();
    expectUsable(name, {created(name)});
    EXPECT_EQ(::semctl(guardSet(), 0, GETVAL), 1);
}

TEST_F(UnfinishedSet, IsLeftToAMakerWhoIsInTime) {
    const EndsInTime watch;
    const int id = make(21);
    std::thread maker([id] {
        ::usleep(300000);
        sembuf free{0, 1, 0};
        EXPECT_EQ(::semop(id, &free, 1), 0);
    });
    CSemaphore lock("/etc/hostname", 21);
    EXPECT_EQ(lock.init(), 0);
    maker.join();
    EXPECT_EQ(setOf("/etc/hostname", 21), id);
    EXPECT_EQ(::semctl(id, 0, GETVAL), 1);
    EXPECT_EQ(lock.lock(), 0);
    EXPECT_EQ(lock.unlock(), 0);
}

TEST_F(UnfinishedSet, SignalsDoNotEndTheWait) {
    const EndsInTime watch;
    const int left = make(22);
    struct sigaction tick {};
    tick.sa_handler = [](int) {};
    ::sigaction(SIGUSR1, &tick, nullptr);
    std::atomic<bool> stop{false};
    const pthread_t target = ::pthread_self();
    std::thread sender([&] {
        while (!stop) {
            ::pthread_kill(target, SIGUSR1);
            ::usleep(2000);
        }
    });
    const auto start = Clock::now();
    CSemaphore lock("/etc/hostname", 22);
    EXPECT_EQ(lock.init(), 0);
    EXPECT_GE(Clock::now() - start, std::chrono::milliseconds(950));
    stop = true;
    sender.join();
    EXPECT_NE(setOf("/etc/hostname", 22), left);
}

TEST_F(UnfinishedSet, AHeldSetIsNotTakenForOne) {
    const EndsInTime watch;
    CSemaphore lock("/etc/hostname", 23);
    removeSet("/etc/hostname", 23);
    ASSERT_EQ(lock.init(), 0);
    ASSERT_EQ(lock.lock(), 0);
    const int id = setOf("/etc/hostname", 23);
    EXPECT_EQ(vxtest::inChild([] {
                  CSemaphore other("/etc/hostname", 23);
                  return other.init() == 0 ? 0 : 1;
              }),
              0);
    EXPECT_EQ(setOf("/etc/hostname", 23), id);
    EXPECT_EQ(::semctl(id, 0, GETVAL), 0);
    EXPECT_EQ(lock.unlock(), 0);
}

// A set that was marked for removal, and was freed by its maker after all, is held by the process that removes it.
TEST_F(UnfinishedSet, AMarkedSetIsRemovedOnlyWhenItIsFree) {
    const EndsInTime watch;
    const int id = make(24);
    sembuf free{0, 1, 0};
    ASSERT_EQ(::semop(id, &free, 1), 0);
    semid_ds status = statusOf(id);
    status.sem_perm.mode |= 0100;
    union {
        int value;
        semid_ds *buffer;
    } argument{};
    argument.buffer = &status;
    ASSERT_EQ(::semctl(id, 0, IPC_SET, argument), 0);
    sembuf take{0, -1, SEM_UNDO};
    ASSERT_EQ(::semop(id, &take, 1), 0);
    Child other([] {
        CSemaphore lock("/etc/hostname", 24);
        return lock.init() == 0 && lock.lock() == 0 && lock.unlock() == 0 ? 0 : 1;
    });
    ::usleep(200000);
    EXPECT_EQ(setOf("/etc/hostname", 24), id);
    sembuf give{0, 1, SEM_UNDO};
    ASSERT_EQ(::semop(id, &give, 1), 0);
    EXPECT_EQ(other.wait(), 0);
    EXPECT_NE(setOf("/etc/hostname", 24), id);
    EXPECT_EQ(statusOf(setOf("/etc/hostname", 24)).sem_perm.mode & 0777, 0600);
}

TEST_F(UnfinishedSet, AMarkedSetThatStaysHeldIsReportedByInit) {
    const EndsInTime watch;
    const int id = ::semget(::ftok("/etc/hostname", 25), 1, IPC_CREAT | IPC_EXCL | 0700);
    sembuf free{0, 1, 0};
    ASSERT_EQ(::semop(id, &free, 1), 0);
    sembuf take{0, -1, SEM_UNDO};
    ASSERT_EQ(::semop(id, &take, 1), 0);
    CSemaphore lock("/etc/hostname", 25);
    EXPECT_EQ(lock.init(), -1);
    EXPECT_EQ(log.take(),
              (Lines{{LOG_ERR, textf("CSemaphore::init() - unable to obtain semaphore-set - errno=%i", EAGAIN)}}));
    EXPECT_EQ(::semctl(id, 0, IPC_RMID), 0);
}

// --- never two at once

// The maker comes with its first operation, and another process enters through the set, in the worst moments: when the
// set has been found unfinished but is not marked yet, and when it is about to be removed.
TEST_F(UnfinishedSet, ThatIsFreedWhileItIsReplacedLetsOneInAtATime) {
    const EndsInTime watch;
    for (const int moment : {IPC_SET, IPC_RMID}) {
        const int id = make(26);
        auto *const inside = static_cast<std::atomic<int> *>(
            ::mmap(nullptr, sizeof(std::atomic<int>), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
        pid_t other = -1;
        vxtest::hooks::semctl = [&](int, int command, semid_ds *) -> std::optional<int> {
            if (command != moment || other != -1) return std::nullopt;
            other = 0;  // once
            sembuf free{0, 1, 0};
            EXPECT_EQ(::semop(id, &free, 1), 0);
            other = vxtest::startChild([&] {
                CSemaphore lock("/etc/hostname", 26);
                if (lock.init() != 0 || lock.lock() != 0) return 1;
                *inside = 1;
                ::usleep(300000);
                *inside = 2;
                return lock.unlock() == 0 ? 0 : 2;
            });
            EXPECT_TRUE(vxtest::eventually([&] { return *inside == 1; }));
            return std::nullopt;
        };
        CSemaphore lock("/etc/hostname", 26);
        EXPECT_EQ(lock.init(), 0);
        EXPECT_EQ(lock.lock(), 0);
        EXPECT_EQ(*inside, 2);
        EXPECT_EQ(lock.unlock(), 0);
        vxtest::hooks::semctl = nullptr;
        EXPECT_NE(setOf("/etc/hostname", 26), id);
        ASSERT_GT(other, 0);
        EXPECT_EQ(vxtest::waitChild(other), 0);
        ::munmap(inside, sizeof *inside);
    }
}

// Where a process of a race is held up.
struct Delays {
    int beforeFreeing_us = 0;  // once, between making a set and its first operation
    bool dies = false;         // there, instead
    int between_us = 0;        // at most, before every other call
    std::mt19937 random;

    void beforeCall() {
        if (between_us > 0) ::usleep(static_cast<useconds_t>(random() % static_cast<unsigned int>(between_us)));
    }
    void beforeOperation(const sembuf &operation) {
        if (operation.sem_op == 1 && operation.sem_flg == 0) {
            if (dies) ::raise(SIGKILL);
            ::usleep(static_cast<useconds_t>(std::exchange(beforeFreeing_us, 0)));
        }
        beforeCall();
    }
};

struct Race {
    std::atomic<int> inside;
    std::atomic<int> twoInside;
    std::atomic<int> failed;
    std::atomic<int> entered;
};

// Many processes find a set at the same time that its maker has not freed yet. The maker, and those who replace the
// set, are held up at their calls, so that the maker comes with its first operation when others are about to remove the
// set.
class HealingRace : public Hostile {
protected:
    static constexpr int sets = 40;
    static constexpr int processes = 6;

    HealingRace()
        : races_(static_cast<Race *>(
              ::mmap(nullptr, sets * sizeof(Race), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0))) {}
    ~HealingRace() override { ::munmap(races_, sets * sizeof(Race)); }
    void SetUp() override {}

    static void use(int project, Race &race, std::mt19937 &random) {
        for (int i = 0; i < 10; ++i) {
            CSemaphore lock("/etc/hostname", project);
            if (lock.init() != 0) {
                ++race.failed;
                continue;
            }
            for (int j = 0; j < 2; ++j) {
                // A set may be replaced under those who opened it in the very moment of its first operation.
                if (lock.lock() != 0) break;
                if (++race.inside != 1) ++race.twoInside;
                ++race.entered;
                ::usleep(random() % 20000);
                --race.inside;
                (void)lock.unlock();
            }
        }
    }

    Race *races_;
};

TEST_F(HealingRace, NeverLetsTwoProcessesIn) {
    const EndsInTime watch;
    std::vector<pid_t> children;
    const auto seed = static_cast<unsigned int>(Clock::now().time_since_epoch().count());
    RecordProperty("seed", static_cast<int>(seed));
    for (int set = 0; set < sets; ++set) {
        const int project = 100 + set;
        removeSet("/etc/hostname", project);
        for (int process = 0; process < processes; ++process) {
            children.push_back(vxtest::startChild([=, this] {
                Delays delays;
                delays.random.seed(seed + static_cast<unsigned int>(set * processes + process));
                // The others give it a second from when they find the set.
                if (process % 2 == 0) delays.beforeFreeing_us = 990000 + static_cast<int>(delays.random() % 25000);
                delays.dies = process % 2 == 0 && set % 4 == 0;
                constexpr std::array<int, 3> fastAndSlow{0, 3000, 15000};
                delays.between_us = fastAndSlow[delays.random() % fastAndSlow.size()];
                vxtest::hooks::semop = [&delays](int, const sembuf *operations, size_t) -> std::optional<int> {
                    delays.beforeOperation(*operations);
                    return std::nullopt;
                };
                vxtest::hooks::semctl = [&delays](int, int, semid_ds *) -> std::optional<int> {
                    delays.beforeCall();
                    return std::nullopt;
                };
                use(project, races_[set], delays.random);
                return 0;
            }));
        }
    }
    for (const pid_t child : children) {
        const int result = vxtest::waitChild(child);
        EXPECT_TRUE(result == 0 || result == 128 + SIGKILL) << result;
    }
    log.take();
    for (int set = 0; set < sets; ++set) {
        EXPECT_EQ(races_[set].twoInside, 0) << set;
        EXPECT_EQ(races_[set].failed, 0) << set;
        EXPECT_GT(races_[set].entered, 0) << set;
        EXPECT_EQ(::semctl(setOf("/etc/hostname", 100 + set), 0, GETVAL), 1) << set;
    }
}

}  // namespace
