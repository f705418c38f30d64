// SPDX-License-Identifier: MIT
#include <fcntl.h>
#include <unistd.h>
#include <vxutils/eventsource.h>
#include <vxutils/messagequeue.h>

#include <memory>
#include <new>
#include <system_error>

#include "support/files.h"
#include "torture/faults.h"

using torture::Disarmed;
using torture::Run;

namespace {

// Ends the loop when the pipe becomes readable.
class PipeSink : public IFDEventsink {
public:
    explicit PipeSink(IFDEventsource &source) : source_(source) {
        if (::pipe2(ends_, O_CLOEXEC | O_NONBLOCK) == -1) throw std::system_error(errno, std::generic_category());
    }
    ~PipeSink() override {
        ::close(ends_[0]);
        ::close(ends_[1]);
    }
    void onReadable() override {
        const Disarmed quiet;
        char byte;
        reads += ::read(ends_[0], &byte, 1) == 1 ? 1 : 0;
        source_.terminate();
    }
    void onWritable() override {}
    int getFd() const override { return ends_[0]; }
    void wake() { [[maybe_unused]] const ssize_t written = ::write(ends_[1], "x", 1); }
    int reads = 0;

private:
    IFDEventsource &source_;
    int ends_[2];
};

class OneShot : public ITimeoutEventsink {
public:
    void onTimeout(unsigned int /*expirations*/) override { ++calls; }
    int getTimeoutMs() override { return 1; }
    bool isOneShot() override { return true; }
    int calls = 0;
};

void loop(Run &run) {
    CEPollEventsource source;
    const int made = run([&] { return source.init(); });
    if (!run.outcome("init", made == 0, made == -1)) return;
    PipeSink sink(source);
    OneShot timer;
    // Only memory that runs out is thrown; nothing is registered then.
    const auto guarded = [](auto call) {
        try {
            call();
            return true;
        } catch (const std::bad_alloc &) {
            return false;
        }
    };
    const bool added = run([&] { return guarded([&] { source.addSink(&sink, IFDEventsource::ET_READ); }); });
    const bool watched = run.outcome("addSink", added && !run.hit(), true, added ? "epoll" : nullptr);
    const bool changed = run([&] { return guarded([&] { source.modifyEventMask(&sink, IFDEventsource::ET_NONE); }); });
    run.outcome("modifyEventMask", changed && !run.hit(), changed, "epoll");
    run([&] { source.modifyEventMask(&sink, IFDEventsource::ET_READ); });
    const bool reading = run.outcome("modifyEventMask", !run.hit(), true, "epoll");
    run([&] { guarded([&] { source.addTimer(&timer); }); });
    const bool timed = run.outcome("addTimer", !run.hit(), true);
    // A timer whose time cannot be set stays open and unregistered: documented.
    sink.wake();
    if (!watched || !reading) source.terminate();
    const int ended = run([&] {
        int result = -2;
        guarded([&] { result = source.evtLoop(); });
        return result;
    });
    if (watched && reading) run.outcome("evtLoop", ended == 0 && sink.reads == 1, ended == -1 || ended == -2);
    run.always("a timer that could not be armed does not expire", timed || timer.calls == 0);
    run([&] {
        source.removeTimer(&timer);
        source.removeSink(&sink);
    });
}

class Consumer : public IMQEventsink {
public:
    explicit Consumer(IFDEventsource &source) : source_(source) {}
    void onMessage(CMessageQueue * /*queue*/, const CQMsg &message) override {
        const Disarmed quiet;
        sum += message.code;
        if (++received == 3) source_.terminate();
    }
    void onQueueError(CMessageQueue * /*queue*/) override { source_.terminate(); }
    int sum = 0;
    int received = 0;

private:
    IFDEventsource &source_;
};

void queue(Run &run) {
    CEPollEventsource source;
    if (source.init() != 0) return;
    Consumer consumer(source);
    auto messages = std::make_unique<CMessageQueue>(&consumer, &source);
    int made = -3;
    run([&] {
        try {
            made = messages->init();
        } catch (const std::bad_alloc &) {
            made = -2;
        }
    });
    if (run.outcome("init", made == 0 && !run.hit(), true)) {
        int sent = 0;
        for (int code = 1; code <= 3; ++code) {
            const int result = run([&] {
                try {
                    return messages->send(CQMsg(code));
                } catch (const std::bad_alloc &) {
                    return -2;
                }
            });
            run.outcome("send", result == 0, result == -1 || result == -2);
            if (result == 0) ++sent;
        }
        if (sent < 3) source.terminate();
        const int ended = source.evtLoop();
        run.always("all messages arrive", ended == 0 && (sent < 3 || consumer.sum == 6));
    }
    run([&] { messages.reset(); });
}

}  // namespace

int main(int argc, char **argv) {
    // timerfd_settime fails only for values that are not a time; the descriptor that then stays open is documented.
    return torture::torment(argc, argv,
                            {{"eventsource: loop", loop, {"timerfd_settime"}}, {"messagequeue: queue", queue}});
}
