// SPDX-License-Identifier: MIT
// Route query, compared with the kernel's own tool. The question itself, and answers that only a hook can give, are in
// route_faults_test.cpp.
#include <vxutils/route.h>

#include <net/if.h>
#include <syslog.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "support/netns.h"
#include "support/process.h"
#include "support/resources.h"
#include "support/route.h"
#include "support/syslog_capture.h"

namespace {

using namespace vxtest::routes;

using vxtest::LogLine;
using Route = vxtest::routes::RouteTest;

TEST_F(Route, NamesTheInterfaceThatTheKernelsToolNames) {
    const vxtest::NoLeaks noLeaks;
    const std::pair<const char *, const char *> expected[] = {
        {"127.0.0.1", "lo"},       {"192.0.2.10", "lo"},         {"192.0.2.1", "wan0"},  {"192.0.2.255", "wan0"},
        {"203.0.113.77", "wan0"},  {"198.51.100.1", "wwan1"},    {"::1", "lo"},          {"2001:db8:1::1", "wan0"},
        {"2001:db8:2::5", "wan0"}, {"255.255.255.255", nullptr}, {"224.0.0.1", nullptr},
    };
    for (const auto &[address, interface] : expected) {
        const Found found = lookUp(address);
        if (interface == nullptr) {
            EXPECT_EQ(found.result, -1) << address << " goes to " << found.name << ", ip says " << asked(address);
            continue;
        }
        EXPECT_EQ(found.result, 0) << address;
        EXPECT_EQ(found.name, interface) << address;
        EXPECT_EQ(asked(address), interface) << address;
    }
}

TEST_F(Route, LogsQuestionAndAnswerAtDebugLevel) {
    ConnectedLog log;
    EXPECT_EQ(lookUp("203.0.113.77").result, 0);
    EXPECT_EQ(log.take(),
              (Lines{{LOG_DEBUG, "looking up route for 203.0.113.77"}, {LOG_DEBUG, "203.0.113.77 goes to wan0"}}));
    EXPECT_EQ(lookUp("2001:db8:2:0:0:0:0:5").result, 0);
    EXPECT_EQ(log.take(),
              (Lines{{LOG_DEBUG, "looking up route for 2001:db8:2::5"}, {LOG_DEBUG, "2001:db8:2::5 goes to wan0"}}));
}

TEST_F(Route, RefusedRoutesGiveTheKernelsErrorAndLeaveTheNameAlone) {
    const struct {
        const char *address;
        int error;
    } refused[] = {{"10.1.2.3", EHOSTUNREACH},
                   {"10.2.2.3", EINVAL},
                   {"10.3.2.3", EACCES},
                   {"10.4.2.3", ENETUNREACH},
                   {"2001:db8:a::1", EHOSTUNREACH},
                   {"2001:db8:b::1", EINVAL},
                   {"2001:db8:c::1", EACCES},
                   {"2001:db8:d::1", ENETUNREACH}};
    ConnectedLog log;
    const vxtest::NoLeaks noLeaks;
    for (const auto &[address, error] : refused) {
        const Found found = lookUp(address);
        EXPECT_EQ(found.result, -1) << address;
        EXPECT_EQ(found.error, error) << address;
        EXPECT_EQ(found.name, "untouched") << address;
        EXPECT_EQ(asked(address), std::strerror(error)) << address;
        EXPECT_EQ(log.take(), (Lines{{LOG_DEBUG, std::string("looking up route for ") + address},
                                     {LOG_DEBUG, std::string("rtq: netlink query failed: ") + std::strerror(error)}}));
    }
}

TEST_F(Route, AnInterfaceWithTheLongestNameFitsTheBuffer) {
    vxtest::ip("link add fifteen-letters type veth peer name fifteen-peer");
    vxtest::ip("link set fifteen-letters up");
    vxtest::ip("link set fifteen-peer up");
    vxtest::ip("addr add 100.64.0.1/24 dev fifteen-letters");
    const Target target("100.64.0.9");
    vxtest::GuardedBuffer name(IF_NAMESIZE);
    EXPECT_EQ(route_get_interface(&target.info, name.data()), 0);
    EXPECT_STREQ(name.data(), "fifteen-letters");
    vxtest::ip("link del fifteen-letters");
}

TEST_F(Route, OnlyFamilyAndAddressAreRead) {
    Target target("203.0.113.77");
    target.info.ai_flags = -1;
    target.info.ai_socktype = 77;
    target.info.ai_protocol = 77;
    target.info.ai_addrlen = 0;
    target.info.ai_canonname = reinterpret_cast<char *>(1);
    target.info.ai_next = reinterpret_cast<addrinfo *>(1);
    target.four.sin_family = 0;
    target.four.sin_port = 0xFFFF;
    char name[IF_NAMESIZE];
    EXPECT_EQ(route_get_interface(&target.info, name), 0);
    EXPECT_STREQ(name, "wan0");
}

TEST_F(Route, ManyThreadsMayAskAtOnce) {
    std::vector<std::thread> threads;
    std::atomic<int> wrong{0};
    for (int thread = 0; thread < 4; ++thread) {
        threads.emplace_back([&, thread] {
            const Target target(thread % 2 == 0 ? "203.0.113.77" : "198.51.100.1");
            for (int i = 0; i < 100; ++i) {
                char name[IF_NAMESIZE];
                if (route_get_interface(&target.info, name) != 0 ||
                    std::string(name) != (thread % 2 == 0 ? "wan0" : "wwan1")) {
                    ++wrong;
                }
            }
        });
    }
    for (auto &thread : threads) thread.join();
    EXPECT_EQ(wrong, 0);
}

}  // namespace
