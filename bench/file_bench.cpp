// SPDX-License-Identifier: MIT
// Files and directories beside the same system calls by hand.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <sys/sendfile.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vxutils/file.h>
#include <vxutils/list.h>

#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <system_error>
#include <vector>

#ifdef VXBENCH_WITH_GLIB
#include <glib.h>
#endif

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

// A value of one line, and one that nearly fills the buffer of readfile().
const std::string &value(size_t size) {
    static const auto made = [](const std::string &text) {
        std::string file = newFile();
        std::ofstream(file) << text << '\n';
        return file;
    };
    static const std::string small = made("42"), large = made(std::string(899, 'x'));
    return size == 900 ? large : small;
}

template <size_t size>
void Readfile_ours(benchmark::State &state) {
    const std::string name = value(size);
    for (auto _ : state) benchmark::DoNotOptimize(readfile(name.c_str()));
}

// The buffer is cleared first and the blanks around the text are cut off, as readfile() promises; `checked` looks at
// the file's type before it is read, so that a FIFO or a device cannot hold the caller.
template <size_t size, bool checked>
void Readfile_syscalls(benchmark::State &state) {
    const std::string name = value(size);
    static char buffer[1024];
    for (auto _ : state) {
        std::memset(buffer, 0, sizeof buffer);
        if (::access(name.c_str(), R_OK) == -1) std::abort();
        const int fd = ::open(name.c_str(), O_RDONLY | O_CLOEXEC);
        struct stat status {};
        if (checked && (::fstat(fd, &status) == -1 || !S_ISREG(status.st_mode))) std::abort();
        ssize_t got = ::read(fd, buffer, sizeof buffer - 1);
        while (got > 0 && std::isspace(static_cast<unsigned char>(buffer[got - 1])) != 0) --got;
        buffer[got] = '\0';
        ::close(fd);
        benchmark::DoNotOptimize(buffer);
    }
}

template <size_t size>
void Readfile_ifstream(benchmark::State &state) {
    const std::string name = value(size);
    for (auto _ : state) {
        std::ifstream file(name);
        std::string text;
        std::getline(file, text);
        benchmark::DoNotOptimize(text);
    }
}

// A configuration file of 1,000 lines.
const std::string &lines() {
    static const std::string name = [] {
        std::string file = newFile();
        std::ofstream out(file);
        for (int i = 0; i < 1000; ++i) out << "network.interface." << i << ".address = 192.168.1." << i % 256 << '\n';
        return file;
    }();
    return name;
}

void ReadLines_ours(benchmark::State &state) {
    for (auto _ : state) {
        list_link all{&all, &all};
        benchmark::DoNotOptimize(read_file_lines(lines().c_str(), &all));
        for (list_link *link = all.next; link != &all;) {
            auto *line = reinterpret_cast<file_line *>(link);
            link = link->next;
            std::free(line->data);
            std::free(line);
        }
    }
}

#ifdef VXBENCH_WITH_GLIB
void ReadLines_glib(benchmark::State &state) {
    for (auto _ : state) {
        gchar *text = nullptr;
        g_file_get_contents(lines().c_str(), &text, nullptr, nullptr);
        gchar **all = g_strsplit(text, "\n", -1);
        benchmark::DoNotOptimize(all);
        g_strfreev(all);
        g_free(text);
    }
}
BENCHMARK(ReadLines_glib)->Name("ReadLines_1000/glib");
#endif

void ReadLines_getline(benchmark::State &state) {
    for (auto _ : state) {
        std::ifstream file(lines());
        std::vector<std::string> all;
        for (std::string line; std::getline(file, line);) all.push_back(line);
        benchmark::DoNotOptimize(all);
    }
}
BENCHMARK(ReadLines_ours)->Name("ReadLines_1000/ours");
BENCHMARK(ReadLines_getline)->Name("ReadLines_1000/getline");

// A path of four directories that is there already.
void MakePath_ours(benchmark::State &state) {
    std::filesystem::create_directories("/tmp/file_bench/one/two/three");
    for (auto _ : state) {
        char path[] = "/tmp/file_bench/one/two/three/";
        benchmark::DoNotOptimize(create_directory(path));
    }
}

void MakePath_filesystem(benchmark::State &state) {
    std::filesystem::create_directories("/tmp/file_bench/one/two/three");
    for (auto _ : state) {
        std::error_code error;
        benchmark::DoNotOptimize(std::filesystem::create_directories("/tmp/file_bench/one/two/three", error));
    }
}

void MakePath_bare(benchmark::State &state) {
    std::filesystem::create_directories("/tmp/file_bench/one/two/three");
    for (auto _ : state) {
        char path[] = "/tmp/file_bench/one/two/three";
        for (char *slash = path; (slash = std::strchr(slash + 1, '/')) != nullptr;) {
            *slash = '\0';
            ::mkdir(path, 0755);
            *slash = '/';
        }
        benchmark::DoNotOptimize(::mkdir(path, 0755));
    }
}
BENCHMARK(MakePath_ours)->Name("MakePathExisting/ours");
BENCHMARK(MakePath_filesystem)->Name("MakePathExisting/filesystem");
BENCHMARK(MakePath_bare)->Name("MakePathExisting/bare");

const std::string &kilobyte() {
    static const std::string name = [] {
        std::string file = newFile();
        std::ofstream(file) << std::string(1024, 'x');
        return file;
    }();
    return name;
}

void CopyFile_ours(benchmark::State &state) {
    const std::string copy = kilobyte() + ".copy";
    for (auto _ : state) benchmark::DoNotOptimize(copy_file(kilobyte().c_str(), copy.c_str()));
}

void CopyFile_bare(benchmark::State &state) {
    const std::string copy = kilobyte() + ".copy";
    for (auto _ : state) {
        const int from = ::open(kilobyte().c_str(), O_RDONLY | O_CLOEXEC);
        struct stat info;
        ::fstat(from, &info);
        const int to = ::open(copy.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, info.st_mode & 0777);
        benchmark::DoNotOptimize(::sendfile(to, from, nullptr, static_cast<size_t>(info.st_size)));
        ::close(to);
        ::close(from);
    }
}
BENCHMARK(CopyFile_ours)->Name("CopyFile_1k/ours");
BENCHMARK(CopyFile_bare)->Name("CopyFile_1k/bare_sendfile");

BENCHMARK(WriteFileAtomic_ours)->Name("WriteFileAtomic/ours");
BENCHMARK(WriteFileAtomic_syscalls)->Name("WriteFileAtomic/syscalls");
BENCHMARK(Readfile_ours<3>)->Name("Readfile/ours");
BENCHMARK((Readfile_syscalls<3, false>))->Name("Readfile/syscalls");
BENCHMARK((Readfile_syscalls<3, true>))->Name("Readfile/syscalls_checked");
BENCHMARK(Readfile_ifstream<3>)->Name("Readfile/ifstream");
BENCHMARK(Readfile_ours<900>)->Name("Readfile_900/ours");
BENCHMARK((Readfile_syscalls<900, false>))->Name("Readfile_900/syscalls");
BENCHMARK((Readfile_syscalls<900, true>))->Name("Readfile_900/syscalls_checked");
BENCHMARK(Readfile_ifstream<900>)->Name("Readfile_900/ifstream");

}  // namespace
