// SPDX-License-Identifier: MIT
// All commands, one in each source of this directory.
#pragma once

#include "core/command.h"
#include "core/failure.h"

namespace tool {

extern const Command adcCommand;
extern const Command addrCommand;
extern const Command boardCommand;
extern const Command configCommand;
extern const Command digestCommand;
extern const Command doctorCommand;
extern const Command eventCommand;
extern const Command helpCommand;
extern const Command ioCommand;
extern const Command linkCommand;
extern const Command lockCommand;
extern const Command logCommand;
extern const Command modemCommand;
extern const Command pingCommand;
extern const Command poweroffCommand;
extern const Command procCommand;
extern const Command rebootCommand;
extern const Command routeCommand;
extern const Command runCommand;
extern const Command smsCommand;
extern const Command statusCommand;
extern const Command storageCommand;
extern const Command sysinfoCommand;

// In the order of the overview.
extern const std::span<const Command *const> allCommands;

const Command *findCommand(std::string_view name);
const Verb *findVerb(const Command &command, std::string_view name);

// Tells that a word is not a command, or not a subcommand of the command, and what may have been meant.
Usage unknownCommand(std::string_view word);
Usage unknownVerb(const Command &command, std::string_view word);

std::string overview();

// Names of the network interfaces.
std::vector<std::string> interfaceWords(const Arguments &given);

}  // namespace tool
