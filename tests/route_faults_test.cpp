// SPDX-License-Identifier: MIT
// Route query: the request to the kernel, steps that the system refuses, and answers of every kind, made up to the bit.
#include <vxutils/route.h>

#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <netdb.h>
#include <netinet/in.h>
#include <syslog.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <functional>
#include <new>
#include <optional>
#include <string>
#include <vector>

#include "support/intercept.h"
#include "support/resources.h"
#include "support/route.h"
#include "support/syslog_capture.h"

namespace {

bool noMemory = false;

}  // namespace

// The query's state is the only thing that is allocated this way.
void *operator new(std::size_t size, const std::nothrow_t &) noexcept {
    if (noMemory) return nullptr;
    try {
        return ::operator new(size);
    } catch (const std::bad_alloc &) {
        return nullptr;
    }
}

namespace {

using namespace vxtest::routes;

using vxtest::hex;
using vxtest::LogLine;
using Bytes = std::vector<uint8_t>;
using RouteFaults = vxtest::routes::RouteTest;

Bytes record(const void *data, size_t size) {
    const auto *bytes = static_cast<const uint8_t *>(data);
    return Bytes(bytes, bytes + size);
}

Bytes operator+(Bytes left, const Bytes &right) {
    left.insert(left.end(), right.begin(), right.end());
    return left;
}

Bytes attribute(uint16_t type, const Bytes &value, int lengthOff = 0) {
    rtattr header{};
    header.rta_len = static_cast<uint16_t>(static_cast<int>(sizeof header + value.size()) + lengthOff);
    header.rta_type = type;
    Bytes bytes = record(&header, sizeof header) + value;
    bytes.resize((bytes.size() + 3) / 4 * 4);
    return bytes;
}

Bytes word(uint32_t value) { return record(&value, sizeof value); }

// Everything a scripted kernel knows about the request.
class ScriptedKernel {
public:
    struct Datagram {
        Bytes bytes;
        int flags = 0;
        uint32_t sender = 0;
        socklen_t addressLength = sizeof(sockaddr_nl);
        int error = 0;
    };

    ScriptedKernel() {
        calls_->sendmsg = [this](int fd, const msghdr *message) -> std::optional<ssize_t> {
            sockaddr_nl own{};
            socklen_t length = sizeof own;
            ::getsockname(fd, reinterpret_cast<sockaddr *>(&own), &length);
            port = own.nl_pid;
            request = record(message->msg_iov[0].iov_base, message->msg_iov[0].iov_len);
            to = record(message->msg_name, message->msg_namelen);
            std::memcpy(&sequence, request.data() + 8, sizeof sequence);
            if (onRequest) onRequest();
            return static_cast<ssize_t>(request.size());
        };
        calls_->recvmsg = [this](int, msghdr *message, int) -> std::optional<ssize_t> {
            if (script.empty()) {
                ADD_FAILURE() << "received once more than scripted";
                return vxtest::failing(ENOMSG);
            }
            const Datagram datagram = script.front();
            script.pop_front();
            ++received;
            if (datagram.error != 0) return vxtest::failing(datagram.error);
            sockaddr_nl from{};
            from.nl_family = AF_NETLINK;
            from.nl_pid = datagram.sender;
            std::memcpy(message->msg_name, &from, sizeof from);
            message->msg_namelen = datagram.addressLength;
            room = message->msg_iov[0].iov_len;
            const ssize_t got = vxtest::deliver(message, datagram.bytes);
            message->msg_flags |= datagram.flags;
            return got;
        };
    }

    Bytes message(uint16_t type, const Bytes &payload, int sequenceOff = 0, int portOff = 0, int lengthOff = 0) const {
        nlmsghdr header{};
        header.nlmsg_len = static_cast<uint32_t>(sizeof header + payload.size()) + static_cast<uint32_t>(lengthOff);
        header.nlmsg_type = type;
        header.nlmsg_seq = sequence + static_cast<uint32_t>(sequenceOff);
        header.nlmsg_pid = port + static_cast<uint32_t>(portOff);
        Bytes bytes = record(&header, sizeof header) + payload;
        bytes.resize((bytes.size() + 3) / 4 * 4);
        return bytes;
    }

    Bytes route(const Bytes &attributes, int sequenceOff = 0, int portOff = 0) const {
        return message(RTM_NEWROUTE, Bytes(sizeof(rtmsg)) + attributes, sequenceOff, portOff);
    }

