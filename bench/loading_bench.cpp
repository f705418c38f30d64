// SPDX-License-Identifier: MIT
// What a process pays for being linked to the library, beside the parts of that price: nothing at all, the C++ runtime,
// libevent and ZeroMQ without the library. Counters: pages touched (minor faults) per start.
#include <benchmark/benchmark.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/wait.h>

#include <chrono>
#include <string>

extern char **environ;

namespace {

void Load(benchmark::State &state, const std::string &program) {
    const std::string path = std::string(VXBENCH_DIR) + "/" + program;
    char *const argv[] = {const_cast<char *>(path.c_str()), nullptr};
    double faults = 0;
    for (auto _ : state) {
        const auto start = std::chrono::steady_clock::now();
        pid_t pid = -1;
        if (::posix_spawn(&pid, path.c_str(), nullptr, nullptr, argv, environ) != 0) {
            state.SkipWithError("cannot start the program");
            break;
        }
        int status = 0;
        rusage usage{};
        ::wait4(pid, &status, 0, &usage);
        state.SetIterationTime(std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count());
        faults += static_cast<double>(usage.ru_minflt);
    }
    state.counters["pages"] = benchmark::Counter(faults, benchmark::Counter::kAvgIterations);
}

BENCHMARK_CAPTURE(Load, ours, "loading_vxutils")->UseManualTime();
BENCHMARK_CAPTURE(Load, nothing, "loading_nothing")->UseManualTime();
BENCHMARK_CAPTURE(Load, cxx_runtime, "loading_cxx")->UseManualTime();
BENCHMARK_CAPTURE(Load, libevent_zmq, "loading_event_zmq")->UseManualTime();

}  // namespace
