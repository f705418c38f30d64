// SPDX-License-Identifier: MIT
// vx reboot, poweroff and doctor. A box cannot restart the machine whatever is tried.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <filesystem>
#include <string>

#include "support/configd.h"
#include "support/emulation.h"
#include "support/files.h"
#include "support/process.h"
#include "support/syslog_capture.h"
#include "support/vx.h"

namespace {

namespace fs = std::filesystem;
using testing::HasSubstr;
using testing::Not;
using vxtest::vx;
using vxtest::vxJson;
using vxtest::writeFile;

class VxPower : public testing::TestWithParam<const char *> {
protected:
    VxPower() {
        fs::remove_all("/nvstatus");
        vxtest::makeDirs("/nvstatus");
        fs::remove(script);
        fs::remove("/tmp/power");
    }
    void installScript() const {
        writeFile(script, "#!/bin/sh\necho \"$*\" >/tmp/power\n");
        ::chmod(script.c_str(), 0755);
    }
    static std::string asked() {
        vxtest::eventually([] { return !vxtest::readFile("/tmp/power").empty(); });
        return vxtest::readFile("/tmp/power");
    }

    const std::string name = GetParam();
    const std::string script = "/usr/local/sbin/system-" + name;
    const std::string marker = "/nvstatus/skip-" + name;
};

TEST_P(VxPower, StartsTheFirmwaresScript) {
    installScript();
    EXPECT_EQ(vx({name, "3", "--", "-4"}).status, 0);
    EXPECT_EQ(asked(), "3 -4\n");
    fs::remove("/tmp/power");
    vxJson(name, {name});
    EXPECT_EQ(asked(), "0 0\n");
}

TEST_P(VxPower, HonoursAndSetsTheVeto) {
    installScript();
    EXPECT_EQ(vx({name, "--status"}).out, "0\n");
    vxJson(name, {name, "--veto"});
    EXPECT_TRUE(vxtest::exists(marker));
    EXPECT_EQ(vx({name, "--status"}).out, "1\n");
    EXPECT_EQ(vxJson(name, {name, "--status"}), "{\"action\":\"" + name + "\",\"vetoed\":true}\n");
    const auto result = vx({name, "--force"});
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.err, "vx: " + name + ": " + marker + ": vetoes the " + name + "; --unveto removes it\n");
    EXPECT_EQ(vx({name, "--unveto"}).status, 0);
    EXPECT_EQ(vx({name, "--unveto"}).status, 0) << "there is none any more";
    EXPECT_EQ(vx({name, "--status"}).out, "0\n");
    EXPECT_FALSE(vxtest::exists("/tmp/power"));
}

TEST_P(VxPower, WithoutTheScriptNothingHappensUnlessForced) {
    const auto result = vx({name});
    EXPECT_EQ(result.status, 1);
    EXPECT_THAT(result.err, HasSubstr(script + ": No such file or directory; with --force"));
    fs::remove_all("/nvstatus");
    EXPECT_THAT(vx({name, "--veto"}).err, HasSubstr(marker + ": No such file or directory"));
}

TEST_P(VxPower, SaysWhenTheKernelRefuses) {
    if (!vxtest::hasOtherUsers()) GTEST_SKIP() << "a box made by an ordinary user has no other";
    const auto result = vx({name, "--force"}, {.user = 65534});
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.out, "");
    EXPECT_EQ(result.err, "vx: " + name + ": kernel: Operation not permitted\n");
}

TEST_P(VxPower, WrongUsage) {
    for (const auto &words : {std::vector<std::string>{"--veto", "--unveto"},
                              {"--status", "1"},
                              {"x"},
                              {"1", "2", "3"},
                              {"1", ""},
                              {"--veto", "--force"},
                              {"2147483648"}}) {
        std::vector<std::string> all{name};
        all.insert(all.end(), words.begin(), words.end());
        EXPECT_EQ(vx(all).status, 2);
    }
    EXPECT_THAT(vx({name, "--veto", "--status"}).err,
                HasSubstr(name + ": --veto, --unveto and --status exclude each other\n"));
    EXPECT_THAT(vx({name, "--veto", "1"}).err, HasSubstr("A, B and --force are for the action itself"));
}

INSTANTIATE_TEST_SUITE_P(Both, VxPower, testing::Values("reboot", "poweroff"));

// ---- doctor

TEST(VxDoctor, NamesWhatIsMissingAndWhatToDo) {
    for (const char *path : {"/var/run/configd", "/tmp/status", "/nvstatus"}) fs::remove_all(path);
    const auto result = vx({"doctor"});
    EXPECT_EQ(result.status, 1);
    EXPECT_THAT(
        result.out,
        HasSubstr("missing config daemon: /var/run/configd/daemon.sock: No such file or directory; start configd\n"));
    EXPECT_THAT(result.out, HasSubstr("absent modem daemons: no modem daemon runs; start wwanmd for each card\n"));
    EXPECT_EQ(result.err, "");
    const auto json = vx({"-j", "doctor"});
    EXPECT_EQ(json.status, 1);
    EXPECT_EQ(vxtest::schemaErrors("doctor", json.out), "");
    EXPECT_EQ(vx({"doctor", "modem"}).status, 1) << "what is asked for is needed";
    EXPECT_THAT(vx({"doctor", "modem"}).out, HasSubstr("missing modem daemons"));
    EXPECT_EQ(vx({"doctor", "addr"}).status, 2);
    EXPECT_EQ(vx({"doctor", "bogus"}).status, 2);
}

