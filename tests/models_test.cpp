// SPDX-License-Identifier: MIT
// Random operations on the event loop and message queues, beside models that are short enough to be read as their rules.
// Configuration handles, tables, lists and strings have models in their own tests.
#include <vxutils/eventsource.h>
#include <vxutils/messagequeue.h>

#include <fcntl.h>
#include <poll.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/timerfd.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <climits>
#include <cstring>
#include <deque>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "support/loop.h"
#include "support/loop_calls.h"
#include "support/model.h"
#include "support/resources.h"
#include "support/syslog_capture.h"

namespace {

using vxtest::kernel;
using vxtest::ModelSteps;

constexpr int stale = -1;

// Thrown out of a loop that is to be left without being terminated.
struct Leave {};

// ---- The event loop ----

// The loop, and what its rules make of it:
// - a batch holds the events of one wake-up and is served in the kernel's order;
// - what is removed while a batch is served gets none of its pending events, however deep the loops are nested;
// - a changed mask takes bits from pending events and gives none;
// - an event that an inner loop serves is not served again by the outer ones;
// - after the command pipe's event the rest of the batch is dropped, and every loop ends.
class LoopModel {
public:
    explicit LoopModel(ModelSteps &steps) : steps_(steps) {
        kernel.wait = [this](epoll_event *events, int max) { return wait(events, max); };
        for (size_t i = 0; i < timers_.size(); ++i) timers_[i].oneShot = i % 2 == 0;
        for (auto &sink : sinks_) sink = std::make_unique<ModelSink>(*this);
        for (auto &timer : timers_) timer.model = this;
    }
    ~LoopModel() { kernel = {}; }

    // From a new loop to its termination, or to the end of the steps.
    void life() {
        loop_ = std::make_unique<CEPollEventsource>();
        ASSERT_EQ(loop_->init(), 0);
        epoll_ = vxtest::epollDescriptor();
        terminated_ = terminating_ = false;
        while (!terminated_ && agrees()) run();
        if (agrees()) EXPECT_EQ(loop_->evtLoop(), 0) << "a terminated loop does not wait";
        for (auto &sink : sinks_) remove(*sink);
        while (!timerOf_.empty()) removeTimer(*timerOf_.begin()->second.timer);
        loop_.reset();
    }

    bool agrees() const { return difference_.empty(); }
    const std::string &difference() const { return difference_; }

private:
    struct ModelSink : IFDEventsink {
        explicit ModelSink(LoopModel &owner) : model(owner), fd(::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC)) {}
        ~ModelSink() override { ::close(fd); }
        void onReadable() override { model.called("readable", fd, this); }
        void onWritable() override { model.called("writable", fd, this); }
        int getFd() const override { return fd; }
        LoopModel &model;
        const int fd;
        bool ready = false;
    };
    struct ModelTimer : ITimeoutEventsink {
        void onTimeout(unsigned int expirations) override { model->expired(this, expirations); }
        int getTimeoutMs() override { return INT_MAX; }  // it expires when the model says so
        bool isOneShot() override { return oneShot; }
        LoopModel *model = nullptr;
        bool oneShot = false;
    };
    struct Registered {
        ModelSink *sink;
        IFDEventsource::event_type type;
    };
    struct Armed {
        ModelTimer *timer;
        bool expired;
    };
    struct Pending {
        int fd;
        uint32_t bits;
    };
    struct Batch {
        std::vector<Pending> events;
        size_t next = 0;
    };
    struct Call {
        const char *what = "nothing";
        int fd = stale;
        const void *object = nullptr;
    };

    void differ(const std::string &text) {
        if (difference_.empty()) difference_ = text;
    }

    // Runs a loop inside the ones that run.
    void run() {
        batches_.emplace_back();
        try {
            if (loop_->evtLoop() != 0) differ("the loop failed");
            drain();
            if (!terminated_) differ("the loop ended without being terminated");
        } catch (const Leave &) {
        }
        batches_.pop_back();
    }

