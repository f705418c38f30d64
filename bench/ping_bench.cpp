// SPDX-License-Identifier: MIT
// Round-trip times as rawping reports them, beside those of the system's "ping -c1", over the same link: it is the
// reported time that is compared, not how long the calls take. Needs the box.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

namespace {

// A program of the same build as this one.
std::filesystem::path built(const char *program) {
    return std::filesystem::read_symlink("/proc/self/exe").parent_path().parent_path() / program;
}

// The WAN link of the virtual gateway, for as long as the benchmarks run; its line takes 5 ms each way.
class Link {
public:
    Link() {
        orders_ = popen((built("gateway/wanlink").string() + " --delay 5 >/tmp/wanlink.out").c_str(), "we");
        const std::string waitReady = "until grep -q ready /tmp/wanlink.out; do sleep 0.01; done";
        made_ = orders_ != nullptr && std::system(waitReady.c_str()) == 0 &&
                std::system("ip route add 198.51.100.0/24 via 192.0.2.1") == 0;
    }
    ~Link() {
        if (orders_ != nullptr) pclose(orders_);
    }
    Link(const Link &) = delete;
    Link &operator=(const Link &) = delete;
    bool made() const { return made_; }

private:
    FILE *orders_;
    bool made_ = false;
};

bool haveLink() {
    static const Link link;
    return link.made();
}

// Runs a program and reads the milliseconds after `before` from its output. Returns seconds, or a negative number if there are none.
double timeOf(const std::string &command, const std::string &before) {
    std::this_thread::sleep_for(std::chrono::milliseconds(30));
    FILE *pipe = popen(command.c_str(), "re");
    if (pipe == nullptr) return -1;
    std::array<char, 256> line;
    double ms = -1000;
    while (std::fgets(line.data(), line.size(), pipe) != nullptr) {
        const std::string text = line.data();
        if (const size_t at = text.find(before); at != std::string::npos)
            ms = std::atof(text.c_str() + at + before.size());
    }
    pclose(pipe);
    return ms / 1000;
}

double median(std::vector<double> times) {
    const auto middle = times.begin() + static_cast<std::ptrdiff_t>(times.size() / 2);
    std::nth_element(times.begin(), middle, times.end());
    return *middle;
}

// Two programs, each started for one echo after the same rest, in turns, so that neither is warmer than the other or
// meets another hour of the machine.  The medians of each round are handed out to the benchmarks of both.
class SideBySide {
public:
    SideBySide(const char *target, const char *gateway)
        : ours_(built("examples/ping_wan").string() + " wan0 " + target + " " + gateway),
          ping_(std::string("ping -c1 -s 20 -I wan0 ") + target) {}

    double ours() { return next(oursLeft_); }
    double ping() { return next(pingLeft_); }

private:
    static constexpr int turns = 25;

    double next(std::deque<double> &left) {
        if (left.empty()) playRound();
        const double time = left.front();
        left.pop_front();
        return time;
    }
    void playRound() {
        std::vector<double> ours;
        std::vector<double> ping;
        for (int turn = 0; turn < turns; ++turn) {
            ours.push_back(timeOf(ours_, " in "));
            ping.push_back(timeOf(ping_, "time="));
        }
        oursLeft_.push_back(median(ours));
        pingLeft_.push_back(median(ping));
    }

    std::string ours_;
    std::string ping_;
    std::deque<double> oursLeft_;
    std::deque<double> pingLeft_;
};

SideBySide oneHop("192.0.2.1", "");
SideBySide behindGateway("198.51.100.9", "192.0.2.1");

template <typename Ask>
void measure(benchmark::State &state, Ask ask) {
    if (!haveLink()) state.SkipWithError("no WAN link: this benchmark runs in the box");
    for (auto _ : state) {
        const double seconds = ask();
        if (seconds < 0) {
            state.SkipWithError("no reply");
            break;
        }
        state.SetIterationTime(seconds);
    }
}

void OneHop_ours(benchmark::State &state) {
    measure(state, [] { return oneHop.ours(); });
}
void OneHop_ping(benchmark::State &state) {
    measure(state, [] { return oneHop.ping(); });
}
void BehindGateway_ours(benchmark::State &state) {
    measure(state, [] { return behindGateway.ours(); });
}
void BehindGateway_ping(benchmark::State &state) {
    measure(state, [] { return behindGateway.ping(); });
}

BENCHMARK(OneHop_ours)->Name("RoundTripOneHop/ours")->UseManualTime()->Iterations(1)->Unit(benchmark::kMicrosecond);
BENCHMARK(OneHop_ping)->Name("RoundTripOneHop/ping")->UseManualTime()->Iterations(1)->Unit(benchmark::kMicrosecond);
BENCHMARK(BehindGateway_ours)
    ->Name("RoundTripBehindGateway/ours")
    ->UseManualTime()
    ->Iterations(1)
    ->Unit(benchmark::kMicrosecond);
BENCHMARK(BehindGateway_ping)
    ->Name("RoundTripBehindGateway/ping")
    ->UseManualTime()
    ->Iterations(1)
    ->Unit(benchmark::kMicrosecond);

}  // namespace
