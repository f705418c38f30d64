// SPDX-License-Identifier: MIT
// Number texts beside the C library's printf and strtol families.
#include <arpa/inet.h>
#include <benchmark/benchmark.h>
#include <vxutils/numconv.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#ifdef VXBENCH_WITH_FMT
#define FMT_HEADER_ONLY
#include <fmt/format.h>
#endif

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

const std::vector<std::string> dottedTexts = {"10.0.0.1", "192.168.1.77", "255.255.255.0", "172.16.254.3"};
constexpr uint32_t addresses[] = {0x0a000001, 0xc0a8014d, 0xffffff00, 0xac10fe03};

void readDotted(benchmark::State &state) {
    for (auto _ : state) {
        for (const std::string &text : dottedTexts) {
            uint32_t address;
            benchmark::DoNotOptimize(convIPStr2IPUl(text.c_str(), &address));
            benchmark::DoNotOptimize(address);
        }
    }
}

void readDottedPton(benchmark::State &state) {
    for (auto _ : state) {
        for (const std::string &text : dottedTexts) {
            in_addr address;
            benchmark::DoNotOptimize(inet_pton(AF_INET, text.c_str(), &address));
            benchmark::DoNotOptimize(address);
        }
    }
}

void readDottedScanf(benchmark::State &state) {
    for (auto _ : state) {
        for (const std::string &text : dottedTexts) {
            unsigned long a, b, c, d;
            benchmark::DoNotOptimize(std::sscanf(text.c_str(), "%lu.%lu.%lu.%lu", &a, &b, &c, &d));
            unsigned long address = (a << 24) + (b << 16) + (c << 8) + d;
            benchmark::DoNotOptimize(address);
        }
    }
}

void printDotted(benchmark::State &state) {
    char text[16];
    for (auto _ : state) {
        for (const uint32_t address : addresses) {
            convIPUL2IPStr(address, text);
            benchmark::ClobberMemory();
        }
    }
}

void printDottedNtop(benchmark::State &state) {
    char text[16];
    for (auto _ : state) {
        for (const uint32_t address : addresses) {
            const in_addr binary{htonl(address)};
            benchmark::DoNotOptimize(inet_ntop(AF_INET, &binary, text, sizeof text));
            benchmark::ClobberMemory();
        }
    }
}

#ifdef VXBENCH_WITH_FMT
void printDottedFmt(benchmark::State &state) {
    char text[17];
    for (auto _ : state) {
        for (const uint32_t address : addresses) {
            *fmt::format_to(text, "{}.{}.{}.{}", address >> 24, address >> 16 & 0xff, address >> 8 & 0xff,
                            address & 0xff) = '\0';
            benchmark::ClobberMemory();
        }
    }
}
BENCHMARK(printDottedFmt)->Name("Print_dotted/fmt");
#endif

BENCHMARK(readDotted)->Name("Read_dotted/ours");
BENCHMARK(readDottedPton)->Name("Read_dotted/inet_pton");
BENCHMARK(readDottedScanf)->Name("Read_dotted/sscanf");
BENCHMARK(printDotted)->Name("Print_dotted/ours");
BENCHMARK(printDottedNtop)->Name("Print_dotted/inet_ntop");
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
