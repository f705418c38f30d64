// SPDX-License-Identifier: MIT
// Interface requests: on virtual cables of the box, set and read back, and beside the system's own tool.
#include <fcntl.h>
#include <malloc.h>
#include <net/if.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vxutils/ipinterfacestatus.h>

#include <filesystem>
#include <functional>
#include <type_traits>
#include <vector>

#include "support/files.h"
#include "support/intercept.h"
#include "support/netns.h"
#include "support/process.h"
#include "support/resources.h"
#include "support/short_objects.h"
#include "support/syslog_capture.h"

namespace {

using vxtest::ip;

const char *const missing = "nosuch0";

class Status : public testing::Test {
protected:
    static void SetUpTestSuite() {
        ip("link add eth0 type veth peer name eth0peer");
        ip("link add fifteen-letters type veth peer name shortpeer");
    }

    IpInterfaceStatus status;
    const vxtest::NoLeaks noLeaks;
};

bool toolSays(const std::string &interface, const std::string &text) {
    return ip("addr show dev " + interface).find(text) != std::string::npos;
}

TEST_F(Status, IsPolymorphicAndHoldsNothing) {
    EXPECT_TRUE(std::has_virtual_destructor_v<IpInterfaceStatus>);
    EXPECT_EQ(sizeof(IpInterfaceStatus), sizeof(void *));
    IpInterfaceStatus copy(status);
    copy = status;
    EXPECT_EQ(copy.isInterfaceAvailable("lo"), 1);
}

TEST_F(Status, AnInterfaceIsAvailableWhenItsNameContainsTheText) {
    EXPECT_EQ(status.isInterfaceAvailable("eth0"), 1);
    EXPECT_EQ(status.isInterfaceAvailable("eth"), 1);
    EXPECT_EQ(status.isInterfaceAvailable("th0p"), 1);
    EXPECT_EQ(status.isInterfaceAvailable("fifteen-letters"), 1);
    EXPECT_EQ(status.isInterfaceAvailable(""), 1);
    EXPECT_EQ(status.isInterfaceAvailable("fifteen-letters!"), 0);
    EXPECT_EQ(status.isInterfaceAvailable("ETH0"), 0);
    EXPECT_EQ(status.isInterfaceAvailable(missing), 0);
    EXPECT_EQ(status.isInterfaceAvailable(nullptr), 0);
}

TEST_F(Status, LookingForAnInterfaceKeepsNoMemory) {
    status.isInterfaceAvailable("lo");
    const size_t before = ::mallinfo2().uordblks;
    for (int i = 0; i < 100; ++i) {
        status.isInterfaceAvailable("lo");
        status.isInterfaceAvailable(missing);
    }
    EXPECT_LE(::mallinfo2().uordblks, before + 1000);
}

TEST_F(Status, UpMeansUpAndRunning) {
    ip("link set eth0 down");
    ip("link set eth0peer down");
    EXPECT_EQ(status.isInterfaceUp("eth0"), 0);
    ip("link set eth0 up");
    EXPECT_TRUE(toolSays("eth0", ",UP>") || toolSays("eth0", ",UP,"));
    // The kernel tells other programs that the cable is dead up to a second later.
    EXPECT_TRUE(vxtest::eventually([&] { return status.isInterfaceUp("eth0") == 0; }))
        << "up, but its other end is down: not running";
    ip("link set eth0peer up");
    EXPECT_TRUE(vxtest::eventually([&] { return status.isInterfaceUp("eth0") == 1; }));
    EXPECT_EQ(status.isInterfaceUp("lo"), 1);
    EXPECT_EQ(status.isInterfaceUp(missing), 0);
    EXPECT_EQ(status.isInterfaceUp(""), 0);
    EXPECT_EQ(status.isInterfaceUp(nullptr), 0);
}

TEST_F(Status, OneSetsTheInterfaceUpAndAnythingElseDown) {
    ip("link set eth0peer up");
    for (const int down : {0, 2, -1, 256}) {
        EXPECT_EQ(status.setInterfaceUp("eth0", 1), 1);
        EXPECT_TRUE(vxtest::eventually([&] { return status.isInterfaceUp("eth0") == 1; }));
        EXPECT_EQ(status.setInterfaceUp("eth0", down), 1);
        EXPECT_EQ(status.isInterfaceUp("eth0"), 0) << down;
        EXPECT_FALSE(toolSays("eth0", "UP")) << down;
    }
    EXPECT_EQ(status.setInterfaceUp(missing, 1), 0);
    EXPECT_EQ(status.setInterfaceUp(nullptr, 1), 0);
}

TEST_F(Status, SettingUpLeavesTheOtherFlagsAlone) {
    ip("link set eth0 promisc on");
    EXPECT_EQ(status.setInterfaceUp("eth0", 1), 1);
    EXPECT_TRUE(toolSays("eth0", "PROMISC"));
    EXPECT_EQ(status.setInterfaceUp("eth0", 0), 1);
    EXPECT_TRUE(toolSays("eth0", "PROMISC"));
    ip("link set eth0 promisc off");
}

// The kernel keeps the running flag to itself: what it is asked to set is seen here only.
TEST_F(Status, UpAndRunningAreSetAndClearedTogether) {
    const short others = IFF_BROADCAST | IFF_MULTICAST;
    const short both = IFF_UP | IFF_RUNNING;
    for (const short before : {short{0}, short{IFF_UP}, short{IFF_RUNNING}, both}) {
        for (const int up : {1, 0, 2, -1}) {
            vxtest::Intercept calls;
            std::vector<short> set;
            calls->ioctl = [&](int, unsigned long request, void *argument) -> std::optional<int> {
                auto *const interface = static_cast<ifreq *>(argument);
                EXPECT_STREQ(interface->ifr_name, "eth0");
                if (request == SIOCGIFFLAGS) interface->ifr_flags = static_cast<short>(others | before);
                if (request == SIOCSIFFLAGS) set.push_back(interface->ifr_flags);
                return 0;
            };
            EXPECT_EQ(status.setInterfaceUp("eth0", up), 1);
            EXPECT_EQ(set, (std::vector<short>{static_cast<short>(up == 1 ? others | both : others)})) << up;
            EXPECT_EQ(status.isInterfaceUp("eth0"), before == both ? 1 : 0);
        }
    }
}

TEST_F(Status, FlagsThatCannotBeReadAreNotSet) {
    vxtest::Intercept calls;
    calls->ioctl = [](int, unsigned long request, void *) -> std::optional<int> {
        EXPECT_EQ(request, static_cast<unsigned long>(SIOCGIFFLAGS)) << "and nothing else";
        return vxtest::failing(EIO);
    };
    EXPECT_EQ(status.setInterfaceUp("eth0", 1), 0);
    EXPECT_EQ(status.isInterfaceUp("eth0"), 0);
}

TEST_F(Status, EveryRequestHasASocketOfItsOwn) {
    vxtest::Intercept calls;
    int sockets = 0;
    calls->socket = [&](int domain, int type, int) -> std::optional<int> {
        EXPECT_EQ(domain, AF_INET);
        EXPECT_EQ(type & ~SOCK_CLOEXEC, SOCK_DGRAM);
        ++sockets;
        return std::nullopt;
    };
    const std::function<void()> requests[] = {
        [&] { status.isInterfaceUp("lo"); },
        [&] { status.setInterfaceUp("lo", 1); },
        [&] { status.setTxQueueLen("fifteen-letters", 40); },
        [&] { status.getIpV4Address("lo"); },
        [&] { status.setIpV4Address("fifteen-letters", 0x0A010203); },
        [&] { status.getIpV4Mask("lo"); },
        [&] { status.setIpV4Mask("fifteen-letters", 0xFF000000); },
    };
    const auto before = vxtest::openDescriptors();
    int done = 0;
    for (const auto &request : requests) {
        request();
        EXPECT_EQ(sockets, ++done);
        EXPECT_EQ(vxtest::openDescriptors(), before) << done;
    }
}

TEST_F(Status, AddressAndMaskAreSetAndReadBackInHostOrder) {
    EXPECT_EQ(status.getIpV4Address("eth0"), 0U) << "no address yet";
    EXPECT_EQ(status.getIpV4Mask("eth0"), 0U);
    EXPECT_EQ(status.setIpV4Mask("eth0", 0xFFFFFF00), 0) << "a mask needs an address";
    EXPECT_EQ(status.setIpV4Address("eth0", 0xC0A80A01), 1);
    EXPECT_EQ(status.getIpV4Address("eth0"), 0xC0A80A01U);
    EXPECT_EQ(status.setIpV4Mask("eth0", 0xFFFFFFC0), 1);
    EXPECT_EQ(status.getIpV4Mask("eth0"), 0xFFFFFFC0U);
    EXPECT_TRUE(toolSays("eth0", "inet 192.168.10.1/26"));
    EXPECT_EQ(status.setIpV4Address("eth0", 0x0A010203), 1);
    EXPECT_TRUE(toolSays("eth0", "inet 10.1.2.3/8"));
    EXPECT_EQ(status.setIpV4Mask("eth0", 0xFF00FF00), 0) << "a mask with a hole";
    EXPECT_EQ(status.setIpV4Address("eth0", 0xE0000001), 0) << "a multicast address";
    EXPECT_EQ(status.getIpV4Address("eth0"), 0x0A010203U);
    EXPECT_EQ(status.setIpV4Address("eth0", 0), 1);
    EXPECT_EQ(status.getIpV4Address("eth0"), 0U) << "0 removes the address";
    EXPECT_EQ(status.getIpV4Address("lo"), 0x7F000001U);
    EXPECT_EQ(status.getIpV4Mask("lo"), 0xFF000000U);
}

TEST_F(Status, AnAddressOfAPointToPointInterfaceGetsTheNetmaskOfAHost) {
    if (::access("/dev/net/tun", R_OK | W_OK) != 0) GTEST_SKIP() << "this machine has no /dev/net/tun";
    ip("tuntap add mode tun name tun0");
    EXPECT_EQ(status.setIpV4Address("tun0", 0x0A010203), 1);
    EXPECT_EQ(status.getIpV4Mask("tun0"), 0xFFFFFFFFU);
    EXPECT_EQ(status.setIpV4Mask("tun0", 0xFFFFFF00), 1);
    EXPECT_EQ(status.getIpV4Mask("tun0"), 0xFFFFFF00U);
    ip("link delete tun0");
}

TEST_F(Status, AddressesOfMissingInterfacesAreZeroAndNotSet) {
    for (const char *name : {missing, "", static_cast<const char *>(nullptr)}) {
        EXPECT_EQ(status.getIpV4Address(name), 0U);
        EXPECT_EQ(status.getIpV4Mask(name), 0U);
        EXPECT_EQ(status.setIpV4Address(name, 0x0A000001), 0);
        EXPECT_EQ(status.setIpV4Mask(name, 0xFF000000), 0);
        EXPECT_EQ(status.setTxQueueLen(name, 10), 0);
    }
}

TEST_F(Status, TheQueueLengthIsSet) {
    EXPECT_EQ(status.setTxQueueLen("eth0", 37), 1);
    EXPECT_TRUE(toolSays("eth0", "qlen 37"));
    EXPECT_EQ(status.setTxQueueLen("eth0", 0xFFFFFFFF), 0) << "the kernel takes no negative length";
    EXPECT_TRUE(toolSays("eth0", "qlen 37"));
}

TEST_F(Status, NamesAreUsedUpToTheirFifteenthCharacter) {
    EXPECT_EQ(status.setIpV4Address("fifteen-letters", 0x0A0A0A0A), 1);
    EXPECT_EQ(status.getIpV4Address("fifteen-letters"), 0x0A0A0A0AU);
    EXPECT_EQ(status.getIpV4Address("fifteen-letter"), 0U);
    EXPECT_EQ(status.getIpV4Address("fifteen-letters16"), 0x0A0A0A0AU) << "the same interface: the rest is cut off";
    EXPECT_EQ(status.getIpV4Address(std::string(100000, 'x').c_str()), 0U);
    vxtest::GuardedBuffer unterminatedBehindThe15th(15);
    std::string("fifteen-letters").copy(unterminatedBehindThe15th.data(), 15);
    EXPECT_EQ(status.getIpV4Address(unterminatedBehindThe15th.data()), 0x0A0A0A0AU);
}

TEST_F(Status, WithoutDescriptorsEverythingFails) {
    rlimit before{};
    ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &before), 0);
    const rlimit none{0, before.rlim_max};
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &none), 0);
    const int available = status.isInterfaceAvailable("lo");
    const int up = status.isInterfaceUp("lo");
    const int set = status.setInterfaceUp("lo", 1);
    const int queue = status.setTxQueueLen("lo", 10);
    const unsigned int address = status.getIpV4Address("lo");
    const unsigned int mask = status.getIpV4Mask("lo");
    const int setAddress = status.setIpV4Address("eth0", 0x0A000001);
    const int setMask = status.setIpV4Mask("eth0", 0xFF000000);
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &before), 0);
    EXPECT_EQ(available, 0);
    EXPECT_EQ(up, 0);
    EXPECT_EQ(set, 0);
    EXPECT_EQ(queue, 0);
    EXPECT_EQ(address, 0U);
    EXPECT_EQ(mask, 0U);
    EXPECT_EQ(setAddress, 0);
    EXPECT_EQ(setMask, 0);
}

