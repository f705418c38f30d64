// SPDX-License-Identifier: MIT
// The event loop, on real descriptors and timers.
#include <vxutils/eventsource.h>

#include <devlog.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/timerfd.h>
#include <syslog.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <chrono>
#include <climits>
#include <csignal>
#include <cstring>
#include <fstream>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <random>
#include <sstream>
#include <stdexcept>
#include <thread>
#include <vector>

#include "support/descriptor_limit.h"
#include "support/files.h"
#include "support/process.h"
#include "support/resources.h"
#include "support/syslog_capture.h"
#include "support/text.h"
#include "support/vtable.h"

namespace {

using vxtest::textf;

using vxtest::LogLine;
using Lines = std::vector<LogLine>;
using namespace std::chrono_literals;

constexpr int errorLevel = LOG_CRIT;  // what is logged at DL_ERROR

// What the kernel will not do on demand. The library's calls come through the functions below.
struct Kernel {
    std::function<std::optional<int>(epoll_event *, int)> wait;  // result with errno set, or nothing: the real call
    std::function<bool(int operation, int fd)> refuseControl;    // refused with EPERM
    bool refuseSetTime = false;
    int controlCalls = 0;
    int setTimeCalls = 0;
};
Kernel kernel;

template <typename Function>
Function real(const char *name) {
    return reinterpret_cast<Function>(::dlsym(RTLD_NEXT, name));
}

}  // namespace

extern "C" int epoll_wait(int epfd, epoll_event *events, int max, int timeout) {
    if (kernel.wait) {
        if (const auto result = kernel.wait(events, max)) return *result;
    }
    static const auto next = real<int (*)(int, epoll_event *, int, int)>("epoll_wait");
    return next(epfd, events, max, timeout);
}

extern "C" int epoll_ctl(int epfd, int operation, int fd, epoll_event *event) noexcept {
    ++kernel.controlCalls;
    if (kernel.refuseControl && kernel.refuseControl(operation, fd)) {
        errno = EPERM;
        return -1;
    }
    static const auto next = real<int (*)(int, int, int, epoll_event *)>("epoll_ctl");
    return next(epfd, operation, fd, event);
}

extern "C" int timerfd_settime(int fd, int flags, const itimerspec *setting, itimerspec *old) noexcept {
    ++kernel.setTimeCalls;
    if (kernel.refuseSetTime) {
        errno = EPERM;
        return -1;
    }
    constexpr const char *name = sizeof(long) == 4 ? "__timerfd_settime64" : "timerfd_settime";
    static const auto next = real<int (*)(int, int, const itimerspec *, itimerspec *)>(name);
    return next(fd, flags, setting, old);
}

// The boards write both levels of errors with one priority; here they are told apart.
extern "C" int devlog_level_to_prio(const devlog_level *level) {
    static const auto next = real<int (*)(const devlog_level *)>("devlog_level_to_prio");
    return level == DL_ERROR ? errorLevel : next(level);
}

namespace {

// A sink on an eventfd: readable from fire() to clear(), always writable.
class Sink : public IFDEventsink {
public:
    Sink() : fd_(::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC)) {}
    explicit Sink(int fd) : fd_(fd), owned_(false) {}
    ~Sink() override {
        if (owned_) ::close(fd_);
    }

    void fire() const { ASSERT_EQ(::eventfd_write(fd_, 1), 0); }
    void clear() const {
        eventfd_t value = 0;
        ASSERT_EQ(::eventfd_read(fd_, &value), 0);
    }
    void closeNow() {
        ::close(fd_);
        owned_ = false;
    }

    void onReadable() override {
        ++reads;
        if (whenReadable) whenReadable();
    }
    void onWritable() override {
        ++writes;
        if (whenWritable) whenWritable();
    }
    int getFd() const override { return fd_; }

    std::function<void()> whenReadable;
    std::function<void()> whenWritable;
    int reads = 0;
    int writes = 0;

private:
    int fd_;
    bool owned_ = true;
};

class Timer : public ITimeoutEventsink {
public:
    Timer(int periodMs, bool once) : ms(periodMs), oneShot(once) {}

    void onTimeout(unsigned int expirations) override {
        counts.push_back(expirations);
        if (whenFired) whenFired();
    }
    int getTimeoutMs() override { return ms; }
    bool isOneShot() override { return oneShot; }

    int ms;
    bool oneShot;
    std::function<void()> whenFired;
    std::vector<unsigned int> counts;
};

std::vector<int> descriptorsOn(const std::string &target) {
    std::vector<int> found;
    for (const std::string &line : vxtest::openDescriptors()) {
        if (line.find(" -> " + target) != std::string::npos) found.push_back(std::stoi(line));
    }
    std::sort(found.begin(), found.end());
    return found;
}

std::vector<int> timerDescriptors() { return descriptorsOn("anon_inode:[timerfd]"); }
int epollDescriptor() { return descriptorsOn("anon_inode:[eventpoll]").at(0); }

// What the epoll set holds: descriptor -> (events, data).
std::map<int, std::pair<uint32_t, uint64_t>> watched() {
    std::map<int, std::pair<uint32_t, uint64_t>> found;
    std::istringstream info(vxtest::readFile("/proc/self/fdinfo/" + std::to_string(epollDescriptor())));
    for (std::string line; std::getline(info, line);) {
        int fd = 0;
        unsigned int events = 0;
        unsigned long long data = 0;
        if (std::sscanf(line.c_str(), "tfd: %d events: %x data: %llx", &fd, &events, &data) == 3) {
            found[fd] = {events, data};
        }
    }
    return found;
}

class Eventsource : public testing::Test {
protected:
    Eventsource() {
        ::openlog("eventsource_test", LOG_NDELAY, LOG_USER);  // no further descriptor when something is logged
        descriptorsBefore_ = vxtest::openDescriptors();
        kernel = {};
        source = std::make_unique<CEPollEventsource>();
    }
    ~Eventsource() override {
        kernel = {};
        source.reset();
        EXPECT_EQ(vxtest::openDescriptors(), descriptorsBefore_);
        EXPECT_EQ(log.take(), Lines{});
        ::closelog();
    }
    void init() { ASSERT_EQ(source->init(), 0); }

    // Runs the loop until everything that is ready now has been served, at least one round.
    void runUntilTerminated() { ASSERT_EQ(source->evtLoop(), 0); }

    vxtest::SyslogCapture log;
    std::vector<std::string> descriptorsBefore_;
    std::unique_ptr<CEPollEventsource> source;
};

// --- construction, init, destruction

TEST_F(Eventsource, TheConstructorOpensNothing) { EXPECT_EQ(vxtest::openDescriptors(), descriptorsBefore_); }

TEST_F(Eventsource, InitOpensTheEpollSetAndThePipeAndWatchesThePipe) {
    init();
    EXPECT_EQ(vxtest::openDescriptors().size(), descriptorsBefore_.size() + 3);
    const auto set = watched();
    ASSERT_EQ(set.size(), 1U);
    EXPECT_EQ(set.begin()->second.first & (EPOLLIN | EPOLLOUT | EPOLLET | EPOLLONESHOT), unsigned{EPOLLIN});
    EXPECT_EQ(set.begin()->second.second, static_cast<uint64_t>(set.begin()->first));
}

TEST_F(Eventsource, NothingItOpensSurvivesAnExec) {
    init();
    Timer timer(1000, false);
    source->addTimer(&timer);
    int opened = 0;
    for (const std::string &line : vxtest::openDescriptors()) {
        if (std::count(descriptorsBefore_.begin(), descriptorsBefore_.end(), line) != 0) continue;
        ++opened;
        EXPECT_NE(::fcntl(std::stoi(line), F_GETFD) & FD_CLOEXEC, 0) << line;
    }
    EXPECT_EQ(opened, 4);
    source->removeTimer(&timer);
}

TEST_F(Eventsource, InitFailsWithoutADescriptorForTheEpollSet) {
    const vxtest::DescriptorLimit none(0);
    EXPECT_EQ(source->init(), -1);
    EXPECT_EQ(log.take(), (Lines{{LOG_ERR, "Unable to initialize epoll - errno=Too many open files"}}));
}

TEST_F(Eventsource, InitFailsWithoutDescriptorsForThePipe) {
    for (const size_t more : {1, 2}) {
        const vxtest::DescriptorLimit limit(more);
        CEPollEventsource other;
        EXPECT_EQ(other.init(), -1);
        EXPECT_EQ(log.take(), (Lines{{LOG_ERR, "Unable to initialize command pipe - errno=Too many open files"}}));
    }
    const vxtest::DescriptorLimit enough(3);
    EXPECT_EQ(source->init(), 0);
}

TEST_F(Eventsource, InitFailsWhenThePipeCannotBeWatched) {
    kernel.refuseControl = [](int, int) { return true; };
    EXPECT_EQ(source->init(), -1);
    const Lines lines = log.take();
    ASSERT_EQ(lines.size(), 1U);
    EXPECT_EQ(lines[0].priority, LOG_ERR);
    EXPECT_THAT(lines[0].text,
                testing::MatchesRegex("epoll_ctl\\(add\\) failed fd=[0-9]+, event=0x1, errno=Operation not permitted"));
}

