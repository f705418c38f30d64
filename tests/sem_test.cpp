// SPDX-License-Identifier: MIT
// The lock between processes as plain functions.
#include <vxutils/sem.h>

#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <new>
#include <stdexcept>
#include <thread>
#include <vector>

#include "support/emulation.h"
#include "support/files.h"
#include "support/process.h"
#include "support/resources.h"
#include "support/syslog_capture.h"

namespace {

thread_local int allocationsLeft = -1;  // -1: no limit
thread_local int allocationsMade = 0;

void *allocate(size_t size) {
    ++allocationsMade;
    if (allocationsLeft == 0) return nullptr;
    if (allocationsLeft > 0) --allocationsLeft;
    return std::malloc(size == 0 ? 1 : size);
}

}  // namespace

// The library allocates through these, so that memory can run short at any point.
void *operator new(size_t size) {
    if (void *const memory = allocate(size)) return memory;
    throw std::bad_alloc();
}
void *operator new(size_t size, const std::nothrow_t &) noexcept { return allocate(size); }
// Not inlined: where the compiler sees free() it misses the malloc() in operator new.
__attribute__((noinline)) void operator delete(void *memory) noexcept { std::free(memory); }
__attribute__((noinline)) void operator delete(void *memory, size_t) noexcept { std::free(memory); }
__attribute__((noinline)) void operator delete(void *memory, const std::nothrow_t &) noexcept { std::free(memory); }

