// SPDX-License-Identifier: MIT
// The event loop through its public interface, on real descriptors and timers. Limits and odd input are in
// eventsource_limits_test.cpp, what the system refuses in eventsource_faults_test.cpp, what callbacks may do while a
// round is served in eventsource_rounds_test.cpp and eventsource_nested_test.cpp.
#include <vxutils/eventsource.h>

#include <fcntl.h>
#include <sys/epoll.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include "support/loop.h"
#include "support/process.h"
#include "support/resources.h"

namespace {

using namespace std::chrono_literals;
using vxtest::Sink, vxtest::Timer;
using vxtest::watched, vxtest::timerDescriptors;
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

// --- terminate

TEST_F(Eventsource, TerminatesFromAnotherThread) {
    init();
    std::thread other([&] { source->terminate(); });
    runUntilTerminated();
    other.join();
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

}  // namespace
