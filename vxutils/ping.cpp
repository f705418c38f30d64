// SPDX-License-Identifier: MIT
#include <vxutils/ping.h>

#include <arpa/inet.h>
#include <linux/if_packet.h>
#include <linux/sockios.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <vxutils/timefmt.h>

#include <cerrno>
#include <cstdio>

#include "vxutils/internal/fd.h"
#include "vxutils/internal/handles.h"
#include "vxutils/internal/ifrequest.h"
#include "vxutils/internal/log.h"
#include "vxutils/internal/message_header.h"
#include "vxutils/internal/random.h"
#include "vxutils/ping_arp_line.h"
#include "vxutils/ping_icmp_echo.h"
#include "vxutils/ping_packet_filter.h"
#include "vxutils/ping_resolve.h"

namespace {

namespace echo = vx::echo;

constexpr unsigned int shortestTimeout = 500;
constexpr unsigned int longestTimeout = 10000;
constexpr int smallestBuffer = 48;
constexpr int largestBuffer = 1450;
static_assert(smallestBuffer >= static_cast<int>(std::max(echo::ipMinimum, echo::linkMinimum)),
              "the smallest buffer holds an echo of either kind, so that the senders need not ask");
constexpr long waitMarginUs = 300000;
constexpr long waitStepUs = 300000;
constexpr int mostPackets = 1024;
constexpr size_t deviceNameSize = 32;
constexpr size_t arpLineSize = 256;
constexpr const char *arpTable = "/proc/net/arp";
constexpr int lookOnly = 0x10;  // the kernel's MSG_PROBE, which the C library does not name

using PacketBuffer = std::array<uint8_t, largestBuffer>;

// State of one ping call.
struct EchoContext {
    const char *interface;
    const char *target;
    const char *gateway;
    const char *sourceText;
    const char *netmaskText;
    uint32_t sourceAddress;
    uint32_t targetAddress;
    uint32_t netmask;
    echo::MacAddress interfaceHardware;
    echo::MacAddress targetHardware;
    int interfaceIndex;
    unsigned int timeoutMs;
    int bufferSize;
    // Closed right before the first echo is sent, when the echo's own socket is open. Closing a packet socket takes the
    // kernel milliseconds: they must not lie between an echo and the first look for its reply, and in them the kernel
    // begins to record times.
    vx::Fd querySocket;
    vx::Fd packetSocket;
    vx::Fd ipSocket;
    echo::Numbers numbers;  // the sequence number counts up before every echo
    timespec sent;
    timespec received;
};

bool empty(const char *text) { return text == nullptr || *text == '\0'; }

const char *lastError() { return std::strerror(errno); }

// ---- texts for messages ----

std::array<char, INET_ADDRSTRLEN> addressText(uint32_t address) {
    std::array<char, INET_ADDRSTRLEN> text;
    const in_addr network{htonl(address)};
    inet_ntop(AF_INET, &network, text.data(), text.size());
    return text;
}

// Two digits and a colon, or the terminator, for each byte.
using HardwareText = std::array<char, 3 * std::tuple_size_v<echo::MacAddress>>;

HardwareText hardwareText(const echo::MacAddress &address) {
    HardwareText text;
    std::snprintf(text.data(), text.size(), "%02x:%02x:%02x:%02x:%02x:%02x", address[0], address[1], address[2],
                  address[3], address[4], address[5]);
    return text;
}

// ---- what all echoes share ----

sockaddr_in hostAddress(uint32_t address) {
    sockaddr_in host{};
    host.sin_family = AF_INET;
    host.sin_addr.s_addr = htonl(address);
    return host;
}

int bindToDevice(int fd, const char *interface) {
    std::array<char, deviceNameSize> name{};
    std::memcpy(name.data(), interface, strnlen(interface, IF_NAMESIZE - 1));
    return setsockopt(fd, SOL_SOCKET, SO_BINDTODEVICE, name.data(), name.size());
}

// Makes the kernel record when a packet comes in; otherwise the polling step would count as travel time. If the kernel
// refuses, the round-trip time is less accurate.
void stampArrivals(int fd) {
    const int on = 1;
    (void)setsockopt(fd, SOL_SOCKET, SO_TIMESTAMPNS, &on, sizeof on);
}

timespec now(clockid_t clock) {
    timespec time{};
    clock_gettime(clock, &time);
    return time;
}

bool earlier(const timespec &left, const timespec &right) { return uselapsed(left, right) > 0; }

// Finds the time that the kernel has recorded. Its clock is CLOCK_REALTIME.
bool arrivalNote(msghdr &message, timespec &note) {
    for (cmsghdr *part = CMSG_FIRSTHDR(&message); part != nullptr; part = CMSG_NXTHDR(&message, part)) {
        if (part->cmsg_level != SOL_SOCKET || part->cmsg_type != SCM_TIMESTAMPNS) continue;
        if (part->cmsg_len < CMSG_LEN(sizeof note)) continue;
        std::memcpy(&note, CMSG_DATA(part), sizeof note);
        return true;
    }
    return false;
}

// Returns the time on `clock` at which the packet just received came in. A recorded time before the sending or in the
// future is ignored: the wall clock was set during the wait.
timespec arrivalTime(msghdr &message, clockid_t clock, const timespec &sent) {
    const timespec present = now(clock);
    timespec note{};
    if (!arrivalNote(message, note)) return present;
    const timespec age = diffts(note, now(CLOCK_REALTIME));
    const timespec arrival = diffts(age, present);
    return age.tv_sec < 0 || earlier(arrival, sent) ? present : arrival;
}

// Receives without blocking; -1 with EAGAIN when there is no packet.
ssize_t receivePacket(int fd, std::span<uint8_t> buffer, clockid_t clock, const timespec &sent, timespec &received) {
    alignas(cmsghdr) std::array<char, 128> control;
    iovec part{buffer.data(), buffer.size()};
    msghdr message = vx::messageHeader(part);
    message.msg_control = control.data();
    message.msg_controllen = control.size();
    const ssize_t got = recvmsg(fd, &message, MSG_DONTWAIT);
    if (got > 0) received = arrivalTime(message, clock, sent);
    return got;
}

void sleepStep() {
    timespec left{0, waitStepUs * 1000};
    while (nanosleep(&left, &left) == -1 && errno == EINTR) {
    }
}

enum class Wait { answered, failed, exhausted };

// Passes every packet that comes in to `isReply`, until it returns true, the time is used up or there were too many.
template <typename IsReply>
Wait waitForReply(EchoContext &context, int fd, std::span<uint8_t> buffer, clockid_t clock, IsReply isReply) {
    long budgetUs = static_cast<long>(context.timeoutMs) * 1000 + waitMarginUs;
    for (int packets = 0; budgetUs > 0 && packets < mostPackets;) {
        const ssize_t got = receivePacket(fd, buffer, clock, context.sent, context.received);
        if (got > 0) {
            ++packets;
            if (isReply(echo::Bytes(buffer.first(static_cast<size_t>(got))))) return Wait::answered;
        } else if (got == -1) {
            if (errno != EAGAIN) return Wait::failed;
            sleepStep();
            budgetUs -= waitStepUs;
        }
    }
    return Wait::exhausted;
}

// ---- plain echo ----

int sendPlain(EchoContext &context) {
    ++context.numbers.sequence;
    const auto message = echo::plainRequest(context.numbers);
    const sockaddr_in host = hostAddress(context.targetAddress);
    context.sent = now(CLOCK_REALTIME);
    const ssize_t sent = sendto(context.ipSocket.get(), message.data(), message.size(), 0,
                                reinterpret_cast<const sockaddr *>(&host), sizeof host);
    if (sent < static_cast<ssize_t>(message.size())) {
        vx::log(LOG_ERR, "icmpping: packet transmission failed (%s)", lastError());
        return -1;
    }
    // Quirk Q74: id and seq are exchanged; programs that read these logs expect it.
    const auto target = addressText(context.targetAddress);
    vx::log(LOG_DEBUG, "icmpping: packet transmitted on %s for %s (%d bytes, id %d, seq %d)", context.interface,
            target.data(), static_cast<int>(message.size()), context.numbers.sequence, context.numbers.identifier);
    return 0;
}

bool isPlainReply(const EchoContext &context, echo::Bytes packet) {
    const auto reply = echo::plainReply(packet);
    if (!reply.has_value()) {
        vx::log(LOG_ERR, "icmpping: packet is too short");
        return false;
    }
    if (reply->type != ICMP_ECHOREPLY) {
        vx::log(LOG_ERR, "icmpping: packet is not a reply");
        return false;
    }
    vx::log(LOG_DEBUG, "icmpping: RECEIVED icmp reply on %s (seq %d, id %d, need seq %d, id %d)", context.interface,
            reply->numbers.sequence, reply->numbers.identifier, context.numbers.sequence, context.numbers.identifier);
    if (reply->numbers != context.numbers) return false;
    const uint32_t sender = echo::senderOf(packet);
    if (echo::mayAnswer(context.targetAddress, sender)) return true;
    vx::log(LOG_DEBUG, "icmpping: not from target (%s != %s)", addressText(sender).data(),
            addressText(context.targetAddress).data());
    return false;
}

int waitForPlainReply(EchoContext &context) {
    PacketBuffer buffer;
    const Wait result = waitForReply(context, context.ipSocket.get(), buffer, CLOCK_REALTIME,
                                     [&](echo::Bytes packet) { return isPlainReply(context, packet); });
    if (result == Wait::failed) {
        vx::log(LOG_ERR, "icmpping: unable to receive reply on %s (%s)", context.interface, lastError());
    }
    return result == Wait::answered ? 0 : -1;
}

// ---- IP-level echo ----

// Quirk Q72.
int openIpSocket(EchoContext &context) {
    const int on = 1;
    vx::Fd socket(::socket(AF_INET, SOCK_RAW | SOCK_CLOEXEC, IPPROTO_ICMP));
    if (!socket.valid()) {
        vx::log(LOG_ERR, "rawping[%s]: unable to open socket (%s)", context.interface, lastError());
        return -1;
    }
    const int fd = socket.get();
    if (setsockopt(fd, IPPROTO_IP, IP_HDRINCL, &on, sizeof on) == -1) return -1;
    if (bindToDevice(fd, context.interface) == -1) {
        vx::log(LOG_ERR, "rawping[%s]: can't bind to device (%s)", context.interface, lastError());
        return -1;
    }
    if (setsockopt(fd, IPPROTO_IP, IP_HDRINCL, &on, sizeof on) == -1) {
        vx::log(LOG_ERR, "rawping[%s]: can't configure socket (%s)", context.interface, lastError());
        return -1;
    }
    stampArrivals(fd);
    context.ipSocket = std::move(socket);
    return 0;
}

// Lets the kernel look up the route and the neighbour without sending anything. Otherwise that first look-up would
// count as travel time (32 us instead of 25 us over one hop between namespaces). The result does not matter.
void rehearse(int fd, std::span<uint8_t> packet, sockaddr_in host) {
    iovec part{packet.data(), packet.size()};
    const msghdr message = vx::messageHeader(part, host);
    (void)sendmsg(fd, &message, lookOnly);
}

int sendIp(EchoContext &context, uint32_t address) {
    PacketBuffer buffer;
    const auto packet = std::span(buffer).first(static_cast<size_t>(context.bufferSize));
    ++context.numbers.sequence;
    echo::ipRequest(packet, context.sourceAddress, address, context.numbers);
    vx::log(LOG_DEBUG, "rawping[%s]: generated ip echo packet for %s", context.interface, addressText(address).data());

    if (!context.ipSocket.valid() && openIpSocket(context) == -1) return -1;
    const sockaddr_in host = hostAddress(address);
    context.querySocket.reset();
    rehearse(context.ipSocket.get(), packet, host);
    context.sent = now(CLOCK_REALTIME);
    const ssize_t sent = sendto(context.ipSocket.get(), packet.data(), packet.size(), 0,
                                reinterpret_cast<const sockaddr *>(&host), sizeof host);
    if (sent < static_cast<ssize_t>(packet.size())) {
        vx::log(LOG_ERR, "rawping[%s]: unable to send %d bytes to %s (%s)", context.interface, context.bufferSize,
                addressText(address).data(), lastError());
        return -1;
    }
    vx::log(LOG_DEBUG, "rawping[%s]: ip packet transmitted for %s (%d bytes)", context.interface,
            addressText(address).data(), context.bufferSize);
    return 0;
}

// Checks the sender of a reply that carries our numbers: what other hosts send does not count.
bool isFromTarget(const EchoContext &context, uint32_t target, uint32_t sender) {
    if (echo::mayAnswer(target, sender)) return true;
    vx::log(LOG_DEBUG, "rawping[%s]: not from target (%s != %s)", context.interface, addressText(sender).data(),
            addressText(target).data());
    return false;
}

bool isIpReply(const EchoContext &context, uint32_t address, echo::Bytes packet) {
    // Quirk Q73.
    vx::log(LOG_DEBUG, "rawping[%s]: received ip packet (%d bytes)\n", context.interface,
            static_cast<int>(packet.size()));
    const auto reply = echo::ipReply(packet);
    if (!reply.has_value()) {
        vx::log(LOG_DEBUG, "rawping[%s]: packet is too short (%d bytes, need %zu bytes)", context.interface,
                static_cast<int>(packet.size()), echo::ipMinimum);
        return false;
    }
    if (reply->protocol != IPPROTO_ICMP) {
        vx::log(LOG_DEBUG, "rawping[%s]: not an ICMP message", context.interface);
        return false;
    }
    if (reply->message.type != ICMP_ECHOREPLY) {
        vx::log(LOG_DEBUG, "rawping[%s]: not an ICMP REPLY message", context.interface);
        return false;
    }
    const echo::Numbers &numbers = reply->message.numbers;
    vx::log(LOG_DEBUG, "rawping[%s]: RECEIVED ip reply (seq %d, id %d, need seq %d, id %d)", context.interface,
            numbers.sequence, numbers.identifier, context.numbers.sequence, context.numbers.identifier);
    return numbers == context.numbers && isFromTarget(context, address, echo::senderOf(packet));
}

int waitForIpReply(EchoContext &context, uint32_t address) {
    PacketBuffer buffer;
    const auto room = std::span(buffer).first(static_cast<size_t>(context.bufferSize));
    switch (waitForReply(context, context.ipSocket.get(), room, CLOCK_REALTIME,
                         [&](echo::Bytes packet) { return isIpReply(context, address, packet); })) {
        case Wait::answered:
            vx::log(LOG_DEBUG, "rawping[%s]: ip ping to %s succeeded", context.interface, addressText(address).data());
            return 0;
        case Wait::failed:
            vx::log(LOG_ERR, "rawping[%s]: unable to receive reply (%s)", context.interface, lastError());
            return -1;
        case Wait::exhausted:
            vx::log(LOG_DEBUG, "rawping[%s]: received no valid ip reply from %s", context.interface,
                    addressText(address).data());
            return -1;
    }
    return -1;  // GCOVR_EXCL_LINE: each case returns
}

int pingIp(EchoContext &context, uint32_t address) {
    const int result = sendIp(context, address) == -1 ? -1 : waitForIpReply(context, address);
    context.ipSocket.reset();
    return result;
}

// ---- link-level echo ----

sockaddr_ll linkAddress(const EchoContext &context) {
    sockaddr_ll address{};
    address.sll_family = AF_PACKET;
    address.sll_protocol = htons(ETH_P_IP);
    address.sll_ifindex = context.interfaceIndex;
    return address;
}

int openPacketSocket(EchoContext &context, const uint32_t *mark) {
    vx::Fd socket(::socket(AF_PACKET, SOCK_RAW | SOCK_CLOEXEC, htons(ETH_P_ALL)));
    const int fd = socket.get();
    if (!socket.valid()) {
        vx::log(LOG_ERR, "rawping[%s]: unable to open socket (%s)", context.interface, lastError());
        return -1;
    }
    if (vx::attachFilter(fd, echo::replyFilter(context.numbers.identifier)) == -1) {
        vx::log(LOG_ERR, "rawping[%s]: unable to set filter (%s)", context.interface, lastError());
        return -1;
    }
    if (mark != nullptr && setsockopt(fd, SOL_SOCKET, SO_MARK, mark, sizeof *mark) == -1) {
        vx::log(LOG_ERR, "rawping[%s]: unable to set mark (%s)", context.interface, lastError());
        return -1;
    }
    const sockaddr_ll address = linkAddress(context);
    if (bind(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address) == -1) {
        vx::log(LOG_ERR, "rawping[%s]: unable to bind socket (%s)", context.interface, lastError());
        return -1;
    }
    stampArrivals(fd);
    vx::dropUnfiltered(fd);
    context.packetSocket = std::move(socket);
    return 0;
}

int sendLink(EchoContext &context, const uint32_t *mark) {
    PacketBuffer buffer;
    const auto frame = std::span(buffer).first(static_cast<size_t>(context.bufferSize));
    ++context.numbers.sequence;
    echo::linkRequest(frame, {context.targetHardware, context.interfaceHardware}, context.sourceAddress,
                      context.targetAddress, context.numbers);
    vx::log(LOG_DEBUG, "rawping[%s]: generated raw echo packet for %s (id %d, seq %d)", context.interface,
            addressText(context.targetAddress).data(), context.numbers.identifier, context.numbers.sequence);

    if (openPacketSocket(context, mark) == -1) return -1;
    sockaddr_ll address = linkAddress(context);
    address.sll_hatype = 1;  // Ethernet
    address.sll_pkttype = PACKET_OTHERHOST;
    address.sll_halen = ETH_ALEN;
    std::copy(context.targetHardware.begin(), context.targetHardware.end(), address.sll_addr);
    context.querySocket.reset();
    context.sent = now(CLOCK_MONOTONIC);
    const ssize_t sent = sendto(context.packetSocket.get(), frame.data(), frame.size(), 0,
                                reinterpret_cast<const sockaddr *>(&address), sizeof address);
    if (sent < static_cast<ssize_t>(frame.size())) {
        vx::log(LOG_ERR, "rawping[%s]: cannot send %d bytes to %s (%s)", context.interface, context.bufferSize,
                addressText(context.targetAddress).data(), lastError());
        return -1;
    }
    vx::log(LOG_DEBUG, "rawping[%s]: raw packet transmitted for %s (%d bytes)", context.interface,
            addressText(context.targetAddress).data(), context.bufferSize);
    return 0;
}

bool isLinkReply(const EchoContext &context, echo::Bytes frame) {
    const char *const interface = context.interface;
    const auto reply = echo::linkReply(frame);
    if (!reply.has_value()) {
        vx::log(LOG_DEBUG, "rawping[%s]: packet is too short (%d bytes, need %zu bytes)", interface,
                static_cast<int>(frame.size()), echo::linkReplyNeed(frame));
        return false;
    }
    const echo::Numbers &numbers = reply->message.numbers;
    if (reply->protocol == IPPROTO_ICMP) {
        vx::log(LOG_DEBUG, "rawping[%s]: received packet (seq %d, id %d, need seq %d, id %d)", interface,
                numbers.sequence, numbers.identifier, context.numbers.sequence, context.numbers.identifier);
    }
    if (reply->ends.destination != context.interfaceHardware) {
        vx::log(LOG_DEBUG, "rawping[%s]: not for us (%s != %s)", interface,
                hardwareText(reply->ends.destination).data(), hardwareText(context.interfaceHardware).data());
        return false;
    }
    if (reply->ends.source != context.targetHardware) {
        vx::log(LOG_DEBUG, "rawping[%s]: not from target (%s != %s)", interface,
                hardwareText(reply->ends.source).data(), hardwareText(context.targetHardware).data());
        return false;
    }
    if (reply->protocol != IPPROTO_ICMP) {
        vx::log(LOG_DEBUG, "rawping[%s]: not an ICMP message (proto %d)", interface, reply->protocol);
        return false;
    }
    if (reply->message.type != ICMP_ECHOREPLY) {
        vx::log(LOG_DEBUG, "rawping[%s]: not an ICMP REPLY message", interface);
        return false;
    }
    vx::log(LOG_DEBUG, "rawping[%s]: RECEIVED raw reply (seq %d, id %d, need seq %d, id %d)", interface,
            numbers.sequence, numbers.identifier, context.numbers.sequence, context.numbers.identifier);
    return numbers == context.numbers &&
           isFromTarget(context, context.targetAddress, echo::senderOf(frame.subspan(echo::ethernetHeader)));
}

int waitForLinkReply(EchoContext &context) {
    PacketBuffer buffer;
    const auto room = std::span(buffer).first(static_cast<size_t>(context.bufferSize));
    switch (waitForReply(context, context.packetSocket.get(), room, CLOCK_MONOTONIC,
                         [&](echo::Bytes frame) { return isLinkReply(context, frame); })) {
        case Wait::answered:
            vx::log(LOG_DEBUG, "rawping[%s]: raw ping to %s succeeded", context.interface,
                    addressText(context.targetAddress).data());
            return 0;
        case Wait::failed:
            vx::log(LOG_ERR, "rawping[%s]: unable to receive reply (%s)", context.interface, lastError());
            return -1;
        case Wait::exhausted:
            vx::log(LOG_ERR, "rawping[%s]: received no valid raw reply from %s", context.interface,
                    addressText(context.targetAddress).data());
            return -1;
    }
    return -1;  // GCOVR_EXCL_LINE: each case returns
}

int pingLink(EchoContext &context, const uint32_t *mark) {
    const int result = sendLink(context, mark) == -1 ? -1 : waitForLinkReply(context);
    context.packetSocket.reset();
    return result;
}

// ---- set-up ----

// Returns the identifier by which processes on one interface tell their echoes apart. It is the product of two numbers
// from the time of day, which is even three times in four. The clock is read a random number of times, so that the
// identifier cannot be computed from the time at which a ping begins.
// Quirk Q75.
uint16_t freshIdentifier() {
    constexpr uint64_t mostReadings = 4096;
    timeval time{};
    for (uint64_t left = vx::randomBits() % mostReadings + 1; left > 0; --left) gettimeofday(&time, nullptr);
    const auto seconds = static_cast<int16_t>(time.tv_sec & 0xFFFF);
    const auto microseconds = static_cast<int16_t>(time.tv_usec & 0xFFFF);
    return static_cast<uint16_t>((seconds * microseconds) & 0xFFFF);
}

bool readAddress(const char *text, uint32_t &address) {
    in_addr network{};
    if (inet_pton(AF_INET, text, &network) != 1) return false;
    address = ntohl(network.s_addr);
    return true;
}

// Finds one address of the interface: the given one, or else the kernel's. An invalid text leaves the query socket
// open. Quirk Q71.
int findAddress(EchoContext &context, const char *text, unsigned long request, const char *what, uint32_t &address) {
    if (text != nullptr) {
        if (readAddress(text, address)) return 0;
        vx::log(LOG_ERR, "rawping[%s]: invalid %s '%s'", context.interface, what, text);
        (void)context.querySocket.release();
        return -1;
    }
    ifreq answer = vx::interfaceRequest(context.interface);
    if (ioctl(context.querySocket.get(), request, &answer) == -1) {
        vx::log(LOG_ERR, "rawping[%s]: can't get interface %s (%s)", context.interface,
                request == SIOCGIFADDR ? "address" : "netmask", lastError());
        return -1;
    }
    address = vx::requestedAddress(answer);
    return 0;
}

int findIndex(EchoContext &context) {
    ifreq answer = vx::interfaceRequest(context.interface);
    if (ioctl(context.querySocket.get(), SIOCGIFINDEX, &answer) == -1) {
        vx::log(LOG_ERR, "rawping[%s]: can't get interface index (%s)", context.interface, lastError());
        return -1;
    }
    context.interfaceIndex = answer.ifr_ifindex;
    return 0;
}

int checkGateway(const EchoContext &context) {
    if (empty(context.gateway) || vx::resolveHost(context.gateway).has_value()) return 0;
    vx::log(LOG_ERR, "rawping[%s]: invalid gateway '%s'", context.interface, context.gateway);
    return -1;
}

int findHardwareAddress(EchoContext &context) {
    ifreq answer = vx::interfaceRequest(context.interface);
    if (ioctl(context.querySocket.get(), SIOCGIFHWADDR, &answer) == -1) {
        vx::log(LOG_ERR, "rawping[%s]: can't get interface hwaddr (%s)", context.interface, lastError());
        return -1;
    }
    std::memcpy(context.interfaceHardware.data(), answer.ifr_hwaddr.sa_data, context.interfaceHardware.size());
    return 0;
}

int queryInterface(EchoContext &context) {
    context.querySocket.reset(::socket(AF_INET, SOCK_PACKET | SOCK_CLOEXEC, 0));
    if (!context.querySocket.valid()) {
        vx::log(LOG_ERR, "rawping[%s]: unable to create socket (%s)", context.interface, lastError());
        return -1;
    }
    // The kernel begins to record times a moment after the first socket asks for it. A reply that comes in earlier gets
    // the time of the look that finds it.
    stampArrivals(context.querySocket.get());
    if (findIndex(context) == -1) return -1;
    if (findAddress(context, context.sourceText, SIOCGIFADDR, "source", context.sourceAddress) == -1) return -1;
    if (findAddress(context, context.netmaskText, SIOCGIFNETMASK, "netmask", context.netmask) == -1) return -1;
    if (checkGateway(context) == -1) return -1;
    if (findHardwareAddress(context) == -1) return -1;
    vx::log(LOG_DEBUG, "rawping[%s]: interface runs %s/%s (%s)", context.interface,
            addressText(context.sourceAddress).data(), addressText(context.netmask).data(),
            hardwareText(context.interfaceHardware).data());
    return 0;
}

int setUp(EchoContext &context) {
    if (empty(context.interface)) {
        vx::log(LOG_ERR, "rawping: no interface given");
        return -1;
    }
    if (empty(context.target)) {
        vx::log(LOG_ERR, "rawping: no target given");
        return -1;
    }
    context.numbers.identifier = freshIdentifier();
    if (context.sourceText != nullptr || context.netmaskText != nullptr) {
        if (empty(context.sourceText)) {
            vx::log(LOG_ERR, "rawping: no source given");
            return -1;
        }
        if (empty(context.netmaskText)) {
            vx::log(LOG_ERR, "rawping: no netmask given");
            return -1;
        }
    }
    context.timeoutMs = std::clamp(context.timeoutMs, shortestTimeout, longestTimeout);
    context.bufferSize = std::clamp(context.bufferSize, smallestBuffer, largestBuffer);
    const auto address = vx::resolveHost(context.target);
    if (!address.has_value()) {
        vx::log(LOG_ERR, "rawping[%s]: invalid target '%s'", context.interface, context.target);
        return -1;
    }
    context.targetAddress = *address;
    return queryInterface(context);
}

// ---- which way ----

// Returns false when the kernel's answer is missing, and true for an empty name: another thread may have emptied the
// caller's text since it was checked.
bool isPointToPoint(const char *interface) {
    if (empty(interface)) {
        vx::log(LOG_ERR, "no interface provided");
        return true;
    }
    const vx::Fd socket(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    if (!socket.valid()) {
        vx::log(LOG_ERR, "unable to create socket");
        return false;
    }
    ifreq answer = vx::interfaceRequest(interface);
    if (ioctl(socket.get(), SIOCGIFFLAGS, &answer) == -1) {
        vx::log(LOG_ERR, "unable to get flags for %s", interface);
        return false;
    }
    return (answer.ifr_flags & (IFF_POINTOPOINT | IFF_NOARP)) != 0;
}

// Tells whether the echo goes to the gateway's hardware address.
bool needsGateway(const EchoContext &context) {
    const bool isPtp = isPointToPoint(context.interface);
    vx::log(LOG_DEBUG, "gateway %s (source %08X, mask %08X, dest %08X, is_ptp %d)",
            context.gateway == nullptr ? "none" : context.gateway, context.sourceAddress, context.netmask,
            context.targetAddress, isPtp ? 1 : 0);
    const bool outside = ((context.targetAddress ^ context.sourceAddress) & context.netmask) != 0;
    return !isPtp && !empty(context.gateway) && outside;
}

bool findInArpTable(EchoContext &context) {
    const vx::FilePtr table(std::fopen(arpTable, "re"));
    if (table == nullptr) return false;
    std::array<char, arpLineSize> line;
    while (std::fgets(line.data(), static_cast<int>(line.size()), table.get()) != nullptr) {
        const auto address = vx::arp::lookUp(line.data(), context.gateway);
        if (!address.has_value()) continue;
        context.targetHardware = *address;
        vx::log(LOG_DEBUG, "rawping[%s]: discovered %s for %s", context.interface, hardwareText(*address).data(),
                context.gateway);
        return true;
    }
    return false;
}

// Finds the gateway's hardware address. If the kernel does not know it yet, an echo to the gateway makes it ask,
// whether the echo is answered or not.
bool findGatewayHardware(EchoContext &context) {
    if (findInArpTable(context)) return true;
    vx::log(LOG_DEBUG, "rawping[%s]: can't resolve HW address for %s -> send query", context.interface,
            context.gateway);
    const auto address = vx::resolveHost(context.gateway);
    if (!address.has_value()) {
        vx::log(LOG_DEBUG, "rawping[%s]: hostbyname for %s failed", context.interface, context.gateway);
        return false;
    }
    vx::log(LOG_DEBUG, "rawping[%s]: pinging %s", context.interface, addressText(*address).data());
    (void)pingIp(context, *address);
    if (findInArpTable(context)) return true;
    vx::log(LOG_ERR, "rawping[%s]: can't resolve HW address for %s", context.interface, context.gateway);
    return false;
}

int pingTarget(EchoContext &context, const uint32_t *mark) {
    if (!needsGateway(context)) {
        vx::log(LOG_DEBUG, "rawping[%s] => sending ip ping to %s", context.interface, context.target);
        return pingIp(context, context.targetAddress);
    }
    vx::log(LOG_DEBUG, "rawping[%s]: cannot ping %s directly, must use gateway %s", context.interface,
            addressText(context.targetAddress).data(), context.gateway);
    if (!findGatewayHardware(context)) {
        vx::log(LOG_DEBUG, "rawping[%s] => ARP lookup failed, sending ip ping to %s", context.interface,
                context.target);
        return pingIp(context, context.targetAddress);
    }
    vx::log(LOG_DEBUG, "rawping[%s] => sending raw ping to %s", context.interface, context.target);
    return pingLink(context, mark);
}

}  // namespace

int icmpping(const char *interface, const char *target, unsigned int timeout_ms) {
    if (empty(target)) {
        vx::log(LOG_ERR, "icmpping: no target given");
        return -1;
    }
    if (empty(interface)) {
        vx::log(LOG_ERR, "icmpping: no interface given");
        return -1;
    }
    EchoContext context{};
    context.interface = interface;
    context.timeoutMs = std::clamp(timeout_ms, shortestTimeout, longestTimeout);
    const auto address = vx::resolveHost(target);
    if (!address.has_value()) {
        vx::log(LOG_ERR, "icmpping[%s]: invalid target '%s'", interface, target);
        return -1;
    }
    context.targetAddress = *address;
    context.ipSocket.reset(::socket(AF_INET, SOCK_RAW | SOCK_CLOEXEC, IPPROTO_ICMP));
    if (!context.ipSocket.valid()) {
        vx::log(LOG_ERR, "icmpping: unable to open socket (%s)", lastError());
        return -1;
    }
    if (bindToDevice(context.ipSocket.get(), interface) == -1) {
        vx::log(LOG_ERR, "icmpping: can't bind to %s (%s)", interface, lastError());
        return -1;
    }
    if (sendPlain(context) == -1) return -1;
    return waitForPlainReply(context);
}

int rawping(const char *interface, const char *target, const char *gateway, unsigned int timeout_ms) {
    return __rawping(interface, target, gateway, nullptr, nullptr, timeout_ms, -1, nullptr, nullptr);
}

int __rawping(const char *interface, const char *target, const char *gateway, const char *source, const char *netmask,
              unsigned int timeout_ms, int buffer_size, timespec *round_trip, const uint32_t *mark) {
    EchoContext context{};
    context.interface = interface;
    context.target = target;
    context.gateway = gateway;
    context.sourceText = source;
    context.netmaskText = netmask;
    context.timeoutMs = timeout_ms;
    context.bufferSize = buffer_size;
    if (setUp(context) == -1) return -1;
    const int result = pingTarget(context, mark);
    if (round_trip != nullptr) *round_trip = diffts(context.sent, context.received);
    return result;
}
