// SPDX-License-Identifier: MIT
// System V shared-memory segments that serve as tokens.
#pragma once

#include <sys/types.h>

namespace vx {

// Removes the segment with this key if it never should have been made, or its maker cannot remove it any more: if the
// maker is neither root nor the user that this process acts as, or has ended. Whether it removed it; errno is kept.
bool removeAbandonedSegment(key_t key) noexcept;

}  // namespace vx
