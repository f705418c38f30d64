// SPDX-License-Identifier: MIT
// Display names, WAN links in the status tree, and bridge members as the bridge tool lists them.
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vxutils/file.h>
#include <vxutils/interface.h>

#include <cctype>
#include <cstring>
#include <filesystem>

#include "support/files.h"
#include "support/interruptions.h"
#include "support/netns.h"
#include "support/process.h"
#include "support/resources.h"
#include "support/syslog_capture.h"
#include "vxutils/interface_bridge.h"

namespace {

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

TEST(Interfaceize, NamesOf20To29CharactersAfterPppAreShownAsPppoe) {
    for (size_t length = 4; length < 40; ++length) {
        const std::string name = "ppp5" + std::string(length - 4, '-');
        EXPECT_STREQ(interfaceize(name.c_str()), length >= 20 && length <= 29 ? "PPPOE-14" : "PPP6") << length;
        const std::string serial = length < 5 ? "ppp" : "ppp12" + std::string(length - 5, 'x');
        EXPECT_STREQ(interfaceize(serial.c_str()), length < 5 ? "PPP" : "SERIAL3") << length;
    }
    EXPECT_STREQ(interfaceize("ppp00000000000000025"), "PPPOE-19") << "six digits are read";
    EXPECT_STREQ(interfaceize("ppp25----------------"), "PPPOE6");
}

TEST(Interfaceize, NothingOverrunsHoweverLong) {
    EXPECT_STREQ(interfaceize("abcdefghijklmnopqrstuvwxyz"), "ABCDEFGHIJKLMN") << "14 characters of prefix";
    EXPECT_STREQ(interfaceize("abcdefghijklmnopq0"), "ABCDEFGHIJKLMN1");
    EXPECT_STREQ(interfaceize("abcdefghijklmn99"), "ABCDEFGHIJKLMN1") << "cut to 15 characters";
    EXPECT_STREQ(interfaceize("abcdefgh999998-999998"), "ABCDEFGH999999-");
    EXPECT_STREQ(interfaceize("abcdef999999-999999"), "ABCDEF1000000-1");
    for (const char filling : {'a', '9', '-', '\xff', '.'}) {
        const std::string name(1000000, filling);
        EXPECT_LE(std::string(interfaceize(name.c_str())).size(), 15U);
        EXPECT_LE(std::string(interfaceize(("ppp1-" + name).c_str())).size(), 15U);
    }
}

// The rules once more, as plainly as they can be written.
std::string model(const std::string &name) {
    std::string prefix;
    std::string main;
    std::string sub;
    bool dash = false;
    for (const char c : name) {
        if (c == '-') {
            dash = true;
        } else if (c >= '0' && c <= '9') {
            std::string &digits = dash ? sub : main;
            if (digits.size() < 6) digits += c;
        } else if (main.empty() && prefix.size() < 14) {
            prefix += c;
        }
    }
    std::string upper = prefix;
    for (char &c : upper) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    const auto text = [](int number) { return std::to_string(number); };
    std::string shown;
    const int n = main.empty() ? 0 : std::stoi(main);
    const int s = sub.empty() ? 0 : std::stoi(sub);
    if (main.empty()) {
        shown = upper;
    } else if (prefix == "ppp") {
        shown = n >= 10 && n <= 19                       ? "SERIAL" + text(n - 9)
                : name.size() >= 20 && name.size() <= 29 ? "PPPOE" + text(n - 19)
                                                         : "PPP" + text(n + 1);
    } else if (prefix == "gretun") {
        shown = "GRE" + text(n + 1);
    } else if (sub.empty()) {
        shown = upper + text(n + 1);
    } else {
        shown = upper + text(n + 1) + "-" + text(s + 1);
    }
    return shown.substr(0, 15);
}

TEST(Interfaceize, AgreesWithTheModelOnAllShortNames) {
    const std::string alphabet = "p-019xE.";
    std::string name;
    size_t count = 0;
    const std::function<void()> all = [&] {
        if (!name.empty()) {
            ++count;
            const char *shown = interfaceize(name.c_str());
            if (shown != model(name)) ADD_FAILURE() << name << ": " << shown << ", expected " << model(name);
        }
        if (name.size() == 6) return;
        for (const char c : alphabet) {
            name.push_back(c);
            all();
            name.pop_back();
        }
    };
    all();
    EXPECT_EQ(count, 299592U);
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

class WanLink : public testing::Test {
protected:
    void SetUp() override { std::filesystem::remove_all("/tmp/status/link-manager"); }
    const vxtest::NoLeaks noLeaks;
};

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

TEST_F(WanLink, AnUnreadableHotLinkIsNone) {
    writeFile("/tmp/status/link-manager/hotlink", "x");
    ::chmod("/tmp/status/link-manager/hotlink", 0);
    EXPECT_EQ(vxtest::inChild([] { return ::setuid(65534) == 0 ? wanlink_is_up() : 2; }), 0);
    ::chmod("/tmp/status/link-manager/hotlink", 0444);
    EXPECT_EQ(vxtest::inChild([] { return ::setuid(65534) == 0 ? wanlink_is_up() : 2; }), 1);
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

TEST_F(WanLink, WithoutDescriptorsThereIsNone) {
    writeFile("/tmp/status/link-manager/wanlink1/state", "online");
    rlimit before{};
    ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &before), 0);
    const rlimit none{0, before.rlim_max};
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &none), 0);
    const int count = wanlink_count();
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &before), 0);
    EXPECT_EQ(count, 0);
}

