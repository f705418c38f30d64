// SPDX-License-Identifier: MIT
// PingClient call by call: the bytes that it sends, failures, packets of every length, virtual calls, and the layout.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>
#include <vxutils/pingclient.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <optional>
#include <type_traits>
#include <utility>
#include <vector>

#include "support/intercept.h"
#include "support/netns.h"
#include "support/pingclient.h"
#include "support/resources.h"
#include "support/wan.h"
#include "vxutils/internal/fd.h"

namespace {

using namespace vxtest::pingclient;
using vxtest::hex;
using Bytes = std::vector<uint8_t>;

Bytes operator+(Bytes left, const Bytes &right) {
    left.insert(left.end(), right.begin(), right.end());
    return left;
}

uint16_t number(const Bytes &bytes, size_t at) { return static_cast<uint16_t>(bytes[at] << 8 | bytes[at + 1]); }

struct Sends {
    vxtest::Intercept calls;
    std::vector<Bytes> sent;
    std::vector<Bytes> to;

    Sends() {
        calls->sendto = [this](int, const void *data, size_t size, const sockaddr *address,
                               socklen_t length) -> std::optional<ssize_t> {
            const auto *bytes = static_cast<const uint8_t *>(data);
            const auto *target = reinterpret_cast<const uint8_t *>(address);
            sent.emplace_back(bytes, bytes + size);
            to.emplace_back(target, target + length);
            return std::nullopt;
        };
    }
};

TEST_F(Client, TheEchoIsTheseBytes) {
    std::unique_ptr<vxtest::Wire> wire;
    wan->gateway.inside([&] { wire = std::make_unique<vxtest::Wire>("gw0"); });
    std::srand(7);
    const auto identifier = static_cast<uint16_t>(std::rand());
    const auto sequence = static_cast<uint16_t>(std::rand() + 1);
    std::srand(7);
    PingClient client;
    Sends sends;
    ASSERT_EQ(client.sendSimplePing("192.0.2.10", "198.51.100.9"), 0);
    ASSERT_EQ(sends.sent.size(), 1U);

    Bytes header{0x45, 0, 0, 28, 0, 0, 0, 0, 128, 1, 0, 0, 192, 0, 2, 10, 198, 51, 100, 9};
    Bytes message{8,
                  0,
                  0,
                  0,
                  static_cast<uint8_t>(identifier >> 8),
                  static_cast<uint8_t>(identifier & 0xFF),
                  static_cast<uint8_t>(sequence >> 8),
                  static_cast<uint8_t>(sequence & 0xFF)};
    const auto seal = [](Bytes &bytes, size_t at, uint16_t sum) {
        bytes[at] = static_cast<uint8_t>(sum >> 8);
        bytes[at + 1] = static_cast<uint8_t>(sum & 0xFF);
    };
    seal(message, 2, vxtest::checksumByTheBook(message.data(), message.size()));
    const Bytes whole = header + message;
    seal(header, 10, vxtest::checksumByTheBook(whole.data(), whole.size()));
    EXPECT_EQ(hex(sends.sent[0]), hex(header + message));
    uint16_t family = AF_INET;
    Bytes address(2);
    std::memcpy(address.data(), &family, 2);
    EXPECT_EQ(hex(sends.to[0]), hex(address + Bytes{0, 0, 198, 51, 100, 9} + Bytes(8)));

    // The kernel puts its identification into the header, and the checksum that goes with it.
    const auto frame = wire->nextIcmp();
    ASSERT_TRUE(frame.has_value());
    header[4] = frame->bytes.at(18);
    header[5] = frame->bytes.at(19);
    header[10] = header[11] = 0;
    seal(header, 10, vxtest::checksumByTheBook(header.data(), header.size()));
    EXPECT_EQ(hex(frame->bytes.data() + 14, frame->bytes.size() - 14), hex(header + message));
}

TEST_F(Client, TheSequenceNumberGoesUpWithEveryEchoAndTheIdentifierStays) {
    PingClient client;
    Sends sends;
    for (int i = 0; i < 3; ++i) client.sendSimplePing("192.0.2.10", "192.0.2.1");
    EXPECT_EQ(client.sendSimplePing("192.0.2.10", "no-such-host"), 1);
    client.sendSimplePing("192.0.2.10", "192.0.2.1");
    ASSERT_EQ(sends.sent.size(), 4U);
    for (size_t i = 1; i < sends.sent.size(); ++i) EXPECT_EQ(number(sends.sent[i], 24), number(sends.sent[0], 24));
    const uint16_t first = number(sends.sent[0], 26);
    EXPECT_EQ(number(sends.sent[1], 26), static_cast<uint16_t>(first + 1));
    EXPECT_EQ(number(sends.sent[2], 26), static_cast<uint16_t>(first + 2));
    EXPECT_EQ(number(sends.sent[3], 26), static_cast<uint16_t>(first + 4)) << "a failed echo counts too";
}

TEST_F(Client, TheSourceTextIsTakenAsItIs) {
    vxtest::Wan::answers(wan->gateway, false);
    PingClient client;
    Sends sends;
    EXPECT_EQ(client.sendSimplePing("192.0.2.99", "192.0.2.1"), 0);
    EXPECT_EQ(hex(sends.sent.at(0).data() + 12, 4), "c0 00 02 63");
    client.sendSimplePing("no address", "192.0.2.1");
    EXPECT_EQ(hex(sends.sent.at(1).data() + 12, 4), "ff ff ff ff");
}

TEST_F(Client, FailuresGiveOne) {
    const vxtest::NoLeaks noLeaks;
    PingClient client;
    EXPECT_EQ(client.sendSimplePing("192.0.2.10", ""), 1);
    EXPECT_EQ(client.sendSimplePing("192.0.2.10", "10.99.99.99"), 1) << "no route";
    {
        vxtest::Intercept calls;
        calls->socket = [](int domain, int type, int protocol) -> std::optional<int> {
            EXPECT_EQ(domain, AF_INET);
            EXPECT_EQ(type & ~SOCK_CLOEXEC, SOCK_RAW);
            EXPECT_EQ(protocol, IPPROTO_ICMP);
            return vxtest::failing(EPERM);
        };
        EXPECT_EQ(client.sendSimplePing("192.0.2.10", "192.0.2.1"), 1);
        EXPECT_EQ(errno, EPERM) << "nothing was tried without a socket";
        EXPECT_EQ(client.checkPingResponse(), 3) << "no socket";
    }
    {
        vxtest::Intercept calls;
        calls->setsockopt = [](int, int level, int option, const void *, socklen_t) -> std::optional<int> {
            EXPECT_EQ(level, IPPROTO_IP);
            EXPECT_EQ(option, IP_HDRINCL);
            return vxtest::failing(EPERM);
        };
        EXPECT_EQ(client.sendSimplePing("192.0.2.10", "192.0.2.1"), 1);
    }
    for (const ssize_t sent : {27, 0, -1}) {
        vxtest::Intercept calls;
        calls->sendto = [&](int, const void *, size_t, const sockaddr *, socklen_t) -> std::optional<ssize_t> {
            return sent;
        };
        EXPECT_EQ(client.sendSimplePing("192.0.2.10", "192.0.2.1"), 1) << sent;
    }
}

// An IP packet with `headerLength` bytes of header.
Bytes packet(uint8_t first, size_t headerLength, uint8_t type, uint16_t identifier, uint16_t sequence) {
    Bytes bytes(headerLength, 0);
    bytes = bytes + Bytes{type,
                          0,
                          0,
                          0,
                          static_cast<uint8_t>(identifier >> 8),
                          static_cast<uint8_t>(identifier & 0xFF),
                          static_cast<uint8_t>(sequence >> 8),
                          static_cast<uint8_t>(sequence & 0xFF)};
    bytes[0] = first;
    return bytes;
}

TEST_F(Client, AReplyIsKnownByItsNumbersAlone) {
    vxtest::Wan::answers(wan->gateway, false);
    const auto cut = [](Bytes bytes, size_t size) {
        bytes.resize(size);
        return bytes;
    };
    for (int round = 0; round < 2; ++round) {
        PingClient client;
        Sends sends;
        ASSERT_EQ(client.sendSimplePing("192.0.2.10", "192.0.2.1"), 0);
        const uint16_t i = number(sends.sent.at(0), 24);
        const uint16_t s = number(sends.sent.at(0), 26);
        const struct {
            const char *name;
            Bytes bytes;
            bool found;
        } cases[] = {
            {"a reply", packet(0x45, 20, 0, i, s), true},
            {"a request: the type is not looked at", packet(0x45, 20, 8, i, s), true},
            {"another identifier", packet(0x45, 20, 0, static_cast<uint16_t>(i ^ 1), s), false},
            {"another sequence", packet(0x45, 20, 0, i, static_cast<uint16_t>(s + 1)), false},
            {"the two exchanged", packet(0x45, 20, 0, s, i), i == s},
            {"one byte short", cut(packet(0x45, 20, 0, i, s), 27), false},
            {"a header alone", cut(packet(0x45, 20, 0, i, s), 20), false},
            {"one byte", Bytes{0x45}, false},
            {"options", packet(0x47, 28, 0, i, s), true},
            {"the longest header", packet(0x4F, 60, 0, i, s), true},
            {"the longest header, one byte short", cut(packet(0x4F, 60, 0, i, s), 67), false},
            {"a header that it does not have", packet(0x4F, 20, 0, i, s), false},
            {"a header of no length", packet(0x40, 20, 0, i, s), false},
            {"256 bytes and more", packet(0x45, 20, 0, i, s) + Bytes(1000), true},
        };
        for (const auto &item : cases) {
            SCOPED_TRACE(item.name);
            bool given = false;
            int emptyReads = 0;
            sends.calls->recvfrom = [&](int, void *buffer, size_t size, int flags) -> std::optional<ssize_t> {
                EXPECT_EQ(size, 256U);
                EXPECT_EQ(flags, MSG_DONTWAIT);
                if (emptyReads++ < 2) return 0;
                if (given) return vxtest::failing(EAGAIN);
                given = true;
                const size_t length = std::min(size, item.bytes.size());
                // Nothing after what was received may be read: the rest is what a reply would need.
                std::memcpy(buffer, packet(0x45, 20, 0, i, s).data(), 28);
                std::memcpy(buffer, item.bytes.data(), length);
                return static_cast<ssize_t>(length);
            };
            EXPECT_EQ(client.checkPingResponse(), item.found ? 0 : 2);
            EXPECT_TRUE(given);
        }
    }
}

TEST_F(Client, AReceiveErrorGivesThree) {
    PingClient client;
    ASSERT_EQ(client.sendSimplePing("192.0.2.10", "192.0.2.1"), 0);
    vxtest::Intercept calls;
    for (const int error : {ENETDOWN, EINTR, ENOMEM}) {
        calls->recvfrom = [&](int, void *, size_t, int) -> std::optional<ssize_t> { return vxtest::failing(error); };
        EXPECT_EQ(client.checkPingResponse(), 3) << error;
    }
}

TEST_F(Client, PacketsWithoutEndDoNotKeepTheCaller) {
    PingClient client;
    ASSERT_EQ(client.sendSimplePing("192.0.2.10", "192.0.2.1"), 0);
    vxtest::Intercept calls;
    int packets = 0;
    calls->recvfrom = [&](int, void *, size_t, int) -> std::optional<ssize_t> {
        return packets++ < 1000000 ? 1 : vxtest::failing(EAGAIN);
    };
    EXPECT_EQ(client.checkPingResponse(), 2);
    EXPECT_EQ(packets, 1024);
}

TEST_F(Client, OfAPacketAtMost256BytesAreRead) {
    PingClient client;
    vxtest::Intercept calls;
    calls->recvfrom = [](int, void *, size_t size, int) -> std::optional<ssize_t> {
        EXPECT_EQ(size, 256U);
        return vxtest::failing(EAGAIN);
    };
    EXPECT_EQ(client.checkPingResponse(), 2);
}

TEST_F(Client, CleaningUpTwiceClosesOnce) {
    PingClient client;
    ASSERT_EQ(client.sendSimplePing("192.0.2.10", "192.0.2.1"), 0);
    errno = 0;
    client.cleanup();
    client.cleanup();
    EXPECT_EQ(errno, 0) << "nothing that is not open was closed";
}

// What came in before the kernel was told whom to listen to.
TEST_F(Client, PacketsReceivedBeforeTheEchoAreIgnored) {
    PingClient client;
    {
        Sends sends;
        ASSERT_EQ(client.sendSimplePing("192.0.2.10", "192.0.2.1"), 0);
        ASSERT_EQ(answer(client), 0);
        // The next echo's numbers are known: this one's, and one more.
        const uint16_t i = number(sends.sent.at(0), 24);
        const auto s = static_cast<uint16_t>(number(sends.sent.at(0), 26) + 1);
        Bytes early{8, 0, 0, 0};
        early = early + Bytes{static_cast<uint8_t>(i >> 8), static_cast<uint8_t>(i), static_cast<uint8_t>(s >> 8),
                              static_cast<uint8_t>(s)};
        const uint16_t sum = vxtest::checksumByTheBook(early.data(), early.size());
        early[2] = static_cast<uint8_t>(sum >> 8);
        early[3] = static_cast<uint8_t>(sum);
        vxtest::Wan::answers(wan->gateway, false);
        sends.calls->setsockopt = [&](int, int, int option, const void *, socklen_t) -> std::optional<int> {
            if (option != IP_HDRINCL) return std::nullopt;
            const vx::Fd other(::socket(AF_INET, SOCK_RAW | SOCK_CLOEXEC, IPPROTO_ICMP));
            sockaddr_in self{};
            self.sin_family = AF_INET;
            self.sin_addr.s_addr = ::inet_addr("127.0.0.1");
            EXPECT_EQ(::syscall(SYS_sendto, other.get(), early.data(), early.size(), 0, &self, sizeof self), 8);
            return std::nullopt;
        };
        ASSERT_EQ(client.sendSimplePing("192.0.2.10", "192.0.2.1"), 0);
    }
    ::poll(nullptr, 0, 50);
    EXPECT_EQ(client.checkPingResponse(), 2);
}

TEST_F(Client, WithoutAFilterNothingIsSent) {
    PingClient client;
    Sends sends;
    sends.calls->setsockopt = [](int, int, int option, const void *, socklen_t) -> std::optional<int> {
        if (option != SO_ATTACH_FILTER) return std::nullopt;
        return vxtest::failing(ENOMEM);
    };
    EXPECT_EQ(client.sendSimplePing("192.0.2.10", "192.0.2.1"), 1);
    EXPECT_TRUE(sends.sent.empty());
}

TEST_F(Client, AGroupsMembersMayAnswer) {
    PingClient client;
    Sends sends;
    bool filtered = false;
    sends.calls->setsockopt = [&](int, int, int option, const void *, socklen_t) -> std::optional<int> {
        if (option == SO_ATTACH_FILTER) filtered = true;
        return std::nullopt;
    };
    sends.calls->sendto = [](int, const void *, size_t size, const sockaddr *, socklen_t) {
        return std::optional<ssize_t>(size);
    };
    EXPECT_EQ(client.sendSimplePing("192.0.2.10", "224.0.0.1"), 0);
    EXPECT_FALSE(filtered);
}

// ---- what a derived class sees ----

struct Observed : PingClient {
    mutable std::vector<std::pair<int, Bytes>> sums;
    int cleanups = 0;

