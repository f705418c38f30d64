// SPDX-License-Identifier: MIT
#include <vxutils/address.h>

#include <arpa/inet.h>
#include <netinet/in.h>

#include <algorithm>
#include <array>
#include <bit>
#include <cstddef>
#include <cstdio>
#include <cstring>

#include "vxutils/internal/digits.h"

namespace {

constexpr size_t networkTextSize = 93;  // two IPv6 texts, the slash and the terminator
constexpr uint32_t allOnes = 0xffffffff;

// Callers' records may be shorter than either layout and need not be aligned: they are only touched as bytes, at these
// places and no others.
constexpr size_t address4 = offsetof(sockaddr_in, sin_addr);
constexpr size_t address6 = offsetof(sockaddr_in6, sin6_addr);
constexpr size_t words6 = sizeof(in6_addr) / sizeof(uint32_t);

const char *bytes(const sockaddr *record) { return reinterpret_cast<const char *>(record); }
char *bytes(sockaddr *record) { return reinterpret_cast<char *>(record); }

int familyOf(const sockaddr *record) {
    sa_family_t family;
    memcpy(&family, record, sizeof family);
    return family;
}

void storeFamily(sockaddr *record, sa_family_t family) { memcpy(record, &family, sizeof family); }

uint32_t wordAt(const char *place) {
    uint32_t word;
    memcpy(&word, place, sizeof word);
    return word;
}

void storeWord(char *place, uint32_t word) { memcpy(place, &word, sizeof word); }

// `size6` is how many bytes of an IPv6 address the records hold.
bool addressesDiffer(const sockaddr *a, const sockaddr *b, size_t size6) {
    if (familyOf(a) != familyOf(b)) return true;
    switch (familyOf(a)) {
        case AF_INET:
            return memcmp(bytes(a) + address4, bytes(b) + address4, sizeof(in_addr)) != 0;
        case AF_INET6:
            return memcmp(bytes(a) + address6, bytes(b) + address6, size6) != 0;
        default:
            return false;
    }
}

// Reads four numbers below 256 and three points. No leading zeros: to some readers they mean base eight.
bool parse4(const char *text, std::array<unsigned char, 4> &address) {
    const auto *next = reinterpret_cast<const unsigned char *>(text);
    for (size_t i = 0;; ++i) {
        unsigned int value = *next - unsigned{'0'};
        if (value > 9) return false;
        unsigned int digit = *++next - unsigned{'0'};
        if (digit <= 9) {
            if (value == 0) return false;
            value = value * 10 + digit;
            digit = *++next - unsigned{'0'};
            if (digit <= 9) {
                value = value * 10 + digit;
                ++next;
            }
        }
        if (value > 255) return false;
        address[i] = static_cast<unsigned char>(value);
        if (i == 3) return *next == '\0';
        if (*next++ != '.') return false;
    }
}

// The family is stored even when the text is refused; the address is not.
bool read4(const char *text, sockaddr *addr) {
    storeFamily(addr, AF_INET);
    std::array<unsigned char, 4> address;
    if (!parse4(text, address)) return false;
    memcpy(bytes(addr) + address4, address.data(), address.size());
    return true;
}

bool read6(const char *text, sockaddr *addr) {
    storeFamily(addr, AF_INET6);
    return inet_pton(AF_INET6, text, bytes(addr) + address6) == 1;
}

// Whether all one bits come before all zero bits: the inverted mask is a power of two less 1.
bool isContiguous(uint32_t hostOrderMask) { return (~hostOrderMask & (~hostOrderMask + 1)) == 0; }

// `prefix` is 0 to 32.
uint32_t maskOf(int prefix) { return prefix == 0 ? 0 : htonl(allOnes << (32 - prefix)); }

int prefixOf6(const char *mask) {
    size_t full = 0;
    while (full < words6 && wordAt(mask + full * sizeof(uint32_t)) == allOnes) ++full;
    if (full == words6) return 128;
    const uint32_t last = ntohl(wordAt(mask + full * sizeof(uint32_t)));
    uint32_t rest = 0;
    for (size_t i = full + 1; i < words6; ++i) rest |= wordAt(mask + i * sizeof rest);
    return isContiguous(last) && rest == 0 ? static_cast<int>(full) * 32 + std::countl_one(last) : -1;
}

}  // namespace

int addr_differs(const struct sockaddr *a, const struct sockaddr *b) {
    if (a == nullptr || b == nullptr) return a != b;
    return addressesDiffer(a, b, sizeof(in6_addr));
}

int route_differs(const struct route_record *a, const struct route_record *b) {
    if (a == nullptr || b == nullptr) return a != b;
    for (const int slot : {0, 2, 1}) {
        if (addressesDiffer(&a->slot[slot], &b->slot[slot], sizeof(sockaddr) - address6)) return 1;
    }
    return 0;
}

