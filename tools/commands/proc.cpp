// SPDX-License-Identifier: MIT
// vx proc: processes by the beginning of their command lines.
#include <unistd.h>
#include <vxutils/process.h>
#include <vxutils/processcontrol.h>

#include <algorithm>
#include <map>

#include "commands/commands.h"
#include "core/failure.h"
#include "core/follow.h"

namespace tool {

namespace {

constexpr int64_t defaultInterval = 1000;  // milliseconds

using Processes = std::map<int, std::string>;

// All processes of this prefix but this one.
Processes find(const std::string &prefix) {
    ProcessControl table;
    table.refresh(false);
    Processes found;
    const ProcessEntry *entry = nullptr;
    while ((entry = table.getNextProcessEntryByName(prefix.c_str(), entry)) != nullptr) {
        if (entry->getPid() != ::getpid()) found[entry->getPid()] = entry->getName();
    }
    return found;
}

Record recordOf(int pid, const std::string &name) { return {{"pid", pid}, {"name", name}}; }

int findCommand(const Arguments &arguments, Output &out) {
    std::vector<Record> records;
    for (const auto &[pid, name] : find(arguments[0])) records.push_back(recordOf(pid, name));
    if (records.empty()) throw Failure(arguments[0], "no such process");
    out.print(records, arguments.has("names") ? Plain::words : Plain::name);
    return statusDone;
}

int count(const Arguments &arguments, Output &out) {
    const auto number = static_cast<int64_t>(find(arguments[0]).size());
    out.print(Record{{"prefix", arguments[0]}, {"count", number}}, Plain::value);
    return statusDone;
}

int alive(const Arguments &arguments, Output &out) {
    const auto pid = static_cast<int>(arguments.wordAsNumber(0, "PID", 1, INT32_MAX));
    if (pid_alive(pid) != 1) throw Failure(arguments[0], "no such process");
    out.done();
    return statusDone;
}

int watch(const Arguments &arguments, Output &out) {
    const milliseconds interval(arguments.number("interval", defaultInterval, 10, 3600000));
    Follow follow(arguments, out);
    const auto tell = [&](const char *change, int pid, const std::string &name) {
        return follow.print({{"change", change}, {"pid", pid}, {"name", name}}, Plain::words);
    };
    // Names are read again each time: a process that was seen between fork and exec had its parent's.
    for (Processes known;;) {
        Processes now = find(arguments[0]);
        for (const auto &[pid, name] : known) {
            const auto still = now.find(pid);
            if ((still == now.end() || still->second != name) && !tell("ended", pid, name)) return statusDone;
        }
        for (const auto &[pid, name] : now) {
            const auto before = known.find(pid);
            if ((before == known.end() || before->second != name) && !tell("running", pid, name)) return statusDone;
        }
        known = std::move(now);
        if (follow.wait(-1, interval) == Follow::Event::over) return statusDone;
    }
}

// First words of the command lines.
std::vector<std::string> programNames(const Arguments &) {
    std::vector<std::string> words;
    for (const auto &[pid, name] : find("")) {
        if (!name.empty() && name[0] != '[') words.push_back(name.substr(0, name.find(' ')));
    }
    std::sort(words.begin(), words.end());
    words.erase(std::unique(words.begin(), words.end()), words.end());
    return words;
}

constexpr Option findOptions[] = {{0, "names", nullptr, "print the command line after each number"}};
constexpr Option watchOptions[] = {{0, "interval", "MS", "milliseconds between two looks (1000)"}};
constexpr Argument prefix[] = {{"PREFIX", Count::one, programNames}};
constexpr Argument pid[] = {{"PID", Count::one}};

constexpr Verb verbs[] = {
    {"find", "print the numbers of the processes whose command line begins so", findOptions, prefix, findCommand},
    {"count", "print how many there are", {}, prefix, count},
    {"alive", "status 0 when a process exists, else 1", {}, pid, alive},
    {"watch", "print them, and each again when it ends or a new one runs", watchOptions, prefix, watch, true},
};

}  // namespace

const Command procCommand{"proc", "processes", {}, verbs};

}  // namespace tool