TEST_F(Status, WithoutThePrivilegeNothingIsSet) {
    EXPECT_EQ(vxtest::inChild([&] {
                  if (::setuid(65534) != 0) return 2;
                  const bool refused = status.setInterfaceUp("eth0", 1) == 0 && status.setTxQueueLen("eth0", 5) == 0 &&
                                       status.setIpV4Address("eth0", 1) == 0 && status.setIpV4Mask("eth0", 1) == 0;
                  return refused && status.getIpV4Address("lo") == 0x7F000001 ? 0 : 1;
              }),
              0);
}

TEST_F(Status, ConnectivityIsTheHotLinksInterfaceFile) {
    EXPECT_EQ(status.haveNetworkConnectivity(), 0);
    vxtest::writeFile("/tmp/status/link-manager/hotlink/interface", "");
    EXPECT_EQ(status.haveNetworkConnectivity(), 1);
    ::unlink("/tmp/status/link-manager/hotlink/interface");
    EXPECT_EQ(status.haveNetworkConnectivity(), 0);
}

TEST_F(Status, WithoutMemoryALinkIsNotFollowed) {
    vxtest::writeFile("/tmp/status/link-manager/wan0", "");
    vxtest::makeDirs("/tmp/status/link-manager/hotlink");
    ASSERT_EQ(::symlink("../wan0", "/tmp/status/link-manager/hotlink/interface"), 0);
    vxtest::objectsRunOut = true;
    const int connected = status.haveNetworkConnectivity();
    vxtest::objectsRunOut = false;
    EXPECT_EQ(connected, 0);
    EXPECT_EQ(status.haveNetworkConnectivity(), 1);
    std::filesystem::remove_all("/tmp/status/link-manager");
}

