// SPDX-License-Identifier: MIT
#include "vxutils/statusinterface_path.h"

#include <fcntl.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <new>
#include <utility>

#include "vxutils/internal/guarded_open.h"
#include "vxutils/internal/log.h"
#include "vxutils/internal/retry.h"

namespace vx {
namespace {

Fd openPlace(int directory, const char *path, int flags) {
    return Fd(retryEintr([&] { return ::openat(directory, path, O_PATH | O_CLOEXEC | flags); }));
}

// Calls `each` for the components of a path until one of them returns false.
template <typename Each>
bool forComponents(std::string_view path, Each each) {
    while (!path.empty()) {
        const std::string_view component = path.substr(0, path.find('/'));
        path.remove_prefix(std::min(component.size() + 1, path.size()));
        if (!component.empty() && !each(component)) return false;
    }
    return true;
}

// Tells whether no stranger can exchange a directory's entry for another one.
bool isFirmlyIn(const struct stat &directory, const struct stat &entry) {
    if (isClosed(directory)) return true;
    return isOurs(directory) && (directory.st_mode & S_ISVTX) != 0 && isOurs(entry);
}

}  // namespace

int StatusWalk::directory() const { return here_.valid() ? here_.get() : AT_FDCWD; }

std::string StatusWalk::nameOf(std::string_view component) const {
    return std::string(atRoot() ? "/" : "").append(component);
}

bool StatusWalk::isSafe(const struct stat &entry) const {
    if (mayBeForeign(status_, entry)) return false;
    return use_ == Use::reading || !S_ISLNK(entry.st_mode) || isPlacedByUs(status_, entry);
}

bool StatusWalk::go(Fd next) {
    struct stat status {};
    if (!next.valid() || ::fstat(next.get(), &status) == -1) return false;
    here_ = std::move(next);
    status_ = status;
    return true;
}

bool StatusWalk::enter(std::string_view component) {
    const std::string name = nameOf(component);
    if (atRoot()) return go(openPlace(AT_FDCWD, name.c_str(), O_DIRECTORY));
    if (!here_.valid() && !go(openPlace(AT_FDCWD, ".", O_DIRECTORY))) return false;
    Fd next = openPlace(here_.get(), name.c_str(), O_NOFOLLOW);
    struct stat status {};
    if (!next.valid() || ::fstat(next.get(), &status) == -1) return false;
    if (name != ".." && !isSafe(status)) {
        unsafe_ = name;
        owner_ = status.st_uid;
        errno = EACCES;
        return false;
    }
    if (S_ISLNK(status.st_mode)) return follow(next, name);
    if (!S_ISDIR(status.st_mode)) {
        errno = ENOTDIR;
        return false;
    }
    here_ = std::move(next);
    status_ = status;
    return true;
}

// Walks through a link's text, so that what it leads to is looked at as well.
bool StatusWalk::follow(const Fd &link, const std::string &name) {
    if (++links_ > mostLinks) {
        errno = ELOOP;
        return false;
    }
    if (isKernelLink(link)) return go(openPlace(here_.get(), name.c_str(), O_DIRECTORY));
    char text[PATH_MAX];
    const ssize_t length = ::readlinkat(link.get(), "", text, sizeof text);
    if (length <= 0) return false;
    const std::string target(text, static_cast<size_t>(length));
    if (target.front() == '/') {
        here_.reset();
        status_ = {};
        absolute_ = true;
    }
    return forComponents(target, [this](std::string_view component) { return enter(component); });
}

void StatusWalk::logUnsafe(const char *path) const {
    log(LOG_ERR, "Refused status path %s: \"%s\" belongs to user %u!", path, unsafe_.c_str(),
        static_cast<unsigned int>(owner_));
}

StatusPath::StatusPath(const char *path, Use use) noexcept : walk_(use, *path == '/') {
    try {
        valid_ = find(path);
    } catch (const std::bad_alloc &) {
        errno = ENOMEM;
    }
}

bool StatusPath::find(const char *path) {
    name_ = path;
    if (isFirm()) return true;
    const bool found = walkTo(path);
    status_ = walk_.status();
    if (walk_.isUnsafe()) walk_.logUnsafe(path);
    return found;
}

// Tells whether the path may be used as it is: it leads through directories only, no links, and each of them stays what
// it is. So it is with every tree that was made with care, and a look at each directory costs less than to open it.
bool StatusPath::isFirm() {
    if (name_.empty() || name_.front() != '/' || name_.back() == '/') return false;
    bool first = true;
    for (size_t slash = name_.find('/', 1); slash != std::string::npos; slash = name_.find('/', slash + 1)) {
        struct stat status {};
        name_[slash] = '\0';
        const bool there = ::lstat(name_.c_str(), &status) == 0 && S_ISDIR(status.st_mode);
        name_[slash] = '/';
        if (!there || (!first && !isFirmlyIn(status_, status))) return false;
        status_ = status;
        first = false;
    }
    return !first;
}

bool StatusPath::walkTo(std::string_view path) {
    const size_t nameAt = path.find_last_of('/') + 1;  // 0 without a slash
    const std::string_view directory = path.substr(0, nameAt);
    const bool there = forComponents(directory, [this](std::string_view component) { return walk_.enter(component); });
    const std::string_view last = path.substr(nameAt);
    name_ = walk_.nameOf(last.empty() && !path.empty() ? "." : last);
    return there;
}

}  // namespace vx
