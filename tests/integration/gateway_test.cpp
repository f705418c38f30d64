// SPDX-License-Identifier: MIT
// The virtual gateway as a product: vxgateway with its options, every order of gw with good and bad words, scenarios, and
// that nothing of a gateway remains.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "gateway/core/forms.h"
#include "gateway/core/json.h"
#include "gateway/core/record.h"
#include "gateway/core/scenario.h"
#include "support/files.h"
#include "support/process.h"

namespace {

namespace fs = std::filesystem;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using vxgateway::Group;
using vxgateway::Words;

vxtest::Output vxgateway_(std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), vxtest::built("gateway/vxgateway"));
    return vxtest::run(arguments);
}

// Runs a shell script in a gateway; each line "check STATUS COMMAND..." of it is one expectation.
vxtest::Output inGateway(const std::string &script, std::vector<std::string> options = {}) {
    const std::string check =
        "check() { expected=$1; shift; \"$@\"; got=$?; [ $got = $expected ] || { echo \"FAILED: $*: $got\"; "
        "failures=1; }; }\nfailures=0\n";
    options.insert(options.begin(), "run");
    options.insert(options.end(), {"--", "bash", "-c", check + script + "\nexit $failures"});
    return vxgateway_(options);
}

// ---- the program vxgateway

TEST(VxGateway, EndsWithItsTerminalUnlessSighupIsIgnored) {
    for (const bool ignored : {false, true}) {
        std::vector<std::string> command = {
            vxtest::built("gateway/vxgateway"), "run", "--net", "none", "--", "sh", "-c",
            "echo ready; read word; exit 5"};
        if (ignored) command.insert(command.begin(), {"env", "--ignore-signal=HUP"});
        vxtest::Process process(command);
        EXPECT_EQ(process.readLine(), "ready");
        // As the terminal does: each process of its group gets the signal.
        EXPECT_EQ(vxtest::run({"pkill", "-HUP", "-x", "gatewayd"}).status, 0);
        process.signal(SIGHUP);
        if (ignored) process.send("go on\n");
        if (ignored) EXPECT_EQ(process.wait(), 5);
        if (!ignored) EXPECT_NE(process.wait(), 5);
    }
}

TEST(VxGateway, PassesTheStatusAndTheStreamsThrough) {
    vxtest::Process process(
        {vxtest::built("gateway/vxgateway"), "run", "--", "sh", "-c", "cat; printf 'a\\0b'; exit 7"});
    process.send("in\n");
    process.closeInput();
    EXPECT_EQ(process.readAll(), std::string("in\na\0b", 6));
    EXPECT_EQ(process.wait(), 7);
    EXPECT_EQ(vxgateway_({"run", "--net", "none", "sh", "-c", "kill -SEGV $$"}).status, 139);
    EXPECT_EQ(vxgateway_({"run", "--net", "none", "--", "/nowhere/program"}).status, 127);
    EXPECT_EQ(vxgateway_({"run", "--net", "none", "--", "/etc/passwd"}).status, 126);
}

TEST(VxGateway, RefusesWrongUsage) {
    for (const std::vector<std::string> &arguments :
         std::vector<std::vector<std::string>>{{},
                                               {"dance"},
                                               {"run"},
                                               {"run", "--frob", "true"},
                                               {"run", "--net", "some", "true"},
                                               {"run", "--timeout", "0", "true"},
                                               {"run", "--timeout", "x", "true"},
                                               {"run", "--timeout"},
                                               {"run", "--share", "/nowhere", "true"},
                                               {"run", "--user", "nosuchuser", "true"},
                                               {"run", "--junit", "/nowhere/file", "true"},
                                               {"shell", "program"},
                                               {"play"},
                                               {"play", "no-such-scenario"},
                                               {"list", "everything"}}) {
        const auto output = vxgateway_(arguments);
        EXPECT_EQ(output.status, 2) << testing::PrintToString(arguments);
        EXPECT_THAT(output.text, HasSubstr("vxgateway: ")) << testing::PrintToString(arguments);
    }
    EXPECT_EQ(vxgateway_({"run", "--keep", "/proc/kept", "true"}).text,
              "vxgateway: --keep: /proc/kept: No such file or directory\n");
    EXPECT_EQ(vxgateway_({"run", "--keep", "/etc/passwd/kept", "true"}).text,
              "vxgateway: --keep: /etc/passwd/kept: Not a directory\n");
    EXPECT_THAT(vxgateway_({"--help"}).text, HasSubstr("usage: vxgateway run"));
    EXPECT_THAT(vxgateway_({"list"}).text, HasSubstr("/sys/devices/vantorix"));
}

TEST(VxGateway, SaysWhenItCannotPrint) {
    for (const char *words : {" list", " list scenarios", " --help", " --version"}) {
        const auto output = vxtest::run({"sh", "-c", vxtest::built("gateway/vxgateway") + words + " >/dev/full"});
        EXPECT_EQ(output.status, 1) << words;
        EXPECT_EQ(output.text, "vxgateway: standard output: No space left on device\n") << words;
    }
}

TEST(VxGateway, EndsAProgramWhoseTimeIsOver) {
    EXPECT_EQ(vxgateway_({"run", "--net", "none", "--timeout", "0.1", "--", "sleep", "100"}).status, 124);
}

TEST(VxGateway, TellsTheStatusWhenTheCallerIgnoresItsChildren) {
    EXPECT_EQ(vxtest::run({"env", "--ignore-signal=CHLD", vxtest::built("gateway/vxgateway"), "run", "--net", "none",
                           "--timeout", "20", "--", "sh", "-c", "exit 7"})
                  .status,
              7);
}

// Without standard error the report would take its number, and get the messages.
TEST(VxGateway, WritesNoMessageIntoTheReport) {
    EXPECT_EQ(vxtest::run({"sh", "-c", "exec \"$@\" 2>&-", "sh", vxtest::built("gateway/vxgateway"), "run", "--net",
                           "none", "--timeout", "0.1", "--junit", "/tmp/closed.xml", "--", "sleep", "100"})
                  .status,
              124);
    const std::string report = vxtest::readFile("/tmp/closed.xml");
    EXPECT_THAT(report, testing::StartsWith("<?xml"));
    EXPECT_THAT(report, testing::EndsWith("</testsuites>\n"));
}

