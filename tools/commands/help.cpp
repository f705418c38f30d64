// SPDX-License-Identifier: MIT
// vx help: the table of commands, as text or as JSON for other programs that make something of it.
#include "commands/commands.h"
#include "core/failure.h"

namespace tool {

namespace {

void addOptions(std::vector<Record> &records, const Command &command, const Verb &verb,
                std::span<const Option> options) {
    for (const Option &option : options) {
        records.push_back({{"command", command.name},
                           {"subcommand", verb.name},
                           {"option", std::string("--") + option.name},
                           {"letter", option.letter != 0 ? Value(std::string("-") + option.letter) : Value()},
                           {"value", option.value != nullptr ? Value(option.value) : Value()},
                           {"summary", option.help}});
    }
}

// One record for each subcommand, one for each of its options.
void addVerb(std::vector<Record> &records, const Command &command, const Verb &verb) {
    records.push_back({{"command", command.name},
                       {"subcommand", verb.name},
                       {"usage", usageLine(command, verb)},
                       {"summary", verb.summary}});
    addOptions(records, command, verb, command.options);
    addOptions(records, command, verb, verb.options);
    if (verb.follows) addOptions(records, command, verb, followOptions);
}

int help(const Arguments &arguments, Output &out) {
    const Command *command = nullptr;
    const Verb *verb = nullptr;
    if (arguments.size() > 0) {
        command = findCommand(arguments[0]);
        if (command == nullptr) throw unknownCommand(arguments[0]);
    }
    if (arguments.size() > 1) {
        verb = findVerb(*command, arguments[1]);
        if (verb == nullptr) throw unknownVerb(*command, arguments[1]);
    }
    if (!out.json()) {
        out.write(command != nullptr ? helpOf(*command, verb) : overview());
        return statusDone;
    }
    std::vector<Record> records;
    for (const Command *one : allCommands) {
        if (command != nullptr && one != command) continue;
        for (const Verb &two : one->verbs) {
            if (verb == nullptr || &two == verb) addVerb(records, *one, two);
        }
    }
    out.print(records, Plain::row);
    return statusDone;
}

std::vector<std::string> commandWords(const Arguments &) {
    std::vector<std::string> names;
    for (const Command *command : allCommands) names.emplace_back(command->name);
    return names;
}

constexpr Argument words[] = {{"COMMAND", Count::optional, commandWords}, {"SUBCOMMAND", Count::optional}};
constexpr Verb verbs[] = {{"", "tell of all commands, or of one", {}, words, help}};

}  // namespace

const Command helpCommand{"help", "the commands and their options", {}, verbs};

}  // namespace tool
