// SPDX-License-Identifier: MIT
// The gateway and the machine around it: nothing of the demo or of a program in it reaches a file of the machine. The
// box of this test is the machine here; its whole file tree is recorded before and after.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <filesystem>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

#include "support/files.h"
#include "support/process.h"

namespace {

namespace fs = std::filesystem;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

// Path and what there is to know about it: type, mode, owner, size, times of change, target of a link, and the content
// of files that are not the system's own (whose time of change would tell).
using Tree = std::map<std::string, std::string>;

std::string describe(const fs::directory_entry &entry) {
    const std::string path = entry.path().string();
    struct stat about {};
    if (::lstat(path.c_str(), &about) == -1) return "gone";
    std::ostringstream text;
    text << std::oct << about.st_mode << std::dec << ' ' << about.st_uid << ' ' << about.st_gid << ' ' << about.st_size
         << ' ' << about.st_mtim.tv_sec << '.' << about.st_mtim.tv_nsec << ' ' << about.st_ctim.tv_sec << '.'
         << about.st_ctim.tv_nsec;
    if (S_ISLNK(about.st_mode)) text << " -> " << fs::read_symlink(entry.path()).string();
    if (S_ISREG(about.st_mode) && path.rfind("/usr/", 0) != 0) text << " content " << vxtest::readFile(path);
    return text.str();
}

// Left out: what the kernel makes up, and the trees of source and build, which this box cannot change either.
Tree recordMachine() {
    static const std::set<std::string> others{"/proc", "/sys", "/.sys", "/dev", VXTEST_SOURCE_DIR, VXTEST_BUILD_DIR};
    Tree tree;
    for (auto entry = fs::recursive_directory_iterator("/"); entry != fs::recursive_directory_iterator(); ++entry) {
        if (others.count(entry->path().string()) != 0) {
            entry.disable_recursion_pending();
            continue;
        }
        tree[entry->path().string()] = describe(*entry);
    }
    return tree;
}

std::vector<std::string> differences(const Tree &before, const Tree &after) {
    std::vector<std::string> found;
    for (const auto &[path, about] : before) {
        const auto now = after.find(path);
        if (now == after.end()) {
            found.push_back("removed: " + path);
        } else if (now->second != about) {
            found.push_back("changed: " + path);
        }
    }
    for (const auto &[path, about] : after) {
        if (before.count(path) == 0) found.push_back("added: " + path);
    }
    return found;
}

// Says where it runs and tries to write wherever it or the gateway might reach the machine.
const std::string program = R"sh(#!/bin/sh
echo "running $0"
for dir in / /home/me "/srv/my programs" /tmp /tmp/gateway /tmp/status /var/log /data /mnt "$(dirname "$0")" "$OLDPWD" .; do
  echo spoilt >"$dir/note" || :
  ls "$dir" | sed "s|^|seen in $dir: |"
done 2>/dev/null
echo spoilt >>/var/log/qxlog
rm -rf /tmp/gateway /tmp/status /usr/bin/env /etc/passwd /home /srv
exit 7
)sh";

class Outside : public testing::Test {
protected:
    Outside() {
        for (const char *dir : {"/home/me", "/srv/my programs", "/tmp/gateway", "/tmp/status", "/var/log", "/data"}) {
            vxtest::makeDirs(dir);
            vxtest::writeFile(std::string(dir) + "/mine", "precious");
        }
        vxtest::writeFile("/var/log/qxlog", "precious");
        EXPECT_EQ(::chdir("/data"), 0);
        EXPECT_EQ(::setenv("HOME", "/home/me", 1), 0);
    }

    static void install(const std::string &path) {
        vxtest::writeFile(path, program);
        ASSERT_EQ(::chmod(path.c_str(), 0755), 0);
    }

    static vxtest::Output demo(const std::vector<std::string> &arguments) {
        std::vector<std::string> command{VXTEST_SOURCE_DIR "/scripts/demo", "--build", VXTEST_BUILD_DIR};
        command.insert(command.end(), arguments.begin(), arguments.end());
        return vxtest::run(command);
    }

