// SPDX-License-Identifier: MIT
#include <vxutils/wwanmd.h>

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <syslog.h>
#include <unistd.h>
#include <vxutils/strutil.h>
#include <vxutils/timefmt.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <memory>
#include <new>
#include <string_view>

#include "vxutils/internal/errno_keeper.h"
#include "vxutils/internal/fd.h"
#include "vxutils/internal/guarded_open.h"
#include "vxutils/internal/log.h"
#include "vxutils/internal/retry.h"
#include "vxutils/internal/sleep.h"

namespace {

constexpr const char *serverPath = "/var/run/wwanmd%d/server";
constexpr const char *markerPath = "/tmp/status/wwanmd/card%d/%s";
constexpr const char *resetMarker = "reset";
constexpr const char *suspendedMarker = "suspended";
constexpr size_t markerPathSize = 256;

constexpr int inReset = -11;  // result while the card is in reset

// Bits of wwanmd_handle::flags.
constexpr int initialized = 1;
constexpr int usedUp = 2;  // the connection: an answer that was waited for in vain may still come, or a command was cut

constexpr int64_t usPerSecond = 1000000;
constexpr int64_t pacingUs = 300000;
constexpr int minTimeoutSeconds = 5;
constexpr int maxTimeoutSeconds = 300;
constexpr int resetChecks = 5;
constexpr int receivePasses = 21;
constexpr int failuresToReconnect = 4;
constexpr int failuresOfStalled = failuresToReconnect - 1;  // the failure that is being counted then reconnects
constexpr int maxBusyCommands = 16;

constexpr size_t maxReply = sizeof(wwanmd_msg::data) - 1;
constexpr int maxCommand = static_cast<int>(maxReply) - 1;  // leaves room for the newline
constexpr std::string_view okWord = "OK";
constexpr std::string_view errorWord = "ERROR";
constexpr std::string_view busyWord = "BUSY";

static_assert(sizeof(wwanmd_handle::app) == 16 && sizeof(wwanmd_msg) == 8192 + 3 * sizeof(int));

// Which call a send or receive is part of.
enum class Part {
    alone,        // wwanmd_send() or wwanmd_recv()
    ofCommand,    // wwanmd_command()
    ofHandshake,  // wwanmd_open(): a failure does not reconnect, because that would recurse without end when the daemon
                  // accepts connections and closes them at once
};

timespec now() {
    timespec time{};
    ::clock_gettime(CLOCK_MONOTONIC, &time);
    return time;
}

bool validCard(int card) {
    if ((card >= 0 && card <= 5) || (card >= 10 && card <= 15)) return true;
    vx::log(LOG_ERR, "invalid wwan card %d", card);
    return false;
}

bool markerPresent(const char *marker, int card) {
    const vx::ErrnoKeeper keeper;
    std::array<char, markerPathSize> path;
    std::snprintf(path.data(), path.size(), markerPath, card, marker);
    return ::access(path.data(), R_OK) == 0 && vx::isBelievable(path.data());
}

struct Name {
    const Name *next;
    char text[sizeof wwanmd_handle::app];
};
std::atomic<const Name *> names{nullptr};

const char *findName(const Name *from, const Name *end, const char *name) {
    for (; from != end; from = from->next) {
        if (std::strcmp(from->text, name) == 0) return from->text;
    }
    return nullptr;
}

// Returns a copy of the name that is never freed: openlog() keeps the pointer it is given, and another thread may be
// logging with it at any time. Each name is copied once. Takes no lock, because a child of fork() might find it locked
// for ever. Throws std::bad_alloc.
// Quirk Q84.
const char *lastingName(const char *name) {
    const Name *first = names;
    if (const char *known = findName(first, nullptr, name)) return known;
    auto added = std::make_unique<Name>();
    (void)strlcpy(added->text, name, sizeof added->text);
    added->next = first;
    while (!names.compare_exchange_weak(first, added.get())) {
        // GCOVR_EXCL_START: another thread has come between two instructions
        if (const char *known = findName(first, added->next, name)) return known;
        added->next = first;
        // GCOVR_EXCL_STOP
    }
    return added.release()->text;
}

// What is left of a time-out; every wait reduces it by the time that it took.
class Budget {
public:
    explicit Budget(int seconds) : leftUs_(std::clamp(seconds, minTimeoutSeconds, maxTimeoutSeconds) * usPerSecond) {}

