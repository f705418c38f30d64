// SPDX-License-Identifier: MIT
// vx event: events for the event manager, and the same records over ZeroMQ.
#include <fcntl.h>
#include <poll.h>
#include <vxutils/vxevent.h>

#include <algorithm>
#include <chrono>
#include <climits>
#include <cstring>
#include <memory>

#include "commands/commands.h"
#include "core/failure.h"
#include "core/fd.h"
#include "core/follow.h"
#include "core/zeromq.h"

namespace tool {

namespace {

constexpr const char *fifo = "/tmp/status/event-manager/throw";
constexpr const char *endpoint = "tcp://127.0.0.1:47011";
constexpr milliseconds fullTime{10000};
constexpr milliseconds subscriberTime{2000};
// Subscribers look for their publisher every 100 ms; a subscription follows its connection.
constexpr milliseconds subscriptionTime{150};
constexpr int lingerTime = 1000;  // milliseconds

vxevent_record recordFrom(const Arguments &arguments) {
    vxevent_record record{};
    record.id = static_cast<uint32_t>(arguments.wordAsNumber(0, "ID", 0, UINT32_MAX));
    record.param = static_cast<uint32_t>(arguments.wordAsNumber(1, "PARAM", 0, UINT32_MAX));
    if (arguments.size() < 3) return record;
    const std::string &text = arguments[2];
    if (text.size() >= sizeof record.text) {
        throw Usage{"TEXT is longer than " + std::to_string(sizeof record.text - 1) + " bytes"};
    }
    std::memcpy(record.text, text.data(), text.size());
    return record;
}

int raise(const Arguments &arguments, Output &out) {
    const vxevent_record record = recordFrom(arguments);
    const milliseconds longest = arguments.seconds("wait").value_or(fullTime);
    // The library succeeds, and the event is lost, where no process has the FIFO open.
    if (!Fd(::open(fifo, O_WRONLY | O_NONBLOCK | O_CLOEXEC)).valid()) {
        if (errno == ENXIO) throw Failure(fifo, "no event manager reads it");
        throw systemFailure(fifo);
    }
    // The library gives up on a full FIFO after a second.
    const auto end = std::chrono::steady_clock::now() + longest;
    while (vxevent(record.id, record.param, record.text) != 0) {
        if (errno != EAGAIN) throw systemFailure(fifo);
        if (std::chrono::steady_clock::now() >= end) throw Failure(fifo, "full: the event manager does not read");
    }
    out.done();
    return statusDone;
}

// ---- ZeroMQ

Failure zmqFailure(std::string_view on) { return {on, zeroMq().zmq_strerror(zeroMq().zmq_errno())}; }

struct CloseSocket {
    void operator()(void *socket) const { zeroMq().zmq_close(socket); }
};
using Socket = std::unique_ptr<void, CloseSocket>;

class Context {
public:
    Context() : context_(zeroMq().zmq_ctx_new()) {
        if (context_ == nullptr) throw zmqFailure("");
    }
    ~Context() { zeroMq().zmq_ctx_term(context_); }
    Context(const Context &) = delete;
    Context &operator=(const Context &) = delete;
    void *get() const { return context_; }

private:
    void *context_;
};

// Next record that is there; 1 for one, 0 for none, -1 for a message that is not a record.
int receive(void *socket, vxevent_record &record) {
    std::array<char, sizeof(vxevent_record) + 1> message;
    const int length = zeroMq().zmq_recv(socket, message.data(), message.size(), ZMQ_DONTWAIT);
    if (length < 0 && zeroMq().zmq_errno() == EAGAIN) return 0;
    if (length < 0) throw zmqFailure("");
    if (length != static_cast<int>(sizeof record)) return -1;
    std::memcpy(&record, message.data(), sizeof record);
    return 1;
}

int listen(const Arguments &arguments, Output &out) {
    const char *address = arguments.text("endpoint", endpoint);
    Follow follow(arguments, out);
    const Context context;
    const Socket socket(register_legacy_sink_with_addr(context.get(), address));
    if (!socket) throw zmqFailure(address);
    int fd = -1;
    size_t size = sizeof fd;
    if (zeroMq().zmq_getsockopt(socket.get(), ZMQ_FD, &fd, &size) != 0) throw zmqFailure(address);
    for (;;) {
        // The descriptor tells of news only: all that is there is taken before it is waited for.
        vxevent_record event{};
        for (int got; (got = receive(socket.get(), event)) != 0;) {
            if (got < 0) {
                out.note("a message that is not an event is left out");
            } else {
                const std::string text(event.text, ::strnlen(event.text, sizeof event.text));
                const Record record{{"id", event.id}, {"param", event.param}, {"text", text}};
                if (!follow.print(record, Plain::words)) return statusDone;
            }
            // A publisher may always be ahead.
            if (follow.wait(-1, milliseconds(0)) == Follow::Event::over) return statusDone;
        }
        if (follow.wait(fd) == Follow::Event::over) return statusDone;
    }
}

// Waits for a connection that is made; false when none came in time.
bool waitForSubscriber(void *monitor, milliseconds longest) {
    zmq_pollitem_t item{monitor, 0, ZMQ_POLLIN, 0};
    const auto end = Follow::Clock::now() + longest;
    for (;;) {
        const auto left = std::chrono::ceil<milliseconds>(end - Follow::Clock::now()).count();
        const int got = zeroMq().zmq_poll(&item, 1, static_cast<int>(std::clamp<int64_t>(left, 0, INT_MAX)));
        if (got > 0) return true;
        if (got < 0 && zeroMq().zmq_errno() != EINTR) throw zmqFailure("");
        if (left <= 0) return false;
    }
}

int publish(const Arguments &arguments, Output &out) {
    const vxevent_record record = recordFrom(arguments);
    const char *address = arguments.text("endpoint", endpoint);
    const milliseconds longest = arguments.seconds("wait").value_or(subscriberTime);
    constexpr const char *monitorAddress = "inproc://subscribers";
    const Context context;
    const Socket source(create_legacy_source_with_addr(context.get(), address));
    if (!source) throw zmqFailure(address);
    if (zeroMq().zmq_socket_monitor(source.get(), monitorAddress, ZMQ_EVENT_HANDSHAKE_SUCCEEDED) != 0)
        throw zmqFailure(address);
    const Socket monitor(zeroMq().zmq_socket(context.get(), ZMQ_PAIR));
    if (!monitor || zeroMq().zmq_connect(monitor.get(), monitorAddress) != 0) throw zmqFailure(address);
    zeroMq().zmq_setsockopt(source.get(), ZMQ_LINGER, &lingerTime, sizeof lingerTime);
    if (!waitForSubscriber(monitor.get(), longest)) throw Failure(address, "no subscriber came");
    ::poll(nullptr, 0, static_cast<int>(subscriptionTime.count()));
    if (dispatch_legacy_event(source.get(), &record) != 0) throw zmqFailure(address);
    out.done();
    return statusDone;
}

constexpr Option raiseOptions[] = {
    {0, "wait", "SECONDS", "how long to try again while the FIFO is full (10), at least 1"}};
constexpr Option listenOptions[] = {{0, "endpoint", "E", "ZeroMQ endpoint (tcp://127.0.0.1:47011)"}};
constexpr Option publishOptions[] = {
    {0, "endpoint", "E", "ZeroMQ endpoint (tcp://127.0.0.1:47011)"},
    {0, "wait", "SECONDS", "how long to wait for a first subscriber (2)"},
};
constexpr Argument record[] = {{"ID", Count::one}, {"PARAM", Count::one}, {"TEXT", Count::optional}};

constexpr Verb verbs[] = {
    {"raise", "hand an event to the event manager", raiseOptions, record, raise},
    {"listen", "print the events that a daemon publishes", listenOptions, {}, listen, true},
    {"publish", "publish an event to all subscribers", publishOptions, record, publish},
};

}  // namespace

const Command eventCommand{"event", "events for the event manager and its subscribers", {}, verbs};

}  // namespace tool
