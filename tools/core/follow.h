// SPDX-License-Identifier: MIT
// The loop of a command that follows something.
#pragma once

#include <chrono>
#include <optional>

#include "core/command.h"
#include "core/fd.h"

namespace tool {

// Ends with Ctrl-C, SIGTERM, --count, --for, or when no process reads standard output any more. From construction on
// the two signals are held back: no work is cut in the middle.
class Follow {
public:
    enum class Event { ready, timeout, over };
    using Clock = std::chrono::steady_clock;

    Follow(const Arguments &arguments, Output &out);

    // Waits until the descriptor (-1: no descriptor) is readable, `longest` has passed (no value: no limit), or following is over.
    Event wait(int fd, std::optional<milliseconds> longest = std::nullopt);
    // Prints one line. False when it was the last.
    bool print(const Record &record, Plain form);
    bool over() const { return over_; }

private:
    Output &out_;
    Fd signals_;
    std::optional<int64_t> left_;
    std::optional<Clock::time_point> end_;
    bool over_ = false;
};

}  // namespace tool
