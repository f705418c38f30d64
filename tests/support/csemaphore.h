// SPDX-License-Identifier: MIT
// What the tests of locks between processes share.
#pragma once

#include <sys/mman.h>
#include <syslog.h>
#include <unistd.h>
#include <vxutils/csemaphore.h>

#include <atomic>
#include <csignal>
#include <string>
#include <vector>

#include "support/emulation.h"
#include "support/files.h"
#include "support/process.h"
#include "support/syslog_capture.h"

namespace vxtest {

// The guard of all named locks hangs on the file of this name.
inline const std::string libraryFile = "/usr/lib/libvxutils.so.1.0.0";

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

// Fails when a test leaves a line in the system log that it has not looked at.
class SemaphoreTest : public testing::Test {
protected:
    using Lines = std::vector<LogLine>;
    using Options = CRecursiveSemaphore::CSemaphoreOptions;

    SemaphoreTest() {
        ::openlog("csemaphore_test", LOG_NDELAY, LOG_USER);  // its descriptor is there before anything is counted
        if (!exists(libraryFile)) writeFile(libraryFile, "the library's own file");
    }
    ~SemaphoreTest() override {
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
        return readFile("/proc/self/maps").find(object(name)) != std::string::npos;
    }
    static LogLine created(const std::string &name) {
        return {LOG_DEBUG, "created recursive semaphore \"" + name + "\""};
    }
    static Options manual() {
        Options options;
        options.SetConsistentMode(Options::eConsistentManual);
        return options;
    }

    SyslogCapture log;
};

class OwnerDeathTest : public SemaphoreTest {
protected:
    void SetUp() override {
        if (emulated()) GTEST_SKIP() << "user-mode emulation has no robust mutex lists: a death is not seen";
    }
    // A process that dies holding the lock, locked `depth` times.
    static void die(const std::string &name, int depth = 1) {
        EXPECT_EQ(inChild([&] {
                      CRecursiveSemaphore lock(name);
                      for (int i = 0; i < depth; ++i) {
                          if (lock.lock() != 0) return 1;
                      }
                      ::kill(::getpid(), SIGKILL);
                      return 2;
                  }),
                  128 + SIGKILL);
    }
};

}  // namespace vxtest
