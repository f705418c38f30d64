// SPDX-License-Identifier: MIT
// Every scenario of the catalogue, each played to three daemons at once: all of them live through it and end when asked.
#include <gtest/gtest.h>

#include <cstdio>
#include <filesystem>
#include <list>
#include <set>
#include <string>
#include <vector>

#include "support/process.h"

namespace {

namespace fs = std::filesystem;

std::vector<std::string> catalogue() {
    std::set<std::string> names;
    for (const auto &entry : fs::directory_iterator(vxtest::built("gateway/scenarios")))
        names.insert(entry.path().stem());
    return {names.begin(), names.end()};
}

class Scenarios : public testing::TestWithParam<std::string> {};

TEST_P(Scenarios, AreLivedThroughByTheExampleDaemons) {
    std::list<vxtest::Process> plays;
    const auto daemons = {"examples/wan_supervisor", "examples/statusinterface_daemon", "tests/alarmd"};
    for (const char *daemon : daemons) {
        plays.emplace_back(std::vector<std::string>{vxtest::built("gateway/vxgateway"), "play", GetParam(), "--",
                                                    vxtest::built(daemon)});
    }
    for (const char *daemon : daemons) {
        const std::string said = plays.front().readAll();
        EXPECT_EQ(plays.front().wait(), 0) << daemon << "\n" << said;
        plays.pop_front();
    }
}

INSTANTIATE_TEST_SUITE_P(Catalogue, Scenarios, testing::ValuesIn(catalogue()), [](const auto &about) {
    std::string name = about.param;
    for (char &c : name) c = c == '-' ? '_' : c;
    return name;
});

TEST(ScenarioClock, RoundTripTimesStayRightWhenTheClockWasSet) {
    for (const char *moved : {"-1y", "+1y"}) {
        vxtest::Process process({vxtest::built("gateway/vxgateway"), "run", "--clock", "--show",
                                 vxtest::built("examples"), "--", "sh", "-c",
                                 std::string("gw wan route; gw clock ") + moved + "; " +
                                     vxtest::built("examples/ping_wan") + " wan0 198.51.100.9"});
        const std::string said = process.readAll();
        double time_ms = -1;
        EXPECT_EQ(std::sscanf(said.c_str(), "WAN1: reply from 198.51.100.9 in %lf ms", &time_ms), 1) << said;
        EXPECT_GT(time_ms, 0);
        EXPECT_LT(time_ms, 1000);
        EXPECT_EQ(process.wait(), 0);
    }
}

TEST(ScenarioCatalogue, HasTenOrMore) { EXPECT_GE(catalogue().size(), 10U); }

}  // namespace
