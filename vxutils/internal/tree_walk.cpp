// SPDX-License-Identifier: MIT
#include "vxutils/internal/tree_walk.h"

#include <dirent.h>
#include <fcntl.h>

#include <cerrno>
#include <cstring>
#include <utility>

#include "vxutils/internal/retry.h"

namespace vx {
namespace {

constexpr size_t batchSize = 8192;  // bytes of entries read at a time

bool isDotName(const char *name) { return std::strcmp(name, ".") == 0 || std::strcmp(name, "..") == 0; }

Fd openDirectoryAt(const Fd &directory, const char *name, int flags) {
    return Fd(
        retryEintr([&] { return ::openat(directory.get(), name, flags | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC); }));
}

}  // namespace

LastComponent::LastComponent(const std::string &path) : here_(true), name_(path) {
    const size_t end = path.find_last_not_of('/');
    const size_t slash = path.find_last_of('/', end);
    if (end == std::string::npos || slash == std::string::npos) return;
    here_ = false;
    directory_ =
        Fd(retryEintr([&] { return ::open(path.substr(0, slash + 1).c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC); }));
    name_ = path.substr(slash + 1);
}

int LastComponent::directory() const { return here_ ? AT_FDCWD : directory_.get(); }

bool EntryNames::read(const Fd &directory) {
    alignas(dirent64) char batch[batchSize];
    for (;;) {
        const ssize_t size = retryEintr([&] { return ::getdents64(directory.get(), batch, sizeof batch); });
        if (size <= 0) return size == 0;
        for (ssize_t at = 0; at < size;) {
            // By way of void: the compiler does not know that the kernel aligns each record.
            const auto *entry = static_cast<const dirent64 *>(static_cast<const void *>(batch + at));
            at += entry->d_reclen;
            if (!isDotName(entry->d_name)) names_.append(entry->d_name, std::strlen(entry->d_name) + 1);
        }
    }
}

bool EntryNames::next() {
    if (next_ == names_.size()) return false;
    current_ = next_;
    next_ += std::strlen(current()) + 1;
    return true;
}

TreePlace::Identity TreePlace::identityOf(const Fd &directory) {
    struct stat status {};
    (void)::fstat(directory.get(), &status);  // a failure leaves what no directory has
    return {status.st_dev, status.st_ino};
}

bool TreePlace::down(const char *name) {
    Fd subdirectory = openDirectoryAt(here_, name, flags_);
    if (!subdirectory.valid()) return false;
    down(std::move(subdirectory));
    return true;
}

void TreePlace::down(Fd subdirectory) {
    above_.push_back({std::exchange(here_, std::move(subdirectory)), {}});
    if (above_.size() <= mostOpen) return;
    Above &farthest = above_[above_.size() - mostOpen - 1];
    farthest.identity = identityOf(farthest.directory);
    farthest.directory.reset();
}

bool TreePlace::up() {
    Above &above = above_.back();
    if (!above.directory.valid()) {
        above.directory = openDirectoryAt(here_, "..", flags_);
        if (!above.directory.valid()) return false;
        if (identityOf(above.directory) != above.identity) {
            errno = ESTALE;
            return false;
        }
    }
    here_ = std::move(above.directory);
    above_.pop_back();
    return true;
}

}  // namespace vx
