// SPDX-License-Identifier: MIT
#include "vxutils/internal/guarded_open.h"

#include <fcntl.h>
#include <linux/magic.h>
#include <sys/vfs.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>
#include <new>
#include <string>
#include <utility>

#include "vxutils/internal/retry.h"
#include "vxutils/internal/safe_open.h"
#include "vxutils/internal/tree_walk.h"

namespace vx {
namespace {

constexpr mode_t allModes = 07777;
constexpr dev_t nullDevice = 1 << 8 | 3;       // major number 1, minor number 3
constexpr int gently = O_NONBLOCK | O_NOCTTY;  // without waiting, without side effects

Fd open(int directory, const char *path, int flags, mode_t mode = 0) noexcept {
    return Fd(retryEintr([&] { return ::openat(directory, path, flags | O_CLOEXEC, mode); }));
}

Fd refused(int error) noexcept {
    errno = error;
    return {};
}

bool denied() noexcept {
    errno = EACCES;
    return false;
}

// Opens for writing, and creates what is missing in a step of its own: only O_EXCL tells a new file from one that
// another process made a moment earlier.
Target openOrCreate(int directory, const char *path, mode_t mode) noexcept {
    constexpr int flags = O_WRONLY | O_NOFOLLOW | gently;
    constexpr int attempts = 40;  // ends the loop when an attacker makes and removes the file all the time
    for (int i = 0; i < attempts; ++i) {
        Fd file = open(directory, path, flags);
        // For a file's name with a slash after it, ENOTDIR: open() with O_CREAT says EISDIR.
        if (file.valid() || (errno != ENOENT && errno != ENOTDIR)) return {std::move(file)};
        file = open(directory, path, flags | O_CREAT | O_EXCL, mode);
        if (file.valid()) return {std::move(file), true};
        if (errno != EEXIST) return {};
    }
    return {refused(EACCES)};
}

// Returns the directory part of a path, as openat() takes it.
std::string parentOf(const std::string &path) {
    const size_t slash = path.find_last_of('/');
    return slash == std::string::npos ? "." : path.substr(0, slash + 1);
}

// A path that ends in links, followed link by link, each only where it is allowed to be. It is the text of an open link
// that is followed and not a name, so that swapping links in between is of no use.
class Links {
public:
    using Rule = bool (*)(const struct stat &directory, const struct stat &link);

    Links(Rule mayBeFollowed, int directory, const char *path)
        : mayBeFollowed_(mayBeFollowed), directory_(directory), path_(path) {}

    [[nodiscard]] int directory() const { return base_.valid() ? base_.get() : directory_; }
    [[nodiscard]] const char *path() const { return path_.c_str(); }
    [[nodiscard]] bool isKernels() const { return kernels_; }

    // Goes on to what the link says; false with errno when there is none or it must not be followed.
    bool follow() {
        const Fd link = open(directory(), path(), O_PATH | O_NOFOLLOW);
        Fd parent = open(directory(), parentOf(path_).c_str(), O_PATH | O_DIRECTORY);
        struct stat status {};
        struct stat place {};
        if (!link.valid() || !parent.valid() || ::fstat(link.get(), &status) == -1 ||
            ::fstat(parent.get(), &place) == -1) {
            return false;
        }
        const bool isLink = S_ISLNK(status.st_mode);
        if (!isLink || !mayBeFollowed_(place, status) || ++links_ > mostLinks) {
            errno = !isLink ? ENOTDIR : links_ > mostLinks ? ELOOP : EACCES;
            return false;
        }
        kernels_ = isKernelLink(link);
        return kernels_ || goTo(link, std::move(parent));
    }

private:
    bool goTo(const Fd &link, Fd parent) {
        char text[PATH_MAX];
        const ssize_t length = ::readlinkat(link.get(), "", text, sizeof text);
        if (length <= 0) return false;
        path_.assign(text, static_cast<size_t>(length));
        base_ = std::move(parent);
        return true;
    }

