/* SPDX-License-Identifier: MIT */
/* Does a little of everything that a recording notes, with processes and threads of its own. --die: ends in the middle.
 * BUSY_CHILD: what its child writes. */
#include <errno.h>
#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

#pragma GCC diagnostic ignored "-Wformat" /* %m, which a recording resolves */

static void put(const char *path, const void *bytes, size_t size) {
    int fd = open(path, O_WRONLY | O_CREAT | O_TRUNC, 0644);
    if (write(fd, bytes, size) < 0) exit(9);
    close(fd);
}

static void *work(void *path) {
    put(path, "thread", 6);
    return NULL;
}

int main(int argc, char **argv) {
    char name[] = "/tmp/status/busy/value_XXXXXX", bytes[256], text[64] = "";
    pthread_t threads[2];
    int i, fd, status;
    mkdir("/tmp/status/busy", 0755);
    if (strcmp(argv[argc - 1], "--die") == 0) raise(SIGKILL);
    for (i = 0; i < 256; i++) bytes[i] = (char)i;
    put("/tmp/status/busy/binary", bytes, sizeof bytes);
    put("/tmp/status/busy/empty", "", 0);
    put("/tmp/status/busy/password", "verysecret", 10);
    put("/tmp/status/busy/note", "it is verysecret, you know", 26);
    pthread_create(&threads[0], NULL, work, "/tmp/status/busy/one");
    pthread_create(&threads[1], NULL, work, "/tmp/status/busy/two");
    for (i = 0; i < 2; i++) pthread_join(threads[i], NULL);
    const char *said = getenv("BUSY_CHILD") != NULL ? getenv("BUSY_CHILD") : "child";
    if (fork() == 0) {
        put("/tmp/status/busy/child", said, strlen(said));
        _exit(0);
    }
    wait(&status);
    fd = mkstemp(name);
    if (write(fd, "whole", 5) != 5) exit(9);
    close(fd);
    rename(name, "/tmp/status/busy/value");
    FILE *stream = fopen("/tmp/status/busy/stream", "w");
    fputs("streamed", stream);
    fclose(stream);
    stream = fopen("/tmp/status/busy/given", "r");
    if (stream == NULL || fgets(text, sizeof text, stream) == NULL) strcpy(text, "nothing");
    if (stream != NULL) fclose(stream);
    printf("%s\n", text);
    if (access("/tmp/status/busy/none", R_OK) == -1 && errno == ENOENT) puts("none");
    syslog(LOG_ERR, "busy %d with %s: %m", (int)getpid(), argv[argc - 1]);
    return system("exit 3") == 0 ? 1 : 4;
}
