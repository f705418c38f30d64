// SPDX-License-Identifier: MIT
// Memory that runs out where a test wants it to. To be included by one source file of a test program: it puts its own
// calloc() and operator new in front of the C and C++ libraries'. Under the address sanitizer, too, whose own ones end
// the program instead.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <new>

namespace vxtest {

// How many more C++ objects this thread can allocate once objectsRunOut is set.
inline thread_local bool objectsRunOut = false;
inline thread_local int objectsLeft = 0;

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

// A whole set of these, as the sanitizers want memory back the way it was given out; not inlined, as the compiler then
// takes malloc() and delete for a mismatch.
[[gnu::noinline]] void *operator new(size_t size, const std::nothrow_t &) noexcept {
    const bool refused = vxtest::objectsRunOut && vxtest::objectsLeft-- <= 0;
    return refused ? nullptr : std::malloc(size);
}

[[gnu::noinline]] void *operator new(size_t size) {
    void *const memory = ::operator new(size, std::nothrow);
    if (memory == nullptr) throw std::bad_alloc();
    return memory;
}

[[gnu::noinline]] void operator delete(void *memory) noexcept { std::free(memory); }

[[gnu::noinline]] void operator delete(void *memory, size_t) noexcept { std::free(memory); }
