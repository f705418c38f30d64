// SPDX-License-Identifier: MIT
// Running another program to its end.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "core/text.h"

namespace tool {

// A program's path as execvp() would find it; throws Failure with the status for what is not there or not executable.
std::string findProgram(const std::string &name);

// Runs a program found along PATH and returns its exit status, 128 + signal number when a signal ended it, or
// statusTimedOut after the time-out: the program and what it started in its process group get SIGTERM then, and SIGKILL
// 5 s later, also what outlives the program. Signals that would end this process go to the program.
int runProgram(const std::vector<std::string> &command, std::optional<milliseconds> timeout = std::nullopt);

}  // namespace tool
