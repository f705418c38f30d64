// SPDX-License-Identifier: MIT
// Values, links and FIFOs in the status tree.
#include <vxutils/statusinterface.h>

#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <string>
#include <utility>
#include <vector>

#include "support/files.h"
#include "support/process.h"
#include "support/resources.h"
#include "support/statusinterface.h"
#include "support/syslog_capture.h"

namespace {

using namespace vxtest::statusinterface;

using testing::ElementsAre;
using testing::IsEmpty;
using vxtest::LogLine;

mode_t modeOf(const std::string &path) {
    struct stat info {};
    EXPECT_EQ(::lstat(path.c_str(), &info), 0) << path;
    return info.st_mode & 07777;
}

String stringOf(const std::string &text) {
    String s;
    s.concat(text.data(), static_cast<long>(text.size()));
    return s;
}

class Umask {
public:
    explicit Umask(mode_t mask) : before_(::umask(mask)) {}
    ~Umask() { ::umask(before_); }
    Umask(const Umask &) = delete;
    Umask &operator=(const Umask &) = delete;

private:
    mode_t before_;
};

TEST(StatusInterfaceExample, ObeysCommandsFromItsFifo) {
    const std::string directory = "/tmp/status/switchd";
    vxtest::Process daemon({vxtest::built("examples/statusinterface_daemon")});
    EXPECT_EQ(daemon.readLine(), "ready at /tmp/status/switchd");
    EXPECT_EQ(vxtest::readFile(directory + "/state"), "off\n");
    vxtest::writeFile(directory + "/command", "on\n");
    EXPECT_EQ(daemon.readLine(), "state is on");
    EXPECT_EQ(vxtest::readFile(directory + "/state"), "on\n");
    vxtest::writeFile(directory + "/command", "dance\noff\n");
    EXPECT_EQ(daemon.readLine(), "cannot dance");
    EXPECT_EQ(daemon.readLine(), "state is off");
    EXPECT_EQ(vxtest::readFile(directory + "/state"), "off\n");
    vxtest::writeFile(directory + "/command", "quit\n");
    EXPECT_EQ(daemon.wait(), 0);
    EXPECT_FALSE(vxtest::exists(directory + "/command"));
}

// ---- setup()

TEST(StatusSetup, MakesTheDirectoryAndItsParents) {
    std::filesystem::remove_all("/tmp/status");
    std::filesystem::remove_all("/nvstatus");
    vxtest::SyslogCapture log;
    StatusInterface status;
    EXPECT_TRUE(status.setup(BASEPATH_STATUS, "/abc"));
    EXPECT_TRUE(std::filesystem::is_directory("/tmp/status/abc"));
    EXPECT_TRUE(status.setup(BASEPATH_NVSTATUS, "/deep//down/here/"));
    EXPECT_TRUE(std::filesystem::is_directory("/nvstatus/deep/down/here"));
    EXPECT_TRUE(status.setup(BASEPATH_STATUS, "/abc"));  // all there already
    EXPECT_THAT(log.take(), IsEmpty());
}

TEST(StatusSetup, GivesDirectoriesTheFullModeLessTheUmask) {
    StatusInterface status;
    {
        const Umask open(0);
        EXPECT_TRUE(status.setup(BASEPATH_STATUS, "/open/inner"));
    }
    const Umask narrow(027);
    EXPECT_TRUE(status.setup(BASEPATH_STATUS, "/narrow"));
    EXPECT_EQ(modeOf("/tmp/status/open"), 0777U);
    EXPECT_EQ(modeOf("/tmp/status/open/inner"), 0777U);
    EXPECT_EQ(modeOf("/tmp/status/narrow"), 0750U);
}

TEST(StatusSetup, TakesTheNameAsItIs) {
    StatusInterface status;
    EXPECT_TRUE(status.setup(BASEPATH_STATUS, "-without-slash"));
    EXPECT_TRUE(std::filesystem::is_directory("/tmp/status-without-slash"));
    EXPECT_TRUE(status.setup(BASEPATH_STATUS, ""));
    EXPECT_TRUE(status.setStatus("/top", "x"));
    EXPECT_EQ(vxtest::readFile("/tmp/status/top"), "x");
}

// Making it tells only that there is something.
TEST(StatusSetup, ALastComponentThatIsNotADirectoryCountsAsThere) {
    vxtest::SyslogCapture log;
    vxtest::makeDirs("/tmp/status");
    vxtest::writeFile("/tmp/status/file", "in the way");
    std::filesystem::create_symlink("/tmp/none", "/tmp/status/link");
    for (const char *name : {"/file", "/link"}) {
        StatusInterface status;
        EXPECT_TRUE(status.setup(BASEPATH_STATUS, name)) << name;
        EXPECT_FALSE(status.setStatus("/state", "x")) << name;
        std::filesystem::remove(std::string("/tmp/status") + name);
    }
    EXPECT_FALSE(vxtest::exists("/tmp/none"));
    EXPECT_THAT(log.take(), IsEmpty());
}

TEST(StatusSetup, ReachesTheKernelsTree) {
    vxtest::SyslogCapture log;
    StatusInterface status;
    EXPECT_TRUE(status.setup(BASEPATH_PROC, "/sys"));
    String value;
    EXPECT_TRUE(status.getStatus("/kernel/ostype", value));
    EXPECT_EQ(textOf(value), "Linux\n");
    EXPECT_THAT(log.take(), IsEmpty());
    EXPECT_FALSE(status.setup(BASEPATH_PROC, "/no-such-thing"));
    EXPECT_THAT(log.take(), ElementsAre(LogLine{LOG_ERR, "Could not create directory /proc/no-such-thing. Errno:" +
                                                             std::to_string(ENOENT) + "!"},
                                        LogLine{LOG_ERR, "Could not setup status interface for /proc/no-such-thing!"}));
}

TEST(StatusSetup, KnowsThreeTreesOnly) {
    vxtest::SyslogCapture log;
    for (const int number : {3, -1, 99, INT32_MIN}) {
        StatusInterface status;
        EXPECT_TRUE(status.setup(BASEPATH_STATUS, "/abc"));
        EXPECT_FALSE(status.setup(static_cast<BasePath>(number), "/abc"));
        EXPECT_THAT(log.take(), ElementsAre(LogLine{LOG_ERR, "Could not setup status interface for !"}));
        EXPECT_TRUE(status.setStatus("/tmp/bare", "x"));  // there is no directory now
        EXPECT_EQ(vxtest::readFile("/tmp/bare"), "x");
    }
}

TEST(StatusSetup, NamesArePathsBeforeIt) {
    const std::filesystem::path before = std::filesystem::current_path();
    vxtest::makeDirs("/tmp/place/sub/deeper");
    std::filesystem::current_path("/tmp/place");
    StatusInterface status;
    for (const char *name : {"state", "sub/state", "sub//deeper/state", "./sub/../up", "/tmp/place/absolute"}) {
        String value;
        EXPECT_TRUE(status.setStatus(name, name)) << name;
        EXPECT_TRUE(status.getStatus(name, value)) << name;
        EXPECT_EQ(textOf(value), name);
        EXPECT_EQ(vxtest::readFile(std::filesystem::path("/tmp/place") / name), name);
    }
    EXPECT_FALSE(status.setStatus("missing/state", "x"));
    EXPECT_TRUE(status.setLink("sub/link", "state"));
    EXPECT_EQ(std::filesystem::read_symlink("/tmp/place/sub/link"), "state");
    std::filesystem::current_path(before);
    std::filesystem::remove_all("/tmp/place");
}

// ---- setStatus(), getStatus()

TEST_F(Status, IsWrittenAsItIs) {
    EXPECT_TRUE(status_.setStatus("/state", "up"));
    EXPECT_EQ(vxtest::readFile(directory_ + "/state"), "up");
    EXPECT_TRUE(status_.setStatus("/state", "d"));
    EXPECT_EQ(vxtest::readFile(directory_ + "/state"), "d");
    EXPECT_TRUE(status_.setStatus("/state", ""));
    EXPECT_TRUE(vxtest::exists(directory_ + "/state"));
    EXPECT_EQ(vxtest::readFile(directory_ + "/state"), "");
    const std::string binary("a\0b\n\xff", 5);
    EXPECT_TRUE(status_.setStatus("/state", stringOf(binary)));
    EXPECT_EQ(vxtest::readFile(directory_ + "/state"), binary);
}

TEST_F(Status, IsRewrittenInPlace) {
    EXPECT_TRUE(status_.setStatus("/state", "one"));
    struct stat before {};
    struct stat after {};
    ASSERT_EQ(::stat((directory_ + "/state").c_str(), &before), 0);
    EXPECT_TRUE(status_.setStatus("/state", "two"));
    ASSERT_EQ(::stat((directory_ + "/state").c_str(), &after), 0);
    EXPECT_EQ(before.st_ino, after.st_ino);
}

TEST_F(Status, HasMode0644LessTheUmaskWhenItIsNew) {
    {
        const Umask open(0);
        EXPECT_TRUE(status_.setStatus("/open", "x"));
    }
    const Umask narrow(077);
    EXPECT_TRUE(status_.setStatus("/narrow", "x"));
    EXPECT_EQ(modeOf(directory_ + "/open"), 0644U);
    EXPECT_EQ(modeOf(directory_ + "/narrow"), 0600U);
    EXPECT_TRUE(status_.setStatus("/open", "y"));
    EXPECT_EQ(modeOf(directory_ + "/open"), 0644U);
}

TEST_F(Status, OfAnyLengthIsReadBackWhole) {
    for (const size_t length : {0U, 1U, 98U, 99U, 100U, 198U, 199U, 10000U}) {
        std::string text;
        while (text.size() < length) text += "line " + std::to_string(text.size()) + "\n" + '\0';
        text.resize(length);
        vxtest::writeFile(directory_ + "/state", text);
        String value("something else");
        EXPECT_TRUE(status_.getStatus("/state", value));
        EXPECT_EQ(textOf(value), text);
    }
}

TEST_F(Status, ThatIsMissingIsFalseAndEmpty) {
    String value("something else");
    EXPECT_FALSE(status_.getStatus("/missing", value));
    EXPECT_EQ(value.length(), 0);
}

TEST_F(Status, MayBeReadIntoItsOwnName) {
    EXPECT_TRUE(status_.setStatus("/state", "up"));
    String both("/state");
    EXPECT_TRUE(status_.getStatus(both, both));
    EXPECT_EQ(textOf(both), "up");
}

TEST_F(Status, LeavesNoDescriptorOpen) {
    const vxtest::NoLeaks leaks;
    String value;
    for (int i = 0; i < 20; ++i) {
        EXPECT_TRUE(status_.setStatus("/state", "up"));
        EXPECT_TRUE(status_.getStatus("/state", value));
        EXPECT_FALSE(status_.getStatus("/missing", value));
    }
}

// ---- setLink()

TEST_F(Status, LinksPointAnywhere) {
    EXPECT_TRUE(status_.setLink("/link", "/nowhere/at all"));
    EXPECT_EQ(std::filesystem::read_symlink(directory_ + "/link"), "/nowhere/at all");
    EXPECT_TRUE(status_.setLink("/link", "other"));
    EXPECT_EQ(std::filesystem::read_symlink(directory_ + "/link"), "other");
}

TEST_F(Status, LinksReplaceFiles) {
    EXPECT_TRUE(status_.setStatus("/link", "a file"));
    EXPECT_TRUE(status_.setLink("/link", "target"));
    EXPECT_TRUE(std::filesystem::is_symlink(directory_ + "/link"));
}

TEST_F(Status, LinksWithoutTargetAreRemoved) {
    EXPECT_TRUE(status_.setLink("/link", "target"));
    EXPECT_TRUE(status_.setLink("/link", ""));
    EXPECT_FALSE(vxtest::exists(directory_ + "/link"));
    EXPECT_TRUE(status_.setLink("/link", ""));  // nothing to remove is fine
}

// ---- FIFOs

TEST_F(StatusFifo, JoinsMessagesThatCameTogether) {
    ASSERT_NE(status_.setupIpcRxFifo("/rx", &recorder_), 0U);
    write("/rx", "one;");
    write("/rx", "two;");
    serve();
    EXPECT_THAT(recorder_.pieces, ElementsAre("one;two;"));
    write("/rx", "three;");
    serve();
    EXPECT_THAT(recorder_.pieces, ElementsAre("one;two;", "three;"));
}

TEST_F(StatusFifo, DeliversInPiecesOfAtMost99Bytes) {
    ASSERT_NE(status_.setupIpcRxFifo("/rx", &recorder_), 0U);
    for (const size_t length : {1U, 98U, 99U, 100U, 150U, 198U, 1000U}) {
        recorder_.pieces.clear();
        std::string text;
        for (size_t i = 0; i < length; ++i) text += static_cast<char>(i * 7);
        write("/rx", text);
        serve();
        EXPECT_EQ(recorder_.text(), text);
        ASSERT_EQ(recorder_.pieces.size(), (length + 98) / 99);
        for (size_t i = 0; i + 1 < recorder_.pieces.size(); ++i) EXPECT_EQ(recorder_.pieces[i].size(), 99U);
    }
}

TEST_F(StatusFifo, IsIdentifiedByItsBufferedEvent) {
    const unsigned long id = status_.setupIpcRxFifo("/rx", &recorder_);
    write("/rx", "x");
    serve();
    EXPECT_EQ(recorder_.last, id);
    const int fd = bufferevent_getfd(reinterpret_cast<bufferevent *>(id));
    EXPECT_EQ(::fcntl(fd, F_GETFL) & (O_ACCMODE | O_NONBLOCK), O_RDWR | O_NONBLOCK);
}

TEST_F(StatusFifo, HasMode0666LessTheUmask) {
    {
        const Umask open(0);
        ASSERT_NE(status_.setupIpcRxFifo("/open", &recorder_), 0U);
    }
    const Umask narrow(027);
    ASSERT_NE(status_.setupIpcRxFifo("/narrow", &recorder_), 0U);
    EXPECT_TRUE(isFifo(directory_ + "/open"));
    EXPECT_EQ(modeOf(directory_ + "/open"), 0666U);
    EXPECT_EQ(modeOf(directory_ + "/narrow"), 0640U);
}

TEST_F(StatusFifo, ReplacesWhateverHasItsName) {
    EXPECT_TRUE(status_.setStatus("/rx", "a file"));
    ASSERT_NE(status_.setupIpcRxFifo("/rx", &recorder_), 0U);
    EXPECT_TRUE(isFifo(directory_ + "/rx"));
    EXPECT_TRUE(status_.setLink("/link", "/etc/hostname"));
    ASSERT_NE(status_.setupIpcRxFifo("/link", &recorder_), 0U);
    EXPECT_TRUE(isFifo(directory_ + "/link"));
}

TEST_F(StatusFifo, SeveralServeTheirOwnObservers) {
    Recorder other;
    const unsigned long one = status_.setupIpcRxFifo("/one", &recorder_);
    const unsigned long two = status_.setupIpcRxFifo("/two", &other);
    EXPECT_NE(one, two);
    write("/two", "for two");
    write("/one", "for one");
    serve();
    EXPECT_EQ(recorder_.text(), "for one");
    EXPECT_EQ(other.text(), "for two");
    status_.deleteIpcRxFifo(two);
    EXPECT_FALSE(vxtest::exists(directory_ + "/two"));
    EXPECT_TRUE(vxtest::exists(directory_ + "/one"));
    write("/one", "!");
    serve();
    EXPECT_EQ(recorder_.text(), "for one!");
}

TEST_F(StatusFifo, AnUnknownIdentifierIsIgnored) {
    const unsigned long id = status_.setupIpcRxFifo("/rx", &recorder_);
    status_.deleteIpcRxFifo(0);
    status_.deleteIpcRxFifo(id + 1);
    EXPECT_TRUE(isFifo(directory_ + "/rx"));
    status_.deleteIpcRxFifo(id);
    status_.deleteIpcRxFifo(id);
    EXPECT_FALSE(vxtest::exists(directory_ + "/rx"));
}

TEST_F(StatusFifo, MayBeDeletedByItsObserver) {
    auto *mortal = new Recorder;
    std::vector<std::string> seen;
    const unsigned long id = status_.setupIpcRxFifo("/rx", mortal);
    mortal->onData = [&] {
        seen = mortal->pieces;
        status_.deleteIpcRxFifo(id);
        delete std::exchange(mortal, nullptr);
    };
    write("/rx", std::string(500, 'y'));
    serve();
    EXPECT_THAT(seen, ElementsAre(std::string(99, 'y')));  // nothing more arrived anywhere
    EXPECT_EQ(mortal, nullptr);
    EXPECT_FALSE(vxtest::exists(directory_ + "/rx"));
}

TEST_F(StatusFifo, WithoutObserverThrowsItsDataAway) {
    ASSERT_NE(status_.setupIpcRxFifo("/rx", nullptr), 0U);
    for (int i = 0; i < 20; ++i) {
        write("/rx", std::string(60000, 'x'));
        serve();
    }
}

TEST_F(StatusFifo, TakesWholeMessagesOfManyProcesses) {
    constexpr int writers = 4;
    constexpr int messages = 200;
    ASSERT_NE(status_.setupIpcRxFifo("/rx", &recorder_), 0U);
    std::vector<pid_t> children;
    for (int writer = 0; writer < writers; ++writer) {
        children.push_back(vxtest::startChild([&] {
            const int fd = ::open((directory_ + "/rx").c_str(), O_WRONLY);
            for (int i = 0; i < messages; ++i) {
                std::string message(61, static_cast<char>('a' + writer));
                message.back() = '\n';
                if (::write(fd, message.data(), message.size()) != 61) return 1;
            }
            return 0;
        }));
    }
    EXPECT_TRUE(vxtest::eventually([&] {
        serve();
        return recorder_.text().size() == size_t{writers} * messages * 61;
    }));
    for (const pid_t child : children) EXPECT_EQ(vxtest::waitChild(child), 0);
    std::vector<int> count(writers);
    const std::string text = recorder_.text();
    for (size_t at = 0; at < text.size(); at += 61) {
        const char letter = text[at];
        ASSERT_EQ(text.substr(at, 60), std::string(60, letter));
        ASSERT_EQ(text[at + 60], '\n');
        ++count.at(static_cast<size_t>(letter - 'a'));
    }
    for (const int each : count) EXPECT_EQ(each, messages);
}

TEST_F(StatusFifo, TheReadCallbackServesAnyBufferedEvent) {
    bufferevent *pair[2];
    ASSERT_EQ(bufferevent_pair_new(base_, 0, pair), 0);
    bufferevent_enable(pair[1], EV_READ);
    const std::string text(250, 'z');
    bufferevent_write(pair[0], text.data(), text.size());
    serve();
    StatusInterface::STATUS_FIFO_READ_EVENT(pair[1], &recorder_);
    EXPECT_EQ(recorder_.text(), text);
    EXPECT_EQ(recorder_.pieces.size(), 3U);
    StatusInterface::STATUS_FIFO_READ_EVENT(pair[1], &recorder_);
    EXPECT_EQ(recorder_.pieces.size(), 3U);
    bufferevent_free(pair[0]);
    bufferevent_free(pair[1]);
    serve();
}

}  // namespace
