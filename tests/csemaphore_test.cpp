// SPDX-License-Identifier: MIT
// Locks between processes: real processes, killed where it hurts.
#include <vxutils/csemaphore.h>

#include <pthread.h>
#include <sched.h>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "support/csemaphore.h"
#include "support/files.h"
#include "support/process.h"
#include "support/resources.h"
#include "support/syslog_capture.h"
#include "support/text.h"

namespace {

using vxtest::SharedPage;
using vxtest::textf;

using OwnerDeath = vxtest::OwnerDeathTest;
using PlainSemaphore = vxtest::SemaphoreTest;
using RecursiveSemaphore = vxtest::SemaphoreTest;

static_assert(EOWNERDEAD == 130);

// ---- CRecursiveSemaphore: lock, unlock, trylock

// The owner is known by its thread's number, which two PID namespaces give out twice.
TEST_F(RecursiveSemaphore, DoesNotTellTheFirstProcessesOfTwoPidNamespacesApart) {
    const std::string name = fresh();
    const CRecursiveSemaphore made(name);
    log.take();
    const auto asFirstProcess = [](const std::function<int()> &body) {
        return vxtest::startChild([&] {
            if (::unshare(CLONE_NEWPID) != 0) return 100;
            return vxtest::inChild([&] { return ::getpid() == 1 ? body() : 101; });
        });
    };
    const SharedPage page;
    const pid_t owner = asFirstProcess([&] {
        CRecursiveSemaphore lock(name);
        const int result = lock.lock();
        page->ready = 1;
        return result == 0 && vxtest::eventually([&] { return page->go == 1; }) ? lock.unlock() : 1;
    });
    EXPECT_TRUE(vxtest::eventually([&] { return page->ready == 1; }));
    EXPECT_EQ(vxtest::waitChild(asFirstProcess([&] { return CRecursiveSemaphore(name).trylock(); })), 0);
    page->go = 1;
    vxtest::waitChild(owner);
}

TEST_F(RecursiveSemaphore, TheFirstObjectCreatesTheLockAndTheSecondOpensIt) {
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

TEST_F(RecursiveSemaphore, KeepsSixteenProcessesOutThatMakeItAtTheSameMoment) {
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

TEST_F(RecursiveSemaphore, ThreadsShareOneObject) {
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

TEST_F(RecursiveSemaphore, TheOwnerMayLockAgainAndUnlocksAsOften) {
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

TEST_F(RecursiveSemaphore, DestructionDoesNotUnlock) {
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

TEST_F(RecursiveSemaphore, TheObjectIsOneMutexForItsOwnerOnlyAndStays) {
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

// ---- CRecursiveSemaphore: the owner's death

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

TEST_F(OwnerDeath, IsReportedOnceAndRepairedAutomatically) {
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

TEST_F(RecursiveSemaphore, OptionsAreAutomaticUnlessSetOtherwise) {
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

TEST_F(OwnerDeath, InManualModeIsRepairedByTheCaller) {
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

TEST_F(OwnerDeath, WithoutRepairLosesTheLockForGood) {
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

TEST_F(OwnerDeath, IsRepairedAsTheOptionsSaidAtConstruction) {
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

// ---- CSemaphore

TEST_F(PlainSemaphore, KeepsProcessesOut) {
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

TEST_F(PlainSemaphore, ASecondLockByItsHolderWaitsForAnUnlock) {
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

TEST_F(PlainSemaphore, AKilledHolderGivesItBack) {
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

TEST_F(PlainSemaphore, SignalsDoNotEndTheWait) {
#ifdef __SANITIZE_THREAD__
    GTEST_SKIP() << "this sanitizer keeps signals back until a call that it knows; semop() is not one";
#endif
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

TEST_F(PlainSemaphore, IsOneSemaphoreForItsOwnerOnlyFoundByPathAndProject) {
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

TEST_F(PlainSemaphore, TheSemaphoreOutlivesItsObjects) {
    { EXPECT_EQ(CSemaphore("/etc/hostname", 9).init(), 0); }
    EXPECT_NE(::semget(::ftok("/etc/hostname", 9), 1, 0), -1);
}

// Neither the creator's making it free nor a finished lock and unlock are undone when their process ends.
TEST_F(PlainSemaphore, StaysFreeWhenItsUsersHaveGone) {
    const auto use = [] {
        CSemaphore lock("/etc/hostname", 17);
        return lock.init() == 0 && lock.lock() == 0 && lock.unlock() == 0 ? 0 : 1;
    };
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(vxtest::inChild(use), 0);
        ASSERT_EQ(::semctl(::semget(::ftok("/etc/hostname", 17), 1, 0), 0, GETVAL), 1) << i;
    }
}

TEST_F(PlainSemaphore, WithoutInitNothingCanBeLocked) {
    CSemaphore lock("/etc/hostname", 1);
    EXPECT_EQ(lock.lock(), -1);
    EXPECT_EQ(lock.unlock(), -1);
    EXPECT_EQ(log.take(), (Lines{{LOG_ERR, "CSemaphore::lock() - invalid semId!"},
                                 {LOG_ERR, "CSemaphore::unlock() - invalid semId!"}}));
}

TEST_F(PlainSemaphore, AnEmptyPathIsLoggedAndInitFails) {
    CSemaphore lock("", 1);
    EXPECT_EQ(log.take(), (Lines{{LOG_ERR, "CSemaphore - constructed with empty pathname!"}}));
    EXPECT_EQ(lock.init(), -1);
    EXPECT_EQ(log.take(), (Lines{{LOG_ERR, textf("CSemaphore::init() - ftok failed (errno=%i) for file ", ENOENT)}}));
}

TEST_F(PlainSemaphore, AProjectOfZeroIsLoggedAndUsedAsItIs) {
    CSemaphore lock("/etc/hostname", 0);
    EXPECT_EQ(log.take(), (Lines{{LOG_ERR, "CSemaphore - constructed with invalid projectID!"}}));
    EXPECT_EQ(lock.lock(), -1);
    EXPECT_EQ(log.take(), (Lines{{LOG_ERR, "CSemaphore::lock() - invalid semId!"}}));
    EXPECT_EQ(lock.init(), 0);
    EXPECT_EQ(lock.lock(), 0);
    EXPECT_EQ(lock.unlock(), 0);
}

TEST_F(PlainSemaphore, AnEmptyPathAndAProjectOfZeroAreBothLogged) {
    const CSemaphore lock("", 0);
    EXPECT_EQ(log.take(), (Lines{{LOG_ERR, "CSemaphore - constructed with empty pathname!"},
                                 {LOG_ERR, "CSemaphore - constructed with invalid projectID!"}}));
}

TEST_F(PlainSemaphore, AMissingFileIsLoggedWithItsName) {
    CSemaphore lock("/no/such/file", 1);
    EXPECT_EQ(lock.init(), -1);
    EXPECT_EQ(log.take(),
              (Lines{{LOG_ERR, textf("CSemaphore::init() - ftok failed (errno=%i) for file /no/such/file", ENOENT)}}));
    EXPECT_EQ(lock.lock(), -1);
    EXPECT_EQ(log.take(), (Lines{{LOG_ERR, "CSemaphore::lock() - invalid semId!"}}));
}

}  // namespace
