// SPDX-License-Identifier: MIT
// open() and openat() on their way from the library to the C library: which flags they are given, and failures on
// demand. Include in one source of a test program. vxtest::hooks::open is asked about both calls, as the hooks of
// call_hooks.h are, which has no form for calls with a variable number of arguments.
#pragma once

#include <fcntl.h>

#include <cstdarg>
#include <functional>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "support/call_hooks.h"

namespace vxtest {

namespace hooks {
inline std::function<std::optional<int>(const char *path, int flags)> open;

inline std::optional<int> answerTo(const char *path, int flags) { return open ? open(path, flags) : std::nullopt; }
}  // namespace hooks

// Records what is opened for as long as this lives.
class OpenedFiles {
public:
    // Those that a program started at the same time by another thread would inherit.
    std::vector<std::string> withoutCloseOnExec() const {
        std::vector<std::string> found;
        for (const auto &[path, flags] : all_) {
            if ((flags & O_CLOEXEC) == 0) found.push_back(path);
        }
        return found;
    }

    // The flags of the last call with this path, beside O_CLOEXEC.
    std::optional<int> flagsOf(const std::string &path) const {
        std::optional<int> last;
        for (const auto &[opened, flags] : all_) {
            if (opened == path) last = flags & ~O_CLOEXEC;
        }
        return last;
    }

private:
    std::vector<std::pair<std::string, int>> all_;
    Hooked<decltype(hooks::open)> hook_{hooks::open, [this](const char *path, int flags) -> std::optional<int> {
                                            all_.emplace_back(path, flags);
                                            return std::nullopt;
                                        }};
};

}  // namespace vxtest

extern "C" int open(const char *path, int flags, ...) {
    va_list arguments;
    va_start(arguments, flags);
    const auto mode = va_arg(arguments, mode_t);
    va_end(arguments);
    if (const std::optional<int> answer = vxtest::hooks::answerTo(path, flags)) return *answer;
    static const auto next = vxtest::nextCall<decltype(&::open)>(sizeof(long) == 4 ? "open64" : "open");
    return next(path, flags, mode);
}

extern "C" int openat(int directory, const char *path, int flags, ...) {
    va_list arguments;
    va_start(arguments, flags);
    const auto mode = va_arg(arguments, mode_t);
    va_end(arguments);
    if (const std::optional<int> answer = vxtest::hooks::answerTo(path, flags)) return *answer;
    static const auto next = vxtest::nextCall<decltype(&::openat)>(sizeof(long) == 4 ? "openat64" : "openat");
    return next(directory, path, flags, mode);
}

// What fortified headers make of these calls when the flags are not constant and no mode is given. The names are those that
// the linker sees: where files have 64-bit offsets, headers give the first name the second one's symbol.
namespace vxtest::hooks {
extern "C" {
int openFortified(const char *path, int flags) __asm__("__open_2");
int open64Fortified(const char *path, int flags) __asm__("__open64_2");
int openatFortified(int directory, const char *path, int flags) __asm__("__openat_2");
int openat64Fortified(int directory, const char *path, int flags) __asm__("__openat64_2");

int openFortified(const char *path, int flags) { return ::open(path, flags); }
int open64Fortified(const char *path, int flags) { return ::open(path, flags); }
int openatFortified(int directory, const char *path, int flags) { return ::openat(directory, path, flags); }
int openat64Fortified(int directory, const char *path, int flags) { return ::openat(directory, path, flags); }
}
}  // namespace vxtest::hooks
