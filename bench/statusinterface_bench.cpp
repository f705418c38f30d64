// SPDX-License-Identifier: MIT
// A status value written and read, beside the system calls alone, which look at no directory on the way.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <unistd.h>
#include <vxutils/statusinterface.h>

#include <array>

namespace {

StatusInterface &status() {
    static StatusInterface *daemon = [] {
        auto *made = new StatusInterface;
        (void)made->setup(BASEPATH_STATUS, "/bench");
        (void)made->setStatus("/state", "connected since 2026-11-15 08:40");
        return made;
    }();
    return *daemon;
}

constexpr const char *path = "/tmp/status/bench/state";

void SetStatus_ours(benchmark::State &state) {
    const String name("/state");
    const String value("connected since 2026-11-15 08:40");
    for (auto _ : state) benchmark::DoNotOptimize(status().setStatus(name, value));
}

void SetStatus_syscalls(benchmark::State &state) {
    const String value("connected since 2026-11-15 08:40");
    (void)status();
    for (auto _ : state) {
        const int fd = ::open(path, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
        benchmark::DoNotOptimize(::write(fd, value.c_str(), static_cast<size_t>(value.length())));
        ::close(fd);
    }
}

void GetStatus_ours(benchmark::State &state) {
    const String name("/state");
    String value;
    for (auto _ : state) benchmark::DoNotOptimize(status().getStatus(name, value));
}

void GetStatus_syscalls(benchmark::State &state) {
    (void)status();
    std::array<char, 100> value;
    for (auto _ : state) {
        const int fd = ::open(path, O_RDONLY | O_CLOEXEC);
        while (::read(fd, value.data(), value.size() - 1) > 0) continue;
        ::close(fd);
    }
}

BENCHMARK(SetStatus_ours)->Name("SetStatus/ours");
BENCHMARK(SetStatus_syscalls)->Name("SetStatus/syscalls");
BENCHMARK(GetStatus_ours)->Name("GetStatus/ours");
BENCHMARK(GetStatus_syscalls)->Name("GetStatus/syscalls");

}  // namespace
