// SPDX-License-Identifier: MIT
// Reading a configuration file into a reader and asking it, beside a line-by-line reader into a hash map.
#include <benchmark/benchmark.h>
#include <unistd.h>
#include <vxutils/configreader.h>

#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <string>
#include <unordered_map>
#include <vector>

namespace {

using Map = std::unordered_map<std::string, std::string>;

std::string keyOf(long number) { return "network.interface." + std::to_string(number); }

std::string fileOf(long keys) {
    const std::string path = "/tmp/configreader_bench." + std::to_string(keys);
    if (::access(path.c_str(), R_OK) == 0) return path;
    std::ofstream file(path);
    for (long i = 0; i < keys; ++i) file << keyOf(i) << " = value of " << i << '\n';
    file.close();
    if (!file) std::exit(1);
    return path;
}

// What a program would otherwise do with the same lines.
Map readMap(const std::string &path) {
    Map values;
    std::ifstream file(path);
    for (std::string line; std::getline(file, line);) {
        if (line.empty() || line[0] == '#') continue;
        const size_t equals = line.find('=');
        if (equals == std::string::npos) continue;
        const size_t keyEnd = line.find_last_not_of(' ', equals - 1);
        const size_t valueStart = line.find_first_not_of(' ', equals + 1);
        if (keyEnd == std::string::npos || valueStart == std::string::npos) continue;
        values.emplace(line.substr(0, keyEnd + 1), line.substr(valueStart));
    }
    return values;
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

// Keys in no order; of the type that each side takes.
template <typename Text>
std::vector<Text> someKeys(long keys) {
    std::vector<Text> some;
    uint32_t random = 1;
    for (int i = 0; i < 1024; ++i) {
        random = random * 1664525u + 1013904223u;
        some.push_back(Text(keyOf(static_cast<long>(random >> 8) % keys).c_str()));
    }
    return some;
}

void getOurs(benchmark::State &state) {
    ConfigReader reader;
    if (!reader.initialize(fileOf(state.range(0)).c_str(), static_cast<unsigned long>(state.range(0)))) std::abort();
    const auto keys = someKeys<String>(state.range(0));
    const String none;
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
BENCHMARK(getOurs)->Name("Get/ours")->Arg(100)->Arg(1000)->Arg(20000);
BENCHMARK(getMap)->Name("Get/unordered_map")->Arg(100)->Arg(1000)->Arg(20000);

}  // namespace
