// SPDX-License-Identifier: MIT
#include "vxutils/internal/late_library.h"

#include <dlfcn.h>

#include "vxutils/internal/log.h"

namespace vx {

#ifdef VXUTILS_STATIC

LateLibrary::LateLibrary(const char *const *sonames, size_t) : wanted_(sonames[0]) {}

#else

// What the process has is pinned, so that no plug-in's end takes it away.
LateLibrary::LateLibrary(const char *const *sonames, size_t count) : wanted_(sonames[0]) {
    for (size_t i = 0; i < count && handle_ == nullptr; ++i) handle_ = ::dlopen(sonames[i], RTLD_NOW | RTLD_NOLOAD);
}

// Looks into the default scope first: what a program puts before the library's own functions is used, as if it had been
// linked.
void *LateLibrary::address(const char *name) {
    if (void *const found = ::dlsym(RTLD_DEFAULT, name)) return found;
    if (handle_ == nullptr && !loadTried_) handle_ = ::dlopen(wanted_, RTLD_NOW);
    loadTried_ = true;
    return handle_ == nullptr ? nullptr : ::dlsym(handle_, name);
}

#endif

void LateLibrary::logFailure() const { log(LOG_ERR, "unable to load %s", wanted_); }

}  // namespace vx
