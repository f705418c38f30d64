// SPDX-License-Identifier: MIT
// The installed result, used from outside the tree: any prefix, shared and static, pkg-config and CMake, or as a part
// of another project. What is built here is run without any environment variable.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <vxutils/version.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "support/files.h"
#include "support/process.h"

namespace {

namespace fs = std::filesystem;
using testing::HasSubstr;
using testing::Not;

const std::string source = VXTEST_SOURCE_DIR;
const std::string build = VXTEST_BUILD_DIR;

// Calls every part of a link: the library, what it calls itself, and the platform's logging library.
const std::string cProgram = R"(
#include <stdio.h>
#include <vxutils/strutil.h>
#include <vxutils/version.h>
#include <vxutils/vxevent.h>
#include <vxutils/xprintf.h>
int main(int argc, char **argv) {
    char text[32];
    if (argc > 100) create_legacy_source(argv);
    snxprintf(text, 0, sizeof text, "%s-%04x", "link", 0x2au);
    printf("%s %s %d\n", strtoupper(text), vxutils_version(), devlog_level_to_prio(DL_MQCONTENTS));
    return 0;
}
)";
const std::string cOutput = "LINK-002A " VXUTILS_VERSION_STRING " 7\n";

const std::string cxxProgram = R"(
#include <cstdio>
#include <vxutils/csemaphore.h>
#include <vxutils/vxstring.h>
int main(int argc, char **) {
    if (argc > 100) CRecursiveSemaphore("/never").lock();
    String text("wan");
    text += "0";
    std::puts(text.toUpperCase().c_str());
    return 0;
}
)";
const std::string cxxOutput = "WAN0\n";

std::string shell(const std::string &command, int expected = 0) {
    const auto output = vxtest::run({"bash", "-c", command});
    EXPECT_EQ(output.status, expected) << command << "\n" << output.text;
    return output.text;
}

std::string quoted(const std::string &path) { return "'" + path + "'"; }

std::string runBare(const std::string &program) { return shell("env -i " + quoted(program)); }

std::set<std::string> filesBelow(const std::string &dir) {
    std::set<std::string> found;
    for (const auto &entry : fs::recursive_directory_iterator(dir)) {
        if (!entry.is_directory()) found.insert(entry.path().string());
    }
    return found;
}

std::string randomDirectory() {
    std::string path = "/srv/XXXXXX";
    EXPECT_NE(::mkdtemp(path.data()), nullptr);
    return path;
}

void configureAndBuild(const std::string &tree, const std::string &project, const std::string &options) {
    shell("cmake -G Ninja -S " + quoted(project) + " -B " + quoted(tree) + " " + options + " && cmake --build " +
          quoted(tree));
}

// Both programs with pkg-config alone. The shell has to read the flags as pkg-config quotes them, for prefixes with
// blanks.
void expectPkgConfigWorks(const std::string &libraryDir, const std::string &options = "") {
    SCOPED_TRACE(libraryDir + " " + options);
    const std::string flags = " $(PKG_CONFIG_PATH=" + quoted(libraryDir + "/pkgconfig") +
                              " pkg-config --cflags --libs " + options + " vxutils)";
    vxtest::writeFile("/tmp/user/main.c", cProgram);
    vxtest::writeFile("/tmp/user/main.cpp", cxxProgram);
    shell("cd /tmp/user && eval cc -std=c99 -Wall -Wextra -Werror main.c" + flags + " -o main-c");
    shell("cd /tmp/user && eval c++ -std=c++11 -Wall -Wextra -Werror main.cpp" + flags + " -o main-cxx");
    EXPECT_EQ(runBare("/tmp/user/main-c"), cOutput);
    EXPECT_EQ(runBare("/tmp/user/main-cxx"), cxxOutput);
}

