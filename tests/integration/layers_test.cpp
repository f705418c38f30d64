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
    {"api", "time64", "version"},
    {"strutil", "xprintf", "memstream", "list", "numconv", "hashtable", "vxstring", "address"},
    {"file", "command", "lock", "process", "processcontrol", "timefmt", "cfread", "systeminfo", "csemaphore", "sem",
     "digest", "dynamicmodule", "qxlog"},
    {"eventsource", "messagequeue", "statusinterface", "vxevent"},
    {"configd", "configreader", "configdaemonclient", "wwanmd", "ipaddress", "ping", "pingclient", "route", "interface",
     "ipinterfacestatus", "dio", "dio_status", "hardware", "storage", "adc", "cellular", "simplesms"}};

int layerOf(const std::string &family) {
    for (size_t layer = 0; layer < layers.size(); ++layer) {
        if (layers[layer].count(family) != 0) return static_cast<int>(layer);
    }
    return -1;
}

// What a file includes, as it is written between the quotes or angle brackets.
std::vector<std::string> includes(const fs::path &file) {
    std::vector<std::string> found;
    std::ifstream text(file);
    for (std::string line; std::getline(text, line);) {
        const size_t open = line.find_first_of("<\"");
        if (line.rfind("#include", 0) != 0 || open == std::string::npos) continue;
        found.push_back(line.substr(open + 1, line.find_first_of(">\"", open + 1) - open - 1));
    }
    return found;
}

// A private file lies beside its family: the family's word, and one of its own.
std::string familyOfName(std::string name) {
    while (layerOf(name) < 0 && name.find('_') != std::string::npos) name.resize(name.rfind('_'));
    return name;
}

// The families among them: "vxutils/NAME.h", but nothing below "vxutils/internal/".
std::vector<std::string> includedFamilies(const fs::path &file) {
    std::vector<std::string> families;
    for (const fs::path included : includes(file)) {
        if (included.parent_path() == "vxutils") families.push_back(familyOfName(included.stem()));
    }
    return families;
}

bool mentions(const fs::path &file, const std::string &text) {
    std::ifstream lines(file);
    for (std::string line; std::getline(lines, line);) {
        if (line.find(text) != std::string::npos) return true;
    }
    return false;
}

// Sources that are split by what a reader looks for belong to the family whose header they implement first.
std::string familyOf(const fs::path &file) {
    const std::string name = familyOfName(file.stem());
    if (layerOf(name) >= 0) return name;
    const auto own = includedFamilies(file);
    return own.empty() ? name : own.front();
}

TEST(Layers, EveryPublicHeaderHasAPlace) {
    for (const auto &entry : fs::directory_iterator(source / "include/vxutils")) {
        EXPECT_GE(layerOf(entry.path().stem()), 0) << entry.path();
    }
}

TEST(Layers, AFamilyIncludesItsOwnLayerAndLowerOnesOnly) {
    int files = 0;
    for (const char *dir : {"include/vxutils", "vxutils"}) {
        for (const auto &entry : fs::directory_iterator(source / dir)) {
            const std::string kind = entry.path().extension();
            if (kind != ".h" && kind != ".cpp") continue;
            const int own = layerOf(familyOf(entry.path()));
            EXPECT_GE(own, 0) << entry.path();
            for (const std::string &included : includedFamilies(entry.path())) {
                EXPECT_LE(layerOf(included), own) << entry.path() << " includes " << included;
            }
            ++files;
        }
    }
    EXPECT_GT(files, 2);
}

TEST(Layers, PublicHeadersIncludeNothingPrivate) {
    for (const auto &entry : fs::directory_iterator(source / "include/vxutils")) {
        for (const std::string &included : includes(entry.path())) {
            if (included.find('/') == std::string::npos || included.rfind("sys/", 0) == 0) continue;
            EXPECT_TRUE(fs::exists(source / "include" / included)) << entry.path() << " includes " << included;
        }
    }
}

TEST(Layers, TheToolStandsOnThePublicInterfaceAlone) {
    int families = 0;
    for (const auto &entry : fs::recursive_directory_iterator(source / "tools")) {
        const std::string kind = entry.path().extension();
        if (kind != ".h" && kind != ".cpp") continue;
        for (const std::string &included : includes(entry.path())) {
            if (included.rfind("vxutils/", 0) != 0) continue;
            EXPECT_TRUE(fs::exists(source / "include" / included)) << entry.path() << " includes " << included;
            ++families;
        }
    }
    EXPECT_GT(families, 0);
}

TEST(Layers, InternalHelpersIncludeNoFamilyAboveTheFoundation) {
    for (const auto &entry : fs::directory_iterator(source / "vxutils/internal")) {
        for (const std::string &included : includedFamilies(entry.path())) {
            EXPECT_LE(layerOf(included), 1) << entry.path() << " includes " << included;
        }
    }
}

// What one family alone uses lies beside it under its word: vxutils/FAMILY_WORD.h.
TEST(Layers, InternalHelpersHaveSeveralUsers) {
    // General by what they do: one family needs them today.
    const std::set<std::string> general{"sigpipe.h", "library_checks.h"};
    std::map<std::string, std::set<std::string>> users;
    for (const auto &entry : fs::recursive_directory_iterator(source / "vxutils")) {
        const bool internal = entry.path().parent_path().filename() == "internal";
        const std::string user = internal ? "internal/" + entry.path().stem().string() : familyOf(entry.path());
        for (const fs::path included : includes(entry.path())) users[included].insert(user);
    }
    int headers = 0;
    for (const auto &entry : fs::directory_iterator(source / "vxutils/internal")) {
        const std::string name = entry.path().filename();
        if (entry.path().extension() != ".h" || general.count(name) != 0) continue;
        auto &those = users["vxutils/internal/" + name];
        those.erase("internal/" + entry.path().stem().string());
        EXPECT_GE(those.size(), 2U) << name << " is used by " << (those.empty() ? "nothing" : *those.begin());
        ++headers;
    }
    EXPECT_GT(headers, 20);
}

TEST(Layers, OnePlaceWritesToTheSystemLog) {
    for (const auto &entry : fs::recursive_directory_iterator(source / "vxutils")) {
        if (!entry.is_regular_file() || entry.path().filename() == "log.cpp") continue;
        EXPECT_FALSE(mentions(entry.path(), "syslog(")) << entry.path();
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

// tests/abi/layouts.cpp, whose assertions hold when it compiles.
TEST(Layers, EveryPublicClassAndRecordHasItsSizeHeld) {
    const std::regex definition(R"(^ *(typedef )?(class|struct) (VXUTILS_API )?([A-Za-z_0-9]+)( : .*)? \{$)");
    const std::set<std::string> privateOnes{"CSinkData", "Watched", "ByDescriptor", "Entry"};
    const fs::path layouts = source / "tests/abi/layouts.cpp";
    int definitions = 0;
    for (const auto &entry : fs::directory_iterator(source / "include/vxutils")) {
        std::ifstream header(entry.path());
        for (std::string line; std::getline(header, line);) {
            std::smatch parts;
            if (!std::regex_match(line, parts, definition) || privateOnes.count(parts[4]) != 0) continue;
            const std::string name = parts[4].str() + ", ";
            EXPECT_TRUE(mentions(layouts, "SIZE(" + name) || mentions(layouts, "::" + name)) << entry.path() << name;
            ++definitions;
        }
    }
    EXPECT_GE(definitions, 49);
}

}  // namespace