    // Runs the programs as the arguments say and expects that the machine stays as it is.
    static void expectNothingTouched(const std::vector<std::vector<std::string>> &runs) {
        const Tree before = recordMachine();
        ASSERT_GT(before.size(), 1000U) << "a record of the whole machine";
        for (const auto &arguments : runs) {
            const auto output = demo(arguments);
            EXPECT_EQ(output.status, 7) << testing::PrintToString(arguments) << output.text;
            EXPECT_THAT(output.text, HasSubstr("running /program/")) << testing::PrintToString(arguments);
        }
        EXPECT_THAT(differences(before, recordMachine()), IsEmpty());
    }
};

TEST_F(Outside, TheRecordShowsEveryKindOfChange) {
    vxtest::writeFile("/var/log/gone", "");
    vxtest::writeFile("/usr/lib/old", "12345");
    const Tree before = recordMachine();
    EXPECT_THAT(differences(before, recordMachine()), IsEmpty());
    vxtest::writeFile("/usr/lib/old", "67890");
    vxtest::writeFile("/home/me/new", "");
    ::unlink("/var/log/gone");
    const auto found = differences(before, recordMachine());
    for (const char *one : {"removed: /var/log/gone", "changed: /usr/lib/old", "added: /home/me/new"}) {
        EXPECT_THAT(found, testing::Contains(one));
    }
}

TEST_F(Outside, TheWholeDemoTouchesNothing) {
    const Tree before = recordMachine();
    const auto output = demo({});
    EXPECT_EQ(output.status, 0) << output.text;
    EXPECT_THAT(output.text, HasSubstr("That was the library at work."));
    EXPECT_THAT(differences(before, recordMachine()), IsEmpty());
}

TEST_F(Outside, ProgramsThatLieWhereTheGatewayWorksTouchNothing) {
    for (const char *path : {"/tmp/prog", "/var/log/prog", "/prog"}) install(path);
    expectNothingTouched({{"--run", "/tmp/prog"},
                          {"--with-directory", "--run", "/tmp/prog"},
                          {"--run", "/var/log/prog"},
                          {"--with-directory", "--run", "/var/log/prog"},
                          {"--run", "/prog"},
                          {"--with-directory", "--run", "/prog"}});
}

TEST_F(Outside, ProgramsOfTheUsersOwnDirectoriesTouchNothing) {
    for (const char *path : {"/home/me/prog", "/srv/my programs/my prog", "/data/here"}) install(path);
    ASSERT_EQ(::symlink("/srv/my programs/my prog", "/tmp/link"), 0);
    expectNothingTouched({{"--run", "/home/me/prog"},
                          {"--run", "/srv/my programs/my prog"},
                          {"--with-directory", "--run", "/srv/my programs/my prog"},
                          {"--run", "/tmp/link"},
                          {"--run", "./here"}});
}

TEST_F(Outside, AProgramSeesNeitherTheUsersFilesNorTheGatewayTheirs) {
    install("/home/me/prog");
    const auto output = demo({"--run", "/home/me/prog"});
    EXPECT_THAT(output.text, Not(HasSubstr("mine")));
    EXPECT_THAT(output.text, HasSubstr("seen in /program: prog\n"));
    EXPECT_THAT(demo({"--with-directory", "--run", "/home/me/prog"}).text, HasSubstr("seen in /program: mine\n"));
}

TEST_F(Outside, OnlyASharedDirectoryCanBeWrittenTo) {
    const Tree before = recordMachine();
    const auto output = demo({"--share", "/srv/my programs", "--run", "sh", "-c",
                              "cat '/share/srv/my programs/mine'; echo x >'/share/srv/my programs/new'"});
    EXPECT_EQ(output.text, "precious");
    EXPECT_EQ(output.status, 0);
    EXPECT_THAT(differences(before, recordMachine()),
                testing::ElementsAre("changed: /srv/my programs", "added: /srv/my programs/new"));
}

TEST_F(Outside, WhatIsReadOnlyStaysSoForRootInTheGateway) {
    install("/srv/my programs/prog");
    const Tree before = recordMachine();
    const auto output = demo({"--with-directory", "--run", "/srv/my programs/prog"});
    const auto attack =
        demo({"--with-directory", "--run", "sh", "-c",
              "mount -o remount,rw,bind /gateway/demo; umount /gateway/demo; echo x >/gateway/demo/new; "
              "mknod /tmp/disk b 259 0; echo 1 >/proc/sys/kernel/panic; true"});
    EXPECT_EQ(attack.status, 0) << attack.text;
    for (const char *refusal : {"mknod: /tmp/disk: Operation not permitted", "/proc/sys/kernel/panic: Read-only"}) {
        EXPECT_THAT(attack.text, HasSubstr(refusal));
    }
    EXPECT_FALSE(vxtest::exists(VXTEST_SOURCE_DIR "/demo/new"));
    EXPECT_THAT(differences(before, recordMachine()), IsEmpty());
}

