// SPDX-License-Identifier: MIT
// A log line for the time between fork and exec.
#pragma once

namespace vx {

// The C library's log call takes locks, which another thread may have held at the time of the fork. This line is
// therefore formatted before the fork, as that call would format it (facility "user", the program's name), and sent by
// plain system calls. A priority that setlogmask() leaves out is not sent; of a very long line the end is missing.
class PreparedLog {
public:
    PreparedLog(int priority, const char *text) noexcept;

    void send() const noexcept;  // async-signal-safe

private:
    char line_[256] = "";  // empty: nothing is sent
};

}  // namespace vx
