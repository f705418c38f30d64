/* SPDX-License-Identifier: MIT */
/* Does what is hard on a library that is loaded into it. Its argument says what: "cancel", "signal", "longer", "exact", "words",
 * "leave", "close". */
#define _GNU_SOURCE
#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <stddef.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

static void look(void) {
    int fd = open("/tmp/status/rough", O_RDONLY);
    if (fd != -1) close(fd);
}

static void *look_always(void *unused) {
    for (;;) look();
    return unused;
}

/* Cancels threads wherever they are. */
static void cancel_threads(void) {
    int i;
    for (i = 0; i < 50; i++) {
        pthread_t thread;
        pthread_create(&thread, NULL, look_always, NULL);
        usleep(1000 + i * 37);
        pthread_cancel(thread);
        pthread_join(thread, NULL);
        look();
    }
}

static void on_signal(int signal) {
    (void)signal;
    access("/tmp/status/rough", F_OK);
}

/* Forks while a signal handler looks at files. */
static void fork_under_signals(void) {
    struct itimerval often = {{0, 300}, {0, 300}};
    int i;
    signal(SIGALRM, on_signal);
    setitimer(ITIMER_REAL, &often, NULL);
    for (i = 0; i < 300; i++) {
        pid_t child = fork();
        if (child == 0) _exit(0);
        while (waitpid(child, NULL, 0) == -1) continue;
    }
    memset(&often, 0, sizeof often);
    setitimer(ITIMER_REAL, &often, NULL);
}

static void name(struct sockaddr_un *address, const char *path) {
    memset(address, 0, sizeof *address);
    address->sun_family = AF_UNIX;
    strcpy(address->sun_path, path);
}

/* Receives an answer that is longer than the buffer, which ends where the memory does, and asks for its whole length. */
static void receive_longer_answer(void) {
    struct sockaddr_un server, own;
    char *pages = mmap(NULL, 131072, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    int fd = socket(AF_UNIX, SOCK_DGRAM, 0);
    name(&server, "/var/run/configd/daemon.sock");
    name(&own, "/var/run/configd/rough");
    mprotect(pages + 65536, 65536, PROT_NONE);
    unlink(own.sun_path);
    if (bind(fd, (struct sockaddr *)&own, sizeof own) == -1) exit(9);
    if (sendto(fd, "?long\n", 7, 0, (struct sockaddr *)&server, sizeof server) == -1) exit(9);
    printf("%ld bytes\n", (long)recv(fd, pages + 65536 - 4, 4, MSG_TRUNC));
    unlink(own.sun_path);
}

/* Connects to an address that ends where the memory does, without a zero byte. */
static void connect_to_exact_address(void) {
    const size_t length = offsetof(struct sockaddr_un, sun_path) + strlen("/var/run/wwanmd0/server");
    char *pages = mmap(NULL, 131072, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    struct sockaddr_un address;
    name(&address, "/var/run/wwanmd0/server");
    mprotect(pages + 65536, 65536, PROT_NONE);
    memcpy(pages + 65536 - length, &address, length);
    connect(socket(AF_UNIX, SOCK_STREAM, 0), (struct sockaddr *)(void *)(pages + 65536 - length), (socklen_t)length);
}

/* Runs a program with more words than one line of a recording has room for. */
static void run_many_words(void) {
    static char word[3500];
    char *words[62] = {"true"};
    pid_t child = fork();
    int i;
    memset(word, 1, sizeof word - 1);
    for (i = 1; i < 61; i++) words[i] = word;
    if (child == 0) {
        execvp("true", words);
        _exit(9);
    }
    waitpid(child, NULL, 0);
}

/* Leaves processes that go on looking until they are told to end, 30 seconds at most. */
static void leave_processes(void) {
    int i;
    for (i = 0; i < 40; i++) {
        if (fork() != 0) continue;
        alarm(30);
        close(0);
        close(1);
        close(2);
        while (access("/tmp/rough-ends", F_OK) == -1) look();
        _exit(0);
    }
    usleep(100000);
}

static void *read_byte(void *fd) {
    char byte = 0;
    if (read(*(int *)fd, &byte, 1) != 1) exit(9);
    printf("read %c\n", byte);
    return NULL;
}

/* Closes a FIFO that another thread reads. */
static void close_under_a_reader(void) {
    const char *path = "/tmp/status/rough-fifo";
    pthread_t thread;
    int fd, read_fd, writer;
    mkfifo(path, 0600);
    fd = open(path, O_RDWR);
    read_fd = fd;
    pthread_create(&thread, NULL, read_byte, &read_fd);
    usleep(200000);
    writer = open(path, O_WRONLY);
    close(fd);
    if (write(writer, "x", 1) != 1) exit(9);
    pthread_join(thread, NULL);
    unlink(path);
}

int main(int argc, char **argv) {
    const char *what = argc > 1 ? argv[1] : "";
    if (strcmp(what, "cancel") == 0) cancel_threads();
    if (strcmp(what, "signal") == 0) fork_under_signals();
    if (strcmp(what, "longer") == 0) receive_longer_answer();
    if (strcmp(what, "exact") == 0) connect_to_exact_address();
    if (strcmp(what, "words") == 0) run_many_words();
    if (strcmp(what, "leave") == 0) leave_processes();
    if (strcmp(what, "close") == 0) close_under_a_reader();
    puts("done");
    return 0;
}