// Both programs with the CMake package; the first in a project that knows no C++.
void expectCMakeWorks(const std::string &prefix) {
    SCOPED_TRACE(prefix);
    fs::remove_all("/tmp/project");
    for (const std::string language : {"C", "CXX"}) {
        const std::string dir = "/tmp/project/" + language;
        const std::string main = language == "C" ? "main.c" : "main.cpp";
        vxtest::writeFile(dir + "/" + main, language == "C" ? cProgram : cxxProgram);
        vxtest::writeFile(dir + "/CMakeLists.txt",
                          "cmake_minimum_required(VERSION 3.22)\nproject(user LANGUAGES " + language +
                              ")\nfind_package(vxutils 1.0 CONFIG REQUIRED)\nadd_executable(user " + main +
                              ")\ntarget_link_libraries(user PRIVATE vxutils::vxutils)\n");
        configureAndBuild(dir + "/build", dir, "-DCMAKE_PREFIX_PATH=" + quoted(prefix));
        EXPECT_EQ(runBare(dir + "/build/user"), language == "C" ? cOutput : cxxOutput);
    }
}

// Installing writes a list of the files into the build tree, which is read-only here: what a test changes there goes to
// memory and is gone afterwards.
class Install : public testing::Test {
protected:
    Install() {
        shell("mkdir -p /tmp/over/upper /tmp/over/work && mount -t overlay overlay -o lowerdir=" + build +
              ",upperdir=/tmp/over/upper,workdir=/tmp/over/work " + build);
    }
    ~Install() override { shell("umount " + build + " && rm -r /tmp/over"); }
};

TEST_F(Install, PutsEverythingWhereAnImageExpectsIt) {
    shell("DESTDIR=/tmp/image cmake --install " + build);
    const std::string lib = "/tmp/image/usr/lib/";
    EXPECT_TRUE(vxtest::exists(lib + "libvxutils.so.1.0.0"));
    EXPECT_EQ(fs::read_symlink(lib + "libvxutils.so.1").string(), "libvxutils.so.1.0.0");
    EXPECT_EQ(fs::read_symlink(lib + "libvxutils.so").string(), "libvxutils.so.1");
    EXPECT_TRUE(vxtest::exists(lib + "pkgconfig/vxutils.pc"));
    EXPECT_TRUE(vxtest::exists(lib + "cmake/vxutils/vxutilsConfig.cmake"));
    std::set<std::string> installed;
    std::set<std::string> inTree;
    for (const auto &entry : fs::directory_iterator("/tmp/image/usr/include/vxutils"))
        installed.insert(entry.path().filename().string());
    for (const auto &entry : fs::directory_iterator(source + "/include/vxutils"))
        inTree.insert(entry.path().filename().string());
    EXPECT_EQ(installed, inTree);
    EXPECT_THAT(vxtest::readFile(lib + "pkgconfig/vxutils.pc"), Not(HasSubstr("-rpath")))
        << "staged, to be run elsewhere";
}

TEST_F(Install, WorksInThePrefixOfTheSystem) {
    shell("cmake --install " + build + " && ldconfig");
    EXPECT_THAT(shell("pkg-config --libs vxutils"), Not(HasSubstr("-rpath")));
    expectPkgConfigWorks("/usr/lib");
    expectCMakeWorks("/usr");
    // The installed stand-in is not taken for the platform's own library: uninstalling would take it from the next build.
    const std::string standIn = "Logging library: the stand-in of this tree";
    EXPECT_THAT(shell("cmake -G Ninja -DBUILD_TESTING=OFF -S " + source + " -B /tmp/again"), HasSubstr(standIn));
    shell("cmake --build " + build + " --target uninstall");
    EXPECT_THAT(shell("cmake /tmp/again"), HasSubstr(standIn));
}

TEST_F(Install, WorksInAnyOtherPrefixAndCanBeMoved) {
    const std::string random = randomDirectory();
    const std::string prefix = random + "/my libraries";
    shell("cmake --install " + build + " --prefix " + quoted(prefix));
    expectPkgConfigWorks(prefix + "/lib");
    expectCMakeWorks(prefix);
    const std::string moved = random + "/elsewhere";
    fs::rename(prefix, moved);
    expectPkgConfigWorks(moved + "/lib");
    expectCMakeWorks(moved);
}

