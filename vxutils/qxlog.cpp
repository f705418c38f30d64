// SPDX-License-Identifier: MIT
#include <vxutils/qxlog.h>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <optional>
#include <string_view>
#include <utility>

#include "vxutils/internal/errno_keeper.h"
#include "vxutils/internal/fd.h"
#include "vxutils/internal/handles.h"
#include "vxutils/internal/line_buffer.h"
#include "vxutils/internal/retry.h"
#include "vxutils/internal/safe_open.h"
#include "vxutils/internal/semaphore_set.h"
#include "vxutils/internal/visible.h"

using vx::Fd;

namespace {

constexpr const char *logPath = "/var/log/qxlog";
constexpr const char *temporaryPath = "/var/log/qxlog.tmp";
constexpr mode_t creationMode = 0666;
constexpr mode_t temporaryMode = 0660;  // other users must not be able to hold its lock
constexpr mode_t logMode = 0664;

constexpr int oldLinesKept = 32;
constexpr size_t lineSize = 1024;
constexpr size_t timeSize = 32;
constexpr const char *timeFormat = "%Y-%m-%d %H:%M";
constexpr size_t smallestBuffer = 257;

constexpr const char *keyPath = "/etc/fstab";  // any file that always exists
constexpr int keyProject = 69;
constexpr int semaphoreMode = 0666;

// Reports what failed and the text of errno.
int failed(const char *what) {
    std::perror(what);
    return -1;
}

// How long one call waits for what others hold. Every user may operate on the semaphore, and lock the log, which is
// readable for all: without limits any user could stop the log.
struct Limits {
    vx::SemaphoreDeadline start = vx::SemaphoreClock::now();
    vx::SemaphoreDeadline semaphore = start + std::chrono::milliseconds(200);
    vx::SemaphoreDeadline temporary = start + std::chrono::milliseconds(800);
    vx::SemaphoreDeadline log = start + std::chrono::milliseconds(1000);
};
constexpr useconds_t pollPause_us = 2000;

bool inTime(vx::SemaphoreDeadline deadline) { return vx::SemaphoreClock::now() < deadline; }

// Removes the set if an untrusted user has made it, who could remove it at any time. Returns whether it was removed.
bool removeStrangers(int id) {
    semid_ds status{};
    return ::semctl(id, 0, IPC_STAT, &status) == 0 && !vx::isTrustedUser(status.sem_perm.cuid) &&
           ::semctl(id, 0, IPC_RMID) == 0;
}

// Returns the semaphore of the log, set to free; -1 after a report.
// Quirk Q91.
int getSemaphore(const Limits &limits) {
    const key_t key = ::ftok(keyPath, keyProject);
    if (key == -1) return failed("ftok");
    int id = -1;
    do {
        id = ::semget(key, 1, IPC_CREAT | semaphoreMode);
    } while (id != -1 && removeStrangers(id) && inTime(limits.semaphore));
    if (id == -1) {
        std::perror("semget");
        id = ::semget(key, 1, 0);
        return id != -1 ? id : failed("semget");
    }
    return ::semctl(id, 0, SETVAL, 1) == 0 ? id : failed("semctl");
}

// The turn of a process that uses the log. Correctness does not depend on it, because any user may hold the semaphore:
// a call that does not get it in time goes on without it, and the locks of the files keep writers apart.
class Turn {
public:
    explicit Turn(int semaphore) : semaphore_(semaphore) {}

    bool take(const Limits &limits) {
        taken_ = vx::changeSemaphoreBefore(semaphore_, -1, 0, limits.semaphore) == 0;
        return taken_ || errno == EAGAIN;
    }
    // No undo: the reset of the next call repairs what a dead holder left.
    bool giveBack() const { return !taken_ || vx::changeSemaphore(semaphore_, +1, 0) == 0; }

private:
    int semaphore_;
    bool taken_ = false;
};

bool isNamed(int fd, const char *path) {
    struct stat own;
    struct stat named;
    return ::fstat(fd, &own) == 0 && ::lstat(path, &named) == 0 && own.st_dev == named.st_dev &&
           own.st_ino == named.st_ino;
}

// Gives the lock of a file up. Closing is not enough: a child that another thread has forked has a copy of the
// descriptor, and would keep the lock as long as it lives.
void unlockFile(int fd) {
    const vx::ErrnoKeeper keeper;
    (void)::flock(fd, LOCK_UN);
}

enum class Lock { taken, renamed, busy };

// Waits for the lock of the file open as `fd`, as long as the file has the name `path`. On a file system without locks
// the file counts as locked, and the semaphore alone keeps writers apart.
Lock lockFile(int fd, int operation, const char *path, vx::SemaphoreDeadline deadline) {
    for (;;) {
        const bool busy =
            vx::retryEintr([&] { return ::flock(fd, operation | LOCK_NB); }) == -1 && errno == EWOULDBLOCK;
        if (!isNamed(fd, path)) {
            if (!busy) unlockFile(fd);  // it may have become the log
            return Lock::renamed;
        }
        if (!busy) return Lock::taken;
        if (!inTime(deadline)) return Lock::busy;
        ::usleep(pollPause_us);
    }
}

class LockedFd {
public:
    explicit LockedFd(Fd fd) : fd_(std::move(fd)) {}
    LockedFd(LockedFd &&) = default;
    ~LockedFd() {
        if (fd_.valid()) unlockFile(fd_.get());
    }

