// SPDX-License-Identifier: MIT
// vx config against the virtual gateway's configuration daemon and real files.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <string>

#include "support/configd.h"
#include "support/files.h"
#include "support/vx.h"

namespace {

using testing::HasSubstr;
using testing::StartsWith;
using vxtest::vx;
using vxtest::vxJson;

const std::string directory = "/var/run/configd";

class VxConfig : public testing::Test {
protected:
    VxConfig() {
        std::filesystem::remove_all(directory);
        vxtest::makeDirs(directory);
    }
    // Sockets that a client left behind.
    static int leftSockets() {
        int count = 0;
        for (const auto &entry : std::filesystem::directory_iterator(directory)) {
            count += entry.path().filename().string().rfind("client.", 0) == 0 ? 1 : 0;
        }
        return count;
    }
    ~VxConfig() override { EXPECT_EQ(leftSockets(), 0); }
};

TEST_F(VxConfig, PrintsOneValueAlone) {
    const vxtest::Configd daemon({"wan.apn=internet", "wan.pin="});
    const auto result = vx({"config", "get", "wan.apn"});
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.out, "internet\n");
    EXPECT_EQ(result.err, "");
}

TEST_F(VxConfig, PrintsSeveralValuesAsPairsInTheOrderOfTheKeys) {
    const vxtest::Configd daemon({"a=1", "b=x y = z"});
    EXPECT_EQ(vx({"config", "get", "b", "a", "b"}).out, "b=x y = z\na=1\nb=x y = z\n");
}

TEST_F(VxConfig, AnEmptyValueIsASuccess) {
    const vxtest::Configd daemon({"a="});
    const auto result = vx({"config", "get", "a"});
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.out, "\n");
}

TEST_F(VxConfig, GetIsValidJson) {
    const vxtest::Configd daemon({"wan.apn=in\"ter\\net", "latin=caf\xe9 \\ "});
    EXPECT_EQ(vxJson("config-get", {"config", "get", "wan.apn"}),
              "[{\"key\":\"wan.apn\",\"value\":\"in\\\"ter\\\\net\"}]\n");
    EXPECT_EQ(vxJson("config-get", {"config", "get", "latin"}),
              R"([{"key":"latin","value":{"escaped":"caf\\0351 \\0134 "}}])"
              "\n");
}

TEST_F(VxConfig, AMissingDaemonIsNamed) {
    const auto result = vx({"config", "get", "wan.apn"});
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.out, "");
    EXPECT_EQ(result.err,
              "vx: config get: wan.apn: no configuration daemon at /var/run/configd/daemon.sock: "
              "No such file or directory\n");
}

TEST_F(VxConfig, ADaemonThatDiedIsNamed) {
    vxtest::Configd daemon;
    daemon.die();
    const auto result = vx({"config", "set", "a=1"});
    EXPECT_EQ(result.status, 1);
    EXPECT_THAT(result.err, HasSubstr("Connection refused"));
}

TEST_F(VxConfig, AMissingDirectoryIsNamed) {
    std::filesystem::remove_all(directory);
    const auto result = vx({"config", "get", "a"});
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.err, "vx: config get: /var/run/configd: No such file or directory\n");
    vxtest::makeDirs(directory);
}

TEST_F(VxConfig, ADirectoryThatTheUserMayNotWriteIsNamed) {
    if (!vxtest::hasOtherUsers()) GTEST_SKIP() << "a box made by an ordinary user has no other";
    const vxtest::Configd daemon({"a=1"});
    const auto result = vx({"config", "get", "a"}, {.user = 65534});
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.err, "vx: config get: /var/run/configd: Permission denied\n");
}

// One test for both, because each waits for 10 s.
TEST_F(VxConfig, NoAnswerWithinTenSecondsIsAFailureWithoutOutput) {
    vxtest::Configd daemon({"a=1", "b=2"});
    daemon.tell("mute b");
    const auto result = vx({"-j", "config", "get", "a", "b"});
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.out, "");
    EXPECT_EQ(result.err, "vx: config get: b: no answer from the configuration daemon within 10 s\n");
}

