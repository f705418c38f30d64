// SPDX-License-Identifier: MIT
// What the tests of ping share: a WAN of network namespaces to ping over, packets, the lines of the log.
#pragma once

#include <syslog.h>
#include <vxutils/ping.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "support/files.h"
#include "support/process.h"
#include "support/syslog_capture.h"
#include "support/wan.h"

namespace vxtest::ping {

using Bytes = std::vector<uint8_t>;
using Lines = std::vector<LogLine>;

constexpr const char *gatewayText = "192.0.2.1";
constexpr const char *targetText = "198.51.100.9";
constexpr const char *unusedText = "192.0.2.77";

inline Bytes operator+(Bytes left, const Bytes &right) {
    left.insert(left.end(), right.begin(), right.end());
    return left;
}

inline Bytes tail(const Bytes &bytes, size_t from) {
    return Bytes(bytes.begin() + static_cast<ptrdiff_t>(from), bytes.end());
}

inline Bytes memoryOrder(uint16_t value) {
    Bytes bytes(2);
    std::memcpy(bytes.data(), &value, 2);
    return bytes;
}

inline Bytes networkOrder(uint16_t value) {
    return {static_cast<uint8_t>(value >> 8), static_cast<uint8_t>(value & 0xFF)};
}

inline uint16_t number(const Bytes &bytes, size_t at) { return static_cast<uint16_t>(bytes[at] << 8 | bytes[at + 1]); }

inline uint16_t memoryNumber(const Bytes &bytes, size_t at) {
    uint16_t value;
    std::memcpy(&value, bytes.data() + at, 2);
    return value;
}

// Stores a checksum by the book over [from, end) at `at`.
inline void seal(Bytes &bytes, size_t at, size_t from, size_t end) {
    bytes[at] = bytes[at + 1] = 0;
    const uint16_t sum = checksumByTheBook(bytes.data() + from, end - from);
    bytes[at] = static_cast<uint8_t>(sum >> 8);
    bytes[at + 1] = static_cast<uint8_t>(sum & 0xFF);
}

inline std::string colons(const HardwareAddress &address) {
    std::string text = hex(address);
    for (char &c : text) {
        if (c == ' ') c = ':';
    }
    return text;
}

// A process connects to the system log with its first message and keeps that socket.
struct ConnectedLog : SyslogCapture {
    ConnectedLog() {
        ::syslog(LOG_INFO, "connected");
        take();
    }
    std::vector<std::string> texts() {
        std::vector<std::string> all;
        for (const LogLine &line : take()) all.push_back(line.text);
        return all;
    }
};

class PingTest : public testing::Test {
protected:
    static void SetUpTestSuite() {
        writeFile("/etc/hosts",
                  "127.0.0.1 localhost\n192.0.2.1 wan-gateway\n198.51.100.9 wan-target\n2001:db8::5 six-only\n");
        writeFile("/etc/nsswitch.conf", "hosts: files\n");
        wan = std::make_unique<Wan>();
    }
    static void TearDownTestSuite() { wan.reset(); }

    void TearDown() override {
        Wan::answers(wan->gateway, true);
        Wan::answers(wan->target, true);
    }

    static inline std::unique_ptr<Wan> wan;
};

// Another host of the target's network, one of elsewhere, the pinging host itself, an address without a host.
inline const Bytes strangers[] = {{192, 0, 2, 77}, {203, 0, 113, 5}, {192, 0, 2, 10}, {0, 0, 0, 0}, {192, 0, 2, 0}};

// What one host sends in another one's stead: an echo reply to each request, from this address.
inline Responder::Answer repliesFrom(const Bytes &sender) {
    return [sender](const Bytes &request) {
        Bytes reply = echoReply(request);
        std::copy(sender.begin(), sender.end(), reply.begin() + 26);
        fixChecksums(reply);
        return std::vector<Bytes>{reply};
    };
}

inline int rawpingFrom(const char *source, const char *netmask, timespec *roundTrip = nullptr) {
    return __rawping("wan0", gatewayText, nullptr, source, netmask, 0, -1, roundTrip, nullptr);
}

// Makes the kernel know the gateway, or forget it.
inline void knowGateway(const NetHost &gateway) {
    std::string address;
    gateway.inside([&] { address = colons(hardwareAddress("gw0")); });
    ip("neigh replace 192.0.2.1 lladdr " + address + " dev wan0 nud permanent");
}

inline void forgetGateway() { run({"ip", "neigh", "del", "192.0.2.1", "dev", "wan0"}); }

// An IP packet as a raw socket receives it: header of 20 + options bytes, then the message.
inline Bytes ipPacket(const Bytes &message, size_t options = 0, uint8_t protocol = 1) {
    Bytes packet(20 + options, 1);  // options of no operation
    const Bytes header{
        static_cast<uint8_t>(0x45 + options / 4), 0, 0, 0, 0, 0, 0, 0, 64, protocol, 0, 0, 192, 0, 2, 1, 192, 0, 2, 10};
    std::copy(header.begin(), header.end(), packet.begin());
    packet = packet + message;
    packet[2] = static_cast<uint8_t>(packet.size() >> 8);
    packet[3] = static_cast<uint8_t>(packet.size() & 0xFF);
    return packet;
}

inline Bytes plainMessage(uint8_t type, uint16_t identifier, uint16_t sequence, size_t size = 64) {
    Bytes message = Bytes{type, 0, 0, 0} + networkOrder(identifier) + networkOrder(sequence);
    message.resize(size);
    return message;
}

// The 48 bytes and more that are handed to the socket.
inline Bytes ipEcho(size_t size, uint16_t identifier, uint16_t sequence, const Bytes &source, const Bytes &target) {
    Bytes packet = Bytes{0x45, 0, 0, 48, 0, 0, 0, 0, 64, 1, 0, 0} + source + target + Bytes{8, 0, 0, 0} +
                   memoryOrder(identifier) + memoryOrder(sequence);
    packet.resize(size);
    seal(packet, 10, 0, 20);
    seal(packet, 22, 20, 48);
    return packet;
}

inline Bytes ipMessage(uint8_t type, uint16_t identifier, uint16_t sequence, size_t size = 28) {
    Bytes message = Bytes{type, 0, 0, 0} + memoryOrder(identifier) + memoryOrder(sequence);
    message.resize(size);
    return message;
}

inline Bytes linkEcho(const NetHost &gateway, size_t size, uint16_t identifier, uint16_t sequence,
                      const Bytes &source = {192, 0, 2, 10}) {
    Bytes frame;
    gateway.inside([&] { frame = hardwareAddress("gw0"); });
    frame = frame + hardwareAddress("wan0") + Bytes{8, 0, 0x45, 0} + networkOrder(static_cast<uint16_t>(size - 14)) +
            Bytes{0, 0, 0x40, 0, 64, 1, 0, 0} + source + Bytes{198, 51, 100, 9, 8, 0, 0, 0} + networkOrder(identifier) +
            networkOrder(sequence);
    seal(frame, 24, 14, 34);
    frame.resize(size);
    seal(frame, 36, 34, 42);
    return frame;
}

inline const std::string ipWay = "rawping[wan0] => sending ip ping to ";

}  // namespace vxtest::ping
