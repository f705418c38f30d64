// SPDX-License-Identifier: MIT
#pragma once

#include <cstdlib>

namespace vxtest {

// The command that runs programs of this tree on a machine that cannot run them by itself ("qemu-arm -L SYSROOT"), or
// "".
inline const char *emulatorCommand() {
    const char *command = std::getenv("VXTEST_EMULATOR");
    return command != nullptr ? command : "";
}

// True under user-mode emulation of another processor. What cannot be shown there is listed in docs/emulation.md.
inline bool emulated() { return emulatorCommand()[0] != '\0'; }

}  // namespace vxtest
