// SPDX-License-Identifier: MIT
// The hash tables beside std::unordered_map and absl's flat map, at load factor 1; and with 2,048 buckets for 65,536
// entries, which is what a caller gets who chose too few: the order of the entries follows from the number of buckets, so
// that the table cannot grow.
#include <benchmark/benchmark.h>
#include <vxutils/hashtable.h>

#include <cstdint>
#include <random>
#include <string>
#include <unordered_map>
#include <vector>

#ifdef VXBENCH_WITH_ABSL
#include <absl/container/flat_hash_map.h>
#endif

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

// --- many numbers

constexpr size_t manyKeys = 65536;
constexpr size_t fewBuckets = 2048;

void fillManyOurs(benchmark::State &state) {
    const auto keys = numbers(manyKeys);
    for (auto _ : state) {
        INUInt32HashTable table(static_cast<size_t>(state.range(0)), HASH_LOW_BITS);
        for (const uint32_t key : keys) table.addEntry(key, nullptr);
        benchmark::DoNotOptimize(table);
    }
}
BENCHMARK(fillManyOurs)->Name("FillManyNumbers/ours")->Arg(fewBuckets)->Arg(manyKeys);

// The first `keys` numbers are in the table; those after them are not.
template <bool there>
void findManyOurs(benchmark::State &state) {
    const auto keys = numbers(2 * manyKeys);
    INUInt32HashTable table(static_cast<size_t>(state.range(0)), HASH_LOW_BITS);
    for (size_t i = 0; i < manyKeys; ++i) table.addEntry(keys[i], nullptr);
    for (auto _ : state) {
        for (size_t i = 0; i < manyKeys; i += 16) {
            void *value;
            benchmark::DoNotOptimize(table.getValueFromKey(keys[there ? i : i + manyKeys], &value));
        }
    }
}
BENCHMARK(findManyOurs<true>)->Name("HitManyNumbers/ours")->Arg(fewBuckets)->Arg(manyKeys);
BENCHMARK(findManyOurs<false>)->Name("MissManyNumbers/ours")->Arg(fewBuckets)->Arg(manyKeys);

// The same with texts, of which every sixteenth is looked for.

void fillManyTextsOurs(benchmark::State &state) {
    const auto keys = texts(manyKeys);
    for (auto _ : state) {
        INStringHashTable table(static_cast<size_t>(state.range(0)));
        for (const std::string &key : keys) table.addEntry(key.c_str(), nullptr);
        benchmark::DoNotOptimize(table);
    }
}
BENCHMARK(fillManyTextsOurs)->Name("FillManyTexts/ours")->Arg(fewBuckets)->Arg(manyKeys);

template <bool there>
void findManyTextsOurs(benchmark::State &state) {
    const auto keys = texts(2 * manyKeys);
    INStringHashTable table(static_cast<size_t>(state.range(0)));
    for (size_t i = 0; i < manyKeys; ++i) table.addEntry(keys[i].c_str(), nullptr);
    for (auto _ : state) {
        for (size_t i = 0; i < manyKeys; i += 16) {
            void *value;
            benchmark::DoNotOptimize(table.getValueFromKey(keys[there ? i : i + manyKeys].c_str(), &value));
        }
    }
}
BENCHMARK(findManyTextsOurs<true>)->Name("HitManyTexts/ours")->Arg(fewBuckets)->Arg(manyKeys);
BENCHMARK(findManyTextsOurs<false>)->Name("MissManyTexts/ours")->Arg(fewBuckets)->Arg(manyKeys);

void walkOurs(benchmark::State &state) {
    const auto keys = numbers(static_cast<size_t>(state.range(0)));
    INUInt32HashTable table(keys.size(), HASH_LOW_BITS);
    for (const uint32_t key : keys) table.addEntry(key, nullptr);
    for (auto _ : state) table.passAllPointers([](void *value) { benchmark::DoNotOptimize(value); });
}
BENCHMARK(walkOurs)->Name("WalkNumbers/ours")->Arg(16)->Arg(4096);

#ifdef VXBENCH_WITH_ABSL
using FlatMap = absl::flat_hash_map<uint32_t, void *>;

void fillManyFlat(benchmark::State &state) {
    const auto keys = numbers(manyKeys);
    for (auto _ : state) {
        FlatMap map;
        for (const uint32_t key : keys) map.emplace(key, nullptr);
        benchmark::DoNotOptimize(map);
    }
}
BENCHMARK(fillManyFlat)->Name("FillManyNumbers/absl")->Arg(fewBuckets)->Arg(manyKeys);

template <bool there>
void findManyFlat(benchmark::State &state) {
    const auto keys = numbers(2 * manyKeys);
    FlatMap map;
    for (size_t i = 0; i < manyKeys; ++i) map.emplace(keys[i], nullptr);
    for (auto _ : state) {
        for (size_t i = 0; i < manyKeys; i += 16) {
            benchmark::DoNotOptimize(map.find(keys[there ? i : i + manyKeys]));
        }
    }
}
BENCHMARK(findManyFlat<true>)->Name("HitManyNumbers/absl")->Arg(fewBuckets)->Arg(manyKeys);
BENCHMARK(findManyFlat<false>)->Name("MissManyNumbers/absl")->Arg(fewBuckets)->Arg(manyKeys);

using FlatTextMap = absl::flat_hash_map<std::string, void *>;

void fillManyTextsFlat(benchmark::State &state) {
    const auto keys = texts(manyKeys);
    for (auto _ : state) {
        FlatTextMap map;
        for (const std::string &key : keys) map.emplace(key.c_str(), nullptr);
        benchmark::DoNotOptimize(map);
    }
}
BENCHMARK(fillManyTextsFlat)->Name("FillManyTexts/absl")->Arg(fewBuckets)->Arg(manyKeys);

template <bool there>
void findManyTextsFlat(benchmark::State &state) {
    const auto keys = texts(2 * manyKeys);
    FlatTextMap map;
    for (size_t i = 0; i < manyKeys; ++i) map.emplace(keys[i], nullptr);
    for (auto _ : state) {
        for (size_t i = 0; i < manyKeys; i += 16) {
            benchmark::DoNotOptimize(map.find(keys[there ? i : i + manyKeys].c_str()));
        }
    }
}
BENCHMARK(findManyTextsFlat<true>)->Name("HitManyTexts/absl")->Arg(fewBuckets)->Arg(manyKeys);
BENCHMARK(findManyTextsFlat<false>)->Name("MissManyTexts/absl")->Arg(fewBuckets)->Arg(manyKeys);

void walkFlat(benchmark::State &state) {
    const auto keys = numbers(static_cast<size_t>(state.range(0)));
    FlatMap map;
    for (const uint32_t key : keys) map.emplace(key, nullptr);
    for (auto _ : state) {
        for (const auto &entry : map) benchmark::DoNotOptimize(entry.second);
    }
}
BENCHMARK(walkFlat)->Name("WalkNumbers/absl")->Arg(16)->Arg(4096);
#endif

void walkMap(benchmark::State &state) {
    const auto keys = numbers(static_cast<size_t>(state.range(0)));
    std::unordered_map<uint32_t, void *> map;
    for (const uint32_t key : keys) map.emplace(key, nullptr);
    for (auto _ : state) {
        for (const auto &entry : map) benchmark::DoNotOptimize(entry.second);
    }
}
BENCHMARK(walkMap)->Name("WalkNumbers/unordered_map")->Arg(16)->Arg(4096);

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
