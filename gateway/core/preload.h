// SPDX-License-Identifier: MIT
#ifndef VXGATEWAY_CORE_PRELOAD_H
#define VXGATEWAY_CORE_PRELOAD_H

#include <string>

namespace vxgateway {

// Has the programs that this process executes load a library of the gateway before their own. The path has no blanks.
void preload(const std::string &path);

}  // namespace vxgateway

#endif
