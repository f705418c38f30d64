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
    "usage: wanlink [--delay MS] [--lan]\n"
    "A WAN link: interface wan0 (192.0.2.10/24) here, a gateway host (192.0.2.1) at its other end, and behind that,\n"
    "at the far end of a line, a target (198.51.100.9). No route to the target is set here. Needs root and \"ip\".\n"
    "The hosts are the network namespaces wan-gateway and wan-target (ip netns exec wan-target ...).\n"
    "\n"
    "  --delay MS       time that the line takes, each way (default 0)\n"
    "  --lan            a LAN as well: interface eth0 (192.168.1.1/24) here, a host (192.168.1.100) on it, the "
    "network\n"
    "                   namespace lan-host; and the default route through the gateway host\n"
    "\n"
    "It prints \"ready\". Lines on standard input steer it; each is confirmed with \"ok\" and the line:\n"
    "  cut              pull the cable: wan0 loses its carrier\n"
    "  restore          plug it in again\n"
    "  lose             the line loses every packet: the gateway answers, the target does not\n"
    "  carry            the line carries packets again\n"
    "  loss PERCENT     the line loses this share of the packets, spread evenly: with 50 every other one\n"
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

// Several commands by one process, in the network namespace of a host or here.
void ipBatch(const std::string &host, const std::string &commands) {
    FILE *const batch = ::popen(("ip " + (host.empty() ? "" : "-n " + host) + " -batch -").c_str(), "w");
    if (batch == nullptr) fail("ip");
    std::fputs(commands.c_str(), batch);
    if (::pclose(batch) != 0) throw std::runtime_error("failed: ip " + host + "\n" + commands);
}

