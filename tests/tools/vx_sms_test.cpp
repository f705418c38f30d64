// SPDX-License-Identifier: MIT
// vx sms with a sending script and a real spool.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <csignal>
#include <filesystem>
#include <string>

#include "support/files.h"
#include "support/vx.h"

namespace {

namespace fs = std::filesystem;
using testing::HasSubstr;
using vxtest::Process;
using vxtest::vx;
using vxtest::vxCommand;
using vxtest::vxJson;
using vxtest::writeFile;

const std::string script = "/usr/local/sbin/send-sms";
const std::string spool = "/var/spool/sms/incoming";

class VxSms : public testing::Test {
protected:
    VxSms() {
        fs::remove_all(spool);
        vxtest::makeDirs(spool);
        fs::remove(script);
        fs::remove("/tmp/sent");
    }
    static void installScript(const std::string &body) {
        writeFile(script, "#!/bin/sh\n" + body + "\n");
        ::chmod(script.c_str(), 0755);
    }
    static void receive(const std::string &id, const std::string &text) {
        writeFile(spool + "/" + id, "From: +4930123\nReceived: 2026-11-15 08:40\n\n" + text);
    }
};

TEST_F(VxSms, SendHandsTheMessageToTheScript) {
    installScript("cat \"$1\" >/tmp/sent; rm \"$1\"");
    EXPECT_EQ(vx({"sms", "send", "+15550100", "link\nis down"}).status, 0);
    EXPECT_EQ(vxtest::readFile("/tmp/sent"), "To: +15550100\n\nlink\nis down\n");
    vxJson("sms-send", {"sms", "send", "+1", ""});
}

TEST_F(VxSms, SendFailsWithItsReason) {
    EXPECT_EQ(vx({"sms", "send", "+1", "x"}).err, "vx: sms send: " + script + ": No such file or directory\n");
    installScript("exit 3");
    EXPECT_EQ(vx({"sms", "send", "+1", "x"}).err, "vx: sms send: +1: " + script + " did not accept the message\n");
    // Where children are not waited for, their status is lost.
    EXPECT_EQ(vxtest::inChild([] {
                  ::signal(SIGCHLD, SIG_IGN);
                  return vxtest::becomeVx({"sms", "send", "+1", "x"});
              }),
              1);
    EXPECT_EQ(vx({"sms", "send", "+1\nTo: +2", "x"}).status, 2);
    EXPECT_EQ(vx({"sms", "send", "", "x"}).status, 2);
    EXPECT_EQ(vx({"sms", "send", "+1"}).status, 2);
}

TEST_F(VxSms, ListsShowsAndDeletes) {
    EXPECT_EQ(vx({"sms", "list"}).out, "");
    receive("m1", "all is well\nsecond");
    receive("b\nad", "x");
    EXPECT_EQ(vx({"sms", "list"}).status, 0);
    vxJson("sms-list", {"sms", "list"});
    EXPECT_EQ(vx({"sms", "show", "m1"}).out,
              "id=m1\nfrom=+4930123\nreceived=2026-11-15 08:40\ntext=all is well\\0012second\n");
    EXPECT_EQ(vxJson("sms-show", {"sms", "show", "m1"}),
              R"({"id":"m1","from":"+4930123","received":"2026-11-15 08:40","text":"all is well\nsecond"})"
              "\n");
    vxJson("sms-delete", {"sms", "delete", "m1"});
    EXPECT_EQ(vx({"sms", "list"}).out, "b\\0012ad\n");
    EXPECT_EQ(vx({"sms", "delete", "m1"}).err, "vx: sms delete: m1: No such file or directory\n");
    EXPECT_EQ(vx({"sms", "show", "m1"}).status, 1);
    writeFile(spool + "/broken", "no header");
    EXPECT_EQ(vx({"sms", "show", "broken"}).err, "vx: sms show: broken: the file is not a short message\n");
    for (const char *id : {"", ".", "..", "../x", "a/b"}) EXPECT_EQ(vx({"sms", "delete", id}).status, 2);
    fs::remove_all(spool);
    EXPECT_EQ(vx({"sms", "list"}).err, "vx: sms list: " + spool + ": No such file or directory\n");
    EXPECT_EQ(vx({"sms", "watch"}).status, 1);
}

TEST_F(VxSms, WatchPrintsEachMessageOnce) {
    receive("old", "x");
    Process watch(vxCommand({"sms", "watch"}));
    vxtest::waitForWatch(watch);
    receive("new1", "one");
    EXPECT_EQ(watch.readLine(), "new1");
    writeFile("/var/spool/sms/new2", "From: +1\n\ntwo");
    fs::rename("/var/spool/sms/new2", spool + "/new2");
    EXPECT_EQ(watch.readLine(), "new2");
    // Another mode or time makes no new message.
    for (const char *name : {"old", "new1", "new2"}) fs::permissions(spool + "/" + name, fs::perms::owner_all);
    receive("new4", "four");
    EXPECT_EQ(watch.readLine(), "new4");
    watch.signal(SIGTERM);
    EXPECT_EQ(watch.wait(), 0);
    const auto result = vx({"sms", "watch", "--for", "0.05"});
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.out + result.err, "");
    Process json(vxCommand({"-j", "sms", "watch", "--count", "1"}));
    vxtest::waitForWatch(json);
    receive("new3", "three");
    const std::string line = json.readLine();
    EXPECT_EQ(line, R"({"id":"new3","from":"+4930123","received":"2026-11-15 08:40","text":"three"})");
    EXPECT_EQ(vxtest::schemaErrors("sms-watch", line + "\n"), "");
    EXPECT_EQ(json.wait(), 0);
}

TEST_F(VxSms, WatchFailsWhenItsDirectoryHasGone) {
    Process watch(vxCommand({"sms", "watch"}));
    vxtest::waitForWatch(watch);
    fs::remove_all(spool);
    EXPECT_EQ(watch.readLine(), "vx: sms watch: " + spool + ": No such file or directory");
    EXPECT_EQ(watch.wait(), 1);
}

}  // namespace
