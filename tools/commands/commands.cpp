// SPDX-License-Identifier: MIT
#include "commands/commands.h"

namespace tool {

namespace {

constexpr const Command *table[] = {
    &configCommand, &sysinfoCommand, &statusCommand,   &eventCommand,  &logCommand,  &ioCommand,
    &adcCommand,    &boardCommand,   &storageCommand,  &modemCommand,  &smsCommand,  &pingCommand,
    &routeCommand,  &linkCommand,    &addrCommand,     &lockCommand,   &runCommand,  &procCommand,
    &digestCommand, &rebootCommand,  &poweroffCommand, &doctorCommand, &helpCommand,
};

std::string unknown(const char *kind, std::string_view word, const std::vector<const char *> &names) {
    const char *near = nearest(word, names);
    std::string text = std::string("unknown ") + kind + " '" + std::string(word) + "'";
    if (near != nullptr) text += std::string("; did you mean '") + near + "'?";
    return text;
}

}  // namespace

const std::span<const Command *const> allCommands = table;

const Command *findCommand(std::string_view name) {
    for (const Command *command : allCommands) {
        if (name == command->name) return command;
    }
    return nullptr;
}

const Verb *findVerb(const Command &command, std::string_view name) {
    for (const Verb &verb : command.verbs) {
        if (name == verb.name) return &verb;
    }
    return nullptr;
}

Usage unknownCommand(std::string_view word) {
    std::vector<const char *> names;
    for (const Command *command : allCommands) names.push_back(command->name);
    return {unknown("command", word, names)};
}

Usage unknownVerb(const Command &command, std::string_view word) {
    std::vector<const char *> names;
    for (const Verb &verb : command.verbs) names.push_back(verb.name);
    return {unknown("subcommand", word, names)};
}

std::string overview() {
    std::string text = "usage: vx [-j] [-q] COMMAND [SUBCOMMAND] [OPTIONS] [ARGUMENTS]\n\n";
    for (const Command *command : allCommands) {
        std::string line = std::string("  ") + command->name;
        constexpr size_t column = 12;
        line.append(column - line.size(), ' ');
        text += line + command->summary + "\n";
    }
    return text + "\nvx help COMMAND tells of a command, as vx COMMAND --help does.\n";
}

}  // namespace tool
