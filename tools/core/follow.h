// SPDX-License-Identifier: MIT
// The loop of a command that follows something.
#pragma once

#include <chrono>
#include <functional>
#include <optional>
#include <string_view>

#include "core/command.h"
#include "core/fd.h"

namespace tool {

// Ends with Ctrl-C, SIGTERM, --count, --for, or when no process reads standard output any more. From construction on
// the two signals are held back, so that no work is cut in the middle, and SIGPIPE is ignored.
class Follow {
public:
    enum class Event { ready, timeout, over };
    using Clock = std::chrono::steady_clock;

    Follow(const Arguments &arguments, Output &out);

    // Waits until the descriptor (-1: no descriptor) is readable, `longest` has passed (no value: no limit), or following is over.
    Event wait(int fd, std::optional<milliseconds> longest = std::nullopt);
    // Prints one line. False when it was the last. A line that the output has no room for is cut when following ends: a reader
    // that does not read must not keep the command from ending.
    bool print(const Record &record, Plain form);
    // Prints a line after the end. Only a signal ends the wait for a reader that does not read.
    void printLast(const Record &record, Plain form);
    // Runs a call that cannot be ended in a thread of its own, and throws what it throws. False when following was over
    // first: the call then goes on until the process ends, and what it refers to must live as long.
    bool finishes(std::function<void()> call);
    bool over() const { return over_; }

private:
    bool write(std::string_view bytes, std::optional<Clock::time_point> end) const;
    bool hasRoom(std::optional<Clock::time_point> end) const;

    Output &out_;
    Fd signals_;
    std::optional<int64_t> left_;
    std::optional<Clock::time_point> end_;
    bool over_ = false;
};

}  // namespace tool
