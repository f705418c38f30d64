// SPDX-License-Identifier: MIT
// The system calls of the event loop as they leave the library, for answers that no kernel gives on demand. Include in
// one source of a test program: the calls below then pass through it. Without a hook they go to the kernel.
#pragma once

#include <sys/epoll.h>
#include <sys/timerfd.h>

#include <cerrno>
#include <functional>
#include <optional>

#include "support/call_hooks.h"
#include "support/error_level.h"
#include "support/loop.h"

namespace vxtest {

// What the kernel will not do on demand.
struct LoopCalls {
    std::function<std::optional<int>(epoll_event *, int)> wait;  // result with errno set, or nothing: the real call
    std::function<bool(int operation, int fd)> refuseControl;    // refused with EPERM
    bool refuseSetTime = false;
    int controlCalls = 0;
    int setTimeCalls = 0;
};
inline LoopCalls kernel;

// A loop whose calls are not hooked before and after a test.
class LoopCallsTest : public LoopTest {
protected:
    LoopCallsTest() { kernel = {}; }
    ~LoopCallsTest() override { kernel = {}; }
};

}  // namespace vxtest

extern "C" int epoll_wait(int epfd, epoll_event *events, int max, int timeout) {
    if (vxtest::kernel.wait) {
        if (const auto result = vxtest::kernel.wait(events, max)) return *result;
    }
    static const auto next = vxtest::nextCall<int (*)(int, epoll_event *, int, int)>("epoll_wait");
    return next(epfd, events, max, timeout);
}

extern "C" int epoll_ctl(int epfd, int operation, int fd, epoll_event *event) noexcept {
    ++vxtest::kernel.controlCalls;
    if (vxtest::kernel.refuseControl && vxtest::kernel.refuseControl(operation, fd)) {
        errno = EPERM;
        return -1;
    }
    static const auto next = vxtest::nextCall<int (*)(int, int, int, epoll_event *)>("epoll_ctl");
    return next(epfd, operation, fd, event);
}

extern "C" int timerfd_settime(int fd, int flags, const itimerspec *setting, itimerspec *old) noexcept {
    ++vxtest::kernel.setTimeCalls;
    if (vxtest::kernel.refuseSetTime) {
        errno = EPERM;
        return -1;
    }
    constexpr const char *name = sizeof(long) == 4 ? "__timerfd_settime64" : "timerfd_settime";
    static const auto next = vxtest::nextCall<int (*)(int, int, const itimerspec *, itimerspec *)>(name);
    return next(fd, flags, setting, old);
}
