// SPDX-License-Identifier: MIT
// For libraries that are loaded before a program (LD_PRELOAD): how they stand before functions of the C library.
#ifndef VXGATEWAY_PRELOAD_H
#define VXGATEWAY_PRELOAD_H

#include <dlfcn.h>

// Threads and signal handlers may look a function up at the same time: all find the same. A static variable with an
// initial value would not do, because without the C++ run-time its guard is set before the variable.
template <typename Function>
Function lookUp(Function &found, const char *name) {
    Function function = __atomic_load_n(&found, __ATOMIC_RELAXED);
    if (function == nullptr) {
        function = reinterpret_cast<Function>(::dlsym(RTLD_NEXT, name));
        __atomic_store_n(&found, function, __ATOMIC_RELAXED);
    }
    return function;
}
template <typename Type>
using Itself = Type;

// The function that a wrapper stands before, as `real`.
#define REAL(name, type)                       \
    static Itself<type> foundBefore = nullptr; \
    const auto real = lookUp(foundBefore, name)

// Gives a wrapper the name that programs call. Headers may give that name to other types: on 32-bit machines there are
// several of each.
#define NAMED(name) __asm__(name) __attribute__((visibility("default")))

#endif
