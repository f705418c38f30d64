// SPDX-License-Identifier: MIT
// vx ping, route, link and addr over the gateway's WAN link.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <string>
#include <thread>

#include "support/emulation.h"
#include "support/files.h"
#include "support/netns.h"
#include "support/vx.h"
#include "support/wan.h"

namespace {

using testing::HasSubstr;
using testing::MatchesRegex;
using testing::StartsWith;
using vxtest::Process;
using vxtest::vx;
using vxtest::vxCommand;
using vxtest::vxJson;
using vxtest::Wan;

const std::string target = "198.51.100.9";

// One link for all tests: the kernel takes its time to give a namespace's name free.
const Wan &theWan() {
    static const Wan wan;
    Wan::answers(wan.target, true);
    return wan;
}

// ---- ping

TEST(VxPing, ReachesATargetThroughAGatewayAtLinkLevel) {
    theWan();
    const auto result = vx({"ping", "-I", "wan0", "-g", "192.0.2.1", "-c", "2", "-i", "0.1", target});
    EXPECT_EQ(result.status, 0) << result.err;
    EXPECT_THAT(
        result.out,
        MatchesRegex("198.51.100.9 seq=1 reply=1 time_ms=[0-9.]+\n"
                     "198.51.100.9 seq=2 reply=1 time_ms=[0-9.]+\n"
                     "198.51.100.9 sent=2 received=2 loss_percent=0.0 min_ms=[0-9.]+ avg_ms=[0-9.]+ max_ms=[0-9.]+ "
                     "mdev_ms=[0-9.]+\n"));
    EXPECT_EQ(result.err, "");
}

TEST(VxPing, FindsTheInterfaceByTheRoute) {
    theWan();
    EXPECT_EQ(vx({"ping", "-c", "1", "192.0.2.1"}).status, 0);
    EXPECT_EQ(vx({"ping", "-c", "1", target}).err, "vx: ping: " + target + ": Network is unreachable\n");
    vxtest::ip("route add " + target + " via 192.0.2.1");
    EXPECT_EQ(vx({"ping", "-c", "1", "-s", "1450", "-t", "2000", target}).status, 0);
    vxtest::ip("route del " + target);
}

TEST(VxPing, MarksAndSourcesAreSeenOnTheWire) {
    if (vxtest::emulated()) GTEST_SKIP() << "the emulator refuses SO_MARK";
    theWan();
    vxtest::Wire wire("wan0", 0x1234);
    EXPECT_EQ(vx({"ping", "-I", "wan0", "-g", "192.0.2.1", "-m", "0x1234", "-c", "1", target}).status, 0);
    EXPECT_TRUE(wire.nextOfAll(5000).has_value());
    vxtest::ip("addr add 192.0.2.77/24 dev wan0");
    vxtest::Wire far("wan0");
    EXPECT_EQ(vx({"ping", "-I", "wan0", "-S", "192.0.2.77", "-c", "1", "192.0.2.1"}).status, 0);
}

TEST(VxPing, NoReplyIsStatusOneWithStatistics) {
    const Wan &wan = theWan();
    Wan::answers(wan.target, false);
    const auto result = vx({"ping", "-I", "wan0", "-g", "192.0.2.1", "-c", "1", "-t", "500", target});
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.out,
              "198.51.100.9 seq=1 reply=0 time_ms=\n198.51.100.9 sent=1 received=0 loss_percent=100.0 min_ms= avg_ms= "
              "max_ms= mdev_ms=\n");
}

