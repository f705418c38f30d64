// SPDX-License-Identifier: MIT
// Numbers in the texts of the system's files.
#pragma once

#include <algorithm>
#include <cstdlib>
#include <limits>

namespace vx {

// As atoi(), but defined for every text: what does not fit is the nearest number that does, on every machine.
inline int toInt(const char *text) {
    constexpr long least = std::numeric_limits<int>::min();
    constexpr long most = std::numeric_limits<int>::max();
    return static_cast<int>(std::clamp(std::strtol(text, nullptr, 10), least, most));
}

}  // namespace vx
