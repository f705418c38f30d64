// SPDX-License-Identifier: MIT
// Locks between processes: real processes, killed where it hurts.
#include <vxutils/csemaphore.h>

#include <dlfcn.h>
#include <fcntl.h>
#include <pthread.h>
#include <sys/ipc.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/sem.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <syslog.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "support/emulation.h"
#include "support/files.h"
#include "support/process.h"
#include "support/resources.h"
#include "support/syslog_capture.h"
#include "support/text.h"
#include "support/vtable.h"

namespace {

using vxtest::textf;

using Lines = std::vector<vxtest::LogLine>;
using Options = CRecursiveSemaphore::CSemaphoreOptions;

const std::string libraryFile = "/usr/lib/libvxutils.so.1.0.0";

// Calls that cannot be made to fail by other means. The library's own come through here.
enum class Call {
    none,
    semget,
    semop,
    ftruncate,
    mmap,
    pread,
    pwrite,
    pwriteWhole,
    attrInit,
    setRobust,
    setShared,
    setType,
    mutexInit,
    consistent
};
Call failing = Call::none;
int failAfter = 0;  // number of calls that still succeed

bool fails(Call call) {
    if (failing != call) return false;
    return failAfter-- <= 0;
}

// The process dies at this call, before or after the kernel has done it.
Call deadly = Call::none;
bool dieAfter = false;
void dieAt(Call call, bool after) {
    if (deadly == call && dieAfter == after) ::raise(SIGKILL);
}

template <typename Function>
Function real(const char *name) {
    return reinterpret_cast<Function>(::dlsym(RTLD_NEXT, name));
}

}  // namespace

extern "C" int semget(key_t key, int count, int flags) noexcept {
    if (fails(Call::semget)) {
        errno = ENOSPC;
        return -1;
    }
    static const auto next = real<int (*)(key_t, int, int)>("semget");
    return next(key, count, flags);
}

extern "C" int semop(int id, sembuf *operations, size_t count) noexcept {
    if (fails(Call::semop)) {
        errno = EIDRM;
        return -1;
    }
    static const auto next = real<int (*)(int, sembuf *, size_t)>("semop");
    return next(id, operations, count);
}

extern "C" int ftruncate(int fd, off_t size) noexcept {
    dieAt(Call::ftruncate, false);
    constexpr const char *name = sizeof(long) == 4 ? "ftruncate64" : "ftruncate";
    static const auto next = real<int (*)(int, off_t)>(name);
    const int result = next(fd, size);
    dieAt(Call::ftruncate, true);
    return result;
}

extern "C" ssize_t pread(int fd, void *data, size_t size, off_t position) {
    if (fails(Call::pread)) {
        errno = EIO;
        return -1;
    }
    constexpr const char *name = sizeof(long) == 4 ? "pread64" : "pread";
    static const auto next = real<ssize_t (*)(int, void *, size_t, off_t)>(name);
    return next(fd, data, size, position);
}

extern "C" ssize_t pwrite(int fd, const void *data, size_t size, off_t position) {
    if (fails(Call::pwrite)) {
        errno = ENOSPC;
        return -1;
    }
    if (fails(Call::pwriteWhole)) return static_cast<ssize_t>(size) - 1;
    constexpr const char *name = sizeof(long) == 4 ? "pwrite64" : "pwrite";
    static const auto next = real<ssize_t (*)(int, const void *, size_t, off_t)>(name);
    const ssize_t result = next(fd, data, size, position);
    dieAt(Call::pwrite, true);
    return result;
}

#ifndef __SANITIZE_THREAD__  // that sanitizer maps memory long before anything of ours may run
extern "C" void *mmap(void *address, size_t length, int protection, int flags, int fd, off_t offset) noexcept {
    if (fails(Call::mmap)) {
        errno = ENOMEM;
        return MAP_FAILED;
    }
    constexpr const char *name = sizeof(long) == 4 ? "mmap64" : "mmap";
    static const auto next = real<void *(*)(void *, size_t, int, int, int, off_t)>(name);
    return next(address, length, protection, flags, fd, offset);
}

#endif

extern "C" int pthread_mutexattr_init(pthread_mutexattr_t *attributes) noexcept {
    if (fails(Call::attrInit)) return ENOMEM;
    return real<int (*)(pthread_mutexattr_t *)>("pthread_mutexattr_init")(attributes);
}

extern "C" int pthread_mutexattr_setrobust(pthread_mutexattr_t *attributes, int value) noexcept {
    if (fails(Call::setRobust)) return ENOTSUP;
    return real<int (*)(pthread_mutexattr_t *, int)>("pthread_mutexattr_setrobust")(attributes, value);
}

extern "C" int pthread_mutexattr_setpshared(pthread_mutexattr_t *attributes, int value) noexcept {
    if (fails(Call::setShared)) return ENOTSUP;
    return real<int (*)(pthread_mutexattr_t *, int)>("pthread_mutexattr_setpshared")(attributes, value);
}

extern "C" int pthread_mutexattr_settype(pthread_mutexattr_t *attributes, int value) noexcept {
    if (fails(Call::setType)) return ENOTSUP;
    return real<int (*)(pthread_mutexattr_t *, int)>("pthread_mutexattr_settype")(attributes, value);
}

extern "C" int pthread_mutex_init(pthread_mutex_t *mutex, const pthread_mutexattr_t *attributes) noexcept {
    if (fails(Call::mutexInit)) return EAGAIN;
    return real<int (*)(pthread_mutex_t *, const pthread_mutexattr_t *)>("pthread_mutex_init")(mutex, attributes);
}

