// SPDX-License-Identifier: MIT
// Opens files whose names an ordinary user may have taken first: in /dev/shm, /tmp, /var/lock.
#pragma once

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <unistd.h>

#include <cerrno>

#include "vxutils/internal/fd.h"

namespace vx {

// Root and the user that this process acts as may be trusted; whatever belongs to anyone else is a stranger's.
inline bool isTrustedUser(uid_t user) noexcept { return user == 0 || user == ::geteuid(); }

inline bool onlyOwnerMayWrite(const struct stat &status) noexcept {
    return (status.st_mode & (S_IWGRP | S_IWOTH)) == 0;
}

// Tells whether this is a regular file that neither a stranger nor a group can change, now or later.
inline bool isSafe(const struct stat &status) noexcept {
    return S_ISREG(status.st_mode) && isTrustedUser(status.st_uid) && onlyOwnerMayWrite(status);
}

// Opens a regular file and nothing else. A link is not followed (ELOOP), a FIFO or a lease that its maker holds makes
// the call fail instead of wait, and what is not a regular file is refused (EISDIR, EINVAL). Not for O_TRUNC: the
// kernel would truncate before the file is looked at; call ftruncate() afterwards. `status` receives the file's status.
inline Fd openRegular(const char *path, int flags, mode_t mode, struct stat &status) noexcept {
    Fd fd(::open(path, flags | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC, mode));
    if (!fd.valid() || ::fstat(fd.get(), &status) == -1) return Fd();
    if (S_ISREG(status.st_mode)) return fd;
    errno = S_ISDIR(status.st_mode) ? EISDIR : EINVAL;
    return Fd();
}

// Opens such a file that must belong to a trusted user; EPERM for a stranger's.
inline Fd openTrusted(const char *path, int flags, mode_t mode, struct stat &status) noexcept {
    Fd fd = openRegular(path, flags, mode, status);
    if (!fd.valid() || isTrustedUser(status.st_uid)) return fd;
    errno = EPERM;
    return Fd();
}

}  // namespace vx
