// SPDX-License-Identifier: MIT
// Owner of one file descriptor.
#pragma once

#include <unistd.h>

#include <utility>

#include "vxutils/internal/errno_keeper.h"

namespace vx {

class [[nodiscard]] Fd {
public:
    Fd() noexcept = default;
    explicit Fd(int fd) noexcept : fd_(fd) {}
    Fd(Fd &&other) noexcept : fd_(other.release()) {}
    Fd &operator=(Fd &&other) noexcept {
        reset(other.release());
        return *this;
    }
    Fd(const Fd &) = delete;
    Fd &operator=(const Fd &) = delete;
    ~Fd() { reset(); }

    [[nodiscard]] int get() const noexcept { return fd_; }
    [[nodiscard]] bool valid() const noexcept { return fd_ >= 0; }
    [[nodiscard]] int release() noexcept { return std::exchange(fd_, -1); }

    // Closes what is owned, errno kept.  close() is never repeated on EINTR: the kernel has freed the number by then.
    void reset(int fd = -1) noexcept {
        if (fd_ >= 0) {
            const ErrnoKeeper keeper;
            ::close(fd_);
        }
        fd_ = fd;
    }

    // Closes and reports what close() said; for files whose last write error only shows there.
    [[nodiscard]] int close() noexcept { return ::close(release()); }

    bool operator!() const = delete;  // a descriptor is not a truth value: ask valid()

private:
    int fd_ = -1;
};

}  // namespace vx
