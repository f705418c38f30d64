// SPDX-License-Identifier: MIT
#include <vxutils/pingclient.h>

#include <arpa/inet.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>

#include "vxutils/ping_icmp_echo.h"
#include "vxutils/ping_packet_filter.h"
#include "vxutils/ping_resolve.h"

namespace {

namespace echo = vx::echo;

constexpr size_t replySize = 256;
constexpr int mostPackets = 1024;  // in one call: more than a socket's queue holds

enum SendResult { sendDone = 0, sendFailed = 1 };
enum CheckResult { checkFound = 0, checkNothing = 2, checkFailed = 3 };

uint16_t randomNumber() { return static_cast<uint16_t>(std::rand() & 0xFFFF); }

// Lets the kernel compare the senders, because the object, whose size is fixed, has no member for the destination.
// Returns false when the filter cannot be attached.
bool receiveOnlyFrom(int fd, uint32_t target) {
    if (!echo::answersItself(target)) return true;
    if (vx::attachFilter(fd, echo::senderFilter(target)) == -1) return false;
    vx::dropUnfiltered(fd);
    return true;
}

}  // namespace

static_assert(sizeof(PingClient) == sizeof(void *) + 8);

PingClient::PingClient() : socket_(-1), identifier_(randomNumber()), sequence_(randomNumber()) {}

PingClient::~PingClient() { PingClient::cleanup(); }

// Quirk Q78.
int PingClient::sendSimplePing(const String &source, const String &destination) {
    cleanup();
    ++sequence_;
    socket_ = socket(AF_INET, SOCK_RAW | SOCK_CLOEXEC, IPPROTO_ICMP);
    if (socket_ == -1) return sendFailed;
    const int on = 1;
    if (setsockopt(socket_, IPPROTO_IP, IP_HDRINCL, &on, sizeof on) == -1) return sendFailed;
    const auto target = vx::resolveHost(destination.c_str());
    if (!target.has_value()) return sendFailed;
    if (!receiveOnlyFrom(socket_, *target)) return sendFailed;

    std::array<unsigned short, echo::simpleSize / sizeof(unsigned short)> words{};
    auto *const bytes = reinterpret_cast<uint8_t *>(words.data());
    constexpr size_t ipWords = echo::ipHeader / sizeof(unsigned short);
    echo::simpleRequest(std::span<uint8_t, echo::simpleSize>(bytes, echo::simpleSize), ntohl(inet_addr(source.c_str())),
                        *target, {identifier_, sequence_});
    words[ipWords + 1] = checksum(words.data() + ipWords, echo::icmpHeader);
    // Quirk Q76: over the whole packet. The ICMP message, whose checksum is set already, adds nothing to the sum.
    words[5] = checksum(words.data(), echo::simpleSize);

    sockaddr_in host{};
    host.sin_family = AF_INET;
    host.sin_addr.s_addr = htonl(*target);
    const ssize_t sent =
        sendto(socket_, bytes, echo::simpleSize, 0, reinterpret_cast<const sockaddr *>(&host), sizeof host);
    return sent == static_cast<ssize_t>(echo::simpleSize) ? sendDone : sendFailed;
}

// Quirk Q77.
int PingClient::checkPingResponse() {
    std::array<uint8_t, replySize> packet;
    for (int packets = 0; packets < mostPackets; ++packets) {
        const ssize_t got = recvfrom(socket_, packet.data(), packet.size(), MSG_DONTWAIT, nullptr, nullptr);
        if (got == -1) return errno == EAGAIN ? checkNothing : checkFailed;
        const auto message = echo::messageBehindHeader(std::span(packet).first(static_cast<size_t>(got)));
        if (message.has_value() && message->numbers == echo::Numbers{identifier_, sequence_}) return checkFound;
    }
    return checkNothing;
}

void PingClient::cleanup() {
    if (socket_ != -1) close(socket_);
    socket_ = -1;
}

unsigned short PingClient::checksum(unsigned short *data, int length) const {
    return echo::internetChecksum(data, static_cast<size_t>(std::max(length, 0)));
}
