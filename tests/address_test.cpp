// SPDX-License-Identifier: MIT
// Addresses, networks and masks through the public interface. Rows of texts, odd masks and the ends of records are in
// address_limits_test.cpp.
#include <vxutils/address.h>

#include <netinet/in.h>

#include <cerrno>
#include <cstddef>
#include <string>

#include "support/address.h"
#include "support/process.h"
#include "support/resources.h"

namespace {

using namespace vxtest::address;

// -------------------------------------------------------------------------------------------------- example

TEST(AddressExample, CalculatesANetwork) {
    const std::string program = vxtest::built("examples/address_netcalc");
    EXPECT_EQ(vxtest::run({program, "192.168.1.77", "24"}).text,
              "address 192.168.1.77\nnetmask 255.255.255.0\nnetwork 192.168.1.0/24\n");
    EXPECT_EQ(vxtest::run({program, "fe80::1:2:3:4", "64"}).text,
              "address fe80::1:2:3:4\nnetmask ffff:ffff:ffff:ffff::\nnetwork fe80::/64\nlink-local\n");
    EXPECT_EQ(vxtest::run({program, "192.168.1.77", "33"}).status, 1);
    EXPECT_EQ(vxtest::run({program, "192.168.1", "24"}).status, 1);
}

// --------------------------------------------------------------------------------------------- addr_differs

TEST(AddrDiffers, ComparesIpv4Addresses) {
    EXPECT_EQ(addr_differs(Record("10.0.0.1"), Record("10.0.0.1")), 0);
    EXPECT_EQ(addr_differs(Record("10.0.0.1"), Record("10.0.0.2")), 1);
    EXPECT_EQ(addr_differs(Record("10.0.0.1"), Record("11.0.0.1")), 1);
}

TEST(AddrDiffers, ComparesEachWordOfIpv6Addresses) {
    const Record a("1:2:3:4:5:6:7:8");
    EXPECT_EQ(addr_differs(a, Record("1:2:3:4:5:6:7:8")), 0);
    for (const char *other : {"0:2:3:4:5:6:7:8", "1:2:0:4:5:6:7:8", "1:2:3:4:5:0:7:8", "1:2:3:4:5:6:7:0"}) {
        EXPECT_EQ(addr_differs(a, Record(other)), 1) << other;
    }
}

TEST(AddrDiffers, LooksAtNothingButFamilyAndAddress) {
    Record a("10.0.0.1");
    Record b("10.0.0.1");
    as<sockaddr_in>(b.get())->sin_port = 80;
    EXPECT_EQ(addr_differs(a, b), 0);
    Record c("fe80::1");
    Record d("fe80::1");
    d.v6().sin6_port = 80;
    d.v6().sin6_flowinfo = 1;
    d.v6().sin6_scope_id = 7;
    EXPECT_EQ(addr_differs(c, d), 0);
}

TEST(AddrDiffers, TellsFamiliesApart) {
    EXPECT_EQ(addr_differs(Record("10.0.0.1"), Record("::1")), 1);
    EXPECT_EQ(addr_differs(Record::ofFamily(7), Record::ofFamily(8)), 1);
}

TEST(AddrDiffers, RecordsOfAnUnknownFamilyAreEqual) {
    Record other = Record::ofFamily(7);
    other.v6().sin6_addr.s6_addr[0] = 1;
    EXPECT_EQ(addr_differs(Record::ofFamily(7), other), 0);
    EXPECT_EQ(addr_differs(Record::ofFamily(0), Record::ofFamily(0)), 0);
}

TEST(AddrDiffers, NullDiffersFromARecordAndEqualsNull) {
    const Record a("10.0.0.1");
    EXPECT_EQ(addr_differs(a, nullptr), 1);
    EXPECT_EQ(addr_differs(nullptr, a), 1);
    EXPECT_EQ(addr_differs(nullptr, nullptr), 0);
}

// -------------------------------------------------------------------------------------------- route_differs

TEST(RouteDiffers, ComparesAllThreeSlotsButNotTheHead) {
    const route_record route = routeOf("10.0.0.0", "255.0.0.0", "192.168.1.1");
    route_record same = route;
    same.head = 77;
    EXPECT_EQ(route_differs(&route, &same), 0);
    const route_record first = routeOf("11.0.0.0", "255.0.0.0", "192.168.1.1");
    const route_record second = routeOf("10.0.0.0", "255.255.0.0", "192.168.1.1");
    const route_record third = routeOf("10.0.0.0", "255.0.0.0", "192.168.1.2");
    for (const route_record *other : {&first, &second, &third}) EXPECT_EQ(route_differs(&route, other), 1);
}

TEST(RouteDiffers, ComparesOfIpv6WhatASlotHolds) {
    const route_record route = routeOf("1:2:3:4:5:6:7:8", "::", "1:2:3:4::");
    EXPECT_EQ(route_differs(&route, &route), 0);
    const route_record tail = routeOf("1:2:3:4:8:8:8:8", "::", "1:2:3:4::");
    EXPECT_EQ(route_differs(&route, &tail), 0);
    for (const route_record &other :
         {routeOf("1:2:3:5::", "::", "1:2:3:4::"), routeOf("1:2:3:4::", "0:0:0:1::", "1:2:3:4::"),
          routeOf("1:2:3:4::", "::", "1:2:3:5::")}) {
        EXPECT_EQ(route_differs(&route, &other), 1);
    }
}

TEST(RouteDiffers, NullDiffersFromARecordAndEqualsNull) {
    const route_record route = routeOf("10.0.0.0", "255.0.0.0", "192.168.1.1");
    EXPECT_EQ(route_differs(&route, nullptr), 1);
    EXPECT_EQ(route_differs(nullptr, &route), 1);
    EXPECT_EQ(route_differs(nullptr, nullptr), 0);
}

static_assert(sizeof(route_record) == 52 && offsetof(route_record, slot) == 4);

// ------------------------------------------------------------------------------------------------- addr2str

TEST(Addr2Str, PrintsIpv6AsTheSystemDoes) {
    for (const char *text : {"::", "::1", "fe80::1", "1:2:3:4:5:6:7:8", "2001:db8::8:0:1", "::ffff:10.0.0.1",
                             "ffff:ffff:ffff:ffff:ffff:ffff:ffff:ffff"}) {
        EXPECT_EQ(Record(text).text(), text);
    }
}

TEST(Addr2Str, WritesNoMoreThanTheText) {
    vxtest::GuardedBuffer shortText(8);
    EXPECT_STREQ(addr2str(shortText.data(), Record("1.2.3.4")), "1.2.3.4");
    vxtest::GuardedBuffer longText(INET_ADDRSTRLEN);
    EXPECT_STREQ(addr2str(longText.data(), Record("255.255.255.255")), "255.255.255.255");
    vxtest::GuardedBuffer v6(INET6_ADDRSTRLEN);
    EXPECT_EQ(addr2str(v6.data(), Record("1::2")), v6.data());
}

TEST(Addr2Str, OfAnUnknownFamilyIsEmpty) {
    char buffer[8] = "x";
    EXPECT_EQ(addr2str(buffer, Record::ofFamily(7)), buffer);
    EXPECT_STREQ(buffer, "");
}

TEST(Addr2Str, OfNullIsNull) {
    char buffer[46] = "x";
    EXPECT_EQ(addr2str(buffer, nullptr), nullptr);
    EXPECT_STREQ(buffer, "x");
    EXPECT_EQ(addr2str(nullptr, Record("1.2.3.4")), nullptr);
}

// -------------------------------------------------------------------------------------------------- net2str

TEST(Net2Str, JoinsAddressAndMask) {
    char buffer[92];
    EXPECT_EQ(net2str(buffer, Record("10.1.2.3"), Record("255.255.0.0")), buffer);
    EXPECT_STREQ(buffer, "10.1.2.3/255.255.0.0");
    EXPECT_STREQ(net2str(buffer, Record("fe80::1"), Record("ffff::")), "fe80::1/ffff::");
    EXPECT_STREQ(net2str(buffer, Record("10.1.2.3"), Record("ffff::")), "10.1.2.3/ffff::");
    EXPECT_STREQ(net2str(buffer, Record::ofFamily(7), Record::ofFamily(7)), "/");
}

TEST(Net2Str, OfNullIsNull) {
    char buffer[92] = "x";
    const Record a("10.1.2.3");
    EXPECT_EQ(net2str(nullptr, a, a), nullptr);
    EXPECT_EQ(net2str(buffer, nullptr, a), nullptr);
    EXPECT_EQ(net2str(buffer, a, nullptr), nullptr);
    EXPECT_STREQ(buffer, "x");
}

// ------------------------------------------------------------------------------------------------- str2addr

TEST(Str2Addr4, TouchesFamilyAndAddressOnly) {
    Record record;
    const std::string before = record.raw();
    ASSERT_EQ(str2addr4("1.2.3.4", record.get()), 0);
    EXPECT_EQ(record.raw().substr(2, 2), before.substr(2, 2));
    EXPECT_EQ(record.raw().substr(4, 4), std::string("\1\2\3\4", 4));
    EXPECT_EQ(record.raw().substr(8), before.substr(8));
}

TEST(Str2Addr6, SetsFamilyAndAddressOnly) {
    Record record;
    const std::string before = record.raw();
    ASSERT_EQ(str2addr6("102:304:506:708:90a:b0c:d0e:f10", record.get()), 0);
    EXPECT_EQ(record.family(), AF_INET6);
    EXPECT_EQ(record.raw().substr(2, 6), before.substr(2, 6));
    EXPECT_EQ(record.raw().substr(8, 16), "\1\2\3\4\5\6\7\10\11\12\13\14\15\16\17\20");
    EXPECT_EQ(record.raw().substr(24), before.substr(24));
}

TEST(Str2Addr, ChoosesIpv6ForATextWithAColonAnywhere) {
    Record record;
    EXPECT_EQ(str2addr("fe80::1", record.get()), 0);
    EXPECT_EQ(record.family(), AF_INET6);
    EXPECT_EQ(str2addr("10.0.0.1", record.get()), 0);
    EXPECT_EQ(record.family(), AF_INET);
    EXPECT_EQ(str2addr("10.0.0.1:80", record.get()), -1);
    EXPECT_EQ(record.family(), AF_INET6);
    EXPECT_EQ(str2addr("word", record.get()), -1);
    EXPECT_EQ(record.family(), AF_INET);
    EXPECT_EQ(str2addr("::ffff:1.2.3.4", record.get()), 0);
    EXPECT_EQ(record.text(), "::ffff:1.2.3.4");
}

TEST(Str2Addr, TrimsNothing) {
    Record record;
    EXPECT_EQ(str2addr("10.0.0.1\n", record.get()), -1);
    EXPECT_EQ(record.family(), AF_INET);
    EXPECT_EQ(str2addr("fe80::1\n", record.get()), -1);
    EXPECT_EQ(record.family(), AF_INET6);
}

TEST(Str2Addr, OfNullFailsAndStoresNothing) {
    Record record;
    const std::string before = record.raw();
    for (const auto parse : {str2addr4, str2addr6, str2addr}) {
        EXPECT_EQ(parse(nullptr, record.get()), -1);
        EXPECT_EQ(parse("10.0.0.1", nullptr), -1);
        EXPECT_EQ(parse(nullptr, nullptr), -1);
    }
    EXPECT_EQ(record.raw(), before);
}

// --------------------------------------------------------------------- strip_host_part_from_network_address

TEST(StripHostPart, MasksTheAddressInPlace) {
    Record v4("192.168.1.77");
    EXPECT_EQ(strip_host_part_from_network_address(v4.get(), Record("255.255.255.0")), 1);
    EXPECT_EQ(v4.text(), "192.168.1.0");
    Record v6("1:2:3:4:5:6:7:8");
    EXPECT_EQ(strip_host_part_from_network_address(v6.get(), Record("ffff::ffff:0:ffff")), 1);
    EXPECT_EQ(v6.text(), "1::6:0:8");
}

TEST(StripHostPart, RefusesOtherAndDifferentFamiliesAndNull) {
    Record v4("192.168.1.77");
    const std::string before = v4.raw();
    EXPECT_EQ(strip_host_part_from_network_address(v4.get(), Record("ffff::")), 0);
    EXPECT_EQ(strip_host_part_from_network_address(v4.get(), nullptr), 0);
    EXPECT_EQ(strip_host_part_from_network_address(nullptr, v4), 0);
    EXPECT_EQ(v4.raw(), before);
    Record other = Record::ofFamily(7);
    EXPECT_EQ(strip_host_part_from_network_address(other.get(), Record::ofFamily(7)), 0);
}

// --------------------------------------------------------------------------------------------- netmask2cidr

TEST(Netmask2Cidr, CountsTheBitsOfAnIpv4Mask) {
    EXPECT_EQ(netmask2cidr(Record("255.255.255.0")), 24);
    EXPECT_EQ(netmask2cidr(Record("0.0.0.0")), 0);
    EXPECT_EQ(netmask2cidr(Record("255.255.255.255")), 32);
    EXPECT_EQ(netmask2cidr(Record("128.0.0.0")), 1);
    EXPECT_EQ(netmask2cidr(Record("255.255.255.254")), 31);
}

TEST(Netmask2Cidr, CountsTheBitsOfAnIpv6Mask) {
    EXPECT_EQ(netmask2cidr(Record("::")), 0);
    EXPECT_EQ(netmask2cidr(Record("8000::")), 1);
    EXPECT_EQ(netmask2cidr(Record("ffff:ffff:ffff:ffff::")), 64);
    EXPECT_EQ(netmask2cidr(Record("ffff:ffff:ffff:ffff:ffff:ffff:ffff:fffe")), 127);
    EXPECT_EQ(netmask2cidr(Record("ffff:ffff:ffff:ffff:ffff:ffff:ffff:ffff")), 128);
}

TEST(Netmask2Cidr, RefusesOtherFamiliesAndNull) {
    EXPECT_EQ(netmask2cidr(Record::ofFamily(7)), -1);
    EXPECT_EQ(netmask2cidr(nullptr), -1);
}

// ------------------------------------------------------------------------------------------------- net2cidr

TEST(Net2Cidr, PrintsTheNetworkAndItsPrefix) {
    char buffer[93];
    const Record host("192.168.1.77");
    EXPECT_EQ(net2cidr(buffer, host, Record("255.255.255.0")), buffer);
    EXPECT_STREQ(buffer, "192.168.1.0/24");
    EXPECT_EQ(host.text(), "192.168.1.77");
    EXPECT_STREQ(net2cidr(buffer, host, Record("0.0.0.0")), "0.0.0.0/0");
    EXPECT_STREQ(net2cidr(buffer, host, Record("255.255.255.255")), "192.168.1.77/32");
}

TEST(Net2Cidr, MasksAllOfAnIpv6Address) {
    char buffer[93];
    const Record host("1:2:3:4:5:6:7:8");
    EXPECT_STREQ(net2cidr(buffer, host, Record("ffff:ffff:ffff:ffff::")), "1:2:3:4::/64");
    EXPECT_STREQ(net2cidr(buffer, host, Record("ffff:ffff:ffff:ffff:ffff:ffff::")), "1:2:3:4:5:6::/96");
    EXPECT_STREQ(net2cidr(buffer, host, Record("ffff:ffff:ffff:ffff:ffff:ffff:ffff:ffff")), "1:2:3:4:5:6:7:8/128");
}

TEST(Net2Cidr, IsNullAndWritesNothingWhenAStepFails) {
    char buffer[93] = "x";
    const Record host("192.168.1.77");
    EXPECT_EQ(net2cidr(nullptr, host, Record("255.0.0.0")), nullptr);
    EXPECT_EQ(net2cidr(buffer, nullptr, Record("255.0.0.0")), nullptr);
    EXPECT_EQ(net2cidr(buffer, host, nullptr), nullptr);
    EXPECT_EQ(net2cidr(buffer, host, Record("255.0.255.0")), nullptr);
    EXPECT_EQ(net2cidr(buffer, host, Record("ffff::")), nullptr);
    EXPECT_EQ(net2cidr(buffer, Record::ofFamily(7), Record::ofFamily(7)), nullptr);
    EXPECT_STREQ(buffer, "x");
}

// --------------------------------------------------------------------------------------------- cidr2netmask

TEST(Cidr2Netmask, MakesEveryIpv4MaskThatNetmask2CidrReads) {
    for (int prefix = 0; prefix <= 32; ++prefix) {
        Record mask;
        ASSERT_EQ(cidr2netmask(prefix, mask.get(), AF_INET), 0);
        EXPECT_EQ(mask.family(), AF_INET);
        EXPECT_EQ(netmask2cidr(mask), prefix);
    }
    Record mask;
    ASSERT_EQ(cidr2netmask(20, mask.get(), AF_INET), 0);
    EXPECT_EQ(mask.text(), "255.255.240.0");
    ASSERT_EQ(cidr2netmask(0, mask.get(), AF_INET), 0);
    EXPECT_EQ(mask.text(), "0.0.0.0");
}

TEST(Cidr2Netmask, MakesEveryIpv6MaskThatNetmask2CidrReads) {
    for (int prefix = 0; prefix <= 128; ++prefix) {
        Record mask;
        ASSERT_EQ(cidr2netmask(prefix, mask.get(), AF_INET6), 0);
        EXPECT_EQ(mask.family(), AF_INET6);
        EXPECT_EQ(netmask2cidr(mask), prefix);
    }
    Record mask;
    ASSERT_EQ(cidr2netmask(60, mask.get(), AF_INET6), 0);
    EXPECT_EQ(mask.text(), "ffff:ffff:ffff:fff0::");
}

TEST(Cidr2Netmask, TouchesFamilyAndMaskOnly) {
    Record mask;
    const std::string before = mask.raw();
    ASSERT_EQ(cidr2netmask(8, mask.get(), AF_INET), 0);
    EXPECT_EQ(mask.raw().substr(2, 2), before.substr(2, 2));
    EXPECT_EQ(mask.raw().substr(8), before.substr(8));
    ASSERT_EQ(cidr2netmask(8, mask.get(), AF_INET6), 0);
    EXPECT_EQ(mask.raw().substr(24), before.substr(24));
}

// ------------------------------------------------------------------------------------ is_link_local_address

TEST(IsLinkLocal, HoldsForTheLinkLocalGroups) {
    for (const char *text : {"fe80::1", "fe81::", "febf:ffff::1"}) EXPECT_EQ(is_link_local_address(Record(text)), 1);
    for (const char *text : {"fe7f::", "fec0::1", "fc00::", "2001:db8::1", "::", "ffff::", "fd80::"}) {
        EXPECT_EQ(is_link_local_address(Record(text)), 0) << text;
    }
}

TEST(IsLinkLocal, HoldsForGroupsFf80ToFfbfToo) {
    EXPECT_EQ(is_link_local_address(Record("ff80::1")), 1);
    EXPECT_EQ(is_link_local_address(Record("ffbf::1")), 1);
    EXPECT_EQ(is_link_local_address(Record("ff7f::1")), 0);
    EXPECT_EQ(is_link_local_address(Record("ffc0::1")), 0);
}

TEST(IsLinkLocal, LooksAtNoFamily) {
    Record record("fe80::1");
    record.v6().sin6_family = 7;
    EXPECT_EQ(is_link_local_address(record), 1);
}

TEST(IsLinkLocal, OfNullIsZero) { EXPECT_EQ(is_link_local_address(nullptr), 0); }

TEST(Address, FunctionsLeaveErrnoAlone) {
    Record record;
    char buffer[93];
    errno = 4711;
    EXPECT_EQ(str2addr4("x", record.get()), -1);
    EXPECT_EQ(cidr2netmask(99, record.get(), AF_INET), -1);
    EXPECT_EQ(netmask2cidr(Record::ofFamily(7)), -1);
    EXPECT_NE(net2cidr(buffer, Record("1.2.3.4"), Record("255.0.0.0")), nullptr);
    EXPECT_EQ(errno, 4711);
}

}  // namespace
