// SPDX-License-Identifier: MIT
#include <arpa/inet.h>
#include <benchmark/benchmark.h>
#include <netinet/in.h>
#include <vxutils/address.h>

#include <array>
#include <cstring>

namespace {

constexpr std::array texts{"10.0.0.1",     "192.168.1.77", "255.255.255.0", "8.8.8.8",
                           "172.16.254.3", "127.0.0.1",    "0.0.0.0"};

void parseOurs(benchmark::State &state) {
    sockaddr_in record{};
    for (auto _ : state) {
        for (const char *text : texts) {
            benchmark::DoNotOptimize(str2addr(text, reinterpret_cast<sockaddr *>(&record)));
            benchmark::DoNotOptimize(record);
        }
    }
}

void parseSystem(benchmark::State &state) {
    sockaddr_in record{};
    for (auto _ : state) {
        for (const char *text : texts) {
            record.sin_family = AF_INET;
            benchmark::DoNotOptimize(inet_pton(AF_INET, text, &record.sin_addr));
            benchmark::DoNotOptimize(record);
        }
    }
}

std::array<sockaddr_in, texts.size()> records() {
    std::array<sockaddr_in, texts.size()> filled{};
    for (size_t i = 0; i < texts.size(); ++i) str2addr(texts[i], reinterpret_cast<sockaddr *>(&filled[i]));
    return filled;
}

void printOurs(benchmark::State &state) {
    const auto filled = records();
    char text[INET_ADDRSTRLEN];
    for (auto _ : state) {
        for (const sockaddr_in &record : filled) {
            benchmark::DoNotOptimize(addr2str(text, reinterpret_cast<const sockaddr *>(&record)));
            benchmark::DoNotOptimize(text);
        }
    }
}

void printSystem(benchmark::State &state) {
    const auto filled = records();
    char text[INET_ADDRSTRLEN];
    for (auto _ : state) {
        for (const sockaddr_in &record : filled) {
            benchmark::DoNotOptimize(inet_ntop(AF_INET, &record.sin_addr, text, sizeof text));
            benchmark::DoNotOptimize(text);
        }
    }
}

BENCHMARK(parseOurs)->Name("Str2Addr/ours");
BENCHMARK(parseSystem)->Name("Str2Addr/inet_pton");
BENCHMARK(printOurs)->Name("Addr2Str/ours");
BENCHMARK(printSystem)->Name("Addr2Str/inet_ntop");

}  // namespace