TEST(VxGateway, KeepsLogsRecordAndStatusAndWritesAReport) {
    vxtest::makeDirs("/tmp/kept");
    vxtest::writeFile("/tmp/kept/mine", "precious");
    const auto output = inGateway(
        "mkdir /tmp/status/x; echo up >/tmp/status/x/link; logger -t tester -p user.err 'a <text>'\n"
        "gw wait log 'a <text>'; exit 3",
        {"--net", "none", "--keep", "/tmp/kept", "--junit", "/tmp/kept.xml"});
    EXPECT_EQ(output.status, 3) << output.text;
    EXPECT_EQ(vxtest::readFile("/tmp/kept/status/x/link"), "up\n");
    EXPECT_EQ(vxtest::readFile("/tmp/kept/mine"), "precious");
    EXPECT_THAT(vxtest::readFile("/tmp/kept/syslog.log"), HasSubstr("err tester: a <text>"));
    EXPECT_THAT(vxtest::readFile("/tmp/kept/config.log"), HasSubstr("ready"));
    EXPECT_THAT(vxtest::readFile("/tmp/kept/record.json"), HasSubstr("\"identity\":\"tester\""));
    const std::string report = vxtest::readFile("/tmp/kept.xml");
    EXPECT_THAT(report, HasSubstr("<failure message=\"exit status 3\"/>"));
    EXPECT_THAT(report, HasSubstr("err tester: a &#60;text&#62;"));
}

TEST(VxGateway, KeepsTheWholeStatusTreeAroundFifos) {
    vxtest::makeDirs("/tmp/kept-tree");
    const auto output = inGateway(
        "mkdir -p /tmp/status/a; echo 1 >/tmp/status/a/first; mkfifo /tmp/status/a/command; echo 2 "
        ">/tmp/status/a/last\n"
        "ln -s nowhere /tmp/status/a/link\n",
        {"--net", "none", "--keep", "/tmp/kept-tree"});
    EXPECT_EQ(output.status, 0);
    EXPECT_EQ(output.text, "");
    EXPECT_EQ(vxtest::readFile("/tmp/kept-tree/status/a/first"), "1\n");
    EXPECT_EQ(vxtest::readFile("/tmp/kept-tree/status/a/last"), "2\n");
    EXPECT_TRUE(vxtest::exists("/tmp/kept-tree/status/wwanmd/card0"));
}

TEST(VxGateway, SaysWhatItCouldNotWriteToAFullDisk) {
    vxtest::makeDirs("/tmp/full");
    ASSERT_EQ(::mount("full", "/tmp/full", "tmpfs", 0, "size=64k"), 0);
    vxtest::makeDirs("/tmp/full/kept");
    vxtest::writeFile("/tmp/full/report.xml", "");
    vxtest::run({"dd", "if=/dev/zero", "of=/tmp/full/filler", "bs=4096"});
    const auto output = vxgateway_({"run", "--net", "none", "--keep", "/tmp/full/kept", "--junit",
                                    "/tmp/full/report.xml", "--", "sh", "-c", "exit 3"});
    EXPECT_EQ(output.status, 3);
    EXPECT_THAT(output.text, HasSubstr("vxgateway: --junit: the report is incomplete: No space left on device\n"));
    EXPECT_THAT(output.text, HasSubstr("vxgateway: --keep: the directory is incomplete"));
    EXPECT_EQ(::umount2("/tmp/full", MNT_DETACH), 0);
}

TEST(VxGateway, RunsAProgramAsAnOrdinaryUser) {
    if (!vxtest::hasOtherUsers()) GTEST_SKIP() << "no other user can be had in this user namespace";
    const auto output = inGateway(
        "check 0 test \"$(id -un)\" = games\n"
        "check 0 mkdir /tmp/status/mine /nvstatus/mine\n"
        "check 0 sh -c 'echo 1 >/sys/devices/vantorix/dout1/value'\n"
        "check 2 sh -c '{ echo 1 >/sys/devices/vantorix/din1/value; } 2>/dev/null'\n"
        "check 2 sh -c '{ : >/proc/sysinfo/mine; } 2>/dev/null'\n"
        "check 0 gw wait output 1 1\n"
        "check 0 gw usb out\n"
        "check 0 test \"$(gw config get wan.losses)\" = wan.losses=2\n",
        {"--user", "games"});
    EXPECT_EQ(output.status, 0) << output.text;
}

TEST(VxGateway, HasTheNetworkThatItIsToldTo) {
    const auto none = inGateway("check 1 test -e /sys/class/net/wan0; check 1 gw wan cut", {"--net", "none"});
    EXPECT_EQ(none.status, 0) << none.text;
    const auto full = inGateway(
        "check 0 ping -c 1 -W 5 192.168.1.100 >/dev/null\n"
        "check 0 ping -c 1 -W 5 198.51.100.9 >/dev/null\n",
        {"--net", "full"});
    EXPECT_EQ(full.status, 0) << full.text;
}

TEST(VxGateway, PassesOverDirectoriesOfThePathThatCannotBeRead) {
    if (!vxtest::hasOtherUsers()) GTEST_SKIP() << "no other user can be had in this user namespace";
    vxtest::makeDirs("/tmp/closed/bin");
    ASSERT_EQ(::chmod("/tmp/closed", 0700), 0);
    const auto output = vxtest::run({"setpriv", "--reuid=65534", "--regid=65534", "--clear-groups", "env",
                                     "PATH=/tmp/closed/bin:/usr/bin:/bin", vxtest::built("gateway/vxgateway"), "run",
                                     "--net", "none", "nosuchprogram"});
    EXPECT_EQ(output.status, 127);
    EXPECT_EQ(output.text, "vxgateway: nosuchprogram: not found\n");
}

