// SPDX-License-Identifier: MIT
#include <vxutils/route.h>

#include <arpa/inet.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstddef>
#include <ctime>
#include <memory>
#include <new>

#include "vxutils/internal/fd.h"
#include "vxutils/internal/log.h"
#include "vxutils/internal/message_header.h"
#include "vxutils/route_netlink.h"

namespace {

using vx::netlink::Answer;

constexpr size_t requestSize = 1052;
constexpr size_t answerSize = 16384;
constexpr socklen_t addressTextSize = 128;
constexpr int sendBufferSize = 32768;
constexpr int receiveBufferSize = 1048576;
constexpr size_t routeHeader = sizeof(nlmsghdr) + sizeof(rtmsg);

constexpr const char *noMemory = "rtq: no mem for request";
constexpr const char *cannotOpen = "rtq: unable to open netlink socket";
constexpr const char *cannotSetSize = "rtq: unable to set buffer size";
constexpr const char *cannotBind = "rtq: unable to bind netlink socket";
constexpr const char *invalidSocket = "rtq: invalid netlink socket";
constexpr const char *cannotSend = "rtq: unable to query netlink";
constexpr const char *noRoute = "rtq: no route received";
constexpr const char *invalidAnswer = "rtq: invalid answer";
constexpr const char *noInterface = "rtq: no dest interface found";

static_assert(routeHeader == 28 && sizeof(sockaddr_nl) == 12);
static_assert(routeHeader + RTA_SPACE(sizeof(in6_addr)) <= requestSize, "a question for the longest address fits");

struct RouteQuery {
    vx::Fd socket;
    uint32_t sequence;
    sockaddr_nl local;
    int family;
    std::array<char, addressTextSize> text;
    std::array<uint8_t, sizeof(in6_addr)> address;
    size_t addressLength;
    alignas(nlmsghdr) std::array<uint8_t, requestSize> request;
    size_t requestLength;
};

// Each step below returns false when it fails. errno stays as the failed system call has set it.

// Ends a failed call with one debug message.
bool fail(const char *message) {
    vx::log(LOG_DEBUG, "%s", message);
    return false;
}

bool failQuery() {
    vx::log(LOG_DEBUG, "rtq: netlink query failed: %s", std::strerror(errno));
    return false;
}

// Copies the address by way of its text, so that the message shows what is asked for.
bool takeAddress(RouteQuery &query, const addrinfo &target) {
    const auto *record = reinterpret_cast<const uint8_t *>(target.ai_addr);  // of any alignment
    const uint8_t *address = nullptr;
    if (target.ai_family == AF_INET) {
        address = record + offsetof(sockaddr_in, sin_addr);
        query.addressLength = sizeof(in_addr);
    } else if (target.ai_family == AF_INET6) {
        address = record + offsetof(sockaddr_in6, sin6_addr);
        query.addressLength = sizeof(in6_addr);
    } else {
        return false;
    }
    query.family = target.ai_family;
    return inet_ntop(query.family, address, query.text.data(), addressTextSize) != nullptr &&
           inet_pton(query.family, query.text.data(), query.address.data()) == 1;
}

bool openSocket(RouteQuery &query) {
    query.socket.reset(::socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE));
    if (!query.socket.valid()) return fail(cannotOpen);
    const int fd = query.socket.get();
    if (setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &sendBufferSize, sizeof sendBufferSize) == -1 ||
        setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &receiveBufferSize, sizeof receiveBufferSize) == -1) {
        return fail(cannotSetSize);
    }
    query.local.nl_family = AF_NETLINK;
    auto *local = reinterpret_cast<sockaddr *>(&query.local);
    if (bind(fd, local, sizeof query.local) == -1) return fail(cannotBind);
    socklen_t length = sizeof query.local;
    if (getsockname(fd, local, &length) == -1 || length != sizeof query.local || query.local.nl_family != AF_NETLINK) {
        return fail(invalidSocket);
    }
    return true;
}