    [[nodiscard]] int64_t leftUs() const { return leftUs_; }

    // Waits for an event on the socket. Returns poll()'s result, with errno 0 unless it is -1. ppoll() cannot be used:
    // on 32-bit Arm the C library's fortified version takes a 32-bit time where the caller has a 64-bit one.
    int wait(pollfd &waiting) {
        for (;;) {
            const timespec start = now();
            const auto milliseconds = std::chrono::ceil<std::chrono::milliseconds>(std::chrono::microseconds(leftUs_));
            errno = 0;
            const int ready = ::poll(&waiting, 1, static_cast<int>(milliseconds.count()));
            leftUs_ = std::max<int64_t>(0, leftUs_ - uselapsed(start, now()));
            if (ready != -1 || errno != EINTR) return ready;
        }
    }

private:
    int64_t leftUs_;
};

// Connects; waits at most 5 s while the daemon's queue of connections is full.
int connectTo(int fd, const sockaddr_un &address, socklen_t size) {
    const timespec start = now();
    for (;;) {
        const int64_t leftUs = minTimeoutSeconds * usPerSecond - uselapsed(start, now());
        if (leftUs <= 0) {
            errno = EAGAIN;
            return -1;
        }
        const timeval limit{static_cast<int>(leftUs / usPerSecond), static_cast<int>(leftUs % usPerSecond)};
        if (::setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit) == -1) return -1;
        if (::connect(fd, reinterpret_cast<const sockaddr *>(&address), size) == 0) return 0;
        if (errno != EINTR) return -1;
    }
}

