// SPDX-License-Identifier: MIT
// Content of the rebranding file.
#pragma once

#include <cstdio>
#include <string_view>

namespace vx {

inline constexpr size_t oemLineSize = 1024;  // characters of a line, and of a value with its NUL

// Puts the value of the first line "KEY=VALUE" into `value` (oemLineSize bytes), which may hold the key. If no line
// has the key, returns false and leaves `value` unchanged.
bool findOemValue(FILE *file, std::string_view key, char *value);

}  // namespace vx
