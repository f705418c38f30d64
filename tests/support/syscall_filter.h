// SPDX-License-Identifier: MIT
// A kernel that refuses a system call. Not under user-mode emulation, which has no filters.
#pragma once

namespace vxtest {

// From now on this process, its children included, gets this error from this system call. For children of a test.
bool failSystemCall(unsigned int number, unsigned int error);

}  // namespace vxtest
