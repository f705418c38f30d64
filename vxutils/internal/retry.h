// SPDX-License-Identifier: MIT
// Repeats a system call that a signal interrupted.
#pragma once

#include <cerrno>

namespace vx {

// Calls until the result is not -1 with EINTR.  Never for close(): its descriptor is gone after the first call.
template <typename Call>
auto retryEintr(Call call) noexcept(noexcept(call())) {
    for (;;) {
        const auto result = call();
        if (result != -1 || errno != EINTR) return result;
    }
}

}  // namespace vx
