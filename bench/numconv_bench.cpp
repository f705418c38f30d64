// SPDX-License-Identifier: MIT
// Number texts beside the C library's printf and strtol families.
#include <benchmark/benchmark.h>
#include <vxutils/numconv.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

namespace {

constexpr int32_t numbers[] = {0, 7, 42, 100, 1024, 65535, 123456, 98765432, 2147483647, -5, -1200, -2147483647 - 1};
constexpr uint32_t words = 1024;

// Through pointers: the compiler knows these functions and would work out parts of them at compile time.
int (*volatile libcPrint)(char *, size_t, const char *, ...) = std::snprintf;
long (*volatile libcRead)(const char *, char **, int) = std::strtol;

const std::vector<std::string> texts = [] {
    std::vector<std::string> all;
    for (const int32_t number : numbers) all.push_back(std::to_string(number));
    return all;
}();

void printDecimal(benchmark::State &state) {
    char text[34];
    for (auto _ : state) {
        for (const int32_t number : numbers) benchmark::DoNotOptimize(i32toa(number, text, 10));
        benchmark::ClobberMemory();
    }
}

void printDecimalLibc(benchmark::State &state) {
    char text[34];
    for (auto _ : state) {
        for (const int32_t number : numbers) benchmark::DoNotOptimize(libcPrint(text, sizeof text, "%d", number));
        benchmark::ClobberMemory();
    }
}

void printHex(benchmark::State &state) {
    char text[34];
    for (auto _ : state) {
        for (const int32_t number : numbers) {
            benchmark::DoNotOptimize(u_i32toa(static_cast<uint32_t>(number), text, 16));
        }
        benchmark::ClobberMemory();
    }
}

void printHexLibc(benchmark::State &state) {
    char text[34];
    for (auto _ : state) {
        for (const int32_t number : numbers) {
            benchmark::DoNotOptimize(libcPrint(text, sizeof text, "%Xh", static_cast<uint32_t>(number)));
        }
        benchmark::ClobberMemory();
    }
}

void printShort(benchmark::State &state) {
    char text[34];
    for (auto _ : state) {
        for (const int32_t number : numbers) {
            benchmark::DoNotOptimize(u_i16toa(static_cast<uint16_t>(number), text, 10));
        }
        benchmark::ClobberMemory();
    }
}

void printShortLibc(benchmark::State &state) {
    char text[34];
    for (auto _ : state) {
        for (const int32_t number : numbers) {
            benchmark::DoNotOptimize(libcPrint(text, sizeof text, "%hu", static_cast<uint16_t>(number)));
        }
        benchmark::ClobberMemory();
    }
}

void read(benchmark::State &state) {
    for (auto _ : state) {
        for (const std::string &text : texts) benchmark::DoNotOptimize(valueOf32(text.c_str()));
    }
}

void readLibc(benchmark::State &state) {
    for (auto _ : state) {
        for (const std::string &text : texts) benchmark::DoNotOptimize(libcRead(text.c_str(), nullptr, 10));
    }
}

const std::vector<std::string> hexTexts = {"0h", "FFh", "1A2Bh", "DEADBEEFh", "7FFFFFFFh", "C0A80101h"};
const std::vector<std::string> plainHexTexts = {"0", "FF", "1A2B", "DEADBEEF", "7FFFFFFF", "C0A80101"};

void readHex(benchmark::State &state) {
    for (auto _ : state) {
        for (const std::string &text : hexTexts) benchmark::DoNotOptimize(u_valueOf32(text.c_str()));
    }
}

void readHexLibc(benchmark::State &state) {
    for (auto _ : state) {
        for (const std::string &text : plainHexTexts) benchmark::DoNotOptimize(libcRead(text.c_str(), nullptr, 16));
    }
}

// Checking a text as a careful caller does it with strtol: end and range.
void validate(benchmark::State &state) {
    for (auto _ : state) {
        for (const std::string &text : texts) {
            int error;
            benchmark::DoNotOptimize(validValueOf32(&error, text.c_str()));
            benchmark::DoNotOptimize(error);
        }
    }
}

void validateLibc(benchmark::State &state) {
    for (auto _ : state) {
        for (const std::string &text : texts) {
            char *end;
            errno = 0;
            benchmark::DoNotOptimize(libcRead(text.c_str(), &end, 10));
            int error = *end == '\0' && end != text.c_str() && errno == 0 ? 0 : -1;
            benchmark::DoNotOptimize(error);
        }
    }
}

void dump(benchmark::State &state) {
    const std::vector<uint32_t> data(words, 0xdeadbeef);
    std::vector<char> text(nbrOfChars_forDataChunk2String(words * 4, 32));
    for (auto _ : state) {
        dataChunk2String(data.data(), text.data(), words * 4, 32);
        benchmark::ClobberMemory();
    }
}

void dumpLibc(benchmark::State &state) {
    const std::vector<uint32_t> data(words, 0xdeadbeef);
    std::vector<char> text(nbrOfChars_forDataChunk2String(words * 4, 32));
    for (auto _ : state) {
        char *at = text.data();
        for (size_t i = 0; i < data.size(); ++i) {
            at += libcPrint(at, 12, "0x%08x ", __builtin_bswap32(data[i]));
            if (i % 8 == 7) *at++ = '\n';
        }
        benchmark::ClobberMemory();
    }
}

BENCHMARK(printDecimal)->Name("Print_decimal/ours");
BENCHMARK(printDecimalLibc)->Name("Print_decimal/snprintf");
BENCHMARK(printHex)->Name("Print_hex/ours");
BENCHMARK(printHexLibc)->Name("Print_hex/snprintf");
BENCHMARK(printShort)->Name("Print_short/ours");
BENCHMARK(printShortLibc)->Name("Print_short/snprintf");
BENCHMARK(read)->Name("Read_decimal/ours");
BENCHMARK(readLibc)->Name("Read_decimal/strtol");
BENCHMARK(readHex)->Name("Read_hex/ours");
BENCHMARK(readHexLibc)->Name("Read_hex/strtol");
BENCHMARK(validate)->Name("Validate/ours");
BENCHMARK(validateLibc)->Name("Validate/strtol");
BENCHMARK(dump)->Name("Dump_4KiB/ours");
BENCHMARK(dumpLibc)->Name("Dump_4KiB/snprintf");

}  // namespace
