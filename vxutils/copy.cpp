// SPDX-License-Identifier: MIT
// Copies of files and of directory trees.
#include <fcntl.h>
#include <libgen.h>
#include <sys/sendfile.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vxutils/file.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include "vxutils/file_memory_guard.h"
#include "vxutils/internal/fd.h"
#include "vxutils/internal/guarded_open.h"
#include "vxutils/internal/handles.h"
#include "vxutils/internal/log.h"
#include "vxutils/internal/tree_walk.h"

using vx::EntryNames;
using vx::Fd;
using vx::MallocText;
using vx::TreePlace;

namespace {

constexpr mode_t creationMode = 0x755;  // Quirk Q21.
constexpr mode_t copyMode = 0755;       // of the directories that copy_directory() makes
constexpr mode_t modeBits = 07777;

// A file: its name in an open directory, and the path of that directory if messages show it.
struct Name {
    int directory;
    const char *name;
    const std::string *folder = nullptr;

    // Returns what messages show, which may be kept in `path`.
    const char *shown(std::string &path) const {
        if (folder == nullptr) return name;
        path = *folder;
        return path.append("/").append(name).c_str();
    }
};

// Makes the directory of a file, if it is missing.
int ensureFolderOf(const char *file) {
    const MallocText copy(strdup(file));
    if (!copy) return -1;
    char *const folder = ::dirname(copy.get());
    struct stat status;
    if (::lstat(folder, &status) == 0) {
        if (S_ISDIR(status.st_mode)) return 0;
        vx::log(LOG_ERR, "%s is not a folder", folder);
        return -1;
    }
    if (errno != ENOENT) {
        vx::log(LOG_ERR, "Can't read folder %s stats: %s (%d)", folder, std::strerror(errno), errno);
        return -1;
    }
    if (create_directory(folder) == 0) return 0;
    vx::log(LOG_ERR, "Can't create folder %s: %s (%d)", folder, std::strerror(errno), errno);
    return -1;
}

// Clamps a file's size to what sendfile() can be asked for; on 32-bit machines a conversion would cut it to its low
// bits.
size_t transferSize(off_t size) {
    return static_cast<size_t>(std::clamp<intmax_t>(size, 0, static_cast<intmax_t>(SIZE_MAX / 2)));
}

bool isSame(const struct stat &one, const struct stat &other) {
    return one.st_dev == other.st_dev && one.st_ino == other.st_ino;
}

int cannotSend() {
    vx::log(LOG_ERR, "Sendfile error: %s (%d)", std::strerror(errno), errno);
    return -1;
}

int cannotOpenTarget(const Name &dst) {
    const int error = errno;
    std::string path;
    vx::log(LOG_ERR, "Destination file %s could not be opened: %s (%d)", dst.shown(path), std::strerror(error), error);
    return -1;
}

// Returns the mode of a copy. A copy belongs to the user who makes it, so a copied set-user-id bit of another user's
// program would make it run with this user's rights.
mode_t modeOfCopy(const struct stat &source) {
    mode_t mode = source.st_mode & modeBits;
    if ((mode & S_ISUID) != 0 && source.st_uid != ::geteuid()) mode &= ~mode_t{S_ISUID};
    if ((mode & S_ISGID) != 0 && source.st_gid != ::getegid()) mode &= ~mode_t{S_ISGID};
    return mode;
}

// Opens the source of a copy, which must be a regular file or a block device: only these can be sent.
Fd openSource(const Name &src, struct stat &status) {
    Fd from = vx::openToRead(src.directory, src.name);
    if (!from.valid()) {
        const int error = errno;
        std::string path;
        vx::log(LOG_ERR, "Source file %s could not be opened: %s (%d)", src.shown(path), std::strerror(error), error);
        return from;
    }
    if (::fstat(from.get(), &status) == -1) {
        vx::log(LOG_ERR, "Can't read file stats: %s (%d)", std::strerror(errno), errno);
        return {};
    }
    if (S_ISREG(status.st_mode) || S_ISBLK(status.st_mode)) return from;
    errno = EINVAL;
    (void)cannotSend();
    return {};
}

// Quirk Q27.
int transfer(const Fd &from, const struct stat &source, const Name &dst) {
    const vx::Target target = vx::openTarget(dst.directory, dst.name, modeOfCopy(source));
    if (!target.valid()) return cannotOpenTarget(dst);
    if (!target.created && isSame(source, target.status)) return 0;  // emptying the target would empty the source
    if (!vx::emptyTarget(target)) return cannotOpenTarget(dst);
    const vx::BrokenPipeGuard guard(target);
    if (::sendfile(target.file.get(), from.get(), nullptr, transferSize(source.st_size)) == -1) return cannotSend();
    return 0;
}

// Opens a directory that exists; EACCES for one that a stranger has put where every user may. Its files may be his,
// too: he could read what is copied into them.
Fd openExisting(int directory, const char *name) {
    Fd existing(::openat(directory, name, O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    struct stat place {};
    struct stat status {};
    if (!existing.valid() || ::fstatat(directory, ".", &place, 0) == -1 || ::fstat(existing.get(), &status) == -1) {
        return {};
    }
    if (!vx::mayBeForeign(place, status)) return existing;
    errno = EACCES;
    return {};
}

// Opens the destination of a directory's copy, and makes it if it is missing.
Fd openCopy(int directory, const char *name) {
    struct stat status;
    if (::fstatat(directory, name, &status, AT_SYMLINK_NOFOLLOW) == -1) {
        if (::mkdirat(directory, name, creationMode) == -1) return {};
        return vx::openMadeDirectory(directory, name, creationMode, copyMode);
    }
    return openExisting(directory, name);
}

// Tells whether a directory with this status is inside the tree whose top is `top`, or is the top itself.
bool isInside(Fd directory, struct stat status, const struct stat &top) {
    for (;;) {
        if (isSame(status, top)) return true;
        Fd above(::openat(directory.get(), "..", O_PATH | O_DIRECTORY | O_CLOEXEC));
        struct stat next {};
        if (!above.valid() || ::fstat(above.get(), &next) == -1 || isSame(status, next)) return false;
        directory = std::move(above);
        status = next;
    }
}

// Copies a tree level by level, without recursion, so that a deep tree does not need a deep stack.
class TreeCopy {
public:
    TreeCopy(Fd from, Fd to, const struct stat &top, const char *src, const char *dst)
        : from_(std::move(from), O_RDONLY), to_(std::move(to), O_PATH), top_(top), src_(src), dst_(dst) {}

    int run() {
        if (!enter()) return -1;
        while (!levels_.empty()) {
            EntryNames &names = levels_.back().names;
            if (names.next() ? !copyEntry(names.current()) : !leave()) return -1;
        }
        return 0;
    }

private:
    struct Level {
        EntryNames names;
        size_t srcLength;
        size_t dstLength;
    };

    // Reads all entries before the first of them is copied.
    bool enter() {
        levels_.push_back({{}, src_.size(), dst_.size()});
        return levels_.back().names.read(from_.here());
    }

    bool leave() {
        levels_.pop_back();
        if (levels_.empty()) return true;
        src_.resize(levels_.back().srcLength);
        dst_.resize(levels_.back().dstLength);
        return from_.up() && to_.up();
    }

    bool copyEntry(const char *name) {
        struct stat status;
        if (::fstatat(from_.here().get(), name, &status, AT_SYMLINK_NOFOLLOW) == -1) return false;
        if (!S_ISDIR(status.st_mode)) return copyFile(name);
        if (isSame(status, top_) && !isCopiedOntoItself(name, status)) {
            errno = EINVAL;
            return false;
        }
        return copySubdirectory(name);
    }

    bool copyFile(const char *name);

    bool isCopiedOntoItself(const char *name, const struct stat &status) const {
        struct stat copy {};
        return ::fstatat(to_.here().get(), name, &copy, AT_SYMLINK_NOFOLLOW) == 0 && isSame(copy, status);
    }

    bool copySubdirectory(const char *name) {
        Fd copy = openCopy(to_.here().get(), name);
        if (!copy.valid() || !from_.down(name)) return false;
        to_.down(std::move(copy));
        src_.append("/").append(name);
        dst_.append("/").append(name);
        return enter();
    }

    TreePlace from_;
    TreePlace to_;
    struct stat top_;  // of the destination: found in the source by way of a bind mount, it would grow without end
    std::string src_;  // of the current directory, for messages
    std::string dst_;
    std::vector<Level> levels_;
};

bool TreeCopy::copyFile(const char *name) {
    struct stat status;
    const Fd from = openSource({from_.here().get(), name, &src_}, status);
    return from.valid() && transfer(from, status, {to_.here().get(), name, &dst_}) == 0;
}

// Fails with EINVAL for a destination inside the source tree, where the copy would never end, and with the reason when
// that cannot be told.
bool hasEnd(const vx::LastComponent &dst, const struct stat &source) {
    constexpr int flags = O_PATH | O_DIRECTORY | O_CLOEXEC;
    Fd place(::openat(dst.directory(), dst.name(), flags | O_NOFOLLOW));
    const bool exists = place.valid();
    if (!exists) place = Fd(::openat(dst.directory(), ".", flags));
    struct stat status {};
    if (!place.valid() || ::fstat(place.get(), &status) == -1) return false;
    // The source itself as destination is allowed: each of its files is left as it is.
    if ((exists && isSame(status, source)) || !isInside(std::move(place), status, source)) return true;
    errno = EINVAL;
    return false;
}

int copyTree(const char *src, const char *dst) {
    const vx::LastComponent last(dst);
    if (!last.valid()) return -1;
    constexpr int flags = O_RDONLY | O_DIRECTORY | O_CLOEXEC;
    Fd from(::open(src, flags));
    struct stat source {};
    if (from.valid() && (::fstat(from.get(), &source) == -1 || !hasEnd(last, source))) return -1;
    Fd to = openCopy(last.directory(), last.name());  // made even when there is nothing to copy
    if (!to.valid()) return -1;
    if (!from.valid()) from = Fd(::open(src, flags));  // what was just made may be the source, or lead to it
    if (!from.valid()) return -1;
    struct stat top {};
    if (::fstat(to.get(), &top) == -1) return -1;
    return TreeCopy(std::move(from), std::move(to), top, src, dst).run();
}

}  // namespace

int copy_file(const char *src, const char *dst) {
    if (src == nullptr || *src == '\0') {
        vx::log(LOG_ERR, "Invalid source file name");
        return -1;
    }
    if (dst == nullptr || *dst == '\0') {
        vx::log(LOG_ERR, "Invalid destination file name");
        return -1;
    }
    struct stat source {};
    const Fd from = openSource({AT_FDCWD, src}, source);
    if (!from.valid() || ensureFolderOf(dst) == -1) return -1;
    return transfer(from, source, {AT_FDCWD, dst});
}

int copy_directory(const char *src, const char *dst) {
    if (src == nullptr || dst == nullptr) return -1;
    return vx::memoryGuarded([src, dst] { return copyTree(src, dst); });
}
