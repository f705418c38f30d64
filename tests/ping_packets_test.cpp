// SPDX-License-Identifier: MIT
// Ping on the wire: every packet is looked at as it leaves the process and as it arrives at the other host, and replies
// are made up to the bit.
#include <vxutils/ping.h>

#include <arpa/inet.h>
#include <linux/filter.h>
#include <linux/if_packet.h>
#include <net/if.h>
#include <poll.h>
#include <sys/time.h>
#include <syslog.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <memory>
#include <set>
#include <thread>

#include "support/call_hooks.h"
#include "support/emulation.h"
#include "support/files.h"
#include "support/ping.h"
#include "support/ping_watch.h"
#include "support/resources.h"
#include "support/syslog_capture.h"
#include "support/wan.h"
#include "vxutils/ping_arp_line.h"
#include "vxutils/ping_icmp_echo.h"
#include "vxutils/ping_text_ring.h"

VXTEST_HOOK_AS(int, gettimeofday, "__gettimeofday64", (timeval * time, void *zone), (time, zone))

namespace {

using namespace vxtest::ping;

using vxtest::hex;
using vxtest::LogLine;

using PingPackets = vxtest::ping::PingTest;

size_t sleepsFor(unsigned int timeout) {
    size_t sleeps = 0;
    for (long budget = std::min(std::max(timeout, 500U), 10000U) * 1000L + 300000; budget > 0; budget -= 300000)
        ++sleeps;
    return sleeps;
}

// ---- icmpping ----

TEST_F(PingPackets, PlainEchoIsTheseBytes) {
    Bytes expected(64);
    expected[0] = 8;
    expected[7] = 1;
    seal(expected, 2, 0, 64);
    std::unique_ptr<vxtest::Wire> wire;
    wan->gateway.inside([&] { wire = std::make_unique<vxtest::Wire>("gw0"); });
    Watch watch;
    EXPECT_EQ(icmpping("wan0", gatewayText, 1000), 0);
    ASSERT_EQ(watch.sent.size(), 1U);
    EXPECT_EQ(hex(watch.sent[0]), hex(expected));
    EXPECT_EQ(hex(watch.sentTo[0]), hex(memoryOrder(AF_INET) + Bytes{0, 0, 192, 0, 2, 1} + Bytes(8)));

    const auto frame = wire->nextIcmp();
    ASSERT_TRUE(frame.has_value());
    ASSERT_EQ(frame->bytes.size(), 14U + 20 + 64);
    EXPECT_EQ(hex(tail(frame->bytes, 34)), hex(expected));
    EXPECT_EQ(number(frame->bytes, 16), 84);
    EXPECT_EQ(hex(frame->bytes.data() + 26, 8), "c0 00 02 0a c0 00 02 01");
}

TEST_F(PingPackets, EveryPlainPingBeginsAnew) {
    for (int i = 0; i < 2; ++i) {
        Watch watch;
        EXPECT_EQ(icmpping("wan0", gatewayText, 1000), 0);
        EXPECT_EQ(hex(watch.sent.at(0).data() + 4, 4), "00 00 00 01");
    }
}

TEST_F(PingPackets, TheDeviceNameIsCutAtFifteenCharactersInAZeroedBufferOf32) {
    vxtest::ip("link add fifteen-letters type veth peer name fifteen-peer");
    ConnectedLog log;
    std::vector<std::string> names;
    Watch watch;
    watch.calls->setsockopt = [&](int, int, int option, const void *value, socklen_t length) -> std::optional<int> {
        if (option != SO_BINDTODEVICE) return std::nullopt;
        names.push_back(hex(static_cast<const uint8_t *>(value), length));
        return std::nullopt;
    };
    const std::string fifteen = "fifteen-letters";
    EXPECT_EQ(icmpping((fifteen + "16").c_str(), gatewayText, 0), -1);
    Bytes expected(32);
    std::memcpy(expected.data(), fifteen.data(), fifteen.size());
    EXPECT_EQ(names.at(0), hex(expected));
    for (const auto &line : log.texts()) EXPECT_EQ(line.find("can't bind"), std::string::npos) << line;
    vxtest::ip("link del fifteen-letters");
}

TEST_F(PingPackets, SilenceEndsEveryPingAfterItsBudgetOfSteps) {
    ConnectedLog log;
    for (const unsigned int timeout : {0U, 499U, 500U, 501U, 600U, 601U, 1000U, 9999U, 10000U, 10001U, 60000U, ~0U}) {
        Watch watch;
        watch.receiveFromScript();
        EXPECT_EQ(icmpping("wan0", gatewayText, timeout), -1);
        EXPECT_EQ(watch.sleepsNs, std::vector<long>(sleepsFor(timeout), 300000000L)) << timeout;
        EXPECT_EQ(watch.receives, static_cast<int>(sleepsFor(timeout)));
        EXPECT_EQ(log.take().size(), 1U) << "the transmission, and nothing about the end";
        watch.sleepsNs.clear();
        EXPECT_EQ(rawping("wan0", gatewayText, nullptr, timeout), -1);
        EXPECT_EQ(watch.sleepsNs.size(), sleepsFor(timeout));
        EXPECT_EQ(log.take().back(), (LogLine{LOG_DEBUG, "rawping[wan0]: received no valid ip reply from 192.0.2.1"}));
    }
    EXPECT_EQ(sleepsFor(0), 3U);
    EXPECT_EQ(sleepsFor(60000), 35U);
}

TEST_F(PingPackets, APlainReplyIsLookedAtThisClosely) {
    ConnectedLog log;
    const std::string shortOne = "icmpping: packet is too short";
    const std::string noReply = "icmpping: packet is not a reply";
    const auto received = [](int sequence, int identifier) {
        return LogLine{LOG_DEBUG, "icmpping: RECEIVED icmp reply on wan0 (seq " + std::to_string(sequence) + ", id " +
                                      std::to_string(identifier) + ", need seq 1, id 0)"};
    };
    const struct {
        const char *name;
        Bytes packet;
        LogLine line;
        bool good;
    } cases[] = {
        {"1 byte", Bytes{0x45}, {LOG_ERR, shortOne}, false},
        {"a header alone", ipPacket({}), {LOG_ERR, shortOne}, false},
        {"75 bytes", ipPacket(plainMessage(0, 0, 1, 55)), {LOG_ERR, shortOne}, false},
        {"76 bytes", ipPacket(plainMessage(0, 0, 1, 56)), received(1, 0), true},
        {"a request", ipPacket(plainMessage(8, 0, 1)), {LOG_ERR, noReply}, false},
        {"unreachable", ipPacket(plainMessage(3, 0, 1)), {LOG_ERR, noReply}, false},
        {"another sequence number", ipPacket(plainMessage(0, 0, 2)), received(2, 0), false},
        {"its bytes exchanged", ipPacket(plainMessage(0, 0, 0x0100)), received(256, 0), false},
        {"another identifier", ipPacket(plainMessage(0, 65535, 1)), received(1, 65535), false},
        {"a header with options", ipPacket(plainMessage(0, 0, 1), 4), received(1, 0), true},
        {"the longest header", ipPacket(plainMessage(0, 0, 1), 40), received(1, 0), true},
        {"the longest header in the shortest packet", ipPacket(plainMessage(0, 0, 1, 16), 40), received(1, 0), true},
        {"as much as there is", ipPacket(plainMessage(0, 0, 1, 5000)), received(1, 0), true},
    };
    for (const auto &item : cases) {
        SCOPED_TRACE(item.name);
        Watch watch;
        watch.receiveFromScript();
        watch.script.push_back(item.packet);
        EXPECT_EQ(icmpping("wan0", gatewayText, 0), item.good ? 0 : -1);
        const auto lines = log.take();
        ASSERT_EQ(lines.size(), 2U);
        EXPECT_EQ(lines[1], item.line);
    }
}

TEST_F(PingPackets, PlainPingReceivesAtMost1450Bytes) {
    Watch watch;
    size_t room = 0;
    watch.calls->recvmsg = [&](int, msghdr *message, int) -> std::optional<ssize_t> {
        room = message->msg_iov[0].iov_len;
        return std::nullopt;
    };
    EXPECT_EQ(icmpping("wan0", gatewayText, 1000), 0);
    EXPECT_EQ(room, 1450U);
}

TEST_F(PingPackets, The1024thPacketIsStillLookedAtAndEmptyReadsDoNotCount) {
    ConnectedLog log;
    const Bytes foreign = ipPacket(plainMessage(0, 7, 7));
    const Bytes good = ipPacket(plainMessage(0, 0, 1));
    for (const int before : {1022, 1023, 1024, 1025}) {
        Watch watch;
        watch.receiveFromScript();
        watch.script.assign(static_cast<size_t>(before), foreign);
        watch.script.push_front({});
        watch.script.insert(watch.script.begin() + 100, Bytes{});
        watch.script.push_back(good);
        EXPECT_EQ(icmpping("wan0", gatewayText, 0), before < 1024 ? 0 : -1) << before;
        EXPECT_TRUE(watch.sleepsNs.empty()) << "packets were there all the time";
        EXPECT_EQ(watch.receives, std::min(before + 1, 1024) + 2);
        log.take();
    }
}

// Another host of the target's network, one of elsewhere, the pinging host itself, an address without a host.
const Bytes strangers[] = {{192, 0, 2, 77}, {203, 0, 113, 5}, {192, 0, 2, 10}, {0, 0, 0, 0}, {192, 0, 2, 0}};

TEST_F(PingPackets, APlainReplyOfAnotherHostDoesNotCount) {
    ConnectedLog log;
    vxtest::Wan::answers(wan->gateway, false);
    std::unique_ptr<vxtest::Responder> responder;
    wan->gateway.inside([&] { responder = std::make_unique<vxtest::Responder>("gw0", repliesFrom(strangers[0])); });
    EXPECT_EQ(icmpping("wan0", gatewayText, 0), -1);
    EXPECT_EQ(responder->seen(), 1);
    EXPECT_EQ(log.take().back(), (LogLine{LOG_DEBUG, "icmpping: not from target (192.0.2.77 != 192.0.2.1)"}));
    for (const Bytes &stranger : strangers) {
        Watch watch;
        watch.receiveFromScript();
        Bytes packet = ipPacket(plainMessage(0, 0, 1));
        watch.script.push_back(packet);
        std::copy(stranger.begin(), stranger.end(), watch.script.front().begin() + 12);
        EXPECT_EQ(icmpping("wan0", gatewayText, 0), -1) << hex(stranger);
        watch.script.push_back(packet);
        EXPECT_EQ(icmpping("wan0", gatewayText, 0), 0);
    }
}

TEST_F(PingPackets, AnyMemberOfAGroupMayAnswerAndAnyAddressOfThisMachineForZero) {
    for (const char *target : {"224.0.0.1", "239.255.255.250", "0.0.0.0"}) {
        Watch watch;
        watch.receiveFromScript();
        watch.calls->sendto = [](int, const void *, size_t size, const sockaddr *, socklen_t) {
            return std::optional<ssize_t>(size);
        };
        watch.script.push_back(ipPacket(plainMessage(0, 0, 1)));
        EXPECT_EQ(icmpping("wan0", target, 0), 0) << target;
    }
}

// ---- rawping: set-up ----

TEST_F(PingPackets, TheInterfaceIsAskedForByFifteenCharactersOfItsName) {
    ConnectedLog log;
    vxtest::ip("link add fifteen-letters type veth peer name fifteen-peer");
    Watch watch;
    std::vector<std::string> names;
    watch.calls->ioctl = [&](int, unsigned long request, void *argument) -> std::optional<int> {
        ifreq asked{};
        std::memcpy(&asked, argument, sizeof asked);
        if (request != SIOCGIFFLAGS) names.emplace_back(asked.ifr_name, sizeof asked.ifr_name);
        return std::nullopt;
    };
    EXPECT_EQ(rawping("fifteen-letters16", targetText, nullptr, 0), -1);
    const std::string fifteen("fifteen-letters\0", 16);
    EXPECT_EQ(names, (std::vector<std::string>{fifteen, fifteen})) << "index, and then the address that it has not";
    EXPECT_EQ(log.take(), (Lines{{LOG_ERR,
                                  "rawping[fifteen-letters16]: can't get interface address (Cannot assign requested "
                                  "address)"}}));
    vxtest::ip("link del fifteen-letters");
}

TEST_F(PingPackets, OfSeveralAddressesOfAHostTheFirstIsUsed) {
    const std::string hosts = vxtest::readFile("/etc/hosts");
    vxtest::writeFile("/etc/host.conf", "multi on\n");
    vxtest::writeFile("/etc/hosts", "192.0.2.1 many\n192.0.2.77 many\n2001:db8::5 many\n198.51.100.9 many\n");
    Watch watch;
    EXPECT_EQ(icmpping("wan0", "many", 1000), 0);
    EXPECT_EQ(rawping("wan0", "many", nullptr, 1000), 0);
    vxtest::writeFile("/etc/hosts", "192.0.2.77 many\n192.0.2.1 many\n");
    EXPECT_EQ(icmpping("wan0", "many", 0), -1);
    vxtest::writeFile("/etc/hosts", hosts);
    ASSERT_EQ(watch.sentTo.size(), 3U);
    EXPECT_EQ(hex(watch.sentTo[0].data() + 4, 4), "c0 00 02 01");
    EXPECT_EQ(hex(watch.sentTo[1].data() + 4, 4), "c0 00 02 01");
    EXPECT_EQ(hex(watch.sentTo[2].data() + 4, 4), "c0 00 02 4d");
}

TEST_F(PingPackets, GivenAddressesAreNotAskedFor) {
    Watch watch;
    std::vector<unsigned long> asked;
    watch.calls->ioctl = [&](int, unsigned long request, void *) -> std::optional<int> {
        asked.push_back(request);
        return std::nullopt;
    };
    EXPECT_EQ(__rawping("wan0", gatewayText, nullptr, "192.0.2.10", "255.255.255.0", 1000, -1, nullptr, nullptr), 0);
    EXPECT_EQ(asked, (std::vector<unsigned long>{SIOCGIFINDEX, SIOCGIFHWADDR, SIOCGIFFLAGS}));
}

TEST_F(PingPackets, WhileItWaitsOneSocketIsOpen) {
    ConnectedLog log;
    knowGateway(wan->gateway);
    const auto before = vxtest::openDescriptors();
    for (const char *target : {gatewayText, targetText}) {
        Watch watch;
        int looks = 0;
        watch.calls->recvmsg = [&](int, msghdr *, int) -> std::optional<ssize_t> {
            ++looks;
            EXPECT_EQ(vxtest::openDescriptors().size(), before.size() + 1) << "the query socket is closed by now";
            return vxtest::failing(EAGAIN);
        };
        EXPECT_EQ(rawping("wan0", target, gatewayText, 0), -1);
        EXPECT_EQ(looks, 3);
        EXPECT_EQ(vxtest::openDescriptors(), before);
    }
}

// ---- rawping at IP level ----

TEST_F(PingPackets, TheIpLevelEchoIsTheseBytes) {
    const std::pair<int, size_t> sizes[] = {{-1, 48},
                                            {0, 48},
                                            {10, 48},
                                            {47, 48},
                                            {48, 48},
                                            {49, 49},
                                            {100, 100},
                                            {1449, 1449},
                                            {1450, 1450},
                                            {1451, 1450},
                                            {2000, 1450},
                                            {0x7FFFFFFF, 1450},
                                            {-0x7FFFFFFF - 1, 48}};
    for (const auto &[asked, size] : sizes) {
        SCOPED_TRACE(asked);
        std::unique_ptr<vxtest::Wire> wire;
        wan->gateway.inside([&] { wire = std::make_unique<vxtest::Wire>("gw0"); });
        Watch watch;
        EXPECT_EQ(__rawping("wan0", gatewayText, nullptr, nullptr, nullptr, 1000, asked, nullptr, nullptr), 0);
        ASSERT_EQ(watch.sent.size(), 1U);
        const uint16_t identifier = memoryNumber(watch.sent[0], 24);
        EXPECT_EQ(hex(watch.sent[0]), hex(ipEcho(size, identifier, 1, {192, 0, 2, 10}, {192, 0, 2, 1})));
        EXPECT_EQ(hex(watch.sentTo[0]), hex(memoryOrder(AF_INET) + Bytes{0, 0, 192, 0, 2, 1} + Bytes(8)));

        // On the wire the kernel has put its own length, identification and checksum into the header.
        const auto frame = wire->nextIcmp();
        ASSERT_TRUE(frame.has_value());
        Bytes expected = watch.sent[0];
        expected[2] = static_cast<uint8_t>(size >> 8);
        expected[3] = static_cast<uint8_t>(size & 0xFF);
        expected[4] = frame->bytes.at(18);
        expected[5] = frame->bytes.at(19);
        seal(expected, 10, 0, 20);
        EXPECT_EQ(hex(tail(frame->bytes, 14)), hex(expected));
    }
}

TEST_F(PingPackets, AGivenSourceIsUsed) {
    Watch watch;
    watch.receiveFromScript();
    EXPECT_EQ(rawpingFrom("203.0.113.5", "255.255.255.0"), -1);
    EXPECT_EQ(hex(watch.sent.at(0).data() + 12, 4), "cb 00 71 05");
}

TEST_F(PingPackets, AnIpLevelPingLogsItsCourse) {
    ConnectedLog log;
    Watch watch;
    EXPECT_EQ(rawping("wan0", gatewayText, nullptr, 1000), 0);
    const std::string identifier = std::to_string(memoryNumber(watch.sent.at(0), 24));
    auto lines = log.take();
    lines.erase(lines.begin(), lines.begin() + 3);
    EXPECT_EQ(lines, (Lines{{LOG_DEBUG, "rawping[wan0]: generated ip echo packet for 192.0.2.1"},
                            {LOG_DEBUG, "rawping[wan0]: ip packet transmitted for 192.0.2.1 (48 bytes)"},
                            {LOG_DEBUG, "rawping[wan0]: received ip packet (48 bytes)\n"},
                            {LOG_DEBUG, "rawping[wan0]: RECEIVED ip reply (seq 1, id " + identifier +
                                            ", need seq 1, id " + identifier + ")"},
                            {LOG_DEBUG, "rawping[wan0]: ip ping to 192.0.2.1 succeeded"}}));
}

TEST_F(PingPackets, AnIpLevelReplyOfAnotherHostDoesNotCount) {
    ConnectedLog log;
    vxtest::Wan::answers(wan->gateway, false);
    std::unique_ptr<vxtest::Responder> responder;
    wan->gateway.inside([&] { responder = std::make_unique<vxtest::Responder>("gw0", repliesFrom(strangers[0])); });
    EXPECT_EQ(rawping("wan0", gatewayText, nullptr, 0), -1);
    EXPECT_GE(responder->seen(), 1);
    EXPECT_THAT(log.take(),
                testing::Contains(LogLine{LOG_DEBUG, "rawping[wan0]: not from target (192.0.2.77 != 192.0.2.1)"}));
    for (const Bytes &stranger : strangers) {
        Watch watch;
        watch.receiveFromScript([&](const Bytes &) {
            Bytes packet = ipPacket(Bytes(8) + Bytes(20));
            std::memcpy(&packet[24], &watch.sent.at(0)[24], 4);
            std::copy(stranger.begin(), stranger.end(), packet.begin() + 12);
            return packet;
        });
        watch.script.emplace_back();
        EXPECT_EQ(rawping("wan0", gatewayText, nullptr, 0), -1) << hex(stranger);
    }
}

TEST_F(PingPackets, TheClockIsReadARandomNumberOfTimesForTheIdentifier) {
    std::set<int> readings;
    for (int i = 0; i < 20; ++i) {
        Watch watch;
        watch.calls->sendto = [](int, const void *, size_t, const sockaddr *, socklen_t) {
            return std::optional<ssize_t>(vxtest::failing(ENETUNREACH));
        };
        int clockReadings = 0;
        const vxtest::Hooked clock(vxtest::hooks::gettimeofday, [&](timeval *, void *) -> std::optional<int> {
            ++clockReadings;
            return std::nullopt;
        });
        EXPECT_EQ(rawping("wan0", gatewayText, nullptr, 0), -1);
        EXPECT_GE(clockReadings, 1);
        EXPECT_LE(clockReadings, 4096);
        readings.insert(clockReadings);
    }
    EXPECT_GT(readings.size(), 10U);
}

TEST_F(PingPackets, TheIdentifierComesFromTheTime) {
    for (int i = 0; i < 20; ++i) {
        Watch watch;
        timeval before{};
        timeval after{};
        ::gettimeofday(&before, nullptr);
        EXPECT_EQ(rawping("wan0", gatewayText, nullptr, 1000), 0);
        ::gettimeofday(&after, nullptr);
        const uint16_t identifier = memoryNumber(watch.sent.at(0), 24);
        bool found = false;
        for (timeval time = before; !found && timercmp(&time, &after, <=);) {
            const int product =
                static_cast<int16_t>(time.tv_sec & 0xFFFF) * static_cast<int16_t>(time.tv_usec & 0xFFFF);
            found = static_cast<uint16_t>(product) == identifier;
            if (++time.tv_usec == 1000000) {
                time.tv_usec = 0;
                ++time.tv_sec;
            }
        }
        EXPECT_TRUE(found) << identifier;
    }
}

TEST_F(PingPackets, AnIpLevelReplyIsLookedAtThisClosely) {
    ConnectedLog log;
    // The script's packets carry identifier 0 plus what is added to ours.
    const auto received = [](int sequence, int identifierOff) {
        return std::string("RECEIVED ") + std::to_string(sequence) + (identifierOff == 0 ? " ours" : " other");
    };
    const struct {
        const char *name;
        uint16_t sequence;
        uint16_t identifierOff;
        std::function<Bytes(uint16_t identifier, uint16_t sequence)> packet;
        std::string line;
        bool good;
    } cases[] = {
        {"1 byte", 1, 0, [](auto, auto) { return Bytes{0x45}; }, "packet is too short (1 bytes, need 48 bytes)", false},
        {"47 bytes", 1, 0, [](auto i, auto s) { return ipPacket(ipMessage(0, i, s, 27)); },
         "packet is too short (47 bytes, need 48 bytes)", false},
        {"48 bytes", 1, 0, [](auto i, auto s) { return ipPacket(ipMessage(0, i, s)); }, received(1, 0), true},
        {"another protocol", 1, 0, [](auto i, auto s) { return ipPacket(ipMessage(0, i, s), 0, 17); },
         "not an ICMP message", false},
        {"a request", 1, 0, [](auto i, auto s) { return ipPacket(ipMessage(8, i, s)); }, "not an ICMP REPLY message",
         false},
        {"another sequence number", 2, 0, [](auto i, auto s) { return ipPacket(ipMessage(0, i, s)); }, received(2, 0),
         false},
        {"a sequence number in network order", 256, 0, [](auto i, auto s) { return ipPacket(ipMessage(0, i, s)); },
         received(256, 0), false},
        {"another identifier", 1, 1, [](auto i, auto s) { return ipPacket(ipMessage(0, i, s)); }, received(1, 1),
         false},
        {"options: the type is read at byte 20", 1, 0, [](auto i, auto s) { return ipPacket(ipMessage(0, i, s), 4); },
         "not an ICMP REPLY message", false},
        {"a header length of 0: still byte 20", 1, 0,
         [](auto i, auto s) {
             Bytes packet = ipPacket(ipMessage(0, i, s));
             packet[0] = 0;
             return packet;
         },
         received(1, 0), true},
    };
    for (const auto &item : cases) {
        SCOPED_TRACE(item.name);
        Watch watch;
        uint16_t own = 0;
        watch.receiveFromScript([&](const Bytes &) {
            own = memoryNumber(watch.sent.at(0), 24);
            return item.packet(static_cast<uint16_t>(own + item.identifierOff), item.sequence);
        });
        watch.script.emplace_back();
        EXPECT_EQ(rawping("wan0", gatewayText, nullptr, 0), item.good ? 0 : -1);
        const auto lines = log.take();
        std::string expected = "rawping[wan0]: " + item.line;
        if (item.line.rfind("RECEIVED", 0) == 0) {
            expected = "rawping[wan0]: RECEIVED ip reply (seq " + std::to_string(item.sequence) + ", id " +
                       std::to_string(static_cast<uint16_t>(own + item.identifierOff)) + ", need seq 1, id " +
                       std::to_string(own) + ")";
        }
        EXPECT_EQ(lines.at(6), (LogLine{LOG_DEBUG, expected}));
        EXPECT_EQ(lines.at(7).priority, LOG_DEBUG);
    }
}

TEST_F(PingPackets, MoreThan1024ForeignPacketsEndTheWaitEarly) {
    ConnectedLog log;
    Watch watch;
    watch.receiveFromScript();
    watch.script.assign(2000, ipPacket(ipMessage(8, 1, 1)));
    EXPECT_EQ(rawping("wan0", gatewayText, nullptr, 10000), -1);
    EXPECT_EQ(watch.script.size(), 2000U - 1024);
    EXPECT_TRUE(watch.sleepsNs.empty());
    EXPECT_EQ(log.take().back(), (LogLine{LOG_DEBUG, "rawping[wan0]: received no valid ip reply from 192.0.2.1"}));
}

// ---- rawping at link level ----

TEST_F(PingPackets, TheLinkLevelEchoIsTheseBytes) {
    knowGateway(wan->gateway);
    const std::pair<int, size_t> sizes[] = {{-1, 48}, {10, 48}, {48, 48}, {49, 49}, {1450, 1450}, {2000, 1450}};
    for (const auto &[asked, size] : sizes) {
        SCOPED_TRACE(asked);
        std::unique_ptr<vxtest::Wire> wire;
        wan->gateway.inside([&] { wire = std::make_unique<vxtest::Wire>("gw0"); });
        Watch watch;
        EXPECT_EQ(__rawping("wan0", targetText, gatewayText, nullptr, nullptr, 1000, asked, nullptr, nullptr), 0);
        ASSERT_EQ(watch.sent.size(), 1U);
        const Bytes expected = linkEcho(wan->gateway, size, number(watch.sent[0], 38), 1);
        EXPECT_EQ(hex(watch.sent[0]), hex(expected));
        const auto frame = wire->nextIcmp();
        ASSERT_TRUE(frame.has_value());
        EXPECT_EQ(hex(frame->bytes), hex(expected)) << "the kernel does not rewrite a frame";

        sockaddr_ll to{};
        ASSERT_EQ(watch.sentTo[0].size(), sizeof to);
        std::memcpy(&to, watch.sentTo[0].data(), sizeof to);
        EXPECT_EQ(to.sll_family, AF_PACKET);
        EXPECT_EQ(to.sll_ifindex, static_cast<int>(vxtest::interfaceIndex("wan0")));
        EXPECT_EQ(to.sll_hatype, 1);
        EXPECT_EQ(to.sll_pkttype, 3);
        EXPECT_EQ(to.sll_halen, 6);
        EXPECT_EQ(hex(to.sll_addr, 8), hex(Bytes(expected.begin(), expected.begin() + 6) + Bytes(2)));
    }
}

TEST_F(PingPackets, AGivenSourceStandsInTheFrame) {
    knowGateway(wan->gateway);
    Watch watch;
    watch.receiveFromScript();
    EXPECT_EQ(__rawping("wan0", targetText, gatewayText, "203.0.113.5", "255.255.255.0", 0, -1, nullptr, nullptr), -1);
    EXPECT_EQ(hex(watch.sent.at(0)), hex(linkEcho(wan->gateway, 48, number(watch.sent[0], 38), 1, {203, 0, 113, 5})));
}

TEST_F(PingPackets, TheFilterIsTheseThirteenInstructions) {
    knowGateway(wan->gateway);
    Watch watch;
    std::vector<sock_filter> program;
    sockaddr_ll bound{};
    watch.calls->setsockopt = [&](int, int, int option, const void *value, socklen_t length) -> std::optional<int> {
        if (option == SO_ATTACH_FILTER) {
            sock_fprog filter{};
            EXPECT_EQ(length, sizeof filter);
            std::memcpy(&filter, value, sizeof filter);
            program.assign(filter.filter, filter.filter + filter.len);
        }
        return std::nullopt;
    };
    watch.calls->bind = [&](int, const sockaddr *address, socklen_t length) -> std::optional<int> {
        EXPECT_EQ(length, sizeof bound);
        std::memcpy(&bound, address, sizeof bound);
        return std::nullopt;
    };
    EXPECT_EQ(rawping("wan0", targetText, gatewayText, 1000), 0);
    const uint16_t identifier = number(watch.sent.at(0), 38);
    const uint32_t expected[][4] = {{0x28, 0, 0, 12}, {0x15, 0, 10, 0x0800}, {0x30, 0, 0, 23},         {0x15, 0, 8, 1},
                                    {0x28, 0, 0, 20}, {0x45, 6, 0, 0x1FFF},  {0xb1, 0, 0, 14},         {0x50, 0, 0, 14},
                                    {0x15, 0, 3, 0},  {0x48, 0, 0, 18},      {0x15, 0, 1, identifier}, {0x06, 0, 0, 96},
                                    {0x06, 0, 0, 0}};
    ASSERT_EQ(program.size(), 13U);
    for (size_t i = 0; i < program.size(); ++i) {
        EXPECT_EQ(program[i].code, expected[i][0]) << i;
        EXPECT_EQ(program[i].jt, expected[i][1]) << i;
        EXPECT_EQ(program[i].jf, expected[i][2]) << i;
        EXPECT_EQ(program[i].k, expected[i][3]) << i;
    }
    EXPECT_EQ(bound.sll_family, AF_PACKET);
    EXPECT_EQ(bound.sll_protocol, htons(0x0800));
    EXPECT_EQ(bound.sll_ifindex, static_cast<int>(vxtest::interfaceIndex("wan0")));
}

TEST_F(PingPackets, AFloodOfForeignFramesNeverReachesTheProcess) {
    knowGateway(wan->gateway);
    vxtest::Wan::answers(wan->target, false);
    Watch watch;
    std::atomic<bool> stop{false};
    std::atomic<int> flooded{0};
    int reached = 0;
    watch.calls->recvmsg = [&](int fd, msghdr *message, int flags) -> std::optional<ssize_t> {
        const ssize_t got = ::syscall(SYS_recvmsg, fd, message, flags);
        if (got > 0) ++reached;
        return got;
    };
    watch.calls->nanosleep = nullptr;
    // The answer comes after a while full of noise: frames that differ from it in one thing each.
    std::unique_ptr<vxtest::Responder> responder;
    std::unique_ptr<vxtest::Wire> wire;
    wan->gateway.inside([&] {
        wire = std::make_unique<vxtest::Wire>("gw0");
        responder = std::make_unique<vxtest::Responder>("gw0", [&](const Bytes &request) {
            if (request[33] != 9) return std::vector<Bytes>{};  // not for the target
            const Bytes good = vxtest::echoReply(request);
            std::vector<Bytes> noise(7, good);
            noise[0][38] ^= 0x80;  // identifier
            noise[1][39] ^= 1;
            noise[2][34] = 8;     // a request
            noise[3][34] = 3;     // unreachable
            noise[4][20] = 0x00;  // a fragment
            noise[4][21] = 0x01;
            noise[5][23] = 17;    // another protocol
            noise[6][13] = 0x06;  // no IP
            std::vector<Bytes> all;
            for (int i = 0; i < 300; ++i) all.insert(all.end(), noise.begin(), noise.end());
            flooded = static_cast<int>(all.size());
            all.push_back(good);
            return all;
        });
    });
    // and noise from before the socket is there until after it is gone
    std::thread flood([&] {
        Bytes frame = vxtest::echoReply(linkEcho(wan->gateway, 48, 1, 1));
        for (uint16_t i = 0; !stop; ++i) {
            frame[34] = i % 2 == 0 ? 8 : 3;
            wire->send(frame);
            if (i % 16 == 0) std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
    });
    const int result = rawping("wan0", targetText, gatewayText, 5000);
    stop = true;
    flood.join();
    EXPECT_EQ(result, 0);
    EXPECT_EQ(flooded, 2100);
    EXPECT_EQ(reached, 1) << "the reply and nothing else";
}

TEST_F(PingPackets, AMarkOfZeroIsSetTooAndTheIpLevelNeverMarks) {
    if (vxtest::emulated()) GTEST_SKIP() << "the emulator refuses SO_MARK";
    knowGateway(wan->gateway);
    Watch watch;
    std::vector<std::string> marks;
    watch.calls->setsockopt = [&](int, int level, int option, const void *value,
                                  socklen_t length) -> std::optional<int> {
        if (level == SOL_SOCKET && option == SO_MARK) marks.push_back(hex(static_cast<const uint8_t *>(value), length));
        return std::nullopt;
    };
    const uint32_t zero = 0;
    const uint32_t some = 7;
    EXPECT_EQ(__rawping("wan0", targetText, gatewayText, nullptr, nullptr, 1000, -1, nullptr, &zero), 0);
    EXPECT_EQ(marks, (std::vector<std::string>{"00 00 00 00"}));
    EXPECT_EQ(rawping("wan0", targetText, gatewayText, 1000), 0);
    EXPECT_EQ(__rawping("wan0", gatewayText, nullptr, nullptr, nullptr, 1000, -1, nullptr, &some), 0);
    EXPECT_EQ(marks.size(), 1U);
}

TEST_F(PingPackets, ALinkLevelReplyIsLookedAtThisClosely) {
    ConnectedLog log;
    knowGateway(wan->gateway);
    const std::string own = colons(vxtest::hardwareAddress("wan0"));
    std::string gateway;
    wan->gateway.inside([&] { gateway = colons(vxtest::hardwareAddress("gw0")); });
    using Change = std::function<void(Bytes &)>;
    const struct {
        const char *name;
        Change change;
        std::vector<std::string> lines;  // #s and #i are placeholders of the frame's numbers
        bool good;
    } cases[] = {
        {"a good one", [](Bytes &) {}, {"received packet #", "RECEIVED raw reply #"}, true},
        {"1 byte", [](Bytes &f) { f.resize(1); }, {"packet is too short (1 bytes, need 42 bytes)"}, false},
        {"41 bytes", [](Bytes &f) { f.resize(41); }, {"packet is too short (41 bytes, need 42 bytes)"}, false},
        {"42 bytes", [](Bytes &f) { f.resize(42); }, {"received packet #", "RECEIVED raw reply #"}, true},
        {"options that it is too short for",
         [](Bytes &f) {
             f.resize(42);
             f[14] = 0x4F;
         },
         {"packet is too short (42 bytes, need 82 bytes)"},
         false},
        {"for another host",
         [](Bytes &f) { f[5] ^= 1; },
         {"received packet #", "not for us (@0 != " + own + ")"},
         false},
        {"from another host",
         [](Bytes &f) { f[11] ^= 1; },
         {"received packet #", "not from target (@6 != " + gateway + ")"},
         false},
        {"another protocol", [](Bytes &f) { f[23] = 17; }, {"not an ICMP message (proto 17)"}, false},
        {"another protocol for another host",
         [](Bytes &f) { f[23] = 6, f[0] ^= 2; },
         {"not for us (@0 != " + own + ")"},
         false},
        {"a request", [](Bytes &f) { f[34] = 8; }, {"received packet #", "not an ICMP REPLY message"}, false},
        {"another sequence number", [](Bytes &f) { f[41] = 2; }, {"received packet #", "RECEIVED raw reply #"}, false},
        {"another identifier", [](Bytes &f) { f[38] ^= 1; }, {"received packet #", "RECEIVED raw reply #"}, false},
        {"a header length below 20: read as 20 bytes",
         [](Bytes &f) { f[14] = 0x40; },
         {"received packet #", "RECEIVED raw reply #"},
         true},
    };
    for (const auto &item : cases) {
        SCOPED_TRACE(item.name);
        Watch watch;
        Bytes frame;
        watch.receiveFromScript([&](const Bytes &) {
            frame = vxtest::echoReply(watch.sent.at(0));
            item.change(frame);
            return frame;
        });
        watch.script.emplace_back();
        EXPECT_EQ(rawping("wan0", targetText, gatewayText, 0), item.good ? 0 : -1);
        auto lines = log.take();
        lines.erase(lines.begin(), lines.begin() + 7);
        const std::string ownId = std::to_string(number(watch.sent.at(0), 38));
        Lines expected;
        for (std::string line : item.lines) {
            if (line.back() == '#') {
                line.pop_back();
                line += "(seq " + std::to_string(number(frame, 40)) + ", id " + std::to_string(number(frame, 38)) +
                        ", need seq 1, id " + ownId + ")";
            }
            if (const size_t at = line.find('@'); at != std::string::npos) {
                const size_t from = line[at + 1] == '6' ? 6 : 0;
                const std::string address = colons(Bytes(frame.begin() + static_cast<ptrdiff_t>(from),
                                                         frame.begin() + static_cast<ptrdiff_t>(from) + 6));
                line.replace(at, 2, address);
            }
            expected.push_back({LOG_DEBUG, "rawping[wan0]: " + line});
        }
        expected.push_back(item.good
                               ? LogLine{LOG_DEBUG, "rawping[wan0]: raw ping to 198.51.100.9 succeeded"}
                               : LogLine{LOG_ERR, "rawping[wan0]: received no valid raw reply from 198.51.100.9"});
        EXPECT_EQ(lines, expected);
    }
}

TEST_F(PingPackets, ALinkLevelReplyOfAnotherHostDoesNotCount) {
    ConnectedLog log;
    knowGateway(wan->gateway);
    for (const Bytes &stranger : strangers) {
        Watch watch;
        watch.receiveFromScript([&](const Bytes &) {
            Bytes frame = vxtest::echoReply(watch.sent.at(0));
            std::copy(stranger.begin(), stranger.end(), frame.begin() + 26);
            return frame;
        });
        watch.script.emplace_back();
        EXPECT_EQ(rawping("wan0", targetText, gatewayText, 0), -1) << hex(stranger);
    }
    log.take();
    // On the wire: the gateway itself forges.
    vxtest::Wan::answers(wan->target, false);
    std::unique_ptr<vxtest::Responder> responder;
    wan->gateway.inside([&] { responder = std::make_unique<vxtest::Responder>("gw0", repliesFrom(strangers[0])); });
    EXPECT_EQ(rawping("wan0", targetText, gatewayText, 0), -1);
    EXPECT_GE(responder->seen(), 1);
    EXPECT_THAT(log.take(),
                testing::Contains(LogLine{LOG_DEBUG, "rawping[wan0]: not from target (192.0.2.77 != 198.51.100.9)"}));
}

TEST_F(PingPackets, TheLinkLevelWaitHasTheSameBudget) {
    knowGateway(wan->gateway);
    for (const unsigned int timeout : {0U, 601U, 60000U}) {
        Watch watch;
        watch.receiveFromScript();
        EXPECT_EQ(rawping("wan0", targetText, gatewayText, timeout), -1);
        EXPECT_EQ(watch.sleepsNs, std::vector<long>(sleepsFor(timeout), 300000000L)) << timeout;
    }
    Watch watch;
    watch.receiveFromScript([&](const Bytes &) {
        Bytes frame = vxtest::echoReply(watch.sent.at(0));
        if (!watch.script.empty() && watch.script.size() > 1) frame[41] = 2;
        return frame;
    });
    watch.script.resize(1024);
    EXPECT_EQ(rawping("wan0", targetText, gatewayText, 0), 0) << "the 1024th";
    watch.sent.clear();
    watch.script.resize(1025);
    EXPECT_EQ(rawping("wan0", targetText, gatewayText, 0), -1) << "the 1025th";
}

TEST_F(PingPackets, TheReceiveLengthIsTheBufferSize) {
    knowGateway(wan->gateway);
    for (const int size : {48, 700, 1450}) {
        Watch watch;
        std::vector<size_t> rooms;
        watch.calls->recvmsg = [&](int, msghdr *message, int) -> std::optional<ssize_t> {
            rooms.push_back(message->msg_iov[0].iov_len);
            return std::nullopt;
        };
        EXPECT_EQ(__rawping("wan0", targetText, gatewayText, nullptr, nullptr, 1000, size, nullptr, nullptr), 0);
        EXPECT_EQ(__rawping("wan0", gatewayText, nullptr, nullptr, nullptr, 1000, size, nullptr, nullptr), 0);
        for (const size_t room : rooms) EXPECT_EQ(room, static_cast<size_t>(size));
    }
}

TEST_F(PingPackets, OfAFrameAtMost96BytesAreKept) {
    knowGateway(wan->gateway);
    const std::pair<int, ssize_t> sizes[] = {{48, 48}, {95, 95}, {96, 96}, {97, 96}, {1450, 96}};
    for (const auto &[size, kept] : sizes) {
        Watch watch;
        ssize_t received = 0;
        watch.calls->recvmsg = [&](int fd, msghdr *message, int flags) -> std::optional<ssize_t> {
            const ssize_t got = ::syscall(SYS_recvmsg, fd, message, flags);
            if (got > 0) received = got;
            return got;
        };
        EXPECT_EQ(__rawping("wan0", targetText, gatewayText, nullptr, nullptr, 1000, size, nullptr, nullptr), 0);
        EXPECT_EQ(received, kept) << size;
    }
}

// ---- the gateway's hardware address ----

TEST_F(PingPackets, AnUnknownGatewayIsPingedFirst) {
    ConnectedLog log;
    forgetGateway();
    std::unique_ptr<vxtest::Wire> wire;
    wan->gateway.inside([&] { wire = std::make_unique<vxtest::Wire>("gw0"); });
    Watch watch;
    EXPECT_EQ(rawping("wan0", targetText, gatewayText, 1000), 0);
    ASSERT_EQ(watch.sent.size(), 2U);
    const uint16_t identifier = memoryNumber(watch.sent[0], 24);
    EXPECT_EQ(hex(watch.sent[0]), hex(ipEcho(48, identifier, 1, {192, 0, 2, 10}, {192, 0, 2, 1})));
    EXPECT_EQ(hex(watch.sent[1]), hex(linkEcho(wan->gateway, 48, identifier, 2))) << "the sequence goes on";
    const auto texts = log.texts();
    EXPECT_EQ(texts.at(3), "rawping[wan0]: can't resolve HW address for 192.0.2.1 -> send query");
    EXPECT_EQ(texts.at(4), "rawping[wan0]: pinging 192.0.2.1");
    EXPECT_EQ(texts.back(), "rawping[wan0]: raw ping to 198.51.100.9 succeeded");
    EXPECT_EQ(wire->nextIcmp()->bytes.at(33), 1);
    EXPECT_EQ(wire->nextIcmp()->bytes.at(33), 9);
    forgetGateway();
}

TEST(ArpLine, IsUsedWhenItIsCompleteAndTheHosts) {
    using vx::arp::lookUp;
    const auto found = [](const std::string &line, const std::string &host) -> std::string {
        const auto address = lookUp(line, host);
        return address.has_value() ? hex(address->data(), address->size()) : "none";
    };
    const std::string line = "192.0.2.1        0x1         0x2         02:00:5e:10:fF:0a     *        wan0\n";
    EXPECT_EQ(found(line, "192.0.2.1"), "02 00 5e 10 ff 0a");
    EXPECT_EQ(found(line, "192.0.2"), "none");
    EXPECT_EQ(found(line, "192.0.2.11"), "none");
    EXPECT_EQ(found("192.0.2.11 0x1 0x2 02:00:5e:10:ff:0a * wan0\n", "192.0.2.1"), "none");
    EXPECT_EQ(found(" " + line, "192.0.2.1"), "none");
    EXPECT_EQ(found("192.0.2.1\t0x1 0x2 02:00:5e:10:ff:0a * wan0\n", "192.0.2.1"), "none") << "a blank, not a tab";
    EXPECT_EQ(found("192.0.2.1 0x1 0x2 02:00:5e:10:ff:0a", "192.0.2.1"), "02 00 5e 10 ff 0a") << "four words do";
    EXPECT_EQ(found("192.0.2.1 0x1 0x2", "192.0.2.1"), "none");
    EXPECT_EQ(found("192.0.2.1 ", "192.0.2.1"), "none");
    EXPECT_EQ(found("192.0.2.1", "192.0.2.1"), "none");
    EXPECT_EQ(found("", "192.0.2.1"), "none");
    EXPECT_EQ(found("IP address       HW type     Flags       HW address            Mask     Device\n", "IP"), "none");
}

TEST(ArpLine, FlagsAreHexadecimalOctalOrDecimal) {
    for (const char *flags : {"0x2", "0x6", "0X2", "2", "02", "6", "0xc2", "3", "22", "0x2x"}) {
        EXPECT_TRUE(vx::arp::lookUp(std::string("h 0x1 ") + flags + " 1:2:3:4:5:6", "h").has_value()) << flags;
    }
    for (const char *flags : {"0x0", "0", "0x4", "0x1", "x2", "-", "0x", "0x100000002", "8", "010"}) {
        EXPECT_FALSE(vx::arp::lookUp(std::string("h 0x1 ") + flags + " 1:2:3:4:5:6", "h").has_value()) << flags;
    }
}

TEST(ArpLine, TheHardwareAddressHasSixBytes) {
    for (const char *address : {"1:2:3:4:5", "1:2:3:4:5:", "1:2:3:4:5:6:7", "1:2:3:4:5:g", "1:2:3:4:5:666", "123456",
                                ":1:2:3:4:5", "1::3:4:5:6", "1-2-3-4-5-6", "*", "-1:2:3:4:5:6", "1:2:3:4:5:+6"}) {
        EXPECT_FALSE(vx::arp::lookUp(std::string("h 0x1 0x2 ") + address + " * wan0", "h").has_value()) << address;
    }
    EXPECT_TRUE(vx::arp::lookUp("h 0x1 0x2 1:2:3:4:5:6 * wan0", "h").has_value());
    EXPECT_TRUE(vx::arp::lookUp("h 0x1 0x2 FF:ff:00:aA:Bb:01 * wan0", "h").has_value());
}

const std::string arpHeading = "IP address       HW type     Flags       HW address            Mask     Device\n";
const std::string arpEntry = "192.0.2.1        0x1         0x2         02:00:00:00:00:";

// Where a ping with this table sends its echo: a hardware address, or "ip" where the table does not help.
std::string wayWith(const std::string &table) {
    const ArpTable arp(table.c_str());
    Watch watch;
    watch.receiveFromScript();
    EXPECT_EQ(rawping("wan0", targetText, gatewayText, 0), -1);
    const bool linkLevel = watch.sent.size() == 1;
    EXPECT_TRUE(linkLevel || watch.sent.size() == 2) << "the query and the fallback";
    return linkLevel ? hex(watch.sent[0].data(), 6) : "ip";
}

TEST_F(PingPackets, TheFirstUsableLineOfTheTableCountsWhateverItsDevice) {
    EXPECT_EQ(wayWith(arpHeading + "192.0.2.10       0x1         0x2         02:00:00:00:00:01     *        wan0\n" +
                      "192.0.2.1        0x1         0x0         02:00:00:00:00:02     *        wan0\n" +
                      "192.0.2.1        0x1         0x2         *                     *        wan0\n" + arpEntry +
                      "03     *        other9\n" + arpEntry + "04     *        wan0\n"),
              "02 00 00 00 00 03");
    EXPECT_EQ(wayWith(arpHeading + arpEntry + "05"), "02 00 00 00 00 05") << "no newline at the end";
    EXPECT_EQ(wayWith(arpHeading), "ip");
    EXPECT_EQ(wayWith(""), "ip");
}

TEST_F(PingPackets, LinesOfTheTableAreReadInPiecesOf255Characters) {
    for (const size_t length : {254U, 255U, 256U}) {
        EXPECT_EQ(wayWith(std::string(length, 'x') + arpEntry + "06 * wan0\n"),
                  length == 255 ? "02 00 00 00 00 06" : "ip")
            << length;
    }
}

// ---- round-trip time ----

using Nanoseconds = std::chrono::nanoseconds;

Nanoseconds sinceEpoch(const timespec &time) { return std::chrono::seconds(time.tv_sec) + Nanoseconds(time.tv_nsec); }

Nanoseconds wallClock() {
    timespec time{};
    ::clock_gettime(CLOCK_REALTIME, &time);
    return sinceEpoch(time);
}

// Adds a control message to a received one, as the kernel does.
void attach(msghdr *message, int type, const void *data, size_t size) {
    ASSERT_GE(message->msg_controllen, CMSG_SPACE(size));
    message->msg_controllen = CMSG_SPACE(size);
    cmsghdr *const part = CMSG_FIRSTHDR(message);
    part->cmsg_level = SOL_SOCKET;
    part->cmsg_type = type;
    part->cmsg_len = CMSG_LEN(size);
    std::memcpy(CMSG_DATA(part), data, size);
}

// The round trip when the reply is fetched 300 ms after the echo was sent and `note` is attached to it.
class NotedReply {
public:
    using Note = std::function<void(msghdr *message, Nanoseconds sent)>;
    Nanoseconds roundTrip(const char *target, const Note &note) {
        Watch watch;
        watch.calls->sendto = [&](int, const void *data, size_t size, const sockaddr *,
                                  socklen_t) -> std::optional<ssize_t> {
            const auto *bytes = static_cast<const uint8_t *>(data);
            echo_.assign(bytes, bytes + size);
            sent_ = wallClock();
            return static_cast<ssize_t>(size);
        };
        watch.calls->recvmsg = [&](int, msghdr *message, int) -> std::optional<ssize_t> {
            ::poll(nullptr, 0, 300);
            const size_t room = message->msg_controllen;
            const bool ipLevel = target == std::string(gatewayText);
            Bytes reply = ipLevel ? echo_ : vxtest::echoReply(echo_);
            if (ipLevel) {
                std::swap_ranges(reply.begin() + 12, reply.begin() + 16, reply.begin() + 16);
                reply[20] = 0;
            }
            const ssize_t got = vxtest::deliver(message, reply);
            message->msg_controllen = room;
            note(message, sent_);
            return got;
        };
        timespec measured{};
        before = wallClock();
        EXPECT_EQ(__rawping("wan0", target, gatewayText, nullptr, nullptr, 1000, -1, &measured, nullptr), 0);
        return sinceEpoch(measured);
    }

    Nanoseconds before{};

private:
    Bytes echo_;
    Nanoseconds sent_{};
};

TEST_F(PingPackets, TheKernelsNoteOfTheArrivalIsUsedUnlessTheClockWasSet) {
    knowGateway(wan->gateway);
    constexpr auto fetched = std::chrono::milliseconds(300);
    constexpr auto jump = std::chrono::hours(24);
    const auto at = [](Nanoseconds time) {
        timespec note{};
        note.tv_sec = time / std::chrono::seconds(1);
        note.tv_nsec = (time % std::chrono::seconds(1)).count();
        return note;
    };
    for (const char *target : {gatewayText, targetText}) {
        SCOPED_TRACE(target);
        NotedReply reply;
        Nanoseconds arrived{};
        const auto good = reply.roundTrip(target, [&](msghdr *message, Nanoseconds sent) {
            arrived = sent + std::chrono::milliseconds(10);
            const timespec note = at(arrived);
            attach(message, SCM_TIMESTAMPNS, &note, sizeof note);
        });
        EXPECT_GT(good, Nanoseconds(0));
        EXPECT_LE(good, arrived - reply.before) << "not the time when it was fetched";

        const NotedReply::Note bad[] = {
            [&](msghdr *message, Nanoseconds sent) {
                const timespec note = at(sent - jump);
                attach(message, SCM_TIMESTAMPNS, &note, sizeof note);
            },
            [&](msghdr *message, Nanoseconds sent) {
                const timespec note = at(sent + jump);
                attach(message, SCM_TIMESTAMPNS, &note, sizeof note);
            },
            [&](msghdr *message, Nanoseconds sent) {  // cut
                const timespec note = at(sent);
                attach(message, SCM_TIMESTAMPNS, &note, sizeof note - 1);
            },
            [&](msghdr *message, Nanoseconds sent) {  // another kind of note
                const timespec note = at(sent);
                attach(message, SCM_CREDENTIALS, &note, sizeof note);
            },
            [&](msghdr *message, Nanoseconds) { message->msg_controllen = 0; },
        };
        for (const auto &note : bad) {
            const auto time = reply.roundTrip(target, note);
            EXPECT_GE(time, fetched);
            EXPECT_LT(time, jump / 2);
        }
    }
}

// ---- texts, threads ----

TEST(TextRing, KeepsFourTextsAndThenReusesTheFirst) {
    vx::TextRing ring;
    const char *texts[5];
    for (int i = 0; i < 4; ++i) texts[i] = ring.keep("text " + std::to_string(i));
    for (int i = 0; i < 4; ++i) EXPECT_EQ(texts[i], "text " + std::to_string(i));
    texts[4] = ring.keep("5th");
    EXPECT_EQ(texts[4], texts[0]);
    EXPECT_STREQ(texts[0], "5th");
    EXPECT_STREQ(texts[1], "text 1");
}

TEST(TextRing, CutsAtSixtyThreeCharacters) {
    vx::TextRing ring;
    for (const size_t length : {0U, 62U, 63U, 64U, 1000U}) {
        const std::string text(length, 'x');
        EXPECT_EQ(ring.keep(text), text.substr(0, 63)) << length;
    }
}

}  // namespace
