// SPDX-License-Identifier: MIT
// Host names.
#pragma once

#include <netdb.h>
#include <netinet/in.h>

#include <cstdint>
#include <cstring>
#include <optional>

#include "vxutils/internal/handles.h"

namespace vx {

// Returns the first IPv4 address of a host, in host order; nothing when there is none. Keeps apart what several threads
// ask.
inline std::optional<uint32_t> resolveHost(const char *name) noexcept {
    constexpr size_t firstSize = 1024;
    constexpr size_t largestSize = 65536;
    for (size_t size = firstSize; size <= largestSize; size *= 2) {
        const MallocText buffer(static_cast<char *>(std::malloc(size)));
        if (buffer == nullptr) return std::nullopt;
        hostent entry{};
        hostent *found = nullptr;
        int error = 0;
        const int result = gethostbyname_r(name, &entry, buffer.get(), size, &found, &error);
        if (result == ERANGE) continue;
        if (result != 0 || found == nullptr || found->h_addrtype != AF_INET || found->h_addr_list[0] == nullptr) {
            return std::nullopt;
        }
        in_addr address{};
        std::memcpy(&address, found->h_addr_list[0], sizeof address);
        return ntohl(address.s_addr);
    }
    return std::nullopt;  // a host with more than 64 KiB of addresses
}

}  // namespace vx
