// SPDX-License-Identifier: MIT
// Replies of any bytes, handed to every reader of the ping families in a block of exactly their size. They must
// read the bytes at the offsets of RFC 791 and RFC 792.
#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "vxutils/ping_icmp_echo.h"

namespace echo = vx::echo;

namespace {

void require(bool condition) {
    if (!condition) std::abort();
}

unsigned int network16(const uint8_t *at) { return at[0] * 256U + at[1]; }

bool networkNumbers(const echo::Message &message, const uint8_t *icmp) {
    return message.type == icmp[0] && message.numbers.identifier == network16(icmp + 4) &&
           message.numbers.sequence == network16(icmp + 6);
}

bool memoryNumbers(const echo::Message &message, const uint8_t *icmp) {
    return message.type == icmp[0] && std::memcmp(&message.numbers.identifier, icmp + 4, 2) == 0 &&
           std::memcmp(&message.numbers.sequence, icmp + 6, 2) == 0;
}

// Bytes of an IP header with its options.
size_t headerLength(uint8_t first) { return first % 16 * 4U; }

void checkPacket(const uint8_t *packet, size_t size) {
    const echo::Bytes bytes(packet, size);
    const bool whole = size > 0 && size >= headerLength(packet[0]) + 8;
    const auto simple = echo::messageBehindHeader(bytes);
    require(simple.has_value() == whole);
    if (whole) require(networkNumbers(*simple, packet + headerLength(packet[0])));

    const auto plain = echo::plainReply(bytes);
    require(plain.has_value() == (size > 75));  // any header is shorter
    if (plain.has_value()) require(networkNumbers(*plain, packet + headerLength(packet[0])));

    const auto ip = echo::ipReply(bytes);
    require(ip.has_value() == (size >= 48));
    if (ip.has_value()) require(ip->protocol == packet[9] && memoryNumbers(ip->message, packet + 20));

    if (size >= 20) require(echo::senderOf(bytes) == network16(packet + 12) * 65536U + network16(packet + 14));
}

void checkFrame(const uint8_t *frame, size_t size) {
    const auto link = echo::linkReply({frame, size});
    const size_t message = size < 42 ? 34 : 14 + std::max<size_t>(20, headerLength(frame[14]));
    require(link.has_value() == (size >= message + 8));
    if (!link.has_value()) return;
    require(std::memcmp(link->ends.destination.data(), frame, 6) == 0);
    require(std::memcmp(link->ends.source.data(), frame + 6, 6) == 0);
    require(link->protocol == frame[23] && networkNumbers(link->message, frame + message));
}

// A checksum stored where it belongs makes the sum over all words a multiple of 65535.
void checkChecksum(uint8_t *bytes, size_t size) {
    bytes[2] = bytes[3] = 0;
    echo::putChecksum(bytes + 2, {bytes, size});
    uint64_t sum = 0;
    for (size_t at = 0; at < size; ++at) sum += at % 2 == 0 ? bytes[at] * 256U : bytes[at];
    require(sum % 65535 == 0 && sum > 0);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size > 2048) return 0;
    const std::unique_ptr<uint8_t[]> exact(new uint8_t[size]);
    std::copy_n(data, size, exact.get());
    checkPacket(exact.get(), size);
    checkFrame(exact.get(), size);
    if (size >= 4) checkChecksum(exact.get(), size);
    return 0;
}
