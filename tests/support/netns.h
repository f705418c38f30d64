// SPDX-License-Identifier: MIT
// Hosts of a test: network namespaces joined by virtual cables, and frames seen on the wire.
#pragma once

#include <sys/types.h>
#include <time.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace vxtest {

// Runs "ip ARGUMENTS" (words between blanks) and returns its output; throws with that output when it fails.
std::string ip(const std::string &arguments);

// A further network namespace with its loopback interface up; it goes when this does.
class NetHost {
public:
    explicit NetHost(std::string name);
    ~NetHost();
    NetHost(const NetHost &) = delete;
    NetHost &operator=(const NetHost &) = delete;

    const std::string &name() const { return name_; }
    std::string ip(const std::string &arguments) const;                     // "ip" as this host
    void setting(const std::string &path, const std::string &value) const;  // a file below its /proc/sys/net
    void inside(const std::function<void()> &body) const;                   // on this thread, as this host
    pid_t start(const std::function<int()> &body) const;                    // a child process as this host

private:
    std::string name_;
};

// A virtual cable between this namespace and another: `near` here, `far` there, both up.
void cable(const std::string &near, const NetHost &host, const std::string &far);

using HardwareAddress = std::vector<uint8_t>;
HardwareAddress hardwareAddress(const std::string &interface);  // in this thread's namespace
unsigned int interfaceIndex(const std::string &interface);      // the same

struct Frame {
    std::vector<uint8_t> bytes;
    unsigned char direction;  // PACKET_OUTGOING for what the namespace sent itself
};

// Packet socket on one interface, made in the namespace that the constructor runs in: sees every frame, sends any.
class Wire {
public:
    // With a mark, only frames that carry this firewall mark are seen.
    explicit Wire(const std::string &interface, std::optional<uint32_t> mark = std::nullopt);
    ~Wire();
    Wire(const Wire &) = delete;
    Wire &operator=(const Wire &) = delete;

    // Next frame that is not the namespace's own, for as long as it takes; nothing after the time-out.
    std::optional<Frame> next(int timeout_ms = 10000);
    // The same among all frames, own ones included.
    std::optional<Frame> nextOfAll(int timeout_ms = 10000);
    // Next foreign frame that carries ICMP over IPv4.
    std::optional<Frame> nextIcmp(int timeout_ms = 10000);
    void send(const std::vector<uint8_t> &frame) const;

private:
    int socket_ = -1;
    unsigned int index_;
};

// Answers the echoes that arrive on a wire, on a thread of its own, in whatever way the test wants.
class Responder {
public:
    // For each echo request: the frames to send back. Runs in the namespace that the constructor runs in.
    using Answer = std::function<std::vector<std::vector<uint8_t>>(const std::vector<uint8_t> &frame)>;
    Responder(const std::string &interface, Answer answer);
    ~Responder();

    // Request frames seen so far.
    int seen() const { return seen_; }

private:
    Wire wire_;
    Answer answer_;
    std::atomic<bool> stop_{false};
    std::atomic<int> seen_{0};
    std::thread thread_;
};

// The echo reply to a captured echo request: addresses exchanged, type 0, both checksums right.
std::vector<uint8_t> echoReply(std::vector<uint8_t> request);

// Puts right both checksums of a frame with an IPv4 header (of any length) and an ICMP message up to its end.
void fixChecksums(std::vector<uint8_t> &frame);

// Internet checksum of bytes in network order, computed by the book.
uint16_t checksumByTheBook(const uint8_t *data, size_t length);

// "08 00 f7 fe ...", for comparisons that a person can read.
std::string hex(const uint8_t *data, size_t length);
inline std::string hex(const std::vector<uint8_t> &bytes) { return hex(bytes.data(), bytes.size()); }

}  // namespace vxtest
