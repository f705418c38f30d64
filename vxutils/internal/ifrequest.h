// SPDX-License-Identifier: MIT
// Requests to the kernel about one interface by its name.
#pragma once

#include <net/if.h>
#include <netinet/in.h>
#include <sys/ioctl.h>

#include <cstring>

namespace vx {

// Makes a zeroed request for an interface; of the name 15 characters are used, as many as a kernel's name can have.
inline ifreq interfaceRequest(const char *name) noexcept {
    ifreq request{};
    std::memcpy(request.ifr_name, name, strnlen(name, IF_NAMESIZE - 1));
    return request;
}

// Returns the IPv4 address that the kernel put into a request, in host order.
inline uint32_t requestedAddress(const ifreq &request) noexcept {
    sockaddr_in address{};
    std::memcpy(&address, &request.ifr_addr, sizeof address);
    return ntohl(address.sin_addr.s_addr);
}

}  // namespace vx
