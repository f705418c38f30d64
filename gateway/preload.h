// SPDX-License-Identifier: MIT
// For libraries that are loaded before a program (LD_PRELOAD): how they stand before functions of the C library.
#ifndef VXGATEWAY_PRELOAD_H
#define VXGATEWAY_PRELOAD_H

#include <dlfcn.h>

// The function that a wrapper stands before, as `real`.
#define REAL(name, type) static const auto real = reinterpret_cast<type>(::dlsym(RTLD_NEXT, name))

// Gives a wrapper the name that programs call. Headers may give that name to other types: on 32-bit machines there are
// several of each.
#define NAMED(name) __asm__(name) __attribute__((visibility("default")))

#endif