    [[nodiscard]] bool valid() const { return fd_.valid(); }
    [[nodiscard]] int get() const { return fd_.get(); }

private:
    Fd fd_;
};

// Tells whether an untrusted user may have opened the file, and so may hold its lock.
bool isOpenToStrangers(const struct stat &status) {
    return (status.st_mode & S_IRWXO) != 0 || !vx::isTrustedUser(status.st_uid);
}

// Opens the temporary file, empties it and locks it until it is closed. The semaphore may let two writers pass; this
// lock makes one of them wait. If the file was renamed while it waited, the writer opens the one that has the name now.
// Other users cannot open the file, so the holder of its lock is a writer. The exception is a file that an untrusted
// user, or a program with another mode, has made: it is replaced when its lock is held for long. A file that a killed
// writer of another user has left is replaced at once: only its owner could give it the log's mode.
Fd openEmptiedTemporary(const Limits &limits) {
    for (;;) {
        struct stat status;
        Fd fd = vx::openRegular(temporaryPath, O_RDWR | O_CREAT, temporaryMode, status);
        if (!fd.valid()) return Fd();
        const bool replaceable = isOpenToStrangers(status);
        const Lock lock = lockFile(fd.get(), LOCK_EX, temporaryPath, replaceable ? limits.semaphore : limits.temporary);
        if (lock == Lock::taken) {
            const bool closed = ::fchmod(fd.get(), temporaryMode) == 0;
            if (closed && ::ftruncate(fd.get(), 0) == 0) return fd;
            const bool othersLeftIt = !closed && status.st_uid != ::geteuid();
            const bool removed = othersLeftIt && inTime(limits.temporary) && ::unlink(temporaryPath) == 0;
            unlockFile(fd.get());  // only now: a waiting writer has to see that the name is gone
            if (!removed) return Fd();
        }
        if (lock == Lock::busy) {
            errno = EAGAIN;
            if (!replaceable || ::unlink(temporaryPath) == -1) return Fd();
        }
    }
}

// The new log's text, which becomes the temporary file's content at once. Gathered in memory: a child that another
// thread forks at that moment has a copy of a stream's buffer, and exit() would write it to the file.
class NewText {
public:
    NewText() : stream_(::open_memstream(&text_, &size_)) {}
    ~NewText() {
        stream_.reset();
        std::free(text_);
    }
    NewText(const NewText &) = delete;
    NewText &operator=(const NewText &) = delete;

    [[nodiscard]] bool valid() const { return stream_ != nullptr; }
    [[nodiscard]] FILE *stream() const { return stream_.get(); }

    // False with errno when not all of it could be gathered or written.
    bool writeTo(int fd) {
        if (std::fflush(stream_.get()) != 0 || std::ferror(stream_.get()) != 0) return false;
        for (size_t done = 0; done < size_;) {
            const ssize_t written = vx::retryEintr([&] { return ::write(fd, text_ + done, size_ - done); });
            if (written == -1) return false;
            done += static_cast<size_t>(written);
        }
        return true;
    }

private:
    char *text_ = nullptr;
    size_t size_ = 0;
    vx::FilePtr stream_;
};

// Opens the log for reading, with a lock that keeps qxlog_clear() from cutting it off in the middle of a line. If
// another process holds the lock for too long, the log is read without it.
LockedFd openLog(const Limits &limits) {
    for (;;) {
        struct stat status;
        Fd fd = vx::openRegular(logPath, O_RDONLY, 0, status);
        if (fd.valid() && lockFile(fd.get(), LOCK_SH, logPath, limits.log) == Lock::renamed) continue;
        return LockedFd(std::move(fd));
    }
}

// Empties the log, with its lock if it can be had in time.
void emptyLog(const Limits &limits) {
    for (;;) {
        struct stat status;
        const Fd fd = vx::openRegular(logPath, O_RDWR | O_CREAT, creationMode, status);
        if (!fd.valid()) return;
        if (lockFile(fd.get(), LOCK_EX, logPath, limits.log) == Lock::renamed) continue;
        if (::ftruncate(fd.get(), 0) == 0) ::fchmod(fd.get(), logMode);
        unlockFile(fd.get());
        return;
    }
}

// The lines of the log. Not by fgets(): where a forked child ends with exit(), the C library sets the place in the file
// back to the end of what the child's copy of the stream has returned, for this process too.
class LogLines {
public:
    explicit LogLines(const LockedFd &log) : fd_(log.get()) {}