char *addr2str(char *buf, const struct sockaddr *addr) {
    if (buf == nullptr || addr == nullptr) return nullptr;
    switch (familyOf(addr)) {
        case AF_INET:
            *vx::writeQuad(buf, ntohl(wordAt(bytes(addr) + address4))) = '\0';
            break;
        case AF_INET6:
            inet_ntop(AF_INET6, bytes(addr) + address6, buf, INET6_ADDRSTRLEN);
            break;
        default:
            *buf = '\0';
    }
    return buf;
}

char *net2str(char *dst, const struct sockaddr *addr, const struct sockaddr *mask) {
    if (dst == nullptr || addr == nullptr || mask == nullptr) return nullptr;
    char addressText[INET6_ADDRSTRLEN];
    char maskText[INET6_ADDRSTRLEN];
    addr2str(addressText, addr);
    addr2str(maskText, mask);
    char *slash = stpcpy(dst, addressText);
    *slash = '/';
    strcpy(slash + 1, maskText);
    return dst;
}

int str2addr4(const char *text, struct sockaddr *addr) {
    if (text == nullptr || addr == nullptr) return -1;
    return read4(text, addr) ? 0 : -1;
}

int str2addr6(const char *text, struct sockaddr *addr) {
    if (text == nullptr || addr == nullptr) return -1;
    return read6(text, addr) ? 0 : -1;
}

// Quirk Q18.
int str2addr(const char *text, struct sockaddr *addr) {
    if (text == nullptr || addr == nullptr) return -1;
    if (read4(text, addr)) return 0;  // such a text holds no colon
    return strchr(text, ':') != nullptr && read6(text, addr) ? 0 : -1;
}

int strip_host_part_from_network_address(struct sockaddr *addr, const struct sockaddr *mask) {
    if (addr == nullptr || mask == nullptr || familyOf(addr) != familyOf(mask)) return 0;
    const int family = familyOf(addr);
    if (family != AF_INET && family != AF_INET6) return 0;
    const size_t begin = family == AF_INET ? address4 : address6;
    const size_t end = begin + (family == AF_INET ? sizeof(in_addr) : sizeof(in6_addr));
    for (size_t at = begin; at < end; at += sizeof(uint32_t)) {
        storeWord(bytes(addr) + at, wordAt(bytes(addr) + at) & wordAt(bytes(mask) + at));
    }
    return 1;
}

int netmask2cidr(const struct sockaddr *mask) {
    if (mask == nullptr) return -1;
    if (familyOf(mask) == AF_INET6) return prefixOf6(bytes(mask) + address6);
    if (familyOf(mask) != AF_INET) return -1;
    const uint32_t word = ntohl(wordAt(bytes(mask) + address4));
    return isContiguous(word) ? std::countl_one(word) : -1;
}

char *net2cidr(char *dst, const struct sockaddr *addr, const struct sockaddr *mask) {
    if (dst == nullptr || addr == nullptr || mask == nullptr) return nullptr;
    sockaddr_in6 copy{};
    auto *network = reinterpret_cast<sockaddr *>(&copy);
    memcpy(network, addr, familyOf(addr) == AF_INET6 ? sizeof(sockaddr_in6) : sizeof(sockaddr));
    if (strip_host_part_from_network_address(network, mask) == 0) return nullptr;
    const int prefix = netmask2cidr(mask);
    if (prefix < 0) return nullptr;
    char text[INET6_ADDRSTRLEN];
    snprintf(dst, networkTextSize, "%s/%d", addr2str(text, network), prefix);
    return dst;
}

int cidr2netmask(int prefix, struct sockaddr *mask, int family) {
    if (mask == nullptr || prefix < 0) return -1;
    if (family == AF_INET && prefix <= 32) {
        storeFamily(mask, AF_INET);
        storeWord(bytes(mask) + address4, maskOf(prefix));
        return 0;
    }
    if (family != AF_INET6 || prefix > 128) return -1;
    storeFamily(mask, AF_INET6);
    for (size_t i = 0; i < words6; ++i) {
        storeWord(bytes(mask) + address6 + i * sizeof(uint32_t), maskOf(std::clamp(prefix, 0, 32)));
        prefix -= 32;
    }
    return 0;
}

int is_link_local_address(const struct sockaddr *addr) {
    if (addr == nullptr) return 0;
    uint16_t group;
    memcpy(&group, bytes(addr) + address6, sizeof group);
    return (ntohs(group) & 0xfec0) == 0xfe80;  // Quirk Q17: the test leaves out bit 0x0100.
}
