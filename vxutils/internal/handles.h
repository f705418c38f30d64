// SPDX-License-Identifier: MIT
// Owners for what the C library returns.
#pragma once

#include <dirent.h>

#include <cstdio>
#include <cstdlib>
#include <memory>

#include "vxutils/internal/errno_keeper.h"

namespace vx {

// Calls the releasing function with errno kept, so that an early return shows the error that caused it.
template <auto function>
struct Release {
    template <typename T>
    void operator()(T *handle) const noexcept {
        const ErrnoKeeper keeper;
        (void)function(handle);
    }
};

using FilePtr = std::unique_ptr<FILE, Release<&std::fclose>>;
using PipePtr = std::unique_ptr<FILE, Release<&::pclose>>;
using DirPtr = std::unique_ptr<DIR, Release<&::closedir>>;

// Memory from malloc(), calloc(), strdup(), realloc().
template <typename T>
using MallocPtr = std::unique_ptr<T, Release<&std::free>>;
using MallocText = MallocPtr<char>;

}  // namespace vx