TEST_F(Outside, AnOrdinaryUsersProgramRunsAndTouchesNothing) {
    // Devices as a device manager leaves them, and kernel files that no box has covered yet.
    vxtest::makeDirs("/tmp/dev");
    ASSERT_EQ(::mount("tmpfs", "/tmp/dev", "tmpfs", 0, "mode=0755"), 0);
    for (const auto &[name, minor] : {std::pair("net/tun", 200U), std::pair("fuse", 229U)}) {
        const std::string node = "/tmp/dev/" + fs::path(name).filename().string();
        ASSERT_EQ(::mknod(node.c_str(), S_IFCHR | 0666, makedev(10, minor)), 0);
        ASSERT_EQ(::chmod(node.c_str(), 0666), 0);
        ASSERT_EQ(::mount(node.c_str(), (std::string("/dev/") + name).c_str(), nullptr, MS_BIND, nullptr), 0);
    }
    for (const char *cover : {"/proc/sysrq-trigger", "/sys/power"}) ::umount2(cover, MNT_DETACH);
    install("/srv/my programs/prog");
    ASSERT_EQ(::chmod("/srv/my programs", 0777), 0);
    const Tree before = recordMachine();
    const auto output =
        vxtest::run({"setpriv", "--reuid=1000", "--regid=1000", "--clear-groups", VXTEST_SOURCE_DIR "/scripts/demo",
                     "--build", VXTEST_BUILD_DIR, "--with-directory", "--run", "/srv/my programs/prog"});
    EXPECT_EQ(output.status, 7) << output.text;
    EXPECT_THAT(output.text, HasSubstr("running /program/prog"));
    EXPECT_THAT(differences(before, recordMachine()), IsEmpty());
}

// A program's own libraries are not needed on the machine: both names are in the gateway's /usr/lib.
TEST_F(Outside, TheGatewayHasTheLibraryWhereProgramsLookForIt) {
    const auto output = demo({"--run", "sh", "-c",
                              "ls /usr/lib/libvxutils.so.1 /usr/lib/libvxutils.so.1.0.0; "
                              "ldd \"$(command -v led_daemon)\" | sed -n 's/.*=> \\(.*libvxutils[^ ]*\\).*/\\1/p'"});
    EXPECT_THAT(output.text, testing::MatchesRegex("/usr/lib/libvxutils.so.1\n/usr/lib/libvxutils.so.1.0.0\n"
                                                   "(/usr)?/lib/libvxutils.so.1\n"));
}

TEST_F(Outside, TheDemoSaysWhatIsWrongWithItsArguments) {
    vxtest::writeFile("/data/text", "no program");
    const auto refused = [](const std::vector<std::string> &arguments, int status, const char *message) {
        const auto output = demo(arguments);
        EXPECT_EQ(output.status, status) << output.text;
        EXPECT_THAT(output.text, HasSubstr(message));
    };
    refused({"--run", "/no/such/prog"}, 127, "/no/such/prog: not found");
    refused({"--run", "no-such-prog"}, 127, "no-such-prog: not found");
    refused({"--run", "/data/text"}, 126, "/data/text: not a program that can be run");
    refused({"--run", "/data"}, 126, "/data: not a program that can be run");
    refused({"--run"}, 2, "--run needs a program");
    refused({"--share", "/no/such/dir", "--run", "true"}, 2, "/no/such/dir is not a directory");
    refused({"--only", "no-such-chapter"}, 2, "no chapter's file name holds 'no-such-chapter':\n00-");
    refused({"--frob"}, 2, "unknown option --frob");
}

