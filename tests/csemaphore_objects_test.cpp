// SPDX-License-Identifier: MIT
// Several objects of one name in one process, made and destroyed in any order, in threads and across fork().
#include <vxutils/csemaphore.h>
#include <vxutils/sem.h>

#include <pthread.h>
#include <sys/mman.h>
#include <syslog.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "support/emulation.h"
#include "support/files.h"
#include "support/process.h"
#include "support/resources.h"
#include "support/syslog_capture.h"

namespace {

constexpr unsigned int hangs_s = 120;

class Objects : public testing::Test {
protected:
    Objects() {
        const std::string libraryFile = "/usr/lib/libvxutils.so.1.0.0";
        if (!vxtest::exists(libraryFile)) vxtest::writeFile(libraryFile, "the library's own file");
    }
    static std::string fresh() {
        static int number = 0;
        return "/objects" + std::to_string(::getpid()) + "." + std::to_string(++number);
    }
    static size_t mappings(const std::string &name) {
        const std::string maps = vxtest::readFile("/proc/self/maps");
        size_t count = 0;
        for (size_t at = maps.find(name); at != std::string::npos; at = maps.find(name, at + 1)) ++count;
        return count;
    }
    // A search without end is reported as the signal that ended it.
    static int inTime(const std::function<int()> &body) {
        return vxtest::inChild([&] {
            ::alarm(hangs_s);
            return body();
        });
    }

    vxtest::SyslogCapture log;  // every name is logged once when it is created
};

// Ends the program when it takes too long. For tests that start threads, which the user-mode emulator cannot do in a
// forked child.
class EndsInTime {
public:
    EndsInTime() { ::alarm(hangs_s); }
    ~EndsInTime() { ::alarm(0); }
    EndsInTime(const EndsInTime &) = delete;
    EndsInTime &operator=(const EndsInTime &) = delete;
};

// Another process that says whether the lock is taken.
class Prober {
public:
    explicit Prober(const std::string &name) {
        if (::pipe(question_) != 0 || ::pipe(answer_) != 0) throw std::runtime_error("pipe");
        child_ = vxtest::startChild([&] {
            CRecursiveSemaphore lock(name);
            for (char byte; ::read(question_[0], &byte, 1) == 1;) {
                byte = static_cast<char>(lock.trylock());
                if (byte == 0 && lock.unlock() != 0) byte = -1;
                if (::write(answer_[1], &byte, 1) != 1) return 1;
            }
            return 0;
        });
    }
    ~Prober() {
        ::kill(child_, SIGKILL);
        vxtest::waitChild(child_);
        for (const int fd : {question_[0], question_[1], answer_[0], answer_[1]}) ::close(fd);
    }
    Prober(const Prober &) = delete;
    Prober &operator=(const Prober &) = delete;

    bool taken() {
        char byte = 'x';
        if (::write(question_[1], "?", 1) != 1 || ::read(answer_[0], &byte, 1) != 1) return false;
        return byte == EBUSY;
    }

private:
    pid_t child_;
    int question_[2];
    int answer_[2];
};

// --- every order

// Every sequence of `length` steps of lock() and unlock() through `objects` objects that is possible, then back to
// free.
class EveryOrder {
public:
    EveryOrder(const std::string &name, int objects, int length) : prober_(name), length_(length) {
        for (int i = 0; i < objects; ++i) objects_.push_back(std::make_unique<CRecursiveSemaphore>(name));
    }
    int run() {
        step();
        return failures_ == 0 && sequences_ > 100 ? 0 : 1;
    }

private:
    void check(bool holds) { failures_ += holds ? 0 : 1; }

    void step() {
        if (static_cast<int>(steps_.size()) == length_) return replay();
        for (int i = 0; i < static_cast<int>(objects_.size()); ++i) {
            for (const bool lock : {true, false}) {
                if (!lock && depth_ == 0) continue;
                steps_.push_back({i, lock});
                depth_ += lock ? 1 : -1;
                step();
                depth_ -= lock ? 1 : -1;
                steps_.pop_back();
            }
        }
    }

    void replay() {
        ::alarm(hangs_s);  // again for each sequence: a busy board may need minutes for all of them
        ++sequences_;
        int depth = 0;
        for (const auto &[object, lock] : steps_) {
            CRecursiveSemaphore &through = *objects_[static_cast<size_t>(object)];
            check((lock ? through.lock() : through.unlock()) == 0);
            depth += lock ? 1 : -1;
        }
        check(prober_.taken() == (depth > 0));
        for (size_t i = 0; depth > 0; --depth, ++i) check(objects_[i % objects_.size()]->unlock() == 0);
        check(objects_.front()->unlock() == EPERM);
    }

