// SPDX-License-Identifier: MIT
// Storage discovery among more and more block devices, beside walking the same directory: both grow alike.
#include <benchmark/benchmark.h>
#include <dirent.h>
#include <sys/mount.h>
#include <unistd.h>
#include <vxutils/storage.h>

#include <cstdio>
#include <cstdlib>
#include <string>

namespace {

constexpr const char *directory = "/sys/class/block";

// A directory of that many block devices, of which a handful count.
bool makeDevices(int64_t count) {
    static bool mounted = false;
    if (mounted) ::umount2(directory, MNT_DETACH);
    mounted = ::mount("tmpfs", directory, "tmpfs", 0, nullptr) == 0;
    if (!mounted) return false;
    for (int64_t i = 0; i < count; ++i) {
        const std::string path = std::string(directory) + "/loop" + std::to_string(i);
        if (::symlink("../../devices/virtual/block/loop", path.c_str()) != 0) return false;
    }
    for (const char *name : {"mmcblk0p3", "mmcblk0p4"}) {
        const std::string path = std::string(directory) + "/" + name;
        if (::symlink("../../devices/soc/mmc_host/mmc0/mmcblk0", path.c_str()) != 0) return false;
    }
    return true;
}

void GetStorage_ours(benchmark::State &state) {
    if (!makeDevices(state.range(0))) state.SkipWithError("no block directory: run in the box");
    for (auto _ : state) {
        storage_list *list = old_get_storage(0);
        if (list->count != 2) state.SkipWithError("not found");
        old_free_storage(list);
        std::free(list);
    }
    state.SetComplexityN(state.range(0));
}
BENCHMARK(GetStorage_ours)->Name("GetStorage/ours")->RangeMultiplier(4)->Range(64, 16384)->Complexity(benchmark::oN);

void GetStorage_readdir(benchmark::State &state) {
    if (!makeDevices(state.range(0))) state.SkipWithError("no block directory: run in the box");
    for (auto _ : state) {
        DIR *dir = ::opendir(directory);
        int64_t entries = 0;
        while (::readdir(dir) != nullptr) ++entries;
        ::closedir(dir);
        benchmark::DoNotOptimize(entries);
    }
    state.SetComplexityN(state.range(0));
}
BENCHMARK(GetStorage_readdir)
    ->Name("GetStorage/readdir")
    ->RangeMultiplier(4)
    ->Range(64, 16384)
    ->Complexity(benchmark::oN);

}  // namespace
