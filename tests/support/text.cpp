// SPDX-License-Identifier: MIT
#include "support/text.h"

#include <array>
#include <cstdarg>
#include <cstdio>

namespace vxtest {

std::string textf(const char *format, ...) {
    std::array<char, 512> text{};
    va_list args;
    va_start(args, format);
    std::vsnprintf(text.data(), text.size(), format, args);
    va_end(args);
    return text.data();
}

}  // namespace vxtest
