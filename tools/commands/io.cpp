// SPDX-License-Identifier: MIT
// vx io: digital inputs and outputs of the board.
#include <vxutils/dio.h>

#include <array>
#include <chrono>
#include <ctime>

#include "commands/commands.h"
#include "core/failure.h"
#include "core/follow.h"

namespace tool {

namespace {

constexpr const char *tree = "/sys/devices/vantorix";
constexpr int64_t lastLine = 99;
constexpr int64_t defaultInterval = 100;  // milliseconds

struct Line {
    bool output;
    unsigned int number;

    std::string name() const { return (output ? "dout" : "din") + std::to_string(number); }
};

// "din3", "dout2"; a number alone is an input, or an output where outputs are set.
Line lineOf(std::string_view word, bool numberIsOutput) {
    Line line{numberIsOutput, 0};
    std::string_view digits = word;
    for (const auto &[prefix, output] : {std::pair<std::string_view, bool>("din", false), {"dout", true}}) {
        if (word.substr(0, prefix.size()) != prefix) continue;
        digits = word.substr(prefix.size());
        line.output = output;
    }
    const auto number = wholeNumber(digits, 1, lastLine);
    if (!number) throw Usage{"LINE '" + std::string(word) + "' is not din or dout and a number from 1 to 99"};
    line.number = static_cast<unsigned int>(*number);
    return line;
}

Failure dioFailure(const Line &line, int result) {
    switch (result) {
        case DIO_MISSING:
            return {line.name(), "the board has no such line"};
        case DIO_LEXICAL:
            return {line.name(), "the driver's file does not hold what it should"};
        case DIO_INACTIVE:
            return {line.name(), "pulse counting is not running"};
        case DIO_ACTIVE:
            return {line.name(), "pulse counting is running already"};
        default:
            return systemFailure(line.name());
    }
}

void check(const Line &line, int result) {
    if (result != DIO_OK) throw dioFailure(line, result);
}

int64_t valueOf(const Line &line) {
    unsigned char on = 0;
    check(line, line.output ? dio_rwValue(static_cast<int>(line.number), &on) : dio_roValue(line.number, &on));
    return on;
}

Record recordOf(const Line &line, int64_t value) { return {{"line", line.name()}, {"value", value}}; }

std::vector<Line> allLines(bool outputsToo) {
    unsigned int inputs = 0;
    unsigned int outputs = 0;
    if (dio_roCount(&inputs) != DIO_OK || dio_rwCount(&outputs) != DIO_OK) throw systemFailure(tree);
    std::vector<Line> lines;
    for (unsigned int i = 1; i <= inputs; ++i) lines.push_back({false, i});
    for (unsigned int i = 1; outputsToo && i <= outputs; ++i) lines.push_back({true, i});
    if (inputs + outputs == 0) {
        // The library takes a directory that cannot be read for an empty one.
        if (::access(tree, R_OK) != 0) throw systemFailure(tree);
        throw Failure(tree, "the board has no inputs and outputs");
    }
    return lines;
}

std::vector<Line> linesOf(const Arguments &arguments) {
    std::vector<Line> lines;
    for (const std::string &word : arguments.words()) lines.push_back(lineOf(word, false));
    return lines;
}

std::vector<Record> recordsOf(const std::vector<Line> &lines) {
    std::vector<Record> records;
    records.reserve(lines.size());
    for (const Line &line : lines) records.push_back(recordOf(line, valueOf(line)));
    return records;
}

int list(const Arguments &, Output &out) {
    out.print(recordsOf(allLines(true)), Plain::pair);
    return statusDone;
}

int get(const Arguments &arguments, Output &out) {
    const std::vector<Line> lines = linesOf(arguments);
    out.print(recordsOf(lines), lines.size() == 1 ? Plain::value : Plain::pair);
    return statusDone;
}

int set(const Arguments &arguments, Output &out) {
    std::vector<std::pair<Line, unsigned int>> changes;
    for (const std::string &word : arguments.words()) {
        const size_t equals = word.find('=');
        const std::string value = equals == std::string::npos ? "" : word.substr(equals + 1);
        if (value != "0" && value != "1") throw Usage{"'" + word + "' is not LINE=0 or LINE=1"};
        const Line line = lineOf(std::string_view(word).substr(0, equals), true);
        if (!line.output) throw Usage{line.name() + " is an input"};
        changes.emplace_back(line, value == "1" ? 1 : 0);
    }
    for (const auto &[line, value] : changes) check(line, dio_setValue(static_cast<int>(line.number), value));
    out.done();
    return statusDone;
}

using Cost = std::chrono::duration<double, std::milli>;

// Time that this process has spent on a processor.
Cost processorTime() {
    timespec time{};
    ::clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &time);
    return std::chrono::seconds(time.tv_sec) + std::chrono::nanoseconds(time.tv_nsec);
}

std::string howItWatches(size_t lines, milliseconds interval, Cost cost) {
    std::array<char, 200> text;
    std::snprintf(text.data(), text.size(),
                  "the driver tells of no changes: %zu %s read every %lld ms, which takes %.2f ms of processor time "
                  "(%.1f %%); shorter pulses can be missed",
                  lines, lines == 1 ? "line is" : "lines are", static_cast<long long>(interval.count()), cost.count(),
                  100 * cost.count() / static_cast<double>(interval.count()));
    return text.data();
}

int watch(const Arguments &arguments, Output &out) {
    const milliseconds interval(arguments.number("interval", defaultInterval, 1, 3600000));
    std::vector<Line> lines = linesOf(arguments);
    if (lines.empty()) lines = allLines(false);
    const Plain form = lines.size() == 1 ? Plain::value : Plain::pair;
    Follow follow(arguments, out);
    std::vector<int64_t> known(lines.size(), -1);
    for (bool first = true;; first = false) {
        const Cost before = processorTime();
        std::vector<int64_t> now;
        now.reserve(lines.size());
        for (const Line &line : lines) now.push_back(valueOf(line));
        if (first) out.note(howItWatches(lines.size(), interval, processorTime() - before));
        for (size_t i = 0; i < lines.size(); ++i) {
            if (now[i] != known[i] && !follow.print(recordOf(lines[i], now[i]), form)) return statusDone;
        }
        known = now;
        if (follow.wait(-1, interval) == Follow::Event::over) return statusDone;
    }
}

int count(const Arguments &, Output &out) {
    unsigned int inputs = 0;
    unsigned int outputs = 0;
    if (dio_roCount(&inputs) != DIO_OK || dio_rwCount(&outputs) != DIO_OK) throw systemFailure(tree);
    out.print(Record{{"inputs", inputs}, {"outputs", outputs}}, Plain::fields);
    return statusDone;
}

int frequency(const Arguments &arguments, Output &out) {
    const Line line = lineOf(arguments[0], false);
    if (line.output) throw Usage{line.name() + " is an output"};
    if (arguments.has("start") && arguments.has("stop")) throw Usage{"--start and --stop exclude each other"};
    const int number = static_cast<int>(line.number);
    if (arguments.has("start") || arguments.has("stop")) {
        check(line, dio_setFrequencyActive(number, arguments.has("start") ? 1 : 0));
        out.done();
        return statusDone;
    }
    dio_frequency_record record{};
    check(line, dio_frequency(number, &record));
    out.print(
        Record{{"line", line.name()}, {"first", record.first}, {"second", record.second}, {"number", record.number}},
        Plain::fields);
    return statusDone;
}

std::vector<std::string> wordsOf(bool inputs, bool outputs) {
    std::vector<std::string> words;
    for (const Line &line : allLines(true)) {
        if (line.output ? outputs : inputs) words.push_back(line.name());
    }
    return words;
}

std::vector<std::string> lineWords(const Arguments &) { return wordsOf(true, true); }
std::vector<std::string> inputWords(const Arguments &) { return wordsOf(true, false); }
std::vector<std::string> changeWords(const Arguments &) {
    std::vector<std::string> words;
    for (const std::string &line : wordsOf(false, true)) {
        words.push_back(line + "=0");
        words.push_back(line + "=1");
    }
    return words;
}

constexpr Option watchOptions[] = {{0, "interval", "MS", "milliseconds between two looks (100)"}};
constexpr Option frequencyOptions[] = {
    {0, "start", nullptr, "start the pulse counting"},
    {0, "stop", nullptr, "stop it"},
};
constexpr Argument lines[] = {{"LINE", Count::many, lineWords}};
constexpr Argument watched[] = {{"LINE", Count::any, lineWords}};
constexpr Argument input[] = {{"LINE", Count::one, inputWords}};
constexpr Argument changes[] = {{"LINE=VALUE", Count::many, changeWords}};

constexpr Verb verbs[] = {
    {"list", "print all inputs and outputs", {}, {}, list},
    {"get", "read inputs, or outputs back", {}, lines, get},
    {"set", "set outputs to 0 or 1, in the order given", {}, changes, set},
    {"watch", "print lines, by default all inputs, and each again when it changes", watchOptions, watched, watch, true},
    {"count", "print how many inputs and outputs there are", {}, {}, count},
    {"frequency", "print an input's pulse counter", frequencyOptions, input, frequency},
};

}  // namespace

const Command ioCommand{"io", "digital inputs and outputs of the board", {}, verbs};

}  // namespace tool
