// SPDX-License-Identifier: MIT
// The status tree where the system or libevent refuses a step, and FIFOs that end in the middle of a callback.
#include <vxutils/statusinterface.h>

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "support/call_hooks.h"
#include "support/files.h"
#include "support/open_hook.h"
#include "support/process.h"
#include "support/resources.h"
#include "support/short_objects.h"
#include "support/statusinterface.h"
#include "support/syslog_capture.h"

VXTEST_HOOK(bufferevent *, bufferevent_new,
            (evutil_socket_t fd, bufferevent_data_cb read, bufferevent_data_cb write, bufferevent_event_cb error,
             void *argument),
            (fd, read, write, error, argument))
VXTEST_HOOK_AS(int, fstat, "__fstat64_time64", (int fd, struct stat *status), (fd, status))
VXTEST_HOOK(int, mkfifoat, (int directory, const char *name, mode_t mode), (directory, name, mode))
VXTEST_HOOK(int, bufferevent_enable, (bufferevent * bev, short what), (bev, what))
VXTEST_WATCH(bufferevent_free, (bufferevent * bev), (bev))

namespace {

using namespace vxtest::statusinterface;

namespace hooks = vxtest::hooks;

using testing::ElementsAre;
using vxtest::Hooked;
using vxtest::LogLine;

using StatusFaults = Status;

// What the library asks of libevent.
class StatusFifoFaults : public StatusFifo {
protected:
    StatusFifoFaults() {
        hooks::bufferevent_enable = [this](const bufferevent *bev, short) -> std::optional<int> {
            enabled_.push_back(bev);
            return refuseEnable_ ? std::optional(-1) : std::nullopt;
        };
        hooks::bufferevent_free = [this](const bufferevent *bev) { freed_.push_back(bev); };
    }
    ~StatusFifoFaults() override {
        hooks::bufferevent_enable = nullptr;
        hooks::bufferevent_free = nullptr;
    }
    StatusFifoFaults(const StatusFifoFaults &) = delete;
    StatusFifoFaults &operator=(const StatusFifoFaults &) = delete;

