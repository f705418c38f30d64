/* SPDX-License-Identifier: MIT */
/* alarmd: output 1 and the status value alarmd/alarm follow input 1, until SIGTERM. */
#include <signal.h>
#include <stdio.h>
#include <sys/stat.h>
#include <time.h>
#include <vxutils/dio.h>

static volatile sig_atomic_t stopped = 0;

static void stop(int signal) {
    (void)signal;
    stopped = 1;
}

static void publish(int on) {
    FILE *file = fopen("/tmp/status/alarmd/alarm", "w");
    if (file == NULL) return;
    fputs(on ? "on" : "off", file);
    fclose(file);
}

int main(void) {
    const struct timespec pause = {0, 10 * 1000 * 1000};
    int shown = -1;
    signal(SIGTERM, stop);
    signal(SIGHUP, SIG_IGN); /* reload: it has no configuration */
    mkdir("/tmp/status/alarmd", 0755);
    while (!stopped) {
        unsigned char on = 0;
        if (dio_roValue(1, &on) == DIO_OK && on != shown && dio_setValue(1, on) == DIO_OK) {
            publish(on);
            shown = on;
        }
        nanosleep(&pause, NULL);
    }
    return 0;
}
