// SPDX-License-Identifier: MIT
// Raising an event beside the three calls that it takes.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vxutils/vxevent.h>

#include <filesystem>

namespace {

constexpr const char *fifoPath = "/tmp/status/event-manager/throw";

// Nothing reads the FIFO. The kernel drops its data when the last descriptor is closed, so it never fills.
void provideFifo() {
    std::filesystem::create_directories("/tmp/status/event-manager");
    ::mkfifo(fifoPath, 0600);
}

void eventOurs(benchmark::State &state) {
    provideFifo();
    for (auto _ : state) benchmark::DoNotOptimize(vxevent(17, 1, "wan1"));
}

void eventBare(benchmark::State &state) {
    provideFifo();
    const vxevent_record record = {17, 1, "wan1"};
    for (auto _ : state) {
        const int fd = ::open(fifoPath, O_RDWR | O_CLOEXEC);
        benchmark::DoNotOptimize(::write(fd, &record, sizeof record));
        ::close(fd);
    }
}

BENCHMARK(eventOurs)->Name("Event/ours");
BENCHMARK(eventBare)->Name("Event/open_write_close");

}  // namespace
