// SPDX-License-Identifier: MIT
// The boards write both levels of errors with one priority; in a program that includes this they are told apart. To be
// included by one source file of a test program.
#pragma once

#include <devlog.h>
#include <syslog.h>

#include "support/call_hooks.h"

namespace vxtest {

constexpr int errorLevel = LOG_CRIT;  // what is logged at DL_ERROR

}  // namespace vxtest

extern "C" int devlog_level_to_prio(const devlog_level *level) {
    static const auto next = vxtest::nextCall<int (*)(const devlog_level *)>("devlog_level_to_prio");
    return level == DL_ERROR ? vxtest::errorLevel : next(level);
}
