// SPDX-License-Identifier: MIT
// vx ping: echoes on a named interface, at IP level or through a gateway at link level.
#include <arpa/inet.h>
#include <net/if.h>
#include <netdb.h>
#include <sys/socket.h>
#include <unistd.h>
#include <vxutils/address.h>
#include <vxutils/ipinterfacestatus.h>
#include <vxutils/ping.h>
#include <vxutils/route.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <memory>

#include "commands/commands.h"
#include "core/failure.h"
#include "core/fd.h"
#include "core/follow.h"
#include "core/owned.h"

namespace tool {

namespace {

constexpr int64_t smallestSize = 48;
constexpr int64_t largestSize = 1450;
constexpr int64_t shortestTime = 500;  // milliseconds
constexpr int64_t longestTime = 10000;
constexpr int64_t defaultTime = 1000;
constexpr milliseconds defaultInterval{1000};

struct Probe {
    std::string interface;
    std::string target;
    const char *gateway;
    const char *source;
    std::string netmask;  // empty without a source
    unsigned int timeout;
    int size;
    std::optional<uint32_t> mark;
};

struct Answer {
    bool came;
    double milliseconds;
};

Answer send(const Probe &probe) {
    timespec time{};
    const char *netmask = probe.source != nullptr ? probe.netmask.c_str() : nullptr;
    const uint32_t *mark = probe.mark ? &*probe.mark : nullptr;
    const int result = __rawping(probe.interface.c_str(), probe.target.c_str(), probe.gateway, probe.source, netmask,
                                 probe.timeout, probe.size, &time, mark);
    return {result == 0, static_cast<double>(time.tv_sec) * 1e3 + static_cast<double>(time.tv_nsec) / 1e6};
}

const char *checkedAddress(const char *option, const char *text) {
    sockaddr_in address{};
    if (text != nullptr && str2addr4(text, reinterpret_cast<sockaddr *>(&address)) != 0) {
        throw Usage{std::string("--") + option + ": '" + text + "' is not an IPv4 address"};
    }
    return text;
}

using Addresses = Owned<addrinfo, &::freeaddrinfo>;

Addresses resolve(const std::string &target) {
    addrinfo wanted{};
    wanted.ai_family = AF_INET;
    addrinfo *found = nullptr;
    const int error = ::getaddrinfo(target.c_str(), nullptr, &wanted, &found);
    if (error != 0) throw Failure(named(target), ::gai_strerror(error));
    return Addresses(found);
}

std::string interfaceFor(const Arguments &arguments, const std::string &target) {
    const Addresses address = resolve(target);
    if (const char *given = arguments.text("interface")) {
        if (::if_nametoindex(given) == 0) throw systemFailure(given);
        return given;
    }
    std::array<char, IF_NAMESIZE> name{};
    if (route_get_interface(address.get(), name.data()) != 0) throw systemFailure(target);
    return name.data();
}

Probe probeFrom(const Arguments &arguments) {
    Probe probe{};
    probe.target = arguments[0];
    probe.gateway = checkedAddress("gateway", arguments.text("gateway"));
    probe.source = checkedAddress("source", arguments.text("source"));
    probe.timeout = static_cast<unsigned int>(arguments.number("timeout", defaultTime, shortestTime, longestTime));
    probe.size = static_cast<int>(arguments.number("size", smallestSize, smallestSize, largestSize));
    if (arguments.has("mark")) {
        if (probe.gateway == nullptr) throw Usage{"--mark needs --gateway: only frames at link level are marked"};
        probe.mark = static_cast<uint32_t>(arguments.number("mark", 0, 0, UINT32_MAX));
    }
    return probe;
}

// What has to be looked up.
void complete(Probe &probe, const Arguments &arguments) {
    probe.interface = interfaceFor(arguments, probe.target);
    if (probe.source == nullptr) return;
    const in_addr mask{htonl(IpInterfaceStatus().getIpV4Mask(probe.interface.c_str()))};
    std::array<char, INET_ADDRSTRLEN> text{};
    ::inet_ntop(AF_INET, &mask, text.data(), text.size());
    probe.netmask = text.data();
}

void checkRights() {
    if (!Fd(::socket(AF_INET, SOCK_RAW | SOCK_CLOEXEC, IPPROTO_ICMP)).valid()) {
        throw Failure("raw socket", std::string(std::strerror(errno)) + "; needs root or the capability CAP_NET_RAW");
    }
}

// Nothing without a reply; otherwise to the nanosecond, which is what the library measures.
Value time(bool known, double milliseconds) {
    return known ? Value(Real{std::round(milliseconds * 1e6) / 1e6, 3}) : Value();
}

struct Statistics {
    int64_t sent = 0;
    int64_t received = 0;
    double least = 0;
    double most = 0;
    double sum = 0;
    double squares = 0;

