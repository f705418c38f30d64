// SPDX-License-Identifier: MIT
// IpAddress through its public interface. All texts, masks and pairs are compared with a slow model in
// ipaddress_limits_test.cpp.
#include <vxutils/ipaddress.h>

#include <array>
#include <climits>
#include <cstdint>
#include <cstring>
#include <random>
#include <string>

#include "support/configd.h"
#include "support/files.h"
#include "support/ipaddress.h"
#include "support/process.h"

namespace {

using namespace vxtest::addresses;

TEST(IpAddressExample, DescribesWhatItIsGiven) {
    const auto lan = vxtest::run({vxtest::built("examples/ipaddress_calc"), "192.168.1.5/24", "192.168.2.9"});
    EXPECT_EQ(lan.status, 0);
    EXPECT_EQ(lan.text,
              "address   192.168.1.5\n"
              "mask      255.255.255.0 (24 bits)\n"
              "network   192.168.1.0\n"
              "kind      interface\n"
              "192.168.2.9 is outside\n");
    EXPECT_EQ(vxtest::run({vxtest::built("examples/ipaddress_calc"), "192.168.1"}).status, 1);
    EXPECT_EQ(vxtest::run({vxtest::built("examples/ipaddress_calc")}).status, 2);
}

TEST(ClassDaemon, TakesGenuineOrdersOfItsNetworkOnly) {
    const std::string mac =
        vxtest::run({vxtest::built("examples/digest_check"), "secret", "reboot"}).text.substr(0, 24);
    vxtest::writeFile("/etc/vx/orders.conf", "orders.address = 192.168.1.1/24\norders.key = secret\n");
    vxtest::Process daemon({vxtest::built("examples/class_daemon"), "/etc/vx/orders.conf"});
    EXPECT_EQ(daemon.readLine(), "network 192.168.1.0/24");
    daemon.send("192.168.1.77 " + mac + " reboot\n");
    EXPECT_EQ(daemon.readLine(), "accepted from 192.168.1.77: reboot");
    daemon.send("192.168.1.77 " + mac + " reboot now\n");
    EXPECT_EQ(daemon.readLine(), "refused: forged order from 192.168.1.77");
    daemon.send("192.168.1.77 " + mac.substr(0, 22) + " reboot\n");
    EXPECT_EQ(daemon.readLine(), "refused: forged order from 192.168.1.77");
    daemon.send("192.168.2.77 " + mac + " reboot\n");
    EXPECT_EQ(daemon.readLine(), "refused: sender is not of this network");
    daemon.send("hello\n");
    EXPECT_EQ(daemon.readLine(), "refused: sender is not of this network");
    daemon.send("192.168.1.77\n");
    EXPECT_EQ(daemon.readLine(), "refused: forged order from 192.168.1.77");
    daemon.closeInput();
    EXPECT_EQ(daemon.wait(), 0);
}

TEST(ClassDaemon, TheConfigurationDaemonGoesBeforeTheFile) {
    vxtest::writeFile("/etc/vx/orders.conf", "orders.address = 192.168.1.1/24\norders.key = secret\n");
    const auto started = [] {
        return vxtest::run(
            {"/bin/sh", "-c", vxtest::shellCommand("examples/class_daemon") + " /etc/vx/orders.conf </dev/null"});
    };
    vxtest::Configd config;
    EXPECT_EQ(started().text, "network 192.168.1.0/24\n") << "it holds nothing yet";
    config.tell("set orders.address 10.1.2.3/8");
    EXPECT_EQ(started().text, "network 10.0.0.0/8\n");
    config.tell("set orders.address 10.0.0.0/8");
    EXPECT_EQ(started().status, 1) << "a network's own address";
    config.die();
    EXPECT_EQ(started().text, "network 192.168.1.0/24\n") << "no answer";
    EXPECT_EQ(vxtest::run({vxtest::built("examples/class_daemon"), "/no/such.conf"}).status, 2);
}

// --- construction and comparison

TEST(IpAddress, AFreshObjectIsEmpty) {
    IpAddress ip;
    std::array<uint32_t, 9> words{};
    std::memcpy(words.data(), static_cast<const void *>(&ip), sizeof ip);
    EXPECT_EQ(words, (std::array<uint32_t, 9>{0, 0, 0, 0, 0, 0xffffffff, 0xffffffff, 0xffffffff, 0xffffffff}));
    EXPECT_TRUE(ip.isEmpty());
    EXPECT_EQ(address(ip), "");
    EXPECT_EQ(network(ip), "");
    EXPECT_EQ(mask(ip), "");
    EXPECT_EQ(ip.getV4IpAddrAsBinaryUInt32(), 0U);
    EXPECT_EQ(ip.getV4NetAddrAsBinaryUInt32(), 0U);
    EXPECT_EQ(ip.getV4NetMaskAsBinaryUInt32(), 0xffffffffU);
    EXPECT_EQ(ip.getNetMaskSize(), 0U);
    EXPECT_EQ(ip.setNetMaskSize(8), -1);
    EXPECT_TRUE(ip.isEmpty());
    ip.setV4IpAddrAsBinaryUInt32(0);
    EXPECT_FALSE(ip.isEmpty());
    EXPECT_EQ(address(ip), "0.0.0.0");
    ip.init();
    EXPECT_TRUE(ip.isEmpty());
}

TEST(IpAddress, ConstantsAreHostOrderNumbers) {
    EXPECT_EQ(IpAddress::ipv4McGrpAllRouters, quad(224, 0, 0, 2));
    EXPECT_EQ(IpAddress::ipv4McGrpAllHosts, quad(224, 0, 0, 1));
    EXPECT_EQ(IpAddress::ipv4McGrpUnspecified, quad(224, 0, 0, 0));
    EXPECT_EQ(IpAddress::ipv4Loopback, quad(127, 0, 0, 1));
    const uint32_t &loopback = IpAddress::ipv4Loopback;  // has an address
    EXPECT_EQ(&loopback, &IpAddress::ipv4Loopback);
}

TEST(IpAddress, ComparesAllThreeFields) {
    const IpAddress ip("10.1.2.3/8");
    const IpAddress copy(ip);
    EXPECT_TRUE(ip == copy);
    EXPECT_FALSE(ip != copy);
    EXPECT_TRUE(ip != IpAddress("10.1.2.4/8"));
    EXPECT_TRUE(ip != IpAddress("10.1.2.3/9"));
    IpAddress zero;
    zero.setV4IpAddrAsBinaryUInt32(0);
    EXPECT_TRUE(zero != IpAddress()) << "only the type differs";
    // The words that IPv4 does not use count as well.
    for (size_t at = 4; at < sizeof(IpAddress); at += 4) {
        IpAddress other(ip);
        reinterpret_cast<unsigned char *>(&other)[at] ^= 1;
        EXPECT_TRUE(ip != other) << at;
    }
    IpAddress self(ip);
    const IpAddress &same = self;
    self = same;
    EXPECT_TRUE(self == ip);
}

TEST(IpAddress, ConstructorsTakeTextsOrNumbers) {
    EXPECT_EQ(address(IpAddress("192.168.1.1")), "192.168.1.1");
    EXPECT_TRUE(IpAddress("192.168.1").isEmpty());
    const IpAddress both("192.168.1.1", "255.255.0.0");
    EXPECT_EQ(address(both), "192.168.1.1");
    EXPECT_EQ(mask(both), "255.255.0.0");
    EXPECT_EQ(mask(IpAddress("192.168.1.1/30", "255.0.0.0")), "255.0.0.0");
    EXPECT_TRUE(IpAddress("192.168.1.1", "255.0.255.0").isEmpty()) << "the address is not kept";
    EXPECT_TRUE(IpAddress("192.168.1", "255.0.0.0").isEmpty());
    EXPECT_TRUE(IpAddress("", "").isEmpty());
    const IpAddress numbers(quad(10, 0, 0, 1), quad(255, 0, 0, 0));
    EXPECT_EQ(network(numbers), "10.0.0.0");
    EXPECT_TRUE(IpAddress(quad(10, 0, 0, 1), quad(255, 0, 255, 0)).isEmpty());
    EXPECT_EQ(mask(IpAddress(quad(10, 0, 0, 1), 0)), "0.0.0.0");
}

// --- numbers

TEST(IpAddressNumbers, GettersStoreAndReturnTheirArgument) {
    const IpAddress ip("10.1.2.3/8");
    unsigned long value = 1;
    EXPECT_EQ(&ip.getV4IpAddrAsBinaryUInt32(value), &value);
    EXPECT_EQ(value, quad(10, 1, 2, 3));
    EXPECT_EQ(&ip.getV4NetAddrAsBinaryUInt32(value), &value);
    EXPECT_EQ(value, quad(10, 0, 0, 0));
    EXPECT_EQ(&ip.getV4NetMaskAsBinaryUInt32(value), &value);
    EXPECT_EQ(value, quad(255, 0, 0, 0));
    EXPECT_EQ(&ip.getNetMaskSize(value), &value);
    EXPECT_EQ(value, 8U);
    String text;
    EXPECT_EQ(&ip.getIpAddrAsString(text), &text);
    EXPECT_EQ(&ip.getNetAddressAsString(text), &text);
    EXPECT_EQ(&ip.getNetMaskAsString(text), &text);
}

TEST(IpAddressNumbers, PrintsEveryOctet) {
    for (uint32_t octet = 0; octet < 256; ++octet) {
        const std::string text = std::to_string(octet);
        const IpAddress ip(quad(octet, 255 - octet, octet, octet), 0);
        EXPECT_EQ(address(ip), text + "." + std::to_string(255 - octet) + "." + text + "." + text);
    }
    String longText("a text that is longer than any address, and shared");
    const String keeper(longText);
    IpAddress("1.2.3.4").getIpAddrAsString(longText);
    EXPECT_STREQ(longText.c_str(), "1.2.3.4");
    EXPECT_EQ(keeper.length(), 50);
}

TEST(IpAddressNumbers, TheAddressSetterLeavesTheMask) {
    IpAddress ip("10.1.2.3/8");
    EXPECT_EQ(ip.setV4IpAddrAsBinaryUInt32(quad(11, 1, 1, 1)), 0);
    EXPECT_EQ(mask(ip), "255.0.0.0");
    EXPECT_EQ(address(ip), "11.1.1.1");
}

TEST(IpAddressNumbers, TheMaskSetterRefusesHoles) {
    IpAddress ip;
    EXPECT_EQ(ip.setV4NetMaskAsBinaryUInt32(quad(255, 0, 255, 0)), -1);
    EXPECT_TRUE(ip.isEmpty());
    EXPECT_EQ(ip.setV4NetMaskAsBinaryUInt32(quad(255, 255, 0, 0)), 0);
    EXPECT_EQ(address(ip), "0.0.0.0") << "the type is set";
    EXPECT_EQ(ip.setV4NetMaskAsBinaryUInt32(1), -1);
    EXPECT_EQ(mask(ip), "255.255.0.0");
}

// --- texts

TEST(IpAddressText, AnAddressLeavesTheMaskAndAPrefixSetsIt) {
    IpAddress ip;
    EXPECT_EQ(ip.setIpAddrAsString("192.168.1.1"), 0);
    EXPECT_EQ(mask(ip), "255.255.255.255");
    EXPECT_EQ(ip.setIpAddrAsString("10.1.2.3/8"), 0);
    EXPECT_EQ(address(ip), "10.1.2.3");
    EXPECT_EQ(mask(ip), "255.0.0.0");
    EXPECT_EQ(network(ip), "10.0.0.0");
    EXPECT_EQ(ip.setIpAddrAsString("1.2.3.4"), 0);
    EXPECT_EQ(mask(ip), "255.0.0.0");
    EXPECT_EQ(ip.setIpAddrAsString("1.2.3.4/0"), 0);
    EXPECT_EQ(mask(ip), "0.0.0.0");
}

TEST(IpAddressText, AMaskIsAQuadWithoutPrefixAndWithoutHoles) {
    IpAddress ip("10.1.2.3");
    EXPECT_EQ(ip.setNetMaskAsString("255.255.255.0"), 0);
    EXPECT_EQ(ip.getNetMaskSize(), 24U);
    EXPECT_EQ(address(ip), "10.1.2.3");
    for (const char *text : {"255.0.255.0", "255.255.255.0/24", "0.0.0.1", "255.255.255", "255.255.255.0 ", "",
                             "256.0.0.0", "255.255.255.00", "127.0.0.0"}) {
        EXPECT_EQ(ip.setNetMaskAsString(text), -1) << text;
        EXPECT_EQ(mask(ip), "255.255.255.0");
    }
    EXPECT_EQ(ip.setNetMaskAsString("0.0.0.0"), 0);
    unsigned long size = 99;
    EXPECT_TRUE(ip.isMaskValid(size));
    EXPECT_EQ(size, 0U);
    IpAddress fresh;
    EXPECT_EQ(fresh.setNetMaskAsString("255.0.0.0"), 0);
    EXPECT_EQ(address(fresh), "0.0.0.0");
}

TEST(IpAddressToken, AnOctetIsTakenAndThePositionMoves) {
    struct Row {
        const char *text;
        long pos;
        bool taken;
        long after;
        unsigned long value;
    };
    for (const Row &row :
         {Row{"12", 0, true, 2, 12}, Row{"a12b", 1, true, 3, 12}, Row{"255", 0, true, 3, 255},
          Row{"256", 0, false, 0, 7}, Row{"1234", 0, true, 3, 123}, Row{"0", 0, true, 1, 0}, Row{"01", 0, true, 1, 0},
          Row{"x", 0, false, 0, 7}, Row{"", 0, false, 0, 7}, Row{"12", 2, false, 2, 7}, Row{"12", 3, false, 3, 7},
          Row{"12", -1, false, -1, 7}, Row{"12", LONG_MAX, false, LONG_MAX, 7}, Row{"9.", 0, true, 1, 9}}) {
        long pos = row.pos;
        unsigned long value = 7;
        EXPECT_EQ(IpAddress::s_getV4IpAddrTokenOfString(row.text, pos, value), row.taken) << row.text;
        EXPECT_EQ(pos, row.after) << row.text;
        EXPECT_EQ(value, row.value) << row.text;
    }
}

TEST(IpAddressToken, APrefixLengthHasAtMostTwoDigits) {
    struct Row {
        const char *text;
        long pos;
        bool taken;
        long after;
        unsigned long value;
    };
    for (const Row &row :
         {Row{"32", 0, true, 2, 32}, Row{"33", 0, false, 0, 7}, Row{"321", 0, true, 2, 32}, Row{"/8", 1, true, 2, 8},
          Row{"08", 0, true, 1, 0}, Row{"", 0, false, 0, 7}, Row{"-1", 0, false, 0, 7}, Row{"5", -3, false, -3, 7}}) {
        long pos = row.pos;
        unsigned long value = 7;
        EXPECT_EQ(IpAddress::s_getV4NetMaskSizeOfString(row.text, pos, value), row.taken) << row.text;
        EXPECT_EQ(pos, row.after) << row.text;
        EXPECT_EQ(value, row.value) << row.text;
    }
}

TEST(IpAddressToken, ACharacterAndTheEnd) {
    String text("a/");
    text.concat("\0", 1);
    long pos = 1;
    EXPECT_FALSE(IpAddress::s_getCharOfString(text, pos, 'a'));
    EXPECT_EQ(pos, 1);
    EXPECT_TRUE(IpAddress::s_getCharOfString(text, pos, '/'));
    EXPECT_EQ(pos, 2);
    EXPECT_FALSE(IpAddress::s_getEndOfString(text, pos));
    EXPECT_TRUE(IpAddress::s_getCharOfString(text, pos, '\0')) << "a NUL inside is a character";
    EXPECT_TRUE(IpAddress::s_getEndOfString(text, pos));
    EXPECT_FALSE(IpAddress::s_getCharOfString(text, pos, '\0')) << "the terminator is none";
    EXPECT_EQ(pos, 3);
    pos = -1;
    EXPECT_FALSE(IpAddress::s_getCharOfString(text, pos, '\0'));
    EXPECT_FALSE(IpAddress::s_getEndOfString(text, pos));
    pos = 99;
    EXPECT_TRUE(IpAddress::s_getEndOfString(text, pos));
}

// --- classification

TEST(IpAddressKind, OfTheUsualAddresses) {
    EXPECT_TRUE(IpAddress("192.168.1.0/24").isNetType());
    EXPECT_TRUE(IpAddress("192.168.1.5/24").isIfaceType());
    EXPECT_TRUE(IpAddress("192.168.1.255/24").isDirBcType());
    EXPECT_TRUE(IpAddress("192.168.1.5").isHostType());
    EXPECT_TRUE(IpAddress("255.255.255.255").isLimBcType());
    const IpAddress tooLong("192.168.1.5/31");
    EXPECT_FALSE(tooLong.isNetType() || tooLong.isIfaceType() || tooLong.isDirBcType() || tooLong.isValidAddress());
    // Class D, class E, a first byte of 0, a network part of all ones.
    for (const char *no : {"224.0.1.0/24", "240.0.0.0/8", "0.1.2.0/24", "192.0.0.0/2"}) {
        EXPECT_FALSE(IpAddress(no).isNetType()) << no;
    }
    EXPECT_FALSE(IpAddress("224.0.1.5/24").isIfaceType());
    EXPECT_FALSE(IpAddress("224.0.1.255/24").isDirBcType());
    const IpAddress gateway("0.0.0.0/0");
    EXPECT_TRUE(gateway.isDefGwType());
    EXPECT_TRUE(gateway.isNetType());
    EXPECT_TRUE(gateway.isValidAddress());
    EXPECT_TRUE(IpAddress("127.3.2.1").isLoopback());
    EXPECT_TRUE(IpAddress("224.0.0.251").isLocalGroup());
    EXPECT_FALSE(IpAddress("224.0.1.0").isLocalGroup());
}

TEST(IpAddressKind, AnEmptyObjectIsNothingOfAll) {
    EXPECT_EQ(kindOf(IpAddress()), Kind{});
    EXPECT_FALSE(IpAddress().contains(IpAddress()));
}

TEST(IpAddressKind, ContainsComparesTheNetworkBits) {
    const IpAddress lan("192.168.1.1/24");
    EXPECT_TRUE(lan.contains(IpAddress("192.168.1.200")));
    EXPECT_FALSE(lan.contains(IpAddress("192.168.2.1/24")));
    EXPECT_TRUE(IpAddress("0.0.0.0/0").contains(IpAddress("1.2.3.4")));
    EXPECT_TRUE(IpAddress("0.0.0.1/24").contains(IpAddress())) << "the other's type is not looked at";
    EXPECT_FALSE(IpAddress("1.2.3.4").contains(IpAddress("1.2.3.5")));
    std::mt19937 random(99);
    for (int i = 0; i < 100000; ++i) {
        const auto one = static_cast<uint32_t>(random());
        const uint32_t two = one ^ (static_cast<uint32_t>(random()) >> random() % 32);
        const int prefix = static_cast<int>(random() % 33);
        bool same = true;
        for (int bit = 0; bit < prefix; ++bit) same = same && ((one ^ two) >> (31 - bit) & 1) == 0;
        IpAddress network(one, 0);
        network.setNetMaskSize(static_cast<unsigned long>(prefix));
        ASSERT_EQ(network.contains(IpAddress(two, 0xffffffff)), same);
    }
}

// --- IPv6

TEST(IpAddressV6, OperationsArePlaceholders) {
    IpAddress ip("1.2.3.4/8");
    const IpAddress before(ip);
    unsigned char bytes[16];
    std::memset(bytes, 0x5a, sizeof bytes);
    EXPECT_EQ(ip.getV6IpAddrAsBinaryString(bytes), bytes);
    EXPECT_EQ(ip.getV6NetAddrAsBinaryString(bytes), bytes);
    EXPECT_EQ(ip.getV6NetMaskAsBinaryString(bytes), bytes);
    EXPECT_EQ(ip.getV6IpAddrAsBinaryString(nullptr), nullptr);
    for (const unsigned char byte : bytes) EXPECT_EQ(byte, 0x5a);
    EXPECT_EQ(ip.setV6IpAddrAsBinaryString(bytes), -1);
    EXPECT_EQ(ip.setV6NetMaskAsBinaryString(bytes), -1);
    EXPECT_FALSE(IpAddress::s_isV6MaskValid("ffff", 16));
    EXPECT_TRUE(ip == before);
}

}  // namespace
