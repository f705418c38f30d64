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

TEST(Demo, TellsOfTheConfigurationDaemon) {
    const std::string told = play("10-configd");
    for (const char *turn :
         {"gateway-7", "busy, asking again", "commit: ready", "gateway-8", "no response from configd"})
        EXPECT_THAT(told, HasSubstr(turn));
}

TEST(Demo, PlaysEveryOtherChapter) {
    for (const char *chapter : {"00-", "05-", "11-", "20-", "30-", "40-", "50-", "60-"}) play(chapter);
}

TEST(Demo, CommandsADaemonThroughItsFifo) {
    if (!hasTool()) GTEST_SKIP() << "the chapter uses vx, which is not part of this build";
    const std::string told = play("55-");
    for (const char *turn : {"state is on\n", "\n      on\n", "cannot dance\n", "state is off\n"}) {
        EXPECT_THAT(told, HasSubstr(turn));
    }
}

TEST(Demo, TellsOfTheBoardAndItsModem) {
    const std::string told = play("70-");
    for (const char *turn :
         {"in  0 1 0 0", "out 2 = 1", "QX310, generation 18", "Example Gateway", "sda1, USB disk on port 1",
          "input 1: 9.35 V", "signal: -67 dBm", "refused: not now", "card 0 is suspended", "+4930123 all is well"})
        EXPECT_THAT(told, HasSubstr(turn));
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

TEST(Demo, AShellSteersTheGateway) {
    vxtest::Process shell(demoCommand({"--shell"}));
    shell.send(
        "gw input 2 1; gw usb out; gw voltage 2 24000; board_survey; gw modem dance || echo refused\n"
        "gw wan cut; cat /sys/class/net/wan0/carrier; gw status; vxevent 8 1 seen; sleep 0.2; gw events; exit 3\n");
    shell.closeInput();
    const std::string told = shell.readAll();
    EXPECT_EQ(shell.wait(), 3);
    for (const char *part : {"move a digital input", "the cable of the WAN link", "the status tree", "what the event",
                             "inputs: 0 1 0 0", "supply 2: 24.00 V", "unknown: dance\nrefused", "event id=8 param=1"})
        EXPECT_THAT(told, HasSubstr(part));
    EXPECT_THAT(told, Not(HasSubstr("USB disk on")));
}

}  // namespace
