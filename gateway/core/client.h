// SPDX-License-Identifier: MIT
// The side of gw: asks the gateway something over its socket. The protocol is in control.h.
#ifndef VXGATEWAY_CLIENT_H
#define VXGATEWAY_CLIENT_H

#include <optional>
#include <string>

#include "gateway/core/forms.h"
#include "gateway/core/peer.h"

namespace vxgateway {

constexpr size_t mostRequest = 32768;  // bytes of all words, each with its zero byte

std::string requestOf(const Words &words);

// Below: errno says why there is none.
Descriptor connectToGateway();
bool sendRequest(int fd, const std::string &request);

struct Packet {
    char kind;         // 'o': standard output, 'e': standard error, 'x': the answer is complete
    std::string text;  // of 'x': the exit status as one byte
};

// Waits for the next packet. Without one errno is 0 when the gateway has ended; with MSG_DONTWAIT in `flags` it is EAGAIN
// when there is none yet.
std::optional<Packet> receivePacket(int fd, int flags = 0);

}  // namespace vxgateway

#endif
