// SPDX-License-Identifier: MIT
// An ordinary user of the machine who means harm: not root, and not the user that the tested process runs as.
#pragma once

#include <fcntl.h>
#include <grp.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <csignal>
#include <filesystem>
#include <functional>
#include <new>
#include <stdexcept>
#include <string>

#include "support/process.h"

namespace vxtest {

inline constexpr uid_t stranger = 12345;

// Becomes a user for good, with the groups of that number only. For children of a test.
inline bool becomeUser(uid_t user) {
    return ::setgroups(0, nullptr) == 0 && ::setresgid(user, user, user) == 0 && ::setresuid(user, user, user) == 0;
}

// Runs `body` in a child of this user and returns its exit status; 100 when it could not become that user. A call that
// waits for ever ends the child with SIGALRM (142).
inline int asUser(uid_t user, const std::function<int()> &body) {
    return inChild([&] {
        ::alarm(60);
        return becomeUser(user) ? body() : 100;
    });
}

// Repeats `step` as the stranger, in a process of its own, until it is destroyed.
class Attack {
public:
    explicit Attack(const std::function<void()> &step) {
        void *shared = ::mmap(nullptr, sizeof *rounds_, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
        if (shared == MAP_FAILED) throw std::runtime_error("mmap");
        rounds_ = new (shared) std::atomic<unsigned int>(0);
        process_ = startChild([&] {
            if (!becomeUser(stranger)) return 100;
            ::prctl(PR_SET_PDEATHSIG, SIGKILL);  // forgotten when the user changes
            for (;;) {
                step();
                rounds_->fetch_add(1);
            }
        });
        while (rounds_->load() == 0) ::usleep(100);
    }
    ~Attack() {
        ::kill(process_, SIGKILL);
        waitChild(process_);
        ::munmap(rounds_, sizeof *rounds_);
    }
    Attack(const Attack &) = delete;
    Attack &operator=(const Attack &) = delete;

    unsigned int rounds() const { return rounds_->load(); }

private:
    std::atomic<unsigned int> *rounds_;
    pid_t process_;
};

// Swaps two entries in one step, so that each name always leads somewhere.
inline void swapEntries(const char *one, const char *other) {
    constexpr unsigned int exchange = 1 << 1;  // RENAME_EXCHANGE
    ::syscall(SYS_renameat2, AT_FDCWD, one, AT_FDCWD, other, exchange);
}

// Gives a file, or a tree without its links' targets, to a user. What disappears on the way does not matter.
inline void giveTo(uid_t user, const std::string &path) {
    std::error_code ignored;
    (void)!::lchown(path.c_str(), user, user);
    if (!std::filesystem::is_directory(std::filesystem::symlink_status(path, ignored))) return;
    std::filesystem::recursive_directory_iterator entry(path, ignored);
    for (; entry != std::filesystem::recursive_directory_iterator(); entry.increment(ignored)) {
        (void)!::lchown(entry->path().c_str(), user, user);
    }
}

// Repeats a step for 0.4 s. The races of these tests, where they can be won at all, are won in a few milliseconds.
inline void repeat(const std::function<bool()> &step) {
    const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(400);
    while (std::chrono::steady_clock::now() < end && step()) continue;
}

}  // namespace vxtest
