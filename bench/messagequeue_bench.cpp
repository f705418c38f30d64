// SPDX-License-Identifier: MIT
// Messages through the queue, one at a time and in bursts, beside the same queue by hand.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <unistd.h>
#include <vxutils/messagequeue.h>

#include <array>
#include <cstdint>
#include <deque>
#include <mutex>

namespace {

// Sends the next burst when the last one has arrived.
class Sender : public IMQEventsink {
public:
    Sender(benchmark::State &state, CEPollEventsource &source, int64_t burst)
        : state_(state), source_(source), burst_(burst) {}

    void onMessage(CMessageQueue *queue, const CQMsg &message) override {
        benchmark::DoNotOptimize(message.code);
        if (--awaited_ > 0) return;
        if (state_.KeepRunning()) {
            send(*queue);
        } else {
            source_.terminate();
        }
    }
    void onQueueError(CMessageQueue *) override { state_.SkipWithError("unreadable queue"); }

    void send(CMessageQueue &queue) {
        for (awaited_ = 0; awaited_ < burst_; ++awaited_) queue.send(CQMsg(1));
    }

private:
    benchmark::State &state_;
    CEPollEventsource &source_;
    const int64_t burst_;
    int64_t awaited_ = 0;
};

void messagesOurs(benchmark::State &state) {
    CEPollEventsource source;
    source.init();
    Sender sender(state, source, state.range(0));
    CMessageQueue queue(&sender, &source);
    queue.init();
    if (!state.KeepRunning()) return;
    sender.send(queue);
    source.evtLoop();
}

// An epoll set that watches one descriptor.
class Watch {
public:
    explicit Watch(int fd) : set_(::epoll_create1(EPOLL_CLOEXEC)) {
        epoll_event event{};
        event.events = EPOLLIN;
        event.data.fd = fd;
        ::epoll_ctl(set_, EPOLL_CTL_ADD, fd, &event);
    }
    ~Watch() { ::close(set_); }
    Watch(const Watch &) = delete;
    Watch &operator=(const Watch &) = delete;

    void wait() const {
        epoll_event event{};
        benchmark::DoNotOptimize(::epoll_wait(set_, &event, 1, -1));
    }

private:
    int set_;
};

// What the contract asks for at least: a byte in a pipe for each message and one message for each wake-up, so that other
// descriptors have their turn between two messages and a consumer may remove the queue in its callback.
void messagesByPipe(benchmark::State &state) {
    std::array<int, 2> ends{};
    if (::pipe2(ends.data(), O_NONBLOCK | O_CLOEXEC) == -1) return state.SkipWithError("no pipe");
    const Watch watch(ends[0]);
    std::mutex access;
    std::deque<CQMsg> messages;
    char byte = 'x';
    for (auto _ : state) {
        for (int64_t i = 0; i < state.range(0); ++i) {
            const std::lock_guard guard(access);
            benchmark::DoNotOptimize(::write(ends[1], &byte, 1));
            messages.push_back(CQMsg(1));
        }
        for (int64_t i = 0; i < state.range(0); ++i) {
            watch.wait();
            const std::lock_guard guard(access);
            benchmark::DoNotOptimize(::read(ends[0], &byte, 1));
            benchmark::DoNotOptimize(messages.front().code);
            messages.pop_front();
        }
    }
    ::close(ends[0]);
    ::close(ends[1]);
}

// What another contract would allow: one wake-up for all messages that wait.
void messagesAtOnce(benchmark::State &state) {
    const int count = ::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
    const Watch watch(count);
    std::mutex access;
    std::deque<CQMsg> messages;
    for (auto _ : state) {
        for (int64_t i = 0; i < state.range(0); ++i) {
            const std::lock_guard guard(access);
            const uint64_t one = 1;
            if (messages.empty()) benchmark::DoNotOptimize(::write(count, &one, sizeof one));
            messages.push_back(CQMsg(1));
        }
        watch.wait();
        uint64_t sent = 0;
        std::deque<CQMsg> taken;
        {
            const std::lock_guard guard(access);
            benchmark::DoNotOptimize(::read(count, &sent, sizeof sent));
            taken.swap(messages);
        }
        for (const CQMsg &message : taken) benchmark::DoNotOptimize(message.code);
    }
    ::close(count);
}

BENCHMARK(messagesOurs)->Name("Messages/ours")->Arg(1)->Arg(64);
BENCHMARK(messagesByPipe)->Name("Messages/pipe")->Arg(1)->Arg(64);
BENCHMARK(messagesAtOnce)->Name("Messages/eventfd_at_once")->Arg(1)->Arg(64);

}  // namespace
