// SPDX-License-Identifier: MIT
// What vxgateway and the library that it loads into a program (tap.cpp) tell each other, over a socket of sequenced
// packets. The tap sends lines of a recording, with the monotonic clock as the time. In a replay each gets an answer.
#ifndef VXGATEWAY_TAP_H
#define VXGATEWAY_TAP_H

#include <cstddef>
#include <cstdint>

namespace vxgateway {

constexpr const char *tapVariable = "VXGATEWAY_TAP";  // "record PATH" or "replay PATH", the socket

// More bytes of one exchange are cut off.
constexpr size_t longestRecorded = 32768;
constexpr size_t longestTapLine = 4 * longestRecorded + 16384;

constexpr int32_t notRecorded = -1;

struct TapAnswer {
    int32_t error;     // 0, an errno value, or notRecorded: the program gets what the gateway has
    int32_t delay_us;  // of an echo's reply; -1 when none came
    uint32_t looks;    // for an echo's reply, before the one that finds it
    uint32_t length;   // of the bytes that follow
};

}  // namespace vxgateway

#endif
