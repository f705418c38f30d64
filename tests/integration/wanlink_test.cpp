// SPDX-License-Identifier: MIT
// The WAN link of the virtual gateway, and the network examples on it.
#include <gtest/gtest.h>

#include "support/files.h"
#include "support/netns.h"
#include "support/process.h"
#include "support/syslog_capture.h"

namespace {

using vxtest::built;
using vxtest::run;

class WanLink : public testing::Test {
protected:
    WanLink() : link({built("gateway/wanlink"), "--delay", "20"}) { EXPECT_EQ(link.readLine(), "ready"); }

    void order(const std::string &text) {
        link.send(text + "\n");
        EXPECT_EQ(link.readLine(), "ok " + text);
    }

    vxtest::SyslogCapture log;
    vxtest::Process link;
};

// "... in 40.123 ms" as milliseconds; -1 when there is no time in it.
double milliseconds(const std::string &text) {
    const size_t at = text.rfind(" in ");
    return at == std::string::npos ? -1 : std::stod(text.substr(at + 4));
}

const std::vector<std::string> throughGateway{built("examples/ping_wan"), "wan0", "198.51.100.9", "192.0.2.1"};

TEST_F(WanLink, HasAGatewayAndATargetBehindIt) {
    auto output = run({built("examples/ping_wan"), "wan0", "192.0.2.1"});
    EXPECT_EQ(output.status, 0) << output.text;
    EXPECT_EQ(output.text.rfind("WAN1: reply from 192.0.2.1 in ", 0), 0U) << output.text;

    output = run({built("examples/ping_wan"), "wan0", "198.51.100.9"});
    EXPECT_EQ(output.status, 1);
    EXPECT_EQ(output.text, "WAN1: no reply from 198.51.100.9\n") << "no route";

    output = run(throughGateway);
    EXPECT_EQ(output.status, 0) << output.text;
    EXPECT_EQ(output.text.rfind("WAN1: reply from 198.51.100.9 through 192.0.2.1 in ", 0), 0U) << output.text;
    EXPECT_GE(milliseconds(output.text), 40) << "20 ms each way";

    order("route");
    output = run({built("examples/ping_wan"), "wan0", "198.51.100.9"});
    EXPECT_EQ(output.status, 0) << output.text;
    EXPECT_GE(milliseconds(output.text), 40);
    order("noroute");
    EXPECT_EQ(run({built("examples/ping_wan")}).status, 2);
}

TEST_F(WanLink, ObeysWhileItRuns) {
    order("delay 35");
    auto output = run(throughGateway);
    EXPECT_GE(milliseconds(output.text), 70) << output.text;
    order("delay 0");
    order("lose");
    EXPECT_EQ(run({built("examples/ping_wan"), "wan0", "192.0.2.1"}).status, 0) << "the gateway is still there";
    EXPECT_EQ(run(throughGateway).text, "WAN1: no reply from 198.51.100.9\n");
    order("carry");
    EXPECT_EQ(run(throughGateway).status, 0);
    order("cut");
    EXPECT_EQ(run(throughGateway).status, 1);
    order("restore");
    EXPECT_TRUE(vxtest::eventually([] { return run(throughGateway).status == 0; }));
    for (const std::string nonsense : {"dance", "", "delay", "delay -1"}) {
        link.send(nonsense + "\n");
        EXPECT_EQ(link.readLine(), "cannot " + nonsense);
    }
}

TEST_F(WanLink, LeavesNothingBehind) {
    link.closeInput();
    EXPECT_EQ(link.wait(), 0);
    EXPECT_NE(run({"ip", "link", "show", "wan0"}).status, 0);
    EXPECT_EQ(run({"ip", "netns", "list"}).text, "");
}

TEST_F(WanLink, TheRouteExampleShowsTheWay) {
    auto output = run({built("examples/route_path"), "192.0.2.1", "127.0.0.1", "198.51.100.9"});
    EXPECT_EQ(output.status, 1);
    EXPECT_EQ(output.text,
              "192.0.2.1: by WAN1 (wan0)\n"
              "127.0.0.1: by LO (lo)\n"
              "198.51.100.9: no route\n");
    order("route");
    output = run({built("examples/route_path"), "198.51.100.9"});
    EXPECT_EQ(output.status, 0);
    EXPECT_EQ(output.text, "198.51.100.9: by WAN1 (wan0)\n");
}

TEST_F(WanLink, ThePollingExampleGetsItsReplies) {
    order("route");
    auto output = run({built("examples/pingclient_poll"), "192.0.2.10", "198.51.100.9", "2"});
    EXPECT_EQ(output.status, 0);
    EXPECT_EQ(output.text, "echo 1: reply\necho 2: reply\n2 of 2 echoes to 198.51.100.9 were answered\n");
    order("lose");
    output = run({built("examples/pingclient_poll"), "192.0.2.10", "198.51.100.9", "1"});
    EXPECT_EQ(output.status, 1);
    EXPECT_EQ(output.text, "echo 1: no reply\n0 of 1 echoes to 198.51.100.9 were answered\n");
    order("noroute");
    output = run({built("examples/pingclient_poll"), "192.0.2.10", "198.51.100.9", "1"});
    EXPECT_EQ(output.text, "echo 1: not sent\n0 of 1 echoes to 198.51.100.9 were answered\n");
}

TEST(InterfaceNames, TheExampleShowsNamesBridgesAndLinks) {
    vxtest::writeFile("/usr/sbin/brctl",
                      "#!/bin/sh\nprintf 'bridge name\\tbridge id\\n"
                      "br0\\t\\t8000.02005e100001\\tno\\t\\teth0\\n\\t\\t\\t\\t\\t\\t\\teth1\\n'\n");
    ASSERT_EQ(run({"chmod", "755", "/usr/sbin/brctl"}).status, 0);
    vxtest::writeFile("/tmp/status/link-manager/wanlink1/state", "online\n");
    vxtest::writeFile("/tmp/status/link-manager/hotlink/interface", "wan0\n");
    const auto output = run({built("examples/interface_names"), "eth0", "ppp10", "br0"});
    EXPECT_EQ(output.status, 0);
    EXPECT_EQ(output.text,
              "eth0         is shown as ETH1\n"
              "ppp10        is shown as SERIAL1\n"
              "br0          is shown as BR1, bridging eth0 eth1 \n"
              "WAN links: 1 enabled, one is up\n");
}

TEST(IpInterfaceStatusSet, TheExampleSetsAnInterface) {
    vxtest::ip("link add eth0 type veth peer name eth0peer");
    for (const char *end : {"eth0", "eth0peer"}) vxtest::ip(std::string("link set ") + end + " up");
    ASSERT_TRUE(
        vxtest::eventually([] { return vxtest::ip("link show dev eth0").find("state UP") != std::string::npos; }));
    const auto output = run({built("examples/ipinterfacestatus_set"), "eth0", "10.1.2.3", "20"});
    EXPECT_EQ(output.status, 0);
    EXPECT_EQ(output.text, "eth0: 10.1.2.3, netmask 255.255.240.0, running\n");
    EXPECT_NE(vxtest::ip("addr show dev eth0").find("inet 10.1.2.3/20"), std::string::npos);
    EXPECT_EQ(run({built("examples/ipinterfacestatus_set"), "nosuch0", "10.1.2.3", "20"}).text,
              "nosuch0: cannot be set\n");
    EXPECT_EQ(run({built("examples/ipinterfacestatus_set"), "eth0", "10.1.2", "20"}).status, 2);
}

}  // namespace
