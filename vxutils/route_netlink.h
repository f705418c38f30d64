// SPDX-License-Identifier: MIT
// Reading rtnetlink answers: pure functions over received bytes, which are never trusted to be as long as they say.
#pragma once

#include <linux/netlink.h>
#include <linux/rtnetlink.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <optional>
#include <span>

namespace vx::netlink {

using Bytes = std::span<const uint8_t>;

// Copies a record out of bytes of any alignment; nothing when they are too few.
template <typename Record>
std::optional<Record> peek(Bytes bytes) noexcept {
    if (bytes.size() < sizeof(Record)) return std::nullopt;
    Record record;
    std::memcpy(&record, bytes.data(), sizeof record);
    return record;
}

// Netlink pads every message and attribute to a multiple of four; the padding of the last one may be missing.
inline Bytes skipPadded(Bytes bytes, size_t length) noexcept {
    const size_t padded = (length + 3) / 4 * 4;
    return bytes.subspan(std::min(padded, bytes.size()));
}

// What a datagram says about one request.
struct Answer {
    enum class State {
        found,      // header and payload below are the answer
        none,       // only messages for others
        cut,        // the same, and bytes after them that form no whole header
        malformed,  // a message claims a length that is impossible
    };
    State state;
    nlmsghdr header{};
    Bytes payload{};
};

// Finds the first message for port `ourPort` with number `sequence`; only the kernel, port 0, can answer.
inline Answer findAnswer(Bytes datagram, uint32_t senderPort, uint32_t ourPort, uint32_t sequence) noexcept {
    while (const auto header = peek<nlmsghdr>(datagram)) {
        const size_t length = header->nlmsg_len;
        if (length < sizeof(nlmsghdr) || length > datagram.size()) return {Answer::State::malformed};
        if (senderPort == 0 && header->nlmsg_pid == ourPort && header->nlmsg_seq == sequence) {
            return {Answer::State::found, *header, datagram.first(length).subspan(sizeof(nlmsghdr))};
        }
        datagram = skipPadded(datagram, length);
    }
    return {datagram.empty() ? Answer::State::none : Answer::State::cut};
}

// Returns the error field of an NLMSG_ERROR message; nothing when the message is too short to hold one.
inline std::optional<int32_t> errorField(Bytes payload) noexcept { return peek<int32_t>(payload); }

// Finds the output interface of a route message's attributes (those after its rtmsg); nothing when it names none.
inline std::optional<uint32_t> outputInterface(Bytes attributes) noexcept {
    while (const auto attribute = peek<rtattr>(attributes)) {
        const size_t length = attribute->rta_len;
        if (length < sizeof(rtattr) || length > attributes.size()) break;
        if (attribute->rta_type == RTA_OIF) return peek<uint32_t>(attributes.first(length).subspan(sizeof(rtattr)));
        attributes = skipPadded(attributes, length);
    }
    return std::nullopt;
}

}  // namespace vx::netlink
