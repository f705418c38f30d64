// SPDX-License-Identifier: MIT
// The test bench itself: what a box promises to the tests that run in it.
#include <fcntl.h>
#include <ifaddrs.h>
#include <linux/capability.h>
#include <sys/prctl.h>
#include <sys/reboot.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <array>
#include <cerrno>

#include "support/emulation.h"
#include "support/files.h"
#include "support/process.h"
#include "support/resources.h"
#include "support/syslog_capture.h"

namespace {

using vxtest::LogLine;

TEST(Box, WritesToRealPathsStayInTheBox) {
    vxtest::writeFile("/nvstatus/box/probe", "inside");
    EXPECT_EQ(vxtest::readFile("/nvstatus/box/probe"), "inside");
    EXPECT_FALSE(vxtest::exists("/var/run/configd"));
    vxtest::makeDirs("/var/run/configd");
    EXPECT_TRUE(vxtest::exists("/var/run/configd"));
}

TEST(Box, HasItsOwnProcessesNetworkAndHostName) {
    EXPECT_LT(::getpid(), 100);
    char name[64] = {};
    ASSERT_EQ(::gethostname(name, sizeof name), 0);
    EXPECT_STREQ(name, "gateway");
    ifaddrs *all = nullptr;
    ASSERT_EQ(::getifaddrs(&all), 0);
    for (const ifaddrs *one = all; one != nullptr; one = one->ifa_next) EXPECT_STREQ(one->ifa_name, "lo");
    ::freeifaddrs(all);
}

// Restarts are tested in the box; three walls stand between them and the machine.
TEST(Box, CannotRestartTheMachine) {
    // Outside the first process namespace the kernel ends the namespace instead of restarting.
    std::array<char, 64> space{};
    ASSERT_GT(::readlink("/proc/self/ns/pid", space.data(), space.size() - 1), 0);
    EXPECT_STRNE(space.data(), "pid:[4026531836]") << "the kernel's number for the first one";
    // The capability is gone, and out of reach for a program with any rights.
    EXPECT_EQ(::prctl(PR_CAPBSET_READ, CAP_SYS_BOOT), 0);
    EXPECT_EQ(::reboot(RB_DISABLE_CAD), -1) << "a harmless command that needs the same capability";
    EXPECT_EQ(errno, EPERM);
    // The kernel's files that do the same are covered, where it has them.
    struct stat keys;
    if (::stat("/proc/sysrq-trigger", &keys) == 0) EXPECT_TRUE(S_ISCHR(keys.st_mode));
    EXPECT_FALSE(vxtest::exists("/sys/power/state"));
}

TEST(Box, EndsWithTheProgramsOwnStatus) {
    EXPECT_EQ(vxtest::run({"sh", "-c", "exit 7"}).status, 7);
    EXPECT_EQ(vxtest::run({"sh", "-c", "kill -9 $$"}).status, 128 + 9);
}

TEST(Box, WorksForAnOrdinaryUser) {
    if (vxtest::emulated()) GTEST_SKIP() << "user-mode emulation cannot make namespaces";
    const std::vector<std::string> box{
        "setpriv", "--reuid=65534", "--regid=65534", "--clear-groups", vxtest::built("gateway/vxbox"), "--"};
    auto command = box;
    command.insert(command.end(), {"stat", "-f", "-c", "%T", "/usr"});
    if (vxtest::run(command).text != "overlayfs\n") {
        GTEST_SKIP() << "this kernel does not let an ordinary user's box lay over another box";
    }
    const auto output = vxtest::run({"setpriv", "--reuid=65534", "--regid=65534", "--clear-groups",
                                     vxtest::built("gateway/vxbox"), "--", "sh", "-c",
                                     "echo x >/nvstatus.probe && rm -f /usr/lib/libvxutils.so.1.0.0 && "
                                     "echo x >/usr/lib/libvxutils.so.1.0.0 && mkdir -p "
                                     "/var/run/configd && id -u && hostname"});
    EXPECT_EQ(output.text, "0\ngateway\n");
    EXPECT_EQ(output.status, 0);
    EXPECT_FALSE(vxtest::exists("/nvstatus.probe"));
}

TEST(SyslogCapture, SeesPriorityAndText) {
    vxtest::SyslogCapture log;
    ::syslog(LOG_WARNING, "disk %d full", 3);
    EXPECT_EQ(vxtest::inChild([] {
                  ::syslog(LOG_DEBUG, "from a child");
                  return 0;
              }),
              0);
    EXPECT_EQ(log.take(), (std::vector<LogLine>{{LOG_WARNING, "disk 3 full"}, {LOG_DEBUG, "from a child"}}));
    EXPECT_TRUE(log.take().empty());
}

TEST(SyslogCapture, TakesFloodsWithoutBlockingTheLogger) {
    vxtest::SyslogCapture log;
    constexpr size_t count = 2000;
    for (size_t i = 0; i < count; ++i) ::syslog(LOG_INFO, "line %zu", i);
    const auto lines = log.take();
    ASSERT_EQ(lines.size(), count);
    EXPECT_EQ(lines.back().text, "line 1999");
}

TEST(Resources, ALeakedDescriptorIsSeen) {
    const auto before = vxtest::openDescriptors();
    const int fd = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
    EXPECT_NE(vxtest::openDescriptors(), before);
    ::close(fd);
    EXPECT_EQ(vxtest::openDescriptors(), before);
}

TEST(Resources, AGuardedBufferEndsAtAnUnreadablePage) {
    vxtest::GuardedBuffer buffer(5);
    buffer.data()[4] = 'x';
    EXPECT_EXIT(
        {
            ::signal(SIGSEGV, [](int) { ::_exit(42); });
            static_cast<volatile char *>(buffer.data())[5] = 'y';
        },
        testing::ExitedWithCode(42), "");
}

}  // namespace