extern "C" int pthread_mutex_consistent(pthread_mutex_t *mutex) noexcept {
    if (fails(Call::consistent)) return EINVAL;
    return real<int (*)(pthread_mutex_t *)>("pthread_mutex_consistent")(mutex);
}

namespace {

// A page that all processes of a test see.
struct Shared {
    std::atomic<int> counter;
    std::atomic<int> inside;
    std::atomic<int> ready;
    std::atomic<int> go;
    int plain;
};

class SharedPage {
public:
    SharedPage()
        : page_(static_cast<Shared *>(
              ::mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0))) {}
    ~SharedPage() { ::munmap(page_, sizeof(Shared)); }
    SharedPage(const SharedPage &) = delete;
    SharedPage &operator=(const SharedPage &) = delete;
    Shared *operator->() const { return page_; }

private:
    Shared *page_;
};

class Semaphores : public testing::Test {
protected:
    Semaphores() {
        ::openlog("csemaphore_test", LOG_NDELAY, LOG_USER);  // its descriptor is there before anything is counted
        if (!vxtest::exists(libraryFile)) vxtest::writeFile(libraryFile, "the library's own file");
        failing = Call::none;
        failAfter = 0;
    }
    ~Semaphores() override {
        failing = Call::none;
        EXPECT_EQ(log.take(), Lines{});
        ::closelog();
    }
    // A name of a lock that has not been used yet.
    static std::string fresh() {
        static int number = 0;
        return "/lock" + std::to_string(::getpid()) + "." + std::to_string(++number);
    }
    static std::string object(const std::string &name) { return "/dev/shm" + name; }
    static bool mapped(const std::string &name) {
        return vxtest::readFile("/proc/self/maps").find(object(name)) != std::string::npos;
    }
    static vxtest::LogLine created(const std::string &name) {
        return {LOG_DEBUG, "created recursive semaphore \"" + name + "\""};
    }

    vxtest::SyslogCapture log;
};

using Plain = Semaphores;
using Recursive = Semaphores;

// The layouts that programs in the field were compiled with, the table of virtual operations first.
static_assert(sizeof(Options) == 1);
static_assert(sizeof(CRecursiveSemaphore) == 2 * sizeof(void *));
static_assert(sizeof(CSemaphore) == (sizeof(void *) == 4 ? 40 : 56));
static_assert(EOWNERDEAD == 130);

TEST(SemaphoreTables, HoldTheDestructorsOnly) {
    EXPECT_EQ(vxtest::slotsOf<CSemaphore>(), 2U);
    EXPECT_EQ(vxtest::slotsOf<CRecursiveSemaphore>(), 2U);
}

// --- CSemaphore

TEST_F(Plain, AnEmptyPathIsLoggedAndInitFails) {
    CSemaphore lock("", 1);
    EXPECT_EQ(log.take(), (Lines{{LOG_ERR, "CSemaphore - constructed with empty pathname!"}}));
    EXPECT_EQ(lock.init(), -1);
    EXPECT_EQ(log.take(), (Lines{{LOG_ERR, textf("CSemaphore::init() - ftok failed (errno=%i) for file ", ENOENT)}}));
}

TEST_F(Plain, AProjectOfZeroIsLoggedAndUsedAsItIs) {
    CSemaphore lock("/etc/hostname", 0);
    EXPECT_EQ(log.take(), (Lines{{LOG_ERR, "CSemaphore - constructed with invalid projectID!"}}));
    EXPECT_EQ(lock.lock(), -1);
    EXPECT_EQ(log.take(), (Lines{{LOG_ERR, "CSemaphore::lock() - invalid semId!"}}));
    EXPECT_EQ(lock.init(), 0);
    EXPECT_EQ(lock.lock(), 0);
    EXPECT_EQ(lock.unlock(), 0);
}

TEST_F(Plain, BothConstructorComplaintsMayCome) {
    const CSemaphore lock("", 0);
    EXPECT_EQ(log.take(), (Lines{{LOG_ERR, "CSemaphore - constructed with empty pathname!"},
                                 {LOG_ERR, "CSemaphore - constructed with invalid projectID!"}}));
}

TEST_F(Plain, WithoutInitNothingCanBeLocked) {
    CSemaphore lock("/etc/hostname", 1);
    EXPECT_EQ(lock.lock(), -1);
    EXPECT_EQ(lock.unlock(), -1);
    EXPECT_EQ(log.take(), (Lines{{LOG_ERR, "CSemaphore::lock() - invalid semId!"},
                                 {LOG_ERR, "CSemaphore::unlock() - invalid semId!"}}));
}

TEST_F(Plain, AMissingFileIsLoggedWithItsName) {
    CSemaphore lock("/no/such/file", 1);
    EXPECT_EQ(lock.init(), -1);
    EXPECT_EQ(log.take(),
              (Lines{{LOG_ERR, textf("CSemaphore::init() - ftok failed (errno=%i) for file /no/such/file", ENOENT)}}));
    EXPECT_EQ(lock.lock(), -1);
    EXPECT_EQ(log.take(), (Lines{{LOG_ERR, "CSemaphore::lock() - invalid semId!"}}));
}

