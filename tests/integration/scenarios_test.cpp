// SPDX-License-Identifier: MIT
// Every scenario of the catalogue, each played to three daemons at once: all of them live through it and end when asked.
#include <gtest/gtest.h>

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

TEST(ScenarioCatalogue, HasTenOrMore) { EXPECT_GE(catalogue().size(), 10U); }

}  // namespace
