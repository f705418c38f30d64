// SPDX-License-Identifier: MIT
// The one place of the library that writes to the system log. Control bytes in what is logged are escaped (visible.h).
//
// Marked cold: branches that log are laid out for size, away from the code that runs when nothing fails.
#pragma once

#include <devlog.h>
#include <syslog.h>

namespace vx {

// Writes one message with a fixed syslog priority (LOG_ERR, ...); errno is left as it was found.
void log(int priority, const char *format, ...) __attribute__((cold, format(printf, 2, 3)));

// Does the same with a level of the platform's logging library (DL_ERR, DL_ERROR, DL_INFO, ...).
void log(const devlog_level *level, const char *format, ...) __attribute__((cold, format(printf, 2, 3)));

}  // namespace vx
