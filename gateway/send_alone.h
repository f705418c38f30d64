// SPDX-License-Identifier: MIT
// Bytes on a stream socket that are not received together with what comes before or after them.
#ifndef VXGATEWAY_SEND_ALONE_H
#define VXGATEWAY_SEND_ALONE_H

#include <sys/eventfd.h>
#include <sys/socket.h>

#include <array>
#include <cstring>
#include <string_view>

namespace vxgateway {

// The kernel ends a receive at a message that carries a descriptor. A receiver that does not ask for the descriptor never
// gets it. Errors are left to what the caller does next with the socket.
inline void sendAlone(int fd, std::string_view bytes) {
    static const int carried = ::eventfd(0, EFD_CLOEXEC);
    iovec part{const_cast<char *>(bytes.data()), bytes.size()};
    alignas(cmsghdr) std::array<char, CMSG_SPACE(sizeof carried)> control{};
    msghdr message{};
    message.msg_iov = &part;
    message.msg_iovlen = 1;
    message.msg_control = control.data();
    message.msg_controllen = control.size();
    cmsghdr *const header = CMSG_FIRSTHDR(&message);
    header->cmsg_level = SOL_SOCKET;
    header->cmsg_type = SCM_RIGHTS;
    header->cmsg_len = CMSG_LEN(sizeof carried);
    std::memcpy(CMSG_DATA(header), &carried, sizeof carried);
    (void)!::sendmsg(fd, &message, MSG_NOSIGNAL);
}

}  // namespace vxgateway

#endif
