// SPDX-License-Identifier: MIT
// What the tests of the event loop share: sinks, timers, and what the process and its epoll set hold.
#pragma once

#include <gtest/gtest.h>
#include <sys/eventfd.h>
#include <syslog.h>
#include <unistd.h>
#include <vxutils/eventsource.h>

#include <algorithm>
#include <cstdio>
#include <functional>
#include <map>
#include <memory>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "support/files.h"
#include "support/resources.h"
#include "support/syslog_capture.h"

namespace vxtest {

// A sink on an eventfd: readable from fire() to clear(), always writable.
class Sink : public IFDEventsink {
public:
    Sink() : fd_(::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC)) {}
    explicit Sink(int fd) : fd_(fd), owned_(false) {}
    ~Sink() override {
        if (owned_) ::close(fd_);
    }

    void fire() const { ASSERT_EQ(::eventfd_write(fd_, 1), 0); }
    void clear() const {
        eventfd_t value = 0;
        ASSERT_EQ(::eventfd_read(fd_, &value), 0);
    }
    void closeNow() {
        ::close(fd_);
        owned_ = false;
    }

    void onReadable() override {
        ++reads;
        if (whenReadable) whenReadable();
    }
    void onWritable() override {
        ++writes;
        if (whenWritable) whenWritable();
    }
    int getFd() const override { return fd_; }

    std::function<void()> whenReadable;
    std::function<void()> whenWritable;
    int reads = 0;
    int writes = 0;

private:
    int fd_;
    bool owned_ = true;
};

class Timer : public ITimeoutEventsink {
public:
    Timer(int periodMs, bool once) : ms(periodMs), oneShot(once) {}

    void onTimeout(unsigned int expirations) override {
        counts.push_back(expirations);
        if (whenFired) whenFired();
    }
    int getTimeoutMs() override { return ms; }
    bool isOneShot() override { return oneShot; }

    int ms;
    bool oneShot;
    std::function<void()> whenFired;
    std::vector<unsigned int> counts;
};

inline std::vector<int> descriptorsOn(const std::string &target) {
    std::vector<int> found;
    for (const std::string &line : openDescriptors()) {
        if (line.find(" -> " + target) != std::string::npos) found.push_back(std::stoi(line));
    }
    std::sort(found.begin(), found.end());
    return found;
}

inline std::vector<int> timerDescriptors() { return descriptorsOn("anon_inode:[timerfd]"); }
inline int epollDescriptor() { return descriptorsOn("anon_inode:[eventpoll]").at(0); }

// What the epoll set holds: descriptor -> (events, data).
inline std::map<int, std::pair<uint32_t, uint64_t>> watched() {
    std::map<int, std::pair<uint32_t, uint64_t>> found;
    std::istringstream info(readFile("/proc/self/fdinfo/" + std::to_string(epollDescriptor())));
    for (std::string line; std::getline(info, line);) {
        int fd = 0;
        unsigned int events = 0;
        unsigned long long data = 0;
        if (std::sscanf(line.c_str(), "tfd: %d events: %x data: %llx", &fd, &events, &data) == 3) {
            found[fd] = {events, data};
        }
    }
    return found;
}

// A loop for each test. At its end, no log line may be unread and no descriptor open that was not open before.
class LoopTest : public testing::Test {
protected:
    LoopTest() {
        ::openlog("eventsource_test", LOG_NDELAY, LOG_USER);  // no further descriptor when something is logged
        descriptorsBefore_ = openDescriptors();
        source = std::make_unique<CEPollEventsource>();
    }
    ~LoopTest() override {
        source.reset();
        EXPECT_EQ(openDescriptors(), descriptorsBefore_);
        EXPECT_EQ(log.take(), std::vector<LogLine>{});
        ::closelog();
    }
    void init() { ASSERT_EQ(source->init(), 0); }

    void runUntilTerminated() { ASSERT_EQ(source->evtLoop(), 0); }

    SyslogCapture log;
    std::vector<std::string> descriptorsBefore_;
    std::unique_ptr<CEPollEventsource> source;
};

}  // namespace vxtest
