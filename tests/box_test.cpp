// SPDX-License-Identifier: MIT
// The test bench itself: what a box promises to the tests that run in it.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <ifaddrs.h>
#include <linux/capability.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/reboot.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <syslog.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <string>
#include <vector>

#include "support/emulation.h"
#include "support/files.h"
#include "support/process.h"
#include "support/resources.h"
#include "support/syscall_filter.h"
#include "support/syslog_capture.h"

namespace {

using testing::HasSubstr;
using testing::Not;
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

// Restarts are tested in the box; three barriers keep them from the machine.
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

// A box within this one, as a user calls it; the tests' own has more rights.
class BoxCommand : public testing::Test {
protected:
    void SetUp() override {
        if (vxtest::emulated()) GTEST_SKIP() << "user-mode emulation cannot make namespaces";
    }

    static vxtest::Output box(std::vector<std::string> arguments, const std::vector<std::string> &wrapper = {}) {
        std::vector<std::string> command = wrapper;
        command.push_back(vxtest::built("gateway/vxbox"));
        command.insert(command.end(), arguments.begin(), arguments.end());
        return vxtest::run(command);
    }

    static vxtest::Output shell(std::vector<std::string> options, const std::string &script) {
        options.insert(options.end(), {"--", "sh", "-c", script});
        return box(options);
    }
};

TEST_F(BoxCommand, HasTheMachinesProgramsAndNothingElseOfIt) {
    for (const char *file :
         {"/home/me/mine", "/root/mine", "/tmp/mine", "/var/log/mine", "/srv/mine", "/nvstatus/mine"})
        vxtest::writeFile(file, "precious");
    const auto output = shell({}, "cd /; ls usr/bin/env etc/passwd; ls home root tmp var/log srv; ls -d /nvstatus");
    EXPECT_THAT(output.text, HasSubstr("usr/bin/env"));
    EXPECT_THAT(output.text, HasSubstr("etc/passwd"));
    EXPECT_THAT(output.text, Not(HasSubstr("mine")));
    EXPECT_THAT(output.text, HasSubstr("cannot access '/nvstatus'"));
}

TEST_F(BoxCommand, ChangesInMemoryOnly) {
    const auto output = shell({},
                              "echo x >/usr/lib/new && rm /usr/bin/env && echo x >>/etc/passwd && "
                              "mkdir -p /var/run/configd /made-inside /etc/oem && id -u && hostname");
    EXPECT_EQ(output.text, "0\ngateway\n");
    EXPECT_FALSE(vxtest::exists("/usr/lib/new"));
    EXPECT_TRUE(vxtest::exists("/usr/bin/env"));
    EXPECT_FALSE(vxtest::exists("/made-inside"));
}

TEST_F(BoxCommand, ShownFilesAndDirectoriesAreReadOnlyForGood) {
    vxtest::writeFile("/srv/my files/one", "precious");
    const auto output = shell({"--show", "/srv/my files", "/data", "--show", "/srv/my files/one", "/other/name"},
                              "cat /data/one /other/name; echo x >/data/one; echo x >/other/name; rm /data/one; "
                              "mount -o remount,rw,bind /data; umount /data; echo x >/data/one; true");
    EXPECT_THAT(output.text, HasSubstr("preciousprecious"));
    EXPECT_THAT(output.text, HasSubstr("mount: /data: permission denied"));
    EXPECT_EQ(output.status, 0);
    EXPECT_EQ(vxtest::readFile("/srv/my files/one"), "precious");
}

TEST_F(BoxCommand, ShowsWhatItsOwnWorkingPlaceCovers) {
    vxtest::writeFile("/tmp/mine", "precious");
    const auto output = shell({"--show", "/tmp", "/data"}, "ls /data");
    EXPECT_THAT(output.text, HasSubstr("mine\n"));
    EXPECT_EQ(output.text, vxtest::run({"ls", "/tmp"}).text) << "the source tree, too, may lie in /tmp";
}

TEST_F(BoxCommand, LinksOnTheWayToAPlaceDoNotLeadOutOfTheBox) {
    const auto output = shell({"--show", "/etc/passwd", "/var/run/deep/file", "--show", "/etc", "/var/lock/etc"},
                              "ls /run/deep /run/lock/etc/passwd");
    EXPECT_EQ(output.text, "/run/lock/etc/passwd\n\n/run/deep:\nfile\n");
    EXPECT_FALSE(vxtest::exists("/run/deep"));
    EXPECT_FALSE(vxtest::exists("/run/lock/etc"));
}

TEST_F(BoxCommand, SharedDirectoriesCanBeWrittenTo) {
    vxtest::makeDirs("/srv/shared");
    EXPECT_EQ(shell({"--share", "/srv/shared", "/data"}, "echo result >/data/out").status, 0);
    EXPECT_EQ(vxtest::readFile("/srv/shared/out"), "result\n");
}

TEST_F(BoxCommand, GivesNoRightsOverTheKernel) {
    const std::string script =
        "mknod /tmp/disk b 7 0; echo 1 >/proc/sys/kernel/panic; ls /dev/loop-control; "
        "date -s 2000-01-01 >/dev/null; echo 1 >/proc/sys/net/ipv4/ip_forward && echo forwards";
    const auto output = shell({}, script);
    for (const char *part : {"mknod: /tmp/disk: Operation not permitted", "panic: Read-only file system",
                             "cannot access '/dev/loop-control'", "cannot set date", "\nforwards\n"}) {
        EXPECT_THAT(output.text, HasSubstr(part));
    }
    EXPECT_THAT(shell({"--privileged"}, "mknod /tmp/disk b 7 0 && echo made").text, "made\n");
    EXPECT_THAT(shell({"--device", "loop-control"}, "ls /dev/loop-control").text, "/dev/loop-control\n");
}

TEST_F(BoxCommand, TellsItsOwnFailuresFromTheProgramsOnes) {
    EXPECT_EQ(box({"/no/such/program"}).status, 127);
    EXPECT_EQ(box({"/no/such/program"}).text, "vxbox: /no/such/program: No such file or directory\n");
    EXPECT_EQ(box({"/etc/passwd"}).status, 126);
    EXPECT_EQ(box({"--", "sh", "-c", "exit 9"}).status, 9);
    for (const std::vector<std::string> &wrong :
         {std::vector<std::string>{}, {"--frob"}, {"--show", "/etc"}, {"--show", "/etc", "relative", "true"}, {"--"}}) {
        const auto output = box(wrong);
        EXPECT_EQ(output.status, 125) << output.text;
        EXPECT_THAT(output.text, HasSubstr("usage: vxbox"));
    }
    const auto missing = box({"--show", "/no/such/dir", "/data", "true"});
    EXPECT_EQ(missing.status, 125);
    EXPECT_EQ(missing.text, "vxbox: open /no/such/dir: No such file or directory\n");
    EXPECT_EQ(box({"--help"}).status, 0);
}

TEST_F(BoxCommand, TellsTheStatusWhenTheCallerIgnoresItsChildren) {
    EXPECT_EQ(box({"--", "sh", "-c", "exit 7"}, {"env", "--ignore-signal=CHLD"}).status, 7);
}

// A pipe of the box's own that took the place of standard error would get its messages.
TEST_F(BoxCommand, WorksWithoutStandardStreams) {
    EXPECT_EQ(vxtest::run({"sh", "-c", "exec \"$@\" <&- >&- 2>&-", "sh", vxtest::built("gateway/vxbox"), "--", "sh",
                           "-c", "test -c /proc/self/fd/0 && test -c /proc/self/fd/2 && exit 9"})
                  .status,
              9);
}

TEST_F(BoxCommand, LeavesTheSignalsOfTheTerminalToTheProgram) {
    vxtest::Process box({vxtest::built("gateway/vxbox"), "--", "sh", "-c",
                         "trap 'exit 5' QUIT; echo ready; while :; do sleep 0.01; done"});
    EXPECT_EQ(box.readLine(), "ready");
    box.signal(SIGQUIT);
    box.signal(SIGINT);
    box.closeInput();
    EXPECT_EQ(vxtest::run({"sh", "-c", "sleep 0.1; pkill -QUIT -f '[t]rap .exit 5. QUIT'"}).status, 0);
    EXPECT_EQ(box.wait(), 5);
}

TEST_F(BoxCommand, EndsWithItsTerminalUnlessSighupIsIgnored) {
    for (const bool ignored : {false, true}) {
        std::vector<std::string> command = {vxtest::built("gateway/vxbox"), "--", "sh", "-c",
                                            "echo ready; read word; exit 5"};
        if (ignored) command.insert(command.begin(), {"env", "--ignore-signal=HUP"});
        vxtest::Process box(command);
        EXPECT_EQ(box.readLine(), "ready");
        box.signal(SIGHUP);
        if (ignored) box.send("go on\n");
        EXPECT_EQ(box.wait(), ignored ? 5 : 128 + SIGKILL);
    }
}

pid_t onlyChild(pid_t parent) {
    const std::string id = std::to_string(parent);
    const std::string children = vxtest::readFile("/proc/" + id + "/task/" + id + "/children");
    return static_cast<pid_t>(std::strtol(children.c_str(), nullptr, 10));
}

bool hasState(pid_t pid, char state) {
    return vxtest::readFile("/proc/" + std::to_string(pid) + "/stat").find(std::string(") ") + state) !=
           std::string::npos;
}

// Stopped in turn, so that the parent is killed after it has let its child go on and before the child has asked the
// kernel to be told of that.
TEST_F(BoxCommand, LeavesNothingWhenItIsKilledWhileItStarts) {
    vxtest::Process box({vxtest::built("gateway/vxbox"), "--", "sleep", "1000"});
    ASSERT_TRUE(vxtest::eventually([&] { return onlyChild(box.pid()) != 0; }));
    const pid_t child = onlyChild(box.pid());
    box.signal(SIGSTOP);
    ::usleep(300000);  // until the child waits for its parent
    ASSERT_TRUE(vxtest::eventually([&] { return hasState(child, 'S'); }));
    ::kill(child, SIGSTOP);
    ASSERT_TRUE(vxtest::eventually([&] { return hasState(child, 'T'); }));
    box.signal(SIGCONT);
    ::usleep(100000);  // until the parent has let it go on
    box.signal(SIGKILL);
    EXPECT_EQ(box.wait(), 137);
    ::kill(child, SIGCONT);
    EXPECT_TRUE(vxtest::eventually([&] { return !vxtest::exists("/proc/" + std::to_string(child)); }, 5000));
}

// The kernel puts an overlay over an overlay, and no third one on top.
TEST_F(BoxCommand, TheFixedDirectoriesAreWritableWhereNothingCanBeLaidOver) {
    const std::string program = vxtest::built("gateway/vxbox");
    const auto output = box({"--privileged", "--show", program, "/vxbox", "/vxbox", "--privileged", "sh", "-c",
                             "stat -f -c %T /usr/lib; touch /usr/lib/new /etc/default/new /usr/local/sbin/new && "
                             "ls /usr/bin/env && ! touch /usr/bin/new"});
    EXPECT_EQ(output.status, 0) << output.text;
    EXPECT_THAT(output.text, HasSubstr("tmpfs\n")) << "this machine's kernel lays a third one over";
    EXPECT_THAT(output.text, HasSubstr("Read-only file system"));
    EXPECT_FALSE(vxtest::exists("/usr/lib/new"));
}

// Kernel files that this box has covered would keep a user namespace from mounting /proc and /sys.
void uncoverKernelFiles() {
    for (const char *cover : {"/proc/sysrq-trigger", "/sys/power"}) ::umount2(cover, MNT_DETACH);
}

const std::vector<std::string> asOrdinaryUser{"setpriv", "--reuid=65534", "--regid=65534", "--clear-groups"};
const std::vector<std::string> withoutAdmin{"setpriv", "--bounding-set", "-sys_admin", "--inh-caps", "-sys_admin"};

TEST_F(BoxCommand, WorksForAnOrdinaryUserAndForRootWithoutTheRightToMount) {
    uncoverKernelFiles();
    for (const auto &wrapper : {asOrdinaryUser, withoutAdmin}) {
        const auto output =
            box({"--", "sh", "-c",
                 "rm -f /usr/lib/libvxutils.so.1.0.0 && echo x >/usr/lib/libvxutils.so.1.0.0 && "
                 "mkdir -p /var/run/configd /made-inside /etc/oem && ip netns add host && ip netns exec host true && "
                 "id -u && hostname"},
                wrapper);
        EXPECT_EQ(output.text, "0\ngateway\n");
        EXPECT_EQ(output.status, 0);
        EXPECT_FALSE(vxtest::exists("/made-inside"));
    }
}

TEST_F(BoxCommand, SaysWhatIsMissingWhereNoBoxCanBeMade) {
    uncoverKernelFiles();
    // A user namespace whose own limit is 0 allows no further one.
    auto output = vxtest::run({"unshare", "--user", "--map-root-user", "sh", "-c",
                               "echo 0 >/proc/sys/user/max_user_namespaces && exec setpriv --bounding-set -sys_admin "
                               "--inh-caps -sys_admin " +
                                   vxtest::built("gateway/vxbox") + " true"});
    EXPECT_EQ(output.status, 125);
    EXPECT_THAT(output.text, HasSubstr("vxbox: user namespace: No space left on device\n"));
    EXPECT_THAT(output.text, HasSubstr("as root, sysctl user.max_user_namespaces"));

    // A container's system call filter refuses namespaces.
    const int status = vxtest::inChild([&output] {
        if (!vxtest::failSystemCall(SYS_unshare, EPERM)) return 2;
        output = box({"true"});
        const bool told = output.text.find("vxbox: user namespace: Operation not permitted\n") == 0 &&
                          output.text.find("In a container: start it with --privileged") != std::string::npos;
        return output.status == 125 && told ? 0 : 1;
    });
    EXPECT_EQ(status, 0);
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
