// SPDX-License-Identifier: MIT
// How a command ends when it cannot do what was asked.
#pragma once

#include <cerrno>
#include <cstring>
#include <string>
#include <string_view>

namespace tool {

// Exit statuses. Commands that run another program pass its status through and report their own trouble as timeout(1)
// does.
enum Status : int {
    statusDone = 0,
    statusFailed = 1,
    statusUsage = 2,
    statusTimedOut = 124,
    statusCannotRun = 125,
    statusNotExecutable = 126,
    statusNotFound = 127,
};

// The operation failed or the thing is not there: one line on standard error, nothing on standard output.
struct Failure {
    Failure(std::string_view on, std::string_view why, int exitStatus = statusFailed)
        : text(on.empty() ? std::string(why) : std::string(on) + ": " + std::string(why)), status(exitStatus) {}

    std::string text;
    int status;
};

// What the user named, for a message about it.
inline std::string named(std::string_view name) { return name.empty() ? "''" : std::string(name); }

// A system call on `on` failed; errno says why.
inline Failure systemFailure(std::string_view on, int error = errno) { return {named(on), std::strerror(error)}; }

// The command line cannot be understood: the reason and the usage line go to standard error.
struct Usage {
    std::string text;
};

}  // namespace tool