TEST_F(Plain, IsOneSemaphoreForItsOwnerOnlyFoundByPathAndProject) {
    vxtest::writeFile("/tmp/of-a-semaphore", "");
    CSemaphore lock("/tmp/of-a-semaphore", 77);
    ASSERT_EQ(lock.init(), 0);
    const int id = ::semget(::ftok("/tmp/of-a-semaphore", 77), 1, 0);
    ASSERT_NE(id, -1);
    semid_ds status{};
    union {
        int value;
        semid_ds *buffer;
    } argument{};
    argument.buffer = &status;
    ASSERT_EQ(::semctl(id, 0, IPC_STAT, argument), 0);
    EXPECT_EQ(status.sem_nsems, 1U);
    EXPECT_EQ(status.sem_perm.mode & 0777, 0600);
    EXPECT_EQ(::semctl(id, 0, GETVAL), 1);
    ASSERT_EQ(lock.lock(), 0);
    EXPECT_EQ(::semctl(id, 0, GETVAL), 0);
    CSemaphore again("/tmp/of-a-semaphore", 77);
    ASSERT_EQ(again.init(), 0);  // found, not made free a second time
    EXPECT_EQ(::semctl(id, 0, GETVAL), 0);
    ASSERT_EQ(again.unlock(), 0);
    EXPECT_EQ(::semctl(id, 0, GETVAL), 1);
}

TEST_F(Plain, TheSemaphoreOutlivesItsObjects) {
    { EXPECT_EQ(CSemaphore("/etc/hostname", 9).init(), 0); }
    EXPECT_NE(::semget(::ftok("/etc/hostname", 9), 1, 0), -1);
}

// Neither the creator's making it free nor a finished lock and unlock are undone when their process ends.
TEST_F(Plain, StaysFreeWhenItsUsersHaveGone) {
    const auto use = [] {
        CSemaphore lock("/etc/hostname", 17);
        return lock.init() == 0 && lock.lock() == 0 && lock.unlock() == 0 ? 0 : 1;
    };
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(vxtest::inChild(use), 0);
        ASSERT_EQ(::semctl(::semget(::ftok("/etc/hostname", 17), 1, 0), 0, GETVAL), 1) << i;
    }
}

TEST_F(Plain, ACreatorThatCannotFreeItReportsThat) {
    failing = Call::semop;
    CSemaphore lock("/etc/hostname", 10);
    EXPECT_EQ(lock.init(), -1);
    EXPECT_EQ(log.take(),
              (Lines{{LOG_ERR, textf("CSemaphore::init() - semop() failed - unable to initialize semaphore - errno=%i",
                                     EIDRM)}}));
    EXPECT_EQ(lock.lock(), -1);
    EXPECT_EQ(log.take(), (Lines{{LOG_ERR, "CSemaphore::lock() - invalid semId!"}}));
}

TEST_F(Plain, NoSemaphoreToBeHadIsReported) {
    CSemaphore lock("/etc/hostname", 11);
    const Lines expected{{LOG_ERR, textf("CSemaphore::init() - unable to obtain semaphore-set - errno=%i", ENOSPC)}};
    failing = Call::semget;
    EXPECT_EQ(lock.init(), -1);
    EXPECT_EQ(log.take(), expected);
    failing = Call::none;
    ASSERT_EQ(lock.init(), 0);
    CSemaphore second("/etc/hostname", 11);
    failing = Call::semget;
    failAfter = 1;  // the exclusive attempt finds it there, opening it fails
    EXPECT_EQ(second.init(), -1);
    EXPECT_EQ(log.take(), expected);
}

TEST_F(Plain, ARemovedSemaphoreIsReportedByLockAndUnlock) {
    CSemaphore lock("/etc/hostname", 12);
    ASSERT_EQ(lock.init(), 0);
    ASSERT_EQ(::semctl(::semget(::ftok("/etc/hostname", 12), 1, 0), 0, IPC_RMID), 0);
    EXPECT_EQ(lock.lock(), -1);
    EXPECT_EQ(lock.unlock(), -1);
    EXPECT_EQ(log.take(), (Lines{{LOG_ERR, textf("CSemaphore::lock() - semop failed, errno=%i", EINVAL)},
                                 {LOG_ERR, textf("CSemaphore::unlock() - semop() failed errno=%i", EINVAL)}}));
}

TEST_F(Plain, KeepsProcessesOut) {
    const SharedPage page;
    CSemaphore lock("/etc/hostname", 13);
    ASSERT_EQ(lock.init(), 0);
    std::vector<pid_t> children;
    for (int child = 0; child < 4; ++child) {
        children.push_back(vxtest::startChild([&] {
            CSemaphore own("/etc/hostname", 13);
            if (own.init() != 0) return 1;
            for (int i = 0; i < 200; ++i) {
                if (own.lock() != 0) return 2;
                if (++page->inside != 1) return 3;
                ++page->plain;
                --page->inside;
                if (own.unlock() != 0) return 4;
            }
            return 0;
        }));
    }
    for (const pid_t child : children) EXPECT_EQ(vxtest::waitChild(child), 0);
    EXPECT_EQ(page->plain, 800);
}

TEST_F(Plain, ASecondLockByItsHolderWaitsForAnUnlock) {
    const SharedPage page;
    CSemaphore lock("/etc/hostname", 16);
    ASSERT_EQ(lock.init(), 0);
    const int id = ::semget(::ftok("/etc/hostname", 16), 1, 0);
    ASSERT_NE(id, -1);
    const pid_t holder = vxtest::startChild([&] {
        if (lock.lock() != 0) return 1;
        page->ready = 1;
        if (lock.lock() != 0) return 2;
        return page->go == 1 ? 0 : 3;  // not before
    });
    ASSERT_TRUE(vxtest::eventually([&] { return page->ready == 1 && ::semctl(id, 0, GETNCNT) == 1; }));
    EXPECT_EQ(::semctl(id, 0, GETPID), holder);
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    EXPECT_EQ(::semctl(id, 0, GETNCNT), 1);  // it still waits
    page->go = 1;
    EXPECT_EQ(lock.unlock(), 0);
    EXPECT_EQ(vxtest::waitChild(holder), 0);
}

