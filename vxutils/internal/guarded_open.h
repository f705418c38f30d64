// SPDX-License-Identifier: MIT
// Opening files in places where an ordinary user may have put something else: a FIFO, a link, a file of his own.
#pragma once

#include <sys/stat.h>

#include <csignal>
#include <string>

#include "vxutils/internal/fd.h"

namespace vx {

// Functions that return a descriptor leave errno as it was when they succeed.

// Links in one path; the kernel's own limit.
inline constexpr int mostLinks = 40;

// Tells whether a file belongs to root or to the user this process acts for.
bool isOurs(const struct stat &file) noexcept;

// Tells whether a stranger may have put `entry` into `directory`: every user may write there, and the entry belongs
// neither to root, nor to this process's user, nor to the directory's owner. The kernel's protected_symlinks applies
// the same rule to links in sticky directories.
bool mayBeForeign(const struct stat &directory, const struct stat &entry) noexcept;

// Tells whether a directory is ours and not open to every user. Its group, if it may write, counts as trusted by its
// owner.
bool isClosed(const struct stat &directory) noexcept;

// Tells whether root or this process's user has put `entry` into `directory`: the entry is ours, or the directory is
// closed.
bool isPlacedByUs(const struct stat &directory, const struct stat &entry) noexcept;

// Tells whether a file may be believed: no stranger may have put it there, nor a directory or link that its path leads
// through. What lies in the root directory is the system's own and is taken as it is. False for what does not exist.
bool isBelievable(const char *path) noexcept;

// Tells whether an open link (O_PATH) is one of the kernel's in /proc. Its text may be no path; only the kernel can
// follow it.
bool isKernelLink(const Fd &link) noexcept;

// Opens a file for reading without waiting for anything: the writer of a FIFO, the end of a lease. Links are followed
// unless they may be foreign (EACCES), and what they lead to is looked at before it is opened: a character device is
// refused with ENXIO, because opening it makes its driver act.
Fd openToRead(int directory, const char *path) noexcept;

// Opens a file that another user may have named, for reading and without waiting. All links are followed, but what is
// found is looked at before it is opened: a device is refused with ENXIO, because opening it makes its driver act (a
// watchdog starts). The null device is allowed.
Fd openNoDevice(const char *path) noexcept;

// Opens, in the same way as openToRead(), a file that holds a value: what is neither a regular file nor a directory is
// refused with ENXIO. `status` receives the file's status.
Fd openValue(int directory, const char *path, struct stat &status) noexcept;

// A file opened for writing.
struct Target {
    Fd file;
    bool created = false;
    struct stat status {};  // of a file that was there already

    [[nodiscard]] bool valid() const noexcept { return file.valid(); }
};

// Opens a file for writing, creates it with `mode` when it is missing, and leaves its content as it is.
//
// Never waits: a FIFO without a reader fails with ENXIO, one with a reader stays non-blocking. Refused with EACCES: a
// link that was not placed by us, an existing file or FIFO that may be foreign, and a file with a second name in a
// directory where a stranger may have made that name.
Target openTarget(int directory, const char *path, mode_t mode) noexcept;

// Keeps a FIFO whose reader leaves from ending the process: a write to it fails with EPIPE and raises no SIGPIPE.
// Without effect for other targets. Of this thread only.
class BrokenPipeGuard {
public:
    explicit BrokenPipeGuard(const Target &target) noexcept;
    ~BrokenPipeGuard();
    BrokenPipeGuard(const BrokenPipeGuard &) = delete;
    BrokenPipeGuard &operator=(const BrokenPipeGuard &) = delete;

private:
    bool active_;
    sigset_t before_;
};

// Empties what openTarget() opened, if it has something to empty.
bool emptyTarget(const Target &target) noexcept;

// Opens a directory for reading its entries. Links in the path's last place are followed when they were placed by us.
Fd openDirectory(int directory, const char *path) noexcept;

// Opens the directory that mkdirat() has just made with `creationMode`, and gives it `mode`. Refused with EACCES when
// it is another one by now.
Fd openMadeDirectory(int directory, const char *path, mode_t creationMode, mode_t mode) noexcept;

// Returns a path without the slashes at its end, which would make the kernel follow a link in its last place.
std::string withoutSlashes(const char *path);

}  // namespace vx
