// SPDX-License-Identifier: MIT
// clock_gettime() on its way from the library, and from the C++ library under it, to the C library: see call_hooks.h.
#pragma once

#include <ctime>
#include <functional>
#include <optional>

#include "support/call_hooks.h"

VXTEST_HOOK_AS(int, clock_gettime, "__clock_gettime64", (clockid_t clock, timespec *now), (clock, now))

#if __SIZEOF_LONG__ == 4
namespace vxtest {

// The C++ library of such machines is older than times of 64 bits: its clocks call the function of the old name.
struct ShortTimespec {
    long tv_sec, tv_nsec;
};

extern "C" int shortClockGettime(clockid_t clock, ShortTimespec *now) noexcept __asm__("clock_gettime");

int shortClockGettime(clockid_t clock, ShortTimespec *now) noexcept {
    timespec whole{};
    const int result = ::clock_gettime(clock, &whole);
    *now = {static_cast<long>(whole.tv_sec), whole.tv_nsec};
    return result;
}

}  // namespace vxtest
#endif
