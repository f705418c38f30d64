// SPDX-License-Identifier: MIT
#include <dlfcn.h>
#include <event2/bufferevent.h>
#include <event2/event.h>
#include <vxutils/statusinterface.h>
extern "C" {
#include <event2/bufferevent_compat.h>
#include <event2/event_compat.h>
}
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <csignal>
#include <cstring>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "support/files.h"
#include "support/process.h"
#include "support/resources.h"
#include "support/syslog_capture.h"

namespace {

// What libevent does not do on demand. The library's calls come through the functions below.
struct Libevent {
    bool refuseNew = false;
    bool refuseEnable = false;
    std::vector<const bufferevent *> enabled;
    std::vector<const bufferevent *> freed;
};
Libevent libevent;

template <typename Function>
Function real(const char *name) {
    return reinterpret_cast<Function>(::dlsym(RTLD_NEXT, name));
}

}  // namespace

extern "C" bufferevent *bufferevent_new(evutil_socket_t fd, bufferevent_data_cb read, bufferevent_data_cb write,
                                        bufferevent_event_cb error, void *argument) {
    if (libevent.refuseNew) return nullptr;
    return real<decltype(&bufferevent_new)>("bufferevent_new")(fd, read, write, error, argument);
}

extern "C" int bufferevent_enable(bufferevent *bev, short what) {
    libevent.enabled.push_back(bev);
    if (libevent.refuseEnable) return -1;
    return real<decltype(&bufferevent_enable)>("bufferevent_enable")(bev, what);
}

extern "C" void bufferevent_free(bufferevent *bev) {
    libevent.freed.push_back(bev);
    real<decltype(&bufferevent_free)>("bufferevent_free")(bev);
}

namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using vxtest::LogLine;

mode_t modeOf(const std::string &path) {
    struct stat info {};
    EXPECT_EQ(::lstat(path.c_str(), &info), 0) << path;
    return info.st_mode & 07777;
}

bool isFifo(const std::string &path) {
    struct stat info {};
    return ::lstat(path.c_str(), &info) == 0 && S_ISFIFO(info.st_mode);
}

std::string textOf(const String &s) { return {s.c_str(), static_cast<size_t>(s.length())}; }

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

// ---------------------------------------------------------------------------------------------------- setup

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

