// SPDX-License-Identifier: MIT
// Addresses as texts, for the tests of ipaddress.h.
#pragma once

#include <vxutils/ipaddress.h>

#include <cstdint>
#include <cstring>
#include <string>

namespace vxtest::addresses {

constexpr uint32_t quad(uint32_t a, uint32_t b, uint32_t c, uint32_t d) { return a << 24 | b << 16 | c << 8 | d; }

inline std::string address(const IpAddress &ip) {
    String text("left over");
    return ip.getIpAddrAsString(text).c_str();
}
inline std::string network(const IpAddress &ip) {
    String text("left over");
    return ip.getNetAddressAsString(text).c_str();
}
inline std::string mask(const IpAddress &ip) {
    String text("left over");
    return ip.getNetMaskAsString(text).c_str();
}

inline IpAddress of(uint32_t address, uint32_t mask) {
    // Also for masks that no setter takes: a network's own mask word is the only way to meet them.
    IpAddress ip;
    ip.setV4IpAddrAsBinaryUInt32(address);
    std::memcpy(reinterpret_cast<char *>(&ip) + 20, &mask, sizeof mask);
    return ip;
}

// Every classification of one address.
struct Kind {
    bool a, b, c, d, e, abc, loopback, localGroup, host, defGw, limBc, net, iface, dirBc, valid;
    bool operator==(const Kind &) const = default;
};

inline Kind kindOf(const IpAddress &ip) {
    return {ip.isV4ClassA(),   ip.isV4ClassB(), ip.isV4ClassC(),   ip.isV4ClassD(),  ip.isV4ClassE(),
            ip.isV4ClassABC(), ip.isLoopback(), ip.isLocalGroup(), ip.isHostType(),  ip.isDefGwType(),
            ip.isLimBcType(),  ip.isNetType(),  ip.isIfaceType(),  ip.isDirBcType(), ip.isValidAddress()};
}

}  // namespace vxtest::addresses
