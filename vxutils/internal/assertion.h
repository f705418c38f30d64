// SPDX-License-Identifier: MIT
// Assertions on programming errors: present in every build type, and naming the source by its installed name.
#pragma once

#include <cassert>  // declares __assert_fail unless NDEBUG is set

extern "C" __attribute__((noreturn)) void __assert_fail(const char *expression, const char *file, unsigned int line,
                                                        const char *function) noexcept;

namespace vx {

// Hands a failed assertion to the C library's handler, which reports it and aborts.
[[noreturn]] inline void assertionFailed(const char *expression, const char *source, unsigned int line,
                                         const char *function) noexcept {
    __assert_fail(expression, source, line, function);
}

}  // namespace vx

// Checks a condition whose failure is a caller's programming error. `text` is the expression as it is reported,
// `source` the source name as it is reported. A macro because only a macro sees the caller's line and function.
#define VX_ASSERT(condition, text, source) \
    ((condition) ? static_cast<void>(0) : ::vx::assertionFailed(text, source, __LINE__, __func__))
