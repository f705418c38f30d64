// SPDX-License-Identifier: MIT
// Lines of an ARP table and hosts, any text: found means that the line begins with the host and ends its address whole.
#include <cstdlib>
#include <string>

#include "vxutils/ping_arp_line.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size < 1 || size > 512) return 0;
    const size_t hostLength = data[0] % size;
    const std::string text(reinterpret_cast<const char *>(data) + 1, size - 1);
    const std::string host = text.substr(0, hostLength);
    const std::string line(text);

    const auto address = vx::arp::lookUp(line, host);
    if (address.has_value() && line.compare(0, host.size() + 1, host + " ") != 0) std::abort();

    // A line made around any text as its host is found.
    if (host.find_first_of(" \t\r\n") == std::string::npos && !host.empty()) {
        const auto made = vx::arp::lookUp(host + "  0x1  0x2  02:00:5e:10:ff:0a * wan0\n", host);
        if (!made.has_value() || made->at(5) != 0x0a) std::abort();
    }
    return 0;
}
