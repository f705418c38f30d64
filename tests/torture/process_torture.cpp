// SPDX-License-Identifier: MIT
#include <unistd.h>
#include <vxutils/process.h>
#include <vxutils/processcontrol.h>

#include <memory>
#include <new>
#include <string>

#include "torture/faults.h"

using torture::Run;

namespace {

void inspect(Run &run) {
    const int parent = run([] { return get_parent_pid(::getpid()); });
    run.outcome("get_parent_pid", parent == ::getppid(), parent == -1 || run.wasShort());
    char name[64];
    const int caller = run([&] { return get_caller(name, sizeof name); });
    run.outcome("get_caller", caller == 0 && std::string(name).rfind("process", 0) == 0, caller == -1 || *name != '\0');
    const std::string command = run([] { return procname(::getpid()); });
    run.outcome("procname", command.find("process_torture") != std::string::npos, command.empty() || run.wasShort());
    const int alive = run([] { return pid_alive(::getpid()); });
    run.outcome("pid_alive", alive == 1, alive == 0);
}

void list(Run &run) {
    ProcessControl control;
    const auto refresh = [&](bool incremental) {
        return run([&] {
            try {
                control.refresh(incremental);
                return true;
            } catch (const std::bad_alloc &) {  // of the index, which only many changes need
                return false;
            }
        });
    };
    refresh(false);
    run.outcome("refresh", control.getProcessEntryByPid(::getpid()) != nullptr, true);
    const bool known = control.getProcessEntryByPid(::getpid()) != nullptr;
    const bool done = refresh(true);
    run.outcome("refresh", control.getProcessEntryByPid(::getpid()) != nullptr || !known, true);
    run.always("an incremental refresh does not throw", done);
    run([&] { control.cleanup(); });
    run.always("cleanup", control.getNumberOfProcesses() == 0);
}

}  // namespace

int main(int argc, char **argv) {
    return torture::torment(argc, argv, {{"process: inspect", inspect}, {"processcontrol: list", list}});
}
