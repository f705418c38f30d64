// SPDX-License-Identifier: MIT
// One round of the event loop: callbacks that remove, add or change sinks and timers whose events are still pending, or
// reuse their descriptors' numbers. Callbacks that run the loop again are in eventsource_nested_test.cpp.
#include <vxutils/eventsource.h>

#include <fcntl.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <syslog.h>
#include <unistd.h>
#include <vxutils/messagequeue.h>

#include <array>
#include <chrono>
#include <memory>
#include <optional>
#include <random>
#include <stdexcept>
#include <thread>
#include <utility>
#include <vector>

#include "support/loop.h"
#include "support/loop_calls.h"
#include "support/text.h"

namespace {

using vxtest::textf;

using vxtest::LogLine;
using Lines = std::vector<LogLine>;
using namespace std::chrono_literals;
using vxtest::errorLevel;
using vxtest::kernel;
using vxtest::Sink, vxtest::Timer;
using vxtest::timerDescriptors, vxtest::epollDescriptor;
using Eventsource = vxtest::LoopCallsTest;

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

// Deletes its queue when a message arrives.
class LastMessage : public IMQEventsink {
public:
    void onMessage(CMessageQueue *called, const CQMsg &message) override {
        EXPECT_EQ(called, queue.get());
        queue.reset();
        code = message.code;  // the message outlives its queue
        source->terminate();
    }
    void onQueueError(CMessageQueue *) override { ADD_FAILURE(); }

    CEPollEventsource *source = nullptr;
    std::unique_ptr<CMessageQueue> queue;
    int code = 0;
};

TEST_F(Eventsource, AMessageQueueMayBeDestroyedByItsOwnMessage) {
    init();
    LastMessage consumer;
    consumer.source = source.get();
    consumer.queue = std::make_unique<CMessageQueue>(&consumer, source.get());
    ASSERT_EQ(consumer.queue->init(), 0);
    ASSERT_EQ(consumer.queue->send(CQMsg(42)), 0);
    ASSERT_EQ(consumer.queue->send(CQMsg(43)), 0);
    runUntilTerminated();
    EXPECT_EQ(consumer.queue, nullptr);
    EXPECT_EQ(consumer.code, 42);
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

TEST_F(Eventsource, TheRoundOfAnUnknownDescriptorIsServedToItsEnd) {
    init();
    Sink sink;
    sink.whenReadable = [&] { sink.clear(); };
    source->addSink(&sink, IFDEventsource::ET_READ);
    sink.fire();
    Sink second;
    source->addSink(&second, IFDEventsource::ET_NONE);  // with two sinks a round has room for two events
    const int unknown = ::eventfd(0, EFD_CLOEXEC);
    bool reported = false;
    kernel.wait = [&](epoll_event *events, int) -> std::optional<int> {
        if (std::exchange(reported, true)) {
            EXPECT_EQ(sink.reads, 1);
            return std::nullopt;
        }
        events[0].events = EPOLLIN;
        events[0].data.fd = unknown;
        events[1].events = EPOLLIN;
        events[1].data.fd = sink.getFd();
        return 2;
    };
    runUntilTerminated();
    EXPECT_EQ(log.take().size(), 1U);
    ::close(unknown);
}

// A duplicate keeps a sink's file open after its descriptor was closed. Its events still carry the old number, which
// belongs to another file by then.
TEST_F(Eventsource, AnUnknownDescriptorWhoseNumberBelongsToAnotherFileStaysOpen) {
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

}  // namespace
