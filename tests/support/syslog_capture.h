// SPDX-License-Identifier: MIT
// The system log as it leaves the process: a real datagram socket at /dev/log.
#pragma once

#include <mutex>
#include <ostream>
#include <string>
#include <thread>
#include <vector>

namespace vxtest {

struct LogLine {
    int priority;      // severity, 0 to 7
    std::string text;  // the message without time, identity and process id

    bool operator==(const LogLine &) const = default;
};
std::ostream &operator<<(std::ostream &out, const LogLine &line);

// Collects what any process of the box logs from construction on. One at a time.
class SyslogCapture {
public:
    SyslogCapture();
    ~SyslogCapture();
    SyslogCapture(const SyslogCapture &) = delete;
    SyslogCapture &operator=(const SyslogCapture &) = delete;

    // All lines logged since the last take(), in order. A line whose syslog() call has returned is never missed.
    std::vector<LogLine> take();

    // The same as raw datagrams, "<PRI>time identity: text".
    std::vector<std::string> takeRaw();

    // Waits until a line with this text is there, takes everything up to and with it away. False after timeout_ms.
    bool waitFor(const std::string &text, int timeout_ms = 15000);

private:
    void drain();  // mutex held
    void readLoop();

    int socket_ = -1;
    int stop_[2] = {-1, -1};
    std::mutex mutex_;
    std::vector<std::string> lines_;
    std::thread reader_;  // the socket's queue is short: without a reader the logging process would block
};

LogLine parseLogLine(const std::string &datagram);

}  // namespace vxtest