TEST_F(Install, InstalledAgainItIsTheSameAndUninstallingLeavesNothing) {
    const std::string prefix = "/opt/my libraries";
    vxtest::writeFile(prefix + "/include/other.h", "another package's");
    vxtest::writeFile(prefix + "/lib/cmake/other/otherConfig.cmake", "another package's");
    const auto before = filesBelow(prefix);
    shell("cmake --install " + build + " --prefix " + quoted(prefix));
    const auto installed = filesBelow(prefix);
    EXPECT_GT(installed.size(), before.size() + 40);
    shell("cmake --install " + build + " --prefix " + quoted(prefix));
    EXPECT_EQ(filesBelow(prefix), installed);
    shell("cmake --build " + build + " --target uninstall");
    EXPECT_EQ(filesBelow(prefix), before);
    for (const char *own : {"include/vxutils", "lib/cmake/vxutils", "libexec/vxutils-gateway", "share/vxutils"})
        EXPECT_FALSE(vxtest::exists(prefix + "/" + own)) << own;
    EXPECT_THAT(shell("rm " + build + "/install_manifest.txt && cmake --build " + build + " --target uninstall", 1),
                HasSubstr("Nothing was installed from this build tree"));
}

TEST_F(Install, UninstallingRemovesWhatWasInstalledAndNothingElse) {
    for (const std::string prefix : {"/opt/m\u00fcller", "/opt/vxutils", "/opt/release[1]"}) {
        SCOPED_TRACE(prefix);
        const std::string other = prefix + "/include/vxutils/other.h";
        shell("cmake --install " + build + " --prefix " + quoted(prefix));
        EXPECT_TRUE(vxtest::exists(prefix + "/include/vxutils/sem.h"));
        vxtest::writeFile(other, "not the library's");
        shell("cmake --build " + build + " --target uninstall");
        EXPECT_THAT(filesBelow(prefix), testing::ElementsAre(other));
    }
}

TEST_F(Install, UninstallingHonoursAnAbsoluteDestdirAndRefusesARelativeOne) {
    shell("cd /srv && DESTDIR=image cmake --install " + build);
    EXPECT_THAT(shell("cd /srv && DESTDIR=image cmake --build " + build + " --target uninstall", 1),
                HasSubstr("give an absolute path"));
    EXPECT_TRUE(vxtest::exists("/srv/image/usr/lib/libvxutils.so.1.0.0"));
    shell("DESTDIR=/srv/image cmake --build " + build + " --target uninstall");
    EXPECT_THAT(filesBelow("/srv/image"), testing::IsEmpty());
}

TEST_F(Install, AllUsersCanReadItWhateverTheUmaskIs) {
    for (const std::string mask : {"077", "000"}) {
        const std::string prefix = "/srv/umask " + mask;
        shell("umask " + mask + " && cmake --install " + build + " --prefix " + quoted(prefix));
        EXPECT_EQ(shell("find " + quoted(prefix) + " ! -type l \\( ! -perm -444 -o -perm /022 \\)"), "");
        EXPECT_EQ(shell("find " + quoted(prefix) + " -type d ! -perm 755"), "");
    }
}

// A parent project that takes the source tree in: the library alone is built, and no setting of the parent is changed.
// It is configured and one file of it compiled; the library itself is not built a second time.
std::string parentProject(const std::string &statement, const std::string &options) {
    fs::remove_all("/tmp/parent");
    vxtest::writeFile("/tmp/parent/main.c", cProgram);
    vxtest::writeFile("/tmp/parent/CMakeLists.txt",
                      "cmake_minimum_required(VERSION 3.22)\nproject(parent LANGUAGES C)\ninclude(CTest)\n" +
                          statement +
                          "\nadd_executable(user main.c)\ntarget_link_libraries(user PRIVATE vxutils::vxutils)\n"
                          "add_test(NAME own COMMAND user)\n");
    shell("cmake -G Ninja -S /tmp/parent -B /tmp/parent/build -DCMAKE_BUILD_TYPE=Debug -DCMAKE_CXX_FLAGS_DEBUG=-O0 " +
          options);
    shell("ninja -C /tmp/parent/build CMakeFiles/user.dir/main.c.o");
    EXPECT_THAT(shell("cd /tmp/parent/build && ctest -N"), HasSubstr("Total Tests: 1\n"));
    const std::string commands = shell("ninja -C /tmp/parent/build -t commands");
    EXPECT_THAT(commands, Not(HasSubstr("-Werror")));
    EXPECT_THAT(commands, HasSubstr("-O0")) << "the parent's own flags";
    for (const char *part : {"examples/", "gateway/", "tools/", "_test.cpp"})
        EXPECT_THAT(commands, Not(HasSubstr(part)));
    return vxtest::readFile("/tmp/parent/build/CMakeCache.txt");
}