// ---- gw

TEST(Gw, ObeysEveryOrder) {
    // One example for each form, run in this order.
    const std::vector<std::string> orders{"input 2 1",
                                          "pulse 1 3",
                                          "voltage 1 9000",
                                          "converter 700",
                                          "usb out",
                                          "usb in",
                                          "sd out",
                                          "disk fill data",
                                          "disk free data",
                                          "wan cut",
                                          "wan restore",
                                          "wan lose",
                                          "wan carry",
                                          "wan loss 30",
                                          "wan delay 5",
                                          "wan route",
                                          "wan noroute",
                                          "modem signal -80",
                                          "modem reset on",
                                          "modem suspend off",
                                          "modem ok text",
                                          "modem fill 10",
                                          "modem echo",
                                          "modem on signal = OK -67 dBm",
                                          "modem busy 2",
                                          "modem busyfor 10 text",
                                          "modem late 5",
                                          "modem times 1,2 3",
                                          "modem pieces 2",
                                          "modem handshake ok",
                                          "modem stale text",
                                          "modem normal",
                                          "config set wan.losses 5",
                                          "config late 5",
                                          "config times 0,1",
                                          "config raw text",
                                          "config pieces 2",
                                          "config mute wan.card",
                                          "config mute",
                                          "config busy 1",
                                          "config trace on",
                                          "config normal",
                                          "board text din1/value 7",
                                          "board gone dout1/value",
                                          "board refuse dout1/value 5",
                                          "board frequency 1 1 2 3",
                                          "board in 3 1",
                                          "board pulse 3 1",
                                          "board normal",
                                          "board inputs 6",
                                          "input 6 1",
                                          "manager hold",
                                          "manager resume",
                                          "clock +2y",
                                          "clock real",
                                          "sms receive +123 hello there",
                                          "config die",
                                          "start config",
                                          "stop modem",
                                          "start modem",
                                          "kill events",
                                          "kill events",
                                          "start events",
                                          "config die 1",
                                          "program signal CONT",
                                          "scenario play few-descriptors",
                                          "scenario stop",
                                          "note a text",
                                          "program descriptors 50",
                                          "program memory 4096"};  // the last: sanitized programs no longer start then
    std::string script;
    std::set<std::string> heads;
    for (const std::string &order : orders) {
        script += "check 0 gw " + order + "\n";
        const Words words = vxgateway::split(order);
        EXPECT_EQ(vxgateway::groupOf(words), Group::order) << order;
        heads.insert(words[0]);
    }
    for (const auto &form : vxgateway::forms()) {
        std::istringstream head{std::string(form.syntax.substr(0, form.syntax.find(' ')))};
        for (std::string word; form.group == Group::order && std::getline(head, word, '|');)
            EXPECT_EQ(heads.count(word), 1U) << word;
    }
    script +=
        "check 0 test \"$(cat /sys/devices/vantorix/din6/value)\" = 1\n"
        "check 0 test \"$(cat /var/spool/sms/incoming/* | tail -1)\" = 'hello there'\n"
        "check 1 test -e /sys/class/block/mmcblk1p1\n"
        "check 0 test \"$(ulimit -n)\" = 50\n";
    const auto output = inGateway(script, {"--clock"});
    EXPECT_EQ(output.status, 0) << output.text;
    EXPECT_EQ(output.text, "");
}

TEST(Gw, RefusesNonsenseBeforeAnythingIsDone) {
    const auto output = inGateway(
        "check 2 gw frob\n"
        "check 2 gw input 9 1\n"
        "check 2 gw input 0 1\n"
        "check 2 gw input 1 2\n"
        "check 2 gw input 1\n"
        "check 2 gw input 1 1 1\n"
        "check 2 gw input x 1\n"
        "check 2 gw usb\n"
        "check 2 gw usb sideways\n"
        "check 2 gw voltage 3 1\n"
        "check 2 gw input 1 01\n"
        "check 2 gw input 1 -0\n"
        "check 2 gw modem signal -067\n"
        "check 2 gw board inputs 201\n"
        "check 2 gw wait log \"$(printf '%02000d' 0)\"\n"
        "check 2 gw wan loss 101\n"
        "check 2 gw wan delay -1\n"
        "check 2 gw config\n"
        "check 2 gw config set ../x 1\n"
        "check 2 gw config times 1,x\n"
        "check 2 gw modem on signal\n"
        "check 2 gw modem dance\n"
        "for i in '' + 2y +2 +y +2x +-2y +99999999999s +1000y 2028-02-30T00:00:00 2028-13-01T00:00:00 "
        "1969-12-31T23:59:59\\\n"
        "    2200-01-01T00:00:00 2028-01-01T24:00:00 2028-01-01T00:00:60 2028-01-01 '2028-01-01 00:00:00' @ @x @-1 @1. "
        "@7258118400\\\n"
        "    @1.0123456789 unreal; do check 2 gw clock \"$i\"; done\n"
        "check 2 gw clock real 1\n"
        "check 2 gw note $'two\\nlines'\n"
        "check 2 gw wait\n"
        "check 2 gw wait status\n"
        "check 2 gw wait log '('\n"
        "check 2 gw wait output 1 1 --for x\n"
        "check 2 gw start nothing\n"
        "check 2 gw events --xml\n"
        "check 1 gw status no/such\n"
        "check 1 gw start config\n"
        "check 1 gw clock +1s\n"
        "check 1 gw stop wan\n"
        "check 1 gw wait output 1 1 --for 0\n",
        {"--net", "none"});
    EXPECT_EQ(output.status, 0) << output.text;
    for (const char *part :
         {"gw: unknown word 'frob'", "gw: the board has 4 inputs, not 9",
          "gw: LEVEL is a whole number from 0 to 1, not '2'", "gw: missing: LEVEL", "gw: not a regular expression",
          "gw: the clock can be set in a gateway that was started with --clock", "gw: not in time: output 1 1"}) {
        EXPECT_THAT(output.text, HasSubstr(part));
    }
}