TEST_F(Plain, AKilledHolderGivesItBack) {
    const SharedPage page;
    CSemaphore lock("/etc/hostname", 14);
    ASSERT_EQ(lock.init(), 0);
    const pid_t holder = vxtest::startChild([&] {
        if (lock.lock() != 0) return 1;
        page->ready = 1;
        for (;;) ::pause();
    });
    ASSERT_TRUE(vxtest::eventually([&] { return page->ready == 1; }));
    std::thread killer([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        page->go = 1;
        ::kill(holder, SIGKILL);
    });
    EXPECT_EQ(lock.lock(), 0);
    EXPECT_EQ(page->go, 1);  // not before
    killer.join();
    EXPECT_EQ(vxtest::waitChild(holder), 128 + SIGKILL);
    EXPECT_EQ(lock.unlock(), 0);
}

TEST_F(Plain, SignalsDoNotEndTheWait) {
    const SharedPage page;
    CSemaphore lock("/etc/hostname", 15);
    ASSERT_EQ(lock.init(), 0);
    ASSERT_EQ(lock.lock(), 0);
    const pid_t waiting = vxtest::startChild([&] {
        static std::atomic<int> *seen = &page->counter;
        struct sigaction action {};
        action.sa_handler = [](int) { ++*seen; };
        ::sigaction(SIGUSR1, &action, nullptr);
        page->ready = 1;
        const int result = lock.lock();
        return result == 0 && page->go == 1 ? 0 : 1;
    });
    ASSERT_TRUE(vxtest::eventually([&] { return page->ready == 1; }));
    for (int i = 0; i < 3; ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
        const int before = page->counter;
        ::kill(waiting, SIGUSR1);
        ASSERT_TRUE(vxtest::eventually([&] { return page->counter > before; }));
    }
    page->go = 1;
    EXPECT_EQ(lock.unlock(), 0);
    EXPECT_EQ(vxtest::waitChild(waiting), 0);
}

// --- options

TEST_F(Recursive, OptionsAreAutomaticUnlessSetOtherwise) {
    Options options;
    EXPECT_EQ(sizeof options, 1U);
    EXPECT_EQ(options.GetConsistentMode(), Options::eConsistentAutomatic);
    EXPECT_EQ(Options::eConsistentAutomatic, 0);
    EXPECT_EQ(Options::eConsistentManual, 1);
    options.SetConsistentMode(Options::eConsistentManual);
    EXPECT_EQ(options.GetConsistentMode(), Options::eConsistentManual);
    options.SetConsistentMode(Options::eConsistentAutomatic);
    EXPECT_EQ(options.GetConsistentMode(), Options::eConsistentAutomatic);
    options.SetConsistentMode(static_cast<Options::eConsistentMode>(2));
    EXPECT_EQ(options.GetConsistentMode(), Options::eConsistentManual);
}

// --- creating and opening

TEST_F(Recursive, TheFirstCreatesTheSecondOpens) {
    const vxtest::NoLeaks leaks;
    const std::string name = fresh();
    CRecursiveSemaphore first(name);
    EXPECT_EQ(log.take(), Lines{created(name)});
    CRecursiveSemaphore second(name);
    EXPECT_EQ(log.take(), Lines{});
    ASSERT_EQ(first.lock(), 0);
    std::thread([&] { EXPECT_EQ(second.trylock(), EBUSY); }).join();
    EXPECT_EQ(second.lock(), 0);  // the same mutex, the same thread
    EXPECT_EQ(second.unlock(), 0);
    ASSERT_EQ(first.unlock(), 0);
    std::thread([&] {
        EXPECT_EQ(second.trylock(), 0);
        EXPECT_EQ(second.unlock(), 0);
    }).join();
}

TEST_F(Recursive, TheObjectIsOneMutexForItsOwnerOnlyAndStays) {
    const std::string name = fresh();
    {
        const CRecursiveSemaphore lock(name);
        EXPECT_TRUE(mapped(name));
    }
    EXPECT_FALSE(mapped(name));
    struct stat status {};
    ASSERT_EQ(::stat(object(name).c_str(), &status), 0);
    EXPECT_EQ(status.st_size, static_cast<off_t>(sizeof(pthread_mutex_t)));
    if (sizeof(void *) == 4) EXPECT_EQ(status.st_size, 24);
    EXPECT_EQ(status.st_mode & 07777, 0600U);
    EXPECT_EQ(log.take(), Lines{created(name)});
    CRecursiveSemaphore again(name);
    EXPECT_EQ(log.take(), Lines{});
    EXPECT_EQ(again.lock(), 0);
    EXPECT_EQ(again.unlock(), 0);
}

TEST_F(Recursive, SixteenProcessesAtOnceMakeOneLock) {
    const SharedPage page;
    const std::string name = fresh();
    constexpr int processes = 16;
    constexpr int rounds = 100;
    std::vector<pid_t> children;
    for (int child = 0; child < processes; ++child) {
        children.push_back(vxtest::startChild([&] {
            ++page->ready;
            while (page->go == 0) ::usleep(100);
            CRecursiveSemaphore lock(name);
            for (int i = 0; i < rounds; ++i) {
                if (lock.lock() != 0) return 1;
                if (++page->inside != 1) return 2;
                ++page->plain;
                --page->inside;
                if (lock.unlock() != 0) return 3;
            }
            return 0;
        }));
    }
    ASSERT_TRUE(vxtest::eventually([&] { return page->ready == processes; }));
    page->go = 1;
    for (const pid_t child : children) EXPECT_EQ(vxtest::waitChild(child), 0);
    EXPECT_EQ(page->plain, processes * rounds);
    EXPECT_EQ(log.take(), Lines{created(name)});
}

