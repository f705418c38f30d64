// SPDX-License-Identifier: MIT
// Round-trip times as rawping reports them, beside those of the system's "ping -c1", over the same link: it is the
// reported time that is compared, not how long the calls take. Needs the box.
#include <benchmark/benchmark.h>

#include <array>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <thread>

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

// Runs a program and reads the milliseconds behind `before` out of what it prints.  Seconds, negative without any.
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

// Both are programs started for one echo, each after the same rest, so that neither is warmer than the other.
double askOurs(const std::string &target, const std::string &gateway) {
    return timeOf(built("examples/ping_wan").string() + " wan0 " + target + " " + gateway, " in ");
}

double askPing(const std::string &target) { return timeOf("ping -c1 -s 20 -I wan0 " + target, "time="); }

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
    measure(state, [] { return askOurs("192.0.2.1", ""); });
}
void OneHop_ping(benchmark::State &state) {
    measure(state, [] { return askPing("192.0.2.1"); });
}
void BehindGateway_ours(benchmark::State &state) {
    measure(state, [] { return askOurs("198.51.100.9", "192.0.2.1"); });
}
void BehindGateway_ping(benchmark::State &state) {
    measure(state, [] { return askPing("198.51.100.9"); });
}

BENCHMARK(OneHop_ours)->Name("RoundTripOneHop/ours")->UseManualTime()->Iterations(20)->Unit(benchmark::kMicrosecond);
BENCHMARK(OneHop_ping)->Name("RoundTripOneHop/ping")->UseManualTime()->Iterations(20)->Unit(benchmark::kMicrosecond);
BENCHMARK(BehindGateway_ours)
    ->Name("RoundTripBehindGateway/ours")
    ->UseManualTime()
    ->Iterations(5)
    ->Unit(benchmark::kMicrosecond);
BENCHMARK(BehindGateway_ping)
    ->Name("RoundTripBehindGateway/ping")
    ->UseManualTime()
    ->Iterations(5)
    ->Unit(benchmark::kMicrosecond);

}  // namespace
