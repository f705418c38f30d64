/* SPDX-License-Identifier: MIT */
/* Loaded before a program (LD_PRELOAD): from its allocation NO_MEMORY_FROM on, counted from 1 at the beginning of main(),
 * there is no memory, or for that one allocation alone where NO_MEMORY_ONCE is set. The file NO_MEMORY_MARK is made then.
 * It is not loaded before the programs that this one starts. */
#include <errno.h>
#include <fcntl.h>
#include <stdbool.h>
#include <stdlib.h>
#include <unistd.h>

#include <dlfcn.h>

typedef int Main(int, char **, char **);
typedef int Start(Main *, int, char **, void (*)(void), void (*)(void), void (*)(void), void *);

extern void *__libc_malloc(size_t);
extern void *__libc_calloc(size_t, size_t);
extern void *__libc_realloc(void *, size_t);

static Main *program;
static unsigned long from; /* 0: memory never runs out */
static unsigned long allocations;
static bool once;
static const char *mark;

static bool isLeft(void) {
    if (from == 0 || ++allocations < from || (once && allocations > from)) return true;
    if (allocations == from) close(open(mark, O_WRONLY | O_CREAT | O_CLOEXEC, 0644));
    errno = ENOMEM;
    return false;
}

void *malloc(size_t size) { return isLeft() ? __libc_malloc(size) : NULL; }
void *calloc(size_t count, size_t size) { return isLeft() ? __libc_calloc(count, size) : NULL; }
void *realloc(void *memory, size_t size) { return isLeft() ? __libc_realloc(memory, size) : NULL; }

static int countingMain(int count, char **words, char **environment) {
    mark = getenv("NO_MEMORY_MARK");
    once = getenv("NO_MEMORY_ONCE") != NULL;
    const char *const number = getenv("NO_MEMORY_FROM");
    unsetenv("LD_PRELOAD");
    if (number != NULL) from = strtoul(number, NULL, 10);
    return program(count, words, environment);
}

int __libc_start_main(Main *main, int count, char **words, void (*init)(void), void (*fini)(void), void (*end)(void),
                      void *stack) {
    Start *start = NULL;
    *(void **)&start = dlsym(RTLD_NEXT, "__libc_start_main");
    program = main;
    return start(countingMain, count, words, init, fini, end, stack);
}
