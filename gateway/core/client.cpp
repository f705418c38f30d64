// SPDX-License-Identifier: MIT
#include "gateway/core/client.h"

#include <sys/socket.h>
#include <sys/un.h>

#include <array>
#include <cerrno>
#include <cstring>

#include "gateway/core/board.h"

namespace vxgateway {

std::string requestOf(const Words &words) {
    std::string request;
    for (const std::string &word : words) request += word + '\0';
    return request;
}

Descriptor connectToGateway() {
    Descriptor fd(::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strcpy(address.sun_path, controlSocket);
    if (fd.get() != -1 && ::connect(fd.get(), reinterpret_cast<sockaddr *>(&address), sizeof address) == -1) {
        const int why = errno;
        fd.close();
        errno = why;
    }
    return fd;
}

bool sendRequest(int fd, const std::string &request) {
    return ::send(fd, request.data(), request.size(), MSG_NOSIGNAL) != -1;
}

std::optional<Packet> receivePacket(int fd, int flags) {
    std::array<char, 65536> buffer;
    ssize_t got = -1;
    do {
        got = ::recv(fd, buffer.data(), buffer.size(), flags);
    } while (got == -1 && errno == EINTR);
    if (got >= 2) return Packet{buffer[0], std::string(buffer.data() + 1, static_cast<size_t>(got) - 1)};
    if (got != -1) errno = 0;
    return std::nullopt;
}

}  // namespace vxgateway
