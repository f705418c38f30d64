// SPDX-License-Identifier: MIT
// The event loop: high descriptor numbers, many timers, odd event types, a full pipe, signals, overridden calls.
#include <vxutils/eventsource.h>

#include <fcntl.h>
#include <gmock/gmock.h>
#include <malloc.h>
#include <pthread.h>
#include <sys/epoll.h>
#include <sys/timerfd.h>
#include <syslog.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <chrono>
#include <climits>
#include <csignal>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "support/files.h"
#include "support/loop.h"
#include "support/syslog_capture.h"
#include "support/text.h"

namespace {

using namespace std::chrono_literals;
using Lines = std::vector<vxtest::LogLine>;
using vxtest::Sink, vxtest::Timer;
using vxtest::textf, vxtest::watched, vxtest::descriptorsOn, vxtest::timerDescriptors;
using Eventsource = vxtest::LoopTest;

// --- sinks

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

size_t allocatedBytes() {
    const auto info = ::mallinfo2();
    return info.uordblks + info.hblkhd;
}

TEST_F(Eventsource, MemoryGrowsWithTheSinksAndNotWithTheirNumbers) {
    init();
    Sink low;
    Sink high(::fcntl(low.getFd(), F_DUPFD_CLOEXEC, 9000));
    ASSERT_EQ(high.getFd(), 9000);
    const size_t before = allocatedBytes();
    source->addSink(&high, IFDEventsource::ET_READ);
    EXPECT_LT(allocatedBytes(), before + 2000);
    source->removeSink(&high);
    ::close(high.getFd());
}

// --- timers

// Takes every descriptor number up to 4100, so that the next one is above all that have a slot of their own.
class HighNumbers {
public:
    HighNumbers() {
        for (int fd = 0; fd != -1 && fd < 4100; taken_.push_back(fd)) fd = ::fcntl(0, F_DUPFD_CLOEXEC, 0);
    }
    ~HighNumbers() {
        for (const int fd : taken_) ::close(fd);
    }
    HighNumbers(const HighNumbers &) = delete;
    HighNumbers &operator=(const HighNumbers &) = delete;

private:
    std::vector<int> taken_;
};

TEST_F(Eventsource, TimersOnHighDescriptorNumbersFireAndGo) {
    init();
    Timer timer(1, true);
    timer.whenFired = [&] { source->terminate(); };
    {
        const HighNumbers next;
        source->addTimer(&timer);
    }
    EXPECT_GT(timerDescriptors().at(0), 4095);
    EXPECT_TRUE(source->activeTimer(&timer));
    runUntilTerminated();
    EXPECT_EQ(timer.counts.size(), 1U);
    EXPECT_FALSE(source->activeTimer(&timer));
}

TEST_F(Eventsource, OfTimersOnHighDescriptorNumbersTheRightOneIsRemoved) {
    init();
    Timer stays(100000, false);
    Timer goes(100000, false);
    {
        const HighNumbers next;
        source->addTimer(&stays);
        source->addTimer(&goes);
    }
    const auto both = timerDescriptors();
    ASSERT_EQ(both.size(), 2U);
    ASSERT_GT(both[0], 4095);
    source->removeTimer(&goes);
    EXPECT_EQ(timerDescriptors(), std::vector{both[0]});
    EXPECT_TRUE(source->activeTimer(&stays));
    EXPECT_FALSE(source->activeTimer(&goes));
    source->removeTimer(&stays);
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

// Slots of descriptors without a timer hold a null pointer, too.
TEST_F(Eventsource, NoTimerIsThatOfNull) {
    init();
    Timer timer(100000, false);
    EXPECT_FALSE(source->activeTimer(nullptr));
    source->addTimer(&timer);
    EXPECT_FALSE(source->activeTimer(nullptr));
    source->removeTimer(nullptr);
    EXPECT_TRUE(source->activeTimer(&timer));
    source->removeTimer(&timer);
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

// A timer whose sink gives another answer from the second time on.
class FickleTimer : public Timer {
public:
    explicit FickleTimer(bool onceAtFirst) : Timer(1, onceAtFirst) {}
    int getTimeoutMs() override {
        ++periodsAsked;
        return Timer::getTimeoutMs();
    }
    bool isOneShot() override { return (++kindsAsked > 1) != oneShot; }

    int periodsAsked = 0;
    int kindsAsked = 0;
};

TEST_F(Eventsource, ATimerThatBecomesOneShotIsRemovedWhenItFires) {
    init();
    FickleTimer timer(false);
    timer.whenFired = [&] {
        EXPECT_FALSE(source->activeTimer(&timer));
        source->terminate();
    };
    source->addTimer(&timer);
    runUntilTerminated();
    EXPECT_EQ(timer.counts.size(), 1U);
    EXPECT_EQ(timer.periodsAsked, 1);
    EXPECT_EQ(timer.kindsAsked, 2);
    EXPECT_EQ(timerDescriptors(), std::vector<int>{});
}

TEST_F(Eventsource, AOneShotTimerThatBecomesPeriodicStaysActiveAndFiresOnce) {
    init();
    FickleTimer timer(true);
    Timer end(30, true);
    end.whenFired = [&] { source->terminate(); };
    source->addTimer(&timer);
    source->addTimer(&end);
    runUntilTerminated();
    EXPECT_EQ(timer.counts, std::vector<unsigned int>{1});
    EXPECT_EQ(timer.periodsAsked, 1);
    EXPECT_TRUE(source->activeTimer(&timer));
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

TEST_F(Eventsource, TerminateNeverBlocksHoweverOftenItIsCalled) {
    init();
    for (int i = 0; i < 100000; ++i) source->terminate();
    runUntilTerminated();
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
