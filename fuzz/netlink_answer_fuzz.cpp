// SPDX-License-Identifier: MIT
// Netlink datagrams of any bytes, in a block of exactly their size: what is found is what a slow reading finds, which
// looks at one byte after the other and makes all numbers of them itself.
#include <algorithm>
#include <bit>
#include <cstdlib>
#include <memory>
#include <optional>

#include "vxutils/route_netlink.h"

namespace netlink = vx::netlink;

namespace {

using State = netlink::Answer::State;

void require(bool condition) {
    if (!condition) std::abort();
}

// A number in this machine's order.
uint32_t number(const uint8_t *at, size_t bytes) {
    uint32_t value = 0;
    for (size_t i = 0; i < bytes; ++i) {
        value = value * 256 + at[std::endian::native == std::endian::little ? bytes - 1 - i : i];
    }
    return value;
}

size_t padded(size_t length) {
    while (length % 4 != 0) ++length;
    return length;
}

struct Found {
    State state;
    size_t at = 0;  // of the payload
    size_t length = 0;
};

// Header: length, type and flags, sequence number, port: 16 bytes.
Found slowAnswer(const uint8_t *data, size_t size, uint32_t port, uint32_t sequence) {
    size_t at = 0;
    for (; at + 16 <= size;) {
        const size_t length = number(data + at, 4);
        if (length < 16 || length > size - at) return {State::malformed};
        if (number(data + at + 8, 4) == sequence && number(data + at + 12, 4) == port) {
            return {State::found, at + 16, length - 16};
        }
        at += padded(length);
    }
    return {at >= size ? State::none : State::cut};
}

// Attribute: length and type of two bytes each, then the value; 4 is the output interface.
std::optional<uint32_t> slowInterface(const uint8_t *data, size_t size) {
    for (size_t at = 0; at + 4 <= size;) {
        const size_t length = number(data + at, 2);
        if (length < 4 || length > size - at) return std::nullopt;
        if (number(data + at + 2, 2) == 4) {
            return length >= 8 ? std::optional(number(data + at + 4, 4)) : std::nullopt;
        }
        at += padded(length);
    }
    return std::nullopt;
}

void compare(const uint8_t *data, size_t size, uint32_t port, uint32_t sequence) {
    const netlink::Bytes bytes(data, size);
    const auto answer = netlink::findAnswer(bytes, 0, port, sequence);
    const Found expected = slowAnswer(data, size, port, sequence);
    require(answer.state == expected.state);
    require(netlink::findAnswer(bytes, 1, port, sequence).state != State::found);
    if (answer.state != State::found) return;

    const uint8_t *const payload = data + expected.at;
    require(answer.payload.data() == payload && answer.payload.size() == expected.length);
    require(answer.header.nlmsg_type == number(payload - 12, 2));
    const auto error = netlink::errorField(answer.payload);
    require(error.has_value() == (expected.length >= 4));
    if (error.has_value()) require(*error == static_cast<int32_t>(number(payload, 4)));
    if (expected.length < 12) return;  // of the route message before its attributes
    require(netlink::outputInterface(answer.payload.subspan(12)) == slowInterface(payload + 12, expected.length - 12));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size > 4096) return 0;
    const std::unique_ptr<uint8_t[]> exact(new uint8_t[size]);
    std::copy_n(data, size, exact.get());

    // Ask for the numbers of the first message and for others, so that both paths are taken.
    const uint32_t sequence = size >= 16 ? number(data + 8, 4) : 0;
    const uint32_t port = size >= 16 ? number(data + 12, 4) : 0;
    compare(exact.get(), size, port, sequence);
    compare(exact.get(), size, port + 1, sequence);
    compare(exact.get(), size, port, sequence + 1);
    require(netlink::outputInterface({exact.get(), size}) == slowInterface(exact.get(), size));
    return 0;
}
