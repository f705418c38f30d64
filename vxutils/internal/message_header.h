// SPDX-License-Identifier: MIT
// Headers for sendmsg() and recvmsg().
#pragma once

#include <sys/socket.h>
#include <sys/uio.h>

namespace vx {

// Makes the header of a message whose bytes lie in one place. It refers to `part`, which must live as long as it.
inline msghdr messageHeader(iovec &part) noexcept {
    msghdr header{};
    header.msg_iov = &part;
    header.msg_iovlen = 1;
    return header;
}

// Makes one that also has the address of the receiver, or room for the sender's. It refers to `peer`, too.
template <typename Address>
msghdr messageHeader(iovec &part, Address &peer) noexcept {
    msghdr header = messageHeader(part);
    header.msg_name = &peer;
    header.msg_namelen = sizeof peer;
    return header;
}

}  // namespace vx
