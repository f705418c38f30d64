// SPDX-License-Identifier: MIT
// The formatter beside the C library's and fmt, over what daemons print.
#include <benchmark/benchmark.h>
#include <vxutils/xprintf.h>

#include <cstdio>
#include <string>
#include <utility>
#include <vector>

#ifdef VXBENCH_WITH_FMT
#define FMT_HEADER_ONLY
#include <fmt/format.h>

// The case without a conversion has an argument that no format asks for.
#pragma GCC diagnostic ignored "-Wformat-extra-args"
#define FMT_PRINT(...) fmt::format_to_n(buffer, size - 1, __VA_ARGS__).size
#define FMT_MEASURE(...) fmt::formatted_size(__VA_ARGS__)
#else
#define FMT_PRINT(...) (static_cast<void>(buffer), size)
#define FMT_MEASURE(...) 0
#endif

namespace {

using Print = int (*)(char *, size_t);
using Measure = int (*)();

// One format with its arguments, printed and measured by all.
struct Case {
    const char *name;
    Print ours, libc, fmt;
    Measure oursLength, libcLength, fmtLength;
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

// The arguments are in brackets; those of fmt follow its own format.
#define ARGUMENTS(...) __VA_ARGS__
#define CASE(name, format, fmtFormat, arguments)                                                                   \
    {                                                                                                              \
        name, [](char *buffer, size_t size) { return snxprintf(buffer, 0, size, format, ARGUMENTS arguments); },   \
            [](char *buffer, size_t size) { return libcPrint(buffer, size, format, ARGUMENTS arguments); },        \
            [](char *buffer, size_t size) { return static_cast<int>(FMT_PRINT(fmtFormat, ARGUMENTS arguments)); }, \
            [] { return strlenf(format, ARGUMENTS arguments); },                                                   \
            [] { return libcPrint(nullptr, 0, format, ARGUMENTS arguments); },                                     \
            [] { return static_cast<int>(FMT_MEASURE(fmtFormat, ARGUMENTS arguments)); }                           \
    }

const Case cases[] = {
    CASE("path", "/tmp/status/%s/%s", "/tmp/status/{}/{}", (+interfaceName, +fileName)),
    CASE("socket", "/var/run/wwanmd%d/server", "/var/run/wwanmd{}/server", (+percent)),
    CASE("log", "%s[%d]: %s", "{}[{}]: {}", (+interfaceName, +pid, +message)),
    CASE("errno", "cannot open %s: error %d", "cannot open {}: error {}", (+fileName, +negative)),
    CASE("hex", "0x%08x", "0x{:08x}", (+address)),
    CASE("hexbytes", "%02x:%02x:%02x:%02x", "{:02x}:{:02x}:{:02x}:{:02x}",
         (address >> 24, address >> 16 & 0xff, address >> 8 & 0xff, address & 0xff)),
    CASE("dotted", "%u.%u.%u.%u", "{}.{}.{}.{}",
         (address >> 24, address >> 16 & 0xff, address >> 8 & 0xff, address & 0xff)),
    CASE("clock", "%04d-%02d-%02dT%02d:%02d:%02d", "{:04}-{:02}-{:02}T{:02}:{:02}:{:02}",
         (+pid, percent / 6, percent / 2, percent / 3, +percent, +percent)),
    CASE("table", "%-16s %10lu %10lu", "{:16} {:10} {:10}", (+interfaceName, +bytes, +bytes)),
    CASE("cut", "%.8s %-12.6s|", "{:.8} {:12.6}|", (+message, +fileName)),
    CASE("signed", "%+d %5d %i", "{:+} {:5} {}", (+percent, +negative, +pid)),
    CASE("int", "%d", "{}", (+pid)),
    CASE("string", "%s", "{}", (+fileName)),
    CASE("plain", "a literal text of a log line without any conversion",
         "a literal text of a log line without any conversion", (0)),
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

#ifdef VXBENCH_WITH_FMT
// All at once, which is not what pieces are for, but the least that there is to do.
void fetchFmt(benchmark::State &state) {
    std::vector<char> whole(longSize + 1);
    for (auto _ : state) {
        benchmark::DoNotOptimize(fmt::format_to_n(whole.data(), whole.size(), "{}", longText.c_str()));
        benchmark::ClobberMemory();
    }
}
#endif

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
#ifdef VXBENCH_WITH_FMT
        benchmark::RegisterBenchmark(("Snxprintf_" + name + "/fmt").c_str(), print, one.fmt);
#endif
    }
    for (const Case &one : cases) {
        const std::string name = one.name;
        benchmark::RegisterBenchmark(("Strlenf_" + name + "/ours").c_str(), measure, one.oursLength);
        benchmark::RegisterBenchmark(("Strlenf_" + name + "/snprintf").c_str(), measure, one.libcLength);
#ifdef VXBENCH_WITH_FMT
        benchmark::RegisterBenchmark(("Strlenf_" + name + "/fmt").c_str(), measure, one.fmtLength);
#endif
    }
    benchmark::RegisterBenchmark("Pieces_64KiB/ours", fetchOurs);
    benchmark::RegisterBenchmark("Pieces_64KiB/snprintf", fetchLibc);
#ifdef VXBENCH_WITH_FMT
    benchmark::RegisterBenchmark("Pieces_64KiB/fmt_at_once", fetchFmt);
#endif
    benchmark::RegisterBenchmark("Report_pieces/ours", reportOurs);
    benchmark::RegisterBenchmark("Report_pieces/snprintf", reportLibc);
    return true;
}();

}  // namespace
