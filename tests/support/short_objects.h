// SPDX-License-Identifier: MIT
// Memory for C++ objects that runs out where a test wants it to. To be included by one source file of a test program: it
// puts its own operator new in front of the C++ library's. Under the address sanitizer, too, whose own one ends the
// program instead.
#pragma once

#include <cstddef>
#include <cstdlib>
#include <new>

namespace vxtest {

// How many more C++ objects this thread can allocate once objectsRunOut is set.
inline thread_local bool objectsRunOut = false;
inline thread_local int objectsLeft = 0;

}  // namespace vxtest

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