TEST(VxPing, CtrlCEndsAtOnceWithStatistics) {
    const Wan &wan = theWan();
    Process ping(vxCommand({"-j", "ping", "-I", "wan0", "-g", "192.0.2.1", "-t", "10000", "-i", "0.01", target}));
    ping.readLine();  // from here on the signal is held back
    Wan::answers(wan.target, false);
    std::this_thread::sleep_for(std::chrono::milliseconds(100));  // an echo is under way that gets no reply
    const auto begin = std::chrono::steady_clock::now();
    ping.signal(SIGINT);
    std::string line;
    do line = ping.readLine();
    while (line.find("\"seq\"") != std::string::npos);
    EXPECT_THAT(line, testing::StartsWith(R"({"target":"198.51.100.9","sent":)"));
    EXPECT_EQ(ping.wait(), 0);
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(9)) << "the echo's own time is 10 s";
    Wan::answers(wan.target, true);
    Process good(vxCommand({"ping", "-I", "wan0", "192.0.2.1"}));
    good.readLine();
    good.signal(SIGTERM);
    EXPECT_EQ(good.wait(), 0);
}

// A name server on the loopback interface that never answers.
class SilentNameServer {
public:
    SilentNameServer() : before_(vxtest::readFile(settings)), socket_(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(53);
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        EXPECT_EQ(::bind(socket_, reinterpret_cast<const sockaddr *>(&address), sizeof address), 0);
        vxtest::writeFile(settings, "nameserver 127.0.0.1\noptions timeout:30 attempts:5\n");
    }
    ~SilentNameServer() {
        ::close(socket_);
        vxtest::writeFile(settings, before_);
    }
    SilentNameServer(const SilentNameServer &) = delete;
    SilentNameServer &operator=(const SilentNameServer &) = delete;

    bool takeQuery(int flags) const {
        char query;
        return ::recv(socket_, &query, 1, flags) == 1;
    }

private:
    static constexpr const char *settings = "/etc/resolv.conf";
    std::string before_;
    int socket_;
};

// A look-up of a name takes as long as the resolver waits for its server.
TEST(VxPing, EndsInTimeWhileANameIsLookedUp) {
    if (vxtest::emulated()) GTEST_SKIP() << "the emulator looks for the resolver's settings in its sysroot";
    theWan();
    const SilentNameServer server;
    const auto result = vx({"ping", "-c", "1", "--for", "0.3", "some.host.example"}, {.alarm_s = 25});
    EXPECT_EQ(result.status, 1);
    EXPECT_THAT(result.out, StartsWith("some.host.example sent=0 received=0 loss_percent=0.0 "));
    while (server.takeQuery(MSG_DONTWAIT)) continue;
    Process ping(vxCommand({"ping", "some.host.example"}));
    EXPECT_TRUE(server.takeQuery(0));
    ping.signal(SIGTERM);
    EXPECT_THAT(ping.readLine(), StartsWith("some.host.example sent=0 "));
    EXPECT_EQ(ping.wait(), 1);
}

TEST(VxPing, JsonLinesAreValid) {
    theWan();
    const auto result = vx({"-j", "ping", "-I", "wan0", "-c", "2", "-i", "0", "192.0.2.1"});
    size_t at = 0;
    int lines = 0;
    for (size_t end; (end = result.out.find('\n', at)) != std::string::npos; at = end + 1) {
        EXPECT_EQ(vxtest::schemaErrors("ping", result.out.substr(at, end - at + 1)), "");
        ++lines;
    }
    EXPECT_EQ(lines, 3);
    EXPECT_THAT(result.out, HasSubstr(R"({"target":"192.0.2.1","sent":2,"received":2,"loss_percent":0.0,"min_ms":)"));
}

