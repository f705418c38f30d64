// SPDX-License-Identifier: MIT
// A daemon's main loop: a periodic timer, a descriptor, and a one-shot timer that ends it.
#include <unistd.h>
#include <vxutils/eventsource.h>

#include <cstdio>

namespace {

class Pipe : public IFDEventsink {
public:
    explicit Pipe(IFDEventsource &source) : source_(source) {
        if (::pipe(ends_) == 0) source_.addSink(this, IFDEventsource::ET_READ);
    }
    ~Pipe() override {
        source_.removeSink(this);
        ::close(ends_[0]);
        ::close(ends_[1]);
    }
    void put(const char *text, size_t length) const {
        if (::write(ends_[1], text, length) == -1) std::perror("write");
    }
    void onReadable() override {
        char text[64];
        const ssize_t got = ::read(ends_[0], text, sizeof text);
        std::printf("read \"%.*s\"\n", static_cast<int>(got), text);
    }
    void onWritable() override {}
    int getFd() const override { return ends_[0]; }

private:
    IFDEventsource &source_;
    int ends_[2] = {-1, -1};
};

class Ticker : public ITimeoutEventsink {
public:
    Ticker(ITimeoutEventsource &source, const Pipe &pipe) : source_(source), pipe_(pipe) {}
    void onTimeout(unsigned int expirations) override {
        for (; expirations > 0 && ticks_ < 3; --expirations) std::printf("tick %d\n", ++ticks_);
        if (ticks_ < 3) return;
        source_.removeTimer(this);
        pipe_.put("hello", 5);
    }
    int getTimeoutMs() override { return 20; }
    bool isOneShot() override { return false; }

private:
    ITimeoutEventsource &source_;
    const Pipe &pipe_;
    int ticks_ = 0;
};

class Deadline : public ITimeoutEventsink {
public:
    explicit Deadline(IFDEventsource &source) : source_(source) {}
    void onTimeout(unsigned int) override {
        std::puts("time is up");
        source_.terminate();
    }
    int getTimeoutMs() override { return 500; }
    bool isOneShot() override { return true; }

private:
    IFDEventsource &source_;
};

}  // namespace

int main() {
    CEPollEventsource loop;
    if (loop.init() != 0) return 1;
    Pipe pipe(loop);
    Ticker ticker(loop, pipe);
    Deadline deadline(loop);
    loop.addTimer(&ticker);
    loop.addTimer(&deadline);
    return loop.evtLoop();
}
