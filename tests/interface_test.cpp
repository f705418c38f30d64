// SPDX-License-Identifier: MIT
// Display names, WAN links in the status tree, and bridge members. The limits are in interface_limits_test.cpp.
#include <unistd.h>
#include <vxutils/file.h>
#include <vxutils/interface.h>

#include <filesystem>
#include <string>
#include <utility>

#include "support/files.h"
#include "support/interface.h"
#include "support/netns.h"
#include "support/process.h"
#include "support/resources.h"

namespace {

using namespace vxtest::interfaces;
using vxtest::writeFile;

// The box keeps /proc read-only for names the kernel does not know: a tmpfs over it, the real tree linked into it.
void makeProcSysinfo() {
    const auto done =
        vxtest::run({"sh", "-c",
                     "mkdir -p /.proc && mount --move /proc /.proc 2>/dev/null || mount --rbind /proc /.proc;"
                     "mount -t tmpfs tmpfs /proc && for entry in $(ls /.proc); do ln -s /.proc/$entry "
                     "/proc/$entry; done && mkdir -p /proc/sysinfo"});
    ASSERT_EQ(done.status, 0) << done.text;
}

// ---- display names ----

TEST(Interfaceize, KnowsTheseNames) {
    const std::pair<const char *, const char *> names[] = {
        {"eth0", "ETH1"},
        {"eth1", "ETH2"},
        {"eth08", "ETH9"},
        {"eth99", "ETH100"},
        {"lo", "LO"},
        {"wwan0", "WWAN1"},
        {"gretun0", "GRE1"},
        {"gretun9", "GRE10"},
        {"gretunx0", "GRETUNX1"},
        {"gretu0", "GRETU1"},
        {"gretun0-1", "GRE1"},
        {"gretun", "GRETUN"},
        {"br0-1", "BR1-2"},
        {"br0-08", "BR1-9"},
        {"br0-1-2", "BR1-13"},
        {"ppp0", "PPP1"},
        {"ppp9", "PPP10"},
        {"ppp10", "SERIAL1"},
        {"ppp19", "SERIAL10"},
        {"ppp20", "PPP21"},
        {"ppp25", "PPP26"},
        {"ppp010", "SERIAL1"},
        {"ppp10-3", "SERIAL1"},
        {"ppp5-3", "PPP6"},
        {"ppp", "PPP"},
        {"pppoe0", "PPPOE1"},
        {"Ppp10", "PPP11"},
        {"PPP10", "PPP11"},
        {"xppp10", "XPPP11"},
        {"eth-1", "ETH"},
        {"eth-", "ETH"},
        {"-", ""},
        {"--", ""},
        {"-1", ""},
        {"7", "8"},
        {"7-1", "8-2"},
        {"0", "1"},
        {"a-b", "AB"},
        {"a-1b", "AB"},
        {"a1b2", "A13"},
        {"a1b", "A2"},
        {"a1-b2", "A2-3"},
        {"1a", "2"},
        {"tun0.100", "TUN101"},
        {"eth0.7-2", "ETH8-3"},
        {"eth0:1", "ETH2"},
        {"wlan0", "WLAN1"},
        {"wlan", "WLAN"},
        {"eth999999", "ETH1000000"},
        {"eth1234567", "ETH123457"},
        {"br1-1234567", "BR2-123457"},
    };
    for (const auto &[name, shown] : names) EXPECT_STREQ(interfaceize(name), shown) << name;
}

TEST(Interfaceize, NothingIsShownAsNothing) {
    EXPECT_STREQ(interfaceize(nullptr), "");
    EXPECT_STREQ(interfaceize(""), "");
    EXPECT_EQ(interfaceize(nullptr), interfaceize("")) << "a constant";
    const char *buffer = interfaceize("eth0");
    interfaceize("");
    EXPECT_STREQ(buffer, "ETH1") << "which leaves the buffer alone";
}

TEST(Interfaceize, OneBufferHoldsTheLastName) {
    const char *first = interfaceize("a-long-name-of-many");
    EXPECT_EQ(first, interfaceize("lo"));
    EXPECT_STREQ(first, "LO");
}

TEST(Interfaceize, WlanNamesDependOnModeAndModules) {
    makeProcSysinfo();
    const std::string mode = "/tmp/status/wlan/status-wlan0";
    const std::string module = "/proc/sysinfo/wlan1/type";
    const auto shows = [](const char *name, const std::string &expected) {
        EXPECT_STREQ(interfaceize(name), expected.c_str()) << name;
    };
    shows("wlan0-0", "WLAN1");  // neither file
    writeFile(mode, "ap\n");
    shows("wlan0-0", "WLAN1");
    shows("wlan0-2", "WLAN3");
    writeFile(module, " \n");
    shows("wlan0-2", "WLAN3");  // white space only is empty
    for (const char *doubled : {"mesh-ap", "mesh-ap\n", "dualmode", "dualmode-x", "  dualmode"}) {
        writeFile(mode, doubled);
        shows("wlan0-0", "WLAN2");
        shows("wlan0-2", "WLAN4");
        shows("wlan1-0", "WLAN1");  // another module's mode counts for that module
    }
    for (const char *single : {"mesh", "client", "DUALMODE", "x dualmode", ""}) {
        writeFile(mode, single);
        shows("wlan0-2", "WLAN3");
    }
    writeFile(module, "some type");
    shows("wlan0-0", "WLAN1-0");
    shows("wlan0-2", "WLAN1-2");
    writeFile(mode, "mesh-ap");
    shows("wlan0-0", "WLAN1-1");
    shows("wlan0-2", "WLAN1-3");
    shows("wlan1-2", "WLAN2-2");
    writeFile("/tmp/status/wlan/status-wlan999999", "dualmode");
    shows("wlan999999-1", "WLAN1000000-2");
    shows("wlanx0-0", "WLANX1-1");
    shows("xwlan0-0", "XWLAN1-1");
    shows("wlan0", "WLAN1");
}

TEST(Interfaceize, LeavesOtherStaticResultsAlone) {
    writeFile("/tmp/some-text", "kept");
    writeFile("/tmp/status/wlan/status-wlan0", "ap");
    const char *text = readfile("/tmp/some-text");
    interfaceize("wlan0-0");
    EXPECT_STREQ(text, "kept");
}

// ---- WAN links ----

TEST_F(WanLink, IsUpWhenTheHotLinkIsReadable) {
    EXPECT_EQ(wanlink_is_up(), 0);
    vxtest::makeDirs("/tmp/status/link-manager");
    EXPECT_EQ(wanlink_is_up(), 0);
    vxtest::makeDirs("/tmp/status/link-manager/wanlink1");
    ASSERT_EQ(::symlink("wanlink1", "/tmp/status/link-manager/hotlink"), 0);
    EXPECT_EQ(wanlink_is_up(), 1);
    std::filesystem::remove("/tmp/status/link-manager/wanlink1");
    EXPECT_EQ(wanlink_is_up(), 0) << "a link into nothing";
}

TEST_F(WanLink, EnabledLinksAreCounted) {
    const std::string base = "/tmp/status/link-manager/";
    EXPECT_EQ(wanlink_count(), 0) << "no directory";
    vxtest::makeDirs(base);
    EXPECT_EQ(wanlink_count(), 0);
    writeFile(base + "wanlink1/state", "online\n");
    EXPECT_EQ(wanlink_count(), 1);
    writeFile(base + "wanlink2/state", "offline");
    writeFile(base + "wanlink/state", "x");
    writeFile(base + "wanlinkage/state", "not disabled");
    EXPECT_EQ(wanlink_count(), 4);
    writeFile(base + "wanlink3/state", "disabled");
    writeFile(base + "wanlink4/state", "  disabled for now");
    writeFile(base + "wanlink5/state", "");
    writeFile(base + "wanlink6/state", " \n");
    vxtest::makeDirs(base + "wanlink7");
    writeFile(base + "wanlink8", "a file");
    writeFile(base + "link9/state", "online");
    writeFile(base + "Wanlink9/state", "online");
    writeFile(base + "hotlink/state", "online");
    EXPECT_EQ(wanlink_count(), 4);
    writeFile(base + "wanlink" + std::string(248, 'x') + "/state", "online");
    EXPECT_EQ(wanlink_count(), 5) << "the longest name there can be";
}

// ---- bridges ----

TEST(BridgeMembers, AreListedEachFollowedByABlank) {
    const vxtest::NoLeaks noLeaks;
    toolPrints(table);
    EXPECT_EQ(membersOf("br3"), (Members{10, "eth3 eth4 "}));
    EXPECT_EQ(membersOf("br2"), (Members{5, "eth4 "})) << "none of its own, and a later bridge's continuation";
    toolPrints(heading + "br2\t\t8000.000000000000\tno\t\t\n");
    EXPECT_EQ(membersOf("br2"), (Members{0, ""}));
    EXPECT_EQ(membersOf("br"), (Members{0, ""}));
    EXPECT_EQ(membersOf("br22"), (Members{0, ""}));
    EXPECT_EQ(membersOf("bridge name"), (Members{0, ""})) << "the heading is not a bridge";
}

TEST(BridgeMembers, ContinuationLinesOfLaterBridgesAreListedToo) {
    toolPrints(table);
    EXPECT_EQ(membersOf("br0"), (Members{23, "eth0 eth1 wlan0-0 eth4 "}));
    EXPECT_EQ(membersOf("br1"), (Members{10, "eth2 eth4 "}));
}

TEST(BridgeMembers, OfRealBridgesAsTheRealToolListsThem) {
    if (!haveRealTool()) GTEST_SKIP() << "this machine has no /usr/sbin/brctl";
    std::filesystem::copy_file(realTool, tool, std::filesystem::copy_options::overwrite_existing);
    for (const char *name : {"br0", "br1"}) vxtest::ip(std::string("link add ") + name + " type bridge");
    EXPECT_EQ(membersOf("br0"), (Members{0, ""}));
    for (const char *name : {"eth0", "eth1", "wlan0-0"}) {
        vxtest::ip(std::string("link add ") + name + " type veth peer name " + name + "p");
        vxtest::ip(std::string("link set ") + name + " master br1");
    }
    Members members = membersOf("br1");
    EXPECT_EQ(members.result, 18);
    for (const char *name : {"eth0 ", "eth1 ", "wlan0-0 "}) EXPECT_NE(members.text.find(name), std::string::npos);
    EXPECT_EQ(membersOf("br0").result, 18 - static_cast<int>(members.text.find(' ') + 1))
        << "listed in front of br1: the continuation lines, and not br1's first member";
}

}  // namespace