TEST(StatusSetup, LogsTheDirectoryThatItCannotMake) {
    vxtest::SyslogCapture log;
    vxtest::writeFile("/tmp/status/file", "in the way");
    StatusInterface status;
    EXPECT_FALSE(status.setup(BASEPATH_STATUS, "/file/sub/deeper"));
    const std::string number = std::to_string(ENOTDIR);
    EXPECT_THAT(log.take(),
                ElementsAre(LogLine{LOG_ERR, "Could not create directory /tmp/status/file/sub. Errno:" + number + "!"},
                            LogLine{LOG_ERR, "Could not setup status interface for /tmp/status/file/sub!"}));
    std::filesystem::remove("/tmp/status/file");
    vxtest::makeDirs("/tmp/status/file/sub/deeper");
    EXPECT_TRUE(status.setStatus("/x", "y"));  // the path was chosen all the same
    EXPECT_EQ(vxtest::readFile("/tmp/status/file/sub/deeper/x"), "y");
    std::filesystem::remove_all("/tmp/status/file");
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

TEST(StatusSetup, LogsPathsOfAnyLength) {
    vxtest::SyslogCapture log;
    StatusInterface status;
    const std::string longName(300, 'x');
    EXPECT_FALSE(status.setup(BASEPATH_STATUS, ("/" + longName).c_str()));
    const auto lines = log.take();
    ASSERT_EQ(lines.size(), 2U);
    EXPECT_EQ(lines[1].text, "Could not setup status interface for /tmp/status/" + longName + "!");
}

// ---------------------------------------------------------------------------------------- setStatus, getStatus

class Status : public testing::Test {
protected:
    Status() { EXPECT_TRUE(status_.setup(BASEPATH_STATUS, "/daemon")); }
    ~Status() override { std::filesystem::remove_all(directory_); }
    Status(const Status &) = delete;
    Status &operator=(const Status &) = delete;

    const std::string directory_ = "/tmp/status/daemon";
    StatusInterface status_;
};

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

TEST_F(Status, IsNotWrittenWithoutItsDirectoryOrOverOne) {
    EXPECT_FALSE(status_.setStatus("/missing/state", "x"));
    vxtest::makeDirs(directory_ + "/dir");
    EXPECT_FALSE(status_.setStatus("/dir", "x"));
}

TEST_F(Status, TellsWhenNotEveryByteWasTaken) {
    ASSERT_TRUE(status_.setLink("/full", "/dev/full"));
    EXPECT_FALSE(status_.setStatus("/full", "x"));
    EXPECT_EQ(vxtest::inChild([&] {
                  ::signal(SIGXFSZ, SIG_IGN);
                  const rlimit limit{10, 10};
                  if (::setrlimit(RLIMIT_FSIZE, &limit) == -1) return 1;
                  return status_.setStatus("/short", "0123456789a") ? 2 : 0;
              }),
              0);
    EXPECT_EQ(vxtest::readFile(directory_ + "/short"), "0123456789");
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

TEST_F(Status, ReadErrorsCountAsTheEnd) {
    vxtest::makeDirs(directory_ + "/dir");
    String value("something else");
    EXPECT_TRUE(status_.getStatus("/dir", value));  // can be opened, cannot be read
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

// -------------------------------------------------------------------------------------------------- setLink

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

TEST_F(Status, LinksFailWhereNoneCanBeMade) {
    vxtest::makeDirs(directory_ + "/dir");
    EXPECT_FALSE(status_.setLink("/dir", "target"));
    EXPECT_TRUE(std::filesystem::is_directory(directory_ + "/dir"));
    EXPECT_TRUE(status_.setLink("/dir", ""));
    EXPECT_FALSE(status_.setLink("/missing/link", "target"));
}

// ---------------------------------------------------------------------------------------------------- FIFOs

// Keeps the pieces it receives.
class Recorder : public StatusFifoObserver {
public:
    void fifoDataReceived(bufferevent *bev, char *data, unsigned long length) override {
        EXPECT_EQ(data[length], '\0');
        pieces.emplace_back(data, length);
        memset(data, 'x', length);  // the data is the observer's to change
        last = reinterpret_cast<unsigned long>(bev);
        if (onData) onData();
    }
    std::string text() const {
        std::string all;
        for (const std::string &piece : pieces) all += piece;
        return all;
    }
    std::vector<std::string> pieces;
    unsigned long last = 0;
    std::function<void()> onData;
};

class StatusFifo : public Status {
protected:
    StatusFifo() : base_(event_init()) { libevent = {}; }
    ~StatusFifo() override {
        libevent = {};
        status_.cleanup();
        serve();
        event_base_free(base_);  // the current base again: none
    }
    StatusFifo(const StatusFifo &) = delete;
    StatusFifo &operator=(const StatusFifo &) = delete;

    void serve() {
        while (event_base_loop(base_, EVLOOP_NONBLOCK) == 0 &&
               event_base_get_num_events(base_, EVENT_BASE_COUNT_ACTIVE)) {
        }
    }
    void write(const std::string &name, const std::string &text) {
        const int fd = ::open((directory_ + name).c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC);
        ASSERT_NE(fd, -1) << name;
        EXPECT_EQ(::write(fd, text.data(), text.size()), static_cast<ssize_t>(text.size()));
        ::close(fd);
    }

    event_base *base_;
    Recorder recorder_;
};

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

TEST_F(StatusFifo, FailsWhereNoneCanBeMade) {
    const vxtest::NoLeaks leaks;
    EXPECT_EQ(status_.setupIpcRxFifo("/missing/rx", &recorder_), 0U);
    vxtest::makeDirs(directory_ + "/dir");
    EXPECT_EQ(status_.setupIpcRxFifo("/dir", &recorder_), 0U);
    EXPECT_TRUE(std::filesystem::is_directory(directory_ + "/dir"));
}

TEST_F(StatusFifo, LeavesItsFileInPlaceWhenALaterStepFails) {
    if (!vxtest::hasOtherUsers()) GTEST_SKIP() << "a box made by an ordinary user has no other";
    ASSERT_EQ(::chown(directory_.c_str(), 12345, 12345), 0);
    EXPECT_EQ(vxtest::inChild([&] {
                  if (::setresuid(12345, 12345, 12345) == -1) return 1;
                  ::umask(0777);  // no user may open it
                  return status_.setupIpcRxFifo("/rx", &recorder_) == 0 ? 0 : 2;
              }),
              0);
    EXPECT_TRUE(isFifo(directory_ + "/rx"));
}

TEST_F(StatusFifo, WithoutABufferedEventThereIsNoneAndNothingStays) {
    const vxtest::NoLeaks leaks;
    libevent.refuseNew = true;
    EXPECT_EQ(status_.setupIpcRxFifo("/rx", &recorder_), 0U);
    EXPECT_TRUE(libevent.enabled.empty());
    EXPECT_TRUE(libevent.freed.empty());
    EXPECT_TRUE(isFifo(directory_ + "/rx"));  // left in place
    status_.cleanup();
    EXPECT_TRUE(isFifo(directory_ + "/rx"));  // and no FIFO of this object
}

TEST_F(StatusFifo, ABufferedEventThatCannotBeEnabledIsFreedOnce) {
    {
        const vxtest::NoLeaks leaks;
        libevent.refuseEnable = true;
        EXPECT_EQ(status_.setupIpcRxFifo("/rx", &recorder_), 0U);
        ASSERT_EQ(libevent.enabled.size(), 1U);
        EXPECT_EQ(libevent.freed, libevent.enabled);
        status_.cleanup();
        EXPECT_EQ(libevent.freed.size(), 1U);
        serve();
        EXPECT_EQ(event_base_get_num_events(base_, EVENT_BASE_COUNT_ADDED), 0);
        EXPECT_TRUE(isFifo(directory_ + "/rx"));  // left in place
    }
    libevent = {};
    const unsigned long id = status_.setupIpcRxFifo("/rx", &recorder_);
    ASSERT_NE(id, 0U);
    write("/rx", "at last");
    serve();
    EXPECT_EQ(recorder_.text(), "at last");
    status_.deleteIpcRxFifo(id);
    EXPECT_EQ(libevent.freed.size(), 1U);
    EXPECT_FALSE(vxtest::exists(directory_ + "/rx"));
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

TEST_F(StatusFifo, CleanupAndDestructorRemoveEveryFile) {
    const vxtest::NoLeaks leaks;
    const std::vector<std::string> names{"/a", "/b", "/c"};
    std::vector<const bufferevent *> newestFirst;
    for (const std::string &name : names) {
        const unsigned long id = status_.setupIpcRxFifo(name.c_str(), &recorder_);
        ASSERT_NE(id, 0U);
        newestFirst.insert(newestFirst.begin(), reinterpret_cast<const bufferevent *>(id));
    }
    status_.cleanup();
    EXPECT_EQ(libevent.freed, newestFirst);
    for (const std::string &name : names) EXPECT_FALSE(vxtest::exists(directory_ + name));
    status_.cleanup();
    {
        StatusInterface other;
        ASSERT_TRUE(other.setup(BASEPATH_STATUS, "/daemon"));
        for (const std::string &name : names) ASSERT_NE(other.setupIpcRxFifo(name.c_str(), &recorder_), 0U);
    }
    for (const std::string &name : names) EXPECT_FALSE(vxtest::exists(directory_ + name));
    serve();
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

// The new FIFO's descriptor has the number of the old one's.
TEST_F(StatusFifo, MayBeMadeAnewByItsObserver) {
    unsigned long id = status_.setupIpcRxFifo("/rx", &recorder_);
    const int first = bufferevent_getfd(reinterpret_cast<bufferevent *>(id));
    recorder_.onData = [&] {
        status_.deleteIpcRxFifo(id);
        id = status_.setupIpcRxFifo("/rx", &recorder_);
    };
    for (int i = 0; i < 5; ++i) {
        recorder_.pieces.clear();
        write("/rx", "message");
        serve();
        EXPECT_THAT(recorder_.pieces, ElementsAre("message")) << i;
        EXPECT_EQ(bufferevent_getfd(reinterpret_cast<bufferevent *>(id)), first) << "the number in question";
    }
}

TEST_F(StatusFifo, ADescriptorThatTakesItsNumberInTheCallbackIsServed) {
    int served = 0;
    const unsigned long id = status_.setupIpcRxFifo("/rx", &recorder_);
    const int number = bufferevent_getfd(reinterpret_cast<bufferevent *>(id));
    int ends[2] = {-1, -1};
    event *watch = nullptr;
    recorder_.onData = [&] {
        status_.deleteIpcRxFifo(id);
        int made[2];
        ASSERT_EQ(::pipe2(made, O_NONBLOCK | O_CLOEXEC), 0);
        ends[1] = ::fcntl(made[1], F_DUPFD_CLOEXEC, number + 1);
        ends[0] = ::fcntl(made[0], F_DUPFD_CLOEXEC, number + 1);
        for (const int fd : made) ::close(fd);
        ASSERT_EQ(::dup3(ends[0], number, O_CLOEXEC), number);
        ::close(std::exchange(ends[0], number));
        watch = event_new(
            base_, number, EV_READ | EV_PERSIST,
            [](evutil_socket_t fd, short, void *argument) {
                char byte = 0;
                if (::read(fd, &byte, 1) == 1) ++*static_cast<int *>(argument);
            },
            &served);
        event_add(watch, nullptr);
    };
    write("/rx", "go");
    serve();
    for (int i = 1; i <= 3; ++i) {
        EXPECT_EQ(::write(ends[1], "x", 1), 1);
        serve();
        EXPECT_EQ(served, i);
    }
    event_free(watch);
    ::close(ends[0]);
    ::close(ends[1]);
}

// The observer has the buffered event's address and may have made it wait for its turn to write as well.
TEST_F(StatusFifo, LeavesTheBaseAtOnceHoweverItsObserverUsedIt) {
    const unsigned long id = status_.setupIpcRxFifo("/rx", &recorder_);
    int left = -1;
    recorder_.onData = [&] {
        auto *bev = reinterpret_cast<bufferevent *>(id);
        bufferevent_enable(bev, EV_READ | EV_WRITE);
        bufferevent_write(bev, "answer", 6);
        status_.deleteIpcRxFifo(id);
        left = event_base_get_num_events(base_, EVENT_BASE_COUNT_ADDED);
    };
    write("/rx", "go");
    serve();
    EXPECT_EQ(left, 0);
}

TEST_F(StatusFifo, AllMayBeEndedByOneObserver) {
    Recorder other;
    auto status = std::make_unique<StatusInterface>();
    ASSERT_TRUE(status->setup(BASEPATH_STATUS, "/daemon"));
    ASSERT_NE(status->setupIpcRxFifo("/one", &other), 0U);
    ASSERT_NE(status->setupIpcRxFifo("/two", &other), 0U);
    other.onData = [&] { status.reset(); };
    write("/one", "x");
    write("/two", "x");
    serve();
    EXPECT_EQ(other.pieces.size(), 1U);
    EXPECT_EQ(event_base_get_num_events(base_, EVENT_BASE_COUNT_ADDED), 0);
    EXPECT_FALSE(vxtest::exists(directory_ + "/one"));
    EXPECT_FALSE(vxtest::exists(directory_ + "/two"));
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

TEST_F(Status, AFifoNeedsACurrentEventBase) {
    const vxtest::NoLeaks leaks;
    Recorder recorder;
    EXPECT_EQ(status_.setupIpcRxFifo("/rx", &recorder), 0U);
    EXPECT_TRUE(isFifo(directory_ + "/rx"));  // left in place
}

// -------------------------------------------------------------------------------------------------- example

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

}  // namespace
