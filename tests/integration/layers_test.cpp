// SPDX-License-Identifier: MIT
// The layers of docs/architecture.md, read off the #include lines: arrows point down only.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <map>
#include <regex>
#include <set>
#include <string>
#include <vector>

namespace {

namespace fs = std::filesystem;

const fs::path source = VXTEST_SOURCE_DIR;

// Lowest first. A family may include its own layer and those below it.
const std::vector<std::set<std::string>> layers{
    {"api", "time64"},
    {"strutil", "xprintf", "memstream", "list", "numconv", "hashtable", "vxstring", "address"},
    {"file", "command", "lock", "process", "processcontrol", "timefmt", "cfread", "systeminfo", "csemaphore", "sem",
     "digest", "dynamicmodule", "qxlog"},
    {"eventsource", "messagequeue", "statusinterface", "vxevent"},
    {"configd", "configreader", "configdaemonclient", "wwanmd", "ipaddress", "ping", "pingclient", "route",
     "interface", "ipinterfacestatus", "dio", "dio_status", "hardware", "storage", "adc", "cellular", "simplesms"}};

int layerOf(const std::string &family) {
    for (size_t layer = 0; layer < layers.size(); ++layer) {
        if (layers[layer].count(family) != 0) return static_cast<int>(layer);
    }
    return -1;
}

std::vector<std::string> includes(const fs::path &file, const std::regex &pattern) {
    std::vector<std::string> found;
    std::ifstream text(file);
    for (std::string line; std::getline(text, line);) {
        std::smatch match;
        if (std::regex_search(line, match, pattern)) found.push_back(match[1]);
    }
    return found;
}

// Sources that are split by what a reader looks for belong to the family whose header they implement first.
std::string familyOf(const fs::path &file) {
    const std::string stem = file.stem();
    if (layerOf(stem) >= 0) return stem;
    const auto own = includes(file, std::regex("#include [<\"]vxutils/([a-z0-9_]+)\\.h[>\"]"));
    return own.empty() ? stem : own.front();
}

TEST(Layers, EveryPublicHeaderHasAPlace) {
    for (const auto &entry : fs::directory_iterator(source / "include/vxutils")) {
        EXPECT_GE(layerOf(entry.path().stem()), 0) << entry.path();
    }
}

TEST(Layers, AFamilyIncludesItsOwnLayerAndLowerOnesOnly) {
    const std::regex pattern("#include [<\"]vxutils/([a-z0-9_]+)\\.h[>\"]");
    int files = 0;
    for (const fs::path dir : {source / "include/vxutils", source / "vxutils"}) {
        for (const auto &entry : fs::directory_iterator(dir)) {
            const std::string kind = entry.path().extension();
            if (kind != ".h" && kind != ".cpp") continue;
            const int own = layerOf(familyOf(entry.path()));
            EXPECT_GE(own, 0) << entry.path();
            for (const std::string &included : includes(entry.path(), pattern)) {
                EXPECT_LE(layerOf(included), own) << entry.path() << " includes " << included;
            }
            ++files;
        }
    }
    EXPECT_GT(files, 10);
}

TEST(Layers, PublicHeadersIncludeNothingPrivate) {
    for (const auto &entry : fs::directory_iterator(source / "include/vxutils")) {
        const auto found = includes(entry.path(), std::regex("#include [<\"](vxutils/internal/|platform/|\\.\\.)"));
        EXPECT_TRUE(found.empty()) << entry.path();
    }
}

TEST(Layers, InternalHelpersIncludeNoFamilyAboveTheFoundation) {
    const std::regex pattern("#include [<\"]vxutils/([a-z0-9_]+)\\.h[>\"]");
    for (const auto &entry : fs::directory_iterator(source / "vxutils/internal")) {
        // A private header named after a family is that family's own and stands where the family stands.
        std::string stem = entry.path().stem();
        int own = 1;
        for (size_t cut = stem.size(); cut != std::string::npos; cut = stem.rfind('_', cut - 1)) {
            if (layerOf(stem.substr(0, cut)) >= 0) {
                own = layerOf(stem.substr(0, cut));
                break;
            }
            if (cut == 0) break;
        }
        for (const std::string &included : includes(entry.path(), pattern)) {
            EXPECT_LE(layerOf(included), own) << entry.path() << " includes " << included;
        }
    }
}

TEST(Layers, OnePlaceWritesToTheSystemLog) {
    const std::regex pattern("\\b(v?syslog) ?\\(");
    for (const auto &entry : fs::recursive_directory_iterator(source / "vxutils")) {
        if (!entry.is_regular_file() || entry.path().filename() == "log.cpp") continue;
        EXPECT_TRUE(includes(entry.path(), pattern).empty()) << entry.path();
    }
}

// A family is found by one word: header, source and test.
TEST(Layers, EveryFamilyHasASourceAndATest) {
    for (const auto &entry : fs::directory_iterator(source / "include/vxutils")) {
        const std::string family = entry.path().stem();
        if (layerOf(family) == 0) continue;
        EXPECT_TRUE(fs::exists(source / "vxutils" / (family + ".cpp"))) << family;
        EXPECT_TRUE(fs::exists(source / "tests" / (family + "_test.cpp"))) << family;
    }
}

}  // namespace
