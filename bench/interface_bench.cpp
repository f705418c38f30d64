// SPDX-License-Identifier: MIT
// Display names, beside what the formatter of the C library alone takes to put such a name together.
#include <benchmark/benchmark.h>
#include <vxutils/interface.h>

#include <cctype>
#include <cstdio>

namespace {

void Interfaceize_ours(benchmark::State &state) {
    const char *const names[] = {"eth0", "ppp10", "gretun0", "br0-1", "lo", "wwan0"};
    size_t next = 0;
    for (auto _ : state) {
        const char *name = names[next++ % 6];
        benchmark::DoNotOptimize(name);
        benchmark::DoNotOptimize(interfaceize(name));
        benchmark::ClobberMemory();
    }
}

void Interfaceize_snprintf(benchmark::State &state) {
    const char *const prefixes[] = {"ETH", "SERIAL", "GRE", "BR", "LO", "WWAN"};
    char shown[16];
    size_t next = 0;
    for (auto _ : state) {
        const char *prefix = prefixes[next++ % 6];
        benchmark::DoNotOptimize(prefix);
        std::snprintf(shown, sizeof shown, "%s%d", prefix, static_cast<int>(next % 10));
        benchmark::DoNotOptimize(shown);
        benchmark::ClobberMemory();
    }
}

BENCHMARK(Interfaceize_ours)->Name("Interfaceize/ours");
BENCHMARK(Interfaceize_snprintf)->Name("Interfaceize/snprintf");

}  // namespace
