// SPDX-License-Identifier: MIT
#include <vxutils/simplesms.h>

#include <dirent.h>
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <new>
#include <optional>
#include <utility>

#include "support/call_hooks.h"
#include "support/files.h"
#include "support/interruptions.h"
#include "support/process.h"
#include "support/resources.h"
#include "support/syslog_capture.h"

VXTEST_HOOK(int, closedir, (DIR * directory), (directory))
VXTEST_HOOK(int, fclose, (FILE * file), (file))
VXTEST_HOOK_AS(int, mkostemp, "mkostemp64", (char *name, int flags), (name, flags))
VXTEST_HOOK(FILE *, fdopen, (int fd, const char *mode), (fd, mode))

namespace {

bool failNew = false;

}  // namespace

void *operator new(size_t size, const std::nothrow_t &) noexcept {
    if (failNew) return nullptr;
    try {
        return ::operator new(size);
    } catch (const std::bad_alloc &) {
        return nullptr;
    }
}

namespace {

using testing::ElementsAre;
using testing::StartsWith;
using vxtest::LogLine;

const std::string spool = "/var/spool/sms/incoming/";
const std::string sendScript = "/usr/local/sbin/send-sms";

class SimpleSms : public testing::Test {
protected:
    SimpleSms() {
        std::filesystem::remove_all("/var/spool/sms");
        vxtest::makeDirs(spool);
        for (const std::string &path : outgoing()) ::unlink(path.c_str());
        ::unlink("/tmp/sent");
    }

    // The sending tool: keeps what it was given and ends with this status.
    static void tool(int status) {
        vxtest::writeFile(sendScript, "#!/bin/sh\necho \"$# $1\" >/tmp/call\ncat \"$1\" >/tmp/sent\nexit " +
                                          std::to_string(status) + "\n");
        ASSERT_EQ(::chmod(sendScript.c_str(), 0755), 0);
    }

    static std::vector<std::string> outgoing() {
        std::vector<std::string> found;
        // Not "/tmp": the user-mode emulator shows the /tmp of its system root under that name.
        for (const auto &entry : std::filesystem::directory_iterator("/proc/self/root/tmp")) {
            const std::string name = entry.path().filename();
            if (name.rfind("outgoing-sms.", 0) == 0) found.push_back("/tmp/" + name);
        }
        return found;
    }

    // The message of a spool file with this content.
    std::unique_ptr<CSimpleSMS> incoming(const std::string &content) {
        vxtest::writeFile(spool + "id", content);
        return std::unique_ptr<CSimpleSMS>(CSimpleSMS::getIncomingSMSById("id"));
    }

    LogLine invalid(const std::string &id, const char *error) {
        return {LOG_DEBUG, "sms: file \"" + spool + id + "\" not existing or invalid, errno=" + error};
    }

    static LogLine unrecognized(const std::string &line) {
        return {LOG_DEBUG, "sms: Ignoring unrecognized line : \"" + line + "\""};
    }