    void add(const Answer &answer) {
        ++sent;
        if (!answer.came) return;
        ++received;
        least = received == 1 ? answer.milliseconds : std::min(least, answer.milliseconds);
        most = std::max(most, answer.milliseconds);
        sum += answer.milliseconds;
        squares += answer.milliseconds * answer.milliseconds;
    }
    Record record(const Probe &probe) const {
        const auto replies = static_cast<double>(std::max<int64_t>(received, 1));
        const double average = sum / replies;
        const double deviation = std::sqrt(std::max(squares / replies - average * average, 0.0));
        const double lost =
            100 * static_cast<double>(sent - received) / static_cast<double>(std::max<int64_t>(sent, 1));
        return {{"target", probe.target},
                {"sent", sent},
                {"received", received},
                {"loss_percent", Real{std::round(lost * 1e3) / 1e3, 1}},
                {"min_ms", time(received > 0, least)},
                {"avg_ms", time(received > 0, average)},
                {"max_ms", time(received > 0, most)},
                {"mdev_ms", time(received > 0, deviation)}};
    }
};

Record recordOf(const Probe &probe, int64_t number, const Answer &answer) {
    return {{"target", probe.target},
            {"seq", number},
            {"reply", answer.came},
            {"time_ms", time(answer.came, answer.milliseconds)}};
}

int ping(const Arguments &arguments, Output &out) {
    const milliseconds interval = arguments.seconds("wait").value_or(defaultInterval);
    Probe probe = probeFrom(arguments);
    Follow follow(arguments, out);
    checkRights();
    Statistics statistics;
    Answer answer{};
    // Neither the look-up of a name nor the library's wait can be ended; Ctrl-C ends the process instead, with the
    // statistics so far.
    const bool known = follow.finishes([&] { complete(probe, arguments); });
    for (int64_t number = 1; known && !follow.over(); ++number) {
        const auto next = Follow::Clock::now() + interval;
        if (!follow.finishes([&] { answer = send(probe); })) break;
        statistics.add(answer);
        if (!follow.print(recordOf(probe, number, answer), Plain::row)) break;
        follow.wait(-1, std::chrono::ceil<milliseconds>(
                            std::max(next - Follow::Clock::now(), Follow::Clock::duration::zero())));
    }
    follow.printLast(statistics.record(probe), Plain::row);
    // A probe under way is given up with the process.
    ::_exit(statistics.received > 0 ? statusDone : statusFailed);
}

constexpr Option options[] = {
    {'I', "interface", "IF", "interface to send and receive on; otherwise the one that the route names",
     interfaceWords},
    {'g', "gateway", "GATEWAY", "host to go through, at link level"},
    {'S', "source", "SOURCE", "source address"},
    {'m', "mark", "MARK", "firewall mark of frames at link level"},
    {'s', "size", "SIZE", "bytes of the packet or frame, 48 to 1450 (48)"},
    {'t', "timeout", "MS", "milliseconds to wait for each reply, 500 to 10000 (1000)"},
    {'c', "count", "N", "end after N echoes"},
    {'i', "wait", "S", "seconds from one echo to the next (1)"},
    {0, "for", "SECONDS", "end after this time"},
};
constexpr Argument target[] = {{"TARGET", Count::one}};
constexpr Verb verbs[] = {{"", "send echoes to a host until Ctrl-C, then print statistics", options, target, ping}};

}  // namespace

const Command pingCommand{"ping", "echo requests on a chosen interface, through a chosen gateway", {}, verbs};

}  // namespace tool
