/* SPDX-License-Identifier: MIT */
/* A daemon with a timer, on libsystemd's event loop. Ready: a byte to descriptor 3. */
#include <systemd/sd-event.h>
#include <time.h>
#include <unistd.h>

static int tick(sd_event_source *timer, uint64_t when, void *data) {
    (void)data;
    return sd_event_source_set_time(timer, when + 60000000);
}

int main(void) {
    sd_event *loop = NULL;
    sd_event_source *timer = NULL;
    if (sd_event_default(&loop) < 0) return 1;
    if (sd_event_add_time_relative(loop, &timer, CLOCK_MONOTONIC, 60000000, 0, tick, NULL) < 0) return 1;
    if (sd_event_source_set_enabled(timer, SD_EVENT_ON) < 0 || write(3, ".", 1) != 1) return 1;
    return sd_event_loop(loop);
}
