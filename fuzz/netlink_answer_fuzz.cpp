// SPDX-License-Identifier: MIT
// Netlink datagrams of any bytes, in a block of exactly their size: what is found lies within it.
#include <algorithm>
#include <cstdlib>
#include <memory>

#include "vxutils/route_netlink.h"

namespace netlink = vx::netlink;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    constexpr size_t largest = 4096;
    if (size > largest) return 0;
    const std::unique_ptr<uint8_t[]> exact(new uint8_t[size]);
    std::copy_n(data, size, exact.get());
    const netlink::Bytes bytes(exact.get(), size);

    // Ask for the numbers of the first message and for others, so that both paths are taken.
    const auto first = netlink::peek<nlmsghdr>(bytes);
    for (const uint32_t off : {0U, 1U}) {
        const uint32_t port = first.has_value() ? first->nlmsg_pid + off : 0;
        const uint32_t sequence = first.has_value() ? first->nlmsg_seq : 0;
        const auto answer = netlink::findAnswer(bytes, 0, port, sequence);
        if (netlink::findAnswer(bytes, 1, port, sequence).state == netlink::Answer::State::found) std::abort();
        if (answer.state != netlink::Answer::State::found) continue;
        if (answer.payload.data() < exact.get() + sizeof(nlmsghdr) ||
            answer.payload.data() + answer.payload.size() > exact.get() + size) {
            std::abort();
        }
        netlink::errorField(answer.payload);
        if (answer.payload.size() >= sizeof(rtmsg)) netlink::outputInterface(answer.payload.subspan(sizeof(rtmsg)));
    }
    netlink::outputInterface(bytes);
    return 0;
}