TEST(PartOfAProject, ByFetchContentItIsTheSharedLibraryAlone) {
    const std::string cache = parentProject("include(FetchContent)\nFetchContent_Declare(vxutils SOURCE_DIR " + source +
                                                ")\nFetchContent_MakeAvailable(vxutils)",
                                            "");
    EXPECT_THAT(cache, HasSubstr("CMAKE_INSTALL_PREFIX:PATH=/usr/local\n"));
    EXPECT_THAT(cache, Not(HasSubstr("BUILD_SHARED_LIBS")));
    EXPECT_THAT(shell("ninja -C /tmp/parent/build -t targets all"), HasSubstr("libvxutils.so.1.0.0: "));
}

TEST(PartOfAProject, BySubdirectoryItCanBeAStaticLibrary) {
    const std::string cache =
        parentProject("set(CMAKE_UNITY_BUILD ON)\nadd_subdirectory(" + source + " vxutils)\nset(CMAKE_UNITY_BUILD OFF)",
                      "-DBUILD_SHARED_LIBS=OFF");
    EXPECT_THAT(cache, HasSubstr("BUILD_SHARED_LIBS:UNINITIALIZED=OFF\n"));
    const std::string targets = shell("ninja -C /tmp/parent/build -t targets all");
    EXPECT_THAT(targets, HasSubstr("libvxutils.a: "));
    EXPECT_THAT(targets, Not(HasSubstr("unity_"))) << "each source is compiled alone";
    EXPECT_THAT(cache, Not(HasSubstr("libvxutils.so")));
}

TEST(PartOfAProject, TheStandInForTheLoggingLibraryIsBuiltBesideTheLibrary) {
    parentProject("set(CMAKE_LIBRARY_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/all/libraries)\nadd_subdirectory(" + source +
                      " vxutils)",
                  "");
    const std::string targets = shell("ninja -C /tmp/parent/build -t targets all");
    EXPECT_THAT(targets, HasSubstr("all/libraries/libvxutils.so.1.0.0: "));
    EXPECT_THAT(targets, HasSubstr("all/libraries/libdevlog.so.1: "));
}

// The objects of the shared library serve, so that only the archive is made.
TEST_F(Install, AsAStaticLibraryItIsUsedFromOutside) {
    const std::string prefix = randomDirectory() + "/static libraries";
    const auto before = filesBelow("/srv");
    std::string libraryDir = "lib/" + shell("cc -print-multiarch");
    libraryDir.pop_back();  // the newline
    shell("cmake -DBUILD_SHARED_LIBS=OFF -DCMAKE_INSTALL_LIBDIR=" + libraryDir + " " + build + " && cmake --build " +
          build + " --target vxutils");
    for (const std::string component : {"runtime", "development"})
        shell("cmake --install " + build + " --prefix " + quoted(prefix) + " --component " + component);
    EXPECT_TRUE(vxtest::exists(prefix + "/" + libraryDir + "/libvxutils.a"));
    EXPECT_FALSE(vxtest::exists(prefix + "/" + libraryDir + "/libvxutils.so"));
    expectPkgConfigWorks(prefix + "/" + libraryDir, "--static");
    expectCMakeWorks(prefix);
    for (const char *program : {"/tmp/user/main-c", "/tmp/user/main-cxx", "/tmp/project/C/build/user"}) {
        EXPECT_THAT(shell(std::string("readelf -d ") + program), Not(testing::ContainsRegex("libvxutils|libdevlog")));
    }
    shell("cmake --build " + build + " --target uninstall");
    EXPECT_EQ(filesBelow("/srv"), before);
}