TEST(Gw, IsRefusedByAPeerThatDoesNotAnswer) {
    const auto output =
        inGateway("pkill -STOP -x wwanmd\ncheck 1 gw modem late 1\npkill -CONT -x wwanmd\ncheck 0 gw modem late 0\n",
                  {"--net", "none"});
    EXPECT_EQ(output.status, 0) << output.text;
    EXPECT_EQ(output.text, "gw: modem does not answer\n");
}

// The orders that it did not answer in time are confirmed later, and one of them was sent in part.
TEST(Gw, IsObeyedAgainByAPeerThatGoesOn) {
    const auto output = inGateway(
        "pkill -STOP -x wwanmd\n"
        "check 1 gw modem error one 2>/dev/null\n"
        "gw modem busy 2 two & sleep 0.2; pkill -CONT -x wwanmd; check 0 wait $!\n"
        "check 0 gw modem sync\n"
        "check 1 sh -c \"gw record | grep 'modem: done'\"\n"
        "long=$(printf '%030000d' 0)\n"
        "pkill -STOP -x configd\n"
        "for i in 1 2 3 4; do gw config set k$i $long 2>/dev/null & done; wait\n"
        "pkill -CONT -x configd\n"
        "until gw config set hello world 2>/dev/null; do :; done\n"
        "check 0 test \"$(gw config get hello)\" = hello=world\n"
        "check 1 grep -E '^k[0-9]=.*[^0]' <(gw config list)\n",
        {"--net", "none"});
    EXPECT_EQ(output.status, 0) << output.text;
    EXPECT_EQ(output.text, "");
}

TEST(Gw, PeersLiveThroughEmptyRequests) {
    const auto output = inGateway(
        "for i in short wrong long; do gw config $i; python3 -c 'import socket\n"
        "s = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM); s.sendto(b\"\", \"/var/run/configd/daemon.sock\")'\n"
        "check 0 gw config trace off; done\n",
        {"--net", "none"});
    EXPECT_EQ(output.status, 0) << output.text;
}

// More of them than the gateway may have descriptors.
TEST(Gw, IsNotHeldUpByClientsThatSayNothing) {
    vxtest::makeDirs("/tmp/silent");
    vxtest::writeFile("/tmp/silent/silent.py",
                      "import signal, socket\n"
                      "kept = [socket.socket(socket.AF_UNIX, socket.SOCK_SEQPACKET) for i in range(35)]\n"
                      "for one in kept: one.connect('/run/vxgateway')\n"
                      "print('connected', flush=True); signal.pause()\n");
    const std::string gateway = vxtest::built("gateway/vxgateway");
    const auto output = vxtest::run(
        {"prlimit", "--nofile=64:64", gateway, "run", "--net", "none", "--timeout", "30", "--show", "/tmp/silent", "--",
         "bash", "-c",
         "for i in 1 2; do exec {fd}< <(python3 /tmp/silent/silent.py); read -u $fd; done; gw config list | head -1"});
    EXPECT_EQ(output.status, 0);
    EXPECT_EQ(output.text, "hostname=gateway\n");
}

TEST(Gw, RefusesARequestThatIsTooLong) {
    const auto output = inGateway(
        "python3 -c 'import socket; s = socket.socket(socket.AF_UNIX, socket.SOCK_SEQPACKET); "
        "s.connect(\"/run/vxgateway\"); "
        "s.send(b\"note\\0\" + b\"x\" * 40000 + b\"\\0\"); print(s.recv(100).decode(), end=\"\")'\n"
        "check 1 grep xxx <(gw record)\n",
        {"--net", "none"});
    EXPECT_EQ(output.status, 0) << output.text;
    EXPECT_EQ(output.text, "egw: more than 32768 bytes of words\n");
}

// The directory below the disk is in the machine's memory. The test does not fill that: files have a limit of size.
TEST(Gw, FillsNoDiskThatTheProgramHasUnmounted) {
    const auto output = vxtest::run({"prlimit", "--fsize=67108864", vxtest::built("gateway/vxgateway"), "run", "--net",
                                     "none", "--", "sh", "-c", "umount /data; gw disk fill data; exit 7"});
    EXPECT_EQ(output.status, 7);
    EXPECT_EQ(output.text, "gw: the disk is not mounted\n");
}

TEST(Gw, IsNotHeldUpByAMessageThatIsNoFile) {
    const auto output = inGateway(
        "send=/usr/local/sbin/send-sms\n"
        "mkfifo /tmp/message; check 1 $send /tmp/message; check 1 $send /nowhere/message\n"
        "cd /tmp; printf 'To: +1\\n\\nhello\\n' >message.txt; check 0 $send message.txt; gw sms\n",
        {"--net", "none", "--timeout", "20"});
    EXPECT_EQ(output.status, 0) << output.text;
    EXPECT_EQ(output.text, "gw: /tmp/message: not a file\ngw: /nowhere/message: not a file\n+1 hello\n");
}