TEST_F(VxConfig, ASignalLeavesNoSocketBehind) {
    vxtest::Configd daemon({"a=1"});
    daemon.tell("silent");
    for (const int signal : {SIGINT, SIGTERM, SIGHUP, SIGQUIT, SIGALRM, SIGUSR1, SIGUSR2}) {
        vxtest::Process process(vxtest::vxCommand({"config", "get", "a"}));
        ASSERT_TRUE(vxtest::eventually([] { return leftSockets() == 1; }));
        process.signal(signal);
        EXPECT_EQ(process.wait(), 128 + signal);
        EXPECT_EQ(leftSockets(), 0);
    }
}

TEST_F(VxConfig, SetWritesAndCommits) {
    vxtest::Configd daemon({"a=1"});
    const auto result = vx({"config", "set", "a=2", "b=x = y "});
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.out + result.err, "");
    EXPECT_EQ(daemon.get("a"), "2");
    EXPECT_EQ(daemon.get("b"), "x = y ");
    daemon.tell("restart");
    EXPECT_EQ(daemon.get("a"), "2");
}

TEST_F(VxConfig, WithoutACommitTheChangeWaits) {
    vxtest::Configd daemon({"a=1"});
    EXPECT_EQ(vxJson("config-set", {"config", "set", "--no-commit", "a=2"}), "{\"done\":true}\n");
    daemon.tell("restart");
    EXPECT_EQ(daemon.get("a"), "1");
    EXPECT_EQ(vx({"config", "set", "a=3", "--no-commit"}).status, 0);
    vxJson("config-commit", {"config", "commit"});
    daemon.tell("restart");
    EXPECT_EQ(daemon.get("a"), "3");
}

TEST_F(VxConfig, SetAsksAgainWhileTheDaemonIsBusy) {
    vxtest::Configd daemon({"a=1"});
    daemon.tell("busy 3");
    EXPECT_EQ(vx({"config", "set", "a=2"}).status, 0);
    EXPECT_EQ(daemon.requests(), 5);
    daemon.tell("restart");
    EXPECT_EQ(daemon.get("a"), "2");
}

TEST_F(VxConfig, ABusyDaemonEndsTheCommit) {
    vxtest::Configd daemon({"a=1"});
    daemon.tell("busy");
    for (const auto &words : {std::vector<std::string>{"config", "commit"},
                              {"config", "commit", "--wait", "0.3"},
                              {"config", "set", "--wait=0", "a=2"}}) {
        const auto result = vx(words);
        EXPECT_EQ(result.status, 1);
        EXPECT_THAT(result.err, HasSubstr("busy"));
    }
}

TEST_F(VxConfig, LimitsOfKeysAndValues) {
    vxtest::Configd daemon;
    const std::string key(255, 'k');
    const std::string value(1023, 'v');
    EXPECT_EQ(vx({"config", "set", key + "=" + value}).status, 0);
    EXPECT_EQ(vx({"config", "get", key}).out, value + "\n");
    for (const auto &words : {std::vector<std::string>{"get", key + "k"},
                              {"get", ""},
                              {"get", "a=b"},
                              {"get", "a\nb"},
                              {"set", key + "k=1"},
                              {"set", "a=" + value + "v"},
                              {"set", "a"},
                              {"set", "=1"},
                              {"set", "a=1\nb=2"},
                              {"set"},
                              {"get"},
                              {"commit", "x"},
                              {"commit", "--wait", "-1"},
                              {"set", "--file", "/dev/null", "a=1"},
                              {"list"},
                              {"get", "--bogus", "a"}}) {
        std::vector<std::string> all{"config"};
        all.insert(all.end(), words.begin(), words.end());
        const auto result = vx(all);
        EXPECT_EQ(result.status, 2) << words.back();
        EXPECT_EQ(result.out, "");
        EXPECT_THAT(result.err, HasSubstr("\nusage: vx config " + words[0]));
    }
    EXPECT_EQ(daemon.requests(), 3) << "wrong usage does not reach the daemon";
}

