// SPDX-License-Identifier: MIT
// Directories: made, emptied, removed, copied.
#include <dirent.h>
#include <fcntl.h>
#include <libgen.h>
#include <sys/sendfile.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vxutils/file.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>
#include <optional>
#include <string>
#include <vector>

#include "vxutils/internal/fd.h"
#include "vxutils/internal/handles.h"
#include "vxutils/internal/log.h"

using vx::DirPtr;
using vx::Fd;
using vx::MallocText;

namespace {

constexpr mode_t creationMode = 0x755;  // hexadecimal on purpose: what mkdir() has always been given here
constexpr mode_t sharedMode = 0555;     // of the directories that try_mkdir() makes
constexpr mode_t copyMode = 0755;       // of those that copy_directory() makes
constexpr mode_t modeBits = 07777;
constexpr size_t pathSize = 4096;  // of an entry's path, terminator included

using Names = std::vector<std::string>;

bool isDotName(const char *name) { return std::strcmp(name, ".") == 0 || std::strcmp(name, "..") == 0; }

// The entries of a directory but "." and "..", in the directory's order. They are read before the first of them is
// touched, so that no stream is open on the way down and a tree may be deeper than a process may have descriptors.
std::optional<Names> entriesOf(const std::string &path) {
    const DirPtr dir(::opendir(path.c_str()));
    if (!dir) return std::nullopt;
    Names names;
    errno = 0;  // the only way to tell a failed readdir() from the end
    while (const dirent *entry = ::readdir(dir.get())) {
        if (!isDotName(entry->d_name)) names.emplace_back(entry->d_name);
    }
    if (errno != 0) return std::nullopt;
    return names;
}

// Extends a path by an entry's name. One that does not fit is refused, never cut: it would name something else.
bool enter(std::string &path, const std::string &name) {
    if (path.size() + 1 + name.size() >= pathSize) {
        errno = ENAMETOOLONG;
        return false;
    }
    path.append(1, '/').append(name);
    return true;
}

int deleteTree(std::string &path);

int deleteEntries(std::string &path, const Names &names) {
    const size_t length = path.size();
    for (const std::string &name : names) {
        struct stat status;
        if (!enter(path, name) || ::lstat(path.c_str(), &status) == -1) return -1;
        if (S_ISDIR(status.st_mode)) {
            (void)deleteTree(path);
        } else {
            (void)std::remove(path.c_str());
        }
        path.resize(length);
    }
    return 0;
}

int deleteTree(std::string &path) {
    const auto names = entriesOf(path);
    if (names && deleteEntries(path, *names) == -1) return -1;
    (void)std::remove(path.c_str());  // a file, where there was no directory to open
    return 0;
}

int ensureCopyDirectory(const char *path) {
    struct stat status;
    if (::lstat(path, &status) == -1) {
        return ::mkdir(path, creationMode) == 0 && ::chmod(path, copyMode) == 0 ? 0 : -1;
    }
    return S_ISDIR(status.st_mode) ? 0 : -1;
}

int copyTree(std::string &src, std::string &dst) {
    if (ensureCopyDirectory(dst.c_str()) == -1) return -1;
    const auto names = entriesOf(src);
    if (!names) return -1;
    const size_t srcLength = src.size();
    const size_t dstLength = dst.size();
    for (const std::string &name : *names) {
        struct stat status;
        if (!enter(src, name) || !enter(dst, name) || ::lstat(src.c_str(), &status) == -1) return -1;
        const int result = S_ISDIR(status.st_mode) ? copyTree(src, dst) : copy_file(src.c_str(), dst.c_str());
        if (result != 0) return -1;
        src.resize(srcLength);
        dst.resize(dstLength);
    }
    return 0;
}

// Runs a function that may run out of memory behind a C interface.
template <typename Function>
int guarded(Function function) noexcept {
    try {
        return function();
    } catch (const std::bad_alloc &) {
        errno = ENOMEM;
        return -1;
    }
}

// The directory that is to hold a file: there, or made.
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

// A size beyond what one transfer can ask for is left to the kernel's own limit, not cut to its low bits.
size_t transferSize(off_t size) {
    return static_cast<size_t>(std::clamp<intmax_t>(size, 0, static_cast<intmax_t>(SIZE_MAX / 2)));
}

}  // namespace