    // What the loop does before it calls again, and that call.
    Call advance() {
        Batch &batch = batches_.back();
        while (batch.next < batch.events.size()) {
            const Pending event = batch.events[batch.next++];
            if (event.fd == stale) continue;
            const auto armed = timerOf_.find(event.fd);
            const auto registered = sinkOf_.find(event.fd);
            if (armed == timerOf_.end() && registered == sinkOf_.end()) {  // the command pipe
                terminated_ = true;
                batch.next = batch.events.size();
                continue;
            }
            for (size_t outer = 0; outer + 1 < batches_.size(); ++outer) drop(batches_[outer], event.fd);
            if (armed != timerOf_.end()) {
                ModelTimer *const timer = armed->second.timer;
                armed->second.expired = false;
                if (timer->oneShot) forgetLowest(*timer);
                return {"expired", event.fd, timer};
            }
            if ((event.bits & EPOLLIN) != 0) return {"readable", event.fd, registered->second.sink};
            if ((event.bits & EPOLLOUT) != 0) return {"writable", event.fd, registered->second.sink};
        }
        return {};
    }
    void drain() {
        const Call call = advance();
        if (call.object != nullptr) differ("not called: " + std::string(call.what) + " " + std::to_string(call.fd));
    }

    static void drop(Batch &batch, int fd) {
        for (size_t i = batch.next; i < batch.events.size(); ++i) {
            if (batch.events[i].fd == fd) batch.events[i].fd = stale;
        }
    }
    void dropEverywhere(int fd) {
        for (Batch &batch : batches_) drop(batch, fd);
    }
    void narrow(int fd, uint32_t wanted) {
        for (Batch &batch : batches_) {
            for (size_t i = batch.next; i < batch.events.size(); ++i) {
                if (batch.events[i].fd == fd) batch.events[i].bits &= wanted;
            }
        }
    }
    static uint32_t bitsOf(IFDEventsource::event_type type) {
        return ((type & IFDEventsource::ET_READ) != 0 ? EPOLLIN : 0U) |
               ((type & IFDEventsource::ET_WRITE) != 0 ? EPOLLOUT : 0U);
    }
    std::map<int, Armed>::iterator lowestOf(const ModelTimer &timer) {
        return std::find_if(timerOf_.begin(), timerOf_.end(),
                            [&](auto &entry) { return entry.second.timer == &timer; });
    }
    void forgetLowest(const ModelTimer &timer) {
        const auto found = lowestOf(timer);
        dropEverywhere(found->first);
        timerOf_.erase(found);
    }

    // ---- Operations on both ----

    void add(ModelSink &sink, IFDEventsource::event_type type) {
        loop_->addSink(&sink, type);
        sinkOf_.try_emplace(sink.fd, Registered{&sink, type});
    }
    void remove(ModelSink &sink) {
        loop_->removeSink(&sink);
        if (sinkOf_.erase(sink.fd) != 0) dropEverywhere(sink.fd);
    }
    void modify(ModelSink &sink, IFDEventsource::event_type type) {
        loop_->modifyEventMask(&sink, type);
        const auto found = sinkOf_.find(sink.fd);
        if (found == sinkOf_.end()) return;
        found->second.type = type;
        narrow(sink.fd, bitsOf(type));
    }
    // Another file takes the number of this one, or that of a timer that has ended.
    void replace(std::unique_ptr<ModelSink> &sink) {
        remove(*sink);
        sink.reset();
        sink = std::make_unique<ModelSink>(*this);
    }
    void setReady(ModelSink &sink, bool ready) {
        eventfd_t value = 0;
        if (ready && !sink.ready) ::eventfd_write(sink.fd, 1);
        if (!ready && sink.ready) ::eventfd_read(sink.fd, &value);
        sink.ready = ready;
    }
    void addTimer(ModelTimer &timer) {
        if (timerOf_.size() >= 12) return;
        const int number = ::dup(0);
        ::close(number);
        loop_->addTimer(&timer);
        timerOf_[number] = {&timer, false};
    }
    void removeTimer(ModelTimer &timer) {
        loop_->removeTimer(&timer);
        if (lowestOf(timer) != timerOf_.end()) forgetLowest(timer);
    }
    void expire(int fd, Armed &armed) {
        itimerspec now{};
        now.it_value.tv_nsec = 1;
        ::timerfd_settime(fd, 0, &now, nullptr);
        pollfd readable{fd, POLLIN, 0};
        ::poll(&readable, 1, -1);
        armed.expired = true;
    }
    void terminate() {
        loop_->terminate();
        terminating_ = true;
    }

