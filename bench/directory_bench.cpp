// SPDX-License-Identifier: MIT
// Directory trees: what an entry costs when a tree is removed or copied.
#include <benchmark/benchmark.h>
#include <vxutils/file.h>

#include <filesystem>
#include <fstream>
#include <string>

namespace {

namespace fs = std::filesystem;

constexpr int directories = 10;
constexpr int filesEach = 50;
constexpr int entries = directories * (filesEach + 1);

const std::string top = "/tmp/directory_bench";
const std::string tree = top + "/tree";
const std::string copy = top + "/copy";

void makeTree() {
    for (int directory = 0; directory < directories; ++directory) {
        const std::string name = tree + "/directory" + std::to_string(directory);
        fs::create_directories(name);
        for (int file = 0; file < filesEach; ++file) std::ofstream(name + "/file" + std::to_string(file)) << "42\n";
    }
}

template <typename Remove>
void removing(benchmark::State &state, Remove remove) {
    for (auto _ : state) {
        state.PauseTiming();
        makeTree();
        state.ResumeTiming();
        remove();
    }
    state.SetItemsProcessed(state.iterations() * entries);
}

void DeleteDirectory_ours(benchmark::State &state) {
    removing(state, [] { benchmark::DoNotOptimize(delete_directory(tree.c_str())); });
}

void DeleteDirectory_filesystem(benchmark::State &state) {
    removing(state, [] { benchmark::DoNotOptimize(fs::remove_all(tree)); });
}

template <typename Copy>
void copying(benchmark::State &state, Copy copyTree) {
    makeTree();
    for (auto _ : state) {
        copyTree();
        state.PauseTiming();
        fs::remove_all(copy);
        state.ResumeTiming();
    }
    state.SetItemsProcessed(state.iterations() * entries);
}

void CopyDirectory_ours(benchmark::State &state) {
    copying(state, [] { benchmark::DoNotOptimize(copy_directory(tree.c_str(), copy.c_str())); });
}

void CopyDirectory_filesystem(benchmark::State &state) {
    copying(state, [] { fs::copy(tree, copy, fs::copy_options::recursive); });
}

BENCHMARK(DeleteDirectory_ours)->Name("DeleteDirectory/ours");
BENCHMARK(DeleteDirectory_filesystem)->Name("DeleteDirectory/filesystem");
BENCHMARK(CopyDirectory_ours)->Name("CopyDirectory/ours");
BENCHMARK(CopyDirectory_filesystem)->Name("CopyDirectory/filesystem");

}  // namespace
