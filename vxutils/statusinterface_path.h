// SPDX-License-Identifier: MIT
// Paths of the status trees, which others may have made before us.
#pragma once

#include <sys/stat.h>

#include <string>
#include <string_view>

#include "vxutils/internal/fd.h"

namespace vx {

enum class Use { reading, writing };

// Goes through a path directory by directory, each opened in the one before. A directory or link that a stranger may
// have put there (guarded_open.h) is unsafe and ends the walk; so does, for writing, every link that was not placed by
// us. What lies in the root directory is the system's own and is taken as it is.
class StatusWalk {
public:
    StatusWalk(Use use, bool absolute) : use_(use), absolute_(absolute) {}

    // Goes on to a subdirectory; false with errno when that fails or is unsafe.
    bool enter(std::string_view component);

    // Returns the directory reached, for the functions ending in "at", together with nameOf() of what is looked for in
    // it.
    [[nodiscard]] int directory() const;
    [[nodiscard]] std::string nameOf(std::string_view component) const;
    [[nodiscard]] const struct stat &status() const { return status_; }

    // What made the walk end, if it was unsafe: its name and its owner.
    [[nodiscard]] bool isUnsafe() const { return !unsafe_.empty(); }
    void logUnsafe(const char *path) const;

private:
    bool go(Fd next);
    bool follow(const Fd &link, const std::string &name);
    bool isSafe(const struct stat &entry) const;
    [[nodiscard]] bool atRoot() const { return absolute_ && !here_.valid(); }

    Use use_;
    bool absolute_;  // starts at the root directory, not at the current one
    Fd here_;
    struct stat status_ {};
    int links_ = 0;
    std::string unsafe_;
    uid_t owner_ = 0;
};

// Where a path's last component is to be found, for the functions ending in "at". An unsafe path is logged (LOG_ERR).
// Not valid, with ENOMEM, when there is no memory.
class StatusPath {
public:
    StatusPath(const char *path, Use use) noexcept;

    [[nodiscard]] bool valid() const { return valid_; }
    [[nodiscard]] bool isUnsafe() const { return walk_.isUnsafe(); }
    [[nodiscard]] int directory() const { return walk_.directory(); }
    [[nodiscard]] const char *name() const { return name_.c_str(); }

    // Of the directory that holds it.
    [[nodiscard]] const struct stat &directoryStatus() const { return status_; }

private:
    bool find(const char *path);
    bool isFirm();
    bool walkTo(std::string_view path);

    StatusWalk walk_;
    std::string name_;
    struct stat status_ {};
    bool valid_ = false;
};

}  // namespace vx