TEST_F(Eventsource, InitCanBeRepeatedAfterAFailure) {
    {
        const vxtest::DescriptorLimit limit(1);
        EXPECT_EQ(source->init(), -1);
        log.take();
    }
    init();
    EXPECT_EQ(vxtest::openDescriptors().size(), descriptorsBefore_.size() + 3);
}

TEST_F(Eventsource, TheDestructorTouchesNeitherSinksNorTimers) {
    init();
    Sink sink;
    Timer timer(1000, false);
    source->addSink(&sink, IFDEventsource::ET_READ);
    source->addTimer(&timer);
    source.reset();
    EXPECT_EQ(sink.reads + sink.writes, 0);
    EXPECT_NE(::fcntl(sink.getFd(), F_GETFD), -1);
    const auto left = timerDescriptors();
    ASSERT_EQ(left.size(), 1U);  // Quirk Q67.
    ::close(left[0]);
}

TEST_F(Eventsource, SinksMayBeGoneBeforeTheSource) {
    init();
    {
        Sink sink;
        source->addSink(&sink, IFDEventsource::ET_READ);
    }
}

// --- the interfaces as programs in the field are linked to them

TEST_F(Eventsource, SlotsStandInTheirOrder) {
    using vxtest::slotOf;
    EXPECT_EQ(slotOf(&IFDEventsource::addSink), 0U);
    EXPECT_EQ(slotOf(&IFDEventsource::removeSink), 1U);
    EXPECT_EQ(slotOf(&IFDEventsource::modifyEventMask), 2U);
    EXPECT_EQ(slotOf(&IFDEventsource::getEventMask), 3U);
    EXPECT_EQ(slotOf(&IFDEventsource::terminate), 4U);  // 5 and 6 are the destructors
    EXPECT_EQ(slotOf(&ITimeoutEventsource::addTimer), 0U);
    EXPECT_EQ(slotOf(&ITimeoutEventsource::removeTimer), 1U);
    EXPECT_EQ(slotOf(&ITimeoutEventsource::activeTimer), 2U);
    EXPECT_EQ(slotOf(&IFDEventsink::onReadable), 0U);
    EXPECT_EQ(slotOf(&IFDEventsink::onWritable), 1U);
    EXPECT_EQ(slotOf(&IFDEventsink::getFd), 2U);
    EXPECT_EQ(slotOf(&ITimeoutEventsink::onTimeout), 0U);
    EXPECT_EQ(slotOf(&ITimeoutEventsink::getTimeoutMs), 1U);
    EXPECT_EQ(slotOf(&ITimeoutEventsink::isOneShot), 2U);
    EXPECT_EQ(slotOf(&CEPollEventsource::addSink), 0U);
    EXPECT_EQ(slotOf(&CEPollEventsource::addTimer), 7U);
    EXPECT_EQ(slotOf(&CEPollEventsource::removeTimer), 8U);
    EXPECT_EQ(slotOf(&CEPollEventsource::activeTimer), 9U);
    EXPECT_EQ(vxtest::slotsOf<IFDEventsource>(), 7U);
    EXPECT_EQ(vxtest::slotsOf<ITimeoutEventsource>(), 5U);
    EXPECT_EQ(vxtest::slotsOf<IFDEventsink>(), 5U);
    EXPECT_EQ(vxtest::slotsOf<ITimeoutEventsink>(), 5U);
    EXPECT_EQ(vxtest::slotsOf<CEPollEventsource>(), 10U);
}

TEST_F(Eventsource, EventTypesHaveTheirNumbers) {
    EXPECT_EQ(IFDEventsource::ET_NONE, 0);
    EXPECT_EQ(IFDEventsource::ET_READ, 1);
    EXPECT_EQ(IFDEventsource::ET_WRITE, 2);
    EXPECT_EQ(IFDEventsource::ET_READWRITE, 3);
}

TEST_F(Eventsource, BothBasesReachTheSameLoop) {
    init();
    IFDEventsource *const descriptors = source.get();
    ITimeoutEventsource *const timers = source.get();
    Sink sink;
    Timer timer(1, true);
    sink.whenWritable = [&] { descriptors->removeSink(&sink); };
    timer.whenFired = [&] { descriptors->terminate(); };
    descriptors->addSink(&sink, IFDEventsource::ET_WRITE);
    timers->addTimer(&timer);
    EXPECT_TRUE(timers->activeTimer(&timer));
    runUntilTerminated();
    EXPECT_FALSE(timers->activeTimer(&timer));
    EXPECT_EQ(sink.writes, 1);
    EXPECT_EQ(timer.counts.size(), 1U);
}

// --- sinks

TEST_F(Eventsource, EachEventTypeIsWatchedLevelTriggered) {
    init();
    const std::map<IFDEventsource::event_type, uint32_t> mapping{{IFDEventsource::ET_NONE, 0},
                                                                 {IFDEventsource::ET_READ, EPOLLIN},
                                                                 {IFDEventsource::ET_WRITE, EPOLLOUT},
                                                                 {IFDEventsource::ET_READWRITE, EPOLLIN | EPOLLOUT}};
    for (const auto &[type, events] : mapping) {
        Sink added;
        Sink changed;
        source->addSink(&added, type);
        source->addSink(&changed, type == IFDEventsource::ET_NONE ? IFDEventsource::ET_READ : IFDEventsource::ET_NONE);
        source->modifyEventMask(&changed, type);
        const auto set = watched();
        for (const Sink *sink : {&added, &changed}) {
            EXPECT_EQ(set.at(sink->getFd()).first & ~uint32_t{EPOLLERR | EPOLLHUP}, events) << type;
            EXPECT_EQ(set.at(sink->getFd()).second, static_cast<uint64_t>(sink->getFd()));
        }
        source->removeSink(&added);
        source->removeSink(&changed);
    }
}

TEST_F(Eventsource, AnUnknownEventTypeIsLoggedAndWatchesNothing) {
    init();
    Sink sink;
    source->addSink(&sink, static_cast<IFDEventsource::event_type>(4));
    EXPECT_EQ(log.take(), (Lines{{LOG_ERR, "Invalid event type 4"}}));
    EXPECT_EQ(watched().at(sink.getFd()).first & (EPOLLIN | EPOLLOUT), 0U);
    source->modifyEventMask(&sink, static_cast<IFDEventsource::event_type>(-1));
    EXPECT_EQ(log.take(), (Lines{{LOG_ERR, "Invalid event type -1"}}));
    source->removeSink(&sink);
}

TEST_F(Eventsource, AReadableSinkIsCalledAgainUntilItHasRead) {
    init();
    Sink sink;
    sink.whenReadable = [&] {
        if (sink.reads < 3) return;
        sink.clear();
        source->terminate();
    };
    source->addSink(&sink, IFDEventsource::ET_READ);
    sink.fire();
    runUntilTerminated();
    EXPECT_EQ(sink.reads, 3);
    EXPECT_EQ(sink.writes, 0);
}

TEST_F(Eventsource, AReadableAndWritableEventOnlyReads) {
    init();
    Sink sink;
    sink.whenReadable = [&] { sink.clear(); };
    sink.whenWritable = [&] {
        EXPECT_EQ(sink.reads, 1);  // a round before this one, when there was something to read
        source->terminate();
    };
    source->addSink(&sink, IFDEventsource::ET_READWRITE);
    sink.fire();
    runUntilTerminated();
    EXPECT_EQ(sink.reads, 1);
    EXPECT_GE(sink.writes, 1);
}

TEST_F(Eventsource, AHangUpAloneCallsNoSink) {
    init();
    std::array<int, 2> ends{};
    ASSERT_EQ(::pipe2(ends.data(), O_CLOEXEC), 0);
    Sink sink(ends[0]);
    source->addSink(&sink, IFDEventsource::ET_READ);
    ::close(ends[1]);
    int rounds = 0;
    kernel.wait = [&](epoll_event *, int) -> std::optional<int> {
        if (++rounds == 5) source->terminate();
        return std::nullopt;
    };
    runUntilTerminated();
    EXPECT_GE(rounds, 5);
    EXPECT_EQ(sink.reads + sink.writes, 0);
    source->removeSink(&sink);
    ::close(ends[0]);
}

TEST_F(Eventsource, ASecondSinkOnARegisteredDescriptorIsIgnored) {
    init();
    Sink first;
    Sink second(first.getFd());
    first.whenReadable = [&] { source->terminate(); };
    source->addSink(&first, IFDEventsource::ET_READ);
    const int calls = kernel.controlCalls;
    source->addSink(&second, IFDEventsource::ET_WRITE);
    source->addSink(&first, IFDEventsource::ET_WRITE);
    EXPECT_EQ(kernel.controlCalls, calls);
    first.fire();
    runUntilTerminated();
    EXPECT_GT(first.reads, 0);
    EXPECT_EQ(second.reads + second.writes + first.writes, 0);
    source->removeSink(&second);  // registrations are found by descriptor
    EXPECT_EQ(watched().count(first.getFd()), 0U);
}

