// SPDX-License-Identifier: MIT
// vx log and vx sysinfo on their real files.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vxutils/qxlog.h>

#include <algorithm>
#include <filesystem>
#include <string>

#include "support/files.h"
#include "support/vx.h"

namespace {

using testing::HasSubstr;
using testing::MatchesRegex;
using testing::StartsWith;
using vxtest::readFile;
using vxtest::vx;
using vxtest::vxJson;
using vxtest::writeFile;

const std::string log = "/var/log/qxlog";

class VxLog : public testing::Test {
protected:
    VxLog() {
        ::unlink(log.c_str());
        if (!vxtest::exists("/etc/fstab")) writeFile("/etc/fstab", "");
    }
};

TEST_F(VxLog, AddsAndShowsTheNewestFirst) {
    EXPECT_EQ(vx({"log", "show"}).out, "");
    EXPECT_EQ(vx({"log", "add", "3", "modem restarted"}).status, 0);
    EXPECT_EQ(vx({"log", "add", "--", "-1", "second: x"}).status, 0);
    EXPECT_THAT(vx({"log", "show"}).out,
                MatchesRegex("-1: [0-9-]* [0-9:]* second: x\n3: [0-9-]* [0-9:]* modem restarted\n"));
    EXPECT_EQ(vx({"log", "show"}).out, readFile(log));
    EXPECT_THAT(vxJson("log-show", {"log", "show"}),
                MatchesRegex(R"(\[\{"number":-1,"time":"[0-9: -]{16}","text":"second: x"\},.*)"
                             "\n"));
}

TEST_F(VxLog, LinesOfAnotherFormAreText) {
    writeFile(log, "3: 2026-11-15 08:40 ok\nfree text\n9: short\n\n");
    EXPECT_EQ(vxJson("log-show", {"log", "show"}),
              R"([{"number":3,"time":"2026-11-15 08:40","text":"ok"},{"number":null,"time":null,"text":"free text"},)"
              R"({"number":null,"time":null,"text":"9: short"},{"number":null,"time":null,"text":""}])"
              "\n");
}

TEST_F(VxLog, WhatIsNoTimeIsText) {
    for (const std::string entry : {"5: 0123456789abcdef text", "5: 2026-11-15T08:40 text",
                                    "5: 2026-11-15 08:4\xff text", "5: 2026-11-15 08:401text", "5: 2026-11-15 08:40"}) {
        writeFile(log, entry + "\n");
        EXPECT_THAT(vxJson("log-show", {"log", "show"}), StartsWith(R"([{"number":null,"time":null,"text":)")) << entry;
    }
    writeFile(log, "5: 2026-11-15 08:40 \n");
    EXPECT_EQ(vxJson("log-show", {"log", "show"}), R"([{"number":5,"time":"2026-11-15 08:40","text":""}])"
                                                   "\n");
}

// The library splits older lines of more than 1023 characters, and what follows would be an entry of its own.
TEST_F(VxLog, ALongTextForgesNoEntry) {
    const std::string forged = std::string(1003, 'x') + "9: 2026-01-01 00:00 forged";
    const auto result = vx({"log", "add", "1", forged});
    EXPECT_EQ(result.status, 2);
    EXPECT_THAT(result.err, HasSubstr("TEXT is longer than 992 bytes"));
    const std::string longest(992, 'x');
    const std::string escaped(248, '\x1b');
    EXPECT_EQ(vx({"log", "add", "--", "-2147483648", longest}).status, 0);
    EXPECT_EQ(vx({"log", "add", "--", "-2147483648", escaped}).status, 0);
    for (const std::string &text : {longest + "x", escaped + "\x1b", escaped + "\\", escaped + "\x9f"}) {
        EXPECT_EQ(vx({"log", "add", "1", text}).status, 2);
    }
    EXPECT_EQ(vx({"log", "add", "1", "next"}).status, 0);
    const std::string all = vx({"log", "show"}).out;
    EXPECT_EQ(std::count(all.begin(), all.end(), '\n'), 3) << all;
}

TEST_F(VxLog, ALogOfAnySizeIsShownWhole) {
    std::string text;
    for (int i = 0; i < 3000; ++i)
        text += "1: 2026-11-15 08:40 " + std::string(static_cast<size_t>(i % 90), 'x') + "\n";
    writeFile(log, text);
    EXPECT_EQ(vx({"log", "show"}).out, text);
}

TEST_F(VxLog, ClearEmptiesIt) {
    vxJson("log-add", {"log", "add", "1", "x"});
    vxJson("log-clear", {"log", "clear"});
    EXPECT_EQ(vx({"log", "show"}).out, "");
    EXPECT_TRUE(vxtest::exists(log));
}

TEST_F(VxLog, BadArgumentsAreWrongUsage) {
    for (const auto &words : {std::vector<std::string>{"add"},
                              {"add", "1"},
                              {"add", "x", "y"},
                              {"add", "1", ""},
                              {"add", "1", "a\nb"},
                              {"add", "2147483648", "x"},
                              {"show", "x"},
                              {"clear", "x"}}) {
        std::vector<std::string> all{"log"};
        all.insert(all.end(), words.begin(), words.end());
        EXPECT_EQ(vx(all).status, 2) << words.back();
    }
    EXPECT_FALSE(vxtest::exists(log));
}

TEST_F(VxLog, WhatTheLibrarySaysComesOnOneLine) {
    if (!vxtest::hasOtherUsers()) GTEST_SKIP() << "a box made by an ordinary user has no other";
    qxlog(1, "root's");
    for (const auto &words : {std::vector<std::string>{"log", "add", "1", "x"}, {"log", "clear"}}) {
        const auto result = vx(words, {.user = 65534});
        EXPECT_EQ(result.status, 1);
        EXPECT_THAT(result.err, MatchesRegex("vx: log [a-z]*: /var/log/qxlog: .*Permission denied\n"));
    }
}

TEST_F(VxLog, AFullDiskIsAFailure) {
    if (::mount("small", "/var/log", "tmpfs", 0, "size=4k,nr_inodes=1") != 0) GTEST_SKIP() << "no mount in this box";
    const auto result = vx({"log", "add", "1", "x"});
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.err, "vx: log add: /var/log/qxlog: open: No space left on device\n");
    ::umount("/var/log");
}

