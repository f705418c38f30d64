// SPDX-License-Identifier: MIT
// Records of the C side that get no memory where a test wants it. To be included by one source file of a test program:
// it puts its own calloc() in front of the C library's. Under the address sanitizer, too, whose own one ends the program
// instead.
#pragma once

#ifdef __SANITIZE_THREAD__
#error "a new thread calls calloc() before the thread sanitizer is ready for it"
#endif

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>

namespace vxtest {

// How many more records of this size calloc() gives; size 0: no limit for any size.
inline size_t scarceRecord = 0;
inline int recordsLeft = 0;

// Not a plain call: compilers turn malloc() and memset() into calloc(), which is this function itself.
inline void *(*volatile plainMemory)(size_t) = std::malloc;

}  // namespace vxtest

extern "C" void *calloc(size_t count, size_t size) noexcept {
    if (size != 0 && count > SIZE_MAX / size) return nullptr;
    if (vxtest::scarceRecord != 0 && count * size == vxtest::scarceRecord && vxtest::recordsLeft-- <= 0) return nullptr;
    void *const memory = vxtest::plainMemory(count * size);
    return memory != nullptr ? std::memset(memory, 0, count * size) : nullptr;
}
