// SPDX-License-Identifier: MIT
// What the gateway and the library that it loads into the programs of a gateway with --clock (clock.cpp) share.
#ifndef VXGATEWAY_CLOCK_H
#define VXGATEWAY_CLOCK_H

#include <cstdint>

namespace vxgateway {

// Holds one ClockOffset, which programs map read-only.
constexpr const char *clockFile = "/run/vxgateway-clock";

// How far the clock of the programs is ahead of the machine's, in nanoseconds. Read and written atomically.
struct ClockOffset {
    int64_t ns;
};

constexpr int64_t secondInNs = 1000000000;

}  // namespace vxgateway

#endif
