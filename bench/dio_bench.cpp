// SPDX-License-Identifier: MIT
// Reading one input beside the three system calls that it cannot do without.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vxutils/dio.h>
#include <vxutils/dio_status.h>

#include <cstdio>

namespace {

constexpr const char *path = "/sys/devices/vantorix/din12/value";

// Plain files in memory, quicker than any driver: the library's own share shows most.
bool makeTree() {
    static const bool made = [] {
        if (::mount("tmpfs", "/sys/devices", "tmpfs", 0, "mode=0755") != 0) return false;
        ::mkdir("/sys/devices/vantorix", 0755);
        ::mkdir("/sys/devices/vantorix/din12", 0755);
        FILE *file = std::fopen(path, "we");
        if (file == nullptr) return false;
        std::fputs("1\n", file);
        return std::fclose(file) == 0;
    }();
    return made;
}

void ReadInput_ours(benchmark::State &state) {
    if (!makeTree()) state.SkipWithError("no board tree: run in the box");
    for (auto _ : state) {
        unsigned char on = 0;
        if (dio_roValue(12, &on) != DIO_OK || on != 1) state.SkipWithError("not read");
        benchmark::DoNotOptimize(on);
    }
}
BENCHMARK(ReadInput_ours)->Name("ReadInput/ours");

void ReadInput_bare(benchmark::State &state) {
    if (!makeTree()) state.SkipWithError("no board tree: run in the box");
    for (auto _ : state) {
        char value = 0;
        const int fd = ::open(path, O_RDONLY | O_CLOEXEC);
        if (::read(fd, &value, 1) != 1 || value != '1') state.SkipWithError("not read");
        ::close(fd);
        benchmark::DoNotOptimize(value);
    }
}
BENCHMARK(ReadInput_bare)->Name("ReadInput/open_read_close");

}  // namespace