// On a machine that has both, removing the packages leaves what "cmake --install" has put into /usr.
TEST_F(Install, RemovingTheDebianPackageKeepsALibraryThatIsNotThePackages) {
    const std::string file = "/usr/lib/libvxutils.so.1.0.0";
    const std::string script = "sh " + source + "/debian/libvxutils-common.postrm ";
    shell("cmake --install " + build + " --component runtime && " + script + "remove");
    EXPECT_TRUE(vxtest::exists(file));
    shell("cp " + source + "/packaging/lock-file " + file + " && " + script + "upgrade 2");
    EXPECT_TRUE(vxtest::exists(file));
    shell(script + "remove && " + script + "purge");
    EXPECT_FALSE(vxtest::exists(file));
}

TEST(Configure, NamesThePackagesThatAreMissing) {
    shell("rm /usr/include/zmq.h /usr/include/event.h");
    const std::string output = shell("cmake -G Ninja -DBUILD_TESTING=OFF -S " + source + " -B /tmp/missing", 1);
    EXPECT_THAT(output, HasSubstr("apt-get install libevent-dev libzmq3-dev"));
    EXPECT_THAT(output, HasSubstr("scripts/setup build"));
}

// Every function of the public headers that takes a format, called with what its format does not want.
TEST(Formats, AreCheckedByTheCompiler) {
    const std::vector<std::string> calls{
        R"(String().format("%s", 1);)",
        R"(String().concatf("%s", String("x"));)",
        R"(configd_add_query(nullptr, "%s", 1);)",
        R"(configd_fetch(nullptr, "%s", 1);)",
        R"(mem_stream_printf(nullptr, "%s", 1);)",
        R"(strformat("%s", 1);)",
        R"(snxprintf(nullptr, 0, 0, "%s", 1);)",
        R"(strlenf("%s", 1);)",
        R"(vsnxprintf(nullptr, 0, 0, "%Y", list);)",
        R"(vstrlenf("%Y", list);)",
    };
    std::string program =
        "#include <vxutils/configd.h>\n#include <vxutils/memstream.h>\n#include <vxutils/strutil.h>\n"
        "#include <vxutils/vxstring.h>\n#include <vxutils/xprintf.h>\nvoid misuse(va_list list) {\n(void)list;\n";
    const auto line = std::count(program.begin(), program.end(), '\n') + 1;
    for (const auto &call : calls) program += call + "\n";
    vxtest::writeFile("/tmp/formats.cpp", program + "}\n");
    const std::string output = shell("c++ -std=c++11 -Wall -fsyntax-only -I" + source + "/include /tmp/formats.cpp");
    for (size_t i = 0; i < calls.size(); ++i) {
        EXPECT_THAT(output, testing::ContainsRegex(":" + std::to_string(line + static_cast<long>(i)) +
                                                   ":[0-9]+: warning: .*\\[-Wformat="))
            << calls[i];
    }
    std::istringstream declared(shell("cat " + source +
                                      "/include/vxutils/*.h | tr '\\n' ' ' | grep -oE "
                                      "'[a-z_]+\\([^();]*const char \\*(fmt|format)[,)]' | cut -d'(' -f1"));
    size_t count = 0;
    for (std::string name; declared >> name; ++count) EXPECT_THAT(program, HasSubstr(name + "(")) << "not tried here";
    EXPECT_EQ(count, calls.size());
}

// The code blocks of a language in the README.
std::vector<std::string> readmeBlocks(const std::string &language) {
    const std::string readme = vxtest::readFile(source + "/README.md");
    const std::string fence = "\n```" + language + "\n";
    std::vector<std::string> blocks;
    for (size_t begin = readme.find(fence); begin != std::string::npos; begin = readme.find(fence, begin)) {
        begin += fence.size();
        blocks.push_back(readme.substr(begin, readme.find("\n```", begin) - begin + 1));
    }
    return blocks;
}

