// SPDX-License-Identifier: MIT
// wanlink: a WAN link with a gateway host one hop away and a target beyond it.
//
//   here             namespace wan-gateway                    namespace wan-target
//   wan0 ==cable== gw0                line0 ==line== line0
//   192.0.2.10/24    192.0.2.1/24     198.51.100.1/24          198.51.100.9/24
//
// The cable is a pair of virtual Ethernet interfaces, so that there is a hardware address to resolve. The line is this
// program: it carries packets between two tunnel interfaces and can take its time over it, or lose them all.
#include <fcntl.h>
#include <linux/if_tun.h>
#include <net/if.h>
#include <poll.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <sstream>
#include <stdexcept>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

namespace {

constexpr const char *help =
    "usage: wanlink [--delay MS]\n"
    "A WAN link: interface wan0 (192.0.2.10/24) here, a gateway host (192.0.2.1) at its other end, and behind that,\n"
    "at the far end of a line, a target (198.51.100.9). No route to the target is set here. Needs root and \"ip\".\n"
    "The hosts are the network namespaces wan-gateway and wan-target (ip netns exec wan-target ...).\n"
    "\n"
    "  --delay MS       time that the line takes, each way (default 0)\n"
    "\n"
    "It prints \"ready\". Lines on standard input steer it; each is confirmed with \"ok\" and the line:\n"
    "  cut              pull the cable: wan0 loses its carrier\n"
    "  restore          plug it in again\n"
    "  lose             the line loses every packet: the gateway answers, the target does not\n"
    "  carry            the line carries packets again\n"
    "  delay MS         change the time that the line takes, each way\n"
    "  route            set a route to the target through the gateway\n"
    "  noroute          remove it\n"
    "It ends with the end of its standard input, and takes the link and both hosts away. There is\n"
    "one such link at a time: a new one takes the place of one that was left behind.\n";

using Clock = std::chrono::steady_clock;
using Bytes = std::vector<char>;

volatile std::sig_atomic_t stopped = 0;

[[noreturn]] void fail(const std::string &what) { throw std::runtime_error(what + ": " + std::strerror(errno)); }

void ip(const std::string &arguments) {
    if (std::system(("ip " + arguments).c_str()) != 0) throw std::runtime_error("failed: ip " + arguments);
}

void removeEverything() {
    for (const char *command : {"ip link del wan0", "ip netns del wan-gateway", "ip netns del wan-target"}) {
        if (std::system((std::string(command) + " 2>/dev/null").c_str()) == -1) std::perror(command);
    }
}

// A descriptor that is closed at the end.
class Descriptor {
public:
    explicit Descriptor(int fd, const std::string &what) : fd_(fd) {
        if (fd == -1) fail(what);
    }
    ~Descriptor() { ::close(fd_); }
    Descriptor(const Descriptor &) = delete;
    Descriptor &operator=(const Descriptor &) = delete;
    int get() const { return fd_; }

private:
    int fd_;
};

int openPath(const std::string &path) { return ::open(path.c_str(), O_RDONLY | O_CLOEXEC); }

// One end of the line: a tunnel interface in another namespace. Its descriptor works from here.
int lineEnd(const std::string &host) {
    const Descriptor here(openPath("/proc/self/ns/net"), "own namespace");
    const Descriptor there(openPath("/run/netns/" + host), host);
    if (::setns(there.get(), CLONE_NEWNET) == -1) fail("enter " + host);
    const int tunnel = ::open("/dev/net/tun", O_RDWR | O_CLOEXEC | O_NONBLOCK);
    ifreq request{};
    std::strcpy(request.ifr_name, "line0");
    request.ifr_flags = IFF_TUN | IFF_NO_PI;
    const bool made = tunnel != -1 && ::ioctl(tunnel, TUNSETIFF, &request) != -1;
    const int error = errno;
    if (::setns(here.get(), CLONE_NEWNET) == -1) fail("leave " + host);
    errno = error;
    if (!made) fail("tunnel of " + host);
    return tunnel;
}

void makeHosts() {
    for (const char *host : {"wan-gateway", "wan-target"}) {
        ip(std::string("netns add ") + host);
        ip(std::string("-n ") + host + " link set lo up");
    }
    ip("link add wan0 type veth peer name gw0 netns wan-gateway");
}

void configureHosts() {
    ip("addr add 192.0.2.10/24 dev wan0");
    ip("link set wan0 up");
    ip("-n wan-gateway addr add 192.0.2.1/24 dev gw0");
    ip("-n wan-gateway link set gw0 up");
    ip("-n wan-gateway addr add 198.51.100.1/24 dev line0");
    ip("-n wan-gateway link set line0 up");
    ip("netns exec wan-gateway sh -c 'echo 1 >/proc/sys/net/ipv4/ip_forward'");
    ip("-n wan-target addr add 198.51.100.9/24 dev line0");
    ip("-n wan-target link set line0 up");
    ip("-n wan-target route add default dev line0");
}

// Carries packets both ways, each `delay` later than it came.
class Line {
public:
    Line(int one, int other, std::chrono::milliseconds delay) : ends_{one, other}, delay_(delay) {}

    void setDelay(std::chrono::milliseconds delay) { delay_ = delay; }
    void lose(bool all) { lose_ = all; }

    void take(size_t end) {
        Bytes packet(65536);
        ssize_t got;
        while ((got = ::read(ends_[end], packet.data(), packet.size())) > 0) {
            if (lose_) continue;
            onTheWay_.emplace(Clock::now() + delay_,
                              Packet{ends_[1 - end], Bytes(packet.begin(), packet.begin() + got)});
        }
    }

