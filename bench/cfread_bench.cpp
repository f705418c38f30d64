// SPDX-License-Identifier: MIT
// Reading a configuration file and finding its keys, beside a line-by-line reader into a hash map.
#include <benchmark/benchmark.h>
#include <unistd.h>
#include <vxutils/cfread.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>
#include <unordered_map>
#include <vector>

namespace {

using Map = std::unordered_map<std::string, std::string>;

std::string keyOf(long number) { return "network.interface." + std::to_string(number); }

// A file of `keys` entries, made once; removed with the box.
std::string fileOf(long keys) {
    const std::string path = "/tmp/cfread_bench." + std::to_string(keys);
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
        values.insert_or_assign(line.substr(0, keyEnd + 1), line.substr(valueStart));
    }
    return values;
}

void openOurs(benchmark::State &state) {
    const std::string path = fileOf(state.range(0));
    for (auto _ : state) {
        cfread_table *table = cfread_open(path.c_str());
        if (table->count != state.range(0)) std::abort();
        cfread_close(table);
    }
    state.counters["ns_per_key"] =
        benchmark::Counter(static_cast<double>(state.range(0)) * 1e-9,
                           benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
}

void openMap(benchmark::State &state) {
    const std::string path = fileOf(state.range(0));
    for (auto _ : state) {
        const Map values = readMap(path);
        if (values.size() != static_cast<size_t>(state.range(0))) std::abort();
    }
}

std::vector<std::string> someKeys(long keys) {
    std::vector<std::string> some;
    uint32_t random = 1;
    for (int i = 0; i < 1024; ++i) {
        random = random * 1664525u + 1013904223u;
        some.push_back(keyOf(static_cast<long>(random >> 8) % keys));
    }
    return some;
}

void findOurs(benchmark::State &state) {
    cfread_table *table = cfread_open(fileOf(state.range(0)).c_str());
    const auto keys = someKeys(state.range(0));
    size_t i = 0;
    for (auto _ : state) {
        const cfread_entry *entry = cfread_find_entry(table, keys[i++ & 1023].c_str());
        benchmark::DoNotOptimize(entry->value);
    }
    cfread_close(table);
}

void findMap(benchmark::State &state) {
    const Map values = readMap(fileOf(state.range(0)));
    const auto keys = someKeys(state.range(0));
    size_t i = 0;
    for (auto _ : state) {
        const auto found = values.find(keys[i++ & 1023].c_str());
        benchmark::DoNotOptimize(found->second.c_str());
    }
}

void setOurs(benchmark::State &state) {
    std::vector<std::string> keys;
    for (long i = 0; i < state.range(0); ++i) keys.push_back(keyOf(i));
    for (auto _ : state) {
        auto *table = static_cast<cfread_table *>(std::calloc(1, sizeof(cfread_table)));
        for (const std::string &key : keys) benchmark::DoNotOptimize(cfread_set_entry(table, key.c_str(), "value"));
        cfread_close(table);
    }
}

void setMap(benchmark::State &state) {
    std::vector<std::string> keys;
    for (long i = 0; i < state.range(0); ++i) keys.push_back(keyOf(i));
    for (auto _ : state) {
        Map values;
        for (const std::string &key : keys) values.insert_or_assign(key.c_str(), "value");
        benchmark::DoNotOptimize(values);
    }
}

BENCHMARK(openOurs)->Name("Open/ours")->Arg(100)->Arg(1000)->Arg(20000);
BENCHMARK(openMap)->Name("Open/getline_unordered_map")->Arg(100)->Arg(1000)->Arg(20000);
BENCHMARK(findOurs)->Name("Find/ours")->Arg(100)->Arg(1000)->Arg(20000);
BENCHMARK(findMap)->Name("Find/unordered_map")->Arg(100)->Arg(1000)->Arg(20000);
BENCHMARK(setOurs)->Name("Set/ours")->Arg(100)->Arg(10000);
BENCHMARK(setMap)->Name("Set/unordered_map")->Arg(100)->Arg(10000);

}  // namespace
