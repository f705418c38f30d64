// SPDX-License-Identifier: MIT
// What the tests of the modem daemon's client share: the daemon's stand-in, handles, messages.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <syslog.h>
#include <vxutils/wwanmd.h>

#include <chrono>
#include <cstring>
#include <memory>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "support/process.h"
#include "support/syslog_capture.h"

namespace vxtest::wwanmd {

using std::chrono::milliseconds;
using testing::ElementsAre;
using testing::StartsWith;
using vxtest::LogLine;

struct Event {
    long long us;
    std::string text;
};

// The daemon's stand-in, another process.
class Modem {
public:
    explicit Modem(int card = 0) : process_({built("gateway/wwanmd"), std::to_string(card)}) {
        if (process_.readLine() != "ready") throw std::runtime_error("wwanmd is not ready");
    }

    void tell(const std::string &line) {
        process_.send(line + "\n");
        for (;;) {
            const std::string answer = process_.readLine();
            if (answer == "done") return;
            events_.push_back(parse(answer));
        }
    }

    // What happened since the last call.
    std::vector<Event> events() {
        tell("sync");
        return std::exchange(events_, {});
    }

    // The same, times left out.
    std::vector<std::string> happened() {
        std::vector<std::string> texts;
        for (const Event &event : events()) texts.push_back(event.text);
        return texts;
    }

    void die() {
        process_.send("die\n");
        process_.wait();
    }

private:
    static Event parse(const std::string &line) {
        const size_t blank = line.find(' ');
        return {std::stoll(line.substr(0, blank)), line.substr(blank + 1)};
    }

    Process process_;
    std::vector<Event> events_;
};

struct FreeHandle {
    void operator()(wwanmd_handle *handle) const { wwanmd_free(handle); }
};
using Handle = std::unique_ptr<wwanmd_handle, FreeHandle>;

struct Message : wwanmd_msg {
    explicit Message(const std::string &command = "", int seconds = 0) : wwanmd_msg{} {
        std::memcpy(data, command.data(), command.size());
        len = static_cast<int>(command.size());
        timeout = seconds;
    }
    std::string text() const { return len < 0 ? "(none)" : std::string(data, static_cast<size_t>(len)); }
};

class WwanmdTest : public testing::Test {
protected:
    ~WwanmdTest() override { ::closelog(); }

    Handle connect() {
        Handle handle(wwanmd_init(0, "tester"));
        modem.events();
        log.take();
        return handle;
    }

    // Without the pause between commands, which has its own test.
    static int command(const Handle &handle, Message &message) {
        handle->last_io = {};
        return wwanmd_command(handle.get(), &message);
    }

    static void waitReadable(const Handle &handle) {
        pollfd waiting{handle->fd, POLLIN, 0};
        ASSERT_EQ(::poll(&waiting, 1, 15000), 1);
    }

    std::vector<std::string> logTexts() {
        std::vector<std::string> texts;
        for (const LogLine &line : log.take()) {
            EXPECT_EQ(line.priority, LOG_DEBUG) << line;
            texts.push_back(line.text);
        }
        return texts;
    }

    SyslogCapture log;
    Modem modem;
};

// The log line of a busy daemon after a wait that began with that many seconds and needed less than one.
inline auto busyWithin(int seconds) {
    const std::string start = "wwanmd0 is busy, remaining timeout is ";
    return testing::AnyOf(testing::StartsWith(start + std::to_string(seconds - 1) + "."),
                          start + std::to_string(seconds) + ".0s");
}

class Stopwatch {
public:
    auto elapsed() const { return std::chrono::steady_clock::now() - start_; }

private:
    std::chrono::steady_clock::time_point start_ = std::chrono::steady_clock::now();
};

}  // namespace vxtest::wwanmd
