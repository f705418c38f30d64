// SPDX-License-Identifier: MIT
#include "core/file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <climits>
#include <csignal>
#include <cstdio>
#include <cstdlib>

#include "core/failure.h"
#include "core/fd.h"
#include "core/owned.h"

namespace tool {

namespace {

constexpr mode_t newFileMode = 0644;
constexpr mode_t modeBits = 07777;

const char *kindOf(mode_t mode) {
    switch (mode & S_IFMT) {
        case S_IFDIR:
            return "is a directory";
        case S_IFIFO:
            return "is a FIFO";
        default:
            return "is not a regular file";
    }
}

std::string readAll(int fd, std::string_view name) {
    std::string text;
    std::array<char, 65536> piece;
    for (;;) {
        const ssize_t got = ::read(fd, piece.data(), piece.size());
        if (got == 0) return text;
        if (got > 0) text.append(piece.data(), static_cast<size_t>(got));
        if (got < 0 && !canGoOn(fd, POLLIN)) throw systemFailure(name);
    }
}

// Signals, of which most end the process, wait until the temporary file is gone.
class HeldSignals {
public:
    HeldSignals() {
        sigset_t held;
        sigfillset(&held);
        ::sigprocmask(SIG_BLOCK, &held, &before_);
    }
    ~HeldSignals() { ::sigprocmask(SIG_SETMASK, &before_, nullptr); }
    HeldSignals(const HeldSignals &) = delete;
    HeldSignals &operator=(const HeldSignals &) = delete;

private:
    sigset_t before_;
};

// A file beside the one to be replaced; removed unless it has taken its place.
class TemporaryFile {
public:
    TemporaryFile(const std::string &directory, std::string_view name) : path_(directory + "/.vx_XXXXXX"), name_(name) {
        fd_.reset(::mkostemp(path_.data(), O_CLOEXEC));
        if (!fd_.valid()) throw systemFailure(name_);
    }
    ~TemporaryFile() {
        if (!path_.empty()) ::unlink(path_.c_str());
    }
    TemporaryFile(const TemporaryFile &) = delete;
    TemporaryFile &operator=(const TemporaryFile &) = delete;

    void fill(std::string_view bytes, bool lasting) {
        while (!bytes.empty()) {
            const ssize_t written = ::write(fd_.get(), bytes.data(), bytes.size());
            if (written > 0) bytes.remove_prefix(static_cast<size_t>(written));
            if (written < 0 && errno != EINTR) throw systemFailure(name_);
        }
        if (lasting && ::fsync(fd_.get()) != 0) throw systemFailure(name_);
    }
    void setOwnerAndMode(const struct stat *old) const {
        mode_t mask = ::umask(0);
        ::umask(mask);
        const bool changed = old != nullptr && ::fchown(fd_.get(), old->st_uid, old->st_gid) == 0;
        (void)changed;  // only the superuser can hand a file to its old owner; others own what they write
        const mode_t mode = old != nullptr ? old->st_mode & modeBits : newFileMode & ~mask;
        if (::fchmod(fd_.get(), mode) != 0) throw systemFailure(name_);
    }
    void rename(const std::string &target) {
        if (::close(fd_.release()) != 0) throw systemFailure(name_);
        if (::rename(path_.c_str(), target.c_str()) != 0) throw systemFailure(name_);
        path_.clear();
    }

private:
    std::string path_;
    std::string name_;
    Fd fd_;
};

std::string directoryOf(const std::string &path) {
    const size_t slash = path.rfind('/');
    return slash == std::string::npos ? "." : path.substr(0, std::max<size_t>(slash, 1));
}

// The path that a link leads to, through all links.
std::string resolved(const std::string &path, std::string_view name) {
    const Owned<char, &std::free> target(::realpath(path.c_str(), nullptr));
    if (!target) throw Failure(name, std::string("is a link that leads nowhere: ") + std::strerror(errno));
    return target.get();
}

}  // namespace

std::string readFile(const std::string &path, std::string_view name) {
    const Fd fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
    struct stat status {};
    if (!fd.valid() || ::fstat(fd.get(), &status) != 0) throw systemFailure(name);
    if (!S_ISREG(status.st_mode)) throw Failure(name, kindOf(status.st_mode));
    return readAll(fd.get(), name);
}

std::string readInput() { return readAll(STDIN_FILENO, "standard input"); }

std::string readStream(const std::string &path) {
    const Fd fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY));
    if (!fd.valid()) throw systemFailure(path);
    return readAll(fd.get(), path);
}

void replaceFile(const std::string &path, std::string_view name, std::string_view bytes, bool lasting) {
    struct stat status {};
    bool there = ::lstat(path.c_str(), &status) == 0;
    if (there && S_ISLNK(status.st_mode)) {
        const std::string target = resolved(path, name);
        return replaceFile(target, name, bytes, lasting);
    }
    if (there && !S_ISREG(status.st_mode)) throw Failure(name, kindOf(status.st_mode));

    const std::string directory = directoryOf(path);
    const HeldSignals held;
    TemporaryFile file(directory, name);
    file.setOwnerAndMode(there ? &status : nullptr);
    file.fill(bytes, lasting);
    file.rename(path);
    if (!lasting) return;
    const Fd parent(::open(directory.c_str(), O_RDONLY | O_CLOEXEC | O_DIRECTORY));
    if (!parent.valid() || ::fsync(parent.get()) != 0) throw systemFailure(name);
}

std::string withoutLineEnd(std::string text) {
    if (!text.empty() && text.back() == '\n') text.pop_back();
    return text;
}

}  // namespace tool
