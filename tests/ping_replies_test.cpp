// SPDX-License-Identifier: MIT
// Replies to a ping: which ones count, how many packets a wait reads, when it ends, and which time of arrival it takes.
// The replies are made up to the bit.
#include <vxutils/ping.h>

#include <poll.h>
#include <syslog.h>

#include <algorithm>
#include <chrono>
#include <functional>
#include <memory>

#include "support/ping.h"
#include "support/ping_watch.h"
#include "support/syslog_capture.h"
#include "support/wan.h"

namespace {

using namespace vxtest::ping;

using vxtest::hex;
using vxtest::LogLine;

using PingReplies = vxtest::ping::PingTest;

// ---- how long and how much ----

TEST_F(PingReplies, SilenceEndsEveryPingAfterItsBudgetOfSteps) {
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

TEST_F(PingReplies, PlainPingReceivesAtMost1450Bytes) {
    Watch watch;
    size_t room = 0;
    watch.calls->recvmsg = [&](int, msghdr *message, int) -> std::optional<ssize_t> {
        room = message->msg_iov[0].iov_len;
        return std::nullopt;
    };
    EXPECT_EQ(icmpping("wan0", gatewayText, 1000), 0);
    EXPECT_EQ(room, 1450U);
}

TEST_F(PingReplies, The1024thPacketIsStillLookedAtAndEmptyReadsDoNotCount) {
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

TEST_F(PingReplies, MoreThan1024ForeignPacketsEndTheWaitEarly) {
    ConnectedLog log;
    Watch watch;
    watch.receiveFromScript();
    watch.script.assign(2000, ipPacket(ipMessage(8, 1, 1)));
    EXPECT_EQ(rawping("wan0", gatewayText, nullptr, 10000), -1);
    EXPECT_EQ(watch.script.size(), 2000U - 1024);
    EXPECT_TRUE(watch.sleepsNs.empty());
    EXPECT_EQ(log.take().back(), (LogLine{LOG_DEBUG, "rawping[wan0]: received no valid ip reply from 192.0.2.1"}));
}

// ---- which replies count ----

TEST_F(PingReplies, APlainReplyIsLookedAtThisClosely) {
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

TEST_F(PingReplies, APlainReplyOfAnotherHostDoesNotCount) {
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

TEST_F(PingReplies, AnyMemberOfAGroupMayAnswerAndAnyAddressOfThisMachineForZero) {
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

TEST_F(PingReplies, AnIpLevelReplyOfAnotherHostDoesNotCount) {
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

TEST_F(PingReplies, AnIpLevelReplyIsLookedAtThisClosely) {
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

TEST_F(PingReplies, TheKernelsNoteOfTheArrivalIsUsedUnlessTheClockWasSet) {
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

}  // namespace