int try_mkdir(const char *path) {
    if (path == nullptr) {
        errno = EINVAL;
        return -1;
    }
    if (::mkdir(path, creationMode) == 0) {
        if (::chmod(path, sharedMode) == 0) return 0;
        vx::log(LOG_DEBUG, "Cannot create directory. chmod %s throw errno=%d, %s", path, errno, std::strerror(errno));
        return -1;
    }
    if (errno != EEXIST) {
        vx::log(LOG_ERR, "Cannot create directory. mkdir %s throw errno=%d, %s", path, errno, std::strerror(errno));
        return -1;
    }
    struct stat status;
    if (::lstat(path, &status) == -1) {
        vx::log(LOG_ERR, "Unknown errno using lstat in create_directory for %s. errno=%d, %s", path, errno,
                std::strerror(errno));
        return -1;
    }
    if (S_ISDIR(status.st_mode) || S_ISLNK(status.st_mode)) return 0;
    vx::log(LOG_ERR, "Cannot create directory. %s exists and it is neither a directory nor a symbolic link", path);
    return -1;
}

int create_directory(char *path) {
    if (path == nullptr) {
        vx::log(LOG_ERR, "Wrong use of create_directory. the parameter is NULL");
        return -1;
    }
    if (*path == '\0') {
        vx::log(LOG_ERR, "Wrong use of create_directory. the parameter is empty");
        return -1;
    }
    if (std::strcmp(path, ".") == 0 || std::strcmp(path, "/") == 0) return 0;
    const MallocText copy(strdup(path));
    if (!copy) return -1;
    char *const text = copy.get();
    const size_t last = std::strlen(text) - 1;
    if (text[last] == '/') text[last] = '\0';
    for (char *slash = std::strchr(text + 1, '/'); slash != nullptr; slash = std::strchr(slash + 1, '/')) {
        *slash = '\0';
        const int result = try_mkdir(text);
        if (result != 0) return result;
        *slash = '/';
    }
    return try_mkdir(text);
}

int delete_regular_file(const char *name) {
    struct stat status;
    if (name == nullptr || ::lstat(name, &status) == -1) return 0;
    if (!S_ISREG(status.st_mode)) return -1;
    return ::unlink(name);
}

int delete_directory(const char *path) {
    if (path == nullptr || *path == '\0') return -1;
    return guarded([path] {
        std::string tree(path);
        return deleteTree(tree);
    });
}

int delete_directory_contents(const char *path) {
    if (path == nullptr) return 0;
    return guarded([path] {
        std::string tree(path);
        const auto names = entriesOf(tree);
        return names ? deleteEntries(tree, *names) : 0;
    });
}

int empty_directory(const char *path) {
    if (path == nullptr || *path == '\0') return -1;
    const DirPtr dir(::opendir(path));
    if (!dir) return 1;
    while (const dirent *entry = ::readdir(dir.get())) {
        if (!isDotName(entry->d_name)) return 0;
    }
    return 1;
}

int copy_file(const char *src, const char *dst) {
    if (src == nullptr || *src == '\0') {
        vx::log(LOG_ERR, "Invalid source file name");
        return -1;
    }
    if (dst == nullptr || *dst == '\0') {
        vx::log(LOG_ERR, "Invalid destination file name");
        return -1;
    }
    const Fd from(::open(src, O_RDONLY | O_CLOEXEC));
    if (!from.valid()) {
        vx::log(LOG_ERR, "Source file %s could not be opened: %s (%d)", src, std::strerror(errno), errno);
        return -1;
    }
    struct stat status;
    if (::fstat(from.get(), &status) == -1) {
        vx::log(LOG_ERR, "Can't read file stats: %s (%d)", std::strerror(errno), errno);
        return -1;
    }
    if (ensureFolderOf(dst) == -1) return -1;
    const Fd to(::open(dst, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, status.st_mode & modeBits));
    if (!to.valid()) {
        vx::log(LOG_ERR, "Destination file %s could not be opened: %s (%d)", dst, std::strerror(errno), errno);
        return -1;
    }
    if (::sendfile(to.get(), from.get(), nullptr, transferSize(status.st_size)) == -1) {
        vx::log(LOG_ERR, "Sendfile error: %s (%d)", std::strerror(errno), errno);
        return -1;
    }
    return 0;
}

int copy_directory(const char *src, const char *dst) {
    if (src == nullptr || dst == nullptr) return -1;
    return guarded([src, dst] {
        std::string from(src);
        std::string to(dst);
        return copyTree(from, to);
    });
}
