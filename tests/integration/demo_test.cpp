// SPDX-License-Identifier: MIT
// The demo as a person sees it: every chapter is told to its end, and the supervisor's story has its turns.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "support/emulation.h"
#include "support/files.h"
#include "support/process.h"

namespace {

using testing::HasSubstr;
using testing::Not;

std::vector<std::string> demoCommand(const std::vector<std::string> &arguments) {
    std::vector<std::string> command{VXTEST_SOURCE_DIR "/scripts/demo", "--build", vxtest::built("")};
    command.insert(command.end(), arguments.begin(), arguments.end());
    return command;
}

vxtest::Output demo(const std::vector<std::string> &arguments) { return vxtest::run(demoCommand(arguments)); }

std::string play(const std::string &chapters) {
    const auto output = demo({"--only", chapters});
    EXPECT_EQ(output.status, 0) << output.text;
    EXPECT_THAT(output.text, Not(HasSubstr("(no word of")));
    EXPECT_THAT(output.text, Not(HasSubstr("(exit status 127)")));
    return output.text;
}

bool hasTool() { return vxtest::exists(vxtest::built("tools/vx")); }

TEST(Demo, TellsTheSupervisorsStory) {
    if (!hasTool()) GTEST_SKIP() << "the chapter uses vx, which is not part of this build";
    const std::string told = play("95-");
    for (const char *turn :
         {"WAN link up, 198.51.100.9", "WAN link lost, 198.51.100.9", "sms to +15550100", "in reset",
          "alarm input raised", "5 losses make a lost link", "alarm input released", "event id=101 param=1",
          "[board] out 1 = 0", "[SMS tool] +15550100 WAN link lost", "[power_guard] power from the battery",
          "event id=102 param=1", "the owner before died while it held the lock", "power/source=mains", ", link: up",
          "wan/link=up", "wan/modem=signal -67 dBm", "100: ", "ended"}) {
        EXPECT_THAT(told, HasSubstr(turn));
    }
}

TEST(Demo, PlaysTheChaptersOfTheLibraryAlone) {
    for (const char *chapter : {"00-", "05-"}) play(chapter);
}

// A chapter whose scripts use vx, and texts that it must tell, in this order. What its daemons and the system log tell at
// the same time can come in any order.
struct Chapter {
    const char *name;
    std::vector<std::string> turns;
    std::vector<std::string> anywhere = {};
};

void PrintTo(const Chapter &chapter, std::ostream *out) { *out << chapter.name; }

class DemoWithVx : public testing::TestWithParam<Chapter> {};

TEST_P(DemoWithVx, TellsItsTurnsInOrder) {
    if (!hasTool()) GTEST_SKIP() << "the chapter uses vx, which is not part of this build";
    const std::string told = play(GetParam().name);
    size_t at = 0;
    for (const std::string &turn : GetParam().turns) {
        const size_t found = told.find(turn, at);
        ASSERT_NE(found, std::string::npos) << "\"" << turn << "\" is missing after:\n"
                                            << told.substr(0, at) << "\nin:\n"
                                            << told.substr(at);
        at = found + turn.size();
    }
    for (const std::string &text : GetParam().anywhere) EXPECT_THAT(told, HasSubstr(text));
}

const std::vector<Chapter> chapters = {
    {"10-configd",
     {"hostname=gateway-7\n", "vx: config set: the configuration daemon is busy", "(exit status 1)",
      "$ vx config commit --wait 10\n  $ vx config get hostname\n      gateway-8\n", "round 1: committed",
      "led 1: green -> blue", "keeping what is there", "round 5: committed"},
     {"[log] err led_daemon: no response from configd", "[log] err led_daemon: unable to send query to configd"}},
    {"11-",
     {"      hostname=gateway 7\n      wan.mtu=1428\n", "\n      1428\n", "no.such.key: not in",
      "/etc/vx/loop.conf: ", "PRODUCT=gateway 7\n", "NONE: not in"},
     {"[log] err vx: cfread: unable to open /etc/vx/loop.conf"}},
    {"20-",
     {"0 of them a mixture", "\n      25 updates by a script, 0 of the reads", "(exit status 3)", "(exit status 124)",
      ", child of 1\n", "40 of 40 changes", "3: 2", "event number 35\n", "event number 3\n"}},
    {"30-",
     {"network=192.168.1.0/24", "link_local=1", "192.168.1.77/33: has neither", "192.168.1.077/24: is not an address",
      "94.1 Mbit/s", "called by", "running ", "running ", "ended ", "ended ", "\n      0\n"}},
    {"40-",
     {"kind=interface", "10.9.8.7: not in 192.168.1.0/24", "8261dcfb76070a46f03c3705", "\n      192.168.1.1/24\n",
      "accepted from 192.168.1.77: reboot at 03:00\n", "refused: forged order", "not of this network"}},
    {"50-",
     {"time is up", "the modem's lock was left by a process that died", "worker 2 report 3",
      "event id=99 param=0 text=\"raised by hand\""}},
    {"55-",
     {"command_switch on\n", "      on\n", "command_switch dance\n", "      on\n", "command_switch off\n",
      "      off\n"},
     {"[switchd] state is on\n", "[switchd] cannot dance\n", "[switchd] state is off\n"}},
    {"60-",
     {"\n      wan0\n", "198.51.100.9: Network is unreachable", "sent=1 received=1 loss_percent=0.0",
      "198.51.100.9 seq=1 reply=1", "\n      wan0\n", "198.51.100.9 sent=2 received=2", "2 of 2 echoes",
      "198.51.100.9 seq=1 reply=0", "(exit status 1)", "198.51.100.9 seq=1 reply=1", "\n      address=192.168.7.1\n"}},
    {"70-",
     {"      dout1=0\n      dout2=1\n", "out 2 = 1", "product=QX310\n", "product=Example Gateway\n",
      "sda1 device=sda type=usb index=1", "\n      1=9.350\n", "\n      9.350\n", "mount=/media/usb", "-67 dBm",
      "the modem daemon refuses or is busy: not now", "suspended=1", "card 1: no modem daemon", "text=status?",
      "+4930123 all is well\n"}},
};
INSTANTIATE_TEST_SUITE_P(Chapters, DemoWithVx, testing::ValuesIn(chapters),
                         [](const auto &chapter) { return "Chapter" + std::string(chapter.param.name).substr(0, 2); });

TEST(Demo, HandsEachEventToEachSubscriber) {
    if (!hasTool()) GTEST_SKIP() << "the chapter uses vx, which is not part of this build";
    const std::string told = play("50-");
    for (int number = 1; number <= 6; ++number) {
        for (const char *subscriber : {"[first] 17 ", "[second] 17 "}) {
            EXPECT_THAT(told, HasSubstr(subscriber + std::to_string(number) + " worker "));
        }
    }
}

TEST(Demo, RunsAProgramOfTheUsersOwn) {
    const auto output = demo({"--run", "configd_reader", "wan.target"});
    EXPECT_EQ(output.status, 0);
    EXPECT_THAT(output.text, HasSubstr("198.51.100.9"));
    EXPECT_EQ(demo({"--run", "sh", "-c", "exit 7"}).status, 7);
}

TEST(Demo, GivesAProgramTheWholeBoard) {
    const auto output = demo({"--run", "board_survey"});
    EXPECT_EQ(output.status, 0);
    EXPECT_EQ(output.text,
              "board: QX310\n"
              "inputs: 0 0 0 0\n"
              "outputs: 0 0\n"
              "storage: mmcblk0p3, internal memory\n"
              "storage: mmcblk0p4, data partition, mounted on /data with 8192 KiB\n"
              "storage: mmcblk1p1, card or disk\n"
              "storage: sda1, USB disk on port 1, mounted on /media/usb with 8192 KiB\n"
              "converter: 12.1 V\n"
              "supply 1: 12.10 V\n"
              "supply 2: 0.00 V\n");
}

TEST(Demo, GivesAProgramEveryPeer) {
    const auto output = demo({"--run", "bash", "-c",
                              "wwanmd_signal 0; vxevent 7 1 hello; simplesms_answer; ping_wan wan0 198.51.100.9 "
                              "192.0.2.1; cat /sys/class/net/wan0/operstate; gw config get wan.losses"});
    EXPECT_EQ(output.status, 0) << output.text;
    for (const char *part :
         {"card 0: signal: -67 dBm", "reply from 198.51.100.9 through 192.0.2.1", "\nup\n", "wan.losses=2"})
        EXPECT_THAT(output.text, HasSubstr(part));
}

// The board's stand-in covers /proc.
TEST(Demo, AProgramSeesTheProcessesOfTheGateway) {
    if (!hasTool()) GTEST_SKIP() << "vx is not part of this build";
    const auto output =
        demo({"--run", "bash", "-c",
              "sleep 3018 & vx proc find --names 'sleep 3018' | grep -qx \"$! sleep 3018\" && echo found; "
              "kill $!; wait $!; vx proc count 'sleep 3018'; vx proc alive $! || echo ended; "
              "vx proc count '/gateway/bin/wwanmd 0'; "
              "readlink /proc/self; cat /proc/self/comm; mkdir /proc/sysinfo/x && rmdir /proc/sysinfo/x"});
    EXPECT_EQ(output.status, 0) << output.text;
    EXPECT_THAT(output.text, HasSubstr("found\n"));
    EXPECT_THAT(output.text, HasSubstr("\n0\n"));
    EXPECT_THAT(output.text, HasSubstr("ended\n1\n"));
    EXPECT_THAT(output.text, HasSubstr("/.proc/self\ncat\n"));
}

TEST(Demo, AShellSteersTheGateway) {
    vxtest::Process shell(demoCommand({"--shell"}));
    shell.send(
        "gw input 2 1; gw usb out; gw voltage 2 24000; board_survey; gw modem dance || echo refused\n"
        "gw wan cut; cat /sys/class/net/wan0/carrier; gw status; vxevent 8 1 seen; sleep 0.2; gw events; exit 3\n");
    shell.closeInput();
    const std::string told = shell.readAll();
    EXPECT_EQ(shell.wait(), 3);
    for (const char *part : {"move a digital input", "the cable of the WAN link", "the status tree", "what the event",
                             "inputs: 0 1 0 0", "supply 2: 24.00 V", "unknown word 'dance'", "event id=8 param=1"})
        EXPECT_THAT(told, HasSubstr(part));
    EXPECT_THAT(told, Not(HasSubstr("USB disk on")));
}

}  // namespace
