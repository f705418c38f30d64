// SPDX-License-Identifier: MIT
// Addresses: every octet and every form of a text compared with the system's functions, masks with holes, refused prefixes,
// and records and texts that end right before an unreadable page.
#include <vxutils/address.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>

#include "support/address.h"
#include "support/resources.h"

namespace {

using namespace vxtest::address;

// A record of exactly `size` bytes in front of an unreadable page, as far out of alignment as it comes.
class ShortRecord {
public:
    ShortRecord(size_t size, const Record &content) : buffer_(size) { memcpy(buffer_.data(), content.get(), size); }
    sockaddr *get() { return as<sockaddr>(buffer_.data()); }

private:
    vxtest::GuardedBuffer buffer_;
};

// ------------------------------------------------------------------------------- addr_differs, route_differs

TEST(AddrDiffers, ReadsNoMoreThanTheFamilysRecord) {
    ShortRecord a(8, Record("10.0.0.1"));
    ShortRecord b(8, Record("10.0.0.1"));
    EXPECT_EQ(addr_differs(a.get(), b.get()), 0);
    ShortRecord c(24, Record("fe80::1"));
    ShortRecord d(24, Record("fe80::2"));
    EXPECT_EQ(addr_differs(c.get(), d.get()), 1);
    ShortRecord e(2, Record::ofFamily(7));
    ShortRecord f(2, Record::ofFamily(7));
    EXPECT_EQ(addr_differs(e.get(), f.get()), 0);
}

TEST(RouteDiffers, NeverReadsPastItsRecord) {
    const route_record route = routeOf("1:2:3:4::", "::", "1:2:3:4::");
    vxtest::GuardedBuffer a(sizeof route);
    vxtest::GuardedBuffer b(sizeof route);
    memcpy(a.data(), &route, sizeof route);
    memcpy(b.data(), &route, sizeof route);
    EXPECT_EQ(route_differs(as<route_record>(a.data()), as<route_record>(b.data())), 0);
}

// ------------------------------------------------------------------------------------------ ends of records

TEST(Address, NothingIsReadOrWrittenAfterTheAddressOfARecord) {
    char text[INET6_ADDRSTRLEN * 2];
    ShortRecord four(8, Record("192.168.1.77"));
    ShortRecord fourMask(8, Record("255.255.255.255"));
    ShortRecord six(24, Record("fe80:2:3:4:5:6:7:8"));
    ShortRecord sixMask(24, Record("ffff:ffff:ffff:ffff:ffff:ffff:ffff:ffff"));
    EXPECT_STREQ(net2str(text, four.get(), fourMask.get()), "192.168.1.77/255.255.255.255");
    EXPECT_STREQ(net2str(text, six.get(), sixMask.get()), "fe80:2:3:4:5:6:7:8/ffff:ffff:ffff:ffff:ffff:ffff:ffff:ffff");
    EXPECT_EQ(netmask2cidr(fourMask.get()), 32);
    EXPECT_EQ(netmask2cidr(sixMask.get()), 128);
    EXPECT_EQ(is_link_local_address(six.get()), 1);
    EXPECT_EQ(strip_host_part_from_network_address(four.get(), fourMask.get()), 1);
    EXPECT_EQ(strip_host_part_from_network_address(six.get(), sixMask.get()), 1);
    EXPECT_STREQ(addr2str(text, six.get()), "fe80:2:3:4:5:6:7:8");
    EXPECT_EQ(cidr2netmask(32, four.get(), AF_INET), 0);
    EXPECT_EQ(cidr2netmask(128, six.get(), AF_INET6), 0);
    EXPECT_EQ(str2addr("10.0.0.1", four.get()), 0);
    EXPECT_EQ(str2addr("::1", six.get()), 0);
}

// ----------------------------------------------------------------------------------------- addr2str, net2str

TEST(Addr2Str, PrintsEveryOctetAsTheSystemDoes) {
    for (uint32_t octet = 0; octet < 256; ++octet) {
        for (unsigned int shift = 0; shift < 32; shift += 8) {
            Record record("1.22.3.44");
            auto &address = as<sockaddr_in>(record.get())->sin_addr;
            address.s_addr = htonl((ntohl(address.s_addr) & ~(0xFFU << shift)) | octet << shift);
            char expected[INET_ADDRSTRLEN];
            inet_ntop(AF_INET, &address, expected, sizeof expected);
            EXPECT_EQ(record.text(), expected);
        }
    }
}

TEST(Net2Str, FitsTheLongestTexts) {
    vxtest::GuardedBuffer buffer(32);
    const Record ones("255.255.255.255");
    EXPECT_STREQ(net2str(buffer.data(), ones, ones), "255.255.255.255/255.255.255.255");
}

// -------------------------------------------------------------------------------------------------- str2addr

TEST(Str2Addr4, TakesExactlyWhatTheSystemTakes) {
    const char *texts[] = {"0.0.0.0",
                           "1.2.3.4",
                           "255.255.255.255",
                           "10.20.30.40",
                           "100.200.0.99",
                           "",
                           " 1.2.3.4",
                           "1.2.3.4 ",
                           "1.2.3.4\n",
                           "1.2.3",
                           "1.2.3.",
                           "1.2.3.4.",
                           "1.2.3.4.5",
                           ".1.2.3.4",
                           "1..3.4",
                           "256.2.3.4",
                           "1.2.3.256",
                           "1.2.3.999",
                           "1.2.3.1000",
                           "01.2.3.4",
                           "1.2.3.04",
                           "00.0.0.0",
                           "1.2.3.00",
                           "0x1.2.3.4",
                           "1.2.3.+4",
                           "1.2.3.-4",
                           "1,2,3,4",
                           "a.b.c.d",
                           "1.2.3.4a",
                           "1.2.3.\xff",
                           "1.2.3.4/24",
                           "12345",
                           "1.2.3./",
                           "1.2.3.:",
                           "1.2.3.4:80",
                           "010.020.0.1",
                           "0.0.0.00",
                           "2550.1.1.1",
                           "::1",
                           "...",
                           "4294967297.0.0.1",
                           "1.2.3.25 5"};
    for (const char *text : texts) {
        in_addr expected{0xA5A5A5A5};
        const bool valid = inet_pton(AF_INET, text, &expected) == 1;
        Record record;
        EXPECT_EQ(str2addr4(text, record.get()), valid ? 0 : -1) << text;
        EXPECT_EQ(record.family(), AF_INET) << text;
        EXPECT_EQ(as<sockaddr_in>(record.get())->sin_addr.s_addr, expected.s_addr) << text;
    }
}

// The characters beside the digits are a slash and a colon.
TEST(Str2Addr4, ReadsEveryOctetInEveryPlaceAsTheSystemDoes) {
    for (unsigned int octet = 0; octet < 1100; ++octet) {
        for (const char *after : {"", "/", ":"}) {
            const std::string text = std::to_string(octet) + after;
            for (const std::string &quad :
                 {text + ".22.3.44", "11." + text + ".3.44", "11.22." + text + ".44", "11.22.3." + text}) {
                in_addr expected{0xA5A5A5A5};
                const bool valid = inet_pton(AF_INET, quad.c_str(), &expected) == 1;
                Record record;
                ASSERT_EQ(str2addr4(quad.c_str(), record.get()), valid ? 0 : -1) << quad;
                ASSERT_EQ(as<sockaddr_in>(record.get())->sin_addr.s_addr, expected.s_addr) << quad;
            }
        }
    }
}

TEST(Str2Addr4, ReadsNothingAfterTheText) {
    for (const std::string text : {"1.2.3.4", "1.2.3", "1.2.3.", "1", ""}) {
        vxtest::GuardedBuffer buffer(text.size() + 1);
        memcpy(buffer.data(), text.c_str(), text.size() + 1);
        Record record;
        EXPECT_EQ(str2addr4(buffer.data(), record.get()), text == "1.2.3.4" ? 0 : -1);
    }
}

TEST(Str2Addr6, KeepsTheFamilyWhenItRefusesTheText) {
    for (const char *text : {"10.0.0.1", "", "1:2:3", "fe80::1\n", "fe80::1%eth0", "::g"}) {
        Record record;
        const std::string before = record.raw();
        EXPECT_EQ(str2addr6(text, record.get()), -1) << text;
        EXPECT_EQ(record.family(), AF_INET6);
        EXPECT_EQ(record.raw().substr(2), before.substr(2));
    }
}

TEST(Str2Addr, FillsAnIpv4RecordThatIsNoLongerAndNotAligned) {
    vxtest::GuardedBuffer buffer(9);
    auto *odd = as<sockaddr>(buffer.data() + 1);
    ASSERT_EQ(str2addr("9.8.7.6", odd), 0);
    char text[16];
    EXPECT_STREQ(addr2str(text, odd), "9.8.7.6");
}

// ---------------------------------------------------------------------- strip_host_part_from_network_address

TEST(StripHostPart, TakesMasksThatAreNoPrefix) {
    Record v4("255.255.255.255");
    EXPECT_EQ(strip_host_part_from_network_address(v4.get(), Record("255.0.255.1")), 1);
    EXPECT_EQ(v4.text(), "255.0.255.1");
}

// ---------------------------------------------------------------------------------------------- netmask2cidr

TEST(Netmask2Cidr, RefusesIpv4MasksWithHoles) {
    for (const char *mask : {"255.0.255.0", "0.0.0.255", "127.255.255.255", "255.255.253.0", "0.0.0.1"}) {
        EXPECT_EQ(netmask2cidr(Record(mask)), -1) << mask;
    }
}

TEST(Netmask2Cidr, RefusesIpv6MasksWithHoles) {
    for (const char *mask : {"ffff::ffff", "0:0:ffff:ffff::", "ffff:ffff:fffe:ffff::", "ffff:fff0:ffff::", "::1",
                             "ffff:ffff:f000:0:8000::", "ffff:ffff:ffff:ffff::8000:0"}) {
        EXPECT_EQ(netmask2cidr(Record(mask)), -1) << mask;
    }
}

// -------------------------------------------------------------------------------------------------- net2cidr

TEST(Net2Cidr, ReadsAnIpv4RecordOfSixteenBytes) {
    char buffer[93];
    ShortRecord host(16, Record("192.168.1.77"));
    ShortRecord mask(16, Record("255.255.0.0"));
    EXPECT_STREQ(net2cidr(buffer, host.get(), mask.get()), "192.168.0.0/16");
}

// ---------------------------------------------------------------------------------------------- cidr2netmask

TEST(Cidr2Netmask, RefusesOtherPrefixesAndFamiliesAndStoresNothing) {
    Record mask;
    const std::string before = mask.raw();
    for (const int prefix : {-1, 33, 128, INT32_MIN, INT32_MAX})
        EXPECT_EQ(cidr2netmask(prefix, mask.get(), AF_INET), -1);
    for (const int prefix : {-1, 129, INT32_MIN, INT32_MAX}) EXPECT_EQ(cidr2netmask(prefix, mask.get(), AF_INET6), -1);
    for (const int family : {0, 7, -1, 0x10000 + AF_INET, 0x10000 + AF_INET6}) {
        EXPECT_EQ(cidr2netmask(24, mask.get(), family), -1) << family;
    }
    EXPECT_EQ(cidr2netmask(24, nullptr, AF_INET), -1);
    EXPECT_EQ(mask.raw(), before);
}

}  // namespace
