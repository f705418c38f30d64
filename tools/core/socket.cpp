// SPDX-License-Identifier: MIT
#include "core/socket.h"

#include <sys/socket.h>
#include <sys/un.h>

#include <cerrno>

#include "core/fd.h"

namespace tool {

bool answers(const std::string &path, int type) {
    const Fd fd(::socket(AF_UNIX, type | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    const int result = ::connect(fd.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address);
    return result == 0 || errno == EAGAIN;  // EAGAIN: it is there, and has many waiting
}

}  // namespace tool
