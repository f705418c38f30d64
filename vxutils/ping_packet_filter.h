// SPDX-License-Identifier: MIT
// Filters on sockets that receive the packets of others.
#pragma once

#include <linux/filter.h>
#include <sys/socket.h>

#include <cstddef>
#include <cstdint>

namespace vx {

// Throws away the packets from before a socket's filter: they queue up from the moment the socket exists. The number is
// more than any queue holds; a sender that floods the socket cannot keep it busy.
inline void dropUnfiltered(int fd) noexcept {
    constexpr int mostQueued = 65536;
    uint8_t byte = 0;
    for (int dropped = 0; dropped < mostQueued && ::recv(fd, &byte, sizeof byte, MSG_DONTWAIT) >= 0; ++dropped) {
    }
}

// As setsockopt().
template <typename Program>
int attachFilter(int fd, Program program) noexcept {
    const sock_fprog filter{static_cast<unsigned short>(program.size()), program.data()};
    return ::setsockopt(fd, SOL_SOCKET, SO_ATTACH_FILTER, &filter, sizeof filter);
}

}  // namespace vx
