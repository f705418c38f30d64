// SPDX-License-Identifier: MIT
// What the tests of the route query share: targets, a lookup with its result, routes of every kind.
#pragma once

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <net/if.h>
#include <netdb.h>
#include <netinet/in.h>
#include <syslog.h>
#include <vxutils/route.h>

#include <cerrno>
#include <string>
#include <vector>

#include "support/netns.h"
#include "support/process.h"
#include "support/syslog_capture.h"

namespace vxtest::routes {

using Lines = std::vector<LogLine>;

struct Target {
    addrinfo info{};
    sockaddr_in6 six{};
    sockaddr_in four{};

    explicit Target(const std::string &text) {
        if (text.find(':') == std::string::npos) {
            four.sin_family = AF_INET;
            EXPECT_EQ(inet_pton(AF_INET, text.c_str(), &four.sin_addr), 1);
            info.ai_addr = reinterpret_cast<sockaddr *>(&four);
            info.ai_addrlen = sizeof four;
        } else {
            six.sin6_family = AF_INET6;
            EXPECT_EQ(inet_pton(AF_INET6, text.c_str(), &six.sin6_addr), 1);
            info.ai_addr = reinterpret_cast<sockaddr *>(&six);
            info.ai_addrlen = sizeof six;
        }
        info.ai_family = info.ai_addr->sa_family;
    }
};

struct Found {
    int result;
    std::string name;
    int error;
};

// A process connects to the system log with its first message and keeps that socket.
struct ConnectedLog : SyslogCapture {
    ConnectedLog() {
        ::syslog(LOG_INFO, "connected");
        take();
    }
};

inline Found lookUp(const std::string &address) {
    const Target target(address);
    char name[IF_NAMESIZE] = "untouched";
    errno = 0;
    const int result = route_get_interface(&target.info, name);
    return {result, name, errno};
}

// What "ip route get" says: interface, or the error.
inline std::string asked(const std::string &address) {
    const auto output = run({"ip", "route", "get", address});
    const std::string device = " dev ";
    const std::string refusal = "RTNETLINK answers: ";
    if (const size_t at = output.text.find(refusal); at != std::string::npos) {
        return output.text.substr(at + refusal.size(), output.text.find('\n', at) - at - refusal.size());
    }
    if (const size_t at = output.text.find(device); at != std::string::npos) {
        const size_t name = at + device.size();
        return output.text.substr(name, output.text.find(' ', name) - name);
    }
    return output.text;
}

// A world with routes of every kind, made once.
class RouteTest : public testing::Test {
protected:
    static void SetUpTestSuite() {
        ip("link add wan0 type veth peer name wan0peer");
        ip("link add wwan1 type veth peer name wwan1peer");
        for (const char *name : {"wan0", "wan0peer", "wwan1", "wwan1peer"}) ip(std::string("link set up ") + name);
        ip("addr add 192.0.2.10/24 dev wan0");
        ip("-6 addr add 2001:db8:1::10/64 dev wan0 nodad");
        ip("addr add 198.51.100.10/25 dev wwan1");
        ip("route add 203.0.113.0/24 via 192.0.2.1");
        ip("-6 route add 2001:db8:2::/48 via 2001:db8:1::1 dev wan0");
        ip("route add unreachable 10.1.0.0/16");
        ip("route add blackhole 10.2.0.0/16");
        ip("route add prohibit 10.3.0.0/16");
        ip("-6 route add unreachable 2001:db8:a::/48");
        ip("-6 route add blackhole 2001:db8:b::/48");
        ip("-6 route add prohibit 2001:db8:c::/48");
    }
};

}  // namespace vxtest::routes
