// SPDX-License-Identifier: MIT
// String beside std::string, the C library and other string classes.
#include <benchmark/benchmark.h>
#include <vxutils/vxstring.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <utility>

#ifdef VXBENCH_WITH_GLIB
#include <glib.h>
#endif
#ifdef VXBENCH_WITH_QT
#include <QString>
#endif

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

// A piece ends before a NUL.
void substringToNul(benchmark::State &state) {
    const std::string text(kPath);
    for (auto _ : state) {
        const size_t end = ::strnlen(text.c_str(), 50);
        benchmark::DoNotOptimize(end <= 12 ? std::string() : text.substr(12, end - 12));
    }
}
BENCHMARK(substringToNul)->Name("Substring/std_string_to_nul");

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
    static const char *volatile name = "wwan";  // the compiler knows snprintf and would work out its length
    static volatile int number = 12345;
    for (auto _ : state) {
        Text text;
        print(text, name, number);
        benchmark::DoNotOptimize(text);
    }
}
BENCHMARK(format<String>)->Name("Format/ours");
BENCHMARK(format<std::string>)->Name("Format/std_string");

// --- one line per implementation: a round is one call of the function, which owns the texts that it works on

template <typename Function>
void add(const char *name, Function function) {
    benchmark::RegisterBenchmark(name, [function](benchmark::State &state) mutable {
        for (auto _ : state) function();
    });
}

// A text as logs have it, without the characters Q, q, Z and z.
std::string prose(size_t length) {
    constexpr char sentence[] = "The modem registered in the home network after 12 s, signal -71 dBm; ";
    std::string text;
    while (text.size() < length) text += sentence;
    text.resize(length);
    return text;
}

std::string upper(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(), [](char c) { return c >= 'a' && c <= 'z' ? c - 32 : c; });
    return text;
}

String ours(const std::string &text) { return {text.c_str()}; }

template <typename Value>
void keep(Value value) {
    benchmark::DoNotOptimize(value);
}

void addConstruction() {
    static const char *volatile name = "registration";
    static const std::string longText = prose(256);
    add("Construct_12/ours", [] {
        String text(name);
        benchmark::DoNotOptimize(text);
    });
    add("Construct_12/std_string", [] {
        std::string text(name);
        benchmark::DoNotOptimize(text);
    });
    add("Assign_256/ours", [text = String()]() mutable {
        text = longText.c_str();
        benchmark::DoNotOptimize(text);
    });
    add("Assign_256/std_string", [text = std::string()]() mutable {
        text = longText.c_str();
        benchmark::DoNotOptimize(text);
    });
    add("InsertAndDelete/ours", [text = ours(kPath)]() mutable { text.insert(5, "inserted-").deleteRegion(5, 14); });
    add("InsertAndDelete/std_string",
        [text = std::string(kPath)]() mutable { text.insert(5, "inserted-").erase(5, 9); });
#ifdef VXBENCH_WITH_GLIB
    add("AppendBytes64K/gstring", [] {
        GString *text = g_string_new(nullptr);
        for (int i = 0; i < 65536; ++i) g_string_append_c(text, 'x');
        benchmark::DoNotOptimize(text);
        g_string_free(text, TRUE);
    });
#endif
#ifdef VXBENCH_WITH_QT
    add("Construct_12/qstring", [] {
        const QString text = QString::fromLatin1(name);
        benchmark::DoNotOptimize(text);
    });
    add("AppendBytes64K/qstring", [] {
        QString text;
        for (int i = 0; i < 65536; ++i) text += QLatin1Char('x');
        benchmark::DoNotOptimize(text);
    });
    add("ConcatenateFive/qstring",
        [base = QString::fromLatin1("/tmp/status"), card = QString::fromLatin1("/wwanmd/card0/"),
         last = QString::fromLatin1("registration")] {
            const QString path = base + card + last + QLatin1Char('/') + last;
            benchmark::DoNotOptimize(path);
        });
    add("InsertAndDelete/qstring",
        [text = QString::fromLatin1(kPath)]() mutable { text.insert(5, QLatin1String("inserted-")).remove(5, 9); });
    add("AppendTexts/qstring", [piece = QString::fromLatin1("a piece of text, ")] {
        QString text;
        for (int i = 0; i < 8; ++i) text += piece;
        benchmark::DoNotOptimize(text);
    });
#endif
}

void addComparison() {
    static const std::string left = prose(256), right = upper(left);
    add("EqualIgnoreCase_256/ours", [a = ours(left), b = ours(right)] { keep(a.equalsIgnoreCase(b)); });
    add("EqualIgnoreCase_256/strncasecmp", [] { keep(::strncasecmp(left.c_str(), right.c_str(), left.size())); });
    add("EqualIgnoreCaseSame_256/ours", [a = ours(left), b = ours(left)] { keep(a.equalsIgnoreCase(b)); });
    add("EqualIgnoreCaseSame_256/strncasecmp",
        [same = left] { keep(::strncasecmp(left.c_str(), same.c_str(), left.size())); });
    add("Less_256/ours", [a = ours(left), b = ours(left + "x")] { keep(a < b); });
    add("Less_256/std_string", [b = left + "x"] { keep(left < b); });
    add("StartsWith/ours", [text = String(kPath), prefix = String("/tmp/status/")] { keep(text.startsWith(prefix)); });
    add("StartsWith/std_string", [text = std::string(kPath), prefix = std::string("/tmp/status/")] {
        keep(text.compare(0, prefix.size(), prefix) == 0);
    });
    add("EndsWith/ours", [text = String(kPath), suffix = String("-network")] { keep(text.endsWith(suffix)); });
    add("EndsWith/std_string", [text = std::string(kPath), suffix = std::string("-network")] {
        keep(text.compare(text.size() - suffix.size(), suffix.size(), suffix) == 0);
    });
}

