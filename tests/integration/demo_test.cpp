// SPDX-License-Identifier: MIT
// The demo as a person sees it: every chapter is told to its end, and the supervisor's story has its turns.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

#include "support/emulation.h"
#include "support/files.h"
#include "support/process.h"

namespace {

using testing::HasSubstr;
using testing::Not;

std::string play(const std::string &chapters) {
    const std::string source = VXTEST_SOURCE_DIR;
    const auto output = vxtest::run({"bash", source + "/demo/run", source, vxtest::built(""), "--only", chapters});
    EXPECT_EQ(output.status, 0) << output.text;
    EXPECT_THAT(output.text, Not(HasSubstr("(no word of")));
    EXPECT_THAT(output.text, Not(HasSubstr("(exit status 127)")));
    EXPECT_THAT(output.text, Not(HasSubstr("No such file or directory\n      (exit status")));
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
    for (const char *chapter : {"00-", "11-", "20-", "30-", "35-", "40-", "50-", "55-", "60-", "70-", "75-"})
        play(chapter);
}

TEST(Demo, RunsAProgramOfTheUsersOwn) {
    const std::string source = VXTEST_SOURCE_DIR;
    const auto output =
        vxtest::run({"bash", source + "/demo/run", source, vxtest::built(""), "--run", "configd_reader", "wan.target"});
    EXPECT_EQ(output.status, 0);
    EXPECT_THAT(output.text, HasSubstr("198.51.100.9"));
}

}  // namespace
