// SPDX-License-Identifier: MIT
#include "core/follow.h"

#include <poll.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <climits>
#include <csignal>

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
    return ::signalfd(-1, &set, SFD_CLOEXEC | SFD_NONBLOCK);
}

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
        int timeout = -1;
        if (until) {
            const auto left = std::chrono::ceil<milliseconds>(*until - Clock::now()).count();
            timeout = static_cast<int>(std::clamp<int64_t>(left, 0, INT_MAX));
        }
        // Of standard output only the end is looked for: a pipe whose reader has gone.
        std::array<pollfd, 3> waiting{{{signals_.get(), POLLIN, 0}, {STDOUT_FILENO, 0, 0}, {fd, POLLIN, 0}}};
        const int ready = ::poll(waiting.data(), waiting.size(), timeout);
        if (ready == -1 && errno != EINTR) throw systemFailure("poll");
        if (waiting[0].revents != 0 || (waiting[1].revents & POLLERR) != 0) break;
        if (end_ && Clock::now() >= *end_) break;
        if (ready > 0 && waiting[2].revents != 0) return Event::ready;
        if (ready == 0 && (!until || Clock::now() >= *until)) return Event::timeout;
    }
    over_ = true;
    return Event::over;
}

bool Follow::print(const Record &record, Plain form) {
    if (over_) return false;
    out_.event(record, form);
    if (left_ && --*left_ == 0) over_ = true;
    return !over_;
}

}  // namespace tool
