// SPDX-License-Identifier: MIT
#include "gateway/panel/stream.h"

#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace vxgateway {

namespace {

// The events that came by the deadline, 0 for none.
short await(int fd, short events, Clock::time_point deadline) {
    for (;;) {
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now()).count();
        pollfd waiting{fd, events, 0};
        const int found = ::poll(&waiting, 1, static_cast<int>(std::max<long long>(left, 0)));
        if (found == -1 && errno == EINTR) continue;
        return found == 1 ? waiting.revents : static_cast<short>(0);
    }
}

}  // namespace

bool BoundedStream::is_readable() const { return at_ < end_ || await(fd_.get(), POLLIN, askedBy_) != 0; }

bool BoundedStream::is_writable() const {
    const short events = await(fd_.get(), POLLOUT | POLLRDHUP, Clock::now() + timeToSend);
    return events == POLLOUT;
}

bool BoundedStream::fill() {
    if (received_ >= mostReceived || await(fd_.get(), POLLIN, askedBy_) == 0) return false;
    const size_t room = std::min(buffer_.size(), mostReceived - received_);
    const ssize_t got = ::recv(fd_.get(), buffer_.data(), room, MSG_DONTWAIT);
    if (got <= 0) return false;
    at_ = 0;
    end_ = static_cast<size_t>(got);
    received_ += end_;
    return true;
}

ssize_t BoundedStream::read(char *buffer, size_t size) {
    if (at_ == end_ && !fill()) return -1;
    const size_t count = std::min(size, end_ - at_);
    std::memcpy(buffer, buffer_.data() + at_, count);
    at_ += count;
    return static_cast<ssize_t>(count);
}

ssize_t BoundedStream::write(const char *text, size_t size) {
    if (await(fd_.get(), POLLOUT, Clock::now() + timeToSend) == 0) return -1;
    return ::send(fd_.get(), text, size, MSG_NOSIGNAL | MSG_DONTWAIT);
}

// Connections come from this machine alone.
void BoundedStream::get_remote_ip_and_port(std::string &ip, int &port) const {
    ip = "127.0.0.1";
    port = 0;
}

void BoundedStream::get_local_ip_and_port(std::string &ip, int &port) const { get_remote_ip_and_port(ip, port); }

void BoundedStream::finish() {
    ::shutdown(fd_.get(), SHUT_WR);
    const auto deadline = Clock::now() + std::chrono::seconds(1);
    size_t dropped = 0;
    while (dropped < 16 * mostReceived && await(fd_.get(), POLLIN, deadline) != 0) {
        const ssize_t got = ::recv(fd_.get(), buffer_.data(), buffer_.size(), MSG_DONTWAIT);
        if (got <= 0) return;
        dropped += static_cast<size_t>(got);
    }
}

}  // namespace vxgateway
