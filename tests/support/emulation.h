// SPDX-License-Identifier: MIT
#pragma once

namespace vxtest {

// True under user-mode emulation of another processor. What cannot be shown there is listed in docs/emulation.md.
inline bool emulated() { return VXTEST_EMULATOR[0] != '\0'; }

}  // namespace vxtest
