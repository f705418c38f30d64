/* SPDX-License-Identifier: MIT */
/* A daemon with a timer, on libevent. Ready: a byte to descriptor 3. */
#include <event2/event.h>
#include <unistd.h>

static void tick(evutil_socket_t fd, short what, void *data) { (void)fd, (void)what, (void)data; }

int main(void) {
    const struct timeval minute = {60, 0};
    struct event_base *const base = event_base_new();
    struct event *const timer = event_new(base, -1, EV_PERSIST, tick, NULL);
    if (event_add(timer, &minute) != 0 || write(3, ".", 1) != 1) return 1;
    return event_base_dispatch(base);
}