TEST(VxPing, BadArgumentsAndMissingRightsAreNamed) {
    theWan();
    for (const auto &words : {std::vector<std::string>{},
                              {"-t", "499", target},
                              {"-t", "10001", target},
                              {"-s", "47", target},
                              {"-s", "1451", target},
                              {"-m", "1", target},
                              {"-c", "0", target},
                              {"-S", "x", target},
                              {"-i", "x", target},
                              {"-g", "192.0.2.1", "-m", "4294967296", target},
                              {target, "x"}}) {
        std::vector<std::string> all{"ping"};
        all.insert(all.end(), words.begin(), words.end());
        EXPECT_EQ(vx(all).status, 2) << all.back();
    }
    EXPECT_EQ(vx({"ping", "-I", "none0", target}).err, "vx: ping: none0: No such device\n");
    EXPECT_THAT(vx({"ping", "no.such.host.invalid"}).err, StartsWith("vx: ping: no.such.host.invalid: "));
    if (!vxtest::hasOtherUsers()) return;
    const auto result = vx({"ping", "-I", "wan0", "192.0.2.1"}, {.user = 65534});
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.err, "vx: ping: raw socket: Operation not permitted; needs root or the capability CAP_NET_RAW\n");
}

// ---- route

TEST(VxPing, AGatewayIsAnAddress) {
    const auto result = vx({"ping", "-c", "1", "-I", "lo", "-g", "x", "127.0.0.1"});
    EXPECT_EQ(result.status, 2);
    EXPECT_EQ(result.out, "");
    EXPECT_THAT(result.err, testing::StartsWith("vx: ping: --gateway: 'x' is not an IPv4 address\n"));
}

TEST(VxRoute, NamesTheInterface) {
    theWan();
    EXPECT_EQ(vx({"route", "192.0.2.99"}).out, "wan0\n");
    EXPECT_EQ(vx({"route", "127.0.0.1"}).out, "lo\n");
    EXPECT_EQ(vxJson("route", {"route", "::1"}), R"({"target":"::1","interface":"lo","address":"::1"})"
                                                 "\n");
    EXPECT_EQ(vx({"route", target}).err, "vx: route: " + target + ": Network is unreachable\n");
    EXPECT_EQ(vx({"route", "no.such.host.invalid"}).status, 1);
    EXPECT_EQ(vx({"route"}).status, 2);
}

// ---- link

TEST(VxLink, ShowsInterfacesAsUsersSeeThem) {
    theWan();
    EXPECT_EQ(vx({"link", "wan0"}).out, "name=wan0\nshown=WAN1\nup=1\naddress=192.0.2.10\nprefix=24\nmembers=\n");
    EXPECT_THAT(vx({"link"}).out, HasSubstr("wan0 shown=WAN1 up=1 address=192.0.2.10 prefix=24\n"));
    EXPECT_EQ(vxJson("link", {"link", "wan0"}),
              R"({"name":"wan0","shown":"WAN1","up":true,"address":"192.0.2.10","prefix":24,"members":null})"
              "\n");
    vxJson("link", {"link"});
    EXPECT_EQ(vx({"link", "none0"}).err, "vx: link: none0: No such device\n");
    EXPECT_EQ(vx({"link", std::string(300, 'x')}).status, 1);
    EXPECT_EQ(vx({"link", "wan0", "--wan"}).status, 2);
}

TEST(VxLink, ShowsTheMembersOfABridge) {
    if (!vxtest::exists("/usr/sbin/brctl")) GTEST_SKIP() << "no brctl on this machine";
    theWan();
    vxtest::ip("link add br0 type bridge");
    for (const char *member : {"va", "vb"}) {
        vxtest::ip(std::string("link add ") + member + " type veth peer name " + member + "x");
        vxtest::ip(std::string("link set ") + member + " master br0");
    }
    EXPECT_THAT(vx({"link", "br0"}).out, MatchesRegex("name=br0\n(.*\n)*members=v[ab] v[ab]\n"));
    vxJson("link", {"link", "br0"});
    vxtest::ip("link del br0");
    vxtest::ip("link del va");
    vxtest::ip("link del vb");
}

TEST(VxLink, CountsWanLinks) {
    std::filesystem::remove_all("/tmp/status");
    EXPECT_EQ(vx({"link", "--wan"}).out, "up=0\nlinks=0\n");
    vxtest::writeFile("/tmp/status/link-manager/hotlink", "1");
    vxtest::writeFile("/tmp/status/link-manager/wanlink1/state", "online");
    vxtest::writeFile("/tmp/status/link-manager/wanlink2/state", "disabled");
    EXPECT_EQ(vxJson("link", {"link", "--wan"}), "{\"up\":true,\"links\":1}\n");
}

