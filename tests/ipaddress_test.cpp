// SPDX-License-Identifier: MIT
// IpAddress: which texts it takes, what it makes of address and mask, held against a slow model bit by bit.
#include <arpa/inet.h>
#include <vxutils/ipaddress.h>

#include <array>
#include <climits>
#include <cstdint>
#include <cstring>
#include <optional>
#include <random>
#include <string>
#include <thread>
#include <type_traits>
#include <vector>

#include "support/configd.h"
#include "support/files.h"
#include "support/process.h"

namespace {

constexpr uint32_t quad(uint32_t a, uint32_t b, uint32_t c, uint32_t d) { return a << 24 | b << 16 | c << 8 | d; }

std::string address(const IpAddress &ip) {
    String text("left over");
    return ip.getIpAddrAsString(text).c_str();
}
std::string network(const IpAddress &ip) {
    String text("left over");
    return ip.getNetAddressAsString(text).c_str();
}
std::string mask(const IpAddress &ip) {
    String text("left over");
    return ip.getNetMaskAsString(text).c_str();
}

IpAddress of(uint32_t address, uint32_t mask) {
    // Also for masks that no setter takes: a network's own mask word is the only way to meet them.
    IpAddress ip;
    ip.setV4IpAddrAsBinaryUInt32(address);
    std::memcpy(reinterpret_cast<char *>(&ip) + 20, &mask, sizeof mask);
    return ip;
}

TEST(IpAddress, IsAValueOfThirtySixBytes) {
    EXPECT_EQ(sizeof(IpAddress), 36U);
    EXPECT_FALSE(std::is_polymorphic_v<IpAddress>);
    EXPECT_TRUE(std::is_trivially_copyable_v<IpAddress>);
    const IpAddress ip("1.2.3.4/8");
    std::array<uint32_t, 9> words{};
    std::memcpy(words.data(), static_cast<const void *>(&ip), sizeof ip);
    EXPECT_EQ(words, (std::array<uint32_t, 9>{1, 0x01020304, 0, 0, 0, 0xff000000, 0xffffffff, 0xffffffff, 0xffffffff}));
}

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

TEST(IpAddress, EmptyIsOneObjectAlsoForThreadsThatAskAtOnce) {
    std::vector<const IpAddress *> seen(8);
    std::vector<std::thread> threads;
    for (const IpAddress *&place : seen) threads.emplace_back([&place] { place = &IpAddress::EMPTY(); });
    for (std::thread &thread : threads) thread.join();
    for (const IpAddress *place : seen) EXPECT_EQ(place, &IpAddress::EMPTY());
    EXPECT_TRUE(IpAddress::EMPTY().isEmpty());
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

TEST(IpAddress, UpperHalvesOfWideNumbersAreIgnored) {
    if constexpr (sizeof(unsigned long) > 4) {
        const unsigned long high = ULONG_MAX - 0xffffffffUL;
        const IpAddress ip(high | quad(10, 0, 0, 1), high | quad(255, 0, 0, 0));
        EXPECT_EQ(ip.getV4IpAddrAsBinaryUInt32(), quad(10, 0, 0, 1));
        EXPECT_EQ(ip.getV4NetMaskAsBinaryUInt32(), quad(255, 0, 0, 0));
        unsigned long size = 99;
        EXPECT_TRUE(IpAddress::s_isV4MaskValid(high, size));
        EXPECT_EQ(size, 0U);
        IpAddress other(ip);
        EXPECT_EQ(other.setNetMaskSize(high | 8), -1) << "a prefix length that does not fit is refused";
        EXPECT_TRUE(other == ip);
    }
}

// Getters and setters

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

TEST(IpAddressNumbers, EveryPrefixLength) {
    IpAddress ip("10.0.0.1");
    for (unsigned long n = 0; n <= 32; ++n) {
        EXPECT_EQ(ip.setNetMaskSize(n), 0);
        EXPECT_EQ(ip.getNetMaskSize(), n);
        uint64_t expected = 0;
        for (unsigned long bit = 0; bit < n; ++bit) expected |= uint64_t{1} << (31 - bit);
        EXPECT_EQ(ip.getV4NetMaskAsBinaryUInt32(), expected);
        unsigned long size = 99;
        EXPECT_TRUE(ip.isMaskValid(size));
        EXPECT_EQ(size, n);
    }
    EXPECT_EQ(ip.setNetMaskSize(33), -1);
    EXPECT_EQ(ip.setNetMaskSize(ULONG_MAX), -1);
    EXPECT_EQ(ip.getNetMaskSize(), 32U);
    EXPECT_EQ(of(quad(10, 0, 0, 1), quad(255, 0, 255, 0)).getNetMaskSize(), 8U) << "what follows is ignored";
}

TEST(IpAddressNumbers, MaskValidityCountsTheLeadingOnesOfAnyMask) {
    struct Row {
        uint32_t mask;
        bool valid;
        unsigned long size;
    };
    for (const Row &row : {Row{0, true, 0}, Row{0xffffffff, true, 32}, Row{0x80000000, true, 1}, Row{1, false, 0},
                           Row{0x7fffffff, false, 0}, Row{quad(255, 0, 255, 0), false, 8}, Row{0xfffffffe, true, 31},
                           Row{0xfffffffd, false, 30}, Row{0x80000001, false, 1}}) {
        unsigned long size = 99;
        EXPECT_EQ(IpAddress::s_isV4MaskValid(row.mask, size), row.valid) << row.mask;
        EXPECT_EQ(size, row.size) << row.mask;
    }
    unsigned long size = 99;
    EXPECT_FALSE(IpAddress().isMaskValid(size)) << "an empty object has no mask";
    EXPECT_EQ(size, 99U) << "nor is it looked at";
}

// Texts

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

const char *const kRefusedAddresses[] = {
    "",           " ",          "1",           "1.",         "1.2.3",      "1.2.3.",      "1.2.3.4 ",   " 1.2.3.4",
    "1.2.3.4.",   "1.2.3.4.5",  "1..3.4",      ".1.2.3",     "256.1.1.1",  "1.256.1.1",   "1.1.1.256",  "01.1.1.1",
    "1.1.1.01",   "00.1.1.1",   "1.1.1.00",    "1.1.1.1234", "999.1.1.1",  "1.2.3.-4",    "+1.2.3.4",   "1.2.3.a",
    "0x1.2.3.4",  "1,2,3,4",    "1.2.3.4/",    "1.2.3.4/33", "1.2.3.4/-1", "1.2.3.4/08",  "1.2.3.4/00", "1.2.3.4/8 ",
    "1.2.3.4 /8", "1.2.3.4/ 8", "1.2.3.4/320", "1.2.3.4/99", "1.2.3.4//8", "1.2.3.4/8/8", "1.2.3.4/x",  "1.2.3.4\n",
    "/8",         "1.2.3./8",   "1 .2.3.4",    "1.2.3.4/3a", "::1",        "1.2.3.4/1.2", "1.2.3.400",  "1.2.3.260/8",
};

TEST(IpAddressText, EverythingElseIsRefusedAndChangesNothing) {
    const IpAddress before("7.7.7.7/9");
    for (const char *text : kRefusedAddresses) {
        IpAddress ip(before);
        EXPECT_EQ(ip.setIpAddrAsString(text), -1) << text;
        EXPECT_TRUE(ip == before) << text;
    }
}

TEST(IpAddressText, ANulInsideIsACharacterLikeAnyOther) {
    String text("1.2.3.4");
    text.concat("\0", 1);
    IpAddress ip;
    EXPECT_EQ(ip.setIpAddrAsString(text), -1);
    text = "1.2.3.4/8";
    text.concat("\0", 1);
    EXPECT_EQ(ip.setIpAddrAsString(text), -1);
    text = "255.0.0.0";
    text.concat("\0", 1);
    EXPECT_EQ(ip.setNetMaskAsString(text), -1);
    EXPECT_TRUE(ip.isEmpty());
}

TEST(IpAddressText, EveryPrefixLengthIsTakenUpToThirtyTwo) {
    for (int n = 0; n < 110; ++n) {
        IpAddress ip;
        String text;
        text.format("10.20.30.40/%d", n);
        EXPECT_EQ(ip.setIpAddrAsString(text), n <= 32 ? 0 : -1) << n;
        EXPECT_EQ(ip.getNetMaskSize(), n <= 32 ? static_cast<unsigned long>(n) : 0U);
    }
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

// The rules for a text once more, written the slow way.
struct Parsed {
    uint32_t address;
    std::optional<uint32_t> prefix;
};

std::optional<uint32_t> decimal(const std::string &text, size_t mostDigits, uint32_t limit) {
    if (text.empty() || text.size() > mostDigits) return std::nullopt;
    if (text.find_first_not_of("0123456789") != std::string::npos) return std::nullopt;
    if (text[0] == '0' && text.size() > 1) return std::nullopt;
    const auto value = static_cast<uint32_t>(std::stoul(text));
    return value < limit ? std::optional(value) : std::nullopt;
}

std::optional<Parsed> parsed(std::string text) {
    Parsed result{};
    const size_t slash = text.find('/');
    if (slash != std::string::npos) {
        result.prefix = decimal(text.substr(slash + 1), 2, 33);
        if (!result.prefix) return std::nullopt;
        text.resize(slash);
    }
    for (int i = 0; i < 4; ++i) {
        const size_t dot = text.find('.');
        if ((dot == std::string::npos) != (i == 3)) return std::nullopt;
        const auto octet = decimal(text.substr(0, dot), 3, 256);
        if (!octet) return std::nullopt;
        result.address = result.address << 8 | *octet;
        text.erase(0, dot == std::string::npos ? dot : dot + 1);
    }
    return result;
}

TEST(IpAddressText, RandomTextsAreTakenExactlyByTheRules) {
    std::mt19937 random(4711);
    static constexpr char kLetters[] = "0123456789../ -a";
    int taken = 0;
    for (int i = 0; i < 400000; ++i) {
        std::string text;
        if (random() % 4 == 0) {
            for (size_t n = random() % 14; n > 0; --n) text += kLetters[random() % (sizeof kLetters - 1)];
        } else {
            for (int k = 0; k < 4; ++k) text += std::to_string(random() % 270) + (k < 3 ? "." : "");
            if (random() % 2 == 0) text += "/" + std::to_string(random() % 40);
            if (random() % 3 == 0) text[random() % text.size()] = kLetters[random() % (sizeof kLetters - 1)];
            if (random() % 5 == 0) text.erase(random() % text.size(), 1);
        }
        IpAddress ip("7.7.7.7/9");
        const auto expected = parsed(text);
        ASSERT_EQ(ip.setIpAddrAsString(text.c_str()), expected ? 0 : -1) << text;
        if (!expected) {
            ASSERT_TRUE(ip == IpAddress("7.7.7.7/9")) << text;
            continue;
        }
        ++taken;
        ASSERT_EQ(ip.getV4IpAddrAsBinaryUInt32(), expected->address) << text;
        ASSERT_EQ(ip.getNetMaskSize(), expected->prefix.value_or(9)) << text;
        if (!expected->prefix) ASSERT_EQ(address(ip), text);
    }
    EXPECT_GT(taken, 10000);
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

// Classification

struct Kind {
    bool a, b, c, d, e, abc, loopback, localGroup, host, defGw, limBc, net, iface, dirBc, valid;
    bool operator==(const Kind &) const = default;
};

Kind kindOf(const IpAddress &ip) {
    return {ip.isV4ClassA(),   ip.isV4ClassB(), ip.isV4ClassC(),   ip.isV4ClassD(),  ip.isV4ClassE(),
            ip.isV4ClassABC(), ip.isLoopback(), ip.isLocalGroup(), ip.isHostType(),  ip.isDefGwType(),
            ip.isLimBcType(),  ip.isNetType(),  ip.isIfaceType(),  ip.isDirBcType(), ip.isValidAddress()};
}

// The same by looking at one bit after the other.
Kind kindByBits(uint32_t address, uint32_t mask) {
    const auto bit = [](uint32_t value, int number) { return (uint64_t{value} >> (31 - number) & 1) != 0; };
    int ones = 0;
    while (ones < 32 && bit(mask, ones)) ++ones;
    bool maskValid = true;
    bool hostZeros = true;
    bool hostOnes = true;
    bool netZeros = true;
    bool netOnes = true;
    for (int i = 0; i < 32; ++i) {
        if (i >= ones && bit(mask, i)) maskValid = false;
        bool &zeros = bit(mask, i) ? netZeros : hostZeros;
        bool &allOnes = bit(mask, i) ? netOnes : hostOnes;
        zeros = zeros && !bit(address, i);
        allOnes = allOnes && bit(address, i);
    }
    int leading = 0;  // one bits of the address
    while (leading < 32 && bit(address, leading)) ++leading;

    Kind kind{};
    kind.a = leading == 0;
    kind.b = leading == 1;
    kind.c = leading == 2;
    kind.d = leading == 3;
    kind.e = leading >= 4;
    kind.abc = kind.a || kind.b || kind.c;
    kind.loopback = address / 0x1000000 == 127;
    kind.localGroup = address / 0x100 == 0xe00000;
    const bool numbered = address / 0x1000000 != 0;
    kind.host = kind.abc && numbered && ones == 32;
    kind.defGw = address == 0 && mask == 0;
    kind.limBc = leading == 32;
    const bool gate = kind.abc && numbered && maskValid && ones >= 2 && ones <= 30 && !netZeros && !netOnes;
    kind.net = kind.defGw || (gate && hostZeros);
    kind.iface = gate && !hostZeros && !hostOnes;
    kind.dirBc = gate && hostOnes;
    kind.valid = kind.host || kind.net || kind.iface || kind.limBc || kind.dirBc;
    return kind;
}

TEST(IpAddressKind, OfTheUsualAddresses) {
    EXPECT_TRUE(IpAddress("192.168.1.0/24").isNetType());
    EXPECT_TRUE(IpAddress("192.168.1.5/24").isIfaceType());
    EXPECT_TRUE(IpAddress("192.168.1.255/24").isDirBcType());
    EXPECT_TRUE(IpAddress("192.168.1.5").isHostType());
    EXPECT_TRUE(IpAddress("255.255.255.255").isLimBcType());
    const IpAddress tooLong("192.168.1.5/31");
    EXPECT_FALSE(tooLong.isNetType() || tooLong.isIfaceType() || tooLong.isDirBcType() || tooLong.isValidAddress());
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

TEST(IpAddressKind, AgreesWithTheModelForMillionsOfPairs) {
    std::mt19937 random(815);
    const auto limit = [&](uint32_t value) -> uint32_t {  // values near what the rules look at
        switch (random() % 6) {
            case 0:
                return value & (0xffffffffU >> random() % 32);
            case 1:
                return value | (0xffffffffU >> random() % 32);
            case 2:
                return 0xffffffffU << random() % 32;
            case 3:
                return (uint32_t{1} << random() % 32) - (random() % 2);
            default:
                return value;
        }
    };
    for (int i = 0; i < 2000000; ++i) {
        const auto address = limit(static_cast<uint32_t>(random()));
        const uint32_t prefix = random() % 33;
        uint32_t mask = prefix == 0 ? 0 : 0xffffffffU << (32 - prefix);
        if (random() % 8 == 0) mask = limit(static_cast<uint32_t>(random()));
        uint32_t place = address;
        if (random() % 4 == 0) place = address | ~mask;
        if (random() % 4 == 0) place = address & mask;
        ASSERT_EQ(kindOf(of(place, mask)), kindByBits(place, mask)) << std::hex << place << " " << mask;
    }
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

}  // namespace
