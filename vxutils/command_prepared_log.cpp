// SPDX-License-Identifier: MIT
#include "vxutils/command_prepared_log.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <syslog.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>

#include "vxutils/internal/fd.h"
#include "vxutils/internal/visible.h"

namespace vx {
namespace {

constexpr sockaddr_un logSocket{AF_UNIX, _PATH_LOG};

}  // namespace

PreparedLog::PreparedLog(int priority, const char *text) noexcept {
    if ((::setlogmask(0) & LOG_MASK(priority)) == 0) return;
    constexpr const char *months[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                      "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
    const time_t now = std::time(nullptr);
    tm local{};
    (void)::localtime_r(&now, &local);
    std::snprintf(line_, sizeof line_, "<%d>%s %2d %02d:%02d:%02d %s: %s", LOG_USER | priority, months[local.tm_mon],
                  local.tm_mday, local.tm_hour, local.tm_min, local.tm_sec,
                  VisibleText(program_invocation_short_name).c_str(), text);
}

void PreparedLog::send() const noexcept {
    if (*line_ == '\0') return;
    const Fd socket(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    (void)::sendto(socket.get(), line_, std::strlen(line_), MSG_NOSIGNAL,
                   reinterpret_cast<const sockaddr *>(&logSocket), sizeof logSocket);
}

}  // namespace vx