    std::function<void()> onRequest;
    std::deque<Datagram> script;
    Bytes request;
    Bytes to;
    uint32_t sequence = 0;
    uint32_t port = 0;
    size_t room = 0;
    int received = 0;

private:
    vxtest::Intercept calls_;
};

const uint32_t loopback = 1;

TEST_F(RouteFaults, NullAndUnknownFamiliesFailSilentlyWithoutASocket) {
    ConnectedLog log;
    vxtest::Intercept calls;
    int sockets = 0;
    calls->socket = [&](int, int, int) -> std::optional<int> {
        ++sockets;
        return std::nullopt;
    };
    Target target("127.0.0.1");
    char name[IF_NAMESIZE] = "untouched";
    sockets = 0;
    errno = EDOM;
    EXPECT_EQ(route_get_interface(nullptr, name), -1);
    EXPECT_EQ(route_get_interface(&target.info, nullptr), -1);
    for (const int family : {AF_UNSPEC, AF_UNIX, AF_PACKET, -1, 1000}) {
        target.info.ai_family = family;
        EXPECT_EQ(route_get_interface(&target.info, name), -1) << family;
    }
    target.info.ai_family = AF_INET;
    target.info.ai_addr = nullptr;
    EXPECT_EQ(route_get_interface(&target.info, name), -1);
    EXPECT_EQ(errno, EDOM);
    EXPECT_EQ(sockets, 0);
    EXPECT_STREQ(name, "untouched");
    EXPECT_TRUE(log.take().empty());
}

TEST_F(RouteFaults, TheRequestForAnIpv4AddressIsThis) {
    ScriptedKernel kernel;
    const auto before = static_cast<uint32_t>(time(nullptr));
    kernel.onRequest = [&] { kernel.script.push_back({kernel.route(attribute(RTA_OIF, word(loopback)))}); };
    EXPECT_EQ(lookUp("203.0.113.77").name, "lo");
    const auto after = static_cast<uint32_t>(time(nullptr));
    EXPECT_GE(kernel.sequence, before + 1);
    EXPECT_LE(kernel.sequence, after + 1);
    EXPECT_EQ(hex(kernel.request),
              hex(word(36) + Bytes{26, 0, 1, 0} + word(kernel.sequence) + word(0) +
                  Bytes{AF_INET, 32, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0} + Bytes{8, 0, 1, 0} + Bytes{203, 0, 113, 77}));
    EXPECT_EQ(hex(kernel.to), hex(Bytes{AF_NETLINK, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0}));
    EXPECT_EQ(kernel.room, 16384U);
}

TEST_F(RouteFaults, TheRequestForAnIpv6AddressIsThis) {
    ScriptedKernel kernel;
    kernel.onRequest = [&] { kernel.script.push_back({kernel.route(attribute(RTA_OIF, word(loopback)))}); };
    EXPECT_EQ(lookUp("2001:db8:2::5").name, "lo");
    EXPECT_EQ(hex(kernel.request), hex(word(48) + Bytes{26, 0, 1, 0} + word(kernel.sequence) + word(0) +
                                       Bytes{AF_INET6, 128, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0} + Bytes{20, 0, 1, 0} +
                                       Bytes{0x20, 0x01, 0x0d, 0xb8, 0, 2, 0, 0, 0, 0, 0, 0, 0, 0, 0, 5}));
}

TEST_F(RouteFaults, TheSocketHasItsTypeAndBufferSizes) {
    vxtest::Intercept calls;
    std::vector<std::string> seen;
    calls->socket = [&](int domain, int type, int protocol) -> std::optional<int> {
        if (domain == AF_NETLINK) {
            EXPECT_EQ(type, SOCK_RAW | SOCK_CLOEXEC);
            EXPECT_EQ(protocol, NETLINK_ROUTE);
            seen.emplace_back("socket");
        }
        return std::nullopt;
    };
    calls->setsockopt = [&](int, int level, int option, const void *value, socklen_t) -> std::optional<int> {
        int number = 0;
        std::memcpy(&number, value, sizeof number);
        EXPECT_EQ(level, SOL_SOCKET);
        seen.push_back((option == SO_SNDBUF   ? "send "
                        : option == SO_RCVBUF ? "receive "
                                              : "? ") +
                       std::to_string(number));
        return std::nullopt;
    };
    calls->bind = [&](int, const sockaddr *address, socklen_t length) -> std::optional<int> {
        sockaddr_nl local{};
        EXPECT_EQ(length, sizeof local);
        std::memcpy(&local, address, sizeof local);
        EXPECT_EQ(local.nl_family, AF_NETLINK);
        EXPECT_EQ(local.nl_pid, 0U);
        EXPECT_EQ(local.nl_groups, 0U);
        seen.emplace_back("bind");
        return std::nullopt;
    };
    EXPECT_EQ(lookUp("127.0.0.1").name, "lo");
    EXPECT_EQ(seen, (std::vector<std::string>{"socket", "send 32768", "receive 1048576", "bind"}));
}

TEST_F(RouteFaults, EveryStepThatFailsIsNamedAndClosesTheSocket) {
    ConnectedLog log;
    const vxtest::NoLeaks noLeaks;
    const LogLine question{LOG_DEBUG, "looking up route for 127.0.0.1"};
    const auto errorOfFailure = [] {
        const Found found = lookUp("127.0.0.1");
        EXPECT_EQ(found.result, -1);
        EXPECT_EQ(found.name, "untouched");
        return found.error;
    };
    {
        vxtest::Intercept calls;
        calls->socket = [](int domain, int, int) -> std::optional<int> {
            return domain == AF_NETLINK ? std::optional(vxtest::failing(EMFILE)) : std::nullopt;
        };
        EXPECT_EQ(errorOfFailure(), EMFILE);
        EXPECT_EQ(log.take(), (Lines{{LOG_DEBUG, "rtq: unable to open netlink socket"}}));
    }
    for (const int refused : {SO_SNDBUF, SO_RCVBUF}) {
        vxtest::Intercept calls;
        calls->setsockopt = [&](int, int, int option, const void *, socklen_t) -> std::optional<int> {
            return option == refused ? std::optional(vxtest::failing(EPERM)) : std::nullopt;
        };
        EXPECT_EQ(errorOfFailure(), EPERM);
        EXPECT_EQ(log.take(), (Lines{{LOG_DEBUG, "rtq: unable to set buffer size"}}));
    }
    {
        vxtest::Intercept calls;
        calls->bind = [](int, const sockaddr *, socklen_t) -> std::optional<int> {
            return vxtest::failing(EADDRINUSE);
        };
        EXPECT_EQ(errorOfFailure(), EADDRINUSE);
        EXPECT_EQ(log.take(), (Lines{{LOG_DEBUG, "rtq: unable to bind netlink socket"}}));
    }
    for (const int wrong : {0, 1, 2}) {
        vxtest::Intercept calls;
        calls->getsockname = [&](int, sockaddr *address, socklen_t *length) -> std::optional<int> {
            if (wrong == 0) return vxtest::failing(EBADF);
            sockaddr_nl local{};
            local.nl_family = wrong == 1 ? AF_INET : AF_NETLINK;
            std::memcpy(address, &local, sizeof local);
            *length = wrong == 2 ? 11 : sizeof local;
            return 0;
        };
        const int error = errorOfFailure();
        if (wrong == 0) EXPECT_EQ(error, EBADF);
        EXPECT_EQ(log.take(), (Lines{{LOG_DEBUG, "rtq: invalid netlink socket"}})) << wrong;
    }
    {
        vxtest::Intercept calls;
        calls->sendmsg = [](int, const msghdr *) -> std::optional<ssize_t> { return vxtest::failing(ENOBUFS); };
        EXPECT_EQ(errorOfFailure(), ENOBUFS);
        EXPECT_EQ(log.take(), (Lines{question, {LOG_DEBUG, "rtq: unable to query netlink"}}));
    }
    {
        noMemory = true;
        errorOfFailure();
        noMemory = false;
        EXPECT_EQ(log.take(), (Lines{{LOG_DEBUG, "rtq: no mem for request"}}));
    }
}

struct Case {
    const char *name;
    // Datagrams that the scripted kernel answers with.
    std::function<std::vector<ScriptedKernel::Datagram>(const ScriptedKernel &)> answers;
    std::string message;  // the last one logged; a success when empty
};

std::string failed(int error) { return std::string("rtq: netlink query failed: ") + std::strerror(error); }

TEST_F(RouteFaults, AnswersOfEveryKind) {
    using Datagrams = std::vector<ScriptedKernel::Datagram>;
    const Bytes oif = attribute(RTA_OIF, word(loopback));
    const auto one = [](Bytes bytes) { return Datagrams{{std::move(bytes)}}; };
    const Case cases[] = {
        {"interrupted and empty-handed receives are repeated",
         [&](const auto &k) {
             return Datagrams{{{}, 0, 0, 12, EINTR}, {{}, 0, 0, 12, EAGAIN}, {{}, 0, 0, 12, EINTR}, {k.route(oif)}};
         },
         ""},
        {"another error ends it",
         [&](const auto &) {
             return Datagrams{{{}, 0, 0, 12, ENOBUFS}};
         },
         failed(ENOBUFS)},
        {"an empty datagram ends it", [&](const auto &) { return one({}); }, failed(0)},
        {"a sender without a netlink address ends it",
         [&](const auto &k) {
             return Datagrams{{k.route(oif), 0, 0, 2, 0}};
         },
         failed(0)},
        {"a message that is shorter than its header ends it",
         [&](const auto &k) { return one(k.message(RTM_NEWROUTE, {}, 0, 0, -1)); }, failed(0)},
        {"a message of length 0 ends it", [&](const auto &k) { return one(k.message(RTM_NEWROUTE, {}, 0, 0, -16)); },
         failed(0)},
        {"a message that is longer than the datagram ends it",
         [&](const auto &k) { return one(k.message(RTM_NEWROUTE, Bytes(12), 0, 0, 1)); }, failed(0)},
        {"also in a truncated datagram",
         [&](const auto &k) {
             return Datagrams{{k.message(RTM_NEWROUTE, Bytes(12), 0, 0, 1), MSG_TRUNC}};
         },
         failed(0)},
        {"a message of gigantic length ends it",
         [&](const auto &k) { return one(k.message(RTM_NEWROUTE, {}, 0, 0, 0x7FFFFFF0)); }, failed(0)},
        {"bytes that form no header end it", [&](const auto &) { return one(Bytes(15)); }, failed(0)},
        {"bytes after a foreign message that form no header end it",
         [&](const auto &k) { return one(k.route(oif, 1) + Bytes(4)); }, failed(0)},
        {"but not in a truncated datagram",
         [&](const auto &k) {
             return Datagrams{{k.route(oif, 1) + Bytes(4), MSG_TRUNC}, {k.route(oif)}};
         },
         ""},
        {"a foreign sequence number is skipped",
         [&](const auto &k) {
             return Datagrams{{k.route(attribute(RTA_OIF, word(2)), -1)}, {k.route(oif)}};
         },
         ""},
        {"a foreign port is skipped",
         [&](const auto &k) {
             return Datagrams{{k.route(attribute(RTA_OIF, word(2)), 0, 1)}, {k.route(oif)}};
         },
         ""},
        {"a sender that is not the kernel is skipped",
         [&](const auto &k) {
             return Datagrams{{k.route(attribute(RTA_OIF, word(2))), 0, 4711}, {k.route(oif)}};
         },
         ""},
        {"the answer may follow others in its datagram, padding included",
         [&](const auto &k) {
             return one(k.route(attribute(RTA_OIF, word(2)), 7) + k.message(RTM_NEWROUTE, Bytes(13), -7) +
                        k.route(oif));
         },
         ""},
        {"a message of a header alone is a whole one",
         [&](const auto &k) { return one(k.message(NLMSG_NOOP, {}, 7) + k.route(oif)); }, ""},
        {"also when it is the answer", [&](const auto &k) { return one(k.message(RTM_NEWROUTE, {})); },
         "rtq: invalid answer"},
        {"the first of two answers counts",
         [&](const auto &k) { return one(k.route(oif) + k.route(attribute(RTA_OIF, word(2)))); }, ""},
        {"an answer may be larger than the request buffer",
         [&](const auto &k) { return one(k.route(attribute(RTA_METRICS, Bytes(8000)) + oif)); }, ""},
        {"an acknowledgement is not a route",
         [&](const auto &k) { return one(k.message(NLMSG_ERROR, word(0) + Bytes(16))); }, failed(0)},
        {"an error carries its number",
         [&](const auto &k) { return one(k.message(NLMSG_ERROR, word(static_cast<uint32_t>(-ENETDOWN)) + Bytes(16))); },
         failed(ENETDOWN)},
        {"an error without a number is an error", [&](const auto &k) { return one(k.message(NLMSG_ERROR, Bytes(3))); },
         failed(0)},
        {"the smallest number there is does no harm",
         [&](const auto &k) { return one(k.message(NLMSG_ERROR, word(0x80000000U))); },
         failed(static_cast<int>(0x80000000U))},
        {"a message of another type is not a route",
         [&](const auto &k) { return one(k.message(RTM_DELROUTE, Bytes(12) + oif)); }, "rtq: no route received"},
        {"the end of a list is not a route", [&](const auto &k) { return one(k.message(NLMSG_DONE, word(0))); },
         "rtq: no route received"},
        {"a route shorter than its header is invalid",
         [&](const auto &k) { return one(k.message(RTM_NEWROUTE, Bytes(11))); }, "rtq: invalid answer"},
        {"a route without attributes names no interface", [&](const auto &k) { return one(k.route({})); },
         "rtq: no dest interface found"},
        {"a route without an output interface names none",
         [&](const auto &k) { return one(k.route(attribute(RTA_DST, word(7)) + attribute(RTA_PRIORITY, word(1)))); },
         "rtq: no dest interface found"},
        {"an output interface shorter than a number names none",
         [&](const auto &k) {
             return one(k.route(attribute(RTA_OIF, Bytes{1, 0, 0})));
         },
         "rtq: no dest interface found"},
        {"an empty output interface names none, and a second one does not count",
         [&](const auto &k) { return one(k.route(attribute(RTA_OIF, {}) + oif)); }, "rtq: no dest interface found"},
        {"the first output interface counts",
         [&](const auto &k) { return one(k.route(oif + attribute(RTA_OIF, word(77777)))); }, ""},
        {"attributes of unknown types are passed over",
         [&](const auto &k) { return one(k.route(attribute(31, word(9)) + attribute(0xFFFF, word(9)) + oif)); }, ""},
        {"an attribute shorter than its header ends the walk",
         [&](const auto &k) { return one(k.route(attribute(RTA_DST, word(9), -5) + oif)); },
         "rtq: no dest interface found"},
        {"an attribute of 3 bytes ends it where one of 4 would not",
         [&](const auto &k) { return one(k.route(attribute(RTA_DST, {}, -1) + oif)); }, "rtq: no dest interface found"},
        {"an attribute of 4 bytes is an empty one",
         [&](const auto &k) { return one(k.route(attribute(RTA_DST, {}) + oif)); }, ""},
        {"an attribute of no length ends the walk",
         [&](const auto &k) { return one(k.route(attribute(RTA_DST, {}, -4) + oif)); }, "rtq: no dest interface found"},
        {"an attribute longer than what is left ends the walk",
         [&](const auto &k) { return one(k.route(attribute(RTA_OIF, word(loopback), 1))); },
         "rtq: no dest interface found"},
        {"an odd attribute is padded", [&](const auto &k) { return one(k.route(attribute(RTA_SRC, Bytes(5)) + oif)); },
         ""},
        {"an interface that is gone has no name",
         [&](const auto &k) { return one(k.route(attribute(RTA_OIF, word(77777)))); }, "rtq: no dest interface found"},
        {"an interface number beyond all numbers has no name",
         [&](const auto &k) { return one(k.route(attribute(RTA_OIF, word(0xFFFFFFFF)))); },
         "rtq: no dest interface found"},
    };
    ConnectedLog log;
    const vxtest::NoLeaks noLeaks;
    for (const Case &item : cases) {
        SCOPED_TRACE(item.name);
        ScriptedKernel kernel;
        kernel.onRequest = [&] {
            for (auto &datagram : item.answers(kernel)) kernel.script.push_back(datagram);
            errno = ENOTTY;  // left over from anything: no message may show it
        };
        const Found found = lookUp("203.0.113.77");
        EXPECT_TRUE(kernel.script.empty());
        Lines expected{{LOG_DEBUG, "looking up route for 203.0.113.77"}};
        if (item.message.empty()) {
            EXPECT_EQ(found.result, 0);
            EXPECT_EQ(found.name, "lo");
            expected.push_back({LOG_DEBUG, "203.0.113.77 goes to lo"});
        } else {
            EXPECT_EQ(found.result, -1);
            EXPECT_EQ(found.name, "untouched");
            expected.push_back({LOG_DEBUG, item.message});
        }
        EXPECT_EQ(log.take(), expected);
    }
}

}  // namespace
