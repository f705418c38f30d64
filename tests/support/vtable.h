// SPDX-License-Identifier: MIT
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

namespace vxtest {

// Position of a virtual function in its class's table of virtual functions (Itanium C++ ABI, Arm variant included).
// Programs in the field are linked to these positions.
template <typename Class, typename Result, typename... Arguments>
size_t slotOf(Result (Class::*function)(Arguments...)) {
    uintptr_t word = 0;
    static_assert(sizeof function >= sizeof word);
    std::memcpy(&word, &function, sizeof word);
#if !defined(__arm__) && !defined(__aarch64__)
    word -= 1;  // the mark of a virtual function; Arm keeps it in the other word
#endif
    return word / sizeof(void *);
}

template <typename Class, typename Result, typename... Arguments>
size_t slotOf(Result (Class::*function)(Arguments...) const) {
    using Plain = Result (Class::*)(Arguments...);
    Plain plain;
    static_assert(sizeof plain == sizeof function);
    std::memcpy(&plain, &function, sizeof plain);
    return slotOf(plain);
}

// How many positions the table has, the two of the destructor included.
template <typename Class>
size_t slotsOf() {
    struct Derived : Class {
        virtual void behindAll() {}
    };
    return slotOf(&Derived::behindAll);
}

}  // namespace vxtest
