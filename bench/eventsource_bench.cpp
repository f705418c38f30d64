// SPDX-License-Identifier: MIT
// The loop's hot paths beside two other loops and the bare system calls.  All of them watch the same kind of descriptor
// and run the same code when it is ready; each loop is entered once and serves all events of the measurement.
#include <benchmark/benchmark.h>
#include <event2/event.h>
#include <fcntl.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/timerfd.h>
#include <unistd.h>
#include <uv.h>
#include <vxutils/eventsource.h>

#include <array>
#include <chrono>
#include <cstdint>
#include <memory>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;

// A semaphore of the kernel gives its events out one by one, a read each: it stays ready without being written between
// them, as a busy socket does.
constexpr uint64_t eventsAtOnce = 64;

void fire(int fd, uint64_t times = 1) { benchmark::DoNotOptimize(::write(fd, &times, sizeof times)); }

void drain(int fd) {
    uint64_t value = 0;
    benchmark::DoNotOptimize(::read(fd, &value, sizeof value));
}

class Descriptors {
public:
    explicit Descriptors(int64_t count) {
        for (int64_t i = 0; i < count; ++i) fds_.push_back(::eventfd(0, EFD_SEMAPHORE | EFD_NONBLOCK | EFD_CLOEXEC));
    }
    ~Descriptors() {
        for (const int fd : fds_) ::close(fd);
    }
    Descriptors(const Descriptors &) = delete;
    Descriptors &operator=(const Descriptors &) = delete;

    const std::vector<int> &all() const { return fds_; }
    // A different one each time, so that no implementation lives on one warm entry.
    int next() {
        at_ = (at_ + 7) % fds_.size();
        return fds_[at_];
    }

private:
    std::vector<int> fds_;
    size_t at_ = 0;
};

// What every callback does: read, and end the loop when there is nothing more to measure. One descriptor is ready at a
// time, so that each turn of a loop is one wait and one read; after some events it is another one's turn.
class Step {
public:
    Step(benchmark::State &state, Descriptors &fds) : state_(state), fds_(fds) {}

    // Call this before entering the loop.
    bool start() {
        refill();
        return state_.KeepRunning();
    }
    bool operator()(int fd) {
        drain(fd);
        if (done_) return false;  // called again before the loop has seen that it is to end
        if (--left_ == 0) refill();
        done_ = !state_.KeepRunning();
        return !done_;
    }

private:
    void refill() {
        left_ = eventsAtOnce;
        fire(fds_.next(), eventsAtOnce);
    }

    benchmark::State &state_;
    Descriptors &fds_;
    bool done_ = false;
    uint64_t left_ = 0;
};

// --- one descriptor event, by the number of registered descriptors

class StepSink : public IFDEventsink {
public:
    StepSink(CEPollEventsource &source, Step &step, int fd) : source_(source), step_(step), fd_(fd) {}
    void onReadable() override {
        if (!step_(fd_)) source_.terminate();
    }
    void onWritable() override {}
    int getFd() const override { return fd_; }

private:
    CEPollEventsource &source_;
    Step &step_;
    int fd_;
};

void descriptorOurs(benchmark::State &state) {
    Descriptors fds(state.range(0));
    Step step(state, fds);
    CEPollEventsource source;
    source.init();
    std::vector<std::unique_ptr<StepSink>> sinks;
    for (const int fd : fds.all()) {
        sinks.push_back(std::make_unique<StepSink>(source, step, fd));
        source.addSink(sinks.back().get(), IFDEventsource::ET_READ);
    }
    if (step.start()) source.evtLoop();
}

void descriptorLibevent(benchmark::State &state) {
    Descriptors fds(state.range(0));
    struct Context {
        Step step;
        event_base *base;
    } context{Step(state, fds), event_base_new()};
    std::vector<event *> events;
    for (const int fd : fds.all()) {
        const auto callback = [](evutil_socket_t ready, short, void *data) {
            auto *const own = static_cast<Context *>(data);
            if (!own->step(ready)) event_base_loopbreak(own->base);
        };
        events.push_back(event_new(context.base, fd, EV_READ | EV_PERSIST, callback, &context));
        event_add(events.back(), nullptr);
    }
    if (context.step.start()) event_base_dispatch(context.base);
    for (event *one : events) event_free(one);
    event_base_free(context.base);
}

