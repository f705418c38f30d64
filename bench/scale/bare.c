/* SPDX-License-Identifier: MIT */
/* A daemon with a timer, by the system calls alone. Ready: a byte to descriptor 3. */
#include <stdint.h>
#include <sys/epoll.h>
#include <sys/timerfd.h>
#include <unistd.h>

int main(void) {
    const struct itimerspec minute = {{60, 0}, {60, 0}};
    const int loop = epoll_create1(EPOLL_CLOEXEC);
    const int timer = timerfd_create(CLOCK_MONOTONIC, TFD_NONBLOCK | TFD_CLOEXEC);
    struct epoll_event event = {EPOLLIN, {.fd = timer}};
    if (timerfd_settime(timer, 0, &minute, NULL) != 0 || epoll_ctl(loop, EPOLL_CTL_ADD, timer, &event) != 0) return 1;
    if (write(3, ".", 1) != 1) return 1;
    for (;;) {
        uint64_t expirations;
        if (epoll_wait(loop, &event, 1, -1) == 1 && read(timer, &expirations, sizeof expirations) == -1) return 1;
    }
}
