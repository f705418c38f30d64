// SPDX-License-Identifier: MIT
// The library's fallible calls on their way to the C library; the socket calls are in support/intercept.h. A test
// (torture/complete.py) compares this list with the library's undefined symbols, so that no new call is forgotten.
#include <dirent.h>
#include <dlfcn.h>
#include <event2/bufferevent.h>
#include <event2/event.h>
#include <fcntl.h>
#include <ifaddrs.h>
#include <netdb.h>
#include <poll.h>
#include <pthread.h>
#include <sys/epoll.h>
#include <sys/file.h>
#include <sys/ipc.h>
#include <sys/mman.h>
#include <sys/random.h>
#include <sys/reboot.h>
#include <sys/sem.h>
#include <sys/sendfile.h>
#include <sys/shm.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <sys/sysinfo.h>
#include <sys/time.h>
#include <sys/timerfd.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>
#include <zmq.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <new>

#include "support/intercept.h"
#include "torture/faults.h"

extern "C" {
#include <event2/bufferevent_compat.h>
}

namespace {

using torture::Disarmed;
using torture::passTime;
using torture::patience;
using torture::shortTransfer;
using vxtest::fault;

// The C library's own function, or the sanitizer's in front of it.
void *next(void *&cache, const char *name) {
    if (cache == nullptr) {
        const Disarmed quiet;
        cache = ::dlsym(RTLD_NEXT, name);
    }
    return cache;
}

#define VX_NEXT(name)             \
    static void *cache = nullptr; \
    const auto real = reinterpret_cast<decltype(&::name)>(next(cache, #name))

// A function that returns `failure` with one of the listed errors.
#define VX_CALL(result, name, parameters, arguments, failure, ...) \
    extern "C" result name parameters {                            \
        if (const int error = fault(#name, {__VA_ARGS__})) {       \
            errno = error;                                         \
            return failure;                                        \
        }                                                          \
        VX_NEXT(name);                                             \
        return real arguments;                                     \
    }

#define VX_CALL_NOEXCEPT(result, name, parameters, arguments, failure, ...) \
    extern "C" result name parameters noexcept {                            \
        if (const int error = fault(#name, {__VA_ARGS__})) {                \
            errno = error;                                                  \
            return failure;                                                 \
        }                                                                   \
        VX_NEXT(name);                                                      \
        return real arguments;                                              \
    }

// Does its work and reports a failure all the same, as close() does.
#define VX_DONE_BUT(result, name, parameters, arguments, failure, ...) \
    extern "C" result name parameters {                                \
        VX_NEXT(name);                                                 \
        const int error = fault(#name, {__VA_ARGS__});                 \
        const auto value = real arguments;                             \
        if (error == 0) return value;                                  \
        errno = error;                                                 \
        return failure;                                                \
    }

// Work of other libraries, which are not under test: they are not disturbed inside.
#define VX_QUIET(result, name, parameters, arguments, failure, ...) \
    extern "C" result name parameters {                             \
        if (const int error = fault(#name, {__VA_ARGS__})) {        \
            errno = error;                                          \
            return failure;                                         \
        }                                                           \
        const Disarmed quiet;                                       \
        VX_NEXT(name);                                              \
        return real arguments;                                      \
    }

// Whether the kernel may move a part of the bytes only.
bool canBeShort(int fd) {
    struct stat status {};
    if (::fstat(fd, &status) == -1) return false;
    if (S_ISREG(status.st_mode)) return true;
    int type = 0;
    socklen_t size = sizeof type;
    return S_ISSOCK(status.st_mode) && ::getsockopt(fd, SOL_SOCKET, SO_TYPE, &type, &size) == 0 && type == SOCK_STREAM;
}

bool isFifo(int fd) {
    if (!torture::armed()) return false;
    const Disarmed quiet;
    struct stat status {};
    return ::fstat(fd, &status) == 0 && S_ISFIFO(status.st_mode);
}

int transferFault(const char *call, int fd, size_t size, std::initializer_list<int> errors) {
    if (!torture::armed()) return 0;
    if (size < 2 || ![&] {
            const Disarmed quiet;
            return canBeShort(fd);
        }()) {
        return fault(call, errors);
    }
    int all[8];
    size_t count = 0;
    for (const int error : errors) all[count++] = error;
    all[count++] = shortTransfer;
    switch (count) {  // an initializer list has a fixed length
        case 2:
            return fault(call, {all[0], all[1]});
        case 3:
            return fault(call, {all[0], all[1], all[2]});
        default:
            return fault(call, {all[0], all[1], all[2], all[3]});
    }
}

std::chrono::nanoseconds toDuration(const timespec &time) {
    return std::chrono::seconds(time.tv_sec) + std::chrono::nanoseconds(time.tv_nsec);
}

timespec toTimespec(std::chrono::nanoseconds duration) {
    const auto seconds = std::chrono::floor<std::chrono::seconds>(duration);
    return {seconds.count(), (duration - seconds).count()};
}

// Sleeps on the virtual clock, and a moment on the real one: others get something done meanwhile.
void rest(std::chrono::nanoseconds duration) {
    constexpr std::chrono::nanoseconds moment = std::chrono::milliseconds(3);
    const timespec real = toTimespec(std::min(duration, moment));
    ::syscall(SYS_clock_nanosleep, CLOCK_MONOTONIC, 0, &real, nullptr);
    passTime(duration);
}

// Waits for events for a time-out's worth of virtual time.
template <typename Wait>
int waitVirtually(int timeout_ms, Wait wait) {
    const auto limit = std::chrono::milliseconds(timeout_ms);
    if (!torture::armed() || timeout_ms < 0 || limit <= patience) return wait(timeout_ms);
    const int ready = wait(static_cast<int>(std::chrono::milliseconds(patience).count()));
    if (ready == 0) passTime(limit - patience);
    return ready;
}

}  // namespace

void torture::interceptCalls(bool on) {
    vxtest::faultSource = on ? decide : nullptr;
    vxtest::socketCalls() = {};
    if (!on) return;
    vxtest::socketCalls().nanosleep = [](const timespec *request) -> std::optional<int> {
        if (!armed()) return std::nullopt;
        if (const int error = fault("nanosleep", {EINTR})) return vxtest::failing(error);
        rest(toDuration(*request));
        return 0;
    };
}

// ---- memory ----

#if defined(__SANITIZE_ADDRESS__)
extern "C" void *__interceptor_malloc(size_t size);
extern "C" void *__interceptor_calloc(size_t count, size_t size);
extern "C" void *__interceptor_realloc(void *memory, size_t size);
extern "C" void __interceptor_free(void *memory);
#define VX_REAL(name) __interceptor_##name
#else
extern "C" void *__libc_malloc(size_t size);
extern "C" void *__libc_calloc(size_t count, size_t size);
extern "C" void *__libc_realloc(void *memory, size_t size);
extern "C" void __libc_free(void *memory);
#define VX_REAL(name) __libc_##name
#endif

extern "C" void *malloc(size_t size) noexcept {
    if (const int error = fault("malloc", {ENOMEM})) {
        errno = error;
        return nullptr;
    }
    return VX_REAL(malloc)(size);
}

extern "C" void *calloc(size_t count, size_t size) noexcept {
    if (const int error = fault("calloc", {ENOMEM})) {
        errno = error;
        return nullptr;
    }
    return VX_REAL(calloc)(count, size);
}

extern "C" void *realloc(void *memory, size_t size) noexcept {
    if (const int error = fault("realloc", {ENOMEM})) {
        errno = error;
        return nullptr;
    }
    return VX_REAL(realloc)(memory, size);
}

extern "C" void free(void *memory) noexcept { VX_REAL(free)(memory); }

namespace {

// Not inlined: the compiler takes malloc() and operator delete for a mismatch.
[[gnu::noinline]] void *object(size_t size) {
    if (fault("operator new", {ENOMEM}) != 0) return nullptr;
    return VX_REAL(malloc)(size != 0 ? size : 1);
}

}  // namespace

[[gnu::noinline]] void *operator new(size_t size) {
    void *const memory = object(size);
    if (memory == nullptr) throw std::bad_alloc();
    return memory;
}
[[gnu::noinline]] void *operator new[](size_t size) { return operator new(size); }
[[gnu::noinline]] void *operator new(size_t size, const std::nothrow_t & /*tag*/) noexcept { return object(size); }
[[gnu::noinline]] void *operator new[](size_t size, const std::nothrow_t & /*tag*/) noexcept { return object(size); }
[[gnu::noinline]] void operator delete(void *memory) noexcept { VX_REAL(free)(memory); }
[[gnu::noinline]] void operator delete[](void *memory) noexcept { VX_REAL(free)(memory); }
[[gnu::noinline]] void operator delete(void *memory, size_t) noexcept { VX_REAL(free)(memory); }
[[gnu::noinline]] void operator delete[](void *memory, size_t) noexcept { VX_REAL(free)(memory); }
[[gnu::noinline]] void operator delete(void *memory, const std::nothrow_t & /*tag*/) noexcept { VX_REAL(free)(memory); }
[[gnu::noinline]] void operator delete[](void *memory, const std::nothrow_t & /*tag*/) noexcept {
    VX_REAL(free)(memory);
}

VX_CALL_NOEXCEPT(char *, strdup, (const char *text), (text), nullptr, ENOMEM)
VX_CALL_NOEXCEPT(char *, strndup, (const char *text, size_t most), (text, most), nullptr, ENOMEM)

extern "C" int asprintf(char **text, const char *format, ...) noexcept {
    if (const int error = fault("asprintf", {ENOMEM})) {
        *text = nullptr;
        errno = error;
        return -1;
    }
    const Disarmed quiet;
    va_list arguments;
    va_start(arguments, format);
    const int length = ::vasprintf(text, format, arguments);
    va_end(arguments);
    return length;
}

// ---- files ----

extern "C" int open(const char *path, int flags, ...) {
    va_list arguments;
    va_start(arguments, flags);
    const auto mode = va_arg(arguments, mode_t);
    va_end(arguments);
    if (const int error = (flags & O_CREAT) != 0 ? fault("open", {EMFILE, ENOSPC, EACCES, EINTR, ENOMEM})
                                                 : fault("open", {EMFILE, EACCES, EINTR, ENOMEM})) {
        return vxtest::failing(error);
    }
    return static_cast<int>(::syscall(SYS_openat, AT_FDCWD, path, flags, mode));
}

extern "C" int openat(int directory, const char *path, int flags, ...) {
    va_list arguments;
    va_start(arguments, flags);
    const auto mode = va_arg(arguments, mode_t);
    va_end(arguments);
    if (const int error = (flags & O_CREAT) != 0 ? fault("openat", {EMFILE, ENOSPC, EACCES, EINTR, ENOMEM})
                                                 : fault("openat", {EMFILE, EACCES, EINTR, ENOMEM})) {
        return vxtest::failing(error);
    }
    return static_cast<int>(::syscall(SYS_openat, directory, path, flags, mode));
}

extern "C" ssize_t read(int fd, void *buffer, size_t size) {
    const int error = transferFault("read", fd, size, {EIO, EINTR});
    if (error > 0) return vxtest::failing(error);
    return ::syscall(SYS_read, fd, buffer, error == shortTransfer ? 1 : size);
}

extern "C" ssize_t write(int fd, const void *buffer, size_t size) {
    // A pipe with room takes a small write whole.
    const int error =
        isFifo(fd) ? fault("write", {EPIPE, EINTR}) : transferFault("write", fd, size, {ENOSPC, EIO, EINTR});
    if (error > 0) return vxtest::failing(error);
    return ::syscall(SYS_write, fd, buffer, error == shortTransfer ? size / 2 : size);
}

extern "C" ssize_t pread(int fd, void *buffer, size_t size, off_t offset) {
    const int error = transferFault("pread", fd, size, {EIO, EINTR});
    if (error > 0) return vxtest::failing(error);
    return ::syscall(SYS_pread64, fd, buffer, error == shortTransfer ? 1 : size, offset);
}

extern "C" ssize_t pwrite(int fd, const void *buffer, size_t size, off_t offset) {
    const int error = transferFault("pwrite", fd, size, {ENOSPC, EIO, EINTR});
    if (error > 0) return vxtest::failing(error);
    return ::syscall(SYS_pwrite64, fd, buffer, error == shortTransfer ? size / 2 : size, offset);
}

extern "C" ssize_t sendfile(int to, int from, off_t *offset, size_t size) noexcept {
    const int error = transferFault("sendfile", to, size, {ENOSPC, EIO, EINTR});
    if (error > 0) return vxtest::failing(error);
    return ::syscall(SYS_sendfile, to, from, offset, error == shortTransfer ? size / 2 : size);
}

// The descriptor is gone whatever close() says.
extern "C" int close(int fd) {
    const int error = fault("close", {EIO, EINTR});
    const long result = ::syscall(SYS_close, fd);
    return error != 0 ? vxtest::failing(error) : static_cast<int>(result);
}

extern "C" int fcntl(int fd, int command, ...) {
    va_list arguments;
    va_start(arguments, command);
    void *const argument = va_arg(arguments, void *);
    va_end(arguments);
    const bool lock = command == F_SETLK || command == F_SETLKW;
    if (const int error = lock ? fault("fcntl", {ENOLCK, EINTR}) : fault("fcntl", {EMFILE})) {
        return vxtest::failing(error);
    }
    return static_cast<int>(::syscall(SYS_fcntl, fd, command, argument));
}

VX_CALL(FILE *, fopen, (const char *path, const char *mode), (path, mode), nullptr, EMFILE, ENOMEM, EACCES, EINTR)
VX_CALL_NOEXCEPT(FILE *, open_memstream, (char **text, size_t *size), (text, size), nullptr, ENOMEM)
VX_CALL_NOEXCEPT(FILE *, fdopen, (int fd, const char *mode), (fd, mode), nullptr, ENOMEM)
VX_DONE_BUT(int, fclose, (FILE * file), (file), EOF, EIO)
VX_CALL(int, fflush, (FILE * file), (file), EOF, ENOSPC, EIO)
VX_CALL_NOEXCEPT(int, access, (const char *path, int mode), (path, mode), -1, EACCES, ENOMEM)
VX_CALL_NOEXCEPT(int, fchmod, (int fd, mode_t mode), (fd, mode), -1, EPERM)
VX_CALL_NOEXCEPT(int, chmod, (const char *path, mode_t mode), (path, mode), -1, EPERM)
VX_CALL_NOEXCEPT(int, fchmodat, (int directory, const char *path, mode_t mode, int flags),
                 (directory, path, mode, flags), -1, EPERM)
VX_CALL_NOEXCEPT(int, chdir, (const char *path), (path), -1, EACCES)
VX_CALL_NOEXCEPT(int, mkdir, (const char *path, mode_t mode), (path, mode), -1, ENOSPC, EACCES)
VX_CALL_NOEXCEPT(int, mkdirat, (int directory, const char *path, mode_t mode), (directory, path, mode), -1, ENOSPC,
                 EACCES)
VX_CALL_NOEXCEPT(int, mkfifoat, (int directory, const char *path, mode_t mode), (directory, path, mode), -1, ENOSPC)
VX_CALL_NOEXCEPT(int, mkfifo, (const char *path, mode_t mode), (path, mode), -1, ENOSPC)
VX_CALL(int, mkostemp, (char *pattern, int flags), (pattern, flags), -1, EMFILE, ENOSPC, EACCES)
VX_CALL_NOEXCEPT(ssize_t, readlink, (const char *path, char *buffer, size_t size), (path, buffer, size), -1, EIO)
VX_CALL_NOEXCEPT(ssize_t, readlinkat, (int directory, const char *path, char *buffer, size_t size),
                 (directory, path, buffer, size), -1, EIO)
VX_CALL_NOEXCEPT(int, rename, (const char *from, const char *to), (from, to), -1, ENOSPC, EIO)
VX_CALL_NOEXCEPT(int, remove, (const char *path), (path), -1, EACCES)
VX_CALL_NOEXCEPT(int, unlink, (const char *path), (path), -1, EACCES)
VX_CALL_NOEXCEPT(int, unlinkat, (int directory, const char *path, int flags), (directory, path, flags), -1, EACCES)
VX_CALL_NOEXCEPT(int, symlinkat, (const char *target, int directory, const char *path), (target, directory, path), -1,
                 ENOSPC)
VX_CALL_NOEXCEPT(int, symlink, (const char *target, const char *path), (target, path), -1, ENOSPC)
VX_CALL_NOEXCEPT(int, ftruncate, (int fd, off_t size), (fd, size), -1, ENOSPC, EINTR)
VX_CALL_NOEXCEPT(int, flock, (int fd, int operation), (fd, operation), -1, ENOLCK, EINTR)
VX_CALL_NOEXCEPT(int, stat, (const char *path, struct stat *status), (path, status), -1, EACCES, ENOMEM)
VX_CALL_NOEXCEPT(int, lstat, (const char *path, struct stat *status), (path, status), -1, EACCES, ENOMEM)
VX_CALL_NOEXCEPT(int, fstatat, (int directory, const char *path, struct stat *status, int flags),
                 (directory, path, status, flags), -1, EACCES, ENOMEM)
VX_CALL_NOEXCEPT(int, fstat, (int fd, struct stat *status), (fd, status), -1, ENOMEM)
VX_CALL_NOEXCEPT(int, statfs, (const char *path, struct statfs *status), (path, status), -1, EIO)
VX_CALL_NOEXCEPT(int, fstatfs, (int fd, struct statfs *status), (fd, status), -1, EIO)
VX_CALL_NOEXCEPT(ssize_t, getdents64, (int fd, void *buffer, size_t size), (fd, buffer, size), -1, EIO, EINTR)
VX_CALL(DIR *, opendir, (const char *path), (path), nullptr, EMFILE, ENOMEM, EACCES)
VX_CALL(dirent *, readdir, (DIR * directory), (directory), nullptr, EIO)
VX_DONE_BUT(int, closedir, (DIR * directory), (directory), -1, EIO)
VX_CALL_NOEXCEPT(void *, mmap, (void *address, size_t size, int protection, int flags, int fd, off_t offset),
                 (address, size, protection, flags, fd, offset), MAP_FAILED, ENOMEM)

extern "C" int scandir(const char *path, dirent ***names, int (*filter)(const dirent *),
                       int (*compare)(const dirent **, const dirent **)) {
    if (const int error = fault("scandir", {EMFILE, ENOMEM})) return vxtest::failing(error);
    VX_NEXT(scandir);
    return real(path, names, filter, compare);
}

// A stream whose transfer failed has its error flag set: this bit is what ferror() of this C library looks at.
constexpr int errorFlag = 0x20;

extern "C" char *fgets(char *buffer, int size, FILE *file) {
    if (const int error = fault("fgets", {EIO})) {
        file->_flags |= errorFlag;
        errno = error;
        return nullptr;
    }
    VX_NEXT(fgets);
    return real(buffer, size, file);
}

extern "C" int fprintf(FILE *file, const char *format, ...) {
    if (const int error = fault("fprintf", {ENOSPC})) {
        file->_flags |= errorFlag;
        return vxtest::failing(error);
    }
    va_list arguments;
    va_start(arguments, format);
    const int length = ::vfprintf(file, format, arguments);
    va_end(arguments);
    return length;
}

extern "C" int __isoc99_fscanf(FILE *file, const char *format, ...) {
    if (const int error = fault("fscanf", {EIO})) return vxtest::failing(error);
    va_list arguments;
    va_start(arguments, format);
    const int count = ::vfscanf(file, format, arguments);
    va_end(arguments);
    return count;
}

// ---- processes ----

extern "C" pid_t fork() noexcept {
    if (const int error = fault("fork", {EAGAIN, ENOMEM})) return vxtest::failing(error);
    VX_NEXT(fork);
    const size_t number = torture::nextProcess();
    const pid_t child = real();
    if (child == 0) torture::enterProcess(number);
    return child;
}

VX_CALL(FILE *, popen, (const char *command, const char *mode), (command, mode), nullptr, EMFILE, EAGAIN)
// The child is reaped although its status is lost: so it is in a process that ignores SIGCHLD.
VX_DONE_BUT(int, pclose, (FILE * stream), (stream), -1, ECHILD)
VX_CALL(pid_t, waitpid, (pid_t pid, int *status, int options), (pid, status, options), -1, EINTR, ECHILD)
VX_CALL_NOEXCEPT(pid_t, setsid, (), (), -1, EPERM)
VX_CALL_NOEXCEPT(int, execv, (const char *path, char *const arguments[]), (path, arguments), -1, ENOMEM, ENOENT)
VX_CALL_NOEXCEPT(int, dup2, (int from, int to), (from, to), -1, EBUSY, EINTR)
VX_CALL_NOEXCEPT(int, pipe2, (int pair[2], int flags), (pair, flags), -1, EMFILE)
VX_CALL_NOEXCEPT(int, sysinfo, (struct sysinfo * info), (info), -1, EFAULT)

// Nothing that is under test switches the machine off.
extern "C" int reboot(int /*command*/) noexcept {
    fault("reboot", {EPERM});
    return vxtest::failing(EPERM);
}

// ---- IPC and threads ----

VX_CALL_NOEXCEPT(key_t, ftok, (const char *path, int project), (path, project), -1, EACCES)
VX_CALL_NOEXCEPT(int, semget, (key_t key, int count, int flags), (key, count, flags), -1, ENOSPC, ENOMEM, EACCES)

// An operation that only adds neither waits nor needs an undo record of its own.
extern "C" int semop(int set, sembuf *operations, size_t count) noexcept {
    const bool canFail = std::any_of(operations, operations + count, [](const sembuf &one) { return one.sem_op <= 0; });
    if (const int error = canFail ? fault("semop", {EINTR, ENOSPC, EIDRM}) : 0) return vxtest::failing(error);
    VX_NEXT(semop);
    return real(set, operations, count);
}

VX_CALL_NOEXCEPT(int, semtimedop, (int set, sembuf *operations, size_t count, const timespec *limit),
                 (set, operations, count, limit), -1, EINTR, ENOMEM, EAGAIN, EIDRM)
VX_CALL_NOEXCEPT(int, shmget, (key_t key, size_t size, int flags), (key, size, flags), -1, ENOSPC, ENOMEM, EACCES)
VX_CALL_NOEXCEPT(void *, shmat, (int segment, const void *address, int flags), (segment, address, flags),
                 reinterpret_cast<void *>(-1), ENOMEM, EMFILE, EIDRM)
VX_CALL(int, shm_open, (const char *name, int flags, mode_t mode), (name, flags, mode), -1, EMFILE, ENOSPC, EACCES)
VX_CALL(int, shm_unlink, (const char *name), (name), -1, EACCES)

extern "C" int semctl(int set, int number, int command, ...) noexcept {
    va_list arguments;
    va_start(arguments, command);
    void *const argument = va_arg(arguments, void *);
    va_end(arguments);
    if (const int error = fault("semctl", {EACCES})) return vxtest::failing(error);
    VX_NEXT(semctl);
    return real(set, number, command, argument);
}

extern "C" int pthread_mutex_init(pthread_mutex_t *mutex, const pthread_mutexattr_t *attributes) noexcept {
    if (const int error = fault("pthread_mutex_init", {ENOMEM, EAGAIN})) return error;
    VX_NEXT(pthread_mutex_init);
    return real(mutex, attributes);
}

extern "C" int pthread_mutexattr_init(pthread_mutexattr_t *attributes) noexcept {
    if (const int error = fault("pthread_mutexattr_init", {ENOMEM})) return error;
    VX_NEXT(pthread_mutexattr_init);
    return real(attributes);
}

extern "C" int pthread_mutex_timedlock(pthread_mutex_t *mutex, const timespec *deadline) noexcept {
    VX_NEXT(pthread_mutex_timedlock);
    if (!torture::armed()) return real(mutex, deadline);
    if (const int error = fault("pthread_mutex_timedlock", {ETIMEDOUT})) return error;
    timespec now{};
    ::clock_gettime(CLOCK_REALTIME, &now);  // the virtual one
    const auto left = toDuration(*deadline) - toDuration(now);
    const auto waited = std::min<std::chrono::nanoseconds>(left, patience);
    const timespec cut = toTimespec(toDuration(now) - torture::virtualTime() + waited);
    const int result = real(mutex, &cut);
    if (result == ETIMEDOUT && left > waited) passTime(left - waited);
    return result;
}

// ---- events and time ----

VX_CALL_NOEXCEPT(int, epoll_create1, (int flags), (flags), -1, EMFILE, ENOMEM)
VX_CALL_NOEXCEPT(int, epoll_ctl, (int set, int operation, int fd, epoll_event *event), (set, operation, fd, event), -1,
                 ENOMEM, ENOSPC)
VX_CALL_NOEXCEPT(int, timerfd_create, (clockid_t clock, int flags), (clock, flags), -1, EMFILE, ENOMEM)
VX_CALL_NOEXCEPT(int, timerfd_settime, (int fd, int flags, const itimerspec *value, itimerspec *old),
                 (fd, flags, value, old), -1, ENOMEM)

extern "C" int epoll_wait(int set, epoll_event *events, int room, int timeout_ms) {
    if (const int error = fault("epoll_wait", {EINTR})) return vxtest::failing(error);
    VX_NEXT(epoll_wait);
    return waitVirtually(timeout_ms, [&](int ms) { return real(set, events, room, ms); });
}

extern "C" int poll(pollfd *files, nfds_t count, int timeout_ms) {
    if (const int error = fault("poll", {EINTR, ENOMEM})) return vxtest::failing(error);
    VX_NEXT(poll);
    return waitVirtually(timeout_ms, [&](int ms) { return real(files, count, ms); });
}

extern "C" int clock_gettime(clockid_t clock, timespec *now) noexcept {
    const long result = ::syscall(SYS_clock_gettime, clock, now);
    if (result == 0 && torture::armed()) *now = toTimespec(toDuration(*now) + torture::virtualTime());
    return static_cast<int>(result);
}

extern "C" time_t time(time_t *result) noexcept {
    timespec now{};
    ::clock_gettime(CLOCK_REALTIME, &now);
    if (result != nullptr) *result = now.tv_sec;
    return now.tv_sec;
}

extern "C" int gettimeofday(timeval *result, void * /*zone*/) noexcept {
    timespec now{};
    ::clock_gettime(CLOCK_REALTIME, &now);
    *result = {now.tv_sec, now.tv_nsec / 1000};
    return 0;
}

// A signal that ends a sleep comes at its beginning.
extern "C" unsigned int sleep(unsigned int seconds) {
    if (torture::armed()) {
        if (fault("sleep", {EINTR}) != 0) return seconds;
        rest(std::chrono::seconds(seconds));
        return 0;
    }
    VX_NEXT(sleep);
    return real(seconds);
}

extern "C" int usleep(useconds_t microseconds) {
    if (torture::armed()) {
        if (const int error = fault("usleep", {EINTR})) return vxtest::failing(error);
        rest(std::chrono::microseconds(microseconds));
        return 0;
    }
    VX_NEXT(usleep);
    return real(microseconds);
}

extern "C" int clock_nanosleep(clockid_t clock, int flags, const timespec *request, timespec *left) {
    if (torture::armed()) {
        if (const int error = fault("clock_nanosleep", {EINTR})) {
            if (left != nullptr && flags != TIMER_ABSTIME) *left = *request;
            return error;
        }
        timespec now{};
        ::clock_gettime(clock, &now);
        const auto wanted = toDuration(*request);
        rest(flags == TIMER_ABSTIME ? std::max(wanted - toDuration(now), std::chrono::nanoseconds(0)) : wanted);
        return 0;
    }
    VX_NEXT(clock_nanosleep);
    return real(clock, flags, request, left);
}

VX_CALL_NOEXCEPT(tm *, localtime, (const time_t *when), (when), nullptr, EOVERFLOW)
VX_CALL_NOEXCEPT(tm *, gmtime_r, (const time_t *when, tm *result), (when, result), nullptr, EOVERFLOW)

// ---- the remaining socket calls ----

VX_CALL(int, connect, (int fd, const sockaddr *address, socklen_t length), (fd, address, length), -1, ECONNREFUSED,
        EINTR, EAGAIN)

VX_CALL_NOEXCEPT(int, shutdown, (int fd, int how), (fd, how), -1, ENOTCONN)

extern "C" ssize_t recv(int fd, void *buffer, size_t size, int flags) {
    const int error = transferFault("recv", fd, size, {EINTR, ECONNRESET});
    if (error > 0) return vxtest::failing(error);
    return ::syscall(SYS_recvfrom, fd, buffer, error == shortTransfer ? 1 : size, flags, nullptr, nullptr);
}

extern "C" ssize_t send(int fd, const void *data, size_t size, int flags) {
    const int error = transferFault("send", fd, size, {EINTR, EPIPE, ENOBUFS});
    if (error > 0) return vxtest::failing(error);
    return ::syscall(SYS_sendto, fd, data, error == shortTransfer ? size / 2 : size, flags, nullptr, 0);
}

VX_CALL(ssize_t, getrandom, (void *buffer, size_t size, unsigned int flags), (buffer, size, flags), -1, EAGAIN, ENOSYS)

VX_QUIET(int, getifaddrs, (ifaddrs * *list), (list), -1, EMFILE, ENOMEM)

// ---- other libraries ----

// The system logger's own memory is not the library's.
extern "C" void vsyslog(int priority, const char *format, va_list arguments) {
    const Disarmed quiet;
    VX_NEXT(vsyslog);
    real(priority, format, arguments);
}

extern "C" void syslog(int priority, const char *format, ...) {
    va_list arguments;
    va_start(arguments, format);
    ::vsyslog(priority, format, arguments);
    va_end(arguments);
}

VX_QUIET(void *, zmq_socket, (void *context, int type), (context, type), nullptr, EMFILE, ENOMEM)
VX_QUIET(int, zmq_setsockopt, (void *socket, int option, const void *value, size_t size), (socket, option, value, size),
         -1, EINTR)
VX_QUIET(int, zmq_bind, (void *socket, const char *address), (socket, address), -1, EADDRINUSE)
VX_QUIET(int, zmq_connect, (void *socket, const char *address), (socket, address), -1, EMTHREAD)
VX_QUIET(int, zmq_msg_init_data, (zmq_msg_t * message, void *data, size_t size, zmq_free_fn *release, void *hint),
         (message, data, size, release, hint), -1, ENOMEM)
VX_QUIET(int, zmq_msg_send, (zmq_msg_t * message, void *socket, int flags), (message, socket, flags), -1, EAGAIN, EINTR)
extern "C" int zmq_msg_close(zmq_msg_t *message) {
    const Disarmed quiet;
    VX_NEXT(zmq_msg_close);
    return real(message);
}
extern "C" int zmq_close(void *socket) {
    const Disarmed quiet;
    VX_NEXT(zmq_close);
    return real(socket);
}

VX_QUIET(bufferevent *, bufferevent_new,
         (evutil_socket_t fd, bufferevent_data_cb onRead, bufferevent_data_cb onWrite, bufferevent_event_cb onError,
          void *context),
         (fd, onRead, onWrite, onError, context), nullptr, ENOMEM)
extern "C" void bufferevent_free(bufferevent *buffer) {
    const Disarmed quiet;
    VX_NEXT(bufferevent_free);
    real(buffer);
}
VX_QUIET(int, bufferevent_enable, (bufferevent * buffer, short events), (buffer, events), -1, ENOMEM)

extern "C" void *dlopen(const char *file, int mode) noexcept {
    if (fault("dlopen", {ENOMEM}) != 0) {
        (void)::dlsym(RTLD_DEFAULT, "dlopen failed on purpose");  // leaves a text for dlerror()
        return nullptr;
    }
    const Disarmed quiet;
    static void *(*real)(const char *, int) = nullptr;
    if (real == nullptr) real = reinterpret_cast<void *(*)(const char *, int)>(::dlsym(RTLD_NEXT, "dlopen"));
    return real(file, mode);
}
