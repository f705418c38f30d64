// SPDX-License-Identifier: MIT
// What the completions of the shells ask for.
#pragma once

#include <string>
#include <vector>

namespace tool {

// Prints what the last of the words after "vx" can be, one candidate a line, with a tab and what it means where that is
// known; or one line ":file" or ":program" for what the shell completes itself.
// Throws Failure where that cannot be printed.
int complete(const std::vector<std::string> &words);

}  // namespace tool
