// SPDX-License-Identifier: MIT
// Runs the stored inputs of every fuzz target, on machines without libFuzzer: replay DIRECTORY, which holds a directory of
// inputs for each target.
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#define TARGET(name) extern "C" int name##_one_input(const uint8_t *data, size_t size);
#include "fuzz_targets.inc"
#undef TARGET

namespace {

struct Target {
    const char *name;
    int (*one)(const uint8_t *data, size_t size);
};

constexpr Target targets[] = {
#define TARGET(name) {#name, name##_one_input},
#include "fuzz_targets.inc"
#undef TARGET
};

}  // namespace

int main(int argc, char **argv) {
    if (argc != 2) return 2;
    size_t inputs = 0;
    for (const Target &target : targets) {
        const auto directory = std::filesystem::path(argv[1]) / target.name;
        if (!std::filesystem::exists(directory)) continue;
        for (const auto &entry : std::filesystem::directory_iterator(directory)) {
            std::fprintf(stderr, "%s\n", entry.path().c_str());  // the last one shown is the one that fails
            std::ifstream file(entry.path(), std::ios::binary);
            std::vector<char> bytes{std::istreambuf_iterator<char>(file), {}};
            target.one(reinterpret_cast<const uint8_t *>(bytes.data()), bytes.size());
            ++inputs;
        }
    }
    std::fprintf(stderr, "replay: %zu inputs\n", inputs);
    return inputs > 0 ? 0 : 1;
}
