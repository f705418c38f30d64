// SPDX-License-Identifier: MIT
// All commands, one in each source of this directory.
#pragma once

#include "core/command.h"

namespace tool {

extern const Command configCommand;

}  // namespace tool
