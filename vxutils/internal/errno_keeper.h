// SPDX-License-Identifier: MIT
// Keeps errno as it was across cleanup and logging.
#pragma once

#include <cerrno>

namespace vx {

class ErrnoKeeper {
public:
    ErrnoKeeper() noexcept : saved_(errno) {}
    ~ErrnoKeeper() { errno = saved_; }
    ErrnoKeeper(const ErrnoKeeper &) = delete;
    ErrnoKeeper &operator=(const ErrnoKeeper &) = delete;

private:
    int saved_;
};

}  // namespace vx
