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
    struct Play {
        std::string daemon;
        vxtest::Process process;
    };
    std::list<Play> plays;
    for (const std::string daemon : {"examples/wan_supervisor", "examples/statusinterface_daemon", "tests/alarmd"}) {
        const std::string built = vxtest::built(daemon);
        plays.push_back({daemon, vxtest::Process({vxtest::built("gateway/vxgateway"), "play", GetParam(), "--", built})});
    }
    for (Play &play : plays) {
        const std::string said = play.process.readAll();
        EXPECT_EQ(play.process.wait(), 0) << play.daemon << "\n" << said;
    }
}

INSTANTIATE_TEST_SUITE_P(Catalogue, Scenarios, testing::ValuesIn(catalogue()), [](const auto &about) {
    std::string name = about.param;
    for (char &c : name) c = c == '-' ? '_' : c;
    return name;
});

TEST(ScenarioCatalogue, HasTenOrMore) { EXPECT_GE(catalogue().size(), 10U); }

}  // namespace
