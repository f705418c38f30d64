// SPDX-License-Identifier: MIT
// Ping at link level: frames as they leave and as they are read, the socket's filter, and the hardware address of the
// gateway from the ARP table.
#include <vxutils/ping.h>

#include <arpa/inet.h>
#include <linux/filter.h>
#include <linux/if_packet.h>
#include <syslog.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <memory>
#include <thread>

#include "support/call_hooks.h"
#include "support/emulation.h"
#include "support/ping.h"
#include "support/ping_watch.h"
#include "support/syslog_capture.h"
#include "support/wan.h"
#include "vxutils/ping_arp_line.h"

VXTEST_THREAD_HOOK(ssize_t, recv, (int fd, void *data, size_t size, int flags), (fd, data, size, flags))

namespace {

using namespace vxtest::ping;

using vxtest::hex;
using vxtest::LogLine;

using PingFrames = vxtest::ping::PingTest;

TEST_F(PingFrames, TheLinkLevelEchoIsTheseBytes) {
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

TEST_F(PingFrames, AGivenSourceIsTheSourceOfTheFramesPacket) {
    knowGateway(wan->gateway);
    Watch watch;
    watch.receiveFromScript();
    EXPECT_EQ(__rawping("wan0", targetText, gatewayText, "203.0.113.5", "255.255.255.0", 0, -1, nullptr, nullptr), -1);
    EXPECT_EQ(hex(watch.sent.at(0)), hex(linkEcho(wan->gateway, 48, number(watch.sent[0], 38), 1, {203, 0, 113, 5})));
}

TEST_F(PingFrames, TheFilterIsTheseThirteenInstructions) {
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

TEST_F(PingFrames, AFloodOfForeignFramesNeverReachesTheProcess) {
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

TEST_F(PingFrames, AtMost65536FramesFromBeforeTheFilterAreDropped) {
    knowGateway(wan->gateway);
    Watch watch;
    watch.receiveFromScript();
    int reads = 0;
    const vxtest::Hooked flood(vxtest::hooks::recv, [&](int, void *, size_t, int flags) -> std::optional<ssize_t> {
        EXPECT_EQ(flags, MSG_DONTWAIT);
        return ++reads < 200000 ? 0 : vxtest::failing(EAGAIN);
    });
    EXPECT_EQ(rawping("wan0", targetText, gatewayText, 0), -1);
    EXPECT_EQ(reads, 65536);
}

TEST_F(PingFrames, AMarkOfZeroIsSetTooAndTheIpLevelNeverMarks) {
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

TEST_F(PingFrames, ALinkLevelReplyIsLookedAtThisClosely) {
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

TEST_F(PingFrames, ALinkLevelReplyOfAnotherHostDoesNotCount) {
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

TEST_F(PingFrames, AnyHostMayAnswerABroadcast) {
    knowGateway(wan->gateway);
    Watch watch;
    watch.receiveFromScript([&](const Bytes &) {
        Bytes frame = vxtest::echoReply(watch.sent.at(0));
        std::copy(strangers[0].begin(), strangers[0].end(), frame.begin() + 26);
        return frame;
    });
    watch.script.emplace_back();
    EXPECT_EQ(rawping("wan0", "255.255.255.255", gatewayText, 0), 0);
    EXPECT_EQ(hex(&watch.sent.at(0)[30], 4), "ff ff ff ff");
}

TEST_F(PingFrames, TheLinkLevelWaitHasTheSameBudget) {
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

TEST_F(PingFrames, TheReceiveLengthIsTheBufferSize) {
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

TEST_F(PingFrames, OfAFrameAtMost96BytesAreKept) {
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

TEST_F(PingFrames, AnUnknownGatewayIsPingedFirst) {
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

TEST_F(PingFrames, TheFirstUsableLineOfTheTableCountsWhateverItsDevice) {
    EXPECT_EQ(wayWith(arpHeading + "192.0.2.10       0x1         0x2         02:00:00:00:00:01     *        wan0\n" +
                      "192.0.2.1        0x1         0x0         02:00:00:00:00:02     *        wan0\n" +
                      "192.0.2.1        0x1         0x2         *                     *        wan0\n" + arpEntry +
                      "03     *        other9\n" + arpEntry + "04     *        wan0\n"),
              "02 00 00 00 00 03");
    EXPECT_EQ(wayWith(arpHeading + arpEntry + "05"), "02 00 00 00 00 05") << "no newline at the end";
    EXPECT_EQ(wayWith(arpHeading), "ip");
    EXPECT_EQ(wayWith(""), "ip");
}

TEST_F(PingFrames, FlagsOfTheTableAreHexadecimalOctalOrDecimal) {
    const auto wayWithFlags = [](const std::string &flags) {
        return wayWith("192.0.2.1 0x1 " + flags + " 02:00:00:00:00:08 * wan0\n");
    };
    for (const char *flags : {"0x2", "0X2", "0x12", "2", "02"})
        EXPECT_EQ(wayWithFlags(flags), "02 00 00 00 00 08") << flags;
    // Each of these has the flag's bit when its digits are read to a base next to the right one, or to one of the others.
    for (const char *flags : {"0x1", "0x20", "020", "010", "20", "12"}) EXPECT_EQ(wayWithFlags(flags), "ip") << flags;
}

TEST_F(PingFrames, AddressesOfTheTableHaveSixBytesOfOneOrTwoHexadecimalDigits) {
    const auto wayWithAddress = [](const std::string &address) {
        return wayWith("192.0.2.1 0x1 0x2 " + address + "\n");
    };
    EXPECT_EQ(wayWithAddress("2:0:0:0:10:fF"), "02 00 00 00 10 ff");
    EXPECT_EQ(wayWithAddress("2:0:0:0:0:9\r"), "02 00 00 00 00 09");
    for (const char *address : {"", " ", "2:0:0:0:0:006", "2:0:0:0:0:0g", "2::0:0:0:6", "2:0:0:0:0:6:7", "2:0:0:0:0:6#",
                                "2-0-0-0-0-6", "2:0:0:0:0", "2:0:0:0:0:"}) {
        EXPECT_EQ(wayWithAddress(address), "ip") << address;
    }
}

TEST_F(PingFrames, LinesOfTheTableThatOnlyResembleTheGatewaysDoNotCount) {
    const std::string rest = "0x1 0x2 02:00:00:00:00:07 * wan0\n";
    EXPECT_EQ(wayWith("192.0.2.11 " + rest), "ip");
    EXPECT_EQ(wayWith("192.0.2.1\t" + rest), "ip");
    EXPECT_EQ(wayWith("192.0.2.1#" + rest), "ip");
    EXPECT_EQ(wayWith("192.0.2.1 " + rest), "02 00 00 00 00 07");
}

TEST_F(PingFrames, LinesOfTheTableAreReadInPiecesOf255Characters) {
    for (const size_t length : {254U, 255U, 256U}) {
        EXPECT_EQ(wayWith(std::string(length, 'x') + arpEntry + "06 * wan0\n"),
                  length == 255 ? "02 00 00 00 00 06" : "ip")
            << length;
    }
}

}  // namespace
