// SPDX-License-Identifier: MIT
// Locks between processes where the system refuses a step, and where their maker or owner died in the middle of one.
#include <vxutils/csemaphore.h>

#include <fcntl.h>
#include <linux/futex.h>
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
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "support/call_hooks.h"
#include "support/csemaphore.h"
#include "support/files.h"
#include "support/process.h"
#include "support/resources.h"
#include "support/syslog_capture.h"
#include "support/text.h"

VXTEST_HOOK(int, semget, (key_t key, int count, int flags), (key, count, flags))
VXTEST_HOOK(int, semop, (int id, sembuf *operations, size_t count), (id, operations, count))
VXTEST_HOOK_AS(int, semtimedop, "__semtimedop64", (int id, sembuf *operations, size_t count, const timespec *limit),
               (id, operations, count, limit))
VXTEST_HOOK_AS(int, fstat, "__fstat64_time64", (int fd, struct stat *status), (fd, status))
VXTEST_HOOK_AS(int, ftruncate, "ftruncate64", (int fd, off_t size), (fd, size))
VXTEST_HOOK_AS(ssize_t, pread, "pread64", (int fd, void *data, size_t size, off_t at), (fd, data, size, at))
VXTEST_HOOK_AS(ssize_t, pwrite, "pwrite64", (int fd, const void *data, size_t size, off_t at), (fd, data, size, at))
#ifndef __SANITIZE_THREAD__  // that sanitizer maps memory long before anything of ours may run
VXTEST_HOOK_AS(void *, mmap, "mmap64", (void *at, size_t size, int access, int flags, int fd, off_t from),
               (at, size, access, flags, fd, from))
#endif
VXTEST_HOOK(int, pthread_mutexattr_init, (pthread_mutexattr_t * attributes), (attributes))
VXTEST_HOOK(int, pthread_mutexattr_setrobust, (pthread_mutexattr_t * attributes, int value), (attributes, value))
VXTEST_HOOK(int, pthread_mutexattr_setpshared, (pthread_mutexattr_t * attributes, int value), (attributes, value))
VXTEST_HOOK(int, pthread_mutexattr_settype, (pthread_mutexattr_t * attributes, int value), (attributes, value))
VXTEST_HOOK(int, pthread_mutex_init, (pthread_mutex_t * mutex, const pthread_mutexattr_t *attributes),
            (mutex, attributes))
VXTEST_HOOK(int, pthread_mutex_consistent, (pthread_mutex_t * mutex), (mutex))

