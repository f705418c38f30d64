/* SPDX-License-Identifier: MIT */
/*
 * led_daemon: a small daemon that lives on the configuration daemon's values. It reads its list of keys, applies what
 * changed, and writes what it learned itself; when the configuration daemon is silent, talks nonsense or restarts, it
 * goes on with what it has. A line on standard input is its clock: each one is a round. Ends with its input.
 */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <vxutils/configd.h>
#include <vxutils/strutil.h>

#define LEDS 3

static char colors[LEDS][CONFIGD_VALUE_LEN];

/* Reads all keys anew; the first one read tells whether the daemon answered. */
static int read_config(configd_handle *config) {
    int i;
    configd_clear(config);
    configd_add_query(config, "led.count");
    for (i = 0; i < LEDS; i++) configd_add_query(config, "led.%d.color", i);
    if (*configd_fetch(config, "led.count") == '\0') return -1;
    return atoi(configd_fetch(config, "led.count"));
}

static void apply(configd_handle *config, int count) {
    int i;
    for (i = 0; i < count && i < LEDS; i++) {
        const char *color = configd_fetch(config, "led.%d.color", i);
        if (strcmp(color, colors[i]) != 0) printf("led %d: %s -> %s\n", i, colors[i], color);
        strlcpy(colors[i], color, sizeof colors[i]);
    }
}

/* Tells the configuration how often it was read; what cannot be written now is written in the next round. */
static void report(configd_handle *config, int round) {
    configd_entry change[2];
    int result;
    memset(change, 0, sizeof change);
    strlcpy(change[0].key, "led.rounds", sizeof change[0].key);
    snprintf(change[0].value, sizeof change[0].value, "%d", round);
    result = configd_set(config, change);
    if (result == 0) {
        printf("round %d: written\n", round);
        result = configd_done(config);
    }
    printf("round %d: %s\n", round,
           result == 0   ? "committed"
           : result == 1 ? "busy, next time"
                         : "could not be written");
}

int main(void) {
    char line[64];
    int round;
    configd_handle *config = configd_open();
    if (config == NULL) return 1;
    setvbuf(stdout, NULL, _IOLBF, 0);
    printf("led_daemon: ready\n");
    for (round = 1; fgets(line, sizeof line, stdin) != NULL; round++) {
        const int count = read_config(config);
        if (count < 0) {
            printf("round %d: no configuration, keeping what is there\n", round);
            continue;
        }
        apply(config, count);
        report(config, round);
    }
    configd_close(config);
    return 0;
}
