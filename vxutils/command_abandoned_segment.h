// SPDX-License-Identifier: MIT
// System V shared-memory segments that serve as tokens.
#pragma once

#include <sys/types.h>

namespace vx {

// Removes the segment with this key if its maker has ended, or is neither root nor the effective user of this process.
// Returns whether the key is free then; errno is unchanged.
bool removeAbandonedSegment(key_t key) noexcept;

}  // namespace vx
