// SPDX-License-Identifier: MIT
#include "vxutils/internal/log.h"

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "vxutils/internal/errno_keeper.h"
#include "vxutils/internal/handles.h"
#include "vxutils/internal/visible.h"

namespace vx {
namespace {

bool endsInNewline(const char *text) {
    const char *end = std::strrchr(text, '\n');
    return end != nullptr && end[1] == '\0';
}

// What a message shows of file names, peers' texts and other values from outside must not begin a line of its own or
// steer the terminal of a reader of the log. Only the newline at the end of the format itself stays.
void send(int priority, const char *format, const char *message, size_t length) {
    const bool newline = endsInNewline(format) && endsInNewline(message);
    const VisibleText text(message, newline ? length - 1 : length);
    ::syslog(priority, newline ? "%.*s\n" : "%.*s", static_cast<int>(text.length()), text.c_str());
}

__attribute__((format(printf, 2, 0))) void logArguments(int priority, const char *format, va_list args) {
    if ((::setlogmask(0) & LOG_MASK(LOG_PRI(priority))) == 0) return;  // not worth formatting
    va_list again;
    va_copy(again, args);
    char shortMessage[1024];
    const int length = std::vsnprintf(shortMessage, sizeof shortMessage, format, args);
    const auto size = static_cast<size_t>(length) + 1;
    MallocText longMessage;
    if (length >= 0 && size > sizeof shortMessage) longMessage.reset(static_cast<char *>(std::malloc(size)));
    if (longMessage != nullptr) (void)std::vsnprintf(longMessage.get(), size, format, again);
    va_end(again);
    const char *message = longMessage != nullptr ? longMessage.get() : shortMessage;
    if (length >= 0) send(priority, format, message, std::strlen(message));
}

}  // namespace

void log(int priority, const char *format, ...) {
    const ErrnoKeeper keeper;
    va_list args;
    va_start(args, format);
    logArguments(priority, format, args);
    va_end(args);
}

void log(const devlog_level *level, const char *format, ...) {
    const ErrnoKeeper keeper;
    va_list args;
    va_start(args, format);
    logArguments(devlog_level_to_prio(level), format, args);
    va_end(args);
}

}  // namespace vx