namespace {

namespace hooks = vxtest::hooks;

using vxtest::failingWith;
using vxtest::Hooked;
using vxtest::libraryFile;
using vxtest::SharedPage;
using vxtest::textf;

using OwnerDeathFaults = vxtest::OwnerDeathTest;
using PlainSemaphoreFaults = vxtest::SemaphoreTest;
using RecursiveSemaphoreFaults = vxtest::SemaphoreTest;

// ---- a maker of a CRecursiveSemaphore was killed, or is at work

TEST_F(RecursiveSemaphoreFaults, AnEmptyObjectOfAKilledCreatorIsFinished) {
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

TEST_F(RecursiveSemaphoreFaults, ZerosOfAKilledCreatorAreMadeALock) {
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
TEST_F(RecursiveSemaphoreFaults, TheNextUserFinishesWhatAKilledCreatorBegan) {
    struct Death {
        void (*at)();      // sets the hook that kills
        size_t left;       // bytes of the object
        bool initialised;  // whole: opened as it is
    };
    constexpr size_t whole = sizeof(pthread_mutex_t);
    const std::vector<Death> deaths{
        {[] { hooks::ftruncate = [](int, off_t) -> std::optional<int> { return ::raise(SIGKILL); }; }, 0, false},
        {[] {
             hooks::ftruncate = [](int fd, off_t size) -> std::optional<int> {
                 vxtest::real::ftruncate(fd, size);
                 return ::raise(SIGKILL);
             };
         },
         whole, false},
        {[] {
             hooks::pwrite = [](int fd, const void *data, size_t size, off_t at) -> std::optional<ssize_t> {
                 vxtest::real::pwrite(fd, data, size, at);
                 return ::raise(SIGKILL);
             };
         },
         whole, true},
    };
    for (const Death &death : deaths) {
        const std::string name = fresh();
        const pid_t creator = vxtest::startChild([&] {
            death.at();
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

TEST_F(RecursiveSemaphoreFaults, NoProcessOpensALockWhileAnotherIsMade) {
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

TEST_F(RecursiveSemaphoreFaults, TheGuardIsFreeAfterEveryConstruction) {
    const std::string name = fresh();
    { const CRecursiveSemaphore good(name); }
    { const CRecursiveSemaphore bad("/no/slash/allowed"); }
    log.take();
    CSemaphore guard(libraryFile, 1);
    ASSERT_EQ(guard.init(), 0);
    EXPECT_EQ(::semctl(::semget(::ftok(libraryFile.c_str(), 1), 1, 0), 0, GETVAL), 1);
}

TEST_F(RecursiveSemaphoreFaults, ALockMadeByOthersIsTakenAsItIs) {
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

TEST_F(RecursiveSemaphoreFaults, ALockThatCannotBeLookedAtIsNotMadeAnew) {
    const std::string name = fresh();
    CRecursiveSemaphore owner(name);
    EXPECT_EQ(log.take(), Lines{created(name)});
    ASSERT_EQ(owner.lock(), 0);
    {
        const Hooked unreadable(hooks::pread, vxtest::answering(ssize_t{-1}, EIO));
        const CRecursiveSemaphore other(name);
    }
    EXPECT_EQ(log.take(), Lines{});
    EXPECT_EQ(vxtest::inChild([&] { return CRecursiveSemaphore(name).trylock(); }), EBUSY);
    EXPECT_EQ(owner.unlock(), 0);
}

// ---- a construction that fails leaves an unusable object

class UnusableSemaphore : public vxtest::SemaphoreTest {
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
        CRecursiveSemaphore lock(name);
        EXPECT_EQ(log.take(), Lines{created(name)});
        EXPECT_EQ(lock.lock(), 0);
        EXPECT_EQ(lock.unlock(), 0);
    }
};

TEST_F(UnusableSemaphore, WithoutTheGuardsFile) {
    ASSERT_EQ(::rename(libraryFile.c_str(), "/usr/lib/away"), 0);
    expectUnusable(
        fresh(),
        {{LOG_ERR, textf("CSemaphore::init() - ftok failed (errno=%i) for file %s", ENOENT, libraryFile.c_str())},
         {LOG_ERR, "recursive-semaphore: unable to init guarding semaphore"}});
    ASSERT_EQ(::rename("/usr/lib/away", libraryFile.c_str()), 0);
}

TEST_F(UnusableSemaphore, WhenTheGuardCannotBeLocked) {
    CSemaphore guard(libraryFile, 1);
    ASSERT_EQ(guard.init(), 0);
    int attempts = 0;
    const Hooked refuses(hooks::semop, [&](int, sembuf *, size_t) -> std::optional<int> {
        ++attempts;
        errno = EIDRM;
        return -1;
    });
    expectUnusable(fresh(), {{LOG_ERR, textf("CSemaphore::lock() - semop failed, errno=%i", EIDRM)},
                             {LOG_ERR, "recursive-semaphore: unable to lock guarding semaphore"}});
    EXPECT_EQ(attempts, 1) << "the guard is still there";
}

TEST_F(UnusableSemaphore, WithANameThatTheKernelRefuses) {
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

TEST_F(UnusableSemaphore, WhenTheObjectCannotBeLookedAt) {
    const std::string name = fresh();
    {
        const Hooked unreadable(hooks::fstat, failingWith(EIO));
        expectUnusable(name,
                       {{LOG_ERR, "recursive-semaphore: unable to open shared memory - errno=Input/output error"}});
    }
    expectUsable(name);
}

TEST_F(UnusableSemaphore, WhenTheObjectCannotGetItsSize) {
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

TEST_F(UnusableSemaphore, WhenTheObjectCannotBeMapped) {
#ifdef __SANITIZE_THREAD__
    GTEST_SKIP() << "mmap() cannot be watched under the thread sanitizer";
#else
    const std::string name = fresh();
    {
        const Hooked full(hooks::mmap, vxtest::answering(MAP_FAILED, ENOMEM));
        expectUnusable(name, {{LOG_ERR, "recursive-semaphore: mmap failed - errno=Cannot allocate memory"}});
    }
    expectUsable(name);
#endif
}

TEST_F(UnusableSemaphore, WhenTheMutexCannotBeMade) {
    const std::string robust = "recursive semaphore: unable to set attribute \"robust\"";
    const std::string recursive = "recursive-semaphore: unable to set attribute \"recursive\"";
    const std::string noMutex = "recursive-semaphore: unable to initialize mutex - errno=";
    const auto refused = [this](auto &hook, auto answer, const std::string &text) {
        const std::string name = fresh();
        {
            const Hooked refuses(hook, answer);
            expectUnusable(name, {{LOG_ERR, text}});
        }
        expectUsable(name);
    };
    const auto fails = [](int error) { return vxtest::answering(error, 0); };
    refused(hooks::pthread_mutexattr_init, fails(ENOMEM), "recursive-semaphore: unable initialize attributes");
    refused(hooks::pthread_mutexattr_setrobust, fails(ENOTSUP), robust);
    refused(hooks::pthread_mutexattr_setpshared, fails(ENOTSUP), recursive);
    refused(hooks::pthread_mutexattr_settype, fails(ENOTSUP), recursive);
    refused(hooks::pthread_mutex_init, fails(EAGAIN), noMutex + "Resource temporarily unavailable");
    refused(hooks::pwrite, vxtest::answering(ssize_t{-1}, ENOSPC), noMutex + "No space left on device");
    const auto cutShort = [](int, const void *, size_t size, off_t) -> std::optional<ssize_t> {
        return static_cast<ssize_t>(size) - 1;
    };
    refused(hooks::pwrite, cutShort, noMutex + "No space left on device");
}

// ---- the owner's death

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
TEST_F(OwnerDeathFaults, WithoutRepairIsReportedToAllProcessesThatWait) {
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

TEST_F(OwnerDeathFaults, WithoutRepairIsReportedToThreadsThatWaitAndToTrylock) {
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

// The one waiter that the C library wakes may be killed before it wakes the others. The test does this with threads that
// wait for the mutex itself: when one of them is woken, it wakes none of the others.
TEST_F(OwnerDeathFaults, WithoutRepairIsReportedToThoseWhoStillWaitWhenTrylockSeesTheLoss) {
    constexpr int waiting = 4;
    const std::string name = fresh();
    CRecursiveSemaphore lock(name, manual());
    log.take();
    die(name);
    ASSERT_EQ(lock.lock(), EOWNERDEAD);
    const int fd = ::shm_open(name.c_str(), O_RDWR, 0);
    void *const page = ::mmap(nullptr, sizeof(pthread_mutex_t), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    ASSERT_NE(page, MAP_FAILED);
    ::close(fd);
    auto *const mutex = static_cast<pthread_mutex_t *>(page);
    std::atomic<int> told{0};
    std::array<std::atomic<pid_t>, waiting> waiters{};
    std::vector<std::thread> threads;
    for (std::atomic<pid_t> &waiter : waiters) {
        threads.emplace_back([&] {
            waiter = static_cast<pid_t>(::syscall(SYS_gettid));
            EXPECT_EQ(pthread_mutex_lock(mutex), ENOTRECOVERABLE);
            ++told;
        });
    }
    for (std::atomic<pid_t> &waiter : waiters) {
        ASSERT_TRUE(vxtest::eventually([&] { return waiter != 0 && sleeps(waiter); }));
    }
    EXPECT_EQ(lock.unlock(), 0);
    EXPECT_TRUE(vxtest::eventually([&] { return told == 1; }));
    EXPECT_EQ(lock.trylock(), ENOTRECOVERABLE);
    EXPECT_TRUE(vxtest::eventually([&] { return told == waiting; })) << told;
    while (told != waiting) {  // else a failure would hang here
        ::syscall(SYS_futex, page, FUTEX_WAKE, waiting, nullptr, nullptr, 0);
        ::usleep(1000);
    }
    for (std::thread &thread : threads) thread.join();
    ::munmap(page, sizeof(pthread_mutex_t));
}

TEST_F(OwnerDeathFaults, ThatCannotBeRepairedIsLoggedAndReportedAllTheSame) {
    const std::string name = fresh();
    CRecursiveSemaphore lock(name);
    log.take();
    die(name);
    {
        const Hooked beyondRepair(hooks::pthread_mutex_consistent, vxtest::answering(EINVAL, 0));
        EXPECT_EQ(lock.lock(), EOWNERDEAD);
    }
    EXPECT_EQ(log.take(), (Lines{{LOG_ERR, "recursive-semaphore: make consistent failed - errno=Invalid argument"}}));
    EXPECT_EQ(lock.makeConsistent(), 0);
    EXPECT_EQ(lock.unlock(), 0);
}

// ---- CSemaphore

TEST_F(PlainSemaphoreFaults, InitReportsThatTheKernelGivesNoSemaphore) {
    CSemaphore lock("/etc/hostname", 11);
    const Lines expected{{LOG_ERR, textf("CSemaphore::init() - unable to obtain semaphore-set - errno=%i", ENOSPC)}};
    {
        const Hooked full(hooks::semget, failingWith(ENOSPC));
        EXPECT_EQ(lock.init(), -1);
    }
    EXPECT_EQ(log.take(), expected);
    ASSERT_EQ(lock.init(), 0);
    CSemaphore second("/etc/hostname", 11);
    const Hooked full(hooks::semget, failingWith(ENOSPC, 1));  // the exclusive attempt finds it there, opening it fails
    EXPECT_EQ(second.init(), -1);
    EXPECT_EQ(log.take(), expected);
}

TEST_F(PlainSemaphoreFaults, InitReportsThatANewSemaphoreCannotBeFreed) {
    const Hooked removed(hooks::semop, failingWith(EIDRM));
    CSemaphore lock("/etc/hostname", 10);
    EXPECT_EQ(lock.init(), -1);
    EXPECT_EQ(log.take(),
              (Lines{{LOG_ERR, textf("CSemaphore::init() - semop() failed - unable to initialize semaphore - errno=%i",
                                     EIDRM)}}));
    EXPECT_EQ(lock.lock(), -1);
    EXPECT_EQ(log.take(), (Lines{{LOG_ERR, "CSemaphore::lock() - invalid semId!"}}));
}

TEST_F(PlainSemaphoreFaults, AnInterruptedLockIsRepeatedAndAnInterruptedUnlockIsNot) {
    CSemaphore lock("/etc/hostname", 18);
    ASSERT_EQ(lock.init(), 0);
    int calls = 0;
    const Hooked interrupted(hooks::semop, [&](int, sembuf *, size_t) -> std::optional<int> {
        if (++calls % 4 == 0) return std::nullopt;
        errno = EINTR;
        return -1;
    });
    EXPECT_EQ(lock.lock(), 0);
    EXPECT_EQ(calls, 4);
    EXPECT_EQ(log.take(), Lines{});
    EXPECT_EQ(lock.unlock(), -1);
    EXPECT_EQ(calls, 5);
    EXPECT_EQ(log.take(), (Lines{{LOG_ERR, textf("CSemaphore::unlock() - semop() failed errno=%i", EINTR)}}));
}

TEST_F(PlainSemaphoreFaults, ARemovedSemaphoreIsReportedByLockAndUnlock) {
    CSemaphore lock("/etc/hostname", 12);
    ASSERT_EQ(lock.init(), 0);
    ASSERT_EQ(::semctl(::semget(::ftok("/etc/hostname", 12), 1, 0), 0, IPC_RMID), 0);
    EXPECT_EQ(lock.lock(), -1);
    EXPECT_EQ(lock.unlock(), -1);
    EXPECT_EQ(log.take(), (Lines{{LOG_ERR, textf("CSemaphore::lock() - semop failed, errno=%i", EINVAL)},
                                 {LOG_ERR, textf("CSemaphore::unlock() - semop() failed errno=%i", EINVAL)}}));
}

}  // namespace