TEST_F(Status, AStrangersTreeDoesNotCount) {
    const std::string tree = "/tmp/status/link-manager";
    vxtest::writeFile(tree + "/hotlink/interface", "");
    EXPECT_EQ(status.haveNetworkConnectivity(), 1);
    for (const std::string entry : {"", "/hotlink", "/hotlink/interface"}) {
        const std::string path = tree + entry;
        const std::string directory = std::filesystem::path(path).parent_path();
        ASSERT_EQ(::chmod(directory.c_str(), 0777), 0);
        ASSERT_EQ(::chown(path.c_str(), 65534, 65534), 0);
        EXPECT_EQ(status.haveNetworkConnectivity(), 0) << path;
        ASSERT_EQ(::chmod(directory.c_str(), 0755), 0);
        EXPECT_EQ(status.haveNetworkConnectivity(), 1) << "only root can have put it there";
        ASSERT_EQ(::chown(path.c_str(), 0, 0), 0);
    }
    std::filesystem::remove_all(tree);
}

TEST_F(Status, NothingIsLogged) {
    vxtest::SyslogCapture log;
    status.isInterfaceUp(missing);
    status.setIpV4Address(missing, 1);
    status.haveNetworkConnectivity();
    vxtest::writeFile("/tmp/status/link-manager/hotlink/interface", "");
    ASSERT_EQ(::chmod("/tmp/status/link-manager", 0777), 0);
    ASSERT_EQ(::chown("/tmp/status/link-manager/hotlink", 65534, 65534), 0);
    EXPECT_EQ(status.haveNetworkConnectivity(), 0);
    EXPECT_TRUE(log.take().empty());
    std::filesystem::remove_all("/tmp/status/link-manager");
}

}  // namespace
