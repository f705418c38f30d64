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
#include <map>
#include <string>
#include <utility>
#include <vector>

// The least that a list can do: an entry's number, then its successor, both by a virtual call. It has external linkage, or
// the compiler would know that no class is derived from it and call neither.
struct Link {
    Link(int number, Link *after) : pid(number), next(after) {}
    virtual ~Link() = default;
    virtual int getPid() const { return pid; }
    virtual Link *getNext() const { return next; }
    int pid;
    Link *next;
};

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

    const std::vector<pid_t> &pids() const { return pids_; }

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

// Finding and counting in a list of 64 and 512 processes, compared with standard containers.

void findByPidOurs(benchmark::State &state) {
    const Sleepers sleepers(static_cast<size_t>(state.range(0)));
    ProcessControl control;
    control.refresh(false);
    for (auto _ : state) {
        for (const pid_t pid : sleepers.pids()) benchmark::DoNotOptimize(control.getProcessEntryByPid(pid));
    }
}

void findByPidMap(benchmark::State &state) {
    const Sleepers sleepers(static_cast<size_t>(state.range(0)));
    std::map<int, std::string> processes;
    for (const pid_t pid : sleepers.pids()) processes.emplace(pid, "sleeper");
    for (auto _ : state) {
        for (const pid_t pid : sleepers.pids()) benchmark::DoNotOptimize(processes.find(pid));
    }
}

void findByPidList(benchmark::State &state) {
    const Sleepers sleepers(static_cast<size_t>(state.range(0)));
    Link *head = nullptr;
    for (auto pid = sleepers.pids().rbegin(); pid != sleepers.pids().rend(); ++pid) head = new Link(*pid, head);
    for (auto _ : state) {
        for (const pid_t pid : sleepers.pids()) {
            Link *link = head;
            while (link != nullptr && link->getPid() != pid) {
                link = link->getNext();
                benchmark::DoNotOptimize(link);
            }
        }
    }
    while (head != nullptr) delete std::exchange(head, head->next);
}

void countByNameOurs(benchmark::State &state) {
    const Sleepers sleepers(static_cast<size_t>(state.range(0)));
    ProcessControl control;
    control.refresh(false);
    for (auto _ : state) benchmark::DoNotOptimize(control.getNumberOfProcessesByName("/usr/sbin/"));
}

void countByNameVector(benchmark::State &state) {
    const Sleepers sleepers(static_cast<size_t>(state.range(0)));
    ProcessControl control;
    control.refresh(false);
    std::vector<std::string> names;
    const ProcessEntry *entry = nullptr;
    while ((entry = control.getNextProcessEntryByName(nullptr, entry)) != nullptr) names.emplace_back(entry->getName());
    for (auto _ : state) {
        benchmark::DoNotOptimize(std::count_if(names.begin(), names.end(), [](const std::string &name) {
            return name.compare(0, sizeof "/usr/sbin/" - 1, "/usr/sbin/") == 0;
        }));
    }
}

BENCHMARK(fullOurs)->Name("RefreshFull/ours")->Arg(64)->Arg(512);
BENCHMARK(fullByHand)->Name("RefreshFull/by_hand")->Arg(64)->Arg(512);
BENCHMARK(incrementalOurs)->Name("RefreshIncremental/ours")->Arg(64)->Arg(512)->Arg(2048);
BENCHMARK(incrementalByHand)->Name("RefreshIncremental/readdir")->Arg(64)->Arg(512)->Arg(2048);

BENCHMARK(findByPidOurs)->Name("FindByPid/ours")->Arg(64)->Arg(512);
BENCHMARK(findByPidMap)->Name("FindByPid/map")->Arg(64)->Arg(512);
BENCHMARK(findByPidList)->Name("FindByPid/virtual_list")->Arg(64)->Arg(512);
BENCHMARK(countByNameOurs)->Name("CountByName/ours")->Arg(64)->Arg(512);
BENCHMARK(countByNameVector)->Name("CountByName/vector")->Arg(64)->Arg(512);

}  // namespace
