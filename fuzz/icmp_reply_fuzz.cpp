// SPDX-License-Identifier: MIT
// Replies of any bytes, handed to every reader of the ping families in a block of exactly their size.
#include <algorithm>
#include <cstdlib>
#include <memory>

#include "vxutils/ping_icmp_echo.h"

namespace echo = vx::echo;

namespace {

void require(bool condition) {
    if (!condition) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size > 2048) return 0;
    const std::unique_ptr<uint8_t[]> exact(new uint8_t[size]);
    std::copy_n(data, size, exact.get());
    const echo::Bytes bytes(exact.get(), size);

    const auto plain = echo::plainReply(bytes);
    require(plain.has_value() == (size >= echo::plainReplyMinimum));
    const auto simple = echo::messageBehindHeader(bytes);
    require(!simple.has_value() || size >= echo::ipHeaderLength(bytes[0]) + echo::icmpHeader);
    if (plain.has_value()) require(simple.has_value() && simple->numbers == plain->numbers);

    if (size >= echo::ipHeader) echo::senderOf(bytes);
    require(echo::ipReply(bytes).has_value() == (size >= echo::ipMinimum));

    const auto link = echo::linkReply(bytes);
    require(link.has_value() == (size >= echo::linkReplyNeed(bytes)));
    if (link.has_value()) require(std::equal(link->ends.source.begin(), link->ends.source.end(), exact.get() + 6));

    // A checksum stored where it belongs makes the whole sum up to nothing.
    if (size >= 4 && size % 2 == 0) {
        exact[2] = exact[3] = 0;
        echo::putChecksum(exact.get() + 2, bytes);
        require(echo::internetChecksum(exact.get(), size) == 0);
    }
    return 0;
}
