// SPDX-License-Identifier: MIT
// One connection of a browser, with a limit on what it may send and on the time that it may take for it.
#ifndef VXGATEWAY_PANEL_STREAM_H
#define VXGATEWAY_PANEL_STREAM_H

#include <httplib.h>

#include <array>
#include <chrono>
#include <string>

#include "gateway/core/peer.h"

namespace vxgateway {

class BoundedStream final : public httplib::Stream {
public:
    static constexpr size_t mostReceived = 65536;  // request line, header and body together
    static constexpr std::chrono::seconds timeToAsk{5};
    static constexpr std::chrono::seconds timeToSend{5};  // for each piece of the answer

    explicit BoundedStream(Descriptor fd) : fd_(std::move(fd)) {}

    bool is_readable() const override;
    bool is_writable() const override;  // false as well once the browser has gone
    ssize_t read(char *buffer, size_t size) override;
    ssize_t write(const char *text, size_t size) override;
    void get_remote_ip_and_port(std::string &ip, int &port) const override;
    void get_local_ip_and_port(std::string &ip, int &port) const override;
    socket_t socket() const override { return fd_.get(); }

    // Sends what is left and drops what was not read, so that the answer is not lost with it.
    void finish();

private:
    bool fill();

    Descriptor fd_;
    Clock::time_point askedBy_ = Clock::now() + timeToAsk;
    std::array<char, 4096> buffer_{};
    size_t at_ = 0;
    size_t end_ = 0;
    size_t received_ = 0;
};

}  // namespace vxgateway

#endif
