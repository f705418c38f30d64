// SPDX-License-Identifier: MIT
// A callback of the event loop that runs the loop again: which events the inner loop serves, which stay pending in the
// enclosing one.
#include <vxutils/eventsource.h>

#include <poll.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/timerfd.h>
#include <syslog.h>
#include <unistd.h>

#include <memory>
#include <optional>
#include <stdexcept>
#include <vector>

#include "support/loop.h"
#include "support/loop_calls.h"
#include "support/text.h"

namespace {

using vxtest::textf;

using vxtest::LogLine;
using Lines = std::vector<LogLine>;
using vxtest::kernel;
using vxtest::Sink, vxtest::Timer;
using vxtest::watched, vxtest::descriptorsOn, vxtest::timerDescriptors, vxtest::epollDescriptor;
using Eventsource = vxtest::LoopCallsTest;

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

// A callback of `starter` runs the loop again while the outer round still has events pending. report() names the
// descriptors that each wait reports: the first list is the outer loop's round, the second the inner loop's first one.
// Waits beyond the lists ask the kernel.
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

// By the time the outer loop serves its pending event, the number may belong to another file.
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

// Serving a timer a second time would find nothing to read and log that.
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

// The byte of terminate() stays in the pipe, so it ends every nested loop and drops the rest of every batch.
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

}  // namespace