TEST_F(Eventsource, ARefusedDescriptorIsLoggedAndStillCountsAsRegistered) {
    init();
    const int file = ::open("/etc/hostname", O_RDONLY | O_CLOEXEC);
    ASSERT_NE(file, -1);
    Sink sink(file);
    source->addSink(&sink, IFDEventsource::ET_READWRITE);
    void *const address = static_cast<IFDEventsink *>(&sink);
    EXPECT_EQ(log.take(),
              (Lines{{LOG_ERR, textf("epoll_ctl(add) failed fd=%i, event=0x5, errno=Operation not permitted", file)},
                     {errorLevel, textf("Unable to add fd %i (sink 0x%p) to epoll-events", file, address)}}));
    source->addSink(&sink, IFDEventsource::ET_READ);
    EXPECT_EQ(log.take(), Lines{});
    source->removeSink(&sink);
    EXPECT_EQ(log.take(),
              (Lines{{LOG_ERR, textf("epoll_ctl(del) failed fd=%i, errno=Operation not permitted", file)},
                     {errorLevel, textf("Unable to remove fd %i (sink 0x%p) from epoll-events", file, address)}}));
    source->removeSink(&sink);
    EXPECT_EQ(log.take(), Lines{});
    ::close(file);
}

TEST_F(Eventsource, BeforeInitSinksAreRememberedWithoutASystemCall) {
    Sink sink;
    void *const address = static_cast<IFDEventsink *>(&sink);
    const int fd = sink.getFd();
    source->addSink(&sink, IFDEventsource::ET_READ);
    EXPECT_EQ(log.take(), (Lines{{errorLevel, textf("Unable to add fd %i (sink 0x%p) to epoll-events", fd, address)}}));
    source->addSink(&sink, IFDEventsource::ET_READ);
    EXPECT_EQ(log.take(), Lines{});
    source->removeSink(&sink);
    EXPECT_EQ(log.take(),
              (Lines{{errorLevel, textf("Unable to remove fd %i (sink 0x%p) from epoll-events", fd, address)}}));
    EXPECT_EQ(kernel.controlCalls, 0);
}

TEST_F(Eventsource, BeforeInitAMaskIsStoredAndItsChangeFails) {
    Sink sink;
    void *const address = static_cast<IFDEventsink *>(&sink);
    source->addSink(&sink, IFDEventsource::ET_READ);
    log.take();
    source->modifyEventMask(&sink, IFDEventsource::ET_WRITE);
    source->modifyEventMask(&sink, IFDEventsource::ET_WRITE);
    EXPECT_EQ(log.take(), (Lines{{LOG_ERR, textf("Sink 0x%p (fd=%i) epoll_ctl(mod) failed - errno=Bad file descriptor",
                                                 address, sink.getFd())}}));
}

TEST_F(Eventsource, RemovingAnUnknownSinkDoesNothing) {
    init();
    Sink sink;
    const int calls = kernel.controlCalls;
    source->removeSink(&sink);
    EXPECT_EQ(kernel.controlCalls, calls);
}

TEST_F(Eventsource, RemovingASinkLeavesItsDescriptorOpen) {
    init();
    Sink sink;
    source->addSink(&sink, IFDEventsource::ET_READ);
    source->removeSink(&sink);
    EXPECT_NE(::fcntl(sink.getFd(), F_GETFD), -1);
    EXPECT_EQ(watched().count(sink.getFd()), 0U);
}

TEST_F(Eventsource, AClosedSinkCanStillBeRemoved) {
    init();
    Sink sink;
    const int fd = sink.getFd();
    void *const address = static_cast<IFDEventsink *>(&sink);
    source->addSink(&sink, IFDEventsource::ET_READ);
    sink.closeNow();
    source->removeSink(&sink);
    EXPECT_EQ(log.take(),
              (Lines{{LOG_ERR, textf("epoll_ctl(del) failed fd=%i, errno=Bad file descriptor", fd)},
                     {errorLevel, textf("Unable to remove fd %i (sink 0x%p) from epoll-events", fd, address)}}));
    Sink next;
    ASSERT_EQ(next.getFd(), fd);
    source->addSink(&next, IFDEventsource::ET_READ);
    next.whenReadable = [&] { source->terminate(); };
    next.fire();
    runUntilTerminated();
    EXPECT_GT(next.reads, 0);
}

TEST_F(Eventsource, ATimerThatGotAClosedSinksNumberOutlivesTheSinksRemoval) {
    init();
    Sink sink;
    const int fd = sink.getFd();
    source->addSink(&sink, IFDEventsource::ET_READ);
    sink.closeNow();
    Timer timer(1, true);
    timer.whenFired = [&] { source->terminate(); };
    source->addTimer(&timer);
    ASSERT_EQ(timerDescriptors(), std::vector<int>{fd});
    source->removeSink(&sink);
    runUntilTerminated();
    EXPECT_EQ(timer.counts, std::vector<unsigned int>{1});
}

TEST_F(Eventsource, ModifyingToTheStoredTypeMakesNoSystemCall) {
    init();
    Sink sink;
    source->modifyEventMask(&sink, IFDEventsource::ET_READ);  // not registered: nothing
    source->addSink(&sink, IFDEventsource::ET_READ);
    const int calls = kernel.controlCalls;
    source->modifyEventMask(&sink, IFDEventsource::ET_READ);
    EXPECT_EQ(kernel.controlCalls, calls);
    source->modifyEventMask(&sink, IFDEventsource::ET_WRITE);
    EXPECT_EQ(kernel.controlCalls, calls + 1);
    source->removeSink(&sink);
}

TEST_F(Eventsource, ARefusedModificationKeepsTheNewType) {
    init();
    Sink sink;
    source->addSink(&sink, IFDEventsource::ET_READ);
    kernel.refuseControl = [](int operation, int) { return operation == EPOLL_CTL_MOD; };
    source->modifyEventMask(&sink, IFDEventsource::ET_WRITE);
    EXPECT_EQ(log.take(),
              (Lines{{LOG_ERR, textf("Sink 0x%p (fd=%i) epoll_ctl(mod) failed - errno=Operation not permitted",
                                     static_cast<void *>(static_cast<IFDEventsink *>(&sink)), sink.getFd())}}));
    source->modifyEventMask(&sink, IFDEventsource::ET_WRITE);  // stored already: no second attempt
    EXPECT_EQ(log.take(), Lines{});
    EXPECT_EQ(watched().at(sink.getFd()).first & (EPOLLIN | EPOLLOUT), unsigned{EPOLLIN});
    source->removeSink(&sink);
}

TEST_F(Eventsource, TheEventMaskIsAlwaysReportedAsNone) {
    init();
    Sink sink;
    EXPECT_EQ(source->getEventMask(&sink), IFDEventsource::ET_NONE);
    source->addSink(&sink, IFDEventsource::ET_READ);
    EXPECT_EQ(source->getEventMask(&sink), IFDEventsource::ET_NONE);
    source->modifyEventMask(&sink, IFDEventsource::ET_READWRITE);
    EXPECT_EQ(source->getEventMask(&sink), IFDEventsource::ET_NONE);
    source->removeSink(&sink);
}

TEST_F(Eventsource, EventsAreServedInTheOrderOfTheKernel) {
    init();
    std::array<Sink, 8> sinks;
    std::vector<size_t> order;
    for (size_t i = 0; i < sinks.size(); ++i) {
        sinks[i].whenReadable = [&, i] {
            order.push_back(i);
            sinks[i].clear();
            if (order.size() == sinks.size()) source->terminate();
        };
        source->addSink(&sinks[i], IFDEventsource::ET_READ);
    }
    const std::vector<size_t> shuffled{5, 0, 7, 2, 1, 6, 3, 4};
    kernel.wait = [&](epoll_event *events, int max) -> std::optional<int> {
        EXPECT_EQ(max, static_cast<int>(sinks.size()));
        kernel.wait = nullptr;
        for (size_t i = 0; i < shuffled.size(); ++i) {
            events[i].events = EPOLLIN;
            events[i].data.fd = sinks[shuffled[i]].getFd();
        }
        return static_cast<int>(sinks.size());
    };
    for (const Sink &sink : sinks) sink.fire();
    runUntilTerminated();
    EXPECT_EQ(order, shuffled);
}

TEST_F(Eventsource, HighDescriptorNumbersWorkAsLowOnesDo) {
    init();
    for (const int number : {63, 64, 4095, 4096, 9000}) {
        Sink low;
        const int high = ::fcntl(low.getFd(), F_DUPFD_CLOEXEC, number);
        ASSERT_EQ(high, number);
        {
            CEPollEventsource loop;
            ASSERT_EQ(loop.init(), 0);
            Sink sink(high);
            Timer timer(1, false);
            sink.whenReadable = [&] {
                sink.clear();
                loop.addTimer(&timer);
            };
            timer.whenFired = [&] {
                loop.removeTimer(&timer);
                loop.removeSink(&sink);
                loop.terminate();
            };
            loop.addSink(&sink, IFDEventsource::ET_READ);
            sink.fire();
            EXPECT_EQ(loop.evtLoop(), 0) << number;
            EXPECT_EQ(sink.reads, 1);
            EXPECT_EQ(timer.counts.size(), 1U);
        }
        ::close(high);
    }
}

