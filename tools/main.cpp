// SPDX-License-Identifier: MIT
// vx: the facilities of the library from the shell.
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <exception>
#include <new>
#include <system_error>

#include "commands/commands.h"
#include "complete.h"
#include "core/command.h"
#include "core/failure.h"
#include "core/output.h"

namespace tool {

namespace {

constexpr Option versionOption[] = {{0, "version", nullptr, "print the version"}};

// State of one call, for its error messages.
struct Call {
    Output out;
    const Command *command = nullptr;
    const Verb *verb = nullptr;
};

void setUp(Output &out, const Arguments &arguments) {
    out.setJson(arguments.has("json"));
    out.setQuiet(arguments.has("quiet"));
    out.setRaw(arguments.has("raw"));
}

int help(const Call &call) {
    Output out;
    out.write(call.command == nullptr ? overview() : helpOf(*call.command, call.verb));
    out.flush();
    return statusDone;
}

const Command &chooseCommand(const char *word) {
    if (word == nullptr) throw Usage{"COMMAND is missing"};
    const Command *command = findCommand(word);
    if (command == nullptr) throw unknownCommand(word);
    return *command;
}

const Verb &chooseVerb(const Command &command, const char *word) {
    if (word == nullptr) throw Usage{"SUBCOMMAND is missing"};
    const Verb *verb = findVerb(command, word);
    if (verb == nullptr) throw unknownVerb(command, word);
    return *verb;
}

int perform(Call &call, int argc, char **argv) {
    CommandLine line(argc, argv);
    auto known = optionsOf(nullptr, nullptr);
    known.push_back(versionOption);
    line.readOptions(known);
    const Arguments &arguments = line.arguments();
    setUp(call.out, arguments);
    if (arguments.has("help")) return help(call);
    if (arguments.has("version")) {
        call.out.line("vx " VX_VERSION);
        call.out.flush();
        return statusDone;
    }

    call.command = &chooseCommand(line.takeWord());
    call.out.setPlace(call.command->name);
    if (call.command->hasVerbs()) {
        line.readOptions(optionsOf(call.command, nullptr));
        setUp(call.out, arguments);
        if (arguments.has("help")) return help(call);
        call.verb = &chooseVerb(*call.command, line.takeWord());
        call.out.setPlace(std::string(call.command->name) + " " + call.verb->name);
    } else {
        call.verb = call.command->verbs.data();
    }
    line.readRest(*call.command, *call.verb);
    setUp(call.out, arguments);
    if (arguments.has("help")) return help(call);
    const int status = call.verb->run(arguments, call.out);
    call.out.flush();
    return status;
}

int refuse(const Call &call, const Usage &usage) {
    call.out.message(usage.text);
    if (call.command == nullptr) {
        std::fputs("usage: vx [-j] [-q] COMMAND [SUBCOMMAND] [OPTIONS] [ARGUMENTS]; vx help lists the commands\n",
                   stderr);
    } else if (call.verb != nullptr) {
        std::fprintf(stderr, "%s\n", usageLine(*call.command, *call.verb).c_str());
    } else {
        for (const Verb &verb : call.command->verbs)
            std::fprintf(stderr, "%s\n", usageLine(*call.command, verb).c_str());
    }
    return statusUsage;
}

// Commands that run another one pass its status on, which may be 1 as well. Memory may be short before the line is read.
int ownTrouble(char **argv) {
    const auto takesCommand = [](const Argument &one) { return one.count == Count::command; };
    while (*argv != nullptr && **argv == '-') ++argv;
    const Command *command = *argv != nullptr ? findCommand(*argv) : nullptr;
    if (command == nullptr) return statusFailed;
    const auto arguments = command->verbs[0].arguments;
    return std::any_of(arguments.begin(), arguments.end(), takesCommand) ? statusCannotRun : statusFailed;
}

int attempt(Call &call, int argc, char **argv) {
    try {
        return perform(call, argc, argv);
    } catch (const Usage &usage) {
        return refuse(call, usage);
    } catch (const Failure &failure) {
        call.out.note(failure.text);
        return failure.status;
    } catch (const std::system_error &error) {
        call.out.note(std::string("no thread can be started: ") + error.code().message());
        return ownTrouble(argv + 1);
    }
}

int run(int argc, char **argv) {
    Call call;
    try {
        return attempt(call, argc, argv);
    } catch (const std::bad_alloc &) {  // of a message, too
        call.out.noteOutOfMemory();
        return ownTrouble(argv + 1);
    }
}

// A shell says nothing in the middle of a line, and gets no part of what there is to offer.
int completeOrFail(int argc, char **argv) {
    try {
        return complete({argv + 2, argv + argc});
    } catch (const Failure &) {  // of standard output
        return statusFailed;
    } catch (const std::exception &) {  // memory is short
        return statusFailed;
    }
}

// A write beyond the limit of file sizes fails with EFBIG, which is told, and does not end the tool. Not ignored, unless the
// caller ignores it: that would hold in the programs that the tool runs, too.
void failWhereFilesAreFull() {
    struct sigaction action {};
    struct sigaction before {};
    action.sa_handler = [](int) {};
    action.sa_flags = SA_RESTART;
    ::sigaction(SIGXFSZ, &action, &before);
    if (before.sa_handler == SIG_IGN) ::sigaction(SIGXFSZ, &before, nullptr);
}

// The numbers of closed standard streams are kept from sockets and files that are opened later, into which the tool would
// print. Reading and writing fail as on the closed ones, and programs that the tool runs find them closed.
void occupyClosedStreams() {
    for (const int fd : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
        if (::fcntl(fd, F_GETFD) != -1) continue;
        [[maybe_unused]] const int occupied =
            ::open("/dev/null", (fd == STDIN_FILENO ? O_WRONLY : O_RDONLY) | O_CLOEXEC);
    }
}

}  // namespace

}  // namespace tool

int main(int argc, char **argv) {
    tool::occupyClosedStreams();
    // A caller that ignores it would take the status of every program away that is run here or by the library.
    ::signal(SIGCHLD, SIG_DFL);
    // Asked for by the completions of the shells.
    if (argc > 1 && std::strcmp(argv[1], "__complete") == 0) return tool::completeOrFail(argc, argv);
    tool::failWhereFilesAreFull();
    return tool::run(argc, argv);
}
