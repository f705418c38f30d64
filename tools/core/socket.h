// SPDX-License-Identifier: MIT
// Sockets of daemons.
#pragma once

#include <string>

namespace tool {

// Whether a daemon has its socket of this type open there; otherwise errno says why not.
bool answers(const std::string &path, int type);

}  // namespace tool