namespace {

using Lines = std::vector<vxtest::LogLine>;

class Sem : public testing::Test {
protected:
    Sem() {
        ::openlog("sem_test", LOG_NDELAY, LOG_USER);  // its descriptor is there before anything is counted
        const std::string libraryFile = "/usr/lib/libvxutils.so.1.0.0";
        if (!vxtest::exists(libraryFile)) vxtest::writeFile(libraryFile, "the library's own file");
    }
    ~Sem() override {
        EXPECT_EQ(log.take(), Lines{});
        ::closelog();
    }
    static std::string fresh() {
        static int number = 0;
        return "/sem" + std::to_string(::getpid()) + "." + std::to_string(++number);
    }
    static void die(const std::string &name) {
        EXPECT_EQ(vxtest::inChild([&] {
                      sem_handle *const handle = sem_create(name.c_str());
                      if (sem_lock(handle) != 0) return 1;
                      ::kill(::getpid(), SIGKILL);
                      return 2;
                  }),
                  128 + SIGKILL);
    }
    vxtest::SyslogCapture log;
};

TEST_F(Sem, NullIsNoHandle) {
    EXPECT_EQ(sem_lock(nullptr), -1);
    EXPECT_EQ(sem_trylock(nullptr), -1);
    EXPECT_EQ(sem_unlock(nullptr), -1);
    sem_release(nullptr);
    semopt_set_consistent_mode_automatic(nullptr);
    semopt_set_consistent_mode_manual(nullptr);
    semopts_release(nullptr);
}

TEST_F(Sem, LocksAndUnlocks) {
    const std::string name = fresh();
    const vxtest::NoLeaks leaks;
    sem_handle *const handle = sem_create(name.c_str());
    ASSERT_NE(handle, nullptr);
    EXPECT_EQ(log.take(), (Lines{{LOG_DEBUG, "created recursive semaphore \"" + name + "\""}}));
    EXPECT_EQ(sem_lock(handle), 0);
    EXPECT_EQ(sem_trylock(handle), 0);
    std::thread([&] { EXPECT_EQ(sem_trylock(handle), EBUSY); }).join();
    EXPECT_EQ(sem_unlock(handle), 0);
    EXPECT_EQ(sem_unlock(handle), 0);
    EXPECT_EQ(sem_unlock(handle), EPERM);
    sem_release(handle);
}

TEST_F(Sem, ALockThatCouldNotBeSetUpStillGivesAHandle) {
    sem_handle *const handle = sem_create("/not/allowed");
    ASSERT_NE(handle, nullptr);
    EXPECT_EQ(log.take(),
              (Lines{{LOG_ERR, "recursive-semaphore: unable to open shared memory - errno=Invalid argument"}}));
    EXPECT_EQ(sem_lock(handle), -1);
    EXPECT_EQ(sem_trylock(handle), -1);
    EXPECT_EQ(sem_unlock(handle), -1);
    sem_release(handle);
}

TEST_F(Sem, WithoutTheLibrarysFileEveryCallReturnsAtOnce) {
    const std::string libraryFile = "/usr/lib/libvxutils.so.1.0.0";
    ASSERT_EQ(::rename(libraryFile.c_str(), "/usr/lib/away"), 0);
    sem_handle *const handle = sem_create(fresh().c_str());
    ASSERT_EQ(::rename("/usr/lib/away", libraryFile.c_str()), 0);
    EXPECT_EQ(log.take().size(), 2U) << "the missing file, and what it was needed for";
    EXPECT_EQ(sem_lock(handle), -1);
    EXPECT_EQ(sem_trylock(handle), -1);
    EXPECT_EQ(sem_unlock(handle), -1);
    sem_release(handle);
}

TEST_F(Sem, ANullNameRaisesALogicErrorWithAndWithoutOptions) {
    sem_options *const options = sem_options_create();
    ASSERT_NE(options, nullptr);
    EXPECT_THROW(sem_create_with_options(nullptr, options), std::logic_error);
    EXPECT_THROW(sem_create_with_options(nullptr, nullptr), std::logic_error);
    EXPECT_THROW(sem_create(nullptr), std::logic_error);
    semopts_release(options);
}

TEST_F(Sem, NullOptionsAreTheDefault) {
    const std::string name = fresh();
    sem_handle *const handle = sem_create_with_options(name.c_str(), nullptr);
    log.take();
    EXPECT_EQ(sem_lock(handle), 0);
    EXPECT_EQ(sem_unlock(handle), 0);
    sem_release(handle);
}

TEST_F(Sem, WithoutMemoryThereIsNoHandle) {
    const std::string name = fresh();
    sem_release(sem_create(name.c_str()));
    log.take();
    const vxtest::NoLeaks leaks;
    int allowed = 0;
    for (;; ++allowed) {
        ASSERT_LT(allowed, 100);
        allocationsLeft = allowed;
        sem_handle *const handle = sem_create_with_options(name.c_str(), nullptr);
        allocationsLeft = -1;
        if (handle == nullptr) continue;
        EXPECT_EQ(sem_lock(handle), 0);
        EXPECT_EQ(sem_unlock(handle), 0);
        sem_release(handle);
        break;
    }
    EXPECT_GE(allowed, 3);  // handle, object, implementation
    allocationsLeft = 0;
    sem_options *const options = sem_options_create();
    allocationsLeft = -1;
    EXPECT_EQ(options, nullptr);
    EXPECT_GT(allocationsMade, 0);
}

class SemOwnerDeath : public Sem {
protected:
    void SetUp() override {
        if (vxtest::emulated()) GTEST_SKIP() << "user-mode emulation has no robust mutex lists: a death is not seen";
    }
};

TEST_F(SemOwnerDeath, IsRepairedByDefault) {
    const std::string name = fresh();
    sem_handle *const handle = sem_create(name.c_str());
    log.take();
    die(name);
    EXPECT_EQ(sem_lock(handle), EOWNERDEAD);
    EXPECT_EQ(sem_unlock(handle), 0);
    EXPECT_EQ(sem_lock(handle), 0);
    EXPECT_EQ(sem_unlock(handle), 0);
    sem_release(handle);
}

TEST_F(SemOwnerDeath, IsRepairedWhenOptionsSayAutomatic) {
    const std::string name = fresh();
    sem_options *const options = sem_options_create();
    semopt_set_consistent_mode_manual(options);
    semopt_set_consistent_mode_automatic(options);
    sem_handle *const handle = sem_create_with_options(name.c_str(), options);
    semopts_release(options);
    log.take();
    die(name);
    EXPECT_EQ(sem_trylock(handle), EOWNERDEAD);
    EXPECT_EQ(sem_unlock(handle), 0);
    EXPECT_EQ(sem_lock(handle), 0);
    EXPECT_EQ(sem_unlock(handle), 0);
    sem_release(handle);
}

TEST_F(SemOwnerDeath, LosesTheLockWhenOptionsSayManual) {
    const std::string name = fresh();
    sem_options *const options = sem_options_create();
    semopt_set_consistent_mode_manual(options);
    sem_handle *const handle = sem_create_with_options(name.c_str(), options);
    semopts_release(options);
    log.take();
    die(name);
    EXPECT_EQ(sem_lock(handle), EOWNERDEAD);
    EXPECT_EQ(sem_unlock(handle), 0);
    EXPECT_EQ(sem_lock(handle), ENOTRECOVERABLE);
    sem_release(handle);
}

TEST_F(Sem, TheExampleCountsInTurns) {
    const auto output = vxtest::run({vxtest::built("examples/sem")});
    EXPECT_EQ(output.status, 0) << output.text;
    EXPECT_EQ(output.text, "4 processes counted to 4000\n");
    log.take();
}

}  // namespace
