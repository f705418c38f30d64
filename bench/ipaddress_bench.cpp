// SPDX-License-Identifier: MIT
// IpAddress beside the C library's inet_pton and inet_ntop.
#include <arpa/inet.h>
#include <benchmark/benchmark.h>
#include <vxutils/ipaddress.h>

namespace {

const char *const kTexts[] = {"192.168.100.200", "10.0.0.1", "127.0.0.1", "172.16.254.3"};

void parse(benchmark::State &state) {
    const String texts[] = {kTexts[0], kTexts[1], kTexts[2], kTexts[3]};
    IpAddress ip;
    size_t i = 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(ip.setIpAddrAsString(texts[i++ % 4]));
        benchmark::DoNotOptimize(ip);
    }
}
BENCHMARK(parse)->Name("Parse/ours");

void parseInetPton(benchmark::State &state) {
    in_addr address{};
    size_t i = 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(inet_pton(AF_INET, kTexts[i++ % 4], &address));
        benchmark::DoNotOptimize(address);
    }
}
BENCHMARK(parseInetPton)->Name("Parse/inet_pton");

void print(benchmark::State &state) {
    const IpAddress addresses[] = {IpAddress(kTexts[0]), IpAddress(kTexts[1]), IpAddress(kTexts[2]),
                                   IpAddress(kTexts[3])};
    String text;
    size_t i = 0;
    for (auto _ : state) {
        addresses[i++ % 4].getIpAddrAsString(text);
        benchmark::DoNotOptimize(text);
    }
}
BENCHMARK(print)->Name("Print/ours");

void printInetNtop(benchmark::State &state) {
    in_addr addresses[4];
    for (size_t i = 0; i < 4; ++i) inet_pton(AF_INET, kTexts[i], &addresses[i]);
    char text[INET_ADDRSTRLEN];
    size_t i = 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(inet_ntop(AF_INET, &addresses[i++ % 4], text, sizeof text));
        benchmark::DoNotOptimize(text);
    }
}
BENCHMARK(printInetNtop)->Name("Print/inet_ntop");

}  // namespace