    void deliver() {
        while (!onTheWay_.empty() && onTheWay_.begin()->first <= Clock::now()) {
            const Packet &packet = onTheWay_.begin()->second;
            // A host that cannot take it loses it, as on any line.
            if (::write(packet.to, packet.bytes.data(), packet.bytes.size()) == -1) lost_ += 1;
            onTheWay_.erase(onTheWay_.begin());
        }
    }

    // Until the next packet is due; null when none is on its way.
    const timespec *untilNext(timespec &room) const {
        if (onTheWay_.empty()) return nullptr;
        const auto left = std::chrono::duration_cast<std::chrono::nanoseconds>(onTheWay_.begin()->first - Clock::now());
        const long long ns = left.count() > 0 ? left.count() : 0;
        room.tv_sec = static_cast<time_t>(ns / 1000000000);
        room.tv_nsec = static_cast<long>(ns % 1000000000);
        return &room;
    }

    int end(size_t which) const { return ends_[which]; }

private:
    struct Packet {
        int to;
        Bytes bytes;
    };
    std::array<int, 2> ends_;
    std::chrono::milliseconds delay_;
    bool lose_ = false;
    unsigned long lost_ = 0;
    std::multimap<Clock::time_point, Packet> onTheWay_;
};

bool hasCarrier() {
    const Descriptor socket(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0), "socket");
    ifreq request{};
    std::strcpy(request.ifr_name, "wan0");
    if (::ioctl(socket.get(), SIOCGIFFLAGS, &request) == -1) fail("flags of wan0");
    return (request.ifr_flags & IFF_RUNNING) != 0;
}

// The kernel tells of a change at the other end later, after up to a second.
void waitForCarrier(bool wanted) {
    const auto end = Clock::now() + std::chrono::seconds(10);
    while (hasCarrier() != wanted) {
        if (Clock::now() > end) throw std::runtime_error("wan0 does not notice its cable");
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
}

bool obey(const std::string &order, Line &line) {
    std::istringstream words(order);
    std::string word;
    words >> word;
    if (word == "cut") {
        ip("-n wan-gateway link set gw0 down");
        waitForCarrier(false);
    } else if (word == "restore") {
        ip("-n wan-gateway link set gw0 up");
        waitForCarrier(true);
    } else if (word == "lose" || word == "carry") {
        line.lose(word == "lose");
    } else if (word == "delay") {
        long ms = -1;
        if (!(words >> ms) || ms < 0) return false;
        line.setDelay(std::chrono::milliseconds(ms));
    } else if (word == "route") {
        ip("route replace 198.51.100.0/24 via 192.0.2.1 dev wan0");
    } else if (word == "noroute") {
        ip("route del 198.51.100.0/24");
    } else {
        return false;
    }
    return true;
}

// Lines of standard input as they become whole; false at its end.
bool readOrders(std::string &pending, Line &line) {
    std::array<char, 4096> piece;
    const ssize_t got = ::read(STDIN_FILENO, piece.data(), piece.size());
    if (got == -1 && errno == EINTR) return true;
    if (got <= 0) return false;
    pending.append(piece.data(), static_cast<size_t>(got));
    for (size_t end; (end = pending.find('\n')) != std::string::npos; pending.erase(0, end + 1)) {
        const std::string order = pending.substr(0, end);
        bool done = false;
        try {
            done = obey(order, line);
        } catch (const std::exception &problem) {
            std::fprintf(stderr, "wanlink: %s\n", problem.what());
        }
        std::printf("%s %s\n", done ? "ok" : "cannot", order.c_str());
    }
    return true;
}

void run(std::chrono::milliseconds delay) {
    makeHosts();
    const Descriptor one(lineEnd("wan-gateway"), "line");
    const Descriptor other(lineEnd("wan-target"), "line");
    configureHosts();
    waitForCarrier(true);
    Line line(one.get(), other.get(), delay);
    std::puts("ready");
    std::string pending;
    while (stopped == 0) {
        std::array<pollfd, 3> waiting{{{STDIN_FILENO, POLLIN, 0}, {line.end(0), POLLIN, 0}, {line.end(1), POLLIN, 0}}};
        timespec room{};
        if (::ppoll(waiting.data(), waiting.size(), line.untilNext(room), nullptr) == -1) continue;
        for (const size_t end : {0U, 1U}) {
            if (waiting[end + 1].revents != 0) line.take(end);
        }
        line.deliver();
        if (waiting[0].revents != 0 && !readOrders(pending, line)) return;
    }
}

}  // namespace

int main(int argc, char **argv) {
    std::chrono::milliseconds delay{0};
    for (int next = 1; next < argc; ++next) {
        const std::string_view option = argv[next];
        if (option == "--delay" && next + 1 < argc) {
            delay = std::chrono::milliseconds(std::strtol(argv[++next], nullptr, 10));
        } else {
            std::fputs(help, option == "--help" ? stdout : stderr);
            return option == "--help" ? 0 : 2;
        }
    }
    std::setvbuf(stdout, nullptr, _IOLBF, 0);
    struct sigaction action {};
    action.sa_handler = [](int) { stopped = 1; };
    ::sigaction(SIGTERM, &action, nullptr);
    ::sigaction(SIGINT, &action, nullptr);
    int status = 0;
    removeEverything();  // what a killed one has left
    try {
        run(delay);
    } catch (const std::exception &problem) {
        std::fprintf(stderr, "wanlink: %s\n", problem.what());
        status = 1;
    }
    removeEverything();
    return status;
}
