// SPDX-License-Identifier: MIT
// PingClient over a WAN of real hosts. Its calls one by one are in pingclient_limits_test.cpp.
#include <arpa/inet.h>
#include <poll.h>
#include <vxutils/pingclient.h>

#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <vector>

#include "support/netns.h"
#include "support/pingclient.h"
#include "support/process.h"
#include "support/resources.h"
#include "support/syslog_capture.h"
#include "support/wan.h"

namespace {

using namespace vxtest::pingclient;
using Bytes = std::vector<uint8_t>;

TEST_F(Client, ReachesTheTargetBehindTheGateway) {
    vxtest::SyslogCapture log;
    PingClient client;
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(client.sendSimplePing("192.0.2.10", "198.51.100.9"), 0);
        EXPECT_EQ(answer(client), 0);
    }
    EXPECT_EQ(client.sendSimplePing("192.0.2.10", "wan-gateway"), 0);
    EXPECT_EQ(answer(client), 0);
    EXPECT_EQ(client.checkPingResponse(), 2) << "one reply is found once";
    EXPECT_TRUE(log.take().empty());
}

TEST_F(Client, OneSocketAtATimeUntilCleanup) {
    const vxtest::NoLeaks noLeaks;
    const size_t before = vxtest::openDescriptors().size();
    {
        PingClient client;
        EXPECT_EQ(vxtest::openDescriptors().size(), before) << "none before the first echo";
        for (int i = 0; i < 3; ++i) {
            EXPECT_EQ(client.sendSimplePing("192.0.2.10", "192.0.2.1"), 0);
            EXPECT_EQ(vxtest::openDescriptors().size(), before + 1);
        }
        client.cleanup();
        EXPECT_EQ(vxtest::openDescriptors().size(), before);
        client.cleanup();
        EXPECT_EQ(client.sendSimplePing("192.0.2.10", "no-such-host"), 1);
        EXPECT_EQ(vxtest::openDescriptors().size(), before + 1) << "open though the echo failed";
        EXPECT_EQ(client.checkPingResponse(), 2);
    }
}

TEST_F(Client, CheckingWithoutAnEchoIsAReceiveError) {
    PingClient client;
    EXPECT_EQ(client.checkPingResponse(), 3);
    EXPECT_EQ(client.sendSimplePing("192.0.2.10", "192.0.2.1"), 0);
    client.cleanup();
    EXPECT_EQ(client.checkPingResponse(), 3);
}

TEST_F(Client, CheckingNeverBlocks) {
    vxtest::Wan::answers(wan->gateway, false);
    PingClient client;
    EXPECT_EQ(client.sendSimplePing("192.0.2.10", "192.0.2.1"), 0);
    EXPECT_EQ(client.checkPingResponse(), 2);
    EXPECT_EQ(client.checkPingResponse(), 2);
}

TEST_F(Client, ForeignPacketsInFrontOfTheReplyAreSkipped) {
    vxtest::Wan::answers(wan->gateway, false);
    std::unique_ptr<vxtest::Responder> responder;
    wan->gateway.inside([&] {
        responder = std::make_unique<vxtest::Responder>("gw0", [](const Bytes &request) {
            Bytes other = vxtest::echoReply(request);
            other[39] ^= 1;
            vxtest::fixChecksums(other);
            std::vector<Bytes> all(20, other);
            all.push_back(vxtest::echoReply(request));
            return all;
        });
    });
    PingClient client;
    ASSERT_EQ(client.sendSimplePing("192.0.2.10", "192.0.2.1"), 0);
    EXPECT_EQ(answer(client), 0);
}