    bool refuseEnable_ = false;
    std::vector<const bufferevent *> enabled_;
    std::vector<const bufferevent *> freed_;
};

// ---- directories, values and links

TEST(StatusSetupFaults, LogsTheDirectoryThatItCannotMake) {
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

TEST(StatusSetupFaults, LogsPathsOfAnyLength) {
    vxtest::SyslogCapture log;
    StatusInterface status;
    const std::string longName(300, 'x');
    EXPECT_FALSE(status.setup(BASEPATH_STATUS, ("/" + longName).c_str()));
    const auto lines = log.take();
    ASSERT_EQ(lines.size(), 2U);
    EXPECT_EQ(lines[1].text, "Could not setup status interface for /tmp/status/" + longName + "!");
}

// String aborts without memory; everything else fails.
TEST_F(StatusFifo, WithoutMemoryEachCallFails) {
    StatusInterface status;
    const String place("/a/place/with/a/name/that/is/not/short");
    const String name("/value");
    Recorder observer;
    const std::function<bool()> calls[] = {
        [&] { return status.setup(BASEPATH_STATUS, place); },
        [&] { return status.setStatus(name, String("text")); },
        [&] {
            String value;
            return status.getStatus(name, value);
        },
        [&] { return status.setLink(String("/link"), name); },
        [&] { return status.setupIpcRxFifo(String("/fifo"), &observer) != 0; },
    };
    for (const auto &call : calls) {
        int allocations = 0;
        for (bool done = false; !done; ++allocations) {
            vxtest::objectsLeft = allocations;
            vxtest::objectsRunOut = true;
            EXPECT_NO_THROW(done = call());
            vxtest::objectsRunOut = false;
            ASSERT_LT(allocations, 100);
        }
        EXPECT_GT(allocations, 1) << "call " << &call - calls;
    }
    vxtest::objectsLeft = 0;
    vxtest::objectsRunOut = true;
    status.cleanup();
    vxtest::objectsRunOut = false;
    std::filesystem::remove_all("/tmp/status/a");
}

TEST_F(StatusFaults, IsNotWrittenWithoutItsDirectoryOrOverOne) {
    EXPECT_FALSE(status_.setStatus("/missing/state", "x"));
    vxtest::makeDirs(directory_ + "/dir");
    EXPECT_FALSE(status_.setStatus("/dir", "x"));
}

// Not there when it is opened, there when it is created: as if another process made and removed it all the time.
TEST(StatusSetupFaults, AFileThatComesAndGoesAllTheTimeIsGivenUp) {
    vxtest::makeDirs("/tmp/place");
    int attempts = 0;
    StatusInterface status;
    {
        const Hooked flickering(hooks::open, [&](const char *path, int flags) -> std::optional<int> {
            if (!std::string_view(path).ends_with("state")) return std::nullopt;
            ++attempts;
            errno = (flags & O_CREAT) != 0 ? EEXIST : ENOENT;
            return -1;
        });
        EXPECT_FALSE(status.setStatus("/tmp/place/state", "x"));
        EXPECT_EQ(errno, EACCES);
    }
    EXPECT_EQ(attempts, 80) << "to open and to create it, 40 times";
    EXPECT_FALSE(vxtest::exists("/tmp/place/state"));
    EXPECT_TRUE(status.setStatus("/tmp/place/state", "x"));
    std::filesystem::remove_all("/tmp/place");
}

TEST(StatusSetupFaults, APathFromACurrentDirectoryThatCannotBeOpenedLeadsNowhere) {
    const std::filesystem::path before = std::filesystem::current_path();
    vxtest::makeDirs("/tmp/place/sub");
    std::filesystem::current_path("/tmp/place");
    StatusInterface status;
    {
        const Hooked closed(hooks::open, [](const char *path, int) -> std::optional<int> {
            if (std::string_view(path) != ".") return std::nullopt;
            errno = EACCES;
            return -1;
        });
        EXPECT_FALSE(status.setStatus("sub/state", "x"));
        EXPECT_EQ(errno, EACCES);
        EXPECT_FALSE(vxtest::exists("state"));
    }
    EXPECT_TRUE(status.setStatus("sub/state", "x"));
    std::filesystem::current_path(before);
    std::filesystem::remove_all("/tmp/place");
}

// The text of a link in /proc/self/fd is not always a path, and another directory may have that name.
TEST(StatusSetupFaults, ALinkToAnOpenDirectoryLeadsToItWhateverItsTextSays) {
    vxtest::makeDirs("/tmp/place/kept");
    vxtest::makeDirs("/tmp/place/gone");
    const int kept = ::open("/tmp/place/kept", O_PATH | O_CLOEXEC);
    const int gone = ::open("/tmp/place/gone", O_PATH | O_CLOEXEC);
    std::filesystem::remove("/tmp/place/gone");
    vxtest::makeDirs("/tmp/place/gone (deleted)");
    const auto link = [](int fd) { return "/proc/self/fd/" + std::to_string(fd) + "/state"; };
    StatusInterface status;
    EXPECT_FALSE(status.setStatus(link(gone).c_str(), "x"));
    EXPECT_FALSE(vxtest::exists("/tmp/place/gone (deleted)/state"));
    EXPECT_TRUE(status.setStatus(link(kept).c_str(), "x"));
    EXPECT_EQ(vxtest::readFile("/tmp/place/kept/state"), "x");
    ::close(kept);
    ::close(gone);
    std::filesystem::remove_all("/tmp/place");
}

// Its directories are looked at, not opened one by one.
TEST_F(StatusFaults, ATreeThatStrangersCannotChangeIsNotWalked) {
    vxtest::makeDirs(directory_ + "/a/b");
    const auto walked = [&](const char *name) {
        int places = 0;
        const Hooked counted(hooks::open, [&](const char *, int flags) -> std::optional<int> {
            if ((flags & O_PATH) != 0 && (flags & O_NOFOLLOW) != 0) ++places;
            return std::nullopt;
        });
        EXPECT_TRUE(status_.setStatus(name, "x"));
        return places;
    };
    EXPECT_EQ(walked("/a/b/state"), 0);
    std::filesystem::create_symlink("a", directory_ + "/link");
    EXPECT_GT(walked("/link/b/state"), 0) << "a link is walked through";
}

TEST_F(StatusFaults, ADirectoryThatCannotBeExaminedIsNotEntered) {
    vxtest::makeDirs(directory_ + "/a");
    std::filesystem::create_symlink(directory_ + "/a", directory_ + "/link");
    int refusals = 0;
    for (bool refused = true; refused; ++refusals) {
        int left = refusals;
        refused = false;
        const Hooked failing(hooks::fstat, [&](int, const struct stat *) -> std::optional<int> {
            if (left-- != 0) return std::nullopt;
            refused = true;
            errno = EIO;
            return -1;
        });
        const bool written = status_.setStatus("/link/state", "x");
        EXPECT_EQ(written, !refused) << "look " << refusals;
        ASSERT_LT(refusals, 100);
    }
    EXPECT_GT(refusals, 5) << "each directory of the way, link and file";
}

TEST_F(StatusFaults, TellsWhenNotEveryByteWasTaken) {
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

TEST_F(StatusFaults, ReadErrorsCountAsTheEnd) {
    vxtest::makeDirs(directory_ + "/dir");
    String value("something else");
    EXPECT_TRUE(status_.getStatus("/dir", value));  // can be opened, cannot be read
    EXPECT_EQ(value.length(), 0);
}

TEST_F(StatusFaults, LinksFailWhereNoneCanBeMade) {
    vxtest::makeDirs(directory_ + "/dir");
    EXPECT_FALSE(status_.setLink("/dir", "target"));
    EXPECT_TRUE(std::filesystem::is_directory(directory_ + "/dir"));
    EXPECT_TRUE(status_.setLink("/dir", ""));
    EXPECT_FALSE(status_.setLink("/missing/link", "target"));
}

TEST_F(StatusFaults, AFifoNeedsACurrentEventBase) {
    const vxtest::NoLeaks leaks;
    Recorder recorder;
    EXPECT_EQ(status_.setupIpcRxFifo("/rx", &recorder), 0U);
    EXPECT_TRUE(isFifo(directory_ + "/rx"));  // left in place
}

// ---- FIFOs that cannot be made

TEST_F(StatusFifoFaults, FailsWhereNoneCanBeMade) {
    const vxtest::NoLeaks leaks;
    EXPECT_EQ(status_.setupIpcRxFifo("/missing/rx", &recorder_), 0U);
    vxtest::makeDirs(directory_ + "/dir");
    EXPECT_EQ(status_.setupIpcRxFifo("/dir", &recorder_), 0U);
    EXPECT_TRUE(std::filesystem::is_directory(directory_ + "/dir"));
}

TEST_F(StatusFifoFaults, AFifoThatAnotherProgramMakesFirstIsNotUsed) {
    const vxtest::NoLeaks leaks;
    const Hooked late(hooks::mkfifoat, [](int directory, const char *name, mode_t mode) -> std::optional<int> {
        EXPECT_EQ(vxtest::real::mkfifoat(directory, name, mode), 0);
        errno = EEXIST;
        return -1;
    });
    EXPECT_EQ(status_.setupIpcRxFifo("/rx", &recorder_), 0U);
}

TEST_F(StatusFifoFaults, LeavesItsFileInPlaceWhenALaterStepFails) {
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

TEST_F(StatusFifoFaults, WithoutABufferedEventThereIsNoneAndNothingStays) {
    const vxtest::NoLeaks leaks;
    {
        const Hooked refused(hooks::bufferevent_new, vxtest::answering<bufferevent *>(nullptr, ENOMEM));
        EXPECT_EQ(status_.setupIpcRxFifo("/rx", &recorder_), 0U);
    }
    EXPECT_TRUE(enabled_.empty());
    EXPECT_TRUE(freed_.empty());
    EXPECT_TRUE(isFifo(directory_ + "/rx"));  // left in place
    status_.cleanup();
    EXPECT_TRUE(isFifo(directory_ + "/rx"));  // and no FIFO of this object
}

TEST_F(StatusFifoFaults, ABufferedEventThatCannotBeEnabledIsFreedOnce) {
    {
        const vxtest::NoLeaks leaks;
        refuseEnable_ = true;
        EXPECT_EQ(status_.setupIpcRxFifo("/rx", &recorder_), 0U);
        ASSERT_EQ(enabled_.size(), 1U);
        EXPECT_EQ(freed_, enabled_);
        status_.cleanup();
        EXPECT_EQ(freed_.size(), 1U);
        serve();
        EXPECT_EQ(event_base_get_num_events(base_, EVENT_BASE_COUNT_ADDED), 0);
        EXPECT_TRUE(isFifo(directory_ + "/rx"));  // left in place
    }
    refuseEnable_ = false;
    freed_.clear();
    const unsigned long id = status_.setupIpcRxFifo("/rx", &recorder_);
    ASSERT_NE(id, 0U);
    write("/rx", "at last");
    serve();
    EXPECT_EQ(recorder_.text(), "at last");
    status_.deleteIpcRxFifo(id);
    EXPECT_EQ(freed_.size(), 1U);
    EXPECT_FALSE(vxtest::exists(directory_ + "/rx"));
}

// ---- the end of FIFOs

TEST_F(StatusFifoFaults, CleanupAndDestructorRemoveEveryFile) {
    const vxtest::NoLeaks leaks;
    const std::vector<std::string> names{"/a", "/b", "/c"};
    std::vector<const bufferevent *> newestFirst;
    for (const std::string &name : names) {
        const unsigned long id = status_.setupIpcRxFifo(name.c_str(), &recorder_);
        ASSERT_NE(id, 0U);
        newestFirst.insert(newestFirst.begin(), reinterpret_cast<const bufferevent *>(id));
    }
    status_.cleanup();
    EXPECT_EQ(freed_, newestFirst);
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

// The new FIFO's descriptor has the number of the old one's.
TEST_F(StatusFifoFaults, MayBeMadeAnewByItsObserver) {
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

TEST_F(StatusFifoFaults, ADescriptorThatTakesItsNumberInTheCallbackIsServed) {
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
TEST_F(StatusFifoFaults, LeavesTheBaseAtOnceHoweverItsObserverUsedIt) {
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

TEST_F(StatusFifoFaults, AllMayBeEndedByOneObserver) {
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

}  // namespace