TEST_F(Eventsource, TimersOnHighDescriptorNumbersFireAndGo) {
    init();
    std::vector<int> taken;
    for (int fd = 0; fd < 4100;) {
        fd = ::fcntl(0, F_DUPFD_CLOEXEC, 0);
        ASSERT_NE(fd, -1);
        taken.push_back(fd);
    }
    Timer timer(1, true);
    timer.whenFired = [&] { source->terminate(); };
    source->addTimer(&timer);
    EXPECT_GT(timerDescriptors().at(0), 4095);
    EXPECT_TRUE(source->activeTimer(&timer));
    for (const int fd : taken) ::close(fd);
    runUntilTerminated();
    EXPECT_EQ(timer.counts.size(), 1U);
    EXPECT_FALSE(source->activeTimer(&timer));
}

// --- terminate

TEST_F(Eventsource, TerminatedBeforeItRunsItReturnsAtOnceAndForEver) {
    init();
    Sink sink;
    sink.fire();
    source->addSink(&sink, IFDEventsource::ET_WRITE);
    source->terminate();
    runUntilTerminated();
    int waits = 0;
    kernel.wait = [&](epoll_event *, int) -> std::optional<int> {
        ++waits;
        return std::nullopt;
    };
    runUntilTerminated();
    EXPECT_EQ(waits, 0);
}

TEST_F(Eventsource, EachRequestToEndIsAByteThatStaysInThePipe) {
    init();
    int command = -1;
    for (const int fd : descriptorsOn("pipe:")) {
        if (watched().count(fd) == 1) command = fd;
    }
    source->terminate();
    source->terminate();
    runUntilTerminated();
    std::array<char, 3> bytes{};
    EXPECT_EQ(::read(command, bytes.data(), bytes.size()), 2);
    EXPECT_STREQ(bytes.data(), "xx");
}

TEST_F(Eventsource, TerminatesFromAnotherThread) {
    init();
    std::thread other([&] { source->terminate(); });
    runUntilTerminated();
    other.join();
}

TEST_F(Eventsource, BeforeInitTheLoopReturnsAtOnce) {
    kernel.wait = [](epoll_event *, int) -> std::optional<int> { throw std::runtime_error("the loop waits"); };
    Sink sink;
    source->addSink(&sink, IFDEventsource::ET_READ);
    log.take();
    EXPECT_EQ(source->evtLoop(), -1);
    EXPECT_EQ(source->evtLoop(), -1);
    kernel.wait = nullptr;
    source->removeSink(&sink);
    log.take();
    init();
    source->terminate();
    runUntilTerminated();
}

TEST_F(Eventsource, TheLoopReturnsAtOnceWhenInitHadNoPipe) {
    {
        const vxtest::DescriptorLimit limit(1);
        EXPECT_EQ(source->init(), -1);
    }
    log.take();
    kernel.wait = [](epoll_event *, int) -> std::optional<int> { throw std::runtime_error("the loop waits"); };
    EXPECT_EQ(source->evtLoop(), -1);
}

TEST_F(Eventsource, TerminateWithoutInitIsLogged) {
    source->terminate();
    EXPECT_EQ(log.take(), (Lines{{errorLevel, "unable to write to command-pipe (fd=-1) - errno=Bad file descriptor"}}));
}

TEST_F(Eventsource, TerminateNeverBlocksHoweverOftenItIsCalled) {
    init();
    for (int i = 0; i < 100000; ++i) source->terminate();
    runUntilTerminated();
}

CEPollEventsource *signalled = nullptr;

TEST_F(Eventsource, TerminatesFromASignalHandlerAndKeepsErrno) {
    init();
    signalled = source.get();
    struct sigaction action {};
    action.sa_handler = [](int) { signalled->terminate(); };
    struct sigaction old {};
    ::sigaction(SIGUSR1, &action, &old);
    for (int i = 0; i < 70000; ++i) source->terminate();  // a full pipe makes its write fail
    errno = EXDEV;
    ::raise(SIGUSR1);
    EXPECT_EQ(errno, EXDEV);
    runUntilTerminated();
    ::sigaction(SIGUSR1, &old, nullptr);
}

TEST_F(Eventsource, ASignalInterruptsTheWaitAndTheLoopGoesOn) {
    init();
    static std::atomic<int> seen = 0;
    struct sigaction action {};
    action.sa_handler = [](int) { ++seen; };
    struct sigaction old {};
    ::sigaction(SIGUSR1, &action, &old);
    const pthread_t loopThread = ::pthread_self();
    std::thread other([&] {
        for (int i = 0; i < 5; ++i) {
            ::pthread_kill(loopThread, SIGUSR1);
            std::this_thread::sleep_for(2ms);
        }
        source->terminate();
    });
    runUntilTerminated();
    other.join();
    EXPECT_GT(seen, 0);
    ::sigaction(SIGUSR1, &old, nullptr);
}

TEST_F(Eventsource, TheRestOfABatchAfterTheCommandPipeIsDropped) {
    init();
    Sink sink;
    source->addSink(&sink, IFDEventsource::ET_READ);
    Sink another;
    source->addSink(&another, IFDEventsource::ET_READ);
    source->terminate();
    sink.fire();
    another.fire();
    runUntilTerminated();
    EXPECT_EQ(sink.reads + another.reads, 0);
}

// --- waiting

TEST_F(Eventsource, TheArrayOfEventsGrowsWithSinksAndTimersAndNeverShrinks) {
    init();
    std::vector<int> sizes;
    std::array<Sink, 3> sinks;
    Timer timer(100000, false);
    int round = 0;
    kernel.wait = [&](epoll_event *, int max) -> std::optional<int> {
        sizes.push_back(max);
        switch (++round) {
            case 1:
                source->addSink(&sinks[0], IFDEventsource::ET_NONE);
                break;
            case 2:
                source->addSink(&sinks[1], IFDEventsource::ET_NONE);
                source->addSink(&sinks[2], IFDEventsource::ET_NONE);
                source->addTimer(&timer);
                break;
            case 3:
                for (Sink &sink : sinks) source->removeSink(&sink);
                source->removeTimer(&timer);
                break;
            case 4:
                source->terminate();
                return std::nullopt;
            default:
                return std::nullopt;
        }
        errno = EINTR;
        return -1;
    };
    runUntilTerminated();
    EXPECT_EQ(sizes, (std::vector<int>{1, 1, 4, 4}));
}

TEST_F(Eventsource, AnEmptyWakeUpIsLoggedAndTheLoopGoesOn) {
    init();
    kernel.wait = [&](epoll_event *, int) -> std::optional<int> {
        kernel.wait = nullptr;
        source->terminate();
        return 0;
    };
    runUntilTerminated();
    EXPECT_EQ(log.take(), (Lines{{LOG_ERR, "Got a timeout from epoll_wait() without specifying a timeout!?"}}));
}

TEST_F(Eventsource, OnlyOneErrorOfTheWaitIsFatal) {
    init();
    for (const int error : {EINTR, EINVAL, EFAULT, EBADF}) {
        bool failed = false;
        CEPollEventsource other;
        ASSERT_EQ(other.init(), 0);
        other.terminate();
        kernel.wait = [&](epoll_event *, int) -> std::optional<int> {
            if (std::exchange(failed, true)) return std::nullopt;
            errno = error;
            return -1;
        };
        EXPECT_EQ(other.evtLoop(), 0);
    }
    EXPECT_EQ(log.take(), Lines{});
    kernel.wait = [](epoll_event *, int) -> std::optional<int> {
        errno = EAGAIN;
        return -1;
    };
    EXPECT_EQ(source->evtLoop(), -1);
    EXPECT_EQ(log.take(),
              (Lines{{errorLevel, "epoll_wait failed will errno=Resource temporarily unavailable - terminating."}}));
}

TEST_F(Eventsource, WhatACallbackThrowsComesOutAndTheLoopCanBeRunAgain) {
    init();
    Sink sink;
    Sink other;
    sink.whenReadable = [&] {
        sink.clear();
        throw std::runtime_error("mine");
    };
    other.whenReadable = [&] { source->terminate(); };
    source->addSink(&sink, IFDEventsource::ET_READ);
    source->addSink(&other, IFDEventsource::ET_READ);
    sink.fire();
    EXPECT_THROW(source->evtLoop(), std::runtime_error);
    source->removeSink(&sink);
    other.fire();
    runUntilTerminated();
}