void buildRequest(RouteQuery &query) {
    const size_t attributeLength = sizeof(rtattr) + query.addressLength;
    query.requestLength = routeHeader + RTA_ALIGN(attributeLength);

    nlmsghdr header{};
    header.nlmsg_len = static_cast<uint32_t>(query.requestLength);
    header.nlmsg_type = RTM_GETROUTE;
    header.nlmsg_flags = NLM_F_REQUEST;
    header.nlmsg_seq = ++query.sequence;
    rtmsg route{};
    route.rtm_family = static_cast<uint8_t>(query.family);
    route.rtm_dst_len = static_cast<uint8_t>(query.addressLength * 8);
    rtattr attribute{};
    attribute.rta_len = static_cast<uint16_t>(attributeLength);
    attribute.rta_type = RTA_DST;

    uint8_t *out = query.request.data();
    std::memcpy(out, &header, sizeof header);
    std::memcpy(out + sizeof header, &route, sizeof route);
    std::memcpy(out + routeHeader, &attribute, sizeof attribute);
    std::memcpy(out + routeHeader + sizeof attribute, query.address.data(), query.addressLength);
}

bool sendRequest(RouteQuery &query) {
    sockaddr_nl kernel{};
    kernel.nl_family = AF_NETLINK;
    iovec part{query.request.data(), query.requestLength};
    const msghdr message = vx::messageHeader(part, kernel);
    return sendmsg(query.socket.get(), &message, 0) != -1 || fail(cannotSend);
}

// Receives until the kernel has answered; the answer's payload lies in `buffer`.
bool receiveAnswer(const RouteQuery &query, std::span<uint8_t> buffer, Answer &answer) {
    errno = 0;  // recvmsg() returning 0 does not set it, and the message shows it
    for (;;) {
        sockaddr_nl sender{};
        iovec part{buffer.data(), buffer.size()};
        msghdr message = vx::messageHeader(part, sender);
        const ssize_t got = recvmsg(query.socket.get(), &message, 0);
        if (got == -1 && (errno == EAGAIN || errno == EINTR)) continue;
        if (got <= 0 || message.msg_namelen != sizeof sender) return failQuery();

        answer = vx::netlink::findAnswer(buffer.first(static_cast<size_t>(got)), sender.nl_pid, query.local.nl_pid,
                                         query.sequence);
        const bool truncated = (message.msg_flags & MSG_TRUNC) != 0;
        switch (answer.state) {
            case Answer::State::found:
                return true;
            case Answer::State::malformed:
                return failQuery();
            case Answer::State::cut:
                if (!truncated) return failQuery();
                break;
            case Answer::State::none:
                break;
        }
    }
}

// Fails on an error message, also on an acknowledgement, whose error number is 0: neither carries a route.
bool refuseError(const Answer &answer) {
    if (answer.header.nlmsg_type != NLMSG_ERROR) return true;
    const auto error = vx::netlink::errorField(answer.payload);
    if (error.has_value() && *error != 0) errno = static_cast<int>(0U - static_cast<uint32_t>(*error));
    return failQuery();
}

// Asks the socket that is already open; if_indextoname() would open another one for the same request.
bool interfaceName(int fd, uint32_t index, char *name) {
    ifreq request{};
    request.ifr_ifindex = static_cast<int>(index);
    if (ioctl(fd, SIOCGIFNAME, &request) == -1) return false;
    std::memcpy(name, request.ifr_name, IF_NAMESIZE);  // the kernel ends it within its 16 bytes
    return true;
}

bool readRoute(const RouteQuery &query, const Answer &answer, char *name) {
    if (answer.header.nlmsg_type != RTM_NEWROUTE) return fail(noRoute);
    if (answer.payload.size() < sizeof(rtmsg)) return fail(invalidAnswer);
    const auto index = vx::netlink::outputInterface(answer.payload.subspan(sizeof(rtmsg)));
    if (!index.has_value() || !interfaceName(query.socket.get(), *index, name)) return fail(noInterface);
    vx::log(LOG_DEBUG, "%s goes to %s", query.text.data(), name);
    return true;
}

bool exchange(RouteQuery &query, char *name) {
    std::array<uint8_t, answerSize> buffer;
    Answer answer{Answer::State::none};
    return sendRequest(query) && receiveAnswer(query, buffer, answer) && refuseError(answer) &&
           readRoute(query, answer, name);
}

}  // namespace

int route_get_interface(const addrinfo *target, char *name) {
    if (target == nullptr || name == nullptr || target->ai_addr == nullptr) return -1;
    const std::unique_ptr<RouteQuery> query(new (std::nothrow) RouteQuery{});
    if (query == nullptr) {
        fail(noMemory);
        return -1;
    }
    query->sequence = static_cast<uint32_t>(std::time(nullptr));
    if (!takeAddress(*query, *target) || !openSocket(*query)) return -1;
    vx::log(LOG_DEBUG, "looking up route for %s", query->text.data());
    buildRequest(*query);
    return exchange(*query, name) ? 0 : -1;
}
