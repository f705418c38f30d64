// SPDX-License-Identifier: MIT
#include <vxutils/vxevent.h>

#include <fcntl.h>
#include <limits.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vxutils/strutil.h>
#include <zmq.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <cstddef>
#include <cstdlib>
#include <memory>
#include <type_traits>

#include "vxutils/internal/errno_keeper.h"
#include "vxutils/internal/fd.h"
#include "vxutils/internal/handles.h"
#include "vxutils/internal/late_library.h"

namespace {

constexpr const char *eventFifo = "/tmp/status/event-manager/throw";
constexpr const char *defaultEndpoint = "tcp://127.0.0.1:47011";
constexpr int messageContentsLevel = 29;

static_assert(sizeof(vxevent_record) == 136 && offsetof(vxevent_record, param) == 4 &&
              offsetof(vxevent_record, text) == 8);
static_assert(sizeof(vxevent_record) <= PIPE_BUF, "records of several writers must not mix");

using Clock = std::chrono::steady_clock;

VX_LATE_NOTE(ZeroMqNote,
             R"([{"feature":"legacy-events","description":"Legacy events over ZeroMQ","priority":"recommended",)"
             R"("soname":["libzmq.so.5"]}])");

// The functions of ZeroMQ that are used here.
struct ZeroMq {
    static constexpr std::array sonames{"libzmq.so.5"};

    decltype(&::zmq_bind) zmq_bind;
    decltype(&::zmq_close) zmq_close;
    decltype(&::zmq_connect) zmq_connect;
    decltype(&::zmq_msg_close) zmq_msg_close;
    decltype(&::zmq_msg_init_data) zmq_msg_init_data;
    decltype(&::zmq_msg_send) zmq_msg_send;
    decltype(&::zmq_setsockopt) zmq_setsockopt;
    decltype(&::zmq_socket) zmq_socket;

    bool find([[maybe_unused]] vx::LateLibrary &library) {
        return VX_FIND_LATE(library, zmq_bind) && VX_FIND_LATE(library, zmq_close) &&
               VX_FIND_LATE(library, zmq_connect) && VX_FIND_LATE(library, zmq_msg_close) &&
               VX_FIND_LATE(library, zmq_msg_init_data) && VX_FIND_LATE(library, zmq_msg_send) &&
               VX_FIND_LATE(library, zmq_setsockopt) && VX_FIND_LATE(library, zmq_socket);
    }
};
constinit vx::LateCalls<ZeroMq> lateZeroMq;

struct CloseSocket {
    decltype(&::zmq_close) close;
    void operator()(void *socket) const noexcept {
        const vx::ErrnoKeeper keeper;
        close(socket);
    }
};
using ZmqSocket = std::unique_ptr<void, CloseSocket>;

ZmqSocket openSocket(const ZeroMq &zmq, void *context, int type) {
    return {zmq.zmq_socket == nullptr ? nullptr : zmq.zmq_socket(context, type), CloseSocket{zmq.zmq_close}};
}

// The event manager may be slow, but a program that raises events must not hang when the event manager does.
constexpr auto longestWait = std::chrono::seconds(1);

// Opens the FIFO for reading, too: without a reader, opening it only for writing fails, and writing raises SIGPIPE.
// Neither the open nor a write waits. Only a FIFO is accepted, because a link could lead to any file.
vx::Fd openEventFifo() {
    vx::Fd fifo(::open(eventFifo, O_RDWR | O_NONBLOCK | O_NOFOLLOW | O_NOCTTY | O_CLOEXEC));
    struct stat status {};
    if (!fifo.valid() || ::fstat(fifo.get(), &status) == -1) return vx::Fd();
    if (S_ISFIFO(status.st_mode)) return fifo;
    errno = EINVAL;
    return vx::Fd();
}

bool put(int fifo, const vxevent_record &record) {
    Clock::time_point deadline;  // from the first refusal on: most events need no look at the clock
    while (::write(fifo, &record, sizeof record) != static_cast<ssize_t>(sizeof record)) {
        if (errno != EAGAIN) return false;
        if (deadline == Clock::time_point()) deadline = Clock::now() + longestWait;
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now());
        if (left.count() <= 0) return false;
        pollfd room{fifo, POLLOUT, 0};
        if (::poll(&room, 1, static_cast<int>(left.count())) == -1 && errno != EINTR) return false;
    }
    return true;
}

void freeRecord(void *record, void *) { std::free(record); }

}  // namespace

// Does not depend on other objects that are made at load time. Null if it cannot be made.
devlog_level *DL_MQCONTENTS = devlog_level_create(messageContentsLevel);

// Quirk Q70.
int vxevent(unsigned int id, unsigned int param, const char *text) {
    vxevent_record record{};
    record.id = id;
    record.param = param;
    if (text != nullptr) strlcpy(record.text, text, sizeof record.text);

    const vx::Fd fifo = openEventFifo();
    if (!fifo.valid()) return -1;
    return put(fifo.get(), record) ? 0 : -1;
}

void *create_legacy_source_with_addr(void *zmq_context, const char *endpoint) {
    const ZeroMq zmq = lateZeroMq.get();
    ZmqSocket socket = openSocket(zmq, zmq_context, ZMQ_PUB);
    if (!socket || endpoint == nullptr || zmq.zmq_bind(socket.get(), endpoint) != 0) return nullptr;
    return socket.release();
}

void *create_legacy_source(void *zmq_context) { return create_legacy_source_with_addr(zmq_context, defaultEndpoint); }

void *register_legacy_sink_with_addr(void *zmq_context, const char *endpoint) {
    const ZeroMq zmq = lateZeroMq.get();
    ZmqSocket socket = openSocket(zmq, zmq_context, ZMQ_SUB);
    if (!socket || endpoint == nullptr || zmq.zmq_setsockopt(socket.get(), ZMQ_SUBSCRIBE, "", 0) != 0 ||
        zmq.zmq_connect(socket.get(), endpoint) != 0) {
        return nullptr;
    }
    return socket.release();
}

void *register_legacy_sink(void *zmq_context) { return register_legacy_sink_with_addr(zmq_context, defaultEndpoint); }

int dispatch_legacy_event(void *socket, const vxevent_record *record) {
    if (record == nullptr) return -1;
    const ZeroMq zmq = lateZeroMq.get();
    if (zmq.zmq_msg_send == nullptr) return -1;
    vx::MallocPtr<vxevent_record> copy(static_cast<vxevent_record *>(std::malloc(sizeof *record)));
    if (!copy) return -1;
    *copy = *record;

    zmq_msg_t message;
    if (zmq.zmq_msg_init_data(&message, copy.get(), sizeof *record, freeRecord, nullptr) != 0) return -1;
    (void)copy.release();  // owned by the message now, which frees it after its last use
    if (zmq.zmq_msg_send(&message, socket, 0) == static_cast<int>(sizeof *record)) return 0;
    const vx::ErrnoKeeper keeper;
    zmq.zmq_msg_close(&message);
    return -1;
}
