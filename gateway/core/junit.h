// SPDX-License-Identifier: MIT
// The report of one run in the XML that continuous integration servers read.
#ifndef VXGATEWAY_JUNIT_H
#define VXGATEWAY_JUNIT_H

#include <string>

#include "gateway/core/record.h"

namespace vxgateway {

struct Result {
    std::string name;
    double seconds;
    std::string failure;  // "": passed
};

// Writes the result with the system log to the descriptor. False, with errno, when not all of it could be written.
bool writeReport(int fd, const Result &result, const Record &record);

}  // namespace vxgateway

#endif
