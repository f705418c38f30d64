// SPDX-License-Identifier: MIT
// What systeminfo_init() does, for any file.
#pragma once

#include <vxutils/systeminfo.h>

#include <cstdio>

namespace vx {

// Reads the rest of the file; null when it holds too many variables or memory is short. Free with systeminfo_free().
systeminfo_table *readSystemInfo(FILE *file);

}  // namespace vx
