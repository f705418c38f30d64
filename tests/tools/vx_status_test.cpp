// SPDX-License-Identifier: MIT
// vx status on real files, links and FIFOs.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vxutils/statusinterface.h>

#include <chrono>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>

#include "support/files.h"
#include "support/vx.h"

namespace {

namespace fs = std::filesystem;
using testing::ElementsAre;
using testing::HasSubstr;
using vxtest::Process;
using vxtest::readFile;
using vxtest::vx;
using vxtest::vxCommand;
using vxtest::vxJson;
using vxtest::writeFile;

const std::string tree = "/tmp/status";

mode_t modeOf(const std::string &path) {
    struct stat status {};
    return ::stat(path.c_str(), &status) == 0 ? status.st_mode & 07777 : 0;
}

class VxStatus : public testing::Test {
protected:
    VxStatus() {
        for (const char *root : {"/tmp/status", "/nvstatus"}) {
            fs::remove_all(root);
            vxtest::makeDirs(root);
        }
        ::umask(022);
    }
};

// ---- get

TEST_F(VxStatus, GetPrintsAValueWithOneLineEnd) {
    writeFile(tree + "/wan/link", "up");
    writeFile(tree + "/wan/address", "192.0.2.1\n");
    EXPECT_EQ(vx({"status", "get", "wan/link"}).out, "up\n");
    EXPECT_EQ(vx({"status", "get", "/wan/address"}).out, "192.0.2.1\n");
    EXPECT_EQ(vx({"status", "get", "wan/address", "wan/link"}).out, "wan/address=192.0.2.1\nwan/link=up\n");
}

TEST_F(VxStatus, GetOfAnyBytesIsExactWithRaw) {
    std::string bytes = "\x1b[31m\xff\n\n";
    bytes += '\0';
    writeFile(tree + "/x", bytes);
    EXPECT_EQ(vx({"--raw", "status", "get", "x"}).out, bytes);
    EXPECT_EQ(vx({"status", "get", "x"}).out, bytes + "\n");
}

TEST_F(VxStatus, GetIsValidJsonWhateverTheBytes) {
    std::string bytes = "a\\b\xff\n\n";
    bytes += '\0';
    writeFile(tree + "/x\xe9", bytes);
    writeFile(tree + "/y", "gr\xc3\xbc\xc3\x9f\x1b\n");
    EXPECT_EQ(vxJson("status-get", {"status", "get", "x\xe9", "y"}),
              R"([{"name":{"escaped":"x\\0351"},"value":{"escaped":"a\\0134b\\0377\n\n\u0000"}},)"
              "{\"name\":\"y\",\"value\":\"gr\xc3\xbc\xc3\x9f\\u001B\"}]\n");
}

// The promise of the escaped form: printf %b gives the bytes back.
TEST_F(VxStatus, EscapedBytesComeBackThroughPrintf) {
    std::string bytes = "%\\n\\0101\\";
    for (int byte = 1; byte < 256; ++byte) bytes += static_cast<char>(byte);
    bytes += "end";
    writeFile(tree + "/x", bytes);
    const auto result = vxtest::vxScript(
        "escaped=$(vx -j status get x | sed 's/.*\"escaped\":\"\\(.*\\)\"}}]$/\\1/')\n"
        "printf '%b' \"$(printf '%s' \"$escaped\" | sed 's/\\\\u00\\(..\\)/\\\\\\\\x\\1/g; s/\\\\b/\\\\\\\\b/g; "
        "s/\\\\f/\\\\\\\\f/g; "
        "s/\\\\n/\\\\\\\\n/g; s/\\\\r/\\\\\\\\r/g; s/\\\\t/\\\\\\\\t/g; s/\\\\\"/\"/g; s/\\\\\\\\/\\\\/g')\"");
    EXPECT_EQ(result.out, bytes);
}

TEST_F(VxStatus, LineFeedsInSeveralValuesForgeNoPairs) {
    writeFile(tree + "/a", "1\nb=forged");
    writeFile(tree + "/b", "2");
    EXPECT_EQ(vx({"status", "get", "a", "b"}).out, "a=1\\0012b=forged\nb=2\n");
    EXPECT_EQ(vx({"--raw", "status", "get", "a", "b"}).out, "a=1\nb=forged\nb=2\n");
}

TEST_F(VxStatus, WhatIsNotThereOrNotAFileIsAFailure) {
    vxtest::makeDirs(tree + "/dir");
    ::mkfifo((tree + "/fifo").c_str(), 0666);
    EXPECT_EQ(vx({"status", "get", "none"}).err, "vx: status get: none: No such file or directory\n");
    EXPECT_EQ(vx({"status", "get", "dir"}).err, "vx: status get: dir: is a directory\n");
    EXPECT_EQ(vx({"status", "get", "fifo"}).err, "vx: status get: fifo: is a FIFO\n");
    writeFile(tree + "/there", "1");
    const auto result = vx({"status", "get", "there", "none"});
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.out, "");
}