// A daemon that hangs, with as many connections waiting as it allows.
TEST(VxDoctor, APublisherThatTakesNoConnectionIsNotWaitedFor) {
    const int server = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(47011);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    ASSERT_EQ(::bind(server, reinterpret_cast<const sockaddr *>(&address), sizeof address), 0);
    ASSERT_EQ(::listen(server, 0), 0);
    std::array<int, 4> clients{};
    for (int &client : clients) {
        client = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
        (void)::connect(client, reinterpret_cast<const sockaddr *>(&address), sizeof address);
    }
    const auto result = vx({"doctor", "event"}, {.alarm_s = 20});
    EXPECT_EQ(result.status, 1);
    EXPECT_THAT(result.out, HasSubstr("missing event publisher: tcp://127.0.0.1:47011: Connection timed out; "));
    for (const int client : clients) ::close(client);
    ::close(server);
}

// A gateway as it should be, built up here; each command that the doctor finds well does work.
TEST(VxDoctor, IsContentWithAGatewayThatHasEverything) {
    for (const char *path : {"/var/run/configd", "/tmp/status", "/nvstatus"}) vxtest::makeDirs(path);
    const vxtest::SyslogCapture logger;
    const vxtest::Configd config;
    vxtest::Process events({vxtest::built("gateway/eventmanager")});
    EXPECT_EQ(events.readLine(), "ready");
    writeFile("/etc/default/system-info", "A=1\n");
    if (!vxtest::exists("/etc/fstab")) writeFile("/etc/fstab", "");
    const std::string library = "/usr/lib/libvxutils.so.1.0.0";
    const bool installed = vxtest::exists(library);  // vx itself needs it then
    if (!installed) writeFile(library, "");
    for (const char *script : {"/usr/local/sbin/system-reboot", "/usr/local/sbin/system-poweroff"}) {
        writeFile(script, "#!/bin/sh\n");
        ::chmod(script, 0755);
    }
    if (vxtest::emulated()) GTEST_SKIP() << "the emulator looks for directories in the sysroot, which is read-only";
    const auto result = vx({"doctor"});
    EXPECT_EQ(result.status, 0) << result.out;
    EXPECT_THAT(result.out, Not(HasSubstr("missing ")));
    EXPECT_EQ(vx({"event", "raise", "1", "2"}).status, 0);
    EXPECT_EQ(vx({"config", "set", "a=1"}).status, 0);
    for (const auto &[path, line] : std::vector<std::pair<std::string, std::string>>{
             {"/dev/log", "missing log system log: /dev/log: "},
             {"/var/run/configd", "missing config directory: /var/run/configd: "},
             {"/var/run/configd/daemon.sock", "missing config daemon: /var/run/configd/daemon.sock: "},
             {"/etc/default/system-info", "missing sysinfo file: /etc/default/system-info: "},
             {"/tmp/status", "missing status writing: /tmp/status: "},
             {"/nvstatus", "missing status reading --nv: /nvstatus: "},
             {"/tmp/status/event-manager/throw", "missing event FIFO: /tmp/status/event-manager/throw: "},
             {"/etc/fstab", "missing log key file: /etc/fstab: "},
             {library, "missing lock library file: /usr/lib/libvxutils.so.1.0.0: "},
             {"/usr/local/sbin/system-reboot", "missing reboot script: /usr/local/sbin/system-reboot: "},
             {"/usr/local/sbin/system-poweroff", "missing poweroff script: /usr/local/sbin/system-poweroff: "}}) {
        if (path == library && installed) continue;
        fs::rename(path, path + ".away");
        const auto without = vx({"doctor"});
        fs::rename(path + ".away", path);
        EXPECT_EQ(without.status, 1) << path;
        EXPECT_THAT(without.out, HasSubstr(line + "No such file or directory; ")) << path;
    }
    EXPECT_EQ(vx({"doctor"}).status, 0) << "all is back";
    EXPECT_EQ(vx({"doctor", "config", "event"}).status, 1) << "no publisher";

    if (!vxtest::hasOtherUsers()) return;
    const auto other = vx({"doctor"}, {.user = 65534});
    EXPECT_EQ(other.status, 1);
    EXPECT_THAT(other.out, HasSubstr("missing config directory: /var/run/configd: Permission denied"));
    EXPECT_THAT(other.out,
                HasSubstr("missing ping raw sockets: Operation not permitted; run as root or with CAP_NET_RAW\n"));
    EXPECT_THAT(other.out, HasSubstr("ok status reading: /tmp/status\n"));
    EXPECT_THAT(other.out, HasSubstr("missing status writing: /tmp/status: Permission denied"));
    EXPECT_THAT(other.out, HasSubstr("missing event FIFO: "));
}

}  // namespace
