// SPDX-License-Identifier: MIT
// Which USB port a disk is plugged into.
#pragma once

#include <cstddef>
#include <string_view>

namespace vx {

inline constexpr size_t usbNameSize = 64;  // of a port's "usbName" text, with its NUL

// Tells whether the path of a device leads through one of the names: the lines of a port's "usbName", which have ':'
// where the path has '.'.
bool leadsThroughPort(std::string_view path, std::string_view names);

}  // namespace vx