// ---- bridges ----

const char *const tool = "/usr/sbin/brctl";

// The machine's own bridge tool, put aside before a test puts its own in its place.
const char *const realTool = "/tmp/real-brctl";
bool haveRealTool() {
    static const bool have = [] {
        std::error_code error;
        return std::filesystem::copy_file(tool, realTool, error);
    }();
    return have;
}

// A bridge tool that prints this.
void toolPrints(const std::string &text, int status = 0) {
    haveRealTool();
    writeFile("/tmp/brctl-output", text);
    std::filesystem::remove(tool);
    writeFile(tool, "#!/bin/sh\n[ \"$*\" = show ] || exit 9\ncat /tmp/brctl-output\necho noise >&2\nexit " +
                        std::to_string(status) + "\n");
    ::chmod(tool, 0755);
}

struct Members {
    int result;
    std::string text;
    bool operator==(const Members &) const = default;
};

std::ostream &operator<<(std::ostream &out, const Members &members) {
    return out << members.result << " \"" << members.text << '"';
}

Members membersOf(const char *bridge, size_t size = 256) {
    vxtest::GuardedBuffer buffer(size);
    std::memset(buffer.data(), 'u', size);
    const int result = bridge_members(bridge, buffer.data(), size);
    return {result, buffer.data()};
}

const std::string heading = "bridge name\tbridge id\t\tSTP enabled\tinterfaces\n";
const std::string table = heading +
                          "br0\t\t8000.02005e100001\tno\t\teth0\n"
                          "\t\t\t\t\t\t\teth1\n"
                          "\t\t\t\t\t\t\twlan0-0\n"
                          "br1\t\t8000.02005e100002\tyes\t\teth2\n"
                          "br2\t\t8000.000000000000\tno\t\t\n"
                          "br3\t\t8000.02005e100003\tno\t\teth3\n"
                          "\t\t\t\t\t\t\teth4\n";

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

TEST(BridgeMembers, ArgumentsThatAreNone) {
    char buffer[8] = "kept";
    EXPECT_EQ(bridge_members(nullptr, buffer, sizeof buffer), -1);
    EXPECT_EQ(bridge_members("", buffer, sizeof buffer), -1);
    EXPECT_EQ(bridge_members("br0", buffer, 0), -1);
    EXPECT_EQ(bridge_members("br0", nullptr, sizeof buffer), -1);
    EXPECT_STREQ(buffer, "kept");
}

TEST(BridgeMembers, WhatDoesNotFitIsCutButCounted) {
    toolPrints(heading + "br0\t\t8000.02005e100001\tno\t\teth0\n\t\t\t\t\t\t\teth1\n\t\t\t\t\t\t\teth2\n");
    const std::string whole = "eth0 eth1 eth2 ";
    for (size_t size = 1; size <= 20; ++size) {
        // one byte for the terminator and one that is never used
        const std::string fits = whole.substr(0, size > 2 ? size - 2 : 0);
        EXPECT_EQ(membersOf("br0", size), (Members{15, fits})) << size;
    }
}

