// SPDX-License-Identifier: MIT
#include "core/command.h"

#include <getopt.h>

#include <algorithm>
#include <cstring>
#include <numeric>

#include "core/failure.h"

namespace tool {

namespace {

constexpr Option globals[] = {
    {'j', "json", nullptr, "print JSON"},
    {'q', "quiet", nullptr, "no messages on standard error; the exit status tells"},
    {0, "raw", nullptr, "print control characters as they are, on a terminal too"},
    {'h', "help", nullptr, "show this help"},
};

constexpr Option follow[] = {
    {0, "count", "N", "end after N lines"},
    {0, "for", "SECONDS", "end after this time"},
};

constexpr int longOptionBase = 256;

void append(std::vector<const Option *> &all, std::span<const Option> some) {
    for (const Option &option : some) all.push_back(&option);
}

std::string optionText(const Option &option) {
    std::string text = option.letter != 0 ? std::string("-") + option.letter : std::string("--") + option.name;
    if (option.value != nullptr) text += std::string(" ") + option.value;
    return text;
}

std::string argumentText(const Argument &argument) {
    std::string name = argument.name;
    switch (argument.count) {
        case Count::one:
            return name;
        case Count::optional:
            return "[" + name + "]";
        case Count::any:
            return "[" + name + "...]";
        case Count::many:
            return name + "...";
        case Count::command:
            return "-- " + name + "...";
    }
    return name;
}

void checkCount(std::span<const Argument> arguments, const Arguments &given) {
    size_t least = 0;
    bool unlimited = false;
    const char *missing = nullptr;
    size_t most = 0;
    for (const Argument &argument : arguments) {
        if (argument.count == Count::command) {
            if (given.command().empty()) throw Usage{std::string(argument.name) + " is missing: it goes after --"};
            continue;
        }
        ++most;
        unlimited = unlimited || argument.count == Count::any || argument.count == Count::many;
        if (argument.count != Count::one && argument.count != Count::many) continue;
        ++least;
        if (least > given.size() && missing == nullptr) missing = argument.name;
    }
    if (missing != nullptr) throw Usage{std::string(missing) + " is missing"};
    if (given.size() > most && !unlimited) throw Usage{"too many arguments"};
}

void appendOptions(std::string &text, std::span<const Option> options) {
    for (const Option &option : options) {
        std::string line = option.letter != 0 ? std::string("  -") + option.letter + ", --" : std::string("      --");
        line += option.name;
        if (option.value != nullptr) line += std::string(" ") + option.value;
        constexpr size_t column = 26;
        line.append(line.size() < column ? column - line.size() : 2, ' ');
        text += line + option.help + '\n';
    }
}

size_t editDistance(std::string_view a, std::string_view b) {
    std::vector<size_t> row(b.size() + 1);
    std::iota(row.begin(), row.end(), 0U);
    for (size_t i = 1; i <= a.size(); ++i) {
        size_t diagonal = std::exchange(row[0], i);
        for (size_t j = 1; j <= b.size(); ++j) {
            const size_t replaced = diagonal + (a[i - 1] == b[j - 1] ? 0 : 1);
            diagonal = std::exchange(row[j], std::min({replaced, row[j] + 1, row[j - 1] + 1}));
        }
    }
    return row.back();
}

[[noreturn]] void refuseNumber(std::string_view what, std::string_view text, int64_t least, int64_t most) {
    throw Usage{std::string(what) + ": '" + std::string(text) + "' is not a number from " + std::to_string(least) +
                " to " + std::to_string(most)};
}

}  // namespace

const std::span<const Option> globalOptions = globals;
const std::span<const Option> followOptions = follow;

std::vector<std::string> fileWords(const Arguments &) { return {":file"}; }
std::vector<std::string> programWords(const Arguments &) { return {":program"}; }

std::vector<const Option *> optionsOf(const Command *command, const Verb *verb) {
    std::vector<const Option *> all;
    append(all, globalOptions);
    if (command != nullptr) append(all, command->options);
    if (verb != nullptr) append(all, verb->options);
    if (verb != nullptr && verb->follows) append(all, followOptions);
    return all;
}

const char *Arguments::text(std::string_view option) const {
    const char *found = nullptr;
    for (const auto &[given, value] : options_) {
        if (option == given->name) found = value;
    }
    return found;
}

const char *Arguments::text(std::string_view option, const char *otherwise) const {
    const char *found = text(option);
    return found != nullptr ? found : otherwise;
}

int64_t Arguments::number(std::string_view option, int64_t otherwise, int64_t least, int64_t most) const {
    const char *given = text(option);
    if (given == nullptr) return otherwise;
    const auto value = wholeNumber(given, least, most);
    if (!value) refuseNumber("--" + std::string(option), given, least, most);
    return *value;
}

std::optional<milliseconds> Arguments::seconds(std::string_view option) const {
    const char *given = text(option);
    if (given == nullptr) return std::nullopt;
    const auto value = tool::seconds(given);
    if (!value) throw Usage{"--" + std::string(option) + ": '" + given + "' is not a number of seconds"};
    return value;
}

int64_t Arguments::wordAsNumber(size_t index, const char *name, int64_t least, int64_t most) const {
    const std::string &given = words_.at(index);
    const auto value = wholeNumber(given, least, most);
    if (!value) refuseNumber(name, given, least, most);
    return *value;
}

void CommandLine::readOptions(std::span<const Option *const> known) { read(known, true); }

const char *CommandLine::takeWord() { return next_ < argc_ ? argv_[next_++] : nullptr; }

void CommandLine::readRest(const Command &command, const Verb &verb) {
    const bool runsCommand = !verb.arguments.empty() && verb.arguments.back().count == Count::command;
    char **const end = argv_ + argc_;
    char **split = end;
    if (runsCommand)
        split = std::find_if(argv_ + next_, end, [](const char *word) { return std::strcmp(word, "--") == 0; });
    argc_ = static_cast<int>(split - argv_);

    read(optionsOf(&command, &verb), false);
    arguments_.words_.assign(argv_ + next_, argv_ + argc_);
    if (split != end) arguments_.command_.assign(split + 1, end);
    if (!arguments_.has("help")) checkCount(verb.arguments, arguments_);
}

void CommandLine::read(std::span<const Option *const> known, bool stopAtWord) {
    std::string letters = stopAtWord ? "+:" : ":";
    std::vector<option> names;
    for (size_t i = 0; i < known.size(); ++i) {
        const Option &one = *known[i];
        const int argument = one.value != nullptr ? required_argument : no_argument;
        names.push_back({one.name, argument, nullptr, longOptionBase + static_cast<int>(i)});
        if (one.letter == 0) continue;
        letters += one.letter;
        if (one.value != nullptr) letters += ':';
    }
    names.push_back({});

    // getopt_long() skips the first word, the program's name elsewhere.
    char **const words = argv_ + next_ - 1;
    opterr = 0;
    optind = 0;
    for (int got; (got = getopt_long(argc_ - next_ + 1, words, letters.c_str(), names.data(), nullptr)) != -1;) {
        if (got == '?' || got == ':') {
            const std::string word = optopt > 0 && optopt < longOptionBase
                                         ? std::string("-") + static_cast<char>(optopt)
                                         : words[optind - 1];
            throw Usage{got == ':' ? word + " needs a value" : "unknown option " + word};
        }
        const auto chosen = std::find_if(
            known.begin(), known.end(),
            [&, index = longOptionBase](const Option *one) mutable { return index++ == got || one->letter == got; });
        arguments_.add(**chosen, optarg != nullptr ? optarg : "");
    }
    next_ += optind - 1;
}

std::string usageLine(const Command &command, const Verb &verb) {
    std::string text = std::string("usage: vx ") + command.name;
    if (*verb.name != '\0') text += std::string(" ") + verb.name;
    for (const auto options :
         {command.options, verb.options, verb.follows ? followOptions : std::span<const Option>()}) {
        for (const Option &option : options) text += " [" + optionText(option) + "]";
    }
    for (const Argument &argument : verb.arguments) text += " " + argumentText(argument);
    return text;
}

std::string helpOf(const Command &command, const Verb *verb) {
    std::string text;
    if (verb == nullptr && command.hasVerbs()) {
        text = std::string("vx ") + command.name + ": " + command.summary + "\n\n";
        for (const Verb &one : command.verbs) text += usageLine(command, one) + "\n    " + one.summary + "\n";
        text += "\n";
        appendOptions(text, command.options);
        appendOptions(text, globalOptions);
        return text;
    }
    const Verb &one = verb != nullptr ? *verb : command.verbs[0];
    text = usageLine(command, one) + "\n    " + one.summary + "\n\n";
    appendOptions(text, command.options);
    appendOptions(text, one.options);
    if (one.follows) appendOptions(text, followOptions);
    appendOptions(text, globalOptions);
    return text;
}

const char *nearest(std::string_view word, std::span<const char *const> names) {
    const char *best = nullptr;
    size_t bestDistance = std::max<size_t>(word.size() / 2, 2) + 1;
    for (const char *name : names) {
        const size_t distance = editDistance(word, name);
        if (distance < bestDistance && distance < word.size()) {
            best = name;
            bestDistance = distance;
        }
    }
    return best;
}

}  // namespace tool