TEST_F(Eventsource, ACallbackMayRunTheLoopAgain) {
    init();
    Sink outer;
    Sink inner;
    Sink removed;
    source->addSink(&outer, IFDEventsource::ET_READ);
    source->addSink(&inner, IFDEventsource::ET_READ);
    source->addSink(&removed, IFDEventsource::ET_READ);
    outer.whenReadable = [&] {
        outer.clear();
        inner.whenReadable = [&] {
            source->removeSink(&removed);  // its event is left over in the outer round
            source->terminate();
        };
        EXPECT_EQ(source->evtLoop(), 0);
        inner.whenReadable = nullptr;
    };
    removed.whenReadable = [&] { removed.clear(); };
    outer.fire();
    inner.fire();
    removed.fire();
    int round = 0;
    kernel.wait = [&](epoll_event *events, int) -> std::optional<int> {
        if (++round > 2) return std::nullopt;
        const std::vector<Sink *> first{&outer, &removed};
        const std::vector<Sink *> second{&inner};
        int count = 0;
        for (const Sink *sink : round == 1 ? first : second) {
            events[count].events = EPOLLIN;
            events[count++].data.fd = sink->getFd();
        }
        return count;
    };
    runUntilTerminated();
    EXPECT_EQ(removed.reads, 0);
    EXPECT_EQ(outer.reads, 1);
}

// What an inner loop serves while the outer one has the same events left over. The first wait of all reports the
// starter and then the others, the second one, in the inner loop, the others alone; later ones are the kernel's.
class InnerLoop : public Eventsource {
protected:
    InnerLoop() {
        init();
        for (Sink *one : {&starter, &sink, &last}) source->addSink(one, IFDEventsource::ET_READ);
        starter.fire();
        sink.fire();
    }
    void report(const std::vector<std::vector<int>> &waits) {
        kernel.wait = [this, waits](epoll_event *events, int) -> std::optional<int> {
            if (++round > waits.size()) return std::nullopt;
            int count = 0;
            for (const int fd : waits[round - 1]) {
                events[count].events = EPOLLIN;
                events[count++].data.fd = fd;
            }
            return count;
        };
    }

    Sink starter;
    Sink sink;
    Sink last;
    size_t round = 0;
};

// By the time the outer loop gets there the number may belong to another file.
TEST_F(InnerLoop, AnUnknownDescriptorItClosesIsNotReportedAgain) {
    const int unknown = ::eventfd(1, EFD_CLOEXEC);
    epoll_event event{};
    event.events = EPOLLIN;
    event.data.fd = unknown;
    ASSERT_EQ(::epoll_ctl(epollDescriptor(), EPOLL_CTL_ADD, unknown, &event), 0);
    std::unique_ptr<Sink> successor;
    starter.whenReadable = [&] {
        starter.clear();
        EXPECT_EQ(source->evtLoop(), 0);
        successor = std::make_unique<Sink>();
        ASSERT_EQ(successor->getFd(), unknown);
        source->addSink(successor.get(), IFDEventsource::ET_READ);
    };
    report({{starter.getFd(), unknown}, {unknown}});
    runUntilTerminated();
    EXPECT_EQ(log.take(), (Lines{{LOG_ERR, textf("Unable to find corresponding event-sink for active file descriptor "
                                                 "%i - terminating!",
                                                 unknown)}}));
    EXPECT_EQ(successor->reads, 0);
}

TEST_F(InnerLoop, EventsItServesAreNotServedAgainByTheOuterLoop) {
    std::vector<size_t> served;
    starter.whenReadable = [&] {
        starter.clear();
        EXPECT_EQ(source->evtLoop(), 0);
    };
    sink.whenReadable = [&] {
        sink.clear();
        served.push_back(round);
        source->terminate();
    };
    report({{starter.getFd(), sink.getFd()}, {sink.getFd()}});
    runUntilTerminated();
    EXPECT_EQ(starter.reads, 1);
    EXPECT_EQ(served, std::vector<size_t>{2});
}

// A timer's second serving would find nothing to read, and say so in the log.
TEST_F(InnerLoop, TimersItServesAreNotReadAgain) {
    Timer timer(1, false);
    source->addTimer(&timer);
    const int timerFd = timerDescriptors().at(0);
    pollfd due{timerFd, POLLIN, 0};
    ASSERT_EQ(::poll(&due, 1, -1), 1);
    starter.whenReadable = [&] {
        starter.clear();
        EXPECT_THROW(source->evtLoop(), std::runtime_error);
        source->terminate();
    };
    timer.whenFired = [&] {
        const itimerspec never{};
        EXPECT_EQ(::timerfd_settime(timerFd, 0, &never, nullptr), 0);
        throw std::runtime_error("enough");
    };
    sink.clear();
    report({{starter.getFd(), timerFd}, {timerFd}});
    runUntilTerminated();
    EXPECT_EQ(timer.counts.size(), 1U);
    source->removeTimer(&timer);
}

TEST_F(InnerLoop, DescriptorsStillReadyAreReportedByTheNextWait) {
    std::vector<size_t> served;
    starter.whenReadable = [&] {
        starter.clear();
        EXPECT_THROW(source->evtLoop(), std::runtime_error);
    };
    sink.whenReadable = [&] {
        served.push_back(round);
        if (round == 2) throw std::runtime_error("enough");
        source->terminate();
        sink.clear();
    };
    report({{starter.getFd(), sink.getFd()}, {sink.getFd()}});
    runUntilTerminated();
    EXPECT_EQ(served, (std::vector<size_t>{2, 3}));
}

TEST_F(InnerLoop, EventsItDoesNotServeStayPendingInTheOuterLoop) {
    std::vector<size_t> served;
    starter.whenReadable = [&] {
        starter.clear();
        EXPECT_THROW(source->evtLoop(), std::runtime_error);
        source->terminate();
    };
    last.whenReadable = [&] {
        last.clear();
        throw std::runtime_error("enough");
    };
    sink.whenReadable = [&] {
        sink.clear();
        served.push_back(round);
    };
    last.fire();
    report({{starter.getFd(), sink.getFd()}, {last.getFd(), sink.getFd()}});
    runUntilTerminated();
    EXPECT_EQ(served, std::vector<size_t>{2});  // by the outer loop, after the second wait
    EXPECT_EQ(sink.reads, 1);
}

TEST_F(InnerLoop, EventsTheInnermostLoopServesAreDroppedFromEveryEnclosingBatch) {
    Sink second;
    source->addSink(&second, IFDEventsource::ET_READ);
    second.fire();
    starter.whenReadable = [&] {
        starter.clear();
        EXPECT_EQ(source->evtLoop(), 0);
    };
    second.whenReadable = [&] {
        second.clear();
        EXPECT_EQ(source->evtLoop(), 0);
    };
    sink.whenReadable = [&] {
        sink.clear();
        source->terminate();
    };
    const std::vector<int> all{starter.getFd(), second.getFd(), sink.getFd()};
    report({all, {second.getFd(), sink.getFd()}, {sink.getFd()}});
    runUntilTerminated();
    EXPECT_EQ(second.reads, 1);
    EXPECT_EQ(sink.reads, 1);
}

// The command is not read by whom it reaches: it ends every loop, and drops the rest of every batch.
TEST_F(InnerLoop, TerminatingItTerminatesTheOuterLoop) {
    int command = -1;
    for (const int fd : descriptorsOn("pipe:")) {
        if (watched().count(fd) == 1) command = fd;
    }
    ASSERT_NE(command, -1);
    starter.whenReadable = [&] {
        source->terminate();
        EXPECT_EQ(source->evtLoop(), 0);
    };
    report({{starter.getFd(), command, sink.getFd()}, {command}});
    runUntilTerminated();
    EXPECT_EQ(sink.reads, 0);
    EXPECT_EQ(starter.reads, 1);
}

// --- events that are left over

TEST_F(Eventsource, ASinkRemovedByAnotherInTheSameRoundIsNotCalled) {
    init();
    Sink first;
    Sink second;
    first.whenReadable = [&] {
        first.clear();
        source->removeSink(&second);
        source->terminate();
    };
    second.whenReadable = [&] {
        second.clear();
        source->removeSink(&first);
        source->terminate();
    };
    source->addSink(&first, IFDEventsource::ET_READ);
    source->addSink(&second, IFDEventsource::ET_READ);
    first.fire();
    second.fire();
    runUntilTerminated();
    EXPECT_EQ(first.reads + second.reads, 1);
    EXPECT_NE(::fcntl(first.getFd(), F_GETFD), -1);
    EXPECT_NE(::fcntl(second.getFd(), F_GETFD), -1);
}

TEST_F(Eventsource, ASinkRemovedAndAddedAgainIsCalledOnlyForANewEvent) {
    init();
    std::array<Sink, 2> sinks;
    int rounds = 0;
    std::array<int, 2> calledInRound{};
    kernel.wait = [&](epoll_event *, int) -> std::optional<int> {
        ++rounds;
        return std::nullopt;
    };
    for (size_t i = 0; i < 2; ++i) {
        sinks[i].whenReadable = [&, i] {
            calledInRound[i] = rounds;
            sinks[i].clear();
            if (calledInRound[1 - i] != 0) {
                source->terminate();
                return;
            }
            source->removeSink(&sinks[1 - i]);
            source->addSink(&sinks[1 - i], IFDEventsource::ET_READ);
        };
        source->addSink(&sinks[i], IFDEventsource::ET_READ);
    }
    for (const Sink &sink : sinks) sink.fire();
    runUntilTerminated();
    EXPECT_EQ(sinks[0].reads, 1);
    EXPECT_EQ(sinks[1].reads, 1);
    EXPECT_NE(calledInRound[0], calledInRound[1]);  // the event fetched before the removal did not count
}