TEST_F(Outside, TheDemoIsFoundThroughASymbolicLink) {
    ASSERT_EQ(::symlink(VXTEST_SOURCE_DIR "/scripts/demo", "/tmp/demo"), 0);
    ASSERT_EQ(::symlink("../tmp/demo", "/home/demo-too"), 0);
    const auto output = vxtest::run({"/home/demo-too", "--build", VXTEST_BUILD_DIR, "--only", "00-"});
    EXPECT_EQ(output.status, 0) << output.text;
    EXPECT_THAT(output.text, HasSubstr("A gateway in a throwaway root"));
}

TEST_F(Outside, TextIsFoldedAtTheTerminalsWidth) {
    const auto output = vxtest::run(
        {"script", "-qec", "stty cols 50; " VXTEST_SOURCE_DIR "/scripts/demo --build " VXTEST_BUILD_DIR " --only 00-",
         "/dev/null"});
    EXPECT_EQ(output.status, 0) << output.text;
    std::istringstream lines(output.text);
    size_t longest = 0;
    for (std::string line; std::getline(lines, line);) {
        if (line.find("==") == std::string::npos) longest = std::max(longest, line.find_last_not_of("\r ") + 1);
    }
    EXPECT_LE(longest, 50U) << output.text;
    EXPECT_GT(longest, 30U) << output.text;
}

// A user's own directory may hold a link to a script, and cd may search directories of the user's choice.
TEST(Scripts, ExplainThemselvesFromAnyDirectoryAndThroughALink) {
    for (const std::string name : {"abi", "bench", "board", "format", "fresh", "gateways", "models", "package", "soak",
                                   "sysroot", "test", "torture"}) {
        const std::string script = VXTEST_SOURCE_DIR "/scripts/" + name;
        ASSERT_EQ(::symlink(script.c_str(), ("/tmp/vx-" + name).c_str()), 0);
        for (const std::string &command :
             {"cd / && /tmp/vx-" + name, "cd " VXTEST_SOURCE_DIR " && CDPATH=.:/tmp scripts/" + name,
              "cd " VXTEST_SOURCE_DIR "/scripts && ./" + name}) {
            const auto output = vxtest::run({"bash", "-c", command + " --no-such-option"});
            EXPECT_EQ(output.status, 2) << command << "\n" << output.text;
            EXPECT_THAT(output.text, testing::ContainsRegex("(^|\n)scripts/" + name + "[ :]")) << command;
        }
    }
}

// A program reads "ten" as 0: it would do nothing and find nothing.
TEST(Scripts, RefuseWordsWhereTheyNeedANumber) {
    for (const std::string command : {"models --steps", "models --seed", "torture --sample", "torture --seed",
                                      "torture --rounds", "soak --minutes", "test --minutes"}) {
        for (const char *value : {"", " ten", " 10k"}) {
            const auto output = vxtest::run({"bash", "-c", VXTEST_SOURCE_DIR "/scripts/" + command + value});
            EXPECT_EQ(output.status, 2) << command << value << "\n" << output.text;
            EXPECT_THAT(output.text, HasSubstr("needs a number")) << command << value;
        }
    }
}

TEST(Scripts, NameWhatTheyDoNotKnowBeforeAnythingIsInstalled) {
    for (const auto &[command, message] :
         {std::pair("test no-such-stage", "test: no stage 'no-such-stage'"),
          std::pair("bench no-such-family", "bench: no benchmark of 'no-such-family'")}) {
        const auto output = vxtest::run({"bash", "-c", std::string(VXTEST_SOURCE_DIR "/scripts/") + command});
        EXPECT_EQ(output.status, 2) << output.text;
        EXPECT_EQ(output.text.rfind(message, 0), 0U) << output.text;
    }
}

// As root in another user's tree, where git refuses to name the files.
TEST(Scripts, FormatFailsWhereGitNamesNoFiles) {
    vxtest::writeFile("/tmp/tree/.git", "gitdir: /no/such/directory");
    vxtest::writeFile("/tmp/tree/scripts/format", vxtest::readFile(VXTEST_SOURCE_DIR "/scripts/format"));
    const auto output = vxtest::run({"bash", "-c", "bash /tmp/tree/scripts/format --check </dev/null"});
    EXPECT_NE(output.status, 0) << output.text;
}

