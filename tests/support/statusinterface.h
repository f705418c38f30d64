// SPDX-License-Identifier: MIT
// What the tests of the status tree share: a directory in it, an event base, an observer that keeps what it gets.
#pragma once

#include <event2/bufferevent.h>
#include <event2/event.h>
#include <gtest/gtest.h>
#include <vxutils/statusinterface.h>
extern "C" {
#include <event2/bufferevent_compat.h>
#include <event2/event_compat.h>
}
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <functional>
#include <string>
#include <vector>

namespace vxtest::statusinterface {

inline bool isFifo(const std::string &path) {
    struct stat info {};
    return ::lstat(path.c_str(), &info) == 0 && S_ISFIFO(info.st_mode);
}

inline std::string textOf(const String &s) { return {s.c_str(), static_cast<size_t>(s.length())}; }

class Status : public testing::Test {
protected:
    Status() { EXPECT_TRUE(status_.setup(BASEPATH_STATUS, "/daemon")); }
    ~Status() override { std::filesystem::remove_all(directory_); }
    Status(const Status &) = delete;
    Status &operator=(const Status &) = delete;

    const std::string directory_ = "/tmp/status/daemon";
    StatusInterface status_;
};

// ---- FIFOs

// Keeps the pieces it receives.
class Recorder : public StatusFifoObserver {
public:
    void fifoDataReceived(bufferevent *bev, char *data, unsigned long length) override {
        EXPECT_EQ(data[length], '\0');
        pieces.emplace_back(data, length);
        memset(data, 'x', length);  // the data is the observer's to change
        last = reinterpret_cast<unsigned long>(bev);
        if (onData) onData();
    }
    std::string text() const {
        std::string all;
        for (const std::string &piece : pieces) all += piece;
        return all;
    }
    std::vector<std::string> pieces;
    unsigned long last = 0;
    std::function<void()> onData;
};

class StatusFifo : public Status {
protected:
    StatusFifo() : base_(event_init()) {}
    ~StatusFifo() override {
        status_.cleanup();
        serve();
        event_base_free(base_);  // the current base again: none
    }
    StatusFifo(const StatusFifo &) = delete;
    StatusFifo &operator=(const StatusFifo &) = delete;

    void serve() {
        while (event_base_loop(base_, EVLOOP_NONBLOCK) == 0 &&
               event_base_get_num_events(base_, EVENT_BASE_COUNT_ACTIVE)) {
        }
    }
    void write(const std::string &name, const std::string &text) {
        const int fd = ::open((directory_ + name).c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC);
        ASSERT_NE(fd, -1) << name;
        EXPECT_EQ(::write(fd, text.data(), text.size()), static_cast<ssize_t>(text.size()));
        ::close(fd);
    }

    event_base *base_;
    Recorder recorder_;
};

}  // namespace vxtest::statusinterface
