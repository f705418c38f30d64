// SPDX-License-Identifier: MIT
// Numbers in the texts of the system's files.
#pragma once

#include <algorithm>
#include <cstdlib>
#include <limits>

namespace vx {

// Returns the number itself, or the nearest one that an int can be. The C library's readers of int give that where long
// has 32 bits; where it is wider they cut bits off.
constexpr int nearestInt(long long number) {
    constexpr long long least = std::numeric_limits<int>::min();
    constexpr long long most = std::numeric_limits<int>::max();
    return static_cast<int>(std::clamp(number, least, most));
}

// As atoi(), but defined for every text: what does not fit is the nearest number that does, on every machine.
inline int toInt(const char *text) { return nearestInt(std::strtol(text, nullptr, 10)); }

}  // namespace vx
