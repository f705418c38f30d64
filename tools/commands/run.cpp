// SPDX-License-Identifier: MIT
// vx run: runs a command as the firmware's daemons do.
#include <unistd.h>
#include <vxutils/command.h>

#include <array>
#include <cstdlib>
#include <cstring>

#include "commands/commands.h"
#include "core/failure.h"
#include "core/owned.h"
#include "core/spawn.h"

namespace tool {

namespace {

constexpr size_t mostWords = 16;  // the program and what the library passes on

// The library starts the program from the directory "/".
std::string absolute(const std::string &path) {
    if (path[0] == '/') return path;
    const Owned<char, &std::free> directory(::getcwd(nullptr, 0));
    if (!directory) throw Failure("working directory", std::strerror(errno), statusCannotRun);
    return std::string(directory.get()) + "/" + path;
}

int detach(const std::vector<std::string> &command, Output &out) {
    if (command.size() > mostWords) throw Usage{"--detach passes on at most 15 arguments"};
    const std::string path = absolute(findProgram(command[0]));
    std::array<const char *, mostWords> words{};
    for (size_t i = 0; i < command.size(); ++i) words[i] = command[i].c_str();
    const char *end = nullptr;
    const int pid =
        _exec_command(1, path.c_str(), words[0], words[1], words[2], words[3], words[4], words[5], words[6], words[7],
                      words[8], words[9], words[10], words[11], words[12], words[13], words[14], words[15], end);
    if (pid <= 0) throw Failure(command[0], "cannot be detached; the system log has the reason", statusCannotRun);
    out.print(Record{{"program", path}, {"pid", pid}}, Plain::value);
    return statusDone;
}

int run(const Arguments &arguments, Output &out) {
    const auto timeout = arguments.seconds("timeout");
    if (arguments.has("detach")) {
        if (timeout) throw Usage{"--detach and --timeout exclude each other"};
        return detach(arguments.command(), out);
    }
    return runProgram(arguments.command(), timeout);
}

constexpr Option options[] = {
    {0, "timeout", "SECONDS", "end the command after this time, with status 124"},
    {0, "detach", nullptr, "start it in a session of its own, on /dev/null, and print its process id"},
};
constexpr Argument arguments[] = {{"CMD", Count::command}};
constexpr Verb verbs[] = {{"", "run a command, for its status or detached", options, arguments, run}};

}  // namespace

const Command runCommand{"run", "other programs, with a time limit or detached", {}, verbs};

}  // namespace tool