TEST(BridgeMembers, AToolThatFailsOrIsMissingGivesNothing) {
    const vxtest::NoLeaks noLeaks;
    std::filesystem::remove(tool);
    EXPECT_EQ(membersOf("br0"), (Members{0, ""}));
    writeFile(tool, "#!/bin/sh\nexit 1\n");
    ::chmod(tool, 0755);
    EXPECT_EQ(membersOf("br0"), (Members{0, ""}));
    toolPrints(table, 1);
    EXPECT_EQ(membersOf("br3"), (Members{10, "eth3 eth4 "})) << "what it printed counts";
    toolPrints("");
    EXPECT_EQ(membersOf("br0"), (Members{0, ""}));
}

TEST(BridgeMembers, WithoutAProcessThereIsAFailure) {
    toolPrints(table);
    rlimit before{};
    ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &before), 0);
    const rlimit none{0, before.rlim_max};
    char buffer[64] = "emptied";
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &none), 0);
    const int result = bridge_members("br0", buffer, sizeof buffer);
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &before), 0);
    EXPECT_EQ(result, -1);
    EXPECT_STREQ(buffer, "");
}

TEST(BridgeMembers, SignalsDoNotCutTheList) {
    toolPrints(table);
    writeFile(tool, "#!/bin/sh\ncat /tmp/brctl-output\nsleep 0.1\nprintf '\\t\\t\\t\\t\\t\\t\\teth5\\n'\n");
    const vxtest::Interruptions interruptions(5000);
    EXPECT_EQ(membersOf("br3"), (Members{15, "eth3 eth4 eth5 "}));
    EXPECT_GT(vxtest::Interruptions::count, 2);
}

TEST(BridgeMembers, OddTables) {
    const std::pair<std::string, Members> cases[] = {
        {"br0\t8000\tno\teth0", {5, "eth0 "}},               // no newline at the end
        {"br0\t8000\tno\t\t\t\t  eth0 \r\n", {5, "eth0 "}},  // stripped
        {" br0\t8000\tno\teth0\n", {0, ""}},                 // a continuation, not a bridge
        {"br0 \t8000\tno\teth0\n", {0, ""}},                 // another name
        {"br0\n", {0, ""}},
        {"br0", {0, ""}},
        {"br0\n  eth9\n", {5, "eth9 "}},          // begins with a blank
        {"br0\n\t \t eth9 \tx\n", {5, "eth9 "}},  // first field that is not empty
        {"br0\n\t\t\n \n", {0, ""}},
        {"\teth8\nbr0\n", {0, ""}},  // before the bridge was seen
        {"br0\tid\tno\teth0\nbr0\tid\tno\teth1\n", {10, "eth0 eth1 "}},
        {"bridge br0\tid\tno\teth0\n", {0, ""}},  // taken for the heading
        {"bridge\tid\tno\teth0\n", {0, ""}},
        {"br0\tid\tno\ttwo words\n", {10, "two words "}},
        {"\n\n\nbr0\tid\tno\teth0\n\n", {5, "eth0 "}},
    };
    for (const auto &[text, members] : cases) {
        toolPrints(text);
        EXPECT_EQ(membersOf("br0"), members) << text;
    }
    toolPrints("bridge\tid\tno\teth0\n");
    EXPECT_EQ(membersOf("bridge"), (Members{5, "eth0 "})) << "the heading has a blank after the word";
}

TEST(BridgeMembers, LinesAreReadInPiecesOf1023Characters) {
    const std::string filler(1023 - 11, 'x');
    toolPrints("br0\tid\tno\t\t" + filler + "\tbehind\n");
    EXPECT_EQ(membersOf("br0", 4096), (Members{1012 + 1 + 7, filler + " behind "}))
        << "the next piece begins with a tab and so continues";
    toolPrints("br0\tid\tno\t" + std::string(100000, 'y') + "\n");
    EXPECT_EQ(membersOf("br0", 4096), (Members{1013 + 1, std::string(1013, 'y') + " "}));
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

TEST(BridgeTable, TakesWhatItNeedsFromALine) {
    vx::BridgeTable other("br0");
    EXPECT_EQ(other.member(std::string_view("br0\0\tid\tno\teth0", 15)), "");
    EXPECT_EQ(other.member("\teth1"), "");
    EXPECT_EQ(other.member("br0\tid\tno\teth0\n"), "eth0");
    EXPECT_EQ(other.member("\teth1"), "eth1");
}

}  // namespace
