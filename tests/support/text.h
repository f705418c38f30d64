// SPDX-License-Identifier: MIT
#pragma once

#include <string>

namespace vxtest {

// What printf would print, up to 511 characters: for messages that are to be expected.
std::string textf(const char *format, ...) __attribute__((format(printf, 1, 2)));

}  // namespace vxtest