TEST_F(Client, AReplyOfAnotherHostDoesNotCount) {
    vxtest::Wan::answers(wan->gateway, false);
    std::atomic<bool> forge = true;
    std::unique_ptr<vxtest::Responder> responder;
    wan->gateway.inside([&] {
        responder = std::make_unique<vxtest::Responder>("gw0", [&](const Bytes &request) {
            Bytes forged = vxtest::echoReply(request);
            forged[29] = 77;
            vxtest::fixChecksums(forged);
            return std::vector<Bytes>{forge ? forged : vxtest::echoReply(request)};
        });
    });
    PingClient client;
    for (int i = 0; i < 5; ++i) {
        ASSERT_EQ(client.sendSimplePing("192.0.2.10", "192.0.2.1"), 0);
        ASSERT_TRUE(vxtest::eventually([&] { return responder->seen() == i + 1; }, 2000));
        ::poll(nullptr, 0, 50);
        EXPECT_EQ(client.checkPingResponse(), 2);
    }
    forge = false;
    ASSERT_EQ(client.sendSimplePing("192.0.2.10", "192.0.2.1"), 0);
    EXPECT_EQ(answer(client), 0);
}

TEST_F(Client, OnTheLoopbackTheEchoItselfCounts) {
    PingClient client;
    ASSERT_EQ(client.sendSimplePing("127.0.0.1", "127.0.0.1"), 0);
    EXPECT_EQ(answer(client), 0);
    EXPECT_EQ(answer(client), 0) << "and then its reply";
    EXPECT_EQ(client.checkPingResponse(), 2);
}

TEST_F(Client, TwoClientsDoNotDisturbEachOther) {
    PingClient one;
    PingClient other;
    ASSERT_EQ(one.sendSimplePing("192.0.2.10", "198.51.100.9"), 0);
    ASSERT_EQ(other.sendSimplePing("192.0.2.10", "192.0.2.1"), 0);
    EXPECT_EQ(answer(one), 0);
    EXPECT_EQ(answer(other), 0);
    EXPECT_EQ(one.checkPingResponse(), 2);
    EXPECT_EQ(other.checkPingResponse(), 2);
}

// ---- checksum and numbers ----

TEST(PingClientChecksum, IsTheInternetChecksumInMemoryOrder) {
    const PingClient client;
    const auto sum = [&](std::vector<uint8_t> bytes, int length) {
        std::vector<unsigned short> words((bytes.size() + 1) / 2 + 1);
        if (!bytes.empty()) std::memcpy(words.data(), bytes.data(), bytes.size());
        return client.checksum(words.data(), length);
    };
    EXPECT_EQ(sum({}, 0), 0xFFFF);
    EXPECT_EQ(sum({1, 2}, -5), 0xFFFF);
    EXPECT_EQ(client.checksum(nullptr, 0), 0xFFFF);
    // the worked example of RFC 1071
    EXPECT_EQ(sum({0x00, 0x01, 0xf2, 0x03, 0xf4, 0xf5, 0xf6, 0xf7}, 8), ntohs(0x220d));
    for (size_t length = 0; length < 300; ++length) {
        std::vector<uint8_t> bytes(length);
        for (size_t i = 0; i < length; ++i) bytes[i] = static_cast<uint8_t>(i * 37 + 255 - length);
        if (length % 2 == 0) {
            EXPECT_EQ(sum(bytes, static_cast<int>(length)), ntohs(vxtest::checksumByTheBook(bytes.data(), length)));
        }
    }
    EXPECT_EQ(sum(std::vector<uint8_t>(65536, 0xFF), 65536), 0) << "carries upon carries";
}

TEST(PingClientChecksum, AnOddLastByteIsAddedAsItStands) {
    const PingClient client;
    std::vector<unsigned short> words(2);
    const uint8_t bytes[] = {0x12, 0x34, 0x56, 0x99};
    std::memcpy(words.data(), bytes, sizeof bytes);
    unsigned short first;
    std::memcpy(&first, bytes, 2);
    EXPECT_EQ(client.checksum(words.data(), 3), static_cast<unsigned short>(~(first + 0x56)));
    EXPECT_EQ(client.checksum(words.data(), 1), static_cast<unsigned short>(~0x12));
}

TEST(PingClientClass, TheNumbersComeFromRand) {
    std::srand(42);
    PingClient first;
    const int next = std::rand();
    std::srand(42);
    std::rand();
    std::rand();
    EXPECT_EQ(std::rand(), next) << "two numbers, no more";
}

}  // namespace