// Two sinks that are ready in one round; the first one that is called changes what the other one wants.
class MaskInTheSameRound : public Eventsource {
protected:
    MaskInTheSameRound() {
        if (source->init() != 0) ADD_FAILURE() << "no loop";
        kernel.wait = [this](epoll_event *, int) -> std::optional<int> {
            ++rounds;
            return std::nullopt;
        };
    }
    // Both sinks are registered with `before`; the first called gives the other one the masks `after`, one by one, and
    // ends the loop in the round after next.
    void run(IFDEventsource::event_type before, const std::vector<IFDEventsource::event_type> &after) {
        for (size_t i = 0; i < 2; ++i) {
            sinks[i].whenReadable = [this, i, after] {
                sinks[i].clear();
                called[i] = rounds;
                if (called[1 - i] != 0) return;
                for (const auto mask : after) source->modifyEventMask(&sinks[1 - i], mask);
                end.fire();
            };
            sinks[i].whenWritable = [this, i] { writable[i] = rounds; };
            source->addSink(&sinks[i], before);
            sinks[i].fire();
        }
        end.whenReadable = [this] { source->terminate(); };
        source->addSink(&end, IFDEventsource::ET_READ);
        runUntilTerminated();
    }
    size_t other() const { return called[0] == 1 ? 1 : 0; }

    std::array<Sink, 2> sinks;
    Sink end;
    std::array<int, 2> called{};
    std::array<int, 2> writable{};
    int rounds = 0;
};

TEST_F(MaskInTheSameRound, ASinkSetToNoneGetsNoPendingEvent) {
    run(IFDEventsource::ET_READ, {IFDEventsource::ET_NONE});
    EXPECT_EQ(called[other()], 0);
}

TEST_F(MaskInTheSameRound, OnlyEventsStillAskedForAreDelivered) {
    run(IFDEventsource::ET_READWRITE, {IFDEventsource::ET_WRITE});
    EXPECT_EQ(called[other()], 0);
    EXPECT_EQ(writable[other()] >= 1, true);
}

TEST_F(MaskInTheSameRound, EventsAskedForAgainComeWithTheNextRound) {
    run(IFDEventsource::ET_READ, {IFDEventsource::ET_NONE, IFDEventsource::ET_READ});
    EXPECT_EQ(called[other()], 2);
}

TEST_F(MaskInTheSameRound, AWiderMaskKeepsThePendingEvent) {
    run(IFDEventsource::ET_READ, {IFDEventsource::ET_READWRITE});
    EXPECT_EQ(called[other()], 1);
}

TEST_F(MaskInTheSameRound, AnInnerLoopNarrowsTheEnclosingBatchToo) {
    for (size_t i = 0; i < 2; ++i) {
        sinks[i].whenReadable = [this, i] {
            sinks[i].clear();
            called[i] = rounds;
            if (called[1 - i] != 0) return;
            end.whenReadable = [this, i] {
                source->modifyEventMask(&sinks[1 - i], IFDEventsource::ET_NONE);
                source->terminate();
            };
            end.fire();
            kernel.wait = [this](epoll_event *events, int) {
                kernel.wait = nullptr;
                events[0].events = EPOLLIN;
                events[0].data.u64 = static_cast<uint64_t>(end.getFd());
                return std::optional<int>(1);  // the inner loop's round: `end` alone
            };
            EXPECT_EQ(source->evtLoop(), 0);
        };
        source->addSink(&sinks[i], IFDEventsource::ET_READ);
        sinks[i].fire();
    }
    source->addSink(&end, IFDEventsource::ET_READ);
    runUntilTerminated();
    EXPECT_EQ(called[0] + called[1], 1);
}

TEST_F(Eventsource, ASinkMayRemoveItselfAndComeBackAsAnother) {
    init();
    Sink sink;
    Sink last;
    last.whenReadable = [&] { source->terminate(); };
    sink.whenReadable = [&] {
        source->removeSink(&sink);
        source->addSink(&last, IFDEventsource::ET_READ);
        last.fire();
    };
    source->addSink(&sink, IFDEventsource::ET_READ);
    sink.fire();
    runUntilTerminated();
    EXPECT_EQ(sink.reads, 1);
    EXPECT_GT(last.reads, 0);
}

TEST_F(Eventsource, AReusedNumberDoesNotInheritTheLeftOverEvent) {
    init();
    Sink remover;
    auto removed = std::make_unique<Sink>();
    std::unique_ptr<Sink> successor;
    const int number = removed->getFd();
    source->addSink(&remover, IFDEventsource::ET_READ);
    source->addSink(removed.get(), IFDEventsource::ET_READ);
    remover.whenReadable = [&] {
        remover.clear();
        source->removeSink(removed.get());
        removed.reset();
        successor = std::make_unique<Sink>();
        ASSERT_EQ(successor->getFd(), number);
        source->addSink(successor.get(), IFDEventsource::ET_READ);
        source->terminate();
    };
    kernel.wait = [&](epoll_event *events, int) -> std::optional<int> {
        kernel.wait = nullptr;
        events[0].events = EPOLLIN;
        events[0].data.fd = remover.getFd();
        events[1].events = EPOLLIN;
        events[1].data.fd = number;
        return 2;
    };
    remover.fire();
    removed->fire();
    runUntilTerminated();
    EXPECT_EQ(successor->reads, 0);
}

TEST_F(Eventsource, AReusedNumberWithoutASinkIsNotClosedAndTheLoopContinues) {
    init();
    Sink remover;
    auto removed = std::make_unique<Sink>();
    const int number = removed->getFd();
    Sink last;
    int rounds = 0;
    last.whenReadable = [&] { source->terminate(); };
    source->addSink(&remover, IFDEventsource::ET_READ);
    source->addSink(removed.get(), IFDEventsource::ET_READ);
    source->addSink(&last, IFDEventsource::ET_READ);
    remover.whenReadable = [&] {
        remover.clear();
        source->removeSink(removed.get());
        removed.reset();
        ASSERT_EQ(::open("/dev/null", O_RDONLY | O_CLOEXEC), number);
    };
    kernel.wait = [&](epoll_event *events, int) -> std::optional<int> {
        if (++rounds > 1) {
            last.fire();
            return std::nullopt;
        }
        events[0].events = EPOLLIN;
        events[0].data.fd = remover.getFd();
        events[1].events = EPOLLIN;
        events[1].data.fd = number;
        return 2;
    };
    remover.fire();
    removed->fire();
    runUntilTerminated();
    EXPECT_GT(last.reads, 0);
    EXPECT_NE(::fcntl(number, F_GETFD), -1);
    ::close(number);
}

TEST_F(Eventsource, ATimerRemovedByAnotherInTheSameRoundDoesNotFire) {
    init();
    Timer first(1, false);
    Timer second(1, false);
    first.whenFired = [&] {
        source->removeTimer(&second);
        source->terminate();
    };
    second.whenFired = [&] {
        source->removeTimer(&first);
        source->terminate();
    };
    source->addTimer(&first);
    source->addTimer(&second);
    std::this_thread::sleep_for(20ms);  // both are due on the first round
    runUntilTerminated();
    // The one that was served first may have come round again before the loop saw the end; the other never fires.
    EXPECT_NE(first.counts.empty(), second.counts.empty());
    source->removeTimer(&first);
    source->removeTimer(&second);
}

TEST_F(Eventsource, ATimerThatTookARemovedTimersNumberDoesNotFireEarly) {
    init();
    Timer remover(1, false);
    Timer removed(1, false);
    Timer successor(100000, false);
    source->addTimer(&remover);
    source->addTimer(&removed);
    remover.whenFired = removed.whenFired = [&] {
        ASSERT_TRUE(successor.counts.empty());
        if (source->activeTimer(&successor)) return;
        source->removeTimer(&removed);
        source->addTimer(&successor);
        source->terminate();
    };
    std::this_thread::sleep_for(20ms);
    runUntilTerminated();
    EXPECT_EQ(log.take(), Lines{});  // not even an attempt to read it
    EXPECT_TRUE(successor.counts.empty());
    source->removeTimer(&remover);
    source->removeTimer(&successor);
}

TEST_F(Eventsource, CallbacksMayRemoveAnySinkAndTimer) {
    init();
    constexpr size_t count = 40;
    std::mt19937 random(20231121);
    std::vector<std::unique_ptr<Sink>> sinks;
    std::vector<std::unique_ptr<Timer>> timers;
    std::vector<bool> present(count, true);
    int calls = 0;
    const auto disturb = [&] {
        for (int i = 0; i < 6; ++i) {
            const size_t which = random() % count;
            Sink *const sink = sinks[which].get();
            switch (random() % 4) {
                case 0:
                    source->removeSink(sink);
                    present[which] = false;
                    break;
                case 1:
                    source->addSink(sink, IFDEventsource::ET_READ);
                    present[which] = true;
                    break;
                case 2:
                    source->removeTimer(timers[which].get());
                    break;
                default:
                    if (!source->activeTimer(timers[which].get())) source->addTimer(timers[which].get());
                    break;
            }
        }
        if (++calls >= 3000) source->terminate();
    };
    for (size_t i = 0; i < count; ++i) {
        sinks.push_back(std::make_unique<Sink>());
        sinks[i]->fire();
        sinks[i]->whenReadable = [&, i] {
            EXPECT_TRUE(present[i]);
            disturb();
        };
        source->addSink(sinks[i].get(), IFDEventsource::ET_READ);
        timers.push_back(std::make_unique<Timer>(1 + static_cast<int>(i % 3), i % 2 == 0));
        timers[i]->whenFired = disturb;
        source->addTimer(timers[i].get());
    }
    runUntilTerminated();
    EXPECT_GE(calls, 3000);
    for (const auto &timer : timers) source->removeTimer(timer.get());
    EXPECT_EQ(timerDescriptors(), std::vector<int>{});
}