TEST_F(Recursive, NoProcessOpensALockWhileAnotherIsMade) {
    const SharedPage page;
    const std::string name = fresh();
    CSemaphore guard(libraryFile, 1);
    ASSERT_EQ(guard.init(), 0);
    ASSERT_EQ(guard.lock(), 0);
    const pid_t opener = vxtest::startChild([&] {
        page->ready = 1;
        CRecursiveSemaphore lock(name);
        return page->go == 1 && lock.lock() == 0 ? 0 : 1;
    });
    ASSERT_TRUE(vxtest::eventually([&] { return page->ready == 1; }));
    std::this_thread::sleep_for(std::chrono::milliseconds(30));
    EXPECT_FALSE(vxtest::exists(object(name)));
    page->go = 1;
    ASSERT_EQ(guard.unlock(), 0);
    EXPECT_EQ(vxtest::waitChild(opener), 0);
    EXPECT_EQ(log.take(), Lines{created(name)});
}

TEST_F(Recursive, TheGuardIsFreeAfterEveryConstruction) {
    const std::string name = fresh();
    { const CRecursiveSemaphore good(name); }
    { const CRecursiveSemaphore bad("/no/slash/allowed"); }
    log.take();
    CSemaphore guard(libraryFile, 1);
    ASSERT_EQ(guard.init(), 0);
    EXPECT_EQ(::semctl(::semget(::ftok(libraryFile.c_str(), 1), 1, 0), 0, GETVAL), 1);
}

TEST_F(Recursive, AnEmptyObjectOfAKilledCreatorIsFinished) {
    constexpr size_t tooShort = sizeof(pthread_mutex_t) - 1;
    for (const std::string &left : {std::string(), std::string(1, '\0'), std::string(tooShort, '\0'),
                                    std::string(1, 'x'), std::string(tooShort, 'x')}) {
        const std::string name = fresh();
        vxtest::writeFile(object(name), left);
        CRecursiveSemaphore lock(name);
        EXPECT_EQ(log.take(), Lines{created(name)}) << left.size();
        EXPECT_EQ(lock.lock(), 0);
        EXPECT_EQ(lock.lock(), 0);
        EXPECT_EQ(lock.unlock(), 0);
        EXPECT_EQ(lock.unlock(), 0);
        struct stat status {};
        ASSERT_EQ(::stat(object(name).c_str(), &status), 0);
        EXPECT_EQ(status.st_size, static_cast<off_t>(sizeof(pthread_mutex_t)));
    }
}

TEST_F(Recursive, ZerosOfAKilledCreatorAreNoLock) {
    const std::string name = fresh();
    vxtest::writeFile(object(name), std::string(sizeof(pthread_mutex_t), '\0'));
    {
        CRecursiveSemaphore lock(name);
        EXPECT_EQ(log.take(), Lines{created(name)});
        EXPECT_EQ(lock.lock(), 0);
        EXPECT_EQ(lock.trylock(), 0);  // recursive, unlike the mutex that zeros make
        EXPECT_EQ(lock.unlock(), 0);
        EXPECT_EQ(lock.unlock(), 0);
    }
    const std::string made = vxtest::readFile(object(name));
    EXPECT_EQ(made.size(), sizeof(pthread_mutex_t));
    CRecursiveSemaphore again(name);
    EXPECT_EQ(log.take(), Lines{});
    EXPECT_EQ(vxtest::readFile(object(name)), made);
}

// Killed at each step by itself: the guard comes back from the kernel, and the next user finishes what was begun.
TEST_F(Recursive, ACreatorKilledHalfWayIsMadeUpFor) {
    struct Death {
        Call call;
        bool after;
        size_t left;       // bytes of the object
        bool initialised;  // whole: opened as it is
    };
    constexpr size_t whole = sizeof(pthread_mutex_t);
    const std::vector<Death> deaths{
        {Call::ftruncate, false, 0, false}, {Call::ftruncate, true, whole, false}, {Call::pwrite, true, whole, true}};
    for (const Death &death : deaths) {
        const std::string name = fresh();
        const pid_t creator = vxtest::startChild([&] {
            deadly = death.call;
            dieAfter = death.after;
            const CRecursiveSemaphore lock(name);
            return 1;
        });
        EXPECT_EQ(vxtest::waitChild(creator), 128 + SIGKILL);
        EXPECT_EQ(log.take(), Lines{});
        EXPECT_EQ(vxtest::readFile(object(name)).size(), death.left);
        CRecursiveSemaphore lock(name);
        EXPECT_EQ(log.take(), death.initialised ? Lines{} : Lines{created(name)});
        EXPECT_EQ(lock.lock(), 0);
        ASSERT_EQ(lock.trylock(), 0);
        EXPECT_EQ(vxtest::inChild([&] { return CRecursiveSemaphore(name).trylock(); }), EBUSY);
        EXPECT_EQ(lock.unlock(), 0);
        EXPECT_EQ(lock.unlock(), 0);
        EXPECT_EQ(vxtest::inChild([&] { return CRecursiveSemaphore(name).trylock(); }), 0);
    }
}

TEST_F(Recursive, ALockThatCannotBeLookedAtIsNotMadeAnew) {
    const std::string name = fresh();
    CRecursiveSemaphore owner(name);
    EXPECT_EQ(log.take(), Lines{created(name)});
    ASSERT_EQ(owner.lock(), 0);
    failing = Call::pread;
    const CRecursiveSemaphore other(name);
    failing = Call::none;
    EXPECT_EQ(log.take(), Lines{});
    EXPECT_EQ(vxtest::inChild([&] { return CRecursiveSemaphore(name).trylock(); }), EBUSY);
    EXPECT_EQ(owner.unlock(), 0);
}

