// SPDX-License-Identifier: MIT
// Walking trees of directories by descriptors, so that a directory that is swapped for a link leads nowhere.
#pragma once

#include <sys/stat.h>

#include <string>
#include <vector>

#include "vxutils/internal/fd.h"

namespace vx {

// The last component of a path, and the directory that holds it: looked up once, so that it is the same one for every
// step that follows.
class LastComponent {
public:
    explicit LastComponent(const std::string &path);

    [[nodiscard]] bool valid() const { return here_ || directory_.valid(); }
    [[nodiscard]] int directory() const;
    [[nodiscard]] const char *name() const { return name_.c_str(); }

private:
    bool here_;  // in the current directory
    Fd directory_;
    std::string name_;  // with the slash that the path ends with
};

// The names of a directory's entries but "." and "..", in the directory's order.
class EntryNames {
public:
    // Reads all of them. False with errno when reading fails half-way; the names read until then are kept.
    bool read(const Fd &directory);

    // Goes to the first name, then to the next one; false after the last one.
    bool next();

    // The name that next() went to. Valid until this object is moved.
    [[nodiscard]] const char *current() const { return names_.c_str() + current_; }

private:
    std::string names_;  // each with its terminator
    size_t current_ = 0;
    size_t next_ = 0;
};

// A place in a tree. Some of the directories above stay open; the others are found again by "..", which has to lead to
// the directory that was left. So a tree may be deeper than a process may have descriptors.
class TreePlace {
public:
    // `top` is open for what is done in it; `flags` open the others (O_RDONLY to read entries, O_PATH otherwise).
    TreePlace(Fd top, int flags) : here_(std::move(top)), flags_(flags) {}

    [[nodiscard]] const Fd &here() const { return here_; }

    // Enters a subdirectory; false with errno, ENOTDIR or ELOOP when it is something else by now.
    bool down(const char *name);

    // Enters a subdirectory that is open already.
    void down(Fd subdirectory);

    // Returns to the directory above; false with errno, ESTALE when this one was moved elsewhere.
    bool up();

private:
    struct Identity {
        dev_t device;
        ino_t inode;
        bool operator==(const Identity &) const = default;
    };
    struct Above {
        Fd directory;
        Identity identity;  // of a directory that is not open any more
    };
    static constexpr size_t mostOpen = 8;

    static Identity identityOf(const Fd &directory);

    Fd here_;
    int flags_;
    std::vector<Above> above_;
};

}  // namespace vx
