// SPDX-License-Identifier: MIT
// Texts from the library's own formatter.
#pragma once

#include <gtest/gtest.h>
#include <vxutils/xprintf.h>

#include <string>
#include <vector>

namespace vxtest {

// What a buffer holds where nothing was written.
constexpr char untouched = '\x5a';

// The formats of tests are not always literals, and wrong ones are tested.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
#pragma GCC diagnostic ignored "-Wformat-security"

// The whole text, through a buffer that is large enough.
template <typename... Args>
std::string whole(const char *fmt, Args... args) {
    std::vector<char> buffer(8192, untouched);
    const int stored = snxprintf(buffer.data(), 0, buffer.size(), fmt, args...);
    const std::string text(buffer.data());
    EXPECT_EQ(static_cast<size_t>(stored), text.size());
    EXPECT_EQ(buffer[text.size() + 1], untouched) << "written after the terminator";
    EXPECT_EQ(static_cast<size_t>(strlenf(fmt, args...)), text.size()) << fmt;
    return text;
}

#pragma GCC diagnostic pop

}  // namespace vxtest
