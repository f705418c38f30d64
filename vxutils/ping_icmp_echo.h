// SPDX-License-Identifier: MIT
// Echo packets as bytes: pure functions that build requests, read replies and make the socket filter for replies. What
// is read may come from any host, so no length or offset in it is trusted.
#pragma once

#include <linux/filter.h>
#include <linux/if_ether.h>
#include <netinet/in.h>
#include <netinet/ip_icmp.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstring>
#include <optional>
#include <span>

namespace vx::echo {

using MacAddress = std::array<uint8_t, ETH_ALEN>;
using Bytes = std::span<const uint8_t>;

constexpr size_t ethernetHeader = 14;
constexpr size_t ipHeader = 20;
constexpr size_t icmpHeader = 8;

constexpr size_t plainSize = 64;                                        // whole ICMP message
constexpr size_t plainReplyMinimum = 76;                                // with its IP header
constexpr size_t ipMinimum = 48;                                        // header, message, 20 bytes of data
constexpr size_t linkMinimum = ethernetHeader + ipHeader + icmpHeader;  // 42
constexpr size_t simpleSize = ipHeader + icmpHeader;                    // 28

constexpr uint16_t dontFragment = 0x4000;

// Byte order of the identifier and the sequence number in a message: network order, or the order of this machine's
// memory, which the IP-level echo uses in both directions.
enum class Order { network, memory };

struct Numbers {
    uint16_t identifier;
    uint16_t sequence;

