// SPDX-License-Identifier: MIT
// Reading a configuration file into a reader and asking it, beside a line-by-line reader into a hash map.
#include <benchmark/benchmark.h>
#include <vxutils/configreader.h>

#include <cstdlib>
#include <string>
#include <utility>

#include "bench/configfile.h"

namespace {

using vxbench::fileOf;
using vxbench::Map;
using vxbench::someKeys;

// The first of equal keys wins.
Map readMap(const std::string &path) {
    return vxbench::readMap(path, [](Map &values, std::string key, std::string value) {
        values.emplace(std::move(key), std::move(value));
    });
}

void openOurs(benchmark::State &state) {
    const String path(fileOf(state.range(0)).c_str());
    for (auto _ : state) {
        ConfigReader reader;
        if (!reader.initialize(path, static_cast<unsigned long>(state.range(0)))) std::abort();
        benchmark::DoNotOptimize(reader);
    }
}

void openMap(benchmark::State &state) {
    const std::string path = fileOf(state.range(0));
    for (auto _ : state) {
        const Map values = readMap(path);
        if (values.size() != static_cast<size_t>(state.range(0))) std::abort();
    }
}

// A value's text is made when it is asked for first, once for each thread: `FirstGet` has the first time, `Get` all later ones.
template <bool asked>
void getOurs(benchmark::State &state) {
    ConfigReader reader;
    if (!reader.initialize(fileOf(state.range(0)).c_str(), static_cast<unsigned long>(state.range(0)))) std::abort();
    const auto keys = someKeys<String>(state.range(0));
    const String none;
    for (const String &key : keys) {
        if (asked) benchmark::DoNotOptimize(reader.getValue(key, none));
    }
    size_t i = 0;
    for (auto _ : state) benchmark::DoNotOptimize(reader.getValue(keys[i++ & 1023], none).c_str());
}

void getMap(benchmark::State &state) {
    const Map values = readMap(fileOf(state.range(0)));
    const auto keys = someKeys<std::string>(state.range(0));
    size_t i = 0;
    for (auto _ : state) benchmark::DoNotOptimize(values.find(keys[i++ & 1023])->second.c_str());
}

BENCHMARK(openOurs)->Name("Open/ours")->Arg(100)->Arg(1000)->Arg(20000);
BENCHMARK(openMap)->Name("Open/getline_unordered_map")->Arg(100)->Arg(1000)->Arg(20000);
BENCHMARK(getOurs<true>)->Name("Get/ours")->Arg(100)->Arg(1000)->Arg(20000);
BENCHMARK(getOurs<false>)->Name("FirstGet/ours")->Arg(20000)->Iterations(512);
BENCHMARK(getMap)->Name("FirstGet/unordered_map")->Arg(20000)->Iterations(512);
BENCHMARK(getMap)->Name("Get/unordered_map")->Arg(100)->Arg(1000)->Arg(20000);

}  // namespace
