// SPDX-License-Identifier: MIT
// One message through the queue beside what carries it: a write, an epoll_wait and a read.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <sys/epoll.h>
#include <unistd.h>
#include <vxutils/messagequeue.h>

#include <array>

namespace {

class Echo : public IMQEventsink {
public:
    Echo(benchmark::State &state, CEPollEventsource &source) : state_(state), source_(source) {}
    void onMessage(CMessageQueue *queue, const CQMsg &message) override {
        benchmark::DoNotOptimize(message.code);
        if (state_.KeepRunning()) {
            queue->send(CQMsg(1));
        } else {
            source_.terminate();
        }
    }
    void onQueueError(CMessageQueue *) override { state_.SkipWithError("unreadable queue"); }

private:
    benchmark::State &state_;
    CEPollEventsource &source_;
};

void messageOurs(benchmark::State &state) {
    CEPollEventsource source;
    source.init();
    Echo echo(state, source);
    CMessageQueue queue(&echo, &source);
    queue.init();
    if (!state.KeepRunning()) return;
    queue.send(CQMsg(1));
    source.evtLoop();
}

void messageBare(benchmark::State &state) {
    std::array<int, 2> ends{};
    if (::pipe2(ends.data(), O_NONBLOCK | O_CLOEXEC) == -1) return;
    const int set = ::epoll_create1(EPOLL_CLOEXEC);
    epoll_event event{};
    event.events = EPOLLIN;
    event.data.fd = ends[0];
    ::epoll_ctl(set, EPOLL_CTL_ADD, ends[0], &event);
    char byte = 'x';
    for (auto _ : state) {
        benchmark::DoNotOptimize(::write(ends[1], &byte, 1));
        benchmark::DoNotOptimize(::epoll_wait(set, &event, 1, -1));
        benchmark::DoNotOptimize(::read(event.data.fd, &byte, 1));
    }
    ::close(set);
    ::close(ends[0]);
    ::close(ends[1]);
}

BENCHMARK(messageOurs)->Name("Message/ours");
BENCHMARK(messageBare)->Name("Message/pipe");

}  // namespace
