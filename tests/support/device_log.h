// SPDX-License-Identifier: MIT
// Writing to the device log where many write at once.
#pragma once

#include <vxutils/qxlog.h>

#include <chrono>
#include <string>

namespace vxtest {

// On a machine that is too busy, a writer may get no turn for the 0.8 s that it waits. A call that fails earlier is wrong.
inline bool appendsInTurn(int number, const std::string &text) {
    for (;;) {
        const auto start = std::chrono::steady_clock::now();
        if (qxlog(number, text.c_str()) == 0) return true;
        if (std::chrono::steady_clock::now() - start < std::chrono::milliseconds(750)) return false;
    }
}

}  // namespace vxtest
