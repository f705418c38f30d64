// SPDX-License-Identifier: MIT
#include <fcntl.h>
#include <sys/file.h>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vxutils/qxlog.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <utility>

#include "vxutils/internal/fd.h"
#include "vxutils/internal/handles.h"
#include "vxutils/internal/retry.h"

using vx::Fd;
using vx::FilePtr;

namespace {

constexpr const char *logPath = "/var/log/qxlog";
constexpr const char *temporaryPath = "/var/log/qxlog.tmp";
constexpr mode_t creationMode = 0666;
constexpr mode_t logMode = 0664;

constexpr int oldLinesKept = 32;
constexpr size_t lineSize = 1024;
constexpr size_t timeSize = 32;
constexpr const char *timeFormat = "%Y-%m-%d %H:%M";
constexpr size_t smallestBuffer = 257;

constexpr const char *keyPath = "/etc/fstab";  // any file that always exists
constexpr int keyProject = 69;
constexpr int semaphoreMode = 0666;

// Reports what failed, in the words of errno.
int failed(const char *what) {
    std::perror(what);
    return -1;
}

// The semaphore of the log, set to free; -1 after a report.
int getSemaphore() {
    const key_t key = ::ftok(keyPath, keyProject);
    if (key == -1) return failed("ftok");
    int id = ::semget(key, 1, IPC_CREAT | semaphoreMode);
    if (id == -1) {
        std::perror("semget");
        id = ::semget(key, 1, 0);
        return id != -1 ? id : failed("semget");
    }
    return ::semctl(id, 0, SETVAL, 1) == 0 ? id : failed("semctl");
}

// No undo: the reset of the next call repairs what a dead holder left.
bool change(int semaphore, short by) {
    sembuf operation{0, by, 0};
    return ::semop(semaphore, &operation, 1) == 0;
}
bool lock(int semaphore) { return change(semaphore, -1); }
bool unlock(int semaphore) { return change(semaphore, +1); }

bool lockFile(int fd, int operation) {
    return vx::retryEintr([&] { return ::flock(fd, operation); }) == 0;
}

bool isNamed(int fd, const char *path) {
    struct stat own;
    struct stat named;
    return ::fstat(fd, &own) == 0 && ::stat(path, &named) == 0 && own.st_dev == named.st_dev &&
           own.st_ino == named.st_ino;
}

// A file to fill, empty and locked until it is closed. Whoever waited for one that has lost its name meanwhile, to a
// rename, takes the one that has the name now. On a file system that knows no locks the semaphore has to do.
Fd openEmptied(const char *path) {
    for (;;) {
        Fd fd(::open(path, O_RDWR | O_CREAT | O_CLOEXEC, creationMode));
        if (!fd.valid()) return Fd();
        if (lockFile(fd.get(), LOCK_EX) && !isNamed(fd.get(), path)) continue;
        return ::ftruncate(fd.get(), 0) == 0 ? std::move(fd) : Fd();
    }
}

// The semaphore may let two writers pass; the lock of the file makes them wait for each other.
FilePtr openTemporary() {
    Fd fd = openEmptied(temporaryPath);
    if (!fd.valid()) return nullptr;
    FilePtr file(::fdopen(fd.get(), "w+"));
    if (file) (void)fd.release();
    return file;
}

// The log for reading, with a lock that keeps qxlog_clear() from cutting it off in the middle of a line.
FilePtr openLog() {
    FilePtr file(std::fopen(logPath, "re"));
    if (file) (void)lockFile(::fileno(file.get()), LOCK_SH);
    return file;
}

// One line, or piece of a line, without its newline.
bool readLine(FILE *file, char (&line)[lineSize]) {
    if (std::fgets(line, sizeof line, file) == nullptr) return false;
    line[std::strcspn(line, "\n")] = '\0';
    return true;
}

void copyOldLines(FILE *to) {
    const FilePtr log = openLog();
    char line[lineSize];
    for (int copied = 0; log && copied < oldLinesKept && readLine(log.get(), line); ++copied) {
        std::fprintf(to, "%s\n", line);
    }
}

}  // namespace

int qxlog(int number, const char *message) {
    if (message == nullptr || *message == '\0') return -1;
    const int semaphore = getSemaphore();
    if (semaphore == -1) return -1;
    if (!lock(semaphore)) return failed("lock sem");

    const time_t now = std::time(nullptr);
    ::tzset();
    tm local;
    if (::localtime_r(&now, &local) == nullptr) return failed("localtime");
    char time[timeSize];
    if (std::strftime(time, sizeof time, timeFormat, &local) == 0) return failed("strftime");

    FilePtr temporary = openTemporary();
    if (!temporary) return failed("open");
    std::fprintf(temporary.get(), "%d: %s %s\n", number, time, message);
    copyOldLines(temporary.get());
    // Complete before it becomes the log, and locked until it is.
    if (std::fflush(temporary.get()) != 0 || std::ferror(temporary.get()) != 0 ||
        std::rename(temporaryPath, logPath) == -1) {
        return failed("rename");
    }
    ::chmod(logPath, logMode);
    temporary.reset();

    return unlock(semaphore) ? 0 : failed("semop");
}

int qxlog_clear(void) {
    const int semaphore = getSemaphore();
    if (semaphore == -1) return -1;
    if (!lock(semaphore)) return failed("semop");
    if (openEmptied(logPath).valid()) ::chmod(logPath, logMode);
    return unlock(semaphore) ? 0 : failed("unlock sem");
}

int qxlog_read(char *buf, size_t size) {
    if (buf == nullptr || size < smallestBuffer) return -1;
    const int semaphore = getSemaphore();
    if (semaphore == -1) return -1;
    if (!lock(semaphore)) return failed("semop");
    std::memset(buf, 0, size);
    const size_t room = size - 1;
    size_t used = 0;
    {
        const FilePtr log = openLog();
        char line[lineSize];
        while (log && used < room && readLine(log.get(), line)) {
            used += static_cast<size_t>(std::snprintf(buf + used, room - used, "%s\n", line));
        }
    }
    return unlock(semaphore) ? 0 : failed("semop");
}
