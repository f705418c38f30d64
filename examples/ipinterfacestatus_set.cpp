// SPDX-License-Identifier: MIT
// ipinterfacestatus_set: gives an interface an IPv4 address and a prefix length, sets it up, and shows what the kernel
// made of it.
//
//   ipinterfacestatus_set NAME ADDRESS PREFIX-LENGTH
#include <arpa/inet.h>
#include <vxutils/ipinterfacestatus.h>

#include <cstdio>
#include <cstdlib>
#include <string>

namespace {

std::string dotted(unsigned int address) {
    in_addr network{};
    network.s_addr = htonl(address);
    char text[INET_ADDRSTRLEN];
    return inet_ntop(AF_INET, &network, text, sizeof text);
}

}  // namespace

int main(int argc, char **argv) {
    in_addr address{};
    if (argc != 4 || inet_pton(AF_INET, argv[2], &address) != 1) {
        std::fprintf(stderr, "usage: %s NAME ADDRESS PREFIX-LENGTH\n", argv[0]);
        return 2;
    }
    const char *const name = argv[1];
    const long length = std::strtol(argv[3], nullptr, 10);
    const unsigned int mask = length <= 0 ? 0U : length >= 32 ? 0xFFFFFFFFU : ~(0xFFFFFFFFU >> length);

    IpInterfaceStatus status;
    if (status.setIpV4Address(name, ntohl(address.s_addr)) == 0 || status.setIpV4Mask(name, mask) == 0 ||
        status.setInterfaceUp(name, 1) == 0) {
        std::printf("%s: cannot be set\n", name);
        return 1;
    }
    std::printf("%s: %s, netmask %s, %s\n", name, dotted(status.getIpV4Address(name)).c_str(),
                dotted(status.getIpV4Mask(name)).c_str(), status.isInterfaceUp(name) != 0 ? "running" : "not running");
    return 0;
}