TEST_F(Recursive, ALockMadeByOthersIsTakenAsItIs) {
    const std::string name = fresh();
    const int fd = ::shm_open(name.c_str(), O_RDWR | O_CREAT, 0600);
    ASSERT_NE(fd, -1);
    ASSERT_EQ(::ftruncate(fd, sizeof(pthread_mutex_t)), 0);
    auto *const mutex = static_cast<pthread_mutex_t *>(
        ::mmap(nullptr, sizeof(pthread_mutex_t), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0));
    ASSERT_NE(mutex, MAP_FAILED);
    pthread_mutexattr_t attributes;
    pthread_mutexattr_init(&attributes);
    pthread_mutexattr_setpshared(&attributes, PTHREAD_PROCESS_SHARED);
    pthread_mutexattr_settype(&attributes, PTHREAD_MUTEX_ERRORCHECK);
    pthread_mutex_init(mutex, &attributes);
    CRecursiveSemaphore lock(name);
    EXPECT_EQ(log.take(), Lines{});
    EXPECT_EQ(lock.lock(), 0);
    EXPECT_EQ(lock.lock(), EDEADLK);
    EXPECT_EQ(lock.unlock(), 0);
    ::munmap(mutex, sizeof(pthread_mutex_t));
    ::close(fd);
}

// --- failures leave an unusable object

class Unusable : public Semaphores {
protected:
    void expectUnusable(const std::string &name, const Lines &lines) {
        {
            const vxtest::NoLeaks leaks;
            CRecursiveSemaphore lock(name);
            EXPECT_EQ(log.take(), lines);
            EXPECT_EQ(lock.lock(), -1);
            EXPECT_EQ(lock.trylock(), -1);
            EXPECT_EQ(lock.unlock(), -1);
            EXPECT_EQ(lock.makeConsistent(), -1);
        }
        if (name.size() > 1) EXPECT_FALSE(mapped(name));
        EXPECT_EQ(log.take(), Lines{});
    }
    // The same name works once the cause is gone.
    void expectUsable(const std::string &name) {
        failing = Call::none;
        CRecursiveSemaphore lock(name);
        EXPECT_EQ(log.take(), Lines{created(name)});
        EXPECT_EQ(lock.lock(), 0);
        EXPECT_EQ(lock.unlock(), 0);
    }
};

TEST_F(Unusable, WithoutTheGuardsFile) {
    ASSERT_EQ(::rename(libraryFile.c_str(), "/usr/lib/away"), 0);
    expectUnusable(
        fresh(),
        {{LOG_ERR, textf("CSemaphore::init() - ftok failed (errno=%i) for file %s", ENOENT, libraryFile.c_str())},
         {LOG_ERR, "recursive-semaphore: unable to init guarding semaphore"}});
    ASSERT_EQ(::rename("/usr/lib/away", libraryFile.c_str()), 0);
}

TEST_F(Unusable, WhenTheGuardCannotBeLocked) {
    CSemaphore guard(libraryFile, 1);
    ASSERT_EQ(guard.init(), 0);
    failing = Call::semop;
    expectUnusable(fresh(), {{LOG_ERR, textf("CSemaphore::lock() - semop failed, errno=%i", EIDRM)},
                             {LOG_ERR, "recursive-semaphore: unable to lock guarding semaphore"}});
}

TEST_F(Unusable, ByItsName) {
    const auto refused = [](const char *reason) {
        return Lines{{LOG_ERR, std::string("recursive-semaphore: unable to open shared memory - errno=") + reason}};
    };
    expectUnusable("", refused("Invalid argument"));
    expectUnusable("/", refused("Invalid argument"));
    expectUnusable("/a/b", refused("Invalid argument"));
    expectUnusable("/" + std::string(256, 'x'), refused("File name too long"));
    const std::string longest = "/" + std::string(255, 'y');
    expectUsable(longest);
}

TEST_F(Unusable, WhenTheObjectCannotGetItsSize) {
    const std::string name = fresh();
    ::signal(SIGXFSZ, SIG_IGN);
    rlimit saved{};
    ::getrlimit(RLIMIT_FSIZE, &saved);
    rlimit none = saved;
    none.rlim_cur = sizeof(pthread_mutex_t) - 1;
    ::setrlimit(RLIMIT_FSIZE, &none);
    expectUnusable(name, {{LOG_ERR, "recursive-semaphore: unable to ftruncate shared memory - errno=File too large"},
                          {LOG_ERR, "recursive-semaphore: unable to open shared memory - errno=File too large"}});
    ::setrlimit(RLIMIT_FSIZE, &saved);
    ::signal(SIGXFSZ, SIG_DFL);
    EXPECT_FALSE(vxtest::exists(object(name)));
    expectUsable(name);
}

TEST_F(Unusable, WhenTheObjectCannotBeMapped) {
#ifdef __SANITIZE_THREAD__
    GTEST_SKIP() << "mmap() cannot be watched under the thread sanitizer";
#endif
    const std::string name = fresh();
    failing = Call::mmap;
    expectUnusable(name, {{LOG_ERR, "recursive-semaphore: mmap failed - errno=Cannot allocate memory"}});
    expectUsable(name);
}

TEST_F(Unusable, WhenTheMutexCannotBeMade) {
    const std::string robust = "recursive semaphore: unable to set attribute \"robust\"";
    const std::string recursive = "recursive-semaphore: unable to set attribute \"recursive\"";
    const std::vector<std::pair<Call, std::string>> rows{
        {Call::attrInit, "recursive-semaphore: unable initialize attributes"},
        {Call::setRobust, robust},
        {Call::setShared, recursive},
        {Call::setType, recursive},
        {Call::mutexInit, "recursive-semaphore: unable to initialize mutex - errno=Resource temporarily unavailable"},
        {Call::pwrite, "recursive-semaphore: unable to initialize mutex - errno=No space left on device"},
        {Call::pwriteWhole, "recursive-semaphore: unable to initialize mutex - errno=No space left on device"},
    };
    for (const auto &[call, text] : rows) {
        const std::string name = fresh();
        failing = call;
        expectUnusable(name, {{LOG_ERR, text}});
        expectUsable(name);
    }
}

