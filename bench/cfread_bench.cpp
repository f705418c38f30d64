// SPDX-License-Identifier: MIT
// Reading a configuration file and finding its keys, beside a line-by-line reader into a hash map.
#include <benchmark/benchmark.h>
#include <vxutils/cfread.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

#include "bench/configfile.h"

namespace {

using vxbench::fileOf;
using vxbench::keyOf;
using vxbench::Map;
using vxbench::someKeys;

// The last of equal keys wins.
Map readMap(const std::string &path) {
    return vxbench::readMap(path, [](Map &values, std::string key, std::string value) {
        values.insert_or_assign(std::move(key), std::move(value));
    });
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

void findOurs(benchmark::State &state) {
    cfread_table *table = cfread_open(fileOf(state.range(0)).c_str());
    const auto keys = someKeys<std::string>(state.range(0));
    size_t i = 0;
    for (auto _ : state) {
        const cfread_entry *entry = cfread_find_entry(table, keys[i++ & 1023].c_str());
        benchmark::DoNotOptimize(entry->value);
    }
    cfread_close(table);
}

void findMap(benchmark::State &state) {
    const Map values = readMap(fileOf(state.range(0)));
    const auto keys = someKeys<std::string>(state.range(0));
    size_t i = 0;
    for (auto _ : state) {
        const char *const key = keys[i++ & 1023].c_str();
        const auto found = values.find(key);
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

// Entries as programs know them: entry, key and value are blocks of their own.
struct Entry {
    int index;
    char *key;
    char *value;
    long number;
};

void setCopies(benchmark::State &state) {
    std::vector<std::string> keys;
    for (long i = 0; i < state.range(0); ++i) keys.push_back(keyOf(i));
    for (auto _ : state) {
        std::unordered_map<std::string_view, Entry *> values;
        for (const std::string &key : keys) {
            auto *entry = static_cast<Entry *>(std::calloc(1, sizeof(Entry)));
            entry->key = ::strdup(key.c_str());
            entry->value = ::strdup("value");
            values.insert_or_assign(entry->key, entry);
        }
        for (const auto &[key, entry] : values) {
            std::free(entry->key);
            std::free(entry->value);
            std::free(entry);
        }
    }
}

BENCHMARK(openOurs)->Name("Open/ours")->Arg(100)->Arg(1000)->Arg(20000);
BENCHMARK(openMap)->Name("Open/getline_unordered_map")->Arg(100)->Arg(1000)->Arg(20000);
BENCHMARK(findOurs)->Name("Find/ours")->Arg(100)->Arg(1000)->Arg(20000);
BENCHMARK(findMap)->Name("Find/unordered_map")->Arg(100)->Arg(1000)->Arg(20000);
BENCHMARK(setOurs)->Name("Set/ours")->Arg(100)->Arg(10000);
BENCHMARK(setMap)->Name("Set/unordered_map")->Arg(100)->Arg(10000);
BENCHMARK(setCopies)->Name("Set/map_of_copies")->Arg(100)->Arg(10000);

}  // namespace
