// SPDX-License-Identifier: MIT
#include "support/netns.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <linux/filter.h>
#include <linux/if_ether.h>
#include <linux/if_packet.h>
#include <net/if.h>
#include <poll.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <sstream>
#include <stdexcept>

#include "support/files.h"
#include "support/process.h"

namespace vxtest {
namespace {

constexpr size_t ethernetHeader = 14;
// The wires make their system calls themselves: calls of the C library may be hooked by the test (intercept.h), and
// wires are at work on other threads meanwhile.

[[noreturn]] void fail(const std::string &what) { throw std::runtime_error(what + ": " + std::strerror(errno)); }

bool isIcmp(const Frame &frame) {
    return frame.bytes.size() >= 34 && frame.bytes[12] == 0x08 && frame.bytes[13] == 0 && frame.bytes[23] == 1;
}

bool isEchoRequest(const Frame &frame) {
    const size_t message = ethernetHeader + static_cast<size_t>(frame.bytes[ethernetHeader] & 0x0F) * 4;
    return frame.bytes.size() >= message + 8 && frame.bytes[message] == 8;
}

}  // namespace

std::string ip(const std::string &arguments) {
    std::vector<std::string> command{"ip"};
    std::istringstream words(arguments);
    for (std::string word; words >> word;) command.push_back(word);
    const Output output = run(command);
    if (output.status != 0) throw std::runtime_error("ip " + arguments + ": " + output.text);
    return output.text;
}

NetHost::NetHost(std::string name) : name_(std::move(name)) {
    vxtest::ip("netns add " + name_);
    ip("link set lo up");
}

NetHost::~NetHost() { run({"ip", "netns", "del", name_}); }

std::string NetHost::ip(const std::string &arguments) const { return vxtest::ip("-n " + name_ + " " + arguments); }

void NetHost::setting(const std::string &path, const std::string &value) const {
    const Output output = run({"ip", "netns", "exec", name_, "sh", "-c", "echo " + value + " >/proc/sys/net/" + path});
    if (output.status != 0) throw std::runtime_error(path + ": " + output.text);
}

void NetHost::inside(const std::function<void()> &body) const {
    const int here = ::open("/proc/thread-self/ns/net", O_RDONLY | O_CLOEXEC);
    const int there = ::open(("/run/netns/" + name_).c_str(), O_RDONLY | O_CLOEXEC);
    if (here == -1 || there == -1) fail("namespace " + name_);
    if (::setns(there, CLONE_NEWNET) == -1) fail("enter " + name_);
    ::close(there);
    const auto back = [here] {
        const bool done = ::setns(here, CLONE_NEWNET) == 0;
        ::close(here);
        if (!done) fail("leave namespace");
    };
    try {
        body();
    } catch (...) {
        back();
        throw;
    }
    back();
}

pid_t NetHost::start(const std::function<int()> &body) const {
    return startChild([&] {
        int result = 0;
        inside([&] { result = body(); });
        return result;
    });
}

void cable(const std::string &near, const NetHost &host, const std::string &far) {
    ip("link add " + near + " type veth peer name " + far + " netns " + host.name());
    ip("link set " + near + " up");
    host.ip("link set " + far + " up");
}

HardwareAddress hardwareAddress(const std::string &interface) {
    const int fd = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    ifreq request{};
    interface.copy(request.ifr_name, IF_NAMESIZE - 1);
    const int result = ::ioctl(fd, SIOCGIFHWADDR, &request);
    ::close(fd);
    if (result == -1) fail("hardware address of " + interface);
    return HardwareAddress(request.ifr_hwaddr.sa_data, request.ifr_hwaddr.sa_data + ETH_ALEN);
}

unsigned int interfaceIndex(const std::string &interface) {
    const unsigned int index = ::if_nametoindex(interface.c_str());
    if (index == 0) fail("no interface " + interface);
    return index;
}

Wire::Wire(const std::string &interface, std::optional<uint32_t> mark) : index_(interfaceIndex(interface)) {
    // Protocol 0 hears nothing until it is bound, so that no frame of another interface ever gets in.
    socket_ = ::socket(AF_PACKET, SOCK_RAW | SOCK_CLOEXEC, 0);
    if (socket_ == -1) fail("packet socket");
    if (mark.has_value()) {
        std::array<sock_filter, 4> program{
            {{BPF_LD | BPF_W | BPF_ABS, 0, 0, static_cast<uint32_t>(SKF_AD_OFF + SKF_AD_MARK)},
             {BPF_JMP | BPF_JEQ | BPF_K, 0, 1, *mark},
             {BPF_RET | BPF_K, 0, 0, 65535},
             {BPF_RET | BPF_K, 0, 0, 0}}};
        const sock_fprog filter{static_cast<unsigned short>(program.size()), program.data()};
        if (::setsockopt(socket_, SOL_SOCKET, SO_ATTACH_FILTER, &filter, sizeof filter) == -1) fail("mark filter");
    }
    const int room = 4 * 1024 * 1024;
    ::setsockopt(socket_, SOL_SOCKET, SO_RCVBUF, &room, sizeof room);
    sockaddr_ll address{};
    address.sll_family = AF_PACKET;
    address.sll_protocol = htons(ETH_P_ALL);
    address.sll_ifindex = static_cast<int>(index_);
    if (::bind(socket_, reinterpret_cast<sockaddr *>(&address), sizeof address) == -1) fail("bind to " + interface);
}

Wire::~Wire() { ::close(socket_); }

std::optional<Frame> Wire::nextOfAll(int timeout_ms) {
    pollfd waiting{socket_, POLLIN, 0};
    if (::poll(&waiting, 1, timeout_ms) <= 0) return std::nullopt;
    Frame frame{std::vector<uint8_t>(65536), 0};
    sockaddr_ll from{};
    socklen_t length = sizeof from;
    const long got =
        ::syscall(SYS_recvfrom, socket_, frame.bytes.data(), frame.bytes.size(), MSG_DONTWAIT, &from, &length);
    if (got == -1) return std::nullopt;
    frame.bytes.resize(static_cast<size_t>(got));
    frame.direction = from.sll_pkttype;
    return frame;
}

std::optional<Frame> Wire::next(int timeout_ms) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
    for (;;) {
        const auto left =
            std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
        const auto frame = nextOfAll(left.count() > 0 ? static_cast<int>(left.count()) : 0);
        if (frame.has_value() && frame->direction != PACKET_OUTGOING) return frame;
        if (left.count() <= 0) return std::nullopt;
    }
}

