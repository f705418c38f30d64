// SPDX-License-Identifier: MIT
// Making, emptying and removing directories. Copying is in copy.cpp.
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vxutils/file.h>

#include <cerrno>
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

using vx::DirPtr;
using vx::EntryNames;
using vx::Fd;
using vx::MallocText;
using vx::TreePlace;

namespace {

constexpr mode_t creationMode = 0x755;  // Quirk Q21: hexadecimal, i.e. 03525
constexpr mode_t sharedMode = 0555;     // of the directories that try_mkdir() makes

bool isDotName(const char *name) { return std::strcmp(name, ".") == 0 || std::strcmp(name, "..") == 0; }

int cannotMake(const char *shown) {
    vx::log(LOG_ERR, "Cannot create directory. mkdir %s throw errno=%d, %s", shown, errno, std::strerror(errno));
    return -1;
}

// Quirk Q23.
bool countsAsDirectory(const struct stat &status) { return S_ISDIR(status.st_mode) || S_ISLNK(status.st_mode); }

// Returns 0 if what exists under the name of a directory counts as one.
int acceptExisting(int directory, const char *name, const char *shown) {
    struct stat status;
    if (::fstatat(directory, name, &status, AT_SYMLINK_NOFOLLOW) == -1) {
        vx::log(LOG_ERR, "Unknown errno using lstat in create_directory for %s. errno=%d, %s", shown, errno,
                std::strerror(errno));
        return -1;
    }
    if (countsAsDirectory(status)) return 0;
    vx::log(LOG_ERR, "Cannot create directory. %s exists and it is neither a directory nor a symbolic link", shown);
    return -1;
}

// Sets the mode of a directory that was just made, and opens it into `made`.
int shareMade(int directory, const char *name, const char *shown, Fd &made) {
    made = vx::openMadeDirectory(directory, name, creationMode, sharedMode);
    if (made.valid()) return 0;
    vx::log(LOG_DEBUG, "Cannot create directory. chmod %s throw errno=%d, %s", shown, errno, std::strerror(errno));
    return -1;
}

// Makes a directory, if it does not exist. Messages show `shown`, its whole path. A new one is opened into `made`.
int makeDirectory(int directory, const char *name, const char *shown, Fd &made) {
    if (::mkdirat(directory, name, creationMode) == 0) return shareMade(directory, name, shown, made);
    return errno == EEXIST ? acceptExisting(directory, name, shown) : cannotMake(shown);
}

// Does the same inside `above`, where the walk is since it has made a directory, and replaces `above` by the new one.
// After a link that leads nowhere `above` is invalid, and the walk goes on by the path.
int makeBelow(Fd &above, const char *name, const char *shown) {
    if (*name == '\0') return 0;
    Fd made;
    const int result = makeDirectory(above.get(), name, shown, made);
    if (result != 0) return result;
    if (!made.valid()) made = Fd(::openat(above.get(), name, O_PATH | O_DIRECTORY | O_CLOEXEC));
    above = std::move(made);
    return 0;
}

// Makes every directory of a path. Continues from a directory that it has made by its descriptor, so that a link which
// another process puts in its place is not followed.
int makeDirectories(char *path) {
    Fd made;
    // Tries the whole path first, because most often the directory or its parent exists. Any failure is left to the
    // walk below, whose message names the directory that fails.
    if (::mkdirat(AT_FDCWD, path, creationMode) == 0) return shareMade(AT_FDCWD, path, path, made);
    struct stat status;
    const bool exists = errno == EEXIST && ::fstatat(AT_FDCWD, path, &status, AT_SYMLINK_NOFOLLOW) == 0;
    if (exists && countsAsDirectory(status)) return 0;
    char *component = path;
    for (char *slash = std::strchr(path + 1, '/');; slash = std::strchr(component, '/')) {
        if (slash != nullptr) *slash = '\0';
        const int result = made.valid() ? makeBelow(made, component, path) : makeDirectory(AT_FDCWD, path, path, made);
        if (result != 0 || slash == nullptr) return result;
        *slash = '/';
        component = slash + 1;
    }
}

void removeEntry(int directory, const char *name) {
    if (::unlinkat(directory, name, 0) == -1 && errno == EISDIR) (void)::unlinkat(directory, name, AT_REMOVEDIR);
}

// Removes everything in a directory. Returns -1 with errno when an entry of the directory cannot be examined, or when a
// directory of the tree was moved elsewhere meanwhile; the rest then stays. An entry further down that cannot be
// examined only keeps its own directory from being removed.
int deleteEntries(Fd top) {
    TreePlace place(std::move(top), O_RDONLY);
    std::vector<EntryNames> levels(1);
    (void)levels.back().read(place.here());
    for (;;) {
        EntryNames &names = levels.back();
        struct stat status;
        const bool done = !names.next();
        if (done || ::fstatat(place.here().get(), names.current(), &status, AT_SYMLINK_NOFOLLOW) == -1) {
            levels.pop_back();
            if (levels.empty()) return done ? 0 : -1;
            if (!place.up()) return -1;
            if (done) (void)::unlinkat(place.here().get(), levels.back().current(), AT_REMOVEDIR);
        } else if (!S_ISDIR(status.st_mode) || !place.down(names.current())) {
            removeEntry(place.here().get(), names.current());
        } else {
            levels.emplace_back();
            (void)levels.back().read(place.here());
        }
    }
}

// Removes a directory with its content, or a file of another type.
int deleteTree(const char *path) {
    const vx::LastComponent last(vx::withoutSlashes(path));
    if (!last.valid()) return 0;
    Fd top(::openat(last.directory(), last.name(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    struct stat status;
    const bool fileAndSlash = !top.valid() && ::lstat(path, &status) == -1 && errno == ENOTDIR;
    if (fileAndSlash) return 0;
    if (top.valid() && deleteEntries(std::move(top)) == -1) return -1;
    removeEntry(last.directory(), last.name());
    return 0;
}

}  // namespace

// Quirk Q22.
int try_mkdir(const char *path) {
    if (path == nullptr) {
        errno = EINVAL;
        return -1;
    }
    Fd made;
    return makeDirectory(AT_FDCWD, path, path, made);
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
    return makeDirectories(text);
}

int delete_regular_file(const char *name) {
    struct stat status;
    if (name == nullptr || ::lstat(name, &status) == -1) return 0;
    if (!S_ISREG(status.st_mode)) return -1;
    return ::unlink(name);
}

// Quirk Q28.
int delete_directory(const char *path) {
    if (path == nullptr || *path == '\0') return -1;
    return vx::memoryGuarded([path] { return deleteTree(path); });
}

int delete_directory_contents(const char *path) {
    if (path == nullptr || *path == '\0') return 0;
    return vx::memoryGuarded([path] {
        Fd top = vx::openDirectory(AT_FDCWD, vx::withoutSlashes(path).c_str());
        return top.valid() ? deleteEntries(std::move(top)) : 0;
    });
}

// Quirk Q29.
int empty_directory(const char *path) {
    if (path == nullptr || *path == '\0') return -1;
    const DirPtr dir(::opendir(path));
    if (!dir) return 1;
    while (const dirent *entry = ::readdir(dir.get())) {
        if (!isDotName(entry->d_name)) return 0;
    }
    return 1;
}