    // Returns the next line, or a piece of a long line, without its newline and up to its first NUL byte.
    std::optional<std::string_view> next() {
        const auto line = lines_.next(fd_, lineSize - 1);
        if (line.empty()) return std::nullopt;
        const size_t length = line.back() == '\n' ? line.size() - 1 : line.size();
        return std::string_view(line.data(), ::strnlen(line.data(), length));
    }

    [[nodiscard]] bool failed() const { return lines_.failed(); }

private:
    int fd_;
    vx::LineBuffer lines_;
};

// Returns false with errno set when there is an old log that cannot be read. A log that is not a regular file counts as
// empty.
bool copyOldLines(FILE *to, const Limits &limits) {
    const LockedFd log = openLog(limits);
    if (!log.valid()) return errno == ENOENT || errno == EISDIR || errno == EINVAL;
    LogLines lines(log);
    for (int copied = 0; copied < oldLinesKept; ++copied) {
        const auto line = lines.next();
        if (!line) break;
        std::fprintf(to, "%.*s\n", static_cast<int>(line->size()), line->data());
    }
    return !lines.failed();
}

}  // namespace

// Quirk Q92.
int qxlog(int number, const char *message) {
    if (message == nullptr || *message == '\0') return -1;
    const Limits limits;
    const int semaphore = getSemaphore(limits);
    if (semaphore == -1) return -1;
    Turn turn(semaphore);
    if (!turn.take(limits)) return failed("lock sem");

    const time_t now = std::time(nullptr);
    ::tzset();
    tm local;
    if (::localtime_r(&now, &local) == nullptr) return failed("localtime");
    char time[timeSize];
    if (std::strftime(time, sizeof time, timeFormat, &local) == 0) return failed("strftime");

    {
        const LockedFd temporary(openEmptiedTemporary(limits));
        if (!temporary.valid()) return failed("open");
        NewText text;
        if (!text.valid()) return failed("open");
        std::fprintf(text.stream(), "%d: %s %s\n", number, time, vx::VisibleText(message).c_str());
        if (!copyOldLines(text.stream(), limits)) return failed("open");
        // The file is complete when it becomes the log, and locked until then.
        if (!text.writeTo(temporary.get()) || std::rename(temporaryPath, logPath) == -1) return failed("rename");
        ::fchmod(temporary.get(), logMode);  // not before: other writers would take the file for a stranger's
    }

    return turn.giveBack() ? 0 : failed("semop");
}

// Quirk Q93.
int qxlog_clear(void) {
    const Limits limits;
    const int semaphore = getSemaphore(limits);
    if (semaphore == -1) return -1;
    Turn turn(semaphore);
    if (!turn.take(limits)) return failed("semop");
    emptyLog(limits);
    return turn.giveBack() ? 0 : failed("unlock sem");
}

int qxlog_read(char *buf, size_t size) {
    if (buf == nullptr || size < smallestBuffer) return -1;
    const Limits limits;
    const int semaphore = getSemaphore(limits);
    if (semaphore == -1) return -1;
    Turn turn(semaphore);
    if (!turn.take(limits)) return failed("semop");
    std::memset(buf, 0, size);
    const size_t room = size - 1;
    size_t used = 0;
    {
        const LockedFd log = openLog(limits);
        LogLines lines(log);
        while (log.valid() && used < room) {
            const auto line = lines.next();
            if (!line) break;
            const auto length = static_cast<int>(line->size());
            used += static_cast<size_t>(std::snprintf(buf + used, room - used, "%.*s\n", length, line->data()));
        }
    }
    return turn.giveBack() ? 0 : failed("semop");
}
