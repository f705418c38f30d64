// SPDX-License-Identifier: MIT
// vxgateway record: runs a program with the tap and writes down what it tells.
#ifndef VXGATEWAY_RECORDER_H
#define VXGATEWAY_RECORDER_H

#include <string>
#include <vector>

#include "gateway/core/mask.h"

namespace vxgateway {

struct Recording {
    std::string tap;  // the library
    std::string file;
    std::vector<std::string> masks;  // beside the usual ones
    std::vector<std::string> program;
};

// The program's status, 128 + signal number when a signal ended it. Throws std::runtime_error.
int record(const Recording &wanted);

}  // namespace vxgateway

#endif