// The demo's build has no tests; README.md names it first.
TEST(Scripts, ConfigureTheTestsAlsoWhereTheDemoHasConfiguredTheBuild) {
    vxtest::makeDirs("/tmp/tree");
    vxtest::run({"cp", "-r", VXTEST_SOURCE_DIR "/scripts", "/tmp/tree/scripts"});
    vxtest::writeFile("/tmp/tree/build/dev/build.ninja", "");
    vxtest::writeFile("/tmp/stand-in/cmake", "#!/bin/sh\necho \"cmake $*\" >&2\nexit 1\n");
    ASSERT_EQ(::chmod("/tmp/stand-in/cmake", 0755), 0);
    for (const char *script : {"models", "soak", "torture --kill", "torture --power", "gateways"}) {
        const auto output =
            vxtest::run({"bash", "-c", std::string("PATH=/tmp/stand-in:$PATH; bash /tmp/tree/scripts/") + script});
        EXPECT_NE(output.status, 0) << script;
        EXPECT_THAT(output.text, HasSubstr("cmake --preset dev\n")) << script;
    }
}

TEST(Scripts, ShowWhyABuildFailed) {
    vxtest::makeDirs("/tmp/tree/bench");
    vxtest::writeFile("/tmp/tree/bench/list_bench.cpp", "");
    vxtest::run({"cp", "-r", VXTEST_SOURCE_DIR "/scripts", "/tmp/tree/scripts"});
    vxtest::writeFile("/tmp/tree/scripts/setup", "");
    vxtest::writeFile("/tmp/stand-in/cmake", "#!/bin/sh\ncase $1 in --build) echo error: why; exit 1 ;; esac\n");
    ASSERT_EQ(::chmod("/tmp/stand-in/cmake", 0755), 0);
    for (const char *script : {"bash /tmp/tree/scripts/bench list", "bash /tmp/tree/scripts/gateways",
                               "python3 /tmp/tree/scripts/coverage list"}) {
        const auto output = vxtest::run({"bash", "-c", std::string("PATH=/tmp/stand-in:$PATH; ") + script});
        EXPECT_EQ(output.status, 1) << script;
        EXPECT_THAT(output.text, HasSubstr("error: why\n")) << script;
        EXPECT_THAT(output.text, HasSubstr("the build failed")) << script;
    }
}

TEST(Scripts, TheDocumentationLeavesOtherFilesAlone) {
    const std::string docs = "/usr/bin/python3 " VXTEST_SOURCE_DIR "/scripts/docs ";
    vxtest::writeFile("/tmp/site/other.txt", "precious");
    const auto site = vxtest::run({"bash", "-c", docs + "--html /tmp/site"});
    EXPECT_EQ(site.status, 1) << site.text;
    EXPECT_THAT(site.text, HasSubstr("/tmp/site has files that are not of a site made here"));
    EXPECT_EQ(vxtest::readFile("/tmp/site/other.txt"), "precious");

    for (const char *page : {"man3/other.3", "man3/gone.3vx", "man7/other.7"}) {
        vxtest::writeFile(std::string("/tmp/pages/") + page, "");
    }
    const auto pages = vxtest::run({"bash", "-c", docs + "--man /tmp/pages"});
    EXPECT_EQ(pages.status, 0) << pages.text;
    EXPECT_TRUE(vxtest::exists("/tmp/pages/man3/adc.3vx"));
    EXPECT_TRUE(vxtest::exists("/tmp/pages/man3/other.3"));
    EXPECT_TRUE(vxtest::exists("/tmp/pages/man7/other.7"));
    EXPECT_FALSE(vxtest::exists("/tmp/pages/man3/gone.3vx")) << "the page of a family that is gone";
}

TEST(Scripts, TheManualPagesAreTheSameInEveryLocale) {
    const std::string make = " /usr/bin/python3 " VXTEST_SOURCE_DIR "/scripts/docs --man /tmp/";
    const auto output = vxtest::run(
        {"bash", "-ec",
         "localedef -i en_US -f ISO-8859-1 /tmp/en_US.ISO-8859-1 || [ -d /tmp/en_US.ISO-8859-1 ]; LC_ALL=C.UTF-8" +
             make + "utf8; LOCPATH=/tmp LC_ALL=en_US.ISO-8859-1" + make + "latin1; diff -r /tmp/utf8 /tmp/latin1"});
    EXPECT_EQ(output.status, 0) << output.text.substr(0, 1000);
}

}  // namespace
