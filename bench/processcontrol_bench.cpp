// SPDX-License-Identifier: MIT
// A process table of a given size is made of sleeping children; the walks by hand make the same system calls.
#include <benchmark/benchmark.h>
#include <dirent.h>
#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vxutils/processcontrol.h>

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <vector>

namespace {

class Sleepers {
public:
    explicit Sleepers(size_t count) {
        while (pids_.size() < count) {
            const pid_t pid = ::fork();
            if (pid == 0) {
                ::prctl(PR_SET_PDEATHSIG, SIGKILL);
                for (;;) ::pause();
            }
            pids_.push_back(pid);
        }
    }
    ~Sleepers() {
        for (const pid_t pid : pids_) ::kill(pid, SIGKILL);
        for (const pid_t pid : pids_) ::waitpid(pid, nullptr, 0);
    }
    Sleepers(const Sleepers &) = delete;
    Sleepers &operator=(const Sleepers &) = delete;

private:
    std::vector<pid_t> pids_;
};

bool numeric(const char *name) {
    return std::all_of(name, name + std::char_traits<char>::length(name), [](char c) { return c >= '0' && c <= '9'; });
}

void fullOurs(benchmark::State &state) {
    const Sleepers sleepers(static_cast<size_t>(state.range(0)));
    ProcessControl control;
    for (auto _ : state) {
        control.refresh(false);
        benchmark::DoNotOptimize(control.getNumberOfProcesses());
    }
}

void fullByHand(benchmark::State &state) {
    const Sleepers sleepers(static_cast<size_t>(state.range(0)));
    for (auto _ : state) {
        DIR *proc = ::opendir("/proc");
        while (const dirent *entry = ::readdir(proc)) {
            if (entry->d_type != DT_DIR || !numeric(entry->d_name)) continue;
            char path[300];
            std::snprintf(path, sizeof path, "/proc/%s/cmdline", entry->d_name);
            const int file = ::open(path, O_RDONLY | O_CLOEXEC);
            if (file < 0) continue;
            char line[256];
            benchmark::DoNotOptimize(::read(file, line, 255));
            benchmark::DoNotOptimize(line);
            ::close(file);
        }
        ::closedir(proc);
    }
}

void incrementalOurs(benchmark::State &state) {
    const Sleepers sleepers(static_cast<size_t>(state.range(0)));
    ProcessControl control;
    control.refresh(true);  // meets every process for the first time, as a full refresh does
    for (auto _ : state) {
        control.refresh(true);
        benchmark::DoNotOptimize(control.getNumberOfProcesses());
    }
}

void walkByHand() {
    DIR *proc = ::opendir("/proc");
    while (const dirent *entry = ::readdir(proc)) benchmark::DoNotOptimize(entry->d_name[0]);
    ::closedir(proc);
}

void incrementalByHand(benchmark::State &state) {
    const Sleepers sleepers(static_cast<size_t>(state.range(0)));
    walkByHand();  // the kernel, too, meets new processes at the first walk
    for (auto _ : state) walkByHand();
}

BENCHMARK(fullOurs)->Name("RefreshFull/ours")->Arg(64)->Arg(512);
BENCHMARK(fullByHand)->Name("RefreshFull/by_hand")->Arg(64)->Arg(512);
BENCHMARK(incrementalOurs)->Name("RefreshIncremental/ours")->Arg(64)->Arg(512)->Arg(2048);
BENCHMARK(incrementalByHand)->Name("RefreshIncremental/readdir")->Arg(64)->Arg(512)->Arg(2048);

}  // namespace
