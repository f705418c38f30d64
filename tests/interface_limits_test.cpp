// SPDX-License-Identifier: MIT
// Display names of every length, WAN links that cannot be read, bridge tools that fail, and odd tables.
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vxutils/interface.h>

#include <cctype>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <string>
#include <string_view>
#include <utility>

#include "support/files.h"
#include "support/interface.h"
#include "support/interruptions.h"
#include "support/process.h"
#include "support/resources.h"
#include "vxutils/interface_bridge.h"

namespace {

using namespace vxtest::interfaces;
using vxtest::writeFile;

// ---- display names ----

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

// ---- WAN links ----

TEST_F(WanLink, AnUnreadableHotLinkIsNone) {
    writeFile("/tmp/status/link-manager/hotlink", "x");
    ::chmod("/tmp/status/link-manager/hotlink", 0);
    EXPECT_EQ(vxtest::inChild([] { return ::setuid(65534) == 0 ? wanlink_is_up() : 2; }), 0);
    ::chmod("/tmp/status/link-manager/hotlink", 0444);
    EXPECT_EQ(vxtest::inChild([] { return ::setuid(65534) == 0 ? wanlink_is_up() : 2; }), 1);
    ::chmod("/tmp/status/link-manager/hotlink", 0400);
    EXPECT_EQ(vxtest::inChild([] { return ::setresuid(65534, 0, 0) == 0 ? wanlink_is_up() : 2; }), 0)
        << "the real user may not read";
}

TEST_F(WanLink, StatesAreReadUpToCharacter1023) {
    const std::string state = "/tmp/status/link-manager/wanlink1/state";
    writeFile(state, std::string(1022, ' ') + "online");
    EXPECT_EQ(wanlink_count(), 1);
    writeFile(state, std::string(1023, ' ') + "online");
    EXPECT_EQ(wanlink_count(), 0);
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

TEST(BridgeMembers, WhatTheToolOrTheShellComplainsAboutIsNotShown) {
    const vxtest::NoLeaks noLeaks;
    const char *const complaints = "/tmp/complaints";
    const auto whileComplaining = [&](const auto &call) {
        const int before = ::dup(STDERR_FILENO);
        const int file = ::open(complaints, O_WRONLY | O_CREAT | O_TRUNC, 0600);
        ::dup2(file, STDERR_FILENO);
        ::close(file);
        call();
        ::dup2(before, STDERR_FILENO);
        ::close(before);
        return vxtest::readFile(complaints);
    };
    ASSERT_EQ(whileComplaining([] { EXPECT_EQ(std::system("echo noise >&2"), 0); }), "noise\n");
    toolPrints(table);
    EXPECT_EQ(whileComplaining([] { EXPECT_EQ(membersOf("br3").result, 10); }), "");
    std::filesystem::remove(tool);
    EXPECT_EQ(whileComplaining([] { EXPECT_EQ(membersOf("br3").result, 0); }), "");
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
        {"br0#\t8000\tno\teth0\n", {0, ""}},                 // another name
        {"br0\t8000\tno\t#eth0#\n", {7, "#eth0# "}},
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

TEST(BridgeTable, TakesWhatItNeedsFromALine) {
    vx::BridgeTable other("br0");
    EXPECT_EQ(other.member(std::string_view("br0\0\tid\tno\teth0", 15)), "");
    EXPECT_EQ(other.member("\teth1"), "");
    EXPECT_EQ(other.member("br0\tid\tno\teth0\n"), "eth0");
    EXPECT_EQ(other.member("\teth1"), "eth1");
}

}  // namespace