// Two steps are left out here: a box has no network to install packages from, and building the library once more would
// take longer than all other tests of this file.
TEST_F(Install, TheCommandsOfTheReadmeWork) {
    shell("mkdir -p /tmp/upper /tmp/work /tmp/clone && mount -t overlay overlay -o lowerdir=" + source +
          ",upperdir=/tmp/upper,workdir=/tmp/work /tmp/clone && rm -rf /tmp/clone/build/release");
    const auto blocks = readmeBlocks("sh");
    ASSERT_EQ(blocks.size(), 3U);
    EXPECT_EQ(blocks[1], "scripts/demo\nscripts/test --quick\n") << "is run by scripts/fresh";
    std::istringstream commands(blocks[0]);
    std::vector<std::string> known{"apt-get install", "cmake --preset release", "cmake --build --preset release",
                                   "cmake --install build/release --strip"};
    for (std::string command; std::getline(commands, command);) {
        ASSERT_FALSE(known.empty()) << command;
        ASSERT_EQ(command.rfind(known.front(), 0), 0U) << command;
        known.erase(known.begin());
        if (command.rfind("apt-get", 0) == 0) continue;
        if (command.rfind("cmake --build", 0) == 0) {
            EXPECT_THAT(shell("cd /tmp/clone && " + command + " -- -n"), Not(HasSubstr("_test")));
        } else if (command.rfind("cmake --install", 0) == 0) {
            shell(command.replace(command.find("build/release"), std::strlen("build/release"), build) + " && ldconfig");
        } else {
            EXPECT_THAT(shell("cd /tmp/clone && " + command), HasSubstr("/tmp/clone/build/release"));
        }
    }
    EXPECT_THAT(known, testing::IsEmpty());
    EXPECT_LT(fs::file_size("/usr/lib/libvxutils.so.1.0.0"), 500000U);
    vxtest::writeFile("/tmp/user/main.c", readmeBlocks("c").at(0));
    shell("cd /tmp/user && " + blocks[2]);
    shell("rm -rf /var/run/configd && /tmp/user/main", 1);
    shell("mkdir -p /var/run/configd && /tmp/user/main", 1);  // no daemon: no answer
    const vxtest::Process daemon({vxtest::built("gateway/configd"), "wan.0.apn=internet", "wan.0.pin="});
    EXPECT_EQ(shell("until [ -S /var/run/configd/daemon.sock ]; do sleep 0.02; done; /tmp/user/main"),
              "apn internet, pin \n");
}

// The packages of the README's first command are those that scripts/setup installs to build the library.
TEST(Readme, NamesThePackagesThatTheLibraryNeeds) {
    std::istringstream list(vxtest::readFile(source + "/scripts/packages"));
    std::string wanted = "apt-get install -y";
    for (std::string line; std::getline(list, line);) {
        std::istringstream words(line);
        std::string purpose;
        std::string package;
        if (words >> purpose >> package && purpose == "build") wanted += " " + package;
    }
    EXPECT_EQ(readmeBlocks("sh").at(0).substr(0, wanted.size() + 1), wanted + "\n");
}

TEST_F(Install, TheExamplesOfTheReadmeCompile) {
    shell("cmake --install " + build + " && ldconfig");
    for (const std::string language : {"c", "cpp"}) {
        ASSERT_EQ(readmeBlocks(language).size(), 1U) << language;
        const std::string code = readmeBlocks(language)[0];
        EXPECT_LE(std::count(code.begin(), code.end(), '\n'), 15) << language;
        vxtest::writeFile("/tmp/readme/main." + language, code);
        shell("cd /tmp/readme && " + std::string(language == "c" ? "cc -std=c99" : "c++ -std=c++11") +
              " -Wall -Wextra -Werror main." + language + " $(pkg-config --cflags --libs vxutils) -o main-" + language);
    }
}

}  // namespace
