// SPDX-License-Identifier: MIT
// Ping over a WAN of network namespaces. What leaves and arrives is in ping_packets_test.cpp and ping_frames_test.cpp,
// which replies count in ping_replies_test.cpp, what the system refuses in ping_faults_test.cpp.
#include <vxutils/ping.h>

#include <syslog.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <memory>
#include <thread>

#include "support/call_hooks.h"
#include "support/emulation.h"
#include "support/files.h"
#include "support/ping.h"
#include "support/process.h"
#include "support/resources.h"
#include "support/syslog_capture.h"
#include "support/wan.h"

VXTEST_THREAD_HOOK(int, setlogmask, (int mask), (mask))

namespace {

using namespace vxtest::ping;

using vxtest::hex;
using vxtest::LogLine;

using Ping = vxtest::ping::PingTest;

// ---- icmpping

TEST_F(Ping, PlainEchoIsAnsweredByTheGateway) {
    ConnectedLog log;
    const vxtest::NoLeaks noLeaks;
    EXPECT_EQ(icmpping("wan0", gatewayText, 1000), 0);
    EXPECT_EQ(log.take(),
              (Lines{{LOG_DEBUG, "icmpping: packet transmitted on wan0 for 192.0.2.1 (64 bytes, id 1, seq 0)"},
                     {LOG_DEBUG, "icmpping: RECEIVED icmp reply on wan0 (seq 1, id 0, need seq 1, id 0)"}}));
    EXPECT_EQ(icmpping("wan0", "wan-gateway", 1000), 0);
    EXPECT_EQ(log.texts().front(), "icmpping: packet transmitted on wan0 for 192.0.2.1 (64 bytes, id 1, seq 0)");
}

TEST_F(Ping, PingsTheLoopbackAndSkipsItsOwnRequest) {
    ConnectedLog log;
    EXPECT_EQ(icmpping("lo", "127.0.0.1", 1000), 0);
    const auto lines = log.take();
    EXPECT_EQ(lines.at(1), (LogLine{LOG_ERR, "icmpping: packet is not a reply"}));
    EXPECT_EQ(lines.at(2).text, "icmpping: RECEIVED icmp reply on lo (seq 1, id 0, need seq 1, id 0)");
}

TEST_F(Ping, PlainPingNeedsTargetThenInterface) {
    ConnectedLog log;
    for (const char *nothing : {"", static_cast<const char *>(nullptr)}) {
        EXPECT_EQ(icmpping(nothing, nothing, 0), -1);
        EXPECT_EQ(icmpping("wan0", nothing, 0), -1);
        EXPECT_EQ(icmpping(nothing, gatewayText, 0), -1);
        EXPECT_EQ(log.take(), (Lines{{LOG_ERR, "icmpping: no target given"},
                                     {LOG_ERR, "icmpping: no target given"},
                                     {LOG_ERR, "icmpping: no interface given"}}));
    }
}

TEST_F(Ping, SilenceIsWaitedForInRealTime) {
    vxtest::Wan::answers(wan->gateway, false);
    const auto before = std::chrono::steady_clock::now();
    EXPECT_EQ(icmpping("wan0", gatewayText, 0), -1);
    EXPECT_GE(std::chrono::steady_clock::now() - before, std::chrono::milliseconds(900));
}

TEST_F(Ping, ASignalDoesNotShortenAStep) {
    vxtest::Wan::answers(wan->gateway, false);
    struct sigaction action {};
    action.sa_handler = [](int) {};
    ASSERT_EQ(::sigaction(SIGALRM, &action, nullptr), 0);
    const itimerval often{{0, 20000}, {0, 20000}};
    const itimerval never{};
    const auto before = std::chrono::steady_clock::now();
    ::setitimer(ITIMER_REAL, &often, nullptr);
    EXPECT_EQ(icmpping("wan0", gatewayText, 0), -1);
    ::setitimer(ITIMER_REAL, &never, nullptr);
    EXPECT_GE(std::chrono::steady_clock::now() - before, std::chrono::milliseconds(900));
}

TEST_F(Ping, ForgedPlainRepliesOnTheWireDoNotCount) {
    vxtest::Wan::answers(wan->gateway, false);
    std::unique_ptr<vxtest::Responder> responder;
    wan->gateway.inside([&] {
        responder = std::make_unique<vxtest::Responder>("gw0", [](const Bytes &request) {
            Bytes otherId = vxtest::echoReply(request);
            otherId[39] = 9;
            vxtest::fixChecksums(otherId);
            Bytes looped = vxtest::echoReply(request);
            looped[34] = 8;
            vxtest::fixChecksums(looped);
            return std::vector<Bytes>{otherId, looped};
        });
    });
    EXPECT_EQ(icmpping("wan0", gatewayText, 0), -1);
    EXPECT_EQ(responder->seen(), 1);
    responder.reset();
    wan->gateway.inside([&] {
        responder = std::make_unique<vxtest::Responder>(
            "gw0", [](const Bytes &request) { return std::vector<Bytes>{vxtest::echoReply(request)}; });
    });
    EXPECT_EQ(icmpping("wan0", gatewayText, 3000), 0);
}

// A reply that comes after its call has given up, while the next call waits for one of its own.
TEST_F(Ping, APlainEchoTakesTheLateReplyToAnEarlierOne) {
    vxtest::Wan::answers(wan->gateway, false);
    std::vector<Bytes> requests;
    std::unique_ptr<vxtest::Responder> responder;
    wan->gateway.inside([&] {
        responder = std::make_unique<vxtest::Responder>("gw0", [&](const Bytes &request) {
            requests.push_back(request);
            if (requests.size() < 2) return std::vector<Bytes>{};
            return std::vector<Bytes>{vxtest::echoReply(requests.front())};
        });
    });
    EXPECT_EQ(icmpping("wan0", gatewayText, 0), -1);
    EXPECT_EQ(icmpping("wan0", gatewayText, 3000), 0);
    responder.reset();
    EXPECT_EQ(requests.size(), 2U);
}

TEST_F(Ping, WithoutThePrivilegeNoSocketOpens) {
    ConnectedLog log;
    EXPECT_EQ(vxtest::inChild([] {
                  if (::setuid(65534) != 0) return 2;
                  return icmpping("wan0", gatewayText, 0) == -1 && rawping("wan0", gatewayText, nullptr, 0) == -1 ? 0
                                                                                                                  : 1;
              }),
              0);
    EXPECT_EQ(log.take(), (Lines{{LOG_ERR, "icmpping: unable to open socket (Operation not permitted)"},
                                 {LOG_ERR, "rawping[wan0]: unable to create socket (Operation not permitted)"}}));
}

// ---- rawping to a host that the interface reaches itself

TEST_F(Ping, WithoutAGatewayTheEchoGoesAtIpLevel) {
    ConnectedLog log;
    const vxtest::NoLeaks noLeaks;
    EXPECT_EQ(rawping("wan0", gatewayText, nullptr, 1000), 0);
    auto lines = log.take();
    EXPECT_EQ(lines.at(1),
              (LogLine{LOG_DEBUG, "gateway none (source C000020A, mask FFFFFF00, dest C0000201, is_ptp 0)"}));
    EXPECT_EQ(lines.at(2), (LogLine{LOG_DEBUG, ipWay + gatewayText}));
    EXPECT_EQ(rawping("wan0", "wan-target", "", 0), -1) << "no host on the link answers for the target";
    lines = log.take();
    EXPECT_EQ(lines.at(1), (LogLine{LOG_DEBUG, "gateway  (source C000020A, mask FFFFFF00, dest C6336409, is_ptp 0)"}));
    EXPECT_EQ(lines.at(2), (LogLine{LOG_DEBUG, ipWay + "wan-target"}));
}

TEST_F(Ping, ATargetInTheSubnetIsPingedAtIpLevelWhateverTheGateway) {
    ConnectedLog log;
    EXPECT_EQ(rawping("wan0", gatewayText, gatewayText, 1000), 0);
    auto lines = log.take();
    EXPECT_EQ(lines.at(1),
              (LogLine{LOG_DEBUG, "gateway 192.0.2.1 (source C000020A, mask FFFFFF00, dest C0000201, is_ptp 0)"}));
    EXPECT_EQ(lines.at(2), (LogLine{LOG_DEBUG, ipWay + gatewayText}));
    // a given netmask decides instead of the interface's own
    EXPECT_EQ(__rawping("wan0", targetText, gatewayText, "192.0.2.10", "0.0.0.0", 0, -1, nullptr, nullptr), -1);
    lines = log.take();
    EXPECT_EQ(lines.at(1),
              (LogLine{LOG_DEBUG, "gateway 192.0.2.1 (source C000020A, mask 00000000, dest C6336409, is_ptp 0)"}));
    EXPECT_EQ(lines.at(2), (LogLine{LOG_DEBUG, ipWay + targetText}));
}

TEST_F(Ping, InterfacesWithoutArpCountAsPointToPoint) {
    ConnectedLog log;
    vxtest::ip("link set wan0 arp off");
    EXPECT_EQ(rawping("wan0", targetText, gatewayText, 0), -1);
    vxtest::ip("link set wan0 arp on");
    const auto lines = log.take();
    EXPECT_EQ(lines.at(1),
              (LogLine{LOG_DEBUG, "gateway 192.0.2.1 (source C000020A, mask FFFFFF00, dest C6336409, is_ptp 1)"}));
    EXPECT_EQ(lines.at(2), (LogLine{LOG_DEBUG, ipWay + targetText}));
}

TEST_F(Ping, PointToPointInterfacesUseTheIpLevelThoughAGatewayIsGiven) {
    ConnectedLog log;
    vxtest::ip("tuntap add mode tun name ppp0");
    vxtest::ip("addr add 10.64.0.2 peer 10.64.0.1 dev ppp0");
    vxtest::ip("link set ppp0 up");
    EXPECT_EQ(rawping("ppp0", targetText, "10.64.0.1", 0), -1);
    const auto lines = log.take();
    EXPECT_EQ(lines.at(1),
              (LogLine{LOG_DEBUG, "gateway 10.64.0.1 (source 0A400002, mask FFFFFFFF, dest C6336409, is_ptp 1)"}));
    EXPECT_EQ(lines.at(2), (LogLine{LOG_DEBUG, std::string("rawping[ppp0] => sending ip ping to ") + targetText}));
    vxtest::ip("link del ppp0");
}

TEST_F(Ping, TheIpLevelEchoLeavesOnce) {
    vxtest::Wan::answers(wan->gateway, false);
    std::unique_ptr<vxtest::Responder> responder;
    wan->gateway.inside([&] {
        responder = std::make_unique<vxtest::Responder>(
            "gw0", [](const Bytes &request) { return std::vector<Bytes>{vxtest::echoReply(request)}; });
    });
    for (int echoes = 1; echoes <= 3; ++echoes) {
        EXPECT_EQ(rawping("wan0", gatewayText, nullptr, 5000), 0);
        EXPECT_EQ(responder->seen(), echoes);
    }
}

TEST_F(Ping, RawPingNeedsInterfaceThenTarget) {
    ConnectedLog log;
    for (const char *nothing : {"", static_cast<const char *>(nullptr)}) {
        EXPECT_EQ(rawping(nothing, nothing, nullptr, 0), -1);
        EXPECT_EQ(rawping(nothing, targetText, nullptr, 0), -1);
        EXPECT_EQ(rawping("wan0", nothing, nullptr, 0), -1);
        EXPECT_EQ(log.take(), (Lines{{LOG_ERR, "rawping: no interface given"},
                                     {LOG_ERR, "rawping: no interface given"},
                                     {LOG_ERR, "rawping: no target given"}}));
    }
}

TEST_F(Ping, AnInterfaceThatIsDownCannotSend) {
    ConnectedLog log;
    vxtest::ip("link set wan0 down");
    EXPECT_EQ(rawping("wan0", gatewayText, nullptr, 0), -1);
    vxtest::ip("link set wan0 up");
    const auto line = log.take().back();
    EXPECT_EQ(line.priority, LOG_ERR);
    EXPECT_EQ(line.text.rfind("rawping[wan0]: unable to send 48 bytes to 192.0.2.1 (", 0), 0U) << line.text;
}

TEST_F(Ping, ACutLinkFailsAndComesBack) {
    knowGateway(wan->gateway);
    EXPECT_EQ(rawping("wan0", targetText, gatewayText, 1000), 0);
    wan->gateway.ip("link set gw0 down");
    EXPECT_EQ(rawping("wan0", targetText, gatewayText, 0), -1);
    wan->gateway.ip("link set gw0 up");
    EXPECT_TRUE(vxtest::eventually([] { return rawping("wan0", targetText, gatewayText, 0) == 0; }));
}

TEST_F(Ping, ThreadsPingSideBySide) {
    knowGateway(wan->gateway);
    const vxtest::NoLeaks noLeaks;
    std::atomic<int> failures{0};
    std::vector<std::thread> threads;
    for (int thread = 0; thread < 4; ++thread) {
        threads.emplace_back([&, thread] {
            for (int i = 0; i < 5; ++i) {
                const char *target = thread % 2 == 0 ? targetText : gatewayText;
                if (rawping("wan0", target, gatewayText, 2000) != 0) ++failures;
            }
        });
    }
    for (auto &thread : threads) thread.join();
    EXPECT_EQ(failures, 0);
}

// Each message asks for the log's mask after its addresses have become texts and before they are put together.
TEST_F(Ping, MessagesShowTheirOwnAddressesWhateverOtherThreadsLog) {
    ConnectedLog log;
    int messages = 0;
    {
        const vxtest::Hooked between(vxtest::hooks::setlogmask, [&](int) -> std::optional<int> {
            if (++messages == 1) std::thread([] { EXPECT_EQ(rawping("lo", "127.0.0.1", nullptr, 1000), 0); }).join();
            return std::nullopt;
        });
        EXPECT_EQ(rawping("wan0", gatewayText, nullptr, 1000), 0);
    }
    EXPECT_GT(messages, 1);
    EXPECT_THAT(log.texts(), testing::Contains("rawping[wan0]: interface runs 192.0.2.10/255.255.255.0 (" +
                                               colons(vxtest::hardwareAddress("wan0")) + ")"));
}

// ---- rawping through a gateway

TEST_F(Ping, TheTargetIsReachedThroughTheGatewayWithoutARoute) {
    ConnectedLog log;
    knowGateway(wan->gateway);
    const vxtest::NoLeaks noLeaks;
    EXPECT_NE(vxtest::run({"ip", "route", "get", targetText}).status, 0) << "no route, indeed";
    std::unique_ptr<vxtest::Wire> wire;
    wan->gateway.inside([&] { wire = std::make_unique<vxtest::Wire>("gw0"); });
    EXPECT_EQ(rawping("wan0", "wan-target", gatewayText, 1000), 0);
    const auto echo = wire->nextIcmp();
    ASSERT_TRUE(echo.has_value());
    const std::string identifier = std::to_string(number(echo->bytes, 38));
    std::string gateway;
    wan->gateway.inside([&] { gateway = colons(vxtest::hardwareAddress("gw0")); });
    const std::string numbers = "(seq 1, id " + identifier + ", need seq 1, id " + identifier + ")";
    EXPECT_EQ(
        log.take(),
        (Lines{{LOG_DEBUG, "rawping[wan0]: interface runs 192.0.2.10/255.255.255.0 (" +
                               colons(vxtest::hardwareAddress("wan0")) + ")"},
               {LOG_DEBUG, "gateway 192.0.2.1 (source C000020A, mask FFFFFF00, dest C6336409, is_ptp 0)"},
               {LOG_DEBUG, "rawping[wan0]: cannot ping 198.51.100.9 directly, must use gateway 192.0.2.1"},
               {LOG_DEBUG, "rawping[wan0]: discovered " + gateway + " for 192.0.2.1"},
               {LOG_DEBUG, "rawping[wan0] => sending raw ping to wan-target"},
               {LOG_DEBUG, "rawping[wan0]: generated raw echo packet for 198.51.100.9 (id " + identifier + ", seq 1)"},
               {LOG_DEBUG, "rawping[wan0]: raw packet transmitted for 198.51.100.9 (48 bytes)"},
               {LOG_DEBUG, "rawping[wan0]: received packet " + numbers},
               {LOG_DEBUG, "rawping[wan0]: RECEIVED raw reply " + numbers},
               {LOG_DEBUG, "rawping[wan0]: raw ping to 198.51.100.9 succeeded"}}));
}

TEST_F(Ping, AGatewayThatDoesNotAnswerEchoesIsFoundAllTheSame) {
    forgetGateway();
    vxtest::Wan::answers(wan->gateway, false);
    EXPECT_EQ(rawping("wan0", targetText, gatewayText, 500), 0);
    forgetGateway();
}

TEST_F(Ping, IncompleteEntriesOfTheRealTableDoNotCount) {
    ConnectedLog log;
    forgetGateway();
    vxtest::ip("neigh add 192.0.2.1 dev wan0 nud failed");
    ASSERT_NE(vxtest::readFile("/proc/net/arp").find("192.0.2.1 "), std::string::npos);
    EXPECT_EQ(rawping("wan0", targetText, gatewayText, 1000), 0);
    EXPECT_EQ(log.texts().at(3), "rawping[wan0]: can't resolve HW address for 192.0.2.1 -> send query");
    forgetGateway();
}

TEST_F(Ping, FragmentsThatOnlyBeginAreReplies) {
    // more fragments to come, offset 0: such a frame passes the filter
    knowGateway(wan->gateway);
    vxtest::Wan::answers(wan->target, false);
    std::unique_ptr<vxtest::Responder> responder;
    wan->gateway.inside([&] {
        responder = std::make_unique<vxtest::Responder>("gw0", [](const Bytes &request) {
            Bytes reply = vxtest::echoReply(request);
            reply[20] = 0x20;
            return std::vector<Bytes>{reply};
        });
    });
    EXPECT_EQ(rawping("wan0", targetText, gatewayText, 1000), 0);
}

TEST_F(Ping, AReplyThroughOptionsIsFoundAfterThem) {
    ConnectedLog log;
    knowGateway(wan->gateway);
    vxtest::Wan::answers(wan->target, false);
    std::unique_ptr<vxtest::Responder> responder;
    wan->gateway.inside([&] {
        responder = std::make_unique<vxtest::Responder>("gw0", [](const Bytes &request) {
            Bytes reply = vxtest::echoReply(request);
            reply.insert(reply.begin() + 34, 8, uint8_t{1});
            reply[14] = 0x47;
            vxtest::fixChecksums(reply);
            return std::vector<Bytes>{reply};
        });
    });
    EXPECT_EQ(__rawping("wan0", targetText, gatewayText, nullptr, nullptr, 1000, 50, nullptr, nullptr), 0);
    log.take();
    EXPECT_EQ(__rawping("wan0", targetText, gatewayText, nullptr, nullptr, 0, 49, nullptr, nullptr), -1);
    EXPECT_EQ(log.texts().at(7), "rawping[wan0]: packet is too short (49 bytes, need 50 bytes)") << "it was cut";
}

// ---- __rawping: source and netmask, round-trip time, mark

TEST_F(Ping, SourceAndNetmaskComeTogetherOrNotAtAll) {
    ConnectedLog log;
    const vxtest::NoLeaks noLeaks;
    EXPECT_EQ(rawpingFrom("192.0.2.10", nullptr), -1);
    EXPECT_EQ(rawpingFrom("192.0.2.10", ""), -1);
    EXPECT_EQ(rawpingFrom(nullptr, "255.255.255.0"), -1);
    EXPECT_EQ(rawpingFrom("", "255.255.255.0"), -1);
    EXPECT_EQ(rawpingFrom("", ""), -1);
    EXPECT_EQ(rawpingFrom("", nullptr), -1);
    EXPECT_EQ(rawpingFrom(nullptr, ""), -1);
    const LogLine noSource{LOG_ERR, "rawping: no source given"};
    const LogLine noNetmask{LOG_ERR, "rawping: no netmask given"};
    EXPECT_EQ(log.take(), (Lines{noNetmask, noNetmask, noSource, noSource, noSource, noSource, noSource}));
}

TEST_F(Ping, AnInvalidSourceOrNetmaskTextLeavesTheQuerySocketOpen) {
    ConnectedLog log;
    for (const bool source : {true, false}) {
        const auto before = vxtest::openDescriptors();
        const int next = ::dup(0);
        ::close(next);
        EXPECT_EQ(rawpingFrom(source ? "192.0.2.256" : "192.0.2.10", source ? "255.255.255.0" : "not-a-mask"), -1);
        EXPECT_EQ(log.take(), (Lines{{LOG_ERR, source ? "rawping[wan0]: invalid source '192.0.2.256'"
                                                      : "rawping[wan0]: invalid netmask 'not-a-mask'"}}));
        EXPECT_EQ(vxtest::openDescriptors().size(), before.size() + 1);
        ::close(next);
        EXPECT_EQ(vxtest::openDescriptors(), before);
    }
}

TEST_F(Ping, TheInterfacesOwnAddressesAreShown) {
    ConnectedLog log;
    EXPECT_EQ(rawping("wan0", gatewayText, nullptr, 1000), 0);
    EXPECT_EQ(log.take().front(), (LogLine{LOG_DEBUG, "rawping[wan0]: interface runs 192.0.2.10/255.255.255.0 (" +
                                                          colons(vxtest::hardwareAddress("wan0")) + ")"}));
    EXPECT_EQ(__rawping("wan0", gatewayText, nullptr, "192.0.2.99", "255.255.0.0", 0, -1, nullptr, nullptr), -1);
    EXPECT_EQ(log.take().front(), (LogLine{LOG_DEBUG, "rawping[wan0]: interface runs 192.0.2.99/255.255.0.0 (" +
                                                          colons(vxtest::hardwareAddress("wan0")) + ")"}));
}

TEST_F(Ping, TheRoundTripOfARealReplyIsPositive) {
    knowGateway(wan->gateway);
    for (const char *target : {targetText, gatewayText}) {
        timespec roundTrip{-1, -1};
        EXPECT_EQ(__rawping("wan0", target, gatewayText, nullptr, nullptr, 1000, -1, &roundTrip, nullptr), 0);
        EXPECT_GE(roundTrip.tv_sec, 0);
        EXPECT_TRUE(roundTrip.tv_sec > 0 || roundTrip.tv_nsec > 0);
        EXPECT_LT(roundTrip.tv_nsec, 1000000000);
    }
}

TEST_F(Ping, TheRoundTripIsTheWiresAndNotThePollingSteps) {
    knowGateway(wan->gateway);
    vxtest::Wan::answers(wan->gateway, false);
    vxtest::Wan::answers(wan->target, false);
    constexpr auto delay = std::chrono::milliseconds(200);  // the first look comes some milliseconds after the sending
    std::atomic<std::chrono::steady_clock::rep> answered{0};
    std::unique_ptr<vxtest::Responder> responder;
    wan->gateway.inside([&] {
        responder = std::make_unique<vxtest::Responder>("gw0", [&](const Bytes &request) {
            std::this_thread::sleep_for(delay);
            answered = std::chrono::steady_clock::now().time_since_epoch().count();
            return std::vector<Bytes>{vxtest::echoReply(request)};
        });
    });
    for (const char *target : {targetText, gatewayText}) {
        SCOPED_TRACE(target);
        timespec roundTrip{};
        const auto before = std::chrono::steady_clock::now();
        ASSERT_EQ(__rawping("wan0", target, gatewayText, nullptr, nullptr, 5000, -1, &roundTrip, nullptr), 0);
        const auto after = std::chrono::steady_clock::now();
        EXPECT_GE(after - before, std::chrono::milliseconds(300)) << "found at the second look";
        const auto measured = std::chrono::seconds(roundTrip.tv_sec) + std::chrono::nanoseconds(roundTrip.tv_nsec);
        EXPECT_GE(measured, delay);
        // from before the call until the answer had been made, and a little for handing it over
        const auto whole = std::chrono::steady_clock::duration(answered) - before.time_since_epoch();
        if (!vxtest::emulated()) EXPECT_LE(measured, whole + std::chrono::milliseconds(100));
    }
}

TEST_F(Ping, TheMarkIsOnTheFrameAndOnNothingElse) {
    if (vxtest::emulated()) GTEST_SKIP() << "the emulator refuses SO_MARK";
    knowGateway(wan->gateway);
    for (const uint32_t mark : {0x1U, 0xDEADBEEFU}) {
        vxtest::Wire marked("wan0", mark);
        vxtest::Wire unmarked("wan0", 0U);
        EXPECT_EQ(__rawping("wan0", targetText, gatewayText, nullptr, nullptr, 1000, -1, nullptr, &mark), 0);
        const auto frame = marked.nextOfAll(5000);
        ASSERT_TRUE(frame.has_value());
        EXPECT_EQ(hex(frame->bytes), hex(linkEcho(wan->gateway, 48, number(frame->bytes, 38), 1)));
        // Among all that is without a mark, the first ICMP message is the reply.
        std::optional<vxtest::Frame> reply;
        do {
            reply = unmarked.nextOfAll(5000);
            ASSERT_TRUE(reply.has_value());
        } while (reply->bytes.size() < 42 || reply->bytes[12] != 8 || reply->bytes[13] != 0 || reply->bytes[23] != 1);
        EXPECT_EQ(reply->bytes[34], 0);
    }
}

}  // namespace
