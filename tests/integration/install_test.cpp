// SPDX-License-Identifier: MIT
// The installed result, used from outside the tree with pkg-config and with the CMake package.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <string>

#include "support/files.h"
#include "support/process.h"

namespace {

namespace fs = std::filesystem;

const std::string cProgram = R"(
#include <stdio.h>
#include <vxutils/strutil.h>
#include <vxutils/xprintf.h>
int main(void) {
    char text[32];
    snxprintf(text, 0, sizeof text, "%s-%04x", "link", 0x2au);
    puts(strtoupper(text));
    return 0;
}
)";

const std::string cxxProgram = R"(
#include <cstdio>
#include <vxutils/vxstring.h>
int main() {
    String text("wan");
    text += "0";
    std::puts(text.toUpperCase().c_str());
    return 0;
}
)";

std::string shell(const std::string &command, int expected = 0) {
    const auto output = vxtest::run({"sh", "-c", command});
    EXPECT_EQ(output.status, expected) << command << "\n" << output.text;
    return output.text;
}

std::string compiler(const char *language) { return std::string(language) == "C" ? VXTEST_CC : VXTEST_CXX; }

// Installing writes a list of the files into the build tree, which is read-only here: that list goes to memory.
class Install : public testing::Test {
protected:
    static void SetUpTestSuite() {
        shell(
            "mkdir -p /tmp/over/upper /tmp/over/work && mount -t overlay overlay "
            "-o lowerdir=" VXTEST_BUILD_DIR ",upperdir=/tmp/over/upper,workdir=/tmp/over/work " VXTEST_BUILD_DIR);
    }
};

// Installs into the box's own /usr, so the machine stays as it is.
void install() { shell("cmake --install " VXTEST_BUILD_DIR " && ldconfig"); }

TEST_F(Install, PutsEverythingWhereAnImageExpectsIt) {
    shell("DESTDIR=/tmp/image cmake --install " VXTEST_BUILD_DIR);
    const std::string lib = "/tmp/image/usr/lib/";
    EXPECT_TRUE(vxtest::exists(lib + "libvxutils.so.1.0.0"));
    EXPECT_EQ(fs::read_symlink(lib + "libvxutils.so.1").string(), "libvxutils.so.1.0.0");
    EXPECT_EQ(fs::read_symlink(lib + "libvxutils.so").string(), "libvxutils.so.1");
    EXPECT_TRUE(vxtest::exists(lib + "pkgconfig/vxutils.pc"));
    EXPECT_TRUE(vxtest::exists(lib + "cmake/vxutils/vxutilsConfig.cmake"));
    EXPECT_TRUE(vxtest::exists("/tmp/image/usr/include/vxutils/strutil.h"));
    for (const auto &entry : fs::recursive_directory_iterator("/tmp/image/usr/include/vxutils")) {
        EXPECT_TRUE(vxtest::exists(VXTEST_SOURCE_DIR "/include/vxutils/" + entry.path().filename().string()));
    }
}

TEST_F(Install, HonoursPrefixAndLibraryDirectory) {
    const std::string options =
        "-DBUILD_TESTING=OFF -DCMAKE_INSTALL_PREFIX=/opt/fw -DCMAKE_INSTALL_LIBDIR=lib32 -DCMAKE_BUILD_TYPE=Debug";
    shell("cmake -S " VXTEST_SOURCE_DIR " -B /tmp/prefix-build -G Ninja " + options +
          " && cmake --build /tmp/prefix-build");
    shell("DESTDIR=/tmp/other cmake --install /tmp/prefix-build");
    EXPECT_TRUE(vxtest::exists("/tmp/other/opt/fw/lib32/libvxutils.so.1.0.0"));
    EXPECT_TRUE(vxtest::exists("/tmp/other/opt/fw/include/vxutils/strutil.h"));
    const std::string pc = vxtest::readFile("/tmp/other/opt/fw/lib32/pkgconfig/vxutils.pc");
    EXPECT_NE(pc.find("libdir=${prefix}/lib32"), std::string::npos) << pc;
    EXPECT_FALSE(vxtest::exists("/tmp/prefix-build/tests"));
    EXPECT_FALSE(vxtest::exists("/tmp/prefix-build/gateway"));
}

TEST_F(Install, ACProgramBuildsWithPkgConfigAlone) {
    install();
    vxtest::writeFile("/tmp/user/main.c", cProgram);
    shell("cd /tmp/user && " + compiler("C") +
          " -std=c99 -Wall -Wextra -Werror main.c $(pkg-config --cflags --libs vxutils) -o main-c");
    EXPECT_EQ(shell("/tmp/user/main-c"), "LINK-002A\n");
}

TEST_F(Install, ACxxProgramBuildsWithPkgConfigAlone) {
    install();
    vxtest::writeFile("/tmp/user/main.cpp", cxxProgram);
    shell("cd /tmp/user && " + compiler("CXX") +
          " -std=c++11 -Wall -Wextra -Werror main.cpp $(pkg-config --cflags --libs vxutils) -o main-cxx");
    EXPECT_EQ(shell("/tmp/user/main-cxx"), "WAN0\n");
}

TEST_F(Install, BothBuildWithTheCMakePackage) {
    install();
    vxtest::writeFile("/tmp/project/main.c", cProgram);
    vxtest::writeFile("/tmp/project/main.cpp", cxxProgram);
    vxtest::writeFile("/tmp/project/CMakeLists.txt", R"(
cmake_minimum_required(VERSION 3.22)
project(user LANGUAGES C CXX)
find_package(vxutils CONFIG REQUIRED)
add_executable(user-c main.c)
target_link_libraries(user-c PRIVATE vxutils::vxutils)
add_executable(user-cxx main.cpp)
target_link_libraries(user-cxx PRIVATE vxutils::vxutils)
)");
    shell("cmake -S /tmp/project -B /tmp/project/build -G Ninja && cmake --build /tmp/project/build");
    EXPECT_EQ(shell("/tmp/project/build/user-c"), "LINK-002A\n");
    EXPECT_EQ(shell("/tmp/project/build/user-cxx"), "WAN0\n");
}

// The first code block of a language in the README.
std::string readmeBlock(const std::string &language) {
    const std::string readme = vxtest::readFile(VXTEST_SOURCE_DIR "/README.md");
    const std::string fence = "```" + language + "\n";
    const size_t begin = readme.find(fence);
    if (begin == std::string::npos) return "";
    return readme.substr(begin + fence.size(), readme.find("\n```", begin) - begin - fence.size() + 1);
}

TEST_F(Install, TheExamplesOfTheReadmeCompile) {
    install();
    for (const std::string language : {"c", "cpp"}) {
        const std::string code = readmeBlock(language);
        ASSERT_FALSE(code.empty()) << language;
        EXPECT_LE(std::count(code.begin(), code.end(), '\n'), 15) << language;
        vxtest::writeFile("/tmp/readme/main." + language, code);
        shell("cd /tmp/readme && " + compiler(language == "c" ? "C" : "CXX") +
              (language == "c" ? " -std=c99" : " -std=c++11") + " -Wall -Wextra -Werror main." + language +
              " $(pkg-config --cflags --libs vxutils) -o main-" + language);
    }
}

}  // namespace