TEST_F(VxStatus, NamesNeverLeadOutOfTheTree) {
    for (const char *name : {"..", "../etc/passwd", "a/../../etc/passwd", "a/..", "./a", "", "/", "a/./b"}) {
        for (const char *verb : {"get", "remove", "watch", "list"}) {
            const auto result = vx({"status", verb, name});
            EXPECT_EQ(result.status, 2) << verb << " " << name;
            EXPECT_EQ(result.out, "");
        }
        EXPECT_EQ(vx({"status", "set", name, "x"}).status, 2);
        EXPECT_EQ(vx({"status", "send", name, "x"}).status, 2);
    }
    EXPECT_EQ(vx({"status", "get", "...", "-q"}).status, 1) << "three dots are a name";
}

// ---- set

TEST_F(VxStatus, SetWritesExactlyTheValueForOthersToRead) {
    const auto result = vx({"status", "set", "my-daemon/sub/state", "up and running "});
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.out + result.err, "");
    EXPECT_EQ(readFile(tree + "/my-daemon/sub/state"), "up and running ");
    EXPECT_EQ(modeOf(tree + "/my-daemon/sub/state"), 0644);
    EXPECT_EQ(modeOf(tree + "/my-daemon"), 0755);
    EXPECT_EQ(vx({"status", "set", "--nv", "boot", ""}).status, 0);
    EXPECT_TRUE(vxtest::exists("/nvstatus/boot"));
    EXPECT_EQ(vxJson("status-set", {"status", "set", "x", "--", "-1"}), "{\"done\":true}\n");
    EXPECT_EQ(readFile(tree + "/x"), "-1");
}

// What the tool and the class make are the same to a reader.
TEST_F(VxStatus, SetMakesAFileAsTheClassDoes) {
    StatusInterface status;
    ASSERT_TRUE(status.setup(BASEPATH_STATUS, "/daemon"));
    ASSERT_TRUE(status.setStatus("/class", "value"));
    ASSERT_EQ(vx({"status", "set", "daemon/tool", "value"}).status, 0);
    EXPECT_EQ(modeOf(tree + "/daemon/class"), modeOf(tree + "/daemon/tool"));
    String value;
    ASSERT_TRUE(status.getStatus("/tool", value));
    EXPECT_STREQ(value.c_str(), "value");
}

TEST_F(VxStatus, SetHonoursTheUmask) {
    ::umask(077);
    EXPECT_EQ(vx({"status", "set", "x", "1"}).status, 0);
    ::umask(022);
    EXPECT_EQ(modeOf(tree + "/x"), 0600);
}

TEST_F(VxStatus, SetKeepsModeAndOwnerAndReplacesTheFile) {
    writeFile(tree + "/x", "old");
    ::chmod((tree + "/x").c_str(), 0664);
    const bool owned = ::chown((tree + "/x").c_str(), 1234, 1235) == 0;
    const int reader = ::open((tree + "/x").c_str(), O_RDONLY);
    EXPECT_EQ(vx({"status", "set", "x", "new"}).status, 0);
    char before[8] = {};
    EXPECT_EQ(::read(reader, before, sizeof before), 3);
    EXPECT_STREQ(before, "old") << "replaced, not rewritten";
    ::close(reader);
    struct stat status {};
    ::stat((tree + "/x").c_str(), &status);
    EXPECT_EQ(status.st_mode & 07777, 0664U);
    if (owned) EXPECT_EQ(status.st_uid, 1234U);
    EXPECT_EQ(readFile(tree + "/x"), "new");
}

