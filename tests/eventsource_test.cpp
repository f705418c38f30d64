// SPDX-License-Identifier: MIT
// The event loop through its public interface, on real descriptors and timers. What the system refuses is in
// eventsource_faults_test.cpp, what callbacks may do while a round is served in eventsource_rounds_test.cpp and
// eventsource_nested_test.cpp.
#include <vxutils/eventsource.h>

#include <fcntl.h>
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
#include <map>
#include <memory>
#include <thread>
#include <vector>

#include "support/files.h"
#include "support/loop.h"
#include "support/process.h"
#include "support/resources.h"
#include "support/syslog_capture.h"
#include "support/text.h"

namespace {

using vxtest::textf;

using vxtest::LogLine;
using Lines = std::vector<LogLine>;
using namespace std::chrono_literals;
using vxtest::Sink, vxtest::Timer;
using vxtest::watched, vxtest::descriptorsOn, vxtest::timerDescriptors, vxtest::epollDescriptor;
using Eventsource = vxtest::LoopTest;

// --- the commonest use

TEST_F(Eventsource, TheExampleRunsToItsEnd) {
    const auto output = vxtest::run({vxtest::built("examples/eventsource")});
    EXPECT_EQ(output.status, 0) << output.text;
    EXPECT_EQ(output.text, "tick 1\ntick 2\ntick 3\nread \"hello\"\ntime is up\n");
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

TEST_F(Eventsource, RemovingASinkLeavesItsDescriptorOpen) {
    init();
    Sink sink;
    source->addSink(&sink, IFDEventsource::ET_READ);
    source->removeSink(&sink);
    EXPECT_NE(::fcntl(sink.getFd(), F_GETFD), -1);
    EXPECT_EQ(watched().count(sink.getFd()), 0U);
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

// --- timers

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
    source->removeTimer(&timer);  // no effect: none is left
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

// Of a one-shot sink's two timers the second one fires, and the first one is removed.
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

// A derived loop that counts the timers that are removed.
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

TEST_F(Eventsource, EightHundredTimersAllFire) {
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

// --- terminate

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

}  // namespace
