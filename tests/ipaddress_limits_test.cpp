// SPDX-License-Identifier: MIT
// IpAddress against slow models: texts by their rules written once more, classes bit by bit; layout, every prefix length,
// wide numbers and threads.
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

#include "support/ipaddress.h"

namespace {

using namespace vxtest::addresses;

// --- layout, threads, wide numbers

TEST(IpAddress, IsAValueOfThirtySixBytes) {
    EXPECT_EQ(sizeof(IpAddress), 36U);
    EXPECT_FALSE(std::is_polymorphic_v<IpAddress>);
    EXPECT_TRUE(std::is_trivially_copyable_v<IpAddress>);
    const IpAddress ip("1.2.3.4/8");
    std::array<uint32_t, 9> words{};
    std::memcpy(words.data(), static_cast<const void *>(&ip), sizeof ip);
    EXPECT_EQ(words, (std::array<uint32_t, 9>{1, 0x01020304, 0, 0, 0, 0xff000000, 0xffffffff, 0xffffffff, 0xffffffff}));
}

TEST(IpAddress, EmptyIsOneObjectAlsoForThreadsThatAskAtOnce) {
    std::vector<const IpAddress *> seen(8);
    std::vector<std::thread> threads;
    for (const IpAddress *&place : seen) threads.emplace_back([&place] { place = &IpAddress::EMPTY(); });
    for (std::thread &thread : threads) thread.join();
    for (const IpAddress *place : seen) EXPECT_EQ(place, &IpAddress::EMPTY());
    EXPECT_TRUE(IpAddress::EMPTY().isEmpty());
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

// --- masks

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

// --- texts

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

// --- classification

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

}  // namespace