TEST(Gw, ShowsWhatProgramsDidAsTextAndAsJson) {
    const auto output = inGateway(
        "mkdir /tmp/status/x; printf up >/tmp/status/x/link; echo 1 >/sys/devices/vantorix/dout2/value\n"
        "logger -t tester -p daemon.warning -i 'said \"so\"'; gw input 3 1\n"
        "printf 'To: +1\\n\\nhello\\n' >/tmp/sms; /usr/local/sbin/send-sms /tmp/sms; /usr/local/sbin/system-reboot "
        "now\n"
        "check 0 test ! -e /tmp/sms\n"
        "for i in status 'status x/link' events log devlog sms power inputs outputs 'config list' 'config get "
        "wan.card' "
        "'config requests' 'manager count' peers record now clock show; do\n"
        "  check 0 gw $i >/tmp/text\n"
        "  check 0 gw $i --json >/tmp/json\n"
        "  check 0 python3 -c 'import json; json.load(open(\"/tmp/json\"))'\n"
        "done\n"
        "gw status; gw outputs; gw sms; gw power; gw config get wan.card --json\n"
        "gw log --json | python3 -c 'import json, sys; e = json.load(sys.stdin)[0]; print(e[\"priority\"], "
        "e[\"facility\"], "
        "e[\"identity\"], e[\"pid\"] > 0, e[\"text\"])'\n"
        "gw outputs --json | python3 -c 'import json, sys; print(json.load(sys.stdin)[\"levels\"])'\n"
        "gw show --json | python3 -c 'import json, sys; o = json.load(sys.stdin); print(o[\"inputs\"], "
        "o[\"wan\"][\"present\"], "
        "o[\"status\"], len(o[\"peers\"]))'\n",
        {"--net", "none"});
    EXPECT_EQ(output.status, 0) << output.text;
    EXPECT_EQ(
        output.text,
        "x/link=up\nout 2 = 1\n+1 hello\nsystem-reboot now\n\"0\"\nwarning daemon tester True said \"so\"\n[0, 1]\n"
        "[0, 0, 1, 0] False {'x/link': 'up'} 4\n");
}

TEST(Gw, WaitsForEachKindOfConditionWithoutSleeping) {
    const auto output = inGateway(
        "gw wait status x/link up & a=$!; gw wait output 1 1 & b=$!; gw wait log 'line [0-9]+' & c=$!\n"
        "before=$(gw now)\n"
        "mkdir /tmp/status/x; printf up >/tmp/status/x/link; echo 1 >/sys/devices/vantorix/dout1/value; logger 'line "
        "7'\n"
        "check 0 wait $a; check 0 wait $b; check 0 wait $c\n"
        "check 0 gw wait log 'line 7' --since $before\n"
        "check 0 gw wait log 'line 7'\n"
        "check 1 gw wait log 'line 7' --since $(gw now) --for 0 2>/dev/null\n"
        "vxevent 7 1 hi\n"
        "check 0 gw wait event 7\ncheck 0 gw wait event 7 1\ncheck 1 gw wait event 7 2 --for 0 2>/dev/null\n"
        "check 0 gw wait program running\n",
        {"--net", "none", "--path", vxtest::built("examples")});
    EXPECT_EQ(output.status, 0) << output.text;
}

// ---- the clock

TEST(Gw, SetsTheClockOfTheProgramsAlone) {
    const auto output = inGateway(
        "year() { date -u +%Y; }\n"
        "machine=$(year)\n"
        "check 0 gw clock 2028-02-29T23:59:59; check 0 test $(date -u +%FT%H) != 2028-02-29T22; year\n"
        "check 0 gw clock +365d; year\n"
        "check 0 gw clock -1y; year\n"
        "check 0 gw clock @0.5; year; python3 -c 'import time; t = time.time(); print(0.5 <= t < 60)'\n"
        "check 1 gw clock -1h\n"
        "check 0 gw clock 2199-12-31T00:00:00; year\n"
        "check 1 gw clock +1w\n"
        "printf '%(%Y)T\\n'; gw clock | cut -c1-13\n"
        "gw clock --json | python3 -c 'import json, sys; o = json.load(sys.stdin); print(o[\"time\"][:4], "
        "o[\"offset_s\"] > "
        "5e9, o[\"settable\"])'\n"
        "gw show --json | python3 -c 'import json, sys; print(json.load(sys.stdin)[\"clock\"][\"offset_s\"] > 5e9)'\n"
        "check 0 gw clock real; check 0 test $(year) = $machine; gw clock | sed 's/.*Z//'\n",
        {"--net", "none", "--clock"});
    EXPECT_EQ(output.status, 0) << output.text;
    std::string text = output.text;
    // The clock runs on between two commands: its seconds do not count.
    for (size_t at = 0; (at = text.find("T00:00:", at)) != std::string::npos; ++at) text.replace(at + 7, 2, "00");
    EXPECT_EQ(
        text,
        "2028\n2029\n2028\n1970\nTrue\ngw: the clock goes from 1970 to 2199, it shows 1970-01-01T00:00:00Z\n2199\n"
        "gw: the clock goes from 1970 to 2199, it shows 2199-12-31T00:00:00Z\n2199\n2199-12-31T00\n2199 True True\n"
        "True\n, as the machine's\n");
}

TEST(Gw, NotesAsAnOrderWhenAProgramSetsTheClock) {
    const auto output = inGateway(
        "check 0 date -u -s 2030-01-02T03:04:05 >/dev/null; date -u +%F\n"
        "python3 -c 'import time; time.clock_settime(time.CLOCK_REALTIME, 12.25); print(int(time.time()))'\n"
        "gw record | grep -o 'order: clock.*'\n"
        "check 1 python3 -c 'import time; time.clock_settime(time.CLOCK_REALTIME, 1e10)' 2>/dev/null\n"
        "check 1 python3 -c 'import time; time.clock_settime(time.CLOCK_MONOTONIC, 1)' 2>/dev/null\n",
        {"--net", "none", "--clock"});
    EXPECT_EQ(output.status, 0) << output.text;
    EXPECT_EQ(output.text, "2030-01-02\n12\norder: clock @1893553445.000000000\norder: clock @12.250000000\n");
    // The kernel refuses both where no clock can be set, and an ordinary user everywhere.
    const auto refused = [](const std::vector<std::string> &options) {
        return inGateway("check 1 date -u -s 2030-01-02T03:04:05 >/dev/null; check 0 gw clock >/dev/null\n", options);
    };
    EXPECT_EQ(refused({"--net", "none"}).status, 0);
    if (vxtest::hasOtherUsers()) EXPECT_EQ(refused({"--net", "none", "--clock", "--user", "games"}).status, 0);
}

// A wait that is not moved with the clock is over at once when the clock is behind the machine's.
constexpr const char *waits = R"(
import ctypes, errno, socket, struct, threading, time
c = ctypes.CDLL(None, use_errno=True)
class Time(ctypes.Structure):
    _fields_ = [("s", ctypes.c_long), ("ns", ctypes.c_long)]
