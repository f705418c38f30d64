// SPDX-License-Identifier: MIT
// What a command is: the one table from which its command line is read, its help and completion are made, and which its
// manual page is checked against.
#pragma once

#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "core/output.h"
#include "core/text.h"

namespace tool {

class Arguments;

// For completion: the words that an argument can be, by what was given before it. A word that begins with ':' names
// something that the shell knows better.
using Words = std::vector<std::string> (*)(const Arguments &given);

std::vector<std::string> fileWords(const Arguments &given);     // ":file"
std::vector<std::string> programWords(const Arguments &given);  // ":program"

struct Option {
    char letter;        // 0 when there is no short form
    const char *name;   // of the long form
    const char *value;  // placeholder of its value in the usage line; null for a switch
    const char *help;
    Words words = nullptr;
};

enum class Count { one, optional, any, many, command };  // command: what is to be run, after "--"

struct Argument {
    const char *name;
    Count count;
    Words words = nullptr;
};

struct Verb {
    const char *name;  // empty in a command without subcommands
    const char *summary;
    std::span<const Option> options;
    std::span<const Argument> arguments;
    int (*run)(const Arguments &, Output &);
    bool follows = false;  // takes --count and --for as well
};

struct Command {
    const char *name;
    const char *summary;
    std::span<const Option> options;  // before or after the subcommand
    std::span<const Verb> verbs;

    bool hasVerbs() const { return verbs.size() != 1 || *verbs[0].name != '\0'; }
};

extern const std::span<const Option> globalOptions;
extern const std::span<const Option> followOptions;

// All options that a command line may hold: the global ones, the command's, and the subcommand's when it is known.
std::vector<const Option *> optionsOf(const Command *command, const Verb *verb);

// What a command line said.
class Arguments {
public:
    bool has(std::string_view option) const { return text(option) != nullptr; }
    // Value of an option, the last one given; null when it was not given, "" for a switch.
    const char *text(std::string_view option) const;
    const char *text(std::string_view option, const char *otherwise) const;
    int64_t number(std::string_view option, int64_t otherwise, int64_t least, int64_t most) const;
    std::optional<milliseconds> seconds(std::string_view option) const;

    const std::vector<std::string> &words() const { return words_; }
    const std::vector<std::string> &command() const {
        return command_;
    }  // the words after "--", where one is to be run
    size_t size() const { return words_.size(); }
    const std::string &operator[](size_t index) const { return words_.at(index); }
    int64_t wordAsNumber(size_t index, const char *name, int64_t least, int64_t most) const;

    void add(const Option &option, const char *value) { options_.emplace_back(&option, value); }

private:
    friend class CommandLine;

    std::vector<std::pair<const Option *, const char *>> options_;
    std::vector<std::string> words_;
    std::vector<std::string> command_;
};

// Reads a command line in getopt_long()'s ways: options anywhere before "--", long ones abbreviated while unambiguous.
class CommandLine {
public:
    CommandLine(int argc, char **argv) : argc_(argc), argv_(argv) {}

    // Reads options up to the first other word.
    void readOptions(std::span<const Option *const> known);
    // The first other word; null at the end.
    const char *takeWord();
    // Reads all that is left. Throws Usage where it does not fit.
    void readRest(const Command &command, const Verb &verb);

    const Arguments &arguments() const { return arguments_; }

private:
    void read(std::span<const Option *const> known, bool stopAtWord);

    int argc_;
    char **argv_;
    int next_ = 1;
    Arguments arguments_;
};

// "usage: vx config get [--file PATH] KEY..."
std::string usageLine(const Command &command, const Verb &verb);
std::string helpOf(const Command &command, const Verb *verb);

// The nearest of several names, for a typing mistake; null when none is near.
const char *nearest(std::string_view word, std::span<const char *const> names);

}  // namespace tool
