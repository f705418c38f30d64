// SPDX-License-Identifier: MIT
// The socket calls of ping: what is sent, what is received in the place of real packets, sleeps that are cut short.
#pragma once

#include <poll.h>
#include <sys/mount.h>

#include <algorithm>
#include <deque>
#include <functional>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "support/intercept.h"
#include "support/ping.h"

namespace vxtest::ping {

// Sees what is handed to the sockets, and what sleeps there are; while this lives a sleep takes a fraction of its time:
// enough for a peer on the same machine to answer, on a slow one too.
struct Watch {
    Intercept calls;
    std::vector<Bytes> sent;
    std::vector<Bytes> sentTo;
    std::vector<long> sleepsNs;
    bool scripted = false;  // nothing is to be waited for

    explicit Watch(bool skipSleeps = true) {
        calls->sendto = [this](int, const void *data, size_t size, const sockaddr *to,
                               socklen_t length) -> std::optional<ssize_t> {
            const auto *bytes = static_cast<const uint8_t *>(data);
            const auto *address = reinterpret_cast<const uint8_t *>(to);
            sent.emplace_back(bytes, bytes + size);
            sentTo.emplace_back(address, address + length);
            return std::nullopt;
        };
        if (!skipSleeps) return;
        calls->nanosleep = [this](const timespec *request) -> std::optional<int> {
            EXPECT_EQ(request->tv_sec, 0);
            sleepsNs.push_back(request->tv_nsec);
            if (!scripted) ::poll(nullptr, 0, 20);
            return 0;
        };
    }

    // Packets that are received instead of real ones; after the last one nothing more is there.
    std::deque<Bytes> script;
    int receives = 0;
    void receiveFromScript(std::function<Bytes(const Bytes &)> adapt = {}) {
        scripted = true;
        calls->recvmsg = [this, adapt](int, msghdr *message, int flags) -> std::optional<ssize_t> {
            EXPECT_EQ(flags, MSG_DONTWAIT);
            ++receives;
            if (script.empty()) return failing(EAGAIN);
            const Bytes next = adapt ? adapt(script.front()) : script.front();
            script.pop_front();
            return deliver(message, next);
        };
    }
};

// How often a wait with this time-out (milliseconds) sleeps when nothing arrives.
inline size_t sleepsFor(unsigned int timeout) {
    size_t sleeps = 0;
    for (long budget = std::min(std::max(timeout, 500U), 10000U) * 1000L + 300000; budget > 0; budget -= 300000)
        ++sleeps;
    return sleeps;
}

// A table in the place of the kernel's, for this process; none at all without a text.
class ArpTable {
public:
    explicit ArpTable(const char *text) : mounted_(::mount("tmpfs", directory, "tmpfs", 0, nullptr) == 0) {
        if (!mounted_) throw std::runtime_error("cannot cover the ARP table");
        if (text != nullptr) writeFile(std::string(directory) + "/arp", text);
    }
    ~ArpTable() { ::umount2(directory, MNT_DETACH); }
    ArpTable(const ArpTable &) = delete;
    ArpTable &operator=(const ArpTable &) = delete;

private:
    static constexpr const char *directory = "/proc/self/net";
    bool mounted_;
};

}  // namespace vxtest::ping
