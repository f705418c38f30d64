// SPDX-License-Identifier: MIT
#pragma once

#include <cerrno>
#include <new>

namespace vx {

// Runs a function that may run out of memory for a C interface: -1 with ENOMEM then.
template <typename Function>
int memoryGuarded(Function function) noexcept {
    try {
        return function();
    } catch (const std::bad_alloc &) {
        errno = ENOMEM;
        return -1;
    }
}

}  // namespace vx