// --- unregistered descriptors

TEST_F(Eventsource, AnUnknownDescriptorIsClosedAndStopsTheLoop) {
    init();
    const int fd = ::eventfd(1, EFD_CLOEXEC);
    epoll_event event{};
    event.events = EPOLLIN;
    event.data.fd = fd;
    ASSERT_EQ(::epoll_ctl(epollDescriptor(), EPOLL_CTL_ADD, fd, &event), 0);
    runUntilTerminated();
    EXPECT_EQ(
        log.take(),
        (Lines{{LOG_ERR,
                textf("Unable to find corresponding event-sink for active file descriptor %i - terminating!", fd)}}));
    EXPECT_EQ(::fcntl(fd, F_GETFD), -1);
}

// A sink's file can outlive its descriptor in a duplicate; its events go on under a number that belongs to another
// file.
TEST_F(Eventsource, AnUnknownDescriptorWhoseNumberIsInOtherHandsIsLeftOpen) {
    init();
    Sink sink;
    const int number = sink.getFd();
    const int duplicate = ::fcntl(number, F_DUPFD_CLOEXEC, 0);
    source->addSink(&sink, IFDEventsource::ET_READ);
    sink.fire();
    sink.closeNow();
    const int other = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
    ASSERT_EQ(other, number);
    source->removeSink(&sink);
    log.take();
    runUntilTerminated();
    Lines lines = log.take();  // one for each round until the loop sees that it is to end
    lines.erase(std::unique(lines.begin(), lines.end()), lines.end());
    EXPECT_EQ(lines, (Lines{{LOG_ERR, textf("Unable to find corresponding event-sink for active file descriptor %i - "
                                            "terminating!",
                                            number)}}));
    EXPECT_NE(::fcntl(other, F_GETFD), -1);
    ::close(other);
    ::close(duplicate);
}

// --- timers

TEST_F(Eventsource, AOneShotTimerFiresOnceAndNotEarly) {
    init();
    Timer timer(30, true);
    Timer end(60, true);
    end.whenFired = [&] { source->terminate(); };
    const auto start = std::chrono::steady_clock::now();
    std::chrono::steady_clock::time_point fired;
    timer.whenFired = [&] {
        fired = std::chrono::steady_clock::now();
        EXPECT_FALSE(source->activeTimer(&timer));
        EXPECT_EQ(timerDescriptors().size(), 1U);  // closed before the callback
    };
    source->addTimer(&timer);
    source->addTimer(&end);
    EXPECT_TRUE(source->activeTimer(&timer));
    runUntilTerminated();
    EXPECT_EQ(timer.counts, std::vector<unsigned int>{1});
    EXPECT_GE(fired - start, 30ms);
}

TEST_F(Eventsource, WholeSecondsAndMillisecondsAddUp) {
    init();
    Timer timer(2345, false);
    source->addTimer(&timer);
    const std::string number = std::to_string(timerDescriptors().at(0));
    EXPECT_THAT(vxtest::readFile("/proc/self/fdinfo/" + number), testing::HasSubstr("clockid: 1\n"));  // monotonic
    itimerspec setting{};
    ASSERT_EQ(::timerfd_gettime(timerDescriptors().at(0), &setting), 0);
    EXPECT_EQ(setting.it_interval.tv_sec, 2);
    EXPECT_EQ(setting.it_interval.tv_nsec, 345'000'000);
    EXPECT_EQ(setting.it_value.tv_sec, 2);
    source->removeTimer(&timer);
    Timer longest(INT_MAX, true);
    source->addTimer(&longest);
    ASSERT_EQ(::timerfd_gettime(timerDescriptors().at(0), &setting), 0);
    EXPECT_EQ(setting.it_interval.tv_sec, 0);
    EXPECT_EQ(setting.it_interval.tv_nsec, 0);
    EXPECT_EQ(setting.it_value.tv_sec, INT_MAX / 1000);
    source->removeTimer(&longest);
}

TEST_F(Eventsource, APeriodicTimerGoesOnUntilItIsRemoved) {
    init();
    Timer timer(5, false);
    const auto start = std::chrono::steady_clock::now();
    timer.whenFired = [&] {
        if (timer.counts.size() < 4) return;
        source->removeTimer(&timer);
        source->terminate();
    };
    source->addTimer(&timer);
    runUntilTerminated();
    EXPECT_EQ(timer.counts.size(), 4U);
    EXPECT_GE(std::chrono::steady_clock::now() - start, 20ms);
    EXPECT_FALSE(source->activeTimer(&timer));
}

TEST_F(Eventsource, MissedPeriodsAreCounted) {
    init();
    Timer timer(5, false);
    timer.whenFired = [&] { source->terminate(); };
    source->addTimer(&timer);
    std::this_thread::sleep_for(52ms);
    runUntilTerminated();
    ASSERT_EQ(timer.counts.size(), 1U);
    EXPECT_GE(timer.counts[0], 10U);
    source->removeTimer(&timer);
}

TEST_F(Eventsource, AOneShotTimerMayBeAddedAgainWhenItFires) {
    init();
    Timer timer(2, true);
    timer.whenFired = [&] {
        if (timer.counts.size() < 3) {
            source->addTimer(&timer);
        } else {
            source->terminate();
        }
    };
    source->addTimer(&timer);
    runUntilTerminated();
    EXPECT_EQ(timer.counts, (std::vector<unsigned int>{1, 1, 1}));
}

TEST_F(Eventsource, AZeroTimerNeverFiresButIsActive) {
    init();
    Timer zero(0, true);
    Timer zeroPeriodic(0, false);
    Timer end(30, true);
    end.whenFired = [&] { source->terminate(); };
    source->addTimer(&zero);
    source->addTimer(&zeroPeriodic);
    source->addTimer(&end);
    runUntilTerminated();
    EXPECT_TRUE(zero.counts.empty());
    EXPECT_TRUE(zeroPeriodic.counts.empty());
    EXPECT_TRUE(source->activeTimer(&zero));
    source->removeTimer(&zero);
    source->removeTimer(&zeroPeriodic);
    EXPECT_FALSE(source->activeTimer(&zero));
}

TEST_F(Eventsource, ASinkMayHaveSeveralTimersAndTheLowestDescriptorIsRemovedFirst) {
    init();
    Timer timer(100000, false);
    for (int i = 0; i < 3; ++i) source->addTimer(&timer);
    auto left = timerDescriptors();
    ASSERT_EQ(left.size(), 3U);
    while (!left.empty()) {
        EXPECT_TRUE(source->activeTimer(&timer));
        left.erase(left.begin());
        source->removeTimer(&timer);
        EXPECT_EQ(timerDescriptors(), left);
    }
    EXPECT_FALSE(source->activeTimer(&timer));
    source->removeTimer(&timer);  // none left: nothing
}

TEST_F(Eventsource, ALowerNumberAddedLaterIsRemovedFirst) {
    init();
    const int low = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
    Timer timer(100000, false);
    Timer other(100000, false);
    source->addTimer(&timer);
    ::close(low);
    source->addTimer(&timer);
    source->addTimer(&other);
    const auto all = timerDescriptors();
    ASSERT_EQ(all.size(), 3U);
    ASSERT_EQ(all[0], low);
    source->removeTimer(&timer);
    EXPECT_EQ(timerDescriptors(), (std::vector<int>{all[1], all[2]}));
    source->removeTimer(&timer);
    source->removeTimer(&other);
}

// A one-shot sink that was added twice: what its firing removes is its lowest descriptor, whichever fired.
TEST_F(Eventsource, AOneShotSinkWithTwoTimersLosesTheLowestWhenItFires) {
    init();
    Timer timer(100000, true);
    source->addTimer(&timer);
    const int low = timerDescriptors().at(0);
    timer.ms = 1;
    source->addTimer(&timer);
    timer.whenFired = [&] {
        EXPECT_THAT(timerDescriptors(), testing::Not(testing::Contains(low)));
        EXPECT_TRUE(source->activeTimer(&timer));
        source->terminate();
    };
    runUntilTerminated();
    EXPECT_EQ(timer.counts.size(), 1U);
    source->removeTimer(&timer);
}

