// SPDX-License-Identifier: MIT
// The command-line tool as a test runs it.
#pragma once

#include <sys/resource.h>
#include <sys/types.h>

#include <string>
#include <utility>
#include <vector>

#include "support/process.h"

namespace vxtest {

struct VxResult {
    int status;  // 128 + signal number when a signal ended it
    std::string out;
    std::string err;
};

// How vx is run, where that differs from a script that collects what it prints.
struct VxSetting {
    std::string input = {};
    std::string outputPath = {};  // file to print into, in place of the pipe
    uid_t user = 0;
    std::string directory = {};
    std::vector<std::pair<std::string, std::string>> environment = {};
    std::vector<std::pair<int, rlim_t>> limits = {};  // of the system, by RLIMIT_ numbers
    unsigned alarm_s = 0;                             // SIGALRM ends it after this time; 0: never
};

// Runs vx to its end. Words may hold any bytes but NUL.
VxResult vx(const std::vector<std::string> &words, const VxSetting &setting = {});

// Words that start vx, for a Process or a shell.
std::vector<std::string> vxCommand(const std::vector<std::string> &words);

// In a forked child: becomes vx. Returns only where that fails, with the child's status.
int becomeVx(const std::vector<std::string> &words);

// Runs a shell script in which "vx" is the tool.
VxResult vxScript(const std::string &script, const VxSetting &setting = {});

// Waits until a process has an inotify watch.
void waitForWatch(const Process &process);

// What is wrong with a JSON document by the installed schema of this name ("config-get"); empty when it is valid.
// Documents of a machine without Python are not looked at.
std::string schemaErrors(const std::string &schema, const std::string &json);

// Runs vx with -j, expects success and a document that is valid by the schema, and returns the document.
std::string vxJson(const std::string &schema, const std::vector<std::string> &words, const VxSetting &setting = {});

}  // namespace vxtest
