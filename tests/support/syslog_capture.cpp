// SPDX-License-Identifier: MIT
#include "support/syslog_capture.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstring>
#include <stdexcept>

namespace vxtest {
namespace {

constexpr const char *logPath = "/dev/log";

}  // namespace

std::ostream &operator<<(std::ostream &out, const LogLine &line) {
    return out << "<" << line.priority << "> \"" << line.text << '"';
}

// "<11>Nov 21 02:03:04 identity[12]: text" or without "[12]"
LogLine parseLogLine(const std::string &datagram) {
    const size_t close = datagram.find('>');
    if (datagram.empty() || datagram[0] != '<' || close == std::string::npos) return {-1, datagram};
    const int priority = std::stoi(datagram.substr(1, close - 1)) & 7;
    constexpr size_t timeLength = 16;  // "Nov 21 02:03:04 "
    const size_t colon = datagram.find(": ", close + 1 + timeLength);
    if (colon == std::string::npos) return {priority, datagram.substr(close + 1)};
    return {priority, datagram.substr(colon + 2)};
}

SyslogCapture::SyslogCapture() {
    ::unlink(logPath);
    socket_ = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strcpy(address.sun_path, logPath);
    if (::bind(socket_, reinterpret_cast<sockaddr *>(&address), sizeof address) == -1) {
        throw std::runtime_error("cannot bind /dev/log");
    }
    if (::pipe2(stop_, O_CLOEXEC) == -1) throw std::runtime_error("pipe");
    reader_ = std::thread([this] { readLoop(); });
}

SyslogCapture::~SyslogCapture() {
    ::close(stop_[1]);
    reader_.join();
    ::close(stop_[0]);
    ::close(socket_);
    ::unlink(logPath);
}

void SyslogCapture::drain() {
    std::array<char, 65536> buffer;
    for (;;) {
        const ssize_t got = ::recv(socket_, buffer.data(), buffer.size(), MSG_DONTWAIT);
        if (got < 0) return;
        lines_.emplace_back(buffer.data(), static_cast<size_t>(got));
    }
}

void SyslogCapture::readLoop() {
    for (;;) {
        std::array<pollfd, 2> waiting{{{socket_, POLLIN, 0}, {stop_[0], POLLIN, 0}}};
        if (::poll(waiting.data(), waiting.size(), -1) == -1) continue;
        if (waiting[1].revents != 0) return;
        const std::lock_guard lock(mutex_);
        drain();
    }
}

std::vector<std::string> SyslogCapture::takeRaw() {
    const std::lock_guard lock(mutex_);
    drain();
    return std::exchange(lines_, {});
}

std::vector<LogLine> SyslogCapture::take() {
    std::vector<LogLine> parsed;
    for (const std::string &raw : takeRaw()) parsed.push_back(parseLogLine(raw));
    return parsed;
}

bool SyslogCapture::waitFor(const std::string &text, int timeout_ms) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
    for (;;) {
        {
            const std::lock_guard lock(mutex_);
            drain();
            const auto found = std::find_if(lines_.begin(), lines_.end(),
                                            [&](const std::string &raw) { return parseLogLine(raw).text == text; });
            if (found != lines_.end()) {
                lines_.erase(lines_.begin(), found + 1);
                return true;
            }
        }
        if (std::chrono::steady_clock::now() >= deadline) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
}

}  // namespace vxtest
