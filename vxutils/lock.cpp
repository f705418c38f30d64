// SPDX-License-Identifier: MIT
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vxutils/lock.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <new>
#include <utility>

#include "vxutils/internal/fd.h"
#include "vxutils/internal/log.h"
#include "vxutils/internal/retry.h"

using vx::Fd;

struct firewall_lock_handle {
    Fd fd;
};

namespace {

constexpr mode_t lockDirectoryMode = 0x755;  // hexadecimal on purpose, as for every directory made by mkdir() here
constexpr unsigned int retryPause_s = 1;

constexpr const char *firewallLockPath = "/var/lock/iptables_flock_file";
constexpr mode_t firewallLockMode = 0600;

int flockThroughSignals(const Fd &fd, int operation) {
    return vx::retryEintr([&] { return ::flock(fd.get(), operation); });
}

}  // namespace

int acquire_lock(const char *path, int tries) {
    if (tries < 0) return 0;
    if (path == nullptr) return -1;
    for (; tries > 0; --tries) {
        if (::mkdir(path, lockDirectoryMode) == 0) return 0;
        ::sleep(retryPause_s);
    }
    return -1;
}

int release_lock(const char *path) {
    if (path != nullptr && ::access(path, R_OK) == 0) (void)std::remove(path);
    return 0;
}

firewall_lock_handle *firewall_lock(void) {
    Fd fd(::open(firewallLockPath, O_RDONLY | O_CREAT | O_NOCTTY | O_CLOEXEC, firewallLockMode));
    if (!fd.valid()) {
        vx::log(LOG_ERR, "firewall_lock: unable to open lockfile \"%s\" - errno=%s", firewallLockPath,
                std::strerror(errno));
        return nullptr;
    }
    if (flockThroughSignals(fd, LOCK_EX) == -1) {
        vx::log(LOG_ERR, "firewall_lock: unable to acquire lock, errno=%s", std::strerror(errno));
        return nullptr;
    }
    auto *handle = new (std::nothrow) firewall_lock_handle;
    if (handle == nullptr) {
        (void)flockThroughSignals(fd, LOCK_UN);
        vx::log(LOG_ERR, "firewall_lock: context allocation failed");
        return nullptr;
    }
    handle->fd = std::move(fd);
    return handle;
}

int firewall_unlock(firewall_lock_handle *handle) {
    if (handle == nullptr) return 0;
    if (flockThroughSignals(handle->fd, LOCK_UN) == -1) {
        vx::log(LOG_ERR, "firewall_unlock: flock(LOCK_UN) failed - errno=%s", std::strerror(errno));
    }
    delete handle;
    return 0;
}
