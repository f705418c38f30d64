// SPDX-License-Identifier: MIT
// The event loop when the system refuses, and which system calls it makes.
#include <vxutils/eventsource.h>

#include <fcntl.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/timerfd.h>
#include <syslog.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <cstring>
#include <memory>
#include <optional>
#include <stdexcept>
#include <thread>
#include <vector>

#include "support/descriptor_limit.h"
#include "support/files.h"
#include "support/loop.h"
#include "support/loop_calls.h"
#include "support/resources.h"
#include "support/syslog_capture.h"
#include "support/text.h"

namespace {

using vxtest::textf;

using vxtest::LogLine;
using Lines = std::vector<LogLine>;
using namespace std::chrono_literals;
using vxtest::errorLevel;
using vxtest::kernel;
using vxtest::Sink, vxtest::Timer;
using vxtest::watched, vxtest::descriptorsOn, vxtest::timerDescriptors, vxtest::epollDescriptor;
using Eventsource = vxtest::LoopCallsTest;

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

TEST_F(Eventsource, RemovingAnUnknownSinkDoesNothing) {
    init();
    Sink sink;
    const int calls = kernel.controlCalls;
    source->removeSink(&sink);
    EXPECT_EQ(kernel.controlCalls, calls);
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

// A sink is closed before it is removed, and a timer gets its number.
class TimerWithAClosedSinksNumber : public Eventsource {
protected:
    void SetUp() override {
        Eventsource::SetUp();
        init();
        const int fd = sink.getFd();
        source->addSink(&sink, IFDEventsource::ET_READ);
        sink.closeNow();
        timer.whenFired = [this] { source->terminate(); };
        source->addTimer(&timer);
        ASSERT_EQ(timerDescriptors(), std::vector<int>{fd});
    }

    void expectTheTimerFires() {
        runUntilTerminated();
        EXPECT_EQ(timer.counts, std::vector<unsigned int>{1});
    }

    Sink sink;
    Timer timer{1, true};
};

TEST_F(TimerWithAClosedSinksNumber, OutlivesTheSinksRemoval) {
    source->removeSink(&sink);
    expectTheTimerFires();
}

TEST_F(TimerWithAClosedSinksNumber, OutlivesAChangeOfTheSinksMask) {
    source->modifyEventMask(&sink, IFDEventsource::ET_NONE);
    source->removeSink(&sink);
    expectTheTimerFires();
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

TEST_F(Eventsource, TerminateWithoutInitIsLoggedAndLost) {
    source->terminate();
    EXPECT_EQ(log.take(), (Lines{{errorLevel, "unable to write to command-pipe (fd=-1) - errno=Bad file descriptor"}}));
    init();
    Timer timer(1, true);
    timer.whenFired = [&] { source->terminate(); };
    source->addTimer(&timer);
    runUntilTerminated();
    EXPECT_EQ(timer.counts.size(), 1U);
}

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

}  // namespace