TEST_F(VxConfig, ARequestThatIsTooLargeIsRefusedWhole) {
    vxtest::Configd daemon;
    std::vector<std::string> words{"config", "set"};
    for (int i = 0; i < 17; ++i) words.push_back("key" + std::to_string(i) + "=" + std::string(1000, 'v'));
    const auto result = vx(words);
    EXPECT_EQ(result.status, 1);
    EXPECT_THAT(result.err, HasSubstr("more than fits"));
    EXPECT_EQ(daemon.requests(), 0);
}

TEST_F(VxConfig, AWrongAnswerIsNoSuccess) {
    vxtest::Configd daemon({"a=1"});
    daemon.tell("wrong");
    const auto result = vx({"config", "set", "a=2"});
    EXPECT_EQ(result.status, 1);
    EXPECT_THAT(result.err, HasSubstr("does not confirm"));
}

// ---- files

TEST_F(VxConfig, ReadsAFileWithItsIncludes) {
    vxtest::writeFile("/tmp/conf/main.conf", "include more.conf\nwan.mtu = 1492\n# comment\nempty=\n");
    vxtest::writeFile("/tmp/conf/more.conf", "wan.mtu=1500\nname=a=b c\n");
    EXPECT_EQ(vx({"config", "--file", "/tmp/conf/main.conf", "get", "wan.mtu"}).out, "1492\n");
    EXPECT_EQ(vx({"config", "get", "--file=/tmp/conf/main.conf", "name", "wan.mtu"}).out, "name=a=b c\nwan.mtu=1492\n");
    EXPECT_EQ(vx({"config", "list", "--file", "/tmp/conf/main.conf"}).out, "wan.mtu=1492\nname=a=b c\n");
    EXPECT_EQ(vxJson("config-list", {"config", "list", "--file", "/tmp/conf/more.conf"}),
              R"([{"key":"wan.mtu","value":"1500"},{"key":"name","value":"a=b c"}])"
              "\n");
    vxtest::writeFile("/tmp/conf/empty.conf", "");
    EXPECT_EQ(vxJson("config-list", {"config", "list", "--file", "/tmp/conf/empty.conf"}), "[]\n");
}

TEST_F(VxConfig, AKeyThatAFileDoesNotHaveIsAFailure) {
    vxtest::writeFile("/tmp/conf/one.conf", "a=1\n");
    const auto result = vx({"config", "--file", "/tmp/conf/one.conf", "get", "a", "b"});
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.out, "");
    EXPECT_EQ(result.err, "vx: config get: b: not in /tmp/conf/one.conf\n");
}

TEST_F(VxConfig, ADirectoryIsNotAFile) {
    const auto result = vx({"config", "--file", "/tmp", "list"});
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.err, "vx: config list: /tmp: Is a directory\n");
    // A pipe is read like a file.
    EXPECT_EQ(vxtest::vxScript("vx config --file <(echo a=1) get a").out, "1\n");
}

TEST_F(VxConfig, FilesThatCannotBeReadAreFailures) {
    EXPECT_EQ(vx({"config", "--file", "/tmp/none", "list"}).err,
              "vx: config list: /tmp/none: No such file or directory\n");
    vxtest::writeFile("/tmp/conf/broken.conf", "include none.conf\n");
    const auto result = vx({"config", "--file", "/tmp/conf/broken.conf", "list"});
    EXPECT_EQ(result.status, 1);
    EXPECT_THAT(result.err, StartsWith("vx: config list: /tmp/conf/broken.conf: cannot be read"));
}

}  // namespace
