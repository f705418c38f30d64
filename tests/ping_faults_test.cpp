// SPDX-License-Identifier: MIT
// Ping where the system refuses a step.
#include <vxutils/ping.h>

#include <arpa/inet.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <syslog.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "support/files.h"
#include "support/ping.h"
#include "support/ping_watch.h"
#include "support/resources.h"
#include "support/syslog_capture.h"
#include "support/wan.h"

namespace {

using namespace vxtest::ping;

using vxtest::hex;
using vxtest::LogLine;

using PingFaults = vxtest::ping::PingTest;

// The kernel refuses one question about an interface.
void refuse(Watch &watch, unsigned long question, int error) {
    watch.calls->ioctl = [question, error](int, unsigned long request, void *argument) -> std::optional<int> {
        if (request != question) return std::nullopt;
        EXPECT_STREQ(static_cast<const ifreq *>(argument)->ifr_name, "wan0");
        return vxtest::failing(error);
    };
}

TEST_F(PingFaults, PlainPingNamesWhatFailsAndCloses) {
    ConnectedLog log;
    const vxtest::NoLeaks noLeaks;
    EXPECT_EQ(icmpping("wan0", "no-such-host", 0), -1);
    EXPECT_EQ(icmpping("wan0", "six-only", 0), -1);
    EXPECT_EQ(icmpping("nosuch0", gatewayText, 0), -1);
    EXPECT_EQ(log.take(), (Lines{{LOG_ERR, "icmpping[wan0]: invalid target 'no-such-host'"},
                                 {LOG_ERR, "icmpping[wan0]: invalid target 'six-only'"},
                                 {LOG_ERR, "icmpping: can't bind to nosuch0 (No such device)"}}));
    {
        Watch watch;
        watch.calls->socket = [](int, int, int) -> std::optional<int> { return vxtest::failing(EMFILE); };
        EXPECT_EQ(icmpping("wan0", gatewayText, 0), -1);
        EXPECT_EQ(log.take(), (Lines{{LOG_ERR, "icmpping: unable to open socket (Too many open files)"}}));
    }
    {
        Watch watch;
        watch.calls->sendto = [](int, const void *, size_t, const sockaddr *, socklen_t) -> std::optional<ssize_t> {
            return vxtest::failing(ENETUNREACH);
        };
        EXPECT_EQ(icmpping("wan0", gatewayText, 0), -1);
        EXPECT_EQ(log.take(), (Lines{{LOG_ERR, "icmpping: packet transmission failed (Network is unreachable)"}}));
    }
    {
        Watch watch;
        watch.calls->sendto = [](int, const void *, size_t, const sockaddr *, socklen_t) -> std::optional<ssize_t> {
            errno = 0;
            return 63;
        };
        EXPECT_EQ(icmpping("wan0", gatewayText, 0), -1);
        EXPECT_EQ(log.take(), (Lines{{LOG_ERR, "icmpping: packet transmission failed (Success)"}}));
    }
    {
        Watch watch;
        watch.calls->recvmsg = [](int, msghdr *, int) -> std::optional<ssize_t> { return vxtest::failing(ENETDOWN); };
        EXPECT_EQ(icmpping("wan0", gatewayText, 0), -1);
        EXPECT_EQ(log.take().back(), (LogLine{LOG_ERR, "icmpping: unable to receive reply on wan0 (Network is down)"}));
    }
}

TEST_F(PingFaults, EveryFailureOfTheSetUpIsNamed) {
    ConnectedLog log;
    const vxtest::NoLeaks noLeaks;
    timespec roundTrip{77, 77};
    const auto ping = [&](const char *interface, const char *target, const char *gateway) {
        return __rawping(interface, target, gateway, nullptr, nullptr, 0, -1, &roundTrip, nullptr);
    };
    EXPECT_EQ(ping("wan0", "no-such-host", nullptr), -1);
    EXPECT_EQ(ping("nosuch0", targetText, nullptr), -1);
    EXPECT_EQ(ping("wan0", targetText, "no-such-gateway"), -1);
    EXPECT_EQ(log.take(), (Lines{{LOG_ERR, "rawping[wan0]: invalid target 'no-such-host'"},
                                 {LOG_ERR, "rawping[nosuch0]: can't get interface index (No such device)"},
                                 {LOG_ERR, "rawping[wan0]: invalid gateway 'no-such-gateway'"}}));
    vxtest::ip("link add noaddr0 type veth peer name noaddr1");
    EXPECT_EQ(ping("noaddr0", targetText, nullptr), -1);
    EXPECT_EQ(log.take(),
              (Lines{{LOG_ERR, "rawping[noaddr0]: can't get interface address (Cannot assign requested address)"}}));
    vxtest::ip("link del noaddr0");
    EXPECT_EQ(roundTrip.tv_sec, 77) << "nothing could be tried";
    EXPECT_EQ(roundTrip.tv_nsec, 77);

    Watch watch;
    watch.calls->socket = [](int domain, int type, int protocol) -> std::optional<int> {
        EXPECT_EQ(domain, AF_INET);
        EXPECT_EQ(type & ~SOCK_CLOEXEC, SOCK_PACKET);
        EXPECT_EQ(protocol, 0);
        return vxtest::failing(EMFILE);
    };
    EXPECT_EQ(ping("wan0", targetText, nullptr), -1);
    EXPECT_EQ(log.take(), (Lines{{LOG_ERR, "rawping[wan0]: unable to create socket (Too many open files)"}}));
}

TEST_F(PingFaults, EveryRefusedQuestionAboutTheInterfaceIsNamed) {
    ConnectedLog log;
    const vxtest::NoLeaks noLeaks;
    const std::pair<unsigned long, const char *> questions[] = {
        {SIOCGIFINDEX, "index"}, {SIOCGIFADDR, "address"}, {SIOCGIFNETMASK, "netmask"}, {SIOCGIFHWADDR, "hwaddr"}};
    for (const auto &[question, name] : questions) {
        Watch watch;
        refuse(watch, question, EIO);
        EXPECT_EQ(rawping("wan0", targetText, gatewayText, 0), -1);
        EXPECT_TRUE(watch.sent.empty());
        EXPECT_EQ(
            log.take(),
            (Lines{{LOG_ERR, std::string("rawping[wan0]: can't get interface ") + name + " (Input/output error)"}}));
    }
}

// Of several steps that would fail, the first is named: each row repairs what the row before named.
TEST_F(PingFaults, TheStepsOfTheSetUpHaveThisOrder) {
    ConnectedLog log;
    const vxtest::NoLeaks noLeaks;
    struct Row {
        const char *target, *gateway, *source, *netmask;
        bool socket;
        std::set<unsigned long> refused;
        const char *message;
    };
    const char *const bad = "no-such-host";
    const Row rows[] = {
        {"", bad, "", "", false, {}, "rawping: no target given"},
        {bad, bad, "", "", false, {}, "rawping: no source given"},
        {bad, bad, "x", "", false, {}, "rawping: no netmask given"},
        {bad, bad, nullptr, nullptr, false, {}, "rawping[wan0]: invalid target 'no-such-host'"},
        {targetText, bad, nullptr, nullptr, false, {}, "rawping[wan0]: unable to create socket (Input/output error)"},
        {targetText,
         bad,
         "x",
         "x",
         true,
         {SIOCGIFINDEX, SIOCGIFHWADDR},
         "rawping[wan0]: can't get interface index (Input/output error)"},
        {targetText,
         bad,
         nullptr,
         nullptr,
         true,
         {SIOCGIFADDR, SIOCGIFNETMASK, SIOCGIFHWADDR},
         "rawping[wan0]: can't get interface address (Input/output error)"},
        {targetText,
         bad,
         nullptr,
         nullptr,
         true,
         {SIOCGIFNETMASK, SIOCGIFHWADDR},
         "rawping[wan0]: can't get interface netmask (Input/output error)"},
        {targetText, bad, nullptr, nullptr, true, {SIOCGIFHWADDR}, "rawping[wan0]: invalid gateway 'no-such-host'"},
    };
    for (const Row &row : rows) {
        Watch watch;
        watch.calls->socket = [&](int, int type, int) -> std::optional<int> {
            const bool query = (type & ~SOCK_CLOEXEC) == SOCK_PACKET;
            return query && !row.socket ? std::optional(vxtest::failing(EIO)) : std::nullopt;
        };
        watch.calls->ioctl = [&](int, unsigned long request, void *) -> std::optional<int> {
            return row.refused.count(request) != 0 ? std::optional(vxtest::failing(EIO)) : std::nullopt;
        };
        EXPECT_EQ(__rawping("wan0", row.target, row.gateway, row.source, row.netmask, 0, -1, nullptr, nullptr), -1);
        EXPECT_EQ(log.take(), (Lines{{LOG_ERR, row.message}}));
    }
    Watch watch;
    watch.calls->socket = [](int, int type, int) -> std::optional<int> {
        return (type & ~SOCK_CLOEXEC) == SOCK_RAW ? std::optional(vxtest::failing(EMFILE)) : std::nullopt;
    };
    EXPECT_EQ(icmpping("nosuch0", "no-such-host", 0), -1);
    EXPECT_EQ(icmpping("nosuch0", gatewayText, 0), -1);
    EXPECT_EQ(log.take(), (Lines{{LOG_ERR, "icmpping[nosuch0]: invalid target 'no-such-host'"},
                                 {LOG_ERR, "icmpping: unable to open socket (Too many open files)"}}));
}

TEST_F(PingFaults, TheStepsThatMakeAnEchosSocketHaveThisOrder) {
    ConnectedLog log;
    knowGateway(wan->gateway);
    const uint32_t mark = 3;
    std::vector<int> steps;
    Watch watch;
    watch.receiveFromScript();
    watch.calls->setsockopt = [&](int, int, int option, const void *, socklen_t) -> std::optional<int> {
        if (option != SO_TIMESTAMPNS) steps.push_back(option);
        return option == SO_MARK ? std::optional(0) : std::nullopt;
    };
    constexpr int bound = -1;
    watch.calls->bind = [&](int, const sockaddr *, socklen_t) -> std::optional<int> {
        steps.push_back(bound);
        return std::nullopt;
    };
    EXPECT_EQ(__rawping("wan0", targetText, gatewayText, nullptr, nullptr, 0, -1, nullptr, &mark), -1);
    EXPECT_EQ(steps, (std::vector<int>{SO_ATTACH_FILTER, SO_MARK, bound}));
    steps.clear();
    EXPECT_EQ(rawping("wan0", gatewayText, nullptr, 0), -1);
    EXPECT_EQ(steps, (std::vector<int>{IP_HDRINCL, SO_BINDTODEVICE, IP_HDRINCL}));
}

TEST_F(PingFaults, AFailingPointToPointTestCountsAsNo) {
    ConnectedLog log;
    Watch watch;
    watch.receiveFromScript();
    watch.calls->socket = [](int domain, int type, int) -> std::optional<int> {
        if (domain == AF_INET && (type & ~SOCK_CLOEXEC) == SOCK_DGRAM) return vxtest::failing(EMFILE);
        return std::nullopt;
    };
    EXPECT_EQ(rawping("wan0", gatewayText, gatewayText, 0), -1);
    const auto lines = log.take();
    EXPECT_EQ(lines.at(1), (LogLine{LOG_ERR, "unable to create socket"}));
    EXPECT_EQ(lines.at(2),
              (LogLine{LOG_DEBUG, "gateway 192.0.2.1 (source C000020A, mask FFFFFF00, dest C0000201, is_ptp 0)"}));
}

TEST_F(PingFaults, AnInterfaceWhoseFlagsAreRefusedCountsAsNotPointToPoint) {
    ConnectedLog log;
    const vxtest::NoLeaks noLeaks;
    Watch watch;
    refuse(watch, SIOCGIFFLAGS, EIO);
    EXPECT_EQ(rawping("wan0", gatewayText, gatewayText, 1000), 0);
    const auto lines = log.take();
    EXPECT_EQ(lines.at(1), (LogLine{LOG_ERR, "unable to get flags for wan0"}));
    EXPECT_EQ(lines.at(2),
              (LogLine{LOG_DEBUG, "gateway 192.0.2.1 (source C000020A, mask FFFFFF00, dest C0000201, is_ptp 0)"}));
}

TEST_F(PingFaults, AnInterfaceNameThatIsGoneMeanwhileCountsAsPointToPoint) {
    ConnectedLog log;
    const vxtest::NoLeaks noLeaks;
    knowGateway(wan->gateway);
    char interface[] = "wan0";
    Watch watch;
    watch.receiveFromScript();
    // The caller's text is emptied while the interface is examined: by the last question, it is not a name any more.
    watch.calls->ioctl = [&](int, unsigned long request, void *) -> std::optional<int> {
        if (request == SIOCGIFHWADDR) interface[0] = '\0';
        EXPECT_NE(request, static_cast<unsigned long>(SIOCGIFFLAGS)) << "nothing to ask about";
        return std::nullopt;
    };
    EXPECT_EQ(rawping(interface, targetText, gatewayText, 0), -1);
    const auto lines = log.take();
    EXPECT_EQ(lines.at(1), (LogLine{LOG_ERR, "no interface provided"}));
    EXPECT_EQ(lines.at(2),
              (LogLine{LOG_DEBUG, "gateway 192.0.2.1 (source C000020A, mask FFFFFF00, dest C6336409, is_ptp 1)"}));
    EXPECT_EQ(lines.at(3), (LogLine{LOG_DEBUG, std::string("rawping[] => sending ip ping to ") + targetText}));
}

TEST_F(PingFaults, TheIpLevelNamesWhatFailsAndCloses) {
    ConnectedLog log;
    const vxtest::NoLeaks noLeaks;
    const auto lastLine = [&] { return log.take().back(); };
    int headers = 0;
    for (const int failingHeader : {1, 2}) {
        Watch watch;
        headers = 0;
        watch.calls->setsockopt = [&](int, int, int option, const void *value, socklen_t) -> std::optional<int> {
            int number = 0;
            if (option != IP_HDRINCL) return std::nullopt;
            std::memcpy(&number, value, sizeof number);
            EXPECT_EQ(number, 1);
            return ++headers == failingHeader ? std::optional(vxtest::failing(EPERM)) : std::nullopt;
        };
        EXPECT_EQ(rawping("wan0", gatewayText, nullptr, 0), -1);
        EXPECT_EQ(lastLine(),
                  failingHeader == 1
                      ? (LogLine{LOG_DEBUG, "rawping[wan0]: generated ip echo packet for 192.0.2.1"})
                      : (LogLine{LOG_ERR, "rawping[wan0]: can't configure socket (Operation not permitted)"}));
    }
    {
        Watch watch;
        watch.calls->setsockopt = [&](int, int, int option, const void *, socklen_t) -> std::optional<int> {
            return option == SO_BINDTODEVICE ? std::optional(vxtest::failing(EPERM)) : std::nullopt;
        };
        EXPECT_EQ(rawping("wan0", gatewayText, nullptr, 0), -1);
        EXPECT_EQ(lastLine(), (LogLine{LOG_ERR, "rawping[wan0]: can't bind to device (Operation not permitted)"}));
    }
    {
        Watch watch;
        watch.calls->socket = [](int, int type, int protocol) -> std::optional<int> {
            if ((type & ~SOCK_CLOEXEC) != SOCK_RAW) return std::nullopt;
            EXPECT_EQ(protocol, IPPROTO_ICMP);
            return vxtest::failing(EMFILE);
        };
        EXPECT_EQ(rawping("wan0", gatewayText, nullptr, 0), -1);
        EXPECT_EQ(lastLine(), (LogLine{LOG_ERR, "rawping[wan0]: unable to open socket (Too many open files)"}));
    }
    {
        Watch watch;
        watch.calls->sendto = [](int, const void *, size_t, const sockaddr *, socklen_t) -> std::optional<ssize_t> {
            return vxtest::failing(ENOBUFS);
        };
        EXPECT_EQ(rawping("wan0", gatewayText, nullptr, 0), -1);
        EXPECT_EQ(
            lastLine(),
            (LogLine{LOG_ERR, "rawping[wan0]: unable to send 48 bytes to 192.0.2.1 (No buffer space available)"}));
    }
    {
        Watch watch;
        watch.calls->recvmsg = [](int, msghdr *, int) -> std::optional<ssize_t> { return vxtest::failing(ENETDOWN); };
        EXPECT_EQ(rawping("wan0", gatewayText, nullptr, 0), -1);
        EXPECT_EQ(lastLine(), (LogLine{LOG_ERR, "rawping[wan0]: unable to receive reply (Network is down)"}));
    }
}

TEST_F(PingFaults, TheLinkLevelNamesWhatFailsAndCloses) {
    ConnectedLog log;
    knowGateway(wan->gateway);
    const vxtest::NoLeaks noLeaks;
    const uint32_t three = 3;
    const auto ping = [&](const uint32_t *mark = nullptr) {
        EXPECT_EQ(__rawping("wan0", targetText, gatewayText, nullptr, nullptr, 0, -1, nullptr, mark), -1);
        return log.take().back();
    };
    {
        Watch watch;
        watch.calls->socket = [](int domain, int type, int protocol) -> std::optional<int> {
            if (domain != AF_PACKET) return std::nullopt;
            EXPECT_EQ(type & ~SOCK_CLOEXEC, SOCK_RAW);
            EXPECT_EQ(protocol, htons(0x0003));
            return vxtest::failing(EMFILE);
        };
        EXPECT_EQ(ping(), (LogLine{LOG_ERR, "rawping[wan0]: unable to open socket (Too many open files)"}));
    }
    const std::pair<int, const char *> options[] = {
        {SO_ATTACH_FILTER, "rawping[wan0]: unable to set filter (Operation not permitted)"},
        {SO_MARK, "rawping[wan0]: unable to set mark (Operation not permitted)"}};
    for (const auto &[refused, message] : options) {
        Watch watch;
        watch.calls->setsockopt = [option = refused](int, int, int asked, const void *,
                                                     socklen_t) -> std::optional<int> {
            return asked == option ? std::optional(vxtest::failing(EPERM)) : std::nullopt;
        };
        EXPECT_EQ(ping(&three), (LogLine{LOG_ERR, message}));
    }
    {
        Watch watch;
        watch.calls->bind = [](int, const sockaddr *, socklen_t) -> std::optional<int> {
            return vxtest::failing(ENODEV);
        };
        EXPECT_EQ(ping(), (LogLine{LOG_ERR, "rawping[wan0]: unable to bind socket (No such device)"}));
    }
    {
        Watch watch;
        watch.calls->sendto = [](int, const void *, size_t, const sockaddr *, socklen_t) -> std::optional<ssize_t> {
            return vxtest::failing(ENETDOWN);
        };
        EXPECT_EQ(ping(), (LogLine{LOG_ERR, "rawping[wan0]: cannot send 48 bytes to 198.51.100.9 (Network is down)"}));
    }
    {
        Watch watch;
        watch.calls->recvmsg = [](int, msghdr *, int) -> std::optional<ssize_t> { return vxtest::failing(EIO); };
        EXPECT_EQ(ping(), (LogLine{LOG_ERR, "rawping[wan0]: unable to receive reply (Input/output error)"}));
    }
}

TEST_F(PingFaults, AnInterfaceThatGoesDownMeanwhileIsAReceiveError) {
    ConnectedLog log;
    knowGateway(wan->gateway);
    vxtest::Wan::answers(wan->target, false);
    Watch watch(false);
    watch.calls->nanosleep = [](const timespec *) -> std::optional<int> {
        vxtest::ip("link set wan0 down");
        return 0;
    };
    EXPECT_EQ(rawping("wan0", targetText, gatewayText, 0), -1);
    EXPECT_EQ(log.take().back(), (LogLine{LOG_ERR, "rawping[wan0]: unable to receive reply (Network is down)"}));
    vxtest::ip("link set wan0 up");
}

TEST_F(PingFaults, AGatewayIsNotFoundByItsNameInTheTable) {
    ConnectedLog log;
    knowGateway(wan->gateway);
    Watch watch;
    EXPECT_EQ(rawping("wan0", targetText, "wan-gateway", 0), -1);
    Lines lines = log.take();
    Lines marks;
    for (const LogLine &line : lines) {
        if (line.text.find("wan-gateway") != std::string::npos || line.text.find("=>") != std::string::npos ||
            line.text.find("pinging") != std::string::npos) {
            marks.push_back(line);
        }
    }
    EXPECT_EQ(marks,
              (Lines{{LOG_DEBUG, "gateway wan-gateway (source C000020A, mask FFFFFF00, dest C6336409, is_ptp 0)"},
                     {LOG_DEBUG, "rawping[wan0]: cannot ping 198.51.100.9 directly, must use gateway wan-gateway"},
                     {LOG_DEBUG, "rawping[wan0]: can't resolve HW address for wan-gateway -> send query"},
                     {LOG_DEBUG, "rawping[wan0]: pinging 192.0.2.1"},
                     {LOG_ERR, "rawping[wan0]: can't resolve HW address for wan-gateway"},
                     {LOG_DEBUG, "rawping[wan0] => ARP lookup failed, sending ip ping to 198.51.100.9"}}));
    EXPECT_EQ(hex(watch.sent.back()),
              hex(ipEcho(48, memoryNumber(watch.sent[0], 24), 2, {192, 0, 2, 10}, {198, 51, 100, 9})))
        << "the fallback goes to the target";
}

TEST_F(PingFaults, AGatewayThatCannotBeResolvedAnyMoreFallsBackAtOnce) {
    ConnectedLog log;
    const std::string hosts = vxtest::readFile("/etc/hosts");
    Watch watch;
    // The name is looked up when the interface is examined, and again here; between the two it goes away.
    watch.calls->socket = [&](int domain, int type, int) -> std::optional<int> {
        if (domain == AF_INET && (type & ~SOCK_CLOEXEC) == SOCK_DGRAM) vxtest::writeFile("/etc/hosts", "\n");
        return std::nullopt;
    };
    EXPECT_EQ(rawping("wan0", targetText, "wan-gateway", 0), -1);
    vxtest::writeFile("/etc/hosts", hosts);
    const auto texts = log.texts();
    EXPECT_EQ(texts.at(4), "rawping[wan0]: hostbyname for wan-gateway failed");
    EXPECT_EQ(texts.at(5), "rawping[wan0] => ARP lookup failed, sending ip ping to 198.51.100.9");
    EXPECT_EQ(watch.sent.size(), 1U);
}

TEST_F(PingFaults, WithoutATableTheGatewayIsNotFound) {
    ConnectedLog log;
    const vxtest::NoLeaks noLeaks;
    const ArpTable none(nullptr);
    Watch watch;
    watch.receiveFromScript();
    EXPECT_EQ(rawping("wan0", targetText, gatewayText, 0), -1);
    const auto lines = log.take();
    EXPECT_EQ(lines.at(3), (LogLine{LOG_DEBUG, "rawping[wan0]: can't resolve HW address for 192.0.2.1 -> send query"}));
    EXPECT_EQ(std::count(lines.begin(), lines.end(),
                         LogLine{LOG_ERR, "rawping[wan0]: can't resolve HW address for 192.0.2.1"}),
              1);
    EXPECT_EQ(lines.back(), (LogLine{LOG_DEBUG, "rawping[wan0]: received no valid ip reply from 198.51.100.9"}));
}

TEST_F(PingFaults, TheRoundTripIsWrittenAfterFailuresToo) {
    timespec roundTrip{77, 77};
    Watch watch;
    watch.receiveFromScript();
    EXPECT_EQ(rawpingFrom(nullptr, nullptr, &roundTrip), -1);
    EXPECT_LT(roundTrip.tv_sec, 0) << "sent, and nothing received: the zero of a fresh context minus the sending";
    watch.script.push_back(ipPacket(ipMessage(8, 1, 1)));
    EXPECT_EQ(rawpingFrom(nullptr, nullptr, &roundTrip), -1);
    EXPECT_EQ(roundTrip.tv_sec, 0) << "a packet was received, though no reply";
    EXPECT_GE(roundTrip.tv_nsec, 0);
}

}  // namespace