lock, rwlock, condition, semaphore, other = (ctypes.create_string_buffer(256) for i in range(5))
c.pthread_mutex_lock(lock); c.pthread_mutex_lock(other)
threading.Thread(target=lambda: c.pthread_rwlock_wrlock(rwlock)).start()
timer = c.timerfd_create(0, 0)
class TimerTime(ctypes.Structure):
    _fields_ = [("interval", Time), ("value", Time)]
def timed(name, *words):
    begun, until = time.monotonic(), time.time() + 0.05
    deadline = ctypes.byref(Time(int(until), int(until % 1 * 1e9)))
    result = getattr(c, name)(*[deadline if word is None else word for word in words])
    passed = time.monotonic() - begun
    print(name, result if result != -1 else errno.errorcode[ctypes.get_errno()], 0.045 <= passed)
timed("pthread_mutex_timedlock", lock, None)
timed("pthread_mutex_clocklock", lock, 0, None)
timed("pthread_rwlock_timedrdlock", rwlock, None)
timed("pthread_rwlock_clockrdlock", rwlock, 0, None)
timed("pthread_rwlock_timedwrlock", rwlock, None)
timed("pthread_rwlock_clockwrlock", rwlock, 0, None)
timed("pthread_cond_timedwait", condition, other, None)
timed("pthread_cond_clockwait", condition, other, 0, None)
timed("sem_timedwait", semaphore, None)
timed("sem_clockwait", semaphore, 0, None)
mtx, cnd = (ctypes.create_string_buffer(256) for i in range(2))
c.mtx_init(mtx, 2); c.mtx_lock(mtx); c.cnd_init(cnd)
timed("mtx_timedlock", mtx, None)
timed("cnd_timedwait", cnd, mtx, None)
timed("clock_nanosleep", 0, 1, None, 0)
begun, until = time.monotonic(), time.time() + 0.05
c.timerfd_settime(timer, 1, ctypes.byref(TimerTime(Time(0, 0), Time(int(until), int(until % 1 * 1e9)))), 0)
c.read(timer, ctypes.create_string_buffer(8), 8)
print("timerfd_settime", 0.045 <= time.monotonic() - begun)
peer = socket.socket(socket.AF_INET, socket.SOCK_DGRAM); peer.bind(("127.0.0.1", 0))
for option, parts in ((29, 1e6), (35, 1e9)):
    peer.setsockopt(socket.SOL_SOCKET, option, 1); peer.sendto(b"x", peer.getsockname())
    stamp = struct.unpack("ll", peer.recvmsg(10, 100)[1][0][2])
    print("stamp", abs(stamp[0] + stamp[1] / parts - time.time()) < 60)
print("monotonic", time.clock_gettime(time.CLOCK_MONOTONIC) == time.monotonic() or time.monotonic() < 1e9)
)";

TEST(Gw, ADeadlineIsReachedByTheClockThatTheProgramSees) {
    vxtest::makeDirs("/tmp/waits");
    vxtest::writeFile("/tmp/waits/waits.py", waits);
    std::string expected;
    for (const char *name : {"pthread_mutex_timedlock", "pthread_mutex_clocklock", "pthread_rwlock_timedrdlock",
                             "pthread_rwlock_clockrdlock", "pthread_rwlock_timedwrlock", "pthread_rwlock_clockwrlock",
                             "pthread_cond_timedwait", "pthread_cond_clockwait"}) {
        expected += std::string(name) + " 110 True\n";
    }
    expected +=
        "sem_timedwait ETIMEDOUT True\nsem_clockwait ETIMEDOUT True\nmtx_timedlock 4 True\ncnd_timedwait 4 True\n"
        "clock_nanosleep 0 True\ntimerfd_settime True\n"
        "stamp True\nstamp True\nmonotonic True\n";
    const auto output = inGateway(
        "for i in -1h +1s @0; do check 0 gw clock $i; check 0 timeout 60 python3 /share/tmp/waits/waits.py; done\n",
        {"--net", "none", "--clock", "--share", "/tmp/waits"});
    EXPECT_EQ(output.text, expected + expected + expected);
}

// Also a program with a sanitizer, which is what this one is in some builds.
TEST(Gw, SetsTheClockOfAProgramOfTheLibrary) {
    const auto output =
        vxgateway_({"run", "--net", "none", "--clock", vxtest::built("examples/vxevent"), "1", "2", "text"});
    EXPECT_EQ(output.status, 0) << output.text;
    EXPECT_EQ(output.text, "");
}

TEST(Gw, PlaysAScenarioAndShowsHowFarItIs) {
    vxtest::writeFile("/tmp/played.scenario",
                      "question What is left?\nrepeat 2\nat 0.1 input 1 1\nend\nexpect output 2 1 within 0.1\n"
                      "at 12345.678 input 1 0\n");
    const auto output = inGateway(
        "check 1 gw scenario play no-such-scenario 2>/dev/null\n"
        "check 0 test \"$(gw scenario)\" = null\n"
        "check 0 gw scenario play /share/tmp/played.scenario\n"
        "check 1 gw scenario play bad-minute 2>/dev/null\n"
        "until gw scenario | grep -q '\"state\":\"failed\"'; do :; done\n"
        "gw scenario\n"
        "check 0 gw scenario play bad-minute\n"
        "check 0 gw scenario stop\n"
        "until gw scenario | grep -q '\"state\":\"stopped\"'; do :; done\n"
        "check 0 gw scenario stop\n"
        "gw scenario list | sed -n 1p\n",
        {"--net", "none", "--share", "/tmp"});
    EXPECT_EQ(output.status, 0) << output.text;
    EXPECT_THAT(output.text,
                HasSubstr("\"question\":\"What is left?\",\"state\":\"failed\",\"line\":5,\"failure\":\""));
    EXPECT_THAT(output.text, HasSubstr("{\"line\":3,\"text\":\"at 0.1 input 1 1\",\"times\":2,\"done\":2}"));
    EXPECT_THAT(output.text, HasSubstr("{\"line\":6,\"text\":\"at 12345.678 input 1 0\",\"times\":1,\"done\":0}"));
    EXPECT_THAT(output.text, HasSubstr("bad-minute: Does the daemon"));
}

