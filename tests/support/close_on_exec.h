// SPDX-License-Identifier: MIT
// Descriptors that a program started by exec() must not inherit. To be included by one source of a test program: close()
// passes through it, because whatever call has opened a descriptor, that is where the library gives it back.
#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <optional>
#include <string>
#include <vector>

#include "support/call_hooks.h"

VXTEST_THREAD_HOOK(int, close, (int fd), (fd))

namespace vxtest {

// Expects that this thread closes descriptors while this lives, and that all of them are close-on-exec.
class ClosesOnExec {
public:
    ClosesOnExec()
        : hook_(hooks::close, [this](int fd) -> std::optional<int> {
              look(fd);
              return std::nullopt;
          }) {}
    ~ClosesOnExec() {
        EXPECT_GT(closed_, 0);
        EXPECT_EQ(inherited_, std::vector<std::string>{});
    }
    ClosesOnExec(const ClosesOnExec &) = delete;
    ClosesOnExec &operator=(const ClosesOnExec &) = delete;

private:
    void look(int fd) {
        const int flags = ::fcntl(fd, F_GETFD);
        if (flags == -1) return;
        ++closed_;
        if ((flags & FD_CLOEXEC) != 0) return;
        char target[4096];
        const ssize_t length = ::readlink(("/proc/self/fd/" + std::to_string(fd)).c_str(), target, sizeof target);
        inherited_.emplace_back(target, length > 0 ? static_cast<size_t>(length) : 0);
    }

    int closed_ = 0;
    std::vector<std::string> inherited_;
    Hooked<const std::function<std::optional<int>(int)> *> hook_;
};

}  // namespace vxtest
