// SPDX-License-Identifier: MIT
// Ping on the wire: each packet as it leaves the process and as it arrives at the other host. Which replies count and
// when the wait ends is in ping_replies_test.cpp, frames at link level are in ping_frames_test.cpp.
#include <vxutils/ping.h>

#include <arpa/inet.h>
#include <net/if.h>
#include <netdb.h>
#include <sys/random.h>
#include <sys/time.h>
#include <syslog.h>

#include <cstdint>
#include <cstring>
#include <memory>
#include <set>

#include "support/call_hooks.h"
#include "support/files.h"
#include "support/ping.h"
#include "support/ping_watch.h"
#include "support/resources.h"
#include "support/syslog_capture.h"
#include "support/wan.h"

VXTEST_THREAD_HOOK(int, gethostbyname_r,
                   (const char *name, hostent *entry, char *buffer, size_t size, hostent **found, int *error),
                   (name, entry, buffer, size, found, error))
VXTEST_HOOK(ssize_t, getrandom, (void *buffer, size_t size, unsigned int flags), (buffer, size, flags))
VXTEST_HOOK_AS(int, gettimeofday, "__gettimeofday64", (timeval * time, void *zone), (time, zone))

namespace {

using namespace vxtest::ping;

using vxtest::hex;

using PingPackets = vxtest::ping::PingTest;

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

TEST_F(PingPackets, EveryPlainPingUsesIdentifier0AndSequenceNumber1) {
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

TEST_F(PingPackets, TheAnswerAboutAHostMayTake64KiB) {
    std::vector<size_t> sizes;
    const vxtest::Hooked resolver(vxtest::hooks::gethostbyname_r,
                                  [&](const char *, hostent *, char *, size_t size, hostent **, int *) {
                                      sizes.push_back(size);
                                      return std::optional<int>(ERANGE);
                                  });
    EXPECT_EQ(icmpping("wan0", "many", 0), -1);
    EXPECT_EQ(sizes, (std::vector<size_t>{1024, 2048, 4096, 8192, 16384, 32768, 65536}));
}

TEST_F(PingPackets, AHostWithoutAnIpv4AddressIsInvalid) {
    in_addr address{htonl(INADDR_LOOPBACK)};
    char *one[] = {reinterpret_cast<char *>(&address), nullptr};
    char *none[] = {nullptr};
    struct Answer {
        int result;
        bool found;
        int type;
        char **addresses;
        bool valid;
    };
    for (const Answer &answer : {Answer{0, true, AF_INET, one, true}, Answer{EAGAIN, true, AF_INET, one, false},
                                 Answer{0, false, AF_INET, one, false}, Answer{0, true, AF_INET6, one, false},
                                 Answer{0, true, AF_INET, none, false}}) {
        ConnectedLog log;
        Watch watch;
        watch.receiveFromScript();
        const vxtest::Hooked resolver(
            vxtest::hooks::gethostbyname_r,
            [&](const char *, hostent *entry, char *, size_t, hostent **found, int *) -> std::optional<int> {
                entry->h_addrtype = answer.type;
                entry->h_addr_list = answer.addresses;
                *found = answer.found ? entry : nullptr;
                return answer.result;
            });
        EXPECT_EQ(icmpping("lo", "host", 0), -1);
        EXPECT_EQ(log.take().front().text == "icmpping[lo]: invalid target 'host'", !answer.valid);
        EXPECT_EQ(watch.sent.size(), answer.valid ? 1U : 0U);
    }
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

// The kernel takes milliseconds to close the query socket and to begin to record arrivals. An echo that leaves before
// both is done has them in its round-trip time.
TEST_F(PingPackets, AnEchoLeavesWhenItsArrivalIsRecordedAndTheQuerySocketIsClosed) {
    ConnectedLog log;
    knowGateway(wan->gateway);
    const size_t before = vxtest::openDescriptors().size();
    for (const char *target : {gatewayText, targetText}) {
        SCOPED_TRACE(target);
        Watch watch;
        watch.receiveFromScript();
        std::vector<size_t> openAtRequest;
        int recorded = -1;
        watch.calls->setsockopt = [&](int fd, int level, int option, const void *, socklen_t) -> std::optional<int> {
            if (level == SOL_SOCKET && option == SO_TIMESTAMPNS) {
                openAtRequest.push_back(vxtest::openDescriptors().size() - before);
                recorded = fd;
            }
            return std::nullopt;
        };
        int echoes = 0;
        watch.calls->sendto = [&](int fd, const void *, size_t, const sockaddr *, socklen_t) -> std::optional<ssize_t> {
            ++echoes;
            EXPECT_EQ(fd, recorded);
            EXPECT_EQ(vxtest::openDescriptors().size(), before + 1) << "the echo's own socket";
            return std::nullopt;
        };
        EXPECT_EQ(rawping("wan0", target, gatewayText, 0), -1);
        EXPECT_EQ(echoes, 1);
        EXPECT_EQ(openAtRequest, (std::vector<size_t>{1, 2})) << "first on the query socket, which is still open then";
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

// Returns how often one ping reads the clock for its identifier.
int clockReadings() {
    Watch watch;
    watch.calls->sendto = [](int, const void *, size_t, const sockaddr *, socklen_t) {
        return std::optional<ssize_t>(vxtest::failing(ENETUNREACH));
    };
    int readings = 0;
    const vxtest::Hooked clock(vxtest::hooks::gettimeofday, [&](timeval *, void *) -> std::optional<int> {
        ++readings;
        return std::nullopt;
    });
    EXPECT_EQ(rawping("wan0", gatewayText, nullptr, 0), -1);
    return readings;
}

TEST_F(PingPackets, TheClockIsReadARandomNumberOfTimesForTheIdentifier) {
    const auto differ = [] {
        std::set<int> readings;
        for (int i = 0; i < 20; ++i) {
            const int times = clockReadings();
            EXPECT_GE(times, 1);
            EXPECT_LE(times, 4096);
            readings.insert(times);
        }
        return readings.size() > 10;
    };
    EXPECT_TRUE(differ());
    const vxtest::Hooked early(vxtest::hooks::getrandom, [](void *, size_t, unsigned int) -> std::optional<ssize_t> {
        return vxtest::failing(EAGAIN);  // the kernel has no random bits yet
    });
    EXPECT_TRUE(differ());
}

TEST_F(PingPackets, TheKernelsRandomBitsTellHowOften) {
    for (const uint64_t bits : {0ULL, 1ULL, 4095ULL, 4096ULL, ~0ULL - 100}) {
        const vxtest::Hooked known(
            vxtest::hooks::getrandom, [&](void *buffer, size_t size, unsigned int flags) -> std::optional<ssize_t> {
                EXPECT_EQ(flags, unsigned{GRND_NONBLOCK}) << "a ping at boot does not wait for them";
                if (size != sizeof bits) return std::nullopt;
                std::memcpy(buffer, &bits, size);
                return static_cast<ssize_t>(size);
            });
        EXPECT_EQ(clockReadings(), static_cast<int>(bits % 4096) + 1);
    }
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

}  // namespace