    Rule mayBeFollowed_;
    int directory_;
    Fd base_;  // of path_, once a link has been followed
    std::string path_;
    int links_ = 0;
    bool kernels_ = false;
};

// Opens what an open path (O_PATH) refers to; `path`, from `directory`, is where it was found. By way of the calling
// thread: /proc/self shows no descriptors when the process's first thread has ended.
Fd reopen(const Fd &place, int directory, const char *path) noexcept {
    char name[sizeof "/proc/thread-self/fd/" + 11];
    (void)std::snprintf(name, sizeof name, "/proc/thread-self/fd/%d", place.get());
    Fd file = open(AT_FDCWD, name, O_RDONLY | gently);
    if (file.valid() || errno != ENOENT) return file;
    // A bare chroot without /proc.
    return open(directory, path, O_RDONLY | gently);  // GCOVR_EXCL_LINE: nor can it write counters
}

// Opens what a link leads to by way of a descriptor that opens nothing yet, so that a device is told apart before its
// driver is called.
Fd openLinked(int directory, const char *path) {
    const auto rule = [](const struct stat &place, const struct stat &link) { return !mayBeForeign(place, link); };
    Links links(rule, directory, path);
    while (links.follow()) {
        const Fd place = open(links.directory(), links.path(), O_PATH | (links.isKernels() ? 0 : O_NOFOLLOW));
        struct stat status {};
        if (!place.valid() || ::fstat(place.get(), &status) == -1) return {};
        if (S_ISLNK(status.st_mode)) continue;
        return S_ISCHR(status.st_mode) ? refused(ENXIO) : reopen(place, links.directory(), links.path());
    }
    return {};
}

bool isDevice(const struct stat &file) { return S_ISCHR(file.st_mode) || S_ISBLK(file.st_mode); }

// Tells whether a file or FIFO may be written where it was found; false with errno.
bool mayBeWritten(int directory, const char *path, const struct stat &file) {
    if (isOurs(file) && file.st_nlink <= 1) return true;
    struct stat place {};
    if (::fstatat(directory, parentOf(path).c_str(), &place, 0) == -1) return false;
    if (mayBeForeign(place, file)) return denied();
    // A second name may be an attacker's, for a file that only we may write.
    return file.st_nlink <= 1 || isClosed(place) || denied();
}

// Closes a target that cannot be examined or must not be written where it was found; errno says which.
void admit(Target &target, int directory, const char *path) {
    if (!target.valid() || target.created) return;
    if (::fstat(target.file.get(), &target.status) == -1 ||
        (!isDevice(target.status) && !mayBeWritten(directory, path, target.status))) {
        target.file.reset();
    }
}

Target openLinkedTarget(int directory, const char *path, mode_t mode) {
    Links links(isPlacedByUs, directory, path);
    while (links.follow()) {
        if (links.isKernels()) {
            Target target{open(links.directory(), links.path(), O_WRONLY | gently)};
            if (target.valid() && ::fstat(target.file.get(), &target.status) == -1) return {};
            return target;
        }
        Target target = openOrCreate(links.directory(), links.path(), mode);
        if (!target.valid() && errno == ELOOP) continue;
        admit(target, links.directory(), links.path());
        return target;
    }
    return {};
}

Target openAnyTarget(int directory, const char *path, mode_t mode) {
    Target target = openOrCreate(directory, path, mode);
    if (!target.valid() && errno == ELOOP) {
        target = openLinkedTarget(directory, path, mode);
    } else {
        admit(target, directory, path);
    }
    return target;
}

Fd openLinkedDirectory(int directory, const char *path) {
    constexpr int flags = O_RDONLY | O_DIRECTORY;
    Links links(isPlacedByUs, directory, path);
    for (;;) {
        if (!links.follow()) return {};
        if (links.isKernels()) return open(links.directory(), links.path(), flags);
        Fd opened = open(links.directory(), links.path(), flags | O_NOFOLLOW);
        if (opened.valid() || errno != ENOTDIR) return opened;
    }
}

// Tells whether the file system of a directory stores neither owners nor modes: all its directories show those that it
// was mounted with, and nothing changes them.
bool storesNoModes(const Fd &directory) {
    struct statfs system {};
    if (::fstatfs(directory.get(), &system) == -1) return false;
    return system.f_type == MSDOS_SUPER_MAGIC || system.f_type == EXFAT_SUPER_MAGIC;
}

// Tells whether a directory may be the one just made. Where only we can have replaced it, it is; elsewhere it has to
// look like it: ours, without a right that it was not made with, and empty. On a memory stick, another directory of the
// stick would have the same owner and the same rights. False with errno.
bool isTheOneMade(int directory, const std::string &path, const Fd &made, mode_t creationMode) {
    struct stat place {};
    if (::fstatat(directory, parentOf(path).c_str(), &place, 0) == -1) return false;
    if (isClosed(place)) return true;
    struct stat status {};
    if (::fstat(made.get(), &status) == -1) return false;
    const bool ours = status.st_uid == ::geteuid() && (status.st_mode & allModes & ~(creationMode | S_ISGID)) == 0;
    if (!ours && (status.st_dev != place.st_dev || !storesNoModes(made))) return denied();
    EntryNames names;
    return names.read(made) && (!names.next() || denied());
}

Fd openMade(int directory, const std::string &path, mode_t creationMode, mode_t mode) {
    constexpr int flags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW;
    Fd made = open(directory, path.c_str(), flags);
    if (!made.valid()) {
        // An umask that takes the right to read from the owner.
        if (errno != EACCES || ::fchmodat(directory, path.c_str(), mode, AT_SYMLINK_NOFOLLOW) == -1) return {};
        return open(directory, path.c_str(), flags);
    }
    if (!isTheOneMade(directory, path, made, creationMode)) return {};
    return ::fchmod(made.get(), mode) == 0 ? std::move(made) : Fd();
}

template <typename Opening>
auto withoutMemoryRefused(Opening opening) noexcept -> decltype(opening()) {
    try {
        return opening();
    } catch (const std::bad_alloc &) {
        errno = ENOMEM;
        return {};
    }
}

}  // namespace

bool isOurs(const struct stat &file) noexcept { return isTrustedUser(file.st_uid); }

bool mayBeForeign(const struct stat &directory, const struct stat &entry) noexcept {
    return (directory.st_mode & S_IWOTH) != 0 && entry.st_uid != directory.st_uid && !isOurs(entry);
}

bool isClosed(const struct stat &directory) noexcept { return isOurs(directory) && (directory.st_mode & S_IWOTH) == 0; }

bool isPlacedByUs(const struct stat &directory, const struct stat &entry) noexcept {
    return isOurs(entry) || isClosed(directory);
}

bool isBelievable(const char *path) noexcept {
    char part[PATH_MAX];
    struct stat place {};
    for (const char *slash = path;;) {
        slash = std::strchr(slash + 1, '/');
        const size_t length = slash != nullptr ? static_cast<size_t>(slash - path) : std::strlen(path);
        if (length >= sizeof part) return false;
        *static_cast<char *>(mempcpy(part, path, length)) = '\0';
        struct stat entry {};
        if (::lstat(part, &entry) == -1 || mayBeForeign(place, entry)) return false;
        if (slash == nullptr) return true;
        place = entry;
        if (S_ISLNK(entry.st_mode) && ::stat(part, &place) == -1) return false;
    }
}

bool isKernelLink(const Fd &link) noexcept {
    struct statfs system {};
    return ::fstatfs(link.get(), &system) == 0 && system.f_type == PROC_SUPER_MAGIC;
}

Fd openToRead(int directory, const char *path) noexcept {
    const int before = errno;
    Fd file = open(directory, path, O_RDONLY | O_NOFOLLOW | gently);
    if (!file.valid() && errno == ELOOP) {
        file = withoutMemoryRefused([&] { return openLinked(directory, path); });
    }
    if (file.valid()) errno = before;
    return file;
}

Fd openNoDevice(const char *path) noexcept {
    const Fd place = open(AT_FDCWD, path, O_PATH);
    struct stat status {};
    if (!place.valid() || ::fstat(place.get(), &status) == -1) return {};
    const bool acts = isDevice(status) && status.st_rdev != nullDevice;
    return acts ? refused(ENXIO) : reopen(place, AT_FDCWD, path);
}

Fd openValue(int directory, const char *path, struct stat &status) noexcept {
    Fd file = openToRead(directory, path);
    if (!file.valid() || ::fstat(file.get(), &status) == -1) return {};
    return S_ISREG(status.st_mode) || S_ISDIR(status.st_mode) ? std::move(file) : refused(ENXIO);
}

Target openTarget(int directory, const char *path, mode_t mode) noexcept {
    const int before = errno;
    Target target = withoutMemoryRefused([&] { return openAnyTarget(directory, path, mode); });
    if (!target.valid()) return target;
    // A device is written with blocking calls; a FIFO must not make the writer wait.
    if (!target.created && isDevice(target.status)) (void)::fcntl(target.file.get(), F_SETFL, 0);
    errno = before;
    return target;
}

BrokenPipeGuard::BrokenPipeGuard(const Target &target) noexcept : active_(S_ISFIFO(target.status.st_mode)) {
    if (!active_) return;
    sigset_t pipe;
    sigemptyset(&pipe);
    sigaddset(&pipe, SIGPIPE);
    ::pthread_sigmask(SIG_BLOCK, &pipe, &before_);
}

// A signal that the thread had blocked before is the caller's own.
BrokenPipeGuard::~BrokenPipeGuard() {
    if (!active_ || sigismember(&before_, SIGPIPE) == 1) return;
    const ErrnoKeeper keeper;
    sigset_t pipe;
    sigemptyset(&pipe);
    sigaddset(&pipe, SIGPIPE);
    constexpr timespec atOnce{};
    (void)::sigtimedwait(&pipe, nullptr, &atOnce);
    ::pthread_sigmask(SIG_SETMASK, &before_, nullptr);
}

bool emptyTarget(const Target &target) noexcept {
    if (target.created || !S_ISREG(target.status.st_mode)) return true;
    return retryEintr([&] { return ::ftruncate(target.file.get(), 0); }) == 0;
}

Fd openDirectory(int directory, const char *path) noexcept {
    Fd opened = open(directory, path, O_RDONLY | O_DIRECTORY | O_NOFOLLOW);
    if (opened.valid() || errno != ENOTDIR) return opened;
    return withoutMemoryRefused([&] { return openLinkedDirectory(directory, path); });
}

Fd openMadeDirectory(int directory, const char *path, mode_t creationMode, mode_t mode) noexcept {
    return withoutMemoryRefused([&] { return openMade(directory, withoutSlashes(path), creationMode, mode); });
}

std::string withoutSlashes(const char *path) {
    std::string text = path;
    while (text.size() > 1 && text.back() == '/') text.pop_back();
    return text;
}

}  // namespace vx
