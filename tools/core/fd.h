// SPDX-License-Identifier: MIT
// Owner of one descriptor.
#pragma once

#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <utility>

namespace tool {

class Fd {
public:
    Fd() = default;
    explicit Fd(int fd) : fd_(fd) {}
    ~Fd() { reset(); }
    Fd(Fd &&other) noexcept : fd_(other.release()) {}
    Fd &operator=(Fd &&other) noexcept {
        reset(other.release());
        return *this;
    }
    Fd(const Fd &) = delete;
    Fd &operator=(const Fd &) = delete;

    int get() const { return fd_; }
    bool valid() const { return fd_ >= 0; }
    int release() { return std::exchange(fd_, -1); }
    void reset(int fd = -1) {
        if (fd_ >= 0) ::close(fd_);
        fd_ = fd;
    }

private:
    int fd_ = -1;
};

// After a read() or write() that failed: whether it is to be repeated. Another process that has the same terminal or pipe
// open may have made it non-blocking; this waits until it is ready then.
inline bool canGoOn(int fd, short event) {
    if (errno == EINTR) return true;
    if (errno != EAGAIN) return false;
    pollfd waiting{fd, event, 0};
    return ::poll(&waiting, 1, -1) >= 0 || errno == EINTR;
}

}  // namespace tool