    vxtest::SyslogCapture log;
};

TEST_F(SimpleSms, AMessageIsAValue) {
    const CSimpleSMS empty;
    EXPECT_EQ(empty.getNumber() + empty.getReceived() + empty.getText(), "");
    CSimpleSMS sms("+4930123", "hello");
    EXPECT_EQ(sms.getNumber(), "+4930123");
    EXPECT_EQ(sms.getReceived(), "");
    EXPECT_EQ(sms.getText(), "hello");
    const CSimpleSMS copy = sms;
    sms = empty;
    EXPECT_EQ(copy.getText(), "hello");
    EXPECT_EQ(sms.getText(), "");
}

TEST_F(SimpleSms, SendingHandsTheFileToTheTool) {
    tool(0);
    const vxtest::NoLeaks leaks;
    EXPECT_EQ(CSimpleSMS("+4930123", "two\nlines").send(), 0);
    EXPECT_EQ(vxtest::readFile("/tmp/sent"), "To: +4930123\n\ntwo\nlines\n");
    const auto files = outgoing();
    ASSERT_EQ(files.size(), 1U);  // left for the tool
    EXPECT_EQ(vxtest::readFile("/tmp/call"), "1 " + files[0] + "\n");
    EXPECT_EQ(files[0].size(), std::string("/tmp/outgoing-sms.XXXXXX").size());
    struct stat status {};
    ASSERT_EQ(::stat(files[0].c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 0777U, 0600U);
}

// What fork() in another thread of a daemon does: exit() writes what the child's copies of the streams hold.
TEST_F(SimpleSms, AChildForkedWhileTheFileIsWrittenMayEndWithExit) {
    tool(0);
    bool forked = false;
    {
        const vxtest::Hooked forking(vxtest::hooks::fclose, [&](FILE *) -> std::optional<int> {
            if (std::exchange(forked, true)) return std::nullopt;
            const pid_t child = ::fork();
            if (child == 0) std::exit(0);
            EXPECT_EQ(vxtest::waitChild(child), 0);
            return std::nullopt;
        });
        EXPECT_EQ(CSimpleSMS("1", "hello").send(), 0);
    }
    EXPECT_TRUE(forked);
    EXPECT_EQ(vxtest::readFile("/tmp/sent"), "To: 1\n\nhello\n");
}

TEST_F(SimpleSms, TheFileIsClosedOnce) {
    tool(0);
    const int next = ::dup(0);
    ::close(next);
    int other = -1;
    {
        // Another thread opens something as soon as the descriptor is free.
        const vxtest::Hooked closing(vxtest::hooks::fclose, [&](FILE *file) -> std::optional<int> {
            if (other != -1) return std::nullopt;
            const int result = vxtest::real::fclose(file);
            other = ::dup(0);
            return result;
        });
        EXPECT_EQ(CSimpleSMS("1", "hello").send(), 0);
    }
    EXPECT_EQ(other, next);
    EXPECT_NE(::fcntl(other, F_GETFD), -1) << "closed by send()";
    ::close(other);
}

TEST_F(SimpleSms, WhatTheToolRefusesIsRemoved) {
    tool(1);
    const vxtest::NoLeaks leaks;
    EXPECT_EQ(CSimpleSMS("1", "x").send(), -1);
    EXPECT_EQ(vxtest::readFile("/tmp/sent"), "To: 1\n\nx\n");
    EXPECT_TRUE(outgoing().empty());
    ::unlink(sendScript.c_str());
    EXPECT_EQ(CSimpleSMS("1", "x").send(), -1);
    EXPECT_TRUE(outgoing().empty());
}

TEST_F(SimpleSms, SendingTakesEmptyLongAndBinaryTexts) {
    tool(0);
    EXPECT_EQ(CSimpleSMS().send(), 0);
    EXPECT_EQ(vxtest::readFile("/tmp/sent"), "To: \n\n\n");
    const std::string longText(1000000, 't');
    const std::string longNumber(100000, '1');
    EXPECT_EQ(CSimpleSMS(longNumber, longText).send(), 0);
    EXPECT_EQ(vxtest::readFile("/tmp/sent"), "To: " + longNumber + "\n\n" + longText + "\n");
    EXPECT_EQ(CSimpleSMS("*100#", "x").send(), 0);
    EXPECT_EQ(vxtest::readFile("/tmp/sent"), "To: *100#\n\nx\n");
    EXPECT_EQ(CSimpleSMS("%s%n", "%d \x01\xff\r").send(), 0);
    EXPECT_EQ(vxtest::readFile("/tmp/sent"), "To: %s%n\n\n%d \x01\xff\r\n");
    EXPECT_EQ(CSimpleSMS("1", std::string("be\0hind", 7)).send(), 0);
    EXPECT_EQ(vxtest::readFile("/tmp/sent"), "To: 1\n\nbe\n");
}

TEST_F(SimpleSms, ALineBreakInTheNumberIsRefused) {
    tool(0);
    for (const char *number : {"1\nFrom: 2", "\n", "1\r2", "12\n"}) EXPECT_EQ(CSimpleSMS(number, "x").send(), -1);
    EXPECT_FALSE(vxtest::exists("/tmp/sent"));
    EXPECT_TRUE(outgoing().empty());
}

TEST_F(SimpleSms, SendingNeedsAFile) {
    tool(0);
    const vxtest::NoLeaks leaks;
    EXPECT_EQ(vxtest::inChild([] {
                  const rlimit none{0, 0};
                  ::setrlimit(RLIMIT_NOFILE, &none);
                  return CSimpleSMS("1", "x").send() == -1 ? 0 : 1;
              }),
              0);
    for (const size_t length : {1U, 100000U}) {  // noticed when the file is closed, and while it is written
        EXPECT_EQ(vxtest::inChild([&] {
                      ::signal(SIGXFSZ, SIG_IGN);
                      const rlimit none{3, 3};  // the file takes three bytes
                      ::setrlimit(RLIMIT_FSIZE, &none);
                      return CSimpleSMS("1", std::string(length, 'x')).send() == -1 ? 0 : 1;
                  }),
                  0)
            << length;
    }
    EXPECT_TRUE(outgoing().empty());
    EXPECT_FALSE(vxtest::exists("/tmp/sent"));
}

TEST_F(SimpleSms, WithoutAFileTheToolIsNotStarted) {
    tool(0);
    const vxtest::Hooked full(vxtest::hooks::mkostemp, vxtest::answering<int>(-1, ENOSPC));
    EXPECT_EQ(CSimpleSMS("1", "x").send(), -1);
    EXPECT_FALSE(vxtest::exists("/tmp/sent"));
}

TEST_F(SimpleSms, AFileThatCannotBecomeAStreamIsClosedAndRemoved) {
    tool(0);
    const vxtest::NoLeaks leaks;
    {
        const vxtest::Hooked full(vxtest::hooks::fdopen, vxtest::answering<FILE *>(nullptr, ENOMEM));
        EXPECT_EQ(CSimpleSMS("1", "x").send(), -1);
    }
    EXPECT_TRUE(outgoing().empty());
    EXPECT_FALSE(vxtest::exists("/tmp/sent"));
}

TEST_F(SimpleSms, AToolEndedByASignalHasNotAccepted) {
    vxtest::writeFile(sendScript, "#!/bin/sh\nkill -KILL $$\n");
    ASSERT_EQ(::chmod(sendScript.c_str(), 0755), 0);
    EXPECT_EQ(CSimpleSMS("1", "x").send(), -1);
    EXPECT_TRUE(outgoing().empty());
}

TEST_F(SimpleSms, SignalsDoNotHideThatTheToolRefused) {
    vxtest::writeFile(sendScript, "#!/bin/sh\nsleep 0.1\nexit 7\n");
    ASSERT_EQ(::chmod(sendScript.c_str(), 0755), 0);
    const vxtest::Interruptions interruptions(5000);
    EXPECT_EQ(CSimpleSMS("1", "text").send(), -1);
    EXPECT_TRUE(outgoing().empty());
    EXPECT_GT(vxtest::Interruptions::count, 2);
}

TEST_F(SimpleSms, AMessageCanBeSentAgainAsAFileOfItsOwn) {
    tool(0);
    CSimpleSMS sms("1", "x");
    EXPECT_EQ(sms.send(), 0);
    EXPECT_EQ(sms.send(), 0);
    EXPECT_EQ(outgoing().size(), 2U);
    EXPECT_EQ(sms.getNumber() + sms.getText(), "1x");
}

TEST_F(SimpleSms, AnIncomingFileHasHeaderAndBody) {
    const vxtest::NoLeaks leaks;
    const auto sms = incoming("From: +4930123\nReceived: 2024-05-06 12:13:14\n\nhello\n\nworld\n");
    ASSERT_NE(sms, nullptr);
    EXPECT_EQ(sms->getNumber(), "+4930123");
    EXPECT_EQ(sms->getReceived(), "2024-05-06 12:13:14");
    EXPECT_EQ(sms->getText(), "hello\n\nworld");
    EXPECT_TRUE(log.take().empty());
}

TEST_F(SimpleSms, ASenderOfDigitsStarsAndNumberSignsIsOneWord) {
    const auto sms = incoming("From: *100#1\n\nx");
    ASSERT_NE(sms, nullptr);
    EXPECT_EQ(sms->getNumber(), "*100#1");
}

TEST_F(SimpleSms, WordsAreSplitAtBlanks) {
    const auto sms = incoming("  From:   1   2 3\nReceived:   a   b\tc  d  \n\nx");
    ASSERT_NE(sms, nullptr);
    EXPECT_EQ(sms->getNumber(), "1");
    EXPECT_EQ(sms->getReceived(), "a b\tc d");  // single blanks between, none after the last
    EXPECT_TRUE(log.take().empty());
}

TEST_F(SimpleSms, TheLastOfEachHeaderWins) {
    const auto sms = incoming("From: 1\nReceived: a\nFrom: 2\nReceived: b c\n\nx");
    ASSERT_NE(sms, nullptr);
    EXPECT_EQ(sms->getNumber(), "2");
    EXPECT_EQ(sms->getReceived(), "b c");
    const auto bare = incoming("From:\nReceived:\n\nx");
    ASSERT_NE(bare, nullptr);
    EXPECT_EQ(bare->getNumber(), "");
    EXPECT_EQ(bare->getReceived(), "");
}

TEST_F(SimpleSms, OtherHeaderLinesAreLoggedAndIgnored) {
    const auto sms = incoming("Sent: x\nFrom: 1\n   \nfrom: 2\nFrom:3\nXFrom: 4\n\nx");
    ASSERT_NE(sms, nullptr);
    EXPECT_EQ(sms->getNumber(), "1");
    EXPECT_THAT(log.take(), ElementsAre(unrecognized("Sent: x"), unrecognized("   "), unrecognized("from: 2"),
                                        unrecognized("From:3"), unrecognized("XFrom: 4")));
}

TEST_F(SimpleSms, AFileWithoutEmptyLineIsInvalid) {
    const vxtest::NoLeaks leaks;
    for (const char *content : {"", "\n\n", "From: 1\nhello\n", "From: 1\n\n", "From: 1\r\n\r\nx"}) {
        EXPECT_EQ(incoming(content), nullptr) << content;
        EXPECT_THAT(log.take(), ElementsAre(invalid("id", "Success"))) << content;
    }
    EXPECT_EQ(CSimpleSMS::getIncomingSMSById("missing"), nullptr);
    EXPECT_THAT(log.take(), ElementsAre(invalid("missing", "No such file or directory")));
}

TEST_F(SimpleSms, WithoutMemoryForTheMessageThereIsNone) {
    const vxtest::NoLeaks leaks;
    failNew = true;
    const auto sms = incoming("From: 1\nSent: x\n\ny");
    failNew = false;
    EXPECT_EQ(sms, nullptr);
    EXPECT_THAT(log.take(), ElementsAre(LogLine{LOG_ERR, "sms: Unable to allocate sms - out of memory!?"}));
}

TEST_F(SimpleSms, WhatIsNotReadableIsInvalidWithItsReason) {
    vxtest::makeDirs(spool + "directory");
    EXPECT_EQ(CSimpleSMS::getIncomingSMSById("directory"), nullptr);
    EXPECT_THAT(log.take(), ElementsAre(invalid("directory", "Is a directory")));
    const std::string longName(256, 'n');
    EXPECT_EQ(CSimpleSMS::getIncomingSMSById(longName), nullptr);
    EXPECT_THAT(log.take(), ElementsAre(invalid(longName, "File name too long")));
    EXPECT_EQ(CSimpleSMS::DeleteIncomingSMSById(longName), -1);
    EXPECT_EQ(errno, ENAMETOOLONG);
}

TEST_F(SimpleSms, AnErrorOfBeforeIsNotTakenForTheFiles) {
    vxtest::writeFile(spool + "id", "From: 1");
    errno = EPIPE;
    EXPECT_EQ(CSimpleSMS::getIncomingSMSById("id"), nullptr);
    EXPECT_THAT(log.take(), ElementsAre(invalid("id", "Success")));
}

TEST_F(SimpleSms, TheBodyBeginsAfterTheFirstEmptyLine) {
    const auto sms = incoming("From: 1\n\n\nReceived: a\nFrom: 2\n\nx");
    ASSERT_NE(sms, nullptr);
    EXPECT_EQ(sms->getNumber(), "1");
    EXPECT_EQ(sms->getReceived(), "");
    EXPECT_EQ(sms->getText(), "\nReceived: a\nFrom: 2\n\nx");
    EXPECT_TRUE(log.take().empty());
}

TEST_F(SimpleSms, MessagesStayThemselvesWhenOthersAreRead) {
    const auto first = incoming("From: 1\n\none");
    const auto second = incoming("From: 2\n\ntwo");
    ASSERT_NE(first, nullptr);
    ASSERT_NE(second, nullptr);
    EXPECT_EQ(first->getNumber() + first->getText(), "1one");
    EXPECT_EQ(second->getNumber() + second->getText(), "2two");
}

TEST_F(SimpleSms, OnlyTheFirst1023BytesAreRead) {
    const std::string header = "From: 1\n\n";
    const auto sms = incoming(header + vxtest::repeated(2000, 'x'));
    ASSERT_NE(sms, nullptr);
    EXPECT_EQ(sms->getText(), vxtest::repeated(1023 - header.size(), 'x'));
    EXPECT_EQ(incoming("From: " + vxtest::repeated(1020, '1') + "\n\nx"), nullptr);
}

TEST_F(SimpleSms, BinaryFilesAreReadUpToTheirFirstNul) {
    const auto sms = incoming("From: \x01\xff\n\n\xfe\x02 end");
    ASSERT_NE(sms, nullptr);
    EXPECT_EQ(sms->getNumber(), "\x01\xff");
    EXPECT_EQ(sms->getText(), "\xfe\x02 end");
    const auto cut = incoming(std::string("From: 1\n\nshown\0hidden", 21));
    ASSERT_NE(cut, nullptr);
    EXPECT_EQ(cut->getText(), "shown");
    EXPECT_EQ(incoming(std::string("From: 1\0\n\nhidden", 16)), nullptr);
}

TEST_F(SimpleSms, AnIdReachesNoFileOutsideTheSpool) {
    vxtest::writeFile("/var/spool/sms/outside", "From: 1\n\nsecret\n");
    vxtest::writeFile("/tmp/outside", "From: 1\n\nsecret\n");
    vxtest::writeFile(spool + "sub/inner", "From: 1\n\nsecret\n");
    vxtest::writeFile(spool + "id", "From: 1\n\nsecret\n");
    for (const std::string &id :
         {std::string(), std::string("."), std::string(".."), std::string("../outside"), std::string("/tmp/outside"),
          std::string("sub/inner"), std::string("id/"), std::string("id\0x", 4)}) {
        EXPECT_EQ(CSimpleSMS::getIncomingSMSById(id), nullptr) << id;
        const auto lines = log.take();
        ASSERT_EQ(lines.size(), 1U) << id;
        EXPECT_EQ(lines[0].priority, LOG_DEBUG);
        EXPECT_THAT(lines[0].text, testing::HasSubstr("not existing or invalid, errno=No such file or directory"));
        errno = 0;
        EXPECT_EQ(CSimpleSMS::DeleteIncomingSMSById(id), -1) << id;
        EXPECT_EQ(errno, ENOENT);
    }
    for (const char *path : {"/var/spool/sms/outside", "/tmp/outside", "/var/spool/sms/incoming/sub/inner",
                             "/var/spool/sms/incoming/id"}) {
        EXPECT_TRUE(vxtest::exists(path)) << path;
    }
    // Names that merely look odd are names.
    for (const char *id : {"...", ".hidden", "a b", "a\nb", "*"}) {
        vxtest::writeFile(spool + id, "From: 1\n\nx\n");
        EXPECT_NE(std::unique_ptr<CSimpleSMS>(CSimpleSMS::getIncomingSMSById(id)), nullptr) << id;
        EXPECT_EQ(CSimpleSMS::DeleteIncomingSMSById(id), 0) << id;
    }
}

TEST_F(SimpleSms, DeletingRemovesTheFile) {
    incoming("From: 1\n\nx\n");
    EXPECT_EQ(CSimpleSMS::DeleteIncomingSMSById("id"), 0);
    EXPECT_FALSE(vxtest::exists(spool + "id"));
    EXPECT_EQ(CSimpleSMS::DeleteIncomingSMSById("id"), -1);
    EXPECT_EQ(errno, ENOENT);
    vxtest::makeDirs(spool + "directory");
    EXPECT_EQ(CSimpleSMS::DeleteIncomingSMSById("directory"), -1);
}

TEST_F(SimpleSms, IdsAreTheRegularFilesOfTheSpool) {
    const vxtest::NoLeaks leaks;
    vxtest::writeFile(spool + "one", "x");
    vxtest::writeFile(spool + ".two", "x");
    vxtest::makeDirs(spool + "directory");
    ASSERT_EQ(::symlink((spool + "one").c_str(), (spool + "link").c_str()), 0);
    ASSERT_EQ(::mkfifo((spool + "fifo").c_str(), 0600), 0);
    std::vector<std::pair<long long, std::string>> ids{{7, "kept"}};
    CSimpleSMS::RetrieveIncomingIds(ids);
    ASSERT_EQ(ids.size(), 3U);
    EXPECT_EQ(ids[0], (std::pair<long long, std::string>{7, "kept"}));
    EXPECT_THAT((std::vector<std::string>{ids[1].second, ids[2].second}), testing::UnorderedElementsAre("one", ".two"));
    for (size_t i = 1; i < ids.size(); ++i) {
        struct stat status {};
        ASSERT_EQ(::stat((spool + ids[i].second).c_str(), &status), 0);
        EXPECT_EQ(ids[i].first, static_cast<long long>(status.st_ctime));
    }
    EXPECT_TRUE(log.take().empty());
}

TEST_F(SimpleSms, IdsComeInTheDirectorysOrder) {
    for (const char *id : {"9", "1", "zz", "a", "5", "10"}) vxtest::writeFile(spool + id, "x");
    std::vector<std::string> order;
    for (const auto &entry : std::filesystem::directory_iterator(spool)) order.push_back(entry.path().filename());
    std::vector<std::pair<long long, std::string>> ids;
    CSimpleSMS::RetrieveIncomingIds(ids);
    std::vector<std::string> listed;
    for (const auto &id : ids) listed.push_back(id.second);
    EXPECT_EQ(listed, order);
    EXPECT_EQ(listed.size(), 6U);
}

TEST_F(SimpleSms, ADirectoryThatDoesNotCloseIsLogged) {
    vxtest::writeFile(spool + "one", "x");
    std::vector<std::pair<long long, std::string>> ids;
    {
        const vxtest::Hooked failing(vxtest::hooks::closedir, [](DIR *directory) -> std::optional<int> {
            vxtest::real::closedir(directory);
            errno = EIO;
            return -1;
        });
        CSimpleSMS::RetrieveIncomingIds(ids);
    }
    EXPECT_EQ(ids.size(), 1U);
    EXPECT_THAT(log.take(), ElementsAre(LogLine{LOG_ERR, "Unable to close the directory " + spool}));
}

TEST_F(SimpleSms, TheTimeIsThatOfTheStatusChange) {
    vxtest::writeFile(spool + "one", "x");
    const timespec old[2] = {{1000, 0}, {2000, 0}};
    ASSERT_EQ(::utimensat(AT_FDCWD, (spool + "one").c_str(), old, 0), 0);
    std::vector<std::pair<long long, std::string>> ids;
    CSimpleSMS::RetrieveIncomingIds(ids);
    ASSERT_EQ(ids.size(), 1U);
    EXPECT_GT(ids[0].first, 2000);
}

TEST_F(SimpleSms, WithoutASpoolThereAreNoIds) {
    std::filesystem::remove_all("/var/spool/sms");
    std::vector<std::pair<long long, std::string>> ids;
    CSimpleSMS::RetrieveIncomingIds(ids);
    EXPECT_TRUE(ids.empty());
    EXPECT_TRUE(log.take().empty());
}

TEST_F(SimpleSms, FilesThatCannotBeLookedAtAreLoggedAndSkipped) {
    vxtest::writeFile(spool + "one", "x");
    ASSERT_EQ(::chmod("/dev/log", 0666), 0);
    ASSERT_EQ(::chmod(spool.c_str(), 0744), 0);  // may be listed by others, not searched
    EXPECT_EQ(vxtest::inChild([] {
                  if (::setresgid(65534, 65534, 65534) != 0 || ::setresuid(65534, 65534, 65534) != 0) return 99;
                  std::vector<std::pair<long long, std::string>> ids;
                  CSimpleSMS::RetrieveIncomingIds(ids);
                  return ids.empty() ? 0 : 1;
              }),
              0);
    EXPECT_THAT(log.take(),
                ElementsAre(LogLine{LOG_DEBUG, "Unable to stat " + spool + "one - errno=Permission denied"}));
}

TEST_F(SimpleSms, TheExampleAnswersEveryMessage) {
    tool(0);
    vxtest::writeFile(spool + "17", "From: +4930123\nReceived: now\n\nstatus?\n");
    const auto output = vxtest::run({vxtest::built("examples/simplesms_answer"), "all", "is", "well"});
    EXPECT_EQ(output.status, 0);
    EXPECT_EQ(output.text, "+4930123 asks: status?\nanswered\n");
    EXPECT_EQ(vxtest::readFile("/tmp/sent"), "To: +4930123\n\nall is well\n");
    EXPECT_FALSE(vxtest::exists(spool + "17"));
}

}  // namespace