void removeEverything() {
    for (const char *name : {"wan0", "eth0"}) {
        if (::if_nametoindex(name) != 0) ip(std::string("link del ") + name);
    }
    for (const char *host : {"wan-gateway", "wan-target", "lan-host"}) {
        if (::access((std::string("/run/netns/") + host).c_str(), F_OK) == 0) ip(std::string("netns del ") + host);
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

// While it lives, this process is in the network namespace of a host.
class InHost {
public:
    explicit InHost(const std::string &host) : here_(openPath("/proc/self/ns/net"), "own namespace") {
        const Descriptor there(openPath("/run/netns/" + host), host);
        if (::setns(there.get(), CLONE_NEWNET) == -1) fail("enter " + host);
    }
    ~InHost() {
        if (::setns(here_.get(), CLONE_NEWNET) == -1) std::abort();
    }
    InHost(const InHost &) = delete;
    InHost &operator=(const InHost &) = delete;

private:
    Descriptor here_;
};

// One end of the line: a tunnel interface in another namespace. Its descriptor works from here.
int lineEnd(const std::string &host) {
    const InHost inside(host);
    const int tunnel = ::open("/dev/net/tun", O_RDWR | O_CLOEXEC | O_NONBLOCK);
    ifreq request{};
    std::strcpy(request.ifr_name, "line0");
    request.ifr_flags = IFF_TUN | IFF_NO_PI;
    if (tunnel == -1 || ::ioctl(tunnel, TUNSETIFF, &request) == -1) fail("tunnel of " + host);
    return tunnel;
}

void forwardPackets(const std::string &host) {
    const InHost inside(host);
    const Descriptor setting(::open("/proc/sys/net/ipv4/ip_forward", O_WRONLY | O_CLOEXEC), "forwarding");
    if (::write(setting.get(), "1", 1) != 1) fail("forwarding");
}

// The kernel shows changes of a carrier at once only where the interface's number differs from that of its other end; else
// up to a second later.
void makeHosts() {
    ipBatch("",
            "netns add wan-gateway\n"
            "netns add wan-target\n"
            "link add wan0 index 77 type veth peer name gw0 netns wan-gateway\n"
            "addr add 192.0.2.10/24 dev wan0\n");
}

void configureHosts() {
    ipBatch("wan-gateway",
            "link set lo up\n"
            "addr add 192.0.2.1/24 dev gw0\n"
            "link set gw0 up\n"
            "addr add 198.51.100.1/24 dev line0\n"
            "link set line0 up\n");
    forwardPackets("wan-gateway");
    ipBatch("wan-target",
            "link set lo up\n"
            "addr add 198.51.100.9/24 dev line0\n"
            "link set line0 up\n"
            "route add default dev line0\n");
    ip("link set wan0 up");
}

// Carries packets both ways, each `delay` later than it came.
class Line {
public:
    Line(int one, int other, std::chrono::milliseconds delay) : ends_{one, other}, delay_(delay) {}

    void setDelay(std::chrono::milliseconds delay) { delay_ = delay; }
    void lose(unsigned int percent) { lossPercent_ = percent; }

    void take(size_t end) {
        Bytes packet(65536);
        ssize_t got;
        while ((got = ::read(ends_[end], packet.data(), packet.size())) > 0) {
            lossSum_ += lossPercent_;
            if (lossSum_ >= 100) {
                lossSum_ -= 100;
                continue;
            }
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
    unsigned int lossPercent_ = 0;
    unsigned int lossSum_ = 0;
    unsigned long lost_ = 0;
    std::multimap<Clock::time_point, Packet> onTheWay_;
};

bool hasCarrier(const char *interface) {
    const Descriptor socket(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0), "socket");
    ifreq request{};
    std::strcpy(request.ifr_name, interface);
    if (::ioctl(socket.get(), SIOCGIFFLAGS, &request) == -1) fail(std::string("flags of ") + interface);
    return (request.ifr_flags & IFF_RUNNING) != 0;
}

// The kernel tells of a change at the other end later, after up to a second.
void waitForCarrier(const char *interface, bool wanted) {
    const auto end = Clock::now() + std::chrono::seconds(10);
    while (hasCarrier(interface) != wanted) {
        if (Clock::now() > end) throw std::runtime_error(std::string(interface) + " does not notice its cable");
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
}

// Until both ends have noticed, packets of the one that has not are thrown away.
void waitForLink() {
    waitForCarrier("wan0", true);
    const InHost inside("wan-gateway");
    waitForCarrier("gw0", true);
}

bool obey(const std::string &order, Line &line) {
    std::istringstream words(order);
    std::string word;
    words >> word;
    if (word == "cut") {
        ip("-n wan-gateway link set gw0 down");
        waitForCarrier("wan0", false);
    } else if (word == "restore") {
        ip("-n wan-gateway link set gw0 up");
        waitForLink();
        ip("neigh flush dev wan0 nud all");  // failed look-ups are repeated at once, not after a time-out
    } else if (word == "lose" || word == "carry") {
        line.lose(word == "lose" ? 100 : 0);
    } else if (word == "loss") {
        unsigned int percent = 101;
        if (!(words >> percent) || percent > 100) return false;
        line.lose(percent);
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

void makeLan() {
    ipBatch("",
            "netns add lan-host\n"
            "link add eth0 index 78 type veth peer name eth0 netns lan-host\n"
            "addr add 192.168.1.1/24 dev eth0\n"
            "link set eth0 up\n"
            "route add default via 192.0.2.1 dev wan0\n");
    ipBatch("lan-host",
            "link set lo up\n"
            "addr add 192.168.1.100/24 dev eth0\n"
            "link set eth0 up\n"
            "route add default via 192.168.1.1\n");
}

void run(std::chrono::milliseconds delay, bool lan) {
    makeHosts();
    const Descriptor one(lineEnd("wan-gateway"), "line");
    const Descriptor other(lineEnd("wan-target"), "line");
    configureHosts();
    waitForLink();
    if (lan) makeLan();
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

// Whether a step came to its end; says why not.
template <typename Step>
bool succeeds(Step step) {
    try {
        step();
        return true;
    } catch (const std::exception &problem) {
        std::fprintf(stderr, "wanlink: %s\n", problem.what());
        return false;
    }
}

}  // namespace

int main(int argc, char **argv) {
    std::chrono::milliseconds delay{0};
    bool lan = false;
    for (int next = 1; next < argc; ++next) {
        const std::string_view option = argv[next];
        if (option == "--delay" && next + 1 < argc) {
            delay = std::chrono::milliseconds(std::strtol(argv[++next], nullptr, 10));
        } else if (option == "--lan") {
            lan = true;
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
    const bool ran = succeeds([&] {
        removeEverything();  // what a killed one has left
        run(delay, lan);
    });
    const bool removed = succeeds(removeEverything);
    return ran && removed ? 0 : 1;
}