// --- locking

TEST_F(Recursive, TheOwnerMayLockAgainAndUnlocksAsOften) {
    const std::string name = fresh();
    CRecursiveSemaphore lock(name);
    log.take();
    for (int i = 0; i < 5; ++i) EXPECT_EQ(i % 2 == 0 ? lock.lock() : lock.trylock(), 0);
    for (int i = 0; i < 5; ++i) {
        std::thread([&] { EXPECT_EQ(lock.trylock(), EBUSY); }).join();
        EXPECT_EQ(lock.unlock(), 0);
    }
    EXPECT_EQ(lock.unlock(), EPERM);
    EXPECT_EQ(lock.makeConsistent(), EINVAL);
    std::thread([&] {
        EXPECT_EQ(lock.trylock(), 0);
        EXPECT_EQ(lock.unlock(), 0);
    }).join();
}

TEST_F(Recursive, DestructionDoesNotUnlock) {
    const SharedPage page;
    const std::string name = fresh();
    CRecursiveSemaphore lock(name);
    log.take();
    const pid_t owner = vxtest::startChild([&] {
        {
            CRecursiveSemaphore own(name);
            if (own.lock() != 0) return 1;
        }
        page->ready = 1;
        for (;;) ::pause();
    });
    ASSERT_TRUE(vxtest::eventually([&] { return page->ready == 1; }));
    EXPECT_EQ(lock.trylock(), EBUSY);
    ::kill(owner, SIGKILL);
    EXPECT_EQ(vxtest::waitChild(owner), 128 + SIGKILL);
}

TEST_F(Recursive, ThreadsShareOneObject) {
    const std::string name = fresh();
    CRecursiveSemaphore lock(name);
    log.take();
    int plain = 0;
    std::vector<std::thread> threads;
    for (int thread = 0; thread < 4; ++thread) {
        threads.emplace_back([&] {
            for (int i = 0; i < 1000; ++i) {
                EXPECT_EQ(lock.lock(), 0);
                ++plain;
                EXPECT_EQ(lock.unlock(), 0);
            }
        });
    }
    for (std::thread &thread : threads) thread.join();
    EXPECT_EQ(plain, 4000);
}

// --- an owner's death

class OwnerDeath : public Semaphores {
protected:
    void SetUp() override {
        if (vxtest::emulated()) GTEST_SKIP() << "user-mode emulation has no robust mutex lists: a death is not seen";
    }
    // A process that dies holding the lock, locked `depth` times.
    static void die(const std::string &name, int depth = 1) {
        EXPECT_EQ(vxtest::inChild([&] {
                      CRecursiveSemaphore lock(name);
                      for (int i = 0; i < depth; ++i) {
                          const int result = lock.lock();
                          if (result != 0) return 1;
                      }
                      ::kill(::getpid(), SIGKILL);
                      return 2;
                  }),
                  128 + SIGKILL);
    }
    static Options manual() {
        Options options;
        options.SetConsistentMode(Options::eConsistentManual);
        return options;
    }
};

TEST_F(OwnerDeath, IsHandedThroughAndRepairedAutomatically) {
    const std::string name = fresh();
    CRecursiveSemaphore lock(name);
    log.take();
    EXPECT_EQ(EOWNERDEAD, 130);
    for (int i = 0; i < 3; ++i) {
        die(name, 1 + i);
        EXPECT_EQ(i == 1 ? lock.trylock() : lock.lock(), EOWNERDEAD);
        EXPECT_EQ(lock.makeConsistent(), EINVAL);  // it is already
        EXPECT_EQ(lock.lock(), 0);                 // still recursive
        EXPECT_EQ(lock.unlock(), 0);
        EXPECT_EQ(lock.unlock(), 0);
        EXPECT_EQ(lock.lock(), 0);
        EXPECT_EQ(lock.unlock(), 0);
    }
}

TEST_F(OwnerDeath, WakesAWaitingProcess) {
    const SharedPage page;
    const std::string name = fresh();
    CRecursiveSemaphore lock(name);
    log.take();
    const pid_t owner = vxtest::startChild([&] {
        if (lock.lock() != 0) return 1;
        page->ready = 1;
        for (;;) ::pause();
    });
    ASSERT_TRUE(vxtest::eventually([&] { return page->ready == 1; }));
    EXPECT_EQ(lock.trylock(), EBUSY);
    std::thread killer([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        ::kill(owner, SIGKILL);
    });
    EXPECT_EQ(lock.lock(), EOWNERDEAD);
    killer.join();
    EXPECT_EQ(vxtest::waitChild(owner), 128 + SIGKILL);
    EXPECT_EQ(lock.unlock(), 0);
}

TEST_F(OwnerDeath, InManualModeIsTheCallersToRepair) {
    const std::string name = fresh();
    CRecursiveSemaphore lock(name, manual());
    log.take();
    die(name);
    EXPECT_EQ(lock.lock(), EOWNERDEAD);
    EXPECT_EQ(lock.makeConsistent(), 0);
    EXPECT_EQ(lock.unlock(), 0);
    die(name);
    EXPECT_EQ(lock.trylock(), EOWNERDEAD);
    EXPECT_EQ(lock.makeConsistent(), 0);
    EXPECT_EQ(lock.unlock(), 0);
    EXPECT_EQ(lock.lock(), 0);
    EXPECT_EQ(lock.unlock(), 0);
}

