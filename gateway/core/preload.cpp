// SPDX-License-Identifier: MIT
#include "gateway/core/preload.h"

#include <cstdlib>

namespace vxgateway {

void preload(const std::string &path) {
    const char *const others = std::getenv("LD_PRELOAD");
    ::setenv("LD_PRELOAD", (others == nullptr ? path : path + ":" + others).c_str(), 1);
    // The address sanitizer refuses to run unless it comes first, for the sake of libraries that bring an allocator.
    const char *const options = std::getenv("ASAN_OPTIONS");
    const std::string before = options == nullptr ? "" : std::string(options) + ":";
    ::setenv("ASAN_OPTIONS", (before + "verify_asan_link_order=0").c_str(), 1);
}

}  // namespace vxgateway
