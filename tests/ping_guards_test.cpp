// SPDX-License-Identifier: MIT
// Ping's inner guards: no call from outside gets past the limits in front of them, so that the functions after them are
// called themselves, from a copy of the source in this program.
#include "vxutils/ping.cpp"

#include "support/intercept.h"
#include "support/resources.h"
#include "support/syslog_capture.h"
#include "vxutils/internal/log.cpp"
#include "vxutils/internal/visible.cpp"

namespace {

using vxtest::LogLine;
using Lines = std::vector<LogLine>;

// A process connects to the system log with its first message and keeps that socket.
class PingGuards : public testing::Test {
protected:
    PingGuards() {
        context.interface = "wan0";
        context.target = "192.0.2.1";
        context.timeoutMs = shortestTimeout;
        context.bufferSize = smallestBuffer;
        context.targetAddress = 0xC0000201;
        ::syslog(LOG_INFO, "connected");
        log.take();
    }

    vxtest::SyslogCapture log;
    EchoContext context{};
};

TEST_F(PingGuards, AnIpLevelEchoNeeds48Bytes) {
    const vxtest::NoLeaks noLeaks;
    for (const int size : {47, 0, -1}) {
        context.bufferSize = size;
        EXPECT_EQ(pingIp(context, context.targetAddress), -1);
        EXPECT_EQ(log.take(),
                  (Lines{{LOG_ERR, "rawping[wan0]: ip buffer too short (" + std::to_string(size) + " < 48)"}}));
        EXPECT_EQ(context.numbers.sequence, 0) << "no echo was begun";
    }
    context.bufferSize = 48;
    EXPECT_EQ(pingIp(context, context.targetAddress), -1);
    EXPECT_EQ(log.take(), (Lines{{LOG_DEBUG, "rawping[wan0]: generated ip echo packet for 192.0.2.1"},
                                 {LOG_ERR, "rawping[wan0]: can't bind to device (No such device)"}}));
    EXPECT_EQ(context.numbers.sequence, 1);
}

TEST_F(PingGuards, ALinkLevelEchoNeeds42Bytes) {
    const vxtest::NoLeaks noLeaks;
    for (const int size : {41, 0, -1}) {
        context.bufferSize = size;
        EXPECT_EQ(pingLink(context, nullptr), -1);
        EXPECT_EQ(log.take(),
                  (Lines{{LOG_ERR, "rawping[wan0]: raw buffer too short (" + std::to_string(size) + " < 42)"}}));
        EXPECT_EQ(context.numbers.sequence, 0) << "no echo was begun";
    }
    context.bufferSize = 42;
    vxtest::Intercept calls;
    calls->socket = [](int, int, int) -> std::optional<int> { return vxtest::failing(EMFILE); };
    EXPECT_EQ(pingLink(context, nullptr), -1);
    EXPECT_EQ(log.take(), (Lines{{LOG_DEBUG, "rawping[wan0]: generated raw echo packet for 192.0.2.1 (id 0, seq 1)"},
                                 {LOG_ERR, "rawping[wan0]: unable to open socket (Too many open files)"}}));
}

TEST_F(PingGuards, AClosedSocketIsNotWaitedFor) {
    vxtest::Intercept calls;
    calls->recvmsg = [](int, msghdr *, int) -> std::optional<ssize_t> {
        ADD_FAILURE() << "received without a socket";
        return vxtest::failing(EBADF);
    };
    EXPECT_EQ(waitForIpReply(context, context.targetAddress), -1);
    EXPECT_EQ(waitForLinkReply(context), -1);
    const LogLine notConnected{LOG_ERR, "rawping[wan0]: socket is not connected"};
    EXPECT_EQ(log.take(), (Lines{notConnected, notConnected}));
}

TEST_F(PingGuards, AnEmptyNameCountsAsPointToPoint) {
    context.gateway = "192.0.2.77";
    context.netmask = 0xFFFFFFFF;
    for (const char *nothing : {"", static_cast<const char *>(nullptr)}) {
        context.interface = nothing;
        EXPECT_EQ(pointToPoint(nothing), -1);
        EXPECT_FALSE(needsGateway(context));
        EXPECT_EQ(log.take(),
                  (Lines{{LOG_ERR, "no interface provided"},
                         {LOG_ERR, "no interface provided"},
                         {LOG_DEBUG, "gateway 192.0.2.77 (source 00000000, mask FFFFFFFF, dest C0000201, is_ptp 1)"}}));
    }
}

}  // namespace