    bool operator==(const Numbers &) const = default;
};

// ---- bytes ----

inline void put16(uint8_t *at, uint16_t value) noexcept {
    at[0] = static_cast<uint8_t>(value >> 8);
    at[1] = static_cast<uint8_t>(value & 0xFF);
}

inline void put32(uint8_t *at, uint32_t value) noexcept {
    put16(at, static_cast<uint16_t>(value >> 16));
    put16(at + 2, static_cast<uint16_t>(value & 0xFFFF));
}

inline uint32_t get32(const uint8_t *at) noexcept {
    return static_cast<uint32_t>(at[0]) << 24 | static_cast<uint32_t>(at[1]) << 16 | static_cast<uint32_t>(at[2]) << 8 |
           at[3];
}

inline void putNumber(uint8_t *at, uint16_t value, Order order) noexcept {
    if (order == Order::network) {
        put16(at, value);
    } else {
        std::memcpy(at, &value, sizeof value);
    }
}

inline uint16_t getNumber(const uint8_t *at, Order order) noexcept {
    uint16_t value;
    std::memcpy(&value, at, sizeof value);
    return order == Order::network ? ntohs(value) : value;
}

// Computes the Internet checksum (RFC 1071) in memory order: store it with memcpy.
inline uint16_t internetChecksum(const void *data, size_t length) noexcept {
    const auto *at = static_cast<const uint8_t *>(data);
    uint64_t sum = 0;
    for (; length > 1; length -= 2, at += 2) sum += getNumber(at, Order::memory);
    if (length == 1) sum += *at;
    while (sum > 0xFFFF) sum = (sum >> 16) + (sum & 0xFFFF);
    return static_cast<uint16_t>(~sum & 0xFFFF);
}

inline void putChecksum(uint8_t *at, Bytes over) noexcept {
    const uint16_t sum = internetChecksum(over.data(), over.size());
    std::memcpy(at, &sum, sizeof sum);
}

// ---- requests ----

struct IpFields {
    uint16_t totalLength;
    uint16_t fragment;
    uint8_t timeToLive;
    uint32_t source;  // host order
    uint32_t target;
};

// Writes into 20 zero bytes, the checksum left zero.
inline void putIpHeader(uint8_t *at, const IpFields &fields) noexcept {
    at[0] = 0x45;
    put16(at + 2, fields.totalLength);
    put16(at + 6, fields.fragment);
    at[8] = fields.timeToLive;
    at[9] = IPPROTO_ICMP;
    put32(at + 12, fields.source);
    put32(at + 16, fields.target);
}

// Writes into 8 zero bytes, the checksum left zero.
inline void putEchoHeader(uint8_t *at, Numbers numbers, Order order) noexcept {
    at[0] = ICMP_ECHO;
    putNumber(at + 4, numbers.identifier, order);
    putNumber(at + 6, numbers.sequence, order);
}

// Makes an ICMP message alone: the kernel writes the IP header.
inline std::array<uint8_t, plainSize> plainRequest(Numbers numbers) noexcept {
    std::array<uint8_t, plainSize> message{};
    putEchoHeader(message.data(), numbers, Order::network);
    putChecksum(message.data() + 2, message);
    return message;
}

struct LinkEnds {
    MacAddress destination;
    MacAddress source;
};

// Fills `frame` with a whole Ethernet frame; it has at least linkMinimum bytes.
inline void linkRequest(std::span<uint8_t> frame, const LinkEnds &ends, uint32_t source, uint32_t target,
                        Numbers numbers) noexcept {
    std::fill(frame.begin(), frame.end(), uint8_t{0});
    uint8_t *ip = frame.data() + ethernetHeader;
    uint8_t *icmp = ip + ipHeader;
    std::copy(ends.destination.begin(), ends.destination.end(), frame.data());
    std::copy(ends.source.begin(), ends.source.end(), frame.data() + ETH_ALEN);
    put16(frame.data() + 12, ETH_P_IP);
    putIpHeader(ip, {static_cast<uint16_t>(frame.size() - ethernetHeader), dontFragment, 64, source, target});
    putChecksum(ip + 10, {ip, ipHeader});
    putEchoHeader(icmp, numbers, Order::network);
    putChecksum(icmp + 2, {icmp, icmpHeader});  // the rest is zero and adds nothing
}

// Fills `packet` with an IP packet; it has at least ipMinimum bytes. Its header says 48 bytes however many there are.
inline void ipRequest(std::span<uint8_t> packet, uint32_t source, uint32_t target, Numbers numbers) noexcept {
    std::fill(packet.begin(), packet.end(), uint8_t{0});
    uint8_t *ip = packet.data();
    uint8_t *icmp = ip + ipHeader;
    putIpHeader(ip, {ipMinimum, 0, 64, source, target});
    putChecksum(ip + 10, {ip, ipHeader});
    putEchoHeader(icmp, numbers, Order::memory);
    putChecksum(icmp + 2, {icmp, icmpHeader});  // the rest is zero and adds nothing
}

// Writes the smallest echo into zero bytes, both checksums left to the caller.
inline void simpleRequest(std::span<uint8_t, simpleSize> packet, uint32_t source, uint32_t target,
                          Numbers numbers) noexcept {
    putIpHeader(packet.data(), {simpleSize, 0, 128, source, target});
    putEchoHeader(packet.data() + ipHeader, numbers, Order::network);
}

// ---- replies ----

// The low nibble of an IP header's first byte, in bytes: 0 to 60.
inline size_t ipHeaderLength(uint8_t first) noexcept { return static_cast<size_t>(first & 0x0F) * 4; }

// Where an IP header holds the address of the packet's sender.
constexpr size_t senderAt = 12;

// Returns the sender of an IP packet that has been read: it has a whole header.
inline uint32_t senderOf(Bytes packet) noexcept { return get32(&packet[senderAt]); }

// Whether replies to an echo that went to `target` come from that address: a group's members and the hosts that a
// broadcast reaches answer with their own addresses, and so does this machine for the address 0.
inline bool answersItself(uint32_t target) noexcept {
    return target != INADDR_ANY && target != INADDR_BROADCAST && !IN_MULTICAST(target);
}

inline bool mayAnswer(uint32_t target, uint32_t sender) noexcept { return sender == target || !answersItself(target); }

struct Message {
    uint8_t type;
    Numbers numbers;
};

// Reads the ICMP message after an IP header of the length that the header states; nothing when it does not lie within
// `packet`.
inline std::optional<Message> messageBehindHeader(Bytes packet) noexcept {
    if (packet.empty()) return std::nullopt;
    const size_t offset = ipHeaderLength(packet[0]);
    if (packet.size() < offset + icmpHeader) return std::nullopt;
    const uint8_t *icmp = packet.data() + offset;
    return Message{icmp[0], {getNumber(icmp + 4, Order::network), getNumber(icmp + 6, Order::network)}};
}

// Reads a packet that answers a plain request; nothing when it is too short for one.
inline std::optional<Message> plainReply(Bytes packet) noexcept {
    return packet.size() < plainReplyMinimum ? std::nullopt : messageBehindHeader(packet);
}

struct LinkReply {
    LinkEnds ends;
    uint8_t protocol;
    Message message;
};

// Returns the bytes that a frame must have to be read: its IP header may carry options. A header that claims to be
// shorter than any header is read as one of 20 bytes.
inline size_t linkReplyNeed(Bytes frame) noexcept {
    if (frame.size() < linkMinimum) return linkMinimum;
    return ethernetHeader + std::max(ipHeader, ipHeaderLength(frame[ethernetHeader])) + icmpHeader;
}

// Reads a frame that answers a link-level request; it has at least linkReplyNeed() bytes, or nothing is read.
inline std::optional<LinkReply> linkReply(Bytes frame) noexcept {
    const size_t need = linkReplyNeed(frame);
    if (frame.size() < need) return std::nullopt;
    const uint8_t *icmp = frame.data() + need - icmpHeader;
    LinkReply reply{};
    std::copy_n(frame.data(), ETH_ALEN, reply.ends.destination.data());
    std::copy_n(frame.data() + ETH_ALEN, ETH_ALEN, reply.ends.source.data());
    reply.protocol = frame[ethernetHeader + 9];
    reply.message = {icmp[0], {getNumber(icmp + 4, Order::network), getNumber(icmp + 6, Order::network)}};
    return reply;
}

struct IpReply {
    uint8_t protocol;
    Message message;
};

// Reads a packet that answers an IP-level request; nothing when it is too short for one. Its header is taken to have 20
// bytes.
inline std::optional<IpReply> ipReply(Bytes packet) noexcept {
    if (packet.size() < ipMinimum) return std::nullopt;
    const uint8_t *icmp = packet.data() + ipHeader;
    return IpReply{packet[9], {icmp[0], {getNumber(icmp + 4, Order::memory), getNumber(icmp + 6, Order::memory)}}};
}

// ---- filters ----

// Lets pass IP packets of this sender, and nothing else.
inline std::array<sock_filter, 4> senderFilter(uint32_t sender) noexcept {
    constexpr uint32_t whole = UINT32_MAX;
    return {{
        {BPF_LD | BPF_W | BPF_ABS, 0, 0, senderAt},
        {BPF_JMP | BPF_JEQ | BPF_K, 0, 1, sender},
        {BPF_RET | BPF_K, 0, 0, whole},
        {BPF_RET | BPF_K, 0, 0, 0},
    }};
}

constexpr size_t filterSize = 13;

// Lets pass the first 96 bytes of unfragmented ICMP echo replies that carry this identifier, and nothing else.
inline std::array<sock_filter, filterSize> replyFilter(uint16_t identifier) noexcept {
    constexpr uint32_t kept = 96;
    constexpr auto load = [](uint16_t size, uint16_t mode, uint32_t at) {
        return sock_filter{static_cast<uint16_t>(BPF_LD | size | mode), 0, 0, at};
    };
    constexpr auto unless = [](uint16_t test, uint32_t value, uint8_t whenTrue, uint8_t whenFalse) {
        return sock_filter{static_cast<uint16_t>(BPF_JMP | test | BPF_K), whenTrue, whenFalse, value};
    };
    return {{
        /*  0 */ load(BPF_H, BPF_ABS, 12),
        /*  1 */ unless(BPF_JEQ, ETH_P_IP, 0, 10),
        /*  2 */ load(BPF_B, BPF_ABS, 23),
        /*  3 */ unless(BPF_JEQ, IPPROTO_ICMP, 0, 8),
        /*  4 */ load(BPF_H, BPF_ABS, 20),
        /*  5 */ unless(BPF_JSET, 0x1FFF, 6, 0),
        /*  6 */ {BPF_LDX | BPF_B | BPF_MSH, 0, 0, ethernetHeader},
        /*  7 */ load(BPF_B, BPF_IND, ethernetHeader),
        /*  8 */ unless(BPF_JEQ, ICMP_ECHOREPLY, 0, 3),
        /*  9 */ load(BPF_H, BPF_IND, ethernetHeader + 4),
        /* 10 */ unless(BPF_JEQ, identifier, 0, 1),
        /* 11 */ {BPF_RET | BPF_K, 0, 0, kept},
        /* 12 */ {BPF_RET | BPF_K, 0, 0, 0},
    }};
}

}  // namespace vx::echo
