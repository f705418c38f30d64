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

// In a box of its own, as scripts/demo does it: what a chapter leaves running ends with the box.
vxtest::Output demo(const std::vector<std::string> &arguments) {
    const std::string source = VXTEST_SOURCE_DIR;
    std::vector<std::string> command{
        vxtest::built("gateway/vxbox"), "--bind", source,           "--bind", vxtest::built(""), "--", "bash",
        source + "/demo/run",           source,   vxtest::built("")};
    command.insert(command.end(), arguments.begin(), arguments.end());
    return vxtest::run(command);
}

std::string play(const std::string &chapters) {
    const auto output = demo({"--only", chapters});
    EXPECT_EQ(output.status, 0) << output.text;
    EXPECT_THAT(output.text, Not(HasSubstr("(no word of")));
    EXPECT_THAT(output.text, Not(HasSubstr("(exit status 127)")));
    return output.text;
}

TEST(Demo, TellsTheSupervisorsStory) {
    const std::string told = play("95-");
    for (const char *turn :
         {"WAN link up, 198.51.100.9", "WAN link lost, 198.51.100.9", "sms to +15550100", "in reset",
          "alarm input raised", "5 losses make a lost link", "alarm input released", "event id=101 param=1",
          "out 1 = 0", "wan/link: up", "wan/modem: signal -67 dBm", "100: ", "ended"}) {
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
    for (const char *chapter : {"00-", "05-", "11-", "20-", "30-", "40-", "50-", "55-", "60-", "70-"}) play(chapter);
}

TEST(Demo, RunsAProgramOfTheUsersOwn) {
    const auto output = demo({"--run", "configd_reader", "wan.target"});
    EXPECT_EQ(output.status, 0);
    EXPECT_THAT(output.text, HasSubstr("198.51.100.9"));
}

}  // namespace
