// SPDX-License-Identifier: MIT
// Pauses that signals do not shorten.
#pragma once

#include <cerrno>
#include <cstdint>
#include <ctime>

namespace vx {

// Sleeps for times up to some minutes, which int holds in seconds on every machine.
inline void sleepUs(int64_t us) noexcept {
    constexpr int64_t usPerSecond = 1000000;
    timespec rest{static_cast<int>(us / usPerSecond), static_cast<int>(us % usPerSecond * 1000)};
    while (::clock_nanosleep(CLOCK_MONOTONIC, 0, &rest, &rest) == EINTR) continue;
}

}  // namespace vx
