// SPDX-License-Identifier: MIT
#include "vxutils/internal/log.h"

#include <cstdarg>

#include "vxutils/internal/errno_keeper.h"

namespace vx {

void log(int priority, const char *format, ...) {
    const ErrnoKeeper keeper;
    va_list args;
    va_start(args, format);
    vsyslog(priority, format, args);
    va_end(args);
}

void log(const devlog_level *level, const char *format, ...) {
    const ErrnoKeeper keeper;
    va_list args;
    va_start(args, format);
    vsyslog(devlog_level_to_prio(level), format, args);
    va_end(args);
}

}  // namespace vx
