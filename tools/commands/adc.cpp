// SPDX-License-Identifier: MIT
// vx adc: analog inputs, in volts.
#include <unistd.h>
#include <vxutils/adc.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdlib>

#include "commands/commands.h"
#include "core/failure.h"

namespace tool {

namespace {

constexpr const char *converterDirectory = "/sys/bus/iio/devices/iio:device0";
constexpr const char *monitorDirectory = "/sys/bus/i2c/devices/0-0058/da9063-hwmon/hwmon";
constexpr int64_t lastInput = 15;
constexpr float millivolt = 0.001F;

std::string converterPath(int input) { return converterDirectory + ("/in_voltage" + std::to_string(input)) + "_raw"; }

// The monitor's file of an input, "" when there is none. The library complains to the system log on boards without one.
std::string monitorPath(int input) {
    if (::access(monitorDirectory, F_OK) != 0) return {};
    const char *path = qxdelta_get_adc_vin_path(input);
    return path != nullptr ? path : "";
}

struct Reading {
    std::string board;
    float volts;
};

// False when this board type has no such converter.
bool read(const std::string &board, int input, float factor, float &volts) {
    if (board == "delta") {
        const std::string path = monitorPath(input);
        return !path.empty() && qxgamma_adc_read(path.c_str(), &volts, millivolt) == 0;
    }
    const std::string path = converterPath(input);
    if (board == "alpha") return qxalpha_adc_read(path.c_str(), &volts) == 0;
    if (board == "beta") return qxbeta_adc_read(path.c_str(), &volts) == 0;
    return qxgamma_adc_read(path.c_str(), &volts, factor) == 0;
}

// Of a board of this type, or of whichever it is: two types can be told by their files.
std::optional<Reading> readInput(const char *board, int input, float factor) {
    const std::vector<std::string> types =
        board != nullptr ? std::vector<std::string>{board} : std::vector<std::string>{"delta", "alpha"};
    for (const std::string &type : types) {
        float volts = 0;
        if (!read(type, input, factor, volts)) continue;
        if (!std::isfinite(volts)) throw Failure(std::to_string(input), "the voltage is beyond the range of numbers");
        return Reading{type, volts};
    }
    return std::nullopt;
}

float factorOf(const Arguments &arguments) {
    const char *given = arguments.text("factor");
    if (given == nullptr) return 1;
    char *end = nullptr;
    const float factor = std::strtof(given, &end);
    if (end == given || *end != '\0' || !std::isfinite(factor))
        throw Usage{std::string("--factor: '") + given + "' is not a number"};
    return factor;
}

Record recordOf(int input, const Reading &reading) {
    // The library's floats have seven digits that mean something.
    const double volts = std::round(static_cast<double>(reading.volts) * 1e6) / 1e6;
    return {{"input", input}, {"volts", Real{volts, 3}}, {"board", reading.board}};
}

int adc(const Arguments &arguments, Output &out) {
    const char *board = arguments.text("board");
    constexpr std::array<std::string_view, 4> boards{"alpha", "beta", "gamma", "delta"};
    if (board != nullptr && std::find(boards.begin(), boards.end(), board) == boards.end()) {
        throw Usage{std::string("--board: '") + board + "' is not alpha, beta, gamma or delta"};
    }
    const float factor = factorOf(arguments);
    if (arguments.size() > 0) {
        const int input = static_cast<int>(arguments.wordAsNumber(0, "N", 0, lastInput));
        const auto reading = readInput(board, input, factor);
        if (!reading) throw Failure(arguments[0], "no converter");
        out.print(recordOf(input, *reading), Plain::value);
        return statusDone;
    }
    std::vector<Record> records;
    for (int input = 0; input <= lastInput; ++input) {
        if (const auto reading = readInput(board, input, factor)) records.push_back(recordOf(input, *reading));
    }
    if (records.empty()) throw Failure("", "the board has no converter");
    out.print(records, Plain::pair);
    return statusDone;
}

std::vector<std::string> inputWords(const Arguments &) {
    std::vector<std::string> words;
    for (int input = 0; input <= lastInput; ++input) {
        if (readInput(nullptr, input, 1)) words.push_back(std::to_string(input));
    }
    return words;
}

constexpr Option options[] = {
    {0, "board", "TYPE", "alpha, beta, gamma or delta; otherwise found out"},
    {0, "factor", "F", "volts of one step, for gamma (1)"},
};
constexpr Argument input[] = {{"N", Count::optional, inputWords}};
constexpr Verb verbs[] = {{"", "print the voltage at an input, or at all", options, input, adc}};

}  // namespace

const Command adcCommand{"adc", "analog inputs of the board, in volts", {}, verbs};

}  // namespace tool
