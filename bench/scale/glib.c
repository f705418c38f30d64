/* SPDX-License-Identifier: MIT */
/* A daemon with a timer, on GLib. Ready: a byte to descriptor 3. */
#include <glib.h>
#include <unistd.h>

static gboolean tick(gpointer data) {
    (void)data;
    return G_SOURCE_CONTINUE;
}

int main(void) {
    GMainLoop *const loop = g_main_loop_new(NULL, FALSE);
    g_timeout_add_seconds(60, tick, NULL);
    if (write(3, ".", 1) != 1) return 1;
    g_main_loop_run(loop);
    return 0;
}
