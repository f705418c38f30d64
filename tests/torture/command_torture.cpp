// SPDX-License-Identifier: MIT
#include <sys/ipc.h>
#include <sys/shm.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vxutils/command.h>

#include <string>

#include "support/files.h"
#include "support/process.h"
#include "torture/faults.h"

using torture::Run;
using namespace std::chrono_literals;

namespace {

// A wait that fails leaves the child to the caller.
void reap() {
    while (::waitpid(-1, nullptr, 0) > 0) continue;
}

void foreground(Run &run) {
    const int code = run([] { return run_command("exit 7", 0); });
    // What fails in the child shows as its exit code: the number of the error.
    run.outcome("run_command", code == 7, code == 0 || code == ENOMEM || code == ENOENT);
    reap();

    const int direct =
        run([] { return _exec_command(0, "/bin/true", "true", "one", static_cast<const char *>(nullptr)); });
    run.outcome("_exec_command", direct == 0, direct == ENOMEM || direct == ENOENT);
    reap();
}

// The shell writes both lines at once, so that each run makes the same number of reads.
void output(Run &run) {
    char text[64];
    const int size = run([&] { return eval_command("printf 'one\\ntwo\\n'", text, sizeof text); });
    run.outcome("eval_command", size == 8 && std::string(text) == "one\ntwo\n", size == -1);
}

void background(Run &run) {
    const int pid = run([] { return run_command("exit 0", 1); }, 3s);
    run.outcome("run_command in the background", pid > 0, pid == 0 || pid == -1);
    reap();
}

// The token of a process that ended is in the way of the start.
void abandonedToken(Run &run) {
    vxtest::inChild([] { return ::shmget(::ftok(".", 52), sizeof(int), IPC_CREAT | 0600) == -1 ? 1 : 0; });
    const int pid = run([] { return run_command("exit 0", 1); }, 3s);
    run.outcome("run_command in the background", pid > 0, pid == 0 || pid == -1);
    reap();
    ::shmctl(::shmget(::ftok(".", 52), 0, 0), IPC_RMID, nullptr);
}

void words(Run &run) {
    char **argv = nullptr;
    int argc = 0;
    const int split = run([&] { return makeargv("one 'two three' four", &argv, &argc); });
    const bool right = split == 0 && argc == 3 && std::string(argv[1]) == "two three";
    run.outcome("makeargv", right, split == -1 && argv == nullptr && argc == 0);
    run([&] { freeargv(argv); });
}

void restart(Run &run) {
    ::unlink("/tmp/rebooted");
    run([] { system_reboot(1, 2); }, 3s);
    const bool started = run.hit() || vxtest::eventually([] { return vxtest::readFile("/tmp/rebooted") == "1 2\n"; });
    run.outcome("system_reboot", started, true);
    reap();
    run([] { system_poweroff(3, 4); }, 3s);
    const bool off = run.hit() || vxtest::eventually([] { return vxtest::readFile("/tmp/rebooted") == "3 4\n"; });
    run.outcome("system_poweroff", off, true);
    reap();
}

}  // namespace

int main(int argc, char **argv) {
    // Written once: a program that still runs cannot be written to.
    vxtest::writeFile("/usr/local/sbin/system-reboot", "#!/bin/sh\necho \"$*\" > /tmp/rebooted\n");
    ::chmod("/usr/local/sbin/system-reboot", 0755);
    vxtest::writeFile("/usr/local/sbin/system-poweroff", "#!/bin/sh\necho \"$*\" > /tmp/rebooted\n");
    ::chmod("/usr/local/sbin/system-poweroff", 0755);
    // A process that cannot fork becomes the program itself: documented, and tested apart.
    const std::set<std::string> noFork{"fork"};
    return torture::torment(argc, argv,
                            {{"command: foreground", foreground, noFork},
                             {"command: output", output},
                             {"command: background", background, noFork},
                             {"command: abandoned token", abandonedToken, noFork},
                             {"command: words", words},
                             {"command: restart", restart, noFork}});
}
