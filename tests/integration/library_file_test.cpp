// SPDX-License-Identifier: MIT
// The library as a file: what it exports, needs, and how it was linked.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <sstream>
#include <string>
#include <vector>

#include "support/process.h"

namespace {

const std::string library = vxtest::built("vxutils/libvxutils.so.1.0.0");

std::string readelf(const std::string &options) {
    const auto output = vxtest::run({"readelf", options, library});
    EXPECT_EQ(output.status, 0) << output.text;
    return output.text;
}

std::vector<std::string> dynamicEntries(const std::string &tag) {
    std::vector<std::string> found;
    std::istringstream lines(readelf("-dW"));
    for (std::string line; std::getline(lines, line);) {
        if (line.find("(" + tag + ")") == std::string::npos) continue;
        const size_t open = line.find('[');
        found.push_back(open == std::string::npos ? line : line.substr(open + 1, line.rfind(']') - open - 1));
    }
    return found;
}

TEST(LibraryFile, IsNamedAndLinkedAsTheFirmwareLoadsIt) {
    EXPECT_EQ(dynamicEntries("SONAME"), std::vector<std::string>{"libvxutils.so.1"});
    namespace fs = std::filesystem;
    EXPECT_EQ(fs::read_symlink(vxtest::built("vxutils/libvxutils.so.1")).string(), "libvxutils.so.1.0.0");
    EXPECT_EQ(fs::read_symlink(vxtest::built("vxutils/libvxutils.so")).string(), "libvxutils.so.1");
}

// The stand-in for the platform's logging library is found beside the library; the platform's own needs no run path.
TEST(LibraryFile, NamesNoDirectoryButItsOwn) {
    EXPECT_TRUE(dynamicEntries("RPATH").empty());
    const bool standIn = std::filesystem::exists(vxtest::built("vxutils/libdevlog.so.1"));
    EXPECT_EQ(dynamicEntries("RUNPATH"), standIn ? std::vector<std::string>{"$ORIGIN"} : std::vector<std::string>{});
}

TEST(LibraryFile, HasNoTextRelocations) { EXPECT_TRUE(dynamicEntries("TEXTREL").empty()); }

TEST(LibraryFile, NeedsNothingButItsDependenciesAndTheCompilersLibraries) {
    const std::vector<std::string> known{"libdevlog.so.1", "libstdc++.so.6",      "libgcc_s.so.1",       "libc.so.6",
                                         "libm.so.6",      "ld-linux-armhf.so.3", "ld-linux-x86-64.so.2"};
    for (const std::string &needed : dynamicEntries("NEEDED")) {
        const bool sanitizer = needed.find("san.so") != std::string::npos;
        EXPECT_TRUE(sanitizer || std::find(known.begin(), known.end(), needed) != known.end()) << needed;
    }
}

// In the notes that packagers' tools read.
TEST(LibraryFile, TellsWhatItLoadsAtFirstUse) {
    const std::string notes = readelf("-p.note.dlopen");
    EXPECT_NE(notes.find("FDO"), std::string::npos) << notes;
    EXPECT_NE(notes.find(R"("soname":["libevent_core-2.1.so.7","libevent-2.1.so.7"]})"), std::string::npos) << notes;
    EXPECT_NE(notes.find(R"("soname":["libzmq.so.5"]})"), std::string::npos) << notes;
}

TEST(LibraryFile, IsHardened) {
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
    EXPECT_NE(readelf("-dW").find("BIND_NOW"), std::string::npos);
    EXPECT_NE(readelf("-sW").find("__stack_chk_fail"), std::string::npos);
#ifdef NDEBUG
    EXPECT_NE(readelf("-sW").find("_chk@"), std::string::npos) << "no fortified call at all";
#endif
#endif
    const std::string segments = readelf("-lW");
    EXPECT_NE(segments.find("GNU_RELRO"), std::string::npos);
    std::istringstream lines(segments);
    for (std::string line; std::getline(lines, line);) {
        if (line.find("GNU_STACK") != std::string::npos) EXPECT_EQ(line.find("RWE"), std::string::npos) << line;
    }
}

TEST(LibraryFile, ExportsWhatThePublicHeadersDeclareAndNothingElse) {
    const std::string source = VXTEST_SOURCE_DIR;
    std::vector<std::string> command{"/usr/bin/python3", source + "/tests/support/exported_names.py",
                                     source + "/include", library, "nm"};
    std::istringstream arguments(VXTEST_CLANG_ARGUMENTS);
    for (std::string argument; arguments >> argument;) command.push_back(argument);
    const auto output = vxtest::run(command);
    EXPECT_EQ(output.text, "");
    EXPECT_EQ(output.status, 0);
}

// Where `long` is 32 bits wide, a caller without 64-bit times would pass other records than the library reads.
TEST(LibraryFile, ACallerWithNarrowTimesDoesNotCompile) {
    if (sizeof(long) == 8) GTEST_SKIP() << "times are 64 bits wide on this machine, whatever a caller sets";
    const std::string compile =
        std::string(VXTEST_CC) + " " + VXTEST_COMPILE_FLAGS + " -I" + VXTEST_SOURCE_DIR + "/include -fsyntax-only -x ";
    const std::string include = " - <<< '#include <vxutils/time64.h>'";
    for (const std::string language : {"c -std=c99", "c++ -std=c++11"}) {
        const auto refused = vxtest::run({"bash", "-c", compile + language + include});
        EXPECT_NE(refused.status, 0) << language;
        EXPECT_NE(refused.text.find("TIME_BITS"), std::string::npos) << refused.text;
        const std::string wide = " -D_TIME_BITS=64 -D_FILE_OFFSET_BITS=64";
        EXPECT_EQ(vxtest::run({"bash", "-c", compile + language + wide + include}).status, 0) << language;
    }
}

TEST(LibraryFile, HasOneVersionNode) {
    const std::string versions = readelf("-VW");
    EXPECT_NE(versions.find("Name: VXUTILS_1"), std::string::npos);
    EXPECT_EQ(versions.find("Name: VXUTILS_2"), std::string::npos);
}

}  // namespace
