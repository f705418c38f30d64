// SPDX-License-Identifier: MIT
// Directory trees: what an entry costs when a tree is removed or copied.
#include <benchmark/benchmark.h>
#include <dirent.h>
#include <fcntl.h>
#include <sys/sendfile.h>
#include <sys/stat.h>
#include <unistd.h>
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

// The system calls of a tree of one level of directories, relative to open ones and without a check.
template <typename Visit>
void eachEntry(int directory, Visit visit) {
    DIR *const stream = ::fdopendir(directory);
    while (const dirent *entry = ::readdir(stream)) {
        if (entry->d_name[0] != '.') visit(::dirfd(stream), entry->d_name);
    }
    ::closedir(stream);
}

int openAt(int directory, const char *name) { return ::openat(directory, name, O_RDONLY | O_DIRECTORY | O_CLOEXEC); }

void removeBare() {
    eachEntry(openAt(AT_FDCWD, tree.c_str()), [](int all, const char *name) {
        eachEntry(openAt(all, name), [](int one, const char *file) { ::unlinkat(one, file, 0); });
        ::unlinkat(all, name, AT_REMOVEDIR);
    });
    ::rmdir(tree.c_str());
}

void copyBare() {
    ::mkdir(copy.c_str(), 0755);
    const int to = openAt(AT_FDCWD, copy.c_str());
    eachEntry(openAt(AT_FDCWD, tree.c_str()), [to](int all, const char *name) {
        ::mkdirat(to, name, 0755);
        const int target = openAt(to, name);
        eachEntry(openAt(all, name), [target](int one, const char *file) {
            const int in = ::openat(one, file, O_RDONLY | O_CLOEXEC);
            struct stat status {};
            ::fstat(in, &status);
            const int out = ::openat(target, file, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, status.st_mode & 07777);
            benchmark::DoNotOptimize(::sendfile(out, in, nullptr, static_cast<size_t>(status.st_size)));
            ::close(out);
            ::close(in);
        });
        ::close(target);
    });
    ::close(to);
}

void DeleteDirectory_bare(benchmark::State &state) { removing(state, removeBare); }

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

void CopyDirectory_bare(benchmark::State &state) { copying(state, copyBare); }

BENCHMARK(DeleteDirectory_ours)->Name("DeleteDirectory/ours");
BENCHMARK(DeleteDirectory_filesystem)->Name("DeleteDirectory/filesystem");
BENCHMARK(DeleteDirectory_bare)->Name("DeleteDirectory/bare_at");
BENCHMARK(CopyDirectory_ours)->Name("CopyDirectory/ours");
BENCHMARK(CopyDirectory_filesystem)->Name("CopyDirectory/filesystem");
BENCHMARK(CopyDirectory_bare)->Name("CopyDirectory/bare_at");

}  // namespace