TEST_F(VxStatus, SetTakesBinaryValuesFromStandardInput) {
    std::string bytes("\0\1\n\xff", 4);
    bytes += std::string(200000, 'x');
    EXPECT_EQ(vx({"status", "set", "--stdin", "x"}, {.input = bytes}).status, 0);
    EXPECT_EQ(readFile(tree + "/x"), bytes);
    EXPECT_EQ(vx({"status", "set", "x"}).status, 2);
    EXPECT_EQ(vx({"status", "set", "x", "y", "--stdin"}).status, 2);
}

TEST_F(VxStatus, ASignalDuringSetLeavesNoTemporaryFile) {
    const std::string value(32 << 20, 'x');
    writeFile("/tmp/long-value", value);
    const auto names = [] {
        std::vector<std::string> found;
        for (const auto &entry : fs::directory_iterator(tree)) found.push_back(entry.path().filename());
        return found;
    };
    for (const int number : {SIGTERM, SIGUSR1, SIGALRM}) {
        fs::remove(tree + "/x");
        std::vector<std::string> command{"sh", "-c", "exec \"$@\" </tmp/long-value", "sh"};
        for (const std::string &word : vxCommand({"status", "set", "x", "--stdin"})) command.push_back(word);
        Process set(command);
        EXPECT_TRUE(vxtest::eventually([&] { return !names().empty(); }));
        set.signal(number);
        set.wait();
        EXPECT_THAT(names(), ElementsAre("x")) << number;
    }
    fs::remove("/tmp/long-value");
}

TEST_F(VxStatus, SetFollowsALinkAndRefusesOtherKinds) {
    writeFile(tree + "/target", "1");
    fs::create_symlink("target", tree + "/link");
    EXPECT_EQ(vx({"status", "set", "link", "2"}).status, 0);
    EXPECT_EQ(readFile(tree + "/target"), "2");
    EXPECT_TRUE(fs::is_symlink(tree + "/link"));
    fs::create_symlink("nowhere", tree + "/dangling");
    EXPECT_THAT(vx({"status", "set", "dangling", "2"}).err, HasSubstr("leads nowhere"));
    ::mkfifo((tree + "/fifo").c_str(), 0666);
    EXPECT_EQ(vx({"status", "set", "fifo", "2"}).err, "vx: status set: fifo: is a FIFO\n");
    EXPECT_TRUE(fs::is_fifo(tree + "/fifo"));
    EXPECT_EQ(vx({"status", "set", "target/below", "2"}).status, 1);
}

TEST_F(VxStatus, AFullDiskLeavesTheOldValueAndNoOtherFile) {
    vxtest::makeDirs(tree + "/small");
    if (::mount("small", (tree + "/small").c_str(), "tmpfs", 0, "size=16k") != 0)
        GTEST_SKIP() << "no mount in this box";
    writeFile(tree + "/small/x", "old");
    const auto result = vx({"status", "set", "--stdin", "small/x"}, {.input = std::string(100000, 'x')});
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.err, "vx: status set: small/x: No space left on device\n");
    EXPECT_EQ(readFile(tree + "/small/x"), "old");
    EXPECT_EQ(std::distance(fs::directory_iterator(tree + "/small"), {}), 1);
    ::umount((tree + "/small").c_str());
}

TEST_F(VxStatus, AReadOnlyFileSystemIsNamed) {
    vxtest::makeDirs(tree + "/ro");
    if (::mount("ro", (tree + "/ro").c_str(), "tmpfs", MS_RDONLY, "") != 0) GTEST_SKIP() << "no mount in this box";
    EXPECT_EQ(vx({"status", "set", "ro/x", "1"}).err, "vx: status set: ro/x: Read-only file system\n");
    EXPECT_EQ(vx({"status", "set", "ro/new/x", "1"}).status, 1);
    ::umount((tree + "/ro").c_str());
}

TEST_F(VxStatus, AnotherUserMayReadButNotWrite) {
    if (!vxtest::hasOtherUsers()) GTEST_SKIP() << "a box made by an ordinary user has no other";
    writeFile(tree + "/x", "1");
    EXPECT_EQ(vx({"status", "get", "x"}, {.user = 65534}).out, "1\n");
    for (const auto &words : {std::vector<std::string>{"set", "x", "2"}, {"set", "new/x", "2"}, {"remove", "x"}}) {
        std::vector<std::string> all{"status"};
        all.insert(all.end(), words.begin(), words.end());
        const auto result = vx(all, {.user = 65534});
        EXPECT_EQ(result.status, 1);
        EXPECT_THAT(result.err, HasSubstr("Permission denied"));
    }
    EXPECT_EQ(readFile(tree + "/x"), "1");
}

