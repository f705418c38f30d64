// SPDX-License-Identifier: MIT
// vx addr: arithmetic with addresses.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <vxutils/address.h>
#include <vxutils/ipaddress.h>

#include <array>
#include <cstring>

#include "commands/commands.h"
#include "core/failure.h"

namespace tool {

namespace {

constexpr size_t textSize = 93;  // the longest that the library prints

// Address records of either family.
struct Network {
    sockaddr_in6 address{};
    sockaddr_in6 mask{};

    const sockaddr *addressRecord() const { return reinterpret_cast<const sockaddr *>(&address); }
    sockaddr *addressRecord() { return reinterpret_cast<sockaddr *>(&address); }
    const sockaddr *maskRecord() const { return reinterpret_cast<const sockaddr *>(&mask); }
    sockaddr *maskRecord() { return reinterpret_cast<sockaddr *>(&mask); }
    int family() const { return addressRecord()->sa_family; }
    bool isV4() const { return family() == AF_INET; }
};

// The IPv4 address in a record, in host order.
uint32_t word(const sockaddr_in6 &record) {
    sockaddr_in v4;
    std::memcpy(&v4, &record, sizeof v4);
    return ntohl(v4.sin_addr.s_addr);
}

void setWord(sockaddr_in6 &record, uint32_t word) {
    sockaddr_in v4;
    std::memcpy(&v4, &record, sizeof v4);
    v4.sin_addr.s_addr = htonl(word);
    std::memcpy(&record, &v4, sizeof v4);
}

// "10.0.0.1", "10.0.0.1/8", "10.0.0.1/255.0.0.0", "2001:db8::1/64".
Network networkOf(const std::string &text) {
    Network network;
    const size_t slash = text.find('/');
    if (str2addr(text.substr(0, slash).c_str(), network.addressRecord()) != 0)
        throw Failure(named(text), "is not an address");
    const int longest = network.isV4() ? 32 : 128;
    if (slash == std::string::npos) {
        cidr2netmask(longest, network.maskRecord(), network.family());
        return network;
    }
    const std::string rest = text.substr(slash + 1);
    const auto prefix = wholeNumber(rest, 0, longest);
    // Neither hexadecimal nor with zeros that could mean octal.
    if (prefix && rest == std::to_string(*prefix)) {
        cidr2netmask(static_cast<int>(*prefix), network.maskRecord(), network.family());
    } else if (str2addr(rest.c_str(), network.maskRecord()) != 0 ||
               network.maskRecord()->sa_family != network.family() || netmask2cidr(network.maskRecord()) < 0) {
        throw Failure(text, "has neither a prefix length nor a netmask after the slash");
    }
    return network;
}

std::string addressText(const sockaddr *address) {
    std::array<char, textSize> text{};
    addr2str(text.data(), address);
    return text.data();
}

std::string networkText(const Network &network) {
    std::array<char, textSize> text{};
    net2cidr(text.data(), network.addressRecord(), network.maskRecord());
    return text.data();
}

// What an IPv4 address is within its network.
const char *kindOf(const IpAddress &address) {
    if (address.isDefGwType()) return "default";
    if (address.isLimBcType() || address.isDirBcType()) return "broadcast";
    if (address.isNetType()) return "network";
    if (address.isIfaceType()) return "interface";
    if (address.isHostType()) return "host";
    if (address.isV4ClassD()) return "multicast";
    return "other";
}

Record recordOfV4(const Network &network) {
    const uint32_t address = word(network.address);
    const uint32_t mask = word(network.mask);
    Network broadcast = network;
    setWord(broadcast.address, address | ~mask);
    const IpAddress value(address, mask);
    return {{"address", addressText(network.addressRecord())},
            {"family", 4},
            {"prefix", netmask2cidr(network.maskRecord())},
            {"network", networkText(network)},
            {"netmask", addressText(network.maskRecord())},
            {"broadcast", addressText(broadcast.addressRecord())},
            {"kind", kindOf(value)},
            {"loopback", value.isLoopback()},
            {"link_local", address >> 16 == 0xA9FE}};
}

Record recordOfV6(const Network &network) {
    const bool loopback = IN6_IS_ADDR_LOOPBACK(&network.address.sin6_addr) != 0;
    return {{"address", addressText(network.addressRecord())},
            {"family", 6},
            {"prefix", netmask2cidr(network.maskRecord())},
            {"network", networkText(network)},
            {"netmask", addressText(network.maskRecord())},
            {"broadcast", Value()},
            {"kind", Value()},
            {"loopback", loopback},
            {"link_local", is_link_local_address(network.addressRecord()) == 1}};
}

bool contains(const Network &network, const Network &other) {
    if (network.family() != other.family()) return false;
    Network outer = network;
    Network inner = other;
    strip_host_part_from_network_address(outer.addressRecord(), network.maskRecord());
    strip_host_part_from_network_address(inner.addressRecord(), network.maskRecord());
    return addr_differs(outer.addressRecord(), inner.addressRecord()) == 0;
}

int addr(const Arguments &arguments, Output &out) {
    const Network network = networkOf(arguments[0]);
    if (const char *other = arguments.text("contains")) {
        if (!contains(network, networkOf(other))) throw Failure(other, "not in " + networkText(network));
        out.done();
        return statusDone;
    }
    out.print(network.isV4() ? recordOfV4(network) : recordOfV6(network), Plain::fields);
    return statusDone;
}

constexpr Option options[] = {{0, "contains", "ADDRESS", "status 0 when it lies in the network of TEXT, else 1"}};
constexpr Argument text[] = {{"TEXT", Count::one}};
constexpr Verb verbs[] = {{"", "print what an address with its prefix length or netmask means", options, text, addr}};

}  // namespace

const Command addrCommand{"addr", "address arithmetic, IPv4 and IPv6", {}, verbs};

}  // namespace tool
