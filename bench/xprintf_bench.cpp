// SPDX-License-Identifier: MIT
// The formatter beside the C library's, over what daemons print.
#include <benchmark/benchmark.h>
#include <vxutils/xprintf.h>

#include <cstdio>
#include <string>
#include <utility>
#include <vector>

namespace {

using Print = int (*)(char *, size_t);
using Measure = int (*)();

// One format with its arguments, printed and measured by both.
struct Case {
    const char *name;
    Print ours, libc;
    Measure oursLength, libcLength;
};

// Through a pointer: the compiler knows snprintf and would work out some of the calls at compile time.
int (*volatile libcPrint)(char *, size_t, const char *, ...) = std::snprintf;

const char *volatile interfaceName = "wwan0";
const char *volatile fileName = "configuration.conf";
const char *volatile message = "connection lost, trying the next access point";
volatile int pid = 1234;
volatile int percent = 57;
volatile unsigned int address = 0xc0a80164;
volatile unsigned long bytes = 1234567890;
volatile int negative = -17;

#define CASE(name, ...)                                                                            \
    {                                                                                              \
        name, [](char *buffer, size_t size) { return snxprintf(buffer, 0, size, __VA_ARGS__); },   \
            [](char *buffer, size_t size) { return libcPrint(buffer, size, __VA_ARGS__); },        \
            [] { return strlenf(__VA_ARGS__); }, [] { return libcPrint(nullptr, 0, __VA_ARGS__); } \
    }

const Case cases[] = {
    CASE("path", "/tmp/status/%s/%s", interfaceName, fileName),
    CASE("socket", "/var/run/wwanmd%d/server", percent),
    CASE("log", "%s[%d]: %s", interfaceName, pid, message),
    CASE("errno", "cannot open %s: error %d", fileName, negative),
    CASE("hex", "0x%08x", address),
    CASE("hexbytes", "%02x:%02x:%02x:%02x", address >> 24, address >> 16 & 0xff, address >> 8 & 0xff, address & 0xff),
    CASE("dotted", "%u.%u.%u.%u", address >> 24, address >> 16 & 0xff, address >> 8 & 0xff, address & 0xff),
    CASE("clock", "%04d-%02d-%02dT%02d:%02d:%02d", pid, percent / 6, percent / 2, percent / 3, percent, percent),
    CASE("table", "%-16s %10lu %10lu", interfaceName, bytes, bytes),
    CASE("cut", "%.8s %-12.6s|", message, fileName),
    CASE("signed", "%+d %5d %i", percent, negative, pid),
    CASE("plain", "a literal text of a log line without any conversion"),
};

void print(benchmark::State &state, Print function) {
    char buffer[256];
    for (auto _ : state) {
        benchmark::DoNotOptimize(function(buffer, sizeof buffer));
        benchmark::ClobberMemory();
    }
}

void measure(benchmark::State &state, Measure function) {
    for (auto _ : state) benchmark::DoNotOptimize(function());
}

// A long text in pieces of 1 KiB: the library jumps over what was fetched, the C library formats everything again.
constexpr size_t pieceSize = 1024;
constexpr size_t longSize = 65536;
const std::string longText(longSize, 'x');

void fetchOurs(benchmark::State &state) {
    std::vector<char> piece(pieceSize + 1);
    for (auto _ : state) {
        for (int fetched = 0, stored;
             (stored = snxprintf(piece.data(), fetched, piece.size(), "%s", longText.c_str())) > 0; fetched += stored) {
            benchmark::ClobberMemory();
        }
    }
}

void fetchLibc(benchmark::State &state) {
    std::vector<char> whole(longSize + 1);
    for (auto _ : state) {
        for (size_t fetched = 0; fetched < longSize; fetched += pieceSize) {
            benchmark::DoNotOptimize(std::snprintf(whole.data(), whole.size(), "%s", longText.c_str()));
            benchmark::ClobberMemory();
        }
    }
}

// The same for a report of many fields, a kilobyte in pieces of 64 bytes.
#define REPORT_LINE "%-20s|%40d|%08x|%s, and further words that do not change\n"
#define REPORT_ARGUMENTS interfaceName, pid, address, message
#define REPORT_FORMAT REPORT_LINE REPORT_LINE REPORT_LINE REPORT_LINE REPORT_LINE REPORT_LINE REPORT_LINE REPORT_LINE
#define REPORT_ALL                                                                                           \
    REPORT_FORMAT, REPORT_ARGUMENTS, REPORT_ARGUMENTS, REPORT_ARGUMENTS, REPORT_ARGUMENTS, REPORT_ARGUMENTS, \
        REPORT_ARGUMENTS, REPORT_ARGUMENTS, REPORT_ARGUMENTS

void reportOurs(benchmark::State &state) {
    std::vector<char> piece(65);
    for (auto _ : state) {
        for (int fetched = 0, stored; (stored = snxprintf(piece.data(), fetched, piece.size(), REPORT_ALL)) > 0;
             fetched += stored) {
            benchmark::ClobberMemory();
        }
    }
}

void reportLibc(benchmark::State &state) {
    std::vector<char> whole(longSize);
    for (auto _ : state) {
        const auto length = static_cast<size_t>(strlenf(REPORT_ALL));
        for (size_t fetched = 0; fetched < length; fetched += 64) {
            benchmark::DoNotOptimize(std::snprintf(whole.data(), whole.size(), REPORT_ALL));
            benchmark::ClobberMemory();
        }
    }
}

const bool registered = [] {
    for (const Case &one : cases) {
        const std::string name = one.name;
        benchmark::RegisterBenchmark(("Snxprintf_" + name + "/ours").c_str(), print, one.ours);
        benchmark::RegisterBenchmark(("Snxprintf_" + name + "/snprintf").c_str(), print, one.libc);
    }
    for (const Case &one : cases) {
        const std::string name = one.name;
        benchmark::RegisterBenchmark(("Strlenf_" + name + "/ours").c_str(), measure, one.oursLength);
        benchmark::RegisterBenchmark(("Strlenf_" + name + "/snprintf").c_str(), measure, one.libcLength);
    }
    benchmark::RegisterBenchmark("Pieces_64KiB/ours", fetchOurs);
    benchmark::RegisterBenchmark("Pieces_64KiB/snprintf", fetchLibc);
    benchmark::RegisterBenchmark("Report_pieces/ours", reportOurs);
    benchmark::RegisterBenchmark("Report_pieces/snprintf", reportLibc);
    return true;
}();

}  // namespace