// ---- sysinfo

const std::string info = "/etc/default/system-info";

TEST(VxSysinfo, PrintsAllOrSome) {
    writeFile(info, "# comment\nPRODUCT=\"QX 310\"\nREVISION=7\nODD=caf\xe9\n");
    EXPECT_EQ(vx({"sysinfo"}).out, "PRODUCT=QX 310\nREVISION=7\nODD=caf\xe9\n");
    EXPECT_EQ(vx({"sysinfo", "PRODUCT"}).out, "QX 310\n");
    EXPECT_EQ(vx({"sysinfo", "REVISION", "PRODUCT"}).out, "REVISION=7\nPRODUCT=QX 310\n");
    EXPECT_EQ(vxJson("sysinfo", {"sysinfo", "REVISION"}), "[{\"name\":\"REVISION\",\"value\":\"7\"}]\n");
    vxJson("sysinfo", {"sysinfo"});
    EXPECT_EQ(vx({"sysinfo", "PRODUCT", "NONE"}).err, "vx: sysinfo: NONE: not in " + info + "\n");
    EXPECT_EQ(vx({"sysinfo", "PRODUCT", "NONE"}).out, "");
}

TEST(VxSysinfo, FailuresAreNamed) {
    ::unlink(info.c_str());
    EXPECT_EQ(vx({"sysinfo"}).err, "vx: sysinfo: " + info + ": No such file or directory\n");
    vxtest::makeDirs(info);
    EXPECT_EQ(vx({"sysinfo"}).err, "vx: sysinfo: " + info + ": is a directory\n");
    ::rmdir(info.c_str());
    ::mkfifo(info.c_str(), 0644);
    EXPECT_EQ(vx({"sysinfo"}, {.alarm_s = 20}).err, "vx: sysinfo: " + info + ": is a FIFO\n");
    ::unlink(info.c_str());
    std::string many;
    for (int i = 0; i < 257; ++i) many += "V" + std::to_string(i) + "=1\n";
    writeFile(info, many);
    EXPECT_THAT(vx({"sysinfo"}).err, HasSubstr("more than 256 variables"));
}

}  // namespace