// ---- addr

TEST(VxAddr, TellsWhatAnAddressMeans) {
    EXPECT_EQ(vx({"addr", "192.168.1.77/24"}).out,
              "address=192.168.1.77\nfamily=4\nprefix=24\nnetwork=192.168.1.0/24\nnetmask=255.255.255.0\n"
              "broadcast=192.168.1.255\nkind=interface\nloopback=0\nlink_local=0\n");
    EXPECT_EQ(vx({"addr", "192.168.1.77/255.255.255.0"}).out, vx({"addr", "192.168.1.77/24"}).out);
    EXPECT_EQ(vxJson("addr", {"addr", "fe80::1/64"}),
              R"({"address":"fe80::1","family":6,"prefix":64,"network":"fe80::/64","netmask":"ffff:ffff:ffff:ffff::",)"
              R"("broadcast":null,"kind":null,"loopback":false,"link_local":true})"
              "\n");
    const auto kind = [](const std::string &text) {
        const std::string out = vxJson("addr", {"addr", text});
        const size_t begin = out.find("\"kind\":\"") + 8;
        return out.substr(begin, out.find('"', begin) - begin);
    };
    EXPECT_EQ(kind("10.1.2.3"), "host");
    EXPECT_EQ(kind("10.0.0.0/8"), "network");
    EXPECT_EQ(kind("10.255.255.255/8"), "broadcast");
    EXPECT_EQ(kind("255.255.255.255"), "broadcast");
    EXPECT_EQ(kind("0.0.0.0/0"), "default");
    EXPECT_EQ(kind("224.0.0.1"), "multicast");
    EXPECT_THAT(vx({"addr", "127.0.0.1"}).out, HasSubstr("loopback=1\n"));
    EXPECT_THAT(vx({"addr", "169.254.9.9"}).out, HasSubstr("link_local=1\n"));
    EXPECT_THAT(vx({"addr", "::1"}).out, HasSubstr("loopback=1\n"));
}

TEST(VxAddr, ContainsIsTheExitStatus) {
    EXPECT_EQ(vx({"addr", "192.168.1.77/24", "--contains", "192.168.1.1"}).status, 0);
    vxJson("addr", {"addr", "2001:db8::/32", "--contains", "2001:db8:1::"});
    EXPECT_EQ(vx({"addr", "192.168.1.77/24", "--contains", "192.168.2.1"}).err,
              "vx: addr: 192.168.2.1: not in 192.168.1.0/24\n");
    EXPECT_EQ(vx({"addr", "192.168.1.77/24", "--contains", "::1"}).status, 1);
}

TEST(VxAddr, AZeroBeforeThePrefixLengthIsRefused) {
    EXPECT_EQ(vx({"addr", "10.0.0.1/0"}).status, 0);
    for (const char *text : {"10.0.0.1/08", "10.0.0.1/00", "10.0.0.1/0x8", "10.0.0.1/-0"}) {
        EXPECT_EQ(vx({"addr", text}).status, 1) << text;
    }
}

TEST(VxAddr, WhatIsNoAddressIsRefused) {
    for (const char *text :
         {"", "x", "1.2.3", "1.2.3.4.5", "1.2.3.256", "01.2.3.4", "1.2.3.4/33", "1.2.3.4/", "1.2.3.4/-1", "1.2.3.4/0x8",
          "1.2.3.4/255.0.255.0", "::1/129", "::g", "1.2.3.4/::1", "fe80::1%lo"}) {
        const auto result = vx({"addr", text});
        EXPECT_EQ(result.status, 1) << text;
        EXPECT_EQ(result.out, "");
    }
}

}  // namespace