TEST_F(VxStatus, RemoveRemovesOneFile) {
    writeFile(tree + "/x", "1");
    vxJson("status-remove", {"status", "remove", "x"});
    EXPECT_FALSE(vxtest::exists(tree + "/x"));
    EXPECT_EQ(vx({"status", "remove", "x"}).err, "vx: status remove: x: No such file or directory\n");
    vxtest::makeDirs(tree + "/dir");
    EXPECT_EQ(vx({"status", "remove", "dir"}).status, 1);
}

// ---- list

TEST_F(VxStatus, ListsNamesInOrderWithTheirKinds) {
    writeFile(tree + "/wan/link", "up");
    writeFile(tree + "/a\nb", "");
    writeFile(tree + "/.vx_abcdef", "");
    fs::create_symlink("wan/link", tree + "/hot");
    ::mkfifo((tree + "/wan/command").c_str(), 0666);
    vxtest::makeDirs(tree + "/empty");
    EXPECT_EQ(vx({"status", "list"}).out, "a\\0012b\nhot\nwan/command\nwan/link\n");
    EXPECT_EQ(vx({"status", "list", "wan/"}).out, "wan/command\nwan/link\n");
    EXPECT_EQ(vx({"status", "list", "--nv"}).out, "");
    EXPECT_EQ(vxJson("status-list", {"status", "list"}),
              R"([{"name":"a\nb","type":"file"},{"name":"hot","type":"link"},{"name":"wan/command","type":"fifo"},)"
              R"({"name":"wan/link","type":"file"}])"
              "\n");
    EXPECT_EQ(vx({"status", "list", "none"}).err, "vx: status list: /tmp/status/none: No such file or directory\n");
}

TEST_F(VxStatus, ListsTenThousandNames) {
    std::string expected;
    for (int i = 0; i < 100; ++i) {
        for (int k = 0; k < 100; ++k) {
            const std::string name = "daemon" + std::to_string(100 + i) + "/value" + std::to_string(100 + k);
            writeFile(tree + "/" + name, std::to_string(k));
            expected += name + "\n";
        }
    }
    EXPECT_EQ(vx({"status", "list"}).out, expected);
    vxJson("status-list", {"status", "list"});
    EXPECT_EQ(vxtest::vxScript("vx status list | head -1; echo ${PIPESTATUS[0]}").out, "daemon100/value100\n141\n");
    // All of them watched, and one change among them.
    Process watch(vxCommand({"status", "watch", "--count", "10001"}));
    for (int i = 0; i < 10000; ++i) watch.readLine(30000);
    EXPECT_EQ(vx({"status", "set", "daemon150/value150", "changed"}).status, 0);
    EXPECT_EQ(watch.readLine(), "daemon150/value150=changed");
    EXPECT_EQ(watch.wait(), 0);
}

// ---- watch

TEST_F(VxStatus, WatchPrintsTheFirstValueAndEachChange) {
    writeFile(tree + "/wan/link", "up");
    Process watch(vxCommand({"status", "watch", "wan/link"}));
    EXPECT_EQ(watch.readLine(), "up");
    vx({"status", "set", "wan/link", "down"});
    EXPECT_EQ(watch.readLine(), "down");
    vx({"status", "set", "wan/link", "down"});  // no change
    StatusInterface status;
    status.setup(BASEPATH_STATUS, "/wan");
    status.setStatus("/link", "up\n");
    EXPECT_EQ(watch.readLine(), "up");
    vx({"status", "remove", "wan/link"});
    EXPECT_EQ(watch.readLine(), "");
    writeFile(tree + "/wan/link", "two\nlines");
    EXPECT_EQ(watch.readLine(), "two\\0012lines");
    watch.signal(SIGINT);
    EXPECT_EQ(watch.wait(), 0);
}

// Shown with a writer that is slower between the two steps than setStatus() ever is.
TEST_F(VxStatus, WatchDoesNotTellOfAFileThatIsBeingWritten) {
    writeFile(tree + "/state", "up");
    Process watch(vxCommand({"status", "watch", "state"}));
    EXPECT_EQ(watch.readLine(), "up");
    vxtest::waitForWatch(watch);
    std::ofstream writer(tree + "/state", std::ios::trunc);
    fs::permissions(tree + "/state", fs::perms::owner_all);  // a change that makes the watcher look
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    writer << "down" << std::flush;
    writer.close();
    EXPECT_EQ(watch.readLine(), "down");
    writeFile(tree + "/state", "");
    EXPECT_EQ(watch.readLine(), "");
    watch.signal(SIGTERM);
    EXPECT_EQ(watch.wait(), 0);
}

