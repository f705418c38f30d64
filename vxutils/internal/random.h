// SPDX-License-Identifier: MIT
// Bits that others cannot foresee.
#pragma once

#include <sys/random.h>

#include <cstdint>
#include <ctime>

namespace vx {

// Asks the kernel, without waiting. Early at boot, while the kernel has none, from the clock and the place of the
// stack. May change errno.
inline uint64_t randomBits() noexcept {
    uint64_t bits = 0;
    if (::getrandom(&bits, sizeof bits, GRND_NONBLOCK) == static_cast<ssize_t>(sizeof bits)) return bits;
    timespec now{};
    ::clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<uint64_t>(now.tv_nsec) * 0x9e3779b97f4a7c15u ^ reinterpret_cast<uintptr_t>(&now);
}

}  // namespace vx