    void randomOperation() {
        steps_.next();
        auto &sink = sinks_[steps_.below(sinks_.size())];
        ModelTimer &timer = timers_[steps_.below(timers_.size())];
        const auto type = static_cast<IFDEventsource::event_type>(steps_.below(4));
        switch (steps_.below(16)) {
            case 0:
            case 1:
            case 2:
                return add(*sink, type);
            case 3:
            case 4:
                return remove(*sink);
            case 5:
            case 6:
                return modify(*sink, type);
            case 7:
                return replace(sink);
            case 8:
                return setReady(*sink, false);
            case 9:
            case 10:
                return setReady(*sink, true);
            case 11:
                return addTimer(timer);
            case 12:
                return removeTimer(timer);
            case 13:
                if (timerOf_.empty()) return;
                {
                    auto entry = std::next(timerOf_.begin(), static_cast<long>(steps_.below(timerOf_.size())));
                    return expire(entry->first, entry->second);
                }
            case 14:
                if (loop_->activeTimer(&timer) != (lowestOf(timer) != timerOf_.end())) differ("activeTimer()");
                if (loop_->getEventMask(sink.get()) != IFDEventsource::ET_NONE) differ("getEventMask()");
                return;
            default:
                if (steps_.oneIn(1000)) terminate();
        }
    }

    // ---- What the loop does ----

    // Instead of waiting: operations until something is ready.
    std::optional<int> wait(epoll_event *events, int max) {
        drain();
        if (terminated_) differ("waited although terminated");
        if (!agrees() || (batches_.size() > 1 && steps_.oneIn(2))) throw Leave();
        if (steps_.over() && !terminating_) terminate();
        for (;;) {
            for (size_t n = steps_.below(4); n > 0; --n) randomOperation();
            const int count = ::epoll_pwait(epoll_, events, max, 0, nullptr);
            if (count > 0) {
                take(events, count, max);
                return count;
            }
        }
    }

    // The kernel reports what is ready and asked for.
    void take(const epoll_event *events, int count, int max) {
        std::map<int, uint32_t> expected;
        for (const auto &[fd, entry] : sinkOf_) {
            const uint32_t bits = bitsOf(entry.type) & (EPOLLOUT | (entry.sink->ready ? EPOLLIN : 0U));
            if (bits != 0) expected[fd] = bits;
        }
        for (const auto &[fd, armed] : timerOf_) {
            if (armed.expired) expected[fd] = EPOLLIN;
        }
        Batch &batch = batches_.back();
        batch = {};
        size_t known = 0;
        for (int i = 0; i < count; ++i) {
            const int fd = events[i].data.fd;
            batch.events.push_back({fd, events[i].events});
            const auto found = expected.find(fd);
            if (found != expected.end()) {
                ++known;
                if (found->second != events[i].events) differ("the mask of " + std::to_string(fd));
            } else if (!terminating_) {
                differ("an event of " + std::to_string(fd) + ", which is not registered for it");
            }
        }
        if (count < max && known != expected.size()) differ("an event is missing");
    }

    // The callbacks. Their objects may be gone afterwards.
    void called(const char *what, int fd, const void *object) {
        const Call expected = advance();
        if (std::strcmp(expected.what, what) != 0 || expected.fd != fd || expected.object != object) {
            differ(std::string("called: ") + what + " " + std::to_string(fd) + ", expected: " + expected.what + " " +
                   std::to_string(expected.fd));
        }
        inCallback();
    }
    void expired(ModelTimer *timer, unsigned int expirations) {
        const Call expected = advance();
        if (expected.object != timer) differ("a timer expired, expected: " + std::string(expected.what));
        if (expirations != 1) differ("expirations: " + std::to_string(expirations));
        inCallback();
    }
    void inCallback() {
        if (!agrees()) throw Leave();
        for (size_t n = steps_.below(4); n > 0; --n) randomOperation();
        if (batches_.size() < 4 && steps_.oneIn(6)) run();
        if (steps_.oneIn(30)) throw Leave();
    }

    ModelSteps &steps_;
    std::unique_ptr<CEPollEventsource> loop_;
    std::array<std::unique_ptr<ModelSink>, 10> sinks_;
    std::array<ModelTimer, 4> timers_;
    std::map<int, Registered> sinkOf_;
    std::map<int, Armed> timerOf_;
    std::deque<Batch> batches_;
    int epoll_ = -1;
    bool terminating_ = false;
    bool terminated_ = false;
    std::string difference_;
};

