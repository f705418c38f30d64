// SPDX-License-Identifier: MIT
#include "gateway/panel/probe.h"

#include <arpa/inet.h>
#include <netinet/ip.h>
#include <netinet/ip_icmp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cstring>
#include <random>

namespace vxgateway {

namespace {

constexpr const char *target = "198.51.100.9";
constexpr std::chrono::milliseconds interval{500};
constexpr std::chrono::seconds patience{3};

uint16_t checksum(const icmphdr &header) {
    std::array<uint16_t, sizeof header / 2> words;
    std::memcpy(words.data(), &header, sizeof header);
    uint32_t sum = 0;
    for (const uint16_t word : words) sum += word;
    return static_cast<uint16_t>(~((sum & 0xffff) + (sum >> 16)));
}

}  // namespace

Probe::Probe()
    : fd_(::socket(AF_INET, SOCK_RAW | SOCK_CLOEXEC | SOCK_NONBLOCK, IPPROTO_ICMP)),
      id_(static_cast<uint16_t>(std::random_device()())) {}

void Probe::send() {
    icmphdr header{};
    header.type = ICMP_ECHO;
    header.un.echo.id = htons(id_);
    header.un.echo.sequence = htons(++sequence_);
    header.checksum = checksum(header);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    ::inet_pton(AF_INET, target, &address.sin_addr);
    // A request that cannot be sent, as with the cable cut, counts as one that is lost.
    (void)::sendto(fd_.get(), &header, sizeof header, 0, reinterpret_cast<sockaddr *>(&address), sizeof address);
    sent_[sequence_] = Clock::now();
}

std::vector<std::optional<double>> Probe::poll_ms() {
    std::vector<std::optional<double>> trips;
    if (fd_.get() == -1) return trips;
    const auto now = Clock::now();
    std::array<char, 2048> packet;
    for (ssize_t got; (got = ::recv(fd_.get(), packet.data(), packet.size(), 0)) > 0;) {
        const size_t start = static_cast<size_t>(packet[0] & 0x0f) * 4;
        icmphdr header{};
        if (static_cast<size_t>(got) < start + sizeof header) continue;
        std::memcpy(&header, packet.data() + start, sizeof header);
        const auto asked = sent_.find(ntohs(header.un.echo.sequence));
        if (header.type != ICMP_ECHOREPLY || header.un.echo.id != htons(id_) || asked == sent_.end()) continue;
        trips.emplace_back(std::chrono::duration<double, std::milli>(now - asked->second).count());
        sent_.erase(asked);
    }
    for (auto asked = sent_.begin(); asked != sent_.end();) {
        if (now - asked->second < patience) {
            ++asked;
            continue;
        }
        trips.emplace_back(std::nullopt);
        asked = sent_.erase(asked);
    }
    if (now >= due_) {
        send();
        due_ = now + interval;
    }
    return trips;
}

}  // namespace vxgateway