TEST_F(Eventsource, ATimerWithoutADescriptorIsLogged) {
    init();
    Timer timer(10, true);
    const vxtest::DescriptorLimit none(0);
    source->addTimer(&timer);
    EXPECT_EQ(log.take(), (Lines{{LOG_ERR, textf("Unable to create a timerfd for sink 0x%p - errno=Too many open files",
                                                 static_cast<void *>(static_cast<ITimeoutEventsink *>(&timer)))}}));
    EXPECT_FALSE(source->activeTimer(&timer));
}

TEST_F(Eventsource, ARefusedPeriodIsLoggedAndItsDescriptorStaysOpen) {
    init();
    Timer timer(-5, true);
    source->addTimer(&timer);
    EXPECT_EQ(
        log.take(),
        (Lines{{LOG_ERR, textf("Unable to set requested timer value (-5 ms) for sink 0x%p - errno=Invalid argument",
                               static_cast<void *>(static_cast<ITimeoutEventsink *>(&timer)))}}));
    EXPECT_FALSE(source->activeTimer(&timer));
    auto left = timerDescriptors();
    ASSERT_EQ(left.size(), 1U);
    EXPECT_EQ(watched().count(left[0]), 0U);
    ::close(left[0]);

    timer.ms = -3000;
    source->addTimer(&timer);
    timer.ms = 5;
    kernel.refuseSetTime = true;
    source->addTimer(&timer);
    EXPECT_EQ(log.take().size(), 2U);
    for (const int fd : timerDescriptors()) ::close(fd);
}

TEST_F(Eventsource, ATimerThatCannotBeWatchedIsLoggedAndStaysRegistered) {
    init();
    kernel.refuseControl = [](int operation, int) { return operation != EPOLL_CTL_MOD; };
    Timer timer(10, true);
    void *const address = static_cast<ITimeoutEventsink *>(&timer);
    source->addTimer(&timer);
    const int fd = timerDescriptors().at(0);
    EXPECT_EQ(log.take(),
              (Lines{{LOG_ERR, textf("epoll_ctl(add) failed fd=%i, event=0x1, errno=Operation not permitted", fd)},
                     {errorLevel, textf("Unable to add timer (fd %i, sink 0x%p) to epoll-events", fd, address)}}));
    EXPECT_TRUE(source->activeTimer(&timer));
    source->removeTimer(&timer);
    EXPECT_EQ(log.take(),
              (Lines{{LOG_ERR, textf("epoll_ctl(del) failed fd=%i, errno=Operation not permitted", fd)},
                     {errorLevel, textf("Unable to remove timer (fd %i, sink 0x%p) from epoll-events", fd, address)}}));
    EXPECT_EQ(timerDescriptors(), std::vector<int>{});
}

TEST_F(Eventsource, BeforeInitATimerIsRememberedWithoutASystemCallOnTheSet) {
    Timer timer(10, true);
    void *const address = static_cast<ITimeoutEventsink *>(&timer);
    source->addTimer(&timer);
    const int fd = timerDescriptors().at(0);
    source->removeTimer(&timer);
    EXPECT_EQ(log.take(),
              (Lines{{errorLevel, textf("Unable to add timer (fd %i, sink 0x%p) to epoll-events", fd, address)},
                     {errorLevel, textf("Unable to remove timer (fd %i, sink 0x%p) from epoll-events", fd, address)}}));
    EXPECT_EQ(kernel.controlCalls, 0);
}

TEST_F(Eventsource, ATimerDescriptorClosedByOthersGivesWayToTheNextTimerOfItsNumber) {
    init();
    Timer lost(100000, false);
    Timer next(1, true);
    next.whenFired = [&] { source->terminate(); };
    source->addTimer(&lost);
    const int fd = timerDescriptors().at(0);
    ::close(fd);
    EXPECT_TRUE(source->activeTimer(&lost));
    source->addTimer(&next);
    EXPECT_EQ(log.take(), (Lines{{LOG_ERR, textf("sink 0x%p - timerfd %i is already in the map !?",
                                                 static_cast<void *>(static_cast<ITimeoutEventsink *>(&next)), fd)}}));
    EXPECT_FALSE(source->activeTimer(&lost));
    runUntilTerminated();
    EXPECT_EQ(next.counts.size(), 1U);
}

TEST_F(Eventsource, ATimerThatCannotBeReadIsLogged) {
    init();
    Timer timer(1, false);
    source->addTimer(&timer);
    const int fd = timerDescriptors().at(0);
    std::this_thread::sleep_for(5ms);
    kernel.wait = [&](epoll_event *events, int) -> std::optional<int> {
        kernel.wait = nullptr;
        itimerspec off{};
        ::timerfd_settime(fd, 0, &off, nullptr);  // nothing has expired any more
        source->terminate();
        events[0].events = EPOLLIN;
        events[0].data.fd = fd;
        return 1;
    };
    runUntilTerminated();
    EXPECT_EQ(log.take(), (Lines{{LOG_ERR, "Unable to read from timerfd"}}));
    EXPECT_TRUE(timer.counts.empty());
    source->removeTimer(&timer);
}

// A file of our making in the timer's place: what the loop does with each answer of its read.
class TimerAnswer : public Eventsource {
protected:
    void answer(const std::string &bytes, bool oneShot = false) {
        init();
        timer.oneShot = oneShot;
        source->addTimer(&timer);
        fd = timerDescriptors().at(0);
        std::array<int, 2> ends{};
        ASSERT_EQ(::pipe2(ends.data(), O_CLOEXEC), 0);
        ASSERT_EQ(::write(ends[1], bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
        ASSERT_EQ(::dup3(ends[0], fd, O_CLOEXEC), fd);
        ::close(ends[0]);
        ::close(ends[1]);
        kernel.wait = [&](epoll_event *events, int) -> std::optional<int> {
            kernel.wait = nullptr;
            source->terminate();
            events[0].events = EPOLLIN;
            events[0].data.fd = fd;
            return 1;
        };
        kernel.refuseControl = nullptr;
        runUntilTerminated();
    }
    void remove() {
        source->removeTimer(&timer);
        EXPECT_EQ(log.take().size(), 2U);  // the file put there is not in the set
    }

    Timer timer{100000, false};
    int fd = -1;
};

std::string countBytes(uint64_t count) { return {reinterpret_cast<const char *>(&count), sizeof count}; }

TEST_F(TimerAnswer, NothingReadIsSilent) {
    answer("");
    EXPECT_TRUE(timer.counts.empty());
    EXPECT_EQ(log.take(), Lines{});
    remove();
}

TEST_F(TimerAnswer, TooFewBytesAreLogged) {
    answer("1234567");
    EXPECT_TRUE(timer.counts.empty());
    EXPECT_EQ(log.take(), (Lines{{LOG_ERR, "Unable to read from timerfd"}}));
    remove();
}

TEST_F(TimerAnswer, ACountOfZeroIsLogged) {
    answer(countBytes(0), true);
    EXPECT_TRUE(timer.counts.empty());
    EXPECT_EQ(log.take(), (Lines{{errorLevel, textf("Got a wakeup with a zero # of timeouts (fd=%i, sink=0x%p)", fd,
                                                    static_cast<void *>(static_cast<ITimeoutEventsink *>(&timer)))}}));
    EXPECT_TRUE(source->activeTimer(&timer));
    remove();
}

TEST_F(TimerAnswer, TheLow32BitsOfTheCountAreHandedOver) {
    answer(countBytes(0x7'0000'0002ULL));
    EXPECT_EQ(timer.counts, std::vector<unsigned int>{2});
    remove();
}

// A derived loop that watches its own timers go.
class CountingLoop : public CEPollEventsource {
public:
    void removeTimer(ITimeoutEventsink *sink) override {
        ++removals;
        CEPollEventsource::removeTimer(sink);
    }
    int removals = 0;
};

TEST_F(Eventsource, AOneShotTimerIsRemovedThroughTheVirtualCall) {
    CountingLoop loop;
    ASSERT_EQ(loop.init(), 0);
    Timer timer(1, true);
    timer.whenFired = [&] {
        EXPECT_EQ(loop.removals, 1);
        loop.terminate();
    };
    loop.addTimer(&timer);
    EXPECT_EQ(loop.evtLoop(), 0);
    EXPECT_EQ(loop.removals, 1);
}

TEST_F(Eventsource, AThousandTimersAllFire) {
    init();
    std::vector<std::unique_ptr<Timer>> timers;
    size_t fired = 0;
    for (int i = 0; i < 800; ++i) {
        timers.push_back(std::make_unique<Timer>(1 + i % 20, true));
        timers.back()->whenFired = [&] {
            if (++fired == timers.size()) source->terminate();
        };
        source->addTimer(timers.back().get());
    }
    runUntilTerminated();
    for (const auto &timer : timers) EXPECT_EQ(timer->counts.size(), 1U);
    EXPECT_EQ(timerDescriptors(), std::vector<int>{});
}

TEST_F(Eventsource, TheExampleRunsToItsEnd) {
    const auto output = vxtest::run({vxtest::built("examples/eventsource")});
    EXPECT_EQ(output.status, 0) << output.text;
    EXPECT_EQ(output.text, "tick 1\ntick 2\ntick 3\nread \"hello\"\ntime is up\n");
}

}  // namespace