// Returns a connected, non-blocking socket; none when the daemon cannot be reached, which is logged.
vx::Fd connectToDaemon(int card) {
    errno = 0;
    vx::Fd fd(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (!fd.valid()) {
        vx::log(LOG_DEBUG, "can't open socket to wwanmd%d (%s)", card, std::strerror(errno));
        return fd;
    }
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    const int length = std::snprintf(address.sun_path, sizeof address.sun_path, serverPath, card);
    socklen_t size = offsetof(sockaddr_un, sun_path);
    size += static_cast<unsigned int>(length);
    if (connectTo(fd.get(), address, size) == -1) {
        vx::log(LOG_DEBUG, "can't bind to wwanmd%d (%s)", card, std::strerror(errno));
        fd.reset();
        return fd;
    }
    const int flags = ::fcntl(fd.get(), F_GETFL);
    ::fcntl(fd.get(), F_SETFL, flags | O_NONBLOCK);
    return fd;
}

int sendMessage(wwanmd_handle *handle, wwanmd_msg *message, Part part);
int receiveMessage(wwanmd_handle *handle, wwanmd_msg *message, Part part);

// Exchanges one command and its answer. SIGPIPE stays ignored from the send to the end of the receive.
int exchange(wwanmd_handle *handle, wwanmd_msg *message, Part part) {
    if (sendMessage(handle, message, part) != 0) return -1;
    if (receiveMessage(handle, message, part) == 0) return 0;
    vx::log(LOG_DEBUG, "command failed");
    return -1;
}

int handshake(wwanmd_handle *handle) {
    wwanmd_msg message{};
    message.len = std::snprintf(message.data, sizeof message.data, "%s %s", "init", handle->app);
    errno = 0;
    return exchange(handle, &message, Part::ofHandshake);
}

bool closedForReset(wwanmd_handle *handle) {
    if (wwanmd_in_reset(handle->card) != 1) return false;
    vx::log(LOG_DEBUG, "wwanmd%d is currently in reset", handle->card);
    wwanmd_close(handle);
    return true;
}

void stalled(wwanmd_handle *handle) {
    vx::log(LOG_DEBUG, "faced stalled wwanmd%d", handle->card);
    handle->failures = failuresOfStalled;
}

// Counts a failed send or receive and reconnects at the fourth one in a row.
// Quirk Q83.
void countFailure(wwanmd_handle *handle, const char *doing, Part part) {
    vx::log(LOG_DEBUG, "%s wwanmd%d failed (%d failures)", doing, handle->card, handle->failures + 1);
    ++handle->failures;
    if (handle->failures >= failuresToReconnect && part != Part::ofHandshake) (void)wwanmd_open(handle);
}

void pace(const wwanmd_handle &handle) {
    if ((handle.flags & initialized) == 0) return;
    const int64_t elapsed = uselapsed(handle.last_io, now());
    if (elapsed < pacingUs) vx::sleepUs(pacingUs - elapsed);
}

// Throws away what the daemon sent since the last answer. Returns whether the socket can be written to.
bool flushStaleAnswers(const wwanmd_handle &handle) {
    pollfd waiting{handle.fd, POLLIN | POLLOUT, 0};
    if (::poll(&waiting, 1, 0) != 1) return false;
    if ((waiting.revents & (POLLIN | POLLHUP | POLLERR)) != 0) {
        std::array<char, maxReply> stale;
        const ssize_t got = vx::retryEintr([&] { return ::recv(handle.fd, stale.data(), stale.size(), 0); });
        if (got > 0) {
            vx::log(LOG_DEBUG, "flushed %d bytes from wwanmd%d before sending", static_cast<int>(got), handle.card);
        }
    }
    return (waiting.revents & POLLOUT) != 0;
}

bool waitWritable(const wwanmd_handle &handle, int timeout) {
    pollfd waiting{handle.fd, POLLOUT, 0};
    Budget budget(timeout);
    const int ready = budget.wait(waiting);
    if (ready == 0) vx::log(LOG_DEBUG, "sending to wwanmd%d timed out", handle.card);
    return ready == 1;
}

bool sendAll(wwanmd_handle *handle, const wwanmd_msg &message) {
    if (!flushStaleAnswers(*handle) && !waitWritable(*handle, message.timeout)) {
        if (errno == EPIPE) {
            stalled(handle);
        } else {
            vx::log(LOG_DEBUG, "cannot send command to wwanmd%d", handle->card);
        }
        return false;
    }
    errno = 0;
    const auto length = static_cast<size_t>(message.len);
    const ssize_t sent =
        vx::retryEintr([&] { return ::send(handle->fd, message.data, length, MSG_NOSIGNAL | MSG_DONTWAIT); });
    if (sent == message.len) return true;
    vx::log(LOG_DEBUG, "could not send %d bytes to wwanmd%d (%s)", message.len, handle->card, std::strerror(errno));
    if (errno == EPIPE) stalled(handle);
    if (sent > 0) handle->flags |= usedUp;  // the next command would be read as the rest of this one
    return false;
}

// Appends the newline that ends a command; false when the text is too long.
bool terminateCommand(wwanmd_msg *message) {
    if (message->len > maxCommand) {
        vx::log(LOG_DEBUG, "buffer length exceeded");
        return false;
    }
    message->len = std::max(message->len, 0);
    const auto length = static_cast<size_t>(message->len);
    if (length > 0 && message->data[length - 1] == '\n') return true;
    message->data[length] = '\n';
    ++message->len;
    return true;
}

// Replaces a connection on which the answer to an earlier command may still come: an answer does not tell which command
// it belongs to, but what is sent on a closed connection is lost. So is a command that was cut. Keeps the counts of
// failures and of "BUSY".
int renewConnection(wwanmd_handle *handle) {
    (void)flushStaleAnswers(*handle);  // only to log what has come already
    const int failures = handle->failures;
    const int busyCount = handle->busy_count;
    const int result = wwanmd_open(handle);
    if (result != 0) return result;
    handle->failures = failures;
    handle->busy_count = busyCount;
    return 0;
}

int sendMessage(wwanmd_handle *handle, wwanmd_msg *message, Part part) {
    if (handle == nullptr || message == nullptr || !validCard(handle->card)) return -1;
    if (!terminateCommand(message)) return -1;
    if ((handle->flags & usedUp) != 0) {
        const int result = renewConnection(handle);
        if (result != 0) {
            handle->last_io = now();
            return result;
        }
    }
    pace(*handle);
    if (handle->fd == -1 && wwanmd_open(handle) != 0) {
        handle->last_io = now();
        return -1;
    }
    if (closedForReset(handle)) return inReset;

    std::signal(SIGPIPE, SIG_IGN);
    const bool sent = sendAll(handle, *message);
    if (!sent || part == Part::alone) std::signal(SIGPIPE, SIG_DFL);
    if (sent) {
        handle->failures = 0;
        handle->last_io = now();
        return 0;
    }
    countFailure(handle, "sending to", part);
    handle->last_io = now();
    return -1;
}

// The outcome of one pass of a receive.
enum class Reply { ok, busy, failed };

void keepText(wwanmd_msg *message, std::string_view text) {
    std::memcpy(message->data, text.data(), text.size());
    message->len = static_cast<int>(text.size());
}

Reply judge(const wwanmd_handle &handle, wwanmd_msg *message, std::string_view reply) {
    if (reply.starts_with(okWord)) {
        keepText(message, reply.substr(okWord.size()));
        return Reply::ok;
    }
    if (reply.starts_with(busyWord)) return Reply::busy;
    if (reply.starts_with(errorWord)) {
        keepText(message, reply.substr(errorWord.size()));
        return Reply::failed;
    }
    vx::log(LOG_DEBUG, "invalid response received from wwanmd%d", handle.card);
    return Reply::failed;
}

using ReplyBuffer = std::array<char, maxReply>;

// Waits for one answer and judges it. `reply` is set to what came, which lies in `buffer`.
Reply receiveReply(wwanmd_handle *handle, wwanmd_msg *message, Budget &budget, ReplyBuffer &buffer,
                   std::string_view &reply) {
    pollfd waiting{handle->fd, POLLIN, 0};
    const int ready = budget.wait(waiting);
    if (ready == 0) vx::log(LOG_DEBUG, "recv from wwanmd%d timed out", handle->card);
    if (ready != 1) {
        handle->flags |= usedUp;
        return Reply::failed;
    }
    errno = 0;
    const ssize_t got = vx::retryEintr([&] { return ::recv(handle->fd, buffer.data(), buffer.size(), MSG_DONTWAIT); });
    if (got <= 0) {
        vx::log(LOG_DEBUG, "couldn't read from wwanmd%d (%s)", handle->card, std::strerror(errno));
        if (errno == EPIPE) stalled(handle);
        return Reply::failed;
    }
    reply = {buffer.data(), static_cast<size_t>(got)};
    return judge(*handle, message, reply);
}

// Goes on waiting after a "BUSY" answer as long as passes and at least one second are left.
// Quirk Q82.
Reply receiveAnswer(wwanmd_handle *handle, wwanmd_msg *message) {
    Budget budget(message->timeout);
    ReplyBuffer buffer;
    std::string_view reply;
    for (int pass = 0; pass < receivePasses; ++pass) {
        std::memset(message->data, 0, sizeof message->data);
        message->len = -1;
        const Reply outcome = receiveReply(handle, message, budget, buffer, reply);
        if (outcome != Reply::busy) return outcome;
        vx::log(LOG_DEBUG, "wwanmd%d is busy, remaining timeout is %lu.%lus", handle->card,
                static_cast<unsigned long>(budget.leftUs() / usPerSecond),
                static_cast<unsigned long>(budget.leftUs() % usPerSecond));
        if (budget.leftUs() < usPerSecond) {
            handle->flags |= usedUp;
            break;
        }
    }
    keepText(message, reply.substr(busyWord.size()));
    vx::log(LOG_DEBUG, "wwanmd%d is busy", handle->card);
    return Reply::busy;
}

int receiveMessage(wwanmd_handle *handle, wwanmd_msg *message, Part part) {
    if (handle == nullptr || message == nullptr || !validCard(handle->card)) return -1;
    if (part == Part::alone) {
        std::signal(SIGPIPE, SIG_IGN);  // Quirk Q41: stays ignored when this call returns before it receives
        if (handle->fd == -1) {
            if (wwanmd_open(handle) != 0) return -1;
            std::signal(SIGPIPE, SIG_IGN);  // the handshake has restored the default action
        }
    }
    if (closedForReset(handle)) return inReset;
    const Reply outcome = receiveAnswer(handle, message);
    std::signal(SIGPIPE, SIG_DFL);
    switch (outcome) {
        case Reply::ok:
            handle->failures = 0;
            handle->busy_count = 0;
            return 0;
        case Reply::busy:
            ++handle->busy_count;
            if (handle->busy_count > maxBusyCommands && part != Part::ofHandshake) (void)wwanmd_open(handle);
            return -1;
        case Reply::failed:
            countFailure(handle, "receiving from", part);
            return -1;
    }
    return -1;  // GCOVR_EXCL_LINE: each case returns
}

wwanmd_handle *makeHandle(int card, const char *app) {
    auto *handle = static_cast<wwanmd_handle *>(std::calloc(1, sizeof(wwanmd_handle)));
    if (handle == nullptr) return nullptr;
    handle->fd = -1;
    handle->card = card;
    strlcpy(handle->app, app, sizeof handle->app);
    handle->last_io = now();
    return handle;
}

}  // namespace

