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

std::string readelf(const std::string &options, const std::string &file = library) {
    const auto output = vxtest::run({"readelf", options, file});
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

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool sanitized = true;  // the sanitizers bring their own checks
#else
constexpr bool sanitized = false;
#endif

bool has(const std::string &text, const std::string &part) { return text.find(part) != std::string::npos; }

// What docs/security.md promises of every file that is installed.
void expectHardened(const std::string &file) {
    SCOPED_TRACE(file);
    const std::string segments = readelf("-lW", file);
    EXPECT_TRUE(has(segments, "GNU_RELRO"));
    EXPECT_TRUE(has(segments, "GNU_STACK"));
    std::istringstream lines(segments);
    for (std::string line; std::getline(lines, line);) {
        EXPECT_FALSE(has(line, " RWE ")) << "memory to write to and to execute: " << line;
    }
    EXPECT_TRUE(has(readelf("-hW", file), "DYN (")) << "has a fixed address";
    if (sanitized) return;
    EXPECT_TRUE(has(readelf("-dW", file), "BIND_NOW"));
    const std::string symbols = readelf("-sW", file);
    EXPECT_TRUE(has(symbols, "__stack_chk_fail"));
#ifdef NDEBUG
    EXPECT_TRUE(has(symbols, "_chk@")) << "no fortified call at all";
#endif
#ifdef __x86_64__
    // readelf fails for the note of the libraries that are loaded at first use: it does not know that kind.
    EXPECT_TRUE(has(vxtest::run({"readelf", "-nW", file}).text, "SHSTK")) << "no shadow stack";
#endif
}

TEST(LibraryFile, IsHardened) { expectHardened(library); }

TEST(LibraryFile, TheToolIsHardenedToo) {
    const std::string tool = vxtest::built("tools/vx");
    if (!std::filesystem::exists(tool)) GTEST_SKIP() << "built without the command-line tool";
    expectHardened(tool);
}

// The debug information names the options that each source was compiled with.
TEST(LibraryFile, EverySourceHasTheChecksOfTheMachine) {
    if (sanitized) GTEST_SKIP() << "the sanitizers bring their own checks";
    std::vector<std::string> options{"-fstack-protector"};
#ifdef __x86_64__
    options.insert(options.end(), {"-fstack-clash-protection", "-fcf-protection=full"});
#endif
    // Printed by a shell: the whole of the debug information is some 100 MB of text.
    const auto output = vxtest::run(
        {"bash", "-c",
         "readelf --debug-dump=info --dwarf-depth=1 " + library + " 2>/dev/null | grep 'DW_AT_producer.*GNU C++'"});
    std::istringstream units(output.text);
    size_t count = 0;
    for (std::string unit; std::getline(units, unit); ++count) {
        for (const std::string &option : options) EXPECT_TRUE(has(unit, option)) << option << " is not in " << unit;
    }
    EXPECT_GT(count, 40U);
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