TEST_F(OwnerDeath, NotRepairedLosesTheLockForGood) {
    const std::string name = fresh();
    CRecursiveSemaphore lock(name, manual());
    log.take();
    die(name);
    EXPECT_EQ(lock.lock(), EOWNERDEAD);
    EXPECT_EQ(lock.unlock(), 0);
    EXPECT_EQ(lock.lock(), ENOTRECOVERABLE);
    EXPECT_EQ(lock.trylock(), ENOTRECOVERABLE);
    CRecursiveSemaphore other(name);
    EXPECT_EQ(other.lock(), ENOTRECOVERABLE);
    EXPECT_EQ(vxtest::inChild([&] { return CRecursiveSemaphore(name).lock(); }), ENOTRECOVERABLE);
}

// A process or thread that waits for the lock sleeps in its futex.
bool sleeps(pid_t process) {
    const std::string call = vxtest::readFile("/proc/" + std::to_string(process) + "/syscall");
    const int number = std::atoi(call.c_str());
#ifdef SYS_futex_time64
    if (number == SYS_futex_time64) return true;
#endif
    return number == SYS_futex;
}

// The lock is lost while they sleep: one is told that the owner died, all others that the lock cannot be recovered.
TEST_F(OwnerDeath, NotRepairedIsToldToAllWhoWait) {
    constexpr int waiting = 8;
    const std::string name = fresh();
    CRecursiveSemaphore lock(name, manual());
    log.take();
    for (int round = 0; round < 3; ++round) {
        const SharedPage page;
        const std::string own = name + std::to_string(round);
        const pid_t owner = vxtest::startChild([&] {
            CRecursiveSemaphore held(own, manual());
            if (held.lock() != 0) return 1;
            page->ready = 1;
            for (;;) ::pause();
        });
        ASSERT_TRUE(vxtest::eventually([&] { return page->ready == 1; }));
        std::vector<pid_t> waiters;
        for (int i = 0; i < waiting; ++i) {
            waiters.push_back(vxtest::startChild([&] {
                ::alarm(30);
                CRecursiveSemaphore wanted(own, manual());
                const int result = wanted.lock();
                if (result == EOWNERDEAD) return wanted.unlock() == 0 ? 1 : 3;
                return result == ENOTRECOVERABLE ? 2 : 3;
            }));
        }
        for (const pid_t waiter : waiters) ASSERT_TRUE(vxtest::eventually([&] { return sleeps(waiter); }));
        ::kill(owner, SIGKILL);
        EXPECT_EQ(vxtest::waitChild(owner), 128 + SIGKILL);
        std::array<int, 3> told{};
        for (const pid_t waiter : waiters) {
            const int result = vxtest::waitChild(waiter);
            ASSERT_TRUE(result == 1 || result == 2) << result;
            ++told.at(static_cast<size_t>(result));
        }
        EXPECT_EQ(told[1], 1);
        EXPECT_EQ(told[2], waiting - 1);
        EXPECT_EQ(log.take(), Lines{created(own)});
    }
}

TEST_F(OwnerDeath, NotRepairedIsToldToThreadsThatWaitAndToThoseWhoOnlyTry) {
    const std::string name = fresh();
    CRecursiveSemaphore lock(name, manual());
    log.take();
    die(name);
    ASSERT_EQ(lock.lock(), EOWNERDEAD);
    ::alarm(60);
    std::array<std::atomic<pid_t>, 4> waiting{};
    std::vector<std::thread> threads;
    for (std::atomic<pid_t> &thread : waiting) {
        threads.emplace_back([&] {
            thread = static_cast<pid_t>(::syscall(SYS_gettid));
            EXPECT_EQ(lock.lock(), ENOTRECOVERABLE);
        });
    }
    for (std::atomic<pid_t> &thread : waiting) {
        ASSERT_TRUE(vxtest::eventually([&] { return thread != 0 && sleeps(thread); }));
    }
    EXPECT_EQ(lock.unlock(), 0);
    for (std::thread &thread : threads) thread.join();
    ::alarm(0);
    EXPECT_EQ(lock.trylock(), ENOTRECOVERABLE);
    EXPECT_EQ(lock.trylock(), ENOTRECOVERABLE);
}

TEST_F(OwnerDeath, AFailedRepairIsLoggedAndTheResultStays) {
    const std::string name = fresh();
    CRecursiveSemaphore lock(name);
    log.take();
    die(name);
    failing = Call::consistent;
    EXPECT_EQ(lock.lock(), EOWNERDEAD);
    EXPECT_EQ(log.take(), (Lines{{LOG_ERR, "recursive-semaphore: make consistent failed - errno=Invalid argument"}}));
    failing = Call::none;
    EXPECT_EQ(lock.makeConsistent(), 0);
    EXPECT_EQ(lock.unlock(), 0);
}

TEST_F(OwnerDeath, TheOptionsAreACopy) {
    const std::string name = fresh();
    Options options = manual();
    CRecursiveSemaphore lock(name, options);
    log.take();
    options.SetConsistentMode(Options::eConsistentAutomatic);
    die(name);
    EXPECT_EQ(lock.lock(), EOWNERDEAD);
    EXPECT_EQ(lock.makeConsistent(), 0);  // it had not been done
    EXPECT_EQ(lock.unlock(), 0);
}

TEST_F(OwnerDeath, TheExampleTakesALockOver) {
    const auto output = vxtest::run({vxtest::built("examples/csemaphore")});
    EXPECT_EQ(output.status, 0) << output.text;
    EXPECT_EQ(output.text,
              "child: locked, busy\n"
              "parent: kills the child\n"
              "parent: locked, the owner before died\n"
              "parent: locked\n");
    log.take();
}

}  // namespace