std::optional<Frame> Wire::nextIcmp(int timeout_ms) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
    for (;;) {
        const auto left =
            std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
        const auto frame = next(left.count() > 0 ? static_cast<int>(left.count()) : 0);
        if (!frame.has_value() || isIcmp(*frame)) return frame;
    }
}

void Wire::send(const std::vector<uint8_t> &frame) const {
    sockaddr_ll address{};
    address.sll_family = AF_PACKET;
    address.sll_protocol = htons(ETH_P_IP);
    address.sll_ifindex = static_cast<int>(index_);
    address.sll_halen = ETH_ALEN;
    for (int tries = 0;
         ::syscall(SYS_sendto, socket_, frame.data(), frame.size(), 0, &address, sizeof address) == -1;) {
        if (errno != ENOBUFS || ++tries == 1000) fail("send frame");
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
}

Responder::Responder(const std::string &interface, Answer answer)
    : wire_(interface), answer_(std::move(answer)), thread_([this] {
          while (!stop_) {
              const auto frame = wire_.nextIcmp(20);
              if (!frame.has_value() || !isEchoRequest(*frame)) continue;
              ++seen_;
              for (const auto &reply : answer_(frame->bytes)) wire_.send(reply);
          }
      }) {}

Responder::~Responder() {
    stop_ = true;
    thread_.join();
}

uint16_t checksumByTheBook(const uint8_t *data, size_t length) {
    uint32_t sum = 0;
    for (size_t i = 0; i < length; ++i) sum += i % 2 == 0 ? static_cast<uint32_t>(data[i]) << 8 : data[i];
    while (sum > 0xFFFF) sum = (sum & 0xFFFF) + (sum >> 16);
    return static_cast<uint16_t>(~sum);
}

void fixChecksums(std::vector<uint8_t> &frame) {
    uint8_t *const header = frame.data() + ethernetHeader;
    const size_t headerLength = static_cast<size_t>(header[0] & 0x0F) * 4;
    uint8_t *const message = header + headerLength;
    const size_t messageLength = frame.size() - ethernetHeader - headerLength;
    const auto store = [](uint8_t *at, const uint8_t *from, size_t length) {
        at[0] = at[1] = 0;
        const uint16_t sum = checksumByTheBook(from, length);
        at[0] = static_cast<uint8_t>(sum >> 8);
        at[1] = static_cast<uint8_t>(sum & 0xFF);
    };
    store(header + 10, header, headerLength);
    store(message + 2, message, messageLength);
}

std::vector<uint8_t> echoReply(std::vector<uint8_t> request) {
    for (size_t i = 0; i < ETH_ALEN; ++i) std::swap(request[i], request[ETH_ALEN + i]);
    for (size_t i = 0; i < 4; ++i) std::swap(request[26 + i], request[30 + i]);
    const size_t headerLength = static_cast<size_t>(request[ethernetHeader] & 0x0F) * 4;
    request[ethernetHeader + headerLength] = 0;
    fixChecksums(request);
    return request;
}

std::string hex(const uint8_t *data, size_t length) {
    static constexpr const char *digits = "0123456789abcdef";
    std::string text;
    for (size_t i = 0; i < length; ++i) {
        if (i > 0) text += ' ';
        text += digits[data[i] >> 4];
        text += digits[data[i] & 0x0F];
    }
    return text;
}

}  // namespace vxtest
