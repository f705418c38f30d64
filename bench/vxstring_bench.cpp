// SPDX-License-Identifier: MIT
// String beside std::string.
#include <benchmark/benchmark.h>
#include <vxutils/vxstring.h>

#include <cstdio>
#include <string>

namespace {

constexpr char kPath[] = "/tmp/status/wwanmd/card0/registration/operator-name-of-the-network";
constexpr char kNeedle[] = "operator";
constexpr char kOther[] = "/tmp/status/wwanmd/card0/registration/operator-name-of-the-networl";

template <typename Text>
void copy256(benchmark::State &state) {
    const Text text(std::string(256, 'x').c_str());
    for (auto _ : state) {
        Text copy(text);
        benchmark::DoNotOptimize(copy);
    }
}
BENCHMARK(copy256<String>)->Name("Copy256/ours");
BENCHMARK(copy256<std::string>)->Name("Copy256/std_string");

template <typename Text>
void appendBytes(benchmark::State &state) {
    constexpr int kBytes = 65536;
    for (auto _ : state) {
        Text text;
        for (int i = 0; i < kBytes; ++i) text += 'x';
        benchmark::DoNotOptimize(text);
    }
}
BENCHMARK(appendBytes<String>)->Name("AppendBytes64K/ours");
BENCHMARK(appendBytes<std::string>)->Name("AppendBytes64K/std_string");

template <typename Text>
void equalTexts(benchmark::State &state) {
    Text left(kPath);
    Text right(kPath);
    for (auto _ : state) {
        benchmark::DoNotOptimize(left);
        benchmark::DoNotOptimize(right);
        benchmark::DoNotOptimize(left == right);
    }
}
BENCHMARK(equalTexts<String>)->Name("Equal/ours");
BENCHMARK(equalTexts<std::string>)->Name("Equal/std_string");

template <typename Text>
void lessTexts(benchmark::State &state) {
    Text left(kPath);
    Text right(kOther);
    for (auto _ : state) {
        benchmark::DoNotOptimize(left);
        benchmark::DoNotOptimize(right);
        benchmark::DoNotOptimize(left < right);
    }
}
BENCHMARK(lessTexts<String>)->Name("Less/ours");
BENCHMARK(lessTexts<std::string>)->Name("Less/std_string");

long find(const String &text, const String &needle) { return text.indexOf(needle); }
size_t find(const std::string &text, const std::string &needle) { return text.find(needle); }
long findLast(const String &text, const String &needle) { return text.lastIndexOf(needle); }
size_t findLast(const std::string &text, const std::string &needle) { return text.rfind(needle); }
long findChar(const String &text, char c) { return text.indexOf(c); }
size_t findChar(const std::string &text, char c) { return text.find(c); }

template <typename Text>
void searchText(benchmark::State &state) {
    Text text(kPath);
    Text needle(kNeedle);
    for (auto _ : state) {
        benchmark::DoNotOptimize(text);
        benchmark::DoNotOptimize(find(text, needle));
    }
}
BENCHMARK(searchText<String>)->Name("Search/ours");
BENCHMARK(searchText<std::string>)->Name("Search/std_string");

template <typename Text>
void searchBackwards(benchmark::State &state) {
    Text text(kPath);
    Text needle(kNeedle);
    for (auto _ : state) {
        benchmark::DoNotOptimize(text);
        benchmark::DoNotOptimize(findLast(text, needle));
    }
}
BENCHMARK(searchBackwards<String>)->Name("SearchBackwards/ours");
BENCHMARK(searchBackwards<std::string>)->Name("SearchBackwards/std_string");

template <typename Text>
void searchCharacter(benchmark::State &state) {
    Text text(kPath);
    for (auto _ : state) {
        benchmark::DoNotOptimize(text);
        benchmark::DoNotOptimize(findChar(text, 'q'));
    }
}
BENCHMARK(searchCharacter<String>)->Name("SearchCharacter/ours");
BENCHMARK(searchCharacter<std::string>)->Name("SearchCharacter/std_string");

template <typename Text>
void concatenateTwo(benchmark::State &state) {
    const Text base("/tmp/status/wwanmd/card0/");
    const Text name("registration");
    for (auto _ : state) {
        Text path = base + name;
        benchmark::DoNotOptimize(path);
    }
}
BENCHMARK(concatenateTwo<String>)->Name("ConcatenateTwo/ours");
BENCHMARK(concatenateTwo<std::string>)->Name("ConcatenateTwo/std_string");

template <typename Text>
void concatenateFive(benchmark::State &state) {
    const Text base("/tmp/status");
    const Text name("registration");
    for (auto _ : state) {
        Text path = base + "/wwanmd/card0/" + name + '/' + name;
        benchmark::DoNotOptimize(path);
    }
}
BENCHMARK(concatenateFive<String>)->Name("ConcatenateFive/ours");
BENCHMARK(concatenateFive<std::string>)->Name("ConcatenateFive/std_string");

template <typename Text>
void appendTexts(benchmark::State &state) {
    const Text piece("a piece of text, ");
    for (auto _ : state) {
        Text text;
        for (int i = 0; i < 8; ++i) text += piece;
        benchmark::DoNotOptimize(text);
    }
}
BENCHMARK(appendTexts<String>)->Name("AppendTexts/ours");
BENCHMARK(appendTexts<std::string>)->Name("AppendTexts/std_string");

String piece(const String &text, long begin, long end) { return text.substring(begin, end); }
std::string piece(const std::string &text, size_t begin, size_t end) { return text.substr(begin, end - begin); }

template <typename Text>
void substring(benchmark::State &state) {
    const Text text(kPath);
    for (auto _ : state) benchmark::DoNotOptimize(piece(text, 12, 50));
}
BENCHMARK(substring<String>)->Name("Substring/ours");
BENCHMARK(substring<std::string>)->Name("Substring/std_string");

void print(String &text, const char *name, int number) {
    text.format("%s-%d: %08x %s", name, number, 0xbeefU, kNeedle);
}

// The length first, then the text, as one formats into a std::string of any length.
void print(std::string &text, const char *name, int number) {
    const int length = std::snprintf(nullptr, 0, "%s-%d: %08x %s", name, number, 0xbeefU, kNeedle);
    text.resize(static_cast<size_t>(length));
    std::snprintf(text.data(), text.size() + 1, "%s-%d: %08x %s", name, number, 0xbeefU, kNeedle);
}

template <typename Text>
void format(benchmark::State &state) {
    for (auto _ : state) {
        Text text;
        print(text, "wwan", 12345);
        benchmark::DoNotOptimize(text);
    }
}
BENCHMARK(format<String>)->Name("Format/ours");
BENCHMARK(format<std::string>)->Name("Format/std_string");

}  // namespace