extern "C" {

wwanmd_handle *wwanmd_init(int card, const char *app) {
    if (!validCard(card)) return nullptr;
    if (app == nullptr || app[0] == '\0' || std::strlen(app) >= sizeof(wwanmd_handle::app)) {
        vx::log(LOG_DEBUG, "invalid app name for wwanmd connection");
        return nullptr;
    }
    wwanmd_handle *handle = nullptr;
    try {
        ::openlog(lastingName(app), LOG_PID | LOG_NDELAY, LOG_USER);
        handle = makeHandle(card, app);
    } catch (const std::bad_alloc &) {
        handle = nullptr;
    }
    if (handle == nullptr) {
        vx::log(LOG_DEBUG, "no mem for wwanmd connection");
        return nullptr;
    }
    if (wwanmd_open(handle) != 0) {
        wwanmd_free(handle);
        return nullptr;
    }
    return handle;
}

void wwanmd_free(wwanmd_handle *handle) {
    wwanmd_close(handle);
    std::free(handle);
}

int wwanmd_command(wwanmd_handle *handle, wwanmd_msg *message) {
    if (handle == nullptr || message == nullptr || !validCard(handle->card)) return -1;
    if (handle->fd == -1 && wwanmd_open(handle) != 0) return -1;
    return exchange(handle, message, Part::ofCommand);
}

int wwanmd_open(wwanmd_handle *handle) {
    if (handle == nullptr || !validCard(handle->card)) return -1;
    wwanmd_close(handle);
    if (closedForReset(handle)) return inReset;
    handle->failures = 0;
    handle->busy_count = 0;
    handle->last_io = now();
    handle->fd = connectToDaemon(handle->card).release();
    if (handle->fd == -1) return -1;
    if (handshake(handle) == 0) {
        handle->flags |= initialized;
        return 0;
    }
    vx::log(LOG_DEBUG, "cannot initialize wwanmd%d (%s)", handle->card, std::strerror(errno));
    wwanmd_close(handle);
    return -1;
}

void wwanmd_close(wwanmd_handle *handle) {
    if (handle == nullptr) return;
    handle->flags &= ~usedUp;
    const vx::Fd closed(handle->fd);
    handle->fd = -1;
}

int wwanmd_send(wwanmd_handle *handle, wwanmd_msg *message) { return sendMessage(handle, message, Part::alone); }

int wwanmd_recv(wwanmd_handle *handle, wwanmd_msg *message) { return receiveMessage(handle, message, Part::alone); }

int wwanmd_in_reset(int card) {
    if (!validCard(card)) return -1;
    if (!markerPresent(resetMarker, card)) return 0;
    for (int check = 0; check < resetChecks; ++check) {
        if (!markerPresent(resetMarker, card)) {
            vx::sleepUs(usPerSecond);
            return 0;
        }
        vx::sleepUs(usPerSecond);
    }
    return 1;
}

int wwanmd_is_suspended(int card) {
    if (!validCard(card)) return -1;
    return markerPresent(suspendedMarker, card) ? 1 : 0;
}

}  // extern "C"