void addSearch() {
    static const std::string text = prose(1023) + "q", last = prose(1016) + "Qz-found", first = "q" + prose(1023);
    static const std::string repeated(4096, 'a'), needle = "b" + std::string(15, 'a');
    add("FindChar_1k/ours", [t = ours(text)] { keep(t.indexOf('q')); });
    add("FindChar_1k/std_string", [] { keep(text.find('q')); });
    add("FindNoChar_1k/ours", [t = ours(text)] { keep(t.indexOf('Q')); });
    add("FindNoChar_1k/std_string", [] { keep(text.find('Q')); });
    add("FindText_1k/ours", [t = ours(last), n = String("Qz-found")] { keep(t.indexOf(n)); });
    add("FindText_1k/std_string", [n = std::string("Qz-found")] { keep(last.find(n)); });
    add("FindOftenBegun_1k/ours", [t = ours(last), n = String("e-found")] { keep(t.indexOf(n)); });
    add("FindOftenBegun_1k/std_string", [n = std::string("e-found")] { keep(last.find(n)); });
    add("FindRepetitive_4k/ours", [t = ours(repeated), n = String("aaaaaaaaaaaaaaab")] { keep(t.indexOf(n)); });
    add("FindRepetitive_4k/std_string", [n = std::string("aaaaaaaaaaaaaaab")] { keep(repeated.find(n)); });
    add("FindIgnoreCase_1k/ours", [t = ours(last), n = String("qZ-FOUND")] { keep(t.indexOfIgnoreCase(n)); });
    add("FindIgnoreCase_1k/strcasestr", [] { keep(::strcasestr(last.c_str(), "qZ-FOUND")); });
    add("FindIgnoreCaseOftenBegun_1k/ours", [t = ours(last), n = String("E-FOUND")] { keep(t.indexOfIgnoreCase(n)); });
    add("FindIgnoreCaseOftenBegun_1k/strcasestr", [] { keep(::strcasestr(last.c_str(), "E-FOUND")); });
    add("FindLastChar_1k/ours", [t = ours(first)] { keep(t.lastIndexOf('q')); });
    add("FindLastChar_1k/memrchr", [] { keep(::memrchr(first.c_str(), 'q', first.size())); });
    add("FindLastRepetitive_4k/ours", [t = ours(repeated), n = ours(needle)] { keep(t.lastIndexOf(n)); });
    add("FindLastRepetitive_4k/std_string", [] { keep(repeated.rfind(needle)); });
}

void addChanges() {
    static const std::string text = prose(256);
    add("Walk_256/ours", [t = ours(text)] {
        int sum = 0;
        for (long i = 0; i < t.length(); ++i) sum += t[i];
        keep(sum);
    });
    add("Walk_256/std_string", [] {
        int sum = 0;
        for (size_t i = 0; i < text.size(); ++i) sum += text[i];
        keep(sum);
    });
    add("ToInteger/ours", [t = String("-12345")] { keep(t.toInteger()); });
    add("ToInteger/strtol", [t = std::string("-12345")] { keep(std::strtol(t.c_str(), nullptr, 0)); });
    add("ChangeCase_256/ours", [t = ours(text)]() mutable { t.toUpperCase().toLowerCase(); });
    add("ChangeCase_256/std_string", [t = text]() mutable {
        std::transform(t.begin(), t.end(), t.begin(), [](char c) { return c >= 'a' && c <= 'z' ? c - 32 : c; });
        std::transform(t.begin(), t.end(), t.begin(), [](char c) { return c >= 'A' && c <= 'Z' ? c + 32 : c; });
        benchmark::DoNotOptimize(t);
    });
    add("Replace_256/ours", [t = ours(text)]() mutable {
        t.replace(' ', '_');
        t.replace('_', ' ');
    });
    add("Replace_256/std_string", [t = text]() mutable {
        std::replace(t.begin(), t.end(), ' ', '_');
        std::replace(t.begin(), t.end(), '_', ' ');
        benchmark::DoNotOptimize(t);
    });
#ifdef VXBENCH_WITH_QT
    add("Replace_256/qstring", [t = QString::fromStdString(text)]() mutable {
        t.replace(QLatin1Char(' '), QLatin1Char('_'));
        t.replace(QLatin1Char('_'), QLatin1Char(' '));
    });
    add("Walk_256/qstring", [t = QString::fromStdString(text)] {
        int sum = 0;
        for (int i = 0; i < t.size(); ++i) sum += t[i].unicode();
        keep(sum);
    });
#endif
    add("Trim/ours", [] {
        String t("  a value with blanks around it\n");
        t.trim();
        benchmark::DoNotOptimize(t);
    });
    add("Trim/std_string", [] {
        std::string t("  a value with blanks around it\n");
        t.erase(t.find_last_not_of(" \t\n\v\f\r") + 1).erase(0, t.find_first_not_of(" \t\n\v\f\r"));
        benchmark::DoNotOptimize(t);
    });
}

const bool added = [] {
    addConstruction();
    addComparison();
    addSearch();
    addChanges();
    return true;
}();

}  // namespace