TEST(EventsourceModel, AgreesOverRandomOperations) {
    vxtest::SyslogCapture log;
    ::openlog("models_test", LOG_NDELAY, LOG_USER);  // no further descriptor when something is logged
    const auto before = vxtest::openDescriptors();
    ModelSteps steps("event loop", 30000);
    {
        LoopModel model(steps);
        while (!steps.over() && model.agrees() && !HasFatalFailure()) model.life();
        EXPECT_EQ(model.difference(), "") << steps.left() << " steps were left";
    }
    EXPECT_EQ(vxtest::openDescriptors(), before);
    ::closelog();
    EXPECT_EQ(log.take(), std::vector<vxtest::LogLine>{});
}

// ---- Message queues ----

// Two queues on one loop. Each delivers in the order of sending, one message in each round of the loop.
class QueueModel : public IMQEventsink {
public:
    explicit QueueModel(ModelSteps &steps) : steps_(steps) {
        EXPECT_EQ(loop_.init(), 0);
        for (size_t i = 0; i < queues_.size(); ++i) {
            queues_[i].real = std::make_unique<CMessageQueue>(this, &loop_);
            EXPECT_EQ(queues_[i].real->init(), 0);
            ::fcntl(queues_[i].real->getFd(), F_SETPIPE_SZ, 4096);
        }
        kernel.wait = [this](epoll_event *, int) {
            round();
            return std::optional<int>();
        };
        EXPECT_EQ(loop_.evtLoop(), 0);
    }
    ~QueueModel() override { kernel = {}; }

    std::string difference;

private:
    struct Queue {
        std::unique_ptr<CMessageQueue> real;
        std::deque<std::pair<int, void *>> model;
        size_t delivered = 0;
        bool waiting = false;  // it had a message when the round began
    };

    void send(Queue &queue) {
        steps_.next();
        void *const data = steps_.oneIn(2) ? &queue : nullptr;
        if (queue.real->send(CQMsg(++sent_, data)) != 0) difference = "send() failed";
        queue.model.emplace_back(sent_, data);
    }
    void sendSome(Queue &queue) {
        size_t n = steps_.below(3);
        if (steps_.oneIn(2000)) n = 5000;  // more than the pipe has room for
        while (n-- > 0) send(queue);
    }

    // Before the loop waits.
    void round() {
        for (Queue &queue : queues_) {
            if (queue.delivered != (queue.waiting ? 1U : 0U)) {
                difference = std::to_string(queue.delivered) + " messages in a round";
            }
            if (!steps_.over()) sendSome(queue);
        }
        bool any = false;
        for (Queue &queue : queues_) {
            queue.delivered = 0;
            queue.waiting = !queue.model.empty();
            any = any || queue.waiting;
        }
        if (!difference.empty() || (steps_.over() && !any)) return loop_.terminate();
        if (any) return;
        send(queues_[0]);
        queues_[0].waiting = true;
    }

    void onMessage(CMessageQueue *from, const CQMsg &message) override {
        steps_.next();
        Queue &queue = queues_[from == queues_[0].real.get() ? 0 : 1];
        ++queue.delivered;
        if (queue.model.empty() || queue.model.front() != std::pair(message.code, message.data)) {
            difference = "message " + std::to_string(message.code);
            return;
        }
        queue.model.pop_front();
        if (steps_.oneIn(3) && !steps_.over()) send(queues_[steps_.below(queues_.size())]);
    }
    void onQueueError(CMessageQueue *) override { difference = "the pipe was empty"; }

    ModelSteps &steps_;
    CEPollEventsource loop_;
    std::array<Queue, 2> queues_;
    int sent_ = 0;
};

TEST(MessagequeueModel, AgreesOverRandomOperations) {
    vxtest::SyslogCapture log;
    ::openlog("models_test", LOG_NDELAY, LOG_USER);  // no further descriptor when something is logged
    const auto before = vxtest::openDescriptors();
    ModelSteps steps("message queues", 30000);
    EXPECT_EQ(QueueModel(steps).difference, "") << steps.left() << " steps were left";
    EXPECT_EQ(vxtest::openDescriptors(), before);
    ::closelog();
    EXPECT_EQ(log.take(), std::vector<vxtest::LogLine>{});
}

}  // namespace
