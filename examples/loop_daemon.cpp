// SPDX-License-Identifier: MIT
// loop_daemon: a small gateway daemon. A timer for its heartbeat, worker threads that report through the queue, events
// to the event manager and to all subscribers, a lock on the modem that survives its owner. Ends by itself.
#include <unistd.h>
#include <vxutils/csemaphore.h>
#include <vxutils/eventsource.h>
#include <vxutils/messagequeue.h>
#include <vxutils/vxevent.h>
#include <zmq.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

namespace {

constexpr int workers = 2;
constexpr int reportsEach = 3;
constexpr unsigned int eventReport = 17;
constexpr unsigned int eventEnd = 0;

enum Message : int { workerReports, workerDone };

void say(const std::string &text) {
    std::puts(text.c_str());
    std::fflush(stdout);
}

// Events go both ways: to the event manager's FIFO and over ZeroMQ.
class Events {
public:
    Events() : context_(zmq_ctx_new()), source_(create_legacy_source(context_)) {}
    ~Events() {
        if (source_ != nullptr) zmq_close(source_);
        zmq_ctx_term(context_);
    }
    Events(const Events &) = delete;
    Events &operator=(const Events &) = delete;

    void raise(unsigned int id, unsigned int param, const std::string &text) const {
        if (id != eventEnd && vxevent(id, param, text.c_str()) != 0) say("no event manager");
        vxevent_record record = {};
        record.id = id;
        record.param = param;
        text.copy(record.text, sizeof record.text - 1);
        if (source_ != nullptr) dispatch_legacy_event(source_, &record);
    }

private:
    void *context_;
    void *source_;
};

class Heartbeat : public ITimeoutEventsink {
public:
    void onTimeout(unsigned int expirations) override { beats_ += expirations; }
    int getTimeoutMs() override { return 100; }
    bool isOneShot() override { return false; }
    bool alive() const { return beats_ > 0; }

private:
    unsigned int beats_ = 0;
};

class Daemon : public IMQEventsink {
public:
    Daemon(CEPollEventsource &loop, const Events &events) : loop_(loop), events_(events), modem_("/modem0") {}

    void onMessage(CMessageQueue *, const CQMsg &message) override {
        if (message.code == workerDone) {
            if (++done_ < workers) return;
            events_.raise(eventEnd, 0, "");
            loop_.terminate();
            return;
        }
        const std::string what = *static_cast<const std::string *>(message.data);
        useModem();
        say("loop: " + what);
        events_.raise(eventReport, ++reports_, what);
    }
    void onQueueError(CMessageQueue *) override { loop_.terminate(); }

private:
    void useModem() {
        const int result = modem_.lock();
        if (result == EOWNERDEAD) say("loop: the modem's lock was left by a process that died; taken over");
        if (result == 0 || result == EOWNERDEAD) modem_.unlock();
    }

    CEPollEventsource &loop_;
    const Events &events_;
    CRecursiveSemaphore modem_;
    unsigned int reports_ = 0;
    int done_ = 0;
};

void work(int number, CMessageQueue &queue, std::vector<std::string> &reports) {
    for (int i = 0; i < reportsEach; ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(100 + 50 * number));
        std::string &report = reports[static_cast<size_t>(number) * reportsEach + static_cast<size_t>(i)];
        report = "worker " + std::to_string(number + 1) + " report " + std::to_string(i + 1);
        queue.send(CQMsg(workerReports, &report));
    }
    queue.send(CQMsg(workerDone));
}

}  // namespace

int main() {
    CEPollEventsource loop;
    const Events events;
    Daemon daemon(loop, events);
    Heartbeat heartbeat;
    CMessageQueue queue(&daemon, &loop);
    if (loop.init() != 0 || queue.init() != 0) return 1;
    loop.addTimer(&heartbeat);
    say("loop: running");

    std::vector<std::string> reports(size_t{workers} * reportsEach);
    std::vector<std::thread> threads;
    threads.reserve(workers);
    for (int i = 0; i < workers; ++i) threads.emplace_back([&, i] { work(i, queue, reports); });
    const int status = loop.evtLoop();
    for (std::thread &thread : threads) thread.join();
    loop.removeTimer(&heartbeat);
    say(heartbeat.alive() ? "loop: ended, the timer went on all the time" : "loop: ended");
    return status;
}