void descriptorLibuv(benchmark::State &state) {
    Descriptors fds(state.range(0));
    Step step(state, fds);
    uv_loop_t loop;
    uv_loop_init(&loop);
    std::vector<uv_poll_t> polls(fds.all().size());
    struct Context {
        Step *step;
        int fd;
    };
    std::vector<Context> contexts(polls.size());
    for (size_t i = 0; i < polls.size(); ++i) {
        contexts[i] = {&step, fds.all()[i]};
        uv_poll_init(&loop, &polls[i], contexts[i].fd);
        polls[i].data = &contexts[i];
        uv_poll_start(&polls[i], UV_READABLE, [](uv_poll_t *poll, int, int) {
            auto *const own = static_cast<Context *>(poll->data);
            if (!(*own->step)(own->fd)) uv_stop(poll->loop);
        });
    }
    if (step.start()) uv_run(&loop, UV_RUN_DEFAULT);
    for (uv_poll_t &poll : polls) uv_close(reinterpret_cast<uv_handle_t *>(&poll), nullptr);
    uv_run(&loop, UV_RUN_DEFAULT);
    uv_loop_close(&loop);
}

void descriptorBare(benchmark::State &state) {
    Descriptors fds(state.range(0));
    Step step(state, fds);
    const int set = ::epoll_create1(EPOLL_CLOEXEC);
    for (const int fd : fds.all()) {
        epoll_event event{};
        event.events = EPOLLIN;
        event.data.fd = fd;
        ::epoll_ctl(set, EPOLL_CTL_ADD, fd, &event);
    }
    std::vector<epoll_event> events(fds.all().size());
    bool more = step.start();
    while (more) {
        const int count = ::epoll_wait(set, events.data(), static_cast<int>(events.size()), -1);
        for (int i = 0; i < count; ++i) more = step(events[static_cast<size_t>(i)].data.fd);
    }
    ::close(set);
}

#define DESCRIPTOR_COUNTS Arg(1)->Arg(64)->Arg(1000)
BENCHMARK(descriptorOurs)->Name("DescriptorEvent/ours")->DESCRIPTOR_COUNTS;
BENCHMARK(descriptorLibevent)->Name("DescriptorEvent/libevent")->DESCRIPTOR_COUNTS;
BENCHMARK(descriptorLibuv)->Name("DescriptorEvent/libuv")->DESCRIPTOR_COUNTS;
BENCHMARK(descriptorBare)->Name("DescriptorEvent/epoll")->DESCRIPTOR_COUNTS;

// --- adding and removing a sink, by the number of registered sinks

class IdleSink : public IFDEventsink {
public:
    explicit IdleSink(int fd) : fd_(fd) {}
    void onReadable() override {}
    void onWritable() override {}
    int getFd() const override { return fd_; }

private:
    int fd_;
};

void sinkOurs(benchmark::State &state) {
    Descriptors fds(state.range(0));
    CEPollEventsource source;
    source.init();
    std::vector<std::unique_ptr<IdleSink>> sinks;
    for (const int fd : fds.all()) {
        sinks.push_back(std::make_unique<IdleSink>(fd));
        source.addSink(sinks.back().get(), IFDEventsource::ET_READ);
    }
    Descriptors one(1);
    IdleSink sink(one.next());
    for (auto _ : state) {
        source.addSink(&sink, IFDEventsource::ET_READ);
        source.removeSink(&sink);
    }
}

void sinkBare(benchmark::State &state) {
    Descriptors fds(state.range(0));
    const int set = ::epoll_create1(EPOLL_CLOEXEC);
    epoll_event event{};
    event.events = EPOLLIN;
    for (const int fd : fds.all()) ::epoll_ctl(set, EPOLL_CTL_ADD, fd, &event);
    Descriptors one(1);
    const int fd = one.next();
    event.data.fd = fd;
    for (auto _ : state) {
        ::epoll_ctl(set, EPOLL_CTL_ADD, fd, &event);
        ::epoll_ctl(set, EPOLL_CTL_DEL, fd, nullptr);
    }
    ::close(set);
}

