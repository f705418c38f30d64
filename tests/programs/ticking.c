/* SPDX-License-Identifier: MIT */
/* Writes a status value until it is told to end, and one more then. */
#include <fcntl.h>
#include <signal.h>
#include <string.h>
#include <unistd.h>
static volatile sig_atomic_t over;
static void end(int signal) { over = signal; }
static void put(const char *path, const char *text) {
    int fd = open(path, O_WRONLY | O_CREAT | O_TRUNC, 0644);
    if (write(fd, text, strlen(text)) < 0) over = 1;
    close(fd);
}
int main(void) {
    signal(SIGTERM, end);
    while (!over) {
        put("/tmp/status/ticking", "tick");
        usleep(20000);
    }
    put("/tmp/status/ended", "end");
    return 0;
}