TEST(Gw, WatchBeginsWithTheNewestEntriesIfToldSo) {
    const auto output = inGateway(
        "gw note first; gw note second\n"
        ": >/tmp/watched; gw watch last 4 >/tmp/watched & watch=$!\n"
        "until grep -q second /tmp/watched; do :; done; gw note third\n"
        "until grep -q third /tmp/watched; do :; done; kill $watch; cat /tmp/watched\n",
        {"--net", "none"});
    EXPECT_THAT(output.text, testing::StartsWith("note: first\norder: note first\nnote: second\norder: note second\n"));
}

TEST(Gw, HasEveryFormInItsManualPage) {
    const std::string page = vxtest::readFile(VXTEST_SOURCE_DIR "/gateway/man/gw.1");
    for (const auto &form : vxgateway::forms()) {
        if (form.group == Group::internal || form.group == Group::wait) continue;
        EXPECT_THAT(page, HasSubstr(".It Li \"" + std::string(form.syntax) + "\"\n"));
    }
}

// ---- the plugin for pytest

TEST(Pytest, WaitsSinceTheStartAndTakesBytesThatAreNoText) {
    if (vxtest::run({"/usr/bin/python3", "-c", "import pytest"}).status != 0) GTEST_SKIP() << "pytest is not installed";
    vxtest::makeDirs("/tmp/pytest");
    vxtest::writeFile("/tmp/pytest/test_it.py",
                      "import subprocess, pytest\n"
                      "subprocess.run(['logger', b'before \\xe9'])\n"
                      "subprocess.run(['gw', 'wait', 'log', 'before'])\n"
                      "def test_since(gateway):\n"
                      "    gateway.wait('log', 'before', timeout=0, since=0)\n"
                      "    with pytest.raises(AssertionError, match='not in time'):\n"
                      "        gateway.wait('log', 'before', timeout=1e-5)\n"
                      "def test_bytes(gateway):\n"
                      "    assert '\\udce9' in gateway('log')\n");
    const std::string plugin = VXTEST_SOURCE_DIR "/gateway/pytest";
    const auto output = vxtest::run({"env",
                                     "PYTHONPATH=" + plugin,
                                     "PYTHONDONTWRITEBYTECODE=1",
                                     vxtest::built("gateway/vxgateway"),
                                     "run",
                                     "--net",
                                     "none",
                                     "--show",
                                     plugin,
                                     "--show",
                                     "/tmp/pytest",
                                     "--",
                                     "/usr/bin/python3",
                                     "-m",
                                     "pytest",
                                     "-q",
                                     "-p",
                                     "no:cacheprovider",
                                     "-p",
                                     "vxgateway_pytest",
                                     "/tmp/pytest/test_it.py"});
    EXPECT_EQ(output.status, 0) << output.text;
}

// ---- scenarios

TEST(Scenario, ErrorsNameLineAndColumn) {
    const auto problems = [](const std::string &text) -> std::string {
        try {
            vxgateway::readScenario("s", text);
        } catch (const std::exception &problem) {
            return problem.what();
        }
        return "";
    };
    EXPECT_EQ(
        problems(
            "question why\nat 0 wan cut\nwhen status a up within 2\nexpect log x|y\nrepeat 2\nat 0.1 usb out\nend\n"),
        "");
    EXPECT_EQ(problems("at 0 wan cut\n"), "s:1:1: missing: question");
    EXPECT_EQ(problems("question why\nat 0 wan  cult\n"),
              "s:2:11: unknown word 'cult', expected cut, restore, lose, carry, loss, delay, route or noroute");
    EXPECT_EQ(problems("question why\n  dance\n"),
              "s:2:3: unknown word 'dance', expected question, at, when, expect, repeat or end");
    EXPECT_EQ(problems("question why\nat 1 input 1\n"), "s:2:13: missing: LEVEL");
    EXPECT_EQ(problems("question why\nat x input 1 1\n"), "s:2:4: SECONDS is seconds from 0 to 86400, not 'x'");
    EXPECT_EQ(problems("question why\nat 2 usb in\nat 1 usb out\n"), "s:3:4: earlier than the line before it");
    EXPECT_EQ(problems("question why\nend\nrepeat 0\nrepeat 2\n"),
              "s:2:1: \"end\" without \"repeat\"\ns:3:8: COUNT is a whole number from 1 to 1000\ns:4:1: \"repeat\" "
              "without \"end\"");
    EXPECT_EQ(problems("question why\nexpect log ( within 3\n"),
              "s:2:12: not a regular expression: Unmatched ( or \\(");
    EXPECT_EQ(problems("question why\nwhen status a up within never\n"),
              "s:2:25: SECONDS is seconds from 0 to 86400, not 'never'");
}

TEST(Scenario, SaysWhatDidNotCome) {
    vxtest::writeFile("/tmp/s.scenario", "question why\nat 0 input 1 1\nexpect output 1 1 within 0.05\n");
    const auto output = vxgateway_({"play", "--net", "none", "/tmp/s.scenario", "--", "sleep", "100"});
    EXPECT_EQ(output.status, 1);
    EXPECT_EQ(output.text, "vxgateway: s.scenario:3: output 1 1: not within 50 ms\n");
}

