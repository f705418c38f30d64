// SPDX-License-Identifier: MIT
// A log line for the time between fork and exec.
#pragma once

#include <cstddef>

namespace vx {

// The C library's logger takes locks that another thread may have held when the process was forked. This line is
// formatted before the fork, in the form the C library gives it (facility "user", the program's name), and sent by
// plain system calls.
class PreparedLog {
public:
    PreparedLog(int priority, const char *text) noexcept;

    void send() const noexcept;  // async-signal-safe

private:
    char line_[256];
    size_t length_;
};

}  // namespace vx
