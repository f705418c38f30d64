// SPDX-License-Identifier: MIT
// semctl() on its way to the C library, as the hooks of call_hooks.h, which has no form for calls with a variable number
// of arguments. Include in one source of a test program. The argument is what IPC_STAT and IPC_SET point to.
#pragma once

#include <sys/sem.h>

#include <cstdarg>
#include <functional>
#include <optional>

#include "support/call_hooks.h"

namespace vxtest {

namespace hooks {
inline std::function<std::optional<int>(int id, int command, semid_ds *status)> semctl;
}

namespace real {
inline int semctl(int id, int number, int command, void *argument) {
    static const auto next = nextCall<int (*)(int, int, int, ...)>(sizeof(long) == 4 ? "__semctl64" : "semctl");
    return next(id, number, command, argument);
}
}  // namespace real

}  // namespace vxtest

extern "C" int semctl(int id, int number, int command, ...) noexcept {
    va_list arguments;
    va_start(arguments, command);
    void *const argument = va_arg(arguments, void *);
    va_end(arguments);
    if (vxtest::hooks::semctl) {
        if (const auto answer = vxtest::hooks::semctl(id, command, static_cast<semid_ds *>(argument))) return *answer;
    }
    return vxtest::real::semctl(id, number, command, argument);
}