    struct Step {
        int object;
        bool lock;
    };
    Prober prober_;
    const int length_;
    std::vector<std::unique_ptr<CRecursiveSemaphore>> objects_;
    std::vector<Step> steps_;
    int depth_ = 0;
    int sequences_ = 0;
    int failures_ = 0;
};

TEST_F(Objects, TwoLockAndUnlockInEveryOrder) {
    const std::string name = fresh();
    EXPECT_EQ(inTime([&] { return EveryOrder(name, 2, 8).run(); }), 0);
}

TEST_F(Objects, ThreeLockAndUnlockInEveryOrder) {
    const std::string name = fresh();
    EXPECT_EQ(inTime([&] { return EveryOrder(name, 3, 6).run(); }), 0);
}

TEST_F(Objects, HandlesOfThePlainFaceAreObjectsToo) {
    const std::string name = fresh();
    EXPECT_EQ(inTime([&] {
                  sem_handle *const a = sem_create(name.c_str());
                  sem_handle *const b = sem_create(name.c_str());
                  const bool good = sem_lock(a) == 0 && sem_lock(b) == 0 && sem_unlock(a) == 0 && sem_unlock(b) == 0 &&
                                    sem_unlock(b) == EPERM;
                  sem_release(a);
                  sem_release(b);
                  return good ? 0 : 1;
              }),
              0);
}

// Objects come and go while the lock is held, the last one too: at each step one of `slots` objects is made or
// destroyed, or locks or unlocks.
class ComeAndGo {
public:
    ComeAndGo(const std::string &name, size_t slots)
        : name_(name), other_(name + ".other"), prober_(name), slots_(slots) {}

    int run(unsigned int seed, int steps) {
        std::mt19937 random(seed);
        for (int i = 0; i < steps && good_; ++i) step(random() % slots_.size(), random() % 4);
        while (depth_ > 0 && good_) unlock(0);
        good_ = good_ && !prober_.taken();
        return good_ ? 0 : 1;
    }

private:
    void step(size_t slot, unsigned long what) {
        std::unique_ptr<CRecursiveSemaphore> &object = slots_[slot];
        if (what == 0) {
            object = object ? nullptr : std::make_unique<CRecursiveSemaphore>(name_);
        } else if (what < 3 && depth_ < 4 && object) {
            good_ = object->lock() == 0;
            ++depth_;
        } else if (depth_ > 0) {
            unlock(slot);
        }
        // The thread's list of held mutexes is intact: another one goes in and out of it.
        good_ = good_ && other_.lock() == 0 && other_.unlock() == 0 && prober_.taken() == (depth_ > 0);
    }
    void unlock(size_t slot) {
        std::unique_ptr<CRecursiveSemaphore> &object = slots_[slot];
        if (!object) object = std::make_unique<CRecursiveSemaphore>(name_);
        good_ = good_ && object->unlock() == 0;
        --depth_;
    }