TEST(Scenario, TimesCountFromAConditionAndRoundsRepeat) {
    vxtest::writeFile(
        "/tmp/s.scenario",
        "question why\nwhen status go yes\nat 0.02 input 1 1\nrepeat 3\nat 0.01 note round\nend\nat 0.01 input 1 0\n"
        "expect status go over\nexpect program ended\n");
    vxtest::writeFile(
        "/tmp/program",
        "#!/bin/sh\nprintf yes >/tmp/status/go\nuntil [ $(cat /sys/devices/vantorix/din1/value) = 1 ]; do :; done\n"
        "until [ $(cat /sys/devices/vantorix/din1/value) = 0 ]; do :; done\nprintf over >/tmp/status/go\n"
        "gw record | grep -c ' note: round'\n");
    ::chmod("/tmp/program", 0755);
    const auto output = vxgateway_({"play", "--net", "none", "/tmp/s.scenario", "/tmp/program"});
    EXPECT_EQ(output.text, "3\n");
    EXPECT_EQ(output.status, 0);
}

// SIGCONT cancels a pending SIGSTOP, such as the one by which a check for leaks attaches to the program's threads.
TEST(Scenario, OnlyAStoppedProgramIsContinuedToEnd) {
    vxtest::writeFile("/tmp/program",
                      "#!/usr/bin/python3\nimport os, signal, time\n"
                      "ending = []\n"
                      "signal.signal(signal.SIGTERM, lambda *ignored: ending.append(1))\n"
                      "signal.signal(signal.SIGCONT, lambda *ignored: print('continued', flush=True))\n"
                      "os.mkdir('/tmp/status/x'); open('/tmp/status/x/ready', 'w').write('yes')\n"
                      "while not ending: time.sleep(0.01)\n"
                      "time.sleep(0.2)\n");
    ::chmod("/tmp/program", 0755);
    const auto said = [](const char *play) {
        vxtest::writeFile("/tmp/s.scenario", std::string("question why\nwhen status x/ready yes\n") + play);
        const auto output = vxgateway_({"play", "--net", "none", "/tmp/s.scenario", "/tmp/program"});
        EXPECT_EQ(output.status, 0);
        return output.text;
    };
    EXPECT_EQ(said("at 0 note running\n"), "");
    EXPECT_EQ(said("at 0 program signal STOP\nat 0.2 note stopped\n"), "continued\n");
}

TEST(Scenario, TheCatalogueIsWithoutErrorsAndAsksQuestions) {
    size_t count = 0;
    std::istringstream lines(vxgateway_({"list", "scenarios"}).text);
    for (std::string line; std::getline(lines, line); ++count) {
        EXPECT_THAT(line, testing::EndsWith("?"));
        const std::string name = line.substr(0, line.find(' '));
        EXPECT_NO_THROW(vxgateway::readScenario(
            name, vxtest::readFile(VXTEST_SOURCE_DIR "/gateway/scenarios/" + name + ".scenario")))
            << name;
    }
    EXPECT_GE(count, 10U);
}

// ---- nothing remains

std::map<std::string, std::string> machine() {
    std::map<std::string, std::string> found;
    for (const char *link : {"mnt", "net", "pid", "user"})
        found[link] = fs::read_symlink(std::string("/proc/self/ns/") + link);
    found["mounts"] = vxtest::readFile("/proc/self/mounts");
    for (const char *directory : {"/tmp", "/run", "/dev/shm", "/var/run", "/var/tmp"}) {
        for (const auto &entry : fs::directory_iterator(directory))
            found[directory] += entry.path().filename().string() + " ";
    }
    for (const auto &entry : fs::directory_iterator("/proc")) {
        const std::string name = entry.path().filename();
        if (name.find_first_not_of("0123456789") == std::string::npos) found["processes"] += name + " ";
    }
    return found;
}

// VXTEST_GATEWAYS sets their number (scripts/gateways).
TEST(VxGateway, LeavesNoProcessMountNamespaceOrFile) {
    const char *const wanted = std::getenv("VXTEST_GATEWAYS");
    const long count = wanted == nullptr ? 3 : std::max(std::strtol(wanted, nullptr, 10), 1L);
    std::vector<double> starts_s;
    const auto before = machine();
    for (long i = 0; i < count; ++i) {
        const auto began = std::chrono::system_clock::now().time_since_epoch();
        const auto output = vxgateway_({"run", "--", "sh", "-c", "date +%s.%N; gw show >/dev/null"});
        EXPECT_EQ(output.status, 0) << output.text;
        starts_s.push_back(std::strtod(output.text.c_str(), nullptr) - std::chrono::duration<double>(began).count());
    }
    EXPECT_EQ(machine(), before);
    std::sort(starts_s.begin(), starts_s.end());
    std::printf("%ld gateways, start of the program after %.3f s (median), %.3f s (longest)\n", count,
                starts_s[starts_s.size() / 2], starts_s.back());
}

// ---- JSON and log lines

TEST(GatewayText, JsonIsValidWhateverTheBytes) {
    EXPECT_EQ(vxgateway::jsonString("a\"\\\n\x7f"), R"("a\"\\\u000a\u007f")");
    EXPECT_EQ(vxgateway::jsonString("\xc3\xa4\xe2\x82\xac"), "\"\xc3\xa4\xe2\x82\xac\"");
    EXPECT_EQ(vxgateway::jsonString("\xff\xc0\x80\xed\xa0\x80\xe2\x82"),
              R"("\u00ff\u00c0\u0080\u00ed\u00a0\u0080\u00e2\u0082")");
}

TEST(GatewayText, LogLinesAreTakenApart) {
    const auto fields = [](std::string_view datagram) {
        std::vector<std::string> values;
        for (const auto &field : vxgateway::logEntry(datagram).fields) values.push_back(field.value);
        return values;
    };
    EXPECT_THAT(fields("<11>Nov 21 02:03:04 me[12]: a: b\n"), ElementsAre("err", "user", "me", "12", "a: b"));
    EXPECT_THAT(fields("<30>Nov 21 02:03:04 me: text"), ElementsAre("info", "daemon", "me", "null", "text"));
    EXPECT_THAT(fields("no priority"), ElementsAre("notice", "user", "", "null", "no priority"));
    EXPECT_THAT(fields("<999>"), ElementsAre("debug", "auth", "", "null", ""));
    EXPECT_THAT(fields(""), ElementsAre("notice", "user", "", "null", ""));
}

}  // namespace