BENCHMARK(sinkOurs)->Name("SinkAddRemove/ours")->DESCRIPTOR_COUNTS;
BENCHMARK(sinkBare)->Name("SinkAddRemove/epoll_ctl")->DESCRIPTOR_COUNTS;

// --- timers

constexpr int farAway = 1000000;

class IdleTimer : public ITimeoutEventsink {
public:
    explicit IdleTimer(int ms) : ms_(ms) {}
    void onTimeout(unsigned int expirations) override { benchmark::DoNotOptimize(expirations); }
    int getTimeoutMs() override { return ms_; }
    bool isOneShot() override { return false; }

private:
    int ms_;
};

int bareTimer(int set, int ms) {
    const int fd = ::timerfd_create(CLOCK_MONOTONIC, TFD_NONBLOCK | TFD_CLOEXEC);
    itimerspec setting{};
    setting.it_value.tv_sec = ms / 1000;
    setting.it_value.tv_nsec = ms % 1000 * 1000000L;
    setting.it_interval = setting.it_value;
    ::timerfd_settime(fd, 0, &setting, nullptr);
    epoll_event event{};
    event.events = EPOLLIN;
    event.data.fd = fd;
    ::epoll_ctl(set, EPOLL_CTL_ADD, fd, &event);
    return fd;
}

void timerOurs(benchmark::State &state) {
    CEPollEventsource source;
    source.init();
    std::vector<std::unique_ptr<IdleTimer>> timers;
    for (int64_t i = 1; i < state.range(0); ++i) {
        timers.push_back(std::make_unique<IdleTimer>(farAway));
        source.addTimer(timers.back().get());
    }
    IdleTimer timer(farAway / 2);
    for (auto _ : state) {
        source.addTimer(&timer);
        source.removeTimer(&timer);
    }
    for (const auto &one : timers) source.removeTimer(one.get());
}

void timerBare(benchmark::State &state) {
    const int set = ::epoll_create1(EPOLL_CLOEXEC);
    std::vector<int> timers;
    for (int64_t i = 1; i < state.range(0); ++i) timers.push_back(bareTimer(set, farAway));
    for (auto _ : state) {
        const int fd = bareTimer(set, farAway / 2);
        ::epoll_ctl(set, EPOLL_CTL_DEL, fd, nullptr);
        ::close(fd);
    }
    for (const int fd : timers) ::close(fd);
    ::close(set);
}

BENCHMARK(timerOurs)->Name("TimerAddRemove/ours")->Arg(1)->Arg(100)->Arg(1000);
BENCHMARK(timerBare)->Name("TimerAddRemove/timerfd")->Arg(1)->Arg(100)->Arg(1000);

// Timers that are all due, served in one round.  A driver, ready on every round, brackets the round: on one it lets all
// timers expire and starts the clock, on the next but one all of them have been served and it stops the clock.
constexpr int periodMs = 10;
constexpr auto period = std::chrono::milliseconds(periodMs);
constexpr auto margin = std::chrono::microseconds(300);

// Measures the rounds in which all timers are due, once each. Arming a thousand takes a good part of the period, and
// they expire spread as they were armed: a round begins right after the last of them, so that none expires during it.
class Bracket {
public:
    explicit Bracket(benchmark::State &state) : state_(state) {}
    // Call this after arming the last timer.
    void allAreArmed() { begin_ = Clock::now() + margin; }
    // False when there is nothing more to measure.
    bool operator()() {
        if (done_) return false;  // asked again before the loop has seen that it is to end
        if (waiting_) {
            waiting_ = false;
            return true;
        }
        if (started_ != Clock::time_point{}) {
            state_.SetIterationTime(std::chrono::duration<double>(Clock::now() - started_).count());
        }
        done_ = !state_.KeepRunning();
        if (done_) return false;
        waitAwake();
        waiting_ = true;
        started_ = Clock::now();
        return true;
    }

private:
    // What is compared is the work for an event, and not how cold the processor gets while it sleeps.
    void waitAwake() {
        do begin_ += period;
        while (begin_ < Clock::now());
        while (Clock::now() < begin_) continue;
    }

