// SPDX-License-Identifier: MIT
// System calls that signals interrupt.
#pragma once

#include <sys/time.h>

#include <csignal>

namespace vxtest {

// Interrupts system calls of this process again and again, without restarting them.
class Interruptions {
public:
    explicit Interruptions(suseconds_t period_us = 50000) {
        count = 0;
        struct sigaction action {};
        action.sa_handler = [](int) { count = count + 1; };
        ::sigaction(SIGALRM, &action, nullptr);
        const itimerval often{{0, period_us}, {0, period_us}};
        ::setitimer(ITIMER_REAL, &often, nullptr);
    }
    ~Interruptions() {
        const itimerval never{};
        ::setitimer(ITIMER_REAL, &never, nullptr);
        std::signal(SIGALRM, SIG_DFL);
    }
    Interruptions(const Interruptions &) = delete;
    Interruptions &operator=(const Interruptions &) = delete;

    static inline volatile std::sig_atomic_t count = 0;
};

}  // namespace vxtest
