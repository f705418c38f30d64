// SPDX-License-Identifier: MIT
#include "core/follow.h"

#include <limits.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/signalfd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <csignal>
#include <exception>
#include <memory>
#include <thread>

#include "core/failure.h"

namespace tool {

namespace {

// A signal that the caller ignores, as shells do for background commands, stays ignored.
bool isIgnored(int signal) {
    struct sigaction action {};
    return ::sigaction(signal, nullptr, &action) == 0 && action.sa_handler == SIG_IGN;
}

int openSignals() {
    sigset_t set;
    sigemptyset(&set);
    for (const int signal : {SIGINT, SIGTERM}) {
        if (!isIgnored(signal)) sigaddset(&set, signal);
    }
    ::sigprocmask(SIG_BLOCK, &set, nullptr);
    ::signal(SIGPIPE, SIG_IGN);  // a reader that goes is an end like others
    return ::signalfd(-1, &set, SFD_CLOEXEC | SFD_NONBLOCK);
}

// Milliseconds for poll(); it may end early where the time is longer than poll() takes.
int timeoutUntil(std::optional<Follow::Clock::time_point> until) {
    if (!until) return -1;
    const auto left = std::chrono::ceil<milliseconds>(*until - Follow::Clock::now()).count();
    return static_cast<int>(std::clamp<int64_t>(left, 0, INT_MAX));
}

bool hasPassed(std::optional<Follow::Clock::time_point> time) { return time && Follow::Clock::now() >= *time; }

// What a pipe that has any room takes without waiting. A file takes all: lines of several writers must not mix there.
size_t longestPiece() {
    struct stat status {};
    return ::fstat(STDOUT_FILENO, &status) == 0 && S_ISREG(status.st_mode) ? SIZE_MAX : PIPE_BUF;
}

// A call in a thread of its own.
struct Job {
    Fd done;
    std::exception_ptr failure;
};

}  // namespace

Follow::Follow(const Arguments &arguments, Output &out) : out_(out) {
    if (arguments.has("count")) left_ = arguments.number("count", 0, 1, INT64_MAX);
    if (const auto limit = arguments.seconds("for")) end_ = Clock::now() + *limit;
    signals_.reset(openSignals());
    if (!signals_.valid()) throw systemFailure("signals");
}

Follow::Event Follow::wait(int fd, std::optional<milliseconds> longest) {
    const auto now = Clock::now();
    std::optional<Clock::time_point> until;
    if (longest) until = now + *longest;
    if (end_ && (!until || *end_ < *until)) until = end_;
    while (!over_) {
        // Of standard output only the end is looked for: a pipe (POLLERR) or socket (POLLHUP) whose reader has gone.
        std::array<pollfd, 3> waiting{{{signals_.get(), POLLIN, 0}, {STDOUT_FILENO, 0, 0}, {fd, POLLIN, 0}}};
        const int ready = ::poll(waiting.data(), waiting.size(), timeoutUntil(until));
        if (ready == -1 && errno != EINTR) throw systemFailure("poll");
        if (waiting[0].revents != 0 || waiting[1].revents != 0 || hasPassed(end_)) break;
        if (ready > 0 && waiting[2].revents != 0) return Event::ready;
        if (ready == 0 && hasPassed(until)) return Event::timeout;
    }
    over_ = true;
    return Event::over;
}

bool Follow::print(const Record &record, Plain form) {
    if (over_) return false;
    over_ = !write(out_.event(record, form), end_);
    if (left_ && --*left_ == 0) over_ = true;
    return !over_;
}

void Follow::printLast(const Record &record, Plain form) {
    over_ = true;
    write(out_.event(record, form), std::nullopt);
}

// False when it was not written to its end.
bool Follow::write(std::string_view bytes, std::optional<Clock::time_point> end) const {
    const size_t longest = longestPiece();
    while (!bytes.empty()) {
        if (!hasRoom(end)) return false;
        const ssize_t written = ::write(STDOUT_FILENO, bytes.data(), std::min(bytes.size(), longest));
        if (written >= 0) {
            bytes.remove_prefix(static_cast<size_t>(written));
        } else if (errno == EPIPE || errno == ECONNRESET) {
            return false;
        } else if (errno != EINTR && errno != EAGAIN) {
            throw systemFailure("standard output");
        }
    }
    return true;
}

// Waits until standard output takes something, or fails. False when a signal or the end came first.
bool Follow::hasRoom(std::optional<Clock::time_point> end) const {
    for (;;) {
        std::array<pollfd, 2> waiting{{{signals_.get(), POLLIN, 0}, {STDOUT_FILENO, POLLOUT, 0}}};
        if (::poll(waiting.data(), waiting.size(), timeoutUntil(end)) == -1 && errno != EINTR)
            throw systemFailure("poll");
        if (waiting[1].revents != 0) return true;
        if (waiting[0].revents != 0 || hasPassed(end)) return false;
    }
}

bool Follow::finishes(std::function<void()> call) {
    const auto job = std::make_shared<Job>();
    job->done.reset(::eventfd(0, EFD_CLOEXEC));
    if (!job->done.valid()) throw systemFailure("eventfd");
    std::thread worker([job, call = std::move(call)] {
        try {
            call();
        } catch (...) {
            job->failure = std::current_exception();
        }
        ::eventfd_write(job->done.get(), 1);
    });
    if (wait(job->done.get()) != Event::ready) {
        worker.detach();
        return false;
    }
    worker.join();
    if (job->failure) std::rethrow_exception(job->failure);
    return true;
}

}  // namespace tool