    benchmark::State &state_;
    bool waiting_ = false;
    bool done_ = false;
    Clock::time_point begin_;
    Clock::time_point started_;
};

class Driver : public IFDEventsink {
public:
    Driver(CEPollEventsource &source, Bracket &bracket, int fd) : source_(source), bracket_(bracket), fd_(fd) {}
    void onReadable() override {
        if (!bracket_()) source_.terminate();
    }
    void onWritable() override {}
    int getFd() const override { return fd_; }

private:
    CEPollEventsource &source_;
    Bracket &bracket_;
    int fd_;
};

void expiryOurs(benchmark::State &state) {
    Descriptors one(1);
    Bracket bracket(state);
    CEPollEventsource source;
    source.init();
    Driver driver(source, bracket, one.next());
    source.addSink(&driver, IFDEventsource::ET_READ);
    fire(driver.getFd());
    std::vector<std::unique_ptr<IdleTimer>> timers;
    for (int64_t i = 0; i < state.range(0); ++i) {
        timers.push_back(std::make_unique<IdleTimer>(periodMs));
        source.addTimer(timers.back().get());
    }
    bracket.allAreArmed();
    source.evtLoop();
    for (const auto &timer : timers) source.removeTimer(timer.get());
    state.SetItemsProcessed(state.iterations() * state.range(0));
}

void expiryBare(benchmark::State &state) {
    Descriptors one(1);
    Bracket bracket(state);
    const int set = ::epoll_create1(EPOLL_CLOEXEC);
    const int driver = one.next();
    epoll_event event{};
    event.events = EPOLLIN;
    event.data.fd = driver;
    ::epoll_ctl(set, EPOLL_CTL_ADD, driver, &event);
    fire(driver);
    std::vector<int> timers;
    for (int64_t i = 0; i < state.range(0); ++i) timers.push_back(bareTimer(set, periodMs));
    bracket.allAreArmed();
    std::vector<epoll_event> events(timers.size() + 1);
    bool more = true;
    while (more) {
        const int count = ::epoll_wait(set, events.data(), static_cast<int>(events.size()), -1);
        for (int i = 0; i < count; ++i) {
            const int fd = events[static_cast<size_t>(i)].data.fd;
            if (fd == driver) {
                more = bracket();
            } else {
                drain(fd);
            }
        }
    }
    for (const int fd : timers) ::close(fd);
    ::close(set);
    state.SetItemsProcessed(state.iterations() * state.range(0));
}

// Making a loop with nothing in it and dropping it, beside the system calls that it takes.

void makeOurs(benchmark::State &state) {
    for (auto _ : state) {
        CEPollEventsource source;
        benchmark::DoNotOptimize(source.init());
    }
}

void makeBare(benchmark::State &state) {
    for (auto _ : state) {
        std::array<int, 2> ends{};
        const int set = ::epoll_create1(EPOLL_CLOEXEC);
        if (::pipe2(ends.data(), O_CLOEXEC | O_NONBLOCK) != 0) return state.SkipWithError("no pipe");
        epoll_event event{};
        event.events = EPOLLIN;
        event.data.fd = ends[0];
        ::epoll_ctl(set, EPOLL_CTL_ADD, ends[0], &event);
        ::close(ends[1]);
        ::close(ends[0]);
        ::close(set);
    }
}
BENCHMARK(makeOurs)->Name("MakeAndDrop/ours");
BENCHMARK(makeBare)->Name("MakeAndDrop/bare");

BENCHMARK(expiryOurs)->Name("TimerEvents/ours")->Arg(1)->Arg(100)->Arg(1000)->UseManualTime()->Iterations(100);
BENCHMARK(expiryBare)->Name("TimerEvents/timerfd")->Arg(1)->Arg(100)->Arg(1000)->UseManualTime()->Iterations(100);

}  // namespace