    unsigned short checksum(unsigned short *data, int length) const override {
        const auto *bytes = reinterpret_cast<const uint8_t *>(data);
        sums.emplace_back(length, Bytes(bytes, bytes + length));
        return 0x1234;
    }
    void cleanup() override {
        ++cleanups;
        PingClient::cleanup();
    }
};

TEST_F(Client, ChecksumsAndCleanupAreVirtual) {
    const vxtest::NoLeaks noLeaks;
    Observed client;
    Sends sends;
    EXPECT_EQ(client.sendSimplePing("192.0.2.10", "192.0.2.1"), 0);
    EXPECT_EQ(client.cleanups, 1);
    ASSERT_EQ(client.sums.size(), 2U);
    EXPECT_EQ(client.sums[0].first, 8) << "the message";
    EXPECT_EQ(client.sums[1].first, 28) << "header and message together";
    EXPECT_EQ(hex(client.sums[0].second),
              hex(Bytes{8, 0, 0, 0} + Bytes(sends.sent[0].begin() + 24, sends.sent[0].end())));
    unsigned short sum = 0x1234;
    Bytes bytes(2);
    std::memcpy(bytes.data(), &sum, 2);
    EXPECT_EQ(hex(sends.sent[0].data() + 22, 2), hex(bytes));
    EXPECT_EQ(hex(sends.sent[0].data() + 10, 2), hex(bytes));
}

TEST(PingClientClass, ItsTableHasSixSlotsInThisOrder) {
    struct Derived final : PingClient {
        int sendSimplePing(const String &, const String &) override { return 11; }
        int checkPingResponse() override { return 22; }
        void cleanup() override { ++cleaned; }
        unsigned short checksum(unsigned short *, int) const override { return 44; }
        int cleaned = 0;
    } derived;
    PingClient *const object = &derived;
    void **table = nullptr;
    std::memcpy(&table, static_cast<void *>(object), sizeof table);
    String nothing;
    // Slots 0 and 1 are the two destructors.
    using Send = int (*)(PingClient *, const String &, const String &);
    using Check = int (*)(PingClient *);
    using Cleanup = void (*)(PingClient *);
    using Checksum = unsigned short (*)(const PingClient *, unsigned short *, int);
    EXPECT_EQ(reinterpret_cast<Send>(table[2])(object, nothing, nothing), 11);
    EXPECT_EQ(reinterpret_cast<Check>(table[3])(object), 22);
    reinterpret_cast<Cleanup>(table[4])(object);
    EXPECT_EQ(derived.cleaned, 1);
    EXPECT_EQ(reinterpret_cast<Checksum>(table[5])(object, nullptr, 0), 44);
    EXPECT_TRUE(std::has_virtual_destructor_v<PingClient>);
    EXPECT_FALSE(std::is_copy_constructible_v<PingClient>) << "two owners of one socket";
    EXPECT_EQ(sizeof(PingClient), sizeof(void *) + 8);
}

}  // namespace
