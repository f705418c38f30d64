// SPDX-License-Identifier: MIT
// Addresses of any text: taken exactly when the system takes them, and printed as the system prints them.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <vxutils/address.h>

#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <string>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size > 256) return 0;
    const std::string text = std::string(reinterpret_cast<const char *>(data), size).c_str();
    const int family = text.find(':') != std::string::npos ? AF_INET6 : AF_INET;

    sockaddr_in6 room{};
    auto *record = reinterpret_cast<sockaddr *>(&room);
    const bool taken = str2addr(text.c_str(), record) == 0;

    unsigned char expected[16] = {};
    if (taken != (inet_pton(family, text.c_str(), expected) == 1) || record->sa_family != family) std::abort();
    if (!taken) return 0;
    const size_t offset = family == AF_INET ? offsetof(sockaddr_in, sin_addr) : offsetof(sockaddr_in6, sin6_addr);
    const auto *const address = reinterpret_cast<const char *>(&room) + offset;
    if (std::memcmp(address, expected, family == AF_INET ? 4 : 16) != 0) std::abort();

    char ours[INET6_ADDRSTRLEN];
    char systems[INET6_ADDRSTRLEN];
    if (std::strcmp(addr2str(ours, record), inet_ntop(family, expected, systems, sizeof systems)) != 0) std::abort();

    // The address as a mask: what has a prefix length is the mask of that length.
    const int prefix = netmask2cidr(record);
    sockaddr_in6 again{};
    auto *mask = reinterpret_cast<sockaddr *>(&again);
    if (prefix >= 0 && (cidr2netmask(prefix, mask, family) != 0 || addr_differs(record, mask) != 0)) std::abort();
    return 0;
}