TEST_F(VxStatus, WatchWaitsForWhatIsNotThereYet) {
    fs::remove_all(tree);
    Process watch(vxCommand({"-j", "status", "watch", "new/deep/state"}));
    vxtest::waitForWatch(watch);
    EXPECT_EQ(vx({"status", "set", "new/deep/state", "1"}).status, 0);
    std::string line = watch.readLine();
    EXPECT_EQ(line, R"({"name":"new/deep/state","value":"1"})");
    EXPECT_EQ(vxtest::schemaErrors("status-watch", line + "\n"), "");
    fs::rename(tree + "/new", tree + "/old");
    line = watch.readLine();
    EXPECT_EQ(line, R"({"name":"new/deep/state","value":null})");
    EXPECT_EQ(vxtest::schemaErrors("status-watch", line + "\n"), "");
    fs::rename(tree + "/old", tree + "/new");
    EXPECT_EQ(watch.readLine(), R"({"name":"new/deep/state","value":"1"})");
    watch.signal(SIGTERM);
    EXPECT_EQ(watch.wait(), 0);
}

TEST_F(VxStatus, WatchOfTheWholeTreeSeesNewDirectories) {
    writeFile(tree + "/a", "1");
    Process watch(vxCommand({"status", "watch"}));
    EXPECT_EQ(watch.readLine(), "a=1");
    vx({"status", "set", "x/y/z", "2"});
    EXPECT_EQ(watch.readLine(), "x/y/z=2");
    vx({"status", "set", "x/y/z", "3"});
    EXPECT_EQ(watch.readLine(), "x/y/z=3");
    fs::remove_all(tree + "/x");
    EXPECT_EQ(watch.readLine(), "x/y/z=");
}

TEST_F(VxStatus, WatchFollowsALinkToItsNewTarget) {
    writeFile(tree + "/one", "1");
    writeFile(tree + "/two", "2");
    fs::create_symlink("one", tree + "/hot");
    Process watch(vxCommand({"status", "watch", "hot"}));
    EXPECT_EQ(watch.readLine(), "1");
    writeFile(tree + "/one", "1b");
    EXPECT_EQ(watch.readLine(), "1b");
    StatusInterface status;
    status.setup(BASEPATH_STATUS, "");
    status.setLink("/hot", "two");
    std::string line = watch.readLine();
    if (line.empty()) line = watch.readLine();  // seen between the removal and the new link
    EXPECT_EQ(line, "2");
}

TEST_F(VxStatus, WatchEndsAfterItsCountOrTime) {
    writeFile(tree + "/a", "1");
    writeFile(tree + "/b", "2");
    EXPECT_EQ(vx({"status", "watch", "--count", "1"}).out, "a=1\n");
    EXPECT_EQ(vx({"status", "watch", "--for", "0.2", "b", "a"}).out, "a=1\nb=2\n");
    EXPECT_EQ(vx({"status", "watch", "--for", "0"}).status, 0);
    for (const char *bad : {"--count=0", "--count=x", "--for=-1", "--for=1e3", "--for="}) {
        EXPECT_EQ(vx({"status", "watch", bad}).status, 2) << bad;
    }
}

TEST_F(VxStatus, WatchEndsWhenItsReaderHasGone) {
    writeFile(tree + "/a", "1");
    const auto result = vxtest::vxScript("vx status watch | head -1; echo ${PIPESTATUS[0]}");
    EXPECT_EQ(result.out, "a=1\n0\n");
}

// Runs vx with this descriptor as its standard output. An alarm ends it where it would not end by itself.
pid_t startInto(int output, const std::vector<std::string> &words) {
    return vxtest::startChild([&] {
        ::dup2(output, 1);
        ::alarm(30);
        return vxtest::becomeVx(words);
    });
}