    const std::string name_;
    CRecursiveSemaphore other_;
    Prober prober_;
    std::vector<std::unique_ptr<CRecursiveSemaphore>> slots_;
    int depth_ = 0;
    bool good_ = true;
};

TEST_F(Objects, ComeAndGoWhileTheLockIsHeld) {
    const std::string name = fresh();
    for (const size_t slots : {1U, 2U, 3U}) {
        EXPECT_EQ(inTime([&] { return ComeAndGo(name, slots).run(static_cast<unsigned int>(slots), 1500); }), 0)
            << slots;
    }
}

// --- the mapping

TEST_F(Objects, ShareOneMappingUntilTheLastIsGone) {
    const std::string name = fresh();
    const std::string another = fresh();
    auto first = std::make_unique<CRecursiveSemaphore>(name);
    EXPECT_EQ(mappings(name), 1U);
    auto second = std::make_unique<CRecursiveSemaphore>(name);
    const auto third = std::make_unique<CRecursiveSemaphore>(another);
    EXPECT_EQ(mappings(name), 1U);
    EXPECT_EQ(mappings(another), 1U);
    first.reset();
    EXPECT_EQ(mappings(name), 1U);
    EXPECT_EQ(second->lock(), 0);
    EXPECT_EQ(second->unlock(), 0);
    second.reset();
    EXPECT_EQ(mappings(name), 0U);
    EXPECT_EQ(mappings(another), 1U);
    const CRecursiveSemaphore again(name);
    EXPECT_EQ(mappings(name), 1U);
}

TEST_F(Objects, TheMappingOutlivesThemWhileAThreadOfTheProcessHoldsTheLock) {
    const std::string name = fresh();
    auto object = std::make_unique<CRecursiveSemaphore>(name);
    ASSERT_EQ(object->lock(), 0);
    object.reset();
    EXPECT_EQ(mappings(name), 1U);
    EXPECT_EQ(inTime([&] {  // the child does not hold it
                  { const CRecursiveSemaphore own(name); }
                  return mappings(name) == 0 ? 0 : 1;
              }),
              0);
    object = std::make_unique<CRecursiveSemaphore>(name);
    EXPECT_EQ(mappings(name), 1U);
    EXPECT_EQ(object->unlock(), 0);
    object.reset();
    EXPECT_EQ(mappings(name), 0U);
}

TEST_F(Objects, ANameThatWasRemovedAndMadeAnewIsAnotherLock) {
    const std::string name = fresh();
    CRecursiveSemaphore old(name);
    ASSERT_EQ(::shm_unlink(name.c_str()), 0);
    CRecursiveSemaphore anew(name);
    EXPECT_EQ(old.lock(), 0);
    std::thread([&] {
        EXPECT_EQ(old.trylock(), EBUSY);
        EXPECT_EQ(anew.trylock(), 0);
        EXPECT_EQ(anew.unlock(), 0);
    }).join();
    EXPECT_EQ(old.unlock(), 0);
}

// --- threads and fork()

TEST_F(Objects, ThreadsMakeDestroyAndUseThemAtOnce) {
    const std::string name = fresh();
    const std::string another = fresh();
    const EndsInTime watch;
    int plain = 0;
    std::atomic<int> failures{0};
    std::vector<std::thread> threads;
    for (int thread = 0; thread < 4; ++thread) {
        threads.emplace_back([&] {
            for (int i = 0; i < 200; ++i) {
                auto a = std::make_unique<CRecursiveSemaphore>(name);
                CRecursiveSemaphore other(another);
                CRecursiveSemaphore b(name);
                bool good = a->lock() == 0 && b.lock() == 0;
                ++plain;
                good = good && a->unlock() == 0;
                a.reset();
                good = good && other.lock() == 0 && b.unlock() == 0 && other.unlock() == 0;
                if (!good) ++failures;
            }
        });
    }
    for (std::thread &thread : threads) thread.join();
    EXPECT_EQ(failures, 0);
    EXPECT_EQ(plain, 800);
    EXPECT_EQ(mappings(name), 0U);
}

TEST_F(Objects, AChildUsesInheritedAndOwnObjectsOfOneName) {
    const std::string name = fresh();
    EXPECT_EQ(inTime([&] {
                  CRecursiveSemaphore a(name);
                  CRecursiveSemaphore b(name);
                  if (a.lock() != 0 || b.lock() != 0) return 1;
                  int refused[2];
                  if (::pipe(refused) == -1) return 4;
                  const pid_t child = vxtest::startChild([&] {
                      ::alarm(hangs_s);
                      CRecursiveSemaphore own(name);
                      if (a.trylock() != EBUSY || own.trylock() != EBUSY || b.unlock() != EPERM) return 1;
                      if (::write(refused[1], "r", 1) != 1) return 4;
                      if (a.lock() != 0 || own.lock() != 0 || b.lock() != 0) return 2;  // waits for the parent
                      return own.unlock() == 0 && a.unlock() == 0 && b.unlock() == 0 && mappings(name) == 1 ? 0 : 3;
                  });
                  ::close(refused[1]);
                  char byte = 0;
                  const bool told = ::read(refused[0], &byte, 1) == 1;
                  ::close(refused[0]);
                  ::usleep(20000);  // the child waits in lock() by now, most of the time
                  if (b.unlock() != 0 || a.unlock() != 0) return 2;
                  const int result = vxtest::waitChild(child);
                  if (!told || result != 0) return 10 + result;
                  return a.lock() == 0 && b.unlock() == 0 ? 0 : 3;
              }),
              0);
}

// The child's copy of the list of mappings is whole and free, whatever the parent's other threads do at that moment.
TEST_F(Objects, AChildOfAProcessWhoseThreadsMakeObjectsMakesItsOwn) {
    if (vxtest::emulated()) GTEST_SKIP() << "the emulator's own locks do not survive fork() in a process with threads";
    const std::string name = fresh();
    const EndsInTime watch;
    std::atomic<bool> stop{false};
    std::vector<std::thread> threads;
    for (int thread = 0; thread < 2; ++thread) {
        threads.emplace_back([&, thread] {
            while (!stop) {
                const CRecursiveSemaphore one(name);
                const CRecursiveSemaphore two(name + std::to_string(thread));
                ::usleep(100);
            }
        });
    }
    int failures = 0;
    for (int i = 0; i < 60; ++i) {
        failures += vxtest::inChild([&] {
            ::alarm(hangs_s);
            CRecursiveSemaphore a(name);
            CRecursiveSemaphore b(name);
            return a.lock() == 0 && b.lock() == 0 && a.unlock() == 0 && b.unlock() == 0 ? 0 : 1;
        });
    }
    stop = true;
    for (std::thread &thread : threads) thread.join();
    EXPECT_EQ(failures, 0);
}

// --- death

class ObjectsOwnerDeath : public Objects {
protected:
    void SetUp() override {
        if (vxtest::emulated()) GTEST_SKIP() << "user-mode emulation has no robust mutex lists: a death is not seen";
    }
};

TEST_F(ObjectsOwnerDeath, IsSeenThroughWhicheverObjectItLocked) {
    const std::string name = fresh();
    CRecursiveSemaphore seen(name);
    for (int order = 0; order < 8; ++order) {
        EXPECT_EQ(inTime([&] {
                      std::array<std::unique_ptr<CRecursiveSemaphore>, 3> objects;
                      for (auto &object : objects) object = std::make_unique<CRecursiveSemaphore>(name);
                      CRecursiveSemaphore other(name + ".other");
                      for (const int bit : {1, 2, 4}) {
                          if (objects[(order & bit) != 0 ? 1 : 2]->lock() != 0 || other.lock() != 0) return 1;
                      }
                      if (objects[0]->unlock() != 0) return 2;
                      for (auto &object : objects) object.reset();
                      ::kill(::getpid(), SIGKILL);
                      return 3;
                  }),
                  128 + SIGKILL);
        EXPECT_EQ(seen.lock(), EOWNERDEAD) << order;
        EXPECT_EQ(seen.unlock(), 0);
        CRecursiveSemaphore other(name + ".other");
        EXPECT_EQ(other.lock(), EOWNERDEAD) << order;
        EXPECT_EQ(other.unlock(), 0);
    }
}

TEST_F(ObjectsOwnerDeath, OfAThreadIsSeenThroughTheOtherObjects) {
    const std::string name = fresh();
    CRecursiveSemaphore a(name);
    CRecursiveSemaphore b(name);
    std::thread([&] {
        EXPECT_EQ(a.lock(), 0);
        EXPECT_EQ(b.lock(), 0);
        EXPECT_EQ(a.unlock(), 0);
    }).join();
    EXPECT_EQ(b.trylock(), EOWNERDEAD);
    EXPECT_EQ(a.lock(), 0);
    EXPECT_EQ(b.unlock(), 0);
    EXPECT_EQ(a.unlock(), 0);
    EXPECT_EQ(inTime([&] { return a.trylock() == 0 && b.unlock() == 0 ? 0 : 1; }), 0);
}

TEST_F(ObjectsOwnerDeath, OfTheParentIsSeenByAChildThroughInheritedObjects) {
    const std::string name = fresh();
    std::array<int, 2> pipe{};
    ASSERT_EQ(::pipe(pipe.data()), 0);
    const pid_t parent = vxtest::startChild([&] {
        CRecursiveSemaphore a(name);
        CRecursiveSemaphore b(name);
        if (a.lock() != 0 || b.lock() != 0) return 1;
        if (::fork() == 0) {
            ::alarm(hangs_s);
            const char result =
                b.lock() == EOWNERDEAD && a.lock() == 0 && b.unlock() == 0 && a.unlock() == 0 ? 'y' : 'n';
            if (::write(pipe[1], &result, 1) != 1) ::_exit(1);
            ::_exit(0);
        }
        ::usleep(20000);
        ::kill(::getpid(), SIGKILL);
        return 2;
    });
    EXPECT_EQ(vxtest::waitChild(parent), 128 + SIGKILL);
    char result = 'n';
    EXPECT_EQ(::read(pipe[0], &result, 1), 1);
    EXPECT_EQ(result, 'y');
    for (const int fd : pipe) ::close(fd);
}

}  // namespace
