// SPDX-License-Identifier: MIT
// The status files' two ways: replacing one, and reading one that holds one value.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <unistd.h>
#include <vxutils/file.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>

namespace {

// A file of its own for the run, in memory as the status tree of a board is.
std::string newFile() {
    char name[] = "/tmp/file_bench_XXXXXX";
    ::close(::mkstemp(name));
    return name;
}

const std::string content = "connected since 2026-11-15 08:40";

const std::string &target() {
    static const std::string name = newFile();
    return name;
}

void WriteFileAtomic_ours(benchmark::State &state) {
    for (auto _ : state) {
        benchmark::DoNotOptimize(write_file_atomic(target().c_str(), content.data(), content.size(), 1, 0));
    }
}

void WriteFileAtomic_syscalls(benchmark::State &state) {
    for (auto _ : state) {
        char temporary[64];
        std::snprintf(temporary, sizeof temporary, "%s_XXXXXX", target().c_str());
        const int fd = ::mkstemp(temporary);
        benchmark::DoNotOptimize(::write(fd, content.data(), content.size()));
        benchmark::DoNotOptimize(::write(fd, "\n", 1));
        ::close(fd);
        benchmark::DoNotOptimize(::rename(temporary, target().c_str()));
    }
}

const std::string &value() {
    static const std::string name = [] {
        std::string file = newFile();
        std::ofstream(file) << "42\n";
        return file;
    }();
    return name;
}

void Readfile_ours(benchmark::State &state) {
    const std::string name = value();
    for (auto _ : state) benchmark::DoNotOptimize(readfile(name.c_str()));
}

void Readfile_syscalls(benchmark::State &state) {
    const std::string name = value();
    static char buffer[1024];
    for (auto _ : state) {
        if (::access(name.c_str(), R_OK) == -1) std::abort();
        const int fd = ::open(name.c_str(), O_RDONLY | O_CLOEXEC);
        const ssize_t got = ::read(fd, buffer, sizeof buffer - 1);
        buffer[got] = '\0';
        ::close(fd);
        benchmark::DoNotOptimize(buffer);
    }
}

void Readfile_ifstream(benchmark::State &state) {
    const std::string name = value();
    for (auto _ : state) {
        std::ifstream file(name);
        std::string text;
        std::getline(file, text);
        benchmark::DoNotOptimize(text);
    }
}

BENCHMARK(WriteFileAtomic_ours)->Name("WriteFileAtomic/ours");
BENCHMARK(WriteFileAtomic_syscalls)->Name("WriteFileAtomic/syscalls");
BENCHMARK(Readfile_ours)->Name("Readfile/ours");
BENCHMARK(Readfile_syscalls)->Name("Readfile/syscalls");
BENCHMARK(Readfile_ifstream)->Name("Readfile/ifstream");

}  // namespace