TEST_F(VxStatus, WatchEndsWithStatus0WhenNothingReadsItsFirstLine) {
    writeFile(tree + "/a", "1");
    const std::string closedPipe = "mkfifo /tmp/no-reader; exec 5<>/tmp/no-reader 6>/tmp/no-reader 5<&-\n";
    for (const char *command : {"vx status watch >&6; echo $?", "trap '' PIPE; vx status watch >&6; echo $?"}) {
        const auto result = vxtest::vxScript("rm -f /tmp/no-reader; " + closedPipe + command);
        EXPECT_EQ(result.out, "0\n") << command;
        EXPECT_EQ(result.err, "") << command;
    }
}

TEST_F(VxStatus, WatchEndsWhenThePeerOfItsSocketHasGone) {
    int ends[2];
    ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
    const pid_t pid = startInto(ends[1], {"status", "watch", "none"});
    ::close(ends[1]);
    ::close(ends[0]);
    EXPECT_EQ(vxtest::waitChild(pid), 0);
}

TEST_F(VxStatus, AReaderThatDoesNotReadKeepsWatchNotFromEnding) {
    writeFile(tree + "/big", std::string(300000, 'x'));
    int ends[2];
    ASSERT_EQ(::pipe2(ends, O_CLOEXEC), 0);
    EXPECT_EQ(vxtest::waitChild(startInto(ends[1], {"status", "watch", "big", "--for", "0.1"})), 0);
    char piece[4096];
    int waiting = 0;
    while (::ioctl(ends[0], FIONREAD, &waiting) == 0 && waiting > 0) EXPECT_GT(::read(ends[0], piece, sizeof piece), 0);
    const pid_t pid = startInto(ends[1], {"status", "watch", "big"});
    EXPECT_TRUE(vxtest::eventually([&] { return ::ioctl(ends[0], FIONREAD, &waiting) == 0 && waiting > 0; }));
    ::kill(pid, SIGTERM);
    EXPECT_EQ(vxtest::waitChild(pid), 0);
    ::close(ends[0]);
    ::close(ends[1]);
}

TEST_F(VxStatus, WatchTakesNamesAsTheyAreGiven) {
    writeFile(tree + "/a/b", "1");
    writeFile(tree + "/a/c", "1");
    writeFile(tree + "/a/.hidden", "1");
    writeFile(tree + "/a/.other", "1");
    Process watch(vxCommand({"status", "watch", "//a//b/", "a/c", "a/.hidden"}));
    EXPECT_EQ(watch.readLine(), "a/.hidden=1");
    EXPECT_EQ(watch.readLine(), "a/b=1");
    EXPECT_EQ(watch.readLine(), "a/c=1");
    writeFile(tree + "/a/b", "2");
    EXPECT_EQ(watch.readLine(), "a/b=2");
    writeFile(tree + "/a/.other", "2");
    writeFile(tree + "/a/.hidden", "2");
    EXPECT_EQ(watch.readLine(), "a/.hidden=2");
    EXPECT_EQ(vx({"status", "get", "a//b", "a/c"}).out, "a/b=2\na/c=1\n");
}

// ---- send

TEST_F(VxStatus, SendWritesToAReaderAndNeverHangs) {
    const std::string path = tree + "/command";
    ::mkfifo(path.c_str(), 0666);
    EXPECT_EQ(vx({"status", "send", "command", "go"}).err, "vx: status send: command: no process reads this FIFO\n");
    const int reader = ::open(path.c_str(), O_RDONLY | O_NONBLOCK);
    vxJson("status-send", {"status", "send", "command", "go"});
    char data[8192] = {};
    EXPECT_EQ(::read(reader, data, sizeof data), 2);
    EXPECT_STREQ(data, "go");
    const std::string longest(4096, 'x');
    EXPECT_EQ(vx({"status", "send", "command", longest + "x"}).status, 2);
    EXPECT_EQ(vx({"status", "send", "command", ""}).status, 2);
    for (int i = 0; i < 16; ++i) EXPECT_EQ(vx({"status", "send", "command", longest}).status, 0);
    const auto full = vx({"status", "send", "command", longest});
    EXPECT_EQ(full.status, 1);
    EXPECT_THAT(full.err, HasSubstr("the FIFO is full"));
    ::close(reader);
    writeFile(tree + "/file", "kept");
    EXPECT_EQ(vx({"status", "send", "file", "x"}).err, "vx: status send: file: is not a FIFO\n");
    EXPECT_EQ(readFile(tree + "/file"), "kept");
}

}  // namespace
