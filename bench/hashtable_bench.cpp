// SPDX-License-Identifier: MIT
// The hash tables beside std::unordered_map, at load factor 1.
#include <benchmark/benchmark.h>
#include <vxutils/hashtable.h>

#include <cstdint>
#include <random>
#include <string>
#include <unordered_map>
#include <vector>

namespace {

std::vector<uint32_t> numbers(size_t count) {
    std::mt19937 random(42);
    std::vector<uint32_t> keys(count);
    for (uint32_t &key : keys) key = static_cast<uint32_t>(random());
    return keys;
}

// Keys as configuration has them: "net.wwan17.apn.4711".
std::vector<std::string> texts(size_t count) {
    std::mt19937 random(42);
    std::vector<std::string> keys;
    for (size_t i = 0; i < count; ++i) {
        keys.push_back("net.wwan" + std::to_string(random() % 100) + ".apn." + std::to_string(i));
    }
    return keys;
}

void findNumberOurs(benchmark::State &state) {
    const auto keys = numbers(static_cast<size_t>(state.range(0)));
    INUInt32HashTable table(keys.size(), HASH_LOW_BITS);
    for (const uint32_t &key : keys) table.addEntry(key, const_cast<uint32_t *>(&key));
    for (auto _ : state) {
        for (const uint32_t key : keys) {
            void *value;
            if (table.getValueFromKey(key, &value)) benchmark::DoNotOptimize(value);
        }
    }
}

void findNumberMap(benchmark::State &state) {
    const auto keys = numbers(static_cast<size_t>(state.range(0)));
    std::unordered_map<uint32_t, const void *> map(keys.size());
    for (const uint32_t &key : keys) map.emplace(key, &key);
    for (auto _ : state) {
        for (const uint32_t key : keys) {
            const auto found = map.find(key);
            if (found != map.end()) benchmark::DoNotOptimize(found->second);
        }
    }
}

void findTextOurs(benchmark::State &state) {
    const auto keys = texts(static_cast<size_t>(state.range(0)));
    INStringHashTable table(keys.size());
    for (const std::string &key : keys) table.addEntry(key.c_str(), const_cast<std::string *>(&key));
    for (auto _ : state) {
        for (const std::string &key : keys) {
            void *value;
            if (table.getValueFromKey(key.c_str(), &value)) benchmark::DoNotOptimize(value);
        }
    }
}

void findTextMap(benchmark::State &state) {
    const auto keys = texts(static_cast<size_t>(state.range(0)));
    std::unordered_map<std::string, const void *> map(keys.size());
    for (const std::string &key : keys) map.emplace(key, &key);
    for (auto _ : state) {
        for (const std::string &key : keys) {
            const auto found = map.find(key);  // the key is a std::string already: the map at its best
            if (found != map.end()) benchmark::DoNotOptimize(found->second);
        }
    }
}

void fillNumberOurs(benchmark::State &state) {
    const auto keys = numbers(static_cast<size_t>(state.range(0)));
    for (auto _ : state) {
        INUInt32HashTable table(keys.size(), HASH_LOW_BITS);
        for (const uint32_t key : keys) table.addEntry(key, nullptr);
        benchmark::DoNotOptimize(table);
    }
}

void fillNumberMap(benchmark::State &state) {
    const auto keys = numbers(static_cast<size_t>(state.range(0)));
    for (auto _ : state) {
        std::unordered_map<uint32_t, const void *> map;
        for (const uint32_t key : keys) map.emplace(key, nullptr);
        benchmark::DoNotOptimize(map);
    }
}

void fillTextOurs(benchmark::State &state) {
    const auto keys = texts(static_cast<size_t>(state.range(0)));
    for (auto _ : state) {
        INStringHashTable table(keys.size());
        for (const std::string &key : keys) table.addEntry(key.c_str(), nullptr);
        benchmark::DoNotOptimize(table);
    }
}

void fillTextMap(benchmark::State &state) {
    const auto keys = texts(static_cast<size_t>(state.range(0)));
    for (auto _ : state) {
        std::unordered_map<std::string, const void *> map;
        for (const std::string &key : keys) map.emplace(key.c_str(), nullptr);
        benchmark::DoNotOptimize(map);
    }
}

const bool registered = [] {
    struct {
        const char *name;
        void (*ours)(benchmark::State &), (*map)(benchmark::State &);
    } const cases[] = {{"FindNumber", findNumberOurs, findNumberMap},
                       {"FindText", findTextOurs, findTextMap},
                       {"FillNumber", fillNumberOurs, fillNumberMap},
                       {"FillText", fillTextOurs, fillTextMap}};
    for (const auto &one : cases) {
        for (const int64_t keys : {16, 64, 256, 1024, 4096}) {
            const std::string name = std::string(one.name) + "_" + std::to_string(keys);
            benchmark::RegisterBenchmark((name + "/ours").c_str(), one.ours)->Arg(keys);
            benchmark::RegisterBenchmark((name + "/unordered_map").c_str(), one.map)->Arg(keys);
        }
    }
    return true;
}();

}  // namespace
